// Record streams: the inputs of a command as a sequence of records (one per file, or many
// length-prefixed records per file), memory-mapped where the input allows it, with bad records
// reported and skipped, and a progress line on a terminal.

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

#include "ostrel/core/errors.hpp"
#include "ostrel/wire/schematizer.hpp"
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
  if (args.flag({"--delimited"})) {
    delimited = true;
  } else if (args.flag({"--fail-fast"})) {
    failFast = true;
  } else {
    return false;
  }
  return true;
}

bool RecordOptions::streams(const MessageInput& input) const {
  return delimited || input.files.size() > 1;
}

int forEachRecord(const MessageInput& input, const RecordOptions& options,
                  const std::function<void(ByteView record)>& handle) {
  if (options.delimited && input.format != DataFormat::binary) {
    throw UsageError("--delimited reads binary records; --input must be binary");
  }
  std::vector<std::string> files = input.files;
  if (files.empty()) files.emplace_back("-");

  Progress progress;
  int64_t records = 0;
  int64_t bytesDone = 0;
  int64_t bad = 0;
  // Runs `handle` on one record; a failure is reported with where the record starts and, unless
  // --fail-fast, the run goes on. Returns false to stop.
  const auto one = [&](const std::string& name, int64_t ordinal, int64_t offset, ByteView record) {
    ++records;
    try {
      handle(record);
      return true;
    } catch (const std::exception& error) {
      ++bad;
      std::cerr << "ostrel: " << name << ": record " << ordinal << " at byte " << offset << ": "
                << error.what() << "\n";
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

    if (!options.delimited) {
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
      DelimitedRecords stream(mapping->bytes());
      int64_t nextRelease = kReleaseEvery;
      for (;;) {
        const int64_t offset = stream.position();
        std::optional<ByteView> record;
        try {
          record = stream.next();
        } catch (const Error& error) {
          if (!framingFault(name, stream.count() + 1, offset, error)) return kExitFailure;
          break;
        }
        if (!record) break;
        if (!one(name, stream.count(), offset, *record)) return kExitFailure;
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
      DelimitedRecords stream(ByteView(buffer).subspan(start));
      for (;;) {
        const int64_t offset = consumed + stream.position();
        std::optional<ByteView> record;
        try {
          record = stream.next();
        } catch (const SerializationError& error) {
          // Only at the end of the input is a record cut short; before it, more is read.
          if (!ended && error.code() != SerializationError::Code::malformedProtobuf) break;
          if (!ended && buffer.size() - start - static_cast<size_t>(stream.position()) < 10) {
            break;
          }
          if (!framingFault(name, ordinal + 1, offset, error)) return kExitFailure;
          ended = true;
          break;
        }
        if (!record) break;
        ++ordinal;
        if (!one(name, ordinal, offset, *record)) return kExitFailure;
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
