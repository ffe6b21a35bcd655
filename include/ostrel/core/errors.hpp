#pragma once

#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "ostrel/core/field_types.hpp"
#include "ostrel/core/values.hpp"

namespace ostrel {

// The base of every error the library throws. Each error type has code() (its case), accessors of
// its payload, equality by case and text, and a what() a person can read.
class Error : public std::exception {
 public:
  const char* what() const noexcept override { return what_.c_str(); }

 protected:
  explicit Error(std::string what) : what_(std::move(what)) {}

 private:
  std::string what_;
};

namespace detail {

// An error of one of a fixed set of cases, each carrying at most one text.
template <typename CodeT>
class CaseError : public Error {
 public:
  using Code = CodeT;

  Code code() const noexcept { return code_; }
  // The text payload; empty for the cases that carry none.
  const std::string& text() const noexcept { return text_; }

  friend bool operator==(const CaseError& a, const CaseError& b) {
    return a.code_ == b.code_ && a.text_ == b.text_;
  }

 protected:
  CaseError(Code code, std::string_view caseName, std::string text)
      : Error(text.empty() ? std::string(caseName) : std::string(caseName) + ": " + text),
        code_(code),
        text_(std::move(text)) {}

 private:
  Code code_;
  std::string text_;
};

enum class SchematizerErrorCode : uint8_t {
  schemaNotFound,
  enumNotFound,
  internalError,
  fieldNotFound,
  enumValueNotFound,
  protocolBufferError,
  unexpectedType,
  notInitialized,
  oneofNotFound,
  missingFieldSchemaName,
  missingFieldEnumName,
  repeatedValueAccessNoIndex,
  scalarValueAccessWithIndex,
  invalidIndexInKeypath,
  nonMessageTypeInKeypath,
};

enum class MergeConflictCode : uint8_t { conflict };
enum class SchemaManifestJSONErrorCode : uint8_t { invalidValueType };
enum class SchemaManifestDSCErrorCode : uint8_t {
  invalidValueType,
  invalidDescriptor,
  cannotLoadDescriptor,
};

}  // namespace detail

// The library's general error: faults of a request, such as an unknown name or a bad path. The
// first seven cases carry a text, the others nothing.
class SchematizerError final : public detail::CaseError<detail::SchematizerErrorCode> {
 public:
  static SchematizerError schemaNotFound(std::string name) {
    return {Code::schemaNotFound, std::move(name)};
  }
  static SchematizerError enumNotFound(std::string name) {
    return {Code::enumNotFound, std::move(name)};
  }
  static SchematizerError internalError(std::string text) {
    return {Code::internalError, std::move(text)};
  }
  static SchematizerError fieldNotFound(std::string text) {
    return {Code::fieldNotFound, std::move(text)};
  }
  static SchematizerError enumValueNotFound(std::string text) {
    return {Code::enumValueNotFound, std::move(text)};
  }
  static SchematizerError protocolBufferError(std::string text) {
    return {Code::protocolBufferError, std::move(text)};
  }
  static SchematizerError unexpectedType(std::string text) {
    return {Code::unexpectedType, std::move(text)};
  }
  static SchematizerError notInitialized() { return {Code::notInitialized, {}}; }
  static SchematizerError oneofNotFound() { return {Code::oneofNotFound, {}}; }
  static SchematizerError missingFieldSchemaName() { return {Code::missingFieldSchemaName, {}}; }
  static SchematizerError missingFieldEnumName() { return {Code::missingFieldEnumName, {}}; }
  static SchematizerError repeatedValueAccessNoIndex() {
    return {Code::repeatedValueAccessNoIndex, {}};
  }
  static SchematizerError scalarValueAccessWithIndex() {
    return {Code::scalarValueAccessWithIndex, {}};
  }
  static SchematizerError invalidIndexInKeypath() { return {Code::invalidIndexInKeypath, {}}; }
  static SchematizerError nonMessageTypeInKeypath() { return {Code::nonMessageTypeInKeypath, {}}; }

 private:
  SchematizerError(Code code, std::string text);
};

std::string_view caseName(SchematizerError::Code code) noexcept;

// Faults of the encoded bytes, found by the wire reader and the value decoders, and value/type
// mismatches found by the writer.
class SerializationError final : public Error {
 public:
  enum class Code : uint8_t {
    invalidIntType,
    typeMismatch,
    notInitialized,
    malformedProtobuf,
    truncated,
    logicError,
  };

  // `value` is the integer the writer was handed, for a field of `type` it does not suit.
  static SerializationError invalidIntType(AnyValue value, TypeSchemaDescription type);
  static SerializationError typeMismatch(TypeSchemaDescription type, ProtoWireType wireType);
  static SerializationError notInitialized() { return SerializationError(Code::notInitialized); }
  static SerializationError malformedProtobuf() {
    return SerializationError(Code::malformedProtobuf);
  }
  static SerializationError truncated() { return SerializationError(Code::truncated); }
  static SerializationError logicError() { return SerializationError(Code::logicError); }

  Code code() const noexcept { return code_; }
  // The payload of invalidIntType; no value for the other cases.
  const std::optional<AnyValue>& value() const noexcept { return payload_->value; }
  // The field type of invalidIntType and typeMismatch; no value for the other cases.
  const std::optional<TypeSchemaDescription>& type() const noexcept { return payload_->type; }
  // The wire type found, for typeMismatch; no value for the other cases.
  std::optional<ProtoWireType> wireType() const noexcept { return payload_->wireType; }

  friend bool operator==(const SerializationError& a, const SerializationError& b) {
    return a.code_ == b.code_ && std::string_view(a.what()) == std::string_view(b.what());
  }

 private:
  struct Payload {
    std::optional<AnyValue> value;
    std::optional<TypeSchemaDescription> type;
    std::optional<ProtoWireType> wireType;
  };

  explicit SerializationError(Code code);
  SerializationError(Code code, std::string what, Payload payload);

  Code code_;
  std::shared_ptr<const Payload> payload_;
};

std::string_view caseName(SerializationError::Code code) noexcept;

// Two manifests that cannot be merged under the policy asked for.
class MergeConflict final : public detail::CaseError<detail::MergeConflictCode> {
 public:
  static MergeConflict conflict(std::string text) { return {Code::conflict, std::move(text)}; }

 private:
  MergeConflict(Code code, std::string text) : CaseError(code, "conflict", std::move(text)) {}
};

// A JSON manifest, or a parsed descriptor set, holding a value of the wrong kind.
class SchemaManifestJSONError final
    : public detail::CaseError<detail::SchemaManifestJSONErrorCode> {
 public:
  static SchemaManifestJSONError invalidValueType(std::string text) {
    return {Code::invalidValueType, std::move(text)};
  }

 private:
  SchemaManifestJSONError(Code code, std::string text)
      : CaseError(code, "invalidValueType", std::move(text)) {}
};

// A serialized descriptor set that cannot be imported.
class SchemaManifestDSCError final : public detail::CaseError<detail::SchemaManifestDSCErrorCode> {
 public:
  static SchemaManifestDSCError invalidValueType(std::string text) {
    return {Code::invalidValueType, std::move(text)};
  }
  static SchemaManifestDSCError invalidDescriptor(std::string text) {
    return {Code::invalidDescriptor, std::move(text)};
  }
  static SchemaManifestDSCError cannotLoadDescriptor() { return {Code::cannotLoadDescriptor, {}}; }

 private:
  SchemaManifestDSCError(Code code, std::string text);
};

}  // namespace ostrel
