#include <algorithm>
#include <filesystem>

#include "ostrel/core/errors.hpp"
#include "ostrel/manifest/descriptor_set.hpp"
#include "ostrel/manifest/json_manifest.hpp"
#include "tool.hpp"

namespace ostrel::tool {
namespace {

// Descriptor sets are protobuf bytes, which never start with "{" (that would be field 15 with
// wire type 3, a group start, which no descriptor has); JSON manifests always do.
bool looksLikeJSON(std::string_view text) {
  const size_t first = text.find_first_not_of(" \t\r\n");
  return first != std::string_view::npos && text[first] == '{';
}

// The file's name leads the error text: with several schema files, the library's own text does
// not tell which one is broken.
SchemaManifest manifestFromFile(const std::string& path) {
  const std::string text = readAll(path);
  try {
    return looksLikeJSON(text) ? schemaManifestFromJSON(text)
                               : schemaManifestFromDescriptorSet(asBytes(text));
  } catch (const Error& error) {
    throw ToolError(path + ": " + error.what());
  }
}

}  // namespace

LoadedSchemas loadSchemas(const GlobalOptions& options) {
  SchemaManifest defined;
  for (const std::string& path : options.schemaFiles) {
    defined = defined.merging(manifestFromFile(path));
  }
  if (!options.protoFiles.empty()) {
    std::vector<std::string> includePaths = options.includePaths;
    if (includePaths.empty()) {
      for (const std::string& file : options.protoFiles) {
        const std::filesystem::path directory = std::filesystem::path(file).parent_path();
        std::string path = directory.empty() ? "." : directory.string();
        if (std::find(includePaths.begin(), includePaths.end(), path) == includePaths.end()) {
          includePaths.push_back(std::move(path));
        }
      }
    }
    defined = defined.merging(schemaManifestFromProtoFiles(options.protoFiles, includePaths));
  }
  SchemaStore store(defined);
  return {std::move(defined), std::move(store)};
}

}  // namespace ostrel::tool
