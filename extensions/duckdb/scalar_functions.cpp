// The scalar functions over protobuf records held as BLOBs:
//
//   SELECT ostrel_register_proto('syntax = "proto3"; package shop; message Item { ... }');
//   SELECT p_get(record, 'shop.Order', 'customer.name') FROM orders;  -- VARCHAR
//   SELECT UNNEST(p_get(record, 'shop.Order', 'items')).sku FROM orders;  -- a row per item
//   SELECT p_json(record, 'shop.Order'), p_has(record, 'shop.Order', 'card') FROM orders;
//   SELECT p_encode('shop.Order', '{"id": 7}');
//
// How p_get is typed: DuckDB's C API fixes a scalar function's result type when the function is
// registered, so p_get is a macro over two functions. ostrel_value_type(type, path) gives the
// column type of what the path reaches (constant arguments make it constant, so DuckDB folds it
// when binding), and ostrel_value_json(record, type, path) gives the value as JSON text that
// DuckDB's from_json reads into that type.

#include <exception>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "extension_state.hpp"
#include "ostrel/manifest/manifest_data.hpp"
#include "ostrel/output/json.hpp"
#include "ostrel/paths/property_path.hpp"
#include "wire/field_path.hpp"

namespace ostrel::duckdb {
namespace {

// The flat input columns of one call.
class Arguments {
 public:
  explicit Arguments(duckdb_data_chunk input) : size_(duckdb_data_chunk_get_size(input)) {
    const idx_t count = duckdb_data_chunk_get_column_count(input);
    for (idx_t i = 0; i < count; ++i) {
      duckdb_vector vector = duckdb_data_chunk_get_vector(input, i);
      data_.push_back(static_cast<duckdb_string_t*>(duckdb_vector_get_data(vector)));
      validity_.push_back(duckdb_vector_get_validity(vector));
    }
  }

  idx_t size() const noexcept { return size_; }

  bool anyNull(idx_t row) const {
    for (uint64_t* validity : validity_) {
      if (validity && !duckdb_validity_row_is_valid(validity, row)) return true;
    }
    return false;
  }

  // Column `column` (VARCHAR or BLOB) at `row`.
  std::string_view text(idx_t column, idx_t row) const {
    duckdb_string_t* value = &data_[column][row];
    return {duckdb_string_t_data(value), duckdb_string_t_length(*value)};
  }
  ByteView bytes(idx_t column, idx_t row) const {
    const std::string_view value = text(column, row);
    return {reinterpret_cast<const std::byte*>(value.data()), value.size()};
  }

 private:
  idx_t size_;
  std::vector<duckdb_string_t*> data_;
  std::vector<uint64_t*> validity_;
};

const ExtensionState& stateOf(duckdb_function_info info) {
  return **static_cast<SharedState*>(duckdb_scalar_function_get_extra_info(info));
}
ExtensionState& mutableStateOf(duckdb_function_info info) {
  return **static_cast<SharedState*>(duckdb_scalar_function_get_extra_info(info));
}

// Runs `body` for every row whose arguments are all non-NULL, NULL for the others; the first
// failure becomes the query's error.
template <typename Body>
void forEachRow(duckdb_function_info info, duckdb_data_chunk input, duckdb_vector output,
                const Body& body) {
  try {
    const Arguments arguments(input);
    for (idx_t row = 0; row < arguments.size(); ++row) {
      if (arguments.anyNull(row)) {
        duckdb_vector_ensure_validity_writable(output);
        duckdb_validity_set_row_invalid(duckdb_vector_get_validity(output), row);
      } else {
        body(arguments, row);
      }
    }
  } catch (const std::bad_alloc&) {
    duckdb_scalar_function_set_error(info, "out of memory");
  } catch (const std::exception& error) {
    duckdb_scalar_function_set_error(info, error.what());
  } catch (...) {
    duckdb_scalar_function_set_error(info, "unknown error");
  }
}

// The resolution of the (type, path) arguments of the rows of one call: resolved again only when
// they change from one row to the next, which they seldom do.
class ColumnCache {
 public:
  explicit ColumnCache(const ExtensionState& state) : state_(state) {}
  const ResolvedColumn& get(std::string_view type, std::string_view path) {
    if (!column_ || type != type_ || path != path_) {
      column_ = resolveColumn(state_, type, path);
      type_ = type;
      path_ = path;
    }
    return *column_;
  }

 private:
  const ExtensionState& state_;
  std::optional<ResolvedColumn> column_;
  std::string type_;
  std::string path_;
};

void setText(duckdb_vector output, idx_t row, std::string_view text) {
  duckdb_vector_assign_string_element_len(output, row, text.data(), text.size());
}

void setNull(duckdb_vector output, idx_t row) {
  duckdb_vector_ensure_validity_writable(output);
  duckdb_validity_set_row_invalid(duckdb_vector_get_validity(output), row);
}

// The message holding a repeated field: the record itself, or the message a path reaches.
std::optional<ByteView> holderOf(ByteView record, const detail::ResolvedRepeated& repeated) {
  return repeated.field.holderIn(record);
}

// ostrel_value_json(record BLOB, type VARCHAR, path VARCHAR) -> VARCHAR
void valueJson(duckdb_function_info info, duckdb_data_chunk input, duckdb_vector output) {
  ColumnCache cache(stateOf(info));
  std::string json;
  forEachRow(info, input, output, [&](const Arguments& arguments, idx_t row) {
    const ResolvedColumn& column = cache.get(arguments.text(1, row), arguments.text(2, row));
    const ByteView record = arguments.bytes(0, row);
    json.clear();
    if (const auto* value = std::get_if<0>(&column.path)) {
      Reader reader(record);
      const std::optional<detail::AnyValueImpl> found = readValue(reader, (*value)->path);
      if (!found) return setNull(output, row);
      appendJson(*column.type, *found, json);
    } else {
      const detail::ResolvedRepeated& repeated = *std::get<1>(column.path);
      const std::optional<ByteView> holder = holderOf(record, repeated);
      if (!holder) return setNull(output, row);
      appendFieldJson(*column.type, *repeated.field.field().impl(), *holder, json);
    }
    setText(output, row, json);
  });
}

// ostrel_value_type(type VARCHAR, path VARCHAR) -> VARCHAR: the from_json structure of the type.
void valueType(duckdb_function_info info, duckdb_data_chunk input, duckdb_vector output) {
  forEachRow(info, input, output, [&](const Arguments& arguments, idx_t row) {
    const ResolvedColumn column =
        resolveColumn(stateOf(info), arguments.text(0, row), arguments.text(1, row));
    std::string structure = "\"";
    for (const char c : sqlType(*column.type)) {
      if (c == '"' || c == '\\') structure += '\\';
      structure += c;
    }
    setText(output, row, structure + "\"");
  });
}

// p_has(record BLOB, type VARCHAR, path VARCHAR) -> BOOLEAN: whether the record holds the field
// (a repeated one: at least one element).
void pHas(duckdb_function_info info, duckdb_data_chunk input, duckdb_vector output) {
  ColumnCache cache(stateOf(info));
  auto* result = static_cast<bool*>(duckdb_vector_get_data(output));
  forEachRow(info, input, output, [&](const Arguments& arguments, idx_t row) {
    const ResolvedColumn& column = cache.get(arguments.text(1, row), arguments.text(2, row));
    const ByteView record = arguments.bytes(0, row);
    if (const auto* value = std::get_if<0>(&column.path)) {
      Reader reader(record);
      result[row] = readValue(reader, (*value)->path).has_value();
      return;
    }
    const detail::ResolvedRepeated& repeated = *std::get<1>(column.path);
    const std::optional<ByteView> holder = holderOf(record, repeated);
    bool any = false;
    if (holder) {
      Reader reader(*holder);
      forEachValue(reader, *repeated.field.field().impl(),
                   [&](detail::AnyValueImpl&&) { any = true; });
    }
    result[row] = any;
  });
}

// p_json(record BLOB, type VARCHAR) -> VARCHAR; a record that does not read whole is an error.
void pJson(duckdb_function_info info, duckdb_data_chunk input, duckdb_vector output) {
  forEachRow(info, input, output, [&](const Arguments& arguments, idx_t row) {
    const MessageSchema schema = stateOf(info).withSchemas([&](const detail::SqlSchemas& schemas) {
      return schemas.messageSchema(arguments.text(1, row));
    });
    const UnsafeSchematizedData data(schema.impl(), arguments.bytes(0, row));
    setText(output, row, renderJSON(data, JsonOptions{.strict = true}));
  });
}

// p_encode(type VARCHAR, json VARCHAR) -> BLOB
void pEncode(duckdb_function_info info, duckdb_data_chunk input, duckdb_vector output) {
  forEachRow(info, input, output, [&](const Arguments& arguments, idx_t row) {
    const MessageSchema schema = stateOf(info).withSchemas([&](const detail::SqlSchemas& schemas) {
      return schemas.messageSchema(arguments.text(0, row));
    });
    const SchematizedData data = parseJSON(schema, arguments.text(1, row));
    const ByteView bytes = data.bytes();
    duckdb_vector_assign_string_element_len(
        output, row, reinterpret_cast<const char*>(bytes.data()), bytes.size());
  });
}

// ostrel_register_descriptor_set(BLOB), ostrel_register_manifest(VARCHAR),
// ostrel_register_proto(VARCHAR) -> BIGINT: how many message types are registered in all.
template <SchemaManifest (*Decode)(const Arguments&, idx_t)>
void registerSchemas(duckdb_function_info info, duckdb_data_chunk input, duckdb_vector output) {
  auto* result = static_cast<int64_t*>(duckdb_vector_get_data(output));
  forEachRow(info, input, output, [&](const Arguments& arguments, idx_t row) {
    result[row] = static_cast<int64_t>(mutableStateOf(info).add(Decode(arguments, row)));
  });
}

SchemaManifest fromDescriptorSet(const Arguments& arguments, idx_t row) {
  return schemaManifestFromDescriptorSet(arguments.bytes(0, row));
}
SchemaManifest fromManifest(const Arguments& arguments, idx_t row) {
  return schemaManifestFromJSON(arguments.text(0, row));
}
SchemaManifest fromProto(const Arguments& arguments, idx_t row) {
  return schemaManifestFromProtoText(arguments.text(0, row));
}

struct FunctionDefinition {
  const char* name;
  std::vector<duckdb_type> parameters;
  duckdb_type result;
  duckdb_scalar_function_t function;
  // Registrations change state: never folded, never merged, run for every row.
  bool isVolatile = false;
};

bool registerFunction(duckdb_connection connection, const SharedState& state,
                      const FunctionDefinition& definition) {
  duckdb_scalar_function function = duckdb_create_scalar_function();
  duckdb_scalar_function_set_name(function, definition.name);
  for (const duckdb_type parameter : definition.parameters) {
    duckdb_logical_type type = duckdb_create_logical_type(parameter);
    duckdb_scalar_function_add_parameter(function, type);
    duckdb_destroy_logical_type(&type);
  }
  duckdb_logical_type result = duckdb_create_logical_type(definition.result);
  duckdb_scalar_function_set_return_type(function, result);
  duckdb_destroy_logical_type(&result);
  if (definition.isVolatile) duckdb_scalar_function_set_volatile(function);
  duckdb_scalar_function_set_function(function, definition.function);
  duckdb_scalar_function_set_extra_info(function, new SharedState(state),
                                        [](void* p) { delete static_cast<SharedState*>(p); });
  const bool registered = duckdb_register_scalar_function(connection, function) == DuckDBSuccess;
  duckdb_destroy_scalar_function(&function);
  return registered;
}

}  // namespace

ResolvedColumn resolveColumn(const ExtensionState& state, std::string_view type,
                             std::string_view path) {
  return state.withSchemas([&](const detail::SqlSchemas& schemas) {
    ResolvedColumn column;
    try {
      auto value = detail::resolvePath(schemas, type, path);
      column.type = columnTypeOf(value->path.type);
      column.path = std::move(value);
    } catch (const SchematizerError& error) {
      if (error.code() != SchematizerError::Code::repeatedValueAccessNoIndex) throw;
      auto repeated = detail::resolveRepeated(schemas, type, path);
      column.type = columnTypeOf(*repeated->field.field().impl());
      column.path = std::move(repeated);
    }
    return column;
  });
}

bool registerScalarFunctions(duckdb_connection connection, const SharedState& state,
                             std::string& error) {
  using enum duckdb_type;
  const FunctionDefinition definitions[] = {
      {"ostrel_register_descriptor_set",
       {DUCKDB_TYPE_BLOB},
       DUCKDB_TYPE_BIGINT,
       registerSchemas<fromDescriptorSet>,
       true},
      {"ostrel_register_manifest",
       {DUCKDB_TYPE_VARCHAR},
       DUCKDB_TYPE_BIGINT,
       registerSchemas<fromManifest>,
       true},
      {"ostrel_register_proto",
       {DUCKDB_TYPE_VARCHAR},
       DUCKDB_TYPE_BIGINT,
       registerSchemas<fromProto>,
       true},
      {"ostrel_value_json",
       {DUCKDB_TYPE_BLOB, DUCKDB_TYPE_VARCHAR, DUCKDB_TYPE_VARCHAR},
       DUCKDB_TYPE_VARCHAR,
       valueJson},
      {"ostrel_value_type",
       {DUCKDB_TYPE_VARCHAR, DUCKDB_TYPE_VARCHAR},
       DUCKDB_TYPE_VARCHAR,
       valueType},
      {"p_has",
       {DUCKDB_TYPE_BLOB, DUCKDB_TYPE_VARCHAR, DUCKDB_TYPE_VARCHAR},
       DUCKDB_TYPE_BOOLEAN,
       pHas},
      {"p_json", {DUCKDB_TYPE_BLOB, DUCKDB_TYPE_VARCHAR}, DUCKDB_TYPE_VARCHAR, pJson},
      {"p_encode", {DUCKDB_TYPE_VARCHAR, DUCKDB_TYPE_VARCHAR}, DUCKDB_TYPE_BLOB, pEncode},
  };
  for (const FunctionDefinition& definition : definitions) {
    if (!registerFunction(connection, state, definition)) {
      error = std::string("DuckDB refused the function ") + definition.name;
      return false;
    }
  }
  // DuckDB binds a macro's body when the macro is created, and from_json refuses a structure that
  // is not constant then. A parameter in an operator (type || '') cannot be typed at that point,
  // which makes DuckDB put the binding off until p_get is called, with constants for type and path.
  // The macro lives in the database's main schema; a read-only database cannot take it, and is
  // left without p_get rather than without the extension.
  duckdb_result result;
  duckdb_query(connection,
               "CREATE OR REPLACE MACRO p_get(record, type, path) AS "
               "from_json(ostrel_value_json(record, type, path), "
               "ostrel_value_type(type || '', path))",
               &result);
  duckdb_destroy_result(&result);
  return true;
}

}  // namespace ostrel::duckdb
