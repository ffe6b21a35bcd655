#pragma once

// Navigation by field path: finding the value at a path of field numbers inside encoded bytes
// without decoding the message as a whole. Only the fields on the path are decoded; everything
// else is stepped over, nested messages are entered by narrowing a reader, and the first
// occurrence of a field wins.

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <vector>

#include "ostrel/core/describing.hpp"
#include "ostrel/core/field_types.hpp"
#include "ostrel/core/values.hpp"
#include "ostrel/wire/reader.hpp"
#include "ostrel/wire/schematizer.hpp"

namespace ostrel {

// Reads the value at `path` from the reader's position to its end position; no value when the path
// does not reach a value in these bytes. When the last component lands in a packed run, the reader
// records the run's end (lastComponentCompactedArrayEndPosition) and is left just past the element
// read, so that iteration can go on from there.
//
// An index counts the tagged elements met first and then the elements of the first packed run;
// later occurrences are not consulted. An index at or past the end of that run, or a negative
// one, reads nothing (whatever the element type, and wherever the run stands in the buffer): the
// bytes that follow a run are never taken for its elements. An element that starts inside the run
// but runs over its end throws SerializationError::malformedProtobuf.
//
// The value borrows from the reader's buffer (bytes, nested messages): valid while that buffer is
// alive and unchanged. Throws SchematizerError::protocolBufferError for an empty path ("invalid
// fieldPath") or a non-message occurrence where the path goes on, SerializationError::typeMismatch
// when the last field's wire type does not fit `type`, and the reader's faults.
std::optional<detail::AnyValueImpl> readValue(Reader& reader, std::span<const FieldPathComponent> path,
                                      const TypeSchemaDescription& type);
inline std::optional<detail::AnyValueImpl> readValue(Reader& reader, const FieldPathAndType& path) {
  return readValue(reader, path.fieldPath, path.type);
}

// Called once per value by forEachValue; may throw to end the walk.
using ValueVisitor = std::function<void(detail::AnyValueImpl&& value)>;

// Hands every value of `field` in the reader's message to `visit`, in encoding order: the first
// occurrence of a single field, every element of a repeated one, packed or not (each packed run
// exactly to its end). Values borrow as readValue's do. A packed element running over its run's
// end throws SerializationError::malformedProtobuf before it is visited. Every failure of reading
// or of the visitor ends the walk and is passed on.
void forEachValue(Reader& reader, const FieldSchemaDescribing& field, const ValueVisitor& visit);

}  // namespace ostrel
