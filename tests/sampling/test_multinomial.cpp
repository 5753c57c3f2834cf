// The draw from the candidates with a caller's uniform number, and the whole
// sampled-token road: softmax, top-k / top-p, multinomial on one stream.
#include <cmath>

#include "sampling/sampling_util.h"

namespace {

std::vector<int64_t> run_multinomial(const std::vector<float>& cp, const std::vector<int64_t>& ids,
                                     const std::vector<float>& u, int64_t rows, int64_t K) {
  auto dcp = qt::DevBuf::from(cp), dids = qt::DevBuf::from(ids), du = qt::DevBuf::from(u);
  qt::DevBuf dout((size_t)rows * 8);
  EXPECT_EQ(quillon_sampling_multinomial(dcp.as<float>(), dids.as<int64_t>(), du.as<float>(), dout.as<int64_t>(),
                                         rows, K, nullptr),
            hipSuccess);
  st::sync_ok();
  EXPECT_TRUE(dout.guards_intact());
  return dout.download<int64_t>();
}

std::vector<int64_t> want_rows(const std::vector<float>& cp, const std::vector<int64_t>& ids,
                               const std::vector<float>& u, int64_t rows, int64_t K) {
  std::vector<int64_t> w;
  for (int64_t r = 0; r < rows; ++r) w.push_back(ref::sampling::multinomial_row(cp.data() + r * K, ids.data() + r * K, K, u[(size_t)r]));
  return w;
}

TEST(Multinomial, RandomCandidatesAgainstPrefixSearch) {
  qt::Rng rng(401);
  for (int64_t K : {1, 7, 64, 1000, 1024}) {
    const int64_t rows = 8;
    std::vector<float> cp((size_t)(rows * K));
    std::vector<int64_t> ids((size_t)(rows * K));
    std::vector<float> u;
    for (int64_t r = 0; r < rows; ++r) {
      // Descending candidates with a zero tail past a cut, as top-k leaves them.
      const int64_t cut = rng.integer(0, K - 1);
      std::vector<float> v;
      double s = 0;
      for (int64_t i = 0; i <= cut; ++i) s += (double)v.emplace_back(rng.uniform(0.01f, 1.0f));
      std::sort(v.begin(), v.end(), std::greater<float>());
      for (int64_t i = 0; i < K; ++i) {
        cp[(size_t)(r * K + i)] = i <= cut ? (float)(v[(size_t)i] / s) : 0.0f;
        ids[(size_t)(r * K + i)] = rng.integer(0, 250000);
      }
      u.push_back(r == 0 ? 0.0f : rng.uniform(0.0f, 1.0f));
    }
    SCOPED_TRACE(testing::Message() << "K " << K);
    EXPECT_EQ(run_multinomial(cp, ids, u, rows, K), want_rows(cp, ids, u, rows, K));
  }
}

// The edges of the draw, one row each (ids 100 + slot). The last two rows'
// doubling prefix sums round above 1 in a zero slot past the cut and to
// 1 - 2^-24 or 1 at the last real candidate: the draw takes a real candidate,
// by its prefix or by the fallback to the last one.
TEST(Multinomial, EdgesOfTheDraw) {
  struct Row {
    std::vector<float> p;
    float u;
    int64_t want;
  };
  const float below_one = std::nextafter(1.0f, 0.0f);
  const Row rows[] = {
      {{0.0f, 0.0f, 0.3f, 0.7f, 0.0f, 0.0f}, 0.0f, 2},        // u 0: the first slot with a non-zero prefix
      {{0.5f, 0.25f, 0.2499f, 0.0f, 0.0f, 0.0f}, below_one, 2},  // total below u: the last non-zero, not past the cut
      {{0.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f}, 0.5f, 0},        // nothing to draw: slot 0
      {{0.25f, 0.25f, 0.25f, 0.25f, 0.0f, 0.0f}, 0.5f, 2},    // u exactly on a prefix: the next slot (strictly below)
      {{0.25f, 0.25f, 0.25f, 0.25f, 0.0f, 0.0f}, below_one, 3},  // u just below the total
      {{0.39653602f, 0.32956284f, 0.27390108f, 0, 0, 0, 0}, 0.9999999f, 2},   // slot 3's prefix is 1, slot 2's below
      {{0.31442288f, 0.292163f, 0.23534691f, 0.15806718f, 0}, 0.99999994f, 3},  // no real prefix above u
  };
  for (const Row& r : rows) {
    const int64_t K = (int64_t)r.p.size();
    std::vector<int64_t> ids;
    for (int64_t i = 0; i < K; ++i) ids.push_back(100 + i);
    SCOPED_TRACE(testing::Message() << "K " << K << " u " << r.u);
    EXPECT_EQ(run_multinomial(r.p, ids, {r.u}, 1, K), std::vector<int64_t>{100 + r.want});
    EXPECT_EQ(want_rows(r.p, ids, {r.u}, 1, K), std::vector<int64_t>{100 + r.want});
  }
}

// Zero rows launch nothing and write nothing. Softmax has no row check: its
// zero rows are an empty grid and the device's answer to it, not success, and
// the error does not stick.
TEST(Sampling, ZeroRowsLaunchNothing) {
  auto f = qt::DevBuf::from(std::vector<float>(8, 0.125f)), ids = qt::DevBuf::from(std::vector<int64_t>{5});
  qt::DevBuf out(32), out_ids(32);
  EXPECT_NE(quillon_sampling_softmax(f.as<float>(), out.as<float>(), 0, 2, f.as<float>(), nullptr), hipSuccess);
  st::sync_ok();
  EXPECT_EQ(quillon_sampling_argmax(f.as<float>(), out.as<int64_t>(), 0, 2, nullptr), hipSuccess);
  EXPECT_EQ(quillon_sampling_topk_topp(f.as<float>(), out.as<float>(), out_ids.as<int64_t>(), 0, 8, 4, nullptr,
                                       f.as<float>(), nullptr),
            hipSuccess);
  EXPECT_EQ(quillon_sampling_multinomial(f.as<float>(), ids.as<int64_t>(), f.as<float>(), out.as<int64_t>(), 0, 1,
                                         nullptr),
            hipSuccess);
  st::sync_ok();
  for (uint8_t b : out.download<uint8_t>()) ASSERT_EQ(b, 0xFF);
  for (uint8_t b : out_ids.download<uint8_t>()) ASSERT_EQ(b, 0xFF);
}

TEST(MultinomialDeathTest, WidthCheckPrecedesRows) {
  EXPECT_QUILLON_FATAL(quillon_sampling_multinomial(nullptr, nullptr, nullptr, nullptr, 1, 0, nullptr),
                       "k must be in 1..1024 (got 0)");
  EXPECT_QUILLON_FATAL(quillon_sampling_multinomial(nullptr, nullptr, nullptr, nullptr, 0, 1025, nullptr),
                       "k must be in 1..1024 (got 1025)");
}

TEST(Sampling, MaxK) { EXPECT_EQ(quillon_sampling_max_k(), 1024); }

TEST(Sampling, SoftmaxTopKMultinomialOnOneStream) {
  // Each stage is checked on the device's output of the stage before it.
  qt::Rng rng(411);
  const int64_t rows = 4, V = 3001, K = 40;
  const auto logits = rng.floats((size_t)(rows * V), -6.0f, 6.0f);
  const std::vector<float> temp = {1.0f, 0.6f, 1.3f, 0.9f};
  const std::vector<int32_t> top_k = {40, 10, 0, 25};
  const std::vector<float> top_p = {0.9f, 1.0f, 0.5f, 0.3f};
  const std::vector<float> u = {0.1f, 0.95f, 0.0f, 0.6f};
  auto dl = qt::DevBuf::from(logits), dt = qt::DevBuf::from(temp), dk = qt::DevBuf::from(top_k);
  auto dp = qt::DevBuf::from(top_p), du = qt::DevBuf::from(u);
  qt::DevBuf probs((size_t)(rows * V) * 4), cp((size_t)(rows * K) * 4), ci((size_t)(rows * K) * 8), out(rows * 8);
  hipStream_t s;
  ASSERT_EQ(hipStreamCreate(&s), hipSuccess);
  ASSERT_EQ(quillon_sampling_softmax(dl.as<float>(), probs.as<float>(), rows, V, dt.as<float>(), s), hipSuccess);
  ASSERT_EQ(quillon_sampling_topk_topp(probs.as<float>(), cp.as<float>(), ci.as<int64_t>(), rows, V, K,
                                       dk.as<int32_t>(), dp.as<float>(), s),
            hipSuccess);
  ASSERT_EQ(quillon_sampling_multinomial(cp.as<float>(), ci.as<int64_t>(), du.as<float>(), out.as<int64_t>(), rows, K,
                                         s),
            hipSuccess);
  ASSERT_EQ(hipStreamSynchronize(s), hipSuccess);
  ASSERT_EQ(hipStreamDestroy(s), hipSuccess);

  const auto p = probs.download<float>();
  const st::TopKOut got{cp.download<float>(), ci.download<int64_t>()};
  for (int64_t r = 0; r < rows; ++r) {
    const auto sm = ref::sampling::softmax_row(logits.data() + r * V, V, temp[(size_t)r]);
    for (int64_t i = 0; i < V; ++i) ASSERT_NEAR(p[(size_t)(r * V + i)], sm[(size_t)i], 2e-6 * sm[(size_t)i] + 1e-43);
    st::expect_topk_row(p, V, K, got, r,
                        ref::sampling::topk_topp_row(p.data() + r * V, V, K, top_k[(size_t)r], true, top_p[(size_t)r]));
  }
  EXPECT_EQ(out.download<int64_t>(), want_rows(got.probs, got.ids, u, rows, K));
  // Row 2 (top_k 0 acts as 1) can only yield its top token, the argmax.
  EXPECT_EQ(out.download<int64_t>()[2], ref::sampling::argmax_row(logits.data() + 2 * V, V));
}

}  // namespace
