#pragma once
// How much memory the tensors of the `xpu` device hold.

#include <cstddef>

namespace kelvor_xpu {

struct MemoryStatistics {
  std::size_t live_bytes = 0;    ///< asked for by tensors and scratch that still exist
  std::size_t peak_bytes = 0;    ///< highest live_bytes so far, or since reset_peak_bytes()
  std::size_t cached_bytes = 0;  ///< free, kept for reuse
};

__attribute__((visibility("default"))) MemoryStatistics memory_statistics();
__attribute__((visibility("default"))) void reset_peak_bytes();

/// Returns all free blocks to the system.
__attribute__((visibility("default"))) void empty_cache();

}  // namespace kelvor_xpu
