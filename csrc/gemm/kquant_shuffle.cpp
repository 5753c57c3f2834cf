// The dense k-quant shuffle, the plane sizes and the fp8 scale transpose.
#include "kquant_shuffle.h"

#include "../gemm_core/gemm_w_kquant.h"
#include "../platform/fatal.h"
#include "../platform/launch.h"
#include "quillon/kquant_sets.h"

namespace quillon {
namespace gemm_core {
// One thread per entry of the transposed table.
template <int = 0>
__global__ __launch_bounds__(256) void fp8_scale_shuffle_kernel(const uint16_t* src, uint16_t* dst, int64_t nb,
                                                                int64_t kb) {
  const int64_t i = (int64_t)blockIdx.x * 256 + threadIdx.x;
  if (i >= nb * kb) return;
  const int64_t k = i / nb, n = i % nb;
  dst[i] = src[n * kb + k];
}
}  // namespace gemm_core

int64_t kquant_gguf_bytes(int32_t format, int64_t N, int64_t K) { return kq::gguf_bytes(QUILLON_HERE, format, N, K); }
int64_t kquant_quant_bytes(int32_t format, int64_t N, int64_t K) { return kq::quant_bytes(QUILLON_HERE, format, N, K); }
int64_t kquant_meta_bytes(int32_t format, int64_t N, int64_t K) { return kq::meta_bytes(QUILLON_HERE, format, N, K); }

void gemm_kquant_shuffle_b(int32_t format, const void* src, void* quant, void* meta, int64_t N, int64_t K,
                           hipStream_t s) {
  kq::require_format_id(QUILLON_HERE, format);
  gemm_core::check_kquant_shape(QUILLON_HERE, format, N, K);
  kq::on_kquant<kq::GeneralGemm>(QUILLON_HERE, format, [&](auto f) {
    constexpr int kB = gemm_core::KQuantFormat<f>::gguf_bytes;
    const gemm_core::KQuantDenseSrc s_src{static_cast<const uint8_t*>(src), K * kB / 256, 0, kB};
    gemm_core::launch_kquant_shuffle<f>(s_src, quant, meta, N, K, 1, s);
  });
}

void proj_scale_shuffle_fp8(const void* src, void* dst, int64_t N, int64_t K, hipStream_t s) {
  const int64_t nb = N / 128, kb = K / 128;
  if (nb <= 0 || kb <= 0) return;
  launch(&gemm_core::fp8_scale_shuffle_kernel<>, dim3((unsigned)((nb * kb + 255) / 256)), dim3(256), 0, s,
         static_cast<const uint16_t*>(src), static_cast<uint16_t*>(dst), nb, kb);
}

}  // namespace quillon
