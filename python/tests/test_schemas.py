"""Loading schemas every way, the errors raised for hostile input, and lifetimes."""

import gc
import os
import pathlib
import random
import sys

import pytest

import ostrel


@pytest.fixture(scope="module")
def order1(examples):
    return open(os.path.join(examples, "order1.bin"), "rb").read()


def test_every_way_of_loading_gives_the_same_reads(examples, shop_desc, order1):
    proto = pathlib.Path(examples) / "shop.proto"
    stores = [
        ostrel.SchemaStore.from_descriptor_set(shop_desc),
        ostrel.SchemaStore.from_proto(proto.read_text()),
        ostrel.SchemaStore.from_proto(proto),
        ostrel.SchemaStore.from_proto([str(proto)], include=[examples]),
    ]
    manifest = '{"messages": {"t.M": {"fields": {"id": {"type": "uint", "fieldNumber": 1}}}}}'
    assert ostrel.SchemaStore.from_manifest(manifest).message("t.M").get(order1, "id") == 1001
    for store in stores:
        assert [n for n in store.message_names() if n.startswith("shop.")] == [
            "shop.Card", "shop.Customer", "shop.Item", "shop.Order", "shop.Order.AttributesEntry"]
        assert "shop.State" in store.enum_names() and "shop.Order" in store
        order = store.message("shop.Order")
        assert order.get(order1, "customer.name") == "Ada Lovelace"
        assert order.get(order1, "state") == "PAID"
        assert order.get(order1, "attributes") == {"channel": "web", "gift": "yes"}
        assert order.field_names[:3] == ["id", "customer", "items"]


def raised(call):
    with pytest.raises(ostrel.Error) as caught:
        call()
    return type(caught.value).__name__, caught.value.code, str(caught.value)


def test_errors_are_the_librarys_classes_and_texts(shop_desc, order1):
    store = ostrel.SchemaStore.from_descriptor_set(shop_desc)
    order = store.message("shop.Order")
    rows = [
        (lambda: store.message("shop.Nope"), "SchematizerError", "schemaNotFound"),
        (lambda: order.get(order1, "customer.nope"), "SchematizerError", "fieldNotFound"),
        (lambda: order.get(order1, "items.sku"), "SchematizerError", "repeatedValueAccessNoIndex"),
        (lambda: order.get(order1, "id[0]"), "SchematizerError", "scalarValueAccessWithIndex"),
        (lambda: order.get(order1, "items[0"), "PropertyPathError", "missingClosingBracket"),
        (lambda: order.get(order1, ""), "PropertyPathError", "zeroLengthPropertyPath"),
        (lambda: order.get(order1[:-3], "coupons[1]"), "SerializationError", "malformedProtobuf"),
        (lambda: order.get(b"\x12\x05\x08", "customer"), "SerializationError", "truncated"),
        (lambda: order.get(b"\x0a\x01", "id"), "SerializationError", "typeMismatch"),
        (lambda: order.to_json(b"\x0f", strict=True), "SerializationError", "malformedProtobuf"),
        (lambda: order.from_json('{"id": "x"}'), "SchematizerError", "unexpectedType"),
        (lambda: order.from_json('{"nope": 1}'), "SchematizerError", "fieldNotFound"),
        (lambda: order.from_text("id: x"), "SchematizerError", "unexpectedType"),
        (lambda: order.iterate(order1, "id"), "SchematizerError", "unexpectedType"),
        (lambda: ostrel.SchemaStore.from_descriptor_set(b"\x0a\x02\x12\x00\x0a"),
         "SerializationError", "malformedProtobuf"),
        (lambda: ostrel.SchemaStore.from_manifest("{"), "SchemaManifestJSONError",
         "invalidValueType"),
        (lambda: ostrel.SchemaStore.from_proto("message M { int32 a = 1 }"),
         "SchemaManifestJSONError", "invalidValueType"),
        (lambda: ostrel.SchemaStore.from_proto("syntax = \"proto2\"; message M { "
                                               "optional group G = 1 { } }"),
         "SchemaManifestDSCError", "invalidValueType"),
    ]
    for call, name, code in rows:
        kind, got_code, text = raised(call)
        assert (kind, got_code) == (name, code), text
    # The texts are the library's own.
    assert raised(lambda: store.message("shop.Nope"))[2] == "schemaNotFound: shop.Nope"
    assert raised(lambda: order.get(b"\x0a\x01", "id"))[2] == "typeMismatch(uint64, lengthDelimited)"
    assert raised(lambda: order.from_text("id: x"))[2] == "unexpectedType: 1:5: Expected integer, got: x"
    assert raised(lambda: order.get(order1, "items[0"))[2] == (
        "PropertyPathUtil Error: Missing closing bracket\n       \u21e9 Here\nitems[0")
    assert issubclass(ostrel.PropertyPathError, ostrel.Error)


def test_non_library_faults_are_pythons_own(shop_desc):
    store = ostrel.SchemaStore.from_descriptor_set(shop_desc)
    with pytest.raises(TypeError):
        store.message("shop.Order").get("a str is no record", "id")
    with pytest.raises(ValueError):
        ostrel.SchemaStore.from_descriptor_set(shop_desc, groups="maybe")
    with pytest.raises(ValueError):
        ostrel.SchemaStore.from_proto("message M {}", include=["x"])


def test_hostile_bytes_raise_only_library_errors(rich):
    schema, cls = rich
    from conftest import generate
    rng = random.Random(7)
    seeds = [m.SerializeToString() for m in generate(cls, seed=8, count=20)]
    outcomes = set()
    for _ in range(1500):
        record = bytearray(rng.choice(seeds))
        for _ in range(rng.randrange(1, 4)):
            if record:
                record[rng.randrange(len(record))] = rng.randrange(256)
        if rng.random() < 0.3:
            record = record[: rng.randrange(len(record) + 1)]
        for call in [lambda: schema.to_dict(record), lambda: schema.get(record, "mids[1].leaf"),
                     lambda: list(schema.iterate(record, "repeats.r_sint32")),
                     lambda: schema.to_json(record, strict=True), lambda: schema.to_json(record)]:
            try:
                call()
                outcomes.add("read")
            except ostrel.Error as error:
                outcomes.add(type(error).__name__)
    assert outcomes == {"read", "SerializationError", "SchematizerError"}
    for _ in range(300):
        junk = bytes(rng.randrange(256) for _ in range(rng.randrange(40)))
        try:
            ostrel.SchemaStore.from_descriptor_set(junk)
        except ostrel.Error:
            pass


def test_schemas_and_iterators_outlive_what_made_them(shop_desc, order1):
    schema = ostrel.SchemaStore.from_descriptor_set(shop_desc).message("shop.Order")
    record = bytearray(order1)
    elements = schema.iterate(record, "items")
    gc.collect()
    # The store is gone from Python; nested types still resolve through it.
    assert schema.get(record, "customer.name") == "Ada Lovelace"
    record[:] = b""  # the iterator reads its own copy; the bytearray can change again
    assert [item["sku"] for item in elements] == ["PEN-BLUE", "NOTEBOOK-A5", "INK-BLACK"]


def test_buffers_are_released_after_reads_and_errors(shop_desc, order1):
    schema = ostrel.SchemaStore.from_descriptor_set(shop_desc).message("shop.Order")
    record = bytearray(order1)
    before = sys.getrefcount(record)
    for _ in range(100):
        schema.get(record, "items")
        with pytest.raises(ostrel.Error):
            schema.get(record, "nope")
    assert sys.getrefcount(record) == before
    record.extend(b"\x50\x07")  # resizable again: no buffer export is left behind
    assert schema.get(record, "coupons", exact=True) == [5, 12, 7]
