#pragma once
// What a launcher of the quantized linear layer does: choose among one row, a few rows and the dense
// expansion.

#include <ATen/core/Tensor.h>

#include <algorithm>
#include <cstdint>
#include <type_traits>

#include "dense_product.h"
#include "device_frame.h"
#include "dispatch.h"
#include "linear_kernels.h"
#include "linear_launchers.h"
#include "linear_tiling.h"
#include "new_tensor.h"

namespace tolvane {

inline constexpr const char* linear_label = "qlinear_forward_xpu";

/// A new tensor on the weight's device, in the input's element type.
inline at::Tensor empty_for(const at::Tensor& input, const at::Tensor& weight, std::int64_t rows,
                            std::int64_t columns) {
  return new_tensor({rows, columns}, input.options().device(weight.device()));
}

/// Expands rows start … start + rows - 1 of a weight of output_size rows into a new tensor, by the shape and
/// the form of submission that the format has on this class of device.
template <class Format>
at::Tensor expanded_rows(const at::Tensor& like, const at::Tensor& weight, std::int64_t state_size,
                         std::int64_t output_size, std::int64_t start, std::int64_t rows) {
  at::Tensor dense = empty_for(like, weight, rows, state_size);
  dispatch_floating(linear_label, like.scalar_type(), [&]<class T>(std::type_identity<T>) {
    const bool summit = current_gpu_type() == gpu_summit;
    const expansion<T> range{weight.data_ptr<std::uint8_t>(),
                             elements<T>(dense),
                             state_size,
                             output_size,
                             start,
                             rows,
                             weight.device()};
    if constexpr (requires { Format::flat_elements; }) {
      qlinear_xpu_dequantize_kernel_flat<Format>(range);
    } else if constexpr (requires { Format::expansion_items; }) {
      qlinear_xpu_dequantize_kernel_blocks<Format>(range);
    } else {
      constexpr int few = Format::block / Format::value_bytes;
      summit ? qlinear_xpu_dequantize_kernel<Format, 2 * few, Format::plain_expansion_on_summit>(range)
             : qlinear_xpu_dequantize_kernel<Format, few, Format::plain_expansion>(range);
    }
  });
  return dense;
}

/// Runs a kernel's host function (one row or a few) into a new output.
template <class Kernel>
at::Tensor multiplied(const at::Tensor& input, const at::Tensor& weight, std::int64_t batch_size,
                      std::int64_t state_size, std::int64_t output_size, const Kernel& kernel) {
  at::Tensor output = empty_for(input, weight, batch_size, output_size);
  dispatch_floating(linear_label, input.scalar_type(), [&]<class T>(std::type_identity<T>) {
    kernel(elements<T>(input), weight.data_ptr<std::uint8_t>(), elements<T>(output),
           static_cast<std::size_t>(batch_size), static_cast<std::size_t>(state_size),
           static_cast<std::size_t>(output_size), weight.device());
  });
  return output;
}

/// One row times a format of super-blocks: the row is quantized, the product is made in integers.
template <class Format>
at::Tensor multiplied_in_integers(const at::Tensor& input, const at::Tensor& weight, std::int64_t state_size,
                                  std::int64_t output_size);

/// Whether rows of the format can be expanded by themselves.
template <class Format>
inline constexpr bool expands_rows = !requires {
  Format::flat_elements;
}
&&!requires {
  Format::expansion_items;
};

/// The dense route: expands the weight and multiplies by it, `step` rows of the weight at a time, or as many
/// as stay in the cache. Where there are no rows or no outputs, it only passes the checks of an expansion.
template <class Format>
at::Tensor multiplied_by_dense(const at::Tensor& input, const at::Tensor& weight, std::int64_t batch_size,
                               std::int64_t state_size, std::int64_t output_size, std::int64_t step = 0) {
  at::Tensor output = empty_for(input, weight, batch_size, output_size);
  if (output.numel() == 0) {
    expanded_rows<Format>(input, weight, state_size, output_size, 0, 0);
    return output;
  }
  if (step == 0) step = expands_rows<Format> ? dense_product::rows_at_once(input) : output_size;
  const auto slice = [&](std::int64_t start) {
    return expanded_rows<Format>(input, weight, state_size, output_size, start,
                                 std::min(step, output_size - start));
  };
  at::Tensor dense = slice(0);  // refuses what cannot be expanded, before anything else is submitted
  const dense_product product(input);
  product.multiply(dense, output, 0);
  for (std::int64_t start = step; start < output_size; start += step) {
    dense.reset();  // its memory serves the next one
    dense = slice(start);
    product.multiply(dense, output, start);
  }
  return output;
}

/// The launcher of a format.
template <class Format, int sg_size, int wg_size, int ROWS>
at::Tensor xpu_forward_new(const at::Tensor& input, const at::Tensor& weight, std::int64_t batch_size,
                           std::int64_t state_size, std::int64_t output_size, std::int64_t size_hint) {
  tiling tiles;
  if constexpr (Format::sliced_expansion) tiles = current_tiling();
  const auto run = [&](const auto& kernel) {
    return multiplied(input, weight, batch_size, state_size, output_size, kernel);
  };
  if constexpr (Format::quantizes_activations) {
    if (batch_size == 1) return multiplied_in_integers<Format>(input, weight, state_size, output_size);
  } else if (batch_size == 1) {
    return run([]<class T>(const T* from, auto... more) {
      qlinear_xpu_kernel<Format, T, wg_size, ROWS>(from, more...);
    });
  }
  if constexpr (Format::few_rows > 1) {
    const int type = current_gpu_type();
    if (batch_size <= (type == gpu_summit ? Format::few_rows_on_summit : Format::few_rows)) {
      return run([]<class T>(const T* from, auto... more) {
        qlinear_xpu_kernel_batch<Format, T, wg_size>(from, more...);
      });
    }
    if (Format::sliced_expansion && type == gpu_vela && output_size > tiles.threshold && size_hint > 128) {
      check_slices(tiles);
      const auto step = static_cast<std::int64_t>(std::min<unsigned long long>(tiles.size, output_size));
      return multiplied_by_dense<Format>(input, weight, batch_size, state_size, output_size, step);
    }
  }
  return multiplied_by_dense<Format>(input, weight, batch_size, state_size, output_size);
}

template <class Format>
at::Tensor linear_launchers<Format>::on_summit(const at::Tensor& input, const at::Tensor& weight,
                                               std::int64_t batch_size, std::int64_t state_size,
                                               std::int64_t output_size, std::int64_t size_hint) {
  return xpu_forward_new<Format, 32, 64, 2>(input, weight, batch_size, state_size, output_size, size_hint);
}
template <class Format>
at::Tensor linear_launchers<Format>::on_igx(const at::Tensor& input, const at::Tensor& weight,
                                            std::int64_t batch_size, std::int64_t state_size,
                                            std::int64_t output_size, std::int64_t size_hint) {
  return xpu_forward_new<Format, 16, 32, Format::rows_on_igx>(input, weight, batch_size, state_size,
                                                              output_size, size_hint);
}
template <class Format>
at::Tensor linear_launchers<Format>::elsewhere(const at::Tensor& input, const at::Tensor& weight,
                                               std::int64_t batch_size, std::int64_t state_size,
                                               std::int64_t output_size, std::int64_t size_hint) {
  return xpu_forward_new<Format, 16, 32, 2>(input, weight, batch_size, state_size, output_size, size_hint);
}
template <class Format>
at::Tensor linear_launchers<Format>::expanded(const at::Tensor& like, const at::Tensor& weight,
                                              std::int64_t state_size, std::int64_t output_size) {
  return expanded_rows<Format>(like, weight, state_size, output_size, 0, output_size);
}

}  // namespace tolvane
