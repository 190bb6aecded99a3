#include "sycl/fiber.hpp"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <new>
#include <stdexcept>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#endif
#if defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
#endif

extern "C" void host_sycl_switch_stack(void** save, void* load);

namespace sycl::host {

fiber_stack::fiber_stack() {
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  void* memory =
      mmap(nullptr, size + page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK | MAP_NORESERVE, -1, 0);
  if (memory == MAP_FAILED) throw std::bad_alloc();
  mapping_ = static_cast<std::byte*>(memory);
  bottom_ = mapping_ + page;
  if (mprotect(bottom_, size, PROT_READ | PROT_WRITE) != 0) {
    munmap(mapping_, size + page);
    throw std::bad_alloc();
  }
}

fiber_stack::~fiber_stack() {
  munmap(mapping_, size + static_cast<std::size_t>(bottom_ - mapping_));
}

/// Where a gang goes on. One gang at a time runs on the stack of the thread that called run(); the others own
/// a stack. What the sanitizers must be told of a switch is kept beside it.
struct gang_ring::context {
  void* top = nullptr;
  bool finished = false;
  std::unique_ptr<fiber_stack> stack;
#if defined(__SANITIZE_ADDRESS__)
  void* fake_stack = nullptr;
  const void* bottom = nullptr;
  std::size_t size = 0;
#endif
#if defined(__SANITIZE_THREAD__)
  void* own_fiber = nullptr;
  void* fiber = nullptr;
  ~context() {
    if (own_fiber) __tsan_destroy_fiber(own_fiber);
  }
#endif
};

gang_ring& gang_ring::of_this_thread() {
  thread_local gang_ring ring;
  return ring;
}

namespace {
[[noreturn]] void wait_in_vain() {
  throw std::logic_error(
      "a barrier or sub-group operation was not reached by all work-items that take part in it");
}
}  // namespace

/// The first frame of a fiber: runs its gang, keeps what it throws, and goes back to the thread's own stack.
struct gang_ring::entry {
  static void run(gang_ring& ring) {
#if defined(__SANITIZE_ADDRESS__)
    context& main = *ring.contexts_[ring.main_];
    const void* from = nullptr;
    std::size_t size = 0;
    __sanitizer_finish_switch_fiber(nullptr, &from, &size);
    if (main.bottom == nullptr) {  // the thread's own stack starts the first fiber
      main.bottom = from;
      main.size = size;
    }
#endif
    try {
      ring.body_(ring.argument_, ring.current_);
    } catch (...) {
      if (!ring.error_) ring.error_ = std::current_exception();
    }
    ring.contexts_[ring.current_]->finished = true;
    ++ring.finished_;
    ++ring.events_;
    ring.switch_to(ring.main_);
    __builtin_unreachable();
  }

  /// Called by the first switch to the stack, with no argument: the ring is the thread's.
  static void begin() {
    run(of_this_thread());
  }
};

void gang_ring::start(int gang) {
  context& fiber = *contexts_[gang];
  if (!fiber.stack) fiber.stack = std::make_unique<fiber_stack>();
  auto* top = reinterpret_cast<std::uintptr_t*>(fiber.stack->bottom() + fiber_stack::size);
  // As after a call: the stack is 16-byte aligned above the (absent) return address of begin().
  *--top = 0;
  *--top = reinterpret_cast<std::uintptr_t>(&entry::begin);
  for (int saved = 0; saved < 6; ++saved) *--top = 0;
  fiber.top = top;
#if defined(__SANITIZE_ADDRESS__)
  fiber.bottom = fiber.stack->bottom();
  fiber.size = fiber_stack::size;
  // Frames of the fiber's last run never returned, so that their red zones are still marked.
  __asan_unpoison_memory_region(fiber.bottom, fiber.size);
#endif
#if defined(__SANITIZE_THREAD__)
  if (!fiber.own_fiber) fiber.own_fiber = __tsan_create_fiber(0);
  fiber.fiber = fiber.own_fiber;
#endif
  started_ = gang + 1;
  switch_to(gang);
}

void gang_ring::switch_to(int gang) {
  context& from = *contexts_[current_];
  context& to = *contexts_[gang];
  current_ = gang;
#if defined(__SANITIZE_ADDRESS__)
  __sanitizer_start_switch_fiber(from.finished ? nullptr : &from.fake_stack, to.bottom, to.size);
#endif
#if defined(__SANITIZE_THREAD__)
  __tsan_switch_to_fiber(to.fiber, 0);
#endif
  host_sycl_switch_stack(&from.top, to.top);
#if defined(__SANITIZE_ADDRESS__)
  __sanitizer_finish_switch_fiber(from.fake_stack, nullptr, nullptr);
#endif
}

/// Hands over to the next gang that has not returned.
void gang_ring::yield() {
  int next = current_;
  do {
    next = next + 1 == gangs_ ? 0 : next + 1;
  } while (contexts_[next]->finished);
  if (next == started_) {
    start(next);
  } else if (next != current_) {
    switch_to(next);
  }
  if (current_ == main_ && error_) std::rethrow_exception(error_);
}

void gang_ring::meet(meeting& place, int count) {
  ++events_;
  if (++place.waiting == count) {
    place.waiting = 0;
    ++place.round;
    return;
  }
  const std::uint64_t round = place.round;
  while (place.round == round) {
    const std::uint64_t before = events_;
    yield();
    if (place.round == round && events_ == before) wait_in_vain();
  }
}

void gang_ring::run(int gangs, gang_body body, void* argument) {
  while (contexts_.size() < static_cast<std::size_t>(gangs)) contexts_.push_back(std::make_unique<context>());
  gangs_ = gangs;
  body_ = body;
  argument_ = argument;
  started_ = 0;
  finished_ = 0;
  error_ = nullptr;
  all_ = {};
  parts_.assign(static_cast<std::size_t>(gangs), {});
  for (int gang = 0; gang < gangs; ++gang) contexts_[gang]->finished = false;
  while (finished_ < gangs) {
    if (started_ == finished_) {
      // No gang waits, so this one may use the thread's own stack: without waiting, gangs just follow each
      // other.
      current_ = main_ = started_++;
#if defined(__SANITIZE_ADDRESS__)
      contexts_[main_]->bottom = nullptr;
#endif
#if defined(__SANITIZE_THREAD__)
      contexts_[main_]->fiber = __tsan_get_current_fiber();
#endif
      body(argument, main_);
      contexts_[main_]->finished = true;
      ++finished_;
      ++events_;
    } else {
      const std::uint64_t before = events_;
      yield();
      if (events_ == before) wait_in_vain();
    }
  }
}

}  // namespace sycl::host
