// Format ids, named sets and the dispatchers over them.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "common/test_util.h"
#include "quillon/dispatch.h"
#include "quillon/kquant_sets.h"

namespace {
using namespace quillon;

template <class List>
std::vector<int> ids_of() {
  std::vector<int> v;
  List::for_each([&](auto x) { v.push_back(decltype(x)::value); });
  return v;
}

// The build reads the sets out of the header (cmake/kquant_sets.cmake): both
// must hold the same ids, and the id test must accept exactly the Formats.
TEST(KQuantSets, BuildReadsTheHeaderLists) {
  const std::pair<std::vector<int>, std::vector<int>> lists[] = {
      {ids_of<kq::Formats>(), {QT_CMAKE_Formats}},
      {ids_of<kq::KnownFormat>(), {QT_CMAKE_KnownFormat}},
      {ids_of<kq::GeneralGemm>(), {QT_CMAKE_GeneralGemm}},
      {ids_of<kq::DenseProjection>(), {QT_CMAKE_DenseProjection}},
      {ids_of<kq::RaggedK>(), {QT_CMAKE_RaggedK}},
      {ids_of<kq::DraftProjection>(), {QT_CMAKE_DraftProjection}}};
  for (const auto& [header, cmake] : lists) EXPECT_EQ(header, cmake);
  const std::vector<int> formats = ids_of<kq::Formats>();
  for (long long id = -70; id < 70; ++id)
    EXPECT_EQ(kq::is_format_id(id), std::count(formats.begin(), formats.end(), id) == 1) << id;
}

// Each member reaches the action with itself as a compile-time constant, and
// the action's result comes back.
template <class Set>
void expect_dispatch_serves_members() {
  for (int id : ids_of<Set>()) {
    const int got = kq::on_kquant<Set>(QUILLON_HERE, id, [&](auto f) {
      static_assert(std::is_same_v<decltype(f), Value<decltype(f)::value>>, "compile-time id");
      return decltype(f)::value * 10 + 1;
    });
    EXPECT_EQ(got, id * 10 + 1) << Set::name;
  }
}

TEST(KQuantSets, DispatchServesMembers) {
  expect_dispatch_serves_members<kq::KnownFormat>();
  expect_dispatch_serves_members<kq::GeneralGemm>();
  expect_dispatch_serves_members<kq::DenseProjection>();
  expect_dispatch_serves_members<kq::RaggedK>();
  expect_dispatch_serves_members<kq::DraftProjection>();
  int calls = 0;
  kq::on_kquant<kq::RaggedK>(QUILLON_HERE, 20, [&](auto) { ++calls; });
  EXPECT_EQ(calls, 1);
}

TEST(KQuantSetsDeathTest, SetMessages) {
  auto nop = [](auto) {};
  EXPECT_QUILLON_FATAL(kq::on_kquant<kq::KnownFormat>(QUILLON_HERE, 7, nop),
                       "k-quant format 7 is not in this build's known-format set (kquant_sets)");
  EXPECT_QUILLON_FATAL(kq::on_kquant<kq::GeneralGemm>(QUILLON_HERE, 24, nop),
                       "k-quant format 24 is not in this build's general-GEMM set (kquant_sets)");
  EXPECT_QUILLON_FATAL(kq::on_kquant<kq::DenseProjection>(QUILLON_HERE, 2, nop),
                       "k-quant format 2 is not in this build's dense-projection set (kquant_sets)");
  EXPECT_QUILLON_FATAL(kq::on_kquant<kq::RaggedK>(QUILLON_HERE, 4, nop),
                       "k-quant format 4 is not in this build's ragged-K set (kquant_sets)");
  EXPECT_QUILLON_FATAL(kq::on_kquant<kq::DraftProjection>(QUILLON_HERE, 3, nop),
                       "k-quant format 3 is not in this build's draft-projection set (kquant_sets)");
}

TEST(KQuantSetsDeathTest, FormatIdMessage) {
  for (int id : {7, 24, -1, 1, 22, 2147483647}) {
    EXPECT_QUILLON_FATAL(kq::require_format_id(QUILLON_HERE, id),
                         std::to_string(id) + " is not a k-quant format id (see kquant_sets's FORMATS list)");
  }
  for (int id : ids_of<kq::Formats>()) kq::require_format_id(QUILLON_HERE, id);
}

// The message carries the path of the file the switch stands in.
TEST(KQuantSetsDeathTest, MessageNamesTheCallSite) {
  EXPECT_DEATH(kq::on_kquant<kq::RaggedK>(QUILLON_HERE, 4, [](auto) {}),
               "\\[quillon\\] [^:]*tests/formats/kquant_sets_test\\.cpp:[0-9]+: k-quant format 4");
}

using MoeRowBlock = ValueList<64, 128>;

TEST(ValueDispatch, FirstMatchInListOrder) {
  std::vector<int> seen;
  for (long long v : {64LL, 128LL})
    dispatch_value<MoeRowBlock>(QUILLON_HERE, v, [&](auto x) { seen.push_back(decltype(x)::value); });
  EXPECT_EQ(seen, (std::vector<int>{64, 128}));
  EXPECT_EQ(dispatch_value<ValueList<72>>(QUILLON_HERE, 72, [](auto x) { return decltype(x)::value + 0.5; }), 72.5);
  EXPECT_TRUE(MoeRowBlock::contains(128));
  EXPECT_FALSE(MoeRowBlock::contains(96));
}

TEST(ValueDispatchDeathTest, Messages) {
  auto nop = [](auto) {};
  EXPECT_QUILLON_FATAL(dispatch_value<MoeRowBlock>(QUILLON_HERE, 96, nop), "no compiled variant for 96");
  EXPECT_QUILLON_FATAL(dispatch_value<ValueList<72>>(QUILLON_HERE, 64, nop), "no compiled variant for 64");
  EXPECT_QUILLON_FATAL(dispatch_value<ValueList<1152>>(QUILLON_HERE, -1, nop), "no compiled variant for -1");
}

TEST(SingleValueDeathTest, Messages) {
  require_instantiated<4>(QUILLON_HERE, "dsv4_hc_gate", "n_hc", 4);
  require_instantiated<1, 4>(QUILLON_HERE, "qwen4exp_indexer_rope", "heads", 1);
  EXPECT_QUILLON_FATAL(require_instantiated<4>(QUILLON_HERE, "dsv4_hc_gate", "n_hc", 8),
                       "dsv4_hc_gate: no instantiation for n_hc 8");
  EXPECT_QUILLON_FATAL(require_instantiated<4>(QUILLON_HERE, "qwen4exp_hc_fold", "n_hc", -2),
                       "qwen4exp_hc_fold: no instantiation for n_hc -2");
  EXPECT_QUILLON_FATAL(require_instantiated<128>(QUILLON_HERE, "qwen4exp_qsa_carry", "D", 4096000000LL),
                       "qwen4exp_qsa_carry: no instantiation for D 4096000000");
}

}  // namespace
