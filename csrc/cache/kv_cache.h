// Host entries of the paged KV cache: pool and scale sizes, the bf16 and int8
// writers, slot resolution and the window view. Launching entries are
// asynchronous on `s` and do not check the launch status.
#pragma once
#include <hip/hip_runtime_api.h>
#include <stdint.h>

namespace quillon {
// The one page size of this build; anything else is the "KV page" failure.
inline constexpr int64_t kKvPage = 16;
void check_kv_page(const char* file, int line, int64_t page);

void kv_pool_bytes(int64_t num_blocks, int64_t page, bool int8, int64_t* k_bytes, int64_t* v_bytes);
void kv_scale_bytes(int64_t num_blocks, int64_t page, int64_t* k_scale_bytes, int64_t* v_scale_bytes);
int64_t kv_blocks_for(int64_t tokens, int64_t page);

// Writers of the active geometry's pools; negative slots are skipped. A null
// `v_cache` selects the K-only writer, which ignores `v`.
void reshape_and_cache(const void* k, const void* v, int64_t k_row_stride, int64_t v_row_stride, void* k_cache,
                       void* v_cache, const int32_t* slot_mapping, int64_t num_tokens, int64_t page, hipStream_t s);
void reshape_and_cache_int8(const void* k, const void* v, int64_t k_row_stride, int64_t v_row_stride, void* k_cache,
                            void* v_cache, void* k_scales, void* v_scales, const int32_t* slot_mapping,
                            int64_t num_tokens, int64_t page, hipStream_t s);
// The draft's bf16 writer (8 heads of 128); reads no selection.
void draft_reshape_and_cache(const void* k, const void* v, int64_t k_row_stride, int64_t v_row_stride, void* k_cache,
                             void* v_cache, const int32_t* slot_mapping, int64_t num_tokens, int64_t page,
                             hipStream_t s);

void resolve_slots(const int32_t* block_table, int64_t row_stride, const int32_t* seq_ids, const int32_t* positions,
                   int32_t* slots_out, int64_t n, int64_t page, hipStream_t s);

int64_t paged_window_blocks(int64_t head_tokens, int64_t tail_tokens, int64_t page);
void paged_window_view(const int32_t* block_table, int64_t row_stride, const int32_t* last_positions,
                       int64_t num_seqs, int64_t head_tokens, int64_t tail_tokens, int32_t* view_table,
                       int64_t view_row_stride, int32_t* view_seq_lens, int64_t page, hipStream_t s);
}  // namespace quillon
