#include <google/protobuf/io/coded_stream.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iostream>

#include "ostrel/core/errors.hpp"
#include "ostrel/output/json.hpp"
#include "ostrel/output/text_format.hpp"
#include "tool.hpp"

namespace ostrel::tool {
namespace {

constexpr std::string_view kUsage =
    R"usage(usage: ostrel [SCHEMAS] encode -m MSG [-i FILE] [--from json|text] [--output FORMAT]
                              [--ignore-unknown-fields]
       ostrel [SCHEMAS] encode -m MSG --delimited [--fail-fast] [-i FILE] [--ignore-unknown-fields]

Reads one JSON object (as json prints it) and writes the MSG message it describes, encoded.
Members are fields by their declared names (null: absent); integers may be numbers or decimal
strings, bytes are base64, enums are names or numbers, repeated fields arrays, map fields
objects. Whatever json prints encodes back to a message that json prints the same way.
With --from text it reads protobuf's text format instead, as "protoc --encode=MSG" does.

With --delimited, reads JSON Lines (one object a line, as json --delimited prints them; blank
lines are passed over) and writes a stream of records, each preceded by its length as a varint
(as writeDelimitedTo writes them), which --delimited reads back. A line that does not encode is
reported with its number and skipped, and the exit status is then 1.

  -m, --message MSG       the message type to encode, fully qualified (e.g. shop.Order)
  -i, --input-file FILE   read the JSON from FILE rather than standard input
  --from FORMAT           json (default) or text
  --output FORMAT         binary (default), or hex or base64 as one line of text
  --delimited             JSON Lines in, length-prefixed binary records out
  --fail-fast             with --delimited, stop at the first line that does not encode
  --ignore-unknown-fields pass over members that name no field instead of failing
)usage";

// The record preceded by its length, as a varint.
std::string delimitedRecord(ByteView record) {
  uint8_t prefix[10];  // the longest varint
  const uint8_t* end =
      google::protobuf::io::CodedOutputStream::WriteVarint64ToArray(record.size(), prefix);
  std::string out(reinterpret_cast<const char*>(prefix), static_cast<size_t>(end - prefix));
  out.append(reinterpret_cast<const char*>(record.data()), record.size());
  return out;
}

// Encodes each line of `in` (named `name` in reports) and writes it as a delimited record.
int encodeLines(std::istream& in, const std::string& name, const MessageSchema& schema,
                const JsonParseOptions& options, bool failFast) {
  int status = kExitSuccess;
  int64_t lineNumber = 0;
  for (std::string line; std::getline(in, line);) {
    ++lineNumber;
    if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
    try {
      writeOut(delimitedRecord(parseJSON(schema, line, options).bytes()));
    } catch (const Error& error) {
      std::cerr << "ostrel: " << name << ", line " << lineNumber << ": " << error.what() << "\n";
      status = kExitFailure;
      if (failFast) return status;
    }
  }
  if (in.bad()) throw ToolError("cannot read " + name);
  return status;
}

int run(Arguments& args, GlobalOptions& globals) {
  MessageInput input;
  RecordOptions records;
  std::optional<DataFormat> format;
  std::string value;
  JsonParseOptions options;
  bool fromText = false;
  while (!args.done()) {
    if (globals.parse(args) || input.parse(args, false) || records.parse(args)) continue;
    if (args.value({"--output"}, value)) {
      format = parseDataFormat(value, "--output");
    } else if (args.flag({"--ignore-unknown-fields"})) {
      options.ignoreUnknownFields = true;
    } else if (args.value({"--from"}, value)) {
      if (value != "json" && value != "text") {
        throw UsageError("--from must be json or text, not \"" + value + "\"");
      }
      fromText = value == "text";
    } else {
      throw UsageError("unexpected argument \"" + args.positional() + "\"");
    }
  }
  require(input.message, "-m MSG");
  if (records.kafka || records.confluent ||
      (records.framed && records.framing != Framing::varint)) {
    throw UsageError("encode writes one message or, with --delimited, varint-delimited records");
  }
  const bool delimited = records.framed;
  if (delimited && format.value_or(DataFormat::binary) != DataFormat::binary) {
    throw UsageError("--delimited writes binary records; --output must be binary");
  }
  if (records.failFast && !delimited) {
    throw UsageError("--fail-fast applies to --delimited only");
  }

  const LoadedSchemas schemas = loadSchemas(globals);
  const MessageSchema schema = input.schema(schemas);
  if (delimited) {
    if (fromText) throw UsageError("--delimited reads JSON Lines; it does not go with --from text");
    if (!input.file || *input.file == "-") {
      return encodeLines(std::cin, "standard input", schema, options, records.failFast);
    }
    errno = 0;
    std::ifstream file(*input.file);
    if (!file) {
      throw ToolError("cannot read " + *input.file + ": " +
                      (errno != 0 ? std::strerror(errno) : "cannot open"));
    }
    return encodeLines(file, *input.file, schema, options, records.failFast);
  }
  const std::string text = readAll(input.file);
  const SchematizedData data =
      fromText ? parseText(schema, text) : parseJSON(schema, text, options);
  writeOut(encodeData(data.bytes(), format.value_or(DataFormat::binary)));
  return kExitSuccess;
}

}  // namespace

const Command kEncodeCommand{"encode", "JSON or text format in, the encoded message out", kUsage,
                             &run};

}  // namespace ostrel::tool
