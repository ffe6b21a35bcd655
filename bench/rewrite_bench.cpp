// Records that change: one scalar set near the front of a 1 MB and a 1 KB record by the library's
// rewrite (which copies the untouched bytes) and by libprotobuf's DynamicMessage (parse, set
// through reflection, serialize), and the canonical encoding of 1 MB against libprotobuf's parse
// and serialize. The ratios of the CPU times of each pair are printed after the run.

#include <benchmark/benchmark.h>
#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/dynamic_message.h>

#include <cstdio>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>

#include "ostrel/ostrel.hpp"
#include "workload.hpp"

namespace {

namespace pb = google::protobuf;
using namespace ostrel;

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

struct Setup {
  std::string descriptorSet = readFile(OSTREL_BENCH_GENERATED "/bench.desc");
  SchemaStore store{schemaManifestFromDescriptorSet(asBytes(descriptorSet))};
  MessageSchema schema = store.messageSchema("ostrel.bench.Bench");
  pb::DescriptorPool pool;
  pb::DynamicMessageFactory factory{&pool};
  const pb::Message* prototype = nullptr;
  std::string large = bench::buildLargeMessage();
  std::string small = bench::buildSmallMessage();

  Setup() {
    pb::FileDescriptorSet set;
    if (!set.ParseFromString(descriptorSet)) throw std::runtime_error("bench.desc does not parse");
    for (const auto& file : set.file()) pool.BuildFile(file);
    prototype = factory.GetPrototype(pool.FindMessageTypeByName("ostrel.bench.Bench"));
  }
};

Setup& setup() {
  static Setup instance;
  return instance;
}

// mid.weight = 7, the library's way.
Bytes setOurs(const Rewrite& rewrite, const std::string& record) {
  return rewrite.apply(asBytes(record));
}

// mid.weight = 7, libprotobuf's way.
std::string setTheirs(const std::string& record) {
  const Setup& s = setup();
  std::unique_ptr<pb::Message> message(s.prototype->New());
  message->ParseFromString(record);
  const pb::FieldDescriptor* midField = message->GetDescriptor()->FindFieldByName("mid");
  pb::Message* mid = message->GetReflection()->MutableMessage(message.get(), midField);
  mid->GetReflection()->SetInt32(mid, mid->GetDescriptor()->FindFieldByName("weight"), 7);
  return message->SerializeAsString();
}

Rewrite weightRewrite() {
  Rewrite rewrite(setup().schema);
  rewrite.set("mid.weight", AnyValue(int32_t{7}));
  return rewrite;
}

// Both ways give the same message, and normalizing gives libprotobuf's bytes.
void check() {
  Setup& s = setup();
  for (const std::string* record : {&s.large, &s.small}) {
    std::unique_ptr<pb::Message> ours(s.prototype->New());
    const Bytes edited = setOurs(weightRewrite(), *record);
    ours->ParseFromArray(edited.data(), static_cast<int>(edited.size()));
    if (ours->SerializeAsString() != setTheirs(*record)) {
      throw std::runtime_error("the rewrite differs from libprotobuf's");
    }
  }
  std::unique_ptr<pb::Message> parsed(s.prototype->New());
  parsed->ParseFromString(s.large);
  if (asText(normalizeRecord(s.schema, asBytes(s.large))) != parsed->SerializeAsString()) {
    throw std::runtime_error("normalize differs from libprotobuf's serialization");
  }
}

void BM_SetOurs1MB(benchmark::State& state) {
  const Rewrite rewrite = weightRewrite();
  for (auto _ : state) benchmark::DoNotOptimize(setOurs(rewrite, setup().large));
}
void BM_SetDynamicMessage1MB(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(setTheirs(setup().large));
}
void BM_SetOurs1KB(benchmark::State& state) {
  const Rewrite rewrite = weightRewrite();
  for (auto _ : state) benchmark::DoNotOptimize(setOurs(rewrite, setup().small));
}
void BM_SetDynamicMessage1KB(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(setTheirs(setup().small));
}
void BM_NormalizeOurs1MB(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(normalizeRecord(setup().schema, asBytes(setup().large)));
  }
}
void BM_ParseSerializeDynamicMessage1MB(benchmark::State& state) {
  for (auto _ : state) {
    std::unique_ptr<pb::Message> message(setup().prototype->New());
    message->ParseFromString(setup().large);
    benchmark::DoNotOptimize(message->SerializeAsString());
  }
}
BENCHMARK(BM_SetOurs1MB);
BENCHMARK(BM_SetDynamicMessage1MB);
BENCHMARK(BM_SetOurs1KB);
BENCHMARK(BM_SetDynamicMessage1KB);
BENCHMARK(BM_NormalizeOurs1MB);
BENCHMARK(BM_ParseSerializeDynamicMessage1MB);

// The console report, keeping each benchmark's time for the ratios.
class Reporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) times[run.benchmark_name()] = run.GetAdjustedCPUTime();
    ConsoleReporter::ReportRuns(runs);
  }
  std::map<std::string, double> times;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  check();
  Reporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  // The median of repetitions when there are some, else the one run.
  const auto time = [&](const std::string& name) {
    const auto median = reporter.times.find(name + "_median");
    if (median != reporter.times.end()) return median->second;
    const auto one = reporter.times.find(name);
    return one != reporter.times.end() ? one->second : 0.0;
  };
  const auto ratio = [&](const char* name, const std::string& ours, const std::string& theirs,
                         const char* target) {
    if (time(ours) <= 0 || time(theirs) <= 0) return;
    std::printf("%-44s %7.1fx  (target %s)\n", name, time(theirs) / time(ours), target);
  };
  std::printf("\nRatios (libprotobuf's time / the library's):\n");
  ratio("set one scalar near the front, 1 MB", "BM_SetOurs1MB", "BM_SetDynamicMessage1MB",
        ">= 20x");
  ratio("set one scalar near the front, 1 KB", "BM_SetOurs1KB", "BM_SetDynamicMessage1KB", ">= 3x");
  ratio("normalize 1 MB vs parse + serialize", "BM_NormalizeOurs1MB",
        "BM_ParseSerializeDynamicMessage1MB", "report");
  benchmark::Shutdown();
  return 0;
}
