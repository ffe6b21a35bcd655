#include <iostream>

#include "ostrel/core/errors.hpp"
#include "ostrel/edit/rewrite.hpp"
#include "tool.hpp"

namespace ostrel::tool {

int rewriteRecords(const MessageInput& input, const RecordOptions& records,
                   const LoadedSchemas& schemas, std::optional<DataFormat> output,
                   const std::function<Bytes(ByteView, const MessageSchema&)>& change) {
  if (!records.streams(input)) {
    const Bytes record = input.read();
    writeOut(
        encodeData(change(record, input.schema(schemas)), output.value_or(DataFormat::binary)));
    return kExitSuccess;
  }
  if (output.value_or(DataFormat::binary) != DataFormat::binary) {
    throw UsageError("records are written as a binary stream; --output must be binary");
  }
  RecordSchemas types(records, input, schemas);
  return forEachRecord(input, records, types, [&](const StreamRecord& record) {
    if (!record.bytes) return;
    // Made whole before any of it is written: a bad record leaves nothing in the stream.
    writeOut(delimitedRecord(change(*record.bytes, *record.schema)));
  });
}

namespace {

constexpr std::string_view kSetUsage =
    R"usage(usage: ostrel [SCHEMAS] set -m MSG [-i FILE]... [--input FORMAT] [--output FORMAT]
                           [--delimited] [--fail-fast] EDIT...

Writes the MSG message with the edits applied, in order. An edit is PATH=VALUE to set a field,
an element (items[0].quantity=2) or a map key (counts[apples]=3, counts["a key"]=3), or
PATH+=VALUE to add an element at the end of a repeated field. VALUE is the text itself for
string and bytes fields, a name or number for enums, and JSON for everything else (numbers,
true and false, objects for messages, arrays and objects for whole repeated and map fields).
Untouched bytes are copied as they are; an earlier occurrence of a field that is set goes.
With --delimited (or several -i files), every record is edited and written as a delimited
stream; a record that cannot be edited is reported and left out.

  -m, --message MSG       the message type, fully qualified (e.g. shop.Order)
  -i, --input-file FILE   read the record from FILE rather than standard input
  --input FORMAT          binary (default), hex or base64
  --output FORMAT         binary (default), or hex or base64 as one line of text
  --delimited             a stream of length-prefixed records in and out
  --fail-fast             stop at the first record that cannot be edited
)usage";

constexpr std::string_view kClearUsage =
    R"usage(usage: ostrel [SCHEMAS] clear -m MSG [-i FILE]... [--input FORMAT] [--output FORMAT]
                             [--delimited] [--fail-fast] PATH...

Writes the MSG message without the fields PATH name (a map key in brackets: counts[apples]
removes that key). Untouched bytes are copied as they are. Options as for set.
)usage";

// PATH=VALUE or PATH+=VALUE; the = of a quoted map key ("a=b") is the key's.
struct EditArgument {
  std::string path;
  std::string value;
  bool append = false;
};

EditArgument parseEdit(const std::string& text) {
  size_t from = 0;
  if (const size_t quoted = text.find("[\""); quoted != std::string::npos) {
    const size_t close = text.find("\"]", quoted + 2);
    if (close != std::string::npos) from = close;
  }
  const size_t equals = text.find('=', from);
  if (equals == std::string::npos || equals == 0) {
    throw UsageError("an edit is PATH=VALUE or PATH+=VALUE, not \"" + text + "\"");
  }
  const bool append = text[equals - 1] == '+';
  return {text.substr(0, equals - (append ? 1 : 0)), text.substr(equals + 1), append};
}

int runEdits(Arguments& args, GlobalOptions& globals, bool clearing) {
  MessageInput input;
  RecordOptions records;
  std::optional<DataFormat> output;
  std::vector<std::string> edits;
  std::string value;
  while (!args.done()) {
    if (globals.parse(args) || input.parse(args) || records.parse(args)) continue;
    if (args.value({"--output"}, value)) {
      output = parseDataFormat(value, "--output");
    } else {
      edits.push_back(args.positional());
    }
  }
  require(input.message, "-m MSG");
  if (edits.empty()) throw UsageError(clearing ? "missing PATH" : "missing EDIT");
  std::vector<EditArgument> parsed;
  for (const std::string& edit : edits) {
    parsed.push_back(clearing ? EditArgument{edit, {}, false} : parseEdit(edit));
  }

  if (records.typedByIds()) throw UsageError("edits name fields of one type: give -m, not ids");
  const LoadedSchemas schemas = loadSchemas(globals);
  Rewrite rewrite(input.schema(schemas));
  for (const EditArgument& edit : parsed) {
    try {
      if (clearing) {
        rewrite.clear(edit.path);
      } else if (edit.append) {
        rewrite.append(edit.path, EditValue::text(edit.value));
      } else {
        rewrite.set(edit.path, EditValue::text(edit.value));
      }
    } catch (const Error& error) {
      throw ToolError(edit.path + ": " + error.what());
    }
  }
  return rewriteRecords(
      input, records, schemas, output,
      [&](ByteView record, const MessageSchema&) { return rewrite.apply(record); });
}

int runSet(Arguments& args, GlobalOptions& globals) { return runEdits(args, globals, false); }
int runClear(Arguments& args, GlobalOptions& globals) { return runEdits(args, globals, true); }

}  // namespace

const Command kSetCommand{"set", "set fields, elements and map keys, copying the rest", kSetUsage,
                          &runSet};
const Command kClearCommand{"clear", "remove fields and map keys, copying the rest", kClearUsage,
                            &runClear};

}  // namespace ostrel::tool
