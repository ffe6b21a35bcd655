#pragma once

// JSON text into protobuf bytes: parseJSON side by side with libprotobuf's two JSON parsers, over
// the 1 MB workload message as renderJSON writes it.

#include <string>
#include <vector>

#include "ostrel/store/schemas.hpp"
#include "report.hpp"

namespace ostrel::bench {

// Checks that parseJSON and both libprotobuf parsers turn `json` back into the message `bytes`
// hold (a difference stops the program), then registers their benchmarks. libprotobuf's take
// milliseconds an iteration and are left out of a smoke run; their answers are still checked.
// `schema` is ostrel.bench.Bench from `descriptorSet` (bench.desc).
void registerJsonEncodingBenchmarks(const MessageSchema& schema, const std::string& descriptorSet,
                                    const std::string& bytes, const std::string& json, bool smoke);

// The targets of these benchmarks, for the report.
std::vector<RatioTarget> jsonEncodingTargets();

}  // namespace ostrel::bench
