#!/usr/bin/env python3
"""Three fields of 1,000,000 delimited shop orders into a pandas DataFrame, three ways, in one run:

  ostrel      schema.project(file, paths).to_pandas()
  protobuf    python3-protobuf's parse loop: split the stream, FromString each record, read the
              three fields into lists, then a DataFrame
  csv         `ostrel get --format csv` piped into pandas.read_csv

Each side runs in its own process, after its imports, so that its CPU time (user and system, the
tool's included for csv) and peak resident size (ru_maxrss; the tool's apart) are its own. CPU
time is what the ratios compare: on a shared machine wall time measures the neighbours. Every
side must build the same frame (compared on the first 1,000 rows). Prints CPU and wall seconds,
ratios and peaks.

usage: PYTHONPATH=<build>/python python3 dataframe.py OSTREL_TOOL [RECORDS]
"""

import os
import random
import resource
import subprocess
import sys
import tempfile
import time

import pandas as pd

HERE = os.path.dirname(os.path.abspath(__file__))
EXAMPLES = os.path.join(HERE, "..", "..", "examples")
PATHS = ["id", "customer.name", "state"]


def message_class():
    from google.protobuf import descriptor_pb2, descriptor_pool, message_factory

    pool = descriptor_pool.DescriptorPool()
    for file in descriptor_pb2.FileDescriptorSet.FromString(
            open(os.path.join(EXAMPLES, "shop.desc"), "rb").read()).file:
        pool.Add(file)
    descriptor = pool.FindMessageTypeByName("shop.Order")
    if hasattr(message_factory, "GetMessageClass"):
        return message_factory.GetMessageClass(descriptor)
    return message_factory.MessageFactory(pool).GetPrototype(descriptor)


def write_orders(path, count):
    """`count` delimited orders: 1,000 distinct ones, repeated."""
    from google.protobuf.internal.encoder import _VarintBytes

    order = message_class()
    rng = random.Random(1)
    names = ["Ada Lovelace", "Grace Hopper", "Edsger Dijkstra", "Barbara Liskov", "Alan Kay"]
    distinct = []
    for i in range(1000):
        m = order(id=1000 + i, state=rng.randrange(5), created_at=1700000000000 + i)
        m.customer.id, m.customer.name = rng.randrange(10**6), rng.choice(names)
        m.customer.email = "someone@example.com"
        for _ in range(rng.randrange(1, 4)):
            m.items.add(sku="SKU-%d" % rng.randrange(100), quantity=rng.randrange(1, 5),
                        price=rng.randrange(100, 10000))
        m.attributes["channel"] = rng.choice(["web", "app"])
        data = m.SerializeToString()
        distinct.append(_VarintBytes(len(data)) + data)
    block = b"".join(distinct)
    with open(path, "wb") as out:
        for _ in range(count // 1000):
            out.write(block)


def with_ostrel(path):
    import ostrel

    store = ostrel.SchemaStore.from_descriptor_set(open(os.path.join(EXAMPLES, "shop.desc"), "rb").read())
    return store.message("shop.Order").project(path, PATHS).to_pandas()


def with_protobuf(path):
    from google.protobuf.internal.decoder import _DecodeVarint32

    order = message_class()
    data = open(path, "rb").read()
    ids, names, states = [], [], []
    position = 0
    while position < len(data):
        size, position = _DecodeVarint32(data, position)
        m = order.FromString(data[position:position + size])
        position += size
        ids.append(m.id)
        names.append(m.customer.name)
        states.append(m.state)
    return pd.DataFrame({"id": ids, "customer.name": names, "state": states})


def with_csv(path, tool):
    process = subprocess.Popen([tool, "-s", os.path.join(EXAMPLES, "shop.desc"), "get", "-m",
                                "shop.Order", "--delimited", "-i", path, "--format", "csv"] + PATHS,
                               stdout=subprocess.PIPE)
    frame = pd.read_csv(process.stdout, keep_default_na=False)
    process.wait()
    return frame, resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss


def cpu_seconds():
    own = resource.getrusage(resource.RUSAGE_SELF)
    children = resource.getrusage(resource.RUSAGE_CHILDREN)
    return own.ru_utime + own.ru_stime + children.ru_utime + children.ru_stime


def side(name, path, tool):
    """Runs one side in this process; prints CPU and wall seconds, peak KiB (and the tool's),
    then the first rows."""
    import numpy  # noqa: F401  (imports are not what is measured)
    import google.protobuf.message  # noqa: F401
    import ostrel  # noqa: F401

    start, cpu = time.perf_counter(), cpu_seconds()
    if name == "csv":
        frame, child_peak = with_csv(path, tool)
    else:
        frame, child_peak = {"ostrel": with_ostrel, "protobuf": with_protobuf}[name](path), 0
    seconds, cpu = time.perf_counter() - start, cpu_seconds() - cpu
    peak = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
    head = frame.head(1000)
    print(cpu, seconds, peak, child_peak, len(frame))
    print(head["id"].astype("int64").tolist())
    print(head["customer.name"].astype(str).tolist())
    print([str(s) for s in head["state"].tolist()])


def main():
    if len(sys.argv) >= 3 and sys.argv[1] == "--side":
        side(sys.argv[2], sys.argv[3], sys.argv[4])
        return
    tool = os.path.abspath(sys.argv[1])
    count = int(sys.argv[2]) if len(sys.argv) > 2 else 1_000_000
    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(folder, "orders.bin")
        write_orders(path, count)
        print(f"{count:,} delimited shop.Order records, {os.path.getsize(path) / 1e6:.0f} MB; "
              f"paths {', '.join(PATHS)}")
        results = {}
        for name in ["ostrel", "protobuf", "csv"]:
            out = subprocess.run([sys.executable, __file__, "--side", name, path, tool],
                                 check=True, stdout=subprocess.PIPE, text=True).stdout.splitlines()
            cpu, seconds, peak, child_peak, rows = out[0].split()
            results[name] = (float(cpu), float(seconds), int(peak), int(child_peak), int(rows),
                             out[1:])
        ids, names = results["ostrel"][5][0], results["ostrel"][5][1]
        for name, (_, _, _, _, rows, head) in results.items():
            # Enums: ostrel and the tool give names, protobuf numbers; ids and names must agree.
            if rows != count or head[0] != ids or head[1] != names:
                sys.exit(f"{name} built another frame")
        base = results["ostrel"][0]
        for name, (cpu, seconds, peak, child_peak, _, _) in results.items():
            extra = f" (+ {child_peak / 1024:.0f} MiB the tool)" if child_peak else ""
            print(f"{name:9} CPU {cpu:6.2f} s  {cpu / base:5.1f}x ostrel's  (wall {seconds:6.2f} s)"
                  f"  peak {peak / 1024:.0f} MiB{extra}")


if __name__ == "__main__":
    main()
