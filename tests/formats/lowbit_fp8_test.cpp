// Device tables against the data files, low-bit expert planes and their
// values, and the fp8 weight bytes and scale table.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "common/test_util.h"
#include "gemm/kquant_shuffle.h"
#include "quillon/quillon.h"
#include "read_kernels.h"
#include "reference/gguf_ref.h"
#include "reference/shuffle_ref.h"

namespace {
using namespace quillon;

const std::string kTables = QT_GGUF_TABLE_DIR;

uint16_t bf16_of(double v) { return ref::round_dequant((float)v); }  // exact for the small integers here

TEST(GgufTables, GridsMatchDataFiles) {
  const auto iq2xxs = ref::read_table(kTables + "/iq2xxs_grid.txt");
  const auto iq3xxs = ref::read_table(kTables + "/iq3xxs_grid.txt");
  const auto iq2s = ref::read_table(kTables + "/iq2s_grid.txt");
  ASSERT_EQ(iq2xxs.size(), 256u);
  ASSERT_EQ(iq3xxs.size(), 256u);
  ASSERT_EQ(iq2s.size(), 1024u);
  for (int i = 0; i < 256; ++i)
    for (int k = 0; k < 8; ++k) {
      ASSERT_EQ(iquant::kGridIq2xxs[i][k], bf16_of((iq2xxs[i] >> (8 * k)) & 0xff)) << i << " " << k;
      if (k < 4) ASSERT_EQ(iquant::kGridIq3xxs[i][k], bf16_of((iq3xxs[i] >> (8 * k)) & 0xff)) << i << " " << k;
    }
  for (int i = 0; i < 1024; ++i)
    for (int k = 0; k < 8; ++k) ASSERT_EQ(iquant::kGridIq2s[i][k], bf16_of((iq2s[i] >> (8 * k)) & 0xff)) << i;
}

TEST(GgufTables, SignMasks) {
  const auto ksigns = ref::read_table(kTables + "/ksigns_iq2xs.txt");
  ASSERT_EQ(ksigns.size(), 128u);
  for (int i = 0; i < 128; ++i)
    for (int p = 0; p < 8; ++p)
      EXPECT_EQ(iquant::kSignParity[i][p], ((ksigns[i] >> p) & 1) ? 0x8000 : 0) << i << " " << p;
  for (int i = 0; i < 256; ++i)
    for (int p = 0; p < 8; ++p) EXPECT_EQ(iquant::kSignDirect[i][p], ((i >> p) & 1) ? 0x8000 : 0);
}

TEST(GgufTables, ValueTables) {
  const auto fp4 = ref::read_table(kTables + "/kvalues_mxfp4.txt");
  const auto iq4 = ref::read_table(kTables + "/kvalues_iq4nl.txt");
  ASSERT_EQ(fp4.size(), 16u);
  ASSERT_EQ(iq4.size(), 16u);
  for (int b = 0; b < 256; ++b)
    for (int h = 0; h < 2; ++h) {
      const int code = h ? b >> 4 : b & 15;
      EXPECT_EQ(ref::bf16f(mxfp4::kPairs[b][h]), (float)(int8_t)fp4[code]) << b;
      EXPECT_EQ(mxfp4::kPairs[b][h] >> 15, code >> 3) << b;  // code 8 is a negative zero
    }
  EXPECT_EQ(mxfp4::kPairs[0x80][1], 0x8000);
  for (int c = 0; c < 16; ++c) {
    EXPECT_EQ(kquant_tables::kIq4Levels[c], (int8_t)iq4[c]);
    EXPECT_EQ((int8_t)(kquant_tables::kIq4Words[c / 4] >> (8 * (c % 4))), (int8_t)iq4[c]);
  }
}

// The low-bit shuffle of `mats` matrices of R rows into poisoned planes, and
// every weight read back through the device dequantiser.
struct LowBitRun {
  std::vector<uint8_t> p[3];
  bool guards = true;
  std::vector<uint16_t> w;
};
LowBitRun shuffle_and_read(int q, const std::vector<uint8_t>& src, int64_t R, int64_t K, int64_t mats, int64_t stride) {
  qt::DevBuf dsrc = qt::DevBuf::from(src), p[3], out((size_t)(mats * R * K * 2));
  for (int i = 0; i < 3; ++i) p[i] = qt::DevBuf((size_t)iquant::lowbit_plane_bytes(q, i, stride, K));
  qt::shuffle_lowbit(q, dsrc.get(), p[0].get(), p[1].get(), p[2].get(), R, K, mats, stride);
  EXPECT_EQ(hipGetLastError(), hipSuccess);
  EXPECT_EQ(hipStreamSynchronize(nullptr), hipSuccess);
  LowBitRun r;
  for (int i = 0; i < 3; ++i) {
    r.p[i] = p[i].download<uint8_t>();
    r.guards = r.guards && p[i].guards_intact();
  }
  qt::read_lowbit(q, p[0].get(), p[1].get(), p[2].get(), stride, mats * R, K, out.as<uint16_t>());
  EXPECT_EQ(hipStreamSynchronize(nullptr), hipSuccess);
  r.w = out.download<uint16_t>();
  return r;
}

// Low-bit shuffles of two matrices into K-block-major planes (poisoned first:
// the launch clears them), the bytes against the layout, then every weight.
// With `edge_exponents`, MXFP4 blocks take the exponent bytes 0 and 1 (scales
// 2^-128 and 2^-127, subnormal), 2, 127, and 254 and 255 (codes overflow to
// infinity) in turn.
void check_lowbit(int q, int64_t R, int64_t K, uint64_t seed, bool edge_exponents = false) {
  SCOPED_TRACE("expert format " + std::to_string(q) + " K " + std::to_string(K));
  constexpr int64_t kMats = 2;
  const int64_t rows = kMats * R, stride = rows + 128;
  const int bw = ref::lowbit_block_weights(q), bb = ref::lowbit_block_bytes(q);
  std::mt19937_64 rng(seed);
  std::vector<uint8_t> src =
      ref::random_blocks(rng, bb, rows * K / bw, q == 2 ? std::vector<int>{} : std::vector<int>{0}, q == 2);
  const uint8_t edges[] = {0, 1, 2, 127, 254, 255};
  if (edge_exponents)
    for (size_t b = 0; b < src.size() / bb; ++b) src[b * bb] = edges[b % 6];
  const ref::LowBitPlanesRef want = ref::lowbit_planes(q, src, rows, K, stride);
  ASSERT_EQ((int64_t)want.p0.size(), iquant::lowbit_plane_bytes(q, 0, stride, K));
  ASSERT_EQ((int64_t)want.p1.size(), iquant::lowbit_plane_bytes(q, 1, stride, K));
  ASSERT_EQ((int64_t)want.p2.size(), iquant::lowbit_plane_bytes(q, 2, stride, K));
  const LowBitRun got = shuffle_and_read(q, src, R, K, kMats, stride);
  EXPECT_BITS_EQ(got.p[0], want.p0);
  EXPECT_BITS_EQ(got.p[1], want.p1);
  EXPECT_BITS_EQ(got.p[2], want.p2);
  EXPECT_TRUE(got.guards);
  const ref::LowBitTables t = ref::load_lowbit_tables(kTables);
  std::vector<uint16_t> w((size_t)(rows * K));
  for (int64_t r = 0; r < rows; ++r)
    for (int64_t k = 0; k < K; ++k)
      w[(size_t)(r * K + k)] =
          ref::round_dequant(ref::lowbit_value(t, q, src.data() + r * (K / bw * bb) + (k / bw) * bb, (int)(k % bw)));
  EXPECT_BITS_EQ(got.w, w);
}

TEST(LowBit, ShuffleAndValues) {
  check_lowbit(iquant::IQ2_XXS, 32, 512, 1);
  check_lowbit(iquant::IQ3_XXS, 32, 512, 2);
  check_lowbit(iquant::IQ2_S, 32, 512, 3);
  check_lowbit(iquant::MXFP4, 32, 96, 4);
  check_lowbit(iquant::MXFP4, 32, 640, 5);
  check_lowbit(iquant::MXFP4, 32, 96, 6, true);
}

// FORMATS.md's IQ2_XXS example: d 1, grid index 1, sign index 32 with scale 3
// gives weights 32..39 of 37.625, 7, 7, 7, 7, -7, 7, -7; 37.625 lies halfway
// between two bf16 values and rounds away from zero to 37.75.
TEST(LowBit, WorkedExample) {
  std::vector<uint8_t> blk(66 * 32, 0);
  for (int r = 0; r < 32; ++r) {
    uint8_t* B = blk.data() + 66 * r;
    B[1] = 0x3C;
    B[10] = 1;
    const uint32_t A = 0x30000020u;
    std::memcpy(B + 14, &A, 4);
  }
  const std::vector<uint16_t> w = shuffle_and_read(0, blk, 32, 256, 1, 32).w;
  const float want[8] = {37.75f, 7, 7, 7, 7, -7, 7, -7};
  for (int r = 0; r < 32; ++r)
    for (int i = 0; i < 8; ++i) EXPECT_EQ(qt::bf(w[r * 256 + 32 + i]), want[i]) << r << " " << i;
}

TEST(LowBitDeathTest, Messages) {
  EXPECT_QUILLON_FATAL(iquant::check_expert_format(QUILLON_HERE, 4),
                       "expert quant format must be 0 (IQ2_XXS), 1 (IQ3_XXS), 2 (MXFP4) or 3 (IQ2_S), got 4");
  EXPECT_QUILLON_FATAL(iquant::on_expert_format(QUILLON_HERE, -1, [](auto) {}),
                       "expert quant format must be 0 (IQ2_XXS), 1 (IQ3_XXS), 2 (MXFP4) or 3 (IQ2_S), got -1");
  for (int q : {0, 1, 3})
    EXPECT_QUILLON_FATAL(iquant::check_lowbit_k(QUILLON_HERE, q, 640),
                         "an i-quant shuffle needs K=640 to divide into 256-weight super-blocks");
  EXPECT_QUILLON_FATAL(iquant::check_lowbit_k(QUILLON_HERE, 2, 48),
                       "an MXFP4 shuffle needs K=48 to divide into 32-weight blocks");
  iquant::check_lowbit_k(QUILLON_HERE, 2, 640);
  // The launch checks K before it touches the planes.
  EXPECT_QUILLON_FATAL(qt::shuffle_lowbit(1, nullptr, nullptr, nullptr, nullptr, 32, 640, 1, 160),
                       "an i-quant shuffle needs K=640 to divide into 256-weight super-blocks");
  EXPECT_EXIT(qt::shuffle_lowbit(0, nullptr, nullptr, nullptr, nullptr, 32, 256, 1, 160),
              ::testing::ExitedWithCode(1), "\\[HIP\\] [^:]+:[0-9]+: ");
  iquant::check_lowbit_plane_addressable(QUILLON_HERE, (int64_t(1) << 31) - 1, 2048, 1024);
  EXPECT_QUILLON_FATAL(iquant::check_lowbit_plane_addressable(QUILLON_HERE, int64_t(1) << 31, 4096, 262272),
                       "i-quant plane is 2147483648 bytes at K=4096, stride=262272 -- past the 2 GiB a buffer "
                       "descriptor's 32-bit offsets can address");
}

// ---- fp8 -----------------------------------------------------------------------------
// The value an e4m3 byte stands for under the weight rule: exponent field e
// and mantissa m give 2^(e-7) * (1 + m/8), field 0 included; 0x00 and 0x80 are zeros.
double fp8_rule(int x) {
  const int e = (x >> 3) & 15, m = x & 7;
  const double mag = (x & 0x7f) ? std::ldexp(1.0 + m / 8.0, e - 7) : 0.0;
  return (x & 0x80) ? -mag : mag;
}

__global__ __launch_bounds__(256) void dense_read_kernel(const uint8_t* fp8, const uint16_t* bf16, int64_t N,
                                                         int64_t K, uint16_t* out_fp8, uint16_t* out_bf16) {
  const int64_t i = (int64_t)blockIdx.x * 256 + threadIdx.x;
  if (i >= N * K / 8) return;
  const int64_t n = i / (K / 8), k = (i % (K / 8)) * 8;
  using namespace gemm_core;
  *reinterpret_cast<dev::u32x4*>(out_fp8 + n * K + k) = WDenseFp8::load8(Fp8Operand{fp8, nullptr}, N, n, k);
  *reinterpret_cast<dev::u32x4*>(out_bf16 + n * K + k) = WDenseBf16::load8(bf16, N, n, k);
}

// Every byte value through the blk32 loader, and bf16 blk32 weights read back.
TEST(Fp8, BytesAndDenseLoaders) {
  constexpr int64_t N = 64, K = 64;
  std::vector<uint8_t> bytes(N * K);
  for (int64_t i = 0; i < N * K; ++i) bytes[i] = (uint8_t)(i * 37 + i / 256);
  std::vector<uint16_t> dense = qt::Rng(9).bf16s(N * K);
  qt::DevBuf dfp8 = qt::DevBuf::from(ref::blk32_fp8(bytes, K, N, K));
  qt::DevBuf dbf = qt::DevBuf::from(ref::blk32(dense, K, N, K, N, true));
  qt::DevBuf o8(N * K * 2), o16(N * K * 2);
  launch(&dense_read_kernel, dim3(N * K / 8 / 256), dim3(256), 0, nullptr, dfp8.as<uint8_t>(), dbf.as<uint16_t>(), N,
         K, o8.as<uint16_t>(), o16.as<uint16_t>());
  QT_HIP(hipStreamSynchronize(nullptr));
  const std::vector<uint16_t> got = o8.download<uint16_t>();
  std::vector<bool> seen(256);
  for (int64_t i = 0; i < N * K; ++i) {
    const int x = bytes[i];
    seen[x] = true;
    ASSERT_EQ((double)qt::bf(got[i]), fp8_rule(x)) << "byte " << x;
    ASSERT_EQ(got[i] >> 15, x >> 7) << "sign of byte " << x;
  }
  for (int x = 0; x < 256; ++x) EXPECT_TRUE(seen[x]) << x;
  EXPECT_BITS_EQ(o16.download<uint16_t>(), dense);
}

TEST(Fp8, ScaleTableTranspose) {
  constexpr int64_t N = 384, K = 640, nb = N / 128, kb = K / 128;
  const std::vector<uint16_t> src = qt::Rng(3).bf16s(nb * kb);
  qt::DevBuf dsrc = qt::DevBuf::from(src), dst(nb * kb * 2);
  EXPECT_EQ(quillon_proj_scale_shuffle_fp8(dsrc.get(), dst.get(), N, K, nullptr), hipSuccess);
  QT_HIP(hipStreamSynchronize(nullptr));
  const std::vector<uint16_t> got = dst.download<uint16_t>();
  for (int64_t k = 0; k < kb; ++k)
    for (int64_t n = 0; n < nb; ++n) EXPECT_EQ(got[k * nb + n], src[n * kb + k]) << k << " " << n;
  EXPECT_TRUE(dst.guards_intact());
  EXPECT_EQ(quillon_proj_scale_shuffle_fp8(nullptr, nullptr, 0, K, nullptr), hipSuccess);
}

}  // namespace
