#pragma once

// Schematized data as JSON text, in the value mapping protobuf's own JSON uses, so that the output
// looks familiar and compares with other tools:
//
// - Each field present in the bytes appears under its declared name, in ascending field number.
//   Absent fields are left out; no default values are made up. Field numbers the schema does not
//   know are skipped.
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
//   its first occurrence.
// - A non-repeated field that occurs more than once shows its first occurrence.
//
// Faults in the data do not stop the rendering. A field whose value cannot be decoded (a wire type
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

#include <cstdint>
#include <optional>
#include <string>

#include "ostrel/core/values.hpp"
#include "ostrel/store/schemas.hpp"

namespace ostrel {

enum class JsonStyle : uint8_t {
  // No whitespace at all.
  compact,
  // One member or element a line, indented by two spaces per level, ": " after keys.
  indented,
};

// The JSON text of `data`; a top-level object always. Reads the data in place; `data`'s buffer
// must stay alive and unchanged during the call. Throws the schema's errors when the top-level
// message's fields cannot be materialised; faults below that are rendered, not thrown.
std::string renderJSON(const SchematizedDataDescribing& data, JsonStyle style = JsonStyle::compact);

// renderJSON of owned data.
std::string toJSON(const SchematizedData& data, JsonStyle style = JsonStyle::compact);

// The message's options rendered as a JSON object, or no value when it has none. Options are read
// against the store's google.protobuf.MessageOptions schema: the built-in one knows no fields and
// so renders "{}", a caller's manifest that holds descriptor.proto gives the options' fields.
std::optional<std::string> optionsJSON(const MessageSchema& schema,
                                       JsonStyle style = JsonStyle::compact);

}  // namespace ostrel
