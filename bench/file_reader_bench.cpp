// The file reader's throughput against dd with iflag=direct over the same file,
// in one run: rounds alternate dd and the reader, so both see the same disk
// under the same load; the ratio is of the medians.
//   file_reader_bench [DIR [MIB [CHUNK_KIB [QUEUE_DEPTH [NUM_BUFFERS [ROUNDS]]]]]]
// DIR must be on a local disk (O_DIRECT); defaults: . 512 4096 4 6 9.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "quillon/quillon.h"

namespace {
double now() { return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count(); }
void check(bool ok, const char* what) {
  if (!ok) {
    std::fprintf(stderr, "file_reader_bench: %s\n", what);
    std::exit(1);
  }
}
struct Spread {
  double lo, med, hi;
};
Spread spread(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return {v.front(), v[v.size() / 2], v.back()};
}
}  // namespace

int main(int argc, char** argv) {
  const std::string dir = argc > 1 ? argv[1] : ".";
  const int64_t mib = argc > 2 ? std::atoll(argv[2]) : 512;
  const int64_t chunk = (argc > 3 ? std::atoll(argv[3]) : 4096) * 1024;
  const int32_t qd = argc > 4 ? std::atoi(argv[4]) : 4;
  const int32_t nb = argc > 5 ? std::atoi(argv[5]) : 6;
  const int rounds = argc > 6 ? std::max(1, std::atoi(argv[6])) : 9;
  const int64_t bytes = mib << 20;
  const std::string path = dir + "/file_reader_bench.bin";

  // Written through the page cache and synced: direct reads then come from the disk.
  {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    check(fd >= 0, "cannot create the file");
    std::vector<uint32_t> block(1 << 18);
    uint32_t x = 12345;
    for (int64_t done = 0; done < bytes; done += (int64_t)block.size() * 4) {
      for (auto& w : block) w = (x = x * 1664525u + 1013904223u);
      check(write(fd, block.data(), block.size() * 4) == (ssize_t)(block.size() * 4), "write failed");
    }
    check(fsync(fd) == 0, "fsync failed");
    close(fd);
  }

  QuillonFileReader* r = quillon_file_reader_create(qd, chunk, nb);
  check(r != nullptr, "quillon_file_reader_create returned null: io_uring refused");
  void* dst = nullptr;
  check(hipMalloc(&dst, (size_t)bytes) == hipSuccess, "hipMalloc failed");
  check(hipMemset(dst, 0, (size_t)bytes) == hipSuccess, "hipMemset failed");  // commit pages before timing

  const std::string dd = "dd if=" + path + " of=/dev/null bs=" + std::to_string(chunk) + " iflag=direct status=none";
  std::vector<double> dd_gbs, rd_gbs;
  for (int i = 0; i < rounds; ++i) {
    double t = now();
    check(std::system(dd.c_str()) == 0, "dd failed");
    dd_gbs.push_back(bytes / (now() - t) / 1e9);
    t = now();
    check(quillon_file_reader_read(r, path.c_str(), 0, bytes, dst, nullptr) == hipSuccess, "read failed");
    check(hipStreamSynchronize(nullptr) == hipSuccess, "synchronize failed");
    rd_gbs.push_back(bytes / (now() - t) / 1e9);
    std::printf("round %d: dd %.3f GB/s, reader %.3f GB/s\n", i, dd_gbs.back(), rd_gbs.back());
  }
  std::printf("file %lld MiB, chunk %lld KiB (dd bs the same), queue_depth %d, num_buffers %d\n", (long long)mib,
              (long long)(chunk >> 10), qd, nb);
  const Spread d = spread(dd_gbs), q = spread(rd_gbs);
  std::printf("GB/s over %d rounds (min median max): dd %.3f %.3f %.3f, reader %.3f %.3f %.3f\n", rounds, d.lo,
              d.med, d.hi, q.lo, q.med, q.hi);
  std::printf("reader/dd, medians: %.3f\n", q.med / d.med);
  quillon_file_reader_destroy(r);
  (void)hipFree(dst);
  unlink(path.c_str());
  return 0;
}
