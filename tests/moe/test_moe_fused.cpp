// Fused MoE through the exported entries against the dense double reference.
// Hidden and gate weights are non-negative integers (SwiGLU values 0 or at
// least 0.73, multiples of 2^-8), up and down weights sparse small integers:
// every grouped sum is exact in any order, so every path gives the same bits.
#include <gtest/gtest.h>

#include <map>
#include <memory>

#include "common/test_util.h"
#include "device/device_config.h"
#include "quillon/quillon.h"
#include "reference/gguf_ref.h"
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
  uint8_t* p = nullptr;
  explicit Slab(size_t bytes) { EXPECT_EQ(hipMalloc((void**)&p, bytes), hipSuccess); }
  ~Slab() { (void)hipFree(p); }
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

// k-quant forms of a model: routed gate-up and down formats (0: not k-quant),
// shared ones (0: the shared expert in bf16).
struct KqForm {
  int gu = 0, dn = 0, sgu = 0, sdn = 0;
};

// GGUF rows of v [R, C], entries -1, 0 or 1: unit scales, the code v itself
// (Q8_0) or v + 1 less a unit min (Q4_K, Q5_K, whose high code bits stay 0).
std::vector<uint8_t> encode(int fmt, const std::vector<float>& v) {
  const size_t bw = fmt == 8 ? 32 : 256, bb = fmt == 8 ? 34 : fmt == 4 ? 144 : 176;
  std::vector<uint8_t> out(v.size() / bw * bb, 0);
  for (size_t b = 0; b < v.size() / bw; ++b) {
    uint8_t* B = &out[b * bb];
    const float* x = &v[b * bw];
    B[1] = 0x3c;  // d = 1
    if (fmt == 8) {
      for (int j = 0; j < 32; ++j) B[2 + j] = (uint8_t)(int8_t)x[j];
      continue;
    }
    B[3] = 0x3c;  // dmin = 1
    for (int i = 0; i < 8; ++i) B[4 + i] = 1;
    for (int i = 8; i < 12; ++i) B[4 + i] = 0x11;
    uint8_t* qs = B + (fmt == 4 ? 16 : 48);
    for (int j = 0; j < 256; ++j)
      qs[(j / 64) * 32 + j % 32] |= (uint8_t)(((int)x[j] + 1) << (4 * (j / 32 % 2)));
  }
  return out;
}

// Low-bit routed experts: expert quant formats per role (-1: none). A low-bit
// gate-up beside kq.dn takes the k-quant-down entry; `table` routes by a
// token table instead of scores.
struct LbForm {
  int gu = -1, dn = -1;
  bool table = false;
};

// GGUF blocks of [R, C] in expert quant format q: one block (super-block) in
// `every` holds random codes at a power-of-two d (MXFP4: the FP4 values
// themselves) with scale nibbles 0..1, the rest are zero; `positive` clears
// the signs. Every weight has at most 8 significant bits, so it is exact in
// bf16 and the gate-up sums over integer hidden rows are exact in fp32.
std::vector<uint8_t> lowbit_blocks(int q, int64_t R, int64_t C, int every, bool positive, qt::Rng& rng,
                                   const ref::LowBitTables& tab, std::vector<float>& vals) {
  const int bw = ref::lowbit_block_weights(q), bb = ref::lowbit_block_bytes(q);
  std::vector<uint8_t> out((size_t)(R * C / bw * bb), 0);
  vals.assign((size_t)(R * C), 0.0f);
  for (int64_t b = 0; b < R * C / bw; ++b) {
    if (rng.integer(0, every - 1) != 0) continue;
    uint8_t* B = &out[(size_t)(b * bb)];
    for (int i = 0; i < bb; ++i) B[i] = (uint8_t)rng.integer(0, 255);
    if (q == 2) {
      B[0] = 127;
      for (int i = 1; i < 17 && positive; ++i) B[i] &= 0x77;
    } else {
      B[0] = 0x00, B[1] = 0x28;  // d = 2^-5
      for (int j = 0; j < 8; ++j) {
        if (q == 3) {
          B[74 + j] &= 0x11;
          for (int i = 0; i < 4 && positive; ++i) B[34 + 4 * j + i] = 0;
        } else {
          uint8_t* w = B + (q == 0 ? 6 + 8 * j : 66 + 4 * j);  // signs in bits 0..27, the scale above
          w[3] &= positive ? 0x10 : 0x1f;
          if (positive) w[0] = w[1] = w[2] = 0;
        }
      }
    }
    for (int j = 0; j < bw; ++j) vals[(size_t)(b * bw + j)] = qt::bf(ref::round_dequant(ref::lowbit_value(tab, q, B, j)));
  }
  return out;
}

// One model: `live` experts always win (hidden column 0 is 1, their router
// weight there 64) in an order set by one hidden bit each; those experts and
// the shared one are filled, in bf16 or fp8 (codes 0, +-1 with a power-of-two
// scale per 128 x 128 block, folded into the reference values).
struct Model {
  const FGeo& g;
  bool fp8;
  KqForm kq;
  LbForm lb;
  std::vector<uint16_t> router_rows, gate_row;
  std::map<int32_t, ref::ExpertMats> mats;
  DevBuf blob;
  int64_t esz, gus = 4 * (g.I / 128) * (g.H / 128), dns = (g.H / 128) * (g.I / 128);
  Slab gu, dn, gu_sc, dn_sc, sgu, sdn, sgu_m, sdn_m;
  std::vector<std::unique_ptr<Slab>> planes;  // low-bit p0..p2 of gate-up, then of down

  // k-quant slabs: gu and dn hold the quant planes of E experts, gu_sc and
  // dn_sc their meta planes; sgu, sdn (and metas) the shared expert.
  Model(const FGeo& geo, bool f8, int live, int up_every = 64, KqForm k = {}, LbForm l = {})
      : g(geo), fp8(f8), kq(k), lb(l), blob(quillon_moe_shuffle_router_bytes()), esz(f8 ? 1 : 2),
        gu(l.gu >= 0 ? 1 : k.gu ? (size_t)quillon_moe_kquant_gate_up_quant_bytes(k.gu, g.E)
                : (size_t)((g.E + 1) * 2 * g.I * g.H * esz)),
        dn(k.dn ? (size_t)quillon_moe_kquant_down_quant_bytes(k.dn, g.E) : (size_t)((g.E + 1) * g.H * g.I * esz)),
        gu_sc(k.gu ? (size_t)quillon_moe_kquant_gate_up_meta_bytes(k.gu, g.E) : (size_t)((g.E + 1) * gus * 2)),
        dn_sc(k.dn ? (size_t)quillon_moe_kquant_down_meta_bytes(k.dn, g.E) : (size_t)((g.E + 1) * dns * 2)),
        sgu((size_t)(2 * g.I * g.H * 2)), sdn((size_t)(g.H * g.I * 2)), sgu_m(k.sgu ? (size_t)quillon_moe_kquant_gate_up_meta_bytes(k.sgu, 1) : 1),
        sdn_m(k.sdn ? (size_t)quillon_moe_kquant_down_meta_bytes(k.sdn, 1) : 1) {
    qt::Rng rng(90 + g.id + 7 * live + f8);
    std::vector<float> rows((size_t)(g.E * g.H), 0.0f);
    for (int e = 0; e < live; ++e) rows[(size_t)(e * g.H)] = 64.0f, rows[(size_t)(e * g.H + 1 + e)] = 1.0f;
    router_rows = bf(rows);
    gate_row = bf(sparse(rng, (size_t)g.H, 64, -1, 1));
    std::vector<uint16_t> src = router_rows;
    if (g.gate) src.insert(src.end(), gate_row.begin(), gate_row.end());
    DevBuf d_src = DevBuf::from(src), d_bias = DevBuf::from(std::vector<float>((size_t)g.E, 0.0f));
    EXPECT_EQ(quillon_moe_shuffle_router(d_src.get(), d_bias.as<float>(), blob.get(), nullptr), hipSuccess);
    if (lb.gu >= 0) {
      const ref::LowBitTables tab = ref::load_lowbit_tables(QT_GGUF_TABLE_DIR);
      for (int p = 0; p < 6; ++p) {
        const int q = p < 3 ? lb.gu : lb.dn;
        const int64_t bytes = q < 0 ? 0 : p < 3 ? lowbit_bytes(0, p, q, g.E) : lowbit_bytes(1, p - 3, q, g.E);
        planes.push_back(std::make_unique<Slab>((size_t)(bytes ? bytes : 1)));
      }
      for (int32_t e = 0; e < live; ++e) mats[e] = store_lowbit(e, rng, tab, up_every);
    }
    for (int32_t e = lb.gu >= 0 ? (int32_t)g.E : 0; e <= g.E; e = e + 1 == live ? (int32_t)g.E : e + 1) {
      ref::ExpertMats m{sparse(rng, (size_t)(g.I * g.H), 64, 1, 1), sparse(rng, (size_t)(g.I * g.H), up_every, -1, 1),
                        sparse(rng, (size_t)(g.H * g.I), 8, -1, 1)};
      if (kq.gu || lb.gu >= 0) {
        store_kquant(e, m);
        mats[e] = std::move(m);
        continue;
      }
      std::vector<uint16_t> sg, su, sd;
      DevBuf a = upload(m.gate, g.I, g.H, sg, rng), b = upload(m.up, g.I, g.H, su, rng);
      DevBuf c = upload(m.down, g.H, g.I, sd, rng);
      const size_t o = (size_t)(e * g.I * g.H * esz);
      if (fp8) {
        DevBuf dsg = DevBuf::from(sg), dsu = DevBuf::from(su), dsd = DevBuf::from(sd);
        EXPECT_EQ(quillon_moe_shuffle_gate_up_fp8(a.get(), b.get(), gu.p + 2 * o, 1, nullptr), hipSuccess);
        EXPECT_EQ(quillon_moe_shuffle_down_fp8(c.get(), dn.p + o, 1, nullptr), hipSuccess);
        EXPECT_EQ(quillon_moe_scale_shuffle_gate_up_fp8(dsg.get(), dsu.get(), gu_sc.p + e * gus * 2, 1,
                                                        nullptr), hipSuccess);
        EXPECT_EQ(quillon_moe_scale_shuffle_down_fp8(dsd.get(), dn_sc.p + e * dns * 2, 1, nullptr),
                  hipSuccess);
      } else {
        EXPECT_EQ(quillon_moe_shuffle_gate_up(a.get(), b.get(), gu.p + 2 * o, 1, nullptr), hipSuccess);
        EXPECT_EQ(quillon_moe_shuffle_down(c.get(), dn.p + o, 1, nullptr), hipSuccess);
      }
      EXPECT_EQ(hipDeviceSynchronize(), hipSuccess);
      mats[e] = std::move(m);
    }
  }
  // Expert e into the slabs (the shared one into its own, bf16 unless kq.sgu).
  void store_kquant(int32_t e, const ref::ExpertMats& m) {
    const bool shared = e == g.E;
    if (shared && !kq.sgu) {
      DevBuf a = DevBuf::from(bf(m.gate)), b = DevBuf::from(bf(m.up)), c = DevBuf::from(bf(m.down));
      EXPECT_EQ(quillon_moe_shuffle_gate_up(a.get(), b.get(), sgu.p, 1, nullptr), hipSuccess);
      EXPECT_EQ(quillon_moe_shuffle_down(c.get(), sdn.p, 1, nullptr), hipSuccess);
      EXPECT_EQ(hipDeviceSynchronize(), hipSuccess);
      return;
    }
    const int fgu = shared ? kq.sgu : kq.gu, fdn = shared ? kq.sdn : kq.dn;
    const int64_t z = shared ? 0 : e;
    auto at = [&](Slab& slab, int64_t (*size)(int32_t, int64_t), int f, int64_t tail) {
      return slab.p + z * (size(f, 1) - tail);
    };
    const std::vector<uint8_t> qg = encode(fgu, m.gate), qu = encode(fgu, m.up), qd = encode(fdn, m.down);
    DevBuf a = DevBuf::from(qg), b = DevBuf::from(qu), c = DevBuf::from(qd);
    EXPECT_EQ(quillon_moe_kquant_shuffle_gate_up(fgu, a.get(), b.get(),
                                                 at(shared ? sgu : gu, quillon_moe_kquant_gate_up_quant_bytes, fgu, 4),
                                                 at(shared ? sgu_m : gu_sc, quillon_moe_kquant_gate_up_meta_bytes, fgu, 0),
                                                 1, nullptr),
              hipSuccess);
    EXPECT_EQ(quillon_moe_kquant_shuffle_down(fdn, c.get(),
                                              at(shared ? sdn : dn, quillon_moe_kquant_down_quant_bytes, fdn, 4),
                                              at(shared ? sdn_m : dn_sc, quillon_moe_kquant_down_meta_bytes, fdn, 0),
                                              1, nullptr),
              hipSuccess);
    EXPECT_EQ(hipDeviceSynchronize(), hipSuccess);
  }

  static int64_t lowbit_bytes(int role, int plane, int q, int64_t n) {
    int64_t (*f[2][3])(int32_t, int64_t) = {
        {quillon_moe_lowbit_gate_up_p0_bytes, quillon_moe_lowbit_gate_up_p1_bytes, quillon_moe_lowbit_gate_up_p2_bytes},
        {quillon_moe_lowbit_down_p0_bytes, quillon_moe_lowbit_down_p1_bytes, quillon_moe_lowbit_down_p2_bytes}};
    return f[role][plane](q, n);
  }
  // Routed expert e in low-bit planes: shuffled alone (n 1), then each plane's
  // K-block rows copied to rows e * R.. of the planes of all E experts. A
  // k-quant down (kq.dn) is stored as in store_kquant.
  ref::ExpertMats store_lowbit(int32_t e, qt::Rng& rng, const ref::LowBitTables& tab, int up_every) {
    ref::ExpertMats m;
    const std::vector<uint8_t> bg = lowbit_blocks(lb.gu, g.I, g.H, 4, true, rng, tab, m.gate),
                               bu = lowbit_blocks(lb.gu, g.I, g.H, up_every, false, rng, tab, m.up);
    std::vector<uint8_t> bd;
    if (lb.dn >= 0) bd = lowbit_blocks(lb.dn, g.H, g.I, 4, false, rng, tab, m.down);
    else m.down = sparse(rng, (size_t)(g.H * g.I), 8, -1, 1);
    for (int role = 0; role < 2; ++role) {
      const int q = role == 0 ? lb.gu : lb.dn;
      if (q < 0) {
        const std::vector<uint8_t> qd = encode(kq.dn, m.down);
        DevBuf c = DevBuf::from(qd);
        const int64_t z = e * (quillon_moe_kquant_down_quant_bytes(kq.dn, 1) - 4);
        EXPECT_EQ(quillon_moe_kquant_shuffle_down(kq.dn, c.get(), dn.p + z,
                                                  dn_sc.p + e * quillon_moe_kquant_down_meta_bytes(kq.dn, 1), 1,
                                                  nullptr),
                  hipSuccess);
        EXPECT_EQ(hipDeviceSynchronize(), hipSuccess);
        continue;
      }
      const int64_t R = role == 0 ? 2 * g.I : g.H, K = role == 0 ? g.H : g.I;
      const int64_t s1 = role == 0 ? quillon_moe_lowbit_gate_up_stride(1) : quillon_moe_lowbit_down_stride(1);
      const int64_t sE = role == 0 ? quillon_moe_lowbit_gate_up_stride(g.E) : quillon_moe_lowbit_down_stride(g.E);
      DevBuf one[3] = {DevBuf((size_t)lowbit_bytes(role, 0, q, 1)), DevBuf((size_t)lowbit_bytes(role, 1, q, 1)),
                       DevBuf((size_t)std::max<int64_t>(lowbit_bytes(role, 2, q, 1), 1))};
      void* p2 = q == 2 ? nullptr : one[2].get();
      DevBuf a = DevBuf::from(role == 0 ? bg : bd), b = DevBuf::from(bu);
      EXPECT_EQ(role == 0 ? quillon_moe_lowbit_shuffle_gate_up(q, a.get(), b.get(), one[0].get(), one[1].get(), p2, 1,
                                                               nullptr)
                          : quillon_moe_lowbit_shuffle_down(q, a.get(), one[0].get(), one[1].get(), p2, 1, nullptr),
                hipSuccess);
      for (int p = 0; p < (q == 2 ? 2 : 3); ++p) {
        const int64_t blocks = p == 2 ? K / 256 : K / 32, w = lowbit_bytes(role, p, q, 1) / (s1 * blocks);
        EXPECT_EQ(hipMemcpy2D(planes[(size_t)(3 * role + p)]->p + e * R * w, (size_t)(sE * w), one[p].get(),
                              (size_t)(s1 * w), (size_t)(R * w), (size_t)blocks, hipMemcpyDeviceToDevice),
                  hipSuccess);
      }
      EXPECT_EQ(hipDeviceSynchronize(), hipSuccess);
    }
    return m;
  }

  // The checkpoint tensor of v [R, C]: bf16, or fp8 codes with scales sc.
  DevBuf upload(std::vector<float>& v, int64_t R, int64_t C, std::vector<uint16_t>& sc, qt::Rng& rng) const {
    if (!fp8) return DevBuf::from(bf(v));
    std::vector<uint8_t> q(v.size());
    for (int64_t i = 0; i < (R / 128) * (C / 128); ++i) sc.push_back((uint16_t)(0x3f00 + 0x80 * rng.integer(0, 2)));
    for (int64_t i = 0; i < R * C; ++i) {
      q[(size_t)i] = v[(size_t)i] == 0.0f ? 0 : v[(size_t)i] > 0 ? 0x38 : 0xb8;
      v[(size_t)i] *= qt::bf(sc[(size_t)((i / C / 128) * (C / 128) + i % C / 128)]);
    }
    return DevBuf::from(q);
  }

  std::vector<uint16_t> hidden(int64_t M) const {
    qt::Rng rng(500 + M);
    std::vector<float> h = sparse(rng, (size_t)(M * g.H), 4, 1, 1);
    for (int64_t t = 0; t < M; ++t) h[(size_t)(t * g.H)] = 1.0f;
    return bf(h);
  }
  // Table routing: token t has id t % 16, whose row lists K live experts.
  std::vector<int64_t> token_ids(int64_t M) const {
    std::vector<int64_t> ids((size_t)M);
    for (int64_t t = 0; t < M; ++t) ids[(size_t)t] = t % 16;
    return ids;
  }
  std::vector<int32_t> table() const {
    std::vector<int32_t> tab;
    for (int64_t r = 0; r < 16; ++r)
      for (int64_t k = 0; k < g.K; ++k) tab.push_back((int32_t)((r + 3 * k) % 12));
    return tab;
  }
  std::vector<uint16_t> run(const std::vector<uint16_t>& x, int64_t M) {
    DevBuf d_x = DevBuf::from(x), ws(quillon_moe_workspace_bytes(M)), out(M * g.H * 2);
    DevBuf d_tok = DevBuf::from(token_ids(M)), d_tab = DevBuf::from(table());
    auto P = [&](int i) -> void* { return lb.gu >= 0 && planes[(size_t)i]->p ? planes[(size_t)i]->p : nullptr; };
    void* sgm = kq.sgu ? sgu_m.p : nullptr;
    void* sdm = kq.sgu ? sdn_m.p : nullptr;
    const int fsg = kq.sgu ? kq.sgu : 7, fsd = kq.sdn ? kq.sdn : -1;
    // Shared ids past the format list: read only next to their metadata.
    EXPECT_EQ(lb.table ? quillon_moe_experts_lowbit_split_tid2eid(
                             lb.gu, lb.dn, fsg, fsd, d_x.get(), blob.get(), d_tok.as<int64_t>(), d_tab.as<int32_t>(),
                             P(0), P(1), P(2), P(3), P(4), P(5), sgu.p, sgm, sdn.p, sdm, out.get(), ws.get(), M, nullptr)
          : lb.gu >= 0 && lb.dn >= 0
              ? quillon_fused_moe_lowbit_split(lb.gu, lb.dn, fsg, fsd, d_x.get(), blob.get(), P(0), P(1), P(2), P(3),
                                               P(4), P(5), sgu.p, sgm, sdn.p, sdm, out.get(), ws.get(), M, nullptr)
          : lb.gu >= 0
              ? quillon_fused_moe_lowbit_kquant_down_split(lb.gu, kq.dn, fsg, fsd, d_x.get(), blob.get(), P(0), P(1),
                                                           P(2), dn.p, dn_sc.p, sgu.p, sgm, sdn.p, sdm, out.get(),
                                                           ws.get(), M, nullptr)
          : kq.gu ? quillon_fused_moe_kquant_split(kq.gu, kq.dn, kq.sgu ? kq.sgu : 7, kq.sdn ? kq.sdn : -1, d_x.get(),
                                                     blob.get(), gu.p, gu_sc.p, dn.p, dn_sc.p, sgu.p,
                                                     kq.sgu ? sgu_m.p : nullptr, sdn.p, kq.sgu ? sdn_m.p : nullptr,
                                                     out.get(), ws.get(), M, nullptr)
          : fp8 ? quillon_fused_moe_fp8(d_x.get(), blob.get(), gu.p, dn.p, gu_sc.p, dn_sc.p, out.get(), ws.get(), M,
                                          nullptr)
                  : quillon_fused_moe(d_x.get(), blob.get(), gu.p, dn.p, out.get(), ws.get(), M, nullptr),
              hipSuccess);
    EXPECT_EQ(hipDeviceSynchronize(), hipSuccess);
    EXPECT_TRUE(ws.guards_intact() && out.guards_intact());
    return out.download<uint16_t>();
  }
  // The table's variant, then the narrow kernels off (M up to 4) or variants
  // 1 and 2 (low-bit: and variant 2 split by force).
  std::vector<std::vector<uint16_t>> forms(const std::vector<uint16_t>& x, int64_t M) {
    std::vector<std::vector<uint16_t>> outs{run(x, M)};
    auto narrow = lb.gu >= 0 ? quillon_moe_lowbit_narrow_force_max_m : quillon_moe_kquant_narrow_force_max_m;
    if (M <= 4) {
      narrow(0);
      outs.push_back(run(x, M));
      narrow(4);
      return outs;
    }
    for (int v = 1; v < 3; ++v) {
      quillon_moe_variant_force(v);
      outs.push_back(run(x, M));
    }
    if (lb.gu >= 0) {
      quillon_moe_lowbit_force_split(1);
      outs.push_back(run(x, M));
      quillon_moe_lowbit_force_split(0);
    }
    quillon_moe_variant_force(3);
    return outs;
  }
  // The table router's own table (its reference is the router test's): run
  // unshuffled, tokens 0, every, ...
  ref::Routed table_routing(const std::vector<uint16_t>& x, int64_t M, int64_t every) {
    const int64_t S = g.K + 1, m = (M + every - 1) / every;
    std::vector<uint16_t> xs;
    std::vector<int64_t> ids = token_ids(M), sub;
    for (int64_t t = 0; t < M; t += every) {
      xs.insert(xs.end(), x.begin() + t * g.H, x.begin() + (t + 1) * g.H);
      sub.push_back(ids[(size_t)t]);
    }
    DevBuf d_x = DevBuf::from(xs), d_tok = DevBuf::from(sub), d_tab = DevBuf::from(table()), w(m * S * 4),
           id(m * S * 4);
    quillon_moe_dispatch_force(16, 0);
    EXPECT_EQ(quillon_moe_router_tid2eid(d_x.get(), blob.get(), d_tok.as<int64_t>(), d_tab.as<int32_t>(),
                                         w.as<float>(), id.as<int32_t>(), nullptr, m, nullptr),
              hipSuccess);
    EXPECT_EQ(hipDeviceSynchronize(), hipSuccess);
    quillon_moe_dispatch_force(0, 0);
    return {id.download<int32_t>(), w.download<float>()};
  }
  // Tokens 0, every, 2 * every, ... against the reference.
  void expect_near(const std::vector<uint16_t>& x, const std::vector<std::vector<uint16_t>>& outs, int64_t M,
                   int64_t every = 1) {
    const int64_t S = g.K + 1, m = (M + every - 1) / every;
    std::vector<float> logits((size_t)(m * g.E)), gates, xf;
    for (int64_t t = 0; t < m; ++t) {
      const uint16_t* row = &x[(size_t)(t * every * g.H)];
      for (int64_t c = 0; c < g.H; ++c) xf.push_back(qt::bf(row[c]));
      for (int64_t e = 0; e < g.E; ++e)
        logits[(size_t)(t * g.E + e)] = ref::dot_row(row, &router_rows[(size_t)(e * g.H)], g.H);
      if (g.gate) gates.push_back(ref::sigmoid(ref::dot_row(row, gate_row.data(), g.H)));
    }
    ref::Routed r = ref::topk(logits, std::vector<float>((size_t)g.E), m, g.E, g.K, g.scoring, g.scale, gates);
    if (lb.table) r = table_routing(x, M, every);
    const ref::MoeOut want = ref::fused_moe(xf, r.ids, r.w, mats, m, S, g.H, g.I, g.limit);
    for (size_t o = 0; o < outs.size(); ++o) {
      int64_t bad = 0;
      for (int64_t i = 0; i < m * g.H; ++i) {
        const float v = qt::bf(outs[o][(size_t)((i / g.H) * every * g.H + i % g.H)]);
        if (!(std::fabs((double)v - qt::bf(want.out[(size_t)i])) <= want.tol[(size_t)i]) && bad++ < 5)
          ADD_FAILURE() << "output " << o << ", token " << i / g.H * every << " column " << i % g.H << ": got " << v
                        << ", want " << qt::bf(want.out[(size_t)i]) << " within " << want.tol[(size_t)i];
      }
    }
  }
};

class MoeFused : public ::testing::Test {
 protected:
  void TearDown() override {
    quillon_moe_variant_force(3);
    quillon_moe_fp8_narrow_force_max_m(4);
    quillon_moe_kquant_narrow_force_max_m(4);
    quillon_moe_lowbit_narrow_force_max_m(4);
    quillon_moe_lowbit_force_split(0);
  }
};

// At geometry 0 each M runs the table's variant and then variants 1 and 2,
// so the narrow, 16-row and 64- and 128-row LDS kernels, to the same bits
// (fp8 also with its narrow kernels off); 8 live experts send every token to
// the same eight. Geometry 2 clamps gate-up at 10 in bf16 but not in fp8 (its
// up rows are dense enough to pass the clamp); geometry 3's down has K 640.
TEST_F(MoeFused, EveryPathMatchesTheReference) {
  struct Case {
    const FGeo& g;
    bool fp8;
    int live, up_every;
    std::vector<int64_t> Ms;
  };
  const Case cases[] = {{kG0, false, 12, 64, {1, 2, 3, 8, 33}}, {kG0, false, 8, 64, {33}}, {kG0, true, 12, 64, {1, 3, 33}},
                        {kG2, false, 12, 8, {2}},  {kG2, true, 12, 8, {2}}, {kG3, false, 12, 8, {8}},
                        {kG3, true, 12, 8, {3}}};
  for (const Case& c : cases) {
    if (!quillon::geometry_built(c.g.id)) continue;
    ASSERT_EQ(quillon_select_geometry(c.g.id), 0);
    FGeo g = c.g;
    if (c.fp8) g.limit = 0.0;
    Model m(g, c.fp8, c.live, c.up_every);
    for (int64_t M : c.Ms) {
      SCOPED_TRACE("geometry " + std::to_string(g.id) + (c.fp8 ? " fp8 M " : " bf16 M ") + std::to_string(M) +
                   ", live " + std::to_string(c.live));
      const std::vector<uint16_t> x = m.hidden(M);
      const std::vector<uint16_t> base = m.run(x, M);
      m.expect_near(x, {base}, M);
      for (int v = g.id == 0 ? 1 : 3; v < 3; ++v) {
        SCOPED_TRACE("variant " + std::to_string(v));
        quillon_moe_variant_force(v);
        EXPECT_BITS_EQ(m.run(x, M), base);
      }
      quillon_moe_variant_force(3);
      if (c.fp8 && M <= 4) {
        quillon_moe_fp8_narrow_force_max_m(0);
        EXPECT_BITS_EQ(m.run(x, M), base);
        quillon_moe_fp8_narrow_force_max_m(4);
      }
    }
  }
}

// Split entries. Each M runs the table's variant, then the narrow kernels off
// (M up to 4) or variants 1 and 2 (low-bit: and variant 2 split by force).
// k-quant: two passes with a bf16 shared expert and with a k-quant one (Q5_K
// shared down: its 32-column decode tiles); the Q8_0 pair takes the dual
// launch at M 1 to 3; every form gives the same bits (integer codes), and
// geometry 2's dual launch goes unclamped. Geometry 3's down (K 640) in Q8_0,
// dual and beside a Q5_K shared gate-up. Low-bit: forms agree within the
// reference's bound (down sums are not exact). With a Q5_K shared expert
// variant 2 merges routed and shared tiles: 256 columns for IQ2_XXS and
// IQ3_XXS, 128 for IQ2_S, with the gate-up clamp at geometry 2; MXFP4 and a
// bf16 shared expert never merge. Geometry 3's low-bit down is MXFP4.
TEST_F(MoeFused, SplitEntriesMatchTheReference) {
  struct Case {
    const FGeo& g;
    KqForm kq;
    LbForm lb;
    std::vector<int64_t> Ms;
  };
  const Case cases[] = {{kG0, {4, 5, 0, 0}, {}, {1, 3, 33}},     {kG0, {5, 4, 4, 5}, {}, {1, 33}},
                        {kG0, {8, 4, 8, 8}, {}, {1, 3, 33}},     {kG2, {4, 8, 8, 8}, {}, {2}},
                        {kG3, {4, 8, 8, 8}, {}, {3}},            {kG3, {8, 8, 5, 8}, {}, {3}},
                        {kG0, {}, {0, 1}, {1, 3, 33}},           {kG0, {0, 0, 5, 5}, {1, 3}, {2, 33}},
                        {kG0, {0, 0, 8, 8}, {2, 2}, {1, 33}},    {kG0, {0, 4, 0, 0}, {3, -1}, {2, 33}},
                        {kG0, {0, 0, 5, 5}, {3, 0, true}, {3, 33}}, {kG2, {0, 0, 5, 5}, {0, 0}, {5}},
                        {kG3, {0, 0, 5, 8}, {0, 2}, {3}}};
  for (const Case& c : cases) {
    if (!quillon::geometry_built(c.g.id)) continue;
    ASSERT_EQ(quillon_select_geometry(c.g.id), 0);
    FGeo g = c.g;
    const bool lowbit = c.lb.gu >= 0;
    Model m(g, false, 12, lowbit ? 16 : g.id == 2 ? 8 : 64, c.kq, c.lb);
    for (int64_t M : c.Ms) {
      SCOPED_TRACE("geometry " + std::to_string(g.id) + " k-quant " + std::to_string(c.kq.gu) + "/" +
                   std::to_string(c.kq.dn) + "/" + std::to_string(c.kq.sgu) + "/" + std::to_string(c.kq.sdn) +
                   " low-bit " + std::to_string(c.lb.gu) + "/" + std::to_string(c.lb.dn) +
                   (c.lb.table ? " table" : "") + " M " + std::to_string(M));
      const std::vector<uint16_t> x = m.hidden(M);
      const std::vector<std::vector<uint16_t>> outs = m.forms(x, M);
      if (lowbit) {
        m.expect_near(x, outs, M);
      } else if (g.id == 2 && c.kq.sgu == 8 && M <= 4) {
        // The dual launch carries no clamp; the two passes do, and the up
        // rows are dense enough that the outputs differ.
        g.limit = 0.0;
        m.expect_near(x, {outs[0]}, M);
        g.limit = c.g.limit;
        m.expect_near(x, {outs[1]}, M);
        EXPECT_NE(outs[1], outs[0]);
      } else {
        m.expect_near(x, {outs[0]}, M);
        for (size_t i = 1; i < outs.size(); ++i) {
          SCOPED_TRACE("form " + std::to_string(i));
          EXPECT_BITS_EQ(outs[i], outs[0]);
        }
      }
    }
  }
}

// A prefill size on the table (T = 64, gathered and shuffled), sampled
// tokens: bf16, and routed k-quant beside a k-quant shared expert whose pass
// reads the router's shuffled rows.
TEST_F(MoeFused, PrefillSizeMatchesSampledReference) {
  QT_SELECT_GEOMETRY(0);
  for (const KqForm& kq : {KqForm{}, KqForm{4, 8, 5, 8}}) {
    Model m(kG0, false, 12, 64, kq);
    const std::vector<uint16_t> x = m.hidden(769);
    m.expect_near(x, {m.run(x, 769)}, 769, 48);
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
  // Ids first (shared ones only beside metadata), then the metadata pair,
  // then the sets: geometry 3's down takes only 8 and 20.
  auto kq = [](int32_t a, int32_t b, int32_t c, int32_t d, const void* cm, const void* dm) {
    (void)quillon_fused_moe_kquant_split(a, b, c, d, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                         cm, nullptr, dm, nullptr, nullptr, 1, nullptr);
  };
  int meta = 0;
  const char* pair = "the shared expert needs metadata for both slabs or for neither";
  EXPECT_QUILLON_FATAL(kq(7, 4, 8, 8, &meta, &meta), "7 is not a k-quant format id (see kquant_sets's FORMATS list)");
  EXPECT_QUILLON_FATAL(kq(4, 4, 8, 24, nullptr, &meta),
                       "24 is not a k-quant format id (see kquant_sets's FORMATS list)");
  EXPECT_QUILLON_FATAL(kq(4, 4, 24, 8, nullptr, &meta), pair);
  EXPECT_QUILLON_FATAL(kq(4, 4, 8, 8, &meta, nullptr), pair);
  if (quillon::geometry_built(3)) {
    ASSERT_EQ(quillon_select_geometry(3), 0);
    const char* ragged = "k-quant format %d is not in this build's ragged-K set (kquant_sets)";
    char want[128];
    std::snprintf(want, sizeof want, ragged, 5);
    EXPECT_QUILLON_FATAL(kq(5, 5, 8, 8, nullptr, nullptr), want);
    std::snprintf(want, sizeof want, ragged, 4);
    EXPECT_QUILLON_FATAL(kq(4, 20, 8, 4, &meta, &meta), want);
  }
  // Low-bit: expert formats, a k-quant down's id, the metadata pair. Geometry
  // 3's i-quant down has no planes: K 640 is not whole super-blocks.
  auto lb = [](int32_t a, int32_t b, const void* cm, const void* dm) {
    (void)quillon_fused_moe_lowbit_split(a, b, 5, 5, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                         nullptr, nullptr, cm, nullptr, dm, nullptr, nullptr, 1, nullptr);
  };
  auto lbk = [](int32_t a, int32_t b, const void* cm, const void* dm) {
    (void)quillon_fused_moe_lowbit_kquant_down_split(a, b, 5, 5, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                                     nullptr, nullptr, cm, nullptr, dm, nullptr, nullptr, 1, nullptr);
  };
  const std::string fmt = "expert quant format must be 0 (IQ2_XXS), 1 (IQ3_XXS), 2 (MXFP4) or 3 (IQ2_S), got ";
  EXPECT_QUILLON_FATAL(lb(4, 0, &meta, &meta), fmt + "4");
  EXPECT_QUILLON_FATAL(lb(0, -1, &meta, &meta), fmt + "-1");
  EXPECT_QUILLON_FATAL(lbk(0, 7, &meta, &meta), "7 is not a k-quant format id (see kquant_sets's FORMATS list)");
  EXPECT_QUILLON_FATAL(lbk(0, 4, &meta, nullptr), pair);
  EXPECT_QUILLON_FATAL((void)quillon_moe_experts_lowbit_split_tid2eid(
                           1, 2, 5, 5, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                           nullptr, nullptr, nullptr, nullptr, &meta, nullptr, nullptr, 1, nullptr),
                       pair);
  if (quillon::geometry_built(3)) {
    ASSERT_EQ(quillon_select_geometry(3), 0);
    EXPECT_QUILLON_FATAL(lb(2, 1, nullptr, nullptr),
                         "an i-quant shuffle needs K=640 to divide into 256-weight super-blocks");
    EXPECT_QUILLON_FATAL(lbk(1, 5, nullptr, nullptr),
                         "k-quant format 5 is not in this build's ragged-K set (kquant_sets)");
  }
  ASSERT_EQ(quillon_select_geometry(1), 0);
  EXPECT_QUILLON_FATAL(quillon_moe_workspace_bytes(1),
                       "geometry 1 does not carry this op; it belongs to a model family this build instantiates for "
                       "other ids (see quillon_geometry_name)");
}

}  // namespace
