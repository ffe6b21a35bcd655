#pragma once

// Shared by the manifest and differential tests: readable failure output for manifests, and the
// descriptor sets the importers are compared on.

#include <google/protobuf/descriptor.pb.h>
#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "ostrel/manifest/manifest.hpp"
#include "ostrel/manifest/manifest_data.hpp"
#include "support/test_support.hpp"

namespace ostrel {

// Manifests print as their JSON form, so that a failed comparison shows what differs.
inline void PrintTo(const SchemaManifest& manifest, std::ostream* os) {
  try {
    *os << schemaManifestToJSON(manifest, true);
  } catch (const Error& error) {
    *os << "<manifest: " << error.what() << ">";
  }
}

namespace testing_support {

inline google::protobuf::FileDescriptorSet parseSet(ByteView bytes) {
  google::protobuf::FileDescriptorSet set;
  EXPECT_TRUE(set.ParseFromArray(bytes.data(), static_cast<int>(bytes.size())));
  return set;
}

inline Bytes serialize(const google::protobuf::Message& message) {
  return toBytes(message.SerializeAsString());
}

// The descriptor sets every importer test runs over: descriptor.proto itself, the reading-test
// schemas and the import-test schemas.
inline const char* const kDescriptorSets[] = {
    "descriptor.desc",     "rich.desc",          "legacy.desc",       "import/options.desc",
    "import/catalog.desc", "import/shapes.desc", "import/plain.desc",
};

}  // namespace testing_support
}  // namespace ostrel
