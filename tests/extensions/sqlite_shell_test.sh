#!/usr/bin/env bash
# The loadable extension in Debian's sqlite3 shell, loaded with .load by its name without suffix:
# registration, typed reads, P_EACH rows, errors that leave the session running.
# Usage: sqlite_shell_test.sh EXTENSION_WITHOUT_SUFFIX EXAMPLES_DIR
set -euo pipefail
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# SQL lines as a user types them (an error does not end the session) on the test's database file;
# stdout and stderr together.
actual=$(sqlite3 "$work/test.db" 2>&1 <<SQL || true
.load $1
SELECT ostrel_register_descriptor_set(readfile('$2/shop.desc'));
CREATE TABLE orders (id INTEGER PRIMARY KEY, record BLOB);
INSERT INTO orders (record) VALUES (readfile('$2/order1.bin'));
SELECT P_GET(record, 'shop.Order', 'id'), typeof(P_GET(record, 'shop.Order', 'id')), P_GET(record, 'shop.Order', 'customer.name') FROM orders;
SELECT e."index", e.key, e.value FROM orders AS o, P_EACH(o.record, 'shop.Order', 'attributes') AS e;
UPDATE orders SET record = P_SET(P_SET(record, 'shop.Order', 'state', 'SHIPPED'), 'shop.Order', 'items[0].quantity', 2);
SELECT P_GET(record, 'shop.Order', 'state'), P_GET(record, 'shop.Order', 'items[0].quantity'), P_GET(record, 'shop.Order', 'items[1].sku'), P_NORMALIZE(record, 'shop.Order') = record FROM orders;
SELECT P_JSON(P_MERGE(P_CLEAR(record, 'shop.Order', 'items'), 'shop.Order', P_ENCODE('shop.Order', '{"voucher": "X"}')), 'shop.Order') FROM orders;
SELECT P_GET(x'', 'shop.Nope', 'id');
SELECT P_GET(x'', 'shop.Order', 'items[0');
SELECT 'still running';
SQL
)
expected="5
1001|integer|Ada Lovelace
0|channel|web
1|gift|yes
SHIPPED|2|NOTEBOOK-A5|1
{\"id\":\"1001\",\"customer\":{\"id\":\"42\",\"name\":\"Ada Lovelace\",\"email\":\"ada@example.com\"},\"state\":\"SHIPPED\",\"voucher\":\"X\",\"attributes\":{\"channel\":\"web\",\"gift\":\"yes\"},\"created_at\":\"1700000000000\",\"updated_at\":\"1700000360000\",\"coupons\":[5,12]}
"
# The shell words its error lines as its version does; the extension's texts are what counts.
if [[ "$actual" != "$expected"*"schemaNotFound: shop.Nope"*"Missing closing bracket"*"still running" ]]; then
  printf 'FAIL\nexpected:\n%s(errors, then "still running")\nactual:\n%s\n' "$expected" "$actual"
  exit 1
fi
echo "all passed"
