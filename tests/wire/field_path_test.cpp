// Navigation, iteration and first-of over hand-encoded bytes: the encodings libprotobuf never
// writes (split messages, mixed packed and unpacked runs, groups, malformed tags).

#include "wire/field_path.hpp"

#include <gtest/gtest.h>

#include "ostrel/manifest/manifest_data.hpp"
#include "ostrel/store/schemas.hpp"
#include "ostrel/wire/schematizer.hpp"
#include "support/test_support.hpp"
#include "wire/field_walk.hpp"

namespace ostrel {
namespace {

using testing_support::bytesOf;
using testing_support::catchError;
using Case = TypeSchemaDescription::Case;

TypeSchemaDescription scalar(Case kind) { return TypeSchemaDescription::scalar(kind); }

FieldPathComponent at(int64_t number) { return FieldPathComponent::fieldNumber(number); }
FieldPathComponent at(int64_t number, int64_t index) {
  return FieldPathComponent::repeatableFieldNumber(number, index);
}

// What a read answers: "absent", the value described, or the error's type and text.
std::string outcome(const Bytes& bytes, const std::vector<FieldPathComponent>& path, Case kind) {
  return catchError([&] {
           Reader reader(bytes);
           const auto value = readValue(reader, path, scalar(kind));
           throw std::runtime_error(value ? AnyValue::from(*value).describe() : "absent");
         })
      .description;
}
template <typename E>
std::string thrown(const E& error) {
  return catchError([&] { throw error; }).description;
}
std::string answer(const std::string& text) { return thrown(std::runtime_error(text)); }

TEST(FieldPathTest, ReadsTheValueAtAPathOrItsExactFault) {
  // Reads of what libprotobuf writes are compared with it in the differential suite, and the
  // faults a projection shares with the single read in the projection tests.
  const Bytes doubles =
      bytesOf({0x22, 16, 0, 0, 0, 0, 0, 0, 0xf8, 0x3f, 0, 0, 0, 0, 0, 0, 4, 0x40, 0x08, 1});
  const Bytes overRun = bytesOf({0x22, 2, 1, 0x96, 0x01, 0x08, 0x00});  // 150 runs over the end
  const Bytes one = bytesOf({0x08, 1});
  const std::string absent = answer("absent");
  const std::string malformed = thrown(SerializationError::malformedProtobuf());
  const std::string notAScalar =
      thrown(SerializationError::typeMismatch(scalar(Case::int32), ProtoWireType::lengthDelimited));
  const std::vector<std::tuple<Bytes, std::vector<FieldPathComponent>, Case, std::string>> rows = {
      // A field past the message's end is read when it is inside the buffer.
      {bytesOf({0x12, 1, 0x18, 7}), {at(2), at(3)}, Case::int32, answer("int32(7)")},
      // Field 4 as unpacked 10, 20, 30 and as packed [10, 20, 30]: no element at a negative index.
      {bytesOf({0x20, 10, 0x08, 1, 0x20, 20, 0x20, 30}), {at(4, -1)}, Case::int32, absent},
      {bytesOf({0x22, 3, 10, 20, 30, 0x08, 1}), {at(4, -1)}, Case::int32, absent},
      // Nothing after a run is taken for its elements.
      {bytesOf({0x22, 0, 0x08, 1}), {at(4, 0)}, Case::int32, absent},
      {bytesOf({0x22, 8, 1, 0, 0, 0, 2, 0, 0, 0}), {at(4, 9)}, Case::fixed32, absent},
      {doubles, {at(4, 2)}, Case::double_, absent},
      {one, {}, Case::int32, thrown(SchematizerError::protocolBufferError("invalid fieldPath"))},
      // A packed run where a single value is expected.
      {bytesOf({0x0a, 1, 1}), {at(1)}, Case::int32, notAScalar},
      {bytesOf({0x12, 0xff, 0xff, 0xff, 0xff, 0x0f}), {at(2), at(1)}, Case::int32, malformed},
      // Lengths of 2^32 and 2^32 + 2, which cut to 32 bits would read 7 and 9.
      {bytesOf({0x0a, 0x80, 0x80, 0x80, 0x80, 0x10, 0x10, 7}), {at(2)}, Case::int32, malformed},
      {bytesOf({0x12, 0x82, 0x80, 0x80, 0x80, 0x10, 0x18, 9}),
       {at(2), at(3)},
       Case::int32,
       malformed},
      {overRun, {at(4, 1)}, Case::int32, malformed},
      {overRun, {at(4, 2)}, Case::int32, malformed},
      {bytesOf({0x22, 6, 1, 0, 0, 0, 2, 0, 0, 0}), {at(4, 1)}, Case::fixed32, malformed},
      {bytesOf({0x0a, 5, 'a'}), {at(1)}, Case::string, thrown(SerializationError::truncated())},
  };
  for (size_t i = 0; i < rows.size(); ++i) {
    const auto& [bytes, path, type, expected] = rows[i];
    EXPECT_EQ(outcome(bytes, path, type), expected) << "row " << i;
  }
}

MessageSchema messageM() {
  static const SchemaStore store(schemaManifestFromProtoText(
      "syntax = \"proto2\"; package t; message M {"
      " repeated int32 r = 4; optional int32 single = 5; repeated double d = 6; }"));
  return store.messageSchema("t.M");
}
std::shared_ptr<FieldSchemaDescribing> field(const std::string& name) {
  return messageM().fieldNamed(name).impl();
}

// The int32 values visited; a failure is thrown after `seen` holds what was visited before it.
std::vector<int32_t> visitAll(const Bytes& bytes, const std::string& name,
                              std::vector<int32_t>* seen = nullptr) {
  std::vector<int32_t> local;
  std::vector<int32_t>& out = seen ? *seen : local;
  Reader reader(bytes);
  forEachValue(reader, *field(name),
               [&](detail::AnyValueImpl&& value) { out.push_back(value.int32Value()); });
  return out;
}

TEST(ForEachValueTest, VisitsEveryValueOfOneField) {
  using V = std::vector<int32_t>;
  EXPECT_EQ(visitAll(bytesOf({0x20, 1, 0x08, 9, 0x20, 2, 0x20, 3}), "r"), (V{1, 2, 3}));
  // Each packed run exactly to its end, then the walk goes on after it.
  EXPECT_EQ(visitAll(bytesOf({0x22, 3, 1, 2, 3, 0x08, 0x00, 0x20, 4}), "r"), (V{1, 2, 3, 4}));
  EXPECT_EQ(visitAll(bytesOf({0x22, 0, 0x22, 1, 0x7f}), "r"), V{127});
  EXPECT_EQ(visitAll(bytesOf({0x32, 0, 0x08, 1}), "d"), V{});
  EXPECT_EQ(visitAll(bytesOf({0x28, 1, 0x28, 2}), "single"), V{1});
  // Iterated exactly, an empty run among the elements is passed over.
  Schematizer::RepeatableFieldIterator exact(bytesOf({0x20, 1, 0x22, 0, 0x22, 1, 2}), 4,
                                             messageM().fieldNamed("r").type(), ReadMode::exact);
  for (const int32_t expected : {1, 2}) EXPECT_EQ(exact.next()->int32Value(), expected);
  EXPECT_FALSE(exact.next());
  // An element running over its run's end is malformed and is not visited.
  V seen;
  EXPECT_EQ(catchError([&] {
              visitAll(bytesOf({0x22, 2, 1, 0x96, 0x01, 0x08, 0x00}), "r", &seen);
            }),
            SerializationError::malformedProtobuf());
  EXPECT_EQ(seen, V{1});
}

TEST(ForEachPresentFieldTest, VisitsEachPackedElementWithinItsRun) {
  std::vector<std::string> seen;
  const auto visitAll = [&](const Bytes& bytes) {
    forEachPresentField(messageM().schematizedData(bytes).unsafe(),
                        [&](const auto& field, auto&& value) {
                          seen.push_back(field->name() + "=" + AnyValue::from(value).describe());
                        });
  };
  // Unknown field 7 is skipped.
  visitAll(bytesOf({0x22, 2, 1, 2, 0x28, 5, 0x38, 1, 0x20, 3}));
  EXPECT_EQ(seen, (std::vector<std::string>{"r=int32(1)", "r=int32(2)", "single=int32(5)",
                                            "r=int32(3)"}));
  seen.clear();
  EXPECT_EQ(catchError([&] {
              visitAll(bytesOf({0x22, 2, 1, 0x96, 0x01}));
            }),
            SerializationError::malformedProtobuf());
  EXPECT_EQ(seen, std::vector<std::string>{"r=int32(1)"});
}

std::vector<AnyValue> iterateAll(const Bytes& bytes) {
  Schematizer::RepeatableFieldIterator iterator(ByteView(bytes), 1,
                                                TypeSchema(scalar(Case::int32)));
  std::vector<AnyValue> values;
  for (const AnyValue& value : iterator) values.push_back(value);
  EXPECT_TRUE(iterator.isDone());
  EXPECT_FALSE(iterator.next());
  return values;
}

// Orders no encoder writes (the differential reads compare the rest with libprotobuf).
TEST(RepeatableFieldIteratorTest, IteratesTaggedElementsAndTheFirstRunOnly) {
  using V = std::vector<AnyValue>;
  EXPECT_EQ(iterateAll(bytesOf({0x08, 1, 0x10, 7, 0x08, 2, 0x1a, 0, 0x08, 3, 0x10, 8})),
            (V{int32_t{1}, int32_t{2}, int32_t{3}}));
  EXPECT_EQ(iterateAll(bytesOf({0x0a, 2, 1, 2, 0x08, 3})), (V{int32_t{1}, int32_t{2}}));
  // An empty run ends the iteration before the field that follows it.
  EXPECT_EQ(iterateAll(bytesOf({0x0a, 0, 0x08, 3})), V{});
}

TEST(RepeatableFieldIteratorTest, FailuresLeaveTheIteratorWhereItWas) {
  // A packed run after a tagged element; a run holding 1 and the first byte of 150, whose second
  // byte stands after the run, met through navigation (first step) and from the bookmark.
  const auto mismatch =
      SerializationError::typeMismatch(scalar(Case::int32), ProtoWireType::lengthDelimited);
  const auto malformed = SerializationError::malformedProtobuf();
  for (const auto& [bytes, firstIsOne, error] :
       std::vector<std::tuple<Bytes, bool, SerializationError>>{
           {bytesOf({0x08, 1, 0x0a, 2, 2, 3}), true, mismatch},
           {bytesOf({0x0a, 2, 1, 0x96, 0x01, 0x10, 0x00}), true, malformed},
           {bytesOf({0x0a, 1, 0x96, 0x01, 0x10, 0x00}), false, malformed},
       }) {
    SCOPED_TRACE(bytes.size());
    Schematizer::RepeatableFieldIterator iterator(ByteView(bytes), 1,
                                                  TypeSchema(scalar(Case::int32)));
    if (firstIsOne) {
      EXPECT_EQ(iterator.next(), AnyValue(int32_t{1}));
    }
    EXPECT_EQ(catchError([&] { iterator.next(); }), error);
    EXPECT_FALSE(iterator.isDone());
    EXPECT_EQ(catchError([&] { iterator.next(); }), error);
  }
}

TEST(RepeatableFieldIteratorTest, MessageElementsOwnTheirBytes) {
  SchemaStore store(schemaManifestFromProtoText(
      "syntax = \"proto3\"; package t; message Leaf { int32 id = 1; }"));
  const MessageSchema leaf = store.messageSchema("t.Leaf");
  std::optional<Bytes> bytes = bytesOf({0x0a, 2, 0x08, 1, 0x0a, 2, 0x08, 2});
  Schematizer::RepeatableFieldIterator iterator(
      ByteView(*bytes), 1, TypeSchema(TypeSchemaDescription::messageType(leaf.impl())));
  bytes.reset();
  std::vector<int32_t> ids;
  for (const AnyValue& element : iterator) {
    ids.push_back(element.messageValue().value("id")->int32Value());
  }
  EXPECT_EQ(ids, (std::vector<int32_t>{1, 2}));
}

TEST(SchematizerTest, ValuesByNumberAndChain) {
  const Bytes bytes = bytesOf({0x08, 5, 0x12, 4, 0x1a, 2, 0x20, 7, 0x08, 6});
  const TypeSchema int32Type(scalar(Case::int32));
  EXPECT_EQ(Schematizer::value(bytes, 1, int32Type), AnyValue(int32_t{5}));
  const int64_t chain[] = {2, 3, 4};
  EXPECT_EQ(Schematizer::value(bytes, chain, int32Type), AnyValue(int32_t{7}));
  EXPECT_EQ(Schematizer::value(bytes, 9, int32Type), std::nullopt);
  EXPECT_EQ(catchError([&] { Schematizer::value(bytes, std::span<const int64_t>{}, int32Type); }),
            SchematizerError::protocolBufferError("invalid fieldPath"));
}

TEST(FirstOfTest, FindsTheFirstPresentMember) {
  const std::set<int64_t> members = {2, 3};
  EXPECT_EQ(ProtoFirstOfHelper::firstOf(members, {}, bytesOf({0x08, 1, 0x18, 1, 0x10, 1})), 3);
  EXPECT_EQ(ProtoFirstOfHelper::firstOf(members, {}, bytesOf({0x08, 1, 0x20, 1})), std::nullopt);
  const int64_t path[] = {1};
  EXPECT_EQ(ProtoFirstOfHelper::firstOf(members, path, bytesOf({0x0a, 2, 0x10, 1})), 2);
  EXPECT_EQ(ProtoFirstOfHelper::firstOf(members, path, bytesOf({0x10, 1})), std::nullopt);
  // Through a group: only its own fields, not the one after its end.
  EXPECT_EQ(ProtoFirstOfHelper::firstOf(members, path, bytesOf({0x0b, 0x08, 1, 0x0c, 0x10, 1})),
            std::nullopt);
  EXPECT_EQ(ProtoFirstOfHelper::firstOf(members, path, bytesOf({0x0b, 0x18, 1, 0x0c, 0x10, 1})), 3);
  EXPECT_EQ(catchError([&] {
              ProtoFirstOfHelper::firstOf(members, path, bytesOf({0x08, 1}));
            }),
            SchematizerError::protocolBufferError("Unexpected PB type reading message: varInt"));
  // A length claiming more than the buffer holds runs the search to the buffer's end.
  EXPECT_EQ(catchError([&] {
              ProtoFirstOfHelper::firstOf(members, path, bytesOf({0x0a, 0x7f, 0x08, 1}));
            }),
            SerializationError::malformedProtobuf());
}

}  // namespace
}  // namespace ostrel
