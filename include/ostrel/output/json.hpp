#pragma once

// Schematized data as JSON text (renderJSON), and protobuf-encoded messages from JSON text
// (parseJSON).

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "ostrel/core/describing.hpp"
#include "ostrel/core/values.hpp"
#include "ostrel/store/schemas.hpp"

namespace ostrel {

// Schematized data as JSON text, in the value mapping protobuf's own JSON uses, so that the output
// looks familiar and compares with other tools:
//
// - Each field present in the bytes appears under its declared name, in ascending field number;
//   an extension field (one a descriptor set or .proto import marked as such, see
//   FieldManifest::extensionName) under its full name in brackets, "[pkg.ext]". Absent fields are
//   left out; no default values are made up. Field numbers the schema does not know are skipped.
// - int32, uint32, sint32, fixed32, sfixed32, float and double are JSON numbers; floats and doubles
//   in the shortest text that reads back as the same float or double, NaN and the infinities as
//   the strings "NaN", "Infinity" and "-Infinity". 64-bit integers are decimal strings (a JSON
//   number would lose precision in most readers). bool is true or false; string a JSON string
//   (invalid UTF-8 replaced by U+FFFD); bytes standard base64 with padding; an enum its value name
//   when the enum knows the number, else the number; a nested message an object.
// - A repeated field is an array of every element in the order of the bytes, whatever mix of packed
//   and unpacked runs holds them; a repeated field whose runs hold no element is left out. A map
//   field (a repeated message field whose entry message has map_entry set in its options) is an
//   object keyed by the entries' keys: integer keys in decimal, bool keys "true" and "false". An
//   entry without key or value takes the default of the type ("", 0, false, the enum's value 0, an
//   empty object); of several entries with one key the last wins; an entry's key and value are each
//   its last occurrence.
// - What is rendered is what protobuf's parse of the bytes holds, also where an encoder wrote a
//   record other than canonically (records merged by concatenation): of a non-repeated field that
//   occurs more than once, the last occurrence of a scalar, string or bytes value, and the
//   occurrences of a message merged into one (recursively: scalars last, repeated fields
//   concatenated); of the members of a oneof, only the last one present; a field without presence
//   of its own (see JsonOptions::printDefaults) whose value is its default (zero bits: a float or
//   double -0 stays) is left out, as protobuf holds no such field. Canonical records, where each
//   field occurs once, pay nothing for this.
// - The well-known types take their JSON forms: google.protobuf.Timestamp an RFC 3339 text in UTC
//   ("1972-01-01T10:00:20.021Z", 0, 3, 6 or 9 fractional digits, years 1 to 9999), Duration
//   seconds with a suffix "s" ("-1.5s", within 315,576,000,000 s), the wrappers (DoubleValue ...
//   BytesValue) their value, Struct an object, ListValue an array, Value the JSON value it holds
//   (a number must be finite), NullValue null, FieldMask its paths in lowerCamelCase joined by
//   ",", Any an object whose "@type" member holds the type URL and whose other members are the
//   packed message's fields (or "value" for a packed well-known type with a JSON form of its own).
//   An Any's type is looked up by the last component of its URL in the store the data's schema
//   came from. A value these forms cannot express (out of range, an unknown Any type, a Value with
//   no kind) is a field fault as below.
//
// Faults in the data stop a strict rendering (JsonOptions::strict): the first one is thrown, the
// error of the field's value or of the reader. Otherwise (the default, lenient rendering) they do
// not stop the rendering: a field whose value cannot be decoded (a wire type
// that does not fit its type, bytes cut short, a packed run that does not end on an element
// boundary, a message schema that cannot be resolved) gets the string
// "Sch: Error encoding <field name>: <error text>" as its value, and the same text is logged (see
// logging.hpp); the other fields render as usual. When the field structure of a message itself
// breaks (a tag that cannot be read, or a field that cannot be stepped over), the fields gathered
// before the break render, the field being stepped over gets the error; a break not inside a known
// field is reported under the pseudo-field name "<unreadable>" as the message's last member.
// Messages nest at most 100 deep, the outermost counting as the first: a message field one level
// deeper gets the error text of SchematizerError::protocolBufferError("Nesting deeper than 100
// messages") instead of its value, so that no input can exhaust the stack.

enum class JsonStyle : uint8_t {
  // No whitespace at all.
  compact,
  // One member or element a line, indented by two spaces per level, ": " after keys.
  indented,
};

// How renderJSON writes, after libprotobuf's JsonPrintOptions. The defaults give the rendering
// described above.
struct JsonOptions {
  JsonStyle style = JsonStyle::compact;
  // Members under their JSON names (FieldSchemaDescribing::jsonName: the json_name the schema
  // declares, else the lowerCamelCase of the declared name, "foo_bar" becoming "fooBar") instead
  // of the declared names.
  bool jsonNames = false;
  // Enum values as their numbers, never their names.
  bool enumsAsNumbers = false;
  // Fields the bytes do not hold are written too, with their defaults, when they have no presence
  // of their own: singular fields of scalar, string, bytes and enum type outside a oneof whose
  // schema gives them no explicit presence (proto3's, or Editions' IMPLICIT), and repeated and map
  // fields (as [] and {}). This is libprotobuf's always_print_fields_with_no_presence.
  bool printDefaults = false;
  // A fault in the data is thrown rather than rendered as the field's error text (see above).
  // A streaming rendering may have handed part of the text to its sink by then.
  bool strict = false;
};

// Receives the text of a rendering piece by piece, in order.
using JsonSink = std::function<void(std::string_view text)>;

// The JSON text of `data`; a top-level object always. Reads the data in place; the buffer of a
// borrowed `data` must stay alive and unchanged during the call. Throws the schema's errors when
// the top-level message's fields cannot be materialised; faults below that are rendered, not
// thrown, unless the rendering is strict.
//
//     std::string text = renderJSON(data);
//     std::string pretty = renderJSON(data, {.style = JsonStyle::indented, .jsonNames = true});
std::string renderJSON(const SchematizedDataDescribing& data, const JsonOptions& options = {});
std::string renderJSON(const SchematizedData& data, const JsonOptions& options = {});

// One value as JSON text, as renderJSON writes a field holding it: a message value as a whole
// object, the other kinds as their JSON value (a number, an enum's name in quotes, bytes in
// base64).
std::string renderJSON(const AnyValue& value, const JsonOptions& options = {});

// The streaming form: the same text handed to `sink` in pieces of a few kilobytes as it is made,
// so that the memory a rendering takes is bounded by the data and its nesting, not by the size of
// the text. A field that fails is reported in the text as above; what the sink throws ends the
// rendering. The values of google.protobuf.Struct, Value and ListValue fields are kept whole
// until they end.
//
//     renderJSON(data, [&](std::string_view piece) { out.write(piece.data(), piece.size()); });
void renderJSON(const SchematizedDataDescribing& data, const JsonSink& sink,
                const JsonOptions& options = {});
void renderJSON(const SchematizedData& data, const JsonSink& sink, const JsonOptions& options = {});

// JSON text to protobuf: parseJSON reads ProtoJSON text into an encoded message, the inverse of
// renderJSON. Everything renderJSON writes reads back, so that parsing a rendering and rendering
// the result gives the same text:
//
// - The text is one JSON object; each member names a field of the message schema (by its
//   declared name, its JSON name, or for an extension "[pkg.ext]") and gives its value; null
//   stands for an absent field.
// - Integers of every type as JSON numbers or decimal strings, range-checked against the field's
//   type (a number with a fraction or exponent is taken when it is an exact integer); float and
//   double as numbers, numeric strings or "NaN", "Infinity", "-Infinity"; bool as true or false;
//   string as a string; bytes as base64, standard or URL-safe, padded or not; an enum as a value
//   name or a
//   number; a message as an object; a repeated field as an array; a map field (a repeated field
//   of a map entry message) as an object whose member names are the keys: integers in decimal,
//   bool "true" or "false".
// - A field without presence of its own (FieldSchemaDescribing::hasImplicitPresence: a singular
//   proto3 scalar, string, bytes or enum outside any oneof) that holds its default (0, false, "",
//   empty bytes, the enum's value 0, NullValue's null) is left out, as ProtoJSON parsers leave it;
//   a float or double -0 is kept.
// - Fields are written as their members are read, in the order of the text (an Any's type URL
//   before its content, a Timestamp's or Duration's seconds before its nanos), repeated elements
//   one by one (not packed), map entries with both key and value. Readers take fields in any
//   order, and renderJSON writes them by field number whatever order they come in.
// - Messages nest at most 100 deep, the outermost counting as the first.
//
// Errors, thrown instead of a result (nothing is returned in part):
// - text that is not JSON: SchematizerError::unexpectedType("invalid JSON: " and simdjson's
//   message);
// - a member given twice in one object: SchematizerError::unexpectedType("<path>: duplicate key
//   \"name\""), the path naming the object; text nested deeper than 201 levels (which no message
//   of 100 levels needs): SchematizerError::unexpectedType("<path>: nesting deeper than 201
//   levels");
// - a value of the wrong kind or out of range: SchematizerError::unexpectedType("<path>: expected
//   ..."), where the path starts at "$" and goes on with ".name" for members, "[3]" for elements
//   and "[\"key\"]" for map keys, for example "$.mids[1].leaf.id: expected an integer of type
//   int32";
// - a member that is not a field: the schema's SchematizerError::fieldNotFound (unless
//   JsonParseOptions::ignoreUnknownFields);
// - two members of one oneof (null for either leaving it out): SchematizerError::unexpectedType(
//   "<path>: expected one member of a oneof, found \"other\" too"), the path naming the second;
// - an enum name the enum does not have: the enum schema's SchematizerError::enumValueNotFound;
// - nesting deeper than 100 messages: SchematizerError::protocolBufferError("Nesting deeper than
//   100 messages").
// The faults of the text itself (the first two items) are reported before any other wherever
// they stand, the first of them in text order; an unclosed string, bytes that are not UTF-8 and
// an unescaped control character in a string, which a first pass over all of the text finds,
// come first of all.

// How parseJSON reads, after libprotobuf's JsonParseOptions.
struct JsonParseOptions {
  // Members that name no field of their message are passed over, values and all, instead of
  // failing (libprotobuf's ignore_unknown_fields).
  bool ignoreUnknownFields = false;
};

// The message that `json` describes, encoded as protobuf, paired with `schema`:
//
//     SchematizedData record = parseJSON(schema, R"({"color": "RED"})");
SchematizedData parseJSON(const MessageSchema& schema, std::string_view json,
                          const JsonParseOptions& options = {});

}  // namespace ostrel
