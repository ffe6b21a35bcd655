// End-to-end tests of the ostrel program: each case runs the built binary with arguments and
// standard input, and checks its standard output, standard error and exit status.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <google/protobuf/util/json_util.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "rich.pb.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

const std::string kShopDesc = OSTREL_EXAMPLES "/shop.desc";
const std::string kShopProto = OSTREL_EXAMPLES "/shop.proto";
const std::string kOrder1 = OSTREL_EXAMPLES "/order1.bin";
const std::string kOrder2 = OSTREL_EXAMPLES "/order2.bin";
const std::string kOrder3 = OSTREL_EXAMPLES "/order3.bin";
const std::string kRichDesc = OSTREL_TEST_GENERATED "/rich.desc";
const std::string kTestData = OSTREL_TEST_DATA;

std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

void writeFile(const fs::path& path, const std::string& contents) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << contents;
}

// A directory of its own for each test process: ctest runs tests in parallel.
const fs::path& scratch() {
  static const fs::path dir = [] {
    std::string pattern = (fs::temp_directory_path() / "ostrel_tool_test_XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) std::abort();
    return fs::path(pattern);
  }();
  return dir;
}

struct ToolRun {
  int status = -1;  // the exit status, -1 when the program did not exit normally
  std::string out;
  std::string err;
  long maxResidentKiB = 0;  // the peak memory of the process
};

// Runs the tool with `args` and `input` on its standard input. Output goes through files, which
// never block the child the way a pipe nobody reads would. With a `launcher` (a program and its
// first arguments), that runs the tool, its path and `args` following.
ToolRun runTool(const std::vector<std::string>& args, const std::string& input = "",
                const std::vector<std::string>& launcher = {}) {
  const fs::path in = scratch() / "stdin";
  const fs::path out = scratch() / "stdout";
  const fs::path err = scratch() / "stderr";
  writeFile(in, input);
  std::vector<std::string> argv = launcher;
  argv.push_back(OSTREL_TOOL);
  argv.insert(argv.end(), args.begin(), args.end());
  std::vector<char*> pointers;
  for (std::string& arg : argv) pointers.push_back(arg.data());
  pointers.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, in.c_str(), O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  pid_t pid = 0;
  const int spawned =
      posix_spawn(&pid, argv.front().c_str(), &actions, nullptr, pointers.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ToolRun run;
  if (spawned != 0) {
    run.err = "posix_spawn failed";
    return run;
  }
  int wstatus = 0;
  struct rusage usage {};
  wait4(pid, &wstatus, 0, &usage);
  if (WIFEXITED(wstatus)) run.status = WEXITSTATUS(wstatus);
  run.maxResidentKiB = usage.ru_maxrss;
  run.out = readFile(out);
  run.err = readFile(err);
  return run;
}

std::string describe(const std::vector<std::string>& args) {
  std::string text = "ostrel";
  for (const std::string& arg : args) text += " " + arg;
  return text;
}

// Each line of `text` parsed as JSON, so that spacing and number spelling do not matter.
std::vector<nlohmann::json> jsonLines(const std::string& text) {
  std::vector<nlohmann::json> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    lines.push_back(nlohmann::json::parse(line, nullptr, false));
  }
  return lines;
}

enum class Compare { exact, jsonLines };

struct Row {
  std::vector<std::string> args;
  std::string out;
  Compare compare = Compare::exact;
  std::string input;
};

void expectRows(const std::vector<Row>& rows) {
  for (const Row& row : rows) {
    SCOPED_TRACE(describe(row.args));
    const ToolRun run = runTool(row.args, row.input);
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.err, "");
    if (row.compare == Compare::exact) {
      EXPECT_EQ(run.out, row.out);
    } else {
      EXPECT_EQ(jsonLines(run.out), jsonLines(row.out)) << run.out;
    }
  }
}

// ---- The bundled example ----

constexpr std::string_view kOrderFields =
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

constexpr std::string_view kShopNames =
    "shop.Card\nshop.Customer\nshop.Item\nshop.Order\nshop.Order.AttributesEntry\nshop.State\n";

constexpr std::string_view kOrder1JSON =
    R"({"id":"1001","customer":{"id":"42","name":"Ada Lovelace","email":"ada@example.com"},)"
    R"("items":[{"sku":"PEN-BLUE","quantity":3,"price":"250"},)"
    R"({"sku":"NOTEBOOK-A5","quantity":1,"price":"1290"},)"
    R"({"sku":"INK-BLACK","quantity":2,"price":"475"}],"state":"PAID",)"
    R"("card":{"network":"visa","last4":"4242"},"attributes":{"channel":"web","gift":"yes"},)"
    R"("created_at":"1700000000000","updated_at":"1700000360000","coupons":[5,12]})"
    "\n";

TEST(OstrelTool, SchemaCommandsOnTheBundledExample) {
  expectRows({
      {{"-s", kShopDesc, "list"}, std::string(kShopNames)},
      // Global options may follow the command, and take the attached long form.
      {{"list", "--schema=" + kShopDesc}, std::string(kShopNames)},
      {{"--proto", kShopProto, "list"}, std::string(kShopNames)},
      {{"--proto", "shop.proto", "-I", OSTREL_EXAMPLES, "list"}, std::string(kShopNames)},
      // Loading one schema twice is harmless.
      {{"-s", kShopDesc, "--proto", kShopProto, "list"}, std::string(kShopNames)},
      {{"list"}, ""},
      {{"-s", kShopDesc, "describe", "message", "shop.Order"}, std::string(kOrderFields)},
      {{"--proto", kShopProto, "describe", "message", "shop.Order"}, std::string(kOrderFields)},
      {{"-s", kShopDesc, "describe", "message", "shop.Item"},
       "1\tsku\ttext string\n2\tquantity\tunsigned integer 32\n3\tprice\tsigned integer 64\n"},
      {{"-s", kShopDesc, "describe", "message", "shop.Order.AttributesEntry"},
       "1\tkey\ttext string\n2\tvalue\ttext string\n"},
      {{"-s", kShopDesc, "describe", "enum", "shop.State"},
       "STATE_UNSPECIFIED = 0\nOPEN = 1\nPAID = 2\nSHIPPED = 3\nCANCELLED = 4\n"},
      // The descriptor.proto messages the library needs are always there.
      {{"describe", "enum", "google.protobuf.FieldDescriptorProto.Label"},
       "LABEL_OPTIONAL = 1\nLABEL_REQUIRED = 2\nLABEL_REPEATED = 3\n"},
  });
}

TEST(OstrelTool, DataCommandsOnTheBundledExample) {
  const std::string order1 = readFile(kOrder1);
  expectRows({
      {{"-s", kShopDesc, "get", "-m", "shop.Order", "-i", kOrder1, "id", "customer.name",
        "items[2].price", "items[3].sku", "state", "voucher", "card.last4", "coupons[1]",
        "created_at", "attributes[1].value"},
       "\"1001\"\n\"Ada Lovelace\"\n\"475\"\nnull\n\"PAID\"\nnull\n\"4242\"\n12\n"
       "\"1700000000000\"\n\"yes\"\n"},
      {{"-s", kShopDesc, "get", "-m", "shop.Order", "-i", kOrder2, "voucher", "card",
        "customer.email", "updated_at", "customer", "items[0]"},
       "\"WELCOME10\"\nnull\nnull\nnull\n"
       R"({"id":"7","name":"Grace Hopper"})"
       "\n"
       R"({"sku":"MUG-LOGO","quantity":1,"price":"900"})"
       "\n",
       Compare::jsonLines},
      // The same path twice gives two lines.
      {{"-s", kShopDesc, "get", "--message", "shop.Order", "--input-file", kOrder3, "state",
        "state"},
       "\"CANCELLED\"\n\"CANCELLED\"\n"},
      {{"-s", kShopDesc, "iterate", "-m", "shop.Order", "-i", kOrder1, "items"},
       R"({"sku":"PEN-BLUE","quantity":3,"price":"250"})"
       "\n"
       R"({"sku":"NOTEBOOK-A5","quantity":1,"price":"1290"})"
       "\n"
       R"({"sku":"INK-BLACK","quantity":2,"price":"475"})"
       "\n",
       Compare::jsonLines},
      {{"-s", kShopDesc, "iterate", "-m", "shop.Order", "-i", kOrder1, "coupons"}, "5\n12\n"},
      {{"-s", kShopDesc, "iterate", "-m", "shop.Order", "-i", kOrder1, "attributes"},
       "{\"key\":\"channel\",\"value\":\"web\"}\n{\"key\":\"gift\",\"value\":\"yes\"}\n",
       Compare::jsonLines},
      // An absent repeated field prints nothing.
      {{"-s", kShopDesc, "iterate", "-m", "shop.Order", "-i", kOrder3, "items"}, ""},
      {{"-s", kShopDesc, "json", "-m", "shop.Order", "-i", kOrder1},
       std::string(kOrder1JSON),
       Compare::jsonLines},
      {{"-s", kShopDesc, "json", "-m", "shop.Order"},
       std::string(kOrder1JSON),
       Compare::jsonLines,
       order1},
      {{"-s", kShopDesc, "json", "-m", "shop.Order", "--input", "hex"},
       std::string(kOrder1JSON),
       Compare::jsonLines,
       runTool({"-s", kShopDesc, "encode", "-m", "shop.Order", "--output", "hex"},
               std::string(kOrder1JSON))
           .out},
      {{"-s", kShopDesc, "json", "-m", "shop.Order", "--input=base64"},
       std::string(kOrder1JSON),
       Compare::jsonLines,
       runTool({"-s", kShopDesc, "encode", "-m", "shop.Order", "--output", "base64"},
               std::string(kOrder1JSON))
           .out},
      {{"-s", kShopDesc, "json", "-m", "shop.Order", "--input", "hex"},
       R"({"id":"1001"})"
       "\n",
       Compare::jsonLines,
       "08 e9\n07\n"},
      {{"-s", kShopDesc, "json", "-m", "shop.Order", "--input", "base64"},
       R"({"id":"1001","voucher":"x"})"
       "\n",
       Compare::jsonLines,
       "COkHMgF4\n"},
      {{"-s", kShopDesc, "json", "-m", "shop.Order"}, "{}\n", Compare::exact, ""},
      // The print options.
      {{"-s", kShopDesc, "json", "-m", "shop.Order", "--input", "hex", "--enums-as-numbers",
        "--json-names"},
       "{\"id\":\"1001\",\"state\":2,\"createdAt\":\"5\"}\n",
       Compare::exact,
       "08 e9 07 20 02 40 05\n"},
      {{"-s", kShopDesc, "json", "-m", "shop.Order", "--input", "hex", "--print-defaults"},
       R"({"id":"1001","items":[],"state":"STATE_UNSPECIFIED","attributes":{},)"
       R"("created_at":"0","updated_at":"0","coupons":[]})"
       "\n",
       Compare::exact,
       "08 e9 07\n"},
  });
}

TEST(OstrelTool, JsonPrettySpreadsOverLines) {
  const ToolRun run =
      runTool({"-s", kShopDesc, "json", "-m", "shop.Order", "-i", kOrder2, "--pretty"});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_GT(std::count(run.out.begin(), run.out.end(), '\n'), 5);
  EXPECT_EQ(nlohmann::json::parse(run.out),
            nlohmann::json::parse(
                runTool({"-s", kShopDesc, "json", "-m", "shop.Order", "-i", kOrder2}).out));
}

TEST(OstrelTool, IterateStreamsWhatItReadBeforeAFault) {
  // The second element of "items" runs past the end of the message.
  std::string data = readFile(kOrder2);
  data += std::string("\x1a\x20\x0a\x02xy", 6);
  const ToolRun run = runTool({"-s", kShopDesc, "iterate", "-m", "shop.Order", "items"}, data);
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(jsonLines(run.out), jsonLines(R"({"sku":"MUG-LOGO","quantity":1,"price":"900"})"
                                          "\n"));
  EXPECT_THAT(run.err, StartsWith("ostrel: items: "));
}

TEST(OstrelTool, JsonRendersAroundAFaultButFails) {
  // id 1002, then a customer whose only field is a tag without its value.
  const std::string data("\x08\xea\x07\x12\x01\x08", 6);
  const ToolRun run = runTool({"-s", kShopDesc, "json", "-m", "shop.Order"}, data);
  EXPECT_EQ(run.status, 1);
  const nlohmann::json json = nlohmann::json::parse(run.out, nullptr, false);
  EXPECT_EQ(json.value("id", ""), "1002") << run.out;
  EXPECT_THAT(run.out, HasSubstr("Sch: Error encoding "));
  EXPECT_THAT(run.err, StartsWith("ostrel: Sch: Error encoding "));
}

// ---- encode ----

TEST(OstrelTool, EncodeThenJsonRoundTrips) {
  for (const std::string& file : {kOrder1, kOrder2, kOrder3}) {
    SCOPED_TRACE(file);
    const ToolRun json = runTool({"-s", kShopDesc, "json", "-m", "shop.Order", "-i", file});
    ASSERT_EQ(json.status, 0) << json.err;
    const ToolRun encoded = runTool({"-s", kShopDesc, "encode", "-m", "shop.Order"}, json.out);
    ASSERT_EQ(encoded.status, 0) << encoded.err;
    const ToolRun again = runTool({"-s", kShopDesc, "json", "-m", "shop.Order"}, encoded.out);
    ASSERT_EQ(again.status, 0) << again.err;
    EXPECT_EQ(nlohmann::json::parse(again.out), nlohmann::json::parse(json.out));
  }
}

TEST(OstrelTool, EncodeWritesWhatGetReads) {
  const std::string jsonFile = (scratch() / "order.json").string();
  writeFile(jsonFile, R"({"id": "77", "items": [{"sku": "A", "quantity": 2}, {"sku": "B"}],
                          "state": "OPEN", "attributes": {"k": "v"}})");
  const ToolRun encoded =
      runTool({"-s", kShopDesc, "encode", "-m", "shop.Order", "-i", jsonFile, "--output", "hex"});
  ASSERT_EQ(encoded.status, 0) << encoded.err;
  ASSERT_FALSE(encoded.out.empty());
  EXPECT_EQ(encoded.out.back(), '\n');
  const ToolRun got = runTool({"-s", kShopDesc, "get", "-m", "shop.Order", "--input", "hex", "id",
                               "items[1].sku", "items[0].quantity", "state", "attributes[0].key"},
                              encoded.out);
  EXPECT_EQ(got.status, 0) << got.err;
  EXPECT_EQ(got.out, "\"77\"\n\"B\"\n2\n\"OPEN\"\n\"k\"\n");
}

// ---- manifest ----

std::vector<std::string> keys(const nlohmann::json& object) {
  std::vector<std::string> names;
  if (!object.is_object()) return names;
  for (const auto& [name, value] : object.items()) names.push_back(name);
  return names;
}

TEST(OstrelTool, ManifestExportsWhatTheSchemasDefine) {
  const ToolRun run = runTool({"-s", kShopDesc, "manifest"});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(std::count(run.out.begin(), run.out.end(), '\n'), 1);
  const nlohmann::json manifest = nlohmann::json::parse(run.out);
  EXPECT_THAT(keys(manifest["messages"]),
              ::testing::ElementsAre("shop.Card", "shop.Customer", "shop.Item", "shop.Order",
                                     "shop.Order.AttributesEntry"));
  EXPECT_THAT(keys(manifest["enums"]), ::testing::ElementsAre("shop.State"));

  // The export reads back, as JSON and as a descriptor set, to the same schemas.
  const std::string jsonFile = (scratch() / "shop.json").string();
  writeFile(jsonFile, run.out);
  const ToolRun pretty = runTool({"-s", kShopDesc, "manifest", "--pretty", "--format", "json"});
  EXPECT_EQ(nlohmann::json::parse(pretty.out), manifest);
  EXPECT_GT(std::count(pretty.out.begin(), pretty.out.end(), '\n'), 10);
  const std::string descFile = (scratch() / "shop-export.desc").string();
  writeFile(descFile, runTool({"-s", kShopDesc, "manifest", "--format", "descriptor-set"}).out);
  const ToolRun base64 =
      runTool({"-s", kShopDesc, "manifest", "--format", "descriptor-set", "--output", "base64"});
  EXPECT_EQ(base64.status, 0) << base64.err;
  expectRows({
      {{"-s", jsonFile, "list"}, std::string(kShopNames)},
      {{"-s", jsonFile, "describe", "message", "shop.Order"}, std::string(kOrderFields)},
      {{"-s", descFile, "list"}, std::string(kShopNames)},
      {{"-s", descFile, "describe", "message", "shop.Order"}, std::string(kOrderFields)},
      {{"-s", descFile, "manifest"}, run.out},
      {{"-s", jsonFile, "get", "-m", "shop.Order", "-i", kOrder1, "items[1].sku"},
       "\"NOTEBOOK-A5\"\n"},
      {{"-s", kShopDesc, "json", "-m", "google.protobuf.FileDescriptorSet", "--input", "base64"},
       runTool({"-s", kShopDesc, "json", "-m", "google.protobuf.FileDescriptorSet", "-i", descFile})
           .out,
       Compare::jsonLines,
       base64.out},
  });
}

TEST(OstrelTool, ManifestClosureKeepsWhatTheMessagesReach) {
  struct ClosureRow {
    std::vector<std::string> args;
    std::vector<std::string> messages;
    std::vector<std::string> enums;
  };
  const std::vector<ClosureRow> rows = {
      {{"-s", kShopDesc, "manifest", "--closure", "shop.Customer"}, {"shop.Customer"}, {}},
      {{"-s", kShopDesc, "manifest", "--closure", "shop.Item", "--closure", "shop.Card"},
       {"shop.Card", "shop.Item"},
       {}},
      {{"-s", kShopDesc, "manifest", "--closure", "shop.Order"},
       {"shop.Card", "shop.Customer", "shop.Item", "shop.Order", "shop.Order.AttributesEntry"},
       {"shop.State"}},
      {{"-s", kRichDesc, "manifest", "--closure", "ostrel.test.Mid"},
       {"ostrel.test.Leaf", "ostrel.test.Mid"},
       {}},
      {{"-s", kRichDesc, "manifest", "--closure", "ostrel.test.Scalars"},
       {"ostrel.test.Leaf", "ostrel.test.Scalars"},
       {"ostrel.test.Color"}},
  };
  for (const ClosureRow& row : rows) {
    SCOPED_TRACE(describe(row.args));
    const ToolRun run = runTool(row.args);
    ASSERT_EQ(run.status, 0) << run.err;
    const nlohmann::json manifest = nlohmann::json::parse(run.out);
    EXPECT_EQ(keys(manifest.value("messages", nlohmann::json::object())), row.messages);
    EXPECT_EQ(keys(manifest.value("enums", nlohmann::json::object())), row.enums);
  }
}

// ---- the rich test schema: descriptor set and .proto ----

ostrel::test::Rich richMessage() {
  ostrel::test::Rich rich;
  rich.mutable_mid()->mutable_leaf()->set_id(7);
  rich.mutable_mid()->mutable_leaf()->set_label("leaf");
  rich.mutable_mid()->set_note("ünïcödé \"quoted\"\n");
  ostrel::test::Scalars& s = *rich.mutable_scalars();
  s.set_f_double(-2.5e-300);
  s.set_f_float(0.1f);
  s.set_f_int64(-9007199254740993);
  s.set_f_uint64(18446744073709551615ULL);
  s.set_f_int32(-2147483647 - 1);
  s.set_f_fixed64(1);
  s.set_f_fixed32(4294967295U);
  s.set_f_bool(true);
  s.set_f_string("text");
  s.set_f_bytes(std::string("\x00\xff\x10", 3));
  s.set_f_uint32(42);
  s.set_f_enum(ostrel::test::BLUE);
  s.set_f_sfixed32(-3);
  s.set_f_sfixed64(-4);
  s.set_f_sint32(-5);
  s.set_f_sint64(-6);
  s.mutable_f_message()->set_id(9);
  ostrel::test::Repeats& r = *rich.mutable_repeats();
  for (int i : {1, -2, 300}) r.add_r_int32(i);
  for (float f : {1.5f, -0.25f}) r.add_r_float(f);
  for (const char* text : {"a", "", "c"}) r.add_r_string(text);
  r.add_r_enum(ostrel::test::RED);
  r.add_r_enum(static_cast<ostrel::test::Color>(77));
  r.add_r_message()->set_id(1);
  r.add_r_message()->set_label("two");
  rich.add_mids()->set_note("first");
  ostrel::test::Mid& second = *rich.add_mids();
  second.add_leaves()->set_id(21);
  second.add_leaves()->add_codes(5);
  rich.set_number(123);
  (*rich.mutable_counts())["one"] = 1;
  (*rich.mutable_leaves_by_id())[3].set_label("three");
  rich.set_maybe(0);
  rich.set_color(ostrel::test::GREEN);
  rich.mutable_tail()->set_note("tail");
  return rich;
}

std::string libprotobufJSON(const google::protobuf::Message& message) {
  google::protobuf::util::JsonPrintOptions options;
  options.preserve_proto_field_names = true;
  std::string json;
  EXPECT_TRUE(google::protobuf::util::MessageToJsonString(message, &json, options).ok());
  return json;
}

TEST(OstrelTool, RichSchemaFromDescriptorSetAndFromProto) {
  const std::string data = richMessage().SerializeAsString();
  const std::vector<std::vector<std::string>> schemaOptions = {
      {"-s", kRichDesc},
      {"--proto", kTestData + "/rich.proto"},
      {"--proto", "rich.proto", "-I", kTestData},
  };
  for (const std::vector<std::string>& schema : schemaOptions) {
    SCOPED_TRACE(describe(schema));
    auto with = [&](std::vector<std::string> args) {
      args.insert(args.begin(), schema.begin(), schema.end());
      return args;
    };
    expectRows({
        {with({"list"}),
         "ostrel.test.Leaf\nostrel.test.Mid\nostrel.test.Repeats\nostrel.test.Rich\n"
         "ostrel.test.Rich.CountsEntry\nostrel.test.Rich.LeavesByIdEntry\nostrel.test.Scalars\n"
         "ostrel.test.Color\n"},
        {with({"describe", "message", "ostrel.test.Rich"}),
         "1\tmid\tmessage of ostrel.test.Mid schema\n"
         "2\tscalars\tmessage of ostrel.test.Scalars schema\n"
         "3\trepeats\tmessage of ostrel.test.Repeats schema\n"
         "4\tmids\tmessage of ostrel.test.Mid schema\trepeated\n"
         "5\tname\ttext string\toneof choice\n"
         "6\tnumber\tsigned integer 64\toneof choice\n"
         "7\tchosen\tmessage of ostrel.test.Leaf schema\toneof choice\n"
         "8\tcounts\tmessage of ostrel.test.Rich.CountsEntry schema\trepeated\n"
         "9\tleaves_by_id\tmessage of ostrel.test.Rich.LeavesByIdEntry schema\trepeated\n"
         "10\tmaybe\tsigned integer 32\toneof _maybe\n"
         "11\tcolor\tostrel.test.Color enum (try .ostrel describe enum ostrel.test.Color)\n"
         "100\ttail\tmessage of ostrel.test.Mid schema\n"},
        {with({"describe", "enum", "ostrel.test.Color"}),
         "COLOR_UNSPECIFIED = 0\nRED = 1\nGREEN = 2\nBLUE = 3\n"},
        {with({"get",
               "-m",
               "ostrel.test.Rich",
               "scalars.f_double",
               "scalars.f_float",
               "scalars.f_int64",
               "scalars.f_uint64",
               "scalars.f_int32",
               "scalars.f_fixed64",
               "scalars.f_fixed32",
               "scalars.f_bool",
               "scalars.f_string",
               "scalars.f_bytes",
               "scalars.f_uint32",
               "scalars.f_enum",
               "scalars.f_sfixed32",
               "scalars.f_sfixed64",
               "scalars.f_sint32",
               "scalars.f_sint64",
               "scalars.f_message.id",
               "mid.note",
               "mids[1].leaves[1].codes[0]",
               "repeats.r_enum[1]",
               "maybe",
               "number",
               "name"}),
         "-2.5e-300\n0.1\n\"-9007199254740993\"\n\"18446744073709551615\"\n-2147483648\n"
         "\"1\"\n4294967295\ntrue\n\"text\"\n\"AP8Q\"\n42\n\"BLUE\"\n-3\n\"-4\"\n-5\n\"-6\"\n"
         "9\n\"ünïcödé \\\"quoted\\\"\\n\"\n5\n77\n0\n\"123\"\nnull\n",
         Compare::exact, data},
        {with({"iterate", "-m", "ostrel.test.Rich", "repeats.r_enum"}), "\"RED\"\n77\n",
         Compare::exact, data},
        {with({"iterate", "-m", "ostrel.test.Rich", "repeats.r_message"}),
         "{\"id\":1}\n{\"label\":\"two\"}\n", Compare::jsonLines, data},
        {with({"iterate", "-m", "ostrel.test.Rich", "mids[1].leaves"}),
         "{\"id\":21}\n{\"codes\":[5]}\n", Compare::jsonLines, data},
        {with({"iterate", "-m", "ostrel.test.Rich", "mids[5].leaves"}), "", Compare::exact, data},
        {with({"iterate", "-m", "ostrel.test.Rich", "leaves_by_id"}),
         "{\"key\":3,\"value\":{\"label\":\"three\"}}\n", Compare::jsonLines, data},
        {with({"json", "-m", "ostrel.test.Rich"}), libprotobufJSON(richMessage()) + "\n",
         Compare::jsonLines, data},
    });
  }
}

TEST(OstrelTool, DescribeEnumListsAliasesByNumberThenName) {
  const std::string manifest = (scratch() / "aliases.json").string();
  writeFile(manifest,
            R"(  {"enums": {"a.Level": {"values": {"LOW": 1, "HIGH": 3, "MINOR": 1, "ANY": 1,
                                             "NONE": 0, "NEG": -2}}},
                  "messages": {"a.M": {"fields": {"level": {"type": "enum", "typeName": "a.Level",
                                                            "fieldNumber": 2}}}}})");
  expectRows({
      {{"-s", manifest, "describe", "enum", "a.Level"},
       "NEG = -2\nNONE = 0\nANY = 1\nLOW = 1\nMINOR = 1\nHIGH = 3\n"},
      {{"-s", manifest, "list"}, "a.M\na.Level\n"},
      {{"-s", manifest, "describe", "message", "a.M"},
       "2\tlevel\ta.Level enum (try .ostrel describe enum a.Level)\n"},
      // The first name of a number renders it.
      {{"-s", manifest, "get", "-m", "a.M", "--input", "hex", "level"},
       "\"ANY\"\n",
       Compare::exact,
       "1001"},
  });
}

// ---- help, usage errors and failures ----

TEST(OstrelTool, HelpOnEveryCommand) {
  const std::vector<std::vector<std::string>> rows = {
      {"--help"},
      {"-h"},
      {"-s", "does-not-matter.desc", "--help"},
      {"list", "--help"},
      {"describe", "--help"},
      {"describe", "message", "--help"},
      {"get", "--help"},
      {"get", "-m", "x", "-h", "p"},
      {"iterate", "--help"},
      {"json", "--help"},
      {"encode", "--help"},
      {"manifest", "--help"},
      {"manifest", "--format", "bogus", "--help"},
  };
  for (const std::vector<std::string>& args : rows) {
    SCOPED_TRACE(describe(args));
    const ToolRun run = runTool(args);
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.err, "");
    EXPECT_THAT(run.out, StartsWith("usage: ostrel "));
    const std::string command = args[0].starts_with("-") ? "COMMAND" : args[0];
    EXPECT_THAT(run.out.substr(0, run.out.find('\n')), HasSubstr(command));
  }
  // The main usage names every command.
  const ToolRun main = runTool({"--help"});
  for (const char* command : {"list", "describe", "get", "iterate", "json", "encode", "manifest"}) {
    EXPECT_THAT(main.out, HasSubstr(std::string("\n  ") + command + " "));
  }
}

struct FailureRow {
  std::vector<std::string> args;
  int status;
  // The first line of standard error.
  std::string firstLine;
  std::string input;
};

void expectFailures(const std::vector<FailureRow>& rows) {
  for (const FailureRow& row : rows) {
    SCOPED_TRACE(describe(row.args));
    const ToolRun run = runTool(row.args, row.input);
    EXPECT_EQ(run.status, row.status);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err.substr(0, run.err.find('\n')), row.firstLine);
    // A usage error shows the usage after the error.
    if (row.status == 2) {
      EXPECT_THAT(run.err, HasSubstr("\n\nusage: ostrel "));
    } else {
      EXPECT_THAT(run.err, Not(HasSubstr("usage:")));
    }
  }
}

TEST(OstrelTool, UsageErrorsExitTwo) {
  const std::string s = kShopDesc;
  expectFailures({
      {{}, 2, "ostrel: missing command"},
      {{"-s", s}, 2, "ostrel: missing command"},
      {{"bogus"}, 2, "ostrel: unknown command \"bogus\""},
      {{"--bogus", "list"}, 2, "ostrel: unknown option --bogus"},
      {{"list", "--bogus"}, 2, "ostrel: unknown option --bogus"},
      {{"list", "extra"}, 2, "ostrel: unexpected argument \"extra\""},
      {{"-s"}, 2, "ostrel: option -s needs a value"},
      {{"list", "--proto"}, 2, "ostrel: option --proto needs a value"},
      {{"-s", s, "describe"}, 2, "ostrel: missing \"message\" or \"enum\""},
      {{"-s", s, "describe", "service", "x"},
       2,
       "ostrel: describe takes \"message\" or \"enum\", not \"service\""},
      {{"-s", s, "describe", "message"}, 2, "ostrel: missing NAME"},
      {{"-s", s, "describe", "enum", "a", "b"}, 2, "ostrel: unexpected argument \"b\""},
      {{"-s", s, "get", "id"}, 2, "ostrel: missing -m MSG"},
      {{"-s", s, "get", "-m", "shop.Order"}, 2, "ostrel: missing PATH"},
      {{"-s", s, "get", "-m"}, 2, "ostrel: option -m needs a value"},
      {{"-s", s, "get", "-m", "shop.Order", "--input", "text", "id"},
       2,
       "ostrel: --input must be binary, hex or base64, not \"text\""},
      {{"-s", s, "get", "-m", "shop.Order", "-x", "id"}, 2, "ostrel: unknown option -x"},
      {{"-s", s, "iterate", "-m", "shop.Order"}, 2, "ostrel: missing PATH"},
      {{"-s", s, "iterate", "-m", "shop.Order", "items", "coupons"},
       2,
       "ostrel: unexpected argument \"coupons\""},
      {{"-s", s, "json"}, 2, "ostrel: missing -m MSG"},
      {{"-s", s, "json", "-m", "shop.Order", "--pretty", "x"},
       2,
       "ostrel: unexpected argument \"x\""},
      {{"-s", s, "encode", "-m", "shop.Order", "--input", "hex"},
       2,
       "ostrel: unknown option --input"},
      {{"-s", s, "encode", "-m", "shop.Order", "--output", "json"},
       2,
       "ostrel: --output must be binary, hex or base64, not \"json\""},
      {{"-s", s, "manifest", "--format", "xml"},
       2,
       "ostrel: --format must be json or descriptor-set, not \"xml\""},
      {{"-s", s, "manifest", "--format", "descriptor-set", "--pretty"},
       2,
       "ostrel: --pretty applies to --format json only"},
      {{"-s", s, "manifest", "--output", "hex"},
       2,
       "ostrel: --output applies to --format descriptor-set only"},
      // Usage comes first: the missing schema file is never opened.
      {{"-s", "missing.desc", "get", "-m", "shop.Order"}, 2, "ostrel: missing PATH"},
  });
}

TEST(OstrelTool, SchemaAndDataErrorsExitOne) {
  const std::string s = kShopDesc;
  const std::string order1 = readFile(kOrder1);
  const std::string missing = (scratch() / "missing.desc").string();
  const std::string badJSON = (scratch() / "bad.json").string();
  writeFile(badJSON, "  {\"messages\": 3}");
  const std::string dangling = (scratch() / "dangling.json").string();
  writeFile(dangling, R"({"messages": {"a.M": {"fields": {"b": {"type": "schema", "typeName": "a.B",
                                                               "fieldNumber": 1}}}}})");
  expectFailures({
      {{"-s", missing, "list"},
       1,
       "ostrel: cannot read " + missing + ": No such file or directory"},
      {{"-s", kShopProto, "list"}, 1, "ostrel: " + kShopProto + ": malformedProtobuf"},
      {{"-s", badJSON, "list"},
       1,
       "ostrel: " + badJSON + ": invalidValueType: messages: expected an object"},
      {{"--proto", kTestData + "/missing.proto", "list"},
       1,
       "ostrel: invalidValueType: " + kTestData + "/missing.proto: File not found."},
      {{"-s", s, "describe", "message", "shop.Nope"}, 1, "ostrel: schemaNotFound: shop.Nope"},
      {{"-s", dangling, "describe", "message", "a.M"}, 1, "ostrel: a.M.b: schemaNotFound: a.B"},
      {{"-s", dangling, "manifest"}, 1, "ostrel: schemaNotFound: a.B"},
      {{"-s", dangling, "get", "-m", "a.M", "b"}, 1, "ostrel: b: schemaNotFound: a.B"},
      {{"-s", s, "describe", "enum", "shop.Order"}, 1, "ostrel: enumNotFound: shop.Order"},
      {{"-s", s, "json", "-m", "shop.Nope", "-i", kOrder1}, 1, "ostrel: schemaNotFound: shop.Nope"},
      {{"-s", s, "json", "-m", "shop.Order", "-i", missing},
       1,
       "ostrel: cannot read " + missing + ": No such file or directory"},
      {{"-s", s, "get", "-m", "shop.Order", "-i", kOrder1, "id", "nope"},
       1,
       "ostrel: nope: fieldNotFound: Schema \"shop.Order\" property with name \"nope\""},
      {{"-s", s, "get", "-m", "shop.Order", "-i", kOrder1, "items"},
       1,
       "ostrel: items: repeatedValueAccessNoIndex"},
      {{"-s", s, "get", "-m", "shop.Order", "-i", kOrder1, "id[0]"},
       1,
       "ostrel: id[0]: scalarValueAccessWithIndex"},
      {{"-s", s, "get", "-m", "shop.Order", "-i", kOrder1, "id.x"},
       1,
       "ostrel: id.x: nonMessageTypeInKeypath"},
      {{"-s", s, "get", "-m", "shop.Order", "-i", kOrder1, "items[x]"},
       1,
       "ostrel: PropertyPathUtil Error: Missing index"},
      // Paths are checked before the data is read: this data is not even there.
      {{"-s", s, "get", "-m", "shop.Order", "-i", missing, "items[0].nope"},
       1,
       "ostrel: items[0].nope: fieldNotFound: Schema \"shop.Item\" property with name \"nope\""},
      {{"-s", s, "get", "-m", "shop.Order", "id"},
       1,
       "ostrel: id: malformedProtobuf",
       order1.substr(0, 1)},
      {{"-s", s, "get", "-m", "shop.Order", "customer.name"},
       1,
       "ostrel: customer.name: malformedProtobuf",
       order1.substr(0, 8)},
      {{"-s", s, "iterate", "-m", "shop.Order", "-i", kOrder1, "id"},
       1,
       "ostrel: id: id is not a repeated field of shop.Order"},
      {{"-s", s, "iterate", "-m", "shop.Order", "-i", kOrder1, "customer.name"},
       1,
       "ostrel: customer.name: name is not a repeated field of shop.Customer"},
      {{"-s", s, "iterate", "-m", "shop.Order", "-i", kOrder1, "items[0]"},
       1,
       "ostrel: items[0]: the repeated field to iterate is named without an index"},
      {{"-s", s, "iterate", "-m", "shop.Order", "-i", kOrder1, "id.items"},
       1,
       "ostrel: id.items: nonMessageTypeInKeypath"},
      {{"-s", s, "iterate", "-m", "shop.Order", "-i", kOrder1, "nope"},
       1,
       "ostrel: nope: fieldNotFound: Schema \"shop.Order\" property with name \"nope\""},
      {{"-s", s, "iterate", "-m", "shop.Order", "-i", kOrder1, "items..sku"},
       1,
       "ostrel: PropertyPathUtil Error: Missing field name"},
      {{"-s", s, "json", "-m", "shop.Order", "--input", "hex"},
       1,
       "ostrel: input is not hex: odd number of digits",
       "0a0"},
      {{"-s", s, "json", "-m", "shop.Order", "--input", "hex"},
       1,
       "ostrel: input is not hex: unexpected character 'g'",
       "0g"},
      {{"-s", s, "json", "-m", "shop.Order", "--input", "base64"},
       1,
       "ostrel: input is not base64",
       "COkHM"},
      {{"-s", s, "json", "-m", "shop.Order", "--input", "base64"},
       1,
       "ostrel: input is not base64",
       "CO=k"},
      {{"-s", s, "manifest", "--closure", "shop.Nope"}, 1, "ostrel: schemaNotFound: shop.Nope"},
  });
}

TEST(OstrelTool, EncodeRejectsWhatIsNotAMessage) {
  for (const std::string input : {"", "[]", "{\"nope\": 1}", "{\"id\": true}", "{"}) {
    SCOPED_TRACE(input);
    const ToolRun run = runTool({"-s", kShopDesc, "encode", "-m", "shop.Order"}, input);
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.out, "");
    EXPECT_THAT(run.err, StartsWith("ostrel: "));
  }
}

}  // namespace

namespace {

TEST(OstrelTool, SqlPrintsTheProjectionAndRunsItOnADatabase) {
  const std::vector<std::string> base = {"-s",      kShopDesc, "sql",      "-m",    "shop.Order",
                                         "--table", "orders",  "--column", "record"};
  std::vector<std::string> textOnly = base;
  textOnly.insert(textOnly.end(), {"id", "customer.name=who"});
  const ToolRun text = runTool(textOnly);
  EXPECT_EQ(text.status, 0) << text.err;
  EXPECT_EQ(text.out,
            "SELECT\n  P_GET(record, 'id') AS id,\n  P_GET(record, 'customer.name') AS who\n"
            "FROM orders\n");

  const fs::path file = scratch() / "orders.db";
  fs::remove(file);
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(file.c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db, "CREATE TABLE orders (record BLOB)", nullptr, nullptr, nullptr),
            SQLITE_OK);
  std::vector<std::string> records = {readFile(kOrder1), readFile(kOrder2)};
  for (const std::string& record : records) {
    sqlite3_stmt* insert = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(db, "INSERT INTO orders VALUES (?)", -1, &insert, nullptr),
              SQLITE_OK);
    sqlite3_bind_blob(insert, 1, record.data(), static_cast<int>(record.size()), SQLITE_STATIC);
    EXPECT_EQ(sqlite3_step(insert), SQLITE_DONE);
    sqlite3_finalize(insert);
  }
  ASSERT_EQ(sqlite3_exec(db, "INSERT INTO orders VALUES (NULL)", nullptr, nullptr, nullptr),
            SQLITE_OK);
  sqlite3_close(db);

  std::vector<std::string> query = base;
  query.insert(query.end(), {"--db", file.string(), "id", "customer.name=who"});
  const ToolRun rows = runTool(query);
  ASSERT_EQ(rows.status, 0) << rows.err;
  // The same values through the get command, record by record.
  std::vector<nlohmann::json> expected;
  for (const std::string& order : {kOrder1, kOrder2}) {
    const ToolRun get =
        runTool({"-s", kShopDesc, "get", "-m", "shop.Order", "-i", order, "id", "customer.name"});
    ASSERT_EQ(get.status, 0) << get.err;
    const auto values = jsonLines(get.out);
    ASSERT_EQ(values.size(), 2u);
    nlohmann::json row;
    row["id"] = values[0].is_string() ? nlohmann::json(std::stoll(values[0].get<std::string>()))
                                      : values[0];
    row["who"] = values[1];
    expected.push_back(row);
  }
  expected.push_back(nlohmann::json{{"id", nullptr}, {"who", nullptr}});
  EXPECT_EQ(jsonLines(rows.out), expected) << rows.out;

  std::vector<std::string> badPath = base;
  badPath.insert(badPath.end(), {"--db", file.string(), "items"});
  const ToolRun bad = runTool(badPath);
  EXPECT_EQ(bad.status, 1);
  EXPECT_THAT(bad.err, StartsWith("ostrel: repeatedValueAccessNoIndex"));
  const ToolRun missing = runTool({"-s", kShopDesc, "sql", "-m", "shop.Order", "id"});
  EXPECT_EQ(missing.status, 2);
}

// ---- Older proto2 schemas: groups, packed runs, closed enums ----

TEST(OstrelTool, Proto2GroupsPackedRunsAndClosedEnums) {
  const std::string desc = OSTREL_TEST_GENERATED "/proto2_shapes.desc";
  const std::string proto = kTestData + "/proto2_shapes.proto";
  const std::string groups =
      "invalidValueType: Group is deprecated: group fields ostrel.proto2.Legacy.header, "
      "ostrel.proto2.Legacy.item, ostrel.proto2.Legacy.choice, ostrel.proto2.Legacy.Header.entry, "
      "ostrel.proto2.marker (--skip-groups leaves group fields out of the schema)";
  expectFailures({
      {{"-s", desc, "list"}, 1, "ostrel: " + desc + ": " + groups},
      {{"--proto", proto, "list"}, 1, "ostrel: " + groups},
  });

  // p_double = [1.5, 2.5], p_int32 = [1, 2], then field 44 (after = 7) and field 45 (closed = 7,
  // a number the closed enum does not declare).
  const std::string message =
      "0a10000000000000f83f0000000000000440"
      "2a020102"
      "e00207"
      "e80207";
  for (const std::vector<std::string>& schema :
       {std::vector<std::string>{"-s", desc, "--skip-groups"},
        std::vector<std::string>{"--skip-groups", "--proto", proto}}) {
    std::vector<std::string> args = schema;
    for (const char* arg : {"get", "-m", "ostrel.proto2.Packed", "--input", "hex", "p_double[0]",
                            "p_double[1]", "p_double[2]", "p_double[3]", "p_int32[1]", "p_int32[2]",
                            "p_int32[1000000]", "after", "closed"}) {
      args.emplace_back(arg);
    }
    SCOPED_TRACE(describe(args));
    const ToolRun run = runTool(args, message);
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, "1.5\n2.5\nnull\nnull\n2\nnull\nnull\n7\n7\n");
    // Each group field left out is noted once; notes do not fail the run.
    EXPECT_EQ(run.err,
              "ostrel: note: group field ostrel.proto2.Legacy.header left out of the schema\n"
              "ostrel: note: group field ostrel.proto2.Legacy.item left out of the schema\n"
              "ostrel: note: group field ostrel.proto2.Legacy.choice left out of the schema\n"
              "ostrel: note: group field ostrel.proto2.Legacy.Header.entry left out of the "
              "schema\n"
              "ostrel: note: group field ostrel.proto2.marker left out of the schema\n");
  }

  const ToolRun help = runTool({"--help"});
  EXPECT_THAT(help.out, HasSubstr("--skip-groups"));
  EXPECT_THAT(help.out, HasSubstr("closed (proto2) enums"));
}

// ---- Hostile and large inputs ----

// Runs the tool with a stack of 1 MiB: a walk that recursed once per type or per level of the
// input would overflow it long before the end of the inputs below.
ToolRun runUnderSmallStack(const std::vector<std::string>& args, const std::string& input = "") {
  return runTool(args, input, {"/bin/sh", "-c", "ulimit -s 1024 && exec \"$0\" \"$@\""});
}

TEST(OstrelTool, HundredThousandDeepTypeChainUnderASmallStack) {
  constexpr int kDepth = 100'000;
  std::string proto = "syntax = \"proto3\";\npackage c;\n";
  for (int i = 0; i + 1 < kDepth; ++i) {
    proto += "message M" + std::to_string(i) + " { M" + std::to_string(i + 1) + " next = 1; }\n";
  }
  proto += "message M" + std::to_string(kDepth - 1) + " { int32 v = 1; }\n";
  const fs::path protoFile = scratch() / "chain.proto";
  writeFile(protoFile, proto);

  // .proto in, descriptor set out; the descriptor set in, the closure as a JSON manifest out; that
  // in, the same closure out: every reader and writer of schemas over the whole chain.
  const ToolRun set =
      runUnderSmallStack({"--proto", protoFile.string(), "manifest", "--format", "descriptor-set"});
  ASSERT_EQ(set.status, 0) << set.err;
  const fs::path setFile = scratch() / "chain.desc";
  writeFile(setFile, set.out);
  const ToolRun closure =
      runUnderSmallStack({"-s", setFile.string(), "manifest", "--closure", "c.M0"});
  ASSERT_EQ(closure.status, 0) << closure.err;
  const nlohmann::json manifest = nlohmann::json::parse(closure.out, nullptr, false);
  ASSERT_TRUE(manifest.is_object());
  EXPECT_EQ(manifest["messages"].size(), size_t{kDepth});
  const fs::path jsonFile = scratch() / "chain.json";
  writeFile(jsonFile, closure.out);
  const ToolRun again =
      runUnderSmallStack({"-s", jsonFile.string(), "manifest", "--closure", "c.M0"});
  ASSERT_EQ(again.status, 0) << again.err;
  EXPECT_EQ(again.out, closure.out);

  // A message nested as deep as the chain: refused where the depth limit stands.
  std::string deep;
  for (int i = 0; i < kDepth; ++i) deep += R"({"next":)";
  deep += "{}" + std::string(kDepth, '}');
  const ToolRun encode = runUnderSmallStack({"-s", setFile.string(), "encode", "-m", "c.M0"}, deep);
  EXPECT_EQ(encode.status, 1);
  EXPECT_THAT(encode.err, HasSubstr("nesting deeper than 201 levels"));
}

TEST(OstrelTool, HostileInputsEndInAnError) {
  const std::string s = kShopDesc;
  const auto manifestFile = [](const std::string& name, const std::string& json) {
    const std::string path = (scratch() / name).string();
    writeFile(path, json);
    return path;
  };
  const std::string zeroNumber = manifestFile(
      "zero.json", R"({"messages":{"a.M":{"fields":{"f":{"type":"int","fieldNumber":0}}}}})");
  const std::string twoOneofs =
      manifestFile("oneofs.json", R"({"messages":{"a.M":{"oneofs":[{"name":"o"},{"name":"o"}]}}})");
  const std::string twoNumbers = manifestFile(
      "numbers.json", R"({"messages":{"a.M":{"fields":{"f":{"type":"int","fieldNumber":7},)"
                      R"("g":{"type":"int","fieldNumber":7}}}}})");
  expectFailures({
      // An endless schema stream stops at the cap rather than filling memory.
      {{"-s", "/dev/zero", "list"}, 1, "ostrel: /dev/zero: schema larger than 64 MiB"},
      {{"-s", zeroNumber, "list"},
       1,
       "ostrel: " + zeroNumber +
           R"(: invalidValueType: messages["a.M"].fields["f"].fieldNumber: )"
           "field number 0 is outside 1 to 536870911"},
      // Two oneofs of one name reached the store's fatal stop (exit 134) when the message was
      // described.
      {{"-s", twoOneofs, "describe", "message", "a.M"},
       1,
       "ostrel: " + twoOneofs +
           R"(: invalidValueType: messages["a.M"].oneofs[1].name: oneof name "o" occurs twice)"},
      {{"-s", twoNumbers, "list"},
       1,
       "ostrel: " + twoNumbers +
           R"(: invalidValueType: messages["a.M"].fields["g"].fieldNumber: )"
           R"(field number 7 is also the number of field "f")"},
      {{"-s", s, "encode", "-m", "shop.Order"},
       1,
       R"(ostrel: unexpectedType: $.customer: duplicate key "name")",
       R"({"id":1,"customer":{"name":"a","email":"b","name":"c"}})"},
  });
}

TEST(OstrelTool, DashIsStandardInput) {
  const std::string order1 = readFile(kOrder1);
  const ToolRun byFile = runTool({"-s", kShopDesc, "json", "-m", "shop.Order", "-i", kOrder1});
  ASSERT_EQ(byFile.status, 0) << byFile.err;
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"-s", kShopDesc, "json", "-m", "shop.Order", "-i", "-"},
        std::vector<std::string>{"-s", "-", "json", "-m", "shop.Order", "-i", kOrder1}}) {
    SCOPED_TRACE(describe(args));
    const std::string input = args[1] == "-" ? readFile(kShopDesc) : order1;
    const ToolRun run = runTool(args, input);
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, byFile.out);
  }
}

TEST(OstrelTool, LibprotobufWarningsCarryThePrefix) {
  const fs::path file = scratch() / "nosyntax.proto";
  writeFile(file, "message M { optional int32 a = 1; }\n");
  const ToolRun run = runTool({"--proto", file.string(), "list"});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, "M\n");
  EXPECT_THAT(run.err, StartsWith("ostrel: libprotobuf warning: No syntax specified"));
  EXPECT_EQ(run.err.find("[libprotobuf"), std::string::npos) << run.err;
}

// The input is held once: a message read from a file costs its size in memory, not twice that.
TEST(OstrelTool, InputIsHeldOnce) {
  // Order id 7, then an unknown field of 128 MiB that reading the id skips. Written in pieces:
  // a child's peak memory counts from its parent's at the time it is started.
  constexpr size_t kSize = size_t{128} << 20;
  std::string head = "\x08\x07";
  head += "\xc2\x3e";  // field 1000, length-delimited
  for (size_t length = kSize;; length >>= 7) {
    if (length < 0x80) {
      head += static_cast<char>(length);
      break;
    }
    head += static_cast<char>((length & 0x7F) | 0x80);
  }
  const fs::path file = scratch() / "big.bin";
  {
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out << head;
    const std::string piece(size_t{1} << 20, 'x');
    for (size_t written = 0; written < kSize; written += piece.size()) out << piece;
  }
  const ToolRun small = runTool({"-s", kShopDesc, "get", "-m", "shop.Order", "-i", kOrder1, "id"});
  const ToolRun large =
      runTool({"-s", kShopDesc, "get", "-m", "shop.Order", "-i", file.string(), "id"});
  fs::remove(file);
  ASSERT_EQ(large.status, 0) << large.err;
  EXPECT_EQ(large.out, "\"7\"\n");
  const long grownKiB = large.maxResidentKiB - small.maxResidentKiB;
  EXPECT_LT(grownKiB, static_cast<long>(kSize / 1024 * 3 / 2))
      << "peak grew by " << grownKiB << " KiB";
}

TEST(OstrelTool, SqlNamesTheRowWhoseRecordFails) {
  struct SqlRow {
    const char* name;
    const char* table;  // CREATE TABLE orders ...
    const char* bad;    // the second row's record, an SQL literal
    std::string where;
  };
  const SqlRow rows[] = {
      {"text", "(record BLOB)", "'text'", "row with rowid 2"},
      // SQLite hands a number to P_GET as its text: "6..." starts with wire type 6, which is none.
      {"integer", "(record BLOB)", "6", "row with rowid 2"},
      {"real", "(record BLOB)", "6.5", "row with rowid 2"},
      {"garbage", "(record BLOB)", "x'ffffffff'", "row with rowid 2"},
      {"without rowid", "(k INTEGER PRIMARY KEY, record BLOB) WITHOUT ROWID", "x'ffffffff'",
       "row 2"},
  };
  const std::string order1 = readFile(kOrder1);
  for (const SqlRow& row : rows) {
    SCOPED_TRACE(row.name);
    const fs::path file = scratch() / "bad_rows.db";
    fs::remove(file);
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(file.c_str(), &db), SQLITE_OK);
    const bool keyed = std::string(row.table).find(" k ") != std::string::npos ||
                       std::string(row.table).rfind("(k ", 0) == 0;
    const std::string create = std::string("CREATE TABLE orders ") + row.table;
    ASSERT_EQ(sqlite3_exec(db, create.c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_stmt* insert = nullptr;
    const std::string good =
        keyed ? "INSERT INTO orders VALUES (1, ?)" : "INSERT INTO orders VALUES (?)";
    ASSERT_EQ(sqlite3_prepare_v2(db, good.c_str(), -1, &insert, nullptr), SQLITE_OK);
    sqlite3_bind_blob(insert, 1, order1.data(), static_cast<int>(order1.size()), SQLITE_STATIC);
    EXPECT_EQ(sqlite3_step(insert), SQLITE_DONE);
    sqlite3_finalize(insert);
    const std::string bad =
        std::string("INSERT INTO orders VALUES (") + (keyed ? "2, " : "") + row.bad + ")";
    ASSERT_EQ(sqlite3_exec(db, bad.c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(db);

    const ToolRun run = runTool({"-s", kShopDesc, "sql", "-m", "shop.Order", "--table", "orders",
                                 "--column", "record", "--db", file.string(), "id"});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.out, "{\"id\":1001}\n");
    EXPECT_THAT(run.err, StartsWith("ostrel: orders, " + row.where + ": ")) << run.err;
  }
}

// A delimited stream of test::Rich records: record n (from 1) holds scalars.f_int64 = n and a
// note; one record in the middle is replaced by bytes that are not a message, and the last one
// is cut short. Byte offsets of each record's length prefix are kept for the error texts.
struct Stream {
  std::string bytes;
  std::vector<size_t> offsets;
};

void appendVarint(std::string& out, uint64_t value) {
  while (value >= 0x80) {
    out += static_cast<char>((value & 0x7f) | 0x80);
    value >>= 7;
  }
  out += static_cast<char>(value);
}

Stream richStream(int count, int corrupt, bool truncateLast) {
  Stream stream;
  for (int n = 1; n <= count; ++n) {
    ostrel::test::Rich message;
    message.mutable_scalars()->set_f_int64(n);
    message.mutable_mid()->set_note("note, \"" + std::to_string(n) + "\"");
    std::string record =
        n == corrupt ? std::string("\x08\xff\xff", 3) : message.SerializeAsString();
    stream.offsets.push_back(stream.bytes.size());
    appendVarint(stream.bytes, record.size());
    if (n == count && truncateLast) record.resize(record.size() / 2);
    stream.bytes += record;
  }
  return stream;
}

TEST(OstrelTool, DelimitedStreamsSkipBadRecordsAndNameThem) {
  // Over a megabyte, so that a pipe is read in several chunks with records across their edges.
  const int count = 40000;
  const int corrupt = 12345;
  const Stream stream = richStream(count, corrupt, true);
  const fs::path file = scratch() / "rich.delimited";
  writeFile(file, stream.bytes);
  const std::string badMiddle = "ostrel: " + file.string() + ": record " + std::to_string(corrupt) +
                                " at byte " + std::to_string(stream.offsets[corrupt - 1]) +
                                ": scalars.f_int64: malformedProtobuf";
  const std::string badLast = "record " + std::to_string(count) + " at byte " +
                              std::to_string(stream.offsets[count - 1]) +
                              ": length prefix not followed";

  const std::vector<std::string> base = {"-s", kRichDesc,          "get",
                                         "-m", "ostrel.test.Rich", "--delimited"};
  std::vector<std::string> args = base;
  args.insert(args.end(), {"-i", file.string(), "scalars.f_int64", "mid.note", "color"});
  const ToolRun run = runTool(args);
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.err, HasSubstr(badMiddle));
  EXPECT_THAT(run.err, HasSubstr(badLast));
  const std::vector<nlohmann::json> lines = jsonLines(run.out);
  ASSERT_EQ(lines.size(), static_cast<size_t>(count - 2));
  for (size_t i = 0; i < lines.size(); ++i) {
    const int n = static_cast<int>(i) + (static_cast<int>(i) + 1 >= corrupt ? 2 : 1);
    SCOPED_TRACE(n);
    EXPECT_EQ(lines[i]["scalars.f_int64"], std::to_string(n));
    EXPECT_EQ(lines[i]["mid.note"], "note, \"" + std::to_string(n) + "\"");
    EXPECT_TRUE(lines[i]["color"].is_null());
  }

  // --fail-fast stops at the corrupt record; standard input (a file here) reads the same.
  args = base;
  args.insert(args.end(), {"--fail-fast", "scalars.f_int64"});
  const ToolRun fast = runTool(args, stream.bytes);
  EXPECT_EQ(fast.status, 1);
  EXPECT_EQ(jsonLines(fast.out).size(), static_cast<size_t>(corrupt - 1));
  EXPECT_THAT(fast.err, HasSubstr("standard input: record " + std::to_string(corrupt)));
  EXPECT_THAT(fast.err, Not(HasSubstr(badLast)));

  // Through a pipe, read in chunks rather than mapped: the same lines and the same reports.
  args = base;
  args.insert(args.end(), {"scalars.f_int64", "mid.note", "color"});
  const ToolRun piped =
      runTool(args, "", {"/bin/sh", "-c", "cat '" + file.string() + "' | \"$0\" \"$@\""});
  EXPECT_EQ(piped.status, 1);
  EXPECT_EQ(piped.out, run.out);
  EXPECT_THAT(piped.err, HasSubstr("standard input: record " + std::to_string(corrupt) +
                                   " at byte " + std::to_string(stream.offsets[corrupt - 1])));
  EXPECT_THAT(piped.err, HasSubstr(badLast));

  // CSV: a header row of the paths, fields quoted where they must be, absent fields empty.
  args = base;
  args.insert(args.end(),
              {"-i", file.string(), "--format", "csv", "scalars.f_int64", "mid.note", "color"});
  const ToolRun csv = runTool(args);
  EXPECT_THAT(csv.out, StartsWith("scalars.f_int64,mid.note,color\n1,\"note, \"\"1\"\"\",\n"));

  // json and iterate print one line per good record.
  const ToolRun json =
      runTool({"-s", kRichDesc, "json", "-m", "ostrel.test.Rich", "--delimited", "-i", file});
  EXPECT_EQ(json.status, 1);
  EXPECT_EQ(jsonLines(json.out).size(), static_cast<size_t>(count - 2));
  EXPECT_THAT(json.err, HasSubstr("record " + std::to_string(corrupt) + " at byte " +
                                  std::to_string(stream.offsets[corrupt - 1])));
  const ToolRun iterate = runTool({"-s", kRichDesc, "iterate", "-m", "ostrel.test.Rich",
                                   "--delimited", "-i", file, "mid.leaves"});
  EXPECT_EQ(iterate.status, 1);
  EXPECT_THAT(iterate.out, StartsWith("[]\n[]\n"));
}

TEST(OstrelTool, SeveralFilesAreSeveralRecords) {
  const ToolRun run = runTool({"-s", kShopDesc, "get", "-m", "shop.Order", "-i", kOrder1, "-i",
                               kOrder2, "--format", "tsv", "id", "items[0].sku"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, "id\titems[0].sku\n1001\tPEN-BLUE\n1002\tMUG-LOGO\n");
  // A stream is not written one value a line.
  EXPECT_EQ(runTool({"-s", kShopDesc, "get", "-m", "shop.Order", "-i", kOrder1, "-i", kOrder2,
                     "--format", "lines", "id"})
                .status,
            2);
}

}  // namespace
