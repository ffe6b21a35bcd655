#pragma once

// The values libprotobuf holds, as the library's own values, for the tests that compare the two.

#include <google/protobuf/descriptor.h>
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <google/protobuf/message.h>

#include <stdexcept>
#include <string>

#include "ostrel/ostrel.hpp"

namespace ostrel::testing_support {

// The value of `f` in `message` (element `index` when repeated) as the AnyValue the library gives
// for a field of `type`; enum numbers the enum does not know are kept as they are. Message fields
// are left to the caller, who decides whether a nested message compares as bytes or is rebuilt.
inline AnyValue reflectedValue(const google::protobuf::Message& message,
                               const google::protobuf::FieldDescriptor* f, int index,
                               const TypeSchema& type) {
  using F = google::protobuf::FieldDescriptor;
  const auto* r = message.GetReflection();
  const bool rep = f->is_repeated();
  switch (f->cpp_type()) {
    case F::CPPTYPE_INT32:
      return rep ? r->GetRepeatedInt32(message, f, index) : r->GetInt32(message, f);
    case F::CPPTYPE_INT64:
      return rep ? r->GetRepeatedInt64(message, f, index) : r->GetInt64(message, f);
    case F::CPPTYPE_UINT32:
      return rep ? r->GetRepeatedUInt32(message, f, index) : r->GetUInt32(message, f);
    case F::CPPTYPE_UINT64:
      return rep ? r->GetRepeatedUInt64(message, f, index) : r->GetUInt64(message, f);
    case F::CPPTYPE_FLOAT:
      return rep ? r->GetRepeatedFloat(message, f, index) : r->GetFloat(message, f);
    case F::CPPTYPE_DOUBLE:
      return rep ? r->GetRepeatedDouble(message, f, index) : r->GetDouble(message, f);
    case F::CPPTYPE_BOOL:
      return rep ? r->GetRepeatedBool(message, f, index) : r->GetBool(message, f);
    case F::CPPTYPE_ENUM: {
      const int number =
          rep ? r->GetRepeatedEnumValue(message, f, index) : r->GetEnumValue(message, f);
      return EnumValue(detail::EnumValueImpl{type.enumSchema()->impl(), int64_t{number}});
    }
    case F::CPPTYPE_STRING: {
      const std::string text =
          rep ? r->GetRepeatedString(message, f, index) : r->GetString(message, f);
      if (f->type() == F::TYPE_BYTES) return toBytes(text);
      return text;
    }
    case F::CPPTYPE_MESSAGE:
      break;
  }
  throw std::logic_error("no scalar value in " + f->full_name());
}

// `message` serialized deterministically (map entries in key order): libprotobuf's canonical
// encoding of what it holds, comparable byte for byte.
inline std::string deterministic(const google::protobuf::Message& message) {
  std::string bytes;
  {
    google::protobuf::io::StringOutputStream stream(&bytes);
    google::protobuf::io::CodedOutputStream coded(&stream);
    coded.SetSerializationDeterministic(true);
    message.SerializePartialToCodedStream(&coded);
  }
  return bytes;
}

}  // namespace ostrel::testing_support
