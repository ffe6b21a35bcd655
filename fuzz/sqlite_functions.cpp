// Arbitrary property paths and records through the SQLite function set, on an in-memory database:
// the text before the first NUL byte is the path, the bytes after it an ostrel.test.Rich record
// bound as a BLOB.
//
// Invariants: P_GET and P_HAS fail exactly when the library's single read of the path fails, with
// its error text; when they answer, P_HAS says whether that read found a value and P_GET is NULL
// when it did not; P_JSON, when it answers, is the library's rendering; P_EACH runs to its end or
// to an error.

#include <sqlite3.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "fuzz_support.hpp"

namespace {

using namespace ostrel;
using fuzz::finding;

struct Statement {
  Statement(sqlite3* db, const char* sql) {
    if (sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr) != SQLITE_OK) finding(sqlite3_errmsg(db));
  }
  ~Statement() { sqlite3_finalize(stmt); }
  void bind(std::string_view record, std::string_view path) {
    sqlite3_reset(stmt);
    sqlite3_bind_blob(stmt, 1, record.data(), static_cast<int>(record.size()), SQLITE_STATIC);
    if (sqlite3_bind_parameter_count(stmt) > 1) {
      sqlite3_bind_text(stmt, 2, path.data(), static_cast<int>(path.size()), SQLITE_STATIC);
    }
  }
  sqlite3_stmt* stmt = nullptr;
};

sqlite3* database() {
  static sqlite3* const db = [] {
    sqlite3* made = nullptr;
    if (sqlite3_open(":memory:", &made) != SQLITE_OK) finding("sqlite3_open failed");
    registerSqliteFunctions(
        made, schemaManifestFromDescriptorSet(asBytes(fuzz::readFile(OSTREL_FUZZ_RICH_DESC))),
        "ostrel.test.Rich");
    return made;
  }();
  return db;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const MessageSchema rich = fuzz::richSchema();
  sqlite3* const db = database();
  static Statement get(db, "SELECT P_GET(?1, ?2), P_HAS(?1, ?2)");
  static Statement each(db, "SELECT count(*) FROM P_EACH(?1, ?2)");
  static Statement json(db, "SELECT P_JSON(?1)");

  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const size_t split = input.find('\0');
  if (split == std::string_view::npos) return 0;
  const std::string_view path = input.substr(0, split);
  const std::string_view bytes = input.substr(split + 1);
  const SchematizedData record = rich.schematizedData(bytes);

  std::optional<AnyValue> value;
  std::optional<std::string> error;
  JsonOptions strict;
  strict.strict = true;
  try {
    value = record.value(path);
    // A message is returned as its JSON text, rendered strictly: a broken one is an error.
    if (value && value->kind() == AnyValue::Case::message) renderJSON(*value, strict);
  } catch (const Error& e) {
    error = e.what();
  }
  get.bind(bytes, path);
  const int status = sqlite3_step(get.stmt);
  if (error) {
    if (status == SQLITE_ROW) finding("P_GET answers where the read fails: " + *error);
    if (*error != sqlite3_errmsg(db)) {
      finding("P_GET fails with " + std::string(sqlite3_errmsg(db)) + ", the read with " + *error);
    }
  } else {
    if (status != SQLITE_ROW)
      finding("P_GET fails where the read answers: " + std::string(sqlite3_errmsg(db)));
    const bool isNull = sqlite3_column_type(get.stmt, 0) == SQLITE_NULL;
    const bool has = sqlite3_column_int(get.stmt, 1) == 1;
    if (has != value.has_value()) finding("P_HAS disagrees with the read");
    const bool nan =
        value && ((value->kind() == AnyValue::Case::double_ && std::isnan(value->doubleValue())) ||
                  (value->kind() == AnyValue::Case::float_ && std::isnan(value->floatValue())));
    if (!value && !isNull) finding("P_GET is not NULL for an absent value");
    if (value && isNull && !nan) finding("P_GET is NULL for a present value");
  }

  each.bind(bytes, path);
  while (sqlite3_step(each.stmt) == SQLITE_ROW) {
  }

  json.bind(bytes, path);
  if (sqlite3_step(json.stmt) == SQLITE_ROW) {
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(json.stmt, 0));
    if (!text || renderJSON(record, strict) != text)
      finding("P_JSON is not the library's rendering");
  } else {
    bool renders = true;
    try {
      renderJSON(record, strict);
    } catch (const Error&) {
      renders = false;
    }
    if (renders) finding("P_JSON fails where the library renders");
  }
  return 0;
}
