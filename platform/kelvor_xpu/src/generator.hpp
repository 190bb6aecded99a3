#pragma once
// Generators of random numbers that say that they are the xpu device's. The numbers are drawn by the CPU's
// kernels, from a generator of the CPU inside.

#include <ATen/core/Generator.h>

namespace kelvor_xpu {

/// A new generator of the xpu device, seeded as a new one of the CPU is.
at::Generator new_generator();

/// The xpu device's face of the CPU's default generator: both give out one sequence of numbers.
const at::Generator& default_generator();

/// The CPU generator inside of one of the xpu device's, and any other generator itself.
at::Generator cpu_generator(const at::Generator& generator);

}  // namespace kelvor_xpu
