#pragma once

// The wire reader: a cursor over a borrowed range of protobuf bytes. It decodes varints, tags,
// fixed-width words and length-delimited slices, and skips whole fields (groups included). It never
// copies the bytes it walks, never allocates (but for deeply nested groups being skipped), and
// never reads outside its buffer: every structural fault is a thrown SerializationError.

#include <bit>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>

#include "ostrel/core/bytes.hpp"
#include "ostrel/core/errors.hpp"
#include "ostrel/core/fatal.hpp"
#include "ostrel/core/wire_type.hpp"

namespace ostrel {

// Fixed-width values are loaded with one unaligned copy, which is their wire order only on
// little-endian hosts.
static_assert(std::endian::native == std::endian::little, "ostrel needs a little-endian host");

// A field key exactly as encoded: field number shifted left by 3, or-ed with the wire type.
class FieldTag {
 public:
  // Throws SerializationError::malformedProtobuf for field number 0 or wire type 6 or 7.
  explicit FieldTag(uint32_t rawValue) : rawValue_(rawValue) {
    if (rawValue < 8 || (rawValue & 7) > 5) [[unlikely]] {
      throw SerializationError::malformedProtobuf();
    }
  }

  uint32_t rawValue() const noexcept { return rawValue_; }
  int64_t fieldNumber() const noexcept { return rawValue_ >> 3; }
  ProtoWireType wireType() const noexcept { return static_cast<ProtoWireType>(rawValue_ & 7); }

  // "FieldTag(rawValue: 8)".
  std::string describe() const;

  friend bool operator==(FieldTag a, FieldTag b) noexcept { return a.rawValue_ == b.rawValue_; }

 private:
  uint32_t rawValue_;
};

// A cursor over a borrowed buffer. A copy is an independent cursor over the same bytes. The buffer
// must stay alive and unchanged while any reader over it exists.
//
// Two bounds are kept apart: every byte access is tested against the whole buffer (size()), while
// endPosition() only ends the loops that look for fields in the message being read. A field whose
// encoding runs past endPosition() but stays inside the buffer is read without complaint.
class Reader {
 public:
  Reader() noexcept = default;
  // A reader over the whole buffer: position 0, end position at the buffer's length.
  explicit Reader(ByteView bytes) noexcept
      : data_(bytes.data()),
        size_(static_cast<int64_t>(bytes.size())),
        endPosition_(static_cast<int64_t>(bytes.size())) {}

  // A reader over the same bytes for the message in [position, endPosition).
  Reader narrowed(int64_t position, int64_t endPosition) const noexcept {
    Reader nested = *this;
    nested.position_ = position;
    nested.endPosition_ = endPosition;
    nested.lastComponentCompactedArrayEndPosition_.reset();
    return nested;
  }

  ByteView bytes() const noexcept { return {data_, static_cast<size_t>(size_)}; }
  int64_t size() const noexcept { return size_; }
  int64_t position() const noexcept { return position_; }
  void setPosition(int64_t position) noexcept { position_ = position; }
  int64_t endPosition() const noexcept { return endPosition_; }
  void setEndPosition(int64_t endPosition) noexcept { endPosition_ = endPosition; }
  // Whether the field-search loops should go on: position() is before endPosition().
  bool hasMoreFields() const noexcept { return position_ < endPosition_; }

  // Set by field path navigation when the last path component lands in a packed run: the index
  // one past the run's payload.
  std::optional<int64_t> lastComponentCompactedArrayEndPosition() const noexcept {
    return lastComponentCompactedArrayEndPosition_;
  }
  void setLastComponentCompactedArrayEndPosition(std::optional<int64_t> end) noexcept {
    lastComponentCompactedArrayEndPosition_ = end;
  }

  // Reads one base-128 varint and advances past it. At most ten bytes are read; of the tenth only
  // bit 0 lands in the result. Throws malformedProtobuf if the varint starts at or runs off the
  // end of the buffer or is longer than ten bytes; position() is then unchanged.
  uint64_t readVarint() {
    if (position_ < size_) [[likely]] {
      const uint8_t first = byteAt(position_);
      if (first < 0x80) {
        ++position_;
        return first;
      }
    }
    return readVarintSlow();
  }

  // Reads a varint and validates it as a field tag. Throws malformedProtobuf for a value above
  // 0xFFFFFFFE, field number 0 or wire type 6 or 7, with position() past the tag.
  FieldTag readTag() {
    const uint64_t raw = readVarint();
    if (raw > 0xFFFFFFFEu) [[unlikely]] {
      throw SerializationError::malformedProtobuf();
    }
    return FieldTag(static_cast<uint32_t>(raw));
  }

  // Reads 4 or 8 bytes little-endian. Throws truncated when fewer bytes are left in the buffer (or
  // position() is already past its end); position() is then unchanged.
  uint32_t readFixed32() {
    uint32_t value;
    loadFixed(&value, sizeof value);
    return value;
  }
  uint64_t readFixed64() {
    uint64_t value;
    loadFixed(&value, sizeof value);
    return value;
  }

  // Reads a length prefix: a varint whose low 32 bits are taken as a signed number (higher bits
  // are ignored). Throws malformedProtobuf for a negative length, with position() past the varint.
  int64_t readLength() {
    const auto length = static_cast<int32_t>(static_cast<uint32_t>(readVarint()));
    if (length < 0) [[unlikely]] {
      throw SerializationError::malformedProtobuf();
    }
    return length;
  }

  // Reads a length prefix and returns the payload that follows, borrowed from the buffer, and
  // advances past it. Throws as readLength(), or truncated (position() just past the prefix) when
  // the payload runs past the end of the buffer.
  ByteView readLengthDelimited() {
    const int64_t length = readLength();
    if (size_ - position_ < length) [[unlikely]] {
      throw SerializationError::truncated();
    }
    const ByteView payload(data_ + position_, static_cast<size_t>(length));
    position_ += length;
    return payload;
  }

  // Steps over the value that follows `tag`. Fixed-width and length-delimited values are skipped
  // without checking that their bytes exist: a skip may leave position() beyond the buffer, where
  // the next read or loop test stops the caller. Throws malformedProtobuf for an end-group tag and
  // for the faults of varints, lengths and groups.
  void skipField(FieldTag tag) {
    switch (tag.wireType()) {
      case ProtoWireType::varInt:
        readVarint();
        return;
      case ProtoWireType::fixed64:
        advance(8);
        return;
      case ProtoWireType::lengthDelimited:
        advance(readLength());
        return;
      case ProtoWireType::startGroup:
        skipGroup(tag.fieldNumber());
        return;
      case ProtoWireType::endGroup:
        throw SerializationError::malformedProtobuf();
      case ProtoWireType::fixed32:
        advance(4);
        return;
    }
  }

  // Steps over everything up to and including the end-group tag matching the start-group tag of
  // `fieldNumber` already read. Iterative: groups may nest to any depth without using the stack.
  // Throws malformedProtobuf for a mismatched or missing end-group tag.
  void skipGroup(int64_t fieldNumber);

 private:
  uint8_t byteAt(int64_t index) const noexcept { return static_cast<uint8_t>(data_[index]); }
  uint64_t readVarintSlow();
  // Moves position() forward without a bounds check; only an overflow of the position stops the
  // process, which no buffer that fits in memory can cause.
  void advance(int64_t count) {
    if (__builtin_add_overflow(position_, count, &position_)) [[unlikely]] {
      detail::fatal("Reader position overflow");
    }
  }

  void loadFixed(void* out, int64_t width) {
    if (position_ > size_ || size_ - position_ < width) [[unlikely]] {
      throw SerializationError::truncated();
    }
    std::memcpy(out, data_ + position_, static_cast<size_t>(width));
    position_ += width;
  }

  const std::byte* data_ = nullptr;
  int64_t size_ = 0;
  int64_t endPosition_ = 0;
  int64_t position_ = 0;
  std::optional<int64_t> lastComponentCompactedArrayEndPosition_;
};

}  // namespace ostrel
