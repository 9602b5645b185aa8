// The parts of the extension module mroute._mroute, one per concept: value
// types (Values.cpp), shared tables mounted read-only (Tables.cpp), and the
// generic attribute interface of entities with a few factories
// (Entities.cpp). Module.cpp joins them and maps the framework's exceptions
// to Python ones.
#pragma once

#include <pybind11/pybind11.h>

#include <string>

namespace MroutePython {

namespace py = pybind11;

void bindValues(py::module_& m);
void bindTables(py::module_& m);
void bindEntities(py::module_& m);

// The value text form of a Python argument: a str is taken as text form
// already; True/False, None and numbers are written as the text form writes
// them; anything else (the bound value types) through its repr().
std::string textOf(py::handle value);

}  // namespace MroutePython
