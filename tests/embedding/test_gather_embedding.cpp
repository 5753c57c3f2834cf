// Embedding gather: ids to rows for every geometry, and the grid that the
// compute unit count caps (observed through block sampling).
#include <cstdlib>
#include <map>

#include "common/test_util.h"
#include "common/device_ext.h"
#include "quillon/quillon.h"
#include "reference/embedding_ref.h"

namespace {

using qt::sync_ok;

// A full-vocabulary table in lazily committed device memory; only the rows a
// test names are written, on both sides.
class SparseTable {
 public:
  SparseTable(int64_t vocab, int64_t hidden) : hidden_(hidden) {
    if (hipMalloc(&base_, (size_t)(vocab * hidden * 2)) != hipSuccess) base_ = nullptr;
  }
  ~SparseTable() {
    if (base_) (void)hipFree(base_);
  }
  void* get() const { return base_; }
  void fill(const std::vector<int64_t>& ids, qt::Rng& rng) {
    for (int64_t id : ids) {
      if (rows_.count(id)) continue;
      std::vector<uint16_t> row((size_t)hidden_);
      for (auto& h : row) h = (uint16_t)rng.bits();
      ASSERT_EQ(hipMemcpy(static_cast<uint8_t*>(base_) + id * hidden_ * 2, row.data(), row.size() * 2,
                          hipMemcpyHostToDevice),
                hipSuccess);
      rows_[id] = std::move(row);
    }
  }
  const std::map<int64_t, std::vector<uint16_t>>& rows() const { return rows_; }

 private:
  void* base_ = nullptr;
  int64_t hidden_;
  std::map<int64_t, std::vector<uint16_t>> rows_;
};

QuillonModelConfig select(int id) {
  EXPECT_EQ(quillon_select_geometry(id), 0);
  QuillonModelConfig c{};
  quillon_model_config(&c);
  return c;
}

TEST(GatherEmbedding, EveryGeometryBoundaryAndRepeatedIds) {
  qt::Rng rng(501);
  for (int g = 0; g < 4; ++g) {
    if (!quillon::geometry_built(g)) continue;
    const QuillonModelConfig c = select(g);
    const int64_t V = c.vocab_size, H = c.hidden_size;
    SCOPED_TRACE(testing::Message() << "geometry " << g);
    std::vector<int64_t> ids = {0, V - 1, 5, 5, 0, 12345, V - 1};
    for (int i = 0; i < 6; ++i) ids.push_back(rng.integer(0, V - 1));
    const int64_t n = (int64_t)ids.size();
    SparseTable table(V, H);
    ASSERT_NE(table.get(), nullptr);
    table.fill(ids, rng);
    auto dids = qt::DevBuf::from(ids);
    qt::DevBuf dout((size_t)(n * H * 2));
    ASSERT_EQ(quillon_gather_embedding(dids.as<int64_t>(), table.get(), dout.get(), n, nullptr), hipSuccess);
    sync_ok();
    const auto got = dout.download<uint16_t>();
    EXPECT_BITS_EQ(got, ref::embedding::gather(ids, table.rows(), H));
    EXPECT_TRUE(std::equal(got.begin() + 2 * H, got.begin() + 3 * H, got.begin() + 3 * H));
    EXPECT_TRUE(dout.guards_intact());
    EXPECT_TRUE(dids.guards_intact());
  }
}

// No ids: the grid is empty, and the status is the device's answer to that,
// not success; nothing is written and the error does not stick.
TEST(GatherEmbedding, NoIdsIsAnEmptyLaunch) {
  select(0);
  qt::DevBuf ids(8), out(64);
  EXPECT_NE(quillon_gather_embedding(ids.as<int64_t>(), out.get(), out.get(), 0, nullptr), hipSuccess);
  sync_ok();
  for (uint8_t b : out.download<uint8_t>()) ASSERT_EQ(b, 0xFF);
}

// The unit count this process runs with: QUILLON_NUM_CUS, else twice the
// device's multiprocessor count, else 40.
int64_t expected_cus() {
  if (const char* e = std::getenv("QUILLON_NUM_CUS"); e && *e) return std::atoll(e);
  int dev = 0;
  hipDeviceProp_t p{};
  if (hipGetDevice(&dev) != hipSuccess || hipGetDeviceProperties(&p, dev) != hipSuccess || p.multiProcessorCount < 1)
    return 40;
  return 2 * (int64_t)p.multiProcessorCount;
}

// Runs the gather with only `blocks` of its grid; returns, per 16-byte chunk
// of the output, whether it holds the expected bytes (true) or the poison.
std::vector<bool> written_chunks(int geometry, int64_t n, const std::vector<int64_t>& blocks) {
  qt::Rng rng(502);
  const QuillonModelConfig c = select(geometry);
  const int64_t H = c.hidden_size, C = H / 8;
  std::vector<int64_t> ids((size_t)n);
  for (int64_t r = 0; r < n; ++r) ids[(size_t)r] = (r * 7919) % 5;
  SparseTable table(c.vocab_size, H);
  table.fill(ids, rng);
  auto dids = qt::DevBuf::from(ids);
  qt::DevBuf dout((size_t)(n * H * 2));
  qt::sample_next_launch(blocks);
  EXPECT_EQ(quillon_gather_embedding(dids.as<int64_t>(), table.get(), dout.get(), n, nullptr), hipSuccess);
  sync_ok();
  const auto got = dout.download<uint16_t>();
  const auto want = ref::embedding::gather(ids, table.rows(), H);
  std::vector<bool> written((size_t)(n * C));
  for (size_t i = 0; i < written.size(); ++i) {
    const bool ok = std::equal(got.begin() + i * 8, got.begin() + i * 8 + 8, want.begin() + i * 8);
    const bool poison = std::all_of(got.begin() + i * 8, got.begin() + i * 8 + 8, [](uint16_t h) { return h == 0xFFFF; });
    EXPECT_TRUE(ok || poison) << "chunk " << i << " holds neither the row nor the poison";
    written[i] = ok;
  }
  EXPECT_TRUE(dout.guards_intact());
  return written;
}

TEST(GatherGrid, CapsAtSixtyFourBlocksPerUnit) {
  QT_NEEDS_CPU_DEVICE("which workgroup wrote which chunk");
  // Geometry 2: 512 chunks a row, two blocks of work per row. Enough rows for
  // 2.5 times the cap, so the first and the last block each stride over it.
  QT_REQUIRE_GEOMETRY(2);
  const int64_t cap = 64 * expected_cus(), per_sweep = cap * 256;
  const int64_t n = (5 * per_sweep / 2 + 511) / 512;
  SCOPED_TRACE(testing::Message() << "cap " << cap << " rows " << n);
  const auto written = written_chunks(2, n, {0, cap - 1});
  for (int64_t i = 0; i < (int64_t)written.size(); ++i) {
    const int64_t block = (i % per_sweep) / 256;
    ASSERT_EQ(written[(size_t)i], block == 0 || block == cap - 1) << "chunk " << i;
  }
}

TEST(GatherGrid, RoundsTheChunkCountUp) {
  QT_NEEDS_CPU_DEVICE("which workgroup wrote which chunk");
  // Geometry 3: one row is 320 chunks, so two blocks; the second does 64.
  QT_REQUIRE_GEOMETRY(3);
  const auto written = written_chunks(3, 1, {1});
  for (int64_t i = 0; i < 320; ++i) ASSERT_EQ(written[(size_t)i], i >= 256) << "chunk " << i;
}

TEST(GatherEmbeddingDeathTest, NeedsAGeometry) {
  if (quillon_active_geometry() >= 0) GTEST_SKIP() << "a geometry is already selected in this process";
  EXPECT_QUILLON_FATAL(quillon_gather_embedding(nullptr, nullptr, nullptr, 1, nullptr), qt::kNoGeometry);
}

}  // namespace
