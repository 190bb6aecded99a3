#include "alias.hpp"

#include <c10/core/CPUAllocator.h>
#include <c10/core/DispatchKeySet.h>

#include <utility>
#include <vector>

#include "allocator.hpp"

namespace kelvor_xpu {
namespace {

constexpr c10::DispatchKeySet cpu_keys(c10::DispatchKey::CPU);

c10::Storage make_storage(std::size_t bytes, c10::DataPtr data, c10::Allocator* allocator) {
  return c10::make_intrusive<c10::StorageImpl>(c10::StorageImpl::use_byte_size_t(),
                                               c10::SymInt(static_cast<int64_t>(bytes)), std::move(data),
                                               allocator,
                                               /*resizable=*/true);
}

/// The memory of `storage`, which it keeps alive, as the CPU's.
c10::DataPtr shared_memory(const c10::Storage& storage) {
  const auto release = [](void* context) {
    c10::intrusive_ptr<c10::StorageImpl>::reclaim(static_cast<c10::StorageImpl*>(context));
  };
  return {storage.data_ptr().get(), c10::Storage(storage).unsafeReleaseStorageImpl(), release,
          c10::Device(c10::DeviceType::CPU)};
}

/// CPU tensors, each with a storage of its own and no memory, from earlier calls for the next: making them
/// anew costs as much as many an operator.
thread_local std::vector<at::Tensor> spares;
constexpr std::size_t most_spares = 8;

/// The memory of `storage` as the CPU's, for as long as the call lasts.
c10::DataPtr borrowed_memory(const c10::Storage& storage) {
  return {storage.data_ptr().get(), c10::Device(c10::DeviceType::CPU)};
}
bool is_borrowed(const c10::DataPtr& memory) {
  return memory.get() != nullptr && memory.get_context() == nullptr;
}

/// A CPU tensor of `type` over the memory of `xpu`. When an operator resizes it, its storage gets memory of
/// the CPU's own.
at::Tensor make_alias(const c10::Storage& xpu, caffe2::TypeMeta type) {
  if (spares.empty()) {
    return at::detail::make_tensor<c10::TensorImpl>(
        make_storage(xpu.nbytes(), borrowed_memory(xpu), c10::GetCPUAllocator()), cpu_keys, type);
  }
  at::Tensor alias = std::move(spares.back());
  spares.pop_back();
  c10::StorageImpl* storage = alias.storage().unsafeGetStorageImpl();
  storage->set_data_ptr_noswap(borrowed_memory(xpu));
  storage->set_nbytes(xpu.nbytes());
  if (alias.dtype() != type) alias.unsafeGetTensorImpl()->set_storage_and_dtype(alias.storage(), type);
  return alias;
}

/// Makes a CPU tensor that nobody else knows, nor its storage, an xpu tensor.
void hand_over(const at::Tensor& tensor) {
  c10::StorageImpl* storage = tensor.storage().unsafeGetStorageImpl();
  const std::size_t bytes = uncounted_bytes(tensor.storage());
  storage->set_data_ptr_noswap(adopt(std::move(storage->_mutable_data_ptr_no_checks()), bytes));
  storage->set_allocator(device_allocator());
  c10::TensorImpl* impl = tensor.unsafeGetTensorImpl();
  impl->_change_backend_component_keys(storage->device());
  impl->set_storage_keep_dtype(tensor.storage());  // takes the device from the storage
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

Aliases::~Aliases() {
  for (TensorPair& pair : tensors_) {
    // One reference here, and one more to the storage from the tensor: the operator kept neither.
    c10::Storage storage = pair.cpu.storage();
    if (pair.cpu.use_count() != 1 || storage.use_count() != 3 || !is_borrowed(storage.data_ptr())) continue;
    const c10::TensorImpl* impl = pair.cpu.unsafeGetTensorImpl();
    if (impl->is_wrapped_number() || impl->autograd_meta() != nullptr || spares.size() == most_spares)
      continue;
    storage.set_data_ptr_noswap({});
    spares.push_back(std::move(pair.cpu));
  }
  for (const StoragePair& pair : storages_) {
    if (pair.cpu.use_count() > 1 && is_borrowed(pair.cpu.data_ptr())) {
      c10::Storage(pair.cpu).set_data_ptr_noswap(shared_memory(pair.xpu));
    }
  }
}

std::optional<c10::Storage> Aliases::known(const c10::Storage& storage) const {
  for (const StoragePair& pair : storages_) {
    if (pair.xpu.is_alias_of(storage)) return pair.cpu;
  }
  return std::nullopt;
}

c10::Storage Aliases::alias(const c10::Storage& storage) {
  if (const auto cpu = known(storage)) return *cpu;
  storages_.push_back(
      {storage, make_storage(storage.nbytes(), shared_memory(storage), c10::GetCPUAllocator())});
  return storages_.back().cpu;
}

at::Tensor Aliases::alias(const at::Tensor& tensor) {
  for (const TensorPair& pair : tensors_) {
    if (pair.xpu.is_same(tensor)) return pair.cpu;
  }
  at::Tensor cpu;
  if (auto storage = known(tensor.storage())) {
    cpu = at::detail::make_tensor<c10::TensorImpl>(std::move(*storage), cpu_keys, tensor.dtype());
  } else {
    cpu = make_alias(tensor.storage(), tensor.dtype());
    storages_.push_back({tensor.storage(), cpu.storage()});
  }
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
  c10::Storage xpu =
      make_storage(cpu.nbytes(), adopt(shared_memory(cpu), uncounted_bytes(cpu)), device_allocator());
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
  if (result.use_count() == 1 && result.storage().use_count() == 1) {
    hand_over(result);
    return result;
  }
  c10::Storage storage = storage_to_xpu(result.storage());
  at::Tensor xpu = new_tensor(std::move(storage), result.dtype());
  copy_layout(result, xpu.unsafeGetTensorImpl());
  return xpu;
}

void Aliases::carry_back(StoragePair& pair) {
  c10::StorageImpl* xpu = pair.xpu.unsafeGetStorageImpl();
  const c10::StorageImpl* cpu = pair.cpu.unsafeGetStorageImpl();
  if (xpu->data() != cpu->data())
    xpu->set_data_ptr_noswap(adopt(shared_memory(pair.cpu), uncounted_bytes(pair.cpu)));
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
