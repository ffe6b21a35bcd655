#pragma once

// Schema manifests from and to google.protobuf.FileDescriptorSet, the standard schema interchange
// message that `protoc --descriptor_set_out` writes.
//
// Only what a manifest can hold is read: per file its package, messages, enums and extensions; per
// message its name, fields, nested messages and enums, extensions, oneofs and options; per field
// its name, number, label, type, type name, oneof index and options; per enum its name, values and
// options. Services, imports, default values, JSON names, reserved and extension ranges, file
// options and source info are skipped.
//
// Names: a message or enum is keyed by its package and enclosing message names joined with "."
// (no leading dot); type names of fields are normalised the same way (".a.b.M" becomes "a.b.M").
// Extension fields become ordinary fields of their extendee, under their simple names; an
// extendee not defined (yet) gets an entry holding only those fields. Options are the raw bytes of
// the options messages as they stood in the input.

#include <string>
#include <vector>

#include "ostrel/core/bytes.hpp"
#include "ostrel/core/values.hpp"
#include "ostrel/manifest/manifest.hpp"

namespace ostrel {

// Reads a serialized google.protobuf.FileDescriptorSet with the library's own reader, through the
// built-in descriptor schemas (no generated protobuf code involved). An empty buffer is an empty
// set and gives an empty manifest.
//
// Each message is merged into an earlier one of the same name under MergePolicy::requireEqual (so
// the same file twice is fine, two different definitions are not); an enum replaces an earlier
// one of the same name; a field replaces an earlier one of the same name in its message.
//
// Throws SchemaManifestDSCError for descriptors it cannot take (a group field, a field type the
// Type enum has no name for, reported as "Unknown type: " and its number, a field without name,
// number or type, an enum value without name or number, a message or enum without name, an
// extension without extendee, ...), SchemaManifestDSCError::cannotLoadDescriptor for messages
// nested more than 100 deep, MergeConflict for two differing definitions of one message, and
// SerializationError (or the store's SchematizerError) for bytes that are not a valid descriptor
// set. Nothing partial is returned. Stops the process when one enum has two values of one name.
SchemaManifest schemaManifestFromDescriptorSet(ByteView bytes);

// The same import over descriptor-set data paired with any schema that names its fields as
// descriptor.proto does (for example the google.protobuf.FileDescriptorSet of a store built from
// the full descriptor.proto). Where such a schema declares a descriptor field with another type
// than descriptor.proto, so that its values are of another kind (a "name" that is not text, an
// "options" that is not a message, ...), the import throws SchemaManifestDSCError::invalidValueType
// naming the property. The bytes must stay alive and unchanged during the call.
SchemaManifest schemaManifestFromDescriptorSet(const SchematizedDataDescribing& descriptorSet);

// Writes `manifest` as a serialized google.protobuf.FileDescriptorSet through the library's own
// wire writer: one file without package (none at all for an empty manifest) holding one top-level
// message per manifest message and one enum per manifest enum, each named by its full manifest
// key. Message elements carry their fields (label optional or repeated; type_name with a leading
// "."; oneof index; options), their oneofs in list order and their options, but no nested types.
// Enum values are written in ascending number, then name; value options come from valueOptions.
//
// Importing the result gives back `manifest` (extension fields have become ordinary fields
// already), except for type names with empty components ("a..b" reads back as "a.b") and
// valueOptions of numbers no value has, which nothing writes. Names with dots are not valid
// protobuf identifiers, so libprotobuf's DescriptorPool will not build these files: they are meant
// for this library's importers. Throws SerializationError::invalidIntType for a field or value
// number outside the 32-bit range.
Bytes descriptorSetFromManifest(const SchemaManifest& manifest);

// Parses .proto files at run time, as protoc would, and imports them with their dependencies.
// `files` are paths relative to one of `includePaths` (or disk paths inside one of them);
// "google/protobuf/*.proto" imports resolve to libprotobuf's own copies when no include path
// provides them. The parsed files are written as a serialized descriptor set (dependencies first,
// each file once) and read back by schemaManifestFromDescriptorSet(ByteView), so the result is
// exactly what importing protoc's `--descriptor_set_out --include_imports` output would give.
//
// Throws SchemaManifestJSONError::invalidValueType "<file>:<line>:<column>: <message>" (line and
// column counted from 1) for the first error the parser reports, or "<file>: <message>" when the
// error has no position (a file that cannot be found), and the import's errors.
SchemaManifest schemaManifestFromProtoFiles(const std::vector<std::string>& files,
                                            const std::vector<std::string>& includePaths);

}  // namespace ostrel
