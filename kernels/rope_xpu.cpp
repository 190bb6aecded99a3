// Rotary position embedding: a work-group turns the pairs of one row after the other.

#include "rope_xpu.h"

#include <c10/core/DeviceType.h>
#include <c10/util/Exception.h>

#include <algorithm>
#include <array>

#include "OffsetCalculator.h"
#include "checks.h"
#include "dispatch.h"
#include "spmd/spmd.hpp"
#include "submit.h"
#include "sycl/math.hpp"

namespace tolvane {
namespace {

constexpr const char* label = "apply_rotary_embedding";
constexpr std::int64_t max_groups = 32768;
constexpr std::int64_t max_local = 64;

/// Columns that are turned together where they stand side by side: a register of floats.
constexpr int run = spmd::gang_lanes == 1 ? 1 : 8;

/// Where gangs have many lanes the first one takes all columns of a row: finding the row costs as much as
/// turning 32 of its pairs.
constexpr bool first_gang_turns_all = spmd::gang_lanes > 1;

template <class V>
struct sine_and_cosine {
  V sine, cosine;
};

/// A tensor to rotate: NARGS tensors that are walked together, the output first, then the input.
template <class T, int NARGS>
struct rotated {
  std::array<T*, NARGS> data;
  OffsetCalculator<NARGS> offsets;
  std::uint32_t head_size;

  /// Where column 0 of a row stands in each tensor. A row never crosses the iterator's dimension 0, so that
  /// its other columns follow at that dimension's strides.
  std::array<T*, NARGS> row(std::uint32_t r) const {
    const auto at = offsets.get(r * head_size);
    std::array<T*, NARGS> start;
    for (int a = 0; a < NARGS; ++a) start[a] = data[a] + at[a];
    return start;
  }

  /// The turned pairs of `width` columns from `column` on, of the row at `start`. load(p) gives the elements
  /// of several columns, which stand side by side, from the first one's place on.
  template <int width, class Angle, class Load>
  [[gnu::always_inline]] auto turned(const std::array<T*, NARGS>& start, int half_dim, int column,
                                     const Angle& angle, const Load& load) const {
    const auto read = [&](int a, int c) [[gnu::always_inline]] {
      const auto step = width > 1 ? 1 : static_cast<std::int64_t>(offsets.strides_[0][a]);
      return load(start[a] + c * step);
    };
    const auto x0 = read(1, column), x1 = read(1, column + half_dim);
    const auto [sine, cosine] = angle(std::integral_constant<int, width>(), column, read);
    return std::array{spmd::mad(cosine, x0, -(sine * x1)), spmd::mad(cosine, x1, sine * x0)};
  }

  /// Turns the pairs of row r. `angle(width, column, read)` gives the sines and cosines of some columns;
  /// read(a, c) is tensor a's values there.
  template <class Item, class Angle>
  [[gnu::always_inline]] void turn(const Item& item, std::uint32_t r, const Angle& angle) const {
    const auto start = row(r);
    const int half_dim = static_cast<int>(head_size >> 1);
    const bool side_by_side =
        std::ranges::all_of(offsets.strides_[0], [](std::uint32_t stride) { return stride == 1; });
    int column = item.first();
    if constexpr (run > 1) {
      T* const out = start[0];
      const auto load = [](const T* p)
                            [[gnu::always_inline]] { return spmd::convert<float>(spmd::load<run>(p)); };
      if constexpr (std::same_as<T, bfloat16>) {  // whose loads and stores are cheaper by 16
        for (; side_by_side && column + 2 * run <= half_dim; column += 2 * run) {
          if constexpr (NARGS == 4) {  // all operands are tensors: any order of columns will do
            const auto split = [](const T* p) [[gnu::always_inline]] {
              return spmd::convert<float>(spmd::load_split<2 * run>(p));
            };
            const auto even =
                turned<run>(start, half_dim, column, angle,
                            [&](const T* p) [[gnu::always_inline]] { return spmd::lower(split(p)); });
            const auto odd =
                turned<run>(start, half_dim, column, angle,
                            [&](const T* p) [[gnu::always_inline]] { return spmd::upper(split(p)); });
            spmd::stream_split(out + column, spmd::joined(even[0], odd[0]), false);
            spmd::stream_split(out + column + half_dim, spmd::joined(even[1], odd[1]), false);
          } else {
            const auto low = turned<run>(start, half_dim, column, angle, load);
            const auto high = turned<run>(start, half_dim, column + run, angle, load);
            spmd::store(out + column, spmd::joined(low[0], high[0]));
            spmd::store(out + column + half_dim, spmd::joined(low[1], high[1]));
          }
        }
      }
      for (; side_by_side && column + run <= half_dim; column += run) {
        const auto values = turned<run>(start, half_dim, column, angle, load);
        spmd::store(out + column, values[0]);
        spmd::store(out + column + half_dim, values[1]);
      }
    }
    const int step = Item::lanes == 1 ? item.group_size() : 1;
    const auto stride = static_cast<std::int64_t>(offsets.strides_[0][0]);
    for (; column < half_dim; column += step) {
      const auto values = turned<1>(start, half_dim, column, angle, [](const T* p) [[gnu::always_inline]] {
        return spmd::convert<float>(spmd::load<1>(p));
      });
      spmd::store(start[0] + column * stride, values[0]);
      spmd::store(start[0] + (column + half_dim) * stride, values[1]);
    }
  }
};

/// The angles of tokens: position * 10000^(-2 c / D) in column c. What rows share is made once per
/// submission: the powers, and the sines and cosines of all positions while they are few enough to stay in a
/// cache.
struct position_angles {
  static constexpr std::int64_t largest_table = 1 << 18;
  static constexpr std::size_t tokens_per_piece = 32;

  const std::int64_t* position_ids;
  std::int64_t batch;
  std::int64_t batch_stride;
  std::int64_t stride;
  std::uint32_t seq;
  std::uint32_t head_size;
  const float* inv_freq = nullptr;
  const float* table = nullptr;

  /// Columns of a row of the tables: whole registers.
  std::uint32_t row_floats() const { return ((head_size >> 1) + run - 1) / run * run; }

  float position(std::int64_t b, std::int64_t s) const {
    return static_cast<float>(position_ids[b * batch_stride + s * stride]);
  }

  template <int width>
  [[gnu::always_inline]] auto angle(float position, int column) const {
    const auto angle = spmd::load<width>(inv_freq + column) * position;
    return sine_and_cosine<std::remove_const_t<decltype(angle)>>{sycl::native::sin(angle),
                                                                 sycl::native::cos(angle)};
  }

  void prepare(sycl::host::arena& memory) {
    constexpr float minus_two_log2_of_base = -26.575424194335938f;
    const float rope_ratio = sycl::exp2(minus_two_log2_of_base / static_cast<float>(head_size));
    auto* powers = memory.allocate<float>(row_floats());
    for (std::uint32_t column = 0; column < row_floats(); column += run) {
      using V = spmd::varying_t<float, run>;
      const auto exponent = spmd::convert<float>(spmd::ramp<run>(static_cast<int>(column)));
      spmd::store(powers + column, sycl::pow(V(rope_ratio), exponent));
    }
    inv_freq = powers;

    const auto tokens = static_cast<std::uint32_t>(batch * seq);
    if (batch * seq * row_floats() > largest_table) return;
    auto* const values = memory.allocate<float>(std::size_t{tokens} * 2 * row_floats());
    table = values;
    sycl::host::parallel_for_pieces(tokens, tokens_per_piece, [&](std::size_t begin, std::size_t end) {
      for (std::size_t token = begin; token < end; ++token) {
        float* const row = values + token * 2 * row_floats();
        const float at = position(token / seq, token % seq);
        for (std::uint32_t column = 0; column < row_floats(); column += run) {
          const auto turn = angle<run>(at, static_cast<int>(column));
          spmd::store(row + column, turn.sine);
          spmd::store(row + row_floats() + column, turn.cosine);
        }
      }
    });
  }

  /// Angles of a row of a tensor in which `rows_per_batch` rows, H * S, belong to one batch.
  [[gnu::always_inline]] auto of_row(std::uint32_t r, std::uint32_t rows_per_batch) const {
    const std::uint32_t b = batch == 1 ? 0 : r / rows_per_batch, s = r % seq;
    const float* const sines = table == nullptr ? nullptr : table + (b * seq + s) * 2 * row_floats();
    const float* const cosines = table == nullptr ? nullptr : sines + row_floats();
    return [this, b, s, sines, cosines]<int width>(std::integral_constant<int, width>, int column,
                                                   const auto&) [[gnu::always_inline]] {
      if (sines == nullptr) return angle<width>(position(b, s), column);
      const auto sine = spmd::load<width>(sines + column);
      return sine_and_cosine<std::remove_const_t<decltype(sine)>>{sine, spmd::load<width>(cosines + column)};
    };
  }
};

/// Calls body(row) for every row of the item's work-group.
template <class Item, class Body>
[[gnu::always_inline]] inline void for_rows(const Item& item, std::int64_t rows, const Body& body) {
  const auto groups = static_cast<std::int64_t>(item.get_group_range(1));
  for (auto row = static_cast<std::int64_t>(item.get_group(1)); row < rows; row += groups) body(row);
}

template <class T>
struct apply_rotary_embedding_half_kernel_q_and_k {
  static constexpr bool waits = false;
  static constexpr bool first_gang_works = first_gang_turns_all;
  std::int64_t q_rows, rows;
  rotated<T, 2> q, k;
  std::uint32_t q_seq, k_seq;
  position_angles angles;

  void prepare(sycl::host::arena& memory) { angles.prepare(memory); }

  template <class Item>
  void operator()(const Item& item) const {
    for_rows(item, rows, [&](std::int64_t row) [[gnu::always_inline]] {
      const bool of_q = row < q_rows;
      const auto r = static_cast<std::uint32_t>(of_q ? row : row - q_rows);
      (of_q ? q : k).turn(item, r, angles.of_row(r, of_q ? q_seq : k_seq));
    });
  }
};

template <class T>
struct apply_rotary_embedding_half_kernel_q_or_k {
  static constexpr bool waits = false;
  static constexpr bool first_gang_works = first_gang_turns_all;
  std::int64_t rows;
  rotated<T, 2> x;
  std::uint32_t x_seq;
  position_angles angles;
  bool backward;

  void prepare(sycl::host::arena& memory) { angles.prepare(memory); }

  template <class Item>
  void operator()(const Item& item) const {
    for_rows(item, rows, [&](std::int64_t row) [[gnu::always_inline]] {
      const auto r = static_cast<std::uint32_t>(row);
      const auto forward = angles.of_row(r, x_seq);
      x.turn(item, r, [&](auto width, int column, const auto& read) [[gnu::always_inline]] {
        auto turn = forward(width, column, read);
        if (backward) turn.sine = -turn.sine;
        return turn;
      });
    });
  }
};

/// Tensors 2 and 3 are the tables of sines and cosines.
template <class T>
struct apply_rotary_embedding_half_kernel_cache_freq {
  static constexpr bool waits = false;
  static constexpr bool first_gang_works = first_gang_turns_all;
  std::int64_t q_rows, rows;
  rotated<T, 4> q, k;

  template <class Item>
  void operator()(const Item& item) const {
    for_rows(item, rows, [&](std::int64_t row) [[gnu::always_inline]] {
      const bool of_q = row < q_rows;
      const auto r = static_cast<std::uint32_t>(of_q ? row : row - q_rows);
      (of_q ? q : k).turn(item, r, [](auto, int column, const auto& read) [[gnu::always_inline]] {
        const auto sine = read(2, column);
        return sine_and_cosine<std::remove_const_t<decltype(sine)>>{sine, read(3, column)};
      });
    });
  }
};

/// A work-group per row, up to 32768, each of as many work-items as a row has columns, up to 64.
template <class Kernel>
void launch(c10::Device device, std::int64_t rows, std::int64_t head_size, const Kernel& kernel) {
  const auto local = static_cast<std::size_t>(std::min(head_size, max_local));
  const auto groups = static_cast<std::size_t>(std::min(rows, max_groups));
  submit(device, [&](sycl::handler& command) {
    command.parallel_for(sycl::nd_range<2>({1, groups * local}, {1, local}), kernel);
  });
}

/// The walk over `tensors`, the output first. It keeps the order of the tensor's dimensions, so that a linear
/// index tells row and column whatever the strides are.
at::TensorIterator iterate(std::initializer_list<const at::Tensor*> tensors) {
  at::TensorIteratorConfig config;
  config.check_all_same_dtype(false).enforce_linear_iteration(true);
  for (const at::Tensor* const* tensor = tensors.begin(); tensor != tensors.end(); ++tensor) {
    if (tensor == tensors.begin()) {
      config.add_borrowed_output(**tensor);
    } else {
      config.add_borrowed_input(**tensor);
    }
  }
  return config.build();
}

/// A tensor to rotate with its calculator, before its element type is known.
template <int NARGS>
struct operand {
  std::array<const at::Tensor*, NARGS> tensors;
  OffsetCalculator<NARGS> offsets;

  template <class... Tensors>
  explicit operand(const at::Tensor& out, const Tensors&... in)
      : tensors{&out, &in...}, offsets(make_element_offset_calculator<NARGS>(iterate({&out, &in...}))) {}

  std::int64_t rows() const { return tensors[1]->numel() / tensors[1]->size(-1); }

  template <class T>
  rotated<T, NARGS> as() const {
    rotated<T, NARGS> result{{}, offsets, static_cast<std::uint32_t>(tensors[1]->size(-1))};
    for (int a = 0; a < NARGS; ++a) result.data[a] = elements<T>(*tensors[a]);
    return result;
  }
};

struct named {
  const char* name;
  const at::Tensor& tensor;
};

/// All are on one XPU device and of one type that kernels exist for, and each output has its input's sizes.
void check_tensors(std::initializer_list<named> tensors) {
  const auto& [first_name, first] = *tensors.begin();
  TORCH_CHECK(first.device().type() == c10::DeviceType::XPU, label, ": ", first_name,
              " must be a XPU tensor, but is on device ", first.device());
  check_floating(label, first);
  for (const auto& [name, tensor] : tensors) {
    TORCH_CHECK(tensor.device() == first.device(), label, ": ", name, " must be on ", first.device(), ", as ",
                first_name, " is, but is on ", tensor.device());
    TORCH_CHECK(tensor.scalar_type() == first.scalar_type(), label, ": ", name, " must be of ",
                toString(first.scalar_type()), ", as ", first_name, " is, but is of ",
                toString(tensor.scalar_type()));
  }
}

void check_output(const named& in, const named& out) {
  TORCH_CHECK(out.tensor.sizes() == in.tensor.sizes(), label, ": ", out.name, " must have the sizes of ",
              in.name, ", ", in.tensor.sizes(), ", but has ", out.tensor.sizes());
}

/// The table broadcasts to `x`, and not the other way round.
void check_table(const named& table, const named& x) {
  for (std::int64_t d = 0; d < x.tensor.dim(); ++d) {
    TORCH_CHECK(table.tensor.size(d) == 1 || table.tensor.size(d) == x.tensor.size(d), label, ": ",
                table.name, " must broadcast to the sizes of ", x.name, ", ", x.tensor.sizes(), ", but has ",
                table.tensor.sizes());
  }
}

void check_rank(std::initializer_list<const at::Tensor*> tensors, std::int64_t rank, const char* message) {
  for (const at::Tensor* tensor : tensors) {
    TORCH_CHECK(tensor->dim() == rank, message);
  }
}

void check_even(const at::Tensor& tensor) {
  TORCH_CHECK(tensor.size(-1) % 2 == 0, "The problem size should be divisible by 2");
}

/// One position per token of `x`.
void check_positions(const at::Tensor& position_ids, const named& x) {
  TORCH_CHECK(position_ids.scalar_type() == at::ScalarType::Long, label,
              ": position_ids must be of Long, but is of ", toString(position_ids.scalar_type()));
  TORCH_CHECK(position_ids.device() == x.tensor.device(), label, ": position_ids must be on ",
              x.tensor.device(), ", as ", x.name, " is, but is on ", position_ids.device());
  const std::int64_t batch = x.tensor.size(0), seq = x.tensor.size(2);
  TORCH_CHECK((position_ids.size(0) == batch || position_ids.size(0) == 1) && position_ids.size(1) == seq,
              label, ": position_ids must be [", batch, ", ", seq, "] or [1, ", seq, "] for ", x.name, " of ",
              x.tensor.sizes(), ", but is ", position_ids.sizes());
}

/// The outputs have memory to write, and are marked as changed.
void write_to(std::initializer_list<named> outputs) {
  for (const auto& [name, tensor] : outputs) check_writable(label, name, tensor);
  for (const auto& [name, tensor] : outputs) mark_written(tensor);
}

position_angles angles_of(const at::Tensor& position_ids, std::int64_t head_size) {
  return {position_ids.data_ptr<std::int64_t>(),
          position_ids.size(0),
          position_ids.stride(0),
          position_ids.stride(1),
          static_cast<std::uint32_t>(position_ids.size(1)),
          static_cast<std::uint32_t>(head_size)};
}

std::uint32_t rows_per_batch(const at::Tensor& x) {
  return static_cast<std::uint32_t>(x.size(1) * x.size(2));
}

constexpr const char* rank_message = "The dimensions of all tensor should be 4";
constexpr const char* positions_message = "The dimensions of position_ids should be 2";

}  // namespace

void apply_rotary_embedding_q_and_k(const at::Tensor& q, const at::Tensor& k, const at::Tensor& position_ids,
                                    at::Tensor& q_out, at::Tensor& k_out) {
  check_rank({&q, &k, &q_out, &k_out}, 4, rank_message);
  check_rank({&position_ids}, 2, positions_message);
  check_even(q);
  check_even(k);
  check_tensors({{"q", q}, {"k", k}, {"q_out", q_out}, {"k_out", k_out}});
  TORCH_CHECK(k.size(3) == q.size(3), label, ": q and k must have one head size, but have ", q.size(3),
              " and ", k.size(3));
  check_output({"q", q}, {"q_out", q_out});
  check_output({"k", k}, {"k_out", k_out});
  check_positions(position_ids, {"q", q});
  check_positions(position_ids, {"k", k});
  if (q.numel() + k.numel() == 0) return;

  const at::Tensor q_in = readable(label, "q", q), k_in = readable(label, "k", k),
                   positions = readable(label, "position_ids", position_ids);
  const operand<2> turned_q(q_out, q_in), turned_k(k_out, k_in);
  const std::int64_t rows = turned_q.rows() + turned_k.rows();
  write_to({{"q_out", q_out}, {"k_out", k_out}});
  dispatch_floating(label, q.scalar_type(), [&]<class T>(std::type_identity<T>) {
    launch(q.device(), rows, q.size(3),
           apply_rotary_embedding_half_kernel_q_and_k<T>{turned_q.rows(), rows, turned_q.as<T>(),
                                                         turned_k.as<T>(), rows_per_batch(q),
                                                         rows_per_batch(k), angles_of(positions, q.size(3))});
  });
}

void apply_rotary_embedding_q_or_k(const at::Tensor& x, const at::Tensor& position_ids, at::Tensor& x_out,
                                   bool backward) {
  check_rank({&x, &x_out}, 4, rank_message);
  check_rank({&position_ids}, 2, positions_message);
  check_even(x);
  check_tensors({{"x", x}, {"x_out", x_out}});
  check_output({"x", x}, {"x_out", x_out});
  check_positions(position_ids, {"x", x});
  if (x.numel() == 0) return;

  const at::Tensor x_in = readable(label, "x", x), positions = readable(label, "position_ids", position_ids);
  const operand<2> turned(x_out, x_in);
  write_to({{"x_out", x_out}});
  dispatch_floating(label, x.scalar_type(), [&]<class T>(std::type_identity<T>) {
    launch(x.device(), turned.rows(), x.size(3),
           apply_rotary_embedding_half_kernel_q_or_k<T>{turned.rows(), turned.as<T>(), rows_per_batch(x),
                                                        angles_of(positions, x.size(3)), backward});
  });
}

void apply_rotary_embedding_q_and_k_cache_freq(const at::Tensor& q, const at::Tensor& k,
                                               const at::Tensor& sin, const at::Tensor& cos,
                                               at::Tensor& q_out, at::Tensor& k_out) {
  check_rank({&q, &k, &sin, &cos, &q_out, &k_out}, q.dim(), "The dimensions of all tensor should be equal");
  TORCH_CHECK(q.dim() > 0, label, ": the tensors must have a last dimension of head_size, but have none");
  for (const at::Tensor& tensor : {k, sin, cos, q_out, k_out}) {
    TORCH_CHECK(tensor.size(-1) == q.size(-1), "The problem size of all tensor should be equal");
  }
  check_even(q);
  check_tensors({{"q", q}, {"k", k}, {"sin", sin}, {"cos", cos}, {"q_out", q_out}, {"k_out", k_out}});
  check_output({"q", q}, {"q_out", q_out});
  check_output({"k", k}, {"k_out", k_out});
  for (const named& x : {named{"q", q}, named{"k", k}}) {
    check_table({"sin", sin}, x);
    check_table({"cos", cos}, x);
  }
  if (q.numel() + k.numel() == 0) return;

  const at::Tensor q_in = readable(label, "q", q), k_in = readable(label, "k", k),
                   sines = readable(label, "sin", sin), cosines = readable(label, "cos", cos);
  const operand<4> turned_q(q_out, q_in, sines, cosines), turned_k(k_out, k_in, sines, cosines);
  const std::int64_t rows = turned_q.rows() + turned_k.rows();
  write_to({{"q_out", q_out}, {"k_out", k_out}});
  dispatch_floating(label, q.scalar_type(), [&]<class T>(std::type_identity<T>) {
    launch(q.device(), rows, q.size(-1),
           apply_rotary_embedding_half_kernel_cache_freq<T>{turned_q.rows(), rows, turned_q.as<T>(),
                                                            turned_k.as<T>()});
  });
}

}  // namespace tolvane
