#include "pointwise.hpp"

#include <ATen/EmptyTensor.h>
#include <ATen/ScalarOps.h>
#include <ATen/TensorIterator.h>
#include <ATen/native/Activation.h>
#include <ATen/native/BinaryOps.h>
#include <ATen/native/Fill.h>
#include <ATen/native/TensorCompare.h>
#include <ATen/native/UnaryOps.h>

#include <optional>
#include <string>

#include "alias.hpp"
#include "allocator.hpp"
#include "fallback.hpp"

namespace kelvor_xpu {
namespace {

constexpr c10::DispatchKeySet xpu_keys(c10::DispatchKey::XPU);

/// A number of Python's as a tensor of `type`; none for complex ones.
std::optional<at::Tensor> number(const at::Tensor& tensor, c10::ScalarType type) {
  if (tensor.scalar_type() == type) return tensor;
  c10::Scalar value;
  switch (tensor.scalar_type()) {
    case at::kDouble:
      value = *tensor.const_data_ptr<double>();
      break;
    case at::kLong:
      value = *tensor.const_data_ptr<std::int64_t>();
      break;
    case at::kBool:
      value = *tensor.const_data_ptr<bool>();
      break;
    default:
      return std::nullopt;
  }
  return at::detail::scalar_tensor_static(value, type, at::kCPU);
}

/// The second operand as the CPU's loops want it beside `self`: of the same type. None where they would have
/// to convert, and where they compute with a number in more bits than the type has.
std::optional<at::Tensor> operand(const at::Tensor& self, const at::Tensor& other) {
  const c10::ScalarType type = self.scalar_type();
  if (!on_xpu(self) || !(is_float(type) || type == at::kLong)) return std::nullopt;
  if (on_xpu(other) && other.scalar_type() == type) return other;
  const bool is_number = other.is_cpu() && other.unsafeGetTensorImpl()->is_wrapped_number();
  if (!is_number || at::isReducedFloatingType(type)) return std::nullopt;
  if (type == at::kLong && other.scalar_type() != at::kLong) return std::nullopt;
  return number(other, type);
}

/// The result where its layout is plain to see, else undefined for TensorIterator to make it.
at::Tensor result_for(const at::Tensor& self, c10::ScalarType type) {
  if (!self.is_contiguous()) return {};
  return at::detail::empty_generic(self.sizes(), device_allocator(), xpu_keys, type, std::nullopt);
}
at::Tensor result_for(const at::Tensor& self, const at::Tensor& other, c10::ScalarType type) {
  const bool plain = other.dim() == 0 || (other.is_contiguous() && other.sizes() == self.sizes());
  return plain ? result_for(self, type) : at::Tensor();
}

/// A new tensor, or the operator in place: loop(iterator) is one of PyTorch's for the CPU.
template <class Loop>
at::Tensor computed(const at::Tensor& result, const at::Tensor& self, const at::Tensor& other,
                    const Loop& loop) {
  auto iterator = at::TensorIterator::borrowing_binary_op(result, self, other);
  loop(iterator);
  return result.defined() ? result : iterator.output();
}

// The loops with their names and overloads

struct Add {
  static constexpr const char* name = "aten::add";
  static constexpr const char* in_place = "aten::add_";
  static void loop(at::TensorIterator& iterator) { at::native::add_stub(at::kCPU, iterator, 1); }
};
struct Sub {
  static constexpr const char* name = "aten::sub";
  static constexpr const char* in_place = "aten::sub_";
  static void loop(at::TensorIterator& iterator) { at::native::add_stub(at::kCPU, iterator, -1); }
};
struct Mul {
  static constexpr const char* name = "aten::mul";
  static constexpr const char* in_place = "aten::mul_";
  static void loop(at::TensorIterator& iterator) { at::native::mul_stub(at::kCPU, iterator); }
};
struct Div {
  static constexpr const char* name = "aten::div";
  static constexpr const char* in_place = "aten::div_";
  static void loop(at::TensorIterator& iterator) { at::native::div_true_stub(at::kCPU, iterator); }
};

bool is_one(const c10::Scalar& alpha) {
  return alpha.isIntegral(false) && alpha.toLong() == 1;
}

/// A quotient of integers is a float.
template <class Operator>
bool keeps_type(const at::Tensor& self) {
  return Operator::loop != Div::loop || is_float(self.scalar_type());
}

template <class Operator>
at::Tensor binary(const at::Tensor& self, const at::Tensor& other) {
  if (const auto right = keeps_type<Operator>(self) ? operand(self, other) : std::nullopt) {
    return computed(result_for(self, *right, self.scalar_type()), self, *right, Operator::loop);
  }
  static const c10::OperatorHandle op = operator_named(Operator::name, "Tensor");
  return fall_back_for_result(op, self, other);
}
template <class Operator>
at::Tensor& binary_in_place(at::Tensor& self, const at::Tensor& other) {
  if (const auto right = keeps_type<Operator>(self) ? operand(self, other) : std::nullopt) {
    computed(self, self, *right, Operator::loop);
  } else {
    static const c10::OperatorHandle op = operator_named(Operator::in_place, "Tensor");
    fall_back(op, self, other);
  }
  return self;
}
template <class Operator>
at::Tensor scaled(const at::Tensor& self, const at::Tensor& other, const at::Scalar& alpha) {
  if (is_one(alpha)) {
    if (const auto right = operand(self, other)) {
      return computed(result_for(self, *right, self.scalar_type()), self, *right, Operator::loop);
    }
  }
  static const c10::OperatorHandle op = operator_named(Operator::name, "Tensor");
  return fall_back_for_result(op, self, other, alpha);
}
template <class Operator>
at::Tensor& scaled_in_place(at::Tensor& self, const at::Tensor& other, const at::Scalar& alpha) {
  const auto right = is_one(alpha) ? operand(self, other) : std::nullopt;
  if (right) {
    computed(self, self, *right, Operator::loop);
  } else {
    static const c10::OperatorHandle op = operator_named(Operator::in_place, "Tensor");
    fall_back(op, self, other, alpha);
  }
  return self;
}

/// A function of one operand, by the CPU's loop.
template <auto& Loop, class Name>
at::Tensor unary(const at::Tensor& self) {
  if (!is_float(self.scalar_type())) {
    static const c10::OperatorHandle op = operator_named(Name::name, "");
    return fall_back_for_result(op, self);
  }
  at::Tensor result = result_for(self, self.scalar_type());
  auto iterator = at::TensorIterator::unary_op(result, self);
  Loop(at::kCPU, iterator);
  return iterator.output();
}

struct Exp {
  static constexpr const char* name = "aten::exp";
};
struct Neg {
  static constexpr const char* name = "aten::neg";
};
struct Sqrt {
  static constexpr const char* name = "aten::sqrt";
};
struct Rsqrt {
  static constexpr const char* name = "aten::rsqrt";
};
struct Sigmoid {
  static constexpr const char* name = "aten::sigmoid";
};
struct Silu {
  static constexpr const char* name = "aten::silu";
};
struct Tanh {
  static constexpr const char* name = "aten::tanh";
};
struct Cos {
  static constexpr const char* name = "aten::cos";
};
struct Sin {
  static constexpr const char* name = "aten::sin";
};

struct Eq {
  static constexpr const char* name = "aten::eq";
};
struct Ne {
  static constexpr const char* name = "aten::ne";
};
struct Lt {
  static constexpr const char* name = "aten::lt";
};
struct Le {
  static constexpr const char* name = "aten::le";
};
struct Gt {
  static constexpr const char* name = "aten::gt";
};
struct Ge {
  static constexpr const char* name = "aten::ge";
};

/// Comparisons: a new tensor of bool.
template <auto& Loop, class Name>
at::Tensor compared(const at::Tensor& self, const at::Tensor& other) {
  const auto right = operand(self, other);
  if (!right) {
    static const c10::OperatorHandle op = operator_named(Name::name, "Tensor");
    return fall_back_for_result(op, self, other);
  }
  at::Tensor result = result_for(self, *right, at::kBool);
  auto iterator = at::TensorIterator::comparison_op(result, self, *right);
  Loop(at::kCPU, iterator);
  return iterator.output();
}

template <auto& Loop, class Name>
at::Tensor compared_to_number(const at::Tensor& self, const at::Scalar& other) {
  if (!is_float(self.scalar_type()) && !(self.scalar_type() == at::kLong && other.isIntegral(false))) {
    static const c10::OperatorHandle op = operator_named(Name::name, "Scalar");
    return fall_back_for_result(op, self, other);
  }
  return compared<Loop, Name>(self, at::native::wrapped_scalar_tensor(other));
}

/// Registers the comparison with a tensor and with a number.
template <auto& Loop, class Name>
void register_comparison(torch::Library& aten) {
  const std::string name = Name::name;
  aten.impl((name + ".Tensor").c_str(), TORCH_FN((compared<Loop, Name>)));
  aten.impl((name + ".Scalar").c_str(), TORCH_FN((compared_to_number<Loop, Name>)));
}

at::Tensor& fill(at::Tensor& self, const at::Scalar& value) {
  if (!on_xpu(self) || !is_float(self.scalar_type()) || value.isComplex()) {
    static const c10::OperatorHandle op = operator_named("aten::fill_", "Scalar");
    fall_back(op, self, value);
    return self;
  }
  auto iterator = at::TensorIteratorConfig()
                      .set_check_mem_overlap(false)
                      .check_all_same_dtype(false)
                      .add_output(self)
                      .resize_outputs(false)
                      .build();
  at::native::fill_stub(at::kCPU, iterator, value);
  return self;
}

at::Tensor relu(const at::Tensor& self) {
  if (!is_float(self.scalar_type())) {
    static const c10::OperatorHandle op = operator_named("aten::relu", "");
    return fall_back_for_result(op, self);
  }
  at::Tensor result = result_for(self, self.scalar_type());
  auto iterator = at::TensorIterator::unary_op(result, self);
  at::native::clamp_min_scalar_stub(at::kCPU, iterator, 0);
  return iterator.output();
}

}  // namespace

void register_pointwise(torch::Library& aten) {
  aten.impl("add.Tensor", TORCH_FN(scaled<Add>));
  aten.impl("add_.Tensor", TORCH_FN(scaled_in_place<Add>));
  aten.impl("sub.Tensor", TORCH_FN(scaled<Sub>));
  aten.impl("sub_.Tensor", TORCH_FN(scaled_in_place<Sub>));
  aten.impl("mul.Tensor", TORCH_FN(binary<Mul>));
  aten.impl("mul_.Tensor", TORCH_FN(binary_in_place<Mul>));
  aten.impl("div.Tensor", TORCH_FN(binary<Div>));
  aten.impl("div_.Tensor", TORCH_FN(binary_in_place<Div>));
  aten.impl("exp", TORCH_FN((unary<at::native::exp_stub, Exp>)));
  aten.impl("neg", TORCH_FN((unary<at::native::neg_stub, Neg>)));
  aten.impl("sqrt", TORCH_FN((unary<at::native::sqrt_stub, Sqrt>)));
  aten.impl("rsqrt", TORCH_FN((unary<at::native::rsqrt_stub, Rsqrt>)));
  aten.impl("sigmoid", TORCH_FN((unary<at::native::sigmoid_stub, Sigmoid>)));
  aten.impl("silu", TORCH_FN((unary<at::native::silu_stub, Silu>)));
  aten.impl("tanh", TORCH_FN((unary<at::native::tanh_stub, Tanh>)));
  aten.impl("cos", TORCH_FN((unary<at::native::cos_stub, Cos>)));
  aten.impl("sin", TORCH_FN((unary<at::native::sin_stub, Sin>)));
  aten.impl("fill_.Scalar", TORCH_FN(fill));
  aten.impl("relu", TORCH_FN(relu));
  register_comparison<at::native::eq_stub, Eq>(aten);
  register_comparison<at::native::ne_stub, Ne>(aten);
  register_comparison<at::native::lt_stub, Lt>(aten);
  register_comparison<at::native::le_stub, Le>(aten);
  register_comparison<at::native::gt_stub, Gt>(aten);
  register_comparison<at::native::ge_stub, Ge>(aten);
}

}  // namespace kelvor_xpu
