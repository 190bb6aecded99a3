// RWKV layers: recurrent attention of versions 4 and 5, and the mixes of hidden states with their shifted
// copy.

#include "rwkv.h"
#include "new_tensor.h"

#include <c10/util/Exception.h>

#include <array>
#include <cmath>
#include <stdexcept>
#include <type_traits>
#include <utility>

#include "checks.h"
#include "dispatch.h"
#include "spmd/spmd.hpp"
#include "submit.h"
#include "sycl/math.hpp"

namespace tolvane {
namespace {

/// The larger one: of NaNs the other in float; in the reduced types b unless a is larger.
template <class T, class V>
[[gnu::always_inline]] inline V larger(const V& a, const V& b) {
  if constexpr (std::same_as<T, float>) {
    return sycl::fmax(a, b);
  } else {
    return spmd::select(a > b, a, b);
  }
}

/// A work-item per (batch entry, channel) runs through the sequence.
template <class TT, class IT>
struct rwkv_linear_attention_kernel_v4 {
  static constexpr int sub_group_size = 16;

  const TT* time_decay;
  const TT* time_first;
  const IT* key;
  const IT* value;
  IT* out;
  IT* num_state;
  IT* den_state;
  IT* max_state;
  std::int64_t tokens;
  std::int64_t channels;

  template <class Item>
  void operator()(const Item& item) const {
    constexpr int n = Item::lanes;
    using vec = spmd::varying<IT, Item>;
    // Assign
    const auto b = static_cast<std::int64_t>(item.get_group(0));
    const auto c = static_cast<std::int64_t>(item.get_group(1)) * item.group_size() + item.first();
    const std::int64_t state = b * channels + c;
    const vec w = spmd::convert<IT>(spmd::load<n>(time_decay + c));
    const vec u = spmd::convert<IT>(spmd::load<n>(time_first + c));
    vec num = spmd::load<n>(num_state + state);
    vec den = spmd::load<n>(den_state + state);
    vec max = spmd::load<n>(max_state + state);
    // Walk
    for (std::int64_t t = 0; t < tokens; ++t) {
      const std::int64_t at = (b * tokens + t) * channels + c;
      const vec k = spmd::load<n>(key + at), v = spmd::load<n>(value + at);
      {
        const vec bonus = k + u;
        const vec p = larger<IT>(max, bonus);
        const vec e1 = sycl::native::exp(max - p), e2 = sycl::native::exp(bonus - p);
        const vec numerator = e1 * num + e2 * v, denominator = e1 * den + e2;
        spmd::store(out + at, vec(numerator / denominator));
      }
      const vec decayed = max + w;
      const vec p = larger<IT>(decayed, k);
      const vec e1 = sycl::native::exp(decayed - p), e2 = sycl::native::exp(k - p);
      num = e1 * num + e2 * v;
      den = e1 * den + e2;
      max = p;
    }
    // Write
    spmd::store(num_state + state, num);
    spmd::store(den_state + state, den);
    spmd::store(max_state + state, max);
  }
};

/// A work-item per column of a head's state keeps that column through the sequence.
template <int head_size>
struct rwkv_linear_attention_kernel_v5 {
  static constexpr int sub_group_size = 16;

  const float* time_decay;
  const float* time_first;
  const float* receptance;
  const float* key;
  const float* value;
  float* state;
  float* out;
  std::int64_t tokens;
  std::array<std::int64_t, 3> strides;
  std::array<std::int64_t, 2> out_strides;
  std::int64_t state_stride;

  template <class Item>
  void operator()(const Item& item) const {
    constexpr int n = Item::lanes;
    using vec = spmd::varying<float, Item>;
    // Assign
    const auto b = static_cast<std::int64_t>(item.get_group(0));
    const auto h = static_cast<std::int64_t>(item.get_group(1));
    const auto j = static_cast<std::int64_t>(item.get_group(2)) * item.group_size() + item.first();
    const float* decay = time_decay + h * head_size;
    const float* first = time_first + h * head_size;
    float* column = state + b * state_stride + h * head_size * head_size + j;
    float* result = out + b * out_strides[0] + h * head_size + j;
    std::int64_t token = b * strides[0] + h * strides[1];
    std::array<vec, head_size> s;
    for (int i = 0; i < head_size; ++i) s[i] = spmd::load<n>(column + i * head_size);
    // Walk
    for (std::int64_t t = 0; t < tokens; ++t, token += strides[2], result += out_strides[1]) {
      const vec v = spmd::load<n>(value + token + j);
      vec acc = 0.0f;
      for (int i = 0; i < head_size; ++i) {
        const vec kv = v * spmd::load<1>(key + token + i);
        const vec r = spmd::load<1>(receptance + token + i);
        acc = spmd::mad(r, spmd::mad(vec(spmd::load<1>(first + i)), kv, s[i]), acc);
        s[i] = spmd::mad(vec(spmd::load<1>(decay + i)), s[i], kv);
      }
      spmd::store(result, acc);
    }
    // Write
    for (int i = 0; i < head_size; ++i) spmd::store(column + i * head_size, s[i]);
  }
};

/// A work-item per element of the hidden states makes all its mixes.
template <class IT, class MT>
struct rwkv_time_shift_kernel {
  static constexpr int sub_group_size = 32;
  static constexpr bool waits = false;

  const IT* hidden;
  const IT* shifted;
  const MT* mix;
  IT* out;
  std::int64_t mixes;
  std::int64_t batch;
  std::int64_t tokens;
  std::int64_t channels;
  bool streams;

  /// bfloat16 has a form of its own, x a + s (1 - a), and 1 - a is made once for all rows. The others take
  /// s + a (x - s). Of the reduced types every step rounds, the product too; float contracts.
  static constexpr bool by_products = std::same_as<IT, bfloat16>;
  const IT* rests = nullptr;
  void prepare(sycl::host::arena& memory) {
    if constexpr (by_products) {
      const auto count = static_cast<std::size_t>(mixes * channels);
      auto* rest = memory.allocate<IT>(count);
      for (std::size_t i = 0; i < count; i += 8)
        spmd::store(rest + i, spmd::lanes<IT, 8>(IT(1.0f)) - spmd::load<8>(mix + i));
      rests = rest;
    }
  }

  template <class Item>
  void operator()(const Item& item) const {
    constexpr int n = Item::lanes;
    using vec = spmd::varying<IT, Item>;
    // Assign
    const auto row =
        static_cast<std::int64_t>(item.get_group(0)) * tokens + static_cast<std::int64_t>(item.get_group(1));
    const auto c = static_cast<std::int64_t>(item.get_group(2)) * item.group_size() + item.first();
    const std::int64_t at = row * channels + c;
    const auto read = [](const auto* p) [[gnu::always_inline]] {
      if constexpr (by_products) {
        return spmd::load_split<n>(p);
      } else {
        return spmd::load<n>(p);
      }
    };
    const auto wide = [](const vec& v) [[gnu::always_inline]] { return spmd::convert<float>(v); };
    const vec x = read(hidden + at), s = read(shifted + at), difference = x - s;
    // Read once: for all that the compiler knows, a store of the result may change a member.
    const std::int64_t count = mixes, step = channels, plane = batch * tokens * channels;
    const bool past_caches = streams;
    const MT* factor = mix + c;
    IT* to = out + at;
    // Walk, Write
    for (std::int64_t m = 0; m < count; ++m, factor += step, to += plane) {
      const vec a = spmd::convert<IT>(read(factor));
      if constexpr (by_products) {
        const vec rest = read(rests + (factor - mix));
        spmd::stream_split(to, wide(x * a) + wide(s * rest), past_caches);
      } else if constexpr (spmd::reduced<IT>) {
        spmd::stream(to, wide(s) + wide(a * difference), past_caches);
      } else {
        spmd::stream(to, spmd::mad(wide(a), wide(difference), wide(s)), past_caches);
      }
    }
  }
};

void check_groups(const char* op, std::int64_t hidden_size, std::int64_t group_size) {
  TORCH_CHECK(hidden_size % group_size == 0, op, ": hidden_size % GS == 0 is needed, a multiple of ",
              group_size, ", but got ", hidden_size);
}

/// `tensor` is on the device, contiguous, and has this shape.
void check_shape(const char* op, const char* name, const at::Tensor& tensor, at::IntArrayRef shape) {
  check_xpu(op, name, tensor);
  TORCH_CHECK(tensor.sizes() == shape, op, ": ", name, " must have shape ", shape, ", but has ",
              tensor.sizes());
}

/// `tensor` is on the device, contiguous, and as large as this shape at least, so that a kernel that reads
/// the shape from its first element on stays inside.
void check_holds(const char* op, const char* name, const at::Tensor& tensor, at::IntArrayRef shape) {
  check_xpu(op, name, tensor);
  TORCH_CHECK(tensor.numel() >= c10::multiply_integers(shape), op, ": ", name, " must have shape ", shape,
              ", or at least as many elements, but has ", tensor.sizes());
}

/// `tensor` holds the same element type as `like`.
void check_same_type(const char* op, const char* name, const at::Tensor& tensor, const char* like_name,
                     const at::Tensor& like) {
  TORCH_CHECK(tensor.scalar_type() == like.scalar_type(), op, ": ", name, " must have the element type of ",
              like_name, ", ", toString(like.scalar_type()), ", but has ", toString(tensor.scalar_type()));
}

/// Whether both tensors have the same sizes and their elements the same offsets.
bool same_layout(const at::Tensor& a, const at::Tensor& b) {
  if (a.sizes() != b.sizes()) return false;
  if (a.numel() == 0) return true;
  for (std::int64_t d = 0; d < a.dim(); ++d) {
    if (a.size(d) > 1 && a.stride(d) != b.stride(d)) return false;
  }
  return true;
}

/// Calls body(std::type_identity<IT>(), std::type_identity<MT>()) for activations of type `type` and
/// parameters of type `parameters`, if kernels exist for the pair.
template <class Body>
void dispatch_pair(at::ScalarType type, at::ScalarType parameters, const Body& body) {
  using at::ScalarType;
  if (type == ScalarType::Float && parameters == ScalarType::BFloat16) {
    body(std::type_identity<float>(), std::type_identity<bfloat16>());
  } else if (type == ScalarType::Float && parameters == ScalarType::Float) {
    body(std::type_identity<float>(), std::type_identity<float>());
  } else if (type == ScalarType::BFloat16 && parameters == ScalarType::BFloat16) {
    body(std::type_identity<bfloat16>(), std::type_identity<bfloat16>());
  } else if (type == ScalarType::Half && parameters == ScalarType::Half) {
    body(std::type_identity<half>(), std::type_identity<half>());
  } else {
    throw std::runtime_error("unsupported dtype");
  }
}

/// Whether a result that is written once should go past the caches: one that does not fit them.
bool streams(const at::Tensor& result) {
  constexpr std::size_t cache_bytes = std::size_t{16} << 20;
  return result.nbytes() > cache_bytes && reinterpret_cast<std::uintptr_t>(result.data_ptr()) % 64 == 0;
}

}  // namespace

at::Tensor rwkv_linear_attention_v4(at::Tensor time_decay, at::Tensor time_first, at::Tensor key,
                                    at::Tensor value, at::Tensor num_state, at::Tensor den_state,
                                    at::Tensor max_state) {
  constexpr const char* op = "rwkv_linear_attention_v4";
  constexpr int group_size = 32;
  TORCH_CHECK(time_decay.dim() == 1 && time_first.dim() == 1, op,
              ": time_decay.dim() == 1 && time_first.dim() == 1 is needed, but got ", time_decay.dim(),
              " and ", time_first.dim());
  TORCH_CHECK(key.dim() == 3 && value.dim() == 3, op,
              ": key.dim() == 3 && value.dim() == 3 is needed, but got ", key.dim(), " and ", value.dim());
  TORCH_CHECK(num_state.dim() == 2 && den_state.dim() == 2 && max_state.dim() == 2, op,
              ": num_state.dim() == 2 && den_state.dim() == 2 && max_state.dim() == 2 is needed, but got ",
              num_state.dim(), ", ", den_state.dim(), " and ", max_state.dim());
  const std::int64_t batch = key.size(0), tokens = key.size(1), channels = key.size(2);
  check_xpu(op, "key", key);
  check_shape(op, "value", value, key.sizes());
  check_shape(op, "time_decay", time_decay, {channels});
  check_shape(op, "time_first", time_first, {channels});
  check_same_type(op, "time_first", time_first, "time_decay", time_decay);
  check_same_type(op, "value", value, "key", key);
  for (const auto& [name, state] :
       {std::pair{"num_state", num_state}, {"den_state", den_state}, {"max_state", max_state}}) {
    check_shape(op, name, state, {batch, channels});
    check_same_type(op, name, state, "key", key);
    check_writable(op, name, state);
  }
  key = readable(op, "key", std::move(key));
  value = readable(op, "value", std::move(value));
  time_decay = readable(op, "time_decay", std::move(time_decay));
  time_first = readable(op, "time_first", std::move(time_first));

  at::Tensor result = new_tensor({batch, tokens, channels}, key.options());
  dispatch_pair(key.scalar_type(), time_decay.scalar_type(),
                [&]<class IT, class TT>(std::type_identity<IT>, std::type_identity<TT>) {
                  check_groups(op, channels, group_size);
                  for (const at::Tensor* state : {&num_state, &den_state, &max_state}) mark_written(*state);
                  submit(key.device(), [&](sycl::handler& command) {
                    command.parallel_for(
                        sycl::nd_range<2>({batch, channels}, {1, group_size}),
                        rwkv_linear_attention_kernel_v4<TT, IT>{
                            elements<TT>(time_decay), elements<TT>(time_first), elements<IT>(key),
                            elements<IT>(value), elements<IT>(result), elements<IT>(num_state),
                            elements<IT>(den_state), elements<IT>(max_state), tokens, channels});
                  });
                });
  return result;
}

at::Tensor rwkv_linear_attention_v5(at::Tensor time_decay, at::Tensor time_first, at::Tensor receptance,
                                    at::Tensor key, at::Tensor value, at::Tensor state) {
  constexpr const char* op = "rwkv_linear_attention_v5";
  constexpr int head_size = 64, group_size = 32;
  TORCH_CHECK(time_decay.dim() == 2 && time_first.dim() == 2, op,
              ": time_decay.dim() == 2 && time_first.dim() == 2 is needed, but got ", time_decay.dim(),
              " and ", time_first.dim());
  TORCH_CHECK(
      receptance.dim() == 4 && key.dim() == 4 && value.dim() == 4 && state.dim() == 4, op,
      ": receptance.dim() == 4 && key.dim() == 4 && value.dim() == 4 && state.dim() == 4 is needed, but "
      "got ",
      receptance.dim(), ", ", key.dim(), ", ", value.dim(), " and ", state.dim());
  TORCH_CHECK(
      time_decay.is_contiguous() && time_first.is_contiguous() && state.is_contiguous(), op,
      ": time_decay.is_contiguous() && time_first.is_contiguous() && state.is_contiguous() is needed, but "
      "got ",
      time_decay.is_contiguous(), ", ", time_first.is_contiguous(), " and ", state.is_contiguous());
  receptance = readable(op, "receptance", std::move(receptance));
  key = readable(op, "key", std::move(key));
  value = readable(op, "value", std::move(value));
  time_decay = readable(op, "time_decay", std::move(time_decay));
  time_first = readable(op, "time_first", std::move(time_first));
  check_writable(op, "state", state);
  const std::int64_t batch = key.size(0), heads = key.size(1), tokens = key.size(2), head_dim = key.size(3);
  TORCH_CHECK(head_dim == head_size, op, ": head_dim == 64 is needed, but got ", head_dim);
  check_shape(op, "time_decay", time_decay, {heads, head_size});
  check_shape(op, "time_first", time_first, {heads, head_size});
  check_shape(op, "state", state, {batch, heads, head_size, head_size});
  for (const auto& [name, tensor] : {std::pair{"receptance", receptance}, {"key", key}, {"value", value}}) {
    TORCH_CHECK(tensor.device() == state.device(), op, ": ", name, " must be on ", state.device(),
                ", but is on ", tensor.device());
    TORCH_CHECK(same_layout(tensor, key), op, ": ", name, " must have the sizes and strides of key, ",
                key.sizes(), " and ", key.strides(), ", but has ", tensor.sizes(), " and ", tensor.strides());
    TORCH_CHECK(tensor.numel() == 0 || tensor.stride(3) == 1, op, ": the last dimension of ", name,
                " must have stride 1, but has ", tensor.stride(3));
  }

  at::Tensor result = new_tensor({batch, tokens, heads, head_size}, key.options());
  const rwkv_linear_attention_kernel_v5<head_size> kernel{time_decay.data_ptr<float>(),
                                                          time_first.data_ptr<float>(),
                                                          receptance.data_ptr<float>(),
                                                          key.data_ptr<float>(),
                                                          value.data_ptr<float>(),
                                                          state.data_ptr<float>(),
                                                          elements<float>(result),
                                                          tokens,
                                                          {key.stride(0), key.stride(1), key.stride(2)},
                                                          {tokens * heads * head_size, heads * head_size},
                                                          heads * head_size * head_size};
  mark_written(state);
  submit(key.device(), [&](sycl::handler& command) {
    command.parallel_for(sycl::nd_range<3>({batch, heads, head_size}, {1, 1, group_size}), kernel);
  });
  return result;
}

at::Tensor rwkv_time_shift(at::Tensor hidden, at::Tensor shifted, at::Tensor mix) {
  constexpr const char* op = "rwkv_time_shift";
  constexpr int group_size = 64;
  TORCH_CHECK(hidden.dim() == 3 && shifted.dim() == 3 && mix.dim() == 3, op,
              ": hidden.dim() == 3 && shifted.dim() == 3 && mix.dim() == 3 is needed, but got ", hidden.dim(),
              ", ", shifted.dim(), " and ", mix.dim());
  TORCH_CHECK(hidden.size(2) == shifted.size(2) && hidden.size(2) == mix.size(2), op,
              ": hidden.size(2) == shifted.size(2) && hidden.size(2) == mix.size(2) is needed, but got ",
              hidden.size(2), ", ", shifted.size(2), " and ", mix.size(2));
  TORCH_CHECK(
      hidden.is_contiguous() && shifted.is_contiguous() && mix.is_contiguous(), op,
      ": hidden.is_contiguous() && shifted.is_contiguous() && mix.is_contiguous() is needed, but got ",
      hidden.is_contiguous(), ", ", shifted.is_contiguous(), " and ", mix.is_contiguous());
  const std::int64_t batch = hidden.size(0), tokens = hidden.size(1), channels = hidden.size(2),
                     mixes = mix.size(0);
  check_xpu(op, "hidden", hidden);
  check_holds(op, "shifted", shifted, hidden.sizes());
  check_same_type(op, "shifted", shifted, "hidden", hidden);
  check_holds(op, "mix", mix, {mixes, 1, channels});
  hidden = readable(op, "hidden", std::move(hidden));
  shifted = readable(op, "shifted", std::move(shifted));
  mix = readable(op, "mix", std::move(mix));

  at::Tensor result = new_tensor({mixes, batch, tokens, channels}, hidden.options());
  dispatch_pair(hidden.scalar_type(), mix.scalar_type(),
                [&]<class IT, class MT>(std::type_identity<IT>, std::type_identity<MT>) {
                  check_groups(op, channels, group_size);
                  submit(hidden.device(), [&](sycl::handler& command) {
                    command.parallel_for(
                        sycl::nd_range<3>({batch, tokens, channels}, {1, 1, group_size}),
                        rwkv_time_shift_kernel<IT, MT>{elements<IT>(hidden), elements<IT>(shifted),
                                                       elements<MT>(mix), elements<IT>(result), mixes, batch,
                                                       tokens, channels, streams(result)});
                  });
                });
  return result;
}

}  // namespace tolvane
