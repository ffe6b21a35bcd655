// The library's side of bench/tool_run: writes the stream of delimited shop orders the tool is
// timed on, and reads it back through the row Projection as a program using the library would,
// so that the tool's time can be set beside the projection's over the same bytes.
//
//   ostrel_tool_bench write N FILE     N orders (buildOrderStream), varint-delimited, into FILE
//   ostrel_tool_bench project FILE PATH...
//                                      every record of FILE projected onto the PATHs; prints the
//                                      record count and a checksum of the answers
//
// The file is memory-mapped and its pages given back as they are passed, as the tool reads it.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "ostrel/ostrel.hpp"
#include "workload.hpp"

namespace ostrel::bench {
namespace {

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "ostrel_tool_bench: %s\n", what.c_str());
  std::exit(1);
}

Bytes readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) fail("cannot read " + path);
  return toBytes(std::string(std::istreambuf_iterator<char>(in), {}));
}

int write(size_t count, const std::string& path) {
  uint64_t idSum = 0;
  const std::string stream = buildOrderStream(count, idSum);
  std::ofstream out(path, std::ios::binary);
  out.write(stream.data(), static_cast<std::streamsize>(stream.size()));
  if (!out) fail("cannot write " + path);
  std::printf("%zu orders, %zu bytes, id sum %llu\n", count, stream.size(),
              static_cast<unsigned long long>(idSum));
  return 0;
}

int project(const std::string& path, const std::vector<std::string>& paths) {
  const Bytes set = readFile(OSTREL_BENCH_GENERATED "/bench.desc");
  const SchemaStore store(schemaManifestFromDescriptorSet(set));
  const Projection projection(store.messageSchema("ostrel.bench.ShopOrder"), paths);
  ProjectionRow row = projection.makeRow();

  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat info {};
  if (fd < 0 || ::fstat(fd, &info) != 0) fail("cannot read " + path);
  const auto size = static_cast<size_t>(info.st_size);
  void* base = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
  if (base == MAP_FAILED) fail("cannot map " + path);
  ::madvise(base, size, MADV_SEQUENTIAL);

  RecordSource source = RecordSource::delimited({static_cast<const std::byte*>(base), size});
  constexpr int64_t kReleaseEvery = int64_t{64} << 20;
  int64_t released = 0;
  uint64_t checksum = 0;
  while (const std::optional<ByteView> record = source.next()) {
    projection.read(*record, row);
    // Every answer is looked at, as a writer of them would: scalars by value, payloads by size.
    for (size_t i = 0; i < row.size(); ++i) {
      if (row.state(i) != ProjectionRow::State::present) continue;
      switch (row.kind(i)) {
        case AnyValue::Case::string:
        case AnyValue::Case::bytes:
        case AnyValue::Case::message:
          checksum += row.payload(i)->size();
          break;
        case AnyValue::Case::uint64:
          checksum += *row.uint64Value(i);
          break;
        case AnyValue::Case::int64:
          checksum += static_cast<uint64_t>(*row.int64Value(i));
          break;
        default:
          checksum += 1;
      }
    }
    if (source.position() - released >= kReleaseEvery) {
      const int64_t end = source.position() / 4096 * 4096;
      ::madvise(static_cast<std::byte*>(base) + released, static_cast<size_t>(end - released),
                MADV_DONTNEED);
      released = end;
    }
  }
  std::printf("%lld records, checksum %llu\n", static_cast<long long>(source.count()),
              static_cast<unsigned long long>(checksum));
  ::munmap(base, size);
  ::close(fd);
  return 0;
}

}  // namespace
}  // namespace ostrel::bench

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  if (args.size() == 3 && args[0] == "write") {
    return ostrel::bench::write(std::stoull(args[1]), args[2]);
  }
  if (args.size() >= 3 && args[0] == "project") {
    return ostrel::bench::project(args[1], {args.begin() + 2, args.end()});
  }
  std::fprintf(stderr,
               "usage: ostrel_tool_bench write N FILE | ostrel_tool_bench project FILE PATH...\n");
  return 2;
}
