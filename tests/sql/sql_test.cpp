#include "ostrel/sql/sql.hpp"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cmath>
#include <fstream>
#include <iterator>
#include <random>

#include "ostrel/manifest/manifest_data.hpp"
#include "ostrel/output/json.hpp"
#include "ostrel/paths/property_path.hpp"
#include "rich.pb.h"
#include "sql/sqlite_test_support.hpp"
#include "support/random_message.hpp"
#include "support/test_support.hpp"

namespace ostrel {
namespace {

using testing_support::catchError;

SchemaManifest richManifestOf() {
  std::ifstream in(std::string(OSTREL_TEST_GENERATED) + "/rich.desc", std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  return schemaManifestFromDescriptorSet(asBytes(bytes));
}

SchemaStore richStore() { return SchemaStore(richManifestOf()); }

// P_GET(blob, path) reading ostrel.test.Rich records.
void registerRich(sqlite3* db) {
  registerSqliteFunctions(db, richManifestOf(), "ostrel.test.Rich");
}

TEST(ProjectionTest, BuildsOneSelectFromItsFragments) {
  const SchemaStore store = richStore();
  const MessageSchema rich = store.messageSchema("ostrel.test.Rich");
  EXPECT_EQ(buildProjection(rich, "orders", "orders_blob",
                            {{"mid.leaf.label", std::nullopt}, {"mids[0].note", "first_note"}}),
            "SELECT\n"
            "  P_GET(orders_blob, 'mid.leaf.label') AS \"mid.leaf.label\",\n"
            "  P_GET(orders_blob, 'mids[0].note') AS first_note\n"
            "FROM orders");
}

struct IdentifierRow {
  std::string name;
  std::string sql;
};

TEST(ProjectionTest, IdentifiersAreBareOnlyWhenPlain) {
  const std::vector<IdentifierRow> rows = {
      {"orders", "orders"},     {"_x9", "_x9"},     {"select", "\"select\""}, {"FROM", "\"FROM\""},
      {"9lives", "\"9lives\""}, {"a b", "\"a b\""}, {"a\"b", "\"a\"\"b\""},   {"é", "\"é\""},
      {"x.y", "\"x.y\""},       {"a'b", "\"a'b\""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(sqlIdentifier(row.name), row.sql);
  }
  EXPECT_EQ(sqlStringLiteral("it's"), "'it''s'");
}

TEST(ProjectionTest, BadPathsFailBeforeAnyTextIsMade) {
  const SchemaStore store = richStore();
  const MessageSchema rich = store.messageSchema("ostrel.test.Rich");
  EXPECT_EQ(catchError([&] {
              buildProjection(rich, "t", "c", {{"mid.", std::nullopt}});
            }),
            PropertyPathUtil::Error::missingPropertyName("mid.", 4));
  EXPECT_EQ(catchError([&] {
              buildProjection(rich, "t", "c", {{"mids.note", std::nullopt}});
            }),
            SchematizerError::repeatedValueAccessNoIndex());
  EXPECT_EQ(
      catchError([&] {
        buildProjection(rich, "t", "c", {{"nope", std::nullopt}});
      }),
      SchematizerError::fieldNotFound("Schema \"ostrel.test.Rich\" property with name \"nope\""));
  EXPECT_THROW(buildProjection(rich, "t", "c", {}), std::invalid_argument);
  EXPECT_THROW(buildProjection(rich, "", "c", {{"color", std::nullopt}}), std::invalid_argument);
  EXPECT_THROW(buildProjection(rich, std::string("a\0b", 3), "c", {{"color", std::nullopt}}),
               std::invalid_argument);
}

TEST(ProjectionTest, HostileNamesNeverProduceMoreThanOneSelect) {
  const SchemaStore store = richStore();
  const MessageSchema rich = store.messageSchema("ostrel.test.Rich");
  const std::string alphabet = "aZ_09 \"'`;-/*[]().,\\\n\t\xC3\xA9";
  std::mt19937 rng(99);
  std::uniform_int_distribution<size_t> length(1, 12);
  std::uniform_int_distribution<size_t> pick(0, alphabet.size() - 1);
  const auto hostile = [&] {
    std::string out;
    for (size_t i = length(rng); i > 0; --i) out += alphabet[pick(rng)];
    return out;
  };
  for (int round = 0; round < 300; ++round) {
    Database db;
    registerRich(db.get());
    const std::string table = round == 0 ? "t\"; DROP TABLE x; --" : hostile();
    const std::string column = round == 0 ? "c'); DELETE FROM t; --" : hostile();
    const std::string alias = round == 0 ? "a\" FROM t; DROP TABLE t; --" : hostile();
    SCOPED_TRACE(table + " | " + column + " | " + alias);
    db.exec("CREATE TABLE " + sqlIdentifier(table) + " (" + sqlIdentifier(column) + " BLOB)");
    const std::string sql = buildProjection(rich, table, column, {{"color", alias}, {"maybe", {}}});
    const Statement statement(db.get(), sql);
    ASSERT_EQ(statement.status(), SQLITE_OK) << sqlite3_errmsg(db.get()) << "\n" << sql;
    EXPECT_EQ(statement.rest(), "");
    EXPECT_TRUE(sqlite3_stmt_readonly(statement.get()));
    ASSERT_EQ(sqlite3_column_count(statement.get()), 2);
    EXPECT_EQ(std::string(sqlite3_column_name(statement.get(), 0)), alias);
  }
}

TEST(PGetTest, ProjectedRowsMatchReadsThroughTheLibrary) {
  const SchemaStore store = richStore();
  const MessageSchema rich = store.messageSchema("ostrel.test.Rich");
  Database db;
  registerRich(db.get());
  db.exec("CREATE TABLE orders (id INTEGER PRIMARY KEY, record BLOB)");

  testing_support::RandomMessageFiller filler(5);
  std::vector<std::string> records;
  for (int i = 0; i < 200; ++i) {
    test::Rich message;
    filler.fill(message);
    records.push_back(message.SerializeAsString());
  }
  {
    const Statement insert(db.get(), "INSERT INTO orders (record) VALUES (?)");
    for (const std::string& record : records) {
      sqlite3_bind_blob(insert.get(), 1, record.data(), static_cast<int>(record.size()),
                        SQLITE_STATIC);
      ASSERT_EQ(sqlite3_step(insert.get()), SQLITE_DONE);
      sqlite3_reset(insert.get());
    }
  }
  const std::vector<std::string> paths = {
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
  std::vector<ProjectedPath> projected;
  for (const std::string& path : paths) projected.push_back({path, std::nullopt});
  const Statement select(db.get(),
                         buildProjection(rich, "orders", "record", projected) + " ORDER BY id");
  ASSERT_EQ(select.status(), SQLITE_OK) << sqlite3_errmsg(db.get());
  size_t row = 0;
  int nonNull = 0;
  while (sqlite3_step(select.get()) == SQLITE_ROW) {
    ASSERT_LT(row, records.size());
    const SchematizedData data = rich.schematizedData(records[row]);
    for (size_t i = 0; i < paths.size(); ++i) {
      SCOPED_TRACE("row " + std::to_string(row) + " " + paths[i]);
      const std::string actual = columnText(select.get(), static_cast<int>(i));
      EXPECT_EQ(actual, expectedText(data.value(paths[i])));
      nonNull += actual != "NULL";
    }
    ++row;
  }
  EXPECT_EQ(row, records.size());
  EXPECT_GT(nonNull, 800);
}

TEST(PGetTest, NullBlobsBadBlobsAndBadPaths) {
  const SchemaStore store = richStore();
  const MessageSchema rich = store.messageSchema("ostrel.test.Rich");
  Database db;
  registerRich(db.get());
  const auto single = [&](const std::string& sql) {
    const Statement statement(db.get(), sql);
    EXPECT_EQ(statement.status(), SQLITE_OK);
    const int step = sqlite3_step(statement.get());
    if (step != SQLITE_ROW) return "error:" + std::string(sqlite3_errmsg(db.get()));
    return columnText(statement.get(), 0);
  };
  EXPECT_EQ(single("SELECT P_GET(NULL, 'color')"), "NULL");
  EXPECT_EQ(single("SELECT P_GET(x'', 'color')"), "NULL");
  EXPECT_EQ(single("SELECT P_GET(x'5801', 'color')"), "text:RED");
  EXPECT_EQ(single("SELECT P_GET(x'5809', 'color')"), "int:9");
  EXPECT_EQ(single("SELECT P_GET(x'2a05', 'name')"), "error:truncated");
  EXPECT_EQ(single("SELECT P_GET(x'00', 'color')"), "error:malformedProtobuf");
  EXPECT_EQ(single("SELECT P_GET(x'5801', 'colour')"),
            "error:fieldNotFound: Schema \"ostrel.test.Rich\" property with name \"colour\"");
  EXPECT_EQ(single("SELECT P_GET(x'5801', 'mids[x]')"),
            "error:" + std::string(PropertyPathUtil::Error::missingIndex("mids[x]", 5).what()));
}

}  // namespace
}  // namespace ostrel
