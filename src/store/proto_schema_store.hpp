#pragma once

#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>

#include "ostrel/core/describing.hpp"
#include "ostrel/manifest/manifest.hpp"
#include "store/lazy_slot.hpp"
#include "store/proto_schemas.hpp"

namespace ostrel {

// The library's schema store: every message and enum of one manifest (merged into the built-in
// descriptor manifest), materialised lazily. An entry stays in manifest form until its first
// successful lookup, then the schema replaces it and every later lookup returns the same object.
//
// Any number of threads may use a store, and everything reached from it, at once. The entries
// never change shape after construction; a schema is made under the store's mutex and published
// for good, and a lookup that finds it published takes no lock.
class ProtoSchemaStore final : public SchemaStoreDescribing,
                               public std::enable_shared_from_this<ProtoSchemaStore> {
 public:
  using MessageContainer = detail::LazySlot<MessageManifest, ProtoMessageSchema>;
  using EnumContainer = detail::LazySlot<EnumManifest, ProtoEnumSchema>;

  // Merges `manifest` into the built-in descriptor manifest under keepExisting (the built-in
  // records win every clash; the caller's fields are added to them). Nothing is validated here.
  static std::shared_ptr<ProtoSchemaStore> make(const SchemaManifest& manifest);

  // Adds the types of `manifest`, costing what it adds whatever the store holds, for hosts that
  // register or load definitions as they go. A new name is added in manifest form; a name the store
  // holds merges under keepExisting while it is still in manifest form (as at construction), and is
  // left alone once materialised, so that no schema handed out ever changes: the result is then
  // false, and a caller that needs the new fields makes a new store. Unlike every other member,
  // not while another thread uses the store: a host adds between the reads of one connection.
  bool add(const SchemaManifest& manifest);

  // Schemas refer to each other strongly (a field to its type, a schema to its options' schema),
  // so recursive types form reference cycles. When the store goes, the references that close a
  // cycle are released: afterwards such a field's type() reports the store as destroyed, while
  // every other materialised schema keeps working for whoever still holds it.
  ~ProtoSchemaStore() override;

  std::set<std::string> messageSchemaNames() const override;
  std::set<std::string> enumSchemaNames() const override;
  bool hasMessageSchemaNamed(std::string_view name) const override;
  bool hasEnumSchemaNamed(std::string_view name) const override;
  // Throws SchematizerError::schemaNotFound, or the error of creating the schema (the entry then
  // stays in manifest form and the next lookup tries again).
  std::shared_ptr<MessageSchemaDescribing> messageSchema(std::string_view name) const override;
  // Throws SchematizerError::enumNotFound, or the error of creating the schema.
  std::shared_ptr<EnumSchemaDescribing> enumSchema(std::string_view name) const override;
  SchemaManifest engagedManifest() const override;

  const detail::StringMap<MessageContainer>& messageSchemas() const noexcept {
    return messageSchemas_;
  }
  const detail::StringMap<EnumContainer>& enumSchemas() const noexcept { return enumSchemas_; }

  // "MessageSchema store size: " and the number of messages, materialised or not.
  std::string description() const;

 private:
  ProtoSchemaStore() = default;

  mutable detail::StringMap<EnumContainer> enumSchemas_;
  mutable detail::StringMap<MessageContainer> messageSchemas_;
  // Held while a schema is made. Recursive: making a schema looks up its options' schema.
  mutable std::recursive_mutex mutex_;
  // Messages whose schema is being created (under mutex_); a lookup of one of them from inside its
  // own creation (an options message that carries options of its own kind) would never end.
  mutable std::set<std::string, std::less<>> creating_;
};

}  // namespace ostrel
