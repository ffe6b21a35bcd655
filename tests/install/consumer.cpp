#include <cstdio>

#include "ostrel/ostrel.hpp"

int main() {
  const ostrel::Bytes bytes = ostrel::toBytes(std::string_view("\x08\x96\x01", 3));
  ostrel::Reader reader(bytes);
  const ostrel::FieldTag tag = reader.readTag();
  const uint64_t value = reader.readVarint();
  if (tag.fieldNumber() != 1 || value != 150) {
    std::fprintf(stderr, "consumer: unexpected field %lld = %llu\n",
                 static_cast<long long>(tag.fieldNumber()), static_cast<unsigned long long>(value));
    return 1;
  }
  std::puts("consumer: ok");
  return 0;
}
