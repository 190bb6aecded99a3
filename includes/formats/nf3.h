#pragma once
// Three bits that stand for tabled values.

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

#include "formats/format.h"
#include "formats/scales.h"

namespace tolvane {

/// The value bytes of a block.
struct block_nf3_qs {
  std::uint64_t qh;
  std::uint8_t qs[16];
};

/// Three bits an element. A block is a 64-bit word of the codes' upper bits, element e at bit e, and 16 bytes
/// of their lower two bits, four neighbours a byte from its top down.
struct three_bit_layout : zoned_format {
  static constexpr int block = 64;
  static constexpr int value_bytes = sizeof(block_nf3_qs);

  static constexpr int SUB_BLK_H = 16;
  static constexpr int tile = SUB_BLK_H;
  static constexpr int tiles_per_block = block / tile;
  static constexpr int run_start(int t, int run) { return t * 16 + run * 8; }
  static constexpr int order(int k) { return k; }

  /// Per lane: the tile's four bytes of low bits, and its sixteen upper bits with others above them.
  template <int N>
  struct packed {
    spmd::varying_t<std::uint32_t, N> low, upper;
  };

  /// The place of a word in the first of two registers or in the second, which begins N / 2 words later.
  template <int N>
  static constexpr int in_either(int word) {
    return word < N ? word : word + N / 2;
  }

  template <int N, class Live>
  static packed<N> load(const std::uint8_t* row, int first, Live live) {
    if constexpr (N == 1) {
      const std::uint8_t* at = row + static_cast<std::int64_t>(first / 4) * value_bytes;
      const std::uint64_t upper = spmd::load<1>(reinterpret_cast<const std::uint64_t*>(at));
      const auto* low = reinterpret_cast<const std::uint32_t*>(at + 8);
      return {spmd::load<1>(low + first % 4),
              static_cast<std::uint32_t>(upper >> (16 * (first % 4)) & 0xFFFF)};
    } else if constexpr (N == spmd::native_lanes<std::uint32_t> && !std::same_as<Live, spmd::first_lanes>) {
      // Two registers hold the words of the lanes' blocks, N / 4 blocks of six words; they overlap.
      using words = spmd::vec<std::uint32_t, N>;
      const std::uint8_t* at = row + static_cast<std::int64_t>(first / 4) * value_bytes;
      spmd::checked(at, N / 4 * value_bytes);
      const auto one = spmd::loaded<words>(at), two = spmd::loaded<words>(at + N / 2 * 4);
      const auto low = spmd::shuffled<N>(one, two, [](int l) { return in_either<N>(l / 4 * 6 + 2 + l % 4); });
      const auto upper =
          spmd::shuffled<N>(one, two, [](int l) { return in_either<N>(l / 4 * 6 + l % 4 / 2); });
      constexpr auto down = spmd::constants<std::uint32_t, N>([](int l) { return l % 2 * 16; });
      using lanes = spmd::lanes<std::uint32_t, N>;
      return {lanes(low), lanes(upper >> down)};
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
  static spmd::varying_t<T, N> element(const packed<N>& codes, std::integral_constant<int, K>) {
    constexpr int bit = K / 4 * 8 + 6 - K % 4 * 2;
    const auto upper = K < 2 ? codes.upper << (2 - K) : codes.upper >> (K < 2 ? 0 : K - 2);
    return Format::template value<T, 0>(((codes.low >> bit) & 3u) | (upper & ~3u));
  }
};

/// Eight quantiles of a normal distribution.
struct nf3 : three_bit_layout, one_scale<sycl::half> {
  static constexpr int qtype = 11;
  static constexpr const char* name = "nf3";
  static constexpr float largest_value = 1;

  static constexpr std::array<float, 8> dequantNF3 = [] {
    constexpr std::array<std::uint32_t, 8> bits = {0xBF800000, 0xBEF50EE3, 0xBE5E5A6B, 0x00000000,
                                                   0x3E24CAE3, 0x3EAD033A, 0x3F1007AB, 0x3F800000};
    std::array<float, 8> values{};
    for (int c = 0; c < 8; ++c) values[c] = std::bit_cast<float>(bits[c]);
    return values;
  }();
  template <class T, int Bit, class W>
  static auto value(const W& code) {
    return spmd::table8<T, Bit>(dequantNF3, code);
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

}  // namespace tolvane
