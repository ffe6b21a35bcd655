// A tour of the library on the bundled example: load a schema, look types up, read values by
// property path from borrowed bytes, iterate a repeated field, build a new message and convert to
// and from JSON. Built and run by the tests, and quoted in the README.
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

    // Look types up: messageSchema throws for a name the store lacks, findMessageSchema says so.
    const ostrel::MessageSchema order = store.messageSchema("shop.Order");
    std::cout << "has shop.Refund: " << store.findMessageSchema("shop.Refund").has_value() << "\n";

    // Read single values where the bytes lie: view borrows them (schematizedData would keep a copy)
    // and a read decodes only what its path needs.
    const std::string bytes = readFile(dir + "/order1.bin");
    const ostrel::UnsafeSchematizedData data = order.view(bytes);
    std::cout << "customer: " << data.value("customer.name")->stringValue() << "\n";
    std::cout << "second sku: " << data.value("items[1].sku")->stringValue() << "\n";
    std::cout << "state: " << data.value("state")->enumValue().name() << "\n";
    std::cout << "voucher present: " << data.value("voucher").has_value() << "\n";

    // Iterate a repeated field named by a path (packed or not, nested, or a map's entries as
    // key and value), in one pass over the record, in place.
    const ostrel::RepeatedField items(order, "items");
    for (const ostrel::RepeatedField::Element& item : items.elements(data.bytes())) {
      std::cout << "item: " << ostrel::renderJSON(item.value.messageValue()) << "\n";
    }
    const ostrel::RepeatedField attributes(order, "attributes");  // map<string, string>
    for (const auto& [key, value] : attributes.elements(data.bytes())) {
      std::cout << "attribute: " << key->stringValue() << " = " << value.stringValue() << "\n";
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

    // JSON text to protobuf, and back to JSON with options.
    const ostrel::SchematizedData parsed =
        ostrel::parseJSON(customer, R"({"id": "7", "name": "Ada"})");
    std::cout << "parsed: " << ostrel::renderJSON(parsed, {.jsonNames = true}) << "\n";
  } catch (const ostrel::Error& error) {
    std::cerr << "tour: " << error.what() << "\n";
    return 1;
  }
  return 0;
}
