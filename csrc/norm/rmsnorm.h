// Host entries of the RMSNorm family. All are asynchronous on `s` and do not
// check the launch status.
#pragma once
#include <hip/hip_runtime_api.h>
#include <stdint.h>

namespace quillon {
// Row-major norm of the active geometry's H; with `residual`, the residual form.
void rmsnorm(const void* x, void* residual, const void* weight, void* out, int64_t rows, float eps, hipStream_t s);

// Prefill norm of the active geometry writing the blk32 A panel of
// ceil(rows/256)*256 rows; pad rows come out zero. With `residual`, the
// residual form (residual updated in place for the real rows).
void rmsnorm_shuffled(const void* x, void* residual, const void* weight, void* out, int64_t rows, float eps,
                      hipStream_t s);

// Width-generic norm selected by its arguments; reads no geometry. `weight`
// may be null; `x_stride` 0 means H.
void dsv4_rmsnorm(const void* x, const void* weight, void* out, int64_t H, int64_t rows, int64_t x_stride,
                  bool x_is_fp32, float eps, hipStream_t s);

// Width-generic norm into a blk32 panel of `padded_rows` rows, one block per
// row; rows at or past `rows` are written as zeros. `weight` may be null.
void dsv4_rmsnorm_shuffled(const void* x, const void* weight, void* out, int64_t H, int64_t rows,
                           int64_t padded_rows, float eps, hipStream_t s);

// Gated norm over (row, value head) items of the linear-attention output `x`
// ([rows, value heads * 128]) with gate rows of stride `gate_stride`. The
// row-major form may run in place; the shuffled form writes a blk32 panel of
// `padded_rows` rows with zero pad rows.
void rmsnorm_gated(const void* x, const void* gate, int64_t gate_stride, const void* weight, void* out, int64_t rows,
                   float eps, hipStream_t s);
void rmsnorm_gated_shuffled(const void* x, const void* gate, int64_t gate_stride, const void* weight, void* out,
                            int64_t rows, int64_t padded_rows, float eps, hipStream_t s);
}  // namespace quillon
