#pragma once

#include "ostrel/store/schemas.hpp"

struct sqlite3;

namespace ostrel {

// Registers P_GET(blob, path) on `db`: the value at the property path in the blob, read as a
// message of `schema`. Integers come back as INTEGER (a uint64 above INT64_MAX as TEXT), float and
// double as REAL (NaN becomes NULL: SQLite has no NaN), bool as 0/1, string as TEXT, bytes as BLOB,
// an enum as its name (TEXT) when the enum knows the number, else INTEGER, and a message as its
// JSON rendering (TEXT); an absent value and a NULL blob give NULL. A malformed blob or a bad path
// raises an SQLite error whose message is the library's error text. Each path is parsed and
// resolved once per statement, not once per row.
//
// The function keeps its own reference to `schema`, but not to its store: the store must outlive
// the connection's use of P_GET when the schema is not fully materialised. Throws
// std::runtime_error when SQLite refuses the registration.
void registerPGet(sqlite3* db, const MessageSchema& schema);

}  // namespace ostrel
