#include "wire/field_walk.hpp"

#include "ostrel/core/interrupts.hpp"
#include "ostrel/wire/reader.hpp"
#include "wire/value_decoding.hpp"

namespace ostrel {

void forEachPresentField(const SchematizedDataDescribing& data, const FieldVisitor& visit) {
  const auto& fields = data.messageSchema()->fieldsByNumber();
  Reader reader(data.bytes());
  while (reader.hasMoreFields()) {
    detail::pollInterrupt();
    const FieldTag tag = reader.readTag();
    const auto it = fields.find(tag.fieldNumber());
    if (it == fields.end()) {
      reader.skipField(tag);
      continue;
    }
    const std::shared_ptr<FieldSchemaDescribing>& field = it->second;
    const TypeSchemaDescription& type = field->type();
    const auto kind = type.kind();
    const bool packable = kind != TypeSchemaDescription::Case::message &&
                          kind != TypeSchemaDescription::Case::string &&
                          kind != TypeSchemaDescription::Case::bytes;
    if (field->isRepeated() && packable && tag.wireType() == ProtoWireType::lengthDelimited) {
      const ByteView run = reader.readLengthDelimited();
      const int64_t end = reader.position();
      Reader elements = reader.narrowed(end - static_cast<int64_t>(run.size()), end);
      while (elements.hasMoreFields()) {
        detail::AnyValueImpl element = decodePackedElement(elements, type);
        // An element running past the run's end has read the bytes that follow it.
        if (elements.position() > end) throw SerializationError::malformedProtobuf();
        visit(field, std::move(element));
      }
    } else {
      visit(field, decodeValue(reader, type, tag));
    }
  }
}

}  // namespace ostrel
