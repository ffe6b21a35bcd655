// Edits by property path. Each edit walks down its path one message at a time: at each level the
// message's fields are scanned once for the occurrences of the field on the path (and of the other
// members of its oneof), the nested message is rewritten, and the level's bytes are copied around
// the occurrences that change.

#include "ostrel/edit/rewrite.hpp"

#include <simdjson.h>

#include <algorithm>

#include "core/base64.hpp"
#include "core/json_text.hpp"
#include "edit/wire_fields.hpp"
#include "ostrel/output/json.hpp"
#include "ostrel/output/protobuf_writing.hpp"
#include "ostrel/paths/property_path.hpp"
#include "output/field_value_writing.hpp"
#include "store/map_entry.hpp"

namespace ostrel {

namespace detail {
Bytes normalized(const MessageSchemaDescribing& schema, ByteView record);
}  // namespace detail

namespace {

using detail::Kind;
using detail::Occurrence;

struct Step {
  std::shared_ptr<FieldSchemaDescribing> field;
  std::optional<int64_t> index;
  // The other members of the field's oneof.
  std::vector<std::shared_ptr<FieldSchemaDescribing>> siblings;
};

enum class Op : uint8_t { set, append, clear };

}  // namespace

struct Rewrite::Edit {
  Op op;
  std::vector<Step> steps;
  std::optional<std::string> key;
  std::optional<EditValue> value;
};

Rewrite::Rewrite(MessageSchema schema) : schema_(std::move(schema)) {}
Rewrite::Rewrite(const Rewrite&) = default;
Rewrite::Rewrite(Rewrite&&) noexcept = default;
Rewrite& Rewrite::operator=(const Rewrite&) = default;
Rewrite& Rewrite::operator=(Rewrite&&) noexcept = default;
Rewrite::~Rewrite() = default;

namespace {

// A property path, and the map key in brackets after its last component when it has one that is
// not an index: counts[apples], counts["a key"].
std::pair<std::vector<PropertyPathElement>, std::optional<std::string>> parsePath(
    std::string_view path) {
  try {
    return {PropertyPathUtil::parse(path), std::nullopt};
  } catch (const PropertyPathUtil::Error&) {
    // A key as a JSON string runs from the first [" to the end; a bare one from the last [.
    const bool quoted = path.ends_with("\"]") && path.find("[\"") != std::string_view::npos;
    const size_t open = quoted ? path.find("[\"") : path.rfind('[');
    if (!path.ends_with(']') || open == std::string_view::npos || open == 0 ||
        (quoted && open + 3 > path.size() - 1)) {
      throw;
    }
    std::vector<PropertyPathElement> elements = PropertyPathUtil::parse(path.substr(0, open));
    const std::string_view inside = path.substr(open + 1, path.size() - open - 2);
    if (!quoted) return {std::move(elements), std::string(inside)};
    simdjson::ondemand::parser parser;
    const simdjson::padded_string padded(inside);
    simdjson::ondemand::document document;
    std::string_view key;
    if (parser.iterate(padded).get(document) || document.get_string().get(key)) throw;
    return {std::move(elements), std::string(key)};
  }
}

const MessageSchemaDescribing* messageOf(const FieldSchemaDescribing& field) {
  const TypeSchemaDescription& type = field.type();
  return type.kind() == Kind::message ? type.messageSchema().get() : nullptr;
}

std::optional<detail::MapEntryFields> mapOf(const FieldSchemaDescribing& field) {
  const MessageSchemaDescribing* entry = messageOf(field);
  if (!entry || !field.isRepeated()) return std::nullopt;
  return detail::mapEntryFields(*entry);
}

std::vector<Step> resolve(const MessageSchemaDescribing& root,
                          const std::vector<PropertyPathElement>& elements) {
  std::vector<Step> steps;
  const MessageSchemaDescribing* schema = &root;
  for (size_t i = 0; i < elements.size(); ++i) {
    const PropertyPathElement& element = elements[i];
    if (!schema) throw SchematizerError::nonMessageTypeInKeypath();
    Step step{schema->fieldNamed(element.propertyName), element.index, {}};
    const FieldSchemaDescribing& field = *step.field;
    if (element.index && !field.isRepeated()) throw SchematizerError::scalarValueAccessWithIndex();
    const bool last = i + 1 == elements.size();
    if (!last && field.isRepeated() && (!element.index || mapOf(field))) {
      throw SchematizerError::repeatedValueAccessNoIndex();
    }
    if (const auto oneof = field.oneofIndex()) {
      for (const auto& [number, other] : schema->fieldsByNumber()) {
        if (other != step.field && other->oneofIndex() == oneof) step.siblings.push_back(other);
      }
    }
    schema = messageOf(field);
    steps.push_back(std::move(step));
  }
  return steps;
}

std::string memberName(const FieldSchemaDescribing& field) {
  return field.extensionName() ? "[" + *field.extensionName() + "]" : field.name();
}

// The value's JSON for a field of `target`'s type.
std::string jsonOf(const EditValue& value, const FieldSchemaDescribing& target) {
  if (const auto* typed = std::get_if<AnyValue>(&value.form())) return renderJSON(*typed);
  if (const auto* json = std::get_if<EditValue::Json>(&value.form())) return json->text;
  const std::string& text = std::get<EditValue::Text>(value.form()).text;
  switch (target.type().kind()) {
    case Kind::string:
      return detail::jsonString(text);
    case Kind::bytes: {
      std::string base64(detail::base64Size(text.size()), '\0');
      detail::writeBase64(base64.data(), asBytes(text));
      return detail::jsonString(base64);
    }
    case Kind::enum_:
      // A name, or a number, which the JSON reader takes in quotes as it does bare.
      return detail::jsonString(text);
    case Kind::bool_:
      if (text == "1" || text == "true") return "true";
      if (text == "0" || text == "false") return "false";
      return detail::jsonString(text);
    case Kind::message:
      return text;
    default:
      // Numbers as decimal strings, which the JSON reader takes and checks as it does numbers.
      return detail::jsonString(text);
  }
}

// The value a typed write takes, where there is one: typed values, and text for string and bytes
// fields.
std::optional<AnyValue> typedOf(const EditValue& value, const FieldSchemaDescribing& field) {
  if (const auto* typed = std::get_if<AnyValue>(&value.form())) return *typed;
  if (const auto* text = std::get_if<EditValue::Text>(&value.form())) {
    const Kind kind = field.type().kind();
    if (kind == Kind::string) return AnyValue(text->text);
    if (kind == Kind::bytes) return AnyValue(toBytes(asBytes(text->text)));
  }
  return std::nullopt;
}

// A message field's occurrence holding `payload`, in the field's own encoding.
Bytes messageOccurrence(const FieldSchemaDescribing& field, ByteView payload) {
  detail::WireBuffer out(payload.size() + 12);
  if (field.isDelimited()) {
    out.writeGroup(payload, field.fieldNumber());
  } else {
    out.writeData(payload, field.fieldNumber());
  }
  return out.data();
}

enum class Shape : uint8_t { whole, element, entry };

// Whether the one occurrence in `bytes` holds its type's default: zero bits, or an empty payload.
bool holdsDefault(ByteView bytes) {
  bool isDefault = true;
  detail::forEachOccurrence(bytes, [&](const Occurrence& occurrence) {
    const ByteView payload = occurrence.payload(bytes);
    isDefault = isDefault &&
                std::ranges::all_of(payload, [](std::byte b) { return b == std::byte{0}; }) &&
                (occurrence.wireType() != ProtoWireType::lengthDelimited || payload.empty());
  });
  return isDefault;
}

// The occurrences of `field` that hold `value`: one value, or for Shape::whole all of a repeated
// field, or for Shape::entry one map entry of `key`.
Bytes encodeValue(const std::shared_ptr<MessageSchemaDescribing>& parent,
                  const FieldSchemaDescribing& field, const EditValue& value, Shape shape,
                  const std::string* key) {
  if (shape != Shape::entry && (shape == Shape::element || !field.isRepeated())) {
    if (auto typed = typedOf(value, field)) {
      if (typed->kind() == AnyValue::Case::bytes && field.type().kind() == Kind::message) {
        // An encoded message, checked to parse as one.
        const ByteView message = typed->bytesValue();
        detail::normalized(*field.type().messageSchema(), message);
        return messageOccurrence(field, message);
      }
      detail::WireBuffer out;
      const detail::AnyValueImpl impl = typed->impl();
      writeFieldValue(impl, field, out);
      if (field.hasImplicitPresence() && holdsDefault(out.view())) return {};
      return out.data();
    }
  } else if (shape == Shape::whole && std::holds_alternative<AnyValue>(value.form())) {
    throw SchematizerError::repeatedValueAccessNoIndex();
  }
  const std::string name = memberName(field);
  std::string json = "{" + detail::jsonString(name) + ":";
  if (shape == Shape::element) {
    json += "[" + jsonOf(value, field) + "]";
  } else if (shape == Shape::entry) {
    json += "{" + detail::jsonString(*key) + ":" + jsonOf(value, *mapOf(field)->value) + "}";
  } else if (const auto* text = std::get_if<EditValue::Text>(&value.form());
             text && field.isRepeated()) {
    // All of a repeated field or map: a JSON array or object.
    json += text->text;
  } else {
    json += jsonOf(value, field);
  }
  json += "}";
  Bytes encoded = parseJSON(MessageSchema(parent), json).data();
  // The value's text could close its member and open another: what it encodes must be this
  // field's, and one value where one is asked for.
  size_t count = 0;
  bool foreign = false;
  detail::forEachOccurrence(encoded, [&](const Occurrence& occurrence) {
    ++count;
    foreign = foreign || occurrence.fieldNumber() != field.fieldNumber();
  });
  if (foreign || (shape != Shape::whole && count != 1)) {
    throw SchematizerError::unexpectedType("$." + name + ": expected one value");
  }
  return encoded;
}

// A replacement of the bytes [start, end) of a message; empty bytes remove them.
struct Splice {
  int64_t start;
  int64_t end;
  Bytes with;
};

Bytes spliced(ByteView message, std::vector<Splice>& splices, ByteView tail) {
  std::ranges::sort(splices, {}, &Splice::start);
  detail::WireBuffer out(message.size() + tail.size() + 16);
  int64_t at = 0;
  for (const Splice& splice : splices) {
    out.raw(message.data() + at, static_cast<size_t>(splice.start - at));
    out.raw(splice.with.data(), splice.with.size());
    at = splice.end;
  }
  out.raw(message.data() + at, message.size() - static_cast<size_t>(at));
  out.raw(tail.data(), tail.size());
  return out.data();
}

// The map key `text` stands for, as the entries of `field` hold keys.
detail::MapKey keyOf(const FieldSchemaDescribing& field, const detail::MapEntryFields& entry,
                     const std::string& text) {
  const std::string keyJson =
      entry.key->type().kind() == Kind::bool_ ? text : detail::jsonString(text);
  const Bytes bytes =
      parseJSON(MessageSchema(field.type().messageSchema()), "{\"key\":" + keyJson + "}").data();
  return detail::entryKey(bytes, *entry.key);
}

class Editor {
 public:
  explicit Editor(const Rewrite::Edit& edit) : edit_(edit) {}

  Bytes apply(ByteView message, const std::shared_ptr<MessageSchemaDescribing>& schema,
              size_t depth) const {
    if (depth + 1 > static_cast<size_t>(detail::kMaxEditDepth)) throw detail::tooDeep();
    const Step& step = edit_.steps[depth];
    const FieldSchemaDescribing& field = *step.field;
    const bool last = depth + 1 == edit_.steps.size();
    // The field's occurrences, and those of the other members of its oneof.
    std::vector<Occurrence> own;
    std::vector<Occurrence> others;
    detail::forEachOccurrence(message, [&](const Occurrence& occurrence) {
      const int64_t number = occurrence.fieldNumber();
      if (number == field.fieldNumber()) {
        if (belongs(message, field, occurrence)) own.push_back(occurrence);
        return;
      }
      for (const auto& sibling : step.siblings) {
        if (sibling->fieldNumber() == number && belongs(message, *sibling, occurrence)) {
          others.push_back(occurrence);
        }
      }
    });
    std::vector<Splice> splices;
    Bytes tail;
    if (!last) {
      const std::shared_ptr<MessageSchemaDescribing>& nested = field.type().messageSchema();
      if (field.isRepeated()) {
        const Occurrence& element = elementAt(own, *step.index);
        splices.push_back(
            {element.start, element.end,
             messageOccurrence(field, apply(element.payload(message), nested, depth + 1))});
      } else {
        Bytes merged;
        for (const Occurrence& occurrence : live(own, others)) {
          const ByteView payload = occurrence.payload(message);
          merged.insert(merged.end(), payload.begin(), payload.end());
        }
        replaceAll(message, field, own, others,
                   messageOccurrence(field, apply(merged, nested, depth + 1)), splices, tail);
      }
      return spliced(message, splices, tail);
    }
    const auto map = mapOf(field);
    switch (edit_.op) {
      case Op::clear: {
        const std::optional<detail::MapKey> key =
            edit_.key ? std::optional(keyOf(field, *map, *edit_.key)) : std::nullopt;
        for (const Occurrence& occurrence : own) {
          if (!key || detail::entryKey(occurrence.payload(message), *map->key) == *key) {
            splices.push_back(
                {occurrence.start, occurrence.end, leftover(message, field, occurrence)});
          }
        }
        // A oneof member that is set leaves the oneof unset: the members before it go too.
        if (!live(own, others).empty()) {
          for (const Occurrence& occurrence : others) {
            splices.push_back({occurrence.start, occurrence.end, {}});
          }
        }
        break;
      }
      case Op::append:
        tail = encodeValue(schema, field, *edit_.value, Shape::element, nullptr);
        break;
      case Op::set:
        if (edit_.key) {
          tail = encodeValue(schema, field, *edit_.value, Shape::entry, &*edit_.key);
          Occurrence entry;
          detail::forEachOccurrence(tail, [&](const Occurrence& o) { entry = o; });
          const detail::MapKey key = detail::entryKey(entry.payload(tail), *map->key);
          for (const Occurrence& occurrence : own) {
            if (detail::entryKey(occurrence.payload(message), *map->key) == key) {
              splices.push_back({occurrence.start, occurrence.end, {}});
            }
          }
        } else if (step.index) {
          splices.push_back(elementSplice(message, schema, field, own, *step.index));
        } else {
          replaceAll(message, field, own, others,
                     encodeValue(schema, field, *edit_.value, Shape::whole, nullptr), splices,
                     tail);
        }
        break;
    }
    return spliced(message, splices, tail);
  }

 private:
  // Whether protobuf's parse takes `occurrence` as a value of `field`, not as an unknown field: its
  // wire type fits, and a closed enum declares its number (a map entry's value number).
  static bool belongs(ByteView message, const FieldSchemaDescribing& field,
                      const Occurrence& occurrence) {
    if (!detail::fits(field, occurrence.wireType())) return false;
    if (field.hasClosedEnum() && occurrence.wireType() == ProtoWireType::varInt) {
      Reader reader(occurrence.payload(message));
      return detail::declaresValue(field,
                                   detail::readScalar(Kind::enum_, occurrence.wireType(), reader));
    }
    const auto map = mapOf(field);
    if (!map || !map->value->hasClosedEnum()) return true;
    const ByteView entry = occurrence.payload(message);
    uint64_t value = 0;
    detail::forEachOccurrence(entry, [&](const Occurrence& inner) {
      if (inner.fieldNumber() != 2 || inner.wireType() != ProtoWireType::varInt) return;
      Reader reader(inner.payload(entry));
      value = detail::readScalar(Kind::enum_, ProtoWireType::varInt, reader);
    });
    return detail::declaresValue(*map->value, value);
  }

  // What stays of an occurrence the edit removes: of a packed run of a closed enum, the numbers
  // the enum does not declare, which protobuf's parse keeps among the unknown fields.
  static Bytes leftover(ByteView message, const FieldSchemaDescribing& field,
                        const Occurrence& occurrence) {
    if (!field.hasClosedEnum() || occurrence.wireType() != ProtoWireType::lengthDelimited) {
      return {};
    }
    Reader run(occurrence.payload(message));
    Bytes kept;
    while (run.hasMoreFields()) {
      const int64_t start = run.position();
      if (detail::declaresValue(field, canonicalEnum(run.readVarintValue()))) continue;
      kept.insert(kept.end(), run.bytes().begin() + start, run.bytes().begin() + run.position());
    }
    if (kept.empty()) return {};
    detail::WireBuffer out(kept.size() + 12);
    out.writeData(kept, field.fieldNumber());
    return out.data();
  }
  static uint64_t canonicalEnum(uint64_t raw) { return detail::canonicalVarint(Kind::enum_, raw); }

  // The occurrences of `own` that protobuf's parse keeps: those after the last member of the
  // oneof that is not this field.
  static std::vector<Occurrence> live(const std::vector<Occurrence>& own,
                                      const std::vector<Occurrence>& others) {
    if (others.empty()) return own;
    std::vector<Occurrence> kept;
    for (const Occurrence& occurrence : own) {
      if (occurrence.start > others.back().start) kept.push_back(occurrence);
    }
    return kept;
  }

  // Removes every occurrence of the field and of its oneof's other members, and puts
  // `replacement` where the last of them stood (at the end when there was none).
  static void replaceAll(ByteView message, const FieldSchemaDescribing& field,
                         const std::vector<Occurrence>& own, const std::vector<Occurrence>& others,
                         Bytes replacement, std::vector<Splice>& splices, Bytes& tail) {
    const Occurrence* anchor = nullptr;
    for (const auto* list : {&own, &others}) {
      for (const Occurrence& occurrence : *list) {
        splices.push_back({occurrence.start, occurrence.end,
                           list == &own ? leftover(message, field, occurrence) : Bytes()});
        if (!anchor || occurrence.start > anchor->start) anchor = &occurrence;
      }
    }
    if (!anchor) {
      tail = std::move(replacement);
      return;
    }
    for (Splice& splice : splices) {
      if (splice.start == anchor->start) {
        splice.with.insert(splice.with.end(), replacement.begin(), replacement.end());
      }
    }
  }

  static const Occurrence& elementAt(const std::vector<Occurrence>& own, int64_t index) {
    if (index < 0 || static_cast<uint64_t>(index) >= own.size()) {
      throw SchematizerError::invalidIndexInKeypath();
    }
    return own[static_cast<size_t>(index)];
  }

  // Replaces element `index` of a repeated field: a whole occurrence, or one element inside a
  // packed run, whose other elements keep their bytes.
  Splice elementSplice(ByteView message, const std::shared_ptr<MessageSchemaDescribing>& schema,
                       const FieldSchemaDescribing& field, const std::vector<Occurrence>& own,
                       int64_t index) const {
    const Bytes encoded = encodeValue(schema, field, *edit_.value, Shape::element, nullptr);
    const Kind kind = field.type().kind();
    if (detail::isLengthDelimitedKind(kind)) {
      const Occurrence& element = elementAt(own, index);
      return {element.start, element.end, encoded};
    }
    const ProtoWireType wire = detail::valueWireType(field);
    int64_t seen = 0;
    for (const Occurrence& occurrence : own) {
      if (occurrence.wireType() != ProtoWireType::lengthDelimited) {
        if (seen++ == index) return {occurrence.start, occurrence.end, encoded};
        continue;
      }
      Reader run(message);
      run.setPosition(occurrence.payloadStart);
      run.setEndPosition(occurrence.payloadEnd);
      while (run.hasMoreFields()) {
        const int64_t start = run.position();
        const uint64_t element = detail::readScalar(kind, wire, run);
        // A run must end on an element boundary.
        if (run.position() > occurrence.payloadEnd) throw SerializationError::truncated();
        if (field.hasClosedEnum() && !detail::declaresValue(field, element)) continue;
        if (seen++ != index) continue;
        // The new element's value: its encoding without the tag.
        Reader value(encoded);
        value.readTag();
        const ByteView payload = occurrence.payload(message);
        const auto before = static_cast<size_t>(start - occurrence.payloadStart);
        const auto after = static_cast<size_t>(run.position() - occurrence.payloadStart);
        Bytes elements(payload.begin(), payload.begin() + static_cast<ptrdiff_t>(before));
        elements.insert(elements.end(), encoded.begin() + value.position(), encoded.end());
        elements.insert(elements.end(), payload.begin() + static_cast<ptrdiff_t>(after),
                        payload.end());
        detail::WireBuffer out(elements.size() + 12);
        out.writeData(elements, field.fieldNumber());
        return {occurrence.start, occurrence.end, out.data()};
      }
      if (run.position() != occurrence.payloadEnd) throw SerializationError::truncated();
    }
    throw SchematizerError::invalidIndexInKeypath();
  }

  const Rewrite::Edit& edit_;
};

}  // namespace

Rewrite& Rewrite::set(std::string_view path, EditValue value) {
  auto [elements, key] = parsePath(path);
  Edit edit{Op::set, resolve(*schema_.impl(), elements), std::move(key), std::move(value)};
  const Step& last = edit.steps.back();
  if (mapOf(*last.field) && last.index) {
    edit.key = std::to_string(*last.index);
    edit.steps.back().index.reset();
  }
  if (edit.key && !mapOf(*last.field)) throw SchematizerError::invalidIndexInKeypath();
  edits_.push_back(std::move(edit));
  return *this;
}

Rewrite& Rewrite::append(std::string_view path, EditValue value) {
  auto [elements, key] = parsePath(path);
  Edit edit{Op::append, resolve(*schema_.impl(), elements), std::move(key), std::move(value)};
  const Step& last = edit.steps.back();
  if (!last.field->isRepeated()) throw SchematizerError::scalarValueAccessWithIndex();
  if (edit.key || last.index || mapOf(*last.field)) {
    throw SchematizerError::invalidIndexInKeypath();
  }
  edits_.push_back(std::move(edit));
  return *this;
}

Rewrite& Rewrite::clear(std::string_view path) {
  auto [elements, key] = parsePath(path);
  Edit edit{Op::clear, resolve(*schema_.impl(), elements), std::move(key), std::nullopt};
  const Step& last = edit.steps.back();
  if (mapOf(*last.field) && last.index) {
    edit.key = std::to_string(*last.index);
    edit.steps.back().index.reset();
  }
  if (edit.steps.back().index || (edit.key && !mapOf(*last.field))) {
    throw SchematizerError::invalidIndexInKeypath();
  }
  edits_.push_back(std::move(edit));
  return *this;
}

Bytes Rewrite::apply(ByteView record) const {
  if (edits_.empty()) {
    // Checked as any edit would read it.
    detail::forEachOccurrence(record, [](const Occurrence&) {});
    return toBytes(record);
  }
  Bytes current;
  for (size_t i = 0; i < edits_.size(); ++i) {
    current = Editor(edits_[i]).apply(i == 0 ? record : ByteView(current), schema_.impl(), 0);
  }
  return current;
}

}  // namespace ostrel
