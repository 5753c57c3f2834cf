// Host entries of the projections around a full-attention layer (geometries
// 0, 1, 3): the normalised QKV projection with its optional indexer
// projection, the gated output projection, their scratch and weight shuffles.
// Modes are the projection modes (Prefill, PrefillShuffledA, Decode).
#pragma once
#include <hip/hip_runtime_api.h>
#include <stdint.h>

namespace quillon {

// What every QKV operator takes besides its weights.
struct QkvCall {
  const void* x;
  void* residual;      // may be null
  const void* norm_w;  // may be null
  void* scratch;       // qkv_proj_scratch_bytes(M)
  void* out;
  int64_t M;
  int32_t mode;
  const void* index_w;  // geometry 3 only; with index_out
  void* index_out;
  hipStream_t stream;
  float eps;
};
void qkv_proj(const QkvCall& c, const void* w);
void qkv_proj_fp8(const QkvCall& c, const void* w, const void* w_scale);
void qkv_proj_kquant(const QkvCall& c, int32_t format, const void* quant, const void* meta);
void qkv_proj_pair_kquant(const QkvCall& c, int32_t format_qk, const void* qk_quant, const void* qk_meta,
                          int32_t format_v, const void* v_quant, const void* v_meta);
void qkv_proj_q_kv_kquant(const QkvCall& c, int32_t format_q, const void* q_quant, const void* q_meta,
                          const void* kv_w);
int64_t qkv_proj_scratch_bytes(int64_t M);

// Weight shuffles: bf16 and fp8 rows into blk32, GGUF tensors into planes.
enum class QkvPart { Fused, Qk, V, Q, Kv, Index };
void qkv_proj_shuffle_w(QkvPart part, const void* src, void* dst, hipStream_t s);
void qkv_proj_shuffle_w_fp8(const void* src, void* dst, hipStream_t s);
void qkv_proj_shuffle_w_kquant(QkvPart part, int32_t format, const void* src, void* quant, void* meta,
                               hipStream_t s);

// The output projection of the gated attention output; `form` 0 bf16, 1 fp8
// (w_scale), 2 k-quant (format, w = quant, w_scale = meta).
struct OprojWeight {
  int form;
  int32_t format;
  const void* w;
  const void* w_scale;
};
void attn_out_scale_oproj(const OprojWeight& w, const void* attn, const void* gate, int64_t gate_stride,
                          void* scratch, void* out, int64_t M, int32_t mode, hipStream_t s);
void attn_oproj_shuffled_a(const OprojWeight& w, const void* a, void* out, int64_t M, hipStream_t s);
int64_t attn_out_scale_oproj_scratch_bytes(int64_t M);
void attn_out_scale_oproj_shuffle_w(int form, int32_t format, const void* src, void* dst, void* meta,
                                    hipStream_t s);

}  // namespace quillon
