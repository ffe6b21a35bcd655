// End-to-end tests of the ostrel program: each case runs the built binary with arguments and
// standard input, and checks its standard output, standard error and exit status. What the
// library makes of the data its own tests pin; these pin what the tool adds: its arguments, exit
// codes, input and output formats, record streams and error texts.

#include <gmock/gmock.h>
#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "rich.pb.h"
#include "tools/tool_run.hpp"

namespace {

using namespace ostrel::test;
using ::testing::HasSubstr;
using ::testing::StartsWith;

struct Case {
  std::string line;
  int status;
  std::string out;
  // The first line of standard error after "ostrel: ", "" for no error at all; ending in "..."
  // only its start.
  std::string err;
  std::string input;
  std::string shell = "$T < $I";
};

void expectCases(const std::vector<Case>& cases) {
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line);
    const ToolRun run = runTool(c.line, c.input, c.shell);
    EXPECT_EQ(run.status, c.status);
    EXPECT_EQ(run.out, c.out);
    const std::string first = run.err.substr(0, run.err.find('\n'));
    const std::string err = c.err.empty() ? "" : "ostrel: " + c.err;
    if (err.ends_with("...")) {
      EXPECT_THAT(first, StartsWith(err.substr(0, err.size() - 3)));
    } else {
      EXPECT_EQ(first, err) << run.err;
    }
    // A usage error, and only that, shows the usage after the error.
    EXPECT_EQ(run.err.find("\n\nusage: ostrel ") != std::string::npos, c.status == 2) << run.err;
  }
}

const std::string kShopNames =
    "shop.Card\nshop.Customer\nshop.Item\nshop.Order\nshop.Order.AttributesEntry\nshop.State\n";

const std::string kOrderFields =
    "1\tid\tunsigned integer 64\n"
    "2\tcustomer\tmessage of shop.Customer schema\n"
    "3\titems\tmessage of shop.Item schema\trepeated\n"
    "4\tstate\tshop.State enum (try .ostrel describe enum shop.State)\n"
    "5\tcard\tmessage of shop.Card schema\toneof payment\n"
    "6\tvoucher\ttext string\toneof payment\n"
    "7\tattributes\tmessage of shop.Order.AttributesEntry schema\trepeated\n"
    "8\tcreated_at\tsigned integer 64\n"
    "9\tupdated_at\tsigned integer 64\n"
    "10\tcoupons\tunsigned integer 32\trepeated\n";

TEST(OstrelTool, SchemaCommands) {
  const std::string levels = scratchFile("levels.json", R"(  {"enums": {"a.Level": {"values":
      {"LOW": 1, "HIGH": 3, "MINOR": 1, "ANY": 1, "NONE": 0, "NEG": -2}}}, "messages": {"a.M":
      {"fields": {"level": {"type": "enum", "typeName": "a.Level", "fieldNumber": 2}}}}})");
  const std::string item = scratchFile(
      "item.json",
      R"({"messages":{"shop.Item":{"fields":{"sku":{"type":"int","fieldNumber":1}}}}})");
  const std::string dangling = scratchFile("dangling.json", R"({"messages": {"a.M": {"fields":
      {"b": {"type": "schema", "typeName": "a.B", "fieldNumber": 1}}}}})");
  expectCases({
      {"$S list", 0, kShopNames},
      // Global options may follow the command, and take the attached long form.
      {"list --schema=" + kShopDesc, 0, kShopNames},
      {"--proto " + kShopProto + " list", 0, kShopNames},
      {"--proto shop.proto -I " OSTREL_EXAMPLES " list", 0, kShopNames},
      {"-s - list", 0, kShopNames, "", readFile(kShopDesc)},
      // Messages, then enums.
      {"-s " + levels + " list", 0, "a.M\na.Level\n"},
      {"$S describe message shop.Order", 0, kOrderFields},
      {"--proto " + kShopProto + " describe enum shop.State", 0,
       "STATE_UNSPECIFIED = 0\nOPEN = 1\nPAID = 2\nSHIPPED = 3\nCANCELLED = 4\n"},
      {"-s " + levels + " describe enum a.Level", 0,
       "NEG = -2\nNONE = 0\nANY = 1\nLOW = 1\nMINOR = 1\nHIGH = 3\n"},
      // A negative enum number: ten bytes of varint, as protoc writes it.
      {"-s " + levels + " text -m a.M --input hex", 0, "level: NEG\n", "",
       "10feffffffffffffffff01"},
      {"-s " + levels + " encode -m a.M --from text --output hex", 0, "10feffffffffffffffff01\n",
       "", "level: NEG"},
      // An enum whose every name is an alias of another, beside a message whose name starts with
      // a dot.
      {"-s " + scratchFile("aliases.json", R"({"enums": {"a.E": {"values": {"ZERO": 0, "NONE": 0}}},
          "messages": {".lead": {}, "a.M": {"fields": {"e": {"type": "enum", "typeName": "a.E",
          "fieldNumber": 1}}}}})") +
           " text -m a.M --input hex",
       0, "e: NONE\n", "", "0800"},
      // Messages of one package that refer to each other, one through a message that needs
      // proto2 (C's field has presence).
      {"-s " + scratchFile("cycle.json", R"({"messages": {"p.A": {"fields": {"b": {"type": "schema",
          "typeName": "p.B", "fieldNumber": 1}}}, "p.B": {"fields": {"a": {"type": "schema",
          "typeName": "p.A", "fieldNumber": 1}, "c": {"type": "schema", "typeName": "p.C",
          "fieldNumber": 2}}}, "p.C": {"fields": {"x": {"type": "int", "fieldNumber": 1}}}}})") +
           " text -m p.A --input hex",
       0, "b {\n  a {\n    b {\n    }\n  }\n}\n", "", "0a04 0a02 0a00"},
      // The -s files come first, whatever the order of the options; the first definition wins.
      {"--proto " + kShopProto + " -s " + item + " describe message shop.Item", 0,
       "1\tsku\tsigned integer 32\n2\tquantity\tunsigned integer 32\n3\tprice\tsigned integer "
       "64\n"},
      {"-s " + dangling + " describe message a.M", 1, "", "a.M.b: schemaNotFound: a.B"},
      // libprotobuf's warnings take the tool's prefix and do not fail the run.
      {"--proto " + scratchFile("nosyntax.proto", "message M { optional int32 a = 1; }") + " list",
       0, "M\n", "libprotobuf warning: No syntax specified..."},
      // A failed write to standard output fails the run.
      {"$S list", 1, "", "cannot write standard output", "", "$T > /dev/full"},
      {"--version", 0, "ostrel " OSTREL_VERSION "\n"},
  });
}

// shop.Order {id 1, customer {name "a"}} followed by {id 2, customer {name "b"}}.
constexpr const char* kAppended = "0801 0802 1203120161 1203120162";

TEST(OstrelTool, DataCommands) {
  const std::string order2 = readFile(OSTREL_EXAMPLES "/order2.bin");
  const std::string item = "{\"sku\":\"MUG-LOGO\",\"quantity\":1,\"price\":\"900\"}\n";
  const std::string leaves = "0a08 12020815 12020816";  // Rich: mid.leaves = [{id 21}, {id 22}]
  expectCases({
      {"$S get $O -i $1 id customer.name items[2].price items[3].sku state voucher coupons[1] "
       "attributes[1].value id",
       0, "\"1001\"\n\"Ada Lovelace\"\n\"475\"\nnull\n\"PAID\"\nnull\n12\n\"yes\"\n\"1001\"\n"},
      {"$S get --message shop.Order --input-file - customer", 0,
       "{\"id\":\"7\",\"name\":\"Grace Hopper\"}\n", "", order2},
      {"$S iterate $O -i $2 items", 0, item},
      {"iterate $R --input hex mid.leaves", 0, "{\"id\":21}\n{\"id\":22}\n", "", leaves},
      {"iterate $R --input hex mids[0].leaves", 0, "", "", leaves},
      // iterate prints the elements read before a fault.
      {"$S iterate $O items", 1, item, "items: truncated", order2 + "\x1a\x20\x0a\x02xy"},
      {"$S json $O --input hex", 0, "{\"id\":\"1001\"}\n", "", "08 E9\n\r\t07\n"},
      {"$S json $O --input=base64", 0, "{\"id\":\"1001\",\"voucher\":\"x\"}\n", "",
       " COkH\nMgF4\n"},
      {"$S json $O --input hex --enums-as-numbers --json-names --print-defaults", 0,
       R"({"id":"1001","items":[],"state":2,"attributes":{},"createdAt":"5","updatedAt":"0",)"
       R"("coupons":[]})"
       "\n",
       "", "08e907200240 05"},
      {"$S json $O --input hex --pretty", 0, "{\n  \"id\": \"1001\",\n  \"state\": \"PAID\"\n}\n",
       "", "08e9072002"},
      // A record written twice over itself: get reads the first occurrences unless --exact, which
      // gives protobuf's parse.
      {"$S get $O --input hex id customer.name", 0, "\"1\"\n\"a\"\n", "", kAppended},
      {"$S get $O --input hex --exact id customer.name", 0, "\"2\"\n\"b\"\n", "", kAppended},
      // coupons as a packed run [1, 2], then a single element 3.
      {"$S iterate $O --input hex coupons", 0, "1\n2\n", "", "52020102 5003"},
      {"$S iterate $O --input hex --exact coupons", 0, "1\n2\n3\n", "", "52020102 5003"},
      {"$S encode $O --output hex --ignore-unknown-fields", 0, "0801\n", "",
       R"({"id": 1, "bogus": [{"x": 1}]})"},
      {"$S encode $O --output hex", 0, "08e90720023a060a016b120176\n", "",
       R"({"id": "1001", "state": "PAID", "attributes": {"k": "v"}})"},
      {"$S encode $O --output base64", 0, "COkHMgF4\n", "", R"({"id": 1001, "voucher": "x"})"},
      {"$S encode $O -i " + scratchFile("id.json", R"({"id": 1001})"), 0, "\x08\xe9\x07"},
      // JSON Lines in, length-prefixed records out; blank lines are passed over, a bad line is
      // reported by number and skipped.
      {"$S encode $O --delimited", 0, std::string("\x03\x08\xe9\x07\x00\x02\x08\x02", 8), "",
       "{\"id\": 1001}\n\n{}\n{\"id\": 2}"},
      {"$S encode $O --delimited", 1, "\x02\x08\x02",
       "standard input, line 1: fieldNotFound: Schema \"shop.Order\" property with name \"idx\"",
       "{\"idx\": 1}\n{\"id\": 2}\n"},
      {"$S encode $O --delimited --fail-fast", 1, "", "standard input, line 1: ...",
       "{\"idx\": 1}\n{\"id\": 2}\n"},
      {"$S sql $O --table orders --column record id customer.name=who", 0,
       "SELECT\n  P_GET(record, 'id') AS id,\n  P_GET(record, 'customer.name') AS who\n"
       "FROM orders\n"},
      {"$S sql $O --table orders --column record --type-per-call --dialect postgres id", 0,
       "SELECT\n  p_get_numeric(record, 'shop.Order', 'id') AS id\nFROM orders\n"},
  });
}

TEST(OstrelTool, UsageErrorsExitTwo) {
  expectCases({
      {"$S", 2, "", "missing command"},
      {"bogus", 2, "", "unknown command \"bogus\""},
      {"--bogus list", 2, "", "unknown option --bogus"},
      {"list extra", 2, "", "unexpected argument \"extra\""},
      {"-s", 2, "", "option -s needs a value"},
      // Only long options take an attached value.
      {"-s" + kShopDesc + " list", 2, "", "unknown option -s" + kShopDesc},
      {"$S describe", 2, "", "missing \"message\" or \"enum\""},
      {"$S describe service x", 2, "", "describe takes \"message\" or \"enum\", not \"service\""},
      {"$S describe message", 2, "", "missing NAME"},
      {"$S get id", 2, "", "missing -m MSG"},
      // Usage comes first: the missing schema file is never opened.
      {"-s missing.desc get $O", 2, "", "missing PATH"},
      {"$S get $O --input text id", 2, "", "--input must be binary, hex or base64, not \"text\""},
      {"$S get $O --format xml id", 2, "",
       "--format must be lines, jsonl, csv or tsv, not \"xml\""},
      {"$S get $O -i $1 -i $2 --format lines id", 2, "",
       "--format lines reads one message; a stream of records needs jsonl, csv or tsv"},
      {"$S json $O --delimited --input hex", 2, "",
       "--framing and --delimited read binary records; --input must be binary"},
      {"$S get $O --framing u32 id", 2, "",
       "--framing must be varint, u32be, single or confluent (or varint+confluent, "
       "u32be+confluent), not \"u32\""},
      {"$S get --framing confluent id", 2, "", "missing -m MSG"},
      {"$S get $O --schema-id 1 id", 2, "", "--schema-id takes ID=FILE, not \"1\""},
      {"$S get $O --schema-id 1=x.desc id", 2, "",
       "--schema-id and --schema-dir name the schemas of Confluent ids: --framing confluent"},
      {"$S get $O --topic t id", 2, "", "missing --kafka HOST:PORT"},
      {"$S get $O --kafka h:1 --topic t --framing u32be id", 2, "",
       "--kafka reads one record a message: --framing single or confluent"},
      {"$S get $O --provenance id", 2, "", "--provenance applies to --kafka"},
      {"$S encode $O --input hex", 2, "", "unknown option --input"},
      {"$S encode $O --output json", 2, "", "--output must be binary, hex or base64, not \"json\""},
      {"$S encode $O --from yaml", 2, "", "--from must be json or text, not \"yaml\""},
      {"$S encode $O --delimited --output hex", 2, "",
       "--delimited writes binary records; --output must be binary"},
      {"$S encode $O --fail-fast", 2, "", "--fail-fast applies to --delimited only"},
      {"help bogus", 2, "", "unknown command \"bogus\""},
      {"$S manifest --format xml", 2, "", "--format must be json or descriptor-set, not \"xml\""},
      {"$S manifest --format descriptor-set --pretty", 2, "",
       "--pretty applies to --format json only"},
      {"$S manifest --output hex", 2, "", "--output applies to --format descriptor-set only"},
      {"$S sql $O --column c id", 2, "", "missing --table TABLE"},
      {"$S sql $O --column c --table t", 2, "", "missing PATH"},
      {"$S sql $O --column c --table t --dialect mysql id", 2, "",
       "--dialect takes sqlite or postgres, not \"mysql\""},
      {"$S sql $O --column c --table t --dialect postgres --db x.db id", 2, "",
       "--db runs SQLite; it cannot run the postgres dialect"},
      {"$S sql $O --column c --table '' id", 2, "", "empty SQL table name"},
  });
}

TEST(OstrelTool, SchemaAndDataErrorsExitOne) {
  const std::string missing = scratchFile("x", "") + "-missing";
  const std::string badJSON = scratchFile("bad.json", " \n {\"messages\": 3}");
  expectCases({
      {"-s " + missing + " list", 1, "", "cannot read " + missing + ": No such file or directory"},
      // An endless schema stream stops at the cap rather than filling memory.
      {"-s /dev/zero list", 1, "", "/dev/zero: schema larger than 64 MiB"},
      {"-s " + kShopProto + " list", 1, "",
       kShopProto + ": malformedProtobuf (a .proto file: load it with --proto " + kShopProto + ")"},
      // libprotobuf's "File not found." is a file the tool cannot read.
      {"--proto " + missing + ".proto list", 1, "",
       "cannot read " + missing + ".proto: No such file or directory (looked in " +
           std::filesystem::path(missing).parent_path().string() + ")"},
      {"--proto " + kShopProto + " -I " + kTestData + " list", 1, "",
       kShopProto + ": not inside any -I folder (" + kTestData + "); add its folder with -I"},
      // Names the user probably meant: without the package, in another case, a typo.
      {"$S get -m Order -i $1 id", 1, "", "schemaNotFound: Order (did you mean shop.Order?)"},
      {"$S get -m shop.ordr -i $1 id", 1, "",
       "schemaNotFound: shop.ordr (did you mean shop.Order?)"},
      {"$S describe enum State", 1, "", "enumNotFound: State (did you mean shop.State?)"},
      {"$S describe message Nothing", 1, "", "schemaNotFound: Nothing"},
      {"$S manifest --closure Card", 1, "", "schemaNotFound: Card (did you mean shop.Card?)"},
      {"$S get $O -i $1 id attributes.value", 1, "",
       "attributes.value: repeatedValueAccessNoIndex (attributes is repeated: name one element by "
       "its index, as in attributes[0].value, or list them all with: ostrel iterate -m shop.Order "
       "attributes)"},
      {"$S sql $O --table t --column r items[1].sku items.sku", 1, "",
       "items.sku: repeatedValueAccessNoIndex (items is repeated: name one element by its index, "
       "as in items[0].sku, or all of them with P_EACH)"},
      // A JSON manifest is known by its first character after white space.
      {"-s " + badJSON + " list", 1, "",
       badJSON + ": invalidValueType: messages: expected an object"},
      // After "--" every argument is a path, "--help" too.
      {"$S get $O -i $1 -- --help", 1, "", "PropertyPathUtil Error: Missing field name"},
      // Paths are checked before the data is read: this data is not even there.
      {"$S get $O -i " + missing + " id items[0].nope", 1, "",
       "items[0].nope: fieldNotFound: Schema \"shop.Item\" property with name \"nope\""},
      {"$S get $O id customer.name", 1, "", "customer.name: malformedProtobuf",
       readFile(kOrder1).substr(0, 8)},
      {"$S json $O --input hex", 1, "", "input is not hex: odd number of digits", "0a0"},
      {"$S json $O --input hex", 1, "", "input is not hex: unexpected character 'g'", "0g"},
      {"$S json $O --input base64", 1, "", "input is not base64", "CO=k"},
      {"$S encode $O --from text", 1, "", "unexpectedType: 1:5: Expected integer, got: x", "id: x"},
  });
}

TEST(OstrelTool, HelpOnEveryCommand) {
  for (const char* line :
       {"--help", "-h", "-s does-not-matter.desc --help", "describe message -h", "get -m x -h p",
        "manifest --format bogus --help", "sql --help", "help", "help get"}) {
    SCOPED_TRACE(line);
    const ToolRun run = runTool(line);
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.err, "");
    const std::vector<std::string> topic = words(line);
    // "help COMMAND" shows the usage of COMMAND, "help" alone the tool's.
    const size_t named = topic[0] == "help" ? 1 : 0;
    const std::string command =
        line[0] == '-' || named == topic.size() ? "COMMAND" : topic[named] + " ";
    EXPECT_THAT(run.out.substr(0, run.out.find('\n')),
                ::testing::AllOf(StartsWith("usage: ostrel "), HasSubstr(command)));
  }
}

TEST(OstrelTool, ManifestExportsReadBack) {
  const ToolRun json = runTool("$S manifest");
  const std::string set =
      scratchFile("set.desc", runTool("$S manifest --format descriptor-set").out);
  const std::string asJSON = runTool("$S json -m google.protobuf.FileDescriptorSet -i " + set).out;
  // A descriptor set without delimited fields goes out as a proto2 file, which every protobuf
  // runtime reads: its fields have presence, so proto3's implicit presence and packing of repeated
  // scalars do not come back, and its enums come back closed, as proto2's are.
  const auto without = [](std::string text, const std::string& member) {
    for (size_t at; (at = text.find(member)) != std::string::npos;) text.erase(at, member.size());
    return text;
  };
  EXPECT_EQ(without(runTool("-s " + set + " manifest").out, "\"closedEnum\":true,"),
            without(without(json.out, "\"implicitPresence\":true,"), "\"packed\":true,"));
  expectCases({
      {"-s - list", 0, kShopNames, "", runTool("$S manifest --pretty --format json").out},
      {"$S json -m google.protobuf.FileDescriptorSet --input hex", 0, asJSON, "",
       runTool("$S manifest --format=descriptor-set --output hex").out},
      // The closure: the messages named and what their fields reach, enums and map entries too.
      {"-s - list", 0, "shop.Customer\n", "", runTool("$S manifest --closure shop.Customer").out},
      {"-s - list", 0, "shop.Card\nshop.Item\n", "",
       runTool("$S manifest --closure shop.Item --closure shop.Card").out},
      {"-s - list", 0, kShopNames, "", runTool("$S manifest --closure shop.Order").out},
  });
}

TEST(OstrelTool, Proto2GroupsAreRefusedSkippedOrRead) {
  const std::string desc = OSTREL_TEST_GENERATED "/proto2_shapes.desc";
  const std::string groups =
      "invalidValueType: Group is deprecated: group fields ostrel.proto2.Legacy.header, "
      "ostrel.proto2.Legacy.item, ostrel.proto2.Legacy.choice, ostrel.proto2.Legacy.Header.entry, "
      "ostrel.proto2.marker (--groups read reads them as messages, --groups skip leaves them out)";
  // Each group field left out is noted once; notes do not fail the run.
  const std::string note = "note: group field ostrel.proto2.Legacy.header left out of the schema";
  const std::string get = " get -m ostrel.proto2.Packed --input hex p_int32[1] after";
  const std::string packed = "2a020102e00207";  // p_int32 = [1, 2], after = 7
  const std::string legacy = "0801131a0174143338053433380734";
  expectCases({
      {"-s " + desc + " list", 1, "", desc + ": " + groups},
      {"--proto " + kTestData + "/proto2_shapes.proto list", 1, "", groups},
      {"-s " + desc + " --skip-groups" + get, 0, "2\n7\n", note, packed},
      {"-s " + desc + " --groups skip" + get, 0, "2\n7\n", note, packed},
      {"-s " + desc + " --groups all" + get, 2, "", "--groups must be read or skip, not \"all\""},
      // id 1, Header { title "t" }, Item { sku 5 }, Item { sku 7 }: groups read as messages,
      // printed as protoc --decode prints them.
      {"-s " + desc +
           " --groups read get -m ostrel.proto2.Legacy --input hex header.title item[1].sku",
       0, "\"t\"\n7\n", "", legacy},
      {"-s " + desc + " --groups read json -m ostrel.proto2.Legacy --input hex", 0,
       R"({"id":1,"header":{"title":"t"},"item":[{"sku":5},{"sku":7}]})"
       "\n",
       "", legacy},
      {"-s " + desc + " --groups read text -m ostrel.proto2.Legacy --input hex", 0,
       "id: 1\nHeader {\n  title: \"t\"\n}\nItem {\n  sku: 5\n}\nItem {\n  sku: 7\n}\n", "",
       legacy},
  });
  const ToolRun run = runTool("-s " + desc + " --skip-groups" + get, packed);
  EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 5) << run.err;
}

TEST(OstrelTool, DelimitedStreamsSkipBadRecordsAndNameThem) {
  // Records of test::Rich: record n (from 1) holds scalars.f_int64 = n and a note; record 12345
  // is bytes that are not a message, and the last one is cut short. Over a megabyte, so that a
  // pipe is read in several chunks with records across their edges.
  const int count = 40000;
  const int corrupt = 12345;
  std::string bytes;
  std::string expected;
  size_t badAt = 0;
  size_t lastAt = 0;  // where the corrupt record and the last one start
  for (int n = 1; n <= count; ++n) {
    ostrel::test::Rich message;
    message.mutable_scalars()->set_f_int64(n);
    message.mutable_mid()->set_note("note, \"" + std::to_string(n) + "\"");
    std::string record = n == corrupt ? "\x08\xff\xff" : message.SerializeAsString();
    lastAt = bytes.size();
    if (n == corrupt) badAt = lastAt;
    bytes += static_cast<char>(record.size());  // each under 128 bytes: a one-byte length
    if (n == count) record.resize(record.size() / 2);
    bytes += record;
    if (n != corrupt && n != count) {
      expected += "{\"scalars.f_int64\":\"" + std::to_string(n) + "\",\"mid.note\":\"note, \\\"" +
                  std::to_string(n) + "\\\"\",\"color\":null}\n";
    }
  }
  const std::string file = scratchFile("rich.delimited", bytes);
  const std::string bad = "record " + std::to_string(corrupt) + " at byte " +
                          std::to_string(badAt) + ": scalars.f_int64: malformedProtobuf\n";
  const std::string badLast = "record " + std::to_string(count) + " at byte " +
                              std::to_string(lastAt) + ": length prefix not followed";
  const std::string get = "get $R --delimited scalars.f_int64 mid.note color";

  // Mapped, then through a pipe, read in chunks: the same lines and the same reports.
  for (const auto& [name, run] : std::vector<std::pair<std::string, ToolRun>>{
           {file, runTool(get + " -i " + file)},
           {"standard input", runTool(get, "", "cat " + file + " | $T")}}) {
    EXPECT_EQ(run.status, 1);
    EXPECT_THAT(run.err,
                StartsWith("ostrel: " + name + ": " + bad + "ostrel: " + name + ": " + badLast));
    EXPECT_TRUE(run.out == expected) << run.out.substr(0, 300);
  }
  // --fail-fast stops at the corrupt record.
  const ToolRun fast = runTool(get + " --fail-fast", bytes);
  EXPECT_EQ(fast.status, 1);
  EXPECT_EQ(std::count(fast.out.begin(), fast.out.end(), '\n'), corrupt - 1);
  EXPECT_EQ(fast.err, "ostrel: standard input: " + bad);
  // json and iterate print one line per good record.
  const ToolRun json = runTool("json $R --delimited -i " + file);
  EXPECT_EQ(json.status, 1);
  EXPECT_EQ(std::count(json.out.begin(), json.out.end(), '\n'), count - 2);
  EXPECT_THAT(json.out, StartsWith(R"({"mid":{"note":"note, \"1\""},"scalars":{"f_int64":"1"}})"
                                   "\n"));
  const ToolRun iterate = runTool("iterate $R --delimited -i " + file + " mid.leaves");
  EXPECT_EQ(iterate.status, 1);
  EXPECT_THAT(iterate.out, StartsWith("[]\n[]\n"));
}

// A test::Rich record, encoded, from its text format.
std::string richRecord(const std::string& text) {
  ostrel::test::Rich message;
  EXPECT_TRUE(google::protobuf::TextFormat::ParseFromString(text, &message)) << text;
  return message.SerializeAsString();
}

TEST(OstrelTool, CsvAndTsvFieldsKeepTheirRowsAndShowNoControlCharacters) {
  // ESC, BEL, the C1 control CSI (U+009B) and DEL never reach a terminal raw.
  const std::string rich = richRecord(R"(mid { note: "a\tb\nc\\d\re,\"\033[31m\007\302\233\177é" }
      repeats { r_enum: 77 }
      scalars { f_bytes: "\377" f_enum: BLUE f_uint64: 18446744073709551615 f_int64: -9
                f_double: nan f_message { id: 1 } })");
  const std::string paths =
      "mid.note scalars.f_bytes scalars.f_enum scalars.f_uint64 scalars.f_int64 scalars.f_double "
      "scalars.f_message repeats.r_enum[0]";
  const std::string missing = scratchFile("unreadable", "") + ".missing";
  // The record itself, an empty one (every value absent), one holding an empty note, and a file
  // that cannot be read: reported, and the others still print.
  const std::string get = "get $R -i " + scratchFile("rich.bin", rich) + " -i " +
                          scratchFile("empty.bin", "") + " -i " +
                          scratchFile("empty-note.bin", std::string("\x0a\x02\x1a\x00", 4)) +
                          " -i " + missing + " --format ";
  std::string header = paths + "\n";
  std::replace(header.begin(), header.end(), ' ', '\t');
  const std::string control = "\\x1b[31m\\x07\\xc2\\x9b\\x7fé";
  const ToolRun tsv = runTool(get + "tsv " + paths);
  EXPECT_EQ(tsv.out, header + "a\\tb\\nc\\\\d\\re,\"" + control +
                         "\t/w==\tBLUE\t18446744073709551615\t-9\tNaN\t{\"id\":1}\t77\n"
                         "\\N\t\\N\t\\N\t\\N\t\\N\t\\N\t\\N\t\\N\n"
                         "\t\\N\t\\N\t\\N\t\\N\t\\N\t\\N\t\\N\n");
  EXPECT_EQ(tsv.status, 1);
  EXPECT_EQ(tsv.err,
            "ostrel: " + missing + ": cannot read " + missing + ": No such file or directory\n");
  std::replace(header.begin(), header.end(), '\t', ',');
  EXPECT_EQ(
      runTool(get + "csv " + paths).out,
      header + "\"a\tb\nc\\d\re,\"\"" + control +
          "\",/w==,BLUE,18446744073709551615,-9,NaN,\"{\"\"id\"\":1}\",77\n,,,,,,,\n\"\",,,,,,,\n");

  // A long note whose escapes fall on the edges of 8-byte words, with a byte that is not UTF-8
  // (U+FFFD, as a string decodes) and a C1 control, in each format.
  const std::string note =
      "1234567\"89abcde\\\xff"
      "fghijklm\xe2\x82\xac,nopqrst\xc2\x85uvwxyz01\t";
  const std::string record = std::string("\x0a") + static_cast<char>(note.size() + 2) + "\x1a" +
                             static_cast<char>(note.size()) + note;
  const std::string one = "get $R mid.note -i " + scratchFile("long-note.bin", record) + " -i " +
                          scratchFile("empty.bin", "") + " --format ";
  EXPECT_EQ(runTool(one + "jsonl").out,
            "{\"mid.note\":\"1234567\\\"89abcde\\\\\xef\xbf\xbd"
            "fghijklm\xe2\x82\xac,nopqrst\xc2\x85"
            "uvwxyz01\\t\"}\n{\"mid.note\":null}\n");
  EXPECT_EQ(runTool(one + "csv").out,
            "mid.note\n\"1234567\"\"89abcde\\\xef\xbf\xbd"
            "fghijklm\xe2\x82\xac,nopqrst\\xc2\\x85"
            "uvwxyz01\t\"\n\n");
  EXPECT_EQ(runTool(one + "tsv").out,
            "mid.note\n1234567\"89abcde\\\\\xef\xbf\xbd"
            "fghijklm\xe2\x82\xac,nopqrst\\xc2\\x85"
            "uvwxyz01\\t\n\\N\n");
}

// A database file made by `sql`.
std::string database(const std::string& name, const std::string& sql) {
  const std::string file = scratchFile(name, "");
  sqlite3* db = nullptr;
  sqlite3_open(file.c_str(), &db);
  EXPECT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sql;
  sqlite3_close(db);
  return file;
}

std::string hex(const std::string& bytes) {
  std::string out;
  for (const unsigned char c : bytes)
    out += {"0123456789abcdef"[c >> 4], "0123456789abcdef"[c & 15]};
  return out;
}

TEST(OstrelTool, SqlRunsOnADatabaseAndNamesTheRowThatFails) {
  // Each kind of SQLite value: integer, real, text, blob (as base64) and NULL.
  const std::string rich =
      richRecord(R"(scalars { f_double: 2.5 f_bytes: "\000\377" f_int32: -3 } mid { note: "n" })");
  const std::string sql = "$S sql $O --table t --column r id customer.name state=c --db ";
  const std::string first = "{\"id\":1001,\"customer.name\":\"Ada Lovelace\",\"c\":\"PAID\"}\n";
  const std::string rows = " VALUES (1, x'" + hex(readFile(kOrder1)) + "'), (2, ";
  const std::string table = "CREATE TABLE t (k INTEGER PRIMARY KEY, r BLOB)";
  expectCases({
      {"sql $R --table t --column r scalars.f_int32=i scalars.f_double=d mid=m scalars.f_bytes=b "
       "color=n --db " +
           database("rich.db",
                    "CREATE TABLE t (r BLOB); INSERT INTO t VALUES (x'" + hex(rich) + "')"),
       0,
       R"({"i":-3,"d":2.5,"m":"{\"note\":\"n\"}","b":"AP8=","n":null})"
       "\n"},
      {sql + database("null.db", table + "; INSERT INTO t" + rows + "NULL)"), 0,
       first + "{\"id\":null,\"customer.name\":null,\"c\":null}\n"},
      // SQLite does not say which record failed: the tool finds it, by rowid where there is one.
      {sql + database("bad.db", table + "; INSERT INTO t" + rows + "x'ffff')"), 1, first,
       "t, row with rowid 2: ..."},
      {sql + database("bad-without-rowid.db",
                      table + " WITHOUT ROWID; INSERT INTO t" + rows + "x'ffff')"),
       1, first, "t, row 2: ..."},
  });
}

}  // namespace
