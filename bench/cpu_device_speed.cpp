// Speed of the CPU device itself: fiber switches, block barriers and emulated
// WMMA. The test suite's length follows from these numbers.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <vector>

#include "platform/cpu/qcpu.h"
#include "platform/device.h"
#include "platform/launch.h"

using namespace quillon;

namespace {
__global__ void yield_kernel(int iters) {
  for (int i = 0; i < iters; ++i) dev::sleep();
}
__global__ void barrier_kernel(int iters) {
  for (int i = 0; i < iters; ++i) __syncthreads();
}
__global__ void wmma_loop_kernel(float* out, int iters) {
  dev::bf16x16 a, b;
  for (int k = 0; k < 16; ++k) {
    a[k] = (short)(0x3f80 + (threadIdx.x % 16));
    b[k] = (short)0x3f80;
  }
  dev::f32x8 c = {0, 0, 0, 0, 0, 0, 0, 0};
  for (int i = 0; i < iters; ++i) c = dev::wmma_bf16(a, b, c);
  out[threadIdx.x] = c[0];
}

template <class F>
double median_seconds(F&& f, int reps = 5) {
  std::vector<double> t;
  for (int r = 0; r < reps; ++r) {
    auto a = std::chrono::steady_clock::now();
    f();
    t.push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - a).count());
  }
  std::sort(t.begin(), t.end());
  return t[t.size() / 2];
}
}  // namespace

int main() {
  // One workgroup, so one worker thread: these are single-core figures.
  const int yi = 2000;
  double ys = median_seconds([&] { (void)launch(&yield_kernel, dim3(1), dim3(256), 0, nullptr, yi); });
  // Each sleep is a switch into the scheduler and one back.
  std::printf("fiber switch:        %.1f ns (256 fibers x %d yields, 2 switches each)\n", ys / (256.0 * yi * 2) * 1e9, yi);
  const int bi = 200;
  double bs = median_seconds([&] { (void)launch(&barrier_kernel, dim3(1), dim3(512), 0, nullptr, bi); });
  std::printf("512-thread barrier:  %.2f us\n", bs / bi * 1e6);
  float* out = nullptr;
  (void)hipMalloc(reinterpret_cast<void**>(&out), 32 * 4);
  const int wi = 20000;
  double ws = median_seconds([&] { (void)launch(&wmma_loop_kernel, dim3(1), dim3(32), 0, nullptr, out, wi); });
  std::printf("emulated WMMA:       %.0f per second on one core (16x16x16 bf16)\n", wi / ws);
  (void)hipFree(out);
  return 0;
}
