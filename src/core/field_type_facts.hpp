#pragma once

// What the library knows about each of the 17 field types, in one table: its names, its wire type,
// the value a read gives, its JSON default. Decoding, rendering, JSON encoding, writing, the
// projections and the SQL builders look a type up here instead of switching over the types.

#include <array>
#include <cstddef>
#include <string_view>

#include "ostrel/core/field_types.hpp"
#include "ostrel/core/values.hpp"

namespace ostrel::detail {

struct FieldTypeFacts {
  TypeSchemaDescription::Case kind;
  // The same type as a manifest writes it.
  TypeManifest manifestType;
  // The case name, for example "sint32".
  std::string_view caseName;
  // The manifest's name, for example "int" for int32.
  std::string_view manifestName;
  // The wire type of one unpacked value. Only a message also takes a second one, a group.
  ProtoWireType wireType;
  // The value case a read gives: an enum field reads as an enum value, written as its int32 number.
  AnyValueImpl::Case valueCase;
  // The JSON text of the type's default value; empty for enum, whose default is its value 0.
  std::string_view jsonDefault;
  // The words a schema description uses for a scalar type; empty for enum and message, whose
  // description names their schema.
  std::string_view description;
  // Whether the value is stored ZigZag encoded (sint32, sint64).
  bool zigZag = false;

  // Whether a value's encoding follows from its type alone, and whether the type can be packed:
  // every type but message, string and bytes.
  constexpr bool isFixedEncoding() const noexcept {
    return wireType != ProtoWireType::lengthDelimited;
  }
  // Whether a map key may have this type: the integer types, bool and string.
  constexpr bool isMapKey() const noexcept {
    return valueCase != AnyValueImpl::Case::float_ && valueCase != AnyValueImpl::Case::double_ &&
           valueCase != AnyValueImpl::Case::enum_ && valueCase != AnyValueImpl::Case::bytes &&
           valueCase != AnyValueImpl::Case::message;
  }
  // The value case a writer takes for this type.
  constexpr AnyValueImpl::Case writtenCase() const noexcept {
    return valueCase == AnyValueImpl::Case::enum_ ? AnyValueImpl::Case::int32 : valueCase;
  }
};

namespace field_type_facts {

using C = TypeSchemaDescription::Case;
using M = TypeManifest;
using W = ProtoWireType;
using V = AnyValueImpl::Case;

// Indexed by TypeSchemaDescription::Case.
inline constexpr std::array<FieldTypeFacts, 17> kRows = {{
    {C::enum_, M::enum_, "enum", "enum", W::varInt, V::enum_, "", ""},
    {C::message, M::message, "message", "schema", W::lengthDelimited, V::message, "{}", ""},
    {C::int32, M::int32, "int32", "int", W::varInt, V::int32, "0", "signed integer 32"},
    {C::uint32, M::uint32, "uint32", "uint", W::varInt, V::uint32, "0", "unsigned integer 32"},
    {C::sint32, M::sint32, "sint32", "sint32", W::varInt, V::int32, "0",
     "ZigZag encoded signed integer 32", true},
    {C::fixed32, M::fixed32, "fixed32", "fixed32", W::fixed32, V::uint32, "0",
     "fixed unsigned integer 32"},
    {C::sfixed32, M::sfixed32, "sfixed32", "sfixed32", W::fixed32, V::int32, "0",
     "fixed signed integer 32"},
    {C::int64, M::int64, "int64", "int64", W::varInt, V::int64, "\"0\"", "signed integer 64"},
    {C::uint64, M::uint64, "uint64", "uint64", W::varInt, V::uint64, "\"0\"",
     "unsigned integer 64"},
    {C::sint64, M::sint64, "sint64", "sint64", W::varInt, V::int64, "\"0\"",
     "ZigZag encoded signed integer 64", true},
    {C::fixed64, M::fixed64, "fixed64", "fixed64", W::fixed64, V::uint64, "\"0\"",
     "fixed unsigned integer 64"},
    {C::sfixed64, M::sfixed64, "sfixed64", "sfixed64", W::fixed64, V::int64, "\"0\"",
     "fixed signed integer 64"},
    {C::double_, M::double_, "double", "double", W::fixed64, V::double_, "0",
     "double floating point"},
    {C::float_, M::float_, "float", "float", W::fixed32, V::float_, "0", "floating point"},
    {C::bool_, M::bool_, "bool", "bool", W::varInt, V::bool_, "false", "boolean"},
    {C::string, M::string, "string", "string", W::lengthDelimited, V::string, "\"\"",
     "text string"},
    {C::bytes, M::bytes, "bytes", "data", W::lengthDelimited, V::bytes, "\"\"", "binary data"},
}};

// Each row at its own case's index.
static_assert([] {
  for (size_t i = 0; i < kRows.size(); ++i) {
    if (static_cast<size_t>(kRows[i].kind) != i) return false;
  }
  return true;
}());

// The row index of each TypeManifest case.
inline constexpr std::array<C, kTypeManifestCount> kByManifest = [] {
  std::array<C, kTypeManifestCount> index{};
  for (const FieldTypeFacts& row : kRows) index[static_cast<size_t>(row.manifestType)] = row.kind;
  return index;
}();

}  // namespace field_type_facts

constexpr const FieldTypeFacts& factsOf(TypeSchemaDescription::Case kind) noexcept {
  return field_type_facts::kRows[static_cast<size_t>(kind)];
}

constexpr const FieldTypeFacts& factsOf(TypeManifest type) noexcept {
  return factsOf(field_type_facts::kByManifest[static_cast<size_t>(type)]);
}

}  // namespace ostrel::detail
