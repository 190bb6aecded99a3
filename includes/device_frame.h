#pragma once
// What every operator needs to know of the device: its class, its limits, and the queue of its current
// stream.

#include <ATen/core/Tensor.h>
#include <c10/core/Device.h>

#include <string>

#include "sycl/queue.hpp"

namespace tolvane {

/// Device classes, by the device's name.
enum gpu_type : int {
  gpu_summit = 0,
  gpu_vela_a = 1,
  gpu_ridge = 2,
  gpu_other = 3,
  gpu_vela = 4,
  gpu_igx = 5
};

/// The class of a device of this name: the first of "Rack GPU Summit", "Vela(TM) A", "Vela(TM)", "IGX" and
/// "Rack GPU Ridge" that the name contains decides.
int classify_gpu(const std::string& name);

/// The queue of the stream that is current on `device`. Raises where no XPU device guard is registered.
sycl::queue& current_queue(c10::Device device);

}  // namespace tolvane

// Linkable by other native code.
#define TOLVANE_EXPORT __attribute__((visibility("default")))

/// The largest work-group of the current XPU device.
TOLVANE_EXPORT int get_workgroup_size();

/// The class of the current XPU device, a tolvane::gpu_type.
TOLVANE_EXPORT int initialize_gpu_type();

/// False exactly when the environment variable QUARN_LLM_SYSARR_DISABLED is "1" at the time of the call.
TOLVANE_EXPORT bool is_sysarr_enabled();

/// Whether the offsets of all elements of `t`, from its first, stay below 2147483647.
TOLVANE_EXPORT bool canUse32BitIndexMath(const at::Tensor& t);

namespace tolvane {

/// initialize_gpu_type() and get_workgroup_size(), probed at the first call and the same from then on. The
/// module calls both when it is imported.
int current_gpu_type();
int max_workgroup_size();

}  // namespace tolvane
