#include "file_read.h"

#include <fcntl.h>
#include <linux/io_uring.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>
#include <unordered_map>
#include <vector>

#include "../platform/fatal.h"

// The entries as the reader fills them; the kernel's layout is the contract.
static_assert(sizeof(io_uring_sqe) == 64 && sizeof(io_uring_cqe) == 16, "io_uring entry sizes");
static_assert(offsetof(io_uring_sqe, fd) == 4 && offsetof(io_uring_sqe, off) == 8 &&
                  offsetof(io_uring_sqe, addr) == 16 && offsetof(io_uring_sqe, len) == 24 &&
                  offsetof(io_uring_sqe, user_data) == 32,
              "io_uring_sqe layout");
static_assert(offsetof(io_uring_cqe, res) == 8, "io_uring_cqe layout");

namespace quillon {
namespace {
struct OpenFile {
  int fd;
  int64_t size;
};

template <class T>
T* at(void* base, uint32_t off) {
  return reinterpret_cast<T*>(static_cast<char*>(base) + off);
}
int ring_enter(int fd, unsigned to_submit, unsigned min_complete) {
  return (int)syscall(__NR_io_uring_enter, fd, to_submit, min_complete, IORING_ENTER_GETEVENTS, nullptr, 0);
}
}  // namespace

struct FileReader {
  int32_t ring_fd = -1;
  io_uring_sqe* sqes = nullptr;
  void* sq_ring = nullptr;
  void* cq_ring = nullptr;
  uint64_t sq_ring_bytes = 0, cq_ring_bytes = 0, sqes_bytes = 0;
  uint32_t *sq_head = nullptr, *sq_tail = nullptr, *sq_mask = nullptr, *sq_array = nullptr;
  uint32_t *cq_head = nullptr, *cq_tail = nullptr, *cq_mask = nullptr;
  io_uring_cqe* cqes = nullptr;
  int32_t queue_depth = 0;
  int64_t chunk_bytes = 0;
  std::vector<void*> pinned;
  std::vector<hipEvent_t> events;
  std::vector<bool> event_armed;
  std::vector<int64_t> slot_offset, slot_length;
  // A read still in flight when a drain gave up: its completion belongs to no
  // later read and only returns the slot.
  std::vector<bool> orphaned;
  std::vector<int32_t> free_slots;  // top at the back
  std::unordered_map<std::string, OpenFile> files;

  void unmap() {
    if (sqes) munmap(sqes, sqes_bytes);
    if (cq_ring && cq_ring != sq_ring) munmap(cq_ring, cq_ring_bytes);
    if (sq_ring) munmap(sq_ring, sq_ring_bytes);
    if (ring_fd >= 0) close(ring_fd);
  }
  bool setup(uint32_t entries);
  void submit(int32_t slot, int fd, int64_t off, int64_t len);
  template <class F>
  void reap(F&& on_completion);
  void withdraw_unsubmitted(int64_t& in_flight);
  void drain(int64_t& in_flight);
};

bool FileReader::setup(uint32_t entries) {
  io_uring_params p;
  std::memset(&p, 0, sizeof(p));
  const int fd = (int)syscall(__NR_io_uring_setup, entries, &p);
  if (fd < 0) return false;
  ring_fd = fd;
  sq_ring_bytes = p.sq_off.array + 4ull * p.sq_entries;
  cq_ring_bytes = p.cq_off.cqes + 16ull * p.cq_entries;
  const bool single = (p.features & IORING_FEAT_SINGLE_MMAP) != 0;
  if (single) sq_ring_bytes = cq_ring_bytes = std::max(sq_ring_bytes, cq_ring_bytes);
  auto map = [&](uint64_t bytes, off_t at) -> void* {
    void* m = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, fd, at);
    return m == MAP_FAILED ? nullptr : m;
  };
  sq_ring = map(sq_ring_bytes, IORING_OFF_SQ_RING);
  if (!sq_ring) return false;
  cq_ring = single ? sq_ring : map(cq_ring_bytes, IORING_OFF_CQ_RING);
  if (!cq_ring) return false;
  sqes_bytes = 64ull * p.sq_entries;
  sqes = static_cast<io_uring_sqe*>(map(sqes_bytes, IORING_OFF_SQES));
  if (!sqes) return false;
  sq_head = at<uint32_t>(sq_ring, p.sq_off.head);
  sq_tail = at<uint32_t>(sq_ring, p.sq_off.tail);
  sq_mask = at<uint32_t>(sq_ring, p.sq_off.ring_mask);
  sq_array = at<uint32_t>(sq_ring, p.sq_off.array);
  cq_head = at<uint32_t>(cq_ring, p.cq_off.head);
  cq_tail = at<uint32_t>(cq_ring, p.cq_off.tail);
  cq_mask = at<uint32_t>(cq_ring, p.cq_off.ring_mask);
  cqes = at<io_uring_cqe>(cq_ring, p.cq_off.cqes);
  return true;
}

void FileReader::submit(int32_t slot, int fd, int64_t off, int64_t len) {
  const uint32_t tail = *sq_tail;  // only this thread writes it
  const uint32_t idx = tail & *sq_mask;
  io_uring_sqe* e = &sqes[idx];
  std::memset(e, 0, sizeof(*e));
  e->opcode = IORING_OP_READ;
  e->fd = fd;
  e->off = (uint64_t)off;
  e->addr = (uint64_t)(uintptr_t)pinned[slot];
  e->len = (uint32_t)len;
  e->user_data = (uint64_t)slot;
  sq_array[idx] = idx;
  // The entry must be visible before the kernel sees the new tail.
  __atomic_store_n(sq_tail, tail + 1, __ATOMIC_RELEASE);
}

template <class F>
void FileReader::reap(F&& on_completion) {
  uint32_t head = *cq_head;
  const uint32_t tail = __atomic_load_n(cq_tail, __ATOMIC_ACQUIRE);
  for (; head != tail; ++head) {
    const io_uring_cqe& c = cqes[head & *cq_mask];
    const int32_t slot = (int32_t)c.user_data;
    const int32_t res = c.res;
    __atomic_store_n(cq_head, head + 1, __ATOMIC_RELEASE);
    if (orphaned[slot]) {
      orphaned[slot] = false;
      free_slots.push_back(slot);
      continue;
    }
    if (!on_completion(slot, res)) return;
  }
}

// Entries a failed enter left in the ring would go out with the next read's
// submission into buffers counted free by then: take them back now.
void FileReader::withdraw_unsubmitted(int64_t& in_flight) {
  const uint32_t head = __atomic_load_n(sq_head, __ATOMIC_ACQUIRE);
  const uint32_t tail = *sq_tail;
  for (uint32_t i = head; i != tail; ++i) {
    free_slots.push_back((int32_t)sqes[sq_array[i & *sq_mask]].user_data);
    --in_flight;
  }
  __atomic_store_n(sq_tail, head, __ATOMIC_RELEASE);
}

void FileReader::drain(int64_t& in_flight) {
  withdraw_unsubmitted(in_flight);
  for (;;) {
    reap([&](int32_t slot, int32_t) {
      free_slots.push_back(slot);
      --in_flight;
      return true;
    });
    if (in_flight <= 0) return;
    if (ring_enter(ring_fd, 0, 1) < 0) break;
  }
  // Reads the kernel still owns: their buffers come back when they complete.
  std::vector<bool> free_now(pinned.size(), false);
  for (int32_t s : free_slots) free_now[s] = true;
  for (size_t s = 0; s < pinned.size(); ++s)
    if (!free_now[s]) orphaned[s] = true;
}

FileReader* file_reader_create(int32_t queue_depth, int64_t chunk_bytes, int32_t num_buffers) {
  // A chunk of 0 (or below) is a multiple of the alignment but reads nothing.
  QUILLON_CHECK(chunk_bytes > 0 && chunk_bytes % kFileReaderAlign == 0, "chunk_bytes (%lld) must be a multiple of %lld",
                (long long)chunk_bytes, (long long)kFileReaderAlign);
  QUILLON_CHECK(num_buffers > queue_depth,
                "num_buffers (%d) must exceed queue_depth (%d): a slot whose H2D is still draining cannot take a new "
                "read",
                num_buffers, queue_depth);
  FileReader* r = new FileReader;
  if (queue_depth < 1 || !r->setup((uint32_t)queue_depth)) {
    r->unmap();
    delete r;
    return nullptr;
  }
  r->queue_depth = queue_depth;
  r->chunk_bytes = chunk_bytes;
  const size_t n = (size_t)num_buffers;
  r->pinned.assign(n, nullptr);
  r->events.assign(n, nullptr);
  r->event_armed.assign(n, false);
  r->orphaned.assign(n, false);
  r->slot_offset.assign(n, 0);
  r->slot_length.assign(n, 0);
  for (int32_t s = num_buffers - 1; s >= 0; --s) r->free_slots.push_back(s);
  for (size_t s = 0; s < n; ++s) {
    QUILLON_HIP_CHECK(hipHostMalloc(&r->pinned[s], (size_t)chunk_bytes, 0));
    QUILLON_CHECK((uintptr_t)r->pinned[s] % kFileReaderAlign == 0,
                  "hipHostMalloc returned a buffer not aligned to %lld, which O_DIRECT rejects",
                  (long long)kFileReaderAlign);
    QUILLON_HIP_CHECK(hipEventCreateWithFlags(&r->events[s], hipEventDisableTiming));
  }
  return r;
}

void file_reader_destroy(FileReader* r) {
  if (!r) return;
  for (auto& f : r->files) close(f.second.fd);
  for (size_t s = 0; s < r->pinned.size(); ++s) {
    (void)hipEventDestroy(r->events[s]);
    (void)hipHostFree(r->pinned[s]);
  }
  r->unmap();
  delete r;
}

hipError_t file_reader_read(FileReader* r, const char* path, int64_t offset, int64_t bytes, void* dst,
                            hipStream_t stream) {
  if (bytes < 1) return hipSuccess;
  auto it = r->files.find(path);
  if (it == r->files.end()) {
    const int fd = open(path, O_RDONLY | O_DIRECT);
    if (fd < 0) return kFileReaderIoError;
    struct stat st;
    if (fstat(fd, &st) != 0) {
      close(fd);
      return kFileReaderIoError;
    }
    it = r->files.emplace(path, OpenFile{fd, (int64_t)st.st_size}).first;
  }
  const OpenFile file = it->second;

  const int64_t A = kFileReaderAlign;
  const int64_t aligned_start = (offset >= 0 ? offset : offset - (A - 1)) / A * A;
  const int64_t aligned_end = (offset + bytes + A - 1) / A * A;
  const int64_t chunks = (aligned_end - aligned_start + r->chunk_bytes - 1) / r->chunk_bytes;
  const int64_t req_end = offset + bytes;

  int64_t done = 0, submitted = 0, in_flight = 0;
  while (done < chunks) {
    while (submitted < chunks && in_flight < r->queue_depth && !r->free_slots.empty()) {
      const int32_t slot = r->free_slots.back();
      r->free_slots.pop_back();
      // The buffer's last copy must have left it before the disk writes it again.
      if (r->event_armed[slot]) QUILLON_HIP_CHECK(hipEventSynchronize(r->events[slot]));
      const int64_t off = aligned_start + submitted * r->chunk_bytes;
      const int64_t len = std::min(r->chunk_bytes, aligned_end - off);
      r->slot_offset[slot] = off;
      r->slot_length[slot] = len;
      r->submit(slot, file.fd, off, len);
      ++submitted;
      ++in_flight;
    }
    const uint32_t to_submit = *r->sq_tail - __atomic_load_n(r->sq_head, __ATOMIC_ACQUIRE);
    if (ring_enter(r->ring_fd, to_submit, 1) < 0) {
      r->drain(in_flight);
      return kFileReaderIoError;
    }
    bool failed = false;
    r->reap([&](int32_t slot, int32_t res) {
      const int64_t s_off = r->slot_offset[slot];
      // Short is fine only where the file ends.
      if (res < 0 || (res < r->slot_length[slot] && s_off + res < file.size)) {
        r->free_slots.push_back(slot);
        --in_flight;
        failed = true;
        return false;
      }
      const int64_t lo = std::max(offset, s_off), hi = std::min(req_end, s_off + (int64_t)res);
      if (lo < hi)
        QUILLON_HIP_CHECK(hipMemcpyAsync(static_cast<char*>(dst) + (lo - offset),
                                         static_cast<const char*>(r->pinned[slot]) + (lo - s_off), (size_t)(hi - lo),
                                         hipMemcpyHostToDevice, stream));
      QUILLON_HIP_CHECK(hipEventRecord(r->events[slot], stream));
      r->event_armed[slot] = true;
      r->free_slots.push_back(slot);
      --in_flight;
      ++done;
      return true;
    });
    if (failed) {
      r->drain(in_flight);
      return kFileReaderIoError;
    }
  }
  return hipGetLastError();
}
}  // namespace quillon
