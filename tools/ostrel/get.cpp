#include "ostrel/core/errors.hpp"
#include "ostrel/paths/key_path.hpp"
#include "ostrel/paths/property_path.hpp"
#include "tool.hpp"

namespace ostrel::tool {
namespace {

constexpr std::string_view kUsage =
    R"usage(usage: ostrel [SCHEMAS] get -m MSG [-i FILE] [--input FORMAT] PATH...

Reads the value at each property PATH of one encoded MSG message and prints one line per PATH,
in argument order: the value as JSON (64-bit integers as strings, bytes as base64, enums by
name, messages as objects on one line), or null when the message does not hold it.

A property path names fields from the outermost message inward, separated by dots; an element of
a repeated field is addressed by its index from 0 in brackets: customer.name, items[1].sku. A
map field is a repeated field of entry messages with a key and a value field.

  -m, --message MSG       the message type of the data, fully qualified (e.g. shop.Order)
  -i, --input-file FILE   read the data from FILE rather than standard input
  --input FORMAT          how the data is written: binary (default), hex or base64

Every PATH is checked against the schema before the data is read.
)usage";

int run(Arguments& args, GlobalOptions& globals) {
  MessageInput input;
  std::vector<std::string> paths;
  while (!args.done()) {
    if (globals.parse(args) || input.parse(args)) continue;
    paths.push_back(args.positional());
  }
  require(input.message, "-m MSG");
  if (paths.empty()) throw UsageError("missing PATH");

  const LoadedSchemas schemas = loadSchemas(globals);
  const MessageSchema schema = input.schema(schemas);
  for (const std::string& path : paths) {
    PropertyPathUtil::parse(path);
    try {
      resolveKeyPath(*schema.impl(), path);
    } catch (const SchematizerError& error) {
      throw ToolError(path + ": " + error.what());
    }
  }

  const SchematizedData data = schema.schematizedData(input.read());
  std::string out;
  for (const std::string& path : paths) {
    try {
      const std::optional<AnyValue> found = data.value(path);
      out += (found ? valueJSON(*found) : "null") + "\n";
    } catch (const Error& error) {
      throw ToolError(path + ": " + error.what());
    }
  }
  writeOut(out);
  return kExitSuccess;
}

}  // namespace

const Command kGetCommand{"get", "the values at property paths, one JSON value a line", kUsage,
                          &run};

}  // namespace ostrel::tool
