-- Registration: the three schema forms, idempotence, refusal of a changed definition, the checks
-- made before anything is kept, and the append-only catalog.
\getenv data OSTREL_TEST_DATA
\set desc_file :data '/shop.desc'
CREATE EXTENSION ostrel;

SELECT ostrel_register_descriptor_set(pg_read_binary_file(:'desc_file'));
-- The same definitions again change nothing.
SELECT ostrel_register_descriptor_set(pg_read_binary_file(:'desc_file'));
SELECT name, is_message FROM ostrel_schemas ORDER BY name;

-- .proto text, with an import resolved from libprotobuf's own files.
SELECT ostrel_register_proto($$
syntax = "proto3";
package t;
import "google/protobuf/timestamp.proto";
enum Level { LEVEL_UNSPECIFIED = 0; LOW = 1; HIGH = 2; }
message Scalars {
  double d = 1;
  float f = 2;
  bool b = 3;
  bytes raw = 4;
  sint32 s32 = 5;
  sfixed64 sf64 = 6;
  int32 i32 = 7;
  map<int32, string> names = 8;
  repeated double ds = 9;
  string s = 10;
  uint64 big = 11;
  Level level = 12;
  google.protobuf.Timestamp at = 13;
  repeated Level levels = 14;
  map<string, Scalars> children = 15;
  map<bool, int32> flags = 16;
}
message Holder { Scalars inner = 1; }
message Node { Node next = 1; int32 v = 2; repeated Node more = 3; }
$$);

-- The library's JSON manifest.
SELECT ostrel_register_manifest(
  '{"messages": {"m.Point": {"fields": {"x": {"type": "int", "fieldNumber": 1},
                                        "y": {"type": "int", "fieldNumber": 2}}}}}');

-- A changed definition under a registered name is refused, naming the type, and nothing of that
-- registration is kept.
SELECT ostrel_register_proto($$
syntax = "proto3";
package shop;
message Customer { uint64 id = 1; string name = 2; string email = 3; string phone = 4; }
message Fresh { int32 a = 1; }
$$);
SELECT count(*) FROM ostrel_schemas WHERE name = 'shop.Fresh';
-- The same name with the identical definition next to a new type is fine.
SELECT ostrel_register_proto($$
syntax = "proto3";
package shop;
message Customer { uint64 id = 1; string name = 2; string email = 3; }
message Fresh { int32 a = 1; }
$$);

-- A field whose type is not registered.
SELECT ostrel_register_manifest(
  '{"messages": {"m.Line": {"fields": {"from": {"type": "schema", "typeName": "m.Nowhere", "fieldNumber": 1}}}}}');
SELECT count(*) FROM ostrel_schemas WHERE name = 'm.Line';

-- Inputs that are not schemas.
SELECT ostrel_register_descriptor_set('\x0a05'::bytea);
SELECT ostrel_register_manifest('{"messages": {"m.Bad": {"fields": {"x": {"type": "int"}}}}}');
SELECT ostrel_register_manifest('not json');
SELECT ostrel_register_proto('syntax = "proto3"; message { }');
SELECT ostrel_register_proto('syntax = "proto3"; import "missing.proto";');
SELECT ostrel_register_proto(NULL);

-- The catalog only grows.
UPDATE ostrel_schemas SET definition = '{}' WHERE name = 'shop.Order';
DELETE FROM ostrel_schemas WHERE name = 'shop.Order';
TRUNCATE ostrel_schemas;
SELECT count(*), count(*) FILTER (WHERE is_message) FROM ostrel_schemas;

-- A registration rolled back is forgotten by this backend too: the name is free again, here for
-- a different definition.
BEGIN;
SELECT ostrel_register_proto('syntax = "proto3"; package rb; message M { int32 a = 1; }');
SELECT p_get_bigint(p_encode('rb.M', '{"a": 5}'), 'rb.M', 'a');
ROLLBACK;
SELECT p_encode('rb.M', '{}');
SELECT ostrel_register_proto('syntax = "proto3"; package rb; message M { string a = 1; }');
SELECT p_get_text(p_encode('rb.M', '{"a": "five"}'), 'rb.M', 'a');
-- The same inside a savepoint.
BEGIN;
SAVEPOINT s;
SELECT ostrel_register_proto('syntax = "proto3"; package sp; message M { int32 a = 1; }');
SELECT p_get_bigint(p_encode('sp.M', '{"a": 5}'), 'sp.M', 'a');
ROLLBACK TO SAVEPOINT s;
SELECT p_encode('sp.M', '{}');
COMMIT;

-- Every function is IMMUTABLE STRICT PARALLEL SAFE but the registration ones.
SELECT p.proname, p.provolatile, p.proisstrict, p.proparallel
FROM pg_proc p JOIN pg_depend d ON d.objid = p.oid AND d.classid = 'pg_proc'::regclass
JOIN pg_extension e ON e.oid = d.refobjid AND e.extname = 'ostrel'
ORDER BY p.proname;
