// Projections: many paths read from a record in one pass; typed scalar reads; delimited streams.

#include "ostrel/paths/projection.hpp"

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>
#include <span>

#include "core/field_type_facts.hpp"
#include "ostrel/paths/property_path.hpp"
#include "ostrel/wire/schematizer.hpp"
#include "wire/exact_read.hpp"
#include "wire/navigation.hpp"
#include "wire/scalar_decoding.hpp"
#include "wire/value_decoding.hpp"

namespace ostrel {
namespace detail {
namespace {

using TypeCase = TypeSchemaDescription::Case;
using ValueCase = AnyValue::Case;

void checkKind(ValueCase wanted, ValueCase found) {
  if (wanted != found) {
    throwWrongValueKind(static_cast<uint8_t>(wanted), static_cast<uint8_t>(found));
  }
}

}  // namespace

// The compiled form of a projection: a tree of the fields to look for, one level per message the
// paths go through. A node is either a leaf, whose value answers one or more paths, or a branch,
// whose nested message holds the rest of its paths; a field that is both (a message read whole and
// a path into it) has one node of each kind, because the two resolve differently (an intermediate
// element must be length-delimited, a last one is decoded by its type).
struct ProjectionPlan {
  static constexpr uint32_t kNone = std::numeric_limits<uint32_t>::max();

  struct Node {
    int64_t number = 0;
    std::optional<int64_t> index;
    bool leaf = false;
    // Leaf: the declared type of the field, and the paths it answers.
    const TypeSchemaDescription* type = nullptr;
    std::vector<uint32_t> slots;
    // Branch: the level of its nested message.
    uint32_t childLevel = kNone;
    // Every path through this node: those a fault in its field fails.
    std::vector<uint32_t> subtreeSlots;
  };

  // What the scan of a level does at a tag it looks for. Most tags are handled in place: a leaf
  // whose wire type is the one its type is encoded with is decoded straight into its row cell, a
  // branch's delimited message is scanned. The rest (several nodes of one number, a wire type
  // that does not fit the type, a packed run read by index, a group, a path asked twice) take the
  // general step, occurrence().
  struct Action {
    enum class Op : uint8_t { general, varint, fixed32, fixed64, payload, descend };
    Op op = Op::general;
    TypeCase kind = TypeCase::message;
    bool indexed = false;
    // The node, its one cell and, for a branch, its nested level; for `general`, the group.
    uint32_t node = 0;
    uint32_t slot = 0;
    uint32_t childLevel = kNone;
    uint32_t group = 0;
  };

  // The nodes looked for in one message, sorted by field number, and the dispatch of its tags.
  struct Level {
    struct Group {
      int64_t number;
      uint32_t first;
      uint32_t count;
      // The general action of its tags.
      uint32_t action;
    };
    std::vector<uint32_t> nodes;
    std::vector<Group> groups;
    std::vector<Action> actions;
    // Indexed by the raw tag, for tags below its size (the field numbers below kTableLimit): a
    // tag not looked for gives its wire type, which says how to step over it (an end-group tag,
    // or an invalid one, gives kMalformed); a tag looked for gives kFirstAction plus its action.
    std::vector<uint16_t> dispatch;
    // The groups from this one on have numbers beyond the dispatch table: found by search.
    size_t firstBeyond = 0;

    // The code of a tag beyond the dispatch table, validated as readTag validates it.
    [[gnu::noinline]] uint32_t codeBeyond(uint64_t raw) const {
      if (raw > 0xFFFFFFFEu || raw < 8 || (raw & 7) > 5) [[unlikely]] {
        throw SerializationError::malformedProtobuf();
      }
      const int64_t number = static_cast<int64_t>(raw >> 3);
      const auto it = std::lower_bound(
          groups.begin() + static_cast<std::ptrdiff_t>(firstBeyond), groups.end(), number,
          [](const Group& group, int64_t wanted) { return group.number < wanted; });
      if (it != groups.end() && it->number == number) return kFirstAction + it->action;
      return static_cast<uint32_t>(raw & 7);
    }
  };
  static constexpr uint32_t kMalformed = static_cast<uint32_t>(ProtoWireType::endGroup);
  static constexpr uint32_t kFirstAction = 8;
  // Field numbers below this are dispatched by table: one- and two-byte tags, every number of a
  // real schema's common fields.
  static constexpr int64_t kTableLimit = 1024;

  std::vector<std::string> texts;
  std::vector<FieldPathAndType> paths;
  std::vector<ValueCase> kinds;
  std::vector<Node> nodes;
  std::vector<Level> levels;
  // Paths deeper than kTreeDepth are read one by one with the single read, whose walk is a loop:
  // the tree's walk recurses once per level, and a path (and bytes) thousands of messages deep
  // must not exhaust the stack.
  static constexpr size_t kTreeDepth = 64;
  std::vector<uint32_t> deepSlots;
  // With ReadMode::exact every path is read on its own to the end of each message on it, and no
  // tree is built.
  std::shared_ptr<MessageSchemaDescribing> schema;
  bool exact = false;

  ProjectionPlan(const MessageSchema& schema, std::vector<std::string> pathTexts, ReadMode mode);

  uint32_t nodeFor(uint32_t level, const FieldPathComponent& component, bool leaf);
  void index();

  void read(ByteView record, ProjectionRow& row) const;
  void scan(uint32_t level, Reader& reader, int64_t position, int64_t end,
            ProjectionRow& row) const;
  [[gnu::noinline]] size_t general(const Level& level, uint32_t groupIndex, uint64_t raw,
                                   Reader& reader, int64_t position, int64_t end,
                                   ProjectionRow& row) const;
  bool occurrence(uint32_t nodeIndex, FieldTag tag, Reader& reader, ProjectionRow& row) const;
  void decodeLeaf(uint32_t nodeIndex, FieldTag tag, Reader& reader, ProjectionRow& row) const;
  [[gnu::always_inline]] static void storeVarint(ProjectionRow::Cell& cell, TypeCase kind,
                                                 uint64_t value);
  static void storeFixed32(ProjectionRow::Cell& cell, TypeCase kind, uint32_t value);
  static void storeFixed64(ProjectionRow::Cell& cell, TypeCase kind, uint64_t value);
  struct StoreScalar;
  void fail(const std::vector<uint32_t>& slots, const std::exception_ptr& error,
            ProjectionRow& row) const;
};

// Stores each decoded C++ type in a row cell (an enum as its number).
struct ProjectionPlan::StoreScalar {
  ProjectionRow::Cell* cell;
  template <typename V>
  bool operator()(V v) const {
    auto& s = cell->scalar;
    if constexpr (std::is_same_v<V, int32_t>) {
      s.i32 = v;
    } else if constexpr (std::is_same_v<V, uint32_t>) {
      s.u32 = v;
    } else if constexpr (std::is_same_v<V, int64_t>) {
      s.i64 = v;
    } else if constexpr (std::is_same_v<V, uint64_t>) {
      s.u64 = v;
    } else if constexpr (std::is_same_v<V, float>) {
      s.f32 = v;
    } else if constexpr (std::is_same_v<V, double>) {
      s.f64 = v;
    } else if constexpr (std::is_same_v<V, bool>) {
      s.b = v;
    } else {
      s.i64 = std::get<int64_t>(v.container);
    }
    return true;
  }
};

ProjectionPlan::ProjectionPlan(const MessageSchema& messageSchema,
                               std::vector<std::string> pathTexts, ReadMode mode)
    : texts(std::move(pathTexts)), schema(messageSchema.impl()), exact(mode == ReadMode::exact) {
  paths.reserve(texts.size());
  for (const std::string& text : texts) paths.push_back(resolvePropertyPath(messageSchema, text));
  levels.emplace_back();
  for (uint32_t slot = 0; slot < paths.size(); ++slot) {
    const FieldPathAndType& path = paths[slot];
    kinds.push_back(factsOf(path.type.kind()).valueCase);
    if (exact) continue;
    if (path.fieldPath.size() > kTreeDepth) {
      deepSlots.push_back(slot);
      continue;
    }
    uint32_t level = 0;
    for (size_t depth = 0; depth < path.fieldPath.size(); ++depth) {
      const bool last = depth + 1 == path.fieldPath.size();
      const uint32_t node = nodeFor(level, path.fieldPath[depth], last);
      nodes[node].subtreeSlots.push_back(slot);
      if (last) {
        nodes[node].slots.push_back(slot);
        nodes[node].type = &path.type;
      } else {
        level = nodes[node].childLevel;
      }
    }
  }
  index();
}

uint32_t ProjectionPlan::nodeFor(uint32_t level, const FieldPathComponent& component, bool leaf) {
  for (uint32_t node : levels[level].nodes) {
    if (nodes[node].number == component.number && nodes[node].index == component.index &&
        nodes[node].leaf == leaf) {
      return node;
    }
  }
  const auto node = static_cast<uint32_t>(nodes.size());
  Node created;
  created.number = component.number;
  created.index = component.index;
  created.leaf = leaf;
  if (!leaf) {
    created.childLevel = static_cast<uint32_t>(levels.size());
    levels.emplace_back();
  }
  nodes.push_back(std::move(created));
  levels[level].nodes.push_back(node);
  return node;
}

void ProjectionPlan::index() {
  for (Level& level : levels) {
    std::stable_sort(level.nodes.begin(), level.nodes.end(),
                     [&](uint32_t a, uint32_t b) { return nodes[a].number < nodes[b].number; });
    for (uint32_t i = 0; i < level.nodes.size(); ++i) {
      const int64_t number = nodes[level.nodes[i]].number;
      if (level.groups.empty() || level.groups.back().number != number) {
        level.groups.push_back({number, i, 0, 0});
      }
      ++level.groups.back().count;
    }
    // The table covers every one-byte tag, and two-byte ones up to the highest number looked for.
    int64_t highest = 15;
    level.firstBeyond = level.groups.size();
    for (size_t g = 0; g < level.groups.size(); ++g) {
      const int64_t number = level.groups[g].number;
      if (number < kTableLimit) {
        highest = std::max(highest, number);
      } else if (level.firstBeyond == level.groups.size()) {
        level.firstBeyond = g;
      }
    }
    level.dispatch.resize(static_cast<size_t>(highest + 1) * 8);
    for (size_t raw = 0; raw < level.dispatch.size(); ++raw) {
      level.dispatch[raw] = raw < 8 || (raw & 7) > 5 ? kMalformed : static_cast<uint16_t>(raw & 7);
    }
    for (size_t g = 0; g < level.groups.size(); ++g) {
      Level::Group& group = level.groups[g];
      group.action = static_cast<uint32_t>(level.actions.size());
      level.actions.push_back({.group = static_cast<uint32_t>(g)});
      if (group.number < 1 || group.number >= kTableLimit) continue;
      const auto base = static_cast<size_t>(group.number) * 8;
      for (size_t wireType = 0; wireType <= 5; ++wireType) {
        level.dispatch[base + wireType] = static_cast<uint16_t>(kFirstAction + group.action);
      }
      if (group.count != 1) continue;
      const uint32_t nodeIndex = level.nodes[group.first];
      const Node& node = nodes[nodeIndex];
      Action action{.indexed = node.index.has_value(), .node = nodeIndex};
      ProtoWireType wireType = ProtoWireType::lengthDelimited;
      if (!node.leaf) {
        action.op = Action::Op::descend;
        action.childLevel = node.childLevel;
      } else if (node.slots.size() == 1) {
        action.kind = node.type->kind();
        action.slot = node.slots.front();
        wireType = factsOf(action.kind).wireType;
        switch (wireType) {
          case ProtoWireType::varInt:
            action.op = Action::Op::varint;
            break;
          case ProtoWireType::fixed32:
            action.op = Action::Op::fixed32;
            break;
          case ProtoWireType::fixed64:
            action.op = Action::Op::fixed64;
            break;
          default:
            action.op = Action::Op::payload;
            break;
        }
      } else {
        continue;
      }
      level.dispatch[base + static_cast<size_t>(wireType)] =
          static_cast<uint16_t>(kFirstAction + level.actions.size());
      level.actions.push_back(action);
    }
  }
}

void ProjectionPlan::fail(const std::vector<uint32_t>& slots, const std::exception_ptr& error,
                          ProjectionRow& row) const {
  for (uint32_t slot : slots) {
    ProjectionRow::Cell& cell = row.cells_[slot];
    if (cell.state == ProjectionRow::State::failed) continue;
    cell.state = ProjectionRow::State::failed;
    row.errors_[slot] = error;
    ++row.failures_;
  }
}

void ProjectionPlan::read(ByteView record, ProjectionRow& row) const {
  if (row.failures_ > 0) {
    std::fill(row.errors_.begin(), row.errors_.end(), nullptr);
    row.failures_ = 0;
  }
  for (ProjectionRow::Cell& cell : row.cells_) cell.state = ProjectionRow::State::absent;
  if (exact) {
    for (uint32_t slot = 0; slot < paths.size(); ++slot) {
      ProjectionRow::Cell& cell = row.cells_[slot];
      const FieldPathAndType& path = paths[slot];
      try {
        const bool present =
            readValueExactAs(*schema, record, path.fieldPath, path.type, row.merged_[slot],
                             StoreScalar{&cell}, [&](Reader& current, ProtoWireType wireType) {
                               if (wireType != factsOf(path.type.kind()).wireType) {
                                 throwTypeMismatch(path.type, wireType);
                               }
                               cell.payload = current.readLengthDelimited();
                               return true;
                             });
        if (present) cell.state = ProjectionRow::State::present;
      } catch (...) {
        fail({slot}, std::current_exception(), row);
      }
    }
    return;
  }
  Reader reader(record);
  scan(0, reader, 0, reader.size(), row);
  for (uint32_t slot : deepSlots) {
    ProjectionRow::Cell& cell = row.cells_[slot];
    const FieldPathAndType& path = paths[slot];
    try {
      Reader single(record);
      const bool present = readValueAs(single, path.fieldPath, path.type, StoreScalar{&cell},
                                       [&](Reader& current, FieldTag tag) {
                                         if (!acceptsWireType(path.type.kind(), tag.wireType())) {
                                           throwTypeMismatch(path.type, tag.wireType());
                                         }
                                         cell.payload = readPayload(current, tag);
                                         return true;
                                       });
      if (present) cell.state = ProjectionRow::State::present;
    } catch (...) {
      fail({slot}, std::current_exception(), row);
    }
  }
}

// A varint, fixed32 or fixed64 value of a leaf's type stored in its cell, as decodeFixedEncodingAs
// and StoreScalar store it.
inline void ProjectionPlan::storeVarint(ProjectionRow::Cell& cell, TypeCase kind, uint64_t value) {
  auto& s = cell.scalar;
  switch (kind) {
    case TypeCase::int32:
      s.i32 = low32Signed(value);
      break;
    case TypeCase::uint32:
      s.u32 = static_cast<uint32_t>(value);
      break;
    case TypeCase::sint32:
      s.i32 = zigZag32(static_cast<uint32_t>(value));
      break;
    case TypeCase::int64:
      s.i64 = static_cast<int64_t>(value);
      break;
    case TypeCase::sint64:
      s.i64 = zigZag64(value);
      break;
    case TypeCase::bool_:
      s.b = value != 0;
      break;
    case TypeCase::enum_:
      s.i64 = low32Signed(value);
      break;
    default:
      s.u64 = value;
      break;
  }
}

inline void ProjectionPlan::storeFixed32(ProjectionRow::Cell& cell, TypeCase kind, uint32_t value) {
  auto& s = cell.scalar;
  if (kind == TypeCase::float_) {
    s.f32 = std::bit_cast<float>(value);
  } else if (kind == TypeCase::sfixed32) {
    s.i32 = static_cast<int32_t>(value);
  } else {
    s.u32 = value;
  }
}

inline void ProjectionPlan::storeFixed64(ProjectionRow::Cell& cell, TypeCase kind, uint64_t value) {
  auto& s = cell.scalar;
  if (kind == TypeCase::double_) {
    s.f64 = std::bit_cast<double>(value);
  } else if (kind == TypeCase::sfixed64) {
    s.i64 = static_cast<int64_t>(value);
  } else {
    s.u64 = value;
  }
}

// Looks for the nodes of `level` in the message [position, end), as the single read of each of
// their paths searches it: tag by tag, every field stepped over as skipField steps over it, until
// every node has its answer. A fault met while some nodes are still looking is the answer of
// those nodes' paths: their single reads would have met it at the same place.
//
// One table lookup per tag says what to do: step over a field not looked for, decode a leaf into
// its cell or scan a branch's message in place, or take the general step. A fault in place is
// thrown to this level's handler, which is what the general step and the stepping over the same
// bytes come to; only a value cut short by the end of the buffer is the leaf's alone, and goes to
// the general step. The loop keeps the buffer, the position and the row's arrays in locals: the
// reader's own fields are reloaded after every byte store, which the row's flags are.
void ProjectionPlan::scan(uint32_t levelIndex, Reader& reader, int64_t position, int64_t end,
                          ProjectionRow& row) const {
  const Level& level = levels[levelIndex];
  size_t unresolved = level.nodes.size();
  int64_t* const remaining = row.remaining_.data();
  uint8_t* const done = row.done_.data();
  ProjectionRow::Cell* const cells = row.cells_.data();
  for (uint32_t node : level.nodes) {
    remaining[node] = nodes[node].index.value_or(0);
    done[node] = 0;
  }
  reader.setEndPosition(end);
  const auto* const data = reinterpret_cast<const uint8_t*>(reader.bytes().data());
  const int64_t size = reader.size();
  // A span, not the vector: kept in registers across the stores into the row, and bounds-checked
  // where the standard library's assertions are on.
  const std::span<const uint16_t> dispatch(level.dispatch);
  const Action* const actions = level.actions.data();
  try {
    while (position < end) {
      // A tag of one or two bytes away from the buffer's end, as readVarint reads it.
      uint64_t raw;
      if (position < size && data[position] < 0x80) {
        raw = data[position];
        ++position;
      } else if (size - position >= 10 && data[position + 1] < 0x80) {
        raw = (data[position] & 0x7fu) | static_cast<uint64_t>(data[position + 1]) << 7;
        position += 2;
      } else {
        raw = reader.readVarint(position);
      }
      uint32_t code = raw < dispatch.size() ? dispatch[raw] : level.codeBeyond(raw);
      if (code >= kFirstAction) {
        const Action& action = actions[code - kFirstAction];
        const uint32_t node = action.node;
        code = static_cast<uint32_t>(raw & 7);
        if (action.op == Action::Op::general) {
          unresolved -= general(level, action.group, raw, reader, position, end, row);
          if (unresolved == 0) return;
        } else if (done[node]) {
          // Stepped over below.
        } else if (action.indexed && remaining[node] != 0) {
          --remaining[node];
        } else {
          ProjectionRow::Cell& cell = cells[action.slot];
          const int64_t start = position;
          bool inPlace = true;
          switch (action.op) {
            case Action::Op::varint:
              storeVarint(cell, action.kind, reader.readVarint(position));
              break;
            case Action::Op::fixed32:
              if (position <= size && size - position >= 4) {
                uint32_t value;
                std::memcpy(&value, data + position, sizeof value);
                storeFixed32(cell, action.kind, value);
                position += 4;
              } else {
                inPlace = false;
              }
              break;
            case Action::Op::fixed64:
              if (position <= size && size - position >= 8) {
                uint64_t value;
                std::memcpy(&value, data + position, sizeof value);
                storeFixed64(cell, action.kind, value);
                position += 8;
              } else {
                inPlace = false;
              }
              break;
            case Action::Op::payload: {
              const int64_t length = reader.readLength(position);
              if (size - position >= length) {
                cell.payload = ByteView(reinterpret_cast<const std::byte*>(data + position),
                                        static_cast<size_t>(length));
                position += length;
              } else {
                inPlace = false;
              }
              break;
            }
            case Action::Op::descend: {
              const int64_t length = reader.readLength(position);
              scan(action.childLevel, reader, position, position + length, row);
              position += length;
              break;
            }
            case Action::Op::general:
              break;
          }
          done[node] = 1;
          if (inPlace) {
            if (action.op != Action::Op::descend) cell.state = ProjectionRow::State::present;
            if (--unresolved == 0) return;
            continue;
          }
          // Cut short: the leaf's fault, met by the general decoding; the field is then stepped
          // over as the other paths' reads step over it.
          position = start;
          reader.setPosition(position);
          decodeLeaf(node, FieldTag(static_cast<uint32_t>(raw)), reader, row);
          if (--unresolved == 0) return;
        }
      }
      switch (code) {
        case static_cast<uint32_t>(ProtoWireType::varInt):
          reader.readVarint(position);
          break;
        case static_cast<uint32_t>(ProtoWireType::fixed64):
          position += 8;
          break;
        case static_cast<uint32_t>(ProtoWireType::lengthDelimited):
          position += reader.readLength(position);
          break;
        case static_cast<uint32_t>(ProtoWireType::startGroup):
          reader.setPosition(position);
          reader.skipGroup(static_cast<int64_t>(raw >> 3));
          position = reader.position();
          break;
        case static_cast<uint32_t>(ProtoWireType::fixed32):
          position += 4;
          break;
        default:
          throw SerializationError::malformedProtobuf();
      }
    }
  } catch (...) {
    const std::exception_ptr error = std::current_exception();
    for (uint32_t node : level.nodes) {
      if (!done[node]) fail(nodes[node].subtreeSlots, error, row);
    }
  }
}

// The general step at a tag of a group's number, the reader's scratch position just past the tag:
// each node of the group still looking takes the occurrence. How many it settles.
size_t ProjectionPlan::general(const Level& level, uint32_t groupIndex, uint64_t raw,
                               Reader& reader, int64_t position, int64_t end,
                               ProjectionRow& row) const {
  const Level::Group& group = level.groups[groupIndex];
  const FieldTag tag(static_cast<uint32_t>(raw));
  size_t settled = 0;
  for (uint32_t i = group.first; i < group.first + group.count; ++i) {
    const uint32_t node = level.nodes[i];
    if (row.done_[node]) continue;
    reader.setPosition(position);
    if (occurrence(node, tag, reader, row)) {
      row.done_[node] = 1;
      ++settled;
    }
    reader.setEndPosition(end);
  }
  return settled;
}

// One occurrence of a node's field, the reader just past its tag: whether it settles the node.
bool ProjectionPlan::occurrence(uint32_t nodeIndex, FieldTag tag, Reader& reader,
                                ProjectionRow& row) const {
  const Node& node = nodes[nodeIndex];
  const bool delimited = tag.wireType() == ProtoWireType::lengthDelimited;
  if (node.leaf) {
    if (node.index) {
      if (delimited && packable(node.type->kind())) {
        // A packed run settles the index: what is left of it counts in this run alone.
        decodeLeaf(nodeIndex, tag, reader, row);
        return true;
      }
      if (row.remaining_[nodeIndex] != 0) {
        --row.remaining_[nodeIndex];
        return false;
      }
    }
    decodeLeaf(nodeIndex, tag, reader, row);
    return true;
  }
  try {
    const bool group = tag.wireType() == ProtoWireType::startGroup;
    if (!delimited && !group) {
      if (node.index) throwIntermediateNotDelimited();
      throwUnexpectedType(tag.rawValue());
    }
    if (node.index && row.remaining_[nodeIndex] != 0) {
      --row.remaining_[nodeIndex];
      return false;
    }
    if (group) {
      const ByteView fields = reader.readGroup(tag.fieldNumber());
      const int64_t start = fields.data() - reader.bytes().data();
      scan(node.childLevel, reader, start, start + static_cast<int64_t>(fields.size()), row);
      return true;
    }
    const int64_t length = reader.readLength();
    const int64_t start = reader.position();
    scan(node.childLevel, reader, start, start + length, row);
  } catch (...) {
    fail(node.subtreeSlots, std::current_exception(), row);
  }
  return true;
}

// Decodes a leaf's occurrence into the cells of its paths, as the last step of the single read
// decodes it (a packed run for an indexed packable field); a fault is those paths' answer.
void ProjectionPlan::decodeLeaf(uint32_t nodeIndex, FieldTag tag, Reader& reader,
                                ProjectionRow& row) const {
  const Node& node = nodes[nodeIndex];
  ProjectionRow::Cell& cell = row.cells_[node.slots.front()];
  const TypeSchemaDescription& type = *node.type;
  const TypeCase kind = type.kind();
  const ProtoWireType wireType = tag.wireType();
  try {
    bool present = true;
    if (node.index && wireType == ProtoWireType::lengthDelimited && packable(kind)) {
      present = readPackedElementAs(reader, type, row.remaining_[nodeIndex], StoreScalar{&cell});
    } else if (!acceptsWireType(kind, wireType)) {
      throwTypeMismatch(type, wireType);
    } else if (factsOf(kind).isFixedEncoding()) {
      decodeFixedEncodingAs(reader, type, StoreScalar{&cell});
    } else {
      cell.payload = readPayload(reader, tag);
    }
    if (present) {
      cell.state = ProjectionRow::State::present;
      for (size_t i = 1; i < node.slots.size(); ++i) row.cells_[node.slots[i]] = cell;
    }
  } catch (...) {
    fail(node.slots, std::current_exception(), row);
  }
}

}  // namespace detail

namespace {

std::vector<std::string> copyPaths(std::span<const std::string> paths) {
  return {paths.begin(), paths.end()};
}

std::vector<std::string> copyPaths(std::initializer_list<std::string_view> paths) {
  std::vector<std::string> copies;
  copies.reserve(paths.size());
  for (std::string_view path : paths) copies.emplace_back(path);
  return copies;
}

}  // namespace

Projection::Projection(const MessageSchema& schema, std::span<const std::string> paths,
                       ReadMode mode)
    : plan_(std::make_shared<const detail::ProjectionPlan>(schema, copyPaths(paths), mode)) {}

Projection::Projection(const MessageSchema& schema, std::initializer_list<std::string_view> paths,
                       ReadMode mode)
    : plan_(std::make_shared<const detail::ProjectionPlan>(schema, copyPaths(paths), mode)) {}

size_t Projection::size() const noexcept { return plan_->paths.size(); }
const std::string& Projection::pathText(size_t i) const { return plan_->texts.at(i); }
const FieldPathAndType& Projection::path(size_t i) const { return plan_->paths.at(i); }

void Projection::read(ByteView record, ProjectionRow& row) const {
  if (row.plan_ != plan_) {
    throw SchematizerError::internalError("a projection row read by another projection");
  }
  plan_->read(record, row);
}

ProjectionRow Projection::makeRow() const {
  ProjectionRow row;
  row.plan_ = plan_;
  row.cells_.resize(plan_->paths.size());
  for (size_t i = 0; i < row.cells_.size(); ++i) row.cells_[i].kind = plan_->kinds[i];
  row.errors_.resize(plan_->paths.size());
  row.remaining_.resize(plan_->nodes.size());
  row.done_.resize(plan_->nodes.size());
  if (plan_->exact) row.merged_.resize(plan_->paths.size());
  return row;
}

std::exception_ptr ProjectionRow::error(size_t i) const { return errors_.at(i); }

void ProjectionRow::refuseKind(AnyValue::Case wanted, AnyValue::Case found) {
  detail::throwWrongValueKind(static_cast<uint8_t>(wanted), static_cast<uint8_t>(found));
}

void ProjectionRow::rethrowError(size_t i) const { std::rethrow_exception(errors_[i]); }

std::optional<AnyValue> ProjectionRow::value(size_t i) const {
  const Cell& cell = cells_.at(i);
  if (cell.state == State::failed) std::rethrow_exception(errors_[i]);
  if (cell.state == State::absent) return std::nullopt;
  const TypeSchemaDescription& type = plan_->paths[i].type;
  switch (cell.kind) {
    case AnyValue::Case::int32:
      return AnyValue(cell.scalar.i32);
    case AnyValue::Case::uint32:
      return AnyValue(cell.scalar.u32);
    case AnyValue::Case::int64:
      return AnyValue(cell.scalar.i64);
    case AnyValue::Case::uint64:
      return AnyValue(cell.scalar.u64);
    case AnyValue::Case::float_:
      return AnyValue(cell.scalar.f32);
    case AnyValue::Case::double_:
      return AnyValue(cell.scalar.f64);
    case AnyValue::Case::bool_:
      return AnyValue(cell.scalar.b);
    case AnyValue::Case::enum_:
      return AnyValue(EnumValue(detail::EnumValueImpl{type.enumSchema(), cell.scalar.i64}));
    case AnyValue::Case::string:
      return AnyValue(decodeUtf8Lossy(cell.payload));
    case AnyValue::Case::bytes:
      return AnyValue(toBytes(cell.payload));
    case AnyValue::Case::message:
      return AnyValue(SchematizedData(type.messageSchema(), toBytes(cell.payload)));
  }
  return std::nullopt;
}

std::optional<ByteView> ProjectionRow::payload(size_t i) const {
  const AnyValue::Case found = kind(i);
  if (found != AnyValue::Case::string && found != AnyValue::Case::bytes &&
      found != AnyValue::Case::message) {
    detail::throwWrongValueKind(static_cast<uint8_t>(AnyValue::Case::bytes),
                                static_cast<uint8_t>(found));
  }
  const Cell& cell = cells_[i];
  if (cell.state == State::failed) std::rethrow_exception(errors_[i]);
  if (cell.state == State::absent) return std::nullopt;
  return cell.payload;
}

namespace {

// The scalar of kind `wanted` at `path`, as the single read finds and decodes it.
template <typename T>
std::optional<T> readScalar(ByteView data, const FieldPathAndType& path, AnyValue::Case wanted) {
  detail::checkKind(wanted, detail::factsOf(path.type.kind()).valueCase);
  Reader reader(data);
  return detail::readValueAs(
      reader, path.fieldPath, path.type,
      [](auto v) -> std::optional<T> {
        if constexpr (std::is_same_v<decltype(v), detail::EnumValueImpl>) {
          return static_cast<T>(std::get<int64_t>(v.container));
        } else {
          return static_cast<T>(v);
        }
      },
      [&path](Reader&, FieldTag) -> std::optional<T> {
        // Strings, bytes and messages were turned away by the kind check.
        detail::throwWrongValueKind(
            static_cast<uint8_t>(AnyValue::Case::int64),
            static_cast<uint8_t>(detail::factsOf(path.type.kind()).valueCase));
      });
}

}  // namespace

std::optional<int32_t> readInt32(ByteView data, const FieldPathAndType& path) {
  return readScalar<int32_t>(data, path, AnyValue::Case::int32);
}
std::optional<uint32_t> readUInt32(ByteView data, const FieldPathAndType& path) {
  return readScalar<uint32_t>(data, path, AnyValue::Case::uint32);
}
std::optional<int64_t> readInt64(ByteView data, const FieldPathAndType& path) {
  return readScalar<int64_t>(data, path, AnyValue::Case::int64);
}
std::optional<uint64_t> readUInt64(ByteView data, const FieldPathAndType& path) {
  return readScalar<uint64_t>(data, path, AnyValue::Case::uint64);
}
std::optional<float> readFloat(ByteView data, const FieldPathAndType& path) {
  return readScalar<float>(data, path, AnyValue::Case::float_);
}
std::optional<double> readDouble(ByteView data, const FieldPathAndType& path) {
  return readScalar<double>(data, path, AnyValue::Case::double_);
}
std::optional<bool> readBool(ByteView data, const FieldPathAndType& path) {
  return readScalar<bool>(data, path, AnyValue::Case::bool_);
}
std::optional<int64_t> readEnumNumber(ByteView data, const FieldPathAndType& path) {
  return readScalar<int64_t>(data, path, AnyValue::Case::enum_);
}

}  // namespace ostrel
