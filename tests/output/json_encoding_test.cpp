// JSON encoding: renderings of generated messages encoded back and read by libprotobuf, the value
// forms each type accepts, and the errors with their exact texts.

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "ostrel/output/json.hpp"
#include "output/json_test_support.hpp"
#include "rich.pb.h"
#include "support/random_message.hpp"
#include "support/test_support.hpp"

namespace ostrel {
namespace {

using testing_support::catchError;
using testing_support::generatedManifest;
using testing_support::sampleManifest;

TEST(JsonEncodingTest, EncodesRenderingsBackToTheMessage) {
  SchemaStore store(generatedManifest("rich.desc"));
  const MessageSchema schema = store.messageSchema("ostrel.test.Rich");
  testing_support::RandomMessageFiller filler(77);
  testing_support::MessageComparison comparison;

  for (int i = 0; i < testing_support::generatedMessageCount(1000); ++i) {
    SCOPED_TRACE("message " + std::to_string(i));
    test::Rich reference;
    const std::string bytes = filler.fillParsed(reference);
    const std::string rendered = toJSON(schema.schematizedData(bytes));

    const SchematizedData encoded = encodeJSON(schema, rendered);
    test::Rich parsed;
    ASSERT_TRUE(
        parsed.ParseFromArray(encoded.data().data(), static_cast<int>(encoded.data().size())));
    ASSERT_TRUE(comparison.equal(reference, parsed)) << rendered << "\n"
                                                     << comparison.differences();
    ASSERT_EQ(toJSON(encoded), rendered);
  }
}

TEST(JsonEncodingTest, NegativeZeroKeepsItsSign) {
  SchemaStore store(generatedManifest("rich.desc"));
  const MessageSchema schema = store.messageSchema("ostrel.test.Scalars");
  test::Scalars message;
  message.set_f_double(-0.0);
  message.set_f_float(-0.0f);
  const std::string rendered = toJSON(schema.schematizedData(message.SerializeAsString()));
  EXPECT_EQ(rendered, R"({"f_double":-0.0,"f_float":-0.0})");
  const SchematizedData encoded = encodeJSON(schema, rendered);
  test::Scalars parsed;
  ASSERT_TRUE(
      parsed.ParseFromArray(encoded.data().data(), static_cast<int>(encoded.data().size())));
  EXPECT_TRUE(std::signbit(parsed.f_double()));
  EXPECT_TRUE(std::signbit(parsed.f_float()));
}

struct EncodeRow {
  std::string name;
  std::string json;
  // The rendering of the encoded message.
  std::string rendered;
};

TEST(JsonEncodingTest, AcceptsEveryFormOfEachType) {
  const std::vector<EncodeRow> rows = {
      {"empty object", "{}", "{}"},
      {"null is an absent field", R"({"i32":null,"ri":null})", "{}"},
      {"integers as numbers or decimal strings",
       R"({"i32":"-5","i64":5,"u32":"4294967295","u64":18446744073709551615,"s32":-2147483648,)"
       R"("s64":"-9223372036854775808","f32":7,"f64":"0","sf32":"12","sf64":-3})",
       R"({"i32":-5,"i64":"5","u32":4294967295,"u64":"18446744073709551615","s32":-2147483648,)"
       R"("s64":"-9223372036854775808","f32":7,"f64":"0","sf32":12,"sf64":"-3"})"},
      {"integers written as exact floating-point numbers", R"({"i32":1e2,"i64":-2.0,"u64":1E19})",
       R"({"i32":100,"i64":"-2","u64":"10000000000000000000"})"},
      {"floats and doubles as numbers, strings and special values",
       R"({"fl":0.1,"db":"1.5","rf":["NaN","Infinity","-Infinity",3,"-0.25"]})",
       R"({"fl":0.1,"db":1.5,"rf":["NaN","Infinity","-Infinity",3,-0.25]})"},
      {"the largest float", R"({"fl":3.4028235e+38,"rf":[-3.4028235e38]})",
       R"({"fl":3.4028235e+38,"rf":[-3.4028235e+38]})"},
      {"numbers of more than 19 significant digits",
       R"({"db":0.1000000000000000055511151231257827021181583404541015625,)"
       R"("u64":18446744073709551615,"rf":[1.00000000000000000000000001e-400]})",
       R"({"u64":"18446744073709551615","db":0.1,"rf":[0]})"},
      {"member names with escapes", R"({"\u0069\u0033\u0032":1,"sm":{"\ud83d\ude00\n":2}})",
       "{\"i32\":1,\"sm\":{\"\xF0\x9F\x98\x80\\n\":\"2\"}}"},
      {"bool, string and bytes", R"({"b":false,"s":"h\u00e9\n","by":"AP8="})",
       "{\"b\":false,\"s\":\"h\xC3\xA9\\n\",\"by\":\"AP8=\"}"},
      {"enums by name, by number and by numeric string", R"({"e":"ONE","re":[0,"ZERO",7,"-1"]})",
       R"({"e":"ONE","re":["ZERO","ZERO",7,-1]})"},
      {"nested and repeated messages", R"({"child":{"child":{}},"rm":[{"b":true},{}]})",
       R"({"child":{"child":{}},"rm":[{"b":true},{}]})"},
      {"maps keep the order of their members",
       R"({"sm":{"b":"2","a":1},"bm":{"true":1,"false":"ZERO"},"im":{"-5":{"i32":1},"3":{}}})",
       R"({"sm":{"b":"2","a":"1"},"bm":{"true":"ONE","false":"ZERO"},"im":{"-5":{"i32":1},"3":{}}})"},
      {"entries of a message without map_entry are an array", R"({"pairs":[{"key":"k"}]})",
       R"({"pairs":[{"key":"k"}]})"},
  };
  SchemaStore store(sampleManifest());
  const MessageSchema schema = store.messageSchema("t.Sample");
  for (const EncodeRow& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(toJSON(encodeJSON(schema, row.json)), row.rendered);
  }
}

TEST(JsonEncodingTest, WritesMapEntriesWithKeyAndValue) {
  SchemaStore store(sampleManifest());
  const SchematizedData data = encodeJSON(store.messageSchema("t.Sample"), R"({"sm":{"":0}})");
  // Field 21, length 4: key "" (0A 00) and value 0 (10 00).
  EXPECT_EQ(data.data(), testing_support::bytesOf({0xAA, 0x01, 0x04, 0x0A, 0x00, 0x10, 0x00}));
}

TEST(JsonEncodingTest, ReadsTheTypeOfAnAnyWhereverItStands) {
  const std::vector<EncodeRow> rows = {
      {"after the fields",
       R"({"any":{"big_id":"7","@type":"type.googleapis.com/ostrel.test.wkt.Inner"}})",
       R"({"any":{"@type":"type.googleapis.com/ostrel.test.wkt.Inner","big_id":"7"}})"},
      {"after the value of a well-known type",
       R"({"any":{"value":"1s","@type":"type.googleapis.com/google.protobuf.Duration"}})",
       R"({"any":{"@type":"type.googleapis.com/google.protobuf.Duration","value":"1s"}})"},
      {"between fields, around an Any inside",
       R"({"any":{"display_name":"a","@type":"type.googleapis.com/ostrel.test.wkt.Inner","nested_anys":)"
       R"([{"big_id":"1","@type":"type.googleapis.com/ostrel.test.wkt.Inner"}]}})",
       R"({"any":{"@type":"type.googleapis.com/ostrel.test.wkt.Inner","display_name":"a","nested_anys":)"
       R"([{"@type":"type.googleapis.com/ostrel.test.wkt.Inner","big_id":"1"}]}})"},
  };
  SchemaStore store(generatedManifest("well_known.desc"));
  const MessageSchema holder = store.messageSchema("ostrel.test.wkt.Holder");
  for (const EncodeRow& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(toJSON(encodeJSON(holder, row.json)), row.rendered);
  }
}

std::string nestedNodes(int depth) {
  std::string json;
  for (int i = 1; i < depth; ++i) json += R"({"child":)";
  json += "{}";
  for (int i = 1; i < depth; ++i) json += "}";
  return json;
}

TEST(JsonEncodingTest, NestsAtMostAHundredMessages) {
  SchemaStore store(sampleManifest());
  const MessageSchema node = store.messageSchema("t.Node");
  EXPECT_EQ(toJSON(encodeJSON(node, nestedNodes(100))), nestedNodes(100));
  for (const int depth : {101, 201}) {
    SCOPED_TRACE(depth);
    EXPECT_EQ(catchError([&] { encodeJSON(node, nestedNodes(depth)); }),
              SchematizerError::protocolBufferError("Nesting deeper than 100 messages"));
  }
  // Text nested deeper than any message can be is refused while it is parsed, before a document
  // of it is built, naming where the parse stopped.
  std::string path = "$";
  for (int i = 1; i < 202; ++i) path += ".child";
  for (const int depth : {202, 1'000'000}) {
    SCOPED_TRACE(depth);
    EXPECT_EQ(catchError([&] { encodeJSON(node, nestedNodes(depth)); }),
              SchematizerError::unexpectedType(path + ": nesting deeper than 201 levels"));
  }
}

struct ErrorRow {
  std::string name;
  std::string json;
  SchematizerError expected;
};

TEST(JsonEncodingTest, RejectsWhatItCannotWrite) {
  const auto unexpected = [](const std::string& text) {
    return SchematizerError::unexpectedType(text);
  };
  const std::vector<ErrorRow> rows = {
      {"not JSON", "{\"i32\":",
       unexpected("invalid JSON: The JSON document has an improper structure: missing or "
                  "superfluous commas, braces, missing keys, etc.")},
      {"not an object", "[]", unexpected("$: expected an object")},
      {"unknown member", R"({"i32":1,"nope":1})",
       SchematizerError::fieldNotFound("Schema \"t.Sample\" property with name \"nope\"")},
      {"unknown member of a nested message", R"({"child":{"zz":1}})",
       SchematizerError::fieldNotFound("Schema \"t.Sample\" property with name \"zz\"")},
      {"integer with a fraction", R"({"i32":1.5})",
       unexpected("$.i32: expected an integer of type int32")},
      {"integer as a boolean", R"({"sf32":true})",
       unexpected("$.sf32: expected an integer of type sfixed32")},
      {"integer string with other characters", R"({"i64":"12a"})",
       unexpected("$.i64: expected an integer of type int64")},
      {"integer string with a plus sign", R"({"i64":"+1"})",
       unexpected("$.i64: expected an integer of type int64")},
      {"empty integer string", R"({"s64":""})",
       unexpected("$.s64: expected an integer of type sint64")},
      {"int32 above its range", R"({"i32":2147483648})",
       unexpected("$.i32: expected an integer in the range of int32")},
      {"uint32 below its range", R"({"u32":-1})",
       unexpected("$.u32: expected an integer in the range of uint32")},
      {"fixed32 string above its range", R"({"f32":"4294967296"})",
       unexpected("$.f32: expected an integer in the range of fixed32")},
      {"uint64 string above its range", R"({"u64":"18446744073709551616"})",
       unexpected("$.u64: expected an integer in the range of uint64")},
      {"int64 string below its range", R"({"i64":"-9223372036854775809"})",
       unexpected("$.i64: expected an integer in the range of int64")},
      {"fixed64 number beyond 64 bits", R"({"f64":1e20})",
       unexpected("$.f64: expected an integer in the range of fixed64")},
      {"float above its range", R"({"fl":1e39})",
       unexpected("$.fl: expected a number in the range of float")},
      {"float rounding to infinity", R"({"fl":-3.4028236e38})",
       unexpected("$.fl: expected a number in the range of float")},
      {"enum numeric string above int32", R"({"e":"2147483648"})",
       unexpected("$.e: expected an integer in the range of int32")},
      {"double as a word", R"({"db":"inf"})", unexpected("$.db: expected a number of type double")},
      {"lone surrogate in a member name", R"({"sm":{"\udc00":1}})",
       unexpected("invalid JSON: Problem while parsing a string")},
      {"number beyond every double", R"({"db":1e999})",
       unexpected("invalid JSON: Problem while parsing a number")},
      {"float as an object", R"({"fl":{}})", unexpected("$.fl: expected a number of type float")},
      {"bool as a string", R"({"b":"true"})", unexpected("$.b: expected a boolean")},
      {"string as a number", R"({"s":1})", unexpected("$.s: expected a string")},
      {"bytes not in base64", R"({"by":"AP8"})", unexpected("$.by: expected a base64 string")},
      {"bytes as a number", R"({"by":1})", unexpected("$.by: expected a base64 string")},
      {"enum name the enum lacks", R"({"e":"TWO"})",
       SchematizerError::enumValueNotFound("Enum: t.Kind, TWO value")},
      {"enum as a boolean", R"({"e":true})", unexpected("$.e: expected an enum name or number")},
      {"enum number above int32", R"({"e":2147483648})",
       unexpected("$.e: expected an integer in the range of int32")},
      {"message as a number", R"({"child":1})", unexpected("$.child: expected an object")},
      {"repeated field as a single value", R"({"ri":1})", unexpected("$.ri: expected an array")},
      {"element of a repeated field", R"({"rm":[{},{"i32":"x"}]})",
       unexpected("$.rm[1].i32: expected an integer of type int32")},
      {"null element", R"({"rs":["a",null]})", unexpected("$.rs[1]: expected a string")},
      {"map as an array", R"({"sm":[]})", unexpected("$.sm: expected an object")},
      {"map key not an integer", R"({"im":{"x":{}}})",
       unexpected("$.im[\"x\"]: expected an integer of type int32")},
      {"map key not a bool", R"({"bm":{"yes":"ONE"}})",
       unexpected("$.bm[\"yes\"]: expected a key of type bool")},
      {"map value of the wrong kind", R"({"sm":{"a\"b":true}})",
       unexpected("$.sm[\"a\\\"b\"]: expected an integer of type int64")},
      {"message type the store lacks", R"({"missing":{}})",
       SchematizerError::schemaNotFound("t.Missing")},
      // Of two members of one name, neither can be taken without losing the other.
      {"member twice", R"({"i32":1,"u32":2,"i32":3})", unexpected(R"($: duplicate key "i32")")},
      {"member twice, once null", R"({"i32":null,"i32":1})",
       unexpected(R"($: duplicate key "i32")")},
      {"member twice in a nested message", R"({"child":{"child":{"rs":[],"rs":[]}}})",
       unexpected(R"($.child.child: duplicate key "rs")")},
      {"map key twice", R"({"rm":[{}],"sm":{"a":1,"b":2,"a":1}})",
       unexpected(R"($.sm: duplicate key "a")")},
      {"map key twice in an element", R"({"rm":[{},{"sm":{"\u00fc":1,"\u00fc":2}}]})",
       unexpected("$.rm[1].sm: duplicate key \"\xc3\xbc\"")},
  };
  SchemaStore store(sampleManifest());
  const MessageSchema schema = store.messageSchema("t.Sample");
  for (const ErrorRow& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(catchError([&] { encodeJSON(schema, row.json); }), row.expected);
  }
}

}  // namespace
}  // namespace ostrel
