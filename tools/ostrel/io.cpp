#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>

#include "ostrel/core/base64.hpp"
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

std::string readAll(const std::optional<std::string>& path) {
  if (!path) {
    std::ostringstream text;
    text << std::cin.rdbuf();
    if (std::cin.bad()) throw ToolError("cannot read standard input");
    return std::move(text).str();
  }
  std::ifstream in(*path, std::ios::binary);
  if (!in) throw ToolError("cannot read " + *path + ": " + std::strerror(errno));
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (in.bad()) throw ToolError("cannot read " + *path + ": " + std::strerror(errno));
  return text;
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

bool MessageInput::parse(Arguments& args, bool acceptsFormat) {
  std::string value;
  if (args.value({"-m", "--message"}, value)) {
    message = value;
  } else if (args.value({"-i", "--input-file"}, value)) {
    file = value;
  } else if (acceptsFormat && args.value({"--input"}, value)) {
    format = parseDataFormat(value, "--input");
  } else {
    return false;
  }
  return true;
}

MessageSchema MessageInput::schema(const LoadedSchemas& schemas) const {
  return schemas.store.messageSchema(*message);
}

Bytes MessageInput::read() const { return decodeData(readAll(file), format); }

}  // namespace ostrel::tool
