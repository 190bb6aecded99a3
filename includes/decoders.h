#pragma once
// How the elements of a packed block become numbers: one small type per format. Where the codes of a block
// lie is told by a layout, what a code stands for by value<T, Bit>(word): the code at bit Bit of each word,
// before the scale, as T. The kernels' skeletons take a format as template argument.
//
// A layout for the matrix-vector skeleton has
//   tile              elements that one work-item takes from a block in a step
//   run_start(t, r)   column in the row of the tile's r-th run of eight neighbouring elements
//   order(k)          place in the runs of the k-th element in the order of summation
//   load(row, t, l)   the packed codes of tiles t, t + 1, … per lane
//   element<F, T>(k)  the k-th element of a tile in that order
// docs/formats.md has the bytes of every format.

#include <array>
#include <bit>
#include <cstdint>
#include <cstring>

#include "spmd/spmd.hpp"

namespace tolvane {

using spmd::varying_t;

// Layouts

/// Two elements a byte: byte j holds element j in the nibble at bit `First` and element j + 32 in the other
/// one. A tile's two runs lie 32 columns apart and are summed in turn.
template <int First>
struct nibble_layout {
  static constexpr int block = 64;
  static constexpr int value_bytes = 32;
  static constexpr int first_bit = First;

  static constexpr int tile = 16;
  static constexpr int tiles_per_block = block / tile;
  static constexpr int run_start(int t, int run) { return t / 4 * 64 + t % 4 * 8 + run * 32; }
  static constexpr int order(int k) { return k % 2 * 8 + k / 2; }

  template <int N, class Live>
  static spmd::tile8<N> load(const std::uint8_t* row, int first, Live live) {
    return spmd::load_tile8<N>(row + static_cast<std::int64_t>(first) * 8, live);
  }
  template <class Format, class T, int N, int K>
  static varying_t<T, N> element(const spmd::tile8<N>& packed, std::integral_constant<int, K>) {
    constexpr int bit = K / 2 % 4 * 8 + (K % 2 == 0 ? First : 4 - First);
    return Format::template value<T, bit>(packed.word[K / 8]);
  }
};

/// One element a byte, in order.
struct byte_layout {
  static constexpr int block = 64;
  static constexpr int value_bytes = 64;

  static constexpr int tile = 8;
  static constexpr int tiles_per_block = block / tile;
  static constexpr int run_start(int t, int) { return t * 8; }
  static constexpr int order(int k) { return k; }

  template <int N, class Live>
  static spmd::tile8<N> load(const std::uint8_t* row, int first, Live live) {
    return spmd::load_tile8<N>(row + static_cast<std::int64_t>(first) * 8, live);
  }
  template <class Format, class T, int N, int K>
  static varying_t<T, N> element(const spmd::tile8<N>& packed, std::integral_constant<int, K>) {
    return Format::template value<T, K % 4 * 8>(packed.word[K / 4]);
  }
};

/// Three bits an element. A block is a 64-bit word of the codes' upper bits, element e at bit e, and 16 bytes
/// of their lower two bits, four neighbours a byte from its top down.
struct three_bit_layout {
  static constexpr int block = 64;
  static constexpr int value_bytes = 24;

  static constexpr int tile = 16;
  static constexpr int tiles_per_block = block / tile;
  static constexpr int run_start(int t, int run) { return t * 16 + run * 8; }
  static constexpr int order(int k) { return k; }

  /// Per lane: the tile's four bytes of low bits, and its sixteen upper bits.
  template <int N>
  struct packed {
    varying_t<std::uint32_t, N> low, upper;
  };

  template <int N, class Live>
  static packed<N> load(const std::uint8_t* row, int first, Live live) {
    if constexpr (N == 1) {
      const std::uint8_t* at = row + static_cast<std::int64_t>(first / 4) * value_bytes;
      const std::uint64_t upper = spmd::load<1>(reinterpret_cast<const std::uint64_t*>(at));
      const auto* low = reinterpret_cast<const std::uint32_t*>(at + 8);
      return {spmd::load<1>(low + first % 4),
              static_cast<std::uint32_t>(upper >> (16 * (first % 4)) & 0xFFFF)};
    } else if constexpr (N > 8) {
      const packed<N / 2> a = load<N / 2>(row, first, spmd::lower_half(live));
      const packed<N / 2> b = load<N / 2>(row, first + N / 2, spmd::upper_half(live, N));
      return {spmd::joined(a.low, b.low), spmd::joined(a.upper, b.upper)};
    } else {
      // Two blocks; a row is a whole number of blocks, so that a block is there with all its lanes or not at
      // all.
      const std::uint8_t* at = row + static_cast<std::int64_t>(first / 4) * value_bytes;
      std::uint64_t upper[2] = {};
      std::uint32_t low[8] = {};
      for (int b = 0; b < 2; ++b) {
        if (live.count <= 4 * b) continue;
        spmd::checked(at + b * value_bytes, value_bytes);
        std::memcpy(upper + b, at + b * value_bytes, 8);
        std::memcpy(low + 4 * b, at + b * value_bytes + 8, 16);
      }
      using words = spmd::lanes<std::uint32_t, 8>;
      return {words(spmd::loaded<spmd::vec<std::uint32_t, 8>>(low)),
              words(spmd::target::widened(spmd::loaded<spmd::vec<std::uint16_t, 8>>(upper)))};
    }
  }
  template <class Format, class T, int N, int K>
  static varying_t<T, N> element(const packed<N>& codes, std::integral_constant<int, K>) {
    constexpr int bit = K / 4 * 8 + 6 - K % 4 * 2;
    const auto upper = K < 2 ? codes.upper << (2 - K) : codes.upper >> (K < 2 ? 0 : K - 2);
    return Format::template value<T, 0>(((codes.low >> bit) & 3u) | (upper & 4u));
  }
};

// Scales: how a tile's sum enters the accumulator of its row

/// One scale a block, in a zone of their own: acc + sum * T(d).
template <class Scale>
struct one_scale {
  using scale_type = Scale;
  static constexpr int scale_bytes = sizeof(Scale);
  static constexpr bool needs_activation_sum = false;

  template <int Repeat, class T, int N, class Live, class V>
  static V accumulate(const V& acc, const V& sum, const V&, const std::uint8_t* scales, Live live) {
    const auto d = spmd::load_repeated<N, Repeat, Scale>(scales, live);
    return spmd::mad(sum, spmd::convert<T>(d), acc);
  }
};

/// A scale and a minimum a block: acc + (sum * T(d) + sum of the activations * T(m)).
struct scale_and_minimum {
  using scale_type = std::array<sycl::half, 2>;
  static constexpr int scale_bytes = 4;
  static constexpr bool needs_activation_sum = true;

  template <int Repeat, class T, int N, class Live, class V>
  static V accumulate(const V& acc, const V& sum, const V& activations, const std::uint8_t* scales,
                      Live live) {
    const auto pair = spmd::load_repeated<N, Repeat, std::uint32_t>(scales, live);
    const auto d = spmd::convert<T>(spmd::half_from_bits(pair & 0xFFFFu));
    const auto m = spmd::convert<T>(spmd::half_from_bits(pair >> 16));
    return acc + spmd::mad(sum, d, activations * m);
  }
};

/// Values that stand for themselves; their scale zone is not read.
struct no_scale {
  using scale_type = float;
  static constexpr int scale_bytes = 4;
  static constexpr bool needs_activation_sum = false;

  template <int Repeat, class T, int N, class Live, class V>
  static V accumulate(const V& acc, const V& sum, const V&, const std::uint8_t*, Live) {
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

// Formats

/// c - 8.
struct q4_0 : nibble_layout<0>, one_scale<sycl::half> {
  template <class T, int Bit, class W>
  static auto value(const W& word) {
    return spmd::convert_exact<T>(spmd::field_value<4, Bit, -8>(word));
  }
  template <class T, int Bit, class W>
  static auto dequantized(const W& word, const std::uint8_t* scale) {
    return scaled_value<q4_0, T, Bit>(word, scale);
  }
};

/// c, with a minimum.
struct q4_1 : nibble_layout<0>, scale_and_minimum {
  template <class T, int Bit, class W>
  static auto value(const W& word) {
    return spmd::convert_exact<T>(spmd::field_value<4, Bit, 0>(word));
  }
  /// T(d) * T(v) + T(m), the product rounded before the addition.
  template <class T, int Bit, class W>
  static auto dequantized(const W& word, const std::uint8_t* scale) {
    using V = decltype(value<T, Bit>(word));
    const auto* pair = reinterpret_cast<const sycl::half*>(scale);
    const T d = spmd::convert<T>(spmd::load<1>(pair)), m = spmd::convert<T>(spmd::load<1>(pair + 1));
    return V(d) * value<T, Bit>(word) + V(m);
  }
};

/// Sixteen quantiles of a normal distribution.
struct nf4 : nibble_layout<4>, one_scale<sycl::half> {
  static constexpr std::array<float, 16> codebook = [] {
    constexpr std::array<std::uint32_t, 16> bits = {
        0xBF800000, 0xBF3239B1, 0xBF066B30, 0xBECA32A0, 0xBE91A24D, 0xBE3D353F, 0xBDBA7871, 0x00000000,
        0x3DA2FAFF, 0x3E24CAE3, 0x3E7C04DD, 0x3EAD033A, 0x3EE1A4B8, 0x3F1007AB, 0x3F3913B3, 0x3F800000};
    std::array<float, 16> values{};
    for (int c = 0; c < 16; ++c) values[c] = std::bit_cast<float>(bits[c]);
    return values;
  }();
  template <class T, int Bit, class W>
  static auto value(const W& word) {
    return spmd::table16<T, Bit>(codebook, word);
  }
  template <class T, int Bit, class W>
  static auto dequantized(const W& word, const std::uint8_t* scale) {
    return scaled_value<nf4, T, Bit>(word, scale);
  }
};

/// A sign and a three-bit magnitude.
struct fp4 : nibble_layout<0>, one_scale<sycl::half> {
  static constexpr std::array<float, 8> magnitudes = {0.03125f, 0.5f, 1, 1.5f, 2, 3, 4, 6};
  template <class T, int Bit, class W>
  static auto value(const W& word) {
    return spmd::signed_table8<T, Bit>(magnitudes, word);
  }
  template <class T, int Bit, class W>
  static auto dequantized(const W& word, const std::uint8_t* scale) {
    return scaled_value<fp4, T, Bit>(word, scale);
  }
};

/// Eight quantiles of a normal distribution.
struct nf3 : three_bit_layout, one_scale<sycl::half> {
  static constexpr std::array<float, 8> codebook = [] {
    constexpr std::array<std::uint32_t, 8> bits = {0xBF800000, 0xBEF50EE3, 0xBE5E5A6B, 0x00000000,
                                                   0x3E24CAE3, 0x3EAD033A, 0x3F1007AB, 0x3F800000};
    std::array<float, 8> values{};
    for (int c = 0; c < 8; ++c) values[c] = std::bit_cast<float>(bits[c]);
    return values;
  }();
  template <class T, int Bit, class W>
  static auto value(const W& code) {
    return spmd::table8<T, Bit>(codebook, code);
  }

  static constexpr int flat_elements = 4;
  static constexpr std::int64_t flat_scale_offset(std::int64_t total) { return total / 64 * value_bytes; }

  /// v * float(d) in float, converted once: the elements of work-items first, first + 1, …, four each, `live`
  /// of them.
  template <class T, int N, class Kernel>
  static void decode_flat(const Kernel& kernel, std::int64_t first, int live) {
    const std::int64_t end = std::min(kernel.total, (first + live) * flat_elements);
    for (std::int64_t e = first * flat_elements; e < end; e += N) {
      const std::uint8_t* block_at = kernel.weight + e / block * value_bytes;
      const int place = static_cast<int>(e % block);
      const auto upper = spmd::load<1>(reinterpret_cast<const std::uint64_t*>(block_at)) >> place;
      const auto code = spmd::two_bit_codes<N>(block_at + 8, place) |
                        spmd::bits_from<N>(static_cast<std::uint32_t>(upper)) << 2;
      const auto d = static_cast<float>(
          spmd::load<1>(reinterpret_cast<const sycl::half*>(kernel.scales + e / block * scale_bytes)));
      spmd::store(kernel.output + e, value<float, 0>(code) * d);
    }
  }
};

/// A signed byte.
struct q8_0 : byte_layout, one_scale<float> {
  template <class T, int Bit, class W>
  static auto value(const W& word) {
    return spmd::convert_exact<T>(spmd::field_value<8, Bit, -128>(word ^ 0x80808080u));
  }
  template <class T, int Bit, class W>
  static auto dequantized(const W& word, const std::uint8_t* scale) {
    return scaled_value<q8_0, T, Bit>(word, scale);
  }
};

/// Eight-bit floats with four exponent bits of bias 7, all of them ordinary. Moved down by a bit they are
/// halves of bias 15, 2^8 times too small.
struct fp8_e4m3 : byte_layout, one_scale<float> {
  template <class T, int Bit, class W>
  static auto value(const W& word) {
    return spmd::convert_exact<T>(spmd::half_from_shifted_byte<Bit / 8>(word) * 256.0f);
  }
  template <class T, int Bit, class W>
  static auto dequantized(const W& word, const std::uint8_t* scale) {
    return scaled_value<fp8_e4m3, T, Bit>(word, scale);
  }
};

/// Eight-bit floats, the upper byte of a half with the lower one 0x80, without a scale.
struct fp8_e5m2 : byte_layout, no_scale {
  template <class T, int Bit, class W>
  static auto value(const W& word) {
    return spmd::convert_exact<T>(spmd::half_from_upper_byte<Bit / 8, 0x80>(word));
  }
  template <class T, int Bit, class W>
  static auto dequantized(const W& word, const std::uint8_t*) {
    return value<T, Bit>(word);
  }
};

/// The same with the lower byte 0 and a scale, as the fused operators read it. Exponent 31 is infinity or
/// NaN.
struct fp8_e5m2_fused : byte_layout, one_scale<float> {
  template <class T, int Bit, class W>
  static auto value(const W& word) {
    return spmd::convert_exact<T>(spmd::half_from_upper_byte<Bit / 8, 0>(word));
  }
};

}  // namespace tolvane
