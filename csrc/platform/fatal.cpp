#include "fatal.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace quillon {
void fatal_at(const char* file, int line, const char* fmt, ...) {
  std::fprintf(stderr, "[quillon] %s:%d: ", file, line);
  va_list ap;
  va_start(ap, fmt);
  std::vfprintf(stderr, fmt, ap);
  va_end(ap);
  std::fputc('\n', stderr);
  std::fflush(stderr);
  std::abort();
}
void hip_fail_at(const char* file, int line, hipError_t e) {
  std::fprintf(stderr, "[HIP] %s:%d: %s\n", file, line, hipGetErrorString(e));
  std::fflush(stderr);
  std::exit(1);
}
}  // namespace quillon
