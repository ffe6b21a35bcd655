#include "ostrel/paths/property_path.hpp"
#include "paths/key_path_resolution.hpp"
#include "wire/exact_read.hpp"
#include "wire/value_decoding.hpp"

namespace ostrel {
namespace detail {

std::optional<detail::AnyValueImpl> readAtKeyPath(const MessageSchemaDescribing& schema,
                                                  ByteView bytes, std::string_view path) {
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

namespace {

// The owned form of a value read from the buffer. Scalars, the common case of reads from many
// records, are converted here without the general conversion's call and second dispatch.
[[gnu::always_inline]] inline std::optional<AnyValue> toOwned(
    std::optional<detail::AnyValueImpl>&& found) {
  if (!found) return std::nullopt;
  switch (found->kind()) {
    case detail::AnyValueImpl::Case::int32:
      return std::optional<AnyValue>(std::in_place, found->int32Value());
    case detail::AnyValueImpl::Case::uint32:
      return std::optional<AnyValue>(std::in_place, found->uint32Value());
    case detail::AnyValueImpl::Case::int64:
      return std::optional<AnyValue>(std::in_place, found->int64Value());
    case detail::AnyValueImpl::Case::uint64:
      return std::optional<AnyValue>(std::in_place, found->uint64Value());
    case detail::AnyValueImpl::Case::float_:
      return std::optional<AnyValue>(std::in_place, found->floatValue());
    case detail::AnyValueImpl::Case::double_:
      return std::optional<AnyValue>(std::in_place, found->doubleValue());
    case detail::AnyValueImpl::Case::bool_:
      return std::optional<AnyValue>(std::in_place, found->boolValue());
    default:
      return AnyValue::from(std::move(*found));
  }
}

}  // namespace

FieldPathAndType resolvePropertyPath(const MessageSchemaDescribing& schema, std::string_view path) {
  std::vector<FieldPathComponent> components;
  const TypeSchemaDescription& type = detail::resolveKeyPath(
      schema, path, [&](FieldPathComponent component) { components.push_back(component); });
  return {std::move(components), type};
}

FieldPathAndType resolvePropertyPath(const MessageSchema& schema, std::string_view path) {
  return resolvePropertyPath(*schema.impl(), path);
}

namespace {

std::optional<AnyValue> readExact(const MessageSchemaDescribing& schema, ByteView bytes,
                                  const FieldPathAndType& path) {
  // A message that occurs more than once is merged into this buffer; the value copies it.
  Bytes merged;
  return toOwned(detail::readValueExact(schema, bytes, path.fieldPath, path.type, merged));
}

// The reads behind both UnsafeSchematizedData::value and SchematizedData::value, over the schema
// and bytes themselves: a read through owned data takes no reference to its schema.
std::optional<AnyValue> readPropertyPath(const MessageSchemaDescribing& schema, ByteView bytes,
                                         std::string_view propertyPath, ReadMode mode) {
  if (mode == ReadMode::exact) {
    return readExact(schema, bytes, resolvePropertyPath(schema, propertyPath));
  }
  return toOwned(detail::readAtKeyPath(schema, bytes, propertyPath));
}

std::optional<AnyValue> readFieldPath(const MessageSchemaDescribing& schema, ByteView bytes,
                                      const FieldPathAndType& path, ReadMode mode) {
  if (mode == ReadMode::exact) return readExact(schema, bytes, path);
  Reader reader(bytes);
  return toOwned(readValue(reader, path));
}

}  // namespace

std::optional<AnyValue> UnsafeSchematizedData::value(std::string_view propertyPath,
                                                     ReadMode mode) const {
  return readPropertyPath(*schema_, bytes_, propertyPath, mode);
}

std::optional<AnyValue> UnsafeSchematizedData::value(const FieldPathAndType& path,
                                                     ReadMode mode) const {
  return readFieldPath(*schema_, bytes_, path, mode);
}

std::optional<AnyValue> SchematizedData::value(std::string_view propertyPath, ReadMode mode) const {
  return readPropertyPath(*schema_, bytes(), propertyPath, mode);
}

std::optional<AnyValue> SchematizedData::value(const FieldPathAndType& path, ReadMode mode) const {
  return readFieldPath(*schema_, bytes(), path, mode);
}

}  // namespace ostrel
