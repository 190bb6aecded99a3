#pragma once
// A thread pool of our own. Its workers sleep between jobs, so that they never take a core from PyTorch or
// from the BLAS, whose thread settings stay untouched; they run on other CPUs than the thread that launches;
// and it survives fork(), where OpenMP's does not.

#include <cstddef>
#include <type_traits>

namespace sycl::host {

/// A reference to a callable `void(size_t begin, size_t end)` that outlives the call it is passed to.
class range_function {
 public:
  template <class F>
  requires(!std::is_same_v<std::remove_cvref_t<F>, range_function>)
      range_function(F&& f)  // NOLINT: conversion is the purpose
      : object_(const_cast<void*>(static_cast<const void*>(&f))),
        call_([](void* object, std::size_t begin, std::size_t end) {
          (*static_cast<std::remove_reference_t<F>*>(object))(begin, end);
        }) {}
  void operator()(std::size_t begin, std::size_t end) const { call_(object_, begin, end); }

 private:
  void* object_;
  void (*call_)(void*, std::size_t, std::size_t);
};

/// Number of threads that share a job, the calling thread included. Default: the CPUs this process may use.
int pool_threads();

/// Sets that number (at least 1) for the jobs that start afterwards.
void set_pool_threads(int threads);

/// Runs body over [0, count) in pieces of `grain` (the last may be shorter), dealt in turn to the pool and to
/// the calling thread, and returns when all are done. The first exception is rethrown here; pieces not yet
/// begun are then left out. A call from inside a body, or while another thread's job holds the pool, runs on
/// its own thread alone. Where the system starts no thread, those that there are share the job, at worst the
/// calling one alone.
void parallel_for_pieces(std::size_t count, std::size_t grain, range_function body);

}  // namespace sycl::host
