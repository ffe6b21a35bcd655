#include "ostrel/output/json_rendering.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <map>
#include <memory>
#include <string_view>
#include <vector>

#include "ostrel/core/base64.hpp"
#include "ostrel/core/errors.hpp"
#include "ostrel/core/logging.hpp"
#include "ostrel/wire/reader.hpp"
#include "ostrel/wire/value_decoding.hpp"
#include "output/map_entry.hpp"

namespace ostrel {
namespace {

using Case = TypeSchemaDescription::Case;
using FieldsByNumber = std::map<int64_t, std::shared_ptr<FieldSchemaDescribing>>;

// The outermost message counts as the first.
constexpr int kMaxMessageDepth = 100;
// Where a break in a message's field structure is reported when no known field was being read.
constexpr std::string_view kUnreadableFieldName = "<unreadable>";
// Field numbers start at 1, so 0 names "no field".
constexpr int64_t kNoField = 0;

// One occurrence of a known field in a message's bytes.
struct Occurrence {
  int64_t fieldNumber = kNoField;
  const FieldSchemaDescribing* field = nullptr;
  // Just after the tag.
  int64_t position = 0;
  ProtoWireType wireType = ProtoWireType::varInt;
};

// A break in a message's field structure found while gathering its fields.
struct ScanFault {
  // The known field being stepped over, or kNoField.
  int64_t fieldNumber = kNoField;
  std::string text;
};

bool isPackable(Case kind) noexcept {
  return kind != Case::message && kind != Case::string && kind != Case::bytes;
}

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

// The length of the well-formed UTF-8 sequence at `p` (whose first byte is not ASCII), or 0 when
// it is not one: no overlong forms, no surrogates, nothing above U+10FFFF.
size_t utf8SequenceLength(const unsigned char* p, const unsigned char* end) noexcept {
  const unsigned char lead = p[0];
  const auto left = end - p;
  const auto continuation = [&](int i) { return (p[i] & 0xC0) == 0x80; };
  if (lead >= 0xC2 && lead <= 0xDF) return left >= 2 && continuation(1) ? 2 : 0;
  if (lead >= 0xE0 && lead <= 0xEF) {
    if (left < 3) return 0;
    const unsigned char low = lead == 0xE0 ? 0xA0 : 0x80;
    const unsigned char high = lead == 0xED ? 0x9F : 0xBF;
    return p[1] >= low && p[1] <= high && continuation(2) ? 3 : 0;
  }
  if (lead >= 0xF0 && lead <= 0xF4) {
    if (left < 4) return 0;
    const unsigned char low = lead == 0xF0 ? 0x90 : 0x80;
    const unsigned char high = lead == 0xF4 ? 0x8F : 0xBF;
    return p[1] >= low && p[1] <= high && continuation(2) && continuation(3) ? 4 : 0;
  }
  return 0;
}

// Streams JSON text into one string in a single pass over each message: the message's fields are
// gathered in one scan (their positions only), then emitted in field-number order, decoding each
// value straight into the output. No JSON document is built.
class Renderer {
 public:
  Renderer(std::string& out, JsonStyle style)
      : out_(out), indented_(style == JsonStyle::indented) {}

  // The message at `depth` (the outermost is 1) as an object whose members start at `level`.
  void message(const MessageSchemaDescribing& schema, ByteView bytes, int depth, int level) {
    const FieldsByNumber& fields = schema.fieldsByNumber();
    const size_t first = occurrences_.size();
    // Nested messages stack their occurrences above these; they are popped on the way out, also
    // when an error unwinds.
    struct Pop {
      std::vector<Occurrence>& occurrences;
      size_t size;
      ~Pop() { occurrences.resize(size); }
    } pop{occurrences_, first};

    std::optional<ScanFault> fault = gather(fields, bytes);
    const auto byNumber = [](const Occurrence& a, const Occurrence& b) {
      return a.fieldNumber < b.fieldNumber;
    };
    // Encoders write fields in number order, so sorting is rarely needed; stability keeps each
    // field's occurrences in the order of the bytes.
    if (!std::is_sorted(occurrences_.begin() + static_cast<ptrdiff_t>(first), occurrences_.end(),
                        byNumber)) {
      std::stable_sort(occurrences_.begin() + static_cast<ptrdiff_t>(first), occurrences_.end(),
                       byNumber);
    }

    out_.push_back('{');
    bool any = false;
    for (size_t begin = first; begin < occurrences_.size();) {
      const int64_t number = occurrences_[begin].fieldNumber;
      size_t end = begin + 1;
      while (end < occurrences_.size() && occurrences_[end].fieldNumber == number) ++end;
      const std::string* faultText = fault && fault->fieldNumber == number ? &fault->text : nullptr;
      field(bytes, begin, end, faultText, depth, level + 1, any);
      begin = end;
    }
    if (fault && fault->fieldNumber == kNoField) {
      separate(any, level + 1);
      key(kUnreadableFieldName);
      fieldError(kUnreadableFieldName, fault->text);
      any = true;
    }
    if (any) newline(level);
    out_.push_back('}');
  }

 private:
  // Appends the occurrences of the known fields of `bytes` to occurrences_, in the order of the
  // bytes. Stops at the first break in the field structure and reports it.
  std::optional<ScanFault> gather(const FieldsByNumber& fields, ByteView bytes) {
    Reader reader(bytes);
    int64_t current = kNoField;
    try {
      while (reader.hasMoreFields()) {
        current = kNoField;
        const FieldTag tag = reader.readTag();
        if (const auto it = fields.find(tag.fieldNumber()); it != fields.end()) {
          current = tag.fieldNumber();
          occurrences_.push_back({current, it->second.get(), reader.position(), tag.wireType()});
        }
        reader.skipField(tag);
        // Skips do not check that the bytes they step over exist.
        if (reader.position() > reader.size()) throw SerializationError::truncated();
      }
    } catch (const Error& error) {
      return ScanFault{current, error.what()};
    }
    return std::nullopt;
  }

  // Emits field occurrences_[begin, end) as one member, or nothing for a repeated field without
  // elements. `any` tells whether the object has members already, and becomes true once this one
  // is written.
  void field(ByteView bytes, size_t begin, size_t end, const std::string* faultText, int depth,
             int level, bool& any) {
    const FieldSchemaDescribing& field = *occurrences_[begin].field;
    const size_t memberStart = out_.size();
    separate(any, level);
    key(field.name());
    const size_t valueStart = out_.size();
    try {
      if (faultText) {
        fieldError(field.name(), *faultText);
        any = true;
        return;
      }
      const TypeSchemaDescription& type = field.type();
      bool present = true;
      if (!field.isRepeated()) {
        const Occurrence occurrence = occurrences_[begin];
        Reader reader = readerAt(bytes, occurrence.position);
        value(type, reader, occurrence.wireType, depth, level);
      } else if (const auto entry = type.kind() == Case::message
                                        ? detail::mapEntryFields(*type.messageSchema())
                                        : std::nullopt) {
        map(*entry, bytes, begin, end, depth, level);
      } else {
        present = repeated(type, bytes, begin, end, depth, level);
      }
      if (!present) {
        out_.resize(memberStart);
        return;
      }
    } catch (const Error& error) {
      out_.resize(valueStart);
      fieldError(field.name(), error.what());
    }
    any = true;
  }

  // Emits every element of a repeated field as an array; false, with nothing emitted, when the
  // occurrences hold no element (empty packed runs).
  bool repeated(const TypeSchemaDescription& type, ByteView bytes, size_t begin, size_t end,
                int depth, int level) {
    const size_t arrayStart = out_.size();
    out_.push_back('[');
    bool any = false;
    for (size_t i = begin; i < end; ++i) {
      const Occurrence occurrence = occurrences_[i];
      Reader reader = readerAt(bytes, occurrence.position);
      if (occurrence.wireType == ProtoWireType::lengthDelimited && isPackable(type.kind())) {
        const ByteView run = reader.readLengthDelimited();
        const int64_t runEnd = reader.position();
        Reader elements = reader.narrowed(runEnd - static_cast<int64_t>(run.size()), runEnd);
        while (elements.hasMoreFields()) {
          separate(any, level + 1);
          any = true;
          scalar(decodePackedElement(elements, type));
        }
        // An element running past the run's end has read the bytes that follow it.
        if (elements.position() != runEnd) throw SerializationError::malformedProtobuf();
      } else {
        separate(any, level + 1);
        any = true;
        value(type, reader, occurrence.wireType, depth, level + 1);
      }
    }
    if (!any) {
      out_.resize(arrayStart);
      return false;
    }
    newline(level);
    out_.push_back(']');
    return true;
  }

  // Emits a map field, whose entries are occurrences_[begin, end), as an object.
  void map(const detail::MapEntryFields& entryFields, ByteView bytes, size_t begin, size_t end,
           int depth, int level) {
    const TypeSchemaDescription& keyType = entryFields.key->type();
    const TypeSchemaDescription& valueType = entryFields.value->type();

    struct Entry {
      std::string key;
      ByteView bytes;
      // The value's first occurrence in `bytes`, if any.
      std::optional<int64_t> valuePosition;
      ProtoWireType valueWireType = ProtoWireType::varInt;
      bool shown = true;
    };
    std::vector<Entry> entries;
    entries.reserve(end - begin);
    for (size_t i = begin; i < end; ++i) {
      const Occurrence occurrence = occurrences_[i];
      if (occurrence.wireType != ProtoWireType::lengthDelimited) {
        throw SerializationError::typeMismatch(occurrence.field->type(), occurrence.wireType);
      }
      Reader reader = readerAt(bytes, occurrence.position);
      Entry& entry = entries.emplace_back();
      entry.bytes = reader.readLengthDelimited();
      bool hasKey = false;
      Reader fields(entry.bytes);
      while (fields.hasMoreFields()) {
        const FieldTag tag = fields.readTag();
        if (tag.fieldNumber() == 1 && !hasKey) {
          entry.key = keyText(decodeValue(fields, keyType, tag.wireType()));
          hasKey = true;
        } else if (tag.fieldNumber() == 2 && !entry.valuePosition) {
          entry.valuePosition = fields.position();
          entry.valueWireType = tag.wireType();
          fields.skipField(tag);
        } else {
          fields.skipField(tag);
        }
        if (fields.position() > fields.size()) throw SerializationError::truncated();
      }
      if (!hasKey) entry.key = defaultKeyText(keyType.kind());
    }
    // Of several entries with one key the last wins, where it stands.
    if (entries.size() > 1) {
      std::vector<size_t> order(entries.size());
      for (size_t i = 0; i < order.size(); ++i) order[i] = i;
      std::stable_sort(order.begin(), order.end(),
                       [&](size_t a, size_t b) { return entries[a].key < entries[b].key; });
      for (size_t i = 0; i + 1 < order.size(); ++i) {
        if (entries[order[i]].key == entries[order[i + 1]].key) entries[order[i]].shown = false;
      }
    }

    out_.push_back('{');
    bool any = false;
    for (const Entry& entry : entries) {
      if (!entry.shown) continue;
      separate(any, level + 1);
      any = true;
      key(entry.key);
      if (entry.valuePosition) {
        Reader reader = readerAt(entry.bytes, *entry.valuePosition);
        value(valueType, reader, entry.valueWireType, depth, level + 1);
      } else {
        defaultValue(valueType);
      }
    }
    if (any) newline(level);
    out_.push_back('}');
  }

  // Emits the value that follows a tag of `wireType` at the reader's position.
  void value(const TypeSchemaDescription& type, Reader& reader, ProtoWireType wireType, int depth,
             int level) {
    const Case kind = type.kind();
    if (kind != Case::string && kind != Case::bytes && kind != Case::message) {
      scalar(decodeValue(reader, type, wireType));
      return;
    }
    if (wireType != ProtoWireType::lengthDelimited) {
      throw SerializationError::typeMismatch(type, wireType);
    }
    const ByteView payload = reader.readLengthDelimited();
    if (kind == Case::string) {
      string(asText(payload));
    } else if (kind == Case::bytes) {
      out_.push_back('"');
      appendBase64(payload, out_);
      out_.push_back('"');
    } else {
      if (depth >= kMaxMessageDepth) {
        throw SchematizerError::protocolBufferError("Nesting deeper than 100 messages");
      }
      message(*type.messageSchema(), payload, depth + 1, level);
    }
  }

  void scalar(const AnyValueImpl& value) {
    switch (value.kind()) {
      case AnyValueImpl::Case::int32:
        number(value.int32Value());
        return;
      case AnyValueImpl::Case::uint32:
        number(value.uint32Value());
        return;
      case AnyValueImpl::Case::int64:
        quotedNumber(value.int64Value());
        return;
      case AnyValueImpl::Case::uint64:
        quotedNumber(value.uint64Value());
        return;
      case AnyValueImpl::Case::float_:
        floatingPoint(value.floatValue());
        return;
      case AnyValueImpl::Case::double_:
        floatingPoint(value.doubleValue());
        return;
      case AnyValueImpl::Case::bool_:
        out_ += value.boolValue() ? "true" : "false";
        return;
      case AnyValueImpl::Case::enum_:
        enumValue(*value.enumValue().type, value.enumValue().number());
        return;
      case AnyValueImpl::Case::string:
        string(value.stringValue());
        return;
      case AnyValueImpl::Case::bytes:
      case AnyValueImpl::Case::message:
        break;
    }
    throw SchematizerError::internalError("JSON rendering of " + value.describe());
  }

  void enumValue(const EnumSchemaDescribing& schema, int64_t value) {
    if (const std::string* name = schema.findValueNameFor(value)) {
      string(*name);
    } else {
      number(value);
    }
  }

  // The value a field of `type` has when the bytes do not hold it.
  void defaultValue(const TypeSchemaDescription& type) {
    switch (type.kind()) {
      case Case::int64:
      case Case::uint64:
      case Case::sint64:
      case Case::fixed64:
      case Case::sfixed64:
        out_ += "\"0\"";
        return;
      case Case::bool_:
        out_ += "false";
        return;
      case Case::string:
      case Case::bytes:
        out_ += "\"\"";
        return;
      case Case::enum_:
        enumValue(*type.enumSchema(), 0);
        return;
      case Case::message:
        out_ += "{}";
        return;
      default:
        out_.push_back('0');
        return;
    }
  }

  static std::string keyText(const AnyValueImpl& key) {
    switch (key.kind()) {
      case AnyValueImpl::Case::bool_:
        return key.boolValue() ? "true" : "false";
      case AnyValueImpl::Case::string:
        return key.stringValue();
      case AnyValueImpl::Case::int32:
        return std::to_string(key.int32Value());
      case AnyValueImpl::Case::uint32:
        return std::to_string(key.uint32Value());
      case AnyValueImpl::Case::int64:
        return std::to_string(key.int64Value());
      case AnyValueImpl::Case::uint64:
        return std::to_string(key.uint64Value());
      default:
        throw SchematizerError::internalError("JSON map key of " + key.describe());
    }
  }

  static std::string defaultKeyText(Case kind) {
    if (kind == Case::string) return "";
    return kind == Case::bool_ ? "false" : "0";
  }

  template <typename Integer>
  void number(Integer value) {
    char buffer[24];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    out_.append(buffer, result.ptr);
  }

  template <typename Integer>
  void quotedNumber(Integer value) {
    out_.push_back('"');
    number(value);
    out_.push_back('"');
  }

  // std::to_chars without a precision gives the shortest text that reads back as the same value,
  // in the value's own type: a float prints as a float, not as the double it widens to.
  template <typename Float>
  void floatingPoint(Float value) {
    if (std::isnan(value)) {
      out_ += "\"NaN\"";
    } else if (std::isinf(value)) {
      out_ += value > 0 ? "\"Infinity\"" : "\"-Infinity\"";
    } else if (value == 0 && std::signbit(value)) {
      // "-0" would read back as the integer 0 and lose its sign.
      out_ += "-0.0";
    } else {
      char buffer[64];
      const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
      out_.append(buffer, result.ptr);
    }
  }

  // `text` as a JSON string; invalid UTF-8 becomes U+FFFD, as the string decoder does it.
  void string(std::string_view text) {
    const size_t start = out_.size();
    if (escaped(text)) return;
    out_.resize(start);
    escaped(decodeUtf8Lossy(asBytes(text)));
  }

  // Appends `text` quoted and escaped, in one pass that also validates the UTF-8. Escapes only
  // what JSON requires (controls, quote, backslash), in the forms nlohmann::json writes them:
  // everything else is copied in runs. False, with a partial string appended, when `text` is not
  // valid UTF-8.
  //
  // Hand-written because strings dominate rendering time: nlohmann::json escapes only through a
  // json value (a copy of the string) and its serializer, measured at five to ten times the cost
  // of this loop per short string.
  bool escaped(std::string_view text) {
    out_.push_back('"');
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
        const size_t length = utf8SequenceLength(p, end);
        if (length == 0) return false;
        p += length;
        continue;
      }
      if (!kNeedsEscape[c]) {
        ++p;
        continue;
      }
      out_.append(reinterpret_cast<const char*>(run), static_cast<size_t>(p - run));
      escape(c);
      run = ++p;
    }
    out_.append(reinterpret_cast<const char*>(run), static_cast<size_t>(end - run));
    out_.push_back('"');
    return true;
  }

  void escape(unsigned char c) {
    switch (c) {
      case '"':
        out_ += "\\\"";
        return;
      case '\\':
        out_ += "\\\\";
        return;
      case '\b':
        out_ += "\\b";
        return;
      case '\f':
        out_ += "\\f";
        return;
      case '\n':
        out_ += "\\n";
        return;
      case '\r':
        out_ += "\\r";
        return;
      case '\t':
        out_ += "\\t";
        return;
      default: {
        static constexpr char kHex[] = "0123456789abcdef";
        const char sequence[] = {'\\', 'u', '0', '0', kHex[c >> 4], kHex[c & 0xF]};
        out_.append(sequence, sizeof sequence);
      }
    }
  }

  // The text of a field that failed, logged and emitted as the field's value.
  void fieldError(std::string_view fieldName, std::string_view errorText) {
    std::string text = "Sch: Error encoding ";
    text += fieldName;
    text += ": ";
    text += errorText;
    detail::log(text);
    string(text);
  }

  void key(std::string_view name) {
    string(name);
    if (indented_) {
      out_ += ": ";
    } else {
      out_.push_back(':');
    }
  }

  // Starts a member or element at `level`: a comma after an earlier one, then the line break.
  void separate(bool any, int level) {
    if (any) out_.push_back(',');
    newline(level);
  }

  void newline(int level) {
    if (!indented_) return;
    out_.push_back('\n');
    out_.append(static_cast<size_t>(2 * level), ' ');
  }

  static Reader readerAt(ByteView bytes, int64_t position) {
    Reader reader(bytes);
    reader.setPosition(position);
    return reader;
  }

  std::string& out_;
  const bool indented_;
  // The gathered occurrences of the messages being rendered, innermost last.
  std::vector<Occurrence> occurrences_;
};

}  // namespace

std::string renderJSON(const SchematizedDataDescribing& data, JsonStyle style) {
  const ByteView bytes = data.bytes();
  std::string out;
  // Protobuf's binary form is compact: JSON text of the same data is typically one to three times
  // as long.
  out.reserve(2 * bytes.size() + 16);
  Renderer(out, style).message(*data.messageSchema(), bytes, 1, 0);
  return out;
}

std::string toJSON(const SchematizedData& data, JsonStyle style) {
  return renderJSON(data.unsafe(), style);
}

std::optional<std::string> optionsJSON(const MessageSchema& schema, JsonStyle style) {
  const std::optional<SchematizedData>& options = schema.options();
  if (!options) return std::nullopt;
  return toJSON(*options, style);
}

}  // namespace ostrel
