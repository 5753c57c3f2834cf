#include "fatal.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace quillon {
namespace {
// Paths are relative to the source root; a compiler cache that hands the
// compiler build-relative paths leaves leading "../" steps, which say nothing.
const char* source_path(const char* file) {
  while (file[0] == '.' && file[1] == '.' && file[2] == '/') file += 3;
  return file;
}
}  // namespace

void fatal_at(const char* file, int line, const char* fmt, ...) {
  std::fprintf(stderr, "[quillon] %s:%d: ", source_path(file), line);
  va_list ap;
  va_start(ap, fmt);
  std::vfprintf(stderr, fmt, ap);
  va_end(ap);
  std::fputc('\n', stderr);
  std::fflush(stderr);
  std::abort();
}
void hip_fail_at(const char* file, int line, hipError_t e) {
  std::fprintf(stderr, "[HIP] %s:%d: %s\n", source_path(file), line, hipGetErrorString(e));
  std::fflush(stderr);
  std::exit(1);
}
}  // namespace quillon
