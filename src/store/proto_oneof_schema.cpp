#include "store/options.hpp"
#include "store/proto_schemas.hpp"

namespace ostrel {

std::shared_ptr<ProtoOneOfSchema> ProtoOneOfSchema::make(
    const OneofManifest& manifest, std::map<std::string, int64_t, std::less<>> fields,
    const SchemaStoreDescribing& store) {
  std::shared_ptr<ProtoOneOfSchema> schema(new ProtoOneOfSchema(manifest.name));
  schema->fieldsMap_ = std::move(fields);
  for (const auto& [fieldName, number] : schema->fieldsMap_) {
    schema->allFieldNames_.insert(fieldName);
    schema->allFieldNumbers_.insert(number);
  }
  schema->options_ = detail::schematizeOptions(manifest.options, store,
                                               &SchemaStoreDescribing::hasOneofOptionsSchema,
                                               &SchemaStoreDescribing::oneofOptionsSchema);
  return schema;
}

const std::string& ProtoOneOfSchema::fieldNameFor(int64_t number) const {
  for (const auto& [fieldName, fieldNumber] : fieldsMap_) {
    if (fieldNumber == number) return fieldName;
  }
  throw SchematizerError::fieldNotFound("One of field with field number: " +
                                        std::to_string(number));
}

int64_t ProtoOneOfSchema::fieldNumberNamed(std::string_view fieldName) const {
  const auto it = fieldsMap_.find(fieldName);
  if (it == fieldsMap_.end()) {
    throw SchematizerError::fieldNotFound("One of property with name: " + std::string(fieldName));
  }
  return it->second;
}

}  // namespace ostrel
