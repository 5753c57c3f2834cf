// Cos/sin tables of the plain, M-RoPE, draft and DeepSeek forms, and the
// half-split rotation of the first 64 dims of a head.
#include "../device/geometry.h"
#include "../platform/fatal.h"
#include "../platform/launch.h"
#include "rope.h"
#include "rope_core.h"

namespace quillon {
namespace rope {

constexpr int kTableThreads = 256;

// One thread per (token, pair). M-RoPE interleaves its three position streams
// over the pairs: stream 1 at j % 3 == 1 below 3 S1, stream 2 at j % 3 == 2
// below 3 S2, stream 0 elsewhere.
template <int ROTARY, bool MROPE, int S0, int S1, int S2, bool DUPLICATE>
__global__ __launch_bounds__(kTableThreads) void rope_cos_sin_kernel(const int64_t* positions, const float* inv_freq,
                                                                     float* cos, float* sin, int64_t n) {
  constexpr int kPairs = ROTARY / 2;
  constexpr int kRow = DUPLICATE ? 2 * kPairs : kPairs;
  static_assert(S0 + S1 + S2 == kPairs, "the sections cover the pairs");
  const int64_t i = (int64_t)blockIdx.x * kTableThreads + threadIdx.x;
  const int64_t t = i / kPairs;
  const int j = (int)(i % kPairs);
  if (t >= n) return;
  int stream = 0;
  if constexpr (MROPE) {
    if (j % 3 == 1 && j < 3 * S1) stream = 1;
    else if (j % 3 == 2 && j < 3 * S2) stream = 2;
  }
  const float a = angle(inv_freq, j, positions[stream * n + t]);
  const float c = dev::cos(a), s = dev::sin(a);
  cos[t * kRow + j] = c;
  sin[t * kRow + j] = s;
  if constexpr (DUPLICATE) {
    cos[t * kRow + j + kPairs] = c;
    sin[t * kRow + j + kPairs] = s;
  }
}

__global__ __launch_bounds__(kTableThreads) void dsv4_rope_cos_sin_kernel(const int64_t* positions,
                                                                          const float* inv_freq, float scale,
                                                                          float* cos, float* sin, int64_t n) {
  const int64_t i = (int64_t)blockIdx.x * kTableThreads + threadIdx.x;
  const int64_t t = i / 32;
  const int j = (int)(i % 32);
  if (t >= n) return;
  const float a = angle(inv_freq, j, positions[t]);
  cos[t * 32 + j] = dev::cos(a) * scale;
  sin[t * 32 + j] = dev::sin(a) * scale;
}

// One wave per (token, head) row of HEAD dims, lane j on the pair (j, j + R/2)
// with table entry j of a row of R; the dims past R are not touched.
template <int HEADS, int HEAD, int ROTARY>
__global__ __launch_bounds__(256) void rope_apply_kernel(uint16_t* x, const float* cos, const float* sin, int64_t n) {
  static_assert(ROTARY / 2 == dev::kWave, "one lane per pair");
  const int64_t row = (int64_t)blockIdx.x * 8 + threadIdx.x / 32;
  if (row >= n * HEADS) return;
  const int j = (int)dev::lane_id();
  const int64_t t = row / HEADS;
  uint16_t* p = x + row * HEAD;
  const float c = cos[t * ROTARY + j], s = sin[t * ROTARY + j];
  const Pair r = rotate(c, s, num::bf16_to_float(p[j]), num::bf16_to_float(p[j + ROTARY / 2]));
  p[j] = num::bf16_rne(r.a);
  p[j + ROTARY / 2] = num::bf16_rne(r.b);
}

template <int ROTARY, bool MROPE, int S0, int S1, int S2, bool DUPLICATE>
void launch_table(const int64_t* positions, const float* inv_freq, float* cos, float* sin, int64_t n,
                  hipStream_t s) {
  if (n <= 0) return;
  const int64_t threads = n * (ROTARY / 2);
  launch(&rope_cos_sin_kernel<ROTARY, MROPE, S0, S1, S2, DUPLICATE>,
         dim3((unsigned)((threads + kTableThreads - 1) / kTableThreads)), dim3(kTableThreads), 0, s, positions,
         inv_freq, cos, sin, n);
}

template <int HEADS, int HEAD>
void launch_apply(void* x, const float* cos, const float* sin, int64_t n, hipStream_t s) {
  if (n <= 0) return;
  launch(&rope_apply_kernel<HEADS, HEAD, 64>, dim3((unsigned)((n * HEADS + 7) / 8)), dim3(256), 0, s,
         static_cast<uint16_t*>(x), cos, sin, n);
}

}  // namespace rope

void rope_cos_sin(const int64_t* positions, const float* inv_freq, float* cos, float* sin, int64_t n, hipStream_t s) {
  rope::launch_table<64, false, 11, 11, 10, true>(positions, inv_freq, cos, sin, n, s);
}
void rope_cos_sin_mrope(const int64_t* positions, const float* inv_freq, float* cos, float* sin, int64_t n,
                        hipStream_t s) {
  rope::launch_table<64, true, 11, 11, 10, true>(positions, inv_freq, cos, sin, n, s);
}
void draft_rope_cos_sin(const int64_t* positions, const float* inv_freq, float* cos, float* sin, int64_t n,
                        hipStream_t s) {
  rope::launch_table<128, false, 64, 0, 0, false>(positions, inv_freq, cos, sin, n, s);
}
void dsv4_rope_cos_sin(const int64_t* positions, const float* inv_freq, float scale, float* cos, float* sin,
                       int64_t n, hipStream_t s) {
  if (n <= 0) return;
  launch(&rope::dsv4_rope_cos_sin_kernel, dim3((unsigned)((n * 32 + rope::kTableThreads - 1) / rope::kTableThreads)),
         dim3(rope::kTableThreads), 0, s, positions, inv_freq, scale, cos, sin, n);
}

void rope_apply_q(void* x, const float* cos, const float* sin, int64_t n, hipStream_t s) {
  on_geometry<Qwen36MoeA3B, Qwen3627B, Qwen38FlashNext>(QUILLON_HERE, [&](auto g) {
    using G = decltype(g);
    rope::launch_apply<(int)G::num_q_heads, (int)G::head_dim>(x, cos, sin, n, s);
  });
}
void rope_apply_k(void* x, const float* cos, const float* sin, int64_t n, hipStream_t s) {
  on_geometry<Qwen36MoeA3B, Qwen3627B, Qwen38FlashNext>(QUILLON_HERE, [&](auto g) {
    using G = decltype(g);
    rope::launch_apply<(int)G::num_kv_heads, (int)G::head_dim>(x, cos, sin, n, s);
  });
}

void qwen4exp_indexer_rope(void* x, const float* cos, const float* sin, int64_t n, int64_t heads, hipStream_t s) {
  switch (heads) {
    case 1: rope::launch_apply<1, 128>(x, cos, sin, n, s); return;
    case 4: rope::launch_apply<4, 128>(x, cos, sin, n, s); return;
    default: QUILLON_FATAL("qwen4exp_indexer_rope: no instantiation for %lld heads", (long long)heads);
  }
}

}  // namespace quillon
