"""Time per registration in the loadable SQLite extension, types registered one by one.

Usage: sqlite_registration.py EXTENSION [DATABASE] [COUNT...]
Registers one small message type per statement (ostrel_register_manifest), each its own
transaction, up to the largest COUNT, and prints the mean time of the 1,000 registrations that end
at each COUNT (default 10000 20000 40000). DATABASE defaults to :memory:; a file is written with
synchronous=OFF, so that the figures are the extension's and SQLite's work, not the disk's.
Flat figures mean each registration costs what it adds. Run with Debian's python3.
"""
import sqlite3
import sys
import time

extension = sys.argv[1]
database = sys.argv[2] if len(sys.argv) > 2 and not sys.argv[2].isdigit() else ":memory:"
counts = [int(a) for a in sys.argv[2:] if a.isdigit()] or [10000, 20000, 40000]

db = sqlite3.connect(database, isolation_level=None)
db.enable_load_extension(True)
db.load_extension(extension)
db.enable_load_extension(False)
db.execute("PRAGMA synchronous = OFF")
window = 1000
started = None
for n in range(1, max(counts) + 1):
    if n == 1 or (n - 1) % window == 0:
        started = time.perf_counter()
    manifest = '{"messages":{"load.T%d":{"fields":{"id":{"type":"int64","fieldNumber":1},' \
               '"name":{"type":"string","fieldNumber":2}}}}}' % n
    assert db.execute("SELECT ostrel_register_manifest(?)", (manifest,)).fetchone()[0] == n
    if n in counts:
        per = (time.perf_counter() - started) / window
        print(f"{n:>7} types: {per * 1e6:9.1f} us per registration", flush=True)
# The rows are there for every other connection: one more reads them all at once.
if database != ":memory:":
    other = sqlite3.connect(database)
    other.enable_load_extension(True)
    other.load_extension(extension)
    started = time.perf_counter()
    other.execute("SELECT P_GET(x'0801', 'load.T1', 'id')").fetchone()
    print(f"a new connection reads {max(counts)} types in {time.perf_counter() - started:.2f} s")
