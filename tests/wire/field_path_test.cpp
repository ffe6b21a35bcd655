// Navigation, iteration and first-of over hand-encoded bytes: the encodings libprotobuf never
// writes (split messages, mixed packed and unpacked runs, groups, malformed tags).

#include "wire/field_path.hpp"

#include <gtest/gtest.h>

#include "ostrel/store/schemas.hpp"
#include "ostrel/wire/schematizer.hpp"
#include "support/test_support.hpp"

namespace ostrel {
namespace {

using testing_support::bytesOf;
using testing_support::catchError;
using Case = TypeSchemaDescription::Case;

TypeSchemaDescription scalar(Case kind) { return TypeSchemaDescription::scalar(kind); }

std::optional<AnyValue> read(const Bytes& bytes, std::vector<FieldPathComponent> path, Case kind) {
  Reader reader(bytes);
  auto value = readValue(reader, path, scalar(kind));
  if (!value) return std::nullopt;
  return AnyValue::from(*value);
}

FieldPathComponent at(int64_t number) { return FieldPathComponent::fieldNumber(number); }
FieldPathComponent at(int64_t number, int64_t index) {
  return FieldPathComponent::repeatableFieldNumber(number, index);
}

struct ReadRow {
  std::string name;
  Bytes bytes;
  std::vector<FieldPathComponent> path;
  Case type;
  std::optional<AnyValue> expected;
};

TEST(FieldPathTest, ReadsTheValueAtAPath) {
  // Field 4 as unpacked 10, 20, 30 / packed [10, 20, 30] / unpacked 10 then packed [20, 30].
  const Bytes unpacked = bytesOf({0x20, 10, 0x08, 1, 0x20, 20, 0x20, 30});
  const Bytes packed = bytesOf({0x22, 3, 10, 20, 30, 0x08, 1});
  const Bytes mixed = bytesOf({0x20, 10, 0x22, 2, 20, 30});
  const std::vector<ReadRow> rows = {
      {"first occurrence wins", bytesOf({0x08, 5, 0x08, 7}), {at(1)}, Case::int32, int32_t{5}},
      {"other fields are skipped",
       bytesOf({0x11, 1, 2, 3, 4, 5,    6,    7, 8,    0x1a, 1, 0,
                0x25, 1, 2, 3, 4, 0x2b, 0x08, 1, 0x2c, 0x30, 9}),
       {at(6)},
       Case::int32,
       int32_t{9}},
      {"absent field", bytesOf({0x08, 5}), {at(2)}, Case::int32, std::nullopt},
      {"empty buffer", Bytes{}, {at(1)}, Case::int32, std::nullopt},
      {"nested", bytesOf({0x12, 2, 0x18, 9}), {at(2), at(3)}, Case::int32, int32_t{9}},
      {"split message: only the first occurrence is entered",
       bytesOf({0x12, 2, 0x08, 5, 0x12, 2, 0x18, 9}),
       {at(2), at(3)},
       Case::int32,
       std::nullopt},
      {"unpacked index 1", unpacked, {at(4, 1)}, Case::int32, int32_t{20}},
      {"unpacked index past the end", unpacked, {at(4, 3)}, Case::int32, std::nullopt},
      {"packed index 1", packed, {at(4, 1)}, Case::int32, int32_t{20}},
      {"unpacked element counts against the index, then the run starts at 0",
       mixed,
       {at(4, 1)},
       Case::int32,
       int32_t{20}},
      {"index into the run after unpacked elements", mixed, {at(4, 2)}, Case::int32, int32_t{30}},
      {"packed index at the run's length is absent", packed, {at(4, 3)}, Case::int32, std::nullopt},
      {"packed index past the run is absent", packed, {at(4, 4)}, Case::int32, std::nullopt},
      {"index past unpacked elements and the run", mixed, {at(4, 3)}, Case::int32, std::nullopt},
      {"negative index over unpacked elements", unpacked, {at(4, -1)}, Case::int32, std::nullopt},
      {"negative index over a packed run", packed, {at(4, -1)}, Case::int32, std::nullopt},
      {"empty packed run followed by a field",
       bytesOf({0x22, 0, 0x08, 1}),
       {at(4, 0)},
       Case::int32,
       std::nullopt},
      {"packed fixed32 index past the buffer",
       bytesOf({0x25 - 3, 8, 1, 0, 0, 0, 2, 0, 0, 0}),
       {at(4, 9)},
       Case::fixed32,
       std::nullopt},
      {"packed fixed32 last element",
       bytesOf({0x25 - 3, 8, 1, 0, 0, 0, 2, 0, 0, 0}),
       {at(4, 1)},
       Case::fixed32,
       uint32_t{2}},
      {"packed double index 2 before another field",
       bytesOf({0x22, 16, 0, 0, 0, 0, 0, 0, 0xf8, 0x3f, 0, 0, 0, 0, 0, 0, 4, 0x40, 0x08, 1}),
       {at(4, 2)},
       Case::double_,
       std::nullopt},
      {"repeated message element through an index",
       bytesOf({0x22, 2, 0x08, 1, 0x22, 2, 0x08, 2}),
       {at(4, 1), at(1)},
       Case::int32,
       int32_t{2}},
      {"string elements are never packed",
       bytesOf({0x22, 1, 'a', 0x22, 1, 'b'}),
       {at(4, 1)},
       Case::string,
       std::string("b")},
      {"field past the message end is read when inside the buffer",
       bytesOf({0x12, 1, 0x18, 7}),
       {at(2), at(3)},
       Case::int32,
       int32_t{7}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(read(row.bytes, row.path, row.type), row.expected);
  }
}

struct ErrorRow {
  std::string name;
  Bytes bytes;
  std::vector<FieldPathComponent> path;
  Case type;
  std::function<bool(const testing_support::CaughtError&)> matches;
};

TEST(FieldPathTest, FaultsAreReportedWithTheirExactErrors) {
  const auto is = [](auto expected) {
    return [expected](const testing_support::CaughtError& caught) { return caught == expected; };
  };
  const std::vector<ErrorRow> rows = {
      {"empty path",
       bytesOf({0x08, 1}),
       {},
       Case::int32,
       is(SchematizerError::protocolBufferError("invalid fieldPath"))},
      {"intermediate field is a varint",
       bytesOf({0x08, 1}),
       {at(1), at(2)},
       Case::int32,
       is(SchematizerError::protocolBufferError(
           "Unexpected PB type reading message: FieldTag(rawValue: 8)"))},
      {"intermediate repeated element is not delimited",
       bytesOf({0x08, 1}),
       {at(1, 0), at(2)},
       Case::int32,
       is(SchematizerError::protocolBufferError(
           "Element at intermediate path must have length delimited wire type (message)"))},
      {"final wire type does not fit",
       bytesOf({0x08, 1}),
       {at(1)},
       Case::fixed32,
       is(SerializationError::typeMismatch(scalar(Case::fixed32), ProtoWireType::varInt))},
      {"packed run where a single value is expected",
       bytesOf({0x0a, 1, 1}),
       {at(1)},
       Case::int32,
       is(SerializationError::typeMismatch(scalar(Case::int32), ProtoWireType::lengthDelimited))},
      {"malformed tag while searching",
       bytesOf({0x00}),
       {at(1)},
       Case::int32,
       is(SerializationError::malformedProtobuf())},
      {"lone end group while searching",
       bytesOf({0x0c}),
       {at(2)},
       Case::int32,
       is(SerializationError::malformedProtobuf())},
      {"negative nested length",
       bytesOf({0x12, 0xff, 0xff, 0xff, 0xff, 0x0f}),
       {at(2), at(1)},
       Case::int32,
       is(SerializationError::malformedProtobuf())},
      {"packed varint running over the run's end",
       bytesOf({0x22, 2, 1, 0x96, 0x01, 0x08, 0x00}),
       {at(4, 1)},
       Case::int32,
       is(SerializationError::malformedProtobuf())},
      {"packed varint skipped over the run's end",
       bytesOf({0x22, 2, 1, 0x96, 0x01, 0x08, 0x00}),
       {at(4, 2)},
       Case::int32,
       is(SerializationError::malformedProtobuf())},
      {"packed fixed32 cut short by the run's end",
       bytesOf({0x22, 6, 1, 0, 0, 0, 2, 0, 0, 0}),
       {at(4, 1)},
       Case::fixed32,
       is(SerializationError::malformedProtobuf())},
      {"truncated string",
       bytesOf({0x0a, 5, 'a'}),
       {at(1)},
       Case::string,
       is(SerializationError::truncated())},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const auto caught = catchError([&] { read(row.bytes, row.path, row.type); });
    EXPECT_TRUE(row.matches(caught)) << caught.description;
  }
}

TEST(FieldPathTest, PackedReadRecordsTheRunEndAndStopsAfterTheElement) {
  const Bytes bytes = bytesOf({0x08, 1, 0x22, 3, 10, 0x96, 0x01, 0x10, 2});
  Reader reader(bytes);
  const FieldPathComponent path[] = {at(4, 1)};
  const auto value = readValue(reader, path, scalar(Case::int32));
  ASSERT_TRUE(value);
  EXPECT_EQ(value->int32Value(), 150);
  EXPECT_EQ(reader.lastComponentCompactedArrayEndPosition(), 7);
  EXPECT_EQ(reader.position(), 7);
}

// An absent nested field leaves the reader past the outermost payload entered, also when that
// payload ends the buffer.
TEST(FieldPathTest, AbsentNestedFieldMovesThePastTheOuterPayload) {
  const FieldPathComponent path[] = {at(2), at(3)};
  for (const Bytes& bytes : {bytesOf({0x12, 2, 0x08, 5, 0x18, 1}), bytesOf({0x12, 2, 0x08, 5})}) {
    SCOPED_TRACE(bytes.size());
    Reader reader(bytes);
    EXPECT_FALSE(readValue(reader, path, scalar(Case::int32)));
    EXPECT_EQ(reader.position(), 4);
  }
}

// A field schema over a fixed type, for forEachValue.
class FixedField final : public FieldSchemaDescribing {
 public:
  FixedField(int64_t number, bool repeated, Case kind)
      : number_(number), repeated_(repeated), type_(scalar(kind)) {}
  const std::string& name() const noexcept override { return name_; }
  std::string typeDescription() const override { return {}; }
  bool isRepeated() const noexcept override { return repeated_; }
  bool isOptional() const noexcept override { return true; }
  const std::optional<SchematizedData>& options() const noexcept override { return options_; }
  std::optional<int32_t> oneofIndex() const noexcept override { return std::nullopt; }
  int64_t fieldNumber() const override { return number_; }
  const TypeSchemaDescription& type() const override { return type_; }

 private:
  std::string name_ = "f";
  int64_t number_;
  bool repeated_;
  TypeSchemaDescription type_;
  std::optional<SchematizedData> options_;
};

std::vector<int32_t> visitAll(const Bytes& bytes, const FixedField& field,
                              std::vector<int32_t>* seenBeforeFailure = nullptr) {
  std::vector<int32_t> seen;
  Reader reader(bytes);
  try {
    forEachValue(reader, field,
                 [&](detail::AnyValueImpl&& value) { seen.push_back(value.int32Value()); });
  } catch (...) {
    if (seenBeforeFailure) *seenBeforeFailure = seen;
    throw;
  }
  return seen;
}

TEST(ForEachValueTest, VisitsEveryValueOfOneField) {
  const FixedField repeated(4, true, Case::int32);
  EXPECT_EQ(visitAll(bytesOf({0x20, 1, 0x08, 9, 0x20, 2, 0x20, 3}), repeated),
            (std::vector<int32_t>{1, 2, 3}));
  // Each packed run exactly to its end, then the walk goes on after it.
  EXPECT_EQ(visitAll(bytesOf({0x22, 3, 1, 2, 3, 0x08, 0x00, 0x20, 4}), repeated),
            (std::vector<int32_t>{1, 2, 3, 4}));
  EXPECT_EQ(visitAll(bytesOf({0x22, 0, 0x22, 1, 0x7f}), repeated), std::vector<int32_t>{127});
  const FixedField doubles(4, true, Case::double_);
  std::vector<int32_t> none;
  EXPECT_EQ(visitAll(bytesOf({0x22, 0, 0x08, 1}), doubles), none);
  // An element running over its run's end is malformed and is not visited.
  std::vector<int32_t> seen;
  EXPECT_EQ(catchError([&] {
              visitAll(bytesOf({0x22, 2, 1, 0x96, 0x01, 0x08, 0x00}), repeated, &seen);
            }),
            SerializationError::malformedProtobuf());
  EXPECT_EQ(seen, (std::vector<int32_t>{1}));
  EXPECT_EQ(visitAll(bytesOf({0x08, 9}), repeated), std::vector<int32_t>{});
  const FixedField single(4, false, Case::int32);
  EXPECT_EQ(visitAll(bytesOf({0x20, 1, 0x20, 2}), single), std::vector<int32_t>{1});
  EXPECT_EQ(catchError([&] {
              visitAll(bytesOf({0x20, 1, 0x23, 0x24}), repeated);
            }),
            SerializationError::typeMismatch(scalar(Case::int32), ProtoWireType::startGroup));
  // The visitor's failure ends the walk.
  const Bytes twoValues = bytesOf({0x20, 1, 0x20, 2});
  Reader reader(twoValues);
  int visits = 0;
  EXPECT_THROW(forEachValue(reader, repeated,
                            [&](detail::AnyValueImpl&&) {
                              ++visits;
                              throw std::runtime_error("stop");
                            }),
               std::runtime_error);
  EXPECT_EQ(visits, 1);
}

std::vector<AnyValue> iterateAll(const Bytes& bytes, int64_t number, Case kind) {
  Schematizer::RepeatableFieldIterator iterator(ByteView(bytes), number, TypeSchema(scalar(kind)));
  std::vector<AnyValue> values;
  for (const AnyValue& value : iterator) values.push_back(value);
  EXPECT_TRUE(iterator.isDone());
  EXPECT_FALSE(iterator.next());
  return values;
}

TEST(RepeatableFieldIteratorTest, IteratesPackedAndTaggedElements) {
  using V = std::vector<AnyValue>;
  EXPECT_EQ(iterateAll(bytesOf({0x0a, 3, 1, 2, 3}), 1, Case::int32),
            (V{int32_t{1}, int32_t{2}, int32_t{3}}));
  EXPECT_EQ(
      iterateAll(bytesOf({0x08, 1, 0x10, 7, 0x08, 2, 0x1a, 0, 0x08, 3, 0x10, 8}), 1, Case::int32),
      (V{int32_t{1}, int32_t{2}, int32_t{3}}));
  // Only the first packed run is iterated.
  EXPECT_EQ(iterateAll(bytesOf({0x0a, 2, 1, 2, 0x08, 3}), 1, Case::int32),
            (V{int32_t{1}, int32_t{2}}));
  EXPECT_EQ(iterateAll(bytesOf({0x0d, 1, 0, 0, 0, 0x0d, 2, 0, 0, 0}), 1, Case::fixed32),
            (V{uint32_t{1}, uint32_t{2}}));
  EXPECT_EQ(iterateAll(bytesOf({0x0a, 16, 0, 0, 0, 0, 0, 0, 0xf0, 0x3f, 0, 0, 0, 0, 0, 0, 0, 0x40}),
                       1, Case::double_),
            (V{1.0, 2.0}));
  // An empty run ends the iteration before the field that follows it.
  EXPECT_EQ(iterateAll(bytesOf({0x0a, 0, 0x08, 3}), 1, Case::int32), V{});
  EXPECT_EQ(iterateAll(bytesOf({0x10, 1}), 1, Case::int32), V{});
  EXPECT_EQ(iterateAll(Bytes{}, 1, Case::int32), V{});
}

TEST(RepeatableFieldIteratorTest, PackedRunAfterTaggedElementFailsAndRepeats) {
  const Bytes bytes = bytesOf({0x08, 1, 0x0a, 2, 2, 3});
  Schematizer::RepeatableFieldIterator iterator(ByteView(bytes), 1,
                                                TypeSchema(scalar(Case::int32)));
  EXPECT_EQ(iterator.next(), AnyValue(int32_t{1}));
  const auto mismatch =
      SerializationError::typeMismatch(scalar(Case::int32), ProtoWireType::lengthDelimited);
  EXPECT_EQ(catchError([&] { iterator.next(); }), mismatch);
  EXPECT_FALSE(iterator.isDone());
  EXPECT_EQ(catchError([&] { iterator.next(); }), mismatch);
}

TEST(RepeatableFieldIteratorTest, PackedElementOverTheRunsEndFailsAndRepeats) {
  // The run holds 1 and the first byte of 150; the second byte stands after the run. Both the
  // first step (through navigation) and a later one (from the bookmark) stop there.
  for (const int first : {1, 0x96}) {
    SCOPED_TRACE(first);
    const Bytes bytes = first == 1 ? bytesOf({0x0a, 2, 1, 0x96, 0x01, 0x10, 0x00})
                                   : bytesOf({0x0a, 1, 0x96, 0x01, 0x10, 0x00});
    Schematizer::RepeatableFieldIterator iterator(ByteView(bytes), 1,
                                                  TypeSchema(scalar(Case::int32)));
    if (first == 1) {
      EXPECT_EQ(iterator.next(), AnyValue(int32_t{1}));
    }
    EXPECT_EQ(catchError([&] { iterator.next(); }), SerializationError::malformedProtobuf());
    EXPECT_FALSE(iterator.isDone());
    EXPECT_EQ(catchError([&] { iterator.next(); }), SerializationError::malformedProtobuf());
  }
}

TEST(RepeatableFieldIteratorTest, MessageElementsOwnTheirBytes) {
  SchemaManifest manifest;
  manifest.messages["t.Leaf"].fields["id"] = {.type = TypeManifest::int32, .fieldNumber = 1};
  SchemaStore store(manifest);
  const MessageSchema leaf = store.messageSchema("t.Leaf");
  std::optional<Bytes> bytes = bytesOf({0x0a, 2, 0x08, 1, 0x0a, 2, 0x08, 2});
  Schematizer::RepeatableFieldIterator iterator(
      ByteView(*bytes), 1, TypeSchema(TypeSchemaDescription::messageType(leaf.impl())));
  bytes.reset();
  std::vector<int32_t> ids;
  for (const AnyValue& element : iterator) {
    EXPECT_EQ(element.messageValue().data().size(), 2u);
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
