#include "ostrel/manifest/manifest_data.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <string>
#include <variant>
#include <vector>

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

const ProtoSchemaStore& ownStore(const SchemaStore& store) {
  return dynamic_cast<const ProtoSchemaStore&>(*store.impl());
}

// ---------------------------------------------------------------------------------------------
// Manifests and stores from data

TEST(SchemaManifestFromData, DecodesEachFormat) {
  const Bytes rich = readGenerated("rich.desc");
  const SchemaManifest richManifest = schemaManifestFromDescriptorSet(rich);
  struct Row {
    const char* name;
    SchemaManifestData data;
    SchemaManifest expected;
  };
  const Row rows[] = {
      {"descriptor set", {SchemaManifestType::dscProto, rich}, richManifest},
      {"empty descriptor set", {SchemaManifestType::dscProto, {}}, {}},
      {"JSON",
       {SchemaManifestType::jsonProto, toBytes(schemaManifestToJSON(richManifest))},
       richManifest},
      {"empty JSON object", {SchemaManifestType::jsonProto, toBytes("{}")}, {}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(schemaManifestFromData(row.data), row.expected);
  }
}

TEST(SchemaManifestFromData, FailsWithTheReadersErrors) {
  SchemaManifestJSONError jsonError = SchemaManifestJSONError::invalidValueType("");
  try {
    schemaManifestFromJSON("{\"messages\": 3}");
    FAIL() << "the JSON reader took an invalid manifest";
  } catch (const SchemaManifestJSONError& error) {
    jsonError = error;
  }
  struct Row {
    const char* name;
    SchemaManifestData data;
    std::variant<SchemaManifestJSONError, SchemaManifestDSCError, SerializationError> expected;
  };
  const Row rows[] = {
      {"invalid JSON manifest",
       {SchemaManifestType::jsonProto, toBytes("{\"messages\": 3}")},
       jsonError},
      {"rejected descriptor",
       {SchemaManifestType::dscProto, readGenerated("import/group.desc")},
       SchemaManifestDSCError::invalidValueType("Group is deprecated")},
      {"truncated descriptor set",
       {SchemaManifestType::dscProto, toBytes(std::string_view("\x0A\x05\x12", 3))},
       SerializationError::truncated()},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    std::visit(
        [&](const auto& e) { EXPECT_EQ(catchError([&] { schemaManifestFromData(row.data); }), e); },
        row.expected);
    std::visit(
        [&](const auto& e) { EXPECT_EQ(catchError([&] { schemaStoreFromData(row.data); }), e); },
        row.expected);
  }
}

TEST(SchemaStoreFromData, HoldsEveryEntryInManifestForm) {
  const Bytes bytes = readGenerated("import/catalog.desc");
  const SchemaManifest manifest = schemaManifestFromDescriptorSet(bytes);
  const SchemaManifest expected = withBuiltin(manifest);
  struct Row {
    const char* name;
    SchemaStore store;
  };
  const Row rows[] = {
      {"from data", schemaStoreFromData({SchemaManifestType::dscProto, bytes})},
      {"from manifest", schemaStoreFromManifest(manifest)},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const ProtoSchemaStore& store = ownStore(row.store);
    EXPECT_EQ(store.messageSchemas().size(), expected.messages.size());
    for (const auto& [name, message] : expected.messages) {
      SCOPED_TRACE(name);
      const auto it = store.messageSchemas().find(name);
      ASSERT_NE(it, store.messageSchemas().end());
      ASSERT_EQ(it->second.index(), 0u);
      EXPECT_EQ(std::get<0>(it->second), message);
    }
    EXPECT_EQ(store.enumSchemas().size(), expected.enums.size());
    for (const auto& [name, enumManifest] : expected.enums) {
      SCOPED_TRACE(name);
      const auto it = store.enumSchemas().find(name);
      ASSERT_NE(it, store.enumSchemas().end());
      ASSERT_EQ(it->second.index(), 0u);
      EXPECT_EQ(std::get<0>(it->second), enumManifest);
    }
    const FieldSchema kind = row.store.messageSchema("ostrel.imp.Catalog.Entry").fieldNamed("kind");
    EXPECT_EQ(kind.type().enumSchema()->name(), "ostrel.imp.Catalog.Entry.Kind");
  }
}

// ---------------------------------------------------------------------------------------------
// Full manifest

TEST(FullManifest, GivesBackWhatTheStoreWasMadeOf) {
  for (const char* name : kDescriptorSets) {
    SCOPED_TRACE(name);
    const SchemaManifest manifest = imported(name);
    EXPECT_EQ(fullManifest(schemaStoreFromManifest(manifest)), withBuiltin(manifest));
  }
  EXPECT_EQ(fullManifest(schemaStoreFromManifest({})), builtinDescriptorManifest());
}

TEST(FullManifest, FailsOnTypeNamesTheStoreCannotResolve) {
  struct Row {
    const char* name;
    FieldManifest field;
    SchematizerError expected;
  };
  const Row rows[] = {
      {"missing message",
       {.type = TypeManifest::message, .typeName = "x.Missing", .fieldNumber = 1},
       SchematizerError::schemaNotFound("x.Missing")},
      {"missing enum",
       {.type = TypeManifest::enum_, .typeName = "x.Gone", .fieldNumber = 1},
       SchematizerError::enumNotFound("x.Gone")},
      {"message without type name",
       {.type = TypeManifest::message, .fieldNumber = 1},
       SchematizerError::missingFieldSchemaName()},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    SchemaManifest manifest;
    manifest.messages["x.M"].fields["f"] = row.field;
    EXPECT_EQ(catchError([&] { fullManifest(schemaStoreFromManifest(manifest)); }), row.expected);
  }
}

// A store of another implementation: it forwards to a library store, but its enum schemas are
// not the library's own.
class ForwardingEnum final : public EnumSchemaDescribing {
 public:
  explicit ForwardingEnum(std::shared_ptr<EnumSchemaDescribing> inner) : inner_(std::move(inner)) {}
  const std::string& name() const noexcept override { return inner_->name(); }
  std::string typeDescription() const override { return inner_->typeDescription(); }
  const std::set<int64_t>& valueSet() const noexcept override { return inner_->valueSet(); }
  const std::optional<SchematizedData>& options() const noexcept override {
    return inner_->options();
  }
  const std::map<int64_t, SchematizedData>& valueOptions() const noexcept override {
    return inner_->valueOptions();
  }
  int64_t valueNamed(std::string_view name) const override { return inner_->valueNamed(name); }
  const std::string& valueNameFor(int64_t number) const override {
    return inner_->valueNameFor(number);
  }
  const std::string* findValueNameFor(int64_t number) const noexcept override {
    return inner_->findValueNameFor(number);
  }
  const std::map<std::string, int64_t, std::less<>>& allValues() const noexcept override {
    return inner_->allValues();
  }

 private:
  std::shared_ptr<EnumSchemaDescribing> inner_;
};

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
    return std::make_shared<ForwardingEnum>(inner_->enumSchema(name));
  }

 private:
  std::shared_ptr<ProtoSchemaStore> inner_;
};

TEST(FullManifest, ReadsOtherStoresThroughTheirInterface) {
  const SchemaManifest manifest = imported("import/catalog.desc");
  // Aliases included: the interface lists every value name.
  EXPECT_EQ(fullManifest(SchemaStore(std::make_shared<ForwardingStore>(manifest))),
            withBuiltin(manifest));
}

// ---------------------------------------------------------------------------------------------
// Manifest of the used schemas

TEST(ManifestEngagementsOnly, HoldsWhatHasBeenMaterialised) {
  const SchemaManifest manifest = imported("import/catalog.desc");
  const SchemaManifest all = withBuiltin(manifest);
  const std::string entry = "ostrel.imp.Catalog.Entry";
  const std::string detail = "ostrel.imp.Catalog.Entry.Detail";
  struct Row {
    const char* name;
    std::function<void(const SchemaStore&)> use;
    std::set<std::string> messages;
    std::set<std::string> enums;
  };
  const Row rows[] = {
      {"fresh store", [](const SchemaStore&) {}, {}, {}},
      {"one message", [&](const SchemaStore& s) { s.messageSchema(detail); }, {detail}, {}},
      {"the same message twice",
       [&](const SchemaStore& s) {
         s.messageSchema(detail);
         s.messageSchema(detail);
       },
       {detail},
       {}},
      {"one enum",
       [](const SchemaStore& s) { s.enumSchema("ostrel.imp.Catalog.Entry.Kind"); },
       {},
       {"ostrel.imp.Catalog.Entry.Kind"}},
      {"an enum with options brings the options schemas",
       [](const SchemaStore& s) { s.enumSchema("ostrel.imp.Status"); },
       {"google.protobuf.EnumOptions", "google.protobuf.EnumValueOptions"},
       {"ostrel.imp.Status"}},
      {"a message with options brings its options schema",
       [](const SchemaStore& s) { s.messageSchema("ostrel.imp.Catalog"); },
       {"ostrel.imp.Catalog", "google.protobuf.MessageOptions"},
       {}},
      {"a resolved field type brings the type",
       [&](const SchemaStore& s) { s.messageSchema(entry).fieldNamed("detail").type(); },
       {entry, detail},
       {}},
      {"a field with options brings the options schema",
       [&](const SchemaStore& s) { s.messageSchema(detail).fieldNamed("marks"); },
       {detail, "google.protobuf.FieldOptions"},
       {}},
      {"a failed lookup adds nothing",
       [](const SchemaStore& s) { EXPECT_ANY_THROW(s.messageSchema("ostrel.imp.Nothing")); },
       {},
       {}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const SchemaStore store = schemaStoreFromManifest(manifest);
    row.use(store);
    SchemaManifest expected;
    for (const std::string& name : row.messages) expected.messages[name] = all.messages.at(name);
    for (const std::string& name : row.enums) expected.enums[name] = all.enums.at(name);
    EXPECT_EQ(manifestEngagementsOnly(store), expected);
  }
}

TEST(ManifestEngagementsOnly, AfterAFullManifestHoldsEverything) {
  for (const char* name : kDescriptorSets) {
    SCOPED_TRACE(name);
    const SchemaStore store = schemaStoreFromManifest(imported(name));
    const SchemaManifest full = fullManifest(store);
    EXPECT_EQ(manifestEngagementsOnly(store), full);
  }
}

TEST(ManifestEngagementsOnly, OtherStoresAreNotSupported) {
  const SchemaStore store(std::make_shared<ForwardingStore>(SchemaManifest{}));
  EXPECT_EQ(catchError([&] { manifestEngagementsOnly(store); }),
            SchematizerError::internalError("Unsupported manifestEngagementsOnly"));
}

}  // namespace
}  // namespace ostrel
