// Arbitrary bytes imported as a serialized google.protobuf.FileDescriptorSet with the library's
// own reader, then a store built from the manifest and walked as a caller would walk it (see
// exerciseStore), the manifest written back as a descriptor set and read again, and its JSON form
// read back. The bytes are also imported and rendered through the FileDescriptorSet schema of a
// store holding all of descriptor.proto, which knows every descriptor field and nests itself.
//
// Two duplicate names stop the process by design instead of throwing: two values of one name in
// one enum (at import) and two oneofs of one name in one message (when the store creates the
// message). Such inputs are passed over, each detected so that nothing else is hidden with them:
// the enum names by a scan of the bytes made before the import, with the library's reader and the
// same skipping rules, that collects every name any occurrence could give (a superset of what the
// import keeps); the oneof names exactly, on the imported manifest.

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "fuzz_support.hpp"

namespace {

using namespace ostrel;
using ostrel::fuzz::finding;
using ostrel::fuzz::tolerate;

// Field numbers of descriptor.proto on the way to enum value names.
constexpr int64_t kSetFile = 1;
constexpr int64_t kFileMessageType = 4;
constexpr int64_t kFileEnumType = 5;
constexpr int64_t kMessageNestedType = 3;
constexpr int64_t kMessageEnumType = 4;
constexpr int64_t kEnumValue = 2;
constexpr int64_t kValueName = 1;
// The import refuses messages nested deeper than 100; scanning a little further costs nothing.
constexpr int kMaxScanDepth = 110;

// Calls `visit` with the number and payload of every length-delimited field of the message in
// `bytes`, in order, and steps over everything else. A fault ends the walk quietly: the import
// reads no further than that either, and whatever came before it has been visited.
template <typename Visit>
void eachLengthDelimited(ByteView bytes, Visit&& visit) {
  Reader reader(bytes);
  try {
    while (reader.hasMoreFields()) {
      const FieldTag tag = reader.readTag();
      if (tag.wireType() == ProtoWireType::lengthDelimited) {
        visit(tag.fieldNumber(), reader.readLengthDelimited());
      } else {
        reader.skipField(tag);
      }
    }
  } catch (const Error&) {
  }
}

// Whether two values of the enum in `bytes` could carry one name. Every occurrence of a value's
// name counts, whichever one the import ends up keeping.
bool enumMayRepeatAName(ByteView bytes) {
  std::map<std::string, int> valuesNamed;
  bool repeated = false;
  eachLengthDelimited(bytes, [&](int64_t number, ByteView value) {
    if (number != kEnumValue) return;
    std::set<std::string> names;
    eachLengthDelimited(value, [&](int64_t field, ByteView name) {
      if (field == kValueName) names.insert(toString(name));
    });
    for (const std::string& name : names) repeated |= ++valuesNamed[name] > 1;
  });
  return repeated;
}

bool messageMayRepeatAnEnumName(ByteView bytes, int depth) {
  if (depth > kMaxScanDepth) return false;
  bool repeated = false;
  eachLengthDelimited(bytes, [&](int64_t number, ByteView payload) {
    if (number == kMessageEnumType) repeated |= enumMayRepeatAName(payload);
    if (number == kMessageNestedType) repeated |= messageMayRepeatAnEnumName(payload, depth + 1);
  });
  return repeated;
}

bool setMayRepeatAnEnumName(ByteView bytes) {
  bool repeated = false;
  eachLengthDelimited(bytes, [&](int64_t number, ByteView file) {
    if (number != kSetFile) return;
    eachLengthDelimited(file, [&](int64_t field, ByteView payload) {
      if (field == kFileEnumType) repeated |= enumMayRepeatAName(payload);
      if (field == kFileMessageType) repeated |= messageMayRepeatAnEnumName(payload, 1);
    });
  });
  return repeated;
}

// Whether every field's oneofIndex points into its message's oneofs, the condition under which
// the JSON form reads back equal.
bool oneofIndicesHold(const SchemaManifest& manifest) {
  for (const auto& [name, message] : manifest.messages) {
    for (const auto& [fieldName, field] : message.fields) {
      if (field.oneofIndex && (*field.oneofIndex < 0 ||
                               static_cast<size_t>(*field.oneofIndex) >= message.oneofs.size())) {
        return false;
      }
    }
  }
  return true;
}

// google.protobuf.FileDescriptorSet of a store made from descriptor.proto itself, every schema
// materialised up front (see richStore()).
MessageSchema fullDescriptorSetSchema() {
  static const SchemaStore store = [] {
    SchemaStore made(
        schemaManifestFromDescriptorSet(asBytes(fuzz::readFile(OSTREL_FUZZ_DESCRIPTOR_DESC))));
    for (const std::string& name : made.messageSchemaNames()) {
      const MessageSchema schema = made.messageSchema(name);
      for (const auto& entry : schema.fieldsByNumber()) entry.second.type();
      schema.allOneofs();
    }
    return made;
  }();
  return store.messageSchema("google.protobuf.FileDescriptorSet");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const ByteView bytes(reinterpret_cast<const std::byte*>(data), size);
  const MessageSchema fullSet = fullDescriptorSetSchema();
  tolerate([&] { (void)renderJSON(fullSet.schematizedData(toBytes(bytes))); });
  if (setMayRepeatAnEnumName(bytes)) return 0;
  std::optional<SchemaManifest> viaFullSchema;
  tolerate([&] {
    viaFullSchema = schemaManifestFromDescriptorSet(fullSet.impl()->unsafeSchematizedData(bytes));
  });

  SchemaManifest manifest;
  if (!tolerate([&] { manifest = schemaManifestFromDescriptorSet(bytes); })) return 0;
  // The full schema knows more descriptor fields, so more values are decoded (and can fail), but
  // the import uses the same ones: where both succeed they agree.
  if (viaFullSchema && !(*viaFullSchema == manifest)) {
    finding("the imports through the built-in and the full descriptor schemas differ");
  }
  if (fuzz::hasDuplicateOneofNames(manifest)) return 0;

  // The same bytes through the public entry point for caller-supplied schema data.
  tolerate([&] {
    (void)schemaStoreFromData({.type = SchemaManifestType::dscProto, .data = toBytes(bytes)});
  });

  fuzz::exerciseStore(manifest);

  // Written back as a descriptor set, the manifest imports again.
  tolerate([&] {
    const Bytes written = descriptorSetFromManifest(manifest);
    (void)schemaManifestFromDescriptorSet(written);
  });

  // The JSON form reads back equal.
  if (!oneofIndicesHold(manifest)) return 0;
  std::string json;
  if (!tolerate([&] { json = schemaManifestToJSON(manifest); })) return 0;
  try {
    if (!(schemaManifestFromJSON(json) == manifest)) finding("the JSON form reads back different");
  } catch (const Error& e) {
    finding(std::string("the JSON form does not read back: ") + e.what() + "\n" + json);
  }
  return 0;
}
