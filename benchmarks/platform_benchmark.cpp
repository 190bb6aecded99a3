// Measures what kernels lean on: memory through a queue against plain loops, barriers, an empty submission,
// and the vocabulary's operations. Prints the lowest time of several rounds; things compared take turns.

#include <sys/mman.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <limits>
#include <new>
#include <thread>
#include <vector>

#include "sycl/sycl.hpp"

namespace {

using spmd::bfloat16;
using spmd::half;

constexpr int threads = 2;

/// Seconds of the fastest of `rounds` runs of each function, which take turns.
std::vector<double> fastest(int rounds, const std::vector<std::function<void()>>& functions) {
  std::vector<double> best(functions.size(), std::numeric_limits<double>::infinity());
  for (int round = 0; round < rounds; ++round) {
    for (std::size_t f = 0; f < functions.size(); ++f) {
      const auto start = std::chrono::steady_clock::now();
      functions[f]();
      const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
      best[f] = std::min(best[f], taken.count());
    }
  }
  return best;
}

/// Elements in huge pages, touched once. Never given back: the process is short.
template <class T>
T* huge_array(std::size_t count, T value) {
  constexpr std::size_t huge_page = std::size_t{2} << 20;
  void* memory = std::aligned_alloc(huge_page, (count * sizeof(T) + huge_page - 1) / huge_page * huge_page);
  if (memory == nullptr) throw std::bad_alloc();
  madvise(memory, count * sizeof(T), MADV_HUGEPAGE);
  auto* array = static_cast<T*>(memory);
  std::fill(array, array + count, value);
  return array;
}

template <class Kernel>
void run(sycl::queue& queue, std::size_t groups, std::size_t group_size, const Kernel& kernel) {
  queue.submit([&](sycl::handler& command) {
    command.parallel_for(sycl::nd_range<1>(groups * group_size, group_size), kernel);
  });
}

// Memory

constexpr std::size_t buffer_bytes = std::size_t{256} << 20;
constexpr std::size_t element_count = buffer_bytes / sizeof(std::int32_t);
constexpr int elements_per_group = 64 << 10;

struct copy_kernel {
  const std::int32_t* from;
  std::int32_t* to;
  template <class Item>
  void operator()(const Item& item) const {
    const std::size_t base = item.get_group(0) * elements_per_group;
    spmd::strided<4>(item, elements_per_group, [&](const auto& first, auto live) {
      for (const int at : first) {
        spmd::store(to + base + at, spmd::load<Item::lanes>(from + base + at, live), live);
      }
    });
  }
};

struct sum_kernel {
  const std::int32_t* from;
  std::int32_t* sums;
  template <class Item>
  void operator()(const Item& item) const {
    const std::size_t base = item.get_group(0) * elements_per_group;
    spmd::varying<std::int32_t, Item> sum = 0;
    spmd::strided<4>(item, elements_per_group, [&](const auto& first, auto live) {
      for (const int at : first) sum = sum + spmd::load<Item::lanes>(from + base + at, live);
    });
    sums[item.get_group(0)] = spmd::tree_sum(sum);
  }
};

/// body(begin, end) on two threads of its own, half the elements each.
template <class Body>
void on_plain_threads(const Body& body) {
  std::thread other([&] { body(element_count / threads, element_count); });
  body(std::size_t{0}, element_count / threads);
  other.join();
}

void measure_memory(sycl::queue& queue) {
  auto* const from = huge_array<std::int32_t>(element_count, 3);
  auto* const to = huge_array<std::int32_t>(element_count, 0);
  constexpr std::size_t groups = element_count / elements_per_group;
  std::vector<std::int32_t> sums(groups);
  std::array<std::int32_t, threads> plain_sums{};

  const auto copy = fastest(15, {[&] {
                                   run(queue, groups, 32, copy_kernel{from, to});
                                 },
                                 [&] {
                                   on_plain_threads([&](std::size_t begin, std::size_t end) {
                                     for (std::size_t i = begin; i < end; ++i) to[i] = from[i];
                                   });
                                 }});
  const auto read = fastest(15, {[&] {
                                   run(queue, groups, 32, sum_kernel{from, sums.data()});
                                 },
                                 [&] {
                                   on_plain_threads([&](std::size_t begin, std::size_t end) {
                                     std::int32_t sum = 0;
                                     for (std::size_t i = begin; i < end; ++i) sum += from[i];
                                     plain_sums[begin > 0] = sum;
                                   });
                                 }});
  std::int32_t total = 0;
  for (const std::int32_t sum : sums) total += sum;
  if (total != plain_sums[0] + plain_sums[1] || to[element_count - 1] != 3) std::abort();

  const auto report = [](const char* name, const std::vector<double>& seconds, double bytes) {
    std::printf("%-34s %8.1f GB/s  plain loop %6.1f GB/s  share %4.0f%%\n", name, bytes / seconds[0] / 1e9,
                bytes / seconds[1] / 1e9, 100 * seconds[1] / seconds[0]);
  };
  report("copy of 256 MB (read and written)", copy, 2.0 * buffer_bytes);
  report("sum of 256 MB", read, 1.0 * buffer_bytes);
}

// Barriers and submissions

/// `Count` barriers, with a little local memory between them as a kernel would have it.
template <int Count>
struct barrier_kernel {
  sycl::local_accessor<std::int32_t> local;
  template <class Item>
  void operator()(const Item& item) const {
    auto* words = local.get(item) + item.first();
    for (int round = 0; round < 6; ++round) {
      words[0] = round;
      if constexpr (Count > 0) item.barrier();
    }
  }
};

void measure_barriers(sycl::queue& queue) {
  constexpr std::size_t groups = 2000;
  const auto with = [&]<int Count>(std::size_t group_size, std::integral_constant<int, Count>) {
    return [&queue, group_size] {
      queue.submit([&](sycl::handler& command) {
        const sycl::local_accessor<std::int32_t> local(group_size, command);
        command.parallel_for(sycl::nd_range<1>(groups * group_size, group_size),
                             barrier_kernel<Count>{local});
      });
    };
  };
  const std::integral_constant<int, 6> six;
  const std::integral_constant<int, 0> none;
  sycl::host::set_pool_threads(1);
  for (const int gangs : {1, 2, 4, 8}) {
    const auto size = static_cast<std::size_t>(gangs) * 32;
    const auto seconds = fastest(50, {with(size, six), with(size, none)});
    std::printf("barrier over %d gangs %26.1f ns per barrier and gang\n", gangs,
                1e9 * (seconds[0] - seconds[1]) / (groups * 6 * static_cast<double>(gangs)));
  }
}

struct empty_kernel {
  template <class Item>
  void operator()(const Item&) const {}
};

void measure_submissions(sycl::queue& queue) {
  constexpr int calls = 1000;
  for (const std::size_t groups : {1, 40, 4000}) {
    for (const int pool : {1, threads}) {
      sycl::host::set_pool_threads(pool);
      const auto seconds = fastest(20, {[&] {
                                     for (int call = 0; call < calls; ++call)
                                       run(queue, groups, 32, empty_kernel{});
                                   }});
      std::printf("submission of %4zu empty groups, %d threads %7.2f us\n", groups, pool,
                  1e6 * seconds[0] / calls);
    }
  }
}

// Operations

/// Applies Function to `rounds` runs over an array that stays in the nearest cache.
template <class T, class Function>
struct apply_kernel {
  static constexpr bool uses_sub_group = true;
  static constexpr int sub_group_size = 32;
  static constexpr int vectors = 16;
  static constexpr int rounds = 2000;
  const T* from;
  T* to;
  Function function;
  template <class Item>
  void operator()(const Item& item) const {
    for (int round = 0; round < rounds; ++round) {
      for (int v = 0; v < vectors; ++v) {
        const auto x = spmd::load<Item::lanes>(from + v * 32 + item.first());
        const spmd::varying<T, Item> y = function(item, x);
        spmd::store(to + v * 32 + item.first(), y);
      }
      asm volatile("" ::: "memory");
    }
  }
};

template <class T, class Function>
void measure_operation(sycl::queue& queue, const char* name, const Function& function) {
  using kernel = apply_kernel<T, Function>;
  std::array<T, kernel::vectors * 32> from, to;
  for (std::size_t i = 0; i < from.size(); ++i) from[i] = T(0.01f * static_cast<float>(i + 1));
  const auto seconds = fastest(15, {[&] { run(queue, 1, 32, kernel{from.data(), to.data(), function}); }});
  std::printf("%-34s %8.2f ns\n", name, 1e9 * seconds[0] / (kernel::vectors * kernel::rounds));
}

void measure_operations(sycl::queue& queue) {
  std::printf("per 32 lanes, load and store included:\n");
  const auto with = [&]<class T>(const char* name, T, const auto& function) {
    measure_operation<T>(queue, name, function);
  };
  const auto group = [](const auto& item) { return sycl::this_sub_group(item); };
  with("load and store, float", 0.0f, [](const auto&, const auto& x) { return x; });
  with("load and store, half", half(), [](const auto&, const auto& x) { return x; });
  with("load and store, bfloat16", bfloat16(), [](const auto&, const auto& x) { return x; });
  with("x * x, float", 0.0f, [](const auto&, const auto& x) { return x * x; });
  with("x * x, half", half(), [](const auto&, const auto& x) { return x * x; });
  with("x * x, bfloat16", bfloat16(), [](const auto&, const auto& x) { return x * x; });
  // NOLINTNEXTLINE(misc-redundant-expression): only the time counts
  with("x / x, float", 0.0f, [](const auto&, const auto& x) { return x / x; });
  with("mad, float", 0.0f, [](const auto&, const auto& x) { return spmd::mad(x, x, x); });
  with("mad, half", half(), [](const auto&, const auto& x) { return spmd::mad(x, x, x); });
  with("tree_sum, float", 0.0f,
       [](const auto&, const auto& x) { return std::remove_cvref_t<decltype(x)>(spmd::tree_sum(x)); });
  with("tree_sum, half", half(),
       [](const auto&, const auto& x) { return std::remove_cvref_t<decltype(x)>(spmd::tree_sum(x)); });
  with("permute_group_by_xor", 0.0f,
       [=](const auto& item, const auto& x) { return sycl::permute_group_by_xor(group(item), x, 8); });
  with("shift_group_left", 0.0f,
       [=](const auto& item, const auto& x) { return sycl::shift_group_left(group(item), x, 1); });
  with("select_from_group", 0.0f, [=](const auto& item, const auto& x) {
    return sycl::select_from_group(group(item), x, spmd::ramp<32>(0) & 7);
  });
  with("reduce_over_group, maximum", 0.0f, [=](const auto& item, const auto& x) {
    return std::remove_cvref_t<decltype(x)>(sycl::reduce_over_group(group(item), x, sycl::maximum<>()));
  });
  with("native::exp", 0.0f, [](const auto&, const auto& x) { return sycl::native::exp(x); });
  with("native::sin", 0.0f, [](const auto&, const auto& x) { return sycl::native::sin(x); });
  with("native::cos", 0.0f, [](const auto&, const auto& x) { return sycl::native::cos(x); });
  with("native::rsqrt", 0.0f, [](const auto&, const auto& x) { return sycl::native::rsqrt(x); });
  with("sqrt", 0.0f, [](const auto&, const auto& x) { return sycl::sqrt(x); });
  with("exp2", 0.0f, [](const auto&, const auto& x) { return sycl::exp2(x); });
  with("pow", 0.0f, [](const auto&, const auto& x) { return sycl::pow(x, x); });
  with("pown, n = 7", 0.0f, [](const auto&, const auto& x) { return sycl::pown(x, 7); });
  with("fmax", 0.0f, [](const auto&, const auto& x) { return sycl::fmax(x, x * 0.5f); });
  with("native::exp, half", half(), [](const auto&, const auto& x) { return sycl::native::exp(x); });
}

}  // namespace

int main() {
  sycl::queue queue;
  sycl::host::set_pool_threads(threads);
  measure_memory(queue);
  measure_barriers(queue);
  measure_submissions(queue);
  sycl::host::set_pool_threads(1);
  measure_operations(queue);
}
