// The entry point DuckDB calls on LOAD: it hands over its function table (the stable C API,
// v1.2.0), and the extension registers its functions on a connection of the loading database.
// Every function of one load shares one ExtensionState: the schemas registered on that database.
#define DUCKDB_EXTENSION_NAME ostrel
#include <exception>
#include <memory>
#include <string>

#include "duckdb_api.hpp"
#include "extension_state.hpp"

DUCKDB_EXTENSION_ENTRYPOINT(duckdb_connection connection, duckdb_extension_info info,
                            duckdb_extension_access* access) {
  try {
    const auto state = std::make_shared<ostrel::duckdb::ExtensionState>();
    std::string error;
    if (!ostrel::duckdb::registerScalarFunctions(connection, state, error) ||
        !ostrel::duckdb::registerScan(connection, state, error)) {
      access->set_error(info, error.c_str());
      return false;
    }
    return true;
  } catch (const std::exception& error) {
    access->set_error(info, error.what());
    return false;
  }
}
