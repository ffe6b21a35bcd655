"""Fixtures of the Python module's tests: the test schemas compiled by the build, libprotobuf's
Python classes for them, and messages generated with every field type."""

import os
import random
import struct

import pytest
from google.protobuf import descriptor_pb2, descriptor_pool, message_factory
from google.protobuf.descriptor import FieldDescriptor as F

import ostrel


def _folder(variable):
    value = os.environ.get(variable)
    if not value:
        pytest.fail(f"{variable} is not set: run these tests through ctest")
    return value


@pytest.fixture(scope="session")
def generated():
    return _folder("OSTREL_TEST_GENERATED")


@pytest.fixture(scope="session")
def examples():
    return _folder("OSTREL_EXAMPLES")


def message_class(descriptor_set, name):
    """libprotobuf's class for `name`; Debian's protobuf 4.21 has GetPrototype but not
    GetMessageClass, newer releases the other way round."""
    pool = descriptor_pool.DescriptorPool()
    for file in descriptor_pb2.FileDescriptorSet.FromString(descriptor_set).file:
        pool.Add(file)
    descriptor = pool.FindMessageTypeByName(name)
    if hasattr(message_factory, "GetMessageClass"):
        return message_factory.GetMessageClass(descriptor)
    return message_factory.MessageFactory(pool).GetPrototype(descriptor)


@pytest.fixture(scope="session")
def rich(generated):
    """(MessageSchema, protobuf class) of ostrel.test.Rich."""
    data = open(os.path.join(generated, "rich.desc"), "rb").read()
    store = ostrel.SchemaStore.from_descriptor_set(data)
    return store.message("ostrel.test.Rich"), message_class(data, "ostrel.test.Rich")


@pytest.fixture(scope="session")
def shop_desc(examples):
    return open(os.path.join(examples, "shop.desc"), "rb").read()


def _float32(x):
    return struct.unpack("<f", struct.pack("<f", x))[0]


_STRINGS = ["", "a", "Ada Lovelace", "é日本🙂", "line\nbreak \"quoted\" \\", "x" * 300]

def _choice(*values):
    """One of `values`, or any number between the least and the greatest."""
    low, high = min(values), max(values)
    pick = (lambda r: r.uniform(low, high)) if isinstance(low, float) else (
        lambda r: r.randrange(low, high))
    return lambda r: r.choice(values + (pick(r),))


_INT64, _UINT64 = _choice(0, -1, 2**63 - 1, -(2**63)), _choice(0, 1, 2**64 - 1)
_INT32, _UINT32 = _choice(0, -1, 2**31 - 1, -(2**31)), _choice(0, 1, 2**32 - 1)
_SCALARS = {
    F.TYPE_DOUBLE: _choice(0.0, -0.0, 1.5, -2.25e300, 5e-324, 1e9),
    F.TYPE_FLOAT: lambda r: _float32(r.choice([0.0, 0.1, -3.5, 3.0e38, r.uniform(-1e6, 1e6)])),
    F.TYPE_INT64: _INT64, F.TYPE_SFIXED64: _INT64, F.TYPE_SINT64: _INT64,
    F.TYPE_UINT64: _UINT64, F.TYPE_FIXED64: _UINT64,
    F.TYPE_INT32: _INT32, F.TYPE_SFIXED32: _INT32, F.TYPE_SINT32: _INT32,
    F.TYPE_UINT32: _UINT32, F.TYPE_FIXED32: _UINT32,
    F.TYPE_BOOL: lambda r: r.random() < 0.5,
    F.TYPE_STRING: lambda r: r.choice(_STRINGS),
    F.TYPE_BYTES: lambda r: bytes(r.randrange(256) for _ in range(r.randrange(6))),
}


def _scalar(field, rng):
    if field.type == F.TYPE_ENUM:
        # Numbers the enum does not name too: proto3 enums are open.
        return rng.choice([v.number for v in field.enum_type.values] + [7])
    return _SCALARS[field.type](rng)


def fill(message, rng, depth=0):
    """Sets a random subset of `message`'s fields, of every kind, nesting up to three levels."""
    for field in message.DESCRIPTOR.fields:
        if rng.random() < 0.35:
            continue
        value_type = field.message_type
        if value_type is not None and value_type.GetOptions().map_entry:
            entries = getattr(message, field.name)
            key, value = value_type.fields_by_name["key"], value_type.fields_by_name["value"]
            for _ in range(rng.randrange(4)):
                k = _scalar(key, rng)
                if value.message_type is not None:
                    fill(entries[k], rng, depth + 1)
                else:
                    entries[k] = _scalar(value, rng)
        elif field.label == F.LABEL_REPEATED:
            elements = getattr(message, field.name)
            for _ in range(rng.randrange(4)):
                if value_type is None:
                    elements.append(_scalar(field, rng))
                elif depth < 3:
                    fill(elements.add(), rng, depth + 1)
        elif value_type is not None:
            if depth < 3:
                getattr(message, field.name).SetInParent()
                fill(getattr(message, field.name), rng, depth + 1)
        else:
            setattr(message, field.name, _scalar(field, rng))
    return message


def generate(cls, seed, count):
    rng = random.Random(seed)
    return [fill(cls(), rng) for _ in range(count)]


def _value(field, value):
    if field.message_type is not None:
        return as_python(value)
    if field.enum_type is not None:
        named = field.enum_type.values_by_number.get(value)
        return named.name if named else value
    return value


def as_python(message):
    """What ostrel's to_dict gives for a message, computed from libprotobuf's parse of it."""
    out = {}
    for field, value in message.ListFields():
        if field.message_type is not None and field.message_type.GetOptions().map_entry:
            value_field = field.message_type.fields_by_name["value"]
            out[field.name] = {k: _value(value_field, v) for k, v in value.items()}
        elif field.label == F.LABEL_REPEATED:
            out[field.name] = [_value(field, v) for v in value]
        else:
            out[field.name] = _value(field, value)
    return out
