// The tool against librdkafka's in-process mock cluster, started on loopback by the test: a
// producer writes Confluent-framed records (both index forms, the header form, several types of
// one schema file), tombstones and bad values; `ostrel get --kafka` reads them back as produced,
// and so does `ostrel get --framing u32be+confluent` from kcat's '%R%s' output.

#include <gtest/gtest.h>
#include <librdkafka/rdkafka.h>
#include <librdkafka/rdkafka_mock.h>

#include <filesystem>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "kafka_orders.pb.h"
#include "tools/tool_run.hpp"

namespace {

using namespace std::string_literals;
using namespace ostrel::test;

const std::string kSchema = OSTREL_TEST_GENERATED "/kafka_orders.desc";
constexpr int64_t kTime = 1700000000000;

// Confluent envelopes: magic 0, the schema id in four bytes, the index path (its length, then
// each index, as zigzag varints unless unsigned; the single byte 0 for [0]), then the payload.
const std::string kId1 = "\0\0\0\0\1"s;

// An Order, an Order.Line or a Refund (whose reason is "late").
template <typename Message>
std::string encoded(const std::string& id, int64_t amount) {
  Message message;
  message.set_id(id);
  message.set_amount(amount);
  if constexpr (std::is_same_v<Message, ostrel::kafka::Refund>) message.set_reason("late");
  return message.SerializeAsString();
}
const auto order = encoded<ostrel::kafka::Order>;
const auto refund = encoded<ostrel::kafka::Refund>;
const auto line = encoded<ostrel::kafka::Order::Line>;

struct Produced {
  std::optional<std::string> value;
  std::string key;
  std::optional<std::string> header;
};

// A producer on a mock cluster of one broker, which librdkafka starts for it.
class MockCluster {
 public:
  MockCluster() {
    char error[256];
    rd_kafka_conf_t* conf = rd_kafka_conf_new();
    rd_kafka_conf_set(conf, "test.mock.num.brokers", "1", error, sizeof error);
    rd_kafka_conf_set(conf, "log_level", "0", error, sizeof error);
    producer_ = rd_kafka_new(RD_KAFKA_PRODUCER, conf, error, sizeof error);
    cluster_ = rd_kafka_handle_mock_cluster(producer_);
    bootstraps_ = rd_kafka_mock_cluster_bootstraps(cluster_);
  }
  ~MockCluster() { rd_kafka_destroy(producer_); }

  const std::string& bootstraps() const { return bootstraps_; }

  // Creates `topic` with one partition and writes `records` to it in order.
  void produce(const std::string& topic, const std::vector<Produced>& records) {
    ASSERT_EQ(rd_kafka_mock_topic_create(cluster_, topic.c_str(), 1, 1),
              RD_KAFKA_RESP_ERR_NO_ERROR);
    for (const Produced& record : records) {
      const void* value = record.value ? record.value->data() : nullptr;
      const size_t size = record.value ? record.value->size() : 0;
      // A record without the id header carries another one, which readers pass over.
      const std::string header = record.header.value_or("");
      const rd_kafka_resp_err_t result = rd_kafka_producev(
          producer_, RD_KAFKA_V_TOPIC(topic.c_str()), RD_KAFKA_V_PARTITION(0),
          RD_KAFKA_V_MSGFLAGS(RD_KAFKA_MSG_F_COPY),
          RD_KAFKA_V_VALUE(const_cast<void*>(value), size),
          RD_KAFKA_V_KEY(record.key.data(), record.key.size()), RD_KAFKA_V_TIMESTAMP(kTime),
          RD_KAFKA_V_HEADER((record.header ? "__value_schema_id" : "trace"), header.data(),
                            static_cast<ssize_t>(header.size())),
          RD_KAFKA_V_END);
      ASSERT_EQ(result, RD_KAFKA_RESP_ERR_NO_ERROR);
    }
    ASSERT_EQ(rd_kafka_flush(producer_, 10000), RD_KAFKA_RESP_ERR_NO_ERROR);
  }

 private:
  rd_kafka_t* producer_ = nullptr;
  rd_kafka_mock_cluster_t* cluster_ = nullptr;
  std::string bootstraps_;
};

TEST(KafkaTopic, ReadBackAsProduced) {
  MockCluster cluster;
  const std::string header = kId1 + "\2\2";  // path [1]
  const std::vector<Produced> records = {
      {kId1 + "\0"s + order("o-1", 10), "a"},
      {kId1 + "\2\2" + refund("r-1", -4), "b"},
      {kId1 + "\4\0\0"s + line("l-1", 3), "c"},
      {refund("r-2", 7), "d", header},
      {std::nullopt, "gone"},
      {"\x0a\x01x"s, "e"},
      {"\0\0\0\0\x09\0"s + order("o-2", 1), "f"},
      {kId1 + "\2\4" + order("o-3", 1), "g"},
      {kId1 + "\0"s + order("o-4", 20), "h"},
  };
  cluster.produce("orders", records);
  const std::string topic = " --kafka " + cluster.bootstraps() +
                            " --topic orders --framing confluent --schema-id 1=" + kSchema;
  const auto row = [&](int offset, const std::string& key, const std::string& values) {
    return "{\"@partition\":0,\"@offset\":" + std::to_string(offset) +
           ",\"@timestamp\":" + std::to_string(kTime) + ",\"@key\":\"" + key + "\"," + values +
           "}\n";
  };
  const ToolRun read = runTool("get" + topic + " --provenance id amount");
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
  const ToolRun json = runTool("json" + topic + " --offset 3 --max 2");
  EXPECT_EQ(json.status, 0) << json.err;
  EXPECT_EQ(json.out, "{\"id\":\"r-2\",\"amount\":\"7\",\"reason\":\"late\"}\nnull\n");

  // kcat's %R%s output: the same records, but for the one whose id was in a header kcat leaves
  // out, which is then a bare message without its envelope.
  const ToolRun piped =
      runTool("get --framing u32be+confluent --schema-id 1=" + kSchema + " id amount", "",
              OSTREL_KCAT " -C -q -b " + cluster.bootstraps() + " -t orders -e -f '%R%s' | $T");
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
  cluster.produce("legacy", {{"\0\0\0\0\5\1\1"s + refund("r-9", 2), "k"},
                             {"\0\0\0\0\5\2\0\0"s + line("l-9", 4), "k"}});
  const std::string tool = "get --kafka " + cluster.bootstraps() +
                           " --topic legacy --framing confluent --confluent-indexes unsigned ";
  const ToolRun read = runTool(tool + "--schema-id 5=" + kSchema + " id --format csv");
  EXPECT_EQ(read.status, 0) << read.err;
  EXPECT_EQ(read.out, "id\nr-9\nl-9\n");
  // A folder of registry exports named by id: the .proto source gives the same types.
  const std::string exports =
      std::filesystem::path(
          scratchFile("5.proto", readFile(OSTREL_TEST_DATA "/kafka_orders.proto")))
          .parent_path();
  const ToolRun fromProto = runTool(tool + "--schema-dir " + exports + " id --format csv");
  EXPECT_EQ(fromProto.status, 0) << fromProto.err;
  EXPECT_EQ(fromProto.out, read.out);
  // With -m and no schema ids the envelope is stripped and every record read as that type.
  const ToolRun typed =
      runTool(tool + "-s " + kSchema + " -m ostrel.kafka.Refund reason --format csv");
  EXPECT_EQ(typed.status, 0) << typed.err;
  EXPECT_EQ(typed.out, "reason\nlate\n\n");  // a Line has no reason: an empty field
}

}  // namespace
