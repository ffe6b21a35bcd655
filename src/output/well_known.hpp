#pragma once

// The well-known types of protobuf's JSON mapping: which messages they are, and the text forms of
// Timestamp, Duration, FieldMask paths and JSON names, shared by rendering and encoding.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "ostrel/core/describing.hpp"

namespace ostrel::detail {

enum class WellKnown : uint8_t {
  none,
  timestamp,
  duration,
  // DoubleValue, FloatValue, Int64Value, UInt64Value, Int32Value, UInt32Value, BoolValue,
  // StringValue, BytesValue: the value of field 1.
  wrapper,
  structType,
  value,
  listValue,
  fieldMask,
  any,
};

// Which well-known type `schema` is, by its full name.
WellKnown wellKnownKind(const MessageSchemaDescribing& schema);

// Whether `type` is the enum google.protobuf.NullValue, written as null.
bool isNullValue(const TypeSchemaDescription& type);

inline constexpr int64_t kMinTimestampSeconds = -62135596800;  // 0001-01-01T00:00:00Z
inline constexpr int64_t kMaxTimestampSeconds = 253402300799;  // 9999-12-31T23:59:59Z
inline constexpr int64_t kMaxDurationSeconds = 315576000000;   // 10,000 years
inline constexpr int32_t kMaxNanos = 999999999;

struct SecondsAndNanos {
  int64_t seconds = 0;
  int32_t nanos = 0;
};

// Throws SchematizerError::unexpectedType for a time outside years 1 to 9999 or nanos outside 0 to
// 999,999,999.
void checkTimestamp(SecondsAndNanos time);
// "1972-01-01T10:00:20.021Z": UTC, 0, 3, 6 or 9 fractional digits; throws as checkTimestamp.
std::string formatTimestamp(SecondsAndNanos time);
// RFC 3339 with "Z" or an offset "+hh:mm" / "-hh:mm", 0 to 9 fractional digits; no value when the
// text is not one or lies outside years 1 to 9999.
std::optional<SecondsAndNanos> parseTimestamp(std::string_view text);

// Throws SchematizerError::unexpectedType for more than 315,576,000,000 s either way, nanos beyond
// 999,999,999 or of the other sign than the seconds.
void checkDuration(SecondsAndNanos duration);
// "-1.500s": 0, 3, 6 or 9 fractional digits; throws as checkDuration.
std::string formatDuration(SecondsAndNanos duration);
std::optional<SecondsAndNanos> parseDuration(std::string_view text);

// A FieldMask path as JSON writes it ("foo_bar.baz" becomes "fooBar.baz"); no value for a path that
// would not read back the same (an upper-case letter, "_" not followed by a lower-case letter).
std::optional<std::string> fieldMaskPathToJson(std::string_view path);
// The reverse ("fooBar" becomes "foo_bar"); no value for a path holding "_".
std::optional<std::string> fieldMaskPathFromJson(std::string_view path);

// The message type an Any's URL names (its last "/"-separated component), from the store the
// Any's own schema came from. Throws SchematizerError::schemaNotFound naming the URL when the
// store does not know it.
std::shared_ptr<MessageSchemaDescribing> anyType(const MessageSchemaDescribing& any,
                                                 const std::string& typeUrl);

// The JSON member name of an extension field: its full name in brackets, "[pkg.ext]".
std::string extensionMemberName(std::string_view fullName);

}  // namespace ostrel::detail
