#pragma once
// How a tile's sum enters the accumulator of its row, and how an expansion scales an element. `load_scales`
// gives what `accumulate` wants of the blocks of a gang's tiles, of which `Repeat` neighbours share one.

#include <array>
#include <cstdint>
#include <variant>

#include "spmd/spmd.hpp"

namespace tolvane {

/// One scale a block, in a zone of their own: acc + sum * T(d).
template <class Scale>
struct one_scale {
  using scale_type = Scale;
  static constexpr int scale_bytes = sizeof(Scale);
  static constexpr bool needs_activation_sum = false;

  template <int Repeat, class T, int N, class Live>
  static spmd::varying_t<T, N> load_scales(const std::uint8_t* scales, Live live) {
    return spmd::repeat_each<N, Repeat>(spmd::convert<T>(spmd::load_shared<N, Repeat, Scale>(scales, live)));
  }
  template <class V>
  static V accumulate(const V& acc, const V& sum, const V&, const V& d) {
    return spmd::mad(sum, d, acc);
  }
};

/// A scale and a minimum a block: acc + (sum * T(d) + sum of the activations * T(m)).
struct scale_and_minimum {
  using scale_type = std::array<sycl::half, 2>;
  static constexpr int scale_bytes = 4;
  static constexpr bool needs_activation_sum = true;

  template <int Repeat, class T, int N, class Live>
  static std::array<spmd::varying_t<T, N>, 2> load_scales(const std::uint8_t* scales, Live live) {
    const auto pair = spmd::load_shared<N, Repeat, std::uint32_t>(scales, live);
    return {spmd::repeat_each<N, Repeat>(spmd::convert<T>(spmd::half_from_bits(pair & 0xFFFFu))),
            spmd::repeat_each<N, Repeat>(spmd::convert<T>(spmd::half_from_bits(pair >> 16)))};
  }
  template <class V>
  static V accumulate(const V& acc, const V& sum, const V& activations, const std::array<V, 2>& d_and_m) {
    return acc + spmd::mad(sum, d_and_m[0], activations * d_and_m[1]);
  }
};

/// Values that stand for themselves; their scale zone is not read.
struct no_scale {
  using scale_type = float;
  static constexpr int scale_bytes = 4;
  static constexpr bool needs_activation_sum = false;

  template <int Repeat, class T, int N, class Live>
  static std::monostate load_scales(const std::uint8_t*, Live) {
    return {};
  }
  template <class V>
  static V accumulate(const V& acc, const V& sum, const V&, std::monostate) {
    return acc + sum;
  }
};

/// Element at bit Bit of each word, as a dense matrix holds it: T(v) * T(d).
template <class Format, class T, int Bit, class W>
auto scaled_value(const W& word, const std::uint8_t* scale) {
  const auto v = Format::template value<T, Bit>(word);
  const T d = spmd::convert<T>(spmd::load<1>(reinterpret_cast<const typename Format::scale_type*>(scale)));
  return v * std::remove_cvref_t<decltype(v)>(d);
}

}  // namespace tolvane
