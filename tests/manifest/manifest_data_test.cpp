#include "ostrel/manifest/manifest_data.hpp"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <utility>

#include "manifest/descriptor_test_support.hpp"
#include "store/proto_schema_store.hpp"
#include "support/test_support.hpp"

namespace ostrel {
namespace {

using testing_support::catchError;
using testing_support::kDescriptorSets;
using testing_support::readGenerated;

SchemaManifest imported(const char* set) {
  return schemaManifestFromDescriptorSet(readGenerated(set));
}

// What a library store holds for `manifest`: the manifest merged into the built-in one.
SchemaManifest withBuiltin(const SchemaManifest& manifest) {
  SchemaManifest merged = builtinDescriptorManifest();
  merged.merge(manifest, MergePolicy::keepExisting);
  return merged;
}

TEST(SchemaManifestFromData, DecodesEachFormatOrFailsWithItsReadersError) {
  const SchemaManifest rich = imported("rich.desc");
  for (const SchemaManifestData& data :
       {SchemaManifestData{SchemaManifestType::dscProto, readGenerated("rich.desc")},
        SchemaManifestData{SchemaManifestType::jsonProto, toBytes(schemaManifestToJSON(rich))}}) {
    EXPECT_EQ(schemaManifestFromData(data), rich);
    EXPECT_EQ(fullManifest(schemaStoreFromData(data)), withBuiltin(rich));
  }
  EXPECT_EQ(schemaManifestFromData({SchemaManifestType::dscProto, {}}), SchemaManifest{});
  EXPECT_EQ(catchError([] {
              schemaStoreFromData({SchemaManifestType::jsonProto, toBytes("{\"messages\": 3}")});
            }),
            SchemaManifestJSONError::invalidValueType("messages: expected an object"));
  EXPECT_EQ(
      catchError([] {
        schemaStoreFromData({SchemaManifestType::dscProto, readGenerated("import/group.desc")});
      }),
      SchemaManifestDSCError::invalidValueType("Group is deprecated"));
}

TEST(FullManifest, GivesBackWhatTheStoreWasMadeOf) {
  for (const char* name : kDescriptorSets) {
    SCOPED_TRACE(name);
    const SchemaManifest manifest = imported(name);
    const SchemaStore store = schemaStoreFromManifest(manifest);
    EXPECT_EQ(fullManifest(store), withBuiltin(manifest));
    // Everything is materialised now, so the used schemas are all of them.
    EXPECT_EQ(manifestEngagementsOnly(store), withBuiltin(manifest));
  }
  EXPECT_EQ(fullManifest(schemaStoreFromManifest({})), builtinDescriptorManifest());
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

TEST(FullManifest, ReadsOtherStoresThroughTheirInterfaceButNotTheirUsedSchemas) {
  const SchemaManifest manifest = imported("import/catalog.desc");
  const SchemaStore other(std::make_shared<ForwardingStore>(manifest));
  EXPECT_EQ(fullManifest(other), withBuiltin(manifest));
  EXPECT_EQ(catchError([&] { manifestEngagementsOnly(other); }),
            SchematizerError::internalError("Unsupported manifestEngagementsOnly"));
}

// What the store has materialised, with the options schemas that came along.
TEST(ManifestEngagementsOnly, HoldsWhatHasBeenMaterialised) {
  const SchemaManifest manifest = imported("import/catalog.desc");
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
    const SchemaStore store = schemaStoreFromManifest(manifest);
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

}  // namespace
}  // namespace ostrel
