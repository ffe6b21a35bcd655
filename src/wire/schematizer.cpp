#include "ostrel/wire/schematizer.hpp"

#include <vector>

#include "ostrel/core/interrupts.hpp"
#include "wire/field_path.hpp"
#include "wire/repeated_steps.hpp"
#include "wire/scalar_decoding.hpp"
#include "wire/value_decoding.hpp"

namespace ostrel {

std::optional<AnyValue> Schematizer::value(ByteView data, int64_t fieldNumber,
                                           const TypeSchema& type) {
  const int64_t numbers[] = {fieldNumber};
  return value(data, numbers, type);
}

std::optional<AnyValue> Schematizer::value(ByteView data, std::span<const int64_t> fieldNumbers,
                                           const TypeSchema& type) {
  std::vector<FieldPathComponent> path;
  path.reserve(fieldNumbers.size());
  for (int64_t number : fieldNumbers) path.push_back(FieldPathComponent::fieldNumber(number));
  Reader reader(data);
  std::optional<detail::AnyValueImpl> found = readValue(reader, path, type.description());
  if (!found) return std::nullopt;
  return AnyValue::from(std::move(*found));
}

Schematizer::RepeatableFieldIterator::RepeatableFieldIterator(OwnedData data, int64_t fieldNumber,
                                                              TypeSchema elementType, ReadMode mode)
    : state_(IterationState{detail::firstRepeatedBookmark(mode), std::move(data), fieldNumber,
                            std::move(elementType), mode}) {}

std::optional<AnyValue> Schematizer::RepeatableFieldIterator::next() {
  auto* iterating = std::get_if<IterationState>(&state_);
  if (!iterating) return std::nullopt;
  std::optional<AnyValue> value = detail::nextRepeatedElement(
      iterating->data.view(), iterating->bookmark, iterating->fieldNumber,
      iterating->type.description(), iterating->mode);
  if (!value) state_ = Done{};
  return value;
}

namespace detail {
namespace {

using ArrayType = Schematizer::RepeatableFieldIterator::ArrayType;

std::optional<AnyValue> step(ByteView data, std::optional<RepeatedBookmark>& bookmarkSlot,
                             int64_t fieldNumber, const TypeSchemaDescription& type,
                             ReadMode mode) {
  Reader reader(data);

  if (!bookmarkSlot) {
    const FieldPathComponent path[] = {FieldPathComponent::repeatableFieldNumber(fieldNumber, 0)};
    std::optional<detail::AnyValueImpl> first = readValue(reader, path, type);
    RepeatedBookmark bookmark{ArrayType::regular, 0, reader.position()};
    if (const auto end = reader.lastComponentCompactedArrayEndPosition()) {
      bookmark.arrayType = ArrayType::compacted;
      bookmark.compactedEndPosition = *end;
    }
    bookmarkSlot = bookmark;
    if (!first) return std::nullopt;
    return AnyValue::from(std::move(*first));
  }

  // Past the first element, a packed run is read by nextRepeatedElement itself; only tagged
  // elements remain.
  RepeatedBookmark& bookmark = *bookmarkSlot;
  reader.setPosition(bookmark.startPosition);
  if (!reader.hasMoreFields()) return std::nullopt;
  FieldTag tag = reader.readTag();
  uint32_t skipped = 0;
  for (;;) {
    if (tag.fieldNumber() == fieldNumber) {
      if (mode == ReadMode::first || tag.wireType() != ProtoWireType::lengthDelimited ||
          !detail::factsOf(type.kind()).isFixedEncoding()) {
        break;
      }
      // Exact: a packed run met among tagged elements is iterated too, from its first element.
      const int64_t length = reader.readLength();
      const int64_t start = reader.position();
      const int64_t end = start + length;
      if (end > reader.size()) throw SerializationError::truncated();
      if (length > 0) {
        Reader run = reader.narrowed(start, end);
        detail::AnyValueImpl element = detail::decodeFixedEncoding(run, type);
        if (run.position() > end) throw SerializationError::malformedProtobuf();
        bookmark = RepeatedBookmark{ArrayType::compacted, end, run.position()};
        return AnyValue::from(std::move(element));
      }
    } else {
      reader.skipField(tag);
      // A record of many other fields can take long to step over.
      if ((++skipped & 4095) == 0) detail::pollInterrupt();
    }
    if (!reader.hasMoreFields()) {
      bookmark.startPosition = reader.position();
      return std::nullopt;
    }
    tag = reader.readTag();
  }
  detail::AnyValueImpl element = decodeValue(reader, type, tag);
  bookmark.startPosition = reader.position();
  return AnyValue::from(std::move(element));
}

}  // namespace

std::optional<AnyValue> nextRepeatedElement(ByteView data,
                                            std::optional<RepeatedBookmark>& bookmarkSlot,
                                            int64_t fieldNumber, const TypeSchemaDescription& type,
                                            ReadMode mode) {
  // The elements of a packed run after its first, most of the work of iterating packed fields,
  // are decoded here in place, without the general step's bookkeeping: the bookmark moves past an
  // element only once it has decoded, so a failure leaves the state as it was.
  if (bookmarkSlot && bookmarkSlot->arrayType == ArrayType::compacted) {
    RepeatedBookmark& bookmark = *bookmarkSlot;
    if (bookmark.compactedEndPosition <= bookmark.startPosition) {
      if (mode == ReadMode::first) return std::nullopt;
      // Exact: the search goes on after the run.
      bookmark = RepeatedBookmark{ArrayType::regular, 0, bookmark.compactedEndPosition};
      return nextRepeatedElement(data, bookmarkSlot, fieldNumber, type, mode);
    }
    Reader reader(data);
    reader.setPosition(bookmark.startPosition);
    reader.setEndPosition(bookmark.compactedEndPosition);
    // The value is built straight into the result, once the element has been read.
    return detail::decodeFixedEncodingAs(reader, type, [&](auto value) {
      // An element running over the run's end would hand out bytes of what follows the run.
      if (reader.position() > bookmark.compactedEndPosition) {
        throw SerializationError::malformedProtobuf();
      }
      bookmark.startPosition = reader.position();
      return detail::optionalValue(std::move(value));
    });
  }
  // The step works on the bookmark alone, so a failure leaves the state as it was.
  const std::optional<RepeatedBookmark> before = bookmarkSlot;
  try {
    return step(data, bookmarkSlot, fieldNumber, type, mode);
  } catch (...) {
    bookmarkSlot = before;
    throw;
  }
}

}  // namespace detail

std::optional<int64_t> ProtoFirstOfHelper::firstOf(const std::set<int64_t>& fieldNumbers,
                                                   std::span<const int64_t> path, ByteView data) {
  Reader reader(data);
  for (int64_t number : path) {
    std::optional<FieldTag> found;
    while (reader.hasMoreFields()) {
      const FieldTag tag = reader.readTag();
      if (tag.fieldNumber() == number) {
        found = tag;
        break;
      }
      reader.skipField(tag);
    }
    if (!found) return std::nullopt;
    if (found->wireType() == ProtoWireType::startGroup) {
      const ByteView group = reader.readGroup(found->fieldNumber());
      const int64_t start = group.data() - reader.bytes().data();
      reader = reader.narrowed(start, start + static_cast<int64_t>(group.size()));
      continue;
    }
    if (found->wireType() != ProtoWireType::lengthDelimited) {
      throw SchematizerError::protocolBufferError("Unexpected PB type reading message: " +
                                                  std::string(caseName(found->wireType())));
    }
    // A length claiming more than the buffer holds lets the search run to the buffer's end,
    // where the next tag read fails.
    const int64_t length = reader.readLength();
    const int64_t start = reader.position();
    reader = reader.narrowed(start, start + length);
  }
  while (reader.hasMoreFields()) {
    const FieldTag tag = reader.readTag();
    if (fieldNumbers.contains(tag.fieldNumber())) return tag.fieldNumber();
    reader.skipField(tag);
  }
  return std::nullopt;
}

}  // namespace ostrel
