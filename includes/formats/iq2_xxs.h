#pragma once
// A quarter more than two bits in blocks of 256: eight elements at a time are a point of a grid and a pattern
// of signs.

#include <array>
#include <bit>
#include <cstdint>
#include <cstring>

#include "formats/format.h"
#include "formats/iq2xxs_grid.h"
#include "formats/q8_1.h"
#include "spmd/sums.hpp"
#include "spmd/word_bytes.hpp"
#include "sycl/launch.hpp"

namespace tolvane {

/// Four words per 32 elements: a byte for the grid point of each eight, then a 32-bit word of four signs of 7
/// bits and a scale of 4 bits. The words are aligned to 2 bytes only.
struct block_iq2_xxs {
  sycl::half d;
  std::uint16_t qs[32];
};
static_assert(sizeof(block_iq2_xxs) == 66);

/// Which of eight elements are negative: an even number of them always, so that seven bits say it.
inline constexpr std::array<std::uint8_t, 128> ksigns_iq2xs = [] {
  std::array<std::uint8_t, 128> signs{};
  for (unsigned i = 0; i < signs.size(); ++i)
    signs[i] = static_cast<std::uint8_t>(i | std::popcount(i) % 2 << 7);
  return signs;
}();
inline constexpr std::array<std::uint8_t, 8> kmask_iq2xs = {1, 2, 4, 8, 16, 32, 64, 128};

/// 32 elements of a block, a sub-block iqs from 0 to 7, by the eight-bit activations of the same columns.
inline float vec_dot_iq2_xxs_q8_1(const void* vbq, const block_q8_1* bq8_1, const int& iqs) {
  const auto* record = static_cast<const block_iq2_xxs*>(vbq);
  spmd::checked(record, sizeof *record);
  spmd::checked(bq8_1 + iqs, sizeof *bq8_1);
  std::uint8_t points[4];
  std::uint32_t aux = 0;
  std::memcpy(points, record->qs + 4 * iqs, 4);
  std::memcpy(&aux, record->qs + 4 * iqs + 2, 4);
  const std::int8_t* q8 = bq8_1[iqs].qs;
  std::int32_t sumi = 0;
  for (int l = 0; l < 4; ++l, aux >>= 7) {
    const std::uint8_t sign = ksigns_iq2xs[aux & 127];
    for (int j = 0; j < 8; ++j) {
      const int product = q8[8 * l + j] * static_cast<int>(iq2xxs_grid[points[l]] >> (8 * j) & 0xFF);
      sumi += sign & kmask_iq2xs[j] ? -product : product;
    }
  }
  const float scale = (static_cast<float>(aux) + 0.5f) * float(record->d) * float(bq8_1[iqs].d) * 0.25f;
  return scale * static_cast<float>(sumi);
}

struct iq2_xxs : super_block_format {
  static constexpr int qtype = 21;
  static constexpr const char* name = "iq2_xxs";
  static constexpr bool dequant = true;
  static constexpr int record_bytes = sizeof(block_iq2_xxs);

  /// Work-items that share a block's dot product: one for each sub-block.
  static constexpr int items = 8;
  static float dot(const std::uint8_t* record, const block_q8_1* activations, int item) {
    return vec_dot_iq2_xxs_q8_1(record, activations, item);
  }

  /// A block's activations as lanes read them, which are sub-blocks: of element j of each of their four
  /// eights a byte, as it is and negated, and a quarter of the step, which is exact.
  struct alignas(64) columns {
    std::uint32_t bytes[8][items];
    std::uint32_t negated[8][items];
    float step[items];
  };
  static void lay_out(columns& out, const block_q8_1* activations) {
    for (int s = 0; s < items; ++s) {
      for (int j = 0; j < 8; ++j) {
        std::int8_t plain[4], negated[4];
        for (int l = 0; l < 4; ++l) {
          plain[l] = activations[s].qs[8 * l + j];
          negated[l] = static_cast<std::int8_t>(-plain[l]);
        }
        std::memcpy(&out.bytes[j][s], plain, 4);
        std::memcpy(&out.negated[j][s], negated, 4);
      }
      out.step[s] = float(activations[s].d) * 0.25f;
    }
  }

  /// Per place l in a group of four and point of the grid: two bits for each of its eight elements, the first
  /// four in byte l and the others in byte l + 4.
  static constexpr auto codes = [] {
    std::array<std::array<std::uint64_t, 256>, 4> table{};
    for (int l = 0; l < 4; ++l) {
      for (int point = 0; point < 256; ++point) {
        for (int j = 0; j < 8; ++j) {
          const std::uint64_t magnitude = iq2xxs_grid[point] >> (8 * j) & 0xFF;
          table[l][point] |= magnitude / 16 << (8 * l + 2 * (j % 4) + 32 * (j / 4));  // 0, 1 or 2
        }
      }
    }
    return table;
  }();

  /// The 7-bit sign indices of a word as bytes of their signs. 11 operations.
  [[gnu::always_inline]] static spmd::lanes<std::uint32_t, items> signs(
      const spmd::lanes<std::uint32_t, items>& aux) {
    const auto pairs = (aux & 0x3FFFu) | ((aux << 2) & 0x3FFF0000u);
    const auto index = pairs + (pairs & 0x3F803F80u);  // moves the upper index by a bit
    constexpr auto odd = spmd::constants<std::uint8_t, 16>(
        [](int i) { return std::popcount(static_cast<unsigned>(i)) % 2 << 7; });
    return index | spmd::looked_up_bytes(odd, index ^ (index >> 4));
  }

  /// vec_dot_iq2_xxs_q8_1 of all work-items of a block.
  [[gnu::always_inline]] static spmd::lanes<float, items> dot(const std::uint8_t* at, const columns& x) {
    using floats = spmd::lanes<float, items>;
    using words = spmd::lanes<std::uint32_t, items>;
    const auto* record = reinterpret_cast<const block_iq2_xxs*>(at);
    const auto* points = reinterpret_cast<const std::uint8_t*>(record->qs);
    const words aux = spmd::load_tile8<items>(points, spmd::all_lanes<items>()).word[1];
    const auto group = [&](int s) {
      const std::uint8_t* p = points + 8 * s;
      return codes[0][p[0]] | codes[1][p[1]] | codes[2][p[2]] | codes[3][p[3]];
    };
    const spmd::vec<std::uint64_t, 4> groups[2] = {{group(0), group(1), group(4), group(5)},
                                                   {group(2), group(3), group(6), group(7)}};
    const floats first(reinterpret_cast<spmd::vec<float, 8>>(groups[0]));
    const floats second(reinterpret_cast<spmd::vec<float, 8>>(groups[1]));
    const std::array<words, 2> code = {spmd::bit_cast<std::uint32_t>(spmd::evens(first, second)),
                                       spmd::bit_cast<std::uint32_t>(spmd::odds(first, second))};
    const words sign = signs(aux);
    spmd::lanes<std::int32_t, items> sumi = 0;
    spmd::unrolled<8>([&]<int J>(std::integral_constant<int, J>) [[gnu::always_inline]] {
      constexpr auto magnitudes = spmd::constants<std::uint8_t, 16>([](int i) {
        return std::array{8, 25, 43, 0}[i >> (J % 2 * 2) & 3];
      });
      const auto magnitude = spmd::looked_up_bytes(magnitudes, code[J / 4] >> (J % 4 / 2 * 4));
      const auto q8 =
          spmd::chosen_by_bit<J>(sign, spmd::load<items>(x.negated[J]), spmd::load<items>(x.bytes[J]));
      sumi = spmd::dot_bytes(sumi, magnitude, q8);
    });
    const floats scale = (spmd::convert<float>(spmd::bit_cast<std::int32_t>(aux >> 28)) + 0.5f) *
                         spmd::repeated_half<items>(&record->d) * spmd::load<items>(x.step);
    return scale * spmd::convert<float>(sumi);
  }

  /// Work-items that expand a block, each eight elements, and the elements of some of them.
  static constexpr int expansion_items = 32;
  template <int N, class T>
  static void expand_items(const std::uint8_t* record, int first, T* output) {
    for (int t = first; t < first + N; ++t) expand<N>(record, t % 8, t / 8, output + t % 8 * 32 + t / 8 * 8);
  }

  /// Elements 8 * il to 8 * il + 7 of sub-block ib, computed in float, to `output`.
  template <int N, class T>
  static void expand(const std::uint8_t* at, int ib, int il, T* output) {
    const auto* record = reinterpret_cast<const block_iq2_xxs*>(at);
    spmd::checked(record, sizeof *record);
    const auto* group = reinterpret_cast<const std::uint8_t*>(record->qs + 4 * ib);
    std::uint32_t aux = 0;
    std::memcpy(&aux, group + 4, 4);
    const std::uint64_t magnitudes = iq2xxs_grid[group[il]];
    const std::uint8_t sign = ksigns_iq2xs[aux >> (7 * il) & 127];
    const float f = (static_cast<float>(aux >> 28) + 0.5f) * float(record->d) * 0.25f;
    if constexpr (N == 1) {
      for (int j = 0; j < 8; ++j) {
        const float value = f * static_cast<float>(magnitudes >> (8 * j) & 0xFF);
        spmd::store(output + j, spmd::convert<T>(sign & kmask_iq2xs[j] ? -value : value));
      }
    } else {
      using words = spmd::lanes<std::uint32_t, 8>;
      const words bytes(spmd::target::widened(std::bit_cast<spmd::vec<std::uint8_t, 8>>(magnitudes)));
      const auto value = spmd::convert<float>(spmd::bit_cast<std::int32_t>(bytes)) * f;
      spmd::store(output, spmd::bit_cast<float>(spmd::bit_cast<std::uint32_t>(value) ^
                                                (spmd::bits_from<8>(sign) << 31)));
    }
  }
};

}  // namespace tolvane
