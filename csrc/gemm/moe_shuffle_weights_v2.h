// Expert weight forms of the MoE, made once at load: bf16 and fp8 block
// panels per expert, fp8 block scales, k-quant planes per expert matrix and
// the low-bit planes shared by all experts of a role. Gate-up rows interleave
// gate and up of one output column. n is the number of experts of a call.
#pragma once
#include <hip/hip_runtime_api.h>
#include <stdint.h>

namespace quillon {

void moe_shuffle_gate_up(const void* gate, const void* up, void* dst, int64_t n, hipStream_t s);
void moe_shuffle_gate_up_fused(const void* src, void* dst, int64_t n, hipStream_t s);
void moe_shuffle_down(const void* src, void* dst, int64_t n, hipStream_t s);
void moe_shuffle_gate_up_fp8(const void* gate, const void* up, void* dst, int64_t n, hipStream_t s);
void moe_shuffle_down_fp8(const void* src, void* dst, int64_t n, hipStream_t s);
void moe_scale_shuffle_gate_up_fp8(const void* gate_scales, const void* up_scales, void* dst, int64_t n,
                                   hipStream_t s);
void moe_scale_shuffle_down_fp8(const void* src, void* dst, int64_t n, hipStream_t s);

// Role 0 is gate-up (2I rows of K = H), role 1 down (H rows of K = I).
int64_t moe_kquant_quant_bytes(int role, int32_t format, int64_t n);
int64_t moe_kquant_meta_bytes(int role, int32_t format, int64_t n);
void moe_kquant_shuffle_gate_up(int32_t format, const void* gate, const void* up, void* quant, void* meta, int64_t n,
                                hipStream_t s);
void moe_kquant_shuffle_down(int32_t format, const void* src, void* quant, void* meta, int64_t n, hipStream_t s);

int64_t moe_lowbit_stride(int role, int64_t n);
int64_t moe_lowbit_plane_bytes(int role, int32_t format, int plane, int64_t n);
void moe_lowbit_shuffle_gate_up(int32_t format, const void* gate, const void* up, void* p0, void* p1, void* p2,
                                int64_t n, hipStream_t s);
void moe_lowbit_shuffle_gate_up_fused(int32_t format, const void* src, void* p0, void* p1, void* p2, int64_t n,
                                      hipStream_t s);
void moe_lowbit_shuffle_down(int32_t format, const void* src, void* p0, void* p1, void* p2, int64_t n,
                             hipStream_t s);

}  // namespace quillon
