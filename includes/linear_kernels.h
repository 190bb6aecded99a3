#pragma once
// The forward kernels of the quantized linear layer and the host functions that submit them. Sub-group sizes
// are not among the parameters of a kernel, since none of them uses a sub-group operation; the work-group's
// size is known from the launch.

#include <ATen/core/Tensor.h>
#include <c10/core/Device.h>

#include <array>
#include <concepts>
#include <cstdint>

#include "checks.h"
#include "dequantize.h"
#include "matvec.h"
#include "submit.h"

namespace tolvane {

/// One activation row: work-group g computes outputs g * Rows to g * Rows + Rows - 1.
template <class Format, class T, int Rows>
struct matvec_kernel {
  std::size_t state_size;
  const std::uint8_t* weight;
  std::int32_t scale_offset;
  const T* input;
  sycl::local_accessor<T> local;
  std::size_t output_size;
  T* output;

  activation_tiles<Format, T> tiles{};
  void prepare(sycl::host::arena& memory) { tiles.prepare(memory, input, static_cast<int>(state_size)); }

  template <class Item>
  void operator()(const Item& item) const {
    // Assign; rows past the last one do not exist
    const auto row0 = static_cast<std::int64_t>(item.get_group(0)) * Rows;
    const auto rows =
        static_cast<int>(std::min<std::int64_t>(Rows, static_cast<std::int64_t>(output_size) - row0));
    const auto columns = static_cast<std::int64_t>(state_size);
    const zoned_weight<Format> packed{weight, scale_offset, columns / Format::block};
    // Walk, Stage, Tree
    const auto sum =
        row_products<1>(item, tiles, 0, columns, packed.template rows<Rows>(row0), local.get(item), rows);
    // Write
    if (item.first() != 0) return;
    for (int j = 0; j < rows; ++j) spmd::store(output + row0 + j, sum[j]);
  }
};

/// A few activation rows: group (g, b) computes outputs 2g and 2g + 1 of activation rows 2b and 2b + 1, as
/// far as the caller sees. The first group of a block does the work of all, so that a weight is unpacked once
/// for up to eight activation rows and these are fetched once for eight outputs; not in double and on one
/// lane, where speed is not what counts.
template <class Format, class T>
struct batch_kernel {
  std::size_t batch_size;
  std::size_t state_size;
  const std::uint8_t* weight;
  std::int32_t scale_offset;
  const T* input;
  sycl::local_accessor<T, 2> local;
  std::size_t output_size;
  T* output;

  static constexpr bool in_blocks = !std::same_as<T, double> && activation_tiles<Format, T>::lanes > 1;
  /// The activation rows and outputs of a block.
  static constexpr int most_rows = in_blocks ? 8 : 2, most_outputs = in_blocks ? 8 : 2;

  activation_tiles<Format, T> tiles{};
  void prepare(sycl::host::arena& memory) {
    tiles.prepare(memory, input, static_cast<int>(state_size), static_cast<int>(batch_size),
                  activation_sum::by_byte);
  }

  template <class Item>
  void operator()(const Item& item) const {
    // Rows
    const int b0 = static_cast<int>(item.get_group(1)) * 2;
    if (b0 % most_rows != 0 || item.get_group(0) * 2 % most_outputs != 0) return;
    const int left = std::min(static_cast<int>(batch_size) - b0, most_rows);
    for (int done = 0; done < left;) {
      const int rows = left - done >= 8 ? 8 : std::min(left - done, 4);
      if (rows == 1) {
        multiply<1>(item, b0, done);
      } else if (rows == 2) {
        multiply<2>(item, b0, done);
      } else if constexpr (in_blocks) {
        rows == 3   ? multiply<3>(item, b0, done)
        : rows == 4 ? multiply<4>(item, b0, done)
                    : multiply<8>(item, b0, done);
      }
      done += rows;
    }
  }

 private:
  /// All outputs of a block for `Batch` activation rows, from row `place` of the block on.
  template <int Batch, class Item>
  [[gnu::noinline]] void multiply(const Item& item, int b0, int place) const {
    // Assign
    const int b = b0 + place, columns = static_cast<int>(state_size);
    const auto row0 = static_cast<std::int64_t>(item.get_group(0)) * 2;
    const auto outputs =
        static_cast<int>(std::min<std::int64_t>(most_outputs, static_cast<std::int64_t>(output_size) - row0));
    const zoned_weight<Format> packed{weight, scale_offset, columns / Format::block};
    const auto local_of = [&](int j) {
      return local.get(item) + (place * most_outputs + j * Batch) * item.group_size();
    };
    const auto write = [&](int j, const T& sum, int a) {
      spmd::store(output + (b + a) * static_cast<std::int64_t>(output_size) + row0 + j, sum);
    };
    if constexpr (Batch > 2) {
      // Walk
      const auto finish = [&](int j, const auto& acc) {
        // Stage, Tree
        const auto sum = spmd::tree_sum(item, acc, local_of(j));
        // Write
        if (item.first() != 0) return;
        for (int a = 0; a < Batch; ++a) write(j, sum[a], a);
      };
      walk_together<Batch>(item, tiles, b, columns, packed.template rows<most_outputs>(row0), outputs,
                           finish);
    } else {
      for (int j = 0; j < outputs; j += 2) {
        const int pair = std::min(2, outputs - j);
        // Walk, Stage, Tree
        const auto sum = row_products<Batch>(item, tiles, b, columns, packed.template rows<2>(row0 + j),
                                             local_of(j), pair);
        // Write
        if (item.first() != 0) continue;
        for (int k = 0; k < Batch * pair; ++k) write(j + k % pair, sum[k / pair * 2 + k % pair], k / pair);
      }
    }
  }
};

/// One activation row times five-bit records: work-group g computes output g. A work-item keeps to one byte
/// of its blocks, elements j and j + 32, and adds their two products before they enter its sum.
template <class Format, class T>
struct five_bit_kernel {
  std::size_t state_size;
  const std::uint8_t* weight;
  const T* input;
  sycl::local_accessor<T> local;
  T* output;

  template <class Item>
  void operator()(const Item& item) const {
    constexpr int n = Item::lanes;
    const auto blocks = static_cast<std::int64_t>(state_size) / Format::block;
    const std::uint8_t* row =
        weight + static_cast<std::int64_t>(item.get_group(0)) * blocks * Format::record_bytes;
    const int j = item.first() % 32;
    spmd::varying<T, Item> acc = T(0.0f);
    for (std::int64_t block = item.first() / 32; block < blocks; block += item.group_size() / 32) {
      const auto [w0, w1] = Format::template multiplied<T, n>(row + block * Format::record_bytes, j);
      const T* x = input + block * Format::block + j;
      acc = acc + spmd::mad(w1, spmd::load<n>(x + 32), w0 * spmd::load<n>(x));
    }
    // Stage, Tree
    const auto sum = spmd::tree_sum(item, std::array{acc}, local.get(item));
    // Write
    if (item.first() == 0) spmd::store(output + item.get_group(0), sum[0]);
  }
};

/// A row is whole tiles, in the kernel's own words, and whole blocks.
template <class Format>
void check_tiles(std::size_t state_size) {
  const auto columns = static_cast<std::int64_t>(state_size);
  check_multiple(columns, Format::tile);
  check_row_length("forward_new", columns, Format::block);
}

/// Checks that rows are whole tiles, and submits one row. No outputs need no kernel.
template <class Format, class T, int wg_size, int Rows>
void qlinear_xpu_kernel_zoned(const T* input, const std::uint8_t* weight, T* output,
                              std::size_t /*batch_size*/, std::size_t state_size, std::size_t output_size,
                              c10::Device device) {
  check_tiles<Format>(state_size);
  if (output_size == 0) return;
  const std::int32_t scale_offset = zoned_scale_offset<Format>(static_cast<std::int64_t>(state_size),
                                                               static_cast<std::int64_t>(output_size));
  const std::size_t groups = (output_size + Rows - 1) / Rows;
  submit(device, [&](sycl::handler& command) {
    const sycl::local_accessor<T> local(Rows * wg_size, command);
    command.parallel_for(
        sycl::nd_range<1>(groups * wg_size, wg_size),
        matvec_kernel<Format, T, Rows>{state_size, weight, scale_offset, input, local, output_size, output});
  });
}

/// The same for a few rows. An odd last output counts as a pair.
template <class Format, class T, int wg_size>
void qlinear_xpu_kernel_batch(const T* input, const std::uint8_t* weight, T* output, std::size_t batch_size,
                              std::size_t state_size, std::size_t output_size, c10::Device device) {
  check_tiles<Format>(state_size);
  if (batch_size == 0 || output_size == 0) return;
  const std::int32_t scale_offset = zoned_scale_offset<Format>(static_cast<std::int64_t>(state_size),
                                                               static_cast<std::int64_t>(output_size));
  const sycl::range<2> global((output_size + 1) / 2 * wg_size, (batch_size + 1) / 2);
  submit(device, [&](sycl::handler& command) {
    using kernel = batch_kernel<Format, T>;
    const sycl::local_accessor<T, 2> local({kernel::most_rows, kernel::most_outputs * wg_size}, command);
    command.parallel_for(
        sycl::nd_range<2>(global, {wg_size, 1}),
        kernel{batch_size, state_size, weight, scale_offset, input, local, output_size, output});
  });
}

template <class Format, class T, int wg_size>
void qlinear_xpu_kernel_records(const T* input, const std::uint8_t* weight, T* output,
                                std::size_t /*batch_size*/, std::size_t state_size, std::size_t output_size,
                                c10::Device device) {
  check_row_length("forward_new", static_cast<std::int64_t>(state_size), Format::block);
  if (output_size == 0) return;
  submit(device, [&](sycl::handler& command) {
    const sycl::local_accessor<T> local(wg_size, command);
    command.parallel_for(sycl::nd_range<1>(output_size * wg_size, wg_size),
                         five_bit_kernel<Format, T>{state_size, weight, input, local, output});
  });
}

/// One row times a weight of either container.
template <class Format, class T, int wg_size, int Rows, class... Arguments>
void qlinear_xpu_kernel(const T* input, const Arguments&... more) {
  if constexpr (Format::zoned) {
    qlinear_xpu_kernel_zoned<Format, T, wg_size, Rows>(input, more...);
  } else {
    qlinear_xpu_kernel_records<Format, T, wg_size>(input, more...);
  }
}

}  // namespace tolvane
