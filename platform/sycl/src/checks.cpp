#include "sycl/checks.hpp"

#include <cstdint>
#include <map>
#include <mutex>
#include <shared_mutex>
#include <stdexcept>
#include <string>

namespace sycl::host {
namespace {

/// Allocations by address. Never destroyed, as tensors may outlive static destructors.
struct registry {
  std::shared_mutex lock;
  std::map<std::uintptr_t, std::size_t> sizes;
};

registry& allocations() {
  static auto* const instance = new registry;
  return *instance;
}

}  // namespace

void allow_access(const void* memory, std::size_t bytes) {
  const std::unique_lock hold(allocations().lock);
  allocations().sizes[reinterpret_cast<std::uintptr_t>(memory)] = bytes;
}

void forbid_access(const void* memory) {
  const std::unique_lock hold(allocations().lock);
  allocations().sizes.erase(reinterpret_cast<std::uintptr_t>(memory));
}

void check_access(const void* address, std::size_t bytes) {
  const auto begin = reinterpret_cast<std::uintptr_t>(address);
  const std::shared_lock hold(allocations().lock);
  const auto& sizes = allocations().sizes;
  auto found = sizes.upper_bound(begin);
  if (found == sizes.begin()) {
    throw std::out_of_range("a kernel accesses memory that belongs to no allocation");
  }
  --found;
  const std::uintptr_t offset = begin - found->first;
  if (offset + bytes <= found->second) return;
  throw std::out_of_range("a kernel accesses " + std::to_string(bytes) + " bytes at offset " +
                          std::to_string(offset) + " of an allocation of " + std::to_string(found->second) +
                          " bytes");
}

}  // namespace sycl::host
