#pragma once

// Decoding of single field values from the wire into detail::AnyValueImpl, by the field's declared
// type. This is the last step of every read, so scalars are decoded without touching the heap;
// bytes and nested messages borrow from the reader's buffer and only strings are copied (the string
// type owns its storage).

#include <cstdint>
#include <string>

#include "core/utf8.hpp"
#include "ostrel/core/field_types.hpp"
#include "ostrel/core/values.hpp"
#include "ostrel/wire/reader.hpp"

namespace ostrel {

// Decodes the value that follows a tag of wire type `wireType`, with `reader` positioned just after
// that tag, and advances past it. The declared type admits exactly one wire type; any other
// (groups included, and a packed run where a single value is expected) throws
// SerializationError::typeMismatch(type, wireType) without moving the reader.
//
// Integers narrower than their varint keep its low bits, unchecked. Enums keep their number and
// schema; names are looked up only when asked for. Strings are copied, with every invalid UTF-8
// sequence replaced by U+FFFD. Bytes and message values borrow their payload from the reader's
// buffer: valid while the buffer passed to the reader is alive and unchanged; a message payload is
// not parsed here.
//
// Throws SerializationError::malformedProtobuf for a faulty varint or a negative length,
// truncated for a payload or fixed-width value cut short by the end of the buffer. A failed decode
// leaves the reader somewhere inside the value.
detail::AnyValueImpl decodeValue(Reader& reader, const TypeSchemaDescription& type,
                                 ProtoWireType wireType);

// decodeValue after `tag`, where a message value may also be a group of the tag's field number
// (the delimited encoding): its payload is then the group's fields.
detail::AnyValueImpl decodeValue(Reader& reader, const TypeSchemaDescription& type, FieldTag tag);

// Decodes one element of a packed run at the reader's position and advances past it. The encoding
// follows from the type: a varint for the integer, bool and enum types, 4 bytes for fixed32,
// sfixed32 and float, 8 bytes for fixed64, sfixed64 and double; the conversions are those of
// decodeValue. Throws SerializationError::malformedProtobuf for message, string and bytes, which
// cannot be packed, and the faults of decodeValue.
detail::AnyValueImpl decodePackedElement(Reader& reader, const TypeSchemaDescription& type);

// Steps over `count` elements of the packed run from the reader's position to its end position,
// so that the next decodePackedElement reads element `count`. Returns false when the run holds
// fewer than `count` elements from there (and for a negative count): the position is then
// anywhere inside the run. The run's end bounds the skip whatever the type, so that an element
// past it is never looked for in the bytes that follow. Fixed-width elements are skipped in one
// jump; varint elements one by one, which throws SerializationError::malformedProtobuf when one
// runs off the buffer or over the run's end. Throws malformedProtobuf for message, string and
// bytes.
bool skipPackedElements(Reader& reader, const TypeSchemaDescription& type, int64_t count);

}  // namespace ostrel
