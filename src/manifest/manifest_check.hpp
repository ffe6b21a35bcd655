#pragma once

// What every manifest import checks before it hands a manifest out: the numbers and names that
// protobuf itself requires to be valid and unique within a message or enum. A manifest that breaks
// one of these would give wrong bytes on writing (a field number outside the tag's 29 bits), make
// two fields indistinguishable on the wire, or reach the store's invariants, which stop the
// process; an import refuses it instead, with its own error.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ostrel/manifest/manifest.hpp"

namespace ostrel::detail {

// Field numbers run from 1 to 2^29 - 1, the largest that fits a tag beside the wire type;
// 19000 to 19999 are reserved for protobuf's own use and protoc refuses them too.
inline constexpr int64_t kMaxFieldNumber = (int64_t{1} << 29) - 1;
inline constexpr int64_t kFirstReservedFieldNumber = 19000;
inline constexpr int64_t kLastReservedFieldNumber = 19999;

// The first fault of one message: which field, or which oneof (by position), and what is wrong,
// as text that reads after a location ("field number 0 is outside 1 to 536870911").
struct MessageFault {
  std::string field;            // the field's name, for a fault of a field
  std::optional<size_t> oneof;  // the oneof's position in the message's oneofs, for a oneof's
  std::string_view member;      // the manifest member at fault: "fieldNumber", "oneofIndex", "name"
  std::string text;
};

// Checks one message as declared, in this order: each field's number (in name order), each
// field's oneof index, that no two fields share a number, that no two oneofs share a name.
std::optional<MessageFault> messageFault(const MessageManifest& message);

// The first fault of the field numbers over all messages of a whole import, with the message's
// name: extensions add fields to messages of other files, whose numbers must not collide. Oneof
// indexes are not checked here: a message whose entry an earlier extension made keeps that entry's
// (empty) oneofs, and its own oneof fields then point nowhere without any fault of the input.
std::optional<std::pair<std::string, MessageFault>> fieldNumberFault(
    const SchemaManifest& manifest);

// The first fault of a manifest handed to a store as it is (SchemaStore(manifest)): the field
// numbers as fieldNumberFault checks them, then two oneofs of one name in a message, which the
// store cannot hold apart. A oneof index naming no oneof is left alone: the store passes such a
// field over as a member of no oneof, and a descriptor import whose extension made a message's
// entry first can give one.
std::optional<std::pair<std::string, MessageFault>> storeFault(const SchemaManifest& manifest);

// The fault of a second field named `name` in one message: protobuf refuses a message declaring
// a name twice, and a manifest, keyed by name, would silently keep only one of them.
MessageFault repeatedFieldName(const std::string& name);

// The first message or enum of `manifest` that defines a type of the built-in descriptor manifest
// differently, as its name and the text of the MergeConflict that merging it under
// MergePolicy::requireEqual raises. The built-in definitions are what every store reads
// descriptors with, so a changed one would be silently ignored; fields added to a built-in message
// (extensions of the options messages) are no change.
std::optional<std::pair<std::string, std::string>> builtinTypeChange(
    const SchemaManifest& manifest);

// `Message "a.M" field "x": <text>`, or `Message "a.M": <text>` for a oneof's fault.
std::string faultText(std::string_view messageName, const MessageFault& fault);

// The text for an enum whose values in declaration order repeat a name:
// `Enum "a.E": value name "A" occurs twice`. No value: the names are unique.
std::optional<std::string> repeatedEnumValueText(
    std::string_view enumName, const std::vector<std::pair<std::string, int64_t>>& values);

}  // namespace ostrel::detail
