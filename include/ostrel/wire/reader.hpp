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

#include "ostrel/core/errors.hpp"
#include "ostrel/core/field_types.hpp"
#include "ostrel/core/values.hpp"

namespace ostrel {

namespace detail {
// Stops the process after logging `message`: for violated preconditions of the caller only.
[[noreturn]] void fatal(std::string_view message) noexcept;
}  // namespace detail

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
  [[gnu::always_inline]] uint64_t readVarint() {
    int64_t position = position_;
    const uint64_t value = readVarintAt<VarintUse::structure>(position);
    position_ = position;
    return value;
  }

  // readVarint() for values, above all the elements of packed runs, whose lengths vary from one
  // to the next without a pattern a branch predictor could learn: beyond the one-byte case the
  // length is not branched on. Same results and faults as readVarint().
  [[gnu::always_inline]] uint64_t readVarintValue() {
    int64_t position = position_;
    const uint64_t value = readVarintAt<VarintUse::value>(position);
    position_ = position;
    return value;
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

  // Reads a length prefix: a varint of at most 2^31 - 1, the largest length protobuf's parsers
  // take. Throws malformedProtobuf for a larger one (never cut to its low bits), with position()
  // past the varint.
  int64_t readLength() { return checkedLength(readVarint()); }

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
      case ProtoWireType::varInt: {
        int64_t position = position_;
        skipVarint(position);
        position_ = position;
        return;
      }
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

  // Searches the message being read, from position() up to endPosition(), for the first tag of
  // field `number` and returns its raw value with position() just past it; fields of other numbers
  // are stepped over. 0, never a valid tag, when the field does not occur: position() is then at
  // or past endPosition(). Exactly a loop of readTag() and skipField(): same results, same faults,
  // same position when one is thrown.
  uint32_t findField(int64_t number) {
    int64_t position = position_;
    const uint32_t tag = findField(number, position, endPosition_);
    position_ = position;
    return tag;
  }

  // The same search over [position, end), with the position held by the caller in `position` and
  // advanced as findField(number) advances position(). Here this reader's own position() serves as
  // scratch: it is brought up to date before anything that can throw, so that a fault leaves it
  // where findField(number) would. A caller walking down nested messages keeps its position in a
  // register this way; only groups and the last ten bytes of the buffer leave the loop.
  [[gnu::always_inline]] uint32_t findField(int64_t number, int64_t& position, int64_t end) {
    while (position < end) {
      const uint64_t raw = readVarint(position);
      if (raw > 0xFFFFFFFEu || raw < 8 || (raw & 7) > 5) [[unlikely]] {
        position_ = position;
        throw SerializationError::malformedProtobuf();
      }
      const FieldTag tag(static_cast<uint32_t>(raw));
      if (tag.fieldNumber() == number) return tag.rawValue();
      switch (tag.wireType()) {
        case ProtoWireType::varInt:
          skipVarint(position);
          break;
        case ProtoWireType::fixed64:
          position = advanced(position, 8);
          break;
        case ProtoWireType::lengthDelimited: {
          const int64_t length = readLength(position);
          position = advanced(position, length);
          break;
        }
        case ProtoWireType::startGroup:
          position_ = position;
          skipGroup(tag.fieldNumber());
          position = position_;
          break;
        case ProtoWireType::endGroup:
          position_ = position;
          throw SerializationError::malformedProtobuf();
        case ProtoWireType::fixed32:
          position = advanced(position, 4);
          break;
      }
    }
    return 0;
  }

  // readVarint() and readLength() at a position held by the caller, as findField(number, position,
  // end) holds it.
  [[gnu::always_inline]] uint64_t readVarint(int64_t& position) {
    return readVarintAt<VarintUse::structure>(position);
  }
  [[gnu::always_inline]] int64_t readLength(int64_t& position) {
    const uint64_t length = readVarint(position);
    if (length > kMaxLength) [[unlikely]] {
      position_ = position;
    }
    return checkedLength(length);
  }

  // Steps over everything up to and including the end-group tag matching the start-group tag of
  // `fieldNumber` already read. Iterative: groups may nest to any depth without using the stack.
  // Throws malformedProtobuf for a mismatched or missing end-group tag.
  void skipGroup(int64_t fieldNumber) { groupEnd(fieldNumber); }

  // The fields of the group whose start-group tag of `fieldNumber` was just read (the payload of a
  // delimited message): the bytes up to the matching end-group tag, which is consumed too.
  // Borrowed like readLengthDelimited()'s result. Faults as skipGroup's.
  ByteView readGroup(int64_t fieldNumber) {
    const int64_t start = position_;
    const int64_t end = groupEnd(fieldNumber);
    return ByteView(data_ + start, static_cast<size_t>(end - start));
  }

 private:
  static constexpr uint64_t kMaxLength = 0x7FFFFFFF;
  static int64_t checkedLength(uint64_t length) {
    if (length > kMaxLength) [[unlikely]] {
      throw SerializationError::malformedProtobuf();
    }
    return static_cast<int64_t>(length);
  }

  uint8_t byteAt(int64_t index) const noexcept { return static_cast<uint8_t>(data_[index]); }
  // skipGroup, returning where the end-group tag that closes the group starts.
  int64_t groupEnd(int64_t fieldNumber);
  // How a varint is used, which decides its fast paths: tags and lengths, the structure of a
  // message, are mostly one or two bytes, in patterns that repeat; values are anything.
  enum class VarintUse : uint8_t { structure, value };

  // The varint at `position`, advanced past it. Away from the end of the buffer a varint of any
  // length fits, so its bytes need no bounds test; only the last ten bytes of a buffer take the
  // checked loop of readVarintSlow(). On a fault position() is left at `position` (unchanged).
  template <VarintUse use>
  [[gnu::always_inline]] uint64_t readVarintAt(int64_t& position) {
    if (position < size_) [[likely]] {
      const uint8_t first = byteAt(position);
      if (first < 0x80) {
        ++position;
        return first;
      }
      if (size_ - position >= 10) [[likely]] {
        if constexpr (use == VarintUse::structure) {
          const uint8_t second = byteAt(position + 1);
          if (second < 0x80) {
            position += 2;
            return (first & 0x7fu) | static_cast<uint64_t>(second) << 7;
          }
        }
        const MultiByteVarint varint = decodeMultiByteVarint(data_ + position);
        if (varint.length == 0) [[unlikely]] {
          position_ = position;
          throw SerializationError::malformedProtobuf();
        }
        position += varint.length;
        return varint.value;
      }
    }
    position_ = position;
    const uint64_t value = readVarintSlow();
    position = position_;
    return value;
  }

  // Steps over the varint at `position` as readVarint(position) would, without decoding it: away
  // from the end of the buffer its length comes from the first clear top bit of one 64-bit load,
  // with no branch on it (values of varying length are what a search skips most).
  [[gnu::always_inline]] void skipVarint(int64_t& position) {
    if (size_ - position >= 10) [[likely]] {
      uint64_t word;
      std::memcpy(&word, data_ + position, sizeof word);
      const uint64_t stops = ~word & 0x8080808080808080u;
      if (stops != 0) [[likely]] {
        position += (std::countr_zero(stops) >> 3) + 1;
        return;
      }
    }
    readVarint(position);
  }

  // A varint of two to ten bytes and its length, or length 0 for one longer than ten bytes.
  struct MultiByteVarint {
    uint64_t value;
    int64_t length;
  };
  // Decodes the varint at `p`, whose first byte has its top bit set and which has at least ten
  // readable bytes, as readVarintSlow does: of the tenth byte only bit 0 lands. Varints of up to
  // eight bytes are decoded from one 64-bit load without a branch on their length, which varies
  // unpredictably in packed runs and lengths: the lowest clear top bit marks the last byte, and the
  // 7-bit groups up to it are squeezed together pairwise.
  [[gnu::always_inline]] static MultiByteVarint decodeMultiByteVarint(const std::byte* p) noexcept {
    uint64_t word;
    std::memcpy(&word, p, sizeof word);
    const uint64_t stops = ~word & 0x8080808080808080u;
    // All bits up to and including the first stop bit: the varint's bytes (all eight if none).
    const uint64_t keep = stops == 0 ? ~uint64_t{0} : stops ^ (stops - 1);
    uint64_t x = word & keep & 0x7f7f7f7f7f7f7f7fu;
    x = ((x & 0x7f007f007f007f00u) >> 1) | (x & 0x007f007f007f007fu);
    x = ((x & 0x3fff00003fff0000u) >> 2) | (x & 0x00003fff00003fffu);
    x = ((x & 0x0fffffff00000000u) >> 4) | (x & 0x000000000fffffffu);
    if (stops != 0) [[likely]] {
      return {x, (std::countr_zero(stops) >> 3) + 1};
    }
    for (int i = 8; i < 10; ++i) {
      const auto byte = static_cast<uint8_t>(p[i]);
      x |= static_cast<uint64_t>(byte & 0x7fu) << (7 * i);
      if (byte < 0x80) return {x, i + 1};
    }
    return {0, 0};
  }
  uint64_t readVarintSlow();
  // Moves position() forward without a bounds check; only an overflow of the position stops the
  // process, which no buffer that fits in memory can cause.
  void advance(int64_t count) { position_ = advanced(position_, count); }
  static int64_t advanced(int64_t position, int64_t count) {
    int64_t result;
    if (__builtin_add_overflow(position, count, &result)) [[unlikely]] {
      detail::fatal("Reader position overflow");
    }
    return result;
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
