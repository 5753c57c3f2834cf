// Chunked gated delta rule for prefill. A workgroup walks one value head of one
// sequence in chunks of 64 tokens; the state stays in the accumulators of the
// 16x16x16 matrix instruction for the whole sequence, wave w holding columns
// 16w..16w+15 as 8 tiles of 16 key rows. Per chunk, with gate prefix G and
// T = (I - A)^-1 from the strictly lower A:
//   V' = T (beta val - (beta k_hat e^G) S)
//   O  = (q_hat e^G) S + tril(q_hat k_hat^T e^(G_i - G_j)) V'
//   S  = e^(G_last) S + (k_hat e^(G_last - G))^T V'
// V' is formed as one product of T with its rounded right side, so the state
// is rounded once per chunk on its way into the matrix instruction.
#include "../../platform/device.h"
#include "../../device/geometry.h"
#include "../../platform/fatal.h"
#include "../../platform/launch.h"
#include "../../platform/numerics.h"
#include "gdr_core.h"
#include "linear_attn.h"

namespace quillon {
namespace gdr {

constexpr int kChunk = 64, kChunkThreads = 256, kHalf = kChunk / 2;

QDEV uint16_t bf_bits(float f) { return num::bf16_rne(f); }
QDEV float bf_at(const uint16_t* p) { return num::bf16_to_float(*p); }

// 16 consecutive bf16 of LDS as an operand fragment.
QDEV dev::bf16x16 frag16(const uint16_t* p) {
  const dev::u32x4 lo = *reinterpret_cast<const dev::u32x4*>(p);
  const dev::u32x4 hi = *reinterpret_cast<const dev::u32x4*>(p + 8);
  const uint32_t w[8] = {lo[0], lo[1], lo[2], lo[3], hi[0], hi[1], hi[2], hi[3]};
  return __builtin_bit_cast(dev::bf16x16, w);
}

// An accumulator tile (rows 2i + lane/16) as the B operand over its rows:
// lanes l and l ^ 16 hold the even and odd rows of one column.
QDEV dev::bf16x16 acc_as_b(const dev::f32x8& acc) {
  const bool hi = dev::lane_id() >= 16;
  dev::bf16x16 f;
  for (int i = 0; i < 8; ++i) {
    const float own = acc[i], other = dev::shfl_xor_f(acc[i], 16);
    f[2 * i] = (short)bf_bits(hi ? other : own);
    f[2 * i + 1] = (short)bf_bits(hi ? own : other);
  }
  return f;
}

QDEV dev::f32x8 zero8() { return dev::f32x8{0.f, 0.f, 0.f, 0.f, 0.f, 0.f, 0.f, 0.f}; }

struct alignas(16) ChunkLds {
  uint16_t k[kChunk][128];  // raw keys
  uint16_t q[kChunk][128];  // raw queries, then q_hat e^G / sqrt(128)
  union {
    float t[kChunk][kChunk];  // A (strictly lower), then T without its unit diagonal
    uint16_t kdt[128][kChunk];  // once T is spent: (k_hat e^(G_last - G))^T
  };
  uint16_t p[kChunk][kChunk];
  float inv_q[kChunk], inv_k[kChunk], beta[kChunk], g[kChunk];  // g: -g, then its prefix
  float fkb[kChunk], fq[kChunk], fk[kChunk];
};
static_assert(sizeof(ChunkLds) <= 59392, "the chunk's local memory");

// One product into the coupling block (rows 32..63, columns 0..31) in place:
// A21 T11 when T11_RIGHT, else T22 times the block. Every thread forms its 4
// elements from the old block before any is stored.
template <bool T11_RIGHT>
QDEV void coupling_product(ChunkLds& L, int t) {
  float x[4];
#pragma unroll
  for (int e = 0; e < 4; ++e) {
    const int idx = t + e * kChunkThreads, i = kHalf + idx / kHalf, j = idx % kHalf;
    float s = L.t[i][j];
    if (T11_RIGHT) {
      for (int m = j + 1; m < kHalf; ++m) s = __builtin_fmaf(L.t[i][m], L.t[m][j], s);
    } else {
      for (int l = kHalf; l < i; ++l) s = __builtin_fmaf(L.t[i][l], L.t[l][j], s);
    }
    x[e] = s;
  }
  __syncthreads();
#pragma unroll
  for (int e = 0; e < 4; ++e) {
    const int idx = t + e * kChunkThreads;
    L.t[kHalf + idx / kHalf][idx % kHalf] = x[e];
  }
}

template <int HV, int HK, int DK, int DV, int CONV, int HVDV>
__global__ __launch_bounds__(kChunkThreads) void gdr_prefill_kernel(
    const uint16_t* qkv, const uint16_t* bl, const uint16_t* al, int64_t ba_stride, const float* a_log,
    const float* dt_bias, const int32_t* cu_seqlens, const int32_t* has_state, const int32_t* slots, float* state,
    const int32_t* ckpt_at, const int32_t* ckpt_slots, int64_t ckpt_max, float* ckpt_state, uint16_t* out) {
  static_assert(DK == 128 && DV == 128 && HVDV == HV * DV, "8 waves of 16 state columns");
  constexpr int64_t kHead = (int64_t)DK * DV;
  __shared__ ChunkLds L;
  const int h = (int)blockIdx.x, b = (int)blockIdx.y, kh = h * HK / HV;
  const int t = (int)threadIdx.x, wave = t / 32;
  const int64_t start = cu_seqlens[b], len = cu_seqlens[b + 1] - start;
  if (len <= 0) return;
  const int64_t slot = slots ? slots[b] : b;

  dev::f32x8 S[8];
  {
    const int lane = (int)dev::lane_id();
    const float* src = state + (slot * HV + h) * kHead + (lane / 16) * DV + wave * 16 + lane % 16;
    if (has_state && has_state[b] != 0) {
#pragma unroll
      for (int r = 0; r < 8; ++r)
        for (int i = 0; i < 8; ++i) S[r][i] = src[(16 * r + 2 * i) * DV];
    } else {
#pragma unroll
      for (int r = 0; r < 8; ++r) S[r] = zero8();
    }
  }
  const float ea = dev::exp(a_log[h]), dtb = dt_bias[h];
  int64_t ck = 0;

  for (int64_t c0 = 0; c0 < len; c0 += kChunk) {
    const int n = len - c0 < kChunk ? (int)(len - c0) : kChunk;
    // Lane-derived offsets are recomputed per chunk: hoisted out of the loop
    // they would outlive it in registers beside the state.
    int lane = (int)dev::lane_id();
#if defined(QUILLON_FLAVOUR_HIP)
    asm volatile("" : "+v"(lane));
#endif
    const int r16 = lane % 16, hi = lane / 16, col = wave * 16 + r16;
    // 1. Raw rows into LDS, norms and gates: four threads per row. Rows past
    //    the end repeat the last token with beta and g zero.
    {
      const int i = t / 4, part = t % 4;
      const int64_t tok = start + c0 + (i < n ? i : n - 1);
      const uint16_t* qrow = qkv + tok * CONV + kh * DK + part * 32;
      float sq = 0.0f, sk = 0.0f;
      for (int c = 0; c < 32; c += 8) {
        const dev::u32x4 qv = *reinterpret_cast<const dev::u32x4*>(qrow + c);
        const dev::u32x4 kv = *reinterpret_cast<const dev::u32x4*>(qrow + HK * DK + c);
        *reinterpret_cast<dev::u32x4*>(&L.q[i][part * 32 + c]) = qv;
        *reinterpret_cast<dev::u32x4*>(&L.k[i][part * 32 + c]) = kv;
        for (int e = 0; e < 4; ++e) {
          const float q0 = num::bits_to_float(qv[e] << 16), q1 = num::bits_to_float(qv[e] & 0xffff0000u);
          const float k0 = num::bits_to_float(kv[e] << 16), k1 = num::bits_to_float(kv[e] & 0xffff0000u);
          sq = __builtin_fmaf(q1, q1, __builtin_fmaf(q0, q0, sq));
          sk = __builtin_fmaf(k1, k1, __builtin_fmaf(k0, k0, sk));
        }
      }
      sq += dev::shfl_xor_f(sq, 1);
      sk += dev::shfl_xor_f(sk, 1);
      sq += dev::shfl_xor_f(sq, 2);
      sk += dev::shfl_xor_f(sk, 2);
      if (part == 0) {
        const bool live = i < n;
        L.inv_q[i] = dev::rsq(sq + kNormEps);
        L.inv_k[i] = dev::rsq(sk + kNormEps);
        L.beta[i] = live ? beta_of(num::bf16_to_float(bl[tok * ba_stride + h])) : 0.0f;
        L.g[i] = live ? -gate_g(num::bf16_to_float(al[tok * ba_stride + h]), ea, dtb) : 0.0f;
      }
    }
    __syncthreads();
    if (t == 0)
      for (int i = 1; i < kChunk; ++i) L.g[i] = L.g[i - 1] + L.g[i];
    __syncthreads();
    const float g_last = L.g[n - 1];
    if (t < kChunk) {  // row factors of the scaled operands, first read after step 2
      const float eg = dev::exp2(L.g[t] * kLog2e);
      L.fkb[t] = (L.beta[t] * L.inv_k[t]) * eg;
      L.fq[t] = (L.inv_q[t] * kRsqrtDk) * eg;
      L.fk[t] = L.inv_k[t] * dev::exp2((g_last - L.g[t]) * kLog2e);
    }
    // 2. K K^T and Q K^T on raw keys, factors in fp32 afterwards: wave w takes
    //    row tile w / 2 and two column tiles; tiles above the diagonal are zero.
    {
      const int ti = wave / 2;
#pragma unroll
      for (int u = 0; u < 2; ++u) {
        const int tj = 2 * (wave % 2) + u;
        dev::f32x8 kk = zero8(), qk = zero8();
        if (tj <= ti) {
#pragma unroll
          for (int s = 0; s < 8; ++s) {
            const dev::bf16x16 kb = frag16(&L.k[16 * tj + r16][16 * s]);
            kk = dev::wmma_bf16(frag16(&L.k[16 * ti + r16][16 * s]), kb, kk);
            qk = dev::wmma_bf16(frag16(&L.q[16 * ti + r16][16 * s]), kb, qk);
          }
        }
        for (int e = 0; e < 8; ++e) {
          const int i = 16 * ti + 2 * e + hi, j = 16 * tj + r16;
          const float decay = dev::exp2((L.g[i] - L.g[j]) * kLog2e);
          L.t[i][j] = j < i ? (((-L.beta[i] * L.inv_k[i]) * L.inv_k[j]) * kk[e]) * decay : 0.0f;
          L.p[i][j] = j <= i ? bf_bits((((L.inv_q[i] * kRsqrtDk) * L.inv_k[j]) * qk[e]) * decay) : (uint16_t)0;
        }
      }
    }
    __syncthreads();
    // 3. T = (I - A)^-1, unit diagonal implied: the two 32-row blocks by
    //    forward substitution, one wave each, then the coupling block
    //    T21 = T22 A21 T11.
    if (wave == 0 || wave == 4) {
      const int o = wave == 0 ? 0 : kHalf, j = lane;
      for (int r = 1; r < kHalf; ++r) {
        float x = L.t[o + r][o + j];
        for (int m = j + 1; m < r; ++m) x = __builtin_fmaf(L.t[o + r][o + m], L.t[o + m][o + j], x);
        dev::wave_sync();
        if (j < r) L.t[o + r][o + j] = x;
        dev::wave_sync();
      }
    }
    __syncthreads();
    coupling_product<true>(L, t);
    __syncthreads();
    coupling_product<false>(L, t);
    __syncthreads();
    // 4. Y = beta val - (beta k_hat e^G) S for this wave's columns, then V' = T Y.
    dev::f32x8 V[4];
    {
      const uint16_t* vrow = qkv + (start + c0 + hi) * CONV + 2 * HK * DK + h * DV + col;
#pragma unroll
      for (int ti = 0; ti < 4; ++ti)
        for (int e = 0; e < 8; ++e) {
          const int i = 16 * ti + 2 * e + hi;  // beta is 0 past the end
          V[ti][e] = i < n ? L.beta[i] * bf_at(vrow + (16 * ti + 2 * e) * CONV) : 0.0f;
        }
    }
#pragma unroll
    for (int s = 0; s < 8; ++s) {
      const dev::bf16x16 sb = acc_as_b(S[s]);
#pragma unroll
      for (int ti = 0; ti < 4; ++ti) {
        const int i = 16 * ti + r16;
        const float f = L.fkb[i];
        dev::bf16x16 a;
        const dev::bf16x16 raw = frag16(&L.k[i][16 * s]);
        for (int e = 0; e < 16; ++e) a[e] = (short)bf_bits(-(num::bf16_to_float((uint16_t)raw[e]) * f));
        V[ti] = dev::wmma_bf16(a, sb, V[ti]);
      }
    }
    {
      dev::bf16x16 yb[4];
#pragma unroll
      for (int tj = 0; tj < 4; ++tj) yb[tj] = acc_as_b(V[tj]);
#pragma unroll
      for (int ti = 0; ti < 4; ++ti) {
        V[ti] = zero8();
#pragma unroll
        for (int tj = 0; tj <= ti; ++tj) {
          // L.t is zero on and above the diagonal.
          dev::bf16x16 a;
          const int i = 16 * ti + r16;
          for (int e = 0; e < 16; ++e) a[e] = (short)bf_bits(L.t[i][16 * tj + e] + (16 * tj + e == i ? 1.0f : 0.0f));
          V[ti] = dev::wmma_bf16(a, yb[tj], V[ti]);
        }
      }
    }
    __syncthreads();
    // 5. Scaled operands: q_hat e^G in place, k_hat e^(G_last - G) transposed
    //    over the spent T, so both are read as 16-element rows.
    for (int e = t; e < kChunk * 128; e += kChunkThreads) {
      const int i = e / 128, c = e % 128;
      L.q[i][c] = bf_bits(bf_at(&L.q[i][c]) * L.fq[i]);
      L.kdt[c][i] = bf_bits(bf_at(&L.k[i][c]) * L.fk[i]);
    }
    __syncthreads();
    dev::bf16x16 vb[4];
#pragma unroll
    for (int tj = 0; tj < 4; ++tj) vb[tj] = acc_as_b(V[tj]);
    // 6. Outputs of the live rows from the state at the chunk's start, one row
    //    tile at a time so that only one output tile is live beside the state.
#pragma unroll
    for (int ti = 0; ti < 4; ++ti) {
      dev::f32x8 o = zero8();
#pragma unroll
      for (int s = 0; s < 8; ++s) o = dev::wmma_bf16(frag16(&L.q[16 * ti + r16][16 * s]), acc_as_b(S[s]), o);
#pragma unroll
      for (int tj = 0; tj <= ti; ++tj) o = dev::wmma_bf16(frag16(&L.p[16 * ti + r16][16 * tj]), vb[tj], o);
      uint16_t* orow = out + (start + c0 + hi) * HVDV + h * DV + col;
      for (int e = 0; e < 8; ++e)
        if (16 * ti + 2 * e + hi < n) orow[(16 * ti + 2 * e) * HVDV] = bf_bits(o[e]);
    }
    // 7. State update: decay the fp32 accumulators, then add Kd^T V'.
    {
      const float d = dev::exp2(g_last * kLog2e);
#pragma unroll
      for (int r = 0; r < 8; ++r) {
        for (int e = 0; e < 8; ++e) S[r][e] = d * S[r][e];
#pragma unroll
        for (int tj = 0; tj < 4; ++tj) S[r] = dev::wmma_bf16(frag16(&L.kdt[16 * r + r16][16 * tj]), vb[tj], S[r]);
      }
    }
    // 8. Checkpoints that fall on this chunk's end; the list is ascending and
    //    ends at a negative entry.
    const int64_t done = c0 + n;
    while (ck < ckpt_max) {
      const int64_t at = ckpt_at[(int64_t)b * ckpt_max + ck];
      if (at < 0) {
        ck = ckpt_max;
        break;
      }
      if (at > done) break;
      if (at == done) {
        float* dst = ckpt_state + ((int64_t)ckpt_slots[(int64_t)b * ckpt_max + ck] * HV + h) * kHead + hi * DV + col;
#pragma unroll
        for (int r = 0; r < 8; ++r)
          for (int e = 0; e < 8; ++e) dst[(16 * r + 2 * e) * DV] = S[r][e];
      }
      ++ck;
    }
    __syncthreads();
  }
  const int lane = (int)dev::lane_id();
  float* dst = state + (slot * HV + h) * kHead + (lane / 16) * DV + wave * 16 + lane % 16;
#pragma unroll
  for (int r = 0; r < 8; ++r)
    for (int e = 0; e < 8; ++e) dst[(16 * r + 2 * e) * DV] = S[r][e];
}

}  // namespace gdr

void gated_delta_rule_prefill(const void* qkv, const void* b, const void* a, int64_t ba_stride, const float* a_log,
                              const float* dt_bias, const int32_t* cu_seqlens, const int32_t* has_state,
                              const int32_t* slots, float* state, const int32_t* ckpt_at, const int32_t* ckpt_slots,
                              int64_t ckpt_max, float* ckpt_state, void* out, int64_t num_seqs, int64_t max_tokens,
                              hipStream_t s) {
  on_geometry<Qwen36MoeA3B, Qwen3627B, Qwen38FlashNext>(QUILLON_HERE, [&](auto g) {
    using G = decltype(g);
    constexpr int HV = (int)G::linear_v_heads, HK = (int)G::linear_k_heads, DK = (int)G::linear_k_dim,
                  DV = (int)G::linear_v_dim, CONV = (int)G::conv_width;
    if (ba_stride < HV)
      QUILLON_FATAL("ba_stride must span the per-head logits (got %lld, need >= %lld)", (long long)ba_stride,
                    (long long)HV);
    if (ckpt_max != 0 && (!ckpt_at || !ckpt_slots || !ckpt_state))
      QUILLON_FATAL("ckpt_max=%lld needs ckpt_at, ckpt_slots and ckpt_state", (long long)ckpt_max);
    if (num_seqs <= 0 || max_tokens <= 0) return;
    launch(&gdr::gdr_prefill_kernel<HV, HK, DK, DV, CONV, HV * DV>, dim3((unsigned)HV, (unsigned)num_seqs),
           dim3(gdr::kChunkThreads), 0, s, static_cast<const uint16_t*>(qkv), static_cast<const uint16_t*>(b),
           static_cast<const uint16_t*>(a), ba_stride, a_log, dt_bias, cu_seqlens, has_state, slots, state, ckpt_at,
           ckpt_slots, ckpt_max < 0 ? (int64_t)0 : ckpt_max, ckpt_state, static_cast<uint16_t*>(out));
  });
}

}  // namespace quillon
