#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <map>
#include <memory>
#include <string_view>
#include <typeinfo>
#include <unordered_map>
#include <vector>

#include "core/base64.hpp"
#include "core/field_type_facts.hpp"
#include "core/json_text.hpp"
#include "core/nesting.hpp"
#include "core/utf8.hpp"
#include "ostrel/core/errors.hpp"
#include "ostrel/core/interrupts.hpp"
#include "ostrel/core/logging.hpp"
#include "ostrel/core/values.hpp"
#include "ostrel/output/json.hpp"
#include "ostrel/wire/reader.hpp"
#include "output/field_type_table.hpp"
#include "output/well_known.hpp"
#include "store/map_entry.hpp"
#include "store/proto_schemas.hpp"
#include "store/schema_attachment.hpp"
#include "wire/scalar_decoding.hpp"
#include "wire/value_decoding.hpp"

namespace ostrel {
namespace {

using Case = TypeSchemaDescription::Case;
using detail::WellKnown;

// How much text a streaming rendering gathers before handing it to the sink.
constexpr size_t kFlushSize = size_t{1} << 16;
// Where a break in a message's field structure is reported when no known field was being read.
constexpr std::string_view kUnreadableFieldName = "<unreadable>";
// Field numbers start at 1, so 0 names "no field".
constexpr int64_t kNoField = 0;
// The runs a rendering makes room for at its start, and the most a thread keeps for the next.
constexpr size_t kInitialRuns = 32;
constexpr size_t kMaxSpareRuns = 4096;
// Messages whose field numbers all lie below this find their fields by direct index.
constexpr int64_t kMaxDenseFieldNumber = 4096;

struct MessagePlan;

// A field as the renderer uses it. The type is resolved on the field's first value, not when its
// message is planned: resolving can fail, and that failure belongs to the field's value. Plans are
// shared by the threads rendering with one schema, so what is resolved later is kept in atomics:
// each thread that resolves writes the same values, and one that sees `resolved` set sees them.
struct FieldPlan {
  const FieldSchemaDescribing* field = nullptr;
  int64_t number = kNoField;
  // The member's key as written: the quoted name, then ":" (": " when indented).
  std::string key;

  bool repeated = false;
  // The index of the field's oneof, or -1.
  int32_t oneof = -1;
  // Whether the plan is shared (owned by the schema): it then refers only to shared plans.
  bool shared = false;

  // Valid once resolved() (on this thread).
  const TypeSchemaDescription* type() const noexcept {
    return type_.load(std::memory_order_relaxed);
  }
  Case kind() const noexcept { return kind_.load(std::memory_order_relaxed); }
  ProtoWireType required() const noexcept { return required_.load(std::memory_order_relaxed); }
  bool packable() const noexcept { return packable_.load(std::memory_order_relaxed); }
  bool resolved() const noexcept { return resolved_.load(std::memory_order_acquire); }

  void resolve(const TypeSchemaDescription& type) noexcept {
    type_.store(&type, std::memory_order_relaxed);
    kind_.store(type.kind(), std::memory_order_relaxed);
    required_.store(detail::factsOf(type.kind()).wireType, std::memory_order_relaxed);
    packable_.store(detail::factsOf(type.kind()).isFixedEncoding(), std::memory_order_relaxed);
    resolved_.store(true, std::memory_order_release);
  }
  void release() noexcept {
    resolved_.store(false, std::memory_order_relaxed);
    message.store(nullptr, std::memory_order_relaxed);
  }

  // The plan of a message field's type, set on first use for the same reason.
  std::atomic<MessagePlan*> message{nullptr};

 private:
  std::atomic<bool> resolved_{false};
  std::atomic<const TypeSchemaDescription*> type_{nullptr};
  std::atomic<Case> kind_{Case::int32};
  std::atomic<ProtoWireType> required_{ProtoWireType::varInt};
  std::atomic<bool> packable_{false};
};

// A message schema as the renderer uses it: its fields by number, and what kind of message it is.
// Made once per schema and way of naming members, and then only read (but for FieldPlan's
// resolved parts).
struct MessagePlan {
  const MessageSchemaDescribing* schema = nullptr;
  // Whether the plan is kept with its schema.
  bool shared = false;
  WellKnown wellKnown = WellKnown::none;
  std::optional<detail::MapEntryFields> mapEntry;
  bool hasOneofs = false;
  // In ascending field number.
  std::vector<FieldPlan> fields;
  // For small field numbers: 1 + the index in `fields` of each number, 0 for an unknown one.
  std::vector<uint32_t> dense;

  FieldPlan* find(int64_t number) {
    if (!dense.empty()) {
      if (number < 0 || number >= static_cast<int64_t>(dense.size())) return nullptr;
      const uint32_t index = dense[static_cast<size_t>(number)];
      return index == 0 ? nullptr : &fields[index - 1];
    }
    const auto it = std::lower_bound(fields.begin(), fields.end(), number,
                                     [](const FieldPlan& f, int64_t n) { return f.number < n; });
    return it != fields.end() && it->number == number ? &*it : nullptr;
  }
};

// The plans of a schema of the store, one for each way of writing member keys (declared or JSON
// names, compact or indented), kept with the schema.
class SharedPlans final : public detail::SchemaAttachment {
 public:
  static constexpr size_t kVariants = 4;

  detail::AttachmentSlot& variant(size_t index) noexcept { return variants_[index]; }

  void releaseTypes() noexcept override {
    for (detail::AttachmentSlot& slot : variants_) {
      if (detail::SchemaAttachment* plan = slot.get()) plan->releaseTypes();
    }
  }

 private:
  std::array<detail::AttachmentSlot, kVariants> variants_;
};

// A plan kept with its schema.
struct SharedPlan final : detail::SchemaAttachment {
  MessagePlan plan;
  void releaseTypes() noexcept override {
    for (FieldPlan& f : plan.fields) f.release();
  }
};

// The occurrences of one field that follow each other in a message's bytes with no other known
// field between them: a repeated field's elements are usually one run, so that a message's runs
// take memory by its fields, not by its values.
struct Run {
  FieldPlan* plan = nullptr;
  // The first occurrence: just after its tag, and its wire type.
  int64_t position = 0;
  ProtoWireType wireType = ProtoWireType::varInt;
  // The last occurrence.
  int64_t lastPosition = 0;
  ProtoWireType lastWireType = ProtoWireType::varInt;
  uint32_t count = 0;

  int64_t number() const noexcept { return plan->number; }
};

// One entry of a map being rendered; its key's text is kept apart, in the renderer's key buffer.
struct MapEntry {
  ByteView bytes;
  size_t keyStart = 0;
  size_t keyLength = 0;
  // The value's last occurrence in `bytes`, or -1, and how many there are.
  int64_t valuePosition = -1;
  ProtoWireType valueWireType = ProtoWireType::varInt;
  uint32_t valueCount = 0;
  bool shown = true;
};

// A break in a message's field structure found while gathering its fields.
struct ScanFault {
  // The known field being stepped over, or kNoField.
  int64_t fieldNumber = kNoField;
  std::string text;
  std::exception_ptr error;
};

Reader readerAt(ByteView bytes, int64_t position) {
  Reader reader(bytes);
  reader.setPosition(position);
  return reader;
}

// Walks the occurrences of a run: the reader stands just after each one's tag. Unknown fields
// between them are stepped over; they were stepped over once already when the run was gathered.
class Occurrences {
 public:
  Occurrences(ByteView bytes, const Run& run)
      : reader_(readerAt(bytes, run.position)),
        number_(run.number()),
        left_(run.count),
        position_(run.position),
        wireType_(run.wireType) {}

  Reader& reader() noexcept { return reader_; }
  ProtoWireType wireType() const noexcept { return wireType_; }
  int64_t position() const noexcept { return position_; }

  // Moves to the next occurrence; false after the last.
  bool next() {
    if (--left_ == 0) return false;
    reader_.setPosition(position_);
    reader_.skipField(
        FieldTag(static_cast<uint32_t>(number_ << 3) | static_cast<uint32_t>(wireType_)));
    for (;;) {
      const FieldTag tag = reader_.readTag();
      if (tag.fieldNumber() == number_) {
        position_ = reader_.position();
        wireType_ = tag.wireType();
        return true;
      }
      reader_.skipField(tag);
    }
  }

 private:
  Reader reader_;
  int64_t number_;
  uint32_t left_;
  int64_t position_;
  ProtoWireType wireType_;
};

// The text being written: a string kept at its full length, written through a cursor, so that a
// value is formatted straight into place after one capacity check (appending to a std::string
// checks and terminates per call, which dominated the rendering of small values).
class Output {
 public:
  explicit Output(std::string& text) : text_(text) {
    text_.clear();
    if (text_.capacity() > 0) adopt(0, text_.capacity());
  }
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  // Room for `n` characters at the returned cursor; advance() past what was written.
  char* room(size_t n) {
    if (n > static_cast<size_t>(end_ - cursor_)) [[unlikely]]
      grow(n);
    return cursor_;
  }
  void advance(char* to) noexcept { cursor_ = to; }

  void push_back(char c) { *room(1) = c, ++cursor_; }
  void append(size_t count, char c) {
    char* p = room(count);
    std::memset(p, c, count);
    cursor_ = p + count;
  }
  Output& operator+=(std::string_view text) {
    char* p = room(text.size());
    std::memcpy(p, text.data(), text.size());
    cursor_ = p + text.size();
    return *this;
  }

  size_t size() const noexcept { return static_cast<size_t>(cursor_ - base_); }
  bool empty() const noexcept { return cursor_ == base_; }
  std::string_view view() const noexcept { return {base_, size()}; }
  // Drops what follows the first `n` characters.
  void resize(size_t n) noexcept { cursor_ = base_ + n; }
  void clear() noexcept { cursor_ = base_; }
  // Leaves the string holding exactly the text.
  void close() { text_.resize(size()); }

 private:
  void grow(size_t n) {
    const size_t used = size();
    adopt(used, std::max(used + n, 2 * text_.size() + 256));
  }
  void adopt(size_t used, size_t length) {
    text_.resize(length);
    base_ = text_.data();
    cursor_ = base_ + used;
    end_ = base_ + text_.size();
  }

  std::string& text_;
  char* base_ = nullptr;
  char* cursor_ = nullptr;
  char* end_ = nullptr;
};

// See Renderer's constructor.
thread_local std::vector<Run> spareRuns;

// Streams JSON text in a single pass over each message: the message's fields are gathered in one
// scan (as runs of occurrences), then emitted in field-number order, decoding each value straight
// into the output. No JSON document is built, and no value is decoded into an intermediate form.
//
// The text goes into a buffer that a sink, when there is one, takes whenever it has grown past
// kFlushSize at the start of a member or element. A field that fails is withdrawn from the buffer
// and replaced by its error; so that this never reaches text already handed on, everything that
// can fail in the middle of a repeated field or a map is checked before its first element when
// streaming, and the values of the well-known types whose contents can fail deep inside (Struct,
// Value, ListValue, and arrays and maps of well-known types) are held until they end.
class Renderer {
 public:
  Renderer(std::string& out, const JsonOptions& options, const JsonSink* sink = nullptr)
      : out_(out), options_(options), indented_(options.style == JsonStyle::indented), sink_(sink) {
    // The run storage of this thread's last rendering, so that rendering record after record
    // allocates none; a rendering inside another one's sink finds it taken and makes its own.
    runs_.swap(spareRuns);
    runs_.clear();
    runs_.reserve(kInitialRuns);
  }
  ~Renderer() {
    if (runs_.capacity() > kMaxSpareRuns) return;
    runs_.clear();
    spareRuns.swap(runs_);
  }
  Renderer(const Renderer&) = delete;
  Renderer& operator=(const Renderer&) = delete;

  // The message at `depth` (the outermost is 1) as its JSON value, members starting at `level`.
  void topLevel(const MessageSchemaDescribing& schema, ByteView bytes) {
    messageValue(plan(schema), bytes, 1, 0);
  }

  // Any value, as a field of its kind renders it.
  void anyValue(const detail::AnyValueImpl& value) {
    if (value.kind() == detail::AnyValueImpl::Case::bytes) {
      base64(value.bytesValue().view());
    } else if (value.kind() == detail::AnyValueImpl::Case::message) {
      const UnsafeSchematizedData& data = value.messageValue();
      topLevel(*data.messageSchema(), data.bytes());
    } else {
      scalar(value);
    }
  }

  // Hands what is left to the sink, or leaves the string holding the text.
  void finish() {
    if (!sink_) return out_.close();
    if (!out_.empty()) (*sink_)(out_.view());
    out_.clear();
  }

 private:
  // Pops the runs gathered above `size` on the way out, also when an error unwinds.
  struct Pop {
    std::vector<Run>& runs;
    size_t size;
    ~Pop() { runs.resize(size); }
  };

  // Holds the text in the buffer while alive.
  struct Hold {
    int& holds;
    explicit Hold(int& counter) : holds(counter) { ++holds; }
    ~Hold() { --holds; }
  };

  // The plan of `schema`, made on first use. Throws the schema's errors when its fields cannot be
  // materialised. The store's schemas keep their plans, so that each is made once for all calls
  // and threads; the plans of other schemas last for this rendering.
  MessagePlan& plan(const MessageSchemaDescribing& schema) {
    if (&schema == lastSchema_) return *lastPlan_;
    MessagePlan* found = nullptr;
    if (typeid(schema) == typeid(ProtoMessageSchema)) {
      found = &sharedPlan(static_cast<const ProtoMessageSchema&>(schema));
    } else {
      auto& slot = plans_[&schema];
      if (!slot) {
        slot = std::make_unique<MessagePlan>();
        build(*slot, schema, false);
      }
      found = slot.get();
    }
    lastSchema_ = &schema;
    lastPlan_ = found;
    return *found;
  }

  MessagePlan& sharedPlan(const ProtoMessageSchema& schema) {
    detail::AttachmentSlot& plans = schema.renderingPlans();
    detail::SchemaAttachment* variants = plans.get();
    if (!variants) variants = plans.publish(std::make_unique<SharedPlans>());
    const size_t index = (options_.jsonNames ? 1 : 0) + (indented_ ? 2 : 0);
    detail::AttachmentSlot& slot = static_cast<SharedPlans*>(variants)->variant(index);
    detail::SchemaAttachment* shared = slot.get();
    if (!shared) {
      auto made = std::make_unique<SharedPlan>();
      build(made->plan, schema, true);
      shared = slot.publish(std::move(made));
    }
    return static_cast<SharedPlan*>(shared)->plan;
  }

  void build(MessagePlan& made, const MessageSchemaDescribing& schema, bool shared) const {
    made.schema = &schema;
    made.shared = shared;
    made.wellKnown = detail::wellKnownKind(schema);
    made.mapEntry = detail::mapEntryFields(schema);
    const auto& fields = schema.fieldsByNumber();
    // Sized once: field plans hold atomics and do not move.
    made.fields = std::vector<FieldPlan>(fields.size());
    size_t i = 0;
    for (const auto& [number, field] : fields) {
      FieldPlan& f = made.fields[i++];
      f.field = field.get();
      f.number = number;
      f.repeated = field->isRepeated();
      f.shared = shared;
      if (const std::optional<int32_t> oneof = field->oneofIndex()) {
        f.oneof = *oneof;
        made.hasOneofs = true;
      }
      key(f.key, memberName(*field));
    }
    if (!fields.empty() && fields.rbegin()->first < kMaxDenseFieldNumber) {
      made.dense.assign(static_cast<size_t>(fields.rbegin()->first) + 1, 0);
      for (size_t k = 0; k < made.fields.size(); ++k) {
        made.dense[static_cast<size_t>(made.fields[k].number)] = static_cast<uint32_t>(k + 1);
      }
    }
  }

  // Resolves the field's type. Throws when it cannot be resolved.
  FieldPlan& resolve(FieldPlan& f) {
    if (!f.resolved()) f.resolve(f.field->type());
    return f;
  }

  // The plan of a message field's type. Throws when the type cannot be resolved.
  MessagePlan& messagePlan(FieldPlan& f) {
    if (MessagePlan* known = f.message.load(std::memory_order_acquire)) return *known;
    MessagePlan& found = plan(*resolve(f).type()->messageSchema());
    // A shared plan must not refer to one that dies with this rendering.
    if (!f.shared || found.shared) {
      f.message.store(&found, std::memory_order_release);
    }
    return found;
  }

  // The message as an object whose members start at `level`; `typeUrl`, when given, is written
  // first as the member "@type" (the message is the content of an Any).
  void message(MessagePlan& plan, ByteView bytes, int depth, int level,
               std::string_view typeUrl = {}) {
    const size_t first = runs_.size();
    Pop pop{runs_, first};

    std::optional<ScanFault> fault = gather(plan, bytes);
    if (fault && options_.strict) std::rethrow_exception(fault->error);
    if (plan.hasOneofs && runs_.size() - first > 1) dropClearedOneofMembers(first);
    const auto byNumber = [](const Run& a, const Run& b) { return a.number() < b.number(); };
    // Encoders write fields in number order, so sorting is rarely needed; stability keeps each
    // field's occurrences in the order of the bytes.
    const auto begin = runs_.begin() + static_cast<ptrdiff_t>(first);
    if (!std::is_sorted(begin, runs_.end(), byNumber)) {
      std::stable_sort(begin, runs_.end(), byNumber);
    }

    out_.push_back('{');
    bool any = false;
    if (!typeUrl.empty()) {
      separate(any, level + 1);
      key("@type");
      string(typeUrl);
      any = true;
    }
    size_t absent = 0;
    // Writes the fields without presence numbered below `limit` that the bytes do not hold.
    const auto defaultsBelow = [&](int64_t limit) {
      for (; absent < plan.fields.size() && plan.fields[absent].number < limit; ++absent) {
        defaultMember(plan.fields[absent], level + 1, any);
      }
    };
    for (size_t i = first; i < runs_.size();) {
      const int64_t number = runs_[i].number();
      size_t end = i + 1;
      while (end < runs_.size() && runs_[end].number() == number) ++end;
      if (options_.printDefaults) {
        defaultsBelow(number);
        if (absent < plan.fields.size() && plan.fields[absent].number == number) ++absent;
      }
      const std::string* faultText = fault && fault->fieldNumber == number ? &fault->text : nullptr;
      field(bytes, i, end, faultText, depth, level + 1, any);
      i = end;
    }
    if (options_.printDefaults) defaultsBelow(std::numeric_limits<int64_t>::max());
    if (fault && fault->fieldNumber == kNoField) {
      separate(any, level + 1);
      key(kUnreadableFieldName);
      fieldError(kUnreadableFieldName, fault->text);
      any = true;
    }
    if (any) newline(level);
    out_.push_back('}');
  }

  // A field the bytes do not hold, with its default when it has no presence of its own (a
  // repeated field, or a singular one of implicit presence).
  void defaultMember(FieldPlan& f, int level, bool& any) {
    const FieldSchemaDescribing& field = *f.field;
    if (field.oneofIndex() || field.extensionName()) return;
    if (!field.isRepeated() && !field.hasImplicitPresence()) return;
    const TypeSchemaDescription& type = field.type();
    if (field.isRepeated()) {
      separate(any, level);
      out_ += f.key;
      const bool isMap =
          type.kind() == Case::message && detail::mapEntryFields(*type.messageSchema());
      out_ += isMap ? "{}" : "[]";
    } else if (type.kind() != Case::message) {
      separate(any, level);
      out_ += f.key;
      defaultValue(type);
    } else {
      return;
    }
    any = true;
  }

  // Appends the runs of the known fields of `bytes` to runs_, in the order of the bytes. Stops at
  // the first break in the field structure and reports it.
  std::optional<ScanFault> gather(MessagePlan& plan, ByteView bytes) {
    Reader reader(bytes);
    int64_t current = kNoField;
    const size_t first = runs_.size();
    try {
      while (reader.hasMoreFields()) {
        current = kNoField;
        const FieldTag tag = reader.readTag();
        const int64_t number = tag.fieldNumber();
        if (FieldPlan* f = plan.find(number)) {
          current = number;
          if (runs_.size() > first && runs_.back().plan == f) {
            Run& run = runs_.back();
            run.lastPosition = reader.position();
            run.lastWireType = tag.wireType();
            ++run.count;
          } else {
            runs_.push_back(
                {f, reader.position(), tag.wireType(), reader.position(), tag.wireType(), 1});
          }
        }
        reader.skipField(tag);
        // Skips do not check that the bytes they step over exist.
        if (reader.position() > reader.size()) throw SerializationError::truncated();
      }
    } catch (const Error& error) {
      return ScanFault{current, error.what(), std::current_exception()};
    }
    return std::nullopt;
  }

  // Of the members of a oneof, protobuf's parse keeps the last one present: drops the runs of
  // runs_ above `first` (in the order of the bytes) that an occurrence of another member of their
  // oneof follows.
  void dropClearedOneofMembers(size_t first) {
    struct Winner {
      int32_t oneof;
      int64_t number;
      // Set once an earlier occurrence of another member has been met.
      bool closed;
    };
    std::array<Winner, 8> inlineWinners;
    std::vector<Winner> moreWinners;
    size_t winners = 0;
    const auto winnerOf = [&](int32_t oneof) -> Winner* {
      for (size_t i = 0; i < winners; ++i) {
        Winner& w =
            i < inlineWinners.size() ? inlineWinners[i] : moreWinners[i - inlineWinners.size()];
        if (w.oneof == oneof) return &w;
      }
      return nullptr;
    };
    bool dropped = false;
    for (size_t i = runs_.size(); i-- > first;) {
      Run& run = runs_[i];
      if (run.plan->oneof < 0) continue;
      Winner* winner = winnerOf(run.plan->oneof);
      if (!winner) {
        const Winner made{run.plan->oneof, run.number(), false};
        if (winners < inlineWinners.size()) {
          inlineWinners[winners] = made;
        } else {
          moreWinners.push_back(made);
        }
        ++winners;
      } else if (winner->number != run.number() || winner->closed) {
        winner->closed = true;
        run.plan = nullptr;
        dropped = true;
      }
    }
    if (!dropped) return;
    runs_.erase(std::remove_if(runs_.begin() + static_cast<ptrdiff_t>(first), runs_.end(),
                               [](const Run& run) { return run.plan == nullptr; }),
                runs_.end());
  }

  // Emits the field whose runs are runs_[begin, end) as one member, or nothing for a repeated
  // field without elements. `any` tells whether the object has members already, and becomes true
  // once this one is written.
  void field(ByteView bytes, size_t begin, size_t end, const std::string* faultText, int depth,
             int level, bool& any) {
    FieldPlan& f = *runs_[begin].plan;
    const size_t memberStart = position();
    separate(any, level);
    out_ += f.key;
    const size_t valueStart = position();
    try {
      if (faultText) {
        fieldError(f.field->name(), *faultText);
        any = true;
        return;
      }
      resolve(f);
      if (!f.repeated && !options_.printDefaults && f.field->hasImplicitPresence() &&
          lastHoldsZero(f, bytes, runs_[end - 1])) {
        // Parsed, such a field holds its default, which ProtoJSON leaves out.
        rollback(memberStart);
        return;
      }
      bool present = true;
      if (!f.repeated) {
        singular(f, bytes, begin, end, depth, level);
      } else if (f.kind() == Case::message && messagePlan(f).mapEntry) {
        map(messagePlan(f), bytes, begin, end, depth, level);
      } else {
        present = repeated(f, bytes, begin, end, depth, level);
      }
      if (!present) {
        rollback(memberStart);
        return;
      }
    } catch (const Error& error) {
      if (options_.strict) throw;
      rollback(valueStart);
      fieldError(f.field->name(), error.what());
    }
    any = true;
  }

  // Whether the last occurrence of the run is of the field's wire type and holds zero bits: the
  // default of a field without presence. A float of -0 holds other bits and stays present.
  static bool lastHoldsZero(const FieldPlan& f, ByteView bytes, const Run& last) {
    if (last.lastWireType != f.required()) return false;
    Reader reader = readerAt(bytes, last.lastPosition);
    switch (f.required()) {
      case ProtoWireType::varInt:
        return reader.readVarint() == 0;
      case ProtoWireType::fixed32:
        return reader.readFixed32() == 0;
      case ProtoWireType::fixed64:
        return reader.readFixed64() == 0;
      case ProtoWireType::lengthDelimited:
        return reader.readLength() == 0;
      default:
        return false;
    }
  }

  // Emits the value of the singular field whose runs are runs_[begin, end) as protobuf's parse
  // holds it: the last occurrence of a scalar, string or bytes; the occurrences of a message
  // merged. Every occurrence must have the field's wire type.
  void singular(FieldPlan& f, ByteView bytes, size_t begin, size_t end, int depth, int level) {
    const Run& last = runs_[end - 1];
    if (begin + 1 == end && last.count == 1) {
      Reader reader = readerAt(bytes, last.position);
      value(f, reader, last.wireType, depth, level);
      return;
    }
    forEachOccurrence(bytes, begin, end, [&](Reader&, ProtoWireType wireType) {
      if (wireType != f.required()) throw SerializationError::typeMismatch(*f.type(), wireType);
    });
    if (f.kind() != Case::message) {
      Reader reader = readerAt(bytes, last.lastPosition);
      value(f, reader, last.lastWireType, depth, level);
      return;
    }
    Bytes merged;
    forEachOccurrence(bytes, begin, end, [&](Reader& reader, ProtoWireType) {
      const ByteView payload = reader.readLengthDelimited();
      merged.insert(merged.end(), payload.begin(), payload.end());
    });
    mergedMessage(messagePlan(f), merged, depth, level);
  }

  // A message made of several occurrences, as the concatenation of their payloads `merged`:
  // parsing them one after the other is what merging them means.
  void mergedMessage(MessagePlan& plan, ByteView merged, int depth, int level) {
    detail::checkNesting(depth);
    messageValue(plan, merged, depth + 1, level);
  }

  // Whether the values of the field can fail after their text has begun: then a field of them is
  // held whole while streaming.
  bool failsInside(FieldPlan& f) {
    return f.kind() == Case::message && messagePlan(f).wellKnown != WellKnown::none;
  }

  // The packed run at the reader: a reader over its elements.
  static Reader packedElements(Reader& reader) {
    const ByteView run = reader.readLengthDelimited();
    const int64_t runEnd = reader.position();
    return reader.narrowed(runEnd - static_cast<int64_t>(run.size()), runEnd);
  }

  // Calls `each(reader, wireType)` for every occurrence of the runs_[begin, end).
  template <typename Each>
  void forEachOccurrence(ByteView bytes, size_t begin, size_t end, const Each& each) {
    for (size_t i = begin; i < end; ++i) {
      Occurrences occurrences(bytes, runs_[i]);
      do {
        Reader reader = readerAt(bytes, occurrences.position());
        each(reader, occurrences.wireType());
      } while (occurrences.next());
    }
  }

  // Throws what emitting the runs_[begin, end) of a repeated field would throw after its first
  // element: a packed run that does not end on an element boundary, an occurrence of the wrong
  // wire type, a message type that cannot be resolved or nests too deep. Returns the number of
  // elements.
  size_t checkRepeated(FieldPlan& f, ByteView bytes, size_t begin, size_t end, int depth) {
    size_t count = 0;
    forEachOccurrence(bytes, begin, end, [&](Reader& reader, ProtoWireType wireType) {
      if (wireType == ProtoWireType::lengthDelimited && f.packable()) {
        Reader elements = packedElements(reader);
        count += skipPacked(f, elements);
        if (elements.position() != elements.endPosition()) {
          throw SerializationError::malformedProtobuf();
        }
      } else if (!detail::acceptsWireType(f.kind(), wireType)) {
        throw SerializationError::typeMismatch(*f.type(), wireType);
      } else {
        ++count;
      }
    });
    if (count > 0 && f.kind() == Case::message) checkMessage(f, depth);
    return count;
  }

  void checkMessage(FieldPlan& f, int depth) {
    detail::checkNesting(depth);
    messagePlan(f);
  }

  // Emits every element of a repeated field as an array; false, with nothing emitted, when the
  // occurrences hold no element (empty packed runs).
  bool repeated(FieldPlan& f, ByteView bytes, size_t begin, size_t end, int depth, int level) {
    std::optional<Hold> hold;
    if (sink_) {
      if (checkRepeated(f, bytes, begin, end, depth) == 0) return false;
      if (failsInside(f)) hold.emplace(holds_);
    }
    const size_t arrayStart = position();
    out_.push_back('[');
    bool any = false;
    forEachOccurrence(bytes, begin, end, [&](Reader& reader, ProtoWireType wireType) {
      if (wireType == ProtoWireType::lengthDelimited && f.packable()) {
        Reader elements = packedElements(reader);
        packed(f, elements, any, level + 1);
        // An element running past the run's end has read the bytes that follow it.
        if (elements.position() != elements.endPosition()) {
          throw SerializationError::malformedProtobuf();
        }
      } else {
        separate(any, level + 1);
        any = true;
        value(f, reader, wireType, depth, level + 1);
      }
    });
    if (!any) {
      rollback(arrayStart);
      return false;
    }
    newline(level);
    out_.push_back(']');
    return true;
  }

  // Emits a map field, whose entries are the occurrences of runs_[begin, end), as an object.
  void map(MessagePlan& entryPlan, ByteView bytes, size_t begin, size_t end, int depth, int level) {
    FieldPlan& keyPlan = resolve(*entryPlan.find(1));
    FieldPlan& valuePlan = resolve(*entryPlan.find(2));

    // The keys' texts go to keys_, which nested maps share: positions, not pointers, survive its
    // growth. Entries are trivially copied records, gathered above the current top of entries_.
    const size_t keysBase = keys_.size();
    const size_t first = entries_.size();
    struct Restore {
      Renderer& renderer;
      size_t keys;
      size_t entries;
      ~Restore() {
        renderer.keys_.resize(keys);
        renderer.entries_.resize(entries);
      }
    } restore{*this, keysBase, first};
    forEachOccurrence(bytes, begin, end, [&](Reader& reader, ProtoWireType wireType) {
      if (wireType != ProtoWireType::lengthDelimited) {
        throw SerializationError::typeMismatch(*runs_[begin].plan->type(), wireType);
      }
      MapEntry entry;
      entry.bytes = reader.readLengthDelimited();
      entry.keyStart = keys_.size();
      bool hasKey = false;
      Reader fields(entry.bytes);
      // The last key and the last value win, as protobuf parses an entry; the occurrences of a
      // message value merge.
      while (fields.hasMoreFields()) {
        const FieldTag tag = fields.readTag();
        if (tag.fieldNumber() == 1) {
          keys_.resize(entry.keyStart);
          mapKey(keyPlan, fields, tag.wireType());
          hasKey = true;
        } else if (tag.fieldNumber() == 2) {
          // Checked here, before the object begins, so that no value fails halfway through it.
          if ((sink_ || entry.valueCount > 0) && tag.wireType() != valuePlan.required()) {
            throw SerializationError::typeMismatch(*valuePlan.type(), tag.wireType());
          }
          entry.valuePosition = fields.position();
          entry.valueWireType = tag.wireType();
          ++entry.valueCount;
          fields.skipField(tag);
        } else {
          fields.skipField(tag);
        }
        if (fields.position() > fields.size()) throw SerializationError::truncated();
      }
      if (!hasKey) keys_ += defaultKeyText(keyPlan.kind());
      entry.keyLength = keys_.size() - entry.keyStart;
      entries_.push_back(entry);
    });
    // The field occurs, and each occurrence is an entry: there is at least one.
    const size_t count = entries_.size() - first;
    std::optional<Hold> hold;
    if (sink_ && valuePlan.kind() == Case::message) {
      checkMessage(valuePlan, depth);
      if (failsInside(valuePlan)) hold.emplace(holds_);
    }
    const auto keyOf = [&](size_t i) {
      const MapEntry& entry = entries_[first + i];
      return std::string_view(keys_).substr(entry.keyStart, entry.keyLength);
    };
    // Of several entries with one key the last wins, where it stands. Maps are mostly small:
    // pairs are compared directly up to a few dozen entries, larger maps sort an index.
    constexpr size_t kPairwiseLimit = 32;
    if (count > 1 && count <= kPairwiseLimit) {
      for (size_t a = 0; a < count; ++a) {
        for (size_t b = a + 1; b < count; ++b) {
          if (keyOf(a) == keyOf(b)) {
            entries_[first + a].shown = false;
            break;
          }
        }
      }
    } else if (count > kPairwiseLimit) {
      std::vector<size_t> order(count);
      for (size_t i = 0; i < count; ++i) order[i] = i;
      std::stable_sort(order.begin(), order.end(),
                       [&](size_t a, size_t b) { return keyOf(a) < keyOf(b); });
      for (size_t i = 0; i + 1 < count; ++i) {
        if (keyOf(order[i]) == keyOf(order[i + 1])) entries_[first + order[i]].shown = false;
      }
    }

    out_.push_back('{');
    bool any = false;
    for (size_t i = 0; i < count; ++i) {
      const MapEntry entry = entries_[first + i];
      if (!entry.shown) continue;
      separate(any, level + 1);
      any = true;
      // Not through keyOf's view: rendering the value may grow keys_.
      key(std::string_view(keys_).substr(entry.keyStart, entry.keyLength));
      if (entry.valueCount > 1 && valuePlan.kind() == Case::message) {
        Bytes merged;
        Reader fields(entry.bytes);
        while (fields.hasMoreFields()) {
          const FieldTag tag = fields.readTag();
          if (tag.fieldNumber() != 2) {
            fields.skipField(tag);
            continue;
          }
          const ByteView payload = fields.readLengthDelimited();
          merged.insert(merged.end(), payload.begin(), payload.end());
        }
        mergedMessage(messagePlan(valuePlan), merged, depth, level + 1);
      } else if (entry.valuePosition >= 0) {
        Reader reader = readerAt(entry.bytes, entry.valuePosition);
        value(valuePlan, reader, entry.valueWireType, depth, level + 1);
      } else {
        defaultValue(*valuePlan.type());
      }
    }
    if (any) newline(level);
    out_.push_back('}');
  }

  // Emits the value of field `f` that follows a tag of `wireType` at the reader's position.
  void value(FieldPlan& f, Reader& reader, ProtoWireType wireType, int depth, int level) {
    if (wireType != f.required() && !detail::acceptsWireType(f.kind(), wireType)) [[unlikely]] {
      throw SerializationError::typeMismatch(*f.type(), wireType);
    }
    switch (f.kind()) {
      case Case::string:
        string(asText(reader.readLengthDelimited()));
        return;
      case Case::bytes:
        base64(reader.readLengthDelimited());
        return;
      case Case::message: {
        const ByteView payload = detail::readPayload(
            reader,
            FieldTag(static_cast<uint32_t>(f.number << 3) | static_cast<uint32_t>(wireType)));
        detail::checkNesting(depth);
        messageValue(messagePlan(f), payload, depth + 1, level);
        return;
      }
      default:
        element(f, reader);
    }
  }

  // Emits one value of a type whose encoding follows from the type (not string, bytes or
  // message) at the reader, straight from the wire.
  void element(const FieldPlan& f, Reader& reader) {
    detail::withFixedDecoder(f.kind(), [&](const auto& decode) { emit(f, decode(reader)); });
  }

  // Emits the elements of a packed run, each a member of the array at `level`. Numbers and bools
  // go in chunks: one capacity check, interrupt poll and flush point for each kPackedChunk
  // elements, which are decoded and formatted in a tight loop straight into the buffer.
  void packed(const FieldPlan& f, Reader& elements, bool& any, int level) {
    detail::withFixedDecoder(f.kind(), [&](const auto& decode) {
      using Value = decltype(decode(elements));
      if constexpr (std::is_same_v<Value, detail::EnumNumber>) {
        while (elements.hasMoreFields()) {
          separate(any, level);
          any = true;
          emit(f, decode(elements));
        }
      } else {
        const size_t indent = indented_ ? 1 + 2 * static_cast<size_t>(level) : 0;
        // A separator, the line break and indentation, and the longest element text.
        const size_t elementRoom = 1 + indent + kMaxElementSize;
        while (elements.hasMoreFields()) {
          separate(any, level);
          char* p = out_.room(kPackedChunk * elementRoom);
          p = writeElement(p, decode(elements));
          for (size_t i = 1; i < kPackedChunk && elements.hasMoreFields(); ++i) {
            *p++ = ',';
            if (indent) {
              *p = '\n';
              std::memset(p + 1, ' ', indent - 1);
              p += indent;
            }
            p = writeElement(p, decode(elements));
          }
          out_.advance(p);
          any = true;
        }
      }
    });
  }

  // The longest text writeElement writes: a quoted 64-bit integer, a float, "false".
  static constexpr size_t kMaxElementSize = detail::kMaxJsonNumberSize + 2;
  static constexpr size_t kPackedChunk = 64;

  static char* writeElement(char* p, int32_t v) noexcept { return detail::writeJsonInteger(p, v); }
  static char* writeElement(char* p, uint32_t v) noexcept { return detail::writeJsonInteger(p, v); }
  template <typename Integer>
  requires std::is_same_v<Integer, int64_t> || std::is_same_v<Integer, uint64_t>
  static char* writeElement(char* p, Integer v) noexcept {
    *p++ = '"';
    p = detail::writeJsonInteger(p, v);
    *p++ = '"';
    return p;
  }
  static char* writeElement(char* p, float v) noexcept { return detail::writeJsonFloat(p, v); }
  static char* writeElement(char* p, double v) noexcept { return detail::writeJsonFloat(p, v); }
  static char* writeElement(char* p, bool v) noexcept {
    if (v) {
      std::memcpy(p, "true", 4);
      return p + 4;
    }
    std::memcpy(p, "false", 5);
    return p + 5;
  }

  // Steps over the elements of a packed run; returns how many there were.
  static size_t skipPacked(const FieldPlan& f, Reader& elements) {
    return detail::withFixedDecoder(f.kind(), [&](const auto& decode) {
      size_t count = 0;
      for (; elements.hasMoreFields(); ++count) decode(elements);
      return count;
    });
  }

  void emit(const FieldPlan&, int32_t v) { number(v); }
  void emit(const FieldPlan&, uint32_t v) { number(v); }
  void emit(const FieldPlan&, int64_t v) { quotedNumber(v); }
  void emit(const FieldPlan&, uint64_t v) { quotedNumber(v); }
  void emit(const FieldPlan&, float v) { floatingPoint(v); }
  void emit(const FieldPlan&, double v) { floatingPoint(v); }
  void emit(const FieldPlan&, bool v) { out_ += v ? "true" : "false"; }
  void emit(const FieldPlan& f, detail::EnumNumber v) {
    enumValue(*f.type()->enumSchema(), v.number);
  }

  // A message value at `depth`: a well-known type in its own JSON form, any other as an object.
  void messageValue(MessagePlan& plan, ByteView bytes, int depth, int level) {
    switch (plan.wellKnown) {
      case WellKnown::none:
        return message(plan, bytes, depth, level);
      case WellKnown::timestamp:
        return string(detail::formatTimestamp(secondsAndNanos(plan, bytes)));
      case WellKnown::duration:
        return string(detail::formatDuration(secondsAndNanos(plan, bytes)));
      case WellKnown::wrapper:
        return wrapper(plan, bytes, depth, level);
      case WellKnown::fieldMask:
        return fieldMask(plan, bytes);
      case WellKnown::any:
        return anyMessage(plan, bytes, depth, level);
      case WellKnown::structType:
      case WellKnown::value:
      case WellKnown::listValue: {
        const Hold hold(holds_);
        return structured(plan, bytes, depth, level);
      }
    }
  }

  // The runs of the fields of a well-known type's message, gathered above the current top; a
  // break in its structure fails the whole value.
  void gatherWhole(MessagePlan& plan, ByteView bytes) {
    if (const std::optional<ScanFault> fault = gather(plan, bytes)) {
      throw SchematizerError::protocolBufferError(plan.schema->name() + ": " + fault->text);
    }
  }

  // The last run of field `number` among runs_[first, end): its last occurrence is the one
  // protobuf's parse keeps.
  const Run* find(size_t first, int64_t number) const {
    for (size_t i = runs_.size(); i-- > first;) {
      if (runs_[i].number() == number) return &runs_[i];
    }
    return nullptr;
  }

  std::optional<detail::AnyValueImpl> fieldValue(ByteView bytes, size_t first, int64_t number) {
    const Run* run = find(first, number);
    if (!run) return std::nullopt;
    Reader reader = readerAt(bytes, run->lastPosition);
    return decodeValue(reader, run->plan->field->type(), run->lastWireType);
  }

  detail::SecondsAndNanos secondsAndNanos(MessagePlan& plan, ByteView bytes) {
    const size_t first = runs_.size();
    Pop pop{runs_, first};
    gatherWhole(plan, bytes);
    detail::SecondsAndNanos result;
    if (const auto seconds = fieldValue(bytes, first, 1)) result.seconds = seconds->int64Value();
    if (const auto nanos = fieldValue(bytes, first, 2)) result.nanos = nanos->int32Value();
    return result;
  }

  void wrapper(MessagePlan& plan, ByteView bytes, int depth, int level) {
    const size_t first = runs_.size();
    Pop pop{runs_, first};
    gatherWhole(plan, bytes);
    if (const Run* run = find(first, 1)) {
      Reader reader = readerAt(bytes, run->lastPosition);
      value(resolve(*run->plan), reader, run->lastWireType, depth, level);
    } else {
      defaultValue(plan.schema->fieldWithNumber(1)->type());
    }
  }

  void fieldMask(MessagePlan& plan, ByteView bytes) {
    const size_t first = runs_.size();
    Pop pop{runs_, first};
    gatherWhole(plan, bytes);
    std::string paths;
    bool any = false;
    forEachOccurrence(bytes, first, runs_.size(), [&](Reader& reader, ProtoWireType wireType) {
      const detail::AnyValueImpl path =
          decodeValue(reader, runs_[first].plan->field->type(), wireType);
      const std::optional<std::string> json = detail::fieldMaskPathToJson(path.stringValue());
      if (!json) {
        throw SchematizerError::unexpectedType("google.protobuf.FieldMask path " +
                                               detail::jsonString(path.stringValue()) +
                                               " has no JSON form");
      }
      if (any) paths.push_back(',');
      any = true;
      paths += *json;
    });
    string(paths);
  }

  void anyMessage(MessagePlan& plan, ByteView bytes, int depth, int level) {
    const size_t first = runs_.size();
    Pop pop{runs_, first};
    gatherWhole(plan, bytes);
    const std::optional<detail::AnyValueImpl> url = fieldValue(bytes, first, 1);
    const Run* value = find(first, 2);
    if (!url || url->stringValue().empty()) {
      if (value && !readerAt(bytes, value->lastPosition).readLengthDelimited().empty()) {
        throw SchematizerError::unexpectedType("google.protobuf.Any without a type URL");
      }
      out_ += "{}";
      return;
    }
    const std::string& typeUrl = url->stringValue();
    MessagePlan& packed = anyType(plan, typeUrl);
    const ByteView packedBytes =
        value ? readerAt(bytes, value->lastPosition).readLengthDelimited() : ByteView{};
    detail::checkNesting(depth);
    if (packedBytes.empty()) {
      // An empty message is "@type" alone, as libprotobuf writes it: no defaults, no "value".
      out_.push_back('{');
      newline(level + 1);
      key("@type");
      string(typeUrl);
      newline(level);
      out_.push_back('}');
      return;
    }
    if (packed.wellKnown == WellKnown::none) {
      message(packed, packedBytes, depth + 1, level, typeUrl);
      return;
    }

    out_.push_back('{');
    newline(level + 1);
    key("@type");
    string(typeUrl);
    out_.push_back(',');
    newline(level + 1);
    key("value");
    messageValue(packed, packedBytes, depth + 1, level + 1);
    newline(level);
    out_.push_back('}');
  }

  // The plan of the type an Any's URL names. The store is asked once per URL and Any schema.
  MessagePlan& anyType(const MessagePlan& any, const std::string& typeUrl) {
    const auto it = anyTypes_.find(typeUrl);
    if (it != anyTypes_.end() && it->second.first == any.schema) return *it->second.second;
    anySchemas_.push_back(detail::anyType(*any.schema, typeUrl));
    MessagePlan& packed = plan(*anySchemas_.back());
    anyTypes_.insert_or_assign(typeUrl, std::pair(any.schema, &packed));
    return packed;
  }

  // Struct, Value and ListValue: the JSON they stand for.
  void structured(MessagePlan& plan, ByteView bytes, int depth, int level) {
    const size_t first = runs_.size();
    Pop pop{runs_, first};
    gatherWhole(plan, bytes);
    if (plan.wellKnown == WellKnown::structType) {
      FieldPlan* fields = plan.find(1);
      if (!fields || !resolve(*fields).type()->messageSchema() || !messagePlan(*fields).mapEntry) {
        throw SchematizerError::internalError("google.protobuf.Struct without map");
      }
      if (first == runs_.size()) {
        out_ += "{}";
      } else {
        map(messagePlan(*fields), bytes, first, runs_.size(), depth, level);
      }
    } else if (plan.wellKnown == WellKnown::listValue) {
      if (first == runs_.size() ||
          !repeated(resolve(*runs_[first].plan), bytes, first, runs_.size(), depth, level)) {
        out_ += "[]";
      }
    } else {
      // Of the kinds of a Value (a oneof), the last in the bytes is the one set.
      if (first == runs_.size()) {
        throw SchematizerError::unexpectedType("google.protobuf.Value with no kind set");
      }
      const Run& kindRun = runs_.back();
      FieldPlan& kindField = resolve(*kindRun.plan);
      Reader reader = readerAt(bytes, kindRun.lastPosition);
      if (kindField.kind() == Case::message) {
        // A struct_value or list_value in several occurrences in a row merges.
        singular(kindField, bytes, runs_.size() - 1, runs_.size(), depth, level);
      } else if (kindField.number == 2) {
        const double number =
            decodeValue(reader, *kindField.type(), kindRun.lastWireType).doubleValue();
        if (!std::isfinite(number)) {
          throw SchematizerError::unexpectedType("google.protobuf.Value number " +
                                                 std::to_string(number) + " has no JSON form");
        }
        floatingPoint(number);
      } else {
        value(kindField, reader, kindRun.lastWireType, depth, level);
      }
    }
  }

  void scalar(const detail::AnyValueImpl& value) {
    switch (value.kind()) {
      case detail::AnyValueImpl::Case::int32:
        number(value.int32Value());
        return;
      case detail::AnyValueImpl::Case::uint32:
        number(value.uint32Value());
        return;
      case detail::AnyValueImpl::Case::int64:
        quotedNumber(value.int64Value());
        return;
      case detail::AnyValueImpl::Case::uint64:
        quotedNumber(value.uint64Value());
        return;
      case detail::AnyValueImpl::Case::float_:
        floatingPoint(value.floatValue());
        return;
      case detail::AnyValueImpl::Case::double_:
        floatingPoint(value.doubleValue());
        return;
      case detail::AnyValueImpl::Case::bool_:
        out_ += value.boolValue() ? "true" : "false";
        return;
      case detail::AnyValueImpl::Case::enum_:
        enumValue(*value.enumValue().type, value.enumValue().number());
        return;
      case detail::AnyValueImpl::Case::string:
        string(value.stringValue());
        return;
      case detail::AnyValueImpl::Case::bytes:
      case detail::AnyValueImpl::Case::message:
        break;
    }
    throw SchematizerError::internalError("JSON rendering of " + value.describe());
  }

  void enumValue(const EnumSchemaDescribing& schema, int64_t value) {
    if (&schema != lastEnum_) {
      lastEnum_ = &schema;
      lastEnumIsNull_ = schema.name() == "google.protobuf.NullValue";
    }
    if (lastEnumIsNull_) {
      out_ += "null";
    } else if (const std::string* name =
                   options_.enumsAsNumbers ? nullptr : schema.findValueNameFor(value)) {
      string(*name);
    } else {
      number(value);
    }
  }

  // The value a field of `type` has when the bytes do not hold it.
  void defaultValue(const TypeSchemaDescription& type) {
    if (type.kind() == Case::enum_) {
      enumValue(*type.enumSchema(), 0);
    } else if (type.kind() == Case::message) {
      // The JSON forms of the well-known types' empty messages: "{}" for most, but a Timestamp is
      // the epoch, a wrapper its default, a ListValue "[]".
      MessagePlan& messagePlan = plan(*type.messageSchema());
      if (messagePlan.wellKnown == WellKnown::none) {
        out_ += "{}";
      } else {
        messageValue(messagePlan, ByteView{}, detail::kMaxMessageNesting - 1, 0);
      }
    } else {
      out_ += detail::factsOf(type.kind()).jsonDefault;
    }
  }

  // Appends the text of the map key after a tag of `wireType` at the reader to keys_: a string
  // as it is (invalid UTF-8 replaced), an integer in decimal, a bool as "true" or "false".
  void mapKey(const FieldPlan& keyPlan, Reader& fields, ProtoWireType wireType) {
    if (wireType != keyPlan.required()) {
      throw SerializationError::typeMismatch(*keyPlan.type(), wireType);
    }
    if (keyPlan.kind() == Case::string) {
      const std::string_view text = asText(fields.readLengthDelimited());
      if (detail::isUtf8(text)) {
        keys_ += text;
      } else {
        keys_ += decodeUtf8Lossy(asBytes(text));
      }
      return;
    }
    detail::withFixedDecoder(keyPlan.kind(), [&](const auto& decode) {
      const auto key = decode(fields);
      using Key = std::decay_t<decltype(key)>;
      if constexpr (std::is_same_v<Key, bool>) {
        keys_ += key ? "true" : "false";
      } else if constexpr (std::is_integral_v<Key>) {
        char digits[detail::kMaxJsonNumberSize];
        keys_.append(digits, detail::writeJsonInteger(digits, key));
      } else {
        throw SchematizerError::internalError("JSON map key of " + keyPlan.type()->describe());
      }
    });
  }

  static std::string defaultKeyText(Case kind) {
    if (kind == Case::string) return "";
    return kind == Case::bool_ ? "false" : "0";
  }

  template <typename Integer>
  void number(Integer value) {
    out_.advance(detail::writeJsonInteger(out_.room(detail::kMaxJsonNumberSize), value));
  }

  template <typename Integer>
  void quotedNumber(Integer value) {
    char* p = out_.room(detail::kMaxJsonNumberSize + 2);
    *p++ = '"';
    p = detail::writeJsonInteger(p, value);
    *p++ = '"';
    out_.advance(p);
  }

  template <typename Float>
  void floatingPoint(Float value) {
    out_.advance(detail::writeJsonFloat(out_.room(detail::kMaxJsonNumberSize), value));
  }

  void string(std::string_view text) {
    // Escaping needs room for the worst case, six characters a byte; long texts go through a
    // scratch string instead, so that the buffer does not grow by six times their size.
    if (text.size() <= kFlushSize) {
      if (char* end =
              detail::writeJsonString(out_.room(detail::maxJsonStringSize(text.size())), text)) {
        out_.advance(end);
        return;
      }
    }
    scratch_.clear();
    detail::appendJsonString(scratch_, text);
    out_ += scratch_;
  }

  void base64(ByteView bytes) {
    char* p = out_.room(detail::base64Size(bytes.size()) + 2);
    *p++ = '"';
    p = detail::writeBase64(p, bytes);
    *p++ = '"';
    out_.advance(p);
  }

  // The text of a field that failed, logged and emitted as the field's value.
  void fieldError(std::string_view fieldName, std::string_view errorText) {
    std::string text = "Sch: Error encoding ";
    text += fieldName;
    text += ": ";
    text += errorText;
    detail::log(text);
    string(text);
  }

  // An extension as "[its.full.name]", whatever the naming option; the message's own fields by
  // their declared or their JSON names.
  std::string memberName(const FieldSchemaDescribing& field) const {
    if (const std::optional<std::string>& extension = field.extensionName()) {
      return detail::extensionMemberName(*extension);
    }
    return options_.jsonNames ? field.jsonName() : field.name();
  }

  // Appends the key `name` and its colon to `to`.
  void key(std::string& to, std::string_view name) const {
    detail::appendJsonString(to, name);
    to += indented_ ? ": " : ":";
  }

  void key(std::string_view name) {
    string(name);
    out_ += indented_ ? ": " : ":";
  }

  // Starts a member or element at `level`: a comma after an earlier one, then the line break.
  // Where the sink takes the text: nothing written so far can be withdrawn past this point.
  void separate(bool any, int level) {
    detail::pollInterrupt();
    if (sink_ && holds_ == 0 && out_.size() >= kFlushSize) {
      (*sink_)(out_.view());
      flushed_ += out_.size();
      out_.clear();
    }
    if (any) out_.push_back(',');
    newline(level);
  }

  void newline(int level) {
    if (!indented_) return;
    out_.push_back('\n');
    out_.append(static_cast<size_t>(2 * level), ' ');
  }

  // Where the text stands, counting what the sink has taken.
  size_t position() const noexcept { return flushed_ + out_.size(); }

  void rollback(size_t to) {
    if (to < flushed_) {
      throw SchematizerError::internalError("JSON rendering: a failed field was streamed already");
    }
    out_.resize(to - flushed_);
  }

  Output out_;
  // For texts too long to escape in place.
  std::string scratch_;
  const JsonOptions& options_;
  const bool indented_;
  const JsonSink* const sink_;
  // The text handed to the sink so far.
  size_t flushed_ = 0;
  // While above zero, the text stays in the buffer.
  int holds_ = 0;
  // The gathered runs of the messages being rendered, innermost last.
  std::vector<Run> runs_;
  // The entries and key texts of the maps being rendered, innermost last.
  std::vector<MapEntry> entries_;
  std::string keys_;
  // The packed types of Any values by type URL, and the schemas they came from, kept alive.
  std::unordered_map<std::string, std::pair<const MessageSchemaDescribing*, MessagePlan*>>
      anyTypes_;
  std::vector<std::shared_ptr<MessageSchemaDescribing>> anySchemas_;
  std::unordered_map<const MessageSchemaDescribing*, std::unique_ptr<MessagePlan>> plans_;
  const MessageSchemaDescribing* lastSchema_ = nullptr;
  MessagePlan* lastPlan_ = nullptr;
  const EnumSchemaDescribing* lastEnum_ = nullptr;
  bool lastEnumIsNull_ = false;
};

}  // namespace

std::string renderJSON(const SchematizedDataDescribing& data, const JsonOptions& options) {
  const ByteView bytes = data.bytes();
  std::string out;
  // Protobuf's binary form is compact: JSON text of the same data is typically one to three times
  // as long.
  out.reserve(2 * bytes.size() + 16);
  Renderer renderer(out, options);
  renderer.topLevel(*data.messageSchema(), bytes);
  renderer.finish();
  return out;
}

std::string renderJSON(const SchematizedData& data, const JsonOptions& options) {
  return renderJSON(data.unsafe(), options);
}

void renderJSON(const SchematizedDataDescribing& data, const JsonSink& sink,
                const JsonOptions& options) {
  // The buffer is sized for the record's text, whose room is zero-filled once: a small record
  // must not pay for the flush size. Larger texts grow it, up to about the flush size.
  std::string buffer;
  buffer.reserve(std::min(kFlushSize + kFlushSize / 4, 2 * data.bytes().size() + 256));
  Renderer renderer(buffer, options, &sink);
  renderer.topLevel(*data.messageSchema(), data.bytes());
  renderer.finish();
}

void renderJSON(const SchematizedData& data, const JsonSink& sink, const JsonOptions& options) {
  renderJSON(data.unsafe(), sink, options);
}

std::string renderJSON(const AnyValue& value, const JsonOptions& options) {
  const detail::AnyValueImpl impl = value.impl();
  std::string out;
  Renderer renderer(out, options);
  renderer.anyValue(impl);
  renderer.finish();
  return out;
}

}  // namespace ostrel
