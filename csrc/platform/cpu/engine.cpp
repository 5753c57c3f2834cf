// Execution engine of the CPU device: each GPU thread is a fiber, a workgroup
// runs on one worker thread, and the fibers of a workgroup switch only at sync
// points (block barriers, wave collectives, sleep).
#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>

#include <boost/context/detail/fcontext.hpp>

#include "qcpu_test.h"
#include "runtime_internal.h"

namespace bc = boost::context::detail;

namespace qcpu {
namespace {

[[noreturn]] void die(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void die(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  std::fputs("[cpu-device] ", stderr);
  std::vfprintf(stderr, fmt, ap);
  std::fputc('\n', stderr);
  va_end(ap);
  std::fflush(stderr);
  std::abort();
}

enum State : uint8_t { kRunnable, kAtBarrier, kAtWave, kDone };
enum WaveOp : int { kOpNone, kOpSync, kOpShflXor, kOpBpermute, kOpPermlaneX16, kOpReadlane, kOpBallot, kOpWmma };
const char* op_name(int op) {
  static const char* names[] = {"none", "wave_sync", "shfl_xor", "bpermute", "permlanex16", "readlane", "ballot", "wmma"};
  return names[op];
}

struct Block;
struct Fiber {
  bc::fcontext_t ctx;
  qcpu_lane lane;
  Block* blk;
  uint32_t wave, lane_in_wave;
  State state;
  bool slept;
  const char* bfile;
  int bline;
};

struct Wave {
  int size;      // lanes that exist (partial last wave)
  int live;      // lanes not yet exited
  int arrived;
  int op;
  bool alive[32];
  uint32_t in[32];
  int32_t arg[32];
  uint32_t arg2[32];
  uint32_t out[32];
  uint16_t a[32][16], b[32][16];
  float c[32][8];
};

struct Block {
  Fiber* fibers;
  int n;
  int live;
  int at_barrier;
  int nwaves;
  Wave waves[32];
  std::vector<uint32_t> order;
};

struct Schedule {
  enum Kind { kForward, kReverse, kRandom } kind = kForward;
  uint64_t seed = 0;
  std::string name = "forward";
};

const Schedule& schedule() {
  static Schedule s = [] {
    Schedule r;
    const char* e = std::getenv("QUILLON_CPU_SCHEDULE");
    if (!e || !*e || !std::strcmp(e, "forward")) return r;
    if (!std::strcmp(e, "reverse")) { r.kind = Schedule::kReverse; r.name = "reverse"; return r; }
    if (!std::strncmp(e, "random:", 7)) {
      char* end = nullptr;
      r.seed = std::strtoull(e + 7, &end, 10);
      if (end && !*end && e[7]) { r.kind = Schedule::kRandom; r.name = e; return r; }
    }
    die("QUILLON_CPU_SCHEDULE must be forward, reverse or random:SEED (got \"%s\")", e);
  }();
  return s;
}

uint64_t mix(uint64_t x) {
  x += 0x9e3779b97f4a7c15ull;
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
  x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
  return x ^ (x >> 31);
}

void make_order(std::vector<uint32_t>& v, size_t n, uint64_t salt) {
  v.resize(n);
  const Schedule& s = schedule();
  for (size_t i = 0; i < n; ++i) v[i] = (uint32_t)(s.kind == Schedule::kReverse ? n - 1 - i : i);
  if (s.kind == Schedule::kRandom) {
    uint64_t st = mix(s.seed ^ mix(salt));
    for (size_t i = n; i > 1; --i) {
      st = mix(st);
      std::swap(v[i - 1], v[st % i]);
    }
  }
}

size_t stack_bytes() {
  static size_t b = [] {
    const char* e = std::getenv("QUILLON_CPU_STACK_KB");
    size_t kb = e ? std::strtoull(e, nullptr, 10) : 0;
    return (kb ? kb : 64) * 1024;
  }();
  return b;
}

// Per worker thread: fiber stacks with a guard page below each, LDS, scheduler.
// A co-resident launch's threads leave the guards out: each guard is two
// mappings, and 64 workgroups of 512 threads would pass vm.max_map_count.
struct Worker {
  bool guards = true;
  char* region = nullptr;
  size_t nstacks = 0;
  size_t stride = 0;
  bc::fcontext_t sched = nullptr;
  Fiber* cur = nullptr;
  std::vector<Fiber> fibers;
  Block blk;
  unsigned char* lds = nullptr;
  void (*invoke)(void*) = nullptr;
  void* closure = nullptr;

  void reserve(size_t n) {
    if (n <= nstacks) return;
    if (region) munmap(region, nstacks * stride);
    const size_t page = 4096;
    stride = stack_bytes() + page;
    region = static_cast<char*>(mmap(nullptr, n * stride, PROT_READ | PROT_WRITE,
                                     MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
    if (region == MAP_FAILED) die("cannot map %zu fiber stacks", n);
    if (guards)
      for (size_t i = 0; i < n; ++i) mprotect(region + i * stride, page, PROT_NONE);
    nstacks = n;
  }
  ~Worker() {
    if (region) munmap(region, nstacks * stride);
    std::free(lds);
  }
};

thread_local Worker* tl_worker = nullptr;
Worker& worker() {
  thread_local Worker w;
  tl_worker = &w;
  return w;
}

std::atomic<uint64_t> g_wmma_count{0};

inline Fiber* cur() { return tl_worker->cur; }

inline void yield_to_scheduler() {
  Worker* w = tl_worker;
  bc::transfer_t t = bc::jump_fcontext(w->sched, nullptr);
  w->sched = t.fctx;
}

void complete_wave(Block& B, int wi);

void fiber_main(bc::transfer_t t) {
  Worker* w = tl_worker;
  w->sched = t.fctx;
  Fiber* f = static_cast<Fiber*>(t.data);
  w->invoke(w->closure);
  f->state = kDone;
  Block& B = *f->blk;
  B.live--;
  Wave& wv = B.waves[f->wave];
  wv.live--;
  wv.alive[f->lane_in_wave] = false;
  if (wv.arrived > 0 && wv.arrived == wv.live) complete_wave(B, (int)f->wave);
  bc::jump_fcontext(w->sched, nullptr);
  die("a finished fiber was resumed");
}

void complete_wave(Block& B, int wi) {
  Wave& w = B.waves[wi];
  const int base = wi * 32;
  switch (w.op) {
    case kOpSync:
      break;
    case kOpShflXor:
      for (int l = 0; l < w.size; ++l) {
        if (!w.alive[l]) continue;
        int width = w.arg2[l] ? (int)w.arg2[l] : 32;
        int src = l ^ w.arg[l];
        w.out[l] = (src / width == l / width && src < w.size && w.alive[src]) ? w.in[src] : w.in[l];
      }
      break;
    case kOpBpermute:
      for (int l = 0; l < w.size; ++l) {
        if (!w.alive[l]) continue;
        int src = w.arg[l] & 31;
        w.out[l] = (src < w.size && w.alive[src]) ? w.in[src] : 0u;
      }
      break;
    case kOpPermlaneX16:
      for (int l = 0; l < w.size; ++l) {
        if (!w.alive[l]) continue;
        int k = l & 15;
        uint32_t sel = k < 8 ? (uint32_t)w.arg[l] : w.arg2[l];
        int src = (l < 16 ? 16 : 0) + (int)((sel >> (4 * (k & 7))) & 15);
        w.out[l] = (src < w.size && w.alive[src]) ? w.in[src] : w.in[l];
      }
      break;
    case kOpReadlane:
      for (int l = 0; l < w.size; ++l) {
        if (!w.alive[l]) continue;
        int src = w.arg[l] & 31;
        w.out[l] = (src < w.size && w.alive[src]) ? w.in[src] : 0u;
      }
      break;
    case kOpBallot: {
      uint32_t m = 0;
      for (int l = 0; l < w.size; ++l)
        if (w.alive[l] && w.in[l]) m |= 1u << l;
      for (int l = 0; l < w.size; ++l) w.out[l] = m;
      break;
    }
    case kOpWmma: {
      if (w.size != 32 || w.live != 32) die("wmma needs all 32 lanes of a wave (wave %d has %d live)", wi, w.live);
      for (int l = 16; l < 32; ++l)
        if (std::memcmp(w.a[l], w.a[l - 16], 32) || std::memcmp(w.b[l], w.b[l - 16], 32))
          die("wmma: lane %d carries operands that differ from lane %d; lanes 16..31 must duplicate 0..15", l, l - 16);
      // Column-wise accumulation keeps 16 independent fma chains (vectorised);
      // each element still sums k = 0..15 in order from zero.
      float A[16][16], Bt[16][16];
      for (int r = 0; r < 16; ++r)
        for (int k = 0; k < 16; ++k) {
          A[r][k] = __builtin_bit_cast(float, (uint32_t)w.a[r][k] << 16);
          Bt[k][r] = __builtin_bit_cast(float, (uint32_t)w.b[r][k] << 16);
        }
      float D[16][16];
      for (int r = 0; r < 16; ++r) {
        float acc[16] = {};
        for (int k = 0; k < 16; ++k) {
          const float a = A[r][k];
          for (int c = 0; c < 16; ++c) acc[c] = __builtin_fmaf(a, Bt[k][c], acc[c]);
        }
        for (int c = 0; c < 16; ++c) D[r][c] = acc[c];
      }
      for (int l = 0; l < 32; ++l)
        for (int i = 0; i < 8; ++i) w.c[l][i] = w.c[l][i] + D[2 * i + l / 16][l % 16];
      g_wmma_count.fetch_add(1, std::memory_order_relaxed);
      break;
    }
    default:
      die("internal: unknown wave op %d", w.op);
  }
  w.arrived = 0;
  w.op = kOpNone;
  for (int l = 0; l < w.size; ++l) {
    Fiber& f = B.fibers[base + l];
    if (f.state == kAtWave) f.state = kRunnable;
  }
}

// Each lane deposits its operands; the last live lane to arrive computes the
// results of all lanes, so a lane's result cannot be overwritten before it reads it.
inline Wave& wave_arrive(Fiber* f, int op) {
  Block& B = *f->blk;
  Wave& w = B.waves[f->wave];
  if (w.arrived == 0) w.op = op;
  else if (w.op != op)
    die("lanes of wave %u of workgroup (%u,%u,%u) met different wave operations (%s and %s)", f->wave, f->lane.bid.x,
        f->lane.bid.y, f->lane.bid.z, op_name(w.op), op_name(op));
  return w;
}
inline void wave_wait(Fiber* f, Wave& w) {
  f->state = kAtWave;
  if (++w.arrived == w.live) complete_wave(*f->blk, (int)f->wave);
  if (f->state != kRunnable) yield_to_scheduler();
}

uint32_t wave_op(int op, uint32_t v, int32_t arg, uint32_t arg2) {
  Fiber* f = cur();
  Wave& w = wave_arrive(f, op);
  const uint32_t l = f->lane_in_wave;
  w.in[l] = v;
  w.arg[l] = arg;
  w.arg2[l] = arg2;
  wave_wait(f, w);
  return w.out[l];
}

void run_block(Worker& W, const qcpu_dim3& bid, const qcpu_dim3& bdim, const qcpu_dim3& gdim, size_t lds,
               uint64_t salt) {
  const int n = (int)(bdim.x * bdim.y * bdim.z);
  W.reserve((size_t)n);
  if (W.fibers.size() < (size_t)n) W.fibers.resize((size_t)n);
  Block& B = W.blk;
  B.fibers = W.fibers.data();
  B.n = n;
  B.live = n;
  B.at_barrier = 0;
  B.nwaves = (n + 31) / 32;
  for (int wi = 0; wi < B.nwaves; ++wi) {
    Wave& w = B.waves[wi];
    w.size = std::min(32, n - wi * 32);
    w.live = w.size;
    w.arrived = 0;
    w.op = kOpNone;
    for (int l = 0; l < 32; ++l) w.alive[l] = l < w.size;
  }
  if (lds) std::memset(W.lds, 0xff, lds);  // uninitialised LDS reads as NaN
  for (int i = 0; i < n; ++i) {
    Fiber& f = B.fibers[i];
    f.lane.tid = qcpu_dim3{(uint32_t)i % bdim.x, ((uint32_t)i / bdim.x) % bdim.y, (uint32_t)i / (bdim.x * bdim.y)};
    f.lane.bid = bid;
    f.lane.bdim = bdim;
    f.lane.gdim = gdim;
    f.blk = &B;
    f.wave = (uint32_t)i / 32;
    f.lane_in_wave = (uint32_t)i % 32;
    f.state = kRunnable;
    f.slept = false;
    f.bfile = nullptr;
    f.bline = 0;
    char* top = W.region + (size_t)(i + 1) * W.stride;
    f.ctx = bc::make_fcontext(top, W.stride - 4096, &fiber_main);
  }
  make_order(B.order, (size_t)n, salt);
  for (;;) {
    bool ran = false, all_slept = true;
    for (int k = 0; k < n; ++k) {
      Fiber& f = B.fibers[B.order[k]];
      if (f.state != kRunnable) continue;
      f.slept = false;
      W.cur = &f;
      bc::transfer_t t = bc::jump_fcontext(f.ctx, &f);
      f.ctx = t.fctx;
      W.cur = nullptr;
      ran = true;
      if (!f.slept) all_slept = false;
    }
    if (B.live == 0) break;
    if (B.at_barrier == B.live) {
      const Fiber* first = nullptr;
      for (int i = 0; i < n; ++i) {
        Fiber& f = B.fibers[i];
        if (f.state != kAtBarrier) continue;
        if (!first) first = &f;
        else if (f.bline != first->bline || std::strcmp(f.bfile, first->bfile))
          die("block barrier divergence in workgroup (%u,%u,%u): thread %d waits at %s:%d, thread %d at %s:%d", bid.x,
              bid.y, bid.z, (int)(first - B.fibers), first->bfile, first->bline, i, f.bfile, f.bline);
      }
      for (int i = 0; i < n; ++i)
        if (B.fibers[i].state == kAtBarrier) B.fibers[i].state = kRunnable;
      B.at_barrier = 0;
      continue;
    }
    if (!ran) {
      // Nothing can move: some live threads wait where others never arrive.
      const Fiber* atb = nullptr;
      const Fiber* atw = nullptr;
      for (int i = 0; i < n; ++i) {
        if (B.fibers[i].state == kAtBarrier && !atb) atb = &B.fibers[i];
        if (B.fibers[i].state == kAtWave && !atw) atw = &B.fibers[i];
      }
      if (atb && atw)
        die("deadlock in workgroup (%u,%u,%u): thread %d waits at the barrier at %s:%d while thread %d waits in a "
            "wave operation (%s)",
            bid.x, bid.y, bid.z, (int)(atb - B.fibers), atb->bfile, atb->bline, (int)(atw - B.fibers),
            op_name(B.waves[atw->wave].op));
      die("deadlock in workgroup (%u,%u,%u): %d threads wait at a barrier, %d live", bid.x, bid.y, bid.z, B.at_barrier,
          B.live);
    }
    if (all_slept) std::this_thread::yield();
  }
}

struct LaunchJob {
  qcpu_dim3 grid, block, gdim;
  size_t lds;
  void (*invoke)(void*);
  void* closure;
  const uint32_t* blocks;
  size_t count;
  uint64_t launch_id;
  std::atomic<size_t> next{0};
};

void work_on(LaunchJob& J) {
  Worker& W = worker();
  if (!W.lds) {
    W.lds = static_cast<unsigned char*>(std::aligned_alloc(128, 65536));
  }
  W.invoke = J.invoke;
  W.closure = J.closure;
  for (;;) {
    size_t i = J.next.fetch_add(1, std::memory_order_relaxed);
    if (i >= J.count) break;
    uint32_t lin = J.blocks[i];
    qcpu_dim3 bid{lin % J.grid.x, (lin / J.grid.x) % J.grid.y, lin / (J.grid.x * J.grid.y)};
    run_block(W, bid, J.block, J.gdim, J.lds, J.launch_id * 0x100000001b3ull + lin);
  }
}

class Pool {
 public:
  Pool() {
    const char* e = std::getenv("QUILLON_CPU_THREADS");
    int n = e ? std::atoi(e) : (int)std::thread::hardware_concurrency();
    if (n < 1) n = 1;
    for (int i = 1; i < n; ++i) threads_.emplace_back([this] { loop(); });
  }
  ~Pool() {
    {
      std::lock_guard<std::mutex> g(m_);
      stop_ = true;
    }
    cv_.notify_all();
    for (auto& t : threads_) t.join();
  }
  void run(LaunchJob& J) {
    {
      std::lock_guard<std::mutex> g(m_);
      job_ = &J;
      pending_ = threads_.size();
      ++gen_;
    }
    cv_.notify_all();
    work_on(J);
    std::unique_lock<std::mutex> g(m_);
    done_cv_.wait(g, [this] { return pending_ == 0; });
    job_ = nullptr;
  }

 private:
  void loop() {
    uint64_t seen = 0;
    for (;;) {
      LaunchJob* J;
      {
        std::unique_lock<std::mutex> g(m_);
        cv_.wait(g, [&] { return stop_ || gen_ != seen; });
        if (stop_) return;
        seen = gen_;
        J = job_;
      }
      work_on(*J);
      std::lock_guard<std::mutex> g(m_);
      if (--pending_ == 0) done_cv_.notify_all();
    }
  }
  std::vector<std::thread> threads_;
  std::mutex m_;
  std::condition_variable cv_, done_cv_;
  LaunchJob* job_ = nullptr;
  size_t pending_ = 0;
  uint64_t gen_ = 0;
  bool stop_ = false;
};

std::mutex g_launch_mutex;
std::mutex g_sample_mutex;
// Block lists by the number of the launch call they apply to.
std::map<uint64_t, std::vector<int64_t>> g_samples;
uint64_t g_launch_calls = 0;
uint64_t g_launch_counter = 0;

Pool& pool() {
  static Pool p;
  return p;
}

}  // namespace

int launch(qcpu_dim3 grid, qcpu_dim3 block, size_t lds, void (*invoke)(void*), void* closure, int flags) {
  std::vector<int64_t> sample;
  bool sampled = false;
  {
    std::lock_guard<std::mutex> g(g_sample_mutex);
    auto it = g_samples.find(g_launch_calls++);
    if (it != g_samples.end()) {
      sample.swap(it->second);
      sampled = true;
      g_samples.erase(it);
    }
  }
  const uint64_t threads = (uint64_t)block.x * block.y * block.z;
  if (threads == 0 || threads > 1024 || block.x > 1024 || block.y > 1024 || block.z > 64 || grid.x == 0 ||
      grid.y == 0 || grid.z == 0 || grid.y > 65535 || grid.z > 65535)
    return set_error(hipErrorInvalidConfiguration);
  if (lds > 65536) return set_error(hipErrorInvalidConfiguration);
  const uint64_t nblocks = (uint64_t)grid.x * grid.y * grid.z;
  if (nblocks > 0xffffffffull) return set_error(hipErrorInvalidConfiguration);

  std::lock_guard<std::mutex> g(g_launch_mutex);
  std::vector<uint32_t> order;
  uint64_t id = ++g_launch_counter;
  make_order(order, (size_t)nblocks, id);
  if (sampled) {
    std::vector<char> keep((size_t)nblocks, 0);
    for (int64_t b : sample)
      if (b >= 0 && (uint64_t)b < nblocks) keep[(size_t)b] = 1;
    std::vector<uint32_t> kept;
    for (uint32_t b : order)
      if (keep[b]) kept.push_back(b);
    order.swap(kept);
  }
  LaunchJob J;
  J.grid = grid;
  J.block = block;
  J.gdim = grid;
  J.lds = lds;
  J.invoke = invoke;
  J.closure = closure;
  J.blocks = order.data();
  J.count = order.size();
  J.launch_id = id;
  if (flags & QCPU_LAUNCH_CORESIDENT) {
    // Every workgroup lives at once: its own OS thread, so spinning ones yield.
    std::vector<std::thread> ts;
    ts.reserve(J.count);
    for (size_t i = 0; i < J.count; ++i)
      ts.emplace_back([&J] {
        worker().guards = false;
        work_on(J);
      });
    for (auto& t : ts) t.join();
  } else {
    pool().run(J);
  }
  return hipSuccess;
}

}  // namespace qcpu

using namespace qcpu;

extern "C" {

const qcpu_lane* qcpu_self(void) { return &cur()->lane; }

int qcpu_launch(qcpu_dim3 grid, qcpu_dim3 block, size_t lds, hipStream_t, void (*invoke)(void*), void* closure,
                int flags) {
  return qcpu::launch(grid, block, lds, invoke, closure, flags);
}

void qcpu_barrier(const char* file, int line) {
  Fiber* f = cur();
  f->state = kAtBarrier;
  f->bfile = file;
  f->bline = line;
  f->blk->at_barrier++;
  yield_to_scheduler();
}

void qcpu_wave_sync(void) { wave_op(kOpSync, 0, 0, 0); }

void qcpu_sleep(void) {
  Fiber* f = cur();
  f->slept = true;
  yield_to_scheduler();
}

void* qcpu_dynamic_lds(void) { return tl_worker->lds; }

uint32_t qcpu_shfl_xor(uint32_t v, int mask, int width) { return wave_op(kOpShflXor, v, mask, (uint32_t)width); }
uint32_t qcpu_bpermute(int src_lane, uint32_t v) { return wave_op(kOpBpermute, v, src_lane, 0); }
uint32_t qcpu_permlanex16(uint32_t v, uint32_t lo, uint32_t hi) { return wave_op(kOpPermlaneX16, v, (int32_t)lo, hi); }
uint32_t qcpu_readlane(uint32_t v, int lane) { return wave_op(kOpReadlane, v, lane, 0); }
uint32_t qcpu_ballot(int pred) { return wave_op(kOpBallot, pred ? 1u : 0u, 0, 0); }

void qcpu_wmma_bf16(const uint16_t a[16], const uint16_t b[16], float c[8]) {
  Fiber* f = cur();
  Wave& w = wave_arrive(f, kOpWmma);
  const uint32_t l = f->lane_in_wave;
  std::memcpy(w.a[l], a, 32);
  std::memcpy(w.b[l], b, 32);
  std::memcpy(w.c[l], c, 32);
  wave_wait(f, w);
  std::memcpy(c, w.c[l], 32);
}

void qcpu_sample_launch(int n_from_now, const int64_t* blocks, int count) {
  std::lock_guard<std::mutex> g(g_sample_mutex);
  g_samples[g_launch_calls + (uint64_t)(n_from_now > 0 ? n_from_now : 0)].assign(blocks, blocks + (count > 0 ? count : 0));
}
void qcpu_sample_next_launch(const int64_t* blocks, int count) { qcpu_sample_launch(0, blocks, count); }

const char* qcpu_schedule(void) { return schedule().name.c_str(); }
uint64_t qcpu_wmma_count(void) { return g_wmma_count.load(); }

}  // extern "C"
