#pragma once

// SQL text over schematized records stored as blobs: a SELECT that projects property paths out of
// a blob column through the P_GET function (see sqlite_functions.hpp).

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ostrel/store/schemas.hpp"

namespace ostrel {

// One projected column: a property path and the name of its result column (the path itself when
// no alias is given).
struct ProjectedPath {
  std::string path;
  std::optional<std::string> alias;
};

// Builds
//   SELECT
//     P_GET(column, 'path') AS alias,
//     ...
//   FROM table
// after parsing every path (PropertyPathUtil::Error, with its position) and resolving it against
// `schema` (SchematizerError); on any failure no text is returned. Identifiers are written bare
// when they are plain ([A-Za-z_][A-Za-z0-9_]*, not a keyword), else double-quoted with inner quotes
// doubled; paths are string literals with single quotes doubled. Whatever the input, the text is
// exactly one SELECT. Throws std::invalid_argument for no paths, or an empty identifier or one
// holding a NUL character (which SQL text cannot carry).
std::string buildProjection(const MessageSchema& schema, std::string_view table,
                            std::string_view column, const std::vector<ProjectedPath>& paths);

// `name` as an SQL identifier: bare when plain and not a keyword, else double-quoted.
std::string sqlIdentifier(std::string_view name);

// `text` as an SQL string literal, single quotes doubled.
std::string sqlStringLiteral(std::string_view text);

}  // namespace ostrel
