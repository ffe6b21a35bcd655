"""Single records read by ostrel against libprotobuf's own parse of the same bytes: every field
type, nesting, repeated and map fields, oneofs, open enums; JSON and text format both ways."""

import json

from google.protobuf import json_format, text_format
from google.protobuf.descriptor import FieldDescriptor as F

from conftest import as_python, generate

PATHS = [
    "mid", "mid.leaf.id", "mid.leaf.label", "mid.leaves", "mid.leaves[1].codes", "mids",
    "mids[0].leaf", "mids[2].leaves[0].label", "scalars.f_double", "scalars.f_float",
    "scalars.f_uint64", "scalars.f_sint32", "scalars.f_enum", "scalars.f_bytes",
    "scalars.f_message.codes[1]", "repeats.r_sint64", "repeats.r_float[2]", "repeats.r_enum",
    "repeats.r_message[1].label", "counts", "leaves_by_id", "name", "number", "chosen.codes",
    "maybe", "color", "tail.note",
]


def expected_at(message, descriptor, path):
    """The value at `path` of as_python(message): None where absent, [] or {} for a repeated or
    map field named without an index that its message, present, does not hold."""
    value = message
    parts = path.split(".")
    for i, part in enumerate(parts):
        name, _, index = part.partition("[")
        field = descriptor.fields_by_name[name]
        if value is None:
            return None
        value = value.get(name)
        if index:
            position = int(index[:-1])
            value = value[position] if value is not None and position < len(value) else None
        elif i == len(parts) - 1 and field.label == F.LABEL_REPEATED and value is None:
            entry = field.message_type
            return {} if entry is not None and entry.GetOptions().map_entry else []
        descriptor = field.message_type
    return value


def test_values_equal_protobufs(rich):
    schema, cls = rich
    for message in generate(cls, seed=1, count=150):
        record = message.SerializeToString()
        expected = as_python(message)
        assert schema.to_dict(record) == expected
        for path in PATHS:
            want = expected_at(expected, cls.DESCRIPTOR, path)
            assert schema.get(record, path) == want, path
            empty = [] if path not in ("counts", "leaves_by_id") else {}
            assert schema.has(record, path) == (want is not None and want != empty), path


def test_iterate_gives_the_elements_get_gives(rich):
    schema, cls = rich
    for message in generate(cls, seed=2, count=40):
        record = bytearray(message.SerializeToString())
        for path in ["mids", "repeats.r_double", "repeats.r_string", "mid.leaves", "repeats.r_bytes"]:
            assert list(schema.iterate(record, path)) == (schema.get(record, path) or [])
        entries = list(schema.iterate(record, "counts"))
        assert {e.get("key", ""): e.get("value", 0) for e in entries} == schema.get(record, "counts")


def test_exact_reads_merge_concatenated_records_as_protobuf_does(rich):
    schema, cls = rich
    messages = generate(cls, seed=3, count=80)
    for first, second in zip(messages[::2], messages[1::2]):
        record = first.SerializeToString() + second.SerializeToString()
        merged = cls.FromString(record)
        assert schema.to_dict(record, exact=True) == as_python(merged)
        assert schema.get(record, "mid.leaf", exact=True) == as_python(merged).get("mid", {}).get("leaf")


def test_json_both_ways_agrees_with_protobufs_json_format(rich):
    schema, cls = rich
    for message in generate(cls, seed=4, count=60):
        record = message.SerializeToString()
        assert json.loads(schema.to_json(record)) == json_format.MessageToDict(
            message, preserving_proto_field_name=True)
        assert json.loads(schema.to_json(record, json_names=True, print_defaults=True,
                                         enums_as_numbers=True)) == json_format.MessageToDict(
            message, including_default_value_fields=True, use_integers_for_enums=True)
        assert cls.FromString(schema.from_json(json_format.MessageToJson(message))) == message


def test_text_format_both_ways_agrees_with_protobufs(rich):
    schema, cls = rich
    for message in generate(cls, seed=5, count=40):
        record = message.SerializeToString()
        assert text_format.Parse(schema.to_text(record), cls()) == message
        assert cls.FromString(schema.from_text(text_format.MessageToString(message))) == message


def test_map_entries_lacking_key_or_value_read_as_protobuf_reads_them(rich):
    schema, cls = rich
    # counts (8): string -> int32; leaves_by_id (9): int32 -> Leaf. Entries written by hand.
    for record in [b"\x42\x03\x0a\x01a", b"\x42\x02\x10\x07", b"\x42\x00", b"\x4a\x02\x08\x05",
                   b"\x4a\x04\x12\x02\x08\x03", b"\x42\x05\x0a\x01a\x10\x01\x42\x05\x0a\x01a\x10\x02"]:
        assert schema.to_dict(record) == as_python(cls.FromString(record)), record
