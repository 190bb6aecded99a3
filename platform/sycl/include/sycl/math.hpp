#pragma once
// Mathematical functions of varying and of scalar values, under SYCL's names. Those on floats are glibc's
// vector functions (libmvec); a scalar takes the same way as a lane, so that both readings of a kernel agree.
// Half and bfloat16 are computed in float and rounded once. Measured errors: docs/spmd.md.

#include "spmd/convert.hpp"

namespace sycl {

namespace host {

using floats = spmd::vec<float, 8>;
using doubles = spmd::vec<double, 4>;

}  // namespace host

extern "C" {
host::floats _ZGVdN8v_expf(host::floats);
host::floats _ZGVdN8v_exp2f(host::floats);
host::floats _ZGVdN8v_sinf(host::floats);
host::floats _ZGVdN8v_cosf(host::floats);
host::doubles _ZGVdN4v_exp(host::doubles);
host::doubles _ZGVdN4v_exp2(host::doubles);
host::doubles _ZGVdN4v_sin(host::doubles);
host::doubles _ZGVdN4v_cos(host::doubles);
host::doubles _ZGVdN4vv_pow(host::doubles, host::doubles);
}

namespace host {

/// Applies a pair of functions, of eight floats and of four doubles, to any varying or scalar value.
template <class F, class V, class... More>
[[gnu::always_inline]] inline V by_register(const F& f, const V& x, const More&... more) {
  using T = spmd::element<V>;
  constexpr int n = spmd::lane_count<V>, few = 32 / sizeof(T);
  if constexpr (spmd::reduced<T>) {
    return spmd::convert<T>(by_register(f, spmd::convert<float>(x), spmd::convert<float>(more)...));
  } else if constexpr (n > few) {
    return spmd::joined(by_register(f, spmd::lower(x), spmd::lower(more)...),
                        by_register(f, spmd::upper(x), spmd::upper(more)...));
  } else if constexpr (n == few) {
    return V(f(x.v, more.v...));
  } else {
    static_assert(n == 1);
    return f(spmd::repeated<few>(x), spmd::repeated<few>(more)...)[0];
  }
}

struct exp_function {
  floats operator()(floats x) const { return _ZGVdN8v_expf(x); }
  doubles operator()(doubles x) const { return _ZGVdN4v_exp(x); }
};
struct exp2_function {
  floats operator()(floats x) const { return _ZGVdN8v_exp2f(x); }
  doubles operator()(doubles x) const { return _ZGVdN4v_exp2(x); }
};
struct sin_function {
  floats operator()(floats x) const { return _ZGVdN8v_sinf(x); }
  doubles operator()(doubles x) const { return _ZGVdN4v_sin(x); }
};
struct cos_function {
  floats operator()(floats x) const { return _ZGVdN8v_cosf(x); }
  doubles operator()(doubles x) const { return _ZGVdN4v_cos(x); }
};
/// A float's power is made in double: the vector function for floats loses accuracy where the result is far
/// from 1.
struct pow_function {
  doubles operator()(doubles x, doubles y) const { return _ZGVdN4vv_pow(x, y); }
  floats operator()(floats x, floats y) const {
    const auto wide = [](floats v) { return spmd::convert<double>(spmd::lanes<float, 8>(v)); };
    return spmd::convert<float>(by_register(*this, wide(x), wide(y))).v;
  }
};
struct rsqrt_function {
  template <class V>
  V operator()(V x) const {
    return 1 / spmd::target::sqrt(x);
  }
};
struct sqrt_function {
  template <class V>
  V operator()(V x) const {
    return spmd::target::sqrt(x);
  }
};
/// The comparison gives its second operand where one is NaN, which is wrong only where that is the second.
struct fmax_function {
  template <class V>
  V operator()(V x, V y) const {
    return y != y ? x : (x > y ? x : y);  // NOLINT(misc-redundant-expression): a NaN
  }
};

}  // namespace host

/// 2^x.
template <class V>
[[gnu::always_inline]] inline V exp2(const V& x) {
  return host::by_register(host::exp2_function(), x);
}
/// x^y.
template <class V>
[[gnu::always_inline]] inline V pow(const V& x, const V& y) {
  return host::by_register(host::pow_function(), x, y);
}
/// x^n for a uniform integer n.
template <class V>
[[gnu::always_inline]] inline V pown(const V& x, int n) {
  using T = spmd::element<V>;
  if constexpr (std::same_as<T, double>) {
    return pow(x, V(static_cast<double>(n)));
  } else {
    using D = std::conditional_t<spmd::is_lanes<V>, decltype(spmd::convert<double>(x)), double>;
    return spmd::convert<T>(pow(spmd::convert<double>(x), D(static_cast<double>(n))));
  }
}
/// 1 / sqrt(x).
template <class V>
[[gnu::always_inline]] inline V rsqrt(const V& x) {
  return host::by_register(host::rsqrt_function(), x);
}
template <class V>
[[gnu::always_inline]] inline V sqrt(const V& x) {
  return host::by_register(host::sqrt_function(), x);
}
/// The larger one; the other where one is NaN.
template <class V>
[[gnu::always_inline]] inline V fmax(const V& x, const V& y) {
  return host::by_register(host::fmax_function(), x, y);
}

namespace native {
template <class V>
[[gnu::always_inline]] inline V exp(const V& x) {
  return host::by_register(host::exp_function(), x);
}
template <class V>
[[gnu::always_inline]] inline V sin(const V& x) {
  return host::by_register(host::sin_function(), x);
}
template <class V>
[[gnu::always_inline]] inline V cos(const V& x) {
  return host::by_register(host::cos_function(), x);
}
template <class V>
[[gnu::always_inline]] inline V rsqrt(const V& x) {
  return host::by_register(host::rsqrt_function(), x);
}
}  // namespace native

}  // namespace sycl
