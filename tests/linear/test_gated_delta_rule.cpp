// Gated delta rule: the exported read-only decode and advance against the
// float-order reference (bit-exact), the chunked prefill against the
// double-precision recurrence (within a derived bound).
#include <algorithm>
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

struct Dev {
  qt::DevBuf qkv, ba, a_log, dt_bias;
  explicit Dev(const lt::Inputs& in)
      : qkv(qt::DevBuf::from(in.qkv)), ba(qt::DevBuf::from(in.ba)), a_log(qt::DevBuf::from(in.a_log)),
        dt_bias(qt::DevBuf::from(in.dt_bias)) {}
  const uint16_t* b() const { return ba.as<uint16_t>(); }
};

// Softplus within 2 ulp of the double value over the whole range the gate
// sees, both branches and either side of 20.
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

// The read-only decode from the committed slots against the float-order
// reference (bit-exact), keeping every byte of the pool; then the advance over n rows leaves the state after n
// rows (0: the slot untouched). Three sequences of 3 rows on permuted slots
// with the edge rows, and one sequence of 200 rows with null slots and
// accepted (every row). The per-row decode runs through the fused layer.
TEST(GatedDeltaRule, DecodeReadOnlyAndAdvance) {
  const struct {
    int gi;
    int64_t seqs, rows;
    std::vector<int32_t> slots, adv_n;
  } cases[] = {{0, 3, 3, {9, 0, 4}, {0, 2, 3}}, {2, 3, 3, {9, 0, 4}, {0, 2, 3}}, {0, 1, 200, {}, {}}};
  for (const auto& tc : cases) {
    const lt::Geo geo = lt::kGeos[tc.gi];
    if (!quillon::geometry_built(geo.id)) continue;
    ASSERT_EQ(quillon_select_geometry(geo.id), 0);
    SCOPED_TRACE(testing::Message() << "geometry " << geo.id << " rows " << tc.rows);
    qt::Rng rng(200 + geo.id + tc.rows);
    const int64_t kSlots = tc.slots.empty() ? 1 : 10, head = 16384, M = tc.seqs * tc.rows;
    lt::Inputs in = lt::make_inputs(rng, geo, M);
    if (tc.rows == 3) shape_edges(in);
    const auto pool = rng.floats((size_t)(kSlots * geo.hv * head), -0.5f, 0.5f);
    Dev d(in);
    auto dslots = qt::DevBuf::from(tc.slots), dn = qt::DevBuf::from(tc.adv_n);
    const int32_t* slots = tc.slots.empty() ? nullptr : dslots.as<int32_t>();
    const int32_t* adv = tc.adv_n.empty() ? nullptr : dn.as<int32_t>();
    auto dro_pool = qt::DevBuf::from(pool), dadv_pool = qt::DevBuf::from(pool);
    qt::DevBuf dro_out((size_t)(M * geo.hv * 128 * 2));
    const uint16_t* b = d.b();
    EXPECT_EQ(quillon_gated_delta_rule_decode_readonly(d.qkv.get(), b, b + geo.hv, 2 * geo.hv, d.a_log.as<float>(),
                                                       d.dt_bias.as<float>(), slots, dro_pool.as<float>(),
                                                       dro_out.get(), tc.seqs, tc.rows, nullptr),
              hipSuccess);
    EXPECT_EQ(quillon_gated_delta_rule_advance(d.qkv.get(), b, b + geo.hv, 2 * geo.hv, d.a_log.as<float>(),
                                               d.dt_bias.as<float>(), slots, adv, dadv_pool.as<float>(), tc.seqs,
                                               tc.rows, nullptr),
              hipSuccess);
    qt::sync_ok();

    std::vector<uint16_t> want_out((size_t)(M * geo.hv * 128));
    std::vector<float> want_adv = pool;
    for (int64_t s = 0; s < tc.seqs; ++s) {
      const int32_t slot = slots ? tc.slots[s] : (int32_t)s;
      const int64_t n = adv ? tc.adv_n[s] : tc.rows;
      lt::SlotState st = lt::slot_state(pool, slot, geo.hv);
      for (int64_t r = 0; r < tc.rows; ++r) {
        lt::ref_token(in, s * tc.rows + r, st, &want_out[(size_t)((s * tc.rows + r) * geo.hv * 128)]);
        if (n == r + 1) lt::put_slot(want_adv, slot, st);
      }
    }
    EXPECT_BITS_EQ(dro_out.download<uint16_t>(), want_out);
    EXPECT_BITS_EQ(dadv_pool.download<float>(), want_adv);
    EXPECT_EQ(std::memcmp(dro_pool.download<uint8_t>().data(), pool.data(), pool.size() * 4), 0)
        << "the read-only decode wrote to the pool";
    EXPECT_TRUE(dro_out.guards_intact() && dro_pool.guards_intact() && dadv_pool.guards_intact());
  }
}

// The chunked form against the double recurrence. Its own error comes from
// bf16 operands (2^-8 relative each): O takes (q_hat e^G) S (two roundings
// over sum |q_hat| |S| <= Smax) and P V' (two roundings over
// sum_j |q_hat_i . k_hat_j| |delta_j|), and V' = T Y carries the roundings of
// Y, whose (beta k_hat e^G) S part is at most |k_hat|_1 Smax <= 12 Smax; T is
// taken as of order one (it is I plus a strictly lower part with entries below
// beta |k_hat_i . k_hat_j|). Hence per output 2^-6 (Smax + sum_j |P_ij|
// (|delta_j| + 12 Smax)) and per state element 2^-6 sum_j |k_hat_j[k]|
// (|delta_j[v]| + 12 Smax) per chunk, accumulated over chunks (the recurrence
// contracts), plus the bf16 rounding of the output.
//
// Five sequences of 1, 63, 64, 65 and 130 tokens (shorter than, equal to and
// longer than a chunk), three continuing, over permuted slots; fresh slots hold
// garbage. Checkpoints: at a sequence's end, at 64, and entries that must not
// store (0 and 1 and 100, inside chunks; 70 past the end; after a negative).
TEST(GatedDeltaRule, ChunkedPrefill) {
  for (int gi : {0, 2}) {
    const lt::Geo geo = lt::kGeos[gi];
    if (!quillon::geometry_built(geo.id)) continue;
    ASSERT_EQ(quillon_select_geometry(geo.id), 0);
    SCOPED_TRACE(testing::Message() << "geometry " << geo.id);
    qt::Rng rng(300 + geo.id);
    const std::vector<int32_t> lens = {1, 63, 64, 65, 130}, has = {1, 0, 1, 0, 1}, slots = {4, 0, 2, 1, 3};
    const std::vector<int32_t> at = {-1, 5, 5, 63, -1, 9, 64, 70, -1, 1, 65, -1, 0, 64, 100};
    const std::vector<int32_t> ck_slots = {7, 7, 7, 0, 7, 7, 1, 7, 7, 6, 2, 7, 5, 3, 4};
    const int64_t head = 16384, kCk = 8, seqs = 5;
    std::vector<int32_t> cu = {0};
    for (int32_t l : lens) cu.push_back(cu.back() + l);
    const int64_t tokens = cu.back();
    lt::Inputs in = lt::make_inputs(rng, geo, tokens);
    shape_edges(in);
    const auto pool = rng.floats((size_t)(seqs * geo.hv * head), -0.5f, 0.5f);

    Dev d(in);
    auto dcu = qt::DevBuf::from(cu), dhas = qt::DevBuf::from(has), dslots = qt::DevBuf::from(slots);
    auto dat = qt::DevBuf::from(at), dck_slots = qt::DevBuf::from(ck_slots), dpool = qt::DevBuf::from(pool);
    qt::DevBuf dck((size_t)(kCk * geo.hv * head * 4)), dout((size_t)(tokens * geo.hv * 128 * 2));
    const uint16_t* b = d.b();
    quillon::gated_delta_rule_prefill(d.qkv.get(), b, b + geo.hv, 2 * geo.hv, d.a_log.as<float>(), d.dt_bias.as<float>(),
                                      dcu.as<int32_t>(), dhas.as<int32_t>(), dslots.as<int32_t>(), dpool.as<float>(),
                                      dat.as<int32_t>(), dck_slots.as<int32_t>(), 3, dck.as<float>(), dout.get(),
                                      seqs, 130, nullptr);
    qt::sync_ok();
    const auto got_out = dout.download<uint16_t>();
    const auto got_pool = dpool.download<float>(), got_ck = dck.download<float>();

    double worst_o = 0, worst_s = 0;
    std::vector<bool> ck_written(kCk, false);
    for (int s = 0; s < seqs; ++s) {
      for (int h = 0; h < geo.hv; ++h) {
        std::vector<double> S(head, 0.0), tol(head, 0.0);
        if (has[s])
          for (int64_t e = 0; e < head; ++e) S[(size_t)e] = pool[(size_t)((slots[s] * geo.hv + h) * head + e)];
        auto check_state = [&](const float* got) {
          for (int64_t e = 0; e < head; ++e) {
            const double err = std::fabs(got[e] - S[(size_t)e]), bound = tol[(size_t)e] + 1e-6;
            worst_s = std::max(worst_s, err / bound);
            ASSERT_LE(err, bound) << "seq " << s << " head " << h << " element " << e;
          }
        };
        for (int64_t c0 = 0; c0 < lens[s]; c0 += 64) {
          const int n = (int)std::min<int64_t>(64, lens[s] - c0);
          double smax = 0;
          for (double x : S) smax = std::max(smax, std::fabs(x));
          std::vector<double> col_tol(128, 0.0);
          for (int64_t e = 0; e < head; ++e) col_tol[(size_t)(e % 128)] = std::max(col_tol[(size_t)(e % 128)], tol[(size_t)e]);
          std::vector<ref::GdrTokenD> toks((size_t)n);
          for (int i = 0; i < n; ++i) {
            const int64_t t = cu[s] + c0 + i;
            ref::GdrTokenD& d = toks[(size_t)i];
            ref::gdr_step_d(S, in.q(t, h), in.k(t, h), in.v(t, h), in.b(t, h), in.a(t, h), in.a_log[h],
                            in.dt_bias[h], d);
            std::vector<double> qk((size_t)(i + 1), 0.0);
            for (int j = 0; j <= i; ++j)
              for (int e = 0; e < 128; ++e) qk[(size_t)j] += d.qh[e] * toks[(size_t)j].kh[e];
            for (int c = 0; c < 128; ++c) {
              double pv = 0;
              for (int j = 0; j <= i; ++j) pv += std::fabs(qk[(size_t)j]) * (std::fabs(toks[(size_t)j].delta[c]) + 12 * smax);
              const double bound = std::ldexp(std::fabs(d.o[c]), -8) + std::ldexp(smax + pv, -6) + col_tol[(size_t)c];
              const double err = std::fabs(ref::widen(got_out[(size_t)((t * geo.hv + h) * 128 + c)]) - d.o[c]);
              worst_o = std::max(worst_o, err / bound);
              ASSERT_LE(err, bound) << "seq " << s << " token " << c0 + i << " head " << h << " col " << c;
            }
          }
          for (int64_t e = 0; e < head; ++e) {
            double acc = 0;
            for (int j = 0; j < n; ++j)
              acc += std::fabs(toks[(size_t)j].kh[e / 128]) * (std::fabs(toks[(size_t)j].delta[e % 128]) + 12 * smax);
            tol[(size_t)e] += std::ldexp(acc, -6);
          }
          for (int k = 0; k < 3; ++k)
            if (at[s * 3 + k] == c0 + n && std::find(at.begin() + s * 3, at.begin() + s * 3 + k, -1) == at.begin() + s * 3 + k) {
              const int32_t cs = ck_slots[s * 3 + k];
              ck_written[(size_t)cs] = true;
              check_state(&got_ck[(size_t)((cs * geo.hv + h) * head)]);
            }
        }
        check_state(&got_pool[(size_t)((slots[s] * geo.hv + h) * head)]);
      }
    }
    RecordProperty("chunk_out_error_of_bound", std::to_string(worst_o));
    RecordProperty("chunk_state_error_of_bound", std::to_string(worst_s));
    // Slots 4..7 are named only by entries that must not store: the poison stays.
    const auto raw = dck.download<uint8_t>();
    EXPECT_EQ(std::count(raw.begin() + 16 * geo.hv * head, raw.end(), (uint8_t)0xFF), 16 * geo.hv * head);
    EXPECT_EQ(ck_written, std::vector<bool>({true, true, true, true, false, false, false, false}));
    EXPECT_TRUE(dout.guards_intact() && dpool.guards_intact() && dck.guards_intact());
  }
}

TEST(GatedDeltaRuleDeathTest, Contracts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  QT_SELECT_GEOMETRY(0);
  int32_t one = 1;
  EXPECT_QUILLON_FATAL(quillon_gated_delta_rule_decode_readonly(nullptr, nullptr, nullptr, 31, nullptr, nullptr,
                                                                nullptr, nullptr, nullptr, 1, 1, nullptr),
                       "ba_stride must span the per-head logits (got 31, need >= 32)");
  EXPECT_QUILLON_FATAL(quillon::gated_delta_rule_prefill(nullptr, nullptr, nullptr, 64, nullptr, nullptr, nullptr,
                                                         nullptr, nullptr, nullptr, &one, nullptr, 1, nullptr,
                                                         nullptr, 1, 1, nullptr),
                       "ckpt_max=1 needs ckpt_at, ckpt_slots and ckpt_state");
  // Nothing to run: no launch and no failure.
  EXPECT_EQ(quillon_gated_delta_rule_advance(nullptr, nullptr, nullptr, 32, nullptr, nullptr, nullptr, nullptr,
                                             nullptr, 0, 4, nullptr),
            hipSuccess);
  if (quillon::geometry_built(2)) {
    ASSERT_EQ(quillon_select_geometry(2), 0);
    EXPECT_QUILLON_FATAL(quillon_gated_delta_rule_advance(nullptr, nullptr, nullptr, 32, nullptr, nullptr, nullptr,
                                                          nullptr, nullptr, 1, 1, nullptr),
                         qt::kGeometryTwo);
  }
}

}  // namespace
