#include "sql/sql_schemas.hpp"

#include <atomic>

#include "ostrel/manifest/manifest_data.hpp"
#include "ostrel/paths/property_path.hpp"

namespace ostrel::detail {
namespace {

// The records of `incoming` whose names `registered` lacks, into `fresh`; a name registered with
// another record is refused.
template <typename Records>
void collectUnregistered(const Records& registered, const Records& incoming, const char* kind,
                         Records& fresh) {
  for (const auto& [name, record] : incoming) {
    const auto found = registered.find(name);
    if (found == registered.end()) {
      fresh.emplace(name, record);
    } else if (!(found->second == record)) {
      throw MergeConflict::conflict(std::string(kind) + " \"" + name +
                                    "\" is already registered with another definition; register "
                                    "a changed definition under a new name");
    }
  }
}

MessageSchema schemaFor(const SqlSchemas& schemas, std::optional<std::string_view> type) {
  return type ? schemas.messageSchema(*type) : schemas.defaultSchema();
}

// Generations are unique across all SqlSchemas of the process, so that a resolution cached under
// one never passes for current under another that replaced it.
uint64_t nextGeneration() {
  static std::atomic<uint64_t> counter{0};
  return ++counter;
}

}  // namespace

SqlSchemas::SqlSchemas(SchemaManifest registered, std::optional<std::string> defaultType)
    : registered_(std::move(registered)), store_(registered_), generation_(nextGeneration()) {
  if (defaultType) setDefaultType(*defaultType);
}

SchemaManifest SqlSchemas::unregistered(const SchemaManifest& incoming) const {
  SchemaManifest fresh;
  collectUnregistered(registered_.messages, incoming.messages, "Message type", fresh.messages);
  collectUnregistered(registered_.enums, incoming.enums, "Enum type", fresh.enums);
  return fresh;
}

size_t SqlSchemas::add(const SchemaManifest& incoming) {
  SchemaManifest fresh = unregistered(incoming);
  if (fresh.messages.empty() && fresh.enums.empty()) return registered_.messages.size();
  // New names go into the store as they are, keeping every schema materialised so far; only a
  // materialised name the store holds already (a built-in type gaining fields) needs a new store.
  if (!store_.add(fresh)) {
    SchemaManifest merged = registered_;
    merged.merge(fresh, MergePolicy::requireEqual);
    store_ = SchemaStore(merged);
  }
  for (auto& [name, message] : fresh.messages)
    registered_.messages.emplace(name, std::move(message));
  for (auto& [name, enumeration] : fresh.enums)
    registered_.enums.emplace(name, std::move(enumeration));
  generation_ = nextGeneration();
  return registered_.messages.size();
}

void SqlSchemas::setDefaultType(std::string_view name) {
  store_.messageSchema(name);
  defaultType_ = std::string(name);
  generation_ = nextGeneration();
}

MessageSchema SqlSchemas::defaultSchema() const {
  if (!defaultType_) {
    throw SchematizerError::schemaNotFound(
        "no default message type; name one with ostrel_default_type, or pass the type");
  }
  return store_.messageSchema(*defaultType_);
}

std::unique_ptr<ResolvedPath> resolvePath(const SqlSchemas& schemas,
                                          std::optional<std::string_view> type,
                                          std::string_view path) {
  const MessageSchema schema = schemaFor(schemas, type);
  return std::make_unique<ResolvedPath>(
      ResolvedPath{schemas.store(), schema.name(), schemas.generation(),
                   resolvePropertyPath(schema, path), schema.impl()});
}

std::unique_ptr<ResolvedRepeated> resolveRepeated(const SqlSchemas& schemas,
                                                  std::optional<std::string_view> type,
                                                  std::string_view path) {
  const MessageSchema schema = schemaFor(schemas, type);
  return std::make_unique<ResolvedRepeated>(ResolvedRepeated{
      schemas.store(), schema.name(), schemas.generation(), RepeatedField(schema, path)});
}

}  // namespace ostrel::detail
