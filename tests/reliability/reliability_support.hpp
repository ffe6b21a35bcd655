#pragma once

// What the reliability tests share: a message with a field or two at every level, and a thread
// with a small stack for proving that a walk does not recurse once per level of its input.

#include <pthread.h>

#include <exception>
#include <functional>
#include <stdexcept>
#include <string>

#include "ostrel/core/values.hpp"
#include "rich.pb.h"
#include "support/test_support.hpp"
#include "support/wire.hpp"

namespace ostrel::testing_support {

// A Rich with a field or two at every level: nested and repeated messages, packed numbers, maps
// of scalars and of messages, enums.
inline std::string richMessage() {
  test::Rich rich;
  rich.mutable_mid()->mutable_leaf()->set_id(1);
  rich.mutable_mid()->add_leaves()->set_label("a");
  rich.mutable_scalars()->set_f_enum(test::BLUE);
  rich.mutable_repeats()->add_r_sint64(-3);
  test::Mid& mid = *rich.add_mids();
  mid.set_note("m");
  mid.add_leaves()->add_codes(9);
  rich.set_number(12);
  (*rich.mutable_counts())["k"] = 5;
  (*rich.mutable_leaves_by_id())[2].set_id(2);
  rich.set_color(test::GREEN);
  return rich.SerializeAsString();
}

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

}  // namespace ostrel::testing_support
