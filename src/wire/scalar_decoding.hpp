#pragma once

// The decoding of values whose encoding follows from their declared type alone (every type but
// message, string and bytes), shared by value decoding and by field path navigation, which expands
// it in place for the last step of a scalar read.

#include <bit>
#include <cstdint>
#include <optional>
#include <type_traits>
#include <utility>

#include "core/field_type_facts.hpp"
#include "ostrel/core/field_types.hpp"
#include "ostrel/core/values.hpp"
#include "ostrel/wire/reader.hpp"

namespace ostrel::detail {

using Case = TypeSchemaDescription::Case;

// Whether a value of `kind` may follow a tag of `wireType`: its one wire type, or for a message
// also a group (start-group tag, the message's fields, end-group tag), its delimited encoding.
// Either encoding of a message field is read, whichever the schema declares.
inline bool acceptsWireType(Case kind, ProtoWireType wireType) noexcept {
  return wireType == factsOf(kind).wireType ||
         (kind == Case::message && wireType == ProtoWireType::startGroup);
}

// The payload of the string, bytes or message value that follows `tag`: length-prefixed, or the
// fields of a group.
inline ByteView readPayload(Reader& reader, FieldTag tag) {
  return tag.wireType() == ProtoWireType::startGroup ? reader.readGroup(tag.fieldNumber())
                                                     : reader.readLengthDelimited();
}

inline int32_t low32Signed(uint64_t value) noexcept {
  return static_cast<int32_t>(static_cast<uint32_t>(value));
}

inline int32_t zigZag32(uint32_t n) noexcept {
  return static_cast<int32_t>((n >> 1) ^ (0u - (n & 1u)));
}

inline int64_t zigZag64(uint64_t n) noexcept {
  return static_cast<int64_t>((n >> 1) ^ (uint64_t{0} - (n & 1u)));
}

// An enum value's number as decoded, before it is paired with its enum.
struct EnumNumber {
  int32_t number;
};

// Calls `use` with the decoder of `kind`, one of the types whose encoding follows from the type
// alone (every type but message, string and bytes): a function object that reads one value from a
// Reader and returns it in its exact C++ type (int32_t, uint32_t, int64_t, uint64_t, float,
// double, bool, or EnumNumber). Loops over many values of one kind (packed runs) call it outside
// the loop, so that the kind is branched on once. Throws malformedProtobuf for the other kinds.
template <typename Use>
[[gnu::always_inline]] inline auto withFixedDecoder(Case kind, const Use& use) {
  switch (kind) {
    case Case::int32:
      return use([](Reader & r)
                     __attribute__((always_inline)) { return low32Signed(r.readVarintValue()); });
    case Case::uint32:
      return use([](Reader & r) __attribute__((always_inline)) {
        return static_cast<uint32_t>(r.readVarintValue());
      });
    case Case::sint32:
      return use([](Reader & r) __attribute__((always_inline)) {
        return zigZag32(static_cast<uint32_t>(r.readVarintValue()));
      });
    case Case::int64:
      return use([](Reader & r) __attribute__((always_inline)) {
        return static_cast<int64_t>(r.readVarintValue());
      });
    case Case::uint64:
      return use([](Reader & r) __attribute__((always_inline)) { return r.readVarintValue(); });
    case Case::sint64:
      return use([](Reader & r)
                     __attribute__((always_inline)) { return zigZag64(r.readVarintValue()); });
    case Case::bool_:
      return use([](Reader & r)
                     __attribute__((always_inline)) { return r.readVarintValue() != 0; });
    case Case::enum_:
      return use([](Reader & r) __attribute__((always_inline)) {
        return EnumNumber{low32Signed(r.readVarintValue())};
      });
    case Case::fixed32:
      return use([](Reader & r) __attribute__((always_inline)) { return r.readFixed32(); });
    case Case::sfixed32:
      return use([](Reader & r) __attribute__((always_inline)) {
        return static_cast<int32_t>(r.readFixed32());
      });
    case Case::float_:
      return use([](Reader & r) __attribute__((always_inline)) {
        return std::bit_cast<float>(r.readFixed32());
      });
    case Case::fixed64:
      return use([](Reader & r) __attribute__((always_inline)) { return r.readFixed64(); });
    case Case::sfixed64:
      return use([](Reader & r) __attribute__((always_inline)) {
        return static_cast<int64_t>(r.readFixed64());
      });
    case Case::double_:
      return use([](Reader & r) __attribute__((always_inline)) {
        return std::bit_cast<double>(r.readFixed64());
      });
    case Case::message:
    case Case::string:
    case Case::bytes:
      break;
  }
  throw SerializationError::malformedProtobuf();
}

// Decodes a value whose encoding follows from its type alone: every type but message, string and
// bytes, which the callers handle before coming here. The decoded value is handed to `make` with
// its exact C++ type (int32_t, uint32_t, int64_t, uint64_t, float, double, bool or
// detail::EnumValueImpl), so that the value can be built in its final form directly. Expanded in
// place: after navigation it is the whole of a scalar read, and in packed runs it is paid once per
// element.
template <typename Make>
[[gnu::always_inline]] inline auto decodeFixedEncodingAs(Reader& reader,
                                                         const TypeSchemaDescription& type,
                                                         const Make& make) {
  return withFixedDecoder(
      type.kind(), [&](const auto& decode) __attribute__((always_inline)) {
        auto value = decode(reader);
        if constexpr (std::is_same_v<decltype(value), EnumNumber>) {
          return make(detail::EnumValueImpl{type.enumSchema(), value.number});
        } else {
          return make(value);
        }
      });
}

// Builds the internal value of each decoded C++ type.
struct MakeValueImpl {
  detail::AnyValueImpl operator()(int32_t v) const { return detail::AnyValueImpl::int32(v); }
  detail::AnyValueImpl operator()(uint32_t v) const { return detail::AnyValueImpl::uint32(v); }
  detail::AnyValueImpl operator()(int64_t v) const { return detail::AnyValueImpl::int64(v); }
  detail::AnyValueImpl operator()(uint64_t v) const { return detail::AnyValueImpl::uint64(v); }
  detail::AnyValueImpl operator()(float v) const { return detail::AnyValueImpl::float_(v); }
  detail::AnyValueImpl operator()(double v) const { return detail::AnyValueImpl::double_(v); }
  detail::AnyValueImpl operator()(bool v) const { return detail::AnyValueImpl::bool_(v); }
  detail::AnyValueImpl operator()(detail::EnumValueImpl v) const {
    return detail::AnyValueImpl::enum_(std::move(v));
  }
};

// The same, built in place in an optional, the form navigation returns values in: a variant
// moved into an optional costs a dispatch on its alternative.
struct MakeOptionalValueImpl {
  template <typename T>
  std::optional<detail::AnyValueImpl> operator()(T v) const {
    return std::optional<detail::AnyValueImpl>(std::in_place, MakeValueImpl{}(std::move(v)));
  }
};

// The public value of each decoded C++ type, as AnyValue::from converts the internal one, built
// in place in an optional.
template <typename T>
std::optional<AnyValue> optionalValue(T v) {
  if constexpr (std::is_same_v<T, detail::EnumValueImpl>) {
    return std::optional<AnyValue>(std::in_place, EnumValue(std::move(v)));
  } else {
    return std::optional<AnyValue>(std::in_place, v);
  }
}

// decodeFixedEncodingAs building the internal value.
[[gnu::always_inline]] inline detail::AnyValueImpl decodeFixedEncoding(
    Reader& reader, const TypeSchemaDescription& type) {
  return decodeFixedEncodingAs(reader, type, MakeValueImpl{});
}

}  // namespace ostrel::detail
