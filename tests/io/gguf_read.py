#!/usr/bin/env python3
"""A GGUF file written by the gguf package, read back by the file reader.

The package writes tensors of several types and sizes (32-byte aligned data,
so no tensor starts on a 4096 boundary; some span several of the reader's
chunks); its own reader reports each tensor's data offset and bytes. The
helper reads every such range straight into device memory and back, and the
bytes must be identical.

Exit status: 0 pass, 1 mismatch or failure, 77 skipped (no gguf package).
"""
import os
import subprocess
import sys
import tempfile

try:
    import numpy as np
    import gguf
except ImportError as e:  # pragma: no cover - depends on the environment
    print("SKIP: the gguf Python package is not available (%s)" % e)
    sys.exit(77)


def main():
    helper = sys.argv[1]
    rng = np.random.default_rng(19)
    tensors = {
        "tok_embd.weight": rng.standard_normal((257, 96)).astype(np.float32),
        "blk.0.attn_norm.weight": rng.standard_normal(4097).astype(np.float16),
        "blk.0.ffn_down.weight": rng.integers(0, 256, size=(64, 34 * 8), dtype=np.uint8),
        "blk.0.tiny": np.array([1.5], dtype=np.float32),
    }
    # Under the working directory: a local disk, which O_DIRECT needs.
    with tempfile.TemporaryDirectory(dir=".") as tmp:
        path = os.path.join(tmp, "model.gguf")
        w = gguf.GGUFWriter(path, "test")
        for name, a in tensors.items():
            if name == "blk.0.ffn_down.weight":  # Q8_0 blocks as raw bytes
                w.add_tensor(name, a, raw_dtype=gguf.GGMLQuantizationType.Q8_0)
            else:
                w.add_tensor(name, a)
        w.write_header_to_file()
        w.write_kv_data_to_file()
        w.write_tensors_to_file()
        w.close()

        ranges, want = [], b""
        for t in gguf.GGUFReader(path).tensors:
            data = t.data.tobytes()
            if len(data) != t.n_bytes or data != tensors[t.name].tobytes():
                print("the package reports other bytes for %s than it was given" % t.name)
                return 1
            ranges.append("%d:%d" % (t.data_offset, t.n_bytes))
            want += data
        out = os.path.join(tmp, "out.bin")
        r = subprocess.run([helper, path, out] + ranges)
        if r.returncode != 0:
            print("file_reader_helper failed with status %d" % r.returncode)
            return 1
        got = open(out, "rb").read()
    if got != want:
        first = next(i for i in range(min(len(got), len(want)) + 1) if i >= min(len(got), len(want)) or got[i] != want[i])
        print("mismatch: %d bytes read, %d expected, first difference at %d" % (len(got), len(want), first))
        return 1
    print("%d tensors, %d bytes: identical (ranges %s)" % (len(ranges), len(want), " ".join(ranges)))
    return 0


if __name__ == "__main__":
    sys.exit(main())
