// Walks the top-level fields of an encoded message with the wire reader and prints each one.
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

#include "ostrel/ostrel.hpp"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: read_example FILE\n";
    return 2;
  }
  std::ifstream in(argv[1], std::ios::binary);
  const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  try {
    ostrel::Reader reader(ostrel::asBytes(text));
    while (reader.hasMoreFields()) {
      const ostrel::FieldTag tag = reader.readTag();
      std::cout << "field " << tag.fieldNumber() << " " << ostrel::caseName(tag.wireType());
      if (tag.wireType() == ostrel::ProtoWireType::varInt) {
        std::cout << " " << reader.readVarint();
      } else if (tag.wireType() == ostrel::ProtoWireType::lengthDelimited) {
        std::cout << " (" << reader.readLengthDelimited().size() << " bytes)";
      } else {
        reader.skipField(tag);
      }
      std::cout << "\n";
    }
  } catch (const ostrel::Error& error) {
    std::cerr << "read_example: " << error.what() << "\n";
    return 1;
  }
  return 0;
}
