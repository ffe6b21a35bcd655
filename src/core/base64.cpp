#include "core/base64.hpp"

#include <array>
#include <cstdint>
#include <cstring>

#include "ostrel/core/values.hpp"

namespace ostrel {
namespace {

constexpr std::string_view kAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Character to its six-bit value; -1 for characters outside the alphabet (including "=").
constexpr std::array<int8_t, 256> kDecodeTable = [] {
  std::array<int8_t, 256> table{};
  table.fill(-1);
  for (size_t i = 0; i < kAlphabet.size(); ++i) {
    table[static_cast<unsigned char>(kAlphabet[i])] = static_cast<int8_t>(i);
  }
  return table;
}();

// The same, also taking the URL-safe alphabet's "-" and "_".
constexpr std::array<int8_t, 256> kEitherDecodeTable = [] {
  std::array<int8_t, 256> table = kDecodeTable;
  table[static_cast<unsigned char>('-')] = 62;
  table[static_cast<unsigned char>('_')] = 63;
  return table;
}();

// Every twelve bits as their two characters, so that three bytes take two look-ups.
constexpr std::array<std::array<char, 2>, 4096> kPairs = [] {
  std::array<std::array<char, 2>, 4096> table{};
  for (size_t i = 0; i < table.size(); ++i) table[i] = {kAlphabet[i >> 6], kAlphabet[i & 0x3F]};
  return table;
}();

}  // namespace

char* detail::writeBase64(char* p, ByteView bytes) noexcept {
  size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    const uint32_t group = std::to_integer<uint32_t>(bytes[i]) << 16 |
                           std::to_integer<uint32_t>(bytes[i + 1]) << 8 |
                           std::to_integer<uint32_t>(bytes[i + 2]);
    std::memcpy(p, kPairs[group >> 12].data(), 2);
    std::memcpy(p + 2, kPairs[group & 0xFFF].data(), 2);
    p += 4;
  }
  const size_t rest = bytes.size() - i;
  if (rest > 0) {
    uint32_t group = std::to_integer<uint32_t>(bytes[i]) << 16;
    if (rest == 2) group |= std::to_integer<uint32_t>(bytes[i + 1]) << 8;
    p[0] = kAlphabet[group >> 18];
    p[1] = kAlphabet[(group >> 12) & 0x3F];
    p[2] = rest == 2 ? kAlphabet[(group >> 6) & 0x3F] : '=';
    p[3] = '=';
    p += 4;
  }
  return p;
}

void appendBase64(ByteView bytes, std::string& out) {
  const size_t start = out.size();
  out.resize(start + detail::base64Size(bytes.size()));
  detail::writeBase64(out.data() + start, bytes);
}

std::string base64Encode(ByteView bytes) {
  std::string out;
  appendBase64(bytes, out);
  return out;
}

std::optional<Bytes> base64Decode(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  Bytes out;
  out.reserve(text.size() / 4 * 3);
  for (size_t i = 0; i < text.size(); i += 4) {
    const bool lastGroup = i + 4 == text.size();
    uint32_t group = 0;
    int padding = 0;
    for (size_t j = 0; j < 4; ++j) {
      const char c = text[i + j];
      int value = 0;
      if (c == '=') {
        // Padding stands only in the last two places of the last group.
        if (!lastGroup || j < 2) return std::nullopt;
        ++padding;
      } else {
        if (padding > 0) return std::nullopt;
        value = kDecodeTable[static_cast<unsigned char>(c)];
        if (value < 0) return std::nullopt;
      }
      group = group << 6 | static_cast<uint32_t>(value);
    }
    // The bits under the padding must be zero, or two texts would decode to the same bytes.
    if (padding == 2 && (group & 0xFFFF) != 0) return std::nullopt;
    if (padding == 1 && (group & 0xFF) != 0) return std::nullopt;
    out.push_back(static_cast<std::byte>(group >> 16));
    if (padding < 2) out.push_back(static_cast<std::byte>((group >> 8) & 0xFF));
    if (padding < 1) out.push_back(static_cast<std::byte>(group & 0xFF));
  }
  return out;
}

namespace detail {

namespace {

// The length of `text` without its final padding, which only a text of whole groups has.
size_t unpaddedLength(std::string_view text) noexcept {
  size_t length = text.size();
  if (length % 4 == 0 && length > 0 && text[length - 1] == '=') {
    --length;
    if (text[length - 1] == '=') --length;
  }
  return length;
}

int32_t sextet(char c) noexcept { return kEitherDecodeTable[static_cast<unsigned char>(c)]; }

}  // namespace

std::optional<size_t> base64DecodedSize(std::string_view text) noexcept {
  const size_t length = unpaddedLength(text);
  // A last group of one character holds no whole byte.
  if (length % 4 == 1) return std::nullopt;
  return length / 4 * 3 + (length % 4 == 0 ? 0 : length % 4 - 1);
}

bool base64DecodeEitherAlphabet(std::string_view text, std::byte* out) noexcept {
  const size_t length = unpaddedLength(text);
  const char* p = text.data();
  // Whole groups of four characters, three bytes each; a character outside the alphabet has a
  // negative value.
  for (const char* const end = p + length / 4 * 4; p != end; p += 4, out += 3) {
    const int32_t a = sextet(p[0]), b = sextet(p[1]), c = sextet(p[2]), d = sextet(p[3]);
    if ((a | b | c | d) < 0) return false;
    const auto group = static_cast<uint32_t>(a << 18 | b << 12 | c << 6 | d);
    out[0] = static_cast<std::byte>(group >> 16);
    out[1] = static_cast<std::byte>(group >> 8);
    out[2] = static_cast<std::byte>(group);
  }
  switch (length % 4) {
    case 2: {
      const int32_t a = sextet(p[0]), b = sextet(p[1]);
      if ((a | b) < 0) return false;
      const auto group = static_cast<uint32_t>(a << 6 | b);
      out[0] = static_cast<std::byte>(group >> 4);
      break;
    }
    case 3: {
      const int32_t a = sextet(p[0]), b = sextet(p[1]), c = sextet(p[2]);
      if ((a | b | c) < 0) return false;
      const auto group = static_cast<uint32_t>(a << 12 | b << 6 | c);
      out[0] = static_cast<std::byte>(group >> 10);
      out[1] = static_cast<std::byte>(group >> 2);
      break;
    }
    default:
      break;
  }
  return true;
}

}  // namespace detail
}  // namespace ostrel
