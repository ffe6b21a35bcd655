// A tour of the library on the bundled example: load a schema, read values by property path,
// iterate a repeated field, render JSON and build a new message. Built and run by the tests, and
// quoted in the README.
//
//   tour EXAMPLES_DIR

#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

#include "ostrel/ostrel.hpp"

static std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

int main(int argc, char** argv) {
  const std::string dir = argc > 1 ? argv[1] : "examples";
  try {
    // Schemas arrive as a descriptor set (or a JSON manifest, or .proto files).
    const ostrel::SchemaStore store(
        ostrel::schemaManifestFromDescriptorSet(ostrel::asBytes(readFile(dir + "/shop.desc"))));
    const ostrel::MessageSchema order = store.messageSchema("shop.Order");

    // Pair encoded bytes with their schema and read single values, without decoding the rest.
    const ostrel::SchematizedData data = order.schematizedData(readFile(dir + "/order1.bin"));
    std::cout << "customer: " << data.value("customer.name")->stringValue() << "\n";
    std::cout << "second sku: " << data.value("items[1].sku")->stringValue() << "\n";
    std::cout << "state: " << data.value("state")->enumValue().name() << "\n";
    std::cout << "voucher present: " << data.value("voucher").has_value() << "\n";

    // Iterate a repeated field, packed or not, in one pass.
    const ostrel::FieldSchema items = order.fieldNamed("items");
    ostrel::Schematizer::RepeatableFieldIterator iterator(data.bytes(), items.fieldNumber(),
                                                          items.type());
    for (const ostrel::AnyValue& item : iterator) {
      std::cout << "item: " << ostrel::renderJSON(item.messageValue()) << "\n";
    }

    // Build a new message field by field; fields are asked for in name order.
    const ostrel::MessageSchema customer = store.messageSchema("shop.Customer");
    const ostrel::SchematizedData built =
        customer.buildData([](const ostrel::FieldSchema& field) -> std::vector<ostrel::AnyValue> {
          if (field.name() == "id") return {uint64_t{42}};
          if (field.name() == "name") return {std::string("Edsger Dijkstra")};
          return {};
        });
    std::cout << "built: " << ostrel::renderJSON(built) << "\n";
  } catch (const ostrel::Error& error) {
    std::cerr << "tour: " << error.what() << "\n";
    return 1;
  }
  return 0;
}
