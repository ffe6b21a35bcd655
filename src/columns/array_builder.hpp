#pragma once

// The growing buffers of one Arrow array and their hand-over into an ArrowArray. A builder appends
// rows, can be cut back to an earlier row count (a record that failed halfway leaves nothing
// behind), and moves its buffers into an exported array that owns them from then on.

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "ostrel/columns/arrow_c.hpp"

namespace ostrel::detail {

// A growable run of bytes from malloc, handed over whole to an exported array.
class Buffer {
 public:
  Buffer() = default;
  Buffer(const Buffer&) = delete;
  Buffer& operator=(const Buffer&) = delete;
  Buffer(Buffer&& other) noexcept
      : data_(other.data_), size_(other.size_), capacity_(other.capacity_) {
    other.data_ = nullptr;
    other.size_ = other.capacity_ = 0;
  }
  Buffer& operator=(Buffer&& other) noexcept {
    if (this != &other) {
      std::free(data_);
      data_ = other.data_;
      size_ = other.size_;
      capacity_ = other.capacity_;
      other.data_ = nullptr;
      other.size_ = other.capacity_ = 0;
    }
    return *this;
  }
  ~Buffer() { std::free(data_); }

  uint8_t* data() noexcept { return data_; }
  const uint8_t* data() const noexcept { return data_; }
  size_t size() const noexcept { return size_; }

  void reserveFor(size_t more) {
    if (size_ + more > capacity_) grow(size_ + more);
  }
  template <typename T>
  void push(T value) {
    reserveFor(sizeof(T));
    std::memcpy(data_ + size_, &value, sizeof(T));
    size_ += sizeof(T);
  }
  void append(const void* bytes, size_t count) {
    if (count == 0) return;
    reserveFor(count);
    std::memcpy(data_ + size_, bytes, count);
    size_ += count;
  }
  void appendZeros(size_t count) {
    reserveFor(count);
    std::memset(data_ + size_, 0, count);
    size_ += count;
  }
  template <typename T>
  T at(size_t index) const noexcept {
    T value;
    std::memcpy(&value, data_ + index * sizeof(T), sizeof(T));
    return value;
  }
  void truncate(size_t size) noexcept {
    if (size < size_) size_ = size;
  }

 private:
  void grow(size_t needed) {
    size_t capacity = capacity_ < 64 ? 64 : capacity_ * 2;
    while (capacity < needed) capacity *= 2;
    void* grown = std::realloc(data_, capacity);
    if (grown == nullptr) throw std::bad_alloc();
    data_ = static_cast<uint8_t*>(grown);
    capacity_ = capacity;
  }

  uint8_t* data_ = nullptr;
  size_t size_ = 0;
  size_t capacity_ = 0;
};

// The names of an enum's values in the dictionary of its columns, indexed by the dictionary
// position; numbers the enum does not name are added per batch after them.
struct EnumDictionary {
  std::vector<int64_t> numbers;  // ascending
  std::vector<std::string> names;

  // The dictionary position of `number`, or -1.
  int32_t find(int64_t number) const noexcept;
};

// How an array's rows are laid out in its buffers.
enum class Layout : uint8_t {
  fixed,       // validity, values of `width` bytes
  bits,        // validity, bit-packed booleans
  binary,      // validity, offsets, data
  list,        // validity, offsets, one child (map columns too)
  structure,   // validity, children
  dictionary,  // validity, int32 indices; the dictionary built at export
};

struct ArrayBuilder {
  Layout layout = Layout::fixed;
  uint8_t width = 0;
  // 64-bit offsets (binary and list).
  bool large = false;
  int64_t length = 0;
  int64_t nulls = 0;
  Buffer validity;
  Buffer values;  // values, bits, indices, or offsets
  Buffer data;    // binary: the bytes
  std::vector<ArrayBuilder> children;
  std::shared_ptr<const EnumDictionary> dictionary;
  std::vector<int64_t> unnamed;  // dictionary: numbers met that the enum does not name

  ArrayBuilder() = default;
  ArrayBuilder(Layout layout, uint8_t width, bool large = false);

  void setValidity(bool valid) {
    const size_t byte = static_cast<size_t>(length >> 3);
    if (byte >= validity.size()) validity.push<uint8_t>(0);
    const auto bit = static_cast<uint8_t>(1u << (length & 7));
    if (valid) {
      validity.data()[byte] |= bit;
    } else {
      validity.data()[byte] &= static_cast<uint8_t>(~bit);
      ++nulls;
    }
    ++length;
  }

  template <typename T>
  void appendValue(T value) {
    values.push(value);
    setValidity(true);
  }
  void appendBool(bool value) {
    setBit(values, length, value);
    setValidity(true);
  }
  void appendBytes(const void* bytes, size_t count) {
    data.append(bytes, count);
    pushOffset(data.size());
    setValidity(true);
  }
  // A list's elements were appended to children[0]: close the list.
  void closeList() {
    pushOffset(static_cast<size_t>(children[0].length));
    setValidity(true);
  }
  void appendDictionaryIndex(int64_t number);
  void appendNull();

  // The current end of a binary array's data or of a list's children, as written in offsets.
  size_t dataEnd() const noexcept;
  // The largest amount of offset-addressed data among this array and its children.
  size_t largestOffsetData() const noexcept;

  // Drops every row from `rows` on.
  void truncate(int64_t rows);

  // Moves the rows into `out` (owned by out's release callback) and starts empty.
  void exportTo(ArrowArray* out);

 private:
  static void setBit(Buffer& bits, int64_t index, bool value) {
    const size_t byte = static_cast<size_t>(index >> 3);
    if (byte >= bits.size()) bits.push<uint8_t>(0);
    const auto bit = static_cast<uint8_t>(1u << (index & 7));
    if (value) {
      bits.data()[byte] |= bit;
    } else {
      bits.data()[byte] &= static_cast<uint8_t>(~bit);
    }
  }
  void pushOffset(size_t offset) {
    if (large) {
      values.push(static_cast<int64_t>(offset));
    } else {
      values.push(static_cast<int32_t>(offset));
    }
  }
  size_t offsetAt(int64_t row) const noexcept {
    return large ? static_cast<size_t>(values.at<int64_t>(static_cast<size_t>(row)))
                 : static_cast<size_t>(values.at<int32_t>(static_cast<size_t>(row)));
  }
  void reset();
};

// The Arrow type of a column or child, for the exported schema.
struct ArrowField {
  std::string format;
  std::string name;
  int64_t flags = ARROW_FLAG_NULLABLE;
  std::vector<ArrowField> children;
  // Dictionary-encoded: the dictionary's type (utf8).
  std::shared_ptr<ArrowField> dictionary;

  // Copies this description into `out`, owned by out's release callback.
  void exportTo(ArrowSchema* out) const;
};

}  // namespace ostrel::detail
