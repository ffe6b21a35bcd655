// ProtoJSON of the well-known types: edge values one by one, and the forms only the encoder reads.
// Generated messages are compared with libprotobuf's JSON, both ways, in the differential suite.

#include <google/protobuf/any.pb.h>
#include <google/protobuf/duration.pb.h>
#include <google/protobuf/field_mask.pb.h>
#include <google/protobuf/struct.pb.h>
#include <google/protobuf/text_format.h>
#include <google/protobuf/timestamp.pb.h>
#include <google/protobuf/util/json_util.h>
#include <google/protobuf/wrappers.pb.h>
#include <gtest/gtest.h>

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
using testing_support::generatedManifest;

class WellKnownJsonTest : public ::testing::Test {
 protected:
  SchemaStore store_{generatedManifest("well_known.desc")};
  MessageSchema holder_ = store_.messageSchema("ostrel.test.wkt.Holder");
};

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
      {"timestamp { seconds: 951782400 nanos: 1000 }",
       R"({"timestamp":"2000-02-29T00:00:00.000001Z"})"},
      {"duration { seconds: 315576000000 nanos: 999999999 }",
       R"({"duration":"315576000000.999999999s"})"},
      {"duration { seconds: -1 nanos: -999999999 }", R"({"duration":"-1.999999999s"})"},
      // The ends of the letters that may follow an underscore.
      {"field_mask { paths: 'a_a' paths: 'z_z.y' }", R"({"field_mask":"aA,zZ.y"})"},
  };
  testing_support::MessageComparison comparison;
  for (const auto& [proto, expected] : rows) {
    SCOPED_TRACE(proto);
    const wkt::Holder message = holder(proto);
    const std::string text = renderJSON(holder_.schematizedData(message.SerializeAsString()));
    EXPECT_EQ(text, expected);
    EXPECT_TRUE(comparison.equal(message, parse(parseJSON(holder_, text))))
        << comparison.differences();
  }
  // A well-known type packed in an Any is its "value" member, indented as the "@type" one.
  const wkt::Holder any =
      holder("any { [type.googleapis.com/google.protobuf.Duration] { seconds: 1 } }");
  EXPECT_EQ(
      renderJSON(holder_.schematizedData(any.SerializeAsString()), {.style = JsonStyle::indented}),
      "{\n  \"any\": {\n    \"@type\": \"type.googleapis.com/google.protobuf.Duration\",\n"
      "    \"value\": \"1s\"\n  }\n}");
}

// The Anys packed in one another count toward the hundred messages a rendering nests at most.
TEST_F(WellKnownJsonTest, AnysNestAtMostAHundredDeep) {
  wkt::Holder message;
  for (int i = 0; i < 100; ++i) {
    pb::Any outer;
    outer.PackFrom(message.any());
    *message.mutable_any() = outer;
  }
  EXPECT_NE(renderJSON(holder_.schematizedData(message.SerializeAsString()))
                .find("Nesting deeper than 100 messages"),
            std::string::npos);
}

// A value its JSON form cannot express: the field gets the error text, which starts with the field.
TEST_F(WellKnownJsonTest, RefusesToRenderOutOfRangeValues) {
  const std::vector<std::pair<std::string, std::string>> rows = {
      {"timestamp { seconds: -62135596801 }", "google.protobuf.Timestamp out of range"},
      {"timestamp { seconds: 253402300800 }", "google.protobuf.Timestamp out of range"},
      {"timestamp { nanos: -1 }", "google.protobuf.Timestamp out of range"},
      {"duration { seconds: 315576000001 }", "google.protobuf.Duration out of range"},
      {"duration { seconds: 1 nanos: -1 }", "google.protobuf.Duration out of range"},
      {"field_mask { paths: 'fooZar' }", "google.protobuf.FieldMask path"},
      // Its lowerCamelCase form would not read back as the same path.
      {"field_mask { paths: 'a_b_c' }", "google.protobuf.FieldMask path"},
      {"field_mask { paths: 'a_' }", "google.protobuf.FieldMask path"},
      {"value { number_value: nan }", "google.protobuf.Value number"},
      {"value { number_value: -inf }", "google.protobuf.Value number"},
      {"any { type_url: 'type.googleapis.com/no.Such' }",
       R"(google.protobuf.Any of unknown type URL \"type.googleapis.com/no.Such\")"},
  };
  for (const auto& [proto, error] : rows) {
    SCOPED_TRACE(proto);
    const std::string text = renderJSON(holder_.schematizedData(holder(proto).SerializeAsString()));
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
      {R"({"timestamp":"1970-01-01T00:00:00-05:30"})", "timestamp { seconds: 19800 }"},
      {R"({"nulls":["NULL_VALUE",0,null]})", "nulls: NULL_VALUE nulls: NULL_VALUE nulls: 0"},
      {R"({"field_mask":"Foo,fooAbc,fooBAR,aBCd"})",
       "field_mask { paths: 'foo' paths: 'foo_abc' paths: 'foo_bar' paths: 'a_b_cd' }"},
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
    EXPECT_TRUE(comparison.equal(holder(proto), parse(parseJSON(holder_, json))))
        << comparison.differences();
  }
  // An Any names its type once.
  EXPECT_EQ(testing_support::catchError([&] {
              parseJSON(holder_,
                        R"({"any":{"@type":")" + inner + R"(","@type":")" + inner + "\"}}");
            }),
            SchematizerError::unexpectedType(R"($.any: duplicate key "@type")"));
}

}  // namespace
}  // namespace ostrel
