#!/usr/bin/env bash
# The loadable extension in Debian's sqlite3 shell, loaded with .load by its name without suffix:
# registration, typed reads, P_EACH rows, the expression index, errors.
# Usage: sqlite_shell_test.sh EXTENSION_WITHOUT_SUFFIX EXAMPLES_DIR
set -euo pipefail
extension=$1
examples=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0

# Runs SQL lines read from standard input, as a user types them (an error does not end the
# session), in a shell that has loaded the extension and registered the shop schema, on the test's
# database file; prints stdout and stderr together.
run() {
  printf '%s\n' ".load $extension" ".output /dev/null" \
    "SELECT ostrel_register_descriptor_set(readfile('$examples/shop.desc'));" ".output stdout" \
    "$@" | sqlite3 "$work/test.db" 2>&1 || true
}

expect() {
  local name=$1 expected=$2 actual=$3
  if [[ "$actual" != "$expected" ]]; then
    echo "FAIL $name"
    echo "  expected: $expected"
    echo "  actual:   $actual"
    failures=$((failures + 1))
  else
    echo "ok   $name"
  fi
}

expect "registration counts message types" "5" \
  "$(sqlite3 :memory: ".load $extension" "SELECT ostrel_register_descriptor_set(readfile('$examples/shop.desc'));")"

run "CREATE TABLE orders (id INTEGER PRIMARY KEY, record BLOB);" \
  "INSERT INTO orders (record) VALUES (readfile('$examples/order1.bin')), (readfile('$examples/order2.bin')), (readfile('$examples/order3.bin'));" \
  >/dev/null

expect "typed reads" "1001|integer|Ada Lovelace|text|PAID|text" \
  "$(run "SELECT P_GET(record, 'shop.Order', 'id'), typeof(P_GET(record, 'shop.Order', 'id')), P_GET(record, 'shop.Order', 'customer.name'), typeof(P_GET(record, 'shop.Order', 'customer.name')), P_GET(record, 'shop.Order', 'state'), typeof(P_GET(record, 'shop.Order', 'state')) FROM orders WHERE id = 1;")"

expect "two-argument form after ostrel_default_type" "shop.Order
1290" "$(run "SELECT ostrel_default_type('shop.Order');" "SELECT P_GET(record, 'items[1].price') FROM orders WHERE id = 1;")"

expect "P_EACH rows" "0||{\"sku\":\"PEN-BLUE\",\"quantity\":3,\"price\":\"250\"}
1||{\"sku\":\"NOTEBOOK-A5\",\"quantity\":1,\"price\":\"1290\"}
2||{\"sku\":\"INK-BLACK\",\"quantity\":2,\"price\":\"475\"}
0|channel|web
1|gift|yes" "$(run "SELECT e.\"index\", e.key, e.value FROM orders AS o, P_EACH(o.record, 'shop.Order', 'items') AS e WHERE o.id = 1;" \
    "SELECT e.\"index\", e.key, e.value FROM orders AS o, P_EACH(o.record, 'shop.Order', 'attributes') AS e WHERE o.id = 1;")"

plan=$(run "CREATE INDEX by_customer ON orders(P_GET(record, 'shop.Order', 'customer.id'));" \
  "EXPLAIN QUERY PLAN SELECT id FROM orders WHERE P_GET(record, 'shop.Order', 'customer.id') = 42;")
expect "expression index used" "yes" "$([[ "$plan" == *"USING INDEX by_customer"* ]] && echo yes || echo "$plan")"

expect "NULL record" "|0" "$(run "SELECT P_GET(NULL, 'shop.Order', 'id'), count(*) FROM P_EACH(NULL, 'shop.Order', 'items');")"

errors=$(run "SELECT P_GET(x'00', 'shop.Order', 'id');" \
  "SELECT P_GET(x'', 'shop.Nope', 'id');" \
  "SELECT P_GET(x'', 'shop.Order', 'items[0');" \
  "SELECT P_GET(42, 'shop.Order', 'id');" \
  "SELECT ostrel_register_proto('syntax = \"proto3\"; package shop; message Card { int32 x = 1; }');" \
  "SELECT 'still running';")
for text in "malformedProtobuf" "schemaNotFound: shop.Nope" "Missing closing bracket" \
  "the record is an integer, not a blob of encoded protobuf" \
  'conflict: Message type "shop.Card" is already registered with another definition' "still running"; do
  expect "error text: $text" "yes" "$([[ "$errors" == *"$text"* ]] && echo yes || echo "$errors")"
done

if ((failures > 0)); then
  echo "$failures failed"
  exit 1
fi
echo "all passed"
