#include <algorithm>
#include <cstdint>
#include <limits>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "interchange/descriptor_import.hpp"
#include "ostrel/manifest/manifest_data.hpp"
#include "store/proto_schema_store.hpp"

namespace ostrel {
namespace {

// The values of one descriptor message, by descriptor field name.
using Values = std::map<std::string, std::vector<detail::AnyValueImpl>, std::less<>>;

// A number as an int32 value when it fits; otherwise as an int64 value, which the writer refuses
// for the int32 descriptor fields with SerializationError::invalidIntType.
detail::AnyValueImpl int32Value(int64_t number) {
  if (number >= std::numeric_limits<int32_t>::min() &&
      number <= std::numeric_limits<int32_t>::max()) {
    return detail::AnyValueImpl::int32(static_cast<int32_t>(number));
  }
  return detail::AnyValueImpl::int64(number);
}

// Options go out as they came in: raw bytes, written as the length-delimited options field.
void addOptions(Values& values, const RawOptions& options) {
  if (options) values["options"].push_back(detail::AnyValueImpl::bytes(*options));
}

// Writes the descriptor messages through the built-in descriptor schemas of a store of its own.
// Values refer to the manifest and to the already written sub-messages, which outlive each write.
class DescriptorSetWriter {
 public:
  DescriptorSetWriter() : store_(ProtoSchemaStore::make(SchemaManifest{})) {}

  Bytes write(const SchemaManifest& manifest) {
    Values set;
    std::vector<SchematizedData> file;
    if (!manifest.messages.empty() || !manifest.enums.empty()) {
      file.push_back(writeFile(manifest));
      set["file"].push_back(detail::AnyValueImpl::message(file.back().unsafe()));
    }
    return build("FileDescriptorSet", set).data();
  }

 private:
  SchematizedData writeFile(const SchemaManifest& manifest) {
    Values file;
    std::vector<SchematizedData> parts;
    parts.reserve(manifest.messages.size() + manifest.enums.size());
    for (const auto& [name, message] : manifest.messages) {
      parts.push_back(writeMessage(name, message));
      file["message_type"].push_back(detail::AnyValueImpl::message(parts.back().unsafe()));
    }
    for (const auto& [name, enumManifest] : manifest.enums) {
      parts.push_back(writeEnum(name, enumManifest));
      file["enum_type"].push_back(detail::AnyValueImpl::message(parts.back().unsafe()));
    }
    // A manifest with delimited fields goes out as an Editions 2023 file of explicit presence, so
    // that they come back as such whatever the import options; any other as a plain proto2 file,
    // which every protobuf runtime reads. The built-in descriptor schema has no place for these
    // three fields, so their encoding is appended (a parse takes fields in any order).
    Bytes bytes = build("FileDescriptorProto", file).data();
    if (hasDelimitedField(manifest)) {
      static constexpr uint8_t kEditionsHeader[] = {
          0x42, 0x05, 0x92, 0x03, 0x02, 0x08, 0x01,  // options.features.field_presence
          0x62, 0x08, 'e',  'd',  'i',  't',  'i',  'o', 'n', 's',  // syntax "editions"
          0x70, 0xE8, 0x07};                                        // edition EDITION_2023
      for (uint8_t byte : kEditionsHeader) bytes.push_back(static_cast<std::byte>(byte));
    }
    return store_->messageSchema("google.protobuf.FileDescriptorProto")
        ->schematizedData(std::move(bytes));
  }

  static bool hasDelimitedField(const SchemaManifest& manifest) {
    for (const auto& entry : manifest.messages) {
      for (const auto& field : entry.second.fields) {
        if (field.second.delimited) return true;
      }
    }
    return false;
  }

  SchematizedData writeMessage(const std::string& name, const MessageManifest& message) {
    Values values;
    values["name"].push_back(detail::AnyValueImpl::string(name));
    addOptions(values, message.options);
    std::vector<SchematizedData> parts;
    parts.reserve(message.fields.size() + message.oneofs.size());
    for (const auto& [fieldName, field] : message.fields) {
      parts.push_back(writeField(fieldName, field, message.oneofs.size()));
      values["field"].push_back(detail::AnyValueImpl::message(parts.back().unsafe()));
    }
    // The list order is the oneof index the fields refer to.
    for (const OneofManifest& oneof : message.oneofs) {
      Values oneofValues;
      oneofValues["name"].push_back(detail::AnyValueImpl::string(oneof.name));
      addOptions(oneofValues, oneof.options);
      parts.push_back(build("OneofDescriptorProto", oneofValues));
      values["oneof_decl"].push_back(detail::AnyValueImpl::message(parts.back().unsafe()));
    }
    return build("DescriptorProto", values);
  }

  // An oneofIndex that names none of the message's `oneofCount` oneofs (a message whose entry an
  // extension declared before it made keeps that entry's empty oneofs) is left out: it means no
  // oneof, and a descriptor with it is one that no importer accepts.
  SchematizedData writeField(const std::string& name, const FieldManifest& field,
                             size_t oneofCount) {
    Values values;
    values["name"].push_back(detail::AnyValueImpl::string(name));
    values["number"].push_back(int32Value(field.fieldNumber));
    values["label"].push_back(detail::AnyValueImpl::int32(field.isRepeated ? 3 : 1));
    values["type"].push_back(detail::AnyValueImpl::int32(
        field.delimited ? detail::kDescriptorGroupType : detail::descriptorTypeNumber(field.type)));
    // Fully qualified with a leading dot, as protoc writes references; importing strips it.
    if (field.typeName)
      values["type_name"].push_back(detail::AnyValueImpl::string("." + *field.typeName));
    if (field.oneofIndex && *field.oneofIndex >= 0 &&
        static_cast<size_t>(*field.oneofIndex) < oneofCount) {
      values["oneof_index"].push_back(detail::AnyValueImpl::int32(*field.oneofIndex));
    }
    addOptions(values, field.options);
    return build("FieldDescriptorProto", values);
  }

  SchematizedData writeEnum(const std::string& name, const EnumManifest& enumManifest) {
    Values values;
    values["name"].push_back(detail::AnyValueImpl::string(name));
    addOptions(values, enumManifest.options);
    std::vector<std::pair<int64_t, const std::string*>> ordered;
    ordered.reserve(enumManifest.values.size());
    for (const auto& [valueName, number] : enumManifest.values) {
      ordered.emplace_back(number, &valueName);
    }
    std::sort(ordered.begin(), ordered.end(), [](const auto& a, const auto& b) {
      return std::tie(a.first, *a.second) < std::tie(b.first, *b.second);
    });
    std::vector<SchematizedData> parts;
    parts.reserve(ordered.size());
    for (const auto& [number, valueName] : ordered) {
      Values valueValues;
      valueValues["name"].push_back(detail::AnyValueImpl::string(*valueName));
      valueValues["number"].push_back(int32Value(number));
      if (const auto it = enumManifest.valueOptions.find(number);
          it != enumManifest.valueOptions.end()) {
        valueValues["options"].push_back(detail::AnyValueImpl::bytes(it->second));
      }
      parts.push_back(build("EnumValueDescriptorProto", valueValues));
      values["value"].push_back(detail::AnyValueImpl::message(parts.back().unsafe()));
    }
    return build("EnumDescriptorProto", values);
  }

  SchematizedData build(std::string_view descriptor, const Values& values) {
    const std::shared_ptr<MessageSchemaDescribing> schema =
        store_->messageSchema("google.protobuf." + std::string(descriptor));
    return schema->buildData([&](const std::shared_ptr<FieldSchemaDescribing>& field) {
      std::vector<AnyValue> owned;
      if (const auto it = values.find(field->name()); it != values.end()) {
        owned.reserve(it->second.size());
        for (const detail::AnyValueImpl& value : it->second) owned.push_back(AnyValue::from(value));
      }
      return owned;
    });
  }

  std::shared_ptr<ProtoSchemaStore> store_;
};

}  // namespace

Bytes descriptorSetFromManifest(const SchemaManifest& manifest) {
  return DescriptorSetWriter().write(manifest);
}

}  // namespace ostrel
