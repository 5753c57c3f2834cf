// The file reader: byte ranges of files to device memory by direct I/O through
// an io_uring ring and a small ring of pinned buffers.
#pragma once
#include <hip/hip_runtime_api.h>

#include <cstdint>

namespace quillon {
struct FileReader;

// Every I/O failure reads as this one status (HIP's "file not found" value).
constexpr hipError_t kFileReaderIoError = hipError_t(301);
// File offsets, read lengths and buffer addresses: what O_DIRECT asks of all three.
constexpr int64_t kFileReaderAlign = 4096;

FileReader* file_reader_create(int32_t queue_depth, int64_t chunk_bytes, int32_t num_buffers);
void file_reader_destroy(FileReader* r);
hipError_t file_reader_read(FileReader* r, const char* path, int64_t offset, int64_t bytes, void* dst,
                            hipStream_t stream);
}  // namespace quillon
