// The SQL layer: identifiers in SQL text, and the SQLite function set, whose reads must give what
// the library's own reads give.

#include "ostrel/sql/sql.hpp"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cmath>

#include "ostrel/manifest/manifest_data.hpp"
#include "ostrel/output/json.hpp"
#include "ostrel/paths/property_path.hpp"
#include "ostrel/records/records.hpp"
#include "ostrel/wire/schematizer.hpp"
#include "rich.pb.h"
#include "support/random_message.hpp"
#include "support/test_support.hpp"
#include "support/wire.hpp"

namespace ostrel {
namespace {

constexpr const char* kRich = "ostrel.test.Rich";

SchemaManifest richManifest() { return testing_support::generatedManifest("rich.desc"); }

std::string hexLiteral(std::string_view bytes) {
  std::string out = "x'";
  for (const unsigned char c : bytes)
    out += {"0123456789abcdef"[c >> 4], "0123456789abcdef"[c & 15]};
  return out + "'";
}

// Column `i` of the current row as text that names its SQLite type.
std::string cellText(sqlite3_stmt* stmt, int i) {
  static const char* const kTypes[] = {"", "int:", "real:", "text:", "blob:", "NULL"};
  const int type = sqlite3_column_type(stmt, i);
  if (type == SQLITE_FLOAT) return "real:" + std::to_string(sqlite3_column_double(stmt, i));
  // Integers as their decimal text.
  const auto* bytes = static_cast<const char*>(sqlite3_column_blob(stmt, i));
  return kTypes[type] + std::string(bytes ? bytes : "", sqlite3_column_bytes(stmt, i));
}

// What a read of `value` must give, in cellText's form.
std::string expectedText(const std::optional<AnyValue>& value) {
  if (!value) return "NULL";
  switch (value->kind()) {
    case AnyValue::Case::int32:
      return "int:" + std::to_string(value->int32Value());
    case AnyValue::Case::uint32:
      return "int:" + std::to_string(value->uint32Value());
    case AnyValue::Case::int64:
      return "int:" + std::to_string(value->int64Value());
    case AnyValue::Case::uint64:
      return (value->uint64Value() > uint64_t{INT64_MAX} ? "text:" : "int:") +
             std::to_string(value->uint64Value());
    case AnyValue::Case::float_:
    case AnyValue::Case::double_: {
      const double d =
          value->kind() == AnyValue::Case::float_ ? value->floatValue() : value->doubleValue();
      // SQLite has no NaN: it stores NULL instead.
      return std::isnan(d) ? "NULL" : "real:" + std::to_string(d);
    }
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
      return "text:" + renderJSON(value->messageValue());
  }
  return "?";
}

// An in-memory database with the function set over the rich schema.
class Db {
 public:
  explicit Db(const std::optional<std::string>& defaultType = kRich,
              const SchemaManifest& manifest = richManifest(), const char* file = ":memory:") {
    sqlite3_open_v2(file, &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_URI,
                    nullptr);
    registerSqliteFunctions(db_, manifest, defaultType);
  }
  ~Db() { sqlite3_close(db_); }

  // The rows of `sql`, each its cells joined by " | "; a failure ends them with "error:<message>".
  std::vector<std::string> rows(const std::string& sql) {
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt, nullptr) != SQLITE_OK) {
      return {"error:" + std::string(sqlite3_errmsg(db_))};
    }
    std::vector<std::string> out;
    int step;
    while ((step = sqlite3_step(stmt)) == SQLITE_ROW) {
      std::string row;
      for (int i = 0; i < sqlite3_column_count(stmt); ++i) {
        row += (i > 0 ? " | " : "") + cellText(stmt, i);
      }
      out.push_back(row);
    }
    if (step != SQLITE_DONE) out.push_back("error:" + std::string(sqlite3_errmsg(db_)));
    sqlite3_finalize(stmt);
    return out;
  }
  std::string one(const std::string& sql) {
    const std::vector<std::string> result = rows(sql);
    return result.size() == 1 ? result[0] : "rows:" + std::to_string(result.size());
  }
  void exec(const std::string& sql) { ASSERT_EQ(one(sql), "rows:0") << sql; }
  sqlite3* handle() { return db_; }

 private:
  sqlite3* db_ = nullptr;
};

// Runs each statement, in order on one database, and compares its only row, or its error, with
// the expected text.
void expectRows(Db& db, const std::vector<std::pair<std::string, std::string>>& rows) {
  for (const auto& [sql, expected] : rows) EXPECT_EQ(db.one(sql), expected) << sql.substr(0, 300);
}

std::string error(const Error& e) { return "error:" + std::string(e.what()); }

TEST(SqlSelectTest, IdentifiersQuoteOnlyWhatCannotStandBare) {
  const SqlDialect lite = SqlDialect::sqlite;
  const SqlDialect pg = SqlDialect::postgres;
  const std::vector<std::tuple<SqlDialect, std::string, std::string>> rows = {
      {lite, "Aa0z9Z_", "Aa0z9Z_"}, {lite, "_x", "_x"},           {lite, "select", "\"select\""},
      {lite, "FROM", "\"FROM\""},   {lite, "abort", "\"abort\""}, {lite, "9", "\"9\""},
      {lite, "", "\"\""},           {lite, "a b", "\"a b\""},     {lite, "a\"b", "\"a\"\"b\""},
      {lite, "é", "\"é\""},         {lite, "x.y", "\"x.y\""},     {lite, "a'b", "\"a'b\""},
      {lite, "a`", "\"a`\""},       {pg, "a0z9_", "a0z9_"},       {pg, "Who", "\"Who\""},
      {pg, "abort", "abort"},       {pg, "user", "\"user\""},     {pg, "order", "\"order\""},
      {pg, "with", "\"with\""},     {pg, "all", "\"all\""},
  };
  for (const auto& [dialect, name, sql] : rows) EXPECT_EQ(sqlIdentifier(name, dialect), sql);
  EXPECT_EQ(sqlStringLiteral("it's"), "'it''s'");
  EXPECT_EQ(sqlStringLiteral(""), "''");
}

TEST(SqliteFunctionsTest, ReadsMatchTheLibrary) {
  Db db;
  // A table of random Rich records.
  db.exec("CREATE TABLE orders (id INTEGER PRIMARY KEY, record BLOB)");
  testing_support::RandomMessageFiller filler(7);
  std::vector<std::string> records;
  for (int i = 0; i < 150; ++i) {
    test::Rich message;
    filler.fill(message);
    records.push_back(message.SerializeAsString());
    db.exec("INSERT INTO orders (record) VALUES (" + hexLiteral(records.back()) + ")");
  }
  const SchemaStore store(richManifest());
  const MessageSchema rich = store.messageSchema(kRich);
  for (const std::string path :
       {"mid.leaf.id", "mid.leaf.label", "scalars.f_uint64", "scalars.f_uint32", "scalars.f_double",
        "scalars.f_float", "scalars.f_bool", "scalars.f_bytes", "scalars.f_enum", "color",
        "mids[1].note", "repeats.r_sint64[0]", "mid.leaf", "counts[0].key", "maybe", "name"}) {
    std::vector<std::string> expected;
    int present = 0;
    for (const std::string& record : records) {
      const std::optional<AnyValue> value = rich.schematizedData(record).value(path);
      const std::string has = value ? " | int:1" : " | int:0";
      present += value.has_value();
      expected.push_back(expectedText(value) + " | " + expectedText(value) + has + has);
    }
    // The default type and a type per call.
    const std::string p = sqlStringLiteral(path);
    EXPECT_EQ(db.rows("SELECT P_GET(record, " + p + "), P_GET(record, 'ostrel.test.Rich', " + p +
                      "), P_HAS(record, " + p + "), P_HAS(record, 'ostrel.test.Rich', " + p +
                      ") FROM orders ORDER BY id"),
              expected)
        << path;
    EXPECT_GT(present, 10) << path;
  }
  for (const std::string path :
       {"repeats.r_int32", "repeats.r_uint64", "repeats.r_double", "repeats.r_float",
        "repeats.r_bool", "repeats.r_string", "repeats.r_bytes", "repeats.r_enum",
        "repeats.r_message", "mids", "mid.leaves", "mids[0].leaves", "counts", "leaves_by_id"}) {
    // Correlated with the table, as a join runs it: one P_EACH call per record. Each row holds
    // what P_GET reads at its index (for a map entry, its key and value).
    const std::string p = sqlStringLiteral(path);
    const std::string at = "P_GET(o.record, " + p + " || '[' || e.\"index\" || ']";
    const bool isMap = path == "counts" || path == "leaves_by_id";
    EXPECT_EQ(db.one("SELECT count(*) > 10, sum(e.key IS NOT " +
                     (isMap ? at + ".key')" : std::string("NULL")) + " OR e.value IS NOT " + at +
                     (isMap ? ".value')" : "')") +
                     ") FROM orders AS o, P_EACH(o.record, 'ostrel.test.Rich', " + p + ") AS e"),
              "int:1 | int:0")
        << path;
    // No record has an element at the count of its rows, nor lacks one just before it.
    const std::string n = "(SELECT count(*) FROM P_EACH(orders.record, " + p + ")) AS n";
    EXPECT_EQ(db.one("SELECT count(*) FROM (SELECT record AS r, " + n + " FROM orders) WHERE " +
                     "P_HAS(r, " + p + " || '[' || n || ']') OR (n > 0 AND NOT P_HAS(r, " + p +
                     " || '[' || (n - 1) || ']'))"),
              "int:0")
        << path;
  }
}

TEST(SqliteFunctionsTest, RegistrationMergesAndRefusesChangedDefinitions) {
  Db db(std::nullopt, {});
  const size_t rich = richManifest().messages.size();
  const auto proto = [](const std::string& text) {
    return "SELECT ostrel_register_proto(" + sqlStringLiteral("syntax = \"proto3\"; " + text) + ")";
  };
  const auto refused = [](const char* kind, const char* name) {
    return error(MergeConflict::conflict(std::string(kind) + " type \"" + name +
                                         "\" is already registered with another definition; "
                                         "register a changed definition under a new name"));
  };
  const auto count = [](size_t n) { return "int:" + std::to_string(n); };
  const std::string json = sqlStringLiteral(schemaManifestToJSON(richManifest()));
  expectRows(
      db,
      {
          {proto("package a; message M { int32 x = 1; }"), count(1)},
          {proto("package a; message M { int32 x = 1; }"), count(1)},
          {"SELECT hex(P_ENCODE('a.M', '{\"x\": 5}'))", "text:0805"},
          {"SELECT ostrel_register_descriptor_set(" +
               hexLiteral(asText(testing_support::readGenerated("rich.desc"))) + ")",
           count(rich + 1)},
          {"SELECT ostrel_register_manifest(" + json + ")", count(rich + 1)},
          // A new field is a change too, though a field-wise merge would take it.
          {proto("package a; message M { int32 x = 1; int32 z = 2; }"), refused("Message", "a.M")},
          // Nothing of a refused registration stays, not even its new types.
          {proto("package a; message Q {} message M { int64 x = 1; }"), refused("Message", "a.M")},
          {"SELECT P_ENCODE('a.Q', '{}')", error(SchematizerError::schemaNotFound("a.Q"))},
          {proto("package a; enum E { Z = 0; }"), count(rich + 1)},
          // A registration rolled back with its transaction is gone once it has ended.
          {"BEGIN", "rows:0"},
          {proto("package r; message R { int32 x = 1; }"), count(rich + 2)},
          {"SELECT hex(P_ENCODE('r.R', '{\"x\": 5}'))", "text:0805"},
          {"ROLLBACK", "rows:0"},
          {"SELECT P_ENCODE('r.R', '{}')", error(SchematizerError::schemaNotFound("r.R"))},
          // Registered types are rows of the database, which stay as they are.
          {"SELECT group_concat(name || is_message) FROM (SELECT name, is_message FROM "
           "ostrel_schemas WHERE name GLOB 'a.*' ORDER BY name)",
           "text:a.E0,a.M1"},
          {"DELETE FROM ostrel_schemas",
           "error:registered ostrel schemas cannot be changed or removed; register a new name"},
          // Only the application's own reads may register: a statement that writes may run what
          // a database file holds.
          {"CREATE TABLE w AS SELECT " + proto("package w; message W {}").substr(7),
           "error:ostrel_register_proto runs only from the application's own read-only statements "
           "that call it, with no other kind of statement in progress; never from a CHECK "
           "constraint, trigger, view, default, generated column or index of the database"},
          {proto("package a; enum E { Z = 0; O = 1; }"), refused("Enum", "a.E")},
          // Only libprotobuf's own files are reachable from .proto text.
          {proto("import \"/etc/passwd\";"),
           "error:invalidValueType: /etc/passwd: File not found."},
          {"SELECT ostrel_default_type('no.Such')",
           error(SchematizerError::schemaNotFound("no.Such"))},
          // A resolution cached with the statement serves only the type (or default type) and
          // the path it was made for. As c.A, v = 7, vs = [1], ws = [3]; as c.B, 9, [2] and [4].
          {proto("package c; message A { int32 v = 1; repeated int32 vs = 3; repeated int32 ws = "
                 "5; } message B { int32 v = 2; repeated int32 vs = 4; repeated int32 ws = 6; }"),
           count(rich + 3)},
          {"CREATE TABLE t AS SELECT column1 AS type, column2 AS path, x'080710091801200228033004' "
           "AS r FROM (VALUES ('c.A', 'vs'), ('c.B', 'vs'), ('c.B', 'ws'))",
           "rows:0"},
          {"SELECT group_concat(P_GET(r, type, 'v')) FROM t", "text:7,9,9"},
          {"SELECT group_concat(e.value) FROM t, P_EACH(t.r, t.type, t.path) AS e", "text:1,2,4"},
          {"SELECT group_concat(ostrel_default_type(type) || '=' || P_GET(r, 'v')) FROM t",
           "text:c.A=7,c.B=9,c.B=9"},
          // P_EACH reads each record before its row sets the default type for the next one.
          {"SELECT group_concat(e.value || '@' || ostrel_default_type(t.type)) FROM t, "
           "P_EACH(t.r, 'vs') AS e",
           "text:2@c.A,1@c.B,2@c.B"},
          // A built-in type already read gains an option extension: reads see the new field.
          // The import registers descriptor.proto's 27 messages too.
          {"SELECT P_HAS(x'', 'google.protobuf.FieldOptions', 'flag')",
           error(SchematizerError::fieldNotFound(
               "Schema \"google.protobuf.FieldOptions\" property with name \"flag\""))},
          {proto("package x; import \"google/protobuf/descriptor.proto\"; extend "
                 "google.protobuf.FieldOptions { int32 flag = 50000; }"),
           count(rich + 3 + 27)},
          {"SELECT P_GET(x'80b51807', 'google.protobuf.FieldOptions', 'flag')", "int:7"},
          // Cleared, a packed run of a closed enum leaves the numbers it does not declare.
          {"SELECT ostrel_register_proto('syntax = \"proto2\"; package l; enum E { Z = 0; A = 1; B "
           "= 2; "
           "} message M { repeated E e = 1 [packed = true]; } message N { map<int32, E> m = 1; }')",
           count(rich + 3 + 27 + 3)},
          {"SELECT hex(P_SET(x'0a050163020a62', 'l.M', 'e', NULL))", "text:0A03630A62"},
          // Of a map whose values are a closed enum, an entry with an undeclared value is not
          // the map's: {7: A} goes, {1: 99} stays.
          {"SELECT hex(P_SET(x'0a04080710010a0408011063', 'l.N', 'm', NULL))", "text:0A0408011063"},
      });
  db.exec("CREATE VIEW v AS SELECT ostrel_register_proto('package p; message P {}')");
  EXPECT_EQ(db.one("SELECT * FROM v"), "error:unsafe use of ostrel_register_proto()");
  // A type another connection registers is found when it is first asked for.
  Db first(std::nullopt, {}, "file:shared?mode=memory&cache=shared");
  Db second(std::nullopt, {}, "file:shared?mode=memory&cache=shared");
  expectRows(second,
             {{"SELECT P_JSON(x'0801', 'x.X')", error(SchematizerError::schemaNotFound("x.X"))}});
  expectRows(first, {{proto("package x; message X { int32 v = 1; }"), count(1)}});
  expectRows(second, {{"SELECT P_JSON(x'0801', 'x.X')", "text:{\"v\":1}"}});
  // Another statement in progress names the function without calling it.
  sqlite3_stmt* outer = nullptr;
  sqlite3_prepare_v2(db.handle(), "SELECT 'ostrel_default_type' FROM (VALUES (1), (2))", -1, &outer,
                     nullptr);
  ASSERT_EQ(sqlite3_step(outer), SQLITE_ROW);
  EXPECT_EQ(db.one("SELECT ostrel_default_type('a.M')").substr(0, 48),
            "error:ostrel_default_type runs only from the app");
  sqlite3_finalize(outer);
  // A row the table gained by plain SQL inside a transaction is read when it ends: while it
  // cannot be read, every call fails alike, none reads through the schemas of before.
  std::string broken;
  try {
    schemaManifestFromJSON("{");
  } catch (const Error& e) {
    broken = error(e);
  }
  expectRows(db, {{"BEGIN", "rows:0"},
                  {proto("package t; message T { int32 x = 1; }"), count(rich + 3 + 27 + 4)},
                  {"INSERT INTO ostrel_schemas VALUES ('u.U', 1, '{')", "rows:0"},
                  {"COMMIT", "rows:0"},
                  {"SELECT P_GET(x'0805', 't.T', 'x')", broken},
                  {"SELECT P_GET(x'0805', 't.T', 'x')", broken}});
}

// `levels` messages of `message N { N n = 1; }`, each inside the one before.
std::string nested(int levels) {
  testing_support::Wire wire;
  for (int i = 1; i < levels; ++i) wire = testing_support::Wire().bytesField(1, wire.bytes());
  return wire.bytes();
}

TEST(SqliteFunctionsTest, NullsErrorsAndEdges) {
  Db db(std::nullopt);
  const std::string noDefault = error(SchematizerError::schemaNotFound(
      "no default message type; name one with ostrel_default_type, or pass the type"));
  const std::string truncated = error(SerializationError::truncated());
  const std::string notRepeated = " is not a repeated field: name one without an index";
  expectRows(
      db,
      {
          {"SELECT P_GET(x'5801', 'color')", noDefault},
          {"SELECT P_JSON(x'5801')", noDefault},
          {"SELECT count(*) FROM P_EACH(x'2200', 'mids')", noDefault},
          {"SELECT P_SET(x'5801', 'color', 1)", noDefault},
          {"SELECT P_GET(x'5801', 'no.Such', 'color')",
           error(SchematizerError::schemaNotFound("no.Such"))},
          // From here on the forms without a type read Rich records.
          {"SELECT ostrel_default_type('ostrel.test.Rich')", "text:ostrel.test.Rich"},
          {"SELECT P_GET(NULL, 'color')", "NULL"},
          {"SELECT P_GET(x'5801', NULL)", "NULL"},
          {"SELECT count(*) FROM P_EACH(NULL, 'mids')", "int:0"},
          {"SELECT P_GET(x'', 'color')", "NULL"},
          {"SELECT typeof(P_ENCODE('ostrel.test.Rich', '{}'))", "text:blob"},
          {"SELECT P_JSON(x'5801')", "text:{\"color\":\"RED\"}"},
          {"SELECT P_GET(12, 'color')",
           "error:the record is an integer, not a blob of encoded protobuf"},
          {"SELECT P_GET('x', 'color')",
           "error:the record is text, not a blob of encoded protobuf"},
          {"SELECT P_GET(x'2a05', 'name')", truncated},
          // The nested Mid is cut short: rendering alone would hide that inside the text.
          {"SELECT P_JSON(x'0a020a05')", truncated},
          {"SELECT count(*) FROM P_EACH(x'2205', 'mids')", truncated},
          // A message value is rendered strictly too.
          {"SELECT P_GET(x'0a020a05', 'mid')", truncated},
          // Fields given twice: reads take the first occurrence, exact reads (a fourth argument)
          // and P_JSON protobuf's parse; of the oneof members name and number the last wins.
          {"SELECT P_GET(x'58015802', 'color')", "text:RED"},
          {"SELECT P_GET(x'58015802', 'ostrel.test.Rich', 'color', 1)", "text:GREEN"},
          {"SELECT P_GET(x'0a031a01610a031a0162', 'ostrel.test.Rich', 'mid.note', 0)", "text:a"},
          {"SELECT P_GET(x'0a031a01610a031a0162', 'ostrel.test.Rich', 'mid.note', 1)", "text:b"},
          {"SELECT P_HAS(x'2a01613001', 'name')", "int:1"},
          {"SELECT P_HAS(x'2a01613001', 'ostrel.test.Rich', 'name', 1)", "int:0"},
          {"SELECT P_JSON(x'580158022a01613001')", "text:{\"number\":\"1\",\"color\":\"GREEN\"}"},
          // A proto3 field holding its default is left out, a oneof member kept.
          {"SELECT hex(P_ENCODE('ostrel.test.Rich', "
           "'{\"color\":\"COLOR_UNSPECIFIED\",\"name\":\"\"}'))",
           "text:2A00"},
          {"SELECT P_GET(x'5801', 'ostrel.test.Rich', 'color', 'yes')",
           "error:the exact argument is text, not an integer (0 or 1)"},
          {"SELECT count(*) FROM P_EACH(x'5801', 'color')",
           error(SchematizerError::unexpectedType("\"color\"" + notRepeated))},
          {"SELECT count(*) FROM P_EACH(x'5801', 'mids[0]')",
           error(SchematizerError::unexpectedType("\"mids[0]\"" + notRepeated))},
          {"SELECT count(*) FROM P_EACH(x'5801', 'mid.note.x')",
           error(SchematizerError::nonMessageTypeInKeypath())},
          {"SELECT count(*) FROM P_EACH(x'5801')",
           "error:P_EACH takes (record, path) or (record, type, path)"},
          // Rewrites: the value typed as the field is (integers, text, blobs, JSON), the earlier
          // occurrence of a field set gone, a NULL value clearing, bad input the statement's error.
          {"SELECT hex(P_SET(x'58015802', 'color', 'BLUE'))", "text:5803"},
          {"SELECT hex(P_SET(x'', 'color', 2))", "text:5802"},
          {"SELECT hex(P_SET(x'5801', 'mid', '{\"note\": \"a\"}'))", "text:58010A031A0161"},
          {"SELECT hex(P_SET(x'5801', 'mid', x'1a0161'))", "text:58010A031A0161"},
          {"SELECT hex(P_SET(x'5801', 'color', NULL))", "text:"},
          {"SELECT hex(P_NORMALIZE(x'58020a00'))", "text:0A005802"},
          {"SELECT P_SET(x'5801', 'mids[0].note', 'x')",
           error(SchematizerError::invalidIndexInKeypath())},
          // A map key, bare or as a JSON string.
          {"SELECT hex(P_SET(x'', 'counts[k]', 5))", "text:42050A016B1005"},
          {"SELECT hex(P_SET(x'', 'counts[\"k]\"]', 5))", "text:42060A026B5D1005"},
          // A map key past the path: bare up to an unclosed bracket, or quoted but not JSON.
          {"SELECT P_SET(x'', 'counts[a', 1)",
           error(PropertyPathUtil::Error::missingIndex("counts[a", 7))},
          {"SELECT P_SET(x'', 'counts[\"\\x\"]', 1)",
           error(PropertyPathUtil::Error::missingIndex("counts[\"\\x\"]", 7))},
          {"SELECT P_SET(x'5801', 'color', 'PURPLE')",
           error(SchematizerError::enumValueNotFound("Enum: ostrel.test.Color, PURPLE value"))},
          {"SELECT P_SET(x'5801', 'maybe', 'x')",
           error(SchematizerError::unexpectedType("$.maybe: expected an integer of type int32"))},
          {"SELECT P_SET(x'5801', 'mid', x'0a05')", truncated},
          {"SELECT P_SET(x'2a05', 'color', 1)", truncated},
          // An element in the third of three packed runs, the second of them empty.
          {"SELECT hex(P_SET(x'1a092a0201022a002a0103', 'repeats.r_int32[2]', 7))",
           "text:1A092A0201022A002A0107"},
          // A packed run of fixed32 that does not end on an element boundary, a field after it.
          {"SELECT P_SET(x'1a073a030102034001', 'repeats.r_fixed32[0]', 1)", truncated},
          {"SELECT P_MERGE(x'5801', 'x')",
           "error:the record is text, not a blob of encoded protobuf"},
          // A Kafka value in Confluent's envelope: id 42, message path [1, 0], then the record.
          {"SELECT P_CONFLUENT_ID(x'000000002a0402005801')", "int:42"},
          {"SELECT P_CONFLUENT_PATH(x'000000002a0402005801')", "text:[1,0]"},
          {"SELECT P_CONFLUENT_PATH(x'000000002a02010058', 'unsigned')", "text:[1,0]"},
          {"SELECT P_GET(P_CONFLUENT_PAYLOAD(x'000000002a005801'), 'color')", "text:RED"},
          {"SELECT P_CONFLUENT_ID(x'01000102030405060708090a0b0c0d0e0f00')",
           "text:00010203-0405-0607-0809-0a0b0c0d0e0f"},
          {"SELECT P_CONFLUENT_PAYLOAD(x'5801')", error(FramingError::wrongMagic("0x58"))},
          {"SELECT P_CONFLUENT_PATH(x'000000002a', 'zig')",
           "error:the index form is 'zigzag' or 'unsigned'"},
          // The arguments may come as constraints on the hidden columns too, in any order.
          {"SELECT value FROM P_EACH WHERE type_or_path = 'mids' AND record = x'22031a0161'",
           "text:{\"note\":\"a\"}"},
          // Up to INT64_MAX a uint64 is an INTEGER, past it TEXT.
          {"SELECT P_GET(x'120a20ffffffffffffffff7f', 'scalars.f_uint64')",
           "int:9223372036854775807"},
          // An absent holder has no elements.
          {"SELECT count(*) FROM P_EACH(x'5801', 'mid.leaves')", "int:0"},
          // A map entry that leaves its key or value out holds the default there, as protobuf's
          // parse reads it.
          {"SELECT group_concat(key || '=' || value) FROM "
           "P_EACH(x'42050a01781003420210034200', 'counts')",
           "text:x=3,=3,=0"},
          // P_JSON and P_NORMALIZE refuse records nested deeper than 100 messages, not 100.
          {"SELECT ostrel_register_proto('syntax = \"proto3\"; package d; message N { N n = 1; }')",
           "int:" + std::to_string(richManifest().messages.size() + 1)},
          {"SELECT P_JSON(" + hexLiteral(nested(101)) + ", 'd.N')",
           error(SchematizerError::protocolBufferError("Nesting deeper than 100 messages"))},
          {"SELECT P_NORMALIZE(" + hexLiteral(nested(100)) +
               ", 'd.N') = " + hexLiteral(nested(100)),
           "int:1"},
          {"SELECT P_NORMALIZE(" + hexLiteral(nested(101)) + ", 'd.N')",
           error(SchematizerError::protocolBufferError("Nesting deeper than 100 messages"))},
      });
}

}  // namespace
}  // namespace ostrel
