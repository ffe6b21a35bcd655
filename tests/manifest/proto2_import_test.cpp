// Importing older proto2 schemas: group fields left out on request, and extensions of one message
// that share a simple name kept apart. The schema is tests/data/proto2_shapes.proto, through all
// three entry points (descriptor-set bytes, libprotobuf's parsed set, .proto files).

#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/util/message_differencer.h>
#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "manifest/descriptor_test_support.hpp"
#include "ostrel/core/logging.hpp"
#include "ostrel/manifest/manifest_data.hpp"
#include "ostrel/manifest/typed_import.hpp"
#include "ostrel/output/json.hpp"
#include "ostrel/store/schemas.hpp"
#include "ostrel/wire/schematizer.hpp"
#include "proto2_shapes.pb.h"
#include "support/test_support.hpp"

namespace ostrel {
namespace {

using testing_support::catchError;
using testing_support::parseSet;
using testing_support::readGenerated;

// The group fields of proto2_shapes.proto, by full name, in the order of the descriptors (a
// message's fields before its nested types, a file's messages before its extensions).
const std::vector<std::string> kGroupFields = {
    "ostrel.proto2.Legacy.header",       "ostrel.proto2.Legacy.item", "ostrel.proto2.Legacy.choice",
    "ostrel.proto2.Legacy.Header.entry", "ostrel.proto2.marker",
};

struct Import {
  const char* name;
  std::function<SchemaManifest(const DescriptorImportOptions&)> run;
};

std::vector<Import> imports() {
  const Bytes bytes = readGenerated("proto2_shapes.desc");
  return {
      {"descriptor-set bytes",
       [=](const DescriptorImportOptions& o) { return schemaManifestFromDescriptorSet(bytes, o); }},
      {"parsed descriptor set",
       [=](const DescriptorImportOptions& o) {
         return schemaManifestFromDescriptorSet(parseSet(bytes), o);
       }},
      {".proto file",
       [](const DescriptorImportOptions& o) {
         return schemaManifestFromProtoFiles({"proto2_shapes.proto"}, {OSTREL_TEST_DATA}, o);
       }},
  };
}

TEST(Proto2Import, GroupsAreRefusedUnlessLeftOut) {
  std::optional<SchemaManifest> first;
  for (const Import& import : imports()) {
    SCOPED_TRACE(import.name);
    const auto refused = catchError([&] { import.run({}); });
    if (std::string(import.name) == "parsed descriptor set") {
      EXPECT_EQ(refused, SchemaManifestJSONError::invalidValueType("Group is deprecated"));
    } else {
      EXPECT_EQ(refused, SchemaManifestDSCError::invalidValueType("Group is deprecated"));
    }

    std::vector<std::string> skipped;
    DescriptorImportOptions options;
    options.skipGroups = true;
    options.groupSkipped = [&](const std::string& field) { skipped.push_back(field); };
    const SchemaManifest manifest = import.run(options);
    EXPECT_EQ(skipped, kGroupFields);

    // The fields are gone, their message types and everything else stay.
    const MessageManifest& legacy = manifest.messages.at("ostrel.proto2.Legacy");
    for (const char* gone : {"header", "item", "choice", "marker"}) {
      EXPECT_FALSE(legacy.fields.contains(gone)) << gone;
    }
    EXPECT_EQ(legacy.fields.at("codes").fieldNumber, 8);
    EXPECT_EQ(legacy.fields.at("number").oneofIndex, 0);
    EXPECT_EQ(legacy.oneofs.size(), 1u);
    EXPECT_FALSE(manifest.messages.at("ostrel.proto2.Legacy.Header").fields.contains("entry"));
    EXPECT_TRUE(manifest.messages.contains("ostrel.proto2.Legacy.Header.Entry"));
    EXPECT_TRUE(manifest.messages.contains("ostrel.proto2.Marker"));
    if (first) {
      EXPECT_EQ(manifest, *first);
    } else {
      first = manifest;
    }
  }
}

TEST(Proto2Import, EachGroupLeftOutIsLoggedOnce) {
  // The same file twice in one set: each group field is still logged once.
  const Bytes bytes = readGenerated("proto2_shapes.desc");
  Bytes twice = bytes;
  twice.insert(twice.end(), bytes.begin(), bytes.end());
  std::mutex mutex;
  std::vector<std::string> logged;
  setLogHandler([&](std::string_view message) {
    std::lock_guard lock(mutex);
    logged.emplace_back(message);
  });
  DescriptorImportOptions options;
  options.skipGroups = true;
  const auto caught = catchError([&] { schemaManifestFromDescriptorSet(twice, options); });
  setLogHandler(nullptr);
  EXPECT_FALSE(caught.error) << caught.description;
  std::vector<std::string> expected;
  for (const std::string& field : kGroupFields) {
    expected.push_back("Sch: Group field " + field + " left out of the schema");
  }
  EXPECT_EQ(logged, expected);
}

TEST(Proto2Import, GroupDataIsSkippedAsUnknown) {
  DescriptorImportOptions options;
  options.skipGroups = true;
  options.groupSkipped = [](const std::string&) {};
  const SchemaStore store(
      schemaManifestFromDescriptorSet(readGenerated("proto2_shapes.desc"), options));
  proto2::Legacy message;
  message.set_id(3);
  message.mutable_header()->set_title("t");
  message.mutable_header()->add_entry()->set_key(4);
  message.add_item()->set_sku(5);
  message.add_codes(6);
  message.add_codes(7);
  message.mutable_choice()->set_picked(8);
  message.set_note("n");
  message.MutableExtension(proto2::marker)->set_level(9);
  const SchematizedData data =
      store.messageSchema("ostrel.proto2.Legacy").schematizedData(message.SerializeAsString());
  EXPECT_EQ(data.value("id"), AnyValue(int32_t{3}));
  EXPECT_EQ(data.value("codes[1]"), AnyValue(int32_t{7}));
  EXPECT_EQ(data.value("note"), AnyValue("n"));
  EXPECT_EQ(data.value("number"), std::nullopt);
  EXPECT_EQ(toJSON(data), R"({"id":3,"codes":[6,7],"note":"n"})");
}

TEST(Proto2Import, ExtensionsSharingASimpleNameAreBothKept) {
  DescriptorImportOptions options;
  options.skipGroups = true;
  options.groupSkipped = [](const std::string&) {};
  for (const Import& import : imports()) {
    SCOPED_TRACE(import.name);
    const SchemaManifest manifest = import.run(options);
    const auto& fields = manifest.messages.at("ostrel.proto2.Legacy").fields;
    EXPECT_FALSE(fields.contains("message_set_extension"));
    EXPECT_EQ(fields.at("ostrel.proto2.First.message_set_extension").fieldNumber, 1547769);
    EXPECT_EQ(fields.at("ostrel.proto2.First.message_set_extension").typeName,
              "ostrel.proto2.First");
    EXPECT_EQ(fields.at("ostrel.proto2.Second.message_set_extension").fieldNumber, 4135312);
    // An extension named like a field of the message leaves the field its name.
    EXPECT_EQ(fields.at("note").fieldNumber, 9);
    EXPECT_EQ(fields.at("ostrel.proto2.note").fieldNumber, 111);
    EXPECT_EQ(fields.at("ext_values").fieldNumber, 110);
    // Every extension knows its full name, whatever key it has; the message's own fields have none.
    EXPECT_EQ(fields.at("ext_values").extensionName, "ostrel.proto2.ext_values");
    EXPECT_EQ(fields.at("ostrel.proto2.note").extensionName, "ostrel.proto2.note");
    EXPECT_EQ(fields.at("note").extensionName, std::nullopt);
  }

  const SchemaStore store(imports().front().run(options));
  const MessageSchema legacy = store.messageSchema("ostrel.proto2.Legacy");
  EXPECT_EQ(catchError([&] { legacy.fieldNamed("message_set_extension"); }),
            SchematizerError::fieldNotFound(
                "Schema \"ostrel.proto2.Legacy\" property with name \"message_set_extension\" is "
                "ambiguous between ostrel.proto2.First.message_set_extension and "
                "ostrel.proto2.Second.message_set_extension"));
  EXPECT_EQ(catchError([&] { legacy.fieldNamed("absent"); }),
            SchematizerError::fieldNotFound(
                "Schema \"ostrel.proto2.Legacy\" property with name \"absent\""));
  EXPECT_EQ(legacy.fieldWithNumber(1547769).name(), "ostrel.proto2.First.message_set_extension");
  EXPECT_EQ(legacy.fieldWithNumber(4135312).name(), "ostrel.proto2.Second.message_set_extension");

  proto2::Legacy message;
  message.set_note("field");
  message.SetExtension(proto2::note, "extension");
  message.MutableExtension(proto2::First::message_set_extension)->set_a(1);
  message.MutableExtension(proto2::Second::message_set_extension)->set_b("two");
  const std::string bytes = message.SerializeAsString();
  const SchematizedData data = legacy.schematizedData(bytes);
  const auto second =
      Schematizer::value(asBytes(bytes), 4135312, legacy.fieldWithNumber(4135312).type());
  ASSERT_TRUE(second);
  EXPECT_EQ(second->messageValue().value("b"), AnyValue("two"));
  EXPECT_EQ(data.value("note"), AnyValue("field"));
}

// ProtoJSON writes an extension under its full name in brackets, with JSON names or without;
// encode reads that form and the schema's own key for the field. (libprotobuf 3.21's JSON
// printer leaves extensions out altogether, so the reference is the text itself.)
TEST(Proto2Import, ExtensionsInJsonAsLibprotobufWritesThem) {
  DescriptorImportOptions options;
  options.skipGroups = true;
  options.groupSkipped = [](const std::string&) {};
  const SchemaStore store(imports().front().run(options));
  const MessageSchema legacy = store.messageSchema("ostrel.proto2.Legacy");

  proto2::Legacy message;
  message.set_note("field");
  message.SetExtension(proto2::note, "extension");
  message.AddExtension(proto2::ext_values, -3);
  message.AddExtension(proto2::ext_values, 4);
  message.MutableExtension(proto2::First::message_set_extension)->set_a(1);
  message.MutableExtension(proto2::Second::message_set_extension)->set_b("two");
  const SchematizedData data = legacy.schematizedData(message.SerializeAsString());
  // The schema's own keys: the simple name, or the full name where the simple one is shared.
  const std::string ownKeys =
      R"({"note":"field","ext_values":[-3,4],"ostrel.proto2.note":"extension",)"
      R"("ostrel.proto2.First.message_set_extension":{"a":1},)"
      R"("ostrel.proto2.Second.message_set_extension":{"b":"two"}})";
  const std::string brackets =
      R"({"note":"field","[ostrel.proto2.ext_values]":[-3,4],"[ostrel.proto2.note]":"extension",)"
      R"("[ostrel.proto2.First.message_set_extension]":{"a":1},)"
      R"("[ostrel.proto2.Second.message_set_extension]":{"b":"two"}})";
  EXPECT_EQ(toJSON(data), brackets);
  EXPECT_EQ(toJSON(data, JsonOptions{.jsonNames = true}), brackets);
  // Extensions have presence: no defaults are made up for them.
  proto2::Legacy plain;
  plain.set_note("field");
  EXPECT_EQ(
      toJSON(legacy.schematizedData(plain.SerializeAsString()), JsonOptions{.printDefaults = true}),
      R"({"id":0,"codes":[],"note":"field"})");

  for (const std::string& text : {brackets, ownKeys}) {
    SCOPED_TRACE(text);
    const SchematizedData encoded = encodeJSON(legacy, text);
    proto2::Legacy parsed;
    ASSERT_TRUE(
        parsed.ParseFromArray(encoded.data().data(), static_cast<int>(encoded.data().size())));
    EXPECT_TRUE(google::protobuf::util::MessageDifferencer::Equals(parsed, message))
        << parsed.DebugString();
  }
}

}  // namespace
}  // namespace ostrel
