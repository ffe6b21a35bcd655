#include <google/protobuf/descriptor.pb.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <variant>
#include <vector>

#include "manifest/descriptor_test_support.hpp"
#include "ostrel/manifest/manifest_data.hpp"
#include "ostrel/manifest/typed_import.hpp"
#include "store/proto_schema_store.hpp"
#include "support/test_support.hpp"

namespace ostrel {
namespace {

namespace pb = google::protobuf;
using testing_support::catchError;
using testing_support::generatedPath;
using testing_support::kDescriptorSets;
using testing_support::parseSet;
using testing_support::readGenerated;
using testing_support::serialize;

SchemaManifest importBytes(ByteView bytes) { return schemaManifestFromDescriptorSet(bytes); }

SchemaManifest importTyped(ByteView bytes) {
  return schemaManifestFromDescriptorSet(parseSet(bytes));
}

// ---------------------------------------------------------------------------------------------
// Hand encoding, for descriptors libprotobuf would not write.

std::string varint(uint64_t value) {
  std::string out;
  while (value >= 0x80) {
    out.push_back(static_cast<char>((value & 0x7F) | 0x80));
    value >>= 7;
  }
  out.push_back(static_cast<char>(value));
  return out;
}

std::string varintField(int number, uint64_t value) {
  return varint(static_cast<uint64_t>(number) << 3) + varint(value);
}

std::string lengthField(int number, std::string_view payload) {
  return varint((static_cast<uint64_t>(number) << 3) | 2) + varint(payload.size()) +
         std::string(payload);
}

// A set of one file holding `fileBody`.
std::string setOf(std::string_view fileBody) { return lengthField(1, fileBody); }

// A set of one file holding message "M" with one field of `fieldBody`.
std::string setWithField(std::string_view fieldBody) {
  return setOf(lengthField(4, lengthField(1, "M") + lengthField(2, fieldBody)));
}

// Field "a", number 1, type int32.
const std::string kValidField = lengthField(1, "a") + varintField(3, 1) + varintField(5, 5);

// ---------------------------------------------------------------------------------------------
// Navigation in parsed descriptor sets, for the values libprotobuf itself holds.

const pb::DescriptorProto* findMessageIn(const pb::DescriptorProto& message,
                                         const std::string& prefix, const std::string& name) {
  const std::string full = prefix + message.name();
  if (full == name) return &message;
  for (const pb::DescriptorProto& nested : message.nested_type()) {
    if (const auto* found = findMessageIn(nested, full + ".", name)) return found;
  }
  return nullptr;
}

const pb::DescriptorProto& messageNamed(const pb::FileDescriptorSet& set, const std::string& name) {
  for (const pb::FileDescriptorProto& file : set.file()) {
    const std::string prefix = file.package().empty() ? "" : file.package() + ".";
    for (const pb::DescriptorProto& message : file.message_type()) {
      if (const auto* found = findMessageIn(message, prefix, name)) return *found;
    }
  }
  ADD_FAILURE() << "no message " << name;
  static const pb::DescriptorProto empty;
  return empty;
}

// A field or extension declared anywhere in the set under `name`.
const pb::FieldDescriptorProto& fieldNamed(const pb::FileDescriptorSet& set,
                                           const std::string& message, const std::string& name) {
  for (const pb::FieldDescriptorProto& field : messageNamed(set, message).field()) {
    if (field.name() == name) return field;
  }
  std::function<const pb::FieldDescriptorProto*(const pb::DescriptorProto&)> inMessage =
      [&](const pb::DescriptorProto& m) -> const pb::FieldDescriptorProto* {
    for (const auto& extension : m.extension()) {
      if (extension.name() == name) return &extension;
    }
    for (const auto& nested : m.nested_type()) {
      if (const auto* found = inMessage(nested)) return found;
    }
    return nullptr;
  };
  for (const pb::FileDescriptorProto& file : set.file()) {
    for (const auto& extension : file.extension()) {
      if (extension.name() == name) return extension;
    }
    for (const auto& m : file.message_type()) {
      if (const auto* found = inMessage(m)) return *found;
    }
  }
  ADD_FAILURE() << "no field " << name;
  static const pb::FieldDescriptorProto empty;
  return empty;
}

template <typename Options>
Bytes optionsBytes(const Options& options) {
  return serialize(options);
}

// ---------------------------------------------------------------------------------------------
// Both importers over real descriptor sets

TEST(DescriptorSetImport, BothImportersGiveTheSameManifest) {
  for (const char* name : kDescriptorSets) {
    SCOPED_TRACE(name);
    const Bytes bytes = readGenerated(name);
    const SchemaManifest schematized = importBytes(bytes);
    EXPECT_FALSE(schematized.messages.empty());
    EXPECT_EQ(schematized, importTyped(bytes));
  }
}

TEST(DescriptorSetImport, KeysAreFullyQualifiedWithoutLeadingDot) {
  struct Row {
    const char* name;
    const char* set;
    std::vector<std::string> messages;
    std::vector<std::string> enums;
  };
  const Row rows[] = {
      {"package and nesting",
       "import/catalog.desc",
       {"ostrel.imp.Early", "ostrel.imp.Catalog", "ostrel.imp.Catalog.Entry",
        "ostrel.imp.Catalog.Entry.Detail", "ostrel.imp.Holder", "ostrel.imp.Holder.Inner",
        "google.protobuf.FieldOptions", "google.protobuf.FileDescriptorSet"},
       {"ostrel.imp.Status", "ostrel.imp.Catalog.Entry.Kind",
        "google.protobuf.FieldDescriptorProto.Type"}},
      {"dotted package and map entries",
       "import/shapes.desc",
       {"ostrel.imp.shapes.v1.Point", "ostrel.imp.shapes.v1.Shape",
        "ostrel.imp.shapes.v1.Shape.Circle", "ostrel.imp.shapes.v1.Shape.AnchorsEntry",
        "ostrel.imp.shapes.v1.Shape.EntriesEntry", "ostrel.imp.Catalog"},
       {"ostrel.imp.shapes.v1.Shape.Fill"}},
      {"no package", "import/plain.desc", {"Vec", "Outer", "Outer.Inner"}, {"Axis"}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const SchemaManifest manifest = importBytes(readGenerated(row.set));
    for (const std::string& key : row.messages) EXPECT_TRUE(manifest.messages.contains(key)) << key;
    for (const std::string& key : row.enums) EXPECT_TRUE(manifest.enums.contains(key)) << key;
    for (const auto& [key, message] : manifest.messages) EXPECT_NE(key.front(), '.') << key;
  }
  const SchemaManifest plain = importBytes(readGenerated("import/plain.desc"));
  EXPECT_EQ(plain.messages.size(), 3u);
  EXPECT_EQ(plain.enums.size(), 1u);
}

TEST(DescriptorSetImport, FieldsAreReadFieldByField) {
  const Bytes catalogBytes = readGenerated("import/catalog.desc");
  const Bytes shapesBytes = readGenerated("import/shapes.desc");
  const pb::FileDescriptorSet catalog = parseSet(catalogBytes);
  const pb::FileDescriptorSet shapes = parseSet(shapesBytes);
  const SchemaManifest catalogManifest = importBytes(catalogBytes);
  const SchemaManifest shapesManifest = importBytes(shapesBytes);

  using T = TypeManifest;
  const std::string c = "ostrel.imp.Catalog";
  const std::string s = "ostrel.imp.shapes.v1.Shape";
  struct Row {
    const char* name;
    const SchemaManifest& manifest;
    std::string message;
    std::string field;
    FieldManifest expected;
  };
  const auto options = [&](const pb::FileDescriptorSet& set, const std::string& message,
                           const std::string& field) {
    return optionsBytes(fieldNamed(set, message, field).options());
  };
  const Row rows[] = {
      {"required string with options",
       catalogManifest,
       c,
       "title",
       {.type = T::string, .fieldNumber = 1, .options = options(catalog, c, "title")}},
      {"repeated message",
       catalogManifest,
       c,
       "entries",
       {.type = T::message,
        .typeName = "ostrel.imp.Catalog.Entry",
        .fieldNumber = 2,
        .isRepeated = true}},
      {"enum with a default",
       catalogManifest,
       c,
       "status",
       {.type = T::enum_, .typeName = "ostrel.imp.Status", .fieldNumber = 3}},
      {"oneof member with options",
       catalogManifest,
       c,
       "note",
       {.type = T::string,
        .fieldNumber = 4,
        .oneofIndex = 0,
        .options = options(catalog, c, "note")}},
      {"extension declared before its extendee",
       catalogManifest,
       c,
       "early_note",
       {.type = T::string, .fieldNumber = 200}},
      {"file-level extension", catalogManifest, c, "rank", {.type = T::int32, .fieldNumber = 101}},
      {"repeated enum extension",
       catalogManifest,
       c,
       "history",
       {.type = T::enum_, .typeName = "ostrel.imp.Status", .fieldNumber = 102, .isRepeated = true}},
      {"extension declared in a nested message",
       catalogManifest,
       c,
       "inner_ext",
       {.type = T::message, .typeName = "ostrel.imp.Holder.Inner", .fieldNumber = 103}},
      {"packed sint64",
       catalogManifest,
       c + ".Entry.Detail",
       "marks",
       {.type = T::sint64,
        .fieldNumber = 2,
        .isRepeated = true,
        .options = options(catalog, c + ".Entry.Detail", "marks")}},
      {"repeated fixed32",
       catalogManifest,
       c + ".Entry",
       "codes",
       {.type = T::fixed32, .fieldNumber = 4, .isRepeated = true}},
      {"reference written with a leading dot",
       catalogManifest,
       "ostrel.imp.Holder",
       "kind",
       {.type = T::enum_, .typeName = "ostrel.imp.Catalog.Entry.Kind", .fieldNumber = 2}},
      {"proto3 optional",
       shapesManifest,
       s,
       "scale",
       {.type = T::double_, .fieldNumber = 3, .oneofIndex = 2}},
      {"map",
       shapesManifest,
       s,
       "anchors",
       {.type = T::message,
        .typeName = "ostrel.imp.shapes.v1.Shape.AnchorsEntry",
        .fieldNumber = 4,
        .isRepeated = true}},
      {"map entry value across packages",
       shapesManifest,
       s + ".EntriesEntry",
       "value",
       {.type = T::message, .typeName = "ostrel.imp.Catalog.Entry", .fieldNumber = 2}},
      {"second oneof",
       shapesManifest,
       s,
       "inline_data",
       {.type = T::bytes, .fieldNumber = 9, .oneofIndex = 1}},
      {"packed repeated enum",
       shapesManifest,
       s,
       "fills",
       {.type = T::enum_,
        .typeName = "ostrel.imp.shapes.v1.Shape.Fill",
        .fieldNumber = 6,
        .isRepeated = true}},
      {"sfixed64", shapesManifest, s, "id", {.type = T::sfixed64, .fieldNumber = 10}},
      {"sint32", shapesManifest, s, "delta", {.type = T::sint32, .fieldNumber = 17}},
      {"enum referred to by a partly qualified name",
       shapesManifest,
       s,
       "fill",
       {.type = T::enum_, .typeName = "ostrel.imp.shapes.v1.Shape.Fill", .fieldNumber = 19}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const auto message = row.manifest.messages.find(row.message);
    ASSERT_NE(message, row.manifest.messages.end());
    const auto field = message->second.fields.find(row.field);
    ASSERT_NE(field, message->second.fields.end());
    EXPECT_EQ(field->second, row.expected);
  }
  // The options rows above must not compare empty buffers with each other.
  EXPECT_GT(options(catalog, c, "title").size(), 2u);
  EXPECT_GT(options(catalog, c, "note").size(), 2u);
}

TEST(DescriptorSetImport, MessagesAndEnumsKeepTheirOptionsAndOneofs) {
  const Bytes catalogBytes = readGenerated("import/catalog.desc");
  const Bytes shapesBytes = readGenerated("import/shapes.desc");
  const pb::FileDescriptorSet catalog = parseSet(catalogBytes);
  const pb::FileDescriptorSet shapes = parseSet(shapesBytes);
  const SchemaManifest catalogManifest = importBytes(catalogBytes);
  const SchemaManifest shapesManifest = importBytes(shapesBytes);

  // Early's extension created Catalog's entry: Catalog's own definition added its fields and
  // options, but the entry kept its (empty) oneof list.
  const MessageManifest& catalogMessage = catalogManifest.messages.at("ostrel.imp.Catalog");
  EXPECT_EQ(catalogMessage.options,
            RawOptions(optionsBytes(messageNamed(catalog, "ostrel.imp.Catalog").options())));
  EXPECT_TRUE(catalogMessage.oneofs.empty());
  EXPECT_EQ(catalogMessage.fields.size(), 9u);

  const MessageManifest& shape = shapesManifest.messages.at("ostrel.imp.shapes.v1.Shape");
  const auto& shapeDescriptor = messageNamed(shapes, "ostrel.imp.shapes.v1.Shape");
  ASSERT_EQ(shape.oneofs.size(), 4u);
  const char* const oneofNames[] = {"geometry", "source", "_scale", "_label"};
  for (size_t i = 0; i < shape.oneofs.size(); ++i) {
    SCOPED_TRACE(oneofNames[i]);
    EXPECT_EQ(shape.oneofs[i], (OneofManifest{.name = oneofNames[i]}));
    EXPECT_EQ(shapeDescriptor.oneof_decl(static_cast<int>(i)).name(), oneofNames[i]);
  }
  EXPECT_EQ(shape.options, std::nullopt);
  const MessageManifest& anchors =
      shapesManifest.messages.at("ostrel.imp.shapes.v1.Shape.AnchorsEntry");
  EXPECT_EQ(anchors.options, RawOptions(toBytes(std::string_view("\x38\x01", 2))));  // map_entry

  const EnumManifest& status = catalogManifest.enums.at("ostrel.imp.Status");
  const pb::EnumDescriptorProto& statusDescriptor = catalog.file(2).enum_type(0);
  ASSERT_EQ(statusDescriptor.name(), "Status");
  EXPECT_EQ(status.values, (std::map<std::string, int64_t, std::less<>>{
                               {"ACTIVE", 1}, {"ENABLED", 1}, {"RETIRED", 2}, {"NEGATIVE", -5}}));
  EXPECT_EQ(status.options, RawOptions(optionsBytes(statusDescriptor.options())));
  // The alias ENABLED comes later than ACTIVE and overwrites the options of number 1.
  EXPECT_EQ(status.valueOptions,
            (std::map<int64_t, Bytes>{{1, optionsBytes(statusDescriptor.value(1).options())},
                                      {-5, optionsBytes(statusDescriptor.value(3).options())}}));
  EXPECT_NE(optionsBytes(statusDescriptor.value(0).options()),
            optionsBytes(statusDescriptor.value(1).options()));
}

// The built-in descriptor schemas are descriptor.proto's cut down to what an import reads: each
// field they keep is the field descriptor.proto declares, each enum has its values.
TEST(DescriptorSetImport, BuiltinDescriptorSchemasAreDescriptorProtos) {
  const SchemaManifest declared = importBytes(readGenerated("descriptor.desc"));
  const SchemaManifest& builtin = builtinDescriptorManifest();
  EXPECT_GE(builtin.messages.size(), 8u);
  for (const auto& [name, message] : builtin.messages) {
    SCOPED_TRACE(name);
    ASSERT_TRUE(declared.messages.contains(name));
    for (const auto& [fieldName, field] : message.fields) {
      SCOPED_TRACE(fieldName);
      ASSERT_TRUE(declared.messages.at(name).fields.contains(fieldName));
      FieldManifest expected = declared.messages.at(name).fields.at(fieldName);
      expected.options.reset();
      EXPECT_EQ(field, expected);
    }
  }
  for (const auto& [name, enumManifest] : builtin.enums) {
    SCOPED_TRACE(name);
    ASSERT_TRUE(declared.enums.contains(name));
    EXPECT_EQ(enumManifest.values, declared.enums.at(name).values);
  }
}

TEST(DescriptorSetImport, EmptyBufferIsAnEmptyManifest) {
  EXPECT_EQ(importBytes({}), SchemaManifest{});
  EXPECT_EQ(schemaManifestFromDescriptorSet(pb::FileDescriptorSet{}), SchemaManifest{});
}

// ---------------------------------------------------------------------------------------------
// Descriptor sets built with libprotobuf, through both importers

pb::FileDescriptorProto baseFile() {
  pb::FileDescriptorProto file;
  file.set_name("t.proto");
  file.set_package("t");
  pb::DescriptorProto* message = file.add_message_type();
  message->set_name("M");
  pb::FieldDescriptorProto* field = message->add_field();
  field->set_name("a");
  field->set_number(1);
  field->set_label(pb::FieldDescriptorProto::LABEL_OPTIONAL);
  field->set_type(pb::FieldDescriptorProto::TYPE_INT32);
  field->set_oneof_index(0);
  message->add_oneof_decl()->set_name("choice");
  pb::EnumDescriptorProto* enumType = file.add_enum_type();
  enumType->set_name("E");
  pb::EnumValueDescriptorProto* value = enumType->add_value();
  value->set_name("ZERO");
  value->set_number(0);
  pb::FieldDescriptorProto* extension = file.add_extension();
  extension->set_name("ext");
  extension->set_number(100);
  extension->set_label(pb::FieldDescriptorProto::LABEL_REPEATED);
  extension->set_type(pb::FieldDescriptorProto::TYPE_STRING);
  extension->set_extendee(".t.M");
  return file;
}

pb::FileDescriptorSet baseSet() {
  pb::FileDescriptorSet set;
  *set.add_file() = baseFile();
  return set;
}

SchemaManifest baseManifest() {
  SchemaManifest manifest;
  MessageManifest& message = manifest.messages["t.M"];
  message.fields["a"] = {.type = TypeManifest::int32, .fieldNumber = 1, .oneofIndex = 0};
  message.fields["ext"] = {.type = TypeManifest::string, .fieldNumber = 100, .isRepeated = true};
  message.oneofs = {{.name = "choice"}};
  manifest.enums["t.E"].values = {{"ZERO", 0}};
  return manifest;
}

pb::DescriptorProto& messageM(pb::FileDescriptorSet& set) {
  return *set.mutable_file(0)->mutable_message_type(0);
}

TEST(DescriptorSetImport, HandBuiltSetsImportAlike) {
  struct Row {
    const char* name;
    std::function<void(pb::FileDescriptorSet&)> change;
    std::function<void(SchemaManifest&)> expect;
  };
  const Row rows[] = {
      {"unchanged", [](pb::FileDescriptorSet&) {}, [](SchemaManifest&) {}},
      {"the same file twice", [](pb::FileDescriptorSet& set) { *set.add_file() = baseFile(); },
       [](SchemaManifest&) {}},
      {"package with empty pieces",
       [](pb::FileDescriptorSet& set) {
         set.mutable_file(0)->set_package(".t..");
         set.mutable_file(0)->mutable_extension(0)->set_extendee("t..M.");
       },
       [](SchemaManifest&) {}},
      {"no package",
       [](pb::FileDescriptorSet& set) {
         set.mutable_file(0)->clear_package();
         set.mutable_file(0)->mutable_extension(0)->set_extendee("M");
       },
       [](SchemaManifest& m) {
         m.messages["M"] = m.messages["t.M"];
         m.messages.erase("t.M");
         m.enums["E"] = m.enums["t.E"];
         m.enums.erase("t.E");
       }},
      {"type name normalised",
       [](pb::FileDescriptorSet& set) {
         auto* field = messageM(set).add_field();
         field->set_name("b");
         field->set_number(2);
         field->set_type(pb::FieldDescriptorProto::TYPE_MESSAGE);
         field->set_type_name("..t...M");
       },
       [](SchemaManifest& m) {
         m.messages["t.M"].fields["b"] = {
             .type = TypeManifest::message, .typeName = "t.M", .fieldNumber = 2};
       }},
      {"required label is not repeated",
       [](pb::FileDescriptorSet& set) {
         messageM(set).mutable_field(0)->set_label(pb::FieldDescriptorProto::LABEL_REQUIRED);
       },
       [](SchemaManifest&) {}},
      {"absent label is not repeated",
       [](pb::FileDescriptorSet& set) { messageM(set).mutable_field(0)->clear_label(); },
       [](SchemaManifest&) {}},
      {"ignored descriptor parts",
       [](pb::FileDescriptorSet& set) {
         pb::FileDescriptorProto& file = *set.mutable_file(0);
         file.set_syntax("proto2");
         file.add_dependency("other.proto");
         file.mutable_options()->set_java_package("x");
         file.add_service()->set_name("S");
         pb::FieldDescriptorProto& field = *messageM(set).mutable_field(0);
         field.set_default_value("7");
         field.set_json_name("aa");
         field.set_proto3_optional(true);
         messageM(set).add_reserved_name("gone");
         messageM(set).add_extension_range()->set_start(100);
       },
       [](SchemaManifest&) {}},
      {"second field of one name replaces the first",
       [](pb::FileDescriptorSet& set) {
         auto* field = messageM(set).add_field();
         field->set_name("a");
         field->set_number(7);
         field->set_type(pb::FieldDescriptorProto::TYPE_BYTES);
       },
       [](SchemaManifest& m) {
         m.messages["t.M"].fields["a"] = {.type = TypeManifest::bytes, .fieldNumber = 7};
       }},
      {"second enum of one name replaces the first",
       [](pb::FileDescriptorSet& set) {
         pb::FileDescriptorProto* file = set.add_file();
         file->set_package("t");
         pb::EnumDescriptorProto* enumType = file->add_enum_type();
         enumType->set_name("E");
         auto* value = enumType->add_value();
         value->set_name("ONE");
         value->set_number(1);
         value->mutable_options()->set_deprecated(true);
       },
       [](SchemaManifest& m) {
         m.enums["t.E"] = {.values = {{"ONE", 1}},
                           .valueOptions = {{1, toBytes(std::string_view("\x08\x01", 2))}}};
       }},
      {"second definition adds fields and keeps the first oneofs",
       [](pb::FileDescriptorSet& set) {
         pb::FileDescriptorProto* file = set.add_file();
         file->set_package("t");
         pb::DescriptorProto* message = file->add_message_type();
         message->set_name("M");
         message->mutable_options()->set_deprecated(true);
         auto* field = message->add_field();
         field->set_name("z");
         field->set_number(26);
         field->set_type(pb::FieldDescriptorProto::TYPE_BOOL);
         message->add_oneof_decl()->set_name("other");
       },
       [](SchemaManifest& m) {
         m.messages["t.M"].fields["z"] = {.type = TypeManifest::bool_, .fieldNumber = 26};
         m.messages["t.M"].options = toBytes(std::string_view("\x18\x01", 2));
       }},
      {"extension in an earlier file than its extendee",
       [](pb::FileDescriptorSet& set) {
         messageM(set).mutable_options()->set_deprecated(true);
         pb::FileDescriptorProto early;
         early.set_package("u");
         pb::FieldDescriptorProto* extension = early.add_extension();
         extension->set_name("early");
         extension->set_number(101);
         extension->set_type(pb::FieldDescriptorProto::TYPE_SINT32);
         extension->set_extendee(".t.M");
         set.mutable_file()->Add(std::move(early));
         set.mutable_file()->SwapElements(0, 1);
       },
       [](SchemaManifest& m) {
         m.messages["t.M"].fields["early"] = {.type = TypeManifest::sint32, .fieldNumber = 101};
         m.messages["t.M"].options = toBytes(std::string_view("\x18\x01", 2));
         m.messages["t.M"].oneofs.clear();
       }},
      {"oneof options",
       [](pb::FileDescriptorSet& set) { messageM(set).mutable_oneof_decl(0)->mutable_options(); },
       [](SchemaManifest& m) { m.messages["t.M"].oneofs[0].options = Bytes{}; }},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    pb::FileDescriptorSet set = baseSet();
    row.change(set);
    SchemaManifest expected = baseManifest();
    row.expect(expected);
    EXPECT_EQ(importBytes(serialize(set)), expected);
    EXPECT_EQ(schemaManifestFromDescriptorSet(set), expected);
  }
}

// A field's json_name is kept only where it is declared and differs from the lowerCamelCase of its
// name; the other length-delimited members of the field descriptor never pass for it.
TEST(DescriptorSetImport, JsonNameIsKeptWhereItDiffersFromTheDefault) {
  struct Row {
    const char* name;
    const char* declared;  // null: no json_name
    std::optional<std::string> expected;
  };
  const Row rows[] = {
      {"not declared", nullptr, std::nullopt},
      {"declared as the default", "myField", std::nullopt},
      {"declared otherwise", "custom", "custom"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    pb::FileDescriptorSet set = baseSet();
    pb::FieldDescriptorProto* field = messageM(set).add_field();
    field->set_name("my_field");
    field->set_number(2);
    field->set_type(pb::FieldDescriptorProto::TYPE_MESSAGE);
    field->set_type_name(".t.M");
    field->mutable_options()->set_deprecated(true);
    if (row.declared) field->set_json_name(row.declared);
    for (const SchemaManifest& manifest :
         {importBytes(serialize(set)), schemaManifestFromDescriptorSet(set)}) {
      EXPECT_EQ(manifest.messages.at("t.M").fields.at("my_field").jsonName, row.expected);
    }
  }
}

TEST(DescriptorSetImport, RejectedDescriptorsFailInBothImporters) {
  using DSC = SchemaManifestDSCError;
  using JSON = SchemaManifestJSONError;
  struct Row {
    const char* name;
    std::function<void(pb::FileDescriptorSet&)> change;
    std::variant<DSC, MergeConflict> schematized;
    std::variant<JSON, MergeConflict> typed;
  };
  const auto field = [](pb::FileDescriptorSet& set) { return messageM(set).mutable_field(0); };
  const auto value = [](pb::FileDescriptorSet& set) {
    return set.mutable_file(0)->mutable_enum_type(0)->mutable_value(0);
  };
  const Row rows[] = {
      {"group field",
       [&](pb::FileDescriptorSet& set) {
         field(set)->set_type(pb::FieldDescriptorProto::TYPE_GROUP);
       },
       DSC::invalidValueType("Group is deprecated"), JSON::invalidValueType("Group is deprecated")},
      {"field without name", [&](pb::FileDescriptorSet& set) { field(set)->clear_name(); },
       DSC::invalidDescriptor("Enum value is missing"),
       JSON::invalidValueType("Enum value is missing")},
      {"field without number", [&](pb::FileDescriptorSet& set) { field(set)->clear_number(); },
       DSC::invalidDescriptor("Enum value is missing"),
       JSON::invalidValueType("Enum value is missing")},
      {"field without type", [&](pb::FileDescriptorSet& set) { field(set)->clear_type(); },
       DSC::invalidDescriptor("Enum value is missing"),
       JSON::invalidValueType("Enum value is missing")},
      {"extension without type",
       [](pb::FileDescriptorSet& set) { set.mutable_file(0)->mutable_extension(0)->clear_type(); },
       DSC::invalidDescriptor("Enum value is missing"),
       JSON::invalidValueType("Enum value is missing")},
      {"enum value without name", [&](pb::FileDescriptorSet& set) { value(set)->clear_name(); },
       DSC::invalidDescriptor("Enum value is missing"),
       JSON::invalidValueType("Enum value is missing")},
      {"enum value with an empty name",
       [&](pb::FileDescriptorSet& set) { value(set)->set_name(""); },
       DSC::invalidDescriptor("Enum value is missing"),
       JSON::invalidValueType("Enum value is missing")},
      {"enum value without number", [&](pb::FileDescriptorSet& set) { value(set)->clear_number(); },
       DSC::invalidDescriptor("Enum value is missing"),
       JSON::invalidValueType("Enum value is missing")},
      {"enum without name",
       [](pb::FileDescriptorSet& set) { set.mutable_file(0)->mutable_enum_type(0)->clear_name(); },
       DSC::invalidDescriptor("Enum descriptor is incomplete"),
       JSON::invalidValueType("Enum descriptor is incomplete")},
      {"message without name", [](pb::FileDescriptorSet& set) { messageM(set).clear_name(); },
       DSC::invalidDescriptor("Fields descriptor is incomplete"),
       JSON::invalidValueType("Fields descriptor is incomplete")},
      {"nested message without name",
       [](pb::FileDescriptorSet& set) { messageM(set).add_nested_type(); },
       DSC::invalidDescriptor("Fields descriptor is incomplete"),
       JSON::invalidValueType("Fields descriptor is incomplete")},
      {"oneof without name",
       [](pb::FileDescriptorSet& set) { messageM(set).mutable_oneof_decl(0)->clear_name(); },
       DSC::invalidValueType("Enum name"), JSON::invalidValueType("Enum name")},
      {"extension without extendee",
       [](pb::FileDescriptorSet& set) {
         set.mutable_file(0)->mutable_extension(0)->clear_extendee();
       },
       DSC::invalidValueType("Failed to get extendee message name"),
       JSON::invalidValueType("Invalid extendee")},
      {"same message twice with a differing field",
       [](pb::FileDescriptorSet& set) {
         pb::FileDescriptorProto* second = set.add_file();
         *second = baseFile();
         second->mutable_message_type(0)->mutable_field(0)->set_number(2);
       },
       MergeConflict::conflict("Conflict merging FieldManifest"),
       MergeConflict::conflict("Conflict merging FieldManifest")},
      {"same message twice with differing options",
       [](pb::FileDescriptorSet& set) {
         messageM(set).mutable_options()->set_deprecated(true);
         pb::FileDescriptorProto* second = set.add_file();
         *second = baseFile();
         second->mutable_message_type(0)->mutable_options()->set_deprecated(false);
       },
       MergeConflict::conflict("Conflict merging Optional<Data>"),
       MergeConflict::conflict("Conflict merging Optional<Data>")},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    pb::FileDescriptorSet set = baseSet();
    row.change(set);
    const Bytes bytes = serialize(set);
    std::visit([&](const auto& e) { EXPECT_EQ(catchError([&] { importBytes(bytes); }), e); },
               row.schematized);
    std::visit(
        [&](const auto& e) {
          EXPECT_EQ(catchError([&] { schemaManifestFromDescriptorSet(set); }), e);
        },
        row.typed);
  }
}

// What protobuf forbids and the manifest could not hold honestly: both importers refuse it with
// their own error, naming the message (or enum) and the field, oneof or value.
TEST(DescriptorSetImport, InvalidNumbersAndRepeatedNamesAreRefusedByBothImporters) {
  struct Row {
    const char* name;
    std::function<void(pb::FileDescriptorSet&)> change;
    std::string text;  // empty: the set imports
  };
  const auto field = [](pb::FileDescriptorSet& set) { return messageM(set).mutable_field(0); };
  const auto setNumber = [&](int32_t number) {
    return [&, number](pb::FileDescriptorSet& set) { field(set)->set_number(number); };
  };
  const auto addField = [](pb::FileDescriptorSet& set, const char* name, int32_t number) {
    pb::FieldDescriptorProto* added = messageM(set).add_field();
    added->set_name(name);
    added->set_number(number);
    added->set_type(pb::FieldDescriptorProto::TYPE_BOOL);
    return added;
  };
  const std::string a = R"(Message "t.M" field "a": )";
  const Row rows[] = {
      {"number 0", setNumber(0), a + "field number 0 is outside 1 to 536870911"},
      {"number -1", setNumber(-1), a + "field number -1 is outside 1 to 536870911"},
      {"number 2^31-1", setNumber(2147483647),
       a + "field number 2147483647 is outside 1 to 536870911"},
      {"number 2^29", setNumber(1 << 29), a + "field number 536870912 is outside 1 to 536870911"},
      {"largest number", setNumber((1 << 29) - 1), ""},
      {"first reserved number", setNumber(19000),
       a + "field number 19000 is in 19000 to 19999, reserved for protobuf itself"},
      {"last reserved number", setNumber(19999),
       a + "field number 19999 is in 19000 to 19999, reserved for protobuf itself"},
      {"around the reserved numbers",
       [&](pb::FileDescriptorSet& set) {
         field(set)->set_number(18999);
         addField(set, "b", 20000);
       },
       ""},
      {"extension number out of range",
       [](pb::FileDescriptorSet& set) { set.mutable_file(0)->mutable_extension(0)->set_number(0); },
       R"(Message "t.M" field "ext": field number 0 is outside 1 to 536870911)"},
      {"two fields of one number", [&](pb::FileDescriptorSet& set) { addField(set, "b", 1); },
       R"(Message "t.M" field "b": field number 1 is also the number of field "a")"},
      {"extension with a field's number",
       [](pb::FileDescriptorSet& set) { set.mutable_file(0)->mutable_extension(0)->set_number(1); },
       R"(Message "t.M" field "ext": field number 1 is also the number of field "a")"},
      {"oneof index past the oneofs",
       [&](pb::FileDescriptorSet& set) { field(set)->set_oneof_index(1); },
       a + "oneof index 1 names no oneof (the message has 1)"},
      {"negative oneof index", [&](pb::FileDescriptorSet& set) { field(set)->set_oneof_index(-1); },
       a + "oneof index -1 names no oneof (the message has 1)"},
      {"oneof index in a message without oneofs",
       [&](pb::FileDescriptorSet& set) {
         pb::DescriptorProto* other = set.mutable_file(0)->add_message_type();
         other->set_name("N");
         *other->add_field() = *field(set);
       },
       R"(Message "t.N" field "a": oneof index 0 names no oneof (the message has 0))"},
      {"two oneofs of one name",
       [](pb::FileDescriptorSet& set) { messageM(set).add_oneof_decl()->set_name("choice"); },
       R"(Message "t.M": oneof name "choice" occurs twice)"},
      {"two values of one name",
       [](pb::FileDescriptorSet& set) {
         auto* value = set.mutable_file(0)->mutable_enum_type(0)->add_value();
         value->set_name("ZERO");
         value->set_number(3);
       },
       R"(Enum "t.E": value name "ZERO" occurs twice)"},
      {"aliases",
       [](pb::FileDescriptorSet& set) {
         auto* value = set.mutable_file(0)->mutable_enum_type(0)->add_value();
         value->set_name("NONE");
         value->set_number(0);
       },
       ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    pb::FileDescriptorSet set = baseSet();
    row.change(set);
    const Bytes bytes = serialize(set);
    if (row.text.empty()) {
      EXPECT_EQ(importBytes(bytes), importTyped(bytes));
      continue;
    }
    EXPECT_EQ(catchError([&] { importBytes(bytes); }),
              SchemaManifestDSCError::invalidValueType(row.text));
    EXPECT_EQ(catchError([&] { schemaManifestFromDescriptorSet(set); }),
              SchemaManifestJSONError::invalidValueType(row.text));
  }
}

// ---------------------------------------------------------------------------------------------
// Hand-encoded bytes through the built-in descriptor schemas

TEST(DescriptorSetImport, HandEncodedSets) {
  const auto store = ProtoSchemaStore::make(SchemaManifest{});
  const TypeSchemaDescription descriptorType =
      TypeSchemaDescription::messageType(store->messageSchema("google.protobuf.DescriptorProto"));
  struct Row {
    const char* name;
    std::string bytes;
    std::variant<SchemaManifestDSCError, SerializationError> expected;
  };
  const Row rows[] = {
      {"type number without a name",
       setWithField(lengthField(1, "a") + varintField(3, 1) + varintField(5, 19)),
       SchemaManifestDSCError::invalidValueType("Unknown type: 19")},
      {"message name written as a varint", setOf(lengthField(4, varintField(1, 1))),
       SerializationError::typeMismatch(
           TypeSchemaDescription::scalar(TypeSchemaDescription::Case::string),
           ProtoWireType::varInt)},
      {"message written as a varint", setOf(varintField(4, 1)),
       SerializationError::typeMismatch(descriptorType, ProtoWireType::varInt)},
      {"file cut short", std::string("\x0A\x05\x12", 3), SerializationError::truncated()},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    std::visit(
        [&](const auto& e) { EXPECT_EQ(catchError([&] { importBytes(asBytes(row.bytes)); }), e); },
        row.expected);
  }
}

TEST(DescriptorSetImport, PackageCountsWhereverItStands) {
  // The message comes before the package in the bytes.
  const std::string bytes = setOf(lengthField(4, lengthField(1, "M")) + lengthField(2, "p.q"));
  SchemaManifest expected;
  expected.messages["p.q.M"];
  EXPECT_EQ(importBytes(asBytes(bytes)), expected);
}

std::string nestedMessages(int depth) {
  std::string body = lengthField(1, "N");
  for (int i = 1; i < depth; ++i) body = lengthField(1, "N") + lengthField(3, body);
  return setOf(lengthField(4, body));
}

TEST(DescriptorSetImport, NestingIsLimitedToAHundredMessages) {
  const SchemaManifest deepest = importBytes(asBytes(nestedMessages(100)));
  EXPECT_EQ(deepest.messages.size(), 100u);
  std::string longest = "N";
  for (int i = 1; i < 100; ++i) longest += ".N";
  EXPECT_TRUE(deepest.messages.contains(longest));
  EXPECT_EQ(catchError([&] { importBytes(asBytes(nestedMessages(101))); }),
            SchemaManifestDSCError::cannotLoadDescriptor());
}

// ---------------------------------------------------------------------------------------------
// Values of the wrong kind: a descriptor-shaped schema whose descriptor fields have other types

std::string renamed(const std::string& name) {
  const std::string prefix = "google.protobuf.";
  return name.starts_with(prefix) ? "k." + name.substr(prefix.size()) : name;
}

// The built-in descriptor manifest under the package "k".
SchemaManifest renamedDescriptorManifest() {
  SchemaManifest manifest;
  for (const auto& [name, message] : builtinDescriptorManifest().messages) {
    MessageManifest copy = message;
    for (auto& [fieldName, field] : copy.fields) {
      if (field.typeName) field.typeName = renamed(*field.typeName);
    }
    manifest.messages[renamed(name)] = std::move(copy);
  }
  for (const auto& [name, enumManifest] : builtinDescriptorManifest().enums) {
    manifest.enums[renamed(name)] = enumManifest;
  }
  return manifest;
}

SchemaManifest importWith(const SchemaManifest& schema, std::string_view bytes) {
  const auto store = ProtoSchemaStore::make(schema);
  return schemaManifestFromDescriptorSet(
      store->messageSchema("k.FileDescriptorSet")->unsafeSchematizedData(asBytes(bytes)));
}

TEST(DescriptorSetImport, ValuesOfTheWrongKindNameTheirProperty) {
  struct Row {
    const char* name;
    std::string message;  // in package k
    std::string field;
    TypeManifest type;
    std::string bytes;
    std::string expected;
  };
  using T = TypeManifest;
  const std::string m = lengthField(1, "M");
  const std::string e = lengthField(1, "E");
  const Row rows[] = {
      {"file", "FileDescriptorSet", "file", T::int32, varintField(1, 1),
       "FileDescriptorSet message type is expected"},
      {"enum_type of a file", "FileDescriptorProto", "enum_type", T::int32,
       setOf(varintField(5, 1)), "Enum descriptor property"},
      {"enum_type of a message", "DescriptorProto", "enum_type", T::int32,
       setOf(lengthField(4, m + varintField(4, 1))), "Enum descriptor property"},
      {"enum name", "EnumDescriptorProto", "name", T::int32,
       setOf(lengthField(5, varintField(1, 1))), "Enum name"},
      {"enum value", "EnumDescriptorProto", "value", T::int32,
       setOf(lengthField(5, e + varintField(2, 1))), "Enum name"},
      {"enum options", "EnumDescriptorProto", "options", T::int32,
       setOf(lengthField(5, e + varintField(3, 1))), "Enum options"},
      {"enum value name", "EnumValueDescriptorProto", "name", T::int32,
       setOf(lengthField(5, e + lengthField(2, varintField(1, 1) + varintField(2, 0)))),
       "Enum value name"},
      {"enum value number", "EnumValueDescriptorProto", "number", T::string,
       setOf(lengthField(5, e + lengthField(2, lengthField(1, "A") + lengthField(2, "x")))),
       "Enum value name"},
      {"enum value options", "EnumValueDescriptorProto", "options", T::int32,
       setOf(lengthField(
           5, e + lengthField(2, lengthField(1, "A") + varintField(2, 0) + varintField(3, 1)))),
       "Enum value options"},
      {"message_type", "FileDescriptorProto", "message_type", T::int32, setOf(varintField(4, 1)),
       "Message descriptor property"},
      {"nested_type", "DescriptorProto", "nested_type", T::int32,
       setOf(lengthField(4, m + varintField(3, 1))), "Message descriptor property"},
      {"extension of a file", "FileDescriptorProto", "extension", T::int32,
       setOf(varintField(7, 1)), "Message descriptor property"},
      {"extension of a message", "DescriptorProto", "extension", T::int32,
       setOf(lengthField(4, m + varintField(6, 1))), "Message descriptor property"},
      {"message name", "DescriptorProto", "name", T::int32,
       setOf(lengthField(4, varintField(1, 1))), "Message name"},
      {"message options", "DescriptorProto", "options", T::int32,
       setOf(lengthField(4, m + varintField(7, 1))), "Invalid options"},
      {"field", "DescriptorProto", "field", T::int32, setOf(lengthField(4, m + varintField(2, 1))),
       "Field descriptor"},
      {"field name", "FieldDescriptorProto", "name", T::int32,
       setWithField(varintField(1, 1) + varintField(3, 1) + varintField(5, 5)), "Field name"},
      {"field number", "FieldDescriptorProto", "number", T::string,
       setWithField(lengthField(1, "a") + lengthField(3, "x")), "Field number"},
      {"field options", "FieldDescriptorProto", "options", T::int32,
       setWithField(kValidField + varintField(8, 1)), "Field option"},
      {"field type", "FieldDescriptorProto", "type", T::int32, setWithField(kValidField),
       "Field type"},
      {"field type name", "FieldDescriptorProto", "type_name", T::int32,
       setWithField(kValidField + varintField(6, 1)), "Field type name"},
      {"field label", "FieldDescriptorProto", "label", T::int32,
       setWithField(kValidField + varintField(4, 1)), "Field type name"},
      {"oneof index", "FieldDescriptorProto", "oneof_index", T::string,
       setWithField(kValidField + lengthField(9, "x")), "Oneof index"},
      {"oneof_decl", "DescriptorProto", "oneof_decl", T::int32,
       setOf(lengthField(4, m + varintField(8, 1))), "Oneof descriptor"},
      {"oneof name", "OneofDescriptorProto", "name", T::int32,
       setOf(lengthField(4, m + lengthField(8, varintField(1, 1)))), "Enum name"},
      {"extendee", "FieldDescriptorProto", "extendee", T::int32,
       setOf(lengthField(7, varintField(2, 1) + kValidField)),
       "Failed to get extendee message name"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    SchemaManifest schema = renamedDescriptorManifest();
    FieldManifest& field = schema.messages.at("k." + row.message).fields.at(row.field);
    field.type = row.type;
    field.typeName.reset();
    EXPECT_EQ(catchError([&] { importWith(schema, row.bytes); }),
              SchemaManifestDSCError::invalidValueType(row.expected));
  }
}

TEST(DescriptorSetImport, TypesAreMatchedByTheirValueNames) {
  SchemaManifest schema = renamedDescriptorManifest();
  schema.messages.at("k.FieldDescriptorProto").fields.at("type").typeName = "k.OtherType";
  schema.enums["k.OtherType"].values = {{"TYPE_FOO", 5}, {"TYPE_BOOL", 6}, {"TYPE_GROUP", 7}};
  struct Row {
    const char* name;
    int number;
    std::optional<std::string> error;
  };
  const Row rows[] = {
      {"unknown name", 5, "Unknown type: TYPE_FOO"},
      {"known name under another number", 6, std::nullopt},
      {"group by name", 7, "Group is deprecated"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string bytes =
        setWithField(lengthField(1, "a") + varintField(3, 1) + varintField(5, row.number));
    if (row.error) {
      EXPECT_EQ(catchError([&] { importWith(schema, bytes); }),
                SchemaManifestDSCError::invalidValueType(*row.error));
    } else {
      EXPECT_EQ(importWith(schema, bytes).messages.at("M").fields.at("a").type,
                TypeManifest::bool_);
    }
  }
}

TEST(DescriptorSetImport, OneofOptionsOfAnotherKindAreIgnored) {
  SchemaManifest schema = renamedDescriptorManifest();
  FieldManifest& options = schema.messages.at("k.OneofDescriptorProto").fields.at("options");
  options.type = TypeManifest::int32;
  options.typeName.reset();
  const std::string bytes = setOf(lengthField(
      4, lengthField(1, "M") + lengthField(8, lengthField(1, "o") + varintField(2, 1))));
  SchemaManifest expected;
  expected.messages["M"].oneofs = {{.name = "o"}};
  EXPECT_EQ(importWith(schema, bytes), expected);
}

// Any descriptor-shaped schema reads descriptor sets as the built-in one does: descriptor.proto's
// full FileDescriptorSet, and the built-in descriptor schemas under another package.
TEST(DescriptorSetImport, DescriptorShapedSchemasReadRealSets) {
  const auto full = ProtoSchemaStore::make(importBytes(readGenerated("descriptor.desc")));
  const auto fullSet = full->messageSchema("google.protobuf.FileDescriptorSet");
  const SchemaManifest renamed = renamedDescriptorManifest();
  for (const char* name : kDescriptorSets) {
    SCOPED_TRACE(name);
    const Bytes bytes = readGenerated(name);
    EXPECT_EQ(schemaManifestFromDescriptorSet(fullSet->unsafeSchematizedData(bytes)),
              importBytes(bytes));
    EXPECT_EQ(importWith(renamed, asText(bytes)), importBytes(bytes));
  }
}

// ---------------------------------------------------------------------------------------------
// Export

TEST(DescriptorSetExport, RoundTripsRealDescriptorSets) {
  for (const char* name : kDescriptorSets) {
    SCOPED_TRACE(name);
    SchemaManifest manifest = importBytes(readGenerated(name));
    const Bytes exported = descriptorSetFromManifest(manifest);
    // An oneofIndex pointing nowhere (catalog: an extension declared before its extendee made
    // the entry, whose empty oneofs it keeps) is not exported.
    for (auto& [messageName, message] : manifest.messages) {
      for (auto& [fieldName, field] : message.fields) {
        if (field.oneofIndex && static_cast<size_t>(*field.oneofIndex) >= message.oneofs.size()) {
          field.oneofIndex.reset();
        }
      }
    }
    EXPECT_EQ(importBytes(exported), manifest);
    EXPECT_EQ(importTyped(exported), manifest);

    const pb::FileDescriptorSet set = parseSet(exported);
    ASSERT_EQ(set.file_size(), 1);
    EXPECT_FALSE(set.file(0).has_package());
    EXPECT_EQ(set.file(0).message_type_size(), static_cast<int>(manifest.messages.size()));
    EXPECT_EQ(set.file(0).enum_type_size(), static_cast<int>(manifest.enums.size()));
    auto key = manifest.messages.begin();
    for (const pb::DescriptorProto& message : set.file(0).message_type()) {
      EXPECT_EQ(message.name(), key->first);
      EXPECT_EQ(message.nested_type_size(), 0);
      ++key;
    }
  }
}

TEST(DescriptorSetExport, WritesDescriptorsAsProtocDoes) {
  SchemaManifest manifest;
  MessageManifest& order = manifest.messages["shop.Order"];
  order.fields["items"] = {
      .type = TypeManifest::message, .typeName = "shop.Item", .fieldNumber = 2, .isRepeated = true};
  order.fields["state"] = {
      .type = TypeManifest::enum_, .typeName = "shop.State", .fieldNumber = 3, .oneofIndex = 0};
  order.fields["id"] = {.type = TypeManifest::sint64, .fieldNumber = 1};
  order.oneofs = {{.name = "status", .options = toBytes(std::string_view("\x08\x01", 2))}};
  order.options = toBytes(std::string_view("\x18\x01", 2));
  manifest.enums["shop.State"] = {.values = {{"PAID", 1}, {"OPEN", 0}, {"ALSO_PAID", 1}},
                                  .valueOptions = {{0, toBytes(std::string_view("\x08\x01", 2))}}};

  const pb::FileDescriptorSet set = parseSet(descriptorSetFromManifest(manifest));
  ASSERT_EQ(set.file_size(), 1);
  const pb::DescriptorProto& message = set.file(0).message_type(0);
  EXPECT_EQ(message.name(), "shop.Order");
  EXPECT_TRUE(message.options().deprecated());
  ASSERT_EQ(message.field_size(), 3);
  const pb::FieldDescriptorProto& items = message.field(1);
  EXPECT_EQ(items.name(), "items");
  EXPECT_EQ(items.number(), 2);
  EXPECT_EQ(items.label(), pb::FieldDescriptorProto::LABEL_REPEATED);
  EXPECT_EQ(items.type(), pb::FieldDescriptorProto::TYPE_MESSAGE);
  EXPECT_EQ(items.type_name(), ".shop.Item");
  EXPECT_FALSE(items.has_oneof_index());
  const pb::FieldDescriptorProto& id = message.field(0);
  EXPECT_EQ(id.label(), pb::FieldDescriptorProto::LABEL_OPTIONAL);
  EXPECT_EQ(id.type(), pb::FieldDescriptorProto::TYPE_SINT64);
  EXPECT_FALSE(id.has_type_name());
  EXPECT_EQ(message.field(2).oneof_index(), 0);
  ASSERT_EQ(message.oneof_decl_size(), 1);
  EXPECT_EQ(message.oneof_decl(0).name(), "status");
  EXPECT_TRUE(message.oneof_decl(0).has_options());

  const pb::EnumDescriptorProto& state = set.file(0).enum_type(0);
  EXPECT_EQ(state.name(), "shop.State");
  ASSERT_EQ(state.value_size(), 3);
  EXPECT_EQ(state.value(0).name(), "OPEN");
  EXPECT_TRUE(state.value(0).has_options());
  EXPECT_EQ(state.value(1).name(), "ALSO_PAID");
  EXPECT_EQ(state.value(2).name(), "PAID");
  EXPECT_FALSE(state.value(2).has_options());

  EXPECT_EQ(importBytes(descriptorSetFromManifest(manifest)), manifest);
}

TEST(DescriptorSetExport, RoundTripsUnusualManifests) {
  struct Row {
    const char* name;
    SchemaManifest manifest;
  };
  const auto one = [](std::string key, MessageManifest message) {
    SchemaManifest manifest;
    manifest.messages[std::move(key)] = std::move(message);
    return manifest;
  };
  const auto field = [](FieldManifest f) {
    MessageManifest message;
    message.fields["f"] = std::move(f);
    return message;
  };
  SchemaManifest enumOnly;
  enumOnly.enums["E"] = {.values = {{"NEG", -2147483648LL}, {"MAX", 2147483647}},
                         .options = Bytes{},
                         .valueOptions = {{-2147483648LL, Bytes{}}}};
  SchemaManifest empty;
  empty.messages["a.b.Empty"];
  empty.enums["a.b.NoValues"];
  const Row rows[] = {
      {"empty message and enum", empty},
      {"enum with extreme numbers and empty options", enumOnly},
      {"present but empty options", one("M", {.options = Bytes{}})},
      {"every field type",
       [&] {
         MessageManifest message;
         for (int i = 0; i < kTypeManifestCount; ++i) {
           const auto type = static_cast<TypeManifest>(i);
           message.fields[std::string(stringName(type)) + "_f"] = {.type = type,
                                                                   .fieldNumber = i + 1};
         }
         return one("all.Types", message);
       }()},
      {"scalar with a type name", one("M", field({.typeName = "x.Y", .fieldNumber = 1}))},
      {"empty type name",
       one("M", field({.type = TypeManifest::message, .typeName = "", .fieldNumber = 1}))},
      {"extreme field numbers and empty options",
       [&] {
         MessageManifest message;
         message.fields["low"] = {.fieldNumber = 1, .options = Bytes{}};
         message.fields["below_reserved"] = {.fieldNumber = 18999};
         message.fields["above_reserved"] = {.fieldNumber = 20000};
         message.fields["high"] = {.fieldNumber = (1 << 29) - 1};
         return one("M", message);
       }()},
      {"dotted and odd keys",
       [] {
         SchemaManifest manifest;
         manifest.messages["a.b.M"];
         manifest.messages["M."];
         manifest.messages[".lead"];
         manifest.messages["x..y"];
         return manifest;
       }()},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const Bytes exported = descriptorSetFromManifest(row.manifest);
    EXPECT_EQ(importBytes(exported), row.manifest);
  }
}

TEST(DescriptorSetExport, EmptyManifestWritesNoFile) {
  EXPECT_TRUE(descriptorSetFromManifest(SchemaManifest{}).empty());
  EXPECT_EQ(importBytes(descriptorSetFromManifest(SchemaManifest{})), SchemaManifest{});
}

TEST(DescriptorSetExport, NumbersBeyondThirtyTwoBitsAreRefused) {
  const TypeSchemaDescription int32Type =
      TypeSchemaDescription::scalar(TypeSchemaDescription::Case::int32);
  SchemaManifest wideField;
  wideField.messages["M"].fields["f"] = {.fieldNumber = int64_t{1} << 40};
  EXPECT_EQ(
      catchError([&] { descriptorSetFromManifest(wideField); }),
      SerializationError::invalidIntType(detail::AnyValueImpl::int64(int64_t{1} << 40), int32Type));
  SchemaManifest wideValue;
  wideValue.enums["E"].values = {{"BIG", -(int64_t{1} << 33)}};
  EXPECT_EQ(catchError([&] { descriptorSetFromManifest(wideValue); }),
            SerializationError::invalidIntType(detail::AnyValueImpl::int64(-(int64_t{1} << 33)),
                                               int32Type));
}

// ---------------------------------------------------------------------------------------------
// .proto files parsed at run time

const std::string kImportData = std::string(OSTREL_TEST_DATA) + "/import";

TEST(ProtoFileImport, GivesWhatTheCompiledDescriptorSetGives) {
  struct Row {
    const char* name;
    std::vector<std::string> files;
    const char* set;
  };
  const Row rows[] = {
      {"one file with its imports", {"shapes.proto"}, "import/shapes.desc"},
      {"dependencies listed too",
       {"catalog.proto", "shapes.proto", "options.proto"},
       "import/shapes.desc"},
      {"descriptor.proto itself", {"google/protobuf/descriptor.proto"}, "descriptor.desc"},
      {"disk path inside an include path", {kImportData + "/plain.proto"}, "import/plain.desc"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(schemaManifestFromProtoFiles(row.files, {kImportData}),
              importBytes(readGenerated(row.set)));
  }
}

class ProtoFileErrors : public ::testing::Test {
 protected:
  void SetUp() override {
    directory_ = std::filesystem::path(::testing::TempDir()) / "ostrel_proto_file_errors";
    std::filesystem::create_directories(directory_);
  }
  void TearDown() override { std::filesystem::remove_all(directory_); }

  void write(const std::string& name, const std::string& text) {
    std::ofstream(directory_ / name) << text;
  }

  std::filesystem::path directory_;
};

TEST_F(ProtoFileErrors, ReportFileLineAndColumn) {
  write("syntax.proto", "syntax = \"proto3\";\n\nmessage M {\n  int32 x = ;\n}\n");
  write("undefined.proto", "syntax = \"proto3\";\nmessage M {\n  Nope n = 1;\n}\n");
  write("imports.proto", "syntax = \"proto3\";\nimport \"missing.proto\";\n");
  write("group.proto", "syntax = \"proto2\";\nmessage M {\n  optional group G = 1 {}\n}\n");
  struct Row {
    const char* name;
    std::string file;
    std::variant<SchemaManifestJSONError, SchemaManifestDSCError> expected;
  };
  const Row rows[] = {
      {"syntax error", "syntax.proto",
       SchemaManifestJSONError::invalidValueType("syntax.proto:4:13: Expected field number.")},
      {"undefined type", "undefined.proto",
       SchemaManifestJSONError::invalidValueType("undefined.proto:3:3: \"Nope\" is not defined.")},
      {"missing import", "imports.proto",
       SchemaManifestJSONError::invalidValueType("missing.proto: File not found.")},
      {"missing file", "absent.proto",
       SchemaManifestJSONError::invalidValueType("absent.proto: File not found.")},
      {"group", "group.proto", SchemaManifestDSCError::invalidValueType("Group is deprecated")},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    std::visit(
        [&](const auto& e) {
          EXPECT_EQ(
              catchError([&] { schemaManifestFromProtoFiles({row.file}, {directory_.string()}); }),
              e);
        },
        row.expected);
  }
}

}  // namespace
}  // namespace ostrel
