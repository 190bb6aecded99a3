#pragma once
// The operators are compiled once per target, each time into a library of its own. The module loads the one
// that this CPU runs best and asks of it what stands here.

#include <torch/csrc/utils/pybind.h>

#include "add_norm_fusion.h"
#include "device_frame.h"

namespace tolvane {

struct target_library {
  void (*register_operators)(pybind11::module_&);
  decltype(&::get_workgroup_size) get_workgroup_size;
  decltype(&::initialize_gpu_type) initialize_gpu_type;
  decltype(&::is_sysarr_enabled) is_sysarr_enabled;
  decltype(&::canUse32BitIndexMath) canUse32BitIndexMath;
  decltype(&::add_rms_norm) add_rms_norm;
  decltype(&::add_layer_norm) add_layer_norm;
  decltype(&::add_add_rms_norm) add_add_rms_norm;
  decltype(&::add_add_layer_norm) add_add_layer_norm;
};

}  // namespace tolvane

/// The one symbol that a target's library exports.
extern "C" TOLVANE_EXPORT const tolvane::target_library tolvane_target_library;
