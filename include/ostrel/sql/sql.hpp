#pragma once

// SQL over schematized records stored as blobs: the text of queries that read them (sqlSelect),
// and the functions that read the records inside SQLite. In the library ostrel::sql
// (libostrel_sql), which links SQLite.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ostrel/core/errors.hpp"
#include "ostrel/manifest/manifest.hpp"
#include "ostrel/store/schemas.hpp"

struct sqlite3;

namespace ostrel {

// A fault of the SQL helpers that is not the schemas' or the data's: an argument SQL cannot take,
// a function called from where it may not run, or SQLite refusing what it was asked. what() is the
// text alone, as SQLite's error messages read ("empty SQL table name").
class SqlError final : public Error {
 public:
  enum class Code : uint8_t {
    // sqlSelect's arguments (no paths, an empty identifier or one holding NUL) and the SQL
    // functions' (a record that is not a BLOB, ...).
    invalidArgument,
    // A registration function called from anything but the application's own statements.
    notPermitted,
    // SQLite refused a statement or a registration; the text is its message.
    sqliteError,
  };

  static SqlError invalidArgument(std::string text) {
    return {Code::invalidArgument, std::move(text)};
  }
  static SqlError notPermitted(std::string text) { return {Code::notPermitted, std::move(text)}; }
  static SqlError sqliteError(std::string text) { return {Code::sqliteError, std::move(text)}; }

  Code code() const noexcept { return code_; }

  friend bool operator==(const SqlError& a, const SqlError& b) {
    return a.code_ == b.code_ && std::string_view(a.what()) == std::string_view(b.what());
  }

 private:
  SqlError(Code code, std::string text) : Error(std::move(text)), code_(code) {}

  Code code_;
};

// One column of a SELECT: a property path and the name of its result column (the path itself when
// no alias is given).
struct SqlColumn {
  std::string path;
  std::optional<std::string> alias;
};

// The database the text is written for.
enum class SqlDialect : uint8_t {
  // P_GET(column, 'path'), or P_GET(column, 'type', 'path') with typePerCall; identifiers quoted
  // by SQLite's keyword list.
  sqlite,
  // The PostgreSQL extension's typed reads, always with the type: p_get_bigint(column, 'type',
  // 'path') for integers but uint64 and fixed64 (p_get_numeric), p_get_double for floats,
  // p_get_bool, p_get_text for strings and enums (by name), p_get_bytea, and p_get (jsonb) for
  // messages. Identifiers are bare only when lower case, plain and not reserved by PostgreSQL,
  // which folds bare names to lower case.
  postgres,
};

struct SqlSelectOptions {
  SqlDialect dialect = SqlDialect::sqlite;
  // Name the message type in every call, for tables that hold records of several types or
  // connections without a default type.
  bool typePerCall = false;
};

// The text of a query that reads property paths out of records stored as blobs, in `options`'
// dialect:
//   SELECT
//     P_GET(column, 'path') AS alias,
//     ...
//   FROM table
// after parsing every path (PropertyPathUtil::Error, with its position) and resolving it against
// `schema` (SchematizerError); on any failure no text is returned. Identifiers are written bare
// when they are plain ([A-Za-z_][A-Za-z0-9_]*, not a keyword), else double-quoted with inner quotes
// doubled; paths are string literals with single quotes doubled. Whatever the input, the text is
// exactly one SELECT. Throws SqlError::invalidArgument for no paths, or an empty identifier or one
// holding a NUL character (which SQL text cannot carry).
std::string sqlSelect(const MessageSchema& schema, std::string_view table, std::string_view column,
                      const std::vector<SqlColumn>& columns, const SqlSelectOptions& options = {});

// `name` as an SQL identifier: bare when plain and not a keyword, else double-quoted.
std::string sqlIdentifier(std::string_view name, SqlDialect dialect = SqlDialect::sqlite);

// `text` as an SQL string literal, single quotes doubled.
std::string sqlStringLiteral(std::string_view text);

// Registers the SQL function set on `db`, over `manifest` (merged into the built-in descriptor
// schemas) and the types stored in the database, with `defaultType` as the message type the forms
// without a type argument read. The loadable extension (libostrel_sqlite) registers the same
// functions over the stored types alone:
//
//   ostrel_register_descriptor_set(blob), ostrel_register_manifest(json text),
//   ostrel_register_proto(.proto text)
//       store the definitions in the database (table main.ostrel_schemas, one row per type, rows
//       only ever added; every connection reads them) and return how many message types are
//       registered in all. A message or enum type already registered with another definition is
//       refused with an error naming it (a changed definition needs a new name); registering the
//       same definition again changes nothing. Part of the transaction they run in.
//   ostrel_default_type(type)
//       names the connection's default message type; returns it.
//
//   These four run only while every statement in progress on the connection is read-only and
//   calls one of them in its own text: nothing stored in a database file (a CHECK constraint,
//   trigger, view, default, generated column or index) can run them.
//   P_GET(record, path), P_GET(record, type, path)
//       the value at a property path: INTEGER (a uint64 above INT64_MAX as TEXT), REAL (NaN as
//       NULL), bool as 0/1, TEXT, BLOB, an enum as its name when known else INTEGER, a message as
//       its JSON text; NULL when absent.
//   P_HAS(record, path), P_HAS(record, type, path)
//       1 when the record holds the field at the path, else 0.
//   P_EACH(record, path), P_EACH(record, type, path)
//       table-valued: one row per element of the repeated field or map at the path, with columns
//       "index" (from 0), key (the map key, else NULL) and value (as P_GET gives it).
//   P_JSON(record), P_JSON(record, type)
//       the record as JSON text; a record that does not read back whole is an error.
//   P_ENCODE(type, json)
//       the record that the JSON text describes, as a BLOB.
//
// A NULL argument gives NULL (no rows for P_EACH). A record that is not a BLOB, malformed bytes,
// an unknown type and a bad path raise an SQLite error whose message is the library's error text.
// Paths are parsed and resolved once per statement. The reads are deterministic and innocuous, so
// that expression indexes can be built on them. Throws SqlError::sqliteError when SQLite refuses a
// registration, and the errors of building a store from `manifest` or of finding `defaultType`.
void registerSqliteFunctions(sqlite3* db, const SchemaManifest& manifest = {},
                             const std::optional<std::string>& defaultType = std::nullopt);

}  // namespace ostrel
