#include "sycl/submissions.hpp"

#include <cxxabi.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>

namespace sycl::host {
namespace {

constexpr std::size_t capacity = 1024;
constexpr std::size_t label_capacity = 24;

/// An entry of the ring: no allocation on the way of a launch.
struct record {
  std::uint64_t id;
  const std::type_info* kernel;
  int dimensions;
  std::array<std::size_t, 3> global, local;
  bool waited;
  char label[label_capacity];
};

struct ring {
  std::mutex lock;
  std::array<record, capacity> entries{};
  std::uint64_t newest = 0;
  std::uint64_t cleared = 0;
  std::atomic<std::uint64_t> waits{0};

  record* find(std::uint64_t id) {
    record& entry = entries[id % capacity];
    return entry.id == id ? &entry : nullptr;
  }
};

/// Never destroyed: a daemon thread may still submit while the process ends.
ring& log() {
  static auto* const the_ring = new ring;
  return *the_ring;
}

std::string demangled(const std::type_info& type) {
  int status = 0;
  const std::unique_ptr<char, decltype(&std::free)> name(
      abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), &std::free);
  return status == 0 ? name.get() : type.name();
}

}  // namespace

std::uint64_t submission_count() {
  const std::lock_guard hold(log().lock);
  return log().newest;
}

std::uint64_t wait_count() {
  return log().waits.load(std::memory_order_relaxed);
}

std::vector<submission> submissions() {
  const std::lock_guard hold(log().lock);
  std::vector<submission> result;
  const std::uint64_t newest = log().newest;
  for (std::uint64_t id = std::max(log().cleared, newest < capacity ? 0 : newest - capacity) + 1;
       id <= newest; ++id) {
    const record& entry = log().entries[id % capacity];
    result.push_back({entry.id, demangled(*entry.kernel), entry.dimensions, entry.global, entry.local,
                      entry.waited, entry.label});
  }
  return result;
}

void clear_submissions() {
  const std::lock_guard hold(log().lock);
  log().cleared = log().newest;
}

std::uint64_t record_submission(const std::type_info& kernel, int dimensions,
                                const std::array<std::size_t, 3>& global,
                                const std::array<std::size_t, 3>& local) {
  const std::lock_guard hold(log().lock);
  const std::uint64_t id = ++log().newest;
  log().entries[id % capacity] = {id, &kernel, dimensions, global, local, false, {}};
  return id;
}

void record_wait(std::uint64_t id) {
  log().waits.fetch_add(1, std::memory_order_relaxed);
  const std::lock_guard hold(log().lock);
  if (record* entry = log().find(id)) entry->waited = true;
}

void record_label(std::uint64_t id, const std::string& label) {
  const std::lock_guard hold(log().lock);
  if (record* entry = log().find(id)) {
    std::strncpy(entry->label, label.c_str(), label_capacity - 1);
    entry->label[label_capacity - 1] = '\0';
  }
}

}  // namespace sycl::host
