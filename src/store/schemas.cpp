#include "ostrel/store/schemas.hpp"

#include "store/proto_schema_store.hpp"

namespace ostrel {
namespace {

std::string_view scalarDescription(TypeSchema::Case kind) {
  switch (kind) {
    case TypeSchema::Case::int32:
      return "signed integer 32";
    case TypeSchema::Case::uint32:
      return "unsigned integer 32";
    case TypeSchema::Case::sint32:
      return "ZigZag encoded signed integer 32";
    case TypeSchema::Case::fixed32:
      return "fixed unsigned integer 32";
    case TypeSchema::Case::sfixed32:
      return "fixed signed integer 32";
    case TypeSchema::Case::int64:
      return "signed integer 64";
    case TypeSchema::Case::uint64:
      return "unsigned integer 64";
    case TypeSchema::Case::sint64:
      return "ZigZag encoded signed integer 64";
    case TypeSchema::Case::fixed64:
      return "fixed unsigned integer 64";
    case TypeSchema::Case::sfixed64:
      return "fixed signed integer 64";
    case TypeSchema::Case::double_:
      return "double floating point";
    case TypeSchema::Case::float_:
      return "floating point";
    case TypeSchema::Case::bool_:
      return "boolean";
    case TypeSchema::Case::string:
      return "text string";
    case TypeSchema::Case::bytes:
      return "binary data";
    case TypeSchema::Case::enum_:
    case TypeSchema::Case::message:
      break;
  }
  return {};
}

}  // namespace

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
      return std::string(scalarDescription(kind()));
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
  // The internal values borrow from the public ones, so the values of the field being written are
  // kept here until the next field is asked for.
  std::vector<AnyValue> current;
  return impl_->buildData([&](const std::shared_ptr<FieldSchemaDescribing>& field) {
    current = valueForField(FieldSchema(field));
    FieldValues values;
    values.reserve(current.size());
    for (const AnyValue& value : current) values.push_back(value.impl());
    return values;
  });
}

bool SchemaStoreDescribing::add(const SchemaManifest&) {
  throw SchematizerError::internalError("Unsupported add");
}

SchemaStore::SchemaStore(const SchemaManifest& manifest)
    : impl_(ProtoSchemaStore::make(manifest)) {}

MessageSchema SchematizedData::messageSchema() const { return MessageSchema(schema_); }

}  // namespace ostrel
