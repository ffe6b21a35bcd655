#include <gtest/gtest.h>
#include <sqlite3.h>

#include <fstream>
#include <iterator>

#include "ostrel/manifest/manifest_data.hpp"
#include "ostrel/paths/property_path.hpp"
#include "ostrel/sql/sql.hpp"
#include "ostrel/wire/schematizer.hpp"
#include "rich.pb.h"
#include "sql/sqlite_test_support.hpp"
#include "support/random_message.hpp"
#include "support/test_support.hpp"

namespace ostrel {
namespace {

constexpr const char* kRich = "ostrel.test.Rich";

std::string richDescriptorSet() {
  std::ifstream in(std::string(OSTREL_TEST_GENERATED) + "/rich.desc", std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

SchemaManifest richManifest() {
  return schemaManifestFromDescriptorSet(asBytes(richDescriptorSet()));
}

// A database with the function set over the rich schema and a table of random Rich records.
class RichTable {
 public:
  explicit RichTable(int count, uint32_t seed = 7) : store_(richManifest()) {
    registerSqliteFunctions(db_.get(), richManifest());
    db_.exec("CREATE TABLE orders (id INTEGER PRIMARY KEY, record BLOB)");
    testing_support::RandomMessageFiller filler(seed);
    const Statement insert(db_.get(), "INSERT INTO orders (record) VALUES (?)");
    for (int i = 0; i < count; ++i) {
      test::Rich message;
      filler.fill(message);
      records_.push_back(message.SerializeAsString());
      sqlite3_bind_blob(insert.get(), 1, records_.back().data(),
                        static_cast<int>(records_.back().size()), SQLITE_STATIC);
      EXPECT_EQ(sqlite3_step(insert.get()), SQLITE_DONE);
      sqlite3_reset(insert.get());
    }
  }

  Database& db() { return db_; }
  const std::vector<std::string>& records() const { return records_; }
  MessageSchema rich() const { return store_.messageSchema(kRich); }

 private:
  Database db_;
  SchemaStore store_;
  std::vector<std::string> records_;
};

// The rows of a query, each row its columns in columnText form joined by " | "; an error is one
// row "error:<message>".
std::vector<std::string> rows(Database& db, const std::string& sql,
                              const std::vector<std::string>& texts = {}) {
  const Statement statement(db.get(), sql);
  if (statement.status() != SQLITE_OK) return {"error:" + std::string(sqlite3_errmsg(db.get()))};
  for (size_t i = 0; i < texts.size(); ++i) {
    sqlite3_bind_text(statement.get(), static_cast<int>(i + 1), texts[i].data(),
                      static_cast<int>(texts[i].size()), SQLITE_TRANSIENT);
  }
  std::vector<std::string> out;
  int step;
  while ((step = sqlite3_step(statement.get())) == SQLITE_ROW) {
    std::string row;
    for (int i = 0; i < sqlite3_column_count(statement.get()); ++i) {
      if (i > 0) row += " | ";
      row += columnText(statement.get(), i);
    }
    out.push_back(row);
  }
  if (step != SQLITE_DONE) out.push_back("error:" + std::string(sqlite3_errmsg(db.get())));
  return out;
}

std::string single(Database& db, const std::string& sql) {
  const std::vector<std::string> result = rows(db, sql);
  return result.size() == 1 ? result[0] : "rows:" + std::to_string(result.size());
}

const std::vector<std::string> kPaths = {
    "mid.leaf.id",
    "mid.leaf.label",
    "scalars.f_uint64",
    "scalars.f_double",
    "scalars.f_float",
    "scalars.f_bool",
    "scalars.f_bytes",
    "scalars.f_enum",
    "color",
    "mids[1].note",
    "repeats.r_sint64[0]",
    "mid.leaf",
    "counts[0].key",
    "maybe",
    "name",
    "scalars.f_fixed64",
};

TEST(SqliteFunctionSetTest, TypedReadsInBothFormsMatchReadsThroughTheLibrary) {
  RichTable table(150);
  std::vector<ProjectedPath> projected;
  for (const std::string& path : kPaths) projected.push_back({path, std::nullopt});
  const std::string typed =
      buildProjection(table.rich(), "orders", "record", projected, {SqlDialect::sqlite, true});
  const std::string untyped = buildProjection(table.rich(), "orders", "record", projected);
  EXPECT_EQ(single(table.db(), "SELECT ostrel_default_type('ostrel.test.Rich')"),
            "text:ostrel.test.Rich");
  for (const std::string& sql : {typed, untyped}) {
    SCOPED_TRACE(sql);
    const Statement select(table.db().get(), sql + " ORDER BY id");
    ASSERT_EQ(select.status(), SQLITE_OK) << sqlite3_errmsg(table.db().get());
    size_t row = 0;
    int nonNull = 0;
    while (sqlite3_step(select.get()) == SQLITE_ROW) {
      const SchematizedData data = table.rich().schematizedData(table.records().at(row));
      for (size_t i = 0; i < kPaths.size(); ++i) {
        SCOPED_TRACE("row " + std::to_string(row) + " " + kPaths[i]);
        const std::string actual = columnText(select.get(), static_cast<int>(i));
        EXPECT_EQ(actual, expectedText(data.value(kPaths[i])));
        nonNull += actual != "NULL";
      }
      ++row;
    }
    EXPECT_EQ(row, table.records().size());
    EXPECT_GT(nonNull, 600);
  }
}

TEST(SqliteFunctionSetTest, HasTellsPresence) {
  RichTable table(100);
  for (const std::string& path : kPaths) {
    SCOPED_TRACE(path);
    const std::vector<std::string> has = rows(
        table.db(), "SELECT P_HAS(record, 'ostrel.test.Rich', ?) FROM orders ORDER BY id", {path});
    ASSERT_EQ(has.size(), table.records().size());
    for (size_t row = 0; row < has.size(); ++row) {
      const SchematizedData data = table.rich().schematizedData(table.records()[row]);
      EXPECT_EQ(has[row], data.value(path) ? "int:1" : "int:0") << "row " << row;
    }
  }
}

// The rows P_EACH must give for `path` of one record, read with the library's repeated-field
// iterator over the message holding the field.
std::vector<std::string> iteratedRows(const MessageSchema& rich, const std::string& record,
                                      const std::string& path) {
  const SchematizedData data = rich.schematizedData(record);
  const size_t dot = path.rfind('.');
  std::optional<SchematizedData> holder = data;
  if (dot != std::string::npos) {
    const std::optional<AnyValue> found = data.value(path.substr(0, dot));
    if (!found) return {};
    holder = found->messageValue();
  }
  const FieldSchema field =
      holder->messageSchema().fieldNamed(dot == std::string::npos ? path : path.substr(dot + 1));
  const TypeSchema type = field.type();
  const bool isMap = path == "counts" || path == "leaves_by_id";
  Schematizer::RepeatableFieldIterator iterator(holder->bytes(), field.fieldNumber(), type);
  std::vector<std::string> out;
  int64_t index = 0;
  for (const AnyValue& element : iterator) {
    std::string row = "int:" + std::to_string(index++) + " | ";
    if (isMap) {
      const SchematizedData& entry = element.messageValue();
      row += expectedText(entry.value("key")) + " | " + expectedText(entry.value("value"));
    } else {
      row += "NULL | " + expectedText(element);
    }
    out.push_back(row);
  }
  return out;
}

TEST(SqliteFunctionSetTest, EachRowsMatchTheRepeatedFieldIterator) {
  RichTable table(120, 11);
  const std::vector<std::string> paths = {
      "repeats.r_int32",
      "repeats.r_sint64",
      "repeats.r_uint64",
      "repeats.r_double",
      "repeats.r_float",
      "repeats.r_bool",
      "repeats.r_string",
      "repeats.r_bytes",
      "repeats.r_enum",
      "repeats.r_message",
      "mids",
      "mid.leaves",
      "mids[0].leaves",
      "counts",
      "leaves_by_id",
      "mid.leaf.codes",
  };
  for (const std::string& path : paths) {
    SCOPED_TRACE(path);
    // Correlated with the table, as a join runs it: one P_EACH call per record.
    const std::vector<std::string> actual =
        rows(table.db(),
             "SELECT o.id, e.\"index\", e.key, e.value FROM orders AS o, "
             "P_EACH(o.record, 'ostrel.test.Rich', ?) AS e ORDER BY o.id, e.\"index\"",
             {path});
    std::vector<std::string> expected;
    for (size_t row = 0; row < table.records().size(); ++row) {
      for (const std::string& element : iteratedRows(table.rich(), table.records()[row], path)) {
        expected.push_back("int:" + std::to_string(row + 1) + " | " + element);
      }
    }
    EXPECT_EQ(actual, expected);
    EXPECT_GT(expected.size(), 10u);
  }
}

TEST(SqliteFunctionSetTest, ExpressionIndexIsBuiltAndUsed) {
  RichTable table(300, 3);
  table.db().exec(
      "CREATE INDEX by_leaf ON orders(P_GET(record, 'ostrel.test.Rich', 'mid.leaf.id'))");
  const std::string where = " WHERE P_GET(record, 'ostrel.test.Rich', 'mid.leaf.id') = ";
  const std::vector<std::string> plan =
      rows(table.db(), "EXPLAIN QUERY PLAN SELECT id FROM orders" + where + "5");
  ASSERT_EQ(plan.size(), 1u);
  EXPECT_NE(plan[0].find("USING INDEX by_leaf"), std::string::npos) << plan[0];
  // The index gives what a scan computing every row gives.
  const std::vector<std::string> ids =
      rows(table.db(),
           "SELECT id, P_GET(record, 'ostrel.test.Rich', 'mid.leaf.id') FROM orders WHERE "
           "P_HAS(record, 'ostrel.test.Rich', 'mid.leaf.id') LIMIT 5");
  ASSERT_FALSE(ids.empty());
  for (const std::string& row : ids) {
    const std::string value = row.substr(row.find("int:", 4) + 4);
    SCOPED_TRACE(value);
    EXPECT_EQ(
        rows(table.db(), "SELECT id FROM orders" + where + value + " ORDER BY id"),
        rows(table.db(), "SELECT id FROM orders NOT INDEXED" + where + value + " ORDER BY id"));
  }
}

TEST(SqliteFunctionSetTest, RegistrationMergesAndRefusesChangedDefinitions) {
  Database db;
  registerSqliteFunctions(db.get());
  const auto registerProto = [&](const std::string& text) {
    return rows(db, "SELECT ostrel_register_proto(?)", {text}).at(0);
  };
  const std::string m = "syntax = \"proto3\"; package a; message M { int32 x = 1; }";
  EXPECT_EQ(registerProto(m), "int:1");
  EXPECT_EQ(registerProto(m), "int:1");
  EXPECT_EQ(registerProto("syntax = \"proto3\"; package a; message N { string y = 1; }"), "int:2");
  EXPECT_EQ(single(db, "SELECT hex(P_ENCODE('a.M', '{\"x\": 5}'))"), "text:0805");

  const std::string refused =
      "error:" +
      std::string(MergeConflict::conflict("Message type \"a.M\" is already registered with "
                                          "another definition; register a changed definition "
                                          "under a new name")
                      .what());
  // A new field is a change too, though a field-wise merge would take it.
  EXPECT_EQ(
      registerProto("syntax = \"proto3\"; package a; message M { int32 x = 1; int32 z = 2; }"),
      refused);
  // Nothing of a refused registration stays, not even its new types.
  EXPECT_EQ(registerProto("syntax = \"proto3\"; package a; message Q { int32 q = 1; }\n"
                          "message M { int64 x = 1; }"),
            refused);
  EXPECT_EQ(single(db, "SELECT hex(P_ENCODE('a.Q', '{}'))"),
            "error:" + std::string(SchematizerError::schemaNotFound("a.Q").what()));
  EXPECT_EQ(registerProto("syntax = \"proto3\"; package a; enum E { Z = 0; }"), "int:2");
  EXPECT_EQ(registerProto("syntax = \"proto3\"; package a; enum E { Z = 0; O = 1; }"),
            "error:" + std::string(MergeConflict::conflict(
                                       "Enum type \"a.E\" is already registered with another "
                                       "definition; register a changed definition under a new "
                                       "name")
                                       .what()));

  const std::string json = schemaManifestToJSON(richManifest());
  const size_t richMessages = richManifest().messages.size();
  EXPECT_EQ(rows(db, "SELECT ostrel_register_manifest(?)", {json}).at(0),
            "int:" + std::to_string(richMessages + 2));
  const std::string set = richDescriptorSet();
  {
    const Statement statement(db.get(), "SELECT ostrel_register_descriptor_set(?)");
    sqlite3_bind_blob(statement.get(), 1, set.data(), static_cast<int>(set.size()), SQLITE_STATIC);
    ASSERT_EQ(sqlite3_step(statement.get()), SQLITE_ROW);
    EXPECT_EQ(columnText(statement.get(), 0), "int:" + std::to_string(richMessages + 2));
  }
  EXPECT_EQ(registerProto("syntax = \"proto3\"; message {"),
            "error:" + std::string(SchemaManifestJSONError::invalidValueType(
                                       "input.proto:1:28: Expected message name.")
                                       .what()));
  // Only libprotobuf's own files are reachable from .proto text.
  EXPECT_EQ(registerProto("syntax = \"proto3\"; import \"/etc/passwd\";").substr(0, 36),
            "error:invalidValueType: /etc/passwd:");
  EXPECT_EQ(registerProto("syntax = \"proto3\"; import \"google/protobuf/timestamp.proto\";"
                          "package t; message T { google.protobuf.Timestamp at = 1; }"),
            "int:" + std::to_string(richMessages + 4));
  EXPECT_EQ(single(db, "SELECT ostrel_default_type('no.Such')"),
            "error:" + std::string(SchematizerError::schemaNotFound("no.Such").what()));
}

TEST(SqliteFunctionSetTest, RegistrationIsRefusedInsideViewsAndTriggers) {
  Database db;
  registerSqliteFunctions(db.get());
  db.exec("CREATE VIEW v AS SELECT ostrel_register_proto('package p; message P {}')");
  EXPECT_EQ(single(db, "SELECT * FROM v"), "error:unsafe use of ostrel_register_proto()");
}

struct ErrorRow {
  std::string sql;
  std::string expected;
};

TEST(SqliteFunctionSetTest, NullsBadRecordsBadTypesAndHostilePaths) {
  Database db;
  registerSqliteFunctions(db.get(), richManifest());
  const auto error = [](const Error& e) { return "error:" + std::string(e.what()); };
  const std::string noDefault =
      error(SchematizerError::schemaNotFound("no default message type; name one with "
                                             "ostrel_default_type, or pass the type"));
  const std::string notBlob = "error:the record is an integer, not a blob of encoded protobuf";
  const std::vector<ErrorRow> table = {
      {"SELECT P_GET(NULL, 'ostrel.test.Rich', 'color')", "NULL"},
      {"SELECT P_GET(x'5801', NULL, 'color')", "NULL"},
      {"SELECT P_GET(x'5801', 'ostrel.test.Rich', NULL)", "NULL"},
      {"SELECT P_HAS(NULL, 'ostrel.test.Rich', 'color')", "NULL"},
      {"SELECT P_JSON(NULL, 'ostrel.test.Rich')", "NULL"},
      {"SELECT P_ENCODE('ostrel.test.Rich', NULL)", "NULL"},
      {"SELECT count(*) FROM P_EACH(NULL, 'ostrel.test.Rich', 'mids')", "int:0"},
      {"SELECT P_GET(x'', 'ostrel.test.Rich', 'color')", "NULL"},
      {"SELECT P_GET(x'5801', 'ostrel.test.Rich', 'color')", "text:RED"},
      {"SELECT P_GET(x'5809', 'ostrel.test.Rich', 'color')", "int:9"},
      {"SELECT P_HAS(x'5801', 'ostrel.test.Rich', 'color')", "int:1"},
      {"SELECT P_HAS(x'5801', 'ostrel.test.Rich', 'maybe')", "int:0"},
      {"SELECT P_GET(x'5801', 'color')", noDefault},
      {"SELECT P_JSON(x'5801')", noDefault},
      {"SELECT P_GET(12, 'ostrel.test.Rich', 'color')", notBlob},
      {"SELECT P_GET('x', 'ostrel.test.Rich', 'color')",
       "error:the record is text, not a blob of encoded protobuf"},
      {"SELECT P_GET(1.5, 'ostrel.test.Rich', 'color')",
       "error:the record is a real, not a blob of encoded protobuf"},
      {"SELECT count(*) FROM P_EACH(12, 'ostrel.test.Rich', 'mids')", notBlob},
      {"SELECT P_GET(x'2a05', 'ostrel.test.Rich', 'name')", error(SerializationError::truncated())},
      {"SELECT P_GET(x'00', 'ostrel.test.Rich', 'color')",
       error(SerializationError::malformedProtobuf())},
      {"SELECT P_JSON(x'2a05', 'ostrel.test.Rich')", error(SerializationError::truncated())},
      // The nested Mid is cut short: rendering alone would have hidden that inside the text.
      {"SELECT P_JSON(x'0a020a05', 'ostrel.test.Rich')", error(SerializationError::truncated())},
      {"SELECT P_JSON(x'5801', 'ostrel.test.Rich')", "text:{\"color\":\"RED\"}"},
      {"SELECT count(*) FROM P_EACH(x'2205', 'ostrel.test.Rich', 'mids')",
       error(SerializationError::truncated())},
      {"SELECT P_GET(x'5801', 'no.Such', 'color')",
       error(SchematizerError::schemaNotFound("no.Such"))},
      {"SELECT P_ENCODE('no.Such', '{}')", error(SchematizerError::schemaNotFound("no.Such"))},
      {"SELECT P_ENCODE('ostrel.test.Rich', '{\"color\": ')",
       "error:unexpectedType: invalid JSON: "},
      {"SELECT P_GET(x'5801', 'ostrel.test.Rich', 'colour')",
       error(SchematizerError::fieldNotFound(
           "Schema \"ostrel.test.Rich\" property with name \"colour\""))},
      {"SELECT P_GET(x'5801', 'ostrel.test.Rich', 'mids[x]')",
       error(PropertyPathUtil::Error::missingIndex("mids[x]", 5))},
      {"SELECT P_GET(x'5801', 'ostrel.test.Rich', 'mids[99999999999999999999999].note')", "error:"},
      {"SELECT P_GET(x'5801', 'ostrel.test.Rich', '')",
       error(PropertyPathUtil::Error::zeroLengthPropertyPath())},
      {"SELECT P_GET(x'5801', 'ostrel.test.Rich', 'mid' || replace(zeroblob(5000), x'00', '.mid'))",
       "error:"},
      {"SELECT count(*) FROM P_EACH(x'5801', 'ostrel.test.Rich', 'color')",
       error(SchematizerError::unexpectedType(
           "\"color\" is not a repeated field: name one without an index"))},
      {"SELECT count(*) FROM P_EACH(x'5801', 'ostrel.test.Rich', 'mids[0]')",
       error(SchematizerError::unexpectedType(
           "\"mids[0]\" is not a repeated field: name one without an index"))},
      {"SELECT count(*) FROM P_EACH(x'5801')",
       "error:P_EACH takes (record, path) or (record, type, path)"},
  };
  for (const ErrorRow& row : table) {
    SCOPED_TRACE(row.sql);
    const std::string actual = single(db, row.sql);
    if (row.expected == "error:" || row.expected.ends_with(": ")) {
      // The library's text continues with details of the parser; its start is what counts.
      EXPECT_EQ(actual.substr(0, row.expected.size()), row.expected);
      EXPECT_GT(actual.size(), row.expected.size());
    } else {
      EXPECT_EQ(actual, row.expected);
    }
  }
}

TEST(SqliteFunctionSetTest, EncodeBuildsWhatTheReadsGiveBack) {
  Database db;
  registerSqliteFunctions(db.get(), richManifest(), std::string(kRich));
  db.exec("CREATE TABLE t (record BLOB)");
  db.exec(
      "INSERT INTO t VALUES (P_ENCODE('ostrel.test.Rich', "
      "'{\"mids\": [{\"note\": \"a\"}, {\"note\": \"b\"}], \"counts\": {\"x\": 3}, "
      "\"scalars\": {\"f_uint64\": \"18446744073709551615\"}}'))");
  EXPECT_EQ(rows(db, "SELECT \"index\", key, value FROM t, P_EACH(t.record, 'mids')"),
            (std::vector<std::string>{"int:0 | NULL | text:{\"note\":\"a\"}",
                                      "int:1 | NULL | text:{\"note\":\"b\"}"}));
  EXPECT_EQ(rows(db, "SELECT key, value FROM t, P_EACH(t.record, 'counts')"),
            (std::vector<std::string>{"text:x | int:3"}));
  EXPECT_EQ(single(db, "SELECT P_GET(record, 'scalars.f_uint64') FROM t"),
            "text:18446744073709551615");
}

struct ProjectionRow {
  std::string name;
  ProjectionOptions options;
  std::string table;
  std::string alias;
  std::string sql;
};

TEST(ProjectionTest, TypePerCallAndThePostgresDialect) {
  const SchemaStore store(richManifest());
  const MessageSchema rich = store.messageSchema(kRich);
  const std::vector<ProjectionRow> table = {
      {"sqlite, type per call",
       {SqlDialect::sqlite, true},
       "Orders",
       "Who",
       "SELECT\n  P_GET(record, 'ostrel.test.Rich', 'mid.leaf.label') AS Who\nFROM Orders"},
      {"postgres folds case",
       {SqlDialect::postgres, false},
       "Orders",
       "Who",
       "SELECT\n  p_get(record, 'ostrel.test.Rich', 'mid.leaf.label') AS \"Who\"\nFROM \"Orders\""},
      {"postgres reserved words",
       {SqlDialect::postgres, true},
       "user",
       "order",
       "SELECT\n  p_get(record, 'ostrel.test.Rich', 'mid.leaf.label') AS \"order\"\nFROM \"user\""},
      {"postgres plain names",
       {SqlDialect::postgres, false},
       "orders",
       "who",
       "SELECT\n  p_get(record, 'ostrel.test.Rich', 'mid.leaf.label') AS who\nFROM orders"},
      // "abort" is a keyword of SQLite, not reserved in PostgreSQL.
      {"postgres non-reserved",
       {SqlDialect::postgres, false},
       "abort",
       "abort",
       "SELECT\n  p_get(record, 'ostrel.test.Rich', 'mid.leaf.label') AS abort\nFROM abort"},
      {"sqlite keyword",
       {SqlDialect::sqlite, false},
       "abort",
       "abort",
       "SELECT\n  P_GET(record, 'mid.leaf.label') AS \"abort\"\nFROM \"abort\""},
  };
  for (const ProjectionRow& row : table) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(
        buildProjection(rich, row.table, "record", {{"mid.leaf.label", row.alias}}, row.options),
        row.sql);
  }
}

}  // namespace
}  // namespace ostrel
