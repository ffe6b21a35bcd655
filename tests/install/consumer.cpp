// A program built against ostrel as users build it (the installed package, or the sources as a
// subdirectory): a schema from its JSON form, one value read; with the optional parts (the
// installed package's consumer), a .proto text imported and a query written.
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
#ifdef OSTREL_CONSUMER_OPTIONAL_PARTS
  // ostrel::protoc and ostrel::sql: a .proto text imported, a query written over it.
  const ostrel::SchemaStore parsed(ostrel::schemaManifestFromProtoText(
      "syntax = \"proto3\"; package a; message Point { sint32 x = 1; }"));
  if (ostrel::sqlSelect(parsed.messageSchema("a.Point"), "t", "r", {{"x"}}) !=
      "SELECT\n  P_GET(r, 'x') AS x\nFROM t") {
    std::fprintf(stderr, "consumer: unexpected query\n");
    return 1;
  }
#endif
  std::printf("consumer: ok, %s\n", ostrel::renderJSON(point).c_str());
  return 0;
}
