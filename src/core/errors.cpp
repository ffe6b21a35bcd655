#include "ostrel/core/errors.hpp"

#include <array>

namespace ostrel {
namespace {

constexpr std::array<std::string_view, 15> kSchematizerCaseNames = {
    "schemaNotFound",
    "enumNotFound",
    "internalError",
    "fieldNotFound",
    "enumValueNotFound",
    "protocolBufferError",
    "unexpectedType",
    "notInitialized",
    "oneofNotFound",
    "missingFieldSchemaName",
    "missingFieldEnumName",
    "repeatedValueAccessNoIndex",
    "scalarValueAccessWithIndex",
    "invalidIndexInKeypath",
    "nonMessageTypeInKeypath",
};

constexpr std::array<std::string_view, 6> kSerializationCaseNames = {
    "invalidIntType",    "typeMismatch", "notInitialized",
    "malformedProtobuf", "truncated",    "logicError",
};

constexpr std::array<std::string_view, 3> kDscCaseNames = {
    "invalidValueType",
    "invalidDescriptor",
    "cannotLoadDescriptor",
};

}  // namespace

SchematizerError::SchematizerError(Code code, std::string text)
    : CaseError(code, caseName(code), std::move(text)) {}

std::string_view caseName(SchematizerError::Code code) noexcept {
  return kSchematizerCaseNames[static_cast<size_t>(code)];
}

std::string_view caseName(SerializationError::Code code) noexcept {
  return kSerializationCaseNames[static_cast<size_t>(code)];
}

SerializationError::SerializationError(Code code)
    : Error(std::string(caseName(code))), code_(code), payload_(std::make_shared<Payload>()) {}

SerializationError::SerializationError(Code code, std::string what, Payload payload)
    : Error(std::move(what)),
      code_(code),
      payload_(std::make_shared<const Payload>(std::move(payload))) {}

SerializationError SerializationError::invalidIntType(AnyValue value, TypeSchemaDescription type) {
  std::string what = "invalidIntType(" + value.describe() + ", " + type.describe() + ")";
  return SerializationError(Code::invalidIntType, std::move(what),
                            Payload{std::move(value), std::move(type), std::nullopt});
}

SerializationError SerializationError::typeMismatch(TypeSchemaDescription type,
                                                    ProtoWireType wireType) {
  std::string what =
      "typeMismatch(" + type.describe() + ", " + std::string(caseName(wireType)) + ")";
  return SerializationError(Code::typeMismatch, std::move(what),
                            Payload{std::nullopt, std::move(type), wireType});
}

SchemaManifestDSCError::SchemaManifestDSCError(Code code, std::string text)
    : CaseError(code, kDscCaseNames[static_cast<size_t>(code)], std::move(text)) {}

}  // namespace ostrel
