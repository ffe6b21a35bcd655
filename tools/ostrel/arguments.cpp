#include <algorithm>

#include "tool.hpp"

namespace ostrel::tool {

bool Arguments::asksForHelp() const {
  for (size_t i = next_; i < args_.size(); ++i) {
    if (args_[i] == "--") return false;
    if (args_[i] == "-h" || args_[i] == "--help") return true;
  }
  return false;
}

void Arguments::settle() {
  if (!afterDashDash_ && next_ < args_.size() && args_[next_] == "--") {
    afterDashDash_ = true;
    ++next_;
  }
}

bool Arguments::done() {
  settle();
  return next_ >= args_.size();
}

bool Arguments::value(std::initializer_list<std::string_view> names, std::string& value) {
  settle();
  if (afterDashDash_ || next_ >= args_.size()) return false;
  const std::string_view arg = args_[next_];
  for (const std::string_view name : names) {
    if (arg == name) {
      if (next_ + 1 >= args_.size()) {
        throw UsageError("option " + std::string(name) + " needs a value");
      }
      value = args_[next_ + 1];
      next_ += 2;
      return true;
    }
    // Only long options take the attached form: "-sFILE" would make "-s" ambiguous with a
    // future short option of more letters.
    if (name.starts_with("--") && arg.size() > name.size() && arg.starts_with(name) &&
        arg[name.size()] == '=') {
      value = std::string(arg.substr(name.size() + 1));
      ++next_;
      return true;
    }
  }
  return false;
}

bool Arguments::flag(std::initializer_list<std::string_view> names) {
  settle();
  if (afterDashDash_ || next_ >= args_.size()) return false;
  const std::string_view arg = args_[next_];
  if (std::find(names.begin(), names.end(), arg) == names.end()) return false;
  ++next_;
  return true;
}

std::string Arguments::positional() {
  settle();
  if (next_ >= args_.size()) throw UsageError("missing argument");
  const std::string& arg = args_[next_];
  // A lone "-" is an ordinary word; anything else with a leading dash was meant as an option.
  if (!afterDashDash_ && arg.size() > 1 && arg[0] == '-') {
    throw UsageError("unknown option " + arg);
  }
  ++next_;
  return arg;
}

bool GlobalOptions::parse(Arguments& args) {
  std::string value;
  if (args.value({"-s", "--schema"}, value)) {
    schemaFiles.push_back(std::move(value));
  } else if (args.value({"--proto"}, value)) {
    protoFiles.push_back(std::move(value));
  } else if (args.value({"-I", "--proto-path"}, value)) {
    includePaths.push_back(std::move(value));
  } else if (args.value({"--groups"}, value)) {
    if (value != "read" && value != "skip") {
      throw UsageError("--groups must be read or skip, not \"" + value + "\"");
    }
    groups = value == "read" ? Groups::read : Groups::skip;
  } else if (args.flag({"--skip-groups"})) {
    groups = Groups::skip;
  } else {
    return false;
  }
  return true;
}

DataFormat parseDataFormat(std::string_view text, std::string_view option) {
  if (text == "binary") return DataFormat::binary;
  if (text == "hex") return DataFormat::hex;
  if (text == "base64") return DataFormat::base64;
  throw UsageError(std::string(option) + " must be binary, hex or base64, not \"" +
                   std::string(text) + "\"");
}

void require(const std::optional<std::string>& option, std::string_view what) {
  if (!option) throw UsageError("missing " + std::string(what));
}

}  // namespace ostrel::tool
