"""Many records into columns: MessageSchema.project against single reads (themselves checked
against libprotobuf), numpy dtypes and masks, pandas, and the Arrow stream read back through
ctypes."""

import ctypes
import gc
import os
import pathlib
import struct
from concurrent.futures import ThreadPoolExecutor

import numpy as np
import pandas as pd
import pytest
from google.protobuf.internal.encoder import _VarintBytes

import ostrel
from conftest import generate

# Path, numpy dtype of its to_pydict column (None: a list).
COLUMNS = [
    ("scalars.f_double", "float64"), ("scalars.f_float", "float32"), ("scalars.f_int64", "int64"),
    ("scalars.f_uint64", "uint64"), ("scalars.f_int32", "int32"), ("scalars.f_fixed64", "uint64"),
    ("scalars.f_fixed32", "uint32"), ("scalars.f_bool", "bool"), ("scalars.f_uint32", "uint32"),
    ("scalars.f_sfixed32", "int32"), ("scalars.f_sfixed64", "int64"), ("scalars.f_sint32", "int32"),
    ("scalars.f_sint64", "int64"), ("maybe", "int32"), ("scalars.f_string", None),
    ("scalars.f_bytes", None), ("scalars.f_enum", None), ("color", None), ("mids", None),
    ("counts", None), ("leaves_by_id", None), ("repeats.r_sint32", None), ("mid.leaf", None),
    ("mids[*].note", None),
]
PATHS = [path for path, _ in COLUMNS]


def normal(value):
    """A struct column gives every field (null where absent), a single read only those present."""
    if isinstance(value, dict):
        # An empty message present reads as {}, an absent one as None: both leave no trace.
        normalised = {k: normal(v) for k, v in value.items()}
        return {k: v for k, v in normalised.items() if v not in (None, [], {})}
    if isinstance(value, list):
        return [normal(v) for v in value]
    return value


def cell(column, row):
    value = column[row]
    if value is np.ma.masked:
        return None
    return value.item() if isinstance(value, np.generic) else value


@pytest.fixture(scope="module")
def records(rich):
    _, cls = rich
    return [m.SerializeToString() for m in generate(cls, seed=11, count=120)]


def test_columns_equal_single_reads(rich, records):
    schema, _ = rich
    table = schema.project(records, PATHS)
    assert (table.num_rows, table.column_names) == (len(records), PATHS)
    columns = table.to_pydict()
    for path, dtype in COLUMNS:
        column = columns[path]
        if dtype is not None:
            assert column.dtype == np.dtype(dtype), path
        else:
            assert isinstance(column, list), path
        for row, record in enumerate(records):
            if path == "mids[*].note":
                want = [m.get("note") for m in schema.get(record, "mids")]
            else:
                want = schema.get(record, path)
            if path in ("scalars.f_enum", "color") and isinstance(want, int):
                want = str(want)  # numbers the enum does not name: their decimal text
            assert normal(cell(column, row)) == normal(want), (path, row)


def test_numeric_columns_view_the_batch_and_mask_nulls(rich, records):
    schema, _ = rich
    table = schema.project(records, ["scalars.f_sint64", "maybe", "scalars.f_bool"])
    first, second = table.to_pydict(), table.to_pydict()
    values = first["scalars.f_sint64"]
    assert np.shares_memory(np.ma.getdata(values), np.ma.getdata(second["scalars.f_sint64"]))
    assert not np.ma.getdata(values).flags.writeable
    nulls = [schema.get(r, "maybe") is None for r in records]
    assert any(nulls) and not all(nulls)
    assert list(np.ma.getmaskarray(first["maybe"])) == nulls
    # Under a null lies a zero: the data can be summed or hashed without its mask.
    for column in first.values():
        assert np.ma.getmaskarray(column).any()
        assert not np.ma.getdata(column)[np.ma.getmaskarray(column)].any()
    del table, second
    gc.collect()
    # The arrays keep the batch alive.
    assert [cell(values, i) for i in range(len(records))] == [
        schema.get(r, "scalars.f_sint64") for r in records]


def test_every_form_of_input_gives_the_same_table(rich, records, tmp_path):
    schema, _ = rich
    stream = b"".join(_VarintBytes(len(r)) + r for r in records)
    (tmp_path / "records.bin").write_bytes(stream)
    (tmp_path / "one.bin").write_bytes(records[3])
    paths = ["scalars.f_int64", "mid.leaf.label"]
    want = schema.project(records, paths).to_pandas()
    for form in [stream, bytearray(stream), memoryview(stream), str(tmp_path / "records.bin"),
                 tmp_path / "records.bin", (r for r in records), [bytearray(r) for r in records]]:
        pd.testing.assert_frame_equal(schema.project(form, paths).to_pandas(), want)
    u32be = b"".join(struct.pack(">i", len(r)) + r for r in records)
    pd.testing.assert_frame_equal(schema.project(u32be, paths, framing="u32be").to_pandas(), want)
    single = schema.project(pathlib.Path(tmp_path / "one.bin"), paths, framing="single")
    pd.testing.assert_frame_equal(single.to_pandas(), want.iloc[3:4].reset_index(drop=True))


def test_pandas_frame(rich, records):
    schema, _ = rich
    paths = ["scalars.f_uint32", "maybe", "color", "scalars.f_string"]
    frame = schema.project(records, paths).to_pandas()
    assert [str(frame[p].dtype) for p in paths] == ["UInt32", "Int32", "category", "object"]
    for path in paths:
        want = [schema.get(r, path) for r in records]
        got = [None if pd.isna(v) else v for v in frame[path]]
        assert got == [None if w is None else str(w) if path == "color" else w for w in want]


class ArrowSchema(ctypes.Structure):
    pass


class ArrowArray(ctypes.Structure):
    pass


ArrowSchema._fields_ = [
    ("format", ctypes.c_char_p), ("name", ctypes.c_char_p), ("metadata", ctypes.c_char_p),
    ("flags", ctypes.c_int64), ("n_children", ctypes.c_int64),
    ("children", ctypes.POINTER(ctypes.POINTER(ArrowSchema))),
    ("dictionary", ctypes.POINTER(ArrowSchema)),
    ("release", ctypes.CFUNCTYPE(None, ctypes.POINTER(ArrowSchema))),
    ("private_data", ctypes.c_void_p)]
ArrowArray._fields_ = [
    ("length", ctypes.c_int64), ("null_count", ctypes.c_int64), ("offset", ctypes.c_int64),
    ("n_buffers", ctypes.c_int64), ("n_children", ctypes.c_int64),
    ("buffers", ctypes.POINTER(ctypes.c_void_p)),
    ("children", ctypes.POINTER(ctypes.POINTER(ArrowArray))),
    ("dictionary", ctypes.POINTER(ArrowArray)),
    ("release", ctypes.CFUNCTYPE(None, ctypes.POINTER(ArrowArray))),
    ("private_data", ctypes.c_void_p)]


class ArrowArrayStream(ctypes.Structure):
    _fields_ = [
        ("get_schema", ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_void_p, ctypes.POINTER(ArrowSchema))),
        ("get_next", ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_void_p, ctypes.POINTER(ArrowArray))),
        ("get_last_error", ctypes.CFUNCTYPE(ctypes.c_char_p, ctypes.c_void_p)),
        ("release", ctypes.CFUNCTYPE(None, ctypes.c_void_p)),
        ("private_data", ctypes.c_void_p)]


def capsule_pointer(capsule, name):
    get = ctypes.pythonapi.PyCapsule_GetPointer
    get.restype, get.argtypes = ctypes.c_void_p, [ctypes.py_object, ctypes.c_char_p]
    return get(capsule, name)


def test_arrow_stream_read_back_through_ctypes(rich, records):
    schema, _ = rich
    paths = ["scalars.f_int32", "maybe", "scalars.f_string", "color", "mids", "counts"]
    capsule = schema.project(records, paths).__arrow_c_stream__()
    gc.collect()  # the table is gone; the stream holds its batches
    stream = ArrowArrayStream.from_address(capsule_pointer(capsule, b"arrow_array_stream"))
    arrow_schema = ArrowSchema()
    assert stream.get_schema(ctypes.addressof(stream), ctypes.byref(arrow_schema)) == 0
    children = [arrow_schema.children[i].contents for i in range(arrow_schema.n_children)]
    assert [(c.name.decode(), c.format.decode()) for c in children] == [
        ("scalars.f_int32", "i"), ("maybe", "i"), ("scalars.f_string", "u"), ("color", "i"),
        ("mids", "+l"), ("counts", "+m")]
    assert children[3].dictionary.contents.format == b"u"
    rows, nulls = 0, [0] * len(paths)
    while True:
        batch = ArrowArray()
        assert stream.get_next(ctypes.addressof(stream), ctypes.byref(batch)) == 0
        if not batch.release:
            break
        rows += batch.length
        for i in range(batch.n_children):
            nulls[i] += batch.children[i].contents.null_count
        batch.release(ctypes.byref(batch))
    arrow_schema.release(ctypes.byref(arrow_schema))
    assert rows == len(records)
    assert nulls[1] == sum(schema.get(r, "maybe") is None for r in records)
    assert nulls[0] == sum(schema.get(r, "scalars.f_int32") is None for r in records)


def test_faulty_records_and_paths(rich, records):
    schema, _ = rich
    bad = records[:2] + [b"\x0a\xff"] + records[2:4]
    with pytest.raises(ostrel.ColumnError) as caught:
        schema.project(bad, ["mid.note"])
    assert caught.value.code == "recordFailed"
    assert str(caught.value).startswith("record 2 at byte ")
    table = schema.project(bad, ["mid.note"], null_row_on_error=True)
    assert (table.num_rows, table.failed_records) == (5, 1)
    assert table.to_pydict()["mid.note"][2] is None
    with pytest.raises(ostrel.ColumnError) as caught:
        schema.project(records, ["mids[*].leaves[*].id"])
    assert caught.value.code == "unsupportedPath"
    with pytest.raises(ostrel.PropertyPathError):
        schema.project(records, ["mids["])
    with pytest.raises(ostrel.FramingError) as caught:
        schema.project(b"\x05\x08", ["maybe"])  # a record running past the end
    assert caught.value.code == "truncated"
    with pytest.raises(FileNotFoundError):
        schema.project("/nonexistent/records.bin", ["maybe"])
    with pytest.raises(ValueError):
        schema.project(records, ["maybe"], framing="lines")


def test_threads_project_one_schema_at_once(rich, records):
    schema, _ = rich
    stream = b"".join(_VarintBytes(len(r)) + r for r in records) * 50
    want = schema.project(stream, PATHS[:14]).to_pandas()
    with ThreadPoolExecutor(4) as pool:
        for frame in pool.map(lambda _: schema.project(stream, PATHS[:14]).to_pandas(), range(8)):
            pd.testing.assert_frame_equal(frame, want)
