#include "errors.hpp"

#include <string_view>

#include "ostrel/ostrel.hpp"

namespace py = pybind11;

namespace ostrel::python {
namespace {

// The classes, created once per interpreter by defineErrors and kept for the translator.
struct ErrorClasses {
  py::object base, schematizer, serialization, mergeConflict, manifestJSON, manifestDSC,
      propertyPath, column, framing;
};

ErrorClasses& classes() {
  // Lives as long as the process: the interpreter owns the classes, and the module is never
  // unloaded before it ends.
  static ErrorClasses* held = new ErrorClasses();
  return *held;
}

std::string_view codeName(SchemaManifestDSCError::Code code) {
  switch (code) {
    case SchemaManifestDSCError::Code::invalidValueType:
      return "invalidValueType";
    case SchemaManifestDSCError::Code::invalidDescriptor:
      return "invalidDescriptor";
    case SchemaManifestDSCError::Code::cannotLoadDescriptor:
      return "cannotLoadDescriptor";
  }
  return "";
}

std::string_view codeName(ColumnError::Code code) {
  switch (code) {
    case ColumnError::Code::recordFailed:
      return "recordFailed";
    case ColumnError::Code::unsupportedPath:
      return "unsupportedPath";
    case ColumnError::Code::batchFull:
      return "batchFull";
  }
  return "";
}

std::string_view codeName(PropertyPathUtil::Error::Code code) {
  using Code = PropertyPathUtil::Error::Code;
  switch (code) {
    case Code::missingPropertyName:
      return "missingPropertyName";
    case Code::propertyNameStartsWithIllegalCharacter:
      return "propertyNameStartsWithIllegalCharacter";
    case Code::missingIndex:
      return "missingIndex";
    case Code::negativeIndex:
      return "negativeIndex";
    case Code::missingClosingBracket:
      return "missingClosingBracket";
    case Code::missingSeparator:
      return "missingSeparator";
    case Code::zeroLengthPropertyPath:
      return "zeroLengthPropertyPath";
  }
  return "";
}

// Raises an instance of `type` holding the library's text, with `code` set to the case name.
void raise(const py::object& type, const Error& error, std::string_view code) {
  py::object instance = type(error.what());
  instance.attr("code") = py::str(code.data(), code.size());
  PyErr_SetObject(type.ptr(), instance.ptr());
}

py::object defineClass(py::module_& module, const char* name, const py::object& base,
                       const char* doc) {
  py::object type = py::reinterpret_steal<py::object>(
      PyErr_NewExceptionWithDoc((std::string("ostrel.") + name).c_str(), doc, base.ptr(), nullptr));
  if (!type) throw py::error_already_set();
  module.add_object(name, type);
  return type;
}

}  // namespace

void defineErrors(py::module_& module) {
  ErrorClasses& c = classes();
  c.base = defineClass(module, "Error", py::reinterpret_borrow<py::object>(PyExc_Exception),
                       "The base of every error the library raises. str() is the library's text; "
                       "`code` names the case, for example 'fieldNotFound'.");
  c.schematizer = defineClass(module, "SchematizerError", c.base,
                              "A fault of a request: an unknown name, a path the schema does not "
                              "have, JSON or text that does not describe the message.");
  c.serialization = defineClass(module, "SerializationError", c.base,
                                "A fault of the encoded bytes: malformed, cut short, or a wire "
                                "type that does not fit the field's type.");
  c.mergeConflict = defineClass(module, "MergeConflict", c.base,
                                "Two definitions of one type that cannot be merged.");
  c.manifestJSON = defineClass(module, "SchemaManifestJSONError", c.base,
                               "A JSON manifest or a .proto file that cannot be read as a schema.");
  c.manifestDSC = defineClass(module, "SchemaManifestDSCError", c.base,
                              "A descriptor set that cannot be imported.");
  c.propertyPath = defineClass(module, "PropertyPathError", c.base,
                               "A property path that breaks the grammar (name.name[index]...); "
                               "the text points at the offending character.");
  c.framing = defineClass(module, "FramingError", c.base,
                          "A stream of records whose framing breaks: a length prefix that is "
                          "malformed or runs past the end of the stream.");
  c.column = defineClass(module, "ColumnError", c.base,
                         "A record that could not become a row of a projection (recordFailed, "
                         "naming the record's number and byte offset), or a path that cannot "
                         "become a column (unsupportedPath).");

  py::register_exception_translator([](std::exception_ptr thrown) {
    const ErrorClasses& c = classes();
    try {
      if (thrown) std::rethrow_exception(thrown);
    } catch (const SchematizerError& error) {
      raise(c.schematizer, error, caseName(error.code()));
    } catch (const SerializationError& error) {
      raise(c.serialization, error, caseName(error.code()));
    } catch (const MergeConflict& error) {
      raise(c.mergeConflict, error, "conflict");
    } catch (const SchemaManifestJSONError& error) {
      raise(c.manifestJSON, error, "invalidValueType");
    } catch (const SchemaManifestDSCError& error) {
      raise(c.manifestDSC, error, codeName(error.code()));
    } catch (const PropertyPathUtil::Error& error) {
      raise(c.propertyPath, error, codeName(error.code()));
    } catch (const FramingError& error) {
      raise(c.framing, error, caseName(error.code()));
    } catch (const ColumnError& error) {
      raise(c.column, error, codeName(error.code()));
    } catch (const Error& error) {
      raise(c.base, error, "");
    }
  });
}

}  // namespace ostrel::python
