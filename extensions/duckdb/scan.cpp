// ostrel_scan: protobuf record files as a table, one column per top-level field of the message
// type (typed as column_types.hpp says) plus filename and record_offset.
//
//   SELECT id, customer.name FROM ostrel_scan('orders/*.bin', 'shop.Order');
//   SELECT * FROM ostrel_scan(['a.bin', 'b.bin'], 'shop.Order', framing := 'varint');
//   COPY (FROM ostrel_scan('orders.bin', 'shop.Order')) TO 'orders.parquet';
//
// How it works: the bind resolves the type and expands the file names (glob patterns, each
// sorted); DuckDB then tells the scan which columns the query uses, and only those are read: the
// singular fields among them through one projection of the library (one pass over each record's
// bytes, stopping once every field has its answer), repeated fields and maps element by element.
// Files are shared out among DuckDB's threads, one whole file at a time. Framing: 'varint' (each
// record preceded by its length as a varint, the default) or 'single' (one record per file).
// A fault stops the query with an error naming the file, the record and its byte offset.

#include <glob.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <limits>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "extension_state.hpp"
#include "ostrel/output/json.hpp"
#include "ostrel/wire/schematizer.hpp"

namespace ostrel::duckdb {
namespace {

enum class Framing : uint8_t { varint, single };

struct FieldColumn {
  std::shared_ptr<FieldSchemaDescribing> field;
  std::unique_ptr<ColumnType> type;
};

struct ScanBind {
  // The store is kept for as long as the query reads through its schemas.
  std::optional<SchemaStore> store;
  std::optional<MessageSchema> schema;
  std::vector<std::string> files;
  Framing framing = Framing::varint;
  // One per top-level field; then the filename and record_offset columns.
  std::vector<FieldColumn> columns;
};

// What one query reads: the bound columns it uses, in the order of the output, and the projection
// of the singular fields among them.
struct ScanGlobal {
  struct Output {
    // Index into ScanBind::columns; columns.size() for filename, + 1 for record_offset, anything
    // else for DuckDB's row number.
    idx_t column;
    // The path's position in the projection, for a singular field.
    std::optional<size_t> projected;
  };
  std::vector<Output> outputs;
  std::optional<Projection> projection;
  std::atomic<size_t> nextFile{0};
};

// One thread's place: the file it reads and how far it got.
struct ScanLocal {
  std::optional<size_t> file;
  std::string bytes;
  std::optional<DelimitedRecords> records;
  bool singleDone = false;
  int64_t recordNumber = 0;
  std::optional<ProjectionRow> row;
};

std::string textOf(duckdb_value value) {
  char* text = duckdb_get_varchar(value);
  std::string result = text ? text : "";
  duckdb_free(text);
  return result;
}

bool hasWildcard(const std::string& pattern) {
  return pattern.find_first_of("*?[") != std::string::npos;
}

// The files a pattern names, sorted; a name without wildcards stands for itself.
void expand(const std::string& pattern, std::vector<std::string>& files) {
  if (!hasWildcard(pattern)) {
    if (::access(pattern.c_str(), R_OK) != 0) {
      throw std::invalid_argument("cannot open \"" + pattern + "\": " + std::strerror(errno));
    }
    files.push_back(pattern);
    return;
  }
  glob_t found{};
  const int status = ::glob(pattern.c_str(), 0, nullptr, &found);
  if (status == 0) {
    for (size_t i = 0; i < found.gl_pathc; ++i) files.emplace_back(found.gl_pathv[i]);
  }
  globfree(&found);
  if (status == GLOB_NOMATCH) throw std::invalid_argument("no file matches \"" + pattern + "\"");
  if (status != 0) throw std::runtime_error("cannot list the files of \"" + pattern + "\"");
}

std::vector<std::string> filesOf(duckdb_value argument) {
  std::vector<std::string> files;
  duckdb_logical_type type = duckdb_get_value_type(argument);
  const duckdb_type id = duckdb_get_type_id(type);
  if (id == DUCKDB_TYPE_VARCHAR) {
    expand(textOf(argument), files);
  } else if (id == DUCKDB_TYPE_LIST) {
    const idx_t count = duckdb_get_list_size(argument);
    for (idx_t i = 0; i < count; ++i) {
      duckdb_value child = duckdb_get_list_child(argument, i);
      std::string name = textOf(child);
      duckdb_destroy_value(&child);
      expand(name, files);
    }
  } else {
    throw std::invalid_argument("ostrel_scan's files are a VARCHAR or a list of them");
  }
  return files;
}

ExtensionState& stateOfBind(duckdb_bind_info info) {
  return **static_cast<SharedState*>(duckdb_bind_get_extra_info(info));
}

void addColumn(duckdb_bind_info info, const std::string& name, duckdb_logical_type type) {
  duckdb_bind_add_result_column(info, name.c_str(), type);
  duckdb_destroy_logical_type(&type);
}

void bind(duckdb_bind_info info) {
  try {
    auto data = std::make_unique<ScanBind>();
    duckdb_value filesArgument = duckdb_bind_get_parameter(info, 0);
    duckdb_value typeArgument = duckdb_bind_get_parameter(info, 1);
    const std::string typeName = textOf(typeArgument);
    duckdb_destroy_value(&typeArgument);
    try {
      data->files = filesOf(filesArgument);
    } catch (...) {
      duckdb_destroy_value(&filesArgument);
      throw;
    }
    duckdb_destroy_value(&filesArgument);
    if (duckdb_value framing = duckdb_bind_get_named_parameter(info, "framing")) {
      const std::string name = textOf(framing);
      duckdb_destroy_value(&framing);
      if (name == "single") {
        data->framing = Framing::single;
      } else if (name != "varint") {
        throw std::invalid_argument("unknown framing \"" + name +
                                    "\": ostrel_scan reads 'varint' and 'single'");
      }
    }
    stateOfBind(info).withSchemas([&](const detail::SqlSchemas& schemas) {
      data->store = schemas.store();
      data->schema = schemas.messageSchema(typeName);
    });
    for (const auto& [number, field] : data->schema->impl()->fieldsByNumber()) {
      data->columns.push_back({field, columnTypeOf(*field)});
      addColumn(info, field->name(), logicalType(*data->columns.back().type));
    }
    addColumn(info, "filename", duckdb_create_logical_type(DUCKDB_TYPE_VARCHAR));
    addColumn(info, "record_offset", duckdb_create_logical_type(DUCKDB_TYPE_BIGINT));
    duckdb_bind_set_bind_data(info, data.release(),
                              [](void* p) { delete static_cast<ScanBind*>(p); });
  } catch (const std::exception& error) {
    duckdb_bind_set_error(info, error.what());
  }
}

bool isSingular(const ColumnType& type) {
  return type.kind != ColumnKind::list && type.kind != ColumnKind::map;
}

void init(duckdb_init_info info) {
  try {
    const auto& data = *static_cast<const ScanBind*>(duckdb_init_get_bind_data(info));
    auto global = std::make_unique<ScanGlobal>();
    std::vector<std::string> paths;
    const idx_t count = duckdb_init_get_column_count(info);
    for (idx_t i = 0; i < count; ++i) {
      ScanGlobal::Output output{duckdb_init_get_column_index(info, i), std::nullopt};
      if (output.column < data.columns.size() && isSingular(*data.columns[output.column].type)) {
        output.projected = paths.size();
        paths.push_back(data.columns[output.column].field->name());
      }
      global->outputs.push_back(output);
    }
    if (!paths.empty()) global->projection.emplace(*data.schema, paths);
    duckdb_init_set_max_threads(info, std::max<size_t>(data.files.size(), 1));
    duckdb_init_set_init_data(info, global.release(),
                              [](void* p) { delete static_cast<ScanGlobal*>(p); });
  } catch (const std::exception& error) {
    duckdb_init_set_error(info, error.what());
  }
}

void localInit(duckdb_init_info info) {
  duckdb_init_set_init_data(info, new ScanLocal(),
                            [](void* p) { delete static_cast<ScanLocal*>(p); });
}

std::string readFile(const std::string& name) {
  std::ifstream in(name, std::ios::binary | std::ios::ate);
  if (!in) throw std::runtime_error("cannot open \"" + name + "\": " + std::strerror(errno));
  std::string bytes(static_cast<size_t>(in.tellg()), '\0');
  in.seekg(0);
  if (!in.read(bytes.data(), static_cast<std::streamsize>(bytes.size()))) {
    throw std::runtime_error("cannot read \"" + name + "\"");
  }
  return bytes;
}

ByteView viewOf(const std::string& bytes) {
  return {reinterpret_cast<const std::byte*>(bytes.data()), bytes.size()};
}

// Writes answer `i` of `row`, a singular field of `type`.
void writeProjected(const ColumnType& type, const ProjectionRow& row, size_t i,
                    duckdb_vector vector, idx_t out) {
  switch (row.state(i)) {
    case ProjectionRow::State::absent:
      return writeNull(type, vector, out);
    case ProjectionRow::State::failed:
      std::rethrow_exception(row.error(i));
    case ProjectionRow::State::present:
      break;
  }
  auto set = [&](auto value) {
    static_cast<decltype(value)*>(duckdb_vector_get_data(vector))[out] = value;
  };
  switch (type.kind) {
    case ColumnKind::bigint:
      return set(*row.int64Value(i));
    case ColumnKind::ubigint:
      return set(*row.uint64Value(i));
    case ColumnKind::integer:
      return set(*row.int32Value(i));
    case ColumnKind::uinteger:
      return set(*row.uint32Value(i));
    case ColumnKind::double_:
      return set(*row.doubleValue(i));
    case ColumnKind::float_:
      return set(*row.floatValue(i));
    case ColumnKind::boolean:
      return set(*row.boolValue(i));
    case ColumnKind::enumName: {
      const int64_t number = *row.enumNumber(i);
      if (const std::string* name = type.enumeration->findValueNameFor(number)) {
        return writeText(vector, out, *name);
      }
      return writeText(vector, out, std::to_string(number));
    }
    default:
      break;
  }
  const ByteView payload = *row.payload(i);
  switch (type.kind) {
    case ColumnKind::varchar:
      return writeText(vector, out,
                       std::string_view(reinterpret_cast<const char*>(payload.data()),
                                        payload.size()));
    case ColumnKind::blob:
      return duckdb_vector_assign_string_element_len(
          vector, out, reinterpret_cast<const char*>(payload.data()), payload.size());
    case ColumnKind::timestamp:
      return set(timestampMicros(payload));
    case ColumnKind::json:
      return writeText(vector, out,
                       renderJSON(UnsafeSchematizedData(type.message, payload),
                                  JsonOptions{.strict = true}));
    default:
      for (size_t m = 0; m < type.members.size(); ++m) {
        const ColumnType::Member& member = type.members[m];
        writeField(*member.type, *member.field, payload,
                   duckdb_struct_vector_get_child(vector, m), out);
      }
  }
}

// Takes the next file not taken by any thread; false when none is left.
bool openNextFile(const ScanBind& data, ScanGlobal& global, ScanLocal& local) {
  const size_t index = global.nextFile.fetch_add(1);
  if (index >= data.files.size()) return false;
  local.bytes = readFile(data.files[index]);
  local.file = index;
  local.records.emplace(viewOf(local.bytes));
  local.singleDone = false;
  local.recordNumber = 0;
  return true;
}

// The next record of the thread's file and its offset; no value at the end of the file.
std::optional<std::pair<ByteView, int64_t>> nextRecord(const ScanBind& data, ScanLocal& local) {
  if (data.framing == Framing::single) {
    if (local.singleDone) return std::nullopt;
    local.singleDone = true;
    return std::pair{viewOf(local.bytes), int64_t{0}};
  }
  const int64_t offset = local.records->position();
  const std::optional<ByteView> record = local.records->next();
  if (!record) return std::nullopt;
  return std::pair{*record, offset};
}

void scan(duckdb_function_info info, duckdb_data_chunk output) {
  const auto& data = *static_cast<const ScanBind*>(duckdb_function_get_bind_data(info));
  auto& global = *static_cast<ScanGlobal*>(duckdb_function_get_init_data(info));
  auto& local = *static_cast<ScanLocal*>(duckdb_function_get_local_init_data(info));
  const idx_t capacity = duckdb_vector_size();
  idx_t rows = 0;
  int64_t offset = -1;
  try {
    if (global.projection && !local.row) local.row = global.projection->makeRow();
    std::vector<duckdb_vector> vectors;
    for (idx_t j = 0; j < global.outputs.size(); ++j) {
      vectors.push_back(duckdb_data_chunk_get_vector(output, j));
    }
    while (rows < capacity) {
      if (!local.file && !openNextFile(data, global, local)) break;
      offset = local.records ? local.records->position() : 0;
      const auto record = nextRecord(data, local);
      if (!record) {
        local.file.reset();
        local.records.reset();
        continue;
      }
      offset = record->second;
      if (local.row) global.projection->read(record->first, *local.row);
      for (idx_t j = 0; j < global.outputs.size(); ++j) {
        const ScanGlobal::Output& column = global.outputs[j];
        duckdb_vector vector = vectors[j];
        if (column.column < data.columns.size()) {
          const FieldColumn& field = data.columns[column.column];
          if (column.projected) {
            writeProjected(*field.type, *local.row, *column.projected, vector, rows);
          } else {
            writeField(*field.type, *field.field, record->first, vector, rows);
          }
        } else if (column.column == data.columns.size()) {
          const std::string& name = data.files[*local.file];
          duckdb_vector_assign_string_element_len(vector, rows, name.data(), name.size());
        } else {
          static_cast<int64_t*>(duckdb_vector_get_data(vector))[rows] = offset;
        }
      }
      ++local.recordNumber;
      ++rows;
    }
    duckdb_data_chunk_set_size(output, rows);
  } catch (const std::exception& error) {
    std::string text = error.what();
    if (local.file) {
      text = "file \"" + data.files[*local.file] + "\", record " +
             std::to_string(local.recordNumber + 1) + " at byte " + std::to_string(offset) + ": " +
             text;
    }
    duckdb_function_set_error(info, text.c_str());
  }
}

}  // namespace

bool registerScan(duckdb_connection connection, const SharedState& state, std::string& error) {
  duckdb_table_function function = duckdb_create_table_function();
  duckdb_table_function_set_name(function, "ostrel_scan");
  duckdb_logical_type any = duckdb_create_logical_type(DUCKDB_TYPE_ANY);
  duckdb_logical_type varchar = duckdb_create_logical_type(DUCKDB_TYPE_VARCHAR);
  duckdb_table_function_add_parameter(function, any);
  duckdb_table_function_add_parameter(function, varchar);
  duckdb_table_function_add_named_parameter(function, "framing", varchar);
  duckdb_destroy_logical_type(&any);
  duckdb_destroy_logical_type(&varchar);
  duckdb_table_function_set_extra_info(function, new SharedState(state),
                                       [](void* p) { delete static_cast<SharedState*>(p); });
  duckdb_table_function_set_bind(function, bind);
  duckdb_table_function_set_init(function, init);
  duckdb_table_function_set_local_init(function, localInit);
  duckdb_table_function_set_function(function, scan);
  duckdb_table_function_supports_projection_pushdown(function, true);
  const bool registered = duckdb_register_table_function(connection, function) == DuckDBSuccess;
  duckdb_destroy_table_function(&function);
  if (!registered) error = "DuckDB refused the table function ostrel_scan";
  return registered;
}

}  // namespace ostrel::duckdb
