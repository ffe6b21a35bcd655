// The C++ half of the PostgreSQL extension: everything that touches the library. Each function of
// bridge.h runs its work inside guarded(), which turns every exception into an OstrelError after
// the work's objects are gone, so nothing C++ is left on the stack when functions.c raises the
// SQL error.

#include "bridge.h"

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

// Copies `text` into the error as valid UTF-8 (an error message the server cannot convert for
// its client would fail while being reported): invalid sequences become U+FFFD, and a text too
// long is cut at a character boundary and ends with "...".
void report(OstrelError* error, OstrelFailure failure, const char* text) noexcept {
  error->failure = failure;
  std::string valid;
  try {
    valid = decodeUtf8Lossy(asBytes(text));
  } catch (...) {
    valid = "out of memory";
  }
  constexpr size_t kRoom = OSTREL_ERROR_TEXT_SIZE - 4;
  size_t size = valid.size();
  if (size > kRoom) {
    size = kRoom;
    // Back to the start of the character the cut falls in.
    while (size > 0 && (static_cast<unsigned char>(valid[size]) & 0xC0) == 0x80) --size;
  }
  std::memcpy(error->text, valid.data(), size);
  if (size < valid.size()) {
    std::memcpy(error->text + size, "...", 3);
    size += 3;
  }
  error->text[size] = '\0';
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
  // OSTREL_SITE_VALUE: the path.
  FieldPathAndType path;
  // OSTREL_SITE_EACH: the repeated field or map the path names.
  std::optional<RepeatedField> repeated;
};

struct Backend {
  // Holds the types calls have named, with the types they refer to, loaded as they were first
  // named; the catalog only grows, so what the store holds stays right.
  std::optional<SchemaStore> store;
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

  // The path stays empty for a message site and an each site.
  FieldPathAndType noPath{{}, TypeSchemaDescription::scalar(TypeSchemaDescription::Case::bytes)};
  const SchemaStore store = *state.store;
  auto compiled = std::make_shared<Compiled>(
      Compiled{store, lookUpType(store, type), std::move(noPath), std::nullopt});
  if (kind == OSTREL_SITE_VALUE) {
    compiled->path = resolvePropertyPath(compiled->schema, path);
  } else if (kind == OSTREL_SITE_EACH) {
    compiled->repeated.emplace(compiled->schema, path);
  }
  if (state.sites.size() >= kMaxCachedSites) state.sites.clear();
  state.sites.emplace(std::move(key), compiled);
  return compiled;
}

// The value in the caller's memory.
void convert(const AnyValue& in, int flags, OstrelAlloc alloc, OstrelValue* out) {
  using Case = AnyValue::Case;
  *out = OstrelValue{};
  // The names are literals: NUL-terminated.
  out->case_name = caseName(in.kind()).data();
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
      const EnumValue& value = in.enumValue();
      out->kind = OSTREL_ENUM;
      out->i = value.number();
      if (const std::optional<std::string> name = value.findName()) {
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
      const Bytes& bytes = in.bytesValue();
      out->kind = OSTREL_BYTES;
      out->data = copyOut(alloc, asText(bytes));
      out->size = bytes.size();
      return;
    }
    case Case::message: {
      out->kind = OSTREL_MESSAGE;
      const std::string json = flags & OSTREL_MESSAGE_JSON
                                   ? renderJSON(in.messageValue().unsafe(), kStrictJson)
                                   : std::string(asText(in.messageValue().bytes()));
      out->data = copyOut(alloc, json);
      out->size = json.size();
      return;
    }
  }
}

}  // namespace

struct OstrelSite {
  std::shared_ptr<const Compiled> compiled;
};

struct OstrelEach {
  std::shared_ptr<const Compiled> compiled;
  RepeatedField::Elements elements;
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
      state.store.emplace(manifest);
      for (const std::string_view name : kOptionsMessages) missing.emplace_back(name);
    } else {
      state.store->add(manifest);
    }
    for (const std::string& name : referencedNames(manifest)) {
      if (!state.store->hasMessageSchemaNamed(name) && !state.store->hasEnumSchemaNamed(name)) {
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
    const std::optional<AnyValue> found =
        UnsafeSchematizedData(compiled.schema.impl(), view(record, size))
            .value(compiled.path, flags & OSTREL_EXACT ? ReadMode::exact : ReadMode::first);
    if (found) {
      convert(*found, flags, alloc, value);
    } else {
      *value = OstrelValue{};
    }
  });
}

OstrelEach* ostrel_each_start(const OstrelSite* site, const char* record, size_t size,
                              OstrelError* error) {
  OstrelEach* each = nullptr;
  guarded(error, [&] {
    const Compiled& compiled = *site->compiled;
    each = new OstrelEach{site->compiled, compiled.repeated->elements(view(record, size))};
  });
  return each;
}

bool ostrel_each_next(OstrelEach* each, OstrelAlloc alloc, OstrelElement* element, bool* done,
                      OstrelError* error) {
  *element = OstrelElement{};
  *done = true;
  return guarded(error, [&] {
    const std::optional<RepeatedField::Element> found = each->elements.next();
    if (!found) return;
    *done = false;
    if (found->key) {
      const std::string key = found->keyText();
      element->key.kind = OSTREL_STRING;
      element->key.data = copyOut(alloc, key);
      element->key.size = key.size();
    }
    convert(found->value, OSTREL_MESSAGE_JSON, alloc, &element->value);
  });
}

void ostrel_each_release(OstrelEach* each) { delete each; }

bool ostrel_render(const OstrelSite* site, const char* record, size_t size, OstrelAlloc alloc,
                   char** json, size_t* jsonSize, OstrelError* error) {
  return guarded(error, [&] {
    const std::string text =
        renderJSON(site->compiled->schema.view(view(record, size)), kStrictJson);
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

namespace {
// Hands `bytes` out in memory of `alloc`.
void resultOut(OstrelAlloc alloc, const Bytes& bytes, char** result, size_t* size) {
  *result = allocate(alloc, bytes.size());
  if (!bytes.empty()) std::memcpy(*result, bytes.data(), bytes.size());
  *size = bytes.size();
}
}  // namespace

bool ostrel_set(const OstrelSite* site, const char* record, size_t size, const char* path,
                size_t pathSize, OstrelValueForm form, const char* value, size_t valueSize,
                OstrelAlloc alloc, char** result, size_t* resultSize, OstrelError* error) {
  return guarded(error, [&] {
    std::string text(value, valueSize);
    EditValue edit = form == OSTREL_VALUE_JSON ? EditValue::json(std::move(text))
                     : form == OSTREL_VALUE_TEXT
                         ? EditValue::text(std::move(text))
                         : EditValue(AnyValue(toBytes(view(value, valueSize))));
    Rewrite rewrite(site->compiled->schema);
    rewrite.set(std::string_view(path, pathSize), std::move(edit));
    resultOut(alloc, rewrite.apply(view(record, size)), result, resultSize);
  });
}

bool ostrel_clear(const OstrelSite* site, const char* record, size_t size, const char* path,
                  size_t pathSize, OstrelAlloc alloc, char** result, size_t* resultSize,
                  OstrelError* error) {
  return guarded(error, [&] {
    Rewrite rewrite(site->compiled->schema);
    rewrite.clear(std::string_view(path, pathSize));
    resultOut(alloc, rewrite.apply(view(record, size)), result, resultSize);
  });
}

bool ostrel_merge(const OstrelSite* site, const char* record, size_t size, const char* other,
                  size_t otherSize, OstrelAlloc alloc, char** result, size_t* resultSize,
                  OstrelError* error) {
  return guarded(error, [&] {
    resultOut(alloc,
              mergeRecord(site->compiled->schema, view(record, size), view(other, otherSize)),
              result, resultSize);
  });
}

bool ostrel_normalize(const OstrelSite* site, const char* record, size_t size, OstrelAlloc alloc,
                      char** result, size_t* resultSize, OstrelError* error) {
  return guarded(error, [&] {
    resultOut(alloc, normalizeRecord(site->compiled->schema, view(record, size)), result,
              resultSize);
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
