#include "wire/exact_read.hpp"

#include <algorithm>
#include <vector>

#include "wire/value_decoding.hpp"

namespace ostrel::detail {
namespace {

// One occurrence of a field: in which of the messages being read, just after its tag.
struct Occurrence {
  size_t segment;
  int64_t position;
  ProtoWireType wireType;
};

// The numbers of the other members of `field`'s oneof; none for a field outside a oneof.
std::vector<int64_t> oneofSiblings(const MessageSchemaDescribing& schema,
                                   const FieldSchemaDescribing& field) {
  std::vector<int64_t> siblings;
  const std::optional<int32_t> oneof = field.oneofIndex();
  if (!oneof) return siblings;
  for (const auto& [number, other] : schema.fieldsByNumber()) {
    if (number != field.fieldNumber() && other->oneofIndex() == oneof) siblings.push_back(number);
  }
  return siblings;
}

// skipField, failing when the field runs past the end of the bytes: protobuf's parse reads every
// field, so a record cut short has no exact answer.
void skipWhole(Reader& reader, FieldTag tag) {
  reader.skipField(tag);
  if (reader.position() > reader.size()) throw SerializationError::truncated();
}

void appendVarint(Bytes& out, uint64_t value) {
  while (value >= 0x80) {
    out.push_back(static_cast<std::byte>((value & 0x7F) | 0x80));
    value >>= 7;
  }
  out.push_back(static_cast<std::byte>(value));
}

// The payload of the message occurrence whose tag ends at `position`: length-delimited, or a group
// (a delimited field) up to its end tag.
ByteView payloadAt(ByteView segment, int64_t position, ProtoWireType wireType, int64_t number) {
  Reader reader(segment);
  reader.setPosition(position);
  if (wireType == ProtoWireType::startGroup) return reader.readGroup(number);
  return reader.readLengthDelimited();
}

// The wire type occurrences of `field` must have: a message's own (length-delimited, or a group
// for a delimited field) on the way down, the type's at the end of the path.
ProtoWireType requiredWireType(const FieldSchemaDescribing& field,
                               const TypeSchemaDescription& type, bool last) {
  if (field.isDelimited()) return ProtoWireType::startGroup;
  return last ? factsOf(type.kind()).wireType : ProtoWireType::lengthDelimited;
}

}  // namespace

std::optional<ExactLocation> locateExact(const MessageSchemaDescribing& schema, ByteView data,
                                         std::span<const FieldPathComponent> path,
                                         const TypeSchemaDescription& type, Bytes& merged) {
  if (path.empty()) throwInvalidPath();
  // The merged message being read: the payloads of every occurrence that counts, in order.
  std::vector<ByteView> segments{data};
  const MessageSchemaDescribing* message = &schema;
  std::shared_ptr<MessageSchemaDescribing> nested;
  std::vector<Occurrence> occurrences;
  for (size_t level = 0; level < path.size(); ++level) {
    const FieldPathComponent& component = path[level];
    const bool last = level + 1 == path.size();
    const FieldSchemaDescribing& field = *message->fieldWithNumber(component.number);
    std::vector<ByteView> next;

    if (component.index) {
      // Every element counts, in the order of the bytes, whatever mix of packed runs and tagged
      // elements holds them.
      int64_t remaining = *component.index;
      if (remaining < 0) return std::nullopt;
      for (ByteView segment : segments) {
        Reader reader(segment);
        while (reader.hasMoreFields() && next.empty()) {
          const FieldTag tag = reader.readTag();
          if (tag.fieldNumber() != component.number) {
            skipWhole(reader, tag);
            continue;
          }
          const bool delimited = tag.wireType() == ProtoWireType::lengthDelimited;
          if (!last && tag.wireType() != requiredWireType(field, type, false)) {
            throwIntermediateNotDelimited();
          }
          if (last && delimited && packable(type.kind())) {
            Reader elements(reader.readLengthDelimited());
            const bool found = withFixedDecoder(type.kind(), [&](const auto& decode) {
              for (; elements.hasMoreFields(); --remaining) {
                if (remaining == 0) return true;
                decode(elements);
              }
              return false;
            });
            if (found) return ExactLocation{elements, ProtoWireType::lengthDelimited, true};
            continue;
          }
          if (remaining == 0) {
            if (last && tag.wireType() == ProtoWireType::startGroup) {
              // The group's payload as a length-delimited message, which the decoder reads.
              const ByteView group =
                  payloadAt(segment, reader.position(), tag.wireType(), component.number);
              merged.clear();
              appendVarint(merged, group.size());
              merged.insert(merged.end(), group.begin(), group.end());
              return ExactLocation{Reader(merged), ProtoWireType::lengthDelimited, false};
            }
            if (last) return ExactLocation{reader, tag.wireType(), false};
            next.push_back(payloadAt(segment, reader.position(), tag.wireType(), component.number));
            break;
          }
          --remaining;
          skipWhole(reader, tag);
        }
        if (!next.empty()) break;
      }
      if (next.empty()) return std::nullopt;
    } else {
      // The occurrences that count: all of them, but those before an occurrence of another member
      // of the same oneof, which protobuf's parse clears.
      const std::vector<int64_t> siblings = oneofSiblings(*message, field);
      const ProtoWireType required = requiredWireType(field, type, last);
      occurrences.clear();
      for (size_t s = 0; s < segments.size(); ++s) {
        Reader reader(segments[s]);
        while (reader.hasMoreFields()) {
          const FieldTag tag = reader.readTag();
          if (tag.fieldNumber() == component.number) {
            if (tag.wireType() != required) {
              if (last) throwTypeMismatch(type, tag.wireType());
              throwUnexpectedType(tag.rawValue());
            }
            occurrences.push_back({s, reader.position(), tag.wireType()});
          } else if (!siblings.empty() && std::find(siblings.begin(), siblings.end(),
                                                    tag.fieldNumber()) != siblings.end()) {
            occurrences.clear();
          }
          skipWhole(reader, tag);
        }
      }
      if (occurrences.empty()) return std::nullopt;
      if (last) {
        if (type.kind() != TypeSchemaDescription::Case::message ||
            (occurrences.size() == 1 && occurrences.back().wireType != ProtoWireType::startGroup)) {
          const Occurrence& winner = occurrences.back();
          Reader reader(segments[winner.segment]);
          reader.setPosition(winner.position);
          return ExactLocation{reader, winner.wireType, false};
        }
      }
      next.reserve(occurrences.size());
      for (const Occurrence& o : occurrences) {
        next.push_back(payloadAt(segments[o.segment], o.position, o.wireType, component.number));
      }
      if (last) {
        // One message from several occurrences: their payloads one after the other, which is what
        // parsing them in turn merges.
        size_t total = 0;
        for (ByteView payload : next) total += payload.size();
        merged.clear();
        merged.reserve(total + 10);
        appendVarint(merged, total);
        for (ByteView payload : next) merged.insert(merged.end(), payload.begin(), payload.end());
        return ExactLocation{Reader(merged), ProtoWireType::lengthDelimited, false};
      }
    }
    segments = std::move(next);
    nested = field.type().messageSchema();
    message = nested.get();
  }
  return std::nullopt;
}

std::optional<AnyValueImpl> readValueExact(const MessageSchemaDescribing& schema, ByteView data,
                                           std::span<const FieldPathComponent> path,
                                           const TypeSchemaDescription& type, Bytes& merged) {
  return readValueExactAs(schema, data, path, type, merged, MakeOptionalValueImpl{},
                          [&type](Reader& reader, ProtoWireType wireType) {
                            return std::optional<AnyValueImpl>(decodeValue(reader, type, wireType));
                          });
}

}  // namespace ostrel::detail
