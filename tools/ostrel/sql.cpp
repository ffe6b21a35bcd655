#include "ostrel/sql/sql.hpp"

#include <sqlite3.h>

#include <memory>
#include <nlohmann/json.hpp>

#include "tool.hpp"

namespace ostrel::tool {
namespace {

constexpr std::string_view kUsage =
    R"usage(usage: ostrel [SCHEMAS] sql -m MSG --table TABLE --column COLUMN [--type-per-call]
                          [--dialect sqlite|postgres] [--db FILE] PATH[=ALIAS]...

Builds the SQL text of a query that projects property paths out of MSG records stored as blobs in
COLUMN of TABLE, through the P_GET(blob, path) function, and prints it. Each result column is
named ALIAS, or the PATH itself.

With --db, runs the query on the SQLite database FILE (opened read-only, with the SQL functions
registered over the loaded schemas and MSG as their default type) and prints each row as a JSON object on one line: integers and reals as numbers, text as
strings (a message comes back as its JSON text), blobs as base64, NULL as null.

  -m, --message MSG       the message type of the records, fully qualified (e.g. shop.Order)
  --table TABLE           the table holding the records
  --column COLUMN         the blob column holding the encoded records
  --type-per-call         name MSG in every call: P_GET(COLUMN, 'MSG', 'PATH')
  --dialect DIALECT       sqlite (the default) or postgres: p_get(COLUMN, 'MSG', 'PATH'), a jsonb
                          per column, identifiers quoted for PostgreSQL
  --db FILE               run the query on this SQLite database

Every PATH is checked against the schema before any text is built.
)usage";

using Json = nlohmann::ordered_json;

Json cell(sqlite3_stmt* statement, int column) {
  switch (sqlite3_column_type(statement, column)) {
    case SQLITE_INTEGER:
      return sqlite3_column_int64(statement, column);
    case SQLITE_FLOAT:
      return sqlite3_column_double(statement, column);
    case SQLITE_TEXT:
      return std::string(reinterpret_cast<const char*>(sqlite3_column_text(statement, column)),
                         static_cast<size_t>(sqlite3_column_bytes(statement, column)));
    case SQLITE_BLOB: {
      const auto* blob = static_cast<const std::byte*>(sqlite3_column_blob(statement, column));
      const auto size = static_cast<size_t>(sqlite3_column_bytes(statement, column));
      return base64(ByteView(blob, blob ? size : 0));
    }
    default:
      return nullptr;
  }
}

using Statement = std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)>;

Statement prepare(sqlite3* db, const std::string& sql) {
  sqlite3_stmt* prepared = nullptr;
  const int status =
      sqlite3_prepare_v2(db, sql.c_str(), static_cast<int>(sql.size()), &prepared, nullptr);
  Statement statement(prepared, &sqlite3_finalize);
  if (status != SQLITE_OK) statement.reset();
  return statement;
}

// The query failed on the row after the `rowsDone` it returned; which record is that? SQLite does
// not say, so each row of the table is queried alone, in scan order, until one fails: "row with
// rowid 7". A table without rowids (or a failure no single row causes) is named by its position
// in the result: "row 3".
std::string failingRow(sqlite3* db, const std::string& projection, const std::string& table,
                       size_t rowsDone) {
  const std::string byPosition = "row " + std::to_string(rowsDone + 1);
  const Statement rowids = prepare(db, "SELECT rowid FROM " + sqlIdentifier(table));
  const Statement one = prepare(db, projection + "\nWHERE rowid = ?1");
  if (!rowids || !one) return byPosition;
  while (sqlite3_step(rowids.get()) == SQLITE_ROW) {
    const sqlite3_int64 rowid = sqlite3_column_int64(rowids.get(), 0);
    sqlite3_reset(one.get());
    sqlite3_bind_int64(one.get(), 1, rowid);
    int step;
    while ((step = sqlite3_step(one.get())) == SQLITE_ROW) {
    }
    if (step != SQLITE_DONE) return "row with rowid " + std::to_string(rowid);
  }
  return byPosition;
}

void runOn(const std::string& file, const LoadedSchemas& schemas, const MessageSchema& schema,
           const std::string& sql, const std::string& table) {
  sqlite3* opened = nullptr;
  const int status = sqlite3_open_v2(file.c_str(), &opened, SQLITE_OPEN_READONLY, nullptr);
  const std::unique_ptr<sqlite3, decltype(&sqlite3_close)> db(opened, &sqlite3_close);
  if (status != SQLITE_OK) {
    throw ToolError(file + ": " + (opened ? sqlite3_errmsg(opened) : "cannot open"));
  }
  registerSqliteFunctions(db.get(), schemas.defined, schema.name());
  const Statement statement = prepare(db.get(), sql);
  if (!statement) throw ToolError(sqlite3_errmsg(db.get()));
  const int columns = sqlite3_column_count(statement.get());
  size_t rowsDone = 0;
  int step;
  while ((step = sqlite3_step(statement.get())) == SQLITE_ROW) {
    Json row = Json::object();
    for (int i = 0; i < columns; ++i) {
      row[sqlite3_column_name(statement.get(), i)] = cell(statement.get(), i);
    }
    writeOut(row.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n");
    ++rowsDone;
  }
  if (step != SQLITE_DONE) {
    const std::string error = sqlite3_errmsg(db.get());
    throw ToolError(table + ", " + failingRow(db.get(), sql, table, rowsDone) + ": " + error);
  }
}

int run(Arguments& args, GlobalOptions& globals) {
  std::optional<std::string> message, table, column, db;
  std::vector<SqlColumn> paths;
  std::string value;
  SqlSelectOptions options;
  while (!args.done()) {
    if (globals.parse(args)) continue;
    if (args.flag({"--type-per-call"})) {
      options.typePerCall = true;
      continue;
    }
    if (args.value({"--dialect"}, value)) {
      if (value != "sqlite" && value != "postgres") {
        throw UsageError("--dialect takes sqlite or postgres, not \"" + value + "\"");
      }
      options.dialect = value == "postgres" ? SqlDialect::postgres : SqlDialect::sqlite;
      continue;
    }
    if (args.value({"-m", "--message"}, value)) {
      message = value;
    } else if (args.value({"--table"}, value)) {
      table = value;
    } else if (args.value({"--column"}, value)) {
      column = value;
    } else if (args.value({"--db"}, value)) {
      db = value;
    } else {
      const std::string argument = args.positional();
      const size_t equals = argument.find('=');
      if (equals == std::string::npos) {
        paths.push_back({argument, std::nullopt});
      } else {
        paths.push_back({argument.substr(0, equals), argument.substr(equals + 1)});
      }
    }
  }
  require(message, "-m MSG");
  require(table, "--table TABLE");
  require(column, "--column COLUMN");
  if (paths.empty()) throw UsageError("missing PATH");
  if (db && options.dialect == SqlDialect::postgres) {
    throw UsageError("--db runs SQLite; it cannot run the postgres dialect");
  }

  const LoadedSchemas schemas = loadSchemas(globals);
  const MessageSchema schema = schemas.messageSchema(*message);
  std::vector<std::string> pathTexts;
  for (const SqlColumn& selected : paths) pathTexts.push_back(selected.path);
  resolvePaths(schema, pathTexts, true);
  std::string sql;
  try {
    sql = sqlSelect(schema, *table, *column, paths, options);
  } catch (const std::invalid_argument& error) {
    throw UsageError(error.what());
  }
  if (db) {
    runOn(*db, schemas, schema, sql, *table);
  } else {
    writeOut(sql + "\n");
  }
  return kExitSuccess;
}

}  // namespace

const Command kSqlCommand{"sql", "SQL text projecting property paths out of blob records", kUsage,
                          &run};

}  // namespace ostrel::tool
