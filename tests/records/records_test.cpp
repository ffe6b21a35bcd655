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
  // The framing by the name the tools and extensions take.
  std::string framing;
  std::string stream;
  std::vector<Split> records;
  // The fault that ends the stream after `records`, if any.
  std::optional<FramingError> fault;
};

TEST(RecordSource, SplitsEachFramingIntoRecordsWithTheirOffsets) {
  const std::string big(200, 'x');
  const FramingError truncated = FramingError::truncated();
  const FramingError badLength = FramingError::malformedLength();
  const std::vector<StreamRow> rows = {
      {"varint", "varint", "\2ab\0\1c"s, {{0, "ab"}, {3, ""}, {4, "c"}}},
      {"varint two-byte length", "varint", "\xc8\1" + big, {{0, big}}},
      {"varint cut in its record", "varint", "\1a\3ab"s, {{0, "a"}}, truncated},
      {"varint cut in its prefix", "varint", "\1a\x80"s, {{0, "a"}}, truncated},
      {"varint prefix of 11 bytes", "varint", std::string(10, '\x80') + '\0', {}, badLength},
      {"varint beyond 2^31-1", "varint", "\x80\x80\x80\x80\x08"s, {}, badLength},
      {"u32be with a null record",
       "u32be",
       "\0\0\0\2ab\xff\xff\xff\xff\0\0\0\0"s,
       {{0, "ab"}, {6, std::nullopt}, {10, ""}}},
      {"u32be short prefix", "u32be", "\0\0\0\1a\0\0"s, {{0, "a"}}, truncated},
      {"u32be 2^31-1, cut short", "u32be", "\x7f\xff\xff\xff\x61"s, {}, truncated},
      {"u32be below -1", "u32be", "\xff\xff\xff\376ab"s, {}, badLength},
      {"single", "single", "\2ab"s, {{0, "\2ab"s}}},
      {"single empty", "single", "", {{0, ""}}},
      {"empty varint stream", "varint", "", {}},
  };
  for (const StreamRow& row : rows) {
    SCOPED_TRACE(row.name);
    RecordSource stream(asBytes(row.stream), findFraming(row.framing).value());
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
};

TEST(ConfluentEnvelope, SplitsIdPathAndPayload) {
  const auto zigzag = ConfluentIndexForm::zigzag;
  const auto plain = ConfluentIndexForm::unsignedVarint;
  // The magic byte of the GUID form, 16 bytes of GUID, the path [0] and the payload.
  const std::string guid = "\1\1\x23\x45\x67\x89\xab\xcd\xef\1\x23\x45\x67\x89\xab\xcd\xef\0\x08"s;
  const std::vector<EnvelopeRow> rows = {
      {"first message", "\0\0\0\0\x2a\0\x08\1"s, zigzag, "42", {0}, "\x08\1"},
      {"path [1]", "\0\0\0\1\0\2\2\x08"s, zigzag, "256", {1}, "\x08"},
      {"nested path [0, 0]", "\0\0\0\0\7\4\0\0"s, zigzag, "7", {0, 0}, ""},
      {"large id", "\0\x7f\xff\xff\xff\0"s, zigzag, "2147483647", {0}, ""},
      {"largest index", "\0\0\0\0\7\2\xfe\xff\xff\xff\x0f"s, zigzag, "7", {2147483647}, ""},
      {"unsigned form [1, 2]", "\0\0\0\0\7\2\1\2\x08"s, plain, "7", {1, 2}, "\x08"},
      {"GUID", guid, zigzag, "01234567-89ab-cdef-0123-456789abcdef", {0}, "\x08"},
  };
  for (const EnvelopeRow& row : rows) {
    SCOPED_TRACE(row.name);
    const ConfluentEnvelope envelope = decodeConfluent(asBytes(row.value), row.form);
    EXPECT_EQ(envelope.schema.idText(), row.id);
    EXPECT_EQ(envelope.schema.indexes, row.indexes);
    EXPECT_EQ(asText(envelope.payload), row.payload);
  }
}

TEST(ConfluentEnvelope, RefusesEachFaultOfTheHeader) {
  const FramingError truncated = FramingError::truncated();
  const FramingError badIndexes = FramingError::malformedIndexes();
  const std::vector<std::tuple<std::string, std::string, FramingError>> rows = {
      {"unsigned form read as zigzag", "\0\0\0\0\7\1\1"s, badIndexes},
      {"wrong magic", "\x08\1"s, FramingError::wrongMagic("0x08")},
      {"empty", "", truncated},
      {"short id", "\0\0\0"s, truncated},
      {"short GUID", "\1\2\3"s, truncated},
      {"no path", "\0\0\0\0\7"s, truncated},
      {"path count past the end, a negative index after it", "\0\0\0\0\7\6\1"s, truncated},
      {"negative index", "\0\0\0\0\7\2\1"s, badIndexes},
      {"index beyond 32 bits", "\0\0\0\0\7\2\xff\xff\xff\xff\x7f"s, badIndexes},
  };
  for (const auto& [name, value, fault] : rows) {
    try {
      decodeConfluent(asBytes(value), ConfluentIndexForm::zigzag);
      ADD_FAILURE() << name << ": no fault";
    } catch (const FramingError& error) {
      EXPECT_EQ(error, fault) << name;
    }
  }
}

TEST(ConfluentEnvelope, HeaderHoldsIdAndPathOnly) {
  EXPECT_EQ(decodeConfluentHeader(asBytes("\0\0\0\0\x09\x02\x02"s)).indexes,
            std::vector<int32_t>{1});
  EXPECT_EQ(decodeConfluentHeader(asBytes("\0\0\0\0\x09"s)).indexes, std::vector<int32_t>{0});
  EXPECT_EQ(decodeConfluentHeader(asBytes("\0\0\0\0\x09"s)).idText(), "9");
  EXPECT_EQ(decodeConfluentHeader(
                asBytes("\1\1\x23\x45\x67\x89\xab\xcd\xef\1\x23\x45\x67\x89\xab\xcd\xef"s))
                .idText(),
            "01234567-89ab-cdef-0123-456789abcdef");
  EXPECT_THROW(decodeConfluentHeader(asBytes("\0\0\0\0\x09\0\x08"s)), FramingError);
}

}  // namespace
}  // namespace ostrel
