#pragma once
// Mathematical functions of varying and of scalar values, under SYCL's names. Those on floats are glibc's
// vector functions (libmvec); a scalar takes the same way as a lane, so that both readings of a kernel agree.
// Half and bfloat16 are computed in float and rounded once. Measured errors: docs/spmd.md.

#include <immintrin.h>

#include <cmath>

#include "sycl/lanes.hpp"

extern "C" {
__m256 _ZGVdN8v_expf(__m256);
__m256 _ZGVdN8v_exp2f(__m256);
__m256 _ZGVdN8v_sinf(__m256);
__m256 _ZGVdN8v_cosf(__m256);
__m256d _ZGVdN4v_exp(__m256d);
__m256d _ZGVdN4v_exp2(__m256d);
__m256d _ZGVdN4v_sin(__m256d);
__m256d _ZGVdN4v_cos(__m256d);
__m256d _ZGVdN4vv_pow(__m256d, __m256d);
}

namespace sycl {

namespace host {

/// Applies a pair of register functions, for float and for double, to any varying or scalar value.
template <class F, class V, class... More>
[[gnu::always_inline]] inline V by_register(const F& f, const V& x, const More&... more) {
  using T = spmd::element<V>;
  if constexpr (spmd::reduced<T>) {
    return spmd::convert<T>(by_register(f, spmd::convert<float>(x), spmd::convert<float>(more)...));
  } else if constexpr (spmd::is_lanes<V>) {
    return spmd::per_register(f, x, more...);
  } else {
    return f(spmd::broadcast(x), spmd::broadcast(more)...)[0];
  }
}

struct exp_function {
  spmd::native<float> operator()(spmd::native<float> x) const { return _ZGVdN8v_expf(x); }
  spmd::native<double> operator()(spmd::native<double> x) const { return _ZGVdN4v_exp(x); }
};
struct exp2_function {
  spmd::native<float> operator()(spmd::native<float> x) const { return _ZGVdN8v_exp2f(x); }
  spmd::native<double> operator()(spmd::native<double> x) const { return _ZGVdN4v_exp2(x); }
};
struct sin_function {
  spmd::native<float> operator()(spmd::native<float> x) const { return _ZGVdN8v_sinf(x); }
  spmd::native<double> operator()(spmd::native<double> x) const { return _ZGVdN4v_sin(x); }
};
struct cos_function {
  spmd::native<float> operator()(spmd::native<float> x) const { return _ZGVdN8v_cosf(x); }
  spmd::native<double> operator()(spmd::native<double> x) const { return _ZGVdN4v_cos(x); }
};
/// A float's power is made in double: the vector function for floats loses accuracy where the result is far
/// from 1.
struct pow_function {
  spmd::native<double> operator()(spmd::native<double> x, spmd::native<double> y) const {
    return _ZGVdN4vv_pow(x, y);
  }
  spmd::native<float> operator()(spmd::native<float> x, spmd::native<float> y) const {
    const auto wide = [](spmd::native<float> v) { return spmd::convert<double>(spmd::lanes<float, 8>(v)); };
    return spmd::convert<float>(spmd::per_register(*this, wide(x), wide(y))).v;
  }
};
struct rsqrt_function {
  spmd::native<float> operator()(spmd::native<float> x) const {
    return _mm256_div_ps(_mm256_set1_ps(1), _mm256_sqrt_ps(x));
  }
  spmd::native<double> operator()(spmd::native<double> x) const {
    return _mm256_div_pd(_mm256_set1_pd(1), _mm256_sqrt_pd(x));
  }
};
struct sqrt_function {
  spmd::native<float> operator()(spmd::native<float> x) const { return _mm256_sqrt_ps(x); }
  spmd::native<double> operator()(spmd::native<double> x) const { return _mm256_sqrt_pd(x); }
};
/// max gives its second operand where one is NaN, which is wrong only where that is the second.
struct fmax_function {
  spmd::native<float> operator()(spmd::native<float> x, spmd::native<float> y) const {
    return y != y ? x : spmd::native<float>(_mm256_max_ps(x, y));
  }
  spmd::native<double> operator()(spmd::native<double> x, spmd::native<double> y) const {
    return y != y ? x : spmd::native<double>(_mm256_max_pd(x, y));
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
