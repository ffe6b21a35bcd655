#include "store/proto_schema_store.hpp"

#include <tuple>

#include "ostrel/manifest/manifest_data.hpp"

namespace ostrel {
namespace {

// Removes `name` from the set of schemas being created when the creation ends, however it ends.
class CreationGuard {
 public:
  CreationGuard(std::set<std::string, std::less<>>& creating, std::string_view name)
      : creating_(creating), it_(creating.emplace(name).first) {}
  ~CreationGuard() { creating_.erase(it_); }
  CreationGuard(const CreationGuard&) = delete;
  CreationGuard& operator=(const CreationGuard&) = delete;

 private:
  std::set<std::string, std::less<>>& creating_;
  std::set<std::string, std::less<>>::iterator it_;
};

}  // namespace

std::shared_ptr<ProtoSchemaStore> ProtoSchemaStore::make(const SchemaManifest& manifest) {
  const SchemaManifest& builtin = builtinDescriptorManifest();
  auto messages = builtin.messages;
  merge(messages, manifest.messages, MergePolicy::keepExisting);
  auto enums = builtin.enums;
  merge(enums, manifest.enums, MergePolicy::keepExisting);

  std::shared_ptr<ProtoSchemaStore> store(new ProtoSchemaStore());
  store->enumSchemas_.reserve(enums.size());
  for (auto& [name, value] : enums) {
    store->enumSchemas_.emplace(std::piecewise_construct, std::forward_as_tuple(name),
                                std::forward_as_tuple(std::move(value)));
  }
  store->messageSchemas_.reserve(messages.size());
  for (auto& [name, value] : messages) {
    store->messageSchemas_.emplace(std::piecewise_construct, std::forward_as_tuple(name),
                                   std::forward_as_tuple(std::move(value)));
  }
  return store;
}

bool ProtoSchemaStore::add(const SchemaManifest& manifest) {
  const std::lock_guard lock(mutex_);
  bool complete = true;
  const auto addTo = [&complete](auto& slots, const auto& manifests) {
    for (const auto& [name, record] : manifests) {
      const auto [it, added] = slots.try_emplace(name, record);
      if (added) continue;
      if (it->second.materialised()) {
        complete = false;
      } else {
        it->second.manifest().merge(record, MergePolicy::keepExisting);
      }
    }
  };
  addTo(messageSchemas_, manifest.messages);
  addTo(enumSchemas_, manifest.enums);
  return complete;
}

std::set<std::string> ProtoSchemaStore::messageSchemaNames() const {
  std::set<std::string> names;
  for (const auto& entry : messageSchemas_) names.insert(entry.first);
  return names;
}

std::set<std::string> ProtoSchemaStore::enumSchemaNames() const {
  std::set<std::string> names;
  for (const auto& entry : enumSchemas_) names.insert(entry.first);
  return names;
}

bool ProtoSchemaStore::hasMessageSchemaNamed(std::string_view name) const {
  return messageSchemas_.find(name) != messageSchemas_.end();
}

bool ProtoSchemaStore::hasEnumSchemaNamed(std::string_view name) const {
  return enumSchemas_.find(name) != enumSchemas_.end();
}

std::shared_ptr<MessageSchemaDescribing> ProtoSchemaStore::messageSchema(
    std::string_view name) const {
  const auto it = messageSchemas_.find(name);
  if (it == messageSchemas_.end()) throw SchematizerError::schemaNotFound(std::string(name));
  MessageContainer& slot = it->second;
  if (slot.materialised()) [[likely]] {
    return slot.schema();
  }
  const std::lock_guard lock(mutex_);
  if (slot.materialised()) return slot.schema();
  if (creating_.contains(name)) {
    throw SchematizerError::internalError("Schema \"" + it->first +
                                          "\" needs itself to be created");
  }
  std::shared_ptr<ProtoMessageSchema> schema;
  {
    CreationGuard guard(creating_, name);
    schema = ProtoMessageSchema::make(
        it->first, slot.manifest(), std::const_pointer_cast<ProtoSchemaStore>(shared_from_this()));
  }
  return slot.publish(std::move(schema));
}

std::shared_ptr<EnumSchemaDescribing> ProtoSchemaStore::enumSchema(std::string_view name) const {
  const auto it = enumSchemas_.find(name);
  if (it == enumSchemas_.end()) throw SchematizerError::enumNotFound(std::string(name));
  EnumContainer& slot = it->second;
  if (slot.materialised()) [[likely]] {
    return slot.schema();
  }
  const std::lock_guard lock(mutex_);
  if (slot.materialised()) return slot.schema();
  return slot.publish(ProtoEnumSchema::make(it->first, slot.manifest(), *this));
}

std::string ProtoSchemaStore::description() const {
  return "MessageSchema store size: " + std::to_string(messageSchemas_.size());
}

}  // namespace ostrel
