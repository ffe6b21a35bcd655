-- An expression index over a protobuf field, built and chosen by the planner; reads in parallel
-- workers.
CREATE TABLE many AS
  SELECT g AS n, p_encode('shop.Order', jsonb_build_object(
    'id', g, 'customer', jsonb_build_object('id', g % 500, 'name', 'customer ' || (g % 500)),
    'state', CASE WHEN g % 3 = 0 THEN 'PAID' ELSE 'OPEN' END,
    'items', jsonb_build_array(jsonb_build_object('sku', 'S' || g, 'quantity', 1 + g % 4, 'price', g)))) AS record
  FROM generate_series(1, 20000) g;
CREATE INDEX many_customer ON many (p_get_bigint(record, 'shop.Order', 'customer.id'));
ANALYZE many;

EXPLAIN (COSTS OFF)
SELECT count(*) FROM many WHERE p_get_bigint(record, 'shop.Order', 'customer.id') = 42;
SELECT count(*), min(n), max(n) FROM many
WHERE p_get_bigint(record, 'shop.Order', 'customer.id') = 42;
-- The index gives what a scan of every record gives.
SET enable_indexscan = off;
SET enable_bitmapscan = off;
EXPLAIN (COSTS OFF)
SELECT count(*) FROM many WHERE p_get_bigint(record, 'shop.Order', 'customer.id') = 42;
SELECT count(*), min(n), max(n) FROM many
WHERE p_get_bigint(record, 'shop.Order', 'customer.id') = 42;
RESET enable_indexscan;
RESET enable_bitmapscan;

-- Range conditions and ordering use it too.
EXPLAIN (COSTS OFF)
SELECT n FROM many WHERE p_get_bigint(record, 'shop.Order', 'customer.id') BETWEEN 10 AND 11
ORDER BY p_get_bigint(record, 'shop.Order', 'customer.id');

-- The same reads in parallel workers, which build their own store from the catalog.
SET max_parallel_workers_per_gather = 2;
SET parallel_setup_cost = 0;
SET parallel_tuple_cost = 0;
SET min_parallel_table_scan_size = 0;
SET enable_indexscan = off;
SET enable_bitmapscan = off;
EXPLAIN (COSTS OFF)
SELECT sum(p_get_bigint(record, 'shop.Order', 'items[0].price')) FROM many
WHERE p_get_text(record, 'shop.Order', 'state') = 'PAID';
SELECT sum(p_get_bigint(record, 'shop.Order', 'items[0].price')), count(*) FROM many
WHERE p_get_text(record, 'shop.Order', 'state') = 'PAID';
SELECT sum(e.index + (e.value ->> 'quantity')::int) FROM many, p_each(record, 'shop.Order', 'items') e;
RESET ALL;
