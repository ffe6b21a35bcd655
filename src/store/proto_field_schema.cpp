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
      store_(store),
      implicitPresence_(manifest.implicitPresence),
      delimited_(manifest.delimited),
      packed_(manifest.packed),
      closedEnum_(manifest.closedEnum) {}

ProtoFieldSchema::~ProtoFieldSchema() { delete resolved_.load(std::memory_order_relaxed); }

std::string ProtoFieldSchema::jsonName() const {
  return jsonName_ ? *jsonName_ : FieldSchemaDescribing::jsonName();
}

void ProtoFieldSchema::releaseType() const {
  // The store is going, so resolving again reports it destroyed.
  delete resolved_.exchange(nullptr, std::memory_order_acq_rel);
}

const TypeSchemaDescription& ProtoFieldSchema::resolve() const {
  const std::shared_ptr<SchemaStoreDescribing> store = store_.lock();
  if (!store) throw SchematizerError::internalError("Store is destroyed");

  auto resolved = std::make_unique<const TypeSchemaDescription>([&] {
    if (const auto scalar = TypeSchemaDescription::scalarCaseOf(manifestType_)) {
      return TypeSchemaDescription::scalar(*scalar);
    }
    // Type names are used exactly as stored: no leading-dot handling, no relative-name search.
    if (manifestType_ == TypeManifest::message) {
      if (!typeName_) throw SchematizerError::missingFieldSchemaName();
      return TypeSchemaDescription::messageType(store->messageSchema(*typeName_));
    }
    if (!typeName_) throw SchematizerError::missingFieldEnumName();
    return TypeSchemaDescription::enumType(store->enumSchema(*typeName_));
  }());
  // The store hands every thread the same schema, so racing resolutions agree; the first to
  // publish wins and the others drop their copy.
  const TypeSchemaDescription* expected = nullptr;
  if (resolved_.compare_exchange_strong(expected, resolved.get(), std::memory_order_acq_rel,
                                        std::memory_order_acquire)) {
    return *resolved.release();
  }
  return *expected;
}

}  // namespace ostrel
