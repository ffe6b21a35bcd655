// Columns out of 1,000,000 delimited shop orders (about 150 bytes each): Ostrel's columnar
// projection, batch by batch into Arrow arrays, beside the row Projection reading the same paths
// and beside libprotobuf's DynamicMessage parse with its fields appended to column vectors, which
// is what a program builds columns with otherwise. 3 and 10 scalar paths and one list path. Each
// side's answer is checked against the other's before anything is timed.

#include <benchmark/benchmark.h>
#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/dynamic_message.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include "ostrel/ostrel.hpp"
#include "report.hpp"
#include "workload.hpp"

namespace ostrel::bench {
namespace {

namespace pb = google::protobuf;

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "columns_bench: %s\n", what.c_str());
  std::exit(1);
}

Bytes readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) fail("cannot read " + path);
  return toBytes(std::string(std::istreambuf_iterator<char>(in), {}));
}

const std::vector<std::string> kThree = {"id", "customer.name", "items[0].price"};
const std::vector<std::string> kTen = {
    "id",         "customer.id", "customer.name", "customer.email",    "state",
    "created_at", "updated_at",  "items[0].sku",  "items[0].quantity", "items[0].price"};
const std::vector<std::string> kList = {"items[*].price"};

// The id column's sum and the row count of one batch (a struct array whose first child is uint64).
struct Tally {
  uint64_t ids = 0;
  int64_t rows = 0;
  int64_t elements = 0;
  friend bool operator==(const Tally&, const Tally&) = default;
};

void tallyBatch(const ArrowArray& batch, Tally& tally) {
  tally.rows += batch.length;
  const ArrowArray& first = *batch.children[0];
  if (first.n_children == 1) {  // the list column: its element count
    const auto* offsets = static_cast<const int32_t*>(first.buffers[1]);
    tally.elements += offsets[first.length] - offsets[0];
    return;
  }
  const auto* ids = static_cast<const uint64_t*>(first.buffers[1]);
  for (int64_t i = 0; i < first.length; ++i) tally.ids += ids[i];
}

struct Setup {
  Setup()
      : set(readFile(OSTREL_BENCH_GENERATED "/bench.desc")),
        store(schemaManifestFromDescriptorSet(set)),
        schema(store.messageSchema("ostrel.bench.ShopOrder")),
        stream(buildOrderStream(1000000, idSum)) {
    pb::FileDescriptorSet files;
    if (!files.ParseFromArray(set.data(), static_cast<int>(set.size()))) fail("descriptor set");
    for (const pb::FileDescriptorProto& file : files.file()) {
      if (pool.BuildFile(file) == nullptr) fail("cannot build " + file.name());
    }
    order.reset(factory.GetPrototype(pool.FindMessageTypeByName("ostrel.bench.ShopOrder"))->New());
  }

  Bytes set;
  SchemaStore store;
  MessageSchema schema;
  uint64_t idSum = 0;
  std::string stream;
  pb::DescriptorPool pool;
  pb::DynamicMessageFactory factory{&pool};
  std::unique_ptr<pb::Message> order;
};

// Ostrel's columns: the stream into batches of 65,536 rows, each exported and released.
Tally byColumns(const ColumnProjection& columns, const std::string& stream) {
  ArrowArrayStream out;
  columns.exportStream(RecordSource::delimited(asBytes(stream)), &out);
  Tally tally;
  for (;;) {
    ArrowArray batch;
    if (out.get_next(&out, &batch) != 0) fail(out.get_last_error(&out));
    if (batch.release == nullptr) break;
    tallyBatch(batch, tally);
    batch.release(&batch);
  }
  out.release(&out);
  return tally;
}

// The row Projection over the same records and paths, its answers looked at.
Tally byRows(const Projection& projection, ProjectionRow& row, const std::string& stream) {
  RecordSource records = RecordSource::delimited(asBytes(stream));
  Tally tally;
  uint64_t fold = 0;
  while (const std::optional<ByteView> record = records.next()) {
    projection.read(*record, row);
    tally.ids += row.uint64Value(0).value_or(0);
    ++tally.rows;
    for (size_t i = 1; i < row.size(); ++i) {
      if (row.state(i) == ProjectionRow::State::present) ++fold;
    }
  }
  benchmark::DoNotOptimize(fold);
  return tally;
}

// Column vectors as a program fills them from parsed messages, emptied every 65,536 rows.
struct Vectors {
  std::vector<std::vector<uint64_t>> u64;
  std::vector<std::vector<int64_t>> i64;
  std::vector<std::string> text;
  std::vector<std::vector<int32_t>> offsets;
  std::vector<std::vector<uint8_t>> valid;

  explicit Vectors(size_t columns)
      : u64(columns), i64(columns), text(columns), offsets(columns), valid(columns) {}
  void clear() {
    for (auto& v : u64) v.clear();
    for (auto& v : i64) v.clear();
    for (auto& v : text) v.clear();
    for (auto& v : offsets) v.clear();
    for (auto& v : valid) v.clear();
  }
};

template <typename Row>
Tally byDynamicMessage(Setup& s, size_t columns, const Row& appendRow) {
  Vectors vectors(columns);
  Tally tally;
  RecordSource records = RecordSource::delimited(asBytes(s.stream));
  int64_t inBatch = 0;
  while (const std::optional<ByteView> record = records.next()) {
    if (!s.order->ParseFromArray(record->data(), static_cast<int>(record->size()))) {
      fail("DynamicMessage parse failed");
    }
    appendRow(*s.order, vectors, tally);
    ++tally.rows;
    if (++inBatch == 65536) {
      vectors.clear();
      inBatch = 0;
    }
  }
  return tally;
}

struct Fields {
  explicit Fields(const pb::Descriptor* order)
      : id(order->FindFieldByName("id")),
        customer(order->FindFieldByName("customer")),
        items(order->FindFieldByName("items")),
        state(order->FindFieldByName("state")),
        created(order->FindFieldByName("created_at")),
        updated(order->FindFieldByName("updated_at")),
        customerId(customer->message_type()->FindFieldByName("id")),
        name(customer->message_type()->FindFieldByName("name")),
        email(customer->message_type()->FindFieldByName("email")),
        sku(items->message_type()->FindFieldByName("sku")),
        quantity(items->message_type()->FindFieldByName("quantity")),
        price(items->message_type()->FindFieldByName("price")) {}
  const pb::FieldDescriptor *id, *customer, *items, *state, *created, *updated, *customerId, *name,
      *email, *sku, *quantity, *price;
};

void appendText(Vectors& v, size_t column, const std::string& text) {
  v.text[column] += text;
  v.offsets[column].push_back(static_cast<int32_t>(v.text[column].size()));
}

// One message's values appended as the columnar projection appends them: a null (validity 0) for
// a message or field that is not there.
void appendThree(const Fields& f, const pb::Message& m, Vectors& v, Tally& tally) {
  const pb::Reflection* r = m.GetReflection();
  const uint64_t id = r->GetUInt64(m, f.id);
  v.u64[0].push_back(id);
  v.valid[0].push_back(r->HasField(m, f.id));
  tally.ids += id;
  const bool hasCustomer = r->HasField(m, f.customer);
  const pb::Message& c = r->GetMessage(m, f.customer);
  std::string scratch;
  appendText(v, 1, c.GetReflection()->GetStringReference(c, f.name, &scratch));
  v.valid[1].push_back(hasCustomer && c.GetReflection()->HasField(c, f.name));
  const bool hasItem = r->FieldSize(m, f.items) > 0;
  if (hasItem) {
    const pb::Message& item = r->GetRepeatedMessage(m, f.items, 0);
    v.i64[2].push_back(item.GetReflection()->GetInt64(item, f.price));
  } else {
    v.i64[2].push_back(0);
  }
  v.valid[2].push_back(hasItem);
}

void appendTen(const Fields& f, const pb::Message& m, Vectors& v, Tally& tally) {
  appendThree(f, m, v, tally);
  const pb::Reflection* r = m.GetReflection();
  const pb::Message& c = r->GetMessage(m, f.customer);
  const pb::Reflection* cr = c.GetReflection();
  std::string scratch;
  v.u64[3].push_back(cr->GetUInt64(c, f.customerId));
  v.valid[3].push_back(cr->HasField(c, f.customerId));
  appendText(v, 4, cr->GetStringReference(c, f.email, &scratch));
  v.valid[4].push_back(cr->HasField(c, f.email));
  v.i64[5].push_back(r->GetEnumValue(m, f.state));
  v.valid[5].push_back(r->HasField(m, f.state));
  v.i64[6].push_back(r->GetInt64(m, f.created));
  v.valid[6].push_back(r->HasField(m, f.created));
  v.i64[7].push_back(r->GetInt64(m, f.updated));
  v.valid[7].push_back(r->HasField(m, f.updated));
  if (r->FieldSize(m, f.items) > 0) {
    const pb::Message& item = r->GetRepeatedMessage(m, f.items, 0);
    const pb::Reflection* ir = item.GetReflection();
    appendText(v, 8, ir->GetStringReference(item, f.sku, &scratch));
    v.u64[9].push_back(ir->GetUInt32(item, f.quantity));
  } else {
    appendText(v, 8, "");
    v.u64[9].push_back(0);
  }
}

void appendList(const Fields& f, const pb::Message& m, Vectors& v, Tally& tally) {
  const pb::Reflection* r = m.GetReflection();
  const int count = r->FieldSize(m, f.items);
  for (int i = 0; i < count; ++i) {
    const pb::Message& item = r->GetRepeatedMessage(m, f.items, i);
    v.i64[0].push_back(item.GetReflection()->GetInt64(item, f.price));
    v.valid[0].push_back(item.GetReflection()->HasField(item, f.price));
  }
  v.offsets[0].push_back(static_cast<int32_t>(v.i64[0].size()));
  tally.elements += count;
}

void expectEqual(const std::string& what, const Tally& a, const Tally& b) {
  if (!(a == b)) {
    fail(what + ": ids " + std::to_string(a.ids) + " vs " + std::to_string(b.ids) + ", rows " +
         std::to_string(a.rows) + " vs " + std::to_string(b.rows) + ", elements " +
         std::to_string(a.elements) + " vs " + std::to_string(b.elements));
  }
}

template <typename Body>
void add(const std::string& name, int64_t bytes, Tally expected, Body body) {
  benchmark::RegisterBenchmark(name.c_str(), [name, bytes, expected,
                                              body](benchmark::State& state) {
    Tally last;
    for (auto _ : state) {
      last = body();
      benchmark::DoNotOptimize(std::as_const(last));
    }
    expectEqual(name + ", timed loop", last, expected);
    state.SetBytesProcessed(state.iterations() * bytes);
  })->Unit(benchmark::kMillisecond);
}

}  // namespace
}  // namespace ostrel::bench

int main(int argc, char** argv) {
  using namespace ostrel;
  using namespace ostrel::bench;
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  static Setup s;
  const Fields fields(s.order->GetDescriptor());
  const auto bytes = static_cast<int64_t>(s.stream.size());
  std::printf("workload: %d delimited orders, %lld bytes\n", 1000000,
              static_cast<long long>(bytes));

  static const ColumnProjection three(s.schema, kThree);
  static const ColumnProjection ten(s.schema, kTen);
  static const ColumnProjection list(s.schema, kList);
  static const Projection threeRows(s.schema, kThree);
  static const Projection tenRows(s.schema, kTen);
  static ProjectionRow threeRow = threeRows.makeRow();
  static ProjectionRow tenRow = tenRows.makeRow();

  // Self-checks: every side gives the same tally.
  const Tally threeExpected = byDynamicMessage(
      s, 3, [&](const auto& m, auto& v, auto& t) { appendThree(fields, m, v, t); });
  if (threeExpected.ids != s.idSum) fail("DynamicMessage ids");
  expectEqual("3 paths, columns", byColumns(three, s.stream), threeExpected);
  expectEqual("3 paths, rows", byRows(threeRows, threeRow, s.stream), threeExpected);
  const Tally tenExpected =
      byDynamicMessage(s, 10, [&](const auto& m, auto& v, auto& t) { appendTen(fields, m, v, t); });
  expectEqual("10 paths, columns", byColumns(ten, s.stream), tenExpected);
  expectEqual("10 paths, rows", byRows(tenRows, tenRow, s.stream), tenExpected);
  const Tally listExpected =
      byDynamicMessage(s, 1, [&](const auto& m, auto& v, auto& t) { appendList(fields, m, v, t); });
  expectEqual("list path, columns", byColumns(list, s.stream), listExpected);
  std::printf("self-checks passed\n");
  std::fflush(stdout);

  add("Ostrel/Columns/3/1M", bytes, threeExpected, [] { return byColumns(three, s.stream); });
  add("Ostrel/RowProjection/3/1M", bytes, threeExpected,
      [] { return byRows(threeRows, threeRow, s.stream); });
  add("Protobuf/DynamicColumns/3/1M", bytes, threeExpected, [&fields] {
    return byDynamicMessage(s, 3,
                            [&](const auto& m, auto& v, auto& t) { appendThree(fields, m, v, t); });
  });
  add("Ostrel/Columns/10/1M", bytes, tenExpected, [] { return byColumns(ten, s.stream); });
  add("Ostrel/RowProjection/10/1M", bytes, tenExpected,
      [] { return byRows(tenRows, tenRow, s.stream); });
  add("Protobuf/DynamicColumns/10/1M", bytes, tenExpected, [&fields] {
    return byDynamicMessage(s, 10,
                            [&](const auto& m, auto& v, auto& t) { appendTen(fields, m, v, t); });
  });
  add("Ostrel/Columns/list/1M", bytes, listExpected, [] { return byColumns(list, s.stream); });
  add("Protobuf/DynamicColumns/list/1M", bytes, listExpected, [&fields] {
    return byDynamicMessage(s, 1,
                            [&](const auto& m, auto& v, auto& t) { appendList(fields, m, v, t); });
  });

  using B = RatioTarget::Bound;
  TargetReporter reporter(
      {
          {"11a", "3 scalar paths: columns vs the row Projection", "Ostrel/Columns/3/1M",
           "Ostrel/RowProjection/3/1M", B::oursAtMost, 1.3},
          {"11b", "3 scalar paths: columns vs DynamicMessage + column vectors (speedup)",
           "Ostrel/Columns/3/1M", "Protobuf/DynamicColumns/3/1M", B::speedupAtLeast, 15},
          {"11c", "10 scalar paths: columns vs the row Projection", "Ostrel/Columns/10/1M",
           "Ostrel/RowProjection/10/1M", B::oursAtMost, 1.3},
          {"11d", "10 scalar paths: columns vs DynamicMessage + column vectors (speedup)",
           "Ostrel/Columns/10/1M", "Protobuf/DynamicColumns/10/1M", B::speedupAtLeast, 15},
          {"11e", "list path items[*].price: columns vs DynamicMessage + column vectors (speedup)",
           "Ostrel/Columns/list/1M", "Protobuf/DynamicColumns/list/1M", B::speedupAtLeast, 15},
      },
      {});
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
