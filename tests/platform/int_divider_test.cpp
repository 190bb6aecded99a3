// Division by multiplication against the CPU's own division.

#include "IntDivider.h"

#include <gtest/gtest.h>

#include <random>

namespace {

/// All dividends around multiples of d and powers of two, and random ones.
void check_divisor(std::uint32_t d, std::mt19937& random) {
  const tolvane::IntDivider divider(d);
  const auto check = [&](std::uint32_t n) { ASSERT_EQ(divider.quotient(n), n / d) << n << " / " << d; };
  for (const std::uint32_t n : {0u, 1u, d - 1, d, d + 1, 2 * d - 1, 2 * d, 0x7FFFFFFFu, 0x80000000u,
                                0xFFFFFFFEu, 0xFFFFFFFFu, 0xFFFFFFFFu / d * d, 0xFFFFFFFFu / d * d - 1}) {
    check(n);
  }
  for (int i = 0; i < 20; ++i) check(random());
}

TEST(IntDivider, IsExact) {
  std::mt19937 random(1);
  for (std::uint32_t d = 1; d <= 70000; ++d) check_divisor(d, random);
  for (int i = 0; i < 200000; ++i)
    check_divisor(std::max<std::uint32_t>(1, random() >> random() % 32), random);
  for (int bit = 1; bit < 32; ++bit) {
    for (const int off : {-1, 0, 1}) check_divisor((1u << bit) + off, random);
  }
  check_divisor(0xFFFFFFFFu, random);
}

TEST(IntDivider, KeepsTheRecordOfThreeWords) {
  const tolvane::IntDivider seven(7);
  EXPECT_EQ(sizeof seven, 12u);
  EXPECT_EQ(seven.divisor, 7u);
  EXPECT_EQ(seven.m1, 0x24924925u);  // (2^3 - 7) * 2^32 / 7 + 1
  EXPECT_EQ(seven.shift, 3u);
}

}  // namespace
