// The tool built without librdkafka: --kafka is refused.

#include "tool.hpp"

namespace ostrel::tool {

void consumeKafka(const KafkaOptions&,
                  const std::function<bool(const KafkaProvenance&, std::optional<ByteView>)>&) {
  throw ToolError("this ostrel was built without Kafka: librdkafka was not found");
}

}  // namespace ostrel::tool
