/* The CPU device runtime's own interface: what the device layer calls from
 * kernels, the launch entry, and the test-only extensions (block sampling,
 * schedules). The HIP API subset it also provides keeps HIP's names. */
#ifndef QUILLON_QCPU_H
#define QUILLON_QCPU_H
#include <stddef.h>
#include <stdint.h>
#include <hip/hip_runtime_api.h>

#ifdef __cplusplus
extern "C" {
#endif

#define QCPU_API __attribute__((visibility("default")))

typedef struct qcpu_dim3 { uint32_t x, y, z; } qcpu_dim3;
typedef struct qcpu_lane {
  qcpu_dim3 tid, bid, bdim, gdim;
} qcpu_lane;

#define QCPU_LAUNCH_CORESIDENT 1

/* The lane a fiber runs; constant for the life of one kernel invocation. */
QCPU_API const qcpu_lane* qcpu_self(void) __attribute__((const));

QCPU_API int qcpu_launch(qcpu_dim3 grid, qcpu_dim3 block, size_t lds, hipStream_t stream,
                         void (*invoke)(void*), void* closure, int flags);

/* Sync points. */
QCPU_API void qcpu_barrier(const char* file, int line);
QCPU_API void qcpu_wave_sync(void);
QCPU_API void qcpu_sleep(void);
QCPU_API void* qcpu_dynamic_lds(void);

/* Wave collectives over the live lanes of the caller's wave. */
QCPU_API uint32_t qcpu_shfl_xor(uint32_t v, int mask, int width);
QCPU_API uint32_t qcpu_bpermute(int src_lane, uint32_t v);
QCPU_API uint32_t qcpu_permlanex16(uint32_t v, uint32_t sel_lo, uint32_t sel_hi);
QCPU_API uint32_t qcpu_readlane(uint32_t v, int lane);
QCPU_API uint32_t qcpu_ballot(int pred);
QCPU_API void qcpu_wmma_bf16(const uint16_t a[16], const uint16_t b[16], float c[8]);

/* Test extensions. The next launch runs only the listed workgroups (linear ids,
 * x fastest); the others leave their output untouched. */
QCPU_API void qcpu_sample_next_launch(const int64_t* blocks, int count);
/* "forward", "reverse" or "random:SEED", from QUILLON_CPU_SCHEDULE. */
QCPU_API const char* qcpu_schedule(void);
/* Counters for the runtime's own benchmarks. */
QCPU_API uint64_t qcpu_wmma_count(void);

#ifdef __cplusplus
}
#endif
#endif
