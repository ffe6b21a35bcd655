#pragma once

// Wire bytes made by hand, field by field, for inputs no encoder would write.

#include <cstdint>
#include <string>
#include <string_view>

namespace ostrel::testing_support {

class Wire {
 public:
  enum WireType : int {
    varInt = 0,
    fixed64 = 1,
    lengthDelimited = 2,
    startGroup = 3,
    endGroup = 4,
    fixed32 = 5
  };

  Wire& varint(uint64_t value) {
    while (value >= 0x80) {
      bytes_.push_back(static_cast<char>(value | 0x80));
      value >>= 7;
    }
    bytes_.push_back(static_cast<char>(value));
    return *this;
  }
  Wire& tag(int64_t number, WireType type) {
    return varint(static_cast<uint64_t>(number) << 3 | static_cast<uint64_t>(type));
  }
  Wire& varintField(int64_t number, uint64_t value) { return tag(number, varInt).varint(value); }
  Wire& fixed32Field(int64_t number, uint32_t value) {
    tag(number, fixed32);
    return raw(std::string_view(reinterpret_cast<const char*>(&value), 4));
  }
  Wire& fixed64Field(int64_t number, uint64_t value) {
    tag(number, fixed64);
    return raw(std::string_view(reinterpret_cast<const char*>(&value), 8));
  }
  Wire& bytesField(int64_t number, std::string_view payload) {
    tag(number, lengthDelimited).varint(payload.size());
    return raw(payload);
  }
  Wire& raw(std::string_view bytes) {
    bytes_ += bytes;
    return *this;
  }

  const std::string& bytes() const { return bytes_; }

 private:
  std::string bytes_;
};

}  // namespace ostrel::testing_support
