// Inputs built to exhaust the stack, spin or read out of bounds: groups nested 100,000 deep,
// messages nested 10,000 deep, length prefixes far beyond the buffer. Each is read on a thread
// with a small stack, within a time bound, and malformed bytes end in a thrown error.

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "ostrel/ostrel.hpp"
#include "ostrel/wire/schematizer.hpp"
#include "reliability/reliability_support.hpp"
#include "support/test_support.hpp"
#include "wire/field_path.hpp"
#include "wire/field_walk.hpp"

namespace ostrel {
namespace {

using testing_support::catchError;
using testing_support::onSmallStack;
using testing_support::readGenerated;
using testing_support::secondsFor;
using testing_support::Wire;

// Generous: each of these takes milliseconds, but sanitizers and a loaded machine slow it down.
constexpr double kSecondsAllowed = 20;

MessageSchema richSchema(const SchemaStore& store) {
  return store.messageSchema("ostrel.test.Rich");
}

SchemaStore richStore() {
  return SchemaStore(schemaManifestFromDescriptorSet(asBytes(readGenerated("rich.desc"))));
}

// t.Node nests itself through `child` and `children`.
SchemaStore nodeStore() {
  SchemaManifest manifest;
  MessageManifest& node = manifest.messages["t.Node"];
  node.fields["child"] = {.type = TypeManifest::message, .typeName = "t.Node", .fieldNumber = 1};
  node.fields["value"] = {.type = TypeManifest::int32, .fieldNumber = 2};
  node.fields["children"] = {
      .type = TypeManifest::message, .typeName = "t.Node", .fieldNumber = 3, .isRepeated = true};
  return SchemaStore(manifest);
}

// `depth` t.Node messages, each the `child` of the one before, the innermost holding value 7.
// Built back to front so that the cost stays linear in the depth.
std::string nestedNodes(int depth) {
  std::string reversed;
  const auto prepend = [&](const std::string& bytes) {
    reversed.append(bytes.rbegin(), bytes.rend());
  };
  prepend(Wire().varintField(2, 7).bytes());
  for (int level = 1; level < depth; ++level) {
    prepend(Wire().tag(1, Wire::lengthDelimited).varint(reversed.size()).bytes());
  }
  return std::string(reversed.rbegin(), reversed.rend());
}

std::string repeated(std::string_view unit, int count) {
  std::string out;
  out.reserve(unit.size() * static_cast<size_t>(count));
  for (int i = 0; i < count; ++i) out += unit;
  return out;
}

bool isSerializationError(const testing_support::CaughtError& caught) {
  if (!caught.error) return false;
  try {
    std::rethrow_exception(caught.error);
  } catch (const SerializationError&) {
    return true;
  } catch (...) {
    return false;
  }
}

constexpr int kGroups = 100'000;

// Unknown group 50 opened `kGroups` times and closed as often, then Rich's color = GREEN.
std::string deepGroupThenColor() {
  const std::string open = Wire().tag(50, Wire::startGroup).bytes();
  const std::string close = Wire().tag(50, Wire::endGroup).bytes();
  return repeated(open, kGroups) + repeated(close, kGroups) + Wire().varintField(11, 2).bytes();
}

TEST(ReliabilityBoundsTest, HundredThousandNestedGroupsAreSteppedOver) {
  const SchemaStore store = richStore();
  const MessageSchema rich = richSchema(store);
  const SchematizedData data = rich.schematizedData(deepGroupThenColor());
  const TypeSchema color = rich.fieldNamed("color").type();

  const double seconds = secondsFor([&] {
    onSmallStack([&] {
      ASSERT_TRUE(data.value("color"));
      EXPECT_EQ(data.value("color")->enumValue().name(), "GREEN");
      EXPECT_EQ(Schematizer::value(data.bytes(), 11, color)->enumValue().number(), 2);
      EXPECT_EQ(toJSON(data), R"({"color":"GREEN"})");
      Schematizer::RepeatableFieldIterator mids(data.bytes(), 4, rich.fieldNamed("mids").type());
      EXPECT_EQ(mids.next(), std::nullopt);
      int fields = 0;
      forEachPresentField(data.unsafe(), [&](const auto&, detail::AnyValueImpl&&) { ++fields; });
      EXPECT_EQ(fields, 1);
    });
  });
  EXPECT_LT(seconds, kSecondsAllowed);
}

TEST(ReliabilityBoundsTest, HundredThousandNestedGroupsInsideANestedMessage) {
  const SchemaStore store = richStore();
  const MessageSchema rich = richSchema(store);
  // mid { <deep group> note: "n" }
  const std::string mid = deepGroupThenColor() + Wire().bytesField(3, "n").bytes();
  const SchematizedData data = rich.schematizedData(Wire().bytesField(1, mid).bytes());
  onSmallStack([&] {
    EXPECT_EQ(data.value("mid.note"), AnyValue("n"));
    EXPECT_EQ(toJSON(data), R"({"mid":{"note":"n"}})");
  });
}

TEST(ReliabilityBoundsTest, UnclosedOrMismatchedDeepGroupsAreMalformed) {
  const SchemaStore store = richStore();
  const MessageSchema rich = richSchema(store);
  const std::string open = repeated(Wire().tag(50, Wire::startGroup).bytes(), kGroups);
  const std::string closeOther = repeated(Wire().tag(51, Wire::endGroup).bytes(), kGroups);
  for (const std::string& bytes : {open, open + closeOther}) {
    const SchematizedData data = rich.schematizedData(bytes + Wire().varintField(11, 2).bytes());
    onSmallStack([&] {
      EXPECT_TRUE(isSerializationError(catchError([&] { data.value("color"); })));
      const std::string json = toJSON(data);
      EXPECT_NE(json.find("<unreadable>"), std::string::npos) << json.substr(0, 200);
    });
  }
}

constexpr int kNodes = 10'000;

TEST(ReliabilityBoundsTest, TenThousandNestedMessagesReadThroughALongPath) {
  const SchemaStore store = nodeStore();
  const MessageSchema node = store.messageSchema("t.Node");
  const SchematizedData data = node.schematizedData(nestedNodes(kNodes));
  const std::string path = repeated("child.", kNodes - 1) + "value";
  std::vector<int64_t> chain(kNodes - 1, 1);
  chain.push_back(2);
  const TypeSchema int32Type(TypeSchemaDescription::scalar(TypeSchema::Case::int32));

  const double seconds = secondsFor([&] {
    onSmallStack([&] {
      EXPECT_EQ(PropertyPathUtil::parse(path).size(), static_cast<size_t>(kNodes));
      const FieldPathAndType resolved = resolvePropertyPath(node, path);
      EXPECT_EQ(resolved.fieldPath.size(), static_cast<size_t>(kNodes));
      EXPECT_EQ(data.value(resolved), AnyValue(int32_t{7}));
      EXPECT_EQ(data.value(path), AnyValue(int32_t{7}));
      EXPECT_EQ(Schematizer::value(data.bytes(), chain, int32Type), AnyValue(int32_t{7}));
      // One level short of the value: the innermost message, which holds only the value.
      const std::string inner = repeated("child.", kNodes - 2) + "child";
      EXPECT_EQ(data.value(inner)->messageValue().value("value"), AnyValue(int32_t{7}));
    });
  });
  EXPECT_LT(seconds, kSecondsAllowed);
}

TEST(ReliabilityBoundsTest, TenThousandNestedMessagesReadThroughAProjection) {
  const SchemaStore store = nodeStore();
  const MessageSchema node = store.messageSchema("t.Node");
  const std::string bytes = nestedNodes(kNodes);
  // The deep paths and a shallow one at once; a deep path that stops one level short of the value
  // reads the innermost message, and one that goes a level too far reads nothing.
  const std::vector<std::string> paths = {
      repeated("child.", kNodes - 1) + "value", repeated("child.", kNodes - 1) + "child",
      repeated("child.", kNodes) + "value", "value", "child.child.value"};
  const SchematizedData data = node.schematizedData(bytes);
  onSmallStack([&] {
    const Projection projection(node, paths);
    ProjectionRow row = projection.makeRow();
    projection.read(asBytes(bytes), row);
    for (size_t i = 0; i < paths.size(); ++i) {
      SCOPED_TRACE(i);
      EXPECT_EQ(row.value(i), data.value(paths[i]));
    }
    EXPECT_EQ(row.int32Value(0), 7);
    EXPECT_EQ(row.state(1), ProjectionRow::State::absent);
    // Cut short: the deep path fails as its single read does; the shallow ones are untouched.
    const std::string cut = bytes.substr(0, bytes.size() - 1);
    projection.read(asBytes(cut), row);
    const SchematizedData cutData = node.schematizedData(cut);
    EXPECT_EQ(catchError([&] { row.value(0); }).description,
              catchError([&] { cutData.value(paths[0]); }).description);
    EXPECT_EQ(row.state(0), ProjectionRow::State::failed);
    EXPECT_EQ(row.state(3), ProjectionRow::State::absent);
  });
}

TEST(ReliabilityBoundsTest, TenThousandNestedMessagesRenderToABoundedDepth) {
  const SchemaStore store = nodeStore();
  const MessageSchema node = store.messageSchema("t.Node");
  const SchematizedData data = node.schematizedData(nestedNodes(kNodes));
  onSmallStack([&] {
    const std::string json = toJSON(data);
    EXPECT_EQ(static_cast<size_t>(std::count(json.begin(), json.end(), '{')), 100u);
    EXPECT_NE(json.find("Nesting deeper than 100 messages"), std::string::npos);
    int visited = 0;
    forEachPresentField(data.unsafe(), [&](const auto&, detail::AnyValueImpl&&) { ++visited; });
    EXPECT_EQ(visited, 1);
  });
}

TEST(ReliabilityBoundsTest, TenThousandNestedObjectsAreRefusedByTheEncoder) {
  const SchemaStore store = nodeStore();
  const MessageSchema node = store.messageSchema("t.Node");
  const std::string json = repeated(R"({"child":)", kNodes) + "{}" + repeated("}", kNodes);
  // Refused while parsing, where the text passes the deepest a message can nest.
  const std::string where = "$" + repeated(".child", 201);
  onSmallStack([&] {
    EXPECT_EQ(catchError([&] { encodeJSON(node, json); }),
              SchematizerError::unexpectedType(where + ": nesting deeper than 201 levels"));
  });
}

TEST(ReliabilityBoundsTest, DeeplyNestedJsonIsRefusedByTheManifestReader) {
  const std::string arrays = repeated("[", kNodes) + repeated("]", kNodes);
  const std::string objects = repeated(R"({"messages":)", kNodes) + "{}" + repeated("}", kNodes);
  onSmallStack([&] {
    for (const std::string& json : {arrays, objects}) {
      const auto caught = catchError([&] { schemaManifestFromJSON(json); });
      EXPECT_NE(caught.description.find("SchemaManifestJSONError"), std::string::npos)
          << caught.description;
    }
  });
}

// A chain of 100,000 message types, each materialised (the store holds them all, each field its
// target): releasing the store must not free the chain link by link from inside destructors.
TEST(ReliabilityBoundsTest, HundredThousandChainedSchemasAreReleasedOnASmallStack) {
  constexpr int kTypes = 100'000;
  SchemaManifest manifest;
  for (int i = 0; i < kTypes; ++i) {
    MessageManifest& message = manifest.messages["c.M" + std::to_string(i)];
    if (i + 1 < kTypes) {
      message.fields["next"] = {.type = TypeManifest::message,
                                .typeName = "c.M" + std::to_string(i + 1),
                                .fieldNumber = 1};
    }
  }
  std::optional<SchemaStore> store(std::in_place, manifest);
  int reached = 0;
  for (std::optional<MessageSchema> message = store->messageSchema("c.M0"); message;) {
    ++reached;
    const std::map<int64_t, FieldSchema> fields = message->fieldsByNumber();
    message = fields.empty() ? std::nullopt : fields.begin()->second.type().messageSchema();
  }
  EXPECT_EQ(reached, kTypes);
  onSmallStack([&] { store.reset(); });
}

// A length prefix that claims far more than the buffer holds, read along a path.
struct HugeLengthRow {
  std::string name;
  std::string bytes;
  std::string path;
  // What the path reads when the oversized payload is only passed through: navigation enters a
  // nested message or packed run without measuring it against the buffer and reads what is there
  // (every access stays inside the buffer). No value: the path needs the oversized payload itself,
  // and the read fails with a SerializationError.
  std::optional<AnyValue> passedThrough;
};

// `fields` nested in one another with exact lengths, except the innermost, which claims `length`
// and is followed by the four bytes 08 01 10 02 (fields 1 = 1 and 2 = 2 when read as a message).
std::string withLength(const std::vector<int64_t>& fields, uint64_t length) {
  std::string inner = Wire()
                          .tag(fields.back(), Wire::lengthDelimited)
                          .varint(length)
                          .raw("\x08\x01\x10\x02")
                          .bytes();
  for (auto it = fields.rbegin() + 1; it != fields.rend(); ++it) {
    inner = Wire().bytesField(*it, inner).bytes();
  }
  return inner;
}

TEST(ReliabilityBoundsTest, HugeLengthPrefixesAreMalformed) {
  const SchemaStore store = richStore();
  const MessageSchema rich = richSchema(store);
  const std::vector<HugeLengthRow> rows = {
      {"message 0x7fffffff", withLength({1}, 0x7fffffff), "mid", std::nullopt},
      {"message searched past the buffer", withLength({1}, 0x7fffffff), "mid.note", std::nullopt},
      {"message 0x80000000 (negative)", withLength({1}, 0x80000000), "mid.leaf.id", std::nullopt},
      {"message 0xffffffff", withLength({1}, 0xffffffff), "mid.note", std::nullopt},
      {"message 2^64-1", withLength({1}, ~uint64_t{0}), "mid.note", std::nullopt},
      {"nested message 0x7fffffff", withLength({1, 1}, 0x7fffffff), "mid.leaf", std::nullopt},
      {"nested message passed through", withLength({1, 1}, 0x7fffffff), "mid.leaf.id",
       AnyValue(int32_t{1})},
      {"string 0x7fffffff", withLength({2, 9}, 0x7fffffff), "scalars.f_string", std::nullopt},
      {"bytes 0x7ffffffe", withLength({2, 12}, 0x7ffffffe), "scalars.f_bytes", std::nullopt},
      {"packed run 0x7fffffff", withLength({3, 5}, 0x7fffffff), "repeats.r_int32[0]",
       AnyValue(int32_t{8})},
      {"packed run read past the buffer", withLength({3, 5}, 0x7fffffff), "repeats.r_int32[4]",
       std::nullopt},
      {"map entry 0x7fffffff", withLength({8}, 0x7fffffff), "counts[0]", std::nullopt},
      {"map entry passed through", withLength({8}, 0x7fffffff), "counts[0].value",
       AnyValue(int32_t{2})},
  };
  for (const HugeLengthRow& row : rows) {
    SCOPED_TRACE(row.name);
    const SchematizedData data = rich.schematizedData(row.bytes);
    const double seconds = secondsFor([&] {
      onSmallStack([&] {
        // Traces are kept per thread: the row is named in each message instead.
        if (row.passedThrough) {
          EXPECT_EQ(data.value(row.path), row.passedThrough) << row.name;
        } else {
          const auto caught = catchError([&] { data.value(row.path); });
          EXPECT_TRUE(isSerializationError(caught)) << row.name << ": " << caught.description;
        }
        const std::string json = toJSON(data);
        EXPECT_NE(json.find("Sch: Error encoding"), std::string::npos) << row.name << ": " << json;
        // The repeated fields of the outer message go through the iterator and forEachValue.
        for (const auto& entry : rich.fieldsByNumber()) {
          const FieldSchema& field = entry.second;
          if (!field.isRepeated()) continue;
          Schematizer::RepeatableFieldIterator iterator(data.bytes(), entry.first, field.type());
          int64_t steps = 0;
          catchError([&] {
            while (iterator.next()) ASSERT_LT(++steps, 10);
          });
          Reader reader(data.bytes());
          catchError([&] { forEachValue(reader, *field.impl(), [](detail::AnyValueImpl&&) {}); });
        }
      });
    });
    EXPECT_LT(seconds, kSecondsAllowed);
  }
}

TEST(ReliabilityBoundsTest, HugeLengthPrefixesInADescriptorSetAreMalformed) {
  // FileDescriptorSet.file, then FileDescriptorProto.message_type, then DescriptorProto.field.
  for (const std::vector<int64_t>& fields :
       {std::vector<int64_t>{1}, std::vector<int64_t>{1, 4}, std::vector<int64_t>{1, 4, 2}}) {
    for (const uint64_t length : {uint64_t{0x7fffffff}, uint64_t{0xffffffff}}) {
      SCOPED_TRACE(std::to_string(fields.size()) + " levels, length " + std::to_string(length));
      const std::string set = withLength(fields, length);
      const auto caught = catchError([&] { schemaManifestFromDescriptorSet(asBytes(set)); });
      EXPECT_TRUE(isSerializationError(caught)) << caught.description;
    }
  }
}

}  // namespace
}  // namespace ostrel
