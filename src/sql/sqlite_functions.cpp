// The SQL functions over schematized records in SQLite. Compiled twice (see
// sqlite_function_set.hpp): OSTREL_SQLITE_LOADABLE selects the extension's routine table.
#ifdef OSTREL_SQLITE_LOADABLE
#include <sqlite3ext.h>
SQLITE_EXTENSION_INIT3
#define OSTREL_SQLITE_NAMESPACE sqlite_loadable
#else
#include <sqlite3.h>
#define OSTREL_SQLITE_NAMESPACE sqlite_linked
#endif

#include <cctype>
#include <charconv>
#include <limits>
#include <memory>
#include <new>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "ostrel/edit/rewrite.hpp"
#include "ostrel/manifest/manifest_data.hpp"
#include "ostrel/output/json.hpp"
#include "ostrel/paths/property_path.hpp"
#include "ostrel/records/records.hpp"
#include "ostrel/sql/sql.hpp"
#include "sql/sql_schemas.hpp"
#include "sql/sqlite_function_set.hpp"
#include "wire/exact_read.hpp"
#include "wire/field_path.hpp"

namespace ostrel::detail::OSTREL_SQLITE_NAMESPACE {
namespace {

// A record that cannot be rendered whole is an error, never a text with errors in it.
const JsonOptions kStrictJson{.strict = true};

void resultText(sqlite3_context* context, std::string_view text) {
  sqlite3_result_text64(context, text.data(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
}

void resultBlob(sqlite3_context* context, ByteView bytes) {
  // A zero-length blob still needs a non-null pointer, else SQLite gives NULL.
  static const std::byte empty{};
  sqlite3_result_blob64(context, bytes.empty() ? &empty : bytes.data(), bytes.size(),
                        SQLITE_TRANSIENT);
}

// Integers as INTEGER (a uint64 above INT64_MAX as TEXT), float and double as REAL (NaN becomes
// NULL: SQLite has no NaN), bool as 0/1, string as TEXT, bytes as BLOB, an enum as its name when
// the enum knows the number, else INTEGER, a message as its JSON text.
void resultValue(sqlite3_context* context, const detail::AnyValueImpl& value) {
  using Case = detail::AnyValueImpl::Case;
  switch (value.kind()) {
    case Case::int32:
      return sqlite3_result_int64(context, value.int32Value());
    case Case::uint32:
      return sqlite3_result_int64(context, value.uint32Value());
    case Case::int64:
      return sqlite3_result_int64(context, value.int64Value());
    case Case::uint64: {
      const uint64_t number = value.uint64Value();
      if (number <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
        return sqlite3_result_int64(context, static_cast<int64_t>(number));
      }
      return resultText(context, std::to_string(number));
    }
    case Case::float_:
      return sqlite3_result_double(context, value.floatValue());
    case Case::double_:
      return sqlite3_result_double(context, value.doubleValue());
    case Case::bool_:
      return sqlite3_result_int(context, value.boolValue() ? 1 : 0);
    case Case::enum_: {
      const detail::EnumValueImpl& enumValue = value.enumValue();
      const int64_t number = enumValue.number();
      if (const std::string* name = enumValue.type->findValueNameFor(number)) {
        return resultText(context, *name);
      }
      return sqlite3_result_int64(context, number);
    }
    case Case::string:
      return resultText(context, value.stringValue());
    case Case::bytes:
      return resultBlob(context, value.bytesValue().view());
    case Case::message:
      return resultText(context, renderJSON(value.messageValue(), kStrictJson));
  }
}

// Every failure becomes the statement's error, with the library's text; nothing thrown may cross
// into SQLite's C frames.
template <typename Body>
void guarded(sqlite3_context* context, Body&& body) {
  try {
    body();
  } catch (const std::bad_alloc&) {
    sqlite3_result_error_nomem(context);
  } catch (const std::exception& error) {
    sqlite3_result_error(context, error.what(), -1);
  } catch (...) {
    sqlite3_result_error(context, "unknown error", -1);
  }
}

const char* typeName(int type) {
  switch (type) {
    case SQLITE_INTEGER:
      return "an integer";
    case SQLITE_FLOAT:
      return "a real";
    case SQLITE_TEXT:
      return "text";
    default:
      return "NULL";
  }
}

// The record argument: a BLOB. Text or numbers are refused rather than read as bytes, since they
// are never what a record column was meant to hold.
ByteView recordArgument(sqlite3_value* value) {
  const int type = sqlite3_value_type(value);
  if (type != SQLITE_BLOB) {
    throw SqlError::invalidArgument(std::string("the record is ") + typeName(type) +
                                    ", not a blob of encoded protobuf");
  }
  const auto* bytes = static_cast<const std::byte*>(sqlite3_value_blob(value));
  const auto size = static_cast<size_t>(sqlite3_value_bytes(value));
  return bytes ? ByteView(bytes, size) : ByteView();
}

std::string_view textArgument(sqlite3_value* value) {
  const auto* text = reinterpret_cast<const char*>(sqlite3_value_text(value));
  const auto size = static_cast<size_t>(sqlite3_value_bytes(value));
  return text ? std::string_view(text, size) : std::string_view();
}

bool anyNull(int count, sqlite3_value** arguments) {
  for (int i = 0; i < count; ++i) {
    if (sqlite3_value_type(arguments[i]) == SQLITE_NULL) return true;
  }
  return false;
}

// One prepared statement on the connection, finalized when it goes. Throws SqlError::sqliteError
// with SQLite's message when SQLite refuses it.
class Statement {
 public:
  Statement(sqlite3* db, const char* sql) : db_(db) {
    if (sqlite3_prepare_v2(db, sql, -1, &statement_, nullptr) != SQLITE_OK) fail();
  }
  ~Statement() { sqlite3_finalize(statement_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  void bind(int index, int64_t value) { check(sqlite3_bind_int64(statement_, index, value)); }
  void bind(int index, std::string_view text) {
    check(sqlite3_bind_text64(statement_, index, text.data(), text.size(), SQLITE_TRANSIENT,
                              SQLITE_UTF8));
  }
  // Steps once: true for a row, false when done.
  bool step() {
    const int status = sqlite3_step(statement_);
    if (status == SQLITE_ROW) return true;
    if (status != SQLITE_DONE) fail();
    return false;
  }
  // Steps to the end, then resets, keeping the bindings.
  void run() {
    while (step()) {
    }
    sqlite3_reset(statement_);
  }
  int64_t integer(int column) const { return sqlite3_column_int64(statement_, column); }
  std::string_view text(int column) const {
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement_, column));
    const auto size = static_cast<size_t>(sqlite3_column_bytes(statement_, column));
    return text ? std::string_view(text, size) : std::string_view();
  }

 private:
  void check(int status) {
    if (status != SQLITE_OK) fail();
  }
  [[noreturn]] void fail() { throw SqlError::sqliteError(sqlite3_errmsg(db_)); }

  sqlite3* db_;
  sqlite3_stmt* statement_ = nullptr;
};

void execute(sqlite3* db, const char* sql) {
  char* error = nullptr;
  if (sqlite3_exec(db, sql, nullptr, nullptr, &error) != SQLITE_OK) {
    std::string text = error ? error : sqlite3_errmsg(db);
    sqlite3_free(error);
    throw SqlError::sqliteError(std::move(text));
  }
}

// The registered types of a database: one row per message or enum type, its definition the JSON
// manifest of that one type. Rows are only ever added, which the triggers enforce against plain
// SQL too: a name keeps its definition for good.
constexpr const char* kCreateTable =
    "CREATE TABLE IF NOT EXISTS main.ostrel_schemas ("
    "name TEXT PRIMARY KEY NOT NULL, is_message INTEGER NOT NULL, definition TEXT NOT NULL);"
    "CREATE TRIGGER IF NOT EXISTS main.ostrel_schemas_no_update BEFORE UPDATE ON ostrel_schemas "
    "BEGIN SELECT RAISE(ABORT, 'registered ostrel schemas cannot be changed or removed; "
    "register a new name'); END;"
    "CREATE TRIGGER IF NOT EXISTS main.ostrel_schemas_no_delete BEFORE DELETE ON ostrel_schemas "
    "BEGIN SELECT RAISE(ABORT, 'registered ostrel schemas cannot be changed or removed; "
    "register a new name'); END;";

// The schemas of one connection, kept in step with its database's table of registered types.
//
// Every type registered through any connection is a row of main.ostrel_schemas, so a type name
// means the same to every connection of a database: an index built through one stays right for
// rows written through another, and no connection can register a second definition. Each
// connection reads all rows on first use, and the rows added since (by other connections) when it
// is asked for a name it does not know; a known name never needs the table again, since its
// definition cannot change. A registration made inside a transaction is undone with it: once the
// transaction has ended, the rows are read again.
class ConnectionSchemas {
 public:
  ConnectionSchemas(sqlite3* db, SchemaManifest initial, std::optional<std::string> defaultType)
      : db_(db),
        initial_(std::move(initial)),
        schemas_(initial_),
        defaultType_(std::move(defaultType)) {}

  // The schemas, the table's rows read in when that is due.
  SqlSchemas& schemas() {
    if (!loaded_ || (inTransaction_ && sqlite3_get_autocommit(db_))) reload();
    return schemas_;
  }

  // Runs `body` over the schemas; when it fails for a type name not known here, reads the rows
  // other connections added since and runs it once more.
  template <typename Body>
  auto withSchemas(Body&& body) -> decltype(body(std::declval<SqlSchemas&>())) {
    SqlSchemas& current = schemas();
    try {
      return body(current);
    } catch (const SchematizerError& error) {
      if (error.code() != SchematizerError::Code::schemaNotFound) throw;
      if (!readNewRows()) throw;
    }
    return body(schemas_);
  }

  // Stores the types `incoming` adds in the table and the connection's schemas, refusing a
  // changed definition of a stored type (MergeConflict); returns how many message types are
  // registered in all.
  size_t add(const SchemaManifest& incoming) {
    schemas();
    readNewRows();
    const SchemaManifest fresh = schemas_.unregistered(incoming);
    if (fresh.messages.empty() && fresh.enums.empty()) return schemas_.registered().messages.size();
    execute(db_, "SAVEPOINT ostrel_register");
    int64_t last = lastRowid_;
    try {
      execute(db_, kCreateTable);
      Statement insert(db_,
                       "INSERT INTO main.ostrel_schemas (name, is_message, definition) "
                       "VALUES (?1, ?2, ?3)");
      const auto store = [&](const std::string& name, bool message, const SchemaManifest& one) {
        insert.bind(1, name);
        insert.bind(2, int64_t{message ? 1 : 0});
        insert.bind(3, schemaManifestToJSON(one));
        insert.run();
        last = sqlite3_last_insert_rowid(db_);
      };
      for (const auto& [name, message] : fresh.messages) {
        SchemaManifest one;
        one.messages.emplace(name, message);
        store(name, true, one);
      }
      for (const auto& [name, enumeration] : fresh.enums) {
        SchemaManifest one;
        one.enums.emplace(name, enumeration);
        store(name, false, one);
      }
      schemas_.add(fresh);
      execute(db_, "RELEASE ostrel_register");
    } catch (...) {
      sqlite3_exec(db_, "ROLLBACK TO ostrel_register; RELEASE ostrel_register", nullptr, nullptr,
                   nullptr);
      // The connection's schemas may hold what the table does not: read them again.
      loaded_ = false;
      throw;
    }
    lastRowid_ = last;
    inTransaction_ = inTransaction_ || !sqlite3_get_autocommit(db_);
    return schemas_.registered().messages.size();
  }

  // Names the default type, kept across rereads of the table.
  const std::string& setDefaultType(std::string_view name) {
    withSchemas([&](SqlSchemas& schemas) { schemas.setDefaultType(name); });
    defaultType_ = *schemas_.defaultType();
    return *defaultType_;
  }

 private:
  // Reads every row again, over the definitions the connection started with.
  void reload() {
    SqlSchemas schemas(initial_);
    loaded_ = false;
    inTransaction_ = false;
    int64_t last = 0;
    schemas.add(rowsAfter(0, last));
    if (defaultType_) {
      try {
        schemas.setDefaultType(*defaultType_);
      } catch (const SchematizerError&) {
        // The default type's registration was rolled back.
        defaultType_.reset();
      }
    }
    schemas_ = std::move(schemas);
    lastRowid_ = last;
    loaded_ = true;
  }

  // Reads the rows added since the last read; true when there were any.
  bool readNewRows() {
    int64_t last = lastRowid_;
    const SchemaManifest added = rowsAfter(lastRowid_, last);
    if (last == lastRowid_) return false;
    schemas_.add(added);
    lastRowid_ = last;
    return true;
  }

  // The definitions of the rows after `rowid`; `last` becomes the rowid of the last one read. No
  // table: none.
  SchemaManifest rowsAfter(int64_t rowid, int64_t& last) {
    SchemaManifest manifest;
    {
      Statement exists(db_,
                       "SELECT 1 FROM main.sqlite_master WHERE type = 'table' AND "
                       "name = 'ostrel_schemas'");
      if (!exists.step()) return manifest;
    }
    Statement rows(db_,
                   "SELECT rowid, definition FROM main.ostrel_schemas WHERE rowid > ?1 "
                   "ORDER BY rowid");
    rows.bind(1, rowid);
    while (rows.step()) {
      manifest.merge(schemaManifestFromJSON(rows.text(1)), MergePolicy::requireEqual);
      last = rows.integer(0);
    }
    return manifest;
  }

  sqlite3* db_;
  SchemaManifest initial_;
  SqlSchemas schemas_;
  std::optional<std::string> defaultType_;
  int64_t lastRowid_ = 0;
  bool loaded_ = false;
  // Whether types were registered inside a transaction that had not ended then.
  bool inTransaction_ = false;
};

ConnectionSchemas& connectionOf(sqlite3_context* context) {
  return **static_cast<std::shared_ptr<ConnectionSchemas>*>(sqlite3_user_data(context));
}

// Whether the statements running on the connection are ones the application wrote to call a
// registration function. Registration and the default type change what every later read means,
// so nothing stored in a database file may call them. SQLite refuses direct-only functions in
// views and triggers, but 3.40 still runs them from CHECK constraints, and from generated columns
// and indexes whose schema was read before the extension was loaded. Those run inside statements
// that write, or inside reads that never name the function (a SELECT of a generated column,
// PRAGMA integrity_check). So every statement in progress must be read-only and call one of the
// registration functions by name in its own text.
bool calledByApplication(sqlite3* db) {
  static constexpr std::string_view kNames[] = {"ostrel_register_descriptor_set",
                                                "ostrel_register_manifest", "ostrel_register_proto",
                                                "ostrel_default_type"};
  for (sqlite3_stmt* statement = sqlite3_next_stmt(db, nullptr); statement;
       statement = sqlite3_next_stmt(db, statement)) {
    if (!sqlite3_stmt_busy(statement)) continue;
    if (!sqlite3_stmt_readonly(statement)) return false;
    const char* sql = sqlite3_sql(statement);
    std::string text = sql ? sql : "";
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    bool calls = false;
    for (const std::string_view name : kNames) {
      for (size_t at = text.find(name); at != std::string::npos && !calls;
           at = text.find(name, at + 1)) {
        size_t next = at + name.size();
        while (next < text.size() && std::isspace(static_cast<unsigned char>(text[next]))) ++next;
        calls = next < text.size() && text[next] == '(';
      }
    }
    if (!calls) return false;
  }
  return true;
}

void refuseUnlessApplication(sqlite3_context* context, const char* function) {
  if (!calledByApplication(sqlite3_context_db_handle(context))) {
    throw SqlError::notPermitted(
        std::string(function) +
        " runs only from the application's own read-only statements that call it, with no "
        "other kind of statement in progress; never from a CHECK constraint, trigger, view, "
        "default, generated column or index of the database");
  }
}

// Resolves the path argument of a read once per statement: SQLite keeps the result with the
// statement for as long as the path argument is a constant. The cached resolution is checked
// against the type argument, or against the default type when there is none, since a column or
// a later ostrel_default_type may change them between rows.
class PathArgument {
 public:
  PathArgument(sqlite3_context* context, int count, sqlite3_value** arguments)
      : context_(context), pathIndex_(count >= 3 ? 2 : 1) {
    const bool typed = count >= 3;
    ConnectionSchemas& connection = connectionOf(context);
    const std::optional<std::string_view> type =
        typed ? std::optional(textArgument(arguments[1])) : std::nullopt;
    auto* cached = static_cast<ResolvedPath*>(sqlite3_get_auxdata(context, pathIndex_));
    if (cached &&
        (typed ? cached->type == *type : cached->generation == connection.schemas().generation())) {
      path_ = cached;
      return;
    }
    const std::string_view path = textArgument(arguments[pathIndex_]);
    fresh_ = connection.withSchemas(
        [&](const SqlSchemas& schemas) { return resolvePath(schemas, type, path); });
    path_ = fresh_.get();
  }

  // Hands a fresh resolution to SQLite, which may free it at once when it cannot keep it: call
  // last.
  ~PathArgument() {
    if (fresh_) {
      sqlite3_set_auxdata(context_, pathIndex_, fresh_.release(),
                          [](void* p) { delete static_cast<ResolvedPath*>(p); });
    }
  }
  PathArgument(const PathArgument&) = delete;
  PathArgument& operator=(const PathArgument&) = delete;

  const FieldPathAndType& path() const { return path_->path; }

  // The value at the path in `record`, as a read of `mode` finds it; borrows from `record` and
  // from `merged`.
  std::optional<detail::AnyValueImpl> read(ByteView record, ReadMode mode, Bytes& merged) const {
    if (mode == ReadMode::exact) {
      return readValueExact(*path_->schema, record, path_->path.fieldPath, path_->path.type,
                            merged);
    }
    Reader reader(record);
    return readValue(reader, path_->path);
  }

 private:
  sqlite3_context* context_;
  int pathIndex_;
  std::unique_ptr<ResolvedPath> fresh_;
  const ResolvedPath* path_ = nullptr;
};

// The read mode of a four-argument read: its last argument, true (non-zero) for exact.
ReadMode modeArgument(int count, sqlite3_value** arguments) {
  if (count < 4) return ReadMode::first;
  const int type = sqlite3_value_type(arguments[3]);
  if (type != SQLITE_INTEGER) {
    throw SqlError::invalidArgument(std::string("the exact argument is ") + typeName(type) +
                                    ", not an integer (0 or 1)");
  }
  return sqlite3_value_int64(arguments[3]) != 0 ? ReadMode::exact : ReadMode::first;
}

// P_GET(record, path), P_GET(record, type, path), P_GET(record, type, path, exact).
void pGet(sqlite3_context* context, int count, sqlite3_value** arguments) {
  if (anyNull(count, arguments)) return sqlite3_result_null(context);
  guarded(context, [&] {
    const ByteView record = recordArgument(arguments[0]);
    const ReadMode mode = modeArgument(count, arguments);
    const PathArgument path(context, count, arguments);
    Bytes merged;
    const std::optional<detail::AnyValueImpl> value = path.read(record, mode, merged);
    if (value) {
      resultValue(context, *value);
    } else {
      sqlite3_result_null(context);
    }
  });
}

// P_HAS(record, path), P_HAS(record, type, path), P_HAS(record, type, path, exact).
void pHas(sqlite3_context* context, int count, sqlite3_value** arguments) {
  if (anyNull(count, arguments)) return sqlite3_result_null(context);
  guarded(context, [&] {
    const ByteView record = recordArgument(arguments[0]);
    const ReadMode mode = modeArgument(count, arguments);
    const PathArgument path(context, count, arguments);
    Bytes merged;
    sqlite3_result_int(context, path.read(record, mode, merged) ? 1 : 0);
  });
}

// P_JSON(record), P_JSON(record, type).
void pJson(sqlite3_context* context, int count, sqlite3_value** arguments) {
  if (anyNull(count, arguments)) return sqlite3_result_null(context);
  guarded(context, [&] {
    const ByteView record = recordArgument(arguments[0]);
    const MessageSchema schema = connectionOf(context).withSchemas([&](const SqlSchemas& schemas) {
      return count == 2 ? schemas.messageSchema(textArgument(arguments[1]))
                        : schemas.defaultSchema();
    });
    resultText(context, renderJSON(schema.view(record), kStrictJson));
  });
}

// P_ENCODE(type, json).
void pEncode(sqlite3_context* context, int count, sqlite3_value** arguments) {
  if (anyNull(count, arguments)) return sqlite3_result_null(context);
  guarded(context, [&] {
    const MessageSchema schema = connectionOf(context).withSchemas([&](const SqlSchemas& schemas) {
      return schemas.messageSchema(textArgument(arguments[0]));
    });
    const SchematizedData data = parseJSON(schema, textArgument(arguments[1]));
    resultBlob(context, data.bytes());
  });
}

// P_CONFLUENT_ID, P_CONFLUENT_PATH and P_CONFLUENT_PAYLOAD(value [, 'unsigned']): the parts of a
// value in Confluent's envelope, as Kafka Connect's sinks store them: the schema id (an INTEGER,
// or the GUID as TEXT), the message-index path as a JSON array, and the message, which P_GET
// reads. 'unsigned' reads the index path as older Python serializers write it.
enum class ConfluentPart { id, path, payload };

template <ConfluentPart part>
void pConfluent(sqlite3_context* context, int count, sqlite3_value** arguments) {
  if (anyNull(count, arguments)) return sqlite3_result_null(context);
  guarded(context, [&] {
    ConfluentIndexForm form = ConfluentIndexForm::zigzag;
    if (count == 2) {
      const std::string_view name = textArgument(arguments[1]);
      if (name != "zigzag" && name != "unsigned") {
        throw std::invalid_argument("the index form is 'zigzag' or 'unsigned'");
      }
      if (name == "unsigned") form = ConfluentIndexForm::unsignedVarint;
    }
    const ConfluentEnvelope envelope = decodeConfluent(recordArgument(arguments[0]), form);
    if constexpr (part == ConfluentPart::id) {
      if (envelope.schema.id) return sqlite3_result_int64(context, *envelope.schema.id);
      resultText(context, envelope.schema.idText());
    } else if constexpr (part == ConfluentPart::path) {
      std::string text = "[";
      for (const int32_t index : envelope.schema.indexes) {
        if (text.size() > 1) text += ',';
        text += std::to_string(index);
      }
      resultText(context, text + "]");
    } else {
      resultBlob(context, envelope.payload);
    }
  });
}

void registerDescriptorSet(sqlite3_context* context, int count, sqlite3_value** arguments) {
  if (anyNull(count, arguments)) return sqlite3_result_null(context);
  guarded(context, [&] {
    refuseUnlessApplication(context, "ostrel_register_descriptor_set");
    const auto* bytes = static_cast<const std::byte*>(sqlite3_value_blob(arguments[0]));
    const auto size = static_cast<size_t>(sqlite3_value_bytes(arguments[0]));
    const size_t total = connectionOf(context).add(
        schemaManifestFromDescriptorSet(bytes ? ByteView(bytes, size) : ByteView()));
    sqlite3_result_int64(context, static_cast<sqlite3_int64>(total));
  });
}

void registerManifest(sqlite3_context* context, int count, sqlite3_value** arguments) {
  if (anyNull(count, arguments)) return sqlite3_result_null(context);
  guarded(context, [&] {
    refuseUnlessApplication(context, "ostrel_register_manifest");
    const size_t total =
        connectionOf(context).add(schemaManifestFromJSON(textArgument(arguments[0])));
    sqlite3_result_int64(context, static_cast<sqlite3_int64>(total));
  });
}

void registerProto(sqlite3_context* context, int count, sqlite3_value** arguments) {
  if (anyNull(count, arguments)) return sqlite3_result_null(context);
  guarded(context, [&] {
    refuseUnlessApplication(context, "ostrel_register_proto");
    const size_t total =
        connectionOf(context).add(schemaManifestFromProtoText(textArgument(arguments[0])));
    sqlite3_result_int64(context, static_cast<sqlite3_int64>(total));
  });
}

void setDefaultType(sqlite3_context* context, int count, sqlite3_value** arguments) {
  if (anyNull(count, arguments)) return sqlite3_result_null(context);
  guarded(context, [&] {
    refuseUnlessApplication(context, "ostrel_default_type");
    resultText(context, connectionOf(context).setDefaultType(textArgument(arguments[0])));
  });
}

// P_EACH: an eponymous table-valued function, one row per element of a repeated field or map.
// Arguments bind to the hidden columns in order, so with two arguments the path arrives in the
// second hidden column and with three in the third.
enum EachColumn { kIndex, kKey, kValue, kRecord, kTypeOrPath, kPath };

struct EachTable {
  sqlite3_vtab base{};
  std::shared_ptr<ConnectionSchemas> connection;
};

struct EachCursor {
  sqlite3_vtab_cursor base{};
  // The elements of the current call, one at a time, over a copy of the record (SQLite's
  // arguments need not outlive the call that passed them).
  Bytes record;
  std::optional<RepeatedField::Elements> elements;
  std::optional<RepeatedField::Element> current;
  int64_t row = 0;
  // The last resolution, reused while the type and path stay the same.
  std::unique_ptr<ResolvedRepeated> resolved;
};

void setError(sqlite3_vtab* table, const char* text) {
  sqlite3_free(table->zErrMsg);
  table->zErrMsg = sqlite3_mprintf("%s", text);
}

int eachConnect(sqlite3* db, void* userData, int, const char* const*, sqlite3_vtab** table,
                char**) {
  const int status = sqlite3_declare_vtab(
      db,
      "CREATE TABLE x(\"index\" INTEGER, key, value, record HIDDEN, type_or_path HIDDEN, "
      "path HIDDEN)");
  if (status != SQLITE_OK) return status;
  sqlite3_vtab_config(db, SQLITE_VTAB_INNOCUOUS);
  auto* created = new (std::nothrow) EachTable;
  if (!created) return SQLITE_NOMEM;
  created->connection = *static_cast<std::shared_ptr<ConnectionSchemas>*>(userData);
  *table = &created->base;
  return SQLITE_OK;
}

int eachDisconnect(sqlite3_vtab* table) {
  delete reinterpret_cast<EachTable*>(table);
  return SQLITE_OK;
}

int eachBestIndex(sqlite3_vtab* table, sqlite3_index_info* info) {
  int argument[3] = {-1, -1, -1};
  int unusable = 0;
  const std::span constraints(info->aConstraint, static_cast<size_t>(info->nConstraint));
  for (const auto& constraint : constraints) {
    if (constraint.iColumn < kRecord) continue;
    const int hidden = constraint.iColumn - kRecord;
    if (!constraint.usable) {
      unusable |= 1 << hidden;
    } else if (constraint.op == SQLITE_INDEX_CONSTRAINT_EQ) {
      argument[hidden] = static_cast<int>(&constraint - constraints.data());
    }
  }
  // An argument that comes from a table not yet scanned: this plan cannot run, another order
  // of the joins can.
  for (int hidden = 0; hidden < 3; ++hidden) {
    if ((unusable & (1 << hidden)) && argument[hidden] < 0) return SQLITE_CONSTRAINT;
  }
  if (argument[0] < 0 || argument[1] < 0) {
    setError(table, "P_EACH takes (record, path) or (record, type, path)");
    return SQLITE_ERROR;
  }
  int next = 1;
  for (int hidden = 0; hidden < 3; ++hidden) {
    if (argument[hidden] < 0) continue;
    info->aConstraintUsage[argument[hidden]].argvIndex = next++;
    info->aConstraintUsage[argument[hidden]].omit = 1;
  }
  info->idxNum = next - 1;
  info->estimatedCost = 10;
  info->estimatedRows = 10;
  return SQLITE_OK;
}

int eachOpen(sqlite3_vtab*, sqlite3_vtab_cursor** cursor) {
  auto* opened = new (std::nothrow) EachCursor;
  if (!opened) return SQLITE_NOMEM;
  *cursor = &opened->base;
  return SQLITE_OK;
}

int eachClose(sqlite3_vtab_cursor* cursor) {
  delete reinterpret_cast<EachCursor*>(cursor);
  return SQLITE_OK;
}

int eachFilter(sqlite3_vtab_cursor* base, int count, const char*, int, sqlite3_value** arguments) {
  auto* cursor = reinterpret_cast<EachCursor*>(base);
  cursor->elements.reset();
  cursor->current.reset();
  cursor->row = 0;
  if (count < 2 || anyNull(count, arguments)) return SQLITE_OK;
  try {
    ConnectionSchemas& connection = *reinterpret_cast<EachTable*>(base->pVtab)->connection;
    const bool typed = count == 3;
    const std::optional<std::string_view> type =
        typed ? std::optional(textArgument(arguments[1])) : std::nullopt;
    const std::string_view path = textArgument(arguments[count - 1]);
    const ResolvedRepeated* cached = cursor->resolved.get();
    if (!cached || cached->field.path() != path ||
        (typed ? cached->type != *type : cached->generation != connection.schemas().generation())) {
      cursor->resolved = connection.withSchemas(
          [&](const SqlSchemas& schemas) { return resolveRepeated(schemas, type, path); });
    }
    cursor->record = toBytes(recordArgument(arguments[0]));
    cursor->elements.emplace(cursor->resolved->field.elements(cursor->record));
    cursor->current = cursor->elements->next();
    return SQLITE_OK;
  } catch (const std::bad_alloc&) {
    cursor->elements.reset();
    return SQLITE_NOMEM;
  } catch (const std::exception& error) {
    cursor->elements.reset();
    setError(base->pVtab, error.what());
    return SQLITE_ERROR;
  }
}

int eachNext(sqlite3_vtab_cursor* base) {
  auto* cursor = reinterpret_cast<EachCursor*>(base);
  try {
    cursor->current = cursor->elements->next();
    ++cursor->row;
    return SQLITE_OK;
  } catch (const std::bad_alloc&) {
    return SQLITE_NOMEM;
  } catch (const std::exception& error) {
    cursor->current.reset();
    setError(base->pVtab, error.what());
    return SQLITE_ERROR;
  }
}

int eachEof(sqlite3_vtab_cursor* base) { return !reinterpret_cast<EachCursor*>(base)->current; }

int eachColumn(sqlite3_vtab_cursor* base, sqlite3_context* context, int column) {
  const auto* cursor = reinterpret_cast<EachCursor*>(base);
  guarded(context, [&] {
    const RepeatedField::Element& element = *cursor->current;
    switch (column) {
      case kIndex:
        return sqlite3_result_int64(context, static_cast<sqlite3_int64>(cursor->row));
      case kKey:
        if (!element.key) return sqlite3_result_null(context);
        return resultValue(context, element.key->impl());
      case kValue:
        return resultValue(context, element.value.impl());
      default:
        return sqlite3_result_null(context);
    }
  });
  return SQLITE_OK;
}

int eachRowid(sqlite3_vtab_cursor* base, sqlite3_int64* rowid) {
  *rowid = reinterpret_cast<EachCursor*>(base)->row;
  return SQLITE_OK;
}

const sqlite3_module& eachModule() {
  static const sqlite3_module module = [] {
    sqlite3_module m{};
    m.iVersion = 0;
    // No xCreate: P_EACH exists only as an eponymous table, never as CREATE VIRTUAL TABLE.
    m.xConnect = eachConnect;
    m.xBestIndex = eachBestIndex;
    m.xDisconnect = eachDisconnect;
    m.xOpen = eachOpen;
    m.xClose = eachClose;
    m.xFilter = eachFilter;
    m.xNext = eachNext;
    m.xEof = eachEof;
    m.xColumn = eachColumn;
    m.xRowid = eachRowid;
    return m;
  }();
  return module;
}

using Function = void (*)(sqlite3_context*, int, sqlite3_value**);

void deleteSchemas(void* p) { delete static_cast<std::shared_ptr<ConnectionSchemas>*>(p); }

void createFunction(sqlite3* db, const char* name, int arguments, int flags, Function function,
                    const std::shared_ptr<ConnectionSchemas>& schemas) {
  auto* shared = new std::shared_ptr<ConnectionSchemas>(schemas);
  // On failure SQLite has already called the destructor of the user data.
  if (sqlite3_create_function_v2(db, name, arguments, SQLITE_UTF8 | flags, shared, function,
                                 nullptr, nullptr, deleteSchemas) != SQLITE_OK) {
    throw SqlError::sqliteError(std::string("cannot register ") + name + ": " + sqlite3_errmsg(db));
  }
}

// The message schema of a rewrite: the type argument at `typeIndex` when the call has
// `typedCount` arguments, else the connection's default type.
MessageSchema rewriteSchema(sqlite3_context* context, int count, int typedCount,
                            sqlite3_value** arguments) {
  return connectionOf(context).withSchemas([&](const SqlSchemas& schemas) {
    return count == typedCount ? schemas.messageSchema(textArgument(arguments[1]))
                               : schemas.defaultSchema();
  });
}

// A value as SQL gives it, for the field a rewrite sets: numbers and text as the tool's text form
// takes them (text itself for string fields, JSON for messages), a blob as bytes (the encoded
// message for a message field).
EditValue editValue(sqlite3_value* value) {
  switch (sqlite3_value_type(value)) {
    case SQLITE_INTEGER:
      return EditValue::text(std::to_string(sqlite3_value_int64(value)));
    case SQLITE_FLOAT: {
      char text[32];
      const auto end = std::to_chars(text, text + sizeof text, sqlite3_value_double(value)).ptr;
      return EditValue::text(std::string(text, end));
    }
    case SQLITE_BLOB: {
      const auto* bytes = static_cast<const std::byte*>(sqlite3_value_blob(value));
      return AnyValue(bytes ? Bytes(bytes, bytes + sqlite3_value_bytes(value)) : Bytes());
    }
    default:
      return EditValue::text(std::string(textArgument(value)));
  }
}

// P_SET(record, path, value), P_SET(record, type, path, value). A NULL value clears the field.
void pSet(sqlite3_context* context, int count, sqlite3_value** arguments) {
  if (anyNull(count - 1, arguments)) return sqlite3_result_null(context);
  guarded(context, [&] {
    const ByteView record = recordArgument(arguments[0]);
    Rewrite rewrite(rewriteSchema(context, count, 4, arguments));
    const std::string_view path = textArgument(arguments[count - 2]);
    sqlite3_value* value = arguments[count - 1];
    if (sqlite3_value_type(value) == SQLITE_NULL) {
      rewrite.clear(path);
    } else {
      rewrite.set(path, editValue(value));
    }
    resultBlob(context, rewrite.apply(record));
  });
}

// P_CLEAR(record, path), P_CLEAR(record, type, path).
void pClear(sqlite3_context* context, int count, sqlite3_value** arguments) {
  if (anyNull(count, arguments)) return sqlite3_result_null(context);
  guarded(context, [&] {
    const ByteView record = recordArgument(arguments[0]);
    Rewrite rewrite(rewriteSchema(context, count, 3, arguments));
    rewrite.clear(textArgument(arguments[count - 1]));
    resultBlob(context, rewrite.apply(record));
  });
}

// P_MERGE(record, other), P_MERGE(record, type, other).
void pMerge(sqlite3_context* context, int count, sqlite3_value** arguments) {
  if (anyNull(count, arguments)) return sqlite3_result_null(context);
  guarded(context, [&] {
    const ByteView record = recordArgument(arguments[0]);
    const ByteView other = recordArgument(arguments[count - 1]);
    resultBlob(context, mergeRecord(rewriteSchema(context, count, 3, arguments), record, other));
  });
}

// P_NORMALIZE(record), P_NORMALIZE(record, type).
void pNormalize(sqlite3_context* context, int count, sqlite3_value** arguments) {
  if (anyNull(count, arguments)) return sqlite3_result_null(context);
  guarded(context, [&] {
    const ByteView record = recordArgument(arguments[0]);
    resultBlob(context, normalizeRecord(rewriteSchema(context, count, 2, arguments), record));
  });
}

}  // namespace

void registerFunctionSet(sqlite3* db, SchemaManifest manifest,
                         std::optional<std::string> defaultType) {
  auto schemas = std::make_shared<ConnectionSchemas>(db, std::move(manifest), std::nullopt);
  if (defaultType) schemas->setDefaultType(*defaultType);
  // Reads: the same arguments always give the same result, and nothing outside the arguments is
  // touched, so indexes may be built on them and untrusted schemas (views, triggers) may use them.
  constexpr int kRead = SQLITE_DETERMINISTIC | SQLITE_INNOCUOUS;
  // Registration changes what the connection's reads mean: only statements the application runs
  // itself may call it (see calledByApplication), never anything stored in a database file.
  constexpr int kRegister = SQLITE_DIRECTONLY;
  createFunction(db, "P_GET", 2, kRead, pGet, schemas);
  createFunction(db, "P_GET", 3, kRead, pGet, schemas);
  createFunction(db, "P_GET", 4, kRead, pGet, schemas);
  createFunction(db, "P_HAS", 2, kRead, pHas, schemas);
  createFunction(db, "P_HAS", 3, kRead, pHas, schemas);
  createFunction(db, "P_HAS", 4, kRead, pHas, schemas);
  createFunction(db, "P_JSON", 1, kRead, pJson, schemas);
  createFunction(db, "P_JSON", 2, kRead, pJson, schemas);
  createFunction(db, "P_ENCODE", 2, kRead, pEncode, schemas);
  createFunction(db, "P_SET", 3, kRead, pSet, schemas);
  createFunction(db, "P_SET", 4, kRead, pSet, schemas);
  createFunction(db, "P_CLEAR", 2, kRead, pClear, schemas);
  createFunction(db, "P_CLEAR", 3, kRead, pClear, schemas);
  createFunction(db, "P_MERGE", 2, kRead, pMerge, schemas);
  createFunction(db, "P_MERGE", 3, kRead, pMerge, schemas);
  createFunction(db, "P_NORMALIZE", 1, kRead, pNormalize, schemas);
  createFunction(db, "P_NORMALIZE", 2, kRead, pNormalize, schemas);
  for (const int arguments : {1, 2}) {
    createFunction(db, "P_CONFLUENT_ID", arguments, kRead, pConfluent<ConfluentPart::id>, schemas);
    createFunction(db, "P_CONFLUENT_PATH", arguments, kRead, pConfluent<ConfluentPart::path>,
                   schemas);
    createFunction(db, "P_CONFLUENT_PAYLOAD", arguments, kRead, pConfluent<ConfluentPart::payload>,
                   schemas);
  }
  createFunction(db, "ostrel_register_descriptor_set", 1, kRegister, registerDescriptorSet,
                 schemas);
  createFunction(db, "ostrel_register_manifest", 1, kRegister, registerManifest, schemas);
  createFunction(db, "ostrel_register_proto", 1, kRegister, registerProto, schemas);
  createFunction(db, "ostrel_default_type", 1, kRegister, setDefaultType, schemas);
  if (sqlite3_create_module_v2(db, "P_EACH", &eachModule(),
                               new std::shared_ptr<ConnectionSchemas>(schemas),
                               deleteSchemas) != SQLITE_OK) {
    throw SqlError::sqliteError(std::string("cannot register P_EACH: ") + sqlite3_errmsg(db));
  }
}

}  // namespace ostrel::detail::OSTREL_SQLITE_NAMESPACE

#ifndef OSTREL_SQLITE_LOADABLE
namespace ostrel {

void registerSqliteFunctions(sqlite3* db, const SchemaManifest& manifest,
                             const std::optional<std::string>& defaultType) {
  detail::sqlite_linked::registerFunctionSet(db, manifest, defaultType);
}

}  // namespace ostrel
#endif
