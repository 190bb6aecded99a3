// Root-mean-square and layer normalization: one work-group normalizes one row.

#include "add_norm_fusion.h"

#include <c10/core/DeviceType.h>
#include <c10/util/Exception.h>

#include <limits>

#include "checks.h"
#include "dispatch.h"
#include "item_sums.h"
#include "new_tensor.h"
#include "phases.h"
#include "profiler_scope.h"
#include "submit.h"
#include "sycl/math.hpp"

int get_workgroup_size() {
  const sycl::queue& queue = tolvane::current_queue(c10::Device(c10::DeviceType::XPU, -1));
  return static_cast<int>(queue.get_device().get_info<sycl::info::device::max_work_group_size>());
}

bool canUse32BitIndexMath(const at::Tensor& t) {
  constexpr std::int64_t limit = std::numeric_limits<std::int32_t>::max();
  const std::int64_t elements = t.numel();
  if (elements == 0) return true;
  if (elements >= limit) return false;
  std::int64_t offset = 0;
  std::int64_t linear_id = elements - 1;
  for (std::int64_t i = t.dim() - 1; i >= 0; --i) {
    offset += (linear_id % t.size(i)) * t.stride(i);
    linear_id /= t.size(i);
  }
  return offset < limit;
}

namespace tolvane {

int max_workgroup_size() {
  static const int size = get_workgroup_size();
  return size;
}

namespace {

template <class T>
using accumulator = std::conditional_t<std::same_as<T, double>, double, float>;

/// Bytes of a row that a work-item holds, and of the widest vector that it reads at once.
constexpr int item_bytes = 32;
constexpr int vector_bytes = 16;

/// The elements at p in the first lanes of a run of `width`, of which `count` (perhaps none) are there.
template <int width, class T>
[[gnu::always_inline]] inline auto load_first(const T* p, int count) {
  if constexpr (width == 1) {
    return spmd::load<1>(p);
  } else {
    return count >= width ? spmd::load<width>(p)
                          : spmd::load<width>(p, spmd::first_lanes{std::max(0, count)});
  }
}

/// One row per work-group. Null addends, scales and shifts are absent; add2 stands beside add1 only. A
/// work-item holds vectors of `vec` elements: element (i * wg + its index) * vec and those behind it, for i =
/// 0, 1, ….
template <class T, int vec, bool is_rms>
struct row_norm {
  using A = accumulator<T>;

  int n;
  int wg;
  const T* x;
  const T* add1;
  const T* add2;
  int sub_group_count;
  sycl::local_accessor<A> local_sum;
  sycl::local_accessor<A> local_sum_sq;
  float eps;
  const T* gamma;
  const T* beta;
  T* y;

  /// Calls body(e, live) for each run of elements from e on that the work-item holds; a gang of many lanes
  /// goes through the whole row, for all of the group.
  template <class Item, class Body>
  [[gnu::always_inline]] void for_runs(const Item& item, const Body& body) const {
    constexpr int width = Item::lanes;
    if constexpr (width == 1) {
      for (int start = item.first() * vec; start < n; start += wg * vec)
        for (int e = start; e < start + vec; ++e) body(e, spmd::all_lanes<1>());
    } else {
      int e = 0;
      for (; e + width <= n; e += width) body(e, spmd::all_lanes<width>());
      if (e < n) body(e, spmd::first_lanes{n - e});
    }
  }

  /// x + (add1 + add2), rounded to T each time. The sums stand in y until the row is written.
  template <class Item>
  [[gnu::always_inline]] void add(const Item& item, std::ptrdiff_t row) const {
    constexpr int width = Item::lanes;
    for_runs(item, [&](int e, auto live) [[gnu::always_inline]] {
      const std::ptrdiff_t at = row + e;
      auto addend = spmd::load<width>(add1 + at, live);
      if (add2 != nullptr) addend = addend + spmd::load<width>(add2 + at, live);
      spmd::store(y + at, spmd::load<width>(x + at, live) + addend, live);
    });
  }

  /// Work-items of a register, and registers of a gang.
  template <class Item>
  static constexpr int items = Item::lanes == 1 ? 1 : 8;
  template <class Item>
  static constexpr int parts = Item::lanes / items<Item>;

  /// Of each of the gang's work-items the sum of its elements and of their squares, as
  /// two_sums_from_neighbours takes them.
  template <class Item>
  struct moments {
    using V = spmd::varying_t<A, items<Item>>;
    std::array<V, parts<Item>> sum, sum_sq;
  };

  template <class Item>
  [[gnu::always_inline]] moments<Item> moments_of(const Item& item, const T* elements) const {
    constexpr int width = items<Item>;
    moments<Item> result;
    spmd::unrolled<parts<Item>>([&](auto p) [[gnu::always_inline]] {
      const int first = item.first() + p * width;
      typename moments<Item>::V sum(A(0)), sum_sq(A(0));
      const auto add = [&](const auto& load) [[gnu::always_inline]] {
        std::array<spmd::varying_t<A, width>, vec> read;
        spmd::unrolled<vec>([&](auto j)
                                [[gnu::always_inline]] { read[j] = spmd::convert<A>(load(j * width)); });
        const auto element = by_element<vec>(read);
        spmd::unrolled<vec>([&](auto j) [[gnu::always_inline]] {
          if constexpr (!is_rms) sum = sum + element[j];
          sum_sq = spmd::mad(element[j], element[j], sum_sq);
        });
      };
      int e = first * vec;
      if (first + width <= item.first() + item.live()) {
        for (; e + width * vec <= n; e += wg * vec)
          add([&](int j) [[gnu::always_inline]] { return spmd::load<width>(elements + e + j); });
      }
      for (; e < n; e += wg * vec) {
        const int count = std::min((item.first() + item.live() - first) * vec, n - e);
        add([&](int j) [[gnu::always_inline]] { return load_first<width>(elements + e + j, count - j); });
      }
      result.sum[p] = sum;
      result.sum_sq[p] = sum_sq;
    });
    return result;
  }

  /// What the sub-groups left in `sums`, added up; for work-item 0.
  template <class Item>
  [[gnu::always_inline]] A total(const Item& item, const A* sums) const {
    if (sub_group_count == 1) return sums[0];
    constexpr int width = Item::lanes;
    auto part = load_first<width>(sums + item.first(), sub_group_count - item.first());
    if (width == 1 && item.first() >= sub_group_count) part = A(0);
    for (int from = item.first() + 32; from < sub_group_count; from += 32)
      part = part + load_first<width>(sums + from, sub_group_count - from);
    return sum_from_neighbours(sycl::this_sub_group(item), part);
  }

  /// 1 / sqrt(mean square + eps), with 0 for a sum that is negative.
  [[gnu::always_inline]] A reciprocal_root(A mean_square) const {
    return sycl::rsqrt(mean_square < 0 ? A(0) : mean_square + static_cast<A>(eps));
  }

  /// The row whose first element has the offset `row`. Kept out of the kernels, which differ in the type that
  /// they count in only.
  template <class Item>
  [[gnu::noinline]] void normalize(const Item& item, std::ptrdiff_t row) const {
    A* const sums = local_sum.get(item);
    A* const squares = local_sum_sq.get(item);
    const T* const elements = (add1 != nullptr ? y : x) + row;

    // First pass
    if (add1 != nullptr) add(item, row);
    phase(item, [&](const Item& gang) [[gnu::always_inline]] {
      const auto own = moments_of(gang, elements);
      const auto group = sycl::this_sub_group(gang);
      const auto [sum, square] =
          two_sums_from_neighbours<vec>(group, is_rms ? own.sum_sq : own.sum, own.sum_sq);
      if (gang.first() % group.size != 0) return;
      squares[group.get_group_linear_id()] = square;
      if constexpr (!is_rms) sums[group.get_group_linear_id()] = sum;
    });
    // Statistics
    first_sub_group_phase(item, [&](const Item& gang) [[gnu::always_inline]] {
      const A square = total(gang, squares);
      const A sum = is_rms ? A(0) : total(gang, sums);
      if (gang.first() != 0) return;
      const A count = static_cast<A>(n);
      sums[0] = sum / count;
      squares[0] = reciprocal_root(is_rms ? square / count : (square - sum * sum / count) / count);
    });
    // Second pass
    constexpr int width = Item::lanes;
    const A mean = sums[0];
    const A rstd = squares[0];
    const T* const scale = gamma;
    const T* const shift = beta;
    T* const out = y + row;
    for_runs(item, [&](int e, auto live) [[gnu::always_inline]] {
      const auto widened = [&](const T* p) [[gnu::always_inline]] {
        return spmd::convert<A>(spmd::load<width>(p + e, live));
      };
      auto t = widened(elements);
      if constexpr (!is_rms) t = t - mean;
      t = t * rstd;
      if (scale != nullptr && shift != nullptr) {
        t = spmd::mad(t, widened(scale), widened(shift));
      } else if (scale != nullptr) {
        t = t * widened(scale);
      } else if (shift != nullptr) {
        t = t + widened(shift);
      }
      spmd::store(out + e, t, live);
    });
  }
};

/// Counts a row's offset in index_t, which must hold that of every element.
template <class T, class index_t, int vec, bool is_rms>
struct fused_norm_kernel1 {
  static constexpr bool uses_sub_group = true;
  static constexpr int sub_group_size = 32;
  static constexpr bool first_gang_works = first_gang_runs_phases;
  row_norm<T, vec, is_rms> norm;

  template <class Item>
  void operator()(const Item& item) const {
    const index_t row = static_cast<index_t>(item.get_group(0)) * static_cast<index_t>(norm.n);
    norm.normalize(item, static_cast<std::ptrdiff_t>(row));
  }
};

/// The tensors and sizes of one call. x, gamma and beta are contiguous; gamma, beta and addends may be
/// undefined.
struct norm_call {
  const char* name;
  const at::Tensor& x;
  const at::Tensor& add1;
  const at::Tensor& add2;
  const at::Tensor& gamma;
  const at::Tensor& beta;
  std::int64_t rows;
  std::int64_t n;
  double eps;
  const at::Tensor& y;
};

template <class T>
T* elements_or_null(const at::Tensor& tensor) {
  return tensor.defined() ? elements<T>(tensor) : nullptr;
}

template <class T, class index_t, int vec, bool is_rms>
void launch(const norm_call& call, float eps) {
  int wg = max_workgroup_size();
  while (static_cast<std::int64_t>(wg >> 1) * vec >= call.n) wg >>= 1;
  const int sub_group_count = (wg + 31) / 32;
  submit(call.x.device(), [&](sycl::handler& command) {
    using accumulators = sycl::local_accessor<accumulator<T>>;
    const accumulators local_sum(static_cast<std::size_t>(sub_group_count), command);
    const accumulators local_sum_sq(static_cast<std::size_t>(sub_group_count), command);
    const auto size = static_cast<std::size_t>(wg);
    command.parallel_for(
        sycl::nd_range<1>(static_cast<std::size_t>(call.rows) * size, size),
        fused_norm_kernel1<T, index_t, vec, is_rms>{
            {static_cast<int>(call.n), wg, elements<T>(call.x), elements_or_null<T>(call.add1),
             elements_or_null<T>(call.add2), sub_group_count, local_sum, local_sum_sq, eps,
             elements_or_null<T>(call.gamma), elements_or_null<T>(call.beta), elements<T>(call.y)}});
  });
}

/// The widest vector that is at most `vec` wide and that the row's length and both addresses allow. A row
/// that allows none but single elements still fits the work-group, as all vectors cover the same length.
template <class T, int vec, bool is_rms>
void launch_by_width(const norm_call& call, float eps, int wanted) {
  const auto fits = [](const at::Tensor& t) {
    return reinterpret_cast<std::uintptr_t>(t.data_ptr()) % (vec * sizeof(T)) == 0;
  };
  if constexpr (vec > 1) {
    if (wanted < vec || call.n % vec != 0 || !fits(call.x) || !fits(call.y))
      return launch_by_width<T, vec / 2, is_rms>(call, eps, wanted);
  }
  if (canUse32BitIndexMath(call.x)) {
    launch<T, unsigned int, vec, is_rms>(call, eps);
  } else {
    launch<T, unsigned long, vec, is_rms>(call, eps);
  }
}

/// `tensor` is absent, or has `count` elements of x's type on x's device.
void check_operand(const norm_call& call, const char* operand, const at::Tensor& tensor, std::int64_t count) {
  if (!tensor.defined()) return;
  TORCH_CHECK(tensor.scalar_type() == call.x.scalar_type(), call.name, ": ", operand,
              ": expected scalar type ", toString(call.x.scalar_type()), " but found ",
              toString(tensor.scalar_type()));
  TORCH_CHECK(tensor.device() == call.x.device(), call.name, ": ", operand, " must be on ", call.x.device(),
              ", as the input is, but is on ", tensor.device());
  TORCH_CHECK(tensor.numel() == count, call.name, ": ", operand, " must have ", count, " elements, but has ",
              tensor.numel());
}

/// Submits the norm of all rows. Answers false, and submits nothing, where a row is too long for a
/// work-group.
template <bool is_rms>
bool LayerNormKernelImpl(const norm_call& call) {
  bool fits = false;
  dispatch_floating("LayerNormKernelImpl", call.x.scalar_type(), [&]<class T>(std::type_identity<T>) {
    constexpr int max_vec = vector_bytes / static_cast<int>(sizeof(T));
    const std::int64_t wg = max_workgroup_size();
    fits = call.n <= wg * (item_bytes / static_cast<std::int64_t>(sizeof(T)));
    if (!fits) return;
    check_operand(call, "weight", call.gamma, call.n);
    check_operand(call, "bias", call.beta, call.n);
    auto eps = static_cast<float>(call.eps);
    if constexpr (spmd::reduced<T>) eps = T(eps);
    int vec = max_vec;
    while (call.n <= vec / 2 * wg) vec /= 2;
    launch_by_width<T, max_vec, is_rms>(call, eps, vec);
  });
  return fits;
}

/// What the kernels read of an operand, which may be undefined.
at::Tensor contiguous_rows(const char* name, const char* operand, const at::Tensor& tensor) {
  return tensor.defined() ? readable(name, operand, tensor).contiguous() : tensor;
}

void check_addend(const char* name, const char* operand, const at::Tensor& addend, const at::Tensor& x) {
  if (!addend.defined()) return;
  TORCH_CHECK(
      addend.sizes() == x.sizes() && addend.scalar_type() == x.scalar_type() && addend.device() == x.device(),
      name, ": ", operand, " must be a tensor of ", x.sizes(), " of ", toString(x.scalar_type()), " on ",
      x.device(), ", as the tensor to normalize is, but has ", addend.sizes(), " of ",
      toString(addend.scalar_type()), " on ", addend.device());
}

/// The norm of x + (a + b). Messages begin with `name`.
template <bool is_rms>
at::Tensor norm(const char* name, const at::Tensor& a, const at::Tensor& b, const at::Tensor& x,
                c10::ArrayRef<long> normalized_shape, const c10::optional<at::Tensor>& weight,
                const c10::optional<at::Tensor>& bias, double eps) {
  TORCH_CHECK(x.defined() && x.device().type() == c10::DeviceType::XPU, name,
              ": the tensor to normalize must be a XPU tensor, but ",
              x.defined() ? "is on device " + x.device().str() : "is undefined");
  const auto axis = static_cast<int>(x.dim() - static_cast<std::int64_t>(normalized_shape.size()));
  TORCH_CHECK(axis >= 0, name, ": normalized_shape may have ", x.dim(), " sizes, as the input has, but has ",
              normalized_shape.size());
  check_addend(name, "a", a, x);
  check_addend(name, "b", b, x);
  const std::int64_t rows = c10::multiply_integers(x.sizes().slice(0, axis));
  const std::int64_t n = c10::multiply_integers(x.sizes().slice(axis));

  at::Tensor output = new_tensor(x.sizes(), x.options());
  if (x.numel() == 0) return output;
  const at::Tensor rows_of_x = contiguous_rows(name, "input", x);
  const at::Tensor gamma = weight ? contiguous_rows(name, "weight", *weight) : at::Tensor();
  const at::Tensor beta = bias ? contiguous_rows(name, "bias", *bias) : at::Tensor();
  const at::Tensor add1 = contiguous_rows(name, "addend", a.defined() ? a : b);
  const at::Tensor add2 = a.defined() ? contiguous_rows(name, "addend", b) : at::Tensor();
  if (!LayerNormKernelImpl<is_rms>({name, rows_of_x, add1, add2, gamma, beta, rows, n, eps, output}))
    return new_tensor({0});
  return output;
}

void check_one_addend(const char* name, const at::Tensor& a, const at::Tensor& b) {
  TORCH_CHECK(!a.defined() || !b.defined(), name,
              ": one addend is possible, so a or b must be undefined; add_", name, " adds both");
}

}  // namespace
}  // namespace tolvane

at::Tensor fused_rms_norm(const at::Tensor& input, c10::ArrayRef<long> normalized_shape,
                          const c10::optional<at::Tensor>& weight, const c10::optional<at::Tensor>& bias,
                          double eps) {
  const tolvane::profiler_scope scope("fused_rms_norm", input);
  return tolvane::norm<true>("fused_rms_norm", {}, {}, input, normalized_shape, weight, bias, eps);
}

at::Tensor fused_layer_norm(const at::Tensor& input, c10::ArrayRef<long> normalized_shape,
                            const c10::optional<at::Tensor>& weight, const c10::optional<at::Tensor>& bias,
                            double eps) {
  const tolvane::profiler_scope scope("fast_layer_norm", input);
  return tolvane::norm<false>("fused_layer_norm", {}, {}, input, normalized_shape, weight, bias, eps);
}

at::Tensor add_rms_norm(const at::Tensor& a, const at::Tensor& b, const at::Tensor& x,
                        c10::ArrayRef<long> normalized_shape, const c10::optional<at::Tensor>& weight,
                        const c10::optional<at::Tensor>& bias, double eps) {
  tolvane::check_one_addend("add_rms_norm", a, b);
  const tolvane::profiler_scope scope("add_rms_norm", x);
  return tolvane::norm<true>("add_rms_norm", a, b, x, normalized_shape, weight, bias, eps);
}

at::Tensor add_layer_norm(const at::Tensor& a, const at::Tensor& b, const at::Tensor& x,
                          c10::ArrayRef<long> normalized_shape, const c10::optional<at::Tensor>& weight,
                          const c10::optional<at::Tensor>& bias, double eps) {
  tolvane::check_one_addend("add_layer_norm", a, b);
  const tolvane::profiler_scope scope("add_layer_norm", x);
  return tolvane::norm<false>("add_layer_norm", a, b, x, normalized_shape, weight, bias, eps);
}

at::Tensor add_add_rms_norm(const at::Tensor& a, const at::Tensor& b, const at::Tensor& x,
                            c10::ArrayRef<long> normalized_shape, const c10::optional<at::Tensor>& weight,
                            const c10::optional<at::Tensor>& bias, double eps) {
  return tolvane::norm<true>("add_add_rms_norm", a, b, x, normalized_shape, weight, bias, eps);
}

at::Tensor add_add_layer_norm(const at::Tensor& a, const at::Tensor& b, const at::Tensor& x,
                              c10::ArrayRef<long> normalized_shape, const c10::optional<at::Tensor>& weight,
                              const c10::optional<at::Tensor>& bias, double eps) {
  return tolvane::norm<false>("add_add_layer_norm", a, b, x, normalized_shape, weight, bias, eps);
}
