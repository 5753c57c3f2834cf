// MoE router kernels and host entries.
#include <hip/hip_runtime_api.h>

#include <type_traits>

#include "../device/geometry.h"
#include "../gemm_core/gemm_loaders.h"
#include "../gemm_core/gemm_shuffle.h"
#include "../platform/device.h"
#include "../platform/fatal.h"
#include "../platform/launch.h"
#include "moe_variant.h"
#include "router.h"

namespace quillon {

// Per geometry: scoring 0 softmax over the K picked logits, 1 sqrt(softplus)
// with a selection bias; whether weights are renormalised, whether slot K
// carries a sigmoid gate, and the scale of routed weights.
template <class G>
struct RouterTraits {
  static constexpr int H = (int)G::hidden_size, E = (int)G::moe_num_experts, K = (int)G::moe_top_k,
                       S = (int)G::moe_top_k_total;
  static constexpr bool dsv4 = std::is_same_v<G, DeepSeekV4Flash>;
  static constexpr int scoring = dsv4 ? 1 : 0;
  static constexpr bool renormalise = !std::is_same_v<G, Qwen36MoeA3B>;
  static constexpr bool gate = !dsv4;
  static constexpr bool bias = dsv4;
  static constexpr float scale = dsv4 ? 1.5f : 1.0f;
  static constexpr int64_t matrix_bytes = (int64_t)E * H * 2;
  // Geometry 2 reserves 8192 bytes behind the matrix for its 1024 of bias.
  static constexpr int64_t blob_bytes = matrix_bytes + (dsv4 ? 8192 : H * 2);
};

// ---- Device arithmetic ------------------------------------------------------------------
// Natural logarithm of a positive normal float (a NaN passes through):
// reduction to [sqrt(1/2), sqrt(2)) and a rational form in s = f / (2 + f),
// within one ulp; both flavours run it.
QDEV float log_pos(float x) {
  if (x != x) return x;
  uint32_t ix = dev::f2u(x);
  int k = (int)(ix >> 23) - 127;
  ix &= 0x7fffffu;
  const uint32_t i = (ix + (0x95f64u << 3)) & 0x800000u;
  const float m = dev::u2f(ix | (i ^ 0x3f800000u));
  k += (int)(i >> 23);
  const float f = m - 1.0f, s = f / (2.0f + f), z = s * s, w = z * z;
  const float r = z * (0.66666662693f + w * 0.28498786688f) + w * (0.40000972152f + w * 0.24279078841f);
  const float hfsq = 0.5f * f * f, dk = (float)k;
  return dk * 6.9313812256e-01f - ((hfsq - (s * (hfsq + r) + dk * 9.0580006145e-06f)) - f);
}
// softplus with the identity above 20, and plain log and exp below.
QDEV float softplus(float x) { return x > 20.0f ? x : log_pos(1.0f + dev::exp(x)); }
QDEV float sqrt_softplus(float x) { return dev::sqrt(softplus(x)); }
// The same gate as the gathered hidden shuffle computes, so both paths agree.
QDEV float gate_sigmoid(float dot) { return 1.0f / (1.0f + dev::exp2(-dot * 1.4426950408889634f)); }

QDEV float wave_sum(float v) {
  for (int m = 16; m >= 1; m >>= 1) v += dev::shfl_xor_f(v, m);
  return v;
}
QDEV void fma_chunk(float& acc, dev::u32x4 h, dev::u32x4 g) {
  for (int j = 0; j < 4; ++j) {
    acc = __builtin_fmaf(dev::u2f(h[j] << 16), dev::u2f(g[j] << 16), acc);
    acc = __builtin_fmaf(dev::u2f(h[j] & 0xffff0000u), dev::u2f(g[j] & 0xffff0000u), acc);
  }
}
// 16 bytes of panel row e at column c (a multiple of 8).
template <int H>
QDEV dev::u32x4 panel_chunk(const uint8_t* w, int64_t e, int64_t c) {
  return *reinterpret_cast<const dev::u32x4*>(w + gemm_core::block_panel_offset(e, c, H));
}
// A wave's dot product of an LDS row with a weight row; lane l takes columns
// 8l + 256i, the same split as the gate of the gathered shuffle.
template <int H, class W>
QDEV float wave_dot(const dev::u32x4* row, W&& chunk) {
  const uint32_t l = dev::lane_id();
  float acc = 0.0f;
  for (int i = 0; i < H / 256; ++i) fma_chunk(acc, row[l + 32 * i], chunk((int64_t)(l + 32 * i) * 8));
  return wave_sum(acc);
}
// ROWS hidden rows from `first` into LDS (16-byte chunks), zeros past M.
template <int H, int ROWS, int THREADS>
QDEV void stage_rows(dev::u32x4* lds, const uint16_t* hidden, int64_t first, int64_t M) {
  for (uint32_t i = threadIdx.x; i < ROWS * H / 8; i += THREADS) {
    const int64_t row = first + i / (H / 8);
    const auto* src = reinterpret_cast<const dev::u32x4*>(hidden + row * H + (i % (H / 8)) * 8);
    lds[i] = row < M ? *src : dev::u32x4{0, 0, 0, 0};
  }
}

// ---- Kernels -----------------------------------------------------------------------------
// Workgroup (x, y): rows 8y .. 8y + 7; x below E / 8 takes experts 8x + wave,
// the last x the shared-expert gate, one row per wave.
template <int H, int E, int PR, int PC, int ROWS, int THREADS>
__global__ __launch_bounds__(THREADS) void moe_decode_router_kernel(const uint16_t* hidden, const uint8_t* router_w,
                                                                    float* logits, float* gate_out,
                                                                    int32_t gate_stride, int64_t M) {
  static_assert(PR == 128 && PC == 64 && ROWS == 8 && THREADS == 256, "8 rows, one expert per wave");
  __shared__ dev::u32x4 rows[ROWS * H / 8];
  const int64_t first = (int64_t)blockIdx.y * ROWS;
  const uint32_t w = threadIdx.x / 32, l = dev::lane_id();
  if (blockIdx.x == E / 8 && gate_out == nullptr) return;
  stage_rows<H, ROWS, THREADS>(rows, hidden, first, M);
  __syncthreads();
  if (blockIdx.x == E / 8) {
    const uint16_t* g = reinterpret_cast<const uint16_t*>(router_w + (int64_t)E * H * 2);
    const float dot = wave_dot<H>(rows + w * (H / 8), [&](int64_t c) {
      return *reinterpret_cast<const dev::u32x4*>(g + c);
    });
    if (l == 0 && first + w < M) gate_out[(first + w) * gate_stride] = gate_sigmoid(dot);
    return;
  }
  const int64_t e = (int64_t)blockIdx.x * 8 + w;
  float acc[ROWS] = {};
  for (int i = 0; i < H / 256; ++i) {
    const int64_t k = l + 32 * i;
    const dev::u32x4 g = panel_chunk<H>(router_w, e, k * 8);
    for (int r = 0; r < ROWS; ++r) fma_chunk(acc[r], rows[r * (H / 8) + k], g);
  }
  for (int r = 0; r < ROWS; ++r) {
    const float v = wave_sum(acc[r]);
    if (l == 0 && first + r < M) logits[(first + r) * E + e] = v;
  }
}

// Logits of T shuffled rows by 128 experts per workgroup: one 64-column step
// of A (a T x 64 panel of the gathered tile) and of B (a 128 x 64 block panel)
// at a time, both contiguous 128-byte rows in LDS. Wave w owns rows 16 * (w %
// (T / 16)) and T / 32 column tiles of 16.
template <int H, int E, int T>
__global__ __launch_bounds__(512) void moe_router_logits_kernel(const uint8_t* a, const uint8_t* router_w,
                                                                float* logits, int64_t M) {
  static_assert(T == 64 || T == 128, "row tiles of 64 or 128");
  constexpr int kRowBlocks = T / 16, kTiles = T / 32;
  __shared__ dev::u32x4 sa[T * 8], sb[128 * 8];
  const uint32_t w = threadIdx.x / 32, l = dev::lane_id();
  const uint32_t rb = w % kRowBlocks, cg = w / kRowBlocks;
  const uint8_t* a_tile = a + (int64_t)blockIdx.y * T * H * 2;
  dev::f32x8 acc[kTiles] = {};
  for (int p = 0; p < H / 64; ++p) {
    const dev::u32x4* ap = reinterpret_cast<const dev::u32x4*>(a_tile + (int64_t)p * T * 128);
    const dev::u32x4* bp = reinterpret_cast<const dev::u32x4*>(
        router_w + gemm_core::block_panel_offset((int64_t)blockIdx.x * 128, (int64_t)p * 64, H));
    __syncthreads();
    for (uint32_t i = threadIdx.x; i < T * 8; i += 512) sa[i] = ap[i];
    for (uint32_t i = threadIdx.x; i < 128 * 8; i += 512) sb[i] = bp[i];
    __syncthreads();
    for (int kk = 0; kk < 4; ++kk) {
      const uint32_t ar = (rb * 16 + l % 16) * 8 + kk * 2;
      const dev::bf16x16 af = gemm_core::bf16x16_of(sa[ar], sa[ar + 1]);
      for (int j = 0; j < kTiles; ++j) {
        const uint32_t br = ((cg * kTiles + j) * 16 + l % 16) * 8 + kk * 2;
        acc[j] = dev::wmma_bf16(af, gemm_core::bf16x16_of(sb[br], sb[br + 1]), acc[j]);
      }
    }
  }
  for (int j = 0; j < kTiles; ++j) {
    const int64_t col = (int64_t)blockIdx.x * 128 + (cg * kTiles + j) * 16 + l % 16;
    for (int i = 0; i < 8; ++i) {
      const int64_t row = (int64_t)blockIdx.y * T + rb * 16 + 2 * i + l / 16;
      if (row < M) logits[row * E + col] = acc[j][i];
    }
  }
}

// Does (v, i) beat (bv, bi)? Higher value, then lower index.
QDEV bool beats(float v, int32_t i, float bv, int32_t bi) { return v > bv || (v == bv && i < bi); }

// One wave per token. Lane l holds experts l + 32j. K passes of arg-max; a
// NaN selection value counts as -infinity with index E, so it loses every tie.
// The expert that owns a pick is tracked apart from its rank index, so even a
// row of NaNs fills its slots with real (distinct) experts.
template <int E, int K, int S, int SCORING, bool RENORM, bool GATE, bool BIAS, int TOKENS, int THREADS>
__global__ __launch_bounds__(THREADS) void moe_topk_kernel(const float* logits, const float* bias, float* weights,
                                                           int32_t* ids, float scale, int64_t M) {
  static_assert(E % 32 == 0 && K < 32 && TOKENS * 32 == THREADS, "one wave per token");
  constexpr int NV = E / 32;
  const int64_t t = (int64_t)blockIdx.x * TOKENS + threadIdx.x / 32;
  if (t >= M) return;
  const int32_t l = (int32_t)dev::lane_id();
  const float* x = logits + t * E;
  float v[NV];
  int32_t rank[NV];
  for (int j = 0; j < NV; ++j) {
    const int32_t e = l + 32 * j;
    float s = x[e];
    if constexpr (SCORING == 1) s = sqrt_softplus(s);
    if constexpr (BIAS) s += bias[e];
    const bool nan = s != s;
    v[j] = nan ? -__builtin_inff() : s;
    rank[j] = nan ? E : e;
  }
  uint32_t picked = 0;
  float my_v = 0.0f;
  int32_t my_id = 0;
  for (int k = 0; k < K; ++k) {
    float bv = -__builtin_inff();
    int32_t bi = 0x7fffffff, bo = 0x7fffffff;
    for (int j = 0; j < NV; ++j) {
      if (picked & (1u << j)) continue;
      const int32_t o = l + 32 * j;
      if (beats(v[j], rank[j], bv, bi) || (v[j] == bv && rank[j] == bi && o < bo)) bv = v[j], bi = rank[j], bo = o;
    }
    for (int m = 16; m >= 1; m >>= 1) {
      const float ov = dev::shfl_xor_f(bv, m);
      const int32_t oi = (int32_t)dev::shfl_xor((uint32_t)bi, m), oo = (int32_t)dev::shfl_xor((uint32_t)bo, m);
      if (beats(ov, oi, bv, bi) || (ov == bv && oi == bi && oo < bo)) bv = ov, bi = oi, bo = oo;
    }
    if (bo % 32 == l) picked |= 1u << (bo / 32);
    if (l == k) my_v = bv, my_id = bo;
  }
  float w;
  if constexpr (SCORING == 0) {
    const float v0 = dev::readlane_f(my_v, 0);
    const float p = l < K ? dev::exp(my_v - v0) : 0.0f;
    w = p / wave_sum(p);
  } else {
    const float s = l < K ? sqrt_softplus(x[my_id]) : 0.0f;
    if constexpr (RENORM) {
      const float sum = wave_sum(s);
      w = (s / (sum > 6.1035156e-05f ? sum : 6.1035156e-05f)) * scale;
    } else {
      w = s * scale;
    }
  }
  if (l < K) {
    weights[t * S + l] = w;
    ids[t * S + l] = my_id;
  } else if (l == K) {
    ids[t * S + K] = E;
    if constexpr (!GATE) weights[t * S + K] = 1.0f;
  }
}

// Four tokens a workgroup; the 4 * S (token, slot) dot products dealt to the
// waves in turn, then one wave per token for the weights.
template <int H, int E, int K, int S, int PR, int PC, bool RENORM, bool GATE, int TOKENS, int THREADS>
__global__ __launch_bounds__(THREADS) void moe_tid2eid_router_kernel(const uint16_t* hidden, const uint8_t* router_w,
                                                                     const int64_t* token_ids,
                                                                     const int32_t* tid2eid, float* weights,
                                                                     int32_t* ids, float* gate_out, float scale,
                                                                     int64_t M) {
  static_assert(PR == 128 && PC == 64 && TOKENS == 4 && THREADS == 256 && K < 32, "4 tokens over 8 waves");
  __shared__ dev::u32x4 rows[TOKENS * H / 8];
  __shared__ float scores[TOKENS * K];
  const int64_t first = (int64_t)blockIdx.x * TOKENS;
  const uint32_t w = threadIdx.x / 32, l = dev::lane_id();
  stage_rows<H, TOKENS, THREADS>(rows, hidden, first, M);
  __syncthreads();
  for (int task = (int)w; task < TOKENS * S; task += THREADS / 32) {
    const int tok = task / S, slot = task % S;
    const int64_t t = first + tok;
    if (t >= M || (slot == K && gate_out == nullptr)) continue;
    const dev::u32x4* row = rows + tok * (H / 8);
    if (slot < K) {
      const int64_t e = tid2eid[token_ids[t] * K + slot];
      const float dot = wave_dot<H>(row, [&](int64_t c) { return panel_chunk<H>(router_w, e, c); });
      if (l == 0) scores[tok * K + slot] = sqrt_softplus(dot);
    } else {
      const uint16_t* g = reinterpret_cast<const uint16_t*>(router_w + (int64_t)E * H * 2);
      const float dot = wave_dot<H>(row, [&](int64_t c) { return *reinterpret_cast<const dev::u32x4*>(g + c); });
      if (l == 0) gate_out[t * S] = gate_sigmoid(dot);
    }
  }
  __syncthreads();
  if (w >= TOKENS) return;
  const int64_t t = first + w;
  if (t >= M) return;
  const float s = l < (uint32_t)K ? scores[w * K + l] : 0.0f;
  float wt = s * scale;
  if constexpr (RENORM) {
    const float sum = wave_sum(s);
    wt = (s / (sum > 6.1035156e-05f ? sum : 6.1035156e-05f)) * scale;
  }
  if (l < (uint32_t)K) {
    weights[t * S + l] = wt;
    ids[t * S + l] = tid2eid[token_ids[t] * K + l];
  } else if (l == (uint32_t)K) {
    ids[t * S + K] = E;
    if constexpr (!GATE) weights[t * S + K] = 1.0f;
  }
}

// ---- Host entries ------------------------------------------------------------------------
namespace {
template <class F>
void on_moe_geometry(F&& f) {
  on_geometry<Qwen36MoeA3B, DeepSeekV4Flash, Qwen38FlashNext>(QUILLON_HERE,
                                                              [&](auto g) { f(RouterTraits<decltype(g)>{}); });
}
}  // namespace

int64_t moe_shuffle_router_bytes() {
  int64_t r = 0;
  on_moe_geometry([&](auto tr) { r = decltype(tr)::blob_bytes; });
  return r;
}

void moe_shuffle_router(const void* src, const float* bias, void* dst, hipStream_t s) {
  on_moe_geometry([&](auto tr) {
    using R = decltype(tr);
    shuffle_block_panel<R::E, R::H>(src, dst, s);
    auto* tail = static_cast<uint8_t*>(dst) + R::matrix_bytes;
    if constexpr (R::gate) {
      QUILLON_HIP_CHECK(hipMemcpyAsync(tail, static_cast<const uint8_t*>(src) + R::matrix_bytes, R::H * 2,
                                       hipMemcpyDeviceToDevice, s));
    } else if (bias != nullptr) {
      QUILLON_HIP_CHECK(hipMemcpyAsync(tail, bias, R::E * 4, hipMemcpyDeviceToDevice, s));
    }
  });
}

int64_t moe_router_shuffle_bytes(int64_t M) {
  int64_t r = 0;
  on_moe_geometry([&](auto tr) {
    const MoeVariant v = moe_variant_at(M);
    r = v.shuffled && M > 0 ? (M + v.T - 1) / v.T * v.T * decltype(tr)::H * 2 : 0;
  });
  return r;
}

void moe_shuffle_hidden(const void* hidden, const void* router_w, float* weights, void* hidden_shuffled, int64_t M,
                        hipStream_t s) {
  QUILLON_CHECK(router_w != nullptr, "moe_shuffle_hidden: router_w is required");
  on_moe_geometry([&](auto tr) {
    using R = decltype(tr);
    const MoeVariant v = moe_variant_at(M);
    if (!v.shuffled) return;
    QUILLON_CHECK(hidden_shuffled != nullptr,
                  "moe_shuffle_hidden: hidden_shuffled is required at M=%lld; size it with moe_router_shuffle_bytes(M)",
                  (long long)M);
    dispatch_value<MoeRowBlock>(QUILLON_HERE, v.T, [&](auto) {});
    const void* gate_w = R::gate ? static_cast<const uint8_t*>(router_w) + R::matrix_bytes : nullptr;
    shuffle_hidden_tiles(hidden, hidden_shuffled, M, R::H, v.T, gate_w, R::gate ? weights + R::K : nullptr, R::S, s);
  });
}

void moe_router(const void* hidden, const void* router_w, float* weights, int32_t* ids, float* logits,
                void* hidden_shuffled, int64_t M, hipStream_t s) {
  QUILLON_CHECK(router_w != nullptr, "moe_router: router_w is required");
  on_moe_geometry([&](auto tr) {
    using R = decltype(tr);
    const MoeVariant v = moe_variant_at(M);
    if (M <= 0) return;
    const auto* w = static_cast<const uint8_t*>(router_w);
    if (v.shuffled) {
      moe_shuffle_hidden(hidden, router_w, weights, hidden_shuffled, M, s);
      dispatch_value<MoeRowBlock>(QUILLON_HERE, v.T, [&](auto t) {
        constexpr int T = decltype(t)::value;
        launch(&moe_router_logits_kernel<R::H, R::E, T>, dim3(R::E / 128, (unsigned)((M + T - 1) / T)), dim3(512), 0,
               s, static_cast<const uint8_t*>(hidden_shuffled), w, logits, M);
      });
    } else {
      launch(&moe_decode_router_kernel<R::H, R::E, 128, 64, 8, 256>, dim3(R::E / 8 + 1, (unsigned)((M + 7) / 8)),
             dim3(256), 0, s, static_cast<const uint16_t*>(hidden), w, logits, R::gate ? weights + R::K : nullptr,
             int32_t(R::S), M);
    }
    const float* bias = R::bias ? reinterpret_cast<const float*>(w + R::matrix_bytes) : nullptr;
    launch(&moe_topk_kernel<R::E, R::K, R::S, R::scoring, R::renormalise, R::gate, R::bias, 8, 256>,
           dim3((unsigned)((M + 7) / 8)), dim3(256), 0, s, static_cast<const float*>(logits), bias, weights, ids,
           R::scale, M);
  });
}

void moe_router_tid2eid(const void* hidden, const void* router_w, const int64_t* token_ids, const int32_t* tid2eid,
                        float* weights, int32_t* ids, void* hidden_shuffled, int64_t M, hipStream_t s) {
  QUILLON_CHECK(router_w != nullptr, "moe_router_tid2eid: router_w is required");
  on_moe_geometry([&](auto tr) {
    using R = decltype(tr);
    if (M <= 0) return;
    const bool shuffled = moe_variant_at(M).shuffled;
    if (shuffled) moe_shuffle_hidden(hidden, router_w, weights, hidden_shuffled, M, s);
    float* gate = R::gate && !shuffled ? weights + R::K : nullptr;
    launch(&moe_tid2eid_router_kernel<R::H, R::E, R::K, R::S, 128, 64, R::renormalise, R::gate, 4, 256>,
           dim3((unsigned)((M + 3) / 4)), dim3(256), 0, s, static_cast<const uint16_t*>(hidden),
           static_cast<const uint8_t*>(router_w), token_ids, tid2eid, weights, ids, gate, R::scale, M);
  });
}

}  // namespace quillon
