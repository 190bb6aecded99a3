// The formats of blocks of 256 elements, q2_k and iq2_xxs. One activation row is quantized to eight bits and
// multiplied in integers; more rows meet the expanded weight.

#include "checks.h"
#include "formats/iq2_xxs.h"
#include "formats/q2_k.h"
#include "linear_forward.h"
#include "new_tensor.h"
#include "submit.h"
#include "sycl/sycl.hpp"

namespace tolvane {
namespace {

/// The quotient rounded to the nearest integer, halves away from zero, within what a signed byte of either
/// sign holds. 0 for what is no number, as 0 / 0 in a block of zeros.
template <class V>
V quantized(const V& quotient) {
  const V magnitude = spmd::select(quotient < V(0.0f), -quotient, quotient);
  const V largest = spmd::select(magnitude > V(0.0f), V(127.0f), V(0.0f));
  const V bounded = spmd::select(magnitude < V(127.0f), magnitude, largest);
  const V whole = spmd::convert<float>(spmd::convert<std::int32_t>(bounded));
  const V rounded = spmd::select(bounded - whole < V(0.5f), whole, whole + V(1.0f));
  return spmd::select(quotient < V(0.0f), -rounded, rounded);
}

/// One activation row to blocks of 32: a sub-group a block, a work-item an element.
template <class T>
struct quantize_kernel_q8_1 {
  static constexpr int sub_group_size = 32;
  static constexpr bool uses_sub_group = true;

  const T* input;
  block_q8_1* output;

  template <class Item>
  void operator()(const Item& item) const {
    using value = spmd::varying<float, Item>;
    const auto i = static_cast<std::int64_t>(item.get_group(0)) * item.group_size() + item.first();
    const auto element = spmd::load<Item::lanes>(input + i);
    const value x = spmd::convert<float>(element);
    // Reduce
    const auto group = sycl::this_sub_group(item);
    value sum = x;
    value amax = spmd::select(x < value(0.0f), -x, x) + value(0.0f);
    for (int mask = 16; mask > 0; mask /= 2) {
      sum = sum + sycl::permute_group_by_xor(group, sum, mask);
      amax = sycl::fmax(amax, sycl::permute_group_by_xor(group, amax, mask));
    }
    // Quantize
    const value step = amax * value(std::bit_cast<float>(0x3C010204));  // 1 / 127
    value quotient;
    if constexpr (std::same_as<T, double>) {
      quotient = spmd::convert<float>(element / spmd::convert<double>(step));
    } else {
      quotient = x / step;
    }
    // Write
    block_q8_1* block = output + i / block_q8_1::block;
    const auto place = i % block_q8_1::block;
    spmd::store(block->qs + place,
                spmd::convert<std::int8_t>(spmd::convert<std::int32_t>(quantized(quotient))));
    if (place != 0) return;
    if constexpr (Item::lanes == 1) {
      spmd::store(&block->d, half(step));
      spmd::store(&block->s, half(sum));
    } else {
      spmd::store(&block->d, half(spmd::first_lane(step)));
      spmd::store(&block->s, half(spmd::first_lane(sum)));
    }
  }
};

/// Quantizes one row of `state_size` activations, a multiple of 256, to state_size / 32 records.
template <class T>
void quantize_xpu_kernel_q8_1(T* input, std::uint8_t* output, std::size_t /*batch_size*/,
                              std::size_t state_size, c10::Device device) {
  submit<submission_form::waiting>(device, [&](sycl::handler& command) {
    command.parallel_for(sycl::nd_range<1>(state_size, 256),
                         quantize_kernel_q8_1<T>{input, reinterpret_cast<block_q8_1*>(output)});
  });
}

/// The records of one activation row as bytes.
at::Tensor quantize_row_q8_1(const at::Tensor& input, std::int64_t batch_size, std::int64_t state_size) {
  const std::int64_t bytes =
      batch_size * state_size / block_q8_1::block * static_cast<std::int64_t>(sizeof(block_q8_1));
  at::Tensor output = new_tensor({bytes}, input.options().dtype(at::ScalarType::Byte));
  dispatch_floating(linear_label, input.scalar_type(), [&]<class T>(std::type_identity<T>) {
    quantize_xpu_kernel_q8_1<T>(elements<T>(input), elements<std::uint8_t>(output),
                                static_cast<std::size_t>(batch_size), static_cast<std::size_t>(state_size),
                                input.device());
  });
  return output;
}

/// One quantized activation row: work-group g computes output g. `Format::items` neighbouring work-items
/// share a block, the others are at the next blocks.
template <class Format, class T>
struct super_block_kernel {
  static constexpr int group = 32;
  static constexpr int blocks_at_once = group / Format::items;

  std::int32_t blocks_per_row;
  const std::uint8_t* weight;
  const block_q8_1* q8;
  sycl::local_accessor<T> local;
  T* output;

  typename Format::columns* columns = nullptr;
  void prepare(sycl::host::arena& memory) {
    if constexpr (spmd::gang_lanes > 1) {
      columns = memory.template allocate<typename Format::columns>(static_cast<std::size_t>(blocks_per_row));
      for (int i = 0; i < blocks_per_row; ++i) Format::lay_out(columns[i], q8 + i * blocks_of_8);
    }
  }

  template <class Item>
  void operator()(const Item& item) const {
    // Assign
    const auto g = static_cast<std::int64_t>(item.get_group(0));
    const std::uint8_t* row = weight + g * blocks_per_row * Format::record_bytes;
    // Walk
    spmd::varying<float, Item> acc;
    if constexpr (Item::lanes == 1) {
      acc = 0.0f;
      for (int i = item.first() / Format::items; i < blocks_per_row; i += blocks_at_once) {
        acc = acc +
              Format::dot(row + i * Format::record_bytes, q8 + i * blocks_of_8, item.first() % Format::items);
      }
    } else {
      static_assert(Item::lanes == group);
      std::array<spmd::lanes<float, Format::items>, blocks_at_once> sums;
      sums.fill(0.0f);
      const auto add = [&](int i, auto& sum) [[gnu::always_inline]] {
        sum = sum + Format::dot(row + i * Format::record_bytes, columns[i]);
      };
      int i = 0;
      for (; i + blocks_at_once <= blocks_per_row; i += blocks_at_once)
        spmd::unrolled<blocks_at_once>([&](auto b) [[gnu::always_inline]] { add(i + b, sums[b]); });
      spmd::unrolled<blocks_at_once - 1>([&](auto b) [[gnu::always_inline]] {
        if (i + b < blocks_per_row) add(i + b, sums[b]);
      });
      acc = joined(sums);
    }
    // Stage, Tree
    const auto sum = spmd::tree_sum(item, std::array{spmd::convert<T>(acc)}, local.get(item));
    // Write
    if (item.first() == 0) spmd::store(output + g, sum[0]);
  }

 private:
  static constexpr int blocks_of_8 = Format::block / block_q8_1::block;

  template <class V, std::size_t Count>
  static auto joined(const std::array<V, Count>& parts) {
    if constexpr (Count == 2) {
      return spmd::joined(parts[0], parts[1]);
    } else {
      static_assert(Count == 4);
      return spmd::joined(spmd::joined(parts[0], parts[1]), spmd::joined(parts[2], parts[3]));
    }
  }
};

/// Submits one row with work-groups of 32, in a range that `make_range` gives for the number of work-items.
template <class Format, class T, class MakeRange>
void multiply_q8_1(const std::uint8_t* weight, const std::uint8_t* q8, T* output, std::size_t state_size,
                   std::size_t output_size, c10::Device device, const MakeRange& make_range) {
  using kernel = super_block_kernel<Format, T>;
  submit<submission_form::waiting>(device, [&](sycl::handler& command) {
    const sycl::local_accessor<T> local(kernel::group, command);
    command.parallel_for(make_range(output_size * kernel::group, kernel::group),
                         kernel{static_cast<std::int32_t>(state_size / Format::block), weight,
                                reinterpret_cast<const block_q8_1*>(q8), local, output});
  });
}

template <class T>
void qlinear_xpu_kernel_q2_k_q8_1(const std::uint8_t* weight, const std::uint8_t* q8, T* output,
                                  std::size_t /*batch_size*/, std::size_t state_size, std::size_t output_size,
                                  c10::Device device) {
  multiply_q8_1<q2_k>(weight, q8, output, state_size, output_size, device,
                      [](std::size_t items, std::size_t group) {
                        return sycl::nd_range<2>({items, 1}, {group, 1});
                      });
}
template <class T>
void qlinear_xpu_kernel_iq2_xxs_q8_1(const std::uint8_t* weight, const std::uint8_t* q8, T* output,
                                     std::size_t /*batch_size*/, std::size_t state_size,
                                     std::size_t output_size, c10::Device device) {
  multiply_q8_1<iq2_xxs>(
      weight, q8, output, state_size, output_size, device,
      [](std::size_t items, std::size_t group) { return sycl::nd_range<1>(items, group); });
}

}  // namespace

template <class Format>
at::Tensor multiplied_in_integers(const at::Tensor& input, const at::Tensor& weight, std::int64_t state_size,
                                  std::int64_t output_size) {
  check_row_length("forward_new", state_size, Format::block);
  check_floating(linear_label, input);
  if (output_size == 0) return empty_for(input, weight, 1, 0);
  const at::Tensor q8 = quantize_row_q8_1(input, 1, state_size);
  return multiplied(input, weight, 1, state_size, output_size,
                    [&]<class T>(const T*, const std::uint8_t* bytes, T* output, auto... sizes) {
                      const auto* activations = q8.data_ptr<std::uint8_t>();
                      if constexpr (std::same_as<Format, q2_k>) {
                        qlinear_xpu_kernel_q2_k_q8_1<T>(bytes, activations, output, sizes...);
                      } else {
                        qlinear_xpu_kernel_iq2_xxs_q8_1<T>(bytes, activations, output, sizes...);
                      }
                    });
}

template struct linear_launchers<q2_k>;
template struct linear_launchers<iq2_xxs>;

}  // namespace tolvane
