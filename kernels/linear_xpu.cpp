// The operators that the module publishes: their wrappers and their registration.

#include <stdexcept>
#include <string>
#include <utility>

#include "bmm_xpu_kernel.h"
#include "kv.h"
#include "linear_gradient.h"
#include "linear_xpu_fused_qkv_kernel.h"
#include "linear_xpu_kernel.h"
#include "mlp_xpu_kernel.h"
#include "operator_shapes.h"
#include "profiler_scope.h"
#include "publish.h"
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

/// Target: linear_xpu_qkv_forward, or its form for the dispatcher.
template <auto Target>
auto linear_xpu_qkv(at::Tensor input, at::Tensor weight_q, at::Tensor weight_k, at::Tensor weight_v,
                    at::Tensor position_ids, at::Tensor key_cache, at::Tensor value_cache, int qtype,
                    std::int64_t kv_length, std::int64_t head_dim) {
  check_tensor(input, "input");
  check_tensor(weight_q, "weight_q");
  check_tensor(weight_k, "weight_k");
  check_tensor(weight_v, "weight_v");
  const profiler_scope scope("quarn_qkv_forward", input);
  return Target(input, weight_q, weight_k, weight_v, position_ids, key_cache, value_cache, qtype, kv_length,
                head_dim);
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

void bmm_into(at::Tensor A, at::Tensor B, at::Tensor C) {
  bmm(std::move(A), std::move(B), std::move(C));
}

/// The operators, in the order of their table.
void register_operators(pybind11::module_& m) {
  pybind11::options options;
  options.disable_function_signatures();
  static auto* library = new torch::Library(torch::Library::DEF, "tolvane", std::nullopt, __FILE__, __LINE__);
  const publisher to{m, *library};
  define<linear_forward_new, shapes::forward_new>(
      to, "forward_new", {"input", "weights", "qtype", "size_hint"}, "Linear forward (XPU) new format");
  define<linear_xpu_qkv<linear_xpu_qkv_forward>, shapes::forward_qkv, linear_xpu_qkv<linear_xpu_qkv_query>>(
      to, "forward_qkv",
      {"input", "weight_q", "weight_k", "weight_v", "position_ids", "key_cache!", "value_cache!", "qtype",
       "kv_length", "head_dim"},
      "Linear forward (XPU) qkv format", pybind11::make_tuple(5, 6));
  define<dequant, shapes::dequant>(to, "dequant", {"input", "weight", "qtype"}, "Dequantize weight (XPU)");
  define<apply_rotary_embedding_half_q_and_k>(to, "apply_rotary_embedding_half_q_and_k",
                                              {"q", "k", "position_ids", "q_out!", "k_out!"},
                                              "Apply rotary embedding to qk (XPU)");
  define<apply_rotary_embedding_half_q_or_k>(to, "apply_rotary_embedding_half_q_or_k",
                                             {"x", "position_ids", "x_out!", "backward"},
                                             "Apply rotary embedding to q/k (XPU)");
  define<apply_rotary_embedding_half_q_and_k_cache_freq>(
      to, "apply_rotary_embedding_half_q_and_k_cache_freq", {"q", "k", "sin", "cos", "q_out!", "k_out!"},
      "Apply rotary embedding to qk (XPU) using cached sin/cos");
  define<bmm, no_result<bmm>, bmm_into>(to, "bmm", {"A", "B", "C!"}, "SYCL-based batch matrix multiplication",
                                        pybind11::int_(2));
  define<fused_rms_norm, shapes::norm>(
      to, "fused_rms_norm", {"input", "normalized_shape", "weight", "bias", "eps"}, "fused rms norm");
  define<fused_layer_norm, shapes::norm>(
      to, "fused_layer_norm", {"input", "normalized_shape", "weight", "bias", "eps"}, "fused layer norm");
  define<mlp_forward_xpu, shapes::mlp_forward_xpu>(
      to, "mlp_forward_xpu",
      {"input", "weight_gate", "weight_up", "batch_size", "state_size", "output_size", "qtype"}, "fused mlp");
  define<query_key_fp8_matmul, shapes::query_key_fp8_matmul>(to, "query_key_fp8_matmul", {"query", "key"},
                                                             "query key matmul");
  define<attn_value_fp8_matmul, shapes::attn_value_fp8_matmul>(to, "attn_value_fp8_matmul", {"attn", "value"},
                                                               "attn value matmul");
  define<rwkv_linear_attention_v4, shapes::rwkv_linear_attention_v4>(
      to, "rwkv_linear_attention_v4",
      {"time_decay", "time_first", "key", "value", "num_state!", "den_state!", "max_state!"},
      "rwkv v4 attention");
  define<rwkv_linear_attention_v5, shapes::rwkv_linear_attention_v5>(
      to, "rwkv_linear_attention_v5", {"time_decay", "time_first", "receptance", "key", "value", "state!"},
      "rwkv v5 attention");
  define<rwkv_time_shift, shapes::rwkv_time_shift>(to, "rwkv_time_shift", {"hidden", "shifted", "mix"},
                                                   "rwkv time shift");
  define<dequantize_rows, shapes::dequantize_rows>(
      to, "dequantize_rows", {"input", "weight", "qtype", "state_size"}, "Dequantize rows of weight");
  register_linear_gradient(*library);
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
