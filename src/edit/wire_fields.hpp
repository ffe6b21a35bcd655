#pragma once

// What the rewrite and the normalization share: the occurrences of fields in a message's bytes,
// which occurrences protobuf's parse takes as a field's (the wire type has to fit), and scalar
// values as protobuf holds them.

#include <cstdint>
#include <string>

#include "ostrel/core/describing.hpp"
#include "ostrel/core/errors.hpp"
#include "ostrel/wire/reader.hpp"
#include "output/wire_buffer.hpp"

namespace ostrel::detail {

// Messages nest at most this deep, the outermost counting as the first.
inline constexpr int kMaxEditDepth = 100;

inline SchematizerError tooDeep() {
  return SchematizerError::protocolBufferError("Nesting deeper than 100 messages");
}

// One field as it stands in a message's bytes. For a length-delimited field the payload is what
// follows the length prefix, for a group what lies between its tags, for the others the value.
struct Occurrence {
  FieldTag tag{8};
  int64_t start = 0;
  int64_t payloadStart = 0;
  int64_t payloadEnd = 0;
  int64_t end = 0;

  int64_t fieldNumber() const noexcept { return tag.fieldNumber(); }
  ProtoWireType wireType() const noexcept { return tag.wireType(); }
  ByteView payload(ByteView message) const noexcept {
    return message.subspan(static_cast<size_t>(payloadStart),
                           static_cast<size_t>(payloadEnd - payloadStart));
  }
};

// Calls `visit(occurrence)` for each field of `message` in order. Throws SerializationError for
// bytes that are not a sequence of whole fields (every payload is checked to lie in the buffer).
template <typename Visit>
void forEachOccurrence(ByteView message, Visit&& visit) {
  Reader reader(message);
  while (reader.hasMoreFields()) {
    Occurrence occurrence;
    occurrence.start = reader.position();
    occurrence.tag = reader.readTag();
    occurrence.payloadStart = reader.position();
    switch (occurrence.tag.wireType()) {
      case ProtoWireType::varInt:
        reader.readVarint();
        break;
      case ProtoWireType::fixed64:
        reader.readFixed64();
        break;
      case ProtoWireType::fixed32:
        reader.readFixed32();
        break;
      case ProtoWireType::lengthDelimited: {
        const ByteView payload = reader.readLengthDelimited();
        occurrence.payloadStart = static_cast<int64_t>(payload.data() - message.data());
        break;
      }
      case ProtoWireType::startGroup: {
        const ByteView payload = reader.readGroup(occurrence.tag.fieldNumber());
        occurrence.payloadEnd = occurrence.payloadStart + static_cast<int64_t>(payload.size());
        occurrence.end = reader.position();
        visit(occurrence);
        continue;
      }
      case ProtoWireType::endGroup:
        throw SerializationError::malformedProtobuf();
    }
    occurrence.payloadEnd = occurrence.end = reader.position();
    visit(occurrence);
  }
}

using Kind = TypeSchemaDescription::Case;

inline bool isLengthDelimitedKind(Kind kind) noexcept {
  return kind == Kind::string || kind == Kind::bytes || kind == Kind::message;
}

// The wire type of one value of `field` when it is not packed.
inline ProtoWireType valueWireType(const FieldSchemaDescribing& field) {
  switch (field.type().kind()) {
    case Kind::message:
      return field.isDelimited() ? ProtoWireType::startGroup : ProtoWireType::lengthDelimited;
    case Kind::string:
    case Kind::bytes:
      return ProtoWireType::lengthDelimited;
    case Kind::double_:
    case Kind::fixed64:
    case Kind::sfixed64:
      return ProtoWireType::fixed64;
    case Kind::float_:
    case Kind::fixed32:
    case Kind::sfixed32:
      return ProtoWireType::fixed32;
    default:
      return ProtoWireType::varInt;
  }
}

// Whether protobuf's parse takes an occurrence of wire type `wire` as a value of `field`: its
// own wire type, or a packed run for a repeated scalar. Any other occurrence of the field's number
// is an unknown field.
inline bool fits(const FieldSchemaDescribing& field, ProtoWireType wire) {
  const ProtoWireType own = valueWireType(field);
  if (wire == own) return true;
  return wire == ProtoWireType::lengthDelimited && field.isRepeated() &&
         !isLengthDelimitedKind(field.type().kind());
}

// A varint as protobuf holds a field of `kind` read from it, ready to be written again: 32-bit
// types keep their low 32 bits (int32 and enum sign-extended, as they are written), bool is 0 or 1.
inline uint64_t canonicalVarint(Kind kind, uint64_t raw) noexcept {
  switch (kind) {
    case Kind::int32:
    case Kind::enum_:
      return static_cast<uint64_t>(static_cast<int64_t>(static_cast<int32_t>(raw)));
    case Kind::uint32:
    case Kind::sint32:
      return static_cast<uint32_t>(raw);
    case Kind::bool_:
      return raw != 0 ? 1 : 0;
    default:
      return raw;
  }
}

// One scalar element as protobuf holds it: a canonical varint or the bits of a fixed-width value.
inline uint64_t readScalar(Kind kind, ProtoWireType wire, Reader& reader) {
  switch (wire) {
    case ProtoWireType::fixed32:
      return reader.readFixed32();
    case ProtoWireType::fixed64:
      return reader.readFixed64();
    default:
      return canonicalVarint(kind, reader.readVarintValue());
  }
}

// Whether `value`, read from a field that hasClosedEnum(), is a number its enum declares;
// protobuf's parse keeps any other number among the unknown fields.
inline bool declaresValue(const FieldSchemaDescribing& field, uint64_t value) {
  return field.type().enumSchema()->valueSet().contains(static_cast<int32_t>(value));
}

inline void writeScalar(ProtoWireType wire, uint64_t value, WireBuffer& out) {
  switch (wire) {
    case ProtoWireType::fixed32:
      out.fixed32(static_cast<uint32_t>(value));
      return;
    case ProtoWireType::fixed64:
      out.fixed64(value);
      return;
    default:
      out.varint(value);
  }
}

inline void writeTag(int64_t number, ProtoWireType wire, WireBuffer& out) {
  out.varint(static_cast<uint64_t>(number) << 3 | static_cast<uint64_t>(wire));
}

// A map key as protobuf compares them: integers by value (signed ones shifted so that unsigned
// order is numeric order), bool as 0 and 1, strings by their bytes.
struct MapKey {
  uint64_t number = 0;
  std::string text;

  friend bool operator==(const MapKey&, const MapKey&) = default;
  friend auto operator<=>(const MapKey&, const MapKey&) = default;
};

// The key of a map entry's payload: the last occurrence of field 1 that fits `keyField`, else the
// default. Throws SerializationError for an entry that does not parse.
inline MapKey entryKey(ByteView entry, const FieldSchemaDescribing& keyField) {
  const Kind kind = keyField.type().kind();
  const ProtoWireType wire = valueWireType(keyField);
  MapKey key;
  forEachOccurrence(entry, [&](const Occurrence& occurrence) {
    if (occurrence.fieldNumber() != 1 || occurrence.wireType() != wire) return;
    if (kind == Kind::string) {
      const ByteView text = occurrence.payload(entry);
      key.text.assign(reinterpret_cast<const char*>(text.data()), text.size());
      return;
    }
    Reader reader(entry);
    reader.setPosition(occurrence.payloadStart);
    key.number = readScalar(kind, wire, reader);
  });
  switch (kind) {
    case Kind::int32:
    case Kind::sfixed32:
      key.number = static_cast<uint32_t>(key.number) ^ 0x80000000u;
      break;
    case Kind::sint32:
      key.number = static_cast<uint32_t>((key.number >> 1) ^ (~(key.number & 1) + 1)) ^ 0x80000000u;
      break;
    case Kind::int64:
    case Kind::sfixed64:
      key.number ^= uint64_t{1} << 63;
      break;
    case Kind::sint64:
      key.number = ((key.number >> 1) ^ (~(key.number & 1) + 1)) ^ (uint64_t{1} << 63);
      break;
    default:
      break;
  }
  return key;
}

}  // namespace ostrel::detail
