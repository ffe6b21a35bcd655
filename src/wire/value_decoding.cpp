#include "wire/value_decoding.hpp"

#include <array>
#include <bit>
#include <cstring>

#include "wire/scalar_decoding.hpp"

namespace ostrel {
namespace {

using detail::Case;
using detail::decodeFixedEncoding;
using detail::factsOf;

// Moves past `count` elements of `width` bytes when all of them lie inside the run, which ends at
// the reader's end position. The arithmetic is done on what is left of the run, so that no count
// can overflow it.
bool skipFixedWidth(Reader& reader, int64_t width, int64_t count) {
  const int64_t left = reader.endPosition() - reader.position();
  if (count > left / width) return false;
  reader.setPosition(reader.position() + count * width);
  return true;
}

}  // namespace

detail::AnyValueImpl decodeValue(Reader& reader, const TypeSchemaDescription& type,
                                 ProtoWireType wireType) {
  const Case kind = type.kind();
  if (wireType != factsOf(kind).wireType) [[unlikely]] {
    throw SerializationError::typeMismatch(type, wireType);
  }
  switch (kind) {
    case Case::string:
      return detail::AnyValueImpl::string(decodeUtf8Lossy(reader.readLengthDelimited()));
    case Case::bytes:
      return detail::AnyValueImpl::bytes(reader.readLengthDelimited());
    case Case::message:
      return detail::AnyValueImpl::message(
          UnsafeSchematizedData(type.messageSchema(), reader.readLengthDelimited()));
    default:
      return decodeFixedEncoding(reader, type);
  }
}

detail::AnyValueImpl decodeValue(Reader& reader, const TypeSchemaDescription& type, FieldTag tag) {
  if (type.kind() == Case::message && tag.wireType() == ProtoWireType::startGroup) {
    return detail::AnyValueImpl::message(
        UnsafeSchematizedData(type.messageSchema(), reader.readGroup(tag.fieldNumber())));
  }
  return decodeValue(reader, type, tag.wireType());
}

detail::AnyValueImpl decodePackedElement(Reader& reader, const TypeSchemaDescription& type) {
  return decodeFixedEncoding(reader, type);
}

bool skipPackedElements(Reader& reader, const TypeSchemaDescription& type, int64_t count) {
  if (count < 0) return false;
  switch (factsOf(type.kind()).wireType) {
    case ProtoWireType::fixed32:
      return skipFixedWidth(reader, 4, count);
    case ProtoWireType::fixed64:
      return skipFixedWidth(reader, 8, count);
    case ProtoWireType::varInt:
      break;
    default:
      throw SerializationError::malformedProtobuf();
  }
  const int64_t end = reader.endPosition();
  for (int64_t i = 0; i < count; ++i) {
    if (reader.position() >= end) return false;
    reader.readVarintValue();
  }
  // The last element skipped must have ended inside the run.
  if (reader.position() > end) throw SerializationError::malformedProtobuf();
  return true;
}

}  // namespace ostrel
