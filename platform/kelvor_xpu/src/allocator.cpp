#include "allocator.hpp"

#include <c10/util/Exception.h>
#include <pthread.h>
#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstdlib>
#include <limits>
#include <mutex>
#include <vector>

#include "kelvor_xpu/memory.h"
#include "settings.hpp"

namespace kelvor_xpu {
namespace {

constexpr std::size_t alignment = 64;
constexpr std::size_t huge_page = std::size_t{2} << 20;
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
      count_live(bytes);
      if (auto& free = free_[wanted.index]; !free.empty()) {
        Block* block = free.back();
        free.pop_back();
        cached_bytes_ -= block->size;
        block->requested = bytes;
        return block;
      }
    }
    void* memory = fresh(wanted.size);
    if (memory == nullptr) {
      release_free();
      memory = fresh(wanted.size);
    }
    if (memory == nullptr) {
      forget_live(bytes);
      TORCH_CHECK_WITH(OutOfMemoryError, false, "xpu: out of memory: cannot allocate ", bytes,
                       " bytes, with ", statistics().live_bytes, " bytes in use");
    }
    return new Block{memory, wanted.size, wanted.index, bytes};
  }

  void give_back(Block* block) {
    std::vector<Block*> surplus;
    {
      const std::lock_guard hold(lock_);
      live_bytes_ -= block->requested;
      block->freed = given_back_++;
      cached_bytes_ += block->size;
      free_[block->size_class].push_back(block);
      while (cached_bytes_ > std::max(small_cache, peak_bytes_)) surplus.push_back(take_oldest());
    }
    for (Block* old : surplus) destroy(old);
  }

  void count_adopted(std::size_t bytes) {
    const std::lock_guard hold(lock_);
    count_live(bytes);
  }
  void forget_live(std::size_t bytes) {
    const std::lock_guard hold(lock_);
    live_bytes_ -= bytes;
  }

  void release_free() {
    std::vector<Block*> blocks;
    {
      const std::lock_guard hold(lock_);
      for (auto& free : free_) {
        blocks.insert(blocks.end(), free.begin(), free.end());
        free.clear();
      }
      cached_bytes_ = 0;
    }
    for (Block* block : blocks) destroy(block);
  }

  MemoryStatistics statistics() {
    const std::lock_guard hold(lock_);
    return {live_bytes_, peak_bytes_, cached_bytes_};
  }
  void reset_peak() {
    const std::lock_guard hold(lock_);
    peak_bytes_ = live_bytes_;
  }

  void lock() { lock_.lock(); }
  void unlock() { lock_.unlock(); }

 private:
  static void* fresh(std::size_t size) {
    if (size < 2 * huge_page) return std::aligned_alloc(alignment, size);
    void* memory = std::aligned_alloc(huge_page, size);
    // Weights are streamed; with pages of 4 KB, address translation costs a good part of the bandwidth.
    if (memory != nullptr) madvise(memory, size, MADV_HUGEPAGE);
    return memory;
  }
  static void destroy(Block* block) {
    std::free(block->memory);
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
    return block;
  }
  void count_live(std::size_t bytes) {
    live_bytes_ += bytes;
    peak_bytes_ = std::max(peak_bytes_, live_bytes_);
  }

  std::mutex lock_;
  std::array<std::vector<Block*>, 66 * steps_per_octave> free_;
  std::size_t live_bytes_ = 0;
  std::size_t peak_bytes_ = 0;
  std::size_t cached_bytes_ = 0;
  std::size_t given_back_ = 0;
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

class PoolAllocator final : public c10::Allocator {
 public:
  explicit PoolAllocator(c10::Device device) : device_(device) {}

  c10::DataPtr allocate(std::size_t bytes) const override {
    settings();  // a malformed setting is reported by whatever uses the device first
    if (bytes == 0) return {nullptr, device_};
    Block* block = pool().take(bytes);
    open_to_kernels(block->memory, bytes);
    return {block->memory, block, give_back, device_};
  }

 private:
  c10::Device device_;
};

struct Adopted {
  c10::Storage storage;
  std::size_t bytes;
};

}  // namespace

c10::Allocator* device_allocator() {
  static auto* pooled = new PoolAllocator(c10::Device(c10::DeviceType::XPU, 0));
  static const char* guard_pages = std::getenv("KELVOR_XPU_GUARD_PAGES");
  return guard_pages != nullptr && *guard_pages == '1' ? guarded_allocator() : pooled;
}

c10::Allocator* scratch_allocator() {
  static auto* instance = new PoolAllocator(c10::Device(c10::DeviceType::CPU));
  return instance;
}

c10::DataPtr adopt(c10::Storage storage) {
  const c10::Device device(c10::DeviceType::XPU, 0);
  void* data = storage.data();
  if (data == nullptr) return {nullptr, device};
  // Memory of the pool has been counted already.
  const std::size_t bytes = storage.data_ptr().get_deleter() == &give_back ? 0 : storage.nbytes();
  pool().count_adopted(bytes);
  if (bytes > 0) open_to_kernels(data, bytes);
  auto* owner = new Adopted{std::move(storage), bytes};
  const auto release = [](void* context) {
    auto* adopted = static_cast<Adopted*>(context);
    pool().forget_live(adopted->bytes);
    if (adopted->bytes > 0) close_to_kernels(adopted->storage.data());
    delete adopted;
  };
  return {data, owner, release, device};
}

MemoryStatistics memory_statistics() {
  return pool().statistics();
}
void reset_peak_bytes() {
  pool().reset_peak();
}
void empty_cache() {
  pool().release_free();
}

}  // namespace kelvor_xpu
