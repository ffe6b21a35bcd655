-- The per-customer aggregate over the shards and over the one-server table, row for row, and the
-- grand totals.
CREATE TEMP TABLE sharded AS
SELECT p_get_bigint(record, 'shop.Order', 'customer.id') AS customer, count(*) AS orders,
       sum(p_get_bigint(record, 'shop.Order', 'items[0].price')) AS total,
       max(p_get_bigint(record, 'shop.Order', 'created_at')) AS latest
FROM orders WHERE p_get_bigint(record, 'shop.Order', 'state') = 2 GROUP BY 1;
CREATE TEMP TABLE single AS
SELECT p_get_bigint(record, 'shop.Order', 'customer.id') AS customer, count(*) AS orders,
       sum(p_get_bigint(record, 'shop.Order', 'items[0].price')) AS total,
       max(p_get_bigint(record, 'shop.Order', 'created_at')) AS latest
FROM orders_local WHERE p_get_bigint(record, 'shop.Order', 'state') = 2 GROUP BY 1;
SELECT (SELECT count(*) FROM orders_shard_0) + (SELECT count(*) FROM orders_shard_1) AS records,
       (SELECT count(*) FROM orders_shard_0) AS on_shard_0;
SELECT count(*) AS customers, sum(orders) AS orders, sum(total) AS total FROM sharded;
SELECT CASE WHEN (SELECT count(*) FROM single) = 250
             AND NOT EXISTS (SELECT * FROM sharded EXCEPT SELECT * FROM single)
             AND NOT EXISTS (SELECT * FROM single EXCEPT SELECT * FROM sharded)
            THEN 'same' ELSE 'different' END;
