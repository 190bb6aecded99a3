#pragma once

#include <array>
#include <bit>

#include "search.h"

/// Formats of 64 elements whose codes stand for the levels of a table: nf4, nf3 and fp4.
///
/// The levels of nf4 and nf3 are those of the normal-float quantile construction, stored as the bits of their
/// floats; fp4 has a sign and eight magnitudes, none of them zero.
namespace quarn {

template <std::size_t count>
constexpr std::array<float, count> floats_of(const std::uint32_t (&words)[count]) {
  std::array<float, count> floats{};
  for (std::size_t i = 0; i < count; ++i) floats[i] = std::bit_cast<float>(words[i]);
  return floats;
}

constexpr auto nf4_levels = floats_of({0xBF800000, 0xBF3239B1, 0xBF066B30, 0xBECA32A0, 0xBE91A24D, 0xBE3D353F,
                                       0xBDBA7871, 0x00000000, 0x3DA2FAFF, 0x3E24CAE3, 0x3E7C04DD, 0x3EAD033A,
                                       0x3EE1A4B8, 0x3F1007AB, 0x3F3913B3, 0x3F800000});
constexpr auto nf3_levels = floats_of(
    {0xBF800000, 0xBEF50EE3, 0xBE5E5A6B, 0x00000000, 0x3E24CAE3, 0x3EAD033A, 0x3F1007AB, 0x3F800000});
constexpr std::array<float, 16> fp4_levels{-6,      -4,  -3, -2,  -1.5, -1, -0.5, -0.03125,
                                           0.03125, 0.5, 1,  1.5, 2,    3,  4,    6};

// Besides each of the levels, what a block's largest weight is tried as.
constexpr float nf4_peaks[] = {0.85f, 0.9f,   0.94f, 0.97f,  1.03f,  1.06f, 1.1f,
                               1.15f, -0.85f, -0.9f, -0.95f, -1.05f, -1.1f};
constexpr float nf3_peaks[] = {0.8f,   0.85f, 0.9f,   0.95f, 1.05f,  1.1f,   1.15f, 1.2f,
                               1.25f,  1.3f,  1.4f,   1.5f,  -0.8f,  -0.85f, -0.9f, -0.95f,
                               -1.05f, -1.1f, -1.15f, -1.2f, -1.25f, -1.3f,  -1.4f, -1.5f};
constexpr float fp4_peaks[] = {3.25f, 3.5f,  3.75f, 4.25f, 4.5f,  4.75f, 5.0f, 5.25f,
                               5.5f,  5.75f, 6.25f, 6.5f,  6.75f, 7.0f,  7.25f};

/// A rising table of 8 or 16 levels, and rounding to the nearest of them; halfway between two it is the lower
/// one. Peaks are all levels and some more; of a table that is its own mirror image, the positive ones do.
template <std::size_t count, std::size_t more>
class Codebook {
  static_assert(count == 8 || count == 16);

 public:
  constexpr Codebook(const std::array<float, count>& levels, const float (&more_peaks)[more])
      : levels_(levels) {
    float middles[15];
    for (std::size_t i = 0; i < 15; ++i)
      middles[i] = i + 1 < count ? (levels[i + 1] + levels[i]) / 2 : infinity;
    middle_ = middles[7];
    for (std::size_t i = 0; i < 8; ++i) {
      quarters_[i] = middles[i == 1 ? 11 : 3];
      eighths_[i] = middles[4 * (i % 4) + 1];
      sixteenths_[i] = middles[2 * i];
    }
    bool mirrored = true;
    for (std::size_t i = 0; i < count; ++i) mirrored = mirrored && levels[i] == -levels[count - 1 - i];
    for (const float level : levels)
      if (level > 0 || (level < 0 && !mirrored)) peaks_[peak_count_++] = level;
    for (const float peak : more_peaks) peaks_[peak_count_++] = peak;
  }

  /// The number of levels below the nearest one.
  Ints index(Floats x) const {
    Ints index = -(x > middle_);
    index = index + index - (x > pick(load(quarters_), index));
    index = index + index - (x > pick(load(eighths_), index));
    return index + index - (x > pick(load(sixteenths_), index));
  }
  Floats nearest(Floats x) const {
    const Ints place = index(x);
    const Floats low = pick(load(levels_.data()), place);
    if constexpr (count == 8) return low;
    return place > 7 ? pick(load(levels_.data() + count - 8), place) : low;
  }
  std::span<const float> peaks() const { return {peaks_, peak_count_}; }

 private:
  std::array<float, count> levels_;
  float middle_, quarters_[8], eighths_[8], sixteenths_[8];
  float peaks_[count + more] = {};
  std::size_t peak_count_ = 0;
};

constexpr Codebook nf4_book(nf4_levels, nf4_peaks);
constexpr Codebook nf3_book(nf3_levels, nf3_peaks);
constexpr Codebook fp4_book(fp4_levels, fp4_peaks);

/// The places of the levels of value = level * d, of least squared error.
template <class Book>
Floats book_places(const Blocks& blocks, const Book& book, Ints* places) {
  const Floats scale = best_scale(
      blocks, book.peaks(), [&](Floats x) { return book.nearest(x); }, as_half, nullptr, 2);
  for (int e = 0; e < block_elements; ++e) places[e] = book.index(quotient(blocks.x[e], scale));
  return scale;
}

/// Element j is the high nibble of byte j, element j + 32 the low one.
struct nf4 {
  static constexpr int value_bytes = 32, scale_bytes = 2;
  static void encode(const Blocks& blocks, int count, std::uint8_t* values, std::uint8_t* scales) {
    Ints codes[block_elements];
    scatter_halves(scales, scale_bytes, count, book_places(blocks, nf4_book, codes));
    for (int byte = 0; byte < 32; ++byte)
      scatter(values + byte, value_bytes, count, codes[byte] << 4 | codes[byte + 32]);
  }
};

/// 8 bytes with bit 2 of each code, then 16 bytes with the two low bits of four elements each, the first one
/// highest.
struct nf3 {
  static constexpr int value_bytes = 24, scale_bytes = 2;
  static void encode(const Blocks& blocks, int count, std::uint8_t* values, std::uint8_t* scales) {
    Ints codes[block_elements];
    scatter_halves(scales, scale_bytes, count, book_places(blocks, nf3_book, codes));
    scatter_bits(values, value_bytes, count, codes, 2);
    for (int byte = 0; byte < 16; ++byte) {
      Ints four{};
      for (int e = 4 * byte; e < 4 * byte + 4; ++e) four = four << 2 | (codes[e] & 3);
      scatter(values + 8 + byte, value_bytes, count, four);
    }
  }
};

/// Bit 3 of a code is the sign. No level is 0: a zero beside other weights becomes 0.03125 * d in size.
struct fp4 {
  static constexpr int value_bytes = 32, scale_bytes = 2;
  static void encode(const Blocks& blocks, int count, std::uint8_t* values, std::uint8_t* scales) {
    Ints codes[block_elements];
    scatter_halves(scales, scale_bytes, count, book_places(blocks, fp4_book, codes));
    for (Ints& code : codes) code = code < 8 ? 15 - code : code - 8;
    scatter_nibbles(values, value_bytes, count, codes);
  }
};

}  // namespace quarn
