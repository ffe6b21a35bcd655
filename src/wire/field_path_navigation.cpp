// Navigation of encoded messages along field paths (the reader extended with FieldPathAndType).

#include "wire/field_path.hpp"
#include "wire/navigation.hpp"
#include "wire/scalar_decoding.hpp"
#include "wire/value_decoding.hpp"

namespace ostrel {
namespace detail {

void throwInvalidPath() { throw SchematizerError::protocolBufferError("invalid fieldPath"); }

void throwIntermediateNotDelimited() {
  throw SchematizerError::protocolBufferError(
      "Element at intermediate path must have length delimited wire type (message)");
}

void throwUnexpectedType(uint32_t rawTag) {
  throw SchematizerError::protocolBufferError("Unexpected PB type reading message: " +
                                              FieldTag(rawTag).describe());
}

void throwTypeMismatch(const TypeSchemaDescription& type, ProtoWireType wireType) {
  throw SerializationError::typeMismatch(type, wireType);
}

}  // namespace detail

std::optional<detail::AnyValueImpl> readValue(Reader& reader,
                                              std::span<const FieldPathComponent> path,
                                              const TypeSchemaDescription& type) {
  return detail::readValueAs(
      reader, path, type, detail::MakeOptionalValueImpl{}, [&type](Reader& current, FieldTag tag) {
        return std::optional<detail::AnyValueImpl>(decodeValue(current, type, tag));
      });
}

void forEachValue(Reader& reader, const FieldSchemaDescribing& field, const ValueVisitor& visit) {
  const TypeSchemaDescription& type = field.type();
  const int64_t number = field.fieldNumber();
  if (!field.isRepeated()) {
    const FieldPathComponent path[] = {FieldPathComponent::fieldNumber(number)};
    if (auto value = readValue(reader, path, type)) visit(std::move(*value));
    return;
  }
  const bool packedAllowed = detail::packable(type.kind());
  while (reader.hasMoreFields()) {
    const FieldTag tag = reader.readTag();
    if (tag.fieldNumber() != number) {
      reader.skipField(tag);
      continue;
    }
    if (tag.wireType() == ProtoWireType::lengthDelimited && packedAllowed) {
      // Exactly the run's own elements: the last one must end where the run ends.
      const int64_t length = reader.readLength();
      const int64_t end = reader.position() + length;
      while (reader.position() < end) {
        detail::AnyValueImpl element = decodePackedElement(reader, type);
        if (reader.position() > end) throw SerializationError::malformedProtobuf();
        visit(std::move(element));
      }
    } else {
      visit(decodeValue(reader, type, tag));
    }
  }
}

}  // namespace ostrel
