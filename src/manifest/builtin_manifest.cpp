#include <initializer_list>
#include <string>
#include <utility>

#include "ostrel/manifest/manifest_data.hpp"

namespace ostrel {
namespace {

constexpr const char* kPackage = "google.protobuf.";

struct FieldRow {
  const char* name;
  TypeManifest type;
  int64_t number;
  bool repeated = false;
  const char* typeName = nullptr;  // without the package
};

MessageManifest messageOf(std::initializer_list<FieldRow> rows) {
  MessageManifest message;
  for (const FieldRow& row : rows) {
    FieldManifest field{.type = row.type, .fieldNumber = row.number, .isRepeated = row.repeated};
    if (row.typeName) field.typeName = std::string(kPackage) + row.typeName;
    message.fields.emplace(row.name, std::move(field));
  }
  return message;
}

SchemaManifest build() {
  using T = TypeManifest;
  SchemaManifest manifest;
  auto& m = manifest.messages;
  const std::string p = kPackage;
  m[p + "FileDescriptorSet"] = messageOf({{"file", T::message, 1, true, "FileDescriptorProto"}});
  m[p + "FileDescriptorProto"] = messageOf({
      {"name", T::string, 1},
      {"package", T::string, 2},
      {"message_type", T::message, 4, true, "DescriptorProto"},
      {"enum_type", T::message, 5, true, "EnumDescriptorProto"},
      {"extension", T::message, 7, true, "FieldDescriptorProto"},
  });
  m[p + "DescriptorProto"] = messageOf({
      {"name", T::string, 1},
      {"field", T::message, 2, true, "FieldDescriptorProto"},
      {"nested_type", T::message, 3, true, "DescriptorProto"},
      {"enum_type", T::message, 4, true, "EnumDescriptorProto"},
      {"extension", T::message, 6, true, "FieldDescriptorProto"},
      {"options", T::message, 7, false, "MessageOptions"},
      {"oneof_decl", T::message, 8, true, "OneofDescriptorProto"},
  });
  m[p + "EnumDescriptorProto"] = messageOf({
      {"name", T::string, 1},
      {"value", T::message, 2, true, "EnumValueDescriptorProto"},
      {"options", T::message, 3, false, "EnumOptions"},
  });
  m[p + "EnumValueDescriptorProto"] = messageOf({
      {"name", T::string, 1},
      {"number", T::int32, 2},
      {"options", T::message, 3, false, "EnumValueOptions"},
  });
  m[p + "FieldDescriptorProto"] = messageOf({
      {"name", T::string, 1},
      {"extendee", T::string, 2},
      {"number", T::int32, 3},
      {"label", T::enum_, 4, false, "FieldDescriptorProto.Label"},
      {"type", T::enum_, 5, false, "FieldDescriptorProto.Type"},
      {"type_name", T::string, 6},
      {"options", T::message, 8, false, "FieldOptions"},
      {"oneof_index", T::int32, 9},
  });
  m[p + "OneofDescriptorProto"] = messageOf({
      {"name", T::string, 1},
      {"options", T::message, 2, false, "OneofOptions"},
  });
  for (const char* options :
       {"MessageOptions", "FieldOptions", "OneofOptions", "EnumOptions", "EnumValueOptions"}) {
    m[p + options] = MessageManifest{};
  }

  manifest.enums[p + "FieldDescriptorProto.Label"].values = {
      {"LABEL_OPTIONAL", 1}, {"LABEL_REQUIRED", 2}, {"LABEL_REPEATED", 3}};
  manifest.enums[p + "FieldDescriptorProto.Type"].values = {
      {"TYPE_DOUBLE", 1},  {"TYPE_FLOAT", 2},   {"TYPE_INT64", 3},     {"TYPE_UINT64", 4},
      {"TYPE_INT32", 5},   {"TYPE_FIXED64", 6}, {"TYPE_FIXED32", 7},   {"TYPE_BOOL", 8},
      {"TYPE_STRING", 9},  {"TYPE_GROUP", 10},  {"TYPE_MESSAGE", 11},  {"TYPE_BYTES", 12},
      {"TYPE_UINT32", 13}, {"TYPE_ENUM", 14},   {"TYPE_SFIXED32", 15}, {"TYPE_SFIXED64", 16},
      {"TYPE_SINT32", 17}, {"TYPE_SINT64", 18},
  };
  return manifest;
}

}  // namespace

const SchemaManifest& builtinDescriptorManifest() {
  // A function-local static: its initialisation runs once, and concurrent first callers wait.
  static const SchemaManifest manifest = build();
  return manifest;
}

}  // namespace ostrel
