#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <map>
#include <memory>
#include <ostream>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "core/json_text.hpp"
#include "ostrel/core/errors.hpp"
#include "ostrel/core/logging.hpp"
#include "ostrel/core/values.hpp"
#include "ostrel/output/json.hpp"
#include "ostrel/wire/reader.hpp"
#include "output/field_type_table.hpp"
#include "output/map_entry.hpp"
#include "output/well_known.hpp"
#include "wire/scalar_decoding.hpp"
#include "wire/value_decoding.hpp"

namespace ostrel {
namespace {

using Case = TypeSchemaDescription::Case;
using detail::WellKnown;
using FieldsByNumber = std::map<int64_t, std::shared_ptr<FieldSchemaDescribing>>;

// How much text a streaming rendering gathers before handing it to the sink.
constexpr size_t kFlushSize = size_t{1} << 16;
// The outermost message counts as the first.
constexpr int kMaxMessageDepth = 100;
// Where a break in a message's field structure is reported when no known field was being read.
constexpr std::string_view kUnreadableFieldName = "<unreadable>";
// Field numbers start at 1, so 0 names "no field".
constexpr int64_t kNoField = 0;

// One occurrence of a known field in a message's bytes.
struct Occurrence {
  int64_t fieldNumber = kNoField;
  const FieldSchemaDescribing* field = nullptr;
  // Just after the tag.
  int64_t position = 0;
  ProtoWireType wireType = ProtoWireType::varInt;
};

// A break in a message's field structure found while gathering its fields.
struct ScanFault {
  // The known field being stepped over, or kNoField.
  int64_t fieldNumber = kNoField;
  std::string text;
};

bool isPackable(Case kind) noexcept { return detail::fieldTypeRow(kind).packable; }

// Streams JSON text in a single pass over each message: the message's fields are gathered in one
// scan (their positions only), then emitted in field-number order, decoding each value straight
// into the output. No JSON document is built.
//
// The text goes into a buffer that a sink, when there is one, takes whenever it has grown past
// kFlushSize at the start of a member or element. A field that fails is withdrawn from the buffer
// and replaced by its error; so that this never reaches text already handed on, everything that
// can fail in the middle of a repeated field or a map is checked before its first element when
// streaming, and the values of the well-known types whose contents can fail deep inside (Struct,
// Value, ListValue, and arrays and maps of well-known types) are held until they end.
class Renderer {
 public:
  Renderer(std::string& out, const JsonOptions& options, const JsonSink* sink = nullptr)
      : out_(out),
        options_(options),
        indented_(options.style == JsonStyle::indented),
        sink_(sink) {}

  // The message at `depth` (the outermost is 1) as its JSON value, members starting at `level`.
  void topLevel(const MessageSchemaDescribing& schema, ByteView bytes) {
    if (detail::wellKnownKind(schema) == WellKnown::none) {
      message(schema, bytes, 1, 0);
    } else {
      messageValue(schema, bytes, 1, 0);
    }
  }

  // Any value, as a field of its kind renders it.
  void anyValue(const detail::AnyValueImpl& value) {
    if (value.kind() == detail::AnyValueImpl::Case::bytes) {
      out_.push_back('"');
      appendBase64(value.bytesValue().view(), out_);
      out_.push_back('"');
    } else if (value.kind() == detail::AnyValueImpl::Case::message) {
      const UnsafeSchematizedData& data = value.messageValue();
      topLevel(*data.messageSchema(), data.bytes());
    } else {
      scalar(value);
    }
  }

  // Hands what is left to the sink.
  void finish() {
    if (sink_ && !out_.empty()) (*sink_)(out_);
    out_.clear();
  }

 private:
  // Pops the occurrences gathered above `size` on the way out, also when an error unwinds.
  struct Pop {
    std::vector<Occurrence>& occurrences;
    size_t size;
    ~Pop() { occurrences.resize(size); }
  };

  // Holds the text in the buffer while alive.
  struct Hold {
    int& holds;
    explicit Hold(int& counter) : holds(counter) { ++holds; }
    ~Hold() { --holds; }
  };

  // The message as an object whose members start at `level`; `typeUrl`, when given, is written
  // first as the member "@type" (the message is the content of an Any).
  void message(const MessageSchemaDescribing& schema, ByteView bytes, int depth, int level,
               std::string_view typeUrl = {}) {
    const FieldsByNumber& fields = schema.fieldsByNumber();
    const size_t first = occurrences_.size();
    Pop pop{occurrences_, first};

    std::optional<ScanFault> fault = gather(fields, bytes);
    const auto byNumber = [](const Occurrence& a, const Occurrence& b) {
      return a.fieldNumber < b.fieldNumber;
    };
    // Encoders write fields in number order, so sorting is rarely needed; stability keeps each
    // field's occurrences in the order of the bytes.
    if (!std::is_sorted(occurrences_.begin() + static_cast<ptrdiff_t>(first), occurrences_.end(),
                        byNumber)) {
      std::stable_sort(occurrences_.begin() + static_cast<ptrdiff_t>(first), occurrences_.end(),
                       byNumber);
    }

    out_.push_back('{');
    bool any = false;
    if (!typeUrl.empty()) {
      separate(any, level + 1);
      key("@type");
      string(typeUrl);
      any = true;
    }
    auto absent = fields.begin();
    // Writes the fields without presence numbered below `limit` that the bytes do not hold.
    const auto defaultsBelow = [&](int64_t limit) {
      for (; absent != fields.end() && absent->first < limit; ++absent) {
        defaultMember(*absent->second, level + 1, any);
      }
    };
    for (size_t begin = first; begin < occurrences_.size();) {
      const int64_t number = occurrences_[begin].fieldNumber;
      size_t end = begin + 1;
      while (end < occurrences_.size() && occurrences_[end].fieldNumber == number) ++end;
      if (options_.printDefaults) {
        defaultsBelow(number);
        if (absent != fields.end() && absent->first == number) ++absent;
      }
      const std::string* faultText = fault && fault->fieldNumber == number ? &fault->text : nullptr;
      field(bytes, begin, end, faultText, depth, level + 1, any);
      begin = end;
    }
    if (options_.printDefaults) defaultsBelow(std::numeric_limits<int64_t>::max());
    if (fault && fault->fieldNumber == kNoField) {
      separate(any, level + 1);
      key(kUnreadableFieldName);
      fieldError(kUnreadableFieldName, fault->text);
      any = true;
    }
    if (any) newline(level);
    out_.push_back('}');
  }

  // A field the bytes do not hold, with its default when it has no presence of its own (members
  // of a oneof and extensions have).
  void defaultMember(const FieldSchemaDescribing& field, int level, bool& any) {
    if (field.oneofIndex() || field.extensionName()) return;
    const TypeSchemaDescription& type = field.type();
    if (field.isRepeated()) {
      separate(any, level);
      key(memberName(field));
      const bool isMap =
          type.kind() == Case::message && detail::mapEntryFields(*type.messageSchema());
      out_ += isMap ? "{}" : "[]";
    } else if (type.kind() != Case::message) {
      separate(any, level);
      key(memberName(field));
      defaultValue(type);
    } else {
      return;
    }
    any = true;
  }

  // Appends the occurrences of the known fields of `bytes` to occurrences_, in the order of the
  // bytes. Stops at the first break in the field structure and reports it.
  std::optional<ScanFault> gather(const FieldsByNumber& fields, ByteView bytes) {
    Reader reader(bytes);
    int64_t current = kNoField;
    try {
      while (reader.hasMoreFields()) {
        current = kNoField;
        const FieldTag tag = reader.readTag();
        if (const auto it = fields.find(tag.fieldNumber()); it != fields.end()) {
          current = tag.fieldNumber();
          occurrences_.push_back({current, it->second.get(), reader.position(), tag.wireType()});
        }
        reader.skipField(tag);
        // Skips do not check that the bytes they step over exist.
        if (reader.position() > reader.size()) throw SerializationError::truncated();
      }
    } catch (const Error& error) {
      return ScanFault{current, error.what()};
    }
    return std::nullopt;
  }

  // Emits field occurrences_[begin, end) as one member, or nothing for a repeated field without
  // elements. `any` tells whether the object has members already, and becomes true once this one
  // is written.
  void field(ByteView bytes, size_t begin, size_t end, const std::string* faultText, int depth,
             int level, bool& any) {
    const FieldSchemaDescribing& field = *occurrences_[begin].field;
    const size_t memberStart = position();
    separate(any, level);
    key(memberName(field));
    const size_t valueStart = position();
    try {
      if (faultText) {
        fieldError(field.name(), *faultText);
        any = true;
        return;
      }
      const TypeSchemaDescription& type = field.type();
      bool present = true;
      if (!field.isRepeated()) {
        const Occurrence occurrence = occurrences_[begin];
        Reader reader = readerAt(bytes, occurrence.position);
        value(type, reader, occurrence.wireType, depth, level);
      } else if (const auto entry = type.kind() == Case::message
                                        ? detail::mapEntryFields(*type.messageSchema())
                                        : std::nullopt) {
        map(*entry, bytes, begin, end, depth, level);
      } else {
        present = repeated(type, bytes, begin, end, depth, level);
      }
      if (!present) {
        rollback(memberStart);
        return;
      }
    } catch (const Error& error) {
      rollback(valueStart);
      fieldError(field.name(), error.what());
    }
    any = true;
  }

  // Whether the values of `type` can fail after their text has begun: then a field of them is held
  // whole while streaming.
  static bool failsInside(const TypeSchemaDescription& type) {
    return type.kind() == Case::message &&
           detail::wellKnownKind(*type.messageSchema()) != WellKnown::none;
  }

  // Throws what emitting occurrences_[begin, end) of a repeated field would throw after its first
  // element: a packed run that does not end on an element boundary, an occurrence of the wrong
  // wire type, a message type that cannot be resolved or nests too deep. Returns the number of
  // elements.
  size_t checkRepeated(const TypeSchemaDescription& type, ByteView bytes, size_t begin, size_t end,
                       int depth) {
    const ProtoWireType required = detail::kRequiredWireType[static_cast<size_t>(type.kind())];
    size_t count = 0;
    for (size_t i = begin; i < end; ++i) {
      const Occurrence occurrence = occurrences_[i];
      if (occurrence.wireType == ProtoWireType::lengthDelimited && isPackable(type.kind())) {
        Reader reader = readerAt(bytes, occurrence.position);
        const ByteView run = reader.readLengthDelimited();
        const int64_t runEnd = reader.position();
        Reader elements = reader.narrowed(runEnd - static_cast<int64_t>(run.size()), runEnd);
        while (elements.hasMoreFields()) {
          decodePackedElement(elements, type);
          ++count;
        }
        if (elements.position() != runEnd) throw SerializationError::malformedProtobuf();
      } else if (occurrence.wireType != required) {
        throw SerializationError::typeMismatch(type, occurrence.wireType);
      } else {
        ++count;
      }
    }
    if (count > 0 && type.kind() == Case::message) checkMessage(type, depth);
    return count;
  }

  void checkMessage(const TypeSchemaDescription& type, int depth) {
    if (depth >= kMaxMessageDepth) {
      throw SchematizerError::protocolBufferError("Nesting deeper than 100 messages");
    }
    type.messageSchema()->fieldsByNumber();
  }

  // Emits every element of a repeated field as an array; false, with nothing emitted, when the
  // occurrences hold no element (empty packed runs).
  bool repeated(const TypeSchemaDescription& type, ByteView bytes, size_t begin, size_t end,
                int depth, int level) {
    std::optional<Hold> hold;
    if (sink_) {
      if (checkRepeated(type, bytes, begin, end, depth) == 0) return false;
      if (failsInside(type)) hold.emplace(holds_);
    }
    const size_t arrayStart = position();
    out_.push_back('[');
    bool any = false;
    for (size_t i = begin; i < end; ++i) {
      const Occurrence occurrence = occurrences_[i];
      Reader reader = readerAt(bytes, occurrence.position);
      if (occurrence.wireType == ProtoWireType::lengthDelimited && isPackable(type.kind())) {
        const ByteView run = reader.readLengthDelimited();
        const int64_t runEnd = reader.position();
        Reader elements = reader.narrowed(runEnd - static_cast<int64_t>(run.size()), runEnd);
        while (elements.hasMoreFields()) {
          separate(any, level + 1);
          any = true;
          scalar(decodePackedElement(elements, type));
        }
        // An element running past the run's end has read the bytes that follow it.
        if (elements.position() != runEnd) throw SerializationError::malformedProtobuf();
      } else {
        separate(any, level + 1);
        any = true;
        value(type, reader, occurrence.wireType, depth, level + 1);
      }
    }
    if (!any) {
      rollback(arrayStart);
      return false;
    }
    newline(level);
    out_.push_back(']');
    return true;
  }

  // Emits a map field, whose entries are occurrences_[begin, end), as an object.
  void map(const detail::MapEntryFields& entryFields, ByteView bytes, size_t begin, size_t end,
           int depth, int level) {
    const TypeSchemaDescription& keyType = entryFields.key->type();
    const TypeSchemaDescription& valueType = entryFields.value->type();
    const ProtoWireType valueWireType =
        detail::kRequiredWireType[static_cast<size_t>(valueType.kind())];

    struct Entry {
      std::string key;
      ByteView bytes;
      // The value's first occurrence in `bytes`, if any.
      std::optional<int64_t> valuePosition;
      ProtoWireType valueWireType = ProtoWireType::varInt;
      bool shown = true;
    };
    std::vector<Entry> entries;
    entries.reserve(end - begin);
    for (size_t i = begin; i < end; ++i) {
      const Occurrence occurrence = occurrences_[i];
      if (occurrence.wireType != ProtoWireType::lengthDelimited) {
        throw SerializationError::typeMismatch(occurrence.field->type(), occurrence.wireType);
      }
      Reader reader = readerAt(bytes, occurrence.position);
      Entry& entry = entries.emplace_back();
      entry.bytes = reader.readLengthDelimited();
      bool hasKey = false;
      Reader fields(entry.bytes);
      while (fields.hasMoreFields()) {
        const FieldTag tag = fields.readTag();
        if (tag.fieldNumber() == 1 && !hasKey) {
          entry.key = keyText(decodeValue(fields, keyType, tag.wireType()));
          hasKey = true;
        } else if (tag.fieldNumber() == 2 && !entry.valuePosition) {
          // Checked here, before the object begins, so that no value fails halfway through it.
          if (sink_ && tag.wireType() != valueWireType) {
            throw SerializationError::typeMismatch(valueType, tag.wireType());
          }
          entry.valuePosition = fields.position();
          entry.valueWireType = tag.wireType();
          fields.skipField(tag);
        } else {
          fields.skipField(tag);
        }
        if (fields.position() > fields.size()) throw SerializationError::truncated();
      }
      if (!hasKey) entry.key = defaultKeyText(keyType.kind());
    }
    std::optional<Hold> hold;
    if (sink_ && !entries.empty() && valueType.kind() == Case::message) {
      checkMessage(valueType, depth);
      if (failsInside(valueType)) hold.emplace(holds_);
    }
    // Of several entries with one key the last wins, where it stands.
    if (entries.size() > 1) {
      std::vector<size_t> order(entries.size());
      for (size_t i = 0; i < order.size(); ++i) order[i] = i;
      std::stable_sort(order.begin(), order.end(),
                       [&](size_t a, size_t b) { return entries[a].key < entries[b].key; });
      for (size_t i = 0; i + 1 < order.size(); ++i) {
        if (entries[order[i]].key == entries[order[i + 1]].key) entries[order[i]].shown = false;
      }
    }

    out_.push_back('{');
    bool any = false;
    for (const Entry& entry : entries) {
      if (!entry.shown) continue;
      separate(any, level + 1);
      any = true;
      key(entry.key);
      if (entry.valuePosition) {
        Reader reader = readerAt(entry.bytes, *entry.valuePosition);
        value(valueType, reader, entry.valueWireType, depth, level + 1);
      } else {
        defaultValue(valueType);
      }
    }
    if (any) newline(level);
    out_.push_back('}');
  }

  // Emits the value that follows a tag of `wireType` at the reader's position.
  void value(const TypeSchemaDescription& type, Reader& reader, ProtoWireType wireType, int depth,
             int level) {
    const Case kind = type.kind();
    if (kind != Case::string && kind != Case::bytes && kind != Case::message) {
      scalar(decodeValue(reader, type, wireType));
      return;
    }
    if (wireType != ProtoWireType::lengthDelimited) {
      throw SerializationError::typeMismatch(type, wireType);
    }
    const ByteView payload = reader.readLengthDelimited();
    if (kind == Case::string) {
      string(asText(payload));
    } else if (kind == Case::bytes) {
      out_.push_back('"');
      appendBase64(payload, out_);
      out_.push_back('"');
    } else {
      if (depth >= kMaxMessageDepth) {
        throw SchematizerError::protocolBufferError("Nesting deeper than 100 messages");
      }
      messageValue(*type.messageSchema(), payload, depth + 1, level);
    }
  }

  // A message value at `depth`: a well-known type in its own JSON form, any other as an object.
  void messageValue(const MessageSchemaDescribing& schema, ByteView bytes, int depth, int level) {
    switch (detail::wellKnownKind(schema)) {
      case WellKnown::none:
        return message(schema, bytes, depth, level);
      case WellKnown::timestamp:
        return string(detail::formatTimestamp(secondsAndNanos(schema, bytes)));
      case WellKnown::duration:
        return string(detail::formatDuration(secondsAndNanos(schema, bytes)));
      case WellKnown::wrapper:
        return wrapper(schema, bytes, depth, level);
      case WellKnown::fieldMask:
        return fieldMask(schema, bytes);
      case WellKnown::any:
        return anyMessage(schema, bytes, depth, level);
      case WellKnown::structType:
      case WellKnown::value:
      case WellKnown::listValue: {
        const Hold hold(holds_);
        return structured(schema, bytes, depth, level);
      }
    }
  }

  // The occurrences of the fields of a well-known type's message, gathered above `first`; a break
  // in its structure fails the whole value.
  void gatherWhole(const MessageSchemaDescribing& schema, ByteView bytes) {
    if (const std::optional<ScanFault> fault = gather(schema.fieldsByNumber(), bytes)) {
      throw SchematizerError::protocolBufferError(schema.name() + ": " + fault->text);
    }
  }

  // The first occurrence of field `number` among occurrences_[first, end).
  const Occurrence* find(size_t first, int64_t number) const {
    for (size_t i = first; i < occurrences_.size(); ++i) {
      if (occurrences_[i].fieldNumber == number) return &occurrences_[i];
    }
    return nullptr;
  }

  std::optional<detail::AnyValueImpl> fieldValue(ByteView bytes, size_t first, int64_t number) {
    const Occurrence* occurrence = find(first, number);
    if (!occurrence) return std::nullopt;
    Reader reader = readerAt(bytes, occurrence->position);
    return decodeValue(reader, occurrence->field->type(), occurrence->wireType);
  }

  detail::SecondsAndNanos secondsAndNanos(const MessageSchemaDescribing& schema, ByteView bytes) {
    const size_t first = occurrences_.size();
    Pop pop{occurrences_, first};
    gatherWhole(schema, bytes);
    detail::SecondsAndNanos result;
    if (const auto seconds = fieldValue(bytes, first, 1)) result.seconds = seconds->int64Value();
    if (const auto nanos = fieldValue(bytes, first, 2)) result.nanos = nanos->int32Value();
    return result;
  }

  void wrapper(const MessageSchemaDescribing& schema, ByteView bytes, int depth, int level) {
    const size_t first = occurrences_.size();
    Pop pop{occurrences_, first};
    gatherWhole(schema, bytes);
    if (const Occurrence* occurrence = find(first, 1)) {
      Reader reader = readerAt(bytes, occurrence->position);
      value(occurrence->field->type(), reader, occurrence->wireType, depth, level);
    } else {
      defaultValue(schema.fieldWithNumber(1)->type());
    }
  }

  void fieldMask(const MessageSchemaDescribing& schema, ByteView bytes) {
    const size_t first = occurrences_.size();
    Pop pop{occurrences_, first};
    gatherWhole(schema, bytes);
    std::string paths;
    for (size_t i = first; i < occurrences_.size(); ++i) {
      Reader reader = readerAt(bytes, occurrences_[i].position);
      const detail::AnyValueImpl path =
          decodeValue(reader, occurrences_[i].field->type(), occurrences_[i].wireType);
      const std::optional<std::string> json = detail::fieldMaskPathToJson(path.stringValue());
      if (!json) {
        throw SchematizerError::unexpectedType("google.protobuf.FieldMask path " +
                                               detail::jsonString(path.stringValue()) +
                                               " has no JSON form");
      }
      if (i > first) paths.push_back(',');
      paths += *json;
    }
    string(paths);
  }

  void anyMessage(const MessageSchemaDescribing& schema, ByteView bytes, int depth, int level) {
    const size_t first = occurrences_.size();
    Pop pop{occurrences_, first};
    gatherWhole(schema, bytes);
    const std::optional<detail::AnyValueImpl> url = fieldValue(bytes, first, 1);
    const Occurrence* value = find(first, 2);
    if (!url || url->stringValue().empty()) {
      if (value && !readerAt(bytes, value->position).readLengthDelimited().empty()) {
        throw SchematizerError::unexpectedType("google.protobuf.Any without a type URL");
      }
      out_ += "{}";
      return;
    }
    const std::string& typeUrl = url->stringValue();
    const std::shared_ptr<MessageSchemaDescribing> packed = detail::anyType(schema, typeUrl);
    const ByteView packedBytes =
        value ? readerAt(bytes, value->position).readLengthDelimited() : ByteView{};
    if (depth >= kMaxMessageDepth) {
      throw SchematizerError::protocolBufferError("Nesting deeper than 100 messages");
    }
    if (packedBytes.empty()) {
      // An empty message is "@type" alone, as libprotobuf writes it: no defaults, no "value".
      out_.push_back('{');
      newline(level + 1);
      key("@type");
      string(typeUrl);
      newline(level);
      out_.push_back('}');
      return;
    }
    if (detail::wellKnownKind(*packed) == WellKnown::none) {
      message(*packed, packedBytes, depth + 1, level, typeUrl);
      return;
    }

    out_.push_back('{');
    newline(level + 1);
    key("@type");
    string(typeUrl);
    out_.push_back(',');
    newline(level + 1);
    key("value");
    messageValue(*packed, packedBytes, depth + 1, level + 1);
    newline(level);
    out_.push_back('}');
  }

  // Struct, Value and ListValue: the JSON they stand for.
  void structured(const MessageSchemaDescribing& schema, ByteView bytes, int depth, int level) {
    const size_t first = occurrences_.size();
    Pop pop{occurrences_, first};
    gatherWhole(schema, bytes);
    const WellKnown kind = detail::wellKnownKind(schema);
    if (kind == WellKnown::structType) {
      const std::shared_ptr<FieldSchemaDescribing>& fields = schema.fieldWithNumber(1);
      const auto entry = detail::mapEntryFields(*fields->type().messageSchema());
      if (!entry) throw SchematizerError::internalError("google.protobuf.Struct without map");
      if (first == occurrences_.size()) {
        out_ += "{}";
      } else {
        map(*entry, bytes, first, occurrences_.size(), depth, level);
      }
    } else if (kind == WellKnown::listValue) {
      if (first == occurrences_.size() || !repeated(occurrences_[first].field->type(), bytes, first,
                                                    occurrences_.size(), depth, level)) {
        out_ += "[]";
      }
    } else {
      // Of the kinds of a Value (a oneof), the last in the bytes is the one set.
      if (first == occurrences_.size()) {
        throw SchematizerError::unexpectedType("google.protobuf.Value with no kind set");
      }
      const Occurrence kindField = occurrences_.back();
      Reader reader = readerAt(bytes, kindField.position);
      const TypeSchemaDescription& type = kindField.field->type();
      if (kindField.fieldNumber == 2) {
        const double number = decodeValue(reader, type, kindField.wireType).doubleValue();
        if (!std::isfinite(number)) {
          throw SchematizerError::unexpectedType("google.protobuf.Value number " +
                                                 std::to_string(number) + " has no JSON form");
        }
        floatingPoint(number);
      } else {
        value(type, reader, kindField.wireType, depth, level);
      }
    }
  }

  void scalar(const detail::AnyValueImpl& value) {
    switch (value.kind()) {
      case detail::AnyValueImpl::Case::int32:
        number(value.int32Value());
        return;
      case detail::AnyValueImpl::Case::uint32:
        number(value.uint32Value());
        return;
      case detail::AnyValueImpl::Case::int64:
        quotedNumber(value.int64Value());
        return;
      case detail::AnyValueImpl::Case::uint64:
        quotedNumber(value.uint64Value());
        return;
      case detail::AnyValueImpl::Case::float_:
        floatingPoint(value.floatValue());
        return;
      case detail::AnyValueImpl::Case::double_:
        floatingPoint(value.doubleValue());
        return;
      case detail::AnyValueImpl::Case::bool_:
        out_ += value.boolValue() ? "true" : "false";
        return;
      case detail::AnyValueImpl::Case::enum_:
        enumValue(*value.enumValue().type, value.enumValue().number());
        return;
      case detail::AnyValueImpl::Case::string:
        string(value.stringValue());
        return;
      case detail::AnyValueImpl::Case::bytes:
      case detail::AnyValueImpl::Case::message:
        break;
    }
    throw SchematizerError::internalError("JSON rendering of " + value.describe());
  }

  void enumValue(const EnumSchemaDescribing& schema, int64_t value) {
    if (&schema != lastEnum_) {
      lastEnum_ = &schema;
      lastEnumIsNull_ = schema.name() == "google.protobuf.NullValue";
    }
    if (lastEnumIsNull_) {
      out_ += "null";
    } else if (const std::string* name =
                   options_.enumsAsNumbers ? nullptr : schema.findValueNameFor(value)) {
      string(*name);
    } else {
      number(value);
    }
  }

  // The value a field of `type` has when the bytes do not hold it.
  void defaultValue(const TypeSchemaDescription& type) {
    if (type.kind() == Case::enum_) {
      enumValue(*type.enumSchema(), 0);
    } else if (type.kind() == Case::message) {
      // The JSON forms of the well-known types' empty messages: "{}" for most, but a Timestamp is
      // the epoch, a wrapper its default, a ListValue "[]".
      const auto& schema = *type.messageSchema();
      if (detail::wellKnownKind(schema) == WellKnown::none) {
        out_ += "{}";
      } else {
        messageValue(schema, ByteView{}, kMaxMessageDepth - 1, 0);
      }
    } else {
      out_ += detail::fieldTypeRow(type.kind()).jsonDefault;
    }
  }

  static std::string keyText(const detail::AnyValueImpl& key) {
    switch (key.kind()) {
      case detail::AnyValueImpl::Case::bool_:
        return key.boolValue() ? "true" : "false";
      case detail::AnyValueImpl::Case::string:
        return key.stringValue();
      case detail::AnyValueImpl::Case::int32:
        return std::to_string(key.int32Value());
      case detail::AnyValueImpl::Case::uint32:
        return std::to_string(key.uint32Value());
      case detail::AnyValueImpl::Case::int64:
        return std::to_string(key.int64Value());
      case detail::AnyValueImpl::Case::uint64:
        return std::to_string(key.uint64Value());
      default:
        throw SchematizerError::internalError("JSON map key of " + key.describe());
    }
  }

  static std::string defaultKeyText(Case kind) {
    if (kind == Case::string) return "";
    return kind == Case::bool_ ? "false" : "0";
  }

  template <typename Integer>
  void number(Integer value) {
    detail::appendJsonInteger(out_, value);
  }

  template <typename Integer>
  void quotedNumber(Integer value) {
    out_.push_back('"');
    number(value);
    out_.push_back('"');
  }

  template <typename Float>
  void floatingPoint(Float value) {
    detail::appendJsonFloat(out_, value);
  }

  void string(std::string_view text) { detail::appendJsonString(out_, text); }

  // The text of a field that failed, logged and emitted as the field's value.
  void fieldError(std::string_view fieldName, std::string_view errorText) {
    std::string text = "Sch: Error encoding ";
    text += fieldName;
    text += ": ";
    text += errorText;
    detail::log(text);
    string(text);
  }

  // An extension as "[its.full.name]", whatever the naming option; the message's own fields by
  // their declared or their JSON names.
  const std::string& memberName(const FieldSchemaDescribing& field) {
    const std::optional<std::string>& extension = field.extensionName();
    if (!extension && !options_.jsonNames) return field.name();
    auto [it, added] = memberNames_.try_emplace(&field);
    if (added)
      it->second =
          extension ? detail::extensionMemberName(*extension) : detail::jsonName(field.name());
    return it->second;
  }

  void key(std::string_view name) {
    string(name);
    if (indented_) {
      out_ += ": ";
    } else {
      out_.push_back(':');
    }
  }

  // Starts a member or element at `level`: a comma after an earlier one, then the line break.
  // Where the sink takes the text: nothing written so far can be withdrawn past this point.
  void separate(bool any, int level) {
    if (sink_ && holds_ == 0 && out_.size() >= kFlushSize) {
      (*sink_)(out_);
      flushed_ += out_.size();
      out_.clear();
    }
    if (any) out_.push_back(',');
    newline(level);
  }

  void newline(int level) {
    if (!indented_) return;
    out_.push_back('\n');
    out_.append(static_cast<size_t>(2 * level), ' ');
  }

  // Where the text stands, counting what the sink has taken.
  size_t position() const noexcept { return flushed_ + out_.size(); }

  void rollback(size_t to) {
    if (to < flushed_) {
      throw SchematizerError::internalError("JSON rendering: a failed field was streamed already");
    }
    out_.resize(to - flushed_);
  }

  static Reader readerAt(ByteView bytes, int64_t position) {
    Reader reader(bytes);
    reader.setPosition(position);
    return reader;
  }

  std::string& out_;
  const JsonOptions& options_;
  const bool indented_;
  const JsonSink* const sink_;
  // The text handed to the sink so far.
  size_t flushed_ = 0;
  // While above zero, the text stays in the buffer.
  int holds_ = 0;
  // The gathered occurrences of the messages being rendered, innermost last.
  std::vector<Occurrence> occurrences_;
  std::unordered_map<const FieldSchemaDescribing*, std::string> memberNames_;
  const EnumSchemaDescribing* lastEnum_ = nullptr;
  bool lastEnumIsNull_ = false;
};

}  // namespace

std::string renderJSON(const SchematizedDataDescribing& data, const JsonOptions& options) {
  const ByteView bytes = data.bytes();
  std::string out;
  // Protobuf's binary form is compact: JSON text of the same data is typically one to three times
  // as long.
  out.reserve(2 * bytes.size() + 16);
  Renderer(out, options).topLevel(*data.messageSchema(), bytes);
  return out;
}

std::string renderJSON(const SchematizedDataDescribing& data, JsonStyle style) {
  JsonOptions options;
  options.style = style;
  return renderJSON(data, options);
}

void renderJSON(const SchematizedDataDescribing& data, const JsonSink& sink,
                const JsonOptions& options) {
  std::string buffer;
  buffer.reserve(kFlushSize + kFlushSize / 4);
  Renderer renderer(buffer, options, &sink);
  renderer.topLevel(*data.messageSchema(), data.bytes());
  renderer.finish();
}

void renderJSON(const SchematizedDataDescribing& data, std::ostream& out,
                const JsonOptions& options) {
  renderJSON(
      data,
      [&](std::string_view text) {
        out.write(text.data(), static_cast<std::streamsize>(text.size()));
      },
      options);
}

std::string toJSON(const SchematizedData& data, JsonStyle style) {
  return renderJSON(data.unsafe(), style);
}

std::string toJSON(const SchematizedData& data, const JsonOptions& options) {
  return renderJSON(data.unsafe(), options);
}

std::string toJSON(const AnyValue& value, JsonStyle style) {
  const detail::AnyValueImpl impl = value.impl();
  std::string out;
  JsonOptions options;
  options.style = style;
  Renderer(out, options).anyValue(impl);
  return out;
}

std::optional<std::string> optionsJSON(const MessageSchema& schema, JsonStyle style) {
  const std::optional<SchematizedData>& options = schema.options();
  if (!options) return std::nullopt;
  return toJSON(*options, style);
}

}  // namespace ostrel
