// Helpers shared by the sampling tests: row builders, the top-k runner and a
// checker that accepts any valid choice among ties at the cut.
#pragma once
#include <cmath>
#include <set>
#include <vector>

#include "common/test_util.h"
#include "quillon/quillon.h"
#include "reference/sampling_ref.h"

namespace st {

using qt::sync_ok;

// Probabilities as a softmax of random logits would give them: positive,
// mostly distinct, summing to about 1.
inline std::vector<float> prob_rows(qt::Rng& rng, int64_t rows, int64_t V, float spread = 8.0f) {
  std::vector<float> p((size_t)(rows * V));
  for (int64_t r = 0; r < rows; ++r) {
    double s = 0;
    for (int64_t i = 0; i < V; ++i) s += (p[(size_t)(r * V + i)] = std::exp(rng.uniform(-spread, 0.0f)));
    for (int64_t i = 0; i < V; ++i) p[(size_t)(r * V + i)] = (float)(p[(size_t)(r * V + i)] / s);
  }
  return p;
}

struct TopKOut {
  std::vector<float> probs;
  std::vector<int64_t> ids;
};

// One call of quillon_sampling_topk_topp; `top_k` empty passes null.
inline TopKOut run_topk(const std::vector<float>& probs, int64_t rows, int64_t V, int64_t K,
                        const std::vector<int32_t>& top_k, const std::vector<float>& top_p) {
  auto dp = qt::DevBuf::from(probs), dtp = qt::DevBuf::from(top_p);
  qt::DevBuf dtk = top_k.empty() ? qt::DevBuf() : qt::DevBuf::from(top_k);
  qt::DevBuf dcp((size_t)(rows * K) * 4), dci((size_t)(rows * K) * 8);
  EXPECT_EQ(quillon_sampling_topk_topp(dp.as<float>(), dcp.as<float>(), dci.as<int64_t>(), rows, V, K,
                                       top_k.empty() ? nullptr : dtk.as<int32_t>(), dtp.as<float>(), nullptr),
            hipSuccess);
  sync_ok();
  EXPECT_TRUE(dcp.guards_intact());
  EXPECT_TRUE(dci.guards_intact());
  return {dcp.download<float>(), dci.download<int64_t>()};
}

// Row r of a top-k result against the reference. The probabilities depend only
// on the values kept, so they compare bit-exactly; the ids may differ from the
// reference's (lowest indices) only among elements equal to the k-th value,
// and must still be distinct, carry the right values and ascend among equals.
inline void expect_topk_row(const std::vector<float>& probs, int64_t V, int64_t K, const TopKOut& got, int64_t r,
                            const ref::sampling::TopK& want) {
  SCOPED_TRACE(testing::Message() << "row " << r << " k " << want.k << " cut " << want.cut);
  const float* row = probs.data() + r * V;
  std::vector<float> gp(got.probs.begin() + r * K, got.probs.begin() + (r + 1) * K);
  std::vector<int64_t> gi(got.ids.begin() + r * K, got.ids.begin() + (r + 1) * K);
  EXPECT_BITS_EQ(gp, want.cand_probs);
  std::set<int64_t> seen;
  for (int64_t i = 0; i < K; ++i) {
    if (i >= want.k) {
      ASSERT_EQ(gi[(size_t)i], -1) << "slot " << i;
      continue;
    }
    const int64_t id = gi[(size_t)i];
    ASSERT_TRUE(id >= 0 && id < V) << "slot " << i << " id " << id;
    ASSERT_TRUE(seen.insert(id).second) << "slot " << i << " repeats id " << id;
    ASSERT_EQ(ref::to_bits(row[id]), ref::to_bits(want.vals[(size_t)i])) << "slot " << i;
    if (i > 0 && want.vals[(size_t)i] == want.vals[(size_t)i - 1]) ASSERT_GT(id, gi[(size_t)i - 1]) << "slot " << i;
    if (ref::to_bits(row[id]) != want.kth_bits) ASSERT_EQ(id, want.cand_ids[(size_t)i]) << "slot " << i;
  }
}

}  // namespace st
