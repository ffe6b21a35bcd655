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

char* writeEscape(char* out, unsigned char c) {
  const auto two = [&](char second) {
    out[0] = '\\';
    out[1] = second;
    return out + 2;
  };
  switch (c) {
    case '"':
      return two('"');
    case '\\':
      return two('\\');
    case '\b':
      return two('b');
    case '\f':
      return two('f');
    case '\n':
      return two('n');
    case '\r':
      return two('r');
    case '\t':
      return two('t');
    default: {
      static constexpr char kHex[] = "0123456789abcdef";
      const char sequence[] = {'\\', 'u', '0', '0', kHex[c >> 4], kHex[c & 0xF]};
      std::memcpy(out, sequence, sizeof sequence);
      return out + sizeof sequence;
    }
  }
}

}  // namespace

// Hand-written because strings dominate rendering time: nlohmann::json escapes only through a
// json value (a copy of the string) and its serializer, measured at five to ten times the cost of
// this loop per short string. Unescaped runs are copied whole.
char* writeJsonString(char* out, std::string_view text) noexcept {
  *out++ = '"';
  const auto* p = reinterpret_cast<const unsigned char*>(text.data());
  const auto* const end = p + text.size();
  const auto* run = p;
  const auto copyRun = [&] {
    std::memcpy(out, run, static_cast<size_t>(p - run));
    out += p - run;
  };
  while (p < end) {
    // Most text is plain ASCII: step over eight such bytes at a time.
    if (end - p >= 8 && isPlainAscii(p)) {
      p += 8;
      continue;
    }
    const unsigned char c = *p;
    if (c >= 0x80) {
      const Utf8Step step = classifyUtf8(p, static_cast<size_t>(end - p));
      if (!step.valid) return nullptr;
      p += step.length;
      continue;
    }
    if (!kNeedsEscape[c]) {
      ++p;
      continue;
    }
    copyRun();
    out = writeEscape(out, c);
    run = ++p;
  }
  copyRun();
  *out++ = '"';
  return out;
}

void appendJsonString(std::string& out, std::string_view text) {
  const size_t start = out.size();
  out.resize(start + maxJsonStringSize(text.size()));
  if (char* end = writeJsonString(out.data() + start, text)) {
    out.resize(static_cast<size_t>(end - out.data()));
    return;
  }
  const std::string valid = decodeUtf8Lossy(asBytes(text));
  out.resize(start + maxJsonStringSize(valid.size()));
  out.resize(static_cast<size_t>(writeJsonString(out.data() + start, valid) - out.data()));
}

std::string jsonName(std::string_view fieldName) {
  std::string out;
  out.reserve(fieldName.size());
  bool upper = false;
  for (const char c : fieldName) {
    if (c == '_') {
      upper = true;
    } else if (upper && c >= 'a' && c <= 'z') {
      out.push_back(static_cast<char>(c - 'a' + 'A'));
      upper = false;
    } else {
      out.push_back(c);
      upper = false;
    }
  }
  return out;
}

}  // namespace ostrel::detail
