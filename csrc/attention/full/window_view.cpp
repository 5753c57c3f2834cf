// A compact block table that keeps the first and the last pages of each
// sequence, so sinks plus a sliding tail read as one dense paged sequence.
#include "../../cache/kv_cache.h"
#include "../../platform/device.h"
#include "../../platform/fatal.h"
#include "../../platform/launch.h"

namespace quillon {
namespace kv {

// One workgroup per sequence.
__global__ __launch_bounds__(256) void window_view_kernel(const int32_t* block_table, int64_t row_stride,
                                                          const int32_t* last_positions, int64_t head_blocks,
                                                          int64_t tail_blocks, int32_t* view_table,
                                                          int64_t view_row_stride, int32_t* view_seq_lens,
                                                          int64_t page) {
  const int64_t seq = blockIdx.x;
  const int64_t last = last_positions[seq];
  const int64_t floor_pages = last >= 0 ? last / page : -((-last + page - 1) / page);
  const int64_t used = floor_pages + 1, tokens = last + 1;
  const int32_t* row = block_table + seq * row_stride;
  int32_t* view = view_table + seq * view_row_stride;
  const int64_t keep = head_blocks + tail_blocks;
  if (used <= keep) {
    for (int64_t i = threadIdx.x; i < view_row_stride; i += 256) view[i] = i < used ? row[i] : 0;
    if (threadIdx.x == 0) view_seq_lens[seq] = (int32_t)tokens;
    return;
  }
  const int64_t dropped = used - keep;
  for (int64_t i = threadIdx.x; i < keep; i += 256) view[i] = i < head_blocks ? row[i] : row[i + dropped];
  if (threadIdx.x == 0) view_seq_lens[seq] = (int32_t)(tokens - dropped * page);
}

}  // namespace kv

namespace {
int64_t pages_for(int64_t tokens, int64_t page) { return (tokens + page - 1) / page; }
}  // namespace

int64_t paged_window_blocks(int64_t head_tokens, int64_t tail_tokens, int64_t page) {
  // Not in the failure table; a message beats a division by zero.
  QUILLON_CHECK(page >= 1, "paged_window_blocks: a KV page is a positive number of slots (got %lld)", (long long)page);
  return pages_for(head_tokens, page) + pages_for(tail_tokens, page);
}

void paged_window_view(const int32_t* block_table, int64_t row_stride, const int32_t* last_positions,
                       int64_t num_seqs, int64_t head_tokens, int64_t tail_tokens, int32_t* view_table,
                       int64_t view_row_stride, int32_t* view_seq_lens, int64_t page, hipStream_t s) {
  QUILLON_CHECK(page >= 1, "paged_window_view: a KV page is a positive number of slots (got %lld)", (long long)page);
  if (num_seqs <= 0) return;
  launch(&kv::window_view_kernel, dim3((unsigned)num_seqs), dim3(256), 0, s, block_table, row_stride, last_positions,
         pages_for(head_tokens, page), pages_for(tail_tokens, page), view_table, view_row_stride, view_seq_lens, page);
}

}  // namespace quillon
