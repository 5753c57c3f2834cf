// Projection Configs of the GEMM family at shapes the named projections do not
// take (their entries run the bf16 and fp8 loops, tests/proj): every
// dense-projection k-quant format exactly at both decode row tiles, ragged K,
// the fp8 prefill rounding, and reads past M. The split decode runs through
// the entries at several device sizes (tests/proj).
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include "gemm_core/gemm_kernel.h"
#include "gemm_core/gemm_shuffle.h"
#include "gemm_test_util.h"

namespace {

namespace gc = quillon::gemm_core;
using gc::ProjConfigFor;
using gc::ProjDecodeStream;
using gc::ProjPrefillLds;
using gc::WDenseBf16;
using gc::WDenseFp8;
template <int F>
using WK = gc::WDenseKQuant<F>;

// Output rows allocated past M, so that stores of rows past M would show.
int64_t out_rows(int64_t M, int MT) { return (M + MT - 1) / MT * MT + 16; }

// Runs gemm_kernel<Cfg> with A row-major (decode) or shuffled (prefill) and
// returns C's rows; rows at or past M must keep their poison.
template <class Cfg>
std::vector<uint16_t> run_proj(const void* A, typename Cfg::Params::Operand B, int64_t M, int64_t N) {
  const int MT = Cfg::kRowTile;
  qt::DevBuf c((size_t)(out_rows(M, MT) * N * 2));
  const typename Cfg::Params p{{static_cast<const uint16_t*>(A), B, c.get(), M, N, Cfg::kK}, 0, 0};
  quillon::launch_gemm<Cfg>(p, nullptr);
  EXPECT_EQ(hipStreamSynchronize(nullptr), hipSuccess);
  EXPECT_EQ(hipGetLastError(), hipSuccess);
  auto all = c.download<uint16_t>();
  int64_t stray = 0;
  for (size_t i = (size_t)(M * N); i < all.size(); ++i) stray += all[i] != 0xFFFF;
  EXPECT_EQ(stray, 0) << "rows past M were stored";
  EXPECT_TRUE(c.guards_intact());
  all.resize((size_t)(M * N));
  return all;
}

// A for a Config: row-major as it stands for decode, blk32 with rows padded to
// 256 for prefill.
template <class Cfg>
qt::DevBuf a_for(const std::vector<uint16_t>& A, int64_t M, int64_t K) {
  if constexpr (Cfg::kPrefill) {
    const int64_t R = (M + 255) / 256 * 256;
    qt::DevBuf s = qt::DevBuf::from(A), d((size_t)(R * K * 2));
    quillon::shuffle_a_blk32(s.get(), K, d.get(), R, K, nullptr, M);
    EXPECT_EQ(hipStreamSynchronize(nullptr), hipSuccess);
    return d;
  } else {
    return qt::DevBuf::from(A);
  }
}

const int64_t kRows[] = {1, 16, 17, 32, 33};

// One product of Cfg against the reference with weight values W: bit for bit
// where the sums are exact, else within the summation bound.
template <class Cfg>
void check_proj(const std::vector<uint16_t>& A, typename Cfg::Params::Operand op, const std::vector<float>& W,
                int64_t M, int64_t N, bool exact) {
  constexpr int64_t K = Cfg::kK;
  qt::DevBuf a = a_for<Cfg>(A, M, K);
  const auto got = run_proj<Cfg>(a.get(), op, M, N);
  const auto fa = gt::floats_of(A);
  const auto want = ref::gemm(fa, W, M, N, K);
  if (exact) EXPECT_BITS_EQ(got, gt::expect_bf16(want));
  else EXPECT_EQ(gt::count_outside(gt::widen(got), want, ref::gemm_abs(fa, W, M, N, K), K, true), 0);
}

// ---- fp8 ---------------------------------------------------------------------------
struct Fp8Weight {
  std::vector<uint8_t> bytes;     // [N, K]
  std::vector<uint16_t> scales;   // [K / 128][N / 128], the shuffled table
  qt::DevBuf dbytes, dscales;
  gc::Fp8Operand op() const { return {dbytes.as<uint8_t>(), dscales.as<uint16_t>()}; }
};
// exact: exponents 6..10 and power-of-two scales keep every sum exact.
Fp8Weight make_fp8(int64_t N, int64_t K, bool exact, uint64_t seed) {
  qt::Rng rng(seed);
  Fp8Weight w;
  w.bytes.resize((size_t)(N * K));
  for (auto& x : w.bytes)
    x = exact ? (uint8_t)((rng.integer(0, 1) << 7) | (rng.integer(6, 10) << 3) | rng.integer(0, 7)) : (uint8_t)rng.bits();
  w.scales.resize((size_t)(K / 128 * (N / 128)));
  for (auto& s : w.scales)
    s = exact ? (uint16_t)((127 + rng.integer(-3, 3)) << 7) : (uint16_t)(ref::to_bits(rng.uniform(0.01f, 3.0f)) >> 16);
  qt::DevBuf src = qt::DevBuf::from(w.bytes);
  w.dbytes = qt::DevBuf((size_t)(N * K));
  quillon::shuffle_b_blk32_fp8(src.get(), K, w.dbytes.get(), N, K, nullptr);
  EXPECT_EQ(hipStreamSynchronize(nullptr), hipSuccess);
  w.dscales = qt::DevBuf::from(w.scales);
  return w;
}
// The decode weight is the fp8 value with the scale applied per 128 K; the
// prefill weight is the product rounded to bf16 before the sum.
std::vector<float> fp8_effective(const Fp8Weight& w, int64_t N, int64_t K, bool prefill) {
  std::vector<float> v((size_t)(N * K));
  for (int64_t n = 0; n < N; ++n)
    for (int64_t k = 0; k < K; ++k) {
      const float x = ref::fp8_weight(w.bytes[(size_t)(n * K + k)]) *
                      ref::bf16_value(w.scales[(size_t)((k / 128) * (N / 128) + n / 128)]);
      v[(size_t)(n * K + k)] = prefill ? ref::widen(ref::round_bf16(x)) : x;
    }
  return v;
}

TEST(GemmDecode, Fp8PrefillFoldsTheScaleWithItsRounding) {
  // One-hot rows read single weights: the prefill output is the scaled weight
  // rounded to nearest even, exactly; 0x80 is -0 and 0x00 is +0.
  using P = ProjConfigFor<WDenseFp8, 256, 256, ProjPrefillLds, false>;
  const int64_t N = 256, K = 256, M = 256;
  Fp8Weight w = make_fp8(N, K, false, 21);
  check_proj<P>(gt::one_hot(M, K, [](int64_t m) { return m; }), w.op(), fp8_effective(w, N, K, true), M, N, true);
}

// ---- k-quant -----------------------------------------------------------------------
template <int F, int64_t K, class Shape>
void kquant_case(uint64_t seed) {
  using Cfg = ProjConfigFor<WK<F>, 0, K, Shape, !std::is_same_v<Shape, ProjPrefillLds>>;
  constexpr int64_t N = 256;
  SCOPED_TRACE(testing::Message() << "format " << F << " K=" << K << " row tile " << (Cfg::kPrefill ? 256 : gc::row_tile_of<Shape>()));
  const gt::KWeight w = gt::kquant_weight(F, N, K, seed);
  const gc::KQuantPlanes op{w.pl.quant.as<uint32_t>(), w.pl.meta.as<uint8_t>()};
  qt::Rng rng(seed);
  for (int64_t M : kRows) {
    SCOPED_TRACE(testing::Message() << "M=" << M);
    // One-hot rows sweep all 32 positions of a group across groups and
    // super-blocks, so each output is one dequantised weight, bit for bit.
    check_proj<Cfg>(gt::one_hot(M, K, [](int64_t m) { return (m * 33) % K; }), op, w.W, M, N, true);
    check_proj<Cfg>(rng.bf16s((size_t)(M * K)), op, w.W, M, N, false);
  }
}

template <int F>
void kquant_format(uint64_t seed) {
  kquant_case<F, 512, ProjDecodeStream<16>>(seed);
  kquant_case<F, 512, ProjDecodeStream<32>>(seed + 1);
}

TEST(GemmDecode, KQuantEveryDenseProjectionFormat) {
  kquant_format<3>(100);
  kquant_format<4>(200);
  kquant_format<5>(300);
  kquant_format<6>(400);
  kquant_format<8>(500);
  kquant_format<20>(600);
  kquant_format<23>(700);
  // Ragged K: the last super-block of Q8_0 and IQ4_NL holds four groups.
  kquant_case<8, 384, ProjDecodeStream<32>>(800);
  kquant_case<20, 384, ProjDecodeStream<16>>(900);
  // The prefill shape with K at compile time reads the same planes.
  kquant_case<4, 256, ProjPrefillLds>(1000);
}

#if defined(QUILLON_FLAVOUR_CPU)
// On the CPU device a device pointer is a host pointer, so A can end right at
// a protected page: a read of any row at or past M would fault.
TEST(GemmDecode, RowsPastMReadInsideTheirStrip) {
  using D16 = ProjConfigFor<WDenseBf16, 0, 256, ProjDecodeStream<16>, true>;
  using D32 = ProjConfigFor<WDenseBf16, 0, 256, ProjDecodeStream<32>, true>;
  using P32 = ProjConfigFor<WDenseBf16, 0, 256, ProjDecodeStream<32>, false>;
  const int64_t K = 256, N = 128;
  const size_t page = (size_t)sysconf(_SC_PAGESIZE);
  qt::Rng rng(41);
  const auto B = gt::int_bf16(rng, N * K, -3, 3);
  qt::DevBuf b = gt::shuffle_bf16(B, N, K);
  for (int64_t M : {1, 17, 33}) {
    SCOPED_TRACE(testing::Message() << "M=" << M);
    const size_t bytes = (size_t)(M * K * 2), span = (bytes + page - 1) / page * page;
    auto* base = static_cast<uint8_t*>(mmap(nullptr, span + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(base, MAP_FAILED);
    ASSERT_EQ(mprotect(base + span, page, PROT_NONE), 0);
    const auto A = gt::int_bf16(rng, M * K, -3, 3);
    uint8_t* a = base + span - bytes;
    std::memcpy(a, A.data(), bytes);
    const auto want = gt::expect_bf16(ref::gemm(gt::floats_of(A), gt::floats_of(B), M, N, K));
    EXPECT_BITS_EQ(run_proj<D16>(a, b.as<uint16_t>(), M, N), want);
    EXPECT_BITS_EQ(run_proj<D32>(a, b.as<uint16_t>(), M, N), want);
    EXPECT_BITS_EQ(run_proj<P32>(a, b.as<uint16_t>(), M, N), want);
    munmap(base, span + page);
  }
}
#endif

}  // namespace
