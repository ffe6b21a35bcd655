#pragma once

#include <cstdint>
#include <string_view>

namespace ostrel {

// The wire types of the protobuf encoding, with their raw values. Raw values 6 and 7 have no case:
// a tag carrying them is rejected when the tag is made.
enum class ProtoWireType : uint8_t {
  varInt = 0,
  fixed64 = 1,
  lengthDelimited = 2,
  startGroup = 3,
  endGroup = 4,
  fixed32 = 5,
};

// The case name, for example "varInt".
std::string_view caseName(ProtoWireType type) noexcept;

}  // namespace ostrel
