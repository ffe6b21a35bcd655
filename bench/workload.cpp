#include "workload.hpp"

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <google/protobuf/wire_format_lite.h>

#include "bench.pb.h"

namespace ostrel::bench {
namespace {

using google::protobuf::internal::WireFormatLite;

// SplitMix64: tiny, fast and identical on every platform, unlike the distributions of <random>.
class Random {
 public:
  explicit Random(uint64_t seed) : state_(seed) {}
  uint64_t next() {
    uint64_t z = (state_ += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
  }
  // Uniform in [low, high].
  int64_t between(int64_t low, int64_t high) {
    return low + static_cast<int64_t>(next() % static_cast<uint64_t>(high - low + 1));
  }
  double unit() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }
  std::string text(size_t length) {
    static constexpr char kAlphabet[] = "abcdefghijklmnopqrstuvwxyz0123456789";
    std::string out(length, ' ');
    for (char& c : out) c = kAlphabet[next() % (sizeof kAlphabet - 1)];
    return out;
  }
  std::string bytes(size_t length) {
    std::string out(length, '\0');
    for (char& c : out) c = static_cast<char>(next());
    return out;
  }

 private:
  uint64_t state_;
};

void setFront(Bench& message) {
  Mid* mid = message.mutable_mid();
  mid->mutable_leaf()->set_id(kFrontId);
  mid->mutable_leaf()->set_label(kFrontLabel);
  mid->set_weight(7);
}

Mid tailMessage() {
  Mid tail;
  tail.mutable_leaf()->set_id(kTailId);
  tail.mutable_leaf()->set_label("tail leaf");
  tail.set_weight(9);
  return tail;
}

void addItem(Bench& message, Random& random, int index, size_t blobSize) {
  Item* item = message.add_items();
  item->set_id(random.between(1, int64_t{1} << 40));
  item->set_name("item " + std::to_string(index) + " " + random.text(12));
  item->set_price(static_cast<double>(random.between(1, 100000)) / 100.0);
  for (int i = 0; i < 8; ++i) item->add_counts(static_cast<int32_t>(random.between(0, 2000)));
  item->set_kind(static_cast<Kind>(random.between(1, 3)));
  item->set_blob(random.bytes(blobSize));
  item->mutable_leaf()->set_id(random.between(1, 1000000));
  item->mutable_leaf()->set_label("leaf " + std::to_string(index));
  item->set_active(random.next() & 1);
  item->set_delta(random.between(-100000, 100000));
  item->set_flags(static_cast<uint32_t>(random.next()));
}

// A varint of one to five bytes, or now and then a negative int32 (ten bytes).
int32_t mixedSizeInt32(Random& random) {
  const int64_t bucket = random.between(0, 99);
  if (bucket < 35) return static_cast<int32_t>(random.between(0, 127));
  if (bucket < 65) return static_cast<int32_t>(random.between(128, 16383));
  if (bucket < 80) return static_cast<int32_t>(random.between(16384, (1 << 21) - 1));
  if (bucket < 90) return static_cast<int32_t>(random.between(1 << 21, (1 << 28) - 1));
  if (bucket < 98) return static_cast<int32_t>(random.between(1 << 28, INT32_MAX));
  return static_cast<int32_t>(random.between(INT32_MIN, -1));
}

void fillRecord(Bench& message, Random& random, int items, size_t blobSize, int ints, int longs,
                int doubles, int tags, size_t payload, int kinds) {
  setFront(message);
  message.set_title("A benchmark record whose title is longer than a small-string buffer");
  message.set_kind(KIND_LARGE);
  for (int i = 0; i < items; ++i) addItem(message, random, i, blobSize);
  for (int i = 0; i < ints; ++i) message.add_ints(mixedSizeInt32(random));
  for (int i = 0; i < longs; ++i)
    message.add_longs(random.between(-(int64_t{1} << 50), int64_t{1} << 50));
  for (int i = 0; i < doubles; ++i) message.add_doubles(random.unit() * 1000.0);
  for (int i = 0; i < tags; ++i) message.add_tags("tag-" + random.text(8));
  message.set_payload(random.bytes(payload));
  message.set_note("the oneof holds this note");
  for (int i = 0; i < kinds; ++i) message.add_kinds(static_cast<Kind>(random.between(0, 3)));
  *message.mutable_tail() = tailMessage();
}

}  // namespace

std::string buildSmallMessage() {
  Random random(1);
  Bench message;
  fillRecord(message, random, /*items=*/3, /*blobSize=*/16, /*ints=*/40, /*longs=*/12,
             /*doubles=*/12, /*tags=*/5, /*payload=*/64, /*kinds=*/6);
  return message.SerializeAsString();
}

std::string buildLargeMessage() {
  Random random(2);
  Bench message;
  fillRecord(message, random, /*items=*/4000, /*blobSize=*/64, /*ints=*/20000, /*longs=*/5000,
             /*doubles=*/5000, /*tags=*/2000, /*payload=*/200000, /*kinds=*/1000);
  return message.SerializeAsString();
}

std::string buildEventsMessage() {
  Random random(5);
  Events events;
  for (int i = 0; i < 3000; ++i) {
    Event& event = *events.add_events();
    event.set_id(random.between(1, 1000000000));
    event.mutable_at()->set_seconds(random.between(0, 4000000000));
    event.mutable_at()->set_nanos(static_cast<int32_t>(random.between(0, 999) * 1000000));
    event.mutable_took()->set_seconds(random.between(0, 100));
    event.mutable_took()->set_nanos(static_cast<int32_t>(random.between(0, 999999999)));
    event.mutable_retries()->set_value(random.between(0, 5));
    event.mutable_region()->set_value(i % 2 ? "eu-west-1" : "us-east-2");
    event.mutable_score()->set_value(static_cast<double>(random.between(0, 100000)) / 7);
    auto& fields = *event.mutable_attributes()->mutable_fields();
    fields["user"].set_string_value("user-" + std::to_string(random.between(0, 99999)));
    fields["bytes"].set_number_value(static_cast<double>(random.between(0, 1 << 20)));
    fields["cached"].set_bool_value(random.next() & 1);
    fields["parent"].set_null_value(google::protobuf::NULL_VALUE);
    auto& tags = *fields["tags"].mutable_list_value();
    for (int t = 0; t < 3; ++t) tags.add_values()->set_string_value("t" + std::to_string(t));
    event.mutable_changed()->add_paths("mid.leaf");
    event.mutable_changed()->add_paths("title");
    Leaf leaf;
    leaf.set_id(random.between(0, 1000000));
    leaf.set_label("detail");
    event.mutable_detail()->PackFrom(leaf);
  }
  return events.SerializeAsString();
}

std::string buildDenseMessage(size_t fieldCount, DenseCounts& counts) {
  Random random(3);
  counts = {};
  std::string out;
  {
    google::protobuf::io::StringOutputStream stream(&out);
    google::protobuf::io::CodedOutputStream coded(&stream);
    Bench front;
    setFront(front);
    // A nested message is written as its length-delimited encoding.
    WireFormatLite::WriteBytes(1, front.mid().SerializeAsString(), &coded);
    for (size_t i = 0; i < fieldCount; ++i) {
      const size_t which = static_cast<size_t>(random.between(0, 7));
      const int number = kDenseFields[which];
      ++counts.perField[which];
      switch (which) {
        case 0:
          WireFormatLite::WriteInt32(number, static_cast<int32_t>(random.between(0, 100000)),
                                     &coded);
          break;
        case 1:
          WireFormatLite::WriteSInt32(number, static_cast<int32_t>(random.between(-100000, 100000)),
                                      &coded);
          break;
        case 2:
          WireFormatLite::WriteBool(number, random.next() & 1, &coded);
          break;
        case 3:
          WireFormatLite::WriteEnum(number, static_cast<int>(random.between(0, 3)), &coded);
          break;
        case 4:
          WireFormatLite::WriteFixed32(number, static_cast<uint32_t>(random.next()), &coded);
          break;
        case 5:
          WireFormatLite::WriteString(
              number, random.text(static_cast<size_t>(random.between(3, 10))), &coded);
          break;
        case 6:
          WireFormatLite::WriteUInt64(number, static_cast<uint64_t>(random.between(0, 1 << 21)),
                                      &coded);
          break;
        default:
          WireFormatLite::WriteFloat(number, static_cast<float>(random.unit()), &coded);
          break;
      }
    }
    WireFormatLite::WriteBytes(1000, tailMessage().SerializeAsString(), &coded);
  }
  return out;
}

std::string buildPackedRunMessage(size_t count, std::vector<int32_t>& values) {
  Random random(4);
  Bench message;
  values.clear();
  values.reserve(count);
  for (size_t i = 0; i < count; ++i) {
    values.push_back(mixedSizeInt32(random));
    message.add_ints(values.back());
  }
  return message.SerializeAsString();
}

std::string buildOrderStream(size_t count, uint64_t& idSum) {
  Random random(4);
  std::string out;
  idSum = 0;
  // The streams write into `out` until they are destroyed, at the end of this block.
  {
    google::protobuf::io::StringOutputStream stream(&out);
    google::protobuf::io::CodedOutputStream coded(&stream);
    ShopOrder order;
    for (size_t n = 0; n < count; ++n) {
      order.Clear();
      order.set_id(1000000 + n);
      idSum += order.id();
      ShopCustomer* customer = order.mutable_customer();
      customer->set_id(static_cast<uint64_t>(random.between(1, 1000000)));
      customer->set_name("customer " + random.text(8));
      customer->set_email(random.text(10) + "@example.com");
      const int64_t items = random.between(1, 3);
      for (int64_t i = 0; i < items; ++i) {
        ShopItem* item = order.add_items();
        item->set_sku("SKU-" + random.text(6));
        item->set_quantity(static_cast<uint32_t>(random.between(1, 5)));
        item->set_price(random.between(100, 100000));
      }
      order.set_state(static_cast<Kind>(random.between(1, 3)));
      order.set_created_at(1700000000000 + random.between(0, 1000000000));
      order.set_updated_at(order.created_at() + random.between(0, 100000));
      for (int i = 0; i < 2; ++i) order.add_coupons(static_cast<uint32_t>(random.between(1, 500)));
      coded.WriteVarint32(static_cast<uint32_t>(order.ByteSizeLong()));
      order.SerializeWithCachedSizes(&coded);
    }
  }
  return out;
}

}  // namespace ostrel::bench
