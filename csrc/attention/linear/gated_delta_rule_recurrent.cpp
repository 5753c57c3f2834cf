// Token-by-token gated delta rule. A workgroup owns one value head of one
// sequence: thread t holds column t % 128 of the state for the 64 key rows of
// half t / 128 in registers for the whole step, so the state is read once and
// written once per row (per-row slots), once per step (advance) or never
// (read-only).
#include "../../platform/device.h"
#include "../../device/geometry.h"
#include "../../platform/fatal.h"
#include "../../platform/launch.h"
#include "../../platform/numerics.h"
#include "gdr_core.h"
#include "linear_attn.h"

namespace quillon {
namespace gdr {

constexpr int kThreads = 256;

template <int HV, int HK, int DK, int DV, int CONV, int THREADS, bool WRITE_OUT, bool SINGLE_SLOT, bool READ_ONLY>
__global__ __launch_bounds__(THREADS) void gdr_decode_kernel(const uint16_t* qkv, const uint16_t* bl,
                                                              const uint16_t* al, int64_t ba_stride,
                                                              const float* a_log, const float* dt_bias,
                                                              const int32_t* slots, const int32_t* accepted,
                                                              float* state, uint16_t* out, int64_t rows) {
  static_assert(DK == 128 && DV == 128 && THREADS == 2 * DV, "a column per thread, two halves of the key rows");
  static_assert(!READ_ONLY || SINGLE_SLOT, "read-only decodes from one slot");
  constexpr int kRows = DK / 2, kQkWaves = DK / dev::kWave;
  constexpr int64_t kHead = (int64_t)DK * DV;
  __shared__ float q_hat[DK], k_hat[DK];
  __shared__ float sq_part[kQkWaves], sk_part[kQkWaves];
  __shared__ float m_part[2][DV], o_part[2][DV];

  const int h = (int)blockIdx.x;
  const int64_t b = blockIdx.y;
  const int t = (int)threadIdx.x, v = t % DV, half = t / DV, kh = h * HK / HV;
  int64_t n = rows, slot;
  if constexpr (SINGLE_SLOT) {
    slot = slots ? slots[b] : b;
    if constexpr (!WRITE_OUT) {
      n = accepted ? accepted[b] : rows;
      if (n < 1) return;
    }
  } else {
    const int64_t i0 = accepted ? accepted[b] - 1 : 0;
    slot = slots ? slots[b * rows + i0] : b * rows + i0;
  }
  float S[kRows];
  {
    const float* src = state + (slot * HV + h) * kHead + (int64_t)half * kRows * DV + v;
    for (int i = 0; i < kRows; ++i) S[i] = src[i * DV];
  }
  const float ea = dev::exp(a_log[h]), dtb = dt_bias[h];

  for (int64_t r = 0; r < n; ++r) {
    const int64_t tok = b * rows + r;
    const uint16_t* row = qkv + tok * CONV;
    float qe = 0.0f, ke = 0.0f;
    if (half == 0) {
      qe = num::bf16_to_float(row[kh * DK + v]);
      ke = num::bf16_to_float(row[HK * DK + kh * DK + v]);
    }
    const float val = num::bf16_to_float(row[2 * HK * DK + h * DV + v]);
    const float beta = beta_of(num::bf16_to_float(bl[tok * ba_stride + h]));
    const float decay = dev::exp2(-gate_g(num::bf16_to_float(al[tok * ba_stride + h]), ea, dtb) * kLog2e);
    if (half == 0) {  // whole waves: the key rows live in the first half
      float sq = qe * qe, sk = ke * ke;
      for (int m = dev::kWave / 2; m >= 1; m >>= 1) {
        sq += dev::shfl_xor_f(sq, m);
        sk += dev::shfl_xor_f(sk, m);
      }
      if (dev::lane_id() == 0) {
        sq_part[t / dev::kWave] = sq;
        sk_part[t / dev::kWave] = sk;
      }
    }
    __syncthreads();
    if (half == 0) {
      float tq = sq_part[0], tk = sk_part[0];
      for (int w = 1; w < kQkWaves; ++w) {
        tq += sq_part[w];
        tk += sk_part[w];
      }
      q_hat[v] = (qe * dev::rsq(tq + kNormEps)) * kRsqrtDk;
      k_hat[v] = ke * dev::rsq(tk + kNormEps);
    }
    __syncthreads();
    const float* kr = k_hat + half * kRows;
    const float* qr = q_hat + half * kRows;
    float m = 0.0f;
    for (int i = 0; i < kRows; ++i) {
      S[i] = decay * S[i];
      m = __builtin_fmaf(S[i], kr[i], m);
    }
    m_part[half][v] = m;
    __syncthreads();
    const float delta = beta * (val - ((0.0f + m_part[0][v]) + m_part[1][v]));
    float o = 0.0f;
    for (int i = 0; i < kRows; ++i) {
      S[i] = __builtin_fmaf(kr[i], delta, S[i]);
      o = __builtin_fmaf(S[i], qr[i], o);
    }
    if constexpr (WRITE_OUT) {
      o_part[half][v] = o;
      __syncthreads();
      if (half == 0) out[(tok * HV + h) * DV + v] = num::bf16_rne((0.0f + o_part[0][v]) + o_part[1][v]);
    }
    if constexpr (!SINGLE_SLOT) {
      const int64_t dst = slots ? slots[tok] : tok;
      float* p = state + (dst * HV + h) * kHead + (int64_t)half * kRows * DV + v;
      for (int i = 0; i < kRows; ++i) p[i * DV] = S[i];
    }
  }
  if constexpr (SINGLE_SLOT && !READ_ONLY) {
    float* p = state + (slot * HV + h) * kHead + (int64_t)half * kRows * DV + v;
    for (int i = 0; i < kRows; ++i) p[i * DV] = S[i];
  }
}

template <class G>
struct Shape {
  static constexpr int HV = (int)G::linear_v_heads, HK = (int)G::linear_k_heads, DK = (int)G::linear_k_dim,
                       DV = (int)G::linear_v_dim, CONV = (int)G::conv_width;
};

template <class G, bool WRITE_OUT, bool SINGLE_SLOT, bool READ_ONLY>
void launch_decode(const void* qkv, const void* b, const void* a, int64_t ba_stride, const float* a_log,
                   const float* dt_bias, const int32_t* slots, const int32_t* accepted, float* state, void* out,
                   int64_t num_seqs, int64_t rows, hipStream_t s) {
  using S = Shape<G>;
  if (ba_stride < S::HV)
    QUILLON_FATAL("ba_stride must span the per-head logits (got %lld, need >= %lld)", (long long)ba_stride,
                  (long long)S::HV);
  if (num_seqs <= 0 || rows <= 0) return;
  launch(&gdr_decode_kernel<S::HV, S::HK, S::DK, S::DV, S::CONV, kThreads, WRITE_OUT, SINGLE_SLOT, READ_ONLY>,
         dim3((unsigned)S::HV, (unsigned)num_seqs), dim3(kThreads), 0, s, static_cast<const uint16_t*>(qkv),
         static_cast<const uint16_t*>(b), static_cast<const uint16_t*>(a), ba_stride, a_log, dt_bias, slots,
         accepted, state, static_cast<uint16_t*>(out), rows);
}

}  // namespace gdr

#define QUILLON_LINEAR_GEOMETRIES Qwen36MoeA3B, Qwen3627B, Qwen38FlashNext

void gated_delta_rule_decode(const void* qkv, const void* b, const void* a, int64_t ba_stride, const float* a_log,
                             const float* dt_bias, const int32_t* slots, const int32_t* accepted, float* state,
                             void* out, int64_t num_seqs, int64_t rows, hipStream_t s) {
  on_geometry<QUILLON_LINEAR_GEOMETRIES>(QUILLON_HERE, [&](auto g) {
    gdr::launch_decode<decltype(g), true, false, false>(qkv, b, a, ba_stride, a_log, dt_bias, slots, accepted, state,
                                                        out, num_seqs, rows, s);
  });
}

void gated_delta_rule_decode_readonly(const void* qkv, const void* b, const void* a, int64_t ba_stride,
                                      const float* a_log, const float* dt_bias, const int32_t* slots,
                                      const float* state, void* out, int64_t num_seqs, int64_t rows, hipStream_t s) {
  on_geometry<QUILLON_LINEAR_GEOMETRIES>(QUILLON_HERE, [&](auto g) {
    // The read-only instance has no store to the pool.
    gdr::launch_decode<decltype(g), true, true, true>(qkv, b, a, ba_stride, a_log, dt_bias, slots, nullptr,
                                                      const_cast<float*>(state), out, num_seqs, rows, s);
  });
}

void gated_delta_rule_advance(const void* qkv, const void* b, const void* a, int64_t ba_stride, const float* a_log,
                              const float* dt_bias, const int32_t* slots, const int32_t* accepted, float* state,
                              int64_t num_seqs, int64_t rows, hipStream_t s) {
  on_geometry<QUILLON_LINEAR_GEOMETRIES>(QUILLON_HERE, [&](auto g) {
    gdr::launch_decode<decltype(g), false, true, false>(qkv, b, a, ba_stride, a_log, dt_bias, slots, accepted,
                                                        state, nullptr, num_seqs, rows, s);
  });
}

#undef QUILLON_LINEAR_GEOMETRIES

}  // namespace quillon
