#include "ostrel/output/json.hpp"
#include "tool.hpp"

namespace ostrel::tool {
namespace {

constexpr std::string_view kUsage =
    R"usage(usage: ostrel [SCHEMAS] encode -m MSG [-i FILE] [--output FORMAT]
                             [--ignore-unknown-fields]

Reads one JSON object (as json prints it) and writes the MSG message it describes, encoded.
Members are fields by their declared names (null: absent); integers may be numbers or decimal
strings, bytes are base64, enums are names or numbers, repeated fields arrays, map fields
objects. Whatever json prints encodes back to a message that json prints the same way.

  -m, --message MSG       the message type to encode, fully qualified (e.g. shop.Order)
  -i, --input-file FILE   read the JSON from FILE rather than standard input
  --output FORMAT         binary (default), or hex or base64 as one line of text
  --ignore-unknown-fields pass over members that name no field instead of failing
)usage";

int run(Arguments& args, GlobalOptions& globals) {
  MessageInput input;
  DataFormat format = DataFormat::binary;
  std::string value;
  JsonParseOptions options;
  while (!args.done()) {
    if (globals.parse(args) || input.parse(args, false)) continue;
    if (args.value({"--output"}, value)) {
      format = parseDataFormat(value, "--output");
    } else if (args.flag({"--ignore-unknown-fields"})) {
      options.ignoreUnknownFields = true;
    } else {
      throw UsageError("unexpected argument \"" + args.positional() + "\"");
    }
  }
  require(input.message, "-m MSG");

  const LoadedSchemas schemas = loadSchemas(globals);
  const MessageSchema schema = input.schema(schemas);
  const SchematizedData data = encodeJSON(*schema.impl(), readAll(input.file), options);
  writeOut(encodeData(data.bytes(), format));
  return kExitSuccess;
}

}  // namespace

const Command kEncodeCommand{"encode", "a JSON object in, the encoded message out", kUsage, &run};

}  // namespace ostrel::tool
