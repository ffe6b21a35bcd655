#pragma once

#include <exception>
#include <ostream>
#include <string>
#include <typeinfo>
#include <utility>

#include "ostrel/core/errors.hpp"
#include "ostrel/core/values.hpp"

namespace ostrel {

inline std::ostream& operator<<(std::ostream& os, const Error& error) {
  return os << typeid(error).name() << "(" << error.what() << ")";
}

namespace testing_support {

// What a call threw, kept so that it can be compared with an expected error of any type.
struct CaughtError {
  std::exception_ptr error;
  std::string description;
};

template <typename F>
CaughtError catchError(F&& call) {
  try {
    std::forward<F>(call)();
  } catch (const Error& e) {
    return {std::current_exception(), std::string(typeid(e).name()) + "(" + e.what() + ")"};
  } catch (const std::exception& e) {
    return {std::current_exception(), std::string("std::exception(") + e.what() + ")"};
  }
  return {nullptr, "nothing thrown"};
}

// Equal when the call threw an error of E's type that equals `expected` by case and text.
template <typename E>
bool operator==(const CaughtError& caught, const E& expected) {
  if (!caught.error) return false;
  try {
    std::rethrow_exception(caught.error);
  } catch (const E& e) {
    return e == expected;
  } catch (...) {
    return false;
  }
}

inline void PrintTo(const CaughtError& caught, std::ostream* os) { *os << caught.description; }

// Bytes from a list of byte values, for hand-encoded messages.
inline Bytes bytesOf(std::initializer_list<int> values) {
  Bytes out;
  out.reserve(values.size());
  for (int v : values) out.push_back(static_cast<std::byte>(v));
  return out;
}

}  // namespace testing_support
}  // namespace ostrel
