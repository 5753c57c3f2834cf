// Norms selected by their arguments: the fast widths, the width-generic form,
// fp32 input, null weight, strided rows, and the blk32 arm with pad rows.
#include <limits>

#include "norm/norm_util.h"
#include "norm/rmsnorm.h"
#include "quillon/quillon.h"

namespace {

ref::Mapping mapping_for(int64_t H) {
  const bool fast = H == 512 || H == 1024 || H == 4096;
  return {fast ? ref::Map::Fast : ref::Map::Wide, 1, 0};
}

// x as the kernel sees it: fp32 input is rounded to bf16 first.
std::vector<float> as_seen(const std::vector<float>& f) {
  std::vector<float> v(f.size());
  for (size_t i = 0; i < f.size(); ++i) v[i] = ref::through_bf16(f[i]);
  return v;
}

TEST(Dsv4RmsNorm, EveryFormAgainstReference) {
  qt::Rng rng(21);
  const int64_t rows = 4;
  const float nan = std::numeric_limits<float>::quiet_NaN();
  for (int64_t H : {512, 1024, 4096, 1000, 8192, 12288})
    for (bool fp32 : {false, true})
      for (bool affine : {true, false})
        for (int64_t stride : {H, H + 24}) {
          SCOPED_TRACE(testing::Message() << "H " << H << " fp32 " << fp32 << " weight " << affine << " stride "
                                          << stride);
          // fp32 values lie off the bf16 grid; the gap past H holds NaN, which
          // must never be read.
          auto xf = nt::mixed_rows(rng, rows, H, stride);
          for (int64_t r = 0; r < rows; ++r)
            for (int64_t i = H; i < stride; ++i) xf[(size_t)(r * stride + i)] = nan;
          const auto seen = as_seen(nt::dense_rows(xf, rows, H, stride));
          qt::DevBuf dx = fp32 ? qt::DevBuf::from(xf) : qt::DevBuf::from(nt::round_all(xf));
          const auto w = nt::sensitive_weight(seen, (int)H, rows, 1e-6f, mapping_for(H), rng);
          auto dw = qt::DevBuf::from(w);
          qt::DevBuf dout((size_t)(rows * H) * 2);
          ASSERT_EQ(quillon_dsv4_rmsnorm(dx.get(), affine ? dw.get() : nullptr, dout.get(), H, rows, stride,
                                         fp32 ? 1 : 0, 1e-6f, nullptr),
                    hipSuccess);
          nt::sync_ok();
          EXPECT_BITS_EQ(dout.download<uint16_t>(),
                         ref::norm_rows(seen, (int)H, rows, affine ? w.data() : nullptr, 1e-6f, mapping_for(H)));
          EXPECT_TRUE(dout.guards_intact());
        }
}

// The width-generic form's own arithmetic: pair sums added one at a time to a
// running total across a thread's chunks, and the mean as one fma with the
// host's 1/H. For each neighbouring rule (chunk sums added whole, a mean
// rounded twice, an exact division) a row and weight are drawn until that
// rule would give a different output, so each launch tells the rules apart.
TEST(Dsv4RmsNorm, WideFormArithmetic) {
  qt::Rng rng(23);
  const float eps = 1e-6f;
  const ref::Mapping wide{ref::Map::Wide, 1, 0};
  enum Alt { ChunkWise, TwoRoundings, Division };
  auto r_alt = [&](const float* row, int H, Alt a) {
    if (a == ChunkWise) {
      std::vector<float> t(1024, 0.0f);
      for (int th = 0; th < 1024; ++th)
        for (int c = th; c < H / 8; c += 1024) t[th] = t[th] + ref::chunk_sum(row + 8 * c);
      return ref::rsq_care(std::fma(ref::block_reduce(t), 1.0f / (float)H, eps));
    }
    const float sum = ref::row_sum(row, H, wide, 0);
    return ref::rsq_care(a == TwoRoundings ? sum * (1.0f / (float)H) + eps : sum / (float)H + eps);
  };
  auto output = [](const std::vector<float>& row, float r, const std::vector<uint16_t>& w) {
    std::vector<uint16_t> o(row.size());
    for (size_t i = 0; i < row.size(); ++i) o[i] = ref::round_bf16((row[i] * r) * ref::widen(w[i]));
    return o;
  };
  struct Case {
    int H;
    Alt alt;
    int kind;  // row kind of mixed_rows: whole rows, or live chunks sharing one thread
  };
  for (Case c : {Case{1000, TwoRoundings, 1}, Case{1000, Division, 1}, Case{12288, ChunkWise, 3},
                 Case{12288, TwoRoundings, 3}}) {
    SCOPED_TRACE(testing::Message() << "H " << c.H << " rule " << c.alt);
    std::vector<float> row;
    std::vector<uint16_t> w;
    bool found = false;
    for (int tries = 0; tries < 4000 && !found; ++tries) {
      const auto cand = nt::mixed_rows(rng, 4, c.H, c.H);
      row.assign(cand.begin() + (size_t)c.kind * c.H, cand.begin() + (size_t)(c.kind + 1) * c.H);
      for (float& f : row) f = ref::through_bf16(f);
      const float r = ref::rinv_of(row.data(), c.H, wide, 0, eps), ra = r_alt(row.data(), c.H, c.alt);
      if (r == ra) continue;
      w = nt::sensitive_weight(row, c.H, 1, eps, wide, rng);
      found = output(row, r, w) != output(row, ra, w);
    }
    ASSERT_TRUE(found) << "no row separates the rules";
    std::vector<uint16_t> xb(row.size());
    for (size_t i = 0; i < row.size(); ++i) xb[i] = ref::round_bf16(row[i]);
    auto dx = qt::DevBuf::from(xb), dw = qt::DevBuf::from(w);
    qt::DevBuf dout((size_t)c.H * 2);
    ASSERT_EQ(quillon_dsv4_rmsnorm(dx.get(), dw.get(), dout.get(), c.H, 1, c.H, 0, eps, nullptr), hipSuccess);
    nt::sync_ok();
    EXPECT_BITS_EQ(dout.download<uint16_t>(), output(row, ref::rinv_of(row.data(), c.H, wide, 0, eps), w));
  }
}

TEST(Dsv4RmsNormDeathTest, Contracts) {
  EXPECT_QUILLON_FATAL((void)quillon_dsv4_rmsnorm(nullptr, nullptr, nullptr, 1000, 1, 1004, 0, 1e-6f, nullptr),
                       "dsv4_rmsnorm: x's row stride 1004 must be a multiple of 8");
  EXPECT_QUILLON_FATAL((void)quillon_dsv4_rmsnorm(nullptr, nullptr, nullptr, 1001, 1, 1008, 1, 1e-6f, nullptr),
                       "rmsnorm: H 1001 must be a multiple of 8");
}

// The blk32 arm: every byte of the padded panel against the address formula.
TEST(Dsv4RmsNormShuffled, PanelWithZeroPadRows) {
  qt::Rng rng(22);
  for (int64_t H : {1024, 4096, 1536})
    for (bool affine : {true, false})
      for (auto [rows, padded] : {std::pair<int64_t, int64_t>{5, 32}, {33, 64}}) {
        SCOPED_TRACE(testing::Message() << "H " << H << " weight " << affine << " rows " << rows << " padded "
                                        << padded);
        const auto x = nt::mixed_bf16_rows(rng, rows, H, H);
        const auto w = nt::sensitive_weight(nt::widen_all(x), (int)H, rows, 1e-6f, mapping_for(H), rng);
        auto dx = qt::DevBuf::from(x), dw = qt::DevBuf::from(w);
        qt::DevBuf dout((size_t)(padded * H) * 2);
        quillon::dsv4_rmsnorm_shuffled(dx.get(), affine ? dw.get() : nullptr, dout.get(), H, rows, padded, 1e-6f,
                                       nullptr);
        nt::sync_ok();
        const auto rowmajor =
            ref::norm_rows(nt::widen_all(x), (int)H, rows, affine ? w.data() : nullptr, 1e-6f, mapping_for(H));
        // Bit for bit: pad rows hold +0, not merely something that compares equal.
        EXPECT_BITS_EQ(dout.download<uint16_t>(), ref::to_blk32(rowmajor, rows, padded, H));
        EXPECT_TRUE(dout.guards_intact());
      }
}

TEST(Dsv4RmsNormShuffledDeathTest, ContractsInOrder) {
  // 16 is also not a multiple of 32: the row-count message comes first.
  EXPECT_QUILLON_FATAL(quillon::dsv4_rmsnorm_shuffled(nullptr, nullptr, nullptr, 4096, 17, 16, 1e-6f, nullptr),
                       "dsv4_rmsnorm_shuffled: 16 padded rows is fewer than the 17 real ones");
  EXPECT_QUILLON_FATAL(quillon::dsv4_rmsnorm_shuffled(nullptr, nullptr, nullptr, 1000, 5, 48, 1e-6f, nullptr),
                       "dsv4_rmsnorm_shuffled: the blk32 layout needs 32 to divide the padded row count (48)");
  EXPECT_QUILLON_FATAL(quillon::dsv4_rmsnorm_shuffled(nullptr, nullptr, nullptr, 1000, 5, 32, 1e-6f, nullptr),
                       "rmsnorm_shuffled: the blk32 layout needs 32 to divide H (1000)");
}

}  // namespace
