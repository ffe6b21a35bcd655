// Reading records into the arrays of a batch.

#include <cmath>
#include <limits>

#include "columns/column_plan.hpp"
#include "core/field_type_facts.hpp"
#include "core/utf8.hpp"
#include "ostrel/output/json.hpp"
#include "output/well_known.hpp"
#include "wire/navigation.hpp"
#include "wire/scalar_decoding.hpp"

namespace ostrel::detail {
// The cells of a projection row read without the accessors' kind checks: each column's kind was
// fixed when it was compiled.
struct ProjectionCells {
  static bool present(const ProjectionRow& row, size_t slot) noexcept {
    return row.cells_[slot].state == ProjectionRow::State::present;
  }
  static const auto& scalar(const ProjectionRow& row, size_t slot) noexcept {
    return row.cells_[slot].scalar;
  }
  static ByteView payload(const ProjectionRow& row, size_t slot) noexcept {
    return row.cells_[slot].payload;
  }
};

namespace {

using TypeCase = TypeSchemaDescription::Case;
using Cells = ProjectionCells;

}  // namespace

// The state of one column reader: its child node's, and its element's.
struct ReaderState {
  std::unique_ptr<NodeState> node;
  std::unique_ptr<ReaderState> element;
};

NodeState::NodeState() = default;
NodeState::~NodeState() = default;
NodeState::NodeState(NodeState&&) noexcept = default;

namespace {

void makeState(const ColumnNode& node, NodeState& state);

ReaderState makeReaderState(const ColumnReader& reader) {
  ReaderState state;
  if (reader.child) {
    state.node = std::make_unique<NodeState>();
    makeState(*reader.child, *state.node);
  }
  if (reader.element) {
    state.element = std::make_unique<ReaderState>(makeReaderState(*reader.element));
  }
  return state;
}

void makeState(const ColumnNode& node, NodeState& state) {
  state.row.emplace(node.projection->makeRow());
  for (const ColumnReader& column : node.columns) {
    state.children.push_back(std::make_unique<ReaderState>(makeReaderState(column)));
  }
}

ArrayBuilder makeBuilder(const ColumnReader& reader, bool large) {
  switch (reader.kind) {
    case ColumnReader::Kind::leaf:
      switch (reader.leaf) {
        case LeafKind::int32:
        case LeafKind::uint32:
        case LeafKind::float32:
        case LeafKind::enumNumber:
          return ArrayBuilder(Layout::fixed, 4);
        case LeafKind::int64:
        case LeafKind::uint64:
        case LeafKind::float64:
        case LeafKind::timestamp:
        case LeafKind::duration:
          return ArrayBuilder(Layout::fixed, 8);
        case LeafKind::boolean:
          return ArrayBuilder(Layout::bits, 0);
        case LeafKind::utf8:
        case LeafKind::binary:
        case LeafKind::enumString:
        case LeafKind::json:
          return ArrayBuilder(Layout::binary, 0, large);
        case LeafKind::enumDictionary: {
          ArrayBuilder builder(Layout::dictionary, 4);
          builder.dictionary = reader.enumNames;
          return builder;
        }
      }
      break;
    case ColumnReader::Kind::structure: {
      ArrayBuilder builder(Layout::structure, 0);
      for (const ColumnReader& column : reader.child->columns) {
        builder.children.push_back(makeBuilder(column, large));
      }
      return builder;
    }
    case ColumnReader::Kind::unwrap:
      return makeBuilder(reader.child->columns.front(), large);
    case ColumnReader::Kind::list: {
      // Map entries are never large: the map type has 32-bit offsets only.
      ArrayBuilder builder(Layout::list, 0, large && !reader.isMap);
      builder.children.push_back(makeBuilder(*reader.element, large));
      return builder;
    }
  }
  return ArrayBuilder(Layout::fixed, 4);
}

[[noreturn]] void throwFirstFailure(const ProjectionRow& row) {
  for (size_t i = 0; i < row.size(); ++i) {
    if (row.state(i) == ProjectionRow::State::failed) std::rethrow_exception(row.error(i));
  }
  throw SchematizerError::internalError("a failed projection row without an error");
}

void appendUtf8(ArrayBuilder& builder, ByteView bytes) {
  const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
  if (validUtf8PrefixLength(p, bytes.size()) == bytes.size()) {
    builder.appendBytes(bytes.data(), bytes.size());
  } else {
    const std::string text = decodeUtf8Lossy(bytes);
    builder.appendBytes(text.data(), text.size());
  }
}

void appendEnum(const ColumnReader& reader, ArrayBuilder& builder, int64_t number) {
  switch (reader.leaf) {
    case LeafKind::enumDictionary:
      builder.appendDictionaryIndex(number);
      return;
    case LeafKind::enumNumber:
      builder.appendValue<int32_t>(static_cast<int32_t>(number));
      return;
    default: {
      const int32_t index = reader.enumNames->find(number);
      const std::string text =
          index >= 0 ? reader.enumNames->names[static_cast<size_t>(index)] : std::to_string(number);
      builder.appendBytes(text.data(), text.size());
      return;
    }
  }
}

// The value written for an absent scalar under `defaults`: the type's zero.
void appendDefault(const ColumnReader& reader, ArrayBuilder& builder) {
  switch (reader.leaf) {
    case LeafKind::int32:
    case LeafKind::uint32:
      builder.appendValue<int32_t>(0);
      return;
    case LeafKind::float32:
      builder.appendValue<float>(0);
      return;
    case LeafKind::int64:
    case LeafKind::uint64:
      builder.appendValue<int64_t>(0);
      return;
    case LeafKind::float64:
      builder.appendValue<double>(0);
      return;
    case LeafKind::boolean:
      builder.appendBool(false);
      return;
    case LeafKind::utf8:
    case LeafKind::binary:
      builder.appendBytes(nullptr, 0);
      return;
    case LeafKind::enumDictionary:
    case LeafKind::enumNumber:
    case LeafKind::enumString: {
      const std::vector<int64_t>& numbers = reader.enumNames->numbers;
      const bool hasZero = reader.enumNames->find(0) >= 0 || numbers.empty();
      appendEnum(reader, builder, hasZero ? 0 : numbers.front());
      return;
    }
    case LeafKind::timestamp:
    case LeafKind::duration:
    case LeafKind::json:
      builder.appendNull();
      return;
  }
}

void appendAbsent(const ColumnReader& reader, ArrayBuilder& builder) {
  if (reader.defaultWhenAbsent) {
    appendDefault(reader, builder);
  } else {
    builder.appendNull();
  }
}

// A scalar as decoded from the wire (a list element) into its array.
template <typename V>
void appendDecoded(const ColumnReader& reader, ArrayBuilder& builder, V value) {
  if constexpr (std::is_same_v<V, bool>) {
    builder.appendBool(value);
  } else if constexpr (std::is_same_v<V, EnumNumber>) {
    appendEnum(reader, builder, value.number);
  } else {
    builder.appendValue<V>(value);
  }
}

// Seconds and nanos as one count of the time unit; throws when the unit's int64 cannot hold it.
int64_t inUnit(int64_t seconds, int32_t nanos, bool micros, const char* type) {
  const int64_t perSecond = micros ? 1000000 : 1000000000;
  const int64_t fraction = micros ? nanos / 1000 : nanos;
  int64_t scaled = 0;
  if (__builtin_mul_overflow(seconds, perSecond, &scaled) ||
      __builtin_add_overflow(scaled, fraction, &scaled)) {
    throw SchematizerError::unexpectedType(
        std::string(type) + " out of range of int64 " + (micros ? "microseconds" : "nanoseconds") +
        ": seconds " + std::to_string(seconds) + ", nanos " + std::to_string(nanos));
  }
  return scaled;
}

class BatchReader {
 public:
  BatchReader(const ColumnOptions& options) : options_(options) {}

  void node(const ColumnNode& node, NodeState& state, ByteView message, ArrayBuilder* builders) {
    ProjectionRow& row = *state.row;
    node.projection->read(message, row);
    if (row.failed()) throwFirstFailure(row);
    for (size_t i = 0; i < node.columns.size(); ++i) {
      column(node.columns[i], *state.children[i], row, message, builders[i]);
    }
  }

  void column(const ColumnReader& reader, ReaderState& state, const ProjectionRow& row,
              ByteView message, ArrayBuilder& builder) {
    switch (reader.kind) {
      case ColumnReader::Kind::leaf:
        if (reader.leaf == LeafKind::timestamp || reader.leaf == LeafKind::duration ||
            reader.leaf == LeafKind::json) {
          messageValue(reader, state, row.payload(reader.slot), builder);
        } else {
          leaf(reader, row, builder);
        }
        return;
      case ColumnReader::Kind::structure:
      case ColumnReader::Kind::unwrap:
        messageValue(reader, state, row.payload(reader.slot), builder);
        return;
      case ColumnReader::Kind::list: {
        const std::optional<ByteView> parent =
            reader.slot == kNoSlot ? std::optional<ByteView>(message) : row.payload(reader.slot);
        if (!parent) {
          builder.appendNull();
          return;
        }
        elements(reader, state, *parent, builder.children.front());
        builder.closeList();
        return;
      }
    }
  }

  // A message value (absent: no value) written as `reader` says.
  void messageValue(const ColumnReader& reader, ReaderState& state, std::optional<ByteView> payload,
                    ArrayBuilder& builder) {
    if (!payload) {
      builder.appendNull();
      return;
    }
    switch (reader.kind) {
      case ColumnReader::Kind::structure:
        node(*reader.child, *state.node, *payload, builder.children.data());
        builder.setValidity(true);
        return;
      case ColumnReader::Kind::unwrap:
        node(*reader.child, *state.node, *payload, &builder);
        return;
      default:
        break;
    }
    if (reader.leaf == LeafKind::json) {
      // Strict: a fault fails the record, as every other cell's does, rather than becoming text.
      const std::string text = renderJSON(reader.messageSchema->unsafeSchematizedData(*payload),
                                          JsonOptions{.strict = true});
      builder.appendBytes(text.data(), text.size());
      return;
    }
    ProjectionRow& row = *state.node->row;
    reader.child->projection->read(*payload, row);
    if (row.failed()) throwFirstFailure(row);
    const SecondsAndNanos time{row.int64Value(0).value_or(0), row.int32Value(1).value_or(0)};
    const bool micros = options_.timeUnit == ColumnOptions::TimeUnit::microseconds;
    if (reader.leaf == LeafKind::timestamp) {
      checkTimestamp(time);
      builder.appendValue<int64_t>(
          inUnit(time.seconds, time.nanos, micros, "google.protobuf.Timestamp"));
    } else {
      checkDuration(time);
      builder.appendValue<int64_t>(
          inUnit(time.seconds, time.nanos, micros, "google.protobuf.Duration"));
    }
  }

  // A failed row was thrown before its columns are read: a cell is present or absent.
  void leaf(const ColumnReader& reader, const ProjectionRow& row, ArrayBuilder& builder) {
    const size_t slot = reader.slot;
    if (!Cells::present(row, slot)) return appendAbsent(reader, builder);
    const auto& scalar = Cells::scalar(row, slot);
    switch (reader.leaf) {
      case LeafKind::int32:
        return builder.appendValue(scalar.i32);
      case LeafKind::uint32:
        return builder.appendValue(scalar.u32);
      case LeafKind::int64:
        return builder.appendValue(scalar.i64);
      case LeafKind::uint64:
        return builder.appendValue(scalar.u64);
      case LeafKind::float32:
        return builder.appendValue(scalar.f32);
      case LeafKind::float64:
        return builder.appendValue(scalar.f64);
      case LeafKind::boolean:
        return builder.appendBool(scalar.b);
      case LeafKind::utf8:
        return appendUtf8(builder, Cells::payload(row, slot));
      case LeafKind::binary: {
        const ByteView bytes = Cells::payload(row, slot);
        return builder.appendBytes(bytes.data(), bytes.size());
      }
      case LeafKind::enumDictionary:
      case LeafKind::enumNumber:
      case LeafKind::enumString:
        return appendEnum(reader, builder, scalar.i64);
      case LeafKind::timestamp:
      case LeafKind::duration:
      case LeafKind::json:
        break;
    }
    appendAbsent(reader, builder);
  }

  // The elements of repeated field `reader.fieldNumber` of `message` into `builder`.
  void elements(const ColumnReader& reader, ReaderState& state, ByteView message,
                ArrayBuilder& builder) {
    const ColumnReader& element = *reader.element;
    forEachElement(
        reader, message, [&](auto value) { appendDecoded(element, builder, value); },
        [&](ByteView payload) { elementPayload(reader, state, payload, builder); });
  }

  // A string, bytes or message element into `builder`.
  void elementPayload(const ColumnReader& list, ReaderState& state, ByteView payload,
                      ArrayBuilder& builder) {
    switch (list.type->kind()) {
      case TypeCase::string:
        return appendUtf8(builder, payload);
      case TypeCase::bytes:
        return builder.appendBytes(payload.data(), payload.size());
      default:
        return messageValue(*list.element, *state.element, payload, builder);
    }
  }

  // Hands each element of repeated field `reader.fieldNumber` of `message` to `onScalar` (a
  // decoded value) or `onPayload` (the bytes of a string, bytes or message), as
  // Schematizer::RepeatableFieldIterator hands them out in options().mode.
  template <typename OnScalar, typename OnPayload>
  void forEachElement(const ColumnReader& reader, ByteView message, const OnScalar& onScalar,
                      const OnPayload& onPayload) {
    const TypeSchemaDescription& type = *reader.type;
    const TypeCase kind = type.kind();
    const bool exact = options_.mode == ReadMode::exact;
    Reader wire(message);
    bool first = true;
    while (wire.hasMoreFields()) {
      const FieldTag tag = wire.readTag();
      if (tag.fieldNumber() != reader.fieldNumber) {
        wire.skipField(tag);
        continue;
      }
      const ProtoWireType wireType = tag.wireType();
      if (wireType == ProtoWireType::lengthDelimited && factsOf(kind).isFixedEncoding()) {
        // A packed run. Read first, it is the whole iteration; met after tagged elements, only
        // an exact read takes it (the first-occurrence iteration reads it as one element, which
        // does not fit the type).
        if (!first && !exact) throwTypeMismatch(type, wireType);
        const int64_t length = wire.readLength();
        const int64_t start = wire.position();
        const int64_t end = start + length;
        if (end > wire.size()) throw SerializationError::truncated();
        Reader run = wire.narrowed(start, end);
        withFixedDecoder(kind, [&](const auto& decode) {
          while (run.position() < end) {
            const auto value = decode(run);
            if (run.position() > end) throw SerializationError::malformedProtobuf();
            onScalar(value);
          }
        });
        wire.setPosition(end);
        if (!exact) return;
        continue;
      }
      first = false;
      if (!acceptsWireType(kind, wireType)) throwTypeMismatch(type, wireType);
      if (factsOf(kind).isFixedEncoding()) {
        withFixedDecoder(kind, [&](const auto& decode) { onScalar(decode(wire)); });
        continue;
      }
      onPayload(readPayload(wire, tag));
    }
  }

  // The rows of one record under `explode`: one per element of the exploded field, the record's
  // own columns repeated on each. Returns how many.
  int64_t explode(const ColumnPlan& plan, ColumnBuilder& builder, ByteView record) {
    ProjectionRow& row = *builder.root.row;
    plan.root.projection->read(record, row);
    if (row.failed()) throwFirstFailure(row);
    const ColumnReader& list = plan.root.columns[*plan.exploded];
    ReaderState& listState = *builder.root.children[*plan.exploded];
    std::optional<ByteView> parent = record;
    if (list.slot != kNoSlot) {
      if (!Cells::present(row, list.slot)) return 0;
      parent = Cells::payload(row, list.slot);
    }
    int64_t rows = 0;
    // The columns of one row; `element` writes the exploded column's cell.
    const auto emit = [&](const auto& element, std::optional<ByteView> payload) {
      ProjectionRow* elementRow = nullptr;
      if (plan.elementNode && payload) {
        elementRow = &*builder.element.row;
        plan.elementNode->projection->read(*payload, *elementRow);
        if (elementRow->failed()) throwFirstFailure(*elementRow);
      }
      for (size_t i = 0; i < plan.sources.size(); ++i) {
        const ColumnPlan::ColumnSource& source = plan.sources[i];
        switch (source.kind) {
          case ColumnPlan::ColumnSource::Kind::record:
            column(plan.root.columns[source.index], *builder.root.children[source.index], row,
                   record, builder.columns[i]);
            break;
          case ColumnPlan::ColumnSource::Kind::exploded:
            element(builder.columns[i]);
            break;
          case ColumnPlan::ColumnSource::Kind::element:
            column(plan.elementNode->columns[source.index], *builder.element.children[source.index],
                   *elementRow, *payload, builder.columns[i]);
            break;
        }
      }
      ++rows;
    };
    forEachElement(
        list, *parent,
        [&](auto value) {
          emit([&](ArrayBuilder& out) { appendDecoded(*list.element, out, value); }, std::nullopt);
        },
        [&](ByteView payload) {
          emit([&](ArrayBuilder& out) { elementPayload(list, listState, payload, out); }, payload);
        });
    return rows;
  }

 private:
  const ColumnOptions& options_;
};

}  // namespace

ColumnBuilder::ColumnBuilder(const ColumnPlan& plan) {
  const bool large = plan.options.largeOffsets;
  for (const ColumnPlan::ColumnSource& source : plan.sources) {
    switch (source.kind) {
      case ColumnPlan::ColumnSource::Kind::record:
        columns.push_back(makeBuilder(plan.root.columns[source.index], large));
        break;
      case ColumnPlan::ColumnSource::Kind::exploded:
        columns.push_back(makeBuilder(*plan.root.columns[source.index].element, large));
        break;
      case ColumnPlan::ColumnSource::Kind::element:
        columns.push_back(makeBuilder(plan.elementNode->columns[source.index], large));
        break;
    }
  }
  makeState(plan.root, root);
  if (plan.elementNode) makeState(*plan.elementNode, element);
}

void appendRecord(const ColumnPlan& plan, ColumnBuilder& builder, ByteView record,
                  int64_t byteOffset) {
  const int64_t before = builder.rows;
  const int64_t number = builder.records;
  BatchReader reader(plan.options);
  int64_t added = 1;
  try {
    if (plan.exploded) {
      added = reader.explode(plan, builder, record);
    } else {
      reader.node(plan.root, builder.root, record, builder.columns.data());
    }
  } catch (const Error& error) {
    for (ArrayBuilder& column : builder.columns) column.truncate(before);
    ++builder.records;
    if (!plan.options.nullRowOnError) {
      throw ColumnError::recordFailed(number, byteOffset, error.what());
    }
    for (ArrayBuilder& column : builder.columns) column.appendNull();
    ++builder.rows;
    ++builder.failed;
    return;
  } catch (...) {
    for (ArrayBuilder& column : builder.columns) column.truncate(before);
    throw;
  }
  // A record's values take at most a few times its size (a string's invalid bytes become 3-byte
  // replacement characters, JSON text escapes): the arrays are measured only once the batch's
  // records together could take one of them near 2 GiB.
  builder.batchBytes += static_cast<int64_t>(record.size());
  if (!plan.options.largeOffsets && builder.batchBytes > (int64_t{1} << 27)) {
    for (ArrayBuilder& column : builder.columns) {
      if (column.largestOffsetData() > static_cast<size_t>(std::numeric_limits<int32_t>::max())) {
        for (ArrayBuilder& each : builder.columns) each.truncate(before);
        builder.batchBytes -= static_cast<int64_t>(record.size());
        throw ColumnError::batchFull();
      }
    }
  }
  ++builder.records;
  builder.rows += added;
}

void takeBatch(const ColumnPlan& plan, ColumnBuilder& builder, ArrowArray* out) {
  ArrayBuilder batch(Layout::structure, 0);
  batch.children = std::move(builder.columns);
  for (int64_t row = 0; row < builder.rows; ++row) batch.setValidity(true);
  batch.exportTo(out);
  builder.columns = std::move(batch.children);
  builder.rows = 0;
  builder.batchBytes = 0;
  (void)plan;
}

}  // namespace ostrel::detail
