// A program built against ostrel as users build it (the installed package, or the sources as a
// subdirectory): a schema from its JSON form, one value read.
#include <cstdio>

#include "ostrel/ostrel.hpp"

int main() {
  const ostrel::SchemaStore store(ostrel::schemaManifestFromJSON(
      R"({"messages": {"a.Point": {"fields": {"x": {"type": "sint32", "fieldNumber": 1}}}}})"));
  const ostrel::SchematizedData point =
      store.messageSchema("a.Point").schematizedData(std::string_view("\x08\x03", 2));
  const std::optional<ostrel::AnyValue> x = point.value("x");
  if (!x || x->int32Value() != -2) {
    std::fprintf(stderr, "consumer: unexpected value\n");
    return 1;
  }
  std::printf("consumer: ok, %s\n", ostrel::renderJSON(point).c_str());
  return 0;
}
