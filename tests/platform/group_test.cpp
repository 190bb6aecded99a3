// Ids in one to three dimensions, shuffles and reductions, in both readings of a kernel, against plain loops.

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <random>
#include <stdexcept>
#include <type_traits>
#include <vector>

#include "sycl/sycl.hpp"

namespace {

using spmd::bfloat16;
using spmd::half;

/// Lane l of a varying value.
template <class V>
auto lane(const V& x, int l) {
  if constexpr (spmd::is_lanes<V>) {
    spmd::element<V> values[spmd::lane_count<V>];
    spmd::store(values, x);
    return values[l];
  } else {
    static_cast<void>(l);
    return x;
  }
}

// Index spaces

struct write_global_ids {
  long* output;
  template <class Item>
  void operator()(const Item& item) const {
    const auto z = item.get_global_id(0), y = item.get_global_id(1), x = item.get_global_id(2);
    const auto local = item.get_local_id(1);
    for (int l = 0; l < item.live(); ++l) {
      const long at = (lane(z, l) * static_cast<long>(item.get_global_range(1)) + lane(y, l)) *
                          static_cast<long>(item.get_global_range(2)) +
                      lane(x, l);
      output[at] += at + 1000000 * (1 + lane(local, l));
    }
  }
};

TEST(Ids, ThreeDimensionsLastFastest) {
  sycl::queue queue;
  const std::size_t global[3] = {4, 6, 35}, local[3] = {2, 3, 7};
  std::vector<long> output(4 * 6 * 35);
  queue.submit([&](sycl::handler& command) {
    command.parallel_for(sycl::nd_range<3>({4, 6, 35}, {2, 3, 7}), write_global_ids{output.data()});
  });
  for (std::size_t i = 0; i < output.size(); ++i) {
    ASSERT_EQ(output[i], static_cast<long>(i + 1000000 * (1 + i / global[2] % global[1] % local[1])));
  }
}

struct count_items {
  std::atomic<int>* visits;
  template <class Item>
  void operator()(const Item& item) const {
    const auto row = item.get_id(0), column = item.get_id(1), linear = item.get_linear_id();
    for (int l = 0; l < item.live(); ++l) {
      const auto at = lane(row, l) * static_cast<std::int64_t>(item.get_range(1)) + lane(column, l);
      if (at == lane(linear, l)) ++visits[at];
    }
  }
};

TEST(Ids, PlainRangesMaskTheSurplus) {
  sycl::queue queue;
  for (const auto& [rows, columns] : {std::pair{1, 1}, {3, 5}, {100, 33}, {7, 1000}, {0, 9}}) {
    std::vector<std::atomic<int>> visits(static_cast<std::size_t>(rows) * columns);
    queue.submit([&](sycl::handler& command) {
      command.parallel_for(sycl::range<2>(rows, columns), count_items{visits.data()});
    });
    for (const auto& count : visits) ASSERT_EQ(count.load(), 1);
  }
}

struct ids_past_32_bits {
  std::atomic<std::int64_t>* largest;
  template <class Item>
  void operator()(const Item& item) const {
    const auto last = static_cast<std::int64_t>(item.get_range(0)) - 1;
    if (item.first() + item.live() - 1 == last) *largest = lane(item.get_id(0), item.live() - 1);
  }
};

TEST(Ids, IndexSpacesPast32Bits) {
  sycl::queue queue;
  std::atomic<std::int64_t> largest{0};
  const std::size_t count = (std::size_t{1} << 31) + 5;
  if (spmd::gang_lanes > 1) {  // two billion gangs of one lane would take a minute
    queue.submit([&](sycl::handler& command) {
      command.parallel_for(sycl::range<1>(count), ids_past_32_bits{&largest});
    });
    EXPECT_EQ(largest.load(), static_cast<std::int64_t>(count - 1));
  }
  EXPECT_THROW(queue.submit([&](sycl::handler& command) {
    command.parallel_for(sycl::range<2>(std::size_t{1} << 40, std::size_t{1} << 40),
                         ids_past_32_bits{&largest});
  }),
               std::invalid_argument);
}

// Shuffles and reductions: a kernel for a sub-group of `Size`, whose results are compared with loops

template <class T, int Size>
struct shuffle_kernel {
  static constexpr bool uses_sub_group = true;
  static constexpr int sub_group_size = Size;
  const T* input;
  T* by_xor;    // [5][items]
  T* shifted;   // [3][items]
  T* selected;  // [items]
  T* sum;       // one per sub-group and group, [2][items]
  T* largest;
  int items;

  template <class Item>
  void operator()(const Item& item) const {
    const auto group = sycl::this_sub_group(item);
    const auto base = static_cast<std::int64_t>(item.get_group(0)) * item.group_size() + item.first();
    const auto x = spmd::load<Item::lanes>(input + base, live(item));
    const auto write = [&](T* out, const auto& value) {
      for (int l = 0; l < item.live(); ++l) out[base + l] = lane(value, l);
    };
    int row = 0;
    for (const int mask : {1, 2, 4, Size / 2, Size - 1})
      write(by_xor + items * row++, permute_group_by_xor(group, x, mask));
    row = 0;
    for (const int delta : {1, 5, Size / 2})
      write(shifted + items * row++, shift_group_left(group, x, delta));
    const auto own = group.get_local_linear_id();
    write(selected, select_from_group(group, x, (own * 7 + 3) % group.get_local_linear_range()));
    const T sub_sum = reduce_over_group(group, x, sycl::plus<>());
    const T sub_max = reduce_over_group(group, x, sycl::maximum<>());
    const T all_sum = reduce_over_group(item, x, sycl::plus<>());
    const T all_max = reduce_over_group(item, x, sycl::maximum<>());
    for (int l = 0; l < item.live(); ++l) {
      sum[base + l] = sub_sum;
      largest[base + l] = sub_max;
      sum[items + base + l] = all_sum;
      largest[items + base + l] = all_max;
    }
  }

  template <class Item>
  static auto live(const Item& item) {
    if constexpr (Item::lanes == 1) {
      return spmd::all_lanes<1>();
    } else {
      return spmd::first_lanes{item.live()};
    }
  }
};

/// The sum in the order of the tree, absent items being 0.
template <class T>
T tree(const T* values, int count, int size) {
  std::vector<T> entries(values, values + count);
  entries.resize(size, T(0.0f));
  for (int stride = size / 2; stride >= 1; stride /= 2) {
    for (int l = 0; l < stride; ++l) entries[l] = entries[l] + entries[l + stride];
  }
  return entries[0];
}

template <class T, int Size>
void check_shuffles(int group_size) {
  constexpr int groups = 3;
  const int items = groups * group_size;
  std::mt19937 random(5);
  std::normal_distribution<float> normal;
  std::vector<T> input(items), by_xor(5 * items), shifted(3 * items), selected(items), sum(2 * items),
      largest(2 * items);
  for (auto& value : input) value = T(normal(random));
  sycl::queue queue;
  queue.submit([&](sycl::handler& command) {
    command.parallel_for(sycl::nd_range<1>(items, group_size),
                         shuffle_kernel<T, Size>{input.data(), by_xor.data(), shifted.data(), selected.data(),
                                                 sum.data(), largest.data(), items});
  });
  for (int i = 0; i < items; ++i) {
    const int group = i / group_size * group_size;      // first item of the work-group
    const int sub = group + (i - group) / Size * Size;  // first item of the sub-group
    const int count = std::min(Size, group + group_size - sub);
    const int own = i - sub;
    int row = 0;
    for (const int mask : {1, 2, 4, Size / 2, Size - 1}) {
      const T actual = by_xor[items * row++ + i];
      if ((own ^ mask) < count) {
        ASSERT_EQ(actual, input[sub + (own ^ mask)]) << mask << " at " << i;
      }
    }
    row = 0;
    for (const int delta : {1, 5, Size / 2}) {
      ASSERT_EQ(shifted[items * row++ + i], input[own + delta < count ? i + delta : i])
          << delta << " at " << i;
    }
    ASSERT_EQ(selected[i], input[sub + (own * 7 + 3) % count]);
    ASSERT_EQ(sum[i], tree(&input[sub], count, Size));
    ASSERT_EQ(largest[i], *std::max_element(&input[sub], &input[sub] + count));
    T total = tree(&input[group], std::min(Size, group_size), Size);
    for (int part = Size; part < group_size; part += Size) {
      total = total + tree(&input[group + part], std::min(Size, group_size - part), Size);
    }
    ASSERT_EQ(sum[items + i], total);
    ASSERT_EQ(largest[items + i], *std::max_element(&input[group], &input[group] + group_size));
  }
}

template <class T>
class SubGroup : public testing::Test {};
using ShuffledTypes = testing::Types<float, double, half, bfloat16>;
TYPED_TEST_SUITE(SubGroup, ShuffledTypes);

TYPED_TEST(SubGroup, ShufflesAndReductions) {
  for (const int group_size : {1, 5, 16, 32, 40, 64, 256}) {
    check_shuffles<TypeParam, 8>(group_size);
    check_shuffles<TypeParam, 16>(group_size);
    check_shuffles<TypeParam, 32>(group_size);
  }
}

/// One sub-group reduces while the others wait at the work-group's barrier.
struct first_sub_group_reduces {
  static constexpr bool uses_sub_group = true;
  static constexpr int sub_group_size = 16;
  sycl::local_accessor<float, 2> local;
  float* output;
  template <class Item>
  void operator()(const Item& item) const {
    float* partial = local.get(item);
    const auto group = sycl::this_sub_group(item);
    const auto x = spmd::convert<float>(item.get_local_linear_id());
    partial[group.get_group_linear_id()] = reduce_over_group(group, x, sycl::plus<>());
    item.barrier(sycl::access::fence_space::local_space);
    if (group.get_group_linear_id() == 0) {
      const auto own = spmd::load<Item::lanes>(partial + item.first());
      partial[32] = reduce_over_group(group, own, sycl::plus<>());
    }
    item.barrier();
    if (item.first() == 0) output[item.get_group(0)] = partial[32];
  }
};

TEST(SubGroups, WorkIndependentlyOfEachOther) {
  sycl::queue queue;
  std::vector<float> output(40);
  queue.submit([&](sycl::handler& command) {
    const sycl::local_accessor<float, 2> local({2, 17}, command);
    EXPECT_EQ(local.size(), 34u);
    command.parallel_for(sycl::nd_range<1>(output.size() * 256, 256),
                         first_sub_group_reduces{local, output.data()});
  });
  for (const float sum : output) ASSERT_EQ(sum, 255 * 256 / 2);
}

}  // namespace
