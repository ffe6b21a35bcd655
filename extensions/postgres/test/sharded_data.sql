-- The records of the sharded test: made once on the coordinator, kept there as the one-server
-- table and routed from there to the shards.
CREATE TABLE orders_local AS
  SELECT g AS id, p_encode('shop.Order', jsonb_build_object(
    'id', g, 'customer', jsonb_build_object('id', g % 1000),
    'state', 1 + g % 4, 'created_at', 1700000000000 + g,
    'items', jsonb_build_array(jsonb_build_object('price', g % 997, 'quantity', 1 + g % 3)))) AS record
  FROM generate_series(1, 1000000) g;
INSERT INTO orders SELECT * FROM orders_local;
ANALYZE orders_local;
