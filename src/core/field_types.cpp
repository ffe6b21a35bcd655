#include "ostrel/core/field_types.hpp"

#include <array>
#include <cstdlib>
#include <string>

#include "ostrel/core/describing.hpp"

namespace ostrel {
namespace {

constexpr std::array<std::string_view, kTypeManifestCount> kManifestNames = {
    "double", "float", "int64", "uint64", "int",      "fixed64",  "fixed32", "bool",  "string",
    "schema", "data",  "uint",  "enum",   "sfixed32", "sfixed64", "sint32",  "sint64"};

constexpr std::array<std::string_view, 17> kSchemaCaseNames = {
    "enum",   "message", "int32",    "uint32", "sint32", "fixed32", "sfixed32", "int64", "uint64",
    "sint64", "fixed64", "sfixed64", "double", "float",  "bool",    "string",   "bytes"};

}  // namespace

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
  return kManifestNames[static_cast<size_t>(type)];
}

std::optional<TypeManifest> parseTypeManifest(std::string_view name) noexcept {
  for (size_t i = 0; i < kManifestNames.size(); ++i) {
    if (kManifestNames[i] == name) return static_cast<TypeManifest>(i);
  }
  return std::nullopt;
}

ProtoWireType wireType(TypeManifest type) noexcept {
  switch (type) {
    case TypeManifest::double_:
    case TypeManifest::fixed64:
    case TypeManifest::sfixed64:
      return ProtoWireType::fixed64;
    case TypeManifest::float_:
    case TypeManifest::fixed32:
    case TypeManifest::sfixed32:
      return ProtoWireType::fixed32;
    case TypeManifest::string:
    case TypeManifest::message:
    case TypeManifest::bytes:
      return ProtoWireType::lengthDelimited;
    default:
      return ProtoWireType::varInt;
  }
}

std::optional<TypeSchemaDescription::Case> TypeSchemaDescription::scalarCaseOf(
    TypeManifest type) noexcept {
  switch (type) {
    case TypeManifest::double_:
      return Case::double_;
    case TypeManifest::float_:
      return Case::float_;
    case TypeManifest::int64:
      return Case::int64;
    case TypeManifest::uint64:
      return Case::uint64;
    case TypeManifest::int32:
      return Case::int32;
    case TypeManifest::fixed64:
      return Case::fixed64;
    case TypeManifest::fixed32:
      return Case::fixed32;
    case TypeManifest::bool_:
      return Case::bool_;
    case TypeManifest::string:
      return Case::string;
    case TypeManifest::bytes:
      return Case::bytes;
    case TypeManifest::uint32:
      return Case::uint32;
    case TypeManifest::sfixed32:
      return Case::sfixed32;
    case TypeManifest::sfixed64:
      return Case::sfixed64;
    case TypeManifest::sint32:
      return Case::sint32;
    case TypeManifest::sint64:
      return Case::sint64;
    case TypeManifest::message:
    case TypeManifest::enum_:
      return std::nullopt;
  }
  return std::nullopt;
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
  return kSchemaCaseNames[static_cast<size_t>(kind)];
}

}  // namespace ostrel
