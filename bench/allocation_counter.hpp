#pragma once

// Counts heap allocations made through the global operator new while a scope is active. The
// benchmark binary replaces the global allocation functions (allocation_counter.cpp) so that
// every new expression, in the library, the standard library and libprotobuf alike, is seen.

#include <cstdint>

namespace ostrel::bench {

// Allocations counted so far; only those made while an AllocationScope is alive count.
int64_t countedAllocations() noexcept;

// Counts from construction; count() is the number of allocations since then. Scopes do not nest.
class AllocationScope {
 public:
  AllocationScope() noexcept;
  ~AllocationScope();
  AllocationScope(const AllocationScope&) = delete;
  AllocationScope& operator=(const AllocationScope&) = delete;

  int64_t count() const noexcept { return countedAllocations() - start_; }

 private:
  int64_t start_;
};

}  // namespace ostrel::bench
