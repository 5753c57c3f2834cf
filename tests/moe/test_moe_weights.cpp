// Expert weight forms, byte by byte against references written from their
// layouts, through the exported entries, their sizes against the layouts.
#include <gtest/gtest.h>

#include <random>

#include "common/test_util.h"
#include "quillon/quillon.h"
#include "reference/gguf_ref.h"
#include "reference/moe_weights_ref.h"

namespace {

using qt::DevBuf;

struct WGeo {
  int id;
  int64_t H, I, E;
};
constexpr WGeo kW[] = {{0, 2048, 512, 256}, {2, 4096, 2048, 256}, {3, 2560, 640, 512}};

std::vector<uint8_t> random_bytes(size_t n, uint64_t seed) {
  std::mt19937_64 g(seed);
  std::vector<uint8_t> v(n);
  for (auto& x : v) x = (uint8_t)g();
  return v;
}

// bf16 and fp8 panels from split, fused and down sources; n experts.
TEST(MoeWeights, PanelsAndScales) {
  for (const WGeo& g : kW) {
    if (!quillon::geometry_built(g.id)) continue;
    ASSERT_EQ(quillon_select_geometry(g.id), 0);
    const int64_t n = g.id == 2 ? 1 : 3;  // geometry 2's experts are 32 MiB of bf16 each
    for (int esz : {2, 1}) {
      SCOPED_TRACE("geometry " + std::to_string(g.id) + (esz == 2 ? " bf16" : " fp8"));
      const std::vector<uint8_t> gate = random_bytes((size_t)(n * g.I * g.H * esz), 1),
                                 up = random_bytes((size_t)(n * g.I * g.H * esz), 2),
                                 down = random_bytes((size_t)(n * g.H * g.I * esz), 3);
      const std::vector<uint8_t> want_gu =
          ref::expert_panels(ref::interleave_gate_up(gate, up, n, g.I, g.H * esz), n, 2 * g.I, g.H, esz);
      const std::vector<uint8_t> want_down = ref::expert_panels(down, n, g.H, g.I, esz);
      DevBuf d_gate = DevBuf::from(gate), d_up = DevBuf::from(up), d_down = DevBuf::from(down);
      DevBuf gu(want_gu.size()), dn(want_down.size());
      if (esz == 2) {
        ASSERT_EQ(quillon_moe_shuffle_gate_up(d_gate.get(), d_up.get(), gu.get(), n, nullptr), hipSuccess);
        ASSERT_EQ(quillon_moe_shuffle_down(d_down.get(), dn.get(), n, nullptr), hipSuccess);
      } else {
        ASSERT_EQ(quillon_moe_shuffle_gate_up_fp8(d_gate.get(), d_up.get(), gu.get(), n, nullptr), hipSuccess);
        ASSERT_EQ(quillon_moe_shuffle_down_fp8(d_down.get(), dn.get(), n, nullptr), hipSuccess);
      }
      ASSERT_EQ(hipDeviceSynchronize(), hipSuccess);
      EXPECT_BITS_EQ(gu.download<uint8_t>(), want_gu);
      EXPECT_BITS_EQ(dn.download<uint8_t>(), want_down);
      EXPECT_TRUE(gu.guards_intact() && dn.guards_intact());
      if (esz == 2) {
        DevBuf fused = DevBuf::from(ref::fuse_gate_up(gate, up, n, g.I, g.H * 2)), gf(want_gu.size());
        ASSERT_EQ(quillon_moe_shuffle_gate_up_fused(fused.get(), gf.get(), n, nullptr), hipSuccess);
        ASSERT_EQ(hipDeviceSynchronize(), hipSuccess);
        EXPECT_BITS_EQ(gf.download<uint8_t>(), want_gu);
      }
    }
    // Scales: gate-up entries for both 64-row halves of a 128-row block.
    const int64_t ns = 3, nb = g.I / 128, kb = g.H / 128;
    qt::Rng rng(9);
    const std::vector<uint16_t> gs = rng.bf16s((size_t)(ns * nb * kb)), us = rng.bf16s((size_t)(ns * nb * kb)),
                                ds = rng.bf16s((size_t)(ns * kb * nb));
    DevBuf d_gs = DevBuf::from(gs), d_us = DevBuf::from(us), d_ds = DevBuf::from(ds);
    DevBuf gso(ns * 4 * nb * kb * 2), dso(ns * nb * kb * 2);
    ASSERT_EQ(quillon_moe_scale_shuffle_gate_up_fp8(d_gs.get(), d_us.get(), gso.get(), ns, nullptr), hipSuccess);
    ASSERT_EQ(quillon_moe_scale_shuffle_down_fp8(d_ds.get(), dso.get(), ns, nullptr), hipSuccess);
    ASSERT_EQ(hipDeviceSynchronize(), hipSuccess);
    EXPECT_BITS_EQ(gso.download<uint16_t>(), ref::gate_up_scales(gs, us, ns, nb, kb));
    EXPECT_BITS_EQ(dso.download<uint16_t>(), ref::down_scales(ds, ns, kb, nb));
    EXPECT_TRUE(gso.guards_intact() && dso.guards_intact());
  }
}

// k-quant planes of n experts: each expert matrix is the dense planes of its
// interleaved rows, back to back, with 4 zero bytes at the very end.
void check_kquant(const WGeo& g, int id, int64_t n, bool down) {
  SCOPED_TRACE("format " + std::to_string(id) + (down ? " down" : " gate-up") + ", geometry " + std::to_string(g.id));
  const ref::KFormat f = ref::kformat(id);
  const int64_t R = down ? g.H : 2 * g.I, K = down ? g.I : g.H, row_bytes = K / f.block_weights * f.block_bytes;
  std::mt19937_64 rng(id * 7 + n);
  const int64_t src_rows = down ? n * g.H : n * g.I;
  const std::vector<uint8_t> a = ref::random_blocks(rng, f.block_bytes, src_rows * K / f.block_weights,
                                                    ref::kquant_f16_offsets(id)),
                             b = ref::random_blocks(rng, f.block_bytes, src_rows * K / f.block_weights,
                                                    ref::kquant_f16_offsets(id));
  const std::vector<uint8_t> rows = down ? a : ref::interleave_gate_up(a, b, n, g.I, row_bytes);
  std::vector<uint8_t> want_q, want_m, written;
  for (int64_t e = 0; e < n; ++e) {
    const std::vector<uint8_t> one(rows.begin() + e * R * row_bytes, rows.begin() + (e + 1) * R * row_bytes);
    ref::KPlanes p = ref::kquant_planes(id, one, R, K);
    want_q.insert(want_q.end(), p.quant.begin(), p.quant.end() - 4);
    want_m.insert(want_m.end(), p.meta.begin(), p.meta.end());
    written.insert(written.end(), p.meta_written.begin(), p.meta_written.end());
  }
  want_q.insert(want_q.end(), 4, 0);
  const int64_t qb = down ? quillon_moe_kquant_down_quant_bytes(id, n) : quillon_moe_kquant_gate_up_quant_bytes(id, n);
  const int64_t mb = down ? quillon_moe_kquant_down_meta_bytes(id, n) : quillon_moe_kquant_gate_up_meta_bytes(id, n);
  ASSERT_EQ(qb, (int64_t)want_q.size());
  ASSERT_EQ(mb, (int64_t)want_m.size());
  DevBuf d_a = DevBuf::from(a), d_b = DevBuf::from(b), q(qb), m(mb);
  if (down) ASSERT_EQ(quillon_moe_kquant_shuffle_down(id, d_a.get(), q.get(), m.get(), n, nullptr), hipSuccess);
  else
    ASSERT_EQ(quillon_moe_kquant_shuffle_gate_up(id, d_a.get(), d_b.get(), q.get(), m.get(), n, nullptr), hipSuccess);
  ASSERT_EQ(hipDeviceSynchronize(), hipSuccess);
  EXPECT_BITS_EQ(q.download<uint8_t>(), want_q);
  std::vector<uint8_t> got_m = m.download<uint8_t>();
  for (size_t i = 0; i < got_m.size(); ++i)
    if (!written[i]) got_m[i] = want_m[i];  // unwritten past a ragged K
  EXPECT_BITS_EQ(got_m, want_m);
  EXPECT_TRUE(q.guards_intact() && m.guards_intact());
}

TEST(MoeWeights, KQuantPlanes) {
  if (quillon::geometry_built(0)) {
    ASSERT_EQ(quillon_select_geometry(0), 0);
    for (int id : ref::kKquantIds) {
      check_kquant(kW[0], id, 2, false);
      check_kquant(kW[0], id, 1, true);
    }
  }
  if (quillon::geometry_built(3)) {
    ASSERT_EQ(quillon_select_geometry(3), 0);
    for (int id : {8, 20}) check_kquant(kW[2], id, 2, true);  // K 640: a ragged last super-block
  }
}

// Low-bit planes: the dense plane layout of all n experts' interleaved rows
// at stride n * R + 128, the 128 extra rows zero though the planes start dirty.
void check_lowbit(const WGeo& g, int q, int64_t n, int form) {
  const char* names[] = {"gate-up split", "gate-up fused", "down"};
  SCOPED_TRACE(std::string(names[form]) + ", format " + std::to_string(q) + ", geometry " + std::to_string(g.id));
  const bool down = form == 2;
  const int64_t R = down ? g.H : 2 * g.I, K = down ? g.I : g.H, stride = n * R + 128;
  const int bw = ref::lowbit_block_weights(q), bb = ref::lowbit_block_bytes(q);
  const int64_t row_bytes = K / bw * bb, src_rows = down ? n * g.H : n * g.I;
  std::mt19937_64 rng(q * 13 + form);
  const std::vector<int> f16 = q == 2 ? std::vector<int>{} : std::vector<int>{0};
  const std::vector<uint8_t> a = ref::random_blocks(rng, bb, src_rows * K / bw, f16, q == 2),
                             b = ref::random_blocks(rng, bb, src_rows * K / bw, f16, q == 2);
  const ref::LowBitPlanesRef want =
      ref::lowbit_planes(q, down ? a : ref::interleave_gate_up(a, b, n, g.I, row_bytes), n * R, K, stride);
  const int64_t sizes[3] = {
      down ? quillon_moe_lowbit_down_p0_bytes(q, n) : quillon_moe_lowbit_gate_up_p0_bytes(q, n),
      down ? quillon_moe_lowbit_down_p1_bytes(q, n) : quillon_moe_lowbit_gate_up_p1_bytes(q, n),
      down ? quillon_moe_lowbit_down_p2_bytes(q, n) : quillon_moe_lowbit_gate_up_p2_bytes(q, n)};
  ASSERT_EQ(sizes[0], (int64_t)want.p0.size());
  ASSERT_EQ(sizes[1], (int64_t)want.p1.size());
  ASSERT_EQ(sizes[2], (int64_t)want.p2.size());
  ASSERT_EQ(down ? quillon_moe_lowbit_down_stride(n) : quillon_moe_lowbit_gate_up_stride(n), stride);
  DevBuf d_a = DevBuf::from(form == 1 ? ref::fuse_gate_up(a, b, n, g.I, row_bytes) : a), d_b = DevBuf::from(b);
  DevBuf p0(sizes[0]), p1(sizes[1]), p2(sizes[2] ? sizes[2] : 1);
  void* pp2 = sizes[2] ? p2.get() : nullptr;
  void* s0 = d_a.get();
  const hipError_t e = form == 0 ? quillon_moe_lowbit_shuffle_gate_up(q, s0, d_b.get(), p0.get(), p1.get(), pp2, n, nullptr)
                       : form == 1 ? quillon_moe_lowbit_shuffle_gate_up_fused(q, s0, p0.get(), p1.get(), pp2, n, nullptr)
                                   : quillon_moe_lowbit_shuffle_down(q, s0, p0.get(), p1.get(), pp2, n, nullptr);
  ASSERT_EQ(e, hipSuccess);
  ASSERT_EQ(hipDeviceSynchronize(), hipSuccess);
  EXPECT_BITS_EQ(p0.download<uint8_t>(), want.p0);
  EXPECT_BITS_EQ(p1.download<uint8_t>(), want.p1);
  if (sizes[2]) EXPECT_BITS_EQ(p2.download<uint8_t>(), want.p2);
  EXPECT_TRUE(p0.guards_intact() && p1.guards_intact() && p2.guards_intact());
}

TEST(MoeWeights, LowBitPlanes) {
  if (quillon::geometry_built(0)) {
    ASSERT_EQ(quillon_select_geometry(0), 0);
    for (int q = 0; q < 4; ++q)
      for (int form = 0; form < 3; ++form) check_lowbit(kW[0], q, 2, form);
  }
  if (quillon::geometry_built(3)) {
    ASSERT_EQ(quillon_select_geometry(3), 0);
    check_lowbit(kW[2], 2, 3, 2);  // MXFP4 down at K 640
    check_lowbit(kW[2], 3, 1, 0);
  }
}

TEST(MoeWeightsDeathTest, Contracts) {
  QT_SELECT_GEOMETRY(0);
  EXPECT_QUILLON_FATAL(quillon_moe_lowbit_gate_up_p0_bytes(4, 1),
                       "expert quant format must be 0 (IQ2_XXS), 1 (IQ3_XXS), 2 (MXFP4) or 3 (IQ2_S), got 4");
  EXPECT_QUILLON_FATAL(quillon_moe_lowbit_shuffle_down(-1, nullptr, nullptr, nullptr, nullptr, 1, nullptr),
                       "expert quant format must be 0 (IQ2_XXS), 1 (IQ3_XXS), 2 (MXFP4) or 3 (IQ2_S), got -1");
  EXPECT_QUILLON_FATAL(quillon_moe_kquant_down_quant_bytes(7, 1),
                       "7 is not a k-quant format id (see kquant_sets's FORMATS list)");
  EXPECT_QUILLON_FATAL(quillon_moe_kquant_shuffle_gate_up(24, nullptr, nullptr, nullptr, nullptr, 1, nullptr),
                       "24 is not a k-quant format id (see kquant_sets's FORMATS list)");
  if (quillon::geometry_built(3)) {
    ASSERT_EQ(quillon_select_geometry(3), 0);
    EXPECT_QUILLON_FATAL(quillon_moe_lowbit_shuffle_down(0, nullptr, nullptr, nullptr, nullptr, 1, nullptr),
                         "an i-quant shuffle needs K=640 to divide into 256-weight super-blocks");
    EXPECT_QUILLON_FATAL(quillon_moe_kquant_shuffle_down(4, nullptr, nullptr, nullptr, 1, nullptr),
                         "k-quant shuffle needs [2560, 640] to divide into 32-column blocks, and K into 256-weight "
                         "super-blocks at every format but the two whose GGUF block is 32");
  }
  ASSERT_EQ(quillon_select_geometry(1), 0);
  const char* geo = "geometry 1 does not carry this op; it belongs to a model family this build instantiates for "
                    "other ids (see quillon_geometry_name)";
  EXPECT_QUILLON_FATAL(quillon_moe_shuffle_down(nullptr, nullptr, 1, nullptr), geo);
  EXPECT_QUILLON_FATAL(quillon_moe_lowbit_down_stride(1), geo);
  // The format is checked before the geometry.
  EXPECT_QUILLON_FATAL(quillon_moe_kquant_gate_up_meta_bytes(7, 1),
                       "7 is not a k-quant format id (see kquant_sets's FORMATS list)");
}

}  // namespace
