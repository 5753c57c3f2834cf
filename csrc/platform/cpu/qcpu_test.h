/* Test extensions of the CPU device that the library itself never calls. */
#ifndef QUILLON_QCPU_TEST_H
#define QUILLON_QCPU_TEST_H
#include "qcpu.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Block sampling of a later launch: launch call n_from_now (0 the next, as
 * qcpu_sample_next_launch, 1 the one after, ...) runs only the listed
 * workgroups; the launches in between run whole. */
QCPU_API void qcpu_sample_launch(int n_from_now, const int64_t* blocks, int count);

#ifdef __cplusplus
}
#endif
#endif
