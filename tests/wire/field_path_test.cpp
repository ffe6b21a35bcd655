// Visiting the values of hand-encoded bytes: the encodings libprotobuf never writes (mixed packed
// and unpacked runs, a run cut short).

#include "wire/field_path.hpp"

#include <gtest/gtest.h>

#include "ostrel/manifest/manifest_data.hpp"
#include "ostrel/store/schemas.hpp"
#include "support/test_support.hpp"
#include "wire/field_walk.hpp"

namespace ostrel {
namespace {

using testing_support::bytesOf;
using testing_support::catchError;

MessageSchema messageM() {
  static const SchemaStore store(schemaManifestFromProtoText(
      "syntax = \"proto2\"; package t; message M {"
      " repeated int32 r = 4; optional int32 single = 5; repeated double d = 6; }"));
  return store.messageSchema("t.M");
}
std::shared_ptr<FieldSchemaDescribing> field(const std::string& name) {
  return messageM().fieldNamed(name).impl();
}

// The int32 values visited; a failure is thrown after `seen` holds what was visited before it.
std::vector<int32_t> visitAll(const Bytes& bytes, const std::string& name,
                              std::vector<int32_t>* seen = nullptr) {
  std::vector<int32_t> local;
  std::vector<int32_t>& out = seen ? *seen : local;
  Reader reader(bytes);
  forEachValue(reader, *field(name),
               [&](detail::AnyValueImpl&& value) { out.push_back(value.int32Value()); });
  return out;
}

TEST(ForEachValueTest, VisitsEveryValueOfOneField) {
  using V = std::vector<int32_t>;
  EXPECT_EQ(visitAll(bytesOf({0x20, 1, 0x08, 9, 0x20, 2, 0x20, 3}), "r"), (V{1, 2, 3}));
  // Each packed run exactly to its end, then the walk goes on after it.
  EXPECT_EQ(visitAll(bytesOf({0x22, 3, 1, 2, 3, 0x08, 0x00, 0x20, 4}), "r"), (V{1, 2, 3, 4}));
  EXPECT_EQ(visitAll(bytesOf({0x22, 0, 0x22, 1, 0x7f}), "r"), V{127});
  EXPECT_EQ(visitAll(bytesOf({0x32, 0, 0x08, 1}), "d"), V{});
  EXPECT_EQ(visitAll(bytesOf({0x28, 1, 0x28, 2}), "single"), V{1});
  // Iterated exactly, an empty run among the elements is passed over.
  Schematizer::RepeatableFieldIterator exact(bytesOf({0x20, 1, 0x22, 0, 0x22, 1, 2}), 4,
                                             messageM().fieldNamed("r").type(), ReadMode::exact);
  for (const int32_t expected : {1, 2}) EXPECT_EQ(exact.next()->int32Value(), expected);
  EXPECT_FALSE(exact.next());
  // An element running over its run's end is malformed and is not visited.
  V seen;
  EXPECT_EQ(catchError([&] {
              visitAll(bytesOf({0x22, 2, 1, 0x96, 0x01, 0x08, 0x00}), "r", &seen);
            }),
            SerializationError::malformedProtobuf());
  EXPECT_EQ(seen, V{1});
}

TEST(ForEachPresentFieldTest, VisitsEachPackedElementWithinItsRun) {
  std::vector<std::string> seen;
  const auto visitAll = [&](const Bytes& bytes) {
    forEachPresentField(messageM().schematizedData(bytes).unsafe(),
                        [&](const auto& field, auto&& value) {
                          seen.push_back(field->name() + "=" + AnyValue::from(value).describe());
                        });
  };
  // Unknown field 7 is skipped.
  visitAll(bytesOf({0x22, 2, 1, 2, 0x28, 5, 0x38, 1, 0x20, 3}));
  EXPECT_EQ(seen, (std::vector<std::string>{"r=int32(1)", "r=int32(2)", "single=int32(5)",
                                            "r=int32(3)"}));
  seen.clear();
  EXPECT_EQ(catchError([&] {
              visitAll(bytesOf({0x22, 2, 1, 0x96, 0x01}));
            }),
            SerializationError::malformedProtobuf());
  EXPECT_EQ(seen, std::vector<std::string>{"r=int32(1)"});
}

}  // namespace
}  // namespace ostrel
