// RMSNorm selected by its arguments rather than by a geometry: fast
// one-chunk-per-thread forms for the widths the DeepSeek layers use, and a
// width-generic form with a stride loop for any other H.
#include <type_traits>

#include "../platform/fatal.h"
#include "../platform/launch.h"
#include "rmsnorm.h"
#include "rmsnorm_core.h"

namespace quillon {
namespace norm {

// H is a runtime value here, so the host passes 1/H and the mean is one fma.
// The second pass re-reads x rather than holding an unbounded row in registers.
template <int THREADS, bool AFFINE, bool BLK32, class In>
__global__ __launch_bounds__(THREADS) void rmsnorm_wide_kernel(const In* x, const uint16_t* weight, uint16_t* out,
                                                                int64_t H, int64_t x_stride, int64_t rows,
                                                                float inv_h, float eps) {
  const int64_t row = blockIdx.x;
  const int chunks = (int)(H / 8);
  if constexpr (BLK32) {
    if (row >= rows) {
      for (int c = (int)threadIdx.x; c < chunks; c += THREADS) store16(out, blk32_chunk_offset(row, c, chunks), zero16());
      return;
    }
  }
  const In* xr = x + row * x_stride;
  float s = 0.0f;
  for (int c = (int)threadIdx.x; c < chunks; c += THREADS) {
    float v[8];
    load8(xr + c * 8, v);
    for (int i = 0; i < 4; ++i) s = s + pair_sum(v, i);
  }
  const float sum = block_sum<THREADS>(s);
  const float r = dev::rsq_care(__builtin_fmaf(sum, inv_h, eps));
  for (int c = (int)threadIdx.x; c < chunks; c += THREADS) {
    float v[8];
    load8(xr + c * 8, v);
    scale8(v, r, AFFINE ? weight + c * 8 : nullptr);
    if constexpr (BLK32) store16(out, blk32_chunk_offset(row, c, chunks), pack_bf16x8(v));
    else store16(out, (row * H + c * 8) * 2, pack_bf16x8(v));
  }
}

constexpr int kWideThreads = 1024;

template <int H, bool AFFINE, bool BLK32, class In>
void launch_fast(const void* x, const void* weight, void* out, int64_t grid, int64_t rows, int64_t x_stride,
                 float eps, hipStream_t s) {
  launch(&rmsnorm_kernel<H, false, H / 8, AFFINE, BLK32, In>, dim3((unsigned)grid), dim3(H / 8), 0, s,
         static_cast<const In*>(x), static_cast<uint16_t*>(nullptr), static_cast<const uint16_t*>(weight),
         static_cast<uint16_t*>(out), x_stride, rows, eps);
}

template <bool AFFINE, bool BLK32, class In>
void launch_wide(const void* x, const void* weight, void* out, int64_t H, int64_t grid, int64_t rows,
                 int64_t x_stride, float eps, hipStream_t s) {
  const float inv_h = 1.0f / (float)H;
  launch(&rmsnorm_wide_kernel<kWideThreads, AFFINE, BLK32, In>, dim3((unsigned)grid), dim3(kWideThreads), 0, s,
         static_cast<const In*>(x), static_cast<const uint16_t*>(weight), static_cast<uint16_t*>(out), H, x_stride,
         rows, inv_h, eps);
}

// Calls f with H as a compile-time constant when H has a fast form.
template <class F>
bool with_fast_width(int64_t H, bool blk32, F&& f) {
  switch (H) {
    case 512:
      if (blk32) return false;
      f(std::integral_constant<int, 512>{});
      return true;
    case 1024: f(std::integral_constant<int, 1024>{}); return true;
    case 4096: f(std::integral_constant<int, 4096>{}); return true;
    default: return false;
  }
}

template <bool AFFINE, class In>
void dsv4_rowmajor(const void* x, const void* weight, void* out, int64_t H, int64_t rows, int64_t x_stride, float eps,
                   hipStream_t s) {
  const bool fast = with_fast_width(H, false, [&](auto h) {
    launch_fast<decltype(h)::value, AFFINE, false, In>(x, weight, out, rows, rows, x_stride, eps, s);
  });
  if (fast) return;
  if (H % 8 != 0) QUILLON_FATAL("rmsnorm: H %lld must be a multiple of 8", (long long)H);
  launch_wide<AFFINE, false, In>(x, weight, out, H, rows, rows, x_stride, eps, s);
}

template <bool AFFINE>
void dsv4_blk32(const void* x, const void* weight, void* out, int64_t H, int64_t rows, int64_t padded_rows, float eps,
                hipStream_t s) {
  if (H != 1024 && H != 4096 && H % 32 != 0)
    QUILLON_FATAL("rmsnorm_shuffled: the blk32 layout needs 32 to divide H (%lld)", (long long)H);
  if (padded_rows == 0) return;
  const bool fast = with_fast_width(H, true, [&](auto h) {
    launch_fast<decltype(h)::value, AFFINE, true, uint16_t>(x, weight, out, padded_rows, rows, H, eps, s);
  });
  if (!fast) launch_wide<AFFINE, true, uint16_t>(x, weight, out, H, padded_rows, rows, H, eps, s);
}

}  // namespace norm

void dsv4_rmsnorm(const void* x, const void* weight, void* out, int64_t H, int64_t rows, int64_t x_stride,
                  bool x_is_fp32, float eps, hipStream_t s) {
  if (rows <= 0) return;
  if (x_stride % 8 != 0)
    QUILLON_FATAL("dsv4_rmsnorm: x's row stride %lld must be a multiple of 8", (long long)x_stride);
  if (x_stride == 0) x_stride = H;
  if (x_is_fp32) {
    if (weight) norm::dsv4_rowmajor<true, float>(x, weight, out, H, rows, x_stride, eps, s);
    else norm::dsv4_rowmajor<false, float>(x, nullptr, out, H, rows, x_stride, eps, s);
  } else {
    if (weight) norm::dsv4_rowmajor<true, uint16_t>(x, weight, out, H, rows, x_stride, eps, s);
    else norm::dsv4_rowmajor<false, uint16_t>(x, nullptr, out, H, rows, x_stride, eps, s);
  }
}

void dsv4_rmsnorm_shuffled(const void* x, const void* weight, void* out, int64_t H, int64_t rows,
                           int64_t padded_rows, float eps, hipStream_t s) {
  if (padded_rows < rows)
    QUILLON_FATAL("dsv4_rmsnorm_shuffled: %lld padded rows is fewer than the %lld real ones", (long long)padded_rows,
                  (long long)rows);
  if (padded_rows % 32 != 0)
    QUILLON_FATAL("dsv4_rmsnorm_shuffled: the blk32 layout needs 32 to divide the padded row count (%lld)",
                  (long long)padded_rows);
  if (weight) norm::dsv4_blk32<true>(x, weight, out, H, rows, padded_rows, eps, s);
  else norm::dsv4_blk32<false>(x, nullptr, out, H, rows, padded_rows, eps, s);
}

}  // namespace quillon
