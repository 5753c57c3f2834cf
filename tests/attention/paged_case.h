// Inputs shared by the paged attention tests.
#pragma once
#include <algorithm>

#include "common/test_util.h"
#include "reference/paged_attn_ref.h"

namespace pa {

struct Geo {
  int id;
  int64_t nq, nkv, hd, qb;  // qb: prefill query tokens per block
};
const Geo kGeos[] = {{0, 16, 2, 256, 16}, {1, 24, 4, 256, 32}, {3, 24, 2, 256, 16}};
constexpr uint16_t kPoison = 0xFFFF;

// Random pools whose pages are scattered over a large pool in a random order;
// slots past each sequence's end in its last page hold NaN (bf16) or NaN scales.
inline ref::DecodeCase make_case(qt::Rng& rng, const Geo& g, int64_t q_rows, std::vector<int32_t> lens, bool int8,
                                 int64_t q_stride = 0, float vscale_lo = 0.005f, float vscale_hi = 0.05f) {
  ref::DecodeCase c;
  c.nq = g.nq, c.nkv = g.nkv, c.hd = g.hd, c.q_rows = q_rows, c.q_stride = q_stride ? q_stride : q_rows;
  c.int8 = int8;
  c.scale = 1.0f / 16.0f;
  c.seq_lens = lens;
  int64_t most = 1;
  for (int32_t l : lens) most = std::max<int64_t>(most, ref::cdiv(l, 16));
  c.row_stride = most + 3;
  const int64_t pages = (int64_t)lens.size() * most * 3 + 1;
  std::vector<int32_t> order(pages);
  for (int64_t i = 0; i < pages; ++i) order[i] = (int32_t)i;
  std::shuffle(order.begin(), order.end(), rng.g);
  c.table.assign((size_t)(lens.size() * c.row_stride), 0);
  for (size_t i = 0; i < c.table.size(); ++i) c.table[i] = order[i % pages];
  const size_t elems = (size_t)(pages * c.nkv * c.hd * 16);
  if (int8) {
    c.k8.resize(elems), c.v8.resize(elems);
    for (auto& x : c.k8) x = (int8_t)rng.integer(-127, 127);
    for (auto& x : c.v8) x = (int8_t)rng.integer(-127, 127);
    c.ks = rng.bf16s((size_t)(pages * 16 * c.nkv * (c.hd / 32)), 0.001f, 0.02f);
    c.vs = rng.bf16s((size_t)(pages * c.nkv * 16), vscale_lo, vscale_hi);
  } else {
    c.k16 = rng.bf16s(elems), c.v16 = rng.bf16s(elems);
  }
  for (size_t b = 0; b < lens.size(); ++b)
    for (int64_t t = lens[b]; t < ref::cdiv(lens[b], 16) * 16; ++t)
      for (int64_t h = 0; h < c.nkv; ++h) {
        const int64_t p = c.page_of((int64_t)b, t);
        if (int8) {
          c.vs[(size_t)((p * c.nkv + h) * 16 + t % 16)] = 0x7FC0;
          for (int64_t s = 0; s < c.hd / 32; ++s) c.ks[(size_t)(((p * 16 + t % 16) * c.nkv + h) * (c.hd / 32) + s)] = 0x7FC0;
        } else {
          for (int64_t d = 0; d < c.hd; ++d) {
            c.k16[(size_t)ref::kv_k_index(c.shape(), p, h, d, t % 16)] = 0x7FC0;
            c.v16[(size_t)ref::kv_v_index(c.shape(), p, h, d, t % 16)] = 0x7FC0;
          }
        }
      }
  c.q = rng.bf16s((size_t)(lens.size() * c.q_stride * c.nq * c.hd));
  return c;
}

}  // namespace pa
