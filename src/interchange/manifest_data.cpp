#include "ostrel/manifest/manifest_data.hpp"

#include <memory>
#include <string>

#include "core/field_type_facts.hpp"
#include "store/proto_schema_store.hpp"

namespace ostrel {
namespace {

RawOptions rawOptions(const std::optional<SchematizedData>& options) {
  if (!options) return std::nullopt;
  return options->data();
}

std::map<int64_t, Bytes> rawValueOptions(const std::map<int64_t, SchematizedData>& options) {
  std::map<int64_t, Bytes> raw;
  for (const auto& [number, data] : options) raw.emplace(number, data.data());
  return raw;
}

TypeManifest manifestTypeOf(TypeSchemaDescription::Case kind) {
  return detail::factsOf(kind).manifestType;
}

FieldManifest fieldManifestOf(const FieldSchemaDescribing& field) {
  const TypeSchemaDescription& type = field.type();
  FieldManifest manifest{.type = manifestTypeOf(type.kind()),
                         .fieldNumber = field.fieldNumber(),
                         .isRepeated = field.isRepeated(),
                         .oneofIndex = field.oneofIndex(),
                         .options = rawOptions(field.options()),
                         .extensionName = field.extensionName(),
                         .implicitPresence = field.hasImplicitPresence(),
                         .delimited = field.isDelimited(),
                         .packed = field.isPacked(),
                         .closedEnum = field.hasClosedEnum()};
  if (type.kind() == TypeSchemaDescription::Case::message) {
    manifest.typeName = type.messageSchema()->name();
  } else if (type.kind() == TypeSchemaDescription::Case::enum_) {
    manifest.typeName = type.enumSchema()->name();
  }
  return manifest;
}

MessageManifest messageManifestOf(const MessageSchemaDescribing& schema) {
  MessageManifest manifest;
  // By name rather than fieldsByNumber(): a message may hold two fields of one number, and the
  // manifest keeps both.
  for (const std::string& name : schema.allFieldNames()) {
    manifest.fields.emplace(name, fieldManifestOf(*schema.fieldNamed(name)));
  }
  for (const auto& oneof : schema.allOneofs()) {
    manifest.oneofs.push_back({.name = oneof->name(), .options = rawOptions(oneof->options())});
  }
  manifest.options = rawOptions(schema.options());
  return manifest;
}

EnumManifest enumManifestOf(const EnumSchemaDescribing& schema) {
  EnumManifest manifest;
  manifest.values = schema.allValues();
  manifest.options = rawOptions(schema.options());
  manifest.valueOptions = rawValueOptions(schema.valueOptions());
  return manifest;
}

}  // namespace

SchemaManifest schemaManifestFromData(const SchemaManifestData& data) {
  switch (data.type) {
    case SchemaManifestType::jsonProto:
      return schemaManifestFromJSON(asText(data.data));
    case SchemaManifestType::dscProto:
      return schemaManifestFromDescriptorSet(ByteView(data.data));
  }
  throw SchematizerError::internalError("Unsupported schema manifest type");
}

SchemaManifest fullManifest(const SchemaStore& store) {
  const SchemaStoreDescribing& impl = *store.impl();
  SchemaManifest manifest;
  for (const std::string& name : impl.messageSchemaNames()) {
    manifest.messages.emplace(name, messageManifestOf(*impl.messageSchema(name)));
  }
  for (const std::string& name : impl.enumSchemaNames()) {
    manifest.enums.emplace(name, enumManifestOf(*impl.enumSchema(name)));
  }
  return manifest;
}

SchemaManifest manifestEngagementsOnly(const SchemaStore& store) {
  return store.impl()->engagedManifest();
}

SchemaManifest SchemaStoreDescribing::engagedManifest() const {
  throw SchematizerError::internalError("Unsupported manifestEngagementsOnly");
}

SchemaManifest ProtoSchemaStore::engagedManifest() const {
  SchemaManifest manifest;
  for (const auto& [name, slot] : messageSchemas()) {
    if (slot.materialised()) manifest.messages.emplace(name, slot.schema()->manifest());
  }
  for (const auto& [name, slot] : enumSchemas()) {
    if (!slot.materialised()) continue;
    const ProtoEnumSchema& schema = *slot.schema();
    manifest.enums.emplace(name,
                           EnumManifest{.values = schema.allValues(),
                                        .options = rawOptions(schema.options()),
                                        .valueOptions = rawValueOptions(schema.valueOptions())});
  }
  return manifest;
}

}  // namespace ostrel
