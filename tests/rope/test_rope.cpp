// Cos/sin tables against double precision, and the rotations (half-split,
// indexer, DeepSeek tail and group copy) bit for bit against the reference.
#include <cmath>

#include "quillon/quillon.h"
#include "rope/rope.h"
#include "rope/rope_util.h"

namespace {

struct DevTable {
  qt::DevBuf cos, sin;
  DevTable(int64_t n, int row) : cos((size_t)(n * row) * 4), sin((size_t)(n * row) * 4) {}
  explicit DevTable(const ref::Table& t) : cos(qt::DevBuf::from(t.cos)), sin(qt::DevBuf::from(t.sin)) {}
  float* c() const { return cos.as<float>(); }
  float* s() const { return sin.as<float>(); }
  ref::Table get() const { return {cos.download<float>(), sin.download<float>()}; }
};

std::vector<float> frequencies(int pairs) {
  std::vector<float> f(pairs);
  for (int j = 0; j < pairs; ++j) f[j] = std::pow(1.0e6f, -(float)j / (float)pairs);
  return f;
}

// Positions up to 2^45 plus the float rounding edges around 2^24.
std::vector<int64_t> positions(qt::Rng& rng, int64_t n) {
  std::vector<int64_t> p = {0, 1, 17, (1 << 24) - 1, 1 << 24, (1 << 24) + 1, 2147483647LL, 3000000001LL};
  while ((int64_t)p.size() < n) p.push_back(rng.integer(0, 1LL << rng.integer(4, 45)));
  return p;
}

// Every form over the same positions: plain, M-RoPE with distinct and with
// equal streams, the draft's 64 pairs, DeepSeek times a scale, zero frequencies.
TEST(RopeTables, EveryFormWithinOneUlp) {
  qt::Rng rng(31);
  const int64_t n = 300;
  const auto pos = positions(rng, 3 * n);
  const auto inv = frequencies(64);
  std::vector<int64_t> same(pos.begin(), pos.begin() + n);
  for (int k = 0; k < 2; ++k) same.insert(same.end(), pos.begin(), pos.begin() + n);
  auto dpos = qt::DevBuf::from(pos), dsame = qt::DevBuf::from(same), dinv = qt::DevBuf::from(inv);
  auto dzero = qt::DevBuf::from(std::vector<float>(64));
  const int64_t* p = dpos.as<int64_t>();
  const float* f = dinv.as<float>();
  std::vector<ref::Table> got;
  for (int form = 0; form < 6; ++form) {
    DevTable t(n, form == 4 ? 32 : 64);
    switch (form) {
      case 0: ASSERT_EQ(quillon_rope_cos_sin(p, f, t.c(), t.s(), n, nullptr), hipSuccess); break;
      case 1: ASSERT_EQ(quillon_rope_cos_sin_mrope(p, f, t.c(), t.s(), n, nullptr), hipSuccess); break;
      case 2: ASSERT_EQ(quillon_rope_cos_sin_mrope(dsame.as<int64_t>(), f, t.c(), t.s(), n, nullptr), hipSuccess); break;
      case 3: quillon::draft_rope_cos_sin(p, f, t.c(), t.s(), n, nullptr); break;
      case 4: ASSERT_EQ(quillon_dsv4_rope_cos_sin(p, f, 0.5f, t.c(), t.s(), n, nullptr), hipSuccess); break;
      default: ASSERT_EQ(quillon_rope_cos_sin(p, dzero.as<float>(), t.c(), t.s(), n, nullptr), hipSuccess);
    }
    rt::sync_ok();
    EXPECT_TRUE(t.cos.guards_intact() && t.sin.guards_intact()) << "form " << form;
    got.push_back(t.get());
  }
  const ref::Table want[] = {ref::table(pos, inv, n, 32, true, false), ref::table(pos, inv, n, 32, true, true),
                             ref::table(pos, inv, n, 32, true, false), ref::table(pos, inv, n, 64, false, false),
                             ref::table(pos, inv, n, 32, false, false, 0.5f)};
  for (int form = 0; form < 5; ++form) {
    int64_t worst = 0;
    for (size_t i = 0; i < want[form].cos.size(); ++i)
      worst = std::max({worst, rt::ulps(got[form].cos[i], want[form].cos[i]),
                        rt::ulps(got[form].sin[i], want[form].sin[i])});
    EXPECT_LE(worst, 1) << "form " << form << ": entries within 1 ulp of the correctly rounded value";
  }
  // Equal streams give the plain table bit for bit; so does the duplicate half,
  // and 2^24 + 1 rounds to 2^24 before the multiply.
  EXPECT_BITS_EQ(got[2].cos, got[0].cos);
  EXPECT_BITS_EQ(got[2].sin, got[0].sin);
  for (int64_t t = 0; t < n; ++t)
    for (int j = 0; j < 32; ++j)
      ASSERT_EQ(ref::to_bits(got[0].sin[t * 64 + j + 32]), ref::to_bits(got[0].sin[t * 64 + j]));
  for (int j = 0; j < 64; ++j) ASSERT_EQ(ref::to_bits(got[3].cos[5 * 64 + j]), ref::to_bits(got[3].cos[4 * 64 + j]));
  for (size_t i = 0; i < got[5].cos.size(); ++i)
    ASSERT_TRUE(got[5].cos[i] == 1.0f && ref::to_bits(got[5].sin[i]) == 0u) << i;
}

// Tuned on each token's first head: even pairs for dim j, odd ones for j + 32.
void tune_half_split(ref::Table& t, const std::vector<uint16_t>& x, int64_t n, int heads, int head) {
  for (int64_t tok = 0; tok < n; ++tok)
    for (int j = 0; j < 32; ++j) {
      const uint16_t* p = x.data() + tok * heads * head;
      rt::tune_pair(t.cos[(size_t)(tok * 64 + j)], t.sin[(size_t)(tok * 64 + j)], ref::widen(p[j]),
                    ref::widen(p[j + 32]), j % 2 == 0, false);
    }
}
// The tail's pairs of one row per table row, `at` elements into it.
void tune_tail(ref::Table& t, const std::vector<uint16_t>& x, int64_t rows, int64_t row_len, int64_t at,
               bool inverse) {
  for (int64_t r = 0; r < rows; ++r)
    for (int p = 0; p < 32; ++p) {
      const uint16_t* a = x.data() + r * row_len + at + 2 * p;
      rt::tune_pair(t.cos[(size_t)(r * 32 + p)], t.sin[(size_t)(r * 32 + p)], ref::widen(a[0]), ref::widen(a[1]),
                    p % 2 == 0, inverse);
    }
}

struct ApplyCase {
  int geometry;  // -1: the indexer's entry, which takes the head count
  bool query;
  int heads, head;
};

TEST(RopeApply, QueriesKeysAndIndexerHeads) {
  qt::Rng rng(33);
  const ApplyCase cases[] = {{0, true, 16, 256}, {0, false, 2, 256}, {1, true, 24, 256}, {1, false, 4, 256},
                             {3, true, 24, 256}, {3, false, 2, 256}, {-1, true, 1, 128}, {-1, true, 4, 128}};
  const int64_t n = 5;
  for (const ApplyCase& c : cases) {
    SCOPED_TRACE(testing::Message() << "geometry " << c.geometry << (c.query ? " q " : " k ") << c.heads << " heads");
    if (c.geometry >= 0 && !quillon::geometry_built(c.geometry)) continue;
    if (c.geometry >= 0) ASSERT_EQ(quillon_select_geometry(c.geometry), 0);
    auto x = rng.bf16s((size_t)(n * c.heads * c.head));
    auto t = rt::random_table(rng, n, 64);
    tune_half_split(t, x, n, c.heads, c.head);
    auto dx = qt::DevBuf::from(x);
    DevTable dt(t);
    if (c.geometry < 0)
      ASSERT_EQ(quillon_qwen4exp_indexer_rope(dx.get(), dt.c(), dt.s(), n, c.heads, nullptr), hipSuccess);
    else
      ASSERT_EQ((c.query ? quillon_rope_apply_q : quillon_rope_apply_k)(dx.get(), dt.c(), dt.s(), n, nullptr),
                hipSuccess);
    rt::sync_ok();
    ref::rope_apply(x, t, n * c.heads, c.heads, c.head);
    EXPECT_BITS_EQ(dx.download<uint16_t>(), x);
    EXPECT_TRUE(dx.guards_intact());
  }
}

// The tail in place (rows of whole heads, one group spanning the row) and the
// group copy, row-major and blk32.
struct GroupCase {
  int64_t head, width, col_offset, cols, groups, rows, padded;
  bool blk32, in_place;
};

TEST(RopeTail, InPlaceAndGroupCopies) {
  qt::Rng rng(36);
  const GroupCase cases[] = {{64, 192, 0, 192, 1, 4, 4, false, true},
                             {192, 576, 0, 576, 1, 4, 4, false, true},
                             {576, 1728, 0, 1728, 1, 4, 4, false, true},
                             {512, 2560, 512, 1024, 2, 5, 5, false, false},
                             {128, 640, 128, 256, 2, 37, 64, true, false},
                             {512, 1024, 0, 512, 1, 5, 32, true, false},
                             {192, 576, 192, 192, 2, 3, 3, false, false}};
  for (const GroupCase& c : cases)
    for (bool inverse : {false, true}) {
      SCOPED_TRACE(testing::Message() << "head " << c.head << " cols " << c.cols << " blk32 " << c.blk32
                                      << " in place " << c.in_place << " inverse " << inverse);
      const auto src = rng.bf16s((size_t)(c.rows * c.width));
      auto t = rt::random_table(rng, c.rows, 32);
      tune_tail(t, src, c.rows, c.width, c.col_offset + c.head - 64, inverse);
      auto dsrc = qt::DevBuf::from(src);
      DevTable dt(t);
      qt::DevBuf dst((size_t)(c.groups * c.padded * c.cols) * 2);
      if (c.in_place)
        ASSERT_EQ(
            quillon_dsv4_rope_tail(dsrc.get(), dt.c(), dt.s(), c.head, c.width / c.head, c.rows, inverse, nullptr),
            hipSuccess);
      else if (c.blk32)
        quillon::dsv4_rope_tail_group(dst.get(), dsrc.get(), dt.c(), dt.s(), c.head, c.width, c.col_offset, c.cols,
                                      c.groups, c.rows, c.padded, true, inverse, nullptr);
      else
        ASSERT_EQ(quillon_dsv4_rope_tail_group(dst.get(), dsrc.get(), dt.c(), dt.s(), c.head, c.width, c.col_offset,
                                               c.cols, c.groups, c.rows, inverse, nullptr),
                  hipSuccess);
      rt::sync_ok();
      const qt::DevBuf& out = c.in_place ? dsrc : dst;
      EXPECT_BITS_EQ(out.download<uint16_t>(), ref::rope_tail_group(src, t, c.head, c.width, c.col_offset, c.cols,
                                                                     c.groups, c.rows, c.padded, c.blk32, inverse));
      EXPECT_TRUE(out.guards_intact());
    }
}

TEST(Rope, ZeroSizesLaunchNothing) {
  QT_SELECT_GEOMETRY(0);
  EXPECT_EQ(quillon_rope_cos_sin(nullptr, nullptr, nullptr, nullptr, 0, nullptr), hipSuccess);
  EXPECT_EQ(quillon_rope_cos_sin_mrope(nullptr, nullptr, nullptr, nullptr, 0, nullptr), hipSuccess);
  EXPECT_EQ(quillon_dsv4_rope_cos_sin(nullptr, nullptr, 1.0f, nullptr, nullptr, 0, nullptr), hipSuccess);
  EXPECT_EQ(quillon_rope_apply_q(nullptr, nullptr, nullptr, 0, nullptr), hipSuccess);
  EXPECT_EQ(quillon_rope_apply_k(nullptr, nullptr, nullptr, 0, nullptr), hipSuccess);
  EXPECT_EQ(quillon_qwen4exp_indexer_rope(nullptr, nullptr, nullptr, 0, 4, nullptr), hipSuccess);
  // Empty tail and group calls check nothing either.
  EXPECT_EQ(quillon_dsv4_rope_tail(nullptr, nullptr, nullptr, 3, 0, 5, 0, nullptr), hipSuccess);
  EXPECT_EQ(quillon_dsv4_rope_tail(nullptr, nullptr, nullptr, 3, 5, 0, 0, nullptr), hipSuccess);
  EXPECT_EQ(quillon_dsv4_rope_tail_group(nullptr, nullptr, nullptr, nullptr, 3, 1, 7, 5, 0, 4, 0, nullptr), hipSuccess);
  EXPECT_EQ(quillon_dsv4_rope_tail_group(nullptr, nullptr, nullptr, nullptr, 3, 1, 7, 0, 2, 4, 0, nullptr), hipSuccess);
  EXPECT_EQ(quillon_dsv4_rope_tail_group(nullptr, nullptr, nullptr, nullptr, 3, 1, 7, 5, 2, 0, 0, nullptr), hipSuccess);
}

TEST(RopeDeathTest, TailChecksInOrder) {
  EXPECT_QUILLON_FATAL((void)quillon_dsv4_rope_tail(nullptr, nullptr, nullptr, 63, 1, 1, 0, nullptr),
                       "dsv4_rope_tail: head_size 63 is shorter than the 64-dim rotary tail");
  EXPECT_QUILLON_FATAL((void)quillon_dsv4_rope_tail(nullptr, nullptr, nullptr, 65, 1, 1, 1, nullptr),
                       "dsv4_rope_tail: head_size 65 must be even");
}

TEST(RopeDeathTest, GroupChecksInOrder) {
  const char* head = "dsv4_rope_tail_group: head_size %lld must be a multiple of 8 and at least the 64-dim rotary tail";
  auto fmt = [](const char* f, auto... a) {
    char b[256];
    std::snprintf(b, sizeof b, f, a...);
    return std::string(b);
  };
  auto group = [](int64_t h, int64_t w, int64_t off, int64_t cols, int64_t groups, int64_t rows, int64_t padded,
                  bool blk32) {
    quillon::dsv4_rope_tail_group(nullptr, nullptr, nullptr, nullptr, h, w, off, cols, groups, rows, padded, blk32,
                                  false, nullptr);
  };
  // Each call breaks its check and every later one.
  EXPECT_QUILLON_FATAL(group(56, 100, 3, 5, 2, 9, 8, true), fmt(head, 56LL));
  EXPECT_QUILLON_FATAL(group(516, 100, 3, 5, 2, 9, 8, true), fmt(head, 516LL));
  const char* whole =
      "dsv4_rope_tail_group: %lld groups of [%lld columns at %lld] of a %lld-wide row is not a whole number of "
      "%lld-dim heads";
  EXPECT_QUILLON_FATAL(group(128, 1024, 64, 256, 2, 9, 8, true), fmt(whole, 2LL, 256LL, 64LL, 1024LL, 128LL));
  EXPECT_QUILLON_FATAL(group(128, 1024, 0, 192, 2, 9, 8, true), fmt(whole, 2LL, 192LL, 0LL, 1024LL, 128LL));
  EXPECT_QUILLON_FATAL(group(128, 639, 128, 256, 2, 9, 8, true), fmt(whole, 2LL, 256LL, 128LL, 639LL, 128LL));
  EXPECT_QUILLON_FATAL(group(128, 640, 128, 256, 2, 9, 8, true),
                       "dsv4_rope_tail_group: 8 padded rows is fewer than the 9 real ones");
  const char* arms =
      "dsv4_rope_tail_group: the blk32 arm needs 32 to divide [%lld, %lld]; the row-major one has no pad rows to write";
  EXPECT_QUILLON_FATAL(group(128, 640, 128, 256, 2, 9, 40, true), fmt(arms, 40LL, 256LL));
  EXPECT_QUILLON_FATAL(group(200, 640, 0, 200, 2, 9, 32, true), fmt(arms, 32LL, 200LL));
  EXPECT_QUILLON_FATAL(group(128, 640, 128, 256, 2, 9, 32, false), fmt(arms, 32LL, 256LL));
}

TEST(RopeDeathTest, IndexerHeadsAndGeometryTwo) {
  EXPECT_QUILLON_FATAL((void)quillon_qwen4exp_indexer_rope(nullptr, nullptr, nullptr, 1, 2, nullptr),
                       "qwen4exp_indexer_rope: no instantiation for 2 heads");
  QT_SELECT_GEOMETRY(2);
  EXPECT_QUILLON_FATAL((void)quillon_rope_apply_q(nullptr, nullptr, nullptr, 1, nullptr), rt::kGeometryTwo);
  EXPECT_QUILLON_FATAL((void)quillon_rope_apply_k(nullptr, nullptr, nullptr, 0, nullptr), rt::kGeometryTwo);
}

TEST(RopeDeathTest, NoGeometrySelected) {
  // The child re-runs this case alone, so nothing selected elsewhere reaches it.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_QUILLON_FATAL((void)quillon_rope_apply_q(nullptr, nullptr, nullptr, 1, nullptr), rt::kNoGeometry);
  EXPECT_QUILLON_FATAL((void)quillon_rope_apply_k(nullptr, nullptr, nullptr, 0, nullptr), rt::kNoGeometry);
}

}  // namespace
