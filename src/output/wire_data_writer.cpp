#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <google/protobuf/wire_format_lite.h>

#include <algorithm>
#include <climits>
#include <string>

#include "ostrel/core/errors.hpp"
#include "ostrel/output/protobuf_writing.hpp"

namespace ostrel {
namespace {

using google::protobuf::internal::WireFormatLite;

}  // namespace

// The coded stream writes into the string stream, which grows `buffer`; the members are declared
// in that order so that the coded stream is destroyed (and hands back its unused space) first.
// Both streams keep pointers to the member before them, hence the Impl lives on the heap and
// never moves.
struct WireDataWriter::Impl {
  std::string buffer;
  google::protobuf::io::StringOutputStream raw{&buffer};
  google::protobuf::io::CodedOutputStream coded{&raw};

  void key(int64_t fieldNumber, WireFormatLite::WireType type) {
    coded.WriteTag(WireFormatLite::MakeTag(static_cast<int>(fieldNumber), type));
  }

  void lengthDelimited(std::string_view value, int64_t fieldNumber) {
    key(fieldNumber, WireFormatLite::WIRETYPE_LENGTH_DELIMITED);
    coded.WriteVarint64(value.size());
    rawBytes(value);
  }

  // WriteRaw takes an int size; longer payloads go in pieces.
  void rawBytes(std::string_view value) {
    while (!value.empty()) {
      const size_t piece = std::min<size_t>(value.size(), INT_MAX);
      coded.WriteRaw(value.data(), static_cast<int>(piece));
      value.remove_prefix(piece);
    }
  }
};

WireDataWriter::WireDataWriter() : impl_(std::make_unique<Impl>()) {}
WireDataWriter::~WireDataWriter() = default;
WireDataWriter::WireDataWriter(WireDataWriter&&) noexcept = default;
WireDataWriter& WireDataWriter::operator=(WireDataWriter&&) noexcept = default;

Bytes WireDataWriter::data() {
  // Trim hands the coded stream's unused space back, so the buffer holds exactly the bytes
  // written; the stream stays usable and asks for fresh space on the next write.
  impl_->coded.Trim();
  if (impl_->coded.HadError()) throw SchematizerError::internalError("Writer: Insufficient memory");
  return toBytes(std::string_view(impl_->buffer));
}

void WireDataWriter::writeInt32(int32_t value, int64_t fieldNumber) {
  impl_->key(fieldNumber, WireFormatLite::WIRETYPE_VARINT);
  impl_->coded.WriteVarint32SignExtended(value);
}

void WireDataWriter::writeUint32(uint32_t value, int64_t fieldNumber) {
  impl_->key(fieldNumber, WireFormatLite::WIRETYPE_VARINT);
  impl_->coded.WriteVarint32(value);
}

void WireDataWriter::writeSint32(int32_t value, int64_t fieldNumber) {
  impl_->key(fieldNumber, WireFormatLite::WIRETYPE_VARINT);
  impl_->coded.WriteVarint32(WireFormatLite::ZigZagEncode32(value));
}

void WireDataWriter::writeFixed32(uint32_t value, int64_t fieldNumber) {
  impl_->key(fieldNumber, WireFormatLite::WIRETYPE_FIXED32);
  impl_->coded.WriteLittleEndian32(value);
}

void WireDataWriter::writeSfixed32(int32_t value, int64_t fieldNumber) {
  impl_->key(fieldNumber, WireFormatLite::WIRETYPE_FIXED32);
  impl_->coded.WriteLittleEndian32(static_cast<uint32_t>(value));
}

void WireDataWriter::writeInt64(int64_t value, int64_t fieldNumber) {
  impl_->key(fieldNumber, WireFormatLite::WIRETYPE_VARINT);
  impl_->coded.WriteVarint64(static_cast<uint64_t>(value));
}

void WireDataWriter::writeUint64(uint64_t value, int64_t fieldNumber) {
  impl_->key(fieldNumber, WireFormatLite::WIRETYPE_VARINT);
  impl_->coded.WriteVarint64(value);
}

void WireDataWriter::writeSint64(int64_t value, int64_t fieldNumber) {
  impl_->key(fieldNumber, WireFormatLite::WIRETYPE_VARINT);
  impl_->coded.WriteVarint64(WireFormatLite::ZigZagEncode64(value));
}

void WireDataWriter::writeFixed64(uint64_t value, int64_t fieldNumber) {
  impl_->key(fieldNumber, WireFormatLite::WIRETYPE_FIXED64);
  impl_->coded.WriteLittleEndian64(value);
}

void WireDataWriter::writeSfixed64(int64_t value, int64_t fieldNumber) {
  impl_->key(fieldNumber, WireFormatLite::WIRETYPE_FIXED64);
  impl_->coded.WriteLittleEndian64(static_cast<uint64_t>(value));
}

void WireDataWriter::writeFloat(float value, int64_t fieldNumber) {
  impl_->key(fieldNumber, WireFormatLite::WIRETYPE_FIXED32);
  impl_->coded.WriteLittleEndian32(WireFormatLite::EncodeFloat(value));
}

void WireDataWriter::writeDouble(double value, int64_t fieldNumber) {
  impl_->key(fieldNumber, WireFormatLite::WIRETYPE_FIXED64);
  impl_->coded.WriteLittleEndian64(WireFormatLite::EncodeDouble(value));
}

void WireDataWriter::writeBOOL(bool value, int64_t fieldNumber) {
  impl_->key(fieldNumber, WireFormatLite::WIRETYPE_VARINT);
  impl_->coded.WriteVarint32(value ? 1 : 0);
}

void WireDataWriter::writeString(std::string_view value, int64_t fieldNumber) {
  impl_->lengthDelimited(value, fieldNumber);
}

void WireDataWriter::writeData(ByteView value, int64_t fieldNumber) {
  impl_->lengthDelimited(asText(value), fieldNumber);
}

void WireDataWriter::writeGroup(ByteView value, int64_t fieldNumber) {
  impl_->key(fieldNumber, WireFormatLite::WIRETYPE_START_GROUP);
  impl_->rawBytes(asText(value));
  impl_->key(fieldNumber, WireFormatLite::WIRETYPE_END_GROUP);
}

}  // namespace ostrel
