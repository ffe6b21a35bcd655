#pragma once

// Encoded messages from JSON text: the inverse of renderJSON (json_rendering.hpp). Everything
// renderJSON writes reads back, so that encoding a rendering and rendering the result gives the
// same text:
//
// - The text is one JSON object; each member names a field of the message schema and gives its
//   value; null stands for an absent field.
// - Integers of every type as JSON numbers or decimal strings, range-checked against the field's
//   type (a number with a fraction or exponent is taken when it is an exact integer); float and
//   double as numbers, numeric strings or "NaN", "Infinity", "-Infinity"; bool as true or false;
//   string as a string; bytes as standard base64 with padding; an enum as a value name or a
//   number; a message as an object; a repeated field as an array; a map field (a repeated field
//   of a map entry message) as an object whose member names are the keys: integers in decimal,
//   bool "true" or "false".
// - Fields are written through MessageSchemaDescribing::buildData, so in ascending order of field
//   name, repeated elements one by one (not packed), map entries with both key and value.
// - Messages nest at most 100 deep, the outermost counting as the first.
//
// Errors, thrown before anything is written:
// - text that is not JSON: SchematizerError::unexpectedType("invalid JSON: " and the parser's
//   message);
// - a value of the wrong kind or out of range: SchematizerError::unexpectedType("<path>: expected
//   ..."), where the path starts at "$" and goes on with ".name" for members, "[3]" for elements
//   and "[\"key\"]" for map keys, for example "$.mids[1].leaf.id: expected an integer of type
//   int32";
// - a member that is not a field: the schema's SchematizerError::fieldNotFound;
// - an enum name the enum does not have: the enum schema's SchematizerError::enumValueNotFound;
// - nesting deeper than 100 messages: SchematizerError::protocolBufferError("Nesting deeper than
//   100 messages").

#include <string_view>

#include "ostrel/core/describing.hpp"
#include "ostrel/core/values.hpp"
#include "ostrel/store/schemas.hpp"

namespace ostrel {

// The message that `json` describes, encoded, paired with `schema`.
SchematizedData encodeJSON(const MessageSchemaDescribing& schema, std::string_view json);
SchematizedData encodeJSON(const MessageSchema& schema, std::string_view json);

}  // namespace ostrel
