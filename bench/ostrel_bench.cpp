// Ostrel side by side with what a user would pick instead: libprotobuf's DynamicMessage and
// generated code, its JSON printers, and hand-written floors (memcpy, a loop that only walks the
// wire format). Everything runs in one process over the same bytes. Before anything is timed, the
// self-checks make every benchmark compute its answer once and compare it with the peer's; a
// difference stops the program, because a fast wrong answer measures nothing.
//
// Flags besides Google Benchmark's own:
//   --ostrel_smoke  leave out the slow libprotobuf peers over the 1 MB messages (their answers are
//                   still checked), for a quick run that only proves the binary and its checks.
//   --ostrel_growth_small  run the growth benchmarks of the JSON readers at 10k members only,
//                   not up to 1M (seconds per iteration, minutes under the sanitizers).

#include <benchmark/benchmark.h>
#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/dynamic_message.h>
#include <google/protobuf/util/json_util.h>
#include <google/protobuf/util/type_resolver.h>
#include <google/protobuf/util/type_resolver_util.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "allocation_counter.hpp"
#include "bench.pb.h"
#include "growth.hpp"
#include "hand_floors.hpp"
#include "json_encoding_bench.hpp"
#include "ostrel/manifest/manifest_data.hpp"
#include "ostrel/manifest/typed_import.hpp"
#include "ostrel/output/json.hpp"
#include "ostrel/paths/projection.hpp"
#include "ostrel/paths/property_path.hpp"
#include "ostrel/records/records.hpp"
#include "ostrel/store/schemas.hpp"
#include "ostrel/wire/schematizer.hpp"
#include "report.hpp"
#include "wire/field_path.hpp"
#include "workload.hpp"

namespace ostrel::bench {
namespace {

namespace pb = google::protobuf;

constexpr size_t kDenseFieldCount = 200000;
constexpr size_t kPackedCount = 100000;
constexpr int64_t kPackedIndex = 50000;
constexpr int kIntsField = 5;
constexpr uint32_t kFrontPath[] = {1, 1, 1};
constexpr uint32_t kTailPath[] = {1000, 1, 1};
constexpr const char* kTypeUrlPrefix = "type.googleapis.com";

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "ostrel_bench: self-check failed: %s\n", what.c_str());
  std::fflush(stderr);
  std::abort();
}

template <typename T>
std::string show(const T& value) {
  std::ostringstream out;
  out << value;
  return out.str();
}

template <typename A, typename B>
void expectEqual(const std::string& what, const A& got, const B& expected) {
  if (!(got == expected)) fail(what + ": got " + show(got) + ", expected " + show(expected));
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) fail("cannot read " + path);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

int64_t int64Of(const std::optional<AnyValue>& value, const std::string& what) {
  if (!value || value->kind() != AnyValue::Case::int64) fail(what + ": no int64 value");
  return value->int64Value();
}

// Everything the benchmarks read, built once.
struct Workload {
  std::string small = buildSmallMessage();
  std::string large = buildLargeMessage();
  std::string events = buildEventsMessage();
  DenseCounts denseCounts;
  std::string dense = buildDenseMessage(kDenseFieldCount, denseCounts);
  std::vector<int32_t> packedValues;
  std::string packed = buildPackedRunMessage(kPackedCount, packedValues);
  std::string benchDescriptorSet = readFile(OSTREL_BENCH_GENERATED "/bench.desc");
  std::string descriptorProtoSet = readFile(OSTREL_BENCH_GENERATED "/descriptor.desc");
};

// Ostrel's view of the workload: a store made from the descriptor set, the data, and the paths
// resolved once up front as a caller reading many records would.
struct Ours {
  explicit Ours(const Workload& w)
      : store(schemaManifestFromDescriptorSet(asBytes(w.benchDescriptorSet))),
        schema(store.messageSchema("ostrel.bench.Bench")),
        small(schema.schematizedData(w.small)),
        large(schema.schematizedData(w.large)),
        dense(schema.schematizedData(w.dense)),
        packed(schema.schematizedData(w.packed)),
        events(store.messageSchema("ostrel.bench.Events").schematizedData(w.events)),
        packedBuffer(toBytes(w.packed)),
        int32Type(schema.fieldNamed("ints").type()),
        front(resolvePropertyPath(schema, "mid.leaf.id")),
        tail(resolvePropertyPath(schema, "tail.leaf.id")),
        label(resolvePropertyPath(schema, "mid.leaf.label")),
        element(resolvePropertyPath(schema, "ints[" + std::to_string(kPackedIndex) + "]")) {}

  SchemaStore store;
  MessageSchema schema;
  SchematizedData small;
  SchematizedData large;
  SchematizedData dense;
  SchematizedData packed;
  SchematizedData events;
  OwnedData packedBuffer;
  TypeSchema int32Type;
  FieldPathAndType front;
  FieldPathAndType tail;
  FieldPathAndType label;
  FieldPathAndType element;
};

// libprotobuf's view: a pool built from the same descriptor set, one reused DynamicMessage, the
// generated class, and a type resolver made once (the expensive part of BinaryToJsonString).
struct Peer {
  explicit Peer(const Workload& w) {
    pb::FileDescriptorSet set;
    if (!set.ParseFromString(w.benchDescriptorSet)) fail("bench.desc does not parse");
    for (const pb::FileDescriptorProto& file : set.file()) {
      if (!pool.BuildFile(file)) fail("DescriptorPool rejects " + file.name());
    }
    descriptor = pool.FindMessageTypeByName("ostrel.bench.Bench");
    if (!descriptor) fail("ostrel.bench.Bench is not in the pool");
    dynamic.reset(factory.GetPrototype(descriptor)->New());
    parsed.reset(factory.GetPrototype(descriptor)->New());
    if (!parsed->ParseFromString(w.large)) fail("DynamicMessage parse of the 1 MB message failed");
    midField = descriptor->FindFieldByName("mid");
    tailField = descriptor->FindFieldByName("tail");
    leafField = midField->message_type()->FindFieldByName("leaf");
    idField = leafField->message_type()->FindFieldByName("id");
    resolver.reset(pb::util::NewTypeResolverForDescriptorPool(kTypeUrlPrefix, &pool));
    typeUrl = std::string(kTypeUrlPrefix) + "/" + descriptor->full_name();
    const pb::Descriptor* eventsDescriptor = pool.FindMessageTypeByName("ostrel.bench.Events");
    if (!eventsDescriptor) fail("ostrel.bench.Events is not in the pool");
    events.reset(factory.GetPrototype(eventsDescriptor)->New());
    eventsUrl = std::string(kTypeUrlPrefix) + "/" + eventsDescriptor->full_name();
    jsonOptions.preserve_proto_field_names = true;
  }

  // Reads `outer`.leaf.id through reflection with field descriptors found beforehand.
  int64_t readId(const pb::Message& message, const pb::FieldDescriptor* outer) const {
    const pb::Message& mid = message.GetReflection()->GetMessage(message, outer);
    const pb::Message& leaf = mid.GetReflection()->GetMessage(mid, leafField);
    return leaf.GetReflection()->GetInt64(leaf, idField);
  }

  int64_t parseAndReadId(const std::string& bytes, const pb::FieldDescriptor* outer) {
    if (!dynamic->ParseFromString(bytes)) fail("DynamicMessage parse failed");
    return readId(*dynamic, outer);
  }

  // `url` names the message type; the Bench message by default.
  std::string binaryToJson(const std::string& bytes, const std::string* url = nullptr) {
    std::string json;
    if (!pb::util::BinaryToJsonString(resolver.get(), url ? *url : typeUrl, bytes, &json,
                                      jsonOptions)
             .ok()) {
      fail("BinaryToJsonString failed");
    }
    return json;
  }

  // Into `message`, the reused Bench message by default.
  std::string parseToJson(const std::string& bytes, pb::Message* message = nullptr) {
    pb::Message& target = message ? *message : *dynamic;
    if (!target.ParseFromString(bytes)) fail("DynamicMessage parse failed");
    std::string json;
    if (!pb::util::MessageToJsonString(target, &json, jsonOptions).ok()) {
      fail("MessageToJsonString failed");
    }
    return json;
  }

  pb::DescriptorPool pool;
  pb::DynamicMessageFactory factory{&pool};
  const pb::Descriptor* descriptor = nullptr;
  // Reused by every parse.
  std::unique_ptr<pb::Message> dynamic;
  // Reused by the parses of the well-known types workload.
  std::unique_ptr<pb::Message> events;
  std::string eventsUrl;
  // The 1 MB message, parsed once, for reflection on a parsed message.
  std::unique_ptr<pb::Message> parsed;
  const pb::FieldDescriptor* midField = nullptr;
  const pb::FieldDescriptor* tailField = nullptr;
  const pb::FieldDescriptor* leafField = nullptr;
  const pb::FieldDescriptor* idField = nullptr;
  std::unique_ptr<pb::util::TypeResolver> resolver;
  std::string typeUrl;
  pb::util::JsonPrintOptions jsonOptions;
  Bench generated;
};

// Reflection by name on an already parsed message: three FindFieldByName steps.
int64_t reflectByName(const pb::Message& message) {
  const pb::FieldDescriptor* mid = message.GetDescriptor()->FindFieldByName("mid");
  const pb::Message& midMessage = message.GetReflection()->GetMessage(message, mid);
  const pb::FieldDescriptor* leaf = midMessage.GetDescriptor()->FindFieldByName("leaf");
  const pb::Message& leafMessage = midMessage.GetReflection()->GetMessage(midMessage, leaf);
  const pb::FieldDescriptor* id = leafMessage.GetDescriptor()->FindFieldByName("id");
  return leafMessage.GetReflection()->GetInt64(leafMessage, id);
}

// The same read through the lowest-level entry point: the value borrows from the buffer and is
// never converted to an owned AnyValue.
int64_t borrowedFrontId(const Ours& ours) {
  Reader reader(ours.large.bytes());
  const std::optional<detail::AnyValueImpl> value = readValue(reader, ours.front);
  if (!value || value->kind() != detail::AnyValueImpl::Case::int64) fail("front: no int64 value");
  return value->int64Value();
}

// Reads every element through the library's repeated-field iterator, sharing the buffer.
floors::RunSum iteratePacked(const Ours& ours) {
  Schematizer::RepeatableFieldIterator iterator(ours.packedBuffer, kIntsField, ours.int32Type);
  floors::RunSum result;
  while (std::optional<AnyValue> value = iterator.next()) {
    result.sum += value->int32Value();
    ++result.count;
  }
  return result;
}

floors::RunSum handDecodePacked(const Workload& w) {
  return floors::decodeAllInt32(floors::findPayload(w.packed, kIntsField));
}

std::optional<int32_t> handPackedElement(const Workload& w) {
  return floors::int32AtIndex(floors::findPayload(w.packed, kIntsField), kPackedIndex);
}

int32_t oursPackedElement(const Ours& ours) {
  const std::optional<AnyValue> value = ours.packed.value(ours.element);
  if (!value || value->kind() != AnyValue::Case::int32) fail("ints[k]: no int32 value");
  return value->int32Value();
}

std::string renderOurs(const SchematizedData& data) { return renderJSON(data); }

SchemaManifest importOurs(const Workload& w) {
  return schemaManifestFromDescriptorSet(asBytes(w.descriptorProtoSet));
}

SchemaManifest importTyped(const Workload& w, pb::FileDescriptorSet& set) {
  if (!set.ParseFromString(w.descriptorProtoSet)) fail("descriptor.desc does not parse");
  return schemaManifestFromDescriptorSet(set);
}

// Allocations of one read through a pre-resolved path, counted around the read alone.
int64_t allocationsOfRead(const SchematizedData& data, const FieldPathAndType& path) {
  AllocationScope scope;
  std::optional<AnyValue> value = data.value(path);
  const int64_t count = scope.count();
  benchmark::DoNotOptimize(value);
  return count;
}

struct AllocationCounts {
  int64_t scalar = 0;
  int64_t string = 0;
};

void checkJson(const std::string& what, const std::string& ours, const std::string& peer) {
  nlohmann::json a;
  nlohmann::json b;
  try {
    a = nlohmann::json::parse(ours);
  } catch (const std::exception& e) {
    fail(what + ": Ostrel's JSON does not parse: " + e.what());
  }
  try {
    b = nlohmann::json::parse(peer);
  } catch (const std::exception& e) {
    fail(what + ": the peer's JSON does not parse: " + e.what());
  }
  if (a != b) {
    const nlohmann::json difference = nlohmann::json::diff(a, b);
    fail(what + ": Ostrel's JSON differs from the peer's: " + difference.dump().substr(0, 600));
  }
}

// Every benchmark's answer, computed once by ours, by the peer and by the floor, and compared.
AllocationCounts runSelfChecks(const Workload& w, Ours& ours, Peer& peer) {
  const std::string large = "1 MB message";
  const std::string dense = "dense message";

  // Reads of mid.leaf.id near the front.
  expectEqual("front id, pre-resolved, 1 MB", int64Of(ours.large.value(ours.front), large),
              kFrontId);
  expectEqual("front id, pre-resolved, 1 KB", int64Of(ours.small.value(ours.front), "1 KB"),
              kFrontId);
  expectEqual("front id, borrowed", borrowedFrontId(ours), kFrontId);
  expectEqual("front id, exact read, 1 MB",
              int64Of(ours.large.value(ours.front, ReadMode::exact), large), kFrontId);
  expectEqual("front id, property path", int64Of(ours.large.value("mid.leaf.id"), large), kFrontId);
  expectEqual("front id, hand-written", floors::readVarintAtPath(w.large, kFrontPath).value_or(0),
              static_cast<uint64_t>(kFrontId));
  expectEqual("front id, DynamicMessage 1 MB", peer.parseAndReadId(w.large, peer.midField),
              kFrontId);
  expectEqual("front id, reflection by name", reflectByName(*peer.parsed), kFrontId);
  expectEqual("front id, DynamicMessage 1 KB", peer.parseAndReadId(w.small, peer.midField),
              kFrontId);
  for (const std::string* bytes : {&w.large, &w.small}) {
    if (!peer.generated.ParseFromString(*bytes)) fail("generated parse failed");
    expectEqual("front id, generated code", peer.generated.mid().leaf().id(), kFrontId);
  }

  // Reads of tail.leaf.id at the end.
  expectEqual("tail id, pre-resolved, 1 MB", int64Of(ours.large.value(ours.tail), large), kTailId);
  expectEqual("tail id, pre-resolved, dense", int64Of(ours.dense.value(ours.tail), dense), kTailId);
  expectEqual("tail id, hand-written, 1 MB",
              floors::readVarintAtPath(w.large, kTailPath).value_or(0),
              static_cast<uint64_t>(kTailId));
  expectEqual("tail id, hand-written, dense",
              floors::readVarintAtPath(w.dense, kTailPath).value_or(0),
              static_cast<uint64_t>(kTailId));
  expectEqual("tail id, DynamicMessage 1 MB", peer.parseAndReadId(w.large, peer.tailField),
              kTailId);
  expectEqual("tail id, DynamicMessage dense", peer.parseAndReadId(w.dense, peer.tailField),
              kTailId);

  // The dense message holds what was written: mid, the tiny fields, tail.
  expectEqual("dense fields walked", floors::skipAllFields(w.dense),
              static_cast<int64_t>(w.denseCounts.total() + 2));
  for (size_t i = 0; i < kDenseFields.size(); ++i) {
    const pb::FieldDescriptor* field = peer.descriptor->FindFieldByNumber(kDenseFields[i]);
    if (!field) fail("bench.proto has no field " + std::to_string(kDenseFields[i]));
    expectEqual("dense field " + field->name() + " elements",
                static_cast<size_t>(peer.dynamic->GetReflection()->FieldSize(*peer.dynamic, field)),
                w.denseCounts.perField[i]);
  }
  if (floors::skipAllFields(w.large) <= 0) fail("the 1 MB message does not walk");

  // The packed run: all elements, and element k.
  floors::RunSum expected;
  for (int32_t v : w.packedValues) expected.sum += v;
  expected.count = static_cast<int64_t>(w.packedValues.size());
  const floors::RunSum iterated = iteratePacked(ours);
  const floors::RunSum decoded = handDecodePacked(w);
  expectEqual("packed run, iterator count", iterated.count, expected.count);
  expectEqual("packed run, iterator sum", iterated.sum, expected.sum);
  expectEqual("packed run, hand-written count", decoded.count, expected.count);
  expectEqual("packed run, hand-written sum", decoded.sum, expected.sum);
  if (!peer.generated.ParseFromString(w.packed)) fail("generated parse of the packed run failed");
  expectEqual("packed run, generated code size", peer.generated.ints_size(),
              static_cast<int>(kPackedCount));
  const auto k = static_cast<size_t>(kPackedIndex);
  expectEqual("packed element k, pre-resolved", oursPackedElement(ours), w.packedValues[k]);
  expectEqual("packed element k, hand-written", handPackedElement(w).value_or(-1),
              w.packedValues[k]);
  expectEqual("packed element k, generated code", peer.generated.ints(static_cast<int>(k)),
              w.packedValues[k]);

  // JSON: the same document as libprotobuf's printers, field for field.
  checkJson("JSON 1 MB vs BinaryToJsonString", renderOurs(ours.large), peer.binaryToJson(w.large));
  checkJson("JSON 1 MB vs MessageToJsonString", renderOurs(ours.large), peer.parseToJson(w.large));
  checkJson("JSON 1 KB vs BinaryToJsonString", renderOurs(ours.small), peer.binaryToJson(w.small));
  checkJson("JSON of events vs BinaryToJsonString", renderOurs(ours.events),
            peer.binaryToJson(w.events, &peer.eventsUrl));

  // Importing descriptor.proto's descriptor set: the same manifest either way.
  pb::FileDescriptorSet set;
  if (!(importOurs(w) == importTyped(w, set))) {
    fail("descriptor.proto: the schematized import differs from the typed import");
  }

  // memcpy copies the buffer.
  std::string copy(w.large.size(), '\0');
  std::memcpy(copy.data(), w.large.data(), w.large.size());
  if (copy != w.large) fail("memcpy copy differs");

  // Heap allocations of single reads: none for a scalar, the copy for a string. Counted after a
  // first read, so that nothing lazily set up by the first read counts.
  AllocationCounts counts;
  allocationsOfRead(ours.large, ours.front);
  allocationsOfRead(ours.large, ours.label);
  counts.scalar = allocationsOfRead(ours.large, ours.front);
  counts.string = allocationsOfRead(ours.large, ours.label);
  expectEqual("front label, pre-resolved", ours.large.value(ours.label)->stringValue(),
              std::string(kFrontLabel));
  if (counts.scalar > 0) {
    fail("a scalar read through a pre-resolved path allocated " + std::to_string(counts.scalar) +
         " times (allowed: 0)");
  }
  if (counts.string > 1) {
    fail("a string read through a pre-resolved path allocated " + std::to_string(counts.string) +
         " times (allowed: 1, the copy)");
  }
  const int64_t tailAllocations = allocationsOfRead(ours.dense, ours.tail);
  const int64_t elementAllocations = allocationsOfRead(ours.packed, ours.element);
  if (tailAllocations > 0 || elementAllocations > 0) {
    fail("a scalar read allocated (tail: " + std::to_string(tailAllocations) +
         ", ints[k]: " + std::to_string(elementAllocations) + ")");
  }
  return counts;
}

// ---------------------------------------------------------------------------------------------
// Many paths, many records: ten scalar paths of the 1 KB record read at once, and a stream of
// small delimited records with three paths each.

// Ten scalar leaves of the 1 KB record, from its front to its very end.
const std::vector<std::string> kTenPaths = {
    "mid.leaf.id",     "mid.weight",     "kind",           "items[0].id", "items[0].price",
    "items[0].active", "items[0].delta", "items[0].flags", "code",        "tail.leaf.id"};
const std::vector<std::string> kOrderPaths = {"id", "customer.name", "items[0].price"};

// The ten values folded into one number, in path order; an absent value counts as 0, as
// libprotobuf's accessors give a field that is not set.
struct TenValues {
  uint64_t bits[10] = {};
  uint64_t fold() const {
    uint64_t acc = 0;
    for (uint64_t b : bits) acc = acc * 0x9E3779B97F4A7C15u + b;
    return acc;
  }
};

template <typename T>
uint64_t bitsOf(T value) {
  if constexpr (std::is_same_v<T, double>) {
    return std::bit_cast<uint64_t>(value);
  } else if constexpr (std::is_same_v<T, bool>) {
    return value ? 1 : 0;
  } else {
    return static_cast<uint64_t>(static_cast<int64_t>(value));
  }
}

uint64_t bitsOf(const std::optional<AnyValue>& value) {
  if (!value) return 0;
  switch (value->kind()) {
    case AnyValue::Case::int32:
      return bitsOf(value->int32Value());
    case AnyValue::Case::uint32:
      return bitsOf(value->uint32Value());
    case AnyValue::Case::int64:
      return bitsOf(value->int64Value());
    case AnyValue::Case::double_:
      return bitsOf(value->doubleValue());
    case AnyValue::Case::bool_:
      return bitsOf(value->boolValue());
    case AnyValue::Case::enum_:
      return bitsOf(value->enumValue().number());
    default:
      fail("ten paths: unexpected value " + value->describe());
  }
}

struct Many {
  explicit Many(const Ours& ours, bool smoke)
      : ten(ours.schema, kTenPaths),
        tenRow(ten.makeRow()),
        orderSchema(ours.store.messageSchema("ostrel.bench.ShopOrder")),
        orders(orderSchema, kOrderPaths),
        orderRow(orders.makeRow()),
        stream(buildOrderStream(smoke ? 10000 : 1000000, idSum)),
        recordCount(smoke ? 10000 : 1000000) {
    for (const std::string& path : kTenPaths)
      tenResolved.push_back(resolvePropertyPath(ours.schema, path));
  }

  Projection ten;
  ProjectionRow tenRow;
  std::vector<FieldPathAndType> tenResolved;
  MessageSchema orderSchema;
  Projection orders;
  ProjectionRow orderRow;
  uint64_t idSum = 0;
  std::string stream;
  int64_t recordCount;
};

uint64_t tenByProjection(Many& many, const Workload& w) {
  ProjectionRow& row = many.tenRow;
  many.ten.read(asBytes(w.small), row);
  TenValues v;
  v.bits[0] = bitsOf(row.int64Value(0).value_or(0));
  v.bits[1] = bitsOf(row.int32Value(1).value_or(0));
  v.bits[2] = bitsOf(row.enumNumber(2).value_or(0));
  v.bits[3] = bitsOf(row.int64Value(3).value_or(0));
  v.bits[4] = bitsOf(row.doubleValue(4).value_or(0));
  v.bits[5] = bitsOf(row.boolValue(5).value_or(false));
  v.bits[6] = bitsOf(row.int64Value(6).value_or(0));
  v.bits[7] = bitsOf(row.uint32Value(7).value_or(0));
  v.bits[8] = bitsOf(row.int64Value(8).value_or(0));
  v.bits[9] = bitsOf(row.int64Value(9).value_or(0));
  return v.fold();
}

uint64_t tenBySingleReads(const Many& many, const Ours& ours) {
  TenValues v;
  for (size_t i = 0; i < 10; ++i) v.bits[i] = bitsOf(ours.small.value(many.tenResolved[i]));
  return v.fold();
}

uint64_t tenByReflection(Peer& peer, const Workload& w) {
  pb::Message& m = *peer.dynamic;
  if (!m.ParseFromString(w.small)) fail("DynamicMessage parse failed");
  const pb::Descriptor* d = peer.descriptor;
  const pb::Reflection* r = m.GetReflection();
  TenValues v;
  const pb::Message& mid = r->GetMessage(m, d->FindFieldByNumber(1));
  const pb::Descriptor* midD = mid.GetDescriptor();
  const pb::Message& leaf = mid.GetReflection()->GetMessage(mid, midD->FindFieldByNumber(1));
  v.bits[0] = bitsOf(leaf.GetReflection()->GetInt64(leaf, peer.idField));
  v.bits[1] = bitsOf(mid.GetReflection()->GetInt32(mid, midD->FindFieldByNumber(2)));
  v.bits[2] = bitsOf(r->GetEnumValue(m, d->FindFieldByNumber(3)));
  const pb::FieldDescriptor* items = d->FindFieldByNumber(4);
  if (r->FieldSize(m, items) > 0) {
    const pb::Message& item = r->GetRepeatedMessage(m, items, 0);
    const pb::Descriptor* itemD = item.GetDescriptor();
    const pb::Reflection* ir = item.GetReflection();
    v.bits[3] = bitsOf(ir->GetInt64(item, itemD->FindFieldByNumber(1)));
    v.bits[4] = bitsOf(ir->GetDouble(item, itemD->FindFieldByNumber(3)));
    v.bits[5] = bitsOf(ir->GetBool(item, itemD->FindFieldByNumber(8)));
    v.bits[6] = bitsOf(ir->GetInt64(item, itemD->FindFieldByNumber(9)));
    v.bits[7] = bitsOf(ir->GetUInt32(item, itemD->FindFieldByNumber(10)));
  }
  const pb::FieldDescriptor* code = d->FindFieldByNumber(11);
  if (r->HasField(m, code)) v.bits[8] = bitsOf(r->GetInt64(m, code));
  const pb::Message& tail = r->GetMessage(m, peer.tailField);
  const pb::Message& tailLeaf = tail.GetReflection()->GetMessage(tail, peer.leafField);
  v.bits[9] = bitsOf(tailLeaf.GetReflection()->GetInt64(tailLeaf, peer.idField));
  return v.fold();
}

// The hand-written single pass that knows the ten field numbers: first occurrences only, each
// nested message entered once.
uint64_t tenByHand(const Workload& w) {
  using floors::Cursor;
  TenValues v;
  const auto payload = [](Cursor& c, uint64_t tag, Cursor& inner) {
    uint64_t length;
    if ((tag & 7) != 2 || !floors::readVarint(c, length) ||
        length > static_cast<uint64_t>(c.end - c.p)) {
      return false;
    }
    inner = c;
    inner.end = c.p + length;
    c.p += length;
    return true;
  };
  // mid and tail: leaf.id, and weight for mid.
  const auto walkMid = [&](Cursor c, uint64_t* id, uint64_t* weight) {
    bool leafSeen = false;
    bool weightSeen = false;
    while (c.p < c.end) {
      uint64_t tag;
      if (!floors::readVarint(c, tag)) fail("hand pass: bad tag");
      if ((tag >> 3) == 1 && !leafSeen) {
        leafSeen = true;
        Cursor leaf(c);
        if (!payload(c, tag, leaf)) fail("hand pass: bad leaf");
        while (leaf.p < leaf.end) {
          uint64_t leafTag;
          if (!floors::readVarint(leaf, leafTag)) fail("hand pass: bad tag");
          if (leafTag == 8) {
            floors::readVarint(leaf, *id);
            break;
          }
          if (!floors::skipValue(leaf, leafTag)) fail("hand pass: bad field");
        }
        continue;
      }
      if (tag == 16 && weight && !weightSeen) {
        weightSeen = true;
        uint64_t value = 0;
        if (!floors::readVarint(c, value)) fail("hand pass: bad weight");
        *weight = bitsOf(static_cast<int32_t>(value));
        continue;
      }
      if (!floors::skipValue(c, tag)) fail("hand pass: bad field");
    }
  };
  Cursor c(w.small);
  bool seen[5] = {};
  while (c.p < c.end) {
    uint64_t tag;
    if (!floors::readVarint(c, tag)) fail("hand pass: bad tag");
    const uint64_t number = tag >> 3;
    Cursor inner(c);
    if (number == 1 && !seen[0]) {
      seen[0] = true;
      if (!payload(c, tag, inner)) fail("hand pass: bad mid");
      walkMid(inner, &v.bits[0], &v.bits[1]);
      continue;
    }
    if (tag == 24 && !seen[1]) {
      seen[1] = true;
      uint64_t value = 0;
      if (!floors::readVarint(c, value)) fail("hand pass: bad kind");
      v.bits[2] = bitsOf(static_cast<int32_t>(value));
      continue;
    }
    if (number == 4 && !seen[2]) {
      seen[2] = true;
      if (!payload(c, tag, inner)) fail("hand pass: bad item");
      bool itemSeen[11] = {};
      while (inner.p < inner.end) {
        uint64_t itemTag;
        if (!floors::readVarint(inner, itemTag)) fail("hand pass: bad tag");
        const uint64_t field = itemTag >> 3;
        if (field < 11 && !itemSeen[field]) {
          uint64_t value = 0;
          switch (itemTag) {
            case 8:  // id
              floors::readVarint(inner, value);
              v.bits[3] = value;
              itemSeen[field] = true;
              continue;
            case 25:  // price
              if (inner.end - inner.p < 8) fail("hand pass: bad price");
              std::memcpy(&value, inner.p, 8);
              inner.p += 8;
              v.bits[4] = value;
              itemSeen[field] = true;
              continue;
            case 64:  // active
              floors::readVarint(inner, value);
              v.bits[5] = value != 0;
              itemSeen[field] = true;
              continue;
            case 72:  // delta, zigzag
              floors::readVarint(inner, value);
              v.bits[6] = (value >> 1) ^ (0 - (value & 1));
              itemSeen[field] = true;
              continue;
            case 85: {  // flags
              uint32_t flags;
              if (inner.end - inner.p < 4) fail("hand pass: bad flags");
              std::memcpy(&flags, inner.p, 4);
              inner.p += 4;
              v.bits[7] = flags;
              itemSeen[field] = true;
              continue;
            }
            default:
              break;
          }
        }
        if (!floors::skipValue(inner, itemTag)) fail("hand pass: bad field");
      }
      continue;
    }
    if (tag == 88 && !seen[3]) {
      seen[3] = true;
      floors::readVarint(c, v.bits[8]);
      continue;
    }
    if (number == 1000 && !seen[4]) {
      seen[4] = true;
      if (!payload(c, tag, inner)) fail("hand pass: bad tail");
      walkMid(inner, &v.bits[9], nullptr);
      continue;
    }
    if (!floors::skipValue(c, tag)) fail("hand pass: bad field");
  }
  return v.fold();
}

// The library's stream API: every record of the stream split off and projected.
uint64_t ordersByProjection(Many& many) {
  RecordSource records = RecordSource::delimited(asBytes(many.stream));
  uint64_t sum = 0;
  while (const std::optional<ByteView> record = records.next()) {
    many.orders.read(*record, many.orderRow);
    const ProjectionRow& row = many.orderRow;
    sum += row.uint64Value(0).value_or(0) + row.payload(1).value_or(ByteView()).size() +
           static_cast<uint64_t>(row.int64Value(2).value_or(0));
  }
  return sum;
}

// Splits the frames of the stream with the hand-written varint reader; the number of frames.
template <typename Frame>
int64_t forEachFrame(std::string_view stream, const Frame& frame) {
  floors::Cursor c(stream);
  int64_t count = 0;
  while (c.p < c.end) {
    uint64_t length;
    if (!floors::readVarint(c, length) || length > static_cast<uint64_t>(c.end - c.p)) {
      fail("frame scan: bad length prefix");
    }
    frame(c.p, static_cast<int>(length));
    c.p += length;
    ++count;
  }
  return count;
}

int64_t framesOnly(const Many& many) {
  return forEachFrame(many.stream, [](const uint8_t*, int) {});
}

uint64_t ordersByReflection(Many& many, Peer& peer, pb::Message& order) {
  const pb::Descriptor* d = order.GetDescriptor();
  const pb::FieldDescriptor* id = d->FindFieldByNumber(1);
  const pb::FieldDescriptor* customer = d->FindFieldByNumber(2);
  const pb::FieldDescriptor* items = d->FindFieldByNumber(3);
  const pb::FieldDescriptor* name = customer->message_type()->FindFieldByNumber(2);
  const pb::FieldDescriptor* price = items->message_type()->FindFieldByNumber(3);
  (void)peer;
  uint64_t sum = 0;
  std::string scratch;
  forEachFrame(many.stream, [&](const uint8_t* p, int size) {
    if (!order.ParseFromArray(p, size)) fail("DynamicMessage parse of an order failed");
    const pb::Reflection* r = order.GetReflection();
    sum += r->GetUInt64(order, id);
    const pb::Message& c = r->GetMessage(order, customer);
    sum += c.GetReflection()->GetStringReference(c, name, &scratch).size();
    if (r->FieldSize(order, items) > 0) {
      const pb::Message& item = r->GetRepeatedMessage(order, items, 0);
      sum += static_cast<uint64_t>(item.GetReflection()->GetInt64(item, price));
    }
  });
  return sum;
}

void checkMany(Many& many, const Ours& ours, Peer& peer, const Workload& w, pb::Message& order) {
  const uint64_t expected = tenByReflection(peer, w);
  expectEqual("ten paths, projection", tenByProjection(many, w), expected);
  expectEqual("ten paths, single reads", tenBySingleReads(many, ours), expected);
  expectEqual("ten paths, hand-written pass", tenByHand(w), expected);
  expectEqual("order stream, projection", ordersByProjection(many),
              ordersByReflection(many, peer, order));
  expectEqual("order stream, frames", framesOnly(many), many.recordCount);
  // The projection of a record allocates nothing for its scalars and strings.
  tenByProjection(many, w);
  AllocationScope scope;
  tenByProjection(many, w);
  ordersByProjection(many);
  if (scope.count() != 0) {
    fail("projection reads allocated " + std::to_string(scope.count()) + " times (allowed: 0)");
  }
}

// Registers `body` as a benchmark whose every iteration must give `expected`; checked after the
// timed loop, so that the check costs nothing per iteration.
template <typename T, typename Body>
void add(const std::string& name, T expected, Body body) {
  benchmark::RegisterBenchmark(name.c_str(), [name, expected, body](benchmark::State& state) {
    std::optional<T> last;
    for (auto _ : state) {
      T value = body();
      // The const overload: Google Benchmark 1.7's read-write form ("+m,r") lets GCC hand the
      // asm a register and read the result back from memory, so `value` came back as garbage
      // (seen as a stack address under -O1 with the sanitizers).
      benchmark::DoNotOptimize(std::as_const(value));
      last = std::move(value);
    }
    if (!last) fail(name + ": the timed loop never ran");
    expectEqual(name + ", timed loop", *last, expected);
  });
}

void registerManyBenchmarks(const Workload& w, const Ours& ours, Peer& peer, Many& many,
                            pb::Message& order) {
  const uint64_t ten = tenByHand(w);
  add("Floor/HandPass/ten/1KB", ten, [&w] { return tenByHand(w); });
  // The bare wire scan of the same record: every top-level field stepped over, nothing decoded.
  add("Floor/SkipAllFields/1KB", floors::skipAllFields(w.small),
      [&w] { return floors::skipAllFields(w.small); });
  add("Ostrel/Projection/ten/1KB", ten, [&w, &many] { return tenByProjection(many, w); });
  add("Ostrel/ReadPreResolved/ten/1KB", ten,
      [&ours, &many] { return tenBySingleReads(many, ours); });
  add("Protobuf/DynamicParseReflect/ten/1KB", ten,
      [&w, &peer] { return tenByReflection(peer, w); });
  const uint64_t orders = ordersByProjection(many);
  const std::string n = many.recordCount == 1000000 ? "1M" : std::to_string(many.recordCount);
  add("Floor/FrameScan/orders/" + n, many.recordCount, [&many] { return framesOnly(many); });
  add("Ostrel/StreamProjection/orders/" + n, orders, [&many] { return ordersByProjection(many); });
  add("Protobuf/DynamicParseReflect/orders/" + n, orders,
      [&many, &peer, &order] { return ordersByReflection(many, peer, order); });
}

void registerBenchmarks(const Workload& w, Ours& ours, Peer& peer, bool smoke) {
  const auto frontU = static_cast<uint64_t>(kFrontId);
  const auto tailU = static_cast<uint64_t>(kTailId);

  // Floors.
  auto copy = std::make_shared<std::string>(w.large.size(), '\0');
  add("Floor/memcpy/1MB", w.large.size(), [&w, copy] {
    std::memcpy(copy->data(), w.large.data(), w.large.size());
    benchmark::ClobberMemory();
    return copy->size();
  });
  // The rendering's own limit: copying its output.
  const auto json = std::make_shared<std::string>(renderOurs(ours.large));
  auto jsonCopy = std::make_shared<std::string>(json->size(), '\0');
  add("Floor/memcpy/json", json->size(), [json, jsonCopy] {
    std::memcpy(jsonCopy->data(), json->data(), json->size());
    benchmark::ClobberMemory();
    return jsonCopy->size();
  });
  add("Floor/SkipAllFields/1MB", floors::skipAllFields(w.large),
      [&w] { return floors::skipAllFields(w.large); });
  add("Floor/SkipAllFields/dense", floors::skipAllFields(w.dense),
      [&w] { return floors::skipAllFields(w.dense); });
  add("Floor/HandRead/front/1MB", frontU,
      [&w] { return floors::readVarintAtPath(w.large, kFrontPath).value_or(0); });
  add("Floor/HandRead/tail/1MB", tailU,
      [&w] { return floors::readVarintAtPath(w.large, kTailPath).value_or(0); });
  add("Floor/HandRead/tail/dense", tailU,
      [&w] { return floors::readVarintAtPath(w.dense, kTailPath).value_or(0); });
  add("Floor/PackedDecodeAll/100k", handDecodePacked(w), [&w] { return handDecodePacked(w); });
  add("Floor/PackedDecodeK/50000", w.packedValues[kPackedIndex],
      [&w] { return handPackedElement(w).value_or(-1); });

  // Ostrel.
  add("Ostrel/ReadPreResolved/front/1MB", kFrontId,
      [&ours] { return int64Of(ours.large.value(ours.front), "front"); });
  add("Ostrel/ReadBorrowed/front/1MB", kFrontId, [&ours] { return borrowedFrontId(ours); });
  // The same read with protobuf's parse semantics: every message on the path read to its end.
  add("Ostrel/ReadExact/front/1MB", kFrontId,
      [&ours] { return int64Of(ours.large.value(ours.front, ReadMode::exact), "front"); });
  add("Ostrel/ReadTyped/front/1MB", kFrontId,
      [&ours] { return readInt64(ours.large.bytes(), ours.front).value_or(0); });
  add("Ostrel/ReadPreResolved/front/1KB", kFrontId,
      [&ours] { return int64Of(ours.small.value(ours.front), "front"); });
  add("Ostrel/ReadPropertyPath/front/1MB", kFrontId,
      [&ours] { return int64Of(ours.large.value("mid.leaf.id"), "front"); });
  add("Ostrel/ReadPreResolved/tail/1MB", kTailId,
      [&ours] { return int64Of(ours.large.value(ours.tail), "tail"); });
  add("Ostrel/ReadPreResolved/tail/dense", kTailId,
      [&ours] { return int64Of(ours.dense.value(ours.tail), "tail"); });
  add("Ostrel/IteratePacked/100k", handDecodePacked(w), [&ours] { return iteratePacked(ours); });
  add("Ostrel/ReadPreResolved/ints[50000]", w.packedValues[kPackedIndex],
      [&ours] { return oursPackedElement(ours); });
  const size_t largeJson = renderOurs(ours.large).size();
  const size_t smallJson = renderOurs(ours.small).size();
  add("Ostrel/RenderJSON/1MB", largeJson, [&ours] { return renderOurs(ours.large).size(); });
  add("Ostrel/RenderJSON/1KB", smallJson, [&ours] { return renderOurs(ours.small).size(); });
  const size_t eventsJson = renderOurs(ours.events).size();
  add("Ostrel/RenderJSON/events", eventsJson, [&ours] { return renderOurs(ours.events).size(); });
  const size_t descriptorMessages = importOurs(w).messages.size();
  add("Ostrel/ImportDescriptorSet/descriptor.proto", descriptorMessages,
      [&w] { return importOurs(w).messages.size(); });
  benchmark::RegisterBenchmark("Ostrel/Allocations/typed", [&ours](benchmark::State& state) {
    int64_t allocations = 0;
    for (auto _ : state) {
      AllocationScope scope;
      std::optional<int64_t> value = readInt64(ours.large.bytes(), ours.front);
      allocations += scope.count();
      benchmark::DoNotOptimize(value);
    }
    state.counters["allocs"] =
        benchmark::Counter(static_cast<double>(allocations), benchmark::Counter::kAvgIterations);
  });
  for (const auto& [name, path] :
       {std::pair{"scalar", &ours.front}, std::pair{"string", &ours.label}}) {
    benchmark::RegisterBenchmark((std::string("Ostrel/Allocations/") + name).c_str(),
                                 [&ours, path = path](benchmark::State& state) {
                                   int64_t allocations = 0;
                                   for (auto _ : state) {
                                     AllocationScope scope;
                                     std::optional<AnyValue> value = ours.large.value(*path);
                                     allocations += scope.count();
                                     benchmark::DoNotOptimize(value);
                                   }
                                   state.counters["allocs"] =
                                       benchmark::Counter(static_cast<double>(allocations),
                                                          benchmark::Counter::kAvgIterations);
                                 });
  }

  // libprotobuf, cheap enough for every run.
  add("Protobuf/DynamicParseReflect/1KB", kFrontId,
      [&w, &peer] { return peer.parseAndReadId(w.small, peer.midField); });
  add("Protobuf/GeneratedParseAccess/1KB", kFrontId, [&w, &peer] {
    peer.generated.ParseFromString(w.small);
    return peer.generated.mid().leaf().id();
  });
  add("Protobuf/BinaryToJsonString/1KB", peer.binaryToJson(w.small).size(),
      [&w, &peer] { return peer.binaryToJson(w.small).size(); });
  add("Protobuf/ReflectByName/parsed", kFrontId, [&peer] { return reflectByName(*peer.parsed); });
  add("Protobuf/ParseAndTypedImport/descriptor.proto", descriptorMessages,
      [&w, set = std::make_shared<pb::FileDescriptorSet>()] {
        return importTyped(w, *set).messages.size();
      });
  if (smoke) return;

  // libprotobuf over the 1 MB messages: milliseconds per iteration.
  add("Protobuf/DynamicParseReflect/1MB", kFrontId,
      [&w, &peer] { return peer.parseAndReadId(w.large, peer.midField); });
  add("Protobuf/DynamicParseReflect/tail/dense", kTailId,
      [&w, &peer] { return peer.parseAndReadId(w.dense, peer.tailField); });
  add("Protobuf/GeneratedParseAccess/1MB", kFrontId, [&w, &peer] {
    peer.generated.ParseFromString(w.large);
    return peer.generated.mid().leaf().id();
  });
  add("Protobuf/BinaryToJsonString/1MB", peer.binaryToJson(w.large).size(),
      [&w, &peer] { return peer.binaryToJson(w.large).size(); });
  add("Protobuf/DynamicParseToJson/1MB", peer.parseToJson(w.large).size(),
      [&w, &peer] { return peer.parseToJson(w.large).size(); });
  add("Protobuf/BinaryToJsonString/events", peer.binaryToJson(w.events, &peer.eventsUrl).size(),
      [&w, &peer] { return peer.binaryToJson(w.events, &peer.eventsUrl).size(); });
  add("Protobuf/DynamicParseToJson/events", peer.parseToJson(w.events, peer.events.get()).size(),
      [&w, &peer] { return peer.parseToJson(w.events, peer.events.get()).size(); });
}

std::vector<RatioTarget> ratioTargets(const std::string& records) {
  using B = RatioTarget::Bound;
  return {
      {"1c", "depth-3 scalar near front, typed read (readInt64), vs hand-written read",
       "Ostrel/ReadTyped/front/1MB", "Floor/HandRead/front/1MB", B::oursAtMost, 1.5},
      {"8a", "10 leaf paths of 1 KB: projection vs 10 pre-resolved single reads (speedup)",
       "Ostrel/Projection/ten/1KB", "Ostrel/ReadPreResolved/ten/1KB", B::speedupAtLeast, 3},
      {"8b", "10 leaf paths of 1 KB: projection vs DynamicMessage parse + reflection (speedup)",
       "Ostrel/Projection/ten/1KB", "Protobuf/DynamicParseReflect/ten/1KB", B::speedupAtLeast, 10},
      {"8c", "10 leaf paths of 1 KB: projection vs hand-written single pass",
       "Ostrel/Projection/ten/1KB", "Floor/HandPass/ten/1KB", B::oursAtMost, 1.5},
      {"9a", "delimited order stream, 3 paths each: projection vs DynamicMessage loop (speedup)",
       "Ostrel/StreamProjection/orders/" + records,
       "Protobuf/DynamicParseReflect/orders/" + records, B::speedupAtLeast, 5},
      {"9b", "delimited order stream, 3 paths each: projection vs bare frame scan",
       "Ostrel/StreamProjection/orders/" + records, "Floor/FrameScan/orders/" + records,
       B::oursAtMost, 2},
      {"1a", "depth-3 scalar near front, pre-resolved, vs hand-written read",
       "Ostrel/ReadPreResolved/front/1MB", "Floor/HandRead/front/1MB", B::oursAtMost, 2},
      {"1d", "depth-3 scalar near front of 1 MB: exact read vs the default (first-occurrence) read",
       "Ostrel/ReadExact/front/1MB", "Ostrel/ReadPreResolved/front/1MB", B::report, 0},
      {"1b", "same read vs DynamicMessage parse + reflection (speedup)",
       "Ostrel/ReadPreResolved/front/1MB", "Protobuf/DynamicParseReflect/1MB", B::speedupAtLeast,
       10000},
      {"2", "property path text \"mid.leaf.id\" vs reflection by name (speedup)",
       "Ostrel/ReadPropertyPath/front/1MB", "Protobuf/ReflectByName/parsed", B::speedupAtLeast, 1},
      {"3a", "depth-3 scalar at the end, 1 MB, vs hand-written scan",
       "Ostrel/ReadPreResolved/tail/1MB", "Floor/HandRead/tail/1MB", B::oursAtMost, 1.5},
      {"3b", "depth-3 scalar at the end, dense 1 MB, vs hand-written scan",
       "Ostrel/ReadPreResolved/tail/dense", "Floor/HandRead/tail/dense", B::oursAtMost, 1.5},
      {"4a", "iterate packed int32 run of 100k vs hand-written decode loop",
       "Ostrel/IteratePacked/100k", "Floor/PackedDecodeAll/100k", B::oursAtMost, 1.5},
      {"4b", "packed element k=50000 by index vs decoding k varints",
       "Ostrel/ReadPreResolved/ints[50000]", "Floor/PackedDecodeK/50000", B::oursAtMost, 2},
      {"5a", "JSON of 1 MB vs BinaryToJsonString, cached resolver (speedup)",
       "Ostrel/RenderJSON/1MB", "Protobuf/BinaryToJsonString/1MB", B::speedupAtLeast, 6},
      {"5b", "JSON of 1 MB vs DynamicMessage parse + MessageToJsonString", "Ostrel/RenderJSON/1MB",
       "Protobuf/DynamicParseToJson/1MB", B::speedupAtLeast, 12},
      {"5c", "JSON of 1 MB of well-known types vs BinaryToJsonString (speedup)",
       "Ostrel/RenderJSON/events", "Protobuf/BinaryToJsonString/events", B::speedupAtLeast, 2},
      {"5d", "JSON of 1 MB of well-known types vs DynamicMessage + MessageToJsonString",
       "Ostrel/RenderJSON/events", "Protobuf/DynamicParseToJson/events", B::speedupAtLeast, 4},
      {"5e", "JSON of 1 MB vs a memcpy of its output (distance to the limit)",
       "Ostrel/RenderJSON/1MB", "Floor/memcpy/json", B::report, 0},
      {"6", "import descriptor.proto's set vs ParseFromString + typed import",
       "Ostrel/ImportDescriptorSet/descriptor.proto",
       "Protobuf/ParseAndTypedImport/descriptor.proto", B::oursAtMost, 2},
  };
}

// Takes our own flags out of argv before Google Benchmark sees (and rejects) them.
bool takeFlag(int& argc, char** argv, std::string_view flag) {
  bool found = false;
  int out = 1;
  for (int i = 1; i < argc; ++i) {
    if (flag == argv[i]) {
      found = true;
    } else {
      argv[out++] = argv[i];
    }
  }
  argc = out;
  return found;
}

}  // namespace
}  // namespace ostrel::bench

int main(int argc, char** argv) {
  using namespace ostrel::bench;
  const bool smoke = takeFlag(argc, argv, "--ostrel_smoke");
  const bool growthSmall = takeFlag(argc, argv, "--ostrel_growth_small");
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
#if !defined(__OPTIMIZE__) || !defined(NDEBUG)
  std::printf("warning: built without optimisation or with assertions; times mean little\n");
#endif

  const Workload workload;
  Ours ours(workload);
  Peer peer(workload);
  std::printf(
      "workload: 1 KB message %zu bytes, 1 MB message %zu bytes, dense message %zu bytes "
      "(%zu tiny fields), packed run message %zu bytes (%zu varints)\n",
      workload.small.size(), workload.large.size(), workload.dense.size(),
      workload.denseCounts.total(), workload.packed.size(), workload.packedValues.size());

  const AllocationCounts allocations = runSelfChecks(workload, ours, peer);
  Many many(ours, smoke);
  std::unique_ptr<pb::Message> order(
      peer.factory.GetPrototype(peer.pool.FindMessageTypeByName("ostrel.bench.ShopOrder"))->New());
  checkMany(many, ours, peer, workload, *order);
  const int64_t typedAllocations = [&] {
    readInt64(ours.large.bytes(), ours.front);
    std::optional<int64_t> value;
    int64_t count = 0;
    {
      AllocationScope scope;
      value = readInt64(ours.large.bytes(), ours.front);
      count = scope.count();
    }
    // Outside the scope: the check's own message is a heap string.
    expectEqual("front id, typed read", value.value_or(0), kFrontId);
    return count;
  }();
  std::printf(
      "self-checks passed: every benchmark's answer equals its peer's; allocations per "
      "pre-resolved read: scalar %lld, string %lld\n",
      static_cast<long long>(allocations.scalar), static_cast<long long>(allocations.string));
  std::fflush(stdout);

  registerBenchmarks(workload, ours, peer, smoke);
  registerManyBenchmarks(workload, ours, peer, many, *order);
  registerGrowthBenchmarks(growthSmall);
  const std::string largeJson = renderOurs(ours.large);
  registerJsonEncodingBenchmarks(ours.schema, workload.benchDescriptorSet, workload.large,
                                 largeJson, smoke);
  std::vector<RatioTarget> targets =
      ratioTargets(many.recordCount == 1000000 ? "1M" : std::to_string(many.recordCount));
  for (RatioTarget& target : jsonEncodingTargets()) targets.push_back(std::move(target));
  TargetReporter reporter(std::move(targets),
                          {{"7a", "heap allocations, scalar read through a pre-resolved path",
                            "Ostrel/Allocations/scalar", 0, allocations.scalar},
                           {"7b", "heap allocations, string read through a pre-resolved path",
                            "Ostrel/Allocations/string", 1, allocations.string},
                           {"7c", "heap allocations, typed scalar read (readInt64)",
                            "Ostrel/Allocations/typed", 0, typedAllocations}});
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
