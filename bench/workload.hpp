#pragma once

// The messages the benchmarks read, built with libprotobuf from bench.proto. Every builder is
// deterministic (fixed seeds), so two runs time the same bytes and the expected values below hold
// for every run.

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace ostrel::bench {

// mid.leaf.id, the first value of every workload message.
inline constexpr int64_t kFrontId = 1234567890123;
// tail.leaf.id, the last value of every workload message.
inline constexpr int64_t kTailId = 9876543210987;
// mid.leaf.label: longer than any small-string buffer, so that reading it copies onto the heap.
inline constexpr const char* kFrontLabel = "front leaf label, long enough for a heap copy";

// How many elements of each tiny field the dense message holds, indexed by kDenseFields order.
struct DenseCounts {
  std::array<size_t, 8> perField{};
  size_t total() const {
    size_t sum = 0;
    for (size_t n : perField) sum += n;
    return sum;
  }
};

// The field numbers of the dense message's tiny fields, in bench.proto order.
inline constexpr std::array<int, 8> kDenseFields = {13, 14, 15, 16, 17, 18, 19, 20};

// A record of about 1 KB.
std::string buildSmallMessage();

// A record of about 1 MB: thousands of nested items, packed runs, strings and bytes.
std::string buildLargeMessage();
// About 1 MB of ostrel.bench.Events: event records full of well-known types.
std::string buildEventsMessage();

// About 1 MB holding mid, then `fieldCount` tiny top-level fields (one tag each) in random order,
// then tail: the worst case for a reader that steps over fields. `counts` receives how many of
// each tiny field were written.
std::string buildDenseMessage(size_t fieldCount, DenseCounts& counts);

// A message holding only the packed int32 run `ints` of `count` varints of mixed sizes (one to five
// bytes, a few negative values of ten); `values` receives the elements in order.
std::string buildPackedRunMessage(size_t count, std::vector<int32_t>& values);

// `count` ShopOrder records of about 150 bytes, each preceded by its length as a varint (as
// writeDelimitedTo writes them). `idSum` receives the sum of their ids.
std::string buildOrderStream(size_t count, uint64_t& idSum);

}  // namespace ostrel::bench
