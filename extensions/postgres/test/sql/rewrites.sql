-- Records that change: p_set with values of every SQL type, p_clear, p_merge and p_normalize in
-- UPDATEs over the bundled example orders, an expression index that follows the change, and bad
-- input as SQL errors that leave the record as it was.
\getenv data OSTREL_TEST_DATA
CREATE TABLE shop_orders AS
  SELECT n, pg_read_binary_file(:'data' || '/order' || n || '.bin') AS record
  FROM generate_series(1, 3) n;
CREATE INDEX shop_orders_state ON shop_orders (p_get_text(record, 'shop.Order', 'state'));

UPDATE shop_orders SET record = p_set(record, 'shop.Order', 'state', 'SHIPPED') WHERE n = 1;
UPDATE shop_orders SET record = p_set(record, 'shop.Order', 'items[0].quantity', 2) WHERE n = 1;
UPDATE shop_orders SET record = p_set(record, 'shop.Order', 'customer', '{"id": 7, "name": "Grace"}'::jsonb)
  WHERE n = 2;
UPDATE shop_orders SET record = p_set(record, 'shop.Order', 'attributes[gift]', 'no') WHERE n = 3;
UPDATE shop_orders SET record = p_clear(record, 'shop.Order', 'coupons') WHERE n = 3;
SET enable_seqscan = off;
SELECT n, p_get_text(record, 'shop.Order', 'state') AS state FROM shop_orders
  WHERE p_get_text(record, 'shop.Order', 'state') = 'SHIPPED' ORDER BY n;
RESET enable_seqscan;
SELECT n, p_json(record, 'shop.Order') FROM shop_orders ORDER BY n;

-- Values typed as the field is: bigint, double precision, boolean, bytea, jsonb and text.
SELECT p_json(p_set(p_set(p_set(''::bytea, 'shop.Order', 'id', 12), 'shop.Order', 'created_at', 5.0::float8),
              'shop.Order', 'customer', p_encode('shop.Customer', '{"name": "Ada"}')), 'shop.Order');
SELECT p_json(p_set(''::bytea, 'shop.Order', 'coupons', '[1, 2]'::jsonb), 'shop.Order');
SELECT p_json(p_merge(record, 'shop.Order', p_encode('shop.Order', '{"voucher": "X", "coupons": [9]}')),
              'shop.Order') FROM shop_orders WHERE n = 1;
SELECT n, p_normalize(record, 'shop.Order') = record AS canonical FROM shop_orders ORDER BY n;
SELECT encode(p_normalize('\x2001080a'::bytea, 'shop.Order'), 'hex') AS normalized;

-- Bad input: the statement fails, the record stays.
UPDATE shop_orders SET record = p_set(record, 'shop.Order', 'items[9].quantity', 2) WHERE n = 1;
UPDATE shop_orders SET record = p_set(record, 'shop.Order', 'state', 'LOST') WHERE n = 1;
UPDATE shop_orders SET record = p_set(record, 'shop.Order', 'id', 'x') WHERE n = 1;
UPDATE shop_orders SET record = p_set(record, 'shop.Order', 'nope', 1) WHERE n = 1;
SELECT p_set('\x0a05'::bytea, 'shop.Order', 'id', 1);
SELECT p_set(record, 'shop.Order', 'customer', '\x0a05'::bytea) FROM shop_orders WHERE n = 1;
SELECT p_merge(record, 'shop.Order', '\xff'::bytea) FROM shop_orders WHERE n = 1;
SELECT p_get_text(record, 'shop.Order', 'state') AS state FROM shop_orders WHERE n = 1;
