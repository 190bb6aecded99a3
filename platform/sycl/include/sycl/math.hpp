#pragma once

#include <cmath>

namespace sycl::native {

/// e^x of one float, to within an ulp.
inline float exp(float x) {
  return std::exp(x);
}

}  // namespace sycl::native
