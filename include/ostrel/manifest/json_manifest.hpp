#pragma once

// The JSON form of a schema manifest: one JSON object whose member names are the record field
// names, for example
//
//   {"messages": {"shop.Order": {"fields": {"state": {"type": "enum", "typeName": "shop.State",
//                                                     "fieldNumber": 3, "oneofIndex": 0}},
//                                "oneofs": [{"name": "status"}], "options": "GAE="}},
//    "enums": {"shop.State": {"values": {"OPEN": 0, "PAID": 1}, "valueOptions": {"1": "CAE="}}}}
//
// Field types are written by their manifest names ("int", "uint", "schema", "data", ...). Raw
// options are standard padded base64; an empty buffer is "" and stays distinct from an omitted
// member, which means absent. valueOptions is keyed by the value number in canonical decimal.
// "messages", "enums", "fields", "oneofs", "values" and "valueOptions" may be omitted when empty
// and "isRepeated" when false; a field's "type" and "fieldNumber" and a oneof's "name" are
// required.

#include <string>
#include <string_view>

#include "ostrel/manifest/manifest.hpp"

namespace ostrel {

// Reads the JSON form. Strict: malformed JSON text, a member of the wrong JSON type, an unknown or
// repeated member, an unknown type name, base64 that base64 encoding would not have written, an
// integer that does not fit its field, a valueOptions key that is not a canonical decimal integer
// and an oneofIndex outside the message's oneofs all fail. Throws
// SchemaManifestJSONError::invalidValueType whose text is the JSON path of the fault and what was
// expected there, for example `messages["shop.Order"].fields["id"].fieldNumber: expected an
// integer`; the document itself is `$`.
SchemaManifest schemaManifestFromJSON(std::string_view json);

// Writes the JSON form, omitting absent and empty members as described above. The output is
// deterministic: object members in ascending byte order of their names, compact, or indented by
// two spaces when `pretty`. Reading it back gives an equal manifest when the manifest keeps the
// invariant that every oneofIndex points into its message's oneofs. Throws
// SchemaManifestJSONError::invalidValueType, with the path, for a name that is not UTF-8 text,
// since JSON cannot carry it.
std::string schemaManifestToJSON(const SchemaManifest& manifest, bool pretty = false);

}  // namespace ostrel
