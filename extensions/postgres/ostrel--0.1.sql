-- The ostrel extension: Protocol Buffers records stored as bytea, read by message type and
-- property path ('customer.id', 'items[2].sku').
\echo Use "CREATE EXTENSION ostrel" to load this file. \quit

-- Registered message and enum types, one row per fully qualified name, each the JSON manifest of
-- that one type. Rows are only ever added: a name keeps its definition for good, which is what lets
-- the read functions be IMMUTABLE (an index over them stays right). A new version of a type is a
-- new name.
CREATE TABLE @extschema@.ostrel_schemas (
  name text PRIMARY KEY,
  is_message boolean NOT NULL,
  definition text NOT NULL,
  registered_at timestamptz NOT NULL DEFAULT now()
);
SELECT pg_catalog.pg_extension_config_dump('@extschema@.ostrel_schemas', '');
REVOKE ALL ON @extschema@.ostrel_schemas FROM PUBLIC;
-- Every role that reads records needs the definitions.
GRANT SELECT ON @extschema@.ostrel_schemas TO PUBLIC;

CREATE FUNCTION @extschema@.ostrel_schemas_append_only() RETURNS trigger
LANGUAGE plpgsql AS $$
BEGIN
  RAISE EXCEPTION 'registered ostrel schemas cannot be changed or removed; register a new name'
    USING ERRCODE = 'object_in_use';
END $$;
CREATE TRIGGER append_only BEFORE UPDATE OR DELETE ON @extschema@.ostrel_schemas
  FOR EACH ROW EXECUTE FUNCTION @extschema@.ostrel_schemas_append_only();
CREATE TRIGGER append_only_truncate BEFORE TRUNCATE ON @extschema@.ostrel_schemas
  FOR EACH STATEMENT EXECUTE FUNCTION @extschema@.ostrel_schemas_append_only();

-- The number of registered message types, kept up by every insert (a restore's too) so that a
-- registration need not count the whole catalog. Not dumped: a restore counts the rows it adds.
CREATE TABLE @extschema@.ostrel_schema_count (messages bigint NOT NULL);
INSERT INTO @extschema@.ostrel_schema_count VALUES (0);
REVOKE ALL ON @extschema@.ostrel_schema_count FROM PUBLIC;
CREATE FUNCTION @extschema@.ostrel_schemas_counted() RETURNS trigger
LANGUAGE plpgsql SET search_path = pg_catalog, pg_temp AS $$
BEGIN
  UPDATE @extschema@.ostrel_schema_count
    SET messages = messages + (SELECT count(*) FROM added WHERE added.is_message);
  RETURN NULL;
END $$;
CREATE TRIGGER counted AFTER INSERT ON @extschema@.ostrel_schemas
  REFERENCING NEW TABLE AS added
  FOR EACH STATEMENT EXECUTE FUNCTION @extschema@.ostrel_schemas_counted();

-- Registration helpers: the types of a schema in one canonical text each, and the check that the
-- types a registration adds resolve against themselves and the registered types they refer to.
CREATE FUNCTION @extschema@.ostrel_schema_definitions(format text, input bytea,
    OUT name text, OUT is_message boolean, OUT definition text)
RETURNS SETOF record
AS 'MODULE_PATHNAME', 'ostrel_schema_definitions' LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;

CREATE FUNCTION @extschema@.ostrel_check_schemas(definitions text[]) RETURNS void
AS 'MODULE_PATHNAME', 'ostrel_check_schemas' LANGUAGE C VOLATILE STRICT PARALLEL UNSAFE;

CREATE FUNCTION @extschema@.ostrel_register(format text, input bytea) RETURNS integer
LANGUAGE plpgsql VOLATILE STRICT PARALLEL UNSAFE
SET search_path = pg_catalog, pg_temp
AS $$
DECLARE
  incoming record;
  existing text;
  added text[] := '{}';
BEGIN
  -- One registration at a time, so that the check below sees every row it must agree with.
  LOCK TABLE @extschema@.ostrel_schemas IN SHARE ROW EXCLUSIVE MODE;
  FOR incoming IN SELECT * FROM @extschema@.ostrel_schema_definitions(format, input) LOOP
    SELECT s.definition INTO existing FROM @extschema@.ostrel_schemas s
      WHERE s.name = incoming.name;
    IF NOT FOUND THEN
      INSERT INTO @extschema@.ostrel_schemas (name, is_message, definition)
        VALUES (incoming.name, incoming.is_message, incoming.definition);
      added := array_append(added, incoming.definition);
    ELSIF existing <> incoming.definition THEN
      RAISE EXCEPTION 'type "%" is already registered with another definition', incoming.name
        USING ERRCODE = 'invalid_parameter_value',
              HINT = 'A registered type never changes; register the new version under a new name.';
    END IF;
  END LOOP;
  -- The new types against what they refer to; the registered ones were checked when they came.
  IF cardinality(added) > 0 THEN
    PERFORM @extschema@.ostrel_check_schemas(added);
  END IF;
  RETURN (SELECT c.messages FROM @extschema@.ostrel_schema_count c);
END $$;

-- A serialized google.protobuf.FileDescriptorSet (protoc --descriptor_set_out --include_imports).
CREATE FUNCTION @extschema@.ostrel_register_descriptor_set(descriptor_set bytea) RETURNS integer
LANGUAGE sql VOLATILE STRICT PARALLEL UNSAFE
RETURN @extschema@.ostrel_register('descriptor_set', descriptor_set);

-- The library's JSON manifest.
CREATE FUNCTION @extschema@.ostrel_register_manifest(manifest text) RETURNS integer
LANGUAGE sql VOLATILE STRICT PARALLEL UNSAFE
RETURN @extschema@.ostrel_register('manifest', pg_catalog.convert_to(manifest, 'UTF8'));

-- .proto source text; imports of google/protobuf/*.proto come from libprotobuf's own files.
CREATE FUNCTION @extschema@.ostrel_register_proto(proto text) RETURNS integer
LANGUAGE sql VOLATILE STRICT PARALLEL UNSAFE
RETURN @extschema@.ostrel_register('proto', pg_catalog.convert_to(proto, 'UTF8'));

-- Message type names and property paths are text that is never compared under a collation. They
-- get a text type of their own without one: postgres_fdw sends a function to the remote server
-- only when every collatable input comes from a column of the foreign table, and a constant of
-- type text carries the default collation. Text converts to it implicitly.
CREATE TYPE @extschema@.ostrel_text;
CREATE FUNCTION @extschema@.ostrel_text_in(cstring) RETURNS @extschema@.ostrel_text
AS 'textin' LANGUAGE internal IMMUTABLE STRICT PARALLEL SAFE;
CREATE FUNCTION @extschema@.ostrel_text_out(@extschema@.ostrel_text) RETURNS cstring
AS 'textout' LANGUAGE internal IMMUTABLE STRICT PARALLEL SAFE;
CREATE FUNCTION @extschema@.ostrel_text_recv(internal) RETURNS @extschema@.ostrel_text
AS 'textrecv' LANGUAGE internal IMMUTABLE STRICT PARALLEL SAFE;
CREATE FUNCTION @extschema@.ostrel_text_send(@extschema@.ostrel_text) RETURNS bytea
AS 'textsend' LANGUAGE internal IMMUTABLE STRICT PARALLEL SAFE;
CREATE TYPE @extschema@.ostrel_text (
  INPUT = @extschema@.ostrel_text_in, OUTPUT = @extschema@.ostrel_text_out,
  RECEIVE = @extschema@.ostrel_text_recv, SEND = @extschema@.ostrel_text_send,
  INTERNALLENGTH = VARIABLE, ALIGNMENT = int4, STORAGE = extended);
CREATE CAST (text AS @extschema@.ostrel_text) WITHOUT FUNCTION AS IMPLICIT;
CREATE CAST (varchar AS @extschema@.ostrel_text) WITHOUT FUNCTION AS IMPLICIT;
CREATE CAST (@extschema@.ostrel_text AS text) WITHOUT FUNCTION AS ASSIGNMENT;

-- Reads. `type` is a registered message type, `path` a property path into it. Absent fields give
-- NULL; malformed records, unknown types and bad paths raise errors. A field the record holds more
-- than once reads as its first occurrence, the search stopping there; the four-argument forms with
-- `exact => true` give protobuf's answer instead (the last value, messages merged, of a oneof the last
-- member), reading every message on the path to its end.
CREATE FUNCTION @extschema@.p_get(data bytea, type @extschema@.ostrel_text, path @extschema@.ostrel_text) RETURNS jsonb
AS 'MODULE_PATHNAME', 'ostrel_p_get' LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
CREATE FUNCTION @extschema@.p_get_bigint(data bytea, type @extschema@.ostrel_text, path @extschema@.ostrel_text) RETURNS bigint
AS 'MODULE_PATHNAME', 'ostrel_p_get_bigint' LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
CREATE FUNCTION @extschema@.p_get_numeric(data bytea, type @extschema@.ostrel_text, path @extschema@.ostrel_text) RETURNS numeric
AS 'MODULE_PATHNAME', 'ostrel_p_get_numeric' LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
CREATE FUNCTION @extschema@.p_get_double(data bytea, type @extschema@.ostrel_text, path @extschema@.ostrel_text)
RETURNS double precision
AS 'MODULE_PATHNAME', 'ostrel_p_get_double' LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
CREATE FUNCTION @extschema@.p_get_bool(data bytea, type @extschema@.ostrel_text, path @extschema@.ostrel_text) RETURNS boolean
AS 'MODULE_PATHNAME', 'ostrel_p_get_bool' LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
CREATE FUNCTION @extschema@.p_get_text(data bytea, type @extschema@.ostrel_text, path @extschema@.ostrel_text) RETURNS text
AS 'MODULE_PATHNAME', 'ostrel_p_get_text' LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
CREATE FUNCTION @extschema@.p_get_bytea(data bytea, type @extschema@.ostrel_text, path @extschema@.ostrel_text) RETURNS bytea
AS 'MODULE_PATHNAME', 'ostrel_p_get_bytea' LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
CREATE FUNCTION @extschema@.p_has(data bytea, type @extschema@.ostrel_text, path @extschema@.ostrel_text) RETURNS boolean
AS 'MODULE_PATHNAME', 'ostrel_p_has' LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
-- The same reads with `exact`: true gives protobuf's answer, false the first occurrence.
CREATE FUNCTION @extschema@.p_get(data bytea, type @extschema@.ostrel_text, path @extschema@.ostrel_text,
    exact boolean) RETURNS jsonb
AS 'MODULE_PATHNAME', 'ostrel_p_get' LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
CREATE FUNCTION @extschema@.p_get_bigint(data bytea, type @extschema@.ostrel_text, path @extschema@.ostrel_text,
    exact boolean) RETURNS bigint
AS 'MODULE_PATHNAME', 'ostrel_p_get_bigint' LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
CREATE FUNCTION @extschema@.p_get_numeric(data bytea, type @extschema@.ostrel_text, path @extschema@.ostrel_text,
    exact boolean) RETURNS numeric
AS 'MODULE_PATHNAME', 'ostrel_p_get_numeric' LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
CREATE FUNCTION @extschema@.p_get_double(data bytea, type @extschema@.ostrel_text, path @extschema@.ostrel_text,
    exact boolean) RETURNS double precision
AS 'MODULE_PATHNAME', 'ostrel_p_get_double' LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
CREATE FUNCTION @extschema@.p_get_bool(data bytea, type @extschema@.ostrel_text, path @extschema@.ostrel_text,
    exact boolean) RETURNS boolean
AS 'MODULE_PATHNAME', 'ostrel_p_get_bool' LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
CREATE FUNCTION @extschema@.p_get_text(data bytea, type @extschema@.ostrel_text, path @extschema@.ostrel_text,
    exact boolean) RETURNS text
AS 'MODULE_PATHNAME', 'ostrel_p_get_text' LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
CREATE FUNCTION @extschema@.p_get_bytea(data bytea, type @extschema@.ostrel_text, path @extschema@.ostrel_text,
    exact boolean) RETURNS bytea
AS 'MODULE_PATHNAME', 'ostrel_p_get_bytea' LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
CREATE FUNCTION @extschema@.p_has(data bytea, type @extschema@.ostrel_text, path @extschema@.ostrel_text,
    exact boolean) RETURNS boolean
AS 'MODULE_PATHNAME', 'ostrel_p_has' LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
-- One row per element of a repeated field or map, like jsonb_each.
CREATE FUNCTION @extschema@.p_each(data bytea, type @extschema@.ostrel_text, path @extschema@.ostrel_text,
    OUT index integer, OUT key text, OUT value jsonb)
RETURNS SETOF record
AS 'MODULE_PATHNAME', 'ostrel_p_each' LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE ROWS 10;
CREATE FUNCTION @extschema@.p_json(data bytea, type @extschema@.ostrel_text) RETURNS jsonb
AS 'MODULE_PATHNAME', 'ostrel_p_json' LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
CREATE FUNCTION @extschema@.p_encode(type @extschema@.ostrel_text, json jsonb) RETURNS bytea
AS 'MODULE_PATHNAME', 'ostrel_p_encode' LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
-- The parts of a Kafka value in Confluent's envelope (magic byte, schema id or GUID, message-index
-- path, message), so that p_get reads a table of raw Kafka values; form 'unsigned' reads the
-- index path as older Python serializers write it.
CREATE FUNCTION @extschema@.p_confluent_id(value bytea, form text DEFAULT 'zigzag') RETURNS integer
AS 'MODULE_PATHNAME', 'ostrel_p_confluent_id' LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
CREATE FUNCTION @extschema@.p_confluent_guid(value bytea, form text DEFAULT 'zigzag') RETURNS uuid
AS 'MODULE_PATHNAME', 'ostrel_p_confluent_guid' LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
CREATE FUNCTION @extschema@.p_confluent_path(value bytea, form text DEFAULT 'zigzag')
RETURNS integer[]
AS 'MODULE_PATHNAME', 'ostrel_p_confluent_path' LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
CREATE FUNCTION @extschema@.p_confluent_payload(value bytea, form text DEFAULT 'zigzag')
RETURNS bytea
AS 'MODULE_PATHNAME', 'ostrel_p_confluent_payload' LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
