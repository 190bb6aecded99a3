// Decoding attention against an FP8 cache: scores of one query row, and the weighted sum of values.

#include "kv.h"

#include <c10/core/DeviceType.h>
#include <c10/util/Exception.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <iostream>
#include <limits>

#include "checks.h"
#include "dispatch.h"
#include "new_tensor.h"
#include "spmd/spmd.hpp"
#include "submit.h"

namespace tolvane {
namespace {

/// What a cache byte's half has below the byte.
constexpr std::uint8_t lower_byte = 0x80;

/// Cache values from p on, in float: every one is a half, and not every one a bfloat16.
template <int N, class Live>
[[gnu::always_inline]] inline spmd::varying_t<float, N> decode(const std::uint8_t* p, Live live) {
  return spmd::load_upper_bytes<N, lower_byte>(p, live);
}

/// x times decoded cache values, rounded to T; x in float holds values of T.
template <class T, class V>
[[gnu::always_inline]] inline auto product(const V& x, const V& decoded) {
  return spmd::convert<T>(x * decoded);
}

/// A tensor's first element and the offsets of its first two dimensions, in elements.
template <class T>
struct heads_of {
  T* data;
  std::int64_t batch;
  std::int64_t head;

  heads_of(const at::Tensor& tensor)  // NOLINT: implicit, to fill a kernel's members
      : data(elements<T>(tensor)), batch(tensor.stride(0)), head(tensor.stride(1)) {}
  T* at(std::size_t b, std::size_t h) const {
    return data + static_cast<std::int64_t>(b) * batch + static_cast<std::int64_t>(h) * head;
  }
};

/// What both products work on: a vector per query head, the cache of the key/value heads, a result per query
/// head; `length` positions.
template <class T>
struct attention_operands {
  heads_of<const T> vectors;
  heads_of<const std::uint8_t> cache;
  heads_of<T> results;
  std::int64_t length;
  std::size_t heads_per_kv;
  sycl::local_accessor<T, 2> local;
};

/// Work-group (b, h, g) computes the scores of key rows g * rows … g * rows + rows - 1.
template <class T, int rows, int head_size, int group_size, int sg_size>
struct query_key_fp8_matmul_kernel {
  static_assert(rows == group_size, "the work-items sum up one row each");
  static constexpr int sub_group_size = sg_size;

  attention_operands<T> operands;

  template <class Item>
  void operator()(const Item& item) const {
    constexpr int n = Item::lanes;
    // Assign
    const std::size_t b = item.get_group(0), h = item.get_group(1);
    const auto start = static_cast<std::int64_t>(item.get_group(2)) * rows;
    const auto& [queries, keys, scores, length, heads_per_kv, local] = operands;
    const auto count = static_cast<int>(std::min<std::int64_t>(rows, length - start));
    const std::uint8_t* row = keys.at(b, h / heads_per_kv) + start * head_size + item.first();
    const T* query = queries.at(b, h) + item.first();
    T* partial = local.get(item);
    // Walk: each work-item takes every group_size-th element of a row
    constexpr int steps = head_size / group_size;
    std::array<spmd::varying<float, Item>, steps> q;
    for (int step = 0; step < steps; ++step) {
      q[step] = spmd::convert<float>(spmd::load<n>(query + step * group_size));
    }
    for (int s = 0; s < count; ++s, row += head_size) {
      spmd::varying<T, Item> acc;
      spmd::unrolled<steps>([&](auto step) [[gnu::always_inline]] {
        const auto w = decode<n>(row + step * group_size, spmd::all_lanes<n>());
        if constexpr (step == 0) {
          acc = product<T>(q[step], w);
        } else if constexpr (spmd::reduced<T>) {
          acc = acc + product<T>(q[step], w);
        } else {
          acc = spmd::mad(q[step], w, acc);
        }
      });
      // Stage
      spmd::store(partial + s * group_size + item.first(), acc);
    }
    item.barrier();
    // Write: work-item l sums up row l. Rows past the end hold nothing, and nothing of them is stored.
    const int live = std::min(n, count - item.first());
    if (live <= 0) return;
    const auto sum = spmd::sums_of_rows<n, group_size>(partial + item.first() * group_size);
    T* result = scores.at(b, h) + start + item.first();
    if (live == n) {
      spmd::store(result, sum);
    } else {
      if constexpr (n > 1) spmd::store(result, sum, spmd::first_lanes{live});
    }
  }
};

/// Work-group (b, h, g) computes results g * rows … g * rows + rows - 1.
template <class T, int rows, int group_size, int sg_size>
struct attn_value_fp8_matmul_kernel {
  static constexpr int sub_group_size = sg_size;

  attention_operands<T> operands;
  std::int64_t value_row;

  template <class Item>
  void operator()(const Item& item) const {
    constexpr int n = Item::lanes;
    // Assign
    const std::size_t b = item.get_group(0), h = item.get_group(1);
    const auto first_row = static_cast<std::int64_t>(item.get_group(2)) * rows;
    const auto& [attn, cache, mixes, length, heads_per_kv, local] = operands;
    const T* weights = attn.at(b, h);
    const std::uint8_t* values = cache.at(b, h / heads_per_kv) + first_row * value_row;
    T* partial = local.get(item);
    // Walk: positions are dealt to the work-items in turn
    std::array<spmd::varying<T, Item>, rows> part;
    part.fill(T(0.0f));
    spmd::strided<1>(item, static_cast<int>(length),
                     [&](const auto& first, auto live) [[gnu::always_inline]] {
                       const auto a = spmd::convert<float>(spmd::load<n>(weights + first[0], live));
                       spmd::unrolled<rows>([&](auto r) [[gnu::always_inline]] {
                         const auto w = decode<n>(values + r * value_row + first[0], live);
                         if constexpr (spmd::reduced<T>) {
                           part[r] = spmd::keep_unless(live, part[r] + product<T>(a, w), part[r]);
                         } else {
                           part[r] = spmd::keep_unless(live, spmd::mad(a, w, part[r]), part[r]);
                         }
                       });
                     });
    // Stage
    for (int r = 0; r < rows; ++r) spmd::store(partial + r * group_size + item.first(), part[r]);
    item.barrier();
    // Write: the first work-items sum up one row each
    T* result = mixes.at(b, h) + first_row;
    const int end = std::min(rows, item.first() + n);
    std::array<T, rows> sum;
    sum.fill(T(0.0f));
    for (int i = 0; i < group_size; ++i) {
      for (int r = item.first(); r < end; ++r) sum[r] = sum[r] + spmd::load<1>(partial + r * group_size + i);
    }
    for (int r = item.first(); r < end; ++r) spmd::store(result + r, sum[r]);
  }
};

/// Calls body(std::type_identity<T>()) for the three types of attention. Any other ends the process.
template <class Body>
void dispatch_attention(at::ScalarType type, const Body& body) {
  switch (type) {
    case at::ScalarType::BFloat16:
      return body(std::type_identity<bfloat16>());
    case at::ScalarType::Float:
      return body(std::type_identity<float>());
    case at::ScalarType::Half:
      return body(std::type_identity<half>());
    default:
      std::cerr << "unsupported dtype" << std::endl;
      std::exit(2);
  }
}

/// Both tensors have four dimensions and are on an XPU device.
void check_shapes(const char* op, const char* first_name, const at::Tensor& first, const char* cache_name,
                  const at::Tensor& cache) {
  const auto check = [op](const char* name, const at::Tensor& tensor) {
    TORCH_CHECK(tensor.dim() == 4, op, ": ", name, " must have 4 dimensions, but has ", tensor.dim());
    TORCH_CHECK(tensor.device().type() == c10::DeviceType::XPU, op, ": ", name,
                " must be a XPU tensor, but is on device ", tensor.device());
  };
  check(first_name, first);
  check(cache_name, cache);
}

/// Preconditions that both operators share after that of the batch and the reduced dimension.
void check_heads(const char* op, std::int64_t num_heads, std::int64_t num_kv_heads, std::int64_t input_size) {
  TORCH_CHECK(num_kv_heads > 0 && num_heads % num_kv_heads == 0, op,
              ": num_heads % num_kv_heads == 0 is needed, but got num_heads ", num_heads,
              " and num_kv_heads ", num_kv_heads);
  TORCH_CHECK(input_size == 1, op, ": input_size == 1 is needed, one new token, but got ", input_size);
}

/// The cache holds bytes, and neighbouring elements of both tensors lie side by side.
void check_elements(const char* op, const char* first_name, const at::Tensor& first, const char* cache_name,
                    const at::Tensor& cache) {
  TORCH_CHECK(cache.scalar_type() == at::ScalarType::Byte, op, ": ", cache_name,
              " must hold cache bytes (torch.uint8), but holds ", toString(cache.scalar_type()));
  const auto check = [op](const char* name, const at::Tensor& tensor) {
    TORCH_CHECK(tensor.numel() == 0 || tensor.size(3) == 1 || tensor.stride(3) == 1, op,
                ": the last dimension of ", name, " must have stride 1, but has ", tensor.stride(3));
  };
  check(first_name, first);
  check(cache_name, cache);
}

}  // namespace

at::Tensor query_key_fp8_matmul(const at::Tensor& query_argument, const at::Tensor& key_argument) {
  constexpr const char* op = "query_key_fp8_matmul";
  constexpr int rows = 32, head_size = 128, group_size = 32, sg_size = 16;
  check_shapes(op, "query", query_argument, "key", key_argument);
  const at::Tensor query = readable(op, "query", query_argument), key = readable(op, "key", key_argument);
  const std::int64_t batch = query.size(0), num_heads = query.size(1), input_size = query.size(2),
                     head_dim = query.size(3), num_kv_heads = key.size(1), length = key.size(2);
  TORCH_CHECK(query.size(0) == key.size(0), op, ": query.size(0) == key.size(0) is needed, but got ",
              query.size(0), " and ", key.size(0));
  TORCH_CHECK(query.size(3) == key.size(3), op, ": query.size(3) == key.size(3) is needed, but got ",
              query.size(3), " and ", key.size(3));
  check_heads(op, num_heads, num_kv_heads, input_size);
  TORCH_CHECK(head_dim == head_size, op, ": head_dim == 128 is needed, but got ", head_dim);

  at::Tensor result = new_tensor({batch, num_heads, 1, length}, query.options());
  dispatch_attention(query.scalar_type(), [&]<class T>(std::type_identity<T>) {
    check_elements(op, "query", query, "key", key);
    TORCH_CHECK(length <= 1 || key.numel() == 0 || key.stride(2) == head_size, op,
                ": the rows of key must lie 128 bytes apart, but key.stride(2) is ", key.stride(2));
    const auto padded = static_cast<std::size_t>((length + rows - 1) / rows * rows);
    submit(query.device(), [&](sycl::handler& command) {
      const sycl::local_accessor<T, 2> local({rows, group_size}, command);
      command.parallel_for(
          sycl::nd_range<3>({batch, num_heads, padded}, {1, 1, group_size}),
          query_key_fp8_matmul_kernel<T, rows, head_size, group_size, sg_size>{
              {query, key, result, length, static_cast<std::size_t>(num_heads / num_kv_heads), local}});
    });
  });
  return result;
}

at::Tensor attn_value_fp8_matmul(const at::Tensor& attn_argument, const at::Tensor& value_argument) {
  constexpr const char* op = "attn_value_fp8_matmul";
  constexpr int rows = 4, group_size = 32, sg_size = 16;
  check_shapes(op, "attn", attn_argument, "value", value_argument);
  const at::Tensor attn = readable(op, "attn", attn_argument), value = readable(op, "value", value_argument);
  const std::int64_t batch = attn.size(0), num_heads = attn.size(1), input_size = attn.size(2),
                     length = attn.size(3), num_kv_heads = value.size(1), head_dim = value.size(2);
  TORCH_CHECK(attn.size(0) == value.size(0), op, ": attn.size(0) == value.size(0) is needed, but got ",
              attn.size(0), " and ", value.size(0));
  TORCH_CHECK(attn.size(3) == value.size(3), op, ": attn.size(3) == value.size(3) is needed, but got ",
              attn.size(3), " and ", value.size(3));
  check_heads(op, num_heads, num_kv_heads, input_size);
  TORCH_CHECK(length <= std::numeric_limits<std::int32_t>::max(), op,
              ": at most 2147483647 positions are possible, but got ", length);

  at::Tensor result = new_tensor({batch, num_heads, 1, head_dim}, attn.options());
  dispatch_attention(attn.scalar_type(), [&]<class T>(std::type_identity<T>) {
    TORCH_CHECK(head_dim % rows == 0, op, ": head_dim % RS == 0 is needed, a multiple of 4, but got ",
                head_dim);
    check_elements(op, "attn", attn, "value", value);
    const auto items = static_cast<std::size_t>(head_dim / rows * group_size);
    submit(attn.device(), [&](sycl::handler& command) {
      const sycl::local_accessor<T, 2> local({rows, group_size}, command);
      command.parallel_for(
          sycl::nd_range<3>({batch, num_heads, items}, {1, 1, group_size}),
          attn_value_fp8_matmul_kernel<T, rows, group_size, sg_size>{
              {attn, value, result, length, static_cast<std::size_t>(num_heads / num_kv_heads), local},
              value.stride(2)});
    });
  });
  return result;
}

}  // namespace tolvane
