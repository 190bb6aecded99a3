// The allocator behind KELVOR_XPU_GUARD_PAGES: a tensor's last byte is the last before an unmapped page, so
// that a kernel that reads or writes one byte too far faults at once. Slow, and for tests only.

#include <c10/util/Exception.h>
#include <sys/mman.h>
#include <unistd.h>

#include "allocator.hpp"

namespace kelvor_xpu {
namespace {

struct Mapping {
  void* base;
  std::size_t size;
  void* tensor;
};

void unmap(void* context) {
  auto* mapping = static_cast<Mapping*>(context);
  close_to_kernels(mapping->tensor);
  munmap(mapping->base, mapping->size);
  delete mapping;
}

class GuardedAllocator final : public DeviceAllocator {
 public:
  c10::DataPtr allocate(std::size_t bytes) override {
    const c10::Device device(c10::DeviceType::XPU, 0);
    if (bytes == 0) return {nullptr, device};
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    const std::size_t size = (bytes + page - 1) / page * page + page;
    void* base = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    TORCH_CHECK(base != MAP_FAILED, "xpu: cannot allocate ", bytes, " bytes with a guard page");
    auto* end = static_cast<std::uint8_t*>(base) + size - page;
    TORCH_CHECK(mprotect(end, page, PROT_NONE) == 0, "xpu: cannot protect a guard page");
    void* tensor = end - bytes;
    open_to_kernels(tensor, bytes);
    return {tensor, new Mapping{base, size, tensor}, unmap, device};
  }
};

}  // namespace

c10::Allocator* guarded_allocator() {
  static auto* instance = new GuardedAllocator;
  return instance;
}

}  // namespace kelvor_xpu
