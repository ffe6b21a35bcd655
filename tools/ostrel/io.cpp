#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <iostream>
#include <limits>

#include "ostrel/core/values.hpp"
#include "tool.hpp"

namespace ostrel::tool {
namespace {

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f'; }

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

Bytes decodeHex(std::string_view text) {
  Bytes out;
  int high = -1;
  for (const char c : text) {
    if (isSpace(c)) continue;
    const int digit = hexDigit(c);
    if (digit < 0)
      throw ToolError("input is not hex: unexpected character '" + std::string(1, c) + "'");
    if (high < 0) {
      high = digit;
    } else {
      out.push_back(static_cast<std::byte>(high * 16 + digit));
      high = -1;
    }
  }
  if (high >= 0) throw ToolError("input is not hex: odd number of digits");
  return out;
}

Bytes decodeBase64(std::string_view text) {
  std::string clean;
  for (const char c : text) {
    if (!isSpace(c)) clean += c;
  }
  std::optional<Bytes> bytes = base64Decode(clean);
  if (!bytes) throw ToolError("input is not base64");
  return std::move(*bytes);
}

}  // namespace

namespace {

// Reads the whole of `path` ("-" or none: standard input) into `buffer`, a std::string or Bytes,
// and nothing else: a regular file's size is reserved up front, so the bytes are held once. More
// than `limit` bytes fail, naming `what`.
template <typename Buffer>
void readInto(const std::optional<std::string>& path, Buffer& buffer, size_t limit,
              std::string_view what) {
  const bool standardInput = !path || *path == "-";
  const std::string name = standardInput ? "standard input" : *path;
  int fd = STDIN_FILENO;
  if (!standardInput) {
    fd = ::open(path->c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) throw ToolError("cannot read " + name + ": " + std::strerror(errno));
  }
  struct Closer {
    int fd;
    bool owned;
    ~Closer() {
      if (owned) ::close(fd);
    }
  } closer{fd, !standardInput};
  const auto tooLarge = [&] {
    return ToolError(name + ": " + std::string(what) + " larger than " +
                     std::to_string(limit >> 20) + " MiB");
  };
  struct stat info {};
  if (::fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_size > 0) {
    if (static_cast<uint64_t>(info.st_size) > limit) throw tooLarge();
    // One more byte, so that reaching the end of a file that did not grow costs no reallocation.
    buffer.reserve(static_cast<size_t>(info.st_size) + 1);
  }
  constexpr size_t kChunk = 1 << 16;
  // The bytes read are the first `used` of the buffer; the rest is room, zero-filled once when the
  // buffer grows (doubling, for an input of unknown size), never again before each read: a pipe
  // hands out a few KiB a read.
  size_t used = 0;
  buffer.clear();
  for (;;) {
    if (used > limit) throw tooLarge();
    if (buffer.size() == used) {
      buffer.resize(std::max({used * 2, used + kChunk, static_cast<size_t>(buffer.capacity())}));
    }
    const ssize_t got = ::read(fd, buffer.data() + used, buffer.size() - used);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      const int error = errno;
      buffer.resize(used);
      throw ToolError("cannot read " + name + ": " + std::strerror(error));
    }
    if (got == 0) break;
    used += static_cast<size_t>(got);
  }
  buffer.resize(used);
  if (buffer.size() > limit) throw tooLarge();
}

}  // namespace

std::string readAll(const std::optional<std::string>& path, size_t limit, std::string_view what) {
  std::string text;
  readInto(path, text, limit, what);
  return text;
}

Bytes readAllBytes(const std::optional<std::string>& path) {
  Bytes bytes;
  readInto(path, bytes, std::numeric_limits<size_t>::max(), "input");
  return bytes;
}

Bytes decodeData(std::string_view text, DataFormat format) {
  switch (format) {
    case DataFormat::binary:
      return toBytes(text);
    case DataFormat::hex:
      return decodeHex(text);
    case DataFormat::base64:
      return decodeBase64(text);
  }
  return {};
}

std::string base64(ByteView bytes) { return base64Encode(bytes); }

std::string encodeData(ByteView bytes, DataFormat format) {
  switch (format) {
    case DataFormat::binary:
      return toString(bytes);
    case DataFormat::hex: {
      static constexpr std::string_view kDigits = "0123456789abcdef";
      std::string out;
      out.reserve(bytes.size() * 2 + 1);
      for (const std::byte b : bytes) {
        out += kDigits[std::to_integer<unsigned>(b) >> 4];
        out += kDigits[std::to_integer<unsigned>(b) & 0xF];
      }
      return out + "\n";
    }
    case DataFormat::base64:
      return base64(bytes) + "\n";
  }
  return {};
}

void writeOut(std::string_view text) {
  std::cout.write(text.data(), static_cast<std::streamsize>(text.size()));
  if (!std::cout) throw ToolError("cannot write standard output");
}

OutputBuffer::OutputBuffer(bool eachRecord)
    : data_(std::make_unique_for_overwrite<char[]>(2 * kBlock)),
      capacity_(2 * kBlock),
      eachRecord_(eachRecord) {}

OutputBuffer::~OutputBuffer() {
  try {
    flush();
  } catch (const ToolError&) {
    // Reported by the explicit flush of a run that gets that far; an unwinding run has its error.
  }
}

void OutputBuffer::grow(size_t n) {
  // A record longer than the buffer (a large message in a cell): the buffer grows to hold it,
  // since a record is written whole or not at all.
  const size_t capacity = std::max(2 * capacity_, size_ + n);
  std::unique_ptr<char[]> data = std::make_unique_for_overwrite<char[]>(capacity);
  std::memcpy(data.get(), data_.get(), size_);
  data_ = std::move(data);
  capacity_ = capacity;
}

void OutputBuffer::flush() {
  if (size_ == 0) return;
  std::cout.flush();
  if (!std::cout) throw ToolError("cannot write standard output");
  size_t done = 0;
  while (done < size_) {
    const ssize_t wrote = ::write(STDOUT_FILENO, data_.get() + done, size_ - done);
    if (wrote < 0 && errno == EINTR) continue;
    if (wrote <= 0) {
      size_ = 0;
      throw ToolError("cannot write standard output");
    }
    done += static_cast<size_t>(wrote);
  }
  size_ = 0;
  // A buffer grown for one large record goes back to its usual size.
  if (capacity_ > 2 * kBlock) {
    data_ = std::make_unique_for_overwrite<char[]>(2 * kBlock);
    capacity_ = 2 * kBlock;
  }
}

bool MessageInput::parse(Arguments& args, bool acceptsFormat) {
  std::string value;
  if (args.value({"-m", "--message"}, value)) {
    message = value;
  } else if (args.value({"-i", "--input-file"}, value)) {
    file = value;
    files.push_back(value);
  } else if (acceptsFormat && args.value({"--input"}, value)) {
    format = parseDataFormat(value, "--input");
  } else {
    return false;
  }
  return true;
}

MessageSchema MessageInput::schema(const LoadedSchemas& schemas) const {
  return schemas.messageSchema(*message);
}

Bytes MessageInput::readFile(const std::optional<std::string>& path) const {
  // Binary input is the message itself: read straight into the buffer that becomes its bytes.
  if (format == DataFormat::binary) return readAllBytes(path);
  return decodeData(readAll(path), format);
}

}  // namespace ostrel::tool
