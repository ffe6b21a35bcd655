// ostrel_scan: protobuf record files as a table, one column per top-level field of the message
// type, as the library's columnar projection makes it (see ostrel/columns/columns.hpp and
// arrow_vectors.hpp), plus filename and record_offset.
//
//   SELECT id, customer.name FROM ostrel_scan('orders/*.bin', 'shop.Order');
//   SELECT * FROM ostrel_scan(['a.bin', 'b.bin'], 'shop.Order', framing := 'u32be');
//   COPY (FROM ostrel_scan('orders.bin', 'shop.Order')) TO 'orders.parquet';
//
// How it works: the bind resolves the type, expands the file names (glob patterns, each sorted)
// and takes the columns' types from a columnar projection of every field; DuckDB then tells the
// scan which columns the query uses, and each thread compiles a columnar projection of those
// fields alone, so that nothing else is read. Files are shared out among DuckDB's threads, one
// whole file at a time; each output chunk holds records of one file, copied from the projection's
// Arrow batch into DuckDB's vectors. Framing: 'varint' (each record preceded by its length as a
// varint, the default), 'u32be' (by its length as a big-endian 32-bit integer, as kcat writes
// Kafka records) or 'single' (one record per file). A fault stops the query with an error
// naming the file, the record and its byte offset.

#include <glob.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "arrow_vectors.hpp"
#include "extension_state.hpp"
#include "ostrel/columns/columns.hpp"
#include "ostrel/records/records.hpp"

namespace ostrel::duckdb {
namespace {

// Enum values as their names; the rest as the columnar projection's defaults.
const ColumnOptions kColumnOptions{.enums = ColumnOptions::Enums::strings};

struct ScanBind {
  // The store is kept for as long as the query reads through its schemas.
  std::optional<SchemaStore> store;
  std::optional<MessageSchema> schema;
  std::vector<std::string> files;
  Framing framing = Framing::varint;
  // The top-level fields, one column each; then the filename and record_offset columns.
  std::vector<std::string> fields;
};

// What one query reads: the bound columns it uses, in the order of the output.
struct ScanGlobal {
  // Index into ScanBind::fields; fields.size() for filename, anything else for record_offset
  // (DuckDB's row number is not asked of a function that does not offer it).
  std::vector<idx_t> outputs;
  // The fields among them, in that order, and where each goes in the output.
  std::vector<std::string> paths;
  std::vector<idx_t> pathOutputs;
  std::atomic<size_t> nextFile{0};
};

// The Arrow schema of a projection, released when it goes.
struct OwnedSchema {
  ArrowSchema schema{};
  OwnedSchema() = default;
  OwnedSchema(const OwnedSchema&) = delete;
  OwnedSchema& operator=(const OwnedSchema&) = delete;
  ~OwnedSchema() {
    if (schema.release) schema.release(&schema);
  }
};

// One thread's place: its projection, the file it reads and how far it got.
struct ScanLocal {
  std::optional<ColumnProjection> columns;
  OwnedSchema columnSchema;
  std::optional<size_t> file;
  std::string bytes;
  std::optional<RecordSource> records;
  int64_t recordNumber = 0;
  // Where the records of the chunk being made start, and the file they come from.
  std::vector<int64_t> offsets;
  size_t lastFile = 0;
};

// A value DuckDB hands over, destroyed when it goes.
class Value {
 public:
  explicit Value(duckdb_value value) : value_(value) {}
  ~Value() { duckdb_destroy_value(&value_); }
  Value(const Value&) = delete;
  Value& operator=(const Value&) = delete;
  duckdb_value get() const noexcept { return value_; }
  explicit operator bool() const noexcept { return value_ != nullptr; }

 private:
  duckdb_value value_;
};

// The text of argument `what`; NULL is refused (DuckDB gives no text for it).
std::string textOf(const Value& value, const char* what) {
  if (!value || duckdb_is_null_value(value.get())) {
    throw std::invalid_argument(std::string("ostrel_scan's ") + what + " is NULL");
  }
  char* text = duckdb_get_varchar(value.get());
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

std::vector<std::string> filesOf(const Value& argument) {
  std::vector<std::string> files;
  const duckdb_type id = duckdb_get_type_id(duckdb_get_value_type(argument.get()));
  if (id == DUCKDB_TYPE_VARCHAR) {
    expand(textOf(argument, "file name"), files);
  } else if (id == DUCKDB_TYPE_LIST) {
    const idx_t count = duckdb_get_list_size(argument.get());
    for (idx_t i = 0; i < count; ++i) {
      expand(textOf(Value(duckdb_get_list_child(argument.get(), i)), "file name"), files);
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
    const std::string typeName = textOf(Value(duckdb_bind_get_parameter(info, 1)), "type");
    data->files = filesOf(Value(duckdb_bind_get_parameter(info, 0)));
    if (const Value framing(duckdb_bind_get_named_parameter(info, "framing")); framing) {
      const std::string name = textOf(framing, "framing");
      const std::optional<Framing> parsed = findFraming(name);
      if (!parsed) {
        throw std::invalid_argument("unknown framing \"" + name +
                                    "\": ostrel_scan reads 'varint', 'u32be' and 'single'");
      }
      data->framing = *parsed;
    }
    stateOfBind(info).withSchemas([&](const detail::SqlSchemas& schemas) {
      data->store = schemas.store();
      data->schema = schemas.messageSchema(typeName);
    });
    for (const auto& [number, field] : data->schema->impl()->fieldsByNumber()) {
      data->fields.push_back(field->name());
    }
    const ColumnProjection all(*data->schema, data->fields, kColumnOptions);
    OwnedSchema types;
    all.exportSchema(&types.schema);
    for (size_t i = 0; i < data->fields.size(); ++i) {
      addColumn(info, data->fields[i], logicalTypeOf(*types.schema.children[i]));
    }
    // A guess at the rows for DuckDB's planner: one record per file, or some 64 bytes a record.
    idx_t estimate = 0;
    for (const std::string& file : data->files) {
      struct stat status {};
      const idx_t size = ::stat(file.c_str(), &status) == 0 ? status.st_size : 0;
      estimate += data->framing == Framing::single ? 1 : std::max<idx_t>(size / 64, 1);
    }
    duckdb_bind_set_cardinality(info, estimate, false);
    addColumn(info, "filename", duckdb_create_logical_type(DUCKDB_TYPE_VARCHAR));
    addColumn(info, "record_offset", duckdb_create_logical_type(DUCKDB_TYPE_BIGINT));
    duckdb_bind_set_bind_data(info, data.release(),
                              [](void* p) { delete static_cast<ScanBind*>(p); });
  } catch (const std::exception& error) {
    duckdb_bind_set_error(info, error.what());
  }
}

void init(duckdb_init_info info) {
  try {
    const auto& data = *static_cast<const ScanBind*>(duckdb_init_get_bind_data(info));
    auto global = std::make_unique<ScanGlobal>();
    const idx_t count = duckdb_init_get_column_count(info);
    for (idx_t i = 0; i < count; ++i) {
      const idx_t column = duckdb_init_get_column_index(info, i);
      if (column < data.fields.size()) {
        global->paths.push_back(data.fields[column]);
        global->pathOutputs.push_back(i);
      }
      global->outputs.push_back(column);
    }
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

// The whole file, read rather than mapped: a mapped file that another process shortens meanwhile
// would stop the host with SIGBUS.
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

// Takes the next file not taken by any thread; false when none is left.
bool openNextFile(const ScanBind& data, ScanGlobal& global, ScanLocal& local) {
  const size_t index = global.nextFile.fetch_add(1);
  if (index >= data.files.size()) return false;
  local.bytes = readFile(data.files[index]);
  local.file = index;
  local.lastFile = index;
  local.records.emplace(viewOf(local.bytes), data.framing);
  local.recordNumber = 0;
  return true;
}

// The next record of the thread's file and its offset; no value at the end of the file. A null
// record (a u32be length of -1) is an empty one: a row whose fields are all absent.
std::optional<std::pair<ByteView, int64_t>> nextRecord(ScanLocal& local) {
  const std::optional<ByteView> record = local.records->next();
  if (!record) return std::nullopt;
  return std::pair{*record, local.records->offset()};
}

void scan(duckdb_function_info info, duckdb_data_chunk output) {
  const auto& data = *static_cast<const ScanBind*>(duckdb_function_get_bind_data(info));
  auto& global = *static_cast<ScanGlobal*>(duckdb_function_get_init_data(info));
  auto& local = *static_cast<ScanLocal*>(duckdb_function_get_local_init_data(info));
  const idx_t capacity = duckdb_vector_size();
  int64_t offset = -1;
  try {
    if (!global.paths.empty() && !local.columns) {
      local.columns.emplace(*data.schema, global.paths, kColumnOptions);
      local.columns->exportSchema(&local.columnSchema.schema);
    }
    // One file's records, up to a chunk.
    local.offsets.clear();
    while (local.offsets.size() < capacity) {
      if (!local.file && (!local.offsets.empty() || !openNextFile(data, global, local))) break;
      offset = local.records ? local.records->position() : 0;
      const auto record = nextRecord(local);
      if (!record) {
        local.file.reset();
        local.records.reset();
        continue;
      }
      offset = record->second;
      try {
        if (local.columns) local.columns->append(record->first, offset);
      } catch (const ColumnError& error) {
        if (error.code() != ColumnError::Code::recordFailed) throw;
        throw std::runtime_error(error.reason());
      }
      local.offsets.push_back(offset);
      ++local.recordNumber;
    }
    const idx_t rows = local.offsets.size();
    if (local.columns && rows > 0) {
      ArrowArray batch{};
      local.columns->takeBatch(&batch);
      try {
        for (size_t p = 0; p < global.paths.size(); ++p) {
          copyColumn(*local.columnSchema.schema.children[p], *batch.children[p], rows,
                     duckdb_data_chunk_get_vector(output, global.pathOutputs[p]));
        }
      } catch (...) {
        batch.release(&batch);
        throw;
      }
      batch.release(&batch);
    }
    for (idx_t j = 0; j < global.outputs.size(); ++j) {
      const idx_t column = global.outputs[j];
      if (column < data.fields.size()) continue;
      duckdb_vector vector = duckdb_data_chunk_get_vector(output, j);
      if (column == data.fields.size()) {
        // The chunk's file: the one being read, or the one that just ended.
        const std::string& name = data.files[local.lastFile];
        for (idx_t row = 0; row < rows; ++row) {
          duckdb_vector_assign_string_element_len(vector, row, name.data(), name.size());
        }
      } else {
        std::memcpy(duckdb_vector_get_data(vector), local.offsets.data(), rows * sizeof(int64_t));
      }
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
