#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <deque>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "core/base64.hpp"
#include "core/field_type_facts.hpp"
#include "core/json_input.hpp"
#include "core/json_text.hpp"
#include "core/nesting.hpp"
#include "ostrel/core/errors.hpp"
#include "ostrel/core/interrupts.hpp"
#include "ostrel/core/values.hpp"
#include "ostrel/output/json.hpp"
#include "output/field_value_writing.hpp"
#include "output/well_known.hpp"
#include "output/wire_buffer.hpp"
#include "store/map_entry.hpp"
#include "wire/scalar_decoding.hpp"

namespace ostrel {
namespace {

namespace ondemand = simdjson::ondemand;
using Case = TypeSchemaDescription::Case;
using detail::JsonTextFault;
using detail::take;
using detail::WellKnown;
using JsonType = ondemand::json_type;

// A message adds at most two levels of JSON (its object, and the array or map object it stands
// in); deeper text could never encode.
constexpr size_t kMaxDocumentDepth = 2 * detail::kMaxMessageNesting + 1;

// Messages nested this deep have the whole text checked before the encoder descends further. The
// encoder takes a few hundred bytes of stack for each message it is in (several kilobytes under
// sanitizers); a text nested far deeper than the limit is then refused from a shallow stack,
// rather than after the encoder descended a hundred messages into it.
constexpr int kCheckedNesting = 8;

// How many value names of an enum field the encoder remembers, compared one by one before the
// enum's own lookup.
constexpr size_t kRememberedEnumNames = 16;

// Where a value stands in the document. Built on the stack as the encoder descends and turned into
// text only for an error, so that the common case spends nothing on paths.
struct Path {
  enum class Kind : uint8_t { root, member, element, key };

  const Path* parent = nullptr;
  Kind kind = Kind::root;
  std::string_view name;
  size_t index = 0;

  Path member(std::string_view memberName) const { return {this, Kind::member, memberName, 0}; }
  Path element(size_t elementIndex) const { return {this, Kind::element, {}, elementIndex}; }
  Path key(std::string_view keyText) const { return {this, Kind::key, keyText, 0}; }

  // How many containers of the text hold the value at this path.
  size_t depth() const noexcept {
    size_t depth = 0;
    for (const Path* p = parent; p; p = p->parent) ++depth;
    return depth;
  }

  // "$.mids[1].leaf", "$.counts[\"a\"]".
  std::string text() const {
    std::vector<const Path*> chain;
    for (const Path* p = this; p; p = p->parent) chain.push_back(p);
    std::string out;
    for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
      const Path& p = **it;
      switch (p.kind) {
        case Kind::root:
          out += '$';
          break;
        case Kind::member:
          out += '.';
          out += p.name;
          break;
        case Kind::element:
          out += '[' + std::to_string(p.index) + ']';
          break;
        case Kind::key:
          out += '[' + detail::jsonString(p.name) + ']';
          break;
      }
    }
    return out;
  }
};

[[noreturn]] void expected(const Path& path, std::string_view what) {
  throw SchematizerError::unexpectedType(path.text() + ": expected " + std::string(what));
}

// The whole of `text` as a decimal integer of type T, or no value when it is not one; `outOfRange`
// is set when it is a decimal integer that T cannot hold.
template <typename T>
std::optional<T> parseInteger(std::string_view text, bool& outOfRange) {
  const char* const begin = text.data();
  const char* const end = begin + text.size();
  if (begin != end && *begin == '-') {
    int64_t value = 0;
    const auto [ptr, ec] = std::from_chars(begin, end, value);
    if (ptr != end || (ec != std::errc() && ec != std::errc::result_out_of_range)) {
      return std::nullopt;
    }
    if (ec == std::errc::result_out_of_range || !std::in_range<T>(value)) {
      outOfRange = true;
      return std::nullopt;
    }
    return static_cast<T>(value);
  }
  uint64_t value = 0;
  const auto [ptr, ec] = std::from_chars(begin, end, value);
  if (ptr != end || (ec != std::errc() && ec != std::errc::result_out_of_range)) {
    return std::nullopt;
  }
  if (ec == std::errc::result_out_of_range || !std::in_range<T>(value)) {
    outOfRange = true;
    return std::nullopt;
  }
  return static_cast<T>(value);
}

// `value` (of JSON type `type`) as an integer of type T, which the field type `typeName` holds: a
// JSON number that is an exact integer, or a decimal string.
template <typename T>
T integer(ondemand::value& value, JsonType type, const Path& path, std::string_view typeName) {
  bool outOfRange = false;
  std::optional<T> result;
  if (type == JsonType::number) {
    const detail::JsonNumber number = detail::readNumber(value);
    if (number.kind == detail::JsonNumber::Kind::integer) {
      if (std::in_range<T>(number.nonNegative)) result = static_cast<T>(number.nonNegative);
      outOfRange = !result;
    } else if (number.kind == detail::JsonNumber::Kind::negativeInteger) {
      if (std::in_range<T>(number.negative)) result = static_cast<T>(number.negative);
      outOfRange = !result;
    } else if (const double real = number.real; std::isfinite(real) && std::trunc(real) == real) {
      // Both bounds are powers of two, exact as doubles.
      constexpr double kTwoTo63 = 9223372036854775808.0;
      if (real >= -kTwoTo63 && real < kTwoTo63) {
        const auto whole = static_cast<int64_t>(real);
        if (std::in_range<T>(whole)) result = static_cast<T>(whole);
      } else if (real >= 0 && real < 2 * kTwoTo63) {
        const auto whole = static_cast<uint64_t>(real);
        if (std::in_range<T>(whole)) result = static_cast<T>(whole);
      }
      outOfRange = !result;
    }
  } else if (type == JsonType::string) {
    result = parseInteger<T>(take(value.get_string()), outOfRange);
  }
  if (result) return *result;
  if (outOfRange) expected(path, "an integer in the range of " + std::string(typeName));
  expected(path, "an integer of type " + std::string(typeName));
}

// `value` as a double: a JSON number, a numeric string, or one of the strings of the special
// values.
double realNumber(ondemand::value& value, JsonType type, const Path& path,
                  std::string_view typeName) {
  if (type == JsonType::number) {
    const double number = detail::readNumber(value).asDouble();
    if (std::isfinite(number)) return number;
  } else if (type == JsonType::string) {
    const std::string_view text = take(value.get_string());
    if (text == "NaN") return std::numeric_limits<double>::quiet_NaN();
    if (text == "Infinity") return std::numeric_limits<double>::infinity();
    if (text == "-Infinity") return -std::numeric_limits<double>::infinity();
    double number = 0;
    const auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), number);
    // from_chars also reads "inf" and "nan"; only the three spellings above stand for those.
    if (ec == std::errc() && ptr == text.data() + text.size() && std::isfinite(number)) {
      return number;
    }
  }
  expected(path, "a number of type " + std::string(typeName));
}

float floatNumber(ondemand::value& value, JsonType type, const Path& path) {
  const double number = realNumber(value, type, path, "float");
  // Halfway between the largest float and 2^128: anything below rounds to a finite float. The
  // shortest text of the largest float, 3.4028235e+38, reads as a double a little above it and
  // must still be taken.
  constexpr double kFloatOverflow = 0x1.ffffffp127;
  if (std::isfinite(number) && std::fabs(number) >= kFloatOverflow) {
    expected(path, "a number in the range of float");
  }
  return static_cast<float>(number);
}

// A null the encoder takes as a value (or passes over) must still be the literal null.
void readNull(ondemand::value& value) {
  if (!take(value.is_null())) throw JsonTextFault{simdjson::N_ATOM_ERROR};
}

struct MessageEntry;

// A field as the encoder writes it. Its type is resolved when the field first occurs in the text,
// so that a field whose type the store cannot resolve fails only when it is used.
struct FieldEntry {
  const FieldSchemaDescribing* schema = nullptr;
  // In the message's fields, for telling whether it was given twice.
  size_t index = 0;
  bool resolved = false;
  Case kind = Case::int32;
  bool repeated = false;
  // Whether null is a value of the field (google.protobuf.Value, NullValue), not its absence.
  bool nullIsValue = false;
  // Whether the field is left out when it holds its default (FieldManifest::implicitPresence).
  bool implicitPresence = false;
  // The index of the field's oneof, or -1.
  int32_t oneof = -1;
  // The field number and wire type as one varint.
  uint64_t key = 0;
  int64_t number = 0;
  std::string_view name;
  const TypeSchemaDescription* type = nullptr;
  // Of a message field.
  MessageEntry* message = nullptr;
  // Of a message field written as a group: the start-group key (`key` is the end-group key).
  std::optional<uint64_t> groupStart;
  // Of a repeated message field: whether its type is a map entry, and the entry's key and value
  // fields, looked at when the field first holds a value.
  enum class Map : uint8_t { unknown, no, yes } map = Map::unknown;
  FieldEntry* mapKey = nullptr;
  FieldEntry* mapValue = nullptr;
  // Of an enum field: the value names it was given so far (the first few), with their numbers.
  std::vector<std::pair<std::string, int32_t>> enumNames;
};

struct StringHash {
  using is_transparent = void;
  size_t operator()(std::string_view text) const noexcept {
    return std::hash<std::string_view>{}(text);
  }
};

// A message schema as the encoder uses it.
struct MessageEntry {
  // Member names to their fields, and each name's place among them (for telling a name given
  // twice); filled on first use.
  struct Name {
    FieldEntry* field;
    size_t index;
    // The name itself, as `names` keeps it.
    std::string_view text;
  };

  std::shared_ptr<MessageSchemaDescribing> owner;
  const MessageSchemaDescribing* schema = nullptr;
  WellKnown kind = WellKnown::none;
  // A deque: entries point at each other, and adding one moves none.
  std::deque<FieldEntry> fields;
  std::unordered_map<const FieldSchemaDescribing*, FieldEntry*> byField;
  bool namesBuilt = false;
  std::unordered_map<std::string, Name, StringHash, std::equal_to<>> names;
  // The names the last object of this message had, by position: objects of one message mostly
  // list the same members in the same order, which one comparison then finds.
  std::vector<const Name*> lastOrder;

  // The name at `position` of the last object, when it is `name`; else null.
  const Name* predicted(size_t position, std::string_view name) const {
    // A position where an ignored member stood holds null.
    if (position < lastOrder.size() && lastOrder[position] && lastOrder[position]->text == name) {
      return lastOrder[position];
    }
    return nullptr;
  }

  void remember(size_t position, const Name& name) {
    if (position >= lastOrder.size()) lastOrder.resize(position + 1);
    lastOrder[position] = &name;
  }

  FieldEntry& entryFor(const FieldSchemaDescribing& field) {
    auto [it, added] = byField.try_emplace(&field, nullptr);
    if (added) {
      FieldEntry& entry = fields.emplace_back();
      entry.schema = &field;
      entry.index = fields.size() - 1;
      it->second = &entry;
    }
    return *it->second;
  }

  // The field a member names: by its declared name, its JSON name (json_name or lowerCamelCase), or
  // for an extension "[its.full.name]". Any other name fails with the schema's own error.
  const Name& named(std::string_view name) {
    if (!namesBuilt) {
      const auto& byNumber = schema->fieldsByNumber();
      // Declared names first, so that they win over a JSON name that happens to be the same.
      for (const auto& [number, field] : byNumber) addName(field->name(), *field);
      for (const auto& [number, field] : byNumber) {
        addName(field->jsonName(), *field);
        if (const auto& extension = field->extensionName()) {
          addName(detail::extensionMemberName(*extension), *field);
        }
      }
      namesBuilt = true;
    }
    if (const auto found = names.find(name); found != names.end()) return found->second;
    const std::string owned(name);
    const std::shared_ptr<FieldSchemaDescribing>& field = schema->fieldNamed(owned);
    return addName(owned, *field);
  }

  // named(), or null for a name that is no field's.
  const Name* findNamed(std::string_view name) {
    try {
      return &named(name);
    } catch (const SchematizerError& error) {
      if (error.code() != SchematizerError::Code::fieldNotFound) throw;
      return nullptr;
    }
  }

  const Name& addName(std::string name, const FieldSchemaDescribing& field) {
    const size_t index = names.size();
    const auto [it, added] = names.try_emplace(std::move(name), Name{&entryFor(field), index, {}});
    it->second.text = it->first;
    return it->second;
  }
};

// Which of the small numbers an object's members used, kept in a word while they are below 64.
class IndexSet {
 public:
  // Adds `index`; false when it was there already.
  bool insert(size_t index) {
    if (index < 64) {
      const uint64_t bit = uint64_t{1} << index;
      if (low_ & bit) return false;
      low_ |= bit;
      return true;
    }
    index -= 64;
    if (index >= high_.size()) high_.resize(index + 1);
    if (high_[index]) return false;
    high_[index] = true;
    return true;
  }

 private:
  uint64_t low_ = 0;
  std::vector<bool> high_;
};

// The hashes of one map object's keys, for telling a key given twice once all of them are read.
// Linear and cache-friendly however large the map: the hashes are split by their top bits into
// groups of a few hundred, each checked in a small table that stays in the cache. Two keys of one
// hash are most likely the same key, but only comparing them tells: the caller reads the keys
// again then.
class KeyHashes {
 public:
  void insert(std::string_view key) {
    const uint64_t hash = std::hash<std::string_view>{}(key);
    // Zero marks an empty slot of the tables below; a hash of zero counts as one.
    const uint64_t kept = hash == 0 ? 1 : hash;
    if (count_ < kFew) {
      few_[count_++] = kept;
      return;
    }
    if (count_++ == kFew) many_.assign(few_.begin(), few_.end());
    many_.push_back(kept);
  }

  // Whether two of the hashes are the same.
  bool anySame() const {
    if (count_ <= kFew) {
      for (size_t i = 1; i < count_; ++i) {
        for (size_t j = 0; j < i; ++j) {
          if (few_[i] == few_[j]) return true;
        }
      }
      return false;
    }
    // Groups of about 512 hashes, by their top bits.
    const int bits = std::clamp(static_cast<int>(std::bit_width(count_)) - 9, 0, 12);
    const auto groupOf = [bits](uint64_t hash) {
      return bits == 0 ? size_t{0} : static_cast<size_t>(hash >> (64 - bits));
    };
    std::vector<size_t> start((size_t{1} << bits) + 1, 0);
    for (const uint64_t hash : many_) ++start[groupOf(hash) + 1];
    for (size_t group = 1; group < start.size(); ++group) start[group] += start[group - 1];
    std::vector<uint64_t> grouped(count_);
    {
      std::vector<size_t> next(start);
      for (const uint64_t hash : many_) grouped[next[groupOf(hash)]++] = hash;
    }
    std::vector<uint64_t> table;
    for (size_t group = 0; group + 1 < start.size(); ++group) {
      const size_t size = start[group + 1] - start[group];
      table.assign(std::bit_ceil(std::max<size_t>(2 * size, 16)), 0);
      const size_t mask = table.size() - 1;
      for (size_t i = start[group]; i < start[group + 1]; ++i) {
        const uint64_t hash = grouped[i];
        size_t at = hash & mask;
        for (; table[at] != 0; at = (at + 1) & mask) {
          if (table[at] == hash) return true;
        }
        table[at] = hash;
      }
    }
    return false;
  }

 private:
  static constexpr size_t kFew = 16;

  size_t count_ = 0;
  std::array<uint64_t, kFew> few_{};
  std::vector<uint64_t> many_;
};

// Writes the message a JSON text describes as it reads the text: each member's field goes out as
// soon as its value is read, nested messages in place.
class Encoder {
 public:
  Encoder(std::string_view text, detail::WireBuffer& out, const JsonParseOptions& options)
      : text_(text), out_(out), options_(options) {}

  // The top-level message: a well-known type in its JSON form, any other as an object.
  void document(const MessageSchemaDescribing& schema, ondemand::value& root) {
    MessageEntry& entry = messageEntry(schema, nullptr);
    const JsonType type = take(root.type());
    if (entry.kind != WellKnown::none) {
      wellKnown(entry, root, type, Path{}, 1);
    } else {
      message(entry, root, type, Path{}, 1);
    }
  }

 private:
  MessageEntry& messageEntry(const MessageSchemaDescribing& schema,
                             std::shared_ptr<MessageSchemaDescribing> owner) {
    auto [it, added] = messages_.try_emplace(&schema);
    if (added) {
      it->second = std::make_unique<MessageEntry>();
      it->second->owner = std::move(owner);
      it->second->schema = &schema;
      it->second->kind = detail::wellKnownKind(schema);
    }
    return *it->second;
  }

  FieldEntry& resolve(FieldEntry& entry) {
    if (entry.resolved) return entry;
    const FieldSchemaDescribing& field = *entry.schema;
    const TypeSchemaDescription& type = field.type();
    entry.type = &type;
    entry.kind = type.kind();
    entry.repeated = field.isRepeated();
    entry.number = field.fieldNumber();
    entry.name = field.name();
    entry.implicitPresence = field.hasImplicitPresence() && !entry.repeated;
    entry.oneof = field.oneofIndex().value_or(-1);
    entry.key = detail::fieldKey(entry.number, detail::factsOf(entry.kind).wireType);
    if (entry.kind == Case::message) {
      if (field.isDelimited()) {
        entry.groupStart = detail::fieldKey(entry.number, ProtoWireType::startGroup);
        entry.key = detail::fieldKey(entry.number, ProtoWireType::endGroup);
      }
      entry.message = &messageEntry(*type.messageSchema(), type.messageSchema());
      entry.nullIsValue = entry.message->kind == WellKnown::value;
    } else if (entry.kind == Case::enum_) {
      entry.nullIsValue = detail::isNullValue(type);
    }
    entry.resolved = true;
    return entry;
  }

  // Whether `entry` (resolved, repeated) is a map field.
  bool isMap(FieldEntry& entry) {
    if (entry.map == FieldEntry::Map::unknown) {
      const std::optional<detail::MapEntryFields> fields =
          entry.kind == Case::message ? detail::mapEntryFields(*entry.message->schema)
                                      : std::nullopt;
      if (fields) {
        entry.mapKey = &entry.message->entryFor(*fields->key);
        entry.mapValue = &entry.message->entryFor(*fields->value);
      }
      entry.map = fields ? FieldEntry::Map::yes : FieldEntry::Map::no;
    }
    return entry.map == FieldEntry::Map::yes;
  }

  // `value` as a message of `entry`: an object.
  void message(MessageEntry& entry, ondemand::value& value, JsonType type, const Path& path,
               int depth) {
    if (type != JsonType::object) expected(path, "an object");
    ondemand::object object = take(value.get_object());
    members(entry, object, path, depth, false);
  }

  // The members of `object` as fields of `entry`; the member "@type" is passed over when `inAny`
  // (the object is the content of an Any, whose "@type" any() has already read, and found once).
  void members(MessageEntry& entry, ondemand::object& object, const Path& path, int depth,
               bool inAny) {
    IndexSet names;
    IndexSet fields;
    // The member given for each oneof so far.
    std::vector<const FieldEntry*> oneofs;
    size_t position = 0;
    for (auto member : object) {
      detail::pollInterrupt();
      ondemand::field field = take(std::move(member));
      const std::string_view name = detail::memberName(field, scratch_);
      if (inAny && name == "@type") continue;
      const MessageEntry::Name* found = entry.predicted(position, name);
      if (!found) {
        found = options_.ignoreUnknownFields ? entry.findNamed(name) : &entry.named(name);
        if (found) entry.remember(position, *found);
      }
      ++position;
      if (!found) {
        // A member ignored is still read in full, as the text's own faults are found anywhere.
        detail::checkValue(field.value(), kMaxDocumentDepth - path.depth() - 1);
        continue;
      }
      const MessageEntry::Name& named = *found;
      if (!names.insert(named.index)) throw JsonTextFault{};
      FieldEntry& target = resolve(*named.field);
      const Path memberPath = path.member(target.name);
      ondemand::value& value = field.value();
      const JsonType type = take(value.type());
      if (type == JsonType::null && (target.repeated || !target.nullIsValue)) {
        // null leaves a field out, except where it is a value: a google.protobuf.Value or
        // NullValue field is then set to null.
        readNull(value);
        continue;
      }
      if (target.oneof >= 0) {
        for (const FieldEntry* member : oneofs) {
          if (member->oneof == target.oneof && member != &target) {
            expected(memberPath,
                     "one member of a oneof, found \"" + std::string(member->name) + "\" too");
          }
        }
        oneofs.push_back(&target);
      }
      const size_t start = out_.size();
      fieldValues(target, value, type, memberPath, depth);
      if (!fields.insert(target.index)) {
        expected(memberPath, "the field once, under one of its names");
      }
      if (target.implicitPresence) leaveOutDefault(start);
    }
  }

  // Takes back the field written from `start` when it holds its default: a field without presence
  // of its own is written only when it differs from it. Its value is then all zero bytes (a varint
  // 0, a length 0, zero fixed-width bits), the key being its only other byte or bytes.
  void leaveOutDefault(size_t start) {
    const ByteView written = out_.view().subspan(start);
    size_t keyEnd = 0;
    while (keyEnd < written.size() && (std::to_integer<uint8_t>(written[keyEnd]) & 0x80) != 0) {
      ++keyEnd;
    }
    for (size_t i = keyEnd + 1; i < written.size(); ++i) {
      if (written[i] != std::byte{0}) return;
    }
    out_.truncate(start);
  }

  // The values of `field` that `value` gives: one, or for a repeated field its elements, or for a
  // map field its entries.
  void fieldValues(FieldEntry& field, ondemand::value& value, JsonType type, const Path& path,
                   int depth) {
    if (!field.repeated) return single(field, value, type, path, depth);
    if (isMap(field)) {
      if (type != JsonType::object) expected(path, "an object");
      ondemand::object object = take(value.get_object());
      KeyHashes keys;
      for (auto member : object) {
        detail::pollInterrupt();
        ondemand::field entry = take(std::move(member));
        std::string_view key = detail::memberName(entry, scratch_);
        // A key with escapes is decoded into scratch_, which the entry's value may reuse.
        std::string decoded;
        if (key.data() == scratch_.data()) key = decoded.assign(key);
        keys.insert(key);
        mapEntry(field, key, entry.value(), path.key(key), depth);
      }
      // A key given twice is the text's own fault, which the caller names.
      if (keys.anySame()) requireDistinctKeys(object);
      return;
    }
    if (type != JsonType::array) expected(path, "an array");
    ondemand::array array = take(value.get_array());
    size_t index = 0;
    for (auto element : array) {
      detail::pollInterrupt();
      ondemand::value elementValue = take(std::move(element));
      single(field, elementValue, take(elementValue.type()), path.element(index++), depth);
    }
  }

  // Throws JsonTextFault when `object`, read in full, has a member name twice: reads the names
  // again.
  void requireDistinctKeys(ondemand::object& object) {
    take(object.reset());
    std::unordered_set<std::string> keys;
    for (auto member : object) {
      ondemand::field entry = take(std::move(member));
      if (!keys.emplace(detail::memberName(entry, scratch_)).second) throw JsonTextFault{};
    }
  }

  // One entry of a map field, key and value both written.
  void mapEntry(FieldEntry& field, std::string_view keyText, ondemand::value& value,
                const Path& path, int depth) {
    const size_t mark = out_.beginNested(field.key);
    mapKey(resolve(*field.mapKey), keyText, path);
    FieldEntry& valueField = resolve(*field.mapValue);
    single(valueField, value, take(value.type()), path, depth);
    out_.endNested(mark);
  }

  void mapKey(FieldEntry& key, std::string_view text, const Path& path) {
    switch (key.kind) {
      case Case::string:
        return out_.lengthDelimited(key.key, text);
      case Case::bool_:
        if (text != "true" && text != "false") expected(path, "a key of type bool");
        out_.varint(key.key);
        return out_.varint(text == "true" ? 1 : 0);
      default: {
        bool outOfRange = false;
        const std::string_view typeName = caseName(key.kind);
        const auto check = [&](const auto& parsed) {
          if (!parsed) {
            expected(path, (outOfRange ? "an integer in the range of " : "an integer of type ") +
                               std::string(typeName));
          }
          return *parsed;
        };
        return withIntegerType(key.kind, [&](auto zero) {
          return writeInteger(key, check(parseInteger<decltype(zero)>(text, outOfRange)));
        });
      }
    }
  }

  // Calls `use` with a zero of the C++ integer type a field of integer type `kind` is written
  // from: int32_t, uint32_t, int64_t or uint64_t.
  template <typename Use>
  static void withIntegerType(Case kind, const Use& use) {
    switch (detail::factsOf(kind).writtenCase()) {
      case detail::AnyValueImpl::Case::uint32:
        return use(uint32_t{});
      case detail::AnyValueImpl::Case::int64:
        return use(int64_t{});
      case detail::AnyValueImpl::Case::uint64:
        return use(uint64_t{});
      default:
        return use(int32_t{});
    }
  }

  // Writes `value`, an integer of the width and signedness `field`'s type takes, in that type's
  // encoding.
  template <typename T>
  void writeInteger(const FieldEntry& field, T value) {
    out_.varint(field.key);
    const detail::FieldTypeFacts& facts = detail::factsOf(field.kind);
    if (facts.wireType == ProtoWireType::fixed32) return out_.fixed32(static_cast<uint32_t>(value));
    if (facts.wireType == ProtoWireType::fixed64) return out_.fixed64(static_cast<uint64_t>(value));
    if (facts.zigZag) {
      return out_.varint(facts.valueCase == detail::AnyValueImpl::Case::int32
                             ? detail::WireBuffer::zigZag32(static_cast<int32_t>(value))
                             : detail::WireBuffer::zigZag64(static_cast<int64_t>(value)));
    }
    // int32 and enum values are sign-extended to ten bytes when negative, as protobuf's are.
    return out_.varint(static_cast<uint64_t>(static_cast<int64_t>(value)));
  }

  // One value of `field`, key and value.
  void single(FieldEntry& field, ondemand::value& value, JsonType type, const Path& path,
              int depth) {
    switch (field.kind) {
      case Case::float_: {
        const float number = floatNumber(value, type, path);
        out_.varint(field.key);
        return out_.fixed32(std::bit_cast<uint32_t>(number));
      }
      case Case::double_: {
        const double number = realNumber(value, type, path, "double");
        out_.varint(field.key);
        return out_.fixed64(std::bit_cast<uint64_t>(number));
      }
      case Case::bool_: {
        if (type != JsonType::boolean) expected(path, "a boolean");
        const bool flag = take(value.get_bool());
        out_.varint(field.key);
        return out_.varint(flag ? 1 : 0);
      }
      case Case::string:
        if (type != JsonType::string) expected(path, "a string");
        return out_.lengthDelimited(field.key, take(value.get_string()));
      case Case::bytes: {
        if (type == JsonType::string) {
          // Decoded straight into the buffer, behind its length.
          const std::string_view text = take(value.get_string());
          if (const std::optional<size_t> size = detail::base64DecodedSize(text)) {
            out_.varint(field.key);
            out_.varint(*size);
            if (detail::base64DecodeEitherAlphabet(text, out_.extend(*size))) return;
          }
        }
        expected(path, "a base64 string");
      }
      case Case::enum_:
        return writeInteger(field, enumNumber(field, value, type, path));
      case Case::message: {
        descending(depth);
        MessageEntry& nested = *field.message;
        const auto content = [&] {
          if (nested.kind == WellKnown::none) {
            message(nested, value, type, path, depth + 1);
          } else {
            wellKnown(nested, value, type, path, depth + 1);
          }
        };
        if (field.groupStart) {
          out_.varint(*field.groupStart);
          content();
          return out_.varint(field.key);
        }
        const size_t mark = out_.beginNested(field.key);
        content();
        return out_.endNested(mark);
      }
      default:
        return withIntegerType(field.kind, [&](auto zero) {
          return writeInteger(field,
                              integer<decltype(zero)>(value, type, path, caseName(field.kind)));
        });
    }
  }

  // An enum value: its name, its number, or its number as a decimal string; null for NullValue.
  // Taken as an int32, which an enum field takes as it is: negative numbers too.
  int32_t enumNumber(FieldEntry& field, ondemand::value& value, JsonType type, const Path& path) {
    if (type == JsonType::null && field.nullIsValue) {
      readNull(value);
      return 0;
    }
    if (type == JsonType::string) {
      const std::string_view text = take(value.get_string());
      // Names already looked up, which no decimal integer is.
      for (const auto& [name, number] : field.enumNames) {
        if (name == text) return number;
      }
      bool outOfRange = false;
      if (const auto number = parseInteger<int32_t>(text, outOfRange)) return *number;
      if (outOfRange) expected(path, "an integer in the range of int32");
      const int64_t number = field.type->enumSchema()->valueNamed(text);
      if (!std::in_range<int32_t>(number)) expected(path, "an integer in the range of int32");
      if (field.enumNames.size() < kRememberedEnumNames) {
        field.enumNames.emplace_back(text, static_cast<int32_t>(number));
      }
      return static_cast<int32_t>(number);
    }
    if (type != JsonType::number) expected(path, "an enum name or number");
    return integer<int32_t>(value, type, path, "int32");
  }

  // The field of a well-known type's message with the given number; the schema's error when it
  // has none.
  static FieldEntry& wellKnownField(MessageEntry& entry, int64_t number) {
    return entry.entryFor(*entry.schema->fieldWithNumber(number));
  }

  // The field with the given number, or null when the schema has none: the fields of a
  // Timestamp, Duration, FieldMask or Any that a schema leaves out are not written.
  static const FieldSchemaDescribing* optionalField(const MessageEntry& entry, int64_t number) {
    const auto& fields = entry.schema->fieldsByNumber();
    const auto it = fields.find(number);
    return it == fields.end() ? nullptr : it->second.get();
  }

  void writeValue(const MessageEntry& entry, int64_t number, const detail::AnyValueImpl& value) {
    if (const FieldSchemaDescribing* field = optionalField(entry, number)) {
      writeFieldValue(value, *field, out_);
    }
  }

  // The content of a well-known type's message from its JSON form.
  void wellKnown(MessageEntry& entry, ondemand::value& value, JsonType type, const Path& path,
                 int depth) {
    switch (entry.kind) {
      case WellKnown::timestamp:
      case WellKnown::duration: {
        std::optional<detail::SecondsAndNanos> time;
        if (type == JsonType::string) {
          const std::string_view text = take(value.get_string());
          time = entry.kind == WellKnown::timestamp ? detail::parseTimestamp(text)
                                                    : detail::parseDuration(text);
        }
        if (!time) {
          expected(path, entry.kind == WellKnown::timestamp
                             ? "an RFC 3339 timestamp of years 1 to 9999"
                             : "a duration such as \"-1.5s\" within 315576000000 seconds");
        }
        if (time->seconds != 0) writeValue(entry, 1, detail::AnyValueImpl::int64(time->seconds));
        if (time->nanos != 0) writeValue(entry, 2, detail::AnyValueImpl::int32(time->nanos));
        return;
      }
      case WellKnown::wrapper:
        return single(resolve(wellKnownField(entry, 1)), value, type, path, depth);
      case WellKnown::fieldMask: {
        if (type != JsonType::string) expected(path, "a string of paths");
        const std::string_view text = take(value.get_string());
        for (size_t start = 0; !text.empty() && start <= text.size();) {
          const size_t comma = std::min(text.find(',', start), text.size());
          std::optional<std::string> maskPath =
              detail::fieldMaskPathFromJson(text.substr(start, comma - start));
          // An empty path names no field: "a,,b" and "a," are refused, not kept with a "".
          if (!maskPath || maskPath->empty()) expected(path, "paths in lowerCamelCase");
          writeValue(entry, 1, detail::AnyValueImpl::string(std::move(*maskPath)));
          start = comma + 1;
        }
        return;
      }
      case WellKnown::structType:
        if (type != JsonType::object) expected(path, "an object");
        return fieldValues(resolve(wellKnownField(entry, 1)), value, type, path, depth);
      case WellKnown::listValue:
        if (type != JsonType::array) expected(path, "an array");
        return fieldValues(resolve(wellKnownField(entry, 1)), value, type, path, depth);
      case WellKnown::value: {
        int64_t number = 6;
        switch (type) {
          case JsonType::null:
            number = 1;
            break;
          case JsonType::number:
            number = 2;
            break;
          case JsonType::string:
            number = 3;
            break;
          case JsonType::boolean:
            number = 4;
            break;
          case JsonType::object:
            number = 5;
            break;
          case JsonType::array:
            break;
        }
        FieldEntry& field = resolve(wellKnownField(entry, number));
        if (number != 1) return single(field, value, type, path, depth);
        readNull(value);
        return writeFieldValue(detail::AnyValueImpl::int32(0), *field.schema, out_);
      }
      case WellKnown::any:
        return any(entry, value, type, path, depth);
      case WellKnown::none:
        break;
    }
    message(entry, value, type, path, depth);
  }

  // An Any: "@type" with the type URL, and the packed message's fields (or "value" for a packed
  // well-known type with a JSON form of its own) beside it, "@type" anywhere among them. The
  // object is read twice: once for "@type", which decides how to read the rest, then for the
  // rest. The first pass steps over the other values without reading them.
  void any(MessageEntry& entry, ondemand::value& value, JsonType type, const Path& path,
           int depth) {
    if (type != JsonType::object) expected(path, "an object");
    ondemand::object object = take(value.get_object());
    bool empty = true;
    int typeMembers = 0;
    int valueMembers = 0;
    std::optional<std::string> typeUrl;
    // The first member beside "@type" and "value", for a packed well-known type.
    std::optional<std::string> stray;
    for (auto member : object) {
      ondemand::field field = take(std::move(member));
      empty = false;
      const std::string_view name = detail::memberName(field, scratch_);
      if (name == "@type") {
        if (++typeMembers == 1 && take(field.value().type()) == JsonType::string) {
          typeUrl.emplace(take(field.value().get_string()));
        }
      } else if (name == "value") {
        ++valueMembers;
      } else if (!stray) {
        stray.emplace(name);
      }
    }
    // A member given twice is the text's fault, which the caller reports.
    if (typeMembers > 1 || valueMembers > 1) throw JsonTextFault{};
    if (empty) return;
    if (!typeUrl) expected(path, "an object with a member \"@type\"");
    const std::shared_ptr<MessageSchemaDescribing> packed =
        detail::anyType(*entry.schema, *typeUrl);
    descending(depth);
    MessageEntry& content = messageEntry(*packed, packed);
    writeValue(entry, 1, detail::AnyValueImpl::string(*typeUrl));
    // The content is written in place as field 2, or (for a schema without that field) read and
    // then dropped.
    const FieldSchemaDescribing* const valueField = optionalField(entry, 2);
    const size_t start = out_.size();
    const size_t mark = valueField ? out_.beginNested(detail::fieldKey(
                                         valueField->fieldNumber(), ProtoWireType::lengthDelimited))
                                   : 0;
    take(object.reset());
    if (content.kind == WellKnown::none) {
      members(content, object, path, depth + 1, true);
    } else {
      if (stray) expected(path.member(*stray), "no member beside \"@type\" and \"value\"");
      // "@type" alone is the empty message.
      for (auto member : object) {
        ondemand::field field = take(std::move(member));
        if (detail::memberName(field, scratch_) != "value") continue;
        ondemand::value& packedValue = field.value();
        wellKnown(content, packedValue, take(packedValue.type()), path.member("value"), depth + 1);
      }
    }
    if (valueField) {
      out_.endNested(mark);
    } else {
      out_.truncate(start);
    }
  }

  // Checks the whole text once the encoder is about to nest a message `depth` deep, at the depth
  // that kCheckedNesting sets: JsonInput::check's error for a text with a fault of its own.
  void descending(int depth) {
    detail::checkNesting(depth);
    if (depth == kCheckedNesting && !textChecked_) {
      // A parser of its own: the encoder is still reading the text with the other.
      detail::JsonInput(text_, kMaxDocumentDepth).check();
      textChecked_ = true;
    }
  }

  std::string_view text_;
  bool textChecked_ = false;
  detail::WireBuffer& out_;
  const JsonParseOptions& options_;
  std::unordered_map<const MessageSchemaDescribing*, std::unique_ptr<MessageEntry>> messages_;
  // Member names with escapes, decoded; valid until the next member name is read.
  std::string scratch_;
};

}  // namespace

SchematizedData parseJSON(const MessageSchema& messageSchema, std::string_view json,
                          const JsonParseOptions& options) {
  const MessageSchemaDescribing& schema = *messageSchema.impl();
  detail::JsonInput input(json, kMaxDocumentDepth);
  // Wire bytes mostly take less room than their JSON text (a message's take half to two thirds):
  // room for as many is set aside, of which pages never written cost nothing.
  detail::WireBuffer out(json.size());
  try {
    ondemand::value root = input.root();
    Encoder(json, out, options).document(schema, root);
    input.finish();
  } catch (const JsonTextFault& fault) {
    input.check();
    // The walk found no fault where the encoder did: a fault of the encoder itself.
    throw SchematizerError::internalError(std::string("JSON encoding: ") +
                                          simdjson::error_message(fault.code));
  } catch (...) {
    // The text's own faults come first, wherever they stand, as they would for a parser that
    // reads all of the text before anything is encoded.
    input.check();
    throw;
  }
  return schema.schematizedData(out.data());
}

}  // namespace ostrel
