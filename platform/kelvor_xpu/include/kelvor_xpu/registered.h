#pragma once

namespace kelvor_xpu {

/// Whether the xpu device of this process is this library's. It is not where another backend came first, or
/// where the CPU cannot run device code.
__attribute__((visibility("default"))) bool registered();

}  // namespace kelvor_xpu
