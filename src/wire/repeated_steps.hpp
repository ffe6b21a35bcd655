#pragma once

// One step of the iteration over a repeated field, on bytes the caller holds: what
// Schematizer::RepeatableFieldIterator does over its own buffer and RepeatedField's ranges do over
// a borrowed one.

#include <cstdint>
#include <optional>

#include "ostrel/core/values.hpp"
#include "ostrel/wire/schematizer.hpp"

namespace ostrel::detail {

using RepeatedBookmark = Schematizer::RepeatableFieldIterator::Bookmark;

// The element of field `fieldNumber` of `data` that follows `bookmark` (absent: the first one),
// decoded as `type`, moving the bookmark past it; no value once the field is exhausted. `data`
// must be the same bytes at every step. A failure is thrown and leaves `bookmark` as it was.
std::optional<AnyValue> nextRepeatedElement(ByteView data,
                                            std::optional<RepeatedBookmark>& bookmark,
                                            int64_t fieldNumber, const TypeSchemaDescription& type,
                                            ReadMode mode);

// The bookmark an iteration starts from: none for ReadMode::first (the first occurrence decides
// the encoding), the start of the bytes for ReadMode::exact (every occurrence is visited).
inline std::optional<RepeatedBookmark> firstRepeatedBookmark(ReadMode mode) noexcept {
  if (mode == ReadMode::first) return std::nullopt;
  return RepeatedBookmark{Schematizer::RepeatableFieldIterator::ArrayType::regular, 0, 0};
}

}  // namespace ostrel::detail
