#pragma once

// Reading many values from many records: a projection reads a set of property paths from a record
// in one pass over its bytes, and the typed reads return one scalar through a resolved path without
// building an AnyValue. Both borrow the record's bytes and allocate nothing for scalar values.

#include <cstddef>
#include <cstdint>
#include <exception>
#include <initializer_list>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "ostrel/core/values.hpp"
#include "ostrel/store/schemas.hpp"
#include "ostrel/wire/schematizer.hpp"

namespace ostrel {

namespace detail {
struct ProjectionPlan;
struct ProjectionCells;
}  // namespace detail

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
  AnyValue::Case kind(size_t i) const { return cells_.at(i).kind; }

  // Typed answers without an AnyValue: no value when absent, the error rethrown when failed, and
  // SchematizerError::unexpectedType ("expected int64 value, found string") when the path's values
  // are of another kind. Enum values give their number.
  std::optional<int32_t> int32Value(size_t i) const {
    return scalarValue(i, AnyValue::Case::int32, &Scalar::i32);
  }
  std::optional<uint32_t> uint32Value(size_t i) const {
    return scalarValue(i, AnyValue::Case::uint32, &Scalar::u32);
  }
  std::optional<int64_t> int64Value(size_t i) const {
    return scalarValue(i, AnyValue::Case::int64, &Scalar::i64);
  }
  std::optional<uint64_t> uint64Value(size_t i) const {
    return scalarValue(i, AnyValue::Case::uint64, &Scalar::u64);
  }
  std::optional<float> floatValue(size_t i) const {
    return scalarValue(i, AnyValue::Case::float_, &Scalar::f32);
  }
  std::optional<double> doubleValue(size_t i) const {
    return scalarValue(i, AnyValue::Case::double_, &Scalar::f64);
  }
  std::optional<bool> boolValue(size_t i) const {
    return scalarValue(i, AnyValue::Case::bool_, &Scalar::b);
  }
  std::optional<int64_t> enumNumber(size_t i) const {
    return scalarValue(i, AnyValue::Case::enum_, &Scalar::i64);
  }
  // The encoded payload of a string, bytes or message value, borrowed from the record: a string's
  // bytes as encoded, not checked as UTF-8 (value() decodes them as the single read does).
  std::optional<ByteView> payload(size_t i) const;

 private:
  friend class Projection;
  friend struct detail::ProjectionPlan;
  // The columnar projection's reads of the cells it has already checked the kinds of.
  friend struct detail::ProjectionCells;

  union Scalar {
    int32_t i32;
    uint32_t u32;
    int64_t i64;
    uint64_t u64;
    float f32;
    double f64;
    bool b;
  };
  struct Cell {
    State state = State::absent;
    // The kind of value its path yields, fixed when the row is made.
    AnyValue::Case kind = AnyValue::Case::int32;
    Scalar scalar{};
    ByteView payload;
  };

  // The typed accessors are inline, so that reading a row's scalars costs a test or two each.
  const Cell& checkedCell(size_t i, AnyValue::Case wanted) const {
    const Cell& cell = cells_.at(i);
    if (cell.kind != wanted) [[unlikely]]
      refuseKind(wanted, cell.kind);
    if (cell.state == State::failed) [[unlikely]]
      rethrowError(i);
    return cell;
  }
  template <typename T>
  std::optional<T> scalarValue(size_t i, AnyValue::Case wanted, T Scalar::*member) const {
    const Cell& cell = checkedCell(i, wanted);
    if (cell.state == State::absent) return std::nullopt;
    return cell.scalar.*member;
  }
  [[noreturn]] static void refuseKind(AnyValue::Case wanted, AnyValue::Case found);
  [[noreturn]] void rethrowError(size_t i) const;

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

}  // namespace ostrel
