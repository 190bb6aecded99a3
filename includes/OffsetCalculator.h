#pragma once

#include <ATen/TensorIterator.h>
#include <c10/util/Exception.h>

#include <array>
#include <cstdint>

#include "IntDivider.h"

namespace tolvane {

inline constexpr int MAX_DIMS = 12;

/// From the linear index of an element of a TensorIterator to its offset, in elements, in each of NARGS
/// tensors. Dimension 0 is the one that varies fastest.
template <int NARGS>
struct OffsetCalculator {
  int dims = 0;
  std::array<IntDivider, MAX_DIMS> sizes_;
  std::array<std::array<std::uint32_t, NARGS>, MAX_DIMS> strides_{};

  std::array<std::uint32_t, NARGS> get(std::uint32_t linear) const {
    std::array<std::uint32_t, NARGS> offsets{};
    for (int dim = 0; dim < dims; ++dim) {
      const std::uint32_t quotient = sizes_[dim].quotient(linear);
      const std::uint32_t place = linear - quotient * sizes_[dim].divisor;
      for (int a = 0; a < NARGS; ++a) offsets[a] += place * strides_[dim][a];
      linear = quotient;
    }
    return offsets;
  }
};

/// The calculator of the first NARGS tensors of `iter`. Raises where it has more than 12 dimensions, or where
/// an index or an offset would need more than 32 bits.
template <int NARGS>
OffsetCalculator<NARGS> make_element_offset_calculator(const at::TensorIteratorBase& iter) {
  TORCH_CHECK(iter.ndim() <= MAX_DIMS, "tensor has too many (>", MAX_DIMS, ") dims");
  constexpr std::int64_t limit = std::int64_t{1} << 32;
  TORCH_CHECK(iter.numel() < limit, "a tensor must have fewer than 2^32 elements, but has ", iter.numel());
  OffsetCalculator<NARGS> result;
  result.dims = iter.ndim();
  for (int a = 0; a < NARGS; ++a) {
    std::int64_t last = 0;
    for (int dim = 0; dim < result.dims; ++dim) {
      const std::int64_t stride = iter.strides(a)[dim] / iter.element_size(a);
      result.strides_[dim][a] = static_cast<std::uint32_t>(stride);
      last += stride * (iter.shape()[dim] - 1);
    }
    TORCH_CHECK(last < limit, "a tensor's elements must lie within 2^32 elements of its first, but reach ",
                last);
  }
  if (iter.numel() == 0) return result;  // no index to divide
  for (int dim = 0; dim < result.dims; ++dim)
    result.sizes_[dim] = IntDivider(static_cast<std::uint32_t>(iter.shape()[dim]));
  return result;
}

}  // namespace tolvane
