// Arbitrary property paths and bytes through a projection: the text before the first NUL byte is
// a list of paths, one a line, and the bytes after it an ostrel.test.Rich record.
//
// Invariants: a projection refuses a set of paths only when one of them does not resolve alone,
// and each path's answer in the row is exactly what the single read of that path gives, the same
// value, the same absence or the same error text, also when the row is read a second time.

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz_support.hpp"

namespace {

using namespace ostrel;
using fuzz::finding;
using fuzz::tolerate;

// What one read gave: a value, no value, or an error's text.
struct Outcome {
  std::optional<AnyValue> value;
  std::optional<std::string> error;

  // A NaN read both ways is the same answer, though it compares unequal to itself.
  friend bool operator==(const Outcome& a, const Outcome& b) {
    if (a.error != b.error || a.value.has_value() != b.value.has_value()) return false;
    return !a.value || *a.value == *b.value || (isNaN(*a.value) && isNaN(*b.value));
  }

  static bool isNaN(const AnyValue& value) {
    return (value.kind() == AnyValue::Case::double_ && std::isnan(value.doubleValue())) ||
           (value.kind() == AnyValue::Case::float_ && std::isnan(value.floatValue()));
  }

  std::string text() const {
    if (error) return "error " + *error;
    return value ? "value " + value->describe() : "absent";
  }
};

template <typename Read>
Outcome outcome(const Read& read) {
  try {
    return {read(), std::nullopt};
  } catch (const Error& error) {
    return {std::nullopt, error.what()};
  }
}

std::vector<std::string> pathsOf(std::string_view text) {
  constexpr size_t kMaxPaths = 16;
  std::vector<std::string> paths;
  while (!text.empty() && paths.size() < kMaxPaths) {
    const size_t end = text.find('\n');
    if (end != 0) paths.emplace_back(text.substr(0, end));
    if (end == std::string_view::npos) break;
    text.remove_prefix(end + 1);
  }
  return paths;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const MessageSchema rich = fuzz::richSchema();
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const size_t split = input.find('\0');
  if (split == std::string_view::npos) return 0;
  const std::vector<std::string> paths = pathsOf(input.substr(0, split));
  const SchematizedData record = rich.schematizedData(toBytes(input.substr(split + 1)));

  std::optional<Projection> projection;
  if (!tolerate([&] { projection.emplace(rich, std::span<const std::string>(paths)); })) {
    for (const std::string& path : paths) {
      if (!tolerate([&] { resolvePropertyPath(rich, path); })) return 0;
    }
    finding("a projection refuses paths that each resolve");
  }
  ProjectionRow row = projection->makeRow();
  for (int pass = 0; pass < 2; ++pass) {
    projection->read(record.bytes(), row);
    for (size_t i = 0; i < paths.size(); ++i) {
      const Outcome single = outcome([&] { return record.value(projection->path(i)); });
      const Outcome projected = outcome([&] {
        if (const std::exception_ptr error = row.error(i)) std::rethrow_exception(error);
        return row.value(i);
      });
      if (single != projected) {
        finding("path " + paths[i] + ": the single read gives " + single.text() +
                ", the projection " + projected.text());
      }
    }
  }
  return 0;
}
