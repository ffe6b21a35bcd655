#include <algorithm>
#include <memory>
#include <utility>
#include <vector>

#include "ostrel/core/errors.hpp"
#include "tool.hpp"

namespace ostrel::tool {
namespace {

constexpr std::string_view kUsage = R"usage(usage: ostrel [SCHEMAS] describe message NAME
       ostrel [SCHEMAS] describe enum NAME

describe message NAME
  One line per field of the message NAME (fully qualified, e.g. shop.Order), in field-number
  order, its columns separated by single tabs:
    NUMBER <tab> FIELD <tab> TYPE [<tab> repeated] [<tab> oneof ONEOF]
  TYPE is the type's description: "signed integer 32", "text string", "message of a.B schema",
  "a.E enum (try .ostrel describe enum a.E)", ... The "repeated" and "oneof ONEOF" columns
  appear only where they apply; a map field is a repeated field of its entry message.

describe enum NAME
  One line per value of the enum NAME, in number order: VALUE = NUMBER. Several names of one
  number (aliases) each get their own line, in name order.
)usage";

std::string describeMessage(const LoadedSchemas& schemas, const std::string& name) {
  const MessageSchema message = schemas.messageSchema(name);
  const std::vector<OneofSchema> oneofs = message.allOneofs();
  std::string out;
  for (const auto& [number, field] : message.fieldsByNumber()) {
    std::string type;
    try {
      type = field.type().descriptionText();
    } catch (const Error& error) {
      // A type name the loaded schemas do not define: say which field refers to it.
      throw ToolError(name + "." + field.name() + ": " + error.what());
    }
    out += std::to_string(number) + "\t" + field.name() + "\t" + type;
    if (field.isRepeated()) out += "\trepeated";
    if (const std::optional<int32_t> index = field.oneofIndex();
        index && *index >= 0 && static_cast<size_t>(*index) < oneofs.size()) {
      out += "\toneof " + oneofs[static_cast<size_t>(*index)].name();
    }
    out += "\n";
  }
  return out;
}

std::string describeEnum(const LoadedSchemas& schemas, const std::string& name) {
  const EnumSchema schema = schemas.enumSchema(name);
  // Number, then name: the order of the lines.
  std::vector<std::pair<int64_t, std::string>> values;
  for (const auto& [valueName, number] : schema.allValues()) values.emplace_back(number, valueName);
  std::sort(values.begin(), values.end());
  std::string out;
  for (const auto& [number, valueName] : values) {
    out += valueName + " = " + std::to_string(number) + "\n";
  }
  return out;
}

int run(Arguments& args, GlobalOptions& globals) {
  std::vector<std::string> words;
  while (!args.done()) {
    if (globals.parse(args)) continue;
    words.push_back(args.positional());
  }
  if (words.empty()) throw UsageError("missing \"message\" or \"enum\"");
  if (words[0] != "message" && words[0] != "enum") {
    throw UsageError("describe takes \"message\" or \"enum\", not \"" + words[0] + "\"");
  }
  if (words.size() < 2) throw UsageError("missing NAME");
  if (words.size() > 2) throw UsageError("unexpected argument \"" + words[2] + "\"");
  const LoadedSchemas schemas = loadSchemas(globals);
  writeOut(words[0] == "message" ? describeMessage(schemas, words[1])
                                 : describeEnum(schemas, words[1]));
  return kExitSuccess;
}

}  // namespace

const Command kDescribeCommand{"describe", "the fields of a message, or the values of an enum",
                               kUsage, &run};

}  // namespace ostrel::tool
