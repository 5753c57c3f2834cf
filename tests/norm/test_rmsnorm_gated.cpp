// Gated norm of the linear-attention output, row-major and into a blk32 panel.
#include "norm/norm_util.h"
#include "norm/rmsnorm.h"
#include "quillon/quillon.h"

namespace {

struct GatedGeo {
  int id, heads;
  bool sigmoid;
};
const GatedGeo kGeos[] = {{0, 32, false}, {1, 48, false}, {3, 48, true}};

struct Inputs {
  std::vector<uint16_t> x, gate, w;
  int64_t gate_stride;
};

// Gate rows are wider than the value width (they sit inside a projection row);
// the gap holds NaN, which must never be read.
Inputs make_inputs(qt::Rng& rng, int64_t rows, int heads, int64_t gate_stride) {
  Inputs in;
  const int64_t width = heads * 128;
  in.x = nt::spread_bf16s(rng, (size_t)(rows * width));
  in.gate = rng.bf16s((size_t)(rows * gate_stride), -6.f, 6.f);
  for (int64_t r = 0; r < rows; ++r)
    for (int64_t i = width; i < gate_stride; ++i) in.gate[(size_t)(r * gate_stride + i)] = 0x7FC0;
  in.w = rng.bf16s(128, -2.f, 2.f);
  in.gate_stride = gate_stride;
  return in;
}

// Row-major (padded 0, in place: padded -1) and into a blk32 panel of `padded` rows. Geometry 3's
// sigmoid gate also gets very negative gates: the sigmoid underflows to 0 and
// the result is a zero with y's sign.
TEST(RmsNormGated, EveryGeometryRowMajorAndPanel) {
  qt::Rng rng(31);
  const float eps = 1e-6f;
  struct Case {
    int64_t rows, padded, gate_pad;
  };
  for (const GatedGeo& g : kGeos) {
    if (!quillon::geometry_built(g.id)) continue;
    ASSERT_EQ(quillon_select_geometry(g.id), 0);
    const int64_t width = g.heads * 128;
    std::vector<Case> cases = {{1, 0, 0}, {1, 0, 64}, {17, 0, 0}, {17, 0, 64}, {5, 32, 128}, {3, -1, 128}};
    if (g.id == 0) cases.push_back({33, 64, 128});
    for (auto [rows, padded, gate_pad] : cases) {
      SCOPED_TRACE(testing::Message() << "geometry " << g.id << " rows " << rows << " padded " << padded
                                      << " gate_stride " << width + gate_pad);
      Inputs in = make_inputs(rng, rows, g.heads, width + gate_pad);
      nt::sensitise_gate(in.x, in.gate, in.gate_stride, in.w, rows, g.heads, g.sigmoid, eps);
      // Row 0, head 1, every third element.
      for (int i = 0; g.sigmoid && i < 128; i += 3) in.gate[(size_t)(i + 128)] = qt::to_bf(-200.f - (float)i);
      auto dx = qt::DevBuf::from(in.x), dg = qt::DevBuf::from(in.gate), dw = qt::DevBuf::from(in.w);
      qt::DevBuf out((size_t)((padded > 0 ? padded : rows) * width) * 2);
      const qt::DevBuf& dout = padded < 0 ? dx : out;
      if (padded > 0)
        quillon::rmsnorm_gated_shuffled(dx.get(), dg.get(), in.gate_stride, dw.get(), dout.get(), rows, padded, eps,
                                        nullptr);
      else
        quillon::rmsnorm_gated(dx.get(), dg.get(), in.gate_stride, dw.get(), dout.get(), rows, eps, nullptr);
      nt::sync_ok();
      const auto want = ref::gated_rows(in.x, in.gate, in.gate_stride, in.w, rows, g.heads, g.sigmoid, eps);
      EXPECT_BITS_EQ(dout.download<uint16_t>(), padded > 0 ? ref::to_blk32(want, rows, padded, width) : want);
      EXPECT_TRUE(dout.guards_intact());
      for (int i = 0; g.sigmoid && i < 128; i += 3) {
        const bool y_negative = (ref::widen(in.x[(size_t)(i + 128)]) < 0) != (ref::widen(in.w[i]) < 0);
        ASSERT_EQ(want[(size_t)(i + 128)], y_negative ? 0x8000 : 0x0000) << "element " << i;
      }
    }
  }
}

TEST(RmsNormGatedDeathTest, Contracts) {
  QT_SELECT_GEOMETRY(0);
  qt::DevBuf a(64), b(64);
  EXPECT_QUILLON_FATAL(quillon::rmsnorm_gated(a.get(), a.get(), 4000, a.get(), b.get(), 1, 1e-6f, nullptr),
                       "gate_stride must span the value dim (got 4000, need >= 4096)");
  EXPECT_QUILLON_FATAL(
      quillon::rmsnorm_gated_shuffled(a.get(), a.get(), 4095, a.get(), b.get(), 1, 32, 1e-6f, nullptr),
      "gate_stride must span the value dim (got 4095, need >= 4096)");
  EXPECT_QUILLON_FATAL(
      quillon::rmsnorm_gated_shuffled(a.get(), a.get(), 4096, a.get(), b.get(), 1, 40, 1e-6f, nullptr),
      "the shuffled store needs a whole 32-row block, got 40");
  EXPECT_QUILLON_FATAL(
      quillon::rmsnorm_gated_shuffled(a.get(), a.get(), 4096, a.get(), a.get(), 1, 32, 1e-6f, nullptr),
      "the shuffled store cannot run in place");
  QT_SELECT_GEOMETRY(1);
  EXPECT_QUILLON_FATAL(quillon::rmsnorm_gated(a.get(), a.get(), 4096, a.get(), b.get(), 1, 1e-6f, nullptr),
                       "gate_stride must span the value dim (got 4096, need >= 6144)");
  QT_SELECT_GEOMETRY(2);
  const char* two = qt::kGeometryTwo;
  EXPECT_QUILLON_FATAL(quillon::rmsnorm_gated(a.get(), a.get(), 1 << 20, a.get(), b.get(), 1, 1e-6f, nullptr), two);
  EXPECT_QUILLON_FATAL(
      quillon::rmsnorm_gated_shuffled(a.get(), a.get(), 1 << 20, a.get(), b.get(), 1, 32, 1e-6f, nullptr), two);
}

}  // namespace
