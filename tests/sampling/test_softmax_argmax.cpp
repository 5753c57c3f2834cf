// The temperature softmax with its full-precision exponential, and the greedy
// argmax with its tie and NaN rules.
#include <cmath>
#include <limits>

#include "common/device_math.h"
#include "sampling/sampling_util.h"

namespace {

constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

float ulp_error(float got, double want) {
  const double ulp = std::ldexp(1.0, std::max(std::ilogb((float)want), -126) - 23);
  return (float)(std::fabs((double)got - want) / ulp);
}

TEST(Exp, WithinAboutOneUlpAndTheStatedLimits) {
  // A strided walk over every float from -104 to 89 (both signs of the range),
  // evaluated by the device.
  std::vector<float> xs;
  for (uint64_t b = 0; b < 0x100000000ull; b += 4099) {
    const float x = ref::from_bits((uint32_t)b);
    if (x >= -104.0f && x <= 89.0f) xs.push_back(x);
  }
  const auto got = qt::device_fn(qt::DevFn::Exp, xs);
  float worst = 0.0f;
  for (size_t i = 0; i < xs.size(); ++i) {
    const double want = std::exp((double)xs[i]);
    if ((float)want == got[i]) continue;
    ASSERT_TRUE(std::isfinite(got[i]) && std::isfinite((float)want)) << xs[i];
    worst = std::max(worst, ulp_error(got[i], want));
  }
  EXPECT_LE(worst, 1.05f);
  const std::vector<float> edge = {0.0f, kInf, -kInf, kNaN, std::nextafter(88.7228394f, kInf),
                                   std::nextafter(-103.278931f, -kInf), -103.278931f};
  const auto e = qt::device_fn(qt::DevFn::Exp, edge);
  EXPECT_EQ(e[0], 1.0f);
  EXPECT_EQ(e[1], kInf);
  EXPECT_EQ(e[2], 0.0f);
  EXPECT_TRUE(std::isnan(e[3]));
  EXPECT_EQ(e[4], kInf);
  EXPECT_EQ(e[5], 0.0f);
  EXPECT_EQ(e[6], std::numeric_limits<float>::denorm_min());
}

std::vector<float> run_softmax(const std::vector<float>& logits, int64_t rows, int64_t V,
                               const std::vector<float>& temperature) {
  auto dl = qt::DevBuf::from(logits), dt = qt::DevBuf::from(temperature);
  qt::DevBuf dp((size_t)(rows * V) * 4);
  EXPECT_EQ(quillon_sampling_softmax(dl.as<float>(), dp.as<float>(), rows, V, dt.as<float>(), nullptr), hipSuccess);
  st::sync_ok();
  EXPECT_TRUE(dp.guards_intact());
  return dp.download<float>();
}

void expect_softmax(const std::vector<float>& logits, int64_t rows, int64_t V, const std::vector<float>& temperature) {
  const auto got = run_softmax(logits, rows, V, temperature);
  for (int64_t r = 0; r < rows; ++r) {
    SCOPED_TRACE(testing::Message() << "row " << r << " V " << V << " t " << temperature[(size_t)r]);
    const auto want = ref::sampling::softmax_row(logits.data() + r * V, V, temperature[(size_t)r]);
    double total = 0;
    for (int64_t i = 0; i < V; ++i) {
      const float g = got[(size_t)(r * V + i)];
      const double w = want[(size_t)i];
      ASSERT_NEAR(g, w, 2e-6 * w + 1e-43) << "element " << i;
      total += g;
    }
    EXPECT_NEAR(total, 1.0, 1e-5);
  }
}

TEST(Softmax, PerRowTemperatureAgainstDouble) {
  qt::Rng rng(201);
  for (int64_t V : {1, 100, 255, 257, 5003}) {
    const int64_t rows = 3;
    const auto logits = rng.floats((size_t)(rows * V), -12.0f, 12.0f);
    expect_softmax(logits, rows, V, {1.0f, 0.7f, 1.9f});
  }
  const int64_t V = 250000;
  expect_softmax(rng.floats((size_t)(2 * V), -30.0f, 30.0f), 2, V, {1.0f, 0.25f});
}

TEST(Softmax, MaximumIsTakenBeforeTheTemperature) {
  // Far-apart logits underflow to exact zeros; the maximum gives exactly 1.
  const auto got = run_softmax({0.0f, -200.0f, -1e30f}, 1, 3, {1.0f});
  EXPECT_EQ(got, (std::vector<float>{1.0f, 0.0f, 0.0f}));
  // With a negative temperature the raw maximum no longer bounds the
  // arguments: exp(100) overflows, the sum is infinite, and 1/sum is 0.
  const auto neg = run_softmax({0.0f, -100.0f}, 1, 2, {-1.0f});
  EXPECT_EQ(neg[0], 0.0f);
  EXPECT_TRUE(std::isnan(neg[1]));
  // A NaN logit does not take part in the maximum but poisons the sum.
  const auto nan = run_softmax({1.0f, kNaN, 2.0f}, 1, 3, {1.0f});
  for (float v : nan) EXPECT_TRUE(std::isnan(v));
}

std::vector<int64_t> run_argmax(const std::vector<float>& logits, int64_t rows, int64_t V) {
  auto dl = qt::DevBuf::from(logits);
  qt::DevBuf dout((size_t)rows * 8);
  EXPECT_EQ(quillon_sampling_argmax(dl.as<float>(), dout.as<int64_t>(), rows, V, nullptr), hipSuccess);
  st::sync_ok();
  EXPECT_TRUE(dout.guards_intact());
  return dout.download<int64_t>();
}

TEST(Argmax, RandomRowsAgainstScan) {
  qt::Rng rng(211);
  for (int64_t V : {1, 255, 256, 257, 4099}) {
    const int64_t rows = 5;
    const auto logits = rng.floats((size_t)(rows * V), -5.0f, 5.0f);
    const auto got = run_argmax(logits, rows, V);
    for (int64_t r = 0; r < rows; ++r)
      EXPECT_EQ(got[(size_t)r], ref::sampling::argmax_row(logits.data() + r * V, V)) << "V " << V << " row " << r;
  }
  const int64_t V = 250000;
  auto big = rng.floats((size_t)(2 * V), -5.0f, 5.0f);
  big[(size_t)(V - 1)] = 6.0f;  // the last element of row 0
  big[(size_t)(V + 131072)] = 7.0f;
  EXPECT_EQ(run_argmax(big, 2, V), (std::vector<int64_t>{V - 1, 131072}));
}

TEST(Argmax, TiesGoToTheLowerIndex) {
  const int64_t V = 1024;
  std::vector<float> rows(6 * V, 0.0f);
  auto row = [&](int r) { return rows.data() + r * V; };
  row(0)[300] = row(0)[7] = 3.0f;           // same thread order reversed
  row(1)[5] = row(1)[5 + 256] = 2.0f;       // same thread, two strides
  row(2)[1000] = row(2)[3] = 1.0f;          // different waves
  row(3)[40] = row(3)[1023] = 1.0f;         // lanes of one wave vs. the last element
  for (int i = 0; i < V; ++i) row(4)[i] = -1.0f;
  row(4)[900] = 0.0f;
  row(4)[600] = -0.0f;                      // -0 equals +0: the lower index wins
  for (int i = 0; i < V; ++i) row(5)[i] = 4.0f;  // all equal
  EXPECT_EQ(run_argmax(rows, 6, V), (std::vector<int64_t>{7, 5, 3, 40, 600, 0}));
}

TEST(Argmax, NaNAndInfinities) {
  const int64_t V = 700;
  std::vector<float> rows(6 * V, -kInf);
  auto row = [&](int r) { return rows.data() + r * V; };
  // Row 0: all -inf.  Row 1: all NaN.  Row 2: NaN and -inf mixed.
  for (int i = 0; i < V; ++i) row(1)[i] = kNaN;
  for (int i = 0; i < V; i += 3) row(2)[i] = kNaN;
  // Row 3: NaN first, a finite maximum later.
  for (int i = 0; i < V; ++i) row(3)[i] = (float)(i % 50) - 100.0f;
  row(3)[0] = kNaN;
  row(3)[333] = 1.0f;
  // Row 4: +inf twice.  Row 5: -inf everywhere but one very negative number.
  for (int i = 0; i < V; ++i) row(4)[i] = (float)i;
  row(4)[650] = row(4)[270] = kInf;
  row(5)[699] = -3e38f;
  EXPECT_EQ(run_argmax(rows, 6, V), (std::vector<int64_t>{0, 0, 0, 333, 270, 699}));
}

}  // namespace
