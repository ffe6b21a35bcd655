#pragma once

// Writing one value of a field through a wire writer, as buildData and parseJSON do.

#include "ostrel/core/describing.hpp"
#include "ostrel/core/values.hpp"
#include "ostrel/output/protobuf_writing.hpp"

namespace ostrel {

// Writes `value` as field `field` with exactly one write operation chosen by the value's case and
// the field's type. Integer values must match the field type exactly (an int32 value suits int32,
// enum, sint32 and sfixed32 fields; uint32 suits uint32 and fixed32; int64 suits int64, sint64 and
// sfixed64; uint64 suits uint64 and fixed64); any other pairing throws
// SerializationError::invalidIntType and writes nothing. Floats, doubles, booleans, strings, bytes
// and nested messages are written by their own case whatever the field type; a message in a
// delimited field (FieldSchemaDescribing::isDelimited) as a group. An enum value is
// written as a uint64 varint of its number; a name unknown to its enum throws the enum's lookup
// error, and a negative number stops the process (it cannot be written as uint64).
//
// Errors of the field schema (its type() or fieldNumber()) pass through unchanged.
void writeFieldValue(const detail::AnyValueImpl& value, const FieldSchemaDescribing& field,
                     ProtobufWriting& writer);

}  // namespace ostrel
