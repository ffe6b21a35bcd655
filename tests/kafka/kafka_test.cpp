// The tool against librdkafka's in-process mock cluster, started on loopback by the test: a
// producer writes Confluent-framed records (both index forms, the header form, several types of
// one schema file), tombstones and bad values; `ostrel get --kafka` reads them back as produced,
// and so does `ostrel get --framing u32be+confluent` from kcat's '%R%s' output.

#include <gtest/gtest.h>
#include <librdkafka/rdkafka.h>
#include <librdkafka/rdkafka_mock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "kafka_orders.pb.h"

namespace {

using namespace std::string_literals;

const std::string kSchema = OSTREL_TEST_GENERATED "/kafka_orders.desc";
constexpr int64_t kTime = 1700000000000;

struct ToolRun {
  int status = -1;
  std::string out;
  std::string err;
};

std::string readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Runs the shell command `line`, in which $T stands for the tool.
ToolRun run(std::string line) {
  static const std::filesystem::path dir = [] {
    std::string pattern = (std::filesystem::temp_directory_path() / "ostrel_kafka_XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) std::abort();
    return std::filesystem::path(pattern);
  }();
  for (size_t at; (at = line.find("$T")) != std::string::npos;) line.replace(at, 2, OSTREL_TOOL);
  const int status = std::system(
      ("(" + line + ") > " + (dir / "out").string() + " 2> " + (dir / "err").string()).c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, readFile(dir / "out"),
          readFile(dir / "err")};
}

// An envelope: magic 0, the id, the index path (the single byte 0 for {0}), then the payload.
std::string envelope(int32_t id, const std::vector<int32_t>& path, bool zigzag,
                     const std::string& payload) {
  std::string out = "\0"s;
  for (int shift = 24; shift >= 0; shift -= 8) out += static_cast<char>((id >> shift) & 0xFF);
  const auto varint = [&](int32_t n) {
    out += static_cast<char>(zigzag ? n * 2 : n);  // every count and index here is under 64
  };
  if (path == std::vector<int32_t>{0}) {
    out += '\0';
  } else {
    varint(static_cast<int32_t>(path.size()));
    for (const int32_t index : path) varint(index);
  }
  return out + payload;
}

std::string order(const std::string& id, int64_t amount) {
  ostrel::kafka::Order message;
  message.set_id(id);
  message.set_amount(amount);
  return message.SerializeAsString();
}

std::string refund(const std::string& id, int64_t amount) {
  ostrel::kafka::Refund message;
  message.set_id(id);
  message.set_amount(amount);
  message.set_reason("late");
  return message.SerializeAsString();
}

std::string line(const std::string& id, int64_t amount) {
  ostrel::kafka::Order::Line message;
  message.set_id(id);
  message.set_amount(amount);
  return message.SerializeAsString();
}

struct Produced {
  std::optional<std::string> value;
  std::string key;
  std::optional<std::string> header;
};

class MockCluster {
 public:
  MockCluster() {
    char error[256];
    rd_kafka_conf_t* conf = rd_kafka_conf_new();
    rd_kafka_conf_set(conf, "log_level", "0", error, sizeof error);
    host_ = rd_kafka_new(RD_KAFKA_PRODUCER, conf, error, sizeof error);
    cluster_ = rd_kafka_mock_cluster_new(host_, 1);
    bootstraps_ = rd_kafka_mock_cluster_bootstraps(cluster_);
  }
  ~MockCluster() {
    rd_kafka_mock_cluster_destroy(cluster_);
    rd_kafka_destroy(host_);
  }

  const std::string& bootstraps() const { return bootstraps_; }

  // Creates `topic` with one partition and writes `records` to it in order.
  void produce(const std::string& topic, const std::vector<Produced>& records) {
    ASSERT_EQ(rd_kafka_mock_topic_create(cluster_, topic.c_str(), 1, 1),
              RD_KAFKA_RESP_ERR_NO_ERROR);
    char error[256];
    rd_kafka_conf_t* conf = rd_kafka_conf_new();
    rd_kafka_conf_set(conf, "bootstrap.servers", bootstraps_.c_str(), error, sizeof error);
    rd_kafka_t* producer = rd_kafka_new(RD_KAFKA_PRODUCER, conf, error, sizeof error);
    ASSERT_NE(producer, nullptr) << error;
    for (const Produced& record : records) {
      const void* value = record.value ? record.value->data() : nullptr;
      const size_t size = record.value ? record.value->size() : 0;
      rd_kafka_resp_err_t result;
      if (record.header) {
        result = rd_kafka_producev(
            producer, RD_KAFKA_V_TOPIC(topic.c_str()), RD_KAFKA_V_PARTITION(0),
            RD_KAFKA_V_MSGFLAGS(RD_KAFKA_MSG_F_COPY),
            RD_KAFKA_V_VALUE(const_cast<void*>(value), size),
            RD_KAFKA_V_KEY(record.key.data(), record.key.size()), RD_KAFKA_V_TIMESTAMP(kTime),
            RD_KAFKA_V_HEADER("__value_schema_id", record.header->data(),
                              static_cast<ssize_t>(record.header->size())),
            RD_KAFKA_V_END);
      } else {
        result =
            rd_kafka_producev(producer, RD_KAFKA_V_TOPIC(topic.c_str()), RD_KAFKA_V_PARTITION(0),
                              RD_KAFKA_V_MSGFLAGS(RD_KAFKA_MSG_F_COPY),
                              RD_KAFKA_V_VALUE(const_cast<void*>(value), size),
                              RD_KAFKA_V_KEY(record.key.data(), record.key.size()),
                              RD_KAFKA_V_TIMESTAMP(kTime), RD_KAFKA_V_END);
      }
      ASSERT_EQ(result, RD_KAFKA_RESP_ERR_NO_ERROR);
    }
    ASSERT_EQ(rd_kafka_flush(producer, 10000), RD_KAFKA_RESP_ERR_NO_ERROR);
    rd_kafka_destroy(producer);
  }

 private:
  rd_kafka_t* host_ = nullptr;
  rd_kafka_mock_cluster_t* cluster_ = nullptr;
  std::string bootstraps_;
};

TEST(KafkaTopic, ReadBackAsProduced) {
  MockCluster cluster;
  const std::string header = "\0\0\0\0\x01\x02\x02"s;  // id 1, path [1]
  const std::vector<Produced> records = {
      {envelope(1, {0}, true, order("o-1", 10)), "a", std::nullopt},
      {envelope(1, {1}, true, refund("r-1", -4)), "b", std::nullopt},
      {envelope(1, {0, 0}, true, line("l-1", 3)), "c", std::nullopt},
      {refund("r-2", 7), "d", header},
      {std::nullopt, "gone", std::nullopt},
      {"\x0a\x01x"s, "e", std::nullopt},
      {envelope(9, {0}, true, order("o-2", 1)), "f", std::nullopt},
      {envelope(1, {2}, true, order("o-3", 1)), "g", std::nullopt},
      {envelope(1, {0}, true, order("o-4", 20)), "h", std::nullopt},
  };
  cluster.produce("orders", records);
  const std::string tool = "$T get --kafka " + cluster.bootstraps() +
                           " --topic orders --framing confluent --schema-id 1=" + kSchema;
  const auto row = [&](int offset, const std::string& key, const std::string& values) {
    return "{\"@partition\":0,\"@offset\":" + std::to_string(offset) +
           ",\"@timestamp\":" + std::to_string(kTime) + ",\"@key\":\"" + key + "\"," + values +
           "}\n";
  };
  const ToolRun read = run(tool + " --provenance id amount");
  EXPECT_EQ(read.status, 1);
  EXPECT_EQ(read.out, row(0, "a", R"("id":"o-1","amount":"10")") +
                          row(1, "b", R"("id":"r-1","amount":"-4")") +
                          row(2, "c", R"("id":"l-1","amount":"3")") +
                          row(3, "d", R"("id":"r-2","amount":"7")") +
                          row(4, "gone", R"("id":null,"amount":null)") +
                          row(8, "h", R"("id":"o-4","amount":"20")"));
  EXPECT_EQ(read.err,
            "ostrel: topic orders: partition 0 offset 5: wrongMagic: 0x0a\n"
            "ostrel: topic orders: partition 0 offset 6: no schema for id 9\n"
            "ostrel: topic orders: partition 0 offset 7: schema id 1 (" +
                kSchema + ") has no message at index path [2]\n");

  // A start offset and a count; json renders whole records, a tombstone as null.
  const ToolRun json =
      run("$T json --kafka " + cluster.bootstraps() +
          " --topic orders --framing confluent --schema-id 1=" + kSchema + " --offset 3 --max 2");
  EXPECT_EQ(json.status, 0) << json.err;
  EXPECT_EQ(json.out, "{\"id\":\"r-2\",\"amount\":\"7\",\"reason\":\"late\"}\nnull\n");

  // kcat's %R%s output: the same records, but for the one whose id was in a header kcat leaves
  // out, which is then a bare message without its envelope.
  const ToolRun piped = run(std::string(OSTREL_KCAT) + " -C -q -b " + cluster.bootstraps() +
                            " -t orders -e -f '%R%s' | $T get --framing u32be+confluent "
                            "--schema-id 1=" +
                            kSchema + " id amount");
  EXPECT_EQ(piped.status, 1);
  EXPECT_EQ(piped.out,
            "{\"id\":\"o-1\",\"amount\":\"10\"}\n{\"id\":\"r-1\",\"amount\":\"-4\"}\n"
            "{\"id\":\"l-1\",\"amount\":\"3\"}\n{\"id\":null,\"amount\":null}\n"
            "{\"id\":\"o-4\",\"amount\":\"20\"}\n");
  EXPECT_EQ(piped.err.substr(0, piped.err.find('\n')),
            "ostrel: standard input: record 4 at byte " +
                std::to_string(12 + records[0].value->size() + records[1].value->size() +
                               records[2].value->size()) +
                ": wrongMagic: 0x0a");
}

TEST(KafkaTopic, UnsignedIndexFormAndOneType) {
  MockCluster cluster;
  cluster.produce("legacy", {{envelope(5, {1}, false, refund("r-9", 2)), "k", std::nullopt},
                             {envelope(5, {0, 0}, false, line("l-9", 4)), "k", std::nullopt}});
  const std::string tool = "$T get --kafka " + cluster.bootstraps() + " --topic legacy ";
  const ToolRun read = run(tool +
                           "--framing confluent --confluent-indexes unsigned "
                           "--schema-id 5=" +
                           kSchema + " id --format csv");
  EXPECT_EQ(read.status, 0) << read.err;
  EXPECT_EQ(read.out, "id\nr-9\nl-9\n");
  // A folder of registry exports named by id: the .proto source gives the same types.
  const std::filesystem::path exports =
      std::filesystem::temp_directory_path() / ("ostrel_kafka_exports_" + std::to_string(getpid()));
  std::filesystem::create_directories(exports);
  std::filesystem::copy_file(OSTREL_TEST_DATA "/kafka_orders.proto", exports / "5.proto",
                             std::filesystem::copy_options::overwrite_existing);
  const ToolRun fromProto = run(tool +
                                "--framing confluent --confluent-indexes unsigned "
                                "--schema-dir " +
                                exports.string() + " id --format csv");
  std::filesystem::remove_all(exports);
  EXPECT_EQ(fromProto.status, 0) << fromProto.err;
  EXPECT_EQ(fromProto.out, read.out);
  // With -m and no schema ids the envelope is stripped and every record read as that type.
  const ToolRun typed = run(tool + "--framing confluent --confluent-indexes unsigned -s " +
                            kSchema + " -m ostrel.kafka.Refund reason --format csv");
  EXPECT_EQ(typed.status, 0) << typed.err;
  EXPECT_EQ(typed.out, "reason\nlate\n\n");  // a Line has no reason: an empty field
}

}  // namespace
