// Submissions: index spaces, gangs and barriers, local memory, faults inside kernels, the pool, fork.

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <numeric>
#include <stdexcept>
#include <thread>
#include <vector>

#include "sycl/sycl.hpp"

namespace {

/// Calls body(local id) for every work-item of the gang.
template <class Item, class Body>
void for_each_item(const Item& item, const Body& body) {
  for (int l = 0; l < item.live(); ++l) body(item.first() + l);
}

template <class Kernel>
sycl::event run(sycl::queue& queue, std::size_t groups, std::size_t group_size, const Kernel& kernel) {
  return queue.submit([&](sycl::handler& command) {
    command.parallel_for(sycl::nd_range<1>(groups * group_size, group_size), kernel);
  });
}

struct count_visits {
  std::atomic<int>* visits;
  template <class Item>
  void operator()(const Item& item) const {
    for_each_item(item, [&](int l) { ++visits[item.get_group(0) * item.get_local_range(0) + l]; });
  }
};

TEST(Launch, EveryWorkItemRunsOnce) {
  sycl::queue queue;
  for (const std::size_t size : {1, 7, 16, 31, 32, 33, 64, 100}) {
    for (const std::size_t groups : {1, 2, 41, 1000}) {
      std::vector<std::atomic<int>> visits(groups * size);
      run(queue, groups, size, count_visits{visits.data()});
      for (const auto& count : visits) ASSERT_EQ(count.load(), 1) << size << " x " << groups;
    }
  }
  run(queue, 0, 32, count_visits{nullptr});  // no work-groups: nothing runs
}

/// Each round adds the neighbour's value, which only a barrier makes visible: a wrong order changes the
/// result.
struct neighbour_sums {
  int rounds;
  sycl::local_accessor<long> local;
  long* output;
  template <class Item>
  void operator()(const Item& item) const {
    long* values = local.get(item);
    const int size = item.group_size();
    for_each_item(item, [&](int l) { values[l] = l + 1; });
    for (int round = 0; round < rounds; ++round) {
      item.barrier();
      std::vector<long> next;
      for_each_item(item, [&](int l) { next.push_back(values[l] + values[(l + 1) % size] % 1000); });
      item.barrier();
      for_each_item(item, [&](int l) { values[l] = next[l - item.first()]; });
    }
    item.barrier();
    if (item.first() == 0) output[item.get_group(0)] = std::accumulate(values, values + size, 0L);
  }
};

TEST(Launch, BarriersSeparatePhasesOfAllGangs) {
  sycl::queue queue;
  for (const int size : {8, 32, 64, 96, 128, 250}) {
    std::vector<long> values(size), next(size);
    std::iota(values.begin(), values.end(), 1);
    for (int round = 0; round < 5; ++round) {
      for (int l = 0; l < size; ++l) next[l] = values[l] + values[(l + 1) % size] % 1000;
      values.swap(next);
    }
    const long expected = std::accumulate(values.begin(), values.end(), 0L);
    std::vector<long> output(50);
    queue.submit([&](sycl::handler& command) {
      const sycl::local_accessor<long> local(static_cast<std::size_t>(size), command);
      command.parallel_for(sycl::nd_range<1>(output.size() * size, size),
                           neighbour_sums{5, local, output.data()});
    });
    for (const long sum : output) ASSERT_EQ(sum, expected) << size;
  }
}

struct throws_in_group {
  std::size_t group;
  int gang;
  template <class Item>
  void operator()(const Item& item) const {
    item.barrier();
    if (item.get_group(0) == group && item.first() == gang * Item::lanes)
      throw std::runtime_error("kernel fault");
    item.barrier();
  }
};

struct leaves_before_barrier {
  bool first_leaves;
  template <class Item>
  void operator()(const Item& item) const {
    if ((item.first() == 0) == first_leaves) return;
    item.barrier();
  }
};

TEST(Launch, FaultsReachTheCallerAndTheQueueGoesOn) {
  sycl::queue queue;
  for (const int gang : {0, 1, 2}) {
    EXPECT_THROW(run(queue, 100, 96, throws_in_group{57, gang}), std::runtime_error) << gang;
    EXPECT_NO_THROW(run(queue, 100, 96, throws_in_group{1000, gang}));
  }
  EXPECT_THROW(run(queue, 1, 96, leaves_before_barrier{true}), std::logic_error);
  EXPECT_THROW(run(queue, 1, 96, leaves_before_barrier{false}), std::logic_error);
  EXPECT_NO_THROW(run(queue, 3, 96, throws_in_group{1000, 0}));
}

TEST(Launch, RefusesRangesThatCannotRunAndRecordsNothing) {
  sycl::queue queue(sycl::device("small", 64));
  const auto before = sycl::host::submission_count();
  const auto submit = [&](std::size_t global, std::size_t local) {
    queue.submit([&](sycl::handler& command) {
      command.parallel_for(sycl::nd_range<1>(global, local), leaves_before_barrier{true});
    });
  };
  EXPECT_THROW(submit(100, 0), std::invalid_argument);
  EXPECT_THROW(submit(100, 32), std::invalid_argument);
  try {
    submit(256, 128);
    ADD_FAILURE() << "a work-group was too large";
  } catch (const std::invalid_argument& error) {
    EXPECT_STREQ(
        error.what(),
        "nd_range with global size {256} and local size {128}: the device's largest work-group has 64 "
        "work-items");
  }
  EXPECT_EQ(sycl::host::submission_count(), before);
}

/// Several threads submit at once, and a forked child submits after its parent's pool has worked.
TEST(Launch, ThreadsAndForkedChildren) {
  const auto sums_are_right = [] {
    sycl::queue queue;
    for (int round = 0; round < 50; ++round) {
      std::vector<std::atomic<int>> visits(64 * 100);
      run(queue, 100, 64, count_visits{visits.data()});
      for (const auto& count : visits) {
        if (count.load() != 1) return false;
      }
    }
    return true;
  };
  std::atomic<int> right{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) threads.emplace_back([&] { right += sums_are_right(); });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(right.load(), 4);

#if !defined(__SANITIZE_THREAD__)  // which does not follow threads started after fork
  const pid_t child = fork();
  if (child == 0) _exit(sums_are_right() ? 0 : 1);
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
#endif
  EXPECT_TRUE(sums_are_right());
}

TEST(Pool, DealsEveryPieceOnceAndPassesOnTheFirstError) {
  std::vector<int> hits(1001);
  sycl::host::parallel_for_pieces(hits.size(), 10, [&](std::size_t begin, std::size_t end) {
    for (std::size_t i = begin; i < end; ++i) ++hits[i];
  });
  EXPECT_EQ(hits, std::vector<int>(1001, 1));
  EXPECT_THROW(sycl::host::parallel_for_pieces(100, 1,
                                               [](std::size_t begin, std::size_t) {
                                                 if (begin == 60) throw std::out_of_range("60");
                                               }),
               std::out_of_range);
  // A piece may start a job of its own, which its thread then does alone.
  std::atomic<int> inner{0};
  sycl::host::parallel_for_pieces(4, 1, [&](std::size_t, std::size_t) {
    sycl::host::parallel_for_pieces(5, 1, [&](std::size_t, std::size_t) { ++inner; });
  });
  EXPECT_EQ(inner.load(), 20);
}

/// Where a worker shared the launching thread's CPU, it would begin when the launching thread waits.
TEST(Pool, WorkersRunBesideTheLaunchingThread) {
  cpu_set_t usable;
  ASSERT_EQ(sched_getaffinity(0, sizeof usable, &usable), 0);
  if (CPU_COUNT(&usable) < 2) GTEST_SKIP() << "one CPU";
  sycl::host::parallel_for_pieces(2, 1, [](std::size_t, std::size_t) {});  // the pool has its workers
  for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
    if (!CPU_ISSET(cpu, &usable)) continue;
    cpu_set_t own;
    CPU_ZERO(&own);
    CPU_SET(cpu, &own);
    ASSERT_EQ(sched_setaffinity(0, sizeof own, &own), 0);
    std::array<std::atomic<int>, 2> at{-1, -1};
    sycl::host::parallel_for_pieces(2, 1, [&](std::size_t piece, std::size_t) {
      at[piece] = sched_getcpu();
      const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
      while (at[1 - piece] < 0 && std::chrono::steady_clock::now() < end) std::this_thread::yield();
    });
    EXPECT_NE(at[0].load(), at[1].load()) << "launched on CPU " << cpu;
  }
  sched_setaffinity(0, sizeof usable, &usable);
}

}  // namespace
