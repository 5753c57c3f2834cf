// Gated RMSNorm behind linear attention: each (token row, value head) item is
// normalised over its 128 elements and multiplied by a gate, 16 threads per
// item with a 16-byte chunk each.
#include "../device/geometry.h"
#include "../platform/fatal.h"
#include "../platform/launch.h"
#include "rmsnorm.h"
#include "rmsnorm_core.h"

namespace quillon {
namespace norm {

constexpr float kLog2e = __builtin_bit_cast(float, 0x3FB8AA3Bu);
constexpr int kGatedThreads = 256;
constexpr int kItemThreads = 16;

QDEV float sigmoid(float g) { return 1.0f / (1.0f + dev::exp2(-g * kLog2e)); }

// The gated chunk of item (row, h) for thread j of the item. A dead item reads
// nothing but still joins the exchange, so the 16-lane groups stay whole.
template <int VH, int HD, bool SIGMOID_GATE>
QDEV dev::u32x4 gated_chunk(const uint16_t* x, const uint16_t* gate, int64_t gate_stride, const uint16_t* weight,
                            int64_t row, int h, int j, bool live, float eps) {
  static_assert(HD == kItemThreads * 8, "one chunk per thread of an item");
  float v[8] = {0.f, 0.f, 0.f, 0.f, 0.f, 0.f, 0.f, 0.f};
  float g[8] = {0.f, 0.f, 0.f, 0.f, 0.f, 0.f, 0.f, 0.f};
  if (live) {
    load8(x + row * (VH * HD) + h * HD + j * 8, v);
    load8(gate + row * gate_stride + h * HD + j * 8, g);
  }
  float s = pair_sums8(v);
  for (int m = 1; m < kItemThreads; m <<= 1) s += dev::shfl_xor_f(s, m, kItemThreads);
  const float r = inv_rms<HD>(s, eps);
  scale8(v, r, weight + j * 8);
  for (int i = 0; i < 8; ++i) {
    const float sg = sigmoid(g[i]);
    v[i] = SIGMOID_GATE ? v[i] * sg : v[i] * (g[i] * sg);
  }
  return pack_bf16x8(v);
}

template <int VH, int KH, int HD, bool SIGMOID_GATE, int THREADS>
__global__ __launch_bounds__(THREADS) void rmsnorm_gated_kernel(const uint16_t* x, const uint16_t* gate,
                                                                 int64_t gate_stride, const uint16_t* weight,
                                                                 uint16_t* out, int64_t rows, float eps) {
  const int64_t item = (int64_t)blockIdx.x * (THREADS / kItemThreads) + threadIdx.x / kItemThreads;
  const int j = (int)threadIdx.x % kItemThreads;
  const bool live = item < rows * VH;
  const int64_t row = item / VH;
  const int h = (int)(item % VH);
  const dev::u32x4 y = gated_chunk<VH, HD, SIGMOID_GATE>(x, gate, gate_stride, weight, row, h, j, live, eps);
  if (live) store16(out, (row * (VH * HD) + h * HD + j * 8) * 2, y);
}

template <int VH, int KH, int HD, bool SIGMOID_GATE, int THREADS>
__global__ __launch_bounds__(THREADS) void rmsnorm_gated_shuffled_kernel(const uint16_t* x, const uint16_t* gate,
                                                                          int64_t gate_stride,
                                                                          const uint16_t* weight, uint16_t* out,
                                                                          int64_t rows, float eps) {
  const int64_t item = (int64_t)blockIdx.x * (THREADS / kItemThreads) + threadIdx.x / kItemThreads;
  const int j = (int)threadIdx.x % kItemThreads;
  const bool live = item < rows * VH;
  const int64_t row = item / VH;
  const int h = (int)(item % VH);
  const dev::u32x4 y = gated_chunk<VH, HD, SIGMOID_GATE>(x, gate, gate_stride, weight, row, h, j, live, eps);
  // Pad items of the panel are stored as zeros.
  store16(out, blk32_chunk_offset(row, h * (HD / 8) + j, VH * HD / 8), live ? y : zero16());
}

template <class G>
struct GatedShape {
  static constexpr int VH = (int)G::linear_v_heads, KH = (int)G::linear_k_heads, HD = (int)G::linear_v_dim;
  static constexpr bool kSigmoid = G::id == Qwen38FlashNext::id;
};

template <class G>
void check_gate_stride(int64_t gate_stride) {
  constexpr int64_t need = (int64_t)GatedShape<G>::VH * GatedShape<G>::HD;
  if (gate_stride < need)
    QUILLON_FATAL("gate_stride must span the value dim (got %lld, need >= %lld)", (long long)gate_stride,
                  (long long)need);
}

template <class G>
int64_t gated_grid(int64_t rows) {
  constexpr int64_t per_block = kGatedThreads / kItemThreads;
  return (rows * GatedShape<G>::VH + per_block - 1) / per_block;
}

}  // namespace norm

void rmsnorm_gated(const void* x, const void* gate, int64_t gate_stride, const void* weight, void* out, int64_t rows,
                   float eps, hipStream_t s) {
  on_geometry<Qwen36MoeA3B, Qwen3627B, Qwen38FlashNext>(QUILLON_HERE, [&](auto g) {
    using G = decltype(g);
    using S = norm::GatedShape<G>;
    norm::check_gate_stride<G>(gate_stride);
    if (rows <= 0) return;
    launch(&norm::rmsnorm_gated_kernel<S::VH, S::KH, S::HD, S::kSigmoid, norm::kGatedThreads>,
           dim3((unsigned)norm::gated_grid<G>(rows)), dim3(norm::kGatedThreads), 0, s,
           static_cast<const uint16_t*>(x), static_cast<const uint16_t*>(gate), gate_stride,
           static_cast<const uint16_t*>(weight), static_cast<uint16_t*>(out), rows, eps);
  });
}

void rmsnorm_gated_shuffled(const void* x, const void* gate, int64_t gate_stride, const void* weight, void* out,
                            int64_t rows, int64_t padded_rows, float eps, hipStream_t s) {
  on_geometry<Qwen36MoeA3B, Qwen3627B, Qwen38FlashNext>(QUILLON_HERE, [&](auto g) {
    using G = decltype(g);
    using S = norm::GatedShape<G>;
    norm::check_gate_stride<G>(gate_stride);
    if (padded_rows % 32 != 0)
      QUILLON_FATAL("the shuffled store needs a whole 32-row block, got %lld", (long long)padded_rows);
    if (out == x) QUILLON_FATAL("the shuffled store cannot run in place");
    if (rows <= 0) return;
    launch(&norm::rmsnorm_gated_shuffled_kernel<S::VH, S::KH, S::HD, S::kSigmoid, norm::kGatedThreads>,
           dim3((unsigned)norm::gated_grid<G>(padded_rows)), dim3(norm::kGatedThreads), 0, s,
           static_cast<const uint16_t*>(x), static_cast<const uint16_t*>(gate), gate_stride,
           static_cast<const uint16_t*>(weight), static_cast<uint16_t*>(out), rows, eps);
  });
}

}  // namespace quillon
