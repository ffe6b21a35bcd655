// The message type of each record of a stream: -m's, or the one a Confluent schema id and
// message-index path name in a schema registry's exports, which the user maps to files.

#include <google/protobuf/compiler/importer.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/descriptor_database.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <map>

#include "ostrel/core/errors.hpp"
#include "ostrel/manifest/typed_import.hpp"
#include "tool.hpp"

namespace ostrel::tool {
namespace {

namespace pb = google::protobuf;

// Collects the errors of a .proto parse into one text.
class ErrorText : public pb::compiler::MultiFileErrorCollector {
 public:
  void AddError(const std::string& file, int line, int column,
                const std::string& message) override {
    text += (text.empty() ? "" : "; ") + file + ":" + std::to_string(line + 1) + ":" +
            std::to_string(column + 1) + ": " + message;
  }
  std::string text;
};

// Puts `file` after its dependencies into `set`, each file once.
void addWithDependencies(const pb::FileDescriptor* file, pb::FileDescriptorSet& set,
                         std::vector<const pb::FileDescriptor*>& added) {
  if (std::find(added.begin(), added.end(), file) != added.end()) return;
  added.push_back(file);
  for (int i = 0; i < file->dependency_count(); ++i) {
    addWithDependencies(file->dependency(i), set, added);
  }
  file->CopyTo(set.add_file());
}

// A registry export as a descriptor set whose last file is the schema itself: a .proto file,
// compiled with its folder and libprotobuf's compiled-in files as imports, or a descriptor set as
// written (protoc --include_imports and buf put the file after what it imports).
pb::FileDescriptorSet exportedSchema(const std::string& path) {
  pb::FileDescriptorSet set;
  if (path.ends_with(".proto")) {
    const std::filesystem::path file(path);
    pb::compiler::DiskSourceTree tree;
    tree.MapPath("", file.parent_path().empty() ? "." : file.parent_path().string());
    ErrorText errors;
    // What the folder does not hold (descriptor.proto, the well-known types) comes from the files
    // libprotobuf carries compiled in, not from a folder of the machine the tool was built on.
    pb::DescriptorPoolDatabase builtIn(*pb::DescriptorPool::generated_pool());
    pb::compiler::SourceTreeDescriptorDatabase database(&tree, &builtIn);
    database.RecordErrorsTo(&errors);
    pb::DescriptorPool pool(&database, database.GetValidationErrorCollector());
    const pb::FileDescriptor* imported = pool.FindFileByName(file.filename().string());
    if (!imported) throw ToolError(path + ": " + errors.text);
    std::vector<const pb::FileDescriptor*> added;
    addWithDependencies(imported, set, added);
    return set;
  }
  const std::string bytes = readAll(path, kMaxSchemaFileSize, "schema");
  if (!set.ParseFromString(bytes) || set.file_size() == 0) {
    throw ToolError(path + ": not a descriptor set");
  }
  return set;
}

std::string pathText(const std::vector<int32_t>& indexes) {
  std::string text = "[";
  for (size_t i = 0; i < indexes.size(); ++i) {
    text += (i == 0 ? "" : ", ") + std::to_string(indexes[i]);
  }
  return text + "]";
}

}  // namespace

// One schema of the registry, loaded once.
struct RecordSchemas::Registry {
  struct Entry {
    std::string file;
    pb::FileDescriptorProto main;
    SchemaStore store;
    std::map<std::vector<int32_t>, MessageSchema> messages;
  };
  std::map<std::string, std::unique_ptr<Entry>> entries;
  // The last answer: records of a topic mostly share one type.
  std::optional<ConfluentSchemaId> lastId;
  const MessageSchema* last = nullptr;
};

RecordSchemas::RecordSchemas(const RecordOptions& options, const MessageInput& input,
                             const LoadedSchemas& schemas)
    : options_(options), registry_(std::make_unique<Registry>()) {
  if (input.message) fixed_ = input.schema(schemas);
}

RecordSchemas::~RecordSchemas() = default;

const MessageSchema& RecordSchemas::schemaFor(const ConfluentSchemaId& id) {
  Registry& registry = *registry_;
  if (registry.last && registry.lastId->id == id.id && registry.lastId->guid == id.guid &&
      registry.lastId->indexes == id.indexes) {
    return *registry.last;
  }
  const std::string key = id.idText();
  auto found = registry.entries.find(key);
  if (found == registry.entries.end()) {
    std::optional<std::string> file;
    for (const auto& [given, path] : options_.schemaIds) {
      std::string lower = given;
      std::transform(lower.begin(), lower.end(), lower.begin(),
                     [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
      if (lower == key) file = path;
    }
    if (!file && options_.schemaDir) {
      for (const char* extension : {".desc", ".binpb", ".pb", ".proto"}) {
        const std::filesystem::path candidate =
            std::filesystem::path(*options_.schemaDir) / (key + extension);
        if (std::filesystem::exists(candidate)) {
          file = candidate.string();
          break;
        }
      }
    }
    if (!file) throw ToolError("no schema for id " + key);
    const pb::FileDescriptorSet set = exportedSchema(*file);
    SchemaStore store(schemaManifestFromDescriptorSet(set));
    auto entry = std::make_unique<Registry::Entry>(
        Registry::Entry{*file, set.file(set.file_size() - 1), std::move(store), {}});
    found = registry.entries.emplace(key, std::move(entry)).first;
  }
  Registry::Entry& entry = *found->second;
  auto message = entry.messages.find(id.indexes);
  if (message == entry.messages.end()) {
    // The first index picks a top-level message of the file, each further one a nested message.
    const auto missing = [&] {
      return ToolError("schema id " + key + " (" + entry.file + ") has no message at index path " +
                       pathText(id.indexes));
    };
    if (id.indexes.front() >= entry.main.message_type_size()) throw missing();
    const pb::DescriptorProto* type = &entry.main.message_type(id.indexes.front());
    std::string name = entry.main.package().empty() ? "" : entry.main.package() + ".";
    name += type->name();
    for (size_t i = 1; i < id.indexes.size(); ++i) {
      if (id.indexes[i] >= type->nested_type_size()) throw missing();
      type = &type->nested_type(id.indexes[i]);
      name += "." + type->name();
    }
    message = entry.messages.emplace(id.indexes, entry.store.messageSchema(name)).first;
  }
  registry.lastId = id;
  registry.last = &message->second;
  return message->second;
}

}  // namespace ostrel::tool
