#include "output/well_known.hpp"

#include <array>
#include <charconv>
#include <cstdlib>
#include <map>

#include "ostrel/core/errors.hpp"
#include "ostrel/core/field_types.hpp"

namespace ostrel::detail {
namespace {

constexpr std::string_view kPackage = "google.protobuf.";
constexpr int64_t kSecondsPerDay = 86400;

// Days since 1970-01-01 of a date of the proleptic Gregorian calendar, and back (after Howard
// Hinnant's algorithms: eras of 400 years, March-based years so that leap days come last). Only
// the years 1 to 9999 come here, so no era is negative.
int64_t daysFromCivil(int64_t year, unsigned month, unsigned day) {
  year -= month <= 2;
  const int64_t era = year / 400;
  const auto yearOfEra = static_cast<unsigned>(year - era * 400);
  const unsigned dayOfYear = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
  const unsigned dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
  return era * 146097 + static_cast<int64_t>(dayOfEra) - 719468;
}

void civilFromDays(int64_t days, int64_t& year, unsigned& month, unsigned& day) {
  days += 719468;
  const int64_t era = days / 146097;
  const auto dayOfEra = static_cast<unsigned>(days - era * 146097);
  const unsigned yearOfEra =
      (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  year = static_cast<int64_t>(yearOfEra) + era * 400;
  const unsigned dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const unsigned shiftedMonth = (5 * dayOfYear + 2) / 153;
  day = dayOfYear - (153 * shiftedMonth + 2) / 5 + 1;
  month = shiftedMonth < 10 ? shiftedMonth + 3 : shiftedMonth - 9;
  year += month <= 2;
}

std::optional<std::string> fieldMaskPathToJsonForm(std::string_view path);

bool isLeapYear(int64_t year) { return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0); }

unsigned daysInMonth(int64_t year, unsigned month) {
  static constexpr std::array<unsigned, 12> kDays = {31, 28, 31, 30, 31, 30,
                                                     31, 31, 30, 31, 30, 31};
  return month == 2 && isLeapYear(year) ? 29 : kDays[month - 1];
}

void appendDigits(std::string& out, int64_t value, int width) {
  char buffer[24];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  out.append(static_cast<size_t>(std::max<ptrdiff_t>(0, width - (result.ptr - buffer))), '0');
  out.append(buffer, result.ptr);
}

// ".021", ".000021", ".000000021" or nothing: as few groups of three digits as show `nanos`.
void appendFraction(std::string& out, int32_t nanos) {
  if (nanos == 0) return;
  out.push_back('.');
  if (nanos % 1000000 == 0) {
    appendDigits(out, nanos / 1000000, 3);
  } else if (nanos % 1000 == 0) {
    appendDigits(out, nanos / 1000, 6);
  } else {
    appendDigits(out, nanos, 9);
  }
}

// Reads exactly `count` digits at `pos`.
bool readDigits(std::string_view text, size_t& pos, size_t count, int64_t& value) {
  if (text.size() - pos < count) return false;
  value = 0;
  for (size_t i = 0; i < count; ++i) {
    const char c = text[pos + i];
    if (c < '0' || c > '9') return false;
    value = value * 10 + (c - '0');
  }
  pos += count;
  return true;
}

bool readChar(std::string_view text, size_t& pos, char c) {
  if (pos >= text.size() || text[pos] != c) return false;
  ++pos;
  return true;
}

// An optional fraction at `pos`: "." and 1 to 9 digits, as nanoseconds.
bool readFraction(std::string_view text, size_t& pos, int32_t& nanos) {
  nanos = 0;
  if (pos >= text.size() || text[pos] != '.') return true;
  ++pos;
  size_t digits = 0;
  int64_t value = 0;
  while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9') {
    if (++digits > 9) return false;
    value = value * 10 + (text[pos++] - '0');
  }
  if (digits == 0) return false;
  for (size_t i = digits; i < 9; ++i) value *= 10;
  nanos = static_cast<int32_t>(value);
  return true;
}

}  // namespace

WellKnown wellKnownKind(const MessageSchemaDescribing& schema) {
  const std::string& name = schema.name();
  if (!name.starts_with(kPackage)) return WellKnown::none;
  static const std::map<std::string_view, WellKnown, std::less<>> kKinds = {
      {"Timestamp", WellKnown::timestamp}, {"Duration", WellKnown::duration},
      {"DoubleValue", WellKnown::wrapper}, {"FloatValue", WellKnown::wrapper},
      {"Int64Value", WellKnown::wrapper},  {"UInt64Value", WellKnown::wrapper},
      {"Int32Value", WellKnown::wrapper},  {"UInt32Value", WellKnown::wrapper},
      {"BoolValue", WellKnown::wrapper},   {"StringValue", WellKnown::wrapper},
      {"BytesValue", WellKnown::wrapper},  {"Struct", WellKnown::structType},
      {"Value", WellKnown::value},         {"ListValue", WellKnown::listValue},
      {"FieldMask", WellKnown::fieldMask}, {"Any", WellKnown::any},
  };
  const auto it = kKinds.find(std::string_view(name).substr(kPackage.size()));
  return it == kKinds.end() ? WellKnown::none : it->second;
}

bool isNullValue(const TypeSchemaDescription& type) {
  return type.kind() == TypeSchemaDescription::Case::enum_ && type.enumSchema() &&
         type.enumSchema()->name() == "google.protobuf.NullValue";
}

void checkTimestamp(SecondsAndNanos time) {
  if (time.seconds < kMinTimestampSeconds || time.seconds > kMaxTimestampSeconds ||
      time.nanos < 0 || time.nanos > kMaxNanos) {
    throw SchematizerError::unexpectedType(
        "google.protobuf.Timestamp out of range (years 1 to 9999): seconds " +
        std::to_string(time.seconds) + ", nanos " + std::to_string(time.nanos));
  }
}

std::string formatTimestamp(SecondsAndNanos time) {
  checkTimestamp(time);
  const int64_t days = time.seconds >= 0 ? time.seconds / kSecondsPerDay
                                         : (time.seconds - kSecondsPerDay + 1) / kSecondsPerDay;
  const int64_t secondOfDay = time.seconds - days * kSecondsPerDay;
  int64_t year = 0;
  unsigned month = 0;
  unsigned day = 0;
  civilFromDays(days, year, month, day);
  std::string out;
  appendDigits(out, year, 4);
  out.push_back('-');
  appendDigits(out, month, 2);
  out.push_back('-');
  appendDigits(out, day, 2);
  out.push_back('T');
  appendDigits(out, secondOfDay / 3600, 2);
  out.push_back(':');
  appendDigits(out, secondOfDay / 60 % 60, 2);
  out.push_back(':');
  appendDigits(out, secondOfDay % 60, 2);
  appendFraction(out, time.nanos);
  out.push_back('Z');
  return out;
}

std::optional<SecondsAndNanos> parseTimestamp(std::string_view text) {
  size_t pos = 0;
  int64_t year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
  int32_t nanos = 0;
  if (!readDigits(text, pos, 4, year) || !readChar(text, pos, '-') ||
      !readDigits(text, pos, 2, month) || !readChar(text, pos, '-') ||
      !readDigits(text, pos, 2, day) || !readChar(text, pos, 'T') ||
      !readDigits(text, pos, 2, hour) || !readChar(text, pos, ':') ||
      !readDigits(text, pos, 2, minute) || !readChar(text, pos, ':') ||
      !readDigits(text, pos, 2, second) || !readFraction(text, pos, nanos)) {
    return std::nullopt;
  }
  if (year < 1 || month < 1 || month > 12 || day < 1 ||
      day > daysInMonth(year, static_cast<unsigned>(month)) || hour > 23 || minute > 59 ||
      second > 59) {
    return std::nullopt;
  }
  int64_t offset = 0;
  if (readChar(text, pos, 'Z')) {
  } else if (pos < text.size() && (text[pos] == '+' || text[pos] == '-')) {
    const int64_t sign = text[pos++] == '-' ? -1 : 1;
    int64_t offsetHours = 0, offsetMinutes = 0;
    if (!readDigits(text, pos, 2, offsetHours) || !readChar(text, pos, ':') ||
        !readDigits(text, pos, 2, offsetMinutes) || offsetHours > 23 || offsetMinutes > 59) {
      return std::nullopt;
    }
    offset = sign * (offsetHours * 3600 + offsetMinutes * 60);
  } else {
    return std::nullopt;
  }
  if (pos != text.size()) return std::nullopt;
  const int64_t seconds =
      daysFromCivil(year, static_cast<unsigned>(month), static_cast<unsigned>(day)) *
          kSecondsPerDay +
      hour * 3600 + minute * 60 + second - offset;
  if (seconds < kMinTimestampSeconds || seconds > kMaxTimestampSeconds) return std::nullopt;
  return SecondsAndNanos{seconds, nanos};
}

void checkDuration(SecondsAndNanos duration) {
  if (duration.seconds < -kMaxDurationSeconds || duration.seconds > kMaxDurationSeconds ||
      duration.nanos < -kMaxNanos || duration.nanos > kMaxNanos ||
      (duration.seconds > 0 && duration.nanos < 0) ||
      (duration.seconds < 0 && duration.nanos > 0)) {
    throw SchematizerError::unexpectedType(
        "google.protobuf.Duration out of range (315576000000 s either way, nanos of the "
        "seconds' sign): seconds " +
        std::to_string(duration.seconds) + ", nanos " + std::to_string(duration.nanos));
  }
}

std::string formatDuration(SecondsAndNanos duration) {
  checkDuration(duration);
  std::string out;
  if (duration.seconds < 0 || duration.nanos < 0) out.push_back('-');
  appendDigits(out, std::abs(duration.seconds), 1);
  appendFraction(out, std::abs(duration.nanos));
  out.push_back('s');
  return out;
}

std::optional<SecondsAndNanos> parseDuration(std::string_view text) {
  size_t pos = 0;
  const bool negative = readChar(text, pos, '-');
  int64_t seconds = 0;
  size_t digits = 0;
  while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9') {
    // 12 digits hold the largest duration; more cannot be in range.
    if (++digits > 12) return std::nullopt;
    seconds = seconds * 10 + (text[pos++] - '0');
  }
  int32_t nanos = 0;
  if (digits == 0 || !readFraction(text, pos, nanos) || !readChar(text, pos, 's') ||
      pos != text.size() || seconds > kMaxDurationSeconds) {
    return std::nullopt;
  }
  if (negative) return SecondsAndNanos{-seconds, -nanos};
  return SecondsAndNanos{seconds, nanos};
}

std::optional<std::string> fieldMaskPathToJson(std::string_view path) {
  const std::optional<std::string> json = fieldMaskPathToJsonForm(path);
  // Only a path that reads back as itself has a JSON form ("a_b_c" would read back as "a_bc").
  if (!json || fieldMaskPathFromJson(*json) != path) return std::nullopt;
  return json;
}

namespace {

std::optional<std::string> fieldMaskPathToJsonForm(std::string_view path) {
  std::string out;
  for (size_t i = 0; i < path.size(); ++i) {
    const char c = path[i];
    if (c >= 'A' && c <= 'Z') return std::nullopt;
    if (c != '_') {
      out.push_back(c);
      continue;
    }
    if (i + 1 >= path.size() || path[i + 1] < 'a' || path[i + 1] > 'z') return std::nullopt;
    out.push_back(static_cast<char>(path[++i] - 'a' + 'A'));
  }
  return out;
}

}  // namespace

std::optional<std::string> fieldMaskPathFromJson(std::string_view path) {
  // As libprotobuf reads paths: an upper-case letter starts a new word ("_" and the letter in
  // lower case) after a lower-case letter or a digit, or when a lower-case letter follows it; in a
  // run of capitals ("fooBAR") the letters only go to lower case. An underscore has no place in a
  // lowerCamelCase path.
  std::string out;
  bool afterWordCharacter = false;
  bool afterLower = false;
  for (size_t i = 0; i < path.size(); ++i) {
    const char c = path[i];
    if (c == '_') return std::nullopt;
    if (c >= 'A' && c <= 'Z') {
      const bool lowerFollows = i + 1 < path.size() && path[i + 1] >= 'a' && path[i + 1] <= 'z';
      if (afterWordCharacter && (afterLower || lowerFollows)) out.push_back('_');
      out.push_back(static_cast<char>(c - 'A' + 'a'));
      afterWordCharacter = true;
      afterLower = false;
    } else {
      out.push_back(c);
      afterWordCharacter = c != '.';
      afterLower = c != '.';
    }
  }
  return out;
}

std::shared_ptr<MessageSchemaDescribing> anyType(const MessageSchemaDescribing& any,
                                                 const std::string& typeUrl) {
  const size_t slash = typeUrl.rfind('/');
  const std::string_view name =
      slash == std::string::npos ? std::string_view{} : std::string_view(typeUrl).substr(slash + 1);
  const std::shared_ptr<SchemaStoreDescribing> store = any.originStore();
  if (name.empty() || !store || !store->hasMessageSchemaNamed(name)) {
    throw SchematizerError::schemaNotFound("google.protobuf.Any of unknown type URL \"" + typeUrl +
                                           "\"");
  }
  return store->messageSchema(name);
}

std::string extensionMemberName(std::string_view fullName) {
  std::string out;
  out.reserve(fullName.size() + 2);
  out += '[';
  out += fullName;
  out += ']';
  return out;
}

}  // namespace ostrel::detail
