#include "guard.hpp"

#include <atomic>
#include <chrono>

namespace kelvor_xpu {
namespace {

using Clock = std::chrono::steady_clock;
using Moment = Clock::time_point;

constexpr c10::StreamId default_stream = 0;
constexpr c10::StreamId pooled_streams = 32;

thread_local c10::StreamId current_stream = default_stream;

c10::Stream stream_of(c10::StreamId id) {
  return c10::Stream(c10::Stream::UNSAFE, c10::Device(c10::DeviceType::XPU, 0), id);
}

}  // namespace

void check_device(c10::Device device) {
  TORCH_CHECK(device.type() == c10::DeviceType::XPU, "Expected an xpu device, but got ", device);
  TORCH_CHECK(device.index() <= 0, "There is one xpu device, xpu:0, but ", device, " was asked for");
}

c10::Device Guard::exchangeDevice(c10::Device device) const {
  check_device(device);
  return getDevice();
}

void Guard::setDevice(c10::Device device) const {
  check_device(device);
}

c10::Stream Guard::getStream(c10::Device) const noexcept {
  return stream_of(current_stream);
}

c10::Stream Guard::getDefaultStream(c10::Device) const {
  return stream_of(default_stream);
}

c10::Stream Guard::getStreamFromGlobalPool(c10::Device, bool) const {
  static std::atomic<c10::StreamId> next{0};
  return stream_of(1 + next.fetch_add(1, std::memory_order_relaxed) % pooled_streams);
}

c10::Stream Guard::getNewStream(c10::Device device, int) const {
  check_device(device);
  return getStreamFromGlobalPool(device, false);
}

c10::Stream Guard::exchangeStream(c10::Stream stream) const noexcept {
  const c10::Stream previous = stream_of(current_stream);
  current_stream = stream.id();
  return previous;
}

void Guard::synchronizeDevice(c10::DeviceIndex index) const {
  check_device(c10::Device(c10::DeviceType::XPU, index));
}

c10::DeviceCapability Guard::getDeviceCapability(c10::Device device) const {
  check_device(device);
  c10::DeviceCapability all;
  auto& types = all.capability_data.supported_scalar_types;
  types.has_QInt8 = types.has_QUInt8 = types.has_QInt32 = types.has_QUInt4x2 = types.has_QUInt2x4 = 0;
  return all;
}

void Guard::record(void** event, const c10::Stream&, c10::DeviceIndex, c10::EventFlag) const {
  if (*event == nullptr) *event = new Moment;
  *static_cast<Moment*>(*event) = Clock::now();
}

double Guard::elapsedTime(void* start, void* end, c10::DeviceIndex) const {
  TORCH_CHECK(start != nullptr && end != nullptr,
              "elapsed_time needs two recorded events: call record() first");
  const std::chrono::duration<double, std::milli> elapsed =
      *static_cast<Moment*>(end) - *static_cast<Moment*>(start);
  return elapsed.count();
}

void Guard::destroyEvent(void* event, c10::DeviceIndex) const noexcept {
  delete static_cast<Moment*>(event);
}

}  // namespace kelvor_xpu
