#pragma once

// Protobuf's text format, the form `protoc --decode` prints and `protoc --encode` reads:
//
//   id: 1001
//   customer {
//     name: "Ada Lovelace"
//   }
//
// Both directions go through libprotobuf's TextFormat over a DescriptorPool made from the schemas
// of the message's store (built on first use and kept while the store lives), so the text is
// libprotobuf's own: a message is parsed first, as protobuf parses it (the last occurrence of a
// singular field wins, occurrences of a message merge, a closed enum's unknown numbers and unknown
// fields are printed by number), extensions are written as "[full.name]", an Any with its type
// expanded, a delimited field under its group's type name. Text format is not a hot path: each
// call parses or builds the whole message.
//
// The pool is rebuilt from what the store holds, so the message types keep their names, nesting,
// fields, oneofs, options and extensions. A file's syntax is not something a store keeps: a
// top-level type (with what nests in it) is proto3 when none of its fields has explicit presence
// or is delimited, it has no extensions, none of its enums lacks a zero value, and none of its
// fields uses an enum of a proto2 type; proto2 otherwise (where enums are closed). Types that
// refer to each other across packages (or across the two syntaxes of one package) cannot be
// placed in a pool; such a store throws SchematizerError::protocolBufferError saying so, and so
// does any other schema libprotobuf refuses ("text format: " and its message).

#include <string>
#include <string_view>

#include "ostrel/core/describing.hpp"
#include "ostrel/store/schemas.hpp"

namespace ostrel {

// The text format of `data`, exactly as `protoc --decode` prints it for the same schema and bytes.
// The schema must come from a store that is still alive (SchematizerError::internalError "Store is
// destroyed" otherwise). Throws SerializationError::malformedProtobuf for bytes protobuf cannot
// parse as the message.
std::string renderText(const SchematizedDataDescribing& data);
std::string renderText(const SchematizedData& data);

// Text format to protobuf: the message that `text` describes, encoded as `protoc --encode`
// encodes it (fields in number order, repeated scalars packed where the schema packs them). Missing
// required fields are not an error. Throws SchematizerError::unexpectedType("<line>:<column>:
// <libprotobuf's message>") for text that does not describe the message (lines and columns counted
// from 1).
SchematizedData parseText(const MessageSchema& schema, std::string_view text);

}  // namespace ostrel
