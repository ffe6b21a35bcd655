#pragma once

// DuckDB's stable C extension API (v1.2.0), reached through the function table the loading DuckDB
// hands to the entry point: every file of the extension includes this header, and extension.cpp
// defines the table. Nothing here links to a DuckDB library, so one build loads in every DuckDB
// release that offers this version of the API.

#include <duckdb_extension.h>

DUCKDB_EXTENSION_EXTERN
