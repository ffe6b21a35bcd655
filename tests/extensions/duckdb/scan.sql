-- ostrel_scan over generated record files: typed columns, globs and lists, both framings, a
-- corrupt record, projection pushdown, and Parquet out and back.
SET threads = 2;
SELECT ostrel_register_proto('syntax = "proto3";
package s;
message Item { string sku = 1; uint32 quantity = 2; int64 price = 3; }
message Order {
  uint64 id = 1; string customer = 2; repeated Item items = 3; map<string, string> attributes = 4;
  double total = 5; bytes note = 6;
}');
.write varint a.bin SELECT p_encode('s.Order', json_object('id', i, 'customer', 'c' || (i % 7),
  'items', [json_object('sku', 'k' || (i % 3), 'quantity', i % 5 + 1, 'price', i * 10)],
  'attributes', json_object('tier', CASE WHEN i % 2 = 0 THEN 'gold' ELSE 'basic' END),
  'total', i / 4)::VARCHAR) FROM range(1, 3001) t(i);
.write varint b.bin SELECT p_encode('s.Order', json_object('id', i, 'customer', 'x')::VARCHAR) FROM range(3001, 3101) t(i);
.write single one- SELECT p_encode('s.Order', json_object('id', i, 'note', 'AQI=')::VARCHAR) FROM range(3) t(i);
DESCRIBE SELECT * FROM ostrel_scan('a.bin', 's.Order');
SELECT count(*), sum(id), count(DISTINCT customer), sum(total) FROM ostrel_scan('a.bin', 's.Order');
SELECT id, customer, items, attributes, total, note, filename, record_offset
  FROM ostrel_scan('a.bin', 's.Order') WHERE id IN (1, 2, 3000) ORDER BY id;
SELECT items[1].sku AS sku, sum(items[1].price) FROM ostrel_scan('a.bin', 's.Order') GROUP BY sku ORDER BY sku;
SELECT attributes['tier'] AS tier, count(*) FROM ostrel_scan('a.bin', 's.Order') GROUP BY tier ORDER BY tier;
SELECT count(*), sum(id) FROM ostrel_scan('[ab].bin', 's.Order');
SELECT filename, count(*) FROM ostrel_scan(['b.bin', 'a.bin'], 's.Order') GROUP BY filename ORDER BY filename;
SELECT id, note, record_offset FROM ostrel_scan('one-*.bin', 's.Order', framing := 'single') ORDER BY id;
.write u32be c.bin SELECT p_encode('s.Order', json_object('id', i)::VARCHAR) FROM range(5, 8) t(i);
SELECT id, record_offset FROM ostrel_scan('c.bin', 's.Order', framing := 'u32be') ORDER BY id;
-- Parquet out and back.
COPY (SELECT * EXCLUDE (filename) FROM ostrel_scan('a.bin', 's.Order')) TO 'orders.parquet' (FORMAT parquet);
SELECT count(*), sum(id), sum(len(items)), min(items[1].sku), max(attributes['tier']) FROM read_parquet('orders.parquet');
DESCRIBE SELECT * FROM read_parquet('orders.parquet');
-- A corrupt record (id 2, then a note whose length runs past the end) stops a query that reads
-- the note, naming file and record.
.write varint bad.bin SELECT p_encode('s.Order', '{"id": 1}') UNION ALL SELECT unhex('08023205ff') UNION ALL SELECT p_encode('s.Order', '{"id": 3}');
SELECT id, note FROM ostrel_scan('bad.bin', 's.Order');
-- Projection pushdown: the corrupt field is not read when no column needs it.
SELECT id FROM ostrel_scan('bad.bin', 's.Order') ORDER BY id;
SELECT sum(id), count(*) FROM ostrel_scan('bad.bin', 's.Order');
.write varint torn.bin SELECT p_encode('s.Order', '{"id": 1}') UNION ALL SELECT unhex('08');
SELECT id FROM ostrel_scan('torn.bin', 's.Order');
.write varint short.bin SELECT unhex('0a');
SELECT count(*) FROM ostrel_scan('short.bin', 's.Order');
-- Bad arguments.
SELECT * FROM ostrel_scan('missing.bin', 's.Order');
SELECT * FROM ostrel_scan('nothing-*.bin', 's.Order');
SELECT * FROM ostrel_scan('a.bin', 's.Nope');
SELECT * FROM ostrel_scan('a.bin', 's.Order', framing := 'kafka');
SELECT * FROM ostrel_scan(42, 's.Order');
SELECT * FROM ostrel_scan(NULL, 's.Order');
SELECT * FROM ostrel_scan(['a.bin', NULL], 's.Order');
SELECT * FROM ostrel_scan('a.bin', NULL);
SELECT * FROM ostrel_scan('a.bin', 's.Order', framing := NULL);
SELECT count(*) FROM ostrel_scan([], 's.Order');
-- A stream whose length prefix claims more than the file holds.
.write single bogus- SELECT unhex('ffffffff0f0801');
SELECT count(*) FROM ostrel_scan('bogus-0.bin', 's.Order');
-- Only the columns a query uses reach the scan.
EXPLAIN SELECT id FROM ostrel_scan('a.bin', 's.Order');
-- Well-known types, enums (an unknown number as its text), and a message that contains itself.
SELECT ostrel_register_proto('syntax = "proto3";
package w;
import "google/protobuf/timestamp.proto";
import "google/protobuf/duration.proto";
import "google/protobuf/wrappers.proto";
import "google/protobuf/struct.proto";
enum Level { LEVEL_UNSPECIFIED = 0; LOW = 1; HIGH = 2; }
message Node { string name = 1; Node next = 2; }
message Event {
  google.protobuf.Timestamp at = 1; google.protobuf.Duration took = 2; Level level = 3; Node node = 4;
  map<int64, bool> flags = 5; repeated double samples = 6; float ratio = 7; sint32 delta = 8;
  google.protobuf.Int64Value big = 9; google.protobuf.StringValue label = 10;
  google.protobuf.Struct extra = 11;
}');
.write varint events.bin SELECT p_encode('w.Event', '{"at": "2024-05-01T12:30:00.5Z", "took": "1.5s",
  "level": "HIGH", "node": {"name": "a", "next": {"name": "b"}}, "flags": {"3": true},
  "samples": [1.5, -2], "ratio": 0.5, "delta": -4, "big": "-9", "label": "", "extra": {"k": [1, "x"]}}')
  UNION ALL SELECT p_encode('w.Event', '{"level": 7}');
DESCRIBE SELECT * FROM ostrel_scan('events.bin', 'w.Event');
SELECT "at" = TIMESTAMPTZ '2024-05-01 12:30:00.5+00' AS at_ok, took, level, node, flags, samples, ratio, delta,
  big, label, extra FROM ostrel_scan('events.bin', 'w.Event') ORDER BY record_offset;
-- p_get gives each field the type and value the scan gives it (but for bytes).
CREATE TABLE events AS SELECT p_encode('w.Event', '{"at": "2024-05-01T12:30:00.5Z", "took": "-1.5s",
  "level": "HIGH", "node": {"name": "a", "next": {"name": "b"}}, "flags": {"3": true},
  "samples": [1.5, -2], "ratio": 0.5, "delta": -4, "big": "-9", "label": "", "extra": {"k": [1, "x"]}}') AS r;
SELECT typeof(p_get(r, 'w.Event', 'at')), typeof(p_get(r, 'w.Event', 'took')),
  typeof(p_get(r, 'w.Event', 'level')), typeof(p_get(r, 'w.Event', 'node')),
  typeof(p_get(r, 'w.Event', 'flags')), typeof(p_get(r, 'w.Event', 'big')),
  typeof(p_get(r, 'w.Event', 'label')), typeof(p_get(r, 'w.Event', 'extra')) FROM events;
SELECT p_get(r, 'w.Event', 'took'), p_get(r, 'w.Event', 'node'), p_get(r, 'w.Event', 'big'),
  p_get(r, 'w.Event', 'label'), p_get(r, 'w.Event', 'extra') FROM events;
