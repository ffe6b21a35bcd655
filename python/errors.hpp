#pragma once

// The library's errors as Python exceptions: ostrel.Error and one subclass per error class of the
// library, each carrying the library's text and its case as `code`.

#include <pybind11/pybind11.h>

namespace ostrel::python {

// Creates the exception classes in `module` and registers the translation of the library's errors
// into them.
void defineErrors(pybind11::module_& module);

}  // namespace ostrel::python
