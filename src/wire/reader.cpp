#include "ostrel/wire/reader.hpp"

#include <array>
#include <vector>

namespace ostrel {

std::string FieldTag::describe() const {
  return "FieldTag(rawValue: " + std::to_string(rawValue_) + ")";
}

uint64_t Reader::readVarintSlow() {
  // The first byte is known to exist and to have its top bit set unless position_ is past the end.
  if (position_ >= size_) throw SerializationError::malformedProtobuf();
  uint64_t result = byteAt(position_) & 0x7f;
  for (int i = 1; i < 10; ++i) {
    const int64_t index = position_ + i;
    if (index >= size_) throw SerializationError::malformedProtobuf();
    const uint8_t byte = byteAt(index);
    // For the tenth byte the shift is 63: only its bit 0 lands, the rest is dropped, as the
    // reference encoder does.
    result |= static_cast<uint64_t>(byte & 0x7f) << (7 * i);
    if (byte < 0x80) {
      position_ = index + 1;
      return result;
    }
  }
  throw SerializationError::malformedProtobuf();
}

namespace {

// The open groups while skipping: two fit in place, deeper nesting spills to the heap.
class GroupStack {
 public:
  explicit GroupStack(int64_t first) { push(first); }
  bool empty() const noexcept { return size_ == 0; }
  void push(int64_t fieldNumber) {
    if (size_ < inline_.size()) {
      inline_[size_] = fieldNumber;
    } else {
      spill_.push_back(fieldNumber);
    }
    ++size_;
  }
  int64_t pop() noexcept {
    --size_;
    if (size_ < inline_.size()) return inline_[size_];
    const int64_t top = spill_.back();
    spill_.pop_back();
    return top;
  }

 private:
  std::array<int64_t, 2> inline_{};
  std::vector<int64_t> spill_;
  size_t size_ = 0;
};

}  // namespace

int64_t Reader::groupEnd(int64_t fieldNumber) {
  GroupStack open(fieldNumber);
  int64_t tagStart = position_;
  while (!open.empty()) {
    tagStart = position_;
    const FieldTag tag = readTag();
    switch (tag.wireType()) {
      case ProtoWireType::startGroup:
        open.push(tag.fieldNumber());
        break;
      case ProtoWireType::endGroup:
        if (open.pop() != tag.fieldNumber()) throw SerializationError::malformedProtobuf();
        break;
      default:
        skipField(tag);
        break;
    }
  }
  return tagStart;
}

}  // namespace ostrel
