// Gated delta rule, recurrent forms: per-row decode, the exported read-only
// decode and advance, against the float-order reference (bit-exact) and the
// double-precision recurrence (within a derived bound).
#include <cstring>

#include "attention/linear/gdr_core.h"
#include "attention/linear/linear_attn.h"
#include "linear/gdr_test_util.h"
#include "platform/launch.h"
#include "quillon/quillon.h"

namespace lt {

__global__ void softplus_probe_kernel(const float* x, float* y, int64_t n) {
  const int64_t i = (int64_t)blockIdx.x * 256 + threadIdx.x;
  if (i < n) y[i] = quillon::gdr::softplus(x[i]);
}

std::vector<float> device_softplus(const std::vector<float>& x) {
  auto dx = qt::DevBuf::from(x);
  qt::DevBuf dy(x.size() * 4);
  const int64_t n = (int64_t)x.size();
  EXPECT_EQ(quillon::launch(&softplus_probe_kernel, dim3((unsigned)((n + 255) / 256)), dim3(256), 0, nullptr,
                            dx.as<const float>(), dy.as<float>(), n),
            hipSuccess);
  EXPECT_EQ(hipDeviceSynchronize(), hipSuccess);
  return dy.download<float>();
}

}  // namespace lt

namespace {

void sync_ok() { ASSERT_EQ(hipDeviceSynchronize(), hipSuccess); }

// Worst-case fp32 drift of the recurrence against exact arithmetic, as a
// multiple of u = 2^-24 times the largest state magnitude: per token the decay
// and the update round each element once, the 64-term half sums and their
// join lose at most 66u of sum |S||k_hat| <= 66 sqrt(128) u Smax (|k_hat| = 1),
// and the gates carry a few ulp; the contraction of (I - beta k k^T) keeps old
// errors from growing. The output adds one more 66u Smax dot product
// (|q_hat|_1 <= 1) and its bf16 rounding (half an ulp: 2^-8 relative).
double drift_bound(int64_t steps, double smax, double o) {
  return std::ldexp(std::fabs(o), -8) + (800.0 * (double)steps + 70.0) * std::ldexp(smax, -24);
}

// Softplus within 2 ulp of the double value over the whole range the gate
// sees, both branches, and continuous at 20.
TEST(GatedDeltaRule, SoftplusAccuracy) {
  std::vector<float> x;
  for (float v = -104.f; v < 30.f; v += 0.00731f) x.push_back(v);
  for (float v : {0.0f, -0.0f, 1e-30f, -1e-30f, 20.0f, std::nextafter(20.0f, 30.0f), std::nextafter(20.0f, 0.0f)})
    x.push_back(v);
  const auto y = lt::device_softplus(x);
  double worst = 0;
  for (size_t i = 0; i < x.size(); ++i) {
    const double want = x[i] > 20.f ? (double)x[i] : std::log1p(std::exp((double)x[i]));
    const double ulp = std::max(std::ldexp(1.0, std::ilogb((float)want) - 23), std::ldexp(1.0, -149));
    worst = std::max(worst, std::fabs(y[i] - want) / ulp);
    ASSERT_LE(std::fabs(y[i] - want), 2 * ulp) << "x = " << x[i];
  }
  RecordProperty("softplus_worst_ulp", std::to_string(worst));
  const float lo = lt::device_softplus({20.0f})[0], hi = lt::device_softplus({std::nextafter(20.0f, 30.0f)})[0];
  EXPECT_LE(hi - lo, 4 * std::ldexp(1.0f, -19));
}

// Rows that must work: a zero q of key head 0 (token 0), a zero k of key head
// 1 (token 1), beta exactly 0 (token 1, head 3); per head, decay exactly 1
// (head 0: e^(a_log) is 0), decay 0 on the linear branch (head 1), the branch
// edge just above 20 (head 2).
void shape_edges(lt::Inputs& in) {
  const int hv = in.geo.hv;
  for (int i = 0; i < 128; ++i) {
    in.qkv[(size_t)i] = 0;
    in.qkv[(size_t)(in.geo.conv + 2048 + 128 + i)] = 0;
  }
  if (in.tokens > 1) in.ba[(size_t)(2 * hv + 3)] = qt::to_bf(-200.f);
  in.a_log[0] = -200.f;
  in.a_log[1] = 5.f;
  in.dt_bias[2] = 0.0f;
  for (int64_t t = 0; t < in.tokens; ++t) {
    in.ba[(size_t)(t * 2 * hv + hv + 1)] = qt::to_bf(25.f);
    in.ba[(size_t)(t * 2 * hv + hv + 2)] = qt::to_bf(20.125f);
  }
  in.derive();
}

// Three sequences of 3 rows on a permuted slot table, accepted 1, 3, 2 in the
// previous step. The per-row decode leaves the state after row r in row r's
// slot; the read-only decode from the committed slots gives the same outputs
// and keeps every byte of the pool; the advance over 0, 2 and 3 rows leaves
// what the per-row decode left after those rows (0: the slot untouched).
TEST(GatedDeltaRule, DecodeReadOnlyAndAdvance) {
  for (int gi : {0, 2}) {
    const lt::Geo geo = lt::kGeos[gi];
    if (!quillon::geometry_built(geo.id)) continue;
    ASSERT_EQ(quillon_select_geometry(geo.id), 0);
    SCOPED_TRACE(testing::Message() << "geometry " << geo.id);
    qt::Rng rng(200 + geo.id);
    const int64_t rows = 3, seqs = 3, kSlots = 10, head = 16384;
    lt::Inputs in = lt::make_inputs(rng, geo, seqs * rows);
    shape_edges(in);
    const std::vector<int32_t> table = {9, 2, 5, 0, 7, 1, 3, 8, 4}, accepted = {1, 3, 2}, adv_n = {0, 2, 3};
    std::vector<int32_t> committed(seqs);
    for (int b = 0; b < seqs; ++b) committed[b] = table[b * rows + accepted[b] - 1];
    const auto pool = rng.floats((size_t)(kSlots * geo.hv * head), -0.5f, 0.5f);

    auto dqkv = qt::DevBuf::from(in.qkv), dba = qt::DevBuf::from(in.ba);
    auto dalog = qt::DevBuf::from(in.a_log), ddt = qt::DevBuf::from(in.dt_bias);
    auto dtable = qt::DevBuf::from(table), dacc = qt::DevBuf::from(accepted), dn = qt::DevBuf::from(adv_n);
    auto dcommitted = qt::DevBuf::from(committed);
    auto drow_pool = qt::DevBuf::from(pool), dro_pool = qt::DevBuf::from(pool), dadv_pool = qt::DevBuf::from(pool);
    const size_t out_bytes = (size_t)(seqs * rows * geo.hv * 128 * 2);
    qt::DevBuf drow_out(out_bytes), dro_out(out_bytes);
    const auto* b = dba.as<uint16_t>();
    quillon::gated_delta_rule_decode(dqkv.get(), b, b + geo.hv, 2 * geo.hv, dalog.as<float>(), ddt.as<float>(),
                                     dtable.as<int32_t>(), dacc.as<int32_t>(), drow_pool.as<float>(), drow_out.get(),
                                     seqs, rows, nullptr);
    EXPECT_EQ(quillon_gated_delta_rule_decode_readonly(dqkv.get(), b, b + geo.hv, 2 * geo.hv, dalog.as<float>(),
                                                       ddt.as<float>(), dcommitted.as<int32_t>(),
                                                       dro_pool.as<float>(), dro_out.get(), seqs, rows, nullptr),
              hipSuccess);
    EXPECT_EQ(quillon_gated_delta_rule_advance(dqkv.get(), b, b + geo.hv, 2 * geo.hv, dalog.as<float>(),
                                               ddt.as<float>(), dcommitted.as<int32_t>(), dn.as<int32_t>(),
                                               dadv_pool.as<float>(), seqs, rows, nullptr),
              hipSuccess);
    sync_ok();

    std::vector<uint16_t> want_out((size_t)(seqs * rows * geo.hv * 128));
    std::vector<float> want_rows = pool, want_adv = pool;
    double worst = 0;
    for (int s = 0; s < seqs; ++s) {
      lt::SlotState st = lt::slot_state(pool, committed[s], geo.hv);
      std::vector<std::vector<double>> sd(geo.hv);
      for (int h = 0; h < geo.hv; ++h) sd[h].assign(st[h].begin(), st[h].end());
      for (int64_t r = 0; r < rows; ++r) {
        const int64_t t = s * rows + r;
        lt::ref_token(in, t, st, &want_out[(size_t)(t * geo.hv * 128)]);
        lt::put_slot(want_rows, table[t], st);
        if (adv_n[s] == r + 1) lt::put_slot(want_adv, committed[s], st);
        for (int h = 0; h < geo.hv; ++h) {
          double o[128];
          ref::gdr_step_d(sd[h], in.q(t, h), in.k(t, h), in.v(t, h), in.b(t, h), in.a(t, h), in.a_log[h],
                          in.dt_bias[h], o);
          double smax = 0;
          for (double x : sd[h]) smax = std::max(smax, std::fabs(x));
          for (int c = 0; c < 128; ++c) {
            const double got = ref::widen(want_out[(size_t)((t * geo.hv + h) * 128 + c)]);
            const double err = std::fabs(got - o[c]);
            worst = std::max(worst, err / drift_bound(r + 1, smax, o[c]));
            ASSERT_LE(err, drift_bound(r + 1, smax, o[c])) << "token " << t << " head " << h << " col " << c;
          }
        }
      }
    }
    RecordProperty("double_error_of_bound", std::to_string(worst));
    EXPECT_BITS_EQ(drow_out.download<uint16_t>(), want_out);
    EXPECT_BITS_EQ(dro_out.download<uint16_t>(), want_out);
    EXPECT_BITS_EQ(drow_pool.download<float>(), want_rows);
    EXPECT_BITS_EQ(dadv_pool.download<float>(), want_adv);
    EXPECT_EQ(std::memcmp(dro_pool.download<uint8_t>().data(), pool.data(), pool.size() * 4), 0)
        << "the read-only decode wrote to the pool";
    EXPECT_TRUE(drow_out.guards_intact() && drow_pool.guards_intact() && dro_pool.guards_intact() &&
                dadv_pool.guards_intact());
  }
}

}  // namespace
