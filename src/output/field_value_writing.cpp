#include "ostrel/core/describing.hpp"
#include "ostrel/core/errors.hpp"
#include "ostrel/core/fatal.hpp"
#include "ostrel/core/field_types.hpp"
#include "ostrel/core/values.hpp"
#include "ostrel/output/protobuf_writing.hpp"

namespace ostrel {

void writeFieldValue(const AnyValueImpl& value, const FieldSchemaDescribing& field,
                     ProtobufWriting& writer) {
  using Value = AnyValueImpl::Case;
  using Type = TypeSchemaDescription::Case;

  // Both are asked before anything is written, so that a schema failure leaves the writer as it
  // was.
  const TypeSchemaDescription& type = field.type();
  const int64_t number = field.fieldNumber();

  switch (value.kind()) {
    case Value::int32:
      switch (type.kind()) {
        case Type::int32:
        case Type::enum_:
          return writer.writeInt32(value.int32Value(), number);
        case Type::sint32:
          return writer.writeSint32(value.int32Value(), number);
        case Type::sfixed32:
          return writer.writeSfixed32(value.int32Value(), number);
        default:
          break;
      }
      break;
    case Value::uint32:
      switch (type.kind()) {
        case Type::uint32:
          return writer.writeUint32(value.uint32Value(), number);
        case Type::fixed32:
          return writer.writeFixed32(value.uint32Value(), number);
        default:
          break;
      }
      break;
    case Value::int64:
      switch (type.kind()) {
        case Type::int64:
          return writer.writeInt64(value.int64Value(), number);
        case Type::sint64:
          return writer.writeSint64(value.int64Value(), number);
        case Type::sfixed64:
          return writer.writeSfixed64(value.int64Value(), number);
        default:
          break;
      }
      break;
    case Value::uint64:
      switch (type.kind()) {
        case Type::uint64:
          return writer.writeUint64(value.uint64Value(), number);
        case Type::fixed64:
          return writer.writeFixed64(value.uint64Value(), number);
        default:
          break;
      }
      break;
    // Only the integer cases are checked against the field type: the others have a single
    // encoding each, and callers rely on them being written as given.
    case Value::float_:
      return writer.writeFloat(value.floatValue(), number);
    case Value::double_:
      return writer.writeDouble(value.doubleValue(), number);
    case Value::bool_:
      return writer.writeBOOL(value.boolValue(), number);
    case Value::string:
      return writer.writeString(value.stringValue(), number);
    case Value::enum_: {
      const int64_t enumNumber = value.enumValue().number();
      if (enumNumber < 0) detail::fatal("Negative value is not representable");
      return writer.writeUint64(static_cast<uint64_t>(enumNumber), number);
    }
    case Value::bytes:
      return writer.writeData(value.bytesValue().view(), number);
    case Value::message:
      return writer.writeData(value.messageValue().bytes(), number);
  }
  throw SerializationError::invalidIntType(value, type);
}

}  // namespace ostrel
