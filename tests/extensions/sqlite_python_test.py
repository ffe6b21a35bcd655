"""The loadable extension in Python's own sqlite3 module: load, register, read through an index;
registered types shared by every connection of a database; a database file that tries to register.

Usage: sqlite_python_test.py EXTENSION EXAMPLES_DIR. Run by ctest with Debian's python3, whose
sqlite3 module can load extensions.
"""
import os
import re
import sqlite3
import sys
import tempfile
import unittest

EXTENSION, EXAMPLES = (sys.argv[1:] + ["", ""])[:2]


def read(name):
    with open(f"{EXAMPLES}/{name}", "rb") as f:
        return f.read()


def connect(path):
    db = sqlite3.connect(path)
    db.enable_load_extension(True)
    db.load_extension(EXTENSION)
    db.enable_load_extension(False)
    return db


def value(db, sql, *parameters):
    return db.execute(sql, parameters).fetchone()[0]


# Two definitions of one type name: v2 reads field 1 as text, v1 as an integer.
V1 = 'syntax = "proto3"; package two; message T { int64 id = 1; }'
V2 = 'syntax = "proto3"; package two; message T { string id = 1; }'

EVIL = '{"messages":{"evil.T":{"fields":{"x":{"type":"string","fieldNumber":1}}}}}'
CALLS = ["ostrel_register_manifest('%s')" % EVIL,
         "ostrel_register_proto('syntax=\"proto3\"; package evil; message U { int32 y = 1; }')",
         "ostrel_register_descriptor_set(x'0a0a12046576696c2202 0a00')".replace(" ", ""),
         "ostrel_default_type('evil.T')"]
# Per kind of schema object: the harmless statements that make it, the text each takes afterwards
# (None: made as it is, since SQLite stores triggers and views unchecked), and statements that run
# it. {c} is a call of a registration function, {i} its number.
KINDS = {
    "check": (["CREATE TABLE t{i}(a, CHECK (1))"], ["CREATE TABLE t{i}(a, CHECK (({c}) IS NOT 0))"],
              ["INSERT INTO t{i}(a) VALUES (1)", "UPDATE t{i} SET a = 2", "PRAGMA integrity_check",
               "PRAGMA quick_check"]),
    "default": (["CREATE TABLE t{i}(a, b DEFAULT (1))"], ["CREATE TABLE t{i}(a, b DEFAULT ({c}))"],
                ["INSERT INTO t{i}(a) VALUES (1)"]),
    "generated": (["CREATE TABLE t{i}(a, g AS (1))"], ["CREATE TABLE t{i}(a, g AS ({c}))"],
                  ["INSERT INTO t{i}(a) VALUES (1)", "SELECT g FROM t{i}", "PRAGMA integrity_check"]),
    "stored": (["CREATE TABLE t{i}(a, g AS (1) STORED)"],
               ["CREATE TABLE t{i}(a, g AS ({c}) STORED)"], ["INSERT INTO t{i}(a) VALUES (1)"]),
    "trigger": (["CREATE TABLE t{i}(a)",
                 "CREATE TRIGGER r{i} AFTER INSERT ON t{i} BEGIN SELECT {c}; END"], [None, None],
                ["INSERT INTO t{i}(a) VALUES (1)"]),
    "view": (["CREATE VIEW t{i} AS SELECT {c} AS r"], [None], ["SELECT * FROM t{i}"]),
    "index": (["CREATE TABLE t{i}(a)", "CREATE INDEX x{i} ON t{i}((a + 1))"],
              [None, "CREATE INDEX x{i} ON t{i}(({c}))"],
              ["INSERT INTO t{i}(a) VALUES (1)", "REINDEX x{i}", "PRAGMA integrity_check"]),
    "partial index": (["CREATE TABLE t{i}(a)", "CREATE INDEX x{i} ON t{i}(a) WHERE a IS NOT 0"],
                      [None, "CREATE INDEX x{i} ON t{i}(a) WHERE ({c}) IS NOT 0"],
                      ["INSERT INTO t{i}(a) VALUES (1)", "REINDEX x{i}",
                       "PRAGMA integrity_check"]),
}


def craft(path, kind):
    """A database file as an attacker writes one: made harmless, then its schema text replaced
    (writable_schema lets anyone), so that no check SQLite makes on CREATE ever saw it."""
    harmless, real, _ = KINDS[kind]
    db = sqlite3.connect(path)
    replaced = []
    for i, call in enumerate(CALLS):
        for make, text in zip(harmless, real):
            db.execute(make.format(i=i, c=call))
            if text:
                text = text.format(i=i, c=call)
                replaced.append((text, re.match(r"CREATE \w+ (\w+)", text).group(1)))
    db.commit()
    db.execute("PRAGMA writable_schema = ON")
    for text, name in replaced:
        db.execute("UPDATE sqlite_master SET sql = ? WHERE name = ?", (text, name))
    db.commit()
    db.close()


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

    def test_connections_of_one_database_share_its_definitions(self):
        with tempfile.TemporaryDirectory() as work:
            path = os.path.join(work, "two.db")
            first, second = connect(path), connect(path)
            # The second connection has read the (missing) table before the first registers.
            self.assertRaises(sqlite3.OperationalError, value, second,
                              "SELECT P_GET(x'0804', 'two.T', 'id')")
            self.assertEqual(value(first, "SELECT ostrel_register_proto(?)", V1), 1)
            first.execute("CREATE TABLE t (id INTEGER PRIMARY KEY, record BLOB)")
            first.execute("CREATE INDEX by_id ON t(P_GET(record, 'two.T', 'id'))")
            first.executemany("INSERT INTO t (record) VALUES (?)",
                              [(bytes([8, n]),) for n in range(1, 9)])
            first.commit()
            # Another definition under the stored name is refused, in this connection as in any
            # other, even one that loaded the extension before the first registration.
            for db in (second, connect(path)):
                with self.assertRaisesRegex(sqlite3.OperationalError, "already registered"):
                    value(db, "SELECT ostrel_register_proto(?)", V2)
            # Rows the second connection writes are read by the stored definition.
            second.executemany("INSERT INTO t (record) VALUES (?)",
                               [(bytes([8, 8]),), (bytes([8, 4]),)])
            second.commit()
            where = " WHERE P_GET(record, 'two.T', 'id') = 4 ORDER BY id"
            for db in (first, second):
                self.assertEqual(value(db, "PRAGMA integrity_check"), "ok")
                indexed = db.execute("SELECT id FROM t INDEXED BY by_id" + where).fetchall()
                self.assertEqual(indexed, db.execute("SELECT id FROM t NOT INDEXED" + where).fetchall())
                self.assertEqual(indexed, [(4,), (10,)])
            second.execute("DELETE FROM t WHERE id = 4")
            second.commit()
            # Stored definitions are not changed or removed by plain SQL either.
            for sql in ("DELETE FROM ostrel_schemas", "UPDATE ostrel_schemas SET definition = '{}'"):
                with self.assertRaisesRegex(sqlite3.IntegrityError, "cannot be changed"):
                    first.execute(sql)
            first.rollback()
            # A registration rolled back with its transaction leaves nothing behind.
            first.execute("BEGIN")
            self.assertEqual(value(first, "SELECT ostrel_register_proto(?)",
                                   'syntax = "proto3"; package two; message R { int64 a = 1; }'), 2)
            first.rollback()
            self.assertEqual(value(second, "SELECT ostrel_register_proto(?)",
                                   'syntax = "proto3"; package two; message R { string a = 1; }'), 2)
            second.commit()
            self.assertEqual(value(first, "SELECT P_GET(x'0a0178', 'two.R', 'a')"), "x")
            # A registration that cannot commit, while another connection reads, leaves nothing.
            first.execute("PRAGMA busy_timeout = 0")
            reading = second.execute("SELECT id FROM t")
            reading.fetchone()
            with self.assertRaisesRegex(sqlite3.OperationalError, "locked"):
                value(first, "SELECT ostrel_register_proto(?)",
                      'syntax = "proto3"; package two; message L {}')
            reading.fetchall()
            with self.assertRaisesRegex(sqlite3.OperationalError, "two.L"):
                value(first, "SELECT P_ENCODE('two.L', '{}')")

    def test_a_database_file_cannot_register_or_choose_types(self):
        with tempfile.TemporaryDirectory() as work:
            for kind, (_, _, runs) in KINDS.items():
                # Read before loading, SQLite keeps the file's schema unchecked against the
                # functions, which it then runs from generated columns and indexes too.
                for schema_read_first in (False, True):
                    with self.subTest(kind=kind, schema_read_first=schema_read_first):
                        path = os.path.join(work, f"{kind}-{schema_read_first}.db")
                        craft(path, kind)
                        db = sqlite3.connect(path)
                        if schema_read_first:
                            db.execute("SELECT count(*) FROM sqlite_master").fetchall()
                        db.enable_load_extension(True)
                        db.load_extension(EXTENSION)
                        db.enable_load_extension(False)
                        try:
                            db.execute("SELECT ostrel_register_proto(?)", (V1,)).fetchall()
                        except sqlite3.DatabaseError as error:
                            # SQLite refuses the whole file: nothing in it runs.
                            self.assertIn("malformed database schema", str(error))
                            continue
                        db.execute("SELECT ostrel_default_type('two.T')").fetchall()
                        for i in range(len(CALLS)):
                            for run in runs:
                                try:
                                    db.execute(run.format(i=i)).fetchall()
                                except sqlite3.DatabaseError:
                                    pass
                        db.commit()
                        with self.assertRaisesRegex(sqlite3.OperationalError, "schemaNotFound"):
                            value(db, "SELECT P_GET(x'0a0161', 'evil.T', 'x')")
                        self.assertEqual(value(db, "SELECT P_GET(x'0807', 'id')"), 7)
                        self.assertEqual(db.execute("SELECT name FROM ostrel_schemas").fetchall(),
                                         [("two.T",)])
                        db.close()
                        # Nor do they register into another database that attaches the file
                        # (before loading the extension, which SQLite would check them against).
                        main = sqlite3.connect(os.path.join(work, "main.db"))
                        main.execute("ATTACH ? AS evil", (path,))
                        main.execute("SELECT count(*) FROM evil.sqlite_master").fetchall()
                        main.enable_load_extension(True)
                        main.load_extension(EXTENSION)
                        main.enable_load_extension(False)
                        for i in range(len(CALLS)):
                            for run in runs:
                                try:
                                    main.execute(run.format(i=i).replace("t%d" % i, "evil.t%d" % i)).fetchall()
                                except sqlite3.DatabaseError:
                                    pass
                        main.commit()
                        with self.assertRaisesRegex(sqlite3.OperationalError, "schemaNotFound"):
                            value(main, "SELECT P_GET(x'0a0161', 'evil.T', 'x')")
                        with self.assertRaisesRegex(sqlite3.OperationalError, "no default"):
                            value(main, "SELECT P_GET(x'0a0161', 'x')")
                        main.close()


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
