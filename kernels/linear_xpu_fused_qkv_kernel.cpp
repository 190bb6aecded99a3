// The three projections of one activation row, with rotary embedding and the caches' new row, in one launch.

#include "linear_xpu_fused_qkv_kernel.h"

#include <ATen/core/grad_mode.h>
#include <ATen/ops/as_strided.h>
#include <c10/util/Exception.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <limits>
#include <type_traits>
#include <utility>

#include "checks.h"
#include "device_frame.h"
#include "dispatch.h"
#include "formats/list.h"
#include "matvec.h"
#include "new_tensor.h"
#include "submit.h"
#include "sycl/math.hpp"

namespace tolvane {
namespace {

constexpr const char* op = "forward_qkv";
enum projection { query, key, value };

/// -2 * log2(10000).
constexpr float minus_two_log2_of_base = std::bit_cast<float>(0xC1D49A78u);

/// The storage of `cache` goes as far as row `row` of its last head.
void check_storage(const char* name, const at::Tensor& cache, std::int64_t row) {
  // Only strides over rows that exist are known to be sound.
  std::int64_t end = 0;
  const std::int64_t head = cache.storage_offset() + (cache.size(1) - 1) * cache.stride(1);
  const bool overflows = __builtin_mul_overflow(row, cache.stride(2), &end) ||
                         __builtin_add_overflow(end, head + cache.size(3), &end);
  const at::Storage& storage = cache.storage();
  const std::size_t bytes = storage.data() == nullptr ? 0 : storage.nbytes();
  const auto held = static_cast<std::int64_t>(bytes / cache.element_size());
  TORCH_CHECK(!overflows && end <= held, op, ": ", name, " must have storage for row ", row,
              ", which ends after element ", end, " of it, but it has ", held);
}

/// The cache's first element, also where the view shows no rows yet.
template <class T>
T* first_element(const at::Tensor& cache) {
  return static_cast<T*>(cache.storage().mutable_data()) + cache.storage_offset();
}

/// A work-group computes one pair of results of a projection, the two elements of a head that rotary
/// embedding turns together.
template <class Format, class T>
struct qkv_kernel {
  std::array<T*, 3> outputs;
  std::array<const std::uint8_t*, 3> weights;
  std::array<std::int32_t, 3> scale_offsets;
  std::array<std::int64_t, 3> sizes;
  std::array<std::int64_t, 3> bases;
  std::array<std::int64_t, 3> head_strides;
  std::int32_t half_dim;
  std::int64_t head_dim;
  std::int64_t state_size;
  const T* input;
  const std::int64_t* position_ids;
  float rope_ratio;
  sycl::local_accessor<T> local;

  activation_tiles<Format, T> tiles{};
  const float* sines = nullptr;
  const float* cosines = nullptr;

  /// The turns of a head's pairs are the same in all heads.
  void prepare(sycl::host::arena& memory) {
    tiles.prepare(memory, input, static_cast<int>(state_size));
    constexpr int run = spmd::gang_lanes == 1 ? 1 : 8;
    using doubles = spmd::varying_t<double, run>;
    const auto padded = static_cast<std::size_t>(half_dim + run - 1) / run * run;
    auto *const s = memory.allocate<float>(padded), *const c = memory.allocate<float>(padded);
    for (int rem = 0; rem < half_dim; rem += run) {
      const auto exponent = spmd::convert<double>(spmd::ramp<run>(rem));
      const auto power = spmd::convert<float>(sycl::pow(doubles(double{rope_ratio}), exponent));
      const auto angle = power * static_cast<float>(position_ids[0]);
      spmd::store(s + rem, sycl::native::sin(angle));
      spmd::store(c + rem, sycl::native::cos(angle));
    }
    sines = s;
    cosines = c;
  }

  template <class Item>
  void operator()(const Item& item) const {
    // Assign: one projection after the other, so that neighbouring groups read neighbouring rows
    const auto pairs = static_cast<std::int64_t>(item.get_group_range(0));
    const auto linear = static_cast<std::int64_t>(item.get_group_linear_id());
    const std::int64_t p = linear / pairs, pair = linear % pairs;
    const std::int64_t head = pair / half_dim, rem = pair % half_dim;
    const std::int64_t row = head * head_dim + rem;
    if (row + half_dim >= sizes[p]) return;
    const zoned_weight<Format> packed{weights[p], scale_offsets[p], state_size / Format::block};
    const std::array rows = {packed.row(row), packed.row(row + half_dim)};
    // Walk, Stage, Tree
    const auto sum = row_products<1>(item, tiles, 0, state_size, rows, local.get(item));
    // Write
    if (item.first() != 0) return;
    T* const out = outputs[p] + head * head_strides[p] + bases[p] + rem;
    if (p == value) {
      out[0] = sum[0];
      out[half_dim] = sum[1];
      return;
    }
    const float s = sines[rem], c = cosines[rem];
    const auto r0 = static_cast<float>(sum[0]), r1 = static_cast<float>(sum[1]);
    out[0] = T(r0 * c - r1 * s);
    out[half_dim] = T(r1 * c + r0 * s);
  }
};

/// The arguments of a launch, checked.
struct qkv_call {
  at::Tensor input, position_ids;
  std::array<at::Tensor, 3> weights;
  std::array<std::int64_t, 3> sizes;  // rows of the weights
  at::Tensor key_cache, value_cache;
  int qtype;
  std::int64_t state_size, kv_length, head_dim;
};

template <class Format, class T, int wg_size>
void launch(const qkv_call& call, const at::Tensor& queries) {
  std::array<std::int32_t, 3> scale_offsets;
  for (int p = 0; p < 3; ++p) scale_offsets[p] = zoned_scale_offset<Format>(call.state_size, call.sizes[p]);
  const at::Tensor &keys = call.key_cache, &values = call.value_cache;
  const std::int64_t pairs = *std::ranges::max_element(call.sizes) / 2;
  submit(call.weights[query].device(), [&](sycl::handler& command) {
    const sycl::local_accessor<T> local(2 * wg_size, command);
    command.parallel_for(
        sycl::nd_range<2>({static_cast<std::size_t>(pairs) * wg_size, 3}, {wg_size, 1}),
        qkv_kernel<Format, T>{
            {elements<T>(queries), first_element<T>(keys), first_element<T>(values)},
            {call.weights[query].data_ptr<std::uint8_t>(), call.weights[key].data_ptr<std::uint8_t>(),
             call.weights[value].data_ptr<std::uint8_t>()},
            scale_offsets,
            call.sizes,
            {0, keys.stride(2) * call.kv_length, values.stride(2) * call.kv_length},
            {call.head_dim, keys.stride(1), values.stride(1)},
            static_cast<std::int32_t>(call.head_dim / 2),
            call.head_dim,
            call.state_size,
            elements<T>(call.input),
            call.position_ids.data_ptr<std::int64_t>(),
            std::exp2(minus_two_log2_of_base / static_cast<float>(call.head_dim)),
            local});
  });
}

/// Calls body(std::type_identity<Format>(), label) for the format of `qtype`.
template <class Body>
void with_format(int qtype, const Body& body) {
  switch (qtype) {
    case q4_0::qtype:
      return body(std::type_identity<q4_0>(), "qlinear_xpu_kernel_q4_0_2x16_qkv");
    case fp8_e5m2_fused::qtype:
      return body(std::type_identity<fp8_e5m2_fused>(), "qlinear_xpu_kernel_fp8_e5m2_2x8_qkv");
    default:
      TORCH_CHECK(false, op, ": qtype must be 2 (q4_0) or 19 (fp8_e5m2), but got ", qtype);
  }
}

/// The rows of a packed weight, a whole number of heads.
std::int64_t rows_of(const char* name, const at::Tensor& weight, const qkv_call& call) {
  TORCH_CHECK(weight.scalar_type() == at::ScalarType::Byte && weight.dim() == 1, op, ": ", name,
              " must be a flat tensor of packed bytes (torch.uint8, 1 dimension), but has ", weight.dim(),
              " dimensions of ", toString(weight.scalar_type()));
  const std::int64_t row_bytes =
      call.state_size / GGML_BLCK_SIZE[call.qtype] * static_cast<std::int64_t>(GGML_TYPE_SIZE[call.qtype]);
  const std::int64_t rows = weight.size(0) / row_bytes;
  TORCH_CHECK(weight.size(0) % (row_bytes * call.head_dim) == 0, op, ": ", name, " must hold whole heads of ",
              call.head_dim, " rows, but its ", weight.size(0), " bytes are ", rows, " rows of ",
              call.state_size, " elements and ", weight.size(0) % row_bytes, " bytes");
  check_index_range(op, call.state_size, rows);
  return rows;
}

/// The cache can take the row `kv_length` of `heads` heads.
void check_cache(const char* name, const at::Tensor& cache, const qkv_call& call, std::int64_t heads) {
  TORCH_CHECK(cache.device().type() == c10::DeviceType::XPU, op, ": ", name,
              " must be a XPU tensor, but is on device ", cache.device());
  TORCH_CHECK(cache.scalar_type() == call.input.scalar_type(), op, ": ", name, " must have input's type, ",
              toString(call.input.scalar_type()), ", but has ", toString(cache.scalar_type()));
  TORCH_CHECK(cache.dim() == 4 && cache.size(0) == 1 && cache.size(1) == heads &&
                  cache.size(3) == call.head_dim && cache.stride(3) == 1,
              op, ": ", name, " must be [1, ", heads, ", rows, ", call.head_dim,
              "] with a last stride of 1, but has sizes ", cache.sizes(), " and strides ", cache.strides());
  TORCH_CHECK(heads == 1 || cache.stride(1) >= call.head_dim, op, ": ", name,
              " is written, so its heads must not overlap, but its strides are ", cache.strides());
  check_writable(op, name, cache);
  check_storage(name, cache, call.kv_length);
}

qkv_call checked(at::Tensor input, at::Tensor weight_q, at::Tensor weight_k, at::Tensor weight_v,
                 at::Tensor position_ids, at::Tensor key_cache, at::Tensor value_cache, int qtype,
                 std::int64_t kv_length, std::int64_t head_dim) {
  TORCH_CHECK(input.dim() == 2, op, ": input must have 2 dimensions, 1 row and state_size, but has ",
              input.dim());
  TORCH_CHECK(input.size(0) == 1, op, ": batch_size == 1 is needed, one activation row per call, but got ",
              input.size(0));
  constexpr std::int64_t largest = std::numeric_limits<std::int32_t>::max();
  TORCH_CHECK(head_dim > 0 && head_dim % 2 == 0 && head_dim <= largest, op,
              ": head_dim must be positive and even, but got ", head_dim);
  TORCH_CHECK(kv_length >= 0 && kv_length <= largest, op,
              ": kv_length must not be negative, and below 2147483648, but got ", kv_length);
  with_format(qtype, [&]<class Format>(std::type_identity<Format>, const char* label) {
    check_floating(label, input);
    check_multiple(input.size(1), Format::tile);
    check_row_length(op, input.size(1), Format::block);
  });
  qkv_call call{readable(op, "input", std::move(input)),
                {},
                {readable(op, "weight_q", std::move(weight_q)), readable(op, "weight_k", std::move(weight_k)),
                 readable(op, "weight_v", std::move(weight_v))},
                {},
                std::move(key_cache),
                std::move(value_cache),
                qtype,
                0,
                kv_length,
                head_dim};
  call.state_size = call.input.size(1);
  constexpr std::array names = {"weight_q", "weight_k", "weight_v"};
  for (int p = 0; p < 3; ++p) call.sizes[p] = rows_of(names[p], call.weights[p], call);
  TORCH_CHECK(position_ids.device().type() == c10::DeviceType::XPU, op,
              ": position_ids must be a XPU tensor, but is on device ", position_ids.device());
  TORCH_CHECK(position_ids.scalar_type() == at::ScalarType::Long && position_ids.numel() > 0, op,
              ": position_ids must hold the token's position as int64, but has ", position_ids.numel(),
              " elements of ", toString(position_ids.scalar_type()));
  call.position_ids = readable(op, "position_ids", std::move(position_ids));
  check_cache("key_cache", call.key_cache, call, call.sizes[key] / head_dim);
  check_cache("value_cache", call.value_cache, call, call.sizes[value] / head_dim);
  return call;
}

/// The query; keys and values are written to their caches.
at::Tensor projected(const qkv_call& call) {
  at::Tensor queries = new_tensor({1, call.sizes[query] / call.head_dim, 1, call.head_dim},
                                  call.input.options().device(call.weights[query].device()));
  with_format(call.qtype, [&]<class Format>(std::type_identity<Format>, const char* label) {
    dispatch_floating(label, call.input.scalar_type(), [&]<class T>(std::type_identity<T>) {
      current_gpu_type() == gpu_summit ? launch<Format, T, 64>(call, queries)
                                       : launch<Format, T, 32>(call, queries);
    });
  });
  mark_written(call.key_cache);
  mark_written(call.value_cache);
  return queries;
}

/// A view of the cache with one row more.
at::Tensor grown(const char* name, const at::Tensor& cache) {
  check_storage(name, cache, cache.size(2));
  const at::NoGradGuard no_gradient;
  return cache.as_strided({1, cache.size(1), cache.size(2) + 1, cache.size(3)}, cache.strides());
}

}  // namespace

at::Tensor linear_xpu_qkv_query(at::Tensor input, at::Tensor weight_q, at::Tensor weight_k,
                                at::Tensor weight_v, at::Tensor position_ids, at::Tensor key_cache,
                                at::Tensor value_cache, int qtype, std::int64_t kv_length,
                                std::int64_t head_dim) {
  return projected(checked(input, weight_q, weight_k, weight_v, position_ids, key_cache, value_cache, qtype,
                           kv_length, head_dim));
}

std::vector<at::Tensor> linear_xpu_qkv_forward(at::Tensor input, at::Tensor weight_q, at::Tensor weight_k,
                                               at::Tensor weight_v, at::Tensor position_ids,
                                               at::Tensor key_cache, at::Tensor value_cache, int qtype,
                                               std::int64_t kv_length, std::int64_t head_dim) {
  const qkv_call call = checked(input, weight_q, weight_k, weight_v, position_ids, key_cache, value_cache,
                                qtype, kv_length, head_dim);
  at::Tensor keys = grown("key_cache", key_cache), values = grown("value_cache", value_cache);
  return {projected(call), std::move(keys), std::move(values)};
}

}  // namespace tolvane
