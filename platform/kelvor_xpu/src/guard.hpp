#pragma once
// The device guard: one device, with streams and events that have nothing to wait for.

#include <c10/core/impl/DeviceGuardImplInterface.h>

namespace kelvor_xpu {

/// Work is complete when the call that asked for it returns. A stream is therefore only an id that PyTorch
/// can make current, and an event, which is always done, holds the time at which it was recorded.
class Guard final : public c10::impl::DeviceGuardImplInterface {
 public:
  c10::DeviceType type() const override { return c10::DeviceType::XPU; }
  c10::Device exchangeDevice(c10::Device device) const override;
  c10::Device getDevice() const override { return {c10::DeviceType::XPU, 0}; }
  void setDevice(c10::Device device) const override;
  void uncheckedSetDevice(c10::Device) const noexcept override {}
  c10::DeviceIndex deviceCount() const noexcept override { return 1; }

  c10::Stream getStream(c10::Device device) const noexcept override;
  c10::Stream getDefaultStream(c10::Device device) const override;
  c10::Stream getStreamFromGlobalPool(c10::Device device, bool high_priority) const override;
  c10::Stream getNewStream(c10::Device device, int priority) const override;
  c10::Stream exchangeStream(c10::Stream stream) const noexcept override;
  bool queryStream(const c10::Stream&) const override { return true; }
  void synchronizeStream(const c10::Stream&) const override {}
  void synchronizeDevice(c10::DeviceIndex index) const override;
  c10::DeviceCapability getDeviceCapability(c10::Device device) const override;

  void record(void** event, const c10::Stream& stream, c10::DeviceIndex device,
              c10::EventFlag flag) const override;
  void block(void*, const c10::Stream&) const override {}
  bool queryEvent(void*) const override { return true; }
  void synchronizeEvent(void*) const override {}
  double elapsedTime(void* start, void* end, c10::DeviceIndex index) const override;
  void destroyEvent(void* event, c10::DeviceIndex index) const noexcept override;
};

/// Throws if `device` is an xpu device other than the one there is.
void check_device(c10::Device device);

}  // namespace kelvor_xpu
