#pragma once

#include "search.h"

/// Formats of 64 elements whose codes are whole numbers: q4_0, q4_1, q5_0, q5_1 and q8_0.
///
/// Every encoder here and in the neighbouring headers has a static `encode(blocks, count, values, scales)`,
/// which writes the bytes of `count` blocks, `value_bytes` and `scale_bytes` each.
namespace quarn {

// Whole numbers find the scale of a block that the format can hold exactly; the other peaks narrow the search
// near the ends of the code range, where the best scales of other blocks lie. The lowest code has no positive
// partner, so a negative scale is as good as a positive one.
constexpr float q4_0_peaks[] = {-8.0f, 7.0f,  6.0f,  5.0f,  4.0f,  3.0f,  2.0f,  1.0f,  -9.5f, -9.0f,
                                -8.7f, -8.4f, -8.2f, -7.8f, -7.6f, -7.4f, -7.2f, -6.8f, -6.5f, 8.5f,
                                8.0f,  7.75f, 7.5f,  7.25f, 6.75f, 6.5f,  6.25f, 5.75f};
constexpr float q5_0_peaks[] = {-16.0f, 1.0f,   2.0f,   3.0f,   4.0f,   5.0f,   6.0f,   7.0f,   8.0f,
                                9.0f,   10.0f,  11.0f,  12.0f,  13.0f,  14.0f,  15.0f,  -18.0f, -17.2f,
                                -16.8f, -16.4f, -15.6f, -15.3f, -15.0f, -14.6f, -14.2f, 16.8f,  16.4f,
                                16.0f,  15.7f,  15.4f,  14.7f,  14.4f,  13.6f};
constexpr float q8_0_peaks[] = {127.0f, -128.0f, 127.5f,  126.5f,  126.0f,  125.0f,  124.0f,  122.0f,
                                120.0f, -128.5f, -127.5f, -127.0f, -126.0f, -125.0f, -123.0f, -121.0f};

/// Codes -half_range to half_range - 1 of value = code * d, of least squared error.
template <int half_range, class Stored>
Floats scaled_codes(const Blocks& blocks, std::span<const float> peaks, const Stored& stored, Ints* codes) {
  const auto nearest = [](Floats x) { return clamp(round(x), -half_range, half_range - 1); };
  const Floats scale = best_scale(blocks, peaks, nearest, stored);
  for (int e = 0; e < block_elements; ++e) codes[e] = to_ints(nearest(quotient(blocks.x[e], scale)));
  return scale;
}

/// Codes 0 to top of value = code * slope + minimum, of least squared error.
inline Line line_codes(const Blocks& blocks, int top, Ints* codes) {
  const Line line = best_line(blocks, top);
  for (int e = 0; e < block_elements; ++e)
    codes[e] = to_ints(line_code(blocks.x[e], line.slope, line.minimum, top));
  return line;
}

/// value = (code - 8) * d. A block of zeros gets scale 0 and code 8.
struct q4_0 {
  static constexpr int value_bytes = 32, scale_bytes = 2;
  static void encode(const Blocks& blocks, int count, std::uint8_t* values, std::uint8_t* scales) {
    Ints codes[block_elements];
    scatter_halves(scales, scale_bytes, count, scaled_codes<8>(blocks, q4_0_peaks, as_half, codes));
    for (Ints& code : codes) code += 8;
    scatter_nibbles(values, value_bytes, count, codes);
  }
};

/// value = code * d + m.
struct q4_1 {
  static constexpr int value_bytes = 32, scale_bytes = 4;
  static void encode(const Blocks& blocks, int count, std::uint8_t* values, std::uint8_t* scales) {
    Ints codes[block_elements];
    const Line line = line_codes(blocks, 15, codes);
    scatter_halves(scales, scale_bytes, count, line.slope);
    scatter_halves(scales + 2, scale_bytes, count, line.minimum);
    scatter_nibbles(values, value_bytes, count, codes);
  }
};

/// Records of d, m, the fifth bits and the nibbles.
inline void scatter_five_bits(std::uint8_t* records, int count, Floats slope, Floats minimum,
                              const Ints* codes) {
  constexpr int stride = 44;
  scatter_halves(records, stride, count, slope);
  scatter_halves(records + 2, stride, count, minimum);
  scatter_bits(records + 4, stride, count, codes, 4);
  scatter_nibbles(records + 12, stride, count, codes);
}

/// value = (code - 16) * d. The field m is written as 0. A block of zeros gets scale 0 and code 16.
struct q5_0 {
  static constexpr int value_bytes = 44, scale_bytes = 0;
  static void encode(const Blocks& blocks, int count, std::uint8_t* values, std::uint8_t*) {
    Ints codes[block_elements];
    const Floats scale = scaled_codes<16>(blocks, q5_0_peaks, as_half, codes);
    for (Ints& code : codes) code += 16;
    scatter_five_bits(values, count, scale, Floats{}, codes);
  }
};

/// value = code * d + m.
struct q5_1 {
  static constexpr int value_bytes = 44, scale_bytes = 0;
  static void encode(const Blocks& blocks, int count, std::uint8_t* values, std::uint8_t*) {
    Ints codes[block_elements];
    const Line line = line_codes(blocks, 31, codes);
    scatter_five_bits(values, count, line.slope, line.minimum, codes);
  }
};

/// Signed bytes of value = code * d with a float d. A block of zeros gets scale 0 and bytes 0.
struct q8_0 {
  static constexpr int value_bytes = 64, scale_bytes = 4;
  static void encode(const Blocks& blocks, int count, std::uint8_t* values, std::uint8_t* scales) {
    Ints codes[block_elements];
    scatter_floats(scales, scale_bytes, count, scaled_codes<128>(blocks, q8_0_peaks, as_float, codes));
    for (int e = 0; e < block_elements; ++e) scatter(values + e, value_bytes, count, codes[e]);
  }
};

}  // namespace quarn
