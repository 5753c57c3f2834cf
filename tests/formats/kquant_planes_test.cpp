// K-quant planes: sizes, the shuffle's bytes against the layout, and every
// weight read back through the device dequantiser against the reference.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "common/test_util.h"
#include "gemm/gemm_test_util.h"
#include "gemm/kquant_shuffle.h"
#include "quillon/quillon.h"
#include "read_kernels.h"
#include "reference/gguf_ref.h"

namespace {

TEST(KQuantSizes, Formulas) {
  struct Shape {
    int64_t N, K;
  };
  for (int id : ref::kKquantIds) {
    const ref::KFormat f = ref::kformat(id);
    for (Shape s : {Shape{32, 256}, Shape{128, 768}, Shape{4096, 2048}, Shape{64, 288}, Shape{248320, 5120},
                    Shape{33, 257}, Shape{1, 1}, Shape{0, 256}}) {
      SCOPED_TRACE(std::to_string(id) + " " + std::to_string(s.N) + "x" + std::to_string(s.K));
      if (s.K % f.block_weights == 0)
        EXPECT_EQ(quillon_kquant_gguf_bytes(id, s.N, s.K), s.N * (s.K / f.block_weights) * f.block_bytes);
      EXPECT_EQ(quillon_kquant_quant_bytes(id, s.N, s.K), (s.N * s.K * f.bits + 7) / 8 + 4);
      EXPECT_EQ(quillon_kquant_meta_bytes(id, s.N, s.K), (s.N + 31) / 32 * ((s.K + 255) / 256) * f.meta_tile);
    }
  }
  EXPECT_EQ(quillon_kquant_quant_bytes(3, 32, 256), 3076);
  EXPECT_EQ(quillon_kquant_meta_bytes(8, 64, 288), 2 * 2 * 512);
  EXPECT_EQ(quillon_kquant_gguf_bytes(8, 64, 288), 64 * 9 * 34);
}

// Sizes read no geometry and check the id before anything else.
TEST(KQuantSizesDeathTest, BadIds) {
  ASSERT_EQ(quillon_active_geometry(), -1);  // no geometry: the id message comes all the same
  for (int id : {7, 24, -1}) {
    const std::string msg = std::to_string(id) + " is not a k-quant format id (see kquant_sets's FORMATS list)";
    EXPECT_QUILLON_FATAL((void)quillon_kquant_gguf_bytes(id, 32, 256), msg);
    EXPECT_QUILLON_FATAL((void)quillon_kquant_quant_bytes(id, 32, 256), msg);
    EXPECT_QUILLON_FATAL((void)quillon_kquant_meta_bytes(id, 32, 256), msg);
  }
}

const char* kShapeMsg(int64_t N, int64_t K, std::string& buf) {
  buf = "k-quant shuffle needs [" + std::to_string(N) + ", " + std::to_string(K) +
        "] to divide into 32-column blocks, and K into 256-weight super-blocks at every format but the two whose "
        "GGUF block is 32";
  return buf.c_str();
}

TEST(KQuantShuffleDeathTest, ShapeAndOrder) {
  std::string m;
  // N, K not in 32s; K not in super-blocks where the GGUF block is 256.
  EXPECT_QUILLON_FATAL(quillon::gemm_kquant_shuffle_b(4, nullptr, nullptr, nullptr, 48, 256, nullptr),
                       kShapeMsg(48, 256, m));
  EXPECT_QUILLON_FATAL(quillon::gemm_kquant_shuffle_b(8, nullptr, nullptr, nullptr, 32, 48, nullptr),
                       kShapeMsg(32, 48, m));
  for (int id : {2, 3, 4, 5, 6, 23})
    EXPECT_QUILLON_FATAL(quillon::gemm_kquant_shuffle_b(id, nullptr, nullptr, nullptr, 32, 288, nullptr),
                         kShapeMsg(32, 288, m));
  // The id is checked before the shape.
  EXPECT_QUILLON_FATAL(quillon::gemm_kquant_shuffle_b(7, nullptr, nullptr, nullptr, 48, 100, nullptr),
                       "7 is not a k-quant format id (see kquant_sets's FORMATS list)");
  EXPECT_QUILLON_FATAL(quillon::gemm_kquant_shuffle_b(24, nullptr, nullptr, nullptr, 48, 100, nullptr),
                       "24 is not a k-quant format id (see kquant_sets's FORMATS list)");
}

// An empty tensor launches nothing but still clears the 4 trailing bytes; a
// failing clear is a HIP failure, not a contract one.
TEST(KQuantShuffleDeathTest, PlaneClear) {
  qt::DevBuf quant(4);
  quillon::gemm_kquant_shuffle_b(20, nullptr, quant.get(), nullptr, 0, 256, nullptr);
  QT_HIP(hipStreamSynchronize(nullptr));
  EXPECT_BITS_EQ(quant.download<uint8_t>(), std::vector<uint8_t>(4, 0));
  EXPECT_EXIT(quillon::gemm_kquant_shuffle_b(4, nullptr, nullptr, nullptr, 0, 256, nullptr),
              ::testing::ExitedWithCode(1), "\\[HIP\\] [^:]+:[0-9]+: ");
}

// Shuffles an N x K tensor into poisoned planes and reads every weight back
// through the device dequantiser; `planes` sees the planes in between.
std::vector<uint16_t> shuffle_and_read(int id, const std::vector<uint8_t>& src, int64_t N, int64_t K,
                                       const std::function<void(const qt::DevBuf&, const qt::DevBuf&)>& planes = {}) {
  qt::DevBuf dsrc = qt::DevBuf::from(src);
  qt::DevBuf quant((size_t)quillon_kquant_quant_bytes(id, N, K)), meta((size_t)quillon_kquant_meta_bytes(id, N, K));
  quillon::gemm_kquant_shuffle_b(id, dsrc.get(), quant.get(), meta.get(), N, K, nullptr);
  EXPECT_EQ(hipGetLastError(), hipSuccess);
  EXPECT_EQ(hipStreamSynchronize(nullptr), hipSuccess);
  if (planes) planes(quant, meta);
  qt::DevBuf out((size_t)(N * K * 2));
  qt::read_kquant(id, quant.get(), meta.get(), N, K, out.as<uint16_t>());
  EXPECT_EQ(hipGetLastError(), hipSuccess);
  EXPECT_EQ(hipStreamSynchronize(nullptr), hipSuccess);
  return out.download<uint16_t>();
}

// Every byte of the planes against the layout, then every weight.
void check_format(int id, int64_t N, int64_t K, uint64_t seed) {
  SCOPED_TRACE("format " + std::to_string(id) + " N " + std::to_string(N) + " K " + std::to_string(K));
  const std::vector<uint8_t> src = gt::gguf_tensor(id, N, K, seed);
  ASSERT_EQ((int64_t)src.size(), quillon_kquant_gguf_bytes(id, N, K));
  const ref::KPlanes want = ref::kquant_planes(id, src, N, K);
  const auto w = shuffle_and_read(id, src, N, K, [&](const qt::DevBuf& quant, const qt::DevBuf& meta) {
    EXPECT_BITS_EQ(quant.download<uint8_t>(), want.quant);
    std::vector<uint8_t> meta_want = want.meta;
    for (size_t i = 0; i < meta_want.size(); ++i)
      if (!want.meta_written[i]) meta_want[i] = 0xFF;  // unwritten: the poison stays
    EXPECT_BITS_EQ(meta.download<uint8_t>(), meta_want);
    EXPECT_TRUE(quant.guards_intact() && meta.guards_intact());
  });
  EXPECT_BITS_EQ(w, ref::kquant_dequant(id, src, N, K));
}

// Every format at one tile row (N 32, K 256: one meta tile, eight quant
// tiles) and at several super-blocks. Ids 8 and 20 take K in 32s: the last
// super-block is partial, its meta entries past K stay unwritten and no group
// past K / 32 - 1 is written.
TEST(KQuantFormats, PlanesAndValues) {
  for (int id : ref::kKquantIds) {
    check_format(id, 32, 256, 100 + id);
    check_format(id, 128, 768, 200 + id);
  }
  for (int id : {8, 20}) {
    check_format(id, 64, 288, 300 + id);
    check_format(id, 32, 608, 310 + id);
    check_format(id, 32, 32, 320 + id);
  }
}

// Matrices back to back: plane z at z times the per-matrix size, and the 4
// zero bytes after the last one only.
TEST(KQuantBatched, MatrixStride) {
  constexpr int kId = 5;
  constexpr int64_t N = 64, K = 512, kMats = 3;
  using Fmt = quillon::gemm_core::KQuantFormat<kId>;
  const std::vector<uint8_t> src = gt::gguf_tensor(kId, N * kMats, K, 400);
  const int64_t row_bytes = K * Fmt::gguf_bytes / 256;
  const int64_t qbytes = N * K * Fmt::bits / 8, mbytes = quillon_kquant_meta_bytes(kId, N, K);
  qt::DevBuf dsrc = qt::DevBuf::from(src);
  qt::DevBuf quant((size_t)(kMats * qbytes + 4)), meta((size_t)(kMats * mbytes));
  const quillon::gemm_core::KQuantDenseSrc s{dsrc.as<uint8_t>(), row_bytes, N * row_bytes, Fmt::gguf_bytes};
  quillon::gemm_core::launch_kquant_shuffle<kId>(s, quant.get(), meta.get(), N, K, kMats, nullptr);
  QT_HIP(hipStreamSynchronize(nullptr));
  std::vector<uint8_t> qwant, mwant;
  for (int64_t z = 0; z < kMats; ++z) {
    const std::vector<uint8_t> part(src.begin() + z * N * row_bytes, src.begin() + (z + 1) * N * row_bytes);
    const ref::KPlanes p = ref::kquant_planes(kId, part, N, K);
    qwant.insert(qwant.end(), p.quant.begin(), p.quant.end() - 4);
    mwant.insert(mwant.end(), p.meta.begin(), p.meta.end());
  }
  qwant.insert(qwant.end(), 4, 0);
  EXPECT_BITS_EQ(quant.download<uint8_t>(), qwant);
  EXPECT_BITS_EQ(meta.download<uint8_t>(), mwant);
  EXPECT_TRUE(quant.guards_intact() && meta.guards_intact());
}

// Known values through the whole path: FORMATS.md's Q4_K example (d 0.5,
// dmin 0.25, sc1 7, m1 3, code 10 gives 34.25 at weight 37), and Q8_0's byte
// 0x80 as -128.
TEST(KQuantValues, WorkedExamples) {
  std::vector<uint8_t> q4(144 * 32, 0);
  q4[0] = 0x00, q4[1] = 0x38, q4[2] = 0x00, q4[3] = 0x34, q4[4 + 1] = 0x07, q4[4 + 5] = 0x03, q4[16 + 5] = 0xA3;
  const auto w4 = shuffle_and_read(4, q4, 32, 256);
  EXPECT_EQ(qt::bf(w4[37]), 34.25f);
  EXPECT_EQ(qt::bf(w4[5]), 0.0f);
  EXPECT_EQ(qt::bf(w4[32]), -0.75f);  // code 0: only the min term
  std::vector<uint8_t> q8(34 * 32, 0);
  q8[1] = 0x3C, q8[2 + 3] = 0x80, q8[2 + 4] = 0x7F;  // d 1.0
  const auto w8 = shuffle_and_read(8, q8, 32, 32);
  EXPECT_EQ(qt::bf(w8[3]), -128.0f);
  EXPECT_EQ(qt::bf(w8[4]), 127.0f);
  EXPECT_EQ(qt::bf(w8[0]), 0.0f);
}

// Dequantised weights round by adding 0x8000 (half away on the magnitude),
// not to nearest even: with d = 1 + 2^-8, codes 1, -1 and 2 give exact bf16
// ties whose even neighbour is the smaller magnitude.
TEST(KQuantValues, RoundingIsHalfAway) {
  std::vector<uint8_t> q8(34 * 32, 0);
  for (int n = 0; n < 32; ++n) {
    uint8_t* B = q8.data() + 34 * n;
    B[0] = 0x04, B[1] = 0x3C;  // d = 1 + 2^-8
    B[2] = 0x01, B[3] = 0xFF, B[4] = 0x02;
  }
  const std::vector<uint16_t> w = shuffle_and_read(8, q8, 32, 32);
  for (int n = 0; n < 32; ++n) {
    EXPECT_EQ(w[n * 32 + 0], 0x3f81);
    EXPECT_EQ(w[n * 32 + 1], 0xbf81);
    EXPECT_EQ(w[n * 32 + 2], 0x4001);
  }
}

}  // namespace
