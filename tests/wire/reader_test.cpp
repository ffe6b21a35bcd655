#include "ostrel/wire/reader.hpp"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "support/test_support.hpp"

namespace ostrel {
namespace {

using testing_support::bytesOf;
using testing_support::catchError;

const SerializationError kMalformed = SerializationError::malformedProtobuf();
const SerializationError kTruncated = SerializationError::truncated();

// One read from the start of `bytes`: the value it gives (no value: it throws `error`) and where
// it leaves the reader. Buffers shorter than ten bytes take the byte-by-byte path.
struct ReadRow {
  std::string name;
  Bytes bytes;
  std::optional<uint64_t> value;
  int64_t positionAfter;
  SerializationError error = kMalformed;
};

void checkReads(const std::vector<ReadRow>& rows, uint64_t (*read)(Reader&)) {
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Reader reader(row.bytes);
    if (row.value) {
      EXPECT_EQ(read(reader), *row.value);
    } else {
      EXPECT_EQ(catchError([&] { read(reader); }), row.error);
    }
    EXPECT_EQ(reader.position(), row.positionAfter);
  }
}

const Bytes kTenOnes = bytesOf({0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x01});

TEST(ReaderTest, Varints) {
  checkReads(
      {
          {"two bytes, trailing byte left", bytesOf({0xac, 0x02, 0x05}), 300, 2},
          {"three bytes short buffer", bytesOf({0x80, 0x80, 0x01}), 1 << 14, 3},
          {"ten bytes", kTenOnes, ~uint64_t{0}, 10},
          {"tenth byte keeps bit 0 only",
           bytesOf({0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x7e}), 0, 10},
          {"eleven bytes",
           bytesOf({0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x81, 0x00}),
           std::nullopt, 0},
          {"runs off the end", bytesOf({0x80, 0x80}), std::nullopt, 0},
          {"empty buffer", Bytes{}, std::nullopt, 0},
      },
      [](Reader& r) { return r.readVarint(); });
  const Bytes one = bytesOf({0x01});
  Reader past(one);
  past.setPosition(5);
  EXPECT_EQ(catchError([&] { past.readVarint(); }), kMalformed);
}

TEST(ReaderTest, Tags) {
  checkReads(
      {
          {"field 16 two bytes", bytesOf({0x80, 0x01}), 128, 2},
          {"largest field number", bytesOf({0xfd, 0xff, 0xff, 0xff, 0x0f}), 0xFFFFFFFD, 5},
          {"field 0", bytesOf({0x02}), std::nullopt, 1},
          {"wire type 6", bytesOf({0x0e}), std::nullopt, 1},
          {"0xFFFFFFFF", bytesOf({0xff, 0xff, 0xff, 0xff, 0x0f}), std::nullopt, 5},
          {"above 32 bits", bytesOf({0x80, 0x80, 0x80, 0x80, 0x10}), std::nullopt, 5},
      },
      [](Reader& r) -> uint64_t { return r.readTag().rawValue(); });
  EXPECT_EQ(catchError([] { FieldTag(7); }), kMalformed);
  // A search for a field fails past a tag that is none, as reading the tag does.
  checkReads({{"field 0 before the field", bytesOf({0x00, 0x08, 1}), std::nullopt, 1}},
             [](Reader& r) -> uint64_t { return r.findField(1); });
}

TEST(ReaderTest, LengthDelimitedAndFixedWidth) {
  // The value read here is the first payload byte, or the payload size when it is empty.
  checkReads(
      {
          {"empty payload", bytesOf({0x00}), 0, 1},
          {"largest length", bytesOf({0xff, 0xff, 0xff, 0xff, 0x07, 1}), std::nullopt, 5,
           kTruncated},
          {"2^32 + 1 is not cut to 1", bytesOf({0x81, 0x80, 0x80, 0x80, 0x10, 7, 8}), std::nullopt,
           5},
          {"too long", bytesOf({0x05, 1, 2, 3}), std::nullopt, 1, kTruncated},
          {"negative as 32 bits", bytesOf({0x80, 0x80, 0x80, 0x80, 0x08}), std::nullopt, 5},
      },
      [](Reader& r) -> uint64_t {
        const ByteView payload = r.readLengthDelimited();
        EXPECT_EQ(payload.data(), r.bytes().data() + r.position() - payload.size());
        return payload.empty() ? 0 : static_cast<uint64_t>(payload[0]);
      });
  checkReads(
      {
          {"fixed32 cut short", bytesOf({1, 2, 3}), std::nullopt, 0, kTruncated},
      },
      [](Reader& r) -> uint64_t { return r.readFixed32(); });
  checkReads(
      {
          {"fixed64 cut short", bytesOf({1, 2, 3, 4, 5, 6, 7}), std::nullopt, 0, kTruncated},
      },
      [](Reader& r) -> uint64_t { return r.readFixed64(); });
  // Past the end after a skip that was not checked.
  const Bytes four(4, std::byte{0x11});
  Reader reader(four);
  reader.setPosition(12);
  EXPECT_EQ(catchError([&] { reader.readFixed64(); }), kTruncated);
  EXPECT_EQ(reader.position(), 12);
}

TEST(ReaderTest, SkipField) {
  // Per row: the bytes, starting with the tag of the field to skip, and the position after the
  // skip (no value: malformedProtobuf).
  const std::vector<std::tuple<std::string, Bytes, std::optional<int64_t>>> rows = {
      {"varint", bytesOf({0x08, 0x96, 0x01, 0x10}), 3},
      {"fixed64 past the end is not checked", bytesOf({0x09, 1}), 9},
      {"fixed32", bytesOf({0x0d, 1, 2, 3, 4}), 5},
      {"length-delimited past the end is not checked", bytesOf({0x0a, 0x7f, 1}), 2 + 0x7f},
      {"negative length", bytesOf({0x0a, 0xff, 0xff, 0xff, 0xff, 0x0f}), std::nullopt},
      {"length beyond 31 bits", bytesOf({0x0a, 0x80, 0x80, 0x80, 0x80, 0x10, 0x08}), std::nullopt},
      {"group holding fields", bytesOf({0x0b, 0x10, 0x01, 0x1a, 0x01, 0x00, 0x0c}), 7},
      {"deeply nested groups", bytesOf({0x0b, 0x13, 0x1b, 0x23, 0x24, 0x1c, 0x14, 0x0c}), 8},
      {"inner group closed by its outer one", bytesOf({0x0b, 0x13, 0x1b, 0x1c, 0x0c}),
       std::nullopt},
      {"deep group closed by another field", bytesOf({0x0b, 0x13, 0x1b, 0x23, 0x1c}), std::nullopt},
      {"buffer ends inside a group", bytesOf({0x0b, 0x10, 0x01}), std::nullopt},
      {"end group where a value is expected", bytesOf({0x0c}), std::nullopt},
  };
  for (const auto& [name, bytes, end] : rows) {
    SCOPED_TRACE(name);
    Reader reader(bytes);
    const FieldTag tag = reader.readTag();
    if (end) {
      reader.skipField(tag);
      EXPECT_EQ(reader.position(), *end);
    } else {
      EXPECT_EQ(catchError([&] { reader.skipField(tag); }), kMalformed);
    }
  }
}

}  // namespace
}  // namespace ostrel
