#pragma once

// What the SQL functions of one database connection share, apart from the database's own API: the
// schemas registered on it, the message type the short forms read, and property paths resolved
// once for many rows.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "ostrel/manifest/manifest.hpp"
#include "ostrel/paths/repeated_field.hpp"
#include "ostrel/store/schemas.hpp"
#include "ostrel/wire/schematizer.hpp"
#include "wire/field_path.hpp"

namespace ostrel::detail {

// The schemas known to one connection. Definitions only ever grow: a type, once registered,
// keeps its definition, so that a deterministic function's result over a stored record never
// changes under an index built from it.
class SqlSchemas {
 public:
  explicit SqlSchemas(SchemaManifest registered = {},
                      std::optional<std::string> defaultType = std::nullopt);

  // The messages and enums of `incoming` not registered yet. Throws MergeConflict naming a message
  // or enum already registered with another definition; the same definition again is no change.
  SchemaManifest unregistered(const SchemaManifest& incoming) const;

  // Registers what `incoming` adds, refusing changes as unregistered() does, and returns how many
  // message types are registered in all. Costs what it adds, not what is registered already. On
  // any failure nothing is registered.
  size_t add(const SchemaManifest& incoming);

  // Names the message type the forms without a type argument read. Throws
  // SchematizerError::schemaNotFound when no such message type is registered.
  void setDefaultType(std::string_view name);
  const std::optional<std::string>& defaultType() const noexcept { return defaultType_; }

  // The message type named `name`; throws SchematizerError::schemaNotFound.
  MessageSchema messageSchema(std::string_view name) const { return store_.messageSchema(name); }
  // The default type's schema; throws SchematizerError::schemaNotFound when none is named.
  MessageSchema defaultSchema() const;

  const SchemaStore& store() const noexcept { return store_; }
  const SchemaManifest& registered() const noexcept { return registered_; }
  // Changes whenever the default type changes or types are added: what was resolved against an
  // older generation must be resolved again when it depends on the default type.
  uint64_t generation() const noexcept { return generation_; }

 private:
  SchemaManifest registered_;
  SchemaStore store_;
  std::optional<std::string> defaultType_;
  uint64_t generation_;
};

// A property path resolved against one message type, kept for the rows of a statement. It holds
// its store: the store may be replaced by a later registration while the statement still runs.
struct ResolvedPath {
  SchemaStore store;
  std::string type;
  uint64_t generation = 0;
  FieldPathAndType path;
  // The message type the path starts from.
  std::shared_ptr<MessageSchemaDescribing> schema;
};

// Parses and resolves `path` against `type` of `schemas` (the default type when `type` is absent).
// Throws PropertyPathUtil::Error and SchematizerError.
std::unique_ptr<ResolvedPath> resolvePath(const SqlSchemas& schemas,
                                          std::optional<std::string_view> type,
                                          std::string_view path);

// A repeated field named by a property path, resolved against one message type, kept for the
// rows of a statement with the store it was resolved against.
struct ResolvedRepeated {
  SchemaStore store;
  std::string type;
  uint64_t generation = 0;
  RepeatedField field;
};

// Resolves a path whose last component names a repeated field, written without an index ("items",
// "customer.tags"), as RepeatedField does, against `type` (the default type when absent).
std::unique_ptr<ResolvedRepeated> resolveRepeated(const SqlSchemas& schemas,
                                                  std::optional<std::string_view> type,
                                                  std::string_view path);

}  // namespace ostrel::detail
