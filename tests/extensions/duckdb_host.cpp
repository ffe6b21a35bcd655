// A DuckDB host for the extension's tests: opens an in-memory database with unsigned extensions
// allowed, loads the extension, runs an SQL script and prints every statement ("> " and the
// statement on one line) with its result and an empty line, then compares that with the expected
// text when one is given.
//
//   duckdb_host EXTENSION SCRIPT [EXPECTED]
//
// With "-" for EXTENSION, the script loads it itself.
// A script is statements ending with ";" at the end of a line, outside string literals; "--" lines
// are comments. Two commands write record files from a query whose one column is BLOB:
//   .write varint FILE SELECT ...;     the rows as one file, each preceded by its length
//   .write u32be FILE SELECT ...;      the same with 4-byte big-endian lengths
//   .write single PREFIX SELECT ...;   one file per row: PREFIX0.bin, PREFIX1.bin, ...
// and ".time LABEL SELECT ...;" runs a query and prints how long it took (for benchmarks; its
// output is not compared).
#include <duckdb.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace {

std::string collapse(const std::string& text) {
  std::string out;
  bool space = false;
  for (const char c : text) {
    if (c == '\n' || c == ' ' || c == '\t') {
      space = !out.empty();
      continue;
    }
    if (space) out += ' ';
    space = false;
    out += c;
  }
  return out;
}

bool isNested(duckdb_type type) {
  return type == DUCKDB_TYPE_LIST || type == DUCKDB_TYPE_STRUCT || type == DUCKDB_TYPE_MAP ||
         type == DUCKDB_TYPE_ARRAY || type == DUCKDB_TYPE_UNION;
}

// Runs `sql` and appends its rows, or its error, to `out`. duckdb_value_varchar reads no nested
// value, so a query that has one runs again with every column cast to VARCHAR.
void run(duckdb_connection connection, const std::string& sql, std::string& out) {
  duckdb_result result;
  if (duckdb_query(connection, sql.c_str(), &result) != DuckDBSuccess) {
    out += "Error: " + std::string(duckdb_result_error(&result)) + "\n";
    duckdb_destroy_result(&result);
    return;
  }
  for (idx_t c = 0; c < duckdb_column_count(&result); ++c) {
    if (!isNested(duckdb_column_type(&result, c))) continue;
    duckdb_destroy_result(&result);
    return run(connection, "SELECT COLUMNS(*)::VARCHAR FROM (" + sql + ")", out);
  }
  const idx_t columns = duckdb_column_count(&result);
  const idx_t rows = duckdb_row_count(&result);
  for (idx_t c = 0; c < columns; ++c)
    out += (c ? " | " : "") + std::string(duckdb_column_name(&result, c));
  if (columns) out += "\n";
  for (idx_t r = 0; r < rows; ++r) {
    for (idx_t c = 0; c < columns; ++c) {
      if (c) out += " | ";
      if (duckdb_value_is_null(&result, c, r)) {
        out += "NULL";
        continue;
      }
      char* text = duckdb_value_varchar(&result, c, r);
      out += text ? text : "?";
      duckdb_free(text);
    }
    out += "\n";
  }
  duckdb_destroy_result(&result);
}

void appendVarint(std::string& out, uint64_t value) {
  while (value >= 0x80) {
    out += static_cast<char>((value & 0x7F) | 0x80);
    value >>= 7;
  }
  out += static_cast<char>(value);
}

// ".write FRAMING TARGET SQL": writes the records, and what it did or its error into `out`.
void writeRecords(duckdb_connection connection, const std::string& command, std::string& out) {
  std::istringstream words(command);
  std::string dotWrite, framing, target;
  words >> dotWrite >> framing >> target;
  std::string sql;
  std::getline(words, sql, '\0');
  duckdb_result result;
  if (duckdb_query(connection, sql.c_str(), &result) != DuckDBSuccess) {
    out += "Error: " + std::string(duckdb_result_error(&result)) + "\n";
    duckdb_destroy_result(&result);
    return;
  }
  std::string stream;
  const idx_t rows = duckdb_row_count(&result);
  for (idx_t r = 0; r < rows; ++r) {
    duckdb_blob blob = duckdb_value_blob(&result, 0, r);
    const std::string record(static_cast<const char*>(blob.data), blob.size);
    duckdb_free(blob.data);
    if (framing == "single") {
      std::ofstream(target + std::to_string(r) + ".bin", std::ios::binary) << record;
    } else if (framing == "u32be") {
      for (const int shift : {24, 16, 8, 0}) stream += static_cast<char>(record.size() >> shift);
      stream += record;
    } else {
      appendVarint(stream, record.size());
      stream += record;
    }
  }
  if (framing != "single") std::ofstream(target, std::ios::binary) << stream;
  out += "wrote " + std::to_string(rows) + " records\n";
  duckdb_destroy_result(&result);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::cerr << "usage: duckdb_host EXTENSION SCRIPT [EXPECTED]\n";
    return 2;
  }
  duckdb_config config;
  duckdb_create_config(&config);
  duckdb_set_config(config, "allow_unsigned_extensions", "true");
  duckdb_database database;
  char* openError = nullptr;
  if (duckdb_open_ext(":memory:", &database, config, &openError) != DuckDBSuccess) {
    std::cerr << "cannot open DuckDB: " << (openError ? openError : "?") << "\n";
    return 1;
  }
  duckdb_destroy_config(&config);
  duckdb_connection connection;
  duckdb_connect(database, &connection);

  std::string out;
  if (std::string(argv[1]) != "-") run(connection, "LOAD '" + std::string(argv[1]) + "'", out);
  std::ifstream script(argv[2]);
  std::string line, statement;
  while (std::getline(script, line)) {
    if (statement.empty() && (line.empty() || line.rfind("--", 0) == 0)) continue;
    statement += (statement.empty() ? "" : "\n") + line;
    // A ";" inside a string literal (a .proto text) does not end the statement.
    const auto quotes = std::count(statement.begin(), statement.end(), '\'');
    if (line.empty() || line.back() != ';' || quotes % 2 != 0) continue;
    statement.pop_back();
    out += "> " + collapse(statement) + "\n";
    if (statement.rfind(".write ", 0) == 0) {
      writeRecords(connection, statement, out);
    } else if (statement.rfind(".time ", 0) == 0) {
      std::istringstream words(statement);
      std::string dotTime, label, sql;
      words >> dotTime >> label;
      std::getline(words, sql, '\0');
      std::string ignored;
      const auto start = std::chrono::steady_clock::now();
      run(connection, sql, ignored);
      const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
      std::printf("%s %.3f s%s\n", label.c_str(), took.count(),
                  ignored.rfind("Error", 0) == 0 ? (" " + ignored).c_str() : "");
    } else {
      run(connection, statement, out);
    }
    out += "\n";
    statement.clear();
  }
  duckdb_disconnect(&connection);
  duckdb_close(&database);

  std::cout << out;
  if (argc < 4) return 0;
  std::ifstream expectedFile(argv[3]);
  const std::string expected((std::istreambuf_iterator<char>(expectedFile)),
                             std::istreambuf_iterator<char>());
  if (out == expected) return 0;
  std::cerr << "the output above differs from " << argv[3] << "\n";
  return 1;
}
