#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "ostrel/core/values.hpp"
#include "ostrel/manifest/manifest_data.hpp"
#include "support/test_support.hpp"

namespace ostrel {
namespace {

using testing_support::bytesOf;
using testing_support::catchError;

constexpr int64_t kInt64Min = std::numeric_limits<int64_t>::min();
constexpr int64_t kInt64Max = std::numeric_limits<int64_t>::max();

// Compares manifests and, when they differ, shows both in their JSON form: the records have no
// printer of their own.
void expectSameManifest(const SchemaManifest& actual, const SchemaManifest& expected) {
  if (actual == expected) return;
  ADD_FAILURE() << "manifests differ\nactual:   " << schemaManifestToJSON(actual, true)
                << "\nexpected: " << schemaManifestToJSON(expected, true);
}

// ---------------------------------------------------------------------------------------------
// base64

TEST(Base64, EncodesAndDecodesKnownVectors) {
  struct Row {
    const char* name;
    Bytes bytes;
    std::string text;
  };
  const Row rows[] = {
      {"empty", {}, ""},
      {"f", toBytes("f"), "Zg=="},
      {"fo", toBytes("fo"), "Zm8="},
      {"foo", toBytes("foo"), "Zm9v"},
      {"foob", toBytes("foob"), "Zm9vYg=="},
      {"fooba", toBytes("fooba"), "Zm9vYmE="},
      {"foobar", toBytes("foobar"), "Zm9vYmFy"},
      {"zero byte", bytesOf({0}), "AA=="},
      {"three zero bytes", bytesOf({0, 0, 0}), "AAAA"},
      {"plus and slash", bytesOf({0xfb, 0xff}), "+/8="},
      {"all ones", bytesOf({0xff, 0xff, 0xff}), "////"},
      {"field options", bytesOf({0x18, 0x01}), "GAE="},
      {"enum value options", bytesOf({0x08, 0x01}), "CAE="},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(base64Encode(row.bytes), row.text);
    EXPECT_EQ(base64Decode(row.text), std::optional<Bytes>(row.bytes));
    std::string appended = "\"";
    appendBase64(row.bytes, appended);
    EXPECT_EQ(appended, "\"" + row.text);
  }
}

TEST(Base64, RejectsTextsThatEncodingWouldNotWrite) {
  struct Row {
    const char* name;
    std::string text;
  };
  const Row rows[] = {
      {"one character", "Z"},
      {"missing padding", "Zg"},
      {"one padding character short", "Zg="},
      {"one character too many", "Zm9vY"},
      {"padding alone", "===="},
      {"three padding characters", "Z==="},
      {"padding then a character", "Zg=a"},
      {"padding in the third place only", "Zm=v"},
      {"padding before the last group", "Zg==Zm9v"},
      {"extra padding group", "Zm9v===="},
      {"unused bits set under two padding characters", "Zh=="},
      {"unused bits set under one padding character", "Zm9="},
      {"url-safe minus", "Zm-v"},
      {"url-safe underscore", "Zm_v"},
      {"space inside", "Zm9v Zg=="},
      {"leading space", " Zm9"},
      {"trailing newline", "Zm9vYmF\n"},
      {"dot", "Zm9."},
      {"non-ASCII", "\xc3\xa9Zg="},
      {"nul character", std::string("Zm9\0", 4)},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(base64Decode(row.text), std::nullopt);
  }
}

TEST(Base64, EveryByteValueAndLengthRoundTrips) {
  Bytes all;
  for (int value = 0; value < 256; ++value) all.push_back(static_cast<std::byte>(value));
  const std::string text = base64Encode(all);
  EXPECT_EQ(text.size(), 344u);
  EXPECT_EQ(base64Decode(text), std::optional<Bytes>(all));

  std::mt19937 random(20240611);
  for (size_t length = 0; length < 64; ++length) {
    SCOPED_TRACE(length);
    for (int round = 0; round < 8; ++round) {
      Bytes bytes(length);
      for (std::byte& b : bytes) b = static_cast<std::byte>(random() & 0xFF);
      const std::string encoded = base64Encode(bytes);
      EXPECT_EQ(encoded.size(), (length + 2) / 3 * 4);
      EXPECT_EQ(base64Decode(encoded), std::optional<Bytes>(bytes));
    }
  }
}

// ---------------------------------------------------------------------------------------------
// The example document

constexpr std::string_view kExample = R"json({
  "messages": {
    "shop.Order": {
      "fields": {
        "id":    {"type": "uint64", "fieldNumber": 1},
        "items": {"type": "schema", "typeName": "shop.Item", "fieldNumber": 2, "isRepeated": true},
        "state": {"type": "enum", "typeName": "shop.State", "fieldNumber": 3, "oneofIndex": 0,
                  "options": "GAE="}
      },
      "oneofs": [{"name": "status"}],
      "options": "GAE="
    }
  },
  "enums": {
    "shop.State": {"values": {"OPEN": 0, "PAID": 1}, "valueOptions": {"1": "CAE="}}
  }
})json";

TEST(SchemaManifestFromJSON, ReadsTheExampleFieldByField) {
  const SchemaManifest manifest = schemaManifestFromJSON(kExample);

  ASSERT_EQ(manifest.messages.size(), 1u);
  ASSERT_EQ(manifest.messages.count("shop.Order"), 1u);
  const MessageManifest& order = manifest.messages.at("shop.Order");
  EXPECT_EQ(order.options, RawOptions(bytesOf({0x18, 0x01})));
  ASSERT_EQ(order.oneofs.size(), 1u);
  EXPECT_EQ(order.oneofs[0].name, "status");
  EXPECT_EQ(order.oneofs[0].options, std::nullopt);
  ASSERT_EQ(order.fields.size(), 3u);

  const FieldManifest& id = order.fields.at("id");
  EXPECT_EQ(id.type, TypeManifest::uint64);
  EXPECT_EQ(id.typeName, std::nullopt);
  EXPECT_EQ(id.fieldNumber, 1);
  EXPECT_FALSE(id.isRepeated);
  EXPECT_EQ(id.oneofIndex, std::nullopt);
  EXPECT_EQ(id.options, std::nullopt);

  const FieldManifest& items = order.fields.at("items");
  EXPECT_EQ(items.type, TypeManifest::message);
  EXPECT_EQ(items.typeName, std::optional<std::string>("shop.Item"));
  EXPECT_EQ(items.fieldNumber, 2);
  EXPECT_TRUE(items.isRepeated);
  EXPECT_EQ(items.oneofIndex, std::nullopt);
  EXPECT_EQ(items.options, std::nullopt);

  const FieldManifest& state = order.fields.at("state");
  EXPECT_EQ(state.type, TypeManifest::enum_);
  EXPECT_EQ(state.typeName, std::optional<std::string>("shop.State"));
  EXPECT_EQ(state.fieldNumber, 3);
  EXPECT_FALSE(state.isRepeated);
  EXPECT_EQ(state.oneofIndex, std::optional<int32_t>(0));
  EXPECT_EQ(state.options, RawOptions(bytesOf({0x18, 0x01})));

  ASSERT_EQ(manifest.enums.size(), 1u);
  const EnumManifest& stateEnum = manifest.enums.at("shop.State");
  EXPECT_EQ(stateEnum.values,
            (std::map<std::string, int64_t, std::less<>>{{"OPEN", 0}, {"PAID", 1}}));
  EXPECT_EQ(stateEnum.options, std::nullopt);
  EXPECT_EQ(stateEnum.valueOptions, (std::map<int64_t, Bytes>{{1, bytesOf({0x08, 0x01})}}));
}

TEST(SchemaManifestToJSON, WritesTheExampleWithSortedMembers) {
  const SchemaManifest manifest = schemaManifestFromJSON(kExample);
  const std::string compact = schemaManifestToJSON(manifest);
  EXPECT_EQ(
      compact,
      R"json({"enums":{"shop.State":{"valueOptions":{"1":"CAE="},"values":{"OPEN":0,"PAID":1}}},)json"
      R"json("messages":{"shop.Order":{"fields":{"id":{"fieldNumber":1,"type":"uint64"},)json"
      R"json("items":{"fieldNumber":2,"isRepeated":true,"type":"schema","typeName":"shop.Item"},)json"
      R"json("state":{"fieldNumber":3,"oneofIndex":0,"options":"GAE=","type":"enum",)json"
      R"json("typeName":"shop.State"}},"oneofs":[{"name":"status"}],"options":"GAE="}}})json");
  // The indented form is the same text spread over lines, two spaces a level (the example's names
  // hold no spaces, so dropping the layout gives the compact form back).
  std::string pretty = schemaManifestToJSON(manifest, true);
  EXPECT_TRUE(
      pretty.starts_with("{\n  \"enums\": {\n    \"shop.State\": {\n      \"valueOptions\""))
      << pretty;
  std::erase(pretty, '\n');
  std::erase(pretty, ' ');
  EXPECT_EQ(pretty, compact);
}

// ---------------------------------------------------------------------------------------------
// Writing

FieldManifest field(TypeManifest type, int64_t number) {
  FieldManifest f;
  f.type = type;
  f.fieldNumber = number;
  return f;
}

TEST(SchemaManifestToJSON, OmitsEmptyAndDefaultMembersAndKeepsEmptyBuffers) {
  struct Row {
    const char* name;
    SchemaManifest manifest;
    std::string json;
  };
  std::vector<Row> rows;
  rows.push_back({"empty manifest", {}, "{}"});
  {
    SchemaManifest m;
    m.messages["a.M"];
    m.enums["a.E"];
    rows.push_back({"empty message and enum", m, R"({"enums":{"a.E":{}},"messages":{"a.M":{}}})"});
  }
  {
    SchemaManifest m;
    m.messages["a.M"].options = Bytes{};
    m.enums["a.E"].options = Bytes{};
    m.enums["a.E"].valueOptions[-3] = Bytes{};
    rows.push_back({"empty buffers are written as empty strings", m,
                    R"({"enums":{"a.E":{"options":"","valueOptions":{"-3":""}}},)"
                    R"("messages":{"a.M":{"options":""}}})"});
  }
  {
    SchemaManifest m;
    FieldManifest f = field(TypeManifest::int32, 7);
    f.typeName = "";
    f.options = Bytes{};
    m.messages["a.M"].fields["f"] = f;
    m.messages["a.M"].oneofs.push_back({"o", Bytes{}});
    m.messages["a.M"].oneofs.push_back({"p", std::nullopt});
    rows.push_back({"default isRepeated, empty typeName and empty options", m,
                    R"({"messages":{"a.M":{"fields":{"f":{"fieldNumber":7,"options":"",)"
                    R"("type":"int","typeName":""}},"oneofs":[{"name":"o","options":""},)"
                    R"({"name":"p"}]}}})"});
  }
  {
    SchemaManifest m;
    m.enums["a.E"].values = {{"MIN", kInt64Min}, {"MAX", kInt64Max}};
    m.enums["a.E"].valueOptions = {{kInt64Min, bytesOf({1})}, {kInt64Max, bytesOf({2})}};
    m.messages["a.M"].fields["f"] = field(TypeManifest::bytes, 536870911);
    rows.push_back({"extreme integers", m,
                    R"({"enums":{"a.E":{"valueOptions":{"-9223372036854775808":"AQ==",)"
                    R"("9223372036854775807":"Ag=="},"values":{"MAX":9223372036854775807,)"
                    R"("MIN":-9223372036854775808}}},"messages":{"a.M":{"fields":{"f":)"
                    R"({"fieldNumber":536870911,"type":"data"}}}}})"});
  }
  {
    SchemaManifest m;
    m.messages["with \"quote\" and \\ and \x01"];
    m.messages["\xc3\xbcnicode"];
    rows.push_back({"names are escaped, not mangled", m,
                    "{\"messages\":{\"with \\\"quote\\\" and \\\\ and \\u0001\":{},"
                    "\"\xc3\xbcnicode\":{}}}"});
  }
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(schemaManifestToJSON(row.manifest), row.json);
    expectSameManifest(schemaManifestFromJSON(row.json), row.manifest);
  }
}

TEST(SchemaManifestToJSON, RejectsNamesThatAreNotUTF8) {
  struct Row {
    const char* name;
    SchemaManifest manifest;
    std::string expected;
  };
  std::vector<Row> rows;
  {
    SchemaManifest m;
    m.messages["a\xff"];
    rows.push_back({"message name", m, "messages[\"a\xef\xbf\xbd\"]: expected UTF-8 text"});
  }
  {
    SchemaManifest m;
    m.messages["M"].fields["\xc0\xaf"] = field(TypeManifest::int32, 1);
    rows.push_back({"overlong field name", m,
                    "messages[\"M\"].fields[\"\xef\xbf\xbd\xef\xbf\xbd\"]: expected UTF-8 text"});
  }
  {
    SchemaManifest m;
    FieldManifest f = field(TypeManifest::message, 1);
    f.typeName = "\xed\xa0\x80";  // a surrogate
    m.messages["M"].fields["f"] = f;
    rows.push_back({"surrogate in a type name", m,
                    "messages[\"M\"].fields[\"f\"].typeName: expected UTF-8 text"});
  }
  {
    SchemaManifest m;
    m.messages["M"].oneofs = {{"ok", std::nullopt}, {"cut\xe2\x82", std::nullopt}};
    rows.push_back(
        {"truncated oneof name", m, "messages[\"M\"].oneofs[1].name: expected UTF-8 text"});
  }
  {
    SchemaManifest m;
    m.enums["E"].values["\xf4\x90\x80\x80"] = 1;  // beyond U+10FFFF
    rows.push_back({"value name beyond the last code point", m,
                    "enums[\"E\"].values[\"\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd\"]: "
                    "expected UTF-8 text"});
  }
  {
    SchemaManifest m;
    m.enums["\x80"];
    rows.push_back({"enum name starting with a continuation byte", m,
                    "enums[\"\xef\xbf\xbd\"]: expected UTF-8 text"});
  }
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(catchError([&] { schemaManifestToJSON(row.manifest); }),
              SchemaManifestJSONError::invalidValueType(row.expected));
  }
}

// ---------------------------------------------------------------------------------------------
// Round trips

// One field of each combination of type, typeName, isRepeated, oneofIndex and options.
MessageManifest everyFieldCombination() {
  MessageManifest message;
  message.oneofs = {{"first", std::nullopt}, {"second", Bytes{}}, {"third", bytesOf({0x08, 1})}};
  const std::optional<std::string> typeNames[] = {std::nullopt, "", "pkg.Type"};
  const std::optional<int32_t> oneofIndices[] = {std::nullopt, 0, 2};
  const RawOptions options[] = {std::nullopt, Bytes{}, bytesOf({0x18, 0x01, 0xff})};
  int64_t number = 0;
  for (int type = 0; type < kTypeManifestCount; ++type) {
    for (const auto& typeName : typeNames) {
      for (const bool isRepeated : {false, true}) {
        for (const auto& oneofIndex : oneofIndices) {
          for (const auto& option : options) {
            FieldManifest f = field(static_cast<TypeManifest>(type), ++number);
            f.typeName = typeName;
            f.isRepeated = isRepeated;
            f.oneofIndex = oneofIndex;
            f.options = option;
            message.fields[std::string("f").append(std::to_string(number))] = f;
          }
        }
      }
    }
  }
  return message;
}

TEST(SchemaManifestJSON, HandMadeManifestsRoundTrip) {
  struct Row {
    const char* name;
    SchemaManifest manifest;
  };
  std::vector<Row> rows;
  rows.push_back({"empty", {}});
  {
    SchemaManifest m;
    m.messages["pkg.All"] = everyFieldCombination();
    ASSERT_EQ(m.messages["pkg.All"].fields.size(), 17u * 3 * 2 * 3 * 3);
    rows.push_back({"every field combination", m});
  }
  {
    SchemaManifest m;
    m.messages["absent"];
    m.messages["empty"].options = Bytes{};
    m.messages["present"].options = bytesOf({0x38, 0x01});
    m.messages["oneofs only"].oneofs = {{"a", std::nullopt}, {"b", Bytes{}}, {"", bytesOf({0})}};
    rows.push_back({"message options and oneofs", m});
  }
  {
    SchemaManifest m;
    m.enums["empty"];
    m.enums["values"].values = {{"A", 0}, {"B", 0}, {"C", -1}, {"D", kInt64Max}, {"E", kInt64Min}};
    m.enums["empty options"].options = Bytes{};
    m.enums["options"].options = bytesOf({0x10, 0x01});
    m.enums["value options"].values = {{"X", 1}};
    m.enums["value options"].valueOptions = {
        {kInt64Min, Bytes{}}, {-1, bytesOf({8, 1})}, {0, bytesOf({0})}, {kInt64Max, Bytes{}}};
    rows.push_back({"enums", m});
  }
  {
    SchemaManifest m;
    m.messages[""].fields[""] = field(TypeManifest::string, 1);
    m.enums[""].values[""] = 0;
    rows.push_back({"empty names", m});
  }
  {
    SchemaManifest m;
    for (const std::string& name :
         std::vector<std::string>{"quote\"d", "\\", "\t", std::string("nul\0in", 6), "[0]",
                                  "\xc3\xbc\xe2\x82\xac", "\xf0\x9f\x98\x80"}) {
      m.messages[name].fields[name] = field(TypeManifest::message, 1);
      m.messages[name].fields[name].typeName = name;
      m.enums[name].values[name] = -1;
    }
    rows.push_back({"names JSON must escape, and every UTF-8 width", m});
  }
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    for (const bool pretty : {false, true}) {
      SCOPED_TRACE(pretty ? "pretty" : "compact");
      const std::string json = schemaManifestToJSON(row.manifest, pretty);
      const SchemaManifest read = schemaManifestFromJSON(json);
      expectSameManifest(read, row.manifest);
      EXPECT_EQ(schemaManifestToJSON(read, pretty), json);
    }
  }
}

// ---------------------------------------------------------------------------------------------
// Reading what the writer never writes

TEST(SchemaManifestFromJSON, AcceptsOmittedDefaultsAndBoundaryValues) {
  struct Row {
    const char* name;
    std::string json;
    SchemaManifest expected;
  };
  std::vector<Row> rows;
  rows.push_back({"empty object", "{}", {}});
  rows.push_back({"explicitly empty members",
                  R"({"messages":{"M":{"fields":{},"oneofs":[]}},)"
                  R"("enums":{"E":{"values":{},"valueOptions":{}}}})",
                  [] {
                    SchemaManifest m;
                    m.messages["M"];
                    m.enums["E"];
                    return m;
                  }()});
  rows.push_back({"isRepeated false",
                  R"({"messages":{"M":{"fields":{"f":{"type":"int","fieldNumber":1,)"
                  R"("isRepeated":false}}}}})",
                  [] {
                    SchemaManifest m;
                    m.messages["M"].fields["f"] = field(TypeManifest::int32, 1);
                    return m;
                  }()});
  rows.push_back({"extreme field numbers",
                  R"({"messages":{"M":{"fields":{"min":{"type":"int","fieldNumber":1},)"
                  R"("max":{"type":"int","fieldNumber":536870911},)"
                  R"("below":{"type":"int","fieldNumber":18999},)"
                  R"("above":{"type":"int","fieldNumber":20000}}}}})",
                  [] {
                    SchemaManifest m;
                    m.messages["M"].fields["min"] = field(TypeManifest::int32, 1);
                    m.messages["M"].fields["max"] = field(TypeManifest::int32, 536870911);
                    m.messages["M"].fields["below"] = field(TypeManifest::int32, 18999);
                    m.messages["M"].fields["above"] = field(TypeManifest::int32, 20000);
                    return m;
                  }()});
  rows.push_back({"last oneof index",
                  R"({"messages":{"M":{"oneofs":[{"name":"a"},{"name":"b"}],)"
                  R"("fields":{"f":{"type":"int","fieldNumber":1,"oneofIndex":1}}}}})",
                  [] {
                    SchemaManifest m;
                    m.messages["M"].oneofs = {{"a", std::nullopt}, {"b", std::nullopt}};
                    m.messages["M"].fields["f"] = field(TypeManifest::int32, 1);
                    m.messages["M"].fields["f"].oneofIndex = 1;
                    return m;
                  }()});
  rows.push_back({"oneofIndex written -0",
                  R"({"messages":{"M":{"oneofs":[{"name":"a"}],)"
                  R"("fields":{"f":{"type":"int","fieldNumber":1,"oneofIndex":-0}}}}})",
                  [] {
                    SchemaManifest m;
                    m.messages["M"].oneofs = {{"a", std::nullopt}};
                    m.messages["M"].fields["f"] = field(TypeManifest::int32, 1);
                    m.messages["M"].fields["f"].oneofIndex = 0;
                    return m;
                  }()});
  rows.push_back(
      {"extreme valueOptions keys",
       R"({"enums":{"E":{"valueOptions":{"-9223372036854775808":"",)"
       R"("9223372036854775807":"AA==","0":"","-10":"AQ=="}}}})",
       [] {
         SchemaManifest m;
         m.enums["E"].valueOptions = {
             {kInt64Min, Bytes{}}, {kInt64Max, bytesOf({0})}, {0, Bytes{}}, {-10, bytesOf({1})}};
         return m;
       }()});
  rows.push_back({"escaped names", R"({"messages":{"a\u002eb\"\u00fc":{}}})", [] {
                    SchemaManifest m;
                    m.messages["a.b\"\xc3\xbc"];
                    return m;
                  }()});
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    expectSameManifest(schemaManifestFromJSON(row.json), row.expected);
  }
}

TEST(SchemaManifestFromJSON, RejectsWhatIsNotAManifestNamingThePath) {
  struct Row {
    const char* name;
    std::string json;
    std::string expected;
  };
  // A message "M" with one field "f" whose members are `members`.
  auto withField = [](const std::string& members) {
    return R"({"messages":{"M":{"oneofs":[{"name":"o"}],"fields":{"f":{)" + members + "}}}}}";
  };
  // An enum "E" whose members are `members`.
  auto withEnum = [](const std::string& members) { return R"({"enums":{"E":{)" + members + "}}}"; };
  const std::string field = R"(messages["M"].fields["f"])";
  const Row rows[] = {
      // The document.
      {"array document", "[]", "$: expected an object"},
      {"unknown top-level member", R"({"mesages":{}})", "mesages: unknown member"},
      {"unknown top-level member that is no identifier", R"({"a b":1})",
       R"($["a b"]: unknown member)"},
      {"messages not an object", R"({"messages":[]})", "messages: expected an object"},
      {"enums not an object", R"({"enums":null})", "enums: expected an object"},
      // Messages.
      {"message not an object", R"({"messages":{"shop.Order":true}})",
       R"(messages["shop.Order"]: expected an object)"},
      {"unknown message member", R"({"messages":{"M":{"name":"M"}}})",
       R"(messages["M"].name: unknown member)"},
      {"unknown message member that is no identifier", R"({"messages":{"M":{"x-y":1}}})",
       R"(messages["M"]["x-y"]: unknown member)"},
      {"unknown message member with an empty name", R"({"messages":{"M":{"":1}}})",
       R"(messages["M"][""]: unknown member)"},
      {"unknown message member starting with a digit", R"({"messages":{"M":{"9z":1}}})",
       R"(messages["M"]["9z"]: unknown member)"},
      {"unknown message member of every identifier edge", R"({"messages":{"M":{"azAZ_09":1}}})",
       R"(messages["M"].azAZ_09: unknown member)"},
      {"fields not an object", R"({"messages":{"M":{"fields":[]}}})",
       R"(messages["M"].fields: expected an object)"},
      {"oneofs not an array", R"({"messages":{"M":{"oneofs":{}}}})",
       R"(messages["M"].oneofs: expected an array)"},
      {"message options not a string", R"({"messages":{"M":{"options":[]}}})",
       R"(messages["M"].options: expected a string)"},
      {"message options not base64", R"({"messages":{"M":{"options":"GAE"}}})",
       R"(messages["M"].options: expected base64)"},
      {"message name with a quote", R"({"messages":{"a\"b":1}})",
       R"(messages["a\"b"]: expected an object)"},
      // Oneofs.
      {"oneof not an object", R"({"messages":{"M":{"oneofs":[{"name":"a"},"b"]}}})",
       R"(messages["M"].oneofs[1]: expected an object)"},
      {"oneof without a name", R"({"messages":{"M":{"oneofs":[{"options":""}]}}})",
       R"(messages["M"].oneofs[0].name: missing required member)"},
      {"oneof name not a string", R"({"messages":{"M":{"oneofs":[{"name":1}]}}})",
       R"(messages["M"].oneofs[0].name: expected a string)"},
      {"oneof options not base64", R"({"messages":{"M":{"oneofs":[{"name":"a","options":"A"}]}}})",
       R"(messages["M"].oneofs[0].options: expected base64)"},
      {"unknown oneof member", R"({"messages":{"M":{"oneofs":[{"name":"a","index":0}]}}})",
       R"(messages["M"].oneofs[0].index: unknown member)"},
      // Fields.
      {"field not an object", R"({"messages":{"M":{"fields":{"f":1}}}})",
       field + ": expected an object"},
      {"field without a type", withField(R"("fieldNumber":1)"),
       field + ".type: missing required member"},
      {"field without a number", withField(R"("type":"int")"),
       field + ".fieldNumber: missing required member"},
      {"type not a string", withField(R"("type":4,"fieldNumber":1)"),
       field + ".type: expected a string"},
      {"type int32", withField(R"("type":"int32","fieldNumber":1)"),
       field + R"(.type: unknown type name "int32")"},
      {"type with a quote", withField(R"("type":"a\"b","fieldNumber":1)"),
       field + R"(.type: unknown type name "a\"b")"},
      {"typeName not a string", withField(R"("type":"schema","typeName":null,"fieldNumber":1)"),
       field + ".typeName: expected a string"},
      {"fieldNumber a string", withField(R"("type":"int","fieldNumber":"1")"),
       field + ".fieldNumber: expected an integer"},
      {"fieldNumber written as a float", withField(R"("type":"int","fieldNumber":1.0)"),
       field + ".fieldNumber: expected an integer"},
      {"fieldNumber above int64", withField(R"("type":"int","fieldNumber":9223372036854775808)"),
       field + ".fieldNumber: integer out of range"},
      {"fieldNumber above uint64", withField(R"("type":"int","fieldNumber":18446744073709551616)"),
       field + ".fieldNumber: expected an integer"},
      {"fieldNumber below int64", withField(R"("type":"int","fieldNumber":-9223372036854775809)"),
       field + ".fieldNumber: expected an integer"},
      {"isRepeated a number", withField(R"("type":"int","fieldNumber":1,"isRepeated":1)"),
       field + ".isRepeated: expected a boolean"},
      {"oneofIndex a string", withField(R"("type":"int","fieldNumber":1,"oneofIndex":"0")"),
       field + ".oneofIndex: expected an integer"},
      {"oneofIndex past the oneofs", withField(R"("type":"int","fieldNumber":1,"oneofIndex":1)"),
       field + ".oneofIndex: expected an index into oneofs"},
      {"oneofIndex negative", withField(R"("type":"int","fieldNumber":1,"oneofIndex":-1)"),
       field + ".oneofIndex: expected an index into oneofs"},
      {"oneofIndex beyond int32",
       withField(R"("type":"int","fieldNumber":1,"oneofIndex":4294967296)"),
       field + ".oneofIndex: expected an index into oneofs"},
      {"fieldNumber 0", withField(R"("type":"int","fieldNumber":0)"),
       field + ".fieldNumber: field number 0 is outside 1 to 536870911"},
      {"fieldNumber 2^29", withField(R"("type":"int","fieldNumber":536870912)"),
       field + ".fieldNumber: field number 536870912 is outside 1 to 536870911"},
      {"fieldNumber largest int64", withField(R"("type":"int","fieldNumber":9223372036854775807)"),
       field + ".fieldNumber: field number 9223372036854775807 is outside 1 to 536870911"},
      {"fieldNumber reserved", withField(R"("type":"int","fieldNumber":19500)"),
       field +
           ".fieldNumber: field number 19500 is in 19000 to 19999, reserved for protobuf itself"},
      {"two fields of one number",
       R"({"messages":{"M":{"fields":{"f":{"type":"int","fieldNumber":4},)"
       R"("g":{"type":"bool","fieldNumber":4}}}}})",
       R"(messages["M"].fields["g"].fieldNumber: field number 4 is also the number of field "f")"},
      {"two oneofs of one name",
       R"({"messages":{"M":{"oneofs":[{"name":"o"},{"name":"p"},{"name":"o"}]}}})",
       R"(messages["M"].oneofs[2].name: oneof name "o" occurs twice)"},
      {"two enum values of one name", R"({"enums":{"E":{"values":{"A":1,"A":2}}}})",
       R"(enums["E"].values["A"]: duplicate member)"},
      {"oneofIndex without oneofs",
       R"({"messages":{"M":{"fields":{"f":{"type":"int","fieldNumber":1,"oneofIndex":0}}}}})",
       field + ".oneofIndex: expected an index into oneofs"},
      {"field options null", withField(R"("type":"int","fieldNumber":1,"options":null)"),
       field + ".options: expected a string"},
      {"field options missing padding",
       withField(R"("type":"int","fieldNumber":1,"options":"GAE")"),
       field + ".options: expected base64"},
      {"unknown field member", withField(R"("type":"int","fieldNumber":1,"label":"optional")"),
       field + ".label: unknown member"},
      // Enums.
      {"enum not an object", R"({"enums":{"E":[]}})", R"(enums["E"]: expected an object)"},
      {"unknown enum member", withEnum(R"("value":{})"), R"(enums["E"].value: unknown member)"},
      {"values not an object", withEnum(R"("values":[])"),
       R"(enums["E"].values: expected an object)"},
      {"value a string", withEnum(R"("values":{"A":"0"})"),
       R"(enums["E"].values["A"]: expected an integer)"},
      {"value above int64", withEnum(R"("values":{"A":9223372036854775808})"),
       R"(enums["E"].values["A"]: integer out of range)"},
      {"enum options not base64", withEnum(R"("options":"====")"),
       R"(enums["E"].options: expected base64)"},
      {"valueOptions not an object", withEnum(R"("valueOptions":[])"),
       R"(enums["E"].valueOptions: expected an object)"},
      {"valueOptions key a name", withEnum(R"("valueOptions":{"A":""})"),
       R"(enums["E"].valueOptions["A"]: expected an integer key)"},
      {"valueOptions key empty", withEnum(R"("valueOptions":{"":""})"),
       R"(enums["E"].valueOptions[""]: expected an integer key)"},
      {"valueOptions key a lone minus", withEnum(R"("valueOptions":{"-":""})"),
       R"(enums["E"].valueOptions["-"]: expected an integer key)"},
      {"valueOptions key with a leading zero", withEnum(R"("valueOptions":{"01":""})"),
       R"(enums["E"].valueOptions["01"]: expected an integer key)"},
      {"valueOptions key with a plus", withEnum(R"("valueOptions":{"+1":""})"),
       R"(enums["E"].valueOptions["+1"]: expected an integer key)"},
      {"valueOptions key minus zero", withEnum(R"("valueOptions":{"-0":""})"),
       R"(enums["E"].valueOptions["-0"]: expected an integer key)"},
      {"valueOptions key with a space", withEnum(R"("valueOptions":{" 1":""})"),
       R"(enums["E"].valueOptions[" 1"]: expected an integer key)"},
      {"valueOptions key a float", withEnum(R"("valueOptions":{"1.0":""})"),
       R"(enums["E"].valueOptions["1.0"]: expected an integer key)"},
      {"valueOptions key above int64", withEnum(R"("valueOptions":{"9223372036854775808":""})"),
       R"(enums["E"].valueOptions["9223372036854775808"]: integer out of range)"},
      {"valueOptions key below int64", withEnum(R"("valueOptions":{"-9223372036854775809":""})"),
       R"(enums["E"].valueOptions["-9223372036854775809"]: integer out of range)"},
      {"valueOptions key far beyond int64",
       withEnum(R"("valueOptions":{"100000000000000000000":""})"),
       R"(enums["E"].valueOptions["100000000000000000000"]: integer out of range)"},
      {"valueOptions value not a string", withEnum(R"("valueOptions":{"1":1})"),
       R"(enums["E"].valueOptions["1"]: expected a string)"},
      {"valueOptions value not base64", withEnum(R"("valueOptions":{"1":"CAE"})"),
       R"(enums["E"].valueOptions["1"]: expected base64)"},
      // Repeated members.
      {"repeated top-level member", R"({"messages":{},"messages":{}})",
       "messages: duplicate member"},
      {"repeated message", R"({"messages":{"M":{},"M":{}}})", R"(messages["M"]: duplicate member)"},
      {"repeated field member", withField(R"("type":"int","fieldNumber":1,"fieldNumber":2)"),
       field + ".fieldNumber: duplicate member"},
      {"repeated oneof member",
       R"({"messages":{"M":{"oneofs":[{"name":"a"},{"name":"b","name":"c"}]}}})",
       R"(messages["M"].oneofs[1].name: duplicate member)"},
      {"repeated enum value", withEnum(R"("values":{"A":1,"B":2,"A":1})"),
       R"(enums["E"].values["A"]: duplicate member)"},
      {"repeated valueOptions key", withEnum(R"("valueOptions":{"1":"","1":""})"),
       R"(enums["E"].valueOptions["1"]: duplicate member)"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(catchError([&] { schemaManifestFromJSON(row.json); }),
              SchemaManifestJSONError::invalidValueType(row.expected));
  }
}

TEST(SchemaManifestFromJSON, RejectsMalformedJSONText) {
  struct Row {
    const char* name;
    std::string json;
    std::string expected;
  };
  const Row rows[] = {
      {"empty text", "",
       "$: invalid JSON: parse error at line 1, column 1: syntax error while parsing value - "
       "unexpected end of input; expected '[', '{', or a literal"},
      {"unclosed object", "{",
       "$: invalid JSON: parse error at line 1, column 2: syntax error while parsing object key - "
       "unexpected end of input; expected string literal"},
      {"trailing text", "{} x",
       "$: invalid JSON: parse error at line 1, column 4: syntax error while parsing value - "
       "invalid literal; last read: '{} x'; expected end of input"},
      {"comment", "{} // none",
       "$: invalid JSON: parse error at line 1, column 4: syntax error while parsing value - "
       "invalid literal; last read: '{} /'; expected end of input"},
      {"trailing comma", R"({"messages":{},})",
       "$: invalid JSON: parse error at line 1, column 16: syntax error while parsing object key - "
       "unexpected '}'; expected string literal"},
      {"number beyond a double", R"({"messages":1e400})",
       "$: invalid JSON: number overflow parsing '1e400'"},
      {"number beyond a double before a syntax error", "444444e44444444444444{",
       "$: invalid JSON: number overflow parsing '444444e44444444444444'"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(catchError([&] { schemaManifestFromJSON(row.json); }),
              SchemaManifestJSONError::invalidValueType(row.expected));
  }
  // Text that is not UTF-8 is malformed JSON too; the library's wording of it is its own.
  const auto caught = catchError([] { schemaManifestFromJSON("{\"messages\":{\"\xff\":{}}}"); });
  EXPECT_NE(caught.description.find("invalidValueType: $: invalid JSON: parse error"),
            std::string::npos)
      << caught.description;
}

}  // namespace
}  // namespace ostrel
