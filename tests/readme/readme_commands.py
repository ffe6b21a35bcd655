#!/usr/bin/env python3
"""Runs the sessions of the READMEs and compares what they print with what the READMEs show.

Every ```console block is a session run in order, starting at the root of a fresh copy of the
clone's example files: "$ COMMAND" lines (a trailing backslash continues one) run in bash, with
"cd" carrying over to the next command of the block; "sqlite> SQL" lines (and "   ...> " lines
continuing them) are the standard input of the command before them, or of a bare sqlite3 when
the block starts with them; every other line is output. Standard output and standard error
together must be what the block shows. Blocks of other kinds (sh, sql, cmake) are build steps or
need a server, and are not run here.

The built files stand where the README says they are: build-example/tools/ostrel/ostrel (first
on PATH, as ostrel) and build-example/extensions/sqlite/libostrel_sqlite.so link to this build's.
After the sessions, the example files they rewrote must be those of the clone.

With OSTREL_PYTHON_MODULE naming this build's Python module, it stands in build-example/python/
(on PYTHONPATH, as the README sets it), and python3 is the interpreter running this script, which
the module was built for.

usage: readme_commands.py SOURCE_DIR OSTREL_TOOL SQLITE_EXTENSION_SO README...
"""

import os
import re
import shutil
import subprocess
import sys
import tempfile

# Files a session rewrites that may differ byte for byte with the SQLite version that writes them.
REWRITTEN_ON_PURPOSE = {"examples/shop.db"}


def sessions(readme):
    """The console blocks of `readme`, each a list of (command, stdin, expected output)."""
    blocks = re.findall(r"^```console\n(.*?)^```", open(readme).read(), re.S | re.M)
    for block in blocks:
        steps = []
        lines = block.splitlines()
        i = 0
        while i < len(lines):
            line = lines[i]
            if line.startswith("$ "):
                command = line[2:]
                while command.endswith("\\"):
                    i += 1
                    command = command[:-1] + "\n" + lines[i]
                steps.append([command, "", ""])
            elif line.startswith("sqlite> "):
                if not steps:
                    steps.append(["sqlite3", "", ""])
                steps[-1][1] += line[len("sqlite> "):] + "\n"
            elif line.startswith("   ...> "):
                steps[-1][1] += line[len("   ...> "):] + "\n"
            else:
                steps[-1][2] += line + "\n"
            i += 1
        yield block, steps


def run_session(steps, root, env):
    """Runs one block's steps from `root`; returns a list of differences."""
    cwd = root
    failures = []
    for command, stdin, expected in steps:
        marker = "\x00cwd="
        script = command + "\nstatus=$?\nprintf '" + marker.replace("\x00", "\\0") + "%s' \"$PWD\"\nexit $status\n"
        done = subprocess.run(["bash", "-c", script], cwd=cwd, env=env, input=stdin.encode(),
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=120)
        output, _, new_cwd = done.stdout.decode(errors="replace").rpartition(marker)
        if new_cwd:
            cwd = new_cwd
        if output != expected:
            failures.append(f"$ {command}\n--- the README shows:\n{expected}--- it printed:\n{output}")
    return failures


def tracked_examples(source):
    """The example files of the clone: what git tracks, else the folder as it is."""
    try:
        listed = subprocess.run(["git", "-C", source, "ls-files", "examples"], check=True,
                                stdout=subprocess.PIPE, stderr=subprocess.DEVNULL).stdout.decode()
        files = [f for f in listed.splitlines() if os.path.isfile(os.path.join(source, f))]
        if files:
            return files
    except (OSError, subprocess.CalledProcessError):
        pass
    return [os.path.relpath(os.path.join(d, f), source)
            for d, _, names in os.walk(os.path.join(source, "examples")) for f in names]


def failed_builds_keep_the_database(root, env):
    """examples/make-shop-db, given no extension or a file that is not one, fails and leaves
    examples/shop.db as it was, with nothing beside it."""
    failures = []
    database = os.path.join(root, "examples/shop.db")
    before = open(database, "rb").read()
    listing = sorted(os.listdir(os.path.join(root, "examples")))
    open(os.path.join(root, "not-a-library.so"), "w").write("text")
    for argument in ["build-example/missing", "not-a-library"]:
        done = subprocess.run(["examples/make-shop-db", argument], cwd=root, env=env,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        if done.returncode == 0:
            failures.append(f"examples/make-shop-db {argument} succeeded")
        if open(database, "rb").read() != before or sorted(os.listdir(os.path.join(root, "examples"))) != listing:
            failures.append(f"examples/make-shop-db {argument} changed examples/")
    os.remove(os.path.join(root, "not-a-library.so"))
    return failures


def main():
    source, tool, extension, readmes = sys.argv[1], sys.argv[2], sys.argv[3], sys.argv[4:]
    root = tempfile.mkdtemp(prefix="ostrel-readme-")
    try:
        files = tracked_examples(source)
        for name in files:
            os.makedirs(os.path.dirname(os.path.join(root, name)), exist_ok=True)
            shutil.copy2(os.path.join(source, name), os.path.join(root, name))
        for built, place in [(tool, "build-example/tools/ostrel/ostrel"),
                             (extension, "build-example/extensions/sqlite/libostrel_sqlite.so")]:
            os.makedirs(os.path.dirname(os.path.join(root, place)), exist_ok=True)
            os.symlink(os.path.abspath(built), os.path.join(root, place))
        env = dict(os.environ, LC_ALL="C.UTF-8")
        env["PATH"] = os.path.join(root, "build-example/tools/ostrel") + os.pathsep + env["PATH"]
        env.pop("SQLITE_HISTORY", None)
        module = os.environ.get("OSTREL_PYTHON_MODULE")
        if module:
            place = os.path.join(root, "build-example/python", os.path.basename(module))
            os.makedirs(os.path.dirname(place), exist_ok=True)
            os.symlink(os.path.abspath(module), place)
            env["PYTHONPATH"] = os.path.dirname(place)
            env["PATH"] = (os.path.join(root, "build-example/tools/ostrel") + os.pathsep +
                           os.path.dirname(sys.executable) + os.pathsep + os.environ["PATH"])

        # First, while examples/ is the clone's: a build that fails must leave it so.
        failures = failed_builds_keep_the_database(root, env)
        count = 0
        for readme in readmes:
            for block, steps in sessions(readme):
                count += 1
                failures += [f"{os.path.relpath(readme, source)}:\n{f}"
                             for f in run_session(steps, root, env)]
        for name in files:
            if name in REWRITTEN_ON_PURPOSE:
                continue
            with open(os.path.join(source, name), "rb") as a, open(os.path.join(root, name), "rb") as b:
                if a.read() != b.read():
                    failures.append(f"the sessions left {name} different from the clone's")
        if count == 0:
            failures.append("no console blocks found")
        for failure in failures:
            print(failure, file=sys.stderr)
        print(f"{count} sessions, {len(failures)} differences")
        return 1 if failures else 0
    finally:
        shutil.rmtree(root, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
