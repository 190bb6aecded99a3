#pragma once
// Loads in the patterns that packed weights need. On a gang of one lane each of them is ordinary scalar code.

#include <algorithm>

#include "spmd/fields.hpp"
#include "spmd/memory.hpp"

namespace spmd {

/// Lanes First, First + 1, … of `few`, each Repeat times.
template <int N, int Repeat, int First, class T>
[[gnu::always_inline]] inline lanes<T, N> repeat_lanes(const lanes<T, 8>& few) {
  if constexpr (reduced<T>) {
    return lanes<T, N>(repeat_lanes<N, Repeat, First>(few.w));
  } else if constexpr (N > native_lanes<T>) {
    return {repeat_lanes<N / 2, Repeat, First>(few),
            repeat_lanes<N / 2, Repeat, First + N / 2 / Repeat>(few)};
  } else if constexpr (native_lanes<T> < 8) {  // doubles: in one half of `few`
    static_assert(First % 4 + (N - 1) / Repeat < 4);
    const auto& own = First < 4 ? few.lo : few.hi;
    return lanes<T, N>(shuffled<N>(own.v, [](int lane) { return First % 4 + lane / Repeat; }));
  } else {
    return lanes<T, N>(shuffled<N>(few.v, [](int lane) { return First + lane / Repeat; }));
  }
}

/// The T's at `p` (unaligned bytes) that N lanes share where `Repeat` neighbours share one, for repeat_each.
/// Only those of live lanes are read. 1 load; none goes through memory that has just been written in parts,
/// for which a load would wait.
template <int N, int Repeat, class T, class Live>
[[gnu::always_inline]] inline auto load_shared(const std::uint8_t* p, Live live) {
  if constexpr (N == 1) {
    return load<1>(reinterpret_cast<const T*>(p));
  } else {
    static_assert(N % Repeat == 0 && 8 % Repeat == 0);
    using bits = std::conditional_t<std::same_as<T, half>, std::uint16_t, T>;
    constexpr int distinct = N / Repeat;
    const int count = (live.count + Repeat - 1) / Repeat;
    checked(p, static_cast<std::size_t>(count) * sizeof(T));
    vec<bits, 8> few{};
    if constexpr (std::same_as<Live, first_lanes>) {
      std::memcpy(static_cast<void*>(&few), p, static_cast<std::size_t>(count) * sizeof(T));
    } else if constexpr (distinct * sizeof(T) <= 8) {
      vec<std::uint64_t, sizeof(T)> words{};
      std::memcpy(static_cast<void*>(&words), p, distinct * sizeof(T));
      few = reinterpret_cast<vec<bits, 8>>(words);
    } else {
      few = shuffled<8>(loaded<vec<bits, distinct>>(p), [](int i) { return i % distinct; });
    }
    if constexpr (std::same_as<T, half>) {
      return lanes<T, 8>(lanes<float, 8>(target::from_halves(few)));
    } else {
      return lanes<T, 8>(few);
    }
  }
}

/// Value l / Repeat of what load_shared gave in lane l. 1 shuffle per register.
template <int N, int Repeat, class V>
[[gnu::always_inline]] inline auto repeat_each(const V& few) {
  if constexpr (N == 1) {
    return few;
  } else {
    return repeat_lanes<N, Repeat, 0>(few);
  }
}

/// Byte l of p in lane l, as a word. 1 load and widening.
template <int N>
[[gnu::always_inline]] inline varying_t<std::uint32_t, N> load_bytes(const std::uint8_t* p) {
  checked(p, N);
  if constexpr (N == 1) {
    return *p;
  } else if constexpr (N > native_lanes<std::uint32_t>) {
    return {load_bytes<N / 2>(p), load_bytes<N / 2>(p + N / 2)};
  } else {
    return lanes<std::uint32_t, N>(target::widened(loaded<vec<std::uint8_t, N>>(p)));
  }
}

/// Bit l of a uniform word in lane l, as 0 or 1. 2 operations.
template <int N>
[[gnu::always_inline]] inline varying_t<std::uint32_t, N> bits_from(std::uint32_t word) {
  if constexpr (N == 1) {
    return word & 1;
  } else if constexpr (N > native_lanes<std::uint32_t>) {
    return {bits_from<N / 2>(word), bits_from<N / 2>(word >> (N / 2))};
  } else {
    constexpr auto place = constants<std::uint32_t, N>([](int i) { return i; });
    return lanes<std::uint32_t, N>((repeated<N>(word) >> place) & 1);
  }
}

/// Code `place` + l of a run of two-bit codes in lane l: four to a byte, from its top down. `place` is a
/// multiple of N.
template <int N>
[[gnu::always_inline]] inline varying_t<std::uint32_t, N> two_bit_codes(const std::uint8_t* p, int place) {
  if constexpr (N == 1) {
    checked(p + place / 4, 1);
    return p[place / 4] >> (6 - place % 4 * 2) & 3u;
  } else if constexpr (N > native_lanes<std::uint32_t>) {
    return {two_bit_codes<N / 2>(p, place), two_bit_codes<N / 2>(p, place + N / 2)};
  } else {
    std::uint32_t bytes = 0;
    checked(p + place / 4, N / 4);
    std::memcpy(&bytes, p + place / 4, N / 4);
    constexpr auto down = constants<std::uint32_t, N>([](int i) { return i / 4 * 8 + 6 - i % 4 * 2; });
    return lanes<std::uint32_t, N>((repeated<N>(bytes) >> down) & 3);
  }
}

/// The low or the high nibble of byte l of p, with bit l of `upper` as its bit 4, plus Offset, in lane l.
/// Works on bytes until the end: 3 operations for 32 lanes, 4 for each register.
template <int N, bool High, int Offset>
[[gnu::always_inline]] inline varying_t<float, N> five_bit_values(const std::uint8_t* p,
                                                                  std::uint32_t upper) {
  checked(p, N);
  if constexpr (N == 1) {
    const int nibble = High ? *p >> 4 : *p & 15;
    return static_cast<float>((nibble | static_cast<int>(upper & 1) << 4) + Offset);
  } else {
    static_assert(N == 32);
    using bytes = vec<std::uint8_t, 32>;
    const auto pairs = loaded<vec<std::uint16_t, 16>>(p);
    const auto nibbles = reinterpret_cast<bytes>(High ? pairs >> 4 : pairs) & 15;
    constexpr auto own_byte = constants<std::int8_t, 32>([](int i) { return i / 8; });
    constexpr auto own_bit = constants<std::uint8_t, 32>([](int i) { return 1 << i % 8; });
    const auto spread = target::shuffled_bytes(reinterpret_cast<bytes>(repeated<8>(upper)), own_byte);
    const auto set = reinterpret_cast<bytes>((spread & own_bit) == own_bit);
    alignas(64) std::uint8_t codes[32];
    const bytes all = nibbles | (set & 16);
    std::memcpy(codes, &all, sizeof codes);
    constexpr float bias = 1 << 23;
    return bit_cast<float>(load_bytes<32>(codes) | std::bit_cast<std::uint32_t>(bias)) - (bias - Offset);
  }
}

/// Eight bytes per lane, as two little-endian words: lane l's stand at p + 8 * l. 1 load and 1 or 2 shuffles
/// per word.
template <int N>
struct tile8 {
  varying_t<std::uint32_t, N> word[2];
};

template <int N, class Live>
[[gnu::always_inline]] inline tile8<N> load_tile8(const std::uint8_t* p, Live live) {
  checked(p, static_cast<std::size_t>(std::max(0, live.count)) * 8);
  if constexpr (N == 1) {
    tile8<1> tile;
    std::memcpy(tile.word, p, 8);
    return tile;
  } else if constexpr (N > (std::same_as<Live, first_lanes> ? 8 : native_lanes<std::uint32_t>)) {
    const auto low = load_tile8<N / 2>(p, lower_half(live));
    const auto high = load_tile8<N / 2>(p + 4 * N, upper_half(live, N));
    return {{joined(low.word[0], high.word[0]), joined(low.word[1], high.word[1])}};
  } else {
    using words = vec<std::uint32_t, N>;
    words first, second;
    if constexpr (std::same_as<Live, first_lanes>) {
      const auto* pairs = reinterpret_cast<const std::uint64_t*>(p);
      first = reinterpret_cast<words>(target::load_first(pairs, live.count));
      second = reinterpret_cast<words>(target::load_first(pairs + 4, live.count - 4));
    } else {
      first = loaded<words>(p);
      second = loaded<words>(p + sizeof(words));
    }
    return {{lanes<std::uint32_t, N>(target::even_words(first, second)),
             lanes<std::uint32_t, N>(target::odd_words(first, second))}};
  }
}

/// The half whose upper byte is p[l] and whose lower byte is `Lower`, as float, in lane l. 1 load, 1 shuffle
/// and 1 conversion per register.
template <int N, std::uint8_t Lower>
[[gnu::always_inline]] inline varying_t<float, N> load_upper_bytes(const std::uint8_t* p, all_lanes<N>) {
  checked(p, N);
  if constexpr (N == 1) {
    return sycl::host::half_value(static_cast<std::uint16_t>(*p << 8 | Lower));
  } else if constexpr (N > native_lanes<float>) {
    return {load_upper_bytes<N / 2, Lower>(p, all_lanes<N / 2>()),
            load_upper_bytes<N / 2, Lower>(p + N / 2, all_lanes<N / 2>())};
  } else {
    const auto upper = loaded<vec<std::uint8_t, N>>(p);
    const auto bytes = shuffled<2 * N>(repeated<N>(Lower), upper, [](int i) { return i % 2 * N + i / 2; });
    return lanes<float, N>(target::from_halves(reinterpret_cast<vec<std::uint16_t, N>>(bytes)));
  }
}

/// The same for the first lanes only: nothing behind them is read.
template <int N, std::uint8_t Lower>
[[gnu::always_inline]] inline varying_t<float, N> load_upper_bytes(const std::uint8_t* p, first_lanes live) {
  const auto count = static_cast<std::size_t>(live.count);
  checked(p, count);
  std::uint16_t halves[N] = {};
  for (std::size_t l = 0; l < count; ++l) halves[l] = static_cast<std::uint16_t>(p[l] << 8 | Lower);
  return convert<float>(from_buffer<N>(reinterpret_cast<const half*>(halves)));
}

}  // namespace spmd
