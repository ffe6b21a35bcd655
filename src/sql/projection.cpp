#include "ostrel/sql/projection.hpp"

#include <sqlite3.h>

#include <stdexcept>

#include "ostrel/paths/key_path.hpp"
#include "ostrel/paths/property_path.hpp"

namespace ostrel {
namespace {

bool isPlain(std::string_view name) {
  if (name.empty()) return false;
  const auto letter = [](char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_';
  };
  if (!letter(name.front())) return false;
  for (char c : name) {
    if (!letter(c) && !(c >= '0' && c <= '9')) return false;
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
  if (name.empty()) throw std::invalid_argument(std::string("empty SQL ") + what);
  if (name.find('\0') != std::string_view::npos) {
    throw std::invalid_argument(std::string("NUL character in SQL ") + what);
  }
}

}  // namespace

std::string sqlIdentifier(std::string_view name) {
  return isPlain(name) ? std::string(name) : quoted(name, '"');
}

std::string sqlStringLiteral(std::string_view text) { return quoted(text, '\''); }

std::string buildProjection(const MessageSchema& schema, std::string_view table,
                            std::string_view column, const std::vector<ProjectedPath>& paths) {
  if (paths.empty()) throw std::invalid_argument("no property paths to project");
  checkIdentifier(table, "table name");
  checkIdentifier(column, "column name");
  for (const ProjectedPath& projected : paths) {
    PropertyPathUtil::parse(projected.path);
    resolveKeyPath(*schema.impl(), projected.path);
    if (projected.alias) checkIdentifier(*projected.alias, "alias");
  }

  const std::string blob = sqlIdentifier(column);
  std::string sql = "SELECT\n";
  for (size_t i = 0; i < paths.size(); ++i) {
    const std::string literal = sqlStringLiteral(paths[i].path);
    sql += "  P_GET(";
    sql += blob;
    sql += ", ";
    sql += std::string_view(literal).substr(0, literal.size() - 1);
    sql += "') AS ";
    sql += sqlIdentifier(paths[i].alias.value_or(paths[i].path));
    if (i + 1 < paths.size()) sql += ",\n";
  }
  sql += "\nFROM ";
  sql += sqlIdentifier(table);
  return sql;
}

}  // namespace ostrel
