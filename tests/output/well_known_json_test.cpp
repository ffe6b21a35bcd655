// ProtoJSON of the well-known types, and the print options: compared with libprotobuf's JSON on
// generated messages in both directions, and edge values one by one.

#include <google/protobuf/any.pb.h>
#include <google/protobuf/duration.pb.h>
#include <google/protobuf/field_mask.pb.h>
#include <google/protobuf/struct.pb.h>
#include <google/protobuf/text_format.h>
#include <google/protobuf/timestamp.pb.h>
#include <google/protobuf/util/json_util.h>
#include <google/protobuf/wrappers.pb.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>
#include <random>
#include <sstream>
#include <string>

#include "ostrel/output/json.hpp"
#include "output/json_test_support.hpp"
#include "support/random_message.hpp"
#include "support/test_support.hpp"
#include "well_known.pb.h"

namespace ostrel {
namespace {

namespace pb = google::protobuf;
namespace wkt = test::wkt;
using nlohmann::json;
using testing_support::generatedManifest;

constexpr int64_t kMinSeconds = -62135596800;
constexpr int64_t kMaxSeconds = 253402300799;
constexpr int64_t kMaxDuration = 315576000000;

// Random well-known values that their JSON forms can express: Timestamps within years 1 to 9999,
// Durations within their range, Values without NaN, FieldMask paths in snake_case, and Anys of
// plain messages, well-known types and other Anys.
class WellKnownFiller {
 public:
  explicit WellKnownFiller(uint32_t seed) : filler_(seed) {
    filler_.setSpecialFill(
        [this](pb::Message& message, int depth) { return special(message, depth); });
  }

  // libprotobuf 3.21 forgets always_print_primitive_fields inside an Any packed in an Any: rounds
  // with that option leave such Anys out.
  void allowAnyOfAny(bool allow) { anyOfAny_ = allow; }

  void fill(wkt::Holder& message) {
    filler_.fill(message);
    // A map entry filled field by field may lack its value: an empty Value, which has no JSON
    // form (libprotobuf 3.21 leaves the entry out, this library refuses it).
    for (auto& [key, value] : *message.mutable_value_map()) {
      if (value.kind_case() == pb::Value::KIND_NOT_SET) value.set_null_value(pb::NULL_VALUE);
    }
  }

 private:
  uint64_t below(uint64_t n) { return std::uniform_int_distribution<uint64_t>(0, n - 1)(rng()); }
  int64_t between(int64_t low, int64_t high) {
    return std::uniform_int_distribution<int64_t>(low, high)(rng());
  }
  std::mt19937& rng() { return filler_.rng(); }

  // Whole seconds, milliseconds, microseconds or nanoseconds, so that every fraction width shows.
  int32_t nanos() {
    switch (below(4)) {
      case 0:
        return 0;
      case 1:
        return static_cast<int32_t>(below(1000)) * 1000000;
      case 2:
        return static_cast<int32_t>(below(1000000)) * 1000;
      default:
        return static_cast<int32_t>(below(1000000000));
    }
  }

  std::string word() {
    static const char* const kWords[] = {"a", "id", "foo_bar", "x_y_z", "name", "é", "a1", "\"q\""};
    return kWords[below(std::size(kWords))];
  }

  void value(pb::Value& value, int depth) {
    switch (below(depth >= 3 ? 4 : 6)) {
      case 0:
        value.set_null_value(pb::NULL_VALUE);
        return;
      case 1:
        value.set_number_value(
            below(3) == 0 ? static_cast<double>(between(-1000, 1000))
                          : std::ldexp(std::uniform_real_distribution<double>(-1, 1)(rng()),
                                       static_cast<int>(below(120)) - 60));
        return;
      case 2:
        value.set_string_value(word());
        return;
      case 3:
        value.set_bool_value(below(2) == 1);
        return;
      case 4:
        structure(*value.mutable_struct_value(), depth + 1);
        return;
      default:
        list(*value.mutable_list_value(), depth + 1);
    }
  }

  void structure(pb::Struct& structure, int depth) {
    for (uint64_t n = below(4); n > 0; --n) value((*structure.mutable_fields())[word()], depth);
  }

  void list(pb::ListValue& list, int depth) {
    for (uint64_t n = below(4); n > 0; --n) value(*list.add_values(), depth);
  }

  void any(pb::Any& any, int depth) {
    switch (below(depth >= 3 ? 2 : 8)) {
      case 0: {
        pb::Timestamp time;
        time.set_seconds(between(kMinSeconds, kMaxSeconds));
        time.set_nanos(nanos());
        any.PackFrom(time);
        return;
      }
      case 1: {
        wkt::Inner inner;
        inner.set_display_name(word());
        inner.set_big_id(between(-5, 5));
        any.PackFrom(inner);
        return;
      }
      case 2: {
        wkt::Inner inner;
        filler_.fill(inner, depth + 1);
        any.PackFrom(inner);
        return;
      }
      case 3: {
        pb::Struct content;
        structure(content, depth + 1);
        any.PackFrom(content);
        return;
      }
      case 4: {
        pb::Value content;
        value(content, depth + 1);
        any.PackFrom(content);
        return;
      }
      case 5: {
        if (!anyOfAny_) return this->any(any, depth + 1);
        pb::Any content;
        this->any(content, depth + 1);
        any.PackFrom(content);
        return;
      }
      case 6: {
        pb::Int64Value content;
        content.set_value(
            between(std::numeric_limits<int64_t>::min(), std::numeric_limits<int64_t>::max()));
        any.PackFrom(content);
        return;
      }
      default: {
        pb::Duration content;
        content.set_seconds(between(-kMaxDuration, kMaxDuration));
        any.PackFrom(content);
        return;
      }
    }
  }

  bool special(pb::Message& message, int depth) {
    if (auto* time = dynamic_cast<pb::Timestamp*>(&message)) {
      time->set_seconds(below(5) == 0 ? between(-100, 100) : between(kMinSeconds, kMaxSeconds));
      time->set_nanos(nanos());
    } else if (auto* duration = dynamic_cast<pb::Duration*>(&message)) {
      const int64_t seconds = below(3) == 0 ? between(-2, 2) : between(-kMaxDuration, kMaxDuration);
      const int32_t fraction = nanos();
      duration->set_seconds(seconds);
      duration->set_nanos(seconds < 0 || (seconds == 0 && below(2) == 0) ? -fraction : fraction);
    } else if (auto* structure = dynamic_cast<pb::Struct*>(&message)) {
      this->structure(*structure, depth);
    } else if (auto* value = dynamic_cast<pb::Value*>(&message)) {
      this->value(*value, depth);
    } else if (auto* list = dynamic_cast<pb::ListValue*>(&message)) {
      this->list(*list, depth);
    } else if (auto* mask = dynamic_cast<pb::FieldMask*>(&message)) {
      for (uint64_t n = below(4); n > 0; --n) {
        mask->add_paths(below(2) ? "foo_bar.baz" : "ab_cd.e1_x");
      }
    } else if (auto* any = dynamic_cast<pb::Any*>(&message)) {
      this->any(*any, depth);
    } else {
      return false;
    }
    return true;
  }

  testing_support::RandomMessageFiller filler_;
  bool anyOfAny_ = true;
};

// Two JSON values alike, numbers compared as doubles or, failing that, as floats: libprotobuf
// writes floats with up to nine digits where the shortest form may need fewer.
bool sameJson(const json& a, const json& b) {
  if (a.is_number() && b.is_number()) {
    const auto x = a.get<double>();
    const auto y = b.get<double>();
    return x == y || static_cast<float>(x) == static_cast<float>(y);
  }
  if (a.type() != b.type()) return false;
  if (a.is_object()) {
    if (a.size() != b.size()) return false;
    for (const auto& [key, value] : a.items()) {
      const auto other = b.find(key);
      if (other == b.end() || !sameJson(value, *other)) return false;
    }
    return true;
  }
  if (a.is_array()) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
      if (!sameJson(a[i], b[i])) return false;
    }
    return true;
  }
  return a == b;
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

class WellKnownJsonTest : public ::testing::Test {
 protected:
  SchemaStore store_{generatedManifest("well_known.desc")};
  MessageSchema holder_ = store_.messageSchema("ostrel.test.wkt.Holder");
};

TEST_F(WellKnownJsonTest, EqualsLibprotobufBothWaysOnGeneratedMessages) {
  WellKnownFiller filler(20250302);
  testing_support::MessageComparison comparison;
  const std::vector<OptionSet> sets = optionSets();
  const int count = testing_support::generatedMessageCount(2000);
  int compared = 0;
  for (int i = 0; i < count; ++i) {
    const OptionSet& options = sets[static_cast<size_t>(i) % sets.size()];
    SCOPED_TRACE("message " + std::to_string(i) + ", " + options.name);
    wkt::Holder message;
    filler.allowAnyOfAny(!options.ours.printDefaults);
    filler.fill(message);
    const std::string bytes = message.SerializeAsString();
    wkt::Holder reference;
    ASSERT_TRUE(reference.ParseFromString(bytes));
    std::string expectedText;
    ASSERT_TRUE(pb::util::MessageToJsonString(reference, &expectedText, options.theirs).ok());

    const SchematizedData data = holder_.schematizedData(bytes);
    const std::string actualText = renderJSON(data.unsafe(), options.ours);
    json actual = json::parse(actualText);
    json expected = json::parse(expectedText);
    if (options.ours.printDefaults) {
      // libprotobuf 3.21 prints an unset NullValue field as "NULL_VALUE", not null.
      ASSERT_EQ(actual.value("null_value", json()), json());
      actual.erase("null_value");
      expected.erase("null_value");
    }
    ASSERT_TRUE(sameJson(actual, expected)) << actualText << "\n" << expectedText;

    // Streamed, the text is the same.
    std::ostringstream streamed;
    renderJSON(data.unsafe(), streamed, options.ours);
    ASSERT_EQ(streamed.str(), actualText);

    // libprotobuf's text encodes to what libprotobuf reads from it.
    wkt::Holder fromText;
    ASSERT_TRUE(pb::util::JsonStringToMessage(expectedText, &fromText).ok());
    const SchematizedData encoded = encodeJSON(holder_, expectedText);
    wkt::Holder parsed;
    ASSERT_TRUE(
        parsed.ParseFromArray(encoded.data().data(), static_cast<int>(encoded.data().size())));
    ASSERT_TRUE(comparison.equal(fromText, parsed)) << expectedText << "\n"
                                                    << comparison.differences();
    ++compared;
  }
  EXPECT_EQ(compared, count);
}

// One well-known value in the field `field` of a Holder: its bytes, and the JSON of the field (or

// A Holder from its text form.
wkt::Holder holder(const std::string& text) {
  wkt::Holder message;
  EXPECT_TRUE(pb::TextFormat::ParseFromString(text, &message)) << text;
  return message;
}

wkt::Holder parse(const SchematizedData& data) {
  wkt::Holder message;
  EXPECT_TRUE(message.ParseFromArray(data.data().data(), static_cast<int>(data.data().size())));
  return message;
}

// Edges the generated messages seldom reach; the formats themselves are compared with libprotobuf's
// on generated messages.
TEST_F(WellKnownJsonTest, RendersEdgeValuesAndEncodesThemBack) {
  const std::vector<std::pair<std::string, std::string>> rows = {
      {"timestamp { seconds: -62135596800 }", R"({"timestamp":"0001-01-01T00:00:00Z"})"},
      {"timestamp { seconds: 253402300799 nanos: 999999999 }",
       R"({"timestamp":"9999-12-31T23:59:59.999999999Z"})"},
      {"timestamp { seconds: -1 nanos: 1000000 }", R"({"timestamp":"1969-12-31T23:59:59.001Z"})"},
      {"timestamp { seconds: 951782400 nanos: 1000 }",
       R"({"timestamp":"2000-02-29T00:00:00.000001Z"})"},
      {"duration { nanos: -500000000 }", R"({"duration":"-0.500s"})"},
      {"duration { seconds: 315576000000 }", R"({"duration":"315576000000s"})"},
      {"field_mask {}", R"({"field_mask":""})"},
      {"int64_value {} bool_value {} string_value {}",
       R"({"int64_value":"0","bool_value":false,"string_value":""})"},
      {"nulls: NULL_VALUE choice_null: NULL_VALUE", R"({"nulls":[null],"choice_null":null})"},
  };
  testing_support::MessageComparison comparison;
  for (const auto& [proto, expected] : rows) {
    SCOPED_TRACE(proto);
    const wkt::Holder message = holder(proto);
    const std::string text = toJSON(holder_.schematizedData(message.SerializeAsString()));
    EXPECT_EQ(text, expected);
    EXPECT_TRUE(comparison.equal(message, parse(encodeJSON(holder_, text))))
        << comparison.differences();
  }
}

// A value its JSON form cannot express: the field gets the error text, which starts with the field.
TEST_F(WellKnownJsonTest, RefusesToRenderOutOfRangeValues) {
  const std::vector<std::pair<std::string, std::string>> rows = {
      {"timestamp { seconds: -62135596801 }", "google.protobuf.Timestamp out of range"},
      {"timestamp { seconds: 253402300800 }", "google.protobuf.Timestamp out of range"},
      {"timestamp { nanos: -1 }", "google.protobuf.Timestamp out of range"},
      {"duration { seconds: 315576000001 }", "google.protobuf.Duration out of range"},
      {"duration { seconds: 1 nanos: -1 }", "google.protobuf.Duration out of range"},
      {"field_mask { paths: 'fooBar' }", "google.protobuf.FieldMask path"},
      // Its lowerCamelCase form would not read back as the same path.
      {"field_mask { paths: 'a_b_c' }", "google.protobuf.FieldMask path"},
      {"value { number_value: nan }", "google.protobuf.Value number"},
      {"value { number_value: -inf }", "google.protobuf.Value number"},
      {"any { type_url: 'type.googleapis.com/no.Such' }",
       R"(google.protobuf.Any of unknown type URL \"type.googleapis.com/no.Such\")"},
  };
  for (const auto& [proto, error] : rows) {
    SCOPED_TRACE(proto);
    const std::string text = toJSON(holder_.schematizedData(holder(proto).SerializeAsString()));
    const std::string field = proto.substr(0, proto.find(' '));
    EXPECT_EQ(text.rfind("{\"" + field + "\":\"Sch: Error encoding " + field + ": ", 0), 0u)
        << text;
    EXPECT_NE(text.find(error), std::string::npos) << text;
  }
}

// Forms the encoder reads that the renderer does not write.
TEST_F(WellKnownJsonTest, EncodesTimestampOffsetsBothFieldNamesAndAnyTypesAnywhere) {
  const std::string any = "type.googleapis.com/";
  const std::string inner = any + "ostrel.test.wkt.Inner";
  const std::vector<std::pair<std::string, std::string>> rows = {
      {R"({"timestamp":"1970-01-01T01:00:00+01:00","plainText":"a","int64_values":[1]})",
       "timestamp {} plain_text: 'a' int64_values { value: 1 }"},
      {R"({"any":{"big_id":"7","@type":")" + inner + R"("}})",
       "any { [type.googleapis.com/ostrel.test.wkt.Inner] { big_id: 7 } }"},
      {R"({"any":{"value":"1s","@type":")" + any + R"(google.protobuf.Duration"}})",
       "any { [type.googleapis.com/google.protobuf.Duration] { seconds: 1 } }"},
      {R"({"any":{"shownAs":"a","@type":")" + inner +
           R"(","nested_anys":[{"big_id":"1","@type":")" + inner + R"("}]}})",
       "any { [type.googleapis.com/ostrel.test.wkt.Inner] { display_name: 'a' nested_anys {"
       " [type.googleapis.com/ostrel.test.wkt.Inner] { big_id: 1 } } } }"},
  };
  testing_support::MessageComparison comparison;
  for (const auto& [json, proto] : rows) {
    SCOPED_TRACE(json);
    EXPECT_TRUE(comparison.equal(holder(proto), parse(encodeJSON(holder_, json))))
        << comparison.differences();
  }
}

TEST_F(WellKnownJsonTest, EncodingRefusesOutOfRangeForms) {
  const std::vector<std::pair<std::string, std::string>> rows = {
      {R"({"timestamp":"0000-12-31T23:59:59Z"})", "$.timestamp: expected an RFC 3339 timestamp"},
      {R"({"timestamp":"10000-01-01T00:00:00Z"})", "$.timestamp: expected an RFC 3339 timestamp"},
      {R"({"timestamp":"2020-02-30T00:00:00Z"})", "$.timestamp: expected an RFC 3339 timestamp"},
      {R"({"timestamp":"2020-01-01T00:00:00.1234567890Z"})", "$.timestamp: expected an RFC"},
      {R"({"timestamp":"2020-01-01T00:00:00"})", "$.timestamp: expected an RFC 3339 timestamp"},
      {R"({"duration":"315576000001s"})", "$.duration: expected a duration"},
      {R"({"duration":"1.5"})", "$.duration: expected a duration"},
      {R"({"field_mask":"foo_bar"})", "$.field_mask: expected paths in lowerCamelCase"},
      {R"({"any":{"@type":"type.googleapis.com/no.Such"}})",
       "google.protobuf.Any of unknown type URL \"type.googleapis.com/no.Such\""},
      {R"({"any":{"big_id":"1"}})", "$.any: expected an object with a member \"@type\""},
      {R"({"int32_value":"x"})", "$.int32_value: expected an integer of type int32"},
      {R"({"plain_number":1,"plainNumber":2})", "$.plain_number: expected the field once"},
  };
  for (const auto& [json, error] : rows) {
    SCOPED_TRACE(json);
    const std::string what =
        testing_support::catchError([&] { encodeJSON(holder_, json); }).description;
    EXPECT_NE(what.find(error), std::string::npos) << what;
  }
}

}  // namespace
}  // namespace ostrel
