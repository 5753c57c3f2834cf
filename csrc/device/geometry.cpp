#include "geometry.h"

#include <atomic>
#include <cstdio>
#include <cstring>

#include "../platform/fatal.h"

namespace quillon {
namespace {
// Plain stores: the engine selects between steps, never concurrently with work.
std::atomic<int32_t> g_geometry{-1};
std::atomic<int32_t> g_draft{-1};

constexpr const char* kGeometryNames[] = {"qwen3.6-35b-a3b", "qwen3.6-27b", "deepseek-v4-flash", "qwen3.8-flash-next"};
constexpr const char* kDraftNames[] = {"qwen3.6-35b-a3b-dflash", "qwen3.8-27b-dflash2"};

template <class D>
constexpr QuillonDraftShape shape_of() {
  return QuillonDraftShape{D::hidden_size, D::num_layers,   D::num_q_heads,    D::num_kv_heads,
                           D::head_dim,    D::intermediate, D::num_target_taps};
}
constexpr QuillonDraftShape kDrafts[] = {shape_of<DraftShape0>(), shape_of<DraftShape1>()};
}  // namespace

int32_t active_geometry() { return g_geometry.load(std::memory_order_relaxed); }
int32_t active_draft() { return g_draft.load(std::memory_order_relaxed); }

// A known geometry left out of the build is refused like an unknown id, with a
// line saying how to build it: the engine learns it at selection, not at the
// first operator.
int32_t select_geometry(int32_t id) {
  if ((uint32_t)id > 3u) return 1;
  if (!geometry_built(id)) {
    std::fprintf(stderr,
                 "[quillon] %s:%d: geometry %d (%s) is not built into this library; configure it with "
                 "QUILLON_GEOMETRIES including %d\n",
                 __FILE__, __LINE__, id, kGeometryNames[id], id);
    return 1;
  }
  g_geometry.store(id, std::memory_order_relaxed);
  return 0;
}

int32_t select_draft(const QuillonDraftShape* shape) {
  if (!shape) return 1;
  QuillonDraftShape s;
  std::memcpy(&s, shape, sizeof s);
  if (s.head_dim != 128 || s.num_kv_heads != 8 || s.num_q_heads != 32) return 1;
  for (int32_t d = 0; d < 2; ++d) {
    const QuillonDraftShape& k = kDrafts[d];
    if (s.hidden_size == k.hidden_size && s.num_layers == k.num_layers && s.intermediate == k.intermediate &&
        s.num_target_taps == k.num_target_taps) {
      g_draft.store(d, std::memory_order_relaxed);
      return 0;
    }
  }
  return 1;
}

const char* geometry_name(int32_t id) { return (uint32_t)id < 4u ? kGeometryNames[id] : ""; }
const char* draft_name(int32_t id) { return (uint32_t)id < 2u ? kDraftNames[id] : ""; }

bool draft_shape(int32_t id, QuillonDraftShape* out) {
  if (id < 0 || id >= 2) return false;
  if (out) *out = kDrafts[id];
  return true;
}

void geometry_failure_at(const char* file, int line, int32_t g) {
  if (g < 0)
    fatal_at(file, line,
             "no model geometry is selected; call quillon_select_geometry(id) once before any other entry point");
  fatal_at(file, line,
           "geometry %d does not carry this op; it belongs to a model family this build instantiates for other ids "
           "(see quillon_geometry_name)",
           g);
}

void draft_failure_at(const char* file, int line, int32_t d) {
  if (d < 0)
    fatal_at(file, line,
             "no DFlash draft is selected; call quillon_select_draft with the shape the checkpoint declares before "
             "any draft entry point");
  fatal_at(file, line, "draft %d is not one this build carries", d);
}

}  // namespace quillon
