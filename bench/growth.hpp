#pragma once

namespace ostrel::bench {

// Registers the growth benchmarks of the JSON readers: 10k to 1M members, or 10k only when
// `small`.
void registerGrowthBenchmarks(bool small);

}  // namespace ostrel::bench
