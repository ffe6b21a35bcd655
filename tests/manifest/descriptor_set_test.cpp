#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/text_format.h>
#include <google/protobuf/unknown_field_set.h>
#include <google/protobuf/util/message_differencer.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <variant>
#include <vector>

#include "manifest/descriptor_test_support.hpp"
#include "ostrel/core/logging.hpp"
#include "ostrel/manifest/manifest_data.hpp"
#include "ostrel/manifest/typed_import.hpp"
#include "ostrel/output/json.hpp"
#include "ostrel/store/schemas.hpp"
#include "ostrel/wire/schematizer.hpp"
#include "proto2_shapes.pb.h"
#include "store/proto_schema_store.hpp"
#include "support/test_support.hpp"
#include "support/wire.hpp"

namespace ostrel {
namespace {

namespace pb = google::protobuf;
using testing_support::catchError;
using testing_support::kDescriptorSets;
using testing_support::parseSet;
using testing_support::readGenerated;
using testing_support::serialize;
using DSC = SchemaManifestDSCError;
using JSON = SchemaManifestJSONError;
using T = TypeManifest;

SchemaManifest importBytes(ByteView bytes) { return schemaManifestFromDescriptorSet(bytes); }
SchemaManifest importBytes(std::string_view bytes) { return importBytes(asBytes(bytes)); }

// Hand encoding, for descriptors libprotobuf would not write.
std::string varintField(int number, uint64_t value) {
  return testing_support::Wire().varintField(number, value).bytes();
}
std::string lengthField(int number, std::string_view payload) {
  return testing_support::Wire().bytesField(number, payload).bytes();
}
// A set of one file holding `fileBody`; of one message "M" with one field of `fieldBody`.
std::string setOf(std::string_view fileBody) { return lengthField(1, fileBody); }
std::string setWithField(std::string_view fieldBody) {
  return setOf(lengthField(4, lengthField(1, "M") + lengthField(2, fieldBody)));
}
// Field "a", number 1, of type number `type`.
std::string fieldBytes(int type = 5) {
  return lengthField(1, "a") + varintField(3, 1) + varintField(5, type);
}

// The built-in descriptor manifest under the package "k".
SchemaManifest renamedDescriptorManifest() {
  const auto renamed = [](const std::string& name) { return "k." + name.substr(16); };
  SchemaManifest manifest;
  for (auto [name, message] : builtinDescriptorManifest().messages) {
    for (auto& [fieldName, field] : message.fields) {
      if (field.typeName) field.typeName = renamed(*field.typeName);
    }
    manifest.messages[renamed(name)] = std::move(message);
  }
  for (const auto& [name, e] : builtinDescriptorManifest().enums) manifest.enums[renamed(name)] = e;
  return manifest;
}

SchemaManifest importWith(const SchemaManifest& schema, std::string_view bytes) {
  const auto store = ProtoSchemaStore::make(schema);
  return schemaManifestFromDescriptorSet(
      store->messageSchema("k.FileDescriptorSet")->unsafeSchematizedData(asBytes(bytes)));
}

// Every way in reads a real set alike: the bytes through the built-in descriptor schemas,
// libprotobuf's parsed set, descriptor.proto's full schema and the built-in one under another
// package. The export gives the same manifest back.
TEST(DescriptorSetImport, RealSetsReadAlikeEveryWayAndRoundTripThroughTheExport) {
  const auto fullStore = ProtoSchemaStore::make(importBytes(readGenerated("descriptor.desc")));
  const auto full = fullStore->messageSchema("google.protobuf.FileDescriptorSet");
  const SchemaManifest renamed = renamedDescriptorManifest();
  for (const char* name : kDescriptorSets) {
    SCOPED_TRACE(name);
    const Bytes bytes = readGenerated(name);
    SchemaManifest manifest = importBytes(bytes);
    EXPECT_FALSE(manifest.messages.empty());
    EXPECT_EQ(schemaManifestFromDescriptorSet(parseSet(bytes)), manifest);
    EXPECT_EQ(schemaManifestFromDescriptorSet(full->unsafeSchematizedData(bytes)), manifest);
    EXPECT_EQ(importWith(renamed, asText(bytes)), manifest);

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
    EXPECT_EQ(schemaManifestFromDescriptorSet(parseSet(exported)), manifest);
  }
}

// ---------------------------------------------------------------------------------------------
// Descriptor sets written as libprotobuf's text, through both importers

using Edits = std::vector<std::pair<std::string, std::string>>;

// `text` with each edit applied in turn: every occurrence of the first string replaced by the
// second, or the second appended where the first is empty.
std::string edited(std::string text, const Edits& edits) {
  for (const auto& [from, to] : edits) {
    if (from.empty()) text += to;
    for (size_t at = from.empty() ? std::string::npos : text.find(from); at != std::string::npos;
         at = text.find(from, at + to.size())) {
      text.replace(at, from.size(), to);
    }
  }
  return text;
}

const std::string kFile = R"(file { name: "t.proto" package: "t"
  message_type { name: "M"
    field { name: "a" number: 1 label: LABEL_OPTIONAL type: TYPE_INT32 oneof_index: 0 }
    oneof_decl { name: "choice" } }
  enum_type { name: "E" value { name: "ZERO" number: 0 } }
  extension { name: "ext" number: 100 label: LABEL_REPEATED type: TYPE_STRING extendee: ".t.M" } })";

const std::string kManifest =
    R"({"messages":{"t.M":{"fields":{"a":{"type":"int","fieldNumber":1,"oneofIndex":0},)"
    R"("ext":{"type":"string","fieldNumber":100,"isRepeated":true}},"oneofs":[{"name":"choice"}]}},)"
    R"("enums":{"t.E":{"values":{"ZERO":0}}}})";

pb::FileDescriptorSet textSet(const Edits& edits) {
  pb::FileDescriptorSet set;
  EXPECT_TRUE(pb::TextFormat::ParseFromString(edited(kFile, edits), &set)) << edited(kFile, edits);
  return set;
}

// Each row changes the set and the manifest it is expected to give.
TEST(DescriptorSetImport, SetsImportAlikeThroughBothImporters) {
  const std::string fieldB =
      R"(field { name: "b" number: 2 type: TYPE_MESSAGE type_name: "..t...M" })";
  const std::string extB = R"("ext":{)";
  const std::pair<Edits, Edits> rows[] = {
      // Empty package pieces, a required label and descriptor parts no manifest holds change
      // nothing; nor does the same file twice.
      {{{R"(package: "t")", R"(package: ".t..")"},
        {R"(".t.M")", R"("t..M.")"},
        {"LABEL_OPTIONAL", R"(LABEL_REQUIRED default_value: "7" proto3_optional: true)"},
        {"oneof_decl {", R"(reserved_name: "gone" oneof_decl {)"},
        {"enum_type {", R"(service { name: "S" } enum_type {)"},
        {"", kFile}},
       {}},
      // Type names are normalised.
      {{{"oneof_decl {", fieldB + " oneof_decl {"}},
       {{extB, R"("b":{"type":"schema","typeName":"t.M","fieldNumber":2},)" + extB}}},
      {{{"number: 1 ", "number: 18999 "},
        {"oneof_decl {",
         R"(field { name: "b" number: 20000 type: TYPE_BOOL } field { name: "c" number: 536870911 type: TYPE_BOOL } oneof_decl {)"},
        {"number: 0 }", R"(number: 0 } value { name: "NONE" number: 0 })"}},
       {{R"("fieldNumber":1,)", R"("fieldNumber":18999,)"},
        {extB,
         R"("b":{"type":"bool","fieldNumber":20000},"c":{"type":"bool","fieldNumber":536870911},)" +
             extB},
        {R"("ZERO":0)", R"("ZERO":0,"NONE":0)"}}},
      // A second enum of one name replaces the first.
      {{{"",
         R"(file { package: "t" enum_type { name: "E" value { name: "ONE" number: 1 options { deprecated: true } } } })"}},
       {{R"("ZERO":0})", R"("ONE":1},"valueOptions":{"1":"CAE="})"}}},
  };
  for (const auto& [change, expect] : rows) {
    const pb::FileDescriptorSet set = textSet(change);
    SCOPED_TRACE(set.DebugString());
    const SchemaManifest expected = schemaManifestFromJSON(edited(kManifest, expect));
    EXPECT_EQ(importBytes(serialize(set)), expected);
    EXPECT_EQ(schemaManifestFromDescriptorSet(set), expected);
  }
}

// A field's json_name is kept only where it is declared and differs from the lowerCamelCase of its
// name; the other length-delimited members of the field descriptor never pass for it.
TEST(DescriptorSetImport, JsonNameIsKeptWhereItDiffersFromTheDefault) {
  const std::pair<std::string, std::optional<std::string>> rows[] = {
      {"", std::nullopt},
      {R"(json_name: "aZAField")", std::nullopt},
      {R"(json_name: "custom")", "custom"}};
  for (const auto& [declared, expected] : rows) {
    const pb::FileDescriptorSet set = textSet(
        {{"oneof_decl {",
          R"(field { name: "a_z_a_field" number: 2 type: TYPE_MESSAGE type_name: ".t.M" options { deprecated: true } )" +
              declared + "} oneof_decl {"}});
    for (const SchemaManifest& manifest :
         {importBytes(serialize(set)), schemaManifestFromDescriptorSet(set)}) {
      EXPECT_EQ(manifest.messages.at("t.M").fields.at("a_z_a_field").jsonName, expected);
    }
  }
}

// What protobuf forbids and the manifest could not hold honestly: both importers refuse it, each
// with its own error.
TEST(DescriptorSetImport, RejectedDescriptorsFailInBothImporters) {
  struct Refusal {
    std::variant<DSC, MergeConflict> bytes;
    std::variant<JSON, MergeConflict> typed;
  };
  const auto refused = [](const std::string& text) {
    return Refusal{DSC::invalidValueType(text), JSON::invalidValueType(text)};
  };
  const auto incomplete = [](const char* text) {
    return Refusal{DSC::invalidDescriptor(text), JSON::invalidValueType(text)};
  };
  const auto conflict = [](const char* text) {
    return Refusal{MergeConflict::conflict(text), MergeConflict::conflict(text)};
  };
  const Refusal missing = incomplete("Enum value is missing");
  const std::string a = R"(Message "t.M" field "a": )", ext = R"(Message "t.M" field "ext": )";
  const std::string reserved = " is in 19000 to 19999, reserved for protobuf itself";
  const std::string zero = R"(value { name: "ZERO" number: 0 })";
  const std::pair<Edits, Refusal> rows[] = {
      {{{"TYPE_INT32", "TYPE_GROUP"}}, refused("Group is deprecated")},
      {{{R"(name: "a" )", ""}}, missing},
      {{{"type: TYPE_INT32 ", ""}}, missing},
      {{{R"(name: "ZERO" )", ""}}, missing},
      {{{R"("ZERO")", R"("")"}}, missing},
      {{{"number: 0 ", ""}}, missing},
      {{{R"(name: "E" )", ""}}, incomplete("Enum descriptor is incomplete")},
      {{{R"(name: "M")", ""}}, incomplete("Fields descriptor is incomplete")},
      {{{R"(oneof_decl { name: "choice" })", "oneof_decl {}"}}, refused("Enum name")},
      {{{R"( extendee: ".t.M")", ""}},
       {DSC::invalidValueType("Failed to get extendee message name"),
        JSON::invalidValueType("Invalid extendee")}},
      {{{"", edited(kFile, {{"number: 1 ", "number: 2 "}})}},
       conflict("Conflict merging FieldManifest")},
      {{{R"(name: "M")", R"(name: "M" options { deprecated: true })"},
        {"", edited(kFile, {{R"(name: "M")", R"(name: "M" options { deprecated: false })"}})}},
       conflict("Conflict merging Optional<Data>")},
      {{{"number: 1 ", "number: 0 "}}, refused(a + "field number 0 is outside 1 to 536870911")},
      {{{"number: 1 ", "number: 19000 "}}, refused(a + "field number 19000" + reserved)},
      {{{"number: 1 ", "number: 19999 "}}, refused(a + "field number 19999" + reserved)},
      {{{"number: 100 ", "number: 0 "}}, refused(ext + "field number 0 is outside 1 to 536870911")},
      {{{"oneof_decl {", R"(field { name: "b" number: 1 type: TYPE_BOOL } oneof_decl {)"}},
       refused(R"(Message "t.M" field "b": field number 1 is also the number of field "a")")},
      {{{"number: 100 ", "number: 1 "}},
       refused(ext + R"(field number 1 is also the number of field "a")")},
      {{{"oneof_index: 0", "oneof_index: 1"}},
       refused(a + "oneof index 1 names no oneof (the message has 1)")},
      {{{"oneof_index: 0", "oneof_index: -1"}},
       refused(a + "oneof index -1 names no oneof (the message has 1)")},
      {{{"oneof_decl {", R"(oneof_decl { name: "choice" } oneof_decl {)"}},
       refused(R"(Message "t.M": oneof name "choice" occurs twice)")},
      {{{zero, zero + R"( value { name: "ZERO" number: 3 })"}},
       refused(R"(Enum "t.E": value name "ZERO" occurs twice)")},
      {{{"oneof_decl {", R"(field { name: "a" number: 7 type: TYPE_BYTES } oneof_decl {)"}},
       refused(a + "the name occurs twice")},
      // A built-in descriptor type may gain fields, not change them.
      {{{"", R"(file { package: "google.protobuf" message_type { name: "FileDescriptorSet" )"
             R"(field { name: "file" number: 2 label: LABEL_REPEATED type: TYPE_MESSAGE )"
             R"(type_name: ".google.protobuf.FileDescriptorProto" } } })"}},
       conflict("Conflict merging FieldManifest")},
  };
  for (const auto& [change, refusal] : rows) {
    const pb::FileDescriptorSet set = textSet(change);
    SCOPED_TRACE(set.DebugString());
    const Bytes bytes = serialize(set);
    std::visit([&](const auto& e) { EXPECT_EQ(catchError([&] { importBytes(bytes); }), e); },
               refusal.bytes);
    std::visit(
        [&](const auto& e) {
          EXPECT_EQ(catchError([&] { schemaManifestFromDescriptorSet(set); }), e);
        },
        refusal.typed);
  }
}

// ---------------------------------------------------------------------------------------------
// Hand-encoded bytes

TEST(DescriptorSetImport, HandEncodedSets) {
  EXPECT_EQ(catchError([&] { importBytes(setWithField(fieldBytes(19))); }),
            DSC::invalidValueType("Unknown type: 19"));
  // The reader's own errors reach the caller as they are.
  EXPECT_EQ(catchError([&] { importBytes(setOf(lengthField(4, varintField(1, 1)))); }),
            SerializationError::typeMismatch(
                TypeSchemaDescription::scalar(TypeSchemaDescription::Case::string),
                ProtoWireType::varInt));
  // The package counts wherever it stands, here after the message.
  SchemaManifest packaged;
  packaged.messages["p.q.M"];
  EXPECT_EQ(importBytes(setOf(lengthField(4, lengthField(1, "M")) + lengthField(2, "p.q"))),
            packaged);
  // A package given twice is read where it first stands, as any field is.
  EXPECT_EQ(importBytes(setOf(lengthField(2, "p.q") + lengthField(4, lengthField(1, "M")) +
                              lengthField(2, "x"))),
            packaged);
  EXPECT_EQ(importBytes(std::string_view()), SchemaManifest{});
  // An Editions file's repeated_field_encoding (features 50.3: 1 PACKED, 2 EXPANDED) reaches a
  // repeated int32 field.
  for (const int encoding : {1, 2}) {
    const SchemaManifest editions = importBytes(setOf(
        lengthField(12, "editions") + lengthField(8, lengthField(50, varintField(3, encoding))) +
        lengthField(4, lengthField(1, "M") + lengthField(2, fieldBytes() + varintField(4, 3)))));
    EXPECT_EQ(editions.messages.at("M").fields.at("a").packed, encoding == 1) << encoding;
  }
  // Two extensions of M named x, from the packages p and q, keep their full names also when the
  // first file is met again after the second.
  const std::string extension = lengthField(1, "x") + varintField(5, 5) + lengthField(2, ".p.M");
  const std::string p = setOf(lengthField(2, "p") + lengthField(4, lengthField(1, "M")) +
                              lengthField(7, extension + varintField(3, 1)));
  const std::string q = setOf(lengthField(2, "q") + lengthField(7, extension + varintField(3, 2)));
  const SchemaManifest twice = importBytes(p + q + p);
  std::vector<std::string> names;
  for (const auto& [name, field] : twice.messages.at("p.M").fields) names.push_back(name);
  EXPECT_EQ(names, (std::vector<std::string>{"p.x", "q.x"}));
  // A field's other options are not its [packed]; proto3 packs no strings, bytes or messages.
  const SchemaManifest deprecated = schemaManifestFromProtoText(
      "syntax = \"proto2\"; message M { repeated int32 r = 1 [deprecated = true]; }");
  EXPECT_FALSE(deprecated.messages.at("M").fields.at("r").packed);
  const SchemaManifest proto3 = schemaManifestFromProtoText(
      "syntax = \"proto3\"; message M { repeated string s = 1; repeated bytes b = 2; "
      "repeated M m = 3; repeated int32 i = 4; }");
  for (const auto& [name, field] : proto3.messages.at("M").fields) {
    EXPECT_EQ(field.packed, name == "i") << name;
  }
}

std::string nestedMessages(int depth) {
  std::string body = lengthField(1, "N");
  for (int i = 1; i < depth; ++i) body = lengthField(1, "N") + lengthField(3, body);
  return setOf(lengthField(4, body));
}

TEST(DescriptorSetImport, NestingIsLimitedToAHundredMessages) {
  const SchemaManifest deepest = importBytes(nestedMessages(100));
  EXPECT_EQ(deepest.messages.size(), 100u);
  std::string longest = "N";
  for (int i = 1; i < 100; ++i) longest += ".N";
  EXPECT_TRUE(deepest.messages.contains(longest));
  EXPECT_EQ(catchError([&] { importBytes(nestedMessages(101)); }), DSC::cannotLoadDescriptor());
}

// A descriptor-shaped schema whose descriptor fields have other types: a value of the wrong kind
// is reported by the property it was found in. Each property is switched to a type of the same
// wire type (a number to uint64, the rest to bytes), so that the set still decodes.
TEST(DescriptorSetImport, ValuesOfTheWrongKindNameTheirProperty) {
  const Bytes catalog = readGenerated("import/catalog.desc");
  const std::string_view bytes = asText(catalog);
  const std::tuple<const char*, const char*, const char*> rows[] = {
      {"FileDescriptorSet", "file", "FileDescriptorSet message type is expected"},
      {"FileDescriptorProto", "message_type", "Message descriptor property"},
      {"FileDescriptorProto", "enum_type", "Enum descriptor property"},
      {"FileDescriptorProto", "extension", "Message descriptor property"},
      {"DescriptorProto", "name", "Message name"},
      {"DescriptorProto", "field", "Field descriptor"},
      {"DescriptorProto", "options", "Invalid options"},
      {"DescriptorProto", "oneof_decl", "Oneof descriptor"},
      {"EnumDescriptorProto", "name", "Enum name"},
      {"EnumDescriptorProto", "value", "Enum name"},
      {"EnumDescriptorProto", "options", "Enum options"},
      {"EnumValueDescriptorProto", "name", "Enum value name"},
      {"EnumValueDescriptorProto", "number", "Enum value name"},
      {"EnumValueDescriptorProto", "options", "Enum value options"},
      {"FieldDescriptorProto", "name", "Field name"},
      {"FieldDescriptorProto", "number", "Field number"},
      {"FieldDescriptorProto", "label", "Field type name"},
      {"FieldDescriptorProto", "type", "Field type"},
      {"FieldDescriptorProto", "type_name", "Field type name"},
      {"FieldDescriptorProto", "options", "Field option"},
      {"FieldDescriptorProto", "oneof_index", "Oneof index"},
      {"FieldDescriptorProto", "extendee", "Failed to get extendee message name"},
      {"OneofDescriptorProto", "name", "Enum name"},
  };
  for (const auto& [message, name, expected] : rows) {
    SchemaManifest schema = renamedDescriptorManifest();
    FieldManifest& field = schema.messages.at("k." + std::string(message)).fields.at(name);
    const bool number = field.type == T::int32 || field.type == T::enum_;
    field = {.type = number ? T::uint64 : T::bytes,
             .fieldNumber = field.fieldNumber,
             .isRepeated = field.isRepeated};
    EXPECT_EQ(catchError([&] { importWith(schema, bytes); }), DSC::invalidValueType(expected))
        << message << "." << name;
  }
  // Oneof options of another kind are passed over.
  SchemaManifest schema = renamedDescriptorManifest();
  schema.messages.at("k.OneofDescriptorProto").fields.at("options") = {.fieldNumber = 2};
  SchemaManifest expected;
  expected.messages["M"].oneofs = {{.name = "o"}};
  EXPECT_EQ(importWith(schema, setOf(lengthField(4, lengthField(1, "M") +
                                                        lengthField(8, lengthField(1, "o") +
                                                                           varintField(2, 1))))),
            expected);
  // Options written before the name are kept.
  expected.messages["M"].oneofs[0].options = Bytes{};
  EXPECT_EQ(
      importBytes(setOf(lengthField(
          4, lengthField(1, "M") + lengthField(8, lengthField(2, "") + lengthField(1, "o"))))),
      expected);
}

// ---------------------------------------------------------------------------------------------
// Stores made from manifest data, and the manifests read back from stores

// What a library store holds for `manifest`: the manifest merged into the built-in one.
SchemaManifest withBuiltin(const SchemaManifest& manifest) {
  SchemaManifest merged = builtinDescriptorManifest();
  merged.merge(manifest, MergePolicy::keepExisting);
  return merged;
}

// A store of another implementation, forwarding to a library store.
class ForwardingStore final : public SchemaStoreDescribing {
 public:
  explicit ForwardingStore(const SchemaManifest& manifest)
      : inner_(ProtoSchemaStore::make(manifest)) {}
  std::set<std::string> messageSchemaNames() const override { return inner_->messageSchemaNames(); }
  std::set<std::string> enumSchemaNames() const override { return inner_->enumSchemaNames(); }
  std::shared_ptr<MessageSchemaDescribing> messageSchema(std::string_view name) const override {
    return inner_->messageSchema(name);
  }
  std::shared_ptr<EnumSchemaDescribing> enumSchema(std::string_view name) const override {
    return inner_->enumSchema(name);
  }

 private:
  std::shared_ptr<ProtoSchemaStore> inner_;
};

// What the store has materialised, with the options schemas that came along.
TEST(ManifestEngagementsOnly, HoldsWhatHasBeenMaterialised) {
  const SchemaManifest manifest = importBytes(readGenerated("import/catalog.desc"));
  const SchemaManifest all = withBuiltin(manifest);
  const std::string entry = "ostrel.imp.Catalog.Entry", detail = entry + ".Detail";
  const std::string kind = entry + ".Kind", status = "ostrel.imp.Status", pb = "google.protobuf.";
  using Use = std::function<void(const SchemaStore&)>;
  // The message and enum schemas each use gives.
  const std::pair<Use, std::vector<std::string>> rows[] = {
      {[](const SchemaStore&) {}, {}},
      {[&](const SchemaStore& s) { s.messageSchema(detail), s.messageSchema(detail); }, {detail}},
      {[&](const SchemaStore& s) { s.enumSchema(kind); }, {kind}},
      {[&](const SchemaStore& s) { s.enumSchema(status); },
       {pb + "EnumOptions", pb + "EnumValueOptions", status}},
      {[&](const SchemaStore& s) { s.messageSchema("ostrel.imp.Catalog"); },
       {"ostrel.imp.Catalog", pb + "MessageOptions"}},
      {[&](const SchemaStore& s) { s.messageSchema(entry).fieldNamed("detail").type(); },
       {entry, detail}},
      {[&](const SchemaStore& s) { s.messageSchema(detail).fieldNamed("marks"); },
       {detail, pb + "FieldOptions"}},
      {[](const SchemaStore& s) { EXPECT_ANY_THROW(s.messageSchema("ostrel.imp.Nothing")); }, {}},
  };
  for (const auto& [use, names] : rows) {
    const SchemaStore store(manifest);
    use(store);
    SchemaManifest expected;
    for (const std::string& name : names) {
      if (all.messages.contains(name)) {
        expected.messages[name] = all.messages.at(name);
      } else {
        expected.enums[name] = all.enums.at(name);
      }
    }
    EXPECT_EQ(manifestEngagementsOnly(store), expected);
  }
}

// ---------------------------------------------------------------------------------------------
// Export

TEST(DescriptorSetExport, WritesDescriptorsAsProtocDoes) {
  SchemaManifest manifest;
  MessageManifest& order = manifest.messages["shop.Order"];
  order.fields["items"] = {
      .type = T::message, .typeName = "shop.Item", .fieldNumber = 2, .isRepeated = true};
  order.fields["note"] = {
      .type = T::message, .typeName = "shop.Note", .fieldNumber = 4, .delimited = true};
  order.fields["state"] = {
      .type = T::enum_, .typeName = "shop.State", .fieldNumber = 3, .oneofIndex = 0};
  // Index 1 names no oneof of the one there is: it is left out.
  order.fields["id"] = {.type = T::sint64, .fieldNumber = 1, .oneofIndex = 1};
  order.oneofs = {{.name = "status", .options = Bytes{}}};
  order.options = toBytes(varintField(3, 1));
  manifest.enums["shop.State"] = {.values = {{"PAID", 1}, {"OPEN", 0}, {"ALSO_PAID", 1}},
                                  .valueOptions = {{0, toBytes(varintField(1, 1))}}};
  // Values in number order, then name order.
  pb::FileDescriptorSet expected;
  ASSERT_TRUE(pb::TextFormat::ParseFromString(R"(file {
    message_type { name: "shop.Order" options { deprecated: true }
      field { name: "id" number: 1 label: LABEL_OPTIONAL type: TYPE_SINT64 }
      field { name: "items" number: 2 label: LABEL_REPEATED type: TYPE_MESSAGE
              type_name: ".shop.Item" }
      field { name: "note" number: 4 label: LABEL_OPTIONAL type: TYPE_GROUP
              type_name: ".shop.Note" }
      field { name: "state" number: 3 label: LABEL_OPTIONAL type: TYPE_ENUM
              type_name: ".shop.State" oneof_index: 0 }
      oneof_decl { name: "status" options {} } }
    enum_type { name: "shop.State"
      value { name: "OPEN" number: 0 options { deprecated: true } }
      value { name: "ALSO_PAID" number: 1 } value { name: "PAID" number: 1 } } })",
                                              &expected));
  pb::FileDescriptorSet set = parseSet(descriptorSetFromManifest(manifest));
  // A delimited field makes it an Editions 2023 file of explicit presence (the edition and the
  // features are fields libprotobuf 3.21 does not know); without one it is a plain proto2 file.
  pb::FileDescriptorProto& file = *set.mutable_file(0);
  EXPECT_EQ(file.syntax(), "editions");
  EXPECT_EQ(file.options().unknown_fields().field(0).number(), 50);
  EXPECT_EQ(file.options().unknown_fields().field(0).length_delimited(), "\x08\x01");
  EXPECT_EQ(file.unknown_fields().field(0).varint(), 1000u);
  file.clear_syntax();
  file.clear_options();
  file.mutable_unknown_fields()->Clear();
  EXPECT_TRUE(pb::util::MessageDifferencer::Equals(set, expected)) << set.DebugString();
}

// ---------------------------------------------------------------------------------------------
// .proto files parsed at run time

TEST(ProtoFileImport, ErrorsNameFileLineAndColumn) {
  const auto directory = std::filesystem::path(::testing::TempDir()) / "ostrel_proto_file_errors";
  std::filesystem::create_directories(directory);
  const auto write = [&](const char* name, const char* text) {
    std::ofstream(directory / name) << text;
    return name;
  };
  // Line 0 of the parser is line 1 of the file.
  const std::pair<const char*, std::string> rows[] = {
      {write("syntax.proto", "syntax = \"proto3\";\n\nmessage M {\n  int32 x = ;\n}\n"),
       "syntax.proto:4:13: Expected field number."},
      {write("first.proto", "syntax = \"proto3\"; message M { int32 x = ; }"),
       "first.proto:1:42: Expected field number."},
      {write("imports.proto", "syntax = \"proto3\";\nimport \"missing.proto\";\n"),
       "missing.proto: File not found."},
      {write("weak.proto", "syntax = \"proto3\";\nimport weak \"missing.proto\";\n"),
       "missing.proto: File not found."},
      {"absent.proto", "absent.proto: File not found."},
  };
  for (const auto& [file, expected] : rows) {
    EXPECT_EQ(catchError([&] { schemaManifestFromProtoFiles({file}, {directory.string()}); }),
              JSON::invalidValueType(expected));
  }
  std::filesystem::remove_all(directory);
}

// ---------------------------------------------------------------------------------------------
// Older proto2 schemas (tests/data/proto2_shapes.proto): group fields left out on request, and
// extensions of one message that share a simple name kept apart.

DescriptorImportOptions skippingGroups(std::vector<std::string>* skipped) {
  return {.groups = DescriptorImportOptions::Groups::skip,
          .groupSkipped = [skipped](const std::string& f) { skipped->push_back(f); }};
}

// ProtoJSON writes an extension under its full name in brackets, with JSON names or without;
// encode reads that form and the schema's own key for the field. (libprotobuf 3.21's JSON printer
// leaves extensions out, so the reference is the text.)
TEST(Proto2Import, SchemasWithoutGroupsReadAndWriteTheirData) {
  std::vector<std::string> skipped;
  const SchemaStore store(schemaManifestFromDescriptorSet(readGenerated("proto2_shapes.desc"),
                                                          skippingGroups(&skipped)));
  // Each group field is reported once, in the order of the descriptors.
  EXPECT_EQ(skipped, (std::vector<std::string>{
                         "ostrel.proto2.Legacy.header", "ostrel.proto2.Legacy.item",
                         "ostrel.proto2.Legacy.choice", "ostrel.proto2.Legacy.Header.entry",
                         "ostrel.proto2.marker"}));
  const MessageSchema legacy = store.messageSchema("ostrel.proto2.Legacy");
  // proto2 fields and extensions have presence: no defaults are made up for them.
  EXPECT_EQ(renderJSON(legacy.schematizedData(std::string()), JsonOptions{.printDefaults = true}),
            R"({"codes":[]})");

  EXPECT_EQ(catchError([&] { legacy.fieldNamed("message_set_extension"); }),
            SchematizerError::fieldNotFound(
                "Schema \"ostrel.proto2.Legacy\" property with name \"message_set_extension\" is "
                "ambiguous between ostrel.proto2.First.message_set_extension and "
                "ostrel.proto2.Second.message_set_extension"));
  EXPECT_EQ(legacy.fieldWithNumber(4135312).name(), "ostrel.proto2.Second.message_set_extension");

  proto2::Legacy message;
  message.set_note("field");
  message.SetExtension(proto2::note, "extension");
  message.AddExtension(proto2::ext_values, -3);
  message.AddExtension(proto2::ext_values, 4);
  message.MutableExtension(proto2::First::message_set_extension)->set_a(1);
  message.MutableExtension(proto2::Second::message_set_extension)->set_b("two");
  const SchematizedData extensions = legacy.schematizedData(message.SerializeAsString());
  EXPECT_EQ(extensions.value("note"), AnyValue("field"));
  // The schema's own keys: the simple name, or the full name where the simple one is shared.
  const std::string ownKeys =
      R"({"note":"field","ext_values":[-3,4],"ostrel.proto2.note":"extension",)"
      R"("ostrel.proto2.First.message_set_extension":{"a":1},)"
      R"("ostrel.proto2.Second.message_set_extension":{"b":"two"}})";
  const std::string brackets =
      R"({"note":"field","[ostrel.proto2.ext_values]":[-3,4],"[ostrel.proto2.note]":"extension",)"
      R"("[ostrel.proto2.First.message_set_extension]":{"a":1},)"
      R"("[ostrel.proto2.Second.message_set_extension]":{"b":"two"}})";
  EXPECT_EQ(renderJSON(extensions), brackets);
  EXPECT_EQ(renderJSON(extensions, JsonOptions{.jsonNames = true}), brackets);
  for (const std::string& text : {brackets, ownKeys}) {
    const SchematizedData encoded = parseJSON(legacy, text);
    proto2::Legacy parsed;
    ASSERT_TRUE(
        parsed.ParseFromArray(encoded.data().data(), static_cast<int>(encoded.data().size())));
    EXPECT_TRUE(google::protobuf::util::MessageDifferencer::Equals(parsed, message)) << text;
  }
}

}  // namespace
}  // namespace ostrel
