#!/usr/bin/env python3
"""Checks the main loops of the GEMM family's gfx1151 kernels.

For every gemm_kernel, gemm_splitk_kernel, gemm_seg2_kernel and
proj_decode_splitk_kernel in a hip-flavour build, finds the loops (backward
branches) of its disassembly and checks the loop that carries the matrix
instructions: the intended count of v_wmma per trip (16 per K step of the
prefill tile, 8 per 128 K of the deep and fp8 decode loops, 4 per 64 K of the
plain bf16 decode loop), and that A and B arrive as 16-byte global loads. A
decode split of at most two trips has no loop left and passes as straight code.
"""
import argparse
import os
import re
import sys
import tempfile

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from isa_report import demangle, disassembly  # noqa: E402

KERNELS = ("gemm_kernel", "gemm_splitk_kernel", "gemm_seg2_kernel", "proj_decode_splitk_kernel")


def functions(text):
    """name -> (start address, [(address, instruction text)])"""
    out, name = {}, None
    for line in text.splitlines():
        m = re.match(r"^([0-9a-f]+) <(.*)>:$", line)
        if m:
            name = m.group(2)
            out[name] = (int(m.group(1), 16), [])
            continue
        if name is None:
            continue
        m = re.search(r"//\s*([0-9A-F]+):", line)
        if m:
            out[name][1].append((int(m.group(1), 16), line.split("//")[0].strip()))
    return out


def loops(start, body, raw):
    """(first index, last index) of each loop: the backward branches to one
    head form one loop, ending at the last of them."""
    heads = {}
    for i, (addr, ins) in enumerate(body):
        if not ins.startswith("s_cbranch") and not ins.startswith("s_branch"):
            continue
        m = re.search(r"<[^>+]*\+0x([0-9a-f]+)>", raw[i])
        if not m:
            continue
        target = start + int(m.group(1), 16)
        if target <= addr:
            first = next(j for j, (a, _) in enumerate(body) if a >= target)
            heads[first] = max(heads.get(first, i), i)
    return sorted(heads.items())


def innermost(spans, has_wmma):
    """The loops with matrix instructions that hold no other such loop."""
    keep = [s for s in spans if has_wmma(s)]
    return [s for s in keep if not any(o != s and s[0] <= o[0] and o[1] <= s[1] for o in keep)]


def expected_wmma(pretty):
    if "ProjDecodeStream" in pretty or "proj_decode_splitk" in pretty:
        if "WDenseBf16" in pretty and "ProjConfigFor" in pretty and ", false>" in pretty:
            return 4  # plain bf16: two units of 32 K per trip
        return 8  # deep: 128 K per trip; fp8: one 128-K scale block per trip
    return 16  # prefill: one K step of the 256 x 128 x 32 tile


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("build_dir")
    a = ap.parse_args()
    objs = []
    for root, _, files in os.walk(os.path.join(a.build_dir, "csrc")):
        objs += [os.path.join(root, f) for f in files if f.endswith(".o") and "gemm" in f]
    seen, fails, rows = set(), [], []
    with tempfile.TemporaryDirectory() as tmp:
        for obj in sorted(objs):
            text = disassembly(obj, tmp)
            if text is None:
                continue
            fns = {k: v for k, v in functions(text).items() if any(s in k for s in KERNELS) and k not in seen}
            if not fns:
                continue
            names = list(fns)
            raw_lines = {}
            for name in names:
                raw_lines[name] = [l for l in text.split("<" + name + ">:\n", 1)[1].splitlines()
                                   if re.search(r"//\s*[0-9A-F]+:", l)][:len(fns[name][1])]
            for name, pretty in zip(names, demangle(names)):
                if not any(pretty.startswith("void quillon::gemm_core::" + k + "<") for k in KERNELS):
                    continue
                seen.add(name)
                start, body = fns[name]
                want = expected_wmma(pretty)
                def count(span, prefix):
                    return sum(1 for _, ins in body[span[0]:span[1] + 1] if ins.startswith(prefix))

                spans = innermost(loops(start, body, raw_lines[name]),
                                  lambda sp: count(sp, "v_wmma_f32_16x16x16_bf16") > 0)
                counts = [(count(sp, "v_wmma_f32_16x16x16_bf16"), count(sp, "global_load_b128")) for sp in spans]
                arms = 2 if "gemm_seg2_kernel" in pretty else 1
                total = sum(1 for _, ins in body if ins.startswith("v_wmma_f32_16x16x16_bf16"))
                if not counts and total <= 2 * want:
                    # A split of two trips or less: the peeled trip leaves no loop.
                    rows.append("%-9s %-10s %s" % ("straight", "-", pretty.replace("quillon::gemm_core::", "")[:150]))
                    continue
                main_loops = [c for c in counts if c[0] == want]
                short = pretty.replace("quillon::gemm_core::", "")
                rows.append("%-9s %-10s %s" % (",".join(str(c[0]) for c in counts) or "-",
                                                ",".join(str(c[1]) for c in counts) or "-", short[:150]))
                if len(main_loops) != arms or len(counts) != arms:
                    fails.append("wmma per trip %s, want %d x %d: %s" % ([c[0] for c in counts], arms, want, short))
                elif any(c[1] == 0 for c in main_loops):
                    fails.append("no 16-byte global load in the main loop: " + short)
    print("wmma/trip b128/trip kernel")
    print("\n".join(sorted(rows, key=lambda r: r.split(None, 2)[2])))
    print("check_gemm_disasm: %d kernels, %d failures" % (len(rows), len(fails)))
    for f in fails:
        print("FAIL", f)
    return 1 if fails or not rows else 0


if __name__ == "__main__":
    sys.exit(main())
