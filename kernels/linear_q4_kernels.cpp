// The four-bit integer formats q4_0 and q4_1.

#include <ATen/TensorIndexing.h>
#include <c10/util/Exception.h>

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <string_view>

#include "linear_forward.h"
#include "linear_launchers.h"

namespace tolvane {

template <class T, int sg_size, int wg_size, int ROWS>
inline constexpr auto qlinear_xpu_kernel_q4_0_2x16 = matvec<q4_0, T, wg_size, ROWS>;
template <class T, int sg_size, int wg_size>
inline constexpr auto qlinear_xpu_kernel_q4_0_2x16_batch = batch_matvec<q4_0, T, wg_size>;
template <class T, int sg_size>
inline constexpr auto qlinear_xpu_dequantize_kernel_q4_0_1x4 =
    dequantize_rows_of<q4_0, T, 4, submission_form::plain>;
template <class T, int sg_size>
inline constexpr auto qlinear_xpu_dequantize_kernel_q4_0_1x2 = dequantize_rows_of<q4_0, T, 2>;
template <class T, int sg_size>
inline constexpr auto qlinear_xpu_tile_dequantize_kernel_q4_0_1x4 =
    dequantize_tile_of<q4_0, T, 4, submission_form::plain>;
template <class T, int sg_size>
inline constexpr auto qlinear_xpu_tile_dequantize_kernel_q4_0_1x2 =
    dequantize_tile_of<q4_0, T, 2, submission_form::waiting>;

template <class T, int sg_size, int wg_size>
inline constexpr auto qlinear_xpu_kernel_q4_1_2x16 = matvec<q4_1, T, wg_size, 2>;
template <class T, int sg_size, int wg_size>
inline constexpr auto qlinear_xpu_kernel_q4_1_2x16_batch = batch_matvec<q4_1, T, wg_size>;
template <class T, int sg_size>
inline constexpr auto qlinear_xpu_dequantize_kernel_q4_1_1x4 = dequantize_rows_of<q4_1, T, 4>;
template <class T, int sg_size>
inline constexpr auto qlinear_xpu_dequantize_kernel_q4_1_1x2 = dequantize_rows_of<q4_1, T, 2>;

namespace {

template <int sg_size, int wg_size, int ROWS>
struct q4_0_paths {
  static constexpr std::int64_t batch_limit = 20;
  template <class T>
  static auto one_row() {
    return qlinear_xpu_kernel_q4_0_2x16<T, sg_size, wg_size, ROWS>;
  }
  template <class T>
  static auto batch() {
    return qlinear_xpu_kernel_q4_0_2x16_batch<T, sg_size, wg_size>;
  }
  template <class T>
  static auto dequantize() {
    return current_gpu_type() == gpu_summit ? qlinear_xpu_dequantize_kernel_q4_0_1x4<T, sg_size>
                                            : qlinear_xpu_dequantize_kernel_q4_0_1x2<T, sg_size>;
  }
};

template <int sg_size, int wg_size>
struct q4_1_paths {
  static constexpr std::int64_t batch_limit = 20;
  template <class T>
  static auto one_row() {
    return qlinear_xpu_kernel_q4_1_2x16<T, sg_size, wg_size>;
  }
  template <class T>
  static auto batch() {
    return qlinear_xpu_kernel_q4_1_2x16_batch<T, sg_size, wg_size>;
  }
  template <class T>
  static auto dequantize() {
    return current_gpu_type() == gpu_summit ? qlinear_xpu_dequantize_kernel_q4_1_1x4<T, sg_size>
                                            : qlinear_xpu_dequantize_kernel_q4_1_1x2<T, sg_size>;
  }
};

/// When the weight is expanded and multiplied in slices of rows, and how many rows a slice has: 0 for a
/// number that is not positive.
struct tiling {
  long long threshold = 50000;
  unsigned long long size = 4096;
};

/// The number that an environment variable begins with, by `parse`, whose exceptions get to name the variable
/// and its text.
template <class Number>
Number number_from(const char* variable, const char* text, const char* parser,
                   Number (*parse)(const std::string&, std::size_t*, int)) {
  const auto message = [&](const char* problem) {
    return std::string(parser) + ": " + variable + problem + ", but it is \"" + text + "\"";
  };
  try {
    return parse(text, nullptr, 10);
  } catch (const std::invalid_argument&) {
    throw std::invalid_argument(message(" must begin with a whole number"));
  } catch (const std::out_of_range&) {
    throw std::out_of_range(message(" must be a number of 64 bits"));
  }
}

/// From the environment, at each call.
tiling current_tiling() {
  tiling result;
  if (const char* text = std::getenv("TILE_THRESHOLD")) {
    result.threshold = number_from<long long>("TILE_THRESHOLD", text, "stoll", std::stoll);
  }
  if (const char* text = std::getenv("TILE_SIZE")) {
    result.size = number_from<unsigned long long>("TILE_SIZE", text, "stoull", std::stoull);
    const std::string_view digits(text);
    if (digits[digits.find_first_not_of(" \t\n\v\f\r")] == '-') result.size = 0;
  }
  return result;
}

/// The dense route in slices of the weight's rows, which holds one slice at a time.
template <int sg_size>
at::Tensor forward_tiled(const at::Tensor& input, const at::Tensor& weight, std::int64_t batch_size,
                         std::int64_t state_size, std::int64_t output_size, unsigned long long tile_size) {
  TORCH_CHECK(tile_size > 0, "TILE_SIZE must be a positive number of weight rows, but it is \"",
              std::getenv("TILE_SIZE"), "\"");
  at::Tensor output = empty_for(input, weight, batch_size, output_size);
  const auto step = static_cast<std::int64_t>(std::min<unsigned long long>(tile_size, output_size));
  for (std::int64_t start = 0; start < output_size; start += step) {
    const std::int64_t rows = std::min(step, output_size - start);
    const at::Tensor slice = empty_for(input, weight, rows, state_size);
    dispatch_floating(linear_label, input.scalar_type(), [&]<class T>(std::type_identity<T>) {
      const auto dequantize = current_gpu_type() == gpu_summit
                                  ? qlinear_xpu_tile_dequantize_kernel_q4_0_1x4<T, sg_size>
                                  : qlinear_xpu_tile_dequantize_kernel_q4_0_1x2<T, sg_size>;
      dequantize(weight.data_ptr<std::uint8_t>(), elements<T>(slice), static_cast<std::size_t>(state_size),
                 static_cast<std::size_t>(output_size), static_cast<std::size_t>(rows),
                 static_cast<std::size_t>(start), weight.device());
    });
    const at::Tensor part = at::linear(input, slice);
    using at::indexing::Slice;
    output.index_put_({Slice(), Slice(start, start + rows)}, part);
  }
  return output;
}

}  // namespace

template <int sg_size, int wg_size, int ROWS>
at::Tensor xpu_forward_q4_0_new(at::Tensor input, at::Tensor weight, std::int64_t batch_size,
                                std::int64_t state_size, std::int64_t output_size, std::int64_t size_hint) {
  using paths = q4_0_paths<sg_size, wg_size, ROWS>;
  const tiling tiles = current_tiling();
  const int type = current_gpu_type();
  if (batch_size == 1 || (type != gpu_summit && batch_size <= paths::batch_limit)) {
    return forward_by<paths>(input, weight, batch_size, state_size, output_size);
  }
  if (type == gpu_vela && output_size > tiles.threshold && size_hint > 128) {
    return forward_tiled<sg_size>(input, weight, batch_size, state_size, output_size, tiles.size);
  }
  return multiplied_by_dense<paths>(input, weight, batch_size, state_size, output_size);
}

template <int sg_size, int wg_size>
at::Tensor xpu_forward_q4_1_new(at::Tensor input, at::Tensor weight, std::int64_t batch_size,
                                std::int64_t state_size, std::int64_t output_size,
                                std::int64_t /*size_hint*/) {
  return forward_by<q4_1_paths<sg_size, wg_size>>(input, weight, batch_size, state_size, output_size);
}

at::Tensor dequantize_q4_0(const at::Tensor& input, const at::Tensor& weight, std::int64_t state_size,
                           std::int64_t output_size) {
  return dequantized<q4_0_paths<16, 32, 2>>(input, weight, state_size, output_size);
}

at::Tensor dequantize_q4_1(const at::Tensor& input, const at::Tensor& weight, std::int64_t state_size,
                           std::int64_t output_size) {
  return dequantized<q4_1_paths<16, 32>>(input, weight, state_size, output_size);
}

template decltype(xpu_forward_q4_0_new<32, 64, 2>) xpu_forward_q4_0_new<32, 64, 2>;
template decltype(xpu_forward_q4_0_new<16, 32, 2>) xpu_forward_q4_0_new<16, 32, 2>;
template decltype(xpu_forward_q4_0_new<16, 32, 8>) xpu_forward_q4_0_new<16, 32, 8>;
template decltype(xpu_forward_q4_1_new<32, 64>) xpu_forward_q4_1_new<32, 64>;
template decltype(xpu_forward_q4_1_new<16, 32>) xpu_forward_q4_1_new<16, 32>;

}  // namespace tolvane
