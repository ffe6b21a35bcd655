#include "ostrel/manifest/manifest.hpp"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "support/test_support.hpp"

namespace ostrel {
namespace {

using testing_support::catchError;
using P = MergePolicy;

RawOptions opts(std::string_view text) { return toBytes(text); }

FieldManifest field(int64_t number, std::optional<int32_t> oneof = std::nullopt,
                    RawOptions options = std::nullopt) {
  return {.type = TypeManifest::int32,
          .fieldNumber = number,
          .oneofIndex = oneof,
          .options = std::move(options)};
}

MessageManifest message(std::map<std::string, FieldManifest, std::less<>> fields,
                        std::vector<OneofManifest> oneofs = {}, RawOptions options = std::nullopt) {
  return {std::move(fields), std::move(oneofs), std::move(options)};
}

TEST(OptionalBytesMerge, AbsentSidesGiveWayAndPresentOnesFollowThePolicy) {
  struct Row {
    RawOptions receiver, other;
    MergePolicy policy;
    RawOptions expected;  // the receiver afterwards, also when the merge fails
    bool conflicts = false;
  };
  const Row rows[] = {
      {opts("a"), std::nullopt, P::takeIncoming, opts("a")},
      {std::nullopt, opts("b"), P::keepExisting, opts("b")},
      {std::nullopt, Bytes{}, P::requireEqual, Bytes{}},
      {Bytes{}, opts("a"), P::requireEqual, Bytes{}, true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.expected) + (row.conflicts ? " conflict" : ""));
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

// Fields, oneofs and enums merge as a whole: two that differ anywhere are decided by the policy.
template <typename Record>
void expectWholeRecordRule(const Record& existing, const Record& incoming, const char* conflict) {
  ASSERT_NE(existing, incoming);
  Record kept = existing, taken = existing, required = existing, same = existing;
  EXPECT_EQ(&kept.merge(incoming, P::keepExisting), &kept);
  EXPECT_EQ(kept, existing);
  EXPECT_EQ(&taken.merge(incoming, P::takeIncoming), &taken);
  EXPECT_EQ(taken, incoming);
  EXPECT_EQ(catchError([&] { required.merge(incoming, P::requireEqual); }),
            MergeConflict::conflict(conflict));
  EXPECT_EQ(required, existing);
  EXPECT_EQ(&same.merge(Record(existing), P::requireEqual), &same);
  EXPECT_EQ(same, existing);
  for (const MergePolicy policy : {P::keepExisting, P::takeIncoming, P::requireEqual}) {
    Record absent = existing;
    EXPECT_EQ(absent.merge(std::optional<Record>(), policy), existing);
  }
}

TEST(RecordMerge, DifferenceInAnyAttributeIsDecidedAsAWhole) {
  const char* const f = "Conflict merging FieldManifest";
  const FieldManifest base = field(1, 0, opts("x"));
  expectWholeRecordRule(base, field(2, 0, opts("x")), f);
  expectWholeRecordRule(base, field(1, 1, opts("x")), f);
  expectWholeRecordRule(base, field(1, 0, Bytes{}), f);
  expectWholeRecordRule(base, FieldManifest{.type = TypeManifest::sint32, .fieldNumber = 1}, f);
  FieldManifest named = base, repeated = base;
  named.typeName = "a.M";
  repeated.isRepeated = true;
  expectWholeRecordRule(base, named, f);
  expectWholeRecordRule(base, repeated, f);
  expectWholeRecordRule(OneofManifest{"kind"}, OneofManifest{"choice"},
                        "Conflict merging OneofManifest");
  // Value sets are never united.
  expectWholeRecordRule(EnumManifest{{{"A", 0}}}, EnumManifest{{{"A", 0}, {"B", 1}}},
                        "Conflict merging EnumManifest");
}

// Extension and JSON names are annotations: they do not make two fields differ, and a merge keeps
// them from whichever side has them.
TEST(RecordMerge, FieldAnnotationsComeFromEitherSide) {
  FieldManifest annotated = field(1);
  annotated.extensionName = "a.ext";
  annotated.jsonName = "j";
  annotated.implicitPresence = annotated.packed = annotated.closedEnum = true;
  const auto flags = [](const FieldManifest& f) {
    return std::tuple(f.implicitPresence, f.packed, f.closedEnum);
  };
  for (const MergePolicy policy : {P::keepExisting, P::takeIncoming, P::requireEqual}) {
    FieldManifest plain = field(1);
    EXPECT_EQ(plain.merge(annotated, policy).extensionName, "a.ext");
    EXPECT_EQ(plain.jsonName, "j");
    EXPECT_EQ(flags(plain), std::tuple(true, true, true));
    FieldManifest kept = annotated;
    kept.merge(field(1), policy);
    EXPECT_EQ(kept.extensionName, "a.ext");
    EXPECT_EQ(kept.jsonName, "j");
    EXPECT_EQ(flags(kept), std::tuple(true, true, true));
  }
}

// Messages unite their fields, merge their options as optional bytes and keep the receiver's
// oneofs; under requireEqual a clash leaves in place what was merged before it.
TEST(MessageManifestMerge, UnitesFieldsAndKeepsTheReceiversOneofs) {
  const std::vector<OneofManifest> mine = {{"kind"}}, theirs = {{"other"}, {"third", opts("t")}};
  const FieldManifest x = field(1, 0), y = field(2), xElsewhere = field(1, 1);
  struct Row {
    const char* name;
    MessageManifest receiver, incoming;
    MergePolicy policy;
    MessageManifest expected;
    const char* conflict = nullptr;
  };
  const Row rows[] = {
      {"disjoint fields", message({{"x", x}}, mine), message({{"y", y}}, theirs), P::requireEqual,
       message({{"x", x}, {"y", y}}, mine)},
      {"same field differs, keepExisting", message({{"x", x}, {"y", y}}, mine),
       message({{"x", xElsewhere}}), P::keepExisting, message({{"x", x}, {"y", y}}, mine)},
      {"same field differs, takeIncoming", message({{"x", x}}, mine), message({{"x", xElsewhere}}),
       P::takeIncoming, message({{"x", xElsewhere}}, mine)},
      {"empty receiver oneofs stay empty", message({{"y", y}}),
       message({{"x", x}}, theirs, opts("m")), P::takeIncoming,
       message({{"x", x}, {"y", y}}, {}, opts("m"))},
      {"field clash: fields before it stay, those after are not added, options untouched",
       message({{"x", x}}, mine), message({{"a", y}, {"x", field(1)}, {"z", y}}, {}, opts("m")),
       P::requireEqual, message({{"a", y}, {"x", x}}, mine), "Conflict merging FieldManifest"},
      {"options clash: fields are already united", message({{"x", x}}, mine, opts("a")),
       message({{"a", y}}, {}, opts("b")), P::requireEqual,
       message({{"a", y}, {"x", x}}, mine, opts("a")), "Conflict merging Optional<Data>"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    MessageManifest receiver = row.receiver;
    if (row.conflict) {
      EXPECT_EQ(catchError([&] { receiver.merge(row.incoming, row.policy); }),
                MergeConflict::conflict(row.conflict));
    } else {
      EXPECT_EQ(&receiver.merge(row.incoming, row.policy), &receiver);
    }
    EXPECT_EQ(receiver, row.expected);
  }
}

TEST(SchemaManifestMerge, MergesMessagesAndEnumsKeyByKey) {
  const EnumManifest e1{{{"A", 0}}}, e2{{{"B", 1}}, opts("e")};
  const MessageManifest mine = message({{"x", field(1)}}, {{"kind"}}, opts("a"));
  const MessageManifest theirs = message({{"x", field(9)}, {"y", field(2)}}, {}, opts("b"));
  const SchemaManifest receiver{{{"a.M", mine}}, {{"a.E", e1}}};
  // A message is merged field by field even under takeIncoming, while an enum is replaced.
  SchemaManifest taken = receiver;
  taken.merge(SchemaManifest{{{"a.M", theirs}}, {{"a.E", e2}}}, P::takeIncoming);
  EXPECT_EQ(
      taken,
      (SchemaManifest{{{"a.M", message({{"x", field(9)}, {"y", field(2)}}, {{"kind"}}, opts("b"))}},
                      {{"a.E", e2}}}));
  // merging() keeps the receiver's side of every clash and leaves the receiver as it was.
  EXPECT_EQ(
      receiver.merging(SchemaManifest{{{"a.M", theirs}}, {{"a.E", e2}, {"a.F", e1}}}),
      (SchemaManifest{{{"a.M", message({{"x", field(1)}, {"y", field(2)}}, {{"kind"}}, opts("a"))}},
                      {{"a.E", e1}, {"a.F", e1}}}));
  EXPECT_EQ(receiver, (SchemaManifest{{{"a.M", mine}}, {{"a.E", e1}}}));
  // An enum clash: enums before it are added, later ones are not.
  SchemaManifest clashed{{}, {{"a.B", e1}}};
  EXPECT_EQ(
      catchError([&] {
        clashed.merge(SchemaManifest{{}, {{"a.A", e1}, {"a.B", e2}, {"a.C", e1}}}, P::requireEqual);
      }),
      MergeConflict::conflict("Conflict merging EnumManifest"));
  EXPECT_EQ(clashed, (SchemaManifest{{}, {{"a.A", e1}, {"a.B", e1}}}));
  // Optional slots: an absent one takes the other, a present one merges by the record's rule.
  std::optional<MessageManifest> slot;
  merge(slot, std::optional<MessageManifest>(theirs), P::requireEqual);
  EXPECT_EQ(slot, theirs);
  std::optional<MessageManifest> empty;
  merge(empty, std::optional<MessageManifest>(), P::requireEqual);
  EXPECT_EQ(empty, std::nullopt);
}

}  // namespace
}  // namespace ostrel
