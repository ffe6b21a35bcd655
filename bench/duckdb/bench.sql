-- DuckDB: the extension against DuckDB's own JSON reading over the same 1,000,000 shop orders,
-- timed in one run by the test host:
--   cd /tmp/bench && build/tests/ostrel_duckdb_host build/extensions/duckdb/ostrel.duckdb_extension \
--       bench/duckdb/bench.sql
-- Eight files of each kind, so that both sides read on every thread.
SET threads = 2;
SELECT ostrel_register_proto('syntax = "proto3";

package shop;

enum State {
  STATE_UNSPECIFIED = 0;
  OPEN = 1;
  PAID = 2;
  SHIPPED = 3;
  CANCELLED = 4;
}

message Customer {
  uint64 id = 1;
  string name = 2;
  string email = 3;
}

message Item {
  string sku = 1;
  uint32 quantity = 2;
  int64 price = 3;
}

message Card {
  string network = 1;
  string last4 = 2;
}

message Order {
  uint64 id = 1;
  Customer customer = 2;
  repeated Item items = 3;
  State state = 4;
  oneof payment {
    Card card = 5;
    string voucher = 6;
  }
  map<string, string> attributes = 7;
  int64 created_at = 8;
  int64 updated_at = 9;
  repeated uint32 coupons = 10;
}');
CREATE TABLE orders AS SELECT i AS n, p_encode('shop.Order', json_object('id', i,
  'customer', json_object('id', i % 1000, 'name', 'customer ' || (i % 1000),
                          'email', 'c' || (i % 1000) || '@example.com'),
  'items', [json_object('sku', 'SKU-' || (i % 97), 'quantity', 1 + i % 4, 'price', 100 + i % 5000),
            json_object('sku', 'SKU-' || (i % 13), 'quantity', 1, 'price', 250)],
  'state', ['OPEN', 'PAID', 'SHIPPED'][1 + i % 3], 'attributes', json_object('channel', 'web'),
  'createdAt', 1700000000000 + i, 'coupons', [i % 10])::VARCHAR) AS record FROM range(1000000) t(i);
CREATE TABLE documents AS SELECT p_json(record, 'shop.Order') AS doc FROM orders;
.write varint orders-0.bin SELECT record FROM orders WHERE n % 8 = 0 ORDER BY n;
.write varint orders-1.bin SELECT record FROM orders WHERE n % 8 = 1 ORDER BY n;
.write varint orders-2.bin SELECT record FROM orders WHERE n % 8 = 2 ORDER BY n;
.write varint orders-3.bin SELECT record FROM orders WHERE n % 8 = 3 ORDER BY n;
.write varint orders-4.bin SELECT record FROM orders WHERE n % 8 = 4 ORDER BY n;
.write varint orders-5.bin SELECT record FROM orders WHERE n % 8 = 5 ORDER BY n;
.write varint orders-6.bin SELECT record FROM orders WHERE n % 8 = 6 ORDER BY n;
.write varint orders-7.bin SELECT record FROM orders WHERE n % 8 = 7 ORDER BY n;
COPY (SELECT * EXCLUDE (filename, record_offset) FROM ostrel_scan('orders-0.bin', 'shop.Order')) TO 'orders-0.jsonl' (FORMAT json);
COPY (SELECT * EXCLUDE (filename, record_offset) FROM ostrel_scan('orders-1.bin', 'shop.Order')) TO 'orders-1.jsonl' (FORMAT json);
COPY (SELECT * EXCLUDE (filename, record_offset) FROM ostrel_scan('orders-2.bin', 'shop.Order')) TO 'orders-2.jsonl' (FORMAT json);
COPY (SELECT * EXCLUDE (filename, record_offset) FROM ostrel_scan('orders-3.bin', 'shop.Order')) TO 'orders-3.jsonl' (FORMAT json);
COPY (SELECT * EXCLUDE (filename, record_offset) FROM ostrel_scan('orders-4.bin', 'shop.Order')) TO 'orders-4.jsonl' (FORMAT json);
COPY (SELECT * EXCLUDE (filename, record_offset) FROM ostrel_scan('orders-5.bin', 'shop.Order')) TO 'orders-5.jsonl' (FORMAT json);
COPY (SELECT * EXCLUDE (filename, record_offset) FROM ostrel_scan('orders-6.bin', 'shop.Order')) TO 'orders-6.jsonl' (FORMAT json);
COPY (SELECT * EXCLUDE (filename, record_offset) FROM ostrel_scan('orders-7.bin', 'shop.Order')) TO 'orders-7.jsonl' (FORMAT json);
-- Warm both sides once (file cache, read_json's schema sampling).
SELECT count(*) FROM ostrel_scan('orders-*.bin', 'shop.Order');
SELECT count(*) FROM read_json('orders-*.jsonl');
.time ostrel_scan_3_columns SELECT sum(id), count(DISTINCT state), max(created_at) FROM ostrel_scan('orders-*.bin', 'shop.Order');
.time read_json_3_columns SELECT sum(id), count(DISTINCT state), max(created_at) FROM read_json('orders-*.jsonl');
.time ostrel_scan_all_columns SELECT count(*), sum(len(items)), count(customer), count(attributes), count(DISTINCT state) FROM ostrel_scan('orders-*.bin', 'shop.Order');
.time p_get SELECT sum(p_get(record, 'shop.Order', 'customer.id')) FROM orders;
.time json_extract SELECT sum(json_extract_string(doc, '$.customer.id')::UBIGINT) FROM documents;
.time p_get_string SELECT count(DISTINCT p_get(record, 'shop.Order', 'customer.name')) FROM orders;
.time json_extract_string SELECT count(DISTINCT json_extract_string(doc, '$.customer.name')) FROM documents;
.time to_parquet COPY (SELECT * EXCLUDE (filename, record_offset) FROM ostrel_scan('orders-*.bin', 'shop.Order')) TO 'orders.parquet' (FORMAT parquet);
SELECT count(*), sum(id) FROM read_parquet('orders.parquet');
