#include "ostrel/sql/sqlite_functions.hpp"

#include <sqlite3.h>

#include <limits>
#include <memory>
#include <stdexcept>

#include "ostrel/output/json_rendering.hpp"
#include "ostrel/paths/key_path.hpp"
#include "ostrel/paths/property_path.hpp"
#include "ostrel/wire/field_path.hpp"

namespace ostrel {
namespace {

void resultValue(sqlite3_context* context, const AnyValueImpl& value) {
  using Case = AnyValueImpl::Case;
  switch (value.kind()) {
    case Case::int32:
      return sqlite3_result_int64(context, value.int32Value());
    case Case::uint32:
      return sqlite3_result_int64(context, value.uint32Value());
    case Case::int64:
      return sqlite3_result_int64(context, value.int64Value());
    case Case::uint64: {
      const uint64_t number = value.uint64Value();
      if (number <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
        return sqlite3_result_int64(context, static_cast<int64_t>(number));
      }
      const std::string text = std::to_string(number);
      return sqlite3_result_text(context, text.data(), static_cast<int>(text.size()),
                                 SQLITE_TRANSIENT);
    }
    case Case::float_:
      return sqlite3_result_double(context, value.floatValue());
    case Case::double_:
      return sqlite3_result_double(context, value.doubleValue());
    case Case::bool_:
      return sqlite3_result_int(context, value.boolValue() ? 1 : 0);
    case Case::enum_: {
      const EnumValueImpl& enumValue = value.enumValue();
      const int64_t number = enumValue.number();
      if (const std::string* name = enumValue.type->findValueNameFor(number)) {
        return sqlite3_result_text(context, name->data(), static_cast<int>(name->size()),
                                   SQLITE_TRANSIENT);
      }
      return sqlite3_result_int64(context, number);
    }
    case Case::string: {
      const std::string& text = value.stringValue();
      return sqlite3_result_text(context, text.data(), static_cast<int>(text.size()),
                                 SQLITE_TRANSIENT);
    }
    case Case::bytes: {
      const ByteView bytes = value.bytesValue().view();
      return sqlite3_result_blob(context, bytes.data(), static_cast<int>(bytes.size()),
                                 SQLITE_TRANSIENT);
    }
    case Case::message: {
      const std::string json = renderJSON(value.messageValue());
      return sqlite3_result_text(context, json.data(), static_cast<int>(json.size()),
                                 SQLITE_TRANSIENT);
    }
  }
}

void pGet(sqlite3_context* context, int, sqlite3_value** arguments) {
  if (sqlite3_value_type(arguments[0]) == SQLITE_NULL) return sqlite3_result_null(context);
  try {
    // The path is the same for every row of a statement: parse and resolve it once and keep the
    // result with the statement.
    auto* path = static_cast<FieldPathAndType*>(sqlite3_get_auxdata(context, 1));
    std::unique_ptr<FieldPathAndType> resolved;
    if (!path) {
      const auto* text = reinterpret_cast<const char*>(sqlite3_value_text(arguments[1]));
      const std::string_view pathText(text ? text : "",
                                      static_cast<size_t>(sqlite3_value_bytes(arguments[1])));
      const auto* schema = static_cast<const MessageSchema*>(sqlite3_user_data(context));
      PropertyPathUtil::parse(pathText);
      resolved = std::make_unique<FieldPathAndType>(resolveKeyPath(*schema->impl(), pathText));
      path = resolved.get();
    }
    const auto* blob = static_cast<const std::byte*>(sqlite3_value_blob(arguments[0]));
    const auto size = static_cast<size_t>(sqlite3_value_bytes(arguments[0]));
    Reader reader(ByteView(blob, blob ? size : 0));
    const std::optional<AnyValueImpl> value = readValue(reader, *path);
    if (value) {
      resultValue(context, *value);
    } else {
      sqlite3_result_null(context);
    }
    if (resolved) {
      // SQLite may free the resolved path at once when it cannot keep it; it is not used after.
      sqlite3_set_auxdata(context, 1, resolved.release(),
                          [](void* p) { delete static_cast<FieldPathAndType*>(p); });
    }
  } catch (const std::exception& error) {
    sqlite3_result_error(context, error.what(), -1);
  }
}

}  // namespace

void registerPGet(sqlite3* db, const MessageSchema& schema) {
  auto* owned = new MessageSchema(schema);
  const int status = sqlite3_create_function_v2(
      db, "P_GET", 2, SQLITE_UTF8 | SQLITE_DETERMINISTIC, owned, pGet, nullptr, nullptr,
      [](void* p) { delete static_cast<MessageSchema*>(p); });
  // On failure SQLite has already called the destructor of the user data.
  if (status != SQLITE_OK) {
    throw std::runtime_error(std::string("cannot register P_GET: ") + sqlite3_errmsg(db));
  }
}

}  // namespace ostrel
