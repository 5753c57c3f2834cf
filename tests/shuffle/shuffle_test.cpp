// blk32 (bf16 both orders, fp8) and block-panel shuffles against the address
// formulas; pad-row copies, shape aborts, poison and guards.
#include <gtest/gtest.h>

// The device layer first: it defines the host-device marker numerics.h uses.
#include "gemm_core/gemm_shuffle.h"
#include "common/test_util.h"
#include "reference/shuffle_ref.h"

namespace {

namespace gc = quillon::gemm_core;

// Distinct 16-bit values (40507 is prime to 65535), never the 0xFFFF poison.
std::vector<uint16_t> distinct_bf16(size_t n, uint32_t seed) {
  EXPECT_LT(n, 65535u);
  std::vector<uint16_t> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = (uint16_t)(((i + seed) * 40507u) % 65535u);
  return v;
}

struct ActCase {
  int64_t M, C, stride;
};

TEST(Blk32, ActivationsRowBlockMajor) {
  // M = 1 pads to 256 rows that all equal row 0 (its source holds one row, so
  // reading any other row leaves the buffer); M = 256 has no pad row; the
  // others cut a pad region mid-block and use a row stride wider than C.
  for (ActCase k : {ActCase{1, 64, 64}, ActCase{256, 96, 96}, ActCase{200, 160, 168}, ActCase{300, 32, 40},
                    ActCase{50, 32, 32}}) {
    SCOPED_TRACE(testing::Message() << "M=" << k.M << " C=" << k.C << " stride=" << k.stride);
    const int64_t R = k.M == 50 ? 64 : gc::PrefillTile::padded_rows(k.M);
    auto src = distinct_bf16((size_t)(k.M * k.stride), (uint32_t)k.C);
    qt::DevBuf s = qt::DevBuf::from(src), d(R * k.C * 2);
    quillon::shuffle_a_blk32(s.get(), k.stride, d.get(), R, k.C, nullptr, k.M);
    QT_HIP(hipStreamSynchronize(nullptr));
    QT_HIP(hipGetLastError());
    auto got = d.download<uint16_t>();
    EXPECT_BITS_EQ(got, ref::blk32(src, k.stride, R, k.C, k.M, false));
    EXPECT_TRUE(d.guards_intact());
    // The address helper that writers and the GEMM use agrees with the kernel.
    int64_t bad = 0;
    for (int64_t r = 0; r < R; ++r)
      for (int64_t c = 0; c < k.C; ++c)
        bad += got[(size_t)(gc::blk32_offset<false>(r, c, R, k.C) / 2)] != src[(size_t)((r < k.M ? r : 0) * k.stride + c)];
    EXPECT_EQ(bad, 0);
  }
}

TEST(Blk32, WeightsColumnBlockMajor) {
  struct W {
    int64_t N, K, stride;
  };
  for (W k : {W{64, 32, 32}, W{96, 192, 200}, W{128, 256, 256}}) {
    SCOPED_TRACE(testing::Message() << "N=" << k.N << " K=" << k.K << " stride=" << k.stride);
    auto src = distinct_bf16((size_t)(k.N * k.stride), 3);
    qt::DevBuf s = qt::DevBuf::from(src), d(k.N * k.K * 2);
    quillon::shuffle_b_blk32(s.get(), k.stride, d.get(), k.N, k.K, nullptr);
    QT_HIP(hipStreamSynchronize(nullptr));
    QT_HIP(hipGetLastError());
    auto got = d.download<uint16_t>();
    EXPECT_BITS_EQ(got, ref::blk32(src, k.stride, k.N, k.K, k.N, true));
    EXPECT_TRUE(d.guards_intact());
    int64_t bad = 0;
    for (int64_t r = 0; r < k.N; ++r)
      for (int64_t c = 0; c < k.K; ++c)
        bad += got[(size_t)(gc::blk32_b_offset(r, c, k.N) / 2)] != src[(size_t)(r * k.stride + c)];
    EXPECT_EQ(bad, 0);
  }
}

TEST(Blk32, Fp8WeightsColumnBlockMajor) {
  struct W {
    int64_t N, K, stride;
  };
  qt::Rng rng(21);
  for (W k : {W{64, 32, 32}, W{96, 192, 200}, W{32, 256, 256}}) {
    SCOPED_TRACE(testing::Message() << "N=" << k.N << " K=" << k.K << " stride=" << k.stride);
    std::vector<uint8_t> src((size_t)(k.N * k.stride));
    for (auto& b : src) b = (uint8_t)rng.bits();
    qt::DevBuf s = qt::DevBuf::from(src), d(k.N * k.K);
    quillon::shuffle_b_blk32_fp8(s.get(), k.stride, d.get(), k.N, k.K, nullptr);
    QT_HIP(hipStreamSynchronize(nullptr));
    QT_HIP(hipGetLastError());
    auto got = d.download<uint8_t>();
    EXPECT_BITS_EQ(got, ref::blk32_fp8(src, k.stride, k.N, k.K));
    EXPECT_TRUE(d.guards_intact());
    int64_t bad = 0;
    for (int64_t r = 0; r < k.N; ++r)
      for (int64_t c = 0; c < k.K; ++c)
        bad += got[(size_t)gc::blk32_fp8_offset(r, c, k.N)] != src[(size_t)(r * k.stride + c)];
    EXPECT_EQ(bad, 0);
  }
}

TEST(Blk32, EmptyShapeLaunchesNothing) {
  qt::DevBuf d(64);
  quillon::shuffle_a_blk32(nullptr, 64, d.get(), 0, 64, nullptr, 0);
  quillon::shuffle_b_blk32(nullptr, 0, d.get(), 32, 0, nullptr);
  QT_HIP(hipStreamSynchronize(nullptr));
  QT_HIP(hipGetLastError());
  EXPECT_BITS_EQ(d.download<uint8_t>(), std::vector<uint8_t>(64, 0xFF));
}

TEST(Blk32DeathTest, ShapesThatDoNotCut) {
  qt::DevBuf s(64 * 64 * 2), d(64 * 64 * 2);
  // One block: the two-block workgroup would overrun.
  EXPECT_QUILLON_FATAL(quillon::shuffle_a_blk32(s.get(), 32, d.get(), 32, 32, nullptr, 32),
                       "blk32 shuffle needs [32, 32] to divide into whole blocks");
  EXPECT_QUILLON_FATAL(quillon::shuffle_a_blk32(s.get(), 64, d.get(), 48, 64, nullptr, 48),
                       "blk32 shuffle needs [48, 64] to divide into whole blocks");
  EXPECT_QUILLON_FATAL(quillon::shuffle_b_blk32(s.get(), 64, d.get(), 96, 32, nullptr),
                       "blk32 shuffle needs [96, 32] to divide into whole blocks");
  EXPECT_QUILLON_FATAL(quillon::shuffle_b_blk32_fp8(s.get(), 48, d.get(), 64, 48, nullptr),
                       "blk32 shuffle needs [64, 48] to divide into whole blocks");
}

template <int R, int K>
void check_block_panel(uint64_t seed) {
  SCOPED_TRACE(testing::Message() << "R=" << R << " K=" << K);
  qt::Rng rng(seed);
  std::vector<uint16_t> src((size_t)R * K);
  for (auto& x : src) x = (uint16_t)rng.bits();
  qt::DevBuf s = qt::DevBuf::from(src), d((size_t)R * K * 2);
  quillon::shuffle_block_panel<R, K>(s.get(), d.get(), nullptr);
  QT_HIP(hipStreamSynchronize(nullptr));
  QT_HIP(hipGetLastError());
  auto got = d.download<uint16_t>();
  EXPECT_BITS_EQ(got, ref::block_panel(src, R, K));
  EXPECT_TRUE(d.guards_intact());
  int64_t bad = 0;
  for (int64_t r = 0; r < R; r += 37)
    for (int64_t c = 0; c < K; ++c) bad += got[(size_t)(gc::block_panel_offset(r, c, K) / 2)] != src[(size_t)(r * K + c)];
  EXPECT_EQ(bad, 0);
}

TEST(BlockPanel, RouterShapes) {
  check_block_panel<256, 2048>(1);
  check_block_panel<256, 4096>(2);
  check_block_panel<512, 2560>(3);
}

}  // namespace
