#include "ostrel/manifest/manifest.hpp"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "support/test_support.hpp"

namespace ostrel {
namespace {

using testing_support::catchError;

constexpr MergePolicy kAllPolicies[] = {MergePolicy::keepExisting, MergePolicy::takeIncoming,
                                        MergePolicy::requireEqual};

const char* policyName(MergePolicy policy) {
  switch (policy) {
    case MergePolicy::keepExisting:
      return "keepExisting";
    case MergePolicy::takeIncoming:
      return "takeIncoming";
    case MergePolicy::requireEqual:
      return "requireEqual";
  }
  return "?";
}

RawOptions opts(std::string_view text) { return toBytes(text); }

FieldManifest field(int64_t number, TypeManifest type = TypeManifest::int32) {
  FieldManifest f;
  f.type = type;
  f.fieldNumber = number;
  return f;
}

FieldManifest withOneof(FieldManifest f, int32_t index) {
  f.oneofIndex = index;
  return f;
}

FieldManifest withOptions(FieldManifest f, std::string_view text) {
  f.options = opts(text);
  return f;
}

FieldManifest withTypeName(FieldManifest f, std::string name) {
  f.typeName = std::move(name);
  return f;
}

FieldManifest repeated(FieldManifest f) {
  f.isRepeated = true;
  return f;
}

OneofManifest oneof(std::string name, RawOptions options = std::nullopt) {
  return {std::move(name), std::move(options)};
}

EnumManifest enumOf(std::map<std::string, int64_t, std::less<>> values,
                    RawOptions options = std::nullopt, std::map<int64_t, Bytes> valueOptions = {}) {
  return {std::move(values), std::move(options), std::move(valueOptions)};
}

// ---------------------------------------------------------------------------------------------
// Optional raw options

struct OptionsRow {
  std::string name;
  RawOptions receiver;
  RawOptions other;
  MergePolicy policy;
  RawOptions expected;  // the receiver afterwards, also when the merge fails
  bool conflicts = false;
};

TEST(OptionalBytesMerge, FollowsThePolicy) {
  const Bytes empty;
  const std::vector<OptionsRow> rows = {
      {"absent other, keepExisting", opts("a"), std::nullopt, MergePolicy::keepExisting, opts("a")},
      {"absent other, takeIncoming", opts("a"), std::nullopt, MergePolicy::takeIncoming, opts("a")},
      {"absent other, requireEqual", opts("a"), std::nullopt, MergePolicy::requireEqual, opts("a")},
      {"both absent, requireEqual", std::nullopt, std::nullopt, MergePolicy::requireEqual,
       std::nullopt},
      {"absent receiver, keepExisting", std::nullopt, opts("b"), MergePolicy::keepExisting,
       opts("b")},
      {"absent receiver, takeIncoming", std::nullopt, opts("b"), MergePolicy::takeIncoming,
       opts("b")},
      {"absent receiver, requireEqual", std::nullopt, opts("b"), MergePolicy::requireEqual,
       opts("b")},
      {"equal, requireEqual", opts("a"), opts("a"), MergePolicy::requireEqual, opts("a")},
      {"different, keepExisting", opts("a"), opts("b"), MergePolicy::keepExisting, opts("a")},
      {"different, takeIncoming", opts("a"), opts("b"), MergePolicy::takeIncoming, opts("b")},
      {"different, requireEqual", opts("a"), opts("b"), MergePolicy::requireEqual, opts("a"), true},
      {"prefix, requireEqual", opts("ab"), opts("a"), MergePolicy::requireEqual, opts("ab"), true},
      {"empty receiver, absent other", empty, std::nullopt, MergePolicy::requireEqual, empty},
      {"absent receiver, empty other", std::nullopt, empty, MergePolicy::requireEqual, empty},
      {"empty against bytes, requireEqual", empty, opts("a"), MergePolicy::requireEqual, empty,
       true},
      {"empty against bytes, takeIncoming", empty, opts("a"), MergePolicy::takeIncoming, opts("a")},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    RawOptions receiver = row.receiver;
    if (row.conflicts) {
      EXPECT_EQ(catchError([&] { merge(receiver, row.other, row.policy); }),
                MergeConflict::conflict("Conflict merging Optional<Data>"));
    } else {
      EXPECT_EQ(&merge(receiver, row.other, row.policy), &receiver);
    }
    EXPECT_EQ(receiver, row.expected);
  }
}

// ---------------------------------------------------------------------------------------------
// Whole-record conformers: two records that differ are decided by the policy as a whole.

template <typename Record>
struct WholeRecordRow {
  std::string name;
  Record existing;
  Record incoming;
};

template <typename Record>
void expectWholeRecordRule(const WholeRecordRow<Record>& row, const std::string& conflictText) {
  ASSERT_NE(row.existing, row.incoming);

  Record kept = row.existing;
  EXPECT_EQ(&kept.merge(row.incoming, MergePolicy::keepExisting), &kept);
  EXPECT_EQ(kept, row.existing);

  Record taken = row.existing;
  EXPECT_EQ(&taken.merge(row.incoming, MergePolicy::takeIncoming), &taken);
  EXPECT_EQ(taken, row.incoming);

  Record required = row.existing;
  EXPECT_EQ(catchError([&] { required.merge(row.incoming, MergePolicy::requireEqual); }),
            MergeConflict::conflict(conflictText));
  EXPECT_EQ(required, row.existing);

  Record same = row.existing;
  EXPECT_EQ(&same.merge(Record(row.existing), MergePolicy::requireEqual), &same);
  EXPECT_EQ(same, row.existing);
}

TEST(FieldManifestMerge, DifferenceInAnyAttributeIsDecidedAsAWhole) {
  const FieldManifest base = withTypeName(field(1, TypeManifest::message), "a.M");
  const std::vector<WholeRecordRow<FieldManifest>> rows = {
      {"type", field(1, TypeManifest::int32), field(1, TypeManifest::sint32)},
      {"typeName", base, withTypeName(base, "a.N")},
      {"typeName absent on one side", field(1, TypeManifest::enum_),
       withTypeName(field(1, TypeManifest::enum_), "a.E")},
      {"fieldNumber", field(1), field(2)},
      {"isRepeated", field(1), repeated(field(1))},
      {"oneofIndex only", withOneof(base, 0), withOneof(base, 1)},
      {"oneofIndex absent against 0", base, withOneof(base, 0)},
      {"options only", withOptions(base, "x"), withOptions(base, "y")},
      {"options on one side only", base, withOptions(base, "x")},
      {"options empty against absent", base, withOptions(base, "")},
      {"everything", base, repeated(withOptions(withOneof(field(7, TypeManifest::bytes), 2), "z"))},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    expectWholeRecordRule(row, "Conflict merging FieldManifest");
  }
}

TEST(OneofManifestMerge, DifferenceInAnyAttributeIsDecidedAsAWhole) {
  const std::vector<WholeRecordRow<OneofManifest>> rows = {
      {"name", oneof("kind"), oneof("choice")},
      {"options", oneof("kind", opts("a")), oneof("kind", opts("b"))},
      {"options on one side only", oneof("kind"), oneof("kind", opts("a"))},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    expectWholeRecordRule(row, "Conflict merging OneofManifest");
  }
}

TEST(EnumManifestMerge, DifferenceInAnyAttributeIsDecidedAsAWhole) {
  const std::vector<WholeRecordRow<EnumManifest>> rows = {
      // Value sets are never united.
      {"disjoint values", enumOf({{"A", 0}}), enumOf({{"B", 1}})},
      {"one more value", enumOf({{"A", 0}}), enumOf({{"A", 0}, {"B", 1}})},
      {"value renumbered", enumOf({{"A", 0}}), enumOf({{"A", 1}})},
      {"options", enumOf({{"A", 0}}, opts("a")), enumOf({{"A", 0}}, opts("b"))},
      {"options on one side only", enumOf({{"A", 0}}), enumOf({{"A", 0}}, opts("a"))},
      {"same values, different valueOptions",
       enumOf({{"A", 0}, {"B", 1}}, std::nullopt, {{1, toBytes("x")}}),
       enumOf({{"A", 0}, {"B", 1}}, std::nullopt, {{1, toBytes("y")}})},
      {"same values, valueOptions on other number",
       enumOf({{"A", 0}, {"B", 1}}, std::nullopt, {{0, toBytes("x")}}),
       enumOf({{"A", 0}, {"B", 1}}, std::nullopt, {{1, toBytes("x")}})},
      {"same values, valueOptions on one side only", enumOf({{"A", 0}, {"B", 1}}),
       enumOf({{"A", 0}, {"B", 1}}, std::nullopt, {{1, toBytes("x")}})},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    expectWholeRecordRule(row, "Conflict merging EnumManifest");
  }
}

// ---------------------------------------------------------------------------------------------
// Absent incoming records

MessageManifest sampleMessage() {
  MessageManifest m;
  m.fields = {{"x", withOneof(field(1), 0)}, {"y", withOptions(field(2), "f")}};
  m.oneofs = {oneof("kind", opts("o"))};
  m.options = opts("m");
  return m;
}

SchemaManifest sampleSchema() {
  SchemaManifest s;
  s.messages = {{"a.M", sampleMessage()}, {"a.Empty", {}}};
  s.enums = {{"a.E", enumOf({{"A", 0}}, opts("e"), {{0, toBytes("v")}})}};
  return s;
}

template <typename Record>
void expectAbsentOtherChangesNothing(const Record& original, MergePolicy policy) {
  Record receiver = original;
  EXPECT_EQ(&receiver.merge(std::optional<Record>(), policy), &receiver);
  EXPECT_EQ(receiver, original);

  std::optional<Record> slot = original;
  merge(slot, std::optional<Record>(), policy);
  EXPECT_EQ(slot, original);

  std::optional<Record> emptySlot;
  merge(emptySlot, std::optional<Record>(), policy);
  EXPECT_EQ(emptySlot, std::nullopt);
}

TEST(AbsentOther, LeavesTheReceiverUnchangedUnderEveryPolicy) {
  for (MergePolicy policy : kAllPolicies) {
    SCOPED_TRACE(policyName(policy));
    {
      SCOPED_TRACE("FieldManifest");
      expectAbsentOtherChangesNothing(withOptions(withOneof(field(3), 1), "f"), policy);
    }
    {
      SCOPED_TRACE("OneofManifest");
      expectAbsentOtherChangesNothing(oneof("kind", opts("o")), policy);
    }
    {
      SCOPED_TRACE("EnumManifest");
      expectAbsentOtherChangesNothing(enumOf({{"A", 0}}, opts("e"), {{0, toBytes("v")}}), policy);
    }
    {
      SCOPED_TRACE("MessageManifest");
      expectAbsentOtherChangesNothing(sampleMessage(), policy);
    }
    {
      SCOPED_TRACE("SchemaManifest");
      expectAbsentOtherChangesNothing(sampleSchema(), policy);
    }
  }
}

// ---------------------------------------------------------------------------------------------
// Messages: fields united, options merged as optional bytes, the receiver's oneofs kept.

MessageManifest message(std::map<std::string, FieldManifest, std::less<>> fields,
                        std::vector<OneofManifest> oneofs = {}, RawOptions options = std::nullopt) {
  return {std::move(fields), std::move(oneofs), std::move(options)};
}

struct MessageRow {
  std::string name;
  MessageManifest receiver;
  MessageManifest incoming;
  MergePolicy policy;
  MessageManifest expected;
};

TEST(MessageManifestMerge, UnitesFieldsAndKeepsTheReceiversOneofs) {
  const std::vector<OneofManifest> mine = {oneof("kind")};
  const std::vector<OneofManifest> theirs = {oneof("other"), oneof("third", opts("t"))};
  const FieldManifest x = withOneof(field(1), 0);
  const FieldManifest y = field(2);
  const FieldManifest xElsewhere = withOneof(field(1), 1);
  const std::vector<MessageRow> rows = {
      {"disjoint fields, requireEqual", message({{"x", x}}, mine), message({{"y", y}}, theirs),
       MergePolicy::requireEqual, message({{"x", x}, {"y", y}}, mine)},
      {"disjoint fields, keepExisting", message({{"x", x}}, mine), message({{"y", y}}, theirs),
       MergePolicy::keepExisting, message({{"x", x}, {"y", y}}, mine)},
      {"disjoint fields, takeIncoming", message({{"x", x}}, mine), message({{"y", y}}, theirs),
       MergePolicy::takeIncoming, message({{"x", x}, {"y", y}}, mine)},
      {"same field equal, requireEqual", message({{"x", x}}, mine), message({{"x", x}}, theirs),
       MergePolicy::requireEqual, message({{"x", x}}, mine)},
      {"same field differs, keepExisting", message({{"x", x}, {"y", y}}, mine),
       message({{"x", xElsewhere}}), MergePolicy::keepExisting,
       message({{"x", x}, {"y", y}}, mine)},
      {"same field differs, takeIncoming", message({{"x", x}, {"y", y}}, mine),
       message({{"x", xElsewhere}}), MergePolicy::takeIncoming,
       message({{"x", xElsewhere}, {"y", y}}, mine)},
      {"empty receiver oneofs stay empty, takeIncoming", message({{"y", y}}),
       message({{"x", x}}, theirs, opts("m")), MergePolicy::takeIncoming,
       message({{"x", x}, {"y", y}}, {}, opts("m"))},
      {"empty receiver oneofs stay empty, requireEqual", message({{"y", y}}),
       message({{"y", y}}, theirs), MergePolicy::requireEqual, message({{"y", y}})},
      {"options only incoming, requireEqual", message({}, mine), message({}, {}, opts("m")),
       MergePolicy::requireEqual, message({}, mine, opts("m"))},
      {"options only in receiver, requireEqual", message({}, mine, opts("m")), message({}),
       MergePolicy::requireEqual, message({}, mine, opts("m"))},
      {"options differ, keepExisting", message({}, {}, opts("a")), message({}, {}, opts("b")),
       MergePolicy::keepExisting, message({}, {}, opts("a"))},
      {"options differ, takeIncoming", message({}, {}, opts("a")), message({}, {}, opts("b")),
       MergePolicy::takeIncoming, message({}, {}, opts("b"))},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    MessageManifest receiver = row.receiver;
    EXPECT_EQ(&receiver.merge(row.incoming, row.policy), &receiver);
    EXPECT_EQ(receiver, row.expected);
  }
}

struct MessageConflictRow {
  std::string name;
  MessageManifest receiver;
  MessageManifest incoming;
  std::string conflictText;
  MessageManifest receiverAfter;  // partly merged: what was combined before the clash stays
};

TEST(MessageManifestMerge, ConflictsUnderRequireEqualLeaveWhatWasMergedBeforeTheClash) {
  const FieldManifest x = withOneof(field(1), 0);
  const FieldManifest a = field(5);
  const FieldManifest c = field(6);
  const std::vector<OneofManifest> mine = {oneof("kind")};
  const std::vector<MessageConflictRow> rows = {
      {"field differs only in oneofIndex", message({{"x", x}}, mine),
       message({{"x", withOneof(field(1), 1)}}, mine), "Conflict merging FieldManifest",
       message({{"x", x}}, mine)},
      {"field differs only in options", message({{"x", x}}, mine),
       message({{"x", withOptions(x, "f")}}, mine), "Conflict merging FieldManifest",
       message({{"x", x}}, mine)},
      {"fields before the clash stay, those after are not added, options untouched",
       message({{"x", x}}, mine), message({{"a", a}, {"x", field(1)}, {"z", c}}, {}, opts("m")),
       "Conflict merging FieldManifest", message({{"a", a}, {"x", x}}, mine)},
      {"options differ: fields are already united", message({{"x", x}}, mine, opts("a")),
       message({{"a", a}, {"x", x}}, {}, opts("b")), "Conflict merging Optional<Data>",
       message({{"a", a}, {"x", x}}, mine, opts("a"))},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    MessageManifest receiver = row.receiver;
    EXPECT_EQ(catchError([&] { receiver.merge(row.incoming, MergePolicy::requireEqual); }),
              MergeConflict::conflict(row.conflictText));
    EXPECT_EQ(receiver, row.receiverAfter);
  }
}

// ---------------------------------------------------------------------------------------------
// Optional records and single dictionary slots

TEST(OptionalRecordMerge, AbsentSlotTakesOtherAndPresentSlotMergesByTheRecordsRule) {
  const MessageManifest incoming = message({{"y", field(2)}}, {oneof("other")}, opts("m"));
  struct Row {
    std::string name;
    std::optional<MessageManifest> slot;
    std::optional<MessageManifest> expected;
  };
  const std::vector<Row> rows = {
      {"absent slot becomes other", std::nullopt, incoming},
      {"present slot merges field-wise", message({{"x", field(1)}}, {oneof("kind")}),
       message({{"x", field(1)}, {"y", field(2)}}, {oneof("kind")}, opts("m"))},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    std::optional<MessageManifest> slot = row.slot;
    EXPECT_EQ(&merge(slot, std::optional<MessageManifest>(incoming), MergePolicy::requireEqual),
              &slot);
    EXPECT_EQ(slot, row.expected);
  }
}

TEST(OptionalRecordMerge, PresentSlotConflictIsReported) {
  std::optional<EnumManifest> slot = enumOf({{"A", 0}});
  EXPECT_EQ(
      catchError([&] {
        merge(slot, std::optional<EnumManifest>(enumOf({{"B", 0}})), MergePolicy::requireEqual);
      }),
      MergeConflict::conflict("Conflict merging EnumManifest"));
  EXPECT_EQ(slot, enumOf({{"A", 0}}));
}

// ---------------------------------------------------------------------------------------------
// Schema manifests

struct SchemaRow {
  std::string name;
  SchemaManifest receiver;
  SchemaManifest incoming;
  MergePolicy policy;
  SchemaManifest expected;
};

TEST(SchemaManifestMerge, MergesMessagesAndEnumsKeyByKey) {
  const EnumManifest e1 = enumOf({{"A", 0}});
  const EnumManifest e2 = enumOf({{"B", 1}}, opts("e"));
  const MessageManifest mine = message({{"x", field(1)}}, {oneof("kind")}, opts("a"));
  const MessageManifest theirs = message({{"x", field(9)}, {"y", field(2)}}, {}, opts("b"));
  const std::vector<SchemaRow> rows = {
      {"new names are added, requireEqual", SchemaManifest{{{"a.M", mine}}, {{"a.E", e1}}},
       SchemaManifest{{{"a.N", theirs}}, {{"a.F", e2}}}, MergePolicy::requireEqual,
       SchemaManifest{{{"a.M", mine}, {"a.N", theirs}}, {{"a.E", e1}, {"a.F", e2}}}},
      {"equal duplicates pass, requireEqual", SchemaManifest{{{"a.M", mine}}, {{"a.E", e1}}},
       SchemaManifest{{{"a.M", mine}}, {{"a.E", e1}}}, MergePolicy::requireEqual,
       SchemaManifest{{{"a.M", mine}}, {{"a.E", e1}}}},
      {"duplicates, keepExisting", SchemaManifest{{{"a.M", mine}}, {{"a.E", e1}}},
       SchemaManifest{{{"a.M", theirs}}, {{"a.E", e2}}}, MergePolicy::keepExisting,
       SchemaManifest{
           {{"a.M", message({{"x", field(1)}, {"y", field(2)}}, {oneof("kind")}, opts("a"))}},
           {{"a.E", e1}}}},
      // A message is merged field by field even under takeIncoming, while an enum is replaced.
      {"duplicates, takeIncoming", SchemaManifest{{{"a.M", mine}}, {{"a.E", e1}}},
       SchemaManifest{{{"a.M", theirs}}, {{"a.E", e2}}}, MergePolicy::takeIncoming,
       SchemaManifest{
           {{"a.M", message({{"x", field(9)}, {"y", field(2)}}, {oneof("kind")}, opts("b"))}},
           {{"a.E", e2}}}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    SchemaManifest receiver = row.receiver;
    EXPECT_EQ(&receiver.merge(row.incoming, row.policy), &receiver);
    EXPECT_EQ(receiver, row.expected);
  }
}

struct SchemaConflictRow {
  std::string name;
  SchemaManifest receiver;
  SchemaManifest incoming;
  std::string conflictText;
  SchemaManifest receiverAfter;
};

TEST(SchemaManifestMerge, ConflictsLeaveWhatWasMergedBeforeTheClash) {
  const EnumManifest e = enumOf({{"A", 0}});
  const MessageManifest later = message({{"x", field(1)}, {"z", field(3)}});
  const std::vector<SchemaConflictRow> rows = {
      {"enum clash: earlier enums added, later ones not", SchemaManifest{{}, {{"a.B", e}}},
       SchemaManifest{{}, {{"a.A", e}, {"a.B", enumOf({{"A", 1}})}, {"a.C", e}}},
       "Conflict merging EnumManifest", SchemaManifest{{}, {{"a.A", e}, {"a.B", e}}}},
      {"field clash inside a message: earlier fields and messages stay",
       SchemaManifest{{{"a.B", message({{"y", field(2)}})}}, {}},
       SchemaManifest{{{"a.A", message({})},
                       {"a.B", message({{"x", field(1)}, {"y", field(7)}, {"z", field(3)}})},
                       {"a.C", later}},
                      {}},
       "Conflict merging FieldManifest",
       SchemaManifest{{{"a.A", message({})}, {"a.B", message({{"x", field(1)}, {"y", field(2)}})}},
                      {}}},
      {"message options clash", SchemaManifest{{{"a.M", message({}, {}, opts("a"))}}, {}},
       SchemaManifest{{{"a.M", message({{"x", field(1)}}, {}, opts("b"))}}, {}},
       "Conflict merging Optional<Data>",
       SchemaManifest{{{"a.M", message({{"x", field(1)}}, {}, opts("a"))}}, {}}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    SchemaManifest receiver = row.receiver;
    EXPECT_EQ(catchError([&] { receiver.merge(row.incoming, MergePolicy::requireEqual); }),
              MergeConflict::conflict(row.conflictText));
    EXPECT_EQ(receiver, row.receiverAfter);
  }
}

TEST(SchemaManifestMerging, ReceiverWinsDuplicatesAndGainsNewNames) {
  const SchemaManifest receiver{
      {{"a.M",
        message({{"x", field(1)}, {"y", withOptions(field(2), "r")}}, {oneof("kind")}, opts("r"))}},
      {{"a.E", enumOf({{"A", 0}})}}};
  const SchemaManifest other{{{"a.M", message({{"y", withOneof(field(20), 3)}, {"z", field(3)}},
                                              {oneof("other")}, opts("o"))},
                              {"a.N", message({{"n", field(1)}})}},
                             {{"a.E", enumOf({{"B", 5}})}, {"a.F", enumOf({{"C", 0}})}}};

  const SchemaManifest merged = receiver.merging(other);

  const SchemaManifest expected{
      {{"a.M", message({{"x", field(1)}, {"y", withOptions(field(2), "r")}, {"z", field(3)}},
                       {oneof("kind")}, opts("r"))},
       {"a.N", message({{"n", field(1)}})}},
      {{"a.E", enumOf({{"A", 0}})}, {"a.F", enumOf({{"C", 0}})}}};
  EXPECT_EQ(merged, expected);
  // The receiver itself is left as it was.
  EXPECT_EQ(receiver.messages.at("a.M").fields.size(), 2u);
  EXPECT_EQ(receiver.messages.count("a.N"), 0u);
  EXPECT_EQ(receiver.enums.count("a.F"), 0u);
}

}  // namespace
}  // namespace ostrel
