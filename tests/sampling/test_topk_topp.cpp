// Exact top-k / top-p: selection by the float bits, sort with the tie rule,
// both renormalisations and the cut, against a full sort of each row.
#include <climits>

#include "sampling/sampling_util.h"

namespace {

using ref::sampling::topk_topp_row;

void check_all(const std::vector<float>& probs, int64_t rows, int64_t V, int64_t K, const std::vector<int32_t>& top_k,
               const std::vector<float>& top_p) {
  const st::TopKOut got = st::run_topk(probs, rows, V, K, top_k, top_p);
  for (int64_t r = 0; r < rows; ++r) {
    const auto want = topk_topp_row(probs.data() + r * V, V, K, top_k.empty() ? 0 : top_k[(size_t)r],
                                    !top_k.empty(), top_p[(size_t)r]);
    st::expect_topk_row(probs, V, K, got, r, want);
  }
}

TEST(TopKTopP, WidthsAndCutsAgainstFullSort) {
  qt::Rng rng(301);
  // K 1 has no sort steps; 7 and 1000 are not powers of two; 1024 is the cap.
  // top_p 0 keeps the top token alone, the next-ranked ones listed at 0.
  for (int64_t K : {1, 2, 7, 64, 1000, 1024}) {
    for (int64_t V : {K, K + 1, (int64_t)4099}) {
      SCOPED_TRACE(testing::Message() << "K " << K << " V " << V);
      const int64_t rows = 4;
      const auto probs = st::prob_rows(rng, rows, V);
      check_all(probs, rows, V, K, {}, {0.5f, 0.9f, 1.0f, 0.0f});
    }
  }
}

TEST(TopKTopP, PerRowTopKIsClampedToOneThroughK) {
  qt::Rng rng(302);
  const int64_t V = 300, K = 16;
  const std::vector<int32_t> top_k = {0, -5, 1, 3, 16, 17, 1000, INT_MIN, INT_MAX};
  const int64_t rows = (int64_t)top_k.size();
  const auto probs = st::prob_rows(rng, rows, V);
  const std::vector<float> top_p(rows, 0.95f);
  // Rows with an effective width below K end in -1 ids and zero probabilities.
  check_all(probs, rows, V, K, top_k, top_p);
}

TEST(TopKTopP, TopPOneAndTheRoundedTotal) {
  // A renormalised total that rounds below 1: no slot reaches 1.0 and the cut
  // is the last of the k. Find such rows by search, so the case is certain.
  qt::Rng rng(304);
  const int64_t V = 64, K = 24;
  std::vector<float> below;
  int found = 0;
  for (int attempt = 0; attempt < 400 && found < 2; ++attempt) {
    const auto row = st::prob_rows(rng, 1, V, 3.0f);
    const auto want = topk_topp_row(row.data(), V, K, 0, false, 1.0f);
    if (want.prefix[(size_t)(K - 1)] < 1.0f) {
      EXPECT_EQ(want.cut, K - 1);
      below.insert(below.end(), row.begin(), row.end());
      ++found;
    }
  }
  ASSERT_EQ(found, 2);
  check_all(below, 2, V, K, {}, {1.0f, 1.0f});

  // Tiny tail values stop moving the prefix: it reaches 1.0 at slot 1 and the
  // tail is cut although top_p is 1.
  std::vector<float> tail(10, 0.0f);
  tail[3] = 0.5f;
  tail[7] = 0.5f;
  tail[1] = 1e-30f;
  tail[9] = 1e-30f;
  const auto want = topk_topp_row(tail.data(), 10, 4, 0, false, 1.0f);
  EXPECT_EQ(want.cut, 1);
  const st::TopKOut got = st::run_topk(tail, 1, 10, 4, {}, {1.0f});
  EXPECT_EQ(got.ids, (std::vector<int64_t>{3, 7, 1, 9}));
  EXPECT_EQ(got.probs, (std::vector<float>{0.5f, 0.5f, 0.0f, 0.0f}));
}

TEST(TopKTopP, TiesAtTheCutKeepAValidSet) {
  qt::Rng rng(305);
  // Few distinct levels: the k-th value has many equals on both sides of the cut.
  const float levels[] = {0.004f, 0.002f, 0.002f, 0.001f, 0.0005f, 0.0005f, 0.0005f};
  for (int64_t K : {5, 100, 1024}) {
    const int64_t V = 3000, rows = 3;
    std::vector<float> probs((size_t)(rows * V));
    for (auto& v : probs) v = levels[rng.integer(0, 6)];
    SCOPED_TRACE(testing::Message() << "K " << K);
    check_all(probs, rows, V, K, {}, {0.3f, 0.8f, 1.0f});
  }
  // Every element equal; all zero (renormalisation by 0, cut at k - 1 unless
  // top_p is 0); k above the number of non-zeros (the k-th value is 0).
  const int64_t V = 2000, K = 1024, rows = 4;
  std::vector<float> probs((size_t)(rows * V), 1.0f / 2000);
  std::fill(probs.begin() + V, probs.begin() + 3 * V, 0.0f);
  for (int64_t i = 0; i < 300; ++i) probs[(size_t)(3 * V + rng.integer(0, V - 1))] = rng.uniform(0.0f, 1.0f);
  check_all(probs, rows, V, K, {}, {0.7f, 0.5f, 0.0f, 0.99f});
}

TEST(TopKTopP, RadixPassesResolveLowBytes) {
  qt::Rng rng(306);
  // Values that share their high bytes, subnormals beside zeros, and values
  // whose bits differ only in the lowest byte.
  const int64_t V = 5000, K = 300, rows = 3;
  std::vector<float> probs((size_t)(rows * V));
  for (int64_t i = 0; i < V; ++i) {
    probs[(size_t)i] = 0.5f + rng.uniform(0.0f, 1.0f / 65536);
    probs[(size_t)(V + i)] = i % 3 ? 1e-40f * (float)rng.integer(0, 50) : 0.0f;
    const uint32_t u = 0x3c000000u | (uint32_t)rng.integer(0, 255);
    std::memcpy(&probs[(size_t)(2 * V + i)], &u, 4);
  }
  check_all(probs, rows, V, K, {}, {0.6f, 0.6f, 0.6f});
}

TEST(TopKTopP, LargeVocabulary) {
  qt::Rng rng(307);
  const int64_t V = 250000, rows = 2;
  const auto probs = st::prob_rows(rng, rows, V, 20.0f);
  check_all(probs, rows, V, 1024, {}, {0.9f, 1.0f});
  check_all(probs, rows, V, 50, {7, 50}, {0.2f, 0.999f});
}

TEST(TopKTopPDeathTest, WidthChecksComeFirst) {
  float* nothing = nullptr;
  EXPECT_QUILLON_FATAL(quillon_sampling_topk_topp(nothing, nothing, nullptr, 1, 100, 0, nullptr, nothing, nullptr),
                       "top_k width must be in 1..1024 (got 0)");
  // Past both the cap and the vocabulary: the width check comes first.
  EXPECT_QUILLON_FATAL(quillon_sampling_topk_topp(nothing, nothing, nullptr, 1, 1000, 1025, nullptr, nothing, nullptr),
                       "top_k width must be in 1..1024 (got 1025)");
  // Both checks precede rows 0.
  EXPECT_QUILLON_FATAL(quillon_sampling_topk_topp(nothing, nothing, nullptr, 0, 5, -3, nullptr, nothing, nullptr),
                       "top_k width must be in 1..1024 (got -3)");
  EXPECT_QUILLON_FATAL(quillon_sampling_topk_topp(nothing, nothing, nullptr, 0, 9, 10, nullptr, nothing, nullptr),
                       "top_k (10) cannot exceed the vocabulary (9)");
}

}  // namespace
