#pragma once

#include <ATen/core/Tensor.h>

#include <cstdint>

namespace tolvane {

/// One row through gate and up projection and the gated activation: out[n] = silu(gate[n]) * up[n].
///
/// `input` has batch_size * state_size elements (half, float, double or bfloat16), batch_size is 1.
/// `weight_gate` and `weight_up` are packed bytes of output_size rows of state_size, in the format `qtype`, 2
/// (q4_0) or 19 (fp8_e5m2). state_size is a multiple of 64, output_size even, their product below 2^31.
/// Returns [1, output_size] in input's element type on weight_gate's device. Raises c10::Error, before
/// anything is submitted, where one of this fails.
at::Tensor mlp_forward_xpu(at::Tensor input, at::Tensor weight_gate, at::Tensor weight_up,
                           std::int64_t batch_size, std::int64_t state_size, std::int64_t output_size,
                           int qtype);

}  // namespace tolvane
