#pragma once

// The abstract interfaces behind the public schema wrappers. The library's own implementations
// are the Proto* classes of the schema store; another store only has to implement these.
//
// Schema lookups materialise schemas lazily and cache them, so they are const but mutate hidden
// state. An implementation must keep them safe to call from many threads at once, as the library's
// own are (the thread rule is in ostrel/store/schemas.hpp).

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "ostrel/core/field_types.hpp"
#include "ostrel/core/values.hpp"

namespace ostrel {

class FieldSchemaDescribing;
class SchemaStoreDescribing;
class OneofSchemaDescribing;
// A store's manifest (ostrel/manifest/manifest.hpp), which callers of engagedManifest include.
struct SchemaManifest;

class SchemaDescribing {
 public:
  virtual ~SchemaDescribing() = default;
  // The fully qualified type name for messages and enums, the simple name for fields and oneofs.
  virtual const std::string& name() const noexcept = 0;
  virtual std::string typeDescription() const = 0;
};

// Asked once per field by buildData; returns the values to write for it: none, one, or (for a
// repeated field) several, written one after another.
using ValueForField =
    std::function<std::vector<AnyValue>(const std::shared_ptr<FieldSchemaDescribing>& field)>;

class MessageSchemaDescribing : public virtual SchemaDescribing {
 public:
  // Options as schematized data of google.protobuf.MessageOptions, when the message has any.
  virtual const std::optional<SchematizedData>& options() const noexcept = 0;
  // Field names in ascending order of field number.
  virtual const std::vector<std::string>& allFieldNames() const noexcept = 0;
  // Oneof names in ascending text order.
  virtual const std::vector<std::string>& allOneofNames() const noexcept = 0;
  // Materialises every field; returns them by number.
  virtual const std::map<int64_t, std::shared_ptr<FieldSchemaDescribing>>& fieldsByNumber()
      const = 0;
  // Materialises every oneof; returns them in declaration order.
  virtual std::vector<std::shared_ptr<OneofSchemaDescribing>> allOneofs() const = 0;
  virtual const std::shared_ptr<FieldSchemaDescribing>& fieldNamed(std::string_view name) const = 0;
  virtual const std::shared_ptr<FieldSchemaDescribing>& fieldWithNumber(int64_t number) const = 0;
  virtual const std::shared_ptr<OneofSchemaDescribing>& oneofNamed(std::string_view name) const = 0;
  // Pairs this schema with an owned copy of `data`.
  virtual SchematizedData schematizedData(Bytes data) const = 0;
  // Pairs this schema with borrowed bytes; the caller keeps them alive.
  virtual UnsafeSchematizedData unsafeSchematizedData(ByteView bytes) const = 0;
  // Writes a new message, asking `valueForField` for each field in ascending order of field name,
  // through allFieldNames, fieldNamed and schematizedData; implementations rarely need another
  // way.
  virtual SchematizedData buildData(const ValueForField& valueForField) const;
  // The store this schema came from while it is alive, else null; for looking up the types an
  // Any names. Schemas not made by a store have none.
  virtual std::shared_ptr<SchemaStoreDescribing> originStore() const { return nullptr; }
};

class FieldSchemaDescribing : public virtual SchemaDescribing {
 public:
  virtual bool isRepeated() const noexcept = 0;
  // Every field reports itself optional.
  virtual bool isOptional() const noexcept = 0;
  virtual const std::optional<SchematizedData>& options() const noexcept = 0;
  virtual std::optional<int32_t> oneofIndex() const noexcept = 0;
  virtual int64_t fieldNumber() const = 0;
  // The resolved type; resolves message and enum types through the store on first call.
  virtual const TypeSchemaDescription& type() const = 0;
  // For an extension field, the extension's fully qualified name; none for the message's own
  // fields (and for every field of a schema that does not record extensions).
  virtual const std::optional<std::string>& extensionName() const noexcept;
  // The member name ProtoJSON gives the field: the schema's json_name when it declares one, else
  // the lowerCamelCase of the name ("foo_bar" becomes "fooBar").
  virtual std::string jsonName() const;
  // Whether the field has no presence of its own (FieldManifest::implicitPresence).
  virtual bool hasImplicitPresence() const noexcept { return false; }
  // Whether a message field is written delimited (start and end group tags) rather than
  // length-prefixed; readers take either. False unless the schema says so.
  virtual bool isDelimited() const noexcept { return false; }
  // Whether a repeated numeric, bool or enum field is written packed (FieldManifest::packed).
  virtual bool isPacked() const noexcept { return false; }
  // Whether an enum field is closed (FieldManifest::closedEnum).
  virtual bool hasClosedEnum() const noexcept { return false; }
};

class EnumSchemaDescribing : public virtual SchemaDescribing {
 public:
  virtual const std::set<int64_t>& valueSet() const noexcept = 0;
  virtual const std::optional<SchematizedData>& options() const noexcept = 0;
  virtual const std::map<int64_t, SchematizedData>& valueOptions() const noexcept = 0;
  virtual int64_t valueNamed(std::string_view name) const = 0;
  virtual const std::string& valueNameFor(int64_t number) const = 0;
  // Every value name with its number, aliases included (several names may share a number), in
  // name order.
  virtual const std::map<std::string, int64_t, std::less<>>& allValues() const noexcept = 0;
  // The name of `number`, or null when the enum has no such value.
  virtual const std::string* findValueNameFor(int64_t number) const noexcept = 0;
};

class OneofSchemaDescribing : public virtual SchemaDescribing {
 public:
  virtual const std::optional<SchematizedData>& options() const noexcept = 0;
  virtual const std::set<int64_t>& allFieldNumbers() const noexcept = 0;
  virtual const std::set<std::string>& allFieldNames() const noexcept = 0;
  virtual const std::string& fieldNameFor(int64_t number) const = 0;
  virtual int64_t fieldNumberNamed(std::string_view name) const = 0;
};

class SchemaStoreDescribing {
 public:
  virtual ~SchemaStoreDescribing() = default;
  // All message names, looked up or not; built afresh on each call.
  virtual std::set<std::string> messageSchemaNames() const = 0;
  virtual std::set<std::string> enumSchemaNames() const = 0;
  virtual std::shared_ptr<MessageSchemaDescribing> messageSchema(std::string_view name) const = 0;
  virtual std::shared_ptr<EnumSchemaDescribing> enumSchema(std::string_view name) const = 0;

  // The manifest of the schemas looked up so far (materialised ones only). A store that does not
  // keep track throws SchematizerError::internalError("Unsupported manifestEngagementsOnly").
  virtual SchemaManifest engagedManifest() const;

  // Whether messageSchemaNames() holds `name`; stores override this with a direct lookup.
  virtual bool hasMessageSchemaNamed(std::string_view name) const {
    return messageSchemaNames().contains(std::string(name));
  }
  // Whether enumSchemaNames() holds `name`; stores override this with a direct lookup.
  virtual bool hasEnumSchemaNamed(std::string_view name) const {
    return enumSchemaNames().contains(std::string(name));
  }

  // Adds the messages and enums of `manifest` (see SchemaStore::add). A store that cannot grow
  // throws SchematizerError::internalError("Unsupported add").
  virtual bool add(const SchemaManifest& manifest);

  // The options messages of descriptor.proto, as far as this store knows them.
  bool hasMessageOptionsSchema() const;
  bool hasFieldOptionsSchema() const;
  bool hasOneofOptionsSchema() const;
  bool hasEnumOptionsSchema() const;
  bool hasEnumValueOptionsSchema() const;
  std::shared_ptr<MessageSchemaDescribing> messageOptionsSchema() const;
  std::shared_ptr<MessageSchemaDescribing> fieldOptionsSchema() const;
  std::shared_ptr<MessageSchemaDescribing> oneofOptionsSchema() const;
  std::shared_ptr<MessageSchemaDescribing> enumOptionsSchema() const;
  std::shared_ptr<MessageSchemaDescribing> enumValueOptionsSchema() const;
};

}  // namespace ostrel
