#pragma once

// What the reliability tests share: the compiled test schemas, a thread with a small stack for
// proving that a walk does not recurse once per level of its input, and hand-made wire bytes.

#include <pthread.h>

#include <chrono>
#include <exception>
#include <fstream>
#include <functional>
#include <iterator>
#include <stdexcept>
#include <string>

#include "ostrel/core/bytes.hpp"

namespace ostrel::testing_support {

inline std::string readGenerated(const std::string& name) {
  std::ifstream in(std::string(OSTREL_TEST_GENERATED) + "/" + name, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + name);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
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

// Seconds taken by `work`.
template <typename Work>
double secondsFor(Work&& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Hand-made wire bytes, appended field by field.
class WireBytes {
 public:
  enum Type : int { varInt = 0, fixed64 = 1, lengthDelimited = 2, startGroup = 3, endGroup = 4 };

  WireBytes& varint(uint64_t value) {
    while (value >= 0x80) {
      text_.push_back(static_cast<char>(value | 0x80));
      value >>= 7;
    }
    text_.push_back(static_cast<char>(value));
    return *this;
  }
  WireBytes& tag(int64_t number, Type type) {
    return varint(static_cast<uint64_t>(number) << 3 | static_cast<uint64_t>(type));
  }
  WireBytes& varintField(int64_t number, uint64_t value) {
    return tag(number, varInt).varint(value);
  }
  WireBytes& bytesField(int64_t number, std::string_view payload) {
    tag(number, lengthDelimited).varint(payload.size());
    text_ += payload;
    return *this;
  }
  WireBytes& raw(std::string_view bytes) {
    text_ += bytes;
    return *this;
  }

  const std::string& text() const { return text_; }

 private:
  std::string text_;
};

}  // namespace ostrel::testing_support
