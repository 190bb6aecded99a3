#pragma once

namespace kelvor_xpu {

/// Refuses allocations by which live bytes would exceed this part of the machine's memory. From 0 to 1, which
/// is no limit; throws for anything else.
__attribute__((visibility("default"))) void limit_memory(double fraction);

}  // namespace kelvor_xpu
