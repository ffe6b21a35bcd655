#pragma once

// What the two descriptor-set importers (over serialized bytes and over libprotobuf's parsed
// objects) and the export share, so that they cannot drift apart: naming, the field type table,
// and how records enter the manifest.

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ostrel/core/field_types.hpp"
#include "ostrel/core/values.hpp"
#include "ostrel/manifest/manifest.hpp"
#include "ostrel/manifest/manifest_data.hpp"

namespace ostrel::detail {

// The components of a fully qualified name.
using NamePath = std::vector<std::string>;

// `name` split at "." with the empty pieces dropped: "a.b" and ".a..b." both give {a, b}.
NamePath splitName(std::string_view name);

// `path` with `name` as its last component, joined with "."; no leading dot.
std::string fullName(const NamePath& path, std::string_view name);

// `path` extended by `name`: the path of the types declared inside the message `name`.
NamePath nestedPath(const NamePath& path, std::string_view name);

// A type reference without its leading dot and empty components: ".a.b.M" gives "a.b.M".
std::string normalizedTypeName(std::string_view name);

// The descriptor's field type numbers 1 to 18, by name, with their manifest types. TYPE_GROUP (10)
// has none: groups are not supported.
struct DescriptorType {
  std::string_view name;
  int32_t number;
  std::optional<TypeManifest> manifestType;
};

inline constexpr int32_t kDescriptorGroupType = 10;
inline constexpr int32_t kDescriptorRepeatedLabel = 3;

// The row of `number`, or null outside 1 to 18.
const DescriptorType* descriptorTypeWithNumber(int64_t number) noexcept;
// The row of "TYPE_..." `name`, or null for any other name.
const DescriptorType* descriptorTypeNamed(std::string_view name) noexcept;
// The descriptor's type number of a manifest type.
int32_t descriptorTypeNumber(TypeManifest type) noexcept;

// The value table of an enum from its values in declaration order. Aliases (names sharing a number)
// are fine; one name twice stops the process: the importers refuse such an enum before (see
// repeatedEnumValueText), so only a programming error gets here with one.
std::map<std::string, int64_t, std::less<>> uniqueEnumValues(
    std::vector<std::pair<std::string, int64_t>> values);

// Puts a message into the manifest: taken as it is under a new name, merged into an earlier
// definition (or an entry made by an extension) under MergePolicy::requireEqual otherwise, which
// keeps the earlier entry's oneofs. Throws MergeConflict.
void addMessage(SchemaManifest& manifest, const std::string& name, MessageManifest&& message);

// The entry of the extendee `name`, created empty when the manifest has none yet.
MessageManifest& extendeeEntry(SchemaManifest& manifest, const std::string& name);

// Places extension fields in their extendees. An extension is a field of its extendee under its
// simple name, unless another field already holds that name there: two extensions of one message
// declared in different scopes may share a simple name, and neither may be lost. A name shared by
// extensions is given up by all of them, each keyed by its full name instead (so that a lookup by
// the simple name finds no single field); an extension whose simple name is a field of the
// message itself takes its full name and leaves the field alone. The same extension met again
// (the same file twice) replaces itself.
class ExtensionFields {
 public:
  void add(SchemaManifest& manifest, const std::string& extendee, const std::string& fullName,
           const std::string& name, FieldManifest&& field);

 private:
  struct Holder {
    std::string fullName;  // of the first extension with the name
    bool shared = false;   // whether another extension has the name too
  };
  // By extendee and simple name.
  std::map<std::pair<std::string, std::string>, Holder> holders_;
};

// What a field's Editions features (or its file's syntax) decide that the library acts on: its
// presence, its message encoding and its packing, which files and fields set (those are their
// feature targets), and whether enums are closed, which files and enums set.
struct Features {
  bool explicitPresence = true;
  bool delimited = false;
  // Repeated scalars packed (repeated_field_encoding PACKED); a field's own [packed] option
  // overrides it.
  bool packed = false;
  // Enums closed (enum_type CLOSED).
  bool closedEnums = false;
};

// The field number of `features` in google.protobuf.FileOptions, FieldOptions and EnumOptions.
inline constexpr int64_t kFileFeaturesNumber = 50;
inline constexpr int64_t kFieldFeaturesNumber = 21;
inline constexpr int64_t kEnumFeaturesNumber = 7;

// The defaults of a file's syntax: "proto3" has implicit presence, "proto2" (or none) and
// "editions" (2023 and 2024 alike) explicit presence; all of them length-prefixed messages;
// "proto3" and "editions" pack repeated scalars and have open enums, "proto2" does not.
Features syntaxFeatures(std::string_view syntax) noexcept;

// `inherited` overridden by what the `features` field (number `featuresNumber`) of the raw options
// message sets. Throws SerializationError for options that are not a valid message.
Features withFeatures(Features inherited, const RawOptions& options, int64_t featuresNumber);

// Sets the field's resolved presence, encoding and packing (its options' packed wins over the
// features). `group` says that its descriptor type is
// TYPE_GROUP, which is always delimited.
void applyFeatures(FieldManifest& field, const Features& features, bool group);

// Map fields and the fields of their entries are length-prefixed whatever their features say:
// clears `delimited` of the fields whose type is a map entry and of the fields of map entries.
void keepMapsLengthPrefixed(SchemaManifest& manifest);

// Whether enum fields are closed. A field of an Editions file is closed when its enum is: by the
// enum's own features, else by its file's. A field of a proto2 file stays closed and one of a
// proto3 file open whatever its enum, as protobuf treats them, so those keep what their file's
// features decided. Enums and fields are recorded as they are read, in any order; `apply` settles
// the fields once the whole schema is read.
class EnumClosedness {
 public:
  // An enum: `file` are the features of the file that declares it, `options` its EnumOptions.
  void addEnum(const std::string& fullName, const Features& file, const RawOptions& options);
  // A field read from a file of `syntax`, by its full name (an extension's too); only the enum
  // fields of Editions files are kept.
  void addField(std::string fullName, const FieldManifest& field, std::string_view syntax);
  void apply(SchemaManifest& manifest) const;

 private:
  std::map<std::string, bool, std::less<>> closedEnums_;
  std::set<std::string, std::less<>> editionsFields_;
};

// What the importers do with group fields: refuse them ("Group is deprecated", thrown by the
// importer itself), leave them out (each one reported once) or read them as delimited messages,
// as the options say. Groups of Editions files (written as DELIMITED messages by newer compilers)
// are always read.
class GroupFields {
 public:
  explicit GroupFields(const DescriptorImportOptions& options) : options_(options) {}

  // Whether a group field of a file with `syntax` is refused, left out or read.
  DescriptorImportOptions::Groups handling(std::string_view syntax) const noexcept {
    return syntax == "editions" ? DescriptorImportOptions::Groups::read : options_.groups;
  }
  // Reports the group field `fullName` as left out, the first time it is met.
  void leaveOut(const std::string& fullName);

 private:
  const DescriptorImportOptions& options_;
  std::set<std::string, std::less<>> reported_;
};

}  // namespace ostrel::detail
