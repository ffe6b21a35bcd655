// The entry point of the loadable SQLite extension. SQLite derives its name from the file name
// libostrel_sqlite.so: "lib" dropped, letters only, so `.load libostrel_sqlite` finds it without
// naming it. Everything else is the library's function set, built against the routine table the
// loading SQLite hands over.
#include <sqlite3ext.h>
SQLITE_EXTENSION_INIT1

#include <exception>
#include <new>

#include "sql/sqlite_function_set.hpp"

extern "C" __attribute__((visibility("default"))) int sqlite3_ostrelsqlite_init(
    sqlite3* db, char** errorMessage, const sqlite3_api_routines* api) {
  SQLITE_EXTENSION_INIT2(api);
  // The oldest SQLite whose routine table holds everything the functions call (innocuous
  // functions and virtual tables).
  if (sqlite3_libversion_number() < 3031000) {
    *errorMessage =
        sqlite3_mprintf("ostrel needs SQLite 3.31.0 or later, not %s", sqlite3_libversion());
    return SQLITE_ERROR;
  }
  try {
    ostrel::detail::sqlite_loadable::registerFunctionSet(db, {}, std::nullopt);
    return SQLITE_OK;
  } catch (const std::bad_alloc&) {
    return SQLITE_NOMEM;
  } catch (const std::exception& error) {
    *errorMessage = sqlite3_mprintf("%s", error.what());
    return SQLITE_ERROR;
  }
}
