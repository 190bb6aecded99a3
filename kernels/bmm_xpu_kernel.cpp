// Product of two batches of dense float matrices, one work-item per element of the result.

#include "bmm_xpu_kernel.h"

#include <c10/core/DeviceType.h>
#include <c10/util/Exception.h>

#include <limits>
#include <utility>

#include "checks.h"
#include "device_frame.h"
#include "spmd/spmd.hpp"

namespace tolvane {
namespace {

struct MatrixMultiplication {
  std::int64_t N;
  const float* A;
  std::int64_t A_stride;
  const float* B;
  std::int64_t B_stride;
  std::int64_t P;
  float* C;
  std::int64_t C_stride;

  template <class Item>
  void operator()(const Item& item) const {
    constexpr int n = Item::lanes;
    const auto inner = static_cast<int>(N);
    const std::int64_t rows_before = item.first() / P, j = item.first() % P;
    const auto M = static_cast<std::int64_t>(item.get_range(1));
    spmd::varying<float, Item> sum = 0.0f;
    if (item.live() == n && j + n <= P) {
      // The gang lies within one row of C: an element of A is the same for all, those of B are neighbours.
      const float* a = A + rows_before * N;
      const float* b = B + rows_before / M * B_stride + j;
      for (int k = 0; k < inner; ++k, b += P) {
        sum = spmd::mad(spmd::varying<float, Item>(spmd::load<1>(a + k)), spmd::load<n>(b), sum);
      }
    } else {
      const auto batch = item.get_id(0);
      auto a = batch * A_stride + item.get_id(1) * N;
      auto b = batch * B_stride + item.get_id(2);
      for (int k = 0; k < inner; ++k, a = a + 1, b = b + P) {
        sum = spmd::mad(spmd::gather(A, a), spmd::gather(B, b), sum);
      }
    }
    // The result's elements are neighbours in any case; surplus work-items store nothing.
    if (item.live() == n) {
      spmd::store(C + item.first(), sum);
    } else {
      if constexpr (n > 1) spmd::store(C + item.first(), sum, spmd::first_lanes{item.live()});
    }
  }
};

}  // namespace

at::Tensor bmm_xpu(at::Tensor A, at::Tensor B, at::Tensor C) {
  TORCH_CHECK(A.dim() == 3 && B.dim() == 3, "Input tensors must have 3 dimensions, but A has ", A.dim(),
              " and B has ", B.dim());
  TORCH_CHECK(A.size(0) == B.size(0) && A.size(2) == B.size(1),
              "Input tensors dimensions do not match for batch multiplication: A is ", A.sizes(),
              " (batch, M, N), and B must be (batch, N, P), but is ", B.sizes());
  const std::int64_t batch = A.size(0), M = A.size(1), N = A.size(2), P = B.size(2);
  TORCH_CHECK(N <= std::numeric_limits<std::int32_t>::max(), "bmm: N must be below 2147483648, but is ", N);
  TORCH_CHECK(C.numel() >= batch * M * P, "bmm: C must have at least ", batch, " * ", M, " * ", P,
              " elements, but has ", C.numel());
  A = readable("bmm", "A", std::move(A));
  B = readable("bmm", "B", std::move(B));
  check_writable("bmm", "C", C);
  const MatrixMultiplication kernel{N, A.data_ptr<float>(), M * N, B.data_ptr<float>(), N * P,
                                    P, C.data_ptr<float>(), M * P};
  mark_written(C);
  current_queue(c10::Device(c10::DeviceType::XPU, -1)).submit([&](sycl::handler& command) {
    command.parallel_for(sycl::range<3>(batch, M, P), kernel);
  });
  return C;
}

}  // namespace tolvane
