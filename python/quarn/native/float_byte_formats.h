#pragma once

#include <array>

#include "search.h"

/// Formats of 64 elements with a floating-point byte each: fp8_e4m3, fp8_e5m2 and fp8_e5m2_linear.
namespace quarn {

/// `count` equal steps over the octave from `from`. That suffices, because doubling a scale changes no
/// rounding but that of subnormals.
template <std::size_t count>
constexpr std::array<float, count> octave(float from) {
  std::array<float, count> peaks{};
  for (std::size_t step = 0; step < count; ++step) peaks[step] = from + from * step / count;
  return peaks;
}

// Codes of the size of q4_0's, or smaller, leave the products and sums of a kernel that works in half far
// from its limits. The octave of e5m2 reaches down to 2^-16; that of e4m3, which has fewer exponents, is
// higher and reaches as far below its largest weight as matters: 2^-13 of it.
constexpr auto e5m2_peaks = octave<32>(1);
constexpr auto e4m3_peaks = octave<32>(8);

/// Rounds to nearest even onto a binary floating-point type with subnormals, whose smallest normal value is
/// 2^smallest_exponent; x is in the range of the type. A zero loses its sign.
template <int fraction_bits, int smallest_exponent>
Floats round_to_bits(Floats x) {
  // Next to a number that much larger, a float has just the bits that are to stay.
  constexpr float smallest = 1.0f / (1 << -smallest_exponent), larger = 1.5f * (1 << (23 - fraction_bits));
  const Floats power_of_two = from_bits(bits(x) & 0x7F800000);
  const Floats shift = max(power_of_two, all(smallest)) * larger;
  return x + shift - shift;
}

inline Ints sign_bit(Floats x) {
  return bits(x) >> 24 & 0x80;
}

/// Sign, four exponent bits of bias 7, three fraction bits, times the float d. The largest weight of a block
/// becomes 8 to 16. A block of zeros gets scale 0 and bytes 0.
struct fp8_e4m3 {
  static constexpr int value_bytes = 64, scale_bytes = 4;
  static void encode(const Blocks& blocks, int count, std::uint8_t* values, std::uint8_t* scales) {
    const Floats scale = abs(best_scale(blocks, e4m3_peaks, round_to_bits<3, -6>, as_float));
    scatter_floats(scales, scale_bytes, count, scale);
    for (int e = 0; e < block_elements; ++e) {
      const Floats x = quotient(blocks.x[e], scale), size = abs(round_to_bits<3, -6>(x));
      const Ints normal = (bits(size) >> 20) - (120 << 3);
      scatter(values + e, value_bytes, count,
              (size < 0x1p-6f ? to_ints(size * 0x1p9f) : normal) | sign_bit(x));
    }
  }
};

/// The upper half of the value's bits as a half, times the float d. The largest weight of a block becomes 1
/// to 2; one of the scales tried is a power of two, so scaling is never worse than not to scale. A block of
/// zeros gets scale 0 and bytes 0.
struct fp8_e5m2 {
  static constexpr int value_bytes = 64, scale_bytes = 4;
  static void encode(const Blocks& blocks, int count, std::uint8_t* values, std::uint8_t* scales) {
    Floats largest{};
    for (const Floats& x : blocks.x) largest = max(largest, abs(x));
    Floats mantissa = all(1);
    for (int block = 0; block < count; ++block) {
      int exponent = 0;
      if (largest[block] > 0) mantissa[block] = 2 * __builtin_frexpf(largest[block], &exponent);
    }
    const Floats scale = abs(best_scale(blocks, e5m2_peaks, round_to_bits<2, -14>, as_float, &mantissa));
    scatter_floats(scales, scale_bytes, count, scale);
    for (int e = 0; e < block_elements; ++e) {
      const Floats x = quotient(blocks.x[e], scale), size = abs(round_to_bits<2, -14>(x));
      const __m128i halves = _mm256_cvtps_ph(reinterpret_cast<__m256>(size), _MM_FROUND_TO_NEAREST_INT);
      scatter(values + e, value_bytes, count,
              reinterpret_cast<Ints>(_mm256_cvtepu16_epi32(halves)) >> 8 | sign_bit(x));
    }
  }
};

/// The half whose upper byte it is and whose lower byte is 80, without a scale: each weight gets the byte of
/// nearest value, of its own sign. There is no 0, and weights below 2^-17 in size become 2^-17. The scales,
/// which nothing reads, are 1.
struct fp8_e5m2_linear {
  static constexpr int value_bytes = 64, scale_bytes = 4;
  static constexpr int largest_byte = 0x7B;

  /// Half of the sum of what `byte` and the next one stand for.
  static float middle(int byte) {
    return (_cvtsh_ss(byte << 8 | 0x80) + _cvtsh_ss((byte + 1) << 8 | 0x80)) / 2;
  }

  static void encode(const Blocks& blocks, int count, std::uint8_t* values, std::uint8_t* scales) {
    static const auto middles = [] {
      std::array<float, largest_byte + 1> table{};
      for (int byte = 0; byte < largest_byte; ++byte) table[byte] = middle(byte);
      table[largest_byte] = infinity;
      return table;
    }();
    scatter_floats(scales, scale_bytes, count, all(1));
    for (int e = 0; e < block_elements; ++e) {
      const Floats size = abs(blocks.x[e]);
      const Ints sign = sign_bit(blocks.x[e]);
      for (int block = 0; block < count; ++block) {
        // The byte of the truncated half is the nearest one or next to it.
        const float x = size[block];
        int byte = _cvtss_sh(x < half_max ? x : half_max, _MM_FROUND_TO_ZERO) >> 8;
        if (byte > 0 && x <= middles[byte - 1]) --byte;
        if (x > middles[byte]) ++byte;
        values[block * value_bytes + e] = static_cast<std::uint8_t>(byte | sign[block]);
      }
    }
  }
};

}  // namespace quarn
