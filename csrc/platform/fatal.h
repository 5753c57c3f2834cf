// The library's two reporting paths: a broken caller contract aborts with
// "[quillon] file:line: message"; a failing synchronous HIP call exits with
// "[HIP] file:line: text".
#pragma once
#include <hip/hip_runtime_api.h>

namespace quillon {
[[noreturn]] void fatal_at(const char* file, int line, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
[[noreturn]] void hip_fail_at(const char* file, int line, hipError_t e);
}  // namespace quillon

#define QUILLON_FATAL(...) ::quillon::fatal_at(__FILE__, __LINE__, __VA_ARGS__)
#define QUILLON_CHECK(cond, ...) \
  do {                           \
    if (!(cond)) QUILLON_FATAL(__VA_ARGS__); \
  } while (0)
#define QUILLON_HIP_CHECK(call)                                          \
  do {                                                                   \
    hipError_t quillon_e_ = (call);                                      \
    if (quillon_e_ != hipSuccess) ::quillon::hip_fail_at(__FILE__, __LINE__, quillon_e_); \
  } while (0)
