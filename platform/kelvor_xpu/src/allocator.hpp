#pragma once
// Device memory: host memory aligned to 64 bytes, pooled by size, since fresh pages cost several times what
// the arithmetic on them does.

#include <c10/core/CachingDeviceAllocator.h>
#include <c10/core/Storage.h>

#include <sycl/checks.hpp>

namespace kelvor_xpu {

/// What torch.accelerator asks about the device's memory. How memory is allocated is left to derived classes.
class DeviceAllocator : public c10::DeviceAllocator {
 public:
  bool initialized() override { return true; }
  void emptyCache(c10::MempoolId_t) override;
  void recordStream(const c10::DataPtr&, c10::Stream) override {}  // no work is ever pending
  c10::CachingDeviceAllocator::DeviceStats getDeviceStats(c10::DeviceIndex) override;
  void resetAccumulatedStats(c10::DeviceIndex) override;
  void resetPeakStats(c10::DeviceIndex) override;
  std::pair<std::size_t, std::size_t> getMemoryInfo(c10::DeviceIndex) override;
  void copy_data(void* to, const void* from, std::size_t bytes) const override {
    default_copy_data(to, from, bytes);
  }
};

/// The allocator behind every xpu storage.
c10::Allocator* device_allocator();

/// The same pool, but its memory says that it is the CPU's: for intermediate results of the CPU's operators.
c10::Allocator* scratch_allocator();

/// The allocator that device_allocator() gives where KELVOR_XPU_GUARD_PAGES is set: every tensor ends at an
/// unmapped page.
c10::Allocator* guarded_allocator();

/// In builds that check the accesses of kernels: kernels may access this memory, and no longer may.
inline void open_to_kernels(const void* memory, std::size_t bytes) {
  if constexpr (sycl::host::checks_enabled) sycl::host::allow_access(memory, bytes);
}
inline void close_to_kernels(const void* memory) {
  if constexpr (sycl::host::checks_enabled) sycl::host::forbid_access(memory);
}

/// Hands memory of the CPU's to the device: the result keeps `memory` alive and counts as `bytes` live bytes.
c10::DataPtr adopt(c10::DataPtr memory, std::size_t bytes);

/// The bytes of a CPU storage that the device does not count yet: none if they come from its pool.
std::size_t uncounted_bytes(const c10::Storage& storage);

}  // namespace kelvor_xpu
