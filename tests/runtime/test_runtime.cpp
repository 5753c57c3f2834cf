// The CPU device runtime: barriers, wave collectives, WMMA, bounded loads,
// atomics, co-resident launches, launch errors, schedules and block sampling.
// On a GPU the device-layer cases run; the CPU device's own checks skip.
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "common/test_util.h"
#include "kernels.h"
#include "common/device_ext.h"

using namespace rt;
using qt::DevBuf;

namespace {

template <int N>
void check_barrier_rounds() {
  const int blocks = 3, rounds = 5;
  DevBuf out(blocks * N * 4);
  ASSERT_EQ(launch(&barrier_rounds_kernel<N>, dim3(blocks), dim3(N), 0, nullptr, out.as<uint32_t>(), rounds),
            hipSuccess);
  auto got = out.download<uint32_t>();
  for (int b = 0; b < blocks; ++b)
    for (int t = 0; t < N; ++t) ASSERT_EQ(got[b * N + t], (uint32_t)((t + rounds) % N + rounds)) << b << " " << t;
  EXPECT_TRUE(out.guards_intact());
}

TEST(Barrier, RoundsAt64_512_1024) {
  check_barrier_rounds<64>();
  check_barrier_rounds<512>();
  check_barrier_rounds<1024>();
}

// Reference for wave_ops_kernel; lanes that do not exist in a partial wave are
// skipped by the shuffles (own value) and bpermute (zero).
void check_wave_ops(int n) {
  DevBuf out(n * 10 * 4);
  ASSERT_EQ(launch(&wave_ops_kernel, dim3(1), dim3(n), 0, nullptr, out.as<uint32_t>(), n), hipSuccess);
  auto got = out.download<uint32_t>();
  auto val = [](int t) { return (uint32_t)t * 7 + 3; };
  for (int t = 0; t < n; ++t) {
    const int l = t % 32, base = t - l, size = std::min(32, n - base);
    auto lane = [&](int src, uint32_t fallback) { return src < size ? val(base + src) : fallback; };
    const uint32_t* o = &got[t * 10];
    EXPECT_EQ(o[0], lane(l ^ 1, val(t))) << t;
    EXPECT_EQ(o[1], lane(l ^ 16, val(t))) << t;
    EXPECT_EQ(o[2], lane(l ^ 5, val(t))) << t;
    EXPECT_EQ(o[3], lane((l * 3) % 32, 0u)) << t;
    // permlanex16 reads the other row; select nibble k of lane k's word.
    const int k = l % 16;
    const uint32_t sel = k < 8 ? 0x01234567u : 0x89abcdefu;
    const int src = (l < 16 ? 16 : 0) + (int)((sel >> (4 * (k % 8))) & 15);
    EXPECT_EQ(o[4], lane(src, val(t))) << t;
    EXPECT_EQ(o[5], lane(5, 0u)) << t;
    uint32_t ballot = 0;
    for (int j = 0; j < size; ++j)
      if ((base + j) % 3 == 0) ballot |= 1u << j;
    EXPECT_EQ(o[6], ballot) << t;
    const uint32_t v = val(t);
    // selector bytes 0x00, 0x04, 0x05, 0x0c: lo byte 0, hi bytes 0 and 1, zero
    EXPECT_EQ(o[7], (v & 0xff) | (0x44u << 8) | (0x33u << 16)) << t;
    EXPECT_EQ(o[8], quillon::num::float_to_bits((float)(base + ((l ^ 2) < size ? (l ^ 2) : l)))) << t;
    EXPECT_EQ(o[9], (uint32_t)l);
  }
}

TEST(Wave, EveryOperationFullAndPartialWaves) {
  check_wave_ops(32);
  check_wave_ops(40);   // a wave of 8 lanes behind a full one
  check_wave_ops(320);
}

TEST(Wave, BytePermuteMatchesHardwareSelectorRules) {
  // 0..7 pick bytes of {hi:lo}; 12 gives 0x00; 13..15 give 0xff; 8..11 spread a sign bit.
  const std::vector<uint32_t> in = {0x80ff7f01u, 0x44332211u, 0x07060504u, 0x80ff7f01u, 0x44332211u, 0x0c0d0003u,
                                    0x80ff7f01u, 0x44332211u, 0x0b0a0908u};
  DevBuf din = DevBuf::from(in), out(3 * 4);
  ASSERT_EQ(launch(&perm_kernel, dim3(1), dim3(3), 0, nullptr, din.as<uint32_t>(), out.as<uint32_t>()), hipSuccess);
  EXPECT_EQ(out.download<uint32_t>(), (std::vector<uint32_t>{0x80ff7f01u, 0x00ff1144u, 0xff000000u}));
}

void run_wmma(const std::vector<uint16_t>& a, const std::vector<uint16_t>& b, const std::vector<float>& c,
              std::vector<float>& d) {
  DevBuf da = DevBuf::from(a), db = DevBuf::from(b), dc = DevBuf::from(c), dd(256 * 4);
  ASSERT_EQ(launch(&wmma_kernel, dim3(1), dim3(32), 0, nullptr, da.as<uint16_t>(), db.as<uint16_t>(),
                   dc.as<float>(), dd.as<float>()),
            hipSuccess);
  d = dd.download<float>();
}
std::vector<float> ref_wmma(const std::vector<uint16_t>& a, const std::vector<uint16_t>& b, const std::vector<float>& c) {
  std::vector<float> d(256);
  for (int r = 0; r < 16; ++r)
    for (int col = 0; col < 16; ++col) {
      double s = c[r * 16 + col];
      for (int k = 0; k < 16; ++k) s += (double)qt::bf(a[r * 16 + k]) * qt::bf(b[col * 16 + k]);
      d[r * 16 + col] = (float)s;
    }
  return d;
}

TEST(Wmma, IdentityOneHotAndIntegerOperands) {
  qt::Rng rng(11);
  std::vector<uint16_t> ident(256, 0), onehot(256, 0), ia(256), ib(256);
  for (int i = 0; i < 16; ++i) ident[i * 16 + i] = qt::to_bf(1.0f);
  for (int i = 0; i < 16; ++i) onehot[i * 16 + (i * 5 + 3) % 16] = qt::to_bf(1.0f);
  for (auto& v : ia) v = qt::to_bf((float)rng.integer(-8, 8));
  for (auto& v : ib) v = qt::to_bf((float)rng.integer(-8, 8));
  std::vector<float> zero(256, 0.0f), ic(256);
  for (auto& v : ic) v = (float)rng.integer(-100, 100);
  std::vector<float> d;
  // A * I^T = A; integer sums are exact in fp32, so compare exactly.
  run_wmma(ia, ident, zero, d);
  for (int i = 0; i < 256; ++i) ASSERT_EQ(d[i], qt::bf(ia[i])) << i;
  run_wmma(onehot, ib, ic, d);
  EXPECT_EQ(d, ref_wmma(onehot, ib, ic));
  run_wmma(ia, ib, ic, d);
  EXPECT_EQ(d, ref_wmma(ia, ib, ic));
}

TEST(WmmaDeathTest, LanesMustDuplicateOperands) {
  QT_NEEDS_CPU_DEVICE("its operand check");
  DevBuf d(32 * 4);
  EXPECT_DEATH((void)launch(&wmma_bad_dup_kernel, dim3(1), dim3(32), 0, nullptr, d.as<float>()),
               "lane 16 carries operands that differ from lane 0");
}

TEST(BufferLoad, ReadsPastTheBoundGiveZero) {
  // 100 bytes: 16-byte loads at 0..80 fit, 96 straddles the end, 112 is past it.
  std::vector<uint8_t> src(128);
  for (int i = 0; i < 128; ++i) src[i] = (uint8_t)(i + 1);
  DevBuf s = DevBuf::from(src), out(32 * 7 * 4);
  ASSERT_EQ(launch(&bounded_load_kernel, dim3(1), dim3(32), 0, nullptr, s.as<uint8_t>(), 100u, out.as<uint32_t>()),
            hipSuccess);
  auto got = out.download<uint32_t>();
  auto word = [&](uint32_t off) {
    uint32_t w;
    std::memcpy(&w, &src[off], 4);
    return w;
  };
  for (uint32_t t = 0; t < 32; ++t) {
    for (uint32_t i = 0; i < 4; ++i) EXPECT_EQ(got[t * 7 + i], t * 16 + 16 <= 100 ? word(t * 16 + 4 * i) : 0u) << t;
    for (uint32_t i = 0; i < 2; ++i) EXPECT_EQ(got[t * 7 + 4 + i], t * 8 + 8 <= 100 ? word(t * 8 + 4 * i) : 0u) << t;
    EXPECT_EQ(got[t * 7 + 6], t * 4 + 4 <= 100 ? word(t * 4) : 0u) << t;
  }
}

TEST(Atomics, LdsAndGlobalUnderContention) {
  const int blocks = 8, threads = 256, iters = 16;
  DevBuf counter(4, 0), per_block(blocks * 4);
  ASSERT_EQ(launch(&atomics_kernel, dim3(blocks), dim3(threads), 0, nullptr, counter.as<uint32_t>(),
                   per_block.as<uint32_t>(), iters),
            hipSuccess);
  EXPECT_EQ(counter.download<uint32_t>()[0], (uint32_t)(blocks * threads * iters));
  for (uint32_t v : per_block.download<uint32_t>()) EXPECT_EQ(v, (uint32_t)(threads * iters));
}

TEST(CoResident, DeviceWideBarrierSeveralTimes) {
  const int blocks = 64, threads = 512, rounds = 4;
  DevBuf arrive(4, 0), slots(blocks * 4, 0), bad(4, 0);
  ASSERT_EQ(launch_coresident(&grid_barrier_kernel, dim3(blocks), dim3(threads), 0, nullptr, arrive.as<uint32_t>(),
                              slots.as<uint32_t>(), bad.as<uint32_t>(), rounds),
            hipSuccess);
  EXPECT_EQ(arrive.download<uint32_t>()[0], (uint32_t)(blocks * rounds));
  EXPECT_EQ(bad.download<uint32_t>()[0], 0u);
}

TEST(Launch, ErrorsAreReturnedOnceThenCleared) {
  QT_NEEDS_CPU_DEVICE("its launch checks");
  (void)hipGetLastError();
  EXPECT_EQ(launch(&empty_kernel, dim3(1), dim3(1025), 0, nullptr), hipErrorInvalidConfiguration);
  EXPECT_EQ(hipGetLastError(), hipErrorInvalidConfiguration);
  EXPECT_EQ(hipGetLastError(), hipSuccess);
  EXPECT_EQ(launch(&empty_kernel, dim3(1), dim3(64), 65537, nullptr), hipErrorInvalidConfiguration);
  EXPECT_EQ(hipPeekAtLastError(), hipErrorInvalidConfiguration);
  EXPECT_EQ(hipGetLastError(), hipErrorInvalidConfiguration);
  EXPECT_EQ(hipGetLastError(), hipSuccess);
  EXPECT_EQ(launch(&empty_kernel, dim3(1), dim3(1024), 65536, nullptr), hipSuccess);
  EXPECT_EQ(hipGetLastError(), hipSuccess);
}

TEST(Launch, DynamicLdsIsPerWorkgroup) {
  DevBuf out(256 * 4);
  ASSERT_EQ(launch(&lds_probe_kernel, dim3(1), dim3(256), 256 * 4, nullptr, out.as<uint32_t>()), hipSuccess);
  auto got = out.download<uint32_t>();
  for (uint32_t t = 0; t < 256; ++t) EXPECT_EQ(got[t], 255 - t);
}

TEST(BarrierDeathTest, TwoCallSitesAreReportedWithBothLocations) {
  QT_NEEDS_CPU_DEVICE("its divergence check");
  DevBuf out(64 * 4);
  EXPECT_DEATH((void)launch(&divergent_barrier_kernel, dim3(1), dim3(64), 0, nullptr, out.as<uint32_t>()),
               "block barrier divergence.*kernels\\.h:[0-9]+.*kernels\\.h:[0-9]+");
}

// Sampling names its launch, the next or one further on; the launches in
// between and after run whole, and unrun workgroups leave the output alone.
TEST(Sampling, UnrunWorkgroupsLeaveOutputUntouched) {
  QT_NEEDS_CPU_DEVICE("block sampling");
  const int blocks = 10, threads = 64;
  const int64_t pick0[] = {0, 4, 9}, pick2[] = {3};
  qt::sample_next_launch(pick0, 3);
  qt::sample_launch(2, {pick2[0]});
  const std::vector<std::vector<int>> ran = {{0, 4, 9}, {}, {3}, {}};  // {}: every workgroup
  for (uint32_t i = 0; i < ran.size(); ++i) {
    DevBuf out(blocks * threads * 4);
    ASSERT_EQ(launch(&fill_kernel, dim3(blocks), dim3(threads), 0, nullptr, out.as<uint32_t>(), i), hipSuccess);
    const auto got = out.download<uint32_t>();
    for (int b = 0; b < blocks; ++b) {
      const bool runs = ran[i].empty() || std::count(ran[i].begin(), ran[i].end(), b);
      EXPECT_EQ(got[b * threads], runs ? i : 0xffffffffu) << "launch " << i << " workgroup " << b;
    }
  }
}

TEST(Math, CpuFlavourMatchesLibm) {
  QT_NEEDS_CPU_DEVICE("its libm functions");
  std::vector<float> x = {0.5f, -1.25f, 3.0f, 1e-3f, -7.5f, 2.0f, 0.0f, 20.0f};
  DevBuf dx = DevBuf::from(x), out(x.size() * 8 * 4);
  ASSERT_EQ(launch(&math_kernel, dim3(1), dim3((unsigned)x.size()), 0, nullptr, dx.as<float>(), out.as<float>()),
            hipSuccess);
  auto got = out.download<float>();
  for (size_t i = 0; i < x.size(); ++i) {
    const float v = x[i], a = std::fabs(v);
    EXPECT_EQ(got[i * 8 + 0], exp2f(v));
    EXPECT_EQ(got[i * 8 + 1], 1.0f / v);
    if (a > 0) EXPECT_EQ(got[i * 8 + 2], 1.0f / sqrtf(a));
    EXPECT_EQ(got[i * 8 + 3], sqrtf(a));
    // sin and cos are the device layer's own, within 1 ulp of the correctly rounded value.
    EXPECT_LE(std::fabs(got[i * 8 + 4] - (float)std::sin((double)v)), std::ldexp(std::fabs(std::sin(v)), -23));
    EXPECT_LE(std::fabs(got[i * 8 + 5] - (float)std::cos((double)v)), std::ldexp(std::fabs(std::cos(v)), -23));
    EXPECT_NEAR(got[i * 8 + 6], std::tanh(v), 2e-7);
    EXPECT_NEAR(got[i * 8 + 7], std::erf(v), 3e-7);
  }
}

TEST(Math, RsqScalesDenormals) {
  // 2^-140 is denormal; its rsq is exactly 2^70.
  std::vector<float> x = {std::ldexp(1.0f, -140), std::ldexp(1.0f, -126)};
  DevBuf dx = DevBuf::from(x), out(x.size() * 8 * 4);
  ASSERT_EQ(launch(&math_kernel, dim3(1), dim3(2), 0, nullptr, dx.as<float>(), out.as<float>()), hipSuccess);
  auto got = out.download<float>();
  EXPECT_EQ(got[2], std::ldexp(1.0f, 70));
  EXPECT_EQ(got[8 + 2], std::ldexp(1.0f, 63));
}

// Schedules are read once per process, so each is probed in a child process
// that runs this disabled case.
TEST(ScheduleProbe, DISABLED_PrintResults) {
  const int blocks = 6;
  DevBuf a(blocks * 4), b(4);
  ASSERT_EQ(launch(&race_free_kernel, dim3(blocks), dim3(256), 0, nullptr, a.as<uint32_t>()), hipSuccess);
  ASSERT_EQ(launch(&racy_kernel, dim3(1), dim3(256), 0, nullptr, b.as<uint32_t>()), hipSuccess);
  std::printf("RACEFREE");
  for (uint32_t v : a.download<uint32_t>()) std::printf(" %08x", v);
  std::printf("\nRACY %u\n", b.download<uint32_t>()[0]);
}

std::string probe(const char* schedule, const char* key) {
  std::string cmd = std::string("QUILLON_CPU_SCHEDULE=") + schedule +
                    " /proc/" + std::to_string(getpid()) +
                    "/exe --gtest_also_run_disabled_tests --gtest_filter=ScheduleProbe.* 2>&1";
  FILE* p = popen(cmd.c_str(), "r");
  std::string line, out;
  char buf[4096];
  while (p && fgets(buf, sizeof buf, p)) {
    line = buf;
    if (line.rfind(key, 0) == 0) out = line;
  }
  if (p) pclose(p);
  return out;
}

// A race-free kernel gives the same under every order; in a racy one the last
// writer wins: thread 255 when lanes run forward, thread 0 in reverse.
TEST(Schedule, OrdersChangeOnlyRacyResults) {
  QT_NEEDS_CPU_DEVICE("schedules");
  const std::string fwd = probe("forward", "RACEFREE");
  ASSERT_FALSE(fwd.empty());
  EXPECT_EQ(probe("reverse", "RACEFREE"), fwd);
  EXPECT_EQ(probe("random:7", "RACEFREE"), fwd);
  EXPECT_EQ(probe("forward", "RACY"), "RACY 255\n");
  EXPECT_EQ(probe("reverse", "RACY"), "RACY 0\n");
}

TEST(Memory, GuardPageStopsAnOverrun) {
  QT_NEEDS_CPU_DEVICE("guard pages");
  void* p = nullptr;
  ASSERT_EQ(hipMalloc(&p, 4096), hipSuccess);
  EXPECT_DEATH(static_cast<volatile char*>(p)[4096] = 1, "");
  EXPECT_EQ(hipFree(p), hipSuccess);
  EXPECT_EQ(hipFree(reinterpret_cast<void*>(0x1000)), hipErrorInvalidValue);
  (void)hipGetLastError();
}

}  // namespace
