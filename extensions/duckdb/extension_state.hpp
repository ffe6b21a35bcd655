#pragma once

// What the functions of one loaded extension share: the schemas registered on its database, read
// by many of DuckDB's threads at once and changed only by the registration functions.

#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <variant>

#include "column_types.hpp"
#include "duckdb_api.hpp"
#include "sql/sql_schemas.hpp"

namespace ostrel::duckdb {

class ExtensionState {
 public:
  // Calls `use` with the registered schemas, which no registration changes meanwhile.
  template <typename Use>
  auto withSchemas(const Use& use) const {
    std::shared_lock lock(mutex_);
    return use(schemas_);
  }

  // Registers what `incoming` adds; refuses a changed definition (MergeConflict). Returns how many
  // message types are registered in all. Queries running meanwhile keep reading the store they
  // resolved their paths in, so the new types go into a new store rather than the shared one.
  size_t add(const SchemaManifest& incoming) {
    std::unique_lock lock(mutex_);
    const SchemaManifest fresh = schemas_.unregistered(incoming);
    if (!fresh.messages.empty() || !fresh.enums.empty()) {
      SchemaManifest merged = schemas_.registered();
      merged.merge(fresh, MergePolicy::requireEqual);
      schemas_ = detail::SqlSchemas(std::move(merged));
    }
    return schemas_.registered().messages.size();
  }

 private:
  mutable std::shared_mutex mutex_;
  detail::SqlSchemas schemas_;
};

// A property path resolved against a message type with the column type of what it reaches: one
// value (`value`), or every element of a repeated field or map written without an index
// (`repeated`). Keeps the store it was resolved in alive.
struct ResolvedColumn {
  std::variant<std::unique_ptr<detail::ResolvedPath>, std::unique_ptr<detail::ResolvedRepeated>>
      path;
  std::unique_ptr<ColumnType> type;
};

// Throws PropertyPathUtil::Error and SchematizerError.
ResolvedColumn resolveColumn(const ExtensionState& state, std::string_view type,
                             std::string_view path);

// The state every function of the extension receives as its extra info.
using SharedState = std::shared_ptr<ExtensionState>;

// Registers the scalar functions and p_get on `connection`; false when DuckDB refuses one, with
// the reason in `error`.
bool registerScalarFunctions(duckdb_connection connection, const SharedState& state,
                             std::string& error);

// Registers the table function ostrel_scan.
bool registerScan(duckdb_connection connection, const SharedState& state, std::string& error);

}  // namespace ostrel::duckdb
