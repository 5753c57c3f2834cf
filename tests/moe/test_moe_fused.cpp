// Fused MoE through the exported entries against the dense double reference:
// every variant and kernel path, bf16 and fp8, the SwiGLU clamp, the ragged
// down of geometry 3, the workspace size, the policy and its messages.
//
// Inputs are chosen so every grouped sum is exact in any order: hidden and
// gate weights are non-negative integers (so SwiGLU values are 0 or at least
// 0.73 and all multiples of 2^-8), up and down weights sparse small integers.
// Expert rows are then the same bits on every path, and so is the output.
#include <gtest/gtest.h>

#include <map>

#include "common/test_util.h"
#include "device/device_config.h"
#include "quillon/quillon.h"
#include "reference/moe_expert_ref.h"
#include "reference/moe_router_ref.h"

namespace {

using qt::DevBuf;

struct FGeo {
  int id;
  int64_t H, I, E, K;
  int scoring;
  float scale;
  bool gate;
  double limit;
};
constexpr FGeo kG0{0, 2048, 512, 256, 8, 0, 1.0f, true, 0.0};
constexpr FGeo kG2{2, 4096, 2048, 256, 6, 1, 1.5f, false, 10.0};
constexpr FGeo kG3{3, 2560, 640, 512, 10, 0, 1.0f, true, 0.0};

// A device allocation whose untouched pages cost nothing: the expert slabs
// span all E_tot experts, of which a test fills a dozen.
struct Slab {
  void* p = nullptr;
  explicit Slab(size_t bytes) { EXPECT_EQ(hipMalloc(&p, bytes), hipSuccess); }
  ~Slab() { (void)hipFree(p); }
  void* at(size_t off) const { return static_cast<uint8_t*>(p) + off; }
};

// Sparse integer matrix: each entry lo..hi with probability 1/every, else 0.
std::vector<float> sparse(qt::Rng& rng, size_t n, int every, int lo, int hi) {
  std::vector<float> v(n, 0.0f);
  for (auto& x : v)
    if (rng.integer(0, every - 1) == 0) x = (float)rng.integer(lo, hi);
  return v;
}
std::vector<uint16_t> bf(const std::vector<float>& v) {
  std::vector<uint16_t> r(v.size());
  for (size_t i = 0; i < v.size(); ++i) r[i] = qt::to_bf(v[i]);
  return r;
}
// e4m3 of 0, +-1 and +-2, the only values these tests give fp8 weights.
uint8_t fp8_of(float x) { return x == 0.0f ? 0 : (uint8_t)((x < 0 ? 0x80 : 0) | (std::fabs(x) == 2.0f ? 0x40 : 0x38)); }

// One model: router with `live` experts that always win (routing column 0
// of hidden is 1, router weight 64) and a per-token bit per expert that
// orders them; experts 0..live-1 and the shared one filled, in bf16 or fp8.
struct Model {
  const FGeo& g;
  bool fp8;
  int live;
  std::vector<uint16_t> router_rows, gate_row;
  std::map<int32_t, ref::ExpertMats> mats;
  DevBuf blob;
  Slab gu, dn, gu_sc, dn_sc;

  int64_t gu_bytes() const { return 2 * g.I * g.H * (fp8 ? 1 : 2); }
  int64_t dn_bytes() const { return g.H * g.I * (fp8 ? 1 : 2); }
  int64_t gu_scales() const { return 4 * (g.I / 128) * (g.H / 128); }
  int64_t dn_scales() const { return (g.H / 128) * (g.I / 128); }

  Model(const FGeo& geo, bool f8, int n_live, int up_every = 64)
      : g(geo), fp8(f8), live(n_live), blob(quillon_moe_shuffle_router_bytes()),
        gu((size_t)((g.E + 1) * gu_bytes())), dn((size_t)((g.E + 1) * dn_bytes())),
        gu_sc((size_t)((g.E + 1) * gu_scales() * 2)), dn_sc((size_t)((g.E + 1) * dn_scales() * 2)) {
    qt::Rng rng(90 + g.id + 7 * live + f8);
    std::vector<float> rows((size_t)(g.E * g.H), 0.0f);
    for (int e = 0; e < live; ++e) {
      rows[(size_t)(e * g.H)] = 64.0f;
      rows[(size_t)(e * g.H + 1 + e)] = 1.0f;
    }
    router_rows = bf(rows);
    gate_row = bf(sparse(rng, (size_t)g.H, 64, -1, 1));
    std::vector<uint16_t> src = router_rows;
    if (g.gate) src.insert(src.end(), gate_row.begin(), gate_row.end());
    DevBuf d_src = DevBuf::from(src), d_bias = DevBuf::from(std::vector<float>((size_t)g.E, 0.0f));
    EXPECT_EQ(quillon_moe_shuffle_router(d_src.get(), d_bias.as<float>(), blob.get(), nullptr), hipSuccess);
    for (int32_t e = 0; e <= g.E; ++e) {
      if (e >= live && e != g.E) continue;
      ref::ExpertMats m{sparse(rng, (size_t)(g.I * g.H), 64, 1, 1), sparse(rng, (size_t)(g.I * g.H), up_every, -1, 1),
                        sparse(rng, (size_t)(g.H * g.I), 8, -1, 1)};
      if (fp8) add_fp8(e, m, rng);
      else add_bf16(e, m);
      mats[e] = std::move(m);
    }
    EXPECT_EQ(hipDeviceSynchronize(), hipSuccess);
  }
  void add_bf16(int32_t e, const ref::ExpertMats& m) {
    DevBuf a = DevBuf::from(bf(m.gate)), b = DevBuf::from(bf(m.up)), c = DevBuf::from(bf(m.down));
    EXPECT_EQ(quillon_moe_shuffle_gate_up(a.get(), b.get(), gu.at((size_t)(e * gu_bytes())), 1, nullptr), hipSuccess);
    EXPECT_EQ(quillon_moe_shuffle_down(c.get(), dn.at((size_t)(e * dn_bytes())), 1, nullptr), hipSuccess);
    EXPECT_EQ(hipDeviceSynchronize(), hipSuccess);
  }
  // fp8 codes of the matrices and a power-of-two scale per 128 x 128 block,
  // folded into the reference values.
  void add_fp8(int32_t e, ref::ExpertMats& m, qt::Rng& rng) {
    const uint16_t kScales[3] = {0x3f00, 0x3f80, 0x4000};
    auto codes = [&](std::vector<float>& v, int64_t R, int64_t C, std::vector<uint16_t>& sc) {
      std::vector<uint8_t> q(v.size());
      sc.resize((size_t)((R / 128) * (C / 128)));
      for (auto& s : sc) s = kScales[rng.integer(0, 2)];
      for (int64_t r = 0; r < R; ++r)
        for (int64_t c = 0; c < C; ++c) {
          float& x = v[(size_t)(r * C + c)];
          q[(size_t)(r * C + c)] = fp8_of(x);
          x *= qt::bf(sc[(size_t)((r / 128) * (C / 128) + c / 128)]);
        }
      return q;
    };
    std::vector<uint16_t> sg, su, sd;
    DevBuf a = DevBuf::from(codes(m.gate, g.I, g.H, sg)), b = DevBuf::from(codes(m.up, g.I, g.H, su));
    DevBuf c = DevBuf::from(codes(m.down, g.H, g.I, sd));
    DevBuf dsg = DevBuf::from(sg), dsu = DevBuf::from(su), dsd = DevBuf::from(sd);
    EXPECT_EQ(quillon_moe_shuffle_gate_up_fp8(a.get(), b.get(), gu.at((size_t)(e * gu_bytes())), 1, nullptr),
              hipSuccess);
    EXPECT_EQ(quillon_moe_shuffle_down_fp8(c.get(), dn.at((size_t)(e * dn_bytes())), 1, nullptr), hipSuccess);
    EXPECT_EQ(quillon_moe_scale_shuffle_gate_up_fp8(dsg.get(), dsu.get(), gu_sc.at((size_t)(e * gu_scales() * 2)), 1,
                                                    nullptr),
              hipSuccess);
    EXPECT_EQ(quillon_moe_scale_shuffle_down_fp8(dsd.get(), dn_sc.at((size_t)(e * dn_scales() * 2)), 1, nullptr),
              hipSuccess);
    EXPECT_EQ(hipDeviceSynchronize(), hipSuccess);
  }

  std::vector<uint16_t> hidden(int64_t M) const {
    qt::Rng rng(500 + M);
    std::vector<float> h = sparse(rng, (size_t)(M * g.H), 4, 1, 1);
    for (int64_t t = 0; t < M; ++t) h[(size_t)(t * g.H)] = 1.0f;
    return bf(h);
  }
  std::vector<uint16_t> run(const std::vector<uint16_t>& x, int64_t M) {
    DevBuf d_x = DevBuf::from(x), ws(quillon_moe_workspace_bytes(M)), out(M * g.H * 2);
    const hipError_t st = fp8 ? quillon_fused_moe_fp8(d_x.get(), blob.get(), gu.p, dn.p, gu_sc.p, dn_sc.p, out.get(),
                                                      ws.get(), M, nullptr)
                              : quillon_fused_moe(d_x.get(), blob.get(), gu.p, dn.p, out.get(), ws.get(), M, nullptr);
    EXPECT_EQ(st, hipSuccess);
    EXPECT_EQ(hipDeviceSynchronize(), hipSuccess);
    EXPECT_TRUE(ws.guards_intact() && out.guards_intact());
    return out.download<uint16_t>();
  }
  // Reference of tokens t with t % every == 0.
  void expect_near(const std::vector<uint16_t>& x, const std::vector<uint16_t>& got, int64_t M, int64_t every = 1) {
    const int64_t S = g.K + 1;
    std::vector<uint16_t> xs;
    std::vector<int64_t> picked;
    for (int64_t t = 0; t < M; t += every) {
      picked.push_back(t);
      xs.insert(xs.end(), x.begin() + t * g.H, x.begin() + (t + 1) * g.H);
    }
    const int64_t m = (int64_t)picked.size();
    std::vector<float> logits((size_t)(m * g.E)), gates, xf(xs.size());
    for (int64_t t = 0; t < m; ++t) {
      for (int64_t e = 0; e < g.E; ++e)
        logits[(size_t)(t * g.E + e)] = ref::dot_row(&xs[(size_t)(t * g.H)], &router_rows[(size_t)(e * g.H)], g.H);
      if (g.gate) gates.push_back(ref::sigmoid(ref::dot_row(&xs[(size_t)(t * g.H)], gate_row.data(), g.H)));
    }
    for (size_t i = 0; i < xs.size(); ++i) xf[i] = qt::bf(xs[i]);
    const ref::Routed r =
        ref::topk(logits, std::vector<float>((size_t)g.E, 0.0f), m, g.E, g.K, g.scoring, g.scale, gates);
    const ref::MoeOut want = ref::fused_moe(xf, r.ids, r.w, mats, m, S, g.H, g.I, g.limit);
    int64_t bad = 0;
    for (int64_t t = 0; t < m; ++t)
      for (int64_t c = 0; c < g.H; ++c) {
        const size_t i = (size_t)(t * g.H + c);
        const double d = std::fabs((double)qt::bf(got[(size_t)(picked[(size_t)t] * g.H + c)]) - qt::bf(want.out[i]));
        if (!(d <= want.tol[i]) && bad++ < 5)
          ADD_FAILURE() << "token " << picked[(size_t)t] << " column " << c << ": got "
                        << qt::bf(got[(size_t)(picked[(size_t)t] * g.H + c)]) << ", want " << qt::bf(want.out[i])
                        << " within " << want.tol[i];
      }
  }
};

class MoeFused : public ::testing::Test {
 protected:
  void TearDown() override {
    quillon_moe_variant_force(3);
    quillon_moe_fp8_narrow_force_max_m(4);
  }
};

// Each M through every variant (so the narrow, 16-row, and 64- and 128-row
// LDS kernels): the same bits, near the reference. fp8 also with its narrow
// kernels off. 8 live experts send every token to the same eight.
TEST_F(MoeFused, EveryVariantGivesTheSameBits) {
  QT_SELECT_GEOMETRY(0);
  struct Case {
    bool fp8;
    int live;
    std::vector<int64_t> Ms;
  };
  const Case cases[] = {{false, 12, {1, 2, 3, 4, 8, 33}}, {false, 8, {5, 33}}, {true, 12, {1, 2, 3, 8, 33}}};
  for (const Case& c : cases) {
    Model m(kG0, c.fp8, c.live);
    for (int64_t M : c.Ms) {
      SCOPED_TRACE((c.fp8 ? "fp8 M " : "bf16 M ") + std::to_string(M) + ", live " + std::to_string(c.live));
      const std::vector<uint16_t> x = m.hidden(M);
      quillon_moe_variant_force(3);
      const std::vector<uint16_t> base = m.run(x, M);
      m.expect_near(x, base, M);
      for (int v = 0; v < 3; ++v) {
        SCOPED_TRACE("variant " + std::to_string(v));
        quillon_moe_variant_force(v);
        EXPECT_BITS_EQ(m.run(x, M), base);
      }
      quillon_moe_dispatch_force(64, 1);
      EXPECT_BITS_EQ(m.run(x, M), base);
      quillon_moe_variant_force(3);
      if (c.fp8 && M <= 4) {
        quillon_moe_fp8_narrow_force_max_m(0);
        EXPECT_BITS_EQ(m.run(x, M), base);
        quillon_moe_fp8_narrow_force_max_m(4);
      }
    }
  }
}

// A prefill size on the table (T = 64, gathered and shuffled), sampled tokens.
TEST_F(MoeFused, PrefillSizeMatchesSampledReference) {
  QT_SELECT_GEOMETRY(0);
  Model m(kG0, false, 12);
  const std::vector<uint16_t> x = m.hidden(769);
  m.expect_near(x, m.run(x, 769), 769, 48);
}

// Geometry 2 clamps gate-up at 10 (g and u both pass it with dense up rows)
// in bf16 but not in fp8; geometry 3's down has K = 640.
TEST_F(MoeFused, ClampAndRaggedDown) {
  struct Case {
    const FGeo& g;
    bool fp8;
    int64_t M;
  };
  const Case cases[] = {{kG2, false, 2}, {kG2, false, 5}, {kG2, true, 2}, {kG3, false, 8}, {kG3, true, 3}};
  for (const Case& c : cases) {
    if (!quillon::geometry_built(c.g.id)) continue;
    SCOPED_TRACE("geometry " + std::to_string(c.g.id) + (c.fp8 ? " fp8" : " bf16") + " M " + std::to_string(c.M));
    ASSERT_EQ(quillon_select_geometry(c.g.id), 0);
    FGeo g = c.g;
    if (c.fp8) g.limit = 0.0;
    Model m(g, c.fp8, 8, 8);
    const std::vector<uint16_t> x = m.hidden(c.M);
    m.expect_near(x, m.run(x, c.M), c.M);
  }
}

TEST(MoePolicy, VariantTableAndWorkspace) {
  QT_SELECT_GEOMETRY(0);
  EXPECT_EQ(quillon_moe_variant_count(), 3);
  const char* names[] = {"variant-0", "variant-1", "variant-2", "auto", "auto"};
  const int32_t idx[] = {0, 1, 2, 3, -1};
  for (int i = 0; i < 5; ++i) EXPECT_STREQ(quillon_moe_variant_name(idx[i]), names[i]);
  const int64_t G = quillon::num_cus();
  auto total = [&](int64_t M, int64_t T, bool sh) { return ref::moe_workspace_total(M, T, sh, G, 2048, 512, 256, 9); };
  auto table = [&](int64_t M) { return M <= 768 ? total(M, 16, false) : M <= 2048 ? total(M, 64, true) : total(M, 128, true); };
  for (int64_t M : {1, 33, 768, 769, 2048, 2049, 3000}) {
    int64_t want = table(M);
    for (int64_t t : {768, 2048})
      if (t < M) want = std::max(want, table(t));
    EXPECT_EQ(quillon_moe_workspace_bytes(M), want) << "M " << M;
  }
  EXPECT_GE(quillon_moe_workspace_bytes(3000), std::max(table(768), table(2048)));
  // Forcing reaches the sizes; index 3 and T = 0 return to the table.
  quillon_moe_variant_force(2);
  EXPECT_EQ(quillon_moe_workspace_bytes(33), total(33, 128, true));
  quillon_moe_variant_force(3);
  EXPECT_EQ(quillon_moe_workspace_bytes(33), table(33));
  quillon_moe_dispatch_force(64, 1);
  EXPECT_EQ(quillon_moe_workspace_bytes(1), total(1, 64, true));
  quillon_moe_dispatch_force(0, 0);
  EXPECT_EQ(quillon_moe_workspace_bytes(1), table(1));
}

TEST(MoePolicy, Messages) {
  QT_SELECT_GEOMETRY(0);
  void (*narrow[])(int32_t) = {quillon_moe_fp8_narrow_force_max_m, quillon_moe_kquant_narrow_force_max_m,
                               quillon_moe_lowbit_narrow_force_max_m};
  for (auto f : narrow) {
    EXPECT_QUILLON_FATAL(f(5), "max_m must be in 0..4 (got 5)");
    EXPECT_QUILLON_FATAL(f(-1), "max_m must be in 0..4 (got -1)");
  }
  const std::pair<int32_t, int32_t> bad[] = {{32, 1}, {64, 0}, {16, 1}};
  for (const auto& [T, sh] : bad) {
    quillon_moe_dispatch_force(T, sh);
    EXPECT_QUILLON_FATAL(quillon_fused_moe(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, 1, nullptr),
                         "no compiled variant for " + std::to_string(T));
  }
  quillon_moe_dispatch_force(0, 0);
  ASSERT_EQ(quillon_select_geometry(1), 0);
  EXPECT_QUILLON_FATAL(quillon_moe_workspace_bytes(1),
                       "geometry 1 does not carry this op; it belongs to a model family this build instantiates for "
                       "other ids (see quillon_geometry_name)");
}

}  // namespace
