// The segmented pair: two k-quant products over one shuffled A, one launch.
#include "../platform/fatal.h"
#include "gemm_general.h"

namespace quillon {

using gemm_core::GemmSegParams;
using gemm_core::KQuantPlanes;

void gemm_seg2(const void* A, const GemmSeg2Arms& arms, int64_t M, int64_t K, hipStream_t s) {
  static const char* const kNames[2] = {"f32", "bf16"};
  if (K % 256 != 0) QUILLON_FATAL("gemm_seg2: K=%lld must be a multiple of 256", (long long)K);
  for (int i = 0; i < 2; ++i) {
    const GemmSeg2Arm& a = arms.arm[i];
    if (a.N % 128 != 0)
      QUILLON_FATAL("gemm_seg2: arm %s has N=%lld; every arm's N must be a multiple of %d, because the seam is a "
                    "count of whole column tiles",
                    kNames[i], (long long)a.N, 128);
    if (a.N > 0 && a.C == nullptr)
      QUILLON_FATAL("gemm_seg2: arm %s is %lld columns wide and has no C", kNames[i], (long long)a.N);
  }
  const int64_t Mt = M > 0 ? (M + 255) / 256 : 0;
  const int64_t tiles0 = arms.arm[0].N / 128 * Mt, tiles1 = arms.arm[1].N / 128 * Mt;
  if (tiles0 + tiles1 <= 0) return;
  // An arm without tiles runs as Q8_0, so a compiled pair exists whatever its format field holds.
  const int32_t f0 = tiles0 > 0 ? arms.arm[0].format : kq::Q8_0;
  const int32_t f1 = tiles1 > 0 ? arms.arm[1].format : kq::Q8_0;
  auto params = [&](const GemmSeg2Arm& a, int64_t seam) {
    return GemmSegParams<KQuantPlanes>{
        {static_cast<const uint16_t*>(A),
         KQuantPlanes{static_cast<const uint32_t*>(a.quant), static_cast<const uint8_t*>(a.meta)}, a.C, M, a.N, K},
        (int32_t)seam, 0};
  };
  const GemmSegParams<KQuantPlanes> p0 = params(arms.arm[0], 0), p1 = params(arms.arm[1], tiles0);
  kq::on_kquant<kq::GeneralGemm>(QUILLON_HERE, f0, [&](auto f) {
    gemm_seg2_run<decltype(f)::value>(f1, p0, p1, tiles0 + tiles1, s);
  });
}

}  // namespace quillon
