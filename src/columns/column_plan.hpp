#pragma once

// The compiled form of a columnar projection, and the state of the batch being built from it.
//
// A plan is a tree of nodes, one per message type the columns read from: the record's message at
// the root, a struct column's message, the elements of a list of messages, a well-known type's
// fields. Each node reads its message with one Projection (one pass over the bytes, the single
// read's answers) and hands the answers to its columns; a column that goes into a message (a
// struct, a list's parent, a timestamp) takes that message's payload from the projection and reads
// it with its own child node.

#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "columns/array_builder.hpp"
#include "ostrel/columns/columns.hpp"
#include "ostrel/paths/projection.hpp"
#include "ostrel/wire/schematizer.hpp"

namespace ostrel::detail {

inline constexpr uint32_t kNoSlot = std::numeric_limits<uint32_t>::max();

// How a single value is written into its array.
enum class LeafKind : uint8_t {
  int32,
  uint32,
  int64,
  uint64,
  float32,
  float64,
  boolean,
  utf8,
  binary,
  enumDictionary,
  enumNumber,
  enumString,
  timestamp,  // a Timestamp message: its child node reads seconds and nanos
  duration,   // the same for Duration
  json,       // a message as its ProtoJSON text
};

struct ColumnNode;

struct ColumnReader {
  enum class Kind : uint8_t {
    leaf,       // the value at `slot` (a scalar, or a message for timestamp, duration, json)
    structure,  // the message at `slot`, its fields the child node's columns
    unwrap,     // a wrapper message at `slot`: the child node's one column, null when absent
    list,  // the repeated field `fieldNumber` of the message at `slot` (kNoSlot: the node's own)
  };
  Kind kind = Kind::leaf;
  uint32_t slot = kNoSlot;

  // Leaves, and the elements of lists of leaves.
  LeafKind leaf = LeafKind::int32;
  std::optional<TypeSchemaDescription> type;
  // The value when absent: with ColumnOptions::defaults, and always for map keys and values and
  // a wrapper's value.
  bool defaultWhenAbsent = false;
  std::shared_ptr<const EnumDictionary> enumNames;
  std::shared_ptr<MessageSchemaDescribing> messageSchema;  // json

  // Lists: the repeated field and how its elements are read. A message element is read by the
  // child node: into a struct of its columns, or (`items[*].sku`) straight into the list's child
  // as the node's one column.
  int64_t fieldNumber = 0;
  bool elementIsMessage = false;
  bool isMap = false;

  // Lists: how each element is written.
  std::unique_ptr<ColumnReader> element;

  std::unique_ptr<ColumnNode> child;
};

struct ColumnNode {
  std::optional<Projection> projection;
  std::vector<ColumnReader> columns;
};

struct ColumnPlan {
  ColumnOptions options;
  std::vector<std::string> texts;
  ColumnNode root;
  // The Arrow type of the batches: a struct of one child per path.
  ArrowField schema;
  // Where each path's column is read: a column of `root` (always, without `explode`), and with
  // `explode`, the exploded field's elements and a column of `elementNode`.
  struct ColumnSource {
    enum class Kind : uint8_t { record, exploded, element };
    Kind kind;
    size_t index;
  };
  std::vector<ColumnSource> sources;
  // With `explode`: the root column listing the elements that become rows, and the node reading
  // the paths below it from each element.
  std::optional<size_t> exploded;
  std::unique_ptr<ColumnNode> elementNode;

  ColumnPlan(const MessageSchema& schema, std::vector<std::string> paths, ColumnOptions options);
};

struct ReaderState;

// The per-batch state of a node: its projection row, and per column the state of the nodes below.
struct NodeState {
  std::optional<ProjectionRow> row;
  std::vector<std::unique_ptr<ReaderState>> children;

  NodeState();
  ~NodeState();
  NodeState(NodeState&&) noexcept;
};

struct ColumnBuilder {
  // One per path, in the order given.
  std::vector<ArrayBuilder> columns;
  NodeState root;
  NodeState element;
  int64_t rows = 0;
  int64_t records = 0;
  int64_t failed = 0;
  int64_t bytes = 0;
  // The sizes of the records in the batch in progress.
  int64_t batchBytes = 0;
  // A record read from a source that did not fit the batch it was read for.
  std::optional<ByteView> held;
  int64_t heldOffset = 0;

  explicit ColumnBuilder(const ColumnPlan& plan);
};

// Appends the rows of one record (see ColumnProjection::append).
void appendRecord(const ColumnPlan& plan, ColumnBuilder& builder, ByteView record,
                  int64_t byteOffset);

// Moves the batch into `out`.
void takeBatch(const ColumnPlan& plan, ColumnBuilder& builder, ArrowArray* out);

}  // namespace ostrel::detail
