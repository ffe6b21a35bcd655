"""The loadable extension in Python's own sqlite3 module: load, register, read, index, fail.

Usage: sqlite_python_test.py EXTENSION EXAMPLES_DIR. Run by ctest with Debian's python3, whose
sqlite3 module can load extensions.
"""
import sqlite3
import sys
import unittest

EXTENSION, EXAMPLES = (sys.argv[1:] + ["", ""])[:2]


class ExtensionTest(unittest.TestCase):
    def setUp(self):
        self.db = sqlite3.connect(":memory:")
        self.db.enable_load_extension(True)
        self.db.load_extension(EXTENSION)
        self.db.enable_load_extension(False)
        # Customer, Item, Card, Order and the map entry of Order.attributes.
        shop = self.read("shop.desc")
        self.assertEqual(self.one("SELECT ostrel_register_descriptor_set(?)", shop), 5)
        self.assertEqual(self.one("SELECT ostrel_default_type('shop.Order')"), "shop.Order")
        self.db.execute("CREATE TABLE orders (id INTEGER PRIMARY KEY, record BLOB)")
        for n in (1, 2, 3):
            self.db.execute("INSERT INTO orders (record) VALUES (?)", (self.read(f"order{n}.bin"),))

    def read(self, name):
        with open(f"{EXAMPLES}/{name}", "rb") as f:
            return f.read()

    def one(self, sql, *args):
        return self.db.execute(sql, args).fetchone()[0]

    def test_reads_and_errors(self):
        row = self.db.execute(
            "SELECT P_GET(record, 'id'), P_GET(record, 'shop.Order', 'items[1].price'),"
            " P_HAS(record, 'voucher'), P_GET(record, 'voucher') FROM orders WHERE id = 1"
        ).fetchone()
        self.assertEqual(row, (1001, 1290, 0, None))
        with self.assertRaises(sqlite3.OperationalError) as caught:
            self.one("SELECT P_GET(7, 'id')")
        self.assertEqual(str(caught.exception),
                         "the record is an integer, not a blob of encoded protobuf")

    def test_expression_index_is_used(self):
        self.db.execute("CREATE INDEX by_customer ON orders(P_GET(record, 'customer.id'))")
        where = " WHERE P_GET(record, 'customer.id') = 42 ORDER BY id"
        plan = self.db.execute("EXPLAIN QUERY PLAN SELECT id FROM orders" + where).fetchall()
        self.assertIn("USING INDEX by_customer", plan[0][3])
        ids = self.db.execute("SELECT id FROM orders" + where).fetchall()
        self.assertEqual(ids, self.db.execute("SELECT id FROM orders NOT INDEXED" + where).fetchall())
        self.assertTrue(ids)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
