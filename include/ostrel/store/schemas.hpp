#pragma once

// The public schema types. Each is a small value holding one shared `impl` behind an abstract
// interface; copying a wrapper copies the reference, not the schema. Only SchemaStore keeps a store
// alive: the other wrappers keep their schema alive but not the store it came from.
//
// Threads: a store, and everything reached from it (its schemas, the data paired with them,
// projections, JSON rendering), may be used by any number of threads at once, without locking of
// the caller's. Schemas are materialised on first lookup under a lock and published for good;
// reading what is already materialised takes no lock. The one exception is letting go of the
// store: the last SchemaStore must not be released while another thread still reads through
// schemas of a recursive type (a message that reaches itself through its fields), because the
// store then cuts that cycle. Readers and iterators, and each projection's rows, are the caller's
// own values: one thread at a time.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "ostrel/core/describing.hpp"
#include "ostrel/manifest/manifest.hpp"

namespace ostrel {

class EnumSchema {
 public:
  explicit EnumSchema(std::shared_ptr<EnumSchemaDescribing> impl) : impl_(std::move(impl)) {}

  const std::shared_ptr<EnumSchemaDescribing>& impl() const noexcept { return impl_; }
  const std::string& name() const noexcept { return impl_->name(); }
  const std::set<int64_t>& valueSet() const noexcept { return impl_->valueSet(); }
  const std::optional<SchematizedData>& options() const noexcept { return impl_->options(); }
  const std::map<int64_t, SchematizedData>& valueOptions() const noexcept {
    return impl_->valueOptions();
  }
  int64_t valueNamed(std::string_view name) const { return impl_->valueNamed(name); }
  const std::string& valueNameFor(int64_t number) const { return impl_->valueNameFor(number); }
  // Every value name with its number, aliases included, in name order.
  const std::map<std::string, int64_t, std::less<>>& allValues() const noexcept {
    return impl_->allValues();
  }

  // The same schema object.
  friend bool operator==(const EnumSchema& a, const EnumSchema& b) { return a.impl_ == b.impl_; }

 private:
  std::shared_ptr<EnumSchemaDescribing> impl_;
};

class MessageSchema;

// A resolved field type; the enum and message cases carry their schema.
class TypeSchema {
 public:
  using Case = TypeSchemaDescription::Case;

  // Wraps the schemas of the internal form.
  explicit TypeSchema(TypeSchemaDescription description) : description_(std::move(description)) {}

  Case kind() const noexcept { return description_.kind(); }
  // The enum schema of the enum case; no value otherwise.
  std::optional<EnumSchema> enumSchema() const;
  // The message schema of the message case; no value otherwise.
  std::optional<MessageSchema> messageSchema() const;
  // The internal form, handing over the wrapped schemas.
  const TypeSchemaDescription& description() const noexcept { return description_; }

  // A text for developer tooling: "signed integer 32", "message of a.M schema",
  // "a.E enum (try .ostrel describe enum a.E)".
  std::string descriptionText() const;

  // Same case and, for enum and message, the same schema name (not the same object).
  friend bool operator==(const TypeSchema& a, const TypeSchema& b) {
    return a.description_ == b.description_;
  }

 private:
  TypeSchemaDescription description_;
};

class FieldSchema {
 public:
  explicit FieldSchema(std::shared_ptr<FieldSchemaDescribing> impl) : impl_(std::move(impl)) {}

  const std::shared_ptr<FieldSchemaDescribing>& impl() const noexcept { return impl_; }
  const std::string& name() const noexcept { return impl_->name(); }
  bool isRepeated() const noexcept { return impl_->isRepeated(); }
  bool isOptional() const noexcept { return impl_->isOptional(); }
  const std::optional<SchematizedData>& options() const noexcept { return impl_->options(); }
  std::optional<int32_t> oneofIndex() const noexcept { return impl_->oneofIndex(); }
  int64_t fieldNumber() const { return impl_->fieldNumber(); }
  const std::optional<std::string>& extensionName() const noexcept {
    return impl_->extensionName();
  }
  std::string jsonName() const { return impl_->jsonName(); }
  bool isDelimited() const noexcept { return impl_->isDelimited(); }
  bool isPacked() const noexcept { return impl_->isPacked(); }
  bool hasClosedEnum() const noexcept { return impl_->hasClosedEnum(); }
  // Whether a singular field has no presence of its own (proto3's scalars outside a oneof,
  // Editions' IMPLICIT): an absent field then reads as absent, but means its default.
  bool hasImplicitPresence() const noexcept { return impl_->hasImplicitPresence(); }
  // Resolves the type on first use; throws "Store is destroyed" when that needs a store that is
  // gone.
  TypeSchema type() const { return TypeSchema(impl_->type()); }

  friend bool operator==(const FieldSchema& a, const FieldSchema& b) { return a.impl_ == b.impl_; }

 private:
  std::shared_ptr<FieldSchemaDescribing> impl_;
};

class OneofSchema {
 public:
  explicit OneofSchema(std::shared_ptr<OneofSchemaDescribing> impl) : impl_(std::move(impl)) {}

  const std::shared_ptr<OneofSchemaDescribing>& impl() const noexcept { return impl_; }
  const std::string& name() const noexcept { return impl_->name(); }
  const std::optional<SchematizedData>& options() const noexcept { return impl_->options(); }
  const std::set<int64_t>& allFieldNumbers() const noexcept { return impl_->allFieldNumbers(); }
  const std::set<std::string>& allFieldNames() const noexcept { return impl_->allFieldNames(); }
  const std::string& fieldNameFor(int64_t number) const { return impl_->fieldNameFor(number); }
  int64_t fieldNumberNamed(std::string_view name) const { return impl_->fieldNumberNamed(name); }

  friend bool operator==(const OneofSchema& a, const OneofSchema& b) { return a.impl_ == b.impl_; }

 private:
  std::shared_ptr<OneofSchemaDescribing> impl_;
};

class MessageSchema {
 public:
  // The values to write for one field: none, one, or several for a repeated field.
  using ValueForField = std::function<std::vector<AnyValue>(const FieldSchema& field)>;

  explicit MessageSchema(std::shared_ptr<MessageSchemaDescribing> impl) : impl_(std::move(impl)) {}

  const std::shared_ptr<MessageSchemaDescribing>& impl() const noexcept { return impl_; }
  const std::string& name() const noexcept { return impl_->name(); }
  const std::optional<SchematizedData>& options() const noexcept { return impl_->options(); }
  // Field names in ascending order of field number.
  const std::vector<std::string>& allFieldNames() const noexcept { return impl_->allFieldNames(); }
  // Oneof names in text order.
  const std::vector<std::string>& allOneofNames() const noexcept { return impl_->allOneofNames(); }
  std::map<int64_t, FieldSchema> fieldsByNumber() const;
  // Oneofs in declaration order.
  std::vector<OneofSchema> allOneofs() const;
  // Throws SchematizerError::fieldNotFound.
  FieldSchema fieldNamed(std::string_view name) const {
    return FieldSchema(impl_->fieldNamed(name));
  }
  FieldSchema fieldWithNumber(int64_t number) const {
    return FieldSchema(impl_->fieldWithNumber(number));
  }
  // The field, or no value when the message has no field of that name.
  std::optional<FieldSchema> findFieldNamed(std::string_view name) const;
  // Throws SchematizerError::oneofNotFound.
  OneofSchema oneofNamed(std::string_view name) const {
    return OneofSchema(impl_->oneofNamed(name));
  }

  // Pairs this schema with an owned copy of `data`: the record outlives the caller's buffer.
  SchematizedData schematizedData(Bytes data) const {
    return impl_->schematizedData(std::move(data));
  }
  SchematizedData schematizedData(std::string_view data) const {
    return impl_->schematizedData(toBytes(data));
  }
  // Pairs this schema with borrowed bytes, copying nothing: the way to read or render records that
  // live in someone else's buffer (a file, a database row, a stream). Valid while that buffer is
  // alive and unchanged.
  //
  //     std::optional<AnyValue> id = schema.view(record).value("id");
  UnsafeSchematizedData view(ByteView bytes) const { return impl_->unsafeSchematizedData(bytes); }
  UnsafeSchematizedData view(std::string_view bytes) const { return view(asBytes(bytes)); }

  // Writes a new message: `valueForField` is asked for the values of each field, in ascending
  // order of field name, and each value is written as the field's type requires.
  SchematizedData buildData(const ValueForField& valueForField) const;

  friend bool operator==(const MessageSchema& a, const MessageSchema& b) {
    return a.impl_ == b.impl_;
  }

 private:
  std::shared_ptr<MessageSchemaDescribing> impl_;
};

class SchemaStore {
 public:
  explicit SchemaStore(std::shared_ptr<SchemaStoreDescribing> impl) : impl_(std::move(impl)) {}
  // A store of `manifest` merged into the built-in descriptor manifest (where both define a type,
  // the built-in definition is kept), every entry still in manifest form. A manifest built by hand
  // is checked as the imports check theirs: a field number outside 1 to 2^29-1 or in 19000 to
  // 19999, two fields of one number and two oneofs of one name throw
  // SchemaManifestJSONError::invalidValueType (`Message "a.M" field "x": ...`).
  explicit SchemaStore(const SchemaManifest& manifest);

  const std::shared_ptr<SchemaStoreDescribing>& impl() const noexcept { return impl_; }
  std::set<std::string> messageSchemaNames() const { return impl_->messageSchemaNames(); }
  std::set<std::string> enumSchemaNames() const { return impl_->enumSchemaNames(); }
  // Throws SchematizerError::schemaNotFound, or the error of creating the schema.
  MessageSchema messageSchema(std::string_view name) const {
    return MessageSchema(impl_->messageSchema(name));
  }
  // Throws SchematizerError::enumNotFound, or the error of creating the schema.
  EnumSchema enumSchema(std::string_view name) const { return EnumSchema(impl_->enumSchema(name)); }
  // Whether the store holds a message (an enum) of that name, without creating its schema.
  bool hasMessageSchemaNamed(std::string_view name) const {
    return impl_->hasMessageSchemaNamed(name);
  }
  bool hasEnumSchemaNamed(std::string_view name) const { return impl_->hasEnumSchemaNamed(name); }

  // Adds the messages and enums of `manifest`, costing what it adds however much the store holds:
  // for hosts that register or load definitions as they go (a database's catalog). A name the
  // store holds gains what `manifest` adds to it until its schema is first looked up; after that
  // the schema handed out never changes, and the result is false (a host that needs the new fields
  // makes a new store). Not while another thread uses the store. Throws
  // SchematizerError::internalError("Unsupported add") for a store that cannot grow.
  bool add(const SchemaManifest& manifest) { return impl_->add(manifest); }
  // The schema, or no value when the store has no type of that name; the error of creating the
  // schema is still thrown.
  std::optional<MessageSchema> findMessageSchema(std::string_view name) const;
  std::optional<EnumSchema> findEnumSchema(std::string_view name) const;

 private:
  std::shared_ptr<SchemaStoreDescribing> impl_;
};

}  // namespace ostrel
