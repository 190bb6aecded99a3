#pragma once

#include <ATen/core/Tensor.h>

#include <cstdint>

namespace tolvane {

/// input times the transposed packed weight: [batch_size, output_size] in input's element type on weight's
/// device.
///
/// `input` is [batch_size, state_size] (half, float, double or bfloat16), `weight` a flat tensor of packed
/// bytes in the format `qtype`, from whose length output_size follows (0 of no bytes). `size_hint` takes part
/// in choosing the tiled route of q4_0. Raises c10::Error, before anything is submitted, for a format without
/// a function here, sizes that are no whole number of blocks, and sizes past 32-bit arithmetic.
at::Tensor linear_xpu_forward_new(at::Tensor input, at::Tensor weight, int qtype, std::int64_t size_hint);

/// The dense matrix [output_size, state_size] of a packed weight in any format that linear_xpu_forward_new
/// takes, in the element type of `like`.
at::Tensor linear_xpu_expanded(const at::Tensor& like, const at::Tensor& weight, int qtype,
                               std::int64_t state_size);

/// The dense matrix [output_size, state_size] of a packed weight. `input` gives its second size and its
/// element type.
at::Tensor xpu_dequant(at::Tensor input, at::Tensor weight, int qtype);

/// Rows of a packed table as floats: [B, L, state_size] for the row numbers `input`, [B, L] of 64-bit
/// integers. `weight` is packed in q2_k. For any other `qtype` the result is memory that nothing was written
/// to. Raises c10::Error, before anything is submitted, where state_size is no multiple of 256 and where an
/// index names no row of the weight.
at::Tensor xpu_dequantize_rows(at::Tensor input, at::Tensor weight, int qtype, std::int64_t state_size);

/// The matrix engine's route: [batch_size, output_size] in input's element type, on weight's device.
///
/// `input` is [batch_size, state_size], contiguous, `weight` packed in q4_0, q8_0, fp8_e4m3 or fp8_e5m2 (any
/// other `qtype` gives zeros). `wide_tile` computes 16 columns in a work-group, else 8; output_size is a
/// multiple of that and state_size of 64, or c10::Error is raised before anything is submitted. `size_hint`
/// is not read. An element type other than float, half and bfloat16 writes "unsupported dtype" to the
/// standard error stream and ends the process with status 2.
at::Tensor sysarr_forward(at::Tensor input, at::Tensor weight, std::int64_t batch_size,
                          std::int64_t state_size, std::int64_t output_size, std::int64_t size_hint,
                          int qtype, bool wide_tile);

}  // namespace tolvane
