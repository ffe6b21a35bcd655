#include "core/utf8.hpp"

#include <cstring>

namespace ostrel {
namespace detail {

size_t validUtf8PrefixLength(const unsigned char* p, size_t size) noexcept {
  size_t i = 0;
  while (i < size) {
    // Runs of ASCII, the common case of names and most text, are checked eight bytes at a time.
    while (size - i >= 8) {
      uint64_t word;
      std::memcpy(&word, p + i, sizeof word);
      if (word & 0x8080808080808080ull) break;
      i += 8;
    }
    while (i < size && p[i] < 0x80) ++i;
    if (i == size) break;
    const Utf8Step step = classifyUtf8(p + i, size - i);
    if (!step.valid) return i;
    i += step.length;
  }
  return size;
}

size_t decodeUtf8At(std::string_view text, size_t pos, char32_t& codePoint) noexcept {
  const auto* p = reinterpret_cast<const unsigned char*>(text.data()) + pos;
  if (p[0] < 0x80) {
    codePoint = p[0];
    return 1;
  }
  const Utf8Step step = classifyUtf8(p, text.size() - pos);
  if (!step.valid) return 0;
  static constexpr unsigned char kLeadMask[] = {0, 0, 0x1F, 0x0F, 0x07};
  codePoint = p[0] & kLeadMask[step.length];
  for (size_t i = 1; i < step.length; ++i) codePoint = codePoint << 6 | (p[i] & 0x3F);
  return step.length;
}

}  // namespace detail

std::string decodeUtf8Lossy(ByteView bytes) {
  static constexpr std::string_view kReplacementCharacter = "\xEF\xBF\xBD";
  const size_t size = bytes.size();
  if (size == 0) return {};
  const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
  size_t valid = detail::validUtf8PrefixLength(p, size);
  if (valid == size) return std::string(asText(bytes));

  std::string text;
  text.reserve(size + kReplacementCharacter.size());
  size_t start = 0;
  for (;;) {
    text.append(reinterpret_cast<const char*>(p + start), valid - start);
    if (valid == size) return text;
    text.append(kReplacementCharacter);
    start = valid + detail::classifyUtf8(p + valid, size - valid).length;
    valid = start + detail::validUtf8PrefixLength(p + start, size - start);
  }
}

}  // namespace ostrel
