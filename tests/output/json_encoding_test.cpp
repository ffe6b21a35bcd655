// JSON encoding: the value forms each type accepts and the errors with their exact texts.
// Renderings of random messages are encoded back, and the edges of each scalar's forms are
// compared with libprotobuf's reader, in the differential suite.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ostrel/output/json.hpp"
#include "output/json_test_support.hpp"
#include "support/test_support.hpp"

namespace ostrel {
namespace {

using testing_support::catchError;
using testing_support::sampleManifest;

struct EncodeRow {
  std::string name;
  std::string json;
  // The rendering of the encoded message.
  std::string rendered;
};

TEST(JsonEncodingTest, AcceptsEveryFormOfEachType) {
  const std::vector<EncodeRow> rows = {
      {"null is an absent field", R"({"i32":null,"ri":null,"e":null})", "{}"},
      {"integers written as exact floating-point numbers",
       R"({"i32":1e2,"i64":-9.223372036854775808e18,"u64":1E19})",
       R"({"i32":100,"i64":"-9223372036854775808","u64":"10000000000000000000"})"},
      {"2^63 is no int64 but a uint64", R"({"u64":9.223372036854775808e18})",
       R"({"u64":"9223372036854775808"})"},
      {"negative zeros keep their sign", R"({"fl":-0.0,"db":-0.0})", R"({"fl":-0.0,"db":-0.0})"},
      {"bytes in the URL-safe alphabet, padded or not", R"({"by":"-_8","rm":[{"by":"-_8="}]})",
       R"({"by":"+/8=","rm":[{"by":"+/8="}]})"},
      {"bytes of zero bits, unpadded", R"({"by":"AAA"})", R"({"by":"AAA="})"},
      {"null leaves a oneof member out", R"({"o1":null,"o2":{}})", R"({"o2":{}})"},
      {"numbers of more than 19 significant digits",
       R"({"db":0.1000000000000000055511151231257827021181583404541015625,)"
       R"("u64":18446744073709551615,"rf":[1.00000000000000000000000001e-400,0.)" +
           std::string(1000, '0') + "1e10,1" + std::string(2'000'000, '0') + "e-10000000]}",
       R"({"u64":"18446744073709551615","db":0.1,"rf":[0,0,0]})"},
      {"member names with escapes, at each UTF-8 length's ends",
       R"({"\u0069\u0033\u0032":1,"sm":{"\u0000\ud83d\ude00\n\ud800\udc00\uDBFF\uDFFF":2,)"
       R"("\u007f\u0080\u00CA\u07ff\u0800\uffff":3}})",
       "{\"i32\":1,\"sm\":{\"\\u0000\xF0\x9F\x98\x80\\n\xF0\x90\x80\x80\xF4\x8F\xBF\xBF\":\"2\","
       "\"\x7F\xC2\x80\xC3\x8A\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF\":\"3\"}}"},
      {"enums by name, by number and by numeric string", R"({"e":"ONE","re":[0,"ZERO",7,"-1"]})",
       R"({"e":"ONE","re":["ZERO","ZERO",7,-1]})"},
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
    EXPECT_EQ(renderJSON(parseJSON(schema, row.json)), row.rendered);
  }
}

// Far deeper text is the reliability tests' part; here the limits themselves: a hundred messages,
// and text nested deeper than any message can be, refused while it is parsed.
TEST(JsonEncodingTest, NestsAtMostAHundredMessages) {
  SchemaStore store(sampleManifest());
  const MessageSchema node = store.messageSchema("t.Node");
  const auto nested = [](int depth) {
    std::string json = "{}";
    for (int i = 1; i < depth; ++i) json = R"({"child":)" + json + "}";
    return json;
  };
  EXPECT_EQ(renderJSON(parseJSON(node, nested(100))), nested(100));
  const auto tooDeep = SchematizerError::protocolBufferError("Nesting deeper than 100 messages");
  EXPECT_EQ(catchError([&] { parseJSON(node, nested(101)); }), tooDeep);
  EXPECT_EQ(catchError([&] { parseJSON(node, nested(201)); }), tooDeep);
  std::string path = "$";
  for (int i = 1; i < 202; ++i) path += ".child";
  EXPECT_EQ(catchError([&] { parseJSON(node, nested(202)); }),
            SchematizerError::unexpectedType(path + ": nesting deeper than 201 levels"));
  // Messages eight deep, where the whole text is checked before the encoder goes deeper: it is
  // checked once, not again for each of them (which would take a quarter of an hour for this text).
  const std::string wide = testing_support::repeated(R"({"child":)", 7) + R"({"rm":[{})" +
                           testing_support::repeated(",{}", 199999) + "]}" +
                           testing_support::repeated("}", 7);
  EXPECT_EQ(renderJSON(parseJSON(store.messageSchema("t.Sample"), wide)), wide);
  // The path counts the elements and names the members before the deep one.
  path = "$.rm[1].ri[1]";
  for (int i = 0; i < 197; ++i) path += "[0]";
  EXPECT_EQ(catchError([&] {
              parseJSON(node, R"({"i32":1,"rm":[{},{"ri":[0,)" + std::string(200, '[') +
                                  std::string(200, ']') + "]}]}");
            }),
            SchematizerError::unexpectedType(path + ": nesting deeper than 201 levels"));
}

struct ErrorRow {
  std::string json;
  SchematizerError expected;
};

// "\"k0\":0,\"k1\":1,...", `count` members.
std::string manyKeys(int count) {
  std::string members;
  for (int i = 0; i < count; ++i) {
    members += (i == 0 ? "\"k" : ",\"k") + std::to_string(i) + "\":" + std::to_string(i);
  }
  return members;
}

TEST(JsonEncodingTest, RejectsWhatItCannotWrite) {
  const auto u = [](const std::string& text) { return SchematizerError::unexpectedType(text); };
  const std::vector<ErrorRow> rows = {
      {"{\"i32\":", u("invalid JSON: The JSON document has an improper structure: missing or "
                      "superfluous commas, braces, missing keys, etc.")},
      {"[]", u("$: expected an object")},
      {R"({"i32":1,"nope":1})",
       SchematizerError::fieldNotFound("Schema \"t.Sample\" property with name \"nope\"")},
      {R"({"child":{"zz":1}})",
       SchematizerError::fieldNotFound("Schema \"t.Sample\" property with name \"zz\"")},
      {R"({"i32":1.5})", u("$.i32: expected an integer of type int32")},
      {R"({"sf32":true})", u("$.sf32: expected an integer of type sfixed32")},
      {R"({"i64":"12a"})", u("$.i64: expected an integer of type int64")},
      {R"({"i64":"+1"})", u("$.i64: expected an integer of type int64")},
      {R"({"s64":""})", u("$.s64: expected an integer of type sint64")},
      {R"({"i32":2147483648})", u("$.i32: expected an integer in the range of int32")},
      {R"({"u32":-1})", u("$.u32: expected an integer in the range of uint32")},
      {R"({"f32":"4294967296"})", u("$.f32: expected an integer in the range of fixed32")},
      {R"({"u64":"18446744073709551616"})", u("$.u64: expected an integer in the range of uint64")},
      {R"({"i64":"-9223372036854775809"})", u("$.i64: expected an integer in the range of int64")},
      {R"({"f64":1e20})", u("$.f64: expected an integer in the range of fixed64")},
      {R"({"fl":1e39})", u("$.fl: expected a number in the range of float")},
      {R"({"fl":-3.4028236e38})", u("$.fl: expected a number in the range of float")},
      {R"({"fl":3.4028235677973366e38})", u("$.fl: expected a number in the range of float")},
      {R"({"e":"2147483648"})", u("$.e: expected an integer in the range of int32")},
      {R"({"db":"inf"})", u("$.db: expected a number of type double")},
      {R"({"sm":{"\udc00":1}})", u("invalid JSON: Problem while parsing a string")},
      {R"({"sm":{"\udfff":1}})", u("invalid JSON: Problem while parsing a string")},
      {R"({"sm":{"\ud800x":1}})", u("invalid JSON: Problem while parsing a string")},
      {R"({"sm":{"\ud800\u0041":1}})", u("invalid JSON: Problem while parsing a string")},
      {R"({"sm":{"a\ud800":1}})", u("invalid JSON: Problem while parsing a string")},
      {R"({"db\q":1})", u("invalid JSON: Problem while parsing a string")},
      {R"({"\u00G0":1})", u("invalid JSON: Problem while parsing a string")},
      {R"({"db":1e999})", u("invalid JSON: Problem while parsing a number")},
      {R"({"db":1.e5})", u("invalid JSON: Problem while parsing a number")},
      {R"({"db":0.)" + std::string(400, '1') + "e400}",
       u("invalid JSON: Problem while parsing a number")},
      {R"({"db":1.)" + std::string(400, '0') + "e400}",
       u("invalid JSON: Problem while parsing a number")},
      {R"({"db":1)" + std::string(310, '0') + "}",
       u("invalid JSON: Problem while parsing a number")},
      {R"({"fl":{}})", u("$.fl: expected a number of type float")},
      {R"({"b":"true"})", u("$.b: expected a boolean")},
      {R"({"s":1})", u("$.s: expected a string")},
      {R"({"by":"AP8=A"})", u("$.by: expected a base64 string")},
      {R"({"by":"AP=8"})", u("$.by: expected a base64 string")},
      {R"({"by":"A!"})", u("$.by: expected a base64 string")},
      {R"({"by":"AP!"})", u("$.by: expected a base64 string")},
      {R"({"o1":1,"o2":{}})", u(R"($.o2: expected one member of a oneof, found "o1" too)")},
      {R"({"by":1})", u("$.by: expected a base64 string")},
      {R"({"e":"TWO"})", SchematizerError::enumValueNotFound("Enum: t.Kind, TWO value")},
      {R"({"e":true})", u("$.e: expected an enum name or number")},
      {R"({"e":2147483648})", u("$.e: expected an integer in the range of int32")},
      {R"({"child":1})", u("$.child: expected an object")},
      {R"({"ri":1})", u("$.ri: expected an array")},
      {R"({"rm":[{},{"i32":"x"}]})", u("$.rm[1].i32: expected an integer of type int32")},
      {R"({"rs":["a",null]})", u("$.rs[1]: expected a string")},
      {R"({"sm":[]})", u("$.sm: expected an object")},
      {R"({"im":{"x":{}}})", u("$.im[\"x\"]: expected an integer of type int32")},
      {R"({"bm":{"yes":"ONE"}})", u("$.bm[\"yes\"]: expected a key of type bool")},
      {R"({"sm":{"a\"b":true}})", u("$.sm[\"a\\\"b\"]: expected an integer of type int64")},
      {R"({"missing":{}})", SchematizerError::schemaNotFound("t.Missing")},
      // Of two members of one name, neither can be taken without losing the other.
      {R"({"i32":1,"u32":2,"i32":3})", u(R"($: duplicate key "i32")")},
      {R"({"i32":null,"i32":1})", u(R"($: duplicate key "i32")")},
      {R"({"child":{"child":{"rs":[],"rs":[]}}})", u(R"($.child.child: duplicate key "rs")")},
      {R"({"rm":[{}],"sm":{"a":1,"b":2,"a":1}})", u(R"($.sm: duplicate key "a")")},
      {R"({"rm":[{},{"sm":{"\u00fc":1,"\u00fc":2}}]})",
       u("$.rm[1].sm: duplicate key \"\xc3\xbc\"")},
      // Far apart in a large map, and after a fault of the map's writing.
      {R"({"sm":{)" + manyKeys(5000) + R"(,"k4321":1}})", u(R"($.sm: duplicate key "k4321")")},
      {R"({"im":{)" + manyKeys(100) + R"(,"k7":1}})", u(R"($.im: duplicate key "k7")")},
      // Of 33 keys, whose hashes share no slot of the table but those of the key given twice.
      {R"({"sm":{)" + manyKeys(32) + R"(,"k0":1}})", u(R"($.sm: duplicate key "k0")")},
  };
  SchemaStore store(sampleManifest());
  const MessageSchema schema = store.messageSchema("t.Sample");
  for (const ErrorRow& row : rows) {
    SCOPED_TRACE(row.json);
    EXPECT_EQ(catchError([&] { parseJSON(schema, row.json); }), row.expected);
  }
}

// Members are told apart by the index of their name, and fields by theirs, past the first 64 too.
TEST(JsonEncodingTest, RefusesMembersGivenTwiceInAMessageOfManyFields) {
  SchemaManifest manifest;
  for (int i = 1; i <= 70; ++i) {
    manifest.messages["t.Wide"].fields["f_" + std::to_string(i)] = {.type = TypeManifest::int32,
                                                                    .fieldNumber = i};
  }
  const SchemaStore store(manifest);
  const MessageSchema wide = store.messageSchema("t.Wide");
  EXPECT_EQ(catchError([&] { parseJSON(wide, R"({"f_70":1,"f_70":2})"); }),
            SchematizerError::unexpectedType(R"($: duplicate key "f_70")"));
  EXPECT_EQ(
      catchError([&] { parseJSON(wide, R"({"f70":1,"f_70":2})"); }),
      SchematizerError::unexpectedType("$.f_70: expected the field once, under one of its names"));
  EXPECT_EQ(renderJSON(parseJSON(wide, R"({"f_69":1,"f70":2})")), R"({"f_69":1,"f_70":2})");
}

}  // namespace
}  // namespace ostrel
