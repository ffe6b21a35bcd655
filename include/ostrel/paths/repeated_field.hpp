#pragma once

// Iterating a repeated field named by a property path: the elements of "items" or of
// "orders[2].items", or the entries of a map, read from records in place.

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "ostrel/core/values.hpp"
#include "ostrel/store/schemas.hpp"
#include "ostrel/wire/schematizer.hpp"

namespace ostrel {

namespace detail {
struct RepeatedFieldPlan;
}

// A repeated field (or map field) named by a property path, resolved once against a message
// schema; elements() then iterates it in any number of records:
//
//   const RepeatedField items(orderSchema, "items");
//   for (const RepeatedField::Element& item : items.elements(record)) use(item.value);
//
//   const RepeatedField attributes(orderSchema, "attributes");  // map<string, string>
//   for (const auto& [key, value] : attributes.elements(record)) use(*key, value);
//
// The path's last component names the repeated field, without an index; what comes before it is
// a property path to the message holding the field ("orders[2].items"). Immutable once made: it
// may be shared between threads, each iterating its own records.
class RepeatedField {
 public:
  // One element: its value, and for a map entry its key. A map entry that leaves out its key or
  // its value holds the default of the field's type there (0, false, "", empty bytes, the enum's
  // value 0, an empty message), as protobuf's parse reads it.
  struct Element {
    std::optional<AnyValue> key;
    AnyValue value;

    // The key as a JSON object member name writes it: an integer in decimal, a bool as "true" or
    // "false", a string as it is. Throws SchematizerError::unexpectedType when there is no key.
    std::string keyText() const;
  };

  class Elements;

  // Resolves `path` against `schema`. Throws PropertyPathUtil::Error for a malformed path, the
  // errors of resolvePropertyPath for the way to the holding message (nonMessageTypeInKeypath when
  // it does not lead to a message), SchematizerError::fieldNotFound when that message has no field
  // of the last name, and SchematizerError::unexpectedType
  // ("\"customer.name\" is not a repeated field: name one without an index") when the path names
  // a field that is not repeated, or one element of a repeated field.
  RepeatedField(const MessageSchema& schema, std::string_view path);

  // The path as given.
  const std::string& path() const noexcept;
  // The repeated field itself.
  const FieldSchema& field() const noexcept;
  // The message of `record` holding the field, in place: the record itself for a field of the
  // top-level message, else the first occurrence of the message the path leads to; no value when
  // the record lacks that message. For hosts that read the field's elements their own way.
  std::optional<ByteView> holderIn(ByteView record) const;
  // Whether the field is a map: elements then have keys.
  bool isMap() const noexcept;

  // The elements of the field in `record` (an encoded message of the schema), in the order of the
  // bytes; none when the record does not hold the field or the message holding it. The range
  // borrows `record`: valid while that buffer is alive and unchanged. Elements are read one at a
  // time, as the range is walked.
  //
  // With ReadMode::first (the default) the first occurrence of each message on the way is read,
  // and the encoding of the field's first occurrence decides: a packed run is iterated to its end
  // and nothing after it, so element i is what the single read of path[i] gives. With
  // ReadMode::exact every element of protobuf's parse of the record is visited, packed runs and
  // tagged elements alike, in a holding message merged from all its occurrences.
  Elements elements(ByteView record, ReadMode mode = ReadMode::first) const;

 private:
  std::shared_ptr<const detail::RepeatedFieldPlan> plan_;
};

// The elements of one repeated field in one record: an input range, walked once. A fault in the
// bytes is thrown by next() (from the range's ++ and begin()) as SerializationError; the elements
// read before it stand. Move-only: it may hold the holding message merged from several
// occurrences.
class RepeatedField::Elements {
 public:
  Elements(Elements&&) noexcept = default;
  Elements& operator=(Elements&&) noexcept = default;
  Elements(const Elements&) = delete;
  Elements& operator=(const Elements&) = delete;
  ~Elements();

  // The next element; no value once the field is exhausted (and from then on). A failure leaves
  // the range as it was, so calling again repeats the failing step.
  std::optional<Element> next();

  class Iterator {
   public:
    using iterator_category = std::input_iterator_tag;
    using value_type = Element;
    using difference_type = std::ptrdiff_t;
    using pointer = const Element*;
    using reference = const Element&;

    Iterator() = default;
    explicit Iterator(Elements* owner) : owner_(owner) { ++*this; }
    const Element& operator*() const { return *current_; }
    const Element* operator->() const { return &*current_; }
    Iterator& operator++() {
      current_ = owner_->next();
      if (!current_) owner_ = nullptr;
      return *this;
    }
    void operator++(int) { ++*this; }
    friend bool operator==(const Iterator& a, const Iterator& b) { return a.owner_ == b.owner_; }

   private:
    Elements* owner_ = nullptr;
    std::optional<Element> current_;
  };

  Iterator begin() { return Iterator(this); }
  Iterator end() { return Iterator(); }

 private:
  friend class RepeatedField;
  Elements(std::shared_ptr<const detail::RepeatedFieldPlan> plan, ByteView record, ReadMode mode);

  std::shared_ptr<const detail::RepeatedFieldPlan> plan_;
  ReadMode mode_;
  // The message holding the field: inside the record, or in merged_.
  ByteView holder_;
  Bytes merged_;
  std::optional<Schematizer::RepeatableFieldIterator::Bookmark> bookmark_;
  // Reading the holding message is the first step, so that its faults come from next() too.
  bool started_ = false;
  bool done_ = false;
};

}  // namespace ostrel
