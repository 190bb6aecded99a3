#pragma once

#include <string>

namespace sycl::host {

/// Empty if this CPU runs the device code (AVX2, FMA, F16C and BMI2); else a sentence that says what is
/// missing and what to do. Callable on any x86-64 CPU.
std::string unsupported_cpu();

}  // namespace sycl::host
