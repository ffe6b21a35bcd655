"""The loadable extension in Python's own sqlite3 module: load, register, read through an index.

Usage: sqlite_python_test.py EXTENSION EXAMPLES_DIR. Run by ctest with Debian's python3, whose
sqlite3 module can load extensions.
"""
import sqlite3
import sys
import unittest

EXTENSION, EXAMPLES = (sys.argv[1:] + ["", ""])[:2]


def read(name):
    with open(f"{EXAMPLES}/{name}", "rb") as f:
        return f.read()


class ExtensionTest(unittest.TestCase):
    def test_registered_reads_use_an_expression_index(self):
        db = sqlite3.connect(":memory:")
        db.enable_load_extension(True)
        db.load_extension(EXTENSION)
        db.enable_load_extension(False)
        # Customer, Item, Card, Order and the map entry of Order.attributes.
        registered = db.execute("SELECT ostrel_register_descriptor_set(?)", (read("shop.desc"),))
        self.assertEqual(registered.fetchone(), (5,))
        db.execute("SELECT ostrel_default_type('shop.Order')")
        db.execute("CREATE TABLE orders (id INTEGER PRIMARY KEY, record BLOB)")
        for n in (1, 2, 3):
            db.execute("INSERT INTO orders (record) VALUES (?)", (read(f"order{n}.bin"),))
        # Deterministic functions can index: the plan uses the index, and finds what a scan finds.
        db.execute("CREATE INDEX by_customer ON orders(P_GET(record, 'customer.id'))")
        where = " WHERE P_GET(record, 'customer.id') = 42 ORDER BY id"
        plan = db.execute("EXPLAIN QUERY PLAN SELECT id FROM orders" + where).fetchall()
        self.assertIn("USING INDEX by_customer", plan[0][3])
        ids = db.execute("SELECT id FROM orders" + where).fetchall()
        self.assertEqual(ids, db.execute("SELECT id FROM orders NOT INDEXED" + where).fetchall())
        self.assertTrue(ids)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
