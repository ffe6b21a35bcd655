#pragma once

// The descriptor-set import over libprotobuf's parsed descriptor objects, for callers that already
// hold a google::protobuf::FileDescriptorSet (from a DescriptorPool, or parsed with
// ParseFromString). Kept apart from manifest_data.hpp so that the other headers stay free of
// libprotobuf.

#include <google/protobuf/descriptor.pb.h>

#include "ostrel/manifest/manifest.hpp"
#include "ostrel/manifest/manifest_data.hpp"

namespace ostrel {

// Gives the same manifest as schemaManifestFromDescriptorSet(ByteView) over the serialized form of
// `descriptorSet`: the same names, type mapping, merges and extension handling. Options present
// are serialized with SerializeAsString, which reproduces the input bytes for options parsed from
// a descriptor set (known fields and unknown extensions are written back in number order).
//
// Throws SchemaManifestJSONError::invalidValueType: "Group is deprecated" for a group field (unless
// options.groups says otherwise), "Invalid extendee" for an extension whose normalised extendee
// is empty, and, as the serialized import does, "Enum value is missing" for a field without name,
// number or type or an enum value without name or number, "Enum descriptor is incomplete" for an
// enum without name, "Fields descriptor is incomplete" for a message without name, and the
// invariant checks of the serialized import (field numbers, duplicate names). Throws MergeConflict
// for two differing definitions of one message. Stops the process for a field type number outside
// 1 to 18, which a parsed set never holds.
SchemaManifest schemaManifestFromDescriptorSet(const google::protobuf::FileDescriptorSet& set,
                                               const DescriptorImportOptions& options = {});

}  // namespace ostrel
