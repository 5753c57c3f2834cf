// The HIP runtime subset of the CPU device, with HIP's own names and
// signatures: device memory is host memory, and every stream operation runs
// to completion before the call returns, which keeps stream order trivially.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>

#include <sys/mman.h>

#include "runtime_internal.h"

#define QCPU_EXPORT __attribute__((visibility("default")))

struct ihipStream_t {
  unsigned flags;
};
struct ihipEvent_t {
  std::chrono::steady_clock::time_point t;
  bool recorded;
};

namespace qcpu {
namespace {
// 20 as the modelled chip has; QUILLON_CPU_MULTIPROCESSORS (1..512) stands in
// for another device so a test can see that the library asks.
int multiprocessors() {
  static const int n = [] {
    const char* e = std::getenv("QUILLON_CPU_MULTIPROCESSORS");
    if (!e) return 20;
    char* end = nullptr;
    const long v = std::strtol(e, &end, 10);
    if (*e < '0' || *e > '9' || *end != '\0' || v < 1 || v > 512) {
      std::fprintf(stderr, "QUILLON_CPU_MULTIPROCESSORS must be an integer in 1..512 (got \"%s\")\n", e);
      std::abort();
    }
    return (int)v;
  }();
  return n;
}

thread_local hipError_t tl_last = hipSuccess;

struct Mapping {
  void* base;
  size_t len;
};
std::mutex g_mem_mutex;
std::map<void*, Mapping>& allocations() {
  static std::map<void*, Mapping> m;
  return m;
}
constexpr size_t kPage = 4096;
size_t round_up(size_t v, size_t a) { return (v + a - 1) / a * a; }

// Reserve address space lazily (pages commit when touched) with a guard page on
// each side; the block ends where its guard begins, so an overrun faults.
void* map_guarded(size_t size, size_t align) {
  size_t body = round_up(size, kPage);
  size_t len = body + 2 * kPage;
  void* base = mmap(nullptr, len, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (base == MAP_FAILED) return nullptr;
  char* b = static_cast<char*>(base);
  if (mprotect(b + kPage, body, PROT_READ | PROT_WRITE) != 0) {
    munmap(base, len);
    return nullptr;
  }
  char* user = b + kPage + (body - round_up(size, align));
  std::lock_guard<std::mutex> g(g_mem_mutex);
  allocations()[user] = Mapping{base, len};
  return user;
}
hipError_t unmap_guarded(void* p) {
  if (!p) return hipSuccess;
  Mapping m;
  {
    std::lock_guard<std::mutex> g(g_mem_mutex);
    auto it = allocations().find(p);
    if (it == allocations().end()) return set_error(hipErrorInvalidValue);
    m = it->second;
    allocations().erase(it);
  }
  munmap(m.base, m.len);
  return hipSuccess;
}
}  // namespace

hipError_t set_error(hipError_t e) {
  if (e != hipSuccess) tl_last = e;
  return e;
}
}  // namespace qcpu

using qcpu::set_error;

extern "C" {

QCPU_EXPORT hipError_t hipGetLastError(void) {
  hipError_t e = qcpu::tl_last;
  qcpu::tl_last = hipSuccess;
  return e;
}
QCPU_EXPORT hipError_t hipPeekAtLastError(void) { return qcpu::tl_last; }

QCPU_EXPORT const char* hipGetErrorName(hipError_t e) {
  switch (e) {
    case hipSuccess: return "hipSuccess";
    case hipErrorInvalidValue: return "hipErrorInvalidValue";
    case hipErrorOutOfMemory: return "hipErrorOutOfMemory";
    case hipErrorInvalidConfiguration: return "hipErrorInvalidConfiguration";
    case hipErrorInvalidDevice: return "hipErrorInvalidDevice";
    case hipErrorInvalidDeviceFunction: return "hipErrorInvalidDeviceFunction";
    case hipErrorInvalidResourceHandle: return "hipErrorInvalidResourceHandle";
    case hipErrorNotReady: return "hipErrorNotReady";
    case hipErrorLaunchFailure: return "hipErrorLaunchFailure";
    case hipErrorNoDevice: return "hipErrorNoDevice";
    default: return "hipErrorUnknown";
  }
}
QCPU_EXPORT const char* hipGetErrorString(hipError_t e) {
  switch (e) {
    case hipSuccess: return "no error";
    case hipErrorInvalidValue: return "invalid argument";
    case hipErrorOutOfMemory: return "out of memory";
    case hipErrorInvalidConfiguration: return "invalid configuration argument";
    case hipErrorInvalidDevice: return "invalid device ordinal";
    case hipErrorInvalidDeviceFunction: return "invalid device function";
    case hipErrorInvalidResourceHandle: return "invalid resource handle";
    case hipErrorNotReady: return "device not ready";
    case hipErrorLaunchFailure: return "unspecified launch failure";
    case hipErrorNoDevice: return "no HIP-capable device is detected";
    default: return "unknown error";
  }
}

QCPU_EXPORT hipError_t hipGetDeviceCount(int* n) {
  if (!n) return set_error(hipErrorInvalidValue);
  *n = 1;
  return hipSuccess;
}
QCPU_EXPORT hipError_t hipGetDevice(int* d) {
  if (!d) return set_error(hipErrorInvalidValue);
  *d = 0;
  return hipSuccess;
}
QCPU_EXPORT hipError_t hipSetDevice(int d) { return d == 0 ? hipSuccess : set_error(hipErrorInvalidDevice); }
QCPU_EXPORT hipError_t hipGetDeviceProperties(hipDeviceProp_t* p, int d) {
  if (!p) return set_error(hipErrorInvalidValue);
  if (d != 0) return set_error(hipErrorInvalidDevice);
  std::memset(p, 0, sizeof(*p));
  std::strcpy(p->name, "CPU device (gfx1151 model)");
  std::strcpy(p->gcnArchName, "gfx1151");
  p->totalGlobalMem = size_t(64) << 30;
  p->sharedMemPerBlock = 65536;
  p->maxSharedMemoryPerMultiProcessor = 65536;
  p->regsPerBlock = 65536;
  p->warpSize = 32;
  p->maxThreadsPerBlock = 1024;
  p->maxThreadsDim[0] = 1024;
  p->maxThreadsDim[1] = 1024;
  p->maxThreadsDim[2] = 64;
  p->maxGridSize[0] = 0x7fffffff;
  p->maxGridSize[1] = 65535;
  p->maxGridSize[2] = 65535;
  p->multiProcessorCount = qcpu::multiprocessors();
  p->maxThreadsPerMultiProcessor = 2048;
  p->major = 11;
  p->minor = 5;
  p->clockRate = 2900000;
  p->memoryClockRate = 4000000;
  p->memoryBusWidth = 256;
  p->l2CacheSize = 2 << 20;
  p->gcnArch = 1151;
  return hipSuccess;
}

QCPU_EXPORT hipError_t hipMalloc(void** p, size_t size) {
  if (!p) return set_error(hipErrorInvalidValue);
  *p = nullptr;
  if (size == 0) return hipSuccess;
  *p = qcpu::map_guarded(size, 256);
  return *p ? hipSuccess : set_error(hipErrorOutOfMemory);
}
QCPU_EXPORT hipError_t hipFree(void* p) { return qcpu::unmap_guarded(p); }
QCPU_EXPORT hipError_t hipHostMalloc(void** p, size_t size, unsigned int) {
  if (!p) return set_error(hipErrorInvalidValue);
  *p = nullptr;
  if (size == 0) return hipSuccess;
  *p = qcpu::map_guarded(size, 4096);
  return *p ? hipSuccess : set_error(hipErrorOutOfMemory);
}
QCPU_EXPORT hipError_t hipHostFree(void* p) { return qcpu::unmap_guarded(p); }
QCPU_EXPORT hipError_t hipMemGetInfo(size_t* free_b, size_t* total) {
  if (free_b) *free_b = size_t(48) << 30;
  if (total) *total = size_t(64) << 30;
  return hipSuccess;
}

QCPU_EXPORT hipError_t hipMemcpy(void* dst, const void* src, size_t n, hipMemcpyKind) {
  if (n && (!dst || !src)) return set_error(hipErrorInvalidValue);
  if (n) std::memmove(dst, src, n);
  return hipSuccess;
}
QCPU_EXPORT hipError_t hipMemcpyAsync(void* dst, const void* src, size_t n, hipMemcpyKind k, hipStream_t) {
  return hipMemcpy(dst, src, n, k);
}
QCPU_EXPORT hipError_t hipMemcpy2DAsync(void* dst, size_t dpitch, const void* src, size_t spitch, size_t width,
                                        size_t height, hipMemcpyKind, hipStream_t) {
  if (height && width && (!dst || !src || width > dpitch || width > spitch)) return set_error(hipErrorInvalidValue);
  for (size_t r = 0; r < height; ++r)
    std::memmove(static_cast<char*>(dst) + r * dpitch, static_cast<const char*>(src) + r * spitch, width);
  return hipSuccess;
}
QCPU_EXPORT hipError_t hipMemcpy2D(void* dst, size_t dpitch, const void* src, size_t spitch, size_t width,
                                   size_t height, hipMemcpyKind k) {
  return hipMemcpy2DAsync(dst, dpitch, src, spitch, width, height, k, nullptr);
}
QCPU_EXPORT hipError_t hipMemset(void* dst, int v, size_t n) {
  if (n && !dst) return set_error(hipErrorInvalidValue);
  if (n) std::memset(dst, v, n);
  return hipSuccess;
}
QCPU_EXPORT hipError_t hipMemsetAsync(void* dst, int v, size_t n, hipStream_t) { return hipMemset(dst, v, n); }

QCPU_EXPORT hipError_t hipStreamCreate(hipStream_t* s) {
  if (!s) return set_error(hipErrorInvalidValue);
  *s = new ihipStream_t{0};
  return hipSuccess;
}
QCPU_EXPORT hipError_t hipStreamCreateWithFlags(hipStream_t* s, unsigned int flags) {
  if (!s) return set_error(hipErrorInvalidValue);
  *s = new ihipStream_t{flags};
  return hipSuccess;
}
QCPU_EXPORT hipError_t hipStreamDestroy(hipStream_t s) {
  delete s;
  return hipSuccess;
}
QCPU_EXPORT hipError_t hipStreamSynchronize(hipStream_t) { return hipSuccess; }
QCPU_EXPORT hipError_t hipStreamQuery(hipStream_t) { return hipSuccess; }
QCPU_EXPORT hipError_t hipDeviceSynchronize(void) { return hipSuccess; }

QCPU_EXPORT hipError_t hipEventCreate(hipEvent_t* e) {
  if (!e) return set_error(hipErrorInvalidValue);
  *e = new ihipEvent_t{{}, false};
  return hipSuccess;
}
QCPU_EXPORT hipError_t hipEventCreateWithFlags(hipEvent_t* e, unsigned) { return hipEventCreate(e); }
QCPU_EXPORT hipError_t hipEventRecord(hipEvent_t e, hipStream_t) {
  if (!e) return set_error(hipErrorInvalidResourceHandle);
  e->t = std::chrono::steady_clock::now();
  e->recorded = true;
  return hipSuccess;
}
QCPU_EXPORT hipError_t hipEventSynchronize(hipEvent_t e) {
  return e ? hipSuccess : set_error(hipErrorInvalidResourceHandle);
}
QCPU_EXPORT hipError_t hipEventQuery(hipEvent_t e) { return e ? hipSuccess : set_error(hipErrorInvalidResourceHandle); }
QCPU_EXPORT hipError_t hipEventElapsedTime(float* ms, hipEvent_t a, hipEvent_t b) {
  if (!ms || !a || !b) return set_error(hipErrorInvalidValue);
  if (!a->recorded || !b->recorded) return set_error(hipErrorInvalidResourceHandle);
  *ms = std::chrono::duration<float, std::milli>(b->t - a->t).count();
  return hipSuccess;
}
QCPU_EXPORT hipError_t hipEventDestroy(hipEvent_t e) {
  delete e;
  return hipSuccess;
}

// Kernel stubs exist only in the hip flavour; here a kernel is launched through
// the library's launch helper.
QCPU_EXPORT hipError_t hipLaunchKernel(const void*, dim3, dim3, void**, size_t, hipStream_t) {
  return set_error(hipErrorInvalidDeviceFunction);
}

}  // extern "C"
