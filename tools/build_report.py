#!/usr/bin/env python3
"""Where the build's time goes: job-seconds per family in both flavours, the
kernels each family holds (from the hip ISA report) and the slowest units.

Reads build/<flavour>/.ninja_log (the latest run of each output, so a warm
rebuild shows its cache hits) and build/hip/isa_report.tsv. Job-seconds are
compile time summed over jobs, independent of how many run at once.
"""
import argparse
import collections
import os
import re
import sys

FLAVOURS = ("hip", "cpu")
UNIT_LIMIT_S = 15.0  # a unit past this keeps one core busy after the other is done

# Output paths to families, first match wins; the rest by source directory.
FAMILIES = [
    (r"generated/proj/fused_", "proj fused launches"),
    (r"generated/proj/proj_named", "proj named entries"),
    (r"generated/proj/proj_", "proj shapes"),
    (r"generated/embedding/lm_head_", "lm head"),
    (r"generated/gemm/", "gemm k-quant"),
    (r"attention/linear/", "linear attention"),
    (r"attention/full/", "full attention"),
    (r"^tests/", "tests"),
    (r"^bench/", "bench"),
    (r"^tools/|gemm_isa_probe", "isa probes"),
    (r"\.(so|a)(\.\d+)*$|/[^./]+$", "link and tools"),
]


def family_of(path):
    for pat, name in FAMILIES:
        if re.search(pat, path):
            return name
    m = re.search(r"quillon_obj\.dir/(?:__/)?([a-z_]+)/", path) or re.search(r"^csrc/.*?([a-z_]+)\.dir/", path)
    return m.group(1) if m else "other"


def read_ninja_log(path):
    """Duration in seconds of the latest run of each output still on disk (a unit the
    build no longer has drops out once `ninja -t cleandead` removed its object)."""
    last = {}
    build = os.path.dirname(path)
    with open(path) as f:
        for line in f:
            if line.startswith("#"):
                continue
            parts = line.rstrip("\n").split("\t")
            if len(parts) < 4 or parts[3].startswith("/"):
                continue
            last[parts[3]] = (int(parts[1]) - int(parts[0])) / 1000.0
    return {out: s for out, s in last.items() if os.path.exists(os.path.join(build, out))}


def read_kernels(path):
    """Kernels per object file and how many kernels were compiled in more than one object."""
    per_obj, repeats = collections.Counter(), 0
    with open(path) as f:
        head = f.readline().rstrip("\n").split("\t")
        if "objects" not in head:
            return None, 0
        col = head.index("objects")
        for line in f:
            objs = line.rstrip("\n").split("\t")[col].split(",")
            per_obj[objs[0]] += 1
            repeats += len(objs) - 1
    return per_obj, repeats


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("build", nargs="?", default="build", help="directory holding hip/ and cpu/")
    ap.add_argument("--slowest", type=int, default=8)
    a = ap.parse_args()

    secs = {}
    for fl in FLAVOURS:
        log = os.path.join(a.build, fl, ".ninja_log")
        if os.path.exists(log):
            secs[fl] = read_ninja_log(log)
    if not secs:
        print("build_report: no .ninja_log under", a.build)
        return 1
    kernels, repeats = None, 0
    tsv = os.path.join(a.build, "hip", "isa_report.tsv")
    if os.path.exists(tsv):
        kernels, repeats = read_kernels(tsv)

    fam_s = collections.defaultdict(lambda: collections.Counter())
    fam_units = collections.Counter()
    for fl, outs in secs.items():
        for out, s in outs.items():
            fam = family_of(out)
            fam_s[fam][fl] += s
            if fl == "hip":
                fam_units[fam] += 1
    fam_k = collections.Counter()
    for obj, n in (kernels or {}).items():
        fam_k[family_of(obj)] += n

    total = collections.Counter()
    rows = []
    for fam in sorted(fam_s, key=lambda f: -sum(fam_s[f].values())):
        s = fam_s[fam]
        total.update(s)
        k = fam_k.get(fam, 0)
        both = s["hip"] + s["cpu"]
        per_k = "%.2f" % (both / k) if k and fam not in ("tests", "bench") else ""
        rows.append("| %s | %d | %.0f | %.0f | %s | %s |" % (fam, fam_units[fam], s["hip"], s["cpu"],
                                                           k or "", per_k))
    nk = sum(fam_k.values())
    print("Build report: job-seconds of the latest compile of each output (.ninja_log), kernels from the ISA report")
    print()
    print("| family | hip units | hip s | cpu s | kernels | s per kernel (both) |")
    print("|---|---|---|---|---|---|")
    print("\n".join(rows))
    print("| all | %d | %.0f | %.0f | %s | %s |" % (
        sum(fam_units.values()), total["hip"], total["cpu"], nk or "",
        "%.2f" % ((total["hip"] + total["cpu"] - sum(fam_s[f]["cpu"] for f in ("tests", "bench"))) / nk) if nk else ""))
    print()
    if kernels is None:
        print("(no kernel counts: build/hip/isa_report.tsv missing or without its objects column; run ctest in build/hip)")
    else:
        print("kernels compiled in more than one unit: %d extra compiles" % repeats)
    slow = sorted(((s, fl, out) for fl, outs in secs.items() for out, s in outs.items()), reverse=True)
    print("slowest units:")
    for s, fl, out in slow[:a.slowest]:
        print("  %6.1f s  %s  %s" % (s, fl, out))
    over = [(s, fl, out) for s, fl, out in slow if s > UNIT_LIMIT_S and family_of(out) != "link and tools"]
    print("units over %.0f s: %d" % (UNIT_LIMIT_S, len(over)))
    return 0


if __name__ == "__main__":
    sys.exit(main())
