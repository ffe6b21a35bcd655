-- Reads of every function and result type over the bundled example orders and a message of every
-- scalar kind, NULLs and absent values, and faults raised as SQL errors.
\getenv data OSTREL_TEST_DATA
CREATE TABLE orders AS
  SELECT n, pg_read_binary_file(:'data' || '/order' || n || '.bin') AS record
  FROM generate_series(1, 3) n;

SELECT n, p_get_bigint(record, 'shop.Order', 'id') AS id,
       p_get_bigint(record, 'shop.Order', 'customer.id') AS customer,
       p_get_text(record, 'shop.Order', 'customer.name') AS name,
       p_get_text(record, 'shop.Order', 'state') AS state,
       p_get_bigint(record, 'shop.Order', 'state') AS state_number,
       p_get_text(record, 'shop.Order', 'items[1].sku') AS second_sku,
       p_get_numeric(record, 'shop.Order', 'items[0].price') AS first_price,
       p_has(record, 'shop.Order', 'card') AS has_card,
       p_get_text(record, 'shop.Order', 'voucher') AS voucher
FROM orders ORDER BY n;

-- jsonb values: 64-bit integers as exact numbers, enums by name, messages as objects.
SELECT n, p_get(record, 'shop.Order', 'id') AS id, p_get(record, 'shop.Order', 'state') AS state,
       p_get(record, 'shop.Order', 'customer') AS customer
FROM orders ORDER BY n;
SELECT n, p_json(record, 'shop.Order') FROM orders ORDER BY n;

-- A nested message as bytes reads back as the message.
SELECT p_json(p_get_bytea(record, 'shop.Order', 'customer'), 'shop.Customer')
       = p_get(record, 'shop.Order', 'customer') AS same
FROM orders ORDER BY n;

-- Repeated fields, packed runs and maps, one row per element.
SELECT o.n, e.* FROM orders o, p_each(o.record, 'shop.Order', 'items') e ORDER BY 1, 2;
SELECT o.n, e.* FROM orders o, p_each(o.record, 'shop.Order', 'coupons') e ORDER BY 1, 2;
SELECT o.n, e.* FROM orders o, p_each(o.record, 'shop.Order', 'attributes') e ORDER BY 1, 2;
SELECT sum((e.value ->> 'price')::bigint * (e.value ->> 'quantity')::int) AS total
FROM orders o, p_each(o.record, 'shop.Order', 'items') e;

-- Every scalar kind.
CREATE TABLE scalars AS SELECT p_encode('t.Scalars', '{
  "d": 2.5, "f": 0.1, "b": true, "raw": "AAEC/w==", "s32": -7, "sf64": "-9000000000",
  "i32": -2147483648, "names": {"1": "one", "-2": "minus two"}, "ds": [1.5, "NaN", "-Infinity"],
  "s": "héllo", "big": "18446744073709551615", "level": "HIGH",
  "at": "2023-11-14T22:13:20.000000005Z", "levels": ["LOW", 7],
  "children": {"a": {"i32": 1}, "b": {}}, "flags": {"true": 1, "false": 0}}') AS r;

SELECT p_get_double(r, 't.Scalars', 'd') AS d, p_get_double(r, 't.Scalars', 'f') AS f,
       p_get_text(r, 't.Scalars', 'f') AS f_text, p_get_bool(r, 't.Scalars', 'b') AS b,
       p_get_bytea(r, 't.Scalars', 'raw') AS raw, p_get_text(r, 't.Scalars', 'raw') AS raw_text,
       p_get_bigint(r, 't.Scalars', 's32') AS s32, p_get_bigint(r, 't.Scalars', 'sf64') AS sf64,
       p_get_bigint(r, 't.Scalars', 'i32') AS i32
FROM scalars;
SELECT p_get_text(r, 't.Scalars', 's') AS s, p_get_bytea(r, 't.Scalars', 's') AS s_bytes,
       p_get_numeric(r, 't.Scalars', 'big') AS big, p_get_text(r, 't.Scalars', 'big') AS big_text,
       p_get(r, 't.Scalars', 'big') AS big_json, p_get_double(r, 't.Scalars', 'big') AS big_double,
       p_get_text(r, 't.Scalars', 'level') AS level, p_get_numeric(r, 't.Scalars', 'level') AS level_number,
       p_get_bigint(r, 't.Scalars', 'at.seconds') AS at_seconds
FROM scalars;
SELECT p_get(r, 't.Scalars', 'd') AS d, p_get(r, 't.Scalars', 'f') AS f,
       p_get(r, 't.Scalars', 'b') AS b, p_get(r, 't.Scalars', 'raw') AS raw,
       p_get(r, 't.Scalars', 's') AS s, p_get(r, 't.Scalars', 'ds[1]') AS nan,
       p_get(r, 't.Scalars', 'ds[2]') AS minus_infinity, p_get(r, 't.Scalars', 'levels[1]') AS unknown_level,
       p_get_text(r, 't.Scalars', 'levels[1]') AS unknown_level_text, p_get(r, 't.Scalars', 'at') AS at
FROM scalars;
SELECT e.* FROM scalars, p_each(r, 't.Scalars', 'names') e ORDER BY 1;
SELECT e.* FROM scalars, p_each(r, 't.Scalars', 'ds') e ORDER BY 1;
SELECT e.* FROM scalars, p_each(r, 't.Scalars', 'levels') e ORDER BY 1;
SELECT e.* FROM scalars, p_each(r, 't.Scalars', 'children') e ORDER BY 1;
SELECT e.* FROM scalars, p_each(r, 't.Scalars', 'flags') e ORDER BY 1;
-- A repeated field inside a nested message.
SELECT e.* FROM scalars, p_each(p_encode('t.Holder', jsonb_build_object('inner', p_json(r, 't.Scalars'))),
                                't.Holder', 'inner.ds') e ORDER BY 1;
-- Encoding what p_json renders gives the same record back.
SELECT p_encode('t.Scalars', p_json(r, 't.Scalars')) = r AS round_trip FROM scalars;

-- Type and path from text columns, changing from row to row.
SELECT o.n, t.path, p_get_text(o.record, t.type, t.path)
FROM orders o, (VALUES ('shop.Order'::text, 'customer.name'::varchar), ('shop.Order', 'id'),
                       ('shop.Customer', 'name')) t(type, path)
WHERE o.n < 3 ORDER BY 1, 2;

-- NULLs in, NULL out; absent fields are NULL, never a default.
SELECT p_get_bigint(NULL, 'shop.Order', 'id') IS NULL AS null_record,
       p_get_bigint(record, NULL, 'id') IS NULL AS null_type,
       p_get(record, 'shop.Order', NULL) IS NULL AS null_path,
       p_json(NULL, 'shop.Order') IS NULL AS null_json,
       p_encode('shop.Order', NULL) IS NULL AS null_encode,
       (SELECT count(*) FROM p_each(NULL, 'shop.Order', 'items')) AS null_each
FROM orders WHERE n = 1;
SELECT n, p_get_text(record, 'shop.Order', 'card.network') AS network,
       p_get_bigint(record, 'shop.Order', 'updated_at') AS updated_at,
       p_has(record, 'shop.Order', 'updated_at') AS has_updated_at,
       p_get(record, 'shop.Order', 'items[5]') AS sixth_item,
       p_has(record, 'shop.Order', 'items[0]') AS has_items
FROM orders ORDER BY n;
-- Reads are lazy: bytes after the value read are not looked at.
SELECT p_get_bigint('\x12020801ff'::bytea, 'shop.Order', 'customer.id') AS lazy;
SELECT p_json('', 'shop.Order') AS empty_record, p_get_bigint('', 'shop.Order', 'id') AS empty_id;

-- Faults are SQL errors carrying the library's text.
SELECT p_get_bigint('\x08'::bytea, 'shop.Order', 'id');
SELECT p_get_bigint('\x0a'::bytea, 'shop.Order', 'id');
SELECT p_get_bigint('\x12ff'::bytea, 'shop.Order', 'customer.id');
SELECT p_get_bigint('\x08ffffffffffffffffffff01'::bytea, 'shop.Order', 'id');
SELECT p_get_bigint(record, 'shop.Nothing', 'id') FROM orders WHERE n = 1;
SELECT p_get_bigint(record, 'shop.Order', 'customer.nothing') FROM orders WHERE n = 1;
SELECT p_get_bigint(record, 'shop.Order', 'customer..id') FROM orders WHERE n = 1;
SELECT p_get_bigint(record, 'shop.Order', 'items.sku') FROM orders WHERE n = 1;
SELECT p_get_bigint(record, 'shop.Order', 'id[0]') FROM orders WHERE n = 1;
SELECT p_get_bigint(record, 'shop.Order', 'items[-1].price') FROM orders WHERE n = 1;
SELECT p_get_bigint(record, 'shop.Order', '') FROM orders WHERE n = 1;
SELECT p_get_bigint(record, 'shop.Order', 'customer.name') FROM orders WHERE n = 1;
SELECT p_get_bool(record, 'shop.Order', 'id') FROM orders WHERE n = 1;
SELECT p_get_double(record, 'shop.Order', 'customer') FROM orders WHERE n = 1;
SELECT p_get_numeric(record, 'shop.Order', 'customer.name') FROM orders WHERE n = 1;
SELECT p_get_bytea(record, 'shop.Order', 'id') FROM orders WHERE n = 1;
SELECT p_get_bigint(r, 't.Scalars', 'big') FROM scalars;
SELECT * FROM orders o, p_each(o.record, 'shop.Order', 'id') WHERE n = 1;
SELECT * FROM orders o, p_each(o.record, 'shop.Order', 'items[0]') WHERE n = 1;
SELECT * FROM p_each('\x1a05', 'shop.Order', 'items');
SELECT * FROM p_each('\x5202', 'shop.Order', 'coupons');
SELECT p_json(record, 'shop.Missing') FROM orders WHERE n = 1;
SELECT p_encode('shop.Order', '{"nothing": 1}');
SELECT p_encode('shop.Order', '{"id": "x"}');
SELECT p_encode('shop.Order', '{"state": "LOST"}');
SELECT p_encode('shop.Order', '[1]');
SELECT p_encode('t.Scalars', '{"i32": 2147483648}');
-- A string holding NUL cannot become text or jsonb, wherever it stands; as JSON text it is an
-- escape, and as bytes it is itself.
SELECT p_get_text('\x5203410042'::bytea, 't.Scalars', 's');
SELECT p_get('\x5203410042'::bytea, 't.Scalars', 's');
SELECT p_json('\x5203410042'::bytea, 't.Scalars');
SELECT p_get('\x0a055203410042'::bytea, 't.Holder', 'inner');
SELECT * FROM p_each('\x7a070a034100421200'::bytea, 't.Scalars', 'children');
SELECT p_get_text('\x0a055203410042'::bytea, 't.Holder', 'inner');
SELECT p_get_bytea('\x5203410042'::bytea, 't.Scalars', 's');
-- An error inside a transaction leaves the session usable.
BEGIN;
SELECT p_get_bigint('\x08'::bytea, 'shop.Order', 'id');
ROLLBACK;
SELECT p_get_bigint(record, 'shop.Order', 'id') FROM orders WHERE n = 2;
-- A record written twice over itself ({id 1, customer {name "a"}} then {id 2, customer {name "b"}}):
-- reads take the first occurrence unless exact; p_json gives protobuf's parse.
SELECT p_get_bigint(r, 'shop.Order', 'id') AS first_id,
       p_get_bigint(r, 'shop.Order', 'id', exact => true) AS exact_id,
       p_get_text(r, 'shop.Order', 'customer.name') AS first_name,
       p_get_text(r, 'shop.Order', 'customer.name', true) AS exact_name,
       p_get(r, 'shop.Order', 'customer', exact => true) AS exact_customer,
       p_json(r, 'shop.Order') AS json
FROM (SELECT '\x0801080212031201611203120162'::bytea AS r) AS appended;
-- Of the oneof members voucher and card, the last present wins.
SELECT p_has('\x3201782a00'::bytea, 'shop.Order', 'voucher') AS first_has,
       p_has('\x3201782a00'::bytea, 'shop.Order', 'voucher', exact => true) AS exact_has;
-- A record that cannot be rendered whole is an error, never error text inside the jsonb.
SELECT p_json('\x08e907120108'::bytea, 'shop.Order');
SELECT p_get('\x08e907120108'::bytea, 'shop.Order', 'customer');
-- Fields without presence of their own are left out when they hold their default; oneof members
-- are kept.
SELECT p_encode('shop.Order', '{"id": 0, "state": "STATE_UNSPECIFIED", "voucher": ""}');
-- A Kafka value in Confluent's envelope: id 42, message path [1, 0] (or [0] as the single byte 0),
-- then the record, which p_get reads; a GUID in place of the id; and a value not in the envelope.
SELECT p_confluent_id(v) AS id, p_confluent_guid(v) AS guid, p_confluent_path(v) AS path,
       p_confluent_payload(v) AS payload
FROM (VALUES ('\x000000002a04020008e907'::bytea),
             ('\x01000102030405060708090a0b0c0d0e0f0008e907'::bytea)) AS kafka(v);
SELECT p_confluent_path('\x000000002a02010008e907'::bytea, 'unsigned') AS unsigned_path,
       p_get_bigint(p_confluent_payload('\x000000002a0008e907'::bytea), 'shop.Order', 'id') AS id;
SELECT p_confluent_id('\x08e907'::bytea);
