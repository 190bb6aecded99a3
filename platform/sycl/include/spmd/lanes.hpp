#pragma once
// lanes<T, N>: the values of one variable in N work-items of a gang, held in as many registers as they take
// or in a part of one, and arithmetic in T on them. With one work-item per gang a varying value is the plain
// scalar. Half and bfloat16 are held widened to float and rounded after every operation, so each register
// value is one that the type can hold.

#include <cmath>

#include "spmd/target.hpp"
#include "sycl/half.hpp"

namespace spmd {

using sycl::half;
using sycl::ext::kelvor::bfloat16;

template <class T>
concept reduced = std::same_as<T, half> || std::same_as<T, bfloat16>;
template <class T>
concept plain = !reduced<T> && !std::same_as<T, bool>;

/// The type that arithmetic in T is done in, and that registers hold.
template <class T>
using wide = std::conditional_t<reduced<T>, float, T>;

template <class T, int N>
struct lanes;

/// A value per work-item: lanes, or the scalar where a gang has one lane.
template <class T, int N>
using varying_t =
    typename std::conditional_t<N == 1, std::type_identity<T>, std::type_identity<lanes<T, N>>>::type;

template <plain T, int N>
requires(N <= native_lanes<T>) struct lanes<T, N> {
  vec<T, N> v;
  lanes() = default;
  [[gnu::always_inline]] explicit lanes(vec<T, N> value) : v(value) {}
  [[gnu::always_inline]] lanes(T uniform) : v(repeated<N>(uniform)) {}  // NOLINT: uniform values are varying
};

template <plain T, int N>
requires(N > native_lanes<T>) struct lanes<T, N> {
  lanes<T, N / 2> lo, hi;
  lanes() = default;
  [[gnu::always_inline]] lanes(lanes<T, N / 2> low, lanes<T, N / 2> high) : lo(low), hi(high) {}
  [[gnu::always_inline]] lanes(T uniform) : lo(uniform), hi(uniform) {}  // NOLINT
};

template <reduced T, int N>
struct lanes<T, N> {
  lanes<float, N> w;
  lanes() = default;
  [[gnu::always_inline]] explicit lanes(lanes<float, N> exact) : w(exact) {}
  [[gnu::always_inline]] lanes(T uniform) : w(float(uniform)) {}  // NOLINT
};

/// A condition per lane: all bits of the 32-bit word set, or none.
template <int N>
struct lanes<bool, N> {
  lanes<std::int32_t, N> mask;
  lanes() = default;
  [[gnu::always_inline]] explicit lanes(lanes<std::int32_t, N> bits) : mask(bits) {}
  [[gnu::always_inline]] lanes(bool uniform) : mask(uniform ? -1 : 0) {}  // NOLINT
};

template <class T>
inline constexpr bool is_lanes = false;
template <class T, int N>
inline constexpr bool is_lanes<lanes<T, N>> = true;

/// Number of lanes of a varying type, 1 for a scalar.
template <class V>
inline constexpr int lane_count = 1;
template <class T, int N>
inline constexpr int lane_count<lanes<T, N>> = N;

template <class V>
struct element_of {
  using type = V;
};
template <class T, int N>
struct element_of<lanes<T, N>> {
  using type = T;
};
/// The element type of a varying type.
template <class V>
using element = typename element_of<V>::type;

// Halves of a gang, and registers

/// Lanes 0 … N / 2 - 1, and the others.
template <class T, int N>
[[gnu::always_inline]] inline lanes<T, N / 2> lower(const lanes<T, N>& x) {
  if constexpr (reduced<T>) {
    return lanes<T, N / 2>(lower(x.w));
  } else if constexpr (std::same_as<T, bool>) {
    return lanes<T, N / 2>(lower(x.mask));
  } else if constexpr (N > native_lanes<T>) {
    return x.lo;
  } else {
    return lanes<T, N / 2>(shuffled<N / 2>(x.v, [](int i) { return i; }));
  }
}
template <class T, int N>
[[gnu::always_inline]] inline lanes<T, N / 2> upper(const lanes<T, N>& x) {
  if constexpr (reduced<T>) {
    return lanes<T, N / 2>(upper(x.w));
  } else if constexpr (std::same_as<T, bool>) {
    return lanes<T, N / 2>(upper(x.mask));
  } else if constexpr (N > native_lanes<T>) {
    return x.hi;
  } else {
    return lanes<T, N / 2>(shuffled<N / 2>(x.v, [](int i) { return i + N / 2; }));
  }
}

/// The lanes of `low` with those of `high` behind them.
template <class T, int N>
[[gnu::always_inline]] inline lanes<T, 2 * N> joined(const lanes<T, N>& low, const lanes<T, N>& high) {
  if constexpr (reduced<T>) {
    return lanes<T, 2 * N>(joined(low.w, high.w));
  } else if constexpr (std::same_as<T, bool>) {
    return lanes<T, 2 * N>(joined(low.mask, high.mask));
  } else if constexpr (2 * N > native_lanes<T>) {
    return {low, high};
  } else {
    return lanes<T, 2 * N>(shuffled<2 * N>(low.v, high.v, [](int i) { return i; }));
  }
}

/// `Count` values of neighbouring lanes put together, a power of two.
template <int Count, class V>
[[gnu::always_inline]] inline auto joined_parts(const V* parts) {
  if constexpr (Count == 1) {
    return *parts;
  } else {
    return joined(joined_parts<Count / 2>(parts), joined_parts<Count / 2>(parts + Count / 2));
  }
}

/// f on the registers of x, and of `more` of the same type; f gives registers of To.
template <class To, class F, class T, int N, class... More>
[[gnu::always_inline]] inline lanes<To, N> per_register_as(const F& f, const lanes<T, N>& x,
                                                           const More&... more) {
  if constexpr (N > native_lanes<T>) {
    return joined(per_register_as<To>(f, x.lo, more.lo...), per_register_as<To>(f, x.hi, more.hi...));
  } else {
    return lanes<To, N>(f(x.v, more.v...));
  }
}
template <class F, class T, int N, class... More>
[[gnu::always_inline]] inline lanes<T, N> per_register(const F& f, const lanes<T, N>& x,
                                                       const More&... more) {
  return per_register_as<T>(f, x, more...);
}

// Rounding

/// Floats as bfloat16s in the upper halves of words; the lower halves are left over from rounding.
template <int N>
[[gnu::always_inline]] inline vec<std::uint32_t, N> bfloat16_in_upper_half(vec<std::uint32_t, N> bits) {
  return bits + 0x7FFF + (bits >> 16 & 1);
}

/// `exact` rounded to T lane by lane, to nearest even. The result stays in float registers.
template <reduced T, int N>
[[gnu::always_inline]] inline lanes<T, N> rounded(const lanes<float, N>& exact) {
  return lanes<T, N>(per_register(
      []<class V>(V x) [[gnu::always_inline]] -> V {
        if constexpr (std::same_as<T, half>) {
          return target::from_halves(target::to_halves(x));
        } else {
          constexpr int n = sizeof(V) / sizeof(float);
          const auto bits = reinterpret_cast<vec<std::uint32_t, n>>(x);
          return reinterpret_cast<V>(bfloat16_in_upper_half<n>(bits) & 0xFFFF0000);
        }
      },
      exact));
}

// Operators on plain types

template <plain T, int N>
[[gnu::always_inline]] inline lanes<T, N> operator+(const lanes<T, N>& a, const lanes<T, N>& b) {
  return per_register([](auto x, auto y) [[gnu::always_inline]] { return x + y; }, a, b);
}
template <plain T, int N>
[[gnu::always_inline]] inline lanes<T, N> operator-(const lanes<T, N>& a, const lanes<T, N>& b) {
  return per_register([](auto x, auto y) [[gnu::always_inline]] { return x - y; }, a, b);
}
template <plain T, int N>
[[gnu::always_inline]] inline lanes<T, N> operator*(const lanes<T, N>& a, const lanes<T, N>& b) {
  return per_register([](auto x, auto y) [[gnu::always_inline]] { return x * y; }, a, b);
}
template <plain T, int N>
[[gnu::always_inline]] inline lanes<T, N> operator/(const lanes<T, N>& a, const lanes<T, N>& b) {
  return per_register([](auto x, auto y) [[gnu::always_inline]] { return x / y; }, a, b);
}
template <std::integral T, int N>
[[gnu::always_inline]] inline lanes<T, N> operator%(const lanes<T, N>& a, const lanes<T, N>& b) {
  return per_register([](auto x, auto y) [[gnu::always_inline]] { return x % y; }, a, b);
}
template <std::integral T, int N>
[[gnu::always_inline]] inline lanes<T, N> operator&(const lanes<T, N>& a, const lanes<T, N>& b) {
  return per_register([](auto x, auto y) [[gnu::always_inline]] { return x & y; }, a, b);
}
template <std::integral T, int N>
[[gnu::always_inline]] inline lanes<T, N> operator|(const lanes<T, N>& a, const lanes<T, N>& b) {
  return per_register([](auto x, auto y) [[gnu::always_inline]] { return x | y; }, a, b);
}
template <std::integral T, int N>
[[gnu::always_inline]] inline lanes<T, N> operator^(const lanes<T, N>& a, const lanes<T, N>& b) {
  return per_register([](auto x, auto y) [[gnu::always_inline]] { return x ^ y; }, a, b);
}
template <std::integral T, int N>
[[gnu::always_inline]] inline lanes<T, N> operator<<(const lanes<T, N>& a, int count) {
  return per_register([count](auto x) [[gnu::always_inline]] { return x << count; }, a);
}
template <std::integral T, int N>
[[gnu::always_inline]] inline lanes<T, N> operator>>(const lanes<T, N>& a, int count) {
  return per_register([count](auto x) [[gnu::always_inline]] { return x >> count; }, a);
}
template <plain T, int N>
[[gnu::always_inline]] inline lanes<T, N> operator-(const lanes<T, N>& a) {
  return per_register([](auto x) [[gnu::always_inline]] { return -x; }, a);
}

// Operators on reduced types: in float, rounded once

template <reduced T, int N>
[[gnu::always_inline]] inline lanes<T, N> operator+(const lanes<T, N>& a, const lanes<T, N>& b) {
  return rounded<T>(a.w + b.w);
}
template <reduced T, int N>
[[gnu::always_inline]] inline lanes<T, N> operator-(const lanes<T, N>& a, const lanes<T, N>& b) {
  return rounded<T>(a.w - b.w);
}
template <reduced T, int N>
[[gnu::always_inline]] inline lanes<T, N> operator*(const lanes<T, N>& a, const lanes<T, N>& b) {
  return rounded<T>(a.w * b.w);
}
template <reduced T, int N>
[[gnu::always_inline]] inline lanes<T, N> operator/(const lanes<T, N>& a, const lanes<T, N>& b) {
  return rounded<T>(a.w / b.w);
}
template <reduced T, int N>
[[gnu::always_inline]] inline lanes<T, N> operator-(const lanes<T, N>& a) {
  return lanes<T, N>(-a.w);
}

// A uniform operand

template <class T, int N>
[[gnu::always_inline]] inline auto operator+(const lanes<T, N>& a, std::type_identity_t<T> b) {
  return a + lanes<T, N>(b);
}
template <class T, int N>
[[gnu::always_inline]] inline auto operator-(const lanes<T, N>& a, std::type_identity_t<T> b) {
  return a - lanes<T, N>(b);
}
template <class T, int N>
[[gnu::always_inline]] inline auto operator*(const lanes<T, N>& a, std::type_identity_t<T> b) {
  return a * lanes<T, N>(b);
}
template <class T, int N>
[[gnu::always_inline]] inline auto operator/(const lanes<T, N>& a, std::type_identity_t<T> b) {
  return a / lanes<T, N>(b);
}
template <class T, int N>
[[gnu::always_inline]] inline auto operator%(const lanes<T, N>& a, std::type_identity_t<T> b) {
  return a % lanes<T, N>(b);
}
template <class T, int N>
[[gnu::always_inline]] inline auto operator&(const lanes<T, N>& a, std::type_identity_t<T> b) {
  return a & lanes<T, N>(b);
}
template <class T, int N>
[[gnu::always_inline]] inline auto operator|(const lanes<T, N>& a, std::type_identity_t<T> b) {
  return a | lanes<T, N>(b);
}
template <class T, int N>
[[gnu::always_inline]] inline auto operator^(const lanes<T, N>& a, std::type_identity_t<T> b) {
  return a ^ lanes<T, N>(b);
}

/// a * b + c as a fused multiply-add of the wide type, rounded to T: the contraction of a multiply and an
/// add.
template <class T, int N>
[[gnu::always_inline]] inline lanes<T, N> mad(const lanes<T, N>& a, const lanes<T, N>& b,
                                              const lanes<T, N>& c) {
  if constexpr (reduced<T>) {
    return rounded<T>(mad(a.w, b.w, c.w));
  } else {
    return per_register(
        [](auto x, auto y, auto z) [[gnu::always_inline]] {
          if constexpr (std::floating_point<T>) {
            return target::fma(x, y, z);
          } else {
            return x * y + z;
          }
        },
        a, b, c);
  }
}
template <class T>
requires(!is_lanes<T>) [[gnu::always_inline]] inline T mad(T a, T b, T c) {
  if constexpr (reduced<T>) {
    return T(std::fma(float(a), float(b), float(c)));
  } else if constexpr (std::floating_point<T>) {
    return std::fma(a, b, c);
  } else {
    return a * b + c;
  }
}

// Rounding of moderate magnitudes

/// Binary digits of a normal number of T.
template <reduced T>
inline constexpr int digits = std::same_as<T, half> ? 11 : 8;

/// Whether mad_moderate takes less than mad, for whole b or for any.
template <class T, bool Whole>
inline constexpr bool rounds_moderate_faster = reduced<T>&& target::rounds_in_floats &&
                                               (Whole || target::compares_magnitudes);

/// A moderate x rounded to nearest even to T's binary digits, which are k less than x has: 2^k x, of which
/// (2^k - 1) x is taken away. That is x but for the rounding of (2^k - 1) x, which is as coarse as 2^k x is;
/// where it is finer, just above a power of two, x is too near to that power to be rounded elsewhere. At a
/// tie 2^k x is even in units of the result's last digit, and so is what rounding made even taken from it. A
/// zero's sign is lost. 2 operations.
template <reduced T, int N>
[[gnu::always_inline]] inline lanes<T, N> rounded_digits(const lanes<float, N>& exact) {
  return lanes<T, N>(per_register(
      []<class V>(V x) [[gnu::always_inline]] {
        constexpr int n = sizeof(V) / sizeof(float);
        constexpr float multiple = 1 << (24 - digits<T>);
        return target::fma(x, V(repeated<n>(multiple)), -(x * repeated<n>(multiple - 1)));
      },
      exact));
}

/// The same for an x that may lie below T's normal numbers, and is rounded like the smallest of these there:
/// 2^k times a number of that size, from which x is taken away, has the units of 2^k x. 3 operations.
template <reduced T, int N>
[[gnu::always_inline]] inline lanes<T, N> rounded_moderate(const lanes<float, N>& exact) {
  return lanes<T, N>(per_register(
      []<class V>(V x) [[gnu::always_inline]] {
        constexpr int n = sizeof(V) / sizeof(float);
        constexpr float least = 1.5f * (std::same_as<T, half> ? 0x1p-14f : 0x1p-126f);
        const V multiple = repeated<n>(static_cast<float>(1 << (24 - digits<T>)));
        const V size = target::larger_magnitude(x, V(repeated<n>(least)));
        return target::fma(size, multiple, -target::fma(size, multiple, -x));
      },
      exact));
}

/// Magnitudes below this are moderate. T holds twice as much, and float 2^17 times.
template <reduced T>
inline constexpr float moderate = std::same_as<T, half> ? 0x1p15f : 0x1p110f;

/// mad for a moderate result. `Whole` says that b is whole and c a sum of such products: what lies below T's
/// normal numbers is a value of T as it stands then. A zero's sign is lost.
template <bool Whole, reduced T, int N>
[[gnu::always_inline]] inline lanes<T, N> mad_moderate(const lanes<T, N>& a, const lanes<T, N>& b,
                                                       const lanes<T, N>& c) {
  const auto exact = mad(a.w, b.w, c.w);
  if constexpr (Whole) {
    return rounded_digits<T>(exact);
  } else {
    return rounded_moderate<T>(exact);
  }
}

}  // namespace spmd
