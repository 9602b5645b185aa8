// mroute._mroute: the extension module behind the Python package "mroute".
//
// Errors raised by the library reach Python as
//   mroute.ParseError   (also a ValueError)   malformed value text
//   mroute.RangeError   (also a ValueError)   unknown attribute, read-only,
//                                             value out of range, full table
//   mroute.NameInUseError                     a name taken by another type
//   mroute.CorruptionError                    a shared table read inconsistent
//   OSError (errno set)                       a failed system call
// all but OSError subclasses of mroute.Error, with the library's message.
#include <Python.h>

#include <cerrno>

#include "Bind.h"
#include "Kiv/Exception.h"

namespace {

namespace py = pybind11;

PyObject* newError(py::module_& m, char const* name, PyObject* bases) {
  std::string const qualified = std::string("mroute._mroute.") + name;
  PyObject* type = PyErr_NewException(qualified.c_str(), bases, nullptr);
  if (type == nullptr) throw py::error_already_set();
  m.add_object(name, py::handle(type));
  return type;
}

PyObject* withValueError(PyObject* base) {
  PyObject* bases = PyTuple_Pack(2, base, PyExc_ValueError);
  if (bases == nullptr) throw py::error_already_set();
  return bases;
}

}  // namespace

PYBIND11_MODULE(_mroute, m) {
  m.doc() = "libmroute from Python: value types, shared tables read-only, entities by name";

  static PyObject* const error = newError(m, "Error", PyExc_Exception);
  static PyObject* const parseError = newError(m, "ParseError", withValueError(error));
  static PyObject* const rangeError = newError(m, "RangeError", withValueError(error));
  static PyObject* const nameInUseError = newError(m, "NameInUseError", error);
  static PyObject* const corruptionError = newError(m, "CorruptionError", error);

  py::register_exception_translator([](std::exception_ptr p) {
    try {
      if (p) std::rethrow_exception(p);
    } catch (Kiv::ParseException const& e) {
      PyErr_SetString(parseError, e.what());
    } catch (Kiv::RangeException const& e) {
      PyErr_SetString(rangeError, e.what());
    } catch (Kiv::NameInUseException const& e) {
      PyErr_SetString(nameInUseError, e.what());
    } catch (Pelto::CorruptionDetectedException const& e) {
      PyErr_SetString(corruptionError, e.what());
    } catch (Kiv::ErrnoException const& e) {
      py::object err =
          py::reinterpret_steal<py::object>(PyObject_CallFunction(PyExc_OSError, "is", e.error(), e.what()));
      if (err) PyErr_SetObject(PyExc_OSError, err.ptr());
    } catch (Kiv::Exception const& e) {
      PyErr_SetString(error, e.what());
    }
  });

  MroutePython::bindValues(m);
  MroutePython::bindTables(m);
  MroutePython::bindEntities(m);
}
