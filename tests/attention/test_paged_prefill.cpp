// Paged prefill attention through the exported entries: query blocks, causal
// masking at tile and block edges, continuation of a chunked prompt, and the
// gated blk32 epilogue against the plain rows.
#include <cmath>

#include "attention/paged_case.h"
#include "quillon/quillon.h"
#include "reference/hw_math.h"
#include "reference/rope_ref.h"

namespace {

using pa::Geo;
using pa::kGeos;
using pa::kPoison;

// Requests given as (new tokens, earlier tokens).
ref::PrefillCase make_case(qt::Rng& rng, const Geo& g, const std::vector<std::pair<int32_t, int32_t>>& reqs) {
  ref::PrefillCase c;
  std::vector<int32_t> lens;
  c.cu_q = {0};
  for (auto [n, ctx] : reqs) {
    c.cu_q.push_back(c.cu_q.back() + n);
    lens.push_back(n + ctx);
  }
  c.pool = pa::make_case(rng, g, 1, lens, false);
  c.qb = g.qb;
  c.q = rng.bf16s((size_t)(c.cu_q.back() * g.nq * g.hd));
  return c;
}

// One call; with a gate, `out` is a blk32 panel of `panel_rows` rows.
std::vector<uint16_t> run(const ref::PrefillCase& c, const std::vector<uint16_t>* gate = nullptr,
                          int64_t gate_stride = 0, int64_t row_offset = 0, int64_t panel_rows = 0) {
  const ref::DecodeCase& k = c.pool;
  const int64_t ns = (int64_t)k.seq_lens.size();
  std::vector<int32_t> q_lens;
  for (int64_t b = 0; b < ns; ++b) q_lens.push_back(c.cu_q[b + 1] - c.cu_q[b]);
  const int64_t blocks = quillon_prefill_q_blocks(q_lens.data(), ns);
  std::vector<int32_t> map((size_t)(2 * blocks), -7);
  quillon_prefill_q_block_map(q_lens.data(), ns, map.data());
  auto dq = qt::DevBuf::from(c.q), dk = qt::DevBuf::from(k.k16), dv = qt::DevBuf::from(k.v16);
  auto dcu = qt::DevBuf::from(c.cu_q), dt = qt::DevBuf::from(k.table), dl = qt::DevBuf::from(k.seq_lens);
  auto dmap = qt::DevBuf::from(map);
  qt::DevBuf dg = gate ? qt::DevBuf::from(*gate) : qt::DevBuf();
  qt::DevBuf out(gate ? (size_t)(panel_rows * k.nq * k.hd * 2) : c.q.size() * 2);
  const QuillonPrefillGate gr{dg.get(), gate_stride, row_offset};
  EXPECT_EQ(quillon_paged_attn_prefill(dq.get(), dk.get(), dv.get(), out.get(), dcu.as<int32_t>(), dt.as<int32_t>(),
                                       dl.as<int32_t>(), ns, k.row_stride, blocks, 16, nullptr, dmap.as<int32_t>(), gr,
                                       k.scale),
            hipSuccess);
  EXPECT_EQ(hipStreamSynchronize(nullptr), hipSuccess);
  EXPECT_TRUE(out.guards_intact());
  return out.download<uint16_t>();
}

TEST(PagedPrefill, QueryBlocksAndLimit) {
  const int64_t qb[] = {16, 32, 1, 16}, limit[] = {262144, 174762, 32768, 174762};
  const std::vector<int32_t> lens = {0, 1, 16, 33, 64};
  for (int g = 0; g < 4; ++g) {
    if (!quillon::geometry_built(g)) continue;
    ASSERT_EQ(quillon_select_geometry(g), 0);
    const auto want = ref::q_block_map(lens, qb[g]);
    EXPECT_EQ(quillon_prefill_q_blocks(lens.data(), 5), (int64_t)want.size());
    EXPECT_EQ(quillon_prefill_q_blocks(lens.data(), 0), 0);
    std::vector<int32_t> map(2 * want.size() + 2, -7);
    quillon_prefill_q_block_map(lens.data(), 5, map.data());
    for (size_t i = 0; i < want.size(); ++i) {
      EXPECT_EQ(map[2 * i], want[i].first);
      EXPECT_EQ(map[2 * i + 1], want[i].second);
    }
    EXPECT_EQ(map[2 * want.size()], -7);
    EXPECT_EQ(quillon_paged_prefill_max_tokens(), limit[g]);
  }
}

// A single-token request, a continuation whose block count is ragged, and a
// prompt over several blocks and two 128-token tiles.
TEST(PagedPrefill, CausalEveryGeometry) {
  qt::Rng rng(1611);
  for (const Geo& g : kGeos) {
    if (!quillon::geometry_built(g.id)) continue;
    SCOPED_TRACE(testing::Message() << "geometry " << g.id);
    ASSERT_EQ(quillon_select_geometry(g.id), 0);
    const auto c = make_case(rng, g, {{1, 0}, {37, 100}, {150, 0}});
    const auto got = run(c);
    EXPECT_BITS_EQ(got, ref::prefill_exact(c, kPoison));
    std::vector<double> want, vmax;
    ref::prefill_double(c, want, vmax);
    for (size_t i = 0; i < want.size(); ++i)
      ASSERT_NEAR(qt::bf(got[i]), want[i], vmax[i / g.hd] / 64 + 1e-6) << i;
  }
}

// The gated epilogue writes bf16(bf16(o) * sigmoid(g)) into the blk32 panel at
// row_offset + token and nothing else.
TEST(PagedPrefill, GatedBlk32) {
  qt::Rng rng(1612);
  const Geo g = kGeos[2];
  QT_SELECT_GEOMETRY(g.id);
  const auto c = make_case(rng, g, {{20, 5}, {9, 0}});
  const int64_t tokens = c.cu_q.back(), C = g.nq * g.hd, stride = 2 * C + 64, offset = 3, panel = 64;
  const auto gate = rng.bf16s((size_t)((offset + tokens) * stride), -6.0f, 6.0f);
  const auto plain = run(c);
  const auto got = run(c, &gate, stride, offset, panel);
  std::vector<uint16_t> want((size_t)(panel * C), kPoison);
  for (int64_t t = 0; t < tokens; ++t)
    for (int64_t col = 0; col < C; ++col) {
      const float gv = qt::bf(gate[(size_t)((offset + t) * stride + (col / g.hd) * 2 * g.hd + g.hd + col % g.hd)]);
      const float sig = 1.0f / (1.0f + ref::hw_exp2(-gv * 1.4426950216f));
      want[ref::blk32_index(offset + t, col, C)] = ref::round_bf16_quiet(qt::bf(plain[(size_t)(t * C + col)]) * sig);
    }
  EXPECT_BITS_EQ(got, want);
}

TEST(PagedPrefillDeathTest, Messages) {
  QT_SELECT_GEOMETRY(0);
  const QuillonPrefillGate none{nullptr, 0, 0};
  int32_t* p = nullptr;
  EXPECT_QUILLON_FATAL(quillon_paged_attn_prefill(p, p, p, p, p, p, p, 1, 1, 1, 8, nullptr, p, none, 1.0f),
                       "KV page 8: this build has no paged instantiation for it (see quillon_kv_block_sizes)");
  EXPECT_QUILLON_FATAL(quillon_paged_attn_prefill_int8(p, p, p, p, p, p, p, p, p, 1, 1, 1, 0, nullptr, p, none, 1.0f),
                       "KV page 0: this build has no paged instantiation for it (see quillon_kv_block_sizes)");
  // The int8 form has no kernel: checked, nothing launched.
  EXPECT_EQ(quillon_paged_attn_prefill_int8(p, p, p, p, p, p, p, p, p, 1, 1, 5, 16, nullptr, p, none, 1.0f),
            hipSuccess);
  QT_SELECT_GEOMETRY(2);
  const char* g2 = qt::kGeometryTwo;
  EXPECT_QUILLON_FATAL(quillon_paged_attn_prefill(p, p, p, p, p, p, p, 1, 1, 1, 16, nullptr, p, none, 1.0f), g2);
  EXPECT_QUILLON_FATAL(quillon_paged_attn_prefill_int8(p, p, p, p, p, p, p, p, p, 1, 1, 1, 16, nullptr, p, none, 1.0f),
                       g2);
}

}  // namespace
