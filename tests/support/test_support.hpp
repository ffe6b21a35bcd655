#pragma once

#include <exception>
#include <fstream>
#include <iterator>
#include <ostream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <typeinfo>
#include <utility>

#include "ostrel/core/errors.hpp"
#include "ostrel/core/values.hpp"
#include "ostrel/manifest/manifest_data.hpp"

namespace ostrel {

inline std::ostream& operator<<(std::ostream& os, const Error& error) {
  return os << typeid(error).name() << "(" << error.what() << ")";
}

namespace testing_support {

// A file protoc wrote for the test protos, for example "rich.desc" or "import/catalog.desc".
inline Bytes readGenerated(const std::string& name) {
  std::ifstream in(std::string(OSTREL_TEST_GENERATED) + "/" + name, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + name);
  return toBytes(std::string(std::istreambuf_iterator<char>(in), {}));
}

// `unit` written `count` times over.
inline std::string repeated(std::string_view unit, int count) {
  std::string out;
  for (int i = 0; i < count; ++i) out += unit;
  return out;
}

// The schemas of a descriptor set protoc wrote for the test protos.
inline SchemaManifest generatedManifest(const std::string& name) {
  return schemaManifestFromDescriptorSet(readGenerated(name));
}

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
