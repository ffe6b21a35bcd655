// The C++ half of the PostgreSQL extension: everything that touches the library. Each function of
// bridge.h runs its work inside guarded(), which turns every exception into an OstrelError after
// the work's objects are gone, so nothing C++ is left on the stack when functions.c raises the
// SQL error.

#include "bridge.h"

#include <google/protobuf/compiler/importer.h>
#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "ostrel/ostrel.hpp"
#include "output/map_entry.hpp"
#include "store/proto_schema_store.hpp"
#include "wire/exact_read.hpp"
#include "wire/field_path.hpp"
#include "wire/value_decoding.hpp"

#ifndef OSTREL_PROTOBUF_INCLUDE_DIR
#define OSTREL_PROTOBUF_INCLUDE_DIR "/usr/include"
#endif

using namespace ostrel;

namespace {

// A failure the bridge itself reports, with the failure class the SQL error should get.
class BridgeError : public std::exception {
 public:
  BridgeError(OstrelFailure failure, std::string text)
      : failure_(failure), text_(std::move(text)) {}
  const char* what() const noexcept override { return text_.c_str(); }
  OstrelFailure failure() const noexcept { return failure_; }

 private:
  OstrelFailure failure_;
  std::string text_;
};

OstrelInterruptPending interruptPending = nullptr;

// Installed as the library's interrupt check, and called in the bridge's own loops.
void checkInterrupt() {
  if (interruptPending && interruptPending()) {
    throw BridgeError(OSTREL_INTERRUPTED, "interrupted");
  }
}

// The length of the valid UTF-8 sequence at text[0..size), or 0 when it is not one.
size_t utf8SequenceLength(const unsigned char* text, size_t size) noexcept {
  const unsigned char lead = text[0];
  size_t length;
  uint32_t minimum;
  if (lead < 0x80) return 1;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
    minimum = 0x80;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    minimum = 0x800;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    minimum = 0x10000;
  } else {
    return 0;
  }
  if (length > size) return 0;
  uint32_t point = lead & (0x7F >> length);
  for (size_t i = 1; i < length; ++i) {
    if ((text[i] & 0xC0) != 0x80) return 0;
    point = (point << 6) | (text[i] & 0x3F);
  }
  if (point < minimum || point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF)) return 0;
  return length;
}

// Copies `text` into the error as valid UTF-8 (an error message the server cannot convert for
// its client would fail while being reported): invalid bytes become '?', and a text too long is
// cut at a character boundary and ends with "...".
void report(OstrelError* error, OstrelFailure failure, const char* text) noexcept {
  error->failure = failure;
  const auto* in = reinterpret_cast<const unsigned char*>(text);
  const size_t size = std::strlen(text);
  constexpr size_t kRoom = OSTREL_ERROR_TEXT_SIZE - 4;
  size_t read = 0;
  size_t written = 0;
  while (read < size) {
    const size_t length = utf8SequenceLength(in + read, size - read);
    const size_t needed = length == 0 ? 1 : length;
    if (written + needed > kRoom) {
      std::memcpy(error->text + written, "...", 3);
      written += 3;
      break;
    }
    if (length == 0) {
      error->text[written] = '?';
    } else {
      std::memcpy(error->text + written, in + read, length);
    }
    written += needed;
    read += length == 0 ? 1 : length;
  }
  error->text[written] = '\0';
}

// Runs `work`, reporting whatever it throws. The work's locals are destroyed by the time a handler
// runs, and the handlers only copy text into the caller's fixed buffer.
template <typename Work>
bool guarded(OstrelError* error, Work&& work) noexcept {
  try {
    work();
    error->failure = OSTREL_OK;
    error->text[0] = '\0';
    return true;
  } catch (const BridgeError& e) {
    report(error, e.failure(), e.what());
  } catch (const SerializationError& e) {
    report(error, OSTREL_BAD_DATA, e.what());
  } catch (const std::bad_alloc&) {
    report(error, OSTREL_NO_MEMORY, "out of memory");
  } catch (const ostrel::Error& e) {
    report(error, OSTREL_BAD_REQUEST, e.what());
  } catch (const std::exception& e) {
    report(error, OSTREL_INTERNAL, e.what());
  } catch (...) {
    report(error, OSTREL_INTERNAL, "unknown failure in the ostrel extension");
  }
  return false;
}

char* allocate(OstrelAlloc alloc, size_t size) {
  void* memory = alloc(size == 0 ? 1 : size);
  if (!memory) throw std::bad_alloc();
  return static_cast<char*>(memory);
}

// A NUL-terminated copy of `text` in the caller's memory.
char* copyOut(OstrelAlloc alloc, std::string_view text) {
  char* out = allocate(alloc, text.size() + 1);
  std::memcpy(out, text.data(), text.size());
  out[text.size()] = '\0';
  return out;
}

// Records are rendered whole or not at all: a field that cannot be rendered fails the call, so that
// no error text ever lands in a jsonb.
const JsonOptions kStrictJson{.strict = true};

ByteView view(const char* data, size_t size) {
  return ByteView(reinterpret_cast<const std::byte*>(data), data ? size : 0);
}

// What a call site needs to read many records: the schema, its store (schemas only refer to their
// store weakly, and unmaterialised fields resolve through it) and the resolved path.
struct Compiled {
  SchemaStore store;
  MessageSchema schema;
  // OSTREL_SITE_VALUE: the whole path. OSTREL_SITE_EACH: the path to the message that holds the
  // repeated field, empty for the record itself.
  FieldPathAndType path;
  // OSTREL_SITE_EACH: the repeated field and, for a map, its entry's key and value fields.
  std::shared_ptr<FieldSchemaDescribing> repeated;
  std::optional<detail::MapEntryFields> map;
};

struct Backend {
  // Holds the types calls have named, with the types they refer to, loaded as they were first
  // named; the catalog only grows, so what the store holds stays right.
  std::shared_ptr<ProtoSchemaStore> store;
  // Compiled sites by kind, type and path; a bounded cache, emptied when it fills up.
  std::unordered_map<std::string, std::shared_ptr<const Compiled>> sites;
};

Backend& backend() {
  static Backend instance;
  return instance;
}

constexpr size_t kMaxCachedSites = 1024;

SchemaManifest manifestOf(const char* const* definitions, const size_t* sizes, size_t count) {
  SchemaManifest manifest;
  for (size_t i = 0; i < count; ++i) {
    checkInterrupt();
    manifest.merge(schemaManifestFromJSON(std::string_view(definitions[i], sizes[i])),
                   MergePolicy::requireEqual);
  }
  return manifest;
}

// The type names the fields of `manifest` refer to.
std::set<std::string> referencedNames(const SchemaManifest& manifest) {
  std::set<std::string> names;
  for (const auto& [name, message] : manifest.messages) {
    for (const auto& [fieldName, field] : message.fields) {
      if (field.typeName) names.insert(*field.typeName);
    }
  }
  return names;
}

// A NUL-terminated copy of each name, in the caller's memory.
void copyNames(const std::vector<std::string>& names, OstrelAlloc alloc, char*** out,
               size_t* count) {
  if (names.empty()) return;
  auto* copies = reinterpret_cast<char**>(allocate(alloc, sizeof(char*) * names.size()));
  for (size_t i = 0; i < names.size(); ++i) copies[i] = copyOut(alloc, names[i]);
  *out = copies;
  *count = names.size();
}

// The options messages every schema may need: registered definitions of them add fields to the
// built-in ones, and must be in the store before any schema is created.
constexpr std::string_view kOptionsMessages[] = {
    "google.protobuf.MessageOptions", "google.protobuf.FieldOptions",
    "google.protobuf.OneofOptions", "google.protobuf.EnumOptions",
    "google.protobuf.EnumValueOptions"};

MessageSchema lookUpType(const SchemaStore& store, std::string_view type) {
  try {
    return store.messageSchema(type);
  } catch (const SchematizerError& error) {
    if (error.code() == SchematizerError::Code::schemaNotFound) {
      throw BridgeError(OSTREL_UNKNOWN_TYPE, error.what());
    }
    throw;
  }
}

std::shared_ptr<const Compiled> compile(OstrelSiteKind kind, std::string_view type,
                                        std::string_view path) {
  Backend& state = backend();
  if (!state.store) {
    throw BridgeError(OSTREL_UNKNOWN_TYPE,
                      SchematizerError::schemaNotFound(std::string(type)).what());
  }
  std::string key;
  key.reserve(type.size() + path.size() + 2);
  key.push_back(static_cast<char>('0' + kind));
  key.append(type);
  key.push_back('\0');
  key.append(path);
  if (auto found = state.sites.find(key); found != state.sites.end()) return found->second;

  // The path stays empty for a message site, and for an each site over the record's own field.
  FieldPathAndType noPath{{}, TypeSchemaDescription::scalar(TypeSchemaDescription::Case::bytes)};
  const SchemaStore store(state.store);
  auto compiled = std::make_shared<Compiled>(
      Compiled{store, lookUpType(store, type), std::move(noPath), nullptr, {}});
  const MessageSchemaDescribing& schema = *compiled->schema.impl();
  if (kind == OSTREL_SITE_VALUE) {
    PropertyPathUtil::parse(path);
    compiled->path = resolvePropertyPath(schema, path);
  } else if (kind == OSTREL_SITE_EACH) {
    PropertyPathUtil::parse(path);
    // The last component names the repeated field itself (without an index); what comes before
    // it leads to the message that holds it. Indices are digits only, so the last dot separates.
    const size_t dot = path.rfind('.');
    const std::string_view fieldName = dot == std::string_view::npos ? path : path.substr(dot + 1);
    const MessageSchemaDescribing* holder = &schema;
    if (dot != std::string_view::npos) {
      compiled->path = resolvePropertyPath(schema, path.substr(0, dot));
      if (compiled->path.type.kind() != TypeSchemaDescription::Case::message) {
        throw SchematizerError::nonMessageTypeInKeypath();
      }
      holder = compiled->path.type.messageSchema().get();
    }
    if (fieldName.find('[') != std::string_view::npos) {
      throw SchematizerError::scalarValueAccessWithIndex();
    }
    compiled->repeated = holder->fieldNamed(fieldName);
    if (!compiled->repeated->isRepeated()) {
      throw BridgeError(OSTREL_BAD_REQUEST,
                        "p_each: \"" + std::string(path) + "\" is not a repeated field or map");
    }
    const TypeSchemaDescription& elementType = compiled->repeated->type();
    if (elementType.kind() == TypeSchemaDescription::Case::message) {
      compiled->map = detail::mapEntryFields(*elementType.messageSchema());
    }
  }
  if (state.sites.size() >= kMaxCachedSites) state.sites.clear();
  state.sites.emplace(std::move(key), compiled);
  return compiled;
}

// The value a map entry without the key or value field stands for.
OstrelValue defaultValue(const TypeSchemaDescription& type, OstrelAlloc alloc) {
  using Case = TypeSchemaDescription::Case;
  OstrelValue value{};
  switch (type.kind()) {
    case Case::int32:
    case Case::sint32:
    case Case::sfixed32:
    case Case::int64:
    case Case::sint64:
    case Case::sfixed64:
      value.kind = OSTREL_INT;
      break;
    case Case::uint32:
    case Case::fixed32:
    case Case::uint64:
    case Case::fixed64:
      value.kind = OSTREL_UINT;
      break;
    case Case::float_:
      value.kind = OSTREL_FLOAT;
      break;
    case Case::double_:
      value.kind = OSTREL_DOUBLE;
      break;
    case Case::bool_:
      value.kind = OSTREL_BOOL;
      break;
    case Case::string:
      value.kind = OSTREL_STRING;
      value.data = copyOut(alloc, "");
      break;
    case Case::bytes:
      value.kind = OSTREL_BYTES;
      value.data = copyOut(alloc, "");
      break;
    case Case::enum_:
      value.kind = OSTREL_ENUM;
      if (const std::string* name = type.enumSchema()->findValueNameFor(0)) {
        value.data = copyOut(alloc, *name);
        value.size = name->size();
      }
      break;
    case Case::message:
      value.kind = OSTREL_MESSAGE;
      value.data = copyOut(alloc, "{}");
      value.size = 2;
      break;
  }
  return value;
}

void convert(const detail::AnyValueImpl& in, int flags, OstrelAlloc alloc, OstrelValue* out) {
  using Case = detail::AnyValueImpl::Case;
  *out = OstrelValue{};
  switch (in.kind()) {
    case Case::int32:
      out->kind = OSTREL_INT;
      out->i = in.int32Value();
      return;
    case Case::int64:
      out->kind = OSTREL_INT;
      out->i = in.int64Value();
      return;
    case Case::uint32:
      out->kind = OSTREL_UINT;
      out->u = in.uint32Value();
      return;
    case Case::uint64:
      out->kind = OSTREL_UINT;
      out->u = in.uint64Value();
      return;
    case Case::float_:
      out->kind = OSTREL_FLOAT;
      out->d = in.floatValue();
      return;
    case Case::double_:
      out->kind = OSTREL_DOUBLE;
      out->d = in.doubleValue();
      return;
    case Case::bool_:
      out->kind = OSTREL_BOOL;
      out->b = in.boolValue();
      return;
    case Case::enum_: {
      const detail::EnumValueImpl& value = in.enumValue();
      out->kind = OSTREL_ENUM;
      out->i = value.number();
      if (const std::string* name = value.type->findValueNameFor(out->i)) {
        out->data = copyOut(alloc, *name);
        out->size = name->size();
      }
      return;
    }
    case Case::string: {
      const std::string& text = in.stringValue();
      out->kind = OSTREL_STRING;
      out->data = copyOut(alloc, text);
      out->size = text.size();
      return;
    }
    case Case::bytes: {
      const ByteView bytes = in.bytesValue().view();
      out->kind = OSTREL_BYTES;
      out->data = reinterpret_cast<const char*>(bytes.data());
      out->size = bytes.size();
      return;
    }
    case Case::message: {
      out->kind = OSTREL_MESSAGE;
      if (flags & OSTREL_MESSAGE_JSON) {
        const std::string json = renderJSON(in.messageValue(), kStrictJson);
        out->data = copyOut(alloc, json);
        out->size = json.size();
      } else {
        const ByteView bytes = in.messageValue().bytes();
        out->data = reinterpret_cast<const char*>(bytes.data());
        out->size = bytes.size();
      }
      return;
    }
  }
}

// The text of a map key as JSON object member names write it.
OstrelValue keyText(const OstrelValue& key, OstrelAlloc alloc) {
  std::string text;
  switch (key.kind) {
    case OSTREL_INT:
      text = std::to_string(key.i);
      break;
    case OSTREL_UINT:
      text = std::to_string(key.u);
      break;
    case OSTREL_BOOL:
      text = key.b ? "true" : "false";
      break;
    case OSTREL_STRING:
      return key;
    default:
      throw BridgeError(OSTREL_INTERNAL, "map key of an unexpected kind");
  }
  OstrelValue out{};
  out.kind = OSTREL_STRING;
  out.data = copyOut(alloc, text);
  out.size = text.size();
  return out;
}

OstrelValue entryMember(const UnsafeSchematizedData& entry, const FieldSchemaDescribing& field,
                        OstrelAlloc alloc) {
  Reader reader(entry.bytes());
  const FieldPathComponent component = FieldPathComponent::fieldNumber(field.fieldNumber());
  const std::optional<detail::AnyValueImpl> value =
      readValue(reader, std::span(&component, 1), field.type());
  if (!value) return defaultValue(field.type(), alloc);
  OstrelValue out;
  convert(*value, OSTREL_MESSAGE_JSON, alloc, &out);
  return out;
}

bool packable(TypeSchemaDescription::Case kind) noexcept {
  using Case = TypeSchemaDescription::Case;
  return kind != Case::string && kind != Case::bytes && kind != Case::message;
}

// Every element of a repeated field in a message, one at a time, in the order of the bytes,
// whatever mix of packed runs and single elements holds them. Elements borrow from the message.
class ElementWalk {
 public:
  ElementWalk(ByteView message, const FieldSchemaDescribing& field)
      : type_(field.type()), number_(field.fieldNumber()), fields_(message) {}

  std::optional<detail::AnyValueImpl> next() {
    for (;;) {
      if (run_) {
        if (run_->hasMoreFields()) return decodePackedElement(*run_, type_);
        run_.reset();
      }
      if (!fields_.hasMoreFields()) return std::nullopt;
      // A record of many other fields can take long to step over.
      if (++steps_ % kStepsPerCheck == 0) checkInterrupt();
      const FieldTag tag = fields_.readTag();
      if (tag.fieldNumber() != number_) {
        fields_.skipField(tag);
        // Skips do not check that the bytes they step over exist.
        if (fields_.position() > fields_.size()) throw SerializationError::truncated();
      } else if (tag.wireType() == ProtoWireType::lengthDelimited && packable(type_.kind())) {
        // The run's own reader ends with the run: an element cut short fails instead of reading
        // the bytes that follow.
        run_.emplace(fields_.readLengthDelimited());
      } else {
        return decodeValue(fields_, type_, tag);
      }
    }
  }

 private:
  static constexpr uint64_t kStepsPerCheck = 4096;
  const TypeSchemaDescription& type_;
  int64_t number_;
  Reader fields_;
  std::optional<Reader> run_;
  uint64_t steps_ = 0;
};

}  // namespace

struct OstrelSite {
  std::shared_ptr<const Compiled> compiled;
};

struct OstrelEach {
  std::shared_ptr<const Compiled> compiled;
  // Empty when the record does not hold the message with the field.
  std::optional<ElementWalk> walk;
};

extern "C" {

void ostrel_bridge_init(OstrelInterruptPending pending) {
  interruptPending = pending;
  setInterruptCheck(checkInterrupt);
  // The library's diagnostics (fields it could not render) go where the server's own stderr goes,
  // the server log, instead of the system log.
  setLogHandler([](std::string_view message) {
    std::fprintf(stderr, "ostrel: %.*s\n", static_cast<int>(message.size()), message.data());
  });
}

bool ostrel_store_add(const char* const* definitions, const size_t* sizes, size_t count,
                      OstrelAlloc alloc, char*** wanted, size_t* wantedCount, OstrelError* error) {
  *wanted = nullptr;
  *wantedCount = 0;
  return guarded(error, [&] {
    const SchemaManifest manifest = manifestOf(definitions, sizes, count);
    Backend& state = backend();
    std::vector<std::string> missing;
    if (!state.store) {
      state.store = ProtoSchemaStore::make(manifest);
      for (const std::string_view name : kOptionsMessages) missing.emplace_back(name);
    } else {
      state.store->add(manifest);
    }
    for (const std::string& name : referencedNames(manifest)) {
      if (!state.store->hasMessageSchemaNamed(name) && !state.store->enumSchemas().contains(name)) {
        missing.push_back(name);
      }
    }
    copyNames(missing, alloc, wanted, wantedCount);
  });
}

void ostrel_store_clear(void) {
  Backend& state = backend();
  state.sites.clear();
  state.store.reset();
}

OstrelSite* ostrel_site_compile(OstrelSiteKind kind, const char* type, size_t typeSize,
                                const char* path, size_t pathSize, OstrelError* error) {
  OstrelSite* site = nullptr;
  guarded(error, [&] {
    auto compiled = compile(kind, std::string_view(type, typeSize),
                            std::string_view(path ? path : "", path ? pathSize : 0));
    site = new OstrelSite{std::move(compiled)};
  });
  return site;
}

void ostrel_site_release(OstrelSite* site) { delete site; }

bool ostrel_read(const OstrelSite* site, const char* record, size_t size, int flags,
                 OstrelAlloc alloc, OstrelValue* value, OstrelError* error) {
  return guarded(error, [&] {
    const Compiled& compiled = *site->compiled;
    const ByteView bytes = view(record, size);
    // A message merged from several occurrences lives here, not in the record: it is copied out.
    Bytes merged;
    std::optional<detail::AnyValueImpl> found;
    if (flags & OSTREL_EXACT) {
      found = detail::readValueExact(*compiled.schema.impl(), bytes, compiled.path.fieldPath,
                                     compiled.path.type, merged);
    } else {
      Reader reader(bytes);
      found = readValue(reader, compiled.path);
    }
    if (found) {
      convert(*found, flags, alloc, value);
      if (!merged.empty() && value->kind == OSTREL_MESSAGE && !(flags & OSTREL_MESSAGE_JSON)) {
        value->data = copyOut(alloc, std::string_view(value->data, value->size));
      }
    } else {
      *value = OstrelValue{};
    }
  });
}

OstrelEach* ostrel_each_start(const OstrelSite* site, const char* record, size_t size,
                              OstrelError* error) {
  OstrelEach* each = nullptr;
  guarded(error, [&] {
    auto walk = std::make_unique<OstrelEach>(OstrelEach{site->compiled, std::nullopt});
    const Compiled& compiled = *walk->compiled;
    ByteView holder = view(record, size);
    if (!compiled.path.fieldPath.empty()) {
      Reader reader(holder);
      const std::optional<detail::AnyValueImpl> message = readValue(reader, compiled.path);
      if (!message) {
        each = walk.release();
        return;
      }
      holder = message->messageValue().bytes();
    }
    walk->walk.emplace(holder, *compiled.repeated);
    each = walk.release();
  });
  return each;
}

bool ostrel_each_next(OstrelEach* each, OstrelAlloc alloc, OstrelElement* element, bool* done,
                      OstrelError* error) {
  *element = OstrelElement{};
  *done = true;
  return guarded(error, [&] {
    if (!each->walk) return;
    std::optional<detail::AnyValueImpl> found = each->walk->next();
    if (!found) return;
    *done = false;
    if (const auto& map = each->compiled->map) {
      const UnsafeSchematizedData& entry = found->messageValue();
      element->key = keyText(entryMember(entry, *map->key, alloc), alloc);
      element->value = entryMember(entry, *map->value, alloc);
    } else {
      convert(*found, OSTREL_MESSAGE_JSON, alloc, &element->value);
    }
  });
}

void ostrel_each_release(OstrelEach* each) { delete each; }

bool ostrel_render(const OstrelSite* site, const char* record, size_t size, OstrelAlloc alloc,
                   char** json, size_t* jsonSize, OstrelError* error) {
  return guarded(error, [&] {
    const std::string text = renderJSON(
        UnsafeSchematizedData(site->compiled->schema.impl(), view(record, size)), kStrictJson);
    *json = copyOut(alloc, text);
    *jsonSize = text.size();
  });
}

bool ostrel_encode(const OstrelSite* site, const char* json, size_t jsonSize, OstrelAlloc alloc,
                   char** record, size_t* size, OstrelError* error) {
  return guarded(error, [&] {
    const SchematizedData data =
        parseJSON(site->compiled->schema, std::string_view(json, jsonSize));
    const ByteView bytes = data.bytes();
    *record = allocate(alloc, bytes.size());
    if (!bytes.empty()) std::memcpy(*record, bytes.data(), bytes.size());
    *size = bytes.size();
  });
}

bool ostrel_definitions(OstrelSchemaFormat format, const char* input, size_t size,
                        OstrelAlloc alloc, OstrelDefinition** definitions, size_t* count,
                        OstrelError* error) {
  *definitions = nullptr;
  *count = 0;
  return guarded(error, [&] {
    SchemaManifest manifest;
    switch (format) {
      case OSTREL_DESCRIPTOR_SET:
        manifest = schemaManifestFromDescriptorSet(view(input, size));
        break;
      case OSTREL_MANIFEST:
        manifest = schemaManifestFromJSON(std::string_view(input, size));
        break;
      case OSTREL_PROTO:
        manifest = schemaManifestFromProtoText(std::string_view(input, size));
        break;
    }
    const size_t total = manifest.messages.size() + manifest.enums.size();
    if (total == 0) return;
    auto* out =
        reinterpret_cast<OstrelDefinition*>(allocate(alloc, sizeof(OstrelDefinition) * total));
    size_t next = 0;
    for (const auto& [name, message] : manifest.messages) {
      checkInterrupt();
      SchemaManifest one;
      one.messages.emplace(name, message);
      out[next++] = {copyOut(alloc, name), true, copyOut(alloc, schemaManifestToJSON(one))};
    }
    for (const auto& [name, enumeration] : manifest.enums) {
      checkInterrupt();
      SchemaManifest one;
      one.enums.emplace(name, enumeration);
      out[next++] = {copyOut(alloc, name), false, copyOut(alloc, schemaManifestToJSON(one))};
    }
    *definitions = out;
    *count = total;
  });
}

bool ostrel_referenced_names(const char* const* definitions, const size_t* sizes, size_t count,
                             OstrelAlloc alloc, char*** names, size_t* nameCount,
                             OstrelError* error) {
  *names = nullptr;
  *nameCount = 0;
  return guarded(error, [&] {
    const SchemaManifest manifest = manifestOf(definitions, sizes, count);
    std::vector<std::string> outside;
    for (const std::string& name : referencedNames(manifest)) {
      if (!manifest.messages.contains(name) && !manifest.enums.contains(name)) {
        outside.push_back(name);
      }
    }
    copyNames(outside, alloc, names, nameCount);
  });
}

bool ostrel_check_definitions(const char* const* added, const size_t* addedSizes, size_t addedCount,
                              const char* const* context, const size_t* contextSizes,
                              size_t contextCount, OstrelError* error) {
  return guarded(error, [&] {
    const SchemaManifest manifest = manifestOf(added, addedSizes, addedCount);
    SchemaManifest all = manifestOf(context, contextSizes, contextCount);
    all.merge(manifest, MergePolicy::requireEqual);
    const SchemaStore store(all);
    // Creating each added type and resolving the type of each of its fields: a type named but
    // not defined fails here rather than in some later read. The types of the context were
    // checked when they were registered.
    for (const auto& [name, message] : manifest.messages) {
      checkInterrupt();
      const MessageSchema schema = store.messageSchema(name);
      for (const std::string& field : schema.allFieldNames()) {
        schema.impl()->fieldNamed(field)->type();
      }
      schema.allOneofs();
    }
    for (const auto& [name, enumeration] : manifest.enums) store.enumSchema(name);
  });
}

bool ostrel_confluent_split(const char* data, size_t size, bool unsignedIndexes, OstrelAlloc alloc,
                            OstrelConfluent* out, OstrelError* error) {
  return guarded(error, [&] {
    ConfluentEnvelope envelope;
    try {
      envelope = decodeConfluent(
          ByteView(reinterpret_cast<const std::byte*>(data), size),
          unsignedIndexes ? ConfluentIndexForm::unsignedVarint : ConfluentIndexForm::zigzag);
    } catch (const FramingError& e) {
      throw BridgeError(OSTREL_BAD_DATA, e.what());
    }
    out->hasId = envelope.schema.id.has_value();
    out->id = envelope.schema.id.value_or(0);
    if (envelope.schema.guid) std::memcpy(out->guid, envelope.schema.guid->data(), 16);
    const std::vector<int32_t>& indexes = envelope.schema.indexes;
    out->indexes = reinterpret_cast<int32_t*>(allocate(alloc, indexes.size() * sizeof(int32_t)));
    std::memcpy(out->indexes, indexes.data(), indexes.size() * sizeof(int32_t));
    out->indexCount = indexes.size();
    out->payloadOffset =
        static_cast<size_t>(envelope.payload.data() - reinterpret_cast<const std::byte*>(data));
  });
}

}  // extern "C"
