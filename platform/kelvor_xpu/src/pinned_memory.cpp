#include "pinned_memory.hpp"

#include <ATen/core/CachingHostAllocator.h>
#include <c10/core/CPUAllocator.h>
#include <pthread.h>

#include <cstdint>
#include <map>
#include <mutex>

namespace kelvor_xpu {
namespace {

/// Where live pinned memory begins and ends. Never destroyed; the lock is held across fork().
class Ranges {
 public:
  void add(const void* begin, std::size_t bytes) {
    const std::lock_guard hold(lock_);
    ends_[reinterpret_cast<std::uintptr_t>(begin)] = reinterpret_cast<std::uintptr_t>(begin) + bytes;
  }
  void remove(const void* begin) {
    const std::lock_guard hold(lock_);
    ends_.erase(reinterpret_cast<std::uintptr_t>(begin));
  }
  bool contains(const void* data) {
    const auto address = reinterpret_cast<std::uintptr_t>(data);
    const std::lock_guard hold(lock_);
    const auto after = ends_.upper_bound(address);
    return after != ends_.begin() && address < std::prev(after)->second;
  }
  void lock() { lock_.lock(); }
  void unlock() { lock_.unlock(); }

 private:
  std::mutex lock_;
  std::map<std::uintptr_t, std::uintptr_t> ends_;
};

Ranges& ranges() {
  static Ranges& instance = [&]() -> Ranges& {
    auto* made = new Ranges;
    pthread_atfork([] { ranges().lock(); }, [] { ranges().unlock(); }, [] { ranges().unlock(); });
    return *made;
  }();
  return instance;
}

class PinnedAllocator final : public at::HostAllocator {
 public:
  c10::DataPtr allocate(std::size_t bytes) override {
    auto* memory = new c10::DataPtr(c10::GetCPUAllocator()->allocate(bytes));
    void* data = memory->get();
    if (data != nullptr) ranges().add(data, bytes);
    return {data, memory, release, c10::Device(c10::DeviceType::CPU)};
  }
  void copy_data(void* to, const void* from, std::size_t bytes) const override {
    default_copy_data(to, from, bytes);
  }
  // Nothing is kept, and no work is ever pending.
  bool record_event(void*, void*, c10::Stream) override { return true; }
  void empty_cache() override {}
  at::HostStats get_stats() override { return {}; }
  void reset_accumulated_stats() override {}
  void reset_peak_stats() override {}

 private:
  static void release(void* context) {
    auto* memory = static_cast<c10::DataPtr*>(context);
    if (memory->get() != nullptr) ranges().remove(memory->get());
    delete memory;
  }
};

}  // namespace

bool is_pinned(const void* data) {
  return ranges().contains(data);
}

void register_pinned_memory() {
  at::setHostAllocator(c10::DeviceType::XPU, new PinnedAllocator);
}

}  // namespace kelvor_xpu
