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

// The fused layer. Weights in the order of the layer's weight record; a
// format id is read only where its weight is given.
struct LinearAttnWeights {
  const void* in_proj;  // bf16 blk32, the whole row
  const void* conv_weight;
  const float* a_log;
  const float* dt_bias;
  const void* norm_weight;
  const void* out_proj;  // bf16 blk32, or fp8 bytes with in_proj_qz_fp8
  const void* in_proj_qz_scale;
  const void* in_proj_qz_fp8;
  const void* in_proj_ba;
  const void* out_proj_scale;
  const void* in_proj_qz_kquant;
  const void* in_proj_qz_meta;
  int32_t qz_format = 8;
  const void* in_proj_qkv_kquant;
  const void* in_proj_qkv_meta;
  int32_t qkv_format = 8;
  const void* in_proj_z_kquant;
  const void* in_proj_z_meta;
  int32_t z_format = 8;
  const void* out_proj_kquant;
  const void* out_proj_meta;
  int32_t out_format = 8;
};

// Retained rows of a roll-forward decode: conv inputs, conv outputs, logits
// (b then a); rows[0] null means no retain.
struct RetainRows {
  void* rows[3];
};

struct LinearAttnCall {
  const void* x;
  void* residual;
  const void* input_norm;
  const int32_t* cu_seqlens;
  const int32_t* has_state;
  const int32_t* slots;
  const int32_t* accepted;
  void* conv_state;
  float* delta_state;
  const int32_t* ckpt_at;
  const int32_t* ckpt_slots;
  int64_t ckpt_max;
  void* ckpt_conv;
  float* ckpt_delta;
  void* workspace;
  void* out;
  int64_t B, M;
  int32_t path;  // projection mode: 2 decode, 0 prefill, 1 x is a finished blk32 panel
  hipStream_t stream;
  RetainRows retain;
  float eps;
};

void check_linear_formats(const LinearAttnWeights& w);
void fused_linear_attn(const LinearAttnWeights& w, const LinearAttnCall& c);
int64_t fused_linear_attn_workspace_bytes(int64_t M, int32_t path);
int64_t linear_attn_retain_bytes(int64_t M, int32_t which);
void linear_attn_advance(const RetainRows& rt, const float* a_log, const float* dt_bias, const int32_t* slots,
                         const int32_t* accepted, void* conv_state, float* delta_state, int64_t num_seqs, int64_t rows,
                         hipStream_t stream);
void linear_state_pool(int64_t max_seqs, int64_t rows, int64_t* total_slots, int64_t* spare_slot);
int64_t linear_state_slots(int32_t seq, int32_t committed, int64_t capacity, int64_t rows, int32_t* out);

// Weight shuffles at the layer's fixed shapes: form 0 bf16, 1 fp8, 2 k-quant.
enum class LinearPart { In, Ba, Qz, Qkv, Z, Out };
void linear_proj_shuffle_w(LinearPart part, int form, int32_t format, const void* src, void* dst, void* meta,
                           hipStream_t s);

}  // namespace quillon
