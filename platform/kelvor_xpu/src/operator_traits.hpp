#pragma once
// What the fallback has to know about an operator, read once from its schema.

#include <ATen/core/dispatch/Dispatcher.h>

#include <array>
#include <atomic>
#include <vector>

namespace kelvor_xpu {

enum class Role {
  input,   ///< read only
  update,  ///< written in place, so that its old values may be read
  output,  ///< an out= argument: its old values do not matter
  dtype,   ///< names an element type
};

struct OperatorTraits {
  explicit OperatorTraits(const c10::FunctionSchema& schema);

  std::vector<Role> roles;            ///< one per argument
  std::vector<std::size_t> carriers;  ///< positions of arguments that may name memory or a device
  bool writes = false;                ///< there is an `update` or an `output`
  bool is_view = false;               ///< a result shares memory with an input
  bool is_product = false;            ///< a product of matrices or a convolution

  /// What calls so far have shown of half [0] and bfloat16 [1].
  mutable std::array<std::atomic<bool>, 2> fails_reduced{};
  mutable std::array<std::atomic<bool>, 2> works_reduced{};
};

/// The traits of `op`; the reference stays valid.
const OperatorTraits& traits_of(const c10::OperatorHandle& op);

}  // namespace kelvor_xpu
