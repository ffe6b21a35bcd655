#include "ostrel/manifest/manifest.hpp"

namespace ostrel {
namespace {

// Records that merge as a whole: no field of such a record is ever combined with the other
// side's, so two enums with different value sets conflict instead of uniting.
template <typename Record>
Record& mergeWholeRecord(Record& receiver, const Record& other, MergePolicy policy,
                         const char* conflictText) {
  switch (policy) {
    case MergePolicy::keepExisting:
      break;
    case MergePolicy::takeIncoming:
      receiver = other;
      break;
    case MergePolicy::requireEqual:
      if (!(receiver == other)) throw MergeConflict::conflict(conflictText);
      break;
  }
  return receiver;
}

}  // namespace

RawOptions& merge(RawOptions& receiver, const RawOptions& other, MergePolicy policy) {
  if (!other) return receiver;
  if (!receiver) {
    receiver = other;
    return receiver;
  }
  return mergeWholeRecord(receiver, other, policy, "Conflict merging Optional<Data>");
}

FieldManifest& FieldManifest::merge(const FieldManifest& other, MergePolicy policy) {
  std::optional<std::string> extension = extensionName ? extensionName : other.extensionName;
  std::optional<std::string> json = jsonName ? jsonName : other.jsonName;
  const bool implicit = implicitPresence || other.implicitPresence;
  const bool packedRun = packed || other.packed;
  const bool closed = closedEnum || other.closedEnum;
  mergeWholeRecord(*this, other, policy, "Conflict merging FieldManifest");
  implicitPresence = implicit;
  packed = packedRun;
  closedEnum = closed;
  if (!extensionName) extensionName = std::move(extension);
  if (!jsonName) jsonName = std::move(json);
  return *this;
}

OneofManifest& OneofManifest::merge(const OneofManifest& other, MergePolicy policy) {
  return mergeWholeRecord(*this, other, policy, "Conflict merging OneofManifest");
}

EnumManifest& EnumManifest::merge(const EnumManifest& other, MergePolicy policy) {
  return mergeWholeRecord(*this, other, policy, "Conflict merging EnumManifest");
}

MessageManifest& MessageManifest::merge(const MessageManifest& other, MergePolicy policy) {
  ostrel::merge(fields, other.fields, policy);
  ostrel::merge(options, other.options, policy);
  // The oneof list is never combined and the incoming one is never read: a oneof's position is
  // the index that fields refer to, so uniting two lists would re-point fields. The entry that
  // reached the dictionary first owns the list, even when it has none (an extendee that entered
  // through its extensions keeps its empty list when its own definition arrives).
  return *this;
}

SchemaManifest& SchemaManifest::merge(const SchemaManifest& other, MergePolicy policy) {
  ostrel::merge(messages, other.messages, policy);
  ostrel::merge(enums, other.enums, policy);
  return *this;
}

SchemaManifest SchemaManifest::merging(const SchemaManifest& other) const {
  SchemaManifest result = *this;
  result.merge(other, MergePolicy::keepExisting);
  return result;
}

}  // namespace ostrel
