#include <charconv>
#include <cmath>
#include <deque>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "core/json_document.hpp"
#include "core/json_text.hpp"
#include "ostrel/core/errors.hpp"
#include "ostrel/core/values.hpp"
#include "ostrel/output/json.hpp"
#include "output/field_type_table.hpp"
#include "output/map_entry.hpp"
#include "output/well_known.hpp"

namespace ostrel {
namespace {

// Ordered, so that members are written in the order of the text: map entries keep their order and
// a rendering of the result matches the text it came from.
using Json = nlohmann::ordered_json;
using Case = TypeSchemaDescription::Case;
using detail::WellKnown;

// The outermost message counts as the first.
constexpr int kMaxMessageDepth = 100;
// A message adds at most two levels of JSON (its object, and the array or map object it stands
// in); deeper text could never encode, so the parse refuses it before building it.
constexpr size_t kMaxDocumentDepth = 2 * kMaxMessageDepth + 1;

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
          out += '[' + detail::jsonString(p.name) + ']';
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

// `value` as an integer of the value case `valueCase` (int32, uint32, int64 or uint64), for a field
// of the type named `typeName`.
detail::AnyValueImpl integerValue(detail::AnyValueImpl::Case valueCase, const Json& value,
                                  const Path& path, std::string_view typeName) {
  using Value = detail::AnyValueImpl::Case;
  switch (valueCase) {
    case Value::int32:
      return detail::AnyValueImpl::int32(integer<int32_t>(value, path, typeName));
    case Value::uint32:
      return detail::AnyValueImpl::uint32(integer<uint32_t>(value, path, typeName));
    case Value::int64:
      return detail::AnyValueImpl::int64(integer<int64_t>(value, path, typeName));
    case Value::uint64:
      return detail::AnyValueImpl::uint64(integer<uint64_t>(value, path, typeName));
    default:
      throw SchematizerError::internalError("JSON encoding of " + std::string(typeName));
  }
}

class Encoder {
 public:
  // `object` as a message of `schema`; the member "@type" is passed over when `inAny` (the object
  // is the content of an Any).
  SchematizedData message(const MessageSchemaDescribing& schema, const Json& object,
                          const Path& path, int depth, bool inAny = false) {
    if (!object.is_object()) expected(path, "an object");
    // Values written by buildData borrow these: the nested messages and the decoded bytes.
    Buffers buffers;
    std::map<std::string_view, FieldValues> values;
    for (const auto& [name, member] : object.items()) {
      if (inAny && name == "@type") continue;
      const std::shared_ptr<FieldSchemaDescribing>& field = fieldNamed(schema, name);
      const Path memberPath = path.member(field->name());
      if (member.is_null()) {
        // null leaves a field out, except where it is a value: a google.protobuf.Value or
        // NullValue field is then set to null.
        const TypeSchemaDescription& type = field->type();
        const bool isValue = type.kind() == Case::message &&
                             detail::wellKnownKind(*type.messageSchema()) == WellKnown::value;
        if (field->isRepeated() || (!isValue && !detail::isNullValue(type))) continue;
      }
      if (!values.emplace(field->name(), fieldValues(*field, member, memberPath, depth, buffers))
               .second) {
        expected(memberPath, "the field once, under one of its names");
      }
    }
    return schema.buildData([&](const std::shared_ptr<FieldSchemaDescribing>& field) {
      const auto it = values.find(field->name());
      return it == values.end() ? FieldValues{} : std::move(it->second);
    });
  }

  // The top-level message: a well-known type in its JSON form, any other as an object.
  SchematizedData document(const MessageSchemaDescribing& schema, const Json& json) {
    const WellKnown kind = detail::wellKnownKind(schema);
    if (kind != WellKnown::none) return wellKnown(schema, kind, json, Path{}, 1);
    return message(schema, json, Path{}, 1);
  }

 private:
  struct Buffers {
    // Deques: adding an element never moves the others, which values already point into.
    std::deque<SchematizedData> messages;
    std::deque<Bytes> bytes;
  };

  // The values of `field` that `member` gives: one, or for a repeated field its elements, or for a
  // map field its entries.
  FieldValues fieldValues(const FieldSchemaDescribing& field, const Json& member,
                          const Path& memberPath, int depth, Buffers& buffers) {
    const TypeSchemaDescription& type = field.type();
    FieldValues values;
    if (!field.isRepeated()) {
      values.push_back(value(type, member, memberPath, depth, buffers));
    } else if (const auto entry = type.kind() == Case::message
                                      ? detail::mapEntryFields(*type.messageSchema())
                                      : std::nullopt) {
      if (!member.is_object()) expected(memberPath, "an object");
      values.reserve(member.size());
      for (const auto& [keyText, entryValue] : member.items()) {
        values.push_back(mapEntry(*type.messageSchema(), *entry, keyText, entryValue,
                                  memberPath.key(keyText), depth, buffers));
      }
    } else {
      if (!member.is_array()) expected(memberPath, "an array");
      values.reserve(member.size());
      for (size_t i = 0; i < member.size(); ++i) {
        values.push_back(value(type, member[i], memberPath.element(i), depth, buffers));
      }
    }
    return values;
  }

  // The field a member names: by its declared name, its JSON name (lowerCamelCase), or for an
  // extension "[its.full.name]". Any other name fails with the schema's own error.
  const std::shared_ptr<FieldSchemaDescribing>& fieldNamed(const MessageSchemaDescribing& schema,
                                                           const std::string& name) {
    auto [it, added] = names_.try_emplace(&schema);
    auto& names = it->second;
    if (added) {
      const auto& fields = schema.fieldsByNumber();
      // Declared names first, so that they win over a JSON name that happens to be the same.
      for (const auto& [number, field] : fields) names.emplace(field->name(), &field);
      for (const auto& [number, field] : fields) {
        names.emplace(field->jsonName(), &field);
        if (const auto& extension = field->extensionName()) {
          names.emplace(detail::extensionMemberName(*extension), &field);
        }
      }
    }
    if (const auto found = names.find(name); found != names.end()) return *found->second;
    return schema.fieldNamed(name);
  }

  // A message with the given values of its fields, by number.
  static SchematizedData build(const MessageSchemaDescribing& schema,
                               std::map<int64_t, FieldValues> byNumber) {
    return schema.buildData([&](const std::shared_ptr<FieldSchemaDescribing>& field) {
      const auto it = byNumber.find(field->fieldNumber());
      return it == byNumber.end() ? FieldValues{} : std::move(it->second);
    });
  }

  // A well-known type's message from its JSON form.
  SchematizedData wellKnown(const MessageSchemaDescribing& schema, WellKnown kind, const Json& json,
                            const Path& path, int depth) {
    Buffers buffers;
    const auto field = [&](int64_t number) -> const FieldSchemaDescribing& {
      return *schema.fieldWithNumber(number);
    };
    switch (kind) {
      case WellKnown::timestamp:
      case WellKnown::duration: {
        std::optional<detail::SecondsAndNanos> time;
        if (json.is_string()) {
          const auto& text = json.get_ref<const std::string&>();
          time = kind == WellKnown::timestamp ? detail::parseTimestamp(text)
                                              : detail::parseDuration(text);
        }
        if (!time) {
          expected(path, kind == WellKnown::timestamp
                             ? "an RFC 3339 timestamp of years 1 to 9999"
                             : "a duration such as \"-1.5s\" within 315576000000 seconds");
        }
        std::map<int64_t, FieldValues> values;
        if (time->seconds != 0) values[1] = {detail::AnyValueImpl::int64(time->seconds)};
        if (time->nanos != 0) values[2] = {detail::AnyValueImpl::int32(time->nanos)};
        return build(schema, std::move(values));
      }
      case WellKnown::wrapper:
        return build(schema, {{1, {value(field(1).type(), json, path, depth, buffers)}}});
      case WellKnown::fieldMask: {
        if (!json.is_string()) expected(path, "a string of paths");
        FieldValues paths;
        const std::string_view text = json.get_ref<const std::string&>();
        for (size_t start = 0; !text.empty() && start <= text.size();) {
          const size_t comma = std::min(text.find(',', start), text.size());
          const std::optional<std::string> path_ =
              detail::fieldMaskPathFromJson(text.substr(start, comma - start));
          if (!path_) expected(path, "paths in lowerCamelCase");
          paths.push_back(detail::AnyValueImpl::string(*path_));
          start = comma + 1;
        }
        return build(schema, {{1, std::move(paths)}});
      }
      case WellKnown::structType:
        if (!json.is_object()) expected(path, "an object");
        return build(schema, {{1, fieldValues(field(1), json, path, depth, buffers)}});
      case WellKnown::listValue:
        if (!json.is_array()) expected(path, "an array");
        return build(schema, {{1, fieldValues(field(1), json, path, depth, buffers)}});
      case WellKnown::value: {
        int64_t number = 0;
        if (json.is_null()) {
          number = 1;
        } else if (json.is_number()) {
          number = 2;
        } else if (json.is_string()) {
          number = 3;
        } else if (json.is_boolean()) {
          number = 4;
        } else if (json.is_object()) {
          number = 5;
        } else {
          number = 6;
        }
        const TypeSchemaDescription& type = field(number).type();
        return build(schema, {{number,
                               {number == 1 ? detail::AnyValueImpl::int32(0)
                                            : value(type, json, path, depth, buffers)}}});
      }
      case WellKnown::any: {
        if (!json.is_object()) expected(path, "an object");
        if (json.empty()) return build(schema, {});
        const auto typeMember = json.find("@type");
        if (typeMember == json.end() || !typeMember->is_string()) {
          expected(path, "an object with a member \"@type\"");
        }
        const std::string& typeUrl = typeMember->get_ref<const std::string&>();
        const std::shared_ptr<MessageSchemaDescribing> packed = detail::anyType(schema, typeUrl);
        if (depth >= kMaxMessageDepth) {
          throw SchematizerError::protocolBufferError("Nesting deeper than 100 messages");
        }
        const WellKnown packedKind = detail::wellKnownKind(*packed);
        const auto encodeContent = [&]() -> SchematizedData {
          if (packedKind == WellKnown::none) return message(*packed, json, path, depth + 1, true);
          for (const auto& [name, member] : json.items()) {
            if (name != "@type" && name != "value") {
              expected(path.member(name), "no member beside \"@type\" and \"value\"");
            }
          }
          const auto valueMember = json.find("value");
          // "@type" alone is the empty message.
          if (valueMember == json.end()) return build(*packed, {});
          return wellKnown(*packed, packedKind, *valueMember, path.member("value"), depth + 1);
        };
        const SchematizedData content = encodeContent();
        const Bytes& bytes = buffers.bytes.emplace_back(toBytes(content.bytes()));
        return build(schema, {{1, {detail::AnyValueImpl::string(typeUrl)}},
                              {2, {detail::AnyValueImpl::bytes(bytes)}}});
      }
      case WellKnown::none:
        break;
    }
    return message(schema, json, path, depth);
  }

  detail::AnyValueImpl value(const TypeSchemaDescription& type, const Json& json, const Path& path,
                             int depth, Buffers& buffers) {
    switch (type.kind()) {
      case Case::float_:
        return detail::AnyValueImpl::float_(floatNumber(json, path));
      case Case::double_:
        return detail::AnyValueImpl::double_(realNumber(json, path, "double"));
      case Case::bool_:
        if (!json.is_boolean()) expected(path, "a boolean");
        return detail::AnyValueImpl::bool_(json.get<bool>());
      case Case::string:
        if (!json.is_string()) expected(path, "a string");
        return detail::AnyValueImpl::string(json.get<std::string>());
      case Case::bytes: {
        std::optional<Bytes> decoded;
        if (json.is_string()) decoded = base64Decode(json.get_ref<const std::string&>());
        if (!decoded) expected(path, "a base64 string");
        return detail::AnyValueImpl::bytes(buffers.bytes.emplace_back(std::move(*decoded)));
      }
      case Case::enum_:
        if (json.is_null() && detail::isNullValue(type)) return detail::AnyValueImpl::int32(0);
        // Written as an int32 value, which an enum field takes as it is: negative numbers too.
        if (json.is_string()) {
          const auto& text = json.get_ref<const std::string&>();
          bool outOfRange = false;
          if (const auto number = parseInteger<int32_t>(text, outOfRange)) {
            return detail::AnyValueImpl::int32(*number);
          }
          if (outOfRange) expected(path, "an integer in the range of int32");
          const int64_t number = type.enumSchema()->valueNamed(text);
          if (!std::in_range<int32_t>(number)) expected(path, "an integer in the range of int32");
          return detail::AnyValueImpl::int32(static_cast<int32_t>(number));
        }
        if (!json.is_number()) expected(path, "an enum name or number");
        return detail::AnyValueImpl::int32(integer<int32_t>(json, path, "int32"));
      case Case::message: {
        if (depth >= kMaxMessageDepth) {
          throw SchematizerError::protocolBufferError("Nesting deeper than 100 messages");
        }
        const MessageSchemaDescribing& schema = *type.messageSchema();
        const WellKnown kind = detail::wellKnownKind(schema);
        const SchematizedData& nested = buffers.messages.emplace_back(
            kind == WellKnown::none ? message(schema, json, path, depth + 1)
                                    : wellKnown(schema, kind, json, path, depth + 1));
        return detail::AnyValueImpl::message(nested.unsafe());
      }
      default:
        return integerValue(detail::fieldTypeRow(type.kind()).valueCase, json, path,
                            caseName(type.kind()));
    }
    throw SchematizerError::internalError("JSON encoding of " + type.describe());
  }

  // One entry of a map field, key and value both written.
  detail::AnyValueImpl mapEntry(const MessageSchemaDescribing& entrySchema,
                                const detail::MapEntryFields& fields, const std::string& keyText,
                                const Json& json, const Path& path, int depth, Buffers& buffers) {
    const detail::AnyValueImpl key = mapKey(fields.key->type(), keyText, path);
    const detail::AnyValueImpl value =
        this->value(fields.value->type(), json, path, depth, buffers);
    const FieldSchemaDescribing* const keyField = fields.key;
    const FieldSchemaDescribing* const valueField = fields.value;
    const SchematizedData& entry = buffers.messages.emplace_back(
        entrySchema.buildData([&](const std::shared_ptr<FieldSchemaDescribing>& field) {
          if (field.get() == keyField) return FieldValues{key};
          if (field.get() == valueField) return FieldValues{value};
          return FieldValues{};
        }));
    return detail::AnyValueImpl::message(entry.unsafe());
  }

  // Each message schema's fields by declared and JSON name, built on first use.
  std::unordered_map<
      const MessageSchemaDescribing*,
      std::map<std::string, const std::shared_ptr<FieldSchemaDescribing>*, std::less<>>>
      names_;

  detail::AnyValueImpl mapKey(const TypeSchemaDescription& type, const std::string& text,
                              const Path& path) {
    switch (type.kind()) {
      case Case::string:
        return detail::AnyValueImpl::string(text);
      case Case::bool_:
        if (text == "true") return detail::AnyValueImpl::bool_(true);
        if (text == "false") return detail::AnyValueImpl::bool_(false);
        expected(path, "a key of type bool");
      default: {
        // The member name as a JSON string, so that integer() reads it as a decimal string.
        Buffers unused;
        return value(type, Json(text), path, 0, unused);
      }
    }
  }
};

// Where a refused parse stopped, in the form of Path::text: the members of the open objects and
// the positions in the open arrays; the innermost object's member only when `withLastKey`.
std::string refusalPath(const std::vector<detail::JsonFrame>& frames, bool withLastKey) {
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

}  // namespace

SchematizedData encodeJSON(const MessageSchemaDescribing& schema, std::string_view json) {
  Json document;
  std::optional<detail::JsonRefusal> refusal;
  try {
    refusal = detail::parseJsonDocument(json, kMaxDocumentDepth, document);
  } catch (const Json::exception& error) {
    throw SchematizerError::unexpectedType(std::string("invalid JSON: ") + error.what());
  }
  if (refusal) {
    if (refusal->kind == detail::JsonRefusal::Kind::repeatedMember) {
      // Which of two values was meant cannot be told; taking either would lose data silently.
      throw SchematizerError::unexpectedType(refusalPath(refusal->frames, false) +
                                             ": duplicate key " +
                                             detail::jsonString(refusal->frames.back().key));
    }
    throw SchematizerError::unexpectedType(refusalPath(refusal->frames, true) +
                                           ": nesting deeper than " +
                                           std::to_string(kMaxDocumentDepth) + " levels");
  }
  return Encoder().document(schema, document);
}

SchematizedData encodeJSON(const MessageSchema& schema, std::string_view json) {
  return encodeJSON(*schema.impl(), json);
}

}  // namespace ostrel
