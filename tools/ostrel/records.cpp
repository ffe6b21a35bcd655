// Record streams: the inputs of a command as a sequence of records (one per file, many per file as
// its framing says, or the messages of a Kafka topic), memory-mapped where the input allows it,
// each out of its Confluent envelope with its type, with bad records reported and skipped, and a
// progress line on a terminal.

#include "ostrel/records/records.hpp"

#include <fcntl.h>
#include <google/protobuf/io/coded_stream.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>

#include "ostrel/core/errors.hpp"
#include "tool.hpp"

namespace ostrel::tool {
namespace {

using Clock = std::chrono::steady_clock;

// Mapped pages of a file already read are given back every this many bytes, so that the memory a
// run holds does not grow with the file.
constexpr int64_t kReleaseEvery = int64_t{64} << 20;

// A file descriptor closed on scope exit.
struct FileHandle {
  int fd = -1;
  bool owned = false;
  ~FileHandle() {
    if (owned && fd >= 0) ::close(fd);
  }
};

// A read-only private mapping of a whole regular file.
class Mapping {
 public:
  Mapping(int fd, size_t size) : size_(size) {
    void* base = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
    if (base != MAP_FAILED) {
      base_ = static_cast<std::byte*>(base);
      ::madvise(base, size, MADV_SEQUENTIAL);
    }
  }
  ~Mapping() {
    if (base_) ::munmap(base_, size_);
  }
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;

  bool mapped() const { return base_ != nullptr; }
  ByteView bytes() const { return {base_, size_}; }

  // Drops the pages wholly before `offset` from memory; they are read again from the file if
  // touched.
  void release(int64_t offset) {
    const int64_t page = ::sysconf(_SC_PAGESIZE);
    const int64_t end = offset / page * page;
    if (end > released_) {
      ::madvise(base_ + released_, static_cast<size_t>(end - released_), MADV_DONTNEED);
      released_ = end;
    }
  }

 private:
  std::byte* base_ = nullptr;
  size_t size_;
  int64_t released_ = 0;
};

// The progress line: records, bytes and rate on standard error, rewritten in place, from one
// second into the run, only when standard error is a terminal.
class Progress {
 public:
  Progress() : enabled_(::isatty(STDERR_FILENO) == 1), start_(Clock::now()), last_(start_) {}
  ~Progress() {
    if (shown_) std::fputs("\r\033[K", stderr);
  }

  void update(int64_t records, int64_t bytes) {
    if (!enabled_ || (records & 1023) != 0) return;
    const Clock::time_point now = Clock::now();
    if (now - start_ < std::chrono::seconds(1) || now - last_ < std::chrono::milliseconds(200)) {
      return;
    }
    last_ = now;
    shown_ = true;
    const double seconds = std::chrono::duration<double>(now - start_).count();
    const double megabytes = static_cast<double>(bytes) / 1e6;
    std::fprintf(stderr, "\rostrel: %lld records, %.1f MB, %.1f MB/s\033[K",
                 static_cast<long long>(records), megabytes, megabytes / seconds);
  }

 private:
  bool enabled_;
  bool shown_ = false;
  Clock::time_point start_;
  Clock::time_point last_;
};

// Parses a whole decimal integer; throws UsageError naming `option` for anything else.
int64_t parseInteger(const std::string& text, std::string_view option) {
  size_t used = 0;
  int64_t value = 0;
  try {
    value = std::stoll(text, &used);
  } catch (const std::exception&) {
    used = 0;
  }
  if (used == 0 || used != text.size()) {
    throw UsageError(std::string(option) + " takes a number, not \"" + text + "\"");
  }
  return value;
}

}  // namespace

std::string delimitedRecord(ByteView record) {
  uint8_t prefix[10];  // the longest varint
  const uint8_t* end =
      google::protobuf::io::CodedOutputStream::WriteVarint64ToArray(record.size(), prefix);
  std::string out(reinterpret_cast<const char*>(prefix), static_cast<size_t>(end - prefix));
  out.append(reinterpret_cast<const char*>(record.data()), record.size());
  return out;
}

bool RecordOptions::parse(Arguments& args) {
  std::string value;
  const auto kafkaOptions = [&]() -> KafkaOptions& {
    if (!kafka) kafka.emplace();
    return *kafka;
  };
  if (args.flag({"--delimited"})) {
    framing = Framing::varint;
    framed = true;
  } else if (args.value({"--framing"}, value)) {
    std::string_view name = value;
    confluent = name == "confluent" || name.ends_with("+confluent");
    if (name.ends_with("+confluent")) name.remove_suffix(std::string_view("+confluent").size());
    const std::optional<Framing> found =
        name == "confluent" ? std::optional(Framing::single) : findFraming(name);
    if (!found || name.empty()) {
      throw UsageError(
          "--framing must be varint, u32be, single or confluent (or varint+confluent, "
          "u32be+confluent), not \"" +
          value + "\"");
    }
    framing = *found;
    framed = true;
  } else if (args.value({"--confluent-indexes"}, value)) {
    if (value != "zigzag" && value != "unsigned") {
      throw UsageError("--confluent-indexes must be zigzag or unsigned, not \"" + value + "\"");
    }
    indexForm = value == "zigzag" ? ConfluentIndexForm::zigzag : ConfluentIndexForm::unsignedVarint;
  } else if (args.value({"--schema-id"}, value)) {
    const size_t equals = value.find('=');
    if (equals == std::string::npos || equals == 0 || equals + 1 == value.size()) {
      throw UsageError("--schema-id takes ID=FILE, not \"" + value + "\"");
    }
    schemaIds.emplace_back(value.substr(0, equals), value.substr(equals + 1));
  } else if (args.value({"--schema-dir"}, value)) {
    schemaDir = value;
  } else if (args.value({"--kafka"}, value)) {
    kafkaOptions().brokers = value;
  } else if (args.value({"--topic"}, value)) {
    kafkaOptions().topic = value;
  } else if (args.value({"--partition"}, value)) {
    const int64_t partition = parseInteger(value, "--partition");
    if (partition < 0 || partition > 0x7FFFFFFF) {
      throw UsageError("--partition must be 0 or more, not " + value);
    }
    kafkaOptions().partition = static_cast<int32_t>(partition);
  } else if (args.value({"--offset"}, value)) {
    if (value != "beginning" && value != "end") {
      parseInteger(value.starts_with('@') ? value.substr(1) : value, "--offset");
    }
    kafkaOptions().start = value;
  } else if (args.value({"--max"}, value)) {
    kafkaOptions().max = parseInteger(value, "--max");
  } else if (args.value({"--group"}, value)) {
    kafkaOptions().group = value;
  } else if (args.flag({"--follow"})) {
    kafkaOptions().follow = true;
  } else if (args.value({"-X"}, value)) {
    const size_t equals = value.find('=');
    if (equals == std::string::npos || equals == 0) {
      throw UsageError("-X takes NAME=VALUE, not \"" + value + "\"");
    }
    kafkaOptions().properties.emplace_back(value.substr(0, equals), value.substr(equals + 1));
  } else if (args.flag({"--provenance"})) {
    provenance = true;
  } else if (args.flag({"--fail-fast"})) {
    failFast = true;
  } else {
    return false;
  }
  return true;
}

bool RecordOptions::streams(const MessageInput& input) const {
  return framed || kafka || input.files.size() > 1;
}

void RecordOptions::check(const MessageInput& input) const {
  if (kafka) {
    if (kafka->brokers.empty()) throw UsageError("missing --kafka HOST:PORT");
    if (kafka->topic.empty()) throw UsageError("missing --topic T");
    if (framed && framing != Framing::single) {
      throw UsageError("--kafka reads one record a message: --framing single or confluent");
    }
    if (!input.files.empty()) throw UsageError("--kafka reads the topic; it does not go with -i");
  } else if (provenance) {
    throw UsageError("--provenance applies to --kafka");
  }
  if ((!schemaIds.empty() || schemaDir) && !confluent) {
    throw UsageError(
        "--schema-id and --schema-dir name the schemas of Confluent ids: "
        "--framing confluent");
  }
  if (framed && input.format != DataFormat::binary) {
    throw UsageError("--framing and --delimited read binary records; --input must be binary");
  }
  if (!typedByIds()) require(input.message, "-m MSG");
}

int forEachRecord(const MessageInput& input, const RecordOptions& options, RecordSchemas& schemas,
                  const std::function<void(const StreamRecord& record)>& handle) {
  std::vector<std::string> files = input.files;
  if (files.empty()) files.emplace_back("-");

  Progress progress;
  int64_t records = 0;
  int64_t bytesDone = 0;
  int64_t bad = 0;
  // One record out of its envelope, with its type, to `handle`.
  const auto deliver = [&](std::optional<ByteView> value, const KafkaProvenance* kafka) {
    StreamRecord record;
    record.kafka = kafka;
    if (value) {
      ByteView payload = *value;
      const MessageSchema* schema = schemas.fixed();
      if (options.confluent) {
        ConfluentSchemaId id;
        if (kafka && kafka->schemaIdHeader) {
          id = decodeConfluentHeader(*kafka->schemaIdHeader, options.indexForm);
        } else {
          ConfluentEnvelope envelope = decodeConfluent(payload, options.indexForm);
          id = std::move(envelope.schema);
          payload = envelope.payload;
        }
        if (options.typedByIds()) schema = &schemas.schemaFor(id);
      }
      record.bytes = payload;
      record.schema = schema;
    }
    handle(record);
  };
  // Runs `handle` on one record; a failure is reported with where the record is and, unless
  // --fail-fast, the run goes on. Returns false to stop.
  const auto one = [&](const std::string& name, int64_t ordinal, int64_t offset,
                       std::optional<ByteView> value, const KafkaProvenance* kafka = nullptr) {
    ++records;
    try {
      deliver(value, kafka);
      return true;
    } catch (const std::exception& error) {
      ++bad;
      if (kafka) {
        std::cerr << "ostrel: " << name << ": partition " << kafka->partition << " offset "
                  << kafka->offset << ": " << error.what() << "\n";
      } else {
        std::cerr << "ostrel: " << name << ": record " << ordinal << " at byte " << offset << ": "
                  << error.what() << "\n";
      }
      return !options.failFast;
    }
  };
  // A framing fault ends its file: nothing after it can be found.
  const auto framingFault = [&](const std::string& name, int64_t ordinal, int64_t offset,
                                const Error& error) {
    ++bad;
    std::cerr << "ostrel: " << name << ": record " << ordinal << " at byte " << offset
              << ": length prefix not followed (the rest of the input is skipped): " << error.what()
              << "\n";
    return !options.failFast;
  };

  // An input that cannot be read is a bad input like a bad record: reported, and the run goes on
  // with the next one unless --fail-fast.
  const auto unreadable = [&](const std::string& name, const std::exception& error) {
    ++bad;
    std::cerr << "ostrel: " << name << ": " << error.what() << "\n";
    return !options.failFast;
  };

  if (options.kafka) {
    const std::string name = "topic " + options.kafka->topic;
    consumeKafka(*options.kafka, [&](const KafkaProvenance& kafka, std::optional<ByteView> value) {
      const bool go = one(name, 0, 0, value, &kafka);
      if (value) bytesDone += static_cast<int64_t>(value->size());
      progress.update(records, bytesDone);
      return go;
    });
    return bad > 0 ? kExitFailure : kExitSuccess;
  }

  for (const std::string& file : files) {
    const bool standardInput = file == "-";
    const std::string name = standardInput ? "standard input" : file;
    FileHandle handleOf{STDIN_FILENO, false};
    if (!standardInput) {
      handleOf.fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
      if (handleOf.fd < 0) {
        if (!unreadable(name, ToolError("cannot read " + name + ": " + std::strerror(errno)))) {
          return kExitFailure;
        }
        continue;
      }
      handleOf.owned = true;
    }
    struct stat info {};
    std::optional<Mapping> mapping;
    if (input.format == DataFormat::binary && ::fstat(handleOf.fd, &info) == 0 &&
        S_ISREG(info.st_mode) && info.st_size > 0) {
      mapping.emplace(handleOf.fd, static_cast<size_t>(info.st_size));
      if (!mapping->mapped()) mapping.reset();
    }

    if (options.framing == Framing::single) {
      // One record per file.
      Bytes held;
      ByteView record;
      if (mapping) {
        record = mapping->bytes();
      } else {
        try {
          held = input.readFile(standardInput ? std::nullopt : std::optional<std::string>(file));
        } catch (const ToolError& error) {
          if (!unreadable(name, error)) return kExitFailure;
          continue;
        }
        record = held;
      }
      if (!one(name, 1, 0, record)) return kExitFailure;
      bytesDone += static_cast<int64_t>(record.size());
      progress.update(records, bytesDone);
      continue;
    }

    if (mapping) {
      RecordSource stream(mapping->bytes(), options.framing);
      int64_t nextRelease = kReleaseEvery;
      for (;;) {
        std::optional<ByteView> record;
        try {
          record = stream.next();
        } catch (const Error& error) {
          if (!framingFault(name, stream.count() + 1, stream.position(), error)) {
            return kExitFailure;
          }
          break;
        }
        if (!record) break;
        // The view is rebuilt from its two words: copying the optional whole reads back, as one
        // 16-byte load, what next() has just stored as two, and that load stalls on every record.
        const std::byte* data = record->data();
        const size_t size = record->size();
        if (!one(name, stream.count(), stream.offset(),
                 stream.null() ? std::nullopt
                               : std::optional<ByteView>(std::in_place, data, size))) {
          return kExitFailure;
        }
        progress.update(records, bytesDone + stream.position());
        if (stream.position() >= nextRelease) {
          mapping->release(stream.position());
          nextRelease = stream.position() + kReleaseEvery;
        }
      }
      bytesDone += static_cast<int64_t>(mapping->bytes().size());
      continue;
    }

    // A pipe: read in chunks, hand out every whole record in the buffer, keep the rest.
    Bytes buffer;
    size_t start = 0;
    int64_t consumed = 0;
    int64_t ordinal = 0;
    bool ended = false;
    constexpr size_t kChunk = size_t{1} << 20;
    while (!ended) {
      if (start > 0 && start * 2 >= buffer.size()) {
        buffer.erase(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(start));
        start = 0;
      }
      const size_t used = buffer.size();
      buffer.resize(used + kChunk);
      ssize_t got;
      do {
        got = ::read(handleOf.fd, buffer.data() + used, kChunk);
      } while (got < 0 && errno == EINTR);
      if (got < 0) {
        if (!unreadable(name, ToolError("cannot read " + name + ": " + std::strerror(errno)))) {
          return kExitFailure;
        }
        break;
      }
      buffer.resize(used + static_cast<size_t>(got));
      ended = got == 0;
      RecordSource stream(ByteView(buffer).subspan(start), options.framing);
      for (;;) {
        std::optional<ByteView> record;
        try {
          record = stream.next();
        } catch (const FramingError& error) {
          // Only at the end of the input is a record cut short; before it, more is read.
          if (!ended && error.code() == FramingError::Code::truncated) break;
          if (!framingFault(name, ordinal + 1, consumed + stream.position(), error)) {
            return kExitFailure;
          }
          ended = true;
          break;
        }
        if (!record) break;
        ++ordinal;
        if (!one(name, ordinal, consumed + stream.offset(),
                 stream.null() ? std::nullopt : record)) {
          return kExitFailure;
        }
        progress.update(records, bytesDone + consumed + stream.position());
      }
      start += static_cast<size_t>(stream.position());
      consumed += stream.position();
    }
    bytesDone += consumed;
  }
  return bad > 0 ? kExitFailure : kExitSuccess;
}

}  // namespace ostrel::tool
