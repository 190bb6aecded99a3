// The matrix engine's route of the quantized linear layer: a few activation rows times packed weights, whose
// values are unpacked into register tiles and multiplied there. An explicit-SIMD kernel: a work-item is a
// thread with whole tiles in registers.

#include <ATen/ops/empty.h>
#include <c10/util/Exception.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <iostream>
#include <type_traits>
#include <utility>

#include "dispatch.h"
#include "formats/list.h"
#include "linear_xpu_kernel.h"
#include "submit.h"
#include "sycl/ext/kelvor/esimd.hpp"

namespace tolvane {
namespace {

namespace esimd = sycl::ext::kelvor::esimd;

constexpr int QK = 64;        // elements of a block
constexpr int tile_rows = 8;  // activation rows of a tile

/// The value in byte `Byte` of each word, or in one nibble of it, from bit `First` of the byte on. Where the
/// bits are taken out by masks, shifting the words takes fewer constants than a register file lacks.
template <class Format, class CT, int Byte, int First, int N>
[[gnu::always_inline]] inline esimd::simd<CT, N> unpacked(const esimd::simd<std::uint32_t, N>& words) {
  if constexpr (std::is_same_v<Format, q4_0> || std::is_same_v<Format, q8_0>) {
    return Format::template value<CT, First>(words >> (8 * Byte));
  } else {
    return Format::template value<CT, 8 * Byte + First>(words);
  }
}

/// What threads that work on the same columns read: values and scales of the first one's first block, the
/// bytes from one column to the next, and those to the columns that are read next.
struct column_blocks {
  const std::uint8_t* values;
  const std::uint8_t* scales;
  std::int64_t value_stride;
  std::int64_t scale_stride;
  std::int64_t ahead;
};

/// running[r] += the products of R activation rows with blocks begin … end - 1 of N columns, each block's
/// scaled as a whole. Activations stand R rows side by side, element by element.
template <class Format, class CT, std::size_t R, int N>
[[gnu::noinline, gnu::flatten]] void add_blocks(spmd::row_tile<R, N>& running, const float* activations,
                                                const column_blocks& columns, std::int64_t begin,
                                                std::int64_t end) {
  // Where the other kernels read no scale, this one does.
  using scale = std::conditional_t<Format::scale_bytes == 2, half, float>;
  for (std::int64_t b = begin; b < end; ++b) {
    const std::uint8_t* block = columns.values + b * Format::value_bytes;
    const auto d = spmd::convert<float>(
        esimd::gather<scale, N>(columns.scales + b * Format::scale_bytes, columns.scale_stride));
    const auto words = esimd::block_load_transposed<Format::value_bytes / 4, N>(block, columns.value_stride);
    for (int j = 0; j < N; ++j) esimd::prefetch(block + j * columns.value_stride + columns.ahead);
    const float* a = activations + b * static_cast<std::int64_t>(QK * R);
    spmd::row_tile<R, N> sums;
    spmd::unrolled<R>([&](auto r) { sums[r] = esimd::simd<float, N>(0.0f); });
    // Elements k and k + 32 share a byte of a four-bit format: its first two tiles are in the low nibbles.
    spmd::unrolled<QK / Format::value_bytes>([&](auto part) [[gnu::always_inline]] {
      constexpr int tiles = Format::value_bytes / esimd::dpas_depth;
      for (int t = 0; t < tiles; ++t) {
        const float* tile = a + (part * tiles + t) * static_cast<int>(esimd::dpas_depth * R);
        const auto* tile_words = words.data() + t * (esimd::dpas_depth / 4);
        esimd::dpas<CT>(sums, tile, [&](auto k) [[gnu::always_inline]] {
          return unpacked<Format, CT, k % 4, part * 4>(tile_words[k / 4]);
        });
      }
    });
    spmd::unrolled<R>([&](auto r) { running[r] = spmd::mad(sums[r], d, running[r]); });
  }
}

/// Rows of output[r][n] = sum over k of input[r][k] * weight[n][k]. Group (n, r) computes columns N * n to
/// N * n + N - 1 of the activation rows 8 * r to 8 * r + 7, of which the last tile has M; its threads share
/// the blocks of a row, and pass their sums to each other in ST.
template <class IT, class CT, class AT, class ST, int M, int N, int GS>
struct sysarr_kernel {
  const IT* input;
  const std::uint8_t* weight;
  const std::uint8_t* scales;
  IT* output;
  std::size_t blocks_per_row;
  std::size_t blocks_per_split;
  std::size_t output_size;
  int qtype;
  sycl::local_accessor<ST> local;
  std::size_t batch_size;

  static_assert(std::is_same_v<AT, float>);
  static constexpr int sub_group_size = 1;
  static constexpr bool uses_sub_group = true;

  /// Activations in CT, what all groups read: the rows of a tile side by side, element by element.
  const float* activations = nullptr;
  void prepare(sycl::host::arena& memory) {
    const std::size_t columns = blocks_per_row * QK;
    auto* out = memory.template allocate<float>(batch_size * columns + 8);
    activations = out;
    for (std::size_t row = 0; row < batch_size; row += tile_rows) {
      const std::size_t rows = std::min<std::size_t>(tile_rows, batch_size - row);
      for (std::size_t k = 0; k < columns; k += 8) {
        std::array<spmd::eight_floats, 8> values;
        for (std::size_t r = 0; r < 8; ++r) {
          const IT* from = input + (row + std::min(r, rows - 1)) * columns + k;
          values[r] = spmd::convert<float>(spmd::convert<CT>(spmd::load<8>(from)));
        }
        // A row that does not exist is written over.
        for (const auto& element : spmd::transposed(values)) {
          spmd::store(out, element);
          out += rows;
        }
      }
    }
  }

  template <class Item>
  void operator()(const Item& item) const {
    const bool last = item.get_group(1) == item.get_group_range(1) - 1;
    last ? run<M>(item) : run<tile_rows>(item);  // NOLINT(bugprone-branch-clone): one where a tile is whole
  }

 private:
  template <int R, class Item>
  void run(const Item& item) const {
    const auto n0 = static_cast<std::int64_t>(item.get_group(0)) * N;
    const auto tile = static_cast<std::int64_t>(item.get_group(1));
    const auto s = static_cast<std::size_t>(item.first());
    const auto begin = static_cast<std::int64_t>(std::min(s * blocks_per_split, blocks_per_row));
    const auto end = static_cast<std::int64_t>(std::min((s + 1) * blocks_per_split, blocks_per_row));

    const float* rows = activations + tile * static_cast<std::int64_t>(blocks_per_row) * (QK * tile_rows);

    // As many columns at a time as a register has lanes. [row][split][column]
    ST* sums = local.get(item);
    constexpr int width = std::min(N, spmd::native_lanes<float>);
    for (int column = 0; column < N; column += width) {
      spmd::row_tile<R, width> running;
      spmd::unrolled<R>([&](auto r) { running[r] = esimd::simd<float, width>(0.0f); });
      switch (qtype) {
        case q4_0::qtype:
          add_blocks<q4_0, CT>(running, rows, columns<q4_0>(n0 + column), begin, end);
          break;
        case q8_0::qtype:
          add_blocks<q8_0, CT>(running, rows, columns<q8_0>(n0 + column), begin, end);
          break;
        case fp8_e4m3::qtype:
          add_blocks<fp8_e4m3, CT>(running, rows, columns<fp8_e4m3>(n0 + column), begin, end);
          break;
        case fp8_e5m2::qtype:
          add_blocks<fp8_e5m2, CT>(running, rows, columns<fp8_e5m2>(n0 + column), begin, end);
          break;
      }
      for (std::size_t r = 0; r < R; ++r) esimd::block_store(sums + (r * GS + s) * N + column, running[r]);
    }
    item.barrier();
    if (s >= R) return;
    esimd::simd<ST, N> total(ST(0.0f));
    for (int split = 0; split < GS; ++split)
      total = total + esimd::block_load<N>(sums + (s * GS + split) * N);
    const auto row = static_cast<std::size_t>(tile) * tile_rows + s;
    esimd::block_store(output + row * output_size + n0, total);
  }

  template <class Format>
  column_blocks columns(std::int64_t first) const {
    const auto row_blocks = static_cast<std::int64_t>(blocks_per_row);
    const std::int64_t values = row_blocks * Format::value_bytes,
                       own_scales = row_blocks * Format::scale_bytes;
    return {weight + first * values, scales + first * own_scales, values, own_scales, N * values};
  }
};

template <class IT, class CT, class AT, class ST, int M, int N, int GS>
void sysarr_forward_kernel(const void* input, const std::uint8_t* weight, const std::uint8_t* scales,
                           void* output, const std::size_t batch_size, const std::size_t state_size,
                           const std::size_t output_size, const int qtype, at::Device device) {
  TORCH_CHECK(output_size % N == 0, "forward_new: output_size % N == 0 is needed, but got output_size ",
              output_size, " and N ", N);
  TORCH_CHECK(state_size % QK == 0, "forward_new: state_size % QK == 0 is needed, but got state_size ",
              state_size, " and QK ", QK);
  const std::size_t blocks_per_row = state_size / QK;
  const std::size_t blocks_per_split = (blocks_per_row + GS - 1) / GS;
  const sycl::range<2> global(output_size / N * GS, (batch_size + tile_rows - 1) / tile_rows);
  submit(device, [&](sycl::handler& command) {
    const sycl::local_accessor<ST> local(tile_rows * GS * N, command);
    command.parallel_for(sycl::nd_range<2>(global, {GS, 1}),
                         sysarr_kernel<IT, CT, AT, ST, M, N, GS>{
                             static_cast<const IT*>(input), weight, scales, static_cast<IT*>(output),
                             blocks_per_row, blocks_per_split, output_size, qtype, local, batch_size});
  });
}

using sysarr_launcher = decltype(&sysarr_forward_kernel<float, half, float, half, 8, 16, 8>);

/// The instances with M = 8, 1, 2, … 7.
template <class IT, class CT, class AT, class ST, int N, int GS>
constexpr std::array<sysarr_launcher, 8> by_last_rows = []<int... I>(std::integer_sequence<int, I...>) {
  return std::array<sysarr_launcher, 8>{sysarr_forward_kernel < IT, CT, AT, ST, I == 0 ? 8 : I, N, GS > ...};
}
(std::make_integer_sequence<int, 8>());

template <int N>
sysarr_launcher launcher_for(at::ScalarType type, std::size_t last_rows) {
  switch (type) {
    case at::ScalarType::Float:
      return by_last_rows<float, half, float, half, N, 8>[last_rows];
    case at::ScalarType::Half:
      return by_last_rows<half, half, float, half, N, 8>[last_rows];
    case at::ScalarType::BFloat16:
      return by_last_rows<bfloat16, bfloat16, float, bfloat16, N, 8>[last_rows];
    default:
      std::cerr << "unsupported dtype" << std::endl;
      std::exit(2);
  }
}

/// Bytes of the values of 64 elements, by qtype.
constexpr auto value_bytes = by_qtype<std::uint64_t>([]<class Format>(std::type_identity<Format>) {
  if constexpr (Format::matrix_engine) return std::uint64_t{Format::value_bytes};
  return std::uint64_t{0};
});

}  // namespace

at::Tensor sysarr_forward(at::Tensor input, at::Tensor weight, std::int64_t batch_size,
                          std::int64_t state_size, std::int64_t output_size, std::int64_t /*size_hint*/,
                          int qtype, bool wide_tile) {
  at::Tensor output = at::empty({batch_size, output_size}, input.options().device(weight.device()));
  const std::int64_t scale_offset =
      state_size * output_size / QK * static_cast<std::int64_t>(value_bytes[qtype]);
  const std::uint8_t* values = weight.data_ptr<std::uint8_t>();
  const auto last_rows = static_cast<std::size_t>(batch_size % 8);
  const sysarr_launcher launch = wide_tile ? launcher_for<16>(input.scalar_type(), last_rows)
                                           : launcher_for<8>(input.scalar_type(), last_rows);
  launch(input.data_ptr(), values, values + scale_offset, output.data_ptr(),
         static_cast<std::size_t>(batch_size), static_cast<std::size_t>(state_size),
         static_cast<std::size_t>(output_size), qtype, weight.device());
  return output;
}

}  // namespace tolvane
