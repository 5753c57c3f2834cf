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

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from check_disasm import functions  # noqa: E402
from isa_report import demangle, device_objects, tool  # noqa: E402


def code_of(dev):
    """Instructions of each function of a device object, names, addresses and encodings stripped."""
    out = subprocess.run([tool("llvm-objdump"), "-d", "--mcpu=gfx1151", "--no-show-raw-insn", dev],
                         capture_output=True, text=True).stdout
    code = {}
    for name, lines in functions(out).items():
        text = [re.sub(r"<[^>]*>", "", re.sub(r"_Z\w+", "SYM", re.sub(r"//.*", "", l))).strip() for l in lines]
        code[name] = [t for t in text if t and t != "..." and not t.startswith("s_code_end")]
    code.pop(".text", None)
    return code


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("build_dir")
    a = ap.parse_args()
    groups = collections.defaultdict(set)
    for obj, dev in device_objects(a.build_dir):
        for sym, lines in code_of(dev).items():
            groups[hashlib.sha1("\n".join(lines).encode()).hexdigest()].add((sym, os.path.relpath(obj, a.build_dir)))
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
