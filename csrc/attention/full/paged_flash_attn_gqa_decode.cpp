// Paged decode attention in three stream-ordered steps: a one-thread plan that
// cuts every (request, KV head) history into slot ranges on the device, a
// partition step with one workgroup per slot, and a reduce that merges the
// slots of an item. No length ever reaches the host.
#include "../../cache/kv_cache.h"
#include "../../device/device_config.h"
#include "../../device/geometry.h"
#include "../../platform/device.h"
#include "../../platform/fatal.h"
#include "../../platform/launch.h"
#include "../../platform/numerics.h"
#include "paged_attn.h"
#include "paged_attn_core.h"

#include <type_traits>
#include <utility>

namespace quillon {
namespace pattn {

// ---- plan ------------------------------------------------------------------------------

QDEV int64_t ceil_div(int64_t a, int64_t b) { return (a + b - 1) / b; }

__global__ __launch_bounds__(1) void paged_gqa_flash_attn_decode_plan_kernel(const int32_t* seq_lens, int32_t* plan,
                                                                             int32_t num_seqs, int32_t nkv,
                                                                             int32_t num_slots, int32_t part_tokens,
                                                                             int32_t even_split) {
  const int32_t items = num_seqs * nkv;
  int32_t* chunks = static_cast<int32_t*>(dev::dynamic_lds());
  int32_t* share = chunks + items;
  int32_t* slot_seq = plan;
  int32_t* slot_head = plan + num_slots;
  int32_t* slot_start = plan + 2 * num_slots;
  int32_t* slot_end = plan + 3 * num_slots;
  int32_t* item_first = plan + 4 * num_slots;
  int32_t* item_count = item_first + items;

  int32_t max_chunks = 1;
  for (int32_t i = 0; i < items; ++i) {
    const int64_t c = ceil_div(seq_lens[i / nkv], part_tokens);
    chunks[i] = c > 1 ? (int32_t)c : 1;
    max_chunks = chunks[i] > max_chunks ? chunks[i] : max_chunks;
  }
  if (even_split && items > 0) {
    const int32_t each = num_slots / items > 1 ? num_slots / items : 1;
    for (int32_t i = 0; i < items; ++i) share[i] = each;
  } else {
    // Smallest cap on chunks per slot that fits every item into the slots.
    int32_t lo = 1, hi = max_chunks;
    while (lo < hi) {
      const int32_t mid = lo + (hi - lo) / 2;
      int64_t need = 0;
      for (int32_t i = 0; i < items; ++i) need += ceil_div(chunks[i], mid);
      if (need > num_slots) lo = mid + 1;
      else hi = mid;
    }
    int64_t total = 0;
    for (int32_t i = 0; i < items; ++i) {
      share[i] = (int32_t)ceil_div(chunks[i], lo);
      total += share[i];
    }
    // Spare slots go to whatever item is longest per slot now.
    while (total < num_slots) {
      int64_t best = 1;
      int32_t arg = -1;
      for (int32_t i = 0; i < items; ++i) {
        const int64_t per = ceil_div(chunks[i], share[i]);
        if (per > best) best = per, arg = i;
      }
      if (arg < 0) break;
      ++share[arg];
      ++total;
    }
  }
  int32_t next = 0;
  for (int32_t i = 0; i < items; ++i) {
    const int32_t count = share[i] < num_slots - next ? share[i] : num_slots - next;
    item_first[i] = next;
    item_count[i] = count;
    const int64_t len = seq_lens[i / nkv];
    const int64_t span = ceil_div(chunks[i], share[i]) * part_tokens;
    for (int32_t j = 0; j < count; ++j) {
      const int64_t start = j * span, end = start + span < len ? start + span : len;
      slot_seq[next + j] = i / nkv;
      slot_head[next + j] = i % nkv;
      slot_start[next + j] = (int32_t)(start < 0x7fffffff ? start : 0x7fffffff);
      slot_end[next + j] = (int32_t)end;
    }
    if (count > 0) next += count;
  }
  for (int32_t j = next; j < num_slots; ++j) {
    slot_seq[j] = -1;
    slot_head[j] = 0;
    slot_start[j] = 0;
    slot_end[j] = 0;
  }
}

// ---- partition -------------------------------------------------------------------------

struct PartitionParams {
  const uint16_t* q;  // moved by row_offset already
  const int32_t* seq_lens;
  const void* k_cache;
  const void* v_cache;
  const uint16_t* k_scales;
  const uint16_t* v_scales;
  const int32_t* block_table;
  const int32_t* plan;
  float* ws;
  int64_t row_stride;
  int64_t q_stride;
  int32_t num_slots;
  float scale2;  // scale * log2(e)
};

// 16 signed bytes as bf16, exact.
QDEV dev::bf16x16 widen_i8(dev::u32x4 b) {
  dev::u32x4 lo, hi;
  for (int i = 0; i < 8; ++i) {
    const int8_t x0 = (int8_t)(b[i / 2] >> (16 * (i % 2))), x1 = (int8_t)(b[i / 2] >> (16 * (i % 2) + 8));
    const uint32_t w = (num::float_to_bits((float)x0) >> 16) | (num::float_to_bits((float)x1) & 0xffff0000u);
    if (i < 4) lo[i] = w;
    else hi[i - 4] = w;
  }
  return bf16x16_of(lo, hi);
}
// 16 key bytes of one 16-dim group times the group's scale, rounded as
// dequantised weights are.
QDEV dev::bf16x16 dequant_k(dev::u32x4 b, float s) {
  const float off = -128.0f * s;
  dev::u32x4 lo, hi;
  for (int i = 0; i < 8; ++i) {
    uint32_t w = 0;
    for (int h = 0; h < 2; ++h) {
      const uint32_t u = ((b[i / 2] >> (16 * (i % 2) + 8 * h)) & 0xffu) ^ 0x80u;
      w |= (uint32_t)num::bf16_round_dequant(__builtin_fmaf((float)u, s, off)) << (16 * h);
    }
    if (i < 4) lo[i] = w;
    else hi[i - 4] = w;
  }
  return bf16x16_of(lo, hi);
}
// 16 slots of one V dimension with the slots outside [lo, hi) of the page zeroed.
QDEV dev::bf16x16 zero_outside(dev::bf16x16 v, int lo, int hi) {
  for (int e = 0; e < 16; ++e)
    if (e < lo || e >= hi) v[e] = 0;
  return v;
}

// The P tile is XOR-swizzled at 16-byte granularity so that the column stores
// and the row reads of the second product spread over the banks.
QDEV int p_index(int row, int tok) { return row * 128 + ((((tok >> 3) ^ row) & 15) << 3) + (tok & 7); }

template <int NQ, int NKV, int HD, int PAGE, int TILE, int WAVES, bool WIDE, int Q, bool INT8, bool ALL_SEE, int ONE>
__global__ __launch_bounds__(WAVES * 32) void paged_gqa_flash_attn_decode_partition_kernel(PartitionParams a) {
  static_assert(PAGE == 16 && TILE == 16 * WAVES && TILE == 128, "a tile is one page per wave");
  constexpr int G = NQ / NKV, R = Q * G, T = (R + 15) / 16, DT = HD / 16 / WAVES;
  constexpr bool kRowMask = Q > 1 && !ALL_SEE;
  static_assert(DT >= 1 && HD % (16 * WAVES) == 0, "each wave owns whole 16-dim tiles");
  const int32_t slot = blockIdx.x, ns = a.num_slots;
  const int32_t seq = a.plan[slot];
  if (seq < 0) return;
  const int32_t kvh = a.plan[ns + slot], start = a.plan[2 * ns + slot], end = a.plan[3 * ns + slot];
  const int tid = threadIdx.x, w = tid / 32, lane = tid % 32, c = lane % 16, hi = lane / 16;
  int32_t seq_len = 0;
  if constexpr (kRowMask) seq_len = a.seq_lens[seq];

  __shared__ __attribute__((aligned(16))) uint16_t P[T][16 * TILE];
  __shared__ float wmax[T][WAVES][16], wsum[T][WAVES][16];
  __shared__ float m_run[T][16], l_run[T][16], alpha_s[T][16];
  if (tid < 16 * T) {
    m_run[tid / 16][tid % 16] = kNegInf;
    l_run[tid / 16][tid % 16] = 0.0f;
  }
  __syncthreads();

  // Query row of this lane in row tile t; rows past R repeat the last one.
  const uint16_t* qbase = a.q + ((int64_t)seq * a.q_stride * NQ + kvh * G) * HD;
  auto qrow = [&](int t) {
    const int rr = t * 16 + c < R ? t * 16 + c : R - 1;
    return qbase + ((rr / G) * NQ + rr % G) * HD;
  };
  // One past the last token accumulator row i of tile t may see: with Q > 1,
  // query row r sees pos < seq_len - (Q-1-r).
  auto row_lim = [&](int t, int i) -> int64_t {
    const int rr = t * 16 + 2 * i + hi < R ? t * 16 + 2 * i + hi : R - 1;
    return kRowMask ? seq_len - (Q - 1 - rr / G) : 0x7fffffff;
  };

  dev::f32x8 acc[T][DT];
  for (int t = 0; t < T; ++t)
    for (int j = 0; j < DT; ++j)
      for (int i = 0; i < 8; ++i) acc[t][j][i] = 0.0f;

  const int32_t* table = a.block_table + (int64_t)seq * a.row_stride;
  const int64_t last_entry = a.row_stride - 1;
  auto page_of = [&](int64_t tok) -> int64_t {
    const int64_t e = tok / PAGE;
    return table[e < last_entry ? e : last_entry];
  };
  using Elem = typename std::conditional<INT8, int8_t, uint16_t>::type;
  const Elem* kc = static_cast<const Elem*>(a.k_cache);
  const Elem* vc = static_cast<const Elem*>(a.v_cache);

  // Ranges of any granularity: tiles start on a page boundary and tokens
  // before `start` are masked like those at or past `end`.
  for (int64_t tb = start / PAGE * PAGE; tb < end; tb += TILE) {
    const bool full = tb >= start && tb + TILE <= end && (!kRowMask || tb + TILE <= seq_len - (Q - 1));
    const int64_t my_tok = tb + 16 * w + c;
    const int64_t pg = page_of(tb + 16 * w);
    const bool tok_ok = my_tok >= start && my_tok < end;

    // Scores, tokens along the columns: S[row][token] over HD/16 groups.
    dev::f32x8 S[T];
    for (int t = 0; t < T; ++t)
      for (int i = 0; i < 8; ++i) S[t][i] = 0.0f;
    const int64_t kbase = (pg * NKV + kvh) * (HD / 16) * 256 + c * 16;
    dev::u32x4 ksc = {0, 0, 0, 0};
    float vscale = 0.0f;
    if constexpr (INT8) {
      ksc = ld16(a.k_scales + ((pg * PAGE + c) * NKV + kvh) * (HD / 32));
      vscale = num::bf16_to_float(a.v_scales[(pg * NKV + kvh) * PAGE + c]);
    }
    // Two groups in flight: unrolled further, the loads of every group are
    // hoisted and the row tiles' accumulators no longer fit.
#pragma unroll 2
    for (int g = 0; g < HD / 16; ++g) {
      dev::bf16x16 kb;
      if constexpr (INT8) {
        const uint16_t sbits = (uint16_t)(ksc[g / 4] >> (16 * ((g / 2) % 2)));
        kb = dequant_k(ld16(kc + kbase + g * 256), num::bf16_to_float(sbits));
      } else {
        kb = frag(kc + kbase + g * 256);
      }
      for (int t = 0; t < T; ++t) {
        const uint16_t* qr = qrow(t) + g * 16;
        const dev::bf16x16 qa = frag(qr);
        S[t] = dev::wmma_bf16(qa, kb, S[t]);
      }
    }
    for (int t = 0; t < T; ++t)
      for (int i = 0; i < 8; ++i) {
        float s = S[t][i] * a.scale2;
        if (!full && !(tok_ok && my_tok < row_lim(t, i))) s = kNegInf;
        S[t][i] = s;
        float mx = s;
        for (int m = 1; m < 16; m <<= 1) mx = __builtin_fmaxf(mx, dev::shfl_xor_f(mx, m));
        if (c == 0) wmax[t][w][2 * i + hi] = mx;
      }
    __syncthreads();
    if (tid < 16 * T) {
      const int t = tid / 16, r = tid % 16;
      const float m_old = m_run[t][r];
      float m_new = m_old;
      for (int v = 0; v < WAVES; ++v) m_new = __builtin_fmaxf(m_new, wmax[t][v][r]);
      alpha_s[t][r] = m_old == kNegInf ? 0.0f : dev::exp2(m_old - m_new);
      m_run[t][r] = m_new;
    }
    __syncthreads();
    for (int t = 0; t < T; ++t)
      for (int i = 0; i < 8; ++i) {
        const int r = 2 * i + hi;
        const float m_new = m_run[t][r];
        float p = m_new == kNegInf ? 0.0f : dev::exp2(S[t][i] - m_new);
        float sum = p;
        for (int m = 1; m < 16; m <<= 1) sum = sum + dev::shfl_xor_f(sum, m);
        if (c == 0) wsum[t][w][r] = sum;
        // int8: the V scale enters the numerator only, after the sums.
        if constexpr (INT8) p = tok_ok ? p * vscale : 0.0f;
        P[t][p_index(r, 16 * w + c)] = num::bf16_rne_quiet(p);
        const float al = alpha_s[t][r];
        for (int j = 0; j < DT; ++j) acc[t][j][i] = acc[t][j][i] * al;
      }
    __syncthreads();
    if (tid < 16 * T) {
      const int t = tid / 16, r = tid % 16;
      float sum = wsum[t][0][r];
      for (int v = 1; v < WAVES; ++v) sum = sum + wsum[t][v][r];
      l_run[t][r] = sum + l_run[t][r] * alpha_s[t][r];
    }
    // Values: wave w owns dims 16*DT*w .. ; each page's 16 slots of a dim are
    // one B operand straight from the pool.
#pragma unroll 2
    for (int pw = 0; pw < WAVES; ++pw) {
      const int64_t vp = page_of(tb + 16 * pw);
      const int64_t first = tb + 16 * pw;
      const int lo = full ? 0 : (int)(start - first > 0 ? (start - first < 16 ? start - first : 16) : 0);
      const int hi_e = full ? 16 : (int)(end - first < 16 ? (end - first > 0 ? end - first : 0) : 16);
      dev::bf16x16 vb[DT];
      for (int j = 0; j < DT; ++j) {
        const int d = (w * DT + j) * 16 + c;
        const Elem* row = vc + ((vp * NKV + kvh) * HD + d) * PAGE;
        if constexpr (INT8) vb[j] = widen_i8(ld16(row));
        else vb[j] = frag(row);
        if (!full) vb[j] = zero_outside(vb[j], lo, hi_e);
      }
      for (int t = 0; t < T; ++t) {
        const dev::bf16x16 pa = frag(&P[t][p_index(c, 16 * pw)], &P[t][p_index(c, 16 * pw + 8)]);
        for (int j = 0; j < DT; ++j) acc[t][j] = dev::wmma_bf16(pa, vb[j], acc[t][j]);
      }
    }
  }

  // Unnormalised partials at the slot's place; an empty range leaves -inf, 0, 0.
  float* ws_m = a.ws;
  float* ws_l = a.ws + (int64_t)ns * R;
  float* ws_acc = a.ws + 2 * (int64_t)ns * R;
  if (tid < 16 * T && tid < R) {
    ws_m[(int64_t)slot * R + tid] = m_run[tid / 16][tid % 16];
    ws_l[(int64_t)slot * R + tid] = l_run[tid / 16][tid % 16];
  }
  for (int t = 0; t < T; ++t)
    for (int i = 0; i < 8; ++i) {
      const int rr = t * 16 + 2 * i + hi;
      if (rr >= R) continue;
      for (int j = 0; j < DT; ++j) ws_acc[((int64_t)slot * R + rr) * HD + (w * DT + j) * 16 + c] = acc[t][j][i];
    }
}

// ---- reduce ----------------------------------------------------------------------------

template <int NQ, int NKV, int HD, int THREADS, int Q>
__global__ __launch_bounds__(THREADS) void paged_gqa_flash_attn_decode_reduce_kernel(
    const int32_t* plan, const float* ws, uint16_t* out, int32_t num_slots, int64_t q_stride) {
  constexpr int G = NQ / NKV, R = Q * G;
  const int32_t b = blockIdx.x, kvh = blockIdx.y, rr = blockIdx.z, d = threadIdx.x;
  const int32_t items = (int32_t)gridDim.x * NKV, item = b * NKV + kvh;
  const int32_t first = plan[4 * num_slots + item], n = plan[4 * num_slots + items + item];
  const float* ws_m = ws;
  const float* ws_l = ws + (int64_t)num_slots * R;
  const float* ws_acc = ws + 2 * (int64_t)num_slots * R;

  float mx = kNegInf;
  for (int i = d; i < n; i += THREADS) mx = __builtin_fmaxf(mx, ws_m[(int64_t)(first + i) * R + rr]);
  for (int m = 1; m < 32; m <<= 1) mx = __builtin_fmaxf(mx, dev::shfl_xor_f(mx, m));
  __shared__ float wave_max[THREADS / 32];
  if (d % 32 == 0) wave_max[d / 32] = mx;
  __syncthreads();
  float M = wave_max[0];
  for (int v = 1; v < THREADS / 32; ++v) M = __builtin_fmaxf(M, wave_max[v]);

  float L = 0.0f, A = 0.0f;
  for (int i = 0; i < n; ++i) {
    const int64_t at = (int64_t)(first + i) * R + rr;
    const float l = ws_l[at];
    if (!(l > 0.0f)) continue;
    const float e = dev::exp2(ws_m[at] - M);
    L = L + l * e;
    A = A + ws_acc[at * HD + d] * e;
  }
  const float o = L > 0.0f ? A / L : 0.0f;
  out[(((int64_t)b * q_stride + rr / G) * NQ + kvh * G + rr % G) * HD + d] = num::bf16_rne_quiet(o);
}

// ---- host ------------------------------------------------------------------------------

constexpr int kWaves = 8;

template <int NQ, int NKV, int HD, int Q, bool INT8, bool ALL_SEE>
void run_decode(const PartitionParams& pp, uint16_t* out, int64_t num_seqs, int64_t num_slots, hipStream_t s) {
  launch(&paged_gqa_flash_attn_decode_partition_kernel<NQ, NKV, HD, 16, 128, kWaves, true, Q, INT8, ALL_SEE, 1>,
         dim3((unsigned)num_slots), dim3(kWaves * 32), 0, s, pp);
  constexpr int R = Q * (NQ / NKV);
  launch(&paged_gqa_flash_attn_decode_reduce_kernel<NQ, NKV, HD, HD, Q>, dim3((unsigned)num_seqs, NKV, R), dim3(HD),
         0, s, pp.plan, static_cast<const float*>(pp.ws), out, (int32_t)num_slots, pp.q_stride);
}

// Q as a template argument, from the runtime row count.
template <int... Qs, class F>
void on_q(int64_t q, F&& f, std::integer_sequence<int, Qs...>) {
  (void)((q == Qs ? (f(std::integral_constant<int, Qs>{}), true) : false) || ...);
}

void launch_plan(const int32_t* seq_lens, int32_t* plan, int64_t num_seqs, int64_t nkv, int64_t num_slots,
                 int64_t part_tokens, int32_t even_split, hipStream_t s) {
  launch(&paged_gqa_flash_attn_decode_plan_kernel, dim3(1), dim3(1), (size_t)(8 * num_seqs * nkv), s, seq_lens, plan,
         (int32_t)num_seqs, (int32_t)nkv, (int32_t)num_slots, (int32_t)part_tokens, even_split);
}

PartitionParams params_of(const void* q, const int32_t* seq_lens, const void* k_cache, const void* v_cache,
                          const void* k_scales, const void* v_scales, const int32_t* block_table, const int32_t* plan,
                          void* workspace, int64_t row_stride, int64_t num_slots, int64_t q_stride,
                          int64_t row_offset, int64_t token_elems, float scale) {
  PartitionParams pp{};
  pp.q = static_cast<const uint16_t*>(q) + row_offset * token_elems;
  pp.seq_lens = seq_lens;
  pp.k_cache = k_cache;
  pp.v_cache = v_cache;
  pp.k_scales = static_cast<const uint16_t*>(k_scales);
  pp.v_scales = static_cast<const uint16_t*>(v_scales);
  pp.block_table = block_table;
  pp.plan = plan;
  pp.ws = static_cast<float*>(workspace);
  pp.row_stride = row_stride;
  pp.q_stride = q_stride;
  pp.num_slots = (int32_t)num_slots;
  pp.scale2 = scale * kLog2e;
  return pp;
}

}  // namespace pattn

int64_t paged_decode_num_slots(int64_t num_seqs) {
  int64_t r = 0;
  on_geometry<Qwen36MoeA3B, Qwen3627B, Qwen38FlashNext>(QUILLON_HERE, [&](auto g) {
    const int64_t items = num_seqs * decltype(g)::num_kv_heads, cus = num_cus();
    r = items > cus ? items : cus;
    r = r > 1 ? r : 1;
  });
  return r;
}

int64_t paged_decode_plan_elems(int64_t num_seqs, int64_t num_slots) {
  int64_t r = 0;
  on_geometry<Qwen36MoeA3B, Qwen3627B, Qwen38FlashNext>(
      QUILLON_HERE, [&](auto g) { r = 4 * num_slots + 2 * num_seqs * decltype(g)::num_kv_heads; });
  return r;
}

int64_t paged_decode_workspace_size(int64_t num_slots, int64_t q_rows) {
  int64_t r = 0;
  on_geometry<Qwen36MoeA3B, Qwen3627B, Qwen38FlashNext>(QUILLON_HERE, [&](auto g) {
    using G = decltype(g);
    r = num_slots * q_rows * (G::num_q_heads / G::num_kv_heads) * (G::head_dim + 2) * 4;
  });
  return r;
}

void paged_attn_decode_plan(const int32_t* seq_lens, int32_t* plan, int64_t num_seqs, int64_t num_slots,
                            int64_t part_tokens, int32_t even_split, hipStream_t s) {
  on_geometry<Qwen36MoeA3B, Qwen3627B, Qwen38FlashNext>(QUILLON_HERE, [&](auto g) {
    using G = decltype(g);
    const int64_t items = num_seqs * G::num_kv_heads, limit = G::num_kv_heads == 4 ? 1024 : 2048;
    QUILLON_CHECK(num_slots >= items,
                  "decode plan needs num_slots >= %lld for %lld requests (got %lld); size it with "
                  "paged_decode_num_slots()",
                  (long long)items, (long long)num_seqs, (long long)num_slots);
    QUILLON_CHECK(num_seqs <= limit, "decode plan takes at most %lld requests in one call (got %lld)",
                  (long long)limit, (long long)num_seqs);
    pattn::launch_plan(seq_lens, plan, num_seqs, G::num_kv_heads, num_slots, part_tokens, even_split, s);
  });
}

void paged_attn_decode(const void* q, const int32_t* seq_lens, const void* k_cache, const void* v_cache,
                       const void* k_scales, const void* v_scales, bool int8, void* out, const int32_t* block_table,
                       const int32_t* plan, int64_t num_seqs, int64_t row_stride, int64_t num_slots, void* workspace,
                       int64_t q_rows, int64_t page, int64_t q_stride, int64_t row_offset, float scale,
                       hipStream_t s) {
  check_kv_page(QUILLON_HERE, page);
  on_geometry<Qwen36MoeA3B, Qwen3627B, Qwen38FlashNext>(QUILLON_HERE, [&](auto g) {
    using G = decltype(g);
    constexpr int NQ = (int)G::num_q_heads, NKV = (int)G::num_kv_heads, HD = (int)G::head_dim;
    QUILLON_CHECK(q_rows >= 1 && q_rows <= kPagedDecodeMaxQ, "paged decode takes 1..%lld query rows (got %lld)",
                  (long long)kPagedDecodeMaxQ, (long long)q_rows);
    if (num_seqs <= 0 || num_slots <= 0) return;
    const int64_t qs = q_stride == 0 ? q_rows : q_stride;
    const pattn::PartitionParams pp =
        pattn::params_of(q, seq_lens, k_cache, v_cache, k_scales, v_scales, block_table, plan, workspace, row_stride,
                         num_slots, qs, row_offset, NQ * HD, scale);
    uint16_t* o = static_cast<uint16_t*>(out) + row_offset * NQ * HD;
    pattn::on_q(
        q_rows,
        [&](auto qc) {
          constexpr int Q = decltype(qc)::value;
          if (int8) pattn::run_decode<NQ, NKV, HD, Q, true, false>(pp, o, num_seqs, num_slots, s);
          else pattn::run_decode<NQ, NKV, HD, Q, false, false>(pp, o, num_seqs, num_slots, s);
        },
        std::integer_sequence<int, 1, 2, 3, 4, 5, 6, 7, 8>{});
  });
}

int64_t draft_paged_decode_workspace_size(int64_t num_slots, int64_t q_rows) {
  return num_slots * q_rows * 4 * (128 + 2) * 4;
}

void draft_paged_attn_decode_plan(const int32_t* seq_lens, int32_t* plan, int64_t num_seqs, int64_t num_slots,
                                  int64_t part_tokens, int32_t even_split, hipStream_t s) {
  pattn::launch_plan(seq_lens, plan, num_seqs, kDraftKvHeads, num_slots, part_tokens, even_split, s);
}

void draft_paged_attn_decode(const void* q, const void* k_cache, const void* v_cache, void* out,
                             const int32_t* block_table, const int32_t* plan, int64_t num_seqs, int64_t row_stride,
                             int64_t num_slots, void* workspace, int64_t q_rows, int64_t page, int64_t q_stride,
                             int64_t row_offset, float scale, hipStream_t s) {
  check_kv_page(QUILLON_HERE, page);
  QUILLON_CHECK(q_rows == 1 || q_rows == 4 || q_rows == 8 || q_rows == 16,
                "draft paged decode takes 1, 4, 8 or 16 query rows (got %lld)", (long long)q_rows);
  if (num_seqs <= 0 || num_slots <= 0) return;
  const int64_t qs = q_stride == 0 ? q_rows : q_stride;
  const pattn::PartitionParams pp = pattn::params_of(q, nullptr, k_cache, v_cache, nullptr, nullptr, block_table,
                                                     plan, workspace, row_stride, num_slots, qs, row_offset,
                                                     32 * 128, scale);
  uint16_t* o = static_cast<uint16_t*>(out) + row_offset * 32 * 128;
  pattn::on_q(
      q_rows,
      [&](auto qc) {
        pattn::run_decode<32, 8, 128, decltype(qc)::value, false, true>(pp, o, num_seqs, num_slots, s);
      },
      std::integer_sequence<int, 1, 4, 8, 16>{});
}

}  // namespace quillon
