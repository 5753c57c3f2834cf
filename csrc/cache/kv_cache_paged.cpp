// Paged KV pool: sizes, and the writers that lay keys out as 16-dim groups per
// slot and values as 16 slots per dim, so attention feeds a page straight to
// the matrix instruction. The transposition is paid here, once per token.
#include "../device/geometry.h"
#include "../platform/device.h"
#include "../platform/fatal.h"
#include "../platform/launch.h"
#include "../platform/numerics.h"
#include "kv_cache.h"

namespace quillon {

void check_kv_page(const char* file, int line, int64_t page) {
  if (page != kKvPage)
    fatal_at(file, line, "KV page %lld: this build has no paged instantiation for it (see quillon_kv_block_sizes)",
             (long long)page);
}

namespace kv {

constexpr int kThreads = 256;
constexpr int64_t kMaxBlocks = 4096;

// Element offsets of (page, head, dim, offset in page).
template <int NKV, int HD, int PAGE>
struct PoolLayout {
  static_assert(PAGE == 16, "a page is one 16-row matrix operand");
  QDEV static int64_t k(int64_t p, int h, int d, int o) {
    return ((p * NKV + h) * (HD / 16) + d / 16) * 256 + o * 16 + d % 16;
  }
  QDEV static int64_t v(int64_t p, int h, int d, int o) { return ((p * NKV + h) * HD + d) * 16 + o; }
};

// One 16-byte vector (8 dims of one head) per item, grid-stride. Strides come
// in 16-byte units.
template <int NKV, int HD, int PAGE, int THREADS, bool K_ONLY>
__global__ __launch_bounds__(THREADS) void reshape_and_cache_kernel(const uint16_t* k, const uint16_t* v,
                                                                    int64_t k_stride16, int64_t v_stride16,
                                                                    uint16_t* k_cache, uint16_t* v_cache,
                                                                    const int32_t* slot_mapping, int64_t num_tokens) {
  using L = PoolLayout<NKV, HD, PAGE>;
  constexpr int kVecs = NKV * HD / 8;
  for (int64_t i = (int64_t)blockIdx.x * THREADS + threadIdx.x; i < num_tokens * kVecs;
       i += (int64_t)gridDim.x * THREADS) {
    const int64_t t = i / kVecs;
    const int c = (int)(i % kVecs);
    const int32_t slot = slot_mapping[t];
    if (slot < 0) continue;
    const int64_t p = slot / PAGE;
    const int o = slot % PAGE, h = 8 * c / HD, d = 8 * c % HD;
    const dev::u32x4 kv = *reinterpret_cast<const dev::u32x4*>(k + t * k_stride16 * 8 + 8 * c);
    *reinterpret_cast<dev::u32x4*>(k_cache + L::k(p, h, d, o)) = kv;
    if constexpr (!K_ONLY) {
      const dev::u32x4 vv = *reinterpret_cast<const dev::u32x4*>(v + t * v_stride16 * 8 + 8 * c);
      for (int e = 0; e < 8; ++e) v_cache[L::v(p, h, d + e, o)] = (uint16_t)(vv[e / 2] >> (16 * (e % 2)));
    }
  }
}

QDEV void widen8(dev::u32x4 c, float f[8]) {
  for (int i = 0; i < 4; ++i) {
    f[2 * i] = num::bits_to_float(c[i] << 16);
    f[2 * i + 1] = num::bits_to_float(c[i] & 0xffff0000u);
  }
}
QDEV float amax8(const uint16_t* p, float m) {
  float f[8];
  widen8(*reinterpret_cast<const dev::u32x4*>(p), f);
  for (int i = 0; i < 8; ++i) {
    const float a = __builtin_fabsf(f[i]);
    m = a > m ? a : m;
  }
  return m;
}
// The stored bf16 scale, and the reciprocal of exactly that value.
struct Scale {
  uint16_t bits;
  float inv;
};
QDEV Scale scale_of(float amax) {
  const uint16_t b = num::bf16_rne(amax > 0.0f ? amax / 127.0f : 1.0f);
  return Scale{b, 1.0f / num::bf16_to_float(b)};
}
QDEV int8_t quant(float x, float inv) {
  const float q = __builtin_rintf(x * inv);
  return (int8_t)__builtin_fminf(__builtin_fmaxf(q, -127.0f), 127.0f);
}
// 16 quantised values as one 16-byte vector.
QDEV dev::u32x4 quant16(const uint16_t* p, float inv) {
  dev::u32x4 out;
  for (int w = 0; w < 2; ++w) {
    float f[8];
    widen8(*reinterpret_cast<const dev::u32x4*>(p + 8 * w), f);
    for (int j = 0; j < 2; ++j) {
      uint32_t word = 0;
      for (int b = 0; b < 4; ++b) word |= (uint32_t)(uint8_t)quant(f[4 * j + b], inv) << (8 * b);
      out[2 * w + j] = word;
    }
  }
  return out;
}

// One (token, head) per item: V as one group of HD, then K in groups of 32.
template <int NKV, int HD, int PAGE, int THREADS>
__global__ __launch_bounds__(THREADS) void reshape_and_cache_int8_kernel(const uint16_t* k, const uint16_t* v,
                                                                         int64_t k_stride, int64_t v_stride,
                                                                         int8_t* k_cache, int8_t* v_cache,
                                                                         uint16_t* k_scales, uint16_t* v_scales,
                                                                         const int32_t* slot_mapping,
                                                                         int64_t num_tokens) {
  using L = PoolLayout<NKV, HD, PAGE>;
  for (int64_t i = (int64_t)blockIdx.x * THREADS + threadIdx.x; i < num_tokens * NKV;
       i += (int64_t)gridDim.x * THREADS) {
    const int64_t t = i / NKV;
    const int h = (int)(i % NKV);
    const int32_t slot = slot_mapping[t];
    if (slot < 0) continue;
    const int64_t p = slot / PAGE;
    const int o = slot % PAGE;

    const uint16_t* vr = v + t * v_stride + h * HD;
    float vmax = 0.0f;
    for (int d = 0; d < HD; d += 8) vmax = amax8(vr + d, vmax);
    const Scale vs = scale_of(vmax);
    v_scales[(p * NKV + h) * PAGE + o] = vs.bits;
    for (int d = 0; d < HD; d += 8) {
      float f[8];
      widen8(*reinterpret_cast<const dev::u32x4*>(vr + d), f);
      for (int e = 0; e < 8; ++e) v_cache[L::v(p, h, d + e, o)] = quant(f[e], vs.inv);
    }

    const uint16_t* kr = k + t * k_stride + h * HD;
    for (int g = 0; g < HD / 32; ++g) {
      float kmax = 0.0f;
      for (int d = 0; d < 32; d += 8) kmax = amax8(kr + 32 * g + d, kmax);
      const Scale ks = scale_of(kmax);
      k_scales[((int64_t)slot * NKV + h) * (HD / 32) + g] = ks.bits;
      for (int half = 0; half < 2; ++half)
        *reinterpret_cast<dev::u32x4*>(k_cache + L::k(p, h, 32 * g + 16 * half, o)) =
            quant16(kr + 32 * g + 16 * half, ks.inv);
    }
  }
}

inline unsigned grid_for(int64_t items) {
  const int64_t b = (items + kThreads - 1) / kThreads;
  return (unsigned)(b < kMaxBlocks ? b : kMaxBlocks);
}

template <int NKV, int HD>
void write_bf16(const void* k, const void* v, int64_t k_row_stride, int64_t v_row_stride, void* k_cache, void* v_cache,
                const int32_t* slots, int64_t num_tokens, hipStream_t s) {
  if (num_tokens <= 0) return;
  // Without a V pool the caller's v and its stride are ignored, the check included.
  QUILLON_CHECK(k_row_stride % 8 == 0 && (!v_cache || v_row_stride % 8 == 0),
                "reshape_and_cache row strides must be multiples of 8; got %lld / %lld", (long long)k_row_stride,
                (long long)v_row_stride);
  const unsigned grid = grid_for(num_tokens * (NKV * HD / 8));
  if (v_cache)
    launch(&reshape_and_cache_kernel<NKV, HD, 16, kThreads, false>, dim3(grid), dim3(kThreads), 0, s,
           static_cast<const uint16_t*>(k), static_cast<const uint16_t*>(v), k_row_stride / 8, v_row_stride / 8,
           static_cast<uint16_t*>(k_cache), static_cast<uint16_t*>(v_cache), slots, num_tokens);
  else
    launch(&reshape_and_cache_kernel<NKV, HD, 16, kThreads, true>, dim3(grid), dim3(kThreads), 0, s,
           static_cast<const uint16_t*>(k), static_cast<const uint16_t*>(nullptr), k_row_stride / 8, (int64_t)0,
           static_cast<uint16_t*>(k_cache), static_cast<uint16_t*>(nullptr), slots, num_tokens);
}

}  // namespace kv

void kv_pool_bytes(int64_t num_blocks, int64_t page, bool int8, int64_t* k_bytes, int64_t* v_bytes) {
  check_kv_page(QUILLON_HERE, page);
  on_geometry<Qwen36MoeA3B, Qwen3627B, DeepSeekV4Flash, Qwen38FlashNext>(QUILLON_HERE, [&](auto g) {
    using G = decltype(g);
    const int64_t bytes = num_blocks * (G::num_kv_heads * G::head_dim * kKvPage) * (int8 ? 1 : 2);
    *k_bytes = bytes;
    *v_bytes = bytes;
  });
}

void kv_scale_bytes(int64_t num_blocks, int64_t page, int64_t* k_scale_bytes, int64_t* v_scale_bytes) {
  check_kv_page(QUILLON_HERE, page);
  on_geometry<Qwen36MoeA3B, Qwen3627B, Qwen38FlashNext>(QUILLON_HERE, [&](auto g) {
    using G = decltype(g);
    *k_scale_bytes = num_blocks * (kKvPage * G::num_kv_heads * (G::head_dim / 32) * 2);
    *v_scale_bytes = num_blocks * (G::num_kv_heads * kKvPage * 2);
  });
}

int64_t kv_blocks_for(int64_t tokens, int64_t page) {
  QUILLON_CHECK(page >= 1, "kv_blocks_for: a KV page is a positive number of slots (got %lld)", (long long)page);
  return (tokens + page - 1) / page;
}

void reshape_and_cache(const void* k, const void* v, int64_t k_row_stride, int64_t v_row_stride, void* k_cache,
                       void* v_cache, const int32_t* slot_mapping, int64_t num_tokens, int64_t page, hipStream_t s) {
  check_kv_page(QUILLON_HERE, page);
  on_geometry<Qwen36MoeA3B, Qwen3627B, DeepSeekV4Flash, Qwen38FlashNext>(QUILLON_HERE, [&](auto g) {
    using G = decltype(g);
    kv::write_bf16<(int)G::num_kv_heads, (int)G::head_dim>(k, v, k_row_stride, v_row_stride, k_cache, v_cache,
                                                            slot_mapping, num_tokens, s);
  });
}

void draft_reshape_and_cache(const void* k, const void* v, int64_t k_row_stride, int64_t v_row_stride, void* k_cache,
                             void* v_cache, const int32_t* slot_mapping, int64_t num_tokens, int64_t page,
                             hipStream_t s) {
  check_kv_page(QUILLON_HERE, page);
  kv::write_bf16<8, 128>(k, v, k_row_stride, v_row_stride, k_cache, v_cache, slot_mapping, num_tokens, s);
}

void reshape_and_cache_int8(const void* k, const void* v, int64_t k_row_stride, int64_t v_row_stride, void* k_cache,
                            void* v_cache, void* k_scales, void* v_scales, const int32_t* slot_mapping,
                            int64_t num_tokens, int64_t page, hipStream_t s) {
  check_kv_page(QUILLON_HERE, page);
  on_geometry<Qwen36MoeA3B, Qwen3627B, DeepSeekV4Flash, Qwen38FlashNext>(QUILLON_HERE, [&](auto g) {
    using G = decltype(g);
    constexpr int NKV = (int)G::num_kv_heads, HD = (int)G::head_dim;
    if (num_tokens <= 0) return;
    QUILLON_CHECK(k_row_stride % 32 == 0 && v_row_stride % 32 == 0,
                  "reshape_and_cache row strides must be multiples of %d; got %lld / %lld", 32,
                  (long long)k_row_stride, (long long)v_row_stride);
    launch(&kv::reshape_and_cache_int8_kernel<NKV, HD, 16, kv::kThreads>, dim3(kv::grid_for(num_tokens * NKV)),
           dim3(kv::kThreads), 0, s, static_cast<const uint16_t*>(k), static_cast<const uint16_t*>(v), k_row_stride,
           v_row_stride, static_cast<int8_t*>(k_cache), static_cast<int8_t*>(v_cache),
           static_cast<uint16_t*>(k_scales), static_cast<uint16_t*>(v_scales), slot_mapping, num_tokens);
  });
}

}  // namespace quillon
