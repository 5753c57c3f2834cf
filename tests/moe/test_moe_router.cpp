// MoE router: the blob, score routing on both paths, ties and NaN, table
// routing, sizes and contracts.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "common/test_util.h"
#include "moe/moe_variant.h"
#include "moe/router.h"
#include "quillon/quillon.h"
#include "reference/moe_router_ref.h"
#include "reference/shuffle_ref.h"

namespace {

using qt::DevBuf;

struct RGeo {
  int id;
  int64_t H, E, K;
  int scoring;
  bool renorm, gate;
  float scale;
  int64_t blob;
};
constexpr RGeo kRGeos[] = {{0, 2048, 256, 8, 0, false, true, 1.0f, 0x101000},
                           {2, 4096, 256, 6, 1, true, false, 1.5f, 0x202000},
                           {3, 2560, 512, 10, 0, true, true, 1.0f, 2626560}};

// Integer-valued inputs keep every dot product exact in any order.
std::vector<uint16_t> small_ints(qt::Rng& rng, size_t n, int lo, int hi) {
  std::vector<uint16_t> v(n);
  for (auto& x : v) x = qt::to_bf((float)rng.integer(lo, hi));
  return v;
}

struct Router {
  const RGeo& g;
  std::vector<uint16_t> w, gate_row;  // [E, H], [H]
  std::vector<float> bias;            // [E], geometry 2
  DevBuf blob;
  Router(const RGeo& geo, std::vector<uint16_t> rows, std::vector<uint16_t> gate, std::vector<float> b)
      : g(geo), w(std::move(rows)), gate_row(std::move(gate)), bias(std::move(b)), blob(geo.blob) {
    std::vector<uint16_t> src = w;
    if (g.gate) src.insert(src.end(), gate_row.begin(), gate_row.end());
    DevBuf d_src = DevBuf::from(src);
    DevBuf d_bias = bias.empty() ? DevBuf() : DevBuf::from(bias);
    EXPECT_EQ(quillon_moe_shuffle_router(d_src.get(), d_bias.as<float>(), blob.get(), nullptr), hipSuccess);
    EXPECT_EQ(hipDeviceSynchronize(), hipSuccess);
  }
  std::vector<float> logits(const std::vector<uint16_t>& hidden, int64_t M) const {
    std::vector<float> l((size_t)(M * g.E));
    for (int64_t t = 0; t < M; ++t)
      for (int64_t e = 0; e < g.E; ++e)
        l[(size_t)(t * g.E + e)] = ref::dot_row(&hidden[(size_t)(t * g.H)], &w[(size_t)(e * g.H)], g.H);
    return l;
  }
  std::vector<float> gates(const std::vector<uint16_t>& hidden, int64_t M) const {
    std::vector<float> r;
    if (g.gate)
      for (int64_t t = 0; t < M; ++t)
        r.push_back(ref::sigmoid(ref::dot_row(&hidden[(size_t)(t * g.H)], gate_row.data(), g.H)));
    return r;
  }
};

struct Out {
  std::vector<float> w, logits;
  std::vector<int32_t> ids;
};

Out score_route(const Router& r, const std::vector<uint16_t>& hidden, int64_t M) {
  const int64_t S = r.g.K + 1, shuf = quillon_moe_router_shuffle_bytes(M);
  DevBuf d_h = DevBuf::from(hidden), w(M * S * 4), ids(M * S * 4), logits(M * r.g.E * 4);
  DevBuf hs = shuf ? DevBuf(shuf) : DevBuf();
  quillon::moe_router(d_h.get(), r.blob.get(), w.as<float>(), ids.as<int32_t>(), logits.as<float>(), hs.get(), M,
                      nullptr);
  EXPECT_EQ(hipGetLastError(), hipSuccess);
  EXPECT_EQ(hipDeviceSynchronize(), hipSuccess);
  EXPECT_TRUE(w.guards_intact() && ids.guards_intact() && logits.guards_intact());
  return {w.download<float>(), logits.download<float>(), ids.download<int32_t>()};
}

void expect_routed(const Out& got, const ref::Routed& want, float tol) {
  ASSERT_EQ(got.ids, want.ids);
  for (size_t i = 0; i < want.w.size(); ++i)
    ASSERT_NEAR(got.w[i], want.w[i], tol * std::max(1.0f, std::fabs(want.w[i]))) << "entry " << i;
}

class MoeRouter : public ::testing::Test {
 protected:
  void TearDown() override { quillon::moe_variant_force(3); }
};

TEST_F(MoeRouter, BlobIsPanelsAndTail) {
  for (const RGeo& g : kRGeos) {
    if (!quillon::geometry_built(g.id)) continue;
    ASSERT_EQ(quillon_select_geometry(g.id), 0);
    ASSERT_EQ(quillon_moe_shuffle_router_bytes(), g.blob);
    qt::Rng rng(3 + g.id);
    for (bool with_bias : {false, true}) {
      if (with_bias && g.gate) continue;
      Router r(g, rng.bf16s((size_t)(g.E * g.H)), rng.bf16s((size_t)g.H),
               with_bias ? rng.floats((size_t)g.E) : std::vector<float>());
      std::vector<uint8_t> want(g.blob, 0xFF);
      const std::vector<uint16_t> panels = ref::block_panel(r.w, g.E, g.H);
      std::memcpy(want.data(), panels.data(), panels.size() * 2);
      if (g.gate) std::memcpy(want.data() + g.E * g.H * 2, r.gate_row.data(), g.H * 2);
      if (with_bias) std::memcpy(want.data() + g.E * g.H * 2, r.bias.data(), g.E * 4);
      EXPECT_BITS_EQ(r.blob.download<uint8_t>(), want);
    }
  }
}

// Decode router below the first threshold, the logits GEMM on forced tiles.
TEST_F(MoeRouter, ScoreRoutingMatchesReference) {
  struct Case {
    int64_t M;
    int32_t T;
  } cases[] = {{1, 0}, {9, 0}, {17, 0}, {70, 64}, {130, 128}};
  for (const RGeo& g : kRGeos) {
    if (!quillon::geometry_built(g.id)) continue;
    ASSERT_EQ(quillon_select_geometry(g.id), 0);
    qt::Rng rng(11 + g.id);
    Router r(g, small_ints(rng, (size_t)(g.E * g.H), -2, 2), small_ints(rng, (size_t)g.H, -1, 1),
             g.gate ? std::vector<float>() : rng.floats((size_t)g.E, -0.5f, 0.5f));
    for (const Case& c : cases) {
      SCOPED_TRACE("M " + std::to_string(c.M) + ", geometry " + std::to_string(g.id));
      if (c.T) quillon::moe_dispatch_force(c.T, true);
      else quillon::moe_variant_force(3);
      const std::vector<uint16_t> hidden = small_ints(rng, (size_t)(c.M * g.H), -1, 1);
      const Out got = score_route(r, hidden, c.M);
      const std::vector<float> logits = r.logits(hidden, c.M);
      EXPECT_BITS_EQ(got.logits, logits);
      expect_routed(got, ref::topk(logits, r.bias, c.M, g.E, g.K, g.scoring, g.scale, r.gates(hidden, c.M)), 2e-6f);
    }
  }
}

// Logits set per expert through a one-hot hidden row: ties, NaN, bias.
TEST_F(MoeRouter, TiesNanAndBias) {
  const uint16_t kNaN = 0x7fc0;
  struct Case {
    const char* name;
    int geo;  // -1: every geometry
    std::function<uint16_t(int64_t e)> logit;
    std::function<float(int64_t e)> bias;
  } cases[] = {
      {"all equal", -1, [](int64_t) { return qt::to_bf(0.0f); }, nullptr},
      {"bit-equal pair", -1, [](int64_t e) { return qt::to_bf(e == 17 || e == 200 ? 4.0f : 1.0f); }, nullptr},
      {"NaN never wins", -1, [&](int64_t e) { return e >= 5 && e < 8 ? kNaN : qt::to_bf((float)(e % 3)); }, nullptr},
      {"bias steers", 2, [](int64_t e) { return qt::to_bf(e < 8 ? 2.0f : 0.0f); },
       [](int64_t e) { return e == 250 ? 100.0f : 0.0f; }},
      {"all scores zero", 2, [](int64_t) { return qt::to_bf(-100.0f); }, [](int64_t) { return 0.0f; }},
  };
  for (const RGeo& g : kRGeos) {
    if (!quillon::geometry_built(g.id)) continue;
    ASSERT_EQ(quillon_select_geometry(g.id), 0);
    for (const Case& c : cases) {
      if (c.geo >= 0 && c.geo != g.id) continue;
      SCOPED_TRACE(std::string(c.name) + ", geometry " + std::to_string(g.id));
      std::vector<uint16_t> rows((size_t)(g.E * g.H), 0), hidden((size_t)g.H, 0), gate_row((size_t)g.H, 0);
      for (int64_t e = 0; e < g.E; ++e) rows[(size_t)(e * g.H)] = c.logit(e);
      hidden[0] = qt::to_bf(1.0f);
      std::vector<float> bias;
      if (!g.gate)
        for (int64_t e = 0; e < g.E; ++e) bias.push_back(c.bias ? c.bias(e) : 0.0f);
      Router r(g, rows, gate_row, bias);
      const Out got = score_route(r, hidden, 1);
      const ref::Routed want =
          ref::topk(r.logits(hidden, 1), r.bias, 1, g.E, g.K, g.scoring, g.scale, r.gates(hidden, 1));
      expect_routed(got, want, 2e-6f);
      for (int64_t k = 0; k < g.K; ++k) EXPECT_FALSE(std::isnan(got.w[(size_t)k]));
    }
  }
  // A row of NaN logits still names K distinct real experts, lowest first.
  if (!quillon::geometry_built(0)) return;
  ASSERT_EQ(quillon_select_geometry(0), 0);
  std::vector<uint16_t> rows(256 * 2048, 0), hidden(2048, 0);
  for (int64_t e = 0; e < 256; ++e) rows[(size_t)(e * 2048)] = kNaN;
  hidden[0] = qt::to_bf(1.0f);
  const Out all_nan = score_route(Router(kRGeos[0], rows, std::vector<uint16_t>(2048, 0), {}), hidden, 1);
  for (int k = 0; k < 8; ++k) EXPECT_EQ(all_nan.ids[(size_t)k], k);
  EXPECT_EQ(all_nan.ids[8], 256);
}

TEST_F(MoeRouter, TableRoutingMatchesReference) {
  const int64_t vocab = 40;
  for (const RGeo& g : kRGeos) {
    if (!quillon::geometry_built(g.id)) continue;
    ASSERT_EQ(quillon_select_geometry(g.id), 0);
    qt::Rng rng(21 + g.id);
    Router r(g, small_ints(rng, (size_t)(g.E * g.H), -1, 1), small_ints(rng, (size_t)g.H, -1, 1), {});
    std::vector<int32_t> table((size_t)(vocab * g.K));
    for (int64_t v = 0; v < vocab; ++v) {
      std::vector<int32_t> pool((size_t)g.E);
      for (int64_t e = 0; e < g.E; ++e) pool[(size_t)e] = (int32_t)e;
      for (int64_t k = 0; k < g.K; ++k) {
        std::swap(pool[(size_t)k], pool[(size_t)rng.integer(k, g.E - 1)]);
        table[(size_t)(v * g.K + k)] = pool[(size_t)k];
      }
    }
    DevBuf d_table = DevBuf::from(table);
    for (auto [M, T] : {std::pair<int64_t, int32_t>{1, 0}, {7, 0}, {9, 64}}) {
      SCOPED_TRACE("M " + std::to_string(M) + ", geometry " + std::to_string(g.id));
      if (T) quillon::moe_dispatch_force(T, true);
      else quillon::moe_variant_force(3);
      const int64_t S = g.K + 1;
      std::vector<int64_t> tok((size_t)M);
      for (auto& t : tok) t = rng.integer(0, vocab - 1);
      const std::vector<uint16_t> hidden = small_ints(rng, (size_t)(M * g.H), -1, 1);
      DevBuf d_h = DevBuf::from(hidden), d_tok = DevBuf::from(tok), w(M * S * 4), ids(M * S * 4);
      const int64_t shuf = quillon_moe_router_shuffle_bytes(M);
      DevBuf hs = shuf ? DevBuf(shuf) : DevBuf();
      ASSERT_EQ(quillon_moe_router_tid2eid(d_h.get(), r.blob.get(), d_tok.as<int64_t>(), d_table.as<int32_t>(),
                                           w.as<float>(), ids.as<int32_t>(), hs.get(), M, nullptr),
                hipSuccess);
      ASSERT_EQ(hipDeviceSynchronize(), hipSuccess);
      const std::vector<float> logits = r.logits(hidden, M), gates = r.gates(hidden, M);
      ref::Routed want{std::vector<int32_t>((size_t)(M * S)), std::vector<float>((size_t)(M * S))};
      for (int64_t t = 0; t < M; ++t) {
        double sum = 0.0;
        for (int64_t k = 0; k < g.K; ++k) {
          const int32_t e = table[(size_t)(tok[(size_t)t] * g.K + k)];
          want.ids[(size_t)(t * S + k)] = e;
          sum += ref::sqrt_softplus(logits[(size_t)(t * g.E + e)]);
        }
        for (int64_t k = 0; k < g.K; ++k) {
          const double s = ref::sqrt_softplus(logits[(size_t)(t * g.E + want.ids[(size_t)(t * S + k)])]);
          want.w[(size_t)(t * S + k)] = (float)((g.renorm ? s / std::max(sum, 6.1035156e-05) : s) * g.scale);
        }
        want.ids[(size_t)(t * S + g.K)] = (int32_t)g.E;
        want.w[(size_t)(t * S + g.K)] = g.gate ? gates[(size_t)t] : 1.0f;
      }
      expect_routed({w.download<float>(), {}, ids.download<int32_t>()}, want, 2e-6f);
      EXPECT_TRUE(w.guards_intact() && ids.guards_intact());
    }
  }
}

TEST_F(MoeRouter, SizesAndContracts) {
  QT_SELECT_GEOMETRY(0);
  EXPECT_EQ(quillon_moe_router_shuffle_bytes(768), 0);
  EXPECT_EQ(quillon_moe_router_shuffle_bytes(769), 832 * 2048 * 2);
  EXPECT_EQ(quillon_moe_router_shuffle_bytes(2048), 2048 * 2048 * 2);
  EXPECT_EQ(quillon_moe_router_shuffle_bytes(2049), 2176 * 2048 * 2);
  EXPECT_QUILLON_FATAL(quillon::moe_router(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, 1, nullptr),
                       "moe_router: router_w is required");
  EXPECT_QUILLON_FATAL(quillon_moe_router_tid2eid(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, 1,
                                                  nullptr),
                       "moe_router_tid2eid: router_w is required");
  EXPECT_QUILLON_FATAL(quillon::moe_shuffle_hidden(nullptr, nullptr, nullptr, nullptr, 1, nullptr),
                       "moe_shuffle_hidden: router_w is required");
  int dummy = 0;
  EXPECT_QUILLON_FATAL(quillon::moe_shuffle_hidden(nullptr, &dummy, nullptr, nullptr, 769, nullptr),
                       "moe_shuffle_hidden: hidden_shuffled is required at M=769; size it with "
                       "moe_router_shuffle_bytes(M)");
  quillon::moe_dispatch_force(32, true);
  EXPECT_QUILLON_FATAL(quillon::moe_router(nullptr, &dummy, nullptr, nullptr, nullptr, &dummy, 1, nullptr),
                       "no compiled variant for 32");
  quillon::moe_variant_force(3);
  ASSERT_EQ(quillon_select_geometry(1), 0);
  EXPECT_QUILLON_FATAL(quillon_moe_shuffle_router_bytes(),
                       "geometry 1 does not carry this op; it belongs to a model family this build instantiates for "
                       "other ids (see quillon_geometry_name)");
}

}  // namespace
