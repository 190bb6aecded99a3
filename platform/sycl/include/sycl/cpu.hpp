#pragma once

#include <string>

namespace sycl::host {

/// Empty if this CPU runs the device code (AVX2, FMA, F16C and BMI2); else a sentence that says what is
/// missing and what to do. Callable on any x86-64 CPU.
std::string unsupported_cpu();

/// The target whose kernels are to run, "scalar", "avx2" or "avx512": the one that KELVOR_XPU_TARGET names,
/// else the widest that this CPU has and this build has kernels for. Throws std::runtime_error, with a
/// sentence that says what would do, for a name that is none and for a target that is lacking.
std::string chosen_target();

/// Whether this CPU has instructions that multiply bfloat16.
bool multiplies_bfloat16();

}  // namespace sycl::host
