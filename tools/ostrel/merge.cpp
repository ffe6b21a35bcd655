#include "ostrel/edit/rewrite.hpp"
#include "tool.hpp"

namespace ostrel::tool {
namespace {

constexpr std::string_view kMergeUsage =
    R"usage(usage: ostrel [SCHEMAS] merge -m MSG -i FILE -i FILE... [--input FORMAT] [--output FORMAT]
       ostrel [SCHEMAS] merge -m MSG --with FILE --delimited [--fail-fast] [-i FILE]...

Merges MSG records as protobuf's MergeFrom does: the scalars of a later record win, messages
merge, repeated fields are concatenated, map keys are replaced. The -i records are merged in
order into one, written canonically. With --with FILE, that one record is merged into every
record of the input (a stream with --delimited), which is written back as a stream.

  -m, --message MSG       the message type, fully qualified (e.g. shop.Order)
  -i, --input-file FILE   a record to merge (standard input without one)
  --with FILE             the record to merge into every input record
  --input FORMAT          binary (default), hex or base64, for -i and --with
  --output FORMAT         binary (default), or hex or base64 as one line of text
  --delimited             a stream of length-prefixed records in and out
  --fail-fast             stop at the first record that does not merge
)usage";

constexpr std::string_view kNormalizeUsage =
    R"usage(usage: ostrel [SCHEMAS] normalize -m MSG [-i FILE]... [--input FORMAT] [--output FORMAT]
                                 [--delimited] [--fail-fast]

Writes each MSG record canonically, byte for byte as libprotobuf's parse and serialize would:
each field once (occurrences merged), fields in number order, repeated scalars packed as the
schema says, map entries sorted by key, unknown fields at the end. Options as for set.
)usage";

int runMerge(Arguments& args, GlobalOptions& globals) {
  MessageInput input;
  RecordOptions records;
  std::optional<DataFormat> output;
  std::optional<std::string> with;
  std::string value;
  while (!args.done()) {
    if (globals.parse(args) || input.parse(args) || records.parse(args)) continue;
    if (args.value({"--output"}, value)) {
      output = parseDataFormat(value, "--output");
    } else if (args.value({"--with"}, value)) {
      with = value;
    } else {
      throw UsageError("unexpected argument \"" + args.positional() + "\"");
    }
  }
  require(input.message, "-m MSG");
  const LoadedSchemas schemas = loadSchemas(globals);
  const MessageSchema schema = input.schema(schemas);
  if (with) {
    const Bytes patch = input.readFile(with);
    return rewriteRecords(
        input, records, schemas, output,
        [&](ByteView record, const MessageSchema&) { return mergeRecord(schema, record, patch); });
  }
  if (records.framed || records.kafka) throw UsageError("a stream is merged --with one record");
  if (input.files.size() < 2) throw UsageError("merge takes two -i records or more, or --with");
  Bytes merged = normalizeRecord(schema, input.readFile(input.files.front()));
  for (size_t i = 1; i < input.files.size(); ++i) {
    merged = mergeRecord(schema, merged, input.readFile(input.files[i]));
  }
  writeOut(encodeData(merged, output.value_or(DataFormat::binary)));
  return kExitSuccess;
}

int runNormalize(Arguments& args, GlobalOptions& globals) {
  MessageInput input;
  RecordOptions records;
  std::optional<DataFormat> output;
  std::string value;
  while (!args.done()) {
    if (globals.parse(args) || input.parse(args) || records.parse(args)) continue;
    if (args.value({"--output"}, value)) {
      output = parseDataFormat(value, "--output");
    } else {
      throw UsageError("unexpected argument \"" + args.positional() + "\"");
    }
  }
  if (!records.typedByIds()) require(input.message, "-m MSG");
  const LoadedSchemas schemas = loadSchemas(globals);
  return rewriteRecords(
      input, records, schemas, output,
      [](ByteView record, const MessageSchema& schema) { return normalizeRecord(schema, record); });
}

}  // namespace

const Command kMergeCommand{"merge", "merge records as protobuf's MergeFrom does", kMergeUsage,
                            &runMerge};
const Command kNormalizeCommand{"normalize", "records in libprotobuf's canonical encoding",
                                kNormalizeUsage, &runNormalize};

}  // namespace ostrel::tool
