// Inputs built to exhaust the stack, spin or read out of bounds: groups nested 100,000 deep,
// messages nested 10,000 deep, length prefixes far beyond the buffer. Each is read on a thread
// with a small stack, within a time bound, and malformed bytes end in a thrown error.

#include <gtest/gtest.h>

#include <chrono>
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
using testing_support::repeated;
using testing_support::Wire;

// Runs `work` on a small stack, within a generous time bound: each of these takes milliseconds,
// but sanitizers and a loaded machine slow it down.
void bounded(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  testing_support::onSmallStack(work);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
}

SchemaStore richStore() { return SchemaStore(testing_support::generatedManifest("rich.desc")); }

bool isSerializationError(const testing_support::CaughtError& caught) {
  return caught.description.find("SerializationError") != std::string::npos;
}

int presentFields(const SchematizedData& data) {
  int fields = 0;
  forEachPresentField(data.unsafe(), [&](const auto&, detail::AnyValueImpl&&) { ++fields; });
  return fields;
}

TEST(ReliabilityBoundsTest, HundredThousandNestedGroupsAreSteppedOverOrMalformed) {
  constexpr int kGroups = 100'000;
  const SchemaStore store = richStore();
  const MessageSchema rich = store.messageSchema("ostrel.test.Rich");
  // Unknown group 50 opened and closed kGroups times, then color = GREEN; the same inside mid.
  const std::string open = repeated(Wire().tag(50, Wire::startGroup).bytes(), kGroups);
  const std::string groups = open + repeated(Wire().tag(50, Wire::endGroup).bytes(), kGroups);
  const std::string color = Wire().varintField(11, 2).bytes();
  const SchematizedData top = rich.schematizedData(groups + color);
  const SchematizedData nested = rich.schematizedData(
      Wire().bytesField(1, groups + Wire().bytesField(3, "n").bytes()).bytes());
  bounded([&] {
    EXPECT_EQ(top.value("color")->enumValue().name(), "GREEN");
    EXPECT_EQ(Schematizer::value(top.bytes(), 11, rich.fieldNamed("color").type()),
              top.value("color"));
    EXPECT_EQ(renderJSON(top), R"({"color":"GREEN"})");
    Schematizer::RepeatableFieldIterator mids(top.bytes(), 4, rich.fieldNamed("mids").type());
    EXPECT_EQ(mids.next(), std::nullopt);
    EXPECT_EQ(presentFields(top), 1);
    EXPECT_EQ(nested.value("mid.note"), AnyValue("n"));
    EXPECT_EQ(renderJSON(nested), R"({"mid":{"note":"n"}})");
  });
  // Left open, or closed by another group's end.
  const std::string closeOther = repeated(Wire().tag(51, Wire::endGroup).bytes(), kGroups);
  for (const std::string& bytes : {open, open + closeOther}) {
    const SchematizedData data = rich.schematizedData(bytes + color);
    bounded([&] {
      EXPECT_TRUE(isSerializationError(catchError([&] { data.value("color"); })));
      EXPECT_NE(renderJSON(data).find("<unreadable>"), std::string::npos);
    });
  }
}

constexpr int kNodes = 10'000;

// t.Node nests itself through `child` and `children`.
SchemaStore nodeStore() {
  return SchemaStore(schemaManifestFromProtoText(
      "syntax = \"proto3\"; package t;"
      "message Node { Node child = 1; int32 value = 2; repeated Node children = 3; }"));
}

// kNodes t.Node messages, each the `child` of the one before, the innermost holding value 7.
// Built back to front so that the cost stays linear in the depth.
std::string nestedNodes() {
  std::string reversed;
  const auto prepend = [&](const std::string& bytes) {
    reversed.append(bytes.rbegin(), bytes.rend());
  };
  prepend(Wire().varintField(2, 7).bytes());
  for (int level = 1; level < kNodes; ++level) {
    prepend(Wire().tag(1, Wire::lengthDelimited).varint(reversed.size()).bytes());
  }
  return std::string(reversed.rbegin(), reversed.rend());
}

TEST(ReliabilityBoundsTest, TenThousandNestedMessagesAreReadThroughPathsAndProjections) {
  const SchemaStore store = nodeStore();
  const MessageSchema node = store.messageSchema("t.Node");
  const std::string bytes = nestedNodes();
  const SchematizedData data = node.schematizedData(bytes);
  const std::string deep = repeated("child.", kNodes - 1);
  std::vector<int64_t> chain(kNodes - 1, 1);
  chain.push_back(2);
  // A deep path to the value, one that stops a level short (the innermost message), one that goes
  // a level too far (nothing), and shallow ones.
  const std::vector<std::string> paths = {deep + "value", repeated("child.", kNodes - 2) + "child",
                                          deep + "child.value", "value", "child.child.value"};
  bounded([&] {
    EXPECT_EQ(PropertyPathUtil::parse(paths[0]).size(), static_cast<size_t>(kNodes));
    const FieldPathAndType resolved = resolvePropertyPath(node, paths[0]);
    EXPECT_EQ(data.value(resolved), AnyValue(int32_t{7}));
    EXPECT_EQ(data.value(paths[0]), AnyValue(int32_t{7}));
    EXPECT_EQ(Schematizer::value(data.bytes(), chain, TypeSchema(resolved.type)),
              AnyValue(int32_t{7}));
    EXPECT_EQ(data.value(paths[1])->messageValue().value("value"), AnyValue(int32_t{7}));

    const Projection projection(node, paths);
    ProjectionRow row = projection.makeRow();
    projection.read(asBytes(bytes), row);
    for (size_t i = 0; i < paths.size(); ++i) EXPECT_EQ(row.value(i), data.value(paths[i])) << i;
    EXPECT_EQ(row.int32Value(0), 7);
    EXPECT_EQ(row.state(1), ProjectionRow::State::present);
    EXPECT_EQ(row.state(2), ProjectionRow::State::absent);
    // Cut short: the deep path fails as its single read does; the shallow ones are untouched.
    const std::string cut = bytes.substr(0, bytes.size() - 1);
    projection.read(asBytes(cut), row);
    const SchematizedData cutData = node.schematizedData(cut);
    EXPECT_EQ(catchError([&] { row.value(0); }).description,
              catchError([&] { cutData.value(paths[0]); }).description);
    EXPECT_EQ(row.state(3), ProjectionRow::State::absent);
    EXPECT_EQ(presentFields(data), 1);
  });
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr size_t kEncoderStack = size_t{512} << 10;
#else
constexpr size_t kEncoderStack = size_t{64} << 10;
#endif

// The manifest reader refuses such text; the encoder nests a few messages at most before it checks
// the whole text without recursion, so a 64 KiB stack is enough for it (a sanitizer's frames are
// several times larger: there it gets 512 KiB, some 50 bytes a level of the text).
TEST(ReliabilityBoundsTest, DeeplyNestedJsonIsRefusedByTheManifestReaderAndTheEncoder) {
  const std::string arrays = repeated("[", kNodes) + repeated("]", kNodes);
  const std::string objects = repeated(R"({"messages":)", kNodes) + "{}" + repeated("}", kNodes);
  bounded([&] {
    for (const std::string& manifest : {arrays, objects}) {
      EXPECT_NE(catchError([&] {
                  schemaManifestFromJSON(manifest);
                }).description.find("SchemaManifestJSONError"),
                std::string::npos);
    }
  });
  const SchemaStore store = nodeStore();
  const std::string nodes = repeated(R"({"child":)", kNodes) + "{}" + repeated("}", kNodes);
  testing_support::onSmallStack(
      [&] {
        EXPECT_NE(catchError([&] {
                    parseJSON(store.messageSchema("t.Node"), nodes);
                  }).description.find("nesting deeper than 201 levels"),
                  std::string::npos);
      },
      kEncoderStack);
}

// A chain of 100,000 message types, each materialised (the store holds them all, each field its
// target): releasing the store must not free the chain link by link from inside destructors.
TEST(ReliabilityBoundsTest, HundredThousandChainedSchemasAreReleasedOnASmallStack) {
  constexpr int kTypes = 100'000;
  SchemaManifest manifest;
  for (int i = 0; i + 1 < kTypes; ++i) {
    manifest.messages["c.M" + std::to_string(i)].fields["next"] = {
        .type = TypeManifest::message, .typeName = "c.M" + std::to_string(i + 1), .fieldNumber = 1};
  }
  manifest.messages["c.M" + std::to_string(kTypes - 1)];
  std::optional<SchemaStore> store(std::in_place, manifest);
  int reached = 0;
  for (std::optional<MessageSchema> message = store->messageSchema("c.M0"); message;) {
    ++reached;
    const std::map<int64_t, FieldSchema> fields = message->fieldsByNumber();
    message = fields.empty() ? std::nullopt : fields.begin()->second.type().messageSchema();
  }
  EXPECT_EQ(reached, kTypes);
  testing_support::onSmallStack([&] { store.reset(); });
}

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
  const MessageSchema rich = store.messageSchema("ostrel.test.Rich");
  // A path that needs the oversized payload itself fails with a SerializationError (no value);
  // one that only passes through it reads what is there, every access inside the buffer.
  const std::vector<std::tuple<std::string, std::string, std::optional<AnyValue>>> rows = {
      {withLength({1}, 0x7fffffff), "mid", std::nullopt},
      {withLength({1}, 0x7fffffff), "mid.note", std::nullopt},
      {withLength({1}, 0x80000000), "mid.leaf.id", std::nullopt},  // negative
      {withLength({1}, ~uint64_t{0}), "mid.note", std::nullopt},
      {withLength({1, 1}, 0x7fffffff), "mid.leaf.id", AnyValue(int32_t{1})},
      {withLength({2, 9}, 0x7fffffff), "scalars.f_string", std::nullopt},
      {withLength({2, 12}, 0x7ffffffe), "scalars.f_bytes", std::nullopt},
      {withLength({3, 5}, 0x7fffffff), "repeats.r_int32[0]", AnyValue(int32_t{8})},
      {withLength({3, 5}, 0x7fffffff), "repeats.r_int32[4]", std::nullopt},
      {withLength({8}, 0x7fffffff), "counts[0]", std::nullopt},
      {withLength({8}, 0x7fffffff), "counts[0].value", AnyValue(int32_t{2})},
  };
  for (const auto& [bytes, path, passedThrough] : rows) {
    const SchematizedData data = rich.schematizedData(bytes);
    bounded([&] {
      // Traces are kept per thread: the path is named in each message instead.
      if (passedThrough) {
        EXPECT_EQ(data.value(path), passedThrough) << path;
      } else {
        const auto caught = catchError([&] { data.value(path); });
        EXPECT_TRUE(isSerializationError(caught)) << path << ": " << caught.description;
      }
      EXPECT_NE(renderJSON(data).find("Sch: Error encoding"), std::string::npos) << path;
      // The repeated fields of the outer message go through the iterator and forEachValue.
      for (const auto& [number, field] : rich.fieldsByNumber()) {
        if (!field.isRepeated()) continue;
        Schematizer::RepeatableFieldIterator iterator(data.bytes(), number, field.type());
        int64_t steps = 0;
        catchError([&] {
          while (iterator.next()) ASSERT_LT(++steps, 10);
        });
        Reader reader(data.bytes());
        catchError([&] { forEachValue(reader, *field.impl(), [](detail::AnyValueImpl&&) {}); });
      }
    });
  }
  // In a descriptor set: FileDescriptorSet.file, then FileDescriptorProto.message_type, then
  // DescriptorProto.field.
  for (const auto& fields : std::vector<std::vector<int64_t>>{{1}, {1, 4}, {1, 4, 2}}) {
    for (const uint64_t length : {uint64_t{0x7fffffff}, uint64_t{0xffffffff}}) {
      const std::string set = withLength(fields, length);
      const auto caught = catchError([&] { schemaManifestFromDescriptorSet(asBytes(set)); });
      EXPECT_TRUE(isSerializationError(caught)) << caught.description;
    }
  }
}

}  // namespace
}  // namespace ostrel
