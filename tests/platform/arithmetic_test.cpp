// Arithmetic in half and bfloat16, scalar and in lanes, against rounding worked out on doubles.

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "reference.hpp"
#include "sycl/sycl.hpp"

namespace {

using spmd::bfloat16;
using spmd::half;
using spmd::lanes;

template <class T>
double reference_value(std::uint16_t bits) {
  return std::same_as<T, half> ? reference::half_value(bits) : reference::bfloat16_value(bits);
}
template <class T>
double reference_rounding(double x) {
  return std::same_as<T, half> ? reference::nearest_half(x) : reference::nearest_bfloat16(x);
}

constexpr bool rounds_in_floats = spmd::target::rounds_in_floats;

template <class T>
class Reduced : public testing::Test {};
using ReducedTypes = testing::Types<half, bfloat16>;
TYPED_TEST_SUITE(Reduced, ReducedTypes);

TYPED_TEST(Reduced, EveryValueWidensExactlyAndComesBack) {
  using T = TypeParam;
  std::vector<T> all(65536);
  for (int bits = 0; bits < 65536; ++bits) all[bits] = T::from_bits(static_cast<std::uint16_t>(bits));
  for (int bits = 0; bits < 65536; bits += 32) {
    const lanes<float, 32> wide = spmd::convert<float>(spmd::load<32>(&all[bits]));
    float values[32];
    spmd::store(values, wide);
    T back[32];
    spmd::store(back, spmd::convert<T>(wide));
    for (int l = 0; l < 32; ++l) {
      const double expected = reference_value<T>(static_cast<std::uint16_t>(bits + l));
      ASSERT_TRUE(reference::same(values[l], expected)) << bits + l;
      ASSERT_TRUE(reference::same(static_cast<float>(all[bits + l]), expected)) << bits + l;
      if (std::isnan(expected)) continue;
      ASSERT_EQ(back[l].bits(), bits + l);
      ASSERT_EQ(T(values[l]).bits(), bits + l);
    }
  }
}

/// Every value, the midpoints to both neighbours, and the floats just beside those: all rounding decisions
/// there are.
TYPED_TEST(Reduced, RoundsFloatsAtEveryMidpoint) {
  using T = TypeParam;
  const int shift = std::same_as<T, half> ? 13 : 16;
  for (int bits = 0; bits < 65536; ++bits) {
    const double value = reference_value<T>(static_cast<std::uint16_t>(bits));
    if (!std::isfinite(value)) continue;
    std::uint32_t word = 0;
    const auto exact = static_cast<float>(value);
    std::memcpy(&word, &exact, 4);
    lanes<std::uint32_t, 8> around;
    alignas(32) std::uint32_t near[8];
    const std::uint32_t mid = 1u << (shift - 1);
    const std::uint32_t offsets[8] = {0, 1, mid - 1, mid, mid + 1, mid + mid / 2, (1u << shift) - 1, 3};
    for (int l = 0; l < 8; ++l) near[l] = word + offsets[l];
    around = spmd::load<8>(near);
    const auto floats = spmd::bit_cast<float>(around);
    T result[8], digits[8], moderate[8];
    spmd::store(result, spmd::convert<T>(floats));
    if constexpr (rounds_in_floats) {
      spmd::store(digits, spmd::rounded_digits<T>(floats));
      spmd::store(moderate, spmd::rounded_moderate<T>(floats));
    }
    for (int l = 0; l < 8; ++l) {
      float x = 0;
      std::memcpy(&x, &near[l], 4);
      if (std::isnan(x)) continue;
      const double expected = reference_rounding<T>(x);
      ASSERT_TRUE(reference::same(static_cast<float>(result[l]), expected)) << x << " for " << bits;
      ASSERT_EQ(T(x).bits(), result[l].bits());
      if (!rounds_in_floats || std::abs(x) >= spmd::moderate<T>) continue;
      ASSERT_EQ(static_cast<float>(moderate[l]), expected) << x;
      const bool normal = std::abs(x) >= (std::same_as<T, half> ? 0x1p-14 : 0x1p-126);
      if (normal || expected == x) {
        ASSERT_EQ(static_cast<float>(digits[l]), expected) << x;
      }
    }
  }
}

/// bfloat16 rounding is integer arithmetic with no case for NaN: a NaN's payload is rounded like a fraction.
TEST(Bfloat16, RoundsTheBitsOfNaNsAndInfinities) {
  for (const std::uint32_t word :
       {0x7F800000u, 0xFF800000u, 0x7FC00000u, 0x7F800001u, 0x7FFFFFFFu, 0xFFFF8000u}) {
    const std::uint32_t expected = (word + 0x7FFFu + ((word >> 16) & 1u)) >> 16;
    float x = 0;
    std::memcpy(&x, &word, 4);
    EXPECT_EQ(bfloat16(x).bits(), expected);
    bfloat16 result[8];
    spmd::store(result, spmd::convert<bfloat16>(lanes<float, 8>(x)));
    EXPECT_EQ(result[5].bits(), expected);
  }
}

/// Ten million random triples of bit patterns per type, every operation in lanes and as scalars. The exact
/// result of
/// + - * of two 16-bit floats fits a double; a quotient rounded to double rounds on correctly, as 53 >= 2 *
/// 11 + 2.
TYPED_TEST(Reduced, OperationsRoundOnce) {
  using T = TypeParam;
  std::mt19937 random(std::same_as<T, half> ? 1 : 2);
  constexpr int n = 32;
  constexpr int rounds = 10'000'000 / n;
  for (int round = 0; round < rounds; ++round) {
    T a[n], b[n], c[n];
    for (int l = 0; l < n; ++l) {
      const std::uint32_t word = random();
      a[l] = T::from_bits(static_cast<std::uint16_t>(word));
      b[l] = T::from_bits(static_cast<std::uint16_t>(word >> 16));
      // Every other time an addend of about the product's size, where rounding is decided.
      const auto near = static_cast<float>(a[l]) * static_cast<float>(b[l]) * -1.25f;
      c[l] = l % 2 ? T(near) : T::from_bits(static_cast<std::uint16_t>(random()));
    }
    const auto x = spmd::load<n>(a), y = spmd::load<n>(b), z = spmd::load<n>(c);
    T sum[n], difference[n], product[n], quotient[n], fused[n];
    spmd::store(sum, x + y);
    spmd::store(difference, x - y);
    spmd::store(product, x * y);
    spmd::store(quotient, x / y);
    spmd::store(fused, spmd::mad(x, y, z));
    for (int l = 0; l < n; ++l) {
      const double u = static_cast<float>(a[l]), v = static_cast<float>(b[l]), w = static_cast<float>(c[l]);
      const auto check = [&](T lane, T scalar, double exact) {
        if (std::isnan(exact)) {
          // bfloat16's rounding may turn a NaN's bits into others; which NaN arises is the hardware's
          // business.
          return std::same_as<T, bfloat16> || (std::isnan(float(lane)) && std::isnan(float(scalar)));
        }
        const double expected = reference_rounding<T>(exact);
        return reference::same(float(lane), expected) && reference::same(float(scalar), expected);
      };
      ASSERT_TRUE(check(sum[l], a[l] + b[l], u + v)) << u << " + " << v;
      ASSERT_TRUE(check(difference[l], a[l] - b[l], u - v)) << u << " - " << v;
      ASSERT_TRUE(check(product[l], a[l] * b[l], u * v)) << u << " * " << v;
      ASSERT_TRUE(check(quotient[l], a[l] / b[l], u / v)) << u << " / " << v;
      // The fused form rounds to float and then to T, by definition.
      const double once = static_cast<double>(std::fma(float(a[l]), float(b[l]), float(c[l])));
      ASSERT_TRUE(check(fused[l], spmd::mad(a[l], b[l], c[l]), once)) << u << " * " << v << " + " << w;
    }
  }
}

}  // namespace
