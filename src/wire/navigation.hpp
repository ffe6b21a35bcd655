#pragma once

// The walk of field path navigation as a template over what is made of the value found: readValue
// builds the internal value, the typed reads build a bare scalar. Expanded in place by each, so
// that the last step of a scalar read makes nothing but the value asked for.

#include <cstdint>
#include <optional>
#include <span>

#include "ostrel/core/errors.hpp"
#include "ostrel/core/field_types.hpp"
#include "ostrel/wire/reader.hpp"
#include "ostrel/wire/schematizer.hpp"
#include "wire/scalar_decoding.hpp"
#include "wire/value_decoding.hpp"

namespace ostrel::detail {

inline bool packable(TypeSchemaDescription::Case kind) noexcept {
  return kind != TypeSchemaDescription::Case::message &&
         kind != TypeSchemaDescription::Case::string && kind != TypeSchemaDescription::Case::bytes;
}

// The faults of a path that does not fit the bytes, thrown out of line so that the search loops
// keep their registers.
[[noreturn, gnu::cold, gnu::noinline]] void throwInvalidPath();
[[noreturn, gnu::cold, gnu::noinline]] void throwIntermediateNotDelimited();
[[noreturn, gnu::cold, gnu::noinline]] void throwUnexpectedType(uint32_t rawTag);
[[noreturn, gnu::cold, gnu::noinline]] void throwTypeMismatch(const TypeSchemaDescription& type,
                                                              ProtoWireType wireType);

// Reads the element that remains of `index` in the packed run at the reader's position (its length
// prefix), handing it to `make` as decodeFixedEncodingAs does; absent when the run holds no such
// element. Only the run's own bytes are ever taken as elements: an element that starts inside the
// run but ends past it is malformed. The run's end is recorded for iteration, and the reader is
// left just past the element read (or where the search stopped), also when reading fails.
template <typename Make>
auto readPackedElementAs(Reader& reader, const TypeSchemaDescription& type, int64_t index,
                         const Make& make) -> decltype(make(int32_t{})) {
  const int64_t length = reader.readLength();
  const int64_t start = reader.position();
  const int64_t end = start + length;
  reader.setLastComponentCompactedArrayEndPosition(end);
  Reader run = reader.narrowed(start, end);
  try {
    decltype(make(int32_t{})) value{};
    if ((index == 0 || skipPackedElements(run, type, index)) && run.hasMoreFields()) {
      value = decodeFixedEncodingAs(run, type, make);
      if (run.position() > end) throw SerializationError::malformedProtobuf();
    }
    reader.setPosition(run.position());
    return value;
  } catch (...) {
    reader.setPosition(run.position());
    throw;
  }
}

// readValue (wire/field_path.hpp) with the value made by `make` (an optional of the result, from
// each C++ type decodeFixedEncodingAs hands out) for the types whose encoding follows from the
// type, and by `other(reader, tag)` for message, string and bytes.
template <typename Make, typename Other>
[[gnu::always_inline]] inline auto readValueAs(Reader& reader,
                                               std::span<const FieldPathComponent> path,
                                               const TypeSchemaDescription& type, const Make& make,
                                               const Other& other) -> decltype(make(int32_t{})) {
  if (path.empty()) throwInvalidPath();

  // The outermost message is searched with the caller's reader itself, nested messages with a
  // second reader over the same bytes. The position and end of the message being searched are kept
  // in locals (registers) from level to level and written back to the reader in use before it
  // decodes, fails or is left: the same reader states as narrowing a copy of the caller's reader at
  // each level. (The second reader is made in place and only ever has its positions set: copying a
  // reader just after changing one of its fields stalls on the store.) When a nested walk finds
  // nothing, the caller's reader moves to the end of the outermost payload it entered.
  Reader nested(reader.bytes());
  Reader* current = &reader;
  int64_t position = reader.position();
  int64_t end = reader.endPosition();
  int64_t outermostPayloadEnd = -1;
  const size_t lastLevel = path.size() - 1;

  for (size_t level = 0;; ++level) {
    const FieldPathComponent& component = path[level];
    const bool last = level == lastLevel;
    // The raw tag of the occurrence found; 0 (never a valid tag) while none is.
    uint32_t found = 0;

    if (!component.index) [[likely]] {
      found = current->findField(component.number, position, end);
    } else {
      current->setPosition(position);
      current->setEndPosition(end);
      int64_t remaining = *component.index;
      while (current->hasMoreFields()) {
        const FieldTag tag = current->readTag();
        if (tag.fieldNumber() != component.number) {
          current->skipField(tag);
          continue;
        }
        const bool delimited = tag.wireType() == ProtoWireType::lengthDelimited;
        if (!last && !delimited && tag.wireType() != ProtoWireType::startGroup) {
          throwIntermediateNotDelimited();
        }
        if (last && delimited && packable(type.kind())) {
          // Only what is left of the index after the unpacked elements before this run counts,
          // and no later occurrence is consulted.
          return readPackedElementAs(*current, type, remaining, make);
        }
        if (remaining == 0) {
          found = tag.rawValue();
          break;
        }
        --remaining;
        current->skipField(tag);
      }
      position = current->position();
    }

    current->setPosition(position);
    if (found == 0) {
      if (level > 0 && outermostPayloadEnd <= reader.size()) {
        reader.setPosition(outermostPayloadEnd);
      }
      return {};
    }
    const auto wireType = static_cast<ProtoWireType>(found & 7);
    if (last) {
      // Scalars, the common last step, are decoded in place, exactly as decodeValue decodes them.
      const TypeSchemaDescription::Case kind = type.kind();
      if (!factsOf(kind).isFixedEncoding()) return other(*current, FieldTag(found));
      if (wireType != factsOf(kind).wireType) {
        throwTypeMismatch(type, wireType);
      }
      return decodeFixedEncodingAs(*current, type, make);
    }
    if (wireType == ProtoWireType::startGroup) {
      // A delimited message: its fields run up to the matching end-group tag.
      const ByteView group = current->readGroup(FieldTag(found).fieldNumber());
      position = group.data() - reader.bytes().data();
      end = position + static_cast<int64_t>(group.size());
    } else {
      if (wireType != ProtoWireType::lengthDelimited) throwUnexpectedType(found);
      const int64_t length = current->readLength(position);
      end = position + length;
    }
    if (level == 0) {
      reader.setPosition(position);
      outermostPayloadEnd = end;
      current = &nested;
    }
    nested.setPosition(position);
    nested.setEndPosition(end);
  }
}

}  // namespace ostrel::detail
