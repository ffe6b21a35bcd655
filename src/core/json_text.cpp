#include "core/json_text.hpp"

#include <array>
#include <cstdint>
#include <cstring>

#include "core/utf8.hpp"

namespace ostrel::detail {
namespace {

// Characters a JSON string cannot hold as they are: controls, quote and backslash.
constexpr std::array<bool, 128> kNeedsEscape = [] {
  std::array<bool, 128> table{};
  for (int c = 0; c < 0x20; ++c) table[static_cast<size_t>(c)] = true;
  table['"'] = true;
  table['\\'] = true;
  return table;
}();

// Whether none of the eight bytes at `p` needs attention when quoting: no control character, quote,
// backslash or non-ASCII byte. Tests the eight at once in one 64-bit word.
inline bool isPlainAscii(const unsigned char* p) noexcept {
  constexpr uint64_t kOnes = 0x0101010101010101u;
  constexpr uint64_t kHighBits = 0x8080808080808080u;
  uint64_t word;
  std::memcpy(&word, p, sizeof word);
  // A byte b of x is below n (n <= 128) when (b - n) borrows into its high bit while b's own high
  // bit is clear; the borrow chain cannot create a false hit when no byte is below n.
  const auto hasByteBelow = [](uint64_t x, uint64_t n) { return (x - kOnes * n) & ~x & kHighBits; };
  const uint64_t special = hasByteBelow(word, 0x20) | hasByteBelow(word ^ (kOnes * '"'), 1) |
                           hasByteBelow(word ^ (kOnes * '\\'), 1) | (word & kHighBits);
  return special == 0;
}

void appendEscape(std::string& out, unsigned char c) {
  switch (c) {
    case '"':
      out += "\\\"";
      return;
    case '\\':
      out += "\\\\";
      return;
    case '\b':
      out += "\\b";
      return;
    case '\f':
      out += "\\f";
      return;
    case '\n':
      out += "\\n";
      return;
    case '\r':
      out += "\\r";
      return;
    case '\t':
      out += "\\t";
      return;
    default: {
      static constexpr char kHex[] = "0123456789abcdef";
      const char sequence[] = {'\\', 'u', '0', '0', kHex[c >> 4], kHex[c & 0xF]};
      out.append(sequence, sizeof sequence);
    }
  }
}

// Appends `text` quoted and escaped, in one pass that also validates the UTF-8. False, with a
// partial string appended, when `text` is not valid UTF-8.
//
// Hand-written because strings dominate rendering time: nlohmann::json escapes only through a
// json value (a copy of the string) and its serializer, measured at five to ten times the cost of
// this loop per short string.
bool appendValid(std::string& out, std::string_view text) {
  out.push_back('"');
  const auto* p = reinterpret_cast<const unsigned char*>(text.data());
  const auto* const end = p + text.size();
  const auto* run = p;
  while (p < end) {
    // Most text is plain ASCII: step over eight such bytes at a time.
    if (end - p >= 8 && isPlainAscii(p)) {
      p += 8;
      continue;
    }
    const unsigned char c = *p;
    if (c >= 0x80) {
      const Utf8Step step = classifyUtf8(p, static_cast<size_t>(end - p));
      if (!step.valid) return false;
      p += step.length;
      continue;
    }
    if (!kNeedsEscape[c]) {
      ++p;
      continue;
    }
    out.append(reinterpret_cast<const char*>(run), static_cast<size_t>(p - run));
    appendEscape(out, c);
    run = ++p;
  }
  out.append(reinterpret_cast<const char*>(run), static_cast<size_t>(end - run));
  out.push_back('"');
  return true;
}

}  // namespace

void appendJsonString(std::string& out, std::string_view text) {
  const size_t start = out.size();
  if (appendValid(out, text)) return;
  out.resize(start);
  appendValid(out, decodeUtf8Lossy(asBytes(text)));
}

}  // namespace ostrel::detail
