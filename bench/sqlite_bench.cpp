// The SQL function set inside SQLite, side by side with SQLite's own JSON functions over the same
// orders stored as JSON text, in one run: P_GET against json_extract, P_EACH against json_each,
// and an expression index on P_GET against a full scan. Tables of 100,000 and 1,000,000 orders
// (the shop example's schema) are built once per size, in memory, from the same JSON documents.
// After the run the ratios are printed; below 1 means the function set is faster.

#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <cstdio>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>

#include "ostrel/manifest/manifest_data.hpp"
#include "ostrel/sql/sql.hpp"

namespace {

class Database {
 public:
  explicit Database(int rows) {
    if (sqlite3_open(":memory:", &db_) != SQLITE_OK) throw std::runtime_error("cannot open");
    ostrel::registerSqliteFunctions(
        db_, ostrel::schemaManifestFromProtoFiles({"shop.proto"}, {OSTREL_EXAMPLES}),
        std::string("shop.Order"));
    exec("CREATE TABLE orders_json (id INTEGER PRIMARY KEY, doc TEXT)");
    exec("CREATE TABLE orders_pb (id INTEGER PRIMARY KEY, record BLOB)");
    // Orders of one to four items, a customer among 10,000, two attributes and a few coupons.
    exec("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < " +
         std::to_string(rows) +
         ") INSERT INTO orders_json SELECT i, json_object("
         "'id', i, "
         "'customer', json_object('id', i % 10000, 'name', 'Customer ' || (i % 10000), "
         "                        'email', 'c' || (i % 10000) || '@example.com'), "
         "'items', (SELECT json_group_array(json_object('sku', 'SKU-' || ((i + k) % 500), "
         "          'quantity', 1 + k, 'price', 100 + (i * 7 + k) % 9000)) "
         "          FROM (SELECT 0 AS k UNION ALL SELECT 1 UNION ALL SELECT 2 UNION ALL SELECT 3) "
         "          WHERE k <= i % 4), "
         "'state', CASE i % 3 WHEN 0 THEN 'OPEN' WHEN 1 THEN 'PAID' ELSE 'SHIPPED' END, "
         "'attributes', json_object('channel', 'web', 'region', 'r' || (i % 20)), "
         "'created_at', 1700000000000 + i, 'updated_at', 1700000360000 + i, "
         "'coupons', json_array(i % 7, i % 11, i % 13)) FROM n");
    exec("INSERT INTO orders_pb SELECT id, P_ENCODE('shop.Order', doc) FROM orders_json");
    exec("CREATE INDEX by_customer ON orders_pb(P_GET(record, 'customer.id'))");
  }
  ~Database() { sqlite3_close(db_); }

  void exec(const std::string& sql) {
    char* error = nullptr;
    if (sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &error) != SQLITE_OK) {
      const std::string text = error ? error : "?";
      sqlite3_free(error);
      throw std::runtime_error(text + "\n" + sql);
    }
  }

  // Runs a query to its end; the sum of its first column's integers keeps the work observable.
  int64_t run(const std::string& sql, int64_t parameter = 0) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
      throw std::runtime_error(sqlite3_errmsg(db_));
    }
    if (sqlite3_bind_parameter_count(statement) > 0) sqlite3_bind_int64(statement, 1, parameter);
    int64_t sum = 0;
    int step;
    while ((step = sqlite3_step(statement)) == SQLITE_ROW)
      sum += sqlite3_column_int64(statement, 0);
    sqlite3_finalize(statement);
    if (step != SQLITE_DONE) throw std::runtime_error(sqlite3_errmsg(db_));
    return sum;
  }

 private:
  sqlite3* db_ = nullptr;
};

Database& database(int rows) {
  static std::map<int, std::unique_ptr<Database>> databases;
  auto& slot = databases[rows];
  if (!slot) slot = std::make_unique<Database>(rows);
  return *slot;
}

void query(benchmark::State& state, const std::string& sql) {
  Database& db = database(static_cast<int>(state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(db.run(sql));
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

// Ten lookups of customers spread over the table, each returning about rows/10,000 orders.
void lookups(benchmark::State& state, const std::string& sql) {
  Database& db = database(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    for (int64_t customer = 17; customer < 10000; customer += 1000) {
      benchmark::DoNotOptimize(db.run(sql, customer));
    }
  }
}

const std::string kPGetInt = "SELECT sum(P_GET(record, 'customer.id')) FROM orders_pb";
const std::string kJsonInt = "SELECT sum(json_extract(doc, '$.customer.id')) FROM orders_json";
const std::string kPGetText =
    "SELECT count(P_GET(record, 'shop.Order', 'items[0].sku')) FROM orders_pb";
const std::string kJsonText = "SELECT count(json_extract(doc, '$.items[0].sku')) FROM orders_json";
const std::string kPEachScalar =
    "SELECT sum(e.value) FROM orders_pb AS o, P_EACH(o.record, 'coupons') AS e";
const std::string kJsonEachScalar =
    "SELECT sum(e.value) FROM orders_json AS o, json_each(o.doc, '$.coupons') AS e";
const std::string kPEachMessage =
    "SELECT sum(length(e.value)) FROM orders_pb AS o, P_EACH(o.record, 'items') AS e";
const std::string kJsonEachMessage =
    "SELECT sum(length(e.value)) FROM orders_json AS o, json_each(o.doc, '$.items') AS e";
const std::string kPEachMap =
    "SELECT count(e.key) FROM orders_pb AS o, P_EACH(o.record, 'attributes') AS e";
const std::string kJsonEachMap =
    "SELECT count(e.key) FROM orders_json AS o, json_each(o.doc, '$.attributes') AS e";
const std::string kIndexed = "SELECT id FROM orders_pb WHERE P_GET(record, 'customer.id') = ?";
const std::string kScan =
    "SELECT id FROM orders_pb NOT INDEXED WHERE P_GET(record, 'customer.id') = ?";
const std::string kBareScan = "SELECT sum(length(record)) FROM orders_pb";

#define OSTREL_SQL_BENCH(name, body)           \
  void name(benchmark::State& state) { body; } \
  BENCHMARK(name)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond)

OSTREL_SQL_BENCH(BM_PGet_int, query(state, kPGetInt));
OSTREL_SQL_BENCH(BM_JsonExtract_int, query(state, kJsonInt));
OSTREL_SQL_BENCH(BM_PGet_text, query(state, kPGetText));
OSTREL_SQL_BENCH(BM_JsonExtract_text, query(state, kJsonText));
OSTREL_SQL_BENCH(BM_BareBlobScan, query(state, kBareScan));
OSTREL_SQL_BENCH(BM_PEach_scalars, query(state, kPEachScalar));
OSTREL_SQL_BENCH(BM_JsonEach_scalars, query(state, kJsonEachScalar));
OSTREL_SQL_BENCH(BM_PEach_messages, query(state, kPEachMessage));
OSTREL_SQL_BENCH(BM_JsonEach_messages, query(state, kJsonEachMessage));
OSTREL_SQL_BENCH(BM_PEach_map, query(state, kPEachMap));
OSTREL_SQL_BENCH(BM_JsonEach_map, query(state, kJsonEachMap));
OSTREL_SQL_BENCH(BM_IndexedLookup, lookups(state, kIndexed));
OSTREL_SQL_BENCH(BM_FullScanLookup, lookups(state, kScan));

// Keeps every run's time per iteration, to print the ratios once all have run.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type == Run::RT_Iteration)
        times_[run.benchmark_name()] = run.GetAdjustedCPUTime();
    }
    ConsoleReporter::ReportRuns(runs);
  }

  void printRatios() const {
    const std::pair<const char*, const char*> pairs[] = {
        {"BM_PGet_int", "BM_JsonExtract_int"},
        {"BM_PGet_text", "BM_JsonExtract_text"},
        {"BM_PGet_int", "BM_BareBlobScan"},
        {"BM_PEach_scalars", "BM_JsonEach_scalars"},
        {"BM_PEach_messages", "BM_JsonEach_messages"},
        {"BM_PEach_map", "BM_JsonEach_map"},
        {"BM_IndexedLookup", "BM_FullScanLookup"},
    };
    std::printf("\nratios (CPU time of the first / CPU time of the second):\n");
    for (const char* rows : {"100000", "1000000"}) {
      for (const auto& [ours, theirs] : pairs) {
        const auto a = times_.find(std::string(ours) + "/" + rows);
        const auto b = times_.find(std::string(theirs) + "/" + rows);
        if (a == times_.end() || b == times_.end() || b->second == 0) continue;
        std::printf("  %8s rows  %-20s / %-22s %10.4gx\n", rows, ours, theirs,
                    a->second / b->second);
      }
    }
  }

 private:
  std::map<std::string, double> times_;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.printRatios();
  benchmark::Shutdown();
  return 0;
}
