#pragma once

// Helpers of the SQLite tests: an in-memory database, a prepared statement, and column values in
// a text form that names their SQLite type, with what a library read says they must be.

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cmath>
#include <optional>
#include <string>

#include "ostrel/output/json.hpp"
#include "ostrel/store/schemas.hpp"

namespace ostrel {

class Database {
 public:
  Database() { EXPECT_EQ(sqlite3_open(":memory:", &db_), SQLITE_OK); }
  ~Database() { sqlite3_close(db_); }
  sqlite3* get() const { return db_; }

  void exec(const std::string& sql) {
    char* error = nullptr;
    ASSERT_EQ(sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &error), SQLITE_OK)
        << (error ? error : "") << "\n"
        << sql;
  }

 private:
  sqlite3* db_ = nullptr;
};

// A prepared statement that must be the whole of `sql`: one statement, nothing after it.
class Statement {
 public:
  Statement(sqlite3* db, const std::string& sql) {
    const char* tail = nullptr;
    status_ = sqlite3_prepare_v2(db, sql.c_str(), static_cast<int>(sql.size() + 1), &stmt_, &tail);
    rest_ = tail ? std::string(tail) : std::string();
  }
  ~Statement() { sqlite3_finalize(stmt_); }
  int status() const { return status_; }
  const std::string& rest() const { return rest_; }
  sqlite3_stmt* get() const { return stmt_; }

 private:
  sqlite3_stmt* stmt_ = nullptr;
  int status_;
  std::string rest_;
};

// Reads column `i` of the current row as the JSON-ish text the tests compare.
inline std::string columnText(sqlite3_stmt* stmt, int i) {
  switch (sqlite3_column_type(stmt, i)) {
    case SQLITE_NULL:
      return "NULL";
    case SQLITE_INTEGER:
      return "int:" + std::to_string(sqlite3_column_int64(stmt, i));
    case SQLITE_FLOAT:
      return "real:" + std::to_string(sqlite3_column_double(stmt, i));
    case SQLITE_TEXT:
      return "text:" + std::string(reinterpret_cast<const char*>(sqlite3_column_text(stmt, i)),
                                   static_cast<size_t>(sqlite3_column_bytes(stmt, i)));
    default: {
      const auto* blob = static_cast<const char*>(sqlite3_column_blob(stmt, i));
      return "blob:" +
             std::string(blob ? blob : "", static_cast<size_t>(sqlite3_column_bytes(stmt, i)));
    }
  }
}

// What P_GET must give for `value`, in columnText's form.
inline std::string expectedText(const std::optional<AnyValue>& value) {
  if (!value) return "NULL";
  switch (value->kind()) {
    case AnyValue::Case::int32:
      return "int:" + std::to_string(value->int32Value());
    case AnyValue::Case::uint32:
      return "int:" + std::to_string(value->uint32Value());
    case AnyValue::Case::int64:
      return "int:" + std::to_string(value->int64Value());
    case AnyValue::Case::uint64:
      return value->uint64Value() > static_cast<uint64_t>(INT64_MAX)
                 ? "text:" + std::to_string(value->uint64Value())
                 : "int:" + std::to_string(value->uint64Value());
    // SQLite has no NaN: it stores NULL instead.
    case AnyValue::Case::float_:
      if (std::isnan(value->floatValue())) return "NULL";
      return "real:" + std::to_string(static_cast<double>(value->floatValue()));
    case AnyValue::Case::double_:
      if (std::isnan(value->doubleValue())) return "NULL";
      return "real:" + std::to_string(value->doubleValue());
    case AnyValue::Case::bool_:
      return value->boolValue() ? "int:1" : "int:0";
    case AnyValue::Case::enum_: {
      const auto name = value->enumValue().findName();
      return name ? "text:" + *name : "int:" + std::to_string(value->enumValue().number());
    }
    case AnyValue::Case::string:
      return "text:" + value->stringValue();
    case AnyValue::Case::bytes:
      return "blob:" + std::string(asText(value->bytesValue()));
    case AnyValue::Case::message:
      return "text:" + toJSON(value->messageValue());
  }
  return "?";
}

}  // namespace ostrel
