#pragma once
// What every launcher of the quantized linear layer does: choose among one row, a few rows and the dense
// expansion.

#include <ATen/core/Tensor.h>
#include <ATen/ops/empty.h>
#include <ATen/ops/linear.h>

#include <cstdint>
#include <type_traits>

#include "device_frame.h"
#include "dispatch.h"
#include "linear_kernels.h"

namespace tolvane {

inline constexpr const char* linear_label = "qlinear_forward_xpu";

/// A launcher: the forward tables hold these.
using forward_fn = at::Tensor (*)(at::Tensor input, at::Tensor weight, std::int64_t batch_size,
                                  std::int64_t state_size, std::int64_t output_size, std::int64_t size_hint);

/// A new tensor on the weight's device, in the input's element type.
inline at::Tensor empty_for(const at::Tensor& input, const at::Tensor& weight, std::int64_t rows,
                            std::int64_t columns) {
  return at::empty({rows, columns}, input.options().device(weight.device()));
}

/// Expands the weight by the host function that Paths::dequantize<T>() gives for this class of device.
template <class Paths>
at::Tensor dequantized(const at::Tensor& input, const at::Tensor& weight, std::int64_t state_size,
                       std::int64_t output_size) {
  at::Tensor dense = empty_for(input, weight, output_size, state_size);
  dispatch_floating(linear_label, input.scalar_type(), [&]<class T>(std::type_identity<T>) {
    Paths::template dequantize<T>()(weight.data_ptr<std::uint8_t>(), elements<T>(dense),
                                    static_cast<std::size_t>(state_size),
                                    static_cast<std::size_t>(output_size), weight.device());
  });
  return dense;
}

/// Runs a kernel's host function (one row or a few) into a new output.
template <class Kernel>
at::Tensor multiplied(const at::Tensor& input, const at::Tensor& weight, std::int64_t batch_size,
                      std::int64_t state_size, std::int64_t output_size, const Kernel& kernel) {
  at::Tensor output = empty_for(input, weight, batch_size, output_size);
  dispatch_floating(linear_label, input.scalar_type(), [&]<class T>(std::type_identity<T> type) {
    kernel(type)(elements<T>(input), weight.data_ptr<std::uint8_t>(), elements<T>(output),
                 static_cast<std::size_t>(batch_size), static_cast<std::size_t>(state_size),
                 static_cast<std::size_t>(output_size), weight.device());
  });
  return output;
}

/// The dense route: expands the weight and multiplies by it. Where there are no rows or no outputs, it only
/// passes the checks of an expansion.
template <class Paths>
at::Tensor multiplied_by_dense(const at::Tensor& input, const at::Tensor& weight, std::int64_t batch_size,
                               std::int64_t state_size, std::int64_t output_size) {
  const at::Tensor dense = dequantized<Paths>(input, weight, state_size, batch_size == 0 ? 0 : output_size);
  if (dense.numel() == 0) return empty_for(input, weight, batch_size, output_size);
  return at::linear(input, dense);
}

/// The launcher that most formats share. Paths has one_row<T>(), batch<T>() where batch_limit is above 1, and
/// dequantize<T>().
template <class Paths>
at::Tensor forward_by(const at::Tensor& input, const at::Tensor& weight, std::int64_t batch_size,
                      std::int64_t state_size, std::int64_t output_size) {
  if (batch_size == 1) {
    return multiplied(input, weight, batch_size, state_size, output_size,
                      []<class T>(std::type_identity<T>) { return Paths::template one_row<T>(); });
  }
  if constexpr (Paths::batch_limit > 1) {
    if (batch_size <= Paths::batch_limit) {
      return multiplied(input, weight, batch_size, state_size, output_size,
                        []<class T>(std::type_identity<T>) { return Paths::template batch<T>(); });
    }
  }
  return multiplied_by_dense<Paths>(input, weight, batch_size, state_size, output_size);
}

}  // namespace tolvane
