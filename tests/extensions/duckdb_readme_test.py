#!/usr/bin/env python3
"""Runs the SQL of the README's DuckDB section through the test host, from a fresh copy of the
clone's example files with the built extension where the README says it is, and compares the
results with the text block that follows it.

usage: duckdb_readme_test.py README EXAMPLES_DIR HOST EXTENSION
"""
import os
import re
import shutil
import subprocess
import sys
import tempfile


def main():
    readme, examples, host, extension = sys.argv[1:5]
    section = re.search(r"^## DuckDB\n(.*?)^## ", open(readme).read(), re.S | re.M).group(1)
    sql = re.search(r"^```sql\n(.*?)^```", section, re.S | re.M).group(1)
    expected = re.search(r"^```sql\n.*?^```.*?^```text\n(.*?)^```", section, re.S | re.M).group(1)
    with tempfile.TemporaryDirectory() as root:
        shutil.copytree(examples, os.path.join(root, "examples"))
        built = os.path.join(root, "build", "extensions", "duckdb")
        os.makedirs(built)
        os.symlink(extension, os.path.join(built, "ostrel.duckdb_extension"))
        with open(os.path.join(root, "readme.sql"), "w") as script:
            script.write(sql)
        run = subprocess.run([host, "-", "readme.sql"], cwd=root, capture_output=True, text=True)
    actual = "".join(line + "\n" for line in run.stdout.splitlines() if not line.startswith("> "))
    # The host ends every result with an empty line; the block ends with the last result.
    actual = actual.rstrip("\n") + "\n"
    if run.returncode != 0 or actual != expected:
        sys.stdout.write("The README's DuckDB results differ; the host printed:\n" + actual)
        sys.stdout.write(run.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
