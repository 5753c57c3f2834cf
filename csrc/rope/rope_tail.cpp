// Rotation of the DeepSeek heads' last 64 dims in adjacent pairs: in place over
// dense rows, and on the way while copying column groups out of a wider row
// (row-major or into a blk32 panel).
#include "../platform/fatal.h"
#include "../platform/launch.h"
#include "rope.h"
#include "rope_core.h"

namespace quillon {
namespace rope {

constexpr int kTail = 64;

// The inverse is the forward rotation with the sine negated.
template <bool INVERSE>
QDEV Pair rotate_tail(float c, float s, float a, float b) {
  return rotate(c, INVERSE ? -s : s, a, b);
}

// One wave per row of `head_size`, lane p on dims head_size - 64 + 2p and the next.
template <bool INVERSE>
__global__ __launch_bounds__(256) void dsv4_rope_tail_kernel(uint16_t* x, const float* cos, const float* sin,
                                                             int64_t head_size, int64_t heads, int64_t tokens) {
  const int64_t row = (int64_t)blockIdx.x * 8 + threadIdx.x / 32;
  if (row >= tokens * heads) return;
  const int p = (int)dev::lane_id();
  const int64_t t = row / heads;
  uint32_t* pair = reinterpret_cast<uint32_t*>(x + row * head_size + head_size - kTail + 2 * p);
  const uint32_t w = *pair;
  const Pair r = rotate_tail<INVERSE>(cos[t * 32 + p], sin[t * 32 + p], num::bf16_to_float((uint16_t)w),
                                      num::bf16_to_float((uint16_t)(w >> 16)));
  *pair = pack2(r.a, r.b);
}

// One thread per 16-byte chunk of the destination; chunk i of a group lies at
// element 8 i of its block in either layout.
template <bool INVERSE, bool BLK32>
__global__ __launch_bounds__(256) void dsv4_rope_tail_group_kernel(uint16_t* dst, const uint16_t* src,
                                                                   const float* cos, const float* sin,
                                                                   int64_t head_size, int64_t width,
                                                                   int64_t col_offset, int64_t cols, int64_t groups,
                                                                   int64_t rows, int64_t padded_rows) {
  const int64_t per_group = padded_rows * cols / 8;
  const int64_t gi = (int64_t)blockIdx.x * 256 + threadIdx.x;
  if (gi >= groups * per_group) return;
  const int64_t g = gi / per_group, i = gi % per_group;
  int64_t row, col;
  if constexpr (BLK32) {
    const int64_t tile = i / 128, inner = i % 128;
    row = 32 * (tile / (cols / 32)) + inner / 4;
    col = 32 * (tile % (cols / 32)) + 8 * (inner % 4);
  } else {
    row = i / (cols / 8);
    col = 8 * (i % (cols / 8));
  }
  dev::u32x4* out = reinterpret_cast<dev::u32x4*>(dst + g * padded_rows * cols + 8 * i);
  if (row >= rows) {
    const dev::u32x4 z = {0u, 0u, 0u, 0u};
    *out = z;
    return;
  }
  const int64_t c = col_offset + g * cols + col;
  dev::u32x4 v = *reinterpret_cast<const dev::u32x4*>(src + row * width + c);
  const int64_t in_head = c % head_size;
  if (in_head >= head_size - kTail) {
    const int64_t e0 = row * 32 + (in_head - (head_size - kTail)) / 2;
    for (int q = 0; q < 4; ++q) {
      const Pair r = rotate_tail<INVERSE>(cos[e0 + q], sin[e0 + q], num::bf16_to_float((uint16_t)v[q]),
                                          num::bf16_to_float((uint16_t)(v[q] >> 16)));
      v[q] = pack2(r.a, r.b);
    }
  }
  *out = v;
}

template <bool BLK32>
void launch_group(bool inverse, void* dst, const void* src, const float* cos, const float* sin, int64_t head_size,
                  int64_t width, int64_t col_offset, int64_t cols, int64_t groups, int64_t rows, int64_t padded_rows,
                  hipStream_t s) {
  const int64_t chunks = groups * padded_rows * cols / 8;
  auto* k = inverse ? &dsv4_rope_tail_group_kernel<true, BLK32> : &dsv4_rope_tail_group_kernel<false, BLK32>;
  launch(k, dim3((unsigned)((chunks + 255) / 256)), dim3(256), 0, s, static_cast<uint16_t*>(dst),
         static_cast<const uint16_t*>(src), cos, sin, head_size, width, col_offset, cols, groups, rows, padded_rows);
}

}  // namespace rope

void dsv4_rope_tail(void* x, const float* cos, const float* sin, int64_t head_size, int64_t heads, int64_t tokens,
                    bool inverse, hipStream_t s) {
  if (heads <= 0 || tokens <= 0) return;
  QUILLON_CHECK(head_size >= rope::kTail, "dsv4_rope_tail: head_size %lld is shorter than the %d-dim rotary tail",
                (long long)head_size, rope::kTail);
  QUILLON_CHECK(head_size % 2 == 0, "dsv4_rope_tail: head_size %lld must be even", (long long)head_size);
  auto* k = inverse ? &rope::dsv4_rope_tail_kernel<true> : &rope::dsv4_rope_tail_kernel<false>;
  launch(k, dim3((unsigned)((tokens * heads + 7) / 8)), dim3(256), 0, s, static_cast<uint16_t*>(x), cos, sin,
         head_size, heads, tokens);
}

void dsv4_rope_tail_group(void* dst, const void* src, const float* cos, const float* sin, int64_t head_size,
                          int64_t width, int64_t col_offset, int64_t cols, int64_t groups, int64_t rows,
                          int64_t padded_rows, bool blk32, bool inverse, hipStream_t s) {
  if (groups <= 0 || cols <= 0 || padded_rows <= 0) return;
  QUILLON_CHECK(head_size >= rope::kTail && head_size % 8 == 0,
                "dsv4_rope_tail_group: head_size %lld must be a multiple of 8 and at least the %d-dim rotary tail",
                (long long)head_size, rope::kTail);
  QUILLON_CHECK(col_offset % head_size == 0 && cols % head_size == 0 && groups * cols + col_offset <= width,
                "dsv4_rope_tail_group: %lld groups of [%lld columns at %lld] of a %lld-wide row is not a whole "
                "number of %lld-dim heads",
                (long long)groups, (long long)cols, (long long)col_offset, (long long)width, (long long)head_size);
  QUILLON_CHECK(padded_rows >= rows, "dsv4_rope_tail_group: %lld padded rows is fewer than the %lld real ones",
                (long long)padded_rows, (long long)rows);
  QUILLON_CHECK(blk32 ? padded_rows % 32 == 0 && cols % 32 == 0 : padded_rows == rows,
                "dsv4_rope_tail_group: the blk32 arm needs 32 to divide [%lld, %lld]; the row-major one has no pad "
                "rows to write",
                (long long)padded_rows, (long long)cols);
  if (blk32) rope::launch_group<true>(inverse, dst, src, cos, sin, head_size, width, col_offset, cols, groups, rows,
                                      padded_rows, s);
  else rope::launch_group<false>(inverse, dst, src, cos, sin, head_size, width, col_offset, cols, groups, rows,
                                 padded_rows, s);
}

}  // namespace quillon
