EXPLAIN (VERBOSE, COSTS OFF)
SELECT p_get_bigint(record, 'shop.Order', 'customer.id') AS customer, count(*),
       sum(p_get_bigint(record, 'shop.Order', 'items[0].price')),
       max(p_get_bigint(record, 'shop.Order', 'created_at'))
FROM orders WHERE p_get_bigint(record, 'shop.Order', 'state') = 2 GROUP BY 1;
