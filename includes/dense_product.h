#pragma once
// The product of activations with an expanded weight, a slice of the weight's rows at a time.

#include <ATen/core/Tensor.h>

#include <cstdint>

namespace tolvane {

/// Activations, batch x depth in any floating type, and their products with rows of dense weights of the same
/// type. Half, float, and bfloat16 where the CPU has no instructions for it, are multiplied here, with sums
/// in float; the rest is PyTorch's.
class dense_product {
 public:
  explicit dense_product(const at::Tensor& input);

  /// Rows of a weight that are best expanded and multiplied at a time, so that they stay in a cache.
  static std::int64_t rows_at_once(const at::Tensor& input);

  /// Writes the products with the rows of `weight` to the columns of `output` from `start` on.
  void multiply(const at::Tensor& weight, at::Tensor& output, std::int64_t start) const;

 private:
  at::Tensor input_;
  at::Tensor laid_out_;  ///< what our own product reads; none for PyTorch's
};

}  // namespace tolvane
