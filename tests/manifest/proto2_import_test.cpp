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

DescriptorImportOptions skippingGroups(std::vector<std::string>* skipped) {
  return {.skipGroups = true,
          .groupSkipped = [skipped](const std::string& f) { skipped->push_back(f); }};
}

TEST(Proto2Import, GroupsAreLeftOutOnRequestAndExtensionsSharingANameAreBothKept) {
  const Bytes bytes = readGenerated("proto2_shapes.desc");
  using Run = std::function<SchemaManifest(const DescriptorImportOptions&)>;
  const std::pair<Run, std::variant<SchemaManifestDSCError, SchemaManifestJSONError>> imports[] = {
      {[&](const auto& o) { return schemaManifestFromDescriptorSet(bytes, o); },
       SchemaManifestDSCError::invalidValueType("Group is deprecated")},
      {[&](const auto& o) { return schemaManifestFromDescriptorSet(parseSet(bytes), o); },
       SchemaManifestJSONError::invalidValueType("Group is deprecated")},
      {[](const auto& o) {
         return schemaManifestFromProtoFiles({"proto2_shapes.proto"}, {OSTREL_TEST_DATA}, o);
       },
       SchemaManifestDSCError::invalidValueType("Group is deprecated")},
  };
  std::optional<SchemaManifest> first;
  for (const auto& [run, refusal] : imports) {
    std::visit([&](const auto& e) { EXPECT_EQ(catchError([&] { run({}); }), e); }, refusal);
    std::vector<std::string> skipped;
    const SchemaManifest manifest = run(skippingGroups(&skipped));
    EXPECT_EQ(skipped, kGroupFields);
    EXPECT_EQ(manifest, first.value_or(manifest));
    first = manifest;

    // The fields are gone, their message types and everything else stay.
    const auto& fields = manifest.messages.at("ostrel.proto2.Legacy").fields;
    for (const char* gone : {"header", "item", "choice", "marker", "message_set_extension"}) {
      EXPECT_FALSE(fields.contains(gone)) << gone;
    }
    EXPECT_EQ(fields.at("number").oneofIndex, 0);
    EXPECT_EQ(manifest.messages.at("ostrel.proto2.Legacy").oneofs.size(), 1u);
    EXPECT_FALSE(manifest.messages.at("ostrel.proto2.Legacy.Header").fields.contains("entry"));
    EXPECT_TRUE(manifest.messages.contains("ostrel.proto2.Legacy.Header.Entry"));
    EXPECT_TRUE(manifest.messages.contains("ostrel.proto2.Marker"));
    // Extensions sharing a simple name are both kept under their full names; one named like a
    // field of the message leaves the field its name. Each knows its full name.
    EXPECT_EQ(fields.at("ostrel.proto2.First.message_set_extension"),
              (FieldManifest{.type = TypeManifest::message,
                             .typeName = "ostrel.proto2.First",
                             .fieldNumber = 1547769}));
    EXPECT_EQ(fields.at("ostrel.proto2.Second.message_set_extension").fieldNumber, 4135312);
    EXPECT_EQ(fields.at("note").fieldNumber, 9);
    EXPECT_EQ(fields.at("note").extensionName, std::nullopt);
    EXPECT_EQ(fields.at("ostrel.proto2.note").fieldNumber, 111);
    EXPECT_EQ(fields.at("ostrel.proto2.note").extensionName, "ostrel.proto2.note");
    EXPECT_EQ(fields.at("ext_values").extensionName, "ostrel.proto2.ext_values");
  }
}

TEST(Proto2Import, EachGroupLeftOutIsLoggedOnce) {
  // The same file twice in one set: each group field is still logged once, and the manifest is
  // that of the file once.
  const Bytes bytes = readGenerated("proto2_shapes.desc");
  Bytes twice = bytes;
  twice.insert(twice.end(), bytes.begin(), bytes.end());
  std::mutex mutex;
  std::vector<std::string> logged;
  setLogHandler([&](std::string_view message) {
    std::lock_guard lock(mutex);
    logged.emplace_back(message);
  });
  SchemaManifest manifest;
  const auto caught =
      catchError([&] { manifest = schemaManifestFromDescriptorSet(twice, {.skipGroups = true}); });
  setLogHandler(nullptr);
  EXPECT_FALSE(caught.error) << caught.description;
  // Each extension met again replaces itself, under the key it was given the first time.
  std::vector<std::string> skipped;
  EXPECT_EQ(manifest, schemaManifestFromDescriptorSet(bytes, skippingGroups(&skipped)));
  std::vector<std::string> expected;
  for (const std::string& field : kGroupFields) {
    expected.push_back("Sch: Group field " + field + " left out of the schema");
  }
  EXPECT_EQ(logged, expected);
}

// Group data is skipped as unknown. ProtoJSON writes an extension under its full name in
// brackets, with JSON names or without; encode reads that form and the schema's own key for the
// field. (libprotobuf 3.21's JSON printer leaves extensions out, so the reference is the text.)
TEST(Proto2Import, SchemasWithoutGroupsReadAndWriteTheirData) {
  std::vector<std::string> skipped;
  const SchemaStore store(schemaManifestFromDescriptorSet(readGenerated("proto2_shapes.desc"),
                                                          skippingGroups(&skipped)));
  const MessageSchema legacy = store.messageSchema("ostrel.proto2.Legacy");
  proto2::Legacy groups;
  groups.set_id(3);
  groups.mutable_header()->add_entry()->set_key(4);
  groups.add_item()->set_sku(5);
  groups.add_codes(6);
  groups.add_codes(7);
  groups.mutable_choice()->set_picked(8);
  groups.MutableExtension(proto2::marker)->set_level(9);
  const SchematizedData data = legacy.schematizedData(groups.SerializeAsString());
  EXPECT_EQ(data.value("number"), std::nullopt);
  EXPECT_EQ(toJSON(data), R"({"id":3,"codes":[6,7]})");
  // Extensions have presence: no defaults are made up for them.
  EXPECT_EQ(toJSON(legacy.schematizedData(std::string()), JsonOptions{.printDefaults = true}),
            R"({"id":0,"codes":[],"note":""})");

  EXPECT_EQ(catchError([&] { legacy.fieldNamed("message_set_extension"); }),
            SchematizerError::fieldNotFound(
                "Schema \"ostrel.proto2.Legacy\" property with name \"message_set_extension\" is "
                "ambiguous between ostrel.proto2.First.message_set_extension and "
                "ostrel.proto2.Second.message_set_extension"));
  EXPECT_EQ(catchError([&] { legacy.fieldNamed("absent"); }),
            SchematizerError::fieldNotFound(
                "Schema \"ostrel.proto2.Legacy\" property with name \"absent\""));
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
  EXPECT_EQ(toJSON(extensions), brackets);
  EXPECT_EQ(toJSON(extensions, JsonOptions{.jsonNames = true}), brackets);
  for (const std::string& text : {brackets, ownKeys}) {
    const SchematizedData encoded = encodeJSON(legacy, text);
    proto2::Legacy parsed;
    ASSERT_TRUE(
        parsed.ParseFromArray(encoded.data().data(), static_cast<int>(encoded.data().size())));
    EXPECT_TRUE(google::protobuf::util::MessageDifferencer::Equals(parsed, message)) << text;
  }
}

}  // namespace
}  // namespace ostrel
