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
// t.Node nests itself. Every singular field has presence.
inline SchemaManifest sampleManifest() {
  SchemaManifest manifest = schemaManifestFromProtoText(R"(syntax = "proto2";
    package t;
    enum Kind { ZERO = 0; ONE = 1; }
    message Sample {
      optional int32 i32 = 1; optional int64 i64 = 2; optional uint32 u32 = 3;
      optional uint64 u64 = 4; optional sint32 s32 = 5; optional sint64 s64 = 6;
      optional fixed32 f32 = 7; optional fixed64 f64 = 8; optional sfixed32 sf32 = 9;
      optional sfixed64 sf64 = 10; optional float fl = 11; optional double db = 12;
      optional bool b = 13; optional string s = 14; optional bytes by = 15;
      optional Kind e = 16;
      optional Sample child = 17;
      repeated int32 ri = 18;
      repeated string rs = 19;
      repeated Sample rm = 20;
      map<string, int64> sm = 21;
      map<bool, Kind> bm = 22;
      map<int32, Sample> im = 23;
      repeated float rf = 24;
      repeated Kind re = 25;
      message Pair { optional string key = 1; optional int32 value = 2; }
      repeated Pair pairs = 27;
      oneof pick { int32 o1 = 28; Sample o2 = 29; }
    }
    message Node { optional Node child = 1; optional int32 value = 2; })");
  // Its enums are open, as proto3's are.
  for (auto& [name, message] : manifest.messages) {
    for (auto& [fieldName, field] : message.fields) field.closedEnum = false;
  }
  manifest.messages["t.Sample"].fields["missing"] = {
      .type = TypeManifest::message, .typeName = "t.Missing", .fieldNumber = 26};
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
