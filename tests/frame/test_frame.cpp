// The ABI frame: records, selection, names, and the fatal contracts.
#include <cstdlib>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "common/test_util.h"
#include "device/device_config.h"
#include "quillon/quillon.h"

namespace {

// The record's columns, in field order, for geometries 0..3.
const int64_t kColumns[37][4] = {
    {2048, 5120, 4096, 2560}, {16, 24, 64, 24}, {2, 4, 1, 2}, {256, 256, 512, 256}, {16, 16, 16, 16},
    {248320, 248320, 129280, 248320}, {9216, 14336, 0, 13312}, {512, 512, 0, 512}, {256, 256, 0, 256},
    {8192, 12288, 0, 12288}, {8704, 13312, 0, 12800}, {16, 16, 0, 16}, {32, 48, 0, 48}, {128, 128, 0, 128},
    {128, 128, 0, 128}, {2048, 2048, 0, 2048}, {4096, 6144, 0, 6144}, {8192, 10240, 0, 10240}, {4, 4, 0, 4},
    {3, 3, 0, 3}, {12352, 16480, 0, 16480}, {12416, 16512, 0, 16512}, {128, 128, 0, 128}, {0, 0, 0, 0},
    {8192, 10240, 0, 10240}, {12288, 16384, 0, 16384}, {12320, 16432, 0, 16432}, {256, 0, 256, 512},
    {256, 0, 256, 512}, {257, 0, 257, 513}, {8, 0, 6, 10}, {9, 0, 7, 11}, {512, 0, 2048, 640},
    {1024, 1024, 1024, 1024}, {32, 32, 32, 32}, {0, 17408, 0, 0}, {0, 34816, 0, 0}};

TEST(Record, ExactColumnsForEveryGeometry) {
  for (int g = 0; g < 4; ++g) {
    if (!quillon::geometry_built(g)) continue;
    ASSERT_EQ(quillon_select_geometry(g), 0);
    ASSERT_EQ(quillon_active_geometry(), g);
    QuillonModelConfig c;
    std::memset(&c, 0x5a, sizeof c);
    quillon_model_config(&c);
    const int64_t* f = reinterpret_cast<const int64_t*>(&c);
    for (int i = 0; i < 37; ++i) EXPECT_EQ(f[i], kColumns[i][g]) << "geometry " << g << " field " << i;
  }
}

// Selection is process-wide: these children re-run the executable for this one
// case, so they start with nothing selected however the suite is run.
TEST(Selection, FreshProcessHasNothingSelected) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        std::exit(quillon_active_geometry() == -1 && quillon_active_draft() == -1 && quillon_abi_version() == 56
                      ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST(Selection, OutOfRangeIdsLeaveTheGeometry) {
  QT_SELECT_GEOMETRY(3);
  EXPECT_EQ(quillon_select_geometry(4), 1);
  EXPECT_EQ(quillon_select_geometry(-1), 1);
  EXPECT_EQ(quillon_active_geometry(), 3);
  EXPECT_EQ(quillon_abi_version(), 56);
}

// A build without some geometry (QUILLON_GEOMETRIES) refuses it like an
// unknown id, keeps the selection, and names the option on stderr.
TEST(Selection, GeometryLeftOutOfTheBuild) {
  int in = -1, out = -1;
  for (int g = 0; g < 4; ++g) (quillon::geometry_built(g) ? in : out) = g;
  if (out < 0) GTEST_SKIP() << "every geometry is built";
  ASSERT_EQ(quillon_select_geometry(in), 0);
  testing::internal::CaptureStderr();
  EXPECT_EQ(quillon_select_geometry(out), 1);
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(quillon_active_geometry(), in);
  char name[32];
  quillon_geometry_name(out, name, sizeof name);
  const std::string want = "geometry " + std::to_string(out) + " (" + name +
                           ") is not built into this library; configure it with QUILLON_GEOMETRIES including " +
                           std::to_string(out);
  EXPECT_TRUE(std::regex_search(err, std::regex(qt::fatal_re(want)))) << err;
}

TEST(Names, CopyRules) {
  char buf[16];
  std::memset(buf, 'x', sizeof buf);
  EXPECT_EQ(quillon_geometry_name(7, buf, 16), 0);
  EXPECT_STREQ(buf, "");
  std::memset(buf, 'x', sizeof buf);
  EXPECT_EQ(quillon_geometry_name(0, nullptr, 0), 15);
  EXPECT_EQ(quillon_geometry_name(0, buf, 0), 15);
  EXPECT_EQ(buf[0], 'x');
  EXPECT_EQ(quillon_geometry_name(0, buf, 4), 15);
  EXPECT_STREQ(buf, "qwe");
  EXPECT_EQ(buf[4], 'x');
  const char* names[] = {"qwen3.6-35b-a3b", "qwen3.6-27b", "deepseek-v4-flash", "qwen3.8-flash-next"};
  for (int g = 0; g < 4; ++g) {
    char full[32];
    EXPECT_EQ(quillon_geometry_name(g, full, sizeof full), (int64_t)std::strlen(names[g]));
    EXPECT_STREQ(full, names[g]);
  }
  char d[32];
  EXPECT_EQ(quillon_draft_name(0, d, sizeof d), 22);
  EXPECT_STREQ(d, "qwen3.6-35b-a3b-dflash");
  EXPECT_EQ(quillon_draft_name(1, d, sizeof d), 19);
  EXPECT_STREQ(d, "qwen3.8-27b-dflash2");
  EXPECT_EQ(quillon_draft_name(2, d, sizeof d), 0);
  EXPECT_STREQ(d, "");
  EXPECT_EQ(quillon_draft_name(-1, nullptr, 5), 0);
}

TEST(Drafts, SelectionByDeclaredShape) {
  EXPECT_EQ(quillon_draft_count(), 2);
  QuillonDraftShape s0, s1, probe;
  ASSERT_EQ(quillon_draft_shape(0, &s0), 0);
  ASSERT_EQ(quillon_draft_shape(1, &s1), 0);
  EXPECT_EQ(s0.num_target_taps * s0.hidden_size, 16384);
  EXPECT_EQ(s1.num_target_taps * s1.hidden_size, 25600);
  EXPECT_EQ(s1.intermediate, 17408);
  std::memset(&probe, 0x33, sizeof probe);
  EXPECT_EQ(quillon_draft_shape(2, &probe), 1);
  EXPECT_EQ(quillon_draft_shape(-1, &probe), 1);
  EXPECT_EQ(probe.hidden_size, 0x3333333333333333LL);  // untouched

  QuillonDraftShape bad = s1;
  bad.head_dim = 64;
  EXPECT_EQ(quillon_select_draft(&bad), 1);
  EXPECT_EQ(quillon_select_draft(&s1), 0);
  EXPECT_EQ(quillon_active_draft(), 1);
  bad = s0;
  bad.num_layers = 7;  // compared, though used for nothing else
  EXPECT_EQ(quillon_select_draft(&bad), 1);
  EXPECT_EQ(quillon_active_draft(), 1);
  bad = s1;
  bad.num_q_heads = 16;
  EXPECT_EQ(quillon_select_draft(&bad), 1);
  bad = s1;
  bad.hidden_size = s0.hidden_size;  // a mix of both drafts matches neither
  EXPECT_EQ(quillon_select_draft(&bad), 1);
  EXPECT_EQ(quillon_select_draft(&s0), 0);
  EXPECT_EQ(quillon_active_draft(), 0);
}

TEST(Small, PureFunctions) {
  int64_t sizes[2] = {-1, -1};
  EXPECT_EQ(quillon_kv_block_sizes(nullptr, 0), 1);
  EXPECT_EQ(quillon_kv_block_sizes(sizes, 0), 1);
  EXPECT_EQ(sizes[0], -1);
  EXPECT_EQ(quillon_kv_block_sizes(sizes, 2), 1);
  EXPECT_EQ(sizes[0], 16);
  EXPECT_EQ(sizes[1], -1);
  EXPECT_EQ(quillon_shuffle_bytes(0), 0);
  EXPECT_EQ(quillon_shuffle_bytes(123456789012LL), 123456789012LL);
  EXPECT_STREQ(quillon_error_string(hipSuccess), hipGetErrorString(hipSuccess));
  EXPECT_STREQ(quillon_error_string(hipErrorInvalidConfiguration), hipGetErrorString(hipErrorInvalidConfiguration));
  EXPECT_EQ(quillon_synchronize(nullptr), hipSuccess);
}

TEST(FrameDeathTest, ConfigWithoutSelection) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_QUILLON_FATAL(
      {
        QuillonModelConfig c;
        quillon_model_config(&c);
      },
      qt::kNoGeometry);
}

// Compute unit count: each case runs in its own process with its own
// QUILLON_NUM_CUS (see CMakeLists.txt); QT_EXPECT_CUS holds the expectation.
TEST(NumCus, FromEnvironment) {
  const char* want = std::getenv("QT_EXPECT_CUS");
  if (!want) GTEST_SKIP() << "needs its own process; registered as frame.num_cus.*";
  EXPECT_EQ(quillon::num_cus(), std::atoi(want));
  int p2 = 1;
  while (p2 < std::atoi(want)) p2 <<= 1;
  EXPECT_EQ(quillon::num_cus_p2(), p2);
}

TEST(NumCus, FirstUseFromManyThreadsAgrees) {
  if (!std::getenv("QT_EXPECT_CUS")) GTEST_SKIP() << "needs its own process";
  std::vector<std::thread> ts;
  std::vector<int> got(8);
  for (int i = 0; i < 8; ++i) ts.emplace_back([&, i] { got[i] = quillon::num_cus(); });
  for (auto& t : ts) t.join();
  for (int v : got) EXPECT_EQ(v, std::atoi(std::getenv("QT_EXPECT_CUS")));
}

// The rule, each value read by a fresh child of a process that has not read
// the count yet (registered as frame.num_cus_rule): decimal digits only, the
// whole string, 1..1024.
TEST(NumCusDeathTest, DecimalDigitsOnly) {
  if (!std::getenv("QT_CUS_RULE")) GTEST_SKIP() << "needs its own process; registered as frame.num_cus_rule";
  const std::pair<const char*, int> good[] = {{"1", 1}, {"0007", 7}, {"1024", 1024}, {"000000000000000000001024", 1024}};
  for (auto [v, want] : good)
    EXPECT_EXIT((setenv("QUILLON_NUM_CUS", v, 1), std::exit(quillon::num_cus() == want ? 0 : 1)),
                testing::ExitedWithCode(0), "")
        << v;
  std::vector<std::string> bad = {"0", "00", "1025", "-3", "-0", "+7", "12abc", "0x10", "7.0", "7e0",
                                  "18446744073709551617", "99999999999999999999999"};
  for (char ws : std::string(" \t\n\v\f\r")) {
    bad.push_back(std::string(1, ws) + "7");
    bad.push_back("7" + std::string(1, ws));
  }
  for (const std::string& v : bad)
    EXPECT_QUILLON_FATAL((setenv("QUILLON_NUM_CUS", v.c_str(), 1), (void)quillon::num_cus()),
                         "QUILLON_NUM_CUS must be a positive integer <= 1024 (got \"" + v + "\")");
}

}  // namespace
