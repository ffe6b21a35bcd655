#include "store/options.hpp"
#include "store/proto_schemas.hpp"

namespace ostrel {

std::shared_ptr<ProtoEnumSchema> ProtoEnumSchema::make(std::string name,
                                                       const EnumManifest& manifest,
                                                       const SchemaStoreDescribing& store) {
  std::shared_ptr<ProtoEnumSchema> schema(new ProtoEnumSchema(std::move(name)));
  schema->allValues_ = manifest.values;
  for (const auto& [valueName, number] : schema->allValues_) {
    schema->valueSet_.insert(number);
    schema->namesByNumber_.try_emplace(number, &valueName);
  }
  schema->options_ = detail::schematizeOptions(manifest.options, store,
                                               &SchemaStoreDescribing::hasEnumOptionsSchema,
                                               &SchemaStoreDescribing::enumOptionsSchema);
  if (!manifest.valueOptions.empty() && store.hasEnumValueOptionsSchema()) {
    const auto optionsSchema = store.enumValueOptionsSchema();
    for (const auto& [number, bytes] : manifest.valueOptions) {
      schema->valueOptions_.emplace(number, optionsSchema->schematizedData(bytes));
    }
  }
  return schema;
}

int64_t ProtoEnumSchema::valueNamed(std::string_view valueName) const {
  const auto it = allValues_.find(valueName);
  if (it == allValues_.end()) {
    throw SchematizerError::enumValueNotFound("Enum: " + name() + ", " + std::string(valueName) +
                                              " value");
  }
  return it->second;
}

const std::string& ProtoEnumSchema::valueNameFor(int64_t number) const {
  if (const std::string* found = findValueNameFor(number)) return *found;
  throw SchematizerError::enumValueNotFound("Enum: " + name() + ", " + std::to_string(number) +
                                            " value");
}

const std::string* ProtoEnumSchema::findValueNameFor(int64_t number) const noexcept {
  const auto it = namesByNumber_.find(number);
  return it == namesByNumber_.end() ? nullptr : it->second;
}

}  // namespace ostrel
