// The canonical encoding: the record read field by field as protobuf's parse reads it, then written
// as its serializer writes the parsed message.

#include <algorithm>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "edit/wire_fields.hpp"
#include "ostrel/edit/rewrite.hpp"
#include "store/map_entry.hpp"

namespace ostrel {
namespace detail {
namespace {

struct KnownOccurrence {
  const FieldSchemaDescribing* field;
  Occurrence occurrence;
};

void writeMessage(ByteView message, const MessageSchemaDescribing& schema, int depth,
                  WireBuffer& out);

// An unknown field as libprotobuf's unknown field set keeps it: the tag and varints re-encoded,
// length-delimited payloads as they are, groups field by field.
void writeUnknown(ByteView message, const Occurrence& occurrence, int depth, WireBuffer& out) {
  writeTag(occurrence.fieldNumber(), occurrence.wireType(), out);
  Reader reader(message);
  reader.setPosition(occurrence.payloadStart);
  switch (occurrence.wireType()) {
    case ProtoWireType::varInt:
      out.varint(reader.readVarint());
      return;
    case ProtoWireType::fixed32:
    case ProtoWireType::fixed64: {
      const ByteView value = occurrence.payload(message);
      out.raw(value.data(), value.size());
      return;
    }
    case ProtoWireType::lengthDelimited: {
      const ByteView payload = occurrence.payload(message);
      out.varint(payload.size());
      out.raw(payload.data(), payload.size());
      return;
    }
    case ProtoWireType::startGroup: {
      if (depth > kMaxEditDepth) throw tooDeep();
      const ByteView payload = occurrence.payload(message);
      forEachOccurrence(
          payload, [&](const Occurrence& inner) { writeUnknown(payload, inner, depth + 1, out); });
      writeTag(occurrence.fieldNumber(), ProtoWireType::endGroup, out);
      return;
    }
    case ProtoWireType::endGroup:
      break;
  }
  throw SerializationError::malformedProtobuf();
}

// The payloads of `occurrences` one after another: the occurrences of a message merged, as a
// parse of the concatenation merges them. A single payload is borrowed, not copied.
ByteView mergedPayload(ByteView message, const std::vector<Occurrence>& occurrences,
                       Bytes& scratch) {
  if (occurrences.size() == 1) return occurrences.front().payload(message);
  for (const Occurrence& occurrence : occurrences) {
    const ByteView payload = occurrence.payload(message);
    scratch.insert(scratch.end(), payload.begin(), payload.end());
  }
  return scratch;
}

void writeNested(const FieldSchemaDescribing& field, ByteView payload, int depth, WireBuffer& out) {
  const auto& schema = *field.type().messageSchema();
  if (field.isDelimited()) {
    writeTag(field.fieldNumber(), ProtoWireType::startGroup, out);
    writeMessage(payload, schema, depth + 1, out);
    writeTag(field.fieldNumber(), ProtoWireType::endGroup, out);
    return;
  }
  const size_t mark =
      out.beginNested(fieldKey(field.fieldNumber(), ProtoWireType::lengthDelimited));
  writeMessage(payload, schema, depth + 1, out);
  out.endNested(mark);
}

// One map entry, written with its key and its value (a message value merged from its
// occurrences in the entry), as a map holds and writes it.
void writeEntry(ByteView payload, const FieldSchemaDescribing& field, const MapEntryFields& entry,
                int depth, WireBuffer& out) {
  if (depth + 1 > kMaxEditDepth) throw tooDeep();
  const size_t mark =
      out.beginNested(fieldKey(field.fieldNumber(), ProtoWireType::lengthDelimited));
  std::vector<Occurrence> keys;
  std::vector<Occurrence> values;
  forEachOccurrence(payload, [&](const Occurrence& inner) {
    if (inner.fieldNumber() == 1 && fits(*entry.key, inner.wireType())) keys.push_back(inner);
    if (inner.fieldNumber() == 2 && fits(*entry.value, inner.wireType())) values.push_back(inner);
  });
  for (const auto* part : {entry.key, entry.value}) {
    const std::vector<Occurrence>& found = part == entry.key ? keys : values;
    const Kind kind = part->type().kind();
    if (kind == Kind::message) {
      Bytes scratch;
      writeNested(*part, found.empty() ? ByteView() : mergedPayload(payload, found, scratch),
                  depth + 1, out);
    } else if (isLengthDelimitedKind(kind)) {
      const ByteView value = found.empty() ? ByteView() : found.back().payload(payload);
      writeTag(part->fieldNumber(), ProtoWireType::lengthDelimited, out);
      out.varint(value.size());
      out.raw(value.data(), value.size());
    } else {
      uint64_t value = 0;
      const ProtoWireType wire = valueWireType(*part);
      if (!found.empty()) {
        Reader reader(payload);
        reader.setPosition(found.back().payloadStart);
        value = readScalar(kind, wire, reader);
      }
      writeTag(part->fieldNumber(), wire, out);
      writeScalar(wire, value, out);
    }
  }
  out.endNested(mark);
}

// The value of a map entry whose values are of a closed enum, as the map would hold it.
uint64_t entryEnumValue(ByteView payload) {
  uint64_t value = 0;
  forEachOccurrence(payload, [&](const Occurrence& inner) {
    if (inner.fieldNumber() != 2 || inner.wireType() != ProtoWireType::varInt) return;
    Reader reader(payload);
    reader.setPosition(inner.payloadStart);
    value = readScalar(Kind::enum_, ProtoWireType::varInt, reader);
  });
  return value;
}

// A map field's entries: the last entry of each key, sorted by key.
void writeMap(ByteView message, const FieldSchemaDescribing& field, const MapEntryFields& entry,
              const std::vector<Occurrence>& occurrences, int depth, WireBuffer& out) {
  std::map<MapKey, ByteView> entries;
  for (const Occurrence& occurrence : occurrences) {
    const ByteView payload = occurrence.payload(message);
    entries.insert_or_assign(entryKey(payload, *entry.key), payload);
  }
  for (const auto& [key, payload] : entries) writeEntry(payload, field, entry, depth, out);
}

// The elements of a repeated scalar field from its packed runs and single values, in order.
std::vector<uint64_t> scalarElements(ByteView message, const FieldSchemaDescribing& field,
                                     const std::vector<Occurrence>& occurrences) {
  const Kind kind = field.type().kind();
  const ProtoWireType wire = valueWireType(field);
  std::vector<uint64_t> elements;
  for (const Occurrence& occurrence : occurrences) {
    if (occurrence.wireType() == ProtoWireType::lengthDelimited) {
      Reader run(occurrence.payload(message));
      while (run.hasMoreFields()) elements.push_back(readScalar(kind, wire, run));
    } else {
      Reader reader(message);
      reader.setPosition(occurrence.payloadStart);
      elements.push_back(readScalar(kind, wire, reader));
    }
  }
  if (field.hasClosedEnum()) {
    std::erase_if(elements, [&](uint64_t value) { return !declaresValue(field, value); });
  }
  return elements;
}

void writeField(ByteView message, const FieldSchemaDescribing& field,
                const std::vector<Occurrence>& occurrences, int depth, WireBuffer& out) {
  const Kind kind = field.type().kind();
  const int64_t number = field.fieldNumber();
  if (kind == Kind::message) {
    if (field.isRepeated()) {
      if (const auto entry = mapEntryFields(*field.type().messageSchema())) {
        return writeMap(message, field, *entry, occurrences, depth, out);
      }
      for (const Occurrence& occurrence : occurrences) {
        writeNested(field, occurrence.payload(message), depth, out);
      }
      return;
    }
    Bytes scratch;
    return writeNested(field, mergedPayload(message, occurrences, scratch), depth, out);
  }
  if (isLengthDelimitedKind(kind)) {
    const auto write = [&](const Occurrence& occurrence) {
      const ByteView payload = occurrence.payload(message);
      if (field.hasImplicitPresence() && payload.empty()) return;
      writeTag(number, ProtoWireType::lengthDelimited, out);
      out.varint(payload.size());
      out.raw(payload.data(), payload.size());
    };
    if (field.isRepeated()) {
      for (const Occurrence& occurrence : occurrences) write(occurrence);
    } else {
      write(occurrences.back());
    }
    return;
  }
  const ProtoWireType wire = valueWireType(field);
  if (!field.isRepeated()) {
    Reader reader(message);
    reader.setPosition(occurrences.back().payloadStart);
    const uint64_t value = readScalar(kind, wire, reader);
    if (field.hasImplicitPresence() && value == 0) return;
    writeTag(number, wire, out);
    writeScalar(wire, value, out);
    return;
  }
  const std::vector<uint64_t> elements = scalarElements(message, field, occurrences);
  if (!field.isPacked()) {
    for (const uint64_t element : elements) {
      writeTag(number, wire, out);
      writeScalar(wire, element, out);
    }
    return;
  }
  if (elements.empty()) return;
  const size_t mark = out.beginNested(fieldKey(number, ProtoWireType::lengthDelimited));
  for (const uint64_t element : elements) writeScalar(wire, element, out);
  out.endNested(mark);
}

// Whether an occurrence of a known field is the field's, or protobuf's parse puts it among the
// unknown fields (written to `unknown`): a number a closed enum does not declare (of a packed run,
// each such number as a varint field of its own), a map entry holding one.
bool keepsKnown(ByteView message, const FieldSchemaDescribing& field, const Occurrence& occurrence,
                int depth, WireBuffer& unknown) {
  if (field.hasClosedEnum()) {
    Reader reader(occurrence.payload(message));
    if (occurrence.wireType() == ProtoWireType::varInt) {
      if (declaresValue(field, readScalar(Kind::enum_, ProtoWireType::varInt, reader))) {
        return true;
      }
      writeUnknown(message, occurrence, depth, unknown);
      return false;
    }
    while (reader.hasMoreFields()) {
      const uint64_t raw = reader.readVarintValue();
      if (declaresValue(field, canonicalVarint(Kind::enum_, raw))) continue;
      writeTag(field.fieldNumber(), ProtoWireType::varInt, unknown);
      unknown.varint(raw);
    }
    return true;
  }
  if (!field.isRepeated() || field.type().kind() != Kind::message) return true;
  const auto entry = mapEntryFields(*field.type().messageSchema());
  if (!entry || !entry->value->hasClosedEnum()) return true;
  const ByteView payload = occurrence.payload(message);
  if (declaresValue(*entry->value, entryEnumValue(payload))) return true;
  writeEntry(payload, field, *entry, depth, unknown);
  return false;
}

void writeMessage(ByteView message, const MessageSchemaDescribing& schema, int depth,
                  WireBuffer& out) {
  if (depth > kMaxEditDepth) throw tooDeep();
  const auto& fields = schema.fieldsByNumber();
  std::vector<KnownOccurrence> known;
  // The unknown fields, written as they are met.
  WireBuffer unknown;
  // Per oneof, the member set last: another member's occurrence clears it, as in a parse.
  std::map<int32_t, int64_t> oneofCases;
  forEachOccurrence(message, [&](const Occurrence& occurrence) {
    const auto found = fields.find(occurrence.fieldNumber());
    if (found == fields.end() || !fits(*found->second, occurrence.wireType())) {
      writeUnknown(message, occurrence, depth, unknown);
      return;
    }
    const FieldSchemaDescribing* field = found->second.get();
    if (!keepsKnown(message, *field, occurrence, depth, unknown)) return;
    if (const auto oneof = field->oneofIndex()) {
      auto [current, inserted] = oneofCases.try_emplace(*oneof, field->fieldNumber());
      if (!inserted && current->second != field->fieldNumber()) {
        const int64_t cleared = current->second;
        std::erase_if(known,
                      [&](const KnownOccurrence& k) { return k.field->fieldNumber() == cleared; });
        current->second = field->fieldNumber();
      }
    }
    known.push_back({field, occurrence});
  });
  std::stable_sort(known.begin(), known.end(), [](const auto& a, const auto& b) {
    return a.field->fieldNumber() < b.field->fieldNumber();
  });
  std::vector<Occurrence> occurrences;
  for (size_t i = 0; i < known.size();) {
    const FieldSchemaDescribing& field = *known[i].field;
    occurrences.clear();
    for (; i < known.size() && known[i].field == &field; ++i) {
      occurrences.push_back(known[i].occurrence);
    }
    writeField(message, field, occurrences, depth, out);
  }
  out.raw(unknown.view().data(), unknown.size());
}

}  // namespace

Bytes normalized(const MessageSchemaDescribing& schema, ByteView record) {
  WireBuffer out(record.size());
  writeMessage(record, schema, 1, out);
  return out.data();
}

}  // namespace detail

Bytes normalizeRecord(const MessageSchema& schema, ByteView record) {
  return detail::normalized(*schema.impl(), record);
}

Bytes mergeRecord(const MessageSchema& schema, ByteView into, ByteView from) {
  // A parse of two records one after the other is MergeFrom of the second into the first, once
  // the second is canonical: a non-canonical one may hold a default that its parse drops.
  Bytes both(into.begin(), into.end());
  const Bytes canonical = detail::normalized(*schema.impl(), from);
  both.insert(both.end(), canonical.begin(), canonical.end());
  return detail::normalized(*schema.impl(), both);
}

}  // namespace ostrel
