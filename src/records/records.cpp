#include "ostrel/records/records.hpp"

#include <array>

namespace ostrel {
namespace {

constexpr std::array<std::string_view, 4> kFramingCaseNames = {
    "truncated",
    "malformedLength",
    "wrongMagic",
    "malformedIndexes",
};

// The largest record length: what a signed 32-bit prefix can say, and what protobuf will parse.
constexpr uint64_t kMaxLength = 0x7FFFFFFF;

uint8_t byteAt(ByteView bytes, size_t i) { return static_cast<uint8_t>(bytes[i]); }

// A base-128 varint at `at`, which is advanced past it; no value when the bytes end first. A
// varint over ten bytes throws `tooLong`.
template <typename Fault>
std::optional<uint64_t> varintAt(ByteView bytes, size_t& at, Fault tooLong) {
  uint64_t value = 0;
  for (size_t i = 0; i < 10; ++i) {
    if (at + i >= bytes.size()) return std::nullopt;
    const uint8_t byte = byteAt(bytes, at + i);
    value |= static_cast<uint64_t>(byte & 0x7F) << (7 * i);
    if (byte < 0x80) {
      at += i + 1;
      return value;
    }
  }
  throw tooLong();
}

uint32_t bigEndian32(ByteView bytes, size_t at) {
  return (uint32_t{byteAt(bytes, at)} << 24) | (uint32_t{byteAt(bytes, at + 1)} << 16) |
         (uint32_t{byteAt(bytes, at + 2)} << 8) | uint32_t{byteAt(bytes, at + 3)};
}

// One count or index of a message-index path, which must fit a non-negative 32-bit integer.
int32_t indexAt(ByteView bytes, size_t& at, ConfluentIndexForm form) {
  const std::optional<uint64_t> raw =
      varintAt(bytes, at, [] { return FramingError::malformedIndexes(); });
  if (!raw) throw FramingError::truncated();
  if (*raw > 0xFFFFFFFF) throw FramingError::malformedIndexes();
  int64_t value = static_cast<int64_t>(*raw);
  if (form == ConfluentIndexForm::zigzag) {
    value = static_cast<int64_t>(*raw >> 1) ^ -static_cast<int64_t>(*raw & 1);
  }
  if (value < 0 || value > int64_t{0x7FFFFFFF}) throw FramingError::malformedIndexes();
  return static_cast<int32_t>(value);
}

// The id and path at the start of `bytes`; `at` is left just past them.
ConfluentSchemaId schemaIdAt(ByteView bytes, size_t& at, ConfluentIndexForm form, bool header) {
  if (bytes.empty()) throw FramingError::truncated();
  ConfluentSchemaId schema;
  const uint8_t magic = byteAt(bytes, 0);
  if (magic == 0) {
    if (bytes.size() < 5) throw FramingError::truncated();
    schema.id = static_cast<int32_t>(bigEndian32(bytes, 1));
    at = 5;
  } else if (magic == 1) {
    if (bytes.size() < 17) throw FramingError::truncated();
    std::array<std::byte, 16> guid{};
    for (size_t i = 0; i < guid.size(); ++i) guid[i] = bytes[1 + i];
    schema.guid = guid;
    at = 17;
  } else {
    static constexpr std::string_view kHex = "0123456789abcdef";
    throw FramingError::wrongMagic(std::string("0x") + kHex[magic >> 4] + kHex[magic & 0xF]);
  }
  if (at == bytes.size() && header) {
    // A header may leave the path out: the first top-level message.
    schema.indexes.push_back(0);
    return schema;
  }
  const int32_t count = indexAt(bytes, at, form);
  // Each index takes at least one byte: a count beyond what is left cannot be right, and must not
  // size the vector.
  if (static_cast<size_t>(count) > bytes.size() - at) throw FramingError::truncated();
  if (count == 0) {
    schema.indexes.push_back(0);
    return schema;
  }
  schema.indexes.reserve(static_cast<size_t>(count));
  for (int32_t i = 0; i < count; ++i) schema.indexes.push_back(indexAt(bytes, at, form));
  return schema;
}

}  // namespace

FramingError::FramingError(Code code, std::string text)
    : CaseError(code, caseName(code), std::move(text)) {}

std::string_view caseName(FramingErrorCode code) noexcept {
  return kFramingCaseNames[static_cast<size_t>(code)];
}

std::optional<Framing> findFraming(std::string_view name) noexcept {
  if (name == "varint") return Framing::varint;
  if (name == "u32be") return Framing::u32be;
  if (name == "single") return Framing::single;
  return std::nullopt;
}

RecordSource::RecordSource(Next next) : next_(std::move(next)) {}

RecordSource::RecordSource(ByteView stream, Framing framing) noexcept
    : stream_(stream), framing_(framing) {}

RecordSource RecordSource::owned(Bytes stream, Framing framing) {
  auto held = std::make_shared<const Bytes>(std::move(stream));
  RecordSource source(ByteView(*held), framing);
  source.owned_ = std::move(held);
  return source;
}

RecordSource RecordSource::buffers(std::vector<Bytes> records) {
  auto owned = std::make_shared<const std::vector<Bytes>>(std::move(records));
  auto index = std::make_shared<size_t>(0);
  return RecordSource([owned, index]() -> std::optional<ByteView> {
    if (*index >= owned->size()) return std::nullopt;
    return ByteView((*owned)[(*index)++]);
  });
}

std::optional<ByteView> RecordSource::next() {
  if (next_) {
    std::optional<ByteView> record = next_();
    if (record) {
      offset_ = position_;
      position_ += static_cast<int64_t>(record->size());
      ++count_;
    }
    return record;
  }
  const auto size = static_cast<size_t>(stream_.size());
  auto at = static_cast<size_t>(position_);
  if (framing_ == Framing::single) {
    if (count_ > 0) return std::nullopt;
    ++count_;
    position_ = static_cast<int64_t>(size);
    return stream_;
  }
  if (at >= size) return std::nullopt;
  const size_t start = at;
  std::optional<uint64_t> length;
  bool null = false;
  if (framing_ == Framing::varint) {
    length = varintAt(stream_, at, [] { return FramingError::malformedLength(); });
    if (!length) throw FramingError::truncated();
  } else {
    if (size - at < 4) throw FramingError::truncated();
    const auto prefix = static_cast<int32_t>(bigEndian32(stream_, at));
    at += 4;
    if (prefix < -1) throw FramingError::malformedLength();
    null = prefix == -1;
    length = null ? 0 : static_cast<uint64_t>(prefix);
  }
  if (*length > kMaxLength) throw FramingError::malformedLength();
  if (*length > size - at) throw FramingError::truncated();
  position_ = static_cast<int64_t>(at + *length);
  offset_ = static_cast<int64_t>(start);
  null_ = null;
  ++count_;
  return stream_.subspan(at, static_cast<size_t>(*length));
}

std::string ConfluentSchemaId::idText() const {
  if (id) return std::to_string(*id);
  if (!guid) return {};
  static constexpr std::string_view kHex = "0123456789abcdef";
  std::string text;
  for (size_t i = 0; i < guid->size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    const auto byte = static_cast<uint8_t>((*guid)[i]);
    text += kHex[byte >> 4];
    text += kHex[byte & 0xF];
  }
  return text;
}

ConfluentEnvelope decodeConfluent(ByteView value, ConfluentIndexForm form) {
  size_t at = 0;
  ConfluentSchemaId schema = schemaIdAt(value, at, form, false);
  return {std::move(schema), value.subspan(at)};
}

ConfluentSchemaId decodeConfluentHeader(ByteView header, ConfluentIndexForm form) {
  size_t at = 0;
  ConfluentSchemaId schema = schemaIdAt(header, at, form, true);
  if (at != header.size()) throw FramingError::malformedIndexes();
  return schema;
}

}  // namespace ostrel
