#pragma once

// What the fuzz targets share: how a failure is told from a finding, the rich test schema, and the
// walk over a whole store that the schema-importing targets end with.
//
// A target passes every ostrel::Error: refusing malformed input with a thrown error is the
// library's contract. Anything else is a finding, reported by letting it reach the fuzzing engine:
// another exception type escapes (std::terminate), a broken invariant aborts, and the sanitizers
// report memory errors, undefined behaviour and leaks themselves.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <string_view>

#include "ostrel/ostrel.hpp"

namespace ostrel::fuzz {

// Runs `step`; false when it threw an ostrel::Error, which ends the step and nothing else.
template <typename Step>
bool tolerate(Step&& step) {
  try {
    step();
    return true;
  } catch (const Error&) {
    return false;
  }
}

// A broken invariant: stops the process so that the engine keeps the input.
[[noreturn]] inline void finding(std::string_view what) {
  std::fprintf(stderr, "finding: %.*s\n", static_cast<int>(what.size()), what.data());
  std::abort();
}

inline std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) finding("cannot open " + path);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

// The store of tests/data/rich.proto, compiled by protoc at build time. Every schema in it is
// materialised up front, so that the store no longer changes from one input to the next and a
// crash found late in a run replays alone.
inline const SchemaStore& richStore() {
  static const SchemaStore store = [] {
    SchemaStore made(schemaManifestFromDescriptorSet(asBytes(readFile(OSTREL_FUZZ_RICH_DESC))));
    for (const std::string& name : made.messageSchemaNames()) {
      const MessageSchema schema = made.messageSchema(name);
      for (const auto& [number, field] : schema.fieldsByNumber()) field.type();
      schema.allOneofs();
    }
    return made;
  }();
  return store;
}

inline MessageSchema richSchema() { return richStore().messageSchema("ostrel.test.Rich"); }

// Whether a message of the manifest declares two oneofs of one name. The store stops the process
// when it creates such a message (a documented precondition, not a fault of input bytes), so the
// targets leave these manifests out rather than let the stop pass for a crash.
inline bool hasDuplicateOneofNames(const SchemaManifest& manifest) {
  for (const auto& [name, message] : manifest.messages) {
    std::set<std::string_view> seen;
    for (const OneofManifest& oneof : message.oneofs) {
      if (!seen.insert(oneof.name).second) return true;
    }
  }
  return false;
}

// A minimal encoder for the small messages the targets make up.
class Wire {
 public:
  void varint(uint64_t value) {
    while (value >= 0x80) {
      bytes_.push_back(static_cast<std::byte>(value | 0x80));
      value >>= 7;
    }
    bytes_.push_back(static_cast<std::byte>(value));
  }
  void tag(int64_t number, ProtoWireType type) {
    varint(static_cast<uint64_t>(number) << 3 | static_cast<uint64_t>(type));
  }
  void raw(std::string_view text) {
    const ByteView view = asBytes(text);
    bytes_.insert(bytes_.end(), view.begin(), view.end());
  }
  const Bytes& bytes() const { return bytes_; }

 private:
  Bytes bytes_;
};

// One occurrence of every field of `schema` (two for a repeated scalar: a packed run and a single
// element), each with a small value of its wire type. A field whose type does not resolve gets a
// length-delimited value, which is what the rendering then reports it cannot read.
inline Bytes smallMessage(const MessageSchema& schema) {
  using Case = TypeSchema::Case;
  Wire wire;
  int count = 0;
  // Clang 14 cannot capture structured bindings in lambdas, hence the plain names.
  for (const auto& entry : schema.fieldsByNumber()) {
    const int64_t number = entry.first;
    const FieldSchema& field = entry.second;
    if (++count > 64) break;
    std::optional<Case> kind;
    tolerate([&] { kind = field.type().kind(); });
    const ProtoWireType wireType = kind ? ostrel::wireType(*kind) : ProtoWireType::lengthDelimited;
    const auto element = [&] {
      switch (wireType) {
        case ProtoWireType::fixed32:
          wire.raw(std::string_view("\x01\0\0\0", 4));
          break;
        case ProtoWireType::fixed64:
          wire.raw(std::string_view("\x01\0\0\0\0\0\0\0", 8));
          break;
        default:
          wire.varint(1);
          break;
      }
    };
    if (wireType == ProtoWireType::lengthDelimited) {
      wire.tag(number, wireType);
      wire.varint(1);
      wire.raw("x");
      continue;
    }
    if (field.isRepeated()) {
      wire.tag(number, ProtoWireType::lengthDelimited);
      wire.varint(wireType == ProtoWireType::fixed32   ? 4
                  : wireType == ProtoWireType::fixed64 ? 8
                                                       : 1);
      element();
    }
    wire.tag(number, wireType);
    element();
  }
  return wire.bytes();
}

// Everything a caller does with a new store: every message looked up, its fields' types resolved,
// its oneofs and enums read, an empty and a small message rendered and read by field name, and
// the store's manifests taken back out. Every step may fail with an ostrel::Error (a type name the
// store lacks, a field that cannot be materialised), and a failure ends that step only.
inline void exerciseStore(const SchemaManifest& manifest) {
  std::optional<SchemaStore> made;
  if (!tolerate([&] { made.emplace(manifest); })) return;
  const SchemaStore& store = *made;
  for (const std::string& name : store.messageSchemaNames()) {
    std::optional<MessageSchema> schema;
    if (!tolerate([&] { schema.emplace(store.messageSchema(name)); })) continue;
    tolerate([&] {
      for (const auto& entry : schema->fieldsByNumber()) {
        const int64_t number = entry.first;
        const FieldSchema& field = entry.second;
        tolerate([&] { (void)field.type().descriptionText(); });
        tolerate([&] { (void)schema->fieldWithNumber(number); });
      }
    });
    for (const std::string& fieldName : schema->allFieldNames()) {
      tolerate([&] {
        if (!schema->findFieldNamed(fieldName)) finding("a listed field is not found by name");
      });
    }
    tolerate([&] {
      for (const OneofSchema& oneof : schema->allOneofs()) {
        for (const int64_t number : oneof.allFieldNumbers()) {
          tolerate([&] { oneof.fieldNumberNamed(oneof.fieldNameFor(number)); });
        }
      }
    });
    tolerate([&] {
      if (schema->options()) (void)renderJSON(*schema->options());
    });
    tolerate([&] { (void)renderJSON(schema->schematizedData(Bytes{})); });
    std::optional<SchematizedData> small;
    if (!tolerate([&] { small.emplace(schema->schematizedData(smallMessage(*schema))); })) {
      continue;
    }
    tolerate([&] { (void)renderJSON(*small, {.style = JsonStyle::indented}); });
    for (const std::string& fieldName : schema->allFieldNames()) {
      tolerate([&] { (void)small->value(fieldName); });
      tolerate([&] { (void)small->value(fieldName + "[0]"); });
    }
  }
  for (const std::string& name : store.enumSchemaNames()) {
    tolerate([&] {
      const EnumSchema schema = store.enumSchema(name);
      for (const int64_t number : schema.valueSet()) {
        if (schema.valueNamed(schema.valueNameFor(number)) != number) {
          finding("an enum value name does not lead back to its number");
        }
      }
    });
  }
  tolerate([&] { (void)manifestEngagementsOnly(store); });
  tolerate([&] { (void)fullManifest(store); });
}

}  // namespace ostrel::fuzz
