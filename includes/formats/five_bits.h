#pragma once
// The records of the five-bit formats: a scale `d` and a minimum `m`, a 64-bit word of the codes' fifth bits
// in element order, and the lower four bits, element j in the low nibble of byte j and j + 32 in the high
// one.

#include <cstddef>
#include <cstdint>
#include <utility>

#include "formats/format.h"
#include "spmd/spmd.hpp"

namespace tolvane {

struct block_q5_1 {
  sycl::half d, m;
  std::uint8_t qh[8];
  std::uint8_t qs[32];
};

/// What both formats share; `Format` says how a code, a scale and a minimum make an element.
template <class Format>
struct five_bit_records : record_format {
  static constexpr int block = 64;
  static constexpr int record_bytes = sizeof(block_q5_1);
  static constexpr int flat_elements = 2;
  static constexpr std::int64_t flat_scale_offset(std::int64_t) { return 0; }

  static sycl::half scale(const std::uint8_t* record) {
    return spmd::load<1>(reinterpret_cast<const sycl::half*>(record));
  }
  static sycl::half minimum(const std::uint8_t* record) {
    return spmd::load<1>(reinterpret_cast<const sycl::half*>(record + offsetof(block_q5_1, m)));
  }

  /// The elements of byte j + l, j + l and j + 32 + l of the record, as the matrix-vector kernel multiplies
  /// them.
  template <class T, int N>
  static auto multiplied(const std::uint8_t* record, int j) {
    const auto upper =
        spmd::load<1>(reinterpret_cast<const std::uint64_t*>(record + offsetof(block_q5_1, qh)));
    const std::uint8_t* bytes = record + offsetof(block_q5_1, qs) + j;
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

}  // namespace tolvane
