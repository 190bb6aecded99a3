#include "alias.hpp"

#include <c10/core/CPUAllocator.h>
#include <c10/core/DispatchKeySet.h>

#include "allocator.hpp"

namespace kelvor_xpu {
namespace {

c10::Storage make_storage(std::size_t bytes, c10::DataPtr data, c10::Allocator* allocator) {
  return c10::make_intrusive<c10::StorageImpl>(c10::StorageImpl::use_byte_size_t(),
                                               c10::SymInt(static_cast<int64_t>(bytes)), std::move(data),
                                               allocator,
                                               /*resizable=*/true);
}

/// A CPU storage over the memory of an xpu storage, which it keeps alive. When an operator resizes it, it
/// gets memory of the CPU's own.
c10::Storage make_alias(const c10::Storage& xpu) {
  c10::DataPtr data(
      xpu.data_ptr().get(), c10::Storage(xpu).unsafeReleaseStorageImpl(),
      [](void* context) {
        c10::intrusive_ptr<c10::StorageImpl>::reclaim(static_cast<c10::StorageImpl*>(context));
      },
      c10::Device(c10::DeviceType::CPU));
  return make_storage(xpu.nbytes(), std::move(data), c10::GetCPUAllocator());
}

/// Copies sizes, strides, storage offset, conj and neg bits.
void copy_layout(const at::Tensor& from, c10::TensorImpl* to) {
  to->set_storage_offset(from.storage_offset());
  to->set_sizes_and_strides(from.sizes(), from.strides());
  to->_set_conj(from.is_conj());
  to->_set_neg(from.is_neg());
}

bool same_layout(const at::Tensor& a, const at::Tensor& b) {
  return a.storage_offset() == b.storage_offset() && a.sizes() == b.sizes() && a.strides() == b.strides();
}

}  // namespace

c10::Storage Aliases::alias(const c10::Storage& storage) {
  for (const StoragePair& pair : storages_) {
    if (pair.xpu.is_alias_of(storage)) return pair.cpu;
  }
  storages_.push_back({storage, make_alias(storage)});
  return storages_.back().cpu;
}

at::Tensor Aliases::alias(const at::Tensor& tensor) {
  for (const TensorPair& pair : tensors_) {
    if (pair.xpu.is_same(tensor)) return pair.cpu;
  }
  at::Tensor cpu = at::detail::make_tensor<c10::TensorImpl>(
      alias(tensor.storage()), c10::DispatchKeySet(c10::DispatchKey::CPU), tensor.dtype());
  copy_layout(tensor, cpu.unsafeGetTensorImpl());
  if (tensor.unsafeGetTensorImpl()->is_wrapped_number()) cpu.unsafeGetTensorImpl()->set_wrapped_number(true);
  tensors_.push_back({tensor, cpu});
  return cpu;
}

c10::Storage Aliases::storage_to_xpu(const c10::Storage& cpu) {
  for (StoragePair& pair : storages_) {
    if (pair.cpu.is_alias_of(cpu)) {
      carry_back(pair);
      return pair.xpu;
    }
  }
  const c10::Storage xpu = make_storage(cpu.nbytes(), adopt(cpu), device_allocator());
  storages_.push_back({xpu, cpu});
  return xpu;
}

at::Tensor Aliases::new_tensor(c10::Storage storage, caffe2::TypeMeta type) const {
  for (const TensorPair& pair : tensors_) {
    if (!pair.xpu.storage().is_alias_of(storage)) continue;
    // A view shares its base's version counter and its keys, autograd's among them.
    const c10::DispatchKeySet keys =
        pair.xpu.key_set() - c10::DispatchKeySet({c10::DispatchKey::Conjugate, c10::DispatchKey::Negative});
    return at::detail::make_tensor<c10::TensorImpl>(c10::TensorImpl::VIEW, std::move(storage), keys, type);
  }
  return at::detail::make_tensor<c10::TensorImpl>(std::move(storage),
                                                  c10::DispatchKeySet(c10::DispatchKey::XPU), type);
}

at::Tensor Aliases::to_xpu(const at::Tensor& result) {
  if (!result.defined() || !result.is_cpu()) return result;
  for (const TensorPair& pair : tensors_) {
    if (pair.cpu.is_same(result)) return pair.xpu;
  }
  TORCH_CHECK_NOT_IMPLEMENTED(
      result.layout() == at::kStrided && result.has_storage() && !result.is_quantized(),
      "The xpu device has dense tensors only, but the result would be ", result.toString(),
      "; move the input to the CPU first, with .cpu()");
  c10::Storage storage = storage_to_xpu(result.storage());
  const at::Tensor xpu = new_tensor(std::move(storage), result.dtype());
  copy_layout(result, xpu.unsafeGetTensorImpl());
  return xpu;
}

void Aliases::carry_back(StoragePair& pair) {
  c10::StorageImpl* xpu = pair.xpu.unsafeGetStorageImpl();
  const c10::StorageImpl* cpu = pair.cpu.unsafeGetStorageImpl();
  if (xpu->data() != cpu->data()) xpu->set_data_ptr_noswap(adopt(pair.cpu));
  xpu->set_nbytes(cpu->nbytes());
}

void Aliases::carry_back() {
  // By index: storage_to_xpu may add pairs.
  for (std::size_t i = 0; i < storages_.size(); ++i) carry_back(storages_[i]);
  for (const TensorPair& pair : tensors_) {
    const c10::Storage storage = storage_to_xpu(pair.cpu.storage());
    c10::TensorImpl* xpu = pair.xpu.unsafeGetTensorImpl();
    if (!pair.xpu.storage().is_alias_of(storage)) xpu->set_storage_keep_dtype(storage);
    if (!same_layout(pair.xpu, pair.cpu)) copy_layout(pair.cpu, xpu);
  }
}

}  // namespace kelvor_xpu
