#pragma once

// The report of a benchmark run: the console output Google Benchmark always prints, followed by a
// table of median times and a table of the performance targets, each with the ratio measured in
// this run and whether it meets its bound. Ratios, not absolute times, are what the targets state:
// both sides of a ratio run in the same process on the same machine, interleaved.

#include <benchmark/benchmark.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace ostrel::bench {

// A target comparing two benchmarks by their median CPU time.
struct RatioTarget {
  enum class Bound : uint8_t {
    // ours / peer must be at most `bound`: "within 2x of".
    oursAtMost,
    // peer / ours must be at least `bound`: "at least 4x faster than".
    speedupAtLeast,
    // ours / peer, reported with no bound: how far a measurement is from a limit.
    report,
  };
  std::string id;
  std::string description;
  std::string ours;
  std::string peer;
  Bound kind;
  double bound;
};

// A target on the number of heap allocations a read makes, reported by a benchmark as its
// "allocs" counter (allocations per read) and measured once more by the self-checks.
struct AllocationTarget {
  std::string id;
  std::string description;
  std::string benchmark;
  int64_t allowed;
  int64_t measuredBySelfCheck;
};

class TargetReporter : public benchmark::ConsoleReporter {
 public:
  TargetReporter(std::vector<RatioTarget> ratios, std::vector<AllocationTarget> allocations);

  void ReportRuns(const std::vector<Run>& runs) override;
  void Finalize() override;

 private:
  struct Sample {
    // CPU nanoseconds per iteration of every repetition.
    std::vector<double> repetitions;
    // The median computed by the library when it aggregated repetitions.
    std::optional<double> aggregateMedian;
    std::map<std::string, double> counters;
    // Repetitions as the library counted them (also when only aggregates were reported).
    int64_t runs = 0;
    double median() const;
  };

  const Sample* find(const std::string& name) const;
  void printMedians() const;
  void printTargets() const;

  std::vector<RatioTarget> ratios_;
  std::vector<AllocationTarget> allocations_;
  // By name, so that the table groups the floors, Ostrel and libprotobuf.
  std::map<std::string, Sample> samples_;
};

}  // namespace ostrel::bench
