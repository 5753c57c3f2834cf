/* quillon: paged attention entries, the part of the public interface that
 * reads the KV pool of quillon.h for attention. Kept beside quillon.h so that
 * a change here does not touch every unit that includes the main header. */
#ifndef QUILLON_PAGED_ATTN_H
#define QUILLON_PAGED_ATTN_H

#include "quillon.h"

#ifdef __cplusplus
extern "C" {
#endif

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

#ifdef __cplusplus
}
#endif
#endif
