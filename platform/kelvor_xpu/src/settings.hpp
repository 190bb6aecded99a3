#pragma once
// The environment variables of this library, read once, when the device is first used.

#include <cstddef>
#include <string>

namespace kelvor_xpu {

struct Settings {
  /// KELVOR_XPU_DEVICE_NAME: the name that the device gives itself.
  std::string device_name = "Kelvor XPU (host emulation)";
  /// KELVOR_XPU_MAX_WORK_GROUP_SIZE: the largest work-group that the device accepts.
  std::size_t max_work_group_size = 1024;
};

/// The settings. The first call also hands KELVOR_XPU_THREADS to the thread pool. Throws
/// std::invalid_argument if a number is malformed, at every call.
const Settings& settings();

}  // namespace kelvor_xpu
