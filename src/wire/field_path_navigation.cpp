// Navigation of encoded messages along field paths (the reader extended with FieldPathAndType).

#include "ostrel/wire/field_path.hpp"
#include "ostrel/wire/value_decoding.hpp"
#include "wire/scalar_decoding.hpp"

namespace ostrel {
namespace {

bool packable(TypeSchemaDescription::Case kind) noexcept {
  return kind != TypeSchemaDescription::Case::message &&
         kind != TypeSchemaDescription::Case::string && kind != TypeSchemaDescription::Case::bytes;
}

// Reads the element that remains of `index` in the packed run at the reader's position (its length
// prefix). The run's end is recorded for iteration, and the reader is left just past the element,
// also when reading it fails.
AnyValueImpl readPackedElement(Reader& reader, const TypeSchemaDescription& type, int64_t index) {
  const int64_t length = reader.readLength();
  const int64_t start = reader.position();
  reader.setLastComponentCompactedArrayEndPosition(start + length);
  Reader run = reader.narrowed(start, start + length);
  try {
    if (index >= 1) skipPackedElements(run, type, index);
    AnyValueImpl value = decodePackedElement(run, type);
    reader.setPosition(run.position());
    return value;
  } catch (...) {
    reader.setPosition(run.position());
    throw;
  }
}

// The faults of a path that does not fit the bytes, thrown out of line so that the search loops
// keep their registers.
[[noreturn, gnu::cold, gnu::noinline]] void throwInvalidPath() {
  throw SchematizerError::protocolBufferError("invalid fieldPath");
}

[[noreturn, gnu::cold, gnu::noinline]] void throwIntermediateNotDelimited() {
  throw SchematizerError::protocolBufferError(
      "Element at intermediate path must have length delimited wire type (message)");
}

[[noreturn, gnu::cold, gnu::noinline]] void throwUnexpectedType(uint32_t rawTag) {
  throw SchematizerError::protocolBufferError("Unexpected PB type reading message: " +
                                              FieldTag(rawTag).describe());
}

[[noreturn, gnu::cold, gnu::noinline]] void throwTypeMismatch(const TypeSchemaDescription& type,
                                                              ProtoWireType wireType) {
  throw SerializationError::typeMismatch(type, wireType);
}

}  // namespace

std::optional<AnyValueImpl> readValue(Reader& reader, std::span<const FieldPathComponent> path,
                                      const TypeSchemaDescription& type) {
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
        if (!last && !delimited) throwIntermediateNotDelimited();
        if (last && delimited && packable(type.kind())) {
          // Only what is left of the index after the unpacked elements before this run counts,
          // and no later occurrence is consulted.
          return readPackedElement(*current, type, remaining);
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
      return std::nullopt;
    }
    const auto wireType = static_cast<ProtoWireType>(found & 7);
    if (last) {
      // Scalars, the common last step, are decoded in place, exactly as decodeValue decodes them.
      const TypeSchemaDescription::Case kind = type.kind();
      if (!detail::hasFixedEncoding(kind)) return decodeValue(*current, type, wireType);
      if (wireType != detail::kRequiredWireType[static_cast<size_t>(kind)]) {
        throwTypeMismatch(type, wireType);
      }
      return detail::decodeFixedEncodingAs(*current, type, detail::MakeOptionalValueImpl{});
    }
    if (wireType != ProtoWireType::lengthDelimited) throwUnexpectedType(found);
    const int64_t length = current->readLength(position);
    end = position + length;
    if (level == 0) {
      reader.setPosition(position);
      outermostPayloadEnd = end;
      current = &nested;
    }
    nested.setPosition(position);
    nested.setEndPosition(end);
  }
}

void forEachValue(Reader& reader, const FieldSchemaDescribing& field, const ValueVisitor& visit) {
  const TypeSchemaDescription& type = field.type();
  const int64_t number = field.fieldNumber();
  if (!field.isRepeated()) {
    const FieldPathComponent path[] = {FieldPathComponent::fieldNumber(number)};
    if (auto value = readValue(reader, path, type)) visit(std::move(*value));
    return;
  }
  const bool packedAllowed = packable(type.kind());
  while (reader.hasMoreFields()) {
    const FieldTag tag = reader.readTag();
    if (tag.fieldNumber() != number) {
      reader.skipField(tag);
      continue;
    }
    if (tag.wireType() == ProtoWireType::lengthDelimited && packedAllowed) {
      // The run's end is counted from the start of its length prefix, so it falls short of the
      // true end by the size of the prefix; the walk stops only where a position meets it exactly.
      const int64_t prefixStart = reader.position();
      const int64_t end = prefixStart + reader.readLength();
      while (reader.position() != end) visit(decodePackedElement(reader, type));
    } else {
      visit(decodeValue(reader, type, tag.wireType()));
    }
  }
}

}  // namespace ostrel
