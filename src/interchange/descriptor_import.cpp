#include "interchange/descriptor_import.hpp"

#include <array>

#include "core/fatal.hpp"
#include "ostrel/core/logging.hpp"
#include "ostrel/wire/reader.hpp"

namespace ostrel::detail {
namespace {

using T = TypeManifest;

constexpr std::array<DescriptorType, 18> kDescriptorTypes{{
    {"TYPE_DOUBLE", 1, T::double_},
    {"TYPE_FLOAT", 2, T::float_},
    {"TYPE_INT64", 3, T::int64},
    {"TYPE_UINT64", 4, T::uint64},
    {"TYPE_INT32", 5, T::int32},
    {"TYPE_FIXED64", 6, T::fixed64},
    {"TYPE_FIXED32", 7, T::fixed32},
    {"TYPE_BOOL", 8, T::bool_},
    {"TYPE_STRING", 9, T::string},
    {"TYPE_GROUP", kDescriptorGroupType, std::nullopt},
    {"TYPE_MESSAGE", 11, T::message},
    {"TYPE_BYTES", 12, T::bytes},
    {"TYPE_UINT32", 13, T::uint32},
    {"TYPE_ENUM", 14, T::enum_},
    {"TYPE_SFIXED32", 15, T::sfixed32},
    {"TYPE_SFIXED64", 16, T::sfixed64},
    {"TYPE_SINT32", 17, T::sint32},
    {"TYPE_SINT64", 18, T::sint64},
}};

}  // namespace

NamePath splitName(std::string_view name) {
  NamePath parts;
  size_t start = 0;
  while (start <= name.size()) {
    size_t end = name.find('.', start);
    if (end == std::string_view::npos) end = name.size();
    if (end > start) parts.emplace_back(name.substr(start, end - start));
    start = end + 1;
  }
  return parts;
}

std::string fullName(const NamePath& path, std::string_view name) {
  std::string joined;
  for (const std::string& part : path) {
    joined += part;
    joined += '.';
  }
  joined += name;
  return joined;
}

NamePath nestedPath(const NamePath& path, std::string_view name) {
  NamePath nested = path;
  nested.emplace_back(name);
  return nested;
}

std::string normalizedTypeName(std::string_view name) {
  const NamePath parts = splitName(name);
  std::string joined;
  for (const std::string& part : parts) {
    if (!joined.empty()) joined += '.';
    joined += part;
  }
  return joined;
}

const DescriptorType* descriptorTypeWithNumber(int64_t number) noexcept {
  if (number < 1 || number > static_cast<int64_t>(kDescriptorTypes.size())) return nullptr;
  return &kDescriptorTypes[static_cast<size_t>(number - 1)];
}

const DescriptorType* descriptorTypeNamed(std::string_view name) noexcept {
  for (const DescriptorType& row : kDescriptorTypes) {
    if (row.name == name) return &row;
  }
  return nullptr;
}

int32_t descriptorTypeNumber(TypeManifest type) noexcept {
  for (const DescriptorType& row : kDescriptorTypes) {
    if (row.manifestType == type) return row.number;
  }
  return 0;  // unreachable: every manifest type has a row
}

std::map<std::string, int64_t, std::less<>> uniqueEnumValues(
    std::vector<std::pair<std::string, int64_t>> values) {
  std::map<std::string, int64_t, std::less<>> table;
  for (auto& [name, number] : values) {
    if (!table.try_emplace(name, number).second) {
      fatal("Duplicate values for key: '" + name + "'");
    }
  }
  return table;
}

void addMessage(SchemaManifest& manifest, const std::string& name, MessageManifest&& message) {
  // try_emplace leaves `message` untouched when the name is taken.
  auto [it, inserted] = manifest.messages.try_emplace(name, std::move(message));
  if (!inserted) it->second.merge(message, MergePolicy::requireEqual);
}

MessageManifest& extendeeEntry(SchemaManifest& manifest, const std::string& name) {
  return manifest.messages.try_emplace(name).first->second;
}

void ExtensionFields::add(SchemaManifest& manifest, const std::string& extendee,
                          const std::string& fullName, const std::string& name,
                          FieldManifest&& field) {
  field.extensionName = fullName;
  auto& fields = extendeeEntry(manifest, extendee).fields;
  const auto [holder, first] = holders_.try_emplace({extendee, name}, Holder{fullName});
  if (first) {
    if (fields.contains(name)) {
      // A field of the message itself: it keeps the name for good.
      holder->second.shared = true;
      fields.insert_or_assign(fullName, std::move(field));
    } else {
      fields.emplace(name, std::move(field));
    }
    return;
  }
  if (holder->second.fullName == fullName && !holder->second.shared) {
    fields.insert_or_assign(name, std::move(field));
    return;
  }
  if (!holder->second.shared) {
    holder->second.shared = true;
    auto taken = fields.extract(name);
    if (!taken.empty()) {
      taken.key() = holder->second.fullName;
      fields.insert(std::move(taken));
    }
  }
  fields.insert_or_assign(fullName, std::move(field));
}

namespace {

// google.protobuf.FeatureSet's field_presence (EXPLICIT 1, IMPLICIT 2, LEGACY_REQUIRED 3) and
// message_encoding (LENGTH_PREFIXED 1, DELIMITED 2).
constexpr int64_t kFieldPresenceNumber = 1;
constexpr int64_t kMessageEncodingNumber = 5;
constexpr uint64_t kImplicitPresence = 2;
constexpr uint64_t kDelimitedEncoding = 2;
constexpr int64_t kEnumTypeNumber = 2;
constexpr uint64_t kClosedEnum = 2;
constexpr int64_t kRepeatedFieldEncodingNumber = 3;
constexpr uint64_t kPackedEncoding = 1;
// FieldOptions.packed.
constexpr int64_t kPackedOptionNumber = 2;
// MessageOptions.map_entry.
constexpr int64_t kMapEntryNumber = 7;

// Calls `visit(tag, reader)` for each field of `bytes`; `visit` reads or skips the value.
template <typename Visit>
void forEachField(ByteView bytes, Visit&& visit) {
  Reader reader(bytes);
  while (reader.hasMoreFields()) {
    const FieldTag tag = reader.readTag();
    visit(tag, reader);
  }
}

// The varint of field `number` in `bytes`: the last occurrence wins, as in a parse.
void readVarintField(const FieldTag& tag, Reader& reader, int64_t number,
                     std::optional<uint64_t>& value) {
  if (tag.fieldNumber() == number && tag.wireType() == ProtoWireType::varInt) {
    value = reader.readVarint();
  } else {
    reader.skipField(tag);
  }
}

}  // namespace

Features syntaxFeatures(std::string_view syntax) noexcept {
  return {.explicitPresence = syntax != "proto3",
          .delimited = false,
          .packed = syntax == "proto3" || syntax == "editions",
          .closedEnums = syntax != "proto3" && syntax != "editions"};
}

Features withFeatures(Features inherited, const RawOptions& options, int64_t featuresNumber) {
  if (!options) return inherited;
  // Occurrences of `features` merge, so each feature takes its last value.
  forEachField(*options, [&](const FieldTag& tag, Reader& reader) {
    if (tag.fieldNumber() != featuresNumber || tag.wireType() != ProtoWireType::lengthDelimited) {
      return reader.skipField(tag);
    }
    forEachField(reader.readLengthDelimited(), [&](const FieldTag& feature, Reader& in) {
      std::optional<uint64_t> value;
      if (feature.fieldNumber() == kFieldPresenceNumber) {
        readVarintField(feature, in, kFieldPresenceNumber, value);
        if (value) inherited.explicitPresence = *value != kImplicitPresence;
      } else if (feature.fieldNumber() == kEnumTypeNumber) {
        readVarintField(feature, in, kEnumTypeNumber, value);
        if (value) inherited.closedEnums = *value == kClosedEnum;
      } else if (feature.fieldNumber() == kRepeatedFieldEncodingNumber) {
        readVarintField(feature, in, kRepeatedFieldEncodingNumber, value);
        if (value) inherited.packed = *value == kPackedEncoding;
      } else {
        readVarintField(feature, in, kMessageEncodingNumber, value);
        if (value) inherited.delimited = *value == kDelimitedEncoding;
      }
    });
  });
  return inherited;
}

void applyFeatures(FieldManifest& field, const Features& features, bool group) {
  field.implicitPresence = !features.explicitPresence && !field.isRepeated && !field.oneofIndex &&
                           field.type != TypeManifest::message;
  field.delimited = field.type == TypeManifest::message && (group || features.delimited);
  std::optional<uint64_t> packedOption;
  if (field.options) {
    forEachField(*field.options, [&](const FieldTag& tag, Reader& reader) {
      readVarintField(tag, reader, kPackedOptionNumber, packedOption);
    });
  }
  const bool packable = field.type != TypeManifest::string && field.type != TypeManifest::bytes &&
                        field.type != TypeManifest::message;
  field.packed =
      field.isRepeated && packable && (packedOption ? *packedOption != 0 : features.packed);
  field.closedEnum = field.type == TypeManifest::enum_ && features.closedEnums;
}

void EnumClosedness::addEnum(const std::string& fullName, const Features& file,
                             const RawOptions& options) {
  closedEnums_.insert_or_assign(fullName,
                                withFeatures(file, options, kEnumFeaturesNumber).closedEnums);
}

void EnumClosedness::addField(std::string fullName, const FieldManifest& field,
                              std::string_view syntax) {
  if (field.type == TypeManifest::enum_ && syntax == "editions") {
    editionsFields_.insert(std::move(fullName));
  }
}

void EnumClosedness::apply(SchemaManifest& manifest) const {
  for (auto& [messageName, message] : manifest.messages) {
    for (auto& [name, field] : message.fields) {
      if (field.type != TypeManifest::enum_ || !field.typeName) continue;
      const bool editions = field.extensionName
                                ? editionsFields_.contains(*field.extensionName)
                                : editionsFields_.contains(messageName + "." + name);
      const auto enumType = closedEnums_.find(*field.typeName);
      if (editions && enumType != closedEnums_.end()) field.closedEnum = enumType->second;
    }
  }
}

void keepMapsLengthPrefixed(SchemaManifest& manifest) {
  const auto isMapEntry = [&](const MessageManifest& message) {
    std::optional<uint64_t> mapEntry;
    if (message.options) {
      forEachField(*message.options, [&](const FieldTag& tag, Reader& reader) {
        readVarintField(tag, reader, kMapEntryNumber, mapEntry);
      });
    }
    return mapEntry.value_or(0) != 0;
  };
  for (auto& [name, message] : manifest.messages) {
    const bool entry = isMapEntry(message);
    for (auto& [fieldName, field] : message.fields) {
      if (!field.delimited || !field.typeName) continue;
      const auto type = manifest.messages.find(*field.typeName);
      if (entry || (type != manifest.messages.end() && isMapEntry(type->second))) {
        field.delimited = false;
      }
    }
  }
}

void GroupFields::leaveOut(const std::string& fullName) {
  if (!reported_.insert(fullName).second) return;
  if (options_.groupSkipped) {
    options_.groupSkipped(fullName);
  } else {
    log("Sch: Group field " + fullName + " left out of the schema");
  }
}

}  // namespace ostrel::detail
