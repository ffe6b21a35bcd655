-- One request, one answer on every surface: the faulty requests of tests/data/surface_faults.tsv,
-- the table the library, tool and SQLite tests read too. Each must raise the library's error text,
-- under the SQLSTATE of its kind: invalid_binary_representation for the bytes of a record,
-- datatype_mismatch for a typed read of another kind, invalid_parameter_value for the rest.
\getenv data OSTREL_TEST_DATA
\set faults_file :data '/surface_faults.tsv'
CREATE TABLE surface_faults AS
  SELECT f[1] AS name, f[2] AS surfaces, f[3] AS job, f[4] AS input, f[5] AS path, f[6] AS class,
         f[7] AS error
  FROM regexp_split_to_table(pg_read_file(:'faults_file'), E'\n') WITH ORDINALITY AS l(line, n),
       string_to_array(line, E'\t') AS f
  WHERE n > 1 AND line <> '';

CREATE FUNCTION surface_answer(f surface_faults, OUT state text, OUT message text)
LANGUAGE plpgsql AS $$
BEGIN
  CASE f.job
    WHEN 'json' THEN PERFORM p_json(decode(f.input, 'hex'), 'shop.Order');
    WHEN 'iterate' THEN PERFORM count(*) FROM p_each(decode(f.input, 'hex'), 'shop.Order', f.path);
    WHEN 'int64' THEN PERFORM p_get_bigint(decode(f.input, 'hex'), 'shop.Order', f.path);
    WHEN 'manifest' THEN PERFORM ostrel_register_manifest(f.input);
  END CASE;
  state := '00000';
  message := 'no error';
EXCEPTION WHEN others THEN
  GET STACKED DIAGNOSTICS state = RETURNED_SQLSTATE, message = MESSAGE_TEXT;
END $$;

-- The rows that answer otherwise: none.
SELECT name, state, message FROM surface_faults f, surface_answer(f)
WHERE surfaces LIKE '%postgres%'
  AND (message <> error OR state <> CASE WHEN class = 'SerializationError' THEN '22P03'
                                         WHEN job = 'int64' THEN '42804'
                                         ELSE '22023' END);
SELECT count(*) > 5 AS checked FROM surface_faults WHERE surfaces LIKE '%postgres%';
