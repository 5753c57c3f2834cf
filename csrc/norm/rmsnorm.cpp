// Row-major RMSNorm: one block per row, H/8 threads, one 16-byte chunk each, so
// the row stays in registers between the reduction and the output.
#include "rmsnorm.h"

#include "../device/geometry.h"
#include "../platform/fatal.h"
#include "../platform/launch.h"
#include "rmsnorm_core.h"

namespace quillon {
namespace norm {

template <int H, bool RESIDUAL, int THREADS, bool AFFINE, bool BLK32, class In>
__global__ __launch_bounds__(THREADS) void rmsnorm_kernel(const In* x, uint16_t* residual, const uint16_t* weight,
                                                           uint16_t* out, int64_t x_stride, float eps) {
  static_assert(H / 8 == THREADS, "one chunk per thread");
  const int64_t row = blockIdx.x;
  const int c = (int)threadIdx.x;
  float v[8];
  if constexpr (sizeof(In) == 4) load_f32x8(reinterpret_cast<const float*>(x) + row * x_stride + c * 8, v);
  else load_bf16x8(reinterpret_cast<const uint16_t*>(x) + row * x_stride + c * 8, v);
  if constexpr (RESIDUAL) {
    // The rounded sum is stored back and is what the norm sees.
    uint16_t* rp = residual + row * H + c * 8;
    float rv[8];
    load_bf16x8(rp, rv);
    for (int i = 0; i < 8; ++i) v[i] = num::bf16_to_float(num::bf16_rne(rv[i] + v[i]));
    *reinterpret_cast<dev::u32x4*>(rp) = pack_bf16x8(v);
  }
  const float sum = block_sum<THREADS>(pair_sums8(v));
  const float r = inv_rms<H>(sum, eps);
  scale8(v, r, AFFINE ? weight + c * 8 : nullptr);
  *reinterpret_cast<dev::u32x4*>(out + row * H + c * 8) = pack_bf16x8(v);
}

template <class G, bool RESIDUAL>
void launch_rowmajor(const void* x, void* residual, const void* weight, void* out, int64_t rows, float eps,
                     hipStream_t s) {
  constexpr int H = (int)G::hidden_size;
  launch(&rmsnorm_kernel<H, RESIDUAL, H / 8, true, false, uint16_t>, dim3((unsigned)rows), dim3(H / 8), 0, s,
         static_cast<const uint16_t*>(x), static_cast<uint16_t*>(residual), static_cast<const uint16_t*>(weight),
         static_cast<uint16_t*>(out), (int64_t)H, eps);
}

}  // namespace norm

void rmsnorm(const void* x, void* residual, const void* weight, void* out, int64_t rows, float eps, hipStream_t s) {
  on_geometry<Qwen36MoeA3B, Qwen3627B, Qwen38FlashNext>(QUILLON_HERE, [&](auto g) {
    using G = decltype(g);
    if (residual) norm::launch_rowmajor<G, true>(x, residual, weight, out, rows, eps, s);
    else norm::launch_rowmajor<G, false>(x, nullptr, weight, out, rows, eps, s);
  });
}

void dsv4_rmsnorm(const void* x, const void* weight, void* out, int64_t H, int64_t rows, int64_t x_stride,
                  bool x_is_fp32, float eps, hipStream_t s) {
  QUILLON_FATAL("dsv4_rmsnorm: not yet built");
}

}  // namespace quillon
