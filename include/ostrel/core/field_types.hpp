#pragma once

#include <cstdint>
#include <memory>
#include <optional>
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

class EnumSchemaDescribing;
class MessageSchemaDescribing;

// A field type as a schema manifest writes it. The order is that of descriptor.proto's field types
// without groups; the string names are the manifest's own (note "int", "uint", "schema", "data").
enum class TypeManifest : uint8_t {
  double_,
  float_,
  int64,
  uint64,
  int32,
  fixed64,
  fixed32,
  bool_,
  string,
  message,
  bytes,
  uint32,
  enum_,
  sfixed32,
  sfixed64,
  sint32,
  sint64,
};

inline constexpr int kTypeManifestCount = 17;

// The manifest's name of the type, for example "int" for int32.
std::string_view stringName(TypeManifest type) noexcept;

// Exact, case-sensitive match against the seventeen string names; anything else gives no value.
std::optional<TypeManifest> parseTypeManifest(std::string_view name) noexcept;

// The wire type a value of this type is encoded with when it is not packed.
ProtoWireType wireType(TypeManifest type) noexcept;

// A field type as the schema store resolves it; the enum and message cases carry their schema.
// The case order differs from TypeManifest: the two convert by case, never by number.
class TypeSchemaDescription {
 public:
  enum class Case : uint8_t {
    enum_,
    message,
    int32,
    uint32,
    sint32,
    fixed32,
    sfixed32,
    int64,
    uint64,
    sint64,
    fixed64,
    sfixed64,
    double_,
    float_,
    bool_,
    string,
    bytes,
  };

  // A scalar case. `scalarCase` must not be enum_ or message (those need their schema).
  static TypeSchemaDescription scalar(Case scalarCase);
  static TypeSchemaDescription enumType(std::shared_ptr<EnumSchemaDescribing> schema);
  static TypeSchemaDescription messageType(std::shared_ptr<MessageSchemaDescribing> schema);

  // The scalar case of the same name as `type`, or no value for message and enum.
  static std::optional<Case> scalarCaseOf(TypeManifest type) noexcept;

  Case kind() const noexcept { return kind_; }
  bool isScalar() const noexcept { return kind_ != Case::enum_ && kind_ != Case::message; }

  // The schema of an enum_ or message case; null for the scalar cases.
  const std::shared_ptr<EnumSchemaDescribing>& enumSchema() const noexcept { return enum_; }
  const std::shared_ptr<MessageSchemaDescribing>& messageSchema() const noexcept {
    return message_;
  }

  // The case name, for example "sint32"; enum and message add the schema name in parentheses.
  std::string describe() const;

  // Same case and, for enum and message, the same schema name.
  friend bool operator==(const TypeSchemaDescription& a, const TypeSchemaDescription& b);

 private:
  explicit TypeSchemaDescription(Case kind) : kind_(kind) {}

  Case kind_;
  std::shared_ptr<EnumSchemaDescribing> enum_;
  std::shared_ptr<MessageSchemaDescribing> message_;
};

// The case name of a TypeSchemaDescription case, for example "double".
std::string_view caseName(TypeSchemaDescription::Case kind) noexcept;

// The wire type a value of this type is encoded with when it is not packed.
ProtoWireType wireType(TypeSchemaDescription::Case kind) noexcept;

}  // namespace ostrel
