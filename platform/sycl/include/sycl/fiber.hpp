#pragma once
// How the gangs of one work-group take turns. Gangs run one after the other on the calling thread; at a
// barrier a gang hands over to the next, on a stack of its own, so that after the last one all have reached
// the barrier. A kernel without barriers, and a work-group of one gang, never switch.

#include <cstddef>
#include <exception>
#include <memory>
#include <vector>

namespace sycl::host {

/// Memory of a fiber's stack, with an unmapped page below it.
class fiber_stack {
 public:
  fiber_stack();
  ~fiber_stack();
  fiber_stack(const fiber_stack&) = delete;
  fiber_stack& operator=(const fiber_stack&) = delete;
  std::byte* bottom() const { return bottom_; }
  static constexpr std::size_t size = 128 * 1024;

 private:
  std::byte* mapping_;
  std::byte* bottom_;
};

/// Runs the gangs of work-groups on one thread.
class gang_ring {
 public:
  using gang_body = void (*)(void* argument, int gang);

  /// Runs body(argument, 0) … body(argument, gangs - 1). The first exception of a gang is thrown here; gangs
  /// that wait at a barrier are then abandoned.
  void run(int gangs, gang_body body, void* argument);

  /// Waits until all gangs of the running work-group are here. Throws std::logic_error where one has ended
  /// instead.
  void barrier() {
    if (gangs_ > 1) hand_over();
  }

  /// The ring of the calling thread.
  static gang_ring& of_this_thread();

 private:
  struct context;
  struct entry;
  void hand_over();
  void start(int gang);
  void switch_to(int gang);

  int gangs_ = 0;
  int current_ = 0;
  int started_ = 0;   // gangs 0 … started_ - 1 have begun, all but 0 on fibers
  int finished_ = 0;  // gangs that have returned
  gang_body body_ = nullptr;
  void* argument_ = nullptr;
  std::exception_ptr error_;
  std::vector<std::unique_ptr<context>> contexts_;
};

}  // namespace sycl::host
