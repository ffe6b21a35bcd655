// Edits given as typed values, the form the database surfaces hand over for binary arguments: each
// written as its field holds it, an encoded message checked to parse before it is written. The
// JSON and text forms are compared with libprotobuf in tests/differential.

#include "ostrel/edit/rewrite.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ostrel/core/errors.hpp"
#include "ostrel/store/schemas.hpp"
#include "proto2_record.pb.h"
#include "rich.pb.h"
#include "support/reflected_value.hpp"
#include "support/test_support.hpp"
#include "support/wire.hpp"

namespace ostrel {
namespace {

using testing_support::Wire;

std::string wire(const Wire& w) { return w.bytes(); }

TEST(RewriteTest, WritesTypedValuesAsTheirFieldsHoldThem) {
  SchemaStore store(testing_support::generatedManifest("rich.desc"));
  const MessageSchema scalars = store.messageSchema("ostrel.test.Scalars");
  const std::string record = wire(Wire().varintField(5, 1));
  const std::string leaf = wire(Wire().varintField(1, 3));
  const struct {
    std::string path;
    AnyValue value;
    std::string expected;
  } rows[] = {
      {"f_int32", AnyValue(int32_t{7}), wire(Wire().varintField(5, 7))},
      {"f_int32", AnyValue(int32_t{0}), ""},
      {"f_bytes", AnyValue(toBytes("hi")), record + wire(Wire().bytesField(12, "hi"))},
      {"f_message", AnyValue(toBytes(leaf)), record + wire(Wire().bytesField(19, leaf))},
      {"f_message", AnyValue(store.messageSchema("ostrel.test.Leaf").schematizedData(leaf)),
       record + wire(Wire().bytesField(19, leaf))},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.path + " " + row.expected);
    Rewrite rewrite(scalars);
    rewrite.set(row.path, row.value);
    EXPECT_EQ(toString(rewrite.apply(toBytes(record))), row.expected);
  }
  Rewrite broken(scalars);
  broken.set("f_message", AnyValue(toBytes("\xff")));
  EXPECT_THROW(broken.apply(toBytes(record)), SerializationError);
  // Text as a person types it: an enum by its number, a bool as 0 or as true.
  const std::string flagged = record + wire(Wire().varintField(8, 1));
  const struct {
    const char* path;
    const char* text;
    std::string expected;
  } texts[] = {
      {"f_enum", "7", flagged + wire(Wire().varintField(14, 7))},
      {"f_bool", "0", record},
      {"f_bool", "true", flagged},
  };
  for (const auto& row : texts) {
    Rewrite byText(scalars);
    byText.set(row.path, EditValue::text(row.text));
    EXPECT_EQ(toString(byText.apply(toBytes(flagged))), row.expected) << row.path;
  }
  // A text that closes its member and opens another sets no other field.
  Rewrite injected(scalars);
  injected.set("f_message", EditValue::text("null,\"f_bool\":true"));
  EXPECT_EQ(testing_support::catchError([&] { injected.apply(toBytes(record)); }),
            SchematizerError::unexpectedType("$.f_message: expected one value"));
  // A repeated field or a map within a path needs an index, and a map cannot be stepped through;
  // a whole repeated field is not one value.
  Rewrite rich(store.messageSchema("ostrel.test.Rich"));
  for (const char* path : {"mids.note", "leaves_by_id[1].id", "repeats.r_int32"}) {
    EXPECT_EQ(testing_support::catchError([&] {
                Rewrite one(store.messageSchema("ostrel.test.Rich"));
                one.set(path, AnyValue(int32_t{1}));
                one.apply(ByteView{});
              }),
              SchematizerError::repeatedValueAccessNoIndex())
        << path;
  }
  // Appending names a repeated field that is not a map, without an index or a key; clearing
  // takes no index but a map's key.
  for (const char* path : {"mids[0]", "counts", "counts[k]"}) {
    EXPECT_EQ(testing_support::catchError([&] { rich.append(path, AnyValue(int32_t{1})); }),
              SchematizerError::invalidIndexInKeypath())
        << path;
  }
  for (const char* path : {"mids[0]", "mid[\"k\"]"}) {
    EXPECT_EQ(testing_support::catchError([&] { rich.clear(path); }),
              SchematizerError::invalidIndexInKeypath())
        << path;
  }
}

// An occurrence protobuf's parse does not take as its field's (another wire type, not a packed
// run of a repeated scalar; a map entry whose closed enum value is undeclared) is an unknown field
// to it, kept at the end of the canonical encoding.
TEST(RewriteTest, NormalizesOccurrencesProtobufKeepsAsUnknownAsLibprotobuf) {
  const SchemaStore rich(testing_support::generatedManifest("rich.desc"));
  DescriptorImportOptions groups;
  groups.groups = DescriptorImportOptions::Groups::read;
  const SchemaStore proto2(schemaManifestFromDescriptorSet(
      testing_support::readGenerated("proto2_record.desc"), groups));
  const auto entry = [](const char* key, uint64_t value) {
    return wire(Wire().bytesField(1, key).varintField(2, value));
  };
  const struct {
    const google::protobuf::Message* prototype;
    std::string bytes;
  } rows[] = {
      {&test::Scalars::default_instance(), wire(Wire().bytesField(5, "\x07").varintField(14, 1))},
      {&test::Scalars::default_instance(), wire(Wire().varintField(9, 3).fixed32Field(5, 4))},
      {&test::Repeats::default_instance(),
       wire(Wire().fixed32Field(5, 1).bytesField(5, "\x02\x03").varintField(5, 4))},
      {&test::Repeats::default_instance(),
       wire(Wire().varintField(7, 1).varintField(9, 2).varintField(19, 3))},
      {&proto2::Record::default_instance(),
       wire(Wire().bytesField(17, entry("a", 99)).bytesField(17, entry("b", 1)))},
  };
  for (const auto& row : rows) {
    const std::string& name = row.prototype->GetDescriptor()->full_name();
    SCOPED_TRACE(name);
    std::unique_ptr<google::protobuf::Message> message(row.prototype->New());
    EXPECT_TRUE(message->ParsePartialFromString(row.bytes));
    const SchemaStore& store = name.starts_with("ostrel.test.") ? rich : proto2;
    EXPECT_EQ(toString(normalizeRecord(store.messageSchema(name), toBytes(row.bytes))),
              testing_support::deterministic(*message));
  }
}

// Map keys of the zigzag types sort by their signed values, as libprotobuf's deterministic
// encoding writes them, and no two of them are taken for one.
TEST(RewriteTest, NormalizesZigzagMapKeysInSignedOrder) {
  const SchemaStore store(schemaManifestFromProtoText(
      "syntax = \"proto3\"; message M { map<sint64, int32> m = 1; map<sint32, int32> n = 2; }"));
  const auto entries = [](int field, std::initializer_list<int64_t> keys) {
    Wire out;
    for (const int64_t k : keys) {
      const uint64_t zigzag = (static_cast<uint64_t>(k) << 1) ^ static_cast<uint64_t>(k >> 63);
      out.bytesField(field, wire(Wire().varintField(1, zigzag).varintField(2, 1)));
    }
    return wire(out);
  };
  const std::string record = entries(1, {0, 7, -4, 3, -1}) + entries(2, {-1, 3, -4, 7, 0});
  EXPECT_EQ(toString(normalizeRecord(store.messageSchema("M"), toBytes(record))),
            entries(1, {-4, -1, 0, 3, 7}) + entries(2, {-4, -1, 0, 3, 7}));
}

// Unknown groups nest as far as protobuf's parse lets them, at the top and inside a message:
// one level more is refused.
TEST(RewriteTest, NormalizesUnknownGroupsNestedAsFarAsLibprotobufParses) {
  SchemaStore store(testing_support::generatedManifest("rich.desc"));
  const MessageSchema rich = store.messageSchema("ostrel.test.Rich");
  for (const bool inMid : {false, true}) {
    for (int levels = 97; levels <= 102; ++levels) {
      Wire groups;
      for (int i = 0; i < levels; ++i) groups.tag(900, Wire::startGroup);
      for (int i = 0; i < levels; ++i) groups.tag(900, Wire::endGroup);
      const std::string bytes =
          inMid ? Wire().bytesField(1, groups.bytes()).bytes() : groups.bytes();
      SCOPED_TRACE(std::to_string(levels) + (inMid ? " in mid" : ""));
      if (test::Rich().ParseFromString(bytes)) {
        EXPECT_EQ(normalizeRecord(rich, toBytes(bytes)), toBytes(bytes));
      } else {
        EXPECT_EQ(testing_support::catchError([&] { normalizeRecord(rich, toBytes(bytes)); }),
                  SchematizerError::protocolBufferError("Nesting deeper than 100 messages"));
      }
    }
  }
}

// A map entry is a message of its own, as protobuf's parse counts them: 50 levels of a map whose
// values are maps are a hundred messages.
TEST(RewriteTest, NestsAtMostAHundredMessagesCountingMapEntries) {
  SchemaStore store(schemaManifestFromProtoText(
      "syntax = \"proto3\"; package p; message N { map<int32, N> m = 1; }"));
  const MessageSchema schema = store.messageSchema("p.N");
  // The innermost entry holds a value (an empty N), or only its key: written with its value.
  for (const bool keyOnly : {false, true}) {
    std::string full = wire(Wire().bytesField(1, wire(Wire().varintField(1, 1).bytesField(2, ""))));
    std::string record =
        keyOnly ? wire(Wire().bytesField(1, wire(Wire().varintField(1, 1)))) : full;
    for (int level = 1; level <= 51; ++level) {
      SCOPED_TRACE(std::to_string(level) + (keyOnly ? " key only" : ""));
      if (level < 50) {
        EXPECT_EQ(normalizeRecord(schema, toBytes(record)), toBytes(full));
      } else {
        EXPECT_EQ(testing_support::catchError([&] { normalizeRecord(schema, toBytes(record)); }),
                  SchematizerError::protocolBufferError("Nesting deeper than 100 messages"));
      }
      full = wire(Wire().bytesField(1, wire(Wire().varintField(1, 1).bytesField(2, full))));
      record = wire(Wire().bytesField(1, wire(Wire().varintField(1, 1).bytesField(2, record))));
    }
  }
  // A map of scalars below 49 levels of maps: its entries are the 100th message, or (one plain
  // message deeper) the 101st.
  SchemaStore leaves(schemaManifestFromProtoText(
      "syntax = \"proto3\"; message L { map<int32, L> m = 1; map<int32, int32> s = 2; L c = 3; }"));
  for (const bool deeper : {false, true}) {
    std::string record =
        wire(Wire().bytesField(2, wire(Wire().varintField(1, 1).varintField(2, 1))));
    if (deeper) record = wire(Wire().bytesField(3, record));
    for (int level = 0; level < 49; ++level) {
      record = wire(Wire().bytesField(1, wire(Wire().varintField(1, 1).bytesField(2, record))));
    }
    const auto normalized = [&] {
      return normalizeRecord(leaves.messageSchema("L"), toBytes(record));
    };
    if (deeper) {
      EXPECT_EQ(testing_support::catchError(normalized),
                SchematizerError::protocolBufferError("Nesting deeper than 100 messages"));
    } else {
      EXPECT_EQ(normalized(), toBytes(record));
    }
  }
}

}  // namespace
}  // namespace ostrel
