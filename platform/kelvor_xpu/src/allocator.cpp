#include "allocator.hpp"

#include <c10/util/Exception.h>
#include <malloc.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <mutex>
#include <string>
#include <vector>

#include "kelvor_xpu/limit_memory.h"
#include "settings.hpp"

namespace kelvor_xpu {
namespace {

constexpr std::size_t alignment = 64;
constexpr std::size_t huge_page = std::size_t{2} << 20;
constexpr std::size_t smallest_mapping = std::size_t{1} << 20;
/// Free memory below this is always kept; above, up to the highest number of live bytes. What exceeds that is
/// returned from the block that has been free for longest.
constexpr std::size_t small_cache = std::size_t{256} << 20;
/// Size classes per power of two: less than an eighth of a block is wasted.
constexpr std::size_t steps_per_octave = 8;

struct Block {
  void* memory;
  std::size_t size;
  std::size_t size_class;
  std::size_t requested;
  std::size_t freed = 0;  // when, in blocks given back before it
};

struct SizeClass {
  std::size_t index;
  std::size_t size;
};

SizeClass class_of(std::size_t bytes) {
  const std::size_t units = (bytes + alignment - 1) / alignment;
  if (units <= 2 * steps_per_octave) return {units, units * alignment};
  const int octave = std::bit_width((units - 1) / (2 * steps_per_octave));
  const std::size_t steps = ((units - 1) >> octave) + 1;
  return {static_cast<std::size_t>(octave) * steps_per_octave + steps, (steps << octave) * alignment};
}

class Pool {
 public:
  Block* take(std::size_t bytes) {
    TORCH_CHECK_WITH(OutOfMemoryError, bytes <= std::numeric_limits<std::size_t>::max() / 4,
                     "xpu: cannot allocate ", bytes, " bytes");
    const SizeClass wanted = class_of(bytes);
    {
      const std::lock_guard hold(lock_);
      const auto live = static_cast<std::size_t>(live_.current);
      TORCH_CHECK_WITH(OutOfMemoryError, bytes <= limit_ && live <= limit_ - bytes,
                       "xpu: out of memory: ", bytes, " bytes more than the ", live,
                       " in use would exceed the limit of ", limit_);
      if (auto& free = free_[wanted.index]; !free.empty()) {
        Block* block = free.back();
        free.pop_back();
        cached_bytes_ -= block->size;
        block->requested = bytes;
        count_live(bytes);
        return block;
      }
    }
    void* memory = fresh(wanted.size, bytes);
    if (memory == nullptr) {
      release_free();
      memory = fresh(wanted.size, bytes);
    }
    TORCH_CHECK_WITH(OutOfMemoryError, memory != nullptr, "xpu: out of memory: cannot allocate ", bytes,
                     " bytes, with ", statistics().live.current, " bytes in use");
    const std::lock_guard hold(lock_);
    count_live(bytes);
    reserved_.increase(wanted.size);
    return new Block{memory, wanted.size, wanted.index, bytes};
  }

  void give_back(Block* block) {
    std::vector<Block*> surplus;
    {
      const std::lock_guard hold(lock_);
      forget_live(block->requested);
      block->freed = given_back_++;
      cached_bytes_ += block->size;
      free_[block->size_class].push_back(block);
      const std::size_t kept = std::max(small_cache, static_cast<std::size_t>(live_.peak));
      while (cached_bytes_ > kept) surplus.push_back(take_oldest());
    }
    for (Block* old : surplus) destroy(old);
  }

  void count_adopted(std::size_t bytes) {
    const std::lock_guard hold(lock_);
    count_live(bytes);
    reserved_.increase(bytes);
  }
  void forget_adopted(std::size_t bytes) {
    const std::lock_guard hold(lock_);
    forget_live(bytes);
    reserved_.decrease(bytes);
  }

  void release_free() {
    std::vector<Block*> blocks;
    {
      const std::lock_guard hold(lock_);
      for (auto& free : free_) {
        blocks.insert(blocks.end(), free.begin(), free.end());
        free.clear();
      }
      reserved_.decrease(cached_bytes_);
      cached_bytes_ = 0;
    }
    for (Block* block : blocks) destroy(block);
  }

  struct Statistics {
    c10::CachingAllocator::Stat blocks, live, reserved;
    std::size_t cached_bytes;
  };
  Statistics statistics() {
    const std::lock_guard hold(lock_);
    return {blocks_, live_, reserved_, cached_bytes_};
  }
  void reset_peak() {
    const std::lock_guard hold(lock_);
    for (auto* stat : {&blocks_, &live_, &reserved_}) stat->reset_peak();
  }
  void reset_accumulated() {
    const std::lock_guard hold(lock_);
    for (auto* stat : {&blocks_, &live_, &reserved_}) stat->reset_accumulated();
  }

  void set_limit(std::size_t bytes) {
    const std::lock_guard hold(lock_);
    limit_ = bytes;
  }

  void lock() { lock_.lock(); }
  void unlock() { lock_.unlock(); }

 private:
  /// Large blocks come from the system and not from malloc, which keeps much of what is freed. Weights are
  /// streamed: with pages of 4 KB, address translation would cost a good part of the bandwidth. A huge page
  /// that `wanted` bytes would fill in part is left to small ones, which take memory as they are touched.
  static void* fresh(std::size_t size, std::size_t wanted) {
    if (size < smallest_mapping) return std::aligned_alloc(alignment, size);
    const std::size_t margin = size < 2 * huge_page ? 0 : huge_page;
    void* const mapped =
        mmap(nullptr, size + margin, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapped == MAP_FAILED) return nullptr;
    if (margin == 0) return mapped;
    auto* const begin = static_cast<std::byte*>(mapped);
    std::byte* const memory = begin + (margin - reinterpret_cast<std::uintptr_t>(mapped) % margin) % margin;
    if (memory > begin) munmap(begin, static_cast<std::size_t>(memory - begin));
    const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    std::byte* const end = memory + (size + page - 1) / page * page;
    if (end < begin + size + margin) munmap(end, static_cast<std::size_t>(begin + size + margin - end));
    madvise(memory, wanted / huge_page * huge_page, MADV_HUGEPAGE);
    return memory;
  }
  static void destroy(Block* block) {
    block->size < smallest_mapping ? std::free(block->memory)
                                   : static_cast<void>(munmap(block->memory, block->size));
    delete block;
  }
  Block* take_oldest() {
    const auto age = [](const std::vector<Block*>& free) {
      return free.empty() ? std::numeric_limits<std::size_t>::max() : free.front()->freed;
    };
    auto& free = *std::ranges::min_element(free_, {}, age);
    Block* block = free.front();
    free.erase(free.begin());
    cached_bytes_ -= block->size;
    reserved_.decrease(block->size);
    return block;
  }
  void count_live(std::size_t bytes) {
    live_.increase(bytes);
    blocks_.increase(1);
  }
  void forget_live(std::size_t bytes) {
    live_.decrease(bytes);
    blocks_.decrease(1);
  }

  std::mutex lock_;
  std::array<std::vector<Block*>, 66 * steps_per_octave> free_;
  c10::CachingAllocator::Stat blocks_;    // number of allocations that are in use
  c10::CachingAllocator::Stat live_;      // their bytes as asked for
  c10::CachingAllocator::Stat reserved_;  // bytes of all memory, in use and free
  std::size_t cached_bytes_ = 0;
  std::size_t given_back_ = 0;
  std::size_t limit_ = std::numeric_limits<std::size_t>::max();  // of live bytes
};

/// Never destroyed: tensors may outlive static destructors. The lock is held across fork(), so that the child
/// gets a pool in a consistent state.
Pool& pool() {
  static Pool& instance = [&]() -> Pool& {
    auto* made = new Pool;
    pthread_atfork([] { pool().lock(); }, [] { pool().unlock(); }, [] { pool().unlock(); });
    return *made;
  }();
  return instance;
}

void give_back(void* context) {
  auto* block = static_cast<Block*>(context);
  close_to_kernels(block->memory);
  pool().give_back(block);
}

c10::DataPtr take(std::size_t bytes, c10::Device device) {
  settings();  // a malformed setting is reported by whatever uses the device first
  if (bytes == 0) return {nullptr, device};
  Block* block = pool().take(bytes);
  open_to_kernels(block->memory, bytes);
  return {block->memory, block, give_back, device};
}

class PoolAllocator final : public DeviceAllocator {
 public:
  c10::DataPtr allocate(std::size_t bytes) override {
    return take(bytes, c10::Device(c10::DeviceType::XPU, 0));
  }
};

class ScratchAllocator final : public c10::Allocator {
 public:
  c10::DataPtr allocate(std::size_t bytes) override { return take(bytes, c10::Device(c10::DeviceType::CPU)); }
  void copy_data(void* to, const void* from, std::size_t bytes) const override {
    default_copy_data(to, from, bytes);
  }
};

/// Bytes that the system could give out without swapping, and all that it has.
std::pair<std::size_t, std::size_t> system_memory() {
  std::size_t available = 0, total = 0, kilobytes = 0;
  std::ifstream file("/proc/meminfo");
  for (std::string name, unit; file >> name >> kilobytes; std::getline(file, unit)) {
    if (name == "MemTotal:") total = kilobytes << 10;
    if (name == "MemAvailable:") available = kilobytes << 10;
  }
  return {available, total};
}

struct Adopted {
  c10::DataPtr memory;
  std::size_t bytes;
};

}  // namespace

c10::Allocator* device_allocator() {
  static auto* pooled = new PoolAllocator;
  static const char* guard_pages = std::getenv("KELVOR_XPU_GUARD_PAGES");
  return guard_pages != nullptr && *guard_pages == '1' ? guarded_allocator() : pooled;
}

c10::Allocator* scratch_allocator() {
  static auto* instance = new ScratchAllocator;
  return instance;
}

void limit_memory(double fraction) {
  TORCH_CHECK(fraction >= 0 && fraction <= 1, "The fraction must be between 0 and 1, but it is ", fraction);
  const double total = static_cast<double>(system_memory().second);
  pool().set_limit(fraction < 1 ? static_cast<std::size_t>(fraction * total)
                                : std::numeric_limits<std::size_t>::max());
}

c10::DataPtr adopt(c10::DataPtr memory, std::size_t bytes) {
  const c10::Device device(c10::DeviceType::XPU, 0);
  void* data = memory.get();
  if (data == nullptr) return {nullptr, device};
  if (bytes > 0) {
    pool().count_adopted(bytes);
    open_to_kernels(data, bytes);
  }
  const auto release = [](void* context) {
    auto* adopted = static_cast<Adopted*>(context);
    if (adopted->bytes > 0) {
      pool().forget_adopted(adopted->bytes);
      close_to_kernels(adopted->memory.get());
    }
    delete adopted;
  };
  return {data, new Adopted{std::move(memory), bytes}, release, device};
}

std::size_t uncounted_bytes(const c10::Storage& storage) {
  return storage.data_ptr().get_deleter() == &give_back ? 0 : storage.nbytes();
}

void DeviceAllocator::emptyCache(c10::MempoolId_t) {
  pool().release_free();
  malloc_trim(0);  // what the CPU's operators took on the way is malloc's
}

c10::CachingDeviceAllocator::DeviceStats DeviceAllocator::getDeviceStats(c10::DeviceIndex) {
  constexpr auto all = static_cast<std::size_t>(c10::CachingAllocator::StatType::AGGREGATE);
  const Pool::Statistics now = pool().statistics();
  c10::CachingDeviceAllocator::DeviceStats result;
  result.allocation[all] = result.active[all] = now.blocks;
  result.allocated_bytes[all] = result.active_bytes[all] = result.requested_bytes[all] = now.live;
  result.reserved_bytes[all] = now.reserved;
  return result;
}

void DeviceAllocator::resetAccumulatedStats(c10::DeviceIndex) {
  pool().reset_accumulated();
}

void DeviceAllocator::resetPeakStats(c10::DeviceIndex) {
  pool().reset_peak();
}

std::pair<std::size_t, std::size_t> DeviceAllocator::getMemoryInfo(c10::DeviceIndex) {
  const auto [available, total] = system_memory();
  return {available + pool().statistics().cached_bytes, total};
}

}  // namespace kelvor_xpu
