#include "arrow_vectors.hpp"

#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace ostrel::duckdb {
namespace {

bool bitSet(const void* bitmap, int64_t index) {
  return (static_cast<const uint8_t*>(bitmap)[index >> 3] >> (index & 7)) & 1;
}

template <typename T>
const T* buffer(const ArrowArray& array, int i) {
  return static_cast<const T*>(array.buffers[i]);
}

template <typename T>
T* dataOf(duckdb_vector vector) {
  return static_cast<T*>(duckdb_vector_get_data(vector));
}

// Copies the validity of rows [start, start + count) of `array` to rows [at, at + count).
void copyValidity(const ArrowArray& array, int64_t start, idx_t count, duckdb_vector vector,
                  idx_t at) {
  if (array.null_count == 0 || array.buffers[0] == nullptr) return;
  duckdb_vector_ensure_validity_writable(vector);
  uint64_t* validity = duckdb_vector_get_validity(vector);
  for (idx_t i = 0; i < count; ++i) {
    if (!bitSet(array.buffers[0], array.offset + start + static_cast<int64_t>(i))) {
      duckdb_validity_set_row_invalid(validity, at + i);
    }
  }
}

template <typename Offset>
void copyStrings(const ArrowArray& array, int64_t start, idx_t count, duckdb_vector vector,
                 idx_t at) {
  const Offset* offsets = buffer<Offset>(array, 1) + array.offset + start;
  const char* data = buffer<char>(array, 2);
  for (idx_t i = 0; i < count; ++i) {
    const Offset begin = offsets[i];
    duckdb_vector_assign_string_element_len(vector, at + i, data + begin,
                                            static_cast<idx_t>(offsets[i + 1] - begin));
  }
}

void copyRows(const ArrowSchema& schema, const ArrowArray& array, int64_t start, idx_t count,
              duckdb_vector vector, idx_t at);

// Lists and maps: every row's entry, then its elements appended to the child vector.
template <typename Offset>
void copyLists(const ArrowSchema& schema, const ArrowArray& array, int64_t start, idx_t count,
               duckdb_vector vector, idx_t at) {
  const Offset* offsets = buffer<Offset>(array, 1) + array.offset + start;
  const idx_t first = static_cast<idx_t>(offsets[0]);
  const idx_t elements = static_cast<idx_t>(offsets[count] - offsets[0]);
  const idx_t base = duckdb_list_vector_get_size(vector);
  if (duckdb_list_vector_reserve(vector, base + elements) != DuckDBSuccess ||
      duckdb_list_vector_set_size(vector, base + elements) != DuckDBSuccess) {
    throw std::bad_alloc();
  }
  auto* entries = dataOf<duckdb_list_entry>(vector);
  for (idx_t i = 0; i < count; ++i) {
    entries[at + i] = {base + static_cast<idx_t>(offsets[i]) - first,
                       static_cast<idx_t>(offsets[i + 1] - offsets[i])};
  }
  copyRows(*schema.children[0], *array.children[0], static_cast<int64_t>(first), elements,
           duckdb_list_vector_get_child(vector), base);
}

template <typename T>
void copyFixed(const ArrowArray& array, int64_t start, idx_t count, duckdb_vector vector,
               idx_t at) {
  std::memcpy(dataOf<T>(vector) + at, buffer<T>(array, 1) + array.offset + start,
              count * sizeof(T));
}

void copyRows(const ArrowSchema& schema, const ArrowArray& array, int64_t start, idx_t count,
              duckdb_vector vector, idx_t at) {
  if (count == 0) return;
  copyValidity(array, start, count, vector, at);
  const std::string_view format = schema.format;
  if (format == "b") {
    bool* out = dataOf<bool>(vector) + at;
    for (idx_t i = 0; i < count; ++i) {
      out[i] = bitSet(array.buffers[1], array.offset + start + static_cast<int64_t>(i));
    }
  } else if (format == "i" || format == "I") {
    copyFixed<uint32_t>(array, start, count, vector, at);
  } else if (format == "f") {
    copyFixed<float>(array, start, count, vector, at);
  } else if (format == "l" || format == "L" || format == "g" || format.starts_with("tsu:")) {
    copyFixed<uint64_t>(array, start, count, vector, at);
  } else if (format == "tDu") {
    const int64_t* micros = buffer<int64_t>(array, 1) + array.offset + start;
    auto* out = dataOf<duckdb_interval>(vector) + at;
    for (idx_t i = 0; i < count; ++i) out[i] = {0, 0, micros[i]};
  } else if (format == "u" || format == "z") {
    copyStrings<int32_t>(array, start, count, vector, at);
  } else if (format == "U" || format == "Z") {
    copyStrings<int64_t>(array, start, count, vector, at);
  } else if (format == "+l" || format == "+m") {
    copyLists<int32_t>(schema, array, start, count, vector, at);
  } else if (format == "+L") {
    copyLists<int64_t>(schema, array, start, count, vector, at);
  } else if (format == "+s") {
    for (int64_t c = 0; c < schema.n_children; ++c) {
      duckdb_vector child = duckdb_struct_vector_get_child(vector, static_cast<idx_t>(c));
      copyRows(*schema.children[c], *array.children[c], array.offset + start, count, child, at);
      // A NULL struct holds NULL members too.
      if (array.null_count != 0 && array.buffers[0] != nullptr) {
        copyValidity(array, start, count, child, at);
      }
    }
  } else {
    throw std::invalid_argument("no DuckDB type for the Arrow format \"" + std::string(format) +
                                "\"");
  }
}

}  // namespace

duckdb_logical_type logicalTypeOf(const ArrowSchema& schema) {
  const std::string_view format = schema.format;
  const auto simple = [](duckdb_type type) { return duckdb_create_logical_type(type); };
  if (format == "b") return simple(DUCKDB_TYPE_BOOLEAN);
  if (format == "i") return simple(DUCKDB_TYPE_INTEGER);
  if (format == "I") return simple(DUCKDB_TYPE_UINTEGER);
  if (format == "l") return simple(DUCKDB_TYPE_BIGINT);
  if (format == "L") return simple(DUCKDB_TYPE_UBIGINT);
  if (format == "f") return simple(DUCKDB_TYPE_FLOAT);
  if (format == "g") return simple(DUCKDB_TYPE_DOUBLE);
  if (format == "u" || format == "U") return simple(DUCKDB_TYPE_VARCHAR);
  if (format == "z" || format == "Z") return simple(DUCKDB_TYPE_BLOB);
  if (format.starts_with("tsu:")) return simple(DUCKDB_TYPE_TIMESTAMP_TZ);
  if (format == "tDu") return simple(DUCKDB_TYPE_INTERVAL);
  if (format == "+l" || format == "+L") {
    duckdb_logical_type element = logicalTypeOf(*schema.children[0]);
    duckdb_logical_type list = duckdb_create_list_type(element);
    duckdb_destroy_logical_type(&element);
    return list;
  }
  if (format == "+m") {
    const ArrowSchema& entries = *schema.children[0];
    duckdb_logical_type key = logicalTypeOf(*entries.children[0]);
    duckdb_logical_type value = logicalTypeOf(*entries.children[1]);
    duckdb_logical_type map = duckdb_create_map_type(key, value);
    duckdb_destroy_logical_type(&key);
    duckdb_destroy_logical_type(&value);
    return map;
  }
  if (format == "+s") {
    std::vector<duckdb_logical_type> members;
    std::vector<const char*> names;
    try {
      for (int64_t c = 0; c < schema.n_children; ++c) {
        members.push_back(logicalTypeOf(*schema.children[c]));
        names.push_back(schema.children[c]->name);
      }
    } catch (...) {
      for (duckdb_logical_type& member : members) duckdb_destroy_logical_type(&member);
      throw;
    }
    duckdb_logical_type result =
        duckdb_create_struct_type(members.data(), names.data(), members.size());
    for (duckdb_logical_type& member : members) duckdb_destroy_logical_type(&member);
    return result;
  }
  throw std::invalid_argument("no DuckDB type for the Arrow format \"" + std::string(format) +
                              "\"");
}

void copyColumn(const ArrowSchema& schema, const ArrowArray& array, idx_t count,
                duckdb_vector vector) {
  copyRows(schema, array, 0, count, vector, 0);
}

}  // namespace ostrel::duckdb
