#include "ostrel/output/json.hpp"

#include <nlohmann/json.hpp>

#include "tool.hpp"

namespace ostrel::tool {
namespace {

constexpr std::string_view kUsage =
    R"usage(usage: ostrel [SCHEMAS] json -m MSG [-i FILE] [--input FORMAT] [--pretty] [--json-names]
                                [--enums-as-numbers] [--print-defaults] [--framing FRAMING]
                                [--kafka HOST:PORT --topic T ...]

Prints one encoded MSG message as a JSON object: every field present in the data under its
declared name, in field-number order; absent fields are left out. Values as the protobuf JSON
mapping writes them: 64-bit integers as strings, bytes as base64, enums by name (by number when
the enum does not know it), repeated fields as arrays, map fields as objects, and the well-known
types (Timestamp, Duration, wrappers, Struct, Value, FieldMask, Any...) in their own JSON forms.
The text is written as it is made, so that large messages print in little memory.

  -m, --message MSG       the message type of the data, fully qualified (e.g. shop.Order)
  -i, --input-file FILE   read the data from FILE rather than standard input; several -i
                          are read in turn (one record each, or a stream with --delimited)
  --input FORMAT          how the data is written: binary (default), hex or base64
  --pretty                indent the output instead of writing one line
  --json-names            fields under their JSON names (json_name, else lowerCamelCase), not
                          their declared names
  --enums-as-numbers      enum values as numbers, not names
  --print-defaults        also fields absent from the data that have no presence of their own
                          (proto3 scalars, repeated and map fields), with their default values
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
  --fail-fast             stop at the first bad record

What is printed is what protobuf's parse of the data holds: of a field the data holds more than
once, the last value, or for a message all of them merged; of a oneof, the last member present.

Several -i files are several records, and so is a framed input or a Kafka topic: every record
prints as one line (JSON Lines without --pretty), a null record as null; with --provenance as
{"@partition":P,"@offset":O,"@timestamp":T,"@key":K,"value":RECORD}. A record that cannot be
rendered (a field that cannot be walked or decoded) is reported on standard error with its number
and byte offset and skipped; the exit status is then 1. A single message that cannot be rendered stops the output where the fault
was met (a large message is printed as it is made) and reports the error on standard error, with
exit status 1.
)usage";

int run(Arguments& args, GlobalOptions& globals) {
  MessageInput input;
  RecordOptions records;
  JsonOptions options;
  options.strict = true;
  while (!args.done()) {
    if (globals.parse(args) || input.parse(args) || records.parse(args)) continue;
    if (args.flag({"--pretty"})) {
      options.style = JsonStyle::indented;
    } else if (args.flag({"--json-names"})) {
      options.jsonNames = true;
    } else if (args.flag({"--enums-as-numbers"})) {
      options.enumsAsNumbers = true;
    } else if (args.flag({"--print-defaults"})) {
      options.printDefaults = true;
    } else {
      throw UsageError("unexpected argument \"" + args.positional() + "\"");
    }
  }
  records.check(input);

  const LoadedSchemas schemas = loadSchemas(globals);
  if (records.streams(input)) {
    RecordSchemas types(records, input, schemas);
    std::string line;
    std::string rendered;
    return forEachRecord(input, records, types, [&](const StreamRecord& record) {
      // Rendered whole before any of it is printed: a bad record prints nothing.
      rendered = record.bytes ? renderJSON(record.schema->view(*record.bytes), options) : "null";
      line.clear();
      if (records.provenance) {
        const KafkaProvenance& kafka = *record.kafka;
        nlohmann::json key;
        if (kafka.key) key = std::string(asText(*kafka.key));
        line += "{\"@partition\":" + std::to_string(kafka.partition) +
                ",\"@offset\":" + std::to_string(kafka.offset) +
                ",\"@timestamp\":" + (kafka.timestamp ? std::to_string(*kafka.timestamp) : "null") +
                ",\"@key\":" + key.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) +
                ",\"value\":" + rendered + "}\n";
      } else {
        line += rendered;
        line += '\n';
      }
      writeOut(line);
    });
  }
  const SchematizedData data = input.schema(schemas).schematizedData(input.read());
  renderJSON(
      data, [](std::string_view text) { writeOut(text); }, options);
  writeOut("\n");
  return kExitSuccess;
}

}  // namespace

const Command kJsonCommand{"json", "a whole message as JSON", kUsage, &run};

}  // namespace ostrel::tool
