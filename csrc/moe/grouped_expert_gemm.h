// The fused MoE entries over single-slab expert weights and their workspace.
#pragma once
#include <hip/hip_runtime_api.h>
#include <stdint.h>

namespace quillon {

// One buffer for every M up to the argument (the variant thresholds below it
// included).
int64_t moe_workspace_bytes(int64_t M);

// hidden and out bf16 [M, H]; all E_tot experts in one slab, the shared one
// last. bf16 in block panels; fp8 the same with bf16 128 x 128 block scales.
void fused_moe(const void* hidden, const void* router_w, const void* gate_up, const void* down, void* out,
               void* workspace, int64_t M, hipStream_t s);
void fused_moe_fp8(const void* hidden, const void* router_w, const void* gate_up, const void* down,
                   const void* gate_up_scales, const void* down_scales, void* out, void* workspace, int64_t M,
                   hipStream_t s);

// Routed experts as k-quant planes per role (format ids first); the shared
// expert's planes in k-quant when both its metadata pointers are given, else
// bf16 slabs of one expert. The shared format ids are read only with metadata.
void fused_moe_kquant_split(int32_t fmt_gate_up, int32_t fmt_down, int32_t fmt_shared_gate_up,
                            int32_t fmt_shared_down, const void* hidden, const void* router_w, const void* gate_up,
                            const void* gate_up_meta, const void* down, const void* down_meta,
                            const void* shared_gate_up, const void* shared_gate_up_meta, const void* shared_down,
                            const void* shared_down_meta, void* out, void* workspace, int64_t M, hipStream_t s);

// Routed experts in low-bit planes p0, p1, p2 of one expert quant format per
// role, all E experts at the stride of quillon_moe_lowbit_*_stride(E); with
// `down_kquant` the down role is k-quant instead (down[0], down[1] its quant
// and meta planes, fmt_down a k-quant id).
struct MoeLowBitExperts {
  int32_t fmt_gate_up, fmt_down;
  bool down_kquant;
  const void* gate_up[3];
  const void* down[3];
};
// The shared expert as in fused_moe_kquant_split. With `table`, tokens route
// by their row of tid2eid (token ids [M]) instead of by scores.
void fused_moe_lowbit(const MoeLowBitExperts& x, int32_t fmt_shared_gate_up, int32_t fmt_shared_down,
                      const void* hidden, const void* router_w, const int64_t* token_ids, const int32_t* tid2eid,
                      bool table, const void* shared_gate_up, const void* shared_gate_up_meta,
                      const void* shared_down, const void* shared_down_meta, void* out, void* workspace, int64_t M,
                      hipStream_t s);

}  // namespace quillon
