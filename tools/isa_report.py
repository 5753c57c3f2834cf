#!/usr/bin/env python3
"""Resource report of every gfx1151 kernel in a hip-flavour build.

Reads the code-object metadata of each object file's device bundle and prints
VGPRs, SGPRs, LDS, scratch and occupancy per kernel. Exits 1 when a kernel uses
scratch or spills, or exceeds a VGPR budget from isa_budgets.tsv.
"""
import argparse
import os
import re
import subprocess
import sys
import tempfile

LLVM = "/usr/lib/llvm-19/bin"
TARGET = "hipv4-amdgcn-amd-amdhsa--gfx1151"
VGPR_FILE = 1536      # gfx1151 carries the full gfx11 register file
VGPR_GRANULE = 24     # wave32 allocation granule with that file
MAX_WAVES = 16


def tool(name):
    return os.path.join(LLVM, name)


def device_object(obj, tmp):
    fb = os.path.join(tmp, "fb.bin")
    dev = os.path.join(tmp, "dev.o")
    r = subprocess.run([tool("llvm-objcopy"), "--dump-section", ".hip_fatbin=" + fb, obj, os.devnull],
                       capture_output=True)
    if r.returncode != 0 or not os.path.exists(fb) or os.path.getsize(fb) == 0:
        return None
    r = subprocess.run([tool("clang-offload-bundler"), "--unbundle", "--type=o", "--input=" + fb,
                        "--targets=" + TARGET, "--output=" + dev], capture_output=True)
    os.unlink(fb)
    return dev if r.returncode == 0 else None


def device_objects(build_dir):
    """(object path, its unbundled gfx1151 object) for every object under build_dir/csrc with device code."""
    objs = []
    for root, _, files in os.walk(os.path.join(build_dir, "csrc")):
        objs += [os.path.join(root, f) for f in files if f.endswith(".o")]
    with tempfile.TemporaryDirectory() as tmp:
        for obj in sorted(objs):
            dev = device_object(obj, tmp)
            if dev:
                yield obj, dev
                os.unlink(dev)


def disassembly(obj, tmp):
    """The gfx1151 disassembly of an object's device bundle, or None."""
    dev = device_object(obj, tmp)
    if not dev:
        return None
    text = subprocess.run([tool("llvm-objdump"), "-d", "--mcpu=gfx1151", dev], capture_output=True, text=True).stdout
    os.unlink(dev)
    return text


def kernels_of(dev):
    out = subprocess.run([tool("llvm-readelf"), "--notes", dev], capture_output=True, text=True).stdout
    ks, cur, indent, in_kernels = [], None, None, False
    keys = ("group_segment_fixed_size", "private_segment_fixed_size", "sgpr_count", "vgpr_count",
            "sgpr_spill_count", "vgpr_spill_count", "max_flat_workgroup_size")
    for line in out.splitlines():
        if "amdhsa.kernels:" in line:
            in_kernels = True
            continue
        if not in_kernels:
            continue
        m = re.match(r"^(\s*)(- )?\.(\w+):\s*(.*)$", line)
        if not m:
            continue
        lead, dash, key, val = len(m.group(1)), m.group(2), m.group(3), m.group(4).strip()
        if dash and indent is None:
            indent = lead
        if dash and lead == indent:
            cur = {}
            ks.append(cur)
        elif indent is not None and lead <= indent and not dash and key not in keys and key != "symbol":
            if lead < indent:
                in_kernels = False
                continue
        if cur is None or (lead != indent + 2 and not (dash and lead == indent)):
            continue
        if key == "symbol":
            cur["symbol"] = val.replace(".kd", "")
        elif key in keys:
            cur[key] = int(val)
    return [k for k in ks if "symbol" in k]


def demangle(names):
    r = subprocess.run([tool("llvm-cxxfilt")], input="\n".join(names), capture_output=True, text=True)
    return r.stdout.splitlines()


def occupancy(vgpr):
    alloc = max(VGPR_GRANULE, (vgpr + VGPR_GRANULE - 1) // VGPR_GRANULE * VGPR_GRANULE)
    return min(MAX_WAVES, VGPR_FILE // alloc)


def load_budgets(path):
    budgets = []
    if os.path.exists(path):
        for line in open(path):
            line = line.strip()
            if not line or line.startswith("#"):
                continue
            pat, lo, hi = line.split("\t")
            budgets.append((re.compile(pat), int(lo), int(hi)))
    return budgets


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("build_dir")
    ap.add_argument("--tsv", help="also write the table here")
    ap.add_argument("--quiet", action="store_true", help="print the summary and failures only")
    a = ap.parse_args()
    rows = []
    for obj, dev in device_objects(a.build_dir):
        for k in kernels_of(dev):
            k["object"] = os.path.relpath(obj, a.build_dir)
            rows.append(k)
    if not rows:
        print("isa_report: no kernels found under", a.build_dir)
        return 1
    # A kernel instantiated in several units is compiled in each: keep one row
    # and the list of its objects, so the build report can count the repeats.
    by_symbol = {}
    for k in rows:
        if k["symbol"] in by_symbol:
            by_symbol[k["symbol"]]["objects"].append(k["object"])
        else:
            k["objects"] = [k["object"]]
            by_symbol[k["symbol"]] = k
    rows = list(by_symbol.values())
    for k, d in zip(rows, demangle([k["symbol"] for k in rows])):
        k["pretty"] = d
    budgets = load_budgets(os.path.join(os.path.dirname(os.path.abspath(__file__)), "isa_budgets.tsv"))
    fails = []
    lines = ["vgpr\tsgpr\tlds\tscratch\tspill_v\tspill_s\twaves/simd\tkernel\tobjects"]
    for k in sorted(rows, key=lambda k: k["pretty"]):
        v = k.get("vgpr_count", 0)
        line = "%d\t%d\t%d\t%d\t%d\t%d\t%d\t%s\t%s" % (
            v, k.get("sgpr_count", 0), k.get("group_segment_fixed_size", 0), k.get("private_segment_fixed_size", 0),
            k.get("vgpr_spill_count", 0), k.get("sgpr_spill_count", 0), occupancy(v), k["pretty"],
            ",".join(k["objects"]))
        lines.append(line)
        if k.get("private_segment_fixed_size", 0) or k.get("vgpr_spill_count", 0) or k.get("sgpr_spill_count", 0):
            fails.append("scratch or spill: " + k["pretty"])
        for pat, lo, hi in budgets:
            if pat.search(k["pretty"]) and not (lo <= v <= hi):
                fails.append("VGPRs %d outside [%d, %d]: %s" % (v, lo, hi, k["pretty"]))
    if not a.quiet:
        print("\n".join(lines))
    if a.tsv:
        with open(a.tsv, "w") as f:
            f.write("\n".join(lines) + "\n")
    vg = [k.get("vgpr_count", 0) for k in rows]
    print("isa_report: %d kernels, VGPRs %d..%d, %d with scratch or spills, %d over budget" % (
        len(rows), min(vg), max(vg), sum(1 for f in fails if f.startswith("scratch")),
        sum(1 for f in fails if f.startswith("VGPRs"))))
    for f in fails:
        print("FAIL", f)
    return 1 if fails else 0


if __name__ == "__main__":
    sys.exit(main())
