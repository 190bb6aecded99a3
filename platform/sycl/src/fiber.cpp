#include "sycl/fiber.hpp"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <new>
#include <stdexcept>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/common_interface_defs.h>
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

/// Where a gang goes on. Context 0 is the thread that called run(); the others own a stack. What the
/// sanitizers must be told of a switch is kept beside it.
struct gang_ring::context {
  void* top = nullptr;
  std::unique_ptr<fiber_stack> stack;
#if defined(__SANITIZE_ADDRESS__)
  void* fake_stack = nullptr;
  const void* bottom = nullptr;
  std::size_t size = 0;
#endif
#if defined(__SANITIZE_THREAD__)
  void* fiber = nullptr;
  ~context() {
    if (stack && fiber) __tsan_destroy_fiber(fiber);
  }
#endif
};

gang_ring& gang_ring::of_this_thread() {
  thread_local gang_ring ring;
  return ring;
}

/// The first frame of a fiber: runs its gang, keeps what it throws, and goes back to the thread's own stack.
struct gang_ring::entry {
  static void run(gang_ring& ring) {
#if defined(__SANITIZE_ADDRESS__)
    context& caller = *ring.contexts_[0];
    __sanitizer_finish_switch_fiber(nullptr, ring.current_ == 1 ? &caller.bottom : nullptr,
                                    ring.current_ == 1 ? &caller.size : nullptr);
#endif
    try {
      ring.body_(ring.argument_, ring.current_);
      if (ring.finished_ == 0)
        throw std::logic_error("a work-group barrier was not reached by all work-items");
    } catch (...) {
      if (!ring.error_) ring.error_ = std::current_exception();
    }
    ++ring.finished_;
    ring.switch_to(0);
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
#endif
#if defined(__SANITIZE_THREAD__)
  if (!fiber.fiber) fiber.fiber = __tsan_create_fiber(0);
#endif
  started_ = gang + 1;
  switch_to(gang);
}

void gang_ring::switch_to(int gang) {
  context& from = *contexts_[current_];
  context& to = *contexts_[gang];
  current_ = gang;
#if defined(__SANITIZE_ADDRESS__)
  __sanitizer_start_switch_fiber(&from.fake_stack, to.bottom, to.size);
#endif
#if defined(__SANITIZE_THREAD__)
  __tsan_switch_to_fiber(to.fiber, 0);
#endif
  host_sycl_switch_stack(&from.top, to.top);
#if defined(__SANITIZE_ADDRESS__)
  __sanitizer_finish_switch_fiber(from.fake_stack, nullptr, nullptr);
#endif
}

void gang_ring::hand_over() {
  if (finished_ > 0) throw std::logic_error("a work-group barrier was not reached by all work-items");
  const int next = current_ + 1 == gangs_ ? 0 : current_ + 1;
  if (next == started_) {
    start(next);
  } else {
    switch_to(next);
  }
  if (current_ == 0 && error_) std::rethrow_exception(error_);
}

void gang_ring::run(int gangs, gang_body body, void* argument) {
  while (contexts_.size() < static_cast<std::size_t>(gangs)) contexts_.push_back(std::make_unique<context>());
  gangs_ = gangs;
  body_ = body;
  argument_ = argument;
  current_ = 0;
  started_ = 1;
  finished_ = 0;
  error_ = nullptr;
#if defined(__SANITIZE_THREAD__)
  contexts_[0]->fiber = __tsan_get_current_fiber();
#endif
  body(argument, 0);
  ++finished_;
  for (int gang = 1; gang < gangs; ++gang) {
    if (gang < started_) {
      switch_to(gang);
      if (error_) std::rethrow_exception(error_);
    } else {
      current_ = gang;
      body(argument, gang);  // no barrier so far: nothing to switch, the gangs just follow each other
    }
  }
}

}  // namespace sycl::host
