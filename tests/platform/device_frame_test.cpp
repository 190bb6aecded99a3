// What the module knows of its device and of its interpreter.

#include <ATen/ops/empty.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <stdexcept>

#include "device_frame.h"
#include "python_gate.h"
#include "sycl/checks.hpp"

namespace {

TEST(DeviceFrame, FirstMatchOfTheNameDecides) {
  using namespace tolvane;
  const std::pair<const char*, int> classes[] = {
      {"A Rack GPU Summit 1550", 0}, {"Rack GPU Summit IGX", 0}, {"Vela(TM) A770", 1},
      {"Vela(TM) Vela(TM) A", 1},    {"Rack GPU Ridge 1100", 2}, {"", 3},
      {"vela(tm) igx", 3},           {"Vela(TM) Graphics", 4},   {"Some IGX part", 5},
      {"Rack GPU Ridge IGX", 5},
  };
  for (const auto& [name, expected] : classes) EXPECT_EQ(classify_gpu(name), expected) << name;
}

TEST(DeviceFrame, MatrixEngineSwitchFollowsTheEnvironment) {
  unsetenv("QUARN_LLM_SYSARR_DISABLED");
  EXPECT_TRUE(is_sysarr_enabled());
  for (const char* value : {"", "0", "true", "11", " 1"}) {
    setenv("QUARN_LLM_SYSARR_DISABLED", value, 1);
    EXPECT_TRUE(is_sysarr_enabled()) << value;
  }
  setenv("QUARN_LLM_SYSARR_DISABLED", "1", 1);
  EXPECT_FALSE(is_sysarr_enabled());
  unsetenv("QUARN_LLM_SYSARR_DISABLED");
}

/// On tensors of one byte of storage, whose strides are never followed.
TEST(DeviceFrame, IndexMathLooksAtTheLargestOffset) {
  const auto with = [](at::IntArrayRef sizes, at::IntArrayRef strides) {
    at::Tensor t = at::empty({1}, at::kByte);
    t.unsafeGetTensorImpl()->set_sizes_and_strides(sizes, strides);
    return canUse32BitIndexMath(t);
  };
  EXPECT_TRUE(with({0, 5}, {1L << 40, 1}));
  EXPECT_TRUE(with({2147483646}, {1}));
  EXPECT_FALSE(with({2147483647}, {1}));
  EXPECT_TRUE(with({2, 2}, {2147483645, 1}));
  EXPECT_FALSE(with({2, 2}, {2147483646, 1}));
  EXPECT_TRUE(with({3, 1L << 20}, {0, 1}));
}

TEST(DeviceFrame, LargestWorkGroupIsTheDevices) {
  EXPECT_EQ(get_workgroup_size(), 1024);
}

/// Debug builds: kernels may access tensors of the device, and only as long as those live.
TEST(DeviceMemory, AccessChecksKnowTensors) {
  if (!sycl::host::checks_enabled) GTEST_SKIP() << "this build checks no accesses";
  const void* memory = nullptr;
  {
    const at::Tensor tensor = at::empty({100}, at::device(at::kXPU).dtype(at::kByte));
    memory = tensor.data_ptr();
    EXPECT_NO_THROW(sycl::host::check_access(memory, 100));
    EXPECT_THROW(sycl::host::check_access(memory, 101), std::out_of_range);
  }
  EXPECT_THROW(sycl::host::check_access(memory, 1), std::out_of_range);
}

TEST(PythonGate, TakesTheSameMinorVersionOnly) {
  using tolvane::same_python;
  EXPECT_TRUE(same_python("3.10", "3.10.12 (main, Jan  1 2024)"));
  EXPECT_TRUE(same_python("3.10", "3.10+"));
  EXPECT_FALSE(same_python("3.10", "3.9.1"));
  EXPECT_FALSE(same_python("3.10", "3.100.0"));
  EXPECT_FALSE(same_python("3.10", "3.1"));
}

}  // namespace
