// Exported streams read by an independent consumer: DuckDB's C API imports each ArrowArrayStream as
// a view and answers SQL over it. Every Arrow type the columns produce is taken by DuckDB, the
// cells it returns are the single reads of their paths, and a failing record fails the query with
// its number and byte offset. (That a stream outlives its projection, schema and store is the
// columns tests' part.)

#include <duckdb.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "ostrel/ostrel.hpp"
#include "rich.pb.h"
#include "support/random_message.hpp"
#include "support/test_support.hpp"
#include "well_known.pb.h"

namespace ostrel {
namespace {

class DuckDB {
 public:
  DuckDB() {
    EXPECT_EQ(duckdb_open(nullptr, &database_), DuckDBSuccess);
    EXPECT_EQ(duckdb_connect(database_, &connection_), DuckDBSuccess);
  }
  ~DuckDB() {
    duckdb_disconnect(&connection_);
    duckdb_close(&database_);
  }

  // Reads `stream` whole into the table `name`, or returns the error; the stream stays ours. The
  // view that duckdb_arrow_scan makes pushes a query's projection down to a stream made by a
  // factory that does not apply it (DuckDB 1.4), reading the wrong children: only SELECT * reads it
  // right.
  std::string scan(const std::string& name, ArrowArrayStream& stream) {
    EXPECT_EQ(duckdb_arrow_scan(connection_, (name + "_stream").c_str(),
                                reinterpret_cast<duckdb_arrow_stream>(&stream)),
              DuckDBSuccess);
    std::string error;
    query("CREATE TABLE " + name + " AS SELECT * FROM " + name + "_stream", &error);
    return error;
  }

  // The cells of a query as text ("NULL" for null), row by row; the error text if it fails.
  std::vector<std::vector<std::string>> query(const std::string& sql,
                                              std::string* error = nullptr) {
    duckdb_result result;
    std::vector<std::vector<std::string>> rows;
    if (duckdb_query(connection_, sql.c_str(), &result) != DuckDBSuccess) {
      const char* text = duckdb_result_error(&result);
      if (error != nullptr) {
        *error = text != nullptr ? text : "";
      } else {
        ADD_FAILURE() << sql << ": " << (text != nullptr ? text : "");
      }
      duckdb_destroy_result(&result);
      return rows;
    }
    const idx_t columns = duckdb_column_count(&result);
    for (idx_t row = 0; row < duckdb_row_count(&result); ++row) {
      std::vector<std::string> cells;
      for (idx_t column = 0; column < columns; ++column) {
        if (duckdb_value_is_null(&result, column, row)) {
          cells.emplace_back("NULL");
          continue;
        }
        // Nested values have no text through this call; the queries cast what they compare.
        char* text = duckdb_value_varchar(&result, column, row);
        cells.emplace_back(text != nullptr ? text : "?");
        duckdb_free(text);
      }
      rows.push_back(std::move(cells));
    }
    duckdb_destroy_result(&result);
    return rows;
  }

 private:
  duckdb_database database_ = nullptr;
  duckdb_connection connection_ = nullptr;
};

// A scalar as DuckDB writes it as text: its ProtoJSON value, strings (64-bit integers and enum
// names among them) without their quotes.
std::string text(const std::optional<AnyValue>& value) {
  if (!value) return "NULL";
  const nlohmann::json json = nlohmann::json::parse(renderJSON(*value));
  return json.is_string() ? json.get<std::string>() : json.dump();
}

TEST(ColumnsDuckDBTest, DuckDBReadsEveryColumnTypeAsTheSingleReadsGiveIt) {
  const SchemaStore store(testing_support::generatedManifest("rich.desc"));
  const MessageSchema schema = store.messageSchema("ostrel.test.Rich");
  testing_support::RandomMessageFiller filler(20261125);
  std::vector<Bytes> records;
  int64_t bools = 0;
  for (int i = 0; i < 300; ++i) {
    test::Rich message;
    records.push_back(toBytes(filler.fillParsed(message)));
    bools += message.repeats().r_bool_size();
  }
  // Every field of the schema, as leaves, lists, dictionaries, maps and structs.
  const std::vector<std::string> paths = {"scalars",
                                          "repeats",
                                          "mid",
                                          "mids",
                                          "name",
                                          "number",
                                          "chosen",
                                          "counts",
                                          "leaves_by_id",
                                          "maybe",
                                          "color",
                                          "tail.note",
                                          "mids[*].note",
                                          "scalars.f_int64",
                                          "scalars.f_uint32"};
  ColumnOptions options;
  options.batchRows = 64;
  const ColumnProjection projection(schema, paths, options);
  ArrowArrayStream stream;
  projection.exportStream(RecordSource::buffers(records), &stream);

  DuckDB duck;
  ASSERT_EQ(duck.scan("rich", stream), "");
  const auto rows = duck.query(
      "SELECT \"scalars.f_int64\", \"scalars.f_uint32\", color, \"tail.note\", len(mids), "
      "coalesce(array_to_string(\"mids[*].note\", '|'), ''), cardinality(counts), scalars.f_int64, "
      "maybe, "
      "len(repeats.r_bool) FROM rich");
  ASSERT_EQ(rows.size(), records.size());
  int64_t bits = 0;
  for (size_t r = 0; r < rows.size(); ++r) {
    SCOPED_TRACE("record " + std::to_string(r));
    const SchematizedData data = schema.schematizedData(records[r]);
    test::Rich message;
    ASSERT_TRUE(message.ParseFromString(std::string(asText(records[r]))));
    // array_to_string leaves out nulls: the notes of elements that have one.
    std::string notes;
    for (int n = 0; n < message.mids_size(); ++n) {
      const auto note = data.value("mids[" + std::to_string(n) + "].note");
      if (!note) continue;
      if (!notes.empty()) notes += "|";
      notes += text(note);
    }
    const std::string scalarsInt = text(data.value("scalars.f_int64"));
    const std::vector<std::string> expected = {
        scalarsInt,
        text(data.value("scalars.f_uint32")),
        text(data.value("color")),
        text(data.value("tail.note")),
        std::to_string(message.mids_size()),
        notes,
        std::to_string(message.counts_size()),
        scalarsInt,
        text(data.value("maybe")),
        message.has_repeats() ? std::to_string(message.repeats().r_bool_size()) : "NULL"};
    EXPECT_EQ(rows[r], expected);
    if (rows[r].back() != "NULL") bits += std::stoll(rows[r].back());
  }
  EXPECT_EQ(bits, bools);
  stream.release(&stream);
}

TEST(ColumnsDuckDBTest, WellKnownTypesArriveAsDuckDBsOwnTypes) {
  const SchemaStore store(testing_support::generatedManifest("well_known.desc"));
  test::wkt::Holder holder;
  holder.mutable_timestamp()->set_seconds(1);
  holder.mutable_timestamp()->set_nanos(500000);
  holder.mutable_duration()->set_seconds(90);
  holder.mutable_int64_value()->set_value(-5);
  (*holder.mutable_struct_value()->mutable_fields())["a"].set_number_value(1.5);
  const ColumnProjection projection(
      store.messageSchema("ostrel.test.wkt.Holder"),
      {"timestamp", "duration", "int64_value", "string_value", "struct_value"});
  ArrowArrayStream stream;
  projection.exportStream(RecordSource::buffers({toBytes(holder.SerializeAsString())}), &stream);
  DuckDB duck;
  ASSERT_EQ(duck.scan("wkt", stream), "");
  EXPECT_EQ(duck.query("SELECT epoch_us(\"timestamp\"), typeof(\"timestamp\"), "
                       "to_seconds(90) = duration, int64_value, string_value, struct_value "
                       "FROM wkt"),
            (std::vector<std::vector<std::string>>{
                {"1000500", "TIMESTAMP WITH TIME ZONE", "true", "-5", "NULL", "{\"a\":1.5}"}}));
  stream.release(&stream);
}

TEST(ColumnsDuckDBTest, AFailingRecordFailsTheQueryWithItsNumberAndOffset) {
  const SchemaStore store(testing_support::generatedManifest("rich.desc"));
  const MessageSchema schema = store.messageSchema("ostrel.test.Rich");
  test::Rich good;
  good.set_name("first");
  const std::string bytes = good.SerializeAsString();
  // Field 5 (name) claims more bytes than the record holds.
  const std::string broken = "\x2a\x09short";
  ColumnOptions options;
  options.batchRows = 1;
  const ColumnProjection projection(schema, {"name"}, options);
  ArrowArrayStream stream;
  projection.exportStream(RecordSource::buffers({toBytes(bytes), toBytes(bytes), toBytes(broken)}),
                          &stream);
  DuckDB duck;
  const std::string error = duck.scan("broken", stream);
  const std::string offset = std::to_string(2 * bytes.size());
  EXPECT_NE(error.find("record 2 at byte " + offset + ": "), std::string::npos) << error;
  stream.release(&stream);
}

}  // namespace
}  // namespace ostrel
