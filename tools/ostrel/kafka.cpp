// Reading a Kafka topic through librdkafka: the partitions are assigned directly (no rebalancing),
// from the start the user names, and read to their ends, or on with --follow, until SIGINT.

#include <librdkafka/rdkafka.h>

#include <csignal>
#include <memory>
#include <set>
#include <vector>

#include "tool.hpp"

namespace ostrel::tool {
namespace {

volatile std::sig_atomic_t interrupted = 0;

void onInterrupt(int) { interrupted = 1; }

// SIGINT ends the read between two messages, so that the consumer leaves the group and what was
// printed is whole; the previous disposition comes back after the run.
class InterruptScope {
 public:
  InterruptScope() {
    interrupted = 0;
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    sigemptyset(&action.sa_mask);
    ::sigaction(SIGINT, &action, &previous_);
  }
  ~InterruptScope() { ::sigaction(SIGINT, &previous_, nullptr); }
  InterruptScope(const InterruptScope&) = delete;
  InterruptScope& operator=(const InterruptScope&) = delete;

 private:
  struct sigaction previous_ {};
};

constexpr int kMetadataTimeoutMs = 10000;
constexpr int kPollMs = 100;

struct ConsumerDeleter {
  void operator()(rd_kafka_t* consumer) const {
    rd_kafka_consumer_close(consumer);
    rd_kafka_destroy(consumer);
  }
};
using Consumer = std::unique_ptr<rd_kafka_t, ConsumerDeleter>;

struct PartitionsDeleter {
  void operator()(rd_kafka_topic_partition_list_t* list) const {
    rd_kafka_topic_partition_list_destroy(list);
  }
};
using Partitions = std::unique_ptr<rd_kafka_topic_partition_list_t, PartitionsDeleter>;

struct MessageDeleter {
  void operator()(rd_kafka_message_t* message) const { rd_kafka_message_destroy(message); }
};

Consumer makeConsumer(const KafkaOptions& options) {
  rd_kafka_conf_t* conf = rd_kafka_conf_new();
  char error[512];
  const auto set = [&](const std::string& name, const std::string& value) {
    if (rd_kafka_conf_set(conf, name.c_str(), value.c_str(), error, sizeof error) !=
        RD_KAFKA_CONF_OK) {
      rd_kafka_conf_destroy(conf);
      throw ToolError("Kafka property " + name + ": " + error);
    }
  };
  set("bootstrap.servers", options.brokers);
  set("enable.partition.eof", "true");
  set("auto.offset.reset", "earliest");
  // librdkafka's consumer wants a group even for partitions it is assigned; without --group the
  // offsets read are never committed, so the name is never used.
  set("group.id", options.group.value_or("ostrel"));
  if (!options.group) {
    set("enable.auto.commit", "false");
    set("enable.auto.offset.store", "false");
  }
  // Fetching pauses while this many records wait in the consumer's queue, which all partitions
  // share: librdkafka's 100,000 stalls a reader of many partitions that keeps up.
  set("queued.min.messages", "1000000");
  for (const auto& [name, value] : options.properties) set(name, value);
  rd_kafka_t* consumer = rd_kafka_new(RD_KAFKA_CONSUMER, conf, error, sizeof error);
  if (!consumer) {
    rd_kafka_conf_destroy(conf);
    throw ToolError(std::string("cannot start a Kafka consumer: ") + error);
  }
  rd_kafka_poll_set_consumer(consumer);
  return Consumer(consumer);
}

// The partitions to read, each at its starting offset.
Partitions startingPoints(rd_kafka_t* consumer, const KafkaOptions& options) {
  rd_kafka_topic_t* topic = rd_kafka_topic_new(consumer, options.topic.c_str(), nullptr);
  const rd_kafka_metadata_t* metadata = nullptr;
  const rd_kafka_resp_err_t error =
      rd_kafka_metadata(consumer, 0, topic, &metadata, kMetadataTimeoutMs);
  rd_kafka_topic_destroy(topic);
  if (error != RD_KAFKA_RESP_ERR_NO_ERROR) {
    throw ToolError("cannot read topic " + options.topic + " from " + options.brokers + ": " +
                    rd_kafka_err2str(error));
  }
  std::unique_ptr<const rd_kafka_metadata_t, void (*)(const rd_kafka_metadata_t*)> held(
      metadata, rd_kafka_metadata_destroy);
  if (metadata->topic_cnt != 1 || metadata->topics[0].err != RD_KAFKA_RESP_ERR_NO_ERROR) {
    const rd_kafka_resp_err_t topicError = metadata->topic_cnt == 1
                                               ? metadata->topics[0].err
                                               : RD_KAFKA_RESP_ERR_UNKNOWN_TOPIC_OR_PART;
    throw ToolError("topic " + options.topic + ": " + rd_kafka_err2str(topicError));
  }
  const rd_kafka_metadata_topic_t& found = metadata->topics[0];

  int64_t offset = options.group ? RD_KAFKA_OFFSET_STORED : RD_KAFKA_OFFSET_BEGINNING;
  bool byTime = false;
  if (options.start) {
    const std::string& start = *options.start;
    if (start == "beginning") {
      offset = RD_KAFKA_OFFSET_BEGINNING;
    } else if (start == "end") {
      offset = RD_KAFKA_OFFSET_END;
    } else if (start.starts_with('@')) {
      offset = std::stoll(start.substr(1));
      byTime = true;
    } else {
      offset = std::stoll(start);
    }
  }
  Partitions list(rd_kafka_topic_partition_list_new(found.partition_cnt));
  for (int i = 0; i < found.partition_cnt; ++i) {
    const int32_t id = found.partitions[i].id;
    if (options.partition && *options.partition != id) continue;
    rd_kafka_topic_partition_list_add(list.get(), options.topic.c_str(), id)->offset = offset;
  }
  if (list->cnt == 0) {
    throw ToolError("topic " + options.topic + " has no partition " +
                    std::to_string(options.partition.value_or(0)));
  }
  if (byTime) {
    // Each partition's first offset at or after the time; the end where there is none.
    const rd_kafka_resp_err_t timeError =
        rd_kafka_offsets_for_times(consumer, list.get(), kMetadataTimeoutMs);
    if (timeError != RD_KAFKA_RESP_ERR_NO_ERROR) {
      throw ToolError("topic " + options.topic +
                      ": offsets for the time: " + rd_kafka_err2str(timeError));
    }
  }
  return list;
}

// Handles one message of the consumer's queue: a record goes to `handle`, the end of a partition
// is noted in `ended`. Returns false to stop: `handle` said so, or every partition has ended.
bool one(const rd_kafka_message_t& message, const KafkaOptions& options, std::set<int32_t>& ended,
         size_t assigned,
         const std::function<bool(const KafkaProvenance&, std::optional<ByteView>)>& handle) {
  if (message.err == RD_KAFKA_RESP_ERR__PARTITION_EOF) {
    ended.insert(message.partition);
    return options.follow || ended.size() < assigned;
  }
  if (message.err != RD_KAFKA_RESP_ERR_NO_ERROR) {
    // A broker going away is retried by librdkafka; a fault of the topic or of the consumer ends
    // the run.
    if (message.err == RD_KAFKA_RESP_ERR__TRANSPORT ||
        message.err == RD_KAFKA_RESP_ERR__ALL_BROKERS_DOWN) {
      return true;
    }
    throw ToolError("topic " + options.topic + ": " + rd_kafka_message_errstr(&message));
  }
  ended.erase(message.partition);
  KafkaProvenance provenance;
  provenance.partition = message.partition;
  provenance.offset = message.offset;
  rd_kafka_timestamp_type_t kind = RD_KAFKA_TIMESTAMP_NOT_AVAILABLE;
  const int64_t timestamp = rd_kafka_message_timestamp(&message, &kind);
  if (kind != RD_KAFKA_TIMESTAMP_NOT_AVAILABLE) provenance.timestamp = timestamp;
  if (message.key) {
    provenance.key = ByteView(static_cast<const std::byte*>(message.key), message.key_len);
  }
  rd_kafka_headers_t* headers = nullptr;
  if (rd_kafka_message_headers(&message, &headers) == RD_KAFKA_RESP_ERR_NO_ERROR) {
    const void* value = nullptr;
    size_t size = 0;
    if (rd_kafka_header_get_last(headers, "__value_schema_id", &value, &size) ==
            RD_KAFKA_RESP_ERR_NO_ERROR &&
        value) {
      provenance.schemaIdHeader = ByteView(static_cast<const std::byte*>(value), size);
    }
  }
  std::optional<ByteView> value;
  if (message.payload) {
    value = ByteView(static_cast<const std::byte*>(message.payload), message.len);
  }
  return handle(provenance, value);
}

}  // namespace

void consumeKafka(
    const KafkaOptions& options,
    const std::function<bool(const KafkaProvenance&, std::optional<ByteView>)>& handle) {
  InterruptScope interrupts;
  Consumer consumer = makeConsumer(options);
  const Partitions partitions = startingPoints(consumer.get(), options);
  if (const rd_kafka_resp_err_t error = rd_kafka_assign(consumer.get(), partitions.get())) {
    throw ToolError("topic " + options.topic + ": " + rd_kafka_err2str(error));
  }
  const auto assigned = static_cast<size_t>(partitions->cnt);
  std::set<int32_t> ended;
  int64_t delivered = 0;
  if (options.max && *options.max <= 0) return;
  const std::unique_ptr<rd_kafka_queue_t, void (*)(rd_kafka_queue_t*)> queue(
      rd_kafka_queue_get_consumer(consumer.get()), rd_kafka_queue_destroy);
  // Messages are taken in batches, each destroyed once handled (or when the run stops early).
  std::vector<rd_kafka_message_t*> batch(1024);
  std::vector<std::unique_ptr<rd_kafka_message_t, MessageDeleter>> held;
  bool done = false;
  while (!done && interrupted == 0) {
    const ssize_t got =
        rd_kafka_consume_batch_queue(queue.get(), kPollMs, batch.data(), batch.size());
    if (got < 0) {
      throw ToolError("topic " + options.topic + ": " + rd_kafka_err2str(rd_kafka_last_error()));
    }
    held.clear();
    for (ssize_t i = 0; i < got; ++i) held.emplace_back(batch[static_cast<size_t>(i)]);
    for (const auto& message : held) {
      if (done) break;
      done = !one(*message, options, ended, assigned, handle);
      if (!done && message->err == RD_KAFKA_RESP_ERR_NO_ERROR && options.max &&
          ++delivered >= *options.max) {
        done = true;
      }
    }
  }
}

}  // namespace ostrel::tool
