// Test kernels that read every weight of a shuffled operand back through the
// library's device dequantisers, eight at a time as a matrix loader does.
#pragma once
#include <hip/hip_runtime_api.h>

#include <cstdint>
#include <vector>

#include "gemm_core/gemm_w_iquant.h"
#include "gemm_core/gemm_w_kquant.h"
#include "platform/launch.h"
#include "quillon/kquant_sets.h"

namespace qt {

template <int F>
__global__ __launch_bounds__(256) void kq_read_kernel(quillon::gemm_core::KQuantPlanes p, int64_t N, int64_t K,
                                                     uint16_t* out) {
  const int64_t i = (int64_t)blockIdx.x * 256 + threadIdx.x;
  if (i >= N * K / 8) return;
  const int64_t n = i / (K / 8), k = (i % (K / 8)) * 8;
  *reinterpret_cast<quillon::dev::u32x4*>(out + n * K + k) = quillon::gemm_core::kq_dequant8<F>(p, N, n, k);
}

template <int Q>
__global__ __launch_bounds__(256) void lowbit_read_kernel(quillon::iquant::LowBitPlanes p, int64_t stride,
                                                         int64_t rows, int64_t K, uint16_t* out) {
  const int64_t i = (int64_t)blockIdx.x * 256 + threadIdx.x;
  if (i >= rows * K / 8) return;
  const int64_t r = i / (K / 8), k = (i % (K / 8)) * 8;
  *reinterpret_cast<quillon::dev::u32x4*>(out + r * K + k) = quillon::iquant::lowbit_dequant8<Q>(p, stride, r, k);
}

// bf16 [N, K] row-major of k-quant planes; `out` is a device buffer of N * K bf16.
inline void read_kquant(int id, const void* quant, const void* meta, int64_t N, int64_t K, uint16_t* out) {
  using namespace quillon;
  const gemm_core::KQuantPlanes p{static_cast<const uint32_t*>(quant), static_cast<const uint8_t*>(meta)};
  kq::on_kquant<kq::KnownFormat>(QUILLON_HERE, id, [&](auto f) {
    launch(&kq_read_kernel<decltype(f)::value>, dim3((unsigned)((N * K / 8 + 255) / 256)), dim3(256), 0, nullptr, p,
           N, K, out);
  });
}

inline void read_lowbit(int q, const void* p0, const void* p1, const void* p2, int64_t stride, int64_t rows,
                        int64_t K, uint16_t* out) {
  using namespace quillon;
  const iquant::LowBitPlanes p{static_cast<const uint8_t*>(p0), static_cast<const uint8_t*>(p1),
                               static_cast<const uint8_t*>(p2)};
  iquant::on_expert_format(QUILLON_HERE, q, [&](auto f) {
    launch(&lowbit_read_kernel<decltype(f)::value>, dim3((unsigned)((rows * K / 8 + 255) / 256)), dim3(256), 0,
           nullptr, p, stride, rows, K, out);
  });
}

// The low-bit shuffle of n matrices of R rows from one dense source.
inline void shuffle_lowbit(int q, const void* src, void* p0, void* p1, void* p2, int64_t R, int64_t K, int64_t n,
                           int64_t stride) {
  using namespace quillon;
  iquant::on_expert_format(QUILLON_HERE, q, [&](auto f) {
    constexpr int Q = decltype(f)::value;
    using Fmt = iquant::LowBitFormat<Q>;
    const int64_t row_bytes = K / Fmt::block_weights * Fmt::block_bytes;
    const gemm_core::KQuantDenseSrc s{static_cast<const uint8_t*>(src), row_bytes, R * row_bytes, Fmt::block_bytes};
    iquant::launch_lowbit_shuffle<Q>(s, p0, p1, p2, R, K, n, stride, nullptr);
  });
}

}  // namespace qt
