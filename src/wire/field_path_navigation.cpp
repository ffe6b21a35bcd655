// Navigation of encoded messages along field paths (the reader extended with FieldPathAndType).

#include "ostrel/wire/field_path.hpp"
#include "ostrel/wire/value_decoding.hpp"

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

}  // namespace

std::optional<AnyValueImpl> readValue(Reader& reader, std::span<const FieldPathComponent> path,
                                      const TypeSchemaDescription& type) {
  if (path.empty()) throw SchematizerError::protocolBufferError("invalid fieldPath");

  // Nested messages are read through narrowed copies of the caller's reader. When a nested walk
  // finds nothing, the caller's reader moves to the end of the outermost payload it entered.
  Reader nested;
  Reader* current = &reader;
  int64_t outermostPayloadEnd = -1;

  for (size_t level = 0; level < path.size(); ++level) {
    const FieldPathComponent& component = path[level];
    const bool last = level + 1 == path.size();
    std::optional<FieldTag> found;

    if (!component.index) {
      while (current->hasMoreFields()) {
        const FieldTag tag = current->readTag();
        if (tag.fieldNumber() == component.number) {
          found = tag;
          break;
        }
        current->skipField(tag);
      }
    } else {
      int64_t remaining = *component.index;
      while (current->hasMoreFields()) {
        const FieldTag tag = current->readTag();
        if (tag.fieldNumber() != component.number) {
          current->skipField(tag);
          continue;
        }
        const bool delimited = tag.wireType() == ProtoWireType::lengthDelimited;
        if (!last && !delimited) {
          throw SchematizerError::protocolBufferError(
              "Element at intermediate path must have length delimited wire type (message)");
        }
        if (last && delimited && packable(type.kind())) {
          // Only what is left of the index after the unpacked elements before this run counts,
          // and no later occurrence is consulted.
          return readPackedElement(*current, type, remaining);
        }
        if (remaining == 0) {
          found = tag;
          break;
        }
        --remaining;
        current->skipField(tag);
      }
    }

    if (!found) {
      if (level > 0 && outermostPayloadEnd <= reader.size()) {
        reader.setPosition(outermostPayloadEnd);
      }
      return std::nullopt;
    }
    if (last) return decodeValue(*current, type, found->wireType());
    if (found->wireType() != ProtoWireType::lengthDelimited) {
      throw SchematizerError::protocolBufferError("Unexpected PB type reading message: " +
                                                  found->describe());
    }
    const int64_t length = current->readLength();
    const int64_t start = current->position();
    if (level == 0) outermostPayloadEnd = start + length;
    nested = current->narrowed(start, start + length);
    current = &nested;
  }
  return std::nullopt;  // unreachable: the last level returns
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
