#include "sycl/cpu.hpp"

#include <array>
#include <cstdlib>
#include <stdexcept>
#include <string_view>

namespace sycl::host {

namespace {

/// Adds `name` to a list in words if the CPU lacks it.
void need(std::string& missing, bool present, const char* name) {
  if (!present) missing += (missing.empty() ? "" : ", ") + std::string(name);
}

std::string missing_for_avx2() {
  std::string missing;
  need(missing, __builtin_cpu_supports("avx2"), "AVX2");
  need(missing, __builtin_cpu_supports("fma"), "FMA");
  need(missing, __builtin_cpu_supports("f16c"), "F16C");
  need(missing, __builtin_cpu_supports("bmi2"), "BMI2");
  return missing;
}

std::string missing_for_avx512() {
  std::string missing = missing_for_avx2();
  need(missing, __builtin_cpu_supports("avx512f"), "AVX-512 F");
  need(missing, __builtin_cpu_supports("avx512bw"), "AVX-512 BW");
  need(missing, __builtin_cpu_supports("avx512cd"), "AVX-512 CD");
  need(missing, __builtin_cpu_supports("avx512dq"), "AVX-512 DQ");
  need(missing, __builtin_cpu_supports("avx512vl"), "AVX-512 VL");
  need(missing, __builtin_cpu_supports("avx512vnni"), "AVX-512 VNNI");
  return missing;
}

struct target {
  const char* name;
  std::string (*missing)();

  /// Whether there are kernels for it. HOST_SYCL_TARGETS names what is built, as " a b ".
  bool built() const {
    return std::string_view(HOST_SYCL_TARGETS).find(" " + std::string(name) + " ") != std::string_view::npos;
  }
};
/// The fastest last. The scalar kernels are compiled for the same CPUs as the narrowest vectors.
constexpr std::array targets = {target{"scalar", missing_for_avx2}, target{"avx2", missing_for_avx2},
                                target{"avx512", missing_for_avx512}};

/// "a, b or c"
std::string names_of_targets() {
  std::string names = targets[0].name;
  for (std::size_t i = 1; i < targets.size(); ++i) {
    names += (i + 1 < targets.size() ? ", " : " or ") + std::string(targets[i].name);
  }
  return names;
}

}  // namespace

std::string unsupported_cpu() {
  __builtin_cpu_init();
  const std::string missing = missing_for_avx2();
  if (missing.empty()) return {};
  return "this CPU lacks " + missing +
         ", which the device code needs; run on an x86-64-v3 CPU (2013 or later), or let the virtual machine "
         "pass the host CPU's features through";
}

std::string chosen_target() {
  __builtin_cpu_init();
  const char* asked = std::getenv("KELVOR_XPU_TARGET");
  if (asked == nullptr || *asked == '\0') {
    std::size_t best = targets.size() - 1;
    while (best > 0 && !(targets[best].built() && targets[best].missing().empty())) --best;
    return targets[best].name;
  }
  for (const target& each : targets) {
    if (each.name != std::string(asked)) continue;
    if (const std::string missing = each.missing(); !missing.empty()) {
      throw std::runtime_error("KELVOR_XPU_TARGET asks for the target " + std::string(asked) +
                               ", but this CPU lacks " + missing + "; unset it, or name a narrower target");
    }
    if (!each.built()) {
      throw std::runtime_error("KELVOR_XPU_TARGET asks for the target " + std::string(asked) +
                               ", but this build has kernels for" HOST_SYCL_TARGETS "only");
    }
    return asked;
  }
  throw std::runtime_error("KELVOR_XPU_TARGET must be " + names_of_targets() + ", but is \"" +
                           std::string(asked) + "\"");
}

bool multiplies_bfloat16() {
  static const bool has_instructions = (__builtin_cpu_init(), __builtin_cpu_supports("avx512bf16"));
  return has_instructions;
}

}  // namespace sycl::host
