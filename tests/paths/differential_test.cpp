// Differential reads: seeded random messages built and serialized by libprotobuf, every leaf read
// back through the library by property path and every repeated field through the iterator, and
// compared with libprotobuf's own values.

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include "legacy.pb.h"
#include "ostrel/manifest/manifest_data.hpp"
#include "ostrel/store/schemas.hpp"
#include "ostrel/wire/schematizer.hpp"
#include "rich.pb.h"
#include "support/random_message.hpp"
#include "support/reflected_value.hpp"
#include "support/test_support.hpp"

namespace ostrel {
namespace {

namespace pb = google::protobuf;
using Field = pb::FieldDescriptor;

SchemaStore storeFrom(const std::string& descriptorSet) {
  std::ifstream in(std::string(OSTREL_TEST_GENERATED) + "/" + descriptorSet, std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  return SchemaStore(schemaManifestFromDescriptorSet(asBytes(bytes)));
}

// Whether `actual` is the value libprotobuf holds in `field` (element `index` when repeated); a
// nested message is compared as libprotobuf serializes it.
::testing::AssertionResult sameValue(const pb::Message& message, const Field* field, int index,
                                     const TypeSchema& type, const AnyValue& actual) {
  bool same;
  if (field->cpp_type() == Field::CPPTYPE_MESSAGE) {
    const auto* r = message.GetReflection();
    const pb::Message& v = field->is_repeated() ? r->GetRepeatedMessage(message, field, index)
                                                : r->GetMessage(message, field);
    same = actual.kind() == AnyValue::Case::message &&
           asText(actual.messageValue().bytes()) == v.SerializePartialAsString();
  } else {
    same = testing_support::sameValue(actual,
                                      testing_support::reflectedValue(message, field, index, type));
  }
  if (same) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure()
         << field->full_name() << "[" << index << "]: read " << actual.describe();
}

struct Counts {
  int leaves = 0;
  int iterated = 0;
};

// Checks every present field of `message` against `data` by property path, and every repeated
// field through the iterator, recursing into nested messages.
void checkMessage(const pb::Message& message, const SchematizedData& data, Counts& counts) {
  const auto* r = message.GetReflection();
  const auto* descriptor = message.GetDescriptor();
  for (int i = 0; i < descriptor->field_count(); ++i) {
    const Field* field = descriptor->field(i);
    const FieldSchema schema = data.messageSchema().fieldNamed(field->name());
    if (!field->is_repeated()) {
      const std::optional<AnyValue> value = data.value(field->name());
      ASSERT_EQ(value.has_value(), r->HasField(message, field)) << field->full_name();
      if (!value) continue;
      EXPECT_TRUE(sameValue(message, field, 0, schema.type(), *value));
      ++counts.leaves;
      if (field->cpp_type() == Field::CPPTYPE_MESSAGE) {
        checkMessage(r->GetMessage(message, field), value->messageValue(), counts);
      }
      continue;
    }
    const int size = r->FieldSize(message, field);
    if (!field->is_map()) {
      for (int n = 0; n < size; ++n) {
        const std::optional<AnyValue> value =
            data.value(field->name() + "[" + std::to_string(n) + "]");
        ASSERT_TRUE(value) << field->full_name() << "[" << n << "]";
        EXPECT_TRUE(sameValue(message, field, n, schema.type(), *value));
        ++counts.leaves;
        if (field->cpp_type() == Field::CPPTYPE_MESSAGE) {
          checkMessage(r->GetRepeatedMessage(message, field, n), value->messageValue(), counts);
        }
      }
      // Past the last element there is nothing, packed or not.
      EXPECT_FALSE(data.value(field->name() + "[" + std::to_string(size) + "]"));
    }
    // The iterator yields the same elements in the same order; map entries are compared as
    // encoded entries, in the order libprotobuf wrote them.
    Schematizer::RepeatableFieldIterator iterator(ByteView(data.bytes()), schema.fieldNumber(),
                                                  schema.type());
    int n = 0;
    std::vector<std::string> entries;
    for (const AnyValue& element : iterator) {
      if (field->is_map()) {
        entries.emplace_back(asText(element.messageValue().bytes()));
      } else {
        ASSERT_LT(n, size);
        EXPECT_TRUE(sameValue(message, field, n, schema.type(), element));
      }
      ++n;
      ++counts.iterated;
    }
    EXPECT_EQ(n, size) << field->full_name();
    if (field->is_map()) {
      std::vector<std::string> expected;
      for (int e = 0; e < size; ++e) {
        expected.push_back(r->GetRepeatedMessage(message, field, e).SerializePartialAsString());
      }
      std::sort(entries.begin(), entries.end());
      std::sort(expected.begin(), expected.end());
      EXPECT_EQ(entries, expected) << field->full_name();
    }
  }
}

TEST(DifferentialReadTest, RandomRichMessagesReadBackAsLibprotobufHoldsThem) {
  const SchemaStore store = storeFrom("rich.desc");
  const MessageSchema schema = store.messageSchema("ostrel.test.Rich");
  testing_support::RandomMessageFiller filler(20261122);
  Counts counts;
  const int messages = testing_support::generatedMessageCount(1500);
  for (int i = 0; i < messages; ++i) {
    test::Rich message;
    const std::string bytes = filler.fillParsed(message);
    const SchematizedData data = schema.schematizedData(bytes);
    SCOPED_TRACE("message " + std::to_string(i));
    checkMessage(message, data, counts);
    if (HasFatalFailure() || HasFailure()) {
      ADD_FAILURE() << message.DebugString();
      break;
    }
  }
  // The generator reaches deep into the schema: make sure the comparison had work to do.
  EXPECT_GT(counts.leaves, 30 * messages);
  EXPECT_GT(counts.iterated, 10 * messages);
}

TEST(DifferentialReadTest, UnpackedRepeatedFieldsOfProto2) {
  const SchemaStore store = storeFrom("legacy.desc");
  const MessageSchema schema = store.messageSchema("ostrel.legacy.Unpacked");
  testing_support::RandomMessageFiller filler(7);
  Counts counts;
  for (int i = 0; i < 300; ++i) {
    legacy::Unpacked message;
    filler.fill(message);
    checkMessage(message, schema.schematizedData(message.SerializeAsString()), counts);
  }
  EXPECT_GT(counts.iterated, 1000);
}

TEST(DifferentialReadTest, SplitRunsOfOneRepeatedFieldReadAsOneSequence) {
  // libprotobuf parses a packed run followed by unpacked elements of the same field as one list;
  // an index counts across both, and the iterator, fixed by the first occurrence, stays in the run.
  const SchemaStore store = storeFrom("legacy.desc");
  const MessageSchema schema = store.messageSchema("ostrel.legacy.Unpacked");
  const Bytes bytes = testing_support::bytesOf({0x08, 1, 0x08, 2, 0x0a, 2, 3, 4, 0x08, 5});
  legacy::Unpacked parsed;
  ASSERT_TRUE(parsed.ParseFromArray(bytes.data(), static_cast<int>(bytes.size())));
  ASSERT_EQ(parsed.r_int32_size(), 5);
  const SchematizedData data = schema.schematizedData(bytes);
  for (int n = 0; n < 4; ++n) {
    SCOPED_TRACE(n);
    EXPECT_EQ(data.value("r_int32[" + std::to_string(n) + "]"), AnyValue(parsed.r_int32(n)));
  }
}

}  // namespace
}  // namespace ostrel
