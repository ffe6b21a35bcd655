// A Kafka topic for timing consumers: librdkafka's mock cluster on loopback, topic "bench" with N
// ostrel.bench.Item records in Confluent's envelope (schema id 1, the Item's index in bench.proto),
// spread over partitions: the mock keeps at most 5 MB of each partition and drops what is older.
// Prints the bootstrap address once the records are written, and keeps the cluster up until its
// standard input closes.
//
//   ostrel_kafka_mock 1000000

#include <librdkafka/rdkafka.h>
#include <librdkafka/rdkafka_mock.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>

#include "bench.pb.h"

constexpr int kPartitions = 32;

int main(int argc, char** argv) {
  const long count = argc > 1 ? std::atol(argv[1]) : 1000000;
  char error[512];
  rd_kafka_conf_t* hostConf = rd_kafka_conf_new();
  rd_kafka_t* host = rd_kafka_new(RD_KAFKA_PRODUCER, hostConf, error, sizeof error);
  rd_kafka_mock_cluster_t* cluster = rd_kafka_mock_cluster_new(host, 1);
  const std::string bootstraps = rd_kafka_mock_cluster_bootstraps(cluster);
  rd_kafka_mock_topic_create(cluster, "bench", kPartitions, 1);

  rd_kafka_conf_t* conf = rd_kafka_conf_new();
  rd_kafka_conf_set(conf, "bootstrap.servers", bootstraps.c_str(), error, sizeof error);
  rd_kafka_conf_set(conf, "linger.ms", "50", error, sizeof error);
  rd_kafka_conf_set(conf, "queue.buffering.max.messages", "1000000", error, sizeof error);
  rd_kafka_t* producer = rd_kafka_new(RD_KAFKA_PRODUCER, conf, error, sizeof error);
  if (!producer) {
    std::cerr << error << "\n";
    return 1;
  }
  // Magic 0, id 1, the path [index] as zigzag varints: count 1, then the index.
  const int index = ostrel::bench::Item::descriptor()->index();
  std::string prefix("\0\0\0\0\x01", 5);
  prefix += index == 0 ? std::string(1, '\0') : std::string{'\x02', static_cast<char>(index * 2)};
  ostrel::bench::Item item;
  for (long n = 0; n < count; ++n) {
    item.set_id(n);
    item.set_name("item " + std::to_string(n % 1000));
    item.set_price(static_cast<double>(n % 10000) / 100);
    item.clear_counts();
    for (int i = 0; i < 4; ++i) item.add_counts(static_cast<int32_t>(n % 97 + i));
    const std::string value = prefix + item.SerializeAsString();
    while (rd_kafka_producev(producer, RD_KAFKA_V_TOPIC("bench"),
                             RD_KAFKA_V_PARTITION(static_cast<int32_t>(n % kPartitions)),
                             RD_KAFKA_V_MSGFLAGS(RD_KAFKA_MSG_F_COPY),
                             RD_KAFKA_V_VALUE(const_cast<char*>(value.data()), value.size()),
                             RD_KAFKA_V_END) == RD_KAFKA_RESP_ERR__QUEUE_FULL) {
      rd_kafka_poll(producer, 10);
    }
  }
  if (rd_kafka_flush(producer, 120000) != RD_KAFKA_RESP_ERR_NO_ERROR) {
    std::cerr << "ostrel_kafka_mock: the records were not all written\n";
    return 1;
  }
  rd_kafka_destroy(producer);
  std::cout << bootstraps << std::endl;
  while (std::cin.get() != EOF) {
  }
  rd_kafka_mock_cluster_destroy(cluster);
  rd_kafka_destroy(host);
  return 0;
}
