#include <algorithm>
#include <new>
#include <tuple>

#include "core/fatal.hpp"
#include "store/options.hpp"
#include "store/proto_schemas.hpp"

namespace ostrel {
namespace {

[[noreturn]] void duplicateKey(const std::string& key) {
  detail::fatal("Duplicate values for key: '" + key + "'");
}

// Both under the schema's mutex.
int64_t fieldNumberOf(const ProtoMessageSchema::FieldContainer& slot) {
  if (!slot.materialised()) return slot.manifest().fieldNumber;
  return slot.schema()->fieldNumber();
}

std::optional<int32_t> oneofIndexOf(const ProtoMessageSchema::FieldContainer& slot) {
  if (!slot.materialised()) return slot.manifest().oneofIndex;
  return slot.schema()->oneofIndex();
}

}  // namespace

std::shared_ptr<ProtoMessageSchema> ProtoMessageSchema::make(
    std::string name, const MessageManifest& manifest,
    const std::shared_ptr<SchemaStoreDescribing>& store) {
  std::shared_ptr<ProtoMessageSchema> schema(new ProtoMessageSchema(std::move(name)));

  std::vector<std::pair<int64_t, std::string>> byNumber;
  byNumber.reserve(manifest.fields.size());
  schema->fields_.reserve(manifest.fields.size());
  for (const auto& [fieldName, field] : manifest.fields) {
    byNumber.emplace_back(field.fieldNumber, fieldName);
    schema->fields_.emplace(std::piecewise_construct, std::forward_as_tuple(fieldName),
                            std::forward_as_tuple(field));
  }
  std::stable_sort(byNumber.begin(), byNumber.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  schema->allFieldNames_.reserve(byNumber.size());
  for (auto& entry : byNumber) schema->allFieldNames_.push_back(std::move(entry.second));

  if (manifest.oneofs.size() > static_cast<size_t>(INT32_MAX)) {
    detail::fatal("Oneof index out of range");
  }
  for (size_t i = 0; i < manifest.oneofs.size(); ++i) {
    const OneofManifest& oneof = manifest.oneofs[i];
    const bool inserted =
        schema->oneofs_.try_emplace(oneof.name, static_cast<int32_t>(i), oneof).second;
    if (!inserted) duplicateKey(oneof.name);
    schema->allOneofNames_.push_back(oneof.name);
  }
  std::sort(schema->allOneofNames_.begin(), schema->allOneofNames_.end());

  const auto fieldCount = static_cast<int64_t>(schema->allFieldNames_.size());
  schema->uninitializedFieldCount_.store(fieldCount, std::memory_order_relaxed);
  schema->uninitializedCount_ = fieldCount + static_cast<int64_t>(schema->oneofs_.size());
  schema->options_ = detail::schematizeOptions(manifest.options, *store,
                                               &SchemaStoreDescribing::hasMessageOptionsSchema,
                                               &SchemaStoreDescribing::messageOptionsSchema);
  // A message with nothing to materialise never needs its store.
  if (schema->uninitializedCount_ > 0) schema->store_ = store;
  schema->origin_ = store;
  return schema;
}

std::shared_ptr<SchemaStoreDescribing> ProtoMessageSchema::lockStore() const {
  std::shared_ptr<SchemaStoreDescribing> store = store_.lock();
  if (!store) throw SchematizerError::notInitialized();
  return store;
}

void ProtoMessageSchema::countMaterialised() const {
  if (--uninitializedCount_ == 0) store_.reset();
}

const std::shared_ptr<FieldSchemaDescribing>& ProtoMessageSchema::materialiseField(
    FieldContainer& slot, const std::string& fieldName) const {
  if (slot.materialised()) return slot.schema();
  const std::shared_ptr<SchemaStoreDescribing> store = lockStore();
  std::shared_ptr<FieldSchemaDescribing> field =
      ProtoFieldSchema::make(fieldName, slot.manifest(), store);
  // With two fields of one number, the first one materialised keeps the number.
  fieldsCache_.try_emplace(field->fieldNumber(), field);
  const std::shared_ptr<FieldSchemaDescribing>& published = slot.publish(std::move(field));
  // Release: a thread that reads the count as 0 reads fieldsCache_ complete, without the lock.
  uninitializedFieldCount_.store(uninitializedFieldCount_.load(std::memory_order_relaxed) - 1,
                                 std::memory_order_release);
  countMaterialised();
  return published;
}

const std::shared_ptr<FieldSchemaDescribing>& ProtoMessageSchema::fieldNamed(
    std::string_view fieldName) const {
  const auto it = fields_.find(fieldName);
  if (it == fields_.end()) {
    std::string text =
        "Schema \"" + name() + "\" property with name \"" + std::string(fieldName) + "\"";
    // Extensions that share a simple name are kept under their full names: name them all.
    std::vector<std::string_view> sharing;
    for (const auto& [key, slot] : fields_) {
      if (key.size() > fieldName.size() && key.ends_with(fieldName) &&
          key[key.size() - fieldName.size() - 1] == '.') {
        sharing.push_back(key);
      }
    }
    if (sharing.size() > 1) {
      std::sort(sharing.begin(), sharing.end());
      text += " is ambiguous between";
      for (size_t i = 0; i < sharing.size(); ++i) {
        text += i == 0 ? " " : (i + 1 == sharing.size() ? " and " : ", ");
        text += sharing[i];
      }
    }
    throw SchematizerError::fieldNotFound(std::move(text));
  }
  if (it->second.materialised()) [[likely]] {
    return it->second.schema();
  }
  const std::lock_guard lock(mutex_);
  return materialiseField(it->second, it->first);
}

const std::shared_ptr<FieldSchemaDescribing>& ProtoMessageSchema::fieldWithNumber(
    int64_t number) const {
  if (fieldsComplete()) [[likely]] {
    if (const auto cached = fieldsCache_.find(number); cached != fieldsCache_.end()) {
      return cached->second;
    }
    throw SchematizerError::fieldNotFound("With number " + std::to_string(number));
  }
  const std::lock_guard lock(mutex_);
  if (const auto cached = fieldsCache_.find(number); cached != fieldsCache_.end()) {
    return cached->second;
  }
  for (auto& [fieldName, slot] : fields_) {
    if (fieldNumberOf(slot) == number) return materialiseField(slot, fieldName);
  }
  throw SchematizerError::fieldNotFound("With number " + std::to_string(number));
}

const std::shared_ptr<OneofSchemaDescribing>& ProtoMessageSchema::materialiseOneof(
    OneofContainer& slot) const {
  if (slot.value.materialised()) return slot.value.schema();
  const std::shared_ptr<SchemaStoreDescribing> store = lockStore();
  std::map<std::string, int64_t, std::less<>> members;
  for (const auto& [fieldName, field] : fields_) {
    if (oneofIndexOf(field) == slot.index) {
      if (!members.emplace(fieldName, fieldNumberOf(field)).second) duplicateKey(fieldName);
    }
  }
  const std::shared_ptr<OneofSchemaDescribing>& published =
      slot.value.publish(ProtoOneOfSchema::make(slot.value.manifest(), std::move(members), *store));
  countMaterialised();
  return published;
}

const std::shared_ptr<OneofSchemaDescribing>& ProtoMessageSchema::oneofNamed(
    std::string_view oneofName) const {
  const auto it = oneofs_.find(oneofName);
  if (it == oneofs_.end()) throw SchematizerError::oneofNotFound();
  if (it->second.value.materialised()) return it->second.value.schema();
  const std::lock_guard lock(mutex_);
  return materialiseOneof(it->second);
}

const std::map<int64_t, std::shared_ptr<FieldSchemaDescribing>>&
ProtoMessageSchema::fieldsByNumber() const {
  // Walking the names once every field is materialised would change nothing, even while oneofs
  // are still pending.
  if (!fieldsComplete()) {
    const std::lock_guard lock(mutex_);
    for (const std::string& fieldName : allFieldNames_) {
      const auto it = fields_.find(fieldName);
      materialiseField(it->second, it->first);
    }
  }
  return fieldsCache_;
}

std::vector<std::shared_ptr<OneofSchemaDescribing>> ProtoMessageSchema::allOneofs() const {
  std::vector<std::pair<int32_t, std::shared_ptr<OneofSchemaDescribing>>> indexed;
  indexed.reserve(oneofs_.size());
  std::unique_lock lock(mutex_, std::defer_lock);
  for (auto& [oneofName, slot] : oneofs_) {
    if (!slot.value.materialised() && !lock.owns_lock()) lock.lock();
    indexed.emplace_back(slot.index, materialiseOneof(slot));
  }
  std::ranges::sort(indexed, {}, [](const auto& entry) { return entry.first; });
  std::vector<std::shared_ptr<OneofSchemaDescribing>> result;
  result.reserve(indexed.size());
  for (auto& entry : indexed) result.push_back(std::move(entry.second));
  return result;
}

SchematizedData ProtoMessageSchema::schematizedData(Bytes data) const {
  return SchematizedData(std::const_pointer_cast<ProtoMessageSchema>(shared_from_this()),
                         std::move(data));
}

UnsafeSchematizedData ProtoMessageSchema::unsafeSchematizedData(ByteView bytes) const {
  return UnsafeSchematizedData(std::const_pointer_cast<ProtoMessageSchema>(shared_from_this()),
                               bytes);
}

MessageManifest ProtoMessageSchema::manifest() const {
  const std::lock_guard lock(mutex_);
  MessageManifest manifest;
  for (const auto& [fieldName, slot] : fields_) {
    if (!slot.materialised()) {
      manifest.fields.emplace(fieldName, slot.manifest());
      continue;
    }
    const auto& field = static_cast<const ProtoFieldSchema&>(*slot.schema());
    manifest.fields.emplace(fieldName,
                            FieldManifest{.type = field.manifestType(),
                                          .typeName = field.typeName(),
                                          .fieldNumber = field.fieldNumber(),
                                          .isRepeated = field.isRepeated(),
                                          .oneofIndex = field.oneofIndex(),
                                          .options = detail::rawOptions(field.options()),
                                          .extensionName = field.extensionName(),
                                          .jsonName = field.declaredJsonName(),
                                          .implicitPresence = field.hasImplicitPresence(),
                                          .delimited = field.isDelimited(),
                                          .packed = field.isPacked(),
                                          .closedEnum = field.hasClosedEnum()});
  }
  manifest.oneofs.resize(oneofs_.size());
  for (const auto& [oneofName, slot] : oneofs_) {
    OneofManifest& oneof = manifest.oneofs[static_cast<size_t>(slot.index)];
    if (!slot.value.materialised()) {
      oneof = slot.value.manifest();
    } else {
      oneof = {oneofName, detail::rawOptions(slot.value.schema()->options())};
    }
  }
  manifest.options = detail::rawOptions(options_);
  return manifest;
}

}  // namespace ostrel
