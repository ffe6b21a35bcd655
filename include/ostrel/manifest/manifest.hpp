#pragma once

// Schema manifests: plain, serialisable descriptions of message and enum types, keyed by fully
// qualified type name without a leading dot. Options are always the raw serialized bytes of the
// matching google.protobuf options message; absent options and an empty buffer are different.

#include <concepts>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "ostrel/core/errors.hpp"
#include "ostrel/core/field_types.hpp"
#include "ostrel/core/values.hpp"

namespace ostrel {

// How a merge treats a key or value present on both sides.
enum class MergePolicy : uint8_t {
  keepExisting = 0,  // the receiver's value stays
  takeIncoming = 1,  // the incoming value replaces the receiver's
  requireEqual = 2,  // the two must be equal, else MergeConflict
};

// Raw options bytes, or none.
using RawOptions = std::optional<Bytes>;

struct FieldManifest {
  TypeManifest type = TypeManifest::int32;
  // For message and enum fields, the fully qualified name of the referenced type.
  std::optional<std::string> typeName;
  int64_t fieldNumber = 0;
  bool isRepeated = false;
  // Index into the owning message's oneofs.
  std::optional<int32_t> oneofIndex;
  RawOptions options;
  // For an extension field, the extension's fully qualified name: ProtoJSON writes the field as
  // "[full.name]". Set by the descriptor-set and .proto imports. The JSON manifest form and the
  // exports have no place for it, so an exported extension comes back as an ordinary field; for
  // that reason it is an annotation, not part of the field's identity: equality and merges leave
  // it out (a merge keeps it from whichever side has it).
  std::optional<std::string> extensionName;
  // The json_name a descriptor declares when it is not the lowerCamelCase of the field's name
  // (FieldSchemaDescribing::jsonName). An annotation like extensionName, for the same reason.
  std::optional<std::string> jsonName;
  // Whether the field has no presence of its own (a singular scalar, string, bytes or enum field
  // outside any oneof, of a proto3 file or of Editions' IMPLICIT field presence): ProtoJSON leaves
  // it out when it holds its default, and JsonOptions::printDefaults writes its default. Set by the
  // descriptor-set and .proto imports, kept by the JSON form ("implicitPresence": true); without it
  // a field has presence. An annotation like extensionName, left out of equality (a merge keeps it
  // when either side has it).
  bool implicitPresence = false;
  // A message field written delimited: a start-group tag, the message's fields and an end-group
  // tag, as proto2 groups and Editions' DELIMITED message encoding are. Readers take either
  // encoding of any message field; the writers write this one.
  bool delimited = false;
  // Whether a repeated field of a numeric, bool or enum type is written packed: all elements in one
  // length-delimited run (proto3's and Editions' default, proto2's [packed = true]). Readers take
  // either form; normalization writes this one. Set by the descriptor-set and .proto imports, kept
  // by the JSON form ("packed": true). An annotation like implicitPresence.
  bool packed = false;
  // Whether an enum field is closed (proto2's, Editions' enum_type CLOSED): protobuf's parse keeps
  // a number the enum does not declare among the unknown fields, not in the field. Set by the
  // imports, kept by the JSON form ("closedEnum": true). An annotation like implicitPresence.
  bool closedEnum = false;

  // Whole-record merge: the policy decides between the two records.
  // Throws MergeConflict "Conflict merging FieldManifest".
  FieldManifest& merge(const FieldManifest& other, MergePolicy policy);
  // An absent `other` leaves the receiver unchanged.
  FieldManifest& merge(const std::optional<FieldManifest>& other, MergePolicy policy) {
    return other ? merge(*other, policy) : *this;
  }

  friend bool operator==(const FieldManifest& a, const FieldManifest& b) {
    return a.type == b.type && a.typeName == b.typeName && a.fieldNumber == b.fieldNumber &&
           a.isRepeated == b.isRepeated && a.oneofIndex == b.oneofIndex && a.options == b.options &&
           a.delimited == b.delimited;
  }
};

struct OneofManifest {
  std::string name;
  RawOptions options;

  // Whole-record merge. Throws MergeConflict "Conflict merging OneofManifest".
  OneofManifest& merge(const OneofManifest& other, MergePolicy policy);
  // An absent `other` leaves the receiver unchanged.
  OneofManifest& merge(const std::optional<OneofManifest>& other, MergePolicy policy) {
    return other ? merge(*other, policy) : *this;
  }

  friend bool operator==(const OneofManifest&, const OneofManifest&) = default;
};

struct MessageManifest {
  // Keyed by the field's simple name; extension fields of this message are here too.
  std::map<std::string, FieldManifest, std::less<>> fields;
  // In declaration order; the position is the oneof's index.
  std::vector<OneofManifest> oneofs;
  RawOptions options;

  // Field-wise merge: fields are united (a same-named field merges as a whole record), options
  // merge as optional bytes, and the receiver's oneof list is kept as it is: the incoming list is
  // never read. A failure leaves the fields merged so far in place.
  MessageManifest& merge(const MessageManifest& other, MergePolicy policy);
  // An absent `other` leaves the receiver unchanged.
  MessageManifest& merge(const std::optional<MessageManifest>& other, MergePolicy policy) {
    return other ? merge(*other, policy) : *this;
  }

  friend bool operator==(const MessageManifest&, const MessageManifest&) = default;
};

struct EnumManifest {
  // Value name to number; several names may share a number.
  std::map<std::string, int64_t, std::less<>> values;
  RawOptions options;
  // Value number to its raw google.protobuf.EnumValueOptions; only values with options appear.
  std::map<int64_t, Bytes> valueOptions;

  // Whole-record merge. Throws MergeConflict "Conflict merging EnumManifest".
  EnumManifest& merge(const EnumManifest& other, MergePolicy policy);
  // An absent `other` leaves the receiver unchanged.
  EnumManifest& merge(const std::optional<EnumManifest>& other, MergePolicy policy) {
    return other ? merge(*other, policy) : *this;
  }

  friend bool operator==(const EnumManifest&, const EnumManifest&) = default;
};

struct SchemaManifest {
  std::map<std::string, MessageManifest, std::less<>> messages;
  std::map<std::string, EnumManifest, std::less<>> enums;

  // Merges both dictionaries key by key under `policy`. A failure leaves the keys merged so far.
  SchemaManifest& merge(const SchemaManifest& other, MergePolicy policy);
  // An absent `other` leaves the receiver unchanged.
  SchemaManifest& merge(const std::optional<SchemaManifest>& other, MergePolicy policy) {
    return other ? merge(*other, policy) : *this;
  }

  // A new manifest: this one merged with `other` under keepExisting, so this one wins every
  // duplicate name.
  SchemaManifest merging(const SchemaManifest& other) const;

  friend bool operator==(const SchemaManifest&, const SchemaManifest&) = default;
};

// Merges optional raw options: an absent `other` changes nothing, an absent receiver takes
// `other`, and otherwise the policy decides. Throws MergeConflict "Conflict merging
// Optional<Data>".
RawOptions& merge(RawOptions& receiver, const RawOptions& other, MergePolicy policy);

// The records that merge under a policy.
template <typename T>
concept Mergeable = requires(T& receiver, const T& other, const std::optional<T>& maybe,
                             MergePolicy policy) {
  { receiver.merge(other, policy) } -> std::same_as<T&>;
  { receiver.merge(maybe, policy) } -> std::same_as<T&>;
};

// Merges an optional record: an absent `other` changes nothing, an absent receiver becomes
// `other`, and two present records merge by the record's own rule.
template <Mergeable T>
std::optional<T>& merge(std::optional<T>& receiver, const std::optional<T>& other,
                        MergePolicy policy) {
  if (!other) return receiver;
  if (!receiver) {
    receiver = other;
  } else {
    receiver->merge(*other, policy);
  }
  return receiver;
}

// Merges dictionaries key by key, in the incoming dictionary's order: a new key is inserted, an
// existing one merges by the value's rule. The first failure stops the merge; keys merged before
// it stay merged.
template <typename Key, Mergeable T, typename Compare>
std::map<Key, T, Compare>& merge(std::map<Key, T, Compare>& receiver,
                                 const std::map<Key, T, Compare>& other, MergePolicy policy) {
  for (const auto& [key, value] : other) {
    auto [it, inserted] = receiver.try_emplace(key, value);
    if (!inserted) it->second.merge(value, policy);
  }
  return receiver;
}

}  // namespace ostrel
