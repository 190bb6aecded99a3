#pragma once
// Root-mean-square and layer normalization of rows. `input` (or `x`) is seen as M rows of N elements: N is
// the product of its last normalized_shape.size() sizes, whose values are not compared with
// normalized_shape's. Half, float, double or bfloat16; any strides. `weight` and `bias` are absent, or hold N
// elements of input's type on its device. Statistics are made in float (double for double):
//   rms    y = x / sqrt(mean(x^2) + eps) * weight + bias
//   layer  y = (x - mean(x)) / sqrt(var(x) + eps) * weight + bias,  var(x) = mean(x^2) - mean(x)^2 in one
//   pass
// A negative sum of squares or variance, which only rounding can make, counts as 0 together with eps.
//
// Returns a new contiguous tensor of input's sizes; a tensor of no elements on the CPU where N is more than a
// work-group can hold, 32 bytes per work-item, so that the caller can take another way. Raises c10::Error
// where an argument is not as above.

#include <ATen/core/Tensor.h>
#include <c10/util/ArrayRef.h>
#include <c10/util/Optional.h>

#include "device_frame.h"

TOLVANE_EXPORT at::Tensor fused_rms_norm(const at::Tensor& input, c10::ArrayRef<long> normalized_shape,
                                         const c10::optional<at::Tensor>& weight,
                                         const c10::optional<at::Tensor>& bias, double eps);

TOLVANE_EXPORT at::Tensor fused_layer_norm(const at::Tensor& input, c10::ArrayRef<long> normalized_shape,
                                           const c10::optional<at::Tensor>& weight,
                                           const c10::optional<at::Tensor>& bias, double eps);

// With addends, of x's sizes, type and device, for callers that link the module. Both sums are rounded to x's
// type before anything else is done, the addends' first: x + (a + b).

/// The norm of x + a, or of x + b where `a` is undefined. One of the two must be undefined.
TOLVANE_EXPORT at::Tensor add_rms_norm(const at::Tensor& a, const at::Tensor& b, const at::Tensor& x,
                                       c10::ArrayRef<long> normalized_shape,
                                       const c10::optional<at::Tensor>& weight,
                                       const c10::optional<at::Tensor>& bias, double eps);
TOLVANE_EXPORT at::Tensor add_layer_norm(const at::Tensor& a, const at::Tensor& b, const at::Tensor& x,
                                         c10::ArrayRef<long> normalized_shape,
                                         const c10::optional<at::Tensor>& weight,
                                         const c10::optional<at::Tensor>& bias, double eps);

/// The norm of x + (a + b). An undefined addend counts for nothing.
TOLVANE_EXPORT at::Tensor add_add_rms_norm(const at::Tensor& a, const at::Tensor& b, const at::Tensor& x,
                                           c10::ArrayRef<long> normalized_shape,
                                           const c10::optional<at::Tensor>& weight,
                                           const c10::optional<at::Tensor>& bias, double eps);
TOLVANE_EXPORT at::Tensor add_add_layer_norm(const at::Tensor& a, const at::Tensor& b, const at::Tensor& x,
                                             c10::ArrayRef<long> normalized_shape,
                                             const c10::optional<at::Tensor>& weight,
                                             const c10::optional<at::Tensor>& bias, double eps);
