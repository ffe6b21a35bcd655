#pragma once

// The library's own schema objects. Message and enum schemas are created by ProtoSchemaStore on
// first lookup; field and oneof schemas by their message schema on first lookup. Each refers to the
// store only weakly, so the store and its schemas form no reference cycle.
//
// Every schema may be used by many threads at once. Enum and oneof schemas never change after they
// are made. A message schema makes its fields and oneofs under its own mutex and publishes each for
// good; a field resolves its type through the store and publishes it with one compare-and-swap.
// Reads of what is already published take no lock: only materialising does.

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "ostrel/core/describing.hpp"
#include "ostrel/manifest/manifest.hpp"
#include "store/lazy_slot.hpp"
#include "store/schema_attachment.hpp"

namespace ostrel {

namespace detail {

// Hashing for string-keyed maps that are looked up by std::string_view without a copy.
struct StringHash {
  using is_transparent = void;
  size_t operator()(std::string_view text) const noexcept {
    return std::hash<std::string_view>{}(text);
  }
};

template <typename T>
using StringMap = std::unordered_map<std::string, T, StringHash, std::equal_to<>>;

}  // namespace detail

class ProtoBaseSchema : public virtual SchemaDescribing {
 public:
  explicit ProtoBaseSchema(std::string name) : name_(std::move(name)) {}
  const std::string& name() const noexcept final { return name_; }
  // Empty for every schema of the library.
  std::string typeDescription() const override { return {}; }

 private:
  std::string name_;
};

class ProtoFieldSchema final : public ProtoBaseSchema, public FieldSchemaDescribing {
 public:
  // Fails when the field's options cannot be paired with the store's FieldOptions schema.
  static std::shared_ptr<ProtoFieldSchema> make(
      std::string name, const FieldManifest& manifest,
      const std::shared_ptr<SchemaStoreDescribing>& store);
  ~ProtoFieldSchema() override;
  ProtoFieldSchema(const ProtoFieldSchema&) = delete;
  ProtoFieldSchema& operator=(const ProtoFieldSchema&) = delete;

  bool isRepeated() const noexcept override { return isRepeated_; }
  bool isOptional() const noexcept override { return true; }
  const std::optional<SchematizedData>& options() const noexcept override { return options_; }
  std::optional<int32_t> oneofIndex() const noexcept override { return oneofIndex_; }
  int64_t fieldNumber() const noexcept override { return fieldNumber_; }
  const std::optional<std::string>& extensionName() const noexcept override {
    return extensionName_;
  }
  std::string jsonName() const override;
  bool isDelimited() const noexcept override { return delimited_; }
  bool isPacked() const noexcept override { return packed_; }
  bool hasClosedEnum() const noexcept override { return closedEnum_; }
  // The json_name the schema declares, when it is not the computed one.
  const std::optional<std::string>& declaredJsonName() const noexcept { return jsonName_; }
  bool hasImplicitPresence() const noexcept override { return implicitPresence_; }
  // Throws SchematizerError::internalError "Store is destroyed" when the type still has to be
  // resolved and the store is gone, and the store's lookup errors; a failure leaves the type
  // unresolved, so the next call tries again. Threads that resolve the type at once all get the
  // one that was published first.
  const TypeSchemaDescription& type() const override {
    if (const TypeSchemaDescription* resolved = resolved_.load(std::memory_order_acquire))
        [[likely]] {
      return *resolved;
    }
    return resolve();
  }

  // The manifest type and type name this field was made from.
  TypeManifest manifestType() const noexcept { return manifestType_; }
  const std::optional<std::string>& typeName() const noexcept { return typeName_; }

  // The resolved type, or null while the type is unresolved.
  const TypeSchemaDescription* resolvedType() const noexcept {
    return resolved_.load(std::memory_order_acquire);
  }
  // Drops the references that close a cycle of schemas when their store goes: the resolved type
  // falls back to its unresolved form (so type() reports the store as destroyed) and the options
  // are dropped. Only the store's destructor calls these: a reference type() or options() gave out
  // before is then no longer valid.
  void releaseType() const;
  void releaseOptions() const { options_.reset(); }

 private:
  ProtoFieldSchema(std::string name, const FieldManifest& manifest,
                   const std::shared_ptr<SchemaStoreDescribing>& store);
  const TypeSchemaDescription& resolve() const;

  // Null until the type is resolved; owned.
  mutable std::atomic<const TypeSchemaDescription*> resolved_{nullptr};
  bool isRepeated_;
  int64_t fieldNumber_;
  mutable std::optional<SchematizedData> options_;
  std::optional<int32_t> oneofIndex_;
  TypeManifest manifestType_;
  std::optional<std::string> typeName_;
  std::optional<std::string> extensionName_;
  std::optional<std::string> jsonName_;
  // For resolving the type.
  std::weak_ptr<SchemaStoreDescribing> store_;
  bool implicitPresence_;
  bool delimited_;
  bool packed_;
  bool closedEnum_;
};

class ProtoEnumSchema final : public ProtoBaseSchema, public EnumSchemaDescribing {
 public:
  // Fails when the options cannot be paired with the store's options schemas.
  static std::shared_ptr<ProtoEnumSchema> make(std::string name, const EnumManifest& manifest,
                                               const SchemaStoreDescribing& store);

  const std::map<std::string, int64_t, std::less<>>& allValues() const noexcept override {
    return allValues_;
  }
  const std::set<int64_t>& valueSet() const noexcept override { return valueSet_; }
  const std::optional<SchematizedData>& options() const noexcept override { return options_; }
  const std::map<int64_t, SchematizedData>& valueOptions() const noexcept override {
    return valueOptions_;
  }
  // Throws SchematizerError::enumValueNotFound "Enum: <enum>, <name> value".
  int64_t valueNamed(std::string_view name) const override;
  // With aliases, the first name in name order. Throws SchematizerError::enumValueNotFound
  // "Enum: <enum>, <number> value".
  const std::string& valueNameFor(int64_t number) const override;
  const std::string* findValueNameFor(int64_t number) const noexcept override;

 private:
  explicit ProtoEnumSchema(std::string name) : ProtoBaseSchema(std::move(name)) {}

  std::map<std::string, int64_t, std::less<>> allValues_;
  std::set<int64_t> valueSet_;
  std::optional<SchematizedData> options_;
  std::map<int64_t, SchematizedData> valueOptions_;
  // Number to the first of its names in allValues_ order, for rendering values by name.
  std::unordered_map<int64_t, const std::string*> namesByNumber_;
};

class ProtoOneOfSchema final : public ProtoBaseSchema, public OneofSchemaDescribing {
 public:
  // `fields` maps the names of the oneof's member fields to their numbers.
  static std::shared_ptr<ProtoOneOfSchema> make(const OneofManifest& manifest,
                                                std::map<std::string, int64_t, std::less<>> fields,
                                                const SchemaStoreDescribing& store);

  const std::map<std::string, int64_t, std::less<>>& fieldsMap() const noexcept {
    return fieldsMap_;
  }
  const std::optional<SchematizedData>& options() const noexcept override { return options_; }
  const std::set<int64_t>& allFieldNumbers() const noexcept override { return allFieldNumbers_; }
  const std::set<std::string>& allFieldNames() const noexcept override { return allFieldNames_; }
  // Throws SchematizerError::fieldNotFound "One of field with field number: <number>".
  const std::string& fieldNameFor(int64_t number) const override;
  // Throws SchematizerError::fieldNotFound "One of property with name: <name>".
  int64_t fieldNumberNamed(std::string_view name) const override;

 private:
  explicit ProtoOneOfSchema(std::string name) : ProtoBaseSchema(std::move(name)) {}

  std::map<std::string, int64_t, std::less<>> fieldsMap_;
  std::set<std::string> allFieldNames_;
  std::set<int64_t> allFieldNumbers_;
  std::optional<SchematizedData> options_;
};

class ProtoMessageSchema final : public ProtoBaseSchema,
                                 public MessageSchemaDescribing,
                                 public std::enable_shared_from_this<ProtoMessageSchema> {
 public:
  using FieldContainer = detail::LazySlot<FieldManifest, FieldSchemaDescribing>;
  struct OneofContainer {
    OneofContainer(int32_t i, OneofManifest manifest) : index(i), value(std::move(manifest)) {}
    int32_t index;
    detail::LazySlot<OneofManifest, OneofSchemaDescribing> value;
  };

  // Fails when the message's options cannot be paired with the store's MessageOptions schema.
  // Stops the process on two oneofs of one name.
  static std::shared_ptr<ProtoMessageSchema> make(
      std::string name, const MessageManifest& manifest,
      const std::shared_ptr<SchemaStoreDescribing>& store);

  const std::optional<SchematizedData>& options() const noexcept override { return options_; }
  const std::vector<std::string>& allFieldNames() const noexcept override { return allFieldNames_; }
  const std::vector<std::string>& allOneofNames() const noexcept override { return allOneofNames_; }
  const std::map<int64_t, std::shared_ptr<FieldSchemaDescribing>>& fieldsByNumber() const override;
  std::vector<std::shared_ptr<OneofSchemaDescribing>> allOneofs() const override;
  const std::shared_ptr<FieldSchemaDescribing>& fieldNamed(std::string_view name) const override;
  const std::shared_ptr<FieldSchemaDescribing>& fieldWithNumber(int64_t number) const override;
  const std::shared_ptr<OneofSchemaDescribing>& oneofNamed(std::string_view name) const override;
  SchematizedData schematizedData(Bytes data) const override;
  UnsafeSchematizedData unsafeSchematizedData(ByteView bytes) const override;
  std::shared_ptr<SchemaStoreDescribing> originStore() const override { return origin_.lock(); }

  // The fields materialised so far, by number; a snapshot, for tests.
  std::map<int64_t, std::shared_ptr<FieldSchemaDescribing>> fieldsCache() const {
    const std::lock_guard lock(mutex_);
    return fieldsCache_;
  }
  // The number of fields and oneofs not materialised yet.
  int64_t uninitializedCount() const {
    const std::lock_guard lock(mutex_);
    return uninitializedCount_;
  }
  // Whether the schema still refers to its store: it lets go once nothing is left to materialise.
  bool refersToStore() const {
    const std::lock_guard lock(mutex_);
    return !store_.expired();
  }

  // The manifest this schema describes, rebuilt from its fields and oneofs (materialised or not).
  MessageManifest manifest() const;

  // The JSON renderer's plans of this message, made on first use by any thread.
  detail::AttachmentSlot& renderingPlans() const noexcept { return renderingPlans_; }

  // Calls `visit` with each materialised field.
  template <typename Visit>
  void forEachMaterialisedField(Visit&& visit) const {
    for (const auto& entry : fields_) {
      if (entry.second.materialised()) visit(*entry.second.schema());
    }
  }
  // Calls `visit` with each materialised oneof.
  template <typename Visit>
  void forEachMaterialisedOneof(Visit&& visit) const {
    for (const auto& entry : oneofs_) {
      if (entry.second.value.materialised()) visit(*entry.second.value.schema());
    }
  }

 private:
  explicit ProtoMessageSchema(std::string name) : ProtoBaseSchema(std::move(name)) {}

  // The rest run under mutex_.
  std::shared_ptr<SchemaStoreDescribing> lockStore() const;
  const std::shared_ptr<FieldSchemaDescribing>& materialiseField(FieldContainer& slot,
                                                                 const std::string& name) const;
  const std::shared_ptr<OneofSchemaDescribing>& materialiseOneof(OneofContainer& slot) const;
  void countMaterialised() const;

  // Whether every field is materialised: fieldsCache_ then never changes again.
  bool fieldsComplete() const noexcept {
    return uninitializedFieldCount_.load(std::memory_order_acquire) == 0;
  }

  std::optional<SchematizedData> options_;
  std::vector<std::string> allFieldNames_;
  std::vector<std::string> allOneofNames_;
  // Kept when store_ is let go: only lookups by name (an Any's type) need it.
  std::weak_ptr<SchemaStoreDescribing> origin_;
  // fields_ and oneofs_ keep their keys from construction on; only their slots change.
  mutable detail::StringMap<FieldContainer> fields_;
  mutable detail::StringMap<OneofContainer> oneofs_;

  // Held while a field or oneof is materialised; guards what follows.
  mutable std::mutex mutex_;
  mutable std::weak_ptr<SchemaStoreDescribing> store_;
  // Read without the lock once fieldsComplete().
  mutable std::map<int64_t, std::shared_ptr<FieldSchemaDescribing>> fieldsCache_;
  mutable int64_t uninitializedCount_ = 0;
  // The fields among them: once none is left, fieldsByNumber() has nothing to materialise.
  mutable std::atomic<int64_t> uninitializedFieldCount_{0};
  mutable detail::AttachmentSlot renderingPlans_;
};

}  // namespace ostrel
