#pragma once
// What PyTorch asks of the xpu device outside of operators: whether it is there, random numbers, pinned
// memory.

#include <ATen/detail/XPUHooksInterface.h>

namespace kelvor_xpu {

class Hooks final : public at::XPUHooksInterface {
 public:
  void init() const override {}
  bool hasXPU() const override { return true; }
  bool isBuilt() const override { return true; }
  bool isAvailable() const override { return true; }
  bool hasPrimaryContext(c10::DeviceIndex) const override { return true; }
  std::string showConfig() const override { return "kelvor-xpu: the xpu device on the CPU"; }

  c10::DeviceIndex deviceCount() const override { return 1; }
  c10::DeviceIndex getNumGPUs() const override { return 1; }
  c10::DeviceIndex current_device() const override { return 0; }
  c10::DeviceIndex getCurrentDevice() const override { return 0; }
  void setCurrentDevice(c10::DeviceIndex index) const override;
  c10::DeviceIndex exchangeDevice(c10::DeviceIndex index) const override;
  c10::DeviceIndex maybeExchangeDevice(c10::DeviceIndex index) const override;
  std::int32_t getGlobalIdxFromDevice(const c10::Device&) const override { return 0; }
  c10::Device getDeviceFromPtr(void*) const override { return {c10::DeviceType::XPU, 0}; }
  void deviceSynchronize(c10::DeviceIndex) const override {}

  const at::Generator& getDefaultGenerator(c10::DeviceIndex index) const override;
  at::Generator getNewGenerator(c10::DeviceIndex index) const override;
  c10::Allocator* getPinnedMemoryAllocator() const override;
  bool isPinnedPtr(const void* data) const override;
};

/// Enters the hooks into PyTorch's registry, from which PyTorch takes them at the first question about any
/// xpu device.
void register_hooks();

}  // namespace kelvor_xpu
