#!/usr/bin/env python3
"""Checks the gfx1151 disassembly of the device-layer probe kernels."""
import os
import re
import subprocess
import sys
import tempfile

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from isa_report import device_object, tool  # noqa: E402

EXPECT = {
    "wmma_probe_kernel": ["v_wmma_f32_16x16x16_bf16"],
    "lanes_probe_kernel": ["v_permlanex16_b32", "ds_bpermute_b32", "v_perm_b32", "v_readlane_b32", "row_xmask:2"],
    "buffer_probe_kernel": ["buffer_load_b128", "global_store_b128"],
    "sink_probe_kernel": ["v_permlanex16_b32"],
}


def functions(text):
    out, name = {}, None
    for line in text.splitlines():
        m = re.match(r"^[0-9a-f]+ <(.*)>:$", line)
        if m:
            name = m.group(1)
            out[name] = []
        elif name:
            out[name].append(line)
    return out


def main():
    obj = sys.argv[1]
    with tempfile.TemporaryDirectory() as tmp:
        dev = device_object(obj, tmp)
        if not dev:
            print("check_disasm: no gfx1151 code in", obj)
            return 1
        text = subprocess.run([tool("llvm-objdump"), "-d", "--mcpu=gfx1151", dev], capture_output=True,
                              text=True).stdout
    fns = functions(text)
    bad = 0
    for short, needles in EXPECT.items():
        body = next((v for k, v in fns.items() if short in k), None)
        if body is None:
            print("FAIL missing kernel", short)
            bad += 1
            continue
        joined = "\n".join(body)
        for n in needles:
            if n not in joined:
                print("FAIL %s: no %s" % (short, n))
                bad += 1
    # The cross-lane instruction must come before the first exec-mask change.
    body = next(v for k, v in fns.items() if "sink_probe_kernel" in k)
    perm = next((i for i, l in enumerate(body) if "v_permlanex16_b32" in l), None)
    branch = next((i for i, l in enumerate(body) if re.search(r"s_and_saveexec|s_cbranch_execz", l)), None)
    if perm is None or (branch is not None and perm > branch):
        print("FAIL sink_probe_kernel: v_permlanex16_b32 was moved into divergent code")
        bad += 1
    print("check_disasm: %d kernels, %d failures" % (len(EXPECT), bad))
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
