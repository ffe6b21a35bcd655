#pragma once

// What the JSON rendering and encoding tests share: schemas written by hand and loaded from the
// compiled test protos, and a log capture.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ostrel/core/logging.hpp"
#include "ostrel/manifest/manifest_data.hpp"
#include "ostrel/store/schemas.hpp"
#include "support/test_support.hpp"
#include "support/wire.hpp"

namespace ostrel::testing_support {

// t.Sample has a field of every type (numbers 1 to 15 in the order below), repeated fields, three
// maps, a repeated message that is not a map and a field whose message type the store lacks;
// t.Node nests itself.
inline SchemaManifest sampleManifest() {
  using T = TypeManifest;
  SchemaManifest manifest;
  manifest.enums["t.Kind"].values = {{"ZERO", 0}, {"ONE", 1}};
  auto& fields = manifest.messages["t.Sample"].fields;
  const std::pair<const char*, T> scalars[] = {
      {"i32", T::int32},     {"i64", T::int64},     {"u32", T::uint32},  {"u64", T::uint64},
      {"s32", T::sint32},    {"s64", T::sint64},    {"f32", T::fixed32}, {"f64", T::fixed64},
      {"sf32", T::sfixed32}, {"sf64", T::sfixed64}, {"fl", T::float_},   {"db", T::double_},
      {"b", T::bool_},       {"s", T::string},      {"by", T::bytes}};
  int64_t number = 0;
  for (const auto& [name, type] : scalars) fields[name] = {.type = type, .fieldNumber = ++number};
  const auto field = [&](const char* name, T type, std::optional<std::string> typeName, int64_t n,
                         bool repeated) {
    fields[name] = {
        .type = type, .typeName = std::move(typeName), .fieldNumber = n, .isRepeated = repeated};
  };
  field("e", T::enum_, "t.Kind", 16, false);
  field("child", T::message, "t.Sample", 17, false);
  field("ri", T::int32, {}, 18, true);
  field("rs", T::string, {}, 19, true);
  field("rm", T::message, "t.Sample", 20, true);
  field("sm", T::message, "t.Sample.SmEntry", 21, true);
  field("bm", T::message, "t.Sample.BmEntry", 22, true);
  field("im", T::message, "t.Sample.ImEntry", 23, true);
  field("rf", T::float_, {}, 24, true);
  field("re", T::enum_, "t.Kind", 25, true);
  field("missing", T::message, "t.Missing", 26, false);
  field("pairs", T::message, "t.Sample.Pair", 27, true);
  manifest.messages["t.Sample"].oneofs = {{.name = "pick"}};
  fields["o1"] = {.type = T::int32, .fieldNumber = 28, .oneofIndex = 0};
  fields["o2"] = {.type = T::message, .typeName = "t.Sample", .fieldNumber = 29, .oneofIndex = 0};

  const auto entry = [&](const char* name, FieldManifest key, FieldManifest value, bool isMap) {
    MessageManifest& message = manifest.messages[name];
    key.fieldNumber = 1;
    value.fieldNumber = 2;
    message.fields["key"] = key;
    message.fields["value"] = value;
    // Raw MessageOptions with map_entry (field 7) set.
    if (isMap) message.options = Bytes{std::byte{0x38}, std::byte{0x01}};
  };
  entry("t.Sample.SmEntry", {.type = T::string}, {.type = T::int64}, true);
  entry("t.Sample.BmEntry", {.type = T::bool_}, {.type = T::enum_, .typeName = "t.Kind"}, true);
  entry("t.Sample.ImEntry", {.type = T::int32}, {.type = T::message, .typeName = "t.Sample"}, true);
  entry("t.Sample.Pair", {.type = T::string}, {.type = T::int32}, false);

  auto& node = manifest.messages["t.Node"].fields;
  node["child"] = {.type = T::message, .typeName = "t.Node", .fieldNumber = 1};
  node["value"] = {.type = T::int32, .fieldNumber = 2};
  return manifest;
}

// Collects what the library logs while alive; restores syslog when it ends.
struct LogCapture {
  LogCapture() {
    setLogHandler([this](std::string_view message) { lines.emplace_back(message); });
  }
  ~LogCapture() { setLogHandler(nullptr); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;
  std::vector<std::string> lines;
};

}  // namespace ostrel::testing_support
