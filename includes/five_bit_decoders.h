#pragma once
// Decoding of the five-bit records: scale `d` and minimum `m` (both half), a 64-bit word of the codes' fifth
// bits in element order, and 32 bytes of their lower four bits, element j in the low nibble of byte j and j +
// 32 in the high one.

#include <cstdint>
#include <utility>

#include "spmd/spmd.hpp"

namespace tolvane {

/// What both formats share; `Format` says how a code, a scale and a minimum make an element.
template <class Format>
struct five_bit_records {
  static constexpr int block = 64;
  static constexpr int record_bytes = 44;
  static constexpr int flat_elements = 2;
  static constexpr std::int64_t flat_scale_offset(std::int64_t) { return 0; }

  static sycl::half scale(const std::uint8_t* record) {
    return spmd::load<1>(reinterpret_cast<const sycl::half*>(record));
  }
  static sycl::half minimum(const std::uint8_t* record) {
    return spmd::load<1>(reinterpret_cast<const sycl::half*>(record + 2));
  }

  /// The elements of byte j + l, j + l and j + 32 + l of the record, as the matrix-vector kernel multiplies
  /// them.
  template <class T, int N>
  static auto multiplied(const std::uint8_t* record, int j) {
    const auto upper = spmd::load<1>(reinterpret_cast<const std::uint64_t*>(record + 4));
    const std::uint8_t* bytes = record + 12 + j;
    const auto low =
        spmd::five_bit_values<N, false, Format::offset>(bytes, static_cast<std::uint32_t>(upper >> j));
    const auto high =
        spmd::five_bit_values<N, true, Format::offset>(bytes, static_cast<std::uint32_t>(upper >> (j + 32)));
    return std::pair(Format::template element<T, N>(low, record),
                     Format::template element<T, N>(high, record));
  }

  /// The same computed in float and converted once, for work-items first, first + 1, …, `live` of them.
  template <class T, int N, class Kernel>
  static void decode_flat(const Kernel& kernel, std::int64_t first, int live) {
    for (std::int64_t i = first; i < first + live && i * flat_elements < kernel.total; i += N) {
      const std::int64_t record = i / 32;
      const int j = static_cast<int>(i % 32);
      const auto [low, high] = multiplied<float, N>(kernel.weight + record * record_bytes, j);
      spmd::store(kernel.output + record * block + j, low);
      spmd::store(kernel.output + record * block + j + 32, high);
    }
  }
};

/// (c - 16) * d, with d rounded to T first; the product is in float, but for double.
struct q5_0 : five_bit_records<q5_0> {
  static constexpr int offset = -16;
  template <class T, int N>
  static spmd::varying_t<T, N> element(const spmd::varying_t<float, N>& value, const std::uint8_t* record) {
    using wide = spmd::wide<T>;
    const auto d = spmd::convert<wide>(spmd::convert<T>(scale(record)));
    return spmd::convert<T>(spmd::convert<wide>(value) * d);
  }
};

/// c * d + m, each step in T: half and bfloat16 round the product, float and double may contract.
struct q5_1 : five_bit_records<q5_1> {
  static constexpr int offset = 0;
  template <class T, int N>
  static spmd::varying_t<T, N> element(const spmd::varying_t<float, N>& value, const std::uint8_t* record) {
    const spmd::varying_t<T, N> d = spmd::convert<T>(scale(record)), m = spmd::convert<T>(minimum(record));
    const auto code = spmd::convert_exact<T>(value);
    if constexpr (spmd::reduced<T>) return d * code + m;
    return spmd::mad(d, code, m);
  }
};

}  // namespace tolvane
