#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "manifest/descriptor_test_support.hpp"
#include "ostrel/core/values.hpp"
#include "ostrel/manifest/manifest_data.hpp"
#include "support/test_support.hpp"

namespace ostrel {
namespace {

using testing_support::bytesOf;
using testing_support::catchError;

constexpr int64_t kInt64Min = std::numeric_limits<int64_t>::min();
constexpr int64_t kInt64Max = std::numeric_limits<int64_t>::max();

TEST(Base64, EncodesAndDecodesKnownVectors) {
  const std::pair<Bytes, std::string> rows[] = {
      {{}, ""},
      {toBytes("f"), "Zg=="},
      {toBytes("foo"), "Zm9v"},
      {bytesOf({0xfb, 0xff}), "+/8="},
      {bytesOf({0xff, 0xff, 0xff}), "////"},
  };
  for (const auto& [bytes, text] : rows) {
    SCOPED_TRACE(text);
    EXPECT_EQ(base64Encode(bytes), text);
    EXPECT_EQ(base64Decode(text), std::optional<Bytes>(bytes));
    std::string appended = "\"";
    appendBase64(bytes, appended);
    EXPECT_EQ(appended, "\"" + text);
  }
  // Every byte value, in whole groups and a last one of a single byte.
  Bytes all;
  for (int value = 0; value < 256; ++value) all.push_back(static_cast<std::byte>(value));
  EXPECT_EQ(base64Decode(base64Encode(all)), std::optional<Bytes>(all));
}

SchemaManifest example() {
  SchemaManifest m;
  MessageManifest& order = m.messages["shop.Order"];
  order.fields["id"] = {.type = TypeManifest::uint64, .fieldNumber = 1};
  order.fields["items"] = {.type = TypeManifest::message,
                           .typeName = "shop.Item",
                           .fieldNumber = 2,
                           .isRepeated = true,
                           .delimited = true};
  order.fields["state"] = {.type = TypeManifest::enum_,
                           .typeName = "shop.State",
                           .fieldNumber = 3,
                           .oneofIndex = 0,
                           .options = bytesOf({0x18, 0x01})};
  order.oneofs = {{"status"}};
  order.options = bytesOf({0x18, 0x01});
  m.enums["shop.State"] = {.values = {{"OPEN", 0}, {"PAID", 1}},
                           .valueOptions = {{1, bytesOf({0x08, 0x01})}}};
  return m;
}

// The writer gives exactly this text, and the reader gives the manifest back from it.
TEST(SchemaManifestJSON, WritesSortedMembersAndOmitsDefaultsButKeepsEmptyBuffers) {
  struct Row {
    const char* name;
    SchemaManifest manifest;
    std::string json;
  };
  std::vector<Row> rows;
  rows.push_back({"empty manifest", {}, "{}"});
  rows.push_back(
      {"example", example(),
       R"({"enums":{"shop.State":{"valueOptions":{"1":"CAE="},"values":{"OPEN":0,"PAID":1}}},)"
       R"("messages":{"shop.Order":{"fields":{"id":{"fieldNumber":1,"type":"uint64"},)"
       R"("items":{"delimited":true,"fieldNumber":2,"isRepeated":true,"type":"schema",)"
       R"("typeName":"shop.Item"},)"
       R"("state":{"fieldNumber":3,"oneofIndex":0,"options":"GAE=","type":"enum",)"
       R"("typeName":"shop.State"}},"oneofs":[{"name":"status"}],"options":"GAE="}}})"});
  SchemaManifest m;
  m.messages["a.M"].options = Bytes{};
  m.messages["a.M"].fields["f"] = {.typeName = "", .fieldNumber = 7, .options = Bytes{}};
  m.messages["a.M"].oneofs = {{"o", Bytes{}}, {"p"}};
  m.enums["a.E"] = {.options = Bytes{}, .valueOptions = {{-3, Bytes{}}}};
  m.enums["a.F"];
  rows.push_back({"empty buffers and type name, empty enum", m,
                  R"({"enums":{"a.E":{"options":"","valueOptions":{"-3":""}},"a.F":{}},)"
                  R"("messages":{"a.M":{"fields":{"f":{"fieldNumber":7,"options":"",)"
                  R"("type":"int","typeName":""}},"oneofs":[{"name":"o","options":""},)"
                  R"({"name":"p"}],"options":""}}})"});
  m = {};
  m.enums["a.E"].values = {{"MIN", kInt64Min}, {"MAX", kInt64Max}};
  m.enums["a.E"].valueOptions = {{kInt64Min, bytesOf({1})}, {kInt64Max, bytesOf({2})}};
  rows.push_back({"extreme integers", m,
                  R"({"enums":{"a.E":{"valueOptions":{"-9223372036854775808":"AQ==",)"
                  R"("9223372036854775807":"Ag=="},"values":{"MAX":9223372036854775807,)"
                  R"("MIN":-9223372036854775808}}}})"});
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(schemaManifestToJSON(row.manifest), row.json);
    EXPECT_EQ(schemaManifestFromJSON(row.json), row.manifest);
  }
  // The indented form: two spaces a level, and an empty object stays "{}".
  SchemaManifest small;
  small.enums["a.E"];
  small.enums["a.F"];
  EXPECT_EQ(schemaManifestToJSON(small, true),
            "{\n  \"enums\": {\n    \"a.E\": {},\n    \"a.F\": {}\n  }\n}");
}

// What the writer never writes reads as what it writes.
TEST(SchemaManifestFromJSON, AcceptsWhatTheWriterNeverWrites) {
  const std::pair<std::string, std::string> rows[] = {
      {R"({"messages":{"M":{"oneofs":[{"name":"a"}],"fields":{"f":{"type":"int","fieldNumber":1,)"
       R"("isRepeated":false,"oneofIndex":-0}}}}})",
       R"({"messages":{"M":{"fields":{"f":{"fieldNumber":1,"oneofIndex":0,"type":"int"}},)"
       R"("oneofs":[{"name":"a"}]}}})"},
      {R"({"enums":{"E":{"valueOptions":{"9223372036854775807":"AA==","0":"","10":"","-10":"AQ==",)"
       R"("-9223372036854775808":""}}}})",
       R"({"enums":{"E":{"valueOptions":{"-10":"AQ==","-9223372036854775808":"","0":"","10":"",)"
       R"("9223372036854775807":"AA=="}}}})"},
  };
  for (const auto& [json, written] : rows) {
    EXPECT_EQ(schemaManifestToJSON(schemaManifestFromJSON(json)), written);
  }
}

TEST(SchemaManifestFromJSON, RejectsWhatIsNotAManifestNamingThePath) {
  // A message "M" with one oneof and one field "f" whose members are `members`.
  const auto withField = [](const std::string& members) {
    return R"({"messages":{"M":{"oneofs":[{"name":"o"}],"fields":{"f":{)" + members + "}}}}}";
  };
  const auto withInt = [&](const std::string& members) {
    return withField(R"("type":"int","fieldNumber":1,)" + members);
  };
  const auto withEnum = [](const std::string& members) {
    return R"({"enums":{"E":{)" + members + "}}}";
  };
  const std::string f = R"(messages["M"].fields["f"])";
  const std::string e = R"(enums["E"])";
  const std::pair<std::string, std::string> rows[] = {
      {"[]", "$: expected an object"},
      {R"({"mesages":{}})", "mesages: unknown member"},
      {R"({"a b":1})", R"($["a b"]: unknown member)"},
      {R"({"enums":null})", "enums: expected an object"},
      {R"({"messages":{"M":{"x-y":1}}})", R"(messages["M"]["x-y"]: unknown member)"},
      {R"({"messages":{"M":{"":1}}})", R"(messages["M"][""]: unknown member)"},
      {R"({"messages":{"M":{"9z":1}}})", R"(messages["M"]["9z"]: unknown member)"},
      {R"({"messages":{"M":{"azAZ_09":1}}})", R"(messages["M"].azAZ_09: unknown member)"},
      {R"({"messages":{"M":{"oneofs":{}}}})", R"(messages["M"].oneofs: expected an array)"},
      {R"({"messages":{"M":{"options":"GAE"}}})", R"(messages["M"].options: expected base64)"},
      {R"({"messages":{"a\"b":1}})", R"(messages["a\"b"]: expected an object)"},
      {R"({"messages":{"M":{"oneofs":[{"name":"a"},"b"]}}})",
       R"(messages["M"].oneofs[1]: expected an object)"},
      {R"({"messages":{"M":{"oneofs":[{"options":""}]}}})",
       R"(messages["M"].oneofs[0].name: missing required member)"},
      {R"({"messages":{"M":{"oneofs":[{"name":1}]}}})",
       R"(messages["M"].oneofs[0].name: expected a string)"},
      {R"({"messages":{"M":{"oneofs":[{"name":"a","index":0}]}}})",
       R"(messages["M"].oneofs[0].index: unknown member)"},
      {withField(R"("fieldNumber":1)"), f + ".type: missing required member"},
      {withField(R"("type":"int")"), f + ".fieldNumber: missing required member"},
      {withField(R"("type":4,"fieldNumber":1)"), f + ".type: expected a string"},
      {withField(R"("type":"a\"b","fieldNumber":1)"), f + R"(.type: unknown type name "a\"b")"},
      {withInt(R"("typeName":null)"), f + ".typeName: expected a string"},
      {withField(R"("type":"int","fieldNumber":"1")"), f + ".fieldNumber: expected an integer"},
      {withField(R"("type":"int","fieldNumber":9223372036854775808)"),
       f + ".fieldNumber: integer out of range"},
      {withInt(R"("isRepeated":1)"), f + ".isRepeated: expected a boolean"},
      {withInt(R"("delimited":true)"), f + ".delimited: only a message field can be delimited"},
      {withInt(R"("oneofIndex":"0")"), f + ".oneofIndex: expected an integer"},
      {withInt(R"("oneofIndex":1)"), f + ".oneofIndex: expected an index into oneofs"},
      {withInt(R"("oneofIndex":-1)"), f + ".oneofIndex: expected an index into oneofs"},
      {withInt(R"("oneofIndex":2147483648)"), f + ".oneofIndex: expected an index into oneofs"},
      {withInt(R"("oneofIndex":4294967296)"), f + ".oneofIndex: expected an index into oneofs"},
      // The largest int32 passes the field's own check; the message's check comes after all fields.
      {R"({"messages":{"M":{"fields":{"f":{"type":"int","fieldNumber":1,"oneofIndex":2147483647},)"
       R"("g":{"type":4,"fieldNumber":2}}}}})",
       R"(messages["M"].fields["g"].type: expected a string)"},
      {withField(R"("type":"int","fieldNumber":0)"),
       f + ".fieldNumber: field number 0 is outside 1 to 536870911"},
      {R"({"messages":{"M":{"fields":{"f":{"type":"int","fieldNumber":4},)"
       R"("g":{"type":"bool","fieldNumber":4}}}}})",
       R"(messages["M"].fields["g"].fieldNumber: field number 4 is also the number of field "f")"},
      {R"({"messages":{"M":{"fields":{"f":{"type":"int","fieldNumber":4},)"
       R"("g":{"type":"int","fieldNumber":5},"h":{"type":"int","fieldNumber":4}}}}})",
       R"(messages["M"].fields["h"].fieldNumber: field number 4 is also the number of field "f")"},
      {R"({"messages":{"M":{"oneofs":[{"name":"o"},{"name":"p"},{"name":"o"}]}}})",
       R"(messages["M"].oneofs[2].name: oneof name "o" occurs twice)"},
      {R"({"enums":{"google.protobuf.FieldDescriptorProto.Label":{"values":{"LABEL_X":1}}}})",
       R"(enums["google.protobuf.FieldDescriptorProto.Label"]: changes a built-in descriptor )"
       R"(type (Conflict merging EnumManifest))"},
      {withInt(R"("label":"optional")"), f + ".label: unknown member"},
      {withEnum(R"("value":{})"), e + ".value: unknown member"},
      {withEnum(R"("values":{"A":"0"})"), e + R"(.values["A"]: expected an integer)"},
      {withEnum(R"("valueOptions":[])"), e + ".valueOptions: expected an object"},
      {withEnum(R"("valueOptions":{"1":1})"), e + R"(.valueOptions["1"]: expected a string)"},
      {withEnum(R"("valueOptions":{"1":"CAE"})"), e + R"(.valueOptions["1"]: expected base64)"},
      {R"({"messages":{},"messages":{}})", "messages: duplicate member"},
      {R"({"messages":{"M":{},"M":{}}})", R"(messages["M"]: duplicate member)"},
      {withInt(R"("fieldNumber":2)"), f + ".fieldNumber: duplicate member"},
      {R"({"messages":{"M":{"oneofs":[{"name":"a"},{"name":"b","name":"c"}]}}})",
       R"(messages["M"].oneofs[1].name: duplicate member)"},
      {"", "$: invalid JSON: Empty: no JSON found"},
      {R"({"messages":1e400})", "$: invalid JSON: Problem while parsing a number"},
  };
  for (const auto& [json, expected] : rows) {
    EXPECT_EQ(catchError([&] { schemaManifestFromJSON(json); }),
              SchemaManifestJSONError::invalidValueType(expected))
        << json;
  }
}

// Only the text writing a number gives names a value: no two keys may name one number.
TEST(SchemaManifestFromJSON, ValueOptionsKeysAreCanonicalIntegers) {
  const auto refusal = [](const std::string& key) {
    return catchError([&] {
      schemaManifestFromJSON(R"({"enums":{"E":{"valueOptions":{")" + key + R"(":""}}}})");
    });
  };
  const auto error = [](const std::string& key, const char* text) {
    return SchemaManifestJSONError::invalidValueType(R"(enums["E"].valueOptions[")" + key +
                                                     R"("]: )" + text);
  };
  for (const char* key : {"A", "", "-", "01", "+1", "-0", " 1", "1.0"}) {
    EXPECT_EQ(refusal(key), error(key, "expected an integer key"));
  }
  for (const char* key : {"9223372036854775808", "-9223372036854775809", "100000000000000000000",
                          "92233720368547758070"}) {
    EXPECT_EQ(refusal(key), error(key, "integer out of range"));
  }
}

}  // namespace
}  // namespace ostrel
