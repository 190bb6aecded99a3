#pragma once
// How an operator is published: as a function of the module, and as torch.ops.tolvane.<name>, which PyTorch's
// tracers and tensor subclasses see. A call of the function goes straight to the operator where nobody looks.

#include <ATen/PythonTorchFunctionTLS.h>
#include <c10/core/impl/LocalDispatchKeySet.h>
#include <torch/csrc/Exceptions.h>
#include <torch/csrc/PyInterpreter.h>
#include <torch/csrc/autograd/python_variable.h>
#include <torch/csrc/jit/frontend/tracer.h>
#include <torch/csrc/utils/pybind.h>
#include <torch/library.h>

#include <array>
#include <concepts>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

namespace tolvane {

/// Calls body() as Python is to see it: PyTorch's warnings and errors become Python's as they do everywhere
/// in PyTorch, without a backtrace in their text. Exceptions of the standard library are left to pybind11,
/// which knows their classes.
template <class Body>
auto in_python(const Body& body) {
  try {
    torch::PyWarningHandler warnings;
    try {
      return body();
    } catch (...) {
      warnings.set_in_exception();
      throw;
    }
  } catch (const pybind11::error_already_set&) {
    throw;
  } catch (const std::logic_error&) {
    throw;
  } catch (const std::runtime_error&) {
    throw;
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception&) {
    torch::translate_exception_to_python(std::current_exception());
    throw pybind11::error_already_set();
  }
}

/// A type of the operators as Python's annotations and as PyTorch's schemas name it, and as the dispatcher
/// passes it.
struct type_names {
  const char* python;
  const char* schema;
};
template <class T>
constexpr type_names names_of() {
  using V = std::remove_cvref_t<T>;
  if constexpr (std::same_as<V, void>) {
    return {"None", "()"};
  } else if constexpr (std::same_as<V, bool>) {
    return {"bool", "bool"};
  } else if constexpr (std::integral<V>) {
    return {"int", "int"};
  } else if constexpr (std::floating_point<V>) {
    return {"float", "float"};
  } else if constexpr (std::same_as<V, at::Tensor>) {
    return {"torch.Tensor", "Tensor"};
  } else if constexpr (std::same_as<V, c10::ArrayRef<long>>) {
    return {"Tuple[int, ...]", "int[]"};
  } else if constexpr (std::same_as<V, std::vector<at::Tensor>>) {
    return {"List[torch.Tensor]", "Tensor[]"};
  } else {
    static_assert(std::same_as<typename V::value_type, at::Tensor>);
    return {"Optional[torch.Tensor]", "Tensor?"};
  }
}
template <class T>
using passed = std::conditional_t<
    std::same_as<std::remove_cvref_t<T>, bool>, bool,
    std::conditional_t<std::integral<std::remove_cvref_t<T>>, std::int64_t,
                       std::conditional_t<std::is_arithmetic_v<std::remove_cvref_t<T>> ||
                                              std::same_as<std::remove_cvref_t<T>, c10::ArrayRef<long>>,
                                          std::remove_cvref_t<T>, const std::remove_cvref_t<T>&>>>;

/// `value` as T, where the dispatcher's type is wider.
template <class T>
std::remove_cvref_t<T> received(passed<T> value) {
  if constexpr (std::same_as<std::remove_cvref_t<T>, int>) {
    TORCH_CHECK(std::in_range<int>(value), "an int of 32 bits was expected, but got ", value);
    return static_cast<int>(value);
  } else {
    return value;
  }
}

/// A function as a kernel of the dispatcher's.
template <auto Function, class Signature = decltype(Function)>
struct kernel;
template <auto Function, class Result, class... Args>
struct kernel<Function, Result (*)(Args...)> {
  static Result call(passed<Args>... arguments) {
    std::tuple<std::remove_cvref_t<Args>...> own(received<Args>(arguments)...);
    return std::apply([](auto&... values) { return Function(static_cast<Args>(values)...); }, own);
  }
};

/// What operators without a result do with fake and meta tensors.
template <class Signature>
struct nothing;
template <class Result, class... Args>
struct nothing<Result (*)(Args...)> {
  static void call(Args...) {}
};
template <auto Function>
inline constexpr auto no_result = &nothing<decltype(Function)>::call;

/// The keys of tensors and modes that want to see operators: subclasses, fake tensors, tracers, functorch.
inline constexpr c10::DispatchKeySet observers(
    {c10::DispatchKey::Python, c10::DispatchKey::PythonTLSSnapshot, c10::DispatchKey::PreDispatch,
     c10::DispatchKey::Functionalize, c10::DispatchKey::FuncTorchDynamicLayerFrontMode,
     c10::DispatchKey::FuncTorchBatched, c10::DispatchKey::FuncTorchGradWrapper,
     c10::DispatchKey::FuncTorchDynamicLayerBackMode});

inline bool is_observed(const at::Tensor& tensor) {
  if (!tensor.defined()) return false;
  if (tensor.key_set().has_any(observers)) return true;
  const pybind11::object object = pybind11::reinterpret_steal<pybind11::object>(THPVariable_Wrap(tensor));
  if (THPVariable_CheckExact(object.ptr())) return false;
  const pybind11::object overrides = pybind11::module_::import("torch.overrides");
  return overrides.attr("has_torch_function")(pybind11::make_tuple(object)).cast<bool>();
}
inline bool is_observed(const c10::optional<at::Tensor>& tensor) {
  return tensor.has_value() && is_observed(*tensor);
}
template <class T>
bool is_observed(const T&) {
  return false;
}

/// Whether a mode of torch.overrides is active. The one behind torch.set_default_device only looks at
/// functions that make tensors.
inline bool is_function_mode_active() {
  using stack = at::impl::PythonTorchFunctionTLS;
  for (std::int64_t i = 0; i < stack::stack_len(); ++i) {
    const PyObject* mode = stack::get_stack_at(i)->ptr(getPyInterpreter());
    if (std::strcmp(Py_TYPE(mode)->tp_name, "DeviceContext") != 0) return true;
  }
  return false;
}

/// Whether anything between a call and its operator wants to see it.
template <class... Args>
bool goes_through_dispatcher(const Args&... arguments) {
  const auto& local = c10::impl::tls_local_dispatch_key_set();
  return (local.included_ - local.excluded_).has_any(observers) || is_function_mode_active() ||
         (is_observed(arguments) || ...);
}

/// The module and the library of its operators, which lives as long as the process.
struct publisher {
  pybind11::module_& module;
  torch::Library& library;
};

template <class Signature>
struct result_of;
template <class Result, class... Args>
struct result_of<Result (*)(Args...)> {
  using type = Result;
};

template <auto Function, auto Shape, auto Operator, std::size_t... I, class Result, class... Args>
void define(const publisher& to, const char* name, Result (*)(Args...),
            const std::array<const char*, sizeof...(Args)>& parameters, const char* text,
            const pybind11::object& result, std::index_sequence<I...>) {
  constexpr std::size_t count = sizeof...(Args);
  const auto is_written = [&](std::size_t i) { return std::strchr(parameters[i], '!') != nullptr; };
  const std::array<std::string, count> names{
      std::string(parameters[I]).substr(0, std::strcspn(parameters[I], "!"))...};

  std::string help = std::string(name) + "(", schema = help;
  const auto add = [&](std::size_t i, type_names type) {
    help += names[i] + ": " + type.python + ", ";
    const std::string alias = is_written(i) ? std::string("(") + static_cast<char>('a' + i) + "!)" : "";
    schema += (i == 0 ? "" : ", ") + (type.schema + alias) + " " + names[i];
  };
  (add(I, names_of<Args>()), ...);
  help += std::string("/) -> ") + names_of<Result>().python + "\n\n" + text;
  schema += std::string(") -> ") + names_of<typename result_of<decltype(Operator)>::type>().schema;

  to.library.def(schema.c_str(), {at::Tag::pt2_compliant_tag});
  to.library.impl(name, torch::dispatch(c10::DispatchKey::XPU, &kernel<Operator>::call));
  to.library.impl(name, torch::dispatch(c10::DispatchKey::Meta, &kernel<Shape>::call));

  // The function in terms of the operator, which lives as long as the process.
  static pybind11::handle observed;
  const auto call = [name](Args... args) -> Result {
    return in_python([&]() -> Result {
      TORCH_CHECK(!torch::jit::tracer::isTracing(), name,
                  " cannot be traced: the traced function would return memory that nobody wrote");
      if (!goes_through_dispatcher(args...)) return Function(std::forward<Args>(args)...);
      const pybind11::object result = observed(args...);
      if constexpr (!std::same_as<Result, void>) return result.template cast<Result>();
    });
  };
  to.module.def(name, call, help.c_str(), pybind11::arg(names[I].c_str())..., pybind11::pos_only());
  observed = pybind11::module_::import("kelvor_xpu._compile")
                 .attr("show_as_operator")(to.module.attr(name), std::string("tolvane::") + name, result)
                 .release();
}

/// Publishes `Function` under `name`. A parameter that it writes has a ! behind its name. Shape is a function
/// of operator_shapes.h; without one, the operator returns nothing. `Operator` is the function as the
/// dispatcher has it, where that returns no view of what it writes, as no operator may; `result` then tells
/// what the function returns (kelvor_xpu._compile.show_as_operator). The function's help begins with its
/// signature, as the stub has it; the names of its parameters stand there only, since all arguments are
/// positional.
template <auto Function, auto Shape = no_result<Function>, auto Operator = Function, std::size_t Count>
void define(const publisher& to, const char* name, const char* const (&parameters)[Count], const char* text,
            const pybind11::object& result = pybind11::none()) {
  define<Function, Shape, Operator>(to, name, Function, std::to_array(parameters), text, result,
                                    std::make_index_sequence<Count>());
}

}  // namespace tolvane
