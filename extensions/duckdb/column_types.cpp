#include "column_types.hpp"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <limits>
#include <stdexcept>

#include "core/base64.hpp"
#include "core/utf8.hpp"
#include "ostrel/columns/columns.hpp"
#include "ostrel/output/json.hpp"
#include "output/well_known.hpp"
#include "store/map_entry.hpp"
#include "wire/field_path.hpp"

namespace ostrel::duckdb {
namespace {

using Case = TypeSchemaDescription::Case;
using ValueCase = detail::AnyValueImpl::Case;

// How many messages deep values are STRUCTs before the rest is JSON text: the columnar
// projection's depth, so that p_get and ostrel_scan give a field the same type. (A STRUCT cannot
// contain itself; this also ends the types of messages that do.) `depth` below counts the STRUCTs
// around the type being made.
const int kStructDepth = ColumnOptions{}.structDepth;

std::unique_ptr<ColumnType> fieldType(const FieldSchemaDescribing& field, int depth);

std::unique_ptr<ColumnType> valueType(const TypeSchemaDescription& type, int depth) {
  auto result = std::make_unique<ColumnType>();
  switch (type.kind()) {
    case Case::int64:
    case Case::sint64:
    case Case::sfixed64:
      result->kind = ColumnKind::bigint;
      break;
    case Case::uint64:
    case Case::fixed64:
      result->kind = ColumnKind::ubigint;
      break;
    case Case::int32:
    case Case::sint32:
    case Case::sfixed32:
      result->kind = ColumnKind::integer;
      break;
    case Case::uint32:
    case Case::fixed32:
      result->kind = ColumnKind::uinteger;
      break;
    case Case::double_:
      result->kind = ColumnKind::double_;
      break;
    case Case::float_:
      result->kind = ColumnKind::float_;
      break;
    case Case::bool_:
      result->kind = ColumnKind::boolean;
      break;
    case Case::string:
      result->kind = ColumnKind::varchar;
      break;
    case Case::bytes:
      result->kind = ColumnKind::blob;
      break;
    case Case::enum_:
      result->kind = ColumnKind::enumName;
      result->enumeration = type.enumSchema();
      break;
    case Case::message: {
      const std::shared_ptr<MessageSchemaDescribing>& message = type.messageSchema();
      result->message = message;
      switch (detail::wellKnownKind(*message)) {
        case detail::WellKnown::timestamp:
          result->kind = ColumnKind::timestamp;
          return result;
        case detail::WellKnown::duration:
          result->kind = ColumnKind::interval;
          return result;
        case detail::WellKnown::wrapper: {
          result->kind = ColumnKind::wrapper;
          result->valueField = message->fieldWithNumber(1).get();
          result->element = valueType(result->valueField->type(), depth);
          return result;
        }
        case detail::WellKnown::none:
          break;
        default:
          result->kind = ColumnKind::json;
          return result;
      }
      // A STRUCT needs at least one member.
      if (depth >= kStructDepth || message->fieldsByNumber().empty()) {
        result->kind = ColumnKind::json;
        break;
      }
      result->kind = ColumnKind::struct_;
      for (const auto& [number, field] : message->fieldsByNumber()) {
        result->members.push_back({field->name(), field, fieldType(*field, depth + 1)});
      }
      break;
    }
  }
  return result;
}

std::unique_ptr<ColumnType> fieldType(const FieldSchemaDescribing& field, int depth) {
  if (!field.isRepeated()) return valueType(field.type(), depth);
  auto result = std::make_unique<ColumnType>();
  const TypeSchemaDescription& type = field.type();
  if (type.kind() == Case::message) {
    if (const auto entry = detail::mapEntryFields(*type.messageSchema())) {
      result->kind = ColumnKind::map;
      result->keyField = entry->key;
      result->valueField = entry->value;
      result->key = valueType(entry->key->type(), depth);
      result->value = valueType(entry->value->type(), depth);
      return result;
    }
  }
  result->kind = ColumnKind::list;
  result->element = valueType(type, depth);
  return result;
}

std::string quotedIdentifier(std::string_view name) {
  std::string text = "\"";
  for (const char c : name) {
    text += c;
    if (c == '"') text += '"';
  }
  return text + '"';
}

void appendJsonString(std::string_view text, std::string& out) {
  out += '"';
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (byte < 0x20) {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\u%04x", byte);
      out += escape;
    } else {
      out += c;
    }
  }
  out += '"';
}

// Bytes as base64 text: DuckDB's JSON reader takes only UTF-8, so no JSON string can carry bytes
// as they are.
void appendJsonBytes(ByteView bytes, std::string& out) {
  out += '"';
  const size_t start = out.size();
  out.resize(start + detail::base64Size(bytes.size()));
  detail::writeBase64(out.data() + start, bytes);
  out += '"';
}

template <typename Float>
void appendFloat(Float value, std::string& out) {
  if (std::isnan(value)) {
    out += "\"nan\"";
  } else if (std::isinf(value)) {
    out += value > 0 ? "\"inf\"" : "\"-inf\"";
  } else {
    char text[32];
    std::snprintf(text, sizeof text, "%.*g", std::numeric_limits<Float>::max_digits10,
                  static_cast<double>(value));
    out += text;
  }
}

std::string enumText(const detail::EnumValueImpl& value) {
  const int64_t number = value.number();
  if (const std::string* name = value.type->findValueNameFor(number)) return *name;
  return std::to_string(number);
}

// "2024-05-01 12:00:00.000001+00", which DuckDB's TIMESTAMPTZ reads.
std::string timestampText(int64_t micros) {
  using namespace std::chrono;
  const sys_time<microseconds> time{microseconds(micros)};
  const sys_days day = floor<days>(time);
  const year_month_day date{day};
  const hh_mm_ss<microseconds> clock{time - day};
  char text[64];
  std::snprintf(text, sizeof text, "%04d-%02u-%02u %02d:%02d:%02d.%06lld+00",
                static_cast<int>(date.year()), static_cast<unsigned>(date.month()),
                static_cast<unsigned>(date.day()), static_cast<int>(clock.hours().count()),
                static_cast<int>(clock.minutes().count()),
                static_cast<int>(clock.seconds().count()),
                static_cast<long long>(clock.subseconds().count()));
  return text;
}

const UnsafeSchematizedData& messageOf(const detail::AnyValueImpl& value) {
  return value.messageValue();
}

std::string messageJson(const detail::AnyValueImpl& value) {
  return renderJSON(messageOf(value), JsonOptions{.strict = true});
}

// Calls `visit` with every value of `field` in the message in `message`.
template <typename Visit>
void forEachFieldValue(const FieldSchemaDescribing& field, ByteView message, const Visit& visit) {
  Reader reader(message);
  forEachValue(reader, field, [&](detail::AnyValueImpl&& value) { visit(value); });
}

}  // namespace

std::unique_ptr<ColumnType> columnTypeOf(const TypeSchemaDescription& type) {
  return valueType(type, 0);
}

std::unique_ptr<ColumnType> columnTypeOf(const FieldSchemaDescribing& field) {
  return fieldType(field, 0);
}

std::string sqlType(const ColumnType& type) {
  switch (type.kind) {
    case ColumnKind::bigint:
      return "BIGINT";
    case ColumnKind::ubigint:
      return "UBIGINT";
    case ColumnKind::integer:
      return "INTEGER";
    case ColumnKind::uinteger:
      return "UINTEGER";
    case ColumnKind::double_:
      return "DOUBLE";
    case ColumnKind::float_:
      return "FLOAT";
    case ColumnKind::boolean:
      return "BOOLEAN";
    case ColumnKind::varchar:
    case ColumnKind::enumName:
    case ColumnKind::json:
      return "VARCHAR";
    case ColumnKind::blob:
      // What appendJson writes for bytes.
      return "VARCHAR";
    case ColumnKind::timestamp:
      return "TIMESTAMP WITH TIME ZONE";
    case ColumnKind::interval:
      return "INTERVAL";
    case ColumnKind::wrapper:
      return sqlType(*type.element);
    case ColumnKind::struct_: {
      std::string text = "STRUCT(";
      for (size_t i = 0; i < type.members.size(); ++i) {
        if (i > 0) text += ", ";
        text += quotedIdentifier(type.members[i].name) + " " + sqlType(*type.members[i].type);
      }
      return text + ")";
    }
    case ColumnKind::list:
      return sqlType(*type.element) + "[]";
    case ColumnKind::map:
      return "MAP(" + sqlType(*type.key) + ", " + sqlType(*type.value) + ")";
  }
  return "VARCHAR";
}

namespace {

// The seconds and nanos fields of a Timestamp or Duration message.
std::pair<int64_t, int64_t> secondsAndNanos(ByteView message) {
  int64_t seconds = 0;
  int64_t nanos = 0;
  Reader reader(message);
  while (reader.hasMoreFields()) {
    const FieldTag tag = reader.readTag();
    if ((tag.fieldNumber() == 1 || tag.fieldNumber() == 2) &&
        tag.wireType() == ProtoWireType::varInt) {
      const auto number = static_cast<int64_t>(reader.readVarint());
      (tag.fieldNumber() == 1 ? seconds : nanos) = number;
    } else {
      reader.skipField(tag);
    }
  }
  return {seconds, nanos};
}

// The microseconds of a Duration message, within Duration's own range (some 10,000 years).
int64_t durationMicros(ByteView message) {
  const auto [seconds, nanos] = secondsAndNanos(message);
  constexpr int64_t kMaxSeconds = 315576000000;
  if (seconds < -kMaxSeconds || seconds > kMaxSeconds || nanos < -999999999 || nanos > 999999999) {
    throw std::range_error("google.protobuf.Duration of " + std::to_string(seconds) +
                           " seconds and " + std::to_string(nanos) +
                           " nanoseconds is out of range");
  }
  return seconds * 1000000 + nanos / 1000;
}

// The JSON of a scalar type's default value.
const char* defaultJson(ColumnKind kind) {
  switch (kind) {
    case ColumnKind::boolean:
      return "false";
    case ColumnKind::varchar:
    case ColumnKind::blob:
      return "\"\"";
    default:
      return "0";
  }
}

}  // namespace

int64_t timestampMicros(ByteView message) {
  const auto [seconds, nanos] = secondsAndNanos(message);
  // Timestamp's own range (years 1 to 9999), which DuckDB holds.
  constexpr int64_t kMinSeconds = -62135596800;
  constexpr int64_t kMaxSeconds = 253402300799;
  if (seconds < kMinSeconds || seconds > kMaxSeconds || nanos < 0 || nanos > 999999999) {
    throw std::range_error("google.protobuf.Timestamp of " + std::to_string(seconds) +
                           " seconds and " + std::to_string(nanos) +
                           " nanoseconds is out of range");
  }
  return seconds * 1000000 + nanos / 1000;
}

void appendJson(const ColumnType& type, const detail::AnyValueImpl& value, std::string& out) {
  switch (value.kind()) {
    case ValueCase::int32:
      out += std::to_string(value.int32Value());
      return;
    case ValueCase::uint32:
      out += std::to_string(value.uint32Value());
      return;
    case ValueCase::int64:
      out += std::to_string(value.int64Value());
      return;
    case ValueCase::uint64:
      out += std::to_string(value.uint64Value());
      return;
    case ValueCase::float_:
      return appendFloat(value.floatValue(), out);
    case ValueCase::double_:
      return appendFloat(value.doubleValue(), out);
    case ValueCase::bool_:
      out += value.boolValue() ? "true" : "false";
      return;
    case ValueCase::enum_:
      return appendJsonString(enumText(value.enumValue()), out);
    case ValueCase::string:
      return appendJsonString(value.stringValue(), out);
    case ValueCase::bytes:
      return appendJsonBytes(value.bytesValue().view(), out);
    case ValueCase::message:
      break;
  }
  if (type.kind == ColumnKind::timestamp) {
    return appendJsonString(timestampText(timestampMicros(messageOf(value).bytes())), out);
  }
  if (type.kind == ColumnKind::interval) {
    return appendJsonString(
        std::to_string(durationMicros(messageOf(value).bytes())) + " microseconds", out);
  }
  if (type.kind == ColumnKind::wrapper) {
    // An absent value is the default of its type, as the wrapper's parse gives it.
    const size_t start = out.size();
    appendFieldJson(*type.element, *type.valueField, messageOf(value).bytes(), out);
    if (out.compare(start, std::string::npos, "null") == 0) {
      out.resize(start);
      out += defaultJson(type.element->kind);
    }
    return;
  }
  if (type.kind == ColumnKind::json) {
    // from_json reads a VARCHAR member from a JSON string.
    return appendJsonString(messageJson(value), out);
  }
  const ByteView bytes = messageOf(value).bytes();
  out += '{';
  bool first = true;
  for (const ColumnType::Member& member : type.members) {
    if (!first) out += ',';
    first = false;
    appendJsonString(member.name, out);
    out += ':';
    appendFieldJson(*member.type, *member.field, bytes, out);
  }
  out += '}';
}

void appendFieldJson(const ColumnType& type, const FieldSchemaDescribing& field, ByteView message,
                     std::string& out) {
  if (type.kind == ColumnKind::list || type.kind == ColumnKind::map) {
    const bool list = type.kind == ColumnKind::list;
    out += list ? '[' : '{';
    bool first = true;
    forEachFieldValue(field, message, [&](const detail::AnyValueImpl& value) {
      if (!first) out += ',';
      first = false;
      if (list) return appendJson(*type.element, value, out);
      // Object keys are text: DuckDB casts them to the MAP's key type.
      std::string key;
      appendFieldJson(*type.key, *type.keyField, messageOf(value).bytes(), key);
      if (key == "null")
        key = type.key->kind == ColumnKind::boolean   ? "false"
              : type.key->kind == ColumnKind::varchar ? "\"\""
                                                      : "0";
      if (key.front() != '"') key = "\"" + key + "\"";
      out += key;
      out += ':';
      appendFieldJson(*type.value, *type.valueField, messageOf(value).bytes(), out);
    });
    out += list ? ']' : '}';
    return;
  }
  bool found = false;
  forEachFieldValue(field, message, [&](const detail::AnyValueImpl& value) {
    found = true;
    appendJson(type, value, out);
  });
  if (!found) {
    // An absent map key or value is its type's default, as protobuf's parse gives it.
    out += "null";
  }
}

}  // namespace ostrel::duckdb
