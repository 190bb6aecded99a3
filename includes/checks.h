#pragma once
// Refusals that several operators share. Each raises c10::Error with a message that names the operator, what
// was wrong and what would be right; all run before anything is submitted.

#include <ATen/core/Tensor.h>

#include <cstdint>

namespace tolvane {

/// `tensor` is defined, on an XPU device, and contiguous.
void check_xpu(const char* op, const char* name, const at::Tensor& tensor);

/// What kernels may read in the place of `tensor`: the tensor itself, or a copy where it is a view with a
/// lazy sign. Raises where it has elements and no memory, as fake tensors and wrappers of other tensors.
at::Tensor readable(const char* op, const char* name, at::Tensor tensor);

/// `tensor` has memory that kernels may write: it is no view with a lazy sign, either.
void check_writable(const char* op, const char* name, const at::Tensor& tensor);

/// Marks the tensor as changed, so that a backward() that needs its former values says so.
void mark_written(const at::Tensor& tensor);

/// The element type of `tensor` is one of the four that kernels exist for; else the dispatch error under
/// `label`.
void check_floating(const char* label, const at::Tensor& tensor);

/// "%d must be a multiple of %d".
void check_multiple(std::int64_t size, std::int64_t divisor);

/// A weight row of `state_size` elements is a whole number of blocks, and at least one.
void check_row_length(const char* op, std::int64_t state_size, std::int64_t block);

/// Both sizes are positive and their product fits the 32-bit signed arithmetic of packed weights.
void check_index_range(const char* op, std::int64_t state_size, std::int64_t output_size);

/// `tensor` holds exactly `count` elements.
void check_activation(const char* op, const char* name, const at::Tensor& tensor, std::int64_t count);

/// `weight` is a flat tensor of bytes that holds output_size rows of state_size elements in the format
/// `qtype`.
void check_packed_weight(const char* op, const char* name, const at::Tensor& weight, int qtype,
                         std::int64_t state_size, std::int64_t output_size);

}  // namespace tolvane
