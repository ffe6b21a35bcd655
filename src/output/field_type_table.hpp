#pragma once

// The write operation of each of the 17 field types, so that writers do not switch over the types.
// What else is known about a type is in core/field_type_facts.hpp.

#include <array>
#include <string_view>

#include "ostrel/core/field_types.hpp"
#include "ostrel/core/values.hpp"
#include "ostrel/output/protobuf_writing.hpp"

namespace ostrel::detail {

// Writes a value of the type's FieldTypeFacts::writtenCase() with the operation of the type.
using FieldWrite = void (*)(ProtobufWriting& writer, const detail::AnyValueImpl& value,
                            int64_t fieldNumber);

inline FieldWrite fieldWrite(TypeSchemaDescription::Case kind) noexcept {
  using W = ProtobufWriting;
  using A = const detail::AnyValueImpl&;
  // Indexed by TypeSchemaDescription::Case.
  static constexpr std::array<FieldWrite, 17> kRows = {{
      /* enum_ */ [](W& w, A v, int64_t n) { w.writeInt32(v.int32Value(), n); },
      /* message */
      [](W& w, A v, int64_t n) { w.writeData(v.messageValue().bytes(), n); },
      /* int32 */
      [](W& w, A v, int64_t n) { w.writeInt32(v.int32Value(), n); },
      /* uint32 */
      [](W& w, A v, int64_t n) { w.writeUint32(v.uint32Value(), n); },
      /* sint32 */
      [](W& w, A v, int64_t n) { w.writeSint32(v.int32Value(), n); },
      /* fixed32 */
      [](W& w, A v, int64_t n) { w.writeFixed32(v.uint32Value(), n); },
      /* sfixed32 */
      [](W& w, A v, int64_t n) { w.writeSfixed32(v.int32Value(), n); },
      /* int64 */
      [](W& w, A v, int64_t n) { w.writeInt64(v.int64Value(), n); },
      /* uint64 */
      [](W& w, A v, int64_t n) { w.writeUint64(v.uint64Value(), n); },
      /* sint64 */
      [](W& w, A v, int64_t n) { w.writeSint64(v.int64Value(), n); },
      /* fixed64 */
      [](W& w, A v, int64_t n) { w.writeFixed64(v.uint64Value(), n); },
      /* sfixed64 */
      [](W& w, A v, int64_t n) { w.writeSfixed64(v.int64Value(), n); },
      /* double_ */
      [](W& w, A v, int64_t n) { w.writeDouble(v.doubleValue(), n); },
      /* float_ */
      [](W& w, A v, int64_t n) { w.writeFloat(v.floatValue(), n); },
      /* bool_ */
      [](W& w, A v, int64_t n) { w.writeBOOL(v.boolValue(), n); },
      /* string */
      [](W& w, A v, int64_t n) { w.writeString(v.stringValue(), n); },
      /* bytes */
      [](W& w, A v, int64_t n) { w.writeData(v.bytesValue().view(), n); },
  }};
  return kRows[static_cast<size_t>(kind)];
}

}  // namespace ostrel::detail
