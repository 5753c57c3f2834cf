// Grouped expert products of the MoE block: tiles of sorted rows, each tile
// owned by one expert (GroupedGemmTiles), C = A . W_e^T. The Config names the
// role (0 gate-up through SwiGLU, 1 down), the path (narrow pair dot, 16-row
// matrix tile, LDS-staged prefill tile), the weight kind, the shape and the
// SwiGLU clamp. Operands, matrix layout and rounding are the GEMM core's.
#pragma once
#include <stdint.h>

#include <type_traits>

#include "../platform/device.h"
#include "../platform/numerics.h"
#include "gemm_loaders.h"
#include "gemm_shuffle.h"
#include "gemm_w_iquant.h"
#include "gemm_w_kquant.h"
#include "grouped_gemm_tiles.h"

namespace quillon::gemm_core {

// A grouped launch's one argument: A, the weights, C and its row length, the
// tile record of the sort.
template <class BOp>
struct MoeGroupedParams {
  using Operand = BOp;
  const uint16_t* A;
  BOp B;
  void* C;
  int64_t ldc;
  GroupedGemmTiles tiles;
};

// ---- Paths -------------------------------------------------------------------------------
// At most R real rows a tile, one column a thread, no LDS, no matrix unit.
template <int R_, int BN_>
struct MoeDecodeDot2 {
  static_assert(R_ >= 1 && R_ <= 4, "narrow tiles hold 1 to 4 real rows");
  static constexpr int R = R_, BN = BN_, BM = 16, kThreads = BN_;
};
// 16-row tiles, one matrix tile per 16 columns, A rows gathered straight.
template <int BN_>
struct MoeDecodeWmmaBN {
  static constexpr int BN = BN_, BM = 16, kThreads = 2 * BN_;
};
// BM x BN tiles through LDS, 16 waves. BN 256 serves the merged low-bit kernel.
template <int BM_, int BN_>
struct MoePrefillLds {
  static_assert((BM_ == 64 || BM_ == 128) && (BN_ == 128 || (BM_ == 128 && BN_ == 256)),
                "prefill tiles are 64 or 128 by 128, or 128 by 256");
  static constexpr int BM = BM_, BN = BN_, kThreads = 512;
};

// ---- Weights -----------------------------------------------------------------------------
// Each kind gives eight bf16 of device row n, columns k .. k + 7 (k a multiple
// of 8) of one expert's R x K matrix in its block panels.
struct MoeWBf16 {
  using Operand = const uint16_t*;
  template <int ROLE, int64_t R, int64_t K>
  struct Expert {
    const unsigned char* p;
    QDEV Expert(Operand b, int64_t e) : p(reinterpret_cast<const unsigned char*>(b) + e * R * K * 2) {}
    QDEV dev::u32x4 load8(int64_t n, int64_t k) const { return ld16(p + block_panel_offset(n, k, K)); }
  };
};

// fp8 with one bf16 scale per 128 x 128 checkpoint block, folded into each
// weight before use: fp32 product rounded to nearest even.
struct MoeWFp8 {
  using Operand = Fp8Operand;
  template <int ROLE, int64_t R, int64_t K>
  struct Expert {
    // Gate-up: a scale per 128 device rows, stored twice (gate, up); down: [kb][nb].
    static constexpr int64_t kTiles = R / 128, kScales = (ROLE == 0 ? 2 : 1) * kTiles * (K / 128);
    const unsigned char* p;
    const uint16_t* sc;
    QDEV Expert(Operand b, int64_t e) : p(b.bytes + e * R * K), sc(b.scales + e * kScales) {}
    QDEV float scale(int64_t n, int64_t k) const {
      const int64_t t = n / 128, j = k / 128;
      return num::bf16_to_float(sc[ROLE == 0 ? (j * kTiles + t) * 2 + (n & 1) : j * kTiles + t]);
    }
    QDEV dev::u32x4 load8(int64_t n, int64_t k) const {
      const int64_t off = ((n / 128) * (K / 64) + k / 64) * 8192 + (n % 128) * 64 + k % 64;
      return fp8x8_scaled_bf16x8(*reinterpret_cast<const dev::u32x2*>(p + off), scale(n, k));
    }
  };
};

// k-quant: each expert's quant and meta planes back to back in their slabs.
template <int F>
struct MoeWKQuant {
  using Operand = KQuantPlanes;
  template <int ROLE, int64_t R, int64_t K>
  struct Expert {
    static constexpr int64_t kQuantBytes = R * K * KQuantFormat<F>::bits / 8;
    static constexpr int64_t kMetaBytes = R / 32 * ((K + 255) / 256) * KQuantFormat<F>::meta_tile_bytes;
    KQuantPlanes p;
    QDEV Expert(Operand b, int64_t e)
        : p{reinterpret_cast<const uint32_t*>(reinterpret_cast<const unsigned char*>(b.quant) + e * kQuantBytes),
            b.meta + e * kMetaBytes} {}
    QDEV dev::u32x4 load8(int64_t n, int64_t k) const { return kq_dequant8<F>(p, R, n, k); }
  };
};

// Routed experts in format F and, from expert `first_shared` on, a second
// set in FS: one launch serves routed and shared tiles alike.
struct KQuantDualPlanes {
  KQuantPlanes routed, shared;
  int64_t first_shared;
};
template <int F, int FS>
struct MoeWKQuantDual {
  using Operand = KQuantDualPlanes;
  template <int ROLE, int64_t R, int64_t K>
  using Expert = typename MoeWKQuant<F>::template Expert<ROLE, R, K>;
  template <int ROLE, int64_t R, int64_t K>
  using Second = typename MoeWKQuant<FS>::template Expert<ROLE, R, K>;
};

// Low-bit planes that all routed experts of a role share, K-block-major; an
// expert's rows start at global row e * R, so the stride is a launch argument.
struct LowBitOperand {
  iquant::LowBitPlanes planes;
  int64_t stride;
};
template <int Q>
struct MoeWLowBit {
  using Operand = LowBitOperand;
  template <int ROLE, int64_t R, int64_t K>
  struct Expert {
    static_assert(Q == iquant::MXFP4 ? K % 32 == 0 : K % 256 == 0, "whole blocks of the format along K");
    iquant::LowBitPlanes p;
    int64_t stride, row0;
    QDEV Expert(Operand b, int64_t e) : p(b.planes), stride(b.stride), row0(e * R) {}
    QDEV dev::u32x4 load8(int64_t n, int64_t k) const { return iquant::lowbit_dequant8<Q>(p, stride, row0 + n, k); }
  };
};
template <int Q>
struct MoeWIQuant : MoeWLowBit<Q> {
  static_assert(Q == iquant::IQ2_XXS || Q == iquant::IQ3_XXS || Q == iquant::IQ2_S, "i-quant expert formats");
};
struct MoeWMxfp4 : MoeWLowBit<iquant::MXFP4> {};

template <class W>
struct MoeIsDual {
  static constexpr bool value = false;
};
template <int F, int FS>
struct MoeIsDual<MoeWKQuantDual<F, FS>> {
  static constexpr bool value = true;
};

// ---- Config ------------------------------------------------------------------------------
// (H, I) and the role give K and N; LIMIT is the SwiGLU clamp in thousandths.
template <int ROLE, class Path_, class W_, int64_t H, int64_t I, int LIMIT>
struct MoeExpertConfig {
  static_assert(ROLE == 0 || ROLE == 1, "gate-up or down");
  static_assert(ROLE == 0 || LIMIT == 0, "the clamp belongs to the gate-up epilogue");
  using Path = Path_;
  using W = W_;
  using Params = MoeGroupedParams<typename W::Operand>;
  static constexpr int kRole = ROLE, kLimit = LIMIT, kThreads = Path::kThreads;
  static constexpr int64_t kK = ROLE == 0 ? H : I, kN = ROLE == 0 ? 2 * I : H;
  using Expert = typename W::template Expert<ROLE, kN, kK>;
  static_assert(kN % Path::BN == 0 && kK % 64 == 0, "whole column tiles and K steps");
};

// ---- Shared pieces -----------------------------------------------------------------------
QDEV float moe_lo(uint32_t w) { return dev::u2f(w << 16); }
QDEV float moe_hi(uint32_t w) { return dev::u2f(w & 0xffff0000u); }

// silu(g) * u with the clamp, fp32, full-precision divide, bf16 with quiet NaN.
template <int LIMIT>
QDEV uint16_t moe_swiglu(float g, float u) {
  if constexpr (LIMIT != 0) {
    constexpr float l = (float)LIMIT / 1000.0f;
    g = __builtin_fminf(g, l);
    u = __builtin_fmaxf(__builtin_fminf(u, l), -l);
  }
  return num::bf16_rne_quiet(g / (1.0f + dev::exp(-g)) * u);
}

// One accumulator of (row position, column n). Role 0: adjacent columns are
// a (gate, up) pair; every lane joins the swap, the even one stores column
// n / 2. Role 1: rows whose token is past M are not stored.
template <class Cfg>
QDEV void moe_store(const typename Cfg::Params& p, int64_t pos, int64_t n, float v) {
  auto* c = static_cast<uint16_t*>(p.C);
  if constexpr (Cfg::kRole == 0) {
    const float other = dev::shfl_xor_f(v, 1);
    if ((n & 1) == 0) c[pos * p.ldc + n / 2] = moe_swiglu<Cfg::kLimit>(v, other);
  } else {
    if (sorted_row_token(p.tiles.sorted_ids[pos]) < (uint64_t)p.tiles.M) c[pos * p.ldc + n] = num::bf16_rne_quiet(v);
  }
}

// ---- Narrow: pair dot products -----------------------------------------------------------
template <class Cfg, class WE>
QDEV void moe_dot2_tile(const typename Cfg::Params& p, int64_t tile, const WE& w) {
  constexpr int R = Cfg::Path::R;
  constexpr int64_t K = Cfg::kK;
  const int64_t n = (int64_t)blockIdx.x * Cfg::Path::BN + threadIdx.x;
  const unsigned char* a[R];
  for (int r = 0; r < R; ++r) {
    const int64_t pos = tile * Cfg::Path::BM + r;
    const uint64_t tok = sorted_row_token(p.tiles.sorted_ids[pos]);
    const int64_t row = Cfg::kRole == 1 ? pos : tok < (uint64_t)p.tiles.M ? (int64_t)tok : 0;
    a[r] = reinterpret_cast<const unsigned char*>(p.A) + row * K * 2;
  }
  float acc[R] = {};
  // 64 K a step: the weight chunk is decoded once and used for every row.
  // Two chunks per trip keep the rows' scalar addresses within the SGPRs.
#pragma nounroll
  for (int64_t k = 0; k < K; k += 64) {
#pragma unroll 2
    for (int c = 0; c < 64; c += 8) {
      const dev::u32x4 b = w.load8(n, k + c);
#pragma unroll
      for (int r = 0; r < R; ++r) {
        const dev::u32x4 x = ld16(a[r] + (k + c) * 2);
        for (int j = 0; j < 4; ++j)
          acc[r] = __builtin_fmaf(moe_hi(x[j]), moe_hi(b[j]), __builtin_fmaf(moe_lo(x[j]), moe_lo(b[j]), acc[r]));
      }
    }
  }
  for (int r = 0; r < R; ++r) moe_store<Cfg>(p, tile * Cfg::Path::BM + r, n, acc[r]);
}

// ---- 16-row matrix tile ------------------------------------------------------------------
template <class Cfg, class WE>
QDEV void moe_wmma_tile(const typename Cfg::Params& p, int64_t tile, const WE& w) {
  constexpr int64_t K = Cfg::kK;
  const uint32_t lane = dev::lane_id(), wv = threadIdx.x / 32;
  const int64_t pos = tile * 16 + (lane & 15u);
  const int64_t n = (int64_t)blockIdx.x * Cfg::Path::BN + wv * 16 + (lane & 15u);
  // Role 0 reads hidden by token through a descriptor bounded at M rows, so a
  // padding row reads zeros; role 1 reads its own row position.
  const uint32_t bytes = Cfg::kRole == 0 ? (uint32_t)(p.tiles.M * K * 2) : 0u;
  const dev::BufferRes res = dev::make_buffer(p.A, bytes);
  const uint64_t tok = sorted_row_token(p.tiles.sorted_ids[pos]);
  const uint32_t base = tok < (uint64_t)p.tiles.M ? (uint32_t)(tok * K * 2) : bytes;
  const unsigned char* arow = reinterpret_cast<const unsigned char*>(p.A) + pos * K * 2;
  auto a_chunk = [&](int64_t k) -> dev::u32x4 {
    if constexpr (Cfg::kRole == 0) return dev::buffer_load16(res, base + (uint32_t)(k * 2));
    else return ld16(arow + k * 2);
  };
  dev::f32x8 acc = dev::f32x8{0.f, 0.f, 0.f, 0.f, 0.f, 0.f, 0.f, 0.f};
#pragma nounroll
  for (int64_t k = 0; k < K; k += 32) {
    const dev::u32x4 a0 = a_chunk(k), a1 = a_chunk(k + 8), a2 = a_chunk(k + 16), a3 = a_chunk(k + 24);
    const dev::u32x4 b0 = w.load8(n, k), b1 = w.load8(n, k + 8), b2 = w.load8(n, k + 16), b3 = w.load8(n, k + 24);
    acc = dev::wmma_bf16(bf16x16_of(a0, a1), bf16x16_of(b0, b1), acc);
    acc = dev::wmma_bf16(bf16x16_of(a2, a3), bf16x16_of(b2, b3), acc);
  }
#pragma unroll
  for (int v = 0; v < 8; ++v) moe_store<Cfg>(p, tile * 16 + 2 * v + (lane >> 4), n, acc[v]);
}

// ---- Prefill: LDS-staged tile ------------------------------------------------------------
// Wave w owns rows (w % (BM / 32)) * 32 .. + 31 as two 16-row tiles and NJ
// column tiles of 16. Row groups past the last live one (probed in
// `sorted_ids`) skip their matrix work.
template <class Cfg, class WE>
QDEV void moe_prefill_tile(const typename Cfg::Params& p, int64_t tile, const WE& w) {
  constexpr int BM = Cfg::Path::BM, BN = Cfg::Path::BN;
  constexpr int64_t K = Cfg::kK;
  constexpr int RG = BM / 32, NJ = BN / 16 / (16 / RG);
  __shared__ dev::u32x4 lds_a[BM * 4], lds_b[BN * 4];
  const uint32_t t = threadIdx.x, lane = dev::lane_id(), wv = t / 32;
  const uint32_t wr = wv % RG, wc = wv / RG;
  const int64_t n0 = (int64_t)blockIdx.x * BN;

  int live = 1;
  while (live < 4 && sorted_row_token(p.tiles.sorted_ids[tile * BM + live * (BM / 4)]) < (uint64_t)p.tiles.M) ++live;
  const int live_rows = live * (BM / 4);

  // Role 0: the gathered tile slab, or the shared expert's tile of the
  // router's shuffled hidden; 64-column panels of BM rows of 128 bytes.
  const unsigned char* a_src;
  if constexpr (Cfg::kRole == 0) {
    const bool shared = p.tiles.hidden_shuffled != nullptr && p.tiles.tile_expert[tile] == p.tiles.shared_expert_id;
    const int64_t slab = shared ? tile - p.tiles.tile_counts[1] : tile;
    a_src = static_cast<const unsigned char*>(shared ? p.tiles.hidden_shuffled : static_cast<const void*>(p.A)) +
            slab * BM * K * 2;
  } else {
    a_src = reinterpret_cast<const unsigned char*>(p.A) + tile * BM * K * 2;
  }

  dev::f32x8 acc[2][NJ];
  for (int i = 0; i < 2; ++i)
    for (int j = 0; j < NJ; ++j) acc[i][j] = dev::f32x8{0.f, 0.f, 0.f, 0.f, 0.f, 0.f, 0.f, 0.f};

#pragma nounroll
  for (int64_t k = 0; k < K; k += 32) {
    __syncthreads();
    if (t < BM * 4) {
      const uint32_t r = t / 4, c = t % 4;
      const int64_t off = Cfg::kRole == 0 ? (k / 64) * BM * 128 + r * 128 + (k % 64 + c * 8) * 2
                                          : (r * K + k + c * 8) * 2;
      lds_a[lds_chunk(r, c) / 16] = ld16(a_src + off);
    }
#pragma unroll
    for (uint32_t c = t; c < (uint32_t)BN * 4; c += 512) lds_b[lds_chunk(c / 4, c % 4) / 16] = w.load8(n0 + c / 4, k + (c % 4) * 8);
    __syncthreads();
#pragma unroll
    for (uint32_t h = 0; h < 2; ++h) {
      // Both row groups' A first, then one B at a time: at BN 256 this keeps
      // the live operands inside the register budget.
      dev::bf16x16 a[2];
      for (int i = 0; i < 2; ++i) {
        const uint32_t r = wr * 32 + i * 16 + (lane & 15u);
        a[i] = bf16x16_of(lds_a[lds_chunk(r, 2 * h) / 16], lds_a[lds_chunk(r, 2 * h + 1) / 16]);
      }
#pragma unroll
      for (int j = 0; j < NJ; ++j) {
        const uint32_t rb = wc * 16 * NJ + j * 16 + (lane & 15u);
        const dev::bf16x16 b = bf16x16_of(lds_b[lds_chunk(rb, 2 * h) / 16], lds_b[lds_chunk(rb, 2 * h + 1) / 16]);
        for (int i = 0; i < 2; ++i)
          if ((int)(wr * 32 + i * 16) < live_rows) acc[i][j] = dev::wmma_bf16(a[i], b, acc[i][j]);
      }
    }
  }
  // Fully unrolled: an indexed accumulator would live in scratch.
#pragma unroll
  for (int i = 0; i < 2; ++i)
#pragma unroll
    for (int j = 0; j < NJ; ++j)
#pragma unroll
      for (int v = 0; v < 8; ++v)
        moe_store<Cfg>(p, tile * BM + wr * 32 + i * 16 + 2 * v + (lane >> 4),
                       n0 + wc * 16 * NJ + j * 16 + (lane & 15u), acc[i][j][v]);
}

// ---- The kernel --------------------------------------------------------------------------
// Grid (N / BN, max tiles); a tile outside the pass exits, the rest find their
// expert's weights at (expert - expert base).
template <class Cfg>
__global__ __launch_bounds__(Cfg::kThreads) void moe_expert_kernel(typename Cfg::Params p) {
  const int64_t tile = blockIdx.y;
  if (!tile_in_pass(p.tiles, tile)) return;
  const int64_t e = (int64_t)(p.tiles.tile_expert[tile] - p.tiles.expert_base);
  using Path = typename Cfg::Path;
  if constexpr (MoeIsDual<typename Cfg::W>::value) {
    static_assert(Path::kThreads == Path::BN, "the dual form is narrow only");
    using Second = typename Cfg::W::template Second<Cfg::kRole, Cfg::kN, Cfg::kK>;
    if (e >= p.B.first_shared) moe_dot2_tile<Cfg>(p, tile, Second(p.B.shared, e - p.B.first_shared));
    else moe_dot2_tile<Cfg>(p, tile, typename Cfg::Expert(p.B.routed, e));
  } else {
    const typename Cfg::Expert w(p.B, e);
    if constexpr (Path::kThreads == Path::BN) moe_dot2_tile<Cfg>(p, tile, w);
    else if constexpr (Path::kThreads == 2 * Path::BN) moe_wmma_tile<Cfg>(p, tile, w);
    else moe_prefill_tile<Cfg>(p, tile, w);
  }
}

// ---- Merged routed and shared tiles ------------------------------------------------------
// Routed low-bit tiles (pass 1) and the shared expert's k-quant tiles (pass 2,
// expert base E) of one role in one launch of the same LDS path.
template <class RoutedCfg, class SharedCfg>
struct MoeMergedParams {
  typename RoutedCfg::Params routed;
  typename SharedCfg::Params shared;
};

template <class RoutedCfg, class SharedCfg>
__global__ __launch_bounds__(RoutedCfg::kThreads) void moe_expert_merged_kernel(
    MoeMergedParams<RoutedCfg, SharedCfg> p) {
  static_assert(std::is_same_v<typename RoutedCfg::Path, typename SharedCfg::Path> &&
                    RoutedCfg::kRole == SharedCfg::kRole && RoutedCfg::kThreads == 512,
                "one LDS path and role for both halves");
  const int64_t tile = blockIdx.y;
  if (tile_in_pass(p.routed.tiles, tile)) {
    const int64_t e = (int64_t)(p.routed.tiles.tile_expert[tile] - p.routed.tiles.expert_base);
    moe_prefill_tile<RoutedCfg>(p.routed, tile, typename RoutedCfg::Expert(p.routed.B, e));
  } else if (tile_in_pass(p.shared.tiles, tile)) {
    const int64_t e = (int64_t)(p.shared.tiles.tile_expert[tile] - p.shared.tiles.expert_base);
    moe_prefill_tile<SharedCfg>(p.shared, tile, typename SharedCfg::Expert(p.shared.B, e));
  }
}

}  // namespace quillon::gemm_core
