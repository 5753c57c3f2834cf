// Shared between the CPU device's HIP API and its execution engine.
#pragma once
#include <hip/hip_runtime_api.h>
#include "qcpu.h"

namespace qcpu {
// Records a sticky per-thread error, as HIP does, and returns it.
hipError_t set_error(hipError_t e);
int launch(qcpu_dim3 grid, qcpu_dim3 block, size_t lds, void (*invoke)(void*), void* closure, int flags);
}  // namespace qcpu
