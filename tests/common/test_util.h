// Shared test helpers: device buffers with poison and guard bytes, seeded
// inputs, bf16 helpers, and the fatal-message matcher.
#pragma once
#include <gtest/gtest.h>
#include <hip/hip_runtime_api.h>

#include <csignal>
#include <cstdint>
#include <cstring>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include "../../csrc/device/geometry.h"
#include "quillon/quillon.h"
#include "../../csrc/platform/numerics.h"

namespace qt {

#define QT_HIP(call) ASSERT_EQ((call), hipSuccess) << #call

inline float bf(uint16_t h) { return quillon::num::bf16_to_float(h); }
inline uint16_t to_bf(float f) { return quillon::num::bf16_rne(f); }

// Seeded generator; every test names its seed so a failure replays.
struct Rng {
  std::mt19937_64 g;
  explicit Rng(uint64_t seed) : g(seed) {}
  float uniform(float lo, float hi) { return std::uniform_real_distribution<float>(lo, hi)(g); }
  int64_t integer(int64_t lo, int64_t hi) { return std::uniform_int_distribution<int64_t>(lo, hi)(g); }
  uint32_t bits() { return (uint32_t)g(); }
  std::vector<uint16_t> bf16s(size_t n, float lo = -2.0f, float hi = 2.0f) {
    std::vector<uint16_t> v(n);
    for (auto& x : v) x = to_bf(uniform(lo, hi));
    return v;
  }
  std::vector<float> floats(size_t n, float lo = -2.0f, float hi = 2.0f) {
    std::vector<float> v(n);
    for (auto& x : v) x = uniform(lo, hi);
    return v;
  }
};

// A device allocation with guard bytes on both sides. The body starts poisoned
// (0xFF bytes: NaN in bf16 and fp32) so unwritten outputs stand out.
class DevBuf {
 public:
  static constexpr size_t kGuard = 256;
  static constexpr uint8_t kGuardByte = 0xA5;
  DevBuf() = default;
  explicit DevBuf(size_t bytes, uint8_t poison = 0xFF) : bytes_(bytes) {
    if (hipMalloc(&base_, bytes + 2 * kGuard) != hipSuccess) throw std::runtime_error("hipMalloc");
    std::vector<uint8_t> init(bytes + 2 * kGuard, kGuardByte);
    std::memset(init.data() + kGuard, poison, bytes);
    (void)hipMemcpy(base_, init.data(), init.size(), hipMemcpyHostToDevice);
  }
  template <class T>
  static DevBuf from(const std::vector<T>& v) {
    DevBuf b(v.size() * sizeof(T));
    b.upload(v);
    return b;
  }
  DevBuf(DevBuf&& o) noexcept { *this = std::move(o); }
  DevBuf& operator=(DevBuf&& o) noexcept {
    std::swap(base_, o.base_);
    std::swap(bytes_, o.bytes_);
    return *this;
  }
  ~DevBuf() {
    if (base_) (void)hipFree(base_);
  }
  void* get() const { return base_ ? static_cast<uint8_t*>(base_) + kGuard : nullptr; }
  template <class T>
  T* as() const { return static_cast<T*>(get()); }
  size_t bytes() const { return bytes_; }
  template <class T>
  void upload(const std::vector<T>& v) {
    ASSERT_LE(v.size() * sizeof(T), bytes_);
    ASSERT_EQ(hipMemcpy(get(), v.data(), v.size() * sizeof(T), hipMemcpyHostToDevice), hipSuccess);
  }
  template <class T>
  std::vector<T> download() const {
    std::vector<T> v(bytes_ / sizeof(T));
    (void)hipMemcpy(v.data(), get(), v.size() * sizeof(T), hipMemcpyDeviceToHost);
    return v;
  }
  // True when both guard regions are untouched.
  bool guards_intact() const {
    std::vector<uint8_t> g(kGuard);
    for (size_t off : {size_t(0), kGuard + bytes_}) {
      (void)hipMemcpy(g.data(), static_cast<uint8_t*>(base_) + off, kGuard, hipMemcpyDeviceToHost);
      for (uint8_t b : g)
        if (b != kGuardByte) return false;
    }
    return true;
  }

 private:
  void* base_ = nullptr;
  size_t bytes_ = 0;
};

// A fatal message as the whole tail of stderr: the library's prefix with any
// path and line, the exact text, one newline, and nothing after it.
inline std::string fatal_re(const std::string& msg) {
  static const std::regex special(R"([.^$|()\[\]{}*+?\\])");
  return "(^|\n)\\[quillon\\] [^:\n]+:[0-9]+: " + std::regex_replace(msg, special, R"(\$&)") + "\n$";
}
class FatalTail : public ::testing::MatcherInterface<const std::string&> {
 public:
  explicit FatalTail(const std::string& msg) : text_(msg), re_(fatal_re(msg)) {}
  bool MatchAndExplain(const std::string& err, ::testing::MatchResultListener*) const override {
    return std::regex_search(err, re_);
  }
  void DescribeTo(std::ostream* os) const override { *os << "ends with the fatal message: " << text_; }

 private:
  std::string text_;
  std::regex re_;
};
inline ::testing::Matcher<const std::string&> fatal_message(const std::string& msg) {
  return ::testing::MakeMatcher(new FatalTail(msg));
}

// The launches went in and finished.
inline void sync_ok() {
  ASSERT_EQ(hipGetLastError(), hipSuccess);
  ASSERT_EQ(hipStreamSynchronize(nullptr), hipSuccess);
}

inline const char* const kGeometryTwo =
    "geometry 2 does not carry this op; it belongs to a model family this build instantiates for other ids "
    "(see quillon_geometry_name)";
inline const char* const kNoGeometry =
    "no model geometry is selected; call quillon_select_geometry(id) once before any other entry point";

// Index of the first differing element, or -1.
template <class T>
inline int64_t first_mismatch(const std::vector<T>& a, const std::vector<T>& b) {
  if (a.size() != b.size()) return 0;
  for (size_t i = 0; i < a.size(); ++i)
    if (std::memcmp(&a[i], &b[i], sizeof(T)) != 0) return (int64_t)i;
  return -1;
}

}  // namespace qt

// Geometry g selected, or the case skipped where the build leaves g out
// (QUILLON_GEOMETRIES). Loops over geometries pass such ids by with
// `if (!quillon::geometry_built(g)) continue;`. In a helper the skip returns
// from the helper only.
#define QT_REQUIRE_GEOMETRY(g) \
  if (!::quillon::geometry_built(g)) GTEST_SKIP() << "geometry " << (g) << " not built"
#define QT_SELECT_GEOMETRY(g)                \
  do {                                       \
    QT_REQUIRE_GEOMETRY(g);                  \
    ASSERT_EQ(quillon_select_geometry(g), 0); \
  } while (0)

// A broken contract: the process aborts, and stderr ends with exactly the
// message after "[quillon] <path>:<line>: ".
#define EXPECT_QUILLON_FATAL(stmt, msg) \
  EXPECT_EXIT(stmt, ::testing::KilledBySignal(SIGABRT), ::qt::fatal_message(msg))

// Bit-exact comparison with a readable first difference.
#define EXPECT_BITS_EQ(got, want)                                                     \
  do {                                                                                \
    int64_t qt_i_ = ::qt::first_mismatch((got), (want));                             \
    EXPECT_EQ(qt_i_, -1) << "first difference at element " << qt_i_ << " of " << (want).size(); \
  } while (0)
