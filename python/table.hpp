#pragma once

// MessageSchema.project: many records read into Arrow record batches by the library's columnar
// projection, held by a Table that hands them to numpy and pandas (numeric columns without a copy)
// and to any Arrow consumer through the Arrow PyCapsule interface (__arrow_c_stream__).

#include <pybind11/pybind11.h>

#include "ostrel/ostrel.hpp"

namespace ostrel::python {

// Defines ostrel.Table and ostrel.ColumnError in `module`.
void defineTable(pybind11::module_& module);

// The table of `paths` read from `records`; the arguments as MessageSchema.project documents them.
pybind11::object project(const MessageSchema& schema, const pybind11::object& records,
                         const std::vector<std::string>& paths, const std::string& framing,
                         bool exact, const std::string& enums, bool defaults, bool nullRowOnError,
                         const std::string& explode);

}  // namespace ostrel::python
