// The only door into the module: its entry function and the operators it publishes.

#include <torch/csrc/Exceptions.h>
#include <torch/csrc/utils/pybind.h>

#include <stdexcept>
#include <string>

#include "mlp_xpu_kernel.h"
#include "python_gate.h"
#include "sycl/cpu.hpp"

namespace tolvane {
namespace {

/// Returning a tensor needs PyTorch's Python types, and the operators need a CPU that runs the device code.
void require_environment() {
  if (const std::string problem = sycl::host::unsupported_cpu(); !problem.empty()) {
    throw std::runtime_error("tolvane cannot run here: " + problem);
  }
  try {
    pybind11::module_::import("torch");
  } catch (const pybind11::error_already_set& error) {
    throw std::runtime_error(
        std::string(
            "tolvane needs PyTorch, and importing torch failed; install it for this Python (on Debian: apt "
            "install python3-torch): ") +
        error.what());
  }
}

void register_operators(pybind11::module_& m) {
  m.def("mlp_forward_xpu", torch::wrap_pybind_function(mlp_forward_xpu), "fused mlp");
}

}  // namespace
}  // namespace tolvane

extern "C" PYBIND11_EXPORT PyObject* PyInit_tolvane() {
  constexpr const char* built_for =
      PYBIND11_TOSTRING(PY_MAJOR_VERSION) "." PYBIND11_TOSTRING(PY_MINOR_VERSION);
  if (!tolvane::same_python(built_for, Py_GetVersion())) {
    PyErr_Format(PyExc_ImportError,
                 "Python version mismatch: module was compiled for Python %s, but the interpreter version is "
                 "incompatible: %s.",
                 built_for, Py_GetVersion());
    return nullptr;
  }
  PYBIND11_ENSURE_INTERNALS_READY
  static PyModuleDef definition;
  auto m = pybind11::module_::create_extension_module("tolvane", nullptr, &definition);
  try {
    tolvane::require_environment();
    tolvane::register_operators(m);
    return m.release().ptr();
  }
  PYBIND11_CATCH_INIT_EXCEPTIONS
}
