#include <google/protobuf/compiler/importer.h>
#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/descriptor_database.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>

#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "ostrel/core/interrupts.hpp"
#include "ostrel/manifest/manifest_data.hpp"

namespace ostrel {
namespace {

namespace pb = google::protobuf;

// The text handed to the parser in blocks, with a poll for interrupts before each: the parser has
// no loop of ours to poll in.
class PollingInputStream final : public pb::io::ZeroCopyInputStream {
 public:
  explicit PollingInputStream(std::string_view text)
      : text_(text.data(), static_cast<int>(text.size()), kBlockSize) {}

  bool Next(const void** data, int* size) override {
    detail::pollInterrupt();
    return text_.Next(data, size);
  }
  void BackUp(int count) override { text_.BackUp(count); }
  bool Skip(int count) override { return text_.Skip(count); }
  int64_t ByteCount() const override { return text_.ByteCount(); }

 private:
  static constexpr int kBlockSize = 1 << 16;
  pb::io::ArrayInputStream text_;
};

// One file held in memory and nothing else: text handed over by a caller (an SQL function
// argument, say) must not reach any file of the machine. Its imports of libprotobuf's own files
// come from the generated pool (see ProtoImporter).
class TextSourceTree final : public pb::compiler::SourceTree {
 public:
  TextSourceTree(std::string name, std::string_view text) : name_(std::move(name)), text_(text) {}

  pb::io::ZeroCopyInputStream* Open(const std::string& filename) override {
    return filename == name_ ? new PollingInputStream(text_) : nullptr;
  }

  std::string GetLastErrorMessage() override { return "File not found."; }

 private:
  std::string name_;
  std::string_view text_;
};

// Keeps the first error, in the "file:line:column: message" form compilers print; the parser's
// later errors are mostly consequences of the first.
class FirstErrorCollector final : public pb::compiler::MultiFileErrorCollector {
 public:
  void AddError(const std::string& filename, int line, int column,
                const std::string& message) override {
    if (first_) return;
    if (line < 0) {
      first_ = filename + ": " + message;
    } else {
      first_ = filename + ":" + std::to_string(line + 1) + ":" + std::to_string(column + 1) + ": " +
               message;
    }
  }

  [[noreturn]] void fail(const std::string& file) const {
    throw SchemaManifestJSONError::invalidValueType(first_ ? *first_
                                                           : file + ": Cannot import the file");
  }

 private:
  std::optional<std::string> first_;
};

// Parses the .proto files of a source tree into a pool of their own. A file the tree does not hold
// is looked up among the files libprotobuf carries compiled in (descriptor.proto and the
// well-known types) in its generated pool, so that `import "google/protobuf/timestamp.proto"`
// needs no folder of the machine the library was built on; a tree that holds such a file wins.
class ProtoImporter {
 public:
  ProtoImporter(pb::compiler::SourceTree& tree, FirstErrorCollector& errors)
      : builtIn_(*pb::DescriptorPool::generated_pool()),
        database_(&tree, &builtIn_),
        pool_(&database_, database_.GetValidationErrorCollector()) {
    database_.RecordErrorsTo(&errors);
    pool_.EnforceWeakDependencies(true);
  }

  // The file and its imports, or null after the first error went to the collector.
  const pb::FileDescriptor* import(const std::string& file) { return pool_.FindFileByName(file); }

 private:
  pb::DescriptorPoolDatabase builtIn_;
  pb::compiler::SourceTreeDescriptorDatabase database_;
  pb::DescriptorPool pool_;
};

// Dependencies before the files that import them, each file once, as protoc's
// --include_imports writes them.
void collect(const pb::FileDescriptor* file, std::set<const pb::FileDescriptor*>& seen,
             pb::FileDescriptorSet& set) {
  if (!seen.insert(file).second) return;
  for (int i = 0; i < file->dependency_count(); ++i) collect(file->dependency(i), seen, set);
  file->CopyTo(set.add_file());
}

}  // namespace

SchemaManifest schemaManifestFromProtoFiles(const std::vector<std::string>& files,
                                            const std::vector<std::string>& includePaths,
                                            const DescriptorImportOptions& options) {
  pb::compiler::DiskSourceTree sourceTree;
  for (const std::string& path : includePaths) sourceTree.MapPath("", path);

  FirstErrorCollector errors;
  ProtoImporter importer(sourceTree, errors);
  std::set<const pb::FileDescriptor*> seen;
  pb::FileDescriptorSet set;
  for (const std::string& file : files) {
    // A disk path inside an include path is imported under its name relative to that path.
    std::string virtualFile = file;
    std::error_code error;
    if (std::filesystem::is_regular_file(file, error)) {
      std::string mapped;
      std::string shadowing;
      if (sourceTree.DiskFileToVirtualFile(file, &mapped, &shadowing) ==
          pb::compiler::DiskSourceTree::SUCCESS) {
        virtualFile = mapped;
      }
    }
    const pb::FileDescriptor* descriptor = importer.import(virtualFile);
    if (!descriptor) errors.fail(virtualFile);
    collect(descriptor, seen, set);
  }
  // Read back through the serialized form, so that these files give exactly what their
  // descriptor set compiled by protoc gives.
  const std::string bytes = set.SerializeAsString();
  return schemaManifestFromDescriptorSet(asBytes(bytes), options);
}

SchemaManifest schemaManifestFromProtoText(std::string_view text, std::string_view fileName) {
  // ArrayInputStream takes an int size.
  if (!std::in_range<int>(text.size())) {
    throw SchemaManifestJSONError::invalidValueType(std::string(fileName) + ": File too large");
  }
  TextSourceTree sourceTree{std::string(fileName), text};
  FirstErrorCollector errors;
  ProtoImporter importer(sourceTree, errors);
  const pb::FileDescriptor* descriptor = importer.import(std::string(fileName));
  if (!descriptor) errors.fail(std::string(fileName));
  std::set<const pb::FileDescriptor*> seen;
  pb::FileDescriptorSet set;
  collect(descriptor, seen, set);
  const std::string bytes = set.SerializeAsString();
  return schemaManifestFromDescriptorSet(asBytes(bytes));
}

}  // namespace ostrel
