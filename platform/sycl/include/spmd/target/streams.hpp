#pragma once

#include <immintrin.h>

namespace spmd::target {

/// Waits until the calling thread's stores past the caches are in memory, where other threads see them.
inline void finish_streams() {
  _mm_sfence();
}

}  // namespace spmd::target
