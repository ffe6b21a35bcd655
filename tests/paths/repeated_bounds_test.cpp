// Indices at and past the end of repeated fields of proto2 schemas, packed and not: for every index
// from 0 to length + 3, a read gives libprotobuf's element or nothing, and never bytes that are
// not the addressed element. Messages are built and serialized by libprotobuf.

#include <gtest/gtest.h>

#include <bit>
#include <fstream>
#include <iterator>

#include "ostrel/manifest/manifest_data.hpp"
#include "ostrel/store/schemas.hpp"
#include "ostrel/wire/schematizer.hpp"
#include "proto2_shapes.pb.h"
#include "support/random_message.hpp"
#include "support/test_support.hpp"

namespace ostrel {
namespace {

namespace pb = google::protobuf;
using Field = pb::FieldDescriptor;

SchemaStore proto2Store() {
  std::ifstream in(std::string(OSTREL_TEST_GENERATED) + "/proto2_shapes.desc", std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  DescriptorImportOptions options;
  options.skipGroups = true;
  options.groupSkipped = [](const std::string&) {};
  return SchemaStore(schemaManifestFromDescriptorSet(asBytes(bytes), options));
}

// One element as comparable text: its value case and its value (floating point by its bits, so
// that NaNs compare; enums by number).
std::string canonical(const AnyValue& value) {
  using Case = AnyValue::Case;
  const std::string kind(caseName(value.kind()));
  switch (value.kind()) {
    case Case::int32:
      return kind + ":" + std::to_string(value.int32Value());
    case Case::uint32:
      return kind + ":" + std::to_string(value.uint32Value());
    case Case::int64:
      return kind + ":" + std::to_string(value.int64Value());
    case Case::uint64:
      return kind + ":" + std::to_string(value.uint64Value());
    case Case::float_:
      return kind + ":" + std::to_string(std::bit_cast<uint32_t>(value.floatValue()));
    case Case::double_:
      return kind + ":" + std::to_string(std::bit_cast<uint64_t>(value.doubleValue()));
    case Case::bool_:
      return kind + ":" + std::to_string(value.boolValue());
    case Case::enum_:
      return kind + ":" + std::to_string(value.enumValue().number());
    case Case::string:
      return kind + ":" + value.stringValue();
    case Case::bytes:
      return kind + ":" + std::string(asText(value.bytesValue()));
    case Case::message:
      return kind + ":" + std::string(asText(value.messageValue().bytes()));
  }
  return kind;
}

// The elements of `field` in the order of `message`'s encoding, as canonical() writes them: the
// elements libprotobuf parsed, then, for a closed enum, the numbers it kept in the unknown fields
// (which it writes after the known fields).
std::vector<std::string> libprotobufElements(const pb::Message& message, const Field* field) {
  const auto* r = message.GetReflection();
  std::vector<std::string> out;
  for (int i = 0, n = r->FieldSize(message, field); i < n; ++i) {
    switch (field->cpp_type()) {
      case Field::CPPTYPE_INT32:
        out.push_back(canonical(AnyValue(r->GetRepeatedInt32(message, field, i))));
        break;
      case Field::CPPTYPE_UINT32:
        out.push_back(canonical(AnyValue(r->GetRepeatedUInt32(message, field, i))));
        break;
      case Field::CPPTYPE_INT64:
        out.push_back(canonical(AnyValue(r->GetRepeatedInt64(message, field, i))));
        break;
      case Field::CPPTYPE_UINT64:
        out.push_back(canonical(AnyValue(r->GetRepeatedUInt64(message, field, i))));
        break;
      case Field::CPPTYPE_FLOAT:
        out.push_back(canonical(AnyValue(r->GetRepeatedFloat(message, field, i))));
        break;
      case Field::CPPTYPE_DOUBLE:
        out.push_back(canonical(AnyValue(r->GetRepeatedDouble(message, field, i))));
        break;
      case Field::CPPTYPE_BOOL:
        out.push_back(canonical(AnyValue(r->GetRepeatedBool(message, field, i))));
        break;
      case Field::CPPTYPE_ENUM:
        out.push_back("enum:" + std::to_string(r->GetRepeatedEnumValue(message, field, i)));
        break;
      case Field::CPPTYPE_STRING:
        out.push_back((field->type() == Field::TYPE_BYTES ? "bytes:" : "string:") +
                      r->GetRepeatedString(message, field, i));
        break;
      case Field::CPPTYPE_MESSAGE:
        out.push_back("message:" +
                      r->GetRepeatedMessage(message, field, i).SerializePartialAsString());
        break;
    }
  }
  if (field->cpp_type() == Field::CPPTYPE_ENUM) {
    const pb::UnknownFieldSet& unknown = r->GetUnknownFields(message);
    for (int i = 0; i < unknown.field_count(); ++i) {
      const pb::UnknownField& kept = unknown.field(i);
      if (kept.number() == field->number() && kept.type() == pb::UnknownField::TYPE_VARINT) {
        out.push_back("enum:" + std::to_string(static_cast<int32_t>(kept.varint())));
      }
    }
  }
  return out;
}

struct Tally {
  int present = 0;
  int absent = 0;
};

// Checks every repeated field of the message encoded in `data` (at `prefix`, for the traces), whose
// parts (one message, or several concatenated) libprotobuf parsed as `parts`, at every index from 0
// to length + 3, and through the iterator. Every element read is libprotobuf's, at its index in
// encoding order, and after the first absent index all are absent. A packed run is read alone: past
// it there is nothing, even where libprotobuf finds more (a closed enum's unknown numbers after the
// run, or a later part), so only one message alone is held to every element it has.
void checkRepeatedFields(const std::vector<const pb::Message*>& parts, const SchematizedData& data,
                         const std::string& prefix, Tally& tally) {
  const pb::Descriptor* descriptor = parts.front()->GetDescriptor();
  for (int f = 0; f < descriptor->field_count(); ++f) {
    const Field* field = descriptor->field(f);
    if (!field->is_repeated() || field->type() == Field::TYPE_GROUP) continue;
    std::vector<std::string> expected;
    size_t readable = 0;
    for (const pb::Message* part : parts) {
      const std::vector<std::string> elements = libprotobufElements(*part, field);
      const size_t known = part->GetReflection()->FieldSize(*part, field);
      readable = field->is_packed() && known > 0 ? known : elements.size();
      expected.insert(expected.end(), elements.begin(), elements.end());
    }
    const std::string& name = field->name();
    const std::string path = prefix + name;
    bool ended = false;
    std::vector<std::string> read;
    for (size_t index = 0; index < expected.size() + 4; ++index) {
      SCOPED_TRACE(path + "[" + std::to_string(index) + "]");
      const std::optional<AnyValue> value = data.value(name + "[" + std::to_string(index) + "]");
      if (!value) {
        ended = true;
        ++tally.absent;
        continue;
      }
      ASSERT_FALSE(ended) << "an element after an absent index";
      ASSERT_LT(index, expected.size()) << "read " << value->describe() << " past the end";
      ASSERT_EQ(canonical(*value), expected[index]);
      read.push_back(expected[index]);
      ++tally.present;
    }
    // With several parts, a packed run met after tagged elements ends the iterator with
    // typeMismatch.
    if (parts.size() > 1) continue;
    EXPECT_EQ(read.size(), readable) << path;

    const FieldSchema schema = data.messageSchema().fieldNamed(field->name());
    Schematizer::RepeatableFieldIterator iterator(data.bytes(), schema.fieldNumber(),
                                                  schema.type());
    std::vector<std::string> iterated;
    for (const AnyValue& element : iterator) iterated.push_back(canonical(element));
    EXPECT_EQ(iterated, read) << path;

    if (field->cpp_type() == Field::CPPTYPE_MESSAGE) {
      const auto* r = parts.front()->GetReflection();
      for (int i = 0; i < r->FieldSize(*parts.front(), field); ++i) {
        const pb::Message& child = r->GetRepeatedMessage(*parts.front(), field, i);
        const std::string element = "[" + std::to_string(i) + "]";
        checkRepeatedFields({&child}, data.value(name + element)->messageValue(),
                            path + element + ".", tally);
      }
    }
  }
}

TEST(RepeatedBoundsTest, RandomMessagesGiveLibprotobufsElementOrNothing) {
  const SchemaStore store = proto2Store();
  const MessageSchema packed = store.messageSchema("ostrel.proto2.Packed");
  const MessageSchema legacy = store.messageSchema("ostrel.proto2.Legacy");
  testing_support::RandomMessageFiller filler(15);
  Tally tally;
  const int messages = testing_support::generatedMessageCount(400);
  for (int seed = 0; seed < messages; ++seed) {
    SCOPED_TRACE("message " + std::to_string(seed));
    // Packed: one message, then two concatenated (which libprotobuf parses as one, its repeated
    // fields joined).
    proto2::Packed a;
    proto2::Packed b;
    filler.fill(a);
    filler.fill(b);
    const std::string one = a.SerializeAsString();
    proto2::Packed parsedA;
    proto2::Packed parsedB;
    ASSERT_TRUE(parsedA.ParseFromString(one));
    ASSERT_TRUE(parsedB.ParseFromString(b.SerializeAsString()));
    checkRepeatedFields({&parsedA}, packed.schematizedData(one), "", tally);
    checkRepeatedFields({&parsedA, &parsedB}, packed.schematizedData(one + b.SerializeAsString()),
                        "", tally);
    // Legacy: groups (left out of the schema) between the repeated fields, and a packed extension.
    proto2::Legacy withGroups;
    filler.fill(withGroups);
    for (int n = seed % 4; n > 0; --n) withGroups.AddExtension(proto2::ext_values, seed * n - 7);
    const std::string legacyBytes = withGroups.SerializeAsString();
    proto2::Legacy parsed;
    ASSERT_TRUE(parsed.ParseFromString(legacyBytes));
    const SchematizedData data = legacy.schematizedData(legacyBytes);
    checkRepeatedFields({&parsed}, data, "", tally);
    for (int n = 0; n < parsed.ExtensionSize(proto2::ext_values) + 2; ++n) {
      const std::optional<AnyValue> value = data.value("ext_values[" + std::to_string(n) + "]");
      if (n < parsed.ExtensionSize(proto2::ext_values)) {
        EXPECT_EQ(value, AnyValue(parsed.GetExtension(proto2::ext_values, n)));
      } else {
        EXPECT_FALSE(value);
      }
    }
    if (HasFailure()) break;
  }
  // The generator fills enough for the comparison to have work on both sides of every end.
  EXPECT_GT(tally.present, 20 * messages);
  EXPECT_GT(tally.absent, 40 * messages);
}

}  // namespace
}  // namespace ostrel
