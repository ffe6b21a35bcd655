// Schemas, data, values and iterators that outlive the store they came from keep working for
// whoever holds them, and once the last of them goes everything is freed. The weak pointers below
// see a reference cycle in any build; under LeakSanitizer (the sanitizer build of the tests) any
// other leak fails the test run as well.

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ostrel/ostrel.hpp"
#include "reliability/reliability_support.hpp"
#include "support/test_support.hpp"

namespace ostrel {
namespace {

using testing_support::generatedManifest;
using testing_support::readGenerated;

// Every message reachable from `schema` through field types, each materialised with all its
// fields resolved and oneofs created.
void resolveAll(const MessageSchema& schema, std::vector<MessageSchema>& seen) {
  for (const MessageSchema& known : seen) {
    if (known == schema) return;
  }
  seen.push_back(schema);
  schema.allOneofs();
  for (const auto& entry : schema.fieldsByNumber()) {
    if (const auto nested = entry.second.type().messageSchema()) resolveAll(*nested, seen);
  }
}

TEST(ReliabilityLifetimeTest, SchemasDataAndValuesOutliveTheirStore) {
  std::vector<std::weak_ptr<MessageSchemaDescribing>> watched;
  {
    std::optional<SchemaStore> store(generatedManifest("rich.desc"));
    const MessageSchema rich = store->messageSchema("ostrel.test.Rich");
    std::vector<MessageSchema> reachable;
    resolveAll(rich, reachable);
    for (const MessageSchema& schema : reachable) watched.push_back(schema.impl());
    const EnumSchema color = store->enumSchema("ostrel.test.Color");
    const SchematizedData data = rich.schematizedData(testing_support::richMessage());
    const std::string before = renderJSON(data);
    Schematizer::RepeatableFieldIterator mids(data.bytes(), 4, rich.fieldNamed("mids").type());
    const AnyValue mid = *data.value("mid");
    store.reset();

    EXPECT_EQ(renderJSON(data), before);
    EXPECT_EQ(data.value("scalars.f_enum")->enumValue().name(), "BLUE");
    EXPECT_EQ(color.valueNameFor(2), "GREEN");
    EXPECT_EQ(mid.messageValue().value("leaf.id"), AnyValue(int32_t{1}));
    EXPECT_EQ(mids.next()->messageValue().value("note"), AnyValue("m"));
    EXPECT_EQ(mids.next(), std::nullopt);
    const SchematizedData built = parseJSON(rich, R"({"color": "RED", "mids": [{}]})");
    EXPECT_EQ(renderJSON(built), R"({"mids":[{}],"color":"RED"})");
  }
  for (const auto& schema : watched) EXPECT_TRUE(schema.expired());
}

TEST(ReliabilityLifetimeTest, RecursiveDescriptorSchemasOutliveTheirStore) {
  // descriptor.proto nests itself (DescriptorProto.nested_type) and reaches its options messages,
  // which carry options of their own kind.
  std::vector<std::weak_ptr<MessageSchemaDescribing>> watched;
  {
    std::optional<SchemaStore> store(generatedManifest("descriptor.desc"));
    const MessageSchema set = store->messageSchema("google.protobuf.FileDescriptorSet");
    std::vector<MessageSchema> reachable;
    resolveAll(set, reachable);
    EXPECT_GT(reachable.size(), 10u);
    for (const MessageSchema& schema : reachable) watched.push_back(schema.impl());
    const SchematizedData data = set.schematizedData(readGenerated("rich.desc"));
    // The import through the store's own schema, as a caller with descriptor.proto would run it.
    EXPECT_EQ(schemaManifestFromDescriptorSet(data.unsafe()).enums.count("ostrel.test.Color"), 1u);
    // Rendered once before, so that the schemas' kept rendering plans hold the types released.
    const std::string before = renderJSON(data);
    store.reset();

    // The fields that closed a cycle now report the store as gone, in the rendering as anywhere
    // else; the rest reads as before.
    const std::string after = renderJSON(data);
    EXPECT_NE(after.find(R"("name":"rich.proto")"), std::string::npos);
    EXPECT_NE(after.find("Store is destroyed"), std::string::npos);
    EXPECT_NE(after, before);
    EXPECT_EQ(data.value("file[0].package"), AnyValue("ostrel.test"));
    // An import through the caller's schema reaches a released edge (Rich's map entries are
    // nested types) and says so.
    EXPECT_EQ(testing_support::catchError([&] { schemaManifestFromDescriptorSet(data.unsafe()); }),
              SchematizerError::internalError("Store is destroyed"));
  }
  for (const auto& schema : watched) EXPECT_TRUE(schema.expired());
}

}  // namespace
}  // namespace ostrel
