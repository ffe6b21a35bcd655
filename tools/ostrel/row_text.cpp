#include "row_text.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <concepts>
#include <cstdint>
#include <cstring>
#include <nlohmann/json.hpp>
#include <type_traits>

#include "core/utf8.hpp"
#include "ostrel/output/json.hpp"

namespace ostrel::tool {
namespace {

// The most characters a number takes (to_chars of a uint64, an int64, the shortest double).
constexpr size_t kMaxNumberSize = 32;

constexpr std::string_view kReplacementCharacter = "\xEF\xBF\xBD";
constexpr char kHex[] = "0123456789abcdef";

// Eight bytes at a time: a mask whose lowest set bit (a byte's high bit) marks the first byte that
// is below 0x20, equal to one of the given characters, or 0x80 and above. Bits above the first
// hit may be false hits (the borrow of a subtraction runs on); below it there are none.
constexpr uint64_t kOnes = 0x0101010101010101u;
constexpr uint64_t kHighBits = 0x8080808080808080u;

constexpr uint64_t bytesBelow(uint64_t word, uint64_t n) {
  return (word - kOnes * n) & ~word & kHighBits;
}

template <unsigned char... Characters>
[[gnu::always_inline]] inline uint64_t specialBytes(const unsigned char* p) {
  uint64_t word;
  std::memcpy(&word, p, sizeof word);
  return bytesBelow(word, 0x20) | (word & kHighBits) |
         (bytesBelow(word ^ (kOnes * Characters), 1) | ...);
}

// Advances `p` to the first special byte of the eight at `p`, given their mask (not zero).
[[gnu::always_inline]] inline const unsigned char* firstSpecial(const unsigned char* p,
                                                                uint64_t mask) {
  if constexpr (std::endian::native == std::endian::little) {
    return p + (std::countr_zero(mask) >> 3);
  } else {
    return p;
  }
}

// The bytes that need a look of their own in a JSON string: controls, quote, backslash and
// everything from 0x80.
constexpr std::array<bool, 256> kJsonSpecial = [] {
  std::array<bool, 256> table{};
  for (int c = 0; c < 256; ++c) table[c] = c < 0x20 || c >= 0x80 || c == '"' || c == '\\';
  return table;
}();

// The same for a CSV field (controls, DEL, comma, quote) and a TSV field (controls, DEL,
// backslash).
constexpr std::array<bool, 256> kCsvSpecial = [] {
  std::array<bool, 256> table{};
  for (int c = 0; c < 256; ++c) table[c] = c < 0x20 || c >= 0x7F || c == ',' || c == '"';
  return table;
}();
constexpr std::array<bool, 256> kTsvSpecial = [] {
  std::array<bool, 256> table{};
  for (int c = 0; c < 256; ++c) table[c] = c < 0x20 || c >= 0x7F || c == '\\';
  return table;
}();

char* put(char* out, std::string_view text) {
  std::memcpy(out, text.data(), text.size());
  return out + text.size();
}

char* putHex(char* out, unsigned char c) {
  const char escape[] = {'\\', 'x', kHex[c >> 4], kHex[c & 0xF]};
  std::memcpy(out, escape, sizeof escape);
  return out + sizeof escape;
}

// `text` quoted and escaped as the JSON rendering writes a string: only what JSON requires
// (controls, quote, backslash) escaped, in nlohmann::json's forms; every invalid UTF-8 sequence
// U+FFFD, as the library decodes a string. Runs that need nothing are copied whole.
void appendJsonString(OutputBuffer& buffer, std::string_view text) {
  char* out = buffer.room(6 * text.size() + 2);
  *out++ = '"';
  const auto* p = reinterpret_cast<const unsigned char*>(text.data());
  const auto* const end = p + text.size();
  const auto* run = p;
  const auto copyRun = [&] {
    std::memcpy(out, run, static_cast<size_t>(p - run));
    out += p - run;
  };
  while (p < end) {
    if (end - p >= 8) {
      const uint64_t mask = specialBytes<'"', '\\'>(p);
      if (mask == 0) {
        p += 8;
        continue;
      }
      p = firstSpecial(p, mask);
    }
    const unsigned char c = *p;
    if (!kJsonSpecial[c]) {
      ++p;
      continue;
    }
    if (c >= 0x80) {
      const detail::Utf8Step step = detail::classifyUtf8(p, static_cast<size_t>(end - p));
      if (step.valid) {
        p += step.length;
        continue;
      }
      copyRun();
      out = put(out, kReplacementCharacter);
      p += step.length;
      run = p;
      continue;
    }
    copyRun();
    *out++ = '\\';
    switch (c) {
      case '"':
      case '\\':
        *out++ = static_cast<char>(c);
        break;
      case '\b':
        *out++ = 'b';
        break;
      case '\f':
        *out++ = 'f';
        break;
      case '\n':
        *out++ = 'n';
        break;
      case '\r':
        *out++ = 'r';
        break;
      case '\t':
        *out++ = 't';
        break;
      default:
        out = put(out, "u00");
        *out++ = kHex[c >> 4];
        *out++ = kHex[c & 0xF];
    }
    run = ++p;
  }
  copyRun();
  *out++ = '"';
  buffer.advance(out);
}

// Copies the start of `text` to `out` as long as its bytes need no look in a CSV (or TSV) field,
// eight at a time; returns how many that is. `out` has room for text.size() + 8 characters.
size_t copyPlainPrefix(char* out, std::string_view text, bool tsv) {
  const auto* const begin = reinterpret_cast<const unsigned char*>(text.data());
  const auto* const end = begin + text.size();
  const auto* p = begin;
  const std::array<bool, 256>& special = tsv ? kTsvSpecial : kCsvSpecial;
  while (end - p >= 8) {
    const uint64_t mask = tsv ? specialBytes<0x7F, '\\'>(p) : specialBytes<0x7F, ',', '"'>(p);
    if (mask != 0) return static_cast<size_t>(firstSpecial(p, mask) - begin);
    std::memcpy(out + (p - begin), p, 8);
    p += 8;
  }
  for (; p < end && !special[*p]; ++p) out[p - begin] = static_cast<char>(*p);
  return static_cast<size_t>(p - begin);
}

// A CSV or TSV field of `text` (see LineWriter). Invalid UTF-8 becomes U+FFFD when `string` (a
// string value, decoded as the library decodes it), else \xHH per byte. Text that needs nothing
// (the common case) is copied as it is scanned.
void appendField(OutputBuffer& buffer, std::string_view text, bool tsv, bool string) {
  // At most four characters a byte (\xHH), and the quotes.
  char* out = buffer.room(4 * text.size() + 8);
  const size_t plain = copyPlainPrefix(out, text, tsv);
  if (plain == text.size()) {
    if (text.empty() && !tsv) return buffer.append("\"\"");
    return buffer.advance(out + plain);
  }
  char* const first = out;
  if (!tsv) *out++ = '"';
  bool quote = false;
  const auto* p = reinterpret_cast<const unsigned char*>(text.data()) + plain;
  const auto* const end = reinterpret_cast<const unsigned char*>(text.data()) + text.size();
  const auto* run = reinterpret_cast<const unsigned char*>(text.data());
  const std::array<bool, 256>& special = tsv ? kTsvSpecial : kCsvSpecial;
  const auto copyRun = [&] {
    std::memcpy(out, run, static_cast<size_t>(p - run));
    out += p - run;
  };
  while (p < end) {
    if (end - p >= 8) {
      const uint64_t mask = tsv ? specialBytes<0x7F, '\\'>(p) : specialBytes<0x7F, ',', '"'>(p);
      if (mask == 0) {
        p += 8;
        continue;
      }
      p = firstSpecial(p, mask);
    }
    const unsigned char c = *p;
    if (!special[c]) {
      ++p;
      continue;
    }
    if (c >= 0x80) {
      const detail::Utf8Step step = detail::classifyUtf8(p, static_cast<size_t>(end - p));
      // The C1 controls, U+0080 to U+009F, are escaped like C0's.
      const bool c1 = step.valid && step.length == 2 && c == 0xC2 && p[1] < 0xA0;
      if (step.valid && !c1) {
        p += step.length;
        continue;
      }
      copyRun();
      if (c1) {
        out = putHex(putHex(out, c), p[1]);
        p += 2;
      } else if (string) {
        out = put(out, kReplacementCharacter);
        p += step.length;
      } else {
        out = putHex(out, c);
        ++p;
      }
      run = p;
      continue;
    }
    copyRun();
    if (tsv) {
      switch (c) {
        case '\\':
          out = put(out, "\\\\");
          break;
        case '\t':
          out = put(out, "\\t");
          break;
        case '\n':
          out = put(out, "\\n");
          break;
        case '\r':
          out = put(out, "\\r");
          break;
        default:
          out = putHex(out, c);
      }
    } else if (c == '"') {
      quote = true;
      out = put(out, "\"\"");
    } else if (c == ',' || c == '\n' || c == '\r') {
      quote = true;
      *out++ = static_cast<char>(c);
    } else if (c == '\t') {
      *out++ = static_cast<char>(c);
    } else {
      out = putHex(out, c);
    }
    run = ++p;
  }
  copyRun();
  if (quote) {
    *out++ = '"';
  } else if (!tsv) {
    // Nothing called for quotes after all (only escapes): the opening quote goes.
    std::memmove(first, first + 1, static_cast<size_t>(out - first - 1));
    --out;
  }
  buffer.advance(out);
}

// Writes the decimal digits of `value` two at a time from the last, ending at `end`.
template <std::unsigned_integral Unsigned>
void writeDigitsBackwards(char* end, Unsigned value) {
  static constexpr char kPairs[] =
      "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
      "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
      "8081828384858687888990919293949596979899";
  while (value >= 100) {
    end -= 2;
    std::memcpy(end, kPairs + 2 * (value % 100), 2);
    value /= 100;
  }
  if (value >= 10) {
    std::memcpy(end - 2, kPairs + 2 * value, 2);
  } else {
    end[-1] = static_cast<char>('0' + value);
  }
}

// The decimal digits of `value` at `out`: counted from the bit length, then written in place, in
// 32-bit arithmetic where the value fits. (to_chars counts by repeated division first, which took
// a fifth of the tool's own time on the short numbers records hold.)
char* writeDecimal(char* out, uint64_t value) {
  static constexpr std::array<uint64_t, 20> kPowersOf10 = [] {
    std::array<uint64_t, 20> powers{};
    uint64_t power = 1;
    for (uint64_t& p : powers) {
      p = power;
      power *= 10;
    }
    return powers;
  }();
  // floor(log10(value)) is bits * log10(2) rounded down (1233 / 4096), or one less.
  const int bits = 64 - std::countl_zero(value | 1);
  const int guess = (bits * 1233) >> 12;
  const int digits = value < kPowersOf10[guess] ? std::max(guess, 1) : guess + 1;
  if (value >> 32 == 0) {
    writeDigitsBackwards(out + digits, static_cast<uint32_t>(value));
  } else {
    writeDigitsBackwards(out + digits, value);
  }
  return out + digits;
}

template <std::integral Integer>
void appendInteger(OutputBuffer& buffer, Integer value, bool quoted) {
  char* out = buffer.room(kMaxNumberSize + 2);
  if (quoted) *out++ = '"';
  if constexpr (std::is_signed_v<Integer>) {
    if (value < 0) *out++ = '-';
    // The magnitude in unsigned arithmetic: -INT64_MIN does not fit an int64.
    const auto magnitude = static_cast<uint64_t>(value);
    out = writeDecimal(out, value < 0 ? 0 - magnitude : magnitude);
  } else {
    out = writeDecimal(out, value);
  }
  if (quoted) *out++ = '"';
  buffer.advance(out);
}

// The shortest text that reads back as the same value in its own type; NaN and the infinities as
// "NaN", "Infinity" and "-Infinity" (JSON strings when `json`), and -0 as -0.0.
template <std::floating_point Float>
void appendFloat(OutputBuffer& buffer, Float value, bool json) {
  char* out = buffer.room(kMaxNumberSize);
  const auto word = [&](std::string_view text) {
    if (json) *out++ = '"';
    out = put(out, text);
    if (json) *out++ = '"';
  };
  if (std::isnan(value)) {
    word("NaN");
  } else if (std::isinf(value)) {
    word(value > 0 ? "Infinity" : "-Infinity");
  } else if (value == 0 && std::signbit(value)) {
    out = put(out, "-0.0");
  } else {
    out = std::to_chars(out, out + kMaxNumberSize, value).ptr;
  }
  buffer.advance(out);
}

// Standard base64 with padding, quoted when `quoted`.
void appendBase64(OutputBuffer& buffer, ByteView bytes, bool quoted) {
  static constexpr char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  char* out = buffer.room((bytes.size() + 2) / 3 * 4 + 2);
  if (quoted) *out++ = '"';
  const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
  size_t left = bytes.size();
  for (; left >= 3; left -= 3, p += 3) {
    const uint32_t group = uint32_t{p[0]} << 16 | uint32_t{p[1]} << 8 | p[2];
    *out++ = kAlphabet[group >> 18];
    *out++ = kAlphabet[(group >> 12) & 63];
    *out++ = kAlphabet[(group >> 6) & 63];
    *out++ = kAlphabet[group & 63];
  }
  if (left > 0) {
    const uint32_t group = uint32_t{p[0]} << 16 | (left == 2 ? uint32_t{p[1]} << 8 : 0);
    *out++ = kAlphabet[group >> 18];
    *out++ = kAlphabet[(group >> 12) & 63];
    *out++ = left == 2 ? kAlphabet[(group >> 6) & 63] : '=';
    *out++ = '=';
  }
  if (quoted) *out++ = '"';
  buffer.advance(out);
}

// The JSON string of a column name or a Kafka key, as nlohmann::json writes it.
std::string jsonText(std::string_view text) {
  return nlohmann::json(std::string(text))
      .dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace

std::vector<PathText> PathText::of(const Projection& projection) {
  std::vector<PathText> paths;
  const ProjectionRow row = projection.makeRow();
  for (size_t i = 0; i < projection.size(); ++i) {
    PathText& path = paths.emplace_back();
    path.kind = row.kind(i);
    const TypeSchemaDescription& type = projection.path(i).type;
    if (path.kind == AnyValue::Case::enum_) {
      path.enumSchema = type.enumSchema().get();
      path.nullValue = path.enumSchema && path.enumSchema->name() == "google.protobuf.NullValue";
    } else if (path.kind == AnyValue::Case::message) {
      path.messageSchema = type.messageSchema();
    }
  }
  return paths;
}

LineWriter::LineWriter(OutputBuffer& out, OutputFormat format, std::span<const std::string> columns)
    : out_(out), format_(format), columns_(columns) {
  if (format_ == OutputFormat::jsonl) {
    for (const std::string& column : columns_) keys_.push_back(jsonText(column) + ":");
  }
}

void LineWriter::header() {
  if (format_ == OutputFormat::jsonl) return;
  start();
  for (const std::string& column : columns_) text(column);
  finish();
}

void LineWriter::start() {
  column_ = 0;
  if (format_ == OutputFormat::jsonl) out_.push('{');
}

void LineWriter::finish() {
  if (format_ == OutputFormat::jsonl) out_.push('}');
  out_.push('\n');
}

[[gnu::always_inline]] inline void LineWriter::next() {
  if (format_ == OutputFormat::jsonl) {
    if (column_ > 0) out_.push(',');
    out_.append(keys_[column_]);
  } else if (column_ > 0) {
    out_.push(format_ == OutputFormat::csv ? ',' : '\t');
  }
  ++column_;
}

void LineWriter::field(std::string_view text, bool string) {
  appendField(out_, text, format_ == OutputFormat::tsv, string);
}

void LineWriter::absent() {
  next();
  if (format_ == OutputFormat::jsonl) {
    out_.append("null");
  } else if (format_ == OutputFormat::tsv) {
    out_.append("\\N");
  }
}

void LineWriter::integer(int64_t value) {
  next();
  appendInteger(out_, value, false);
}

void LineWriter::text(std::string_view raw) {
  next();
  if (format_ == OutputFormat::jsonl) {
    out_.append(jsonText(raw));
  } else {
    field(raw, false);
  }
}

void LineWriter::answer(const ProjectionRow& row, size_t i, const PathText& how) {
  if (row.state(i) != ProjectionRow::State::present) return absent();
  next();
  const bool json = format_ == OutputFormat::jsonl;
  switch (how.kind) {
    case AnyValue::Case::int32:
      return appendInteger(out_, *row.int32Value(i), false);
    case AnyValue::Case::uint32:
      return appendInteger(out_, *row.uint32Value(i), false);
    case AnyValue::Case::int64:
      return appendInteger(out_, *row.int64Value(i), json);
    case AnyValue::Case::uint64:
      return appendInteger(out_, *row.uint64Value(i), json);
    case AnyValue::Case::float_:
      return appendFloat(out_, *row.floatValue(i), json);
    case AnyValue::Case::double_:
      return appendFloat(out_, *row.doubleValue(i), json);
    case AnyValue::Case::bool_:
      return out_.append(*row.boolValue(i) ? "true" : "false");
    case AnyValue::Case::enum_: {
      const int64_t number = *row.enumNumber(i);
      if (json && how.nullValue) return out_.append("null");
      const std::string* name = how.enumSchema ? how.enumSchema->findValueNameFor(number) : nullptr;
      if (!name) return appendInteger(out_, number, false);
      return json ? appendJsonString(out_, *name) : field(*name, false);
    }
    case AnyValue::Case::string: {
      const std::string_view text = asText(*row.payload(i));
      return json ? appendJsonString(out_, text) : field(text, true);
    }
    case AnyValue::Case::bytes:
      if (!json && row.payload(i)->empty()) return field({}, false);
      return appendBase64(out_, *row.payload(i), json);
    case AnyValue::Case::message: {
      JsonOptions options;
      options.strict = true;
      scratch_ = renderJSON(UnsafeSchematizedData(how.messageSchema, *row.payload(i)), options);
      return json ? out_.append(scratch_) : field(scratch_, false);
    }
  }
}

}  // namespace ostrel::tool
