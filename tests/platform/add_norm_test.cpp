// The norms with addends, which Python does not see, on rows worked out by hand.

#include "add_norm_fusion.h"

#include <ATen/ops/allclose.h>
#include <ATen/ops/tensor.h>
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "sycl/submissions.hpp"

namespace {

at::Tensor row(const std::vector<float>& values, at::ScalarType type = at::kFloat) {
  return at::tensor(values).to(at::kXPU, type);
}

void expect_row(const at::Tensor& actual, const std::vector<float>& expected) {
  const double tolerance = actual.scalar_type() == at::kHalf ? 1e-3 : 1e-6;
  EXPECT_TRUE(at::allclose(actual.to(at::kCPU, at::kFloat), at::tensor(expected), 0, tolerance)) << actual;
}

const std::int64_t two[] = {2};
const at::Tensor none;

TEST(AddNorm, AddsTheAddendsThatAreThere) {
  const at::Tensor x = row({1, 2}), a = row({2, 1}), b = row({0, 1});
  const float r5 = std::sqrt(5.0f), r12 = std::sqrt(12.5f);
  expect_row(add_rms_norm(a, none, x, two, {}, {}, 0), {1, 1});            // of 3, 3
  expect_row(add_rms_norm(none, b, x, two, {}, {}, 0), {1 / r5, 3 / r5});  // of 1, 3
  expect_row(add_add_rms_norm(a, b, x, two, {}, {}, 0), {3 / r12, 4 / r12});
  expect_row(add_add_rms_norm(none, b, x, two, {}, {}, 0), {1 / r5, 3 / r5});
  expect_row(add_layer_norm(a, none, x, two, {}, row({5, 6}), 1), {5, 6});
  expect_row(add_add_layer_norm(a, b, x, two, row({2, 3}), row({0, 1}), 0), {-2, 4});  // of 3, 4
  expect_row(x, {1, 2});
  expect_row(a, {2, 1});
}

TEST(AddNorm, RoundsTheSumOfTheAddendsFirst) {
  // 2048 + 1 rounds to 2048 in half; in another order the first element would be 1.
  const at::Tensor x = row({-2048, 1}, at::kHalf), a = row({2048, 0}, at::kHalf), b = row({1, 0}, at::kHalf);
  expect_row(add_add_rms_norm(a, b, x, two, {}, {}, 0), {0, std::sqrt(2.0f)});
}

TEST(AddNorm, RefusesWhatItCannotAdd) {
  const at::Tensor x = row({1, 2}), a = row({2, 1});
  const std::uint64_t before = sycl::host::submission_count();
  EXPECT_THROW(add_rms_norm(a, a, x, two, {}, {}, 0), c10::Error);
  EXPECT_THROW(add_layer_norm(a, a, x, two, {}, {}, 0), c10::Error);
  EXPECT_THROW(add_add_rms_norm(row({1, 2, 3}), a, x, two, {}, {}, 0), c10::Error);
  EXPECT_THROW(add_add_layer_norm(a, row({1, 2}, at::kHalf), x, two, {}, {}, 0), c10::Error);
  EXPECT_EQ(sycl::host::submission_count(), before);
}

}  // namespace
