#pragma once

// Reading single values out of encoded bytes without building a message: by field number, by a
// chain of field numbers through nested messages, and element by element through a repeated
// field. Values leave as AnyValue, self-contained copies.

#include <cstddef>
#include <cstdint>
#include <exception>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "ostrel/core/values.hpp"
#include "ostrel/store/schemas.hpp"

namespace ostrel {

// One step of a field path: the field with a number, read as a single field, or element `index`
// (from 0) of a repeated field.
struct FieldPathComponent {
  int64_t number = 0;
  std::optional<int64_t> index;

  static FieldPathComponent fieldNumber(int64_t number) { return {number, std::nullopt}; }
  static FieldPathComponent repeatableFieldNumber(int64_t number, int64_t index) {
    return {number, index};
  }
  bool isRepeatable() const noexcept { return index.has_value(); }

  friend bool operator==(const FieldPathComponent&, const FieldPathComponent&) = default;
};

// A path from the outermost message inward (every component but the last names a message field)
// and the declared type of the last field, which decides how the final value is decoded.
struct FieldPathAndType {
  std::vector<FieldPathComponent> fieldPath;
  TypeSchemaDescription type;
};

class Schematizer {
 public:
  // The first occurrence of field `fieldNumber` in `data`, decoded as `type`; no value when the
  // field does not occur. Throws SerializationError for malformed bytes or a wire type that does
  // not fit `type`.
  static std::optional<AnyValue> value(ByteView data, int64_t fieldNumber, const TypeSchema& type);

  // The value at a chain of field numbers through nested messages (the first occurrence at each
  // step), decoded as `type`, the declared type of the last field. Throws
  // SchematizerError::protocolBufferError "invalid fieldPath" for an empty chain, and the errors
  // of navigation.
  static std::optional<AnyValue> value(ByteView data, std::span<const int64_t> fieldNumbers,
                                       const TypeSchema& type);

  // Hands out the elements of one repeated field, one at a time, resuming where the previous
  // element ended: n elements cost one pass over the message. The encoding met at the field's
  // first occurrence fixes the iteration: a packed run is iterated to its end and later
  // occurrences are never visited; a tagged element makes every later occurrence a single value
  // (so a packed run met later fails with typeMismatch). A packed run ends the iteration exactly
  // at its end; an element running over that end throws SerializationError::malformedProtobuf.
  // With ReadMode::exact every occurrence is visited instead, packed runs and tagged elements
  // alike, as protobuf's parse gathers the elements of a repeated field.
  //
  // Also an input range: `for (const AnyValue& v : iterator)` (a failure is thrown from ++).
  class RepeatableFieldIterator {
   public:
    enum class ArrayType : uint8_t { compacted, regular };
    struct Bookmark {
      ArrayType arrayType;
      // The end (exclusive) of the packed run, for compacted.
      int64_t compactedEndPosition = 0;
      // Where the next element, or the search for it, starts.
      int64_t startPosition = 0;
    };
    struct IterationState {
      std::optional<Bookmark> bookmark;
      OwnedData data;
      int64_t fieldNumber;
      TypeSchema type;
      ReadMode mode = ReadMode::first;
    };
    struct Done {};
    using State = std::variant<IterationState, Done>;

    // Iterates field `fieldNumber` of `data`, sharing the buffer.
    RepeatableFieldIterator(OwnedData data, int64_t fieldNumber, TypeSchema elementType,
                            ReadMode mode = ReadMode::first);
    // Iterates field `fieldNumber` of a copy of `data`.
    RepeatableFieldIterator(ByteView data, int64_t fieldNumber, TypeSchema elementType,
                            ReadMode mode = ReadMode::first)
        : RepeatableFieldIterator(OwnedData(toBytes(data)), fieldNumber, std::move(elementType),
                                  mode) {}

    // The next element; no value once the field is exhausted (and from then on). A failure is
    // thrown and leaves the state as it was, so calling again repeats the failing step.
    std::optional<AnyValue> next();

    const State& state() const noexcept { return state_; }
    bool isDone() const noexcept { return std::holds_alternative<Done>(state_); }

    class Iterator {
     public:
      using iterator_category = std::input_iterator_tag;
      using value_type = AnyValue;
      using difference_type = std::ptrdiff_t;
      using pointer = const AnyValue*;
      using reference = const AnyValue&;

      Iterator() = default;
      explicit Iterator(RepeatableFieldIterator* owner) : owner_(owner) { ++*this; }
      const AnyValue& operator*() const { return *current_; }
      const AnyValue* operator->() const { return &*current_; }
      Iterator& operator++() {
        current_ = owner_->next();
        if (!current_) owner_ = nullptr;
        return *this;
      }
      void operator++(int) { ++*this; }
      friend bool operator==(const Iterator& a, const Iterator& b) { return a.owner_ == b.owner_; }

     private:
      RepeatableFieldIterator* owner_ = nullptr;
      std::optional<AnyValue> current_;
    };

    Iterator begin() { return Iterator(this); }
    Iterator end() { return Iterator(); }

   private:
    std::optional<AnyValue> step(IterationState& state) const;

    State state_;
  };
};

// Tells which member of a set of fields (such as the members of a oneof) is present in encoded
// bytes.
class ProtoFirstOfHelper {
 public:
  // The number of the first field, in encoding order, of the message at `path` (a chain of field
  // numbers through nested messages, possibly empty) whose number is in `fieldNumbers`; no value
  // when none occurs or the path does not reach a message. The first present member wins, whatever
  // follows. Throws SchematizerError::protocolBufferError "Unexpected PB type reading message: "
  // and the wire type's name when a path field is not length-delimited, and the reader's faults.
  static std::optional<int64_t> firstOf(const std::set<int64_t>& fieldNumbers,
                                        std::span<const int64_t> path, ByteView data);
};

// Reading many values from many records: a projection reads a set of property paths from a record
// in one pass over its bytes; typed reads return one scalar without building an AnyValue; and
// DelimitedRecords splits a stream of length-prefixed records. All three borrow the record's bytes
// and allocate nothing for scalar values.

namespace detail {
struct ProjectionPlan;
struct ProjectionCells;
}

class ProjectionRow;

// A set of property paths compiled once against a message schema: paths that share a prefix share
// its walk, so a nested message is entered once however many paths go into it. Reading a record
// walks its bytes once and stops as soon as every path has its answer.
//
// Each path's answer is exactly what the single read of that path gives (SchematizedData::value):
// the same value, the same absence, the same error, in the projection's ReadMode. With
// ReadMode::first (the default) the first occurrence of a field wins; an index counts the tagged
// elements met first and then the elements of the first packed run; a fault in the bytes belongs
// to the paths whose single read would have met it and to no other, so a record damaged after the
// fields a path needs still answers that path. With ReadMode::exact each path is read as
// SchematizedData::value(path, ReadMode::exact) reads it, one after the other.
//
// A projection is immutable and may be shared between threads (see ostrel/store/schemas.hpp); each
// thread reads into its own row.
class Projection {
 public:
  // Resolves every path against `schema` (as resolvePropertyPath does) and merges them. Throws the
  // resolution error of the first path that does not resolve; nothing is built then.
  Projection(const MessageSchema& schema, std::span<const std::string> paths,
             ReadMode mode = ReadMode::first);
  Projection(const MessageSchema& schema, std::initializer_list<std::string_view> paths,
             ReadMode mode = ReadMode::first);

  // How many paths, in the order given.
  size_t size() const noexcept;
  // Path `i` as given, and as resolved.
  const std::string& pathText(size_t i) const;
  const FieldPathAndType& path(size_t i) const;

  // Reads every path from `record` into `row`, replacing what the row held. Faults in the bytes
  // are not thrown: they are kept in the row as the answers of the paths they affect. The row
  // borrows from `record` (strings, bytes, messages): valid while that buffer is alive and
  // unchanged (and, for a message merged from several occurrences by an exact read, until the
  // row's next read). `row` must have been made by this projection (makeRow, or a copy of one).
  void read(ByteView record, ProjectionRow& row) const;

  // A row for this projection's reads. Reusing one row for every record allocates nothing.
  ProjectionRow makeRow() const;

 private:
  std::shared_ptr<const detail::ProjectionPlan> plan_;
};

// The answers of one projection read, one per path, by the path's position in the projection.
class ProjectionRow {
 public:
  enum class State : uint8_t { absent, present, failed };

  size_t size() const noexcept { return cells_.size(); }
  State state(size_t i) const { return cells_.at(i).state; }
  // Whether any path failed.
  bool failed() const noexcept { return failures_ > 0; }

  // The answer of path `i` as the single read gives it: the value, no value, or the error thrown.
  std::optional<AnyValue> value(size_t i) const;
  // The error of a failed path (rethrow it with std::rethrow_exception); null otherwise.
  std::exception_ptr error(size_t i) const;
  // The kind of value path `i` yields (whether or not it is present).
  AnyValue::Case kind(size_t i) const;

  // Typed answers without an AnyValue: no value when absent, the error rethrown when failed, and
  // SchematizerError::unexpectedType ("expected int64 value, found string") when the path's values
  // are of another kind. Enum values give their number.
  std::optional<int32_t> int32Value(size_t i) const;
  std::optional<uint32_t> uint32Value(size_t i) const;
  std::optional<int64_t> int64Value(size_t i) const;
  std::optional<uint64_t> uint64Value(size_t i) const;
  std::optional<float> floatValue(size_t i) const;
  std::optional<double> doubleValue(size_t i) const;
  std::optional<bool> boolValue(size_t i) const;
  std::optional<int64_t> enumNumber(size_t i) const;
  // The encoded payload of a string, bytes or message value, borrowed from the record: a string's
  // bytes as encoded, not checked as UTF-8 (value() decodes them as the single read does).
  std::optional<ByteView> payload(size_t i) const;

 private:
  friend class Projection;
  friend struct detail::ProjectionPlan;
  // The columnar projection's reads of the cells it has already checked the kinds of.
  friend struct detail::ProjectionCells;

  struct Cell {
    State state = State::absent;
    union {
      int32_t i32;
      uint32_t u32;
      int64_t i64;
      uint64_t u64;
      float f32;
      double f64;
      bool b;
    } scalar{};
    ByteView payload;
  };

  const Cell& checkedCell(size_t i, AnyValue::Case wanted) const;

  std::shared_ptr<const detail::ProjectionPlan> plan_;
  std::vector<Cell> cells_;
  std::vector<std::exception_ptr> errors_;
  size_t failures_ = 0;
  // Scratch of a read: per node of the plan, the elements still to count and whether it is done.
  std::vector<int64_t> remaining_;
  std::vector<uint8_t> done_;
  // Exact reads: per path, the message merged from several occurrences.
  std::vector<Bytes> merged_;
};

// Typed reads of one scalar through a path resolved beforehand: the value as its C++ type, without
// an AnyValue in between. Same answers and faults as SchematizedData::value(path), and
// SchematizerError::unexpectedType ("expected int64 value, found string") when the path's declared
// type gives values of another kind (sint64 and sfixed64 give int64, fixed32 uint32, and so on;
// readEnumNumber is for enum fields).
std::optional<int32_t> readInt32(ByteView data, const FieldPathAndType& path);
std::optional<uint32_t> readUInt32(ByteView data, const FieldPathAndType& path);
std::optional<int64_t> readInt64(ByteView data, const FieldPathAndType& path);
std::optional<uint64_t> readUInt64(ByteView data, const FieldPathAndType& path);
std::optional<float> readFloat(ByteView data, const FieldPathAndType& path);
std::optional<double> readDouble(ByteView data, const FieldPathAndType& path);
std::optional<bool> readBool(ByteView data, const FieldPathAndType& path);
std::optional<int64_t> readEnumNumber(ByteView data, const FieldPathAndType& path);

// Records one after another, each preceded by its length as a varint (as writeDelimitedTo writes
// them). The records borrow from the stream: valid while its buffer is alive and unchanged.
class DelimitedRecords {
 public:
  explicit DelimitedRecords(ByteView stream) noexcept : stream_(stream) {}

  // The next record, or no value at the end of the stream. A length prefix that is malformed or
  // claims more bytes than are left throws SerializationError::malformedProtobuf or truncated;
  // the stream cannot be followed past it, and every later call throws the same.
  std::optional<ByteView> next();

  // Where the next record's length prefix starts (the end of the stream once it is used up).
  int64_t position() const noexcept { return position_; }
  // How many records next() has returned.
  int64_t count() const noexcept { return count_; }

 private:
  ByteView stream_;
  int64_t position_ = 0;
  int64_t count_ = 0;
};

}  // namespace ostrel
