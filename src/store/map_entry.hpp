#pragma once

#include <optional>

#include "core/field_type_facts.hpp"
#include "ostrel/core/describing.hpp"
#include "ostrel/core/errors.hpp"
#include "ostrel/wire/reader.hpp"

namespace ostrel::detail {

// The key and value fields of a map entry message.
struct MapEntryFields {
  const FieldSchemaDescribing* key;
  const FieldSchemaDescribing* value;
};

// Whether the raw MessageOptions of `entry` set map_entry (field 7). The options are read raw
// because the store's MessageOptions schema need not know the field: the built-in one knows none.
// Unreadable options count as not set.
inline bool hasMapEntryOption(const MessageSchemaDescribing& entry) noexcept {
  constexpr int64_t kMapEntryOptionNumber = 7;
  const std::optional<SchematizedData>& options = entry.options();
  if (!options) return false;
  try {
    Reader reader(options->bytes());
    while (reader.hasMoreFields()) {
      const FieldTag tag = reader.readTag();
      if (tag.fieldNumber() == kMapEntryOptionNumber && tag.wireType() == ProtoWireType::varInt) {
        return reader.readVarint() != 0;
      }
      reader.skipField(tag);
    }
  } catch (const Error&) {
  }
  return false;
}

// The key (field 1) and value (field 2) of `entry` when it is a map entry message: map_entry set,
// and a key of a map key type. Any other message, map_entry or not, is an ordinary message and its
// field an ordinary repeated field. Throws the schema's errors.
inline std::optional<MapEntryFields> mapEntryFields(const MessageSchemaDescribing& entry) {
  if (!hasMapEntryOption(entry)) return std::nullopt;
  const auto& fields = entry.fieldsByNumber();
  const auto key = fields.find(1);
  const auto value = fields.find(2);
  if (key == fields.end() || value == fields.end()) return std::nullopt;
  if (!detail::factsOf(key->second->type().kind()).isMapKey()) return std::nullopt;
  return MapEntryFields{key->second.get(), value->second.get()};
}

}  // namespace ostrel::detail
