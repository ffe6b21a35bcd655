// JSON rendering: compared with libprotobuf's JSON on generated messages, and on hand-made bytes
// for what libprotobuf never writes (repeated singular fields, split packed runs, broken bytes).

#include <google/protobuf/util/json_util.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "ostrel/output/json.hpp"
#include "output/json_test_support.hpp"
#include "rich.pb.h"
#include "support/random_message.hpp"
#include "support/test_support.hpp"

namespace ostrel {
namespace {

namespace pb = google::protobuf;
using nlohmann::json;
using testing_support::generatedManifest;
using testing_support::LogCapture;
using testing_support::sampleManifest;
using testing_support::Wire;

std::string render(const MessageSchema& schema, const std::string& bytes,
                   JsonStyle style = JsonStyle::compact) {
  return toJSON(schema.schematizedData(bytes), style);
}

// Rounds the numbers of float fields to float, so that two texts of one float compare equal
// whichever shortest form each writer chose.
void roundFloatFields(const pb::Descriptor& descriptor, json& object) {
  for (auto& [name, value] : object.items()) {
    const pb::FieldDescriptor* field = descriptor.FindFieldByName(name);
    if (!field) continue;
    const auto round = [&](json& element, const pb::FieldDescriptor& f) {
      if (f.type() == pb::FieldDescriptor::TYPE_FLOAT && element.is_number()) {
        element = static_cast<double>(static_cast<float>(element.get<double>()));
      } else if (f.type() == pb::FieldDescriptor::TYPE_MESSAGE && element.is_object()) {
        roundFloatFields(*f.message_type(), element);
      }
    };
    if (field->is_map()) {
      for (auto& [key, element] : value.items())
        round(element, *field->message_type()->map_value());
    } else if (field->is_repeated()) {
      for (json& element : value) round(element, *field);
    } else {
      round(value, *field);
    }
  }
}

// `text` without the spaces and line breaks between its tokens.
std::string withoutLayout(std::string_view text) {
  std::string out;
  bool inString = false;
  bool escaped = false;
  for (const char c : text) {
    if (inString) {
      inString = escaped || c != '"';
      escaped = !escaped && c == '\\';
    } else if (c == ' ' || c == '\n') {
      continue;
    } else {
      inString = c == '"';
    }
    out.push_back(c);
  }
  return out;
}

TEST(JsonRenderingTest, EqualsLibprotobufOnGeneratedMessages) {
  SchemaStore store(generatedManifest("rich.desc"));
  const MessageSchema schema = store.messageSchema("ostrel.test.Rich");
  testing_support::RandomMessageFiller filler(20240611);
  pb::util::JsonPrintOptions options;
  options.preserve_proto_field_names = true;
  testing_support::MessageComparison comparison;

  for (int i = 0; i < testing_support::generatedMessageCount(1200); ++i) {
    SCOPED_TRACE("message " + std::to_string(i));
    test::Rich message;
    filler.fill(message);
    const std::string bytes = message.SerializeAsString();
    // What libprotobuf reads from the bytes: a map filled through reflection may hold a key twice
    // until it is parsed.
    test::Rich reference;
    ASSERT_TRUE(reference.ParseFromString(bytes));
    std::string expectedText;
    ASSERT_TRUE(pb::util::MessageToJsonString(message, &expectedText, options).ok());

    const std::string actualText = render(schema, bytes);
    json expected = json::parse(expectedText);
    json actual = json::parse(actualText);
    roundFloatFields(*test::Rich::descriptor(), expected);
    roundFloatFields(*test::Rich::descriptor(), actual);
    ASSERT_EQ(actual, expected) << actualText << "\n" << expectedText;

    // libprotobuf reads the text back as the message it came from.
    test::Rich parsed;
    ASSERT_TRUE(pb::util::JsonStringToMessage(actualText, &parsed).ok());
    ASSERT_TRUE(comparison.equal(reference, parsed)) << actualText << "\n"
                                                     << comparison.differences();

    // The indented form is the compact one plus layout.
    ASSERT_EQ(withoutLayout(render(schema, bytes, JsonStyle::indented)), actualText);
  }
}

struct RenderRow {
  std::string name;
  std::string bytes;
  std::string expected;
  // Lines expected in the log, in order.
  std::vector<std::string> logged = {};
};

std::string error(std::string_view field, std::string_view text) {
  return "Sch: Error encoding " + std::string(field) + ": " + std::string(text);
}

std::string quoted(const std::string& text) { return "\"" + text + "\""; }

std::vector<RenderRow> renderRows() {
  const auto uint64Max = std::numeric_limits<uint64_t>::max();
  const auto minus = [](int64_t v) { return static_cast<uint64_t>(v); };
  const auto floatBits = [](float v) { return std::bit_cast<uint32_t>(v); };
  const auto doubleBits = [](double v) { return std::bit_cast<uint64_t>(v); };
  const std::string badInt32 = error("i32", "typeMismatch(int32, fixed32)");
  const std::string truncatedS = error("s", "truncated");
  const std::string unreadable = error("<unreadable>", "malformedProtobuf");
  const std::string overrunRf = error("rf", "malformedProtobuf");
  const std::string endGroupB = error("b", "malformedProtobuf");
  const std::string nestedI32 = error("i32", "typeMismatch(int32, lengthDelimited)");
  const std::string childVarint = error("child", "typeMismatch(message(t.Sample), varInt)");
  const std::string stringGroup = error("s", "typeMismatch(string, startGroup)");
  const std::string missingType = error("missing", "schemaNotFound: t.Missing");
  const std::string mapVarint = error("sm", "typeMismatch(message(t.Sample.SmEntry), varInt)");
  return {
      {"empty message", "", "{}"},
      {"fields in field-number order, whatever the order of the bytes",
       Wire().bytesField(14, "hi").varintField(1, minus(-1)).varintField(13, 1).bytes(),
       R"({"i32":-1,"b":true,"s":"hi"})"},
      {"32-bit integers are numbers",
       Wire()
           .varintField(3, 0xFFFFFFFFu)
           .varintField(5, 1)
           .fixed32Field(7, 0xFFFFFFFFu)
           .fixed32Field(9, static_cast<uint32_t>(-7))
           .bytes(),
       R"({"u32":4294967295,"s32":-1,"f32":4294967295,"sf32":-7})"},
      {"narrow integers keep the low bits of their varint",
       Wire().varintField(1, 0x1'0000'0005u).varintField(3, 0x1'0000'0005u).bytes(),
       R"({"i32":5,"u32":5})"},
      {"64-bit integers are decimal strings",
       Wire()
           .varintField(2, minus(-5))
           .varintField(4, uint64Max)
           .varintField(6, 3)
           .fixed64Field(8, uint64Max)
           .fixed64Field(10, minus(std::numeric_limits<int64_t>::min()))
           .bytes(),
       R"({"i64":"-5","u64":"18446744073709551615","s64":"-2","f64":"18446744073709551615",)"
       R"("sf64":"-9223372036854775808"})"},
      {"floats and doubles in their shortest form",
       Wire().fixed32Field(11, floatBits(0.1f)).fixed64Field(12, doubleBits(0.1)).bytes(),
       R"({"fl":0.1,"db":0.1})"},
      {"extreme floats and doubles",
       Wire()
           .fixed32Field(11, floatBits(std::numeric_limits<float>::denorm_min()))
           .fixed64Field(12, doubleBits(-std::numeric_limits<double>::max()))
           .bytes(),
       R"({"fl":1e-45,"db":-1.7976931348623157e+308})"},
      {"NaN and the infinities are strings",
       Wire()
           .fixed32Field(11, floatBits(std::numeric_limits<float>::quiet_NaN()))
           .fixed64Field(12, doubleBits(-std::numeric_limits<double>::infinity()))
           .tag(24, Wire::lengthDelimited)
           .varint(4)
           .raw(std::string_view("\0\0\x80\x7f", 4))
           .bytes(),
       R"({"fl":"NaN","db":"-Infinity","rf":["Infinity"]})"},
      {"bool is true for any non-zero varint", Wire().varintField(13, 2).bytes(), R"({"b":true})"},
      {"enums by name, unknown numbers as numbers",
       Wire()
           .varintField(16, 1)
           .tag(25, Wire::lengthDelimited)
           .varint(12)
           .varint(0)
           .varint(7)
           .varint(minus(-1))
           .bytes(),
       R"({"e":"ONE","re":["ZERO",7,-1]})"},
      {"strings escaped as JSON requires",
       Wire().bytesField(14, "q\"b\\\n\t\x01/\x7f\xC3\xA9").bytes(),
       "{\"s\":\"q\\\"b\\\\\\n\\t\\u0001/\x7f\xC3\xA9\"}"},
      {"invalid UTF-8 becomes U+FFFD", Wire().bytesField(14, "\xC3\x28").bytes(),
       "{\"s\":\"\xEF\xBF\xBD(\"}"},
      {"bytes in standard base64 with padding",
       Wire().bytesField(15, std::string_view("\0\xFF", 2)).bytes(), R"({"by":"AP8="})"},
      {"empty string and bytes", Wire().bytesField(14, "").bytesField(15, "").bytes(),
       R"({"s":"","by":""})"},
      {"nested and repeated messages",
       Wire()
           .messageField(17, Wire().varintField(1, 1))
           .messageField(20, Wire().varintField(13, 1))
           .messageField(20, Wire())
           .bytes(),
       R"({"child":{"i32":1},"rm":[{"b":true},{}]})"},
      {"a singular field read twice shows its first occurrence",
       Wire()
           .varintField(1, 1)
           .messageField(17, Wire().varintField(1, 1))
           .varintField(1, 2)
           .messageField(17, Wire().varintField(1, 2))
           .bytes(),
       R"({"i32":1,"child":{"i32":1}})"},
      {"every element of packed and unpacked runs, in the order of the bytes",
       Wire()
           .varintField(18, 1)
           .bytesField(18, "\x02\x03")
           .bytesField(19, "x")
           .varintField(18, 4)
           .bytesField(18, "")
           .bytesField(19, "y")
           .bytes(),
       R"({"ri":[1,2,3,4],"rs":["x","y"]})"},
      {"the runs of a repeated field, unknown fields between its occurrences",
       Wire()
           .varintField(18, 1)
           .varintField(99, 5)
           .varintField(18, 2)
           .bytesField(98, "zz")
           .bytesField(18, "\x03")
           .bytesField(19, "x")
           .varintField(18, 4)
           .bytes(),
       R"({"ri":[1,2,3,4],"rs":["x"]})"},
      {"a map of many entries keeps the last of each key where it stands",
       [] {
         Wire wire;
         for (int i = 0; i < 40; ++i) {
           wire.messageField(21,
                             Wire().bytesField(1, "k" + std::to_string(i % 20)).varintField(2, i));
           if (i % 7 == 0) wire.varintField(99, 1);
         }
         return wire.bytes();
       }(),
       [] {
         std::string text = R"({"sm":{)";
         for (int i = 20; i < 40; ++i) {
           text += (i > 20 ? ",\"k" : "\"k") + std::to_string(i % 20) + "\":\"" +
                   std::to_string(i) + "\"";
         }
         return text + "}}";
       }()},
      {"a repeated field of empty packed runs is absent",
       Wire().bytesField(18, "").varintField(13, 0).bytes(), R"({"b":false})"},
      {"unknown fields are skipped",
       Wire()
           .varintField(99, 5)
           .bytesField(98, "zz")
           .tag(97, Wire::startGroup)
           .varintField(1, 9)
           .tag(97, Wire::endGroup)
           .fixed32Field(96, 1)
           .fixed64Field(95, 1)
           .varintField(13, 1)
           .bytes(),
       R"({"b":true})"},
      {"maps are objects; of several entries with one key the last wins",
       Wire()
           .messageField(21, Wire().bytesField(1, "a").varintField(2, 1))
           .messageField(21, Wire().bytesField(1, "b").varintField(2, 2))
           .messageField(21, Wire().bytesField(1, "a").varintField(2, 3))
           .bytes(),
       R"({"sm":{"b":"2","a":"3"}})"},
      {"map entries without key or value take the type's default",
       Wire()
           .messageField(21, Wire().varintField(2, 5))
           .messageField(21, Wire().bytesField(1, "k"))
           .messageField(22, Wire().varintField(1, 1).varintField(2, 1))
           .messageField(22, Wire())
           .messageField(23, Wire().varintField(1, minus(-5)))
           .bytes(),
       R"({"sm":{"":"5","k":"0"},"bm":{"true":"ONE","false":"ZERO"},"im":{"-5":{}}})"},
      {"map entries read their key and value fields' first occurrences",
       Wire()
           .messageField(23, Wire()
                                 .varintField(1, 1)
                                 .messageField(2, Wire().varintField(1, 10))
                                 .varintField(1, 2)
                                 .messageField(2, Wire().varintField(1, 20))
                                 .varintField(9, 0))
           .bytes(),
       R"({"im":{"1":{"i32":10}}})"},
      {"entries of a message without map_entry form an array",
       Wire().messageField(27, Wire().bytesField(1, "a").varintField(2, 1)).bytes(),
       R"({"pairs":[{"key":"a","value":1}]})"},
      {"a field that does not decode renders its error; the others render",
       Wire().fixed32Field(1, 5).varintField(13, 1).bytes(),
       R"({"i32":")" + badInt32 + R"(","b":true})",
       {badInt32}},
      {"errors inside a nested message stay there",
       Wire().messageField(17, Wire().bytesField(1, "x").varintField(13, 1)).bytes(),
       R"({"child":{"i32":")" + nestedI32 + R"(","b":true}})",
       {nestedI32}},
      {"a message field with a varint",
       Wire().varintField(17, 1).bytes(),
       R"({"child":")" + childVarint + R"("})",
       {childVarint}},
      {"a string field holding a group",
       Wire().tag(14, Wire::startGroup).tag(14, Wire::endGroup).bytes(),
       R"({"s":")" + stringGroup + R"("})",
       {stringGroup}},
      {"a message type the store lacks",
       Wire().messageField(26, Wire()).bytes(),
       R"({"missing":")" + missingType + R"("})",
       {missingType}},
      {"a map entry that is not length-delimited",
       Wire().varintField(21, 1).bytes(),
       R"({"sm":")" + mapVarint + R"("})",
       {mapVarint}},
      {"a value cut short by the end of the bytes",
       Wire().varintField(13, 1).tag(14, Wire::lengthDelimited).varint(10).raw("abc").bytes(),
       R"({"b":true,"s":")" + truncatedS + R"("})",
       {truncatedS}},
      {"a tag that cannot be read ends the message",
       Wire().varintField(13, 1).raw("\x80").bytes(),
       R"({"b":true,"<unreadable>":")" + unreadable + R"("})",
       {unreadable}},
      {"an end-group tag without its group",
       Wire().varintField(1, 1).tag(13, Wire::endGroup).varintField(14, 1).bytes(),
       R"({"i32":1,"b":")" + endGroupB + R"("})",
       {endGroupB}},
      {"a packed element running past its run",
       Wire()
           .tag(24, Wire::lengthDelimited)
           .varint(3)
           .raw(std::string(3, '\0'))
           .varintField(13, 1)
           .bytes(),
       R"({"b":true,"rf":")" + overrunRf + R"("})",
       {overrunRf}},
  };
}

TEST(JsonRenderingTest, RendersHandMadeBytes) {
  SchemaStore store(sampleManifest());
  const MessageSchema schema = store.messageSchema("t.Sample");
  for (const RenderRow& row : renderRows()) {
    SCOPED_TRACE(row.name);
    LogCapture log;
    EXPECT_EQ(render(schema, row.bytes), row.expected);
    EXPECT_EQ(log.lines(), row.logged);
    // Whatever the bytes hold, the text is JSON.
    EXPECT_TRUE(json::accept(render(schema, row.bytes, JsonStyle::indented)));
  }
}

TEST(JsonRenderingTest, IndentsByTwoSpacesPerLevel) {
  SchemaStore store(sampleManifest());
  const std::string bytes = Wire()
                                .varintField(1, 1)
                                .messageField(17, Wire())
                                .varintField(18, 1)
                                .varintField(18, 2)
                                .messageField(20, Wire().varintField(13, 1))
                                .messageField(21, Wire().bytesField(1, "a").varintField(2, 1))
                                .bytes();
  EXPECT_EQ(render(store.messageSchema("t.Sample"), bytes, JsonStyle::indented),
            "{\n"
            "  \"i32\": 1,\n"
            "  \"child\": {},\n"
            "  \"ri\": [\n"
            "    1,\n"
            "    2\n"
            "  ],\n"
            "  \"rm\": [\n"
            "    {\n"
            "      \"b\": true\n"
            "    }\n"
            "  ],\n"
            "  \"sm\": {\n"
            "    \"a\": \"1\"\n"
            "  }\n"
            "}");
  EXPECT_EQ(render(store.messageSchema("t.Sample"), "", JsonStyle::indented), "{}");
}

// t.Node bytes nesting `depth` messages, the outermost included, the innermost holding value 7.
std::string nestedNodes(int depth) {
  // Built back to front, so that each level is one prefix and the whole takes linear time.
  std::string reversed = "\x07\x10";
  for (int level = 1; level < depth; ++level) {
    const size_t length = reversed.size();
    std::string prefix = Wire().tag(1, Wire::lengthDelimited).varint(length).bytes();
    reversed.append(prefix.rbegin(), prefix.rend());
  }
  return std::string(reversed.rbegin(), reversed.rend());
}

std::string repeat(std::string_view text, int count) {
  std::string out;
  for (int i = 0; i < count; ++i) out += text;
  return out;
}

TEST(JsonRenderingTest, NestsAtMostAHundredMessages) {
  SchemaStore store(sampleManifest());
  const MessageSchema node = store.messageSchema("t.Node");
  EXPECT_EQ(render(node, nestedNodes(100)),
            repeat(R"({"child":)", 99) + R"({"value":7})" + repeat("}", 99));

  const std::string tooDeep =
      error("child", "protocolBufferError: Nesting deeper than 100 messages");
  for (const int depth : {101, 10'000}) {
    SCOPED_TRACE(depth);
    LogCapture log;
    EXPECT_EQ(render(node, nestedNodes(depth)),
              repeat(R"({"child":)", 100) + quoted(tooDeep) + repeat("}", 100));
    EXPECT_EQ(log.lines(), std::vector<std::string>{tooDeep});
  }
}

TEST(JsonRenderingTest, RendersBorrowedAndOwnedDataAlike) {
  SchemaStore store(sampleManifest());
  const MessageSchema schema = store.messageSchema("t.Sample");
  const std::string bytes = Wire().varintField(1, 3).bytes();
  const UnsafeSchematizedData borrowed(schema.impl(), asBytes(bytes));
  EXPECT_EQ(renderJSON(borrowed), R"({"i32":3})");
  EXPECT_EQ(toJSON(schema.schematizedData(bytes)), R"({"i32":3})");
}

TEST(JsonRenderingTest, RendersMessageOptions) {
  // descriptor.proto gives MessageOptions its fields; the built-in schema knows none.
  SchemaManifest withDescriptor = generatedManifest("rich.desc");
  withDescriptor.merge(generatedManifest("descriptor.desc"), MergePolicy::keepExisting);
  const SchemaStore full(withDescriptor);
  const SchemaStore plain(generatedManifest("rich.desc"));

  struct Row {
    std::string name;
    const SchemaStore* store;
    std::string message;
    std::optional<std::string> expected;
  };
  const std::vector<Row> rows = {
      {"map entry, options schema from descriptor.proto", &full, "ostrel.test.Rich.CountsEntry",
       R"({"map_entry":true})"},
      {"map entry, built-in options schema", &plain, "ostrel.test.Rich.CountsEntry", "{}"},
      {"no options", &full, "ostrel.test.Rich", std::nullopt},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(optionsJSON(row.store->messageSchema(row.message)), row.expected);
  }
}

}  // namespace
}  // namespace ostrel
