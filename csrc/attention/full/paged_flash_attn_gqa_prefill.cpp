// Paged prefill attention: one workgroup per block of QB query tokens and one
// KV head walks the causal history itself, in 128-token tiles, with the
// online softmax of decode. Scores are formed transposed (tokens down, query
// rows across) so a row's statistics reduce through a lane's registers.
#include "../../cache/kv_cache.h"
#include "../../device/geometry.h"
#include "../../gemm_core/gemm_shuffle.h"
#include "../../platform/device.h"
#include "../../platform/fatal.h"
#include "../../platform/launch.h"
#include "../../platform/numerics.h"
#include "paged_attn.h"
#include "paged_attn_core.h"

namespace quillon {
namespace pattn {

namespace {
// P is [column][token], rows padded by 16 bytes so the column reads of the
// second product spread over the banks and every store of a lane is one base
// plus an immediate.
constexpr int kPRow = 136;
QDEV int pt_index(int col, int tok) { return col * kPRow + tok; }
}  // namespace

// Query tokens per block: QB*G fills whole 16-column tiles over 4 query groups.
constexpr int prefill_qb(int g) { return g == 8 ? 16 : g == 6 ? 32 : g == 64 ? 1 : 16; }

// Arguments in the family's order; a flag that is off leaves its fields zero.
struct PrefillParams {
  const uint16_t* q;
  const void* k_cache;
  const void* v_cache;
  const void* k_scales;
  const void* v_scales;
  uint16_t* out;
  const int32_t* cu_q_lens;
  const int32_t* block_table;
  const int32_t* seq_lens;
  int64_t num_seqs;  // reaches the device, never read
  int64_t row_stride;
  float scale;
  const int32_t* q_block_map;
  const float* sinks;
  int32_t window;
  const void* k2_cache;
  const void* v2_cache;
  const int32_t* table2;
  const int32_t* counts2;
  const int8_t* mask;
  int64_t table2_row_stride;
  int64_t mask_row_stride;
  const int32_t* list_ids;
  const int32_t* list_counts;
  int64_t list_row_stride;
  const uint16_t* gate;
  int64_t gate_row_stride;
  int64_t row_offset;
};

template <int NQ, int NKV, int HD, int PAGE, bool INT8, bool SINK, bool WINDOW, bool SRC2, bool WHOLE, bool KV_SAME,
          bool LISTS, bool QB_LISTS, bool QB_MASK, bool GATE>
__global__ __launch_bounds__(512) void paged_gqa_flash_attn_prefill_kernel(PrefillParams a) {
  static_assert(!INT8 && !SINK && !WINDOW && !SRC2 && !WHOLE && !KV_SAME && !LISTS && !QB_LISTS && !QB_MASK,
                "plain causal attention over one bf16 pool");
  static_assert(PAGE == 16 && HD % 64 == 0, "a wave owns a quarter of HD");
  constexpr int G = NQ / NKV, QB = prefill_qb(G), COLS = QB * G, CT = COLS / 64, DT = HD / 64;
  static_assert(COLS % 64 == 0, "whole 16-column tiles in each query group");
  const int tid = threadIdx.x, w = tid / 32, lane = tid % 32, c = lane % 16, hi = lane / 16;
  const int qg = w / 4, tg = w % 4;
  const int kvh = blockIdx.y;
  const int32_t req = a.q_block_map[2 * blockIdx.x], qblock = a.q_block_map[2 * blockIdx.x + 1];
  const int32_t q0 = a.cu_q_lens[req], q_len = a.cu_q_lens[req + 1] - q0;
  const int32_t n = q_len - qblock * QB < QB ? q_len - qblock * QB : QB;
  const int32_t ctx = a.seq_lens[req] - q_len, first_pos = ctx + qblock * QB, last = first_pos + n - 1;

  __shared__ __attribute__((aligned(16))) uint16_t P[COLS * kPRow];
  __shared__ float wmax[4][COLS], wsum[4][COLS];
  __shared__ float m_run[COLS], l_run[COLS], alpha_s[COLS];
  if (tid < COLS) {
    m_run[tid] = kNegInf;
    l_run[tid] = 0.0f;
  }
  __syncthreads();

  // This lane's column in each of its query group's tiles: local token col/G,
  // head col%G; rows past n load the last valid row and see nothing.
  auto col_of = [&](int ct) { return (qg * CT + ct) * 16 + c; };
  auto pos_of = [&](int col) -> int32_t { return col / G < n ? first_pos + col / G : -1; };
  auto q_of = [&](int col) {
    const int lt = col / G < n ? col / G : n - 1;
    return a.q + ((int64_t)(q0 + qblock * QB + lt) * NQ + kvh * G + col % G) * HD;
  };
  const int32_t* table = a.block_table + (int64_t)req * a.row_stride;
  auto page_of = [&](int64_t tok) -> int64_t {
    const int64_t e = tok / PAGE;
    return table[e < a.row_stride - 1 ? e : a.row_stride - 1];
  };
  const uint16_t* kc = static_cast<const uint16_t*>(a.k_cache);
  const uint16_t* vc = static_cast<const uint16_t*>(a.v_cache);
  const float scale2 = a.scale * kLog2e;

  dev::f32x8 acc[DT][CT];
  for (int d = 0; d < DT; ++d)
    for (int t = 0; t < CT; ++t)
      for (int i = 0; i < 8; ++i) acc[d][t][i] = 0.0f;

  for (int32_t tile = 0; tile <= last; tile += 128) {
    // Scores S[token][column] for this wave's 32 tokens and query group.
    dev::f32x8 S[2][CT];
    for (int u = 0; u < 2; ++u)
      for (int t = 0; t < CT; ++t)
        for (int i = 0; i < 8; ++i) S[u][t][i] = 0.0f;
    int64_t kbase[2];
    for (int u = 0; u < 2; ++u) {
      const int64_t tok0 = tile + 32 * tg + 16 * u;
      kbase[u] = (page_of(tok0) * NKV + kvh) * (HD / 16) * 256 + c * 16;
    }
    // One group, one page at a time: the scores and accumulators of three
    // column tiles leave no room for a second set of operands.
#pragma unroll 1
    for (int g = 0; g < HD / 16; ++g) {
      dev::bf16x16 ka[2];
      for (int u = 0; u < 2; ++u) ka[u] = frag(kc + kbase[u] + g * 256);
      for (int t = 0; t < CT; ++t) {
        const dev::bf16x16 qb = frag(q_of(col_of(t)) + g * 16);
        for (int u = 0; u < 2; ++u) S[u][t] = dev::wmma_bf16(ka[u], qb, S[u][t]);
      }
    }
    for (int t = 0; t < CT; ++t) {
      const int col = col_of(t);
      const int32_t pos = pos_of(col);
      float mx = kNegInf;
      for (int u = 0; u < 2; ++u)
        for (int i = 0; i < 8; ++i) {
          const int32_t tok = tile + 32 * tg + 16 * u + 2 * i + hi;
          const float s = tok <= pos ? S[u][t][i] * scale2 : kNegInf;
          S[u][t][i] = s;
          mx = __builtin_fmaxf(mx, s);
        }
      mx = __builtin_fmaxf(mx, dev::shfl_xor_f(mx, 16));
      if (hi == 0) wmax[tg][col] = mx;
    }
    __syncthreads();
    if (tid < COLS) {
      const float m_old = m_run[tid];
      float m_new = m_old;
      for (int v = 0; v < 4; ++v) m_new = __builtin_fmaxf(m_new, wmax[v][tid]);
      alpha_s[tid] = m_old == kNegInf ? 0.0f : dev::exp2(m_old - m_new);
      m_run[tid] = m_new;
    }
    __syncthreads();
    for (int t = 0; t < CT; ++t) {
      const int col = col_of(t);
      const float m_new = m_run[col];
      float sum = 0.0f;
      for (int u = 0; u < 2; ++u)
        for (int i = 0; i < 8; ++i) {
          const float p = m_new == kNegInf ? 0.0f : dev::exp2(S[u][t][i] - m_new);
          sum = sum + p;
          P[pt_index(col, 32 * tg + 16 * u + 2 * i + hi)] = num::bf16_rne_quiet(p);
        }
      sum = sum + dev::shfl_xor_f(sum, 16);
      if (hi == 0) wsum[tg][col] = sum;
      const float al = alpha_s[col];
      for (int d = 0; d < DT; ++d)
        for (int i = 0; i < 8; ++i) acc[d][t][i] = acc[d][t][i] * al;
    }
    __syncthreads();
    if (tid < COLS) l_run[tid] = (((wsum[0][tid] + wsum[1][tid]) + wsum[2][tid]) + wsum[3][tid]) + l_run[tid] * alpha_s[tid];
    // O^T[dim][column] += V^T[dim][token] P[token][column]; slots past the
    // last row's position are zeroed, so an unwritten NaN cannot reach acc.
#pragma unroll 1
    for (int pw = 0; pw < 8; ++pw) {
      const int64_t first = tile + 16 * pw;
      const int64_t vp = page_of(first);
      const int keep = last - first + 1 < 16 ? (int)(last - first + 1) : 16;
      dev::bf16x16 pb[CT];
      for (int t = 0; t < CT; ++t) pb[t] = frag(&P[pt_index(col_of(t), 16 * pw)], &P[pt_index(col_of(t), 16 * pw + 8)]);
      for (int d = 0; d < DT; ++d) {
        dev::bf16x16 va = frag(vc + ((vp * NKV + kvh) * HD + tg * (HD / 4) + d * 16 + c) * PAGE);
        if (keep < 16)
          for (int e = 0; e < 16; ++e)
            if (e >= keep) va[e] = 0;
        for (int t = 0; t < CT; ++t) acc[d][t] = dev::wmma_bf16(va, pb[t], acc[d][t]);
      }
    }
  }
  __syncthreads();

#pragma unroll
  for (int t = 0; t < CT; ++t) {
    const int col = col_of(t), lt = col / G, h = col % G;
    if (lt >= n) continue;
    const float inv = 1.0f / l_run[col];
    const int64_t token = q0 + qblock * QB + lt;
#pragma unroll
    for (int d = 0; d < DT; ++d)
#pragma unroll
      for (int i = 0; i < 8; ++i) {
        const int dim = tg * (HD / 4) + d * 16 + 2 * i + hi;
        const int64_t ocol = (int64_t)(kvh * G + h) * HD + dim;
        const uint16_t o = num::bf16_rne_quiet(acc[d][t][i] * inv);
        if constexpr (GATE) {
          const float g = num::bf16_to_float(
              a.gate[(a.row_offset + token) * a.gate_row_stride + (int64_t)(kvh * G + h) * 2 * HD + HD + dim]);
          const float sig = 1.0f / (1.0f + dev::exp2(-g * kLog2e));
          a.out[gemm_core::blk32_a_offset(a.row_offset + token, ocol, (int64_t)NQ * HD) / 2] =
              num::bf16_rne_quiet(num::bf16_to_float(o) * sig);
        } else {
          a.out[token * NQ * HD + ocol] = o;
        }
      }
  }
}

template <int NQ, int NKV, int HD, bool GATE>
void run_prefill(const PrefillParams& pp, int64_t num_q_blocks, hipStream_t s) {
  launch(&paged_gqa_flash_attn_prefill_kernel<NQ, NKV, HD, 16, false, false, false, false, false, false, false, false,
                                              false, GATE>,
         dim3((unsigned)num_q_blocks, NKV), dim3(512), 0, s, pp);
}

}  // namespace pattn

int64_t prefill_q_blocks(const int32_t* q_lens, int64_t num_seqs) {
  int64_t r = 0;
  on_geometry<Qwen36MoeA3B, Qwen3627B, DeepSeekV4Flash, Qwen38FlashNext>(QUILLON_HERE, [&](auto g) {
    using G = decltype(g);
    constexpr int64_t qb = pattn::prefill_qb((int)(G::num_q_heads / G::num_kv_heads));
    for (int64_t i = 0; i < num_seqs; ++i) r += (q_lens[i] + qb - 1) / qb;
  });
  return r;
}

void prefill_q_block_map(const int32_t* q_lens, int64_t num_seqs, int32_t* map_out) {
  on_geometry<Qwen36MoeA3B, Qwen3627B, DeepSeekV4Flash, Qwen38FlashNext>(QUILLON_HERE, [&](auto g) {
    using G = decltype(g);
    constexpr int64_t qb = pattn::prefill_qb((int)(G::num_q_heads / G::num_kv_heads));
    int64_t k = 0;
    for (int64_t i = 0; i < num_seqs; ++i)
      for (int64_t b = 0; b < (q_lens[i] + qb - 1) / qb; ++b) {
        map_out[2 * k] = (int32_t)i;
        map_out[2 * k + 1] = (int32_t)b;
        ++k;
      }
  });
}

int64_t paged_prefill_max_tokens() {
  int64_t r = 0;
  on_geometry<Qwen36MoeA3B, Qwen3627B, DeepSeekV4Flash, Qwen38FlashNext>(QUILLON_HERE, [&](auto g) {
    using G = decltype(g);
    r = ((int64_t)1 << 31) / (G::num_q_heads * G::head_dim * 2);
  });
  return r;
}

void paged_attn_prefill(const void* q, const void* k_cache, const void* v_cache, void* out, const int32_t* cu_q_lens,
                        const int32_t* block_table, const int32_t* seq_lens, int64_t num_seqs, int64_t row_stride,
                        int64_t num_q_blocks, int64_t page, const int32_t* q_block_map, const void* gate,
                        int64_t gate_row_stride, int64_t row_offset, float scale, hipStream_t s) {
  check_kv_page(QUILLON_HERE, page);
  on_geometry<Qwen36MoeA3B, Qwen3627B, Qwen38FlashNext>(QUILLON_HERE, [&](auto g) {
    using G = decltype(g);
    constexpr int NQ = (int)G::num_q_heads, NKV = (int)G::num_kv_heads, HD = (int)G::head_dim;
    if (num_q_blocks <= 0) return;
    pattn::PrefillParams pp{};
    pp.q = static_cast<const uint16_t*>(q);
    pp.k_cache = k_cache;
    pp.v_cache = v_cache;
    pp.out = static_cast<uint16_t*>(out);
    pp.cu_q_lens = cu_q_lens;
    pp.block_table = block_table;
    pp.seq_lens = seq_lens;
    pp.num_seqs = num_seqs;
    pp.row_stride = row_stride;
    pp.scale = scale;
    pp.q_block_map = q_block_map;
    pp.gate = static_cast<const uint16_t*>(gate);
    pp.gate_row_stride = gate ? gate_row_stride : 0;
    pp.row_offset = gate ? row_offset : 0;
    if (gate) pattn::run_prefill<NQ, NKV, HD, true>(pp, num_q_blocks, s);
    else pattn::run_prefill<NQ, NKV, HD, false>(pp, num_q_blocks, s);
  });
}

void paged_attn_prefill_int8(int64_t page) {
  check_kv_page(QUILLON_HERE, page);
  on_geometry<Qwen36MoeA3B, Qwen3627B, Qwen38FlashNext>(QUILLON_HERE, [](auto) {});
}

}  // namespace quillon
