#include "ostrel/core/field_types.hpp"

#include <cstdlib>
#include <string>

#include "core/field_type_facts.hpp"
#include "ostrel/core/describing.hpp"

namespace ostrel {

std::string_view caseName(ProtoWireType type) noexcept {
  switch (type) {
    case ProtoWireType::varInt:
      return "varInt";
    case ProtoWireType::fixed64:
      return "fixed64";
    case ProtoWireType::lengthDelimited:
      return "lengthDelimited";
    case ProtoWireType::startGroup:
      return "startGroup";
    case ProtoWireType::endGroup:
      return "endGroup";
    case ProtoWireType::fixed32:
      return "fixed32";
  }
  return "unknown";
}

std::string_view stringName(TypeManifest type) noexcept {
  return detail::factsOf(type).manifestName;
}

std::optional<TypeManifest> parseTypeManifest(std::string_view name) noexcept {
  for (const detail::FieldTypeFacts& row : detail::field_type_facts::kRows) {
    if (row.manifestName == name) return row.manifestType;
  }
  return std::nullopt;
}

ProtoWireType wireType(TypeManifest type) noexcept { return detail::factsOf(type).wireType; }

std::optional<TypeSchemaDescription::Case> TypeSchemaDescription::scalarCaseOf(
    TypeManifest type) noexcept {
  const Case kind = detail::factsOf(type).kind;
  if (kind == Case::enum_ || kind == Case::message) return std::nullopt;
  return kind;
}

TypeSchemaDescription TypeSchemaDescription::scalar(Case scalarCase) {
  if (scalarCase == Case::enum_ || scalarCase == Case::message) std::abort();
  return TypeSchemaDescription(scalarCase);
}

TypeSchemaDescription TypeSchemaDescription::enumType(
    std::shared_ptr<EnumSchemaDescribing> schema) {
  TypeSchemaDescription type(Case::enum_);
  type.enum_ = std::move(schema);
  return type;
}

TypeSchemaDescription TypeSchemaDescription::messageType(
    std::shared_ptr<MessageSchemaDescribing> schema) {
  TypeSchemaDescription type(Case::message);
  type.message_ = std::move(schema);
  return type;
}

std::string TypeSchemaDescription::describe() const {
  std::string text(caseName(kind_));
  if (kind_ == Case::enum_ && enum_) text += "(" + enum_->name() + ")";
  if (kind_ == Case::message && message_) text += "(" + message_->name() + ")";
  return text;
}

bool operator==(const TypeSchemaDescription& a, const TypeSchemaDescription& b) {
  if (a.kind_ != b.kind_) return false;
  switch (a.kind_) {
    case TypeSchemaDescription::Case::enum_:
      return a.enum_ == b.enum_ || (a.enum_ && b.enum_ && a.enum_->name() == b.enum_->name());
    case TypeSchemaDescription::Case::message:
      return a.message_ == b.message_ ||
             (a.message_ && b.message_ && a.message_->name() == b.message_->name());
    default:
      return true;
  }
}

std::string_view caseName(TypeSchemaDescription::Case kind) noexcept {
  return detail::factsOf(kind).caseName;
}

ProtoWireType wireType(TypeSchemaDescription::Case kind) noexcept {
  return detail::factsOf(kind).wireType;
}

}  // namespace ostrel
