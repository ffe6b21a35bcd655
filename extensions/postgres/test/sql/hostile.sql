-- Hostile input: random and mangled records through every read, deep JSON, long and odd paths.
-- Every fault must be an ordinary error; the backend stays up and keeps answering.
CREATE FUNCTION try_all(record bytea, path text) RETURNS int LANGUAGE plpgsql AS $$
DECLARE
  failures int := 0;
BEGIN
  BEGIN PERFORM p_get(record, 'shop.Order', path); EXCEPTION WHEN others THEN failures := failures + 1; END;
  BEGIN PERFORM p_get_text(record, 'shop.Order', path); EXCEPTION WHEN others THEN failures := failures + 1; END;
  BEGIN PERFORM p_get_bytea(record, 'shop.Order', path); EXCEPTION WHEN others THEN failures := failures + 1; END;
  BEGIN PERFORM p_has(record, 'shop.Order', path); EXCEPTION WHEN others THEN failures := failures + 1; END;
  BEGIN PERFORM count(*) FROM p_each(record, 'shop.Order', 'items'); EXCEPTION WHEN others THEN failures := failures + 1; END;
  BEGIN PERFORM count(*) FROM p_each(record, 'shop.Order', 'attributes'); EXCEPTION WHEN others THEN failures := failures + 1; END;
  BEGIN PERFORM p_json(record, 'shop.Order'); EXCEPTION WHEN others THEN failures := failures + 1; END;
  RETURN failures;
END $$;

-- Random bytes, and the example records with bytes flipped, cut short and grown.
SELECT setseed(0.19);
CREATE TABLE junk AS
  SELECT decode(string_agg(lpad(to_hex((random() * 255)::int), 2, '0'), ''), 'hex') AS record
  FROM generate_series(1, 300) g, generate_series(1, 1 + (g % 64)) b GROUP BY g;
INSERT INTO junk SELECT set_byte(record, i % length(record), (i * 37) % 256)
  FROM orders, generate_series(0, 200) i;
INSERT INTO junk SELECT substring(record FROM 1 FOR i) FROM orders, generate_series(0, 150) i;
INSERT INTO junk SELECT record || '\x0a7f'::bytea FROM orders;
SELECT count(*) > 0 AS some_fail, count(*) < (SELECT count(*) FROM junk) * 7 AS not_all_fail
FROM (SELECT try_all(record, p) AS failures FROM junk,
        unnest(ARRAY['id', 'customer.name', 'items[1].sku', 'customer']) p) t
WHERE failures > 0;

-- Nesting: records nested far deeper than any schema goes, and JSON nested deep.
SELECT p_json(p_encode('t.Scalars', j), 't.Scalars') #>> '{children,x,children,x,children,x,i32}' AS i32
FROM (SELECT (repeat('{"children": {"x": ', 3) || '{"i32": 1}' || repeat('}}', 3))::jsonb AS j) s;
SELECT length(p_json(p_encode('t.Scalars', j), 't.Scalars')::text)
FROM (SELECT (repeat('{"children": {"x": ', 40) || '{}' || repeat('}}', 40))::jsonb AS j) s;
SELECT p_encode('t.Scalars', (repeat('{"children": {"x": ', 150) || '{}' || repeat('}}', 150))::jsonb);
SELECT p_encode('t.Scalars', (repeat('[', 5000) || repeat(']', 5000))::jsonb);
SELECT p_encode('t.Scalars', jsonb_build_object('ds', (repeat('[', 3000) || repeat(']', 3000))::jsonb));
-- Records nested 10,000 levels deep (t.Node's field 1 is a t.Node).
CREATE FUNCTION varint(v int) RETURNS bytea LANGUAGE sql IMMUTABLE AS $$
  SELECT CASE WHEN v < 128 THEN set_byte('\x00'::bytea, 0, v)
              WHEN v < 16384 THEN set_byte(set_byte('\x0000'::bytea, 0, 128 + v % 128), 1, v / 128)
              ELSE set_byte(set_byte(set_byte('\x000000'::bytea, 0, 128 + v % 128), 1, 128 + (v / 128) % 128), 2, v / 16384) END $$;
CREATE TABLE deep AS SELECT '\x1007'::bytea AS rec;
DO $$
DECLARE
  rec bytea := '\x1007';
BEGIN
  FOR i IN 1..10000 LOOP
    rec := '\x0a'::bytea || varint(length(rec)) || rec;
  END LOOP;
  INSERT INTO deep VALUES (rec);
END $$;
SELECT length(rec), p_get_bigint(rec, 't.Node', 'next.next.next.v') AS v3 FROM deep ORDER BY 1;
-- Rendering stops at 100 nested messages: the deep record is an error, not a text with one in it.
SELECT length(p_json(rec, 't.Node')::text) > 0 AS rendered FROM deep WHERE length(rec) = 2;
SELECT p_json(rec, 't.Node') FROM deep WHERE length(rec) > 2;
SELECT p_get_bigint(rec, 't.Node', repeat('next.', 9999) || 'v') FROM deep WHERE length(rec) > 2;
SELECT p_get_bigint(rec, 't.Node', repeat('next.', 10000) || 'v') FROM deep WHERE length(rec) > 2;
SELECT count(*) FROM deep, p_each(rec, 't.Node', repeat('next.', 5000) || 'more');

-- Paths: long, binary, quoted, huge indices.
SELECT p_get(record, 'shop.Order', repeat('customer.', 5000) || 'id') FROM orders WHERE n = 1;
SELECT p_get(record, 'shop.Order', 'items[99999999999999999999].sku') FROM orders WHERE n = 1;
SELECT p_get(record, 'shop.Order', 'items[9223372036854775807].sku') FROM orders WHERE n = 1;
SELECT p_get(record, 'shop.Order', E'cust\u00f6mer') FROM orders WHERE n = 1;
SELECT p_get(record, E'shop.\u00f6', 'id') FROM orders WHERE n = 1;
SELECT p_get(record, '', 'id') FROM orders WHERE n = 1;
-- Still here.
SELECT p_get_bigint(record, 'shop.Order', 'customer.id') FROM orders ORDER BY n;
-- Error texts are cut at a character boundary and hold only valid UTF-8.
SELECT length(p_get(record, 'shop.Order', 'a' || repeat('ö', 1500) || '..x')::text) FROM orders WHERE n = 1;
