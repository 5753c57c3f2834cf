#!/usr/bin/env python3
"""Kernels of a hip-flavour build whose gfx1151 code is identical.

Two instantiations that compile to the same instructions (names and addresses
aside) cost two compiles for one kernel: they should share one instance. Exits
1 when any group of identical kernels is found. Slow (disassembles every
object), so it is a tool to run after changing instantiations, not a test.
"""
import argparse
import collections
import hashlib
import os
import re
import subprocess
import sys
import tempfile

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from isa_report import demangle, device_object, tool  # noqa: E402


def code_of(dev):
    """Instruction text of each function of a device object, names and addresses stripped."""
    out = subprocess.run([tool("llvm-objdump"), "-d", "--no-show-raw-insn", "--no-leading-addr", dev],
                         capture_output=True, text=True).stdout
    funcs, cur = {}, None
    for line in out.splitlines():
        m = re.match(r"^<(.+)>:$", line)
        if m:
            cur = m.group(1)
            funcs[cur] = []
            continue
        text = re.sub(r"//.*", "", line).strip()
        if cur and text and text != "..." and not text.startswith("s_code_end"):
            funcs[cur].append(re.sub(r"<[^>]*>", "", re.sub(r"_Z\w+", "SYM", text)))
    return {k: v for k, v in funcs.items() if k != ".text"}


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("build_dir")
    a = ap.parse_args()
    objs = []
    for root, _, files in os.walk(os.path.join(a.build_dir, "csrc")):
        objs += [os.path.join(root, f) for f in files if f.endswith(".o")]
    groups = collections.defaultdict(set)
    with tempfile.TemporaryDirectory() as tmp:
        for obj in sorted(objs):
            dev = device_object(obj, tmp)
            if not dev:
                continue
            for sym, lines in code_of(dev).items():
                groups[hashlib.sha1("\n".join(lines).encode()).hexdigest()].add(
                    (sym, os.path.relpath(obj, a.build_dir)))
            os.unlink(dev)
    syms = {s for g in groups.values() for s, _ in g}
    same = [sorted(g) for g in groups.values() if len({s for s, _ in g}) > 1]
    print("same_code: %d kernels, %d groups of identical code (%d compiles to spare)" % (
        len(syms), len(same), sum(len({s for s, _ in g}) - 1 for g in same)))
    for g in same:
        print("identical:")
        for (_, obj), name in zip(g, demangle([s for s, _ in g])):
            print("   ", obj, name)
    return 1 if same else 0


if __name__ == "__main__":
    sys.exit(main())
