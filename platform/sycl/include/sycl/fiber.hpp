#pragma once
// How the gangs of one work-group take turns. Gangs run one after the other on the calling thread; where one
// has to wait for others it hands over to the next, on a stack of its own. A kernel in which no gang waits,
// and a work-group of one gang, never switch.

#include <cstddef>
#include <cstdint>
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
  /// that wait for others are then abandoned.
  void run(int gangs, gang_body body, void* argument);

  /// Says that the thread runs a work-group of one gang, which never waits.
  void run_alone() { gangs_ = 1; }

  /// Waits until all gangs of the running work-group are here. Throws std::logic_error where one ends or
  /// waits for something else instead.
  void barrier() {
    if (gangs_ > 1) meet(all_, gangs_);
  }

  /// Waits until the gangs first … first + count - 1, the caller among them, are here.
  void barrier_among(int first, int count) {
    if (count > 1) meet(parts_[static_cast<std::size_t>(first)], count);
  }

  /// The ring of the calling thread.
  static gang_ring& of_this_thread();

 private:
  struct context;
  struct entry;

  /// A place where gangs wait for each other.
  struct meeting {
    int waiting = 0;
    std::uint64_t round = 0;
  };

  void meet(meeting& place, int count);
  void yield();
  void start(int gang);
  void switch_to(int gang);

  int gangs_ = 0;
  int current_ = 0;
  int main_ = 0;              // the gang that runs on the thread's own stack
  int started_ = 0;           // gangs 0 … started_ - 1 have begun
  int finished_ = 0;          // gangs that have returned
  std::uint64_t events_ = 0;  // arrivals and returns: a gang that sees none in a whole turn waits in vain
  meeting all_;
  std::vector<meeting> parts_;  // by first gang
  gang_body body_ = nullptr;
  void* argument_ = nullptr;
  std::exception_ptr error_;
  std::vector<std::unique_ptr<context>> contexts_;
};

}  // namespace sycl::host
