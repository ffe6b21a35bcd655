#include "tool.hpp"

namespace ostrel::tool {
namespace {

constexpr std::string_view kUsage = R"usage(usage: ostrel [SCHEMAS] list

Prints the names of the messages, then the names of the enums, that the loaded schemas define,
one fully qualified name a line, each group sorted by byte value. The descriptor.proto entries the
library always knows are listed only when a loaded schema defines them.
)usage";

int run(Arguments& args, GlobalOptions& globals) {
  while (!args.done()) {
    if (globals.parse(args)) continue;
    throw UsageError("unexpected argument \"" + args.positional() + "\"");
  }
  const LoadedSchemas schemas = loadSchemas(globals);
  std::string out;
  for (const auto& [name, message] : schemas.defined.messages) out += name + "\n";
  for (const auto& [name, enumManifest] : schemas.defined.enums) out += name + "\n";
  writeOut(out);
  return kExitSuccess;
}

}  // namespace

const Command kListCommand{"list", "message names, then enum names, one a line, sorted", kUsage,
                           &run};

}  // namespace ostrel::tool
