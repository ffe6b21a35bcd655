"""The loadable extension in Python's own sqlite3 module: load, register, read, index, fail.

Usage: sqlite_python_test.py EXTENSION EXAMPLES_DIR. Run by ctest with Debian's python3, whose
sqlite3 module can load extensions.
"""
import sqlite3
import sys
import unittest

EXTENSION = sys.argv[1] if len(sys.argv) > 1 else ""
EXAMPLES = sys.argv[2] if len(sys.argv) > 2 else ""


def read(name):
    with open(f"{EXAMPLES}/{name}", "rb") as f:
        return f.read()


class ExtensionTest(unittest.TestCase):
    def setUp(self):
        self.db = sqlite3.connect(":memory:")
        self.db.enable_load_extension(True)
        self.db.load_extension(EXTENSION)
        self.db.enable_load_extension(False)
        count = self.one("SELECT ostrel_register_descriptor_set(?)", read("shop.desc"))
        # Customer, Item, Card, Order and the map entry of Order.attributes.
        self.assertEqual(count, 5)
        self.assertEqual(self.one("SELECT ostrel_default_type('shop.Order')"), "shop.Order")
        self.db.execute("CREATE TABLE orders (id INTEGER PRIMARY KEY, record BLOB)")
        for name in ("order1.bin", "order2.bin", "order3.bin"):
            self.db.execute("INSERT INTO orders (record) VALUES (?)", (read(name),))

    def one(self, sql, *args):
        return self.db.execute(sql, args).fetchone()[0]

    def error(self, sql, *args):
        with self.assertRaises(sqlite3.OperationalError) as caught:
            self.db.execute(sql, args).fetchall()
        return str(caught.exception)

    def test_typed_results(self):
        row = self.db.execute(
            "SELECT P_GET(record, 'id'), P_GET(record, 'customer.name'), P_GET(record, 'state'),"
            " P_GET(record, 'shop.Order', 'items[1].price'), P_GET(record, 'customer'),"
            " P_GET(record, 'voucher') FROM orders WHERE id = 1").fetchone()
        self.assertEqual(row, (1001, "Ada Lovelace", "PAID", 1290,
                               '{"id":"42","name":"Ada Lovelace","email":"ada@example.com"}', None))
        big = self.one("SELECT P_GET(P_ENCODE('shop.Order', '{\"id\": \"18446744073709551615\"}'),"
                       " 'id')")
        self.assertEqual(big, "18446744073709551615")
        self.assertEqual(self.one("SELECT P_HAS(record, 'card') FROM orders WHERE id = 1"), 1)
        self.assertEqual(self.one("SELECT P_HAS(record, 'voucher') FROM orders WHERE id = 1"), 0)

    def test_each_rows(self):
        items = self.db.execute(
            "SELECT e.\"index\", e.key, json_extract(e.value, '$.sku') FROM orders AS o,"
            " P_EACH(o.record, 'items') AS e WHERE o.id = 1").fetchall()
        self.assertEqual(items, [(0, None, "PEN-BLUE"), (1, None, "NOTEBOOK-A5"),
                                 (2, None, "INK-BLACK")])
        self.assertEqual(self.db.execute(
            "SELECT key, value FROM orders, P_EACH(orders.record, 'attributes') WHERE id = 1"
        ).fetchall(), [("channel", "web"), ("gift", "yes")])
        self.assertEqual(self.db.execute(
            "SELECT value FROM orders, P_EACH(orders.record, 'shop.Order', 'coupons') WHERE id = 1"
        ).fetchall(), [(5,), (12,)])

    def test_json_round_trip(self):
        for (record,) in self.db.execute("SELECT record FROM orders").fetchall():
            again = self.one("SELECT P_ENCODE('shop.Order', P_JSON(?))", record)
            self.assertEqual(self.one("SELECT P_JSON(?)", again), self.one("SELECT P_JSON(?)", record))

    def test_expression_index_is_used(self):
        self.db.execute("CREATE INDEX by_customer ON orders(P_GET(record, 'customer.id'))")
        plan = self.db.execute("EXPLAIN QUERY PLAN SELECT id FROM orders"
                               " WHERE P_GET(record, 'customer.id') = ?", (42,)).fetchall()
        self.assertIn("USING INDEX by_customer", plan[0][3])
        ids = self.db.execute("SELECT id FROM orders WHERE P_GET(record, 'customer.id') = 42"
                              " ORDER BY id").fetchall()
        scan = self.db.execute("SELECT id FROM orders NOT INDEXED"
                               " WHERE P_GET(record, 'customer.id') = 42 ORDER BY id").fetchall()
        self.assertEqual(ids, scan)
        self.assertTrue(ids)

    def test_nulls_and_errors(self):
        self.assertIsNone(self.one("SELECT P_GET(NULL, 'id')"))
        self.assertIsNone(self.one("SELECT P_JSON(NULL)"))
        self.assertEqual(self.one("SELECT count(*) FROM P_EACH(NULL, 'items')"), 0)
        self.assertEqual(self.error("SELECT P_GET(x'1205', 'customer.name')"), "malformedProtobuf")
        self.assertEqual(self.error("SELECT P_GET(x'00', 'id')"), "malformedProtobuf")
        self.assertEqual(self.error("SELECT P_JSON(x'12050a03')"), "truncated")
        self.assertEqual(self.error("SELECT P_GET(7, 'id')"),
                         "the record is an integer, not a blob of encoded protobuf")
        self.assertEqual(self.error("SELECT P_GET(x'', 'shop.Nope', 'id')"),
                         "schemaNotFound: shop.Nope")
        self.assertEqual(self.error("SELECT P_GET(x'', 'customer.nope')"),
                         'fieldNotFound: Schema "shop.Customer" property with name "nope"')
        for path in ["", "items[", "items[-1].sku", "a" * 100000, "items[0]." * 5000 + "sku",
                     "id\x00x", "'; DROP TABLE orders; --"]:
            self.assertTrue(self.error("SELECT P_GET(record, ?) FROM orders", path))
        self.assertEqual(self.one("SELECT count(*) FROM orders"), 3)

    def test_refused_reregistration(self):
        self.assertEqual(self.one("SELECT ostrel_register_descriptor_set(?)", read("shop.desc")), 5)
        message = self.error("SELECT ostrel_register_proto(?)",
                             'syntax = "proto3"; package shop; message Card { string network = 1; }')
        self.assertEqual(message, 'conflict: Message type "shop.Card" is already registered with '
                         "another definition; register a changed definition under a new name")
        self.assertEqual(self.one("SELECT P_GET(record, 'card.last4') FROM orders WHERE id = 1"),
                         "4242")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
