// Every exported function: narrow the arguments, call the host entry, return
// hipGetLastError(). Nothing else happens here.
#include <cstring>

#include "quillon/quillon.h"
#include "../device/geometry.h"
#include "../norm/rmsnorm.h"
#include "../rope/rope.h"
#include "../cache/kv_cache.h"
#include "../attention/full/paged_attn.h"
#include "../device/gather_embedding.h"
#include "../embedding/lm_head_gemm.h"
#include "../sampling/topk_topp.h"
#include "../sampling/multinomial.h"
#include "../gemm/kquant_shuffle.h"
#include "../gemm/gemm_entries.h"
#include "../io/file_read.h"
#include "../attention/linear/linear_attn.h"
#include "../moe/router.h"
#include "../gemm/moe_shuffle_weights_v2.h"
#include "../moe/grouped_expert_gemm.h"
#include "../moe/moe_variant.h"
#include "../attention/full/attn_proj.h"
#include "../mlp/mlp_dense.h"
#include "quillon/kquant_sets.h"

using namespace quillon;

namespace {
int64_t copy_name(const char* name, char* buf, int64_t cap) {
  const int64_t len = (int64_t)std::strlen(name);
  if (buf && cap >= 1) {
    const int64_t n = len < cap - 1 ? len : cap - 1;
    std::memcpy(buf, name, (size_t)n);
    buf[n] = '\0';
  }
  return len;
}
}  // namespace

extern "C" {

/* ---- frame ---- */
QUILLON_API int32_t quillon_abi_version(void) { return 56; }
QUILLON_API int32_t quillon_select_geometry(int32_t id) { return select_geometry(id); }
QUILLON_API int32_t quillon_active_geometry(void) { return active_geometry(); }
QUILLON_API int64_t quillon_geometry_name(int32_t id, char* buf, int64_t cap) {
  return copy_name(geometry_name(id), buf, cap);
}
QUILLON_API void quillon_model_config(QuillonModelConfig* out) {
  const int32_t g = active_geometry();
  switch (g) {
    case 0: *out = config_of<Qwen36MoeA3B>(); return;
    case 1: *out = config_of<Qwen3627B>(); return;
    case 2: *out = config_of<DeepSeekV4Flash>(); return;
    case 3: *out = config_of<Qwen38FlashNext>(); return;
    default: QUILLON_GEOMETRY_FAILURE(g);
  }
}
QUILLON_API int64_t quillon_kv_block_sizes(int64_t* out, int64_t cap) {
  if (out && cap > 0) out[0] = 16;
  return 1;
}
QUILLON_API int32_t quillon_select_draft(const QuillonDraftShape* shape) { return select_draft(shape); }
QUILLON_API int32_t quillon_active_draft(void) { return active_draft(); }
QUILLON_API int32_t quillon_draft_count(void) { return 2; }
QUILLON_API int32_t quillon_draft_shape(int32_t id, QuillonDraftShape* out) { return draft_shape(id, out) ? 0 : 1; }
QUILLON_API int64_t quillon_draft_name(int32_t id, char* buf, int64_t cap) { return copy_name(draft_name(id), buf, cap); }
QUILLON_API int64_t quillon_shuffle_bytes(int64_t bytes) { return bytes; }
QUILLON_API const char* quillon_error_string(hipError_t code) { return hipGetErrorString(code); }
QUILLON_API hipError_t quillon_synchronize(hipStream_t stream) { return hipStreamSynchronize(stream); }

/* ---- weight formats ---- */
QUILLON_API int64_t quillon_kquant_gguf_bytes(int32_t format, int64_t N, int64_t K) {
  return kquant_gguf_bytes(format, N, K);
}
QUILLON_API int64_t quillon_kquant_quant_bytes(int32_t format, int64_t N, int64_t K) {
  return kquant_quant_bytes(format, N, K);
}
QUILLON_API int64_t quillon_kquant_meta_bytes(int32_t format, int64_t N, int64_t K) {
  return kquant_meta_bytes(format, N, K);
}
QUILLON_API hipError_t quillon_proj_scale_shuffle_fp8(const void* src, void* dst, int64_t N, int64_t K,
                                                      hipStream_t stream) {
  proj_scale_shuffle_fp8(src, dst, N, K, stream);
  return hipGetLastError();
}

/* ---- general GEMM ---- */
QUILLON_API hipError_t quillon_gemm_bf16_shuffle_b(const void* src, void* dst, int64_t N, int64_t K,
                                                   hipStream_t stream) {
  gemm_bf16_shuffle_b(src, dst, N, K, stream);
  return hipGetLastError();
}
QUILLON_API int64_t quillon_gemm_bf16_a_ws_bytes(int64_t M, int64_t K) { return gemm_bf16_a_ws_bytes(M, K); }
QUILLON_API hipError_t quillon_gemm_bf16_a(const void* A, const void* B, void* C, int64_t M, int64_t N, int64_t K,
                                           int32_t out_bf16, void* ws, hipStream_t stream) {
  gemm_bf16_a(A, B, C, M, N, K, out_bf16 != 0, ws, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_gemm_bf16_a2(const void* A, const void* B1, const void* B2, void* C1, void* C2,
                                            int64_t M, int64_t N1, int64_t N2, int64_t K, int32_t out_bf16, void* ws,
                                            hipStream_t stream) {
  gemm_bf16_a2(A, B1, B2, C1, C2, M, N1, N2, K, out_bf16 != 0, ws, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_gemm_kquant_shuffle_b(int32_t format, const void* src, void* quant, void* meta,
                                                     int64_t N, int64_t K, hipStream_t stream) {
  gemm_kquant_shuffle_b(format, src, quant, meta, N, K, stream);
  return hipGetLastError();
}
QUILLON_API int64_t quillon_gemm_kquant_a_ws_bytes(int64_t M, int64_t K) { return gemm_kquant_a_ws_bytes(M, K); }
QUILLON_API hipError_t quillon_gemm_kquant_a(int32_t format, const void* A, const void* quant, const void* meta,
                                             void* C, int64_t M, int64_t N, int64_t K, int32_t out_bf16, void* ws,
                                             hipStream_t stream) {
  gemm_kquant_a(format, A, quant, meta, C, M, N, K, out_bf16 != 0, ws, stream);
  return hipGetLastError();
}

/* ---- RMSNorm family ---- */
QUILLON_API hipError_t quillon_rmsnorm(const void* x, const void* weight, void* out, int64_t rows, float eps,
                                       hipStream_t stream) {
  rmsnorm(x, nullptr, weight, out, rows, eps, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_rmsnorm_residual(const void* x, void* residual, const void* weight, void* out,
                                                int64_t rows, float eps, hipStream_t stream) {
  rmsnorm(x, residual, weight, out, rows, eps, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_dsv4_rmsnorm(const void* x, const void* weight, void* out, int64_t H, int64_t rows,
                                            int64_t x_stride, int32_t x_is_fp32, float eps, hipStream_t stream) {
  dsv4_rmsnorm(x, weight, out, H, rows, x_stride, x_is_fp32 != 0, eps, stream);
  return hipGetLastError();
}

/* ---- rotary embedding and QK norm ---- */
QUILLON_API hipError_t quillon_rope_cos_sin(const int64_t* positions, const float* inv_freq, float* cos, float* sin,
                                            int64_t n, hipStream_t stream) {
  rope_cos_sin(positions, inv_freq, cos, sin, n, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_rope_cos_sin_mrope(const int64_t* positions, const float* inv_freq, float* cos,
                                                  float* sin, int64_t n, hipStream_t stream) {
  rope_cos_sin_mrope(positions, inv_freq, cos, sin, n, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_dsv4_rope_cos_sin(const int64_t* positions, const float* inv_freq, float scale,
                                                 float* cos, float* sin, int64_t n, hipStream_t stream) {
  dsv4_rope_cos_sin(positions, inv_freq, scale, cos, sin, n, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_rope_apply_q(void* x, const float* cos, const float* sin, int64_t n,
                                            hipStream_t stream) {
  rope_apply_q(x, cos, sin, n, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_rope_apply_k(void* x, const float* cos, const float* sin, int64_t n,
                                            hipStream_t stream) {
  rope_apply_k(x, cos, sin, n, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_qk_norm(const void* qkv, int64_t row_stride, const void* q_weight,
                                       const void* k_weight, void* q_out, void* k_out, int64_t n, float eps,
                                       hipStream_t stream) {
  qk_norm(qkv, row_stride, q_weight, k_weight, q_out, k_out, n, eps, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_qk_norm_rope(const void* qkv, int64_t row_stride, const void* q_weight,
                                            const void* k_weight, const float* cos, const float* sin, void* q_out,
                                            void* k_out, int64_t n, float eps, hipStream_t stream) {
  qk_norm_rope(qkv, row_stride, q_weight, k_weight, cos, sin, q_out, k_out, n, eps, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_qk_norm_rope_split_k(const void* q, int64_t q_stride, const void* k, int64_t k_stride,
                                                    const void* q_weight, const void* k_weight, const float* cos,
                                                    const float* sin, void* q_out, void* k_out, int64_t n, float eps,
                                                    hipStream_t stream) {
  qk_norm_rope_split_k(q, q_stride, k, k_stride, q_weight, k_weight, cos, sin, q_out, k_out, n, eps, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_dsv4_rope_tail(void* x, const float* cos, const float* sin, int64_t head_size,
                                              int64_t heads, int64_t tokens, int32_t inverse, hipStream_t stream) {
  dsv4_rope_tail(x, cos, sin, head_size, heads, tokens, inverse != 0, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_dsv4_rope_tail_group(void* dst, const void* src, const float* cos, const float* sin,
                                                    int64_t head_size, int64_t width, int64_t col_offset,
                                                    int64_t cols, int64_t groups, int64_t rows, int32_t inverse,
                                                    hipStream_t stream) {
  dsv4_rope_tail_group(dst, src, cos, sin, head_size, width, col_offset, cols, groups, rows, rows, false,
                       inverse != 0, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_qwen4exp_indexer_rope(void* x, const float* cos, const float* sin, int64_t n,
                                                     int64_t heads, hipStream_t stream) {
  qwen4exp_indexer_rope(x, cos, sin, n, heads, stream);
  return hipGetLastError();
}

/* ---- paged KV cache ---- */
QUILLON_API void quillon_kv_pool_bytes(int64_t num_blocks, int64_t page, int32_t int8, int64_t* k_bytes_out,
                                       int64_t* v_bytes_out) {
  kv_pool_bytes(num_blocks, page, int8 != 0, k_bytes_out, v_bytes_out);
}
QUILLON_API void quillon_kv_scale_bytes(int64_t num_blocks, int64_t page, int64_t* k_scale_bytes_out,
                                        int64_t* v_scale_bytes_out) {
  kv_scale_bytes(num_blocks, page, k_scale_bytes_out, v_scale_bytes_out);
}
QUILLON_API int64_t quillon_kv_blocks_for(int64_t tokens, int64_t page) { return kv_blocks_for(tokens, page); }
QUILLON_API hipError_t quillon_reshape_and_cache(const void* k, const void* v, int64_t k_row_stride,
                                                 int64_t v_row_stride, void* k_cache, void* v_cache,
                                                 const int32_t* slot_mapping, int64_t num_tokens, int64_t page,
                                                 hipStream_t stream) {
  reshape_and_cache(k, v, k_row_stride, v_row_stride, k_cache, v_cache, slot_mapping, num_tokens, page, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_reshape_and_cache_int8(const void* k, const void* v, int64_t k_row_stride,
                                                      int64_t v_row_stride, void* k_cache, void* v_cache,
                                                      void* k_scales, void* v_scales, const int32_t* slot_mapping,
                                                      int64_t num_tokens, int64_t page, hipStream_t stream) {
  reshape_and_cache_int8(k, v, k_row_stride, v_row_stride, k_cache, v_cache, k_scales, v_scales, slot_mapping,
                         num_tokens, page, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_resolve_slots(const int32_t* block_table, int64_t row_stride, const int32_t* seq_ids,
                                             const int32_t* positions, int32_t* slots_out, int64_t n, int64_t page,
                                             hipStream_t stream) {
  resolve_slots(block_table, row_stride, seq_ids, positions, slots_out, n, page, stream);
  return hipGetLastError();
}
QUILLON_API int64_t quillon_paged_window_blocks(int64_t head_tokens, int64_t tail_tokens, int64_t page) {
  return paged_window_blocks(head_tokens, tail_tokens, page);
}
QUILLON_API hipError_t quillon_paged_window_view(const int32_t* block_table, int64_t row_stride,
                                                 const int32_t* last_positions, int64_t num_seqs, int64_t head_tokens,
                                                 int64_t tail_tokens, int32_t* view_table, int64_t view_row_stride,
                                                 int32_t* view_seq_lens, int64_t page, hipStream_t stream) {
  paged_window_view(block_table, row_stride, last_positions, num_seqs, head_tokens, tail_tokens, view_table,
                    view_row_stride, view_seq_lens, page, stream);
  return hipGetLastError();
}

/* ---- paged decode attention ---- */
QUILLON_API int64_t quillon_paged_decode_num_slots(int64_t num_seqs) { return paged_decode_num_slots(num_seqs); }
QUILLON_API int64_t quillon_paged_decode_plan_elems(int64_t num_seqs, int64_t num_slots) {
  return paged_decode_plan_elems(num_seqs, num_slots);
}
QUILLON_API int64_t quillon_paged_decode_workspace_size(int64_t num_slots, int64_t q_rows) {
  return paged_decode_workspace_size(num_slots, q_rows);
}
QUILLON_API int64_t quillon_paged_decode_max_q_tokens(void) { return kPagedDecodeMaxQ; }
QUILLON_API hipError_t quillon_paged_attn_decode_plan(const int32_t* seq_lens, int32_t* plan, int64_t num_seqs,
                                                      int64_t num_slots, int64_t part_tokens, int32_t even_split,
                                                      hipStream_t stream) {
  paged_attn_decode_plan(seq_lens, plan, num_seqs, num_slots, part_tokens, even_split, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_paged_attn_decode(const void* q, const int32_t* seq_lens, const void* k_cache,
                                                 const void* v_cache, void* out, const int32_t* block_table,
                                                 const int32_t* plan, int64_t num_seqs, int64_t row_stride,
                                                 int64_t num_slots, void* workspace, int64_t q_rows, int64_t page,
                                                 int64_t q_stride, int64_t row_offset, hipStream_t stream,
                                                 float scale) {
  paged_attn_decode(q, seq_lens, k_cache, v_cache, nullptr, nullptr, false, out, block_table, plan, num_seqs,
                    row_stride, num_slots, workspace, q_rows, page, q_stride, row_offset, scale, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_paged_attn_decode_int8(const void* q, const int32_t* seq_lens, const void* k_cache,
                                                      const void* v_cache, const void* k_scales,
                                                      const void* v_scales, void* out, const int32_t* block_table,
                                                      const int32_t* plan, int64_t num_seqs, int64_t row_stride,
                                                      int64_t num_slots, void* workspace, int64_t q_rows,
                                                      int64_t page, int64_t q_stride, int64_t row_offset,
                                                      hipStream_t stream, float scale) {
  paged_attn_decode(q, seq_lens, k_cache, v_cache, k_scales, v_scales, true, out, block_table, plan, num_seqs,
                    row_stride, num_slots, workspace, q_rows, page, q_stride, row_offset, scale, stream);
  return hipGetLastError();
}

/* ---- paged prefill attention ---- */
QUILLON_API int64_t quillon_prefill_q_blocks(const int32_t* q_lens, int64_t num_seqs) {
  return prefill_q_blocks(q_lens, num_seqs);
}
QUILLON_API void quillon_prefill_q_block_map(const int32_t* q_lens, int64_t num_seqs, int32_t* map_out) {
  prefill_q_block_map(q_lens, num_seqs, map_out);
}
QUILLON_API int64_t quillon_paged_prefill_max_tokens(void) { return paged_prefill_max_tokens(); }
QUILLON_API hipError_t quillon_paged_attn_prefill(const void* q, const void* k_cache, const void* v_cache, void* out,
                                                  const int32_t* cu_q_lens, const int32_t* block_table,
                                                  const int32_t* seq_lens, int64_t num_seqs, int64_t row_stride,
                                                  int64_t num_q_blocks, int64_t page, hipStream_t stream,
                                                  const int32_t* q_block_map, QuillonPrefillGate gate, float scale) {
  paged_attn_prefill(q, k_cache, v_cache, out, cu_q_lens, block_table, seq_lens, num_seqs, row_stride, num_q_blocks,
                     page, q_block_map, gate.gate, gate.gate_row_stride, gate.row_offset, scale, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_paged_attn_prefill_int8(const void*, const void*, const void*, const void*, const void*,
                                                       void*, const int32_t*, const int32_t*, const int32_t*, int64_t,
                                                       int64_t, int64_t, int64_t page, hipStream_t, const int32_t*,
                                                       QuillonPrefillGate, float) {
  paged_attn_prefill_int8(page);
  return hipGetLastError();
}

/* ---- embedding gather ---- */
QUILLON_API hipError_t quillon_gather_embedding(const int64_t* ids, const void* table, void* out, int64_t n,
                                                hipStream_t stream) {
  gather_embedding(ids, table, out, n, stream);
  return hipGetLastError();
}

/* ---- LM head ---- */
QUILLON_API hipError_t quillon_lm_head_shuffle_weight(const void* src, void* w, hipStream_t stream) {
  lm_head_shuffle_weight(src, w, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_lm_head(const void* x, const void* w, float* logits, int64_t M, void* scratch,
                                       hipStream_t stream) {
  lm_head(x, w, logits, M, scratch, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_lm_head_gemm_decode(const void* x, const void* w, float* logits, int64_t M,
                                                   hipStream_t stream) {
  lm_head_gemm_decode(x, w, logits, M, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_lm_head_gemm_prefill(const void* x, const void* w, void* scratch, float* logits,
                                                    int64_t M, hipStream_t stream) {
  lm_head_gemm_prefill(x, w, scratch, logits, M, stream);
  return hipGetLastError();
}
QUILLON_API int64_t quillon_lm_head_scratch_bytes(int64_t M) { return lm_head_scratch_bytes(M); }
QUILLON_API int64_t quillon_lm_head_prefill_scratch_bytes(int64_t M) { return lm_head_prefill_scratch_bytes(M); }
QUILLON_API hipError_t quillon_lm_head_kquant_shuffle_weight(int32_t format, const void* gguf_src, void* quant,
                                                             void* meta, hipStream_t stream) {
  lm_head_kquant_shuffle_weight(format, gguf_src, quant, meta, stream);
  return hipGetLastError();
}
QUILLON_API int64_t quillon_lm_head_kquant_quant_bytes(int32_t format) { return lm_head_kquant_quant_bytes(format); }
QUILLON_API int64_t quillon_lm_head_kquant_meta_bytes(int32_t format) { return lm_head_kquant_meta_bytes(format); }
QUILLON_API int64_t quillon_lm_head_kquant_gguf_bytes(int32_t format) { return lm_head_kquant_gguf_bytes(format); }
QUILLON_API hipError_t quillon_lm_head_kquant(int32_t format, const void* x, const void* quant, const void* meta,
                                              float* logits, int64_t M, void* scratch, hipStream_t stream) {
  lm_head_kquant(format, x, quant, meta, logits, M, scratch, stream);
  return hipGetLastError();
}

/* ---- gated delta rule ---- */
QUILLON_API hipError_t quillon_gated_delta_rule_decode_readonly(const void* qkv, const void* b, const void* a,
                                                                int64_t ba_stride, const float* a_log,
                                                                const float* dt_bias, const int32_t* slots,
                                                                const float* state, void* out, int64_t num_seqs,
                                                                int64_t rows, hipStream_t stream) {
  gated_delta_rule_decode_readonly(qkv, b, a, ba_stride, a_log, dt_bias, slots, state, out, num_seqs, rows, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_gated_delta_rule_advance(const void* qkv, const void* b, const void* a,
                                                        int64_t ba_stride, const float* a_log, const float* dt_bias,
                                                        const int32_t* slots, const int32_t* accepted, float* state,
                                                        int64_t num_seqs, int64_t rows, hipStream_t stream) {
  gated_delta_rule_advance(qkv, b, a, ba_stride, a_log, dt_bias, slots, accepted, state, num_seqs, rows, stream);
  return hipGetLastError();
}

/* ---- fused linear-attention layer ---- */
QUILLON_API hipError_t quillon_fused_linear_attn(
    const void* x, void* residual, const void* input_norm, const void* in_proj, const void* conv_weight,
    const float* a_log, const float* dt_bias, const void* norm_weight, const void* out_proj,
    const void* in_proj_qz_scale, const void* in_proj_qz_fp8, const void* in_proj_ba, const void* out_proj_scale,
    const void* in_proj_qz_kquant, const void* in_proj_qz_meta, int32_t qz_format, const void* in_proj_qkv_kquant,
    const void* in_proj_qkv_meta, int32_t qkv_format, const void* in_proj_z_kquant, const void* in_proj_z_meta,
    int32_t z_format, const void* out_proj_kquant, const void* out_proj_meta, int32_t out_format,
    const int32_t* cu_seqlens, const int32_t* has_state, const int32_t* slots, const int32_t* accepted,
    void* conv_state, float* delta_state, const int32_t* ckpt_at, const int32_t* ckpt_slots, int64_t ckpt_max,
    void* ckpt_conv, float* ckpt_delta, void* workspace, void* out, int64_t B, int64_t M, int32_t path,
    hipStream_t stream, LinearAttnRetain retain, float eps) {
  const LinearAttnWeights w{in_proj,           conv_weight,        a_log,           dt_bias,          norm_weight,
                            out_proj,          in_proj_qz_scale,   in_proj_qz_fp8,  in_proj_ba,       out_proj_scale,
                            in_proj_qz_kquant, in_proj_qz_meta,    qz_format,       in_proj_qkv_kquant, in_proj_qkv_meta,
                            qkv_format,        in_proj_z_kquant,   in_proj_z_meta,  z_format,         out_proj_kquant,
                            out_proj_meta,     out_format};
  const LinearAttnCall c{x,          residual,    input_norm, cu_seqlens, has_state,
                         slots,      accepted,    conv_state, delta_state, ckpt_at,
                         ckpt_slots, ckpt_max,    ckpt_conv,  ckpt_delta, workspace,
                         out,        B,           M,          path == 2 ? 2 : 0, stream,
                         {{retain.rows[0], retain.rows[1], retain.rows[2]}}, eps};
  fused_linear_attn(w, c);
  return hipGetLastError();
}
QUILLON_API int64_t quillon_fused_linear_attn_workspace_bytes(int64_t M, int32_t path) {
  return fused_linear_attn_workspace_bytes(M, path == 2 ? 2 : 0);
}
QUILLON_API int64_t quillon_linear_attn_retain_bytes(int64_t M, int32_t which) {
  return linear_attn_retain_bytes(M, which);
}
QUILLON_API hipError_t quillon_linear_attn_advance(const void* retain0, const void* retain1, const void* retain2,
                                                   const float* a_log, const float* dt_bias, const int32_t* slots,
                                                   const int32_t* accepted, void* conv_state, float* delta_state,
                                                   int64_t num_seqs, int64_t rows, hipStream_t stream) {
  const RetainRows rt{{const_cast<void*>(retain0), const_cast<void*>(retain1), const_cast<void*>(retain2)}};
  linear_attn_advance(rt, a_log, dt_bias, slots, accepted, conv_state, delta_state, num_seqs, rows, stream);
  return hipGetLastError();
}
QUILLON_API void quillon_linear_state_pool(int64_t max_seqs, int64_t rows, int64_t* total_slots_out,
                                           int64_t* spare_slot_out) {
  linear_state_pool(max_seqs, rows, total_slots_out, spare_slot_out);
}
QUILLON_API int64_t quillon_linear_state_slots(int32_t seq, int32_t committed, int64_t capacity, int64_t rows,
                                               int32_t* out) {
  return linear_state_slots(seq, committed, capacity, rows, out);
}
QUILLON_API hipError_t quillon_linear_in_proj_shuffle_w(const void* src, void* dst, hipStream_t stream) {
  linear_proj_shuffle_w(LinearPart::In, 0, 0, src, dst, nullptr, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_linear_in_proj_ba_shuffle_w(const void* src, void* dst, hipStream_t stream) {
  linear_proj_shuffle_w(LinearPart::Ba, 0, 0, src, dst, nullptr, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_linear_in_proj_qz_shuffle_w_fp8(const void* src, void* dst, hipStream_t stream) {
  linear_proj_shuffle_w(LinearPart::Qz, 1, 0, src, dst, nullptr, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_linear_in_proj_qz_shuffle_w_kquant(int32_t format, const void* src, void* quant,
                                                                  void* meta, hipStream_t stream) {
  kq::require_format_id(QUILLON_HERE, format);
  linear_proj_shuffle_w(LinearPart::Qz, 2, format, src, quant, meta, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_linear_in_proj_qkv_shuffle_w_kquant(int32_t format, const void* src, void* quant,
                                                                   void* meta, hipStream_t stream) {
  kq::require_format_id(QUILLON_HERE, format);
  linear_proj_shuffle_w(LinearPart::Qkv, 2, format, src, quant, meta, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_linear_in_proj_z_shuffle_w_kquant(int32_t format, const void* src, void* quant,
                                                                 void* meta, hipStream_t stream) {
  kq::require_format_id(QUILLON_HERE, format);
  linear_proj_shuffle_w(LinearPart::Z, 2, format, src, quant, meta, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_linear_out_proj_shuffle_w(const void* src, void* dst, hipStream_t stream) {
  linear_proj_shuffle_w(LinearPart::Out, 0, 0, src, dst, nullptr, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_linear_out_proj_shuffle_w_fp8(const void* src, void* dst, hipStream_t stream) {
  linear_proj_shuffle_w(LinearPart::Out, 1, 0, src, dst, nullptr, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_linear_out_proj_shuffle_w_kquant(int32_t format, const void* src, void* quant,
                                                                void* meta, hipStream_t stream) {
  kq::require_format_id(QUILLON_HERE, format);
  linear_proj_shuffle_w(LinearPart::Out, 2, format, src, quant, meta, stream);
  return hipGetLastError();
}

/* ---- sampling ---- */
QUILLON_API hipError_t quillon_sampling_softmax(const float* logits, float* probs, int64_t rows, int64_t V,
                                                const float* temperature, hipStream_t stream) {
  sampling_softmax(logits, probs, rows, V, temperature, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_sampling_topk_topp(const float* probs, float* cand_probs, int64_t* cand_ids,
                                                  int64_t rows, int64_t V, int64_t K, const int32_t* top_k,
                                                  const float* top_p, hipStream_t stream) {
  sampling_topk_topp(probs, cand_probs, cand_ids, rows, V, K, top_k, top_p, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_sampling_multinomial(const float* cand_probs, const int64_t* cand_ids,
                                                    const float* uniform, int64_t* out_ids, int64_t rows, int64_t K,
                                                    hipStream_t stream) {
  sampling_multinomial(cand_probs, cand_ids, uniform, out_ids, rows, K, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_sampling_argmax(const float* logits, int64_t* out_ids, int64_t rows, int64_t V,
                                               hipStream_t stream) {
  sampling_argmax(logits, out_ids, rows, V, stream);
  return hipGetLastError();
}
QUILLON_API int64_t quillon_sampling_max_k(void) { return kSamplingMaxK; }

/* ---- file reader ---- */
QUILLON_API QuillonFileReader* quillon_file_reader_create(int32_t queue_depth, int64_t chunk_bytes,
                                                          int32_t num_buffers) {
  return reinterpret_cast<QuillonFileReader*>(file_reader_create(queue_depth, chunk_bytes, num_buffers));
}
QUILLON_API void quillon_file_reader_destroy(QuillonFileReader* reader) {
  file_reader_destroy(reinterpret_cast<FileReader*>(reader));
}
QUILLON_API hipError_t quillon_file_reader_read(QuillonFileReader* reader, const char* path, int64_t offset,
                                                int64_t bytes, void* dst, hipStream_t stream) {
  return file_reader_read(reinterpret_cast<FileReader*>(reader), path, offset, bytes, dst, stream);
}

/* ---- MoE router ---- */
QUILLON_API int64_t quillon_moe_shuffle_router_bytes(void) { return moe_shuffle_router_bytes(); }
QUILLON_API hipError_t quillon_moe_shuffle_router(const void* src, const float* bias, void* dst,
                                                  hipStream_t stream) {
  moe_shuffle_router(src, bias, dst, stream);
  return hipGetLastError();
}
QUILLON_API int64_t quillon_moe_router_shuffle_bytes(int64_t M) { return moe_router_shuffle_bytes(M); }
QUILLON_API hipError_t quillon_moe_router_tid2eid(const void* hidden, const void* router_w, const int64_t* token_ids,
                                                  const int32_t* tid2eid, float* weights, int32_t* ids,
                                                  void* hidden_shuffled, int64_t M, hipStream_t stream) {
  moe_router_tid2eid(hidden, router_w, token_ids, tid2eid, weights, ids, hidden_shuffled, M, stream);
  return hipGetLastError();
}

/* ---- MoE expert weight forms ---- */
QUILLON_API hipError_t quillon_moe_shuffle_gate_up(const void* gate, const void* up, void* dst, int64_t n,
                                                   hipStream_t stream) {
  moe_shuffle_gate_up(gate, up, dst, n, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_moe_shuffle_gate_up_fused(const void* src, void* dst, int64_t n, hipStream_t stream) {
  moe_shuffle_gate_up_fused(src, dst, n, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_moe_shuffle_down(const void* src, void* dst, int64_t n, hipStream_t stream) {
  moe_shuffle_down(src, dst, n, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_moe_shuffle_gate_up_fp8(const void* gate, const void* up, void* dst, int64_t n,
                                                       hipStream_t stream) {
  moe_shuffle_gate_up_fp8(gate, up, dst, n, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_moe_shuffle_down_fp8(const void* src, void* dst, int64_t n, hipStream_t stream) {
  moe_shuffle_down_fp8(src, dst, n, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_moe_scale_shuffle_gate_up_fp8(const void* gate_scales, const void* up_scales,
                                                             void* dst, int64_t n, hipStream_t stream) {
  moe_scale_shuffle_gate_up_fp8(gate_scales, up_scales, dst, n, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_moe_scale_shuffle_down_fp8(const void* src, void* dst, int64_t n, hipStream_t stream) {
  moe_scale_shuffle_down_fp8(src, dst, n, stream);
  return hipGetLastError();
}
QUILLON_API int64_t quillon_moe_kquant_gate_up_quant_bytes(int32_t format, int64_t n) {
  return moe_kquant_quant_bytes(0, format, n);
}
QUILLON_API int64_t quillon_moe_kquant_gate_up_meta_bytes(int32_t format, int64_t n) {
  return moe_kquant_meta_bytes(0, format, n);
}
QUILLON_API int64_t quillon_moe_kquant_down_quant_bytes(int32_t format, int64_t n) {
  return moe_kquant_quant_bytes(1, format, n);
}
QUILLON_API int64_t quillon_moe_kquant_down_meta_bytes(int32_t format, int64_t n) {
  return moe_kquant_meta_bytes(1, format, n);
}
QUILLON_API hipError_t quillon_moe_kquant_shuffle_gate_up(int32_t format, const void* gate, const void* up,
                                                          void* quant, void* meta, int64_t n, hipStream_t stream) {
  moe_kquant_shuffle_gate_up(format, gate, up, quant, meta, n, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_moe_kquant_shuffle_down(int32_t format, const void* src, void* quant, void* meta,
                                                       int64_t n, hipStream_t stream) {
  moe_kquant_shuffle_down(format, src, quant, meta, n, stream);
  return hipGetLastError();
}
QUILLON_API int64_t quillon_moe_lowbit_gate_up_p0_bytes(int32_t format, int64_t n) {
  return moe_lowbit_plane_bytes(0, format, 0, n);
}
QUILLON_API int64_t quillon_moe_lowbit_gate_up_p1_bytes(int32_t format, int64_t n) {
  return moe_lowbit_plane_bytes(0, format, 1, n);
}
QUILLON_API int64_t quillon_moe_lowbit_gate_up_p2_bytes(int32_t format, int64_t n) {
  return moe_lowbit_plane_bytes(0, format, 2, n);
}
QUILLON_API int64_t quillon_moe_lowbit_down_p0_bytes(int32_t format, int64_t n) {
  return moe_lowbit_plane_bytes(1, format, 0, n);
}
QUILLON_API int64_t quillon_moe_lowbit_down_p1_bytes(int32_t format, int64_t n) {
  return moe_lowbit_plane_bytes(1, format, 1, n);
}
QUILLON_API int64_t quillon_moe_lowbit_down_p2_bytes(int32_t format, int64_t n) {
  return moe_lowbit_plane_bytes(1, format, 2, n);
}
QUILLON_API int64_t quillon_moe_lowbit_gate_up_stride(int64_t n) { return moe_lowbit_stride(0, n); }
QUILLON_API int64_t quillon_moe_lowbit_down_stride(int64_t n) { return moe_lowbit_stride(1, n); }
QUILLON_API hipError_t quillon_moe_lowbit_shuffle_gate_up(int32_t format, const void* gate, const void* up, void* p0,
                                                          void* p1, void* p2, int64_t n, hipStream_t stream) {
  moe_lowbit_shuffle_gate_up(format, gate, up, p0, p1, p2, n, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_moe_lowbit_shuffle_gate_up_fused(int32_t format, const void* src, void* p0, void* p1,
                                                                void* p2, int64_t n, hipStream_t stream) {
  moe_lowbit_shuffle_gate_up_fused(format, src, p0, p1, p2, n, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_moe_lowbit_shuffle_down(int32_t format, const void* src, void* p0, void* p1, void* p2,
                                                       int64_t n, hipStream_t stream) {
  moe_lowbit_shuffle_down(format, src, p0, p1, p2, n, stream);
  return hipGetLastError();
}

/* ---- MoE grouped expert products ---- */
QUILLON_API int32_t quillon_moe_variant_count(void) { return moe_variant_count(); }
QUILLON_API const char* quillon_moe_variant_name(int32_t index) { return moe_variant_name(index); }
QUILLON_API void quillon_moe_variant_force(int32_t index) { moe_variant_force(index); }
QUILLON_API void quillon_moe_dispatch_force(int32_t T, int32_t shuffled) { moe_dispatch_force(T, shuffled != 0); }
QUILLON_API void quillon_moe_fp8_narrow_force_max_m(int32_t max_m) { moe_narrow_force_max_m(MoeNarrow::Fp8, max_m); }
QUILLON_API void quillon_moe_kquant_narrow_force_max_m(int32_t max_m) {
  moe_narrow_force_max_m(MoeNarrow::KQuant, max_m);
}
QUILLON_API void quillon_moe_lowbit_narrow_force_max_m(int32_t max_m) {
  moe_narrow_force_max_m(MoeNarrow::LowBit, max_m);
}
QUILLON_API void quillon_moe_lowbit_force_split(int32_t flag) { moe_lowbit_force_split(flag); }
QUILLON_API int64_t quillon_moe_workspace_bytes(int64_t M) { return moe_workspace_bytes(M); }
QUILLON_API hipError_t quillon_fused_moe(const void* hidden, const void* router_w, const void* gate_up,
                                         const void* down, void* out, void* workspace, int64_t M,
                                         hipStream_t stream) {
  fused_moe(hidden, router_w, gate_up, down, out, workspace, M, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_fused_moe_fp8(const void* hidden, const void* router_w, const void* gate_up,
                                             const void* down, const void* gate_up_scales, const void* down_scales,
                                             void* out, void* workspace, int64_t M, hipStream_t stream) {
  fused_moe_fp8(hidden, router_w, gate_up, down, gate_up_scales, down_scales, out, workspace, M, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_fused_moe_kquant_split(
    int32_t format_gate_up, int32_t format_down, int32_t format_shared_gate_up, int32_t format_shared_down,
    const void* hidden, const void* router_w, const void* gate_up, const void* gate_up_meta, const void* down,
    const void* down_meta, const void* shared_gate_up, const void* shared_gate_up_meta, const void* shared_down,
    const void* shared_down_meta, void* out, void* workspace, int64_t M, hipStream_t stream) {
  // The shared ids mean something only next to their metadata.
  kq::require_format_id(QUILLON_HERE, format_gate_up);
  kq::require_format_id(QUILLON_HERE, format_down);
  if (shared_gate_up_meta != nullptr) kq::require_format_id(QUILLON_HERE, format_shared_gate_up);
  if (shared_down_meta != nullptr) kq::require_format_id(QUILLON_HERE, format_shared_down);
  fused_moe_kquant_split(format_gate_up, format_down, format_shared_gate_up, format_shared_down, hidden, router_w,
                         gate_up, gate_up_meta, down, down_meta, shared_gate_up, shared_gate_up_meta, shared_down,
                         shared_down_meta, out, workspace, M, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_fused_moe_lowbit_split(
    int32_t format_gate_up, int32_t format_down, int32_t format_shared_gate_up, int32_t format_shared_down,
    const void* hidden, const void* router_w, const void* gate_up_p0, const void* gate_up_p1,
    const void* gate_up_p2, const void* down_p0, const void* down_p1, const void* down_p2,
    const void* shared_gate_up, const void* shared_gate_up_meta, const void* shared_down,
    const void* shared_down_meta, void* out, void* workspace, int64_t M, hipStream_t stream) {
  const MoeLowBitExperts x{format_gate_up, format_down, false, {gate_up_p0, gate_up_p1, gate_up_p2},
                           {down_p0, down_p1, down_p2}};
  fused_moe_lowbit(x, format_shared_gate_up, format_shared_down, hidden, router_w, nullptr, nullptr, false,
                   shared_gate_up, shared_gate_up_meta, shared_down, shared_down_meta, out, workspace, M, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_fused_moe_lowbit_kquant_down_split(
    int32_t format_gate_up, int32_t format_down, int32_t format_shared_gate_up, int32_t format_shared_down,
    const void* hidden, const void* router_w, const void* gate_up_p0, const void* gate_up_p1,
    const void* gate_up_p2, const void* down, const void* down_meta, const void* shared_gate_up,
    const void* shared_gate_up_meta, const void* shared_down, const void* shared_down_meta, void* out,
    void* workspace, int64_t M, hipStream_t stream) {
  const MoeLowBitExperts x{format_gate_up, format_down, true, {gate_up_p0, gate_up_p1, gate_up_p2},
                           {down, down_meta, nullptr}};
  fused_moe_lowbit(x, format_shared_gate_up, format_shared_down, hidden, router_w, nullptr, nullptr, false,
                   shared_gate_up, shared_gate_up_meta, shared_down, shared_down_meta, out, workspace, M, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_moe_experts_lowbit_split_tid2eid(
    int32_t format_gate_up, int32_t format_down, int32_t format_shared_gate_up, int32_t format_shared_down,
    const void* hidden, const void* router_w, const int64_t* token_ids, const int32_t* tid2eid,
    const void* gate_up_p0, const void* gate_up_p1, const void* gate_up_p2, const void* down_p0,
    const void* down_p1, const void* down_p2, const void* shared_gate_up, const void* shared_gate_up_meta,
    const void* shared_down, const void* shared_down_meta, void* out, void* workspace, int64_t M,
    hipStream_t stream) {
  const MoeLowBitExperts x{format_gate_up, format_down, false, {gate_up_p0, gate_up_p1, gate_up_p2},
                           {down_p0, down_p1, down_p2}};
  fused_moe_lowbit(x, format_shared_gate_up, format_shared_down, hidden, router_w, token_ids, tid2eid, true,
                   shared_gate_up, shared_gate_up_meta, shared_down, shared_down_meta, out, workspace, M, stream);
  return hipGetLastError();
}

/* ---- attention projections ---- */
}  // extern "C"
namespace {
constexpr int32_t kPrefill = 0, kDecode = 2;  // projection modes
// The QKV entries take 2 as Decode and anything else as Prefill.
QkvCall qkv_call(const void* x, void* residual, const void* norm_w, void* scratch, void* out, int64_t M,
                 int32_t mode, const void* index_w, void* index_out, hipStream_t stream, float eps) {
  return {x, residual, norm_w, scratch, out, M, mode == kDecode ? kDecode : kPrefill, index_w, index_out,
          stream, eps};
}
int32_t nonzero_decode(int32_t mode) { return mode != 0 ? kDecode : kPrefill; }
void known(int32_t format) { kq::require_format_id(QUILLON_HERE, format); }
}  // namespace
extern "C" {
QUILLON_API int64_t quillon_qkv_proj_scratch_bytes(int64_t M) { return qkv_proj_scratch_bytes(M); }
QUILLON_API hipError_t quillon_qkv_proj(const void* x, void* residual, const void* norm_w, const void* w, void* scratch,
                                        void* out, int64_t M, int32_t mode, const void* index_w, void* index_out,
                                        hipStream_t stream, float eps) {
  qkv_proj(qkv_call(x, residual, norm_w, scratch, out, M, mode, index_w, index_out, stream, eps), w);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_qkv_proj_fp8(const void* x, void* residual, const void* norm_w, const void* w,
                                            const void* w_scale, void* scratch, void* out, int64_t M, int32_t mode,
                                            const void* index_w, void* index_out, hipStream_t stream, float eps) {
  qkv_proj_fp8(qkv_call(x, residual, norm_w, scratch, out, M, mode, index_w, index_out, stream, eps), w, w_scale);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_qkv_proj_kquant(int32_t format, const void* x, void* residual, const void* norm_w,
                                               const void* quant, const void* meta, void* scratch, void* out,
                                               int64_t M, int32_t mode, const void* index_w, void* index_out,
                                               hipStream_t stream, float eps) {
  known(format);
  qkv_proj_kquant(qkv_call(x, residual, norm_w, scratch, out, M, mode, index_w, index_out, stream, eps), format, quant,
                  meta);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_qkv_proj_pair_kquant(int32_t format_qk, int32_t format_v, const void* x,
                                                    void* residual, const void* norm_w, const void* qk_quant,
                                                    const void* qk_meta, const void* v_quant, const void* v_meta,
                                                    void* scratch, void* out, int64_t M, int32_t mode,
                                                    const void* index_w, void* index_out, hipStream_t stream,
                                                    float eps) {
  known(format_qk);
  known(format_v);
  qkv_proj_pair_kquant(qkv_call(x, residual, norm_w, scratch, out, M, mode, index_w, index_out, stream, eps),
                       format_qk, qk_quant, qk_meta, format_v, v_quant, v_meta);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_qkv_proj_q_kv_kquant(int32_t format_q, const void* x, void* residual,
                                                    const void* norm_w, const void* q_quant, const void* q_meta,
                                                    const void* kv_w, void* scratch, void* out, int64_t M,
                                                    int32_t mode, const void* index_w, void* index_out,
                                                    hipStream_t stream, float eps) {
  known(format_q);
  qkv_proj_q_kv_kquant(qkv_call(x, residual, norm_w, scratch, out, M, mode, index_w, index_out, stream, eps),
                       format_q, q_quant, q_meta, kv_w);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_qkv_proj_shuffle_w(const void* src, void* dst, hipStream_t stream) {
  qkv_proj_shuffle_w(QkvPart::Fused, src, dst, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_qkv_proj_shuffle_w_fp8(const void* src, void* dst, hipStream_t stream) {
  qkv_proj_shuffle_w_fp8(src, dst, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_qkv_proj_shuffle_w_kquant(int32_t format, const void* src, void* quant, void* meta,
                                                         hipStream_t stream) {
  known(format);
  qkv_proj_shuffle_w_kquant(QkvPart::Fused, format, src, quant, meta, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_qkv_proj_qk_shuffle_w_kquant(int32_t format, const void* src, void* quant, void* meta,
                                                            hipStream_t stream) {
  known(format);
  qkv_proj_shuffle_w_kquant(QkvPart::Qk, format, src, quant, meta, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_qkv_proj_v_shuffle_w_kquant(int32_t format, const void* src, void* quant, void* meta,
                                                           hipStream_t stream) {
  known(format);
  qkv_proj_shuffle_w_kquant(QkvPart::V, format, src, quant, meta, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_qkv_proj_q_shuffle_w_kquant(int32_t format, const void* src, void* quant, void* meta,
                                                           hipStream_t stream) {
  known(format);
  qkv_proj_shuffle_w_kquant(QkvPart::Q, format, src, quant, meta, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_qkv_proj_kv_shuffle_w(const void* src, void* dst, hipStream_t stream) {
  qkv_proj_shuffle_w(QkvPart::Kv, src, dst, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_qkv_proj_index_shuffle_w(const void* src, void* dst, hipStream_t stream) {
  qkv_proj_shuffle_w(QkvPart::Index, src, dst, stream);
  return hipGetLastError();
}
QUILLON_API int64_t quillon_attn_out_scale_oproj_scratch_bytes(int64_t M) {
  return attn_out_scale_oproj_scratch_bytes(M);
}
QUILLON_API hipError_t quillon_attn_out_scale_oproj(const void* attn, const void* gate, int64_t gate_stride,
                                                    const void* w, void* scratch, void* out, int64_t M, int32_t mode,
                                                    hipStream_t stream) {
  attn_out_scale_oproj({0, 0, w, nullptr}, attn, gate, gate_stride, scratch, out, M, nonzero_decode(mode), stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_attn_out_scale_oproj_fp8(const void* attn, const void* gate, int64_t gate_stride,
                                                        const void* w, const void* w_scale, void* scratch, void* out,
                                                        int64_t M, int32_t mode, hipStream_t stream) {
  attn_out_scale_oproj({1, 0, w, w_scale}, attn, gate, gate_stride, scratch, out, M, nonzero_decode(mode), stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_attn_out_scale_oproj_kquant(int32_t format, const void* attn, const void* gate,
                                                           int64_t gate_stride, const void* quant, const void* meta,
                                                           void* scratch, void* out, int64_t M, int32_t mode,
                                                           hipStream_t stream) {
  known(format);
  attn_out_scale_oproj({2, format, quant, meta}, attn, gate, gate_stride, scratch, out, M, nonzero_decode(mode),
                       stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_attn_oproj_shuffled_a(const void* a, const void* w, void* out, int64_t M,
                                                     hipStream_t stream) {
  attn_oproj_shuffled_a({0, 0, w, nullptr}, a, out, M, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_attn_oproj_shuffled_a_fp8(const void* a, const void* w, const void* w_scale, void* out,
                                                         int64_t M, hipStream_t stream) {
  attn_oproj_shuffled_a({1, 0, w, w_scale}, a, out, M, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_attn_oproj_shuffled_a_kquant(int32_t format, const void* a, const void* quant,
                                                            const void* meta, void* out, int64_t M,
                                                            hipStream_t stream) {
  known(format);
  attn_oproj_shuffled_a({2, format, quant, meta}, a, out, M, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_attn_out_scale_oproj_shuffle_w(const void* src, void* dst, hipStream_t stream) {
  attn_out_scale_oproj_shuffle_w(0, 0, src, dst, nullptr, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_attn_out_scale_oproj_shuffle_w_fp8(const void* src, void* dst, hipStream_t stream) {
  attn_out_scale_oproj_shuffle_w(1, 0, src, dst, nullptr, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_attn_out_scale_oproj_shuffle_w_kquant(int32_t format, const void* src, void* quant,
                                                                     void* meta, hipStream_t stream) {
  known(format);
  attn_out_scale_oproj_shuffle_w(2, format, src, quant, meta, stream);
  return hipGetLastError();
}

/* ---- dense MLP ---- */
QUILLON_API int64_t quillon_fused_mlp_workspace_bytes(int64_t M) { return fused_mlp_workspace_bytes(M); }
QUILLON_API hipError_t quillon_fused_mlp(const void* x, const void* w_gate_up, const void* w_down, void* out, void* ws,
                                         int64_t M, int32_t mode, hipStream_t stream) {
  fused_mlp("fused_mlp", {0, 0, w_gate_up, nullptr}, nullptr, {0, 0, w_down, nullptr}, x, out, ws, M,
            nonzero_decode(mode), stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_fused_mlp_fp8(const void* x, const void* w_gate_up, const void* s_gate_up,
                                             const void* w_down, const void* s_down, void* out, void* ws, int64_t M,
                                             int32_t mode, hipStream_t stream) {
  fused_mlp("fused_mlp_fp8", {1, 0, w_gate_up, s_gate_up}, nullptr, {1, 0, w_down, s_down}, x, out, ws, M,
            nonzero_decode(mode), stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_fused_mlp_kquant(int32_t format_gate_up, int32_t format_down, const void* x,
                                                const void* gate_up_quant, const void* gate_up_meta,
                                                const void* down_quant, const void* down_meta, void* out, void* ws,
                                                int64_t M, int32_t mode, hipStream_t stream) {
  known(format_gate_up);
  known(format_down);
  fused_mlp("fused_mlp_kquant", {2, format_gate_up, gate_up_quant, gate_up_meta}, nullptr,
            {2, format_down, down_quant, down_meta}, x, out, ws, M, nonzero_decode(mode), stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_fused_mlp_kquant_bf16_down(int32_t format_gate_up, const void* x,
                                                          const void* gate_up_quant, const void* gate_up_meta,
                                                          const void* w_down, void* out, void* ws, int64_t M,
                                                          int32_t mode, hipStream_t stream) {
  known(format_gate_up);
  fused_mlp("fused_mlp_kquant_bf16_down", {2, format_gate_up, gate_up_quant, gate_up_meta}, nullptr,
            {0, 0, w_down, nullptr}, x, out, ws, M, nonzero_decode(mode), stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_fused_mlp_kquant_split(int32_t format_gate, int32_t format_up, int32_t format_down,
                                                      const void* x, const void* gate_quant, const void* gate_meta,
                                                      const void* up_quant, const void* up_meta,
                                                      const void* down_quant, const void* down_meta, void* out,
                                                      void* ws, int64_t M, int32_t mode, hipStream_t stream) {
  known(format_gate);
  known(format_up);
  known(format_down);
  const MlpWeight up{2, format_up, up_quant, up_meta};
  fused_mlp("fused_mlp_kquant_split", {2, format_gate, gate_quant, gate_meta}, &up,
            {2, format_down, down_quant, down_meta}, x, out, ws, M, nonzero_decode(mode), stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_fused_mlp_kquant_split_bf16_down(int32_t format_gate, int32_t format_up, const void* x,
                                                                const void* gate_quant, const void* gate_meta,
                                                                const void* up_quant, const void* up_meta,
                                                                const void* w_down, void* out, void* ws, int64_t M,
                                                                int32_t mode, hipStream_t stream) {
  known(format_gate);
  known(format_up);
  const MlpWeight up{2, format_up, up_quant, up_meta};
  fused_mlp("fused_mlp_kquant_split_bf16_down", {2, format_gate, gate_quant, gate_meta}, &up, {0, 0, w_down, nullptr},
            x, out, ws, M, nonzero_decode(mode), stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_mlp_gate_up_shuffle_w(const void* src, void* dst, hipStream_t stream) {
  mlp_shuffle_w(MlpPart::GateUp, 0, 0, src, dst, nullptr, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_mlp_gate_up_shuffle_w_fp8(const void* src, void* dst, hipStream_t stream) {
  mlp_shuffle_w(MlpPart::GateUp, 1, 0, src, dst, nullptr, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_mlp_gate_up_shuffle_w_kquant(int32_t format, const void* src, void* quant, void* meta,
                                                            hipStream_t stream) {
  known(format);
  mlp_shuffle_w(MlpPart::GateUp, 2, format, src, quant, meta, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_mlp_gate_shuffle_w_kquant(int32_t format, const void* src, void* quant, void* meta,
                                                         hipStream_t stream) {
  known(format);
  mlp_shuffle_w(MlpPart::Gate, 2, format, src, quant, meta, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_mlp_up_shuffle_w_kquant(int32_t format, const void* src, void* quant, void* meta,
                                                       hipStream_t stream) {
  known(format);
  mlp_shuffle_w(MlpPart::Up, 2, format, src, quant, meta, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_mlp_down_shuffle_w(const void* src, void* dst, hipStream_t stream) {
  mlp_shuffle_w(MlpPart::Down, 0, 0, src, dst, nullptr, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_mlp_down_shuffle_w_fp8(const void* src, void* dst, hipStream_t stream) {
  mlp_shuffle_w(MlpPart::Down, 1, 0, src, dst, nullptr, stream);
  return hipGetLastError();
}
QUILLON_API hipError_t quillon_mlp_down_shuffle_w_kquant(int32_t format, const void* src, void* quant, void* meta,
                                                         hipStream_t stream) {
  known(format);
  mlp_shuffle_w(MlpPart::Down, 2, format, src, quant, meta, stream);
  return hipGetLastError();
}

}  // extern "C"
