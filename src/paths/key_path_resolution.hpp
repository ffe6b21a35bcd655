#pragma once

#include <charconv>
#include <optional>
#include <string_view>

#include "ostrel/core/describing.hpp"
#include "ostrel/wire/field_path.hpp"

namespace ostrel::detail {

// The index of a component written name[index]: a decimal integer with an optional sign, closed
// by the component's last character. A negative index could never address an element.
inline int64_t parseKeyPathIndex(std::string_view component, size_t open, size_t close) {
  if (close != component.size() - 1 || open == std::string_view::npos || open > close) {
    throw SchematizerError::invalidIndexInKeypath();
  }
  std::string_view text = component.substr(open + 1, close - open - 1);
  if (!text.empty() && text.front() == '+') text.remove_prefix(1);
  int64_t index = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), index);
  if (text.empty() || error != std::errc() || end != text.data() + text.size() || index < 0) {
    throw SchematizerError::invalidIndexInKeypath();
  }
  return index;
}

// Resolves `path` against `schema`, handing each field path component to `append`, and returns
// the declared type of the last field (owned by its field schema). A template so that resolving
// into a caller's stack buffer allocates nothing.
template <typename Append>
const TypeSchemaDescription& resolveKeyPath(const MessageSchemaDescribing& schema,
                                            std::string_view path, Append&& append) {
  const MessageSchemaDescribing* current = &schema;
  size_t begin = 0;
  while (true) {
    // One pass over the component finds its end (the next ".") and its first "]": components are
    // a few characters long, shorter than the setup of a library search.
    size_t end = begin;
    size_t close = std::string_view::npos;
    for (; end < path.size() && path[end] != '.'; ++end) {
      if (path[end] == ']' && close == std::string_view::npos) close = end - begin;
    }
    const size_t dot = end < path.size() ? end : std::string_view::npos;
    const std::string_view component = path.substr(begin, end - begin);
    if (!current) throw SchematizerError::nonMessageTypeInKeypath();

    const FieldSchemaDescribing* field = nullptr;
    if (close != std::string_view::npos) {
      const size_t open = component.find('[');
      const int64_t index = parseKeyPathIndex(component, open, close);
      field = current->fieldNamed(component.substr(0, open)).get();
      if (!field->isRepeated()) throw SchematizerError::scalarValueAccessWithIndex();
      append(FieldPathComponent::repeatableFieldNumber(field->fieldNumber(), index));
    } else {
      field = current->fieldNamed(component).get();
      if (field->isRepeated()) throw SchematizerError::repeatedValueAccessNoIndex();
      append(FieldPathComponent::fieldNumber(field->fieldNumber()));
    }
    const TypeSchemaDescription& type = field->type();
    current =
        type.kind() == TypeSchemaDescription::Case::message ? type.messageSchema().get() : nullptr;
    if (dot == std::string_view::npos) return type;
    begin = dot + 1;
  }
}

// Resolves `path` and reads the value it names from `bytes`; the value borrows from `bytes`.
std::optional<AnyValueImpl> readAtKeyPath(const MessageSchemaDescribing& schema, ByteView bytes,
                                          std::string_view path);

}  // namespace ostrel::detail
