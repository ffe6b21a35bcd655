#include <set>
#include <vector>

#include "ostrel/manifest/manifest_data.hpp"
#include "tool.hpp"

namespace ostrel::tool {
namespace {

constexpr std::string_view kUsage =
    R"usage(usage: ostrel [SCHEMAS] manifest [--format json|descriptor-set] [--pretty]
                        [--output FORMAT] [--closure MSG]...

Exports the loaded schemas as one manifest, rebuilt from the schemas themselves (so every type a
field refers to must be loaded too).

Without --closure: every message and enum the loaded schemas define. The descriptor.proto
entries the library always knows are left out unless a loaded schema defines them.
With --closure MSG (repeatable): only the messages MSG and the messages and enums their fields
reach, transitively (map entry messages included), built-in entries included when reached.

  --format json             the JSON manifest form (default), one line, or indented with
                            --pretty; readable by "ostrel -s"
  --format descriptor-set   a serialized FileDescriptorSet: one file without package, one
                            top-level message or enum per entry, named by its full name;
                            readable by "ostrel -s" (but, being named so, not by protoc)
  --output FORMAT           for descriptor-set: binary (default), or hex or base64 as one line
)usage";

// Looks `root` up and, through the types of its fields, everything it reaches; the lookups
// materialise those schemas in the store. A worklist rather than recursion: a chain of types is
// as long as the schema makes it, and the stack is not.
void reach(const MessageSchema& root, std::set<std::string>& messages,
           std::set<std::string>& enums) {
  std::vector<MessageSchema> pending;
  if (messages.insert(root.name()).second) pending.push_back(root);
  while (!pending.empty()) {
    const MessageSchema message = std::move(pending.back());
    pending.pop_back();
    for (const auto& [number, field] : message.fieldsByNumber()) {
      const TypeSchema type = field.type();
      if (std::optional<MessageSchema> nested = type.messageSchema()) {
        if (messages.insert(nested->name()).second) pending.push_back(std::move(*nested));
      } else if (const std::optional<EnumSchema> enumSchema = type.enumSchema()) {
        enums.insert(enumSchema->name());
      }
    }
  }
}

// The entries of `manifest` whose names are in the two sets.
SchemaManifest only(const SchemaManifest& manifest, const auto& messages, const auto& enums) {
  SchemaManifest out;
  for (const auto& [name, message] : manifest.messages) {
    if (messages.contains(name)) out.messages.emplace(name, message);
  }
  for (const auto& [name, enumManifest] : manifest.enums) {
    if (enums.contains(name)) out.enums.emplace(name, enumManifest);
  }
  return out;
}

int run(Arguments& args, GlobalOptions& globals) {
  bool descriptorSet = false;
  bool pretty = false;
  std::optional<DataFormat> output;
  std::vector<std::string> closure;
  std::string value;
  while (!args.done()) {
    if (globals.parse(args)) continue;
    if (args.value({"--format"}, value)) {
      if (value != "json" && value != "descriptor-set") {
        throw UsageError("--format must be json or descriptor-set, not \"" + value + "\"");
      }
      descriptorSet = value == "descriptor-set";
    } else if (args.value({"--output"}, value)) {
      output = parseDataFormat(value, "--output");
    } else if (args.value({"--closure"}, value)) {
      closure.push_back(value);
    } else if (args.flag({"--pretty"})) {
      pretty = true;
    } else {
      throw UsageError("unexpected argument \"" + args.positional() + "\"");
    }
  }
  if (descriptorSet && pretty) throw UsageError("--pretty applies to --format json only");
  if (!descriptorSet && output) {
    throw UsageError("--output applies to --format descriptor-set only");
  }

  const LoadedSchemas schemas = loadSchemas(globals);
  SchemaManifest manifest;
  if (closure.empty()) {
    std::set<std::string, std::less<>> messages;
    std::set<std::string, std::less<>> enums;
    for (const auto& [name, message] : schemas.defined.messages) messages.insert(name);
    for (const auto& [name, enumManifest] : schemas.defined.enums) enums.insert(name);
    manifest = only(fullManifest(schemas.store), messages, enums);
  } else {
    std::set<std::string> messages;
    std::set<std::string> enums;
    for (const std::string& name : closure) reach(schemas.messageSchema(name), messages, enums);
    manifest = only(manifestEngagementsOnly(schemas.store), messages, enums);
  }

  if (descriptorSet) {
    writeOut(encodeData(descriptorSetFromManifest(manifest), output.value_or(DataFormat::binary)));
  } else {
    writeOut(schemaManifestToJSON(manifest, pretty) + "\n");
  }
  return kExitSuccess;
}

}  // namespace

const Command kManifestCommand{"manifest", "export the loaded schemas as a manifest", kUsage, &run};

}  // namespace ostrel::tool
