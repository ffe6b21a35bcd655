#include "wire/value_decoding.hpp"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "ostrel/core/describing.hpp"
#include "ostrel/manifest/manifest_data.hpp"
#include "store/proto_schema_store.hpp"
#include "support/test_support.hpp"
#include "wire/scalar_decoding.hpp"

namespace ostrel {
namespace {

using testing_support::bytesOf;
using testing_support::catchError;
using Case = TypeSchemaDescription::Case;

const SerializationError kMalformed = SerializationError::malformedProtobuf();

// The enum and message types carried by decoded values, from a real store that outlives the tests.
struct Schemas {
  std::shared_ptr<ProtoSchemaStore> store = ProtoSchemaStore::make(schemaManifestFromProtoText(
      "syntax = \"proto3\"; package test; enum Color { RED = 0; } message Point { int32 x = 1; }"));
  std::shared_ptr<EnumSchemaDescribing> color = store->enumSchema("test.Color");
  std::shared_ptr<MessageSchemaDescribing> point = store->messageSchema("test.Point");
};
const Schemas& schemas() {
  static const Schemas s;
  return s;
}

TypeSchemaDescription typeOf(Case kind) {
  if (kind == Case::enum_) return TypeSchemaDescription::enumType(schemas().color);
  if (kind == Case::message) return TypeSchemaDescription::messageType(schemas().point);
  return TypeSchemaDescription::scalar(kind);
}

AnyValue enumNumber(int64_t number) {
  return EnumValue(detail::EnumValueImpl{schemas().color, number});
}

// Encodings libprotobuf never writes (its own are read in the differential suite): varints wider
// than their type, invalid UTF-8, and the message type, which carries its schema. Each value is
// followed by whatever the row needs, which the reader must not take.
TEST(DecodeValueTest, DecodesWhatNoEncoderWrites) {
  const Bytes fiveBytes = bytesOf({0x85, 0x80, 0x80, 0x80, 0x10});  // 2^32 + 5
  const std::vector<std::tuple<Case, Bytes, AnyValue, int64_t>> rows = {
      {Case::int32, bytesOf({0xff, 0xff, 0xff, 0xff, 0x1f}), int32_t{-1}, 5},
      {Case::uint32, fiveBytes, uint32_t{5}, 5},
      {Case::sint32, fiveBytes, int32_t{-3}, 5},  // zigzag on the low 32 bits
      {Case::bool_, bytesOf({0x02}), true, 1},
      {Case::bool_, bytesOf({0x80, 0x80, 0x80, 0x80, 0x10}), true, 5},
      {Case::enum_, bytesOf({0xff, 0xff, 0xff, 0xff, 0x0f}), enumNumber(-1), 5},
      {Case::string, bytesOf({0x02, 0xc3, 0x28}), "\xEF\xBF\xBD(", 3},
      {Case::message, bytesOf({0x02, 0x08, 0x01, 0x7f}),
       SchematizedData(schemas().point, bytesOf({0x08, 0x01})), 3},
  };
  for (const auto& [kind, bytes, expected, positionAfter] : rows) {
    SCOPED_TRACE(expected.describe());
    Reader reader(bytes);
    EXPECT_EQ(AnyValue::from(decodeValue(reader, typeOf(kind), detail::factsOf(kind).wireType)),
              expected);
    EXPECT_EQ(reader.position(), positionAfter);
  }
}

// After a start-group tag a message value is the group's fields, up to the end-group tag of its
// number (written in as many bytes as an encoder likes); a group closed by another number, or not
// closed, is malformed, and no other type takes a group.
TEST(DecodeValueTest, MessagesReadDelimitedUpToTheirEndTag) {
  const FieldTag start(0x0b);  // field 1, start group
  const std::vector<std::tuple<Bytes, std::optional<Bytes>, int64_t>> rows = {
      {bytesOf({0x08, 0x01, 0x0c, 0x7f}), bytesOf({0x08, 0x01}), 3},
      {bytesOf({0x13, 0x08, 0x01, 0x14, 0x0c}), bytesOf({0x13, 0x08, 0x01, 0x14}), 5},
      {bytesOf({0x08, 0x01, 0x8c, 0x00}), bytesOf({0x08, 0x01}), 4},
      {bytesOf({0x08, 0x01, 0x14}), std::nullopt, 0},
      {bytesOf({0x08, 0x01}), std::nullopt, 0},
  };
  for (const auto& [bytes, payload, positionAfter] : rows) {
    Reader reader(bytes);
    if (!payload) {
      EXPECT_EQ(catchError([&] { decodeValue(reader, typeOf(Case::message), start); }), kMalformed);
      continue;
    }
    const detail::AnyValueImpl message = decodeValue(reader, typeOf(Case::message), start);
    EXPECT_EQ(toBytes(message.messageValue().bytes()), *payload);
    EXPECT_EQ(reader.position(), positionAfter);
  }
  Reader reader(std::get<0>(rows.front()));
  EXPECT_EQ(catchError([&] { decodeValue(reader, typeOf(Case::int32), start); }),
            SerializationError::typeMismatch(typeOf(Case::int32), ProtoWireType::startGroup));
}

TEST(DecodeValueTest, BytesAndMessagesBorrowTheirPayload) {
  const Bytes bytes = bytesOf({0x0a, 0x02, 0x08, 0x01});
  Reader reader(bytes);
  reader.setPosition(1);
  const detail::AnyValueImpl message =
      decodeValue(reader, typeOf(Case::message), ProtoWireType::lengthDelimited);
  ASSERT_EQ(message.kind(), detail::AnyValueImpl::Case::message);
  EXPECT_EQ(message.messageValue().bytes().data(), bytes.data() + 2);
  EXPECT_EQ(message.messageValue().messageSchema(), schemas().point);
  // The public value owns a copy equal to the payload.
  const AnyValue owned = AnyValue::from(message);
  EXPECT_EQ(owned.messageValue().data(), bytesOf({0x08, 0x01}));
  EXPECT_NE(owned.messageValue().bytes().data(), bytes.data() + 2);

  reader.setPosition(1);
  const detail::AnyValueImpl payload =
      decodeValue(reader, typeOf(Case::bytes), ProtoWireType::lengthDelimited);
  EXPECT_EQ(payload.bytesValue().view().data(), bytes.data() + 2);
  EXPECT_EQ(payload.bytesValue().view().size(), 2u);
}

void appendCodePoint(std::string& out, uint32_t cp) {
  if (cp < 0x80) {
    out += static_cast<char>(cp);
    return;
  }
  const int length = cp < 0x800 ? 2 : cp < 0x10000 ? 3 : 4;
  out += static_cast<char>((0xF00 >> length) | (cp >> (6 * (length - 1))));
  for (int k = length - 2; k >= 0; --k) out += static_cast<char>(0x80 | ((cp >> (6 * k)) & 0x3F));
}

// The decoder of the WHATWG Encoding Standard, step by step as written there, as an independent
// reference: one byte at a time, a byte that breaks a sequence is processed again.
std::string referenceUtf8Decode(const Bytes& bytes) {
  std::string out;
  uint32_t codePoint = 0;
  int seen = 0;
  int needed = 0;
  uint8_t lower = 0x80;
  uint8_t upper = 0xBF;
  for (size_t i = 0; i < bytes.size();) {
    const auto byte = static_cast<uint8_t>(bytes[i]);
    if (needed == 0) {
      ++i;
      needed = byte >= 0xC2 && byte <= 0xDF   ? 1
               : byte >= 0xE0 && byte <= 0xEF ? 2
               : byte >= 0xF0 && byte <= 0xF4 ? 3
                                              : 0;
      lower = byte == 0xE0 ? 0xA0 : byte == 0xF0 ? 0x90 : 0x80;
      upper = byte == 0xED ? 0x9F : byte == 0xF4 ? 0x8F : 0xBF;
      if (needed == 0) appendCodePoint(out, byte <= 0x7F ? byte : 0xFFFD);
      codePoint = byte & (0x7F >> (needed + 1));
      continue;
    }
    if (byte < lower || byte > upper) {
      needed = seen = 0;
      appendCodePoint(out, 0xFFFD);  // and the byte is processed again
    } else {
      ++i;
      codePoint = (codePoint << 6) | (byte & 0x3F);
      if (++seen == needed) {
        appendCodePoint(out, codePoint);
        needed = seen = 0;
      }
    }
    lower = 0x80;
    upper = 0xBF;
  }
  if (needed != 0) appendCodePoint(out, 0xFFFD);
  return out;
}

TEST(DecodeUtf8LossyTest, AgreesWithTheReferenceDecoderOnRandomBytes) {
  std::mt19937_64 rng(20240611);
  // Bytes drawn mostly from the interesting ranges: ASCII, continuations and every kind of lead.
  const std::array<uint8_t, 16> interesting = {0x41, 0x7f, 0x80, 0x8f, 0x90, 0x9f, 0xa0, 0xbf,
                                               0xc0, 0xc2, 0xe0, 0xed, 0xef, 0xf0, 0xf4, 0xf5};
  for (int round = 0; round < 5000; ++round) {
    Bytes bytes(rng() % 40);
    for (auto& byte : bytes) {
      const uint64_t r = rng();
      byte = static_cast<std::byte>(r % 3 == 0 ? interesting[(r >> 8) % interesting.size()]
                                               : (r >> 8) & 0xff);
    }
    SCOPED_TRACE(round);
    ASSERT_EQ(decodeUtf8Lossy(bytes), referenceUtf8Decode(bytes));
  }
}

TEST(DecodePackedElementTest, LengthDelimitedTypesCannotBePackedOrSkipped) {
  const Bytes bytes = bytesOf({0x01, 0x01});
  for (Case kind : {Case::message, Case::string, Case::bytes}) {
    SCOPED_TRACE(std::string(caseName(kind)));
    Reader reader(bytes);
    EXPECT_EQ(catchError([&] { decodePackedElement(reader, typeOf(kind)); }), kMalformed);
    EXPECT_EQ(catchError([&] { skipPackedElements(reader, typeOf(kind), 0); }), kMalformed);
  }
}

TEST(SkipPackedElementsTest, SkipsByTypeWithinTheRun) {
  const Bytes varints = bytesOf({0x01, 0x96, 0x01, 0xff, 0xff, 0xff, 0xff, 0x0f, 0x03});
  const Bytes words = bytesOf({1, 0, 0, 0, 2, 0, 0, 0, 3, 0, 0, 0});
  const Bytes longs(16, std::byte{1});
  const int64_t huge = std::numeric_limits<int64_t>::max();
  constexpr int64_t kShort = -1;   // the run holds fewer elements
  constexpr int64_t kThrows = -2;  // throws malformedProtobuf
  // Per row: the bytes, where the skip starts, the run's end (the reader's end position), the
  // count, and the position after the skip.
  const std::vector<std::tuple<Case, Bytes, int64_t, int64_t, int64_t, int64_t>> rows = {
      {Case::bool_, varints, 0, 9, 5, kShort},
      {Case::bool_, varints, 0, 3, 3, kShort},  // a run shorter than the buffer
      {Case::sint64, varints, 0, 9, -3, kShort},
      {Case::uint32, varints, 0, 2, 2, kThrows},  // the last element runs over the run's end
      {Case::int64, bytesOf({0x01, 0x80}), 0, 2, 2, kThrows},
      {Case::sfixed32, words, 0, 8, 3, kShort},
      {Case::float_, words, 4, 12, 3, kShort},
      {Case::fixed32, words, 4, 12, huge, kShort},
      {Case::fixed32, words, 8, 12, -1, kShort},
      {Case::fixed32, words, 0, 40, 5, 20},  // the run is not measured against the buffer
      {Case::sfixed64, longs, 0, 16, 3, kShort},
      {Case::double_, longs, 8, 16, huge / 4, kShort},
  };
  for (const auto& [kind, bytes, start, end, count, expected] : rows) {
    Reader reader(bytes);
    reader.setPosition(start);
    reader.setEndPosition(end);
    int64_t after = kThrows;
    const auto caught = catchError([&] {
      after = skipPackedElements(reader, typeOf(kind), count) ? reader.position() : kShort;
    });
    EXPECT_EQ(after, expected) << caseName(kind) << " from " << start << ", count " << count;
    if (after == kThrows) {
      EXPECT_EQ(caught, SerializationError::malformedProtobuf());
    }
  }
}

}  // namespace
}  // namespace ostrel
