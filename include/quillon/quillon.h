/* quillon: fused LLM inference operators for gfx1151.
 * The whole public interface. Every operator is asynchronous on the caller's
 * stream and returns the launch status; device pointers are the caller's. */
#ifndef QUILLON_QUILLON_H
#define QUILLON_QUILLON_H

#include "quillon_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- frame ---- */
QUILLON_API int32_t quillon_abi_version(void);
QUILLON_API int32_t quillon_select_geometry(int32_t id);
QUILLON_API int32_t quillon_active_geometry(void);
QUILLON_API int64_t quillon_geometry_name(int32_t id, char* buf, int64_t cap);
QUILLON_API void quillon_model_config(QuillonModelConfig* out);
QUILLON_API int64_t quillon_kv_block_sizes(int64_t* out, int64_t cap);
QUILLON_API int32_t quillon_select_draft(const QuillonDraftShape* shape);
QUILLON_API int32_t quillon_active_draft(void);
QUILLON_API int32_t quillon_draft_count(void);
QUILLON_API int32_t quillon_draft_shape(int32_t id, QuillonDraftShape* out);
QUILLON_API int64_t quillon_draft_name(int32_t id, char* buf, int64_t cap);
QUILLON_API int64_t quillon_shuffle_bytes(int64_t bytes);
QUILLON_API const char* quillon_error_string(hipError_t code);
QUILLON_API hipError_t quillon_synchronize(hipStream_t stream);

/* ---- weight formats ---- */
/* Bytes of an N x K k-quant tensor: its GGUF source, its quant plane (codes
 * plus 4 bytes of slack) and its meta plane. Format ids: 2 Q2_K, 3 Q3_K, 4 Q4_K,
 * 5 Q5_K, 6 Q6_K, 8 Q8_0, 20 IQ4_NL, 23 IQ4_XS. */
QUILLON_API int64_t quillon_kquant_gguf_bytes(int32_t format, int64_t N, int64_t K);
QUILLON_API int64_t quillon_kquant_quant_bytes(int32_t format, int64_t N, int64_t K);
QUILLON_API int64_t quillon_kquant_meta_bytes(int32_t format, int64_t N, int64_t K);
/* Transposes an fp8 weight's [N/128][K/128] bf16 block-scale table to
 * [K/128][N/128]. */
QUILLON_API hipError_t quillon_proj_scale_shuffle_fp8(const void* src, void* dst, int64_t N, int64_t K,
                                                      hipStream_t stream);

/* ---- general GEMM ---- */
/* C[M, N] = A[M, K] * B[N, K]^T with M, N, K at run time: N a multiple of 128,
 * K of 32. A is row-major bf16 (row stride K); B is a weight shuffled by
 * quillon_gemm_bf16_shuffle_b or quillon_gemm_kquant_shuffle_b at the same N
 * and K. out_bf16 non-zero makes C bf16, zero fp32. ws is sized by the
 * matching _ws_bytes function. */
QUILLON_API hipError_t quillon_gemm_bf16_shuffle_b(const void* src, void* dst, int64_t N, int64_t K,
                                                   hipStream_t stream);
QUILLON_API int64_t quillon_gemm_bf16_a_ws_bytes(int64_t M, int64_t K);
QUILLON_API hipError_t quillon_gemm_bf16_a(const void* A, const void* B, void* C, int64_t M, int64_t N, int64_t K,
                                           int32_t out_bf16, void* ws, hipStream_t stream);
/* Two products over the same A, in order: C1 = A * B1^T, C2 = A * B2^T. */
QUILLON_API hipError_t quillon_gemm_bf16_a2(const void* A, const void* B1, const void* B2, void* C1, void* C2,
                                            int64_t M, int64_t N1, int64_t N2, int64_t K, int32_t out_bf16, void* ws,
                                            hipStream_t stream);
QUILLON_API hipError_t quillon_gemm_kquant_shuffle_b(int32_t format, const void* src, void* quant, void* meta,
                                                     int64_t N, int64_t K, hipStream_t stream);
QUILLON_API int64_t quillon_gemm_kquant_a_ws_bytes(int64_t M, int64_t K);
QUILLON_API hipError_t quillon_gemm_kquant_a(int32_t format, const void* A, const void* quant, const void* meta,
                                             void* C, int64_t M, int64_t N, int64_t K, int32_t out_bf16, void* ws,
                                             hipStream_t stream);

/* ---- RMSNorm family ---- */
QUILLON_API hipError_t quillon_rmsnorm(const void* x, const void* weight, void* out, int64_t rows, float eps,
                                       hipStream_t stream);
QUILLON_API hipError_t quillon_rmsnorm_residual(const void* x, void* residual, const void* weight, void* out,
                                                int64_t rows, float eps, hipStream_t stream);
QUILLON_API hipError_t quillon_dsv4_rmsnorm(const void* x, const void* weight, void* out, int64_t H, int64_t rows,
                                            int64_t x_stride, int32_t x_is_fp32, float eps, hipStream_t stream);

/* ---- rotary embedding and QK norm ---- */
/* Tables: one row of floats per token. The plain and M-RoPE forms write 64
 * (32 pairs, each entry twice), the DeepSeek form 32 entries times `scale`.
 * positions is [n], or [3, n] for M-RoPE; inv_freq one float per pair. */
QUILLON_API hipError_t quillon_rope_cos_sin(const int64_t* positions, const float* inv_freq, float* cos, float* sin,
                                            int64_t n, hipStream_t stream);
QUILLON_API hipError_t quillon_rope_cos_sin_mrope(const int64_t* positions, const float* inv_freq, float* cos,
                                                  float* sin, int64_t n, hipStream_t stream);
QUILLON_API hipError_t quillon_dsv4_rope_cos_sin(const int64_t* positions, const float* inv_freq, float scale,
                                                 float* cos, float* sin, int64_t n, hipStream_t stream);
/* In-place rotation of dims (j, j+32) of dense [n, heads, 256] queries or keys. */
QUILLON_API hipError_t quillon_rope_apply_q(void* x, const float* cos, const float* sin, int64_t n,
                                            hipStream_t stream);
QUILLON_API hipError_t quillon_rope_apply_k(void* x, const float* cos, const float* sin, int64_t n,
                                            hipStream_t stream);
/* Per-head RMS norm of the fused QKV row into dense q_out, k_out; the rope
 * forms rotate the first 64 dims before rounding. */
QUILLON_API hipError_t quillon_qk_norm(const void* qkv, int64_t row_stride, const void* q_weight,
                                       const void* k_weight, void* q_out, void* k_out, int64_t n, float eps,
                                       hipStream_t stream);
QUILLON_API hipError_t quillon_qk_norm_rope(const void* qkv, int64_t row_stride, const void* q_weight,
                                            const void* k_weight, const float* cos, const float* sin, void* q_out,
                                            void* k_out, int64_t n, float eps, hipStream_t stream);
QUILLON_API hipError_t quillon_qk_norm_rope_split_k(const void* q, int64_t q_stride, const void* k, int64_t k_stride,
                                                    const void* q_weight, const void* k_weight, const float* cos,
                                                    const float* sin, void* q_out, void* k_out, int64_t n, float eps,
                                                    hipStream_t stream);
/* Adjacent-pair rotation of the last 64 dims of each head; the group form
 * copies column groups out of rows of `width` into [groups][rows][cols]. */
QUILLON_API hipError_t quillon_dsv4_rope_tail(void* x, const float* cos, const float* sin, int64_t head_size,
                                              int64_t heads, int64_t tokens, int32_t inverse, hipStream_t stream);
QUILLON_API hipError_t quillon_dsv4_rope_tail_group(void* dst, const void* src, const float* cos, const float* sin,
                                                    int64_t head_size, int64_t width, int64_t col_offset,
                                                    int64_t cols, int64_t groups, int64_t rows, int32_t inverse,
                                                    hipStream_t stream);
/* In-place rotation of pooled indexer rows: 1 or 4 heads of 128. */
QUILLON_API hipError_t quillon_qwen4exp_indexer_rope(void* x, const float* cos, const float* sin, int64_t n,
                                                     int64_t heads, hipStream_t stream);

/* ---- paged KV cache ---- */
/* Pages of 16 slots. K pool [page][kv_head][dim/16][slot][dim%16], V pool
 * [page][kv_head][dim][slot], bf16 or int8 with bf16 scales (K per 32 dims of
 * a slot and head, V per slot and head). A negative slot is skipped. */
QUILLON_API void quillon_kv_pool_bytes(int64_t num_blocks, int64_t page, int32_t int8, int64_t* k_bytes_out,
                                       int64_t* v_bytes_out);
QUILLON_API void quillon_kv_scale_bytes(int64_t num_blocks, int64_t page, int64_t* k_scale_bytes_out,
                                        int64_t* v_scale_bytes_out);
QUILLON_API int64_t quillon_kv_blocks_for(int64_t tokens, int64_t page);
QUILLON_API hipError_t quillon_reshape_and_cache(const void* k, const void* v, int64_t k_row_stride,
                                                 int64_t v_row_stride, void* k_cache, void* v_cache,
                                                 const int32_t* slot_mapping, int64_t num_tokens, int64_t page,
                                                 hipStream_t stream);
QUILLON_API hipError_t quillon_reshape_and_cache_int8(const void* k, const void* v, int64_t k_row_stride,
                                                      int64_t v_row_stride, void* k_cache, void* v_cache,
                                                      void* k_scales, void* v_scales, const int32_t* slot_mapping,
                                                      int64_t num_tokens, int64_t page, hipStream_t stream);
QUILLON_API hipError_t quillon_resolve_slots(const int32_t* block_table, int64_t row_stride, const int32_t* seq_ids,
                                             const int32_t* positions, int32_t* slots_out, int64_t n, int64_t page,
                                             hipStream_t stream);
/* A view of the first head_tokens and last tail_tokens of each sequence,
 * rounded out to whole pages: a dense block table and matching lengths. */
QUILLON_API int64_t quillon_paged_window_blocks(int64_t head_tokens, int64_t tail_tokens, int64_t page);
QUILLON_API hipError_t quillon_paged_window_view(const int32_t* block_table, int64_t row_stride,
                                                 const int32_t* last_positions, int64_t num_seqs, int64_t head_tokens,
                                                 int64_t tail_tokens, int32_t* view_table, int64_t view_row_stride,
                                                 int32_t* view_seq_lens, int64_t page, hipStream_t stream);

/* ---- embedding gather ---- */
QUILLON_API hipError_t quillon_gather_embedding(const int64_t* ids, const void* table, void* out, int64_t n,
                                                hipStream_t stream);

/* ---- LM head ---- */
/* logits [M, vocab_size] fp32 = x [M, hidden_size] bf16 (row-major) times the
 * head weight. The weight is shuffled once: bf16 [vocab_size, hidden_size]
 * row-major through quillon_lm_head_shuffle_weight, or a GGUF k-quant tensor
 * into quant and meta planes through quillon_lm_head_kquant_shuffle_weight.
 * Up to 32 rows run the decode path (no scratch; M below 1 is fatal); more
 * rows run the prefill path, whose scratch is sized by
 * quillon_lm_head_scratch_bytes. */
QUILLON_API hipError_t quillon_lm_head_shuffle_weight(const void* src, void* w, hipStream_t stream);
QUILLON_API hipError_t quillon_lm_head(const void* x, const void* w, float* logits, int64_t M, void* scratch,
                                       hipStream_t stream);
QUILLON_API hipError_t quillon_lm_head_gemm_decode(const void* x, const void* w, float* logits, int64_t M,
                                                   hipStream_t stream);
QUILLON_API hipError_t quillon_lm_head_gemm_prefill(const void* x, const void* w, void* scratch, float* logits,
                                                    int64_t M, hipStream_t stream);
QUILLON_API int64_t quillon_lm_head_scratch_bytes(int64_t M);
QUILLON_API int64_t quillon_lm_head_prefill_scratch_bytes(int64_t M);
QUILLON_API hipError_t quillon_lm_head_kquant_shuffle_weight(int32_t format, const void* gguf_src, void* quant,
                                                             void* meta, hipStream_t stream);
QUILLON_API int64_t quillon_lm_head_kquant_quant_bytes(int32_t format);
QUILLON_API int64_t quillon_lm_head_kquant_meta_bytes(int32_t format);
QUILLON_API int64_t quillon_lm_head_kquant_gguf_bytes(int32_t format);
QUILLON_API hipError_t quillon_lm_head_kquant(int32_t format, const void* x, const void* quant, const void* meta,
                                              float* logits, int64_t M, void* scratch, hipStream_t stream);

/* ---- gated delta rule (linear attention) ---- */
/* qkv: dense conv-output rows (stride = conv channels); b, a: one bf16 logit
 * per value head, row stride ba_stride; state: fp32 [slot][HV][128][128].
 * Sequence b's row r is token b*rows + r; slot = slots ? slots[b] : b. The
 * read-only decode writes only out; the advance replays accepted[b] rows (all
 * when accepted is null) and stores the state once. */
QUILLON_API hipError_t quillon_gated_delta_rule_decode_readonly(const void* qkv, const void* b, const void* a,
                                                                int64_t ba_stride, const float* a_log,
                                                                const float* dt_bias, const int32_t* slots,
                                                                const float* state, void* out, int64_t num_seqs,
                                                                int64_t rows, hipStream_t stream);
QUILLON_API hipError_t quillon_gated_delta_rule_advance(const void* qkv, const void* b, const void* a,
                                                        int64_t ba_stride, const float* a_log, const float* dt_bias,
                                                        const int32_t* slots, const int32_t* accepted, float* state,
                                                        int64_t num_seqs, int64_t rows, hipStream_t stream);

/* ---- fused linear-attention layer ---- */
/* Rows a roll-forward decode keeps for quillon_linear_attn_advance: conv
 * inputs [M][conv] bf16, conv outputs [M][conv] bf16, logits [M] of b then a
 * (HV bf16 each). A null first block means no retain. */
typedef struct LinearAttnRetain {
  void* rows[3];
} LinearAttnRetain;
/* One linear-attention layer: input norm (skipped when input_norm is null),
 * in-projection in one form (in_proj_qkv_kquant with in_proj_z_kquant and
 * in_proj_ba; in_proj_qz_fp8 or in_proj_qz_kquant with in_proj_ba; else
 * in_proj), causal conv, gated delta rule, gated norm, out-projection (fp8
 * when in_proj_qz_fp8 is given, else out_proj_kquant, else out_proj) into out
 * [M, hidden]. path 2 is decode (B sequences of M/B rows, per-row state slots
 * slots[b*rows + r], or with retain a read-only step); any other path is a
 * prefill of B sequences (cu_seqlens, has_state, slots[b], checkpoints). The
 * workspace is sized by quillon_fused_linear_attn_workspace_bytes(M, path). */
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
    hipStream_t stream, LinearAttnRetain retain, float eps);
QUILLON_API int64_t quillon_fused_linear_attn_workspace_bytes(int64_t M, int32_t path);
/* Bytes of retained block which (0, 1, 2) for M rows; all ones for another. */
QUILLON_API int64_t quillon_linear_attn_retain_bytes(int64_t M, int32_t which);
/* Commits accepted[b] retained rows (all when null) onto slot slots[b]. */
QUILLON_API hipError_t quillon_linear_attn_advance(const void* retain0, const void* retain1, const void* retain2,
                                                   const float* a_log, const float* dt_bias, const int32_t* slots,
                                                   const int32_t* accepted, void* conv_state, float* delta_state,
                                                   int64_t num_seqs, int64_t rows, hipStream_t stream);
/* A pool of max_seqs sequences of rows slots plus one spare slot at the end. */
QUILLON_API void quillon_linear_state_pool(int64_t max_seqs, int64_t rows, int64_t* total_slots_out,
                                           int64_t* spare_slot_out);
/* Sequence seq's slot row: the committed slot (seq*rows when negative), then
 * the sequence's other slots ascending, at most capacity; returns the count. */
QUILLON_API int64_t quillon_linear_state_slots(int32_t seq, int32_t committed, int64_t capacity, int64_t rows,
                                               int32_t* out);
/* Weight shuffles at the layer's shapes: bf16 and fp8 rows into blk32, GGUF
 * tensors into quant and meta planes. */
QUILLON_API hipError_t quillon_linear_in_proj_shuffle_w(const void* src, void* dst, hipStream_t stream);
QUILLON_API hipError_t quillon_linear_in_proj_ba_shuffle_w(const void* src, void* dst, hipStream_t stream);
QUILLON_API hipError_t quillon_linear_in_proj_qz_shuffle_w_fp8(const void* src, void* dst, hipStream_t stream);
QUILLON_API hipError_t quillon_linear_in_proj_qz_shuffle_w_kquant(int32_t format, const void* src, void* quant,
                                                                  void* meta, hipStream_t stream);
QUILLON_API hipError_t quillon_linear_in_proj_qkv_shuffle_w_kquant(int32_t format, const void* src, void* quant,
                                                                   void* meta, hipStream_t stream);
QUILLON_API hipError_t quillon_linear_in_proj_z_shuffle_w_kquant(int32_t format, const void* src, void* quant,
                                                                 void* meta, hipStream_t stream);
QUILLON_API hipError_t quillon_linear_out_proj_shuffle_w(const void* src, void* dst, hipStream_t stream);
QUILLON_API hipError_t quillon_linear_out_proj_shuffle_w_fp8(const void* src, void* dst, hipStream_t stream);
QUILLON_API hipError_t quillon_linear_out_proj_shuffle_w_kquant(int32_t format, const void* src, void* quant,
                                                                void* meta, hipStream_t stream);

/* ---- sampling ---- */
QUILLON_API hipError_t quillon_sampling_softmax(const float* logits, float* probs, int64_t rows, int64_t V,
                                                const float* temperature, hipStream_t stream);
QUILLON_API hipError_t quillon_sampling_topk_topp(const float* probs, float* cand_probs, int64_t* cand_ids,
                                                  int64_t rows, int64_t V, int64_t K, const int32_t* top_k,
                                                  const float* top_p, hipStream_t stream);
QUILLON_API hipError_t quillon_sampling_multinomial(const float* cand_probs, const int64_t* cand_ids,
                                                    const float* uniform, int64_t* out_ids, int64_t rows, int64_t K,
                                                    hipStream_t stream);
QUILLON_API hipError_t quillon_sampling_argmax(const float* logits, int64_t* out_ids, int64_t rows, int64_t V,
                                               hipStream_t stream);
QUILLON_API int64_t quillon_sampling_max_k(void);

/* ---- file reader ----
 * Byte ranges of files straight to device memory: direct I/O (O_DIRECT)
 * through an io_uring ring into num_buffers pinned buffers of chunk_bytes
 * (a multiple of 4096; num_buffers above queue_depth), each copied to dst on
 * the stream. create returns null where the kernel refuses the ring. read
 * blocks until every read has finished (the copies may still run on stream)
 * and returns 0 or a HIP status, or 301 on any I/O failure, after which the
 * reader stays usable. Files stay open until destroy. One thread per reader. */
typedef struct QuillonFileReader QuillonFileReader;
QUILLON_API QuillonFileReader* quillon_file_reader_create(int32_t queue_depth, int64_t chunk_bytes,
                                                          int32_t num_buffers);
QUILLON_API void quillon_file_reader_destroy(QuillonFileReader* reader);
QUILLON_API hipError_t quillon_file_reader_read(QuillonFileReader* reader, const char* path, int64_t offset,
                                                int64_t bytes, void* dst, hipStream_t stream);

/* ---- MoE router ---- */
/* The router blob (routing matrix [E, hidden] in 128 x 64 block panels, then
 * the shared-expert gate row, or geometry 2's fp32 selection bias) and the
 * routing table: weights fp32 and ids int32 [M, top_k_total], the shared
 * expert (id E) in the last slot. hidden_shuffled is sized by
 * quillon_moe_router_shuffle_bytes (0 bytes where the variant at M does not
 * shuffle). */
QUILLON_API int64_t quillon_moe_shuffle_router_bytes(void);
QUILLON_API hipError_t quillon_moe_shuffle_router(const void* src, const float* bias, void* dst, hipStream_t stream);
QUILLON_API int64_t quillon_moe_router_shuffle_bytes(int64_t M);
QUILLON_API hipError_t quillon_moe_router_tid2eid(const void* hidden, const void* router_w, const int64_t* token_ids,
                                                  const int32_t* tid2eid, float* weights, int32_t* ids,
                                                  void* hidden_shuffled, int64_t M, hipStream_t stream);

/* ---- MoE expert weight forms ---- */
/* n experts back to back in every source. Gate-up rows interleave: device row
 * 2i is gate row i, 2i + 1 up row i (split: separate gate and up tensors of
 * n * I rows; fused: one tensor, an expert's I gate rows first). bf16 and fp8
 * go into 128 x 64 block panels per expert; fp8 scales are bf16 per 128 x 128
 * block. k-quant forms are quant and meta planes per expert matrix (format ids
 * as above). Low-bit forms (0 IQ2_XXS, 1 IQ3_XXS, 2 MXFP4, 3 IQ2_S) are planes
 * p0, p1, p2 shared by all n experts, with a stride of n * rows + 128 rows. */
QUILLON_API hipError_t quillon_moe_shuffle_gate_up(const void* gate, const void* up, void* dst, int64_t n,
                                                   hipStream_t stream);
QUILLON_API hipError_t quillon_moe_shuffle_gate_up_fused(const void* src, void* dst, int64_t n, hipStream_t stream);
QUILLON_API hipError_t quillon_moe_shuffle_down(const void* src, void* dst, int64_t n, hipStream_t stream);
QUILLON_API hipError_t quillon_moe_shuffle_gate_up_fp8(const void* gate, const void* up, void* dst, int64_t n,
                                                       hipStream_t stream);
QUILLON_API hipError_t quillon_moe_shuffle_down_fp8(const void* src, void* dst, int64_t n, hipStream_t stream);
QUILLON_API hipError_t quillon_moe_scale_shuffle_gate_up_fp8(const void* gate_scales, const void* up_scales,
                                                             void* dst, int64_t n, hipStream_t stream);
QUILLON_API hipError_t quillon_moe_scale_shuffle_down_fp8(const void* src, void* dst, int64_t n, hipStream_t stream);
QUILLON_API int64_t quillon_moe_kquant_gate_up_quant_bytes(int32_t format, int64_t n);
QUILLON_API int64_t quillon_moe_kquant_gate_up_meta_bytes(int32_t format, int64_t n);
QUILLON_API int64_t quillon_moe_kquant_down_quant_bytes(int32_t format, int64_t n);
QUILLON_API int64_t quillon_moe_kquant_down_meta_bytes(int32_t format, int64_t n);
QUILLON_API hipError_t quillon_moe_kquant_shuffle_gate_up(int32_t format, const void* gate, const void* up,
                                                          void* quant, void* meta, int64_t n, hipStream_t stream);
QUILLON_API hipError_t quillon_moe_kquant_shuffle_down(int32_t format, const void* src, void* quant, void* meta,
                                                       int64_t n, hipStream_t stream);
QUILLON_API int64_t quillon_moe_lowbit_gate_up_p0_bytes(int32_t format, int64_t n);
QUILLON_API int64_t quillon_moe_lowbit_gate_up_p1_bytes(int32_t format, int64_t n);
QUILLON_API int64_t quillon_moe_lowbit_gate_up_p2_bytes(int32_t format, int64_t n);
QUILLON_API int64_t quillon_moe_lowbit_down_p0_bytes(int32_t format, int64_t n);
QUILLON_API int64_t quillon_moe_lowbit_down_p1_bytes(int32_t format, int64_t n);
QUILLON_API int64_t quillon_moe_lowbit_down_p2_bytes(int32_t format, int64_t n);
QUILLON_API int64_t quillon_moe_lowbit_gate_up_stride(int64_t n);
QUILLON_API int64_t quillon_moe_lowbit_down_stride(int64_t n);
QUILLON_API hipError_t quillon_moe_lowbit_shuffle_gate_up(int32_t format, const void* gate, const void* up, void* p0,
                                                          void* p1, void* p2, int64_t n, hipStream_t stream);
QUILLON_API hipError_t quillon_moe_lowbit_shuffle_gate_up_fused(int32_t format, const void* src, void* p0, void* p1,
                                                                void* p2, int64_t n, hipStream_t stream);
QUILLON_API hipError_t quillon_moe_lowbit_shuffle_down(int32_t format, const void* src, void* p0, void* p1, void* p2,
                                                       int64_t n, hipStream_t stream);

/* ---- MoE grouped expert products ---- */
/* Variants by M: 0 "variant-0" (tiles of 16, up to M 768), 1 "variant-1" (64,
 * shuffled, up to 2048), 2 "variant-2" (128, shuffled). Forcing is process-wide:
 * a variant index above 2, or T = 0, returns to the table. The narrow maxima
 * (0..4, default 4) bound the M of the narrow decode kernels per weight kind.
 * The workspace serves every M up to its argument. The fused entries route,
 * sort, run gate-up with SwiGLU and down over all E_tot experts of one slab
 * (the shared expert last) and reduce into out, bf16 [M, hidden]. */
QUILLON_API int32_t quillon_moe_variant_count(void);
QUILLON_API const char* quillon_moe_variant_name(int32_t index);
QUILLON_API void quillon_moe_variant_force(int32_t index);
QUILLON_API void quillon_moe_dispatch_force(int32_t T, int32_t shuffled);
QUILLON_API void quillon_moe_fp8_narrow_force_max_m(int32_t max_m);
QUILLON_API void quillon_moe_kquant_narrow_force_max_m(int32_t max_m);
QUILLON_API void quillon_moe_lowbit_narrow_force_max_m(int32_t max_m);
QUILLON_API void quillon_moe_lowbit_force_split(int32_t flag);
QUILLON_API int64_t quillon_moe_workspace_bytes(int64_t M);
QUILLON_API hipError_t quillon_fused_moe(const void* hidden, const void* router_w, const void* gate_up,
                                         const void* down, void* out, void* workspace, int64_t M,
                                         hipStream_t stream);
QUILLON_API hipError_t quillon_fused_moe_fp8(const void* hidden, const void* router_w, const void* gate_up,
                                             const void* down, const void* gate_up_scales, const void* down_scales,
                                             void* out, void* workspace, int64_t M, hipStream_t stream);
/* Routed experts as k-quant planes per role; the shared expert as k-quant
 * planes when both its metadata pointers are given (then its format ids are
 * read), else bf16 in the layout of quillon_moe_shuffle_gate_up/_down. */
QUILLON_API hipError_t quillon_fused_moe_kquant_split(
    int32_t format_gate_up, int32_t format_down, int32_t format_shared_gate_up, int32_t format_shared_down,
    const void* hidden, const void* router_w, const void* gate_up, const void* gate_up_meta, const void* down,
    const void* down_meta, const void* shared_gate_up, const void* shared_gate_up_meta, const void* shared_down,
    const void* shared_down_meta, void* out, void* workspace, int64_t M, hipStream_t stream);
/* Routed experts as low-bit planes (expert quant formats 0..3) shared by all E
 * routed experts of a role, at the strides of quillon_moe_lowbit_*_stride(E);
 * the shared expert as in quillon_fused_moe_kquant_split. */
QUILLON_API hipError_t quillon_fused_moe_lowbit_split(
    int32_t format_gate_up, int32_t format_down, int32_t format_shared_gate_up, int32_t format_shared_down,
    const void* hidden, const void* router_w, const void* gate_up_p0, const void* gate_up_p1,
    const void* gate_up_p2, const void* down_p0, const void* down_p1, const void* down_p2,
    const void* shared_gate_up, const void* shared_gate_up_meta, const void* shared_down,
    const void* shared_down_meta, void* out, void* workspace, int64_t M, hipStream_t stream);
/* Gate-up in low-bit planes, down in k-quant planes (format_down a k-quant id). */
QUILLON_API hipError_t quillon_fused_moe_lowbit_kquant_down_split(
    int32_t format_gate_up, int32_t format_down, int32_t format_shared_gate_up, int32_t format_shared_down,
    const void* hidden, const void* router_w, const void* gate_up_p0, const void* gate_up_p1,
    const void* gate_up_p2, const void* down, const void* down_meta, const void* shared_gate_up,
    const void* shared_gate_up_meta, const void* shared_down, const void* shared_down_meta, void* out,
    void* workspace, int64_t M, hipStream_t stream);
/* As quillon_fused_moe_lowbit_split, each token routed to the experts of its
 * row of tid2eid (int32 [vocabulary, K]); token_ids int64 [M]. */
QUILLON_API hipError_t quillon_moe_experts_lowbit_split_tid2eid(
    int32_t format_gate_up, int32_t format_down, int32_t format_shared_gate_up, int32_t format_shared_down,
    const void* hidden, const void* router_w, const int64_t* token_ids, const int32_t* tid2eid,
    const void* gate_up_p0, const void* gate_up_p1, const void* gate_up_p2, const void* down_p0,
    const void* down_p1, const void* down_p2, const void* shared_gate_up, const void* shared_gate_up_meta,
    const void* shared_down, const void* shared_down_meta, void* out, void* workspace, int64_t M,
    hipStream_t stream);

/* ---- paged decode attention ---- */
/* A device-side plan cuts every (request, KV head) history into ranges over
 * num_slots work slots; the partition step writes unnormalised partials to
 * the workspace, the reduce merges them into bf16 rows [token][NQ][HD].
 * Plan: int32 slot_seq, slot_kv_head, slot_start, slot_end [num_slots],
 * item_first, item_count [num_seqs * NKV]. Geometries 0, 1 and 3. */
QUILLON_API int64_t quillon_paged_decode_num_slots(int64_t num_seqs);
QUILLON_API int64_t quillon_paged_decode_plan_elems(int64_t num_seqs, int64_t num_slots);
QUILLON_API int64_t quillon_paged_decode_workspace_size(int64_t num_slots, int64_t q_rows);
QUILLON_API int64_t quillon_paged_decode_max_q_tokens(void);
QUILLON_API hipError_t quillon_paged_attn_decode_plan(const int32_t* seq_lens, int32_t* plan, int64_t num_seqs,
                                                      int64_t num_slots, int64_t part_tokens, int32_t even_split,
                                                      hipStream_t stream);
QUILLON_API hipError_t quillon_paged_attn_decode(const void* q, const int32_t* seq_lens, const void* k_cache,
                                                 const void* v_cache, void* out, const int32_t* block_table,
                                                 const int32_t* plan, int64_t num_seqs, int64_t row_stride,
                                                 int64_t num_slots, void* workspace, int64_t q_rows, int64_t page,
                                                 int64_t q_stride, int64_t row_offset, hipStream_t stream,
                                                 float scale);
QUILLON_API hipError_t quillon_paged_attn_decode_int8(const void* q, const int32_t* seq_lens, const void* k_cache,
                                                      const void* v_cache, const void* k_scales,
                                                      const void* v_scales, void* out, const int32_t* block_table,
                                                      const int32_t* plan, int64_t num_seqs, int64_t row_stride,
                                                      int64_t num_slots, void* workspace, int64_t q_rows,
                                                      int64_t page, int64_t q_stride, int64_t row_offset,
                                                      hipStream_t stream, float scale);

/* ---- paged prefill attention ---- */
/* Causal attention of prompt chunks already in the pool. q and out are
 * [token][NQ][HD]; cu_q_lens int32[num_seqs+1]; seq_lens count the pool's
 * tokens including the new ones. The map holds (request, block) pairs, one
 * per query block, from quillon_prefill_q_block_map. A non-null gate writes
 * bf16(bf16(o) * sigmoid(gate)) to out in the blk32 layout at row
 * row_offset + token, instead of the plain rows. */
typedef struct QuillonPrefillGate {
  const void* gate;
  int64_t gate_row_stride;
  int64_t row_offset;
} QuillonPrefillGate;
QUILLON_API int64_t quillon_prefill_q_blocks(const int32_t* q_lens, int64_t num_seqs);
QUILLON_API void quillon_prefill_q_block_map(const int32_t* q_lens, int64_t num_seqs, int32_t* map_out);
QUILLON_API int64_t quillon_paged_prefill_max_tokens(void);
QUILLON_API hipError_t quillon_paged_attn_prefill(const void* q, const void* k_cache, const void* v_cache, void* out,
                                                  const int32_t* cu_q_lens, const int32_t* block_table,
                                                  const int32_t* seq_lens, int64_t num_seqs, int64_t row_stride,
                                                  int64_t num_q_blocks, int64_t page, hipStream_t stream,
                                                  const int32_t* q_block_map, QuillonPrefillGate gate, float scale);
/* Checks page and geometry and launches nothing: no int8 prefill is built. */
QUILLON_API hipError_t quillon_paged_attn_prefill_int8(const void* q, const void* k_cache, const void* v_cache,
                                                       const void* k_scales, const void* v_scales, void* out,
                                                       const int32_t* cu_q_lens, const int32_t* block_table,
                                                       const int32_t* seq_lens, int64_t num_seqs, int64_t row_stride,
                                                       int64_t num_q_blocks, int64_t page, hipStream_t stream,
                                                       const int32_t* q_block_map, QuillonPrefillGate gate,
                                                       float scale);

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
