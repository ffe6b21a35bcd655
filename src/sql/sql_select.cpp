#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <stdexcept>
#include <string_view>

#include "core/field_type_facts.hpp"
#include "ostrel/paths/property_path.hpp"
#include "ostrel/sql/sql.hpp"

namespace ostrel {
namespace {

// PostgreSQL's reserved key words, and those reserved but allowed as function or type names:
// neither may stand bare as a table or column name.
constexpr std::string_view kPostgresReserved[] = {"all",
                                                  "analyse",
                                                  "analyze",
                                                  "and",
                                                  "any",
                                                  "array",
                                                  "as",
                                                  "asc",
                                                  "asymmetric",
                                                  "authorization",
                                                  "binary",
                                                  "both",
                                                  "case",
                                                  "cast",
                                                  "check",
                                                  "collate",
                                                  "collation",
                                                  "column",
                                                  "concurrently",
                                                  "constraint",
                                                  "create",
                                                  "cross",
                                                  "current_catalog",
                                                  "current_date",
                                                  "current_role",
                                                  "current_schema",
                                                  "current_time",
                                                  "current_timestamp",
                                                  "current_user",
                                                  "default",
                                                  "deferrable",
                                                  "desc",
                                                  "distinct",
                                                  "do",
                                                  "else",
                                                  "end",
                                                  "except",
                                                  "false",
                                                  "fetch",
                                                  "for",
                                                  "foreign",
                                                  "freeze",
                                                  "from",
                                                  "full",
                                                  "grant",
                                                  "group",
                                                  "having",
                                                  "ilike",
                                                  "in",
                                                  "initially",
                                                  "inner",
                                                  "intersect",
                                                  "into",
                                                  "is",
                                                  "isnull",
                                                  "join",
                                                  "lateral",
                                                  "leading",
                                                  "left",
                                                  "like",
                                                  "limit",
                                                  "localtime",
                                                  "localtimestamp",
                                                  "natural",
                                                  "not",
                                                  "notnull",
                                                  "null",
                                                  "offset",
                                                  "on",
                                                  "only",
                                                  "or",
                                                  "order",
                                                  "outer",
                                                  "overlaps",
                                                  "placing",
                                                  "primary",
                                                  "references",
                                                  "returning",
                                                  "right",
                                                  "select",
                                                  "session_user",
                                                  "similar",
                                                  "some",
                                                  "symmetric",
                                                  "system_user",
                                                  "table",
                                                  "tablesample",
                                                  "then",
                                                  "to",
                                                  "trailing",
                                                  "true",
                                                  "union",
                                                  "unique",
                                                  "user",
                                                  "using",
                                                  "variadic",
                                                  "verbose",
                                                  "when",
                                                  "where",
                                                  "window",
                                                  "with"};

bool isPlain(std::string_view name, SqlDialect dialect) {
  if (name.empty()) return false;
  // PostgreSQL folds bare names to lower case, so only lower-case names may stay bare there.
  const bool upperAllowed = dialect == SqlDialect::sqlite;
  const auto letter = [upperAllowed](char c) {
    return (upperAllowed && c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_';
  };
  if (!letter(name.front())) return false;
  for (char c : name) {
    if (!letter(c) && !(c >= '0' && c <= '9')) return false;
  }
  if (dialect == SqlDialect::postgres) {
    return std::find(std::begin(kPostgresReserved), std::end(kPostgresReserved), name) ==
           std::end(kPostgresReserved);
  }
  // SQLite's own keyword list decides, so the rule follows the SQL dialect the text runs on.
  return sqlite3_keyword_check(name.data(), static_cast<int>(name.size())) == 0;
}

std::string quoted(std::string_view text, char quote) {
  std::string out;
  out.reserve(text.size() + 2);
  out += quote;
  for (char c : text) {
    if (c == quote) out += quote;
    out += c;
  }
  out += quote;
  return out;
}

void checkIdentifier(std::string_view name, const char* what) {
  if (name.empty()) throw SqlError::invalidArgument(std::string("empty SQL ") + what);
  if (name.find('\0') != std::string_view::npos) {
    throw SqlError::invalidArgument(std::string("NUL character in SQL ") + what);
  }
}

// The PostgreSQL extension's read that returns the value at a path of type `type` as the SQL type
// closest to it. uint64 and fixed64 read as numeric, since values above 2^63-1 do not fit bigint;
// enums read as their names; a message stays jsonb.
std::string_view postgresRead(const TypeSchemaDescription& type) {
  using V = detail::AnyValueImpl::Case;
  // Indexed by the value case a read of the type gives.
  static constexpr std::array<std::string_view, 11> kReads = {
      /* int32 */ "p_get_bigint",   /* uint32 */ "p_get_bigint",
      /* int64 */ "p_get_bigint",
      /* uint64 */ "p_get_numeric", /* float_ */ "p_get_double",
      /* double_ */ "p_get_double",
      /* bool_ */ "p_get_bool",     /* enum_ */ "p_get_text",
      /* string */ "p_get_text",
      /* bytes */ "p_get_bytea",    /* message */ "p_get"};
  static_assert(static_cast<size_t>(V::message) + 1 == kReads.size());
  return kReads[static_cast<size_t>(detail::factsOf(type.kind()).valueCase)];
}

}  // namespace

std::string sqlIdentifier(std::string_view name, SqlDialect dialect) {
  return isPlain(name, dialect) ? std::string(name) : quoted(name, '"');
}

std::string sqlStringLiteral(std::string_view text) { return quoted(text, '\''); }

std::string sqlSelect(const MessageSchema& schema, std::string_view table, std::string_view column,
                      const std::vector<SqlColumn>& paths, const SqlSelectOptions& options) {
  if (paths.empty()) throw SqlError::invalidArgument("no property paths to project");
  checkIdentifier(table, "table name");
  checkIdentifier(column, "column name");
  std::vector<TypeSchemaDescription> types;
  for (const SqlColumn& selected : paths) {
    PropertyPathUtil::parse(selected.path);
    types.push_back(resolvePropertyPath(schema, selected.path).type);
    if (selected.alias) checkIdentifier(*selected.alias, "alias");
  }

  const SqlDialect dialect = options.dialect;
  const bool postgres = dialect == SqlDialect::postgres;
  const std::string blob = sqlIdentifier(column, dialect);
  // PostgreSQL's functions always take the type.
  const std::string type =
      options.typePerCall || postgres ? sqlStringLiteral(schema.name()) + ", " : std::string();
  std::string sql = "SELECT\n";
  for (size_t i = 0; i < paths.size(); ++i) {
    const std::string literal = sqlStringLiteral(paths[i].path);
    sql += "  ";
    sql += postgres ? postgresRead(types[i]) : "P_GET";
    sql += "(";
    sql += blob;
    sql += ", ";
    sql += type;
    sql += std::string_view(literal).substr(0, literal.size() - 1);
    sql += "') AS ";
    sql += sqlIdentifier(paths[i].alias.value_or(paths[i].path), dialect);
    if (i + 1 < paths.size()) sql += ",\n";
  }
  sql += "\nFROM ";
  sql += sqlIdentifier(table, dialect);
  return sql;
}

}  // namespace ostrel
