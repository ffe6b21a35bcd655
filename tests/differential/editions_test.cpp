// Editions schemas compiled by buf (Edition 2024 and an Edition 2023 file it imports, with each
// feature set at file, message, enum and field level, and protobuf's conformance messages in
// Edition 2023, whose file makes message fields DELIMITED):
// their features decide each field's presence and encoding, and the library renders and encodes
// buf's messages as buf's own JSON conversion has them. Reading through delimited fields (paths,
// iteration, projections) is the proto2 groups' part in the differential suite: the same flag.

#include <google/protobuf/descriptor.pb.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "ostrel/manifest/typed_import.hpp"
#include "ostrel/ostrel.hpp"
#include "support/test_support.hpp"

namespace ostrel {
namespace {

using nlohmann::json;

#ifdef OSTREL_EDITIONS_GENERATED
const std::string kGenerated = OSTREL_EDITIONS_GENERATED;
#else
const std::string kGenerated;
#endif

#define SKIP_WITHOUT_BUF() \
  if (kGenerated.empty()) GTEST_SKIP() << "buf was not found: no Editions descriptor sets"

// A file buf made, under tests/generated/editions.
Bytes generated(const std::string& name) {
  return testing_support::readGenerated("editions/" + name);
}

struct Sample {
  std::string set;
  std::string type;
  std::string message;
};

// The conformance messages are built where the shared schemas are.
const Sample kSamples[] = {
    {"features", "ostrel.editions.Record", "record"},
#ifdef OSTREL_SHARED_SCHEMAS
    {"conformance", "protobuf_test_messages.editions.TestAllTypesEdition2023", "all_types_2023"},
#endif
};

TEST(Editions, ReadsRendersAndEncodesAsBufConvertsTheMessage) {
  SKIP_WITHOUT_BUF();
  for (const Sample& sample : kSamples) {
    SCOPED_TRACE(sample.message);
    const SchemaStore store(schemaManifestFromDescriptorSet(generated(sample.set + ".binpb")));
    const MessageSchema schema = store.messageSchema(sample.type);
    const SchematizedData data = schema.schematizedData(generated(sample.message + ".binpb"));
    const std::string bufText(asText(generated(sample.message + ".json")));
    const json expected = json::parse(bufText);
    EXPECT_EQ(json::parse(renderJSON(data, JsonOptions{.jsonNames = true})), expected);

    // buf's JSON encodes to a message that renders the same; delimited fields go out as groups.
    const SchematizedData encoded = parseJSON(schema, bufText);
    EXPECT_EQ(json::parse(renderJSON(encoded, JsonOptions{.jsonNames = true})), expected);
    int delimited = 0;
    Reader reader(encoded.bytes());
    while (reader.hasMoreFields()) {
      const FieldTag tag = reader.readTag();
      const FieldSchema field = schema.fieldWithNumber(tag.fieldNumber());
      if (field.type().kind() == TypeSchema::Case::message) {
        delimited += field.isDelimited();
        EXPECT_EQ(tag.wireType(),
                  field.isDelimited() ? ProtoWireType::startGroup : ProtoWireType::lengthDelimited)
            << field.name();
      }
      reader.skipField(tag);
    }
    EXPECT_GT(delimited, 1);
  }
}

// What each field's features resolve to, from both importers.
TEST(Editions, FeaturesResolveFromTheFileTheFieldAndTheEditionsDefaults) {
  SKIP_WITHOUT_BUF();
  struct Row {
    std::string set;
    std::string message;
    std::string field;
    bool delimited;
    bool implicitPresence;
    bool closedEnum = false;
  };
  const std::string all = "protobuf_test_messages.editions.TestAllTypesEdition2023";
  const Row rows[] = {
      // File: IMPLICIT presence, DELIMITED messages; the fields override either.
      {"features", "ostrel.editions.Record", "implicit", false, true},
      {"features", "ostrel.editions.Record", "explicit", false, false},
      {"features", "ostrel.editions.Record", "needed", false, false},  // LEGACY_REQUIRED
      {"features", "ostrel.editions.Record", "delimited", true, false},
      {"features", "ostrel.editions.Record", "prefixed", false, false},
      {"features", "ostrel.editions.Record", "leaves", true, false},
      {"features", "ostrel.editions.Record", "prefixed_leaves", false, false},
      {"features", "ostrel.editions.Record", "chosen", true, false},    // in a oneof
      {"features", "ostrel.editions.Record", "by_name", false, false},  // a map
      {"features", "ostrel.editions.Record.ByNameEntry", "value", false, false},
      {"features", "ostrel.editions.Record", "kind", false, false, true},  // the file's CLOSED
      {"features", "ostrel.editions.Record", "open", false, true},         // the enum's own OPEN
      {"features", "ostrel.editions.Record", "text", false, true},
      {"features", "ostrel.editions.Record", "old", false, false},
      // Edition 2023, its file IMPLICIT and DELIMITED too, in a message of its own JSON format.
      {"features", "ostrel.editions.Old", "implicit", false, true},
      {"features", "ostrel.editions.Old", "explicit", false, false},
      {"features", "ostrel.editions.Old", "delimited", true, false},
      {"features", "ostrel.editions.Old", "prefixed", false, false},
      {"features", "ostrel.editions.Old", "olds", true, false},
      {"features", "ostrel.editions.Old", "level", false, true},            // the enum's own OPEN
      {"features", "ostrel.editions.Legacy", "level", false, false, true},  // of a proto2 file
      // Edition 2023's default: EXPLICIT presence; the file: DELIMITED.
      {"conformance", all, "optional_int32", false, false},
      {"conformance", all, "optional_nested_enum", false, false},  // open
      {"conformance", all, "repeated_int32", false, false},
      {"conformance", all, "optional_nested_message", false, false},
      {"conformance", all, "map_recursive", false, false},
      {"conformance", all + ".MapRecursiveEntry", "value", false, false},
      {"conformance", all, "groupliketype", true, false},
      {"conformance", all, "delimited_ext", true, false},  // an extension
  };
  for (const Sample& sample : kSamples) {
    const std::string& set = sample.set;
    const Bytes bytes = generated(set + ".binpb");
    google::protobuf::FileDescriptorSet parsed;
    ASSERT_TRUE(parsed.ParseFromArray(bytes.data(), static_cast<int>(bytes.size())));
    const SchemaStore stores[] = {SchemaStore(schemaManifestFromDescriptorSet(bytes)),
                                  SchemaStore(schemaManifestFromDescriptorSet(parsed))};
    for (const Row& row : rows) {
      if (row.set != set) continue;
      SCOPED_TRACE(row.message + "." + row.field);
      for (const SchemaStore& store : stores) {
        const FieldSchema field = store.messageSchema(row.message).fieldNamed(row.field);
        EXPECT_EQ(field.isDelimited(), row.delimited);
        EXPECT_EQ(field.hasImplicitPresence(), row.implicitPresence);
        EXPECT_EQ(field.hasClosedEnum(), row.closedEnum);
      }
    }
  }
  const SchemaStore store(schemaManifestFromDescriptorSet(generated("features.binpb")));
  // Defaults are printed for the fields without presence only.
  EXPECT_EQ(renderJSON(store.messageSchema("ostrel.editions.Record").schematizedData(std::string()),
                       JsonOptions{.printDefaults = true}),
            R"({"implicit":0,"leaves":[],"prefixed_leaves":[],"by_name":{},"expanded":[],)"
            R"("packed":[],"open":"OPEN_ZERO","text":""})");
}

}  // namespace
}  // namespace ostrel
