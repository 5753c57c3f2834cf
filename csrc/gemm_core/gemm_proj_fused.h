// Fused decode launches: two or three projections over the same A in one grid,
// the arms cut at seams along x, and the grouped form of eight independent
// products. Arms share no data; a split arm leaves fp32 partials that a
// reduction after the launch folds into its output, which follows arm 0's.
// Included by the generated fused units only: the entries see declarations.
#pragma once
#include "gemm_entry_proj.h"
#include "gemm_fused_layout.h"
#include "gemm_kernel.h"

namespace quillon::gemm_core {

// An unsplit arm: its column tile `tile` into row-major C of row stride ld.
template <class Cfg>
QDEV void main_arm(const typename Cfg::Params& p, uint32_t tile, int64_t ld) {
  decode_tile<Cfg, Cfg::kK>(p, tile, blockIdx.y, 0, [&](int64_t row, int64_t col, float v) {
    if (row < p.M) store_out(static_cast<bf16*>(p.C) + row * ld + col, v);
  });
}

// A split arm: its block t is column tile t % T of split t / T.
template <class Cfg>
QDEV void split_arm(const typename Cfg::Params& p, uint32_t t) {
  const uint32_t tile = t % Cfg::kTiles, s = t / Cfg::kTiles;
  decode_tile<Cfg, Cfg::kSplitK>(p, tile, blockIdx.y, (int64_t)s * Cfg::kSplitK,
                                 [&](int64_t row, int64_t col, float v) {
                                   if (row < p.M) store_partial(p.workspace, p.M, p.N, s, row, col, v);
                                 });
}

// The first block past a shifted arm: its first tile plus its tiles.
template <class P>
QDEV uint32_t seam_after(const P& p) {
  return (uint32_t)(p.slot0 + p.N / 128);
}

// A Q5_K split arm of 256 K per split sits at the 96 registers of 16 waves on
// its own; beside another arm it needs a few more. Such kernels take 12 waves
// rather than spill.
template <class Split>
constexpr int fused_min_waves() {
  if constexpr (Split::Weight::kquant) return Split::Weight::format == kq::Q5_K && Split::kSplitK == 256 ? 12 : 16;
  else return 16;
}
#define QUILLON_FUSED_BOUNDS(Cfg, Split) \
  __launch_bounds__(Cfg::kThreads) QUILLON_WAVES_PER_SIMD(fused_min_waves<Split>(), Cfg::kWavesPerSimd)

// Arm 0 unsplit, then arm 1 in T tiles by S splits.
template <class Cfg0, class Cfg1, int T>
__global__ QUILLON_FUSED_BOUNDS(Cfg0, Cfg1) void proj_decode_pair_splitk_kernel(
    typename Cfg0::Params p0, typename Cfg1::Params p1) {
  static_assert(Cfg1::kTiles == T && Cfg0::kRowTile == Cfg1::kRowTile, "one row tile, T tiles in the split arm");
  const uint32_t x = blockIdx.x, seam = seam_after(p0);
  if (x >= seam) split_arm<Cfg1>(p1, x - seam);
  else main_arm<Cfg0>(p0, x - (uint32_t)p0.slot0, p0.N);
}

// Two unsplit arms; arm 1's tiles start at its first tile.
template <class Cfg0, class Cfg1>
__global__ QUILLON_FUSED_BOUNDS(Cfg0, Cfg0) void proj_decode_pair_kernel(
    typename Cfg0::Params p0, typename Cfg1::Params p1) {
  static_assert(Cfg0::kRowTile == Cfg1::kRowTile, "one row tile");
  const uint32_t x = blockIdx.x, seam = (uint32_t)p1.slot0;
  if (x < seam) main_arm<Cfg0>(p0, x - (uint32_t)p0.slot0, p0.N);
  else main_arm<Cfg1>(p1, x - seam, p1.N);
}

// Arm 0 unsplit; then arm 2, T2 tiles by its S splits; then arm 1, T1 by its S.
template <class Cfg0, class Cfg1, class Cfg2, int T1, int T2>
__global__ QUILLON_FUSED_BOUNDS(Cfg0, Cfg1) void proj_decode_triple_splitk_kernel(
    typename Cfg0::Params p0, typename Cfg1::Params p1, typename Cfg2::Params p2) {
  static_assert(Cfg1::kTiles == T1 && Cfg2::kTiles == T2, "tile counts of the split arms");
  const uint32_t x = blockIdx.x, seam0 = seam_after(p0), seam2 = seam0 + T2 * Cfg2::kSplits;
  if (x >= seam2) split_arm<Cfg1>(p1, x - seam2);
  else if (x >= seam0) split_arm<Cfg2>(p2, x - seam0);
  else main_arm<Cfg0>(p0, x - (uint32_t)p0.slot0, p0.N);
}

// G records, TPG column tiles each: record x / TPG, its tile x - first tile,
// rows of C at the record's own stride.
template <class Cfg, int G, int TPG>
__global__ __launch_bounds__(Cfg::kThreads) QUILLON_WAVES_PER_SIMD(Cfg::kWavesPerSimd, Cfg::kWavesPerSimd) void proj_decode_grouped_kernel(
    ProjGroupedArgs<typename Cfg::Params, G> args) {
  const typename Cfg::Params& p = args.group[blockIdx.x / TPG];
  main_arm<Cfg>(p, blockIdx.x - (uint32_t)p.slot0, p.slot1);
}

}  // namespace quillon::gemm_core

namespace quillon::proj {

template <int F, int64_t K, int MT>
using ArmCfg = gemm_core::ProjConfigFor<gemm_core::WDenseKQuantShifted<F>, 0, K, gemm_core::ProjDecodePairStream<MT>, true>;

// f(Int<MT>) with the decode row tile of M.
template <class F>
void by_row_tile(int64_t M, F&& f) {
  if (M > 16) f(std::integral_constant<int, 32>{});
  else f(std::integral_constant<int, 16>{});
}

inline void require_pair_ws(const float* ws) {
  if (ws == nullptr) QUILLON_FATAL("the segmented pair's split arm needs its fp32 partials (got null)");
}

// Arm 0: k-quant F0, N0 columns into C. Arm 1: W1 in S splits, its output at
// C + M * N0, reduced after the launch.
template <int F0, int64_t N0, class W1, int64_t K, FusedLayout L, int MT>
void launch_pair_split(const ProjCall& c, const gemm_core::KQuantPlanes& b0, const typename W1::Operand& b1) {
  constexpr int T = W1::split_tiles, S = L.s1;
  constexpr int64_t N1 = T * 128;
  static_assert(L.seam == N0 / 128 && L.t1 == T && L.s2 == 0, "the layout of this pair");
  using C0 = ArmCfg<F0, K, MT>;
  using C1 = gemm_core::ProjPairSplitKConfig<W1, K, S, MT, T>;
  auto* A = static_cast<const uint16_t*>(c.A);
  auto* out1 = static_cast<gemm_core::bf16*>(c.C) + c.M * N0;
  const dim3 grid((unsigned)L.grid_x, (unsigned)((c.M + MT - 1) / MT));
  launch(&gemm_core::proj_decode_pair_splitk_kernel<C0, C1, T>, grid, dim3(C0::kThreads), 0, c.stream,
         typename C0::Params{{A, b0, c.C, c.M, N0, K}, 0, 0},
         typename C1::Params{A, b1, c.splitk_ws, out1, c.M, N1, K, 0});
  splitk_reduce(c.splitk_ws, out1, c.M * N1, S, c.stream);
}

template <class G, int F0, class Arms>
void FusedQkvPair<G, F0, Arms>::run(const ProjCall& c, const gemm_core::KQuantPlanes& b0, int32_t f1,
                              const gemm_core::KQuantPlanes& b1) {
  constexpr KN qk = qkv_proj_qk_kquant_shape(G::id), v = qkv_proj_v_kquant_shape(G::id);
  static_assert(qk.K == v.K && qk.N > 0 && v.N > 0, "both arms at this geometry");
  on_dense_projection(f1, [&](auto f) {
    constexpr int F1 = decltype(f)::value;
    if constexpr (F1 != F0 && Arms::contains(F1)) {
      require_pair_ws(c.splitk_ws);
      by_row_tile(c.M, [&](auto mt) {
        launch_pair_split<F0, qk.N, gemm_core::WDenseKQuantPairSplit<F1, v.N / 128>, qk.K, qkv_pair_layout(G::id), mt>(
            c, b0, b1);
      });
    }
  });
}

template <class G, int F0>
void FusedQKv<G, F0>::run(const ProjCall& c, const gemm_core::KQuantPlanes& b0, const uint16_t* kv) {
  constexpr KN q = qkv_proj_q_kquant_shape(G::id), v = qkv_proj_kv_shape(G::id);
  static_assert(q.K == v.K && q.N > 0 && v.N > 0, "both arms at this geometry");
  require_pair_ws(c.splitk_ws);
  by_row_tile(c.M, [&](auto mt) {
    launch_pair_split<F0, q.N, gemm_core::WDenseBf16PairSplit<v.N / 128>, q.K, q_kv_layout(G::id), mt>(c, b0, kv);
  });
}

// Gate and up at equal widths N, split or not as mlp_pair_layout says.
template <class G, int F0, class Arms>
void FusedMlpPair<G, F0, Arms>::run(const ProjCall& c, const gemm_core::KQuantPlanes& b0, int32_t f1,
                              const gemm_core::KQuantPlanes& b1) {
  constexpr KN s = mlp_gate_kquant_shape(G::id);
  static_assert(s.N > 0, "the pair at this geometry");
  constexpr int T = (int)(s.N / 128);
  on_dense_projection(f1, [&](auto f) {
    constexpr int F1 = decltype(f)::value;
    if constexpr (F1 != F0 && Arms::contains(F1)) {
      constexpr FusedLayout L = mlp_pair_layout(G::id, F0, F1);
      if constexpr (L.s1 == 1) {
        by_row_tile(c.M, [&](auto mt) {
          using C0 = ArmCfg<F0, s.K, mt>;
          using C1 = ArmCfg<F1, s.K, mt>;
          auto* A = static_cast<const uint16_t*>(c.A);
          launch(&gemm_core::proj_decode_pair_kernel<C0, C1>, dim3((unsigned)L.grid_x, (unsigned)((c.M + mt - 1) / mt)),
                 dim3(C0::kThreads), 0, c.stream, typename C0::Params{{A, b0, c.C, c.M, s.N, s.K}, 0, 0},
                 typename C1::Params{{A, b1, static_cast<gemm_core::bf16*>(c.C) + c.M * s.N, c.M, s.N, s.K}, T, 0});
        });
      } else {
        require_pair_ws(c.splitk_ws);
        by_row_tile(c.M, [&](auto mt) {
          launch_pair_split<F0, s.N, gemm_core::WDenseKQuantPairSplit<F1, T>, s.K, L, mt>(c, b0, b1);
        });
      }
    }
  });
}

template <class G, int F0, class Arms>
void FusedTriple<G, F0, Arms>::run(const ProjCall& c, const gemm_core::KQuantPlanes& b0, int32_t f1,
                             const gemm_core::KQuantPlanes& b1, const uint16_t* ba) {
  constexpr KN q = linear_in_proj_qkv_kquant_shape(G::id), z = linear_in_proj_z_kquant_shape(G::id),
               w = linear_in_proj_ba_shape(G::id);
  static_assert(q.K == z.K && q.K == w.K && w.N == 128, "three arms over one K, a one-tile bf16 arm");
  constexpr FusedLayout L = triple_layout(G::id, F0);
  constexpr int T1 = (int)L.t1, S1 = L.s1, S2 = L.s2;
  static_assert(L.seam == q.N / 128 && T1 == z.N / 128, "the layout of this triple");
  on_dense_projection(f1, [&](auto f) {
    constexpr int F1 = decltype(f)::value;
    if constexpr (F1 != F0 && Arms::contains(F1)) {
      if (c.splitk_ws == nullptr) QUILLON_FATAL("the triple's two split arms need their fp32 partials (got null)");
      by_row_tile(c.M, [&](auto mt) {
        using C0 = ArmCfg<F0, q.K, mt>;
        using C1 = gemm_core::ProjPairSplitKConfig<gemm_core::WDenseKQuantPairSplit<F1, T1>, q.K, S1, mt, T1>;
        using C2 = gemm_core::ProjPairSplitKConfig<gemm_core::WDenseBf16PairSplit<1>, q.K, S2, mt, 1>;
        auto* A = static_cast<const uint16_t*>(c.A);
        auto* out1 = static_cast<gemm_core::bf16*>(c.C) + c.M * q.N;
        float* ws2 = c.splitk_ws + S1 * c.M * z.N;
        const dim3 grid((unsigned)L.grid_x, (unsigned)((c.M + mt - 1) / mt));
        launch(&gemm_core::proj_decode_triple_splitk_kernel<C0, C1, C2, T1, 1>, grid, dim3(C0::kThreads), 0, c.stream,
               typename C0::Params{{A, b0, c.C, c.M, q.N, q.K}, 0, 0},
               typename C1::Params{A, b1, c.splitk_ws, out1, c.M, z.N, q.K, 0},
               typename C2::Params{A, ba, ws2, out1 + c.M * z.N, c.M, 128, q.K, 0});
        proj_splitk_reduce2(c.splitk_ws, ws2, out1, c.M * z.N, c.M * 128, S1, S2, c.stream);
      });
    }
  });
}

template <int F>
void FusedGrouped<F>::run(const void* A, const gemm_core::KQuantPlanes (&planes)[8], void* C, int64_t M,
                          hipStream_t s) {
  constexpr int64_t K = kGroupedK, N = kGroupedN, T = N / 128;
  by_row_tile(M, [&](auto mt) {
    using Cfg = gemm_core::ProjConfigFor<gemm_core::WDenseKQuantShifted<F>, 0, K, gemm_core::ProjDecodeGroupedStream<mt>, true>;
    gemm_core::ProjGroupedArgs<typename Cfg::Params, 8> args;
    for (int g = 0; g < 8; ++g)
      args.group[g] = {{static_cast<const uint16_t*>(A) + g * M * K, planes[g], static_cast<gemm_core::bf16*>(C) + g * N,
                        M, N, K},
                       g * T,
                       8 * N};
    launch(&gemm_core::proj_decode_grouped_kernel<Cfg, 8, (int)T>, dim3(8 * T, (unsigned)((M + mt - 1) / mt)),
           dim3(Cfg::kThreads), 0, s, args);
  });
}

}  // namespace quillon::proj
