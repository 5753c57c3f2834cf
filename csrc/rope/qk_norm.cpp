// Per-head RMS norm of queries and keys on the row norm's core, and the same
// norm with the rotation fused between the weight multiply and the rounding:
// a head stays in registers from load to store, partners meet by lane exchange.
#include "../device/geometry.h"
#include "../norm/rmsnorm_core.h"
#include "../platform/launch.h"
#include "rope.h"
#include "rope_core.h"

namespace quillon {
namespace rope {

// Head size, rotary dims, and whether the rotation covers only part of the
// head. Each lane holds 8 consecutive dims; the lanes of one head form a group.
template <int HEAD, int ROTARY, bool PARTIAL>
struct HeadShape {
  static constexpr int head = HEAD, rotary = ROTARY, lanes = HEAD / 8;
  static constexpr int half = ROTARY / 2;
  static constexpr int rot_lanes = ROTARY / 8;   // lanes that hold rotated dims
  static constexpr int partner = ROTARY / 16;    // lane distance of a pair
  static_assert(PARTIAL == (ROTARY < HEAD), "partial means dims past the rotation");
  static_assert(lanes <= dev::kWave && dev::kWave % lanes == 0, "whole heads in a wave");
};
using PartialHead = HeadShape<256, 64, true>;
using WholeHead = HeadShape<128, 128, false>;

// Item (token, head) with query heads first; a query head sits QSTRIDE apart
// in its source, a key head HEAD apart. Items past the end load zeros and store
// nothing, so every lane still takes part in the exchanges.
template <class HS, int QH, int KH, int QSTRIDE, bool ROPE>
QDEV void norm_head(int64_t item, int64_t n, const uint16_t* q, int64_t q_stride, const uint16_t* k,
                    int64_t k_stride, const uint16_t* q_weight, const uint16_t* k_weight, const float* cos,
                    const float* sin, uint16_t* q_out, uint16_t* k_out, float eps) {
  constexpr int kItems = QH + KH;
  const int L = (int)(dev::lane_id() % HS::lanes);
  const bool live = item < n * kItems;
  const int64_t t = live ? item / kItems : 0;
  const int h = (int)(item % kItems);
  const bool is_q = h < QH;
  float v[8] = {0.f, 0.f, 0.f, 0.f, 0.f, 0.f, 0.f, 0.f};
  if (live) norm::load8(is_q ? q + t * q_stride + h * QSTRIDE + L * 8 : k + t * k_stride + (h - QH) * HS::head + L * 8, v);
  const float sum = norm::wave_butterfly<HS::lanes>(norm::pair_sums8(v));
  const float r = norm::inv_rms<HS::head>(sum, eps);
  norm::scale8(v, r, (is_q ? q_weight : k_weight) + L * 8);
  if constexpr (ROPE) {
    float partner[8];
    for (int i = 0; i < 8; ++i) partner[i] = dev::shfl_xor_f(v[i], HS::partner);
    if (L < HS::rot_lanes) {
      const bool low = L < HS::partner;
      const int64_t e0 = t * 64 + (low ? L : L - HS::partner) * 8;  // table rows of 64
      for (int i = 0; i < 8; ++i) v[i] = rotate_own(v[i], partner[i], cos[e0 + i], sin[e0 + i], low);
    }
  }
  if (!live) return;
  uint16_t* out = is_q ? q_out + (t * QH + h) * HS::head : k_out + (t * KH + h - QH) * HS::head;
  norm::store16(out, L * 16, norm::pack_bf16x8(v));
}

template <class G>
__global__ __launch_bounds__(256) void qk_norm_kernel(const uint16_t* qkv, int64_t row_stride,
                                                      const uint16_t* q_weight, const uint16_t* k_weight,
                                                      uint16_t* q_out, uint16_t* k_out, int64_t n, float eps) {
  const int64_t item = (int64_t)blockIdx.x * 8 + threadIdx.x / 32;
  norm_head<PartialHead, (int)G::num_q_heads, (int)G::num_kv_heads, (int)G::q_head_stride, false>(
      item, n, qkv, row_stride, qkv + G::k_offset, row_stride, q_weight, k_weight, nullptr, nullptr, q_out, k_out,
      eps);
}

template <class HS, int QH, int KH, int QSTRIDE, int THREADS>
__global__ __launch_bounds__(THREADS) void qk_norm_rope_kernel(const uint16_t* q, int64_t q_stride,
                                                               const uint16_t* k, int64_t k_stride,
                                                               const uint16_t* q_weight, const uint16_t* k_weight,
                                                               const float* cos, const float* sin, uint16_t* q_out,
                                                               uint16_t* k_out, int64_t n, float eps) {
  constexpr int kPerBlock = THREADS / HS::lanes;
  const int64_t item = (int64_t)blockIdx.x * kPerBlock + threadIdx.x / HS::lanes;
  norm_head<HS, QH, KH, QSTRIDE, true>(item, n, q, q_stride, k, k_stride, q_weight, k_weight, cos, sin, q_out, k_out,
                                       eps);
}

template <class HS, int QH, int KH, int QSTRIDE>
void launch_norm_rope(const void* q, int64_t q_stride, const void* k, int64_t k_stride, const void* q_weight,
                      const void* k_weight, const float* cos, const float* sin, void* q_out, void* k_out, int64_t n,
                      float eps, hipStream_t s) {
  if (n <= 0) return;
  constexpr int kThreads = 256, kPerBlock = kThreads / HS::lanes;
  const int64_t items = n * (QH + KH);
  launch(&qk_norm_rope_kernel<HS, QH, KH, QSTRIDE, kThreads>, dim3((unsigned)((items + kPerBlock - 1) / kPerBlock)),
         dim3(kThreads), 0, s, static_cast<const uint16_t*>(q), q_stride, static_cast<const uint16_t*>(k), k_stride,
         static_cast<const uint16_t*>(q_weight), static_cast<const uint16_t*>(k_weight), cos, sin,
         static_cast<uint16_t*>(q_out), static_cast<uint16_t*>(k_out), n, eps);
}

template <class G>
void launch_geometry_norm_rope(const void* q, int64_t q_stride, const void* k, int64_t k_stride, const void* q_weight,
                               const void* k_weight, const float* cos, const float* sin, void* q_out, void* k_out,
                               int64_t n, float eps, hipStream_t s) {
  launch_norm_rope<PartialHead, (int)G::num_q_heads, (int)G::num_kv_heads, (int)G::q_head_stride>(
      q, q_stride, k, k_stride, q_weight, k_weight, cos, sin, q_out, k_out, n, eps, s);
}

}  // namespace rope

void qk_norm(const void* qkv, int64_t row_stride, const void* q_weight, const void* k_weight, void* q_out,
             void* k_out, int64_t n, float eps, hipStream_t s) {
  on_geometry<Qwen36MoeA3B, Qwen3627B, Qwen38FlashNext>(QUILLON_HERE, [&](auto g) {
    using G = decltype(g);
    if (n <= 0) return;
    const int64_t items = n * (G::num_q_heads + G::num_kv_heads);
    launch(&rope::qk_norm_kernel<G>, dim3((unsigned)((items + 7) / 8)), dim3(256), 0, s,
           static_cast<const uint16_t*>(qkv), row_stride, static_cast<const uint16_t*>(q_weight),
           static_cast<const uint16_t*>(k_weight), static_cast<uint16_t*>(q_out), static_cast<uint16_t*>(k_out), n,
           eps);
  });
}

void qk_norm_rope(const void* qkv, int64_t row_stride, const void* q_weight, const void* k_weight, const float* cos,
                  const float* sin, void* q_out, void* k_out, int64_t n, float eps, hipStream_t s) {
  on_geometry<Qwen36MoeA3B, Qwen3627B, Qwen38FlashNext>(QUILLON_HERE, [&](auto g) {
    using G = decltype(g);
    const uint16_t* k = static_cast<const uint16_t*>(qkv) + G::k_offset;
    rope::launch_geometry_norm_rope<G>(qkv, row_stride, k, row_stride, q_weight, k_weight, cos, sin, q_out, k_out, n,
                                       eps, s);
  });
}

void qk_norm_rope_split_k(const void* q, int64_t q_stride, const void* k, int64_t k_stride, const void* q_weight,
                          const void* k_weight, const float* cos, const float* sin, void* q_out, void* k_out,
                          int64_t n, float eps, hipStream_t s) {
  on_geometry<Qwen36MoeA3B, Qwen3627B, Qwen38FlashNext>(QUILLON_HERE, [&](auto g) {
    rope::launch_geometry_norm_rope<decltype(g)>(q, q_stride, k, k_stride, q_weight, k_weight, cos, sin, q_out,
                                                 k_out, n, eps, s);
  });
}

void draft_qk_norm_rope(const void* qkv, int64_t row_stride, const void* q_weight, const void* k_weight,
                        const float* cos, const float* sin, void* q_out, void* k_out, int64_t n, float eps,
                        hipStream_t s) {
  const uint16_t* k = static_cast<const uint16_t*>(qkv) + 32 * 128;
  rope::launch_norm_rope<rope::WholeHead, 32, 8, 128>(qkv, row_stride, k, row_stride, q_weight, k_weight, cos, sin,
                                                      q_out, k_out, n, eps, s);
}

void draft_k_norm_rope(const void* k, int64_t row_stride, const void* k_weight, const float* cos, const float* sin,
                       void* k_out, int64_t n, float eps, hipStream_t s) {
  rope::launch_norm_rope<rope::WholeHead, 0, 8, 128>(nullptr, 0, k, row_stride, nullptr, k_weight, cos, sin,
                                                     nullptr, k_out, n, eps, s);
}

}  // namespace quillon
