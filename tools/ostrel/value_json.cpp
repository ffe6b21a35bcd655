#include <charconv>
#include <cmath>
#include <nlohmann/json.hpp>

#include "ostrel/output/json_rendering.hpp"
#include "tool.hpp"

namespace ostrel::tool {
namespace {

// The shortest text that reads back as the same value, as JSON allows it: NaN and the infinities
// have no JSON number, so they become the strings JSON mappings of protobuf use for them.
template <typename Float>
std::string floatJSON(Float value) {
  if (std::isnan(value)) return "\"NaN\"";
  if (std::isinf(value)) return value > 0 ? "\"Infinity\"" : "\"-Infinity\"";
  char buffer[64];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  return std::string(buffer, result.ptr);
}

std::string stringJSON(const std::string& text) {
  // Invalid UTF-8 is replaced rather than refused: a value of a broken record should still print.
  return nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace

std::string valueJSON(const AnyValue& value) {
  switch (value.kind()) {
    case AnyValue::Case::int32:
      return std::to_string(value.int32Value());
    case AnyValue::Case::uint32:
      return std::to_string(value.uint32Value());
    case AnyValue::Case::int64:
      return "\"" + std::to_string(value.int64Value()) + "\"";
    case AnyValue::Case::uint64:
      return "\"" + std::to_string(value.uint64Value()) + "\"";
    case AnyValue::Case::float_:
      return floatJSON(value.floatValue());
    case AnyValue::Case::double_:
      return floatJSON(value.doubleValue());
    case AnyValue::Case::bool_:
      return value.boolValue() ? "true" : "false";
    case AnyValue::Case::enum_: {
      const EnumValue& enumValue = value.enumValue();
      if (std::optional<std::string> name = enumValue.findName()) return stringJSON(*name);
      return std::to_string(enumValue.number());
    }
    case AnyValue::Case::string:
      return stringJSON(value.stringValue());
    case AnyValue::Case::bytes:
      return "\"" + base64(value.bytesValue()) + "\"";
    case AnyValue::Case::message:
      return toJSON(value.messageValue(), JsonStyle::compact);
  }
  return "null";
}

}  // namespace ostrel::tool
