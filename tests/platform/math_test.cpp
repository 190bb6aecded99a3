// Accuracy of the mathematical functions on the ranges that kernels use, against double or long double. The
// largest errors are printed: docs/spmd.md quotes them.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <random>
#include <vector>

#include "sycl/sycl.hpp"

namespace {

using spmd::bfloat16;
using spmd::half;

/// Error of `actual` in units of the last place of a float, or double, next to `exact`.
template <class T>
double ulps(T actual, long double exact) {
  if (std::isnan(exact) || std::isinf(exact))
    return std::isnan(exact) == std::isnan(actual) && (std::isnan(exact) || actual == exact) ? 0 : 1e9;
  int exponent = 0;
  std::frexp(exact, &exponent);
  const int digits = std::numeric_limits<T>::digits;
  const long double unit =
      std::ldexp(1.0L, std::max(exponent - digits, std::numeric_limits<T>::min_exponent - digits));
  return static_cast<double>(std::abs((static_cast<long double>(actual) - exact) / unit));
}

/// Largest error over a million random arguments, in lanes; scalars must give the same.
template <class T, class Draw, class Function, class Exact>
double largest_error(const Draw& draw, const Function& function, const Exact& exact) {
  std::mt19937 random(6);
  double worst = 0;
  for (int round = 0; round < 1'000'000 / 8; ++round) {
    T arguments[8], values[8];
    for (auto& x : arguments) x = draw(random);
    spmd::store(values, function(spmd::load<8>(arguments)));
    for (int l = 0; l < 8; ++l)
      worst = std::max(worst, ulps(values[l], exact(static_cast<long double>(arguments[l]))));
    const int l = round % 8;
    EXPECT_TRUE(function(arguments[l]) == values[l] || std::isnan(values[l]));
  }
  return worst;
}

auto uniform(double low, double high) {
  return [=](std::mt19937& random) { return std::uniform_real_distribution<double>(low, high)(random); };
}

template <class T>
void check_all(const char* type, double limit) {
  const auto check = [&](const char* name, const auto& draw, const auto& function, const auto& exact) {
    const double error = largest_error<T>(draw, function, exact);
    std::printf("%s %-28s %.2f ulp\n", type, name, error);
    EXPECT_LE(error, limit) << name;
  };
  const auto sine = [](const auto& x) { return sycl::native::sin(x); };
  const auto cosine = [](const auto& x) { return sycl::native::cos(x); };
  const auto exponential = [](const auto& x) { return sycl::native::exp(x); };
  const auto power_of_two = [](const auto& x) { return sycl::exp2(x); };
  const auto inverse_root = [](const auto& x) { return sycl::native::rsqrt(x); };
  const auto power = [](const auto& x) { return sycl::pow(std::remove_cvref_t<decltype(x)>(T(10000)), x); };
  const auto seventh = [](const auto& x) { return sycl::pown(x, 7); };
  const auto many_decades = [](std::mt19937& r) { return std::pow(10.0, uniform(-12, 12)(r)); };
  check("native::exp on [-87, 88]", uniform(-87, 88), exponential, expl);
  check("exp2 on [-126, 127]", uniform(-126, 127), power_of_two, exp2l);
  check("native::sin to 2^17", uniform(-131072, 131072), sine, sinl);
  check("native::cos to 2^17", uniform(-131072, 131072), cosine, cosl);
  check("native::sin to 10", uniform(-10, 10), sine, sinl);
  check("native::cos to 10", uniform(-10, 10), cosine, cosl);
  check("rsqrt on [1e-12, 1e12]", many_decades, inverse_root, [](long double x) { return 1 / std::sqrt(x); });
  check("pow(10000, x) on [-1, 1]", uniform(-1, 1), power, [](long double x) { return powl(10000, x); });
  check("pown(x, 7)", uniform(-30, 30), seventh, [](long double x) { return powl(x, 7); });
}

TEST(Math, FloatWithinFourUlps) {
  check_all<float>("float", 4);
}
TEST(Math, DoubleWithinFourUlps) {
  check_all<double>("double", 4);
}

TEST(Math, HalfAndBfloat16RoundOnce) {
  for (int bits = 0; bits < 65536; ++bits) {
    const half x = half::from_bits(static_cast<std::uint16_t>(bits));
    if (!std::isfinite(float(x)) || std::abs(float(x)) > 10) continue;
    const half expected(static_cast<float>(std::exp(static_cast<double>(float(x)))));
    // The float's own error can only tip a case that lies at a midpoint already.
    ASSERT_NEAR(float(sycl::native::exp(x)), float(expected), std::abs(float(expected)) * 0x1p-10f)
        << float(x);
    ASSERT_EQ(float(sycl::fmax(x, half(1.0f))), std::fmax(float(x), 1.0f));
  }
}

TEST(Math, FmaxPrefersNumbersToNaN) {
  const float nan = std::nanf("");
  EXPECT_EQ(sycl::fmax(nan, 2.0f), 2.0f);
  EXPECT_EQ(sycl::fmax(2.0f, nan), 2.0f);
  EXPECT_TRUE(std::isnan(sycl::fmax(nan, nan)));
  EXPECT_EQ(sycl::fmax(-1.0, 3.0), 3.0);
}

}  // namespace
