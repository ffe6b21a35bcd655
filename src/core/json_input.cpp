#include "core/json_input.hpp"

#include <charconv>
#include <cstring>
#include <string>
#include <system_error>
#include <unordered_set>
#include <vector>

#include "core/json_text.hpp"
#include "ostrel/core/errors.hpp"

namespace ostrel::detail {
namespace {

// Texts up to this size use the thread's cached parser, whose buffers (about six bytes for each
// byte of text) are kept for the next call; larger ones get a parser of their own, released when
// they are done, so that one large text does not pin its buffers to the thread.
constexpr size_t kCachedTextSize = size_t{4} << 20;

// Where a number's decimal exponent stops growing as its digits are read.
constexpr int64_t kExponentLimit = int64_t{1} << 56;

int hexDigit(char c) noexcept {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// The four hex digits at `p` (which has at least four characters before the closing quote), or
// -1.
int32_t hexQuad(const char* p) noexcept {
  int32_t value = 0;
  for (int i = 0; i < 4; ++i) {
    const int digit = hexDigit(p[i]);
    if (digit < 0) return -1;
    value = value << 4 | digit;
  }
  return value;
}

void appendUtf8(std::string& out, uint32_t codePoint) {
  if (codePoint < 0x80) {
    out += static_cast<char>(codePoint);
  } else if (codePoint < 0x800) {
    out += static_cast<char>(0xC0 | codePoint >> 6);
    out += static_cast<char>(0x80 | (codePoint & 0x3F));
  } else if (codePoint < 0x10000) {
    out += static_cast<char>(0xE0 | codePoint >> 12);
    out += static_cast<char>(0x80 | (codePoint >> 6 & 0x3F));
    out += static_cast<char>(0x80 | (codePoint & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | codePoint >> 18);
    out += static_cast<char>(0x80 | (codePoint >> 12 & 0x3F));
    out += static_cast<char>(0x80 | (codePoint >> 6 & 0x3F));
    out += static_cast<char>(0x80 | (codePoint & 0x3F));
  }
}

// Decodes the escapes of the string content [begin, end) into `out`. The content is valid UTF-8
// without control characters (simdjson's first pass saw to that); only the escapes need checking.
bool unescape(const char* p, const char* const end, std::string& out) {
  while (p < end) {
    const char* const backslash = static_cast<const char*>(std::memchr(p, '\\', end - p));
    if (!backslash) {
      out.append(p, end);
      return true;
    }
    out.append(p, backslash);
    p = backslash + 1;
    switch (*p++) {
      case '"':
        out += '"';
        break;
      case '\\':
        out += '\\';
        break;
      case '/':
        out += '/';
        break;
      case 'b':
        out += '\b';
        break;
      case 'f':
        out += '\f';
        break;
      case 'n':
        out += '\n';
        break;
      case 'r':
        out += '\r';
        break;
      case 't':
        out += '\t';
        break;
      case 'u': {
        if (end - p < 4) return false;
        const int32_t unit = hexQuad(p);
        p += 4;
        if (unit < 0 || (unit >= 0xDC00 && unit <= 0xDFFF)) return false;
        if (unit < 0xD800 || unit > 0xDBFF) {
          appendUtf8(out, static_cast<uint32_t>(unit));
          break;
        }
        // A high surrogate: the low one must follow at once.
        if (end - p < 6 || p[0] != '\\' || p[1] != 'u') return false;
        const int32_t low = hexQuad(p + 2);
        if (low < 0xDC00 || low > 0xDFFF) return false;
        p += 6;
        appendUtf8(out, 0x10000 + ((static_cast<uint32_t>(unit) - 0xD800) << 10) +
                            (static_cast<uint32_t>(low) - 0xDC00));
        break;
      }
      default:
        return false;
    }
  }
  return true;
}

bool isDigit(char c) noexcept { return c >= '0' && c <= '9'; }

}  // namespace

JsonNumber readNumber(ondemand::value& value) {
  // The number and the whitespace up to the next token.
  const std::string_view token = value.raw_json_token();
  const char* const begin = token.data();
  const char* const end = begin + token.size();
  const char* p = begin;
  const bool negative = p != end && *p == '-';
  if (negative) ++p;
  if (p == end || !isDigit(*p)) throw JsonTextFault{simdjson::NUMBER_ERROR};
  // Digits before the first nonzero one, and the decimal exponent of the first nonzero digit
  // relative to the point, for telling a number too small for a double from one too large.
  const char* const integerStart = p;
  // The integer's value while it has at most 19 digits, which any uint64_t holds.
  uint64_t magnitude = 0;
  if (*p == '0') {
    ++p;
  } else {
    while (p != end && isDigit(*p)) magnitude = magnitude * 10 + static_cast<unsigned>(*p++ - '0');
  }
  const auto integerDigits = static_cast<int64_t>(p - integerStart);
  int64_t leadingExponent = *integerStart == '0' ? -1 : integerDigits - 1;
  bool whole = true;
  if (p != end && *p == '.') {
    ++p;
    if (p == end || !isDigit(*p)) throw JsonTextFault{simdjson::NUMBER_ERROR};
    const char* const fraction = p;
    while (p != end && isDigit(*p)) ++p;
    if (*integerStart == '0') {
      const char* firstNonzero = fraction;
      while (firstNonzero != p && *firstNonzero == '0') ++firstNonzero;
      leadingExponent = -(firstNonzero - fraction) - 1;
    }
    whole = false;
  }
  int64_t exponent = 0;
  if (p != end && (*p == 'e' || *p == 'E')) {
    ++p;
    const bool negativeExponent = p != end && *p == '-';
    if (p != end && (*p == '+' || *p == '-')) ++p;
    if (p == end || !isDigit(*p)) throw JsonTextFault{simdjson::NUMBER_ERROR};
    for (; p != end && isDigit(*p); ++p) {
      // Saturated far beyond the digits any text holds before its point (leadingExponent), so
      // that the sign of their sum still tells zero from overflow.
      if (exponent < kExponentLimit) exponent = exponent * 10 + (*p - '0');
    }
    if (negativeExponent) exponent = -exponent;
    whole = false;
  }
  const char* const numberEnd = p;
  for (; p != end; ++p) {
    if (*p != ' ' && *p != '\t' && *p != '\n' && *p != '\r') {
      throw JsonTextFault{simdjson::NUMBER_ERROR};
    }
  }

  JsonNumber number;
  if (whole && integerDigits <= 19) {
    if (!negative) {
      number.kind = JsonNumber::Kind::integer;
      number.nonNegative = magnitude;
      return number;
    }
    if (magnitude <= uint64_t{1} << 63) {
      number.kind = JsonNumber::Kind::negativeInteger;
      number.negative = static_cast<int64_t>(0 - magnitude);
      return number;
    }
  }
  if (whole) {
    if (negative) {
      if (std::from_chars(begin, numberEnd, number.negative).ec == std::errc()) {
        number.kind = JsonNumber::Kind::negativeInteger;
        return number;
      }
    } else if (std::from_chars(begin, numberEnd, number.nonNegative).ec == std::errc()) {
      number.kind = JsonNumber::Kind::integer;
      return number;
    }
  }
  number.kind = JsonNumber::Kind::real;
  const std::errc error = std::from_chars(begin, numberEnd, number.real).ec;
  if (error == std::errc::result_out_of_range && leadingExponent + exponent < 0) {
    number.real = negative ? -0.0 : 0.0;
  } else if (error != std::errc()) {
    throw JsonTextFault{simdjson::NUMBER_ERROR};
  }
  return number;
}

namespace {

// One open container of the text being checked.
struct Frame : JsonFrame {
  // In an object: the names read so far, and the first one repeated.
  std::unordered_set<std::string> names;
  std::optional<std::string> repeated;
  // Where the walk stands in the container; started once its first member or element was read.
  bool started = false;
  ondemand::object_iterator member;
  ondemand::object_iterator memberEnd;
  ondemand::array_iterator element;
  ondemand::array_iterator elementEnd;
};

// "$.a[2].b": the members of the open objects and the positions in the open arrays; the innermost
// object's member only when `withLastKey`.
std::string framePath(const std::vector<JsonFrame>& frames, bool withLastKey) {
  std::string out = "$";
  for (size_t i = 0; i < frames.size(); ++i) {
    if (!frames[i].isObject) {
      out += '[' + std::to_string(frames[i].position) + ']';
    } else if (i + 1 < frames.size() || withLastKey) {
      out += '.';
      out += frames[i].key;
    }
  }
  return out;
}

// Walks values in text order, reading every scalar in full, and throws the first fault:
// JsonTextFault for malformed text, JsonRefusal for the others. The open containers are kept in a
// list of their own rather than on the stack, so that a text nested as deep as the limit allows
// takes no more stack than a flat one.
class TextCheck {
 public:
  explicit TextCheck(size_t maxDepth) : maxDepth_(maxDepth) {}

  void walk(ondemand::value value) {
    visit(value);
    while (!frames_.empty()) {
      Frame& frame = frames_.back();
      if (frame.isObject) {
        if (frame.started) {
          ++frame.member;
        }
        frame.started = true;
        if (!(frame.member != frame.memberEnd)) {
          closeObject();
          continue;
        }
        ondemand::field field = take(*frame.member);
        visit(enter(field));
      } else {
        if (frame.started) {
          ++frame.element;
          ++frame.position;
        }
        frame.started = true;
        if (!(frame.element != frame.elementEnd)) {
          frames_.pop_back();
          continue;
        }
        visit(take(*frame.element));
      }
    }
  }

 private:
  // Reads a scalar in full, or opens a container (whose members walk() reads next).
  void visit(ondemand::value value) {
    switch (take(value.type())) {
      case ondemand::json_type::object: {
        open(true);
        ondemand::object object = take(value.get_object());
        Frame& frame = frames_.back();
        frame.member = take(object.begin());
        frame.memberEnd = take(object.end());
        break;
      }
      case ondemand::json_type::array: {
        open(false);
        ondemand::array array = take(value.get_array());
        Frame& frame = frames_.back();
        frame.element = take(array.begin());
        frame.elementEnd = take(array.end());
        break;
      }
      case ondemand::json_type::number:
        readNumber(value);
        break;
      case ondemand::json_type::string:
        take(value.get_string());
        break;
      case ondemand::json_type::boolean:
        take(value.get_bool());
        break;
      case ondemand::json_type::null:
        if (!take(value.is_null())) throw JsonTextFault{simdjson::N_ATOM_ERROR};
        break;
    }
  }

  // Records the member `field` introduces in the innermost object; its value.
  ondemand::value enter(ondemand::field& field) {
    Frame& frame = frames_.back();
    std::string name(memberName(field, scratch_));
    // Of several repeated names, the first one repeated, reported when the object ends (after
    // the faults inside it), as a parser that reads the whole object first finds it.
    if (!frame.names.insert(name).second && !frame.repeated) frame.repeated = name;
    frame.key = std::move(name);
    return field.value();
  }

  void closeObject() {
    if (const std::optional<std::string>& repeated = frames_.back().repeated) {
      JsonRefusal refusal = refuse(JsonRefusal::Kind::repeatedMember);
      refusal.frames.back().key = *repeated;
      throw refusal;
    }
    frames_.pop_back();
  }

  void open(bool isObject) {
    if (frames_.size() >= maxDepth_) throw refuse(JsonRefusal::Kind::tooDeep);
    Frame& frame = frames_.emplace_back();
    frame.isObject = isObject;
  }

  JsonRefusal refuse(JsonRefusal::Kind kind) const {
    JsonRefusal refusal{kind, simdjson::SUCCESS, {}};
    refusal.frames.assign(frames_.begin(), frames_.end());
    return refusal;
  }

  size_t maxDepth_;
  std::vector<Frame> frames_;
  std::string scratch_;
};

}  // namespace

std::string_view memberName(ondemand::field& field, std::string& scratch) {
  const char* const begin = field.key().raw();
  const char* end = begin;
  bool escaped = false;
  // The first pass of the parser found the closing quote; a backslash always escapes the
  // character after it.
  while (*end != '"') {
    if (*end == '\\') {
      escaped = true;
      ++end;
    }
    ++end;
  }
  if (!escaped) return {begin, static_cast<size_t>(end - begin)};
  scratch.clear();
  if (!unescape(begin, end, scratch)) throw JsonTextFault{simdjson::STRING_ERROR};
  return scratch;
}

struct JsonInput::Parser {
  ondemand::parser parser;
  // The text as simdjson reads it: wrapped in "[" and "]" (see start()) and padded.
  std::unique_ptr<char[]> text;
  size_t capacity = 0;
  bool busy = false;
};

JsonInput::JsonInput(std::string_view text, size_t maxDepth) : maxDepth_(maxDepth) {
  thread_local Parser cached;
  if (!cached.busy && text.size() <= kCachedTextSize) {
    parser_ = &cached;
  } else {
    own_ = std::make_unique<Parser>();
    parser_ = own_.get();
  }
  size_ = text.size() + 2;
  if (parser_->capacity < size_ + simdjson::SIMDJSON_PADDING) {
    parser_->text.reset(new char[size_ + simdjson::SIMDJSON_PADDING]);
    parser_->capacity = size_ + simdjson::SIMDJSON_PADDING;
  }
  char* const copy = parser_->text.get();
  copy[0] = '[';
  std::memcpy(copy + 1, text.data(), text.size());
  copy[size_ - 1] = ']';
  std::memset(copy + size_, 0, simdjson::SIMDJSON_PADDING);
  parser_->busy = true;
}

JsonInput::~JsonInput() { parser_->busy = false; }

// The text is read as the only element of an array: simdjson reads a scalar at the top level by
// other means than one inside a container, and the encoders read values only one way. The text
// is one JSON value exactly when the array has one element and nothing follows it.
ondemand::value JsonInput::start() {
  const simdjson::padded_string_view view(parser_->text.get(), size_, parser_->capacity);
  document_ = take(parser_->parser.iterate(view));
  array_ = take(document_.get_array());
  element_ = take(array_.begin());
  if (element_ == take(array_.end())) throw JsonTextFault{simdjson::EMPTY};
  return take(*element_);
}

ondemand::value JsonInput::root() { return start(); }

void JsonInput::finish() {
  ++element_;
  if (element_ != take(array_.end())) {
    take(*element_);
    throw JsonTextFault{simdjson::TRAILING_CONTENT};
  }
  const char* location = nullptr;
  if (document_.current_location().get(location) != simdjson::OUT_OF_BOUNDS) {
    throw JsonTextFault{simdjson::TRAILING_CONTENT};
  }
}

void checkValue(ondemand::value value, size_t depth) {
  try {
    TextCheck(depth).walk(value);
  } catch (const JsonRefusal&) {
    throw JsonTextFault{};
  }
}

std::optional<JsonRefusal> JsonInput::firstFault() {
  try {
    TextCheck check(maxDepth_);
    check.walk(start());
    finish();
  } catch (const JsonTextFault& fault) {
    return JsonRefusal{JsonRefusal::Kind::malformed, fault.code, {}};
  } catch (JsonRefusal& refusal) {
    return std::move(refusal);
  }
  return std::nullopt;
}

void JsonInput::check() {
  const std::optional<JsonRefusal> refusal = firstFault();
  if (!refusal) return;
  switch (refusal->kind) {
    case JsonRefusal::Kind::malformed:
      throw SchematizerError::unexpectedType(std::string("invalid JSON: ") +
                                             simdjson::error_message(refusal->code));
    case JsonRefusal::Kind::repeatedMember:
      throw SchematizerError::unexpectedType(framePath(refusal->frames, false) +
                                             ": duplicate key " +
                                             jsonString(refusal->frames.back().key));
    case JsonRefusal::Kind::tooDeep:
      break;
  }
  throw SchematizerError::unexpectedType(framePath(refusal->frames, true) +
                                         ": nesting deeper than " + std::to_string(maxDepth_) +
                                         " levels");
}

}  // namespace ostrel::detail
