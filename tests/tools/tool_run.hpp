#pragma once

// Running the built ostrel program in tests: its command line, standard input, output, error and
// exit status.

#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <vector>

// The bundled examples, for suites built without their path: beside the tests' own data.
#ifndef OSTREL_EXAMPLES
#define OSTREL_EXAMPLES OSTREL_TEST_DATA "/../../examples"
#endif

namespace ostrel::test {

inline const std::string kShopDesc = OSTREL_EXAMPLES "/shop.desc";
inline const std::string kShopProto = OSTREL_EXAMPLES "/shop.proto";
inline const std::string kOrder1 = OSTREL_EXAMPLES "/order1.bin";
inline const std::string kRichDesc = OSTREL_TEST_GENERATED "/rich.desc";
inline const std::string kTestData = OSTREL_TEST_DATA;

inline std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Writes `contents` to a file of the test's own directory (ctest runs tests in parallel) and
// returns its path.
inline std::string scratchFile(const std::string& name, const std::string& contents) {
  static const std::filesystem::path dir = [] {
    std::string pattern = (std::filesystem::temp_directory_path() / "ostrel_tool_XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) std::abort();
    return std::filesystem::path(pattern);
  }();
  std::ofstream(dir / name, std::ios::binary | std::ios::trunc) << contents;
  return (dir / name).string();
}

// The words of a command line, split at spaces. $S stands for "-s" and the shop descriptor set,
// $R for "-s" and the rich test schema, $O for "-m shop.Order", $1 and $2 for the example orders,
// and '' for an empty word.
inline std::vector<std::string> words(const std::string& line) {
  static const std::map<std::string, std::vector<std::string>> kShort = {
      {"$S", {"-s", kShopDesc}},
      {"$R", {"-s", kRichDesc, "-m", "ostrel.test.Rich"}},
      {"$O", {"-m", "shop.Order"}},
      {"$1", {kOrder1}},
      {"$2", {OSTREL_EXAMPLES "/order2.bin"}},
      {"''", {""}}};
  std::vector<std::string> out;
  std::istringstream in(line);
  for (std::string word; in >> word;) {
    const auto found = kShort.find(word);
    const std::vector<std::string> expanded =
        found == kShort.end() ? std::vector{word} : found->second;
    out.insert(out.end(), expanded.begin(), expanded.end());
  }
  return out;
}

struct ToolRun {
  int status = -1;  // the exit status, -1 when the program did not exit normally
  std::string out;
  std::string err;
};

// Runs the tool on the command `line` through /bin/sh, with `input` on its standard input and its
// output in files, which never block the child the way a full pipe would. `shell` is the command
// around the tool ($T) and its input file ($I): a pipeline, or a redirection of its own.
inline ToolRun runTool(const std::string& line, const std::string& input = "",
                       const std::string& shell = "$T < $I") {
  std::string tool = "'" OSTREL_TOOL "'";
  for (std::string word : words(line)) {
    for (size_t at = 0; (at = word.find('\'', at)) != std::string::npos; at += 4) {
      word.replace(at, 1, "'\\''");
    }
    tool += " '" + word + "'";
  }
  const std::string out = scratchFile("stdout", "");
  const std::string err = scratchFile("stderr", "");
  std::string command = "(" + shell + ") > " + out + " 2> " + err;
  command.replace(command.find("$T"), 2, tool);
  if (const size_t at = command.find("$I"); at != std::string::npos) {
    command.replace(at, 2, scratchFile("stdin", input));
  }
  // A tool killed by a signal shows as a status above 128, which no case expects.
  const int status = std::system(command.c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, readFile(out), readFile(err)};
}

}  // namespace ostrel::test
