#include "ostrel/core/describing.hpp"

#include "core/json_text.hpp"

namespace ostrel {
namespace {

constexpr std::string_view kMessageOptions = "google.protobuf.MessageOptions";
constexpr std::string_view kFieldOptions = "google.protobuf.FieldOptions";
constexpr std::string_view kOneofOptions = "google.protobuf.OneofOptions";
constexpr std::string_view kEnumOptions = "google.protobuf.EnumOptions";
constexpr std::string_view kEnumValueOptions = "google.protobuf.EnumValueOptions";

}  // namespace

const std::optional<std::string>& FieldSchemaDescribing::extensionName() const noexcept {
  static const std::optional<std::string> none;
  return none;
}

std::string FieldSchemaDescribing::jsonName() const { return detail::jsonName(name()); }

bool SchemaStoreDescribing::hasMessageOptionsSchema() const {
  return hasMessageSchemaNamed(kMessageOptions);
}
bool SchemaStoreDescribing::hasFieldOptionsSchema() const {
  return hasMessageSchemaNamed(kFieldOptions);
}
bool SchemaStoreDescribing::hasOneofOptionsSchema() const {
  return hasMessageSchemaNamed(kOneofOptions);
}
bool SchemaStoreDescribing::hasEnumOptionsSchema() const {
  return hasMessageSchemaNamed(kEnumOptions);
}
bool SchemaStoreDescribing::hasEnumValueOptionsSchema() const {
  return hasMessageSchemaNamed(kEnumValueOptions);
}

std::shared_ptr<MessageSchemaDescribing> SchemaStoreDescribing::messageOptionsSchema() const {
  return messageSchema(kMessageOptions);
}
std::shared_ptr<MessageSchemaDescribing> SchemaStoreDescribing::fieldOptionsSchema() const {
  return messageSchema(kFieldOptions);
}
std::shared_ptr<MessageSchemaDescribing> SchemaStoreDescribing::oneofOptionsSchema() const {
  return messageSchema(kOneofOptions);
}
std::shared_ptr<MessageSchemaDescribing> SchemaStoreDescribing::enumOptionsSchema() const {
  return messageSchema(kEnumOptions);
}
std::shared_ptr<MessageSchemaDescribing> SchemaStoreDescribing::enumValueOptionsSchema() const {
  return messageSchema(kEnumValueOptions);
}

}  // namespace ostrel
