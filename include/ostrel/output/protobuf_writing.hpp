#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

#include "ostrel/core/values.hpp"

namespace ostrel {

// A protobuf wire writer. Each write appends one complete field, key and value, to the buffer;
// the writer forms the key from the field number and the wire type of the operation itself.
// Field numbers are those of a schema, 1 to 536870911; the writer does not check them.
//
// The library writes through this interface rather than a concrete encoder so that the encoder
// can be swapped, and so that tests can observe which operation a value was written with.
class ProtobufWriting {
 public:
  virtual ~ProtobufWriting() = default;

  // An owned copy of the bytes written so far; writing may continue afterwards. Throws
  // SchematizerError::internalError("Writer: Insufficient memory") when the writer could not
  // produce its buffer.
  virtual Bytes data() = 0;

  // Varint; a negative value takes ten bytes, as protobuf's int32 does.
  virtual void writeInt32(int32_t value, int64_t fieldNumber) = 0;
  // Varint.
  virtual void writeUint32(uint32_t value, int64_t fieldNumber) = 0;
  // ZigZag varint.
  virtual void writeSint32(int32_t value, int64_t fieldNumber) = 0;
  // Four bytes, little-endian.
  virtual void writeFixed32(uint32_t value, int64_t fieldNumber) = 0;
  virtual void writeSfixed32(int32_t value, int64_t fieldNumber) = 0;
  // Varint.
  virtual void writeInt64(int64_t value, int64_t fieldNumber) = 0;
  virtual void writeUint64(uint64_t value, int64_t fieldNumber) = 0;
  // ZigZag varint.
  virtual void writeSint64(int64_t value, int64_t fieldNumber) = 0;
  // Eight bytes, little-endian.
  virtual void writeFixed64(uint64_t value, int64_t fieldNumber) = 0;
  virtual void writeSfixed64(int64_t value, int64_t fieldNumber) = 0;
  // IEEE-754, four and eight bytes, little-endian.
  virtual void writeFloat(float value, int64_t fieldNumber) = 0;
  virtual void writeDouble(double value, int64_t fieldNumber) = 0;
  // Varint 0 or 1.
  virtual void writeBOOL(bool value, int64_t fieldNumber) = 0;
  // Length-delimited; the text is written as given (UTF-8 is the caller's business).
  virtual void writeString(std::string_view value, int64_t fieldNumber) = 0;
  // Length-delimited.
  virtual void writeData(ByteView value, int64_t fieldNumber) = 0;
  // A delimited message: a start-group tag, the encoded fields `value` as they are, an end-group
  // tag.
  virtual void writeGroup(ByteView value, int64_t fieldNumber) = 0;
};

// The library's writer: libprotobuf's wire encoder over a growing in-memory buffer. Movable, not
// copyable.
class WireDataWriter final : public ProtobufWriting {
 public:
  WireDataWriter();
  ~WireDataWriter() override;
  WireDataWriter(WireDataWriter&&) noexcept;
  WireDataWriter& operator=(WireDataWriter&&) noexcept;
  WireDataWriter(const WireDataWriter&) = delete;
  WireDataWriter& operator=(const WireDataWriter&) = delete;

  Bytes data() override;

  void writeInt32(int32_t value, int64_t fieldNumber) override;
  void writeUint32(uint32_t value, int64_t fieldNumber) override;
  void writeSint32(int32_t value, int64_t fieldNumber) override;
  void writeFixed32(uint32_t value, int64_t fieldNumber) override;
  void writeSfixed32(int32_t value, int64_t fieldNumber) override;
  void writeInt64(int64_t value, int64_t fieldNumber) override;
  void writeUint64(uint64_t value, int64_t fieldNumber) override;
  void writeSint64(int64_t value, int64_t fieldNumber) override;
  void writeFixed64(uint64_t value, int64_t fieldNumber) override;
  void writeSfixed64(int64_t value, int64_t fieldNumber) override;
  void writeFloat(float value, int64_t fieldNumber) override;
  void writeDouble(double value, int64_t fieldNumber) override;
  void writeBOOL(bool value, int64_t fieldNumber) override;
  void writeString(std::string_view value, int64_t fieldNumber) override;
  void writeData(ByteView value, int64_t fieldNumber) override;
  void writeGroup(ByteView value, int64_t fieldNumber) override;

 private:
  // Holds the libprotobuf streams, which must not move once created and stay out of this header.
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace ostrel
