#pragma once
// From the element type of a tensor, known at run time, to a template argument.

#include <ATen/core/Tensor.h>
#include <c10/core/ScalarType.h>
#include <c10/util/Exception.h>

#include <type_traits>

#include "sycl/half.hpp"

namespace tolvane {

using sycl::half;
using sycl::ext::kelvor::bfloat16;

static_assert(sizeof(half) == sizeof(c10::Half) && sizeof(bfloat16) == sizeof(c10::BFloat16));

/// Calls body(std::type_identity<T>()) with the device's element type for `type`: half, float, double or
/// bfloat16. Any other type is refused in PyTorch's words, under `label`.
template <class Body>
void dispatch_floating(const char* label, at::ScalarType type, const Body& body) {
  switch (type) {
    case at::ScalarType::Half:
      return body(std::type_identity<half>());
    case at::ScalarType::Float:
      return body(std::type_identity<float>());
    case at::ScalarType::Double:
      return body(std::type_identity<double>());
    case at::ScalarType::BFloat16:
      return body(std::type_identity<bfloat16>());
    default:
      TORCH_CHECK(false, '"', label, "\" not implemented for '", toString(type), "'");
  }
}

/// The tensor's elements as the device's type T. A new tensor has no memory where PyTorch makes fake ones
/// only.
template <class T>
T* elements(const at::Tensor& tensor) {
  void* const data = tensor.data_ptr();
  TORCH_CHECK(data != nullptr || tensor.numel() == 0, "a kernel needs memory, which tensors of ",
              tensor.sizes(), " lack here: operators cannot run in a mode that makes fake tensors");
  return static_cast<T*>(data);
}

}  // namespace tolvane
