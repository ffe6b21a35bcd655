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
using Case = TypeSchemaDescription::Case;

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

}  // namespace
}  // namespace ostrel
