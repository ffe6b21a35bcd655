// One request, one answer on every surface: each row of tests/data/surface_faults.tsv is a faulty
// request (broken record, length prefix beyond 31 bits, path to nothing, path to a field that is
// not repeated, wrong-kind read, hostile manifest) and the one error it must give, as the error's
// class and text. Here the rows go through the library, the ostrel tool and the SQLite functions;
// the PostgreSQL suite (extensions/postgres/test/sql/surfaces.sql) reads the same table.

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <typeinfo>
#include <vector>

#include "ostrel/ostrel.hpp"
#include "tools/tool_run.hpp"

namespace {

using namespace ostrel;
using namespace ostrel::test;

struct Row {
  std::string name;
  std::string surfaces;
  std::string job;    // json, iterate, int64 (a typed read) or manifest
  std::string input;  // the record in hex, or the manifest's JSON text
  std::string path;
  std::string errorClass;
  std::string error;

  bool on(const std::string& surface) const {
    return (" " + surfaces + " ").find(" " + surface + " ") != std::string::npos;
  }
};

std::vector<Row> rows() {
  std::ifstream in(kTestData + "/surface_faults.tsv");
  std::vector<Row> out;
  std::string line;
  std::getline(in, line);  // the header
  while (std::getline(in, line)) {
    std::vector<std::string> cells;
    std::istringstream split(line);
    for (std::string cell; std::getline(split, cell, '\t');) cells.push_back(cell);
    cells.resize(7);
    out.push_back({cells[0], cells[1], cells[2], cells[3], cells[4], cells[5], cells[6]});
  }
  return out;
}

Bytes fromHex(const std::string& hex) {
  Bytes out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    out.push_back(static_cast<std::byte>(std::stoi(hex.substr(i, 2), nullptr, 16)));
  }
  return out;
}

std::string className(const Error& error) {
  if (typeid(error) == typeid(SerializationError)) return "SerializationError";
  if (typeid(error) == typeid(SchematizerError)) return "SchematizerError";
  if (typeid(error) == typeid(SchemaManifestJSONError)) return "SchemaManifestJSONError";
  if (typeid(error) == typeid(PropertyPathUtil::Error)) return "PropertyPathUtil::Error";
  return typeid(error).name();
}

const SchemaManifest& shopManifest() {
  static const SchemaManifest manifest = [] {
    const std::string desc = readFile(kShopDesc);
    return schemaManifestFromDescriptorSet(asBytes(desc));
  }();
  return manifest;
}

// The library: the call a user makes for the job, and the error it throws.
void libraryRequest(const Row& row) {
  const SchemaStore store(shopManifest());
  const MessageSchema order = store.messageSchema("shop.Order");
  if (row.job == "manifest") {
    SchemaStore(schemaManifestFromJSON(row.input));
    return;
  }
  const Bytes record = fromHex(row.input);
  if (row.job == "json") {
    renderJSON(UnsafeSchematizedData(order.impl(), record), JsonOptions{.strict = true});
  } else if (row.job == "iterate") {
    for (const RepeatedField::Element& element : RepeatedField(order, row.path).elements(record)) {
      static_cast<void>(element);
    }
  } else if (row.job == "int64") {
    readInt64(record, resolvePropertyPath(order, row.path));
  }
}

// The tool: the command for the job; the error on standard error after "ostrel: " and what the
// tool says it was working on (the path, the schema file).
std::string toolCommand(const Row& row, std::string& context) {
  if (row.job == "json") return "$S json $O --input hex";
  if (row.job == "iterate") {
    context = row.path;
    return "$S iterate $O --input hex " + row.path;
  }
  const std::string file = scratchFile("manifest.json", row.input);
  context = file;
  return "-s " + file + " list";
}

// SQLite: the statement for the job, on a connection holding the shop schema.
std::string sqliteStatement(const Row& row) {
  const std::string record = "x'" + row.input + "'";
  if (row.job == "json") return "SELECT P_JSON(" + record + ", 'shop.Order')";
  if (row.job == "iterate") {
    return "SELECT count(*) FROM P_EACH(" + record + ", 'shop.Order', '" + row.path + "')";
  }
  return "SELECT ostrel_register_manifest('" + row.input + "')";
}

TEST(SurfaceFaults, OneAnswerPerFaultOnEverySurface) {
  const std::vector<Row> table = rows();
  ASSERT_GE(table.size(), 5u);
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(":memory:", &db), SQLITE_OK);
  registerSqliteFunctions(db, shopManifest());
  for (const Row& row : table) {
    SCOPED_TRACE(row.name);
    if (row.on("library")) {
      try {
        libraryRequest(row);
        ADD_FAILURE() << "the library did not throw";
      } catch (const Error& error) {
        EXPECT_EQ(className(error), row.errorClass);
        EXPECT_EQ(std::string(error.what()), row.error);
      }
    }
    if (row.on("tool")) {
      std::string context;
      const std::string command = toolCommand(row, context);
      const ToolRun run = runTool(command, row.input);
      EXPECT_EQ(run.status, 1);
      EXPECT_EQ(run.out, "");
      const std::string prefix = context.empty() ? "ostrel: " : "ostrel: " + context + ": ";
      EXPECT_EQ(run.err, prefix + row.error + "\n");
    }
    if (row.on("sqlite")) {
      char* message = nullptr;
      EXPECT_EQ(sqlite3_exec(db, sqliteStatement(row).c_str(), nullptr, nullptr, &message),
                SQLITE_ERROR);
      EXPECT_EQ(std::string(message ? message : ""), row.error);
      sqlite3_free(message);
    }
  }
  sqlite3_close(db);
}

}  // namespace
