// korimg._core: what the Python package is made of. Its own Python code calls it; users do not.
#include "korimg/pipelines/runtime/Runtime.h"

#include "python/src/Host.h"

namespace korimg::python {
namespace {

/// Raises the exception that stands for an error of the session library.
void Raise(const Error& error) {
  const py::object errors = py::module_::import("korimg._errors");
  const char* name = "Error";
  switch (error.Kind()) {
    case ErrorKind::Usage:
      name = "UsageError";
      break;
    case ErrorKind::File:
      name = "FileError";
      break;
    case ErrorKind::Resource:
      name = "OutOfMemoryError";
      break;
    case ErrorKind::Cancelled:
      name = "Cancelled";
      break;
    case ErrorKind::Internal:
      break;
  }
  const py::object type = errors.attr(name);
  const py::object raised =
      error.Kind() == ErrorKind::File ? type(error.what(), error.Subject()) : type(error.what());
  PyErr_SetObject(type.ptr(), raised.ptr());
}

}  // namespace
}  // namespace korimg::python

PYBIND11_MODULE(_core, module) {
  using namespace korimg::python;
  py::register_exception_translator([](std::exception_ptr thrown) {
    try {
      if (thrown) std::rethrow_exception(thrown);
    } catch (const Error& error) {
      Raise(error);
    }
  });
  module.def("version", [] { return korimg::Version(); });
  module.def("parse_size", &ParseSize);
  AddOperations(module);
  AddFiles(module);
  AddMeasures(module);
  AddSteps(module);
  AddFileSteps(module);
  AddSessions(module);
}
