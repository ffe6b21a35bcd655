#pragma once

// What the commands of the ostrel tool share: the two kinds of failure and their exit codes, a
// small argument cursor, the global options and the schemas they load, data input and output, and
// the JSON text of a single value.

#include <cstring>
#include <functional>
#include <initializer_list>
#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "ostrel/core/values.hpp"
#include "ostrel/manifest/manifest.hpp"
#include "ostrel/manifest/manifest_data.hpp"
#include "ostrel/records/records.hpp"
#include "ostrel/store/schemas.hpp"

namespace ostrel::tool {

inline constexpr int kExitSuccess = 0;
// A schema or data error: anything the library throws, a file that cannot be read, bytes that are
// not what --input says.
inline constexpr int kExitFailure = 1;
// The command line itself is wrong; the usage is printed with the error.
inline constexpr int kExitUsage = 2;

// A wrong command line: unknown command or option, missing argument or value.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A schema or data error found by the tool itself rather than by the library.
class ToolError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Walks the arguments of one command, left to right. Options are recognised as "-x VALUE",
// "--name VALUE" and "--name=VALUE"; after "--" everything is positional.
class Arguments {
 public:
  explicit Arguments(std::vector<std::string> args) : args_(std::move(args)) {}

  // Whether every argument has been consumed.
  bool done();

  // Whether "-h" or "--help" occurs before any "--": help wins over every other fault of the line.
  bool asksForHelp() const;

  // Consumes the current argument when it is one of `names` and stores its value in `value`.
  // Throws UsageError when the value is missing.
  bool value(std::initializer_list<std::string_view> names, std::string& value);
  // Consumes the current argument when it is one of `names` (which take no value).
  bool flag(std::initializer_list<std::string_view> names);
  // Consumes the current argument as a positional one. Throws UsageError for an option nobody
  // recognised.
  std::string positional();

 private:
  // Steps over a first "--", which only switches to positionals.
  void settle();

  std::vector<std::string> args_;
  size_t next_ = 0;
  bool afterDashDash_ = false;
};

// The options that say where schemas come from; accepted before and after the command.
struct GlobalOptions {
  std::vector<std::string> schemaFiles;
  std::vector<std::string> protoFiles;
  std::vector<std::string> includePaths;
  // --groups read|skip (--skip-groups is --groups skip): proto2 group fields are read as messages,
  // or left out of the schemas (noted on standard error), instead of failing the load.
  using Groups = DescriptorImportOptions::Groups;
  Groups groups = Groups::refuse;

  // Consumes a global option at the cursor, if there is one.
  bool parse(Arguments& args);
};

// The schemas the global options name, merged: `defined` holds exactly what they define (the
// first definition of a name wins), `store` that merged into the built-in descriptor schemas.
struct LoadedSchemas {
  SchemaManifest defined;
  SchemaStore store;

  // store.messageSchema and store.enumSchema, whose schemaNotFound and enumNotFound errors also
  // name the defined names close to `name` (the name without its package, a typo) as a ToolError.
  MessageSchema messageSchema(const std::string& name) const;
  EnumSchema enumSchema(const std::string& name) const;
};

// Parses and resolves every path against `schema` before any data is read. A path the schema
// does not have throws ToolError "PATH: <the library's text>"; a repeated field named without an
// index adds how to name one element, and how to read all of them: the iterate command, or P_EACH
// when the paths are for SQL (`inSql`). A malformed path throws PropertyPathUtil::Error.
void resolvePaths(const MessageSchema& schema, const std::vector<std::string>& paths, bool inSql);

// Reads every -s file and every --proto file. A -s file whose first non-whitespace byte is "{" is
// the JSON manifest form, anything else a serialized descriptor set. Without -I, each .proto
// file's own directory is its include path.
LoadedSchemas loadSchemas(const GlobalOptions& options);

// How data bytes are written on the command line and in files.
enum class DataFormat { binary, hex, base64 };

// Parses "binary", "hex" or "base64"; throws UsageError naming `option` for anything else.
DataFormat parseDataFormat(std::string_view text, std::string_view option);

// The contents of `path`, or of standard input when `path` is absent or "-". Throws ToolError
// when the file cannot be read or holds more than `limit` bytes (the error calls them `what`).
std::string readAll(const std::optional<std::string>& path,
                    size_t limit = std::numeric_limits<size_t>::max(),
                    std::string_view what = "input");
// The same as bytes, without a limit: an encoded message is held once, as read.
Bytes readAllBytes(const std::optional<std::string>& path);

// The largest schema file (-s) read: a schema is text or descriptors a person or protoc wrote,
// and a path to an endless stream (-s /dev/zero) must end with an error rather than fill memory.
inline constexpr size_t kMaxSchemaFileSize = size_t{64} << 20;
// Decodes text in `format` into bytes; whitespace is ignored in hex and base64. Throws ToolError
// for text that is not in that format.
Bytes decodeData(std::string_view text, DataFormat format);
// The bytes in `format`: binary as they are, hex and base64 as one line of text.
std::string encodeData(ByteView bytes, DataFormat format);
// Standard padded base64.
std::string base64(ByteView bytes);

// Writes `text` to standard output (line-buffered on a terminal, so streamed output shows as it
// comes); throws ToolError when the write fails.
void writeOut(std::string_view text);

// Standard output written in large blocks: a command gathers its text here, a record at a time,
// and the text goes out with write(2) once a block of it has gathered (at once after every record
// when `eachRecord`: a terminal, or a stream followed as it comes). What std::cout holds is
// written first. A record's text can be taken back while it is unfinished (truncate), as it is
// never written out in part. Throws ToolError "cannot write standard output" when a write fails;
// the destructor writes what is left and ignores a failure.
class OutputBuffer {
 public:
  explicit OutputBuffer(bool eachRecord);
  ~OutputBuffer();
  OutputBuffer(const OutputBuffer&) = delete;
  OutputBuffer& operator=(const OutputBuffer&) = delete;

  // Room for `n` more characters, at the end of the text; advance() then says how many were
  // written there.
  char* room(size_t n) {
    if (capacity_ - size_ < n) grow(n);
    return data_.get() + size_;
  }
  void advance(char* end) noexcept { size_ = static_cast<size_t>(end - data_.get()); }
  void append(std::string_view text) {
    std::memcpy(room(text.size()), text.data(), text.size());
    size_ += text.size();
  }
  void push(char c) {
    *room(1) = c;
    ++size_;
  }
  size_t size() const noexcept { return size_; }
  // Drops the text after the first `size` characters (at most what the record added).
  void truncate(size_t size) noexcept { size_ = size; }

  // Ends a record: writes the text out when a block has gathered (or after each record).
  void endRecord() {
    if (eachRecord_ || size_ >= kBlock) flush();
  }
  // Writes out all the text.
  void flush();

 private:
  // How much text gathers before it is written.
  static constexpr size_t kBlock = size_t{1} << 16;
  void grow(size_t n);

  std::unique_ptr<char[]> data_;
  size_t size_ = 0;
  size_t capacity_ = 0;
  bool eachRecord_;
};

// One value as JSON, as the JSON rendering of whole messages writes it: 32-bit integers, float and
// double as numbers (NaN and infinities as strings), 64-bit integers as decimal strings, bytes as
// base64, enums by name when the enum knows the number, messages as compact objects.
std::string valueJSON(const AnyValue& value);

// The options of the commands that read one encoded message: -m MSG, -i FILE and, unless the
// command reads JSON, --input FORMAT.
struct MessageInput {
  std::optional<std::string> message;
  // The last -i FILE, and every one in order (record streams read them all).
  std::optional<std::string> file;
  std::vector<std::string> files;
  DataFormat format = DataFormat::binary;

  // Consumes one of these options at the cursor, if there is one.
  bool parse(Arguments& args, bool acceptsFormat = true);
  // The message schema named by -m, from `schemas`, which must outlive its use: a schema does not
  // keep its store alive.
  MessageSchema schema(const LoadedSchemas& schemas) const;
  // The input (-i FILE or standard input), decoded from --input's format.
  Bytes read() const { return readFile(file); }
  // The same for the file `path` (standard input when absent or "-").
  Bytes readFile(const std::optional<std::string>& path) const;
};

// Where to read a Kafka topic from (--kafka HOST:PORT --topic T and their companions).
struct KafkaOptions {
  std::string brokers;
  std::string topic;
  // Every partition of the topic when absent.
  std::optional<int32_t> partition;
  // "beginning", "end", an offset, or "@" and a time in milliseconds since 1970; the group's
  // committed offsets (else the beginning) with a group, the beginning without one.
  std::optional<std::string> start;
  std::optional<int64_t> max;
  std::optional<std::string> group;
  bool follow = false;
  // librdkafka properties (-X NAME=VALUE), set last.
  std::vector<std::pair<std::string, std::string>> properties;
};

// How a command reads records: the framing of its inputs (--framing, --delimited being --framing
// varint), Confluent's envelope and the schemas its ids name, a Kafka topic in place of files, and
// --fail-fast (stop at the first bad record).
struct RecordOptions {
  Framing framing = Framing::single;
  // Whether --framing or --delimited was given: the inputs are record streams.
  bool framed = false;
  // Each record is a Confluent envelope (--framing confluent, or FRAMING+confluent).
  bool confluent = false;
  ConfluentIndexForm indexForm = ConfluentIndexForm::zigzag;
  // --schema-id ID=FILE, in order, and --schema-dir DIR (files named ID.desc, ID.binpb, ID.pb or
  // ID.proto): the schema of each Confluent id; the record's message-index path picks the message.
  std::vector<std::pair<std::string, std::string>> schemaIds;
  std::optional<std::string> schemaDir;
  std::optional<KafkaOptions> kafka;
  // Kafka's partition, offset, timestamp and key of each record in the output (--provenance).
  bool provenance = false;
  bool failFast = false;

  // Consumes one of these options at the cursor, if there is one.
  bool parse(Arguments& args);
  // Whether the command works on a stream of records (a framing, Kafka or several -i files)
  // rather than on one message.
  bool streams(const MessageInput& input) const;
  // Whether each record's schema comes from its Confluent id rather than from -m.
  bool typedByIds() const { return confluent && (!schemaIds.empty() || schemaDir); }
  // Throws UsageError for options that do not go together, and for a missing -m where the
  // records' ids do not give their types.
  void check(const MessageInput& input) const;
};

// Kafka's account of one record.
struct KafkaProvenance {
  int32_t partition = 0;
  int64_t offset = 0;
  // Milliseconds since 1970, when the broker gives one.
  std::optional<int64_t> timestamp;
  std::optional<ByteView> key;
  // The __value_schema_id header, when the record has one.
  std::optional<ByteView> schemaIdHeader;
};

// One record as a command sees it: its message bytes (out of their envelope) and their type, or
// none for a null record (a Kafka tombstone); where it came from, for a Kafka record.
struct StreamRecord {
  std::optional<ByteView> bytes;
  const MessageSchema* schema = nullptr;
  const KafkaProvenance* kafka = nullptr;
};

// The message type of each record: -m's, or the one its Confluent id and message-index path name
// in the schema files of --schema-id and --schema-dir, each loaded once, when first needed.
class RecordSchemas {
 public:
  RecordSchemas(const RecordOptions& options, const MessageInput& input,
                const LoadedSchemas& schemas);
  ~RecordSchemas();
  RecordSchemas(const RecordSchemas&) = delete;
  RecordSchemas& operator=(const RecordSchemas&) = delete;

  // -m's schema; null when -m was not given.
  const MessageSchema* fixed() const { return fixed_ ? &*fixed_ : nullptr; }
  // The schema of `id`, valid as long as this object. Throws ToolError "no schema for id 42" and
  // "schema id 42 (FILE) has no message at index path [3]".
  const MessageSchema& schemaFor(const ConfluentSchemaId& id);

 private:
  struct Registry;
  const RecordOptions& options_;
  std::optional<MessageSchema> fixed_;
  std::unique_ptr<Registry> registry_;
};

// Hands every record of the inputs (-i FILE..., standard input without one, or the Kafka topic) to
// `handle`, in order: each input split by the framing, each record out of its Confluent envelope
// with its type. Regular files are memory-mapped, not copied. A record `handle` throws for, whose
// envelope or id is bad, or a length prefix that cannot be followed (which ends its file), is
// reported on standard error with its file, its number from 1 and the byte offset where it starts
// (for Kafka, its partition and offset), and skipped, or with `failFast` ends the run. Returns
// kExitFailure when any record was bad, else kExitSuccess. On a terminal, a progress line shows on
// standard error once the run has taken a second.
int forEachRecord(const MessageInput& input, const RecordOptions& options, RecordSchemas& schemas,
                  const std::function<void(const StreamRecord& record)>& handle);

// Reads the Kafka topic `options` names and hands each record to `handle` (its value, or none
// for a tombstone), until the end of every partition read (unless follow), max records, or SIGINT;
// `handle` returns false to stop. Throws ToolError when the brokers or topic cannot be read.
void consumeKafka(
    const KafkaOptions& options,
    const std::function<bool(const KafkaProvenance&, std::optional<ByteView>)>& handle);

// The record preceded by its length as a varint, as --delimited streams hold records.
std::string delimitedRecord(ByteView record);

// Writes each record of the input changed by `change` (given the record and its message type):
// one record as `output` says, or for a stream a binary delimited stream (records that fail are
// reported and left out, as forEachRecord does; tombstones too). Returns the exit code.
int rewriteRecords(const MessageInput& input, const RecordOptions& records,
                   const LoadedSchemas& schemas, std::optional<DataFormat> output,
                   const std::function<Bytes(ByteView, const MessageSchema&)>& change);

// Throws UsageError "missing WHAT" when an option the command needs was not given. Commands check
// this before loading schemas, so that a wrong command line is reported as such.
void require(const std::optional<std::string>& option, std::string_view what);

// One command: `run` gets the arguments after the command name (help already handled) and
// returns the exit code.
struct Command {
  std::string_view name;
  std::string_view summary;
  std::string_view usage;
  int (*run)(Arguments& args, GlobalOptions& globals);
};

extern const Command kListCommand;
extern const Command kDescribeCommand;
extern const Command kGetCommand;
extern const Command kIterateCommand;
extern const Command kJsonCommand;
extern const Command kEncodeCommand;
extern const Command kTextCommand;
extern const Command kManifestCommand;
extern const Command kSqlCommand;
extern const Command kSetCommand;
extern const Command kClearCommand;
extern const Command kMergeCommand;
extern const Command kNormalizeCommand;

}  // namespace ostrel::tool
