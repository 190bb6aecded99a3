#include "lifting.hpp"

#include <ATen/Context.h>
#include <ATen/EmptyTensor.h>
#include <ATen/core/Tensor.h>
#include <ATen/core/stack.h>
#include <ATen/ops/empty_like.h>

#include <optional>
#include <string_view>
#include <sycl/cpu.hpp>
#include <utility>
#include <vector>

#include "allocator.hpp"

namespace kelvor_xpu {
namespace {

using torch::jit::Stack;

constexpr c10::DispatchKeySet cpu_keys(c10::DispatchKey::CPU);

bool is_reduced(c10::ScalarType type) {
  return type == at::kHalf || type == at::kBFloat16;
}
std::size_t index_of(c10::ScalarType reduced) {
  return reduced == at::kHalf ? 0 : 1;
}

/// Calls visit(tensor) for every defined tensor in `value`: a tensor, a list, a list with holes.
template <class Visit>
void for_each_tensor(const c10::IValue& value, const Visit& visit) {
  if (value.isTensor()) {
    if (value.toTensor().defined()) visit(value.toTensor());
  } else if (value.isTensorList()) {
    for (const at::Tensor& tensor : value.toTensorVector()) visit(tensor);
  } else if (value.isOptionalTensorList()) {
    for (const auto& tensor : value.toOptionalTensorVector()) {
      if (tensor.has_value() && tensor->defined()) visit(*tensor);
    }
  }
}

/// The one reduced type of the floating-point arguments; none if there are several types. Numbers as tensors
/// without dimensions do not count.
std::optional<c10::ScalarType> reduced_type(c10::ArrayRef<c10::IValue> arguments) {
  std::optional<c10::ScalarType> found;
  bool mixed = false;
  for (const c10::IValue& argument : arguments) {
    for_each_tensor(argument, [&](const at::Tensor& tensor) {
      const c10::ScalarType type = tensor.scalar_type();
      if (!c10::isFloatingType(type) && !c10::isComplexType(type)) return;
      if (tensor.unsafeGetTensorImpl()->is_wrapped_number()) return;
      mixed |= !is_reduced(type) || (found.has_value() && *found != type);
      found = type;
    });
  }
  return mixed ? std::nullopt : found;
}

/// An uninitialised CPU tensor of `like`'s shape, dense, in pooled memory.
at::Tensor scratch_like(const at::Tensor& like, c10::ScalarType type) {
  if (like.is_non_overlapping_and_dense()) {
    return at::detail::empty_strided_generic(like.sizes(), like.strides(), scratch_allocator(), cpu_keys,
                                             type);
  }
  return at::detail::empty_generic(like.sizes(), scratch_allocator(), cpu_keys, type, std::nullopt);
}

at::Tensor converted(const at::Tensor& tensor, c10::ScalarType type) {
  at::Tensor result = scratch_like(tensor, type);
  result.copy_(tensor);
  return result;
}

/// One call in float: widened copies of the reduced arguments, and the way back.
class LiftedCall {
 public:
  LiftedCall(const OperatorTraits& traits, c10::ScalarType reduced) : traits_(traits), reduced_(reduced) {}

  void run(const c10::OperatorHandle& op, Stack* stack) {
    const std::size_t count = traits_.roles.size();
    auto arguments = torch::jit::last(*stack, count);
    bool keep_float = false;
    for (std::size_t i = 0; i < count; ++i) {
      c10::IValue& argument = (*stack)[stack->size() - count + i];
      if (traits_.roles[i] != Role::dtype) {
        argument = lift(arguments[i], traits_.roles[i]);
      } else if (argument.isInt()) {
        keep_float |= argument.toScalarType() == at::kFloat;
        if (argument.toScalarType() == reduced_) argument = at::kFloat;
      }
    }
    op.redispatchBoxed(cpu_keys, stack);
    for (const Lifted& lifted : lifted_) write_back(lifted);
    const std::size_t results = op.schema().returns().size();
    for (std::size_t i = 0; i < results; ++i) {
      c10::IValue& result = (*stack)[stack->size() - results + i];
      result = narrow(result, keep_float);
    }
  }

 private:
  struct Lifted {
    at::Tensor original;
    at::Tensor wide;
    bool written;
  };

  at::Tensor lift(const at::Tensor& tensor, Role role) {
    if (!tensor.defined() || tensor.scalar_type() != reduced_) return tensor;
    const bool written = role == Role::update || role == Role::output;
    for (Lifted& lifted : lifted_) {
      if (lifted.original.is_same(tensor)) {
        lifted.written |= written;
        return lifted.wide;
      }
    }
    at::Tensor wide = role == Role::output ? scratch_like(tensor, at::kFloat) : converted(tensor, at::kFloat);
    lifted_.push_back({tensor, wide, written});
    return wide;
  }

  c10::IValue lift(const c10::IValue& value, Role role) {
    if (value.isTensor()) return lift(value.toTensor(), role);
    if (value.isTensorList()) {
      std::vector<at::Tensor> list = value.toTensorVector();
      for (at::Tensor& tensor : list) tensor = lift(tensor, role);
      return list;
    }
    return value;
  }

  static void write_back(const Lifted& lifted) {
    if (!lifted.written) return;
    if (lifted.original.sizes() != lifted.wide.sizes()) lifted.original.resize_(lifted.wide.sizes());
    lifted.original.copy_(lifted.wide);
  }

  at::Tensor narrow(const at::Tensor& result, bool keep_float) {
    for (const Lifted& lifted : lifted_) {
      if (lifted.wide.is_same(result)) return lifted.original;
    }
    if (!result.defined() || result.scalar_type() != at::kFloat || keep_float) return result;
    return converted(result, reduced_);
  }

  c10::IValue narrow(const c10::IValue& value, bool keep_float) {
    if (value.isTensor()) return narrow(value.toTensor(), keep_float);
    if (value.isTensorList()) {
      std::vector<at::Tensor> list = value.toTensorVector();
      for (at::Tensor& tensor : list) tensor = narrow(tensor, keep_float);
      return list;
    }
    return value;
  }

  const OperatorTraits& traits_;
  c10::ScalarType reduced_;
  std::vector<Lifted> lifted_;
};

/// How the CPU's kernels say that they do not know a type.
bool is_missing_type(std::string_view message) {
  using namespace std::string_view_literals;
  for (const auto phrase :
       {"not implemented for 'Half'"sv, "not implemented for 'BFloat16'"sv, "not implemented for half"sv,
        "not implemented for Half"sv, "not implemented for bfloat16"sv, "not implemented for BFloat16"sv}) {
    if (message.find(phrase) != std::string_view::npos) return true;
  }
  return false;
}

/// The values that an operator in place is about to change, to put back if it stops halfway.
class Backup {
 public:
  Backup(const OperatorTraits& traits, c10::ArrayRef<c10::IValue> arguments) {
    for (std::size_t i = 0; i < arguments.size(); ++i) {
      if (traits.roles[i] != Role::update) continue;
      for_each_tensor(arguments[i], [&](const at::Tensor& tensor) {
        saved_.emplace_back(tensor, converted(tensor, tensor.scalar_type()));
      });
    }
  }
  void restore() const {
    for (const auto& [tensor, values] : saved_) tensor.copy_(values);
  }

 private:
  std::vector<std::pair<at::Tensor, at::Tensor>> saved_;
};

}  // namespace

bool cpu_multiplies_bfloat16() {
  return sycl::host::multiplies_bfloat16() && at::globalContext().userEnabledMkldnn();
}

void call_cpu(const c10::OperatorHandle& op, const OperatorTraits& traits, Stack* stack) {
  const auto arguments = torch::jit::last(*stack, traits.roles.size());
  const auto reduced = traits.is_view ? std::nullopt : reduced_type(arguments);
  if (!reduced) return op.redispatchBoxed(cpu_keys, stack);

  std::atomic<bool>& fails = traits.fails_reduced[index_of(*reduced)];
  std::atomic<bool>& works = traits.works_reduced[index_of(*reduced)];
  const bool lifts = traits.is_product && !(*reduced == at::kBFloat16 && cpu_multiplies_bfloat16());
  if (!lifts && !fails) {
    const std::vector<c10::IValue> saved(arguments.begin(), arguments.end());
    const std::size_t below = stack->size() - saved.size();
    std::optional<Backup> backup;
    if (!works) backup.emplace(traits, saved);
    try {
      op.redispatchBoxed(cpu_keys, stack);
      works = true;
      return;
    } catch (const c10::Error& error) {
      if (!is_missing_type(error.what_without_backtrace())) throw;
    }
    fails = true;
    if (backup) backup->restore();
    stack->resize(below);
    stack->insert(stack->end(), saved.begin(), saved.end());
  }
  LiftedCall(traits, *reduced).run(op, stack);
}

}  // namespace kelvor_xpu
