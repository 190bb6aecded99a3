// Debug builds: a kernel's access outside its allocations is an error that says where.

#include <gtest/gtest.h>

#include <stdexcept>
#include <vector>

#include "sycl/sycl.hpp"

namespace {

struct copy_elements {
  const float* from;
  float* to;
  int count;
  template <class Item>
  void operator()(const Item& item) const {
    spmd::strided<1>(item, count, [&](const auto& first, auto live) {
      spmd::store(to + first[0], spmd::load<Item::lanes>(from + first[0], live), live);
    });
  }
};

void copy(const std::vector<float>& from, std::vector<float>& to, int count) {
  sycl::queue queue;
  const sycl::host::accessible readable(from.data(), from.size() * sizeof(float));
  const sycl::host::accessible writable(to.data(), to.size() * sizeof(float));
  queue.submit([&](sycl::handler& command) {
    command.parallel_for(sycl::nd_range<1>(64, 64), copy_elements{from.data(), to.data(), count});
  });
}

TEST(Checks, AccessesWithinAllocationsPass) {
  for (const int count : {1, 31, 32, 100}) {
    std::vector<float> from(count, 2.5f), to(count, 0.0f);
    copy(from, to, count);
    EXPECT_EQ(to, from);
  }
}

TEST(Checks, AccessesOutsideAreErrors) {
  std::vector<float> small(100), large(200);
  if (sycl::host::checks_enabled) {
    EXPECT_THROW(copy(small, large, 101), std::out_of_range);
    EXPECT_THROW(copy(large, small, 101), std::out_of_range);
  }
  EXPECT_THROW(sycl::host::check_access(&small, 4), std::out_of_range);
}

}  // namespace
