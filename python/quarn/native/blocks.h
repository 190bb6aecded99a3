#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "lanes.h"

namespace quarn {

constexpr int block_elements = 64;

/// Up to eight blocks side by side: element e of block b is x[e][b]. Lanes without a block hold zeros.
struct Blocks {
  Floats x[block_elements];

  Blocks(const float* from, int count) {
    for (int element = 0; element < block_elements; ++element) {
      for (std::ptrdiff_t block = 0; block < lanes; ++block)
        x[element][block] = block < count ? from[block * block_elements + element] : 0;
    }
  }
};

/// The sum of term(e), or of several terms at once, over the elements of a block, in a fixed order: eight
/// strands of every eighth element, each as four pairs, one strand after the other.
template <class Term>
auto sum(const Term& term) {
  decltype(term(0)) total{};
  for (int strand = 0; strand < 8; ++strand) {
    auto part = term(strand);
    part += term(strand + 32);
    for (int pair = 8; pair < 32; pair += 8) {
      auto next = term(strand + pair);
      next += term(strand + pair + 32);
      part += next;
    }
    total += part;
  }
  return total;
}

/// Two sums that go together.
struct Pair {
  Floats first, second;
  Pair& operator+=(const Pair& other) {
    first += other.first;
    second += other.second;
    return *this;
  }
};

/// Bytes of eight blocks, side by side like their elements, into blocks of `stride` bytes.
inline void scatter(std::uint8_t* to, std::ptrdiff_t stride, int count, Ints bytes) {
  for (int block = 0; block < count; ++block) to[block * stride] = static_cast<std::uint8_t>(bytes[block]);
}

/// The blocks' scales, as halves or as floats, into blocks of `stride` bytes.
inline void scatter_halves(std::uint8_t* to, std::ptrdiff_t stride, int count, Floats scales) {
  for (int block = 0; block < count; ++block) {
    const unsigned short half = half_bits(scales[block]);
    std::memcpy(to + block * stride, &half, sizeof half);
  }
}
inline void scatter_floats(std::uint8_t* to, std::ptrdiff_t stride, int count, Floats scales) {
  for (int block = 0; block < count; ++block) {
    const float scale = scales[block];
    std::memcpy(to + block * stride, &scale, sizeof scale);
  }
}

/// Codes 0 to 15, two to a byte: element j in the low nibble of byte j, element j + 32 in the high one.
inline void scatter_nibbles(std::uint8_t* to, std::ptrdiff_t stride, int count, const Ints* codes) {
  for (int byte = 0; byte < 32; ++byte)
    scatter(to + byte, stride, count, (codes[byte] & 15) | (codes[byte + 32] & 15) << 4);
}

/// One bit of every code, element e's as bit e of a little-endian 64-bit word.
inline void scatter_bits(std::uint8_t* to, std::ptrdiff_t stride, int count, const Ints* codes, int bit) {
  for (int byte = 0; byte < 8; ++byte) {
    Ints word{};
    for (int place = 0; place < 8; ++place) word |= (codes[8 * byte + place] >> bit & 1) << place;
    scatter(to + byte, stride, count, word);
  }
}

}  // namespace quarn
