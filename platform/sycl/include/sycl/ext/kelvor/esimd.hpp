#pragma once
// Explicit SIMD, as far as the kernels use it: a work-item is a thread that holds whole registers, and says
// so by a sub-group of one. Its registers are those of the vocabulary; half and bfloat16 stand widened in
// them.

#include <array>
#include <cstdint>

#include "spmd/spmd.hpp"
#include "spmd/tiles.hpp"

namespace sycl::ext::kelvor::esimd {

/// N values of T in registers, N = 8 or 16.
template <class T, int N>
using simd = spmd::lanes<T, N>;

/// N neighbouring elements of memory or of local memory.
template <int N, class T>
[[gnu::always_inline]] inline simd<T, N> block_load(const T* from) {
  return spmd::load<N>(from);
}
/// The same the other way; values of another type are converted to T, to nearest even.
template <class T, class U, int N>
[[gnu::always_inline]] inline void block_store(T* to, const simd<U, N>& values) {
  spmd::store(to, values);
}

/// `Words` neighbouring dwords of each of N places `stride` bytes apart: dword w of place l in lane l of
/// register w. N loads per eight words, and 24 shuffles per eight places.
template <int Words, int N>
[[gnu::always_inline]] inline std::array<simd<std::uint32_t, N>, Words> block_load_transposed(
    const std::uint8_t* from, std::int64_t stride) {
  static_assert(Words % 8 == 0);
  std::array<simd<std::uint32_t, N>, Words> words;
  if constexpr (N > 8) {
    const auto low = block_load_transposed<Words, N / 2>(from, stride);
    const auto high = block_load_transposed<Words, N / 2>(from + N / 2 * stride, stride);
    spmd::unrolled<Words>([&](auto w) [[gnu::always_inline]] { words[w] = joined(low[w], high[w]); });
  } else {
    spmd::unrolled<Words / 8>([&](auto part) [[gnu::always_inline]] {
      std::array<spmd::eight_floats, 8> rows;
      spmd::unrolled<8>([&](auto l) [[gnu::always_inline]] {
        rows[l] = spmd::load<8>(reinterpret_cast<const float*>(from + l * stride + part * 32));
      });
      const auto columns = spmd::transposed(rows);
      spmd::unrolled<8>([&](auto w) [[gnu::always_inline]] {
        words[part * 8 + w] = spmd::bit_cast<std::uint32_t>(columns[w]);
      });
    });
  }
  return words;
}

/// The T's at N places `stride` bytes apart, which need not be aligned. 1 load per place and some shuffles; a
/// store of parts and a load of the whole would wait for each other.
template <class T, int N>
[[gnu::always_inline]] inline simd<T, N> gather(const std::uint8_t* from, std::int64_t stride) {
  if constexpr (N > 8) {
    return joined(gather<T, N / 2>(from, stride), gather<T, N / 2>(from + N / 2 * stride, stride));
  } else {
    const auto at = [&](int l) [[gnu::always_inline]] {
      spmd::checked(from + l * stride, sizeof(T));
      using bits = std::conditional_t<sizeof(T) == 2, std::uint16_t, std::uint32_t>;
      return spmd::loaded<bits>(from + l * stride);
    };
    const spmd::vec<decltype(at(0)), 8> bits = {at(0), at(1), at(2), at(3), at(4), at(5), at(6), at(7)};
    if constexpr (std::same_as<T, half>) {
      return simd<T, N>(simd<float, N>(spmd::target::from_halves(bits)));
    } else {
      return spmd::bit_cast<T>(simd<std::uint32_t, N>(bits));
    }
  }
}

/// Asks for the cache line at this address, which may be one that does not exist.
[[gnu::always_inline]] inline void prefetch(const void* address) {
  __builtin_prefetch(address, 0, 2);
}

/// Elements that one dpas multiplies and adds up: a systolic depth of 8, two to a dword.
inline constexpr int dpas_depth = 16;

/// sums[r] += the products of row r of `a` with the columns of `b`, in float: a[0][r] * b(0) + a[1][r] * b(1)
/// … over 16 elements, in an order of its own, which `Parts` chooses. `a` is a matrix of `Rows` floats a row,
/// each a value of T; b(k) gives element k of all columns, with k as std::integral_constant.
template <class T, int Parts, std::size_t Rows, int N, class Columns>
[[gnu::always_inline]] inline void dpas(spmd::row_tile<Rows, N>& sums, const float* a, const Columns& b) {
  spmd::add_products<dpas_depth, Parts>(sums, a, [&](auto k) [[gnu::always_inline]] {
    const simd<T, N> column = b(k);
    return column.w;
  });
}

}  // namespace sycl::ext::kelvor::esimd
