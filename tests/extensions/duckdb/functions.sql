-- Registration, typed reads, nested values and hostile input through the scalar functions.
SELECT ostrel_register_proto('syntax = "proto3";
package t;
import "google/protobuf/timestamp.proto";
import "google/protobuf/duration.proto";
enum Kind { KIND_UNSPECIFIED = 0; SMALL = 1; LARGE = 2; }
message Part { string sku = 1; uint32 quantity = 2; bytes tag = 3; }
message Rec {
  int64 i64 = 1; uint64 u64 = 2; int32 i32 = 3; uint32 u32 = 4; double d = 5; float f = 6;
  bool b = 7; string s = 8; bytes raw = 9; Kind kind = 10; Part part = 11;
  repeated Part parts = 12; map<string, int64> counts = 13; google.protobuf.Timestamp at = 14;
  repeated sint64 nums = 15; sfixed64 sf = 16; fixed32 fx = 17; map<int32, Part> byId = 18;
  Rec child = 19; google.protobuf.Duration took = 20;
}');
-- The same definition again changes nothing; a changed one is refused.
SELECT ostrel_register_proto('syntax = "proto3"; package t; message Part { string sku = 1; uint32 quantity = 2; bytes tag = 3; }');
SELECT ostrel_register_proto('syntax = "proto3"; package t; message Part { string sku = 1; }');
CREATE TABLE recs AS
SELECT 1 AS n, p_encode('t.Rec', '{"i64": "-9000000000", "u64": "18446744073709551615", "i32": -7,
  "u32": 4000000000, "d": 2.5, "f": 0.25, "b": true, "s": "grüß", "raw": "AP8K", "kind": "LARGE",
  "part": {"sku": "A-1", "quantity": 3, "tag": "YQ=="},
  "parts": [{"sku": "B-1", "quantity": 1}, {"sku": "B-2", "quantity": 2}],
  "counts": {"x": "5", "y": "-6"}, "at": "2024-05-01T12:30:00.123456Z", "nums": [-1, 0, 1],
  "sf": "-3", "fx": 9, "byId": {"7": {"sku": "M"}}, "child": {"i64": "1", "child": {"s": "deep"}}}') AS r
UNION ALL SELECT 2, p_encode('t.Rec', '{}');
SELECT n, p_get(r, 't.Rec', 'i64'), p_get(r, 't.Rec', 'u64'), p_get(r, 't.Rec', 'i32'),
  p_get(r, 't.Rec', 'u32'), p_get(r, 't.Rec', 'd'), p_get(r, 't.Rec', 'f'), p_get(r, 't.Rec', 'b'),
  p_get(r, 't.Rec', 's'), p_get(r, 't.Rec', 'raw'), p_get(r, 't.Rec', 'kind'),
  p_get(r, 't.Rec', 'sf'), p_get(r, 't.Rec', 'fx') FROM recs ORDER BY n;
SELECT typeof(p_get(r, 't.Rec', 'i64')), typeof(p_get(r, 't.Rec', 'u64')),
  typeof(p_get(r, 't.Rec', 'i32')), typeof(p_get(r, 't.Rec', 'u32')),
  typeof(p_get(r, 't.Rec', 'd')), typeof(p_get(r, 't.Rec', 'f')), typeof(p_get(r, 't.Rec', 'b')),
  typeof(p_get(r, 't.Rec', 's')), typeof(p_get(r, 't.Rec', 'raw')),
  typeof(p_get(r, 't.Rec', 'kind')), typeof(p_get(r, 't.Rec', 'at')) FROM recs WHERE n = 1;
SELECT typeof(p_get(r, 't.Rec', 'part')), typeof(p_get(r, 't.Rec', 'parts')),
  typeof(p_get(r, 't.Rec', 'counts')), typeof(p_get(r, 't.Rec', 'child')) FROM recs WHERE n = 1;
SELECT n, p_get(r, 't.Rec', 'part').sku, p_get(r, 't.Rec', 'part').tag, p_get(r, 't.Rec', 'part.quantity'),
  p_get(r, 't.Rec', 'counts')['y'], p_get(r, 't.Rec', 'byId')[7].sku,
  p_get(r, 't.Rec', 'at') = TIMESTAMPTZ '2024-05-01 12:30:00.123456+00', p_get(r, 't.Rec', 'nums'),
  p_get(r, 't.Rec', 'child').child FROM recs ORDER BY n;
SELECT n, UNNEST(p_get(r, 't.Rec', 'parts')).sku AS sku FROM recs ORDER BY n, sku;
SELECT sum(x), count(x) FROM (SELECT UNNEST(p_get(r, 't.Rec', 'nums')) AS x FROM recs);
SELECT n, p_get(r, 't.Rec', 'parts[1].sku'), p_has(r, 't.Rec', 'part'), p_has(r, 't.Rec', 'parts'),
  p_has(r, 't.Rec', 'part.tag') FROM recs ORDER BY n;
SELECT p_json(r, 't.Rec') FROM recs WHERE n = 2;
SELECT p_json(p_encode('t.Part', '{"sku": "Z", "quantity": 4}'), 't.Part');
SELECT p_get(NULL, 't.Rec', 'i64'), p_has(NULL, 't.Rec', 'i64'), p_json(NULL, 't.Rec');
-- Hostile input: malformed bytes, a wrong wire type, unknown names and bad paths are errors.
-- A map entry without its key has the key type's default.
SELECT p_get(unhex('92010512030a0151'), 't.Rec', 'byId')[0].sku;
-- Timestamps and Durations at the ends of their ranges read; one step past either end fails.
SELECT p_get(unhex('720d08ff82d1ffaf0710ff93ebdc03'), 't.Rec', 'at') = TIMESTAMPTZ '9999-12-31 23:59:59.999999+00',
  p_get(unhex('a2010d0880bcaece970910ff93ebdc03'), 't.Rec', 'took');
SELECT p_get(unhex('7209088083d1ffaf071000'), 't.Rec', 'at');
SELECT p_get(unhex('720d08ff91b8c398feffffff011000'), 't.Rec', 'at');
SELECT p_get(unhex('720d080010ffffffffffffffffff01'), 't.Rec', 'at');
SELECT p_get(unhex('72080800108094ebdc03'), 't.Rec', 'at');
SELECT p_get(unhex('a201090881bcaece97091000'), 't.Rec', 'took');
SELECT p_get(unhex('a2010d08ffc3d1b1e8f6ffffff011000'), 't.Rec', 'took');
SELECT p_get(unhex('a201080800108094ebdc03'), 't.Rec', 'took');
SELECT p_get(unhex('a2010d08001080ec94a3fcffffffff01'), 't.Rec', 'took');
SELECT p_get(unhex('0a'), 't.Rec', 'i64');
SELECT p_get(unhex('08'), 't.Rec', 'i64');
SELECT p_get(unhex('0d00000000'), 't.Rec', 'i64');
SELECT p_get(unhex('4203ffff41'), 't.Rec', 's');
SELECT p_json(unhex('ffffffffffffffffffff01'), 't.Rec');
SELECT p_get(r, 't.Nope', 'i64') FROM recs;
SELECT p_get(r, 't.Rec', 'nope') FROM recs;
SELECT p_get(r, 't.Rec', 'part..sku') FROM recs;
SELECT p_get(r, 't.Rec', 'i64[0]') FROM recs;
SELECT p_encode('t.Rec', '{"i64": ');
SELECT ostrel_register_descriptor_set(unhex('0aff'));
SELECT ostrel_register_manifest('{');
SELECT ostrel_register_proto('message {');
-- A path a thousand messages deep through a type that contains itself reads nothing here.
SELECT n, p_get(r, 't.Rec', repeat('child.', 1000) || 'i64') FROM recs ORDER BY n;
SELECT p_get(r, 't.Rec', 'parts[') FROM recs;
SELECT p_get(r, 't.Rec', 'parts[-1].sku') FROM recs;
SELECT p_get(r, 't.Rec', 'parts[99999999999].sku') FROM recs WHERE n = 1;
SELECT p_get(r, 't.Rec', 'i64'), p_get(r, 't.Rec', chr(0)) FROM recs;
-- Type and path from columns: each row reads with its own (A.v is set; A.w, B.v and B.w are not).
SELECT ostrel_register_proto('syntax = "proto3"; package c; message A { int32 v = 1; string w = 2; } message B { int32 v = 3; string w = 4; }');
SELECT list(p_has(unhex('0807'), t, p) ORDER BY i) FROM (VALUES (1, 'c.A', 'v'), (2, 'c.A', 'w'), (3, 'c.B', 'w'), (4, 'c.B', 'v'), (5, 'c.A', 'v')) x(i, t, p);
-- A registration runs when its statement does, not when it is prepared.
PREPARE q AS SELECT ostrel_register_proto('syntax = "proto3"; package e; message E { int32 x = 1; }');
SELECT p_json(unhex('0801'), 'e.E');
EXECUTE q;
SELECT p_json(unhex('0801'), 'e.E');
