#include "sql/sql_schemas.hpp"

#include "ostrel/manifest/manifest_data.hpp"
#include "ostrel/paths/property_path.hpp"
#include "output/map_entry.hpp"

namespace ostrel::detail {
namespace {

template <typename Records>
void refuseChanges(const Records& registered, const Records& incoming, const char* kind) {
  for (const auto& [name, record] : incoming) {
    const auto found = registered.find(name);
    if (found != registered.end() && !(found->second == record)) {
      throw MergeConflict::conflict(std::string(kind) + " \"" + name +
                                    "\" is already registered with another definition; register "
                                    "a changed definition under a new name");
    }
  }
}

bool addsAnything(const SchemaManifest& registered, const SchemaManifest& incoming) {
  for (const auto& entry : incoming.messages) {
    if (!registered.messages.contains(entry.first)) return true;
  }
  for (const auto& entry : incoming.enums) {
    if (!registered.enums.contains(entry.first)) return true;
  }
  return false;
}

MessageSchema schemaFor(const SqlSchemas& schemas, std::optional<std::string_view> type) {
  return type ? schemas.messageSchema(*type) : schemas.defaultSchema();
}

}  // namespace

SqlSchemas::SqlSchemas(SchemaManifest registered, std::optional<std::string> defaultType)
    : registered_(std::move(registered)), store_(registered_) {
  if (defaultType) setDefaultType(*defaultType);
}

size_t SqlSchemas::add(const SchemaManifest& incoming) {
  refuseChanges(registered_.messages, incoming.messages, "Message type");
  refuseChanges(registered_.enums, incoming.enums, "Enum type");
  // The same definitions again: keep the store, and with it every schema materialised so far.
  if (!addsAnything(registered_, incoming)) return registered_.messages.size();
  SchemaManifest merged = registered_;
  merged.merge(incoming, MergePolicy::requireEqual);
  SchemaStore store(merged);
  registered_ = std::move(merged);
  store_ = std::move(store);
  ++generation_;
  return registered_.messages.size();
}

size_t SqlSchemas::addDescriptorSet(ByteView bytes) {
  return add(schemaManifestFromDescriptorSet(bytes));
}

size_t SqlSchemas::addManifestJSON(std::string_view json) {
  return add(schemaManifestFromJSON(json));
}

size_t SqlSchemas::addProtoText(std::string_view text) {
  return add(schemaManifestFromProtoText(text));
}

void SqlSchemas::setDefaultType(std::string_view name) {
  store_.messageSchema(name);
  defaultType_ = std::string(name);
  ++generation_;
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
  const std::vector<PropertyPathElement> elements = PropertyPathUtil::parse(path);
  const PropertyPathElement& last = elements.back();
  std::optional<FieldPathAndType> container;
  std::shared_ptr<MessageSchemaDescribing> holder = schema.impl();
  if (elements.size() > 1) {
    // After a successful parse the last "." separates the holder's path from the field's name:
    // names and indices hold no dots.
    const std::string_view holderPath = path.substr(0, path.rfind('.'));
    container = resolvePropertyPath(schema, holderPath);
    if (container->type.kind() != TypeSchemaDescription::Case::message) {
      throw SchematizerError::nonMessageTypeInKeypath();
    }
    holder = container->type.messageSchema();
  }
  std::shared_ptr<FieldSchemaDescribing> field = holder->fieldNamed(last.propertyName);
  if (last.index || !field->isRepeated()) {
    std::string text = "\"";
    text += path;
    text += "\" is not a repeated field: name one without an index";
    throw SchematizerError::unexpectedType(text);
  }
  const FieldSchemaDescribing* mapKey = nullptr;
  const FieldSchemaDescribing* mapValue = nullptr;
  const TypeSchemaDescription& elementType = field->type();
  if (elementType.kind() == TypeSchemaDescription::Case::message) {
    if (const auto entry = mapEntryFields(*elementType.messageSchema())) {
      mapKey = entry->key;
      mapValue = entry->value;
    }
  }
  return std::make_unique<ResolvedRepeated>(
      ResolvedRepeated{schemas.store(), schema.name(), std::string(path), schemas.generation(),
                       std::move(container), std::move(field), mapKey, mapValue});
}

std::optional<Schematizer::RepeatableFieldIterator> iterateElements(
    ByteView record, const ResolvedRepeated& repeated) {
  ByteView holder = record;
  std::optional<detail::AnyValueImpl> found;
  if (repeated.container) {
    Reader reader(record);
    found = readValue(reader, *repeated.container);
    if (!found) return std::nullopt;
    holder = found->messageValue().bytes();
  }
  return Schematizer::RepeatableFieldIterator(holder, repeated.field->fieldNumber(),
                                              TypeSchema(repeated.field->type()));
}

}  // namespace ostrel::detail
