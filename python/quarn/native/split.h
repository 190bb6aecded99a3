#pragma once

#include <atomic>
#include <cstdint>
#include <system_error>
#include <thread>
#include <vector>

namespace quarn {

/// Calls body(first, count) for parts of 0 to `total` of at most `step`, on `threads` threads with the
/// calling one.
template <class Body>
void split(std::int64_t total, std::int64_t step, int threads, const Body& body) {
  std::atomic<std::int64_t> next{0};
  const auto work = [&] {
    for (std::int64_t first; (first = next.fetch_add(step, std::memory_order_relaxed)) < total;)
      body(first, first + step < total ? step : total - first);
  };
  std::vector<std::jthread> others;
  try {
    for (int thread = 1; thread < threads && thread * step < total; ++thread) others.emplace_back(work);
  } catch (const std::system_error&) {
    // The work is dealt out bit by bit; those that run do all of it.
  }
  work();
}

}  // namespace quarn
