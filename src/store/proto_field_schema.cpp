#include "store/options.hpp"
#include "store/proto_schemas.hpp"

namespace ostrel {

std::shared_ptr<ProtoFieldSchema> ProtoFieldSchema::make(
    std::string name, const FieldManifest& manifest,
    const std::shared_ptr<SchemaStoreDescribing>& store) {
  return std::shared_ptr<ProtoFieldSchema>(new ProtoFieldSchema(std::move(name), manifest, store));
}

ProtoFieldSchema::ProtoFieldSchema(std::string name, const FieldManifest& manifest,
                                   const std::shared_ptr<SchemaStoreDescribing>& store)
    : ProtoBaseSchema(std::move(name)),
      info_(Config{manifest.type, manifest.typeName, store}),
      isRepeated_(manifest.isRepeated),
      fieldNumber_(manifest.fieldNumber),
      options_(detail::schematizeOptions(manifest.options, *store,
                                         &SchemaStoreDescribing::hasFieldOptionsSchema,
                                         &SchemaStoreDescribing::fieldOptionsSchema)),
      oneofIndex_(manifest.oneofIndex),
      manifestType_(manifest.type),
      typeName_(manifest.typeName),
      extensionName_(manifest.extensionName),
      jsonName_(manifest.jsonName),
      delimited_(manifest.delimited),
      explicitPresence_(manifest.explicitPresence) {}

std::string ProtoFieldSchema::jsonName() const {
  return jsonName_ ? *jsonName_ : FieldSchemaDescribing::jsonName();
}

void ProtoFieldSchema::releaseType() const {
  if (resolvedType()) info_ = Config{manifestType_, typeName_, {}};
}

const TypeSchemaDescription& ProtoFieldSchema::type() const {
  if (const auto* resolved = std::get_if<TypeSchemaDescription>(&info_)) [[likely]] {
    return *resolved;
  }
  const Config& config = std::get<Config>(info_);
  const std::shared_ptr<SchemaStoreDescribing> store = config.store.lock();
  if (!store) throw SchematizerError::internalError("Store is destroyed");

  TypeSchemaDescription resolved = [&] {
    if (const auto scalar = TypeSchemaDescription::scalarCaseOf(config.type)) {
      return TypeSchemaDescription::scalar(*scalar);
    }
    // Type names are used exactly as stored: no leading-dot handling, no relative-name search.
    if (config.type == TypeManifest::message) {
      if (!config.typeName) throw SchematizerError::missingFieldSchemaName();
      return TypeSchemaDescription::messageType(store->messageSchema(*config.typeName));
    }
    if (!config.typeName) throw SchematizerError::missingFieldEnumName();
    return TypeSchemaDescription::enumType(store->enumSchema(*config.typeName));
  }();
  info_ = std::move(resolved);
  return std::get<TypeSchemaDescription>(info_);
}

}  // namespace ostrel
