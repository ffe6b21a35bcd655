#include <gtest/gtest.h>

#include "ostrel/manifest/manifest_data.hpp"
#include "ostrel/paths/property_path.hpp"
#include "ostrel/store/schemas.hpp"
#include "support/test_support.hpp"
#include "support/wire.hpp"

namespace ostrel {
namespace {

using testing_support::bytesOf;
using testing_support::catchError;

MessageSchema root() {
  static const SchemaStore store(schemaManifestFromProtoText(R"(syntax = "proto3"; package a;
      message Root { int32 x = 1; Node node = 2; repeated Node nodes = 3; repeated int32 r = 4;
                     Kind kind = 5; }
      message Node { string name = 1; Node next = 2; }
      enum Kind { LEAF = 0; TREE = 1; })"));
  return store.messageSchema("a.Root");
}

TEST(KeyPathTest, ReportsEachFaultOfThePath) {
  const auto noField = [](const std::string& message, const std::string& name) {
    return SchematizerError::fieldNotFound("Schema \"" + message + "\" property with name \"" +
                                           name + "\"");
  };
  const std::vector<std::pair<std::string, SchematizerError>> rows = {
      {"x.y", SchematizerError::nonMessageTypeInKeypath()},
      {"kind.y", SchematizerError::nonMessageTypeInKeypath()},
      {"nodes", SchematizerError::repeatedValueAccessNoIndex()},
      {"x[0]", SchematizerError::scalarValueAccessWithIndex()},
      {"missing", noField("a.Root", "missing")},
      {"node.nope", noField("a.Node", "nope")},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(catchError([&] { resolvePropertyPath(root(), row.first); }), row.second) << row.first;
  }
}

// A path that breaks the grammar is a PropertyPathUtil::Error before any lookup, whatever the
// schema would say (a scalar followed by more, a name it lacks), from resolution and from reads
// by path text alike. The grammar itself is the property path tests' business.
TEST(KeyPathTest, MalformedPathsFailWithTheParsersError) {
  const SchematizedData data = root().schematizedData(std::string_view());
  for (const std::string path : {"nodes[-1]", "x.1y", "missing[99999999999999999999]"}) {
    SCOPED_TRACE(path);
    EXPECT_THROW(resolvePropertyPath(root(), path), PropertyPathUtil::Error);
    EXPECT_THROW(data.value(path), PropertyPathUtil::Error);
    EXPECT_THROW(data.unsafe().value(path), PropertyPathUtil::Error);
  }
}

// Reads by path text on borrowed bytes, and through a message whose length runs past the end;
// owned reads are compared with libprotobuf in the differential suite.
TEST(KeyPathTest, ReadsByPropertyPathFromBorrowedAndBrokenData) {
  // node { name "n1" next { name "n2" } }, nodes [{name "a"}]
  const Bytes bytes =
      bytesOf({0x12, 10, 0x0a, 2, 'n', '1', 0x12, 4, 0x0a, 2, 'n', '2', 0x1a, 3, 0x0a, 1, 'a'});
  const UnsafeSchematizedData borrowed = root().view(bytes);
  EXPECT_EQ(borrowed.value("node.next.name"), AnyValue("n2"));
  EXPECT_EQ(borrowed.value("node.next.next.name"), std::nullopt);
  EXPECT_EQ(root().schematizedData(bytes).value(resolvePropertyPath(root(), "nodes[0].name")),
            AnyValue("a"));
  const SchematizedData broken = root().schematizedData(bytesOf({0x12, 5, 0x0a}));
  EXPECT_EQ(catchError([&] { broken.value("node.name"); }),
            SerializationError::malformedProtobuf());
}

// Paths of up to 16 components are resolved into a buffer on the stack, longer ones on the heap.
TEST(KeyPathTest, ReadsPathsOnBothSidesOfTheInlineBuffer) {
  for (const int depth : {15, 16, 17}) {
    std::string bytes = testing_support::Wire().bytesField(1, "z").bytes();
    std::string path = "name";
    for (int level = 1; level < depth; ++level) {
      bytes = testing_support::Wire().bytesField(2, bytes).bytes();
      path = (level + 1 < depth ? "next." : "node.") + path;
    }
    EXPECT_EQ(root().schematizedData(bytes).value(path), AnyValue("z")) << depth;
  }
}

}  // namespace
}  // namespace ostrel
