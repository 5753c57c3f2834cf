// What only the CPU device can do for a test: run chosen workgroups of a launch
// and count matrix instructions. On a GPU the whole launch runs; a check that
// needs the CPU device skips itself with the reason.
#pragma once
#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <vector>

#if QUILLON_FLAVOUR_CPU
#include "platform/cpu/qcpu_test.h"
#endif

namespace qt {

#if QUILLON_FLAVOUR_CPU
inline constexpr bool kCpuDevice = true;
#else
inline constexpr bool kCpuDevice = false;
#endif

// Runs only `blocks` of the next launch where the device can; returns whether
// it did (on a GPU every workgroup runs and the sampled ones still hold).
inline bool sample_next_launch(const int64_t* blocks, int count) {
#if QUILLON_FLAVOUR_CPU
  qcpu_sample_next_launch(blocks, count);
  return true;
#else
  (void)blocks, (void)count;
  return false;
#endif
}
inline bool sample_next_launch(const std::vector<int64_t>& blocks) {
  return sample_next_launch(blocks.data(), (int)blocks.size());
}
// The same for launch n from now (0 the next); the launches between run whole.
inline bool sample_launch(int n_from_now, const std::vector<int64_t>& blocks) {
#if QUILLON_FLAVOUR_CPU
  qcpu_sample_launch(n_from_now, blocks.data(), (int)blocks.size());
  return true;
#else
  (void)n_from_now, (void)blocks;
  return false;
#endif
}

// Matrix instructions the device has executed so far, where it counts them.
inline std::optional<uint64_t> wmma_count() {
#if QUILLON_FLAVOUR_CPU
  return qcpu_wmma_count();
#else
  return std::nullopt;
#endif
}

}  // namespace qt

// For a test whose whole point needs the CPU device (which workgroups ran).
#define QT_NEEDS_CPU_DEVICE(what) \
  if (!::qt::kCpuDevice) GTEST_SKIP() << "needs the CPU device: " << what
