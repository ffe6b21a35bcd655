// Record streams and Confluent envelopes: each framing split into its records with their offsets,
// and every fault of a prefix or an envelope as its own error.

#include "ostrel/records/records.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace ostrel {
namespace {

using namespace std::string_literals;

struct Split {
  int64_t offset;
  std::optional<std::string> bytes;
  friend bool operator==(const Split&, const Split&) = default;
};

struct StreamRow {
  std::string name;
  Framing framing;
  std::string stream;
  std::vector<Split> records;
  // The fault that ends the stream after `records`, if any.
  std::optional<FramingError> fault;
};

TEST(RecordSource, SplitsEachFramingIntoRecordsWithTheirOffsets) {
  const std::string big(200, 'x');
  const std::vector<StreamRow> rows = {
      {"varint",
       Framing::varint,
       "\x02"
       "ab"
       "\x00"
       "\x01"
       "c"s,
       {{0, "ab"}, {3, ""}, {4, "c"}}},
      {"varint two-byte length", Framing::varint, "\xc8\x01" + big, {{0, big}}},
      {"varint cut in its record",
       Framing::varint,
       "\x01"
       "a"
       "\x03"
       "ab"s,
       {{0, "a"}},
       FramingError::truncated()},
      {"varint cut in its prefix",
       Framing::varint,
       "\x01"
       "a"
       "\x80"s,
       {{0, "a"}},
       FramingError::truncated()},
      {"varint prefix over ten bytes",
       Framing::varint,
       std::string(10, '\x80') + '\0',
       {},
       FramingError::malformedLength()},
      {"varint beyond 2^31-1",
       Framing::varint,
       "\x80\x80\x80\x80\x08"s,
       {},
       FramingError::malformedLength()},
      {"u32be with a null record",
       Framing::u32be,
       "\0\0\0\x02"
       "ab"
       "\xff\xff\xff\xff"
       "\0\0\0\0"s,
       {{0, "ab"}, {6, std::nullopt}, {10, ""}}},
      {"u32be short prefix",
       Framing::u32be,
       "\0\0\0\x01"
       "a"
       "\0\0"s,
       {{0, "a"}},
       FramingError::truncated()},
      {"u32be cut in its record",
       Framing::u32be,
       "\0\0\0\x05"
       "abc"s,
       {},
       FramingError::truncated()},
      {"u32be below -1",
       Framing::u32be,
       "\xff\xff\xff\xfe"
       "ab"s,
       {},
       FramingError::malformedLength()},
      {"single",
       Framing::single,
       "\x02"
       "ab"s,
       {{0,
         "\x02"
         "ab"s}}},
      {"single empty", Framing::single, "", {{0, ""}}},
      {"empty varint stream", Framing::varint, "", {}},
  };
  for (const StreamRow& row : rows) {
    SCOPED_TRACE(row.name);
    RecordSource stream(asBytes(row.stream), row.framing);
    std::vector<Split> found;
    std::optional<FramingError> fault;
    try {
      while (std::optional<ByteView> record = stream.next()) {
        found.push_back({stream.offset(), stream.null()
                                              ? std::nullopt
                                              : std::optional(std::string(asText(*record)))});
      }
    } catch (const FramingError& error) {
      fault = error;
      // The stream stays at the fault.
      EXPECT_THROW(stream.next(), FramingError);
    }
    EXPECT_EQ(found, row.records);
    EXPECT_EQ(fault, row.fault);
    EXPECT_EQ(stream.count(), static_cast<int64_t>(row.records.size()));
  }
}

TEST(RecordSource, FramingsByName) {
  EXPECT_EQ(findFraming("varint"), Framing::varint);
  EXPECT_EQ(findFraming("u32be"), Framing::u32be);
  EXPECT_EQ(findFraming("single"), Framing::single);
  EXPECT_EQ(findFraming("delimited"), std::nullopt);
}

TEST(RecordSource, CallbacksAndBuffersCountOffsetsBySize) {
  RecordSource buffers = RecordSource::buffers({toBytes(asBytes("ab")), toBytes(asBytes("c"))});
  std::vector<Split> found;
  while (std::optional<ByteView> record = buffers.next()) {
    found.push_back({buffers.offset(), std::string(asText(*record))});
  }
  EXPECT_EQ(found, (std::vector<Split>{{0, "ab"}, {2, "c"}}));
  RecordSource owned = RecordSource::owned(toBytes(asBytes("\0\0\0\x01z"s)), Framing::u32be);
  EXPECT_EQ(asText(*owned.next()), "z");
  EXPECT_FALSE(owned.next());
}

struct EnvelopeRow {
  std::string name;
  std::string value;
  ConfluentIndexForm form;
  std::string id;
  std::vector<int32_t> indexes;
  std::string payload;
  std::optional<FramingError> fault;
};

TEST(ConfluentEnvelope, SplitsIdPathAndPayload) {
  const auto zigzag = ConfluentIndexForm::zigzag;
  const auto plain = ConfluentIndexForm::unsignedVarint;
  const std::string guid = "\x01\x23\x45\x67\x89\xab\xcd\xef\x01\x23\x45\x67\x89\xab\xcd\xef"s;
  const std::vector<EnvelopeRow> rows = {
      {"first message", "\0\0\0\0\x2a\0\x08\x01"s, zigzag, "42", {0}, "\x08\x01"},
      {"path [1]", "\0\0\0\x01\0\x02\x02\x08"s, zigzag, "256", {1}, "\x08"},
      {"nested path [0, 0]", "\0\0\0\0\x07\x04\0\0"s, zigzag, "7", {0, 0}, ""},
      {"large id", "\0\x7f\xff\xff\xff\0"s, zigzag, "2147483647", {0}, ""},
      {"largest index", "\0\0\0\0\x07\x02\xfe\xff\xff\xff\x0f"s, zigzag, "7", {2147483647}, ""},
      {"unsigned form [1, 2]", "\0\0\0\0\x07\x02\x01\x02\x08"s, plain, "7", {1, 2}, "\x08"},
      {"unsigned form read as zigzag",
       "\0\0\0\0\x07\x01\x01"s,
       zigzag,
       "",
       {},
       "",
       FramingError::malformedIndexes()},
      {"GUID",
       "\x01"s + guid + "\0\x08"s,
       zigzag,
       "01234567-89ab-cdef-0123-456789abcdef",
       {0},
       "\x08"},
      {"wrong magic", "\x08\x01"s, zigzag, "", {}, "", FramingError::wrongMagic("0x08")},
      {"empty", "", zigzag, "", {}, "", FramingError::truncated()},
      {"short id", "\0\0\0"s, zigzag, "", {}, "", FramingError::truncated()},
      {"short GUID", "\x01\x02\x03"s, zigzag, "", {}, "", FramingError::truncated()},
      {"no path", "\0\0\0\0\x07"s, zigzag, "", {}, "", FramingError::truncated()},
      {"path count past the end",
       "\0\0\0\0\x07\x06\x02"s,
       zigzag,
       "",
       {},
       "",
       FramingError::truncated()},
      {"negative index",
       "\0\0\0\0\x07\x02\x01"s,
       zigzag,
       "",
       {},
       "",
       FramingError::malformedIndexes()},
      {"index beyond 32 bits",
       "\0\0\0\0\x07\x02\xff\xff\xff\xff\x7f"s,
       zigzag,
       "",
       {},
       "",
       FramingError::malformedIndexes()},
  };
  for (const EnvelopeRow& row : rows) {
    SCOPED_TRACE(row.name);
    try {
      const ConfluentEnvelope envelope = decodeConfluent(asBytes(row.value), row.form);
      EXPECT_FALSE(row.fault);
      EXPECT_EQ(envelope.schema.idText(), row.id);
      EXPECT_EQ(envelope.schema.indexes, row.indexes);
      EXPECT_EQ(asText(envelope.payload), row.payload);
    } catch (const FramingError& error) {
      EXPECT_EQ(std::optional(error), row.fault);
    }
  }
}

TEST(ConfluentEnvelope, HeaderHoldsIdAndPathOnly) {
  EXPECT_EQ(decodeConfluentHeader(asBytes("\0\0\0\0\x09\x02\x02"s)).indexes,
            std::vector<int32_t>{1});
  EXPECT_EQ(decodeConfluentHeader(asBytes("\0\0\0\0\x09"s)).indexes, std::vector<int32_t>{0});
  EXPECT_EQ(decodeConfluentHeader(asBytes("\0\0\0\0\x09"s)).idText(), "9");
  EXPECT_THROW(decodeConfluentHeader(asBytes("\0\0\0\0\x09\0\x08"s)), FramingError);
}

}  // namespace
}  // namespace ostrel
