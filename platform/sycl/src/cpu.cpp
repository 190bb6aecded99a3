#include "sycl/cpu.hpp"

namespace sycl::host {

std::string unsupported_cpu() {
  __builtin_cpu_init();
  std::string missing;
  const auto need = [&](bool present, const char* name) {
    if (!present) missing += (missing.empty() ? "" : ", ") + std::string(name);
  };
  need(__builtin_cpu_supports("avx2"), "AVX2");
  need(__builtin_cpu_supports("fma"), "FMA");
  need(__builtin_cpu_supports("f16c"), "F16C");
  need(__builtin_cpu_supports("bmi2"), "BMI2");
  if (missing.empty()) return {};
  return "this CPU lacks " + missing +
         ", which the device code needs; run on an x86-64-v3 CPU (2013 or later), or let the virtual machine "
         "pass the "
         "host CPU's features through";
}

}  // namespace sycl::host
