// Columns against single reads: random messages of the proto3 test schema, made by libprotobuf,
// intact and cut short, go through an exported stream; every cell of every column, read back from
// the C structures, is what the single reads of its path give on that record: leaves, lists (the
// repeated field iterated), lists of a leaf over every element (`[*]`), structs of a message's
// fields and maps, nulls and empty lists included. A record on which any of those reads fails is
// a row of nulls, counted.

#include <gtest/gtest.h>

#include <bit>
#include <random>

#include "columns/arrow_text.hpp"
#include "ostrel/ostrel.hpp"
#include "rich.pb.h"
#include "support/random_message.hpp"
#include "support/test_support.hpp"

namespace ostrel {
namespace {

using Case = AnyValue::Case;
using TypeCase = TypeSchemaDescription::Case;

std::string inQuotes(std::string_view text) { return "\"" + std::string(text) + "\""; }

// A scalar value as arrowCell writes the cell that holds it.
std::string scalarText(const AnyValue& value) {
  switch (value.kind()) {
    case Case::int32:
      return std::to_string(value.int32Value());
    case Case::uint32:
      return std::to_string(value.uint32Value());
    case Case::int64:
      return std::to_string(value.int64Value());
    case Case::uint64:
      return std::to_string(value.uint64Value());
    case Case::float_:
      return "f:" + std::to_string(std::bit_cast<uint32_t>(value.floatValue()));
    case Case::double_:
      return "d:" + std::to_string(std::bit_cast<uint64_t>(value.doubleValue()));
    case Case::bool_:
      return value.boolValue() ? "true" : "false";
    case Case::enum_: {
      const std::optional<std::string> name = value.enumValue().findName();
      return inQuotes(name ? *name : std::to_string(value.enumValue().number()));
    }
    case Case::string:
      return inQuotes(value.stringValue());
    case Case::bytes:
      return inQuotes(asText(value.bytesValue()));
    case Case::message:
      break;
  }
  return "message";
}

std::string structText(const SchematizedData& message);

// An element or a single value: a scalar, or a message as its struct.
std::string valueText(const std::optional<AnyValue>& value) {
  if (!value) return "null";
  if (value->kind() == Case::message) return structText(value->messageValue());
  return scalarText(*value);
}

// The elements of field `field` of `message` as the iterator hands them out.
std::string listText(const SchematizedData& message, const FieldSchema& field) {
  Schematizer::RepeatableFieldIterator elements(message.bytes(), field.fieldNumber(), field.type());
  std::string text = "[";
  for (const AnyValue& element : elements) {
    if (text.size() > 1) text += ",";
    text += valueText(element);
  }
  return text + "]";
}

std::string structText(const SchematizedData& message) {
  std::string text = "{";
  for (const auto& [number, field] : message.messageSchema().fieldsByNumber()) {
    if (text.size() > 1) text += ",";
    text +=
        field.name() + "=" +
        (field.isRepeated() ? listText(message, field) : valueText(message.value(field.name())));
  }
  return text + "}";
}

// One column: its path and how its expected cell is read from a record.
struct ColumnCase {
  std::string path;
  std::function<std::string(const SchematizedData&)> expected;
};

// Every leaf and message path to depth 2, every repeated field as a list, and `[*]` over the
// leaves of every repeated message field.
void collectColumns(const MessageSchema& schema, const std::string& prefix, int depth,
                    std::vector<ColumnCase>& columns) {
  for (const auto& [number, field] : schema.fieldsByNumber()) {
    const std::string path = prefix + field.name();
    const std::string parent = prefix.empty() ? "" : prefix.substr(0, prefix.size() - 1);
    const bool isMessage = field.type().kind() == TypeCase::message;
    if (field.isRepeated()) {
      columns.push_back({path, [parent, field](const SchematizedData& record) {
                           if (parent.empty()) return listText(record, field);
                           const auto holder = record.value(parent);
                           return holder ? listText(SchematizedData(holder->messageValue()), field)
                                         : std::string("null");
                         }});
      const std::optional<MessageSchema> element = field.type().messageSchema();
      if (!isMessage || depth > 0 || element->fieldsByNumber().count(1) == 0 ||
          field.name().find("by_id") != std::string::npos) {
        continue;
      }
      // The element's first field, read from each element by its index.
      const std::string leafName = element->fieldWithNumber(1).name();
      if (element->fieldWithNumber(1).isRepeated()) continue;
      columns.push_back({path + "[*]." + leafName, [path, leafName](const SchematizedData& r) {
                           std::string text = "[";
                           for (int n = 0; r.value(path + "[" + std::to_string(n) + "]"); ++n) {
                             if (n > 0) text += ",";
                             text += valueText(
                                 r.value(path + "[" + std::to_string(n) + "]." + leafName));
                           }
                           return text + "]";
                         }});
      continue;
    }
    columns.push_back(
        {path, [path](const SchematizedData& record) { return valueText(record.value(path)); }});
    if (isMessage && depth < 2) {
      collectColumns(*field.type().messageSchema(), path + ".", depth + 1, columns);
    }
  }
}

TEST(ColumnsDifferentialTest, EveryCellIsTheSingleReadOfItsPath) {
  const SchemaStore store(testing_support::generatedManifest("rich.desc"));
  const MessageSchema schema = store.messageSchema("ostrel.test.Rich");
  std::vector<ColumnCase> cases;
  collectColumns(schema, "", 0, cases);
  std::vector<std::string> paths;
  for (const ColumnCase& column : cases) paths.push_back(column.path);

  testing_support::RandomMessageFiller filler(20261124);
  std::mt19937 damage(20261124);
  const int count = testing_support::generatedMessageCount(400);
  std::vector<Bytes> records;
  for (int i = 0; i < count; ++i) {
    test::Rich message;
    const std::string bytes = filler.fillParsed(message);
    records.push_back(toBytes(bytes));
    // Every fourth record also cut short somewhere.
    if (i % 4 == 0 && !bytes.empty()) {
      records.push_back(toBytes(bytes.substr(0, damage() % bytes.size())));
    }
  }

  ColumnOptions options;
  options.batchRows = 97;
  options.nullRowOnError = true;
  options.enums = ColumnOptions::Enums::dictionary;
  // 64-bit offsets here; the other tests read the 32-bit ones.
  options.largeOffsets = true;
  const ColumnProjection projection(schema, paths, options);
  ArrowArrayStream stream;
  projection.exportStream(RecordSource::buffers(records), &stream);
  ArrowSchema arrowSchema;
  ASSERT_EQ(stream.get_schema(&stream, &arrowSchema), 0);
  ASSERT_EQ(arrowSchema.n_children, static_cast<int64_t>(paths.size()));

  size_t record = 0;
  int failed = 0;
  int present = 0;
  for (;;) {
    ArrowArray batch;
    ASSERT_EQ(stream.get_next(&stream, &batch), 0);
    if (batch.release == nullptr) break;
    EXPECT_LE(batch.length, options.batchRows);
    for (int64_t row = 0; row < batch.length && !HasFailure(); ++row, ++record) {
      SCOPED_TRACE("record " + std::to_string(record));
      const SchematizedData data = schema.schematizedData(records[record]);
      std::vector<std::string> expected;
      try {
        for (const ColumnCase& column : cases) expected.push_back(column.expected(data));
      } catch (const Error&) {
        expected.assign(cases.size(), "null");
        ++failed;
      }
      for (size_t c = 0; c < cases.size(); ++c) {
        const std::string cell =
            testing_support::arrowCell(*arrowSchema.children[c], *batch.children[c], row);
        EXPECT_EQ(cell, expected[c]) << paths[c];
        present += cell != "null" && cell != "[]";
      }
    }
    batch.release(&batch);
  }
  EXPECT_EQ(record, records.size());
  // The damage broke records and the generator filled the columns.
  EXPECT_GT(failed, count / 20);
  EXPECT_GT(present, 5 * count);
  arrowSchema.release(&arrowSchema);
  stream.release(&stream);
  EXPECT_EQ(stream.release, nullptr);
}

}  // namespace
}  // namespace ostrel
