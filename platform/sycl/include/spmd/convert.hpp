#pragma once
// Comparison, choice and conversion of varying values.

#include "spmd/lanes.hpp"

namespace spmd {

/// Whether N elements of either type fit one register.
template <class T, class U, int N>
inline constexpr bool share_register = N <= native_lanes<T>&& N <= native_lanes<U>;

/// The mask of a comparison of registers, of 32 bits whatever their width.
template <class F, plain T, int N>
[[gnu::always_inline]] inline lanes<std::int32_t, N> compare(const F& f, const lanes<T, N>& a,
                                                             const lanes<T, N>& b) {
  if constexpr (share_register<T, std::int32_t, N>) {
    return lanes<std::int32_t, N>(__builtin_convertvector(f(a.v, b.v), vec<std::int32_t, N>));
  } else {
    return joined(compare(f, lower(a), lower(b)), compare(f, upper(a), upper(b)));
  }
}

template <plain T, int N>
[[gnu::always_inline]] inline lanes<bool, N> operator<(const lanes<T, N>& a, const lanes<T, N>& b) {
  return lanes<bool, N>(compare([](auto x, auto y) [[gnu::always_inline]] { return x < y; }, a, b));
}
template <plain T, int N>
[[gnu::always_inline]] inline lanes<bool, N> operator==(const lanes<T, N>& a, const lanes<T, N>& b) {
  return lanes<bool, N>(compare([](auto x, auto y) [[gnu::always_inline]] { return x == y; }, a, b));
}
template <reduced T, int N>
[[gnu::always_inline]] inline lanes<bool, N> operator<(const lanes<T, N>& a, const lanes<T, N>& b) {
  return a.w < b.w;
}
template <reduced T, int N>
[[gnu::always_inline]] inline lanes<bool, N> operator==(const lanes<T, N>& a, const lanes<T, N>& b) {
  return a.w == b.w;
}
template <class T, int N>
[[gnu::always_inline]] inline lanes<bool, N> operator<(const lanes<T, N>& a, std::type_identity_t<T> b) {
  return a < lanes<T, N>(b);
}
template <class T, int N>
[[gnu::always_inline]] inline lanes<bool, N> operator>(const lanes<T, N>& a, const lanes<T, N>& b) {
  return b < a;
}
template <class T, int N>
[[gnu::always_inline]] inline lanes<bool, N> operator>(const lanes<T, N>& a, std::type_identity_t<T> b) {
  return lanes<T, N>(b) < a;
}
template <int N>
[[gnu::always_inline]] inline lanes<bool, N> operator&(const lanes<bool, N>& a, const lanes<bool, N>& b) {
  return lanes<bool, N>(a.mask & b.mask);
}
template <int N>
[[gnu::always_inline]] inline lanes<bool, N> operator|(const lanes<bool, N>& a, const lanes<bool, N>& b) {
  return lanes<bool, N>(a.mask | b.mask);
}
template <int N>
[[gnu::always_inline]] inline lanes<bool, N> operator!(const lanes<bool, N>& a) {
  return lanes<bool, N>(a.mask ^ lanes<std::int32_t, N>(-1));
}

/// condition ? yes : no, lane by lane; both are evaluated.
template <class T, int N>
[[gnu::always_inline]] inline lanes<T, N> select(const lanes<bool, N>& condition, const lanes<T, N>& yes,
                                                 const lanes<T, N>& no) {
  if constexpr (reduced<T>) {
    return lanes<T, N>(select(condition, yes.w, no.w));
  } else if constexpr (!share_register<T, std::int32_t, N>) {
    return joined(select(lower(condition), lower(yes), lower(no)),
                  select(upper(condition), upper(yes), upper(no)));
  } else {
    using mask = vec<std::conditional_t<sizeof(T) == 4, std::int32_t, std::int64_t>, N>;
    return lanes<T, N>(__builtin_convertvector(condition.mask.v, mask) ? yes.v : no.v);
  }
}
template <class T>
[[gnu::always_inline]] inline T select(bool condition, T yes, std::type_identity_t<T> no) {
  return condition ? yes : no;
}

/// T(x): exact where T is wider, else rounded to nearest even. Float to integer truncates.
template <class To, class From, int N>
[[gnu::always_inline]] inline lanes<To, N> convert(const lanes<From, N>& x) {
  if constexpr (std::same_as<To, From>) {
    return x;
  } else if constexpr (reduced<From>) {
    return convert<To>(x.w);
  } else if constexpr (reduced<To>) {
    return rounded<To>(convert<float>(x));
  } else if constexpr (share_register<To, From, N>) {
    return lanes<To, N>(__builtin_convertvector(x.v, vec<To, N>));
  } else {
    return joined(convert<To>(lower(x)), convert<To>(upper(x)));
  }
}
template <class To, class From>
requires(!is_lanes<From>) [[gnu::always_inline]] inline To convert(From x) {
  if constexpr (reduced<To>) {
    return To(static_cast<float>(x));
  } else if constexpr (reduced<From>) {
    return static_cast<To>(static_cast<float>(x));
  } else {
    return static_cast<To>(x);
  }
}

/// The same bits as another type of the same width.
template <plain To, plain From, int N>
[[gnu::always_inline]] inline lanes<To, N> bit_cast(const lanes<From, N>& x) {
  return per_register_as<To>(
      [](auto v) [[gnu::always_inline]] { return reinterpret_cast<vec<To, sizeof v / sizeof(To)>>(v); }, x);
}

/// x, which is a value of T as it stands (an integer of at most 8 bits, say): converted without rounding.
template <class To, class From, int N>
[[gnu::always_inline]] inline lanes<To, N> convert_exact(const lanes<From, N>& x) {
  if constexpr (reduced<To>) {
    return lanes<To, N>(convert<float>(x));
  } else {
    return convert<To>(x);
  }
}
template <class To, class From>
requires(!is_lanes<From>) [[gnu::always_inline]] inline To convert_exact(From x) {
  return convert<To>(x);
}

// Lane ids

/// first, first + 1, … in lanes 0, 1, …; lanes from `live` on repeat the last live one.
template <int N>
[[gnu::always_inline]] inline auto ramp(int first, int live = N) {
  if constexpr (N == 1) {
    return first;
  } else if constexpr (N > native_lanes<std::int32_t>) {
    return lanes<std::int32_t, N>(ramp<N / 2>(first, live), ramp<N / 2>(first + N / 2, live - N / 2));
  } else {
    constexpr auto lane = constants<std::int32_t, N>([](int i) { return i; });
    const vec<std::int32_t, N> last = vec<std::int32_t, N>{} + (live - 1);
    return lanes<std::int32_t, N>((lane < last ? lane : last) + first);
  }
}

}  // namespace spmd
