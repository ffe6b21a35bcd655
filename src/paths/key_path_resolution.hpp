#pragma once

#include <optional>
#include <string_view>

#include "ostrel/core/describing.hpp"
#include "paths/property_path_grammar.hpp"
#include "wire/field_path.hpp"

namespace ostrel::detail {

// Resolves `path` against `schema`, handing each field path component to `append`, and returns
// the declared type of the last field (owned by its field schema). The whole path is checked
// against the grammar first, so a malformed path is always a PropertyPathUtil::Error whatever the
// schema; then each element is looked up. A template so that resolving into a caller's stack
// buffer allocates nothing.
template <typename Append>
const TypeSchemaDescription& resolveKeyPath(const MessageSchemaDescribing& schema,
                                            std::string_view path, Append&& append) {
  scanPropertyPath(path, [](std::string_view, std::optional<int64_t>) {});
  const MessageSchemaDescribing* current = &schema;
  const TypeSchemaDescription* type = nullptr;
  scanPropertyPath(path, [&](std::string_view name, std::optional<int64_t> index) {
    if (!current) throw SchematizerError::nonMessageTypeInKeypath();
    const FieldSchemaDescribing& field = *current->fieldNamed(name);
    if (index) {
      if (!field.isRepeated()) throw SchematizerError::scalarValueAccessWithIndex();
      append(FieldPathComponent::repeatableFieldNumber(field.fieldNumber(), *index));
    } else {
      if (field.isRepeated()) throw SchematizerError::repeatedValueAccessNoIndex();
      append(FieldPathComponent::fieldNumber(field.fieldNumber()));
    }
    type = &field.type();
    current = type->kind() == TypeSchemaDescription::Case::message ? type->messageSchema().get()
                                                                   : nullptr;
  });
  return *type;
}

// Resolves `path` and reads the value it names from `bytes`; the value borrows from `bytes`.
std::optional<detail::AnyValueImpl> readAtKeyPath(const MessageSchemaDescribing& schema,
                                                  ByteView bytes, std::string_view path);

}  // namespace ostrel::detail
