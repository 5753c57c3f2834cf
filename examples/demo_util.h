/* Small helpers the demo's files share: HIP checks, bf16 rounding, a clock
 * and a device fill that copies a host pattern block by block. */
#ifndef QUILLON_DEMO_UTIL_H
#define QUILLON_DEMO_UTIL_H
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "quillon/quillon.h"

#define CHECK(call)                                                               \
  do {                                                                            \
    hipError_t e_ = (call);                                                       \
    if (e_ != hipSuccess) {                                                       \
      fprintf(stderr, "%s failed: %s\n", #call, quillon_error_string(e_));         \
      return 1;                                                                   \
    }                                                                             \
  } while (0)

static inline float bf16_to_float(uint16_t h) {
  uint32_t u = (uint32_t)h << 16;
  float f;
  memcpy(&f, &u, 4);
  return f;
}
static inline uint16_t float_to_bf16(float f) {
  uint32_t u;
  memcpy(&u, &f, 4);
  return (uint16_t)((u + 0x7fff + ((u >> 16) & 1)) >> 16);
}

static inline double now_s(void) {
  struct timespec ts;
  timespec_get(&ts, TIME_UTC);
  return (double)ts.tv_sec + 1e-9 * (double)ts.tv_nsec;
}

/* Fills a [rows, H] bf16 device matrix with a 256-row host pattern, copied
 * block by block: a gigabyte in a few hundred copies rather than a host loop
 * over every element. */
static inline int fill_rows(void* dst, int64_t rows, int64_t H, float scale, int salt) {
  const int64_t block = 256;
  uint16_t* host = (uint16_t*)malloc((size_t)(block * H * 2));
  if (!host) return 1;
  for (int64_t r = 0; r < block; ++r)
    for (int64_t k = 0; k < H; ++k)
      host[r * H + k] = float_to_bf16(scale * (float)((r * 7 + k * 3 + salt) % 17 - 8));
  for (int64_t r = 0; r < rows; r += block) {
    const int64_t n = rows - r < block ? rows - r : block;
    if (hipMemcpy((uint16_t*)dst + r * H, host, (size_t)(n * H * 2), hipMemcpyHostToDevice) != hipSuccess) {
      free(host);
      return 1;
    }
  }
  free(host);
  return 0;
}

int decode_step(const QuillonModelConfig* c);

#endif
