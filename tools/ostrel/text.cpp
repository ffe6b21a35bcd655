#include "ostrel/output/text_format.hpp"
#include "tool.hpp"

namespace ostrel::tool {
namespace {

constexpr std::string_view kUsage =
    R"usage(usage: ostrel [SCHEMAS] text -m MSG [-i FILE] [--input FORMAT]

Prints one encoded MSG message in protobuf's text format, exactly as "protoc --decode=MSG"
prints it: the message is parsed as protobuf parses it (the last occurrence of a field wins,
occurrences of a message merge), extensions show as [full.name], unknown fields by number.
"ostrel encode --from text" reads the text back.

  -m, --message MSG       the message type of the data, fully qualified (e.g. shop.Order)
  -i, --input-file FILE   read the data from FILE rather than standard input; several -i
                          are read in turn (one record each, or a stream with --delimited)
  --input FORMAT          how the data is written: binary (default), hex or base64
  --delimited             each input holds records, each preceded by its length as a varint;
                          every record prints followed by an empty line
  --fail-fast             stop at the first bad record

A record protobuf cannot parse is reported on standard error with its number and byte offset
and skipped; the exit status is then 1.
)usage";

int run(Arguments& args, GlobalOptions& globals) {
  MessageInput input;
  RecordOptions records;
  while (!args.done()) {
    if (globals.parse(args) || input.parse(args) || records.parse(args)) continue;
    throw UsageError("unexpected argument \"" + args.positional() + "\"");
  }
  records.check(input);

  const LoadedSchemas schemas = loadSchemas(globals);
  if (records.streams(input)) {
    RecordSchemas types(records, input, schemas);
    return forEachRecord(input, records, types, [&](const StreamRecord& record) {
      // A null record is an empty message's text: nothing, then the separating empty line.
      if (record.bytes) writeOut(renderText(record.schema->view(*record.bytes)));
      writeOut("\n");
    });
  }
  writeOut(renderText(input.schema(schemas).schematizedData(input.read())));
  return kExitSuccess;
}

}  // namespace

const Command kTextCommand{"text", "a whole message in protobuf's text format", kUsage, &run};

}  // namespace ostrel::tool
