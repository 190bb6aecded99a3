#pragma once
// The element types that the device's own kernels for matrices know. Nothing with inline functions may be
// included here: some files that include this are compiled for AVX2, and the linker might pick their copy.

namespace kelvor_xpu {

enum class ElementType { single, half, bfloat16 };

}  // namespace kelvor_xpu
