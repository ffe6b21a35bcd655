// The options and failures of the columnar projection, through its public API, read back from the
// exported C structures: enums three ways, defaults, well-known types, exact reads, rows of nulls,
// and the errors of records and paths.

#include <gtest/gtest.h>

#include <map>
#include <tuple>
#include <vector>

#include "columns/arrow_text.hpp"
#include "ostrel/ostrel.hpp"
#include "rich.pb.h"
#include "support/test_support.hpp"
#include "well_known.pb.h"

namespace ostrel {
namespace {

using testing_support::catchError;

// Each row of a batch as its cells' text joined by " | ".
std::vector<std::string> rowsOf(const ArrowSchema& schema, const ArrowArray& batch) {
  std::vector<std::string> rows;
  for (int64_t row = 0; row < batch.length; ++row) {
    std::string text;
    for (int64_t c = 0; c < schema.n_children; ++c) {
      if (c > 0) text += " | ";
      text += testing_support::arrowCell(*schema.children[c], *batch.children[c], row);
    }
    rows.push_back(text);
  }
  return rows;
}

std::vector<std::string> columnsOf(ColumnProjection& projection,
                                   const std::vector<std::string>& records) {
  for (const std::string& record : records) projection.append(asBytes(record));
  ArrowSchema schema;
  ArrowArray batch;
  projection.exportSchema(&schema);
  projection.takeBatch(&batch);
  std::vector<std::string> rows = rowsOf(schema, batch);
  batch.release(&batch);
  schema.release(&schema);
  return rows;
}

// The bytes of a message of type M that `fill` sets.
template <typename M>
std::string encoded(const std::function<void(M&)>& fill) {
  M message;
  fill(message);
  return message.SerializeAsString();
}
const auto rich = encoded<test::Rich>;
const auto holder = encoded<test::wkt::Holder>;

struct OptionRow {
  const char* name;
  const char* type;
  std::vector<std::string> paths;
  std::function<void(ColumnOptions&)> configure;
  std::vector<std::string> records;
  std::vector<std::string> expected;
};

TEST(ColumnsTest, OptionsShapeTheColumns) {
  const SchemaStore richStore(testing_support::generatedManifest("rich.desc"));
  const SchemaStore wktStore(testing_support::generatedManifest("well_known.desc"));
  // repeats { r_int32: [1, 2] packed, an empty run, then [3] packed }
  const std::string twoRuns("\x1a\x09\x2a\x02\x01\x02\x2a\x00\x2a\x01\x03", 11);
  // An enum whose numbers span more than a small range, its lowest below its zero; one of a
  // small range below zero; one without values, as a manifest may hold it.
  SchemaManifest far = schemaManifestFromProtoText(
      "syntax = \"proto3\"; package far;"
      "enum E { Z = 0; NEG = -1; FAR = 5000; } enum S { NIL = 0; LOW = -2; }"
      "message M { E e = 1; S s = 2; }");
  far.enums["far.None"];
  far.messages["far.M"].fields["n"] = {
      .type = TypeManifest::enum_, .typeName = "far.None", .fieldNumber = 3};
  const SchemaStore farStore(far);
  const std::string colored = rich([](test::Rich& m) { m.set_color(test::BLUE); });
  const std::string unknownColor =
      rich([](test::Rich& m) { m.set_color(static_cast<test::Color>(7)); });
  const std::string pastLastColor =
      rich([](test::Rich& m) { m.set_color(static_cast<test::Color>(4)); });
  const std::string empty;
  const auto none = [](ColumnOptions&) {};
  const OptionRow rows[] = {
      {"enums whose numbers lie far apart",
       "far.M",
       {"e", "n"},
       none,
       // The second record opens with field 16, the first number past the tag table.
       {"\x08\x88\x27\x18\x02", "\x80\x01\x05\x08\x07"},
       {"\"FAR\" | \"2\"", "\"7\" | null"}},
      {"an absent enum's default is its zero, not its lowest",
       "far.M",
       {"e", "s"},
       [](ColumnOptions& o) { o.defaults = true; },
       {empty},
       {"\"Z\" | \"NIL\""}},
      {"enums as numbers",
       "ostrel.test.Rich",
       {"color"},
       [](ColumnOptions& o) { o.enums = ColumnOptions::Enums::numbers; },
       {colored, unknownColor},
       {"3", "7"}},
      {"enums as strings",
       "ostrel.test.Rich",
       {"color"},
       [](ColumnOptions& o) { o.enums = ColumnOptions::Enums::strings; },
       {colored, unknownColor, pastLastColor},
       {"\"BLUE\"", "\"7\"", "\"4\""}},
      {"defaults fill absent scalars, not messages",
       "ostrel.test.Rich",
       {"scalars.f_int32", "name", "color", "scalars.f_bool", "mid", "repeats.r_int32"},
       [](ColumnOptions& o) { o.defaults = true; },
       {empty},
       {"0 | \"\" | \"COLOR_UNSPECIFIED\" | false | null | null"}},
      {"maps",
       "ostrel.test.Rich",
       {"counts"},
       none,
       // The second record's entry leaves its value out: the map holds the value's default.
       {rich([](test::Rich& m) { (*m.mutable_counts())["k"] = 0; }), "\x42\x03\x0a\x01j"},
       {"[{key=\"k\",value=0}]", "[{key=\"j\",value=0}]"}},
      {"messages below the struct depth as JSON text",
       "ostrel.test.Rich",
       {"mid"},
       [](ColumnOptions& o) { o.structDepth = 1; },
       {rich([](test::Rich& m) {
         m.mutable_mid()->mutable_leaf()->set_id(1);
         m.mutable_mid()->add_leaves()->set_id(2);
       })},
       {"{leaf=\"{\"id\":1}\",leaves=[\"{\"id\":2}\"],note=null}"}},
      {"exact reads take the last occurrence and every run",
       "ostrel.test.Rich",
       {"name", "repeats.r_int32"},
       [](ColumnOptions& o) { o.mode = ReadMode::exact; },
       {rich([](test::Rich& m) { m.set_name("first"); }) +
        rich([](test::Rich& m) { m.set_name("last"); }) + twoRuns},
       {"\"last\" | [1,2,3]"}},
      {"first reads take the first occurrence and the first run",
       "ostrel.test.Rich",
       {"name", "repeats.r_int32"},
       none,
       {rich([](test::Rich& m) { m.set_name("first"); }) +
        rich([](test::Rich& m) { m.set_name("last"); }) + twoRuns},
       {"\"first\" | [1,2]"}},
      {"invalid UTF-8 as the single read decodes it",
       "ostrel.test.Rich",
       {"name", "scalars.f_bytes"},
       none,
       // name "a\xff", and scalars.f_bytes the same bytes.
       {std::string("\x2a\x02"
                    "a\xff"
                    "\x12\x04\x62\x02"
                    "a\xff")},
       {"\"a\xEF\xBF\xBD\" | \"a\xff\""}},
      {"well-known types in microseconds",
       "ostrel.test.wkt.Holder",
       {"timestamp", "duration", "int64_value", "string_value", "timestamps", "struct_value"},
       none,
       {holder([](test::wkt::Holder& m) {
          m.mutable_timestamp()->set_seconds(-1);
          m.mutable_timestamp()->set_nanos(500000);
          m.mutable_duration()->set_seconds(-2);
          m.mutable_duration()->set_nanos(-1000);
          m.mutable_int64_value();
          m.add_timestamps()->set_seconds(3);
          (*m.mutable_struct_value()->mutable_fields())["a"].set_bool_value(true);
        }),
        empty},
       {"-999500 | -2000001 | 0 | null | [3000000] | \"{\"a\":true}\"",
        "null | null | null | null | [] | null"}},
      {"timestamps in nanoseconds",
       "ostrel.test.wkt.Holder",
       {"timestamp"},
       [](ColumnOptions& o) { o.timeUnit = ColumnOptions::TimeUnit::nanoseconds; },
       {holder([](test::wkt::Holder& m) { m.mutable_timestamp()->set_nanos(7); })},
       {"7"}},
      {"explode: a row per element, the record's columns repeated, paths below from the element",
       "ostrel.test.Rich",
       {"color", "mids", "mids.note"},
       [](ColumnOptions& o) { o.explode = "mids"; },
       {rich([](test::Rich& m) {
          m.set_color(test::RED);
          m.add_mids()->set_note("a");
          m.add_mids();
        }),
        empty},
       {"\"RED\" | {leaf=null,leaves=[],note=\"a\"} | \"a\"",
        "\"RED\" | {leaf=null,leaves=[],note=null} | null"}},
      {"explode with no path below the element",
       "ostrel.test.Rich",
       {"mids"},
       [](ColumnOptions& o) { o.explode = "mids"; },
       {rich([](test::Rich& m) { m.add_mids()->set_note("a"); })},
       {"{leaf=null,leaves=[],note=\"a\"}"}},
      {"explode a packed scalar field",
       "ostrel.test.Rich",
       {"name", "repeats.r_int32"},
       [](ColumnOptions& o) { o.explode = "repeats.r_int32"; },
       {rich([](test::Rich& m) {
         m.set_name("n");
         m.mutable_repeats()->add_r_int32(1);
         m.mutable_repeats()->add_r_int32(2);
       })},
       {"\"n\" | 1", "\"n\" | 2"}},
      {"[*] below a message",
       "ostrel.test.Rich",
       {"mid.leaves[*].id"},
       none,
       {rich([](test::Rich& m) {
          m.mutable_mid()->add_leaves()->set_id(1);
          m.mutable_mid()->add_leaves()->set_id(2);
        }),
        empty},
       {"[1,2]", "null"}},
      {"a failing record as a row of nulls",
       "ostrel.test.Rich",
       {"name", "mids"},
       [](ColumnOptions& o) { o.nullRowOnError = true; },
       {"\x2a\x05"
        "ab",
        rich([](test::Rich& m) { m.set_name("ok"); })},
       {"null | null", "\"ok\" | []"}},
  };
  for (const OptionRow& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string type = row.type;
    const SchemaStore& store = type.starts_with("far.")                ? farStore
                               : type.find("wkt") != std::string::npos ? wktStore
                                                                       : richStore;
    ColumnOptions options;
    row.configure(options);
    ColumnProjection projection(store.messageSchema(row.type), row.paths, options);
    EXPECT_EQ(columnsOf(projection, row.records), row.expected);
    EXPECT_EQ(projection.failedRecords(), options.nullRowOnError ? 1 : 0);
  }
}

TEST(ColumnsTest, AFailingRecordAddsNoRowAndNamesItsNumberAndOffset) {
  const SchemaStore store(testing_support::generatedManifest("well_known.desc"));
  ColumnProjection projection(store.messageSchema("ostrel.test.wkt.Holder"), {"timestamp", "any"});
  const std::string good =
      holder([](test::wkt::Holder& m) { m.mutable_timestamp()->set_seconds(1); });
  const std::string late =
      holder([](test::wkt::Holder& m) { m.mutable_timestamp()->set_seconds(253402300800); });
  projection.append(asBytes(good));
  EXPECT_EQ(catchError([&] { projection.append(asBytes(late)); }),
            ColumnError::recordFailed(
                1, static_cast<int64_t>(good.size()),
                SchematizerError::unexpectedType("google.protobuf.Timestamp out of range (years 1 "
                                                 "to 9999): seconds 253402300800, nanos 0")
                    .what()));
  // A truncated record read through a delimited source names the offset of its length prefix.
  const std::string stream =
      std::string(1, static_cast<char>(good.size())) + good + "\x03\x0a\x05z";
  RecordSource source = RecordSource::delimited(asBytes(stream));
  EXPECT_EQ(catchError([&] { projection.fill(source); }),
            ColumnError::recordFailed(3, static_cast<int64_t>(good.size() + 1),
                                      SerializationError::truncated().what()));
  EXPECT_EQ(projection.rows(), 2);
  EXPECT_EQ(projection.recordsRead(), 4);

  // A message written as ProtoJSON text (one deeper than structDepth) fails its record as strict
  // rendering does, never holding the fault's text as its value: mid's note is a varint.
  const SchemaStore richStore(testing_support::generatedManifest("rich.desc"));
  ColumnOptions shallow;
  shallow.structDepth = 0;
  ColumnProjection deep(richStore.messageSchema("ostrel.test.Rich"), {"mid"}, shallow);
  EXPECT_EQ(catchError([&] { deep.append(asBytes(std::string("\x0a\x02\x18\x01", 4))); }),
            ColumnError::recordFailed(
                0, 0,
                SerializationError::typeMismatch(
                    TypeSchemaDescription::scalar(TypeSchemaDescription::Case::string),
                    ProtoWireType::varInt)
                    .what()));
}

TEST(ColumnsTest, PathsThatCannotBeColumnsAreRefused) {
  const SchemaStore store(testing_support::generatedManifest("rich.desc"));
  const MessageSchema schema = store.messageSchema("ostrel.test.Rich");
  EXPECT_EQ(catchError([&] { ColumnProjection(schema, {"mids[*].leaves[*].id"}); }),
            ColumnError::unsupportedPath("mids[*].leaves[*].id", "one [*] per path"));
  EXPECT_EQ(catchError([&] { ColumnProjection(schema, {"mid[*].note"}); }),
            ColumnError::unsupportedPath("mid[*].note", "[*] after a field that is not repeated"));
  EXPECT_EQ(catchError([&] { ColumnProjection(schema, {"nothing"}); }),
            SchematizerError::fieldNotFound(
                "Schema \"ostrel.test.Rich\" property with name \"nothing\""));
  // An explode of no repeated path among the paths, or with paths below elements that are not
  // messages.
  const std::tuple<std::string, std::vector<std::string>, const char*> explodes[] = {
      {"mids", {"name"}, "explode names one of the paths, a repeated field"},
      {"name", {"name"}, "explode names one of the paths, a repeated field"},
      {"repeats.r_int32",
       {"repeats.r_int32", "repeats.r_int32.x"},
       "paths below an exploded field need a repeated message"},
      {"counts", {"counts", "counts.key"}, "paths below an exploded field need a repeated message"},
  };
  for (const auto& [explode, paths, why] : explodes) {
    ColumnOptions options;
    options.explode = explode;
    EXPECT_EQ(catchError([&] { ColumnProjection(schema, paths, options); }),
              ColumnError::unsupportedPath(explode, why));
  }
}

// Releases `parent` as a consumer does, checking that it releases each child and dictionary it
// still owns exactly once and is then marked released.
template <typename T>
void releaseCountingOwned(T& parent) {
  static std::map<T*, void (*)(T*)> releases;
  static int calls;
  releases.clear();
  calls = 0;
  std::vector<T*> owned(parent.children, parent.children + parent.n_children);
  owned.push_back(parent.dictionary);
  std::erase_if(owned, [](T* s) { return s == nullptr || s->release == nullptr; });
  for (T* s : owned) {
    releases[s] = s->release;
    s->release = [](T* s) {
      ++calls;
      releases[s](s);
    };
  }
  parent.release(&parent);
  EXPECT_EQ(parent.release, nullptr);
  EXPECT_EQ(calls, static_cast<int>(owned.size()));
}

TEST(ColumnsTest, BatchesAndStreamsOutliveTheProjectionAndTheStore) {
  ArrowArray batch;
  ArrowSchema schema;
  ArrowArrayStream stream;
  {
    const SchemaStore store(testing_support::generatedManifest("rich.desc"));
    ColumnProjection projection(store.messageSchema("ostrel.test.Rich"), {"color", "mids[*].note"});
    const std::string record = rich([](test::Rich& m) {
      m.set_color(test::RED);
      m.add_mids()->set_note("n");
    });
    projection.append(asBytes(record));
    projection.takeBatch(&batch);
    projection.exportSchema(&schema);
    // A delimited stream the source owns: the caller's bytes go with the block.
    projection.exportStream(
        RecordSource::ownedDelimited(toBytes(static_cast<char>(record.size()) + record)), &stream);
  }
  EXPECT_EQ(rowsOf(schema, batch), std::vector<std::string>{"\"RED\" | [\"n\"]"});
  ArrowArray streamed;
  ASSERT_EQ(stream.get_next(&stream, &streamed), 0);
  EXPECT_EQ(rowsOf(schema, streamed), rowsOf(schema, batch));
  // A consumer may move a child out and release it on its own.
  ArrowArray child = *streamed.children[0];
  streamed.children[0]->release = nullptr;
  streamed.release(&streamed);
  child.release(&child);
  ArrowArray end;
  ASSERT_EQ(stream.get_next(&stream, &end), 0);
  EXPECT_EQ(end.release, nullptr);
  // The color column moved out keeps its dictionary; the parents keep the list column.
  ArrowSchema color = *schema.children[0];
  schema.children[0]->release = nullptr;
  ArrowArray colors = *batch.children[0];
  batch.children[0]->release = nullptr;
  for (ArrowSchema* s : {&color, &schema}) releaseCountingOwned(*s);
  for (ArrowArray* a : {&colors, &batch}) releaseCountingOwned(*a);
  stream.release(&stream);
}

}  // namespace
}  // namespace ostrel
