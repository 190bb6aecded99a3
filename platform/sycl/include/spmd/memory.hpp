#pragma once
// Loads and stores of varying values. Costs are for one register.

#include <algorithm>

#include "spmd/convert.hpp"
#include "sycl/checks.hpp"

namespace spmd {

using sycl::host::checked;

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

/// The part of a gang that its `Width` lanes from `first` on see.
template <int Width, int N>
constexpr all_lanes<Width> part_of(all_lanes<N>, int /*first*/) {
  return {};
}
template <int Width>
constexpr first_lanes part_of(first_lanes live, int first) {
  return {std::min(Width, live.count - first)};
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
  } else if constexpr (N > native_lanes<wide<T>>) {
    return joined(load<N / 2>(p), load<N / 2>(p + N / 2));
  } else if constexpr (std::same_as<T, half>) {
    return lanes<T, N>(lanes<float, N>(target::from_halves(loaded<vec<std::uint16_t, N>>(p))));
  } else if constexpr (std::same_as<T, bfloat16>) {
    const auto words = target::widened(loaded<vec<std::uint16_t, N>>(p)) << 16;
    return lanes<T, N>(lanes<float, N>(reinterpret_cast<vec<float, N>>(words)));
  } else {
    return lanes<T, N>(loaded<vec<T, N>>(p));
  }
}

/// The same for the first lanes only: nothing behind p[live.count - 1] is read, and the other lanes are 0.
template <int N, class T>
[[gnu::always_inline]] inline varying_t<T, N> load(const T* p, first_lanes live) {
  checked(p, static_cast<std::size_t>(live.count) * sizeof(T));
  alignas(64) T buffer[N] = {};
  std::memcpy(buffer, p, static_cast<std::size_t>(live.count) * sizeof(T));
  return from_buffer<N>(buffer);
}

/// Asks for the cache lines of `Bytes` bytes from p on, which will be read once: they take little of the
/// caches from what is read again. Nothing need be there.
template <int Bytes>
[[gnu::always_inline]] inline void prefetch_once(const std::uint8_t* p) {
  for (int byte = 0; byte < Bytes; byte += 64) target::prefetch_once(p + byte);
}

namespace detail {

/// Floats as bfloat16s in the lower halves of words. Rounded says that they are bfloat16s already.
template <bool Rounded, int N>
[[gnu::always_inline]] inline vec<std::uint32_t, N> bfloat16_words(const lanes<float, N>& x) {
  const auto bits = reinterpret_cast<vec<std::uint32_t, N>>(x.v);
  return (Rounded ? bits : bfloat16_in_upper_half<N>(bits)) >> 16;
}

/// Calls body(first, bits) for the registers that the floats fill in memory as values of T, `first` being the
/// lane that a register begins with. Rounded says that they are such values already.
template <reduced T, bool Rounded, int First, int N, class Body>
[[gnu::always_inline]] inline void for_reduced(const lanes<float, N>& value, const Body& body) {
  constexpr int native = native_lanes<float>;
  if constexpr (std::same_as<T, bfloat16> && N == 16 && native == 8) {
    body(First, target::narrowed(bfloat16_words<Rounded>(value.lo), bfloat16_words<Rounded>(value.hi)));
  } else if constexpr (N > native) {
    for_reduced<T, Rounded, First>(value.lo, body);
    for_reduced<T, Rounded, First + N / 2>(value.hi, body);
  } else if constexpr (std::same_as<T, half>) {
    body(First, target::to_halves(value.v));
  } else {
    body(First, target::narrowed(bfloat16_words<Rounded>(value)));
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
    if constexpr (std::same_as<T, half>) {
      target::store(p + first, bits);
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
/// are not read first. p is then aligned to 64 bytes, and whole cache lines should be written together.
template <class T, class U, int N>
[[gnu::always_inline]] inline void stream(T* p, const lanes<U, N>& value, bool past_caches) {
  if (!past_caches) return store(p, value);
  checked(p, N * sizeof(T));
  detail::for_stored<T>(
      value, [p](int first, auto bits) [[gnu::always_inline]] { target::stream(p + first, bits); });
}
template <class T>
[[gnu::always_inline]] inline void stream(T* p, std::type_identity_t<T> value, bool) {
  store(p, value);
}

/// N bfloat16s in another order of lanes, for kernels that compute lane by lane only: of each run of two
/// registers, those with even places come first. 1 operation per register, where `load` takes 2.
template <int N>
[[gnu::always_inline]] inline varying_t<bfloat16, N> load_split(const bfloat16* p) {
  constexpr int run = 2 * native_lanes<float>;
  if constexpr (N == 1) {
    return load<1>(p);
  } else if constexpr (N > run) {
    return joined(load_split<N / 2>(p), load_split<N / 2>(p + N / 2));
  } else {
    checked(p, N * sizeof(bfloat16));
    const auto pairs = loaded<vec<std::uint32_t, N / 2>>(p);
    using part = lanes<float, N / 2>;
    return lanes<bfloat16, N>(joined(part(reinterpret_cast<vec<float, N / 2>>(pairs << 16)),
                                     part(reinterpret_cast<vec<float, N / 2>>(pairs & 0xFFFF0000))));
  }
}

/// `stream` of floats in that order of lanes, rounded to bfloat16.
template <int N>
[[gnu::always_inline]] inline void stream_split(bfloat16* p, const lanes<float, N>& value, bool past_caches) {
  if constexpr (N > 2 * native_lanes<float>) {
    stream_split(p, value.lo, past_caches);
    stream_split(p + N / 2, value.hi, past_caches);
  } else {
    checked(p, N * sizeof(bfloat16));
    const auto words = [](const lanes<float, N / 2>& x) [[gnu::always_inline]] {
      return bfloat16_in_upper_half<N / 2>(reinterpret_cast<vec<std::uint32_t, N / 2>>(x.v));
    };
    const auto pairs = words(lower(value)) >> 16 | (words(upper(value)) & 0xFFFF0000);
    if (past_caches) {
      target::stream(p, pairs);
    } else {
      std::memcpy(static_cast<void*>(p), &pairs, sizeof pairs);
    }
  }
}
[[gnu::always_inline]] inline void stream_split(bfloat16* p, bfloat16 value, bool) {
  store(p, value);
}

/// Writes the first lanes only.
template <class T, class U, int N>
[[gnu::always_inline]] inline void store(T* p, const lanes<U, N>& value, first_lanes live) {
  checked(p, static_cast<std::size_t>(live.count) * sizeof(T));
  T buffer[N];
  detail::for_stored<T>(value, [&buffer](int first, auto bits) [[gnu::always_inline]] {
    std::memcpy(static_cast<void*>(buffer + first), &bits, sizeof bits);
  });
  std::memcpy(static_cast<void*>(p), buffer, static_cast<std::size_t>(live.count) * sizeof(T));
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
    alignas(64) T values[n];
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

}  // namespace spmd
