#pragma once

// Records that change: edits by property path that copy the untouched bytes of a record and
// re-encode only what changed, protobuf's merge of one record into another, and the canonical
// encoding of a record.
//
//     Rewrite rewrite(store.messageSchema("shop.Order"));
//     rewrite.set("state", EditValue::text("SHIPPED")).set("items[0].quantity", AnyValue(2));
//     Bytes shipped = rewrite.apply(record);
//
// The results are what libprotobuf holds after the same operations through its reflection (a
// set, add or clear; MergeFrom; a parse and serialize), once both are parsed. Closed enums are
// the exception: a number a proto2 enum does not declare stays where it stands, where libprotobuf
// would move it among the unknown fields.

#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "ostrel/core/values.hpp"
#include "ostrel/store/schemas.hpp"

namespace ostrel {

// A value to write into a field, in one of the forms callers hold it.
class EditValue {
 public:
  // A typed value, written as writeFieldValue writes it: integers must match the field's type.
  // Bytes for a message field are the encoded message, which must parse.
  EditValue(AnyValue value) : value_(std::move(value)) {}  // NOLINT: a value is an edit value

  // The value's ProtoJSON, as encodeJSON reads a field holding it: 12, "SHIPPED", "aGk=",
  // {"id": 1}; for a whole repeated field an array, for a whole map an object.
  static EditValue json(std::string text) { return EditValue(Json{std::move(text)}); }
  // Text as a person types it: the text itself for a string field, its UTF-8 bytes for a bytes
  // field, a value name or number for an enum field, true, false, 1 or 0 for a bool field, a
  // number (as ProtoJSON writes one, "NaN" and "Infinity" too) for a numeric field, and JSON
  // for a message field, a whole repeated field or a map.
  static EditValue text(std::string text) { return EditValue(Text{std::move(text)}); }

  struct Json {
    std::string text;
  };
  struct Text {
    std::string text;
  };
  const std::variant<AnyValue, Json, Text>& form() const noexcept { return value_; }

 private:
  explicit EditValue(Json json) : value_(std::move(json)) {}
  explicit EditValue(Text text) : value_(std::move(text)) {}

  std::variant<AnyValue, Json, Text> value_;
};

// A list of edits of records of one message schema, applied in order by apply().
//
// Paths are property paths (a.b[2].c): every component but the last names a message field, an
// index picks an element of a repeated one, which must exist. The last component names the field
// the edit acts on; for a map field it may carry a key in brackets instead of an index:
// counts[apples], counts["a key"], leaves_by_id[7].
//
// apply() copies the record's bytes verbatim except for the occurrences of the fields an edit
// touches and the length prefixes of the messages on its path, so unknown fields and the order of
// untouched fields stay. A field that is set, and each message on a path, is left with one
// occurrence: the earlier ones are removed (the occurrences of a singular message are merged into
// it first), so that a reader taking the first occurrence and protobuf's parse agree afterwards.
// Setting a member of a oneof, or editing inside one, removes the other members, as protobuf does.
// A field without presence of its own set to its default (0, "", false) is removed.
class Rewrite {
 public:
  explicit Rewrite(MessageSchema schema);
  Rewrite(const Rewrite&);
  Rewrite(Rewrite&&) noexcept;
  Rewrite& operator=(const Rewrite&);
  Rewrite& operator=(Rewrite&&) noexcept;
  ~Rewrite();

  // Sets a field (replacing all of a repeated field or map when the path has no index: the value
  // is then a JSON array or object), the element of a repeated field at an index, or the value
  // of a map key. Throws at once for a path that breaks the grammar or names no field
  // (PropertyPathUtil::Error, the schema's fieldNotFound, nonMessageTypeInKeypath,
  // scalarValueAccessWithIndex); apply() throws for a value of the wrong kind.
  Rewrite& set(std::string_view path, EditValue value);
  // Adds an element at the end of a repeated field; the path names the field without an index.
  Rewrite& append(std::string_view path, EditValue value);
  // Removes a field, or a map key; the path has no index.
  Rewrite& clear(std::string_view path);

  // The record with the edits applied. `record` is only read. Throws SerializationError for a
  // record that does not parse where the edits must read it, SchematizerError
  // invalidIndexInKeypath for an index past the last element, and the errors of encoding a value
  // (encodeJSON's for JSON and text, writeFieldValue's for typed values). Nothing is returned in
  // part.
  Bytes apply(ByteView record) const;

  // One edit, resolved against the schema.
  struct Edit;

 private:
  MessageSchema schema_;
  std::vector<Edit> edits_;
};

// The canonical encoding of `record`: what libprotobuf's parse followed by a deterministic
// serialize writes, byte for byte. Each singular field once (the last scalar, the occurrences of a
// message merged, the last member of a oneof), repeated scalars packed or not as the schema says
// (FieldSchema::isPacked), map entries sorted by key with both key and value, fields in number
// order, and the unknown fields (field numbers the schema does not know, and occurrences whose
// wire type does not fit their field) at the end in their order, re-encoded with the shortest
// varints. Throws SerializationError for a record that does not parse (and
// SchematizerError::protocolBufferError for messages nested deeper than 100).
Bytes normalizeRecord(const MessageSchema& schema, ByteView record);

// protobuf's MergeFrom of `from` into `into`, canonically encoded: scalars of `from` win, messages
// merge, repeated fields are concatenated, map keys of `from` replace those of `into`, a oneof
// member of `from` replaces `into`'s. Throws as normalizeRecord for either record.
Bytes mergeRecord(const MessageSchema& schema, ByteView into, ByteView from);

}  // namespace ostrel
