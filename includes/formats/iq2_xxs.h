#pragma once
// A quarter more than two bits in blocks of 256: eight elements at a time are a point of a grid and a pattern
// of signs.

#include <array>
#include <bit>
#include <cstdint>
#include <cstring>

#include "formats/format.h"
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

/// The grid: magnitudes of eight elements, element j in byte j.
// clang-format off
inline constexpr std::array<std::uint64_t, 256> iq2xxs_grid = {
    0x0808080808080808, 0x080808080808082B, 0x0808080808081919, 0x0808080808082B08, 0x0808080808082B2B,
    0x0808080808190819, 0x0808080808191908, 0x08080808082B0808, 0x08080808082B082B, 0x08080808082B2B08,
    0x08080808082B2B2B, 0x0808080819080819, 0x0808080819081908, 0x0808080819190808, 0x0808080819192B08,
    0x08080808192B0819, 0x08080808192B1908, 0x080808082B080808, 0x080808082B08082B, 0x080808082B082B2B,
    0x080808082B2B082B, 0x0808081908080819, 0x0808081908081908, 0x0808081908190808, 0x0808081908191919,
    0x0808081919080808, 0x080808192B081908, 0x080808192B192B08, 0x0808082B08080808, 0x0808082B0808082B,
    0x0808082B082B082B, 0x0808082B2B08082B, 0x0808190808080819, 0x0808190808081908, 0x0808190808190808,
    0x08081908082B0819, 0x08081908082B1908, 0x0808190819080808, 0x080819081908082B, 0x0808190819082B08,
    0x08081908192B0808, 0x080819082B080819, 0x080819082B081908, 0x080819082B190808, 0x080819082B2B1908,
    0x0808191908080808, 0x080819190808082B, 0x0808191908082B08, 0x08081919082B0808, 0x080819191908192B,
    0x08081919192B2B19, 0x080819192B080808, 0x080819192B190819, 0x0808192B08082B19, 0x0808192B08190808,
    0x0808192B19080808, 0x0808192B2B081908, 0x0808192B2B2B1908, 0x08082B0808080808, 0x08082B0808081919,
    0x08082B0808082B08, 0x08082B0808191908, 0x08082B08082B2B08, 0x08082B0819080819, 0x08082B0819081908,
    0x08082B0819190808, 0x08082B081919082B, 0x08082B082B082B08, 0x08082B1908081908, 0x08082B1919080808,
    0x08082B2B0808082B, 0x08082B2B08191908, 0x0819080808080819, 0x0819080808081908, 0x0819080808190808,
    0x08190808082B0819, 0x0819080819080808, 0x08190808192B0808, 0x081908082B081908, 0x081908082B190808,
    0x081908082B191919, 0x0819081908080808, 0x0819081908082B08, 0x08190819082B0808, 0x0819081919190808,
    0x0819081919192B2B, 0x081908192B080808, 0x0819082B082B1908, 0x0819082B19081919, 0x0819190808080808,
    0x0819190808082B08, 0x08191908082B0808, 0x08191908082B1919, 0x0819190819082B19, 0x081919082B080808,
    0x0819191908192B08, 0x08191919192B082B, 0x0819192B08080808, 0x0819192B0819192B, 0x08192B0808080819,
    0x08192B0808081908, 0x08192B0808190808, 0x08192B0819080808, 0x08192B082B080819, 0x08192B1908080808,
    0x08192B1908081919, 0x08192B192B2B0808, 0x08192B2B19190819, 0x082B080808080808, 0x082B08080808082B,
    0x082B080808082B2B, 0x082B080819081908, 0x082B0808192B0819, 0x082B08082B080808, 0x082B08082B08082B,
    0x082B0819082B2B19, 0x082B081919082B08, 0x082B082B08080808, 0x082B082B0808082B, 0x082B190808080819,
    0x082B190808081908, 0x082B190808190808, 0x082B190819080808, 0x082B19081919192B, 0x082B191908080808,
    0x082B191919080819, 0x082B1919192B1908, 0x082B192B2B190808, 0x082B2B0808082B08, 0x082B2B08082B0808,
    0x082B2B082B191908, 0x082B2B2B19081908, 0x1908080808080819, 0x1908080808081908, 0x1908080808190808,
    0x1908080808192B08, 0x19080808082B0819, 0x19080808082B1908, 0x1908080819080808, 0x1908080819082B08,
    0x190808081919192B, 0x19080808192B0808, 0x190808082B080819, 0x190808082B081908, 0x190808082B190808,
    0x1908081908080808, 0x19080819082B0808, 0x19080819192B0819, 0x190808192B080808, 0x190808192B081919,
    0x1908082B08080819, 0x1908082B08190808, 0x1908082B19082B08, 0x1908082B1919192B, 0x1908082B192B2B08,
    0x1908190808080808, 0x1908190808082B08, 0x19081908082B0808, 0x190819082B080808, 0x190819082B192B19,
    0x190819190819082B, 0x19081919082B1908, 0x1908192B08080808, 0x19082B0808080819, 0x19082B0808081908,
    0x19082B0808190808, 0x19082B0819080808, 0x19082B0819081919, 0x19082B1908080808, 0x19082B1919192B08,
    0x19082B19192B0819, 0x19082B192B08082B, 0x19082B2B19081919, 0x19082B2B2B190808, 0x1919080808080808,
    0x1919080808082B08, 0x1919080808190819, 0x1919080808192B19, 0x19190808082B0808, 0x191908082B080808,
    0x191908082B082B08, 0x1919081908081908, 0x191908191908082B, 0x191908192B2B1908, 0x1919082B2B190819,
    0x191919082B190808, 0x191919082B19082B, 0x1919191908082B2B, 0x1919192B08080819, 0x1919192B19191908,
    0x19192B0808080808, 0x19192B0808190819, 0x19192B0808192B19, 0x19192B08192B1908, 0x19192B1919080808,
    0x19192B2B08082B08, 0x192B080808081908, 0x192B080808190808, 0x192B080819080808, 0x192B0808192B2B08,
    0x192B081908080808, 0x192B081919191919, 0x192B082B08192B08, 0x192B082B192B0808, 0x192B190808080808,
    0x192B190808081919, 0x192B191908190808, 0x192B19190819082B, 0x192B19192B081908, 0x192B2B081908082B,
    0x2B08080808080808, 0x2B0808080808082B, 0x2B08080808082B2B, 0x2B08080819080819, 0x2B0808082B08082B,
    0x2B08081908081908, 0x2B08081908192B08, 0x2B08081919080808, 0x2B08082B08190819, 0x2B08190808080819,
    0x2B08190808081908, 0x2B08190808190808, 0x2B08190808191919, 0x2B08190819080808, 0x2B081908192B0808,
    0x2B08191908080808, 0x2B0819191908192B, 0x2B0819192B191908, 0x2B08192B08082B19, 0x2B08192B19080808,
    0x2B08192B192B0808, 0x2B082B080808082B, 0x2B082B1908081908, 0x2B082B2B08190819, 0x2B19080808081908,
    0x2B19080808190808, 0x2B190808082B1908, 0x2B19080819080808, 0x2B1908082B2B0819, 0x2B1908190819192B,
    0x2B1908192B080808, 0x2B19082B19081919, 0x2B19190808080808, 0x2B191908082B082B, 0x2B19190819081908,
    0x2B19191919190819, 0x2B192B082B080819, 0x2B192B19082B0808, 0x2B2B08080808082B, 0x2B2B080819190808,
    0x2B2B08082B081919, 0x2B2B081908082B19, 0x2B2B082B08080808, 0x2B2B190808192B08, 0x2B2B2B0819190808,
    0x2B2B2B1908081908,
};
// clang-format on

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

  /// The sub-block that eight bytes `place` of register `part` belong to: as the sums of the two registers
  /// are added up, they come out in order.
  static constexpr int sub_block(int part, int place) { return place / 2 * 4 + part * 2 + place % 2; }

  /// A block's activations: registers `part` of the eights `l` of four sub-blocks, and a quarter of each
  /// sub-block's step, which is exact.
  struct alignas(64) columns {
    std::int8_t bytes[2][4][32];
    float step[items];
  };
  static void lay_out(columns& out, const block_q8_1* activations) {
    for (int part = 0; part < 2; ++part) {
      for (int l = 0; l < 4; ++l) {
        for (int place = 0; place < 4; ++place)
          std::memcpy(out.bytes[part][l] + 8 * place, activations[sub_block(part, place)].qs + 8 * l, 8);
      }
    }
    for (int s = 0; s < items; ++s) out.step[s] = float(activations[s].d) * 0.25f;
  }

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
    const words sign = signs(aux);
    std::array<spmd::lanes<std::int32_t, items>, 2> sum;
    spmd::unrolled<2>([&]<int Part>(std::integral_constant<int, Part>) [[gnu::always_inline]] {
      sum[Part] = 0;
      spmd::unrolled<4>([&]<int L>(std::integral_constant<int, L>) [[gnu::always_inline]] {
        const auto point = [&](int place) [[gnu::always_inline]] {
          return iq2xxs_grid[points[8 * sub_block(Part, place) + L]];
        };
        const spmd::vec<std::uint64_t, 4> magnitudes = {point(0), point(1), point(2), point(3)};
        const auto q8 = spmd::load<items>(reinterpret_cast<const std::uint32_t*>(x.bytes[Part][L]));
        const auto negated =
            spmd::negated_by_bits(q8, sign, [](int i) { return 4 * sub_block(Part, i / 8) + L; });
        sum[Part] = spmd::dot_bytes(
            sum[Part], words(reinterpret_cast<spmd::vec<std::uint32_t, items>>(magnitudes)), negated);
      });
    });
    const floats first = spmd::bit_cast<float>(sum[0]), second = spmd::bit_cast<float>(sum[1]);
    const auto sumi = spmd::bit_cast<std::int32_t>(spmd::evens(first, second)) +
                      spmd::bit_cast<std::int32_t>(spmd::odds(first, second));
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
