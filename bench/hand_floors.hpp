#pragma once

// Hand-written readers that know nothing but the wire format: the least work any reader must do to
// find a value. Each is as small as a careful programmer would write it for one job, and just as
// safe: every byte access is bounds-checked and a fault ends the read. The library is measured
// against these floors.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <ostream>
#include <span>
#include <string_view>

namespace ostrel::bench::floors {

struct Cursor {
  const uint8_t* p;
  const uint8_t* end;

  explicit Cursor(std::string_view bytes)
      : p(reinterpret_cast<const uint8_t*>(bytes.data())), end(p + bytes.size()) {}
};

// One base-128 varint; false when it runs off the end or is longer than ten bytes.
inline bool readVarint(Cursor& c, uint64_t& out) {
  if (c.p < c.end && *c.p < 0x80) [[likely]] {
    out = *c.p++;
    return true;
  }
  uint64_t result = 0;
  const uint8_t* p = c.p;
  for (int i = 0; i < 10 && p < c.end; ++i) {
    const uint8_t byte = *p++;
    result |= static_cast<uint64_t>(byte & 0x7f) << (7 * i);
    if (byte < 0x80) {
      c.p = p;
      out = result;
      return true;
    }
  }
  return false;
}

// Steps over the value of a field whose tag was just read. Groups do not occur in the workload.
inline bool skipValue(Cursor& c, uint64_t tag) {
  switch (tag & 7) {
    case 0: {
      uint64_t ignored;
      return readVarint(c, ignored);
    }
    case 1:
      if (c.end - c.p < 8) return false;
      c.p += 8;
      return true;
    case 2: {
      uint64_t length;
      if (!readVarint(c, length) || length > static_cast<uint64_t>(c.end - c.p)) return false;
      c.p += length;
      return true;
    }
    case 5:
      if (c.end - c.p < 4) return false;
      c.p += 4;
      return true;
    default:
      return false;
  }
}

// Walks every top-level field and steps over it; the number of fields, or -1 at a fault.
inline int64_t skipAllFields(std::string_view bytes) {
  Cursor c(bytes);
  int64_t count = 0;
  while (c.p < c.end) {
    uint64_t tag;
    if (!readVarint(c, tag) || !skipValue(c, tag)) return -1;
    ++count;
  }
  return count;
}

// The varint value at a path of field numbers through nested messages, the first occurrence
// winning at each level.
inline std::optional<uint64_t> readVarintAtPath(std::string_view bytes,
                                                std::span<const uint32_t> numbers) {
  Cursor c(bytes);
  for (size_t level = 0; level < numbers.size(); ++level) {
    uint64_t tag;
    for (;;) {
      if (c.p >= c.end) return std::nullopt;
      if (!readVarint(c, tag)) return std::nullopt;
      if ((tag >> 3) == numbers[level]) break;
      if (!skipValue(c, tag)) return std::nullopt;
    }
    if (level + 1 == numbers.size()) {
      uint64_t value;
      if ((tag & 7) != 0 || !readVarint(c, value)) return std::nullopt;
      return value;
    }
    uint64_t length;
    if ((tag & 7) != 2 || !readVarint(c, length) || length > static_cast<uint64_t>(c.end - c.p)) {
      return std::nullopt;
    }
    c.end = c.p + length;
  }
  return std::nullopt;
}

// The payload of the first occurrence of a length-delimited field `number`, or empty.
inline std::string_view findPayload(std::string_view bytes, uint32_t number) {
  Cursor c(bytes);
  while (c.p < c.end) {
    uint64_t tag;
    if (!readVarint(c, tag)) return {};
    if ((tag >> 3) == number && (tag & 7) == 2) {
      uint64_t length;
      if (!readVarint(c, length) || length > static_cast<uint64_t>(c.end - c.p)) return {};
      return {reinterpret_cast<const char*>(c.p), static_cast<size_t>(length)};
    }
    if (!skipValue(c, tag)) return {};
  }
  return {};
}

// Decodes every varint of a packed int32 run; the sum of the elements (wrapping) and their count.
struct RunSum {
  int64_t sum = 0;
  int64_t count = 0;
  friend bool operator==(const RunSum&, const RunSum&) = default;
  friend std::ostream& operator<<(std::ostream& out, const RunSum& run) {
    return out << "{sum " << run.sum << ", count " << run.count << "}";
  }
};
inline RunSum decodeAllInt32(std::string_view run) {
  Cursor c(run);
  RunSum result;
  while (c.p < c.end) {
    uint64_t value;
    if (!readVarint(c, value)) return {-1, -1};
    result.sum += static_cast<int32_t>(value);
    ++result.count;
  }
  return result;
}

// Decodes k varints of a packed int32 run and then element k.
inline std::optional<int32_t> int32AtIndex(std::string_view run, int64_t k) {
  Cursor c(run);
  uint64_t value;
  for (int64_t i = 0; i < k; ++i) {
    if (!readVarint(c, value)) return std::nullopt;
  }
  if (c.p >= c.end || !readVarint(c, value)) return std::nullopt;
  return static_cast<int32_t>(value);
}

}  // namespace ostrel::bench::floors
