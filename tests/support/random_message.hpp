#pragma once

// Fills libprotobuf messages with seeded random content through reflection: every field kind,
// nesting to a bounded depth, repeated fields of random length, oneofs, maps, extensions, enums
// with numbers the enum does not know, empty and long strings, and the float specials.

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>
#include <google/protobuf/reflection.h>
#include <google/protobuf/util/field_comparator.h>
#include <google/protobuf/util/message_differencer.h>

#include <cmath>
#include <cstdlib>
#include <functional>
#include <limits>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace ostrel::testing_support {

// How many generated messages a differential test takes: `count` (a few thousand), an eighth of it
// under AddressSanitizer, which slows these loops about tenfold, and that many times
// OSTREL_GENERATED_MESSAGES_SCALE when it is set, for a longer run on demand.
inline int generatedMessageCount(int count) {
#if defined(__SANITIZE_ADDRESS__)
  count /= 8;
#endif
  if (const char* scale = std::getenv("OSTREL_GENERATED_MESSAGES_SCALE")) {
    const int factor = std::atoi(scale);
    if (factor > 1) count *= factor;
  }
  return count;
}

// A message type's fields, then the extensions of it that its pool knows.
inline std::vector<const google::protobuf::FieldDescriptor*> fieldsAndExtensions(
    const google::protobuf::Descriptor* descriptor) {
  std::vector<const google::protobuf::FieldDescriptor*> fields;
  for (int i = 0; i < descriptor->field_count(); ++i) fields.push_back(descriptor->field(i));
  descriptor->file()->pool()->FindAllExtensions(descriptor, &fields);
  return fields;
}

class RandomMessageFiller {
 public:
  explicit RandomMessageFiller(uint32_t seed) : rng_(seed) {}

  // Fills the messages for which it returns true in its own way (well-known types whose content
  // has rules of its own); the others are filled field by field.
  using SpecialFill = std::function<bool(google::protobuf::Message& message, int depth)>;
  void setSpecialFill(SpecialFill special) { special_ = std::move(special); }

  void fill(google::protobuf::Message& message, int depth = 0) {
    if (special_ && special_(message, depth)) return;
    for (const Field* field : fieldsAndExtensions(message.GetDescriptor())) {
      // Leave some fields absent; a required one always has its value.
      if (!field->is_required() && chance(depth == 0 ? 0.3 : 0.45)) continue;
      if (field->real_containing_oneof() && chance(0.5)) continue;
      if (field->is_repeated()) {
        const int count = static_cast<int>(below(depth < 2 ? 6 : 3));
        for (int n = 0; n < count; ++n) putValue(message, field, depth);
      } else if (field->cpp_type() != google::protobuf::FieldDescriptor::CPPTYPE_MESSAGE ||
                 depth < kMaxDepth) {
        putValue(message, field, depth);
      }
    }
  }

  // Fills `message` as libprotobuf parses it: random content is serialized and parsed back, so
  // that each map holds a key once (filling through reflection may add a key twice). Returns the
  // serialized bytes.
  std::string fillParsed(google::protobuf::Message& message) {
    const std::unique_ptr<google::protobuf::Message> filled(message.New());
    fill(*filled);
    std::string bytes = filled->SerializePartialAsString();
    if (!message.ParsePartialFromString(bytes))
      throw std::runtime_error("a filled message does not parse");
    return bytes;
  }

  std::mt19937& rng() { return rng_; }

 private:
  static constexpr int kMaxDepth = 4;
  using Field = google::protobuf::FieldDescriptor;

  bool chance(double p) { return std::uniform_real_distribution<double>(0, 1)(rng_) < p; }
  uint64_t below(uint64_t n) { return std::uniform_int_distribution<uint64_t>(0, n - 1)(rng_); }

  // Integers spread over every varint length, with the edges of each range.
  uint64_t bits64() {
    switch (below(6)) {
      case 0:
        return 0;
      case 1:
        return below(128);
      case 2:
        return std::numeric_limits<uint64_t>::max() - below(3);
      case 3:
        return uint64_t{1} << below(64);
      default:
        return std::uniform_int_distribution<uint64_t>()(rng_) >> below(64);
    }
  }

  double real() {
    switch (below(8)) {
      case 0:
        return std::numeric_limits<double>::quiet_NaN();
      case 1:
        return chance(0.5) ? std::numeric_limits<double>::infinity()
                           : -std::numeric_limits<double>::infinity();
      case 2:
        return 0.0;
      case 3:
        return std::numeric_limits<double>::denorm_min();
      default:
        return std::ldexp(std::uniform_real_distribution<double>(-1, 1)(rng_),
                          static_cast<int>(below(200)) - 100);
    }
  }

  std::string text() {
    // Escapes, control characters, every UTF-8 length; "<" and "/" that some writers escape.
    // clang-format off
    static const std::string_view kPieces[] = {"a", "Z", "0", " ", "\"", "\\", "/", "\n", "\t",
        "\x7f", "\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80", "<", "\x01"};
    // clang-format on
    std::string out;
    const uint64_t length = chance(0.05) ? 300 + below(700) : below(12);
    for (uint64_t i = 0; i < length; ++i) out += kPieces[below(std::size(kPieces))];
    return out;
  }

  std::string bytes() {
    std::string out(chance(0.05) ? 200 + below(300) : below(10), '\0');
    for (char& c : out) c = static_cast<char>(below(256));
    return out;
  }

  int enumNumber(const Field* field) {
    const auto* type = field->enum_type();
    // JSON writes every NullValue as null: a number it does not declare has no text to keep it.
    if (type->full_name() == "google.protobuf.NullValue") return 0;
    if (chance(0.15)) return static_cast<int>(below(1000)) + 100;  // unknown to the enum
    return type->value(static_cast<int>(below(static_cast<uint64_t>(type->value_count()))))
        ->number();
  }

  // Sets a singular field, or adds an element to a repeated one.
  void putValue(google::protobuf::Message& message, const Field* field, int depth) {
    using R = google::protobuf::Reflection;
    const auto* r = message.GetReflection();
    const bool add = field->is_repeated();
    const auto put = [&](auto set, auto append, auto value) {
      (r->*(add ? append : set))(&message, field, std::move(value));
    };
    switch (field->cpp_type()) {
      case Field::CPPTYPE_INT32:
        return put(&R::SetInt32, &R::AddInt32, static_cast<int32_t>(bits64()));
      case Field::CPPTYPE_INT64:
        return put(&R::SetInt64, &R::AddInt64, static_cast<int64_t>(bits64()));
      case Field::CPPTYPE_UINT32:
        return put(&R::SetUInt32, &R::AddUInt32, static_cast<uint32_t>(bits64()));
      case Field::CPPTYPE_UINT64:
        return put(&R::SetUInt64, &R::AddUInt64, bits64());
      case Field::CPPTYPE_DOUBLE:
        return put(&R::SetDouble, &R::AddDouble, real());
      case Field::CPPTYPE_FLOAT:
        return put(&R::SetFloat, &R::AddFloat, static_cast<float>(real()));
      case Field::CPPTYPE_BOOL:
        return put(&R::SetBool, &R::AddBool, chance(0.5));
      case Field::CPPTYPE_ENUM:
        return put(&R::SetEnumValue, &R::AddEnumValue, enumNumber(field));
      case Field::CPPTYPE_STRING:
        return put(&R::SetString, &R::AddString,
                   field->type() == Field::TYPE_BYTES ? bytes() : text());
      case Field::CPPTYPE_MESSAGE:
        if (!add) return fill(*r->MutableMessage(&message, field), depth + 1);
        if (depth < kMaxDepth) fill(*r->AddMessage(&message, field), depth + 1);
        return;
    }
  }

  std::mt19937 rng_;
  SpecialFill special_;
};

// MessageDifferencer with NaN equal to NaN, as the filler writes it; differences() says what
// differed in the last comparison.
class MessageComparison {
 public:
  MessageComparison() {
    comparator_.set_treat_nan_as_equal(true);
    differencer_.set_field_comparator(&comparator_);
    differencer_.ReportDifferencesToString(&differences_);
  }
  MessageComparison(const MessageComparison&) = delete;
  MessageComparison& operator=(const MessageComparison&) = delete;

  bool equal(const google::protobuf::Message& a, const google::protobuf::Message& b) {
    differences_.clear();
    return differencer_.Compare(a, b);
  }
  const std::string& differences() const { return differences_; }

 private:
  google::protobuf::util::DefaultFieldComparator comparator_;
  google::protobuf::util::MessageDifferencer differencer_;
  std::string differences_;
};

}  // namespace ostrel::testing_support
