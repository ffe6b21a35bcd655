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

namespace ostrel {

// One step of a field path: the field with a number, read as a single field, or element `index`
// (from 0) of a repeated field.
struct FieldPathComponent {
  int64_t number = 0;
  std::optional<int64_t> index;

  static FieldPathComponent fieldNumber(int64_t number) { return {number, std::nullopt}; }
  static FieldPathComponent repeatableFieldNumber(int64_t number, int64_t index) {
    return {number, index};
  }
  bool isRepeatable() const noexcept { return index.has_value(); }

  friend bool operator==(const FieldPathComponent&, const FieldPathComponent&) = default;
};

// A path from the outermost message inward (every component but the last names a message field)
// and the declared type of the last field, which decides how the final value is decoded.
struct FieldPathAndType {
  std::vector<FieldPathComponent> fieldPath;
  TypeSchemaDescription type;
};

// Reads the value at `path` from the reader's position to its end position; no value when the path
// does not reach a value in these bytes. When the last component lands in a packed run, the reader
// records the run's end (lastComponentCompactedArrayEndPosition) and is left just past the element
// read, so that iteration can go on from there.
//
// The value borrows from the reader's buffer (bytes, nested messages): valid while that buffer is
// alive and unchanged. Throws SchematizerError::protocolBufferError for an empty path ("invalid
// fieldPath") or a non-message occurrence where the path goes on, SerializationError::typeMismatch
// when the last field's wire type does not fit `type`, and the reader's faults.
std::optional<AnyValueImpl> readValue(Reader& reader, std::span<const FieldPathComponent> path,
                                      const TypeSchemaDescription& type);
inline std::optional<AnyValueImpl> readValue(Reader& reader, const FieldPathAndType& path) {
  return readValue(reader, path.fieldPath, path.type);
}

// Called once per value by forEachValue; may throw to end the walk.
using ValueVisitor = std::function<void(AnyValueImpl&& value)>;

// Hands every value of `field` in the reader's message to `visit`, in encoding order: the first
// occurrence of a single field, every element of a repeated one, packed or not. Values borrow as
// readValue's do. Every failure of reading or of the visitor ends the walk and is passed on.
void forEachValue(Reader& reader, const FieldSchemaDescribing& field, const ValueVisitor& visit);

}  // namespace ostrel
