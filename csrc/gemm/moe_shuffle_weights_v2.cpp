// Expert weight forms: tile and scale shuffles, and the k-quant and low-bit
// planes through the dense shuffles' per-matrix kernels with row sources that
// interleave gate and up.
#include "moe_shuffle_weights_v2.h"

#include <type_traits>

#include "../device/geometry.h"
#include "../gemm_core/gemm_w_iquant.h"
#include "../gemm_core/gemm_w_kquant.h"
#include "../platform/fatal.h"
#include "../platform/launch.h"
#include "quillon/kquant_sets.h"

namespace quillon {
namespace gemm_core {

// Workgroup x moves panel x (128 rows by 64 columns) of expert y: 1024 chunks
// of 8 elements, twice over 512 threads, written linearly.
template <int R, int K, class V, class SRC>
QDEV void moe_panel_tile(const SRC& src, uint8_t* dst) {
  constexpr int kElem = (int)sizeof(V) / 8;
  const int64_t e = blockIdx.y, x = blockIdx.x;
  const int64_t t = x / (K / 64), u = x % (K / 64);
  uint8_t* tile = dst + e * R * K * kElem + x * (128 * 64 * kElem);
  for (int pass = 0; pass < 2; ++pass) {
    const int64_t c = threadIdx.x + 512 * pass;
    const int64_t r = t * 128 + c / 8, col = u * 64 + (c % 8) * 8;
    *reinterpret_cast<V*>(tile + c * sizeof(V)) = *reinterpret_cast<const V*>(src.row(e, r) + col * kElem);
  }
}

template <int H, int I, class V>
__global__ __launch_bounds__(512) void moe_shuffle_gate_up_split_kernel(KQuantGateUpSplitSrc src, uint8_t* dst) {
  moe_panel_tile<2 * I, H, V>(src, dst);
}
template <int H, int I, class V>
__global__ __launch_bounds__(512) void moe_shuffle_gate_up_fused_kernel(KQuantGateUpFusedSrc src, uint8_t* dst) {
  moe_panel_tile<2 * I, H, V>(src, dst);
}
template <int H, int I, class V>
__global__ __launch_bounds__(512) void moe_shuffle_down_kernel(KQuantDenseSrc src, uint8_t* dst) {
  moe_panel_tile<H, I, V>(src, dst);
}

// Gate-up scales: entry ((j * 2nb + t) * 2 + p) of expert y is block (t / 2, j)
// of gate (p = 0) or up (p = 1); two device tiles share one checkpoint block.
template <int = 0>
__global__ __launch_bounds__(256) void moe_gate_up_scale_shuffle_kernel(const uint16_t* gate, const uint16_t* up,
                                                                        uint16_t* dst, int64_t nb, int64_t kb) {
  const int64_t i = (int64_t)blockIdx.x * 256 + threadIdx.x, y = blockIdx.y;
  if (i >= 4 * nb * kb) return;
  const int64_t p = i % 2, t = (i / 2) % (2 * nb), j = i / (4 * nb);
  dst[y * 4 * nb * kb + i] = (p ? up : gate)[y * nb * kb + (t / 2) * kb + j];
}
// Down scales: [nb][kb] to [kb][nb] per expert.
template <int = 0>
__global__ __launch_bounds__(256) void moe_down_scale_shuffle_kernel(const uint16_t* src, uint16_t* dst, int64_t nb,
                                                                     int64_t kb) {
  const int64_t i = (int64_t)blockIdx.x * 256 + threadIdx.x, y = blockIdx.y;
  if (i >= nb * kb) return;
  const int64_t j = i / nb, r = i % nb;
  dst[y * nb * kb + i] = src[y * nb * kb + r * kb + j];
}

}  // namespace gemm_core

namespace {
using gemm_core::KQuantDenseSrc;
using gemm_core::KQuantGateUpFusedSrc;
using gemm_core::KQuantGateUpSplitSrc;

// The expert shapes of the active MoE geometry: f(H, I) as constants.
template <class F>
void on_expert_shape(F&& f) {
  on_geometry<Qwen36MoeA3B, DeepSeekV4Flash, Qwen38FlashNext>(QUILLON_HERE, [&](auto g) {
    using G = decltype(g);
    f(std::integral_constant<int, (int)G::hidden_size>{}, std::integral_constant<int, (int)G::moe_intermediate>{});
  });
}
// Rows and K of a role: 0 gate-up, 1 down.
struct RoleShape {
  int64_t R, K;
};
RoleShape role_shape(int role, int64_t H, int64_t I) { return role == 0 ? RoleShape{2 * I, H} : RoleShape{H, I}; }

const uint8_t* bytes(const void* p) { return static_cast<const uint8_t*>(p); }
uint8_t* bytes(void* p) { return static_cast<uint8_t*>(p); }

template <class V, class F>
void launch_panels(int role, int64_t n, hipStream_t s, F&& kernel_for) {
  on_expert_shape([&](auto h, auto i) {
    constexpr int H = decltype(h)::value, I = decltype(i)::value;
    const RoleShape rs = role_shape(role, H, I);
    if (n <= 0) return;
    kernel_for(h, i, dim3((unsigned)(rs.R / 128 * (rs.K / 64)), (unsigned)n));
  });
}
}  // namespace

// ---- bf16 and fp8 panels -----------------------------------------------------------------
template <class V>
static void shuffle_gate_up_split(const void* gate, const void* up, void* dst, int64_t n, hipStream_t s) {
  launch_panels<V>(0, n, s, [&](auto h, auto i, dim3 grid) {
    constexpr int H = decltype(h)::value, I = decltype(i)::value;
    const int64_t row = H * ((int)sizeof(V) / 8);
    launch(&gemm_core::moe_shuffle_gate_up_split_kernel<H, I, V>, grid, dim3(512), 0, s,
           KQuantGateUpSplitSrc{bytes(gate), bytes(up), row, row * I, 0}, bytes(dst));
  });
}
template <class V>
static void shuffle_down(const void* src, void* dst, int64_t n, hipStream_t s) {
  launch_panels<V>(1, n, s, [&](auto h, auto i, dim3 grid) {
    constexpr int H = decltype(h)::value, I = decltype(i)::value;
    const int64_t row = I * ((int)sizeof(V) / 8);
    launch(&gemm_core::moe_shuffle_down_kernel<H, I, V>, grid, dim3(512), 0, s,
           KQuantDenseSrc{bytes(src), row, row * H, 0}, bytes(dst));
  });
}

void moe_shuffle_gate_up(const void* gate, const void* up, void* dst, int64_t n, hipStream_t s) {
  shuffle_gate_up_split<dev::u32x4>(gate, up, dst, n, s);
}
void moe_shuffle_gate_up_fused(const void* src, void* dst, int64_t n, hipStream_t s) {
  launch_panels<dev::u32x4>(0, n, s, [&](auto h, auto i, dim3 grid) {
    constexpr int H = decltype(h)::value, I = decltype(i)::value;
    launch(&gemm_core::moe_shuffle_gate_up_fused_kernel<H, I, dev::u32x4>, grid, dim3(512), 0, s,
           KQuantGateUpFusedSrc{bytes(src), H * 2, (int64_t)H * 2 * 2 * I, 0, I}, bytes(dst));
  });
}
void moe_shuffle_down(const void* src, void* dst, int64_t n, hipStream_t s) {
  shuffle_down<dev::u32x4>(src, dst, n, s);
}
void moe_shuffle_gate_up_fp8(const void* gate, const void* up, void* dst, int64_t n, hipStream_t s) {
  shuffle_gate_up_split<dev::u32x2>(gate, up, dst, n, s);
}
void moe_shuffle_down_fp8(const void* src, void* dst, int64_t n, hipStream_t s) {
  shuffle_down<dev::u32x2>(src, dst, n, s);
}

void moe_scale_shuffle_gate_up_fp8(const void* gate_scales, const void* up_scales, void* dst, int64_t n,
                                   hipStream_t s) {
  on_expert_shape([&](auto h, auto i) {
    const int64_t nb = decltype(i)::value / 128, kb = decltype(h)::value / 128;
    if (n <= 0) return;
    launch(&gemm_core::moe_gate_up_scale_shuffle_kernel<>, dim3((unsigned)((4 * nb * kb + 255) / 256), (unsigned)n),
           dim3(256), 0, s, static_cast<const uint16_t*>(gate_scales), static_cast<const uint16_t*>(up_scales),
           static_cast<uint16_t*>(dst), nb, kb);
  });
}
void moe_scale_shuffle_down_fp8(const void* src, void* dst, int64_t n, hipStream_t s) {
  on_expert_shape([&](auto h, auto i) {
    const int64_t nb = decltype(h)::value / 128, kb = decltype(i)::value / 128;
    if (n <= 0) return;
    launch(&gemm_core::moe_down_scale_shuffle_kernel<>, dim3((unsigned)((nb * kb + 255) / 256), (unsigned)n),
           dim3(256), 0, s, static_cast<const uint16_t*>(src), static_cast<uint16_t*>(dst), nb, kb);
  });
}

// ---- k-quant planes ----------------------------------------------------------------------
// Sizes: n matrices of codes back to back and 4 bytes of slack at the end;
// meta planes back to back.
template <class F>
static int64_t kquant_role_bytes(int role, int32_t format, F&& of_format) {
  kq::require_format_id(QUILLON_HERE, format);
  int64_t r = 0;
  on_expert_shape([&](auto h, auto i) {
    const RoleShape rs = role_shape(role, decltype(h)::value, decltype(i)::value);
    kq::on_kquant<kq::GeneralGemm>(QUILLON_HERE, format, [&](auto f) { r = of_format(rs, kq::format_info(f)); });
  });
  return r;
}
int64_t moe_kquant_quant_bytes(int role, int32_t format, int64_t n) {
  return kquant_role_bytes(role, format,
                           [&](RoleShape rs, kq::FormatInfo f) { return n * (rs.R * rs.K * f.bits / 8) + 4; });
}
int64_t moe_kquant_meta_bytes(int role, int32_t format, int64_t n) {
  return kquant_role_bytes(role, format, [&](RoleShape rs, kq::FormatInfo f) {
    return n * ((rs.R + 31) / 32 * ((rs.K + 255) / 256) * f.meta_tile_bytes);
  });
}

template <class MAKE_SRC>
static void kquant_experts(int role, int32_t format, void* quant, void* meta, int64_t n, hipStream_t s,
                           MAKE_SRC&& make_src) {
  kq::require_format_id(QUILLON_HERE, format);
  on_expert_shape([&](auto h, auto i) {
    const RoleShape rs = role_shape(role, decltype(h)::value, decltype(i)::value);
    gemm_core::check_kquant_shape(QUILLON_HERE, format, rs.R, rs.K);
    kq::on_kquant<kq::GeneralGemm>(QUILLON_HERE, format, [&](auto f) {
      constexpr int kB = kq::format_info(f).gguf_bytes;
      gemm_core::launch_kquant_shuffle<f>(make_src(rs.K * kB / 256, kB, decltype(i)::value), quant, meta, rs.R,
                                          rs.K, n > 0 ? n : 0, s);
    });
  });
}

void moe_kquant_shuffle_gate_up(int32_t format, const void* gate, const void* up, void* quant, void* meta, int64_t n,
                                hipStream_t s) {
  kquant_experts(0, format, quant, meta, n, s, [&](int64_t row, int64_t block, int64_t I) {
    return KQuantGateUpSplitSrc{bytes(gate), bytes(up), row, row * I, block};
  });
}
void moe_kquant_shuffle_down(int32_t format, const void* src, void* quant, void* meta, int64_t n, hipStream_t s) {
  on_expert_shape([&](auto h, auto) {
    kquant_experts(1, format, quant, meta, n, s, [&](int64_t row, int64_t block, int64_t) {
      return KQuantDenseSrc{bytes(src), row, row * decltype(h)::value, block};
    });
  });
}

// ---- Low-bit planes ----------------------------------------------------------------------
int64_t moe_lowbit_stride(int role, int64_t n) {
  int64_t r = 0;
  on_expert_shape([&](auto h, auto i) { r = n * role_shape(role, decltype(h)::value, decltype(i)::value).R + 128; });
  return r;
}
int64_t moe_lowbit_plane_bytes(int role, int32_t format, int plane, int64_t n) {
  iquant::check_expert_format(QUILLON_HERE, format);
  int64_t r = 0;
  on_expert_shape([&](auto h, auto i) {
    const RoleShape rs = role_shape(role, decltype(h)::value, decltype(i)::value);
    r = iquant::lowbit_plane_bytes(format, plane, n * rs.R + 128, rs.K);
  });
  return r;
}

template <class MAKE_SRC>
static void lowbit_experts(int role, int32_t format, void* p0, void* p1, void* p2, int64_t n, hipStream_t s,
                           MAKE_SRC&& make_src) {
  iquant::check_expert_format(QUILLON_HERE, format);
  on_expert_shape([&](auto h, auto i) {
    const RoleShape rs = role_shape(role, decltype(h)::value, decltype(i)::value);
    iquant::on_expert_format(QUILLON_HERE, format, [&](auto q) {
      using Fmt = iquant::LowBitFormat<decltype(q)::value>;
      const int64_t row = rs.K / Fmt::block_weights * Fmt::block_bytes;
      const int64_t nn = n > 0 ? n : 0;
      iquant::launch_lowbit_shuffle<decltype(q)::value>(make_src(row, (int64_t)Fmt::block_bytes, decltype(i)::value,
                                                                 decltype(h)::value),
                                                        p0, p1, p2, rs.R, rs.K, nn, nn * rs.R + 128, s);
    });
  });
}

void moe_lowbit_shuffle_gate_up(int32_t format, const void* gate, const void* up, void* p0, void* p1, void* p2,
                                int64_t n, hipStream_t s) {
  lowbit_experts(0, format, p0, p1, p2, n, s, [&](int64_t row, int64_t block, int64_t I, int64_t) {
    return KQuantGateUpSplitSrc{bytes(gate), bytes(up), row, row * I, block};
  });
}
void moe_lowbit_shuffle_gate_up_fused(int32_t format, const void* src, void* p0, void* p1, void* p2, int64_t n,
                                      hipStream_t s) {
  lowbit_experts(0, format, p0, p1, p2, n, s, [&](int64_t row, int64_t block, int64_t I, int64_t) {
    return KQuantGateUpFusedSrc{bytes(src), row, row * 2 * I, block, I};
  });
}
void moe_lowbit_shuffle_down(int32_t format, const void* src, void* p0, void* p1, void* p2, int64_t n,
                             hipStream_t s) {
  lowbit_experts(1, format, p0, p1, p2, n, s, [&](int64_t row, int64_t block, int64_t, int64_t H) {
    return KQuantDenseSrc{bytes(src), row, row * H, block};
  });
}

}  // namespace quillon
