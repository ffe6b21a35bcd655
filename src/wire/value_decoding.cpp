#include "wire/value_decoding.hpp"

#include <array>
#include <bit>
#include <cstring>

#include "wire/scalar_decoding.hpp"

namespace ostrel {
namespace {

using detail::Case;
using detail::decodeFixedEncoding;
using detail::kRequiredWireType;

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
  if (wireType != kRequiredWireType[static_cast<size_t>(kind)]) [[unlikely]] {
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
  switch (type.kind()) {
    case Case::message:
    case Case::string:
    case Case::bytes:
      throw SerializationError::malformedProtobuf();
    case Case::fixed32:
    case Case::sfixed32:
    case Case::float_:
      return skipFixedWidth(reader, 4, count);
    case Case::fixed64:
    case Case::sfixed64:
    case Case::double_:
      return skipFixedWidth(reader, 8, count);
    case Case::int32:
    case Case::uint32:
    case Case::sint32:
    case Case::int64:
    case Case::uint64:
    case Case::sint64:
    case Case::bool_:
    case Case::enum_:
      break;
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
