#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>

#include "tool.hpp"

namespace ostrel::tool {
namespace {

constexpr std::string_view kBase64Alphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

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
  if (clean.size() % 4 != 0) throw ToolError("input is not base64: length is not a multiple of 4");
  Bytes out;
  for (size_t i = 0; i < clean.size(); i += 4) {
    const bool last = i + 4 == clean.size();
    uint32_t group = 0;
    int padding = 0;
    for (size_t j = 0; j < 4; ++j) {
      const char c = clean[i + j];
      if (c == '=' && last && j >= 2 && (j == 3 || clean[i + 3] == '=')) {
        ++padding;
        group <<= 6;
        continue;
      }
      const size_t digit = kBase64Alphabet.find(c);
      if (digit == std::string_view::npos || padding > 0) {
        throw ToolError("input is not base64: unexpected character '" + std::string(1, c) + "'");
      }
      group = (group << 6) | static_cast<uint32_t>(digit);
    }
    out.push_back(static_cast<std::byte>(group >> 16));
    if (padding < 2) out.push_back(static_cast<std::byte>((group >> 8) & 0xFF));
    if (padding < 1) out.push_back(static_cast<std::byte>(group & 0xFF));
  }
  return out;
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

std::string base64(ByteView bytes) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  for (size_t i = 0; i < bytes.size(); i += 3) {
    const size_t n = std::min<size_t>(3, bytes.size() - i);
    uint32_t group = 0;
    for (size_t j = 0; j < 3; ++j) {
      group = (group << 8) | (j < n ? std::to_integer<uint32_t>(bytes[i + j]) : 0U);
    }
    for (size_t j = 0; j < 4; ++j) {
      out += j <= n ? kBase64Alphabet[(group >> (18 - 6 * j)) & 0x3F] : '=';
    }
  }
  return out;
}

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

}  // namespace ostrel::tool
