#include "ostrel/store/schemas.hpp"

#include "core/field_type_facts.hpp"
#include "manifest/manifest_check.hpp"
#include "store/proto_schema_store.hpp"

namespace ostrel {

std::optional<EnumSchema> TypeSchema::enumSchema() const {
  if (kind() != Case::enum_) return std::nullopt;
  return EnumSchema(description_.enumSchema());
}

std::optional<MessageSchema> TypeSchema::messageSchema() const {
  if (kind() != Case::message) return std::nullopt;
  return MessageSchema(description_.messageSchema());
}

std::string TypeSchema::descriptionText() const {
  switch (kind()) {
    case Case::enum_: {
      const std::string& name = description_.enumSchema()->name();
      return name + " enum (try .ostrel describe enum " + name + ")";
    }
    case Case::message:
      return "message of " + description_.messageSchema()->name() + " schema";
    default:
      return std::string(detail::factsOf(kind()).description);
  }
}

std::map<int64_t, FieldSchema> MessageSchema::fieldsByNumber() const {
  std::map<int64_t, FieldSchema> fields;
  for (const auto& [number, field] : impl_->fieldsByNumber()) fields.emplace(number, field);
  return fields;
}

std::vector<OneofSchema> MessageSchema::allOneofs() const {
  std::vector<OneofSchema> oneofs;
  for (auto& oneof : impl_->allOneofs()) oneofs.emplace_back(std::move(oneof));
  return oneofs;
}

std::optional<FieldSchema> MessageSchema::findFieldNamed(std::string_view name) const {
  try {
    return fieldNamed(name);
  } catch (const SchematizerError& error) {
    if (error.code() == SchematizerError::Code::fieldNotFound) return std::nullopt;
    throw;
  }
}

SchematizedData MessageSchema::buildData(const ValueForField& valueForField) const {
  return impl_->buildData([&](const std::shared_ptr<FieldSchemaDescribing>& field) {
    return valueForField(FieldSchema(field));
  });
}

bool SchemaStoreDescribing::add(const SchemaManifest&) {
  throw SchematizerError::internalError("Unsupported add");
}

namespace {

// Refuses what the imports refuse before a manifest reaches the store, whose invariants would
// otherwise stop the process at the first lookup. A built-in descriptor type defined differently
// is no fault here: the store keeps the built-in definition.
const SchemaManifest& checked(const SchemaManifest& manifest) {
  if (const auto fault = detail::storeFault(manifest)) {
    throw SchemaManifestJSONError::invalidValueType(detail::faultText(fault->first, fault->second));
  }
  return manifest;
}

}  // namespace

SchemaStore::SchemaStore(const SchemaManifest& manifest)
    : impl_(ProtoSchemaStore::make(checked(manifest))) {}

std::optional<MessageSchema> SchemaStore::findMessageSchema(std::string_view name) const {
  if (!impl_->hasMessageSchemaNamed(name)) return std::nullopt;
  return messageSchema(name);
}

std::optional<EnumSchema> SchemaStore::findEnumSchema(std::string_view name) const {
  if (!impl_->hasEnumSchemaNamed(name)) return std::nullopt;
  return enumSchema(name);
}

MessageSchema SchematizedData::messageSchema() const { return MessageSchema(schema_); }

}  // namespace ostrel
