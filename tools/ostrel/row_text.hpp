#pragma once

// Records as lines of text: the answers of a projection row written straight into the output
// buffer as a JSON Lines object, or a CSV or TSV row. Numbers are formatted in place and strings
// escaped by a scan that copies the runs needing no escape whole; nothing is allocated per record
// except for a message value, which takes the JSON rendering, and a Kafka key in JSON Lines.

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "ostrel/paths/projection.hpp"
#include "tool.hpp"

namespace ostrel::tool {

enum class OutputFormat { lines, jsonl, csv, tsv };

// What writing one path's answer needs to know, taken from the projection once: the kind of its
// values and, for an enum or a message, its schema.
struct PathText {
  AnyValue::Case kind = AnyValue::Case::int32;
  const EnumSchemaDescribing* enumSchema = nullptr;
  // google.protobuf.NullValue, which JSON writes as null.
  bool nullValue = false;
  std::shared_ptr<MessageSchemaDescribing> messageSchema;

  static std::vector<PathText> of(const Projection& projection);
};

// Writes lines of `columns` into `out`, one column after another between start() and finish():
//
// - JSON Lines: an object with each column's name as a key, its value as the JSON rendering writes
//   it (64-bit integers as strings, bytes as base64, enums by name, messages as objects), null
//   when absent.
// - CSV and TSV, under a header row of the names: strings as text, numbers as numbers, enums by
//   name, bytes as base64, messages as JSON; an absent value is an empty CSV field and \N in TSV,
//   an empty string "" in CSV and an empty TSV field. Control characters (C0, DEL, the C1 range
//   U+0080 to U+009F) become \xHH, as do bytes that are not UTF-8 in text that is not a string
//   value (a string value's invalid sequences are U+FFFD, as the library decodes them). CSV quotes
//   a field holding a comma, a quote or a line break; TSV escapes the backslash, tab, line feed
//   and carriage return, so that PostgreSQL's COPY reads the field back whole.
class LineWriter {
 public:
  LineWriter(OutputBuffer& out, OutputFormat format, std::span<const std::string> columns);

  // The header row of CSV and TSV; nothing in JSON Lines.
  void header();
  void start();
  void finish();

  // The next column: absent, an integer (a number in every format), raw text (bytes that need
  // not be UTF-8), or the answer of path `i` of `row`, written as `how` says. Throws the JSON
  // rendering's error for a message value that cannot be rendered; the line is then unfinished,
  // and its text is to be dropped (OutputBuffer::truncate).
  void absent();
  void integer(int64_t value);
  void text(std::string_view raw);
  void answer(const ProjectionRow& row, size_t i, const PathText& how);

 private:
  void next();
  void field(std::string_view text, bool string);

  OutputBuffer& out_;
  const OutputFormat format_;
  std::span<const std::string> columns_;
  // Each column's name as a JSON key with its colon, for JSON Lines.
  std::vector<std::string> keys_;
  size_t column_ = 0;
  // A message value's JSON, before it goes into a CSV or TSV field.
  std::string scratch_;
};

}  // namespace ostrel::tool
