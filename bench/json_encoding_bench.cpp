#include "json_encoding_bench.hpp"

#include <benchmark/benchmark.h>
#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/dynamic_message.h>
#include <google/protobuf/util/json_util.h>
#include <google/protobuf/util/message_differencer.h>
#include <google/protobuf/util/type_resolver.h>
#include <google/protobuf/util/type_resolver_util.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

#include "bench.pb.h"
#include "ostrel/output/json.hpp"

namespace ostrel::bench {
namespace {

namespace pb = google::protobuf;

constexpr const char* kTypeUrlPrefix = "type.googleapis.com";

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "ostrel_bench: self-check failed: %s\n", what.c_str());
  std::fflush(stderr);
  std::abort();
}

// libprotobuf's JSON parsers over a pool built from the same descriptor set: the type resolver
// made once (the expensive part of JsonToBinaryString) and one reused DynamicMessage.
struct JsonPeer {
  explicit JsonPeer(const std::string& descriptorSet) {
    pb::FileDescriptorSet set;
    if (!set.ParseFromString(descriptorSet)) fail("bench.desc does not parse");
    for (const pb::FileDescriptorProto& file : set.file()) {
      if (!pool.BuildFile(file)) fail("DescriptorPool rejects " + file.name());
    }
    const pb::Descriptor* descriptor = pool.FindMessageTypeByName("ostrel.bench.Bench");
    if (!descriptor) fail("ostrel.bench.Bench is not in the pool");
    dynamic.reset(factory.GetPrototype(descriptor)->New());
    resolver.reset(pb::util::NewTypeResolverForDescriptorPool(kTypeUrlPrefix, &pool));
    typeUrl = std::string(kTypeUrlPrefix) + "/" + descriptor->full_name();
  }

  std::string jsonToBinary(const std::string& json) {
    std::string bytes;
    if (!pb::util::JsonToBinaryString(resolver.get(), typeUrl, json, &bytes).ok()) {
      fail("JsonToBinaryString failed");
    }
    return bytes;
  }

  std::string jsonToDynamic(const std::string& json) {
    if (!pb::util::JsonStringToMessage(json, dynamic.get()).ok()) {
      fail("JsonStringToMessage failed");
    }
    return dynamic->SerializeAsString();
  }

  pb::DescriptorPool pool;
  pb::DynamicMessageFactory factory{&pool};
  std::unique_ptr<pb::Message> dynamic;
  std::unique_ptr<pb::util::TypeResolver> resolver;
  std::string typeUrl;
};

size_t encodeOurs(const MessageSchema& schema, const std::string& json) {
  return parseJSON(schema, json).bytes().size();
}

// The encodings differ in bytes (libprotobuf packs repeated scalars, parseJSON does not), so
// each is compared with the original as a parsed message.
void expectSameMessage(const std::string& what, const std::string& encoded, const Bench& expected) {
  Bench parsed;
  if (!parsed.ParseFromString(encoded)) fail(what + ": the encoding does not parse");
  if (!pb::util::MessageDifferencer::Equals(parsed, expected)) {
    fail(what + ": the encoding differs from the original message");
  }
}

// Registers `body` as a benchmark whose every iteration must give `expected`, and that reads
// `input` bytes an iteration (shown as a rate when not zero).
template <typename Body>
void add(const std::string& name, size_t expected, Body body, size_t input = 0) {
  benchmark::RegisterBenchmark(
      name.c_str(), [name, expected, body, input](benchmark::State& state) {
        size_t last = 0;
        for (auto _ : state) {
          const size_t value = body();
          benchmark::DoNotOptimize(value);
          last = value;
        }
        if (input != 0) state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * input));
        if (last != expected) {
          fail(name + ", timed loop: got " + std::to_string(last) + ", expected " +
               std::to_string(expected));
        }
      });
}

}  // namespace

void registerJsonEncodingBenchmarks(const MessageSchema& schema, const std::string& descriptorSet,
                                    const std::string& bytes, const std::string& json, bool smoke) {
  auto peer = std::make_shared<JsonPeer>(descriptorSet);
  Bench original;
  if (!original.ParseFromString(bytes)) fail("the 1 MB message does not parse");
  const std::string ours = toString(parseJSON(schema, json).bytes());
  const std::string binary = peer->jsonToBinary(json);
  const std::string dynamic = peer->jsonToDynamic(json);
  expectSameMessage("parseJSON of the 1 MB JSON", ours, original);
  expectSameMessage("JsonToBinaryString of the 1 MB JSON", binary, original);
  expectSameMessage("JsonStringToMessage of the 1 MB JSON", dynamic, original);

  add(
      "Ostrel/EncodeJSON/1MB", ours.size(), [&schema, &json] { return encodeOurs(schema, json); },
      json.size());
  if (smoke) return;
  add("Protobuf/JsonToBinaryString/1MB", binary.size(),
      [peer, &json] { return peer->jsonToBinary(json).size(); });
  add("Protobuf/JsonToDynamicSerialize/1MB", dynamic.size(),
      [peer, &json] { return peer->jsonToDynamic(json).size(); });
}

std::vector<RatioTarget> jsonEncodingTargets() {
  using B = RatioTarget::Bound;
  return {
      {"10a", "encode JSON of 1 MB vs JsonToBinaryString, cached resolver (speedup)",
       "Ostrel/EncodeJSON/1MB", "Protobuf/JsonToBinaryString/1MB", B::speedupAtLeast, 8},
      {"10b", "encode JSON of 1 MB vs JsonStringToMessage + SerializeToString (speedup)",
       "Ostrel/EncodeJSON/1MB", "Protobuf/JsonToDynamicSerialize/1MB", B::speedupAtLeast, 12},
  };
}

}  // namespace ostrel::bench
