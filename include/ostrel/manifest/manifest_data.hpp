#pragma once

// Schemas as callers hand them over (bytes tagged with their format), the stores made from them,
// and manifests taken back out of a store.

#include <cstdint>

#include "ostrel/core/bytes.hpp"
#include "ostrel/manifest/manifest.hpp"
#include "ostrel/store/schemas.hpp"

namespace ostrel {

// The format of SchemaManifestData's bytes.
enum class SchemaManifestType : uint8_t {
  jsonProto,  // the JSON form of a schema manifest (json_manifest.hpp)
  dscProto,   // a serialized google.protobuf.FileDescriptorSet (descriptor_set.hpp)
};

struct SchemaManifestData {
  SchemaManifestType type = SchemaManifestType::jsonProto;
  Bytes data;

  friend bool operator==(const SchemaManifestData&, const SchemaManifestData&) = default;
};

// Decodes the data by its type: jsonProto with schemaManifestFromJSON (throws
// SchemaManifestJSONError), dscProto with schemaManifestFromDescriptorSet (throws
// SchemaManifestDSCError, MergeConflict, SerializationError and the store's errors). An empty
// dscProto buffer gives an empty manifest.
SchemaManifest schemaManifestFromData(const SchemaManifestData& data);

// A new store of the decoded manifest (merged into the built-in descriptor manifest), every entry
// still in manifest form. Throws as schemaManifestFromData does.
SchemaStore schemaStoreFromData(const SchemaManifestData& data);

// A new store of `manifest` merged into the built-in descriptor manifest, every entry still in
// manifest form.
SchemaStore schemaStoreFromManifest(const SchemaManifest& manifest);

// Every message and enum of any store, rebuilt through the abstract schema interfaces: field types
// come from the resolved types, so every message and enum of the store, and every type its fields
// refer to, gets materialised. A field whose type name the store cannot resolve makes it fail with
// the store's lookup error (SchematizerError::schemaNotFound or enumNotFound): such a store has no
// complete manifest to give. Of the library's own enum schemas every value name is kept; other
// implementations expose one name per number. Of a library store built from a manifest M, the
// result equals M merged into the built-in descriptor manifest, provided M's type names resolve
// and its options are those of the options messages the store knows.
SchemaManifest fullManifest(const SchemaStore& store);

// The messages and enums the store has materialised so far (looked up, or reached by a lookup),
// each turned back into its manifest record under its key; entries still in manifest form are left
// out, and nothing is materialised. Only the library's own store keeps that distinction: any other
// store throws SchematizerError::internalError "Unsupported manifestEngagementsOnly".
SchemaManifest manifestEngagementsOnly(const SchemaStore& store);

}  // namespace ostrel
