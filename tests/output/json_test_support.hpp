#pragma once

// What the JSON rendering and encoding tests share: schemas written by hand and loaded from the
// compiled test protos, a small wire encoder for hand-made bytes, and a log capture.

#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "ostrel/core/logging.hpp"
#include "ostrel/manifest/manifest_data.hpp"
#include "ostrel/store/schemas.hpp"
#include "support/wire.hpp"

namespace ostrel::testing_support {

// Raw MessageOptions with map_entry (field 7) set.
inline Bytes mapEntryOptions() { return Bytes{std::byte{0x38}, std::byte{0x01}}; }

// t.Sample has a field of every type, repeated fields, three maps and a field whose message type
// the store lacks; t.Node nests itself.
inline SchemaManifest sampleManifest() {
  using T = TypeManifest;
  SchemaManifest manifest;
  manifest.enums["t.Kind"].values = {{"ZERO", 0}, {"ONE", 1}};
  MessageManifest& sample = manifest.messages["t.Sample"];
  const auto scalar = [&](const char* name, T type, int64_t number, bool repeated = false) {
    sample.fields[name] = {.type = type, .fieldNumber = number, .isRepeated = repeated};
  };
  scalar("i32", T::int32, 1);
  scalar("i64", T::int64, 2);
  scalar("u32", T::uint32, 3);
  scalar("u64", T::uint64, 4);
  scalar("s32", T::sint32, 5);
  scalar("s64", T::sint64, 6);
  scalar("f32", T::fixed32, 7);
  scalar("f64", T::fixed64, 8);
  scalar("sf32", T::sfixed32, 9);
  scalar("sf64", T::sfixed64, 10);
  scalar("fl", T::float_, 11);
  scalar("db", T::double_, 12);
  scalar("b", T::bool_, 13);
  scalar("s", T::string, 14);
  scalar("by", T::bytes, 15);
  sample.fields["e"] = {.type = T::enum_, .typeName = "t.Kind", .fieldNumber = 16};
  sample.fields["child"] = {.type = T::message, .typeName = "t.Sample", .fieldNumber = 17};
  scalar("ri", T::int32, 18, true);
  scalar("rs", T::string, 19, true);
  sample.fields["rm"] = {
      .type = T::message, .typeName = "t.Sample", .fieldNumber = 20, .isRepeated = true};
  sample.fields["sm"] = {
      .type = T::message, .typeName = "t.Sample.SmEntry", .fieldNumber = 21, .isRepeated = true};
  sample.fields["bm"] = {
      .type = T::message, .typeName = "t.Sample.BmEntry", .fieldNumber = 22, .isRepeated = true};
  sample.fields["im"] = {
      .type = T::message, .typeName = "t.Sample.ImEntry", .fieldNumber = 23, .isRepeated = true};
  scalar("rf", T::float_, 24, true);
  sample.fields["re"] = {
      .type = T::enum_, .typeName = "t.Kind", .fieldNumber = 25, .isRepeated = true};
  sample.fields["missing"] = {.type = T::message, .typeName = "t.Missing", .fieldNumber = 26};
  // Repeated entries of a message without map_entry: an ordinary repeated field.
  sample.fields["pairs"] = {
      .type = T::message, .typeName = "t.Sample.Pair", .fieldNumber = 27, .isRepeated = true};

  const auto entry = [&](const char* name, FieldManifest key, FieldManifest value, bool isMap) {
    MessageManifest& message = manifest.messages[name];
    key.fieldNumber = 1;
    value.fieldNumber = 2;
    message.fields["key"] = key;
    message.fields["value"] = value;
    if (isMap) message.options = mapEntryOptions();
  };
  entry("t.Sample.SmEntry", {.type = T::string}, {.type = T::int64}, true);
  entry("t.Sample.BmEntry", {.type = T::bool_}, {.type = T::enum_, .typeName = "t.Kind"}, true);
  entry("t.Sample.ImEntry", {.type = T::int32}, {.type = T::message, .typeName = "t.Sample"}, true);
  entry("t.Sample.Pair", {.type = T::string}, {.type = T::int32}, false);

  MessageManifest& node = manifest.messages["t.Node"];
  node.fields["child"] = {.type = T::message, .typeName = "t.Node", .fieldNumber = 1};
  node.fields["value"] = {.type = T::int32, .fieldNumber = 2};
  return manifest;
}

inline std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

// The schemas of the compiled test protos, as protoc wrote them.
inline SchemaManifest generatedManifest(const std::string& descriptorSet) {
  const std::string bytes = readFile(std::string(OSTREL_TEST_GENERATED) + "/" + descriptorSet);
  return schemaManifestFromDescriptorSet(asBytes(bytes));
}

// Collects what the library logs while alive; restores syslog when it ends.
class LogCapture {
 public:
  LogCapture() {
    setLogHandler([this](std::string_view message) { lines_.emplace_back(message); });
  }
  ~LogCapture() { setLogHandler(nullptr); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  const std::vector<std::string>& lines() const { return lines_; }
  void clear() { lines_.clear(); }

 private:
  std::vector<std::string> lines_;
};

}  // namespace ostrel::testing_support
