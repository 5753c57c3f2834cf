// Host entries of the dense MLP of geometry 1: out = down(silu(gate(x)) * up(x)),
// in one caller-sized workspace, and the weight shuffles of its projections.
#pragma once
#include <hip/hip_runtime_api.h>
#include <stdint.h>

namespace quillon {

// One projection's weight: `form` 0 bf16 (w), 1 fp8 (w, scale), 2 k-quant
// (format, w = quant, scale = meta).
struct MlpWeight {
  int form;
  int32_t format;
  const void* w;
  const void* scale;
};

int64_t fused_mlp_workspace_bytes(int64_t M);
// The stage scratch of the down step alone.
int64_t mlp_down_scratch_bytes(int64_t M);
// `name` is the operator's, for the workspace message. With `up` the gate and
// up halves are separate k-quant weights at different widths.
void fused_mlp(const char* name, const MlpWeight& gate_up, const MlpWeight* up, const MlpWeight& down, const void* x,
               void* out, void* ws, int64_t M, int32_t mode, hipStream_t s);

enum class MlpPart { GateUp, Gate, Up, Down };
void mlp_shuffle_w(MlpPart part, int form, int32_t format, const void* src, void* dst, void* meta, hipStream_t s);

}  // namespace quillon
