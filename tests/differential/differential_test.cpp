// Differential tests: seeded random messages of three schemas (proto3 with every field kind; a
// proto2 record with a required field, defaults, groups, extensions and closed enums; the
// well-known types), made and serialized by libprotobuf, then read leaf by leaf, iterated,
// projected, rendered to JSON and to text format, encoded from JSON and from text and built field
// by field through the library, and compared with what libprotobuf holds. Records merged by
// concatenation (every schema) and non-canonical encodings (fields repeated, messages split, oneof
// members and map keys given twice, packed and unpacked runs mixed) are normalized, merged, edited,
// rendered to text format and read exactly, and compared with libprotobuf's parse of the same
// bytes.
//
// Where the library differs by design the comparison says so, field by field, never by leaving a
// message out: a field libprotobuf does not set reads absent even where the schema declares a
// default; the first occurrence of a field is the one read, so a closed enum's numbers that
// libprotobuf keeps among the unknown fields (and writes after the known ones) are read where
// they stand; past a packed run there is nothing; and libprotobuf 3.21's JSON has no extensions.
// Group fields are read as messages (the import option).

#include <google/protobuf/any.pb.h>
#include <google/protobuf/duration.pb.h>
#include <google/protobuf/dynamic_message.h>
#include <google/protobuf/field_mask.pb.h>
#include <google/protobuf/io/tokenizer.h>
#include <google/protobuf/struct.pb.h>
#include <google/protobuf/text_format.h>
#include <google/protobuf/timestamp.pb.h>
#include <google/protobuf/unknown_field_set.h>
#include <google/protobuf/util/json_util.h>
#include <google/protobuf/wire_format_lite.h>
#include <google/protobuf/wrappers.pb.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cctype>
#include <cstring>
#include <deque>
#include <functional>
#include <nlohmann/json.hpp>
#include <random>
#include <ranges>

#include "ostrel/ostrel.hpp"
#include "proto2_record.pb.h"
#include "rich.pb.h"
#include "support/random_message.hpp"
#include "support/reflected_value.hpp"
#include "support/test_support.hpp"
#include "support/wire.hpp"
#include "well_known.pb.h"
#ifdef OSTREL_CONFORMANCE_PROTO3
#include "google/protobuf/test_messages_proto3.pb.h"
#endif

namespace ostrel {
namespace {

namespace pb = google::protobuf;
namespace wkt = test::wkt;
using Field = pb::FieldDescriptor;
using nlohmann::json;
using testing_support::deterministic;

constexpr int64_t kMinSeconds = -62135596800;
constexpr int64_t kMaxSeconds = 253402300799;
constexpr int64_t kMaxDuration = 315576000000;

// Well-known values that their JSON forms can express: Timestamps within years 1 to 9999,
// Durations within their range, Values without NaN, FieldMask paths in snake_case, and Anys of
// plain messages, well-known types and other Anys.
class WellKnownFill {
 public:
  explicit WellKnownFill(testing_support::RandomMessageFiller& filler) : filler_(filler) {}

  // libprotobuf 3.21 forgets always_print_primitive_fields inside an Any packed in an Any: rounds
  // with that option leave such Anys out.
  bool anyOfAny = true;

  bool operator()(pb::Message& message, int depth) {
    if (auto* time = dynamic_cast<pb::Timestamp*>(&message)) {
      time->set_seconds(below(5) == 0 ? between(-100, 100) : between(kMinSeconds, kMaxSeconds));
      time->set_nanos(nanos());
    } else if (auto* duration = dynamic_cast<pb::Duration*>(&message)) {
      const int64_t seconds = below(3) == 0 ? between(-2, 2) : between(-kMaxDuration, kMaxDuration);
      const int32_t fraction = nanos();
      duration->set_seconds(seconds);
      duration->set_nanos(seconds < 0 || (seconds == 0 && below(2) == 0) ? -fraction : fraction);
    } else if (auto* structure = dynamic_cast<pb::Struct*>(&message)) {
      fillStruct(*structure, depth);
    } else if (auto* value = dynamic_cast<pb::Value*>(&message)) {
      fillValue(*value, depth);
    } else if (auto* list = dynamic_cast<pb::ListValue*>(&message)) {
      for (uint64_t n = below(4); n > 0; --n) fillValue(*list->add_values(), depth + 1);
    } else if (auto* mask = dynamic_cast<pb::FieldMask*>(&message)) {
      for (uint64_t n = below(4); n > 0; --n)
        mask->add_paths(below(2) ? "foo_bar.baz" : "ab_cd.e1");
    } else if (auto* any = dynamic_cast<pb::Any*>(&message)) {
      fillAny(*any, depth);
    } else {
      return false;
    }
    return true;
  }

 private:
  uint64_t below(uint64_t n) { return std::uniform_int_distribution<uint64_t>(0, n - 1)(rng()); }
  int64_t between(int64_t low, int64_t high) {
    return std::uniform_int_distribution<int64_t>(low, high)(rng());
  }
  std::mt19937& rng() { return filler_.rng(); }

  // Whole seconds, milliseconds, microseconds or nanoseconds, so that every fraction width shows.
  int32_t nanos() {
    static constexpr int32_t kUnits[] = {1000000000, 1000000, 1000, 1};
    const int32_t unit = kUnits[below(4)];
    return static_cast<int32_t>(below(static_cast<uint64_t>(1000000000 / unit))) * unit;
  }

  std::string word() {
    static const char* const kWords[] = {"a", "id", "foo_bar", "x_y_z", "name", "é", "a1", "\"q\""};
    return kWords[below(std::size(kWords))];
  }

  void fillValue(pb::Value& value, int depth) {
    switch (below(depth >= 3 ? 4 : 6)) {
      case 0:
        return value.set_null_value(pb::NULL_VALUE);
      case 1:
        return value.set_number_value(
            below(3) == 0 ? static_cast<double>(between(-1000, 1000))
                          : std::ldexp(std::uniform_real_distribution<double>(-1, 1)(rng()),
                                       static_cast<int>(below(120)) - 60));
      case 2:
        return value.set_string_value(word());
      case 3:
        return value.set_bool_value(below(2) == 1);
      case 4:
        return fillStruct(*value.mutable_struct_value(), depth + 1);
      default:
        pb::ListValue& list = *value.mutable_list_value();
        for (uint64_t n = below(4); n > 0; --n) fillValue(*list.add_values(), depth + 1);
    }
  }

  void fillStruct(pb::Struct& structure, int depth) {
    for (uint64_t n = below(4); n > 0; --n) fillValue((*structure.mutable_fields())[word()], depth);
  }

  void fillAny(pb::Any& any, int depth) {
    static const pb::Message* const kContents[] = {
        &pb::Timestamp::default_instance(),  &pb::Duration::default_instance(),
        &wkt::Inner::default_instance(),     &pb::Struct::default_instance(),
        &pb::Int64Value::default_instance(), &pb::Any::default_instance()};
    const uint64_t pick = below(depth >= 3 ? 2 : 6);
    if (pick == 5 && !anyOfAny) return fillAny(any, depth + 1);
    const std::unique_ptr<pb::Message> content(kContents[pick]->New());
    filler_.fill(*content, depth + 1);
    any.PackFrom(*content);
  }

  testing_support::RandomMessageFiller& filler_;
};

// One schema under test: a compiled message type and the descriptor set protoc wrote for it.
struct Subject {
  const char* name;
  const char* descriptorSet;
  const pb::Message* prototype;
  uint32_t seed;
  int count;
};

const Subject kSubjects[] = {
    {"proto3", "rich.desc", &test::Rich::default_instance(), 20261122, 1000},
    {"proto2", "proto2_record.desc", &proto2::Record::default_instance(), 20261123, 300},
    {"wellknowntypes", "well_known.desc", &wkt::Holder::default_instance(), 20250302, 1000},
#ifdef OSTREL_CONFORMANCE_PROTO3
    // protobuf's own: every scalar type, maps of every key type, oneofs, well-known types.
    {"conformance", "test_messages_proto3.desc",
     &protobuf_test_messages::proto3::TestAllTypesProto3::default_instance(), 20261124, 120},
#endif
};

SchemaStore storeOf(const Subject& subject) {
  DescriptorImportOptions options;
  options.groups = DescriptorImportOptions::Groups::read;
  SchemaManifest manifest = schemaManifestFromDescriptorSet(
      testing_support::readGenerated(subject.descriptorSet), options);
  // The Anys the filler packs hold the test's own well-known holder types.
  manifest.merge(schemaManifestFromDescriptorSet(testing_support::readGenerated("well_known.desc")),
                 MergePolicy::requireEqual);
  return SchemaStore(std::move(manifest));
}

// A value as comparable text: its kind and value, floating point by its bits so that NaNs compare,
// enums by number, messages by their bytes; "absent" for no value, the error for a thrown one.
std::string canonical(const std::optional<AnyValue>& value) {
  if (!value) return "absent";
  using Case = AnyValue::Case;
  switch (value->kind()) {
    case Case::float_:
      return "float:" + std::to_string(std::bit_cast<uint32_t>(value->floatValue()));
    case Case::double_:
      return "double:" + std::to_string(std::bit_cast<uint64_t>(value->doubleValue()));
    case Case::enum_:
      return "enum:" + std::to_string(value->enumValue().number());
    case Case::bytes:
      return "bytes:" + std::string(asText(value->bytesValue()));
    case Case::message:
      return "message:" + std::string(asText(value->messageValue().bytes()));
    default:
      return value->describe();
  }
}

template <typename Read>
std::string outcome(Read&& read) {
  try {
    return canonical(read());
  } catch (const Error& e) {
    return std::string("error ") + typeid(e).name() + ": " + e.what();
  }
}

// The occurrences of `field` in `message`'s encoding, in order, as canonical() writes them: the
// values libprotobuf holds, then what it kept of the field among the unknown fields, which it
// writes after the known ones (a closed enum's numbers it does not declare, whole map entries
// with such a number as their value).
std::vector<std::string> occurrences(const pb::Message& message, const Field* field,
                                     const FieldSchema& schema) {
  const auto* r = message.GetReflection();
  std::vector<std::string> out;
  const int size = field->is_repeated() ? r->FieldSize(message, field)
                                        : static_cast<int>(r->HasField(message, field));
  for (int i = 0; i < size; ++i) {
    const int index = field->is_repeated() ? i : -1;
    if (field->cpp_type() == Field::CPPTYPE_MESSAGE) {
      const pb::Message& m =
          index < 0 ? r->GetMessage(message, field) : r->GetRepeatedMessage(message, field, index);
      out.push_back("message:" + m.SerializePartialAsString());
    } else {
      out.push_back(
          canonical(testing_support::reflectedValue(message, field, index, schema.type())));
    }
  }
  const pb::UnknownFieldSet& unknown = r->GetUnknownFields(message);
  for (int i = 0; i < unknown.field_count(); ++i) {
    const pb::UnknownField& kept = unknown.field(i);
    if (kept.number() != field->number()) continue;
    if (kept.type() == pb::UnknownField::TYPE_VARINT) {
      out.push_back("enum:" + std::to_string(static_cast<int32_t>(kept.varint())));
    } else if (kept.type() == pb::UnknownField::TYPE_LENGTH_DELIMITED) {
      out.push_back("message:" + kept.length_delimited());
    }
  }
  return out;
}

// Map entries ("message:" and their bytes) written again deterministically and sorted: the order
// of entries, and of the entries of maps nested in their values, is that of one map object, and
// libprotobuf's reflection hands out copies.
std::vector<std::string> sortedEntries(const Field* field,
                                       const std::vector<std::string>& entries) {
  const pb::Message* prototype =
      pb::MessageFactory::generated_factory()->GetPrototype(field->message_type());
  std::vector<std::string> out;
  for (const std::string& entry : entries) {
    const std::unique_ptr<pb::Message> parsed(prototype->New());
    EXPECT_TRUE(parsed->ParsePartialFromString(entry.substr(std::strlen("message:"))));
    out.push_back(deterministic(*parsed));
  }
  std::sort(out.begin(), out.end());
  return out;
}

// Every path worth asking of one message, with the answer libprotobuf's content calls for.
struct Reads {
  std::vector<std::string> paths;
  std::vector<std::string> expected;
  int present = 0;
  int iterated = 0;
  // The outermost record, which iteration by path reads from.
  const SchematizedData* root = nullptr;

  void add(std::string path, std::string answer) {
    present += answer != "absent";
    paths.push_back(std::move(path));
    expected.push_back(std::move(answer));
  }
};

// A message value as comparable text: parsed by libprotobuf and written deterministically, so that
// a merged message (the payloads of its occurrences one after the other) compares with the message
// libprotobuf merged.
std::string comparable(const std::optional<AnyValue>& value, const pb::Message* prototype) {
  if (!value || value->kind() != AnyValue::Case::message) return canonical(value);
  const std::unique_ptr<pb::Message> parsed(prototype->New());
  EXPECT_TRUE(parsed->ParsePartialFromString(std::string(asText(value->messageValue().bytes()))));
  return "message:" + deterministic(*parsed);
}

// Walks `message` and the library's view of its bytes together: collects each field's paths and
// answers, and compares each repeated field's iteration on the spot.
void collectReads(const pb::Message& message, const SchematizedData& data,
                  const std::string& prefix, Reads& reads) {
  const auto* r = message.GetReflection();
  for (const Field* field : testing_support::fieldsAndExtensions(message.GetDescriptor())) {
    const FieldSchema schema = data.messageSchema().fieldWithNumber(field->number());
    ASSERT_EQ(schema.name(), field->name());
    const std::string path = prefix + field->name();  // from the outermost message
    const std::vector<std::string> found = occurrences(message, field, schema);
    const bool isMessage = field->cpp_type() == Field::CPPTYPE_MESSAGE && !field->is_map();
    if (!field->is_repeated()) {
      reads.add(path, found.empty() ? "absent" : found.front());
      if (isMessage && r->HasField(message, field)) {
        const std::optional<AnyValue> nested = data.value(field->name());
        ASSERT_TRUE(nested) << path;
        collectReads(r->GetMessage(message, field), nested->messageValue(), path + ".", reads);
      }
      continue;
    }
    // A packed run ends what an index or the iterator reaches; elements written as tags after it
    // (the closed enum numbers libprotobuf writes last) are not part of it.
    const bool packed = field->is_packed() && r->FieldSize(message, field) > 0;
    const std::vector<std::string> reachable(
        found.begin(), packed ? found.begin() + r->FieldSize(message, field) : found.end());
    Schematizer::RepeatableFieldIterator iterator(ByteView(data.bytes()), schema.fieldNumber(),
                                                  schema.type());
    std::vector<std::string> iterated;
    for (const AnyValue& element : iterator) iterated.push_back(canonical(element));
    reads.iterated += static_cast<int>(iterated.size());
    // A map's message values compare as libprotobuf writes them deterministically: their own
    // maps are in no set order.
    const Field* mapValue = field->is_map() ? field->message_type()->map_value() : nullptr;
    const pb::Message* valuePrototype =
        mapValue && mapValue->cpp_type() == Field::CPPTYPE_MESSAGE
            ? pb::MessageFactory::generated_factory()->GetPrototype(mapValue->message_type())
            : nullptr;
    std::vector<std::string> byPath;
    for (const auto& element :
         RepeatedField(reads.root->messageSchema(), path).elements(reads.root->bytes())) {
      byPath.push_back(element.key
                           ? element.keyText() + "=" + comparable(element.value, valuePrototype)
                           : canonical(element.value));
    }
    if (field->is_map()) {  // entries in the order of their keys' hashes: compared as sets
      EXPECT_EQ(sortedEntries(field, iterated), sortedEntries(field, reachable)) << path;
      const MessageSchema entry = *schema.type().messageSchema();
      std::vector<std::string> entries;
      for (int i = 0; i < r->FieldSize(message, field); ++i) {
        const pb::Message& pair = r->GetRepeatedMessage(message, field, i);
        const RepeatedField::Element expected{
            testing_support::reflectedValue(pair, field->message_type()->map_key(), -1,
                                            entry.fieldWithNumber(1).type()),
            valuePrototype ? AnyValue("")
                           : testing_support::reflectedValue(pair, mapValue, -1,
                                                             entry.fieldWithNumber(2).type())};
        entries.push_back(
            expected.keyText() + "=" +
            (valuePrototype
                 ? "message:" + deterministic(pair.GetReflection()->GetMessage(pair, mapValue))
                 : canonical(expected.value)));
      }
      std::sort(byPath.begin(), byPath.end());
      std::sort(entries.begin(), entries.end());
      EXPECT_EQ(byPath, entries) << path;
      continue;
    }
    EXPECT_EQ(iterated, reachable) << path;
    EXPECT_EQ(byPath, reachable) << path;
    for (size_t n = 0; n < reachable.size() + 2; ++n) {
      const std::string index = "[" + std::to_string(n) + "]";
      const std::string element = path + index;
      reads.add(element, n < reachable.size() ? reachable[n] : "absent");
      if (isMessage && n < reachable.size()) {
        const std::optional<AnyValue> nested = data.value(field->name() + index);
        ASSERT_TRUE(nested) << element;
        collectReads(r->GetRepeatedMessage(message, field, static_cast<int>(n)),
                     nested->messageValue(), element + ".", reads);
      }
    }
  }
}

// Clears the fields of `message`, at any depth, that hold an enum number below zero.
void withoutNegativeEnums(pb::Message& message) {
  const auto* r = message.GetReflection();
  std::vector<const Field*> fields;
  r->ListFields(message, &fields);
  for (const Field* f : fields) {
    const int size = f->is_repeated() ? r->FieldSize(message, f) : 1;
    for (int i = 0; i < size; ++i) {
      const int index = f->is_repeated() ? i : -1;
      if (f->cpp_type() == Field::CPPTYPE_MESSAGE) {
        withoutNegativeEnums(index < 0 ? *r->MutableMessage(&message, f)
                                       : *r->MutableRepeatedMessage(&message, f, index));
      } else if (f->cpp_type() == Field::CPPTYPE_ENUM &&
                 (index < 0 ? r->GetEnumValue(message, f)
                            : r->GetRepeatedEnumValue(message, f, index)) < 0) {
        r->ClearField(&message, f);
        break;
      }
    }
  }
}

// The values `message` holds, handed to buildData: nested messages are built the same way.
SchematizedData buildFrom(const MessageSchema& schema, const pb::Message& message) {
  const auto* r = message.GetReflection();
  return schema.buildData([&](const FieldSchema& field) {
    const auto number = static_cast<int>(field.fieldNumber());
    const Field* f = message.GetDescriptor()->FindFieldByNumber(number);
    if (f == nullptr) f = r->FindKnownExtensionByNumber(number);
    std::vector<AnyValue> values;
    const int size = f->is_repeated() ? r->FieldSize(message, f) : r->HasField(message, f);
    for (int i = 0; i < size; ++i) {
      const int index = f->is_repeated() ? i : -1;
      if (f->cpp_type() != Field::CPPTYPE_MESSAGE) {
        values.push_back(testing_support::reflectedValue(message, f, index, field.type()));
      } else {
        values.emplace_back(buildFrom(
            *field.type().messageSchema(),
            index < 0 ? r->GetMessage(message, f) : r->GetRepeatedMessage(message, f, index)));
      }
    }
    return values;
  });
}

// Two JSON values alike, numbers compared as doubles or, failing that, as floats: libprotobuf
// writes floats with up to nine digits where the shortest form may need fewer.
bool sameJson(const json& a, const json& b) {
  if (a.is_number() && b.is_number()) {
    const auto x = a.get<double>();
    const auto y = b.get<double>();
    return x == y || static_cast<float>(x) == static_cast<float>(y);
  }
  if (a.type() != b.type() || a.size() != b.size()) return false;
  if (a.is_object()) {
    for (const auto& [key, value] : a.items()) {
      if (!b.contains(key) || !sameJson(value, b[key])) return false;
    }
    return true;
  }
  if (a.is_array()) {
    for (size_t i = 0; i < a.size(); ++i) {
      if (!sameJson(a[i], b[i])) return false;
    }
    return true;
  }
  return a == b;
}

// Two JSON texts alike token by token, in order: strings by their values (libprotobuf escapes
// more characters), numbers as sameJson compares them, the rest character by character, white
// space aside (libprotobuf indents by one space).
bool sameText(std::string_view a, std::string_view b) {
  const auto tokenEnd = [](std::string_view t, size_t i) {
    if (t[i] == '"') {
      for (++i; i < t.size() && t[i] != '"'; ++i) i += t[i] == '\\' ? 1 : 0;
      return i + 1;
    }
    while (i < t.size() && std::strchr("-+.eE0123456789", t[i]) != nullptr) ++i;
    return i;
  };
  size_t i = 0;
  size_t j = 0;
  while (i < a.size() && j < b.size()) {
    if (std::isspace(static_cast<unsigned char>(a[i])) != 0) {
      ++i;
    } else if (std::isspace(static_cast<unsigned char>(b[j])) != 0) {
      ++j;
    } else if (a[i] == '"' || a[i] == '-' || (a[i] >= '0' && a[i] <= '9')) {
      const size_t ai = tokenEnd(a, i);
      const size_t bj = tokenEnd(b, j);
      if (!sameJson(json::parse(a.substr(i, ai - i)), json::parse(b.substr(j, bj - j)))) {
        return false;
      }
      i = ai;
      j = bj;
    } else if (a[i++] != b[j++]) {
      return false;
    }
  }
  const auto blank = [](std::string_view rest) {
    return std::ranges::all_of(rest,
                               [](char c) { return std::isspace(static_cast<unsigned char>(c)); });
  };
  return blank(a.substr(i)) && blank(b.substr(j));
}

// Takes from the texts of `message` what only one writer puts there: the library's extensions
// (libprotobuf 3.21 prints none), group fields (libprotobuf 3.21 leaves a singular group out and
// writes a repeated one as two empty arrays; the library's rendering of groups is checked by
// encoding it back) and, printing defaults, the value of an unset field with presence (libprotobuf
// prints the default the schema declares, the library the type's zero: it keeps no declared
// defaults).
void keepCommonFields(const pb::Message& message, bool jsonNames, json& ours, json& theirs) {
  for (auto it = ours.begin(); it != ours.end();) {
    it = it.key().starts_with("[") ? ours.erase(it) : std::next(it);
  }
  const auto* r = message.GetReflection();
  for (const Field* field : testing_support::fieldsAndExtensions(message.GetDescriptor())) {
    const std::string key = jsonNames ? field->json_name() : field->name();
    const bool unset = !field->is_repeated() && !r->HasField(message, field);
    // libprotobuf 3.21 prints an unset NullValue field as "NULL_VALUE", where its default is null.
    const bool nullValue = unset && field->enum_type() == pb::NullValue_descriptor() &&
                           ours.value(key, json(0)).is_null();
    if (field->type() == Field::TYPE_GROUP || (unset && field->has_presence()) || nullValue) {
      ours.erase(key);
      theirs.erase(key);
      continue;
    }
    if (field->cpp_type() != Field::CPPTYPE_MESSAGE || unset || !ours.contains(key) ||
        !theirs.contains(key)) {
      continue;
    }
    json& a = ours[key];
    json& b = theirs[key];
    if (field->is_map()) {
      const Field* value = field->message_type()->map_value();
      if (value->cpp_type() != Field::CPPTYPE_MESSAGE || !a.is_object() || !b.is_object()) continue;
      for (int i = 0; i < r->FieldSize(message, field); ++i) {
        const pb::Message& entry = r->GetRepeatedMessage(message, field, i);
        const Field* k = field->message_type()->map_key();
        const auto* e = entry.GetReflection();
        std::string name;
        if (k->cpp_type() == Field::CPPTYPE_STRING) {
          name = e->GetString(entry, k);
        } else {
          pb::TextFormat::PrintFieldValueToString(entry, k, -1, &name);
        }
        if (a.contains(name) && b.contains(name) && a[name].is_object() && b[name].is_object()) {
          keepCommonFields(entry.GetReflection()->GetMessage(entry, value), jsonNames, a[name],
                           b[name]);
        }
      }
      continue;
    }
    if (!field->is_repeated()) {
      if (a.is_object() && b.is_object())
        keepCommonFields(r->GetMessage(message, field), jsonNames, a, b);
      continue;
    }
    for (int i = 0; i < r->FieldSize(message, field) && a.is_array() && b.is_array() &&
                    static_cast<size_t>(i) < std::min(a.size(), b.size());
         ++i) {
      if (a[i].is_object() && b[i].is_object())
        keepCommonFields(r->GetRepeatedMessage(message, field, i), jsonNames, a[i], b[i]);
    }
  }
}

// The print options of one round, the same for both writers.
struct OptionSet {
  std::string name;
  JsonOptions ours;
  pb::util::JsonPrintOptions theirs;
};

std::vector<OptionSet> optionSets() {
  std::vector<OptionSet> sets(4);
  sets[0].name = "declared names";
  sets[1].name = "JSON names";
  sets[1].ours.jsonNames = true;
  sets[2].name = "enums as numbers, indented";
  sets[2].ours.enumsAsNumbers = true;
  sets[2].ours.style = JsonStyle::indented;
  sets[2].theirs.always_print_enums_as_ints = true;
  sets[2].theirs.add_whitespace = true;
  sets[3].name = "defaults";
  sets[3].ours.printDefaults = true;
  sets[3].theirs.always_print_primitive_fields = true;
  for (OptionSet& set : sets) set.theirs.preserve_proto_field_names = !set.ours.jsonNames;
  return sets;
}

class DifferentialTest : public ::testing::TestWithParam<Subject> {
 protected:
  std::unique_ptr<pb::Message> parse(std::string_view bytes) {
    std::unique_ptr<pb::Message> message(GetParam().prototype->New());
    EXPECT_TRUE(message->ParsePartialFromArray(bytes.data(), static_cast<int>(bytes.size())));
    return message;
  }
  std::unique_ptr<pb::Message> parse(const SchematizedData& data) {
    return parse(asText(data.data()));
  }

  // Reads every path singly and all at once through a projection, on the bytes and on damaged
  // copies of them (where the two must still agree path by path).
  void compareReads(const MessageSchema& schema, const pb::Message& message,
                    const std::string& bytes, std::mt19937& damage, Reads& reads) {
    const SchematizedData data = schema.schematizedData(bytes);
    reads.root = &data;
    collectReads(message, data, "", reads);
    const Projection projection(schema, reads.paths);
    ProjectionRow row = projection.makeRow();
    projection.read(asBytes(bytes), row);
    for (size_t i = 0; i < reads.paths.size(); ++i) {
      EXPECT_EQ(outcome([&] { return data.value(reads.paths[i]); }), reads.expected[i])
          << reads.paths[i];
      EXPECT_EQ(outcome([&] { return row.value(i); }), reads.expected[i]) << reads.paths[i];
    }
    for (int d = 0; d < 2 && !bytes.empty(); ++d) {
      std::string damaged = bytes;
      const size_t at = std::uniform_int_distribution<size_t>(0, bytes.size() - 1)(damage);
      if (d == 0) damaged[at] = static_cast<char>(damaged[at] ^ (1 << (damage() % 8)));
      if (d == 1) damaged.resize(at);
      const SchematizedData broken = schema.schematizedData(damaged);
      projection.read(asBytes(damaged), row);
      for (size_t i = 0; i < reads.paths.size(); ++i) {
        EXPECT_EQ(outcome([&] { return row.value(i); }),
                  outcome([&] { return broken.value(reads.paths[i]); }))
            << "damaged " << d << " at " << at << ": " << reads.paths[i];
      }
    }
  }

  // Renders with one option set and compares with libprotobuf's text; encodes both texts back.
  void compareJson(const MessageSchema& schema, const pb::Message& known, const OptionSet& options,
                   testing_support::MessageComparison& comparison) {
    const SchematizedData data = schema.schematizedData(known.SerializePartialAsString());
    const std::string ourText = renderJSON(data, options.ours);
    std::string theirText;
    ASSERT_TRUE(pb::util::MessageToJsonString(known, &theirText, options.theirs).ok());
    std::string streamed;
    renderJSON(
        data, [&](std::string_view piece) { streamed += piece; }, options.ours);
    ASSERT_EQ(streamed, ourText);

    // Without defaults, the two texts have the same members in the same order (proto2's groups
    // and extensions aside).
    if (!options.ours.printDefaults &&
        known.GetDescriptor()->file()->syntax() == pb::FileDescriptor::SYNTAX_PROTO3) {
      ASSERT_TRUE(sameText(ourText, theirText)) << ourText << "\n" << theirText;
    }
    json ours = json::parse(ourText);
    json theirs = json::parse(theirText);
    keepCommonFields(known, options.ours.jsonNames, ours, theirs);
    ASSERT_TRUE(sameJson(ours, theirs)) << ourText << "\n" << theirText;

    // Our text encodes to bytes that render as the same text, and, unless it holds the defaults
    // of unset fields (which encode as set ones), to the message it was rendered from.
    const SchematizedData encoded = parseJSON(schema, ourText);
    ASSERT_EQ(renderJSON(encoded, options.ours), ourText);
    if (!options.ours.printDefaults) {
      ASSERT_TRUE(comparison.equal(known, *parse(encoded))) << ourText << comparison.differences();
    }

    // libprotobuf's text encodes to what libprotobuf reads from it.
    const std::string common = theirs.dump();
    std::unique_ptr<pb::Message> fromText(known.New());
    ASSERT_TRUE(pb::util::JsonStringToMessage(common, fromText.get()).ok()) << common;
    ASSERT_TRUE(comparison.equal(*fromText, *parse(parseJSON(schema, common))))
        << common << comparison.differences();
  }

  // The text format of `bytes` is what protoc --decode prints (libprotobuf's TextFormat of its
  // dynamic message parsed from them), and encodes back to a message with that text.
  void compareText(const MessageSchema& schema, const std::string& bytes) {
    std::unique_ptr<pb::Message> message(
        dynamic_.GetPrototype(GetParam().prototype->GetDescriptor())->New());
    ASSERT_TRUE(message->ParsePartialFromString(bytes));
    std::string theirs;
    ASSERT_TRUE(pb::TextFormat::PrintToString(*message, &theirs));
    const std::string ours = renderText(schema.schematizedData(bytes));
    ASSERT_EQ(ours, theirs);
    // Where libprotobuf's parser takes the text back (unknown fields it cannot), so does ours.
    struct Silent : pb::io::ErrorCollector {
      void AddError(int, pb::io::ColumnNumber, const std::string&) override {}
    } silent;
    pb::TextFormat::Parser parser;
    parser.RecordErrorsTo(&silent);
    std::unique_ptr<pb::Message> parsed(message->New());
    if (parser.ParseFromString(theirs, parsed.get())) {
      ASSERT_EQ(renderText(parseText(schema, ours)), theirs);
    }
  }

  // Dynamic messages of the generated types, as protoc --decode makes them.
  pb::DynamicMessageFactory dynamic_;
};

TEST_P(DifferentialTest, ReadsRendersEncodesAndBuildsAsLibprotobufHoldsTheMessage) {
  const Subject& subject = GetParam();
  const SchemaStore store = storeOf(subject);
  const MessageSchema schema = store.messageSchema(subject.prototype->GetDescriptor()->full_name());
  testing_support::RandomMessageFiller filler(subject.seed);
  WellKnownFill wellKnown(filler);
  filler.setSpecialFill(std::ref(wellKnown));
  testing_support::MessageComparison comparison;
  const std::vector<OptionSet> sets = optionSets();
  std::mt19937 damage(subject.seed);
  Reads total;
  const int count = testing_support::generatedMessageCount(subject.count);
  for (int i = 0; i < count && !HasFailure(); ++i) {
    const OptionSet& options = sets[static_cast<size_t>(i) % sets.size()];
    SCOPED_TRACE("message " + std::to_string(i) + ", " + options.name);
    wellKnown.anyOfAny = !options.ours.printDefaults;
    const std::unique_ptr<pb::Message> message(subject.prototype->New());
    filler.fillParsed(*message);
    // Serialized again, so that a nested message's bytes are those of the message libprotobuf
    // holds (the order of map entries is the order of one map object).
    std::string bytes = message->SerializePartialAsString();
    if (auto* holder = dynamic_cast<wkt::Holder*>(message.get())) {
      // A map entry filled field by field may lack its value: an empty Value, which has no JSON
      // form (libprotobuf 3.21 leaves the entry out, this library refuses it).
      for (auto& [key, value] : *holder->mutable_value_map()) {
        if (value.kind_case() == pb::Value::KIND_NOT_SET) value.set_null_value(pb::NULL_VALUE);
      }
      bytes = holder->SerializePartialAsString();
    }

    Reads reads;
    compareReads(schema, *message, bytes, damage, reads);
    total.present += reads.present;
    total.iterated += reads.iterated;

    // The message as libprotobuf holds it: without what it keeps among the unknown fields.
    std::unique_ptr<pb::Message> known(message->New());
    known->CopyFrom(*message);
    known->DiscardUnknownFields();
    compareJson(schema, *known, options, comparison);
    compareText(schema, bytes);

    // Building a negative enum number stops the process: those fields are left out.
    withoutNegativeEnums(*known);
    const auto built = parse(buildFrom(schema, *known));
    EXPECT_TRUE(comparison.equal(*known, *built)) << comparison.differences();
    if (HasFailure()) ADD_FAILURE() << message->DebugString();
  }
  // The generator reaches deep into each schema: the comparisons had work to do.
  EXPECT_GT(total.present, 10 * count);
  EXPECT_GT(total.iterated, 3 * count);
}

INSTANTIATE_TEST_SUITE_P(Schemas, DifferentialTest, ::testing::ValuesIn(kSubjects),
                         [](const auto& info) { return std::string(info.param.name); });

// Non-canonical encodings of libprotobuf's messages, as other encoders and records merged by
// concatenation write them: each field's first occurrence is the message's own, and occurrences
// taken from other random messages of the type follow, in a random order with unknown fields
// between them. So singular fields occur again (every type), messages in two or three occurrences,
// oneofs with several members, map entries with their key or value twice and keys repeated, and
// repeated fields in a mix of packed runs and single elements.
class Scrambler {
 public:
  explicit Scrambler(uint32_t seed) : rng_(seed) {}

  std::string encode(const pb::Message& message, const std::vector<const pb::Message*>& others) {
    Pieces own;
    Pieces extra;
    fieldPieces(message, others, own);
    for (const pb::Message* other : others) fieldPieces(*other, {}, extra);
    return interleave(own) + interleave(extra);
  }

 private:
  // Per field, its occurrences in order.
  using Pieces = std::vector<std::deque<std::string>>;

  bool chance(int inN) { return rng_() % static_cast<uint32_t>(inN) == 0; }

  // The canonical encoding of `field` alone (its element `index` alone for a repeated field).
  static std::string alone(const pb::Message& message, const Field* field, int index = -1) {
    const std::unique_ptr<pb::Message> copy(message.New());
    copy->CopyFrom(message);
    const auto* r = copy->GetReflection();
    std::vector<const Field*> set;
    r->ListFields(*copy, &set);
    for (const Field* other : set) {
      if (other != field) r->ClearField(copy.get(), other);
    }
    if (index >= 0) {
      r->SwapElements(copy.get(), field, 0, index);
      while (r->FieldSize(*copy, field) > 1) r->RemoveLast(copy.get(), field);
    }
    return copy->SerializePartialAsString();
  }

  static std::string skipVarint(std::string_view bytes) {
    size_t i = 0;
    while (static_cast<unsigned char>(bytes[i]) & 0x80) ++i;
    return std::string(bytes.substr(i + 1));
  }

  void fieldPieces(const pb::Message& message, const std::vector<const pb::Message*>& others,
                   Pieces& out) {
    const auto* r = message.GetReflection();
    std::vector<const Field*> set;
    r->ListFields(message, &set);
    for (const Field* field : set) {
      std::deque<std::string>& pieces = out.emplace_back();
      const int number = field->number();
      if (!field->is_repeated() && field->cpp_type() == Field::CPPTYPE_MESSAGE) {
        std::vector<const pb::Message*> nested;
        for (const pb::Message* other : others) {
          if (other->GetReflection()->HasField(*other, field)) {
            nested.push_back(&other->GetReflection()->GetMessage(*other, field));
          }
        }
        pieces.push_back(bytesField(number, encode(r->GetMessage(message, field), nested)));
      } else if (!field->is_repeated()) {
        pieces.push_back(alone(message, field));
      } else if (field->cpp_type() == Field::CPPTYPE_MESSAGE) {
        const int size = r->FieldSize(message, field);
        for (int i = 0; i < size; ++i) {
          const pb::Message& element = r->GetRepeatedMessage(message, field, i);
          const pb::Message& another = r->GetRepeatedMessage(message, field, rng_() % size);
          // Another element's fields after this one's: a map entry's key or value twice.
          pieces.push_back(bytesField(number, encode(element, {&another})));
          if (field->is_map() && chance(3)) {
            // An entry repeating this key with another entry's value.
            const Field* key = field->message_type()->map_key();
            const Field* value = field->message_type()->map_value();
            pieces.push_back(bytesField(number, alone(element, key) + alone(another, value)));
          }
        }
      } else if (field->cpp_type() == Field::CPPTYPE_STRING) {
        for (int i = 0; i < r->FieldSize(message, field); ++i) {
          pieces.push_back(alone(message, field, i));
        }
      } else {
        // Runs of elements, each packed or one tag per element.
        std::string run;
        const auto endRun = [&] {
          if (!run.empty()) pieces.push_back(bytesField(number, run));
          run.clear();
        };
        for (int i = 0; i < r->FieldSize(message, field); ++i) {
          std::string element = skipVarint(alone(message, field, i));
          if (field->is_packed()) element = skipVarint(element);
          if (chance(3)) endRun();
          if (chance(2)) {
            run += element;
          } else {
            endRun();
            const auto type = pb::internal::WireFormatLite::WireTypeForFieldType(
                static_cast<pb::internal::WireFormatLite::FieldType>(field->type()));
            pieces.push_back(testing_support::Wire()
                                 .tag(number, static_cast<testing_support::Wire::WireType>(type))
                                 .bytes() +
                             element);
          }
        }
        endRun();
      }
    }
  }

  static std::string bytesField(int number, std::string_view payload) {
    return testing_support::Wire().bytesField(number, payload).bytes();
  }

  // The pieces in a random order that keeps each field's own order, unknown fields between.
  std::string interleave(Pieces& pieces) {
    std::string out;
    size_t left = 0;
    for (const auto& field : pieces) left += field.size();
    for (; left > 0; --left) {
      if (chance(5)) out += testing_support::Wire().varintField(500 + rng_() % 50, rng_()).bytes();
      size_t pick = rng_() % pieces.size();
      while (pieces[pick].empty()) pick = (pick + 1) % pieces.size();
      out += pieces[pick].front();
      pieces[pick].pop_front();
    }
    return out;
  }

  std::mt19937 rng_;
};

struct PathRead {
  std::string path;
  std::string expected;
  const pb::Message* prototype = nullptr;
};

// What exact reads must give: every field of `parsed` (libprotobuf's parse of the bytes), set or
// not, and every element of its repeated fields but maps; the iteration of each repeated field is
// compared on the spot. `data` is the message at `prefix`, as the exact read gives it.
void exactReads(const pb::Message& parsed, const SchematizedData& data, const std::string& prefix,
                std::vector<PathRead>& reads, const SchematizedData& root) {
  const auto* r = parsed.GetReflection();
  for (const Field* field : testing_support::fieldsAndExtensions(parsed.GetDescriptor())) {
    // A closed enum's last occurrence may be a number libprotobuf keeps among the unknown fields.
    const bool closedEnum = field->enum_type() != nullptr && field->enum_type()->file()->syntax() ==
                                                                 pb::FileDescriptor::SYNTAX_PROTO2;
    if (field->is_map() || closedEnum) continue;
    const FieldSchema schema = data.messageSchema().fieldWithNumber(field->number());
    const std::string path = prefix + field->name();
    const bool isMessage = field->cpp_type() == Field::CPPTYPE_MESSAGE;
    const pb::Message* prototype =
        isMessage ? pb::MessageFactory::generated_factory()->GetPrototype(field->message_type())
                  : nullptr;
    const auto expected = [&](int index) {
      if (!isMessage) {
        return canonical(testing_support::reflectedValue(parsed, field, index, schema.type()));
      }
      return "message:" + deterministic(index < 0 ? r->GetMessage(parsed, field)
                                                  : r->GetRepeatedMessage(parsed, field, index));
    };
    const auto nested = [&](const std::string& at) {
      return data.value(at.substr(prefix.size()), ReadMode::exact)->messageValue();
    };
    if (!field->is_repeated()) {
      const bool has = r->HasField(parsed, field);
      reads.push_back({path, has ? expected(-1) : "absent", prototype});
      if (isMessage && has)
        exactReads(r->GetMessage(parsed, field), nested(path), path + ".", reads, root);
      continue;
    }
    const int size = r->FieldSize(parsed, field);
    Schematizer::RepeatableFieldIterator iterator(data.bytes(), schema.fieldNumber(), schema.type(),
                                                  ReadMode::exact);
    std::vector<std::string> iterated;
    std::vector<std::string> elements;
    for (const AnyValue& element : iterator) iterated.push_back(comparable(element, prototype));
    for (int i = 0; i < size; ++i) elements.push_back(expected(i));
    EXPECT_EQ(iterated, elements) << path;
    std::vector<std::string> byPath;
    for (const auto& element :
         RepeatedField(root.messageSchema(), path).elements(root.bytes(), ReadMode::exact)) {
      byPath.push_back(comparable(element.value, prototype));
    }
    EXPECT_EQ(byPath, elements) << path;
    for (int i = 0; i <= size; ++i) {
      const std::string element = path + "[" + std::to_string(i) + "]";
      reads.push_back({element, i < size ? elements[static_cast<size_t>(i)] : "absent", prototype});
      if (isMessage && i < size) {
        exactReads(r->GetRepeatedMessage(parsed, field, i), nested(element), element + ".", reads,
                   root);
      }
    }
  }
}

// Reads every path of exactReads by its text, resolved and through a projection, and compares
// each with libprotobuf's parse of `bytes`. Returns how many paths.
size_t compareExactReads(const MessageSchema& schema, const pb::Message& parsed,
                         const std::string& bytes) {
  const SchematizedData data = schema.schematizedData(bytes);
  std::vector<PathRead> exact;
  exactReads(parsed, data, "", exact, data);
  std::vector<std::string> paths;
  for (const PathRead& read : exact) paths.push_back(read.path);
  const Projection projection(schema, paths, ReadMode::exact);
  ProjectionRow row = projection.makeRow();
  projection.read(asBytes(bytes), row);
  for (size_t n = 0; n < exact.size(); ++n) {
    const PathRead& read = exact[n];
    EXPECT_EQ(comparable(data.value(read.path, ReadMode::exact), read.prototype), read.expected)
        << read.path;
    EXPECT_EQ(comparable(data.value(resolvePropertyPath(schema, read.path), ReadMode::exact),
                         read.prototype),
              read.expected)
        << read.path;
    EXPECT_EQ(comparable(row.value(n), read.prototype), read.expected) << read.path;
  }
  return exact.size();
}

// What default reads must give: the first occurrence, which is `message`'s own, for every scalar
// leaf it holds on a path of singular fields and repeated message elements.
void firstReads(const pb::Message& message, const std::string& prefix, std::vector<PathRead>& reads,
                const MessageSchema& schema) {
  const auto* r = message.GetReflection();
  std::vector<const Field*> set;
  r->ListFields(message, &set);
  for (const Field* field : set) {
    if (field->is_map()) continue;
    const std::string path = prefix + field->name();
    const FieldSchema fieldSchema = schema.fieldWithNumber(field->number());
    if (field->cpp_type() != Field::CPPTYPE_MESSAGE) {
      if (!field->is_repeated()) {
        reads.push_back({path, canonical(testing_support::reflectedValue(message, field, -1,
                                                                         fieldSchema.type()))});
      }
      continue;
    }
    const MessageSchema nested = *fieldSchema.type().messageSchema();
    if (!field->is_repeated()) {
      firstReads(r->GetMessage(message, field), path + ".", reads, nested);
      continue;
    }
    for (int i = 0; i < r->FieldSize(message, field); ++i) {
      firstReads(r->GetRepeatedMessage(message, field, i), path + "[" + std::to_string(i) + "].",
                 reads, nested);
    }
  }
}

// Random edits applied by the library and by libprotobuf's reflection: a field of the message or of
// a message below it (a singular one, or an element of a repeated one) is set, cleared, replaced
// whole, has an element set or added, or a map key put or removed, with a value taken from another
// random message as libprotobuf's JSON writes it.
class RandomEdit {
 public:
  RandomEdit(std::mt19937& rng, pb::Message& theirs, const pb::Message& source)
      : rng_(rng), target_(&theirs), source_(&source) {}

  // Applies one edit to libprotobuf's message and to `rewrite`, or returns false when the chosen
  // message has no field to edit.
  // The path of a singular field the edit set, else empty.
  std::string setPath;

  bool apply(Rewrite& rewrite, std::string& description) {
    while (rng_() % 2 == 0 && descend()) {
    }
    std::vector<const Field*> fields;
    for (int i = 0; i < target_->GetDescriptor()->field_count(); ++i) {
      fields.push_back(target_->GetDescriptor()->field(i));
    }
    if (fields.empty()) return false;
    const Field* field = fields[rng_() % fields.size()];
    const std::string path = prefix_ + field->name();
    const auto* r = target_->GetReflection();
    const auto* sr = source_->GetReflection();
    const bool sourceHas =
        field->is_repeated() ? sr->FieldSize(*source_, field) > 0 : sr->HasField(*source_, field);
    // A required field is set, never cleared: libprotobuf's JSON printer refuses a message
    // without it.
    // Groups are only cleared: libprotobuf 3.21's JSON printer writes none.
    const unsigned choice = field->is_required() ? 1 + rng_() % 3 : rng_() % 4;
    if (choice == 0 || !sourceHas || field->type() == Field::TYPE_GROUP) {
      if (field->is_map() && r->FieldSize(*target_, field) > 0 && rng_() % 2 == 0) {
        // One key removed.
        const int index = static_cast<int>(rng_() % r->FieldSize(*target_, field));
        const std::string key = keyText(r->GetRepeatedMessage(*target_, field, index));
        rewrite.clear(path + "[" + json(key).dump() + "]");
        description = "clear " + path + "[" + json(key).dump() + "]";
        r->SwapElements(target_, field, index, r->FieldSize(*target_, field) - 1);
        r->RemoveLast(target_, field);
        return true;
      }
      if (field->is_required()) return false;
      rewrite.clear(path);
      description = "clear " + path;
      r->ClearField(target_, field);
      return true;
    }
    const json whole = alone(*source_, field).value;
    if (whole.is_null() || ((whole.is_object() || whole.is_array()) && whole.empty())) return false;
    if (field->is_map()) {
      // One entry of the source's map put into the target's.
      const std::string key = whole.begin().key();
      const Alone entry = alone(*source_, field, [&](const json& map) {
        return json{{key, map[key]}};
      });
      const std::string keyed = path + "[" + json(key).dump() + "]";
      rewrite.set(keyed, EditValue::json(entry.value[key].dump()));
      description = "put " + keyed + " = " + entry.value[key].dump();
      target_->MergeFrom(*entry.read);
      return true;
    }
    if (field->is_repeated() && choice >= 2) {
      const size_t from = rng_() % whole.size();
      const Alone element =
          alone(*source_, field, [&](const json& list) { return json::array({list[from]}); });
      const std::string value = element.value[0].dump();
      const int size = r->FieldSize(*target_, field);
      // The element read back is the field's one element: merged, it is appended.
      target_->MergeFrom(*element.read);
      if (choice == 2 && size > 0) {
        const int at = static_cast<int>(rng_() % size);
        rewrite.set(path + "[" + std::to_string(at) + "]", EditValue::json(value));
        description = "set " + path + "[" + std::to_string(at) + "] = " + value;
        r->SwapElements(target_, field, at, size);
        r->RemoveLast(target_, field);
      } else {
        rewrite.append(path, EditValue::json(value));
        description = "append " + path + " " + value;
      }
      return true;
    }
    // The whole field replaced by the source's.
    // (Exact reads do not go through groups yet; a closed enum's undeclared numbers stay in the
    // bytes, where the library reads them.)
    const bool closedEnum = field->type() == Field::TYPE_ENUM &&
                            field->file()->syntax() == pb::FileDescriptor::SYNTAX_PROTO2;
    if (!field->is_repeated() && !throughGroup_ && !closedEnum) setPath = path;
    rewrite.set(path, EditValue::json(whole.dump()));
    description = "set " + path + " = " + whole.dump();
    r->ClearField(target_, field);
    target_->MergeFrom(*alone(*source_, field).read);
    return true;
  }

 private:
  // `field` of `message` alone as libprotobuf's JSON writes it (`pick` choosing part of its value)
  // and reads it back: values hold only what JSON carries (no extensions, no unknown fields).
  struct Alone {
    json value;
    std::unique_ptr<pb::Message> read;
  };
  static Alone alone(const pb::Message& message, const Field* field,
                     const std::function<json(const json&)>& pick = {}) {
    const std::unique_ptr<pb::Message> only(message.New());
    only->CopyFrom(message);
    // libprotobuf's JSON printer reads the message's encoding, unknown fields and all, and takes
    // an unknown number of a field for the field's.
    only->DiscardUnknownFields();
    const auto* r = only->GetReflection();
    std::vector<const Field*> set;
    r->ListFields(*only, &set);
    // Required fields stay: libprotobuf's JSON reader and printer refuse a message without them.
    for (const Field* other : set) {
      if (other != field && !other->is_required()) r->ClearField(only.get(), other);
    }
    pb::util::JsonPrintOptions options;
    options.preserve_proto_field_names = true;
    std::string text;
    EXPECT_TRUE(pb::util::MessageToJsonString(*only, &text, options).ok());
    json parsed = json::parse(text);
    if (pick && parsed.contains(field->name())) parsed[field->name()] = pick(parsed[field->name()]);
    Alone result{parsed.value(field->name(), json()), std::unique_ptr<pb::Message>(message.New())};
    EXPECT_TRUE(pb::util::JsonStringToMessage(parsed.dump(), result.read.get()).ok());
    set.clear();
    result.read->GetReflection()->ListFields(*result.read, &set);
    for (const Field* other : set) {
      if (other != field) result.read->GetReflection()->ClearField(result.read.get(), other);
    }
    return result;
  }

  // A map entry's key as ProtoJSON writes it: a string as it is, a number or bool as text format
  // prints it.
  static std::string keyText(const pb::Message& entry) {
    const Field* key = entry.GetDescriptor()->map_key();
    if (key->cpp_type() == Field::CPPTYPE_STRING)
      return entry.GetReflection()->GetString(entry, key);
    std::string text;
    pb::TextFormat::PrintFieldValueToString(entry, key, -1, &text);
    return text;
  }

  // Moves the edit into a message field of the current target (an element of a repeated one that
  // has one), with the source's message of that field (an empty one when it has none).
  bool descend() {
    std::vector<const Field*> messages;
    const auto* descriptor = target_->GetDescriptor();
    for (int i = 0; i < descriptor->field_count(); ++i) {
      const Field* field = descriptor->field(i);
      if (field->cpp_type() == Field::CPPTYPE_MESSAGE && !field->is_map() &&
          field->message_type()->full_name().rfind("google.protobuf.", 0) != 0) {
        messages.push_back(field);
      }
    }
    if (messages.empty()) return false;
    const Field* field = messages[rng_() % messages.size()];
    throughGroup_ = throughGroup_ || field->type() == Field::TYPE_GROUP;
    const auto* r = target_->GetReflection();
    const auto* sr = source_->GetReflection();
    if (field->is_repeated()) {
      const int size = r->FieldSize(*target_, field);
      if (size == 0) return false;
      const int at = static_cast<int>(rng_() % size);
      prefix_ += field->name() + "[" + std::to_string(at) + "].";
      target_ = r->MutableRepeatedMessage(target_, field, at);
      const int sourceSize = sr->FieldSize(*source_, field);
      source_ = sourceSize > 0
                    ? &sr->GetRepeatedMessage(*source_, field, 0)
                    : pb::MessageFactory::generated_factory()->GetPrototype(field->message_type());
      return true;
    }
    prefix_ += field->name() + ".";
    source_ = &sr->GetMessage(*source_, field);
    target_ = r->MutableMessage(target_, field);
    return true;
  }

  std::mt19937& rng_;
  pb::Message* target_;
  const pb::Message* source_;
  std::string prefix_;
  bool throughGroup_ = false;
};

TEST_P(DifferentialTest, NormalizesMergesAndEditsAsLibprotobuf) {
  const Subject& subject = GetParam();
  const SchemaStore store = storeOf(subject);
  const MessageSchema schema = store.messageSchema(subject.prototype->GetDescriptor()->full_name());
  testing_support::RandomMessageFiller filler(subject.seed + 36);
  WellKnownFill wellKnown(filler);
  filler.setSpecialFill(std::ref(wellKnown));
  Scrambler scrambler(subject.seed + 37);
  std::mt19937 rng(subject.seed + 38);
  testing_support::MessageComparison comparison;
  pb::util::JsonPrintOptions preservingNames;
  preservingNames.preserve_proto_field_names = true;
  size_t edits = 0;
  size_t exactCount = 0;
  const int count = testing_support::generatedMessageCount(subject.count / 2);
  for (int i = 0; i < count && !HasFailure(); ++i) {
    SCOPED_TRACE("message " + std::to_string(i));
    std::vector<std::unique_ptr<pb::Message>> messages;
    for (int n = 0; n < 3; ++n) {
      messages.emplace_back(subject.prototype->New());
      filler.fillParsed(*messages.back());
    }
    // Non-canonical bytes: scrambled where the scrambler knows the schema (the fields of the
    // second and third messages after the first's: two or three occurrences), else records merged
    // by concatenation.
    const bool scrambled = &subject == &kSubjects[0];
    std::vector<const pb::Message*> others = {messages[1].get()};
    if (i % 2 == 0) others.push_back(messages[2].get());
    const std::string bytes = scrambled ? scrambler.encode(*messages[0], others)
                                        : messages[0]->SerializePartialAsString() +
                                              messages[1]->SerializePartialAsString();
    const std::unique_ptr<pb::Message> parsed = parse(bytes);
    ASSERT_EQ(asText(normalizeRecord(schema, asBytes(bytes))), deterministic(*parsed));
    // Exact reads, through groups too, give what libprotobuf merged; text format is what protoc
    // --decode prints.
    exactCount += compareExactReads(schema, *parsed, bytes);
    compareText(schema, bytes);
    if (scrambled) {
      // Rendered as libprotobuf renders its parse; read by default, the first message's own values.
      const SchematizedData data = schema.schematizedData(bytes);
      const std::string ours = renderJSON(data, JsonOptions{.strict = true});
      std::string theirs;
      ASSERT_TRUE(pb::util::MessageToJsonString(*parsed, &theirs, preservingNames).ok());
      ASSERT_TRUE(sameJson(json::parse(ours), json::parse(theirs))) << ours << "\n" << theirs;
      std::vector<PathRead> first;
      firstReads(*messages[0], "", first, schema);
      for (const PathRead& read : first) {
        EXPECT_EQ(outcome([&] { return data.value(read.path); }), read.expected) << read.path;
      }
    }

    const std::string other = messages[2]->SerializePartialAsString();
    const std::unique_ptr<pb::Message> merged = parse(bytes);
    merged->MergeFrom(*messages[2]);
    ASSERT_EQ(asText(mergeRecord(schema, asBytes(bytes), asBytes(other))), deterministic(*merged));

    std::string ours = bytes;
    for (int e = 0; e < 4; ++e) {
      Rewrite rewrite(schema);
      RandomEdit edit(rng, *parsed, *messages[2]);
      std::string description;
      if (!edit.apply(rewrite, description)) continue;
      SCOPED_TRACE(description);
      ours = std::string(asText(rewrite.apply(asBytes(ours))));
      // Compared as messages: libprotobuf's JSON reader writes a well-known type's default
      // inside an Any's bytes, which the library leaves out.
      ASSERT_TRUE(comparison.equal(*parse(ours), *parsed)) << comparison.differences();
      // The field set occurs once: the first occurrence is protobuf's value.
      if (!edit.setPath.empty()) {
        const SchematizedData data = schema.schematizedData(ours);
        EXPECT_EQ(outcome([&] { return data.value(edit.setPath); }),
                  outcome([&] { return data.value(edit.setPath, ReadMode::exact); }))
            << edit.setPath;
      }
      ++edits;
    }
  }
  EXPECT_GT(edits, static_cast<size_t>(count));
  EXPECT_GT(exactCount, 50u * static_cast<size_t>(count));
}

// Texts at the edges of each JSON value form (integers of every width, bare and quoted; floating
// point; bools; base64; enum names; timestamps; durations; field masks), and random one-character
// edits of them. What the library accepts, libprotobuf's JSON reader accepts and reads as the same
// message; what libprotobuf refuses, the library refuses; each edge text libprotobuf accepts the
// library accepts, but for the forms libprotobuf 3.21 takes beyond ProtoJSON, which the library
// refuses (an edited text of such a form is not compared that way).
TEST(DifferentialJsonValueTest, AcceptsAndRefusesValueTextsAsLibprotobuf) {
  struct Form {
    std::vector<std::string> fields;  // members of the message taking the texts
    std::string_view texts;           // separated by '|'
    std::string_view edits;           // characters an edit inserts or puts in place of another
    std::string_view beyondProtoJson = {};
    // What the library's error says of a text it refuses (of a well-known form: all are strings).
    std::string_view refusal = {};
  };
  const auto split = [](std::string_view texts) {
    std::vector<std::string> out;
    for (const auto part : std::views::split(texts, '|'))
      out.emplace_back(part.begin(), part.end());
    return out;
  };
  const std::vector<Form> forms = {
      {{"scalars.f_int32", "scalars.f_sint32", "scalars.f_sfixed32", "scalars.f_uint32",
        "scalars.f_fixed32", "scalars.f_int64", "scalars.f_uint64", "scalars.f_sint64",
        "scalars.f_fixed64", "scalars.f_sfixed64"},
       "1 \t\r\n|"
       R"(0|-0|1|-1|1.0|1.5|1e2|1E+2|1e-2|0.1e1|-1e0|127|2147483647|2147483648|-2147483648|)"
       R"(-2147483649|4294967295|4294967296|9223372036854775807|9223372036854775808|)"
       R"(-9223372036854775808|-9223372036854775809|18446744073709551615|18446744073709551616|)"
       R"(1e19|1e20|"1"|"-1"|"-12"|"4294967295"|"18446744073709551615"|"9223372036854775807"|)"
       R"("-9223372036854775808"|"1e2"|"1.0"|" 1"|""|"-"|"-1x"|true|null|"+1")",
       "0123456789-+.eE\" ",
       R"("+1")"},
      {{"scalars.f_float", "scalars.f_double"},
       R"(0|-0|1.5|-2.25|1e38|3.4028235e38|3.4028236e38|-3.5e38|1e-46|1.7976931348623157e308|)"
       R"(1e309|-1e309|"NaN"|"Infinity"|"-Infinity"|"1.5"|"1e3"|"nan"|""|"-"|1E2|null)",
       "0123456789-+.eE\"IN"},
      {{"scalars.f_bool"}, R"(true|false|"true"|1|0|null|True)", "tf\"1", R"("true")"},
      // Numbers of enums are taken quoted as well; libprotobuf takes them bare only. (Base64 is
      // not here: the library reads it in either alphabet character by character, ignoring the
      // bits past the last byte, where libprotobuf 3.21 refuses mixed alphabets and such bits.)
      {{"scalars.f_enum"}, R"("RED"|"BLUE"|2|"red"|7|-1|"")", "RDEBLU\""},
      // Out of range once the offset is applied; ten fraction digits; a one-digit month.
      {{"holder.timestamp"},
       R"("1970-01-01T00:00:00Z"|"0001-01-01T00:00:00Z"|"9999-12-31T23:59:59.999999999Z"|)"
       R"("2020-02-29T12:34:56.123+01:30"|"2021-02-29T00:00:00Z"|"1972-06-30T23:59:60Z"|)"
       R"("2000-01-01T00:00:00.5-08:00"|"2000-01-01T00:00:00+23:59"|"0001-01-01T00:00:00+00:01"|)"
       R"("9999-12-31T23:59:59-00:01"|"2000-01-01T00:00:00.0000000001Z"|)"
       R"("2000-01-01 00:00:00Z"|"2000-01-01T00:00:00z"|"2000-1-01T00:00:00Z"|)"
       R"("2000-01-01T24:00:00Z"|"2000-01-01T00:00:00+24:00"|"0000-02-29T00:00:00Z"|)"
       R"("0000-12-31T23:59:59Z"|"10000-01-01T00:00:00Z"|"2020-02-30T00:00:00Z"|)"
       R"("2020-01-01T:00:00Z"|"2020-01-01T00:00:00.Z"|"2020-01-01T00:00:00"|)"
       R"("2020-01-01T00:00:00+05:")",
       "0123456789-+:.TZ\"",
       R"("0001-01-01T00:00:00+00:01"|"9999-12-31T23:59:59-00:01"|)"
       R"("2000-01-01T00:00:00.0000000001Z"|"2000-1-01T00:00:00Z")",
       "expected an RFC 3339 timestamp"},
      {{"holder.duration"},
       R"("1s"|"-1.5s"|"0s"|"-0s"|"315576000000s"|"-315576000000s"|"315576000001s"|)"
       R"("315576000000.000000001s"|"0.000000001s"|"1.0000000001s"|".5s"|"5.s"|"-.5s"|"1"|)"
       R"("1S"|" 1s"|"+1s"|"1.5")",
       "0123456789-+.s\"",
       R"("5.s"|" 1s"|"+1s")",
       "expected a duration"},
      // Empty paths, and underscores, which no lowerCamelCase name holds.
      {{"holder.field_mask"},
       R"(""|"fooBar"|"fooBar,baz"|"a.bC"|"aB.cD,e"|","|"a,"|"a,,b"|"foo_bar"|"fooBAR"|"a1B")",
       "aBz_.,1\"",
       R"(","|"a,"|"a,,b"|"foo_bar")",
       "expected paths in lowerCamelCase"},
  };
  const SchemaStore richStore = storeOf(kSubjects[0]);
  const SchemaStore wellKnownStore = storeOf(kSubjects[2]);
  std::mt19937 rng(20261124);
  testing_support::MessageComparison comparison;
  pb::util::JsonPrintOptions names;
  names.preserve_proto_field_names = true;
  size_t accepted = 0;
  size_t refused = 0;
  for (const Form& form : forms) {
    const std::vector<std::string> edges = split(form.texts);
    const std::vector<std::string> beyond = split(form.beyondProtoJson);
    std::vector<std::string> texts = edges;
    for (const std::string& text : edges) {
      for (int e = 0; e < 12; ++e) {
        std::string edited = text;
        const size_t at = rng() % (edited.size() + 1);
        const char c = form.edits[rng() % form.edits.size()];
        const uint32_t kind = rng() % 3;
        if (kind == 0) edited.insert(at, 1, c);
        if (kind == 1 && at < edited.size()) edited.erase(at, 1);
        if (kind == 2 && at < edited.size()) edited[at] = c;
        texts.push_back(edited);
      }
    }
    // Numbers of up to 24 digits before and after the point, exponents past either end of double.
    const auto digits = [&](uint32_t count) {
      std::string out;
      while (out.size() < count) out += static_cast<char>('0' + rng() % 10);
      return out;
    };
    for (int n = 0; n < 200 && form.edits.starts_with("0123456789"); ++n) {
      std::string number = rng() % 4 == 0 ? "-" : "";
      number += std::to_string(1 + rng() % 9) + digits(rng() % 24);
      if (rng() % 2 == 0) number += "." + digits(1 + rng() % 24);
      if (rng() % 2 == 0) number += (rng() % 2 == 0 ? "e-" : "e") + std::to_string(rng() % 420);
      texts.push_back(rng() % 8 == 0 ? "\"" + number + "\"" : number);
    }
    for (const std::string& path : form.fields) {
      const bool holder = path.starts_with("holder.");
      const std::string member = path.substr(path.find('.') + 1);
      const pb::Message& container =
          holder ? static_cast<const pb::Message&>(wkt::Holder::default_instance())
                 : test::Rich::default_instance();
      // A well-known value is also a whole document of its type.
      const pb::Message* alone =
          holder ? pb::MessageFactory::generated_factory()->GetPrototype(
                       container.GetDescriptor()->FindFieldByName(member)->message_type())
                 : nullptr;
      for (size_t t = 0; t < texts.size(); ++t) {
        const std::string& text = texts[t];
        for (const pb::Message* prototype : {&container, alone}) {
          if (!prototype) continue;
          const std::string document = prototype == alone ? text
                                       : holder           ? "{\"" + member + "\":" + text + "}"
                                                : "{\"scalars\":{\"" + member + "\":" + text + "}}";
          // libprotobuf 3.21 reads texts that are not JSON ("1.E0", ".5", "01"): the JSON
          // reader's to refuse.
          if (!json::accept(document)) continue;
          std::unique_ptr<pb::Message> theirs(prototype->New());
          const bool theyAccept = pb::util::JsonStringToMessage(document, theirs.get()).ok();
          const MessageSchema schema = (holder ? wellKnownStore : richStore)
                                           .messageSchema(prototype->GetDescriptor()->full_name());
          std::optional<SchematizedData> ours;
          const std::string error =
              testing_support::catchError([&] { ours = parseJSON(schema, document); }).description;
          if (!ours) {
            ++refused;
            const std::string expected =
                (prototype == alone ? "$: " : "$." + member + ": ") + std::string(form.refusal);
            EXPECT_TRUE(!error.starts_with("std::") &&
                        (form.refusal.empty() || error.find(expected) != std::string::npos))
                << document << ": " << error;
            const bool edge = t < edges.size();
            EXPECT_TRUE(!theyAccept || !edge || std::ranges::count(beyond, text) > 0)
                << "refused: " << document;
            continue;
          }
          ++accepted;
          ASSERT_TRUE(theyAccept) << "accepted: " << document;
          std::unique_ptr<pb::Message> read(prototype->New());
          ASSERT_TRUE(read->ParseFromString(std::string(asText(ours->data())))) << document;
          ASSERT_TRUE(comparison.equal(*read, *theirs)) << document << comparison.differences();
          std::string printed;
          ASSERT_TRUE(pb::util::MessageToJsonString(*theirs, &printed, names).ok());
          // Floating point is written in its shortest form, where libprotobuf may write more
          // digits or none of an exponent: the same number.
          const std::string rendered = renderJSON(*ours);
          if (member == "f_float" || member == "f_double") {
            EXPECT_TRUE(sameJson(json::parse(rendered), json::parse(printed))) << rendered;
          } else {
            EXPECT_EQ(rendered, printed) << document;
          }
        }
      }
    }
  }
  EXPECT_GT(accepted, 400u);
  EXPECT_GT(refused, 1000u);
}

}  // namespace
}  // namespace ostrel
