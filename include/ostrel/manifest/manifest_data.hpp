#pragma once

// Schemas as callers hand them over (bytes tagged with their format), the stores made from them,
// and manifests taken back out of a store.

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "ostrel/core/values.hpp"
#include "ostrel/manifest/manifest.hpp"
#include "ostrel/store/schemas.hpp"

namespace ostrel {

// The format of SchemaManifestData's bytes.
enum class SchemaManifestType : uint8_t {
  jsonProto,  // the JSON form of a schema manifest (json_manifest.hpp)
  dscProto,   // a serialized google.protobuf.FileDescriptorSet
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

// The part of descriptor.proto the library needs to read descriptor sets: the seven descriptor
// messages it walks, the five options messages (deliberately without fields: options travel as raw
// bytes, interpreted only against what a caller's manifest defines) and the Label and Type enums.
// Built once, on first use, thread-safely; immutable afterwards.
const SchemaManifest& builtinDescriptorManifest();

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
// extendee not defined (yet) gets an entry holding only those fields. Where two extensions of one
// message share a simple name (declared in different scopes), both are kept under their full
// names ("pkg.Scope.name"), so both stay reachable by number, in iteration and in rendering, and a
// lookup by the simple name fails with an error naming both; an extension named like a field of
// the message itself is kept under its full name too. Options are the raw bytes of the options
// messages as they stood in the input.

// How an import treats proto2 groups.
struct DescriptorImportOptions {
  enum class Groups : uint8_t {
    // The whole import fails with "Group is deprecated".
    refuse,
    // Group fields are left out of the schema, so that the other messages of an older proto2
    // schema stay usable; their data is then skipped like that of any field the schema does not
    // know. The group's message type is kept.
    skip,
    // Group fields are message fields written delimited (FieldManifest::delimited): read, iterated,
    // rendered and written like any message field.
    read,
  };
  // Groups of Editions files (DELIMITED message fields) are always read.
  Groups groups = Groups::refuse;
  // Receives the full name ("pkg.Message.field") of each group field left out, once per field and
  // import. Without it, each one is logged: "Sch: Group field <full name> left out of the schema".
  std::function<void(const std::string& fieldFullName)> groupSkipped;
};

// Reads a serialized google.protobuf.FileDescriptorSet with the library's own reader, through the
// built-in descriptor schemas (no generated protobuf code involved). An empty buffer is an empty
// set and gives an empty manifest.
//
// Each message is merged into an earlier one of the same name under MergePolicy::requireEqual (so
// the same file twice is fine, two different definitions are not); an enum replaces an earlier
// one of the same name. A message declaring two fields of one name is refused, as protobuf refuses
// it, and so is a type of the built-in descriptor manifest defined differently (MergeConflict):
// the built-in definitions are what descriptors are read with.
//
// Files of every syntax are read: proto2, proto3 and Editions (2023, 2024), whose features give
// each field its presence and message encoding (FieldManifest::implicitPresence, delimited).
//
// Throws SchemaManifestDSCError for descriptors it cannot take (a proto2 group field unless
// options.groups says otherwise, a field type the Type enum has no name for, reported as "Unknown
// type: " and its number, a field without name, number or type, an enum value without name or
// number, a message or enum without name, an extension without extendee, ...),
// SchemaManifestDSCError::invalidValueType naming the message and field or value for what would
// break the schema's invariants (a field number outside 1 to 2^29-1 or in 19000 to 19999, two
// fields of one number or name, a oneof index naming no oneof, two oneofs or two enum values of one
// name), SchemaManifestDSCError::cannotLoadDescriptor for messages nested more than 100 deep,
// MergeConflict for two differing definitions of one message, and SerializationError (or the
// store's SchematizerError) for bytes that are not a valid descriptor set. Nothing partial is
// returned.
SchemaManifest schemaManifestFromDescriptorSet(ByteView bytes,
                                               const DescriptorImportOptions& options = {});

// The same import over descriptor-set data paired with any schema that names its fields as
// descriptor.proto does (for example the google.protobuf.FileDescriptorSet of a store built from
// the full descriptor.proto). Where such a schema declares a descriptor field with another type
// than descriptor.proto, so that its values are of another kind (a "name" that is not text, an
// "options" that is not a message, ...), the import throws SchemaManifestDSCError::invalidValueType
// naming the property. The bytes must stay alive and unchanged during the call.
SchemaManifest schemaManifestFromDescriptorSet(const SchematizedDataDescribing& descriptorSet,
                                               const DescriptorImportOptions& options = {});

// Writes `manifest` as a serialized google.protobuf.FileDescriptorSet through the library's own
// wire writer: one file without package (none at all for an empty manifest) holding one top-level
// message per manifest message and one enum per manifest enum, each named by its full manifest
// key. The file is an Editions 2023 file with implicit field presence by default. Message elements
// carry their fields (label optional or repeated; type_name with a leading "."; TYPE_GROUP for a
// delimited field; oneof index; options), their oneofs in list order and their options, but no
// nested types. Enum values are written in ascending number, then name; value options come from
// valueOptions.
//
// Importing the result gives back `manifest` (extension fields have become ordinary fields
// already), except for type names with empty components ("a..b" reads back as "a.b") and
// valueOptions of numbers no value has, which nothing writes. Names with dots are not valid
// protobuf identifiers, so libprotobuf's DescriptorPool will not build these files: they are meant
// for this library's importers. Throws SerializationError::invalidIntType for a field or value
// number outside the 32-bit range.
Bytes descriptorSetFromManifest(const SchemaManifest& manifest);

// Parses .proto files at run time, as protoc would, and imports them with their dependencies. In
// the library ostrel::protoc (libostrel_protoc), which links libprotoc.
// `files` are paths relative to one of `includePaths` (or disk paths inside one of them);
// "google/protobuf/*.proto" imports resolve to the descriptors compiled into libprotobuf when no
// include path provides them. The parsed files are written as a serialized descriptor set
// (dependencies first, each file once) and read back by schemaManifestFromDescriptorSet(ByteView),
// so the result is exactly what importing protoc's `--descriptor_set_out --include_imports` output
// would give.
//
// Throws SchemaManifestJSONError::invalidValueType "<file>:<line>:<column>: <message>" (line and
// column counted from 1) for the first error the parser reports, or "<file>: <message>" when the
// error has no position (a file that cannot be found), and the import's errors.
SchemaManifest schemaManifestFromProtoFiles(const std::vector<std::string>& files,
                                            const std::vector<std::string>& includePaths,
                                            const DescriptorImportOptions& options = {});

// The same for the text of one .proto file held in memory, imported under the name `fileName`:
// only "google/protobuf/*.proto" imports resolve (to libprotobuf's compiled-in ones); any other
// import fails as a file that cannot be found, and no other file is ever opened.
SchemaManifest schemaManifestFromProtoText(std::string_view text,
                                           std::string_view fileName = "input.proto");

// The JSON form of a schema manifest: one JSON object whose member names are the record field
// names, for example
//
//   {"messages": {"shop.Order": {"fields": {"state": {"type": "enum", "typeName": "shop.State",
//                                                     "fieldNumber": 3, "oneofIndex": 0}},
//                                "oneofs": [{"name": "status"}], "options": "GAE="}},
//    "enums": {"shop.State": {"values": {"OPEN": 0, "PAID": 1}, "valueOptions": {"1": "CAE="}}}}
//
// Field types are written by their manifest names ("int", "uint", "schema", "data", ...). Raw
// options are standard padded base64; an empty buffer is "" and stays distinct from an omitted
// member, which means absent. valueOptions is keyed by the value number in canonical decimal.
// "messages", "enums", "fields", "oneofs", "values" and "valueOptions" may be omitted when empty
// and "isRepeated" and "delimited" when false; a field's "type" and "fieldNumber" and a oneof's
// "name" are required.

// Reads the JSON form. Strict: malformed JSON text, a member of the wrong JSON type, an unknown or
// repeated member, an unknown type name, base64 that base64 encoding would not have written, an
// integer that does not fit its field, a valueOptions key that is not a canonical decimal integer,
// an oneofIndex outside the message's oneofs, a delimited field that is not a message and a type
// of the built-in descriptor manifest defined differently all fail. Throws
// SchemaManifestJSONError::invalidValueType whose text is the JSON path of the fault and what was
// expected there, for example `messages["shop.Order"].fields["id"].fieldNumber: expected an
// integer`; the document itself is `$`.
SchemaManifest schemaManifestFromJSON(std::string_view json);

// Writes the JSON form, omitting absent and empty members as described above. The output is
// deterministic: object members in ascending byte order of their names, compact, or indented by
// two spaces when `pretty`. Reading it back gives an equal manifest when the manifest keeps the
// invariant that every oneofIndex points into its message's oneofs. Throws
// SchemaManifestJSONError::invalidValueType, with the path, for a name that is not UTF-8 text,
// since JSON cannot carry it.
std::string schemaManifestToJSON(const SchemaManifest& manifest, bool pretty = false);

}  // namespace ostrel
