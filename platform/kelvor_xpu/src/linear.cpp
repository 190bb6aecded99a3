#include "linear.hpp"

#include <ATen/ExpandUtils.h>

#include <algorithm>
#include <sycl/pool.hpp>

#include "alias.hpp"
#include "allocator.hpp"
#include "fallback.hpp"
#include "lifting.hpp"
#include "linear_kernels.hpp"
#include "settings.hpp"

namespace kelvor_xpu {
namespace {

/// Rows that are widened together: as many floats as the depth, for each.
constexpr int64_t rows_at_once = 1024;
/// Multiply-adds that are worth a thread's attention.
constexpr int64_t smallest_piece = int64_t{1} << 17;

bool is_matrix(const at::Tensor& tensor, c10::ScalarType type) {
  return on_xpu(tensor) && tensor.dim() == 2 && tensor.scalar_type() == type && !tensor.is_conj() &&
         !tensor.is_neg();
}

bool dense_rows(const at::Tensor& matrix) {
  return matrix.stride(1) == 1 && (matrix.stride(0) >= matrix.size(1) || matrix.size(0) == 1);
}

/// Whether our kernels are faster than the CPU's operator. In float, users compare with the CPU's sums.
bool outruns_cpu(c10::ScalarType type) {
  return type == at::kHalf || (type == at::kBFloat16 && !cpu_multiplies_bfloat16());
}

/// Whether our kernels can do out = rows @ weights. All else, errors included, is for the CPU's
/// operator.
bool streams(const at::Tensor& rows, const at::Tensor& weights, const at::Tensor& out) {
  const c10::ScalarType type = rows.scalar_type();
  if (rows.dim() != 2 || !outruns_cpu(type)) return false;
  if (!is_matrix(rows, type) || !is_matrix(weights, type) || !is_matrix(out, type)) {
    return false;
  }
  return rows.size(1) == weights.size(0) && out.size(0) == rows.size(0) && out.size(1) == weights.size(1) &&
         rows.numel() > 0 && weights.numel() > 0 && dense_rows(weights.t()) && dense_rows(out) &&
         !out.is_alias_of(rows) && !out.is_alias_of(weights);
}

bool can_add(const at::Tensor& addend, const at::Tensor& out) {
  return on_xpu(addend) && addend.scalar_type() == out.scalar_type() &&
         at::is_expandable_to(addend.sizes(), out.sizes()) &&
         (addend.is_same(out) || !addend.is_alias_of(out));
}

void check_types(const at::Tensor& rows, const at::Tensor& weights) {
  TORCH_CHECK(rows.scalar_type() == weights.scalar_type(),
              "expected both matrices to have the same dtype, but got ", rows.scalar_type(), " and ",
              weights.scalar_type());
}

/// Computes the call's sums; what it adds to them is set already.
void run(LinearCall call, const at::Tensor& rows, const at::Tensor& weights, at::Tensor& out) {
  settings();  // the number of threads
  call.type = out.scalar_type() == at::kHalf ? ElementType::half : ElementType::bfloat16;
  call.depth = rows.size(1);
  call.padded_depth = padded(call.depth);
  call.weight = weights.data_ptr();
  call.weight_stride = weights.stride(1);
  call.out_stride = out.stride(0);

  const at::Tensor dense = dense_rows(rows) ? rows : rows.contiguous();
  const auto row = [](const at::Tensor& matrix, int64_t number) {
    return static_cast<char*>(matrix.data_ptr()) + number * matrix.stride(0) * matrix.element_size();
  };
  const int64_t most = std::min(rows_at_once, rows.size(0)), columns = out.size(1);
  const c10::DataPtr wide = scratch_allocator()->allocate(most * call.padded_depth * sizeof(float));
  call.x = static_cast<float*>(wide.get());
  const auto* addend = static_cast<const char*>(call.addend);
  for (int64_t first = 0; first < rows.size(0); first += rows_at_once) {
    call.rows = std::min(rows_at_once, rows.size(0) - first);
    call.out = row(out, first);
    if (addend != nullptr) call.addend = addend + first * call.addend_row_stride * out.element_size();
    lay_out(call, row(dense, first), dense.stride(0), static_cast<float*>(wide.get()));
    const int64_t wanted = std::clamp(smallest_piece / (call.rows * call.depth), int64_t{1}, columns);
    const int64_t grain =
        (wanted + linear_columns_at_once - 1) / linear_columns_at_once * linear_columns_at_once;
    sycl::host::parallel_for_pieces(columns, grain, [&](std::size_t begin, std::size_t end) {
      linear_columns(call, static_cast<int64_t>(begin), static_cast<int64_t>(end));
    });
  }
}

}  // namespace

at::Tensor& mm_out(const at::Tensor& self, const at::Tensor& weights, at::Tensor& out) {
  check_types(self, weights);
  if (streams(self, weights, out)) {
    LinearCall call{};
    call.alpha = 1.0F;
    run(call, self, weights, out);
  } else {
    static const c10::OperatorHandle op = operator_named("aten::mm", "out");
    fall_back(op, self, weights, out);
  }
  return out;
}

at::Tensor& addmm_out(const at::Tensor& self, const at::Tensor& rows, const at::Tensor& weights,
                      const at::Scalar& beta, const at::Scalar& alpha, at::Tensor& out) {
  check_types(rows, weights);
  if (streams(rows, weights, out) && can_add(self, out)) {
    LinearCall call{};
    call.alpha = alpha.to<float>();
    call.beta = beta.to<float>();
    const at::Tensor addend = self.expand(out.sizes());
    // Without a factor, what is to be added does not count, not even as NaN.
    if (call.beta != 0.0F) call.addend = addend.data_ptr();
    call.addend_row_stride = addend.stride(0);
    call.addend_column_stride = addend.stride(1);
    run(call, rows, weights, out);
  } else {
    static const c10::OperatorHandle op = operator_named("aten::addmm", "out");
    fall_back(op, self, rows, weights, beta, alpha, out);
  }
  return out;
}

}  // namespace kelvor_xpu
