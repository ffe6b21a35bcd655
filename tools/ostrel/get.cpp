#include <unistd.h>

#include <map>

#include "ostrel/core/errors.hpp"
#include "ostrel/paths/projection.hpp"
#include "ostrel/paths/property_path.hpp"
#include "ostrel/wire/schematizer.hpp"
#include "row_text.hpp"
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

OutputFormat parseOutputFormat(std::string_view text) {
  if (text == "lines") return OutputFormat::lines;
  if (text == "jsonl") return OutputFormat::jsonl;
  if (text == "csv") return OutputFormat::csv;
  if (text == "tsv") return OutputFormat::tsv;
  throw UsageError("--format must be lines, jsonl, csv or tsv, not \"" + std::string(text) + "\"");
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
  // One projection per message type met, made when the first record of the type comes; a type
  // the paths do not fit keeps its error for each of its records.
  struct Typed {
    std::optional<Projection> projection;
    std::optional<ProjectionRow> row;
    std::vector<PathText> texts;
    std::string error;
  };
  std::map<const MessageSchema*, Typed> typed;
  const MessageSchema* lastSchema = nullptr;
  Typed* last = nullptr;
  std::vector<std::string> columns;
  if (records.provenance) columns = {"@partition", "@offset", "@timestamp", "@key"};
  columns.insert(columns.end(), paths.begin(), paths.end());
  // On a terminal, and for a topic followed as it grows, each line shows as soon as it is made.
  OutputBuffer out(::isatty(STDOUT_FILENO) == 1 || (records.kafka && records.kafka->follow));
  LineWriter line(out, output, columns);
  line.header();
  out.endRecord();
  RecordSchemas types(records, input, schemas);
  const int status = forEachRecord(input, records, types, [&](const StreamRecord& record) {
    Typed* type = nullptr;
    if (record.bytes) {
      if (record.schema != lastSchema) {
        lastSchema = record.schema;
        last = &typed[record.schema];
      }
      type = last;
      if (!type->projection && type->error.empty()) {
        try {
          resolvePaths(*record.schema, paths, false);
          type->projection.emplace(*record.schema, paths, mode);
          type->row = type->projection->makeRow();
          type->texts = PathText::of(*type->projection);
        } catch (const std::exception& error) {
          type->error = record.schema->name() + ": " + error.what();
        }
      }
      if (!type->projection) throw ToolError(type->error);
      ProjectionRow& row = *type->row;
      type->projection->read(*record.bytes, row);
      // A record is printed whole or not at all: the first failed path makes it a bad record.
      for (size_t i = 0; row.failed() && i < paths.size(); ++i) {
        if (row.state(i) != ProjectionRow::State::failed) continue;
        try {
          std::rethrow_exception(row.error(i));
        } catch (const Error& error) {
          throw ToolError(paths[i] + ": " + error.what());
        }
      }
    }
    const size_t start = out.size();
    try {
      line.start();
      if (records.provenance) {
        const KafkaProvenance& kafka = *record.kafka;
        line.integer(kafka.partition);
        line.integer(kafka.offset);
        if (kafka.timestamp) {
          line.integer(*kafka.timestamp);
        } else {
          line.absent();
        }
        if (kafka.key) {
          line.text(asText(*kafka.key));
        } else {
          line.absent();
        }
      }
      for (size_t i = 0; i < paths.size(); ++i) {
        if (type) {
          line.answer(*type->row, i, type->texts[i]);
        } else {
          line.absent();
        }
      }
      line.finish();
    } catch (...) {
      out.truncate(start);
      throw;
    }
    out.endRecord();
  });
  out.flush();
  return status;
}

}  // namespace

const Command kGetCommand{"get", "the values at property paths, one JSON value a line", kUsage,
                          &run};

}  // namespace ostrel::tool
