#pragma once
// Tensors without values: the factories on which all others are built.

#include <ATen/core/Tensor.h>

namespace kelvor_xpu {

/// torch.empty. Pinned memory and layouts other than strided are refused.
at::Tensor empty(at::IntArrayRef size, std::optional<c10::ScalarType> dtype,
                 std::optional<c10::Layout> layout, std::optional<c10::Device> device,
                 std::optional<bool> pin_memory, std::optional<c10::MemoryFormat> memory_format);

/// torch.empty_strided.
at::Tensor empty_strided(at::IntArrayRef size, at::IntArrayRef stride, std::optional<c10::ScalarType> dtype,
                         std::optional<c10::Layout> layout, std::optional<c10::Device> device,
                         std::optional<bool> pin_memory);

/// A tensor of zeros without memory, as some gradients are.
at::Tensor efficient_zeros(at::IntArrayRef size, std::optional<c10::ScalarType> dtype,
                           std::optional<c10::Layout> layout, std::optional<c10::Device> device,
                           std::optional<bool> pin_memory);

}  // namespace kelvor_xpu
