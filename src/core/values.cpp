#include "ostrel/core/values.hpp"

#include <array>
#include <string>

#include "ostrel/core/describing.hpp"
#include "ostrel/core/errors.hpp"

namespace ostrel {
namespace {

constexpr std::array<std::string_view, 11> kValueCaseNames = {
    "int32", "uint32", "int64",  "uint64", "float",   "double",
    "bool",  "enum",   "string", "bytes",  "message",
};

std::string describeEnum(const detail::EnumValueImpl& value) {
  std::string text = value.type ? value.type->name() : std::string("?");
  if (const auto* name = std::get_if<std::string>(&value.container)) return text + "." + *name;
  return text + "(" + std::to_string(std::get<int64_t>(value.container)) + ")";
}

std::string describeMessage(const std::shared_ptr<MessageSchemaDescribing>& schema, size_t size) {
  return (schema ? schema->name() : std::string("?")) + ", " + std::to_string(size) + " bytes";
}

}  // namespace

std::string_view caseName(detail::AnyValueImpl::Case kind) noexcept {
  return kValueCaseNames[static_cast<size_t>(kind)];
}

void detail::throwWrongValueKind(uint8_t wanted, uint8_t found) {
  throw SchematizerError::unexpectedType("expected " + std::string(kValueCaseNames[wanted]) +
                                         " value, found " + std::string(kValueCaseNames[found]));
}

int64_t detail::EnumValueImpl::number() const {
  if (const auto* number = std::get_if<int64_t>(&container)) return *number;
  return type->valueNamed(std::get<std::string>(container));
}

std::string detail::AnyValueImpl::describe() const {
  std::string body;
  switch (kind()) {
    case Case::int32:
      body = std::to_string(int32Value());
      break;
    case Case::uint32:
      body = std::to_string(uint32Value());
      break;
    case Case::int64:
      body = std::to_string(int64Value());
      break;
    case Case::uint64:
      body = std::to_string(uint64Value());
      break;
    case Case::float_:
      body = std::to_string(floatValue());
      break;
    case Case::double_:
      body = std::to_string(doubleValue());
      break;
    case Case::bool_:
      body = boolValue() ? "true" : "false";
      break;
    case Case::enum_:
      body = describeEnum(enumValue());
      break;
    case Case::string:
      body = "\"" + stringValue() + "\"";
      break;
    case Case::bytes:
      body = std::to_string(bytesValue().view().size()) + " bytes";
      break;
    case Case::message:
      body = describeMessage(messageValue().messageSchema(), messageValue().bytes().size());
      break;
  }
  return std::string(caseName(kind())) + "(" + body + ")";
}

AnyValue AnyValue::from(const detail::AnyValueImpl& impl) {
  switch (impl.kind()) {
    case Case::int32:
      return impl.int32Value();
    case Case::uint32:
      return impl.uint32Value();
    case Case::int64:
      return impl.int64Value();
    case Case::uint64:
      return impl.uint64Value();
    case Case::float_:
      return impl.floatValue();
    case Case::double_:
      return impl.doubleValue();
    case Case::bool_:
      return impl.boolValue();
    case Case::enum_:
      return EnumValue(impl.enumValue());
    case Case::string:
      return impl.stringValue();
    case Case::bytes:
      return impl.bytesValue().copy();
    case Case::message:
      return SchematizedData(impl.messageValue());
  }
  return impl.int32Value();  // unreachable: every case returns above
}

AnyValue AnyValue::from(detail::AnyValueImpl&& impl) {
  if (impl.kind() == Case::string) return std::move(impl.stringValue());
  return from(static_cast<const detail::AnyValueImpl&>(impl));
}

detail::AnyValueImpl AnyValue::impl() const {
  switch (kind()) {
    case Case::int32:
      return detail::AnyValueImpl::int32(int32Value());
    case Case::uint32:
      return detail::AnyValueImpl::uint32(uint32Value());
    case Case::int64:
      return detail::AnyValueImpl::int64(int64Value());
    case Case::uint64:
      return detail::AnyValueImpl::uint64(uint64Value());
    case Case::float_:
      return detail::AnyValueImpl::float_(floatValue());
    case Case::double_:
      return detail::AnyValueImpl::double_(doubleValue());
    case Case::bool_:
      return detail::AnyValueImpl::bool_(boolValue());
    case Case::enum_:
      return detail::AnyValueImpl::enum_(enumValue().impl());
    case Case::string:
      return detail::AnyValueImpl::string(stringValue());
    case Case::bytes:
      return detail::AnyValueImpl::bytes(bytesValue());
    case Case::message:
      return detail::AnyValueImpl::message(messageValue().unsafe());
  }
  return detail::AnyValueImpl::int32(0);  // unreachable: every case returns above
}

std::string AnyValue::describe() const {
  switch (kind()) {
    case Case::bytes:
      return "bytes(" + std::to_string(bytesValue().size()) + " bytes)";
    case Case::message:
      return "message(" +
             describeMessage(messageValue().messageSchemaImpl(), messageValue().data().size()) +
             ")";
    default:
      return impl().describe();
  }
}

std::string EnumValue::name() const {
  if (const auto* name = std::get_if<std::string>(&impl_.container)) return *name;
  return impl_.type->valueNameFor(std::get<int64_t>(impl_.container));
}

std::optional<std::string> EnumValue::findName() const {
  if (const auto* name = std::get_if<std::string>(&impl_.container)) return *name;
  if (const std::string* name = impl_.type->findValueNameFor(std::get<int64_t>(impl_.container))) {
    return *name;
  }
  return std::nullopt;
}

bool operator==(const EnumValue& a, const EnumValue& b) {
  const auto& ta = a.impl_.type;
  const auto& tb = b.impl_.type;
  if (ta != tb && (!ta || !tb || ta->name() != tb->name())) return false;
  if (a.impl_.container == b.impl_.container) return true;
  return a.number() == b.number();
}

bool operator==(const SchematizedData& a, const SchematizedData& b) {
  const auto& sa = a.schema_;
  const auto& sb = b.schema_;
  if (sa != sb && (!sa || !sb || sa->name() != sb->name())) return false;
  const ByteView x = a.bytes();
  const ByteView y = b.bytes();
  return std::equal(x.begin(), x.end(), y.begin(), y.end());
}

}  // namespace ostrel
