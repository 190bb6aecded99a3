#include "cat.hpp"

#include <ATen/EmptyTensor.h>
#include <ATen/TensorIterator.h>
#include <ATen/native/cpu/CatKernel.h>

#include <vector>

#include "alias.hpp"
#include "allocator.hpp"
#include "fallback.hpp"
#include "pointwise.hpp"

namespace kelvor_xpu {
namespace {

/// Whether `tensor` can be joined to `first` along dimension `dim`, in which alone their sizes may differ.
bool joins(const at::Tensor& tensor, const at::Tensor& first, int64_t dim) {
  if (!on_xpu(tensor) || !tensor.is_contiguous() || tensor.numel() == 0) return false;
  if (tensor.scalar_type() != first.scalar_type() || tensor.dim() != first.dim()) return false;
  for (int64_t i = 0; i < first.dim(); ++i) {
    if (i != dim && tensor.size(i) != first.size(i)) return false;
  }
  return true;
}

at::Tensor cat(const at::ITensorListRef& list, int64_t dim) {
  const at::MaterializedITensorListRef tensors = list.materialize();
  if (!tensors.empty() && tensors.front().get().defined() && is_float(tensors.front().get().scalar_type())) {
    const at::Tensor& first = tensors.front();
    const int64_t along = dim < 0 ? dim + first.dim() : dim;
    bool plain = 0 <= along && along < first.dim();
    int64_t length = 0, elements = 0;
    for (std::size_t i = 0; plain && i < tensors.size(); ++i) {
      plain = joins(tensors[i], first, along);
      if (plain) length += tensors[i].get().size(along);
      elements += tensors[i].get().numel();
    }
    // From the grain on, the CPU's operator shares the work between threads.
    if (plain && elements < at::internal::GRAIN_SIZE) {
      c10::DimVector sizes(first.sizes());
      sizes[along] = length;
      at::Tensor result =
          at::detail::empty_generic(sizes, device_allocator(), c10::DispatchKeySet(c10::DispatchKey::XPU),
                                    first.scalar_type(), std::nullopt);
      at::native::cat_serial_stub(at::kCPU, result, tensors, along);
      return result;
    }
  }
  static const c10::OperatorHandle op = operator_named("aten::cat", "");
  return fall_back_for_result(op, std::vector<at::Tensor>(list.begin(), list.end()), dim);
}

}  // namespace

void register_cat(torch::Library& aten) {
  aten.impl("cat", TORCH_FN(cat));
}

}  // namespace kelvor_xpu
