// Growth of the JSON readers with the size of one JSON object: encoding a map field of N entries
// (beside libprotobuf's JSON parser on the same text) and reading a JSON manifest of one message
// with N fields (beside the same schema as a descriptor set). Linear readers show a flat time per
// item from 10k to 1M; the complexity fit Google Benchmark prints says the same in one line.

#include "growth.hpp"

#include <benchmark/benchmark.h>
#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/util/json_util.h>
#include <google/protobuf/util/type_resolver.h>
#include <google/protobuf/util/type_resolver_util.h>

#include <memory>
#include <stdexcept>
#include <string>

#include "ostrel/ostrel.hpp"

namespace ostrel::bench {
namespace {

namespace pb = google::protobuf;

// {"counts":{"k0":0,"k1":1,...}}
std::string mapJson(int64_t entries) {
  std::string json = R"({"counts":{)";
  for (int64_t i = 0; i < entries; ++i) {
    if (i > 0) json += ',';
    json += "\"k" + std::to_string(i) + "\":" + std::to_string(i);
  }
  return json + "}}";
}

// g.T { map<string, int64> counts = 1; } as a manifest: the entry message is marked map_entry
// (MessageOptions field 7) so that it reads as a map.
SchemaManifest mapManifest() {
  SchemaManifest manifest;
  manifest.messages["g.T"].fields["counts"] = {.type = TypeManifest::message,
                                               .typeName = "g.T.CountsEntry",
                                               .fieldNumber = 1,
                                               .isRepeated = true};
  MessageManifest& entry = manifest.messages["g.T.CountsEntry"];
  entry.fields["key"] = {.type = TypeManifest::string, .fieldNumber = 1};
  entry.fields["value"] = {.type = TypeManifest::int64, .fieldNumber = 2};
  entry.options = Bytes{std::byte{0x38}, std::byte{0x01}};
  return manifest;
}

// The same message for libprotobuf's own JSON parser.
pb::FileDescriptorProto mapFile() {
  pb::FileDescriptorProto file;
  file.set_name("g.proto");
  file.set_package("g");
  file.set_syntax("proto3");
  pb::DescriptorProto* message = file.add_message_type();
  message->set_name("T");
  pb::DescriptorProto* entry = message->add_nested_type();
  entry->set_name("CountsEntry");
  entry->mutable_options()->set_map_entry(true);
  const auto addField = [](pb::DescriptorProto* to, const char* name, int number,
                           pb::FieldDescriptorProto::Type type) {
    pb::FieldDescriptorProto* field = to->add_field();
    field->set_name(name);
    field->set_json_name(name);
    field->set_number(number);
    field->set_label(pb::FieldDescriptorProto::LABEL_OPTIONAL);
    field->set_type(type);
    return field;
  };
  addField(entry, "key", 1, pb::FieldDescriptorProto::TYPE_STRING);
  addField(entry, "value", 2, pb::FieldDescriptorProto::TYPE_INT64);
  pb::FieldDescriptorProto* counts =
      addField(message, "counts", 1, pb::FieldDescriptorProto::TYPE_MESSAGE);
  counts->set_label(pb::FieldDescriptorProto::LABEL_REPEATED);
  counts->set_type_name(".g.T.CountsEntry");
  return file;
}

// One message "w.W" of `count` int32 fields, numbered past the reserved range.
SchemaManifest wideManifest(int64_t count) {
  SchemaManifest manifest;
  MessageManifest& message = manifest.messages["w.W"];
  for (int64_t i = 0; i < count; ++i) {
    const int64_t number = i + 1 < 19000 ? i + 1 : i + 1001;
    message.fields.emplace(std::string("f").append(std::to_string(i)),
                           FieldManifest{.type = TypeManifest::int32, .fieldNumber = number});
  }
  return manifest;
}

void check(bool ok, const std::string& what) {
  if (!ok) throw std::runtime_error("growth benchmark self-check failed: " + what);
}

void EncodeMap(benchmark::State& state) {
  const std::string json = mapJson(state.range(0));
  const SchemaStore store = schemaStoreFromManifest(mapManifest());
  const MessageSchema schema = store.messageSchema("g.T");
  size_t size = 0;
  for (auto _ : state) {
    size = parseJSON(schema, json).bytes().size();
    benchmark::DoNotOptimize(size);
  }
  check(size > static_cast<size_t>(state.range(0)) * 8, "encoded map too short");
  state.SetComplexityN(state.range(0));
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void ProtobufJsonToBinaryMap(benchmark::State& state) {
  const std::string json = mapJson(state.range(0));
  pb::DescriptorPool pool;
  check(pool.BuildFile(mapFile()) != nullptr, "libprotobuf rejected the map schema");
  const std::unique_ptr<pb::util::TypeResolver> resolver(
      pb::util::NewTypeResolverForDescriptorPool("type.googleapis.com", &pool));
  std::string binary;
  for (auto _ : state) {
    binary.clear();
    const auto status =
        pb::util::JsonToBinaryString(resolver.get(), "type.googleapis.com/g.T", json, &binary);
    check(status.ok(), "libprotobuf could not parse the map");
    benchmark::DoNotOptimize(binary);
  }
  state.SetComplexityN(state.range(0));
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void JsonManifestLoad(benchmark::State& state) {
  const std::string json = schemaManifestToJSON(wideManifest(state.range(0)));
  size_t fields = 0;
  for (auto _ : state) {
    fields = schemaManifestFromJSON(json).messages.at("w.W").fields.size();
    benchmark::DoNotOptimize(fields);
  }
  check(fields == static_cast<size_t>(state.range(0)), "JSON manifest lost fields");
  state.SetComplexityN(state.range(0));
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void DescriptorSetLoad(benchmark::State& state) {
  const Bytes set = descriptorSetFromManifest(wideManifest(state.range(0)));
  size_t fields = 0;
  for (auto _ : state) {
    fields = schemaManifestFromDescriptorSet(ByteView(set)).messages.at("w.W").fields.size();
    benchmark::DoNotOptimize(fields);
  }
  check(fields == static_cast<size_t>(state.range(0)), "descriptor set lost fields");
  state.SetComplexityN(state.range(0));
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

}  // namespace

void registerGrowthBenchmarks(bool small) {
  const int64_t largest = small ? 10'000 : 1'000'000;
  for (auto* body : {&EncodeMap, &ProtobufJsonToBinaryMap}) {
    benchmark::RegisterBenchmark(
        body == &EncodeMap ? "Growth/Ostrel/EncodeMap" : "Growth/Protobuf/JsonToBinaryMap", body)
        ->RangeMultiplier(10)
        ->Range(10'000, largest)
        ->Unit(benchmark::kMillisecond)
        ->Complexity(benchmark::oN);
  }
  for (auto* body : {&JsonManifestLoad, &DescriptorSetLoad}) {
    benchmark::RegisterBenchmark(body == &JsonManifestLoad ? "Growth/Ostrel/JsonManifestLoad"
                                                           : "Growth/Ostrel/DescriptorSetLoad",
                                 body)
        ->RangeMultiplier(10)
        ->Range(10'000, largest)
        ->Unit(benchmark::kMillisecond)
        ->Complexity(benchmark::oN);
  }
}

}  // namespace ostrel::bench
