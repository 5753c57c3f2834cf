// Depthwise causal convolution of width 4 with SiLU over the q, k, v channels of
// a linear-attention layer, and the state slots that carry its last 3 inputs.
// A workgroup covers 2048 channels, 8 per thread, so every access is 16 bytes
// and a thread never touches another thread's channels: in-place state updates
// need no barrier.
#include "../../device/geometry.h"
#include "../../norm/rmsnorm_core.h"
#include "../../platform/fatal.h"
#include "../../platform/launch.h"
#include "linear_attn.h"

namespace quillon {
namespace conv {

constexpr int kThreads = 256, kCh = 8, kSpan = kThreads * kCh;
constexpr int kPrefillTokens = 32;
constexpr float kLog2e = __builtin_bit_cast(float, 0x3FB8AA3Bu);

// 4 taps of each of 8 channels: 64 bytes, two channels per 16-byte load.
QDEV void load_taps(const uint16_t* weight, int c0, float w[kCh][4]) {
  for (int p = 0; p < 4; ++p) {
    float v[8];
    norm::load8(weight + (c0 + 2 * p) * 4, v);
    for (int j = 0; j < 4; ++j) {
      w[2 * p][j] = v[j];
      w[2 * p + 1][j] = v[4 + j];
    }
  }
}

QDEV void zero_row(float v[kCh]) {
  for (int i = 0; i < kCh; ++i) v[i] = 0.0f;
}

// Taps oldest first as fused steps from 0, then SiLU by true division.
QDEV dev::u32x4 convolve(const float win[3][kCh], const float xin[kCh], const float w[kCh][4]) {
  float y[kCh];
  for (int i = 0; i < kCh; ++i) {
    float s = __builtin_fmaf(w[i][0], win[0][i], 0.0f);
    s = __builtin_fmaf(w[i][1], win[1][i], s);
    s = __builtin_fmaf(w[i][2], win[2][i], s);
    s = __builtin_fmaf(w[i][3], xin[i], s);
    y[i] = s / (1.0f + dev::exp2(-s * kLog2e));
  }
  return norm::pack_bf16x8(y);
}

QDEV void shift_in(float win[3][kCh], const float xin[kCh]) {
  for (int i = 0; i < kCh; ++i) {
    win[0][i] = win[1][i];
    win[1][i] = win[2][i];
    win[2][i] = xin[i];
  }
}

template <int DIM>
QDEV void load_slot(const uint16_t* state, int64_t slot, int c0, float win[3][kCh]) {
  for (int j = 0; j < 3; ++j) norm::load8(state + (slot * 3 + j) * DIM + c0, win[j]);
}
template <int DIM>
QDEV void store_slot(uint16_t* state, int64_t slot, int c0, const float win[3][kCh]) {
  for (int j = 0; j < 3; ++j) norm::store16(state, ((slot * 3 + j) * DIM + c0) * 2, norm::pack_bf16x8(win[j]));
}

// The three rows that end `count` inputs after the old state: element
// count + n_old - 3 + j of (n_old old rows, then the inputs from x_row0 on),
// zeros before the start. All sources are read before anything is stored, so
// `dst` may be `src`.
template <int DIM>
QDEV void roll_slot(const uint16_t* x, int64_t qkv_stride, int64_t x_row0, int64_t count, int n_old,
                    const uint16_t* src, int64_t src_slot, uint16_t* dst, int64_t dst_slot, int c0) {
  float rows[3][kCh];
  for (int j = 0; j < 3; ++j) {
    const int64_t i = count + n_old - 3 + j;
    if (i < 0) zero_row(rows[j]);
    else if (i < n_old) norm::load8(src + (src_slot * 3 + i) * DIM + c0, rows[j]);
    else norm::load8(x + (x_row0 + i - n_old) * qkv_stride + c0, rows[j]);
  }
  store_slot<DIM>(dst, dst_slot, c0, rows);
}

QDEV int64_t slot_of(const int32_t* slots, int64_t i) { return slots ? slots[i] : i; }
QDEV bool continues(const int32_t* has_state, int b) { return has_state && has_state[b] != 0; }

// Workgroup (channel block, 32-token chunk, sequence). Chunks run at once, so a
// chunk past the first takes its history from x, never from the state.
template <int DIM>
__global__ __launch_bounds__(kThreads) void conv1d_prefill_kernel(const uint16_t* x, int64_t qkv_stride,
                                                                  const uint16_t* weight, const int32_t* cu_seqlens,
                                                                  const int32_t* has_state, const int32_t* slots,
                                                                  const uint16_t* state, uint16_t* out) {
  const int c0 = (int)blockIdx.x * kSpan + (int)threadIdx.x * kCh;
  const int b = (int)blockIdx.z;
  const int64_t start = cu_seqlens[b], len = cu_seqlens[b + 1] - start;
  const int64_t t0 = (int64_t)blockIdx.y * kPrefillTokens;
  if (t0 >= len) return;
  float win[3][kCh];
  if (t0 > 0) {
    for (int j = 0; j < 3; ++j) norm::load8(x + (start + t0 - 3 + j) * qkv_stride + c0, win[j]);
  } else if (continues(has_state, b)) {
    load_slot<DIM>(state, slot_of(slots, b), c0, win);
  } else {
    for (int j = 0; j < 3; ++j) zero_row(win[j]);
  }
  float w[kCh][4];
  load_taps(weight, c0, w);
  const int64_t end = t0 + kPrefillTokens < len ? t0 + kPrefillTokens : len;
  for (int64_t t = t0; t < end; ++t) {
    float xin[kCh];
    norm::load8(x + (start + t) * qkv_stride + c0, xin);
    norm::store16(out, ((start + t) * DIM + c0) * 2, convolve(win, xin, w));
    shift_in(win, xin);
  }
}

template <int DIM>
__global__ __launch_bounds__(kThreads) void conv1d_state_write_kernel(const uint16_t* x, int64_t qkv_stride,
                                                                      const int32_t* cu_seqlens,
                                                                      const int32_t* has_state, const int32_t* slots,
                                                                      uint16_t* state) {
  const int c0 = (int)blockIdx.x * kSpan + (int)threadIdx.x * kCh;
  const int b = (int)blockIdx.y;
  const int64_t start = cu_seqlens[b], len = cu_seqlens[b + 1] - start;
  const int64_t slot = slot_of(slots, b);
  roll_slot<DIM>(x, qkv_stride, start, len, continues(has_state, b) ? 3 : 0, state, slot, state, slot, c0);
}

// Workgroup (channel block, sequence, checkpoint): the state the sequence had
// after its first `at` tokens of this call.
template <int DIM>
__global__ __launch_bounds__(kThreads) void conv1d_state_ckpt_kernel(const uint16_t* x, int64_t qkv_stride,
                                                                     const int32_t* cu_seqlens,
                                                                     const int32_t* has_state, const int32_t* slots,
                                                                     const uint16_t* state, const int32_t* ckpt_at,
                                                                     const int32_t* ckpt_slots, int64_t ckpt_max,
                                                                     uint16_t* ckpt) {
  const int c0 = (int)blockIdx.x * kSpan + (int)threadIdx.x * kCh;
  const int b = (int)blockIdx.y;
  const int64_t e = (int64_t)b * ckpt_max + blockIdx.z;
  const int64_t at = ckpt_at[e];
  if (at < 0) return;
  roll_slot<DIM>(x, qkv_stride, cu_seqlens[b], at, continues(has_state, b) ? 3 : 0, state, slot_of(slots, b), ckpt,
                 ckpt_slots[e], c0);
}

// Decode rows of one sequence in order. The per-row form starts from the slot
// the last accepted row wrote and leaves a whole state in each row's slot; the
// read-only form keeps the window in registers.
template <int DIM, bool READ_ONLY>
__global__ __launch_bounds__(kThreads) void conv1d_decode_kernel(const uint16_t* x, int64_t qkv_stride,
                                                                 const uint16_t* weight, const int32_t* slots,
                                                                 const int32_t* accepted, uint16_t* state,
                                                                 uint16_t* out, int64_t rows) {
  const int c0 = (int)blockIdx.x * kSpan + (int)threadIdx.x * kCh;
  const int64_t b = blockIdx.y;
  float win[3][kCh];
  if constexpr (READ_ONLY) {
    load_slot<DIM>(state, slot_of(slots, b), c0, win);
  } else {
    const int64_t i0 = accepted ? accepted[b] - 1 : 0;
    load_slot<DIM>(state, slot_of(slots, b * rows + i0), c0, win);
  }
  float w[kCh][4];
  load_taps(weight, c0, w);
  for (int64_t r = 0; r < rows; ++r) {
    const int64_t tok = b * rows + r;
    float xin[kCh];
    norm::load8(x + tok * qkv_stride + c0, xin);
    norm::store16(out, (tok * DIM + c0) * 2, convolve(win, xin, w));
    shift_in(win, xin);
    if constexpr (!READ_ONLY) store_slot<DIM>(state, slot_of(slots, tok), c0, win);
  }
}

// Roll-forward over the first n retained rows of the sequence. Row j reads old
// row n + j or a retained row, never an old row below j: safe in place.
template <int DIM>
__global__ __launch_bounds__(kThreads) void conv1d_advance_kernel(const uint16_t* x, int64_t qkv_stride,
                                                                  const int32_t* slots, const int32_t* accepted,
                                                                  uint16_t* state, int64_t rows) {
  const int c0 = (int)blockIdx.x * kSpan + (int)threadIdx.x * kCh;
  const int64_t b = blockIdx.y;
  const int64_t n = accepted ? accepted[b] : rows;
  const int64_t slot = slot_of(slots, b);
  roll_slot<DIM>(x, qkv_stride, b * rows, n, 3, state, slot, state, slot, c0);
}

template <class G>
void check_stride(int64_t qkv_stride) {
  if (qkv_stride < G::conv_width)
    QUILLON_FATAL("qkv_stride must span the conv axis (got %lld, need >= %lld)", (long long)qkv_stride,
                  (long long)G::conv_width);
}

template <class F>
void on_linear_geometry(const char* file, int line, F&& f) {
  on_geometry<Qwen36MoeA3B, Qwen3627B, Qwen38FlashNext>(file, line, static_cast<F&&>(f));
}

template <class G>
constexpr unsigned kBlocks = (unsigned)(G::conv_width / kSpan);

}  // namespace conv

void conv1d_prefill(const void* x, int64_t qkv_stride, const void* weight, const int32_t* cu_seqlens,
                    const int32_t* has_state, const int32_t* slots, void* state, void* out, int64_t num_seqs,
                    int64_t max_len, hipStream_t s) {
  conv::on_linear_geometry(QUILLON_HERE, [&](auto g) {
    using G = decltype(g);
    constexpr int DIM = (int)G::conv_width;
    conv::check_stride<G>(qkv_stride);
    if (max_len <= 0 || num_seqs <= 0) return;
    const auto* xs = static_cast<const uint16_t*>(x);
    auto* st = static_cast<uint16_t*>(state);
    const unsigned chunks = (unsigned)((max_len + conv::kPrefillTokens - 1) / conv::kPrefillTokens);
    launch(&conv::conv1d_prefill_kernel<DIM>, dim3(conv::kBlocks<G>, chunks, (unsigned)num_seqs),
           dim3(conv::kThreads), 0, s, xs, qkv_stride, static_cast<const uint16_t*>(weight), cu_seqlens, has_state,
           slots, st, static_cast<uint16_t*>(out));
    launch(&conv::conv1d_state_write_kernel<DIM>, dim3(conv::kBlocks<G>, (unsigned)num_seqs), dim3(conv::kThreads),
           0, s, xs, qkv_stride, cu_seqlens, has_state, slots, st);
  });
}

void conv1d_state_ckpt(const void* x, int64_t qkv_stride, const int32_t* cu_seqlens, const int32_t* has_state,
                       const int32_t* slots, const void* state, const int32_t* ckpt_at, const int32_t* ckpt_slots,
                       int64_t ckpt_max, void* ckpt, int64_t num_seqs, hipStream_t s) {
  conv::on_linear_geometry(QUILLON_HERE, [&](auto g) {
    using G = decltype(g);
    if (ckpt_max == 0) return;
    conv::check_stride<G>(qkv_stride);
    if (!ckpt_at || !ckpt_slots || !ckpt)
      QUILLON_FATAL("ckpt_max=%lld needs ckpt_at, ckpt_slots and ckpt", (long long)ckpt_max);
    if (ckpt_max < 0 || num_seqs <= 0) return;
    launch(&conv::conv1d_state_ckpt_kernel<(int)G::conv_width>,
           dim3(conv::kBlocks<G>, (unsigned)num_seqs, (unsigned)ckpt_max), dim3(conv::kThreads), 0, s,
           static_cast<const uint16_t*>(x), qkv_stride, cu_seqlens, has_state, slots,
           static_cast<const uint16_t*>(state), ckpt_at, ckpt_slots, ckpt_max, static_cast<uint16_t*>(ckpt));
  });
}

void conv1d_decode(const void* x, int64_t qkv_stride, const void* weight, const int32_t* slots,
                   const int32_t* accepted, void* state, void* out, int64_t num_seqs, int64_t rows, hipStream_t s) {
  conv::on_linear_geometry(QUILLON_HERE, [&](auto g) {
    using G = decltype(g);
    conv::check_stride<G>(qkv_stride);
    if (num_seqs <= 0 || rows <= 0) return;
    launch(&conv::conv1d_decode_kernel<(int)G::conv_width, false>, dim3(conv::kBlocks<G>, (unsigned)num_seqs),
           dim3(conv::kThreads), 0, s, static_cast<const uint16_t*>(x), qkv_stride,
           static_cast<const uint16_t*>(weight), slots, accepted, static_cast<uint16_t*>(state),
           static_cast<uint16_t*>(out), rows);
  });
}

void conv1d_decode_readonly(const void* x, int64_t qkv_stride, const void* weight, const int32_t* slots,
                            const void* state, void* out, int64_t num_seqs, int64_t rows, hipStream_t s) {
  conv::on_linear_geometry(QUILLON_HERE, [&](auto g) {
    using G = decltype(g);
    conv::check_stride<G>(qkv_stride);
    if (num_seqs <= 0 || rows <= 0) return;
    // The read-only instance never stores to the pool; the cast only shares the kernel's signature.
    launch(&conv::conv1d_decode_kernel<(int)G::conv_width, true>, dim3(conv::kBlocks<G>, (unsigned)num_seqs),
           dim3(conv::kThreads), 0, s, static_cast<const uint16_t*>(x), qkv_stride,
           static_cast<const uint16_t*>(weight), slots, static_cast<const int32_t*>(nullptr),
           const_cast<uint16_t*>(static_cast<const uint16_t*>(state)), static_cast<uint16_t*>(out), rows);
  });
}

void conv1d_advance(const void* x, int64_t qkv_stride, const int32_t* slots, const int32_t* accepted, void* state,
                    int64_t num_seqs, int64_t rows, hipStream_t s) {
  conv::on_linear_geometry(QUILLON_HERE, [&](auto g) {
    using G = decltype(g);
    conv::check_stride<G>(qkv_stride);
    if (num_seqs <= 0 || rows <= 0) return;
    launch(&conv::conv1d_advance_kernel<(int)G::conv_width>, dim3(conv::kBlocks<G>, (unsigned)num_seqs),
           dim3(conv::kThreads), 0, s, static_cast<const uint16_t*>(x), qkv_stride, slots, accepted,
           static_cast<uint16_t*>(state), rows);
  });
}

}  // namespace quillon
