// Threads that each import descriptor sets, build stores and read through them, all at once. The
// library shares only the built-in descriptor manifest between stores (made once, on first use)
// and the log handler; everything else a thread touches is its own. ThreadSanitizer checks the
// claim in the thread-sanitizer build of these tests.
//
// ctest runs each test in a process of its own, so the threads below are the first to ask for the
// built-in manifest and race for its construction.

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
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
    // Reads with scalar types need no store: every thread reads the one shared buffer.
    Schematizer::RepeatableFieldIterator sints(
        Schematizer::value(asBytes(message), 3,
                           TypeSchema(TypeSchemaDescription::scalar(TypeSchema::Case::bytes)))
            ->bytesValue(),
        18, TypeSchema(TypeSchemaDescription::scalar(TypeSchema::Case::sint64)));
    EXPECT_EQ(sints.next(), AnyValue(int64_t{-3}));

    const SchemaStore full =
        schemaStoreFromData({.type = SchemaManifestType::dscProto, .data = descriptorSet});
    const MessageSchema set = full.messageSchema("google.protobuf.FileDescriptorSet");
    const size_t imported =
        schemaManifestFromDescriptorSet(set.schematizedData(richSet).unsafe()).messages.size();
    EXPECT_GT(imported, 3u);
    // A field that does not decode is logged, through the shared log handler, kLogs times.
    std::string bad;
    for (int n = 0; n < kLogs; ++n) bad = toJSON(rich.schematizedData(std::string("\x58\xff", 2)));
    seen = std::to_string(reinterpret_cast<uintptr_t>(&builtinDescriptorManifest())) + "\n" +
           toJSON(data) + "\n" + bad + "\n" + std::to_string(imported);
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

}  // namespace
}  // namespace ostrel
