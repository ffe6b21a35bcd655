#include "values.hpp"

namespace py = pybind11;

namespace ostrel::python {
namespace {

using Case = TypeSchemaDescription::Case;

// What protobuf reads for a map entry's key or value that the entry leaves out.
py::object defaultFor(const TypeSchema& type) {
  switch (type.kind()) {
    case Case::message:
      return py::dict();
    case Case::enum_: {
      const EnumSchema schema = *type.enumSchema();
      if (const std::string* name = schema.impl()->findValueNameFor(0)) return py::str(*name);
      return py::int_(0);
    }
    case Case::double_:
    case Case::float_:
      return py::float_(0.0);
    case Case::bool_:
      return py::bool_(false);
    case Case::string:
      return py::str("");
    case Case::bytes:
      return py::bytes("");
    default:
      return py::int_(0);
  }
}

py::dict mapToPython(ByteView container, const FieldSchema& field, const MessageSchema& entry,
                     ReadMode mode) {
  const FieldSchema keyField = entry.fieldWithNumber(1);
  const FieldSchema valueField = entry.fieldWithNumber(2);
  const FieldPathAndType keyPath{{FieldPathComponent::fieldNumber(1)},
                                 keyField.type().description()};
  const FieldPathAndType valuePath{{FieldPathComponent::fieldNumber(2)},
                                   valueField.type().description()};
  py::dict out;
  Schematizer::RepeatableFieldIterator entries(container, field.fieldNumber(), field.type(), mode);
  while (const std::optional<AnyValue> element = entries.next()) {
    const SchematizedData& data = element->messageValue();
    const std::optional<AnyValue> key = data.value(keyPath, mode);
    const std::optional<AnyValue> value = data.value(valuePath, mode);
    // Of several entries with one key the last wins, as protobuf's parse keeps it.
    out[key ? toPython(*key, mode) : defaultFor(keyField.type())] =
        value ? toPython(*value, mode) : defaultFor(valueField.type());
  }
  return out;
}

}  // namespace

RecordBuffer::RecordBuffer(const py::handle& object) {
  if (PyUnicode_Check(object.ptr())) {
    throw py::type_error("a record is bytes-like (bytes, bytearray, memoryview), not str");
  }
  if (PyObject_GetBuffer(object.ptr(), &view_, PyBUF_SIMPLE) != 0) throw py::error_already_set();
}

bool isMapEntry(const MessageSchema& schema) {
  const std::optional<SchematizedData>& options = schema.options();
  if (!options) return false;
  // map_entry, field 7 of google.protobuf.MessageOptions; the store keeps options as raw bytes.
  constexpr int64_t kMapEntry = 7;
  const std::optional<AnyValue> flag = Schematizer::value(
      options->bytes(), kMapEntry, TypeSchema(TypeSchemaDescription::scalar(Case::bool_)));
  return flag && flag->boolValue();
}

py::object toPython(const AnyValue& value, ReadMode mode) {
  switch (value.kind()) {
    case AnyValue::Case::int32:
      return py::int_(value.int32Value());
    case AnyValue::Case::uint32:
      return py::int_(value.uint32Value());
    case AnyValue::Case::int64:
      return py::int_(value.int64Value());
    case AnyValue::Case::uint64:
      return py::int_(value.uint64Value());
    case AnyValue::Case::float_:
      return py::float_(static_cast<double>(value.floatValue()));
    case AnyValue::Case::double_:
      return py::float_(value.doubleValue());
    case AnyValue::Case::bool_:
      return py::bool_(value.boolValue());
    case AnyValue::Case::enum_: {
      const EnumValue& enumValue = value.enumValue();
      if (std::optional<std::string> name = enumValue.findName()) return py::str(*name);
      return py::int_(enumValue.number());
    }
    case AnyValue::Case::string:
      // The reader has already replaced invalid UTF-8, so this cannot fail.
      return py::str(value.stringValue());
    case AnyValue::Case::bytes: {
      const Bytes& bytes = value.bytesValue();
      return py::bytes(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    }
    case AnyValue::Case::message:
      return messageToDict(value.messageValue(), mode);
  }
  return py::none();
}

py::object repeatedToPython(ByteView container, const FieldSchema& field, ReadMode mode) {
  const TypeSchema type = field.type();
  if (const std::optional<MessageSchema> entry = type.messageSchema();
      entry && isMapEntry(*entry)) {
    return mapToPython(container, field, *entry, mode);
  }
  py::list out;
  Schematizer::RepeatableFieldIterator elements(container, field.fieldNumber(), type, mode);
  while (const std::optional<AnyValue> element = elements.next()) {
    out.append(toPython(*element, mode));
  }
  return out;
}

py::dict messageToDict(const SchematizedData& data, ReadMode mode) {
  py::dict out;
  for (const auto& [number, field] : data.messageSchema().fieldsByNumber()) {
    if (field.isRepeated()) {
      py::object elements = repeatedToPython(data.bytes(), field, mode);
      if (py::len(elements) > 0) out[py::str(field.name())] = std::move(elements);
      continue;
    }
    const FieldPathAndType path{{FieldPathComponent::fieldNumber(number)},
                                field.type().description()};
    if (const std::optional<AnyValue> value = data.value(path, mode)) {
      out[py::str(field.name())] = toPython(*value, mode);
    }
  }
  return out;
}

std::optional<RepeatedTarget> repeatedTarget(const MessageSchema& schema, std::string_view path) {
  const std::vector<PropertyPathElement> elements = PropertyPathUtil::parse(path);
  if (elements.back().index) return std::nullopt;
  // The parser accepted the path, so its last dot ends the path of the containing message.
  const size_t lastDot = path.rfind('.');
  const std::string containerPath(lastDot == std::string_view::npos ? "" : path.substr(0, lastDot));
  MessageSchema container = schema;
  if (!containerPath.empty()) {
    const FieldPathAndType resolved = resolvePropertyPath(schema, containerPath);
    // Not a message: the full path's own resolution reports it.
    if (resolved.type.kind() != Case::message) return std::nullopt;
    container = MessageSchema(resolved.type.messageSchema());
  }
  std::optional<FieldSchema> field = container.findFieldNamed(elements.back().propertyName);
  if (!field || !field->isRepeated()) return std::nullopt;
  return RepeatedTarget{containerPath, *field};
}

std::optional<ByteView> containerBytes(const MessageSchema& schema, ByteView record,
                                       const RepeatedTarget& target, ReadMode mode,
                                       std::optional<AnyValue>& holder) {
  if (target.containerPath.empty()) return record;
  holder = UnsafeSchematizedData(schema.impl(), record).value(target.containerPath, mode);
  if (!holder) return std::nullopt;
  return holder->messageValue().bytes();
}

}  // namespace ostrel::python
