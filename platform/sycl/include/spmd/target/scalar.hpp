#pragma once
// Gangs of one lane: every kernel is ordinary scalar code. The few registers that kernels name as such are
// handled element by element.

#include <cmath>

#include "spmd/target/without_detours.hpp"
#include "spmd/vec.hpp"
#include "sycl/half.hpp"

namespace spmd::target {

inline constexpr const char* name = "scalar";
inline constexpr int register_bytes = 32;
inline constexpr int gang_lanes = 1;

/// Whether spmd::rounded_digits takes less than T's own conversions.
inline constexpr bool rounds_in_floats = false;

/// Whether larger_magnitude is one operation.
inline constexpr bool compares_magnitudes = false;

/// Whether lookup16 is one operation for sixteen codes.
inline constexpr bool looks_up_sixteen = false;

vec<float, 8> larger_magnitude(vec<float, 8>, vec<float, 8>) = delete;

/// f(i) in place i.
template <class V, class F>
V filled(const F& f) {
  V result;
  for (unsigned i = 0; i < sizeof(V) / sizeof result[0]; ++i) result[i] = f(i);
  return result;
}

inline vec<float, 8> from_halves(vec<std::uint16_t, 8> bits) {
  return filled<vec<float, 8>>([&](int i) { return sycl::host::half_value(bits[i]); });
}
inline vec<std::uint16_t, 8> to_halves(vec<float, 8> x) {
  return filled<vec<std::uint16_t, 8>>([&](int i) { return sycl::host::half_bits(x[i]); });
}
inline vec<std::uint32_t, 8> widened(vec<std::uint16_t, 8> x) {
  return __builtin_convertvector(x, vec<std::uint32_t, 8>);
}
inline vec<std::uint32_t, 8> widened(vec<std::uint8_t, 8> x) {
  return __builtin_convertvector(x, vec<std::uint32_t, 8>);
}
inline vec<std::uint16_t, 8> narrowed(vec<std::uint32_t, 8> x) {
  return __builtin_convertvector(x, vec<std::uint16_t, 8>);
}
inline vec<std::uint16_t, 16> narrowed(vec<std::uint32_t, 8> low, vec<std::uint32_t, 8> high) {
  return filled<vec<std::uint16_t, 16>>(
      [&](int i) { return static_cast<std::uint16_t>(i < 8 ? low[i] : high[i - 8]); });
}
template <class V>
V fma(V x, V y, V z) {
  return filled<V>([&](int i) { return std::fma(x[i], y[i], z[i]); });
}
template <class V>
V sqrt(V x) {
  return filled<V>([&](int i) { return std::sqrt(x[i]); });
}
inline vec<std::uint32_t, 8> even_words(vec<std::uint32_t, 8> a, vec<std::uint32_t, 8> b) {
  return shuffled<8>(a, b, [](int i) { return 2 * i; });
}
inline vec<std::uint32_t, 8> odd_words(vec<std::uint32_t, 8> a, vec<std::uint32_t, 8> b) {
  return shuffled<8>(a, b, [](int i) { return 2 * i + 1; });
}
inline vec<float, 8> lookup8(vec<float, 8> table, vec<std::uint32_t, 8> index) {
  return filled<vec<float, 8>>([&](int i) { return table[index[i] & 7]; });
}
inline vec<float, 8> lookup16(vec<float, 8> low, vec<float, 8> high, vec<std::uint32_t, 8> index) {
  return filled<vec<float, 8>>([&](int i) { return (index[i] & 8 ? high : low)[index[i] & 7]; });
}
inline vec<std::uint8_t, 32> shuffled_bytes(vec<std::uint8_t, 32> x, vec<std::int8_t, 32> order) {
  return filled<vec<std::uint8_t, 32>>(
      [&](int i) { return order[i] < 0 ? std::uint8_t{0} : x[i / 16 * 16 + order[i] % 16]; });
}
inline vec<std::int32_t, 8> dot_bytes(vec<std::int32_t, 8> sum, vec<std::uint8_t, 32> a,
                                      vec<std::int8_t, 32> b) {
  return filled<vec<std::int32_t, 8>>([&](int i) {
    std::int32_t total = sum[i];
    for (int j = 4 * i; j < 4 * i + 4; ++j) total += a[j] * b[j];
    return total;
  });
}
inline vec<std::int32_t, 8> weighted_dot_bytes(vec<std::uint8_t, 32> a, vec<std::int8_t, 32> b,
                                               vec<std::int16_t, 16> w) {
  return filled<vec<std::int32_t, 8>>([&](int i) {
    std::int32_t total = 0;
    for (int j = 4 * i; j < 4 * i + 4; ++j) total += a[j] * b[j] * w[j / 2];
    return total;
  });
}
inline vec<std::uint64_t, 4> load_first(const std::uint64_t* p, int count) {
  vec<std::uint64_t, 4> words{};
  std::memcpy(&words, p, static_cast<unsigned>(count < 0 ? 0 : count < 4 ? count : 4) * sizeof *p);
  return words;
}
template <class V>
void store(void* p, V x) {
  std::memcpy(p, &x, sizeof x);
}
template <class V>
void stream(void* p, V x) {
  store(p, x);
}

inline void prefetch_once(const std::uint8_t*) {}

}  // namespace spmd::target
