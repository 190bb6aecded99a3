// The module `tolvane`: its entry function, which loads the operators compiled for this CPU, and the
// functions that other native code links. Compiled for any x86-64 CPU, so that an old one gets an ImportError
// and not a crash.

#include <dlfcn.h>

#include <stdexcept>
#include <string>

#include "python_gate.h"
#include "sycl/cpu.hpp"
#include "target_library.h"

namespace tolvane {
namespace {

/// Returning a tensor needs PyTorch's Python types, and the operators need a CPU that runs the device code.
/// The device's own package completes torch.xpu, where `import torch` has not loaded it.
void require_environment() {
  if (const std::string problem = sycl::host::unsupported_cpu(); !problem.empty()) {
    throw std::runtime_error("tolvane cannot run here: " + problem);
  }
  try {
    pybind11::module_::import("torch");
  } catch (const pybind11::error_already_set& error) {
    throw std::runtime_error(
        std::string(
            "tolvane needs PyTorch, and importing torch failed; install torch==2.13.0 for this Python: ") +
        error.what());
  }
  pybind11::module_::import("kelvor_xpu");
}

/// The library of the chosen target, which stands beside the module. Nothing else binds to its symbols.
const target_library& load_target() {
  Dl_info own;
  dladdr(reinterpret_cast<const void*>(&load_target), &own);
  const std::string module = own.dli_fname;
  const std::string path =
      module.substr(0, module.rfind('/') + 1) + "libtolvane-" + sycl::host::chosen_target() + ".so";
  void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr)
    throw std::runtime_error(std::string("tolvane cannot load its kernels: ") + dlerror());
  return *static_cast<const target_library*>(dlsym(library, "tolvane_target_library"));
}

const target_library& target() {
  static const target_library& library = load_target();
  return library;
}

}  // namespace
}  // namespace tolvane

using tolvane::target;
using addend = at::Tensor;
using sizes = c10::ArrayRef<long>;
using optional = c10::optional<at::Tensor>;

int get_workgroup_size() {
  return target().get_workgroup_size();
}
int initialize_gpu_type() {
  return target().initialize_gpu_type();
}
bool is_sysarr_enabled() {
  return target().is_sysarr_enabled();
}
bool canUse32BitIndexMath(const at::Tensor& t) {
  return target().canUse32BitIndexMath(t);
}
at::Tensor add_rms_norm(const addend& a, const addend& b, const at::Tensor& x, sizes shape,
                        const optional& weight, const optional& bias, double eps) {
  return target().add_rms_norm(a, b, x, shape, weight, bias, eps);
}
at::Tensor add_layer_norm(const addend& a, const addend& b, const at::Tensor& x, sizes shape,
                          const optional& weight, const optional& bias, double eps) {
  return target().add_layer_norm(a, b, x, shape, weight, bias, eps);
}
at::Tensor add_add_rms_norm(const addend& a, const addend& b, const at::Tensor& x, sizes shape,
                            const optional& weight, const optional& bias, double eps) {
  return target().add_add_rms_norm(a, b, x, shape, weight, bias, eps);
}
at::Tensor add_add_layer_norm(const addend& a, const addend& b, const at::Tensor& x, sizes shape,
                              const optional& weight, const optional& bias, double eps) {
  return target().add_add_layer_norm(a, b, x, shape, weight, bias, eps);
}

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
    target().register_operators(m);
    return m.release().ptr();
  }
  PYBIND11_CATCH_INIT_EXCEPTIONS
  return nullptr;
}
