#include <algorithm>
#include <filesystem>
#include <functional>
#include <iostream>

#include "ostrel/core/errors.hpp"
#include "ostrel/manifest/manifest_data.hpp"
#include "tool.hpp"

namespace ostrel::tool {
namespace {

// Descriptor sets are protobuf bytes, which never start with "{" (that would be field 15 with
// wire type 3, a group start, which no descriptor has); JSON manifests always do.
bool looksLikeJSON(std::string_view text) {
  const size_t first = text.find_first_not_of(" \t\r\n");
  return first != std::string_view::npos && text[first] == '{';
}

// Runs one descriptor import with groups read or left out as --groups asks, each one left out
// noted on standard error (a note, not a fault: the run still succeeds). Without the option, a
// group fails the import as the library reports it; the error then names the group fields, found
// by importing once more with them left out, and the option.
SchemaManifest importDescriptors(
    GlobalOptions::Groups groups,
    const std::function<SchemaManifest(const DescriptorImportOptions&)>& import) {
  DescriptorImportOptions options;
  options.groups = groups;
  options.groupSkipped = [](const std::string& field) {
    std::cerr << "ostrel: note: group field " << field << " left out of the schema\n";
  };
  try {
    return import(options);
  } catch (const SchemaManifestDSCError& error) {
    if (groups != GlobalOptions::Groups::refuse ||
        !(error == SchemaManifestDSCError::invalidValueType("Group is deprecated"))) {
      throw;
    }
    std::vector<std::string> fields;
    options.groups = GlobalOptions::Groups::skip;
    options.groupSkipped = [&](const std::string& field) { fields.push_back(field); };
    try {
      import(options);
    } catch (const Error&) {
      throw error;  // a fault beyond the groups: the group is still the first one met
    }
    std::string text = std::string(error.what()) + ": group field";
    if (fields.size() > 1) text += "s";
    for (size_t i = 0; i < fields.size(); ++i) text += (i == 0 ? " " : ", ") + fields[i];
    throw ToolError(text +
                    " (--groups read reads them as messages, --groups skip leaves them out)");
  }
}

// The file's name leads the error text: with several schema files, the library's own text does
// not tell which one is broken.
SchemaManifest manifestFromFile(const std::string& path, GlobalOptions::Groups groups) {
  const std::string text = readAll(path, kMaxSchemaFileSize, "schema");
  try {
    if (looksLikeJSON(text)) return schemaManifestFromJSON(text);
    return importDescriptors(groups, [&](const DescriptorImportOptions& options) {
      return schemaManifestFromDescriptorSet(asBytes(text), options);
    });
  } catch (const Error& error) {
    std::string text = path + ": " + error.what();
    // .proto source read as a descriptor set fails as malformed bytes.
    if (path.ends_with(".proto")) text += " (a .proto file: load it with --proto " + path + ")";
    throw ToolError(text);
  } catch (const ToolError& error) {
    throw ToolError(path + ": " + error.what());
  }
}

// libprotobuf finds a .proto file either at a path inside one of the include folders or by its
// name relative to one of them, and reports any other file as "File not found." in an error of the
// schema. The tool says it is a file it cannot read, and where it looked.
void checkProtoFile(const std::string& file, const std::vector<std::string>& includePaths) {
  namespace fs = std::filesystem;
  std::error_code ignored;
  const fs::path given = fs::weakly_canonical(file, ignored);
  std::string folders;
  for (const std::string& dir : includePaths) {
    if (fs::path(file).is_relative() && fs::exists(fs::path(dir) / file)) return;
    const fs::path folder = fs::weakly_canonical(dir, ignored);
    const auto [end, unused] =
        std::mismatch(folder.begin(), folder.end(), given.begin(), given.end());
    if (end == folder.end() && fs::exists(given)) return;
    folders += (folders.empty() ? "" : ", ") + dir;
  }
  if (fs::exists(file)) {
    throw ToolError(file + ": not inside any -I folder (" + folders + "); add its folder with -I");
  }
  throw ToolError("cannot read " + file + ": No such file or directory (looked in " + folders +
                  ")");
}

}  // namespace

LoadedSchemas loadSchemas(const GlobalOptions& options) {
  SchemaManifest defined;
  for (const std::string& path : options.schemaFiles) {
    defined = defined.merging(manifestFromFile(path, options.groups));
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
    // libprotobuf reports a file it cannot find as an error of the schema; it is a missing file.
    for (const std::string& file : options.protoFiles) checkProtoFile(file, includePaths);
    defined = defined.merging(
        importDescriptors(options.groups, [&](const DescriptorImportOptions& importOptions) {
          return schemaManifestFromProtoFiles(options.protoFiles, includePaths, importOptions);
        }));
  }
  SchemaStore store(defined);
  return {std::move(defined), std::move(store)};
}

}  // namespace ostrel::tool
