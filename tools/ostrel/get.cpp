#include <nlohmann/json.hpp>

#include "ostrel/core/errors.hpp"
#include "ostrel/paths/property_path.hpp"
#include "ostrel/wire/schematizer.hpp"
#include "tool.hpp"

namespace ostrel::tool {
namespace {

constexpr std::string_view kUsage =
    R"usage(usage: ostrel [SCHEMAS] get -m MSG [-i FILE]... [--input FORMAT] [--delimited]
                 [--format FORMAT] [--fail-fast] [--exact] PATH...

Reads the value at each property PATH of one encoded MSG message and prints one line per PATH,
in argument order: the value as JSON (64-bit integers as strings, bytes as base64, enums by
name, messages as objects on one line), or null when the message does not hold it.

On a stream of records (--delimited, or several -i files, one record each) every record is read
in one pass for all PATHs and gives one line: a JSON object with each PATH as a key (JSON Lines),
or a CSV or TSV row under a header row of the PATHs. A record that cannot be read is reported on
standard error with its number and byte offset and skipped; the exit status is then 1.

A property path names fields from the outermost message inward, separated by dots; an element of
a repeated field is addressed by its index from 0 in brackets: customer.name, items[1].sku. A
map field is a repeated field of entry messages with a key and a value field.

  -m, --message MSG       the message type of the data, fully qualified (e.g. shop.Order)
  -i, --input-file FILE   read the data from FILE rather than standard input; several -i
                          are read in turn (one record each, or a stream with --delimited)
  --input FORMAT          how the data is written: binary (default), hex or base64
  --delimited             each input holds records, each preceded by its length as a varint
                          (as writeDelimitedTo writes them); read binary, memory-mapped
  --format FORMAT         lines (one line per PATH; the default for one message), jsonl (the
                          default for streams), csv or tsv (absent values as empty fields,
                          strings as text, bytes as base64, messages as JSON)
  --fail-fast             stop at the first bad record
  --exact                 protobuf's answer for a field the data holds more than once: the last
                          value, messages merged, of a oneof the last member; every message on
                          the path is read to its end (without it the first occurrence is read
                          and the search stops there)

Every PATH is checked against the schema before the data is read.
)usage";

enum class OutputFormat { lines, jsonl, csv, tsv };

OutputFormat parseOutputFormat(std::string_view text) {
  if (text == "lines") return OutputFormat::lines;
  if (text == "jsonl") return OutputFormat::jsonl;
  if (text == "csv") return OutputFormat::csv;
  if (text == "tsv") return OutputFormat::tsv;
  throw UsageError("--format must be lines, jsonl, csv or tsv, not \"" + std::string(text) + "\"");
}

// A value as a CSV or TSV field holds it before quoting: text as text, numbers as numbers, enums
// by name, bytes as base64, messages as JSON.
std::string plainText(const AnyValue& value) {
  switch (value.kind()) {
    case AnyValue::Case::string:
      return value.stringValue();
    case AnyValue::Case::int64:
      return std::to_string(value.int64Value());
    case AnyValue::Case::uint64:
      return std::to_string(value.uint64Value());
    case AnyValue::Case::bytes:
      return base64(value.bytesValue());
    case AnyValue::Case::enum_: {
      if (std::optional<std::string> name = value.enumValue().findName()) return *name;
      return std::to_string(value.enumValue().number());
    }
    default: {
      std::string json = valueJSON(value);
      // NaN and the infinities are JSON strings; a CSV field needs no quotes for them.
      if (value.kind() != AnyValue::Case::message && json.size() >= 2 && json.front() == '"') {
        json = json.substr(1, json.size() - 2);
      }
      return json;
    }
  }
}

void appendField(std::string& line, std::string_view text, OutputFormat format) {
  if (format == OutputFormat::csv) {
    if (text.find_first_of(",\"\r\n") == std::string_view::npos) {
      line += text;
      return;
    }
    line += '"';
    for (char c : text) {
      if (c == '"') line += '"';
      line += c;
    }
    line += '"';
    return;
  }
  // TSV: the escapes of PostgreSQL's text COPY format, so that a field never breaks its row.
  for (char c : text) {
    switch (c) {
      case '\\':
        line += "\\\\";
        break;
      case '\t':
        line += "\\t";
        break;
      case '\n':
        line += "\\n";
        break;
      case '\r':
        line += "\\r";
        break;
      default:
        line += c;
    }
  }
}

std::string jsonString(std::string_view text) {
  return nlohmann::json(std::string(text))
      .dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

int run(Arguments& args, GlobalOptions& globals) {
  MessageInput input;
  RecordOptions records;
  std::optional<OutputFormat> format;
  std::vector<std::string> paths;
  std::string value;
  ReadMode mode = ReadMode::first;
  while (!args.done()) {
    if (globals.parse(args) || input.parse(args) || records.parse(args)) continue;
    if (args.value({"--format"}, value)) {
      format = parseOutputFormat(value);
      continue;
    }
    if (args.flag({"--exact"})) {
      mode = ReadMode::exact;
      continue;
    }
    paths.push_back(args.positional());
  }
  require(input.message, "-m MSG");
  if (paths.empty()) throw UsageError("missing PATH");
  const bool streams = records.streams(input);
  if (streams && format == OutputFormat::lines) {
    throw UsageError(
        "--format lines reads one message; a stream of records needs jsonl, csv or tsv");
  }

  const LoadedSchemas schemas = loadSchemas(globals);
  const MessageSchema schema = input.schema(schemas);
  for (const std::string& path : paths) {
    PropertyPathUtil::parse(path);
    try {
      resolvePropertyPath(schema, path);
    } catch (const SchematizerError& error) {
      throw ToolError(path + ": " + error.what());
    }
  }

  if (!streams && format.value_or(OutputFormat::lines) == OutputFormat::lines) {
    const SchematizedData data = schema.schematizedData(input.read());
    std::string out;
    for (const std::string& path : paths) {
      try {
        const std::optional<AnyValue> found = data.value(path, mode);
        out += (found ? valueJSON(*found) : "null") + "\n";
      } catch (const Error& error) {
        throw ToolError(path + ": " + error.what());
      }
    }
    writeOut(out);
    return kExitSuccess;
  }

  const OutputFormat output = format.value_or(OutputFormat::jsonl);
  const Projection projection(schema, paths, mode);
  ProjectionRow row = projection.makeRow();
  std::vector<std::string> keys;
  for (const std::string& path : paths) keys.push_back(jsonString(path));
  std::string line;
  if (output != OutputFormat::jsonl) {
    for (size_t i = 0; i < paths.size(); ++i) {
      if (i > 0) line += output == OutputFormat::csv ? ',' : '\t';
      appendField(line, paths[i], output);
    }
    line += '\n';
    writeOut(line);
  }
  return forEachRecord(input, records, [&](ByteView record) {
    projection.read(record, row);
    // A record is printed whole or not at all: the first failed path makes it a bad record.
    for (size_t i = 0; i < paths.size(); ++i) {
      if (row.state(i) != ProjectionRow::State::failed) continue;
      try {
        std::rethrow_exception(row.error(i));
      } catch (const Error& error) {
        throw ToolError(paths[i] + ": " + error.what());
      }
    }
    line.clear();
    if (output == OutputFormat::jsonl) line += '{';
    for (size_t i = 0; i < paths.size(); ++i) {
      const std::optional<AnyValue> found = row.value(i);
      if (output == OutputFormat::jsonl) {
        if (i > 0) line += ',';
        line += keys[i];
        line += ':';
        line += found ? valueJSON(*found) : "null";
      } else {
        if (i > 0) line += output == OutputFormat::csv ? ',' : '\t';
        if (found) appendField(line, plainText(*found), output);
      }
    }
    if (output == OutputFormat::jsonl) line += '}';
    line += '\n';
    writeOut(line);
  });
}

}  // namespace

const Command kGetCommand{"get", "the values at property paths, one JSON value a line", kUsage,
                          &run};

}  // namespace ostrel::tool
