#pragma once
// Expansion of packed weights to dense matrices: the kernels and the host functions that submit them.

#include <c10/core/Device.h>

#include <cstdint>

#include "checks.h"
#include "matvec.h"
#include "submit.h"

namespace tolvane {

/// Rows of zoned blocks: one work-group per row, a work-item takes `PerItem` elements of a step and keeps its
/// place in every block that it visits. The neighbouring bytes of a gang's work-items are one run.
template <class Format, class T, int PerItem>
struct row_dequantize_kernel {
  std::int64_t state_size;
  int steps;
  const std::uint8_t* scales;
  const std::uint8_t* values;
  T* output;
  int block_step;

  static constexpr bool waits = false;
  static constexpr int elements_per_byte = Format::block / Format::value_bytes;

  template <class Item>
  void operator()(const Item& item) const {
    constexpr int n = Item::lanes;
    constexpr int bytes_per_item = PerItem / elements_per_byte;
    const std::int64_t blocks = state_size / Format::block;
    const auto row = static_cast<std::int64_t>(item.get_group(0));
    const int begin = item.first() * bytes_per_item;
    int end = begin + item.live() * bytes_per_item;
    if constexpr (n > 1) {
      // The first gang goes through the runs of all of them, so that a row is read and written in one go.
      if (item.first() > 0) return;
      end = item.group_size() * bytes_per_item;
    }
    for (int step = 0; step < steps; ++step) {
      for (int at = begin; at < end; at += n) {
        const std::int64_t block = row * blocks + std::int64_t{step} * block_step + at / Format::value_bytes;
        const int byte = at % Format::value_bytes;
        const auto code = spmd::load_bytes<n>(values + block * Format::value_bytes + byte);
        const std::uint8_t* scale = scales + block * Format::scale_bytes;
        T* out = output + block * Format::block + byte;
        if constexpr (elements_per_byte == 2) {
          spmd::store(out, Format::template dequantized<T, Format::first_bit>(code, scale));
          spmd::store(out + 32, Format::template dequantized<T, 4 - Format::first_bit>(code, scale));
        } else {
          spmd::store(out, Format::template dequantized<T, 0>(code, scale));
        }
      }
    }
  }
};

/// The whole tensor without row structure: work-item i decodes `Format::flat_elements` elements of one block.
template <class Format, class T>
struct flat_dequantize_kernel {
  std::int64_t total;
  const std::uint8_t* weight;
  const std::uint8_t* scales;
  T* output;

  template <class Item>
  void operator()(const Item& item) const {
    const std::int64_t first =
        static_cast<std::int64_t>(item.get_group(0)) * item.group_size() + item.first();
    Format::template decode_flat<T, Item::lanes>(*this, first, item.live());
  }
};

/// The largest work-group, up to 256, whose steps of `per_item` elements a work-item divide the row.
inline int row_group_size(std::int64_t state_size, int per_item) {
  int size = 256;
  while (state_size % (std::int64_t{size} * per_item) != 0) size /= 2;
  return size;
}

/// What an expansion is asked for: rows start … start + rows - 1 of a weight of output_size rows, into an
/// output that begins with the first of them.
template <class T>
struct expansion {
  const std::uint8_t* weight;
  T* output;
  std::int64_t state_size, output_size, start, rows;
  c10::Device device;
};

/// By rows. `Plain` says that the host does not wait.
template <class Format, int PerItem, bool Plain, class T>
void qlinear_xpu_dequantize_kernel(const expansion<T>& range) {
  check_multiple(range.state_size, 64);
  if (range.rows == 0) return;
  const int group = row_group_size(range.state_size, PerItem);
  const std::int64_t first_block = range.start * range.state_size / Format::block;
  const std::uint8_t* scales = range.weight + zoned_scale_offset<Format>(range.state_size, range.output_size);
  submit<Plain ? submission_form::plain : submission_form::waiting>(
      range.device, [&](sycl::handler& command) {
        command.parallel_for(
            sycl::nd_range<1>(static_cast<std::size_t>(range.rows) * group, group),
            row_dequantize_kernel<Format, T, PerItem>{
                range.state_size, static_cast<int>(range.state_size / (group * PerItem)),
                scales + first_block * Format::scale_bytes, range.weight + first_block * Format::value_bytes,
                range.output, group * PerItem / Format::block});
      });
}

/// The whole tensor by a flat kernel, with the global size rounded up to whole groups.
template <class Format, class T>
void qlinear_xpu_dequantize_kernel_flat(const expansion<T>& range) {
  check_row_length(Format::name, range.state_size, Format::block);
  const std::int64_t total = range.state_size * range.rows;
  if (total == 0) return;
  constexpr std::size_t group = 256;
  const std::size_t items = static_cast<std::size_t>(total) / Format::flat_elements;
  const std::size_t groups = (items + group - 1) / group;
  submit<Format::plain_expansion ? submission_form::plain : submission_form::waiting>(
      range.device, [&](sycl::handler& command) {
        command.parallel_for(
            sycl::nd_range<1>(groups * group, group),
            flat_dequantize_kernel<Format, T>{total, range.weight,
                                              range.weight + Format::flat_scale_offset(total), range.output});
      });
}

/// Block by block: a work-group expands one, by as many work-items as the format says.
template <class Format, class T>
struct block_dequantize_kernel {
  const std::uint8_t* weight;
  T* output;

  static constexpr bool waits = false;

  template <class Item>
  void operator()(const Item& item) const {
    const auto g = static_cast<std::int64_t>(item.get_group(0));
    Format::template expand_items<Item::lanes>(weight + g * Format::record_bytes, item.first(),
                                               output + g * Format::block);
  }
};

template <class Format, class T>
void qlinear_xpu_dequantize_kernel_blocks(const expansion<T>& range) {
  check_multiple(range.state_size, 64);
  check_row_length(Format::name, range.state_size, Format::block);
  const std::int64_t blocks = range.state_size * range.rows / Format::block;
  if (blocks == 0) return;
  submit<submission_form::waiting>(range.device, [&](sycl::handler& command) {
    command.parallel_for(sycl::nd_range<1>(static_cast<std::size_t>(blocks) * Format::expansion_items,
                                           Format::expansion_items),
                         block_dequantize_kernel<Format, T>{range.weight, range.output});
  });
}

}  // namespace tolvane
