#pragma once
// Host SYCL: the part of SYCL 2020 that the kernels use, run on the CPU.

#include "spmd/spmd.hpp"
#include "sycl/device.hpp"
#include "sycl/group.hpp"
#include "sycl/half.hpp"
#include "sycl/item.hpp"
#include "sycl/math.hpp"
#include "sycl/queue.hpp"
#include "sycl/range.hpp"
