// Projections and typed reads against the single read of each path on hand-encoded cases of first
// occurrences, packed runs and faults. Random messages, whole and damaged, are projected in the
// differential suite.

#include "ostrel/paths/projection.hpp"

#include <gtest/gtest.h>

#include <functional>

#include "ostrel/manifest/manifest_data.hpp"
#include "ostrel/paths/property_path.hpp"
#include "ostrel/store/schemas.hpp"
#include "ostrel/wire/schematizer.hpp"
#include "rich.pb.h"
#include "support/test_support.hpp"

namespace ostrel {
namespace {

using testing_support::bytesOf;

SchemaStore storeFrom(const std::string& descriptorSet) {
  return SchemaStore(testing_support::generatedManifest(descriptorSet));
}

// A read's answer as comparable text: "absent", the value (described, so that NaNs compare), or
// the error's type and text.
std::string outcome(const std::function<std::optional<AnyValue>()>& read) {
  try {
    const std::optional<AnyValue> value = read();
    return value ? value->describe() : "absent";
  } catch (const Error& e) {
    return std::string("error ") + typeid(e).name() + ": " + e.what();
  }
}

// What a read that throws `error` answers, as outcome() writes it.
template <typename E>
std::string thrown(const E& error) {
  return outcome([&]() -> std::optional<AnyValue> { throw error; });
}

// Hand-encoded records of ostrel.legacy.Unpacked (r_int32 = 1, r_sint64 = 2, r_fixed32 = 3,
// r_double = 4, r_bool = 5, single = 6) and ostrel.test.Rich.
struct Case {
  const char* name;
  Bytes bytes;
  // Per path: the single read's answer, as outcome() writes it.
  std::vector<std::pair<std::string, std::string>> answers;
  // What follows the record in memory, which the projection must not read.
  Bytes beyond = {};
};

TEST(ProjectionTest, HandEncodedRecordsAnswerAsTheSingleReads) {
  const SchemaStore legacyStore = storeFrom("legacy.desc");
  const SchemaStore richStore = storeFrom("rich.desc");
  const std::string malformed = thrown(SerializationError::malformedProtobuf());
  const std::string notAMessage = thrown(SchematizerError::protocolBufferError(
      "Unexpected PB type reading message: FieldTag(rawValue: 8)"));
  const auto notFixed32 = [](ProtoWireType wireType) {
    return thrown(SerializationError::typeMismatch(
        TypeSchemaDescription::scalar(TypeSchemaDescription::Case::fixed32), wireType));
  };
  const std::vector<Case> unpacked = {
      {"first occurrence wins",
       bytesOf({0x30, 5, 0x30, 7}),
       {{"single", "int32(5)"}, {"r_int32[0]", "absent"}}},
      {"unpacked elements then a packed run count as one sequence",
       bytesOf({0x08, 10, 0x0a, 2, 20, 30, 0x08, 40}),
       {{"r_int32[0]", "int32(10)"},
        {"r_int32[1]", "int32(20)"},
        {"r_int32[2]", "int32(30)"},
        {"r_int32[3]", "absent"}}},
      {"a fault after every answer is not met",
       bytesOf({0x30, 5, 0x08, 1, 0xff}),
       {{"single", "int32(5)"}, {"r_int32[0]", "int32(1)"}}},
      {"a fault before an answer fails only the paths still looking",
       bytesOf({0x30, 5, 0x08, 0xff}),
       {{"single", "int32(5)"}, {"r_int32[0]", malformed}, {"r_bool[0]", malformed}}},
      {"a wire type that does not fit fails its path alone",
       bytesOf({0x19, 1, 2, 3, 4, 5, 6, 7, 8, 0x30, 9}),
       {{"r_fixed32[0]", notFixed32(ProtoWireType::fixed64)}, {"single", "int32(9)"}}},
      {"a tag of field number 0 is malformed for every path still looking",
       bytesOf({0x30, 5, 0x00, 1, 0x08, 1}),
       {{"single", "int32(5)"}, {"r_int32[0]", malformed}}},
      {"so is a tag beyond 32 bits",
       bytesOf({0x30, 5, 0x80, 0x80, 0x80, 0x80, 0x10, 1, 0x08, 1}),
       {{"single", "int32(5)"}, {"r_int32[0]", malformed}}},
      {"an end-group tag of a field asked for fails it as a wire type and the others as malformed",
       bytesOf({0x1c, 0x30, 5}),
       {{"r_fixed32[0]", notFixed32(ProtoWireType::endGroup)}, {"single", malformed}}},
      {"a fixed-width value cut short by the buffer's end fails its path alone",
       bytesOf({0x30, 5, 0x21, 1, 2, 3}),
       {{"r_double[0]", thrown(SerializationError::truncated())},
        {"single", "int32(5)"},
        {"r_bool[0]", "absent"}}},
      {"a path asked twice gets the answer twice",
       bytesOf({0x30, 3}),
       {{"single", "int32(3)"}, {"single", "int32(3)"}}},
  };
  const std::vector<Case> rich = {
      {"a nested message split in two is entered at its first occurrence only",
       bytesOf({0x0a, 2, 0x1a, 0, 0x0a, 4, 0x0a, 2, 0x08, 9}),
       {{"mid.leaf.id", "absent"}, {"mid.note", "string(\"\")"}}},
      {"an intermediate field that is not a message fails the paths through it",
       bytesOf({0x08, 1, 0x58, 2}),
       {{"mid.note", notAMessage},
        {"mid.leaf.id", notAMessage},
        {"color", "enum(ostrel.test.Color(2))"}}},
      {"a repeated intermediate element that is not a message fails at any index",
       bytesOf({0x20, 1, 0x58, 1}),
       {{"mids[1].note",
         thrown(SchematizerError::protocolBufferError(
             "Element at intermediate path must have length delimited wire type (message)"))},
        {"color", "enum(ostrel.test.Color(1))"}}},
      {"a message running past the record's end is malformed there",
       bytesOf({0x0a, 5}),
       {{"mid.note", malformed}},
       bytesOf({0x25})},  // read as a tag, field 4 of 4 bytes would end the message
  };
  for (const auto& [schema, cases] :
       {std::pair(legacyStore.messageSchema("ostrel.legacy.Unpacked"), &unpacked),
        std::pair(richStore.messageSchema("ostrel.test.Rich"), &rich)}) {
    for (const Case& row : *cases) {
      SCOPED_TRACE(row.name);
      const SchematizedData data = schema.schematizedData(row.bytes);
      std::vector<std::string> paths;
      for (const auto& answer : row.answers) paths.push_back(answer.first);
      const Projection projection(schema, paths);
      ProjectionRow answers = projection.makeRow();
      Bytes buffer = row.bytes;
      buffer.insert(buffer.end(), row.beyond.begin(), row.beyond.end());
      projection.read(ByteView(buffer).first(row.bytes.size()), answers);
      for (size_t i = 0; i < paths.size(); ++i) {
        SCOPED_TRACE(paths[i]);
        // The expectation is the single read's, so that the table cannot drift from it.
        ASSERT_EQ(outcome([&] { return data.value(paths[i]); }), row.answers[i].second);
        EXPECT_EQ(outcome([&] { return answers.value(i); }), row.answers[i].second);
      }
    }
  }
}

// Fields are found by a table over the small numbers and by search above it; a field the
// projection does not ask for is passed over on either side of the table's end.
TEST(ProjectionTest, FieldsAskedForAreToldApartFromTheirNeighbours) {
  SchemaManifest manifest;
  for (const auto& [name, number] : std::vector<std::pair<std::string, int64_t>>{
           {"first", 1}, {"last_in", 1023}, {"first_out", 1024}, {"largest", 536870911}}) {
    manifest.messages["t.M"].fields[name] = {.type = TypeManifest::int32, .fieldNumber = number};
  }
  const SchemaStore store(manifest);
  // first_out = 9, last_in = 3, largest = 7, first = 5
  const Bytes bytes =
      bytesOf({0x80, 0x40, 9, 0xf8, 0x3f, 3, 0xf8, 0xff, 0xff, 0xff, 0x0f, 7, 0x08, 5});
  const Projection projection(store.messageSchema("t.M"), {"first", "largest"});
  ProjectionRow row = projection.makeRow();
  projection.read(bytes, row);
  EXPECT_EQ(row.int32Value(0), 5);
  EXPECT_EQ(row.int32Value(1), 7);
}

TEST(ProjectionTest, TypedAccessorsAndReadsRefuseAnotherKind) {
  using testing_support::catchError;
  const SchemaStore store = storeFrom("rich.desc");
  const MessageSchema schema = store.messageSchema("ostrel.test.Rich");
  test::Rich message;
  message.mutable_scalars()->set_f_sint64(-5);
  message.mutable_scalars()->set_f_string("text");
  message.set_color(test::BLUE);
  message.mutable_mid()->set_note("m");
  const Bytes bytes = toBytes(message.SerializeAsString());
  const Projection projection(schema, {"scalars.f_sint64", "scalars.f_string", "color", "mid"});
  ProjectionRow row = projection.makeRow();
  projection.read(bytes, row);
  EXPECT_EQ(row.int64Value(0), -5);
  EXPECT_EQ(row.enumNumber(2), 3);
  EXPECT_EQ(asText(*row.payload(1)), "text");
  EXPECT_EQ(toBytes(*row.payload(3)), toBytes(message.mid().SerializeAsString()));
  EXPECT_EQ(catchError([&] { row.payload(0); }),
            SchematizerError::unexpectedType("expected bytes value, found int64"));
  const auto wrongKind = SchematizerError::unexpectedType("expected int32 value, found int64");
  EXPECT_EQ(catchError([&] { row.int32Value(0); }), wrongKind);
  EXPECT_EQ(catchError([&] { readInt32(bytes, projection.path(0)); }), wrongKind);
  EXPECT_EQ(readInt64(bytes, projection.path(0)), -5);
  EXPECT_EQ(catchError([&] { readInt64(bytes, projection.path(2)); }),
            SchematizerError::unexpectedType("expected int64 value, found enum"));
  EXPECT_EQ(readEnumNumber(bytes, projection.path(2)), 3);
  // A row belongs to the projection that made it, even one over the same paths.
  const Projection other(schema, {"scalars.f_sint64", "scalars.f_string", "color", "mid"});
  EXPECT_EQ(catchError([&] { other.read(bytes, row); }),
            SchematizerError::internalError("a projection row read by another projection"));
  // Paths that do not resolve fail the projection.
  EXPECT_EQ(catchError([&] {
              Projection(schema, {"color", "mids.note"});
            }),
            SchematizerError::repeatedValueAccessNoIndex());
}

}  // namespace
}  // namespace ostrel
