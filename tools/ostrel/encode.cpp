#include "ostrel/output/json.hpp"
#include "ostrel/output/text_format.hpp"
#include "tool.hpp"

namespace ostrel::tool {
namespace {

constexpr std::string_view kUsage =
    R"usage(usage: ostrel [SCHEMAS] encode -m MSG [-i FILE] [--from json|text] [--output FORMAT]

Reads one JSON object (as json prints it) and writes the MSG message it describes, encoded.
Members are fields by their declared names (null: absent); integers may be numbers or decimal
strings, bytes are base64, enums are names or numbers, repeated fields arrays, map fields
objects. Whatever json prints encodes back to a message that json prints the same way.
With --from text it reads protobuf's text format instead, as "protoc --encode=MSG" does.

  -m, --message MSG       the message type to encode, fully qualified (e.g. shop.Order)
  -i, --input-file FILE   read the JSON from FILE rather than standard input
  --from FORMAT           json (default) or text
  --output FORMAT         binary (default), or hex or base64 as one line of text
)usage";

int run(Arguments& args, GlobalOptions& globals) {
  MessageInput input;
  DataFormat format = DataFormat::binary;
  std::string value;
  bool fromText = false;
  while (!args.done()) {
    if (globals.parse(args) || input.parse(args, false)) continue;
    if (args.value({"--output"}, value)) {
      format = parseDataFormat(value, "--output");
    } else if (args.value({"--from"}, value)) {
      if (value != "json" && value != "text") {
        throw UsageError("--from must be json or text, not \"" + value + "\"");
      }
      fromText = value == "text";
    } else {
      throw UsageError("unexpected argument \"" + args.positional() + "\"");
    }
  }
  require(input.message, "-m MSG");

  const LoadedSchemas schemas = loadSchemas(globals);
  const MessageSchema schema = input.schema(schemas);
  const std::string text = readAll(input.file);
  const SchematizedData data =
      fromText ? encodeText(schema, text) : encodeJSON(*schema.impl(), text);
  writeOut(encodeData(data.bytes(), format));
  return kExitSuccess;
}

}  // namespace

const Command kEncodeCommand{"encode", "JSON or text format in, the encoded message out", kUsage,
                             &run};

}  // namespace ostrel::tool
