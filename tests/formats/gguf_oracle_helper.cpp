// Reads one GGUF tensor's raw bytes, shuffles it into the library's planes,
// reads every weight back through the device dequantiser and writes them as
// little-endian float32, row-major.
//   gguf_oracle_helper FORMAT N K IN OUT
// FORMAT is a GGUF type name: Q2_K Q3_K Q4_K Q5_K Q6_K Q8_0 IQ4_NL IQ4_XS
// (k-quant planes) or IQ2_XXS IQ3_XXS MXFP4 IQ2_S (expert low-bit planes).
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "gemm/kquant_shuffle.h"
#include "quillon/quillon.h"
#include "read_kernels.h"

namespace {
int fail(const char* what) {
  std::fprintf(stderr, "gguf_oracle_helper: %s\n", what);
  return 2;
}
void* dev_alloc(size_t n) {
  void* p = nullptr;
  if (hipMalloc(&p, n ? n : 1) != hipSuccess) std::abort();
  return p;
}
}  // namespace

int main(int argc, char** argv) {
  if (argc != 6) return fail("usage: FORMAT N K IN OUT");
  const std::string fmt = argv[1];
  const int64_t N = std::atoll(argv[2]), K = std::atoll(argv[3]);
  std::ifstream in(argv[4], std::ios::binary);
  if (!in) return fail("cannot read input");
  const std::vector<char> src((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());

  const char* kq_names[] = {"Q2_K", "Q3_K", "Q4_K", "Q5_K", "Q6_K", "Q8_0", "IQ4_NL", "IQ4_XS"};
  const int kq_ids[] = {2, 3, 4, 5, 6, 8, 20, 23};
  const char* lb_names[] = {"IQ2_XXS", "IQ3_XXS", "MXFP4", "IQ2_S"};
  int kq = -1, lb = -1;
  for (int i = 0; i < 8; ++i)
    if (fmt == kq_names[i]) kq = kq_ids[i];
  for (int i = 0; i < 4; ++i)
    if (fmt == lb_names[i]) lb = i;
  if (kq < 0 && lb < 0) return fail("unknown format");

  void* dsrc = dev_alloc(src.size());
  hipMemcpy(dsrc, src.data(), src.size(), hipMemcpyHostToDevice);
  uint16_t* dout = static_cast<uint16_t*>(dev_alloc((size_t)(N * K * 2)));
  std::vector<void*> planes;
  if (kq >= 0) {
    if ((int64_t)src.size() != quillon_kquant_gguf_bytes(kq, N, K)) return fail("input size does not match N, K");
    void* quant = dev_alloc((size_t)quillon_kquant_quant_bytes(kq, N, K));
    void* meta = dev_alloc((size_t)quillon_kquant_meta_bytes(kq, N, K));
    quillon::gemm_kquant_shuffle_b(kq, dsrc, quant, meta, N, K, nullptr);
    qt::read_kquant(kq, quant, meta, N, K, dout);
    planes = {quant, meta};
  } else {
    const int64_t stride = N + 128;
    void* p[3];
    for (int i = 0; i < 3; ++i) p[i] = dev_alloc((size_t)quillon::iquant::lowbit_plane_bytes(lb, i, stride, K));
    qt::shuffle_lowbit(lb, dsrc, p[0], p[1], p[2], N, K, 1, stride);
    qt::read_lowbit(lb, p[0], p[1], p[2], stride, N, K, dout);
    planes = {p[0], p[1], p[2]};
  }
  if (hipGetLastError() != hipSuccess || hipStreamSynchronize(nullptr) != hipSuccess) return fail("device error");
  std::vector<uint16_t> w((size_t)(N * K));
  hipMemcpy(w.data(), dout, w.size() * 2, hipMemcpyDeviceToHost);
  std::vector<float> f(w.size());
  for (size_t i = 0; i < w.size(); ++i) {
    const uint32_t u = (uint32_t)w[i] << 16;
    std::memcpy(&f[i], &u, 4);
  }
  std::ofstream out(argv[5], std::ios::binary);
  out.write(reinterpret_cast<const char*>(f.data()), (std::streamsize)(f.size() * 4));
  for (void* p : planes) (void)hipFree(p);
  (void)hipFree(dsrc);
  (void)hipFree(dout);
  return out ? 0 : fail("cannot write output");
}
