#include "dense_product.h"

#include <ATen/ops/mm.h>

#include <algorithm>
#include <limits>
#include <type_traits>

#include "dispatch.h"
#include "new_tensor.h"
#include "spmd/dense_product.hpp"
#include "sycl/cpu.hpp"
#include "sycl/pool.hpp"

namespace tolvane {
namespace {

/// Calls body(i) for 0 … count - 1, dealt to the pool's threads.
template <class Body>
void in_parallel(std::int64_t count, const Body& body) {
  sycl::host::parallel_for_pieces(static_cast<std::size_t>(count), 1,
                                  [&](std::size_t begin, std::size_t end) {
                                    for (std::size_t i = begin; i < end; ++i)
                                      body(static_cast<std::int64_t>(i));
                                  });
}

/// Writes eight sums at a time, rounded.
template <class T>
void write(T* out, const float* sums, std::int64_t count) {
  std::int64_t c = 0;
  for (; c + 8 <= count; c += 8) spmd::store(out + c, spmd::from_buffer<8>(sums + c));
  const spmd::first_lanes rest{static_cast<int>(count - c)};
  if (rest.count > 0) spmd::store(out + c, spmd::from_buffer<8>(sums + c), rest);
}

constexpr const char* label = "dense_product";

/// Calls body(std::type_identity<T>()) for the types that are multiplied here.
template <class Body>
void dispatch_own(at::ScalarType type, const Body& body) {
  dispatch_floating(label, type, [&]<class T>(std::type_identity<T> element) {
    if constexpr (!std::is_same_v<T, double>) body(element);
  });
}

/// Whether our product is faster than PyTorch's, which streams weights where rows are few.
bool is_own(const at::Tensor& input) {
  const at::ScalarType type = input.scalar_type();
  if (type == at::kFloat) return input.size(0) > 3;
  return (type == at::kHalf || (type == at::kBFloat16 && !sycl::host::multiplies_bfloat16())) &&
         input.size(0) > 16;
}

/// Bytes of an expansion that are still in a cache when they are multiplied, and the most rows for which
/// PyTorch's product is not the slower for each slice.
constexpr std::int64_t slice_bytes = std::int64_t{4} << 20;
constexpr std::int64_t sliced_rows = 64;

}  // namespace

dense_product::dense_product(const at::Tensor& input) : input_(input) {
  if (!is_own(input)) return;
  const std::int64_t rows = input.size(0), depth = input.size(1);
  laid_out_ = new_tensor({rows * spmd::padded_depth(depth)}, input.options().dtype(at::kFloat));
  dispatch_own(input.scalar_type(), [&]<class T>(std::type_identity<T>) {
    in_parallel(spmd::tiles_of(rows),
                [from = elements<T>(input), to = elements<float>(laid_out_), rows, depth](std::int64_t tile) {
                  spmd::lay_out_tile<T>(from, depth, rows, tile, depth, to);
                });
  });
}

std::int64_t dense_product::rows_at_once(const at::Tensor& input) {
  if (!is_own(input) && input.size(0) > sliced_rows) return std::numeric_limits<int>::max();
  const std::int64_t row_bytes = input.size(1) * static_cast<std::int64_t>(input.element_size());
  const std::int64_t even = sycl::host::pool_threads() * spmd::product_columns;
  return (slice_bytes / row_bytes + even - 1) / even * even;
}

void dense_product::multiply(const at::Tensor& weight, at::Tensor& output, std::int64_t start) const {
  const std::int64_t columns = weight.size(0);
  if (!laid_out_.defined()) {
    at::Tensor out = output.narrow(1, start, columns);
    at::mm_out(out, input_, weight.t());
    return;
  }
  constexpr std::int64_t together = spmd::product_columns;
  const std::int64_t rows = input_.size(0), depth = input_.size(1), stride = output.stride(0);
  dispatch_own(input_.scalar_type(), [&]<class T>(std::type_identity<T>) {
    const float* x = elements<float>(laid_out_);
    const T* dense = elements<T>(weight);
    T* out = elements<T>(output) + start;
    in_parallel((columns + together - 1) / together, [&](std::int64_t group) {
      const std::int64_t first = group * together, count = std::min(together, columns - first);
      spmd::multiply_columns(
          x, rows, depth, dense + first * depth, depth, count,
          [&](std::int64_t row, const float* sums) { write(out + row * stride + first, sums, count); });
    });
  });
}

}  // namespace tolvane
