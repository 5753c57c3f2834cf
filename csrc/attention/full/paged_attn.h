// Host entries of paged attention: the decode plan, its partition and reduce
// steps, and prefill. Launching entries are asynchronous on `s` and do not
// check the launch status.
#pragma once
#include <hip/hip_runtime_api.h>
#include <stdint.h>

namespace quillon {

int64_t paged_decode_num_slots(int64_t num_seqs);
int64_t paged_decode_plan_elems(int64_t num_seqs, int64_t num_slots);
int64_t paged_decode_workspace_size(int64_t num_slots, int64_t q_rows);
inline constexpr int64_t kPagedDecodeMaxQ = 8;

void paged_attn_decode_plan(const int32_t* seq_lens, int32_t* plan, int64_t num_seqs, int64_t num_slots,
                            int64_t part_tokens, int32_t even_split, hipStream_t s);
// bf16 pools when the scale pointers are null and `int8` is false.
void paged_attn_decode(const void* q, const int32_t* seq_lens, const void* k_cache, const void* v_cache,
                       const void* k_scales, const void* v_scales, bool int8, void* out, const int32_t* block_table,
                       const int32_t* plan, int64_t num_seqs, int64_t row_stride, int64_t num_slots, void* workspace,
                       int64_t q_rows, int64_t page, int64_t q_stride, int64_t row_offset, float scale, hipStream_t s);

// The draft shape (32 query heads, 8 KV heads of 128): every row sees the
// whole history, Q 1, 4, 8 or 16, bf16 pools. Reads no selection.
inline constexpr int64_t kDraftKvHeads = 8;
int64_t draft_paged_decode_workspace_size(int64_t num_slots, int64_t q_rows);
void draft_paged_attn_decode_plan(const int32_t* seq_lens, int32_t* plan, int64_t num_seqs, int64_t num_slots,
                                  int64_t part_tokens, int32_t even_split, hipStream_t s);
void draft_paged_attn_decode(const void* q, const void* k_cache, const void* v_cache, void* out,
                             const int32_t* block_table, const int32_t* plan, int64_t num_seqs, int64_t row_stride,
                             int64_t num_slots, void* workspace, int64_t q_rows, int64_t page, int64_t q_stride,
                             int64_t row_offset, float scale, hipStream_t s);

// Prefill: query blocks of the active geometry (host arithmetic), and the
// fused causal kernel; a non-null `gate` writes the gated blk32 form.
int64_t prefill_q_blocks(const int32_t* q_lens, int64_t num_seqs);
void prefill_q_block_map(const int32_t* q_lens, int64_t num_seqs, int32_t* map_out);
int64_t paged_prefill_max_tokens();
void paged_attn_prefill(const void* q, const void* k_cache, const void* v_cache, void* out, const int32_t* cu_q_lens,
                        const int32_t* block_table, const int32_t* seq_lens, int64_t num_seqs, int64_t row_stride,
                        int64_t num_q_blocks, int64_t page, const int32_t* q_block_map, const void* gate,
                        int64_t gate_row_stride, int64_t row_offset, float scale, hipStream_t s);
// Checks page and geometry only: there is no int8 prefill instantiation.
void paged_attn_prefill_int8(int64_t page);

}  // namespace quillon
