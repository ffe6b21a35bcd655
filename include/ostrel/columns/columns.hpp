#pragma once

// Columns out of records: a set of property paths compiled once against a message schema, fed
// records, handing out record batches in Arrow's columnar layout through Arrow's C Data Interface
// and C Stream Interface (ostrel/columns/arrow_c.hpp). pyarrow, polars, DuckDB and Arrow itself
// import them without a copy; no Arrow library is involved.
//
//     ColumnProjection columns(store.messageSchema("shop.Order"), {"id", "customer.name",
//     "items"}); RecordSource source = RecordSource::delimited(streamBytes); ArrowArrayStream
//     stream; columns.exportStream(std::move(source), &stream);   // hand &stream to DuckDB,
//     pyarrow, ...
//
// or batch by batch:
//
//     while (columns.fill(source)) {
//       ArrowArray batch;
//       columns.takeBatch(&batch);   // a struct array, one child per path
//       ...
//       batch.release(&batch);
//     }
//
// What each path gives (a column named by the path as written):
// - A scalar field: its value, read as the single read of the path reads it (SchematizedData::value
//   in options().mode: the same value, absence and error). int32, sint32, sfixed32 -> int32;
//   uint32, fixed32 -> uint32; int64, sint64, sfixed64 -> int64; uint64, fixed64 -> uint64; float
//   -> float32; double -> float64; bool -> bool (bit-packed); string -> utf8 (invalid UTF-8
//   sequences replaced by U+FFFD, as the single read decodes them); bytes -> binary. An absent
//   value is a null, or with options().defaults the field type's zero value.
// - An enum field: dictionary-encoded utf8 (int32 indices; the dictionary lists every value name
//   of the enum, then the numbers the schema does not name, as decimal text), or with
//   ColumnOptions::Enums the number (int32) or plain utf8.
// - A repeated field without an index (`items`, `a.b.tags`): a list of its elements, empty when
//   there are none; a map field: a map column (keys and values as above).
// - `[*]` after a repeated message field inside a path (`items[*].sku`): a list of the leaf read
//   from every element (a null where an element lacks it). One `[*]` per path.
// - A message field: a struct column of all its fields, each as above, to a depth of
//   ColumnOptions::structDepth nested messages; a message deeper than that, and the fields of a
//   recursive message at that depth, are its ProtoJSON text (utf8).
// - Well-known types: google.protobuf.Timestamp -> timestamp in UTC, microseconds by default
//   (ColumnOptions::timeUnit); a value outside the years 0001 to 9999, or past what int64 holds in
//   the unit, fails the record. Duration -> duration of the same unit (outside +-10,000 years fails
//   the record). The wrappers (Int32Value, StringValue, ...) -> their value, null when the message
//   is absent. Struct, Value, ListValue and Any -> their ProtoJSON text.
//
// Errors: a record whose read fails (malformed bytes, a wire type that does not fit the schema, a
// timestamp out of range) adds no row; append throws ColumnError::recordFailed with the record's
// number (from 0, counting every record this projection was given) and byte offset, and the rows
// before it stay. With ColumnOptions::nullRowOnError the record becomes a row of nulls instead, and
// failedRecords() counts it. A stream stops at such a record: get_next returns EINVAL and
// get_last_error the error's text; no partial batch is ever handed out.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "ostrel/columns/arrow_c.hpp"
#include "ostrel/core/errors.hpp"
#include "ostrel/core/values.hpp"
#include "ostrel/records/records.hpp"
#include "ostrel/store/schemas.hpp"

namespace ostrel {

struct ColumnOptions {
  // How fill() and a stream cut batches: a batch ends once it holds at least this many rows (more
  // only with `explode`, where one record gives many rows).
  int64_t batchRows = 65536;
  // How singular fields met more than once are read (see ReadMode).
  ReadMode mode = ReadMode::first;

  enum class Enums : uint8_t { dictionary, numbers, strings };
  Enums enums = Enums::dictionary;

  // Absent scalar values become the field type's zero value (0, false, "", the enum's value 0, or
  // its lowest value when it has no 0) instead of nulls. Messages, wrappers and well-known types
  // stay null when absent.
  bool defaults = false;

  // A record whose read fails becomes a row of nulls, counted by failedRecords(), instead of
  // failing the batch.
  bool nullRowOnError = false;

  // A path (from the paths given, naming a repeated field without an index) whose elements become
  // the rows: each record gives one row per element, none when it has none. The other paths are
  // read from the record and repeated on each of its rows; paths below the exploded one
  // (`items.sku` with explode "items") are read from the element.
  std::string explode;

  enum class TimeUnit : uint8_t { microseconds, nanoseconds };
  TimeUnit timeUnit = TimeUnit::microseconds;

  // Nested messages expanded as struct columns below a message path, before the rest is JSON text.
  int structDepth = 4;

  // Strings, bytes and lists with 64-bit offsets (large_utf8, large_binary, large_list). Without
  // them a batch is cut before any column's data would pass 2 GiB.
  bool largeOffsets = false;
};

// A record that could not become a row, or a path that cannot become a column.
class ColumnError final : public Error {
 public:
  enum class Code : uint8_t { recordFailed, unsupportedPath, batchFull };

  // "record 7 at byte 1043: " and the error the read threw.
  static ColumnError recordFailed(int64_t recordNumber, int64_t byteOffset, std::string reason);
  // "column path \"a[*].b[*]\": " and why.
  static ColumnError unsupportedPath(std::string path, std::string reason);
  // A single record's values would take a column past 2 GiB (with 32-bit offsets).
  static ColumnError batchFull();

  Code code() const noexcept { return code_; }
  int64_t recordNumber() const noexcept { return recordNumber_; }
  int64_t byteOffset() const noexcept { return byteOffset_; }
  // The path of unsupportedPath; empty otherwise.
  const std::string& path() const noexcept { return path_; }
  // The underlying error's text (recordFailed) or the reason (unsupportedPath).
  const std::string& reason() const noexcept { return reason_; }

  friend bool operator==(const ColumnError& a, const ColumnError& b) {
    return a.code_ == b.code_ && a.recordNumber_ == b.recordNumber_ &&
           a.byteOffset_ == b.byteOffset_ && a.path_ == b.path_ && a.reason_ == b.reason_;
  }

 private:
  ColumnError(Code code, std::string what, int64_t recordNumber, int64_t byteOffset,
              std::string path, std::string reason);

  Code code_;
  int64_t recordNumber_;
  int64_t byteOffset_;
  std::string path_;
  std::string reason_;
};

namespace detail {
struct ColumnPlan;
struct ColumnBuilder;
}  // namespace detail

// Paths compiled once against a message schema, and the batch being built. The compiled paths are
// immutable and shared by every stream exported from this projection; the batch in progress is
// this object's own, so one projection is filled by one thread at a time. Exported batches, schemas
// and streams hold everything they need: they may outlive the projection, the schema and its store.
class ColumnProjection {
 public:
  // Resolves every path (see the top of this file). Throws the path's resolution error
  // (PropertyPathUtil::Error, SchematizerError) or ColumnError::unsupportedPath; nothing is built
  // then.
  ColumnProjection(const MessageSchema& schema, std::span<const std::string> paths,
                   ColumnOptions options = {});
  ColumnProjection(const MessageSchema& schema, std::initializer_list<std::string_view> paths,
                   ColumnOptions options = {});
  ColumnProjection(ColumnProjection&&) noexcept;
  ColumnProjection& operator=(ColumnProjection&&) noexcept;
  ~ColumnProjection();

  // How many columns (one per path), and path `i` as given.
  size_t size() const noexcept;
  const std::string& pathText(size_t i) const;
  const ColumnOptions& options() const noexcept;

  // The schema of every batch: a struct with one child per path, named by the path. The caller
  // owns `out` and releases it.
  void exportSchema(ArrowSchema* out) const;

  // Appends the rows of one record (one row; with `explode`, one per element). A record that fails
  // adds no row and throws ColumnError::recordFailed (see the top of this file), unless
  // nullRowOnError. The byte offset named in errors is `byteOffset`, or without it the sum of the
  // sizes of the records appended before. Throws ColumnError::batchFull when this record's values
  // would take a column past 2 GiB: take the batch and append it again.
  void append(ByteView record);
  void append(ByteView record, int64_t byteOffset);

  // Appends records from `source` until the batch holds options().batchRows rows or the source
  // ends (or a column's data nears 2 GiB). Returns whether the batch holds any row. A failing
  // record throws as append does; the records before it stay in the batch.
  bool fill(RecordSource& source);

  // Rows in the batch in progress; records given so far; records turned into rows of nulls.
  int64_t rows() const noexcept;
  int64_t recordsRead() const noexcept;
  int64_t failedRecords() const noexcept;

  // Moves the batch in progress into `out` (a struct array, one child per path, its rows those
  // appended since the last take) and starts an empty one. The caller owns `out` and releases it.
  void takeBatch(ArrowArray* out);

  // A stream of batches of options().batchRows rows read from `source` with a batch of its own (the
  // batch in progress here is left alone). The stream owns the source. The caller owns `out` and
  // releases it.
  void exportStream(RecordSource source, ArrowArrayStream* out) const;

 private:
  std::shared_ptr<const detail::ColumnPlan> plan_;
  std::unique_ptr<detail::ColumnBuilder> builder_;
};

}  // namespace ostrel
