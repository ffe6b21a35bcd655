#pragma once

// The SQL function set on an SQLite connection. The same source is compiled twice: into the
// library, calling the SQLite it is linked with, and into the loadable extension, calling whatever
// SQLite loaded it through the routine table handed to the extension's entry point. A process may
// hold both, so each build lives in its own namespace.

#include <optional>
#include <string>

#include "ostrel/manifest/manifest.hpp"

struct sqlite3;

namespace ostrel::detail {

namespace sqlite_linked {
// Registers ostrel_register_descriptor_set, ostrel_register_manifest, ostrel_register_proto,
// ostrel_default_type, P_GET, P_HAS, P_JSON, P_ENCODE and the table-valued P_EACH on `db`, all
// sharing the connection's schemas: `manifest` and the types stored in the database's
// ostrel_schemas table. Throws SqlError::sqliteError with SQLite's message when SQLite refuses one,
// and the errors of finding `defaultType`.
void registerFunctionSet(sqlite3* db, SchemaManifest manifest,
                         std::optional<std::string> defaultType);
}  // namespace sqlite_linked

namespace sqlite_loadable {
// The same, through the routine table of the SQLite that loaded the extension.
void registerFunctionSet(sqlite3* db, SchemaManifest manifest,
                         std::optional<std::string> defaultType);
}  // namespace sqlite_loadable

}  // namespace ostrel::detail
