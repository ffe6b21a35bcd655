#include <map>
#include <nlohmann/json.hpp>

#include "ostrel/core/errors.hpp"
#include "ostrel/paths/projection.hpp"
#include "ostrel/paths/property_path.hpp"
#include "ostrel/wire/schematizer.hpp"
#include "tool.hpp"

namespace ostrel::tool {
namespace {

constexpr std::string_view kUsage =
    R"usage(usage: ostrel [SCHEMAS] get -m MSG [-i FILE]... [--input FORMAT] [--framing FRAMING]
                 [--kafka HOST:PORT --topic T ...] [--format FORMAT] [--fail-fast] [--exact]
                 PATH...

Reads the value at each property PATH of one encoded MSG message and prints one line per PATH,
in argument order: the value as JSON (64-bit integers as strings, bytes as base64, enums by
name, messages as objects on one line), or null when the message does not hold it.

On a stream of records (--framing, --kafka, or several -i files, one record each) every record
is read in one pass for all PATHs and gives one line: a JSON object with each PATH as a key (JSON
Lines), or a CSV or TSV row under a header row of the PATHs. A record that cannot be read is reported on
standard error with its number and byte offset (partition and offset for Kafka) and skipped;
the exit status is then 1. A null record has every PATH null.

A property path names fields from the outermost message inward, separated by dots; an element of
a repeated field is addressed by its index from 0 in brackets: customer.name, items[1].sku. A
map field is a repeated field of entry messages with a key and a value field.

  -m, --message MSG       the message type of the data, fully qualified (e.g. shop.Order)
  -i, --input-file FILE   read the data from FILE rather than standard input; several -i
                          are read in turn (one record each, or a stream with --delimited)
  --input FORMAT          how the data is written: binary (default), hex or base64
  --framing FRAMING       each input is a stream of records: varint (each preceded by its
                          length as a varint, as writeDelimitedTo writes them; --delimited
                          is the same), u32be (by a big-endian 32-bit length, -1 for a null
                          record: kcat -f '%R%s'), single (one record per input), confluent
                          (one record per input in Confluent's envelope: magic byte, schema
                          id, message-index path), varint+confluent or u32be+confluent
  --confluent-indexes F   the envelope's index path as zigzag varints (default, Confluent's
                          serializers) or unsigned (older Python serializers)
  --schema-id ID=FILE     the schema of Confluent id ID (or GUID): a descriptor set or .proto
                          file as a registry exports it; the record's index path picks the
                          message (the first top-level message is [0]); -m is then not needed
  --schema-dir DIR        the same for every id with a file DIR/ID.desc, .binpb, .pb or .proto
  --kafka HOST:PORT       read a Kafka topic instead of files: each message is a record, a
                          tombstone a null record; with --topic T, --partition N (default:
                          all), --offset beginning|end|N|@MILLISECONDS, --max N, --group G
                          (commits the offsets read; without --offset starts where G
                          stopped), --follow (wait for more instead of stopping at the ends
                          of the partitions; SIGINT stops), -X NAME=VALUE (librdkafka)
  --provenance            with --kafka: the partition, offset, timestamp and key of each
                          record, first, as @partition, @offset, @timestamp and @key
  --format FORMAT         lines (one line per PATH; the default for one message), jsonl (the
                          default for streams), csv or tsv (strings as text, bytes as
                          base64, messages as JSON; an absent value is an empty CSV field
                          and \N in TSV, an empty string "" in CSV and an empty TSV field;
                          control characters and bytes that are not UTF-8 as \xHH)
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

// The length of the UTF-8 sequence at the start of `text` (2 to 4), or 0 when it is not one.
size_t utf8Length(std::string_view text) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(0);
  size_t length = 0;
  unsigned char low = 0x80;
  unsigned char high = 0xBF;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    if (lead == 0xE0) low = 0xA0;
    if (lead == 0xED) high = 0x9F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    if (lead == 0xF0) low = 0x90;
    if (lead == 0xF4) high = 0x8F;
  } else {
    return 0;
  }
  if (text.size() < length) return 0;
  if (byte(1) < low || byte(1) > high) return 0;
  for (size_t i = 2; i < length; ++i) {
    if (byte(i) < 0x80 || byte(i) > 0xBF) return 0;
  }
  return length;
}

void appendHex(std::string& out, unsigned char c) {
  static constexpr std::string_view kDigits = "0123456789abcdef";
  out += "\\x";
  out += kDigits[c >> 4];
  out += kDigits[c & 0xF];
}

// A field's text with nothing in it that a terminal would act on: the control characters of C0
// and C1 (U+0080 to U+009F), DEL and bytes that are not UTF-8 become \xHH escapes (PostgreSQL's
// text COPY format reads them back as those bytes). TSV also escapes the backslash, tab, line
// feed and carriage return, so that a field never breaks its row and COPY reads it back whole;
// CSV keeps tab and line breaks, inside quotes.
std::string safeText(std::string_view text, OutputFormat format) {
  const bool tsv = format == OutputFormat::tsv;
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size();) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c >= 0x80) {
      const size_t length = utf8Length(text.substr(i));
      const bool c1 = length == 2 && c == 0xC2 && static_cast<unsigned char>(text[i + 1]) < 0xA0;
      if (length == 0 || c1) {
        for (size_t j = 0; j < std::max<size_t>(length, 1); ++j) {
          appendHex(out, static_cast<unsigned char>(text[i + j]));
        }
      } else {
        out.append(text.substr(i, length));
      }
      i += std::max<size_t>(length, 1);
      continue;
    }
    ++i;
    if (tsv) {
      if (c == '\\') {
        out += "\\\\";
        continue;
      }
      if (c == '\t') {
        out += "\\t";
        continue;
      }
      if (c == '\n') {
        out += "\\n";
        continue;
      }
      if (c == '\r') {
        out += "\\r";
        continue;
      }
    } else if (c == '\t' || c == '\n' || c == '\r') {
      out += static_cast<char>(c);
      continue;
    }
    if (c < 0x20 || c == 0x7F) {
      appendHex(out, c);
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

// Appends one present value. An absent one is left out: an empty CSV field, or \N in TSV (as
// PostgreSQL's COPY writes NULL), while an empty text is "" in CSV and an empty TSV field.
void appendField(std::string& line, std::string_view text, OutputFormat format) {
  const std::string safe = safeText(text, format);
  if (format == OutputFormat::tsv) {
    line += safe;
    return;
  }
  if (!safe.empty() && safe.find_first_of(",\"\r\n") == std::string::npos) {
    line += safe;
    return;
  }
  line += '"';
  for (char c : safe) {
    if (c == '"') line += '"';
    line += c;
  }
  line += '"';
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
  records.check(input);
  if (paths.empty()) throw UsageError("missing PATH");
  const bool streams = records.streams(input);
  if (streams && format == OutputFormat::lines) {
    throw UsageError(
        "--format lines reads one message; a stream of records needs jsonl, csv or tsv");
  }

  const LoadedSchemas schemas = loadSchemas(globals);
  if (input.message) resolvePaths(input.schema(schemas), paths, false);

  if (!streams && format.value_or(OutputFormat::lines) == OutputFormat::lines) {
    const SchematizedData data = input.schema(schemas).schematizedData(input.read());
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
  const char separator = output == OutputFormat::csv ? ',' : '\t';
  // One projection per message type met, made when the first record of the type comes; a type
  // the paths do not fit keeps its error for each of its records.
  struct Typed {
    std::optional<Projection> projection;
    std::optional<ProjectionRow> row;
    std::string error;
  };
  std::map<const MessageSchema*, Typed> typed;
  std::vector<std::string> columns;
  if (records.provenance) columns = {"@partition", "@offset", "@timestamp", "@key"};
  columns.insert(columns.end(), paths.begin(), paths.end());
  std::vector<std::string> keys;
  for (const std::string& column : columns) keys.push_back(jsonString(column) + ":");
  std::string line;
  if (output != OutputFormat::jsonl) {
    for (size_t i = 0; i < columns.size(); ++i) {
      if (i > 0) line += separator;
      appendField(line, columns[i], output);
    }
    line += '\n';
    writeOut(line);
  }
  // Appends column `i`: JSON text in JSON Lines, `plain` text otherwise; absent without either.
  const auto cell = [&](size_t i, const std::optional<std::string>& json,
                        const std::optional<std::string>& plain) {
    if (output == OutputFormat::jsonl) {
      if (i > 0) line += ',';
      line += keys[i];
      line += json.value_or("null");
      return;
    }
    if (i > 0) line += separator;
    if (plain) {
      appendField(line, *plain, output);
    } else if (output == OutputFormat::tsv) {
      line += "\\N";
    }
  };
  RecordSchemas types(records, input, schemas);
  return forEachRecord(input, records, types, [&](const StreamRecord& record) {
    ProjectionRow* row = nullptr;
    if (record.bytes) {
      Typed& type = typed[record.schema];
      if (!type.projection && type.error.empty()) {
        try {
          resolvePaths(*record.schema, paths, false);
          type.projection.emplace(*record.schema, paths, mode);
          type.row = type.projection->makeRow();
        } catch (const std::exception& error) {
          type.error = record.schema->name() + ": " + error.what();
        }
      }
      if (!type.projection) throw ToolError(type.error);
      row = &*type.row;
      type.projection->read(*record.bytes, *row);
      // A record is printed whole or not at all: the first failed path makes it a bad record.
      for (size_t i = 0; i < paths.size(); ++i) {
        if (row->state(i) != ProjectionRow::State::failed) continue;
        try {
          std::rethrow_exception(row->error(i));
        } catch (const Error& error) {
          throw ToolError(paths[i] + ": " + error.what());
        }
      }
    }
    line.clear();
    if (output == OutputFormat::jsonl) line += '{';
    size_t column = 0;
    if (records.provenance) {
      const KafkaProvenance& kafka = *record.kafka;
      const std::string partition = std::to_string(kafka.partition);
      const std::string offset = std::to_string(kafka.offset);
      cell(column++, partition, partition);
      cell(column++, offset, offset);
      const std::optional<std::string> timestamp =
          kafka.timestamp ? std::optional(std::to_string(*kafka.timestamp)) : std::nullopt;
      cell(column++, timestamp, timestamp);
      if (kafka.key) {
        cell(column++, jsonString(asText(*kafka.key)), std::string(asText(*kafka.key)));
      } else {
        cell(column++, std::nullopt, std::nullopt);
      }
    }
    for (size_t i = 0; i < paths.size(); ++i, ++column) {
      const std::optional<AnyValue> found = row ? row->value(i) : std::nullopt;
      if (found && output == OutputFormat::jsonl) {
        cell(column, valueJSON(*found), std::nullopt);
      } else if (found) {
        cell(column, std::nullopt, plainText(*found));
      } else {
        cell(column, std::nullopt, std::nullopt);
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
