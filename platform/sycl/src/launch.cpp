#include "sycl/launch.hpp"

#include <limits>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "sycl/checks.hpp"

namespace sycl::host {
namespace {

struct aligned_delete {
  void operator()(std::byte* memory) const { ::operator delete (memory, std::align_val_t{local_alignment}); }
};
using aligned_memory = std::unique_ptr<std::byte, aligned_delete>;

aligned_memory aligned(std::size_t bytes) {
  return aligned_memory(static_cast<std::byte*>(::operator new (bytes, std::align_val_t{local_alignment})));
}

/// Memory of a thread that only grows, so that a launch does not allocate once the thread has warmed up.
/// Blocks are never moved: pointers stay valid while the stack of arenas unwinds.
struct thread_memory {
  struct block {
    aligned_memory memory;
    std::size_t size;
  };
  std::vector<block> blocks;
  std::size_t used = 0;  // blocks in use by arenas
};

thread_memory& arenas() {
  thread_local thread_memory memory;
  return memory;
}

std::string text(int dimensions, const std::array<std::size_t, 3>& sizes) {
  std::string result = "{";
  for (int d = 0; d < dimensions; ++d) result += (d ? ", " : "") + std::to_string(sizes[d]);
  return result + "}";
}

}  // namespace

arena::arena() : mark_(arenas().used) {}
arena::~arena() {
  arenas().used = mark_;
}

std::byte* arena::take(std::size_t bytes) {
  thread_memory& memory = arenas();
  if (memory.used == memory.blocks.size()) memory.blocks.push_back({nullptr, 0});
  thread_memory::block& block = memory.blocks[memory.used];
  if (block.size < bytes) {
    if (block.memory) forbid_access(block.memory.get());
    block = {aligned(bytes), bytes};
    if (checks_enabled) allow_access(block.memory.get(), bytes);
  }
  ++memory.used;
  return block.memory.get();
}

std::byte* local_memory(std::size_t bytes) {
  thread_local aligned_memory memory;
  thread_local std::size_t size = 0;
  if (size < bytes) {
    if (memory) forbid_access(memory.get());
    memory = aligned(bytes);
    size = bytes;
  }
  if (checks_enabled && bytes > 0)
    allow_access(memory.get(), bytes);  // what this kernel asked for, and no more
  return memory.get();
}

void check_range(int dimensions, const std::array<std::size_t, 3>& global,
                 const std::array<std::size_t, 3>& local, std::size_t max_work_group_size) {
  const auto refuse = [&](const std::string& why) {
    throw std::invalid_argument("nd_range with global size " + text(dimensions, global) + " and local size " +
                                text(dimensions, local) + ": " + why);
  };
  std::size_t items = 1, groups = 1;
  for (int d = 0; d < dimensions; ++d) {
    if (local[d] == 0) refuse("the local size must be at least 1 in every dimension");
    if (global[d] % local[d] != 0) refuse("the global size must be a multiple of the local size");
    if (__builtin_mul_overflow(items, local[d], &items) || items > max_work_group_size) {
      refuse("the device's largest work-group has " + std::to_string(max_work_group_size) + " work-items");
    }
    if (__builtin_mul_overflow(groups, global[d] / local[d], &groups))
      refuse("too many work-groups to count");
  }
  if (items > std::numeric_limits<int>::max()) refuse("work-group sizes are 32-bit");
}

void check_range(int dimensions, const std::array<std::size_t, 3>& sizes) {
  std::int64_t items = 1;
  for (int d = 0; d < dimensions; ++d) {
    if (__builtin_mul_overflow(items, sizes[d], &items)) {
      throw std::invalid_argument("range " + text(dimensions, sizes) +
                                  ": more work-items than 64-bit ids can count");
    }
  }
}

}  // namespace sycl::host
