#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "manifest/descriptor_import.hpp"
#include "ostrel/manifest/descriptor_set.hpp"
#include "ostrel/store/proto_schema_store.hpp"
#include "ostrel/wire/field_walk.hpp"

namespace ostrel {
namespace {

using Case = AnyValueImpl::Case;
using detail::NamePath;

// libprotobuf refuses to parse messages nested deeper than 100; a descriptor set it can read never
// comes near this, and the limit keeps hostile input from exhausting the stack.
constexpr int kMaxMessageDepth = 100;

[[noreturn]] void invalidValue(const char* text) {
  throw SchemaManifestDSCError::invalidValueType(text);
}

[[noreturn]] void invalidDescriptor(const char* text) {
  throw SchemaManifestDSCError::invalidDescriptor(text);
}

bool isMessage(const AnyValueImpl& value) { return value.kind() == Case::message; }
bool isText(const AnyValueImpl& value) { return value.kind() == Case::string; }
bool isInt32(const AnyValueImpl& value) { return value.kind() == Case::int32; }
bool isEnum(const AnyValueImpl& value) { return value.kind() == Case::enum_; }

// The raw bytes of an options message, exactly as they stand in the input.
Bytes rawBytes(const AnyValueImpl& message) { return toBytes(message.messageValue().bytes()); }

// Visits the present fields of a message value by descriptor field name, in byte order.
template <typename Visit>
void walk(const AnyValueImpl& message, Visit&& visit) {
  forEachPresentField(message.messageValue(),
                      [&](const std::shared_ptr<FieldSchemaDescribing>& field,
                          AnyValueImpl&& value) { visit(field->name(), std::move(value)); });
}

// Reads the descriptors of one set into one manifest. Descriptor field names are matched as text,
// so any schema with descriptor.proto's field names works; a value of another kind than
// descriptor.proto declares is reported by the property it was found in.
class DescriptorSetReader {
 public:
  SchemaManifest read(const SchematizedDataDescribing& set) {
    forEachPresentField(
        set, [&](const std::shared_ptr<FieldSchemaDescribing>& field, AnyValueImpl&& value) {
          if (field->name() == "file") readFile(value);
        });
    return std::move(manifest_);
  }

 private:
  void readFile(const AnyValueImpl& file) {
    if (!isMessage(file)) invalidValue("FileDescriptorSet message type is expected");
    // The package comes first in serialized descriptors, but it is read on its own so that the
    // types of the file get it wherever it stands.
    NamePath path;
    bool packageSeen = false;
    walk(file, [&](const std::string& property, AnyValueImpl&& value) {
      if (property != "package" || packageSeen) return;
      packageSeen = true;
      if (isText(value)) path = detail::splitName(value.stringValue());
    });
    walk(file, [&](const std::string& property, AnyValueImpl&& value) {
      if (property == "message_type") {
        readMessage(path, value, 1);
      } else if (property == "enum_type") {
        readEnum(path, value);
      } else if (property == "extension") {
        readExtension(value);
      }
    });
  }

  void readMessage(const NamePath& path, const AnyValueImpl& value, int depth) {
    if (!isMessage(value)) invalidValue("Message descriptor property");
    if (depth > kMaxMessageDepth) throw SchemaManifestDSCError::cannotLoadDescriptor();
    std::string name;
    MessageManifest message;
    // Nested types take the name read so far: "name" is field 1, so it precedes them in any
    // serialized descriptor.
    walk(value, [&](const std::string& property, AnyValueImpl&& item) {
      if (property == "name") {
        if (!isText(item)) invalidValue("Message name");
        name = std::move(item.stringValue());
      } else if (property == "options") {
        if (!isMessage(item)) invalidValue("Invalid options");
        message.options = rawBytes(item);
      } else if (property == "field") {
        readField(item, message.fields);
      } else if (property == "oneof_decl") {
        message.oneofs.push_back(readOneof(item));
      } else if (property == "nested_type") {
        readMessage(detail::nestedPath(path, name), item, depth + 1);
      } else if (property == "enum_type") {
        readEnum(detail::nestedPath(path, name), item);
      } else if (property == "extension") {
        readExtension(item);
      }
    });
    if (name.empty()) invalidDescriptor("Fields descriptor is incomplete");
    detail::addMessage(manifest_, detail::fullName(path, name), std::move(message));
  }

  void readEnum(const NamePath& path, const AnyValueImpl& value) {
    if (!isMessage(value)) invalidValue("Enum descriptor property");
    std::optional<std::string> name;
    std::vector<std::pair<std::string, int64_t>> values;
    EnumManifest enumManifest;
    walk(value, [&](const std::string& property, AnyValueImpl&& item) {
      if (property == "name") {
        if (!isText(item)) invalidValue("Enum name");
        name = std::move(item.stringValue());
      } else if (property == "options") {
        if (!isMessage(item)) invalidValue("Enum options");
        enumManifest.options = rawBytes(item);
      } else if (property == "value") {
        if (!isMessage(item)) invalidValue("Enum name");
        values.push_back(readEnumValue(item, enumManifest.valueOptions));
      }
    });
    if (!name) invalidDescriptor("Enum descriptor is incomplete");
    enumManifest.values = detail::uniqueEnumValues(std::move(values));
    manifest_.enums.insert_or_assign(detail::fullName(path, *name), std::move(enumManifest));
  }

  static std::pair<std::string, int64_t> readEnumValue(const AnyValueImpl& value,
                                                       std::map<int64_t, Bytes>& valueOptions) {
    std::optional<std::string> name;
    std::optional<int32_t> number;
    std::optional<Bytes> options;
    walk(value, [&](const std::string& property, AnyValueImpl&& item) {
      if (property == "name") {
        if (!isText(item)) invalidValue("Enum value name");
        name = std::move(item.stringValue());
      } else if (property == "number") {
        if (!isInt32(item)) invalidValue("Enum value name");
        number = item.int32Value();
      } else if (property == "options") {
        if (!isMessage(item)) invalidValue("Enum value options");
        options = rawBytes(item);
      }
    });
    if (!name || name->empty() || !number) invalidDescriptor("Enum value is missing");
    if (options) valueOptions.insert_or_assign(*number, std::move(*options));
    return {std::move(*name), *number};
  }

  static void readField(const AnyValueImpl& value,
                        std::map<std::string, FieldManifest, std::less<>>& fields) {
    if (!isMessage(value)) invalidValue("Field descriptor");
    std::optional<std::string> name;
    std::optional<int32_t> number;
    std::optional<TypeManifest> type;
    FieldManifest field;
    walk(value, [&](const std::string& property, AnyValueImpl&& item) {
      if (property == "name") {
        if (!isText(item)) invalidValue("Field name");
        name = std::move(item.stringValue());
      } else if (property == "number") {
        if (!isInt32(item)) invalidValue("Field number");
        number = item.int32Value();
      } else if (property == "options") {
        if (!isMessage(item)) invalidValue("Field option");
        field.options = rawBytes(item);
      } else if (property == "type") {
        if (!isEnum(item)) invalidValue("Field type");
        type = manifestType(item.enumValue());
      } else if (property == "type_name") {
        if (!isText(item)) invalidValue("Field type name");
        field.typeName = detail::normalizedTypeName(item.stringValue());
      } else if (property == "label") {
        if (!isEnum(item)) invalidValue("Field type name");
        field.isRepeated = item.enumValue().number() == detail::kDescriptorRepeatedLabel;
      } else if (property == "oneof_index") {
        if (!isInt32(item)) invalidValue("Oneof index");
        field.oneofIndex = item.int32Value();
      }
    });
    if (!type || !name || !number) invalidDescriptor("Enum value is missing");
    field.type = *type;
    field.fieldNumber = *number;
    fields.insert_or_assign(std::move(*name), std::move(field));
  }

  // The field type by the name of the enum value. A number the Type enum does not know has no
  // name; it is reported by its number instead.
  static TypeManifest manifestType(const EnumValueImpl& value) {
    const int64_t number = value.number();
    const std::string* name = value.type ? value.type->findValueNameFor(number) : nullptr;
    if (!name) {
      throw SchemaManifestDSCError::invalidValueType("Unknown type: " + std::to_string(number));
    }
    const detail::DescriptorType* row = detail::descriptorTypeNamed(*name);
    if (row && row->number == detail::kDescriptorGroupType) invalidValue("Group is deprecated");
    if (!row || !row->manifestType) {
      throw SchemaManifestDSCError::invalidValueType("Unknown type: " + *name);
    }
    return *row->manifestType;
  }

  static OneofManifest readOneof(const AnyValueImpl& value) {
    if (!isMessage(value)) invalidValue("Oneof descriptor");
    // Name and options are looked up as single values: the first occurrence counts, and options
    // of another kind than a message are passed over.
    std::optional<AnyValueImpl> name;
    std::optional<AnyValueImpl> options;
    walk(value, [&](const std::string& property, AnyValueImpl&& item) {
      if (property == "name" && !name) {
        name.emplace(std::move(item));
      } else if (property == "options" && !options) {
        options.emplace(std::move(item));
      }
    });
    if (!name || !isText(*name)) invalidValue("Enum name");
    OneofManifest oneof{.name = std::move(name->stringValue())};
    if (options && isMessage(*options)) oneof.options = rawBytes(*options);
    return oneof;
  }

  void readExtension(const AnyValueImpl& value) {
    if (!isMessage(value)) invalidValue("Message descriptor property");
    std::optional<AnyValueImpl> extendee;
    walk(value, [&](const std::string& property, AnyValueImpl&& item) {
      if (property == "extendee" && !extendee) extendee.emplace(std::move(item));
    });
    if (!extendee || !isText(*extendee)) invalidValue("Failed to get extendee message name");
    const std::string target = detail::normalizedTypeName(extendee->stringValue());
    readField(value, detail::extendeeEntry(manifest_, target).fields);
  }

  SchemaManifest manifest_;
};

}  // namespace

SchemaManifest schemaManifestFromDescriptorSet(const SchematizedDataDescribing& descriptorSet) {
  return DescriptorSetReader().read(descriptorSet);
}

SchemaManifest schemaManifestFromDescriptorSet(ByteView bytes) {
  // A store of its own per import: stores are not shared between threads, and the descriptor
  // schemas are materialised in it as the walk reaches them.
  const std::shared_ptr<ProtoSchemaStore> store = ProtoSchemaStore::make(SchemaManifest{});
  const std::shared_ptr<MessageSchemaDescribing> set =
      store->messageSchema("google.protobuf.FileDescriptorSet");
  return schemaManifestFromDescriptorSet(set->unsafeSchematizedData(bytes));
}

}  // namespace ostrel
