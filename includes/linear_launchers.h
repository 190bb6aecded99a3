#pragma once
// The launchers of the quantized linear layer and the expansions, by format. Each family of formats is
// instantiated in a file of its own, for build time.

#include <ATen/core/Tensor.h>

#include <cstdint>

namespace tolvane {

/// A launcher: [batch_size, output_size] from input [batch_size, state_size]. `size_hint` is read by the
/// tiled route alone.
using forward_fn = at::Tensor (*)(const at::Tensor& input, const at::Tensor& weight, std::int64_t batch_size,
                                  std::int64_t state_size, std::int64_t output_size, std::int64_t size_hint);
/// An expansion: [output_size, state_size] in the element type of `like`.
using dequantize_fn = at::Tensor (*)(const at::Tensor& like, const at::Tensor& weight,
                                     std::int64_t state_size, std::int64_t output_size);

/// A format's launchers for the classes of device: sub-groups and work-groups of (32, 64) on `gpu_summit` and
/// (16, 32) elsewhere, and on `gpu_igx` more rows per work-group for formats that say so.
template <class Format>
struct linear_launchers {
  static at::Tensor on_summit(const at::Tensor& input, const at::Tensor& weight, std::int64_t batch_size,
                              std::int64_t state_size, std::int64_t output_size, std::int64_t size_hint);
  static at::Tensor on_igx(const at::Tensor& input, const at::Tensor& weight, std::int64_t batch_size,
                           std::int64_t state_size, std::int64_t output_size, std::int64_t size_hint);
  static at::Tensor elsewhere(const at::Tensor& input, const at::Tensor& weight, std::int64_t batch_size,
                              std::int64_t state_size, std::int64_t output_size, std::int64_t size_hint);
  static at::Tensor expanded(const at::Tensor& like, const at::Tensor& weight, std::int64_t state_size,
                             std::int64_t output_size);
};

}  // namespace tolvane
