#!/usr/bin/env python3
"""Independent oracle for the weight formats: the `gguf` package's dequantiser.

For each GGUF format the library reads (the eight k-quants and the four expert
low-bit formats), random valid tensors are written as raw GGUF bytes, run
through the library (gguf_oracle_helper: shuffle into the device planes, read
every weight back through the device dequantiser) and compared with
gguf.quants.dequantize.

The bound. The library rounds each weight to bf16 by adding 0x8000 to the
float bits (half away from zero on the magnitude), so it is off the exact
value by at most half a bf16 ulp, which is at most 2^-8 * |w|. Its fp32
arithmetic (one fma per weight) may also order operations differently from the
package's, which moves the fp32 value by a few fp32 ulps of the terms involved;
S below bounds the size of those terms per block (|d| * max scale * max code
plus |dmin| * max min), and 2^-20 * S covers that with room to spare. So each
weight must satisfy

    |lib - gguf| <= 2^-8 * |gguf| + 2^-20 * S(block).

A wrong code, scale, nibble order, sign or tile address is off by whole
quantisation steps and fails this by orders of magnitude.

Exit status: 0 pass, 1 mismatch, 77 skipped (the gguf package is missing).
"""
import os
import subprocess
import sys
import tempfile

SKIP = 77
try:
    import numpy as np
    import gguf
    from gguf import GGMLQuantizationType as T
except ImportError as e:  # pragma: no cover - depends on the environment
    print("SKIP: the gguf Python package is not available (%s); install it with: pip install gguf" % e)
    sys.exit(SKIP)

# name: (type, weights per block, bytes per block, f16 offsets, S(block bytes) as a function)


def f16_at(blocks, off):
    return np.abs(blocks[:, off:off + 2].copy().view("<f2").astype(np.float64)[:, 0])


FORMATS = {
    "Q2_K": (T.Q2_K, 256, 84, [80, 82], lambda b: f16_at(b, 80) * 15 * 3 + f16_at(b, 82) * 15),
    "Q3_K": (T.Q3_K, 256, 110, [108], lambda b: f16_at(b, 108) * 32 * 4),
    "Q4_K": (T.Q4_K, 256, 144, [0, 2], lambda b: f16_at(b, 0) * 63 * 15 + f16_at(b, 2) * 63),
    "Q5_K": (T.Q5_K, 256, 176, [0, 2], lambda b: f16_at(b, 0) * 63 * 31 + f16_at(b, 2) * 63),
    "Q6_K": (T.Q6_K, 256, 210, [208], lambda b: f16_at(b, 208) * 128 * 32),
    "Q8_0": (T.Q8_0, 32, 34, [0], lambda b: f16_at(b, 0) * 128),
    "IQ4_NL": (T.IQ4_NL, 32, 18, [0], lambda b: f16_at(b, 0) * 127),
    "IQ4_XS": (T.IQ4_XS, 256, 136, [0], lambda b: f16_at(b, 0) * 32 * 127),
    "IQ2_XXS": (T.IQ2_XXS, 256, 66, [0], lambda b: f16_at(b, 0) * 4 * 43),
    "IQ3_XXS": (T.IQ3_XXS, 256, 98, [0], lambda b: f16_at(b, 0) * 8 * 62),
    "IQ2_S": (T.IQ2_S, 256, 82, [0], lambda b: f16_at(b, 0) * 4 * 43),
    "MXFP4": (T.MXFP4, 32, 17, [], lambda b: 12.0 * np.ldexp(1.0, b[:, 0].astype(np.int64) - 128)),
}


def shapes(name):
    bw = FORMATS[name][1]
    out = [(32, 512), (128, 768)]
    if bw == 32:
        out += [(64, 288), (32, 96)]
    return out


def random_tensor(rng, name, n, k):
    _, bw, bb, f16s, _ = FORMATS[name]
    blocks = rng.integers(0, 256, size=(n * (k // bw), bb), dtype=np.uint8)
    for off in f16s:
        blocks[:, off + 1] &= 0xBF  # exponent at most 15: finite, |d| < 2
    if name == "MXFP4":
        # Every exponent byte, the ends always: 0 and 1 scale by subnormals,
        # 254 and 255 overflow the larger codes to infinity.
        blocks[:, 0] = rng.integers(0, 256, size=blocks.shape[0], dtype=np.uint8)
        blocks[:6, 0] = [0, 1, 2, 127, 254, 255]
    return blocks


def run(helper, name, n, k, blocks, tmp):
    src = os.path.join(tmp, "src.bin")
    dst = os.path.join(tmp, "dst.bin")
    blocks.tofile(src)
    r = subprocess.run([helper, name, str(n), str(k), src, dst], capture_output=True, text=True)
    if r.returncode != 0:
        raise RuntimeError("helper failed for %s %dx%d: %s%s" % (name, n, k, r.stdout, r.stderr))
    return np.fromfile(dst, dtype="<f4").reshape(n, k)


def half_away_bf16(x):
    u = x.astype(np.float32).view(np.uint32)
    return ((u + np.uint32(0x8000)) & np.uint32(0xFFFF0000)).view(np.float32)


def main():
    if len(sys.argv) != 2:
        print("usage: gguf_oracle.py HELPER")
        return 2
    helper = sys.argv[1]
    rng = np.random.default_rng(20240607)
    failures = 0
    with tempfile.TemporaryDirectory() as tmp:
        for name in FORMATS:
            qtype, bw, bb, _, scale_of = FORMATS[name]
            for n, k in shapes(name):
                blocks = random_tensor(rng, name, n, k)
                lib = run(helper, name, n, k, blocks, tmp)
                want = gguf.quants.dequantize(blocks.reshape(n, (k // bw) * bb), qtype).astype(np.float32)
                want = want.reshape(n, k)
                S = np.repeat(scale_of(blocks), bw).reshape(n, k)
                bound = np.ldexp(np.abs(want.astype(np.float64)), -8) + np.ldexp(S, -20)
                with np.errstate(invalid="ignore"):
                    err = np.abs(lib.astype(np.float64) - want.astype(np.float64))
                err[lib == want] = 0.0  # equal infinities
                bad = ~(err <= bound)
                exact = np.mean(lib == half_away_bf16(want))
                status = "ok" if not bad.any() else "FAIL"
                print("%-8s %4dx%-4d max err/bound %.3f, equal to gguf rounded half away: %.4f  %s"
                      % (name, n, k, float(np.max(err / np.maximum(bound, 1e-300))), exact, status))
                if bad.any():
                    failures += 1
                    i = np.argwhere(bad)[0]
                    print("  first mismatch at row %d col %d: library %r, gguf %r"
                          % (i[0], i[1], float(lib[tuple(i)]), float(want[tuple(i)])))
    total = sum(len(shapes(f)) for f in FORMATS)
    print("gguf oracle: %d of %d cases within the bound" % (total - failures, total))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
