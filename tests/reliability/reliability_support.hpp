#pragma once

// What the reliability tests share: a thread with a small stack for
// proving that a walk does not recurse once per level of its input, and a timer.

#include <pthread.h>

#include <chrono>
#include <exception>
#include <functional>
#include <stdexcept>
#include <string>

#include "ostrel/core/values.hpp"
#include "support/test_support.hpp"
#include "support/wire.hpp"

namespace ostrel::testing_support {

// Runs `work` on a new thread whose stack is `stackBytes` long, waits for it and passes on what it
// threw. With a stack of 1 MiB, a walk that recursed once per level of a 10,000-deep input would
// need under 100 bytes a frame to survive; a walk bounded to 100 levels has 10 KiB a level.
inline void onSmallStack(const std::function<void()>& work, size_t stackBytes = size_t{1} << 20) {
  struct Job {
    const std::function<void()>* work;
    std::exception_ptr error;
  } job{&work, nullptr};
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, stackBytes);
  pthread_t thread;
  const int created = pthread_create(
      &thread, &attributes,
      [](void* argument) -> void* {
        auto* j = static_cast<Job*>(argument);
        try {
          (*j->work)();
        } catch (...) {
          j->error = std::current_exception();
        }
        return nullptr;
      },
      &job);
  pthread_attr_destroy(&attributes);
  if (created != 0) throw std::runtime_error("pthread_create failed");
  pthread_join(thread, nullptr);
  if (job.error) std::rethrow_exception(job.error);
}

// Seconds taken by `work`.
template <typename Work>
double secondsFor(Work&& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace ostrel::testing_support
