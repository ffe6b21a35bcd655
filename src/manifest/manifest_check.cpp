#include "manifest/manifest_check.hpp"

#include <algorithm>
#include <unordered_set>

#include "ostrel/manifest/manifest_data.hpp"

namespace ostrel::detail {
namespace {

// Appended piece by piece: g++ 12 at -O3 reports a false -Wrestrict overlap for
// `"\"" + std::string(text)`.
std::string quoted(std::string_view text) {
  std::string out;
  out.reserve(text.size() + 2);
  out += '"';
  out += text;
  out += '"';
  return out;
}

}  // namespace

namespace {

std::optional<MessageFault> numberRangeFault(const MessageManifest& message) {
  for (const auto& [name, field] : message.fields) {
    const int64_t number = field.fieldNumber;
    if (number < 1 || number > kMaxFieldNumber) {
      return MessageFault{name, std::nullopt, "fieldNumber",
                          "field number " + std::to_string(number) + " is outside 1 to " +
                              std::to_string(kMaxFieldNumber)};
    }
    if (number >= kFirstReservedFieldNumber && number <= kLastReservedFieldNumber) {
      return MessageFault{name, std::nullopt, "fieldNumber",
                          "field number " + std::to_string(number) +
                              " is in 19000 to 19999, reserved for protobuf itself"};
    }
  }
  return std::nullopt;
}

std::optional<MessageFault> repeatedNumberFault(const MessageManifest& message) {
  // Sorted by number, then name: the later name of two with one number is the one reported.
  std::vector<std::pair<int64_t, const std::string*>> numbers;
  numbers.reserve(message.fields.size());
  for (const auto& [name, field] : message.fields) numbers.emplace_back(field.fieldNumber, &name);
  std::sort(numbers.begin(), numbers.end(), [](const auto& a, const auto& b) {
    return a.first < b.first || (a.first == b.first && *a.second < *b.second);
  });
  for (size_t i = 1; i < numbers.size(); ++i) {
    if (numbers[i].first == numbers[i - 1].first) {
      return MessageFault{*numbers[i].second, std::nullopt, "fieldNumber",
                          "field number " + std::to_string(numbers[i].first) +
                              " is also the number of field " + quoted(*numbers[i - 1].second)};
    }
  }
  return std::nullopt;
}

std::optional<MessageFault> repeatedOneofNameFault(const MessageManifest& message) {
  std::unordered_set<std::string_view> oneofNames;
  for (size_t i = 0; i < message.oneofs.size(); ++i) {
    if (!oneofNames.insert(message.oneofs[i].name).second) {
      return MessageFault{
          {}, i, "name", "oneof name " + quoted(message.oneofs[i].name) + " occurs twice"};
    }
  }
  return std::nullopt;
}

}  // namespace

std::optional<MessageFault> messageFault(const MessageManifest& message) {
  if (auto fault = numberRangeFault(message)) return fault;
  for (const auto& [name, field] : message.fields) {
    if (field.oneofIndex && (*field.oneofIndex < 0 ||
                             static_cast<size_t>(*field.oneofIndex) >= message.oneofs.size())) {
      return MessageFault{name, std::nullopt, "oneofIndex",
                          "oneof index " + std::to_string(*field.oneofIndex) +
                              " names no oneof (the message has " +
                              std::to_string(message.oneofs.size()) + ")"};
    }
  }
  if (auto fault = repeatedNumberFault(message)) return fault;
  return repeatedOneofNameFault(message);
}

std::optional<std::pair<std::string, MessageFault>> fieldNumberFault(
    const SchemaManifest& manifest) {
  for (const auto& [name, message] : manifest.messages) {
    std::optional<MessageFault> fault = numberRangeFault(message);
    if (!fault) fault = repeatedNumberFault(message);
    if (fault) return std::pair{name, std::move(*fault)};
  }
  return std::nullopt;
}

std::optional<std::pair<std::string, MessageFault>> storeFault(const SchemaManifest& manifest) {
  if (auto fault = fieldNumberFault(manifest)) return fault;
  for (const auto& [name, message] : manifest.messages) {
    if (auto fault = repeatedOneofNameFault(message)) return std::pair{name, std::move(*fault)};
  }
  return std::nullopt;
}

MessageFault repeatedFieldName(const std::string& name) {
  return MessageFault{name, std::nullopt, "name", "the name occurs twice"};
}

std::optional<std::pair<std::string, std::string>> builtinTypeChange(
    const SchemaManifest& manifest) {
  const SchemaManifest& builtin = builtinDescriptorManifest();
  for (const auto& [name, message] : manifest.messages) {
    const auto found = builtin.messages.find(name);
    if (found == builtin.messages.end()) continue;
    try {
      MessageManifest merged = found->second;
      merged.merge(message, MergePolicy::requireEqual);
    } catch (const MergeConflict& conflict) {
      return std::pair{name, conflict.text()};
    }
  }
  for (const auto& [name, enumManifest] : manifest.enums) {
    const auto found = builtin.enums.find(name);
    if (found == builtin.enums.end()) continue;
    try {
      EnumManifest merged = found->second;
      merged.merge(enumManifest, MergePolicy::requireEqual);
    } catch (const MergeConflict& conflict) {
      return std::pair{name, conflict.text()};
    }
  }
  return std::nullopt;
}

std::string faultText(std::string_view messageName, const MessageFault& fault) {
  std::string text = "Message " + quoted(messageName);
  if (!fault.oneof) text += " field " + quoted(fault.field);
  return text + ": " + fault.text;
}

std::optional<std::string> repeatedEnumValueText(
    std::string_view enumName, const std::vector<std::pair<std::string, int64_t>>& values) {
  std::unordered_set<std::string_view> names;
  for (const auto& [name, number] : values) {
    if (!names.insert(name).second) {
      return "Enum " + quoted(enumName) + ": value name " + quoted(name) + " occurs twice";
    }
  }
  return std::nullopt;
}

}  // namespace ostrel::detail
