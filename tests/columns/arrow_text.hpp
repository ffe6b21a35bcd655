#pragma once

// Arrow's C structures read back with nothing but their documented layout, as any consumer reads
// them: one cell as comparable text. Nulls are "null", integers decimal, floating point by its
// bits ("f:" and "d:"), booleans true and false, strings and binary in quotes, lists in brackets,
// structs and map entries in braces, dictionary-encoded cells as their dictionary value.

#include <bit>
#include <cstdint>
#include <cstring>
#include <string>

#include "ostrel/columns/arrow_c.hpp"

namespace ostrel::testing_support {

template <typename T>
T arrowValue(const ArrowArray& array, int buffer, int64_t index) {
  T value;
  std::memcpy(&value, static_cast<const uint8_t*>(array.buffers[buffer]) + index * sizeof(T),
              sizeof(T));
  return value;
}

inline bool arrowBit(const void* bits, int64_t index) {
  return (static_cast<const uint8_t*>(bits)[index >> 3] >> (index & 7)) & 1;
}

inline std::string arrowCell(const ArrowSchema& schema, const ArrowArray& array, int64_t row) {
  const int64_t i = row + array.offset;
  if (array.null_count != 0 && array.buffers[0] != nullptr && !arrowBit(array.buffers[0], i)) {
    return "null";
  }
  if (schema.dictionary != nullptr) {
    return arrowCell(*schema.dictionary, *array.dictionary, arrowValue<int32_t>(array, 1, i));
  }
  const std::string format = schema.format;
  if (format == "i") return std::to_string(arrowValue<int32_t>(array, 1, i));
  if (format == "I") return std::to_string(arrowValue<uint32_t>(array, 1, i));
  if (format == "l" || format.starts_with("ts") || format.starts_with("tD")) {
    return std::to_string(arrowValue<int64_t>(array, 1, i));
  }
  if (format == "L") return std::to_string(arrowValue<uint64_t>(array, 1, i));
  if (format == "f") {
    return "f:" + std::to_string(std::bit_cast<uint32_t>(arrowValue<float>(array, 1, i)));
  }
  if (format == "g") {
    return "d:" + std::to_string(std::bit_cast<uint64_t>(arrowValue<double>(array, 1, i)));
  }
  if (format == "b") return arrowBit(array.buffers[1], i) ? "true" : "false";
  const auto* data = static_cast<const char*>(array.n_buffers > 2 ? array.buffers[2] : nullptr);
  if (format == "u" || format == "z") {
    const int32_t start = arrowValue<int32_t>(array, 1, i);
    const int32_t end = arrowValue<int32_t>(array, 1, i + 1);
    return "\"" + std::string(data + start, static_cast<size_t>(end - start)) + "\"";
  }
  if (format == "U" || format == "Z") {
    const int64_t start = arrowValue<int64_t>(array, 1, i);
    const int64_t end = arrowValue<int64_t>(array, 1, i + 1);
    return "\"" + std::string(data + start, static_cast<size_t>(end - start)) + "\"";
  }
  if (format == "+l" || format == "+L" || format == "+m") {
    const bool large = format == "+L";
    const int64_t start =
        large ? arrowValue<int64_t>(array, 1, i) : arrowValue<int32_t>(array, 1, i);
    const int64_t end =
        large ? arrowValue<int64_t>(array, 1, i + 1) : arrowValue<int32_t>(array, 1, i + 1);
    std::string text = "[";
    for (int64_t e = start; e < end; ++e) {
      if (e > start) text += ",";
      text += arrowCell(*schema.children[0], *array.children[0], e);
    }
    return text + "]";
  }
  if (format == "+s") {
    std::string text = "{";
    for (int64_t c = 0; c < schema.n_children; ++c) {
      if (c > 0) text += ",";
      text += std::string(schema.children[c]->name) + "=" +
              arrowCell(*schema.children[c], *array.children[c], i);
    }
    return text + "}";
  }
  return "unknown format " + format;
}

}  // namespace ostrel::testing_support
