#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "core/json_text.hpp"
#include "core/nesting.hpp"
#include "interchange/descriptor_import.hpp"
#include "manifest/manifest_check.hpp"
#include "ostrel/manifest/manifest_data.hpp"
#include "ostrel/wire/reader.hpp"
#include "store/proto_schema_store.hpp"
#include "wire/field_walk.hpp"

namespace ostrel {
namespace {

using Case = detail::AnyValueImpl::Case;
using detail::NamePath;

// FieldDescriptorProto.json_name. The built-in descriptor schema leaves it out (its field set is
// fixed), so it is read from the field descriptor's bytes directly.
constexpr int64_t kJsonNameNumber = 10;
// FileDescriptorProto.options and syntax, which the built-in schema leaves out for the same reason.
constexpr int64_t kFileOptionsNumber = 8;
constexpr int64_t kSyntaxNumber = 12;

// The payload of the last occurrence of length-delimited field `number` in a descriptor's bytes,
// if any.
std::optional<ByteView> lastDelimited(ByteView descriptor, int64_t number) {
  std::optional<ByteView> found;
  Reader reader(descriptor);
  while (reader.hasMoreFields()) {
    const FieldTag tag = reader.readTag();
    if (tag.fieldNumber() == number && tag.wireType() == ProtoWireType::lengthDelimited) {
      found = reader.readLengthDelimited();
    } else {
      reader.skipField(tag);
    }
  }
  return found;
}

std::optional<std::string> declaredJsonName(ByteView descriptor) {
  const std::optional<ByteView> found = lastDelimited(descriptor, kJsonNameNumber);
  return found ? std::optional(std::string(asText(*found))) : std::nullopt;
}

[[noreturn]] void invalidValue(const char* text) {
  throw SchemaManifestDSCError::invalidValueType(text);
}

[[noreturn]] void invalidDescriptor(const char* text) {
  throw SchemaManifestDSCError::invalidDescriptor(text);
}

bool isMessage(const detail::AnyValueImpl& value) { return value.kind() == Case::message; }
bool isText(const detail::AnyValueImpl& value) { return value.kind() == Case::string; }
bool isInt32(const detail::AnyValueImpl& value) { return value.kind() == Case::int32; }
bool isEnum(const detail::AnyValueImpl& value) { return value.kind() == Case::enum_; }

// The raw bytes of an options message, exactly as they stand in the input.
Bytes rawBytes(const detail::AnyValueImpl& message) {
  return toBytes(message.messageValue().bytes());
}

// Visits the present fields of a message value by descriptor field name, in byte order.
template <typename Visit>
void walk(const detail::AnyValueImpl& message, Visit&& visit) {
  forEachPresentField(
      message.messageValue(),
      [&](const std::shared_ptr<FieldSchemaDescribing>& field, detail::AnyValueImpl&& value) {
        visit(field->name(), std::move(value));
      });
}

// Reads the descriptors of one set into one manifest. Descriptor field names are matched as text,
// so any schema with descriptor.proto's field names works; a value of another kind than
// descriptor.proto declares is reported by the property it was found in.
class DescriptorSetReader {
 public:
  explicit DescriptorSetReader(const DescriptorImportOptions& options) : groups_(options) {}

  SchemaManifest read(const SchematizedDataDescribing& set) {
    forEachPresentField(set, [&](const std::shared_ptr<FieldSchemaDescribing>& field,
                                 detail::AnyValueImpl&& value) {
      if (field->name() == "file") readFile(value);
    });
    // Checked once the whole set is read: extensions add fields to messages of other files.
    if (const auto fault = detail::fieldNumberFault(manifest_)) {
      throw SchemaManifestDSCError::invalidValueType(
          detail::faultText(fault->first, fault->second));
    }
    if (const auto change = detail::builtinTypeChange(manifest_)) {
      throw MergeConflict::conflict(change->second);
    }
    enumClosedness_.apply(manifest_);
    detail::keepMapsLengthPrefixed(manifest_);
    return std::move(manifest_);
  }

 private:
  void readFile(const detail::AnyValueImpl& file) {
    if (!isMessage(file)) invalidValue("FileDescriptorSet message type is expected");
    // The package comes first in serialized descriptors, but it is read on its own so that the
    // types of the file get it wherever it stands.
    NamePath path;
    bool packageSeen = false;
    walk(file, [&](const std::string& property, detail::AnyValueImpl&& value) {
      if (property != "package" || packageSeen) return;
      packageSeen = true;
      if (isText(value)) path = detail::splitName(value.stringValue());
    });
    const ByteView bytes = file.messageValue().bytes();
    const std::optional<ByteView> syntax = lastDelimited(bytes, kSyntaxNumber);
    syntax_ = syntax ? std::string(asText(*syntax)) : std::string();
    RawOptions options;
    if (auto raw = lastDelimited(bytes, kFileOptionsNumber)) options = toBytes(*raw);
    features_ =
        detail::withFeatures(detail::syntaxFeatures(syntax_), options, detail::kFileFeaturesNumber);
    walk(file, [&](const std::string& property, detail::AnyValueImpl&& value) {
      if (property == "message_type") {
        readMessage(path, value, 1);
      } else if (property == "enum_type") {
        readEnum(path, value);
      } else if (property == "extension") {
        readExtension(path, value);
      }
    });
  }

  void readMessage(const NamePath& path, const detail::AnyValueImpl& value, int depth) {
    if (!isMessage(value)) invalidValue("Message descriptor property");
    if (depth > detail::kMaxMessageNesting) throw SchemaManifestDSCError::cannotLoadDescriptor();
    std::string name;
    MessageManifest message;
    // Nested types take the name read so far: "name" is field 1, so it precedes them in any
    // serialized descriptor.
    walk(value, [&](const std::string& property, detail::AnyValueImpl&& item) {
      if (property == "name") {
        if (!isText(item)) invalidValue("Message name");
        name = std::move(item.stringValue());
      } else if (property == "options") {
        if (!isMessage(item)) invalidValue("Invalid options");
        message.options = rawBytes(item);
      } else if (property == "field") {
        if (auto field = readField(detail::nestedPath(path, name), item)) {
          if (message.fields.contains(field->first)) {
            throw SchemaManifestDSCError::invalidValueType(detail::faultText(
                detail::fullName(path, name), detail::repeatedFieldName(field->first)));
          }
          message.fields.emplace(std::move(field->first), std::move(field->second));
        }
      } else if (property == "oneof_decl") {
        message.oneofs.push_back(readOneof(item));
      } else if (property == "nested_type") {
        readMessage(detail::nestedPath(path, name), item, depth + 1);
      } else if (property == "enum_type") {
        readEnum(detail::nestedPath(path, name), item);
      } else if (property == "extension") {
        readExtension(detail::nestedPath(path, name), item);
      }
    });
    if (name.empty()) invalidDescriptor("Fields descriptor is incomplete");
    std::string full = detail::fullName(path, name);
    if (const std::optional<detail::MessageFault> fault = detail::messageFault(message)) {
      throw SchemaManifestDSCError::invalidValueType(detail::faultText(full, *fault));
    }
    detail::addMessage(manifest_, full, std::move(message));
  }

  void readEnum(const NamePath& path, const detail::AnyValueImpl& value) {
    if (!isMessage(value)) invalidValue("Enum descriptor property");
    std::optional<std::string> name;
    std::vector<std::pair<std::string, int64_t>> values;
    EnumManifest enumManifest;
    walk(value, [&](const std::string& property, detail::AnyValueImpl&& item) {
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
    if (auto text = detail::repeatedEnumValueText(detail::fullName(path, *name), values)) {
      throw SchemaManifestDSCError::invalidValueType(std::move(*text));
    }
    enumManifest.values = detail::uniqueEnumValues(std::move(values));
    const std::string full = detail::fullName(path, *name);
    enumClosedness_.addEnum(full, features_, enumManifest.options);
    manifest_.enums.insert_or_assign(full, std::move(enumManifest));
  }

  static std::pair<std::string, int64_t> readEnumValue(const detail::AnyValueImpl& value,
                                                       std::map<int64_t, Bytes>& valueOptions) {
    std::optional<std::string> name;
    std::optional<int32_t> number;
    std::optional<Bytes> options;
    walk(value, [&](const std::string& property, detail::AnyValueImpl&& item) {
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

  // The field's name and record; nothing for a group field left out. `scope` is the path of the
  // message (or, for an extension, of the scope) the field is declared in.
  std::optional<std::pair<std::string, FieldManifest>> readField(
      const NamePath& scope, const detail::AnyValueImpl& value) {
    if (!isMessage(value)) invalidValue("Field descriptor");
    std::optional<std::string> name;
    std::optional<int32_t> number;
    std::optional<TypeManifest> type;
    bool group = false;
    FieldManifest field;
    walk(value, [&](const std::string& property, detail::AnyValueImpl&& item) {
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
        type = manifestType(item.enumValue(), group);
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
    if (group && name && number &&
        groups_.handling(syntax_) == DescriptorImportOptions::Groups::skip) {
      groups_.leaveOut(detail::fullName(scope, *name));
      return std::nullopt;
    }
    if (!type || !name || !number) invalidDescriptor("Enum value is missing");
    field.type = *type;
    field.fieldNumber = *number;
    detail::applyFeatures(
        field, detail::withFeatures(features_, field.options, detail::kFieldFeaturesNumber), group);
    enumClosedness_.addField(detail::fullName(scope, *name), field, syntax_);
    if (auto json = declaredJsonName(value.messageValue().bytes());
        json && *json != detail::jsonName(*name)) {
      field.jsonName = std::move(json);
    }
    return std::pair(std::move(*name), std::move(field));
  }

  // The field type by the name of the enum value. A number the Type enum does not know has no
  // name; it is reported by its number instead. A group that is not refused sets `group` and is a
  // message.
  std::optional<TypeManifest> manifestType(const detail::EnumValueImpl& value, bool& group) const {
    const int64_t number = value.number();
    const std::string* name = value.type ? value.type->findValueNameFor(number) : nullptr;
    if (!name) {
      throw SchemaManifestDSCError::invalidValueType("Unknown type: " + std::to_string(number));
    }
    const detail::DescriptorType* row = detail::descriptorTypeNamed(*name);
    if (row && row->number == detail::kDescriptorGroupType) {
      if (groups_.handling(syntax_) == DescriptorImportOptions::Groups::refuse) {
        invalidValue("Group is deprecated");
      }
      group = true;
      return TypeManifest::message;
    }
    if (!row || !row->manifestType) {
      throw SchemaManifestDSCError::invalidValueType("Unknown type: " + *name);
    }
    return *row->manifestType;
  }

  static OneofManifest readOneof(const detail::AnyValueImpl& value) {
    if (!isMessage(value)) invalidValue("Oneof descriptor");
    // Name and options are looked up as single values: the first occurrence counts, and options
    // of another kind than a message are passed over.
    std::optional<detail::AnyValueImpl> name;
    std::optional<detail::AnyValueImpl> options;
    walk(value, [&](const std::string& property, detail::AnyValueImpl&& item) {
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

  void readExtension(const NamePath& scope, const detail::AnyValueImpl& value) {
    if (!isMessage(value)) invalidValue("Message descriptor property");
    std::optional<detail::AnyValueImpl> extendee;
    walk(value, [&](const std::string& property, detail::AnyValueImpl&& item) {
      if (property == "extendee" && !extendee) extendee.emplace(std::move(item));
    });
    if (!extendee || !isText(*extendee)) invalidValue("Failed to get extendee message name");
    const std::string target = detail::normalizedTypeName(extendee->stringValue());
    auto field = readField(scope, value);
    if (field) field->second.implicitPresence = false;
    if (!field) {
      // A group extension left out still names its extendee, as a present one would.
      detail::extendeeEntry(manifest_, target);
      return;
    }
    extensions_.add(manifest_, target, detail::fullName(scope, field->first), field->first,
                    std::move(field->second));
  }

  SchemaManifest manifest_;
  detail::ExtensionFields extensions_;
  detail::GroupFields groups_;
  detail::EnumClosedness enumClosedness_;
  // Of the file being read.
  std::string syntax_;
  detail::Features features_;
};

}  // namespace

SchemaManifest schemaManifestFromDescriptorSet(const SchematizedDataDescribing& descriptorSet,
                                               const DescriptorImportOptions& options) {
  return DescriptorSetReader(options).read(descriptorSet);
}

SchemaManifest schemaManifestFromDescriptorSet(ByteView bytes,
                                               const DescriptorImportOptions& options) {
  // A store of its own per import: the descriptor schemas are materialised in it as the walk
  // reaches them, and go with it.
  const std::shared_ptr<ProtoSchemaStore> store = ProtoSchemaStore::make(SchemaManifest{});
  const std::shared_ptr<MessageSchemaDescribing> set =
      store->messageSchema("google.protobuf.FileDescriptorSet");
  return schemaManifestFromDescriptorSet(set->unsafeSchematizedData(bytes), options);
}

}  // namespace ostrel
