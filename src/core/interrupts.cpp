#include "ostrel/core/interrupts.hpp"

#include <atomic>

namespace ostrel {
namespace {

std::atomic<InterruptCheck> installedCheck{nullptr};

}  // namespace

void setInterruptCheck(InterruptCheck check) noexcept {
  installedCheck.store(check, std::memory_order_relaxed);
}

namespace detail {

void pollInterrupt() {
  if (const InterruptCheck check = installedCheck.load(std::memory_order_relaxed)) check();
}

}  // namespace detail
}  // namespace ostrel
