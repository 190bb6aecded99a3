#pragma once
// Device memory is host memory. An Aliases object shows xpu tensors to the CPU's operators as CPU tensors
// over the same memory, for the length of one call, and afterwards carries what the operator did back to the
// originals.

#include <ATen/core/Tensor.h>

#include <c10/util/SmallVector.h>

#include <optional>

namespace kelvor_xpu {

class Aliases {
 public:
  Aliases() = default;
  Aliases(const Aliases&) = delete;
  Aliases& operator=(const Aliases&) = delete;
  ~Aliases();

  /// The CPU tensor over the memory of `tensor`, an xpu tensor: same sizes, strides, offset, conj and neg
  /// bits. Asked for the same tensor again, gives the same alias; tensors that share a storage get aliases
  /// that do.
  at::Tensor alias(const at::Tensor& tensor);
  c10::Storage alias(const c10::Storage& storage);

  /// The xpu tensor for a result of a CPU operator: the original if `result` is an alias, a tensor over the
  /// original's storage if it is a view of one, and a tensor that takes over its memory otherwise.
  at::Tensor to_xpu(const at::Tensor& result);

  /// Gives the originals the memory, byte counts, sizes and storages that their aliases have now.
  void carry_back();

 private:
  struct StoragePair {
    c10::Storage xpu;
    c10::Storage cpu;
  };
  struct TensorPair {
    at::Tensor xpu;
    at::Tensor cpu;
  };

  /// The alias that `storage` has already.
  std::optional<c10::Storage> known(const c10::Storage& storage) const;
  at::Tensor new_tensor(c10::Storage storage, caffe2::TypeMeta type) const;
  c10::Storage storage_to_xpu(const c10::Storage& cpu);
  static void carry_back(StoragePair& pair);

  c10::SmallVector<StoragePair, 4> storages_;
  c10::SmallVector<TensorPair, 4> tensors_;
};

/// True for a defined tensor on the xpu device.
inline bool on_xpu(const at::Tensor& tensor) {
  return tensor.defined() && tensor.is_xpu();
}

}  // namespace kelvor_xpu
