// Plain CPU reference of paged decode attention: the device plan, the
// partition and reduce steps in the device's fixed order (matrix products as
// 16-term fused chains from zero added to the running sum, row sums as a
// pairwise tree over a page's 16 tokens, waves added in order), and a double
// precision softmax that bounds the method's error.
#pragma once
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "hw_math.h"
#include "kv_cache_ref.h"
#include "ref_bits.h"

namespace ref {

struct Plan {
  std::vector<int32_t> slot_seq, slot_head, slot_start, slot_end, item_first, item_count;
  std::vector<int32_t> flat() const {
    std::vector<int32_t> f;
    for (const auto* a : {&slot_seq, &slot_head, &slot_start, &slot_end, &item_first, &item_count})
      f.insert(f.end(), a->begin(), a->end());
    return f;
  }
};

inline int64_t cdiv(int64_t a, int64_t b) { return (a + b - 1) / b; }

inline Plan decode_plan(const std::vector<int32_t>& seq_lens, int64_t nkv, int64_t num_slots, int64_t part,
                        bool even) {
  const int64_t items = (int64_t)seq_lens.size() * nkv;
  std::vector<int64_t> chunks(items), share(items);
  int64_t max_chunks = 1;
  for (int64_t i = 0; i < items; ++i) {
    chunks[i] = std::max<int64_t>(cdiv(seq_lens[i / nkv], part), 1);
    max_chunks = std::max(max_chunks, chunks[i]);
  }
  if (even) {
    for (auto& s : share) s = std::max<int64_t>(items ? num_slots / items : 1, 1);
  } else {
    auto need = [&](int64_t cap) {
      int64_t n = 0;
      for (int64_t c : chunks) n += cdiv(c, cap);
      return n;
    };
    int64_t lo = 1, hi = max_chunks;
    while (lo < hi) {
      const int64_t mid = lo + (hi - lo) / 2;
      if (need(mid) > num_slots) lo = mid + 1;
      else hi = mid;
    }
    int64_t total = 0;
    for (int64_t i = 0; i < items; ++i) total += share[i] = cdiv(chunks[i], lo);
    while (total < num_slots) {
      int64_t best = 1, arg = -1;
      for (int64_t i = 0; i < items; ++i)
        if (cdiv(chunks[i], share[i]) > best) best = cdiv(chunks[i], share[i]), arg = i;
      if (arg < 0) break;
      ++share[arg], ++total;
    }
  }
  Plan p;
  p.slot_seq.assign(num_slots, -1);
  p.slot_head.assign(num_slots, 0);
  p.slot_start.assign(num_slots, 0);
  p.slot_end.assign(num_slots, 0);
  int64_t next = 0;
  for (int64_t i = 0; i < items; ++i) {
    const int64_t count = std::min(share[i], num_slots - next), span = cdiv(chunks[i], share[i]) * part;
    p.item_first.push_back((int32_t)next);
    p.item_count.push_back((int32_t)count);
    for (int64_t j = 0; j < count; ++j) {
      p.slot_seq[next + j] = (int32_t)(i / nkv);
      p.slot_head[next + j] = (int32_t)(i % nkv);
      p.slot_start[next + j] = (int32_t)(j * span);
      p.slot_end[next + j] = (int32_t)std::min<int64_t>(j * span + span, seq_lens[i / nkv]);
    }
    next += std::max<int64_t>(count, 0);
  }
  return p;
}

// One decode call's inputs, pools in the layout of the KV cache.
struct DecodeCase {
  int64_t nq, nkv, hd, q_rows, q_stride;
  bool int8 = false, all_see = false;
  float scale;
  std::vector<uint16_t> q;  // [token][nq][hd] behind row_offset
  std::vector<int32_t> seq_lens, table;
  int64_t row_stride;
  std::vector<uint16_t> k16, v16;      // bf16 pools
  std::vector<int8_t> k8, v8;          // int8 pools
  std::vector<uint16_t> ks, vs;        // their scales

  KvShape shape() const { return {nkv, hd}; }
  int64_t page_of(int64_t seq, int64_t tok) const {
    return table[(size_t)(seq * row_stride + std::min(tok / 16, row_stride - 1))];
  }
  // Key as the matrix instruction sees it (int8: dequantised and rounded).
  float key(int64_t seq, int64_t h, int64_t tok, int64_t d) const {
    const int64_t p = page_of(seq, tok), at = kv_k_index(shape(), p, h, d, tok % 16);
    if (!int8) return widen(k16[(size_t)at]);
    const float s = widen(ks[(size_t)(((p * 16 + tok % 16) * nkv + h) * (hd / 32) + d / 32)]);
    const float u = (float)(uint8_t)((uint8_t)k8[(size_t)at] ^ 0x80u);
    return widen((uint16_t)((to_bits(std::fma(u, s, -128.0f * s)) + 0x8000u) >> 16));
  }
  // Key as stored: bf16, or the int8 byte times its scale.
  double key_stored(int64_t seq, int64_t h, int64_t tok, int64_t d) const {
    const int64_t p = page_of(seq, tok), at = kv_k_index(shape(), p, h, d, tok % 16);
    return int8 ? (double)k8[(size_t)at] * widen(ks[(size_t)(((p * 16 + tok % 16) * nkv + h) * (hd / 32) + d / 32)])
                : widen(k16[(size_t)at]);
  }
  // Value operand (int8: the byte; its scale goes with p).
  float value(int64_t seq, int64_t h, int64_t tok, int64_t d) const {
    const int64_t p = page_of(seq, tok), at = kv_v_index(shape(), p, h, d, tok % 16);
    return int8 ? (float)v8[(size_t)at] : widen(v16[(size_t)at]);
  }
  float v_scale(int64_t seq, int64_t h, int64_t tok) const {
    return int8 ? widen(vs[(size_t)((page_of(seq, tok) * nkv + h) * 16 + tok % 16)]) : 1.0f;
  }
  float qv(int64_t seq, int64_t rr, int64_t h, int64_t d) const {
    const int64_t g = nq / nkv;
    return widen(q[(size_t)(((seq * q_stride + rr / g) * nq + h * g + rr % g) * hd + d)]);
  }
  // Last position + 1 that row r of a request of length len may see.
  int64_t row_limit(int64_t len, int64_t r) const {
    return (q_rows > 1 && !all_see) ? len - (q_rows - 1 - r) : std::numeric_limits<int64_t>::max();
  }
};

inline uint16_t round_bf16_quiet(float f) {
  const uint32_t u = to_bits(f);
  if ((u & 0x7fffffffu) > 0x7f800000u) return (uint16_t)((u >> 16) | 0x40u);
  return round_bf16(f);
}

// Sum of 16 values as a pairwise tree over neighbours.
inline float tree16(const float* v) {
  float a[16];
  std::copy(v, v + 16, a);
  for (int w = 1; w < 16; w *= 2)
    for (int i = 0; i < 16; i += 2 * w) a[i] = a[i] + a[i + w];
  return a[0];
}

// q.k of one token as the matrix instruction forms it: 16-term fused chains
// from zero, added in order.
template <class Q>
inline float dot_hw(const DecodeCase& c, int64_t seq, int64_t h, int64_t tok, Q q) {
  float acc = 0.0f;
  for (int64_t g = 0; g < c.hd / 16; ++g) {
    float d = 0.0f;
    for (int e = 0; e < 16; ++e) d = std::fma(q(16 * g + e), c.key(seq, h, tok, 16 * g + e), d);
    acc = acc + d;
  }
  return acc;
}

// One 128-token tile of the online softmax of one row: s holds the scaled,
// masked scores; `sum` adds the tile's p in the kernel's order; p times
// `pmul` is rounded to bf16 and multiplies `value(k, d)`.
template <class Sum, class PMul, class Value>
inline void online_tile(const float* s, int64_t hd, float& m, float& l, float* acc, Sum sum, PMul pmul, Value value) {
  const float ninf = -std::numeric_limits<float>::infinity();
  float m_new = m, p[128], pb[128];
  for (int k = 0; k < 128; ++k) m_new = std::fmax(m_new, s[k]);
  const float alpha = m == ninf ? 0.0f : hw_exp2(m - m_new);
  for (int k = 0; k < 128; ++k) p[k] = m_new == ninf ? 0.0f : hw_exp2(s[k] - m_new);
  l = sum(p) + l * alpha;
  m = m_new;
  for (int k = 0; k < 128; ++k) pb[k] = widen(round_bf16_quiet(pmul(k, p[k])));
  for (int64_t d = 0; d < hd; ++d) {
    float a = acc[d] * alpha;
    for (int pw = 0; pw < 8; ++pw) {
      float dd = 0.0f;
      for (int e = 0; e < 16; ++e) dd = std::fma(pb[16 * pw + e], value(16 * pw + e, d), dd);
      a = a + dd;
    }
    acc[d] = a;
  }
}

struct Partial {
  std::vector<float> m, l, acc;  // [row], [row], [row][hd]
};

// The slot's partial for all R rows, in the device's order.
inline Partial decode_slot(const DecodeCase& c, int64_t seq, int64_t h, int64_t start, int64_t end) {
  const int64_t G = c.nq / c.nkv, R = c.q_rows * G, HD = c.hd;
  const float ninf = -std::numeric_limits<float>::infinity(), scale2 = c.scale * 1.4426950216f;
  Partial P{std::vector<float>(R, ninf), std::vector<float>(R, 0.0f), std::vector<float>(R * HD, 0.0f)};
  const int64_t len = c.q_rows > 1 && !c.all_see ? c.seq_lens[(size_t)seq] : 0;
  auto sum = [](const float* p) {
    float s = tree16(p);
    for (int w = 1; w < 8; ++w) s = s + tree16(p + 16 * w);
    return s;
  };
  for (int64_t tb = start / 16 * 16; tb < end; tb += 128) {
    const bool full = tb >= start && tb + 128 <= end && (c.q_rows == 1 || c.all_see || tb + 128 <= len - (c.q_rows - 1));
    auto in = [&](int64_t tok) { return tok >= start && tok < end; };
    for (int64_t rr = 0; rr < R; ++rr) {
      float s[128];
      for (int k = 0; k < 128; ++k) {
        const int64_t tok = tb + k;
        const float dot = dot_hw(c, seq, h, tok, [&](int64_t d) { return c.qv(seq, rr, h, d); });
        s[k] = full || (in(tok) && tok < c.row_limit(len, rr / G)) ? dot * scale2 : ninf;
      }
      online_tile(
          s, HD, P.m[rr], P.l[rr], &P.acc[rr * HD], sum,
          [&](int k, float x) { return !c.int8 ? x : in(tb + k) ? x * c.v_scale(seq, h, tb + k) : 0.0f; },
          [&](int k, int64_t d) { return full || in(tb + k) ? c.value(seq, h, tb + k, d) : 0.0f; });
    }
  }
  return P;
}

// Every output row of the call: [num_seqs * q_stride tokens][nq][hd]; rows
// no request writes keep `fill`.
inline std::vector<uint16_t> decode_exact(const DecodeCase& c, const Plan& plan, uint16_t fill) {
  const int64_t G = c.nq / c.nkv, R = c.q_rows * G, HD = c.hd, ns = (int64_t)c.seq_lens.size();
  std::vector<uint16_t> out((size_t)(ns * c.q_stride * c.nq * HD), fill);
  std::vector<Partial> parts(plan.slot_seq.size());
  for (size_t j = 0; j < parts.size(); ++j)
    if (plan.slot_seq[j] >= 0)
      parts[j] = decode_slot(c, plan.slot_seq[j], plan.slot_head[j], plan.slot_start[j], plan.slot_end[j]);
  for (int64_t b = 0; b < ns; ++b)
    for (int64_t h = 0; h < c.nkv; ++h) {
      const int64_t item = b * c.nkv + h, first = plan.item_first[item], n = plan.item_count[item];
      for (int64_t rr = 0; rr < R; ++rr) {
        float M = -std::numeric_limits<float>::infinity();
        for (int64_t i = 0; i < n; ++i) M = std::fmax(M, parts[first + i].m[rr]);
        float L = 0.0f;
        std::vector<float> A(HD, 0.0f);
        for (int64_t i = 0; i < n; ++i) {
          const Partial& p = parts[first + i];
          if (!(p.l[rr] > 0.0f)) continue;
          const float e = hw_exp2(p.m[rr] - M);
          L = L + p.l[rr] * e;
          for (int64_t d = 0; d < HD; ++d) A[d] = A[d] + p.acc[rr * HD + d] * e;
        }
        for (int64_t d = 0; d < HD; ++d)
          out[(size_t)(((b * c.q_stride + rr / G) * c.nq + h * G + rr % G) * HD + d)] =
              round_bf16_quiet(L > 0.0f ? A[d] / L : 0.0f);
      }
    }
  return out;
}

// Softmax in double of one query row over tokens [0, lim) of request b's
// head h (int8 keys: byte times scale), into out[0, hd); vmax gets the
// largest |v| it saw, for the error bound.
template <class Q>
inline void attend_double(const DecodeCase& c, int64_t b, int64_t h, int64_t lim, Q q, double* out, double& vmax) {
  std::vector<double> s;
  for (int64_t t = 0; t < lim; ++t) {
    double dot = 0.0;
    for (int64_t d = 0; d < c.hd; ++d) dot += (double)q(d) * c.key_stored(b, h, t, d);
    s.push_back(dot * c.scale);
  }
  if (s.empty()) return;
  const double mx = *std::max_element(s.begin(), s.end());
  double l = 0.0;
  for (double& x : s) l += x = std::exp(x - mx);
  for (int64_t t = 0; t < lim; ++t)
    for (int64_t d = 0; d < c.hd; ++d) {
      const double v = (double)c.value(b, h, t, d) * c.v_scale(b, h, t);
      out[d] += s[t] / l * v;
      vmax = std::max(vmax, std::fabs(v));
    }
}

inline void decode_double(const DecodeCase& c, std::vector<double>& out, std::vector<double>& vmax) {
  const int64_t G = c.nq / c.nkv, ns = (int64_t)c.seq_lens.size();
  out.assign((size_t)(ns * c.q_stride * c.nq * c.hd), 0.0);
  vmax.assign(out.size() / c.hd, 0.0);
  for (int64_t b = 0; b < ns; ++b)
    for (int64_t h = 0; h < c.nkv; ++h)
      for (int64_t rr = 0; rr < c.q_rows * G; ++rr) {
        const int64_t len = c.seq_lens[(size_t)b], lim = std::min(len, c.row_limit(len, rr / G));
        const size_t row = (size_t)((b * c.q_stride + rr / G) * c.nq + h * G + rr % G);
        attend_double(c, b, h, lim, [&](int64_t d) { return c.qv(b, rr, h, d); }, &out[row * c.hd], vmax[row]);
      }
}

}  // namespace ref

namespace ref {

// Prefill of one batch: requests with their query rows in q [token][nq][hd],
// pools and table as in decode (DecodeCase carries them; q_rows unused).
struct PrefillCase {
  DecodeCase pool;              // nq, nkv, hd, scale, seq_lens, table, row_stride, k16, v16
  std::vector<int32_t> cu_q;    // num_seqs + 1
  std::vector<uint16_t> q;      // [cu_q.back()][nq][hd]
  int64_t qb;
};

inline std::vector<std::pair<int32_t, int32_t>> q_block_map(const std::vector<int32_t>& q_lens, int64_t qb) {
  std::vector<std::pair<int32_t, int32_t>> m;
  for (size_t i = 0; i < q_lens.size(); ++i)
    for (int64_t b = 0; b < cdiv(q_lens[i], qb); ++b) m.push_back({(int32_t)i, (int32_t)b});
  return m;
}

// Plain rows in the kernel's order: tiles of 128 from 0 to the block's last
// position, per 32-token group two interleaved running sums (even and odd
// tokens) added, groups added in order.
inline std::vector<uint16_t> prefill_exact(const PrefillCase& c, uint16_t fill) {
  const DecodeCase& k = c.pool;
  const int64_t G = k.nq / k.nkv, HD = k.hd;
  const float ninf = -std::numeric_limits<float>::infinity(), scale2 = k.scale * 1.4426950216f;
  auto sum = [](const float* p) {
    float groups[4];
    for (int tg = 0; tg < 4; ++tg) {
      float half[2] = {0.0f, 0.0f};
      for (int hi = 0; hi < 2; ++hi)
        for (int i = 0; i < 16; ++i) half[hi] = half[hi] + p[32 * tg + 2 * i + hi];
      groups[tg] = half[0] + half[1];
    }
    return ((groups[0] + groups[1]) + groups[2]) + groups[3];
  };
  std::vector<uint16_t> out(c.q.size(), fill);
  for (int64_t b = 0; b + 1 < (int64_t)c.cu_q.size(); ++b) {
    const int64_t q_len = c.cu_q[b + 1] - c.cu_q[b], ctx = k.seq_lens[b] - q_len;
    for (int64_t blk = 0; blk < cdiv(q_len, c.qb); ++blk) {
      const int64_t n = std::min(c.qb, q_len - blk * c.qb), last = ctx + blk * c.qb + n - 1;
      for (int64_t lt = 0; lt < n; ++lt)
        for (int64_t hq = 0; hq < k.nq; ++hq) {
          const int64_t token = c.cu_q[b] + blk * c.qb + lt, pos = ctx + blk * c.qb + lt, h = hq / G;
          const uint16_t* qr = &c.q[(size_t)((token * k.nq + hq) * HD)];
          auto q = [&](int64_t d) { return widen(qr[d]); };
          float m = ninf, l = 0.0f, s[128];
          std::vector<float> acc(HD, 0.0f);
          for (int64_t tile = 0; tile <= last; tile += 128) {
            for (int t = 0; t < 128; ++t) s[t] = tile + t <= pos ? dot_hw(k, b, h, tile + t, q) * scale2 : ninf;
            online_tile(
                s, HD, m, l, acc.data(), sum, [](int, float x) { return x; },
                [&](int t, int64_t d) { return tile + t <= last ? k.value(b, h, tile + t, d) : 0.0f; });
          }
          for (int64_t d = 0; d < HD; ++d)
            out[(size_t)((token * k.nq + hq) * HD + d)] = round_bf16_quiet(acc[d] * (1.0f / l));
        }
    }
  }
  return out;
}

// Causal softmax in double, and the largest |v| of each row's history.
inline void prefill_double(const PrefillCase& c, std::vector<double>& out, std::vector<double>& vmax) {
  const DecodeCase& k = c.pool;
  out.assign(c.q.size(), 0.0);
  vmax.assign(c.q.size() / k.hd, 0.0);
  for (int64_t b = 0; b + 1 < (int64_t)c.cu_q.size(); ++b) {
    const int64_t q_len = c.cu_q[b + 1] - c.cu_q[b], ctx = k.seq_lens[b] - q_len;
    for (int64_t t = 0; t < q_len; ++t)
      for (int64_t hq = 0; hq < k.nq; ++hq) {
        const int64_t row = (c.cu_q[b] + t) * k.nq + hq;
        auto q = [&](int64_t d) { return widen(c.q[(size_t)(row * k.hd + d)]); };
        attend_double(k, b, hq / (k.nq / k.nkv), ctx + t + 1, q, &out[(size_t)(row * k.hd)], vmax[(size_t)row]);
      }
  }
}

}  // namespace ref
