// Reads byte ranges of one file through a file reader into device memory and
// writes them back to the host, one after another, to OUT.
//   file_reader_helper PATH OUT OFFSET:BYTES...
// Exit status 3 says the machine refused io_uring.
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "quillon/quillon.h"

int main(int argc, char** argv) {
  if (argc < 4) {
    std::fprintf(stderr, "usage: file_reader_helper PATH OUT OFFSET:BYTES...\n");
    return 2;
  }
  // Chunks smaller than the larger tensors, so a range spans several of them.
  QuillonFileReader* r = quillon_file_reader_create(2, 16384, 3);
  if (!r) {
    std::fprintf(stderr, "file_reader_helper: quillon_file_reader_create returned null: io_uring refused\n");
    return 3;
  }
  FILE* out = std::fopen(argv[2], "wb");
  if (!out) return 2;
  for (int i = 3; i < argc; ++i) {
    long long off = 0, n = 0;
    if (std::sscanf(argv[i], "%lld:%lld", &off, &n) != 2 || n < 1) return 2;
    void* dst = nullptr;
    std::vector<char> host((size_t)n);
    if (hipMalloc(&dst, (size_t)n) != hipSuccess) return 2;
    const hipError_t e = quillon_file_reader_read(r, argv[1], off, n, dst, nullptr);
    if (e != hipSuccess) {
      std::fprintf(stderr, "file_reader_helper: read %lld:%lld returned %d\n", off, n, (int)e);
      return 1;
    }
    if (hipMemcpy(host.data(), dst, (size_t)n, hipMemcpyDeviceToHost) != hipSuccess) return 2;
    std::fwrite(host.data(), 1, host.size(), out);
    (void)hipFree(dst);
  }
  std::fclose(out);
  quillon_file_reader_destroy(r);
  return 0;
}
