#pragma once

// A protobuf writer that appends to one growing buffer and writes nested messages in place, for
// encoders that produce a message while they read its source front to back.

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>

#include "ostrel/core/field_types.hpp"
#include "ostrel/core/values.hpp"
#include "ostrel/output/protobuf_writing.hpp"

namespace ostrel::detail {

// The key of a field: its number and wire type as one varint.
inline uint64_t fieldKey(int64_t fieldNumber, ProtoWireType type) noexcept {
  return static_cast<uint64_t>(fieldNumber) << 3 | static_cast<uint64_t>(type);
}

class WireBuffer final : public ProtobufWriting {
 public:
  // Room for `expectedSize` bytes up front; the buffer grows past it as needed.
  explicit WireBuffer(size_t expectedSize = 0) { reserve(std::max<size_t>(expectedSize, 64)); }

  // The bytes written so far, exactly.
  Bytes data() override { return toBytes(view()); }
  ByteView view() const noexcept { return {buffer_.get(), size_}; }
  size_t size() const noexcept { return size_; }
  // Drops what was written after the first `size` bytes.
  void truncate(size_t size) noexcept { size_ = std::min(size, size_); }

  void varint(uint64_t value) {
    std::byte* p = reserve(10);
    while (value >= 0x80) {
      *p++ = static_cast<std::byte>(value | 0x80);
      value >>= 7;
    }
    *p++ = static_cast<std::byte>(value);
    size_ = static_cast<size_t>(p - buffer_.get());
  }

  void fixed32(uint32_t value) { littleEndian(value); }
  void fixed64(uint64_t value) { littleEndian(value); }

  void raw(const void* bytes, size_t size) {
    if (size == 0) return;
    std::memcpy(reserve(size), bytes, size);
    size_ += size;
  }

  // Room for `size` bytes at the end, which the caller writes at the pointer returned.
  std::byte* extend(size_t size) {
    std::byte* const p = reserve(size);
    size_ += size;
    return p;
  }

  void lengthDelimited(uint64_t key, std::string_view bytes) {
    varint(key);
    varint(bytes.size());
    raw(bytes.data(), bytes.size());
  }

  // Starts a length-delimited field whose content the caller writes next; pass the result to
  // endNested once it is written. The length is not known yet: one byte is set aside for it, and
  // endNested moves the content up when the length takes more.
  size_t beginNested(uint64_t key) {
    varint(key);
    *reserve(1) = std::byte{0};
    return size_++;
  }

  void endNested(size_t mark) {
    const size_t length = size_ - mark - 1;
    if (length < 0x80) {
      buffer_.get()[mark] = static_cast<std::byte>(length);
      return;
    }
    const auto lengthBytes = static_cast<size_t>((std::bit_width(length) + 6) / 7);
    reserve(lengthBytes - 1);
    std::byte* const start = buffer_.get() + mark;
    std::memmove(start + lengthBytes, start + 1, length);
    size_t rest = length;
    for (size_t i = 0; i + 1 < lengthBytes; ++i, rest >>= 7) {
      start[i] = static_cast<std::byte>(rest | 0x80);
    }
    start[lengthBytes - 1] = static_cast<std::byte>(rest);
    size_ += lengthBytes - 1;
  }

  // ProtobufWriting, for values written through writeFieldValue.
  void writeInt32(int32_t value, int64_t fieldNumber) override {
    varint(fieldKey(fieldNumber, ProtoWireType::varInt));
    varint(static_cast<uint64_t>(static_cast<int64_t>(value)));
  }
  void writeUint32(uint32_t value, int64_t fieldNumber) override {
    varint(fieldKey(fieldNumber, ProtoWireType::varInt));
    varint(value);
  }
  void writeSint32(int32_t value, int64_t fieldNumber) override {
    varint(fieldKey(fieldNumber, ProtoWireType::varInt));
    varint(zigZag32(value));
  }
  void writeFixed32(uint32_t value, int64_t fieldNumber) override {
    varint(fieldKey(fieldNumber, ProtoWireType::fixed32));
    fixed32(value);
  }
  void writeSfixed32(int32_t value, int64_t fieldNumber) override {
    writeFixed32(static_cast<uint32_t>(value), fieldNumber);
  }
  void writeInt64(int64_t value, int64_t fieldNumber) override {
    writeUint64(static_cast<uint64_t>(value), fieldNumber);
  }
  void writeUint64(uint64_t value, int64_t fieldNumber) override {
    varint(fieldKey(fieldNumber, ProtoWireType::varInt));
    varint(value);
  }
  void writeSint64(int64_t value, int64_t fieldNumber) override {
    writeUint64(zigZag64(value), fieldNumber);
  }
  void writeFixed64(uint64_t value, int64_t fieldNumber) override {
    varint(fieldKey(fieldNumber, ProtoWireType::fixed64));
    fixed64(value);
  }
  void writeSfixed64(int64_t value, int64_t fieldNumber) override {
    writeFixed64(static_cast<uint64_t>(value), fieldNumber);
  }
  void writeFloat(float value, int64_t fieldNumber) override {
    writeFixed32(std::bit_cast<uint32_t>(value), fieldNumber);
  }
  void writeDouble(double value, int64_t fieldNumber) override {
    writeFixed64(std::bit_cast<uint64_t>(value), fieldNumber);
  }
  void writeBOOL(bool value, int64_t fieldNumber) override {
    writeUint64(value ? 1 : 0, fieldNumber);
  }
  void writeString(std::string_view value, int64_t fieldNumber) override {
    lengthDelimited(fieldKey(fieldNumber, ProtoWireType::lengthDelimited), value);
  }
  void writeData(ByteView value, int64_t fieldNumber) override {
    writeString(asText(value), fieldNumber);
  }
  void writeGroup(ByteView value, int64_t fieldNumber) override {
    varint(fieldKey(fieldNumber, ProtoWireType::startGroup));
    raw(value.data(), value.size());
    varint(fieldKey(fieldNumber, ProtoWireType::endGroup));
  }

  static uint32_t zigZag32(int32_t value) noexcept {
    return (static_cast<uint32_t>(value) << 1) ^ static_cast<uint32_t>(value >> 31);
  }
  static uint64_t zigZag64(int64_t value) noexcept {
    return (static_cast<uint64_t>(value) << 1) ^ static_cast<uint64_t>(value >> 63);
  }

 private:
  template <typename Unsigned>
  void littleEndian(Unsigned value) {
    std::byte* const p = reserve(sizeof value);
    for (size_t i = 0; i < sizeof value; ++i) {
      p[i] = static_cast<std::byte>(value >> (8 * i));
    }
    size_ += sizeof value;
  }

  // Where `more` bytes can be written next. Not zero-filled: every byte is written before it is
  // read.
  std::byte* reserve(size_t more) {
    if (capacity_ - size_ < more) [[unlikely]]
      grow(more);
    return buffer_.get() + size_;
  }

  // By realloc, which moves a large buffer by remapping its pages rather than copying them.
  void grow(size_t more) {
    const size_t capacity = std::max(capacity_ * 2, size_ + more);
    void* const grown = std::realloc(buffer_.get(), capacity);
    if (!grown) throw std::bad_alloc();
    (void)buffer_.release();
    buffer_.reset(static_cast<std::byte*>(grown));
    capacity_ = capacity;
  }

  struct Free {
    void operator()(std::byte* bytes) const noexcept { std::free(bytes); }
  };
  std::unique_ptr<std::byte, Free> buffer_;
  size_t size_ = 0;
  size_t capacity_ = 0;
};

}  // namespace ostrel::detail
