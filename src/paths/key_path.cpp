#include "ostrel/paths/key_path.hpp"

#include "ostrel/wire/value_decoding.hpp"
#include "paths/key_path_resolution.hpp"

namespace ostrel {
namespace detail {

std::optional<AnyValueImpl> readAtKeyPath(const MessageSchemaDescribing& schema, ByteView bytes,
                                          std::string_view path) {
  // Paths are short: resolve into a buffer on the stack so that a scalar read allocates nothing.
  constexpr size_t kInline = 16;
  FieldPathComponent inlinePath[kInline];
  std::vector<FieldPathComponent> longPath;
  size_t count = 0;
  const TypeSchemaDescription& type =
      resolveKeyPath(schema, path, [&](FieldPathComponent component) {
        if (count < kInline) {
          inlinePath[count] = component;
        } else {
          if (longPath.empty()) longPath.assign(inlinePath, inlinePath + kInline);
          longPath.push_back(component);
        }
        ++count;
      });
  const std::span<const FieldPathComponent> components =
      count <= kInline ? std::span<const FieldPathComponent>(inlinePath, count)
                       : std::span<const FieldPathComponent>(longPath);
  Reader reader(bytes);
  return readValue(reader, components, type);
}

}  // namespace detail

FieldPathAndType resolveKeyPath(const MessageSchemaDescribing& schema, std::string_view path) {
  std::vector<FieldPathComponent> components;
  const TypeSchemaDescription& type = detail::resolveKeyPath(
      schema, path, [&](FieldPathComponent component) { components.push_back(component); });
  return {std::move(components), type};
}

std::optional<AnyValue> SchematizedData::value(std::string_view propertyPath) const {
  std::optional<AnyValueImpl> found = detail::readAtKeyPath(*schema_, bytes(), propertyPath);
  if (!found) return std::nullopt;
  return AnyValue::from(std::move(*found));
}

std::optional<AnyValue> UnsafeSchematizedData::value(std::string_view propertyPath) const {
  std::optional<AnyValueImpl> found = detail::readAtKeyPath(*schema_, bytes_, propertyPath);
  if (!found) return std::nullopt;
  return AnyValue::from(std::move(*found));
}

}  // namespace ostrel
