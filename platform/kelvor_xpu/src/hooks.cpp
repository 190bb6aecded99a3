#include "hooks.hpp"

#include <ATen/core/CachingHostAllocator.h>

#include <memory>

#include "generator.hpp"
#include "guard.hpp"
#include "pinned_memory.hpp"

namespace kelvor_xpu {

void Hooks::setCurrentDevice(c10::DeviceIndex index) const {
  check_device(c10::Device(c10::DeviceType::XPU, index));
}

c10::DeviceIndex Hooks::exchangeDevice(c10::DeviceIndex index) const {
  setCurrentDevice(index);
  return 0;
}

c10::DeviceIndex Hooks::maybeExchangeDevice(c10::DeviceIndex index) const {
  if (index >= 0) setCurrentDevice(index);
  return 0;
}

const at::Generator& Hooks::getDefaultGenerator(c10::DeviceIndex) const {
  return default_generator();
}

at::Generator Hooks::getNewGenerator(c10::DeviceIndex) const {
  return new_generator();
}

c10::Allocator* Hooks::getPinnedMemoryAllocator() const {
  return at::getHostAllocator(c10::DeviceType::XPU);
}

bool Hooks::isPinnedPtr(const void* data) const {
  return is_pinned(data);
}

void register_hooks() {
  at::XPUHooksRegistry()->Register(
      "XPUHooks", [] { return std::unique_ptr<at::XPUHooksInterface>(new Hooks); });
}

}  // namespace kelvor_xpu
