#pragma once
// Loads of bytes that are the upper halves of half-precision numbers.

#include "sycl/spmd.hpp"

namespace spmd {

/// The half whose upper byte is p[l] and whose lower byte is `Lower`, as float, in lane l. 1 load, 1 shuffle
/// and 1 conversion per register.
template <int N, std::uint8_t Lower>
[[gnu::always_inline]] inline varying_t<float, N> load_upper_bytes(const std::uint8_t* p, all_lanes<N>) {
  checked(p, N);
  if constexpr (N == 1) {
    return sycl::host::half_value(static_cast<std::uint16_t>(*p << 8 | Lower));
  } else if constexpr (N > 8) {
    return {load_upper_bytes<N / 2, Lower>(p, all_lanes<N / 2>()),
            load_upper_bytes<N / 2, Lower>(p + N / 2, all_lanes<N / 2>())};
  } else {
    const __m128i bytes = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(p));
    return lanes<float, N>(
        _mm256_cvtph_ps(_mm_unpacklo_epi8(_mm_set1_epi8(static_cast<char>(Lower)), bytes)));
  }
}

/// The same for the first lanes only: nothing behind them is read.
template <int N, std::uint8_t Lower>
[[gnu::always_inline]] inline varying_t<float, N> load_upper_bytes(const std::uint8_t* p, first_lanes live) {
  const auto count = static_cast<std::size_t>(live.count);
  checked(p, count);
  std::uint16_t halves[N] = {};
  for (std::size_t l = 0; l < count; ++l) halves[l] = static_cast<std::uint16_t>(p[l] << 8 | Lower);
  return convert<float>(from_buffer<N>(reinterpret_cast<const half*>(halves)));
}

}  // namespace spmd
