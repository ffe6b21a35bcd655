#pragma once

// Reads by field path with protobuf's parse semantics (ReadMode::exact): every occurrence of each
// field on the path is visited, to the end of the record. A singular scalar takes its last
// occurrence; the occurrences of a singular message are merged (their payloads concatenated, which
// is what parsing them one after the other does: later scalars win, repeated fields append,
// messages merge again); an occurrence of another member of the same oneof clears what came before
// it; an index counts every element of a repeated field, packed or not, in the order of the bytes.

#include <cstdint>
#include <optional>
#include <span>

#include "ostrel/core/describing.hpp"
#include "ostrel/core/errors.hpp"
#include "ostrel/core/values.hpp"
#include "ostrel/wire/reader.hpp"
#include "ostrel/wire/schematizer.hpp"
#include "wire/navigation.hpp"
#include "wire/scalar_decoding.hpp"

namespace ostrel::detail {

// Where the exact value of a path is: `reader` stands just after the tag of the occurrence that
// wins (wire type `wireType`), or at a packed element (`packedElement`). When a message occurs more
// than once, `reader` reads `merged`, which then holds one length-delimited value: the length, then
// the occurrences' payloads one after the other.
struct ExactLocation {
  Reader reader;
  ProtoWireType wireType = ProtoWireType::varInt;
  bool packedElement = false;
};

// Locates the value at `path` in `data`, a message of `schema`; no value when protobuf's parse
// would leave the field unset (or the index past the last element). Throws as readValue does, and
// SerializationError::typeMismatch for any occurrence of a path field whose wire type does not fit
// it, truncated for a field running past the end of the bytes: the whole of every message on the
// path is read. `merged` must outlive the use of the location.
std::optional<ExactLocation> locateExact(const MessageSchemaDescribing& schema, ByteView data,
                                         std::span<const FieldPathComponent> path,
                                         const TypeSchemaDescription& type, Bytes& merged);

// readValueAs with protobuf's parse semantics: `make` for the types whose encoding follows from
// the type, `other(reader, wireType)` for message, string and bytes. Values borrow from `data` or
// from `merged`.
template <typename Make, typename Other>
auto readValueExactAs(const MessageSchemaDescribing& schema, ByteView data,
                      std::span<const FieldPathComponent> path, const TypeSchemaDescription& type,
                      Bytes& merged, const Make& make, const Other& other)
    -> decltype(make(int32_t{})) {
  std::optional<ExactLocation> found = locateExact(schema, data, path, type, merged);
  if (!found) return {};
  const TypeSchemaDescription::Case kind = type.kind();
  if (!factsOf(kind).isFixedEncoding()) return other(found->reader, found->wireType);
  if (!found->packedElement && found->wireType != factsOf(kind).wireType) {
    throwTypeMismatch(type, found->wireType);
  }
  return decodeFixedEncodingAs(found->reader, type, make);
}

// The value at `path` as protobuf's parse of `data` holds it, as an internal value (see
// readValueExactAs).
std::optional<AnyValueImpl> readValueExact(const MessageSchemaDescribing& schema, ByteView data,
                                           std::span<const FieldPathComponent> path,
                                           const TypeSchemaDescription& type, Bytes& merged);

}  // namespace ostrel::detail
