#include "ostrel/core/errors.hpp"
#include "ostrel/paths/property_path.hpp"
#include "ostrel/wire/schematizer.hpp"
#include "tool.hpp"

namespace ostrel::tool {
namespace {

constexpr std::string_view kUsage =
    R"usage(usage: ostrel [SCHEMAS] iterate -m MSG [-i FILE] [--input FORMAT] [--exact] PATH

Prints every element of the repeated field that PATH names in one encoded MSG message, one JSON
value a line (as get prints values), in the order the elements are encoded, packed or not. The
elements are printed as they are read: a large field streams.

PATH is a property path whose last component names a repeated field and has no index:
items, or orders[2].items to go through element 2 of a repeated message field first. A field
the message does not hold prints nothing.

  -m, --message MSG       the message type of the data, fully qualified (e.g. shop.Order)
  -i, --input-file FILE   read the data from FILE rather than standard input; several -i
                          are read in turn (one record each, or a stream with --delimited)
  --input FORMAT          how the data is written: binary (default), hex or base64
  --delimited             each input holds records, each preceded by its length as a varint
  --fail-fast             stop at the first bad record
  --exact                 protobuf's answer: every occurrence of the field, packed runs and
                          single elements alike, in a containing message merged from all its
                          occurrences (without it the encoding of the field's first occurrence
                          decides, and the first occurrence of each containing message is read)

On a stream of records (--delimited, or several -i files, one record each) every record prints
as one line: a JSON array of its elements. A record that cannot be read is reported on standard
error with its number and byte offset and skipped; the exit status is then 1.
)usage";

int run(Arguments& args, GlobalOptions& globals) {
  MessageInput input;
  RecordOptions records;
  std::optional<std::string> path;
  ReadMode mode = ReadMode::first;
  while (!args.done()) {
    if (globals.parse(args) || input.parse(args) || records.parse(args)) continue;
    if (args.flag({"--exact"})) {
      mode = ReadMode::exact;
    } else if (!path) {
      path = args.positional();
    } else {
      throw UsageError("unexpected argument \"" + args.positional() + "\"");
    }
  }
  records.check(input);
  if (records.typedByIds()) {
    throw UsageError("iterate reads records of one type: -m MSG, not --schema-id or --schema-dir");
  }
  require(path, "PATH");

  const LoadedSchemas schemas = loadSchemas(globals);
  const MessageSchema schema = input.schema(schemas);
  const std::vector<PropertyPathElement> elements = PropertyPathUtil::parse(*path);
  if (elements.back().index) {
    throw ToolError(*path + ": the repeated field to iterate is named without an index");
  }
  // The parser accepted the path, so its last dot separates the containing message's path from
  // the name of the repeated field.
  const size_t lastDot = path->rfind('.');
  const std::string prefix = lastDot == std::string::npos ? "" : path->substr(0, lastDot);

  MessageSchema container = schema;
  std::optional<FieldSchema> found;
  try {
    if (!prefix.empty()) {
      const FieldPathAndType resolved = resolvePropertyPath(schema, prefix);
      if (resolved.type.kind() != TypeSchemaDescription::Case::message) {
        throw SchematizerError::nonMessageTypeInKeypath();
      }
      container = MessageSchema(resolved.type.messageSchema());
    }
    found = container.fieldNamed(elements.back().propertyName);
  } catch (const SchematizerError& error) {
    throw ToolError(*path + ": " + error.what());
  }
  const FieldSchema& field = *found;
  if (!field.isRepeated()) {
    throw ToolError(*path + ": " + field.name() + " is not a repeated field of " +
                    container.name());
  }

  // The elements of one record, each handed to `emit` as JSON.
  const auto elementsOf = [&](ByteView record, const auto& emit) {
    std::optional<AnyValue> containing;
    if (!prefix.empty()) {
      containing = UnsafeSchematizedData(schema.impl(), record).value(prefix, mode);
      if (!containing) return;
      record = containing->messageValue().bytes();
    }
    Schematizer::RepeatableFieldIterator elements(record, field.fieldNumber(), field.type(), mode);
    for (const AnyValue& element : elements) emit(valueJSON(element));
  };

  if (records.streams(input)) {
    RecordSchemas types(records, input, schemas);
    return forEachRecord(input, records, types, [&](const StreamRecord& record) {
      if (!record.bytes) return writeOut("null\n");
      std::string line = "[";
      try {
        elementsOf(*record.bytes, [&](const std::string& json) {
          if (line.size() > 1) line += ',';
          line += json;
        });
      } catch (const Error& error) {
        throw ToolError(*path + ": " + error.what());
      }
      writeOut(line + "]\n");
    });
  }

  const SchematizedData data = schema.schematizedData(input.read());
  try {
    elementsOf(data.bytes(), [](const std::string& json) { writeOut(json + "\n"); });
  } catch (const Error& error) {
    throw ToolError(*path + ": " + error.what());
  }
  return kExitSuccess;
}

}  // namespace

const Command kIterateCommand{"iterate", "the elements of a repeated field, one JSON value a line",
                              kUsage, &run};

}  // namespace ostrel::tool
