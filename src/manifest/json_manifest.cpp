#include <cstdint>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "core/json_document.hpp"
#include "core/json_text.hpp"
#include "core/utf8.hpp"
#include "manifest/manifest_check.hpp"
#include "ostrel/core/errors.hpp"
#include "ostrel/core/interrupts.hpp"
#include "ostrel/core/values.hpp"
#include "ostrel/manifest/manifest_data.hpp"

namespace ostrel {
namespace {

using Json = nlohmann::json;

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
// Parsing

// Containers nested deeper than any manifest needs (the document, messages, a message, fields, a
// field: five) are refused while parsing, before they cost anything.
constexpr size_t kMaxDocumentDepth = 32;

// Where a refused parse stopped. In the manifest's shape records and dictionaries alternate:
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

// The JSON library would keep the last of two members with one name; a manifest saying two things
// about one field is more likely a mistake than an intent, so the first repeat is refused.
Json parseDocument(std::string_view text) {
  Json document;
  std::optional<detail::JsonRefusal> refusal;
  try {
    refusal = detail::parseJsonDocument(text, kMaxDocumentDepth, document);
  } catch (const Json::exception& e) {
    // A syntax error, or a number beyond the range of a double (out_of_range). The library's
    // message starts with its own error id in brackets, noise to a reader.
    std::string message = e.what();
    if (!message.empty() && message.front() == '[') {
      const size_t end = message.find("] ");
      if (end != std::string::npos) message.erase(0, end + 2);
    }
    fail(rootPath(), "invalid JSON: " + message);
  }
  if (refusal) {
    if (refusal->kind == detail::JsonRefusal::Kind::repeatedMember) {
      fail(refusalPath(refusal->frames), "duplicate member");
    }
    fail(refusalPath(refusal->frames),
         "nesting deeper than " + std::to_string(kMaxDocumentDepth) + " levels");
  }
  return document;
}

// ---------------------------------------------------------------------------------------------
// Reading values

const Json::object_t& readObject(const Json& value, const Path& path) {
  if (!value.is_object()) fail(path, "expected an object");
  return value.get_ref<const Json::object_t&>();
}

const Json::array_t& readArray(const Json& value, const Path& path) {
  if (!value.is_array()) fail(path, "expected an array");
  return value.get_ref<const Json::array_t&>();
}

std::string readString(const Json& value, const Path& path) {
  if (!value.is_string()) fail(path, "expected a string");
  return value.get<std::string>();
}

bool readBool(const Json& value, const Path& path) {
  if (!value.is_boolean()) fail(path, "expected a boolean");
  return value.get<bool>();
}

// Only JSON integers are taken: 1.0 and 1e3 are numbers but not integers in the text.
int64_t readInt64(const Json& value, const Path& path) {
  if (value.is_number_unsigned()) {
    const uint64_t number = value.get<uint64_t>();
    if (number > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
      fail(path, "integer out of range");
    }
    return static_cast<int64_t>(number);
  }
  if (value.is_number_integer()) return value.get<int64_t>();
  fail(path, "expected an integer");
}

Bytes readBase64(const Json& value, const Path& path) {
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
void readRecord(const Json& value, const Path& path, ReadMember&& read) {
  for (const auto& [name, member] : readObject(value, path)) {
    detail::pollInterrupt();
    const Path memberPath = path.member(name);
    if (!read(name, member, memberPath)) fail(memberPath, "unknown member");
  }
}

FieldManifest readField(const Json& value, const Path& path) {
  FieldManifest field;
  bool hasType = false;
  bool hasFieldNumber = false;
  readRecord(value, path, [&](const std::string& name, const Json& member, const Path& at) {
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
      if (!member.is_number_integer()) fail(at, "expected an integer");
      if (member.is_number_unsigned()
              ? member.get<uint64_t>() > static_cast<uint64_t>(std::numeric_limits<int32_t>::max())
              : member.get<int64_t>() < 0) {
        fail(at, "expected an index into oneofs");
      }
      field.oneofIndex = static_cast<int32_t>(member.get<int64_t>());
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

OneofManifest readOneof(const Json& value, const Path& path) {
  OneofManifest oneof;
  bool hasName = false;
  readRecord(value, path, [&](const std::string& name, const Json& member, const Path& at) {
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

MessageManifest readMessage(const Json& value, const Path& path) {
  MessageManifest message;
  readRecord(value, path, [&](const std::string& name, const Json& member, const Path& at) {
    if (name == "fields") {
      for (const auto& [fieldName, field] : readObject(member, at)) {
        message.fields.emplace(fieldName, readField(field, at.key(fieldName)));
      }
    } else if (name == "oneofs") {
      const Json::array_t& oneofs = readArray(member, at);
      for (size_t i = 0; i < oneofs.size(); ++i) {
        message.oneofs.push_back(readOneof(oneofs[i], at.index(i)));
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

EnumManifest readEnum(const Json& value, const Path& path) {
  EnumManifest enumManifest;
  readRecord(value, path, [&](const std::string& name, const Json& member, const Path& at) {
    if (name == "values") {
      for (const auto& [valueName, number] : readObject(member, at)) {
        enumManifest.values.emplace(valueName, readInt64(number, at.key(valueName)));
      }
    } else if (name == "options") {
      enumManifest.options = readBase64(member, at);
    } else if (name == "valueOptions") {
      for (const auto& [key, options] : readObject(member, at)) {
        const Path keyPath = at.key(key);
        const int64_t number = readIntegerKey(key, keyPath);
        enumManifest.valueOptions.emplace(number, readBase64(options, keyPath));
      }
    } else {
      return false;
    }
    return true;
  });
  return enumManifest;
}

SchemaManifest readManifest(const Json& value, const Path& path) {
  SchemaManifest manifest;
  readRecord(value, path, [&](const std::string& name, const Json& member, const Path& at) {
    if (name == "messages") {
      for (const auto& [messageName, message] : readObject(member, at)) {
        detail::pollInterrupt();
        manifest.messages.emplace(messageName, readMessage(message, at.key(messageName)));
      }
    } else if (name == "enums") {
      for (const auto& [enumName, enumValue] : readObject(member, at)) {
        detail::pollInterrupt();
        manifest.enums.emplace(enumName, readEnum(enumValue, at.key(enumName)));
      }
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

Json writeField(const FieldManifest& field, const Path& path) {
  Json out = Json::object();
  out["type"] = std::string(stringName(field.type));
  if (field.typeName) out["typeName"] = checkedText(*field.typeName, path.member("typeName"));
  out["fieldNumber"] = field.fieldNumber;
  if (field.isRepeated) out["isRepeated"] = true;
  if (field.implicitPresence) out["implicitPresence"] = true;
  if (field.delimited) out["delimited"] = true;
  if (field.packed) out["packed"] = true;
  if (field.closedEnum) out["closedEnum"] = true;
  if (field.oneofIndex) out["oneofIndex"] = *field.oneofIndex;
  if (field.options) out["options"] = base64(*field.options);
  return out;
}

Json writeMessage(const MessageManifest& message, const Path& path) {
  Json out = Json::object();
  if (!message.fields.empty()) {
    const Path fieldsPath = path.member("fields");
    Json& fields = out["fields"] = Json::object();
    for (const auto& [name, field] : message.fields) {
      const Path fieldPath = fieldsPath.key(name);
      fields[checkedText(name, fieldPath)] = writeField(field, fieldPath);
    }
  }
  if (!message.oneofs.empty()) {
    const Path oneofsPath = path.member("oneofs");
    Json& oneofs = out["oneofs"] = Json::array();
    for (size_t i = 0; i < message.oneofs.size(); ++i) {
      const OneofManifest& oneof = message.oneofs[i];
      Json entry = Json::object();
      entry["name"] = checkedText(oneof.name, oneofsPath.index(i).member("name"));
      if (oneof.options) entry["options"] = base64(*oneof.options);
      oneofs.push_back(std::move(entry));
    }
  }
  if (message.options) out["options"] = base64(*message.options);
  return out;
}

Json writeEnum(const EnumManifest& enumManifest, const Path& path) {
  Json out = Json::object();
  if (!enumManifest.values.empty()) {
    const Path valuesPath = path.member("values");
    Json& values = out["values"] = Json::object();
    for (const auto& [name, number] : enumManifest.values) {
      values[checkedText(name, valuesPath.key(name))] = number;
    }
  }
  if (enumManifest.options) out["options"] = base64(*enumManifest.options);
  if (!enumManifest.valueOptions.empty()) {
    Json& valueOptions = out["valueOptions"] = Json::object();
    for (const auto& [number, options] : enumManifest.valueOptions) {
      valueOptions[std::to_string(number)] = base64(options);
    }
  }
  return out;
}

}  // namespace

SchemaManifest schemaManifestFromJSON(std::string_view json) {
  SchemaManifest manifest = readManifest(parseDocument(json), rootPath());
  if (const auto change = detail::builtinTypeChange(manifest)) {
    const bool message = manifest.messages.contains(change->first);
    fail(rootPath().member(message ? "messages" : "enums").key(change->first),
         "changes a built-in descriptor type (" + change->second + ")");
  }
  return manifest;
}

std::string schemaManifestToJSON(const SchemaManifest& manifest, bool pretty) {
  const Path root = rootPath();
  Json out = Json::object();
  if (!manifest.messages.empty()) {
    const Path messagesPath = root.member("messages");
    Json& messages = out["messages"] = Json::object();
    for (const auto& [name, message] : manifest.messages) {
      const Path messagePath = messagesPath.key(name);
      messages[checkedText(name, messagePath)] = writeMessage(message, messagePath);
    }
  }
  if (!manifest.enums.empty()) {
    const Path enumsPath = root.member("enums");
    Json& enums = out["enums"] = Json::object();
    for (const auto& [name, enumManifest] : manifest.enums) {
      const Path enumPath = enumsPath.key(name);
      enums[checkedText(name, enumPath)] = writeEnum(enumManifest, enumPath);
    }
  }
  return out.dump(pretty ? 2 : -1);
}

}  // namespace ostrel
