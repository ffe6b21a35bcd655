#include "output/field_value_writing.hpp"

#include <algorithm>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "core/fatal.hpp"
#include "core/field_type_facts.hpp"
#include "ostrel/core/describing.hpp"
#include "ostrel/core/errors.hpp"
#include "ostrel/core/field_types.hpp"
#include "ostrel/core/values.hpp"
#include "output/field_type_table.hpp"

namespace ostrel {

void writeFieldValue(const detail::AnyValueImpl& value, const FieldSchemaDescribing& field,
                     ProtobufWriting& writer) {
  using Value = detail::AnyValueImpl::Case;

  // Both are asked before anything is written, so that a schema failure leaves the writer as it
  // was.
  const TypeSchemaDescription& type = field.type();
  const int64_t number = field.fieldNumber();

  switch (value.kind()) {
    // An integer value is written with the operation of the field's type, when that type takes
    // integers of its width and signedness; an enum field takes int32.
    case Value::int32:
    case Value::uint32:
    case Value::int64:
    case Value::uint64:
      if (detail::factsOf(type.kind()).writtenCase() == value.kind()) {
        return detail::fieldWrite(type.kind())(writer, value, number);
      }
      break;
    // The others are not checked against the field type: they have a single encoding each, and
    // callers rely on them being written as given.
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
      if (field.isDelimited()) return writer.writeGroup(value.messageValue().bytes(), number);
      return writer.writeData(value.messageValue().bytes(), number);
  }
  throw SerializationError::invalidIntType(AnyValue::from(value), type);
}

// The one way a message is written from values by field: any schema implementation gets it, so that
// the store need not know the writer.
SchematizedData MessageSchemaDescribing::buildData(const ValueForField& valueForField) const {
  std::optional<WireDataWriter> writer;
  try {
    writer.emplace();
  } catch (const std::bad_alloc&) {
    throw SchematizerError::internalError("Insufficient memory");
  }
  // Fields are written in name order, not number order; readers do not care about field order.
  std::vector<std::string> names = allFieldNames();
  std::sort(names.begin(), names.end());
  for (const std::string& fieldName : names) {
    const std::shared_ptr<FieldSchemaDescribing>& field = fieldNamed(fieldName);
    for (const AnyValue& value : valueForField(field))
      writeFieldValue(value.impl(), *field, *writer);
  }
  return schematizedData(writer->data());
}

}  // namespace ostrel
