// The operators that the module publishes: their wrappers and their registration.

#include <torch/csrc/Exceptions.h>
#include <torch/csrc/jit/frontend/tracer.h>
#include <torch/csrc/utils/pybind.h>

#include <array>
#include <concepts>
#include <new>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

#include "bmm_xpu_kernel.h"
#include "kv.h"
#include "linear_xpu_kernel.h"
#include "mlp_xpu_kernel.h"
#include "profiler_scope.h"
#include "rope_xpu.h"
#include "rwkv.h"
#include "target_library.h"

namespace tolvane {
namespace {

/// The device's class and limits are those of the moment of import, whatever changes later.
void probe_device() {
  const auto fail = [](const char* reason) {
    throw std::runtime_error(std::string("tolvane found no xpu device that it can use: ") + reason);
  };
  try {
    current_gpu_type();
    max_workgroup_size();
  } catch (const c10::Error& error) {
    fail(error.what_without_backtrace());
  } catch (const std::exception& error) {
    fail(error.what());
  }
}

/// A wrapper's check of one of its tensors, in fixed words.
void check_tensor(const at::Tensor& tensor, const char* name) {
  TORCH_CHECK(tensor.device().type() == c10::DeviceType::XPU, name, " must be a XPU tensor");
  TORCH_CHECK(tensor.is_contiguous(), name, " must be contiguous");
}

at::Tensor linear_forward_new(at::Tensor input, at::Tensor weights, int qtype, std::int64_t size_hint) {
  check_tensor(input, "input");
  check_tensor(weights, "weights");
  const profiler_scope scope("quarn_qlinear_forward", input);
  return linear_xpu_forward_differentiable(input, weights, qtype, size_hint);
}

at::Tensor dequant(at::Tensor input, at::Tensor weight, int qtype) {
  check_tensor(input, "input");
  check_tensor(weight, "weight");
  const profiler_scope scope("quarn_xpu_dequant", input);
  return xpu_dequant(input, weight, qtype);
}

at::Tensor dequantize_rows(at::Tensor input, at::Tensor weight, int qtype, std::int64_t state_size) {
  check_tensor(input, "input");
  check_tensor(weight, "weight");
  const profiler_scope scope("quarn_dequantize_rows", input);
  return xpu_dequantize_rows(input, weight, qtype, state_size);
}

void apply_rotary_embedding_half_q_and_k(const at::Tensor& q, const at::Tensor& k,
                                         const at::Tensor& position_ids, at::Tensor& q_out,
                                         at::Tensor& k_out) {
  const profiler_scope scope("quarn_rope_forward", q);
  apply_rotary_embedding_q_and_k(q, k, position_ids, q_out, k_out);
}

void apply_rotary_embedding_half_q_or_k(const at::Tensor& x, const at::Tensor& position_ids,
                                        at::Tensor& x_out, bool backward) {
  const profiler_scope scope(backward ? "quarn_rope_backward" : "quarn_rope_forward", x);
  apply_rotary_embedding_q_or_k(x, position_ids, x_out, backward);
}

void apply_rotary_embedding_half_q_and_k_cache_freq(const at::Tensor& q, const at::Tensor& k,
                                                    const at::Tensor& sin, const at::Tensor& cos,
                                                    at::Tensor& q_out, at::Tensor& k_out) {
  const profiler_scope scope("quarn_rope_forward", q);
  apply_rotary_embedding_q_and_k_cache_freq(q, k, sin, cos, q_out, k_out);
}

at::Tensor bmm(at::Tensor A, at::Tensor B, at::Tensor C) {
  check_tensor(A, "A");
  check_tensor(B, "B");
  check_tensor(C, "C");
  const profiler_scope scope("quarn_bmm", A);
  return bmm_xpu(A, B, C);
}

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

/// How Python's annotations name a type of the operators.
template <class T>
constexpr const char* annotation() {
  using V = std::remove_cvref_t<T>;
  if constexpr (std::same_as<V, void>) {
    return "None";
  } else if constexpr (std::same_as<V, bool>) {
    return "bool";
  } else if constexpr (std::integral<V>) {
    return "int";
  } else if constexpr (std::floating_point<V>) {
    return "float";
  } else if constexpr (std::same_as<V, at::Tensor>) {
    return "torch.Tensor";
  } else if constexpr (std::same_as<V, c10::ArrayRef<long>>) {
    return "Tuple[int, ...]";
  } else {
    static_assert(std::same_as<typename V::value_type, at::Tensor>);
    return "Optional[torch.Tensor]";
  }
}

template <std::size_t... I, class Result, class... Args>
void define(pybind11::module_& m, const char* name, Result (*f)(Args...),
            const std::array<const char*, sizeof...(Args)>& parameters, const char* text,
            std::index_sequence<I...>) {
  std::string signature = std::string(name) + "(";
  ((signature += std::string(parameters[I]) + ": " + annotation<Args>() + ", "), ...);
  signature += std::string("/) -> ") + annotation<Result>() + "\n\n" + text;
  const auto call = [name, f](Args... args) -> Result {
    return in_python([&] {
      TORCH_CHECK(!torch::jit::tracer::isTracing(), name,
                  " cannot be traced: the traced function would return memory that nobody wrote");
      return f(std::forward<Args>(args)...);
    });
  };
  m.def(name, call, signature.c_str(), pybind11::arg(parameters[I])..., pybind11::pos_only());
}

/// Publishes an operator. Its help begins with its signature, as the stub has it; the names of its parameters
/// stand there only, since all arguments are positional.
template <class Result, class... Args>
void define(pybind11::module_& m, const char* name, Result (*f)(Args...),
            const std::array<const char*, sizeof...(Args)>& parameters, const char* text) {
  define(m, name, f, parameters, text, std::index_sequence_for<Args...>());
}

/// The operators, in the order of their table.
void register_operators(pybind11::module_& m) {
  pybind11::options options;
  options.disable_function_signatures();
  define(m, "forward_new", linear_forward_new, {"input", "weights", "qtype", "size_hint"},
         "Linear forward (XPU) new format");
  define(m, "dequant", dequant, {"input", "weight", "qtype"}, "Dequantize weight (XPU)");
  define(m, "apply_rotary_embedding_half_q_and_k", apply_rotary_embedding_half_q_and_k,
         {"q", "k", "position_ids", "q_out", "k_out"}, "Apply rotary embedding to qk (XPU)");
  define(m, "apply_rotary_embedding_half_q_or_k", apply_rotary_embedding_half_q_or_k,
         {"x", "position_ids", "x_out", "backward"}, "Apply rotary embedding to q/k (XPU)");
  define(m, "apply_rotary_embedding_half_q_and_k_cache_freq", apply_rotary_embedding_half_q_and_k_cache_freq,
         {"q", "k", "sin", "cos", "q_out", "k_out"},
         "Apply rotary embedding to qk (XPU) using cached sin/cos");
  define(m, "bmm", bmm, {"A", "B", "C"}, "SYCL-based batch matrix multiplication");
  define(m, "fused_rms_norm", fused_rms_norm, {"input", "normalized_shape", "weight", "bias", "eps"},
         "fused rms norm");
  define(m, "fused_layer_norm", fused_layer_norm, {"input", "normalized_shape", "weight", "bias", "eps"},
         "fused layer norm");
  define(m, "mlp_forward_xpu", mlp_forward_xpu,
         {"input", "weight_gate", "weight_up", "batch_size", "state_size", "output_size", "qtype"},
         "fused mlp");
  define(m, "query_key_fp8_matmul", query_key_fp8_matmul, {"query", "key"}, "query key matmul");
  define(m, "attn_value_fp8_matmul", attn_value_fp8_matmul, {"attn", "value"}, "attn value matmul");
  define(m, "rwkv_linear_attention_v4", rwkv_linear_attention_v4,
         {"time_decay", "time_first", "key", "value", "num_state", "den_state", "max_state"},
         "rwkv v4 attention");
  define(m, "rwkv_linear_attention_v5", rwkv_linear_attention_v5,
         {"time_decay", "time_first", "receptance", "key", "value", "state"}, "rwkv v5 attention");
  define(m, "rwkv_time_shift", rwkv_time_shift, {"hidden", "shifted", "mix"}, "rwkv time shift");
  define(m, "dequantize_rows", dequantize_rows, {"input", "weight", "qtype", "state_size"},
         "Dequantize rows of weight");
}

}  // namespace
}  // namespace tolvane

const tolvane::target_library tolvane_target_library = {[](pybind11::module_& m) {
                                                          tolvane::probe_device();
                                                          tolvane::register_operators(m);
                                                        },
                                                        get_workgroup_size,
                                                        initialize_gpu_type,
                                                        is_sysarr_enabled,
                                                        canUse32BitIndexMath,
                                                        add_rms_norm,
                                                        add_layer_norm,
                                                        add_add_rms_norm,
                                                        add_add_layer_norm};
