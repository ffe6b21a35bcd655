// Arbitrary text read as the JSON form of a schema manifest, then a store built from what it
// accepts and walked as a caller would walk it (see exerciseStore).
//
// Invariants: an accepted manifest writes out as JSON that reads back equal, both compact and
// indented, and as a descriptor set that imports again.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz_support.hpp"

namespace {

using namespace ostrel;
using ostrel::fuzz::finding;
using ostrel::fuzz::tolerate;

void readsBackEqual(const SchemaManifest& manifest, bool pretty) {
  // The reader accepts only UTF-8 text, so every name it gave has a JSON form.
  try {
    const std::string json = schemaManifestToJSON(manifest, pretty);
    if (!(schemaManifestFromJSON(json) == manifest)) finding("the JSON form reads back different");
  } catch (const Error& e) {
    finding(std::string("the JSON form does not write or read back: ") + e.what());
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  SchemaManifest manifest;
  if (!tolerate([&] { manifest = schemaManifestFromJSON(text); })) return 0;

  readsBackEqual(manifest, false);
  readsBackEqual(manifest, true);
  tolerate([&] { (void)schemaManifestFromDescriptorSet(descriptorSetFromManifest(manifest)); });

  // The store stops the process on two oneofs of one name in a message (see fuzz_support.hpp).
  if (fuzz::hasDuplicateOneofNames(manifest)) return 0;
  tolerate([&] {
    (void)SchemaStore(
        schemaManifestFromData({.type = SchemaManifestType::jsonProto, .data = toBytes(text)}));
  });
  fuzz::exerciseStore(manifest);
  return 0;
}
