// Host entries of the RMSNorm family.
#pragma once
#include <hip/hip_runtime_api.h>
#include <stdint.h>

namespace quillon {
// Row-major norm of the active geometry's H; with `residual`, the residual form.
void rmsnorm(const void* x, void* residual, const void* weight, void* out, int64_t rows, float eps, hipStream_t s);
// Width-generic norm selected by its arguments; reads no geometry.
void dsv4_rmsnorm(const void* x, const void* weight, void* out, int64_t H, int64_t rows, int64_t x_stride,
                  bool x_is_fp32, float eps, hipStream_t s);
}  // namespace quillon
