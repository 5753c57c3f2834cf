// Host entries of the rotary family: cos/sin tables, the rotations, and the
// per-head QK norm with and without the fused rotation. All are asynchronous on
// `s` and do not check the launch status.
#pragma once
#include <hip/hip_runtime_api.h>
#include <stdint.h>

namespace quillon {
// Tables of rows of 64 floats: 32 pairs, each entry stored twice (j and j+32).
// The M-RoPE form takes `positions` as three streams [3, n].
void rope_cos_sin(const int64_t* positions, const float* inv_freq, float* cos, float* sin, int64_t n, hipStream_t s);
void rope_cos_sin_mrope(const int64_t* positions, const float* inv_freq, float* cos, float* sin, int64_t n,
                        hipStream_t s);
// The draft's table: 64 pairs, rows of 64, no duplicate. Reads no selection.
void draft_rope_cos_sin(const int64_t* positions, const float* inv_freq, float* cos, float* sin, int64_t n,
                        hipStream_t s);
// Rows of 32 entries, cosine and sine both times `scale`.
void dsv4_rope_cos_sin(const int64_t* positions, const float* inv_freq, float scale, float* cos, float* sin,
                       int64_t n, hipStream_t s);

// Half-split rotation of dims (j, j+32), in place, dense rows of 256: the
// geometry's query heads or key heads.
void rope_apply_q(void* x, const float* cos, const float* sin, int64_t n, hipStream_t s);
void rope_apply_k(void* x, const float* cos, const float* sin, int64_t n, hipStream_t s);
// The same rotation on pooled indexer rows of 128, 1 or 4 heads.
void qwen4exp_indexer_rope(void* x, const float* cos, const float* sin, int64_t n, int64_t heads, hipStream_t s);

// Per-head norm of the fused QKV row; the rope forms rotate the first 64 dims
// between the weight multiply and the rounding. `k` and `k_stride` of the
// split form give the key source; the others read it at the geometry's k_offset.
void qk_norm(const void* qkv, int64_t row_stride, const void* q_weight, const void* k_weight, void* q_out,
             void* k_out, int64_t n, float eps, hipStream_t s);
void qk_norm_rope(const void* qkv, int64_t row_stride, const void* q_weight, const void* k_weight, const float* cos,
                  const float* sin, void* q_out, void* k_out, int64_t n, float eps, hipStream_t s);
void qk_norm_rope_split_k(const void* q, int64_t q_stride, const void* k, int64_t k_stride, const void* q_weight,
                          const void* k_weight, const float* cos, const float* sin, void* q_out, void* k_out,
                          int64_t n, float eps, hipStream_t s);
// The draft's whole-head forms (32 query and 8 key heads of 128, or keys
// only), over tables of the draft form. Read no selection.
void draft_qk_norm_rope(const void* qkv, int64_t row_stride, const void* q_weight, const void* k_weight,
                        const float* cos, const float* sin, void* q_out, void* k_out, int64_t n, float eps,
                        hipStream_t s);
void draft_k_norm_rope(const void* k, int64_t row_stride, const void* k_weight, const float* cos, const float* sin,
                       void* k_out, int64_t n, float eps, hipStream_t s);

// Adjacent-pair rotation of the last 64 dims of every head, in place; tables
// of the DeepSeek form.
void dsv4_rope_tail(void* x, const float* cos, const float* sin, int64_t head_size, int64_t heads, int64_t tokens,
                    bool inverse, hipStream_t s);
// Copies `groups` column groups of `cols` out of rows of `width`, rotating
// every head's tail, into `groups` blocks of [padded_rows, cols], row-major or
// blk32; rows at or past `rows` come out zero.
void dsv4_rope_tail_group(void* dst, const void* src, const float* cos, const float* sin, int64_t head_size,
                          int64_t width, int64_t col_offset, int64_t cols, int64_t groups, int64_t rows,
                          int64_t padded_rows, bool blk32, bool inverse, hipStream_t s);
}  // namespace quillon
