#pragma once

// Record streams: how encoded messages follow one another in a file, a pipe or a Kafka topic, and
// the envelope Confluent's serializers put around a message.
//
//     RecordSource source(bytes, Framing::u32be);
//     while (std::optional<ByteView> record = source.next()) {
//       if (source.null()) continue;  // a Kafka tombstone
//       const ConfluentEnvelope envelope = decodeConfluent(*record);
//       read(envelope.schema.idText(), envelope.schema.indexes, envelope.payload, source.offset());
//     }
//
// What is returned borrows from the stream's buffer: valid while it is alive and unchanged.

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ostrel/core/errors.hpp"
#include "ostrel/core/values.hpp"

namespace ostrel {

enum class FramingErrorCode : uint8_t {
  // The stream ends inside a length prefix or a record: more bytes could complete it.
  truncated,
  // A length prefix no writer makes: a varint over ten bytes or beyond 2^31-1, a u32be length
  // below -1.
  malformedLength,
  // A Confluent envelope that does not start with magic byte 0 or 1; the text is the byte.
  wrongMagic,
  // A Confluent message-index path that is malformed: a count or index that is negative, runs
  // off the record or is not a varint.
  malformedIndexes,
};

// A fault in the framing of a record stream or in a Confluent envelope.
class FramingError final : public detail::CaseError<FramingErrorCode> {
 public:
  static FramingError truncated() { return FramingError(Code::truncated, ""); }
  static FramingError malformedLength() { return FramingError(Code::malformedLength, ""); }
  static FramingError wrongMagic(std::string byte) {
    return FramingError(Code::wrongMagic, std::move(byte));
  }
  static FramingError malformedIndexes() { return FramingError(Code::malformedIndexes, ""); }

 private:
  FramingError(Code code, std::string text);
};

std::string_view caseName(FramingErrorCode code) noexcept;

// How records follow one another in a stream.
enum class Framing : uint8_t {
  // Each record preceded by its length as a varint (protobuf's writeDelimitedTo).
  varint,
  // Each record preceded by its length as a big-endian signed 32-bit integer, -1 for a null
  // record (kcat -f '%R%s').
  u32be,
  // The whole stream is one record.
  single,
};

// Parses "varint", "u32be" or "single".
std::optional<Framing> findFraming(std::string_view name) noexcept;

// Where records come from, one after another: a stream split by its framing, one buffer per
// record, or a callback (a Kafka consumer, a database cursor). The record stream of the tool, the
// columnar projection and the scans over them.
class RecordSource {
 public:
  using Next = std::function<std::optional<ByteView>()>;

  // Records from a callback; it holds whatever its records need. Byte offsets count the sizes of
  // the records before.
  explicit RecordSource(Next next);
  // The records of `stream` in `framing`, borrowed from it: valid while its buffer is alive and
  // unchanged. Byte offsets are those of the length prefixes.
  RecordSource(ByteView stream, Framing framing) noexcept;
  // The same over a buffer the source owns.
  static RecordSource owned(Bytes stream, Framing framing);
  // Varint-delimited records, borrowed and owned.
  static RecordSource delimited(ByteView stream) { return {stream, Framing::varint}; }
  static RecordSource ownedDelimited(Bytes stream) {
    return owned(std::move(stream), Framing::varint);
  }
  // One record per buffer, owned by the source.
  static RecordSource buffers(std::vector<Bytes> records);

  // The next record, or no value at the end; it stays valid until the next call (and as long as a
  // borrowed stream). A single stream is one record, even when empty. A length prefix that is
  // malformed, or a prefix or record cut off by the end of the stream, throws FramingError
  // (malformedLength or truncated) and leaves position() at the prefix: the stream cannot be
  // followed past it, and every later call throws the same.
  std::optional<ByteView> next();
  // The byte offset of the record next() returned last.
  int64_t offset() const noexcept { return offset_; }
  // Whether the record next() returned last is a null record (a Kafka tombstone, a u32be length
  // of -1); its bytes are empty.
  bool null() const noexcept { return null_; }
  // How many records next() has returned.
  int64_t count() const noexcept { return count_; }
  // Of a framed stream: where the next record starts (the end once it is used up).
  int64_t position() const noexcept { return position_; }

 private:
  Next next_;
  std::shared_ptr<const Bytes> owned_;
  ByteView stream_;
  Framing framing_ = Framing::single;
  int64_t position_ = 0;
  int64_t offset_ = 0;
  int64_t count_ = 0;
  bool null_ = false;
};

// How a Confluent envelope writes its message-index path: as zigzag varints (what Confluent's
// serializers write), or as unsigned varints (the deprecated form older Python serializers write).
enum class ConfluentIndexForm : uint8_t { zigzag, unsignedVarint };

// Which schema of a registry a record was written with: a registry id (magic byte 0) or a schema
// GUID (magic byte 1), and which message of the schema's file: the index of a top-level message,
// then of a nested message inside it, and so on.
struct ConfluentSchemaId {
  std::optional<int32_t> id;
  std::optional<std::array<std::byte, 16>> guid;
  // Never empty: an envelope without a path means the first top-level message, {0}.
  std::vector<int32_t> indexes;

  // The id in decimal, or the GUID as 8-4-4-4-12 lowercase hex.
  std::string idText() const;
};

// A value as a Confluent serializer writes it: the schema's id and message path, then the encoded
// message.
struct ConfluentEnvelope {
  ConfluentSchemaId schema;
  ByteView payload;
};

// Splits `value` into its envelope and payload: magic byte 0 and a 4-byte big-endian id, or magic
// byte 1 and a 16-byte GUID; then the message-index path (a count, then the indexes; a count of 0
// is the path {0}); the rest is the payload. Throws FramingError: truncated when the value ends
// before its path does, wrongMagic for another first byte, malformedIndexes for a bad path.
ConfluentEnvelope decodeConfluent(ByteView value,
                                  ConfluentIndexForm form = ConfluentIndexForm::zigzag);

// The schema id of a record whose value is a bare message, from its __value_schema_id header
// (Confluent 8): the same id, GUID and path as an envelope, and nothing after them. Throws as
// decodeConfluent, and FramingError::malformedIndexes for bytes after the path.
ConfluentSchemaId decodeConfluentHeader(ByteView header,
                                        ConfluentIndexForm form = ConfluentIndexForm::zigzag);

}  // namespace ostrel
