// The Python module `ostrel`: schemas loaded at run time, values read out of encoded records
// without parsing them whole, ProtoJSON and text format both ways. The reference is the .pyi stub
// beside this file; docstrings here are what help() shows.
//
// Threads: a SchemaStore and its MessageSchemas are immutable once made and may be shared between
// threads. Every method takes its records as borrowed buffers for the duration of the call only;
// the GIL is released while whole records are rendered or parsed and while project reads its
// records, so a bytearray must not be changed by another thread while a call reads it (it cannot
// be resized meanwhile). Tables are immutable too.

#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "errors.hpp"
#include "ostrel/ostrel.hpp"
#include "table.hpp"
#include "values.hpp"

namespace py = pybind11;

namespace ostrel::python {
namespace {

// A message schema as Python holds it: with its store, which it keeps alive, so that types
// resolved later (nested messages, enums) are always found.
struct Schema {
  SchemaStore store;
  MessageSchema schema;
};

ReadMode readMode(bool exact) { return exact ? ReadMode::exact : ReadMode::first; }

py::bytes toPyBytes(ByteView bytes) {
  return py::bytes(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

DescriptorImportOptions::Groups groupsNamed(std::string_view name) {
  if (name == "refuse") return DescriptorImportOptions::Groups::refuse;
  if (name == "skip") return DescriptorImportOptions::Groups::skip;
  if (name == "read") return DescriptorImportOptions::Groups::read;
  throw py::value_error("groups must be 'refuse', 'skip' or 'read', not '" + std::string(name) +
                        "'");
}

SchemaStore fromDescriptorSet(const py::object& data, std::string_view groups) {
  const RecordBuffer buffer(data);
  DescriptorImportOptions options;
  options.groups = groupsNamed(groups);
  return SchemaStore(schemaManifestFromDescriptorSet(buffer.bytes(), options));
}

// A str is the text of one .proto file; a path (os.PathLike) or a sequence of paths names files.
SchemaStore fromProto(const py::object& source, const std::optional<py::object>& include) {
  if (py::isinstance<py::str>(source)) {
    if (include && !include->is_none() && py::len(*include) > 0) {
      throw py::value_error(
          "include applies to .proto files named by path; text can import only "
          "google/protobuf/*.proto");
    }
    return SchemaStore(schemaManifestFromProtoText(source.cast<std::string>()));
  }
  const py::module_ os = py::module_::import("os");
  std::vector<std::string> files;
  if (py::isinstance(source, os.attr("PathLike"))) {
    files.push_back(os.attr("fspath")(source).cast<std::string>());
  } else {
    for (const py::handle& file : source) {
      files.push_back(os.attr("fspath")(file).cast<std::string>());
    }
  }
  if (files.empty()) throw py::value_error("no .proto files given");
  std::vector<std::string> includePaths;
  if (include && !include->is_none()) {
    for (const py::handle& path : *include) {
      includePaths.push_back(os.attr("fspath")(path).cast<std::string>());
    }
  } else {
    // As protoc without -I: each file's own folder.
    for (const std::string& file : files) {
      const std::string folder = std::filesystem::path(file).parent_path().string();
      const std::string path = folder.empty() ? "." : folder;
      if (std::find(includePaths.begin(), includePaths.end(), path) == includePaths.end()) {
        includePaths.push_back(path);
      }
    }
  }
  return SchemaStore(schemaManifestFromProtoFiles(files, includePaths));
}

py::object get(const Schema& self, const py::object& record, std::string_view path, bool exact) {
  const RecordBuffer buffer(record);
  const ReadMode mode = readMode(exact);
  if (const std::optional<RepeatedTarget> target = repeatedTarget(self.schema, path)) {
    std::optional<AnyValue> holder;
    const std::optional<ByteView> container =
        containerBytes(self.schema, buffer.bytes(), *target, mode, holder);
    if (!container) return py::none();
    return repeatedToPython(*container, target->field, mode);
  }
  const std::optional<AnyValue> value =
      UnsafeSchematizedData(self.schema.impl(), buffer.bytes()).value(path, mode);
  return value ? toPython(*value, mode) : py::none();
}

bool has(const Schema& self, const py::object& record, std::string_view path, bool exact) {
  const RecordBuffer buffer(record);
  const ReadMode mode = readMode(exact);
  if (const std::optional<RepeatedTarget> target = repeatedTarget(self.schema, path)) {
    std::optional<AnyValue> holder;
    const std::optional<ByteView> container =
        containerBytes(self.schema, buffer.bytes(), *target, mode, holder);
    if (!container) return false;
    Schematizer::RepeatableFieldIterator elements(*container, target->field.fieldNumber(),
                                                  target->field.type(), mode);
    return elements.next().has_value();
  }
  return UnsafeSchematizedData(self.schema.impl(), buffer.bytes()).value(path, mode).has_value();
}

// The elements of one repeated field of one record, read one at a time from a copy of the
// message holding them.
class ElementIterator {
 public:
  ElementIterator(const Schema& schema, const py::object& record, std::string_view path, bool exact)
      : schema_(schema), mode_(readMode(exact)) {
    const RecordBuffer buffer(record);
    const std::optional<RepeatedTarget> target = repeatedTarget(schema.schema, path);
    if (!target) {
      throw SchematizerError::unexpectedType(std::string(path) +
                                             " does not name a repeated field without an index");
    }
    std::optional<AnyValue> holder;
    const std::optional<ByteView> container =
        containerBytes(schema.schema, buffer.bytes(), *target, mode_, holder);
    elements_.emplace(container ? *container : ByteView(), target->field.fieldNumber(),
                      target->field.type(), mode_);
  }

  py::object next() {
    const std::optional<AnyValue> element = elements_->next();
    if (!element) throw py::stop_iteration();
    return toPython(*element, mode_);
  }

 private:
  Schema schema_;
  ReadMode mode_;
  std::optional<Schematizer::RepeatableFieldIterator> elements_;
};

std::string recordJson(const Schema& self, const py::object& record, bool indent, bool jsonNames,
                       bool enumsAsNumbers, bool printDefaults, bool strict) {
  const RecordBuffer buffer(record);
  JsonOptions options;
  options.style = indent ? JsonStyle::indented : JsonStyle::compact;
  options.jsonNames = jsonNames;
  options.enumsAsNumbers = enumsAsNumbers;
  options.printDefaults = printDefaults;
  options.strict = strict;
  const py::gil_scoped_release released;
  return renderJSON(UnsafeSchematizedData(self.schema.impl(), buffer.bytes()), options);
}

py::bytes jsonRecord(const Schema& self, std::string_view text, bool ignoreUnknownFields) {
  JsonParseOptions options;
  options.ignoreUnknownFields = ignoreUnknownFields;
  std::optional<SchematizedData> data;
  {
    const py::gil_scoped_release released;
    data = parseJSON(self.schema, text, options);
  }
  return toPyBytes(data->bytes());
}

std::string recordText(const Schema& self, const py::object& record) {
  const RecordBuffer buffer(record);
  const py::gil_scoped_release released;
  return renderText(UnsafeSchematizedData(self.schema.impl(), buffer.bytes()));
}

py::bytes textRecord(const Schema& self, std::string_view text) {
  std::optional<SchematizedData> data;
  {
    const py::gil_scoped_release released;
    data = parseText(self.schema, text);
  }
  return toPyBytes(data->bytes());
}

std::vector<std::string> sorted(const std::set<std::string>& names) {
  return {names.begin(), names.end()};
}

}  // namespace
}  // namespace ostrel::python

PYBIND11_MODULE(ostrel, m) {
  using namespace ostrel;
  using namespace ostrel::python;
  m.doc() =
      "Typed access to Protocol Buffers records whose schema is known only at run time.\n\n"
      "Load a SchemaStore (descriptor set, .proto text or files, JSON manifest), look up a\n"
      "MessageSchema, and read values out of encoded records by property path (a.b[2].c)\n"
      "without parsing them whole. Errors are ostrel.Error subclasses.\n\n"
      "Threads: stores and schemas are immutable and may be shared between threads.";
  m.attr("__version__") = OSTREL_PYTHON_VERSION;

  defineErrors(m);
  defineTable(m);

  py::class_<SchemaStore>(m, "SchemaStore",
                          "A set of message and enum schemas. Stores are immutable; a "
                          "MessageSchema keeps its store alive.")
      .def_static("from_descriptor_set", &fromDescriptorSet, py::arg("data"), py::kw_only(),
                  py::arg("groups") = "refuse",
                  "A store of a serialized google.protobuf.FileDescriptorSet, as `protoc "
                  "--descriptor_set_out --include_imports` writes it. groups: what proto2 groups "
                  "do, 'refuse' (an error), 'skip' (left out) or 'read' (read as messages).")
      .def_static("from_proto", &fromProto, py::arg("source"), py::kw_only(),
                  py::arg("include") = py::none(),
                  "A store of .proto schemas parsed at run time. source: a str is the text of one "
                  ".proto file (which may import only google/protobuf/*.proto); a path or a list "
                  "of paths names files, found in the `include` folders (by default each file's "
                  "own folder), with their imports.")
      .def_static(
          "from_manifest",
          [](const py::object& json) {
            std::string text = py::isinstance<py::str>(json) ? json.cast<std::string>()
                                                             : std::string(py::bytes(json));
            return SchemaStore(schemaManifestFromJSON(text));
          },
          py::arg("json"), "A store of the library's JSON manifest form (str or bytes).")
      .def(
          "message",
          [](const SchemaStore& store, std::string_view name) {
            return Schema{store, store.messageSchema(name)};
          },
          py::arg("name"),
          "The schema of the message type with this full name, for example 'shop.Order'. "
          "Raises SchematizerError (schemaNotFound) for a name the store does not have.")
      .def(
          "message_names", [](const SchemaStore& s) { return sorted(s.messageSchemaNames()); },
          "The full names of every message type, sorted.")
      .def(
          "enum_names", [](const SchemaStore& s) { return sorted(s.enumSchemaNames()); },
          "The full names of every enum type, sorted.")
      .def("__contains__",
           [](const SchemaStore& s, std::string_view name) {
             return s.impl()->hasMessageSchemaNamed(name);
           })
      .def("__repr__", [](const SchemaStore& s) {
        return "<ostrel.SchemaStore of " + std::to_string(s.messageSchemaNames().size()) +
               " messages>";
      });

  py::class_<ElementIterator>(m, "ElementIterator",
                              "The elements of a repeated field, read one at a time.")
      .def("__iter__", [](py::object self) { return self; })
      .def("__next__", &ElementIterator::next);

  py::class_<Schema>(m, "MessageSchema",
                     "The schema of one message type: reads values out of its encoded records.\n\n"
                     "A record is any bytes-like object (bytes, bytearray, memoryview, mmap), "
                     "borrowed for the call. A path is field names joined by dots, with an index "
                     "after a repeated field: 'customer.name', 'items[0].sku'. exact=True reads "
                     "as protobuf's parse does where a record holds a field more than once (the "
                     "last scalar wins, messages merge); by default the first occurrence is read.")
      .def_property_readonly(
          "name", [](const Schema& s) { return s.schema.name(); },
          "The full name, for example 'shop.Order'.")
      .def_property_readonly(
          "field_names", [](const Schema& s) { return s.schema.allFieldNames(); },
          "The field names, in ascending field number.")
      .def("get", &get, py::arg("record"), py::arg("path"), py::kw_only(), py::arg("exact") = false,
           "The value at `path`, or None when the record does not hold it. int, float, bool, "
           "str, bytes; an enum value's name (its number when the enum has no name for it); a "
           "dict of the fields present for a message; a list for a repeated field named without "
           "an index, a dict for a map field (empty when the message holding it has none; None "
           "when that message is absent).")
      .def("has", &has, py::arg("record"), py::arg("path"), py::kw_only(), py::arg("exact") = false,
           "Whether the record holds a value at `path` (for a repeated field named without an "
           "index: at least one element).")
      .def(
          "iterate",
          [](const Schema& self, const py::object& record, std::string_view path, bool exact) {
            return ElementIterator(self, record, path, exact);
          },
          py::arg("record"), py::arg("path"), py::kw_only(), py::arg("exact") = false,
          "An iterator over the elements of the repeated field at `path` (named without an "
          "index), as get() gives them; map fields yield their entries as {'key': ..., "
          "'value': ...}. The iterator holds its own copy of the message it reads.")
      .def(
          "to_dict",
          [](const Schema& self, const py::object& record, bool exact) {
            const RecordBuffer buffer(record);
            return messageToDict(self.schema.schematizedData(toBytes(buffer.bytes())),
                                 readMode(exact));
          },
          py::arg("record"), py::kw_only(), py::arg("exact") = false,
          "Every field the record holds, by name, as get() gives each.")
      .def(
          "project",
          [](const Schema& self, const py::object& records, const std::vector<std::string>& paths,
             const std::string& framing, bool exact, const std::string& enums, bool defaults,
             bool nullRowOnError, const std::string& explode) {
            return project(self.schema, records, paths, framing, exact, enums, defaults,
                           nullRowOnError, explode);
          },
          py::arg("records"), py::arg("paths"), py::kw_only(), py::arg("framing") = "varint",
          py::arg("exact") = false, py::arg("enums") = "dictionary", py::arg("defaults") = false,
          py::arg("null_row_on_error") = false, py::arg("explode") = "",
          "A Table of `paths` read from many records, one column per path, one row per record. "
          "records: an iterable of bytes-like records; a bytes-like buffer, or a file path (str "
          "or os.PathLike, memory-mapped), holding records framed as `framing` says: "
          "'varint' (each preceded by its length as a varint), 'u32be' (by its length as a "
          "big-endian 32-bit integer, -1 for a null record) or 'single' (one record). "
          "A path may end at a repeated field (a list column), a map (a map column) or a "
          "message (a struct column); 'items[*].sku' reads a leaf of every element. enums: "
          "'dictionary' (names, as a dictionary), 'strings' or 'numbers'; defaults: absent "
          "scalars read as their zero value instead of null; null_row_on_error: a record that "
          "cannot be read becomes a row of nulls instead of raising ColumnError; explode: a "
          "repeated field among the paths whose elements become the rows. The GIL is released "
          "while the records are read, so a bytearray must not change meanwhile.")
      .def("to_json", &recordJson, py::arg("record"), py::kw_only(), py::arg("indent") = false,
           py::arg("json_names") = false, py::arg("enums_as_numbers") = false,
           py::arg("print_defaults") = false, py::arg("strict") = false,
           "The record as ProtoJSON text. indent: one member a line; json_names: members under "
           "their JSON names (lowerCamelCase); enums_as_numbers; print_defaults: fields without "
           "presence written with their defaults; strict: a fault in the record raises instead "
           "of being written as the field's error text.")
      .def("from_json", &jsonRecord, py::arg("text"), py::kw_only(),
           py::arg("ignore_unknown_fields") = false,
           "The encoded record that ProtoJSON `text` describes.")
      .def("to_text", &recordText, py::arg("record"),
           "The record in protobuf's text format, as `protoc --decode` prints it.")
      .def("from_text", &textRecord, py::arg("text"),
           "The encoded record that text-format `text` describes, as `protoc --encode` writes it.")
      .def("__repr__",
           [](const Schema& s) { return "<ostrel.MessageSchema " + s.schema.name() + ">"; });
}
