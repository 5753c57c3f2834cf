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

// Runs one shuffle of src into out_elems elements and compares every one.
template <class T, class Launch>
void check_shuffle(const std::vector<T>& src, size_t out_elems, Launch&& launch, const std::vector<T>& want) {
  qt::DevBuf s = qt::DevBuf::from(src), d(out_elems * sizeof(T));
  launch(s.get(), d.get());
  QT_HIP(hipStreamSynchronize(nullptr));
  QT_HIP(hipGetLastError());
  EXPECT_BITS_EQ(d.download<T>(), want);
  EXPECT_TRUE(d.guards_intact());
}

// Activations are row-block-major: M = 1 pads to 256 rows that all equal row 0
// (its source holds one row, so reading any other row leaves the buffer);
// M = 256 has no pad row; the others cut a pad region mid-block. Weights, bf16
// and fp8, are column-block-major. Several row strides are wider than C.
TEST(Blk32, EveryOrderAgainstTheAddressFormula) {
  enum Kind { Act, Weight, Fp8 };
  struct Case {
    Kind kind;
    int64_t M, R, C, stride;
  };
  const Case cases[] = {{Act, 1, 256, 64, 64},       {Act, 256, 256, 96, 96},   {Act, 200, 256, 160, 168},
                        {Act, 300, 512, 32, 40},     {Act, 50, 64, 32, 32},     {Weight, 64, 64, 32, 32},
                        {Weight, 96, 96, 192, 200},  {Weight, 128, 128, 256, 256}, {Fp8, 64, 64, 32, 32},
                        {Fp8, 96, 96, 192, 200},     {Fp8, 32, 32, 256, 256}};
  qt::Rng rng(21);
  for (const Case& k : cases) {
    SCOPED_TRACE(testing::Message() << "kind " << k.kind << " M=" << k.M << " C=" << k.C << " stride=" << k.stride);
    const size_t n = (size_t)(k.R * k.C);
    if (k.kind == Fp8) {
      std::vector<uint8_t> src((size_t)(k.M * k.stride));
      for (auto& b : src) b = (uint8_t)rng.bits();
      check_shuffle(src, n, [&](void* s, void* d) { quillon::shuffle_b_blk32_fp8(s, k.stride, d, k.R, k.C, nullptr); },
                    ref::blk32_fp8(src, k.stride, k.R, k.C));
      continue;
    }
    const auto src = distinct_bf16((size_t)(k.M * k.stride), (uint32_t)k.C);
    check_shuffle(src, n,
                  [&](void* s, void* d) {
                    if (k.kind == Act) quillon::shuffle_a_blk32(s, k.stride, d, k.R, k.C, nullptr, k.M);
                    else quillon::shuffle_b_blk32(s, k.stride, d, k.R, k.C, nullptr);
                  },
                  ref::blk32(src, k.stride, k.R, k.C, k.M, k.kind == Weight));
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
  check_shuffle(src, src.size(), [](void* s, void* d) { quillon::shuffle_block_panel<R, K>(s, d, nullptr); },
                ref::block_panel(src, R, K));
}

TEST(BlockPanel, RouterShapes) {
  check_block_panel<256, 2048>(1);
  check_block_panel<256, 4096>(2);
  check_block_panel<512, 2560>(3);
}

}  // namespace
