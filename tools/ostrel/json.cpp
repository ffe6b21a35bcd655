#include "ostrel/output/json_rendering.hpp"
#include "tool.hpp"

namespace ostrel::tool {
namespace {

constexpr std::string_view kUsage =
    R"usage(usage: ostrel [SCHEMAS] json -m MSG [-i FILE] [--input FORMAT] [--pretty]

Prints one encoded MSG message as a JSON object: every field present in the data under its
declared name, in field-number order; absent fields are left out. Values as the protobuf JSON
mapping writes them: 64-bit integers as strings, bytes as base64, enums by name (by number when
the enum does not know it), repeated fields as arrays, map fields as objects.

  -m, --message MSG       the message type of the data, fully qualified (e.g. shop.Order)
  -i, --input-file FILE   read the data from FILE rather than standard input
  --input FORMAT          how the data is written: binary (default), hex or base64
  --pretty                indent the output instead of writing one line

A field that cannot be decoded shows as the text "Sch: Error encoding FIELD: ERROR" and the rest
of the message still prints; the error also goes to standard error and the exit status is 1.
)usage";

int run(Arguments& args, GlobalOptions& globals) {
  MessageInput input;
  bool pretty = false;
  while (!args.done()) {
    if (globals.parse(args) || input.parse(args)) continue;
    if (args.flag({"--pretty"})) {
      pretty = true;
    } else {
      throw UsageError("unexpected argument \"" + args.positional() + "\"");
    }
  }
  require(input.message, "-m MSG");

  const LoadedSchemas schemas = loadSchemas(globals);
  const SchematizedData data = input.schema(schemas).schematizedData(input.read());
  writeOut(renderJSON(data.unsafe(), pretty ? JsonStyle::indented : JsonStyle::compact) + "\n");
  return kExitSuccess;
}

}  // namespace

const Command kJsonCommand{"json", "a whole message as JSON", kUsage, &run};

}  // namespace ostrel::tool
