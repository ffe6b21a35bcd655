#include "table.hpp"

#include <fcntl.h>
#include <pybind11/numpy.h>
#include <pybind11/stl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "values.hpp"

namespace py = pybind11;

namespace ostrel::python {
namespace {

// A whole file mapped read-only for the duration of one projection.
class Mapping {
 public:
  explicit Mapping(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) throwOSError(path);
    struct stat status {};
    if (::fstat(fd, &status) != 0) {
      ::close(fd);
      throwOSError(path);
    }
    size_ = static_cast<size_t>(status.st_size);
    if (size_ > 0) {
      void* base = ::mmap(nullptr, size_, PROT_READ, MAP_PRIVATE, fd, 0);
      if (base == MAP_FAILED) {
        ::close(fd);
        throwOSError(path);
      }
      base_ = static_cast<const std::byte*>(base);
      ::madvise(base, size_, MADV_SEQUENTIAL);
    }
    ::close(fd);
  }
  ~Mapping() {
    if (base_) ::munmap(const_cast<std::byte*>(base_), size_);
  }
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;

  ByteView bytes() const noexcept { return {base_, size_}; }

 private:
  [[noreturn]] static void throwOSError(const std::string& path) {
    PyErr_SetFromErrnoWithFilename(PyExc_OSError, path.c_str());
    throw py::error_already_set();
  }

  const std::byte* base_ = nullptr;
  size_t size_ = 0;
};

// The batches of one projection and what reading them needs. Shared by the Table, the numpy
// arrays viewing its buffers and every exported stream and array, so each may outlive the others.
struct TableData {
  explicit TableData(ColumnProjection columns) : projection(std::move(columns)) {
    projection.exportSchema(&schema);
  }
  ~TableData() {
    for (ArrowArray& batch : batches) {
      if (batch.release) batch.release(&batch);
    }
    if (schema.release) schema.release(&schema);
  }
  TableData(const TableData&) = delete;
  TableData& operator=(const TableData&) = delete;

  ColumnProjection projection;
  ArrowSchema schema{};
  std::vector<ArrowArray> batches;
  int64_t rows = 0;
  int64_t failed = 0;
};

using Shared = std::shared_ptr<const TableData>;

bool bitAt(const void* bitmap, int64_t i) {
  return (static_cast<const uint8_t*>(bitmap)[i >> 3] >> (i & 7)) & 1;
}

bool isNull(const ArrowArray& array, int64_t i) {
  return array.null_count != 0 && array.buffers[0] != nullptr && !bitAt(array.buffers[0], i);
}

template <typename T>
T at(const ArrowArray& array, int buffer, int64_t i) {
  return static_cast<const T*>(array.buffers[buffer])[i];
}

std::string_view formatOf(const ArrowSchema& schema) { return schema.format; }

// A new reference to the str (utf8) or bytes (binary) at physical index `i`, or to None.
PyObject* textAt(std::string_view format, const ArrowArray& array, int64_t i) {
  if (isNull(array, i)) {
    Py_INCREF(Py_None);
    return Py_None;
  }
  const bool large = format == "U" || format == "Z";
  const int64_t start = large ? at<int64_t>(array, 1, i) : at<int32_t>(array, 1, i);
  const int64_t end = large ? at<int64_t>(array, 1, i + 1) : at<int32_t>(array, 1, i + 1);
  const char* bytes = static_cast<const char*>(array.buffers[2]) + start;
  const auto size = static_cast<Py_ssize_t>(end - start);
  PyObject* value = format == "u" || format == "U" ? PyUnicode_DecodeUTF8(bytes, size, nullptr)
                                                   : PyBytes_FromStringAndSize(bytes, size);
  if (value == nullptr) throw py::error_already_set();
  return value;
}

// The value at logical index `index` of any array this projection makes, as to_pydict gives
// values inside lists, maps and structs.
py::object valueAt(const ArrowSchema& schema, const ArrowArray& array, int64_t index) {
  const int64_t i = index + array.offset;
  if (isNull(array, i)) return py::none();
  if (schema.dictionary != nullptr) {
    return valueAt(*schema.dictionary, *array.dictionary, at<int32_t>(array, 1, i));
  }
  const std::string_view format = formatOf(schema);
  if (format == "b") return py::bool_(bitAt(array.buffers[1], i));
  if (format == "i") return py::int_(at<int32_t>(array, 1, i));
  if (format == "I") return py::int_(at<uint32_t>(array, 1, i));
  if (format == "l") return py::int_(at<int64_t>(array, 1, i));
  if (format == "L") return py::int_(at<uint64_t>(array, 1, i));
  if (format == "f") return py::float_(at<float>(array, 1, i));
  if (format == "g") return py::float_(at<double>(array, 1, i));
  if (format == "u" || format == "z" || format == "U" || format == "Z") {
    return py::reinterpret_steal<py::object>(textAt(format, array, i));
  }
  if (format.starts_with("ts") || format.starts_with("tD")) {
    // numpy's datetime64 or timedelta64 in the column's unit.
    const char* unit = format[2] == 'n' ? "ns" : "us";
    return py::module_::import("numpy").attr(format[1] == 's' ? "datetime64" : "timedelta64")(
        at<int64_t>(array, 1, i), unit);
  }
  if (format == "+l" || format == "+L" || format == "+m") {
    const bool large = format == "+L";
    const int64_t start = large ? at<int64_t>(array, 1, i) : at<int32_t>(array, 1, i);
    const int64_t end = large ? at<int64_t>(array, 1, i + 1) : at<int32_t>(array, 1, i + 1);
    const ArrowSchema& childSchema = *schema.children[0];
    const ArrowArray& child = *array.children[0];
    if (format == "+m") {
      // Entries: a struct of key and value.
      py::dict out;
      const ArrowArray& entries = child;
      for (int64_t e = start; e < end; ++e) {
        const int64_t row = e + entries.offset;
        out[valueAt(*childSchema.children[0], *entries.children[0], row)] =
            valueAt(*childSchema.children[1], *entries.children[1], row);
      }
      return out;
    }
    py::list out;
    for (int64_t e = start; e < end; ++e) out.append(valueAt(childSchema, child, e));
    return out;
  }
  if (format == "+s") {
    py::dict out;
    for (int64_t c = 0; c < schema.n_children; ++c) {
      out[py::str(schema.children[c]->name)] = valueAt(*schema.children[c], *array.children[c], i);
    }
    return out;
  }
  throw py::type_error("Arrow format \"" + std::string(format) + "\" has no Python form here");
}

// numpy's dtype for a column whose values a numpy array can view in place; none for the others.
std::optional<std::string> numpyType(std::string_view format) {
  if (format == "i") return "int32";
  if (format == "I") return "uint32";
  if (format == "l") return "int64";
  if (format == "L") return "uint64";
  if (format == "f") return "float32";
  if (format == "g") return "float64";
  if (format.starts_with("tsu")) return "datetime64[us]";
  if (format.starts_with("tsn")) return "datetime64[ns]";
  if (format == "tDu") return "timedelta64[us]";
  if (format == "tDn") return "timedelta64[ns]";
  return std::nullopt;
}

// One column of the table, gathered over its batches.
struct Column {
  py::object values;  // numpy array, or list
  py::object mask;    // numpy bool array (True where null), or None
};

py::array viewOf(const Shared& data, const ArrowArray& child, const std::string& dtype) {
  const py::dtype type(dtype);
  const auto itemSize = static_cast<int64_t>(type.itemsize());
  const char* start = static_cast<const char*>(child.buffers[1]) + child.offset * itemSize;
  py::capsule owner(new Shared(data), [](void* held) { delete static_cast<Shared*>(held); });
  py::array view(type, {child.length}, {itemSize}, start, owner);
  view.attr("setflags")(py::arg("write") = false);
  return view;
}

py::object maskOf(const ArrowArray& child) {
  if (child.null_count == 0 || child.buffers[0] == nullptr) return py::none();
  py::array_t<bool> mask(child.length);
  bool* out = mask.mutable_data();
  for (int64_t i = 0; i < child.length; ++i) out[i] = !bitAt(child.buffers[0], i + child.offset);
  return mask;
}

Column columnOf(const Shared& data, int64_t c) {
  const ArrowSchema& schema = *data->schema.children[c];
  const std::optional<std::string> dtype =
      schema.dictionary ? std::nullopt : numpyType(formatOf(schema));
  const py::module_ numpy = py::module_::import("numpy");
  if (dtype || formatOf(schema) == "b") {
    py::list parts, masks;
    bool anyNull = false;
    for (const ArrowArray& batch : data->batches) {
      const ArrowArray& child = *batch.children[c];
      if (dtype) {
        parts.append(viewOf(data, child, *dtype));
      } else {
        py::array_t<bool> bits(child.length);
        bool* out = bits.mutable_data();
        for (int64_t i = 0; i < child.length; ++i) {
          out[i] = bitAt(child.buffers[1], i + child.offset);
        }
        parts.append(bits);
      }
      py::object mask = maskOf(child);
      anyNull = anyNull || !mask.is_none();
      masks.append(mask.is_none() ? py::object(numpy.attr("zeros")(child.length, "bool")) : mask);
    }
    // One batch (the usual case) is viewed in place; several are joined, which copies.
    py::object values = parts.size() == 1 ? py::object(parts[0])
                        : parts.size() == 0
                            ? py::object(numpy.attr("empty")(0, dtype ? *dtype : "bool"))
                            : py::object(numpy.attr("concatenate")(parts));
    py::object mask = !anyNull            ? py::none()
                      : masks.size() == 1 ? py::object(masks[0])
                                          : py::object(numpy.attr("concatenate")(masks));
    return {values, mask};
  }
  py::list values(static_cast<size_t>(data->rows));
  size_t row = 0;
  const std::string_view format = formatOf(schema);
  const bool text = format == "u" || format == "U" || format == "z" || format == "Z";
  for (const ArrowArray& batch : data->batches) {
    const ArrowArray& child = *batch.children[c];
    for (int64_t i = 0; i < child.length; ++i) {
      // Strings and bytes straight from the buffers: the common case, made without the general
      // dispatch.
      PyObject* value = text ? textAt(format, child, i + child.offset)
                             : valueAt(schema, child, i).release().ptr();
      PyList_SET_ITEM(values.ptr(), static_cast<Py_ssize_t>(row++), value);
    }
  }
  return {values, py::none()};
}

py::dict toPydict(const Shared& data) {
  py::dict out;
  const py::module_ numpy = py::module_::import("numpy");
  for (int64_t c = 0; c < data->schema.n_children; ++c) {
    Column column = columnOf(data, c);
    out[py::str(data->schema.children[c]->name)] =
        column.mask.is_none() ? column.values
                              : numpy.attr("ma").attr("MaskedArray")(column.values, column.mask);
  }
  return out;
}

py::object toPandas(const Shared& data) {
  const py::module_ pandas = py::module_::import("pandas");
  const py::module_ numpy = py::module_::import("numpy");
  py::dict columns;
  for (int64_t c = 0; c < data->schema.n_children; ++c) {
    const ArrowSchema& schema = *data->schema.children[c];
    py::str name(schema.name);
    // An enum column of one batch: a Categorical over the dictionary's names.
    if (schema.dictionary != nullptr && data->batches.size() == 1) {
      const ArrowArray& child = *data->batches[0].children[c];
      py::array_t<int32_t> codes(child.length);
      int32_t* out = codes.mutable_data();
      for (int64_t i = 0; i < child.length; ++i) {
        out[i] = isNull(child, i + child.offset) ? -1 : at<int32_t>(child, 1, i + child.offset);
      }
      py::list categories;
      for (int64_t d = 0; d < child.dictionary->length; ++d) {
        categories.append(valueAt(*schema.dictionary, *child.dictionary, d));
      }
      columns[name] = pandas.attr("Categorical").attr("from_codes")(codes, categories);
      continue;
    }
    Column column = columnOf(data, c);
    if (py::isinstance<py::list>(column.values)) {
      // An object array, which pandas takes as it is (a list it would scan for a type).
      const auto size = static_cast<py::ssize_t>(py::len(column.values));
      py::array objects(py::dtype("O"), std::vector<py::ssize_t>{size});
      auto** slots = static_cast<PyObject**>(objects.mutable_data());
      for (py::ssize_t i = 0; i < size; ++i) {
        PyObject* item = PyList_GET_ITEM(column.values.ptr(), i);
        Py_INCREF(item);
        Py_XSETREF(slots[i], item);
      }
      columns[name] = objects;
      continue;
    }
    if (column.mask.is_none()) {
      columns[name] = column.values;
      continue;
    }
    // Nulls: pandas' masked arrays over the same values, or NaT for times.
    const std::string kind = py::str(column.values.attr("dtype").attr("kind"));
    const py::object arrays = pandas.attr("arrays");
    if (kind == "i" || kind == "u") {
      columns[name] = arrays.attr("IntegerArray")(column.values, column.mask);
    } else if (kind == "f") {
      columns[name] = arrays.attr("FloatingArray")(column.values, column.mask);
    } else if (kind == "b") {
      columns[name] = arrays.attr("BooleanArray")(column.values, column.mask);
    } else {
      py::object values = column.values.attr("copy")();
      values.attr("__setitem__")(column.mask, numpy.attr("datetime64")("NaT"));
      columns[name] = values;
    }
  }
  return pandas.attr("DataFrame")(columns, py::arg("copy") = false);
}

// Exported arrays: shallow copies of the table's own, each child and dictionary wrapped too so a
// consumer may move any of them out and release it on its own; each holds the table's data.
struct SharedArray {
  SharedArray() = default;
  SharedArray(const SharedArray&) = delete;
  SharedArray& operator=(const SharedArray&) = delete;
  // Releases what the consumer has not moved out (also after a failed export).
  ~SharedArray() {
    for (ArrowArray& child : children) {
      if (child.release) child.release(&child);
    }
    if (dictionary.release) dictionary.release(&dictionary);
  }

  Shared owner;
  std::vector<ArrowArray> children;
  std::vector<ArrowArray*> childPointers;
  ArrowArray dictionary{};
};

void releaseShared(ArrowArray* array) noexcept {
  if (array == nullptr || array->release == nullptr) return;
  delete static_cast<SharedArray*>(array->private_data);
  array->release = nullptr;
}

void exportShared(const Shared& owner, const ArrowArray& source, ArrowArray* out) {
  auto shared = std::make_unique<SharedArray>();
  shared->owner = owner;
  shared->children.resize(static_cast<size_t>(source.n_children));
  for (int64_t i = 0; i < source.n_children; ++i) {
    exportShared(owner, *source.children[i], &shared->children[i]);
    shared->childPointers.push_back(&shared->children[i]);
  }
  *out = source;
  out->children = shared->childPointers.data();
  if (source.dictionary != nullptr) {
    exportShared(owner, *source.dictionary, &shared->dictionary);
    out->dictionary = &shared->dictionary;
  }
  out->release = releaseShared;
  out->private_data = shared.release();
}

struct StreamState {
  Shared data;
  size_t next = 0;
};

// The callbacks are called from C: nothing may be thrown through them. Making the exported
// structures can fail only for want of memory.
int streamSchema(ArrowArrayStream* stream, ArrowSchema* out) noexcept {
  try {
    static_cast<StreamState*>(stream->private_data)->data->projection.exportSchema(out);
    return 0;
  } catch (...) {
    return ENOMEM;
  }
}

int streamNext(ArrowArrayStream* stream, ArrowArray* out) noexcept {
  auto* state = static_cast<StreamState*>(stream->private_data);
  if (state->next == state->data->batches.size()) {
    std::memset(out, 0, sizeof *out);  // the end: a released array
    return 0;
  }
  try {
    exportShared(state->data, state->data->batches[state->next], out);
  } catch (...) {
    return ENOMEM;
  }
  ++state->next;
  return 0;
}

const char* streamError(ArrowArrayStream*) noexcept { return nullptr; }

void releaseStream(ArrowArrayStream* stream) noexcept {
  if (stream == nullptr || stream->release == nullptr) return;
  delete static_cast<StreamState*>(stream->private_data);
  stream->release = nullptr;
}

// A PyCapsule named `name` owning a heap copy of `value`; the capsule's destructor releases what
// the consumer did not take.
template <typename T>
py::capsule ownedCapsule(const char* name, const T& value) {
  auto* held = new T(value);
  PyObject* capsule = PyCapsule_New(held, name, [](PyObject* self) {
    const char* capsuleName = PyCapsule_GetName(self);
    auto* inside = static_cast<T*>(PyCapsule_GetPointer(self, capsuleName));
    if (inside->release) inside->release(inside);
    delete inside;
  });
  if (!capsule) {
    delete held;
    throw py::error_already_set();
  }
  return py::reinterpret_steal<py::capsule>(capsule);
}

class Table {
 public:
  explicit Table(Shared data) : data_(std::move(data)) {}

  int64_t rows() const { return data_->rows; }
  int64_t failed() const { return data_->failed; }
  std::vector<std::string> columnNames() const {
    std::vector<std::string> names;
    for (int64_t c = 0; c < data_->schema.n_children; ++c) {
      names.emplace_back(data_->schema.children[c]->name);
    }
    return names;
  }
  py::dict pydict() const { return toPydict(data_); }
  py::object pandas() const { return toPandas(data_); }

  // Arrow's PyCapsule interface; a requested schema is not honoured (the table has one layout).
  py::capsule arrowStream(const py::object& /*requestedSchema*/) const {
    ArrowArrayStream stream{};
    stream.get_schema = streamSchema;
    stream.get_next = streamNext;
    stream.get_last_error = streamError;
    stream.release = releaseStream;
    stream.private_data = new StreamState{data_};
    return ownedCapsule("arrow_array_stream", stream);
  }
  py::capsule arrowSchema() const {
    ArrowSchema schema{};
    data_->projection.exportSchema(&schema);
    return ownedCapsule("arrow_schema", schema);
  }

 private:
  Shared data_;
};

ColumnOptions::Enums enumsNamed(std::string_view name) {
  if (name == "dictionary") return ColumnOptions::Enums::dictionary;
  if (name == "strings") return ColumnOptions::Enums::strings;
  if (name == "numbers") return ColumnOptions::Enums::numbers;
  throw py::value_error("enums must be 'dictionary', 'strings' or 'numbers', not '" +
                        std::string(name) + "'");
}

}  // namespace

py::object project(const MessageSchema& schema, const py::object& records,
                   const std::vector<std::string>& paths, const std::string& framing, bool exact,
                   const std::string& enums, bool defaults, bool nullRowOnError,
                   const std::string& explode) {
  const std::optional<Framing> framed = findFraming(framing);
  if (!framed) {
    throw py::value_error("framing must be 'varint', 'u32be' or 'single', not '" + framing + "'");
  }
  ColumnOptions options;
  // One batch, so that to_pydict views every numeric column in place; the projection still cuts
  // one before a column's data would pass 2 GiB.
  options.batchRows = std::numeric_limits<int64_t>::max();
  options.mode = exact ? ReadMode::exact : ReadMode::first;
  options.enums = enumsNamed(enums);
  options.defaults = defaults;
  options.nullRowOnError = nullRowOnError;
  options.explode = explode;
  auto data = std::make_shared<TableData>(ColumnProjection(schema, paths, options));

  // Everything the records need, held under the GIL, so that reading can go on without it.
  std::optional<RecordBuffer> buffer;
  std::optional<Mapping> mapping;
  py::list items;
  std::vector<std::unique_ptr<RecordBuffer>> itemBuffers;
  std::vector<ByteView> views;
  ByteView whole;
  const py::module_ os = py::module_::import("os");
  if (py::isinstance<py::str>(records) || py::isinstance(records, os.attr("PathLike"))) {
    mapping.emplace(os.attr("fspath")(records).cast<std::string>());
    whole = mapping->bytes();
  } else if (PyObject_CheckBuffer(records.ptr())) {
    buffer.emplace(records);
    whole = buffer->bytes();
  } else {
    items = py::list(records);
    views.reserve(items.size());
    for (const py::handle& item : items) {
      if (PyBytes_Check(item.ptr())) {
        // Immutable, and kept alive by `items`.
        views.emplace_back(reinterpret_cast<const std::byte*>(PyBytes_AS_STRING(item.ptr())),
                           static_cast<size_t>(PyBytes_GET_SIZE(item.ptr())));
      } else {
        itemBuffers.push_back(std::make_unique<RecordBuffer>(item));
        views.push_back(itemBuffers.back()->bytes());
      }
    }
  }
  const bool fromItems = !mapping && !buffer;

  {
    const py::gil_scoped_release released;
    size_t next = 0;
    const auto nextItem = [&]() -> std::optional<ByteView> {
      if (next == views.size()) return std::nullopt;
      return views[next++];
    };
    RecordSource source = fromItems ? RecordSource(nextItem) : RecordSource(whole, *framed);
    while (data->projection.fill(source)) {
      ArrowArray batch{};
      data->projection.takeBatch(&batch);
      data->rows += batch.length;
      data->batches.push_back(batch);
    }
    data->failed = data->projection.failedRecords();
  }
  return py::cast(Table(std::move(data)));
}

void defineTable(py::module_& module) {
  py::class_<Table>(module, "Table",
                    "Columns read from many records by MessageSchema.project, one per path, held "
                    "as Arrow record batches. Immutable: may be shared between threads. Arrays "
                    "and streams handed out keep the batches alive after the table is gone.")
      .def_property_readonly("num_rows", &Table::rows, "How many rows.")
      .def("__len__", &Table::rows)
      .def_property_readonly("column_names", &Table::columnNames, "The paths, as given, in order.")
      .def_property_readonly("failed_records", &Table::failed,
                             "Records that became rows of nulls (null_row_on_error=True).")
      .def("to_pydict", &Table::pydict,
           "{path: column}. Integer, float, timestamp and duration columns are read-only numpy "
           "arrays viewing the batch's buffers without a copy, bool columns numpy bool arrays; "
           "where a column holds nulls it is a numpy.ma.MaskedArray whose mask is True at the "
           "nulls. Other columns are lists: str, bytes, enum names, lists, dicts, None for null.")
      .def("to_pandas", &Table::pandas,
           "A pandas DataFrame, one column per path: numeric columns over the same buffers "
           "(pandas' nullable arrays where nulls occur), enums as Categorical.")
      .def("__arrow_c_stream__", &Table::arrowStream, py::arg("requested_schema") = py::none(),
           "Arrow's PyCapsule interface: an ArrowArrayStream over the batches, without a copy "
           "(pyarrow.table(t), polars.from_arrow(t), duckdb).")
      .def("__arrow_c_schema__", &Table::arrowSchema, "The batches' ArrowSchema, as a PyCapsule.")
      .def("__repr__", [](const Table& table) {
        return "<ostrel.Table " + std::to_string(table.rows()) + " rows x " +
               std::to_string(table.columnNames().size()) + " columns>";
      });
}

}  // namespace ostrel::python
