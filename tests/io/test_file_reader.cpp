// The file reader on real files in a fresh directory under the working
// directory: every byte of a range must reach dst at its place, nothing around
// it may change, and a failure must leave the reader usable.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

#include "common/test_util.h"
#include "quillon/quillon.h"

namespace {
constexpr hipError_t kIoError = hipError_t(301);

struct ReaderDeleter {
  void operator()(QuillonFileReader* r) const { quillon_file_reader_destroy(r); }
};
using Reader = std::unique_ptr<QuillonFileReader, ReaderDeleter>;

// A null reader is a refusal by the kernel, never a pass.
Reader make_reader(int32_t qd, int64_t chunk, int32_t nb) {
  Reader r(quillon_file_reader_create(qd, chunk, nb));
  if (!r)
    ADD_FAILURE() << "quillon_file_reader_create(" << qd << ", " << chunk << ", " << nb
                  << ") returned null: this machine refuses io_uring (io_uring_setup failed: kernel without "
                     "io_uring, kernel.io_uring_disabled, or a seccomp filter), so the file reader cannot run";
  return r;
}

int open_fds() {
  int n = 0;
  DIR* d = opendir("/proc/self/fd");
  while (dirent* e = readdir(d)) n += e->d_name[0] != '.';
  closedir(d);
  return n - 1;  // the listing's own descriptor
}

class FileReaderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "file_reader.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
  }
  void TearDown() override {
    for (const auto& p : written_) unlink(p.c_str());
    rmdir(dir_.c_str());
  }
  std::string write_file(const std::string& name, const std::vector<uint8_t>& data) {
    const std::string path = dir_ + "/" + name;
    FILE* f = std::fopen(path.c_str(), "wb");
    EXPECT_TRUE(f != nullptr);
    if (!data.empty()) EXPECT_EQ(std::fwrite(data.data(), 1, data.size(), f), data.size());
    std::fclose(f);
    written_.push_back(path);
    return path;
  }
  static std::vector<uint8_t> random_bytes(size_t n, uint64_t seed) {
    qt::Rng rng(seed);
    std::vector<uint8_t> v(n);
    for (auto& b : v) b = (uint8_t)rng.bits();
    return v;
  }
  // Reads [offset, offset + bytes) into a poisoned buffer and checks it: the
  // bytes that exist at their place, the rest still poison, guards intact.
  void check_read(QuillonFileReader* r, const std::string& path, const std::vector<uint8_t>& file, int64_t offset,
                  int64_t bytes) {
    SCOPED_TRACE(path + " offset " + std::to_string(offset) + " bytes " + std::to_string(bytes));
    qt::DevBuf dst((size_t)bytes, 0xEE);
    ASSERT_EQ(quillon_file_reader_read(r, path.c_str(), offset, bytes, dst.get(), nullptr), hipSuccess);
    QT_HIP(hipStreamSynchronize(nullptr));
    std::vector<uint8_t> want((size_t)bytes, 0xEE);
    for (int64_t i = 0; i < bytes && offset + i < (int64_t)file.size(); ++i) want[i] = file[offset + i];
    EXPECT_BITS_EQ(dst.download<uint8_t>(), want);
    EXPECT_TRUE(dst.guards_intact());
  }
  std::string dir_;
  std::vector<std::string> written_;
};

// Sizes around the alignment and several chunks plus a tail, through rings of
// one read in flight, several, and more chunks than buffers; whole files,
// unaligned middles and ranges past the end, all through one reader each.
TEST_F(FileReaderTest, RangesOfFilesReachDstExactly) {
  struct Config {
    int32_t qd;
    int64_t chunk;
    int32_t nb;
  };
  for (Config c : {Config{1, 4096, 2}, Config{4, 8192, 6}, Config{2, 65536, 3}}) {
    SCOPED_TRACE("queue_depth " + std::to_string(c.qd) + " chunk " + std::to_string(c.chunk));
    Reader r = make_reader(c.qd, c.chunk, c.nb);
    ASSERT_TRUE(r);
    const int64_t sizes[] = {1, 4095, 4096, 4097, 7 * c.chunk + 1234};
    for (int64_t size : sizes) {
      const auto file = random_bytes((size_t)size, (uint64_t)size * 31 + c.qd);
      const std::string path = write_file("f" + std::to_string(size) + "_" + std::to_string(c.qd), file);
      check_read(r.get(), path, file, 0, size);
      check_read(r.get(), path, file, size / 3, size - size / 3 - size / 4);
      check_read(r.get(), path, file, size - 1, 5000);
    }
    const auto file = random_bytes(3 * 4096, 5);
    const std::string path = write_file("unaligned", file);
    check_read(r.get(), path, file, 5000, 100);  // one read of 4096..8192, 100 bytes from 904
    check_read(r.get(), path, file, 4095, 2);    // two aligned blocks for two bytes
    check_read(r.get(), path, file, 3 * 4096, 4096);  // wholly past the end: nothing copied
  }
}

TEST_F(FileReaderTest, MissingPathsAndZeroBytes) {
  Reader r = make_reader(2, 4096, 3);
  ASSERT_TRUE(r);
  const std::string missing = dir_ + "/missing";
  char dst[4] = {};
  // Zero bytes returns before the path is looked at; one byte finds it missing.
  EXPECT_EQ(quillon_file_reader_read(r.get(), missing.c_str(), 0, 0, dst, nullptr), hipSuccess);
  EXPECT_EQ(quillon_file_reader_read(r.get(), missing.c_str(), 0, -5, dst, nullptr), hipSuccess);
  EXPECT_EQ(quillon_file_reader_read(r.get(), missing.c_str(), 0, 1, dst, nullptr), kIoError);
  const auto file = random_bytes(10000, 9);
  check_read(r.get(), write_file("good", file), file, 0, 10000);
}

// A path is opened once and its descriptor kept: a second read needs no path
// at all, and destroy closes every descriptor the reader holds.
TEST_F(FileReaderTest, SamePathOpensOnceAndDestroyClosesAll) {
  quillon_file_reader_destroy(nullptr);
  const int before = open_fds();
  const auto a = random_bytes(20000, 11), b = random_bytes(5000, 12);
  const std::string pa = write_file("a", a), pb = write_file("b", b);
  {
    Reader r = make_reader(2, 8192, 3);
    ASSERT_TRUE(r);
    check_read(r.get(), pa, a, 0, 20000);
    check_read(r.get(), pb, b, 100, 4000);
    ASSERT_EQ(unlink(pa.c_str()), 0);
    check_read(r.get(), pa, a, 3000, 17000);
    EXPECT_EQ(open_fds(), before + 3);  // the ring and two files
    Reader fresh = make_reader(1, 4096, 2);
    ASSERT_TRUE(fresh);
    char dst[1];
    EXPECT_EQ(quillon_file_reader_read(fresh.get(), pa.c_str(), 0, 1, dst, nullptr), kIoError);
  }
  EXPECT_EQ(open_fds(), before);
}

// A file cut short after its size was remembered: the read that finds no bytes
// before that size fails with reads still in flight, which are drained; the
// reader then serves the same path again once the file has its bytes back.
TEST_F(FileReaderTest, ShortReadBeforeEndFailsAndDrains) {
  const int64_t chunk = 4096, n = 12 * chunk;
  const auto file = random_bytes((size_t)n, 21);
  const std::string path = write_file("shrinks", file);
  Reader r = make_reader(4, chunk, 6);
  ASSERT_TRUE(r);
  check_read(r.get(), path, file, 0, n);
  ASSERT_EQ(truncate(path.c_str(), 2 * chunk), 0);
  qt::DevBuf dst((size_t)n, 0xEE);
  EXPECT_EQ(quillon_file_reader_read(r.get(), path.c_str(), 0, n, dst.get(), nullptr), kIoError);
  QT_HIP(hipStreamSynchronize(nullptr));
  // Only chunks that arrived whole may have been copied; none past the cut.
  const auto got = dst.download<uint8_t>();
  for (int64_t c = 0; c < n / chunk; ++c) {
    const bool poison = std::all_of(got.begin() + c * chunk, got.begin() + (c + 1) * chunk,
                                    [](uint8_t v) { return v == 0xEE; });
    const bool copied = std::equal(got.begin() + c * chunk, got.begin() + (c + 1) * chunk, file.begin() + c * chunk);
    EXPECT_TRUE(poison || (copied && c < 2)) << "chunk " << c;
  }
  // Same inode, bytes restored: every buffer must be back on the stack.
  FILE* f = std::fopen(path.c_str(), "r+b");
  ASSERT_TRUE(f != nullptr);
  ASSERT_EQ(std::fwrite(file.data(), 1, file.size(), f), file.size());
  std::fclose(f);
  check_read(r.get(), path, file, 0, n);
  check_read(r.get(), path, file, 777, n - 1000);
}

TEST(FileReaderFatal, CreateArguments) {
  struct Case {
    int32_t qd;
    int64_t chunk;
    int32_t nb;
    std::string msg;
  };
  const std::string drain = ": a slot whose H2D is still draining cannot take a new read";
  const Case cases[] = {
      {1, 4097, 2, "chunk_bytes (4097) must be a multiple of 4096"},
      {2, 2048, 2, "chunk_bytes (2048) must be a multiple of 4096"},  // checked before the buffers
      {1, 0, 2, "chunk_bytes (0) must be a multiple of 4096"},
      {2, 4096, 2, "num_buffers (2) must exceed queue_depth (2)" + drain},
      {4, 8192, 3, "num_buffers (3) must exceed queue_depth (4)" + drain},
  };
  for (const Case& c : cases) EXPECT_QUILLON_FATAL(quillon_file_reader_create(c.qd, c.chunk, c.nb), c.msg);
}
}  // namespace
