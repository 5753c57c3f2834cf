/* quillon: the file reader, part of the public interface beside quillon.h.
 * Byte ranges of files straight to device memory: direct I/O (O_DIRECT)
 * through an io_uring ring into num_buffers pinned buffers of chunk_bytes
 * (a multiple of 4096; num_buffers above queue_depth), each copied to dst on
 * the stream. create returns null where the kernel refuses the ring. read
 * blocks until every read has finished (the copies may still run on stream)
 * and returns 0 or a HIP status, or 301 on any I/O failure, after which the
 * reader stays usable. Files stay open until destroy. One thread per reader. */
#ifndef QUILLON_FILE_READER_H
#define QUILLON_FILE_READER_H

#include "quillon.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct QuillonFileReader QuillonFileReader;
QUILLON_API QuillonFileReader* quillon_file_reader_create(int32_t queue_depth, int64_t chunk_bytes,
                                                          int32_t num_buffers);
QUILLON_API void quillon_file_reader_destroy(QuillonFileReader* reader);
QUILLON_API hipError_t quillon_file_reader_read(QuillonFileReader* reader, const char* path, int64_t offset,
                                                int64_t bytes, void* dst, hipStream_t stream);

#ifdef __cplusplus
}
#endif
#endif
