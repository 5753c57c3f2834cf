// The general GEMM entries at decode and prefill sizes: bytes moved, FLOPs and
// the gfx1151 roofline time (256 GB/s, about 59 TFLOP/s bf16 matrix rate).
// With a GPU the entries run and are timed with events; on the CPU device the
// figures are the model alone and say so.
#include <hip/hip_runtime_api.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "quillon/quillon.h"

namespace {

constexpr double kBandwidth = 256e9;  // bytes per second, LPDDR5X
constexpr double kMatrixRate = 59e12;  // bf16 FLOP per second
constexpr int kCus = 40;

struct Case {
  const char* what;
  int format;  // -1: bf16 weights
  int64_t M, N, K;
};

// The split count of the bf16 entry at kCus units.
int split_count(int64_t M, int64_t N, int64_t K) {
  if (K < 64) return 1;
  const int64_t tiles = (N / 128) * ((M + 255) / 256), kb = K / 32;
  const int64_t s_max = std::min<int64_t>(std::max<int64_t>(kb, 2), 16);
  int S = 1;
  for (int64_t s = 2; s <= s_max; ++s)
    if (kb % s == 0 && tiles * s <= kCus) S = (int)s;
  return S;
}

struct Model {
  double bytes, flops, issued, seconds;
  int S;
};

// DRAM traffic counted once per byte: A read and shuffled (written, read),
// the weight planes, C, and the split partials written and read back.
Model model_of(const Case& c) {
  const int64_t R = (c.M + 255) / 256 * 256;
  Model m{};
  m.S = c.format < 0 ? split_count(c.M, c.N, c.K) : 1;
  const double weights = c.format < 0 ? 2.0 * c.N * c.K
                                      : (double)quillon_kquant_quant_bytes(c.format, c.N, c.K) +
                                            (double)quillon_kquant_meta_bytes(c.format, c.N, c.K);
  m.bytes = 2.0 * c.M * c.K + 4.0 * R * c.K + weights + 2.0 * c.M * c.N;
  if (m.S > 1) m.bytes += 2.0 * 4.0 * m.S * c.M * c.N;
  m.flops = 2.0 * c.M * c.N * c.K;
  m.issued = 2.0 * R * c.N * c.K;  // the 256-row tile runs whole
  m.seconds = std::max(m.bytes / kBandwidth, m.issued / kMatrixRate);
  return m;
}

bool have_gpu() {
#if defined(QUILLON_FLAVOUR_CPU)
  return false;
#else
  int n = 0;
  return hipGetDeviceCount(&n) == hipSuccess && n > 0;
#endif
}

// Median of `reps` timed runs of one entry, in seconds.
// Median of 9 event-timed runs after one warm-up.
template <class F>
double median_event_seconds(F&& run) {
  run();
  (void)hipStreamSynchronize(nullptr);
  hipEvent_t e0, e1;
  (void)hipEventCreate(&e0);
  (void)hipEventCreate(&e1);
  std::vector<double> t;
  for (int r = 0; r < 9; ++r) {
    (void)hipEventRecord(e0, nullptr);
    run();
    (void)hipEventRecord(e1, nullptr);
    (void)hipEventSynchronize(e1);
    float ms = 0;
    (void)hipEventElapsedTime(&ms, e0, e1);
    t.push_back(ms * 1e-3);
  }
  std::sort(t.begin(), t.end());
  (void)hipEventDestroy(e0);
  (void)hipEventDestroy(e1);
  return t[t.size() / 2];
}

double time_case(const Case& c) {
  void *a = nullptr, *src = nullptr, *b = nullptr, *meta = nullptr, *out = nullptr, *ws = nullptr;
  const size_t wbytes = c.format < 0 ? (size_t)(c.N * c.K * 2) : (size_t)quillon_kquant_gguf_bytes(c.format, c.N, c.K);
  const size_t qbytes = c.format < 0 ? wbytes : (size_t)quillon_kquant_quant_bytes(c.format, c.N, c.K);
  const size_t wsb = (size_t)(c.format < 0 ? quillon_gemm_bf16_a_ws_bytes(c.M, c.K) : quillon_gemm_kquant_a_ws_bytes(c.M, c.K));
  if (hipMalloc(&a, (size_t)(c.M * c.K * 2)) != hipSuccess || hipMalloc(&src, wbytes) != hipSuccess ||
      hipMalloc(&b, qbytes) != hipSuccess || hipMalloc(&out, (size_t)(c.M * c.N * 2)) != hipSuccess ||
      hipMalloc(&ws, wsb) != hipSuccess)
    return -1.0;
  (void)hipMemset(a, 0, (size_t)(c.M * c.K * 2));
  (void)hipMemset(src, 0, wbytes);
  if (c.format < 0) {
    (void)quillon_gemm_bf16_shuffle_b(src, b, c.N, c.K, nullptr);
  } else {
    (void)hipMalloc(&meta, (size_t)quillon_kquant_meta_bytes(c.format, c.N, c.K));
    (void)quillon_gemm_kquant_shuffle_b(c.format, src, b, meta, c.N, c.K, nullptr);
  }
  auto run = [&] {
    if (c.format < 0) (void)quillon_gemm_bf16_a(a, b, out, c.M, c.N, c.K, 1, ws, nullptr);
    else (void)quillon_gemm_kquant_a(c.format, a, b, meta, out, c.M, c.N, c.K, 1, ws, nullptr);
  };
  const double secs = median_event_seconds(run);
  for (void* p : {a, src, b, meta, out, ws})
    if (p) (void)hipFree(p);
  return secs;
}

// ---- LM head ---------------------------------------------------------------------------
// Decode streams the whole head once: weight (or planes), x, and fp32 logits;
// the row tile of 16 or 32 rows sets the matrix work issued.
struct HeadCase {
  int32_t geometry;
  int format;  // -1: bf16
  int64_t M;
};

Model head_model(const HeadCase& c, int64_t N, int64_t K) {
  Model m{};
  const double weights = c.format < 0 ? 2.0 * N * K
                                      : (double)quillon_lm_head_kquant_quant_bytes(c.format) +
                                            (double)quillon_lm_head_kquant_meta_bytes(c.format);
  const int64_t rows = c.M <= 16 ? 16 : (c.M + 31) / 32 * 32;
  m.bytes = weights + 2.0 * c.M * K + 4.0 * c.M * N;
  m.flops = 2.0 * c.M * N * K;
  m.issued = 2.0 * rows * N * K;
  m.seconds = std::max(m.bytes / kBandwidth, m.issued / kMatrixRate);
  m.S = 1;
  return m;
}

double time_head(const HeadCase& c, int64_t N, int64_t K) {
  void *x = nullptr, *src = nullptr, *w = nullptr, *meta = nullptr, *logits = nullptr;
  const size_t sbytes = c.format < 0 ? (size_t)(N * K * 2) : (size_t)quillon_lm_head_kquant_gguf_bytes(c.format);
  const size_t wbytes = c.format < 0 ? sbytes : (size_t)quillon_lm_head_kquant_quant_bytes(c.format);
  if (hipMalloc(&x, (size_t)(c.M * K * 2)) != hipSuccess || hipMalloc(&src, sbytes) != hipSuccess ||
      hipMalloc(&w, wbytes) != hipSuccess || hipMalloc(&logits, (size_t)(c.M * N * 4)) != hipSuccess)
    return -1.0;
  (void)hipMemset(x, 0, (size_t)(c.M * K * 2));
  (void)hipMemset(src, 0, sbytes);
  if (c.format < 0) {
    (void)quillon_lm_head_shuffle_weight(src, w, nullptr);
  } else {
    (void)hipMalloc(&meta, (size_t)quillon_lm_head_kquant_meta_bytes(c.format));
    (void)quillon_lm_head_kquant_shuffle_weight(c.format, src, w, meta, nullptr);
  }
  auto run = [&] {
    if (c.format < 0) (void)quillon_lm_head(x, w, static_cast<float*>(logits), c.M, nullptr, nullptr);
    else (void)quillon_lm_head_kquant(c.format, x, w, meta, static_cast<float*>(logits), c.M, nullptr, nullptr);
  };
  const double secs = median_event_seconds(run);
  for (void* p : {x, src, w, meta, logits})
    if (p) (void)hipFree(p);
  return secs;
}

void lm_head_table(bool gpu) {
  const HeadCase cases[] = {{0, -1, 1}, {0, -1, 32}, {0, 4, 1}, {0, 4, 32}, {0, 6, 1},
                            {2, -1, 1}, {2, -1, 32}, {2, 8, 1}, {2, 8, 32}};
  std::printf("\nlm_head (decode path, fp32 logits)%s\n", gpu ? "" : ": MODEL only on the CPU device");
  std::printf("%-9s %6s %6s %6s %6s %10s %9s %10s %8s %12s\n", "geometry", "format", "M", "N", "K", "MB moved",
              "GFLOP", "model us", "bound", gpu ? "measured us" : "");
  for (const HeadCase& c : cases) {
    if (quillon_select_geometry(c.geometry) != 0) continue;
    QuillonModelConfig cfg;
    quillon_model_config(&cfg);
    const int64_t N = cfg.vocab_size, K = cfg.hidden_size;
    const Model m = head_model(c, N, K);
    const bool mem = m.bytes / kBandwidth >= m.issued / kMatrixRate;
    char fmt[8];
    std::snprintf(fmt, sizeof fmt, "%s", c.format < 0 ? "bf16" : c.format == 4 ? "Q4_K" : c.format == 6 ? "Q6_K" : "Q8_0");
    std::printf("%-9d %6s %6lld %6lld %6lld %10.2f %9.3f %10.2f %8s", c.geometry, fmt, (long long)c.M, (long long)N,
                (long long)K, m.bytes / 1e6, m.flops / 1e9, m.seconds * 1e6, mem ? "memory" : "matrix");
    if (gpu) {
      const double s = time_head(c, N, K);
      if (s > 0) std::printf(" %12.2f  (%.0f GB/s)", s * 1e6, m.bytes / s / 1e9);
      else std::printf(" %12s", "no memory");
    }
    std::printf("\n");
  }
}

}  // namespace

int main() {
  // Decode rows through the general entries (the tile still runs 256 rows),
  // then prefill rows; shapes of the geometries' projections.
  const Case cases[] = {
      {"bf16 decode", -1, 1, 2048, 4096},    {"bf16 decode", -1, 32, 9216, 2048},
      {"Q4_K decode", 4, 1, 2048, 4096},     {"Q8_0 decode", 8, 32, 5120, 6144},
      {"bf16 prefill", -1, 512, 2048, 4096}, {"bf16 prefill", -1, 4096, 9216, 2048},
      {"Q4_K prefill", 4, 2048, 12288, 2048}, {"Q6_K prefill", 6, 4096, 5120, 6144},
      {"IQ4_XS prefill", 23, 2048, 2048, 4096},
  };
  const bool gpu = have_gpu();
  std::printf("gemm_bench: gfx1151 roofline model, %.0f GB/s and %.0f TFLOP/s bf16, %d CUs for the split rule\n",
              kBandwidth / 1e9, kMatrixRate / 1e12, kCus);
  if (!gpu) std::printf("CPU device: every figure below is the MODEL; nothing is timed\n");
  std::printf("%-15s %6s %6s %6s %3s %10s %9s %10s %8s %12s\n", "entry", "M", "N", "K", "S", "MB moved", "GFLOP",
              "model us", "bound", gpu ? "measured us" : "");
  for (const Case& c : cases) {
    const Model m = model_of(c);
    const bool mem = m.bytes / kBandwidth >= m.issued / kMatrixRate;
    std::printf("%-15s %6lld %6lld %6lld %3d %10.2f %9.3f %10.2f %8s", c.what, (long long)c.M, (long long)c.N,
                (long long)c.K, m.S, m.bytes / 1e6, m.flops / 1e9, m.seconds * 1e6, mem ? "memory" : "matrix");
    if (gpu) {
      const double s = time_case(c);
      if (s > 0) std::printf(" %12.2f  (%.0f GB/s, %.1f TFLOP/s)", s * 1e6, m.bytes / s / 1e9, m.flops / s / 1e12);
      else std::printf(" %12s", "no memory");
    }
    std::printf("\n");
  }
  std::printf("The general entries always run the 256-row tile, so decode rows are charged 256 rows of matrix work.\n");
  lm_head_table(gpu);
  return 0;
}
