#pragma once
// The vocabulary that kernels are written in, beside SYCL's own names: values per work-item, loads in the
// patterns that packed weights need, and sums over a work-group. On a gang of one lane each of them is
// ordinary scalar SYCL code. Costs are for one AVX2 register of eight lanes.

#include <cstdint>
#include <cstring>

#include "sycl/checks.hpp"
#include "sycl/item.hpp"
#include "sycl/lanes.hpp"
#include "sycl/launch.hpp"

namespace spmd {

/// A value of its own per work-item of the gang that `Item` stands for.
template <class T, class Item>
using varying = varying_t<T, Item::lanes>;

/// Which lanes of a gang take part: all of them, known when the kernel is compiled …
template <int N>
struct all_lanes {
  static constexpr int count = N;
};
/// … or the first `count`, found when it runs.
struct first_lanes {
  int count;
};

/// The part of a gang of n lanes that its lower or upper half sees.
template <int N>
constexpr all_lanes<N / 2> lower_half(all_lanes<N>) {
  return {};
}
template <int N>
constexpr all_lanes<N / 2> upper_half(all_lanes<N>, int) {
  return {};
}
constexpr first_lanes lower_half(first_lanes live) {
  return live;
}
constexpr first_lanes upper_half(first_lanes live, int n) {
  return {live.count - n / 2};
}

/// value where the lane takes part, else `kept`.
template <class V, int N>
[[gnu::always_inline]] inline V keep_unless(all_lanes<N>, const V& value, const V&) {
  return value;
}
template <class T, int N>
[[gnu::always_inline]] inline lanes<T, N> keep_unless(first_lanes live, const lanes<T, N>& value,
                                                      const lanes<T, N>& kept) {
  return select(ramp<N>(0) < live.count, value, kept);
}

/// Deals the indices 0 … count - 1 to the work-items of the group in turn and calls body(first, live) for
/// every round: lane l of the gang has index first[r] + l in the r-th of the rounds that the call stands for.
/// `Together` full rounds at a time come in one call, so that their work can overlap; full rounds come with
/// all_lanes and cost no masking. Each first[r] is a multiple of the gang's width.
template <int Together, class Item, class Body>
[[gnu::always_inline]] inline void strided(const Item& item, int count, const Body& body) {
  constexpr int n = Item::lanes;
  const int step = item.group_size();
  int first = item.first();
  for (; first + (Together - 1) * step + n <= count; first += Together * step) {
    std::array<int, Together> rounds;
    unrolled<Together>([&](auto r) { rounds[r] = first + r * step; });
    body(rounds, all_lanes<n>());
  }
  if constexpr (Together > 1) {
    for (; first + n <= count; first += step) body(std::array{first}, all_lanes<n>());
  }
  if constexpr (n > 1) {
    if (first < count) body(std::array{first}, first_lanes{count - first});
  }
}

// Memory

using sycl::host::checked;

template <int N, class T>
varying_t<T, N> load(const T* p, all_lanes<N> = {});

/// The elements of an array on the stack, which no check knows.
template <int N, class T>
[[gnu::always_inline]] inline varying_t<T, N> from_buffer(const T* buffer) {
  if constexpr (sycl::host::checks_enabled) {
    const sycl::host::accessible own(buffer, N * sizeof(T));
    return load(buffer, all_lanes<N>());
  } else {
    return load(buffer, all_lanes<N>());
  }
}

/// Element l of p in lane l; p need not be aligned. 1 load, and 1 conversion for reduced types.
template <int N, class T>
[[gnu::always_inline]] inline varying_t<T, N> load(const T* p, all_lanes<N>) {
  checked(p, N * sizeof(T));
  if constexpr (N == 1) {
    T value;
    std::memcpy(&value, p, sizeof value);
    return value;
  } else if constexpr (reduced<T>) {
    if constexpr (N > 8) {
      return lanes<T, N>({load<N / 2>(p).w, load<N / 2>(p + N / 2).w});
    } else {
      const __m128i bits = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
      if constexpr (std::same_as<T, half>) {
        return lanes<T, N>(lanes<float, 8>(_mm256_cvtph_ps(bits)));
      } else {
        return lanes<T, N>(
            lanes<float, 8>(_mm256_castsi256_ps(_mm256_slli_epi32(_mm256_cvtepu16_epi32(bits), 16))));
      }
    }
  } else if constexpr (N == native_lanes<T>) {
    native<T> value;
    std::memcpy(&value, p, sizeof value);
    return lanes<T, N>(value);
  } else {
    return {load<N / 2>(p), load<N / 2>(p + N / 2)};
  }
}

/// The same for the first lanes only: nothing behind p[live.count - 1] is read, and the other lanes are 0.
template <int N, class T>
[[gnu::always_inline]] inline varying_t<T, N> load(const T* p, first_lanes live) {
  checked(p, static_cast<std::size_t>(live.count) * sizeof(T));
  alignas(32) T buffer[N] = {};
  std::memcpy(buffer, p, static_cast<std::size_t>(live.count) * sizeof(T));
  return from_buffer<N>(buffer);
}

namespace detail {

/// Floats as bfloat16s in the upper halves of words; the lower halves are left over from rounding.
[[gnu::always_inline]] inline native<std::uint32_t> bfloat16_in_upper_half(native<float> x) {
  const auto bits = reinterpret_cast<native<std::uint32_t>>(x);
  return bits + 0x7FFF + (bits >> 16 & 1);
}

/// Floats as bfloat16s in the lower halves of words. Rounded says that they are bfloat16s already.
template <bool Rounded>
[[gnu::always_inline]] inline __m256i bfloat16_words(native<float> x) {
  const auto bits = Rounded ? reinterpret_cast<native<std::uint32_t>>(x) : bfloat16_in_upper_half(x);
  return reinterpret_cast<__m256i>(bits >> 16);
}

/// Calls body(first, bits) for the registers that the floats fill in memory as values of T, `first` being the
/// lane that a register begins with. Rounded says that they are such values already.
template <reduced T, bool Rounded, int First, int N, class Body>
[[gnu::always_inline]] inline void for_reduced(const lanes<float, N>& value, const Body& body) {
  if constexpr (N > 16 || (N == 16 && std::same_as<T, half>)) {
    for_reduced<T, Rounded, First>(value.lo, body);
    for_reduced<T, Rounded, First + N / 2>(value.hi, body);
  } else if constexpr (std::same_as<T, half>) {
    body(First, _mm256_cvtps_ph(value.v, _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC));
  } else if constexpr (N == 16) {
    const __m256i words =
        _mm256_packus_epi32(bfloat16_words<Rounded>(value.lo.v), bfloat16_words<Rounded>(value.hi.v));
    body(First, _mm256_permute4x64_epi64(words, 0xD8));
  } else {
    const __m256i words = bfloat16_words<Rounded>(value.v);
    body(First, _mm256_castsi256_si128(_mm256_permute4x64_epi64(_mm256_packus_epi32(words, words), 0xD8)));
  }
}
template <class T, int First = 0, class U, int N, class Body>
[[gnu::always_inline]] inline void for_stored(const lanes<U, N>& value, const Body& body) {
  if constexpr (reduced<T> && std::same_as<U, T>) {
    for_reduced<T, true, First>(value.w, body);
  } else if constexpr (reduced<T> && std::same_as<U, float>) {
    for_reduced<T, false, First>(value, body);
  } else if constexpr (!std::same_as<U, T>) {
    for_stored<T, First>(convert<T>(value), body);
  } else if constexpr (N > native_lanes<T>) {
    for_stored<T, First>(value.lo, body);
    for_stored<T, First + N / 2>(value.hi, body);
  } else {
    body(First, value.v);
  }
}

}  // namespace detail

/// Writes lane l to p[l]; values of another type are converted on the way, which costs less than before. 1
/// store per register.
template <class T, class U, int N>
[[gnu::always_inline]] inline void store(T* p, const lanes<U, N>& value, all_lanes<N> = {}) {
  checked(p, N * sizeof(T));
  detail::for_stored<T>(value, [p](int first, auto bits) [[gnu::always_inline]] {
    if constexpr (sizeof bits == sizeof(__m128i)) {
      // Not memcpy: the compiler would let vcvtps2ph write memory, which takes twice as long.
      _mm_storeu_si128(reinterpret_cast<__m128i*>(p + first), bits);
    } else {
      std::memcpy(static_cast<void*>(p + first), &bits, sizeof bits);
    }
  });
}
template <class T>
[[gnu::always_inline]] inline void store(T* p, std::type_identity_t<T> value, all_lanes<1> = {}) {
  checked(p, sizeof value);
  std::memcpy(p, &value, sizeof value);
}

/// A store that goes past the caches if `past_caches`, for results that are larger than these: the old lines
/// are not read first. p is then aligned to 32 bytes, and whole cache lines should be written together.
template <class T, class U, int N>
[[gnu::always_inline]] inline void stream(T* p, const lanes<U, N>& value, bool past_caches) {
  if (!past_caches) return store(p, value);
  checked(p, N * sizeof(T));
  detail::for_stored<T>(value, [p](int first, auto bits) [[gnu::always_inline]] {
    if constexpr (sizeof bits == sizeof(__m128i)) {
      _mm_stream_si128(reinterpret_cast<__m128i*>(p + first), reinterpret_cast<__m128i>(bits));
    } else {
      _mm256_stream_si256(reinterpret_cast<__m256i*>(p + first), reinterpret_cast<__m256i>(bits));
    }
  });
}
template <class T>
[[gnu::always_inline]] inline void stream(T* p, std::type_identity_t<T> value, bool) {
  store(p, value);
}

/// N bfloat16s in another order of lanes, for kernels that compute lane by lane only: of each 16, those with
/// even places come first. 1 operation per register, where `load` takes 2.
template <int N>
[[gnu::always_inline]] inline varying_t<bfloat16, N> load_split(const bfloat16* p) {
  if constexpr (N == 1) {
    return load<1>(p);
  } else if constexpr (N > 16) {
    return lanes<bfloat16, N>({load_split<N / 2>(p).w, load_split<N / 2>(p + N / 2).w});
  } else {
    checked(p, 16 * sizeof(bfloat16));
    const __m256i pairs = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
    const __m256i odd = _mm256_and_si256(pairs, _mm256_set1_epi32(static_cast<int>(0xFFFF0000)));
    using eight = lanes<float, 8>;
    return lanes<bfloat16, 16>(
        {eight(_mm256_castsi256_ps(_mm256_slli_epi32(pairs, 16))), eight(_mm256_castsi256_ps(odd))});
  }
}

/// `stream` of floats in that order of lanes, rounded to bfloat16.
template <int N>
[[gnu::always_inline]] inline void stream_split(bfloat16* p, const lanes<float, N>& value, bool past_caches) {
  if constexpr (N > 16) {
    stream_split(p, value.lo, past_caches);
    stream_split(p + N / 2, value.hi, past_caches);
  } else {
    checked(p, 16 * sizeof(bfloat16));
    const auto odd = reinterpret_cast<__m256i>(detail::bfloat16_in_upper_half(value.hi.v));
    const __m256i pairs = _mm256_blend_epi16(detail::bfloat16_words<false>(value.lo.v), odd, 0xAA);
    if (past_caches) {
      _mm256_stream_si256(reinterpret_cast<__m256i*>(p), pairs);
    } else {
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), pairs);
    }
  }
}
[[gnu::always_inline]] inline void stream_split(bfloat16* p, bfloat16 value, bool) {
  store(p, value);
}

/// Writes the first lanes only.
template <class T, class U, int N>
[[gnu::always_inline]] inline void store(T* p, const lanes<U, N>& value, first_lanes live) {
  if constexpr (!std::same_as<T, U>) {
    return store(p, convert<T>(value), live);
  } else {
    checked(p, static_cast<std::size_t>(live.count) * sizeof(T));
    if constexpr (reduced<T>) {
      std::uint16_t buffer[N];
      if (live.count == N) return store(p, value);
      alignas(32) float wide_values[N];
      std::memcpy(wide_values, &value.w, sizeof wide_values);
      for (int l = 0; l < N; ++l) buffer[l] = T(wide_values[l]).bits();
      std::memcpy(p, buffer, static_cast<std::size_t>(live.count) * sizeof(T));
    } else {
      std::memcpy(p, &value, static_cast<std::size_t>(live.count) * sizeof(T));
    }
  }
}

/// p[index] per lane, and its counterpart. About 1 ns per lane for elements of 16 and 64 bits.
template <class T, class Index>
[[gnu::always_inline]] inline auto gather(const T* p, const Index& index) {
  if constexpr (!is_lanes<Index>) {
    return load<1>(p + index);
  } else {
    constexpr int n = lane_count<Index>;
    element<Index> at[n];
    std::memcpy(at, &index, sizeof at);
    alignas(32) T values[n];
    for (int l = 0; l < n; ++l) {
      checked(p + at[l], sizeof(T));
      std::memcpy(&values[l], p + at[l], sizeof(T));
    }
    return from_buffer<n>(values);
  }
}
template <class T, class Index, class V>
[[gnu::always_inline]] inline void scatter(T* p, const Index& index, const V& value) {
  if constexpr (!is_lanes<Index>) {
    store(p + index, value);
  } else {
    constexpr int n = lane_count<Index>;
    element<Index> at[n];
    std::memcpy(at, &index, sizeof at);
    wide<T> values[n];
    if constexpr (reduced<T>) {
      std::memcpy(values, &value.w, sizeof values);
    } else {
      std::memcpy(values, &value, sizeof values);
    }
    for (int l = 0; l < n; ++l) {
      checked(p + at[l], sizeof(T));
      p[at[l]] = T(values[l]);
    }
  }
}

/// Lanes First, First + 1, … of `few`, each Repeat times.
template <int N, int Repeat, int First, class T>
[[gnu::always_inline]] inline lanes<T, N> repeat_lanes(const lanes<T, 8>& few) {
  if constexpr (reduced<T>) {
    return lanes<T, N>(repeat_lanes<N, Repeat, First>(few.w));
  } else if constexpr (N > 8) {
    return {repeat_lanes<N / 2, Repeat, First>(few),
            repeat_lanes<N / 2, Repeat, First + N / 2 / Repeat>(few)};
  } else {
    static_assert(sizeof(T) == 4);
    constexpr auto at = [](int lane) { return First + lane / Repeat; };
    return lanes<T, N>(
        __builtin_shufflevector(few.v, few.v, at(0), at(1), at(2), at(3), at(4), at(5), at(6), at(7)));
  }
}

/// Element l / Repeat of the T's at `p` (unaligned bytes) in lane l, so that Repeat neighbours share one.
/// Lanes past the live ones read nothing. 1 shuffle per register, and one load for all.
template <int N, int Repeat, class T, class Live>
[[gnu::always_inline]] inline varying_t<T, N> load_repeated(const std::uint8_t* p, Live live) {
  if constexpr (N == 1) {
    return load<1>(reinterpret_cast<const T*>(p));
  } else {
    static_assert(N % Repeat == 0 && 8 % Repeat == 0);
    constexpr int distinct = N / Repeat;
    alignas(32) T buffer[8] = {};
    const int count = (live.count + Repeat - 1) / Repeat;
    checked(p, static_cast<std::size_t>(count) * sizeof(T));
    std::memcpy(buffer, p,
                (std::same_as<Live, first_lanes> ? static_cast<std::size_t>(count) : distinct) * sizeof(T));
    const lanes<T, 8> few = from_buffer<8>(buffer);
    return repeat_lanes<N, Repeat, 0>(few);
  }
}

/// Byte l of p in lane l, as a word. 1 load and widening.
template <int N>
[[gnu::always_inline]] inline varying_t<std::uint32_t, N> load_bytes(const std::uint8_t* p) {
  checked(p, N);
  if constexpr (N == 1) {
    return *p;
  } else if constexpr (N > 8) {
    return {load_bytes<N / 2>(p), load_bytes<N / 2>(p + N / 2)};
  } else {
    const __m128i bytes = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(p));
    return lanes<std::uint32_t, 8>(reinterpret_cast<native<std::uint32_t>>(_mm256_cvtepu8_epi32(bytes)));
  }
}

/// Bit l of a uniform word in lane l, as 0 or 1. 2 operations.
template <int N>
[[gnu::always_inline]] inline varying_t<std::uint32_t, N> bits_from(std::uint32_t word) {
  if constexpr (N == 1) {
    return word & 1;
  } else if constexpr (N > 8) {
    return {bits_from<N / 2>(word), bits_from<N / 2>(word >> (N / 2))};
  } else {
    const native<std::uint32_t> place = {0, 1, 2, 3, 4, 5, 6, 7};
    return lanes<std::uint32_t, 8>((broadcast(word) >> place) & 1);
  }
}

/// Code `place` + l of a run of two-bit codes in lane l: four to a byte, from its top down. `place` is a
/// multiple of N.
template <int N>
[[gnu::always_inline]] inline varying_t<std::uint32_t, N> two_bit_codes(const std::uint8_t* p, int place) {
  if constexpr (N == 1) {
    checked(p + place / 4, 1);
    return p[place / 4] >> (6 - place % 4 * 2) & 3u;
  } else if constexpr (N > 8) {
    return {two_bit_codes<N / 2>(p, place), two_bit_codes<N / 2>(p, place + N / 2)};
  } else {
    std::uint16_t bytes = 0;
    checked(p + place / 4, sizeof bytes);
    std::memcpy(&bytes, p + place / 4, sizeof bytes);
    const native<std::uint32_t> down = {6, 4, 2, 0, 14, 12, 10, 8};
    return lanes<std::uint32_t, 8>((broadcast<std::uint32_t>(bytes) >> down) & 3);
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
    const __m256i bytes = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
    const __m256i nibbles =
        _mm256_and_si256(High ? _mm256_srli_epi16(bytes, 4) : bytes, _mm256_set1_epi8(15));
    const __m256i spread = _mm256_shuffle_epi8(
        _mm256_set1_epi32(static_cast<int>(upper)),
        _mm256_setr_epi64x(0, 0x0101010101010101, 0x0202020202020202, 0x0303030303030303));
    const __m256i bit = _mm256_set1_epi64x(static_cast<long long>(0x8040201008040201));
    const __m256i set = _mm256_cmpeq_epi8(_mm256_and_si256(spread, bit), bit);
    const __m256i codes = _mm256_or_si256(nibbles, _mm256_and_si256(set, _mm256_set1_epi8(16)));
    const auto values = [](__m128i eight) [[gnu::always_inline]] {
      const auto words = reinterpret_cast<native<std::uint32_t>>(_mm256_cvtepu8_epi32(eight));
      constexpr float bias = 1 << 23;
      const lanes<std::uint32_t, 8> biased(words | std::bit_cast<std::uint32_t>(bias));
      return bit_cast<float>(biased) - (bias - Offset);
    };
    const __m128i low = _mm256_castsi256_si128(codes), high = _mm256_extracti128_si256(codes, 1);
    return {{values(low), values(_mm_unpackhi_epi64(low, low))},
            {values(high), values(_mm_unpackhi_epi64(high, high))}};
  }
}

/// Eight bytes per lane, as two little-endian words: lane l's stand at p + 8 * l. 1 load and 1 or 2 shuffles
/// per word.
template <int N>
struct tile8 {
  varying_t<std::uint32_t, N> word[2];
};

[[gnu::always_inline]] inline tile8<8> split_words(__m256i first, __m256i second) {
  const __m256 a = _mm256_castsi256_ps(first), b = _mm256_castsi256_ps(second);
  const auto ordered = [](__m256 words) {
    return lanes<std::uint32_t, 8>(
        reinterpret_cast<native<std::uint32_t>>(_mm256_permute4x64_epi64(_mm256_castps_si256(words), 0xD8)));
  };
  return {{ordered(_mm256_shuffle_ps(a, b, 0x88)), ordered(_mm256_shuffle_ps(a, b, 0xDD))}};
}

template <int N, class Live>
[[gnu::always_inline]] inline tile8<N> load_tile8(const std::uint8_t* p, Live live) {
  checked(p, static_cast<std::size_t>(std::max(0, live.count)) * 8);
  if constexpr (N == 1) {
    tile8<1> tile;
    std::memcpy(tile.word, p, 8);
    return tile;
  } else if constexpr (N > 8) {
    const auto low = load_tile8<N / 2>(p, lower_half(live));
    const auto high = load_tile8<N / 2>(p + 4 * N, upper_half(live, N));
    return {{{low.word[0], high.word[0]}, {low.word[1], high.word[1]}}};
  } else if constexpr (std::same_as<Live, first_lanes>) {
    const native<std::int64_t> lane = {0, 1, 2, 3};
    const auto* words = reinterpret_cast<const long long*>(p);
    const auto mask = [&](int from) { return reinterpret_cast<__m256i>(lane + from < live.count); };
    return split_words(_mm256_maskload_epi64(words, mask(0)), _mm256_maskload_epi64(words + 4, mask(4)));
  } else {
    const auto* words = reinterpret_cast<const __m256i*>(p);
    return split_words(_mm256_loadu_si256(words), _mm256_loadu_si256(words + 1));
  }
}

// Sums over the work-group

/// The sum of all lanes in T, where lane l takes in lane l + stride for stride N / 2, N / 4, …, 1.
template <class T, int N>
[[gnu::always_inline]] inline T tree_sum(const lanes<T, N>& x) {
  return tree_reduce(x, [](const auto& a, const auto& b) [[gnu::always_inline]] { return a + b; });
}

/// Sums `Rows` values over the work-group, whose size is a power of two: Stage writes value j of work-item l
/// to local[j * group size + l], Tree adds entry l + stride to entry l, for stride halving down to 1, in T.
/// `local` holds Rows * group size elements. The result is work-item 0's; gangs other than the first get
/// nothing useful. Where one gang is the whole group the same sums are made in registers.
template <class T, class Item, class V, std::size_t Rows>
[[gnu::always_inline]] inline std::array<T, Rows> tree_sum(const Item& item, const std::array<V, Rows>& value,
                                                           T* local) {
  constexpr int n = Item::lanes;
  const int size = item.group_size();
  std::array<T, Rows> sum{};
  if constexpr (n > 1) {
    if (size == n) {
      unrolled<Rows>([&](auto j) { sum[j] = tree_sum(value[j]); });
      return sum;
    }
  }
  for (std::size_t j = 0; j < Rows; ++j) store(local + j * size + item.first(), value[j]);
  item.barrier();
  for (int stride = size / 2; stride >= n; stride /= 2) {
    if (item.first() < stride) {
      for (std::size_t j = 0; j < Rows; ++j) {
        T* entry = local + j * size + item.first();
        store(entry, load<n>(entry) + load<n>(entry + stride));
      }
    }
    item.barrier();
  }
  if (item.first() == 0) {
    for (std::size_t j = 0; j < Rows; ++j) {
      if constexpr (n > 1) {
        sum[j] = tree_sum(load<n>(local + j * size));
      } else {
        sum[j] = local[j * size];
      }
    }
  }
  return sum;
}

}  // namespace spmd
