#include "report.hpp"

#include <algorithm>
#include <cstdio>
#include <ostream>

namespace ostrel::bench {
namespace {

double nanosecondsPer(benchmark::TimeUnit unit) {
  switch (unit) {
    case benchmark::kNanosecond:
      return 1;
    case benchmark::kMicrosecond:
      return 1e3;
    case benchmark::kMillisecond:
      return 1e6;
    case benchmark::kSecond:
      return 1e9;
  }
  return 1;
}

std::string formatTime(double ns) {
  char text[32];
  if (ns < 1e3) {
    std::snprintf(text, sizeof text, "%.1f ns", ns);
  } else if (ns < 1e6) {
    std::snprintf(text, sizeof text, "%.2f us", ns / 1e3);
  } else {
    std::snprintf(text, sizeof text, "%.2f ms", ns / 1e6);
  }
  return text;
}

std::string formatRatio(double ratio) {
  char text[32];
  std::snprintf(text, sizeof text, ratio >= 100 ? "%.0fx" : "%.2fx", ratio);
  return text;
}

std::string padded(std::string text, size_t width) {
  if (text.size() < width) text.append(width - text.size(), ' ');
  return text;
}

}  // namespace

double TargetReporter::Sample::median() const {
  if (aggregateMedian) return *aggregateMedian;
  std::vector<double> sorted = repetitions;
  std::sort(sorted.begin(), sorted.end());
  const size_t n = sorted.size();
  return n % 2 == 1 ? sorted[n / 2] : (sorted[n / 2 - 1] + sorted[n / 2]) / 2;
}

TargetReporter::TargetReporter(std::vector<RatioTarget> ratios,
                               std::vector<AllocationTarget> allocations)
    : benchmark::ConsoleReporter(OO_Tabular),
      ratios_(std::move(ratios)),
      allocations_(std::move(allocations)) {}

void TargetReporter::ReportRuns(const std::vector<Run>& runs) {
  benchmark::ConsoleReporter::ReportRuns(runs);
  for (const Run& run : runs) {
    if (run.error_occurred) continue;
    // A benchmark registered over a range of sizes keeps a row per size ("Growth/Ostrel/EncodeMap/
    // 10000"), so that the sizes are not merged into one median.
    std::string name = run.run_name.function_name;
    if (!run.run_name.args.empty()) name += "/" + run.run_name.args;
    const double ns = run.GetAdjustedCPUTime() * nanosecondsPer(run.time_unit);
    Sample& sample = samples_[name];
    sample.runs = std::max<int64_t>(sample.runs, run.repetitions);
    if (run.run_type == Run::RT_Iteration) {
      sample.repetitions.push_back(ns);
      if (!sample.aggregateMedian) {
        for (const auto& [counter, value] : run.counters) sample.counters[counter] = value;
      }
    } else if (run.aggregate_name == "median") {
      sample.aggregateMedian = ns;
      for (const auto& [counter, value] : run.counters) sample.counters[counter] = value;
    }
  }
}

const TargetReporter::Sample* TargetReporter::find(const std::string& name) const {
  const auto it = samples_.find(name);
  if (it == samples_.end()) return nullptr;
  if (it->second.repetitions.empty() && !it->second.aggregateMedian) return nullptr;
  return &it->second;
}

void TargetReporter::printMedians() const {
  std::ostream& out = GetOutputStream();
  size_t width = 10;
  for (const auto& [name, sample] : samples_) width = std::max(width, name.size());
  out << "\nMedian CPU time per iteration\n";
  out << padded("benchmark", width) << "  " << padded("median", 12) << "  repetitions\n";
  for (const auto& [name, sample] : samples_) {
    if (!find(name)) continue;
    const int64_t runs =
        std::max<int64_t>(sample.runs, static_cast<int64_t>(sample.repetitions.size()));
    out << padded(name, width) << "  " << padded(formatTime(sample.median()), 12) << "  "
        << std::max<int64_t>(runs, 1) << "\n";
  }
}

void TargetReporter::printTargets() const {
  std::ostream& out = GetOutputStream();
  out << "\nTargets (ratios of medians in this run)\n";
  out << padded("id", 4) << padded("target", 68) << padded("measured", 14) << padded("bound", 12)
      << "result\n";
  for (const RatioTarget& target : ratios_) {
    const Sample* ours = find(target.ours);
    const Sample* peer = find(target.peer);
    const bool reportOnly = target.kind == RatioTarget::Bound::report;
    const bool atMost = target.kind == RatioTarget::Bound::oursAtMost || reportOnly;
    const std::string bound =
        reportOnly ? std::string("-") : (atMost ? "<= " : ">= ") + formatRatio(target.bound);
    out << padded(target.id, 4) << padded(target.description, 68);
    if (!ours || !peer) {
      out << padded("n/a", 14) << padded(bound, 12) << "not run ("
          << (!ours ? target.ours : target.peer) << ")\n";
      continue;
    }
    const double ratio = atMost ? ours->median() / peer->median() : peer->median() / ours->median();
    const bool pass = atMost ? ratio <= target.bound : ratio >= target.bound;
    out << padded(formatRatio(ratio), 14) << padded(bound, 12)
        << (reportOnly ? "report"
            : pass     ? "pass"
                       : "MISS")
        << "\n";
  }
  for (const AllocationTarget& target : allocations_) {
    // The benchmark's counter when it ran, else the exact count of the self-check.
    double measured = static_cast<double>(target.measuredBySelfCheck);
    if (const Sample* sample = find(target.benchmark)) {
      if (const auto it = sample->counters.find("allocs"); it != sample->counters.end()) {
        measured = it->second;
      }
    }
    char text[32];
    std::snprintf(text, sizeof text, "%.2f allocs", measured);
    out << padded(target.id, 4) << padded(target.description, 68) << padded(text, 14)
        << padded("<= " + std::to_string(target.allowed), 12)
        << (measured <= static_cast<double>(target.allowed) ? "pass" : "MISS") << "\n";
  }
}

void TargetReporter::Finalize() {
  printMedians();
  printTargets();
  GetOutputStream().flush();
}

}  // namespace ostrel::bench
