// ostrel: the library's command-line tool. It loads schemas (descriptor sets, JSON manifests or
// .proto files), then lists and describes them, reads values out of encoded messages, renders and
// encodes messages as JSON, and exports manifests.

#include <google/protobuf/stubs/logging.h>

#include <array>
#include <exception>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

#include "ostrel/core/errors.hpp"
#include "ostrel/core/logging.hpp"
#include "tool.hpp"

namespace {

using namespace ostrel::tool;

constexpr std::array<const Command*, 13> kCommands = {
    &kListCommand,      &kDescribeCommand, &kGetCommand, &kIterateCommand, &kJsonCommand,
    &kTextCommand,      &kEncodeCommand,   &kSetCommand, &kClearCommand,   &kMergeCommand,
    &kNormalizeCommand, &kManifestCommand, &kSqlCommand,
};

constexpr std::string_view kUsageHead =
    R"usage(usage: ostrel [-s FILE]... [--proto FILE.proto]... [-I DIR]... COMMAND [ARG]...

Typed access to Protocol Buffers data whose schema is known only at run time.

Schemas (accepted before and after the command):
  -s, --schema FILE       a serialized FileDescriptorSet (protoc --descriptor_set_out
                          --include_imports) or a JSON schema manifest, told apart by content;
                          at most 64 MiB, "-" for standard input
  --proto FILE.proto      a .proto file, parsed at run time
  -I, --proto-path DIR    where --proto files and their imports are found; without -I, the
                          directory of each --proto file
  --groups read|skip      read proto2 group fields as messages, or leave them out of the
                          schemas (each one noted on standard error; their data is then
                          skipped like an unknown field's), instead of refusing the whole file
                          with "Group is deprecated"; --skip-groups is --groups skip. Groups
                          of Editions files (DELIMITED fields) are always read
Several schemas are merged; the first definition of a name wins (-s files first, then the
--proto files, each in command-line order). The descriptor.proto messages the library needs are
always known, in addition to the loaded ones.

Enum values are shown by name. A number the enum does not declare is shown as that number, as
the bytes hold it, for closed (proto2) enums too, where libprotobuf would instead move the field
to the unknown fields.

Commands:
)usage";

constexpr std::string_view kUsageTail = R"usage(
Run "ostrel help COMMAND" (or "ostrel COMMAND --help") for the usage of a command, and
"ostrel --version" for the version.
Data options "-i FILE" read standard input when FILE is "-" (as without -i).
Exit status: 0 success, 1 schema or data error, 2 usage error. Errors go to standard error as
"ostrel: <error text>".
)usage";

constexpr std::string_view kCommandUsageTail = R"usage(
SCHEMAS: -s FILE, --proto FILE.proto, -I DIR and --groups, as "ostrel --help" describes
them; they may also follow the command.
)usage";

std::string commandUsage(const Command& command) {
  return std::string(command.usage) + std::string(kCommandUsageTail);
}

std::string mainUsage() {
  std::string text(kUsageHead);
  for (const Command* command : kCommands) {
    std::string line = "  " + std::string(command->name);
    line.resize(14, ' ');
    text += line + std::string(command->summary) + "\n";
  }
  text += kUsageTail;
  return text;
}

const Command* findCommand(std::string_view name) {
  for (const Command* command : kCommands) {
    if (command->name == name) return command;
  }
  return nullptr;
}

int fail(std::string_view text) {
  std::cerr << "ostrel: " << text << "\n";
  return kExitFailure;
}

// Set when the library reported a fault it worked around, such as a field of a message that could
// not be decoded and was rendered as an error text: the output is printed, but it is not the
// data, so the run fails.
bool faultLogged = false;

int run(std::vector<std::string> argv) {
  Arguments args(std::move(argv));
  GlobalOptions globals;
  const Command* command = nullptr;
  try {
    while (command == nullptr) {
      if (args.flag({"-h", "--help"})) {
        std::cout << mainUsage();
        return kExitSuccess;
      }
      if (args.flag({"--version"})) {
        std::cout << "ostrel " OSTREL_VERSION "\n";
        return kExitSuccess;
      }
      if (globals.parse(args)) continue;
      if (args.done()) throw UsageError("missing command");
      const std::string name = args.positional();
      // "ostrel help [COMMAND]" is "ostrel [COMMAND] --help".
      if (name == "help") {
        if (args.done()) {
          std::cout << mainUsage();
          return kExitSuccess;
        }
        const std::string topic = args.positional();
        command = findCommand(topic);
        if (command == nullptr) throw UsageError("unknown command \"" + topic + "\"");
        std::cout << commandUsage(*command);
        return kExitSuccess;
      }
      command = findCommand(name);
      if (command == nullptr) throw UsageError("unknown command \"" + name + "\"");
    }
    if (args.asksForHelp()) {
      std::cout << commandUsage(*command);
      return kExitSuccess;
    }
    const int status = command->run(args, globals);
    std::cout.flush();
    if (!std::cout) throw ToolError("cannot write standard output");
    return faultLogged ? kExitFailure : status;
  } catch (const UsageError& error) {
    std::cerr << "ostrel: " << error.what() << "\n\n"
              << (command != nullptr ? commandUsage(*command) : mainUsage());
    return kExitUsage;
  } catch (const ostrel::Error& error) {
    return fail(error.what());
  } catch (const std::exception& error) {
    return fail(error.what());
  }
}

// libprotobuf (parsing --proto files) logs on its own, by default to standard error in a form
// of its own; its messages take the tool's prefix like every other line there. They are warnings
// about the input ("No syntax specified ..."), not faults, so they do not fail the run.
void logProtobuf(google::protobuf::LogLevel level, const char* /*file*/, int /*line*/,
                 const std::string& message) {
  const char* kind = "warning";
  if (level == google::protobuf::LOGLEVEL_INFO) kind = "info";
  if (level >= google::protobuf::LOGLEVEL_ERROR) kind = "error";
  std::cerr << "ostrel: libprotobuf " << kind << ": " << message << "\n";
}

}  // namespace

int main(int argc, char** argv) {
  google::protobuf::SetLogHandler(&logProtobuf);
  // A person at a shell wants the library's diagnostics where the errors go, not in the system log.
  ostrel::setLogHandler([](std::string_view message) {
    std::cerr << "ostrel: " << message << "\n";
    faultLogged = true;
  });
  return run(std::vector<std::string>(argv + 1, argv + argc));
}
