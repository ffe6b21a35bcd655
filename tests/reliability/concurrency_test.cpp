// Threads that each import descriptor sets, build stores and read through them, all at once; and
// threads that share one store and one projection. ThreadSanitizer checks both in the
// thread-sanitizer build of these tests.
//
// ctest runs each test in a process of its own, so the threads below are the first to ask for the
// built-in manifest and race for its construction.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <latch>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ostrel/ostrel.hpp"
#include "reliability/reliability_support.hpp"

namespace ostrel {
namespace {

using testing_support::readGenerated;

#if defined(__SANITIZE_THREAD__)
constexpr int kRounds = 4;
#else
constexpr int kRounds = 16;
#endif
constexpr int kThreads = 6;
constexpr int kLogs = 50;

// Imports, builds, reads and renders, as a thread serving requests would; returns what it saw, to
// be compared across threads afterwards.
std::string work(const Bytes& richSet, const Bytes& descriptorSet, const std::string& message) {
  std::string seen;
  for (int round = 0; round < kRounds; ++round) {
    const SchemaStore store(schemaManifestFromDescriptorSet(richSet));
    const MessageSchema rich = store.messageSchema("ostrel.test.Rich");
    const SchematizedData data = rich.schematizedData(message);
    EXPECT_EQ(data.value("mids[0].leaves[0].codes[0]"), AnyValue(int32_t{9}));

    const SchemaStore full = SchemaStore(
        schemaManifestFromData({.type = SchemaManifestType::dscProto, .data = descriptorSet}));
    const MessageSchema set = full.messageSchema("google.protobuf.FileDescriptorSet");
    const size_t imported = schemaManifestFromDescriptorSet(set.view(richSet)).messages.size();
    EXPECT_GT(imported, 3u);
    // A field that does not decode is logged, through the shared log handler, kLogs times.
    std::string bad;
    for (int n = 0; n < kLogs; ++n)
      bad = renderJSON(rich.schematizedData(std::string("\x58\xff", 2)));
    seen = std::to_string(reinterpret_cast<uintptr_t>(&builtinDescriptorManifest())) + "\n" +
           renderJSON(data) + "\n" + bad + "\n" + std::to_string(imported);
    for (const std::string& name : store.messageSchemaNames()) seen += "\n" + name;
  }
  return seen;
}

// Each round logs kLogs times, through the shared handler, which another thread keeps replacing all
// along: no message is lost, and the replacement races no call of the handler it replaces.
TEST(ReliabilityConcurrencyTest, ImportsAndStoresOnManyThreadsAtOnce) {
  const Bytes richSet = readGenerated("rich.desc");
  const Bytes descriptorSet = readGenerated("descriptor.desc");
  const std::string message = testing_support::richMessage();
  std::atomic<int> logged{0};
  const auto count = [&](std::string_view) { logged.fetch_add(1, std::memory_order_relaxed); };
  setLogHandler(count);

  std::vector<std::string> observed(kThreads);
  std::latch start(kThreads + 1);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      start.arrive_and_wait();
      observed[static_cast<size_t>(i)] = work(richSet, descriptorSet, message);
    });
  }
  std::atomic<bool> done{false};
  std::thread swapper([&] {
    start.arrive_and_wait();
    while (!done.load()) {
      setLogHandler(count);
      std::this_thread::yield();
    }
  });
  for (std::thread& thread : threads) thread.join();
  done = true;
  swapper.join();
  setLogHandler(nullptr);

  // The same answers on every thread, and the same as on this one afterwards.
  const std::string expected = work(richSet, descriptorSet, message);
  EXPECT_NE(expected.find(R"("number":"12")"), std::string::npos) << expected;
  for (const std::string& seen : observed) EXPECT_EQ(seen, expected);
  EXPECT_EQ(logged.load(), kThreads * kRounds * kLogs);
}

constexpr int kSharingThreads = 8;

// What one thread does with a store and a projection it shares with the others, in a store where
// nothing has been looked up beyond what building the projection resolved: lookups of every schema
// (each thread in its own order, so that they race for different first lookups), reads by path, a
// projection read whose message values are rendered, whole renderings and iteration. Returns what
// it saw, in an order that does not depend on the thread.
std::string useShared(const SchemaStore& store, const Projection& projection,
                      const std::string& message, size_t thread) {
  const std::set<std::string> sorted = store.messageSchemaNames();
  std::vector<std::string> names(sorted.begin(), sorted.end());
  std::rotate(names.begin(), names.begin() + static_cast<std::ptrdiff_t>(thread % names.size()),
              names.end());
  std::map<std::string, std::string> seen;
  for (const std::string& name : names) {
    const MessageSchema schema = store.messageSchema(name);
    std::string fields;
    for (const auto& [number, field] : schema.fieldsByNumber()) {
      fields +=
          std::to_string(number) + " " + field.name() + " " + field.type().descriptionText() + "\n";
      EXPECT_EQ(schema.fieldWithNumber(number), field);
    }
    for (const OneofSchema& oneof : schema.allOneofs()) {
      fields += oneof.name() + " " + std::to_string(oneof.allFieldNumbers().size()) + "\n";
    }
    seen[name] = fields;
  }
  for (const std::string& name : store.enumSchemaNames()) {
    seen[name] = std::to_string(store.enumSchema(name).allValues().size());
  }

  const MessageSchema rich = store.messageSchema("ostrel.test.Rich");
  const SchematizedData data = rich.schematizedData(message);
  std::string reads = renderJSON(*data.value("mids[0]")) +
                      renderJSON(*data.value("scalars.f_enum")) + renderJSON(data) +
                      renderJSON(data, {.jsonNames = true, .printDefaults = true});
  ProjectionRow row = projection.makeRow();
  projection.read(data.bytes(), row);
  for (size_t i = 0; i < row.size(); ++i) {
    const std::optional<AnyValue> value = row.value(i);
    reads += "\n" + projection.pathText(i) + " " + (value ? renderJSON(*value) : "absent");
  }
  const FieldSchema mids = rich.fieldNamed("mids");
  Schematizer::RepeatableFieldIterator elements(data.bytes(), mids.fieldNumber(), mids.type());
  for (const AnyValue& element : elements) reads += "\n" + renderJSON(element);
  EXPECT_TRUE(manifestEngagementsOnly(store).messages.contains("ostrel.test.Rich"));

  std::string all = reads;
  for (const auto& [name, text] : seen) all += "\n" + name + "\n" + text;
  return all;
}

// How long the shared-store test runs: OSTREL_CONCURRENCY_SECONDS seconds when set (for long runs
// under ThreadSanitizer), else a few rounds.
std::chrono::seconds sharingDuration() {
  const char* text = std::getenv("OSTREL_CONCURRENCY_SECONDS");
  return std::chrono::seconds(text ? std::atoi(text) : 0);
}

// Each round builds a fresh store and projection, so that the threads race for every first lookup
// and materialisation again; their answers must be those of one thread alone.
TEST(ReliabilityConcurrencyTest, OneStoreAndOneProjectionSharedByManyThreads) {
  const Bytes richSet = readGenerated("rich.desc");
  const std::string message = testing_support::richMessage();
  const std::vector<std::string> paths = {
      "mid",   "mid.leaf.id", "mids[0]", "mids[0].leaves[0].codes[0]",
      "color", "number",      "scalars", "leaves_by_id[0].value"};
  const auto fresh = [&] {
    SchemaStore store(schemaManifestFromDescriptorSet(richSet));
    Projection projection(store.messageSchema("ostrel.test.Rich"), paths);
    return std::pair(std::move(store), std::move(projection));
  };
  const std::string expected = [&] {
    const auto [store, projection] = fresh();
    return useShared(store, projection, message, 0);
  }();
  EXPECT_NE(expected.find(R"(mid {"leaf":{"id":1},"leaves":[{"label":"a"}]})"), std::string::npos)
      << expected;

  const auto until = std::chrono::steady_clock::now() + sharingDuration();
  int rounds = 0;
  do {
    const auto [store, projection] = fresh();
    std::vector<std::string> observed(kSharingThreads);
    std::latch start(kSharingThreads);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < kSharingThreads; ++i) {
      threads.emplace_back([&, i] {
        start.arrive_and_wait();
        observed[i] = useShared(store, projection, message, i);
      });
    }
    for (std::thread& thread : threads) thread.join();
    for (const std::string& seen : observed) ASSERT_EQ(seen, expected);
    ++rounds;
  } while (rounds < kRounds || std::chrono::steady_clock::now() < until);
  std::printf("%d rounds of %d threads\n", rounds, kSharingThreads);
}

}  // namespace
}  // namespace ostrel
