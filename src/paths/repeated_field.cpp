#include "ostrel/paths/repeated_field.hpp"

#include <vector>

#include "ostrel/paths/property_path.hpp"
#include "store/map_entry.hpp"
#include "wire/exact_read.hpp"
#include "wire/field_path.hpp"
#include "wire/repeated_steps.hpp"
#include "wire/scalar_decoding.hpp"
#include "wire/value_decoding.hpp"

namespace ostrel {
namespace detail {

struct RepeatedFieldPlan {
  std::string path;
  // The message type the path starts from, and the way from it to the message holding the field
  // (no value for the record itself).
  std::shared_ptr<MessageSchemaDescribing> schema;
  std::optional<FieldPathAndType> holder;
  FieldSchema field;
  // The key and value fields of a map's entries.
  std::optional<MapEntryFields> map;
};

}  // namespace detail

namespace {

// The value protobuf's parse gives a field of `type` that the bytes leave out: what zero bytes of
// its encoding decode to (a zero varint or fixed value, a zero length).
AnyValue defaultValue(const TypeSchemaDescription& type) {
  static constexpr std::byte kZeros[8] = {};
  Reader reader{ByteView(kZeros)};
  if (detail::factsOf(type.kind()).isFixedEncoding()) {
    return AnyValue::from(decodePackedElement(reader, type));
  }
  return AnyValue::from(decodeValue(reader, type, ProtoWireType::lengthDelimited));
}

// Field `field` of the map entry `entry`, or its default when the entry leaves it out.
AnyValue entryMember(const detail::AnyValueImpl& entry, const FieldSchemaDescribing& field,
                     ReadMode mode) {
  const UnsafeSchematizedData& message = entry.messageValue();
  const FieldPathComponent path[] = {FieldPathComponent::fieldNumber(field.fieldNumber())};
  std::optional<detail::AnyValueImpl> found;
  Bytes merged;
  if (mode == ReadMode::exact) {
    found = detail::readValueExact(*message.messageSchema(), message.bytes(), path, field.type(),
                                   merged);
  } else {
    Reader reader(message.bytes());
    found = readValue(reader, path, field.type());
  }
  return found ? AnyValue::from(std::move(*found)) : defaultValue(field.type());
}

}  // namespace

std::string RepeatedField::Element::keyText() const {
  if (!key) throw SchematizerError::unexpectedType("expected a map key, found none");
  switch (key->kind()) {
    case AnyValue::Case::string:
      return key->stringValue();
    case AnyValue::Case::bool_:
      return key->boolValue() ? "true" : "false";
    case AnyValue::Case::int32:
      return std::to_string(key->int32Value());
    case AnyValue::Case::uint32:
      return std::to_string(key->uint32Value());
    case AnyValue::Case::int64:
      return std::to_string(key->int64Value());
    case AnyValue::Case::uint64:
      return std::to_string(key->uint64Value());
    default:
      throw SchematizerError::unexpectedType("expected a map key, found " +
                                             std::string(caseName(key->kind())));
  }
}

RepeatedField::RepeatedField(const MessageSchema& schema, std::string_view path) {
  const std::vector<PropertyPathElement> elements = PropertyPathUtil::parse(path);
  const PropertyPathElement& last = elements.back();
  std::optional<FieldPathAndType> holder;
  MessageSchema holding = schema;
  if (elements.size() > 1) {
    // After a successful parse the last "." separates the holder's path from the field's name:
    // names and indices hold no dots.
    holder = resolvePropertyPath(schema, path.substr(0, path.rfind('.')));
    if (holder->type.kind() != TypeSchemaDescription::Case::message) {
      throw SchematizerError::nonMessageTypeInKeypath();
    }
    holding = MessageSchema(holder->type.messageSchema());
  }
  FieldSchema field = holding.fieldNamed(last.propertyName);
  if (last.index || !field.isRepeated()) {
    throw SchematizerError::unexpectedType("\"" + std::string(path) +
                                           "\" is not a repeated field: name one without an index");
  }
  std::optional<detail::MapEntryFields> map;
  const TypeSchemaDescription& elementType = field.impl()->type();
  if (elementType.kind() == TypeSchemaDescription::Case::message) {
    map = detail::mapEntryFields(*elementType.messageSchema());
  }
  plan_ = std::make_shared<const detail::RepeatedFieldPlan>(detail::RepeatedFieldPlan{
      std::string(path), schema.impl(), std::move(holder), std::move(field), map});
}

const std::string& RepeatedField::path() const noexcept { return plan_->path; }
const FieldSchema& RepeatedField::field() const noexcept { return plan_->field; }
bool RepeatedField::isMap() const noexcept { return plan_->map.has_value(); }

std::optional<ByteView> RepeatedField::holderIn(ByteView record) const {
  if (!plan_->holder) return record;
  Reader reader(record);
  const std::optional<detail::AnyValueImpl> message = readValue(reader, *plan_->holder);
  if (!message) return std::nullopt;
  return message->messageValue().bytes();
}

RepeatedField::Elements RepeatedField::elements(ByteView record, ReadMode mode) const {
  return Elements(plan_, record, mode);
}

RepeatedField::Elements::Elements(std::shared_ptr<const detail::RepeatedFieldPlan> plan,
                                  ByteView record, ReadMode mode)
    : plan_(std::move(plan)),
      mode_(mode),
      holder_(record),
      bookmark_(detail::firstRepeatedBookmark(mode)) {}

RepeatedField::Elements::~Elements() = default;

std::optional<RepeatedField::Element> RepeatedField::Elements::next() {
  if (done_) return std::nullopt;
  const detail::RepeatedFieldPlan& plan = *plan_;
  if (!started_) {
    if (plan.holder) {
      std::optional<detail::AnyValueImpl> message;
      if (mode_ == ReadMode::exact) {
        message = detail::readValueExact(*plan.schema, holder_, plan.holder->fieldPath,
                                         plan.holder->type, merged_);
      } else {
        Reader reader(holder_);
        message = readValue(reader, *plan.holder);
      }
      if (!message) {
        done_ = true;
        return std::nullopt;
      }
      holder_ = message->messageValue().bytes();
    }
    started_ = true;
  }
  const FieldSchemaDescribing& field = *plan.field.impl();
  std::optional<AnyValue> value =
      detail::nextRepeatedElement(holder_, bookmark_, field.fieldNumber(), field.type(), mode_);
  if (!value) {
    done_ = true;
    return std::nullopt;
  }
  if (!plan.map) return Element{std::nullopt, std::move(*value)};
  // The entry's payload, a copy in the value, stays alive while its members are read.
  const detail::AnyValueImpl entry = value->impl();
  return Element{entryMember(entry, *plan.map->key, mode_),
                 entryMember(entry, *plan.map->value, mode_)};
}

}  // namespace ostrel
