#include "ostrel/wire/value_decoding.hpp"

#include <array>
#include <bit>
#include <cstring>

#include "wire/scalar_decoding.hpp"

namespace ostrel {
namespace {

using detail::Case;
using detail::decodeFixedEncoding;
using detail::kRequiredWireType;

// Moves past `count` elements of `width` bytes when the result lies inside the buffer; otherwise
// (including when the arithmetic would overflow) stays, so that element 0 is read next.
void skipFixedWidth(Reader& reader, int64_t width, int64_t count) {
  if (count <= 0) return;
  int64_t offset;
  int64_t next;
  if (__builtin_mul_overflow(count, width, &offset) ||
      __builtin_add_overflow(reader.position(), offset, &next)) {
    return;
  }
  if (next < reader.size()) reader.setPosition(next);
}

constexpr std::string_view kReplacementCharacter = "\xEF\xBF\xBD";

// The outcome of looking at one sequence that starts with a byte of 0x80 or above: either a
// complete valid sequence of `length` bytes, or an invalid one whose maximal subpart has `length`
// bytes (at least one) and is replaced by a single U+FFFD.
struct Utf8Step {
  size_t length;
  bool valid;
};

// Well-formed sequences after the lead byte: the second byte's range depends on the lead (to rule
// out overlong forms, surrogates and code points above U+10FFFF); later bytes are 80..BF.
inline Utf8Step classifySequence(const uint8_t* p, size_t available) noexcept {
  const uint8_t lead = p[0];
  size_t continuations;
  uint8_t low = 0x80;
  uint8_t high = 0xBF;
  if (lead >= 0xC2 && lead <= 0xDF) {
    continuations = 1;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    continuations = 2;
    if (lead == 0xE0) low = 0xA0;
    if (lead == 0xED) high = 0x9F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    continuations = 3;
    if (lead == 0xF0) low = 0x90;
    if (lead == 0xF4) high = 0x8F;
  } else {
    return {1, false};
  }
  for (size_t i = 1; i <= continuations; ++i) {
    if (i >= available || p[i] < low || p[i] > high) return {i, false};
    low = 0x80;
    high = 0xBF;
  }
  return {continuations + 1, true};
}

// The length of the longest prefix of p[0, size) made of complete, valid sequences. Runs of ASCII,
// the common case of field names and most text, are checked eight bytes at a time.
size_t validUtf8PrefixLength(const uint8_t* p, size_t size) noexcept {
  size_t i = 0;
  while (i < size) {
    while (size - i >= 8) {
      uint64_t word;
      std::memcpy(&word, p + i, sizeof word);
      if (word & 0x8080808080808080ull) break;
      i += 8;
    }
    while (i < size && p[i] < 0x80) ++i;
    if (i == size) break;
    const Utf8Step step = classifySequence(p + i, size - i);
    if (!step.valid) return i;
    i += step.length;
  }
  return size;
}

}  // namespace

std::string decodeUtf8Lossy(ByteView bytes) {
  const size_t size = bytes.size();
  if (size == 0) return {};
  const auto* p = reinterpret_cast<const uint8_t*>(bytes.data());
  size_t valid = validUtf8PrefixLength(p, size);
  if (valid == size) return std::string(asText(bytes));

  std::string text;
  text.reserve(size + kReplacementCharacter.size());
  size_t start = 0;
  for (;;) {
    text.append(reinterpret_cast<const char*>(p + start), valid - start);
    if (valid == size) return text;
    text.append(kReplacementCharacter);
    start = valid + classifySequence(p + valid, size - valid).length;
    valid = start + validUtf8PrefixLength(p + start, size - start);
  }
}

AnyValueImpl decodeValue(Reader& reader, const TypeSchemaDescription& type,
                         ProtoWireType wireType) {
  const Case kind = type.kind();
  if (wireType != kRequiredWireType[static_cast<size_t>(kind)]) [[unlikely]] {
    throw SerializationError::typeMismatch(type, wireType);
  }
  switch (kind) {
    case Case::string:
      return AnyValueImpl::string(decodeUtf8Lossy(reader.readLengthDelimited()));
    case Case::bytes:
      return AnyValueImpl::bytes(reader.readLengthDelimited());
    case Case::message:
      return AnyValueImpl::message(
          UnsafeSchematizedData(type.messageSchema(), reader.readLengthDelimited()));
    default:
      return decodeFixedEncoding(reader, type);
  }
}

AnyValueImpl decodePackedElement(Reader& reader, const TypeSchemaDescription& type) {
  return decodeFixedEncoding(reader, type);
}

void skipPackedElements(Reader& reader, const TypeSchemaDescription& type, int64_t count) {
  switch (type.kind()) {
    case Case::message:
    case Case::string:
    case Case::bytes:
      throw SerializationError::malformedProtobuf();
    case Case::fixed32:
    case Case::sfixed32:
    case Case::float_:
      skipFixedWidth(reader, 4, count);
      return;
    case Case::fixed64:
    case Case::sfixed64:
    case Case::double_:
      skipFixedWidth(reader, 8, count);
      return;
    case Case::int32:
    case Case::uint32:
    case Case::sint32:
    case Case::int64:
    case Case::uint64:
    case Case::sint64:
    case Case::bool_:
    case Case::enum_:
      for (int64_t i = 0; i < count; ++i) reader.readVarintValue();
      return;
  }
}

}  // namespace ostrel
