#include "ostrel/wire/reader.hpp"

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "support/test_support.hpp"

namespace ostrel {
namespace {

using testing_support::bytesOf;
using testing_support::catchError;

const SerializationError kMalformed = SerializationError::malformedProtobuf();
const SerializationError kTruncated = SerializationError::truncated();

struct VarintRow {
  std::string name;
  Bytes bytes;
  std::optional<uint64_t> value;  // no value: malformedProtobuf
  int64_t positionAfter;
};

TEST(ReaderTest, Varints) {
  const std::vector<VarintRow> rows = {
      {"zero", bytesOf({0x00}), 0, 1},
      {"one byte max", bytesOf({0x7f}), 127, 1},
      {"two bytes", bytesOf({0xac, 0x02}), 300, 2},
      {"trailing bytes are left", bytesOf({0x96, 0x01, 0x05}), 150, 2},
      {"ten bytes all ones", bytesOf({0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x01}),
       0xFFFFFFFFFFFFFFFFull, 10},
      {"tenth byte extra bits dropped",
       bytesOf({0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x7f}), 0xFFFFFFFFFFFFFFFFull,
       10},
      {"tenth byte even drops bit 0 only",
       bytesOf({0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x02}), 0, 10},
      {"non-minimal zero", bytesOf({0x80, 0x00}), 0, 2},
      {"eleven bytes", bytesOf({0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x81, 0x00}),
       std::nullopt, 0},
      {"runs off the end", bytesOf({0x80, 0x80}), std::nullopt, 0},
      {"empty buffer", Bytes{}, std::nullopt, 0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Reader reader(row.bytes);
    if (row.value) {
      EXPECT_EQ(reader.readVarint(), *row.value);
    } else {
      EXPECT_EQ(catchError([&] { reader.readVarint(); }), kMalformed);
    }
    EXPECT_EQ(reader.position(), row.positionAfter);
  }
}

TEST(ReaderTest, VarintAtPositionPastTheEndFails) {
  const Bytes bytes = bytesOf({0x01});
  Reader reader(bytes);
  reader.setPosition(5);
  EXPECT_EQ(catchError([&] { reader.readVarint(); }), kMalformed);
  EXPECT_EQ(reader.position(), 5);
}

struct TagRow {
  std::string name;
  Bytes bytes;
  std::optional<uint32_t> raw;  // no value: malformedProtobuf
  int64_t positionAfter;
};

TEST(ReaderTest, Tags) {
  const std::vector<TagRow> rows = {
      {"field 1 varint", bytesOf({0x08}), 8, 1},
      {"field 2 length-delimited", bytesOf({0x12}), 0x12, 1},
      {"field 16 two bytes", bytesOf({0x80, 0x01}), 128, 2},
      {"largest field number", bytesOf({0xfd, 0xff, 0xff, 0xff, 0x0f}), 0xFFFFFFFD, 5},
      {"field 0", bytesOf({0x00}), std::nullopt, 1},
      {"field 0 wire type 2", bytesOf({0x02}), std::nullopt, 1},
      {"wire type 6", bytesOf({0x0e}), std::nullopt, 1},
      {"wire type 7", bytesOf({0x0f}), std::nullopt, 1},
      {"above 32 bits", bytesOf({0x80, 0x80, 0x80, 0x80, 0x10}), std::nullopt, 5},
      {"0xFFFFFFFF", bytesOf({0xff, 0xff, 0xff, 0xff, 0x0f}), std::nullopt, 5},
      {"truncated varint", bytesOf({0x88}), std::nullopt, 0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Reader reader(row.bytes);
    if (row.raw) {
      const FieldTag tag = reader.readTag();
      EXPECT_EQ(tag.rawValue(), *row.raw);
    } else {
      EXPECT_EQ(catchError([&] { reader.readTag(); }), kMalformed);
    }
    EXPECT_EQ(reader.position(), row.positionAfter);
  }
}

TEST(ReaderTest, FieldTagParts) {
  const FieldTag tag(0x1a);
  EXPECT_EQ(tag.fieldNumber(), 3);
  EXPECT_EQ(tag.wireType(), ProtoWireType::lengthDelimited);
  EXPECT_EQ(tag.describe(), "FieldTag(rawValue: 26)");
  EXPECT_EQ(FieldTag(8), FieldTag(8));
  EXPECT_EQ(catchError([] { FieldTag(7); }), kMalformed);
}

struct LengthRow {
  std::string name;
  Bytes bytes;
  std::optional<std::vector<int>> payload;
  std::optional<SerializationError> error;
  int64_t positionAfter;
};

TEST(ReaderTest, LengthDelimited) {
  const std::vector<LengthRow> rows = {
      {"empty payload", bytesOf({0x00}), std::vector<int>{}, std::nullopt, 1},
      {"three bytes", bytesOf({0x03, 1, 2, 3, 9}), std::vector<int>{1, 2, 3}, std::nullopt, 4},
      {"bits above 31 are ignored", bytesOf({0x85, 0x80, 0x80, 0x80, 0x10, 7, 8, 9, 10, 11}),
       std::vector<int>{7, 8, 9, 10, 11}, std::nullopt, 10},
      {"too long", bytesOf({0x05, 1, 2, 3}), std::nullopt, kTruncated, 1},
      {"negative as 32 bits", bytesOf({0x80, 0x80, 0x80, 0x80, 0x08}), std::nullopt, kMalformed, 5},
      {"length varint cut off", bytesOf({0x80}), std::nullopt, kMalformed, 0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Reader reader(row.bytes);
    if (row.payload) {
      const ByteView payload = reader.readLengthDelimited();
      Bytes expected;
      for (int b : *row.payload) expected.push_back(static_cast<std::byte>(b));
      EXPECT_EQ(toBytes(payload), expected);
      if (!payload.empty()) {
        EXPECT_EQ(payload.data(),
                  row.bytes.data() + row.positionAfter - static_cast<int64_t>(payload.size()));
      }
    } else {
      EXPECT_EQ(catchError([&] { reader.readLengthDelimited(); }), *row.error);
    }
    EXPECT_EQ(reader.position(), row.positionAfter);
  }
}

TEST(ReaderTest, FixedWidth) {
  const Bytes bytes = bytesOf({0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0xaa});
  Reader reader(bytes);
  EXPECT_EQ(reader.readFixed32(), 0x04030201u);
  EXPECT_EQ(reader.position(), 4);
  reader.setPosition(1);
  EXPECT_EQ(reader.readFixed64(), 0xaa08070605040302ull);
  EXPECT_EQ(reader.position(), 9);
}

struct FixedRow {
  std::string name;
  size_t bufferSize;
  int64_t position;
  bool wide;
};

TEST(ReaderTest, FixedWidthCutShortIsTruncated) {
  const std::vector<FixedRow> rows = {
      {"32 with three bytes left", 3, 0, false},
      {"64 with seven bytes left", 10, 3, true},
      {"32 at the end", 4, 4, false},
      {"64 past the end after a skip", 4, 12, true},
      {"32 on an empty buffer", 0, 0, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const Bytes bytes(row.bufferSize, std::byte{0x11});
    Reader reader(bytes);
    reader.setPosition(row.position);
    if (row.wide) {
      EXPECT_EQ(catchError([&] { reader.readFixed64(); }), kTruncated);
    } else {
      EXPECT_EQ(catchError([&] { reader.readFixed32(); }), kTruncated);
    }
    EXPECT_EQ(reader.position(), row.position);
  }
}

struct SkipRow {
  std::string name;
  Bytes bytes;                 // starts with the tag of the field to skip
  std::optional<int64_t> end;  // position after the skip; no value: malformedProtobuf
};

TEST(ReaderTest, SkipField) {
  const std::vector<SkipRow> rows = {
      {"varint", bytesOf({0x08, 0x96, 0x01, 0x10}), 3},
      {"fixed64", bytesOf({0x09, 1, 2, 3, 4, 5, 6, 7, 8, 0x10}), 9},
      {"fixed64 past the end is not checked", bytesOf({0x09, 1}), 9},
      {"fixed32", bytesOf({0x0d, 1, 2, 3, 4}), 5},
      {"length-delimited", bytesOf({0x0a, 0x02, 1, 2, 0x10}), 4},
      {"length-delimited past the end is not checked", bytesOf({0x0a, 0x7f, 1}), 2 + 0x7f},
      {"negative length", bytesOf({0x0a, 0xff, 0xff, 0xff, 0xff, 0x0f}), std::nullopt},
      {"empty group", bytesOf({0x0b, 0x0c, 0x10}), 2},
      {"group holding fields", bytesOf({0x0b, 0x10, 0x01, 0x1a, 0x01, 0x00, 0x0c}), 7},
      {"nested groups 1 > 2 > end 2 > end 1", bytesOf({0x0b, 0x13, 0x14, 0x0c}), 4},
      {"deeply nested groups", bytesOf({0x0b, 0x13, 0x1b, 0x23, 0x24, 0x1c, 0x14, 0x0c}), 8},
      {"group closed by another field", bytesOf({0x0b, 0x14}), std::nullopt},
      {"buffer ends inside a group", bytesOf({0x0b, 0x10, 0x01}), std::nullopt},
      {"end group where a value is expected", bytesOf({0x0c}), std::nullopt},
      {"varint runs off", bytesOf({0x08, 0x80}), std::nullopt},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Reader reader(row.bytes);
    const FieldTag tag = reader.readTag();
    if (row.end) {
      reader.skipField(tag);
      EXPECT_EQ(reader.position(), *row.end);
    } else {
      EXPECT_EQ(catchError([&] { reader.skipField(tag); }), kMalformed);
    }
  }
}

TEST(ReaderTest, NarrowedReaderSharesBytesAndBoundsOnlyTheSearch) {
  const Bytes bytes = bytesOf({0x0a, 0x02, 0x08, 0x01, 0x10, 0x02});
  Reader outer(bytes);
  outer.setLastComponentCompactedArrayEndPosition(4);
  Reader nested = outer.narrowed(2, 4);
  EXPECT_EQ(nested.position(), 2);
  EXPECT_EQ(nested.endPosition(), 4);
  EXPECT_FALSE(nested.lastComponentCompactedArrayEndPosition());
  EXPECT_EQ(nested.readTag().fieldNumber(), 1);
  EXPECT_EQ(nested.readVarint(), 1u);
  EXPECT_FALSE(nested.hasMoreFields());
  // Reads past endPosition stay inside the buffer and succeed.
  EXPECT_EQ(nested.readTag().fieldNumber(), 2);
  EXPECT_EQ(outer.position(), 0);
}

TEST(ReaderTest, EmptyBufferFailsEveryReadAndHasNoFields) {
  Reader reader(ByteView{});
  EXPECT_FALSE(reader.hasMoreFields());
  EXPECT_EQ(catchError([&] { reader.readVarint(); }), kMalformed);
  EXPECT_EQ(catchError([&] { reader.readTag(); }), kMalformed);
  EXPECT_EQ(catchError([&] { reader.readLengthDelimited(); }), kMalformed);
  EXPECT_EQ(catchError([&] { reader.readFixed32(); }), kTruncated);
}

}  // namespace
}  // namespace ostrel
