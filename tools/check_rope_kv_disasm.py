#!/usr/bin/env python3
"""Checks the gfx1151 disassembly of the rotary and KV-pool kernels.

The QK norms keep a head in registers from load to store: no LDS instruction
at all, partners meet by lane exchange, 16-byte loads and stores. The KV
writers store a key's 8 (bf16) or 16 (int8) dims with one 16-byte store, and
the group rotation moves whole 16-byte chunks. Paged decode attention reads
the pool's K and V pages with 16-byte loads straight into WMMA operands: no
byte or 2-byte load of a page element (the int8 form's 2-byte loads are its V
scales) and no other matrix instruction; prefill likewise.
"""
import os
import sys
import tempfile

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from check_disasm import functions  # noqa: E402
from isa_report import demangle, disassembly  # noqa: E402

SOURCES = ("qk_norm.cpp.o", "rope_tail.cpp.o", "kv_cache_paged.cpp.o", "paged_flash_attn_gqa_decode.cpp.o",
           "paged_flash_attn_gqa_prefill.cpp.o")
PAGE_BYTES = ("global_load_u8", "global_load_i8", "global_load_d16", "v_wmma_f16", "v_wmma_i32", "v_wmma_bf16_")
# kernel name -> (instructions that must appear at least n times, prefixes that must not appear)
RULES = {
    "qk_norm_kernel<": ({"global_load_b128": 1, "global_store_b128": 1}, ("ds_",)),
    "qk_norm_rope_kernel<": ({"global_load_b128": 1, "global_store_b128": 1}, ("ds_",)),
    "dsv4_rope_tail_group_kernel<": ({"global_load_b128": 1, "global_store_b128": 1}, ("ds_",)),
    "reshape_and_cache_kernel<": ({"global_load_b128": 1, "global_store_b128": 1}, ()),
    "reshape_and_cache_int8_kernel<": ({"global_store_b128": 2}, ()),
    "paged_gqa_flash_attn_decode_partition_kernel<16, 2, 256, 16, 128, 8, true, 1, false,":
        ({"global_load_b128": 6, "v_wmma_f32_16x16x16_bf16": 4}, PAGE_BYTES + ("global_load_u16",)),
    "paged_gqa_flash_attn_decode_partition_kernel<24, 2, 256, 16, 128, 8, true, 8, true,":
        ({"global_load_b128": 4, "v_wmma_f32_16x16x16_bf16": 12}, PAGE_BYTES),
    "paged_gqa_flash_attn_decode_partition_kernel<32, 8, 128, 16, 128, 8, true, 16, false,":
        ({"global_load_b128": 6, "v_wmma_f32_16x16x16_bf16": 8}, PAGE_BYTES + ("global_load_u16",)),
    "paged_gqa_flash_attn_prefill_kernel<24, 2, 256,":
        ({"global_load_b128": 4, "v_wmma_f32_16x16x16_bf16": 12}, PAGE_BYTES),
}


def main():
    build = sys.argv[1]
    objs = []
    for root, _, files in os.walk(os.path.join(build, "csrc")):
        objs += [os.path.join(root, f) for f in files if f in SOURCES]
    seen, fails = {}, []
    with tempfile.TemporaryDirectory() as tmp:
        for obj in sorted(objs):
            text = disassembly(obj, tmp)
            if text is None:
                continue
            fns = functions(text)
            for name, pretty in zip(fns, demangle(list(fns))):
                rule = next((r for r in RULES if "::" + r in pretty), None)
                if rule is None:
                    continue
                need, banned = RULES[rule]
                ins = [l.split("//")[0].strip() for l in fns[name]]
                seen[rule] = seen.get(rule, 0) + 1
                for op, n in need.items():
                    got = sum(1 for i in ins if i.startswith(op))
                    if got < n:
                        fails.append("%s: %d x %s, want >= %d" % (pretty[:160], got, op, n))
                for b in banned:
                    hit = [i for i in ins if i.startswith(b)]
                    if hit:
                        fails.append("%s: %s" % (pretty[:160], hit[0]))
    for rule in RULES:
        if not seen.get(rule):
            fails.append("no kernel " + rule)
    print("check_rope_kv_disasm: %s, %d failures" % (
        ", ".join("%s %d" % (r.rstrip("<"), seen.get(r, 0)) for r in RULES), len(fails)))
    for f in fails:
        print("FAIL", f)
    return 1 if fails else 0


if __name__ == "__main__":
    sys.exit(main())
