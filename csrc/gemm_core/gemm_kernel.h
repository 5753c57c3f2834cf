// The GEMM family's kernels: gemm_kernel<Config> in its two shapes, the split
// forms and the split reductions. C[m, n] = sum over k of A[m, k] * B[n, k],
// 16 x 16 x 16 bf16 matrix instructions with fp32 accumulation.
//
// Prefill: a 512-thread workgroup computes a 256 x 128 tile of C, K in steps of
// 32 through a double-buffered, swizzled LDS tile with one barrier per step.
// Wave w owns rows (w / 2) * 32 and columns (w % 2) * 64: a 2 x 4 grid of
// matrix tiles, 64 accumulator registers per lane.
//
// Decode: no LDS, no barrier. The workgroup owns 128 columns as 8 waves of 16
// (twice at row tile 32, threads 256 and up taking rows 16 to 31); each lane
// streams its row of A and its column of B straight into the matrix operands.
#pragma once
#include <hip/hip_runtime_api.h>
#include <stdint.h>

#include "../platform/device.h"
#include "../platform/launch.h"
#include "gemm_config.h"

namespace quillon::gemm_core {

QDEV dev::f32x8 zero_f32x8() { return dev::f32x8{0.f, 0.f, 0.f, 0.f, 0.f, 0.f, 0.f, 0.f}; }

// ---- Prefill -------------------------------------------------------------------------
// Workgroup order: groups of up to four row tiles walk one weight tile before
// the next, so consecutive workgroups share B in cache.
struct TileCoord {
  uint32_t m, n;
};
QHD TileCoord prefill_tile_of(uint32_t b, uint32_t Nt, uint32_t Mt) {
  const uint32_t g = b / (4 * Nt);
  const uint32_t left = Mt - 4 * g;
  const uint32_t h = left < 4 ? left : 4;
  return {4 * g + b % h, (b - 4 * g * Nt) / h};
}

// One K step from LDS: two K halves of 2 x 4 matrix instructions.
QDEV void prefill_mma(const unsigned char* la, const unsigned char* lb, dev::f32x8 (&acc)[2][4]) {
  const uint32_t lane = threadIdx.x & 31u, w = threadIdx.x >> 5;
  const uint32_t ra = (w >> 1) * 32 + (lane & 15u), rb = (w & 1u) * 64 + (lane & 15u);
  const uint32_t swz = (lane >> 1) & 3u;  // (row / 2) % 4 of every row the lane reads
#pragma unroll
  for (uint32_t h = 0; h < 2; ++h) {
    const uint32_t c0 = ((2 * h) ^ swz) << 4, c1 = ((2 * h + 1) ^ swz) << 4;
    dev::bf16x16 a[2], b[4];
#pragma unroll
    for (uint32_t i = 0; i < 2; ++i) {
      const unsigned char* r = la + (ra + 16 * i) * 64;
      a[i] = bf16x16_of(ld16(r + c0), ld16(r + c1));
    }
#pragma unroll
    for (uint32_t j = 0; j < 4; ++j) {
      const unsigned char* r = lb + (rb + 16 * j) * 64;
      b[j] = bf16x16_of(ld16(r + c0), ld16(r + c1));
    }
#pragma unroll
    for (uint32_t i = 0; i < 2; ++i)
#pragma unroll
      for (uint32_t j = 0; j < 4; ++j) acc[i][j] = dev::wmma_bf16(a[i], b[j], acc[i][j]);
  }
}

// The tile of linear block b over K steps step0 .. step0 + steps - 1. The next
// step's global loads are issued before the current step's matrix
// instructions; its B chunk is expanded and staged after them. store(row, col,
// v) receives every element of the 256 x 128 tile.
template <class Cfg, class Store>
QDEV void prefill_tile(const typename Cfg::Params& p, unsigned char* lds, uint32_t b, uint32_t step0, uint32_t steps,
                       Store&& store) {
  using Tile = typename Cfg::Tile;
  using ALd = ABlk32Lds<Tile>;
  const uint32_t Nt = (uint32_t)(p.N / Tile::BN), Mt = (uint32_t)((p.M + Tile::BM - 1) / Tile::BM);
  const TileCoord tc = prefill_tile_of(b, Nt, Mt);
  unsigned char* const lds_a = lds;
  unsigned char* const lds_b = lds + 2 * kLdsABytes;

  dev::f32x8 acc[2][4];
#pragma unroll
  for (int i = 0; i < 2; ++i)
#pragma unroll
    for (int j = 0; j < 4; ++j) acc[i][j] = zero_f32x8();

  if (steps > 0) {
    ALd al(p.A, Cfg::k_of(p), tc.m, step0);
    typename Cfg::BLoader bl(p, tc.n, step0);
    {
      const typename ALd::Raw ar = al.fetch();
      const typename Cfg::BLoader::Raw br = bl.fetch();
      ALd::stage(lds_a, ar);
      stage_b(lds_b, bl.chunk(br));
    }
    __syncthreads();
    for (uint32_t s = 1; s < steps; ++s) {
      const typename ALd::Raw ar = al.fetch();
      const typename Cfg::BLoader::Raw br = bl.fetch();
      const uint32_t cur = (s - 1) & 1u, nxt = s & 1u;
      prefill_mma(lds_a + cur * kLdsABytes, lds_b + cur * kLdsBBytes, acc);
      ALd::stage(lds_a + nxt * kLdsABytes, ar);
      stage_b(lds_b + nxt * kLdsBBytes, bl.chunk(br));
      __syncthreads();
    }
    const uint32_t last = (steps - 1) & 1u;
    prefill_mma(lds_a + last * kLdsABytes, lds_b + last * kLdsBBytes, acc);
  }

  const uint32_t lane = threadIdx.x & 31u, w = threadIdx.x >> 5;
  const int64_t row0 = (int64_t)tc.m * Tile::BM + (w >> 1) * 32 + (lane >> 4);
  const int64_t col0 = (int64_t)tc.n * Tile::BN + (w & 1u) * 64 + (lane & 15u);
#pragma unroll
  for (int i = 0; i < 2; ++i)
#pragma unroll
    for (int j = 0; j < 4; ++j)
#pragma unroll
      for (int v = 0; v < 8; ++v) store(row0 + i * 16 + 2 * v, col0 + j * 16, acc[i][j][v]);
}

// ---- Decode --------------------------------------------------------------------------
template <class BS>
QDEV void fetch_unit(const ARowStream& as, const BS& bs, dev::u32x4 (&a)[4], typename BS::Raw& b, uint32_t u) {
#pragma unroll
  for (int i = 0; i < 4; ++i) a[i] = as.chunk(u, i);
  bs.fetch(b, u);
}

// Deep form: two units (64 K) in flight; a trip covers 128 K with eight
// matrix instructions, each followed by the loads that refill its registers.
// Expanding streams expand half a unit per instruction and refill their raw
// words once both halves are out. The last trip is peeled so that no refill
// runs past the split.
template <int S, bool REFILL, class BS>
QDEV void deep_unit(const ARowStream& as, const BS& bs, dev::u32x4 (&a)[2][4], typename BS::Raw (&b)[2],
                    uint32_t nx, dev::f32x8& acc) {
  acc = dev::wmma_bf16(bf16x16_of(a[S][0], a[S][1]), bs.template decode<0>(b[S]), acc);
  if constexpr (REFILL) {
    a[S][0] = as.chunk(nx, 0);
    a[S][1] = as.chunk(nx, 1);
    if constexpr (BS::kRawIsOperand) bs.fetch_half(b[S], nx, 0);
  }
  const dev::bf16x16 op1 = bs.template decode<1>(b[S]);
  if constexpr (!BS::kRawIsOperand && REFILL) bs.fetch(b[S], nx);
  acc = dev::wmma_bf16(bf16x16_of(a[S][2], a[S][3]), op1, acc);
  if constexpr (REFILL) {
    a[S][2] = as.chunk(nx, 2);
    a[S][3] = as.chunk(nx, 3);
    if constexpr (BS::kRawIsOperand) bs.fetch_half(b[S], nx, 1);
  }
}

template <uint32_t U, class BS>
QDEV void decode_deep(const ARowStream& as, const BS& bs, dev::f32x8& acc) {
  static_assert(U % 4 == 0 && U >= 4, "128 K per trip");
  dev::u32x4 a[2][4];
  typename BS::Raw b[2];
  fetch_unit(as, bs, a[0], b[0], 0);
  fetch_unit(as, bs, a[1], b[1], 1);
  uint32_t u = 0, end = U;
#if defined(__HIP_DEVICE_COMPILE__)
  // A loop of one trip would be straight-lined, and its hoisted loads spill.
  if constexpr (U == 8) asm volatile("" : "+s"(end));
#endif
  // One trip per iteration: the loop body is the unit of work, not the K extent.
#pragma nounroll
  for (; u + 4 < end; u += 4) {
    deep_unit<0, true>(as, bs, a, b, u + 2, acc);
    deep_unit<1, true>(as, bs, a, b, u + 3, acc);
    deep_unit<0, true>(as, bs, a, b, u + 4, acc);
    deep_unit<1, true>(as, bs, a, b, u + 5, acc);
  }
  deep_unit<0, true>(as, bs, a, b, u + 2, acc);
  deep_unit<1, true>(as, bs, a, b, u + 3, acc);
  deep_unit<0, false>(as, bs, a, b, 0, acc);
  deep_unit<1, false>(as, bs, a, b, 0, acc);
}

// Plain form: K advances 32 per unit; the next unit's loads are issued before
// the unit's two matrix instructions. Block-scaled streams accumulate each
// scale block in a fresh tile and fold it in with one fma per register.
template <uint32_t G, bool LAST, class BS>
QDEV void plain_trip(const ARowStream& as, const BS& bs, dev::u32x4 (&a)[2][4], typename BS::Raw (&b)[2], uint32_t u0,
                     dev::f32x8& acc) {
  constexpr bool kScaled = BS::kScaleBlock != 0;
  float scale = 0.0f;
  if constexpr (kScaled) scale = bs.scale(u0 / G);
  dev::f32x8 tile = zero_f32x8();
#pragma unroll
  for (uint32_t j = 0; j < G; ++j) {
    if (!LAST || j + 1 < G) fetch_unit(as, bs, a[(j + 1) & 1], b[(j + 1) & 1], u0 + j + 1);
    dev::f32x8& t = kScaled ? tile : acc;
    t = dev::wmma_bf16(bf16x16_of(a[j & 1][0], a[j & 1][1]), bs.template decode<0>(b[j & 1]), t);
    t = dev::wmma_bf16(bf16x16_of(a[j & 1][2], a[j & 1][3]), bs.template decode<1>(b[j & 1]), t);
  }
  if constexpr (kScaled) {
#pragma unroll
    for (int i = 0; i < 8; ++i) acc[i] = __builtin_fmaf(tile[i], scale, acc[i]);
  }
}

template <uint32_t U, class BS>
QDEV void decode_plain(const ARowStream& as, const BS& bs, dev::f32x8& acc) {
  constexpr uint32_t G = BS::kScaleBlock != 0 ? BS::kScaleBlock / 32 : 2;
  static_assert(U % G == 0 && G % 2 == 0, "whole trips");
  dev::u32x4 a[2][4];
  typename BS::Raw b[2];
  fetch_unit(as, bs, a[0], b[0], 0);
  uint32_t u = 0;
#pragma nounroll
  for (; u + G < U; u += G) plain_trip<G, false>(as, bs, a, b, u, acc);
  plain_trip<G, true>(as, bs, a, b, u, acc);
}

// Row tile `mtile`, column tile nt, K values k0 .. k0 + KS - 1. Lanes past M
// read row 0 of their 16-row strip (the workgroup's first row when the strip
// starts past M); store(row, col, v) receives every row of the tile.
template <class Cfg, int64_t KS, class Store>
QDEV void decode_tile(const typename Cfg::Params& p, uint32_t nt, uint32_t mtile, int64_t k0, Store&& store) {
  constexpr int64_t K = Cfg::kK;
  const uint32_t lane = threadIdx.x & 31u, w = threadIdx.x >> 5;
  const int64_t m0 = (int64_t)mtile * Cfg::kRowTile, s0 = m0 + (w >> 3) * 16;
  int64_t row = s0 + (lane & 15u);
  if (row >= p.M) row = s0 < p.M ? s0 : m0;
  const int64_t col = (int64_t)nt * 128 + (w & 7u) * 16 + (lane & 15u);
  const ARowStream as{reinterpret_cast<const unsigned char*>(p.A) + (row * K + k0) * 2};
  const typename Cfg::BStream bs(p, col, nt, k0);
  dev::f32x8 acc = zero_f32x8();
  if constexpr (Cfg::kDeep) decode_deep<(uint32_t)(KS / 32)>(as, bs, acc);
  else decode_plain<(uint32_t)(KS / 32)>(as, bs, acc);
  const int64_t r0 = s0 + (lane >> 4);
#pragma unroll
  for (int v = 0; v < 8; ++v) store(r0 + 2 * v, col, acc[v]);
}

// ---- Kernels -------------------------------------------------------------------------
// The prefill tile's 49152 bytes are the launch's dynamic LDS: one allocation
// for every Config (the CPU device gives each worker one buffer instead of a
// thread-local array per instantiation).
QDEV unsigned char* prefill_lds() { return static_cast<unsigned char*>(dev::dynamic_lds()); }

template <class Cfg>
__global__ __launch_bounds__(Cfg::kThreads) QUILLON_WAVES_PER_SIMD(Cfg::kWavesPerSimd, Cfg::kWavesPerSimd) void gemm_kernel(
    typename Cfg::Params p) {
  using Epi = typename Cfg::Epilogue;
  auto store = [&](int64_t row, int64_t col, float v) {
    if (!Epi::kRowGuard || row < p.M) Epi::store(p, row, col, v);
  };
  if constexpr (Cfg::kPrefill) {
    prefill_tile<Cfg>(p, prefill_lds(), blockIdx.x, 0, (uint32_t)(Cfg::k_of(p) / 32), store);
  } else {
    decode_tile<Cfg, Cfg::kK>(p, Cfg::column_tile(p, blockIdx.x), blockIdx.y, 0, store);
  }
}

// Prefill split: split s = blockIdx.y of gridDim.y runs K / S contiguous
// values into fp32 partials.
template <class Cfg>
__global__ __launch_bounds__(Cfg::kThreads) QUILLON_WAVES_PER_SIMD(Cfg::kWavesPerSimd, Cfg::kWavesPerSimd) void gemm_splitk_kernel(
    typename Cfg::Params p) {
  static_assert(Cfg::kPrefill, "the prefill split form");
  const uint32_t s = blockIdx.y, per = (uint32_t)(Cfg::k_of(p) / 32 / gridDim.y);
  prefill_tile<Cfg>(p, prefill_lds(), blockIdx.x, s * per, per, [&](int64_t row, int64_t col, float v) {
    if (row < p.M) store_partial(p.workspace, p.M, p.N, s, row, col, v);
  });
}

// Decode split: split s = blockIdx.z runs K / S values into fp32 partials.
template <class Cfg>
__global__ __launch_bounds__(Cfg::kThreads) QUILLON_WAVES_PER_SIMD(Cfg::kWavesPerSimd, Cfg::kWavesPerSimd) void proj_decode_splitk_kernel(
    typename Cfg::Params p) {
  static_assert(!Cfg::kPrefill, "the decode split form");
  const uint32_t s = blockIdx.z;
  decode_tile<Cfg, Cfg::kSplitK>(p, Cfg::column_tile(p, blockIdx.x), blockIdx.y, (int64_t)s * Cfg::kSplitK,
                                 [&](int64_t row, int64_t col, float v) {
                                   if (row < p.M) store_partial(p.workspace, p.M, p.N, s, row, col, v);
                                 });
}

// out[i] = partials[i] + partials[count + i] + ... in split order, in fp32.
template <class T>
__global__ __launch_bounds__(256) void splitk_reduce_kernel(const float* partials, T* out, int64_t count, int32_t S) {
  const int64_t i = (int64_t)blockIdx.x * 256 + threadIdx.x;
  if (i >= count) return;
  float v = partials[i];
  for (int32_t s = 1; s < S; ++s) v += partials[s * count + i];
  store_out(out + i, v);
}

// Two split arms in one launch; the second arm's values follow the first's.
template <int EPI>
__global__ __launch_bounds__(256) void proj_splitk_reduce2_kernel(const float* partials1, const float* partials2,
                                                                  bf16* out, int64_t count1, int64_t count2, int32_t S1,
                                                                  int32_t S2) {
  static_assert(EPI == 0, "bf16 output");
  const int64_t i = (int64_t)blockIdx.x * 256 + threadIdx.x;
  if (i >= count1 + count2) return;
  const bool first = i < count1;
  const float* p = first ? partials1 : partials2;
  const int64_t count = first ? count1 : count2, j = first ? i : i - count1;
  const int32_t S = first ? S1 : S2;
  float v = p[j];
  for (int32_t s = 1; s < S; ++s) v += p[s * count + j];
  store_out(out + i, v);
}

}  // namespace quillon::gemm_core

// ---- Host launchers ------------------------------------------------------------------
namespace quillon {

// gemm_kernel over the Config's whole grid. Nothing is launched for an empty grid.
template <class Cfg>
inline void launch_gemm(const typename Cfg::Params& p, hipStream_t s) {
  if constexpr (Cfg::kPrefill) {
    const int64_t tiles = (p.N / 128) * ((p.M + 255) / 256);
    if (tiles <= 0) return;
    launch(&gemm_core::gemm_kernel<Cfg>, dim3((unsigned)tiles), dim3(Cfg::kThreads), gemm_core::kPrefillLdsBytes, s,
           p);
  } else {
    const int64_t nt = p.N / 128, mt = (p.M + Cfg::kRowTile - 1) / Cfg::kRowTile;
    if (nt <= 0 || mt <= 0) return;
    launch(&gemm_core::gemm_kernel<Cfg>, dim3((unsigned)nt, (unsigned)mt), dim3(Cfg::kThreads), 0, s, p);
  }
}

// gemm_splitk_kernel with S splits of K / S (a multiple of 32).
template <class Cfg>
inline void launch_gemm_splitk(const typename Cfg::Params& p, int S, hipStream_t s) {
  const int64_t tiles = (p.N / 128) * ((p.M + 255) / 256);
  if (tiles <= 0) return;
  launch(&gemm_core::gemm_splitk_kernel<Cfg>, dim3((unsigned)tiles, (unsigned)S), dim3(Cfg::kThreads),
         gemm_core::kPrefillLdsBytes, s, p);
}

// proj_decode_splitk_kernel over (N / 128, ceil(M / MT), S).
template <class Cfg>
inline void launch_proj_decode_splitk(const typename Cfg::Params& p, hipStream_t s) {
  const int64_t nt = p.N / 128, mt = (p.M + Cfg::kRowTile - 1) / Cfg::kRowTile;
  if (nt <= 0 || mt <= 0) return;
  launch(&gemm_core::proj_decode_splitk_kernel<Cfg>, dim3((unsigned)nt, (unsigned)mt, (unsigned)Cfg::kSplits),
         dim3(Cfg::kThreads), 0, s, p);
}

// The reductions, compiled once (gemm_kernel.cpp).
void splitk_reduce(const float* partials, float* out, int64_t count, int S, hipStream_t s);
void splitk_reduce(const float* partials, gemm_core::bf16* out, int64_t count, int S, hipStream_t s);
void proj_splitk_reduce2(const float* partials1, const float* partials2, void* out, int64_t count1, int64_t count2,
                         int S1, int S2, hipStream_t s);

}  // namespace quillon
