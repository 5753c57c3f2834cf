#!/usr/bin/env python3
"""Traffic model of one paged decode step, per token of history and layer.

A model, not a measurement: no gfx1151 runs here. For every geometry, query
row count Q and pool form it counts the bytes the partition step reads for one
token of history (K and V of every KV head, int8 scales, the block-table entry
per page) and the matrix work it spends on it (scores and values for the
ceil(Q*G/16) row tiles of 16, padding rows included), and sets the time at
256 GB/s against the time at the chip's bf16 matrix rate and against the
instruction issue of the partition's main loop (isa.model's slow-end issue
cycles over its memory cycles for the same trip). The modelled fraction of
256 GB/s is memory time over the largest of the three. Occupancy (waves per
SIMD) comes from the ISA report of a hip build.

usage: paged_decode_traffic.py build/hip/isa_report.tsv build/hip/isa_model.tsv
"""
import os
import re
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tools"))
from isa_model import DRAM_BYTES_S, MATRIX_FLOPS  # noqa: E402

# geometry: (NQ, NKV, HD); the draft shape reads bf16 pools only.
SHAPES = {"0": (16, 2, 256), "1": (24, 4, 256), "3": (24, 2, 256), "draft": (32, 8, 128)}


def occupancy(tsv):
    occ = {}
    for line in open(tsv):
        f = line.rstrip("\n").split("\t")
        m = re.search(r"decode_partition_kernel<(\d+), (\d+), (\d+), 16, 128, 8, true, (\d+), (true|false),", f[7] if len(f) > 7 else "")
        if m:
            occ[tuple(int(x) for x in m.groups()[:4]) + (m.group(5) == "true",)] = (int(f[0]), int(f[6]))
    return occ


def issue_ratio(tsv):
    ratio = {}
    for line in open(tsv):
        f = line.rstrip("\n").split("\t")
        m = re.search(r"decode_partition_kernel<(\d+), (\d+), (\d+), 16, 128, 8, true, (\d+), (true|false),", f[-1])
        if m:
            ratio[tuple(int(x) for x in m.groups()[:4]) + (m.group(5) == "true",)] = float(f[12]) / float(f[13])
    return ratio


def main():
    occ, ratio = occupancy(sys.argv[1]), issue_ratio(sys.argv[2])
    print("| geometry | pool | Q | bytes/token | row tiles | matrix FLOP/token | FLOP/byte | modelled fraction of 256 GB/s "
          "| tokens/s at that rate | issue / memory cycles | VGPRs | waves/SIMD |")
    print("|---|---|---|---|---|---|---|---|---|---|---|---|")
    for geo, (nq, nkv, hd) in SHAPES.items():
        qs = (1, 4, 8, 16) if geo == "draft" else range(1, 9)
        for int8 in ((False,) if geo == "draft" else (False, True)):
            # K and V of a token and head; int8 adds a K scale per 32 dims and one V scale.
            per_head = 2 * hd + 2 * (hd // 32) + 2 if int8 else 4 * hd
            bytes_tok = nkv * (per_head + 4 / 16)
            for q in qs:
                tiles = -(-q * (nq // nkv) // 16)
                flops = nkv * 2 * (tiles * 16) * hd * 2
                t_mem, t_mat = bytes_tok / DRAM_BYTES_S, flops / MATRIX_FLOPS
                key = (nq, nkv, hd, q, int8)
                r = ratio.get(key, 0.0)
                frac = t_mem / max(t_mem, t_mat, t_mem * r)
                vg, waves = occ.get(key, ("-", "-"))
                print("| %s | %s | %d | %.1f | %d | %d | %.1f | %.2f | %.3g | %.2f | %s | %s |" % (
                    geo, "int8" if int8 else "bf16", q, bytes_tok, tiles, flops, flops / bytes_tok, frac,
                    DRAM_BYTES_S * frac / bytes_tok, r, vg, waves))
    return 0


if __name__ == "__main__":
    sys.exit(main())
