#pragma once
// Pinned memory: the CPU's memory that a device may read while it works. This device reads all of it, so that
// pinned memory is ordinary memory that is known to have been asked for as pinned.

namespace kelvor_xpu {

/// Whether `data` points into live pinned memory.
bool is_pinned(const void* data);

/// Makes the allocator of pinned memory known to PyTorch, which asks for it by the name of the device.
void register_pinned_memory();

}  // namespace kelvor_xpu
