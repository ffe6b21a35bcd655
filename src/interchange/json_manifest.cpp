#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "core/json_input.hpp"
#include "core/json_text.hpp"
#include "core/utf8.hpp"
#include "manifest/manifest_check.hpp"
#include "ostrel/core/errors.hpp"
#include "ostrel/core/interrupts.hpp"
#include "ostrel/core/values.hpp"
#include "ostrel/manifest/manifest_data.hpp"

namespace ostrel {
namespace {

namespace ondemand = simdjson::ondemand;

// A JSON string literal for `text`. Bytes that are not UTF-8 become U+FFFD so that a path can
// always be shown, even when the name it shows is the fault.
std::string jsonLiteral(std::string_view text) { return detail::jsonString(text); }

bool isIdentifier(std::string_view name) {
  if (name.empty()) return false;
  for (size_t i = 0; i < name.size(); ++i) {
    const char c = name[i];
    const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
    if (!letter && !(i > 0 && c >= '0' && c <= '9')) return false;
  }
  return true;
}

// Where in the document a value stands, written as a reader would navigate to it: record members
// with ".", dictionary keys and array positions in brackets, for example
// messages["shop.Order"].oneofs[0].name. The document itself is "$".
class Path {
 public:
  Path member(std::string_view name) const {
    if (!isIdentifier(name)) return key(name);
    return Path(text_.empty() ? std::string(name) : text_ + "." + std::string(name));
  }
  Path key(std::string_view key) const { return Path(text_ + "[" + jsonLiteral(key) + "]"); }
  Path index(size_t position) const { return Path(text_ + "[" + std::to_string(position) + "]"); }

  std::string text() const {
    if (text_.empty()) return "$";
    if (text_.front() == '[') return "$" + text_;
    return text_;
  }

 private:
  Path() = default;
  explicit Path(std::string text) : text_(std::move(text)) {}

  friend Path rootPath();
  std::string text_;
};

Path rootPath() { return Path(); }

[[noreturn]] void fail(const Path& path, std::string_view expectation) {
  throw SchemaManifestJSONError::invalidValueType(path.text() + ": " + std::string(expectation));
}

// ---------------------------------------------------------------------------------------------
// Reading

// Containers nested deeper than any manifest needs (the document, messages, a message, fields, a
// field: five) are refused before they cost anything.
constexpr size_t kMaxDocumentDepth = 32;

using JsonType = ondemand::json_type;
using detail::take;

// Where a refused text stopped. In the manifest's shape records and dictionaries alternate:
// objects at even depth (the document, a message, an enum, a field, a oneof) are records and those
// at odd depth are dictionaries, which decides how a key is written in the path.
Path refusalPath(const std::vector<detail::JsonFrame>& frames) {
  Path path = rootPath();
  for (size_t depth = 0; depth < frames.size(); ++depth) {
    const detail::JsonFrame& frame = frames[depth];
    if (!frame.isObject) {
      path = path.index(frame.position);
    } else {
      path = depth % 2 == 0 ? path.member(frame.key) : path.key(frame.key);
    }
  }
  return path;
}

// The faults of the text itself come first, whatever it says: malformed text, a member given
// twice (a manifest saying two things about one field is more likely a mistake than an intent)
// and nesting too deep.
void checkText(detail::JsonInput& input) {
  const std::optional<detail::JsonRefusal> refusal = input.firstFault();
  if (!refusal) return;
  switch (refusal->kind) {
    case detail::JsonRefusal::Kind::malformed:
      fail(rootPath(), std::string("invalid JSON: ") + simdjson::error_message(refusal->code));
    case detail::JsonRefusal::Kind::repeatedMember:
      fail(refusalPath(refusal->frames), "duplicate member");
    case detail::JsonRefusal::Kind::tooDeep:
      break;
  }
  fail(refusalPath(refusal->frames),
       "nesting deeper than " + std::to_string(kMaxDocumentDepth) + " levels");
}

void expectType(ondemand::value& value, JsonType type, const Path& path, const char* expectation) {
  if (take(value.type()) != type) fail(path, expectation);
}

// Calls `each(name, value)` for each member of an object, in text order.
template <typename Each>
void forEachMember(ondemand::value& value, const Path& path, Each&& each) {
  expectType(value, JsonType::object, path, "expected an object");
  ondemand::object object = take(value.get_object());
  std::string scratch;
  for (auto member : object) {
    ondemand::field field = take(std::move(member));
    const std::string name(detail::memberName(field, scratch));
    ondemand::value memberValue = field.value();
    each(name, memberValue);
  }
}

std::string readString(ondemand::value& value, const Path& path) {
  expectType(value, JsonType::string, path, "expected a string");
  return std::string(take(value.get_string()));
}

bool readBool(ondemand::value& value, const Path& path) {
  expectType(value, JsonType::boolean, path, "expected a boolean");
  return take(value.get_bool());
}

// Only JSON integers are taken: 1.0 and 1e3 are numbers but not integers in the text.
detail::JsonNumber readInteger(ondemand::value& value, const Path& path) {
  expectType(value, JsonType::number, path, "expected an integer");
  const detail::JsonNumber number = detail::readNumber(value);
  if (number.kind == detail::JsonNumber::Kind::real) fail(path, "expected an integer");
  return number;
}

int64_t readInt64(ondemand::value& value, const Path& path) {
  const detail::JsonNumber number = readInteger(value, path);
  if (number.kind == detail::JsonNumber::Kind::negativeInteger) return number.negative;
  if (number.nonNegative > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
    fail(path, "integer out of range");
  }
  return static_cast<int64_t>(number.nonNegative);
}

Bytes readBase64(ondemand::value& value, const Path& path) {
  std::optional<Bytes> bytes = base64Decode(readString(value, path));
  if (!bytes) fail(path, "expected base64");
  return std::move(*bytes);
}

// The value number of a valueOptions key. Only the text that writing the number gives is taken
// ("-1", not "-01", "+1" or "-0"), so that two keys never name one number.
int64_t readIntegerKey(std::string_view key, const Path& path) {
  const bool negative = !key.empty() && key.front() == '-';
  const std::string_view digits = negative ? key.substr(1) : key;
  if (digits.empty()) fail(path, "expected an integer key");
  for (const char c : digits) {
    if (c < '0' || c > '9') fail(path, "expected an integer key");
  }
  if (digits.size() > 1 && digits.front() == '0') fail(path, "expected an integer key");
  if (negative && digits == "0") fail(path, "expected an integer key");
  // Accumulate the magnitude unsigned: the most negative number has no positive counterpart.
  const uint64_t limit =
      static_cast<uint64_t>(std::numeric_limits<int64_t>::max()) + (negative ? 1 : 0);
  uint64_t magnitude = 0;
  for (const char c : digits) {
    const uint64_t digit = static_cast<uint64_t>(c - '0');
    if (magnitude > (limit - digit) / 10) fail(path, "integer out of range");
    magnitude = magnitude * 10 + digit;
  }
  return negative ? static_cast<int64_t>(0 - magnitude) : static_cast<int64_t>(magnitude);
}

// Calls `read(name, value, path)` for each member of a record; `read` returns false for a name
// the record does not have.
template <typename ReadMember>
void readRecord(ondemand::value& value, const Path& path, ReadMember&& read) {
  forEachMember(value, path, [&](const std::string& name, ondemand::value& member) {
    detail::pollInterrupt();
    const Path memberPath = path.member(name);
    if (!read(name, member, memberPath)) fail(memberPath, "unknown member");
  });
}

FieldManifest readField(ondemand::value& value, const Path& path) {
  FieldManifest field;
  bool hasType = false;
  bool hasFieldNumber = false;
  readRecord(value, path, [&](const std::string& name, ondemand::value& member, const Path& at) {
    if (name == "type") {
      const std::string typeName = readString(member, at);
      const std::optional<TypeManifest> type = parseTypeManifest(typeName);
      if (!type) fail(at, "unknown type name " + jsonLiteral(typeName));
      field.type = *type;
      hasType = true;
    } else if (name == "typeName") {
      field.typeName = readString(member, at);
    } else if (name == "fieldNumber") {
      field.fieldNumber = readInt64(member, at);
      hasFieldNumber = true;
    } else if (name == "isRepeated") {
      field.isRepeated = readBool(member, at);
    } else if (name == "implicitPresence") {
      field.implicitPresence = readBool(member, at);
    } else if (name == "delimited") {
      field.delimited = readBool(member, at);
    } else if (name == "packed") {
      field.packed = readBool(member, at);
    } else if (name == "closedEnum") {
      field.closedEnum = readBool(member, at);
    } else if (name == "oneofIndex") {
      // Checked against the message's oneofs once the whole message has been read.
      const detail::JsonNumber index = readInteger(member, at);
      if (index.kind == detail::JsonNumber::Kind::negativeInteger
              ? index.negative < 0
              : index.nonNegative > static_cast<uint64_t>(std::numeric_limits<int32_t>::max())) {
        fail(at, "expected an index into oneofs");
      }
      field.oneofIndex =
          static_cast<int32_t>(index.kind == detail::JsonNumber::Kind::negativeInteger
                                   ? index.negative
                                   : static_cast<int64_t>(index.nonNegative));
    } else if (name == "options") {
      field.options = readBase64(member, at);
    } else {
      return false;
    }
    return true;
  });
  if (!hasType) fail(path.member("type"), "missing required member");
  if (!hasFieldNumber) fail(path.member("fieldNumber"), "missing required member");
  if (field.delimited && field.type != TypeManifest::message) {
    fail(path.member("delimited"), "only a message field can be delimited");
  }
  return field;
}

OneofManifest readOneof(ondemand::value& value, const Path& path) {
  OneofManifest oneof;
  bool hasName = false;
  readRecord(value, path, [&](const std::string& name, ondemand::value& member, const Path& at) {
    if (name == "name") {
      oneof.name = readString(member, at);
      hasName = true;
    } else if (name == "options") {
      oneof.options = readBase64(member, at);
    } else {
      return false;
    }
    return true;
  });
  if (!hasName) fail(path.member("name"), "missing required member");
  return oneof;
}

MessageManifest readMessage(ondemand::value& value, const Path& path) {
  MessageManifest message;
  readRecord(value, path, [&](const std::string& name, ondemand::value& member, const Path& at) {
    if (name == "fields") {
      forEachMember(member, at, [&](const std::string& fieldName, ondemand::value& field) {
        message.fields.emplace(fieldName, readField(field, at.key(fieldName)));
      });
    } else if (name == "oneofs") {
      expectType(member, JsonType::array, at, "expected an array");
      size_t i = 0;
      for (auto element : take(member.get_array())) {
        ondemand::value oneof = take(std::move(element));
        message.oneofs.push_back(readOneof(oneof, at.index(i++)));
      }
    } else if (name == "options") {
      message.options = readBase64(member, at);
    } else {
      return false;
    }
    return true;
  });
  // The store indexes oneofs by oneofIndex without checking, so a dangling index stops here.
  for (const auto& [fieldName, field] : message.fields) {
    if (field.oneofIndex && static_cast<size_t>(*field.oneofIndex) >= message.oneofs.size()) {
      fail(path.member("fields").key(fieldName).member("oneofIndex"),
           "expected an index into oneofs");
    }
  }
  if (const std::optional<detail::MessageFault> fault = detail::messageFault(message)) {
    const Path at = fault->oneof ? path.member("oneofs").index(*fault->oneof)
                                 : path.member("fields").key(fault->field);
    fail(at.member(fault->member), fault->text);
  }
  return message;
}

EnumManifest readEnum(ondemand::value& value, const Path& path) {
  EnumManifest enumManifest;
  readRecord(value, path, [&](const std::string& name, ondemand::value& member, const Path& at) {
    if (name == "values") {
      forEachMember(member, at, [&](const std::string& valueName, ondemand::value& number) {
        enumManifest.values.emplace(valueName, readInt64(number, at.key(valueName)));
      });
    } else if (name == "options") {
      enumManifest.options = readBase64(member, at);
    } else if (name == "valueOptions") {
      forEachMember(member, at, [&](const std::string& key, ondemand::value& options) {
        const Path keyPath = at.key(key);
        const int64_t number = readIntegerKey(key, keyPath);
        enumManifest.valueOptions.emplace(number, readBase64(options, keyPath));
      });
    } else {
      return false;
    }
    return true;
  });
  return enumManifest;
}

SchemaManifest readManifest(ondemand::value& value, const Path& path) {
  SchemaManifest manifest;
  readRecord(value, path, [&](const std::string& name, ondemand::value& member, const Path& at) {
    if (name == "messages") {
      forEachMember(member, at, [&](const std::string& messageName, ondemand::value& message) {
        detail::pollInterrupt();
        manifest.messages.emplace(messageName, readMessage(message, at.key(messageName)));
      });
    } else if (name == "enums") {
      forEachMember(member, at, [&](const std::string& enumName, ondemand::value& enumValue) {
        detail::pollInterrupt();
        manifest.enums.emplace(enumName, readEnum(enumValue, at.key(enumName)));
      });
    } else {
      return false;
    }
    return true;
  });
  return manifest;
}

// ---------------------------------------------------------------------------------------------
// Writing

const std::string& checkedText(const std::string& text, const Path& path) {
  if (!detail::isUtf8(text)) fail(path, "expected UTF-8 text");
  return text;
}

std::string base64(const Bytes& bytes) { return base64Encode(bytes); }

// Writes JSON text front to back, compact or indented by two spaces a level. Callers write the
// members of each object sorted by name, so that one manifest always gives one text.
class JsonWriter {
 public:
  explicit JsonWriter(bool pretty) : pretty_(pretty) {}

  void beginObject() { open('{'); }
  void endObject() { close('}'); }
  void beginArray() { open('['); }
  void endArray() { close(']'); }

  // Starts a member of the innermost object; its value comes next.
  void key(std::string_view name) {
    separate();
    detail::appendJsonString(out_, name);
    out_ += pretty_ ? ": " : ":";
    afterKey_ = true;
  }

  void string(std::string_view text) { scalar(detail::jsonString(text)); }
  void integer(int64_t number) { scalar(std::to_string(number)); }
  void boolean(bool value) { scalar(value ? "true" : "false"); }

  std::string text() && { return std::move(out_); }

 private:
  // Before a value: after a key nothing, else (an array element) the separator.
  void beforeValue() {
    if (afterKey_) {
      afterKey_ = false;
    } else if (!counts_.empty()) {
      separate();
    }
  }

  void separate() {
    if (counts_.back()++ > 0) out_ += ',';
    if (pretty_) {
      out_ += '\n';
      out_.append(2 * counts_.size(), ' ');
    }
  }

  void scalar(std::string_view text) {
    beforeValue();
    out_ += text;
  }

  void open(char bracket) {
    beforeValue();
    out_ += bracket;
    counts_.push_back(0);
  }

  void close(char bracket) {
    const bool empty = counts_.back() == 0;
    counts_.pop_back();
    if (pretty_ && !empty) {
      out_ += '\n';
      out_.append(2 * counts_.size(), ' ');
    }
    out_ += bracket;
  }

  bool pretty_;
  bool afterKey_ = false;
  // The values written so far in each open container.
  std::vector<size_t> counts_;
  std::string out_;
};

// A dictionary member `key` of the record at `path`, left out when empty: each entry's name, then
// what `write(entry, entryPath)` writes.
template <typename Map, typename Write>
void writeDictionary(JsonWriter& out, std::string_view key, const Map& map, const Path& path,
                     Write&& write) {
  if (map.empty()) return;
  const Path at = path.member(key);
  out.key(key);
  out.beginObject();
  for (const auto& [name, entry] : map) {
    const Path entryPath = at.key(name);
    out.key(checkedText(name, entryPath));
    write(entry, entryPath);
  }
  out.endObject();
}

// Members in name order: closedEnum, delimited, fieldNumber, implicitPresence, isRepeated,
// oneofIndex, options, packed, type, typeName.
void writeField(JsonWriter& out, const FieldManifest& field, const Path& path) {
  out.beginObject();
  if (field.closedEnum) {
    out.key("closedEnum");
    out.boolean(true);
  }
  if (field.delimited) {
    out.key("delimited");
    out.boolean(true);
  }
  out.key("fieldNumber");
  out.integer(field.fieldNumber);
  if (field.implicitPresence) {
    out.key("implicitPresence");
    out.boolean(true);
  }
  if (field.isRepeated) {
    out.key("isRepeated");
    out.boolean(true);
  }
  if (field.oneofIndex) {
    out.key("oneofIndex");
    out.integer(*field.oneofIndex);
  }
  if (field.options) {
    out.key("options");
    out.string(base64(*field.options));
  }
  if (field.packed) {
    out.key("packed");
    out.boolean(true);
  }
  out.key("type");
  out.string(stringName(field.type));
  if (field.typeName) {
    out.key("typeName");
    out.string(checkedText(*field.typeName, path.member("typeName")));
  }
  out.endObject();
}

void writeMessage(JsonWriter& out, const MessageManifest& message, const Path& path) {
  out.beginObject();
  writeDictionary(out, "fields", message.fields, path,
                  [&](const FieldManifest& field, const Path& at) { writeField(out, field, at); });
  if (!message.oneofs.empty()) {
    const Path oneofsPath = path.member("oneofs");
    out.key("oneofs");
    out.beginArray();
    for (size_t i = 0; i < message.oneofs.size(); ++i) {
      const OneofManifest& oneof = message.oneofs[i];
      out.beginObject();
      out.key("name");
      out.string(checkedText(oneof.name, oneofsPath.index(i).member("name")));
      if (oneof.options) {
        out.key("options");
        out.string(base64(*oneof.options));
      }
      out.endObject();
    }
    out.endArray();
  }
  if (message.options) {
    out.key("options");
    out.string(base64(*message.options));
  }
  out.endObject();
}

void writeEnum(JsonWriter& out, const EnumManifest& enumManifest, const Path& path) {
  out.beginObject();
  if (enumManifest.options) {
    out.key("options");
    out.string(base64(*enumManifest.options));
  }
  if (!enumManifest.valueOptions.empty()) {
    // Keyed by the number's text, in the order of those texts.
    std::map<std::string, const Bytes*> byText;
    for (const auto& [number, options] : enumManifest.valueOptions) {
      byText.emplace(std::to_string(number), &options);
    }
    out.key("valueOptions");
    out.beginObject();
    for (const auto& [text, options] : byText) {
      out.key(text);
      out.string(base64(*options));
    }
    out.endObject();
  }
  writeDictionary(out, "values", enumManifest.values, path,
                  [&](int64_t number, const Path&) { out.integer(number); });
  out.endObject();
}

}  // namespace

SchemaManifest schemaManifestFromJSON(std::string_view json) {
  SchemaManifest manifest;
  detail::JsonInput input(json, kMaxDocumentDepth);
  checkText(input);
  try {
    ondemand::value root = input.root();
    manifest = readManifest(root, rootPath());
    input.finish();
  } catch (const detail::JsonTextFault& fault) {
    // The text was checked in full: a fault here is one the check and the reader see apart.
    fail(rootPath(), std::string("invalid JSON: ") + simdjson::error_message(fault.code));
  }
  if (const auto change = detail::builtinTypeChange(manifest)) {
    const bool message = manifest.messages.contains(change->first);
    fail(rootPath().member(message ? "messages" : "enums").key(change->first),
         "changes a built-in descriptor type (" + change->second + ")");
  }
  return manifest;
}

std::string schemaManifestToJSON(const SchemaManifest& manifest, bool pretty) {
  const Path root = rootPath();
  JsonWriter out(pretty);
  out.beginObject();
  writeDictionary(out, "enums", manifest.enums, root,
                  [&](const EnumManifest& e, const Path& at) { writeEnum(out, e, at); });
  writeDictionary(
      out, "messages", manifest.messages, root,
      [&](const MessageManifest& message, const Path& at) { writeMessage(out, message, at); });
  out.endObject();
  return std::move(out).text();
}

}  // namespace ostrel
