#pragma once
// Two bits in blocks of 256, with a scale and a minimum of four bits each per 16 elements.

#include <bit>
#include <cstdint>

#include "formats/format.h"
#include "formats/q8_1.h"
#include "spmd/word_bytes.hpp"
#include "sycl/launch.hpp"

namespace tolvane {

/// Scale codes in the low nibbles and minimum codes in the high ones; a byte of `qs` holds four elements that
/// stand 32 apart.
struct block_q2_K {
  std::uint8_t scales[16];
  std::uint8_t qs[64];
  sycl::half d, dmin;
};
static_assert(sizeof(block_q2_K) == 84);

/// 16 of a block's elements, by eight-bit activations of the same 256 columns: those in bytes 4 * iqs to
/// 4 * iqs + 3, iqs from 0 to 15. The sums within a scale are integers.
inline float vec_dot_q2_k_q8_1(const void* vbq, const block_q8_1* bq8_1, const int& iqs) {
  const auto* record = static_cast<const block_q2_K*>(vbq);
  spmd::checked(record, sizeof *record);
  const int first = 4 * (iqs / 8), scale = iqs - iqs % 8 + iqs % 8 / 4;
  float sumd = 0.0f, summ = 0.0f;
  for (int i = 0; i < 4; ++i) {
    const block_q8_1& activations = bq8_1[first + i];
    spmd::checked(&activations, sizeof activations);
    const int sc = record->scales[scale + 2 * i];
    int dot = 0, sum = 0;
    for (int c = 0; c < 4; ++c) {
      const int u = activations.qs[4 * (iqs % 8) + c];
      dot += (record->qs[4 * iqs + c] >> (2 * i) & 3) * u;
      sum += u;
    }
    const float d8 = activations.d;
    sumd = spmd::mad(d8, static_cast<float>(dot * (sc & 15)), sumd);
    summ = spmd::mad(d8, static_cast<float>((sc >> 4) * sum), summ);
  }
  return spmd::mad(float(record->d), sumd, -(float(record->dmin) * summ));
}

struct q2_k : super_block_format {
  static constexpr int qtype = 23;
  static constexpr const char* name = "q2_k";
  static constexpr int record_bytes = sizeof(block_q2_K);

  /// Work-items that share a block's dot product.
  static constexpr int items = 16;
  static float dot(const std::uint8_t* record, const block_q8_1* activations, int item) {
    return vec_dot_q2_k_q8_1(record, activations, item);
  }

  /// A block's activations as 16 lanes read them, run by run: their four bytes, and the block's step and the
  /// step times the sum of the four bytes. The codes of the first three runs are multiplied where they stand
  /// in their bytes, which counts them 1, 4 and 16 times: the steps make up for it, without a rounding.
  struct alignas(64) columns {
    std::uint32_t bytes[4][items];
    float step[4][items];
    float sum[4][items];
  };
  static constexpr int shift(int run) { return run < 3 ? 2 * run : 4; }

  static void lay_out(columns& out, const block_q8_1* activations) {
    for (int run = 0; run < 4; ++run) {
      for (int l = 0; l < items; ++l) {
        const block_q8_1& from = activations[l / 8 * 4 + run];
        const std::int8_t* bytes = from.qs + l % 8 * 4;
        std::memcpy(&out.bytes[run][l], bytes, 4);
        const float d = from.d;
        out.step[run][l] = d / static_cast<float>(1 << shift(run));
        out.sum[run][l] = d * static_cast<float>(bytes[0] + bytes[1] + bytes[2] + bytes[3]);
      }
    }
  }

  /// vec_dot_q2_k_q8_1 of all work-items of a block.
  [[gnu::always_inline]] static spmd::lanes<float, items> dot(const std::uint8_t* at, const columns& x) {
    using floats = spmd::lanes<float, items>;
    const auto* record = reinterpret_cast<const block_q2_K*>(at);
    const auto codes = spmd::load<items>(reinterpret_cast<const std::uint32_t*>(record->qs));
    spmd::checked(record->scales, sizeof record->scales);
    // Four lanes share the scales of their runs: lane i of them is given those of run i, in both halves of
    // the word.
    const auto nibbles = spmd::spread_bytes<items>(
        spmd::loaded<spmd::vec<std::uint8_t, 16>>(record->scales),
        [](int l, int b) { return b % 2 == 0 ? l / 8 * 8 + l % 4 * 2 + l % 8 / 4 : -1; });
    const auto scales = nibbles & 0x000F000Fu;
    const auto minima = spmd::convert<float>(spmd::bit_cast<std::int32_t>((nibbles >> 4) & 0xFu));
    floats sumd = 0.0f, summ = 0.0f;
    spmd::unrolled<4>([&]<int I>(std::integral_constant<int, I>) [[gnu::always_inline]] {
      const auto field = (codes >> (2 * I - shift(I))) & (0x03030303u << shift(I));
      const auto dot = spmd::weighted_dot_bytes(field, spmd::load<items>(x.bytes[I]),
                                                spmd::repeated_in_quarters<I>(scales));
      sumd = spmd::mad(spmd::load<items>(x.step[I]), spmd::convert<float>(dot), sumd);
      summ = spmd::mad(spmd::load<items>(x.sum[I]), spmd::repeated_in_quarters<I>(minima), summ);
    });
    const auto [d, dmin] = spmd::repeated_halves<items>(&record->d);
    return spmd::mad(d, sumd, -(dmin * summ));
  }

  /// Work-items that expand a block, and the elements of some of them.
  static constexpr int expansion_items = 64;
  template <int N, class T>
  static void expand_items(const std::uint8_t* record, int first, T* output) {
    expand<N>(record, first, output);
  }

  /// The elements of bytes t, t + 1, … of the record, N bytes, 32 divides t where N is more than 1: a scale's
  /// multiple of the code less the minimum, in float.
  template <int N, class T>
  static void expand(const std::uint8_t* at, int t, T* output) {
    const auto* record = reinterpret_cast<const block_q2_K*>(at);
    spmd::checked(record, sizeof *record);
    const float d = record->d, dmin = record->dmin;
    const auto codes = spmd::load_bytes<N>(record->qs + t);
    spmd::unrolled<4>([&](auto s) [[gnu::always_inline]] {
      const std::uint8_t* scales = record->scales + t / 32 * 8 + s * 2;
      const auto scaled = [&](const auto& code, int sc) [[gnu::always_inline]] {
        using value = std::remove_cvref_t<decltype(code)>;
        return spmd::mad(value(d * static_cast<float>(sc & 15)), code,
                         value(-(dmin * static_cast<float>(sc >> 4))));
      };
      T* out = output + t / 32 * 128 + t % 32 + s * 32;
      const auto code = spmd::field_value<2, 2 * s, 0>(codes);
      if constexpr (N == 1) {
        spmd::store(out, spmd::convert<T>(scaled(code, scales[t % 32 / 16])));
      } else {
        static_assert(N == 32);
        spmd::store(out, scaled(spmd::lower(code), scales[0]));
        spmd::store(out + 16, scaled(spmd::upper(code), scales[1]));
      }
    });
  }
};

}  // namespace tolvane
