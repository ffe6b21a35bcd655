// Messages built field by field through buildData, read back by libprotobuf.

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include "ostrel/manifest/manifest_data.hpp"
#include "ostrel/store/schemas.hpp"
#include "rich.pb.h"
#include "support/random_message.hpp"
#include "support/reflected_value.hpp"
#include "support/test_support.hpp"

namespace ostrel {
namespace {

using testing_support::catchError;

// The manifest of ostrel.test.Leaf, written by hand.
SchemaManifest leafManifest() {
  SchemaManifest manifest;
  MessageManifest& leaf = manifest.messages["ostrel.test.Leaf"];
  leaf.fields["id"] = {.type = TypeManifest::int32, .fieldNumber = 1};
  leaf.fields["label"] = {.type = TypeManifest::string, .fieldNumber = 2};
  leaf.fields["codes"] = {.type = TypeManifest::int32, .fieldNumber = 3, .isRepeated = true};
  return manifest;
}

TEST(BuildDataTest, WritesFieldsThatLibprotobufReadsBack) {
  SchemaStore store(leafManifest());
  const MessageSchema leaf = store.messageSchema("ostrel.test.Leaf");
  std::vector<std::string> asked;
  const SchematizedData data = leaf.buildData([&](const FieldSchema& field) {
    asked.push_back(field.name());
    if (field.name() == "id") return std::vector<AnyValue>{int32_t{-7}};
    if (field.name() == "label") return std::vector<AnyValue>{std::string("h\xC3\xA9llo")};
    return std::vector<AnyValue>{int32_t{1}, int32_t{300}, int32_t{-2}};
  });
  // Fields are asked for, and written, in name order.
  EXPECT_EQ(asked, (std::vector<std::string>{"codes", "id", "label"}));
  EXPECT_EQ(data.messageSchema(), leaf);

  test::Leaf parsed;
  ASSERT_TRUE(parsed.ParseFromArray(data.data().data(), static_cast<int>(data.data().size())));
  EXPECT_EQ(parsed.id(), -7);
  EXPECT_EQ(parsed.label(), "h\xC3\xA9llo");
  EXPECT_EQ(std::vector<int32_t>(parsed.codes().begin(), parsed.codes().end()),
            (std::vector<int32_t>{1, 300, -2}));
  EXPECT_EQ(data.value("label"), AnyValue("h\xC3\xA9llo"));
}

TEST(BuildDataTest, MismatchedIntegerStopsTheBuild) {
  SchemaStore store(leafManifest());
  const MessageSchema leaf = store.messageSchema("ostrel.test.Leaf");
  int asked = 0;
  const auto caught = catchError([&] {
    leaf.buildData([&](const FieldSchema&) {
      ++asked;
      return std::vector<AnyValue>{uint32_t{5}};
    });
  });
  EXPECT_EQ(caught, SerializationError::invalidIntType(
                        detail::AnyValueImpl::uint32(5),
                        TypeSchemaDescription::scalar(TypeSchemaDescription::Case::int32)));
  EXPECT_EQ(asked, 1);  // "codes" failed; "id" and "label" were never asked for
}

namespace pb = google::protobuf;

// The value libprotobuf holds in `field` (element `index` when repeated), as the AnyValue a caller
// of buildData hands over for a field of `type`: nested messages are built the same way.
SchematizedData buildFrom(const MessageSchema& schema, const pb::Message& message);

AnyValue valueFor(const TypeSchema& type, const pb::Message& message, const pb::FieldDescriptor* f,
                  int index) {
  if (f->cpp_type() != pb::FieldDescriptor::CPPTYPE_MESSAGE) {
    return testing_support::reflectedValue(message, f, index, type);
  }
  const auto* r = message.GetReflection();
  return buildFrom(*type.messageSchema(), f->is_repeated()
                                              ? r->GetRepeatedMessage(message, f, index)
                                              : r->GetMessage(message, f));
}

SchematizedData buildFrom(const MessageSchema& schema, const pb::Message& message) {
  return schema.buildData([&](const FieldSchema& field) {
    const auto* f =
        message.GetDescriptor()->FindFieldByNumber(static_cast<int>(field.fieldNumber()));
    std::vector<AnyValue> values;
    if (f == nullptr) {
      ADD_FAILURE() << "libprotobuf has no field " << field.name();
      return values;
    }
    const auto* r = message.GetReflection();
    const TypeSchema type = field.type();
    if (f->is_repeated()) {
      for (int i = 0; i < r->FieldSize(message, f); ++i)
        values.push_back(valueFor(type, message, f, i));
    } else if (r->HasField(message, f)) {
      values.push_back(valueFor(type, message, f, -1));
    }
    return values;
  });
}

TEST(BuildDataTest, RandomMessagesBuiltFromLibprotobufValuesParseBackEqual) {
  std::ifstream in(std::string(OSTREL_TEST_GENERATED) + "/rich.desc", std::ios::binary);
  const std::string set((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const SchemaStore store(schemaManifestFromDescriptorSet(asBytes(set)));
  const MessageSchema rich = store.messageSchema("ostrel.test.Rich");

  testing_support::MessageComparison comparison;
  testing_support::RandomMessageFiller filler(4242);
  const int messages = testing_support::generatedMessageCount(1000);
  size_t totalBytes = 0;
  for (int i = 0; i < messages; ++i) {
    test::Rich expected;
    filler.fillParsed(expected);
    const SchematizedData built = buildFrom(rich, expected);
    test::Rich parsed;
    ASSERT_TRUE(parsed.ParseFromArray(built.data().data(), static_cast<int>(built.data().size())))
        << "message " << i;
    // Field order and the unpacked form of repeated scalars differ from libprotobuf's own
    // encoding, so the messages are compared, not the bytes.
    ASSERT_TRUE(comparison.equal(expected, parsed))
        << "message " << i << ":\n"
        << comparison.differences() << expected.DebugString();
    totalBytes += built.data().size();
  }
  EXPECT_GT(totalBytes, static_cast<size_t>(messages) * 100);
}

}  // namespace
}  // namespace ostrel
