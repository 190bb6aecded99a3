#pragma once
// The target that this file is compiled for: the build names its header.

#if !defined(SPMD_TARGET_HEADER)
#define SPMD_TARGET_HEADER "spmd/target/avx2.hpp"
#endif
#include SPMD_TARGET_HEADER

namespace spmd {

/// Lanes of a gang where the kernel does not fix them; 1 is the scalar reading of every kernel.
inline constexpr int gang_lanes = target::gang_lanes;

/// Elements of T in a whole register.
template <class T>
inline constexpr int native_lanes = target::register_bytes / static_cast<int>(sizeof(T));

}  // namespace spmd
