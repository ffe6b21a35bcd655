#include "ostrel/output/json.hpp"

#include "tool.hpp"

namespace ostrel::tool {
namespace {

constexpr std::string_view kUsage =
    R"usage(usage: ostrel [SCHEMAS] json -m MSG [-i FILE] [--input FORMAT] [--pretty] [--json-names]
                                [--enums-as-numbers] [--print-defaults]

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
  --delimited             each input holds records, each preceded by its length as a varint;
                          every record prints as one line (JSON Lines without --pretty)
  --fail-fast             stop at the first bad record

What is printed is what protobuf's parse of the data holds: of a field the data holds more than
once, the last value, or for a message all of them merged; of a oneof, the last member present.

Several -i files are several records. A record that cannot be rendered (a field that cannot be
walked or decoded) is reported on standard error with its number and byte offset and skipped; the
exit status is then 1. A single message that cannot be rendered stops the output where the fault
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
  require(input.message, "-m MSG");

  const LoadedSchemas schemas = loadSchemas(globals);
  if (records.streams(input)) {
    const MessageSchema schema = input.schema(schemas);
    std::string line;
    return forEachRecord(input, records, [&](ByteView record) {
      // Rendered whole before any of it is printed: a bad record prints nothing.
      line = renderJSON(UnsafeSchematizedData(schema.impl(), record), options);
      line += '\n';
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
