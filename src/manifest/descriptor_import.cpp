#include "manifest/descriptor_import.hpp"

#include <array>

#include "core/fatal.hpp"
#include "ostrel/core/logging.hpp"

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

void GroupFields::leaveOut(const std::string& fullName) {
  if (!reported_.insert(fullName).second) return;
  if (options_.groupSkipped) {
    options_.groupSkipped(fullName);
  } else {
    log("Sch: Group field " + fullName + " left out of the schema");
  }
}

}  // namespace ostrel::detail
