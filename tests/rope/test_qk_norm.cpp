// Per-head QK norm, alone and with the fused rotation, for every geometry and
// the draft's whole-head forms, bit for bit against the reference.
#include "quillon/quillon.h"
#include "rope/rope.h"
#include "rope/rope_util.h"

namespace {

// Heads of `head` dims, query heads `qstride` apart in their rows, key heads
// `head` apart.
struct Shape {
  int qh, kh, head, qstride;
};

struct Expected {
  std::vector<uint16_t> q, k;
};
// Reference over n tokens; rotary 0 is the plain norm. With a rotation the
// table is first tuned on each token's first head (even pairs for the low dim,
// odd ones for the high) so that the fused form's rounding shows.
Expected expect(const Shape& s, const std::vector<uint16_t>& q, int64_t q_row, const std::vector<uint16_t>& k,
                int64_t k_row, int64_t k_col, const std::vector<uint16_t>& qw, const std::vector<uint16_t>& kw,
                ref::Table& t, int64_t n, float eps, int rotary) {
  auto head_at = [&](int64_t tok, int h) {
    std::vector<float> v(s.head);
    for (int i = 0; i < s.head; ++i)
      v[i] = h < s.qh ? ref::widen(q[(size_t)(tok * q_row + h * s.qstride + i)])
                      : ref::widen(k[(size_t)(tok * k_row + k_col + (h - s.qh) * s.head + i)]);
    return v;
  };
  std::vector<float> m;
  for (int64_t tok = 0; tok < n; ++tok)
    for (int h = 0; h < s.qh + s.kh; ++h) m.push_back(ref::head_mean(head_at(tok, h).data(), s.head, eps));
  std::vector<float> r(m.size());
  for (size_t i = 0; i < m.size(); ++i) r[i] = ref::rsq_care(m[i]);  // the device's rsq on m
  for (int64_t tok = 0; tok < n && rotary; ++tok) {
    const auto x = head_at(tok, 0);
    const auto& w = s.qh ? qw : kw;
    const int half = rotary / 2;
    auto y = [&](int i) { return (x[i] * r[(size_t)(tok * (s.qh + s.kh))]) * ref::widen(w[i]); };
    for (int i = 0; i < half; ++i) {
      float& c = t.cos[(size_t)(tok * 64 + i)];
      const float sn = t.sin[(size_t)(tok * 64 + i)];
      c = i % 2 ? rt::tie_coefficient(c, y(i + half), (double)y(i) * sn)
                : rt::tie_coefficient(c, y(i), -(double)y(i + half) * sn);
    }
  }
  Expected e{std::vector<uint16_t>((size_t)(n * s.qh * s.head)), std::vector<uint16_t>((size_t)(n * s.kh * s.head))};
  for (int64_t tok = 0; tok < n; ++tok)
    for (int h = 0; h < s.qh + s.kh; ++h) {
      const bool isq = h < s.qh;
      uint16_t* out = isq ? &e.q[(size_t)((tok * s.qh + h) * s.head)] : &e.k[(size_t)((tok * s.kh + h - s.qh) * s.head)];
      ref::norm_head(head_at(tok, h).data(), s.head, r[(size_t)(tok * (s.qh + s.kh) + h)], (isq ? qw : kw).data(),
                     rotary, t.cos.data() + tok * 64, t.sin.data() + tok * 64, out);
    }
  return e;
}

// Values over many binades, so the order of the reduction shows.
std::vector<uint16_t> rows_of(qt::Rng& rng, int64_t n, int64_t row) {
  std::vector<uint16_t> v((size_t)(n * row));
  for (auto& x : v) x = qt::to_bf((rng.bits() & 1 ? -1.f : 1.f) * rng.uniform(1.f, 2.f) * std::ldexp(1.f, (int)rng.integer(-9, 3)));
  return v;
}

struct Geo {
  int id, qh, kh;
  int64_t k_offset;
};
const Geo kGeos[] = {{0, 16, 2, 8192}, {1, 24, 4, 12288}, {3, 24, 2, 12288}};

TEST(QkNorm, PlainFusedAndSplitEveryGeometry) {
  qt::Rng rng(41);
  const int64_t n = 5;
  const float eps = 1e-6f;
  for (const Geo& g : kGeos) {
    SCOPED_TRACE(testing::Message() << "geometry " << g.id);
    if (!quillon::geometry_built(g.id)) continue;
    ASSERT_EQ(quillon_select_geometry(g.id), 0);
    const Shape s{g.qh, g.kh, 256, 512};
    const int64_t stride = g.k_offset + 2 * g.kh * 256 + 64;  // the V heads, then a gap
    auto qkv = rows_of(rng, n, stride);
    for (int i = 0; i < 256; ++i) qkv[(size_t)(512 + i)] = 0;  // query head 1 of token 0
    const auto qw = rng.bf16s(256), kw = rng.bf16s(256);
    auto t = rt::random_table(rng, n, 64);
    auto dqkv = qt::DevBuf::from(qkv), dqw = qt::DevBuf::from(qw), dkw = qt::DevBuf::from(kw);
    for (int form = 0; form < 3; ++form) {
      SCOPED_TRACE(testing::Message() << "form " << form);
      qt::DevBuf qo((size_t)(n * g.qh * 256) * 2), ko((size_t)(n * g.kh * 256) * 2);
      // Keys from a buffer of their own with another stride in the split form.
      const int64_t kstride = form == 2 ? g.kh * 256 + 24 : stride;
      const auto k = form == 2 ? rows_of(rng, n, kstride) : qkv;
      auto dk = qt::DevBuf::from(k);
      const Expected want = expect(s, qkv, stride, k, kstride, form == 2 ? 0 : g.k_offset, qw, kw, t, n, eps,
                                   form ? 64 : 0);
      auto dc = qt::DevBuf::from(t.cos), ds = qt::DevBuf::from(t.sin);
      if (form == 0)
        ASSERT_EQ(quillon_qk_norm(dqkv.get(), stride, dqw.get(), dkw.get(), qo.get(), ko.get(), n, eps, nullptr),
                  hipSuccess);
      else if (form == 1)
        ASSERT_EQ(quillon_qk_norm_rope(dqkv.get(), stride, dqw.get(), dkw.get(), dc.as<float>(), ds.as<float>(),
                                       qo.get(), ko.get(), n, eps, nullptr),
                  hipSuccess);
      else
        ASSERT_EQ(quillon_qk_norm_rope_split_k(dqkv.get(), stride, dk.get(), kstride, dqw.get(), dkw.get(),
                                               dc.as<float>(), ds.as<float>(), qo.get(), ko.get(), n, eps, nullptr),
                  hipSuccess);
      rt::sync_ok();
      EXPECT_BITS_EQ(qo.download<uint16_t>(), want.q);
      EXPECT_BITS_EQ(ko.download<uint16_t>(), want.k);
      EXPECT_TRUE(qo.guards_intact() && ko.guards_intact());
      for (int i = 0; i < 256; ++i) ASSERT_EQ(want.q[(size_t)(256 + i)] & 0x7fff, 0) << "the zero head";
    }
  }
}

TEST(QkNorm, DraftWholeHeadForms) {
  qt::Rng rng(43);
  const int64_t n = 5, stride = 6144 + 32;
  const auto qkv = rows_of(rng, n, stride);
  const auto qw = rng.bf16s(128), kw = rng.bf16s(128);
  auto t = rt::random_table(rng, n, 64);
  auto dqkv = qt::DevBuf::from(qkv), dqw = qt::DevBuf::from(qw), dkw = qt::DevBuf::from(kw);
  for (bool keys_only : {false, true}) {
    SCOPED_TRACE(keys_only ? "keys only" : "queries and keys");
    const Shape s{keys_only ? 0 : 32, 8, 128, 128};
    const auto want = expect(s, qkv, stride, qkv, stride, 4096, qw, kw, t, n, 1e-5f, 128);
    auto dc = qt::DevBuf::from(t.cos), ds = qt::DevBuf::from(t.sin);
    qt::DevBuf qo((size_t)(n * 32 * 128) * 2), ko((size_t)(n * 8 * 128) * 2);
    if (keys_only)
      quillon::draft_k_norm_rope(dqkv.as<uint16_t>() + 4096, stride, dkw.get(), dc.as<float>(), ds.as<float>(),
                                 ko.get(), n, 1e-5f, nullptr);
    else
      quillon::draft_qk_norm_rope(dqkv.get(), stride, dqw.get(), dkw.get(), dc.as<float>(), ds.as<float>(), qo.get(),
                                  ko.get(), n, 1e-5f, nullptr);
    rt::sync_ok();
    if (!keys_only) EXPECT_BITS_EQ(qo.download<uint16_t>(), want.q);
    else for (uint16_t v : qo.download<uint16_t>()) ASSERT_EQ(v, 0xffff) << "no query output";
    EXPECT_BITS_EQ(ko.download<uint16_t>(), want.k);
    EXPECT_TRUE(ko.guards_intact() && qo.guards_intact());
  }
}

hipError_t plain(int64_t n) {
  return quillon_qk_norm(nullptr, 0, nullptr, nullptr, nullptr, nullptr, n, 1e-6f, nullptr);
}
hipError_t fused(int64_t n) {
  return quillon_qk_norm_rope(nullptr, 0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, n, 1e-6f, nullptr);
}
hipError_t split(int64_t n) {
  return quillon_qk_norm_rope_split_k(nullptr, 0, nullptr, 0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, n,
                                      1e-6f, nullptr);
}

TEST(QkNorm, ZeroTokensLaunchNothing) {
  QT_SELECT_GEOMETRY(3);
  for (auto* f : {plain, fused, split}) EXPECT_EQ(f(0), hipSuccess);
}

TEST(QkNormDeathTest, GeometryTwoCarriesNone) {
  QT_SELECT_GEOMETRY(2);
  for (auto* f : {plain, fused, split}) EXPECT_QUILLON_FATAL((void)f(0), rt::kGeometryTwo);
}

TEST(QkNormDeathTest, NoGeometrySelected) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  for (auto* f : {plain, fused, split}) EXPECT_QUILLON_FATAL((void)f(1), rt::kNoGeometry);
}

}  // namespace
