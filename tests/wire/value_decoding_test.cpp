#include "wire/value_decoding.hpp"

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <google/protobuf/wire_format_lite.h>
#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include "ostrel/core/describing.hpp"
#include "store/proto_schema_store.hpp"
#include "support/test_support.hpp"

namespace ostrel {
namespace {

using testing_support::bytesOf;
using testing_support::catchError;
using Case = TypeSchemaDescription::Case;
using google::protobuf::internal::WireFormatLite;

const SerializationError kMalformed = SerializationError::malformedProtobuf();
const SerializationError kTruncated = SerializationError::truncated();

// The enum and message types carried by decoded values, from a real store that outlives the tests.
const std::shared_ptr<ProtoSchemaStore>& testStore() {
  static const std::shared_ptr<ProtoSchemaStore> store = [] {
    SchemaManifest manifest;
    manifest.enums["test.Color"].values = {{"RED", 0}};
    manifest.messages["test.Point"].fields["x"] = {.type = TypeManifest::int32, .fieldNumber = 1};
    return ProtoSchemaStore::make(manifest);
  }();
  return store;
}

const std::shared_ptr<EnumSchemaDescribing>& colorSchema() {
  static const std::shared_ptr<EnumSchemaDescribing> schema = testStore()->enumSchema("test.Color");
  return schema;
}

const std::shared_ptr<MessageSchemaDescribing>& pointSchema() {
  static const std::shared_ptr<MessageSchemaDescribing> schema =
      testStore()->messageSchema("test.Point");
  return schema;
}

TypeSchemaDescription typeOf(Case kind) {
  switch (kind) {
    case Case::enum_:
      return TypeSchemaDescription::enumType(colorSchema());
    case Case::message:
      return TypeSchemaDescription::messageType(pointSchema());
    default:
      return TypeSchemaDescription::scalar(kind);
  }
}

constexpr std::array<Case, 17> kAllCases = {
    Case::enum_,    Case::message, Case::int32,  Case::uint32, Case::sint32,  Case::fixed32,
    Case::sfixed32, Case::int64,   Case::uint64, Case::sint64, Case::fixed64, Case::sfixed64,
    Case::double_,  Case::float_,  Case::bool_,  Case::string, Case::bytes,
};

constexpr std::array<ProtoWireType, 6> kAllWireTypes = {
    ProtoWireType::varInt,     ProtoWireType::fixed64,  ProtoWireType::lengthDelimited,
    ProtoWireType::startGroup, ProtoWireType::endGroup, ProtoWireType::fixed32,
};

AnyValue enumNumber(int64_t number) {
  return EnumValue(detail::EnumValueImpl{colorSchema(), number});
}

// Equal kind and value; floating-point values must have the same bit pattern, so that NaNs and
// signed zeros are told apart.
::testing::AssertionResult sameValue(const detail::AnyValueImpl& actual, const AnyValue& expected) {
  bool same = actual.kind() == expected.kind();
  if (same && actual.kind() == detail::AnyValueImpl::Case::float_) {
    same = std::bit_cast<uint32_t>(actual.floatValue()) ==
           std::bit_cast<uint32_t>(expected.floatValue());
  } else if (same && actual.kind() == detail::AnyValueImpl::Case::double_) {
    same = std::bit_cast<uint64_t>(actual.doubleValue()) ==
           std::bit_cast<uint64_t>(expected.doubleValue());
  } else if (same) {
    same = AnyValue::from(actual) == expected;
  }
  if (same) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure()
         << "decoded " << actual.describe() << ", expected " << expected.describe();
}

struct DecodeRow {
  std::string name;
  Case type;
  ProtoWireType wireType;
  Bytes bytes;  // the value after its tag, followed by whatever the row needs
  AnyValue expected;
  int64_t positionAfter;
};

TEST(DecodeValueTest, DecodesEachTypeFromItsWireType) {
  const std::vector<DecodeRow> rows = {
      {"int32", Case::int32, ProtoWireType::varInt, bytesOf({0x96, 0x01, 0x7f}), int32_t{150}, 2},
      {"int32 ten-byte -1", Case::int32, ProtoWireType::varInt,
       bytesOf({0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x01}), int32_t{-1}, 10},
      {"int32 keeps the low 32 bits", Case::int32, ProtoWireType::varInt,
       bytesOf({0xff, 0xff, 0xff, 0xff, 0x1f}), int32_t{-1}, 5},
      {"int32 minimum", Case::int32, ProtoWireType::varInt,
       bytesOf({0x80, 0x80, 0x80, 0x80, 0xf8, 0xff, 0xff, 0xff, 0xff, 0x01}),
       std::numeric_limits<int32_t>::min(), 10},
      {"uint32", Case::uint32, ProtoWireType::varInt, bytesOf({0xff, 0xff, 0xff, 0xff, 0x0f}),
       uint32_t{0xFFFFFFFF}, 5},
      {"uint32 2^32 + 5 reads 5", Case::uint32, ProtoWireType::varInt,
       bytesOf({0x85, 0x80, 0x80, 0x80, 0x10}), uint32_t{5}, 5},
      {"sint32 1", Case::sint32, ProtoWireType::varInt, bytesOf({0x01}), int32_t{-1}, 1},
      {"sint32 2", Case::sint32, ProtoWireType::varInt, bytesOf({0x02}), int32_t{1}, 1},
      {"sint32 0", Case::sint32, ProtoWireType::varInt, bytesOf({0x00}), int32_t{0}, 1},
      {"sint32 maximum", Case::sint32, ProtoWireType::varInt,
       bytesOf({0xfe, 0xff, 0xff, 0xff, 0x0f}), std::numeric_limits<int32_t>::max(), 5},
      {"sint32 minimum", Case::sint32, ProtoWireType::varInt,
       bytesOf({0xff, 0xff, 0xff, 0xff, 0x0f}), std::numeric_limits<int32_t>::min(), 5},
      {"sint32 zigzag on the truncated bits", Case::sint32, ProtoWireType::varInt,
       bytesOf({0x83, 0x80, 0x80, 0x80, 0x10}), int32_t{-2}, 5},
      {"int64", Case::int64, ProtoWireType::varInt,
       bytesOf({0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x01}), int64_t{-1}, 10},
      {"int64 beyond 32 bits", Case::int64, ProtoWireType::varInt,
       bytesOf({0x85, 0x80, 0x80, 0x80, 0x10}), int64_t{0x100000005}, 5},
      {"uint64", Case::uint64, ProtoWireType::varInt,
       bytesOf({0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x01}),
       std::numeric_limits<uint64_t>::max(), 10},
      {"sint64 3", Case::sint64, ProtoWireType::varInt, bytesOf({0x03}), int64_t{-2}, 1},
      {"sint64 4", Case::sint64, ProtoWireType::varInt, bytesOf({0x04}), int64_t{2}, 1},
      {"sint64 minimum", Case::sint64, ProtoWireType::varInt,
       bytesOf({0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x01}),
       std::numeric_limits<int64_t>::min(), 10},
      {"bool false", Case::bool_, ProtoWireType::varInt, bytesOf({0x00}), false, 1},
      {"bool true", Case::bool_, ProtoWireType::varInt, bytesOf({0x01}), true, 1},
      {"bool 2 is true", Case::bool_, ProtoWireType::varInt, bytesOf({0x02}), true, 1},
      {"bool with only high bits is true", Case::bool_, ProtoWireType::varInt,
       bytesOf({0x80, 0x80, 0x80, 0x80, 0x10}), true, 5},
      {"enum", Case::enum_, ProtoWireType::varInt, bytesOf({0x02}), enumNumber(2), 1},
      {"enum with an unknown number", Case::enum_, ProtoWireType::varInt, bytesOf({0xe7, 0x07}),
       enumNumber(999), 2},
      {"enum negative", Case::enum_, ProtoWireType::varInt,
       bytesOf({0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x01}), enumNumber(-1), 10},
      {"enum keeps the low 32 bits as signed", Case::enum_, ProtoWireType::varInt,
       bytesOf({0xff, 0xff, 0xff, 0xff, 0x0f}), enumNumber(-1), 5},
      {"fixed32", Case::fixed32, ProtoWireType::fixed32, bytesOf({0x78, 0x56, 0x34, 0x12, 0x7f}),
       uint32_t{0x12345678}, 4},
      {"sfixed32", Case::sfixed32, ProtoWireType::fixed32, bytesOf({0xfe, 0xff, 0xff, 0xff}),
       int32_t{-2}, 4},
      {"float", Case::float_, ProtoWireType::fixed32, bytesOf({0x00, 0x00, 0xc0, 0xbf}), -1.5f, 4},
      {"fixed64", Case::fixed64, ProtoWireType::fixed64,
       bytesOf({0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01, 0x7f}),
       uint64_t{0x0102030405060708}, 8},
      {"sfixed64", Case::sfixed64, ProtoWireType::fixed64,
       bytesOf({0xfe, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff}), int64_t{-2}, 8},
      {"double", Case::double_, ProtoWireType::fixed64,
       bytesOf({0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xf0, 0x3f}), 1.0, 8},
      {"string", Case::string, ProtoWireType::lengthDelimited, bytesOf({0x03, 'a', 'b', 'c', 0x7f}),
       "abc", 4},
      {"string empty", Case::string, ProtoWireType::lengthDelimited, bytesOf({0x00}), "", 1},
      {"string two-byte character", Case::string, ProtoWireType::lengthDelimited,
       bytesOf({0x02, 0xc3, 0xa9}), "\xC3\xA9", 3},
      {"string C3 28 repaired", Case::string, ProtoWireType::lengthDelimited,
       bytesOf({0x02, 0xc3, 0x28}), "\xEF\xBF\xBD(", 3},
      {"bytes", Case::bytes, ProtoWireType::lengthDelimited, bytesOf({0x02, 0x00, 0xff, 0x7f}),
       bytesOf({0x00, 0xff}), 3},
      {"bytes invalid UTF-8 kept", Case::bytes, ProtoWireType::lengthDelimited,
       bytesOf({0x02, 0xc3, 0x28}), bytesOf({0xc3, 0x28}), 3},
      {"message", Case::message, ProtoWireType::lengthDelimited, bytesOf({0x02, 0x08, 0x01, 0x7f}),
       SchematizedData(pointSchema(), bytesOf({0x08, 0x01})), 3},
      {"message empty", Case::message, ProtoWireType::lengthDelimited, bytesOf({0x00}),
       SchematizedData(pointSchema(), Bytes{}), 1},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Reader reader(row.bytes);
    const detail::AnyValueImpl value = decodeValue(reader, typeOf(row.type), row.wireType);
    EXPECT_TRUE(sameValue(value, row.expected));
    EXPECT_EQ(reader.position(), row.positionAfter);
  }
}

struct MismatchRow {
  std::string name;
  Case type;
  ProtoWireType accepted;
};

TEST(DecodeValueTest, EachTypeAcceptsExactlyOneWireType) {
  const std::vector<MismatchRow> rows = {
      {"enum", Case::enum_, ProtoWireType::varInt},
      {"message", Case::message, ProtoWireType::lengthDelimited},
      {"int32", Case::int32, ProtoWireType::varInt},
      {"uint32", Case::uint32, ProtoWireType::varInt},
      {"sint32", Case::sint32, ProtoWireType::varInt},
      {"fixed32", Case::fixed32, ProtoWireType::fixed32},
      {"sfixed32", Case::sfixed32, ProtoWireType::fixed32},
      {"int64", Case::int64, ProtoWireType::varInt},
      {"uint64", Case::uint64, ProtoWireType::varInt},
      {"sint64", Case::sint64, ProtoWireType::varInt},
      {"fixed64", Case::fixed64, ProtoWireType::fixed64},
      {"sfixed64", Case::sfixed64, ProtoWireType::fixed64},
      {"double", Case::double_, ProtoWireType::fixed64},
      {"float", Case::float_, ProtoWireType::fixed32},
      {"bool", Case::bool_, ProtoWireType::varInt},
      {"string", Case::string, ProtoWireType::lengthDelimited},
      {"bytes", Case::bytes, ProtoWireType::lengthDelimited},
  };
  ASSERT_EQ(rows.size(), kAllCases.size());
  // Readable by every decoder: a one-byte varint, a length of 1, and enough for fixed widths.
  const Bytes bytes = bytesOf({0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01});
  for (const auto& row : rows) {
    const TypeSchemaDescription type = typeOf(row.type);
    for (ProtoWireType wireType : kAllWireTypes) {
      SCOPED_TRACE(row.name + " with " + std::string(caseName(wireType)));
      Reader reader(bytes);
      if (wireType == row.accepted) {
        EXPECT_NO_THROW(decodeValue(reader, type, wireType));
        EXPECT_GT(reader.position(), 0);
      } else {
        EXPECT_EQ(catchError([&] { decodeValue(reader, type, wireType); }),
                  SerializationError::typeMismatch(type, wireType));
        EXPECT_EQ(reader.position(), 0);
      }
    }
  }
}

TEST(DecodeValueTest, Fixed32EncodedAsVarintIsATypeMismatch) {
  const Bytes bytes = bytesOf({0x05});
  Reader reader(bytes);
  EXPECT_EQ(catchError([&] {
              decodeValue(reader, TypeSchemaDescription::scalar(Case::fixed32),
                          ProtoWireType::varInt);
            }),
            SerializationError::typeMismatch(TypeSchemaDescription::scalar(Case::fixed32),
                                             ProtoWireType::varInt));
}

TEST(DecodeValueTest, PackedRunWhereASingleValueIsExpectedIsATypeMismatch) {
  const Bytes bytes = bytesOf({0x03, 0x01, 0x02, 0x03});
  Reader reader(bytes);
  const auto type = TypeSchemaDescription::scalar(Case::int32);
  EXPECT_EQ(catchError([&] { decodeValue(reader, type, ProtoWireType::lengthDelimited); }),
            SerializationError::typeMismatch(type, ProtoWireType::lengthDelimited));
}

struct FaultRow {
  std::string name;
  Case type;
  ProtoWireType wireType;
  Bytes bytes;
  SerializationError expected;
};

TEST(DecodeValueTest, FaultsOfTheBytes) {
  const std::vector<FaultRow> rows = {
      {"varint on an empty buffer", Case::int32, ProtoWireType::varInt, Bytes{}, kMalformed},
      {"varint runs off the end", Case::uint64, ProtoWireType::varInt, bytesOf({0x80, 0x80}),
       kMalformed},
      {"varint longer than ten bytes", Case::bool_, ProtoWireType::varInt,
       bytesOf({0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x81, 0x00}), kMalformed},
      {"enum varint runs off the end", Case::enum_, ProtoWireType::varInt, bytesOf({0x80}),
       kMalformed},
      {"fixed32 cut short", Case::fixed32, ProtoWireType::fixed32, bytesOf({0x01, 0x02}),
       kTruncated},
      {"double cut short", Case::double_, ProtoWireType::fixed64, bytesOf({0x01, 0x02, 0x03, 0x04}),
       kTruncated},
      {"string longer than the buffer", Case::string, ProtoWireType::lengthDelimited,
       bytesOf({0x05, 'a', 'b', 'c'}), kTruncated},
      {"bytes longer than the buffer", Case::bytes, ProtoWireType::lengthDelimited,
       bytesOf({0x02, 0x00}), kTruncated},
      {"message longer than the buffer", Case::message, ProtoWireType::lengthDelimited,
       bytesOf({0x7f}), kTruncated},
      {"string negative length", Case::string, ProtoWireType::lengthDelimited,
       bytesOf({0xff, 0xff, 0xff, 0xff, 0x0f}), kMalformed},
      {"message negative length", Case::message, ProtoWireType::lengthDelimited,
       bytesOf({0x80, 0x80, 0x80, 0x80, 0x08}), kMalformed},
      {"bytes length runs off the end", Case::bytes, ProtoWireType::lengthDelimited,
       bytesOf({0x80}), kMalformed},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Reader reader(row.bytes);
    EXPECT_EQ(catchError([&] { decodeValue(reader, typeOf(row.type), row.wireType); }),
              row.expected);
  }
}

TEST(DecodeValueTest, StringLengthUsesOnlyTheLow32Bits) {
  const Bytes bytes = bytesOf({0x81, 0x80, 0x80, 0x80, 0x10, 'x', 'y'});
  Reader reader(bytes);
  const detail::AnyValueImpl value = decodeValue(
      reader, TypeSchemaDescription::scalar(Case::string), ProtoWireType::lengthDelimited);
  EXPECT_EQ(value.stringValue(), "x");
  EXPECT_EQ(reader.position(), 6);
}

TEST(DecodeValueTest, BytesBorrowFromTheBuffer) {
  const Bytes bytes = bytesOf({0x03, 0x0a, 0x0b, 0x0c, 0x7f});
  Reader reader(bytes);
  const detail::AnyValueImpl value = decodeValue(reader, TypeSchemaDescription::scalar(Case::bytes),
                                                 ProtoWireType::lengthDelimited);
  ASSERT_EQ(value.kind(), detail::AnyValueImpl::Case::bytes);
  EXPECT_EQ(value.bytesValue().view().data(), bytes.data() + 1);
  EXPECT_EQ(value.bytesValue().view().size(), 3u);
}

TEST(DecodeValueTest, MessageBorrowsItsPayloadAndKeepsItsSchema) {
  const Bytes bytes = bytesOf({0x0a, 0x02, 0x08, 0x01, 0x10, 0x02});
  Reader reader(bytes);
  reader.setPosition(1);
  const detail::AnyValueImpl value = decodeValue(
      reader, TypeSchemaDescription::messageType(pointSchema()), ProtoWireType::lengthDelimited);
  ASSERT_EQ(value.kind(), detail::AnyValueImpl::Case::message);
  EXPECT_EQ(value.messageValue().bytes().data(), bytes.data() + 2);
  EXPECT_EQ(value.messageValue().bytes().size(), 2u);
  EXPECT_EQ(value.messageValue().messageSchema(), pointSchema());
  EXPECT_EQ(reader.position(), 4);
  // The public value owns a copy equal to the payload.
  const AnyValue owned = AnyValue::from(value);
  EXPECT_EQ(owned.messageValue().data(), bytesOf({0x08, 0x01}));
  EXPECT_NE(owned.messageValue().bytes().data(), bytes.data() + 2);
}

TEST(DecodeValueTest, EnumKeepsItsSchemaAndNumber) {
  const Bytes bytes = bytesOf({0x2a});
  Reader reader(bytes);
  const detail::AnyValueImpl value =
      decodeValue(reader, TypeSchemaDescription::enumType(colorSchema()), ProtoWireType::varInt);
  ASSERT_EQ(value.kind(), detail::AnyValueImpl::Case::enum_);
  EXPECT_EQ(value.enumValue().type, colorSchema());
  ASSERT_TRUE(std::holds_alternative<int64_t>(value.enumValue().container));
  EXPECT_EQ(std::get<int64_t>(value.enumValue().container), 42);
}

struct Utf8Row {
  std::string name;
  Bytes bytes;
  std::string expected;
};

// U+FFFD REPLACEMENT CHARACTER.
#define R "\xEF\xBF\xBD"

// The rule at work on the cases that show it; the comparison with the reference decoder below
// covers the rest.
TEST(DecodeUtf8LossyTest, ReplacesEachMaximalSubpart) {
  const std::vector<Utf8Row> rows = {
      {"empty", Bytes{}, ""},
      {"every width, NUL kept",
       bytesOf({'a', 0x00, 0xc3, 0xa9, 0xe2, 0x82, 0xac, 0xf4, 0x8f, 0xbf, 0xbf}),
       std::string("a\0\xC3\xA9\xE2\x82\xAC\xF4\x8F\xBF\xBF", 11)},
      {"surrogate ED A0 80", bytesOf({0xed, 0xa0, 0x80}), R R R},
      {"overlong C0 AF", bytesOf({0xc0, 0xaf}), R R},
      {"truncated three-byte at end", bytesOf({'a', 0xe2, 0x82}), "a" R},
      {"truncated by a new lead", bytesOf({0xe2, 0xc3, 0xa9}), R "\xC3\xA9"},
      {"invalid in the middle of a word",
       toBytes("abcdefghijk\xff"
               "lmnopqrstu"),
       "abcdefghijk" R "lmnopqrstu"},
      {"Unicode table 3-8",
       bytesOf({0x61, 0xf1, 0x80, 0x80, 0xe1, 0x80, 0xc2, 0x62, 0x80, 0x63, 0x80, 0xbf, 0x64}),
       "a" R R R "b" R "c" R R "d"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(decodeUtf8Lossy(row.bytes), row.expected);
  }
}

#undef R

void appendCodePoint(std::string& out, uint32_t cp) {
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (cp >> 18));
    out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

// The decoder of the WHATWG Encoding Standard, step by step as written there, as an independent
// reference: one byte at a time, a byte that breaks a sequence is processed again.
std::string referenceUtf8Decode(const Bytes& bytes) {
  std::string out;
  uint32_t codePoint = 0;
  int bytesSeen = 0;
  int bytesNeeded = 0;
  uint8_t lower = 0x80;
  uint8_t upper = 0xBF;
  size_t i = 0;
  for (;;) {
    if (i == bytes.size()) {
      if (bytesNeeded != 0) appendCodePoint(out, 0xFFFD);
      return out;
    }
    const auto byte = static_cast<uint8_t>(bytes[i]);
    if (bytesNeeded == 0) {
      ++i;
      if (byte <= 0x7F) {
        appendCodePoint(out, byte);
      } else if (byte >= 0xC2 && byte <= 0xDF) {
        bytesNeeded = 1;
        codePoint = byte & 0x1F;
      } else if (byte >= 0xE0 && byte <= 0xEF) {
        if (byte == 0xE0) lower = 0xA0;
        if (byte == 0xED) upper = 0x9F;
        bytesNeeded = 2;
        codePoint = byte & 0xF;
      } else if (byte >= 0xF0 && byte <= 0xF4) {
        if (byte == 0xF0) lower = 0x90;
        if (byte == 0xF4) upper = 0x8F;
        bytesNeeded = 3;
        codePoint = byte & 0x7;
      } else {
        appendCodePoint(out, 0xFFFD);
      }
      continue;
    }
    if (byte < lower || byte > upper) {
      codePoint = 0;
      bytesNeeded = 0;
      bytesSeen = 0;
      lower = 0x80;
      upper = 0xBF;
      appendCodePoint(out, 0xFFFD);
      continue;  // the byte is processed again
    }
    ++i;
    lower = 0x80;
    upper = 0xBF;
    codePoint = (codePoint << 6) | (byte & 0x3F);
    if (++bytesSeen == bytesNeeded) {
      appendCodePoint(out, codePoint);
      codePoint = 0;
      bytesNeeded = 0;
      bytesSeen = 0;
    }
  }
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

struct PackedRow {
  std::string name;
  Case type;
  Bytes bytes;
  AnyValue expected;
  int64_t positionAfter;
};

TEST(DecodePackedElementTest, EncodingFollowsFromTheType) {
  const std::vector<PackedRow> rows = {
      {"int32", Case::int32, bytesOf({0x96, 0x01, 0x05}), int32_t{150}, 2},
      {"int32 ten-byte -1", Case::int32,
       bytesOf({0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x01}), int32_t{-1}, 10},
      {"uint32 truncated", Case::uint32, bytesOf({0x85, 0x80, 0x80, 0x80, 0x10}), uint32_t{5}, 5},
      {"sint32", Case::sint32, bytesOf({0x01}), int32_t{-1}, 1},
      {"int64", Case::int64, bytesOf({0x85, 0x80, 0x80, 0x80, 0x10}), int64_t{0x100000005}, 5},
      {"uint64", Case::uint64, bytesOf({0xac, 0x02}), uint64_t{300}, 2},
      {"sint64", Case::sint64, bytesOf({0x03}), int64_t{-2}, 1},
      {"bool", Case::bool_, bytesOf({0x02}), true, 1},
      {"enum", Case::enum_, bytesOf({0x07}), enumNumber(7), 1},
      {"fixed32", Case::fixed32, bytesOf({0x01, 0x00, 0x00, 0x80, 0x09}), uint32_t{0x80000001}, 4},
      {"sfixed32", Case::sfixed32, bytesOf({0xff, 0xff, 0xff, 0xff}), int32_t{-1}, 4},
      {"float", Case::float_, bytesOf({0x00, 0x00, 0x80, 0x3f}), 1.0f, 4},
      {"fixed64", Case::fixed64, bytesOf({0xff, 0, 0, 0, 0, 0, 0, 0x80}),
       uint64_t{0x80000000000000ff}, 8},
      {"sfixed64", Case::sfixed64, bytesOf({0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff}),
       int64_t{-1}, 8},
      {"double", Case::double_, bytesOf({0, 0, 0, 0, 0, 0, 0x04, 0xc0}), -2.5, 8},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Reader reader(row.bytes);
    EXPECT_TRUE(sameValue(decodePackedElement(reader, typeOf(row.type)), row.expected));
    EXPECT_EQ(reader.position(), row.positionAfter);
  }
}

TEST(DecodePackedElementTest, LengthDelimitedTypesCannotBePacked) {
  const Bytes bytes = bytesOf({0x01, 0x01});
  for (Case kind : {Case::message, Case::string, Case::bytes}) {
    SCOPED_TRACE(std::string(caseName(kind)));
    Reader reader(bytes);
    EXPECT_EQ(catchError([&] { decodePackedElement(reader, typeOf(kind)); }), kMalformed);
  }
}

TEST(DecodePackedElementTest, Faults) {
  const Bytes shortBytes = bytesOf({0x80, 0x80});
  Reader varintReader(shortBytes);
  EXPECT_EQ(catchError([&] { decodePackedElement(varintReader, typeOf(Case::sint64)); }),
            kMalformed);
  Reader fixedReader(shortBytes);
  EXPECT_EQ(catchError([&] { decodePackedElement(fixedReader, typeOf(Case::sfixed32)); }),
            kTruncated);
}

struct SkipRow {
  std::string name;
  Case type;
  Bytes bytes;
  int64_t start;
  int64_t end;  // the run's end: the reader's end position
  int64_t count;
  std::optional<int64_t> positionAfter;  // -1: the run is too short; no value: malformedProtobuf
};

TEST(SkipPackedElementsTest, SkipsByTypeWithinTheRun) {
  const Bytes varints = bytesOf({0x01, 0x96, 0x01, 0xff, 0xff, 0xff, 0xff, 0x0f, 0x03});
  const Bytes words = bytesOf({1, 0, 0, 0, 2, 0, 0, 0, 3, 0, 0, 0});
  const Bytes longs = bytesOf({1, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0, 0, 0, 0, 0});
  const int64_t huge = std::numeric_limits<int64_t>::max();
  const std::vector<SkipRow> rows = {
      {"varint none", Case::int32, varints, 0, 9, 0, 0},
      {"varint one", Case::int32, varints, 0, 9, 1, 1},
      {"varint three of different widths", Case::uint64, varints, 0, 9, 3, 8},
      {"varint all", Case::sint32, varints, 0, 9, 4, 9},
      {"varint from inside", Case::enum_, varints, 1, 9, 2, 8},
      {"varint past the run", Case::bool_, varints, 0, 9, 5, -1},
      {"varint past a run shorter than the buffer", Case::bool_, varints, 0, 3, 3, -1},
      {"varint huge count", Case::int64, varints, 0, 9, huge, -1},
      {"varint negative count", Case::sint64, varints, 0, 9, -3, -1},
      {"varint running over the run's end", Case::uint32, varints, 0, 2, 2, std::nullopt},
      {"varint runs off the buffer", Case::uint32, bytesOf({0x01, 0x80}), 0, 2, 2, std::nullopt},
      {"fixed32 one", Case::fixed32, words, 0, 12, 1, 4},
      {"fixed32 to the last", Case::fixed32, words, 0, 12, 2, 8},
      {"fixed32 to the run's end", Case::fixed32, words, 0, 12, 3, 12},
      {"fixed32 past the run", Case::sfixed32, words, 0, 12, 10, -1},
      {"fixed32 past a run shorter than the buffer", Case::sfixed32, words, 0, 8, 3, -1},
      {"fixed32 from inside", Case::float_, words, 4, 12, 1, 8},
      {"fixed32 from inside past the run", Case::float_, words, 4, 12, 3, -1},
      {"fixed32 overflowing count", Case::fixed32, words, 4, 12, huge, -1},
      {"fixed32 negative count", Case::fixed32, words, 8, 12, -1, -1},
      {"fixed32 zero", Case::sfixed32, words, 4, 12, 0, 4},
      {"fixed32 run past the buffer", Case::fixed32, words, 0, 40, 5, 20},
      {"fixed64 one", Case::fixed64, longs, 0, 16, 1, 8},
      {"fixed64 past the run", Case::sfixed64, longs, 0, 16, 3, -1},
      {"fixed64 overflowing count", Case::double_, longs, 8, 16, huge / 4, -1},
      {"fixed64 negative count", Case::double_, longs, 8, 16, -1, -1},
      {"string", Case::string, varints, 0, 9, 1, std::nullopt},
      {"string zero count", Case::string, varints, 0, 9, 0, std::nullopt},
      {"bytes", Case::bytes, varints, 0, 9, 1, std::nullopt},
      {"message", Case::message, varints, 0, 9, 1, std::nullopt},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Reader reader(row.bytes);
    reader.setPosition(row.start);
    reader.setEndPosition(row.end);
    if (!row.positionAfter) {
      EXPECT_EQ(catchError([&] { skipPackedElements(reader, typeOf(row.type), row.count); }),
                kMalformed);
    } else if (*row.positionAfter < 0) {
      EXPECT_FALSE(skipPackedElements(reader, typeOf(row.type), row.count));
    } else {
      EXPECT_TRUE(skipPackedElements(reader, typeOf(row.type), row.count));
      EXPECT_EQ(reader.position(), *row.positionAfter);
    }
  }
}

// Differential check against libprotobuf's encoder: each row writes a value derived from random
// bits, after a tag (`tagged`) and bare as a packed element (`packed`, null for types that cannot
// be packed), and returns the value it wrote.
using google::protobuf::io::CodedOutputStream;

struct EncoderRow {
  std::string name;
  Case type;
  std::function<AnyValue(uint64_t bits, int fieldNumber, CodedOutputStream& tagged,
                         CodedOutputStream* packed)>
      write;
};

std::string randomText(std::mt19937_64& rng, uint64_t bits) {
  std::string text;
  for (uint64_t i = 0, n = bits % 12; i < n; ++i) {
    uint32_t cp = static_cast<uint32_t>(rng() % 0x110000);
    if (rng() % 2) cp %= 0x80;
    if (cp >= 0xD800 && cp <= 0xDFFF) cp = 'x';
    appendCodePoint(text, cp);
  }
  return text;
}

// A value of type T made from random bits: floating-point values take the bits as they are, so that
// NaNs, infinities and subnormals come up.
template <typename T>
T fromBits(uint64_t bits) {
  if constexpr (std::is_same_v<T, float>) return std::bit_cast<float>(static_cast<uint32_t>(bits));
  if constexpr (std::is_same_v<T, double>) return std::bit_cast<double>(bits);
  if constexpr (std::is_same_v<T, bool>) return (bits & 1) != 0;
  return static_cast<T>(bits);
}

// A row writing a scalar with libprotobuf's tagged and bare writers of its type.
template <typename T>
EncoderRow scalarRow(std::string name, Case type, void (*tagged)(int, T, CodedOutputStream*),
                     void (*bare)(T, CodedOutputStream*)) {
  return {std::move(name), type,
          [=](uint64_t bits, int field, CodedOutputStream& out, CodedOutputStream* packed) {
            const T v = fromBits<T>(bits);
            tagged(field, v, &out);
            bare(v, packed);
            return type == Case::enum_ ? enumNumber(v) : AnyValue(v);
          }};
}

TEST(DecodeValueTest, AgreesWithLibprotobufEncoder) {
  using W = WireFormatLite;
  std::mt19937_64 rng(42);
  const std::vector<EncoderRow> rows = {
      scalarRow<int32_t>("int32", Case::int32, W::WriteInt32, W::WriteInt32NoTag),
      scalarRow<uint32_t>("uint32", Case::uint32, W::WriteUInt32, W::WriteUInt32NoTag),
      scalarRow<int32_t>("sint32", Case::sint32, W::WriteSInt32, W::WriteSInt32NoTag),
      scalarRow<int64_t>("int64", Case::int64, W::WriteInt64, W::WriteInt64NoTag),
      scalarRow<uint64_t>("uint64", Case::uint64, W::WriteUInt64, W::WriteUInt64NoTag),
      scalarRow<int64_t>("sint64", Case::sint64, W::WriteSInt64, W::WriteSInt64NoTag),
      scalarRow<bool>("bool", Case::bool_, W::WriteBool, W::WriteBoolNoTag),
      scalarRow<int>("enum", Case::enum_, W::WriteEnum, W::WriteEnumNoTag),
      scalarRow<uint32_t>("fixed32", Case::fixed32, W::WriteFixed32, W::WriteFixed32NoTag),
      scalarRow<int32_t>("sfixed32", Case::sfixed32, W::WriteSFixed32, W::WriteSFixed32NoTag),
      scalarRow<float>("float", Case::float_, W::WriteFloat, W::WriteFloatNoTag),
      scalarRow<uint64_t>("fixed64", Case::fixed64, W::WriteFixed64, W::WriteFixed64NoTag),
      scalarRow<int64_t>("sfixed64", Case::sfixed64, W::WriteSFixed64, W::WriteSFixed64NoTag),
      scalarRow<double>("double", Case::double_, W::WriteDouble, W::WriteDoubleNoTag),
      {"string", Case::string,
       [&rng](uint64_t bits, int field, CodedOutputStream& tagged, CodedOutputStream*) {
         const std::string v = randomText(rng, bits);
         W::WriteString(field, v, &tagged);
         return AnyValue(v);
       }},
      {"bytes", Case::bytes,
       [&rng](uint64_t bits, int field, CodedOutputStream& tagged, CodedOutputStream*) {
         std::string v(bits % 20, '\0');
         for (auto& c : v) c = static_cast<char>(rng());
         W::WriteBytes(field, v, &tagged);
         return AnyValue(toBytes(v));
       }},
  };
  constexpr int kValues = 300;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const TypeSchemaDescription type = typeOf(row.type);
    const bool packable = row.type != Case::string && row.type != Case::bytes;
    std::string taggedBytes;
    std::string packedBytes;
    std::vector<AnyValue> expected;
    std::vector<int> fieldNumbers;
    {
      google::protobuf::io::StringOutputStream taggedStream(&taggedBytes);
      google::protobuf::io::StringOutputStream packedStream(&packedBytes);
      CodedOutputStream tagged(&taggedStream);
      CodedOutputStream packed(&packedStream);
      for (int i = 0; i < kValues; ++i) {
        // Every magnitude, and as often its complement, so that negative numbers of every size
        // come up too.
        uint64_t bits = rng() >> (rng() % 64);
        if (rng() % 2) bits = ~bits;
        const int fieldNumber = 1 + static_cast<int>(rng() % ((1u << 29) - 1));
        fieldNumbers.push_back(fieldNumber);
        expected.push_back(row.write(bits, fieldNumber, tagged, packable ? &packed : nullptr));
      }
    }
    Reader reader(asBytes(taggedBytes));
    for (int i = 0; i < kValues; ++i) {
      SCOPED_TRACE(i);
      const FieldTag tag = reader.readTag();
      ASSERT_EQ(tag.fieldNumber(), fieldNumbers[i]);
      ASSERT_TRUE(sameValue(decodeValue(reader, type, tag.wireType()), expected[i]));
    }
    EXPECT_EQ(reader.position(), reader.size());
    if (!packable) continue;

    Reader run(asBytes(packedBytes));
    for (int i = 0; i < kValues; ++i) {
      SCOPED_TRACE(i);
      ASSERT_TRUE(sameValue(decodePackedElement(run, type), expected[i]));
    }
    EXPECT_EQ(run.position(), run.size());
    for (int i = 0; i < 20; ++i) {
      const auto index = static_cast<int64_t>(rng() % kValues);
      SCOPED_TRACE("skip to " + std::to_string(index));
      Reader skipped(asBytes(packedBytes));
      skipPackedElements(skipped, type, index);
      ASSERT_TRUE(sameValue(decodePackedElement(skipped, type), expected[index]));
    }
  }
}

}  // namespace
}  // namespace ostrel
