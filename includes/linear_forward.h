#pragma once
// What a launcher of the quantized linear layer does: choose among one row, a few rows and the dense
// expansion.

#include <ATen/TensorIndexing.h>
#include <ATen/core/Tensor.h>
#include <ATen/ops/empty.h>
#include <ATen/ops/linear.h>
#include <ATen/ops/mm.h>

#include <algorithm>
#include <cstdint>
#include <type_traits>

#include "device_frame.h"
#include "dispatch.h"
#include "linear_kernels.h"
#include "linear_launchers.h"
#include "linear_tiling.h"

namespace tolvane {

inline constexpr const char* linear_label = "qlinear_forward_xpu";

/// A new tensor on the weight's device, in the input's element type.
inline at::Tensor empty_for(const at::Tensor& input, const at::Tensor& weight, std::int64_t rows,
                            std::int64_t columns) {
  return at::empty({rows, columns}, input.options().device(weight.device()));
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

/// Bytes of an expansion that are still in a cache when they are multiplied, and the most rows for which that
/// counts: the product of more rows is the slower for each slice.
inline constexpr std::int64_t slice_bytes = std::int64_t{4} << 20;
inline constexpr std::int64_t sliced_rows = 64;

/// The dense route: expands the weight and multiplies by it, where rows can be expanded by themselves in
/// slices that stay in the cache. Where there are no rows or no outputs, it only passes the checks of an
/// expansion.
template <class Format>
at::Tensor multiplied_by_dense(const at::Tensor& input, const at::Tensor& weight, std::int64_t batch_size,
                               std::int64_t state_size, std::int64_t output_size) {
  const std::int64_t rows = batch_size == 0 ? 0 : output_size;
  std::int64_t step = rows;
  if constexpr (
      !requires { Format::flat_elements; } && !requires { Format::expansion_items; }) {
    if (batch_size <= sliced_rows)
      step = std::min(rows,
                      std::max<std::int64_t>(
                          1, slice_bytes / (state_size * static_cast<std::int64_t>(input.element_size()))));
  }
  const at::Tensor dense = expanded_rows<Format>(input, weight, state_size, output_size, 0, step);
  if (dense.numel() == 0) return empty_for(input, weight, batch_size, output_size);
  if (step == rows) return at::linear(input, dense);
  at::Tensor output = empty_for(input, weight, batch_size, output_size);
  for (std::int64_t start = 0; start < rows; start += step) {
    const std::int64_t count = std::min(step, rows - start);
    at::Tensor columns = output.narrow(1, start, count);
    at::mm_out(
        columns, input,
        (start == 0 ? dense : expanded_rows<Format>(input, weight, state_size, output_size, start, count))
            .t());
  }
  return output;
}

/// The same in slices of the weight's rows, which holds one slice at a time.
template <class Format>
at::Tensor multiplied_by_slices(const at::Tensor& input, const at::Tensor& weight, std::int64_t batch_size,
                                std::int64_t state_size, std::int64_t output_size, const tiling& tiles) {
  check_slices(tiles);
  at::Tensor output = empty_for(input, weight, batch_size, output_size);
  const auto step = static_cast<std::int64_t>(std::min<unsigned long long>(tiles.size, output_size));
  for (std::int64_t start = 0; start < output_size; start += step) {
    const std::int64_t rows = std::min(step, output_size - start);
    const at::Tensor slice = expanded_rows<Format>(input, weight, state_size, output_size, start, rows);
    using at::indexing::Slice;
    output.index_put_({Slice(), Slice(start, start + rows)}, at::linear(input, slice));
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
      return multiplied_by_slices<Format>(input, weight, batch_size, state_size, output_size, tiles);
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
