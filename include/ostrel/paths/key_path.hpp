#pragma once

// Resolution of property paths such as a.b[2].c against a message schema, into the field path and
// declared type that the wire navigation reads.

#include <string_view>

#include "ostrel/core/describing.hpp"
#include "ostrel/wire/field_path.hpp"

namespace ostrel {

// Splits `path` at every "." and looks each name up in the current message schema. A component
// written name[index] must name a repeated field, one without an index a field that is not
// repeated; every component but the last must name a message field.
//
// Throws SchematizerError: nonMessageTypeInKeypath, invalidIndexInKeypath (brackets out of order,
// an index that is empty, not a decimal integer, negative, or followed by more text),
// scalarValueAccessWithIndex, repeatedValueAccessNoIndex, and the schema's own lookup and type
// resolution errors (fieldNotFound, ...). Nothing is returned on failure.
FieldPathAndType resolveKeyPath(const MessageSchemaDescribing& schema, std::string_view path);

}  // namespace ostrel
