#pragma once

// Reading single values out of encoded bytes without building a message: by field number, by a
// chain of field numbers through nested messages, and element by element through a repeated
// field. Values leave as AnyValue, self-contained copies.

#include <cstddef>
#include <cstdint>
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

}  // namespace ostrel
