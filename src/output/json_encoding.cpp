#include "ostrel/output/json_encoding.hpp"

#include <charconv>
#include <cmath>
#include <deque>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "ostrel/core/base64.hpp"
#include "ostrel/core/errors.hpp"
#include "output/map_entry.hpp"

namespace ostrel {
namespace {

// Ordered, so that members are written in the order of the text: map entries keep their order and
// a rendering of the result matches the text it came from.
using Json = nlohmann::ordered_json;
using Case = TypeSchemaDescription::Case;

// The outermost message counts as the first.
constexpr int kMaxMessageDepth = 100;

// Where a value stands in the document. Built on the stack as the encoder descends and turned into
// text only for an error, so that the common case spends nothing on paths.
struct Path {
  enum class Kind : uint8_t { root, member, element, key };

  const Path* parent = nullptr;
  Kind kind = Kind::root;
  std::string_view name;
  size_t index = 0;

  Path member(std::string_view memberName) const { return {this, Kind::member, memberName, 0}; }
  Path element(size_t elementIndex) const { return {this, Kind::element, {}, elementIndex}; }
  Path key(std::string_view keyText) const { return {this, Kind::key, keyText, 0}; }

  // "$.mids[1].leaf", "$.counts[\"a\"]".
  std::string text() const {
    std::vector<const Path*> chain;
    for (const Path* p = this; p; p = p->parent) chain.push_back(p);
    std::string out;
    for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
      const Path& p = **it;
      switch (p.kind) {
        case Kind::root:
          out += '$';
          break;
        case Kind::member:
          out += '.';
          out += p.name;
          break;
        case Kind::element:
          out += '[' + std::to_string(p.index) + ']';
          break;
        case Kind::key:
          out += '[' + Json(p.name).dump() + ']';
          break;
      }
    }
    return out;
  }
};

[[noreturn]] void expected(const Path& path, std::string_view what) {
  throw SchematizerError::unexpectedType(path.text() + ": expected " + std::string(what));
}

// The whole of `text` as a decimal integer of type T, or no value when it is not one; `outOfRange`
// is set when it is a decimal integer that T cannot hold.
template <typename T>
std::optional<T> parseInteger(std::string_view text, bool& outOfRange) {
  const char* const begin = text.data();
  const char* const end = begin + text.size();
  if (begin != end && *begin == '-') {
    int64_t value = 0;
    const auto [ptr, ec] = std::from_chars(begin, end, value);
    if (ptr != end || (ec != std::errc() && ec != std::errc::result_out_of_range)) {
      return std::nullopt;
    }
    if (ec == std::errc::result_out_of_range || !std::in_range<T>(value)) {
      outOfRange = true;
      return std::nullopt;
    }
    return static_cast<T>(value);
  }
  uint64_t value = 0;
  const auto [ptr, ec] = std::from_chars(begin, end, value);
  if (ptr != end || (ec != std::errc() && ec != std::errc::result_out_of_range)) {
    return std::nullopt;
  }
  if (ec == std::errc::result_out_of_range || !std::in_range<T>(value)) {
    outOfRange = true;
    return std::nullopt;
  }
  return static_cast<T>(value);
}

// `value` as an integer of type T, which the field type `typeName` holds: a JSON number that is an
// exact integer, or a decimal string.
template <typename T>
T integer(const Json& value, const Path& path, std::string_view typeName) {
  bool outOfRange = false;
  std::optional<T> result;
  if (value.is_number_unsigned()) {
    const auto number = value.get<uint64_t>();
    if (std::in_range<T>(number)) result = static_cast<T>(number);
    outOfRange = !result;
  } else if (value.is_number_integer()) {
    const auto number = value.get<int64_t>();
    if (std::in_range<T>(number)) result = static_cast<T>(number);
    outOfRange = !result;
  } else if (value.is_number_float()) {
    const auto number = value.get<double>();
    if (std::isfinite(number) && std::trunc(number) == number) {
      // Both bounds are powers of two, exact as doubles.
      constexpr double kTwoTo63 = 9223372036854775808.0;
      if (number >= -kTwoTo63 && number < kTwoTo63) {
        const auto whole = static_cast<int64_t>(number);
        if (std::in_range<T>(whole)) result = static_cast<T>(whole);
      } else if (number >= 0 && number < 2 * kTwoTo63) {
        const auto whole = static_cast<uint64_t>(number);
        if (std::in_range<T>(whole)) result = static_cast<T>(whole);
      }
      outOfRange = !result;
    }
  } else if (value.is_string()) {
    result = parseInteger<T>(value.get_ref<const std::string&>(), outOfRange);
  }
  if (result) return *result;
  if (outOfRange) expected(path, "an integer in the range of " + std::string(typeName));
  expected(path, "an integer of type " + std::string(typeName));
}

// `value` as a double: a JSON number, a numeric string, or one of the strings of the special
// values.
double realNumber(const Json& value, const Path& path, std::string_view typeName) {
  if (value.is_number()) {
    const auto number = value.get<double>();
    if (std::isfinite(number)) return number;
  } else if (value.is_string()) {
    const auto& text = value.get_ref<const std::string&>();
    if (text == "NaN") return std::numeric_limits<double>::quiet_NaN();
    if (text == "Infinity") return std::numeric_limits<double>::infinity();
    if (text == "-Infinity") return -std::numeric_limits<double>::infinity();
    double number = 0;
    const auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), number);
    // from_chars also reads "inf" and "nan"; only the three spellings above stand for those.
    if (ec == std::errc() && ptr == text.data() + text.size() && std::isfinite(number)) {
      return number;
    }
  }
  expected(path, "a number of type " + std::string(typeName));
}

float floatNumber(const Json& value, const Path& path) {
  const double number = realNumber(value, path, "float");
  // Halfway between the largest float and 2^128: anything below rounds to a finite float. The
  // shortest text of the largest float, 3.4028235e+38, reads as a double a little above it and
  // must still be taken.
  constexpr double kFloatOverflow = 0x1.ffffffp127;
  if (std::isfinite(number) && std::fabs(number) >= kFloatOverflow) {
    expected(path, "a number in the range of float");
  }
  return static_cast<float>(number);
}

class Encoder {
 public:
  SchematizedData message(const MessageSchemaDescribing& schema, const Json& object,
                          const Path& path, int depth) {
    if (!object.is_object()) expected(path, "an object");
    // Values written by buildData borrow these: the nested messages and the decoded bytes.
    Buffers buffers;
    std::map<std::string_view, FieldValues> values;
    for (const auto& [name, member] : object.items()) {
      const std::shared_ptr<FieldSchemaDescribing>& field = schema.fieldNamed(name);
      if (member.is_null()) continue;
      const Path memberPath = path.member(field->name());
      const TypeSchemaDescription& type = field->type();
      FieldValues fieldValues;
      if (!field->isRepeated()) {
        fieldValues.push_back(value(type, member, memberPath, depth, buffers));
      } else if (const auto entry = type.kind() == Case::message
                                        ? detail::mapEntryFields(*type.messageSchema())
                                        : std::nullopt) {
        if (!member.is_object()) expected(memberPath, "an object");
        fieldValues.reserve(member.size());
        for (const auto& [keyText, entryValue] : member.items()) {
          fieldValues.push_back(mapEntry(*type.messageSchema(), *entry, keyText, entryValue,
                                         memberPath.key(keyText), depth, buffers));
        }
      } else {
        if (!member.is_array()) expected(memberPath, "an array");
        fieldValues.reserve(member.size());
        for (size_t i = 0; i < member.size(); ++i) {
          fieldValues.push_back(value(type, member[i], memberPath.element(i), depth, buffers));
        }
      }
      values.emplace(field->name(), std::move(fieldValues));
    }
    return schema.buildData([&](const std::shared_ptr<FieldSchemaDescribing>& field) {
      const auto it = values.find(field->name());
      return it == values.end() ? FieldValues{} : std::move(it->second);
    });
  }

 private:
  struct Buffers {
    // Deques: adding an element never moves the others, which values already point into.
    std::deque<SchematizedData> messages;
    std::deque<Bytes> bytes;
  };

  AnyValueImpl value(const TypeSchemaDescription& type, const Json& json, const Path& path,
                     int depth, Buffers& buffers) {
    switch (type.kind()) {
      case Case::int32:
        return AnyValueImpl::int32(integer<int32_t>(json, path, "int32"));
      case Case::sint32:
        return AnyValueImpl::int32(integer<int32_t>(json, path, "sint32"));
      case Case::sfixed32:
        return AnyValueImpl::int32(integer<int32_t>(json, path, "sfixed32"));
      case Case::uint32:
        return AnyValueImpl::uint32(integer<uint32_t>(json, path, "uint32"));
      case Case::fixed32:
        return AnyValueImpl::uint32(integer<uint32_t>(json, path, "fixed32"));
      case Case::int64:
        return AnyValueImpl::int64(integer<int64_t>(json, path, "int64"));
      case Case::sint64:
        return AnyValueImpl::int64(integer<int64_t>(json, path, "sint64"));
      case Case::sfixed64:
        return AnyValueImpl::int64(integer<int64_t>(json, path, "sfixed64"));
      case Case::uint64:
        return AnyValueImpl::uint64(integer<uint64_t>(json, path, "uint64"));
      case Case::fixed64:
        return AnyValueImpl::uint64(integer<uint64_t>(json, path, "fixed64"));
      case Case::float_:
        return AnyValueImpl::float_(floatNumber(json, path));
      case Case::double_:
        return AnyValueImpl::double_(realNumber(json, path, "double"));
      case Case::bool_:
        if (!json.is_boolean()) expected(path, "a boolean");
        return AnyValueImpl::bool_(json.get<bool>());
      case Case::string:
        if (!json.is_string()) expected(path, "a string");
        return AnyValueImpl::string(json.get<std::string>());
      case Case::bytes: {
        std::optional<Bytes> decoded;
        if (json.is_string()) decoded = base64Decode(json.get_ref<const std::string&>());
        if (!decoded) expected(path, "a base64 string");
        return AnyValueImpl::bytes(buffers.bytes.emplace_back(std::move(*decoded)));
      }
      case Case::enum_:
        // Written as an int32 value, which an enum field takes as it is: negative numbers too.
        if (json.is_string()) {
          const auto& text = json.get_ref<const std::string&>();
          bool outOfRange = false;
          if (const auto number = parseInteger<int32_t>(text, outOfRange)) {
            return AnyValueImpl::int32(*number);
          }
          if (outOfRange) expected(path, "an integer in the range of int32");
          const int64_t number = type.enumSchema()->valueNamed(text);
          if (!std::in_range<int32_t>(number)) expected(path, "an integer in the range of int32");
          return AnyValueImpl::int32(static_cast<int32_t>(number));
        }
        if (!json.is_number()) expected(path, "an enum name or number");
        return AnyValueImpl::int32(integer<int32_t>(json, path, "int32"));
      case Case::message: {
        if (depth >= kMaxMessageDepth) {
          throw SchematizerError::protocolBufferError("Nesting deeper than 100 messages");
        }
        const SchematizedData& nested =
            buffers.messages.emplace_back(message(*type.messageSchema(), json, path, depth + 1));
        return AnyValueImpl::message(nested.unsafe());
      }
    }
    throw SchematizerError::internalError("JSON encoding of " + type.describe());
  }

  // One entry of a map field, key and value both written.
  AnyValueImpl mapEntry(const MessageSchemaDescribing& entrySchema,
                        const detail::MapEntryFields& fields, const std::string& keyText,
                        const Json& json, const Path& path, int depth, Buffers& buffers) {
    const AnyValueImpl key = mapKey(fields.key->type(), keyText, path);
    const AnyValueImpl value = this->value(fields.value->type(), json, path, depth, buffers);
    const FieldSchemaDescribing* const keyField = fields.key;
    const FieldSchemaDescribing* const valueField = fields.value;
    const SchematizedData& entry = buffers.messages.emplace_back(
        entrySchema.buildData([&](const std::shared_ptr<FieldSchemaDescribing>& field) {
          if (field.get() == keyField) return FieldValues{key};
          if (field.get() == valueField) return FieldValues{value};
          return FieldValues{};
        }));
    return AnyValueImpl::message(entry.unsafe());
  }

  AnyValueImpl mapKey(const TypeSchemaDescription& type, const std::string& text,
                      const Path& path) {
    switch (type.kind()) {
      case Case::string:
        return AnyValueImpl::string(text);
      case Case::bool_:
        if (text == "true") return AnyValueImpl::bool_(true);
        if (text == "false") return AnyValueImpl::bool_(false);
        expected(path, "a key of type bool");
      default: {
        // The member name as a JSON string, so that integer() reads it as a decimal string.
        Buffers unused;
        return value(type, Json(text), path, 0, unused);
      }
    }
  }
};

}  // namespace

SchematizedData encodeJSON(const MessageSchemaDescribing& schema, std::string_view json) {
  Json document;
  try {
    document = Json::parse(json);
  } catch (const Json::exception& error) {
    throw SchematizerError::unexpectedType(std::string("invalid JSON: ") + error.what());
  }
  return Encoder().message(schema, document, Path{}, 1);
}

SchematizedData encodeJSON(const MessageSchema& schema, std::string_view json) {
  return encodeJSON(*schema.impl(), json);
}

}  // namespace ostrel
