// (sequence row, position) pairs to global slot numbers through the block table.
#include "../platform/device.h"
#include "../platform/fatal.h"
#include "../platform/launch.h"
#include "kv_cache.h"

namespace quillon {
namespace kv {

__global__ __launch_bounds__(256) void resolve_slots_kernel(const int32_t* block_table, int64_t row_stride,
                                                            const int32_t* seq_ids, const int32_t* positions,
                                                            int32_t* slots_out, int64_t n, int64_t page) {
  const int64_t i = (int64_t)blockIdx.x * 256 + threadIdx.x;
  if (i >= n) return;
  const int32_t row = seq_ids[i];
  if (row < 0) {
    slots_out[i] = -1;
    return;
  }
  const int64_t pos = positions[i];
  const int64_t b = pos / page;
  // The slot is 32-bit: the arithmetic wraps as the stored value does.
  const uint32_t first = (uint32_t)block_table[(int64_t)row * row_stride + b] * (uint32_t)page;
  slots_out[i] = (int32_t)(first + (uint32_t)(pos - b * page));
}

}  // namespace kv

void resolve_slots(const int32_t* block_table, int64_t row_stride, const int32_t* seq_ids, const int32_t* positions,
                   int32_t* slots_out, int64_t n, int64_t page, hipStream_t s) {
  QUILLON_CHECK(page >= 1, "resolve_slots: a KV page is a positive number of slots (got %lld)", (long long)page);
  if (n <= 0) return;
  launch(&kv::resolve_slots_kernel, dim3((unsigned)((n + 255) / 256)), dim3(256), 0, s, block_table, row_stride,
         seq_ids, positions, slots_out, n, page);
}

}  // namespace quillon
