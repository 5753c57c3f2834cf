// Host entries of the linear-attention recurrences: the causal convolution and
// the gated delta rule over caller-owned state pools. Each reads the active
// geometry (0, 1 or 3). Slot lists may be null: slot = sequence index (or
// b*rows + r for per-row slots); a null has_state means no sequence continues,
// a null accepted means every row of the previous step was accepted.
#pragma once
#include <hip/hip_runtime_api.h>
#include <stdint.h>

namespace quillon {

// Convolution (width 4, SiLU) over conv rows of DIM channels; state slots are
// [3][DIM] bf16 holding the last three raw inputs, oldest first.
void conv1d_prefill(const void* x, int64_t qkv_stride, const void* weight, const int32_t* cu_seqlens,
                    const int32_t* has_state, const int32_t* slots, void* state, void* out, int64_t num_seqs,
                    int64_t max_len, hipStream_t stream);
void conv1d_state_ckpt(const void* x, int64_t qkv_stride, const int32_t* cu_seqlens, const int32_t* has_state,
                       const int32_t* slots, const void* state, const int32_t* ckpt_at, const int32_t* ckpt_slots,
                       int64_t ckpt_max, void* ckpt, int64_t num_seqs, hipStream_t stream);
void conv1d_decode(const void* x, int64_t qkv_stride, const void* weight, const int32_t* slots,
                   const int32_t* accepted, void* state, void* out, int64_t num_seqs, int64_t rows,
                   hipStream_t stream);
void conv1d_decode_readonly(const void* x, int64_t qkv_stride, const void* weight, const int32_t* slots,
                            const void* state, void* out, int64_t num_seqs, int64_t rows, hipStream_t stream);
void conv1d_advance(const void* x, int64_t qkv_stride, const int32_t* slots, const int32_t* accepted, void* state,
                    int64_t num_seqs, int64_t rows, hipStream_t stream);

// Gated delta rule; state slots are fp32 [HV][128][128], (h, k, v) at
// (h*128 + k)*128 + v. qkv rows are dense conv outputs (stride DIM); b and a
// hold one logit per value head with row stride ba_stride.
void gated_delta_rule_decode(const void* qkv, const void* b, const void* a, int64_t ba_stride, const float* a_log,
                             const float* dt_bias, const int32_t* slots, const int32_t* accepted, float* state,
                             void* out, int64_t num_seqs, int64_t rows, hipStream_t stream);
void gated_delta_rule_decode_readonly(const void* qkv, const void* b, const void* a, int64_t ba_stride,
                                      const float* a_log, const float* dt_bias, const int32_t* slots,
                                      const float* state, void* out, int64_t num_seqs, int64_t rows,
                                      hipStream_t stream);
void gated_delta_rule_advance(const void* qkv, const void* b, const void* a, int64_t ba_stride, const float* a_log,
                              const float* dt_bias, const int32_t* slots, const int32_t* accepted, float* state,
                              int64_t num_seqs, int64_t rows, hipStream_t stream);
void gated_delta_rule_prefill(const void* qkv, const void* b, const void* a, int64_t ba_stride, const float* a_log,
                              const float* dt_bias, const int32_t* cu_seqlens, const int32_t* has_state,
                              const int32_t* slots, float* state, const int32_t* ckpt_at, const int32_t* ckpt_slots,
                              int64_t ckpt_max, float* ckpt_state, void* out, int64_t num_seqs, int64_t max_tokens,
                              hipStream_t stream);

}  // namespace quillon
