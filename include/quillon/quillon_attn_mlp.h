/* Attention projections (geometries 0, 1, 3) and the dense MLP (geometry 1)
 * of libquillon.so: the exported functions of these two families, on the
 * records and conventions of quillon.h. */
#ifndef QUILLON_ATTN_MLP_H
#define QUILLON_ATTN_MLP_H
#include "quillon.h"

#ifdef __cplusplus
extern "C" {
#endif
/* ---- attention projections (geometries 0, 1, 3) ---- */
/* quillon_qkv_proj*: RMSNorm of x (residual form when residual is given;
 * norm_w null skips it) and the projection to query, gate, K and V into out,
 * [M, fused N] bf16 (the pair forms: q and K columns, then V columns; q
 * columns, then K and V columns, at out + M * first width * 2 bytes). mode 2
 * is Decode, anything else Prefill. index_w and index_out (geometry 3 only)
 * add the indexer projection, [M, 640]. scratch: quillon_qkv_proj_scratch_bytes.
 * quillon_attn_out_scale_oproj*: out [M, hidden] = (sigmoid(gate) * attn) times
 * the output weight; gate is the query-and-gate columns of the fused QKV output,
 * gate_stride its row stride in elements (16-byte aligned rows); non-zero mode
 * is Decode. The shuffled_a forms take a blk32 A of ceil(M / 256) * 256 rows. */
QUILLON_API int64_t quillon_qkv_proj_scratch_bytes(int64_t M);
QUILLON_API hipError_t quillon_qkv_proj(const void* x, void* residual, const void* norm_w, const void* w, void* scratch,
                                        void* out, int64_t M, int32_t mode, const void* index_w, void* index_out,
                                        hipStream_t stream, float eps);
QUILLON_API hipError_t quillon_qkv_proj_fp8(const void* x, void* residual, const void* norm_w, const void* w,
                                            const void* w_scale, void* scratch, void* out, int64_t M, int32_t mode,
                                            const void* index_w, void* index_out, hipStream_t stream, float eps);
QUILLON_API hipError_t quillon_qkv_proj_kquant(int32_t format, const void* x, void* residual, const void* norm_w,
                                               const void* quant, const void* meta, void* scratch, void* out,
                                               int64_t M, int32_t mode, const void* index_w, void* index_out,
                                               hipStream_t stream, float eps);
QUILLON_API hipError_t quillon_qkv_proj_pair_kquant(int32_t format_qk, int32_t format_v, const void* x,
                                                    void* residual, const void* norm_w, const void* qk_quant,
                                                    const void* qk_meta, const void* v_quant, const void* v_meta,
                                                    void* scratch, void* out, int64_t M, int32_t mode,
                                                    const void* index_w, void* index_out, hipStream_t stream,
                                                    float eps);
QUILLON_API hipError_t quillon_qkv_proj_q_kv_kquant(int32_t format_q, const void* x, void* residual,
                                                    const void* norm_w, const void* q_quant, const void* q_meta,
                                                    const void* kv_w, void* scratch, void* out, int64_t M,
                                                    int32_t mode, const void* index_w, void* index_out,
                                                    hipStream_t stream, float eps);
QUILLON_API hipError_t quillon_qkv_proj_shuffle_w(const void* src, void* dst, hipStream_t stream);
QUILLON_API hipError_t quillon_qkv_proj_shuffle_w_fp8(const void* src, void* dst, hipStream_t stream);
QUILLON_API hipError_t quillon_qkv_proj_shuffle_w_kquant(int32_t format, const void* src, void* quant, void* meta,
                                                         hipStream_t stream);
QUILLON_API hipError_t quillon_qkv_proj_qk_shuffle_w_kquant(int32_t format, const void* src, void* quant, void* meta,
                                                            hipStream_t stream);
QUILLON_API hipError_t quillon_qkv_proj_v_shuffle_w_kquant(int32_t format, const void* src, void* quant, void* meta,
                                                           hipStream_t stream);
QUILLON_API hipError_t quillon_qkv_proj_q_shuffle_w_kquant(int32_t format, const void* src, void* quant, void* meta,
                                                           hipStream_t stream);
QUILLON_API hipError_t quillon_qkv_proj_kv_shuffle_w(const void* src, void* dst, hipStream_t stream);
QUILLON_API hipError_t quillon_qkv_proj_index_shuffle_w(const void* src, void* dst, hipStream_t stream);
QUILLON_API int64_t quillon_attn_out_scale_oproj_scratch_bytes(int64_t M);
QUILLON_API hipError_t quillon_attn_out_scale_oproj(const void* attn, const void* gate, int64_t gate_stride,
                                                    const void* w, void* scratch, void* out, int64_t M, int32_t mode,
                                                    hipStream_t stream);
QUILLON_API hipError_t quillon_attn_out_scale_oproj_fp8(const void* attn, const void* gate, int64_t gate_stride,
                                                        const void* w, const void* w_scale, void* scratch, void* out,
                                                        int64_t M, int32_t mode, hipStream_t stream);
QUILLON_API hipError_t quillon_attn_out_scale_oproj_kquant(int32_t format, const void* attn, const void* gate,
                                                           int64_t gate_stride, const void* quant, const void* meta,
                                                           void* scratch, void* out, int64_t M, int32_t mode,
                                                           hipStream_t stream);
QUILLON_API hipError_t quillon_attn_oproj_shuffled_a(const void* a, const void* w, void* out, int64_t M,
                                                     hipStream_t stream);
QUILLON_API hipError_t quillon_attn_oproj_shuffled_a_fp8(const void* a, const void* w, const void* w_scale, void* out,
                                                         int64_t M, hipStream_t stream);
QUILLON_API hipError_t quillon_attn_oproj_shuffled_a_kquant(int32_t format, const void* a, const void* quant,
                                                            const void* meta, void* out, int64_t M,
                                                            hipStream_t stream);
QUILLON_API hipError_t quillon_attn_out_scale_oproj_shuffle_w(const void* src, void* dst, hipStream_t stream);
QUILLON_API hipError_t quillon_attn_out_scale_oproj_shuffle_w_fp8(const void* src, void* dst, hipStream_t stream);
QUILLON_API hipError_t quillon_attn_out_scale_oproj_shuffle_w_kquant(int32_t format, const void* src, void* quant,
                                                                     void* meta, hipStream_t stream);

/* ---- dense MLP (geometry 1) ---- */
/* out [M, 5120] = down(silu(gate(x)) * up(x)); non-zero mode is Decode. ws:
 * quillon_fused_mlp_workspace_bytes. The _split forms take the gate and up
 * halves as k-quant weights of different formats; the _bf16_down forms a bf16
 * down weight. */
QUILLON_API int64_t quillon_fused_mlp_workspace_bytes(int64_t M);
QUILLON_API hipError_t quillon_fused_mlp(const void* x, const void* w_gate_up, const void* w_down, void* out, void* ws,
                                         int64_t M, int32_t mode, hipStream_t stream);
QUILLON_API hipError_t quillon_fused_mlp_fp8(const void* x, const void* w_gate_up, const void* s_gate_up,
                                             const void* w_down, const void* s_down, void* out, void* ws, int64_t M,
                                             int32_t mode, hipStream_t stream);
QUILLON_API hipError_t quillon_fused_mlp_kquant(int32_t format_gate_up, int32_t format_down, const void* x,
                                                const void* gate_up_quant, const void* gate_up_meta,
                                                const void* down_quant, const void* down_meta, void* out, void* ws,
                                                int64_t M, int32_t mode, hipStream_t stream);
QUILLON_API hipError_t quillon_fused_mlp_kquant_bf16_down(int32_t format_gate_up, const void* x,
                                                          const void* gate_up_quant, const void* gate_up_meta,
                                                          const void* w_down, void* out, void* ws, int64_t M,
                                                          int32_t mode, hipStream_t stream);
QUILLON_API hipError_t quillon_fused_mlp_kquant_split(int32_t format_gate, int32_t format_up, int32_t format_down,
                                                      const void* x, const void* gate_quant, const void* gate_meta,
                                                      const void* up_quant, const void* up_meta,
                                                      const void* down_quant, const void* down_meta, void* out,
                                                      void* ws, int64_t M, int32_t mode, hipStream_t stream);
QUILLON_API hipError_t quillon_fused_mlp_kquant_split_bf16_down(int32_t format_gate, int32_t format_up, const void* x,
                                                                const void* gate_quant, const void* gate_meta,
                                                                const void* up_quant, const void* up_meta,
                                                                const void* w_down, void* out, void* ws, int64_t M,
                                                                int32_t mode, hipStream_t stream);
QUILLON_API hipError_t quillon_mlp_gate_up_shuffle_w(const void* src, void* dst, hipStream_t stream);
QUILLON_API hipError_t quillon_mlp_gate_up_shuffle_w_fp8(const void* src, void* dst, hipStream_t stream);
QUILLON_API hipError_t quillon_mlp_gate_up_shuffle_w_kquant(int32_t format, const void* src, void* quant, void* meta,
                                                            hipStream_t stream);
QUILLON_API hipError_t quillon_mlp_gate_shuffle_w_kquant(int32_t format, const void* src, void* quant, void* meta,
                                                         hipStream_t stream);
QUILLON_API hipError_t quillon_mlp_up_shuffle_w_kquant(int32_t format, const void* src, void* quant, void* meta,
                                                       hipStream_t stream);
QUILLON_API hipError_t quillon_mlp_down_shuffle_w(const void* src, void* dst, hipStream_t stream);
QUILLON_API hipError_t quillon_mlp_down_shuffle_w_fp8(const void* src, void* dst, hipStream_t stream);
QUILLON_API hipError_t quillon_mlp_down_shuffle_w_kquant(int32_t format, const void* src, void* quant, void* meta,
                                                         hipStream_t stream);


#ifdef __cplusplus
}
#endif
#endif
