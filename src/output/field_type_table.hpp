#pragma once

// One row for each of the 17 field types: what rendering, JSON encoding and protobuf writing need
// to know about a type, so that none of them switches over the types on its own.

#include <array>
#include <string_view>

#include "ostrel/core/field_types.hpp"
#include "ostrel/core/values.hpp"
#include "ostrel/output/protobuf_writing.hpp"

namespace ostrel::detail {

struct FieldTypeRow {
  // The value case a field of this type takes when written: an enum field takes an int32 number.
  detail::AnyValueImpl::Case valueCase;
  // The JSON text of the type's default value; empty for enum, whose default is its value 0.
  std::string_view jsonDefault;
  // Whether the type can be packed (scalars only).
  bool packable;
  // Writes a value of `valueCase` with the operation of this type.
  void (*write)(ProtobufWriting& writer, const detail::AnyValueImpl& value, int64_t fieldNumber);
};

inline const FieldTypeRow& fieldTypeRow(TypeSchemaDescription::Case kind) noexcept {
  using V = detail::AnyValueImpl::Case;
  using W = ProtobufWriting;
  using A = const detail::AnyValueImpl&;
  // Indexed by TypeSchemaDescription::Case.
  static constexpr std::array<FieldTypeRow, 17> kRows = {{
      /* enum_ */ {V::int32, "", true,
                   [](W& w, A v, int64_t n) { w.writeInt32(v.int32Value(), n); }},
      /* message */
      {V::message, "{}", false,
       [](W& w, A v, int64_t n) { w.writeData(v.messageValue().bytes(), n); }},
      /* int32 */
      {V::int32, "0", true, [](W& w, A v, int64_t n) { w.writeInt32(v.int32Value(), n); }},
      /* uint32 */
      {V::uint32, "0", true, [](W& w, A v, int64_t n) { w.writeUint32(v.uint32Value(), n); }},
      /* sint32 */
      {V::int32, "0", true, [](W& w, A v, int64_t n) { w.writeSint32(v.int32Value(), n); }},
      /* fixed32 */
      {V::uint32, "0", true, [](W& w, A v, int64_t n) { w.writeFixed32(v.uint32Value(), n); }},
      /* sfixed32 */
      {V::int32, "0", true, [](W& w, A v, int64_t n) { w.writeSfixed32(v.int32Value(), n); }},
      /* int64 */
      {V::int64, "\"0\"", true, [](W& w, A v, int64_t n) { w.writeInt64(v.int64Value(), n); }},
      /* uint64 */
      {V::uint64, "\"0\"", true, [](W& w, A v, int64_t n) { w.writeUint64(v.uint64Value(), n); }},
      /* sint64 */
      {V::int64, "\"0\"", true, [](W& w, A v, int64_t n) { w.writeSint64(v.int64Value(), n); }},
      /* fixed64 */
      {V::uint64, "\"0\"", true, [](W& w, A v, int64_t n) { w.writeFixed64(v.uint64Value(), n); }},
      /* sfixed64 */
      {V::int64, "\"0\"", true, [](W& w, A v, int64_t n) { w.writeSfixed64(v.int64Value(), n); }},
      /* double_ */
      {V::double_, "0", true, [](W& w, A v, int64_t n) { w.writeDouble(v.doubleValue(), n); }},
      /* float_ */
      {V::float_, "0", true, [](W& w, A v, int64_t n) { w.writeFloat(v.floatValue(), n); }},
      /* bool_ */
      {V::bool_, "false", true, [](W& w, A v, int64_t n) { w.writeBOOL(v.boolValue(), n); }},
      /* string */
      {V::string, "\"\"", false, [](W& w, A v, int64_t n) { w.writeString(v.stringValue(), n); }},
      /* bytes */
      {V::bytes, "\"\"", false,
       [](W& w, A v, int64_t n) { w.writeData(v.bytesValue().view(), n); }},
  }};
  return kRows[static_cast<size_t>(kind)];
}

}  // namespace ostrel::detail
