#include "ostrel/output/json_encoding.hpp"
#include "tool.hpp"

namespace ostrel::tool {
namespace {

constexpr std::string_view kUsage =
    R"usage(usage: ostrel [SCHEMAS] encode -m MSG [-i FILE] [--output FORMAT]

Reads one JSON object (as json prints it) and writes the MSG message it describes, encoded.
Members are fields by their declared names (null: absent); integers may be numbers or decimal
strings, bytes are base64, enums are names or numbers, repeated fields arrays, map fields
objects. Whatever json prints encodes back to a message that json prints the same way.

  -m, --message MSG       the message type to encode, fully qualified (e.g. shop.Order)
  -i, --input-file FILE   read the JSON from FILE rather than standard input
  --output FORMAT         binary (default), or hex or base64 as one line of text
)usage";

int run(Arguments& args, GlobalOptions& globals) {
  std::optional<std::string> message;
  std::optional<std::string> file;
  DataFormat format = DataFormat::binary;
  std::string value;
  while (!args.done()) {
    if (globals.parse(args)) continue;
    if (args.value({"-m", "--message"}, value)) {
      message = value;
    } else if (args.value({"-i", "--input-file"}, value)) {
      file = value;
    } else if (args.value({"--output"}, value)) {
      format = parseDataFormat(value, "--output");
    } else {
      throw UsageError("unexpected argument \"" + args.positional() + "\"");
    }
  }
  require(message, "-m MSG");

  const LoadedSchemas schemas = loadSchemas(globals);
  const MessageSchema schema = schemas.store.messageSchema(*message);
  const SchematizedData data = encodeJSON(*schema.impl(), readAll(file));
  writeOut(encodeData(data.bytes(), format));
  return kExitSuccess;
}

}  // namespace

const Command kEncodeCommand{"encode", "a JSON object in, the encoded message out", kUsage, &run};

}  // namespace ostrel::tool
