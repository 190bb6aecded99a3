// The matrix engine's route of the quantized linear layer: a few activation rows times packed weights, whose
// values are unpacked into register tiles and multiplied there. An explicit-SIMD kernel: a work-item is a
// thread with whole tiles in registers.

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
#include "new_tensor.h"
#include "spmd/dense_product.hpp"
#include "submit.h"
#include "sycl/ext/kelvor/esimd.hpp"

namespace tolvane {
namespace {

namespace esimd = sycl::ext::kelvor::esimd;

constexpr int QK = 64;         // elements of a block
constexpr int tile_rows = 8;   // activation rows of a group
constexpr int together = 16;   // columns that are unpacked together; those of one group or of two
constexpr int most_rows = 64;  // of all groups, as the route has it

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

/// Where the columns that are unpacked together stand: values and scales of the first one's first block, and
/// the bytes from one column to the next.
struct column_blocks {
  const std::uint8_t* values;
  const std::uint8_t* scales;
  std::int64_t value_stride;
  std::int64_t scale_stride;
};

/// One block of all columns: what CT holds of its values, element by element, and its scales.
struct unpacked_block {
  alignas(64) float values[QK * together];
  float scales[together];
};

/// Unpacks block b of the columns, and asks for that of the next columns.
template <class Format, class CT>
[[gnu::noinline, gnu::flatten]] void unpack(const column_blocks& columns, std::int64_t b,
                                            unpacked_block& to) {
  // Where the other kernels read no scale, this one does.
  using scale = std::conditional_t<Format::scale_bytes == 2, half, float>;
  constexpr int width = std::min(together, std::max(8, spmd::native_lanes<float>));
  for (int c = 0; c < together; c += width) {
    const std::uint8_t* block = columns.values + c * columns.value_stride + b * Format::value_bytes;
    const std::uint8_t* scales = columns.scales + c * columns.scale_stride + b * Format::scale_bytes;
    esimd::block_store(to.scales + c,
                       spmd::convert<float>(esimd::gather<scale, width>(scales, columns.scale_stride)));
    const auto words =
        esimd::block_load_transposed<Format::value_bytes / 4, width>(block, columns.value_stride);
    for (int j = 0; j < width; ++j) esimd::prefetch(block + (together + j) * columns.value_stride);
    // Elements k and k + 32 share a byte of a four-bit format.
    spmd::unrolled<QK / Format::value_bytes>([&](auto part) [[gnu::always_inline]] {
      spmd::unrolled<Format::value_bytes>([&](auto i) [[gnu::always_inline]] {
        const auto value = unpacked<Format, CT, i % 4, part * 4>(words[i / 4]);
        esimd::block_store(to.values + (part * Format::value_bytes + i) * together + c, value.w);
      });
    });
  }
}

/// running[r] += the products of R activation rows with a block, scaled as a whole. Activations stand R rows
/// side by side, element by element.
template <class CT, int Parts, int R>
void add_block(const float* activations, const unpacked_block& block, float* running) {
  spmd::row_tile<R, together> sums;
  sums.fill(esimd::simd<float, together>(0.0f));
  for (int k0 = 0; k0 < QK; k0 += esimd::dpas_depth) {
    esimd::dpas<CT, Parts>(sums, activations + k0 * R, [&](auto k) [[gnu::always_inline]] {
      return esimd::simd<CT, together>(esimd::block_load<together>(block.values + (k0 + k) * together));
    });
  }
  const auto d = esimd::block_load<together>(block.scales);
  for (int r = 0; r < R; ++r) {
    float* to = running + r * together;
    esimd::block_store(to, spmd::mad(sums[r], d, esimd::block_load<together>(to)));
  }
}

/// The same for a tile of `rows` rows. Few rows are summed in two parts, or they would not keep the CPU busy:
/// an addition takes four cycles or five, and two start in each.
template <class CT, int Parts>
void add_block(std::int64_t rows, const float* activations, const unpacked_block& block, float* running) {
  static constexpr auto add = []<int... I>(std::integer_sequence<int, I...>) {
    return std::array{add_block<CT, Parts, I + 1>...};
  }
  (std::make_integer_sequence < int, Parts == 1 ? spmd::tile_rows : 3 > ());
  add[rows - 1](activations, block, running);
}

/// Rows of output[r][n] = sum over k of input[r][k] * weight[n][k]. Group (n, r) computes columns N * n to
/// N * n + N - 1 of the activation rows 8 * r to 8 * r + 7; its threads share
/// the blocks of a row, and pass their sums to each other in ST. That is what the caller sees: the first
/// group of 16 columns works for all of them and all rows, so that a block is unpacked once.
template <class IT, class CT, class AT, class ST, int N, int GS>
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

  /// Activations in CT, what all groups read, in tiles.
  const float* activations = nullptr;
  void prepare(sycl::host::arena& memory) {
    const auto rows = static_cast<std::int64_t>(batch_size), columns = row_elements();
    auto* out = memory.template allocate<float>(batch_size * static_cast<std::size_t>(columns));
    activations = out;
    for (std::int64_t tile = 0; tile < spmd::tiles_of(rows); ++tile)
      spmd::lay_out_tile<CT>(input, columns, rows, tile, columns, out);
  }

  template <class Item>
  void operator()(const Item& item) const {
    const auto n0 = static_cast<std::int64_t>(item.get_group(0)) * N;
    if (item.get_group(1) != 0 || n0 % together != 0) return;
    const auto rows = static_cast<std::int64_t>(batch_size);
    const auto s = static_cast<std::size_t>(item.first());
    const std::size_t begin = std::min(s * blocks_per_split, blocks_per_row);
    const std::size_t end = std::min(begin + blocks_per_split, blocks_per_row);

    struct alignas(64) {
      unpacked_block block;
      float running[most_rows * together];
    } own;
    const sycl::host::accessible_here all(&own, sizeof own);
    std::fill_n(own.running, rows * together, 0.0f);
    for (auto b = static_cast<std::int64_t>(begin); b < static_cast<std::int64_t>(end); ++b) {
      unpack_any(n0, b, own.block);
      for (std::int64_t tile = 0; tile < spmd::tiles_of(rows); ++tile) {
        const std::int64_t first = spmd::tile_begin(rows, tile);
        const std::int64_t count = spmd::tile_begin(rows, tile + 1) - first;
        const float* from = activations + first * row_elements() + b * QK * count;
        const auto add = rows <= 3 ? add_block<CT, 2> : add_block<CT, 1>;
        add(count, from, own.block, own.running + first * together);
      }
    }

    ST* sums = local.get(item);  // [row][split][column]
    for (std::int64_t r = 0; r < rows; ++r) {
      esimd::block_store(sums + (r * GS + static_cast<std::int64_t>(s)) * together,
                         esimd::block_load<together>(own.running + r * together));
    }
    item.barrier();
    for (auto r = static_cast<std::int64_t>(s); r < rows; r += GS) {
      esimd::simd<ST, together> total(ST(0.0f));
      for (int split = 0; split < GS; ++split)
        total = total + esimd::block_load<together>(sums + (r * GS + split) * together);
      esimd::block_store(output + r * static_cast<std::int64_t>(output_size) + n0, total);
    }
  }

 private:
  std::int64_t row_elements() const { return static_cast<std::int64_t>(blocks_per_row) * QK; }

  void unpack_any(std::int64_t column, std::int64_t b, unpacked_block& to) const {
    switch (qtype) {
      case q4_0::qtype:
        return unpack<q4_0, CT>(columns<q4_0>(column), b, to);
      case q8_0::qtype:
        return unpack<q8_0, CT>(columns<q8_0>(column), b, to);
      case fp8_e4m3::qtype:
        return unpack<fp8_e4m3, CT>(columns<fp8_e4m3>(column), b, to);
      case fp8_e5m2::qtype:
        return unpack<fp8_e5m2, CT>(columns<fp8_e5m2>(column), b, to);
    }
  }

  template <class Format>
  column_blocks columns(std::int64_t first) const {
    const auto row_blocks = static_cast<std::int64_t>(blocks_per_row);
    const std::int64_t values = row_blocks * Format::value_bytes,
                       own_scales = row_blocks * Format::scale_bytes;
    return {weight + first * values, scales + first * own_scales, values, own_scales};
  }
};

/// Submits the kernel. M, the rows of the last tile, is the instances' own: the kernel finds them itself.
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
    const sycl::local_accessor<ST> local(batch_size * GS * together, command);
    command.parallel_for(sycl::nd_range<2>(global, {GS, 1}),
                         sysarr_kernel<IT, CT, AT, ST, N, GS>{
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
  at::Tensor output = new_tensor({batch_size, output_size}, input.options().device(weight.device()));
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
