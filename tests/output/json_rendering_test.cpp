// JSON rendering of hand-made bytes: what libprotobuf never writes (repeated singular fields, split
// packed runs, broken bytes) or what a comparison of JSON values would not see (the shortest form
// of a float). Generated messages are compared with libprotobuf's JSON in the differential suite.

#include <gtest/gtest.h>

#include <bit>
#include <functional>
#include <limits>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "ostrel/core/interrupts.hpp"
#include "ostrel/manifest/manifest_data.hpp"
#include "ostrel/output/json.hpp"
#include "output/json_test_support.hpp"
#include "support/test_support.hpp"

namespace ostrel {
namespace {

using nlohmann::json;
using testing_support::generatedManifest;
using testing_support::LogCapture;
using testing_support::sampleManifest;
using testing_support::Wire;

std::string render(const MessageSchema& schema, const std::string& bytes,
                   JsonStyle style = JsonStyle::compact) {
  return renderJSON(schema.schematizedData(bytes), {.style = style});
}

// Wire bytes of one field, to be joined with +.
std::string var(int64_t number, uint64_t value) {
  return Wire().varintField(number, value).bytes();
}
std::string len(int64_t number, std::string_view payload) {
  return Wire().bytesField(number, payload).bytes();
}
std::string f32(int64_t number, uint32_t value) {
  return Wire().fixed32Field(number, value).bytes();
}
std::string f64(int64_t number, uint64_t value) {
  return Wire().fixed64Field(number, value).bytes();
}
std::string tag(int64_t number, Wire::WireType type) { return Wire().tag(number, type).bytes(); }
uint32_t bits(float v) { return std::bit_cast<uint32_t>(v); }
uint64_t bits(double v) { return std::bit_cast<uint64_t>(v); }

std::string error(std::string_view field, std::string_view text) {
  return "Sch: Error encoding " + std::string(field) + ": " + std::string(text);
}

struct RenderRow {
  std::string name;
  std::string bytes;
  std::string expected;
  // The field whose value is the error text logged, if any, and that text.
  std::string failed = "";
  std::string errorText = "";
};

std::vector<RenderRow> renderRows() {
  using F = std::numeric_limits<float>;
  using D = std::numeric_limits<double>;
  std::string manyEntries;
  std::string lastOfEach = R"({"sm":{)";
  for (int i = 0; i < 40; ++i) {
    manyEntries += len(21, len(1, "k" + std::to_string(i % 20)) + var(2, i));
    if (i % 7 == 0) manyEntries += var(99, 1);
    if (i >= 20)
      lastOfEach +=
          (i > 20 ? ",\"k" : "\"k") + std::to_string(i % 20) + "\":\"" + std::to_string(i) + "\"";
  }
  return {
      {"fields in field-number order, whatever the order of the bytes",
       len(14, "hi") + var(1, -1) + var(13, 1), R"({"i32":-1,"b":true,"s":"hi"})"},
      {"narrow integers keep the low bits of their varint",
       var(1, 0x1'0000'0005u) + var(3, 0x1'0000'0005u), R"({"i32":5,"u32":5})"},
      {"extreme floats and doubles", f32(11, bits(F::denorm_min())) + f64(12, bits(D::lowest())),
       R"({"fl":1e-45,"db":-1.7976931348623157e+308})"},
      {"bool is true for any non-zero varint", var(13, 2), R"({"b":true})"},
      {"strings escaped as JSON requires", len(14, "q\"b\\\n\t\x01/\x7f\xC3\xA9"),
       "{\"s\":\"q\\\"b\\\\\\n\\t\\u0001/\x7f\xC3\xA9\"}"},
      {"invalid UTF-8 becomes U+FFFD", len(14, "\xC3\x28") + len(19, "(\x80"),
       "{\"s\":\"\xEF\xBF\xBD(\",\"rs\":[\"(\xEF\xBF\xBD\"]}"},
      {"a singular scalar read twice shows its last occurrence, a message its occurrences merged",
       var(1, 1) + len(17, var(1, 1) + var(18, 1)) + var(1, 2) +
           len(17, len(14, "x") + var(18, 2) + len(17, var(2, 3)) + len(17, var(3, 4))),
       R"({"i32":2,"child":{"i32":1,"s":"x","child":{"i64":"3","u32":4},"ri":[1,2]}})"},
      {"of a oneof's members the last present wins, a message member merging only after it",
       var(28, 1) + len(29, var(1, 1)) + var(28, 2) + len(29, var(2, 2)) + len(29, var(3, 3)),
       R"({"o2":{"i64":"2","u32":3}})"},
      {"a oneof member before another is dropped, in a nested message too",
       var(13, 1) + len(17, len(29, var(1, 1)) + var(28, 5)), R"({"b":true,"child":{"o1":5}})"},
      {"an occurrence of a singular field with the wrong wire type fails it", f32(1, 5) + var(1, 1),
       R"({"i32":"#"})", "i32", "typeMismatch(int32, fixed32)"},
      {"every element of packed and unpacked runs in the order of the bytes, unknown fields "
       "between",
       var(18, 1) + var(99, 5) + len(18, "\x02\x03") + len(19, "x") + len(98, "zz") + var(18, 4) +
           len(18, "") + len(19, "y"),
       R"({"ri":[1,2,3,4],"rs":["x","y"]})"},
      {"a repeated field of empty packed runs is absent", len(18, "") + var(13, 0),
       R"({"b":false})"},
      {"unknown fields are skipped",
       var(99, 5) + len(98, "zz") + tag(97, Wire::startGroup) + var(1, 9) +
           tag(97, Wire::endGroup) + f32(96, 1) + f64(95, 1) + var(13, 1),
       R"({"b":true})"},
      {"maps are objects; of several entries with one key the last wins",
       len(21, len(1, "a") + var(2, 1)) + len(21, len(1, "b") + var(2, 2)) +
           len(21, len(1, "a") + var(2, 3)),
       R"({"sm":{"b":"2","a":"3"}})"},
      {"a map of many entries keeps the last of each key where it stands", manyEntries,
       lastOfEach + "}}"},
      {"map entries without key or value take the type's default",
       len(21, var(2, 5)) + len(21, len(1, "k")) + len(22, var(1, 1) + var(2, 1)) + len(22, "") +
           len(23, var(1, -5)),
       R"({"sm":{"":"5","k":"0"},"bm":{"true":"ONE","false":"ZERO"},"im":{"-5":{}}})"},
      {"a map inside a map value drops its own repeated keys, its value may come first",
       len(23,
           var(1, 1) + len(2, len(21, len(1, "x") + var(2, 1)) + len(21, len(1, "y") + var(2, 2)) +
                                  len(21, var(2, 3) + len(1, "y")))),
       R"({"im":{"1":{"sm":{"x":"1","y":"3"}}}})"},
      {"map entries read their key's last occurrence and their value's occurrences merged",
       len(23, var(1, 1) + len(2, var(1, 10)) + var(1, 2) + len(2, len(14, "x")) + var(9, 0)),
       R"({"im":{"2":{"i32":10,"s":"x"}}})"},
      {"entries of a message without map_entry form an array", len(27, len(1, "a") + var(2, 1)),
       R"({"pairs":[{"key":"a","value":1}]})"},
      {"errors inside a nested message stay there", len(17, len(1, "x") + var(13, 1)),
       R"({"child":{"i32":"#","b":true}})", "i32", "typeMismatch(int32, lengthDelimited)"},
      {"a message field with a varint", var(17, 1), R"({"child":"#"})", "child",
       "typeMismatch(message(t.Sample), varInt)"},
      {"a string field holding a group", tag(14, Wire::startGroup) + tag(14, Wire::endGroup),
       R"({"s":"#"})", "s", "typeMismatch(string, startGroup)"},
      {"a message type the store lacks", len(26, ""), R"({"missing":"#"})", "missing",
       "schemaNotFound: t.Missing"},
      {"a map entry that is not length-delimited", var(21, 1), R"({"sm":"#"})", "sm",
       "typeMismatch(message(t.Sample.SmEntry), varInt)"},
      {"a value cut short by the end of the bytes",
       var(13, 1) + tag(14, Wire::lengthDelimited) +
           "\x0a"
           "abc",
       R"({"b":true,"s":"#"})", "s", "truncated"},
      {"a tag that cannot be read ends the message", var(13, 1) + "\x80",
       R"({"b":true,"<unreadable>":"#"})", "<unreadable>", "malformedProtobuf"},
      {"an end-group tag without its group", var(1, 1) + tag(13, Wire::endGroup) + var(14, 1),
       R"({"i32":1,"b":"#"})", "b", "malformedProtobuf"},
      {"a packed element running past its run", len(24, std::string(3, '\0')) + var(13, 1),
       R"({"b":true,"rf":"#"})", "rf", "malformedProtobuf"},
  };
}

TEST(JsonRenderingTest, RendersHandMadeBytes) {
  SchemaStore store(sampleManifest());
  const MessageSchema schema = store.messageSchema("t.Sample");
  for (RenderRow& row : renderRows()) {
    SCOPED_TRACE(row.name);
    LogCapture log;
    // "#" stands for the error text, which is also what is logged.
    std::vector<std::string> logged;
    if (!row.failed.empty()) {
      logged.push_back(error(row.failed, row.errorText));
      row.expected.replace(row.expected.find('#'), 1, logged.back());
    }
    EXPECT_EQ(render(schema, row.bytes), row.expected);
    EXPECT_EQ(log.lines, logged);
    // A borrowed view, streamed to a sink, renders the same text.
    std::string streamed;
    renderJSON(schema.view(row.bytes), [&](std::string_view piece) { streamed += piece; });
    EXPECT_EQ(streamed, row.expected);
    // Strict rendering throws the error that lenient rendering writes, and logs nothing.
    log.lines.clear();
    JsonOptions strict;
    strict.strict = true;
    std::string strictOutcome;
    try {
      strictOutcome = renderJSON(schema.view(row.bytes), strict);
    } catch (const Error& e) {
      strictOutcome = e.what();
    }
    EXPECT_EQ(strictOutcome, row.failed.empty() ? row.expected : row.errorText);
    EXPECT_EQ(log.lines, std::vector<std::string>{});
    // Whatever the bytes hold, the text is JSON.
    EXPECT_TRUE(json::accept(render(schema, row.bytes, JsonStyle::indented)));
  }
}

// A field that fails after the sink has taken part of the text is withdrawn from what is left,
// and so is a field left out (a zero without presence) that begins where the sink took the text:
// the streamed text is the whole one.
TEST(JsonRenderingTest, StreamsTheWholeTextPastAFieldWithdrawn) {
  SchemaStore store(sampleManifest());
  const std::string longText = std::string(100000, 'x');
  const SchematizedData failed =
      store.messageSchema("t.Sample").schematizedData(len(14, longText) + f32(16, 1));
  SchemaStore rich(generatedManifest("rich.desc"));
  const SchematizedData zero =
      rich.messageSchema("ostrel.test.Scalars").schematizedData(len(9, longText) + var(14, 0));
  // A well-known value fails once its element has begun: thousands of Timestamps, the last out of
  // range.
  SchemaStore wellKnown(generatedManifest("well_known.desc"));
  std::string times;
  for (int i = 0; i < 5000; ++i) times += len(20, var(1, static_cast<uint64_t>(i)));
  times += len(20, var(1, 253402300800));
  const SchematizedData held =
      wellKnown.messageSchema("ostrel.test.wkt.Holder").schematizedData(times);
  LogCapture log;
  for (const SchematizedData* data : {&failed, &zero, &held}) {
    std::string streamed;
    renderJSON(*data, [&](std::string_view piece) { streamed += piece; });
    EXPECT_EQ(streamed, renderJSON(*data));
  }
  EXPECT_NE(renderJSON(failed).find(error("e", "typeMismatch(enum(t.Kind), fixed32)")),
            std::string::npos);
  EXPECT_EQ(renderJSON(zero), "{\"f_string\":\"" + longText + "\"}");
  EXPECT_EQ(renderJSON(held).find("1970"), std::string::npos);
}

TEST(JsonRenderingTest, InterruptCheckStopsLongOperations) {
  struct Stop {};
  SchemaStore store(sampleManifest());
  const MessageSchema schema = store.messageSchema("t.Sample");
  std::string elements;
  std::string array = "[0";
  std::string types = R"("m.M0": {})";
  std::string proto = "syntax = \"proto3\"; message M { int32 a = 1; }";
  for (int i = 1; i < 20000; ++i) {
    elements += var(18, static_cast<uint64_t>(i));
    array += "," + std::to_string(i);
    types += R"(, "m.M)" + std::to_string(i) + R"(": {})";
  }
  proto += std::string(200000, ' ');
  array += "]";
  const std::string manifest = R"({"messages": {)" + types + "}}";
  const std::pair<const char*, std::function<void()>> rows[] = {
      {"render", [&] { render(schema, elements); }},
      {"encode", [&] { parseJSON(schema, R"({"ri": )" + array + "}"); }},
      {"manifest", [&] { schemaManifestFromJSON(manifest); }},
      {"proto", [&] { schemaManifestFromProtoText(proto); }},
  };
  static int calls;
  for (const auto& [name, operation] : rows) {
    SCOPED_TRACE(name);
    setInterruptCheck(nullptr);
    EXPECT_NO_THROW(operation());
    calls = 0;
    setInterruptCheck([] {
      if (++calls == 3) throw Stop{};
    });
    EXPECT_THROW(operation(), Stop);
    EXPECT_EQ(calls, 3);
  }
  setInterruptCheck(nullptr);
}

// Far deeper nesting is the reliability tests' part; here the limit itself.
TEST(JsonRenderingTest, NestsAtMostAHundredMessages) {
  SchemaStore store(sampleManifest());
  const MessageSchema node = store.messageSchema("t.Node");
  // t.Node bytes nesting `depth` messages, the innermost holding value 7.
  const auto nested = [](int depth) {
    std::string bytes = var(2, 7);
    for (int level = 1; level < depth; ++level) bytes = len(1, bytes);
    return bytes;
  };
  EXPECT_EQ(render(node, nested(100)), testing_support::repeated(R"({"child":)", 99) +
                                           R"({"value":7})" + testing_support::repeated("}", 99));
  const std::string tooDeep =
      error("child", "protocolBufferError: Nesting deeper than 100 messages");
  LogCapture log;
  EXPECT_EQ(render(node, nested(101)), testing_support::repeated(R"({"child":)", 100) + "\"" +
                                           tooDeep + "\"" + testing_support::repeated("}", 100));
  EXPECT_EQ(log.lines, std::vector<std::string>{tooDeep});
}

}  // namespace
}  // namespace ostrel
