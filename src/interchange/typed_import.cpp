#include "ostrel/manifest/typed_import.hpp"

#include <string>
#include <utility>
#include <vector>

#include "core/fatal.hpp"
#include "core/json_text.hpp"
#include "interchange/descriptor_import.hpp"
#include "manifest/manifest_check.hpp"

namespace ostrel {
namespace {

namespace pb = google::protobuf;
using detail::NamePath;

[[noreturn]] void invalidValue(const char* text) {
  throw SchemaManifestJSONError::invalidValueType(text);
}

template <typename Options>
Bytes serialized(const Options& options) {
  return toBytes(options.SerializeAsString());
}

// Walks the parsed descriptors in the order their serialized form has (messages, enums, then
// extensions of a file; fields, nested messages, enums, extensions, then oneofs of a message), so
// that replacements and merges come out as in the import of the serialized set.
class TypedDescriptorReader {
 public:
  explicit TypedDescriptorReader(const DescriptorImportOptions& options) : groups_(options) {}

  SchemaManifest read(const pb::FileDescriptorSet& set) {
    for (const pb::FileDescriptorProto& file : set.file()) readFile(file);
    // Checked once the whole set is read: extensions add fields to messages of other files.
    if (const auto fault = detail::fieldNumberFault(manifest_)) {
      throw SchemaManifestJSONError::invalidValueType(
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
  void readFile(const pb::FileDescriptorProto& file) {
    const NamePath path = detail::splitName(file.package());
    syntax_ = file.syntax();
    RawOptions options;
    if (file.has_options()) options = serialized(file.options());
    features_ =
        detail::withFeatures(detail::syntaxFeatures(syntax_), options, detail::kFileFeaturesNumber);
    for (const pb::DescriptorProto& message : file.message_type()) readMessage(path, message);
    for (const pb::EnumDescriptorProto& enumType : file.enum_type()) readEnum(path, enumType);
    for (const pb::FieldDescriptorProto& extension : file.extension()) {
      readExtension(path, extension);
    }
  }

  void readMessage(const NamePath& path, const pb::DescriptorProto& descriptor) {
    MessageManifest message;
    const NamePath inner = detail::nestedPath(path, descriptor.name());
    for (const pb::FieldDescriptorProto& field : descriptor.field()) {
      if (auto read = readField(inner, field)) {
        if (message.fields.contains(read->first)) {
          throw SchemaManifestJSONError::invalidValueType(detail::faultText(
              detail::fullName(path, descriptor.name()), detail::repeatedFieldName(read->first)));
        }
        message.fields.emplace(std::move(read->first), std::move(read->second));
      }
    }
    for (const pb::DescriptorProto& nested : descriptor.nested_type()) readMessage(inner, nested);
    for (const pb::EnumDescriptorProto& enumType : descriptor.enum_type()) {
      readEnum(inner, enumType);
    }
    for (const pb::FieldDescriptorProto& extension : descriptor.extension()) {
      readExtension(inner, extension);
    }
    if (descriptor.has_options()) message.options = serialized(descriptor.options());
    for (const pb::OneofDescriptorProto& oneof : descriptor.oneof_decl()) {
      if (!oneof.has_name()) invalidValue("Enum name");
      OneofManifest oneofManifest{.name = oneof.name()};
      if (oneof.has_options()) oneofManifest.options = serialized(oneof.options());
      message.oneofs.push_back(std::move(oneofManifest));
    }
    if (descriptor.name().empty()) invalidValue("Fields descriptor is incomplete");
    std::string full = detail::fullName(path, descriptor.name());
    if (const std::optional<detail::MessageFault> fault = detail::messageFault(message)) {
      throw SchemaManifestJSONError::invalidValueType(detail::faultText(full, *fault));
    }
    detail::addMessage(manifest_, full, std::move(message));
  }

  void readEnum(const NamePath& path, const pb::EnumDescriptorProto& descriptor) {
    EnumManifest enumManifest;
    std::vector<std::pair<std::string, int64_t>> values;
    for (const pb::EnumValueDescriptorProto& value : descriptor.value()) {
      if (value.name().empty() || !value.has_number()) invalidValue("Enum value is missing");
      if (value.has_options()) {
        enumManifest.valueOptions.insert_or_assign(value.number(), serialized(value.options()));
      }
      values.emplace_back(value.name(), value.number());
    }
    if (descriptor.has_options()) enumManifest.options = serialized(descriptor.options());
    if (!descriptor.has_name()) invalidValue("Enum descriptor is incomplete");
    if (auto text =
            detail::repeatedEnumValueText(detail::fullName(path, descriptor.name()), values)) {
      throw SchemaManifestJSONError::invalidValueType(std::move(*text));
    }
    enumManifest.values = detail::uniqueEnumValues(std::move(values));
    const std::string full = detail::fullName(path, descriptor.name());
    enumClosedness_.addEnum(full, features_, enumManifest.options);
    manifest_.enums.insert_or_assign(full, std::move(enumManifest));
  }

  // The field's name and record; nothing for a group field left out. `scope` is the path of the
  // message (or, for an extension, of the scope) the field is declared in.
  std::optional<std::pair<std::string, FieldManifest>> readField(
      const NamePath& scope, const pb::FieldDescriptorProto& descriptor) {
    std::optional<TypeManifest> type;
    bool group = false;
    if (descriptor.has_type()) {
      const detail::DescriptorType* row = detail::descriptorTypeWithNumber(descriptor.type());
      if (!row) detail::fatal("Field type number out of range");
      type = row->manifestType;
      if (!row->manifestType) {
        const DescriptorImportOptions::Groups handling = groups_.handling(syntax_);
        if (handling == DescriptorImportOptions::Groups::refuse) {
          invalidValue("Group is deprecated");
        }
        if (handling == DescriptorImportOptions::Groups::skip) {
          if (descriptor.has_name() && descriptor.has_number()) {
            groups_.leaveOut(detail::fullName(scope, descriptor.name()));
            return std::nullopt;
          }
        } else {
          group = true;
          type = TypeManifest::message;
        }
      }
    }
    if (!type || !descriptor.has_name() || !descriptor.has_number()) {
      invalidValue("Enum value is missing");
    }
    FieldManifest field{.type = *type,
                        .fieldNumber = descriptor.number(),
                        .isRepeated = descriptor.label() == detail::kDescriptorRepeatedLabel};
    if (descriptor.has_type_name()) {
      field.typeName = detail::normalizedTypeName(descriptor.type_name());
    }
    if (descriptor.has_oneof_index()) field.oneofIndex = descriptor.oneof_index();
    if (descriptor.has_json_name() &&
        descriptor.json_name() != detail::jsonName(descriptor.name())) {
      field.jsonName = descriptor.json_name();
    }
    if (descriptor.has_options()) field.options = serialized(descriptor.options());
    detail::applyFeatures(
        field, detail::withFeatures(features_, field.options, detail::kFieldFeaturesNumber), group);
    enumClosedness_.addField(detail::fullName(scope, descriptor.name()), field, syntax_);
    // An extension always has presence, whatever its file's.
    if (descriptor.has_extendee()) field.implicitPresence = false;
    return std::pair(descriptor.name(), std::move(field));
  }

  void readExtension(const NamePath& scope, const pb::FieldDescriptorProto& descriptor) {
    const std::string target = detail::normalizedTypeName(descriptor.extendee());
    if (target.empty()) invalidValue("Invalid extendee");
    auto field = readField(scope, descriptor);
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

SchemaManifest schemaManifestFromDescriptorSet(const google::protobuf::FileDescriptorSet& set,
                                               const DescriptorImportOptions& options) {
  return TypedDescriptorReader(options).read(set);
}

}  // namespace ostrel
