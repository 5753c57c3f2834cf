#!/usr/bin/env python3
"""A static throughput model of every gfx1151 kernel in a hip-flavour build.

A model, not a measurement: no gfx1151 runs here. For each kernel it finds the
main loop in the disassembly, counts per trip what one wave issues (global
bytes by load width, LDS bytes, VALU with VOPD pairs once, SALU, matrix
instructions, waits) and turns the counts into cycles per trip on one SIMD
for issue, DRAM, LDS, vector memory requests and latency. The largest wins;
the fraction of the memory (or matrix) roof follows. Every assumed figure is
in CHIP and ENDS below; where one is uncertain the model runs at both ends.

Exits 1 when a family's main loop is not found in a kernel of that family, a
family has no kernels, or the weight bytes a decode loop loads per lane do not
identify the weight format its name carries.
"""
import argparse
import concurrent.futures
import os
import re
import subprocess
import sys
import tempfile
from collections import Counter

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from isa_report import demangle, device_object, kernels_of, occupancy, tool  # noqa: E402

# Published gfx1151 figures (the chip's data sheet).
CUS, SIMDS_PER_CU, CLOCK_HZ = 40, 2, 2.9e9
MATRIX_FLOPS, DRAM_BYTES_S = 59.4e12, 256e9
SIMDS = CUS * SIMDS_PER_CU
# Derived: one 16x16x16 bf16 instruction is 8192 flops; at 59.4 TFLOP/s over 80
# SIMDs at 2.9 GHz a SIMD does 256 per cycle, so it holds the SIMD 32 cycles.
WMMA_CYCLES = 2 * 16 * 16 * 16 / (MATRIX_FLOPS / SIMDS / CLOCK_HZ)
DRAM_PER_SIMD = DRAM_BYTES_S / SIMDS / CLOCK_HZ  # bytes per cycle per SIMD
EXECZ_SHORT = 24
# Assumed, with the two ends the model is run at: (fast end, slow end).
ENDS = {
    "multi_cycle": (1, 4),       # transcendental, 32-bit integer multiply, f64: cycles each
    "salu_hidden": (True, False),  # SALU of one wave issues beside another wave's VALU
    "execz_skipped": (True, False),  # short blocks behind s_cbranch_execz skipped (uniform lanes) or run
    "lds_per_cu": (128, 64),     # LDS bytes per cycle per compute unit
    "vmem_per_cu": (128, 64),    # vector memory request bytes per cycle per compute unit (L0)
    "latency_ns": (400, 800),    # DRAM latency a wave waits on
    "l2_reuse": (True, False),   # prefill: L2 serves A and 3 of 4 B reads, or nothing
}
ENDS_TEXT = [
    "matrix instruction %.0f cycles (8192 flops at the published rate)" % WMMA_CYCLES,
    "VALU 1 cycle, a VOPD pair 1 cycle; transcendental, integer multiply, f64: 1..4 cycles",
    "SALU hidden behind other waves' VALU .. serialised with the wave's own VALU",
    "short blocks (up to %d instructions) behind s_cbranch_execz skipped .. executed" % EXECZ_SHORT,
    "LDS 128..64 B/cycle/CU; vector memory requests 128..64 B/cycle/CU",
    "DRAM latency 400..800 ns, covered by the waves of the ISA report's occupancy",
    "decode: DRAM bytes = the weight format's bytes (16 columns per wave, shared by the two waves of a 32-row tile);"
    " A is cache-resident",
    "prefill: L2 serves A and 3 of 4 B reads (four row tiles walk one weight tile) .. every request from DRAM",
    "other kernels: every requested global byte is a DRAM byte (each lane its own address)",
]

MULTI = re.compile(r"^v_(exp|log|rcp|rsq|sqrt|sin|cos)_|^v_mul_(lo|hi)_[ui]32|^v_mad_[ui]64_[ui]32|_f64")
HINTS = ("s_delay_alu", "s_clause", "s_nop", "s_set_inst_prefetch_distance", "s_waitcnt", "s_barrier",
         "s_sendmsg", "s_endpgm")


def parse(text):
    """name -> (start, [(address, mnemonic, text, branch target or None)])"""
    out, name = {}, None
    for line in text.splitlines():
        m = re.match(r"^([0-9a-f]+) <(.*)>:$", line)
        if m:
            name = m.group(2)
            out[name] = (int(m.group(1), 16), [])
            continue
        m = re.search(r"//\s*([0-9A-F]+):", line)
        ins = line.split("//")[0].strip()
        if name is None or not m or not ins:
            continue
        t = re.search(r"<[^>+]*\+0x([0-9a-f]+)>", line)
        target = out[name][0] + int(t.group(1), 16) if t and ins.startswith(("s_branch", "s_cbranch")) else None
        out[name][1].append((int(m.group(1), 16), ins.split()[0], ins, target))
    return out


def real_loops(body):
    """(first, last) index of each loop: a backward branch whose target reaches
    it again inside the span (cold code placed after a loop jumps back without
    forming one)."""
    at = {a: i for i, (a, *_rest) in enumerate(body)}
    spans = {}
    for i, (addr, mn, _, target) in enumerate(body):
        if target is None or target > addr or target not in at:
            continue
        first, seen, todo = at[target], set(), [at[target]]
        while todo:
            j = todo.pop()
            if j in seen or j < first or j > i:
                continue
            seen.add(j)
            mn_j, tj = body[j][1], body[j][3]
            if tj is not None and tj in at:
                todo.append(at[tj])
            if mn_j not in ("s_branch", "s_endpgm", "s_setpc_b64"):
                todo.append(j + 1)
        if i in seen:
            spans[first] = max(spans.get(first, i), i)
    return sorted(spans.items())


def width(mn):
    m = re.findall(r"[bui](8|16|32|64|96|128)", mn)
    return (int(m[-1]) // 8 if m else 4) * (2 if "2addr" in mn else 1)


def count(body, span):
    """Per-wave counts of one trip."""
    c = Counter()
    ops = Counter()  # issue cycles (slow end) by mnemonic, for the cost notes
    at = {b[0]: i for i, b in enumerate(body)}
    short = set()  # short blocks behind s_cbranch_execz: special cases (f16 subnormals, NaN) lanes rarely take
    for i in range(span[0], span[1] + 1):
        t = body[i][3]
        if body[i][1] == "s_cbranch_execz" and t in at and 0 < at[t] - i <= EXECZ_SHORT:
            short.update(range(i + 1, at[t]))
    for i in range(span[0], span[1] + 1):
        addr, mn, ins, target = body[i]
        skippable = i in short
        if mn.startswith(("global_load", "buffer_load", "flat_load")):
            c["vmem_load_lane_bytes"] += width(mn)
            c["load." + mn] += 1
        elif mn.startswith(("global_store", "buffer_store", "global_atomic", "buffer_atomic")):
            c["vmem_store_lane_bytes"] += width(mn)
            c["store." + mn] += 1
        elif mn.startswith("ds_"):
            c["lds_lane_bytes"] += width(mn)
            c["lds_ops"] += 1
        elif mn.startswith(("s_load", "s_buffer_load")):
            c["smem"] += 1
        elif mn.startswith("v_wmma"):
            c["wmma"] += 1
        elif mn.startswith("v_"):
            multi = bool(MULTI.search(mn)) or " :: " in ins and bool(MULTI.search(ins.split("::")[1].strip()))
            c["valu"] += 1
            c["vopd"] += mn.startswith("v_dual")
            c["valu_multi"] += multi
            c["valu_execz"] += skippable
            ops[mn] += 4 if multi else 1
        elif mn.startswith("s_waitcnt"):
            c["waits"] += 1
        elif mn == "s_barrier":
            c["barriers"] += 1
        elif mn.startswith("s_") and not mn.startswith(HINTS):
            c["salu"] += 1
            ops[mn] += 1
    return c, ops


def latency_rounds(body, span):
    """Memory round trips one trip waits out in turn: stalls on a load issued
    after the previous stall, in the steady state (loads of the trip before
    carried in)."""
    queue, last, rounds = [], (-1, 0), 0
    for rnd in range(3):
        for i in range(span[0], span[1] + 1):
            mn, ins = body[i][1], body[i][2]
            if mn.startswith(("global_load", "buffer_load", "flat_load")):
                queue.append((rnd, i))
            m = re.search(r"vmcnt\((\d+)\)", ins) if mn == "s_waitcnt" else None
            if m and len(queue) > int(m.group(1)):
                popped = queue[:len(queue) - int(m.group(1))]
                queue = queue[len(popped):]
                if max(popped) > last:
                    rounds += rnd == 2
                    last = (rnd, i)
    return rounds


# ---- Weight formats --------------------------------------------------------------------
def formats(root):
    """name -> (bytes per weight in the shuffled planes, the B bytes a decode lane may load per 32 K,
    whether its loop exchanges lane halves), and id -> name."""
    src = open(os.path.join(root, "include", "quillon", "kquant_sets.h")).read()
    out = {"bf16": (2.0, {64.0}, False), "fp8": (1.0 + 2.0 / (128 * 128), {32.5}, False)}
    for name, bits, meta in re.findall(r'case \w+: return \{\w+, "(\w+)", \d+, \d+, (\d+), (\d+)\}', src):
        bits, meta = int(bits), int(meta)
        tail = (meta - 512) // 32
        # The 12-byte rows of 3 bits are read as 16 (the quant plane carries 4 bytes of slack).
        # Q3_K and Q4_K split the expansion between the lane halves (permlanex16).
        out[name] = (bits / 8 + meta / (32 * 256), {w + 2 + tail for w in (4 * bits, 16 if bits == 3 else 4 * bits)},
                     name in ("Q3_K", "Q4_K"))
    return out, dict((i, n) for n, i in re.findall(r"^\s+(\w+) = (\d+),$", src, re.M))


def named_formats(pretty, ids):
    """The weight formats in a kernel's template arguments, in order."""
    got = []
    for m in re.finditer(r"Bf16|Fp8|LmHead(?:Decode|Prefill)Config|LmHeadKQuant\w*<quillon::\w+, (?:\d+, )?(\d+)>|"
                         r"KQuant\w*<(\d+)", pretty):
        f = "fp8" if m.group(0) == "Fp8" else ids.get(m.group(1) or m.group(2)) if "KQuant" in m.group(0) else "bf16"
        if f and f not in got:
            got.append(f)
    return got


# ---- Families ------------------------------------------------------------------------
def family_of(pretty):
    if "LmHead" in pretty:
        return "LM head"
    if pretty.startswith("void quillon::gemm_core::") and re.search(r"gemm_kernel|gemm_splitk|gemm_seg2|proj_decode", pretty):
        return "GEMM"  # decode or prefill by what its loop carries
    if "quillon::norm::" in pretty:
        return "norms"
    if re.search(r"softmax_kernel|topk_topp_kernel|multinomial_kernel|argmax_kernel", pretty):
        return "sampling"
    if "gather_embedding" in pretty:
        return "embedding gather"
    return "layouts and reductions"


# Kernels that must walk their work in a loop; the others may be straight code.
LOOP_REQUIRED = re.compile(r"gemm_core::(gemm_kernel|gemm_splitk|gemm_seg2|proj_decode)|LmHead|softmax_kernel|"
                           r"topk_topp_kernel|argmax_kernel")


def main_loops(body, spans, fam):
    """The main loops of a kernel of family fam (several: the arms of a fused launch)."""
    def has(sp, *prefixes):
        return any(b[1].startswith(prefixes) for b in body[sp[0]:sp[1] + 1])
    if fam in ("GEMM", "LM head"):
        keep = [s for s in spans if has(s, "v_wmma") and has(s, "global_load", "buffer_load")]
        lds = [s for s in keep if has(s, "ds_load") and has(s, "s_barrier")]
        keep = lds or keep
    else:
        keep = [s for s in spans if has(s, "global_load", "buffer_load")]
        if keep:
            most = max(count(body, s)[0]["vmem_load_lane_bytes"] for s in keep)
            keep = [s for s in keep if count(body, s)[0]["vmem_load_lane_bytes"] == most]
    inner = [s for s in keep if not any(o != s and s[0] <= o[0] and o[1] <= s[1] for o in keep)]
    return inner if fam in ("GEMM", "LM head") else inner[:1]


# ---- The model -----------------------------------------------------------------------
def model(c, rounds, kind, fmt, share, waves, fmts, end):
    """Cycles per trip per wave on one SIMD at one end (0 fast, 1 slow)."""
    mc = ENDS["multi_cycle"][end]
    valu = c["valu"] + (mc - 1) * c["valu_multi"] - (c["valu_execz"] if ENDS["execz_skipped"][end] else 0)
    issue = valu + c["wmma"] * WMMA_CYCLES + (0 if ENDS["salu_hidden"][end] else c["salu"])
    req = 32 * (c["vmem_load_lane_bytes"] + c["vmem_store_lane_bytes"])
    if kind == "decode":
        dram = 16 * 16 * c["wmma"] * fmts[fmt][0] / share
    elif kind == "prefill":
        # A is two 16-byte loads per lane per K step; the rest of the loads are B.
        dram = 32 * (c["vmem_load_lane_bytes"] - 32) / 4 if ENDS["l2_reuse"][end] else req
    else:
        dram = req
    lds = 32 * c["lds_lane_bytes"] / (ENDS["lds_per_cu"][end] / SIMDS_PER_CU)
    vmem = req / (ENDS["vmem_per_cu"][end] / SIMDS_PER_CU)
    mem = dram / DRAM_PER_SIMD
    # A wave's trip lasts at least its round trips in turn; the SIMD's other waves fill that time.
    latency = rounds * ENDS["latency_ns"][end] * 1e-9 * CLOCK_HZ / waves
    parts = {"issue": issue, "memory": mem, "LDS": lds, "requests": vmem, "latency": latency}
    bound = max(parts, key=parts.get)
    t = parts[bound] or 1
    return {"t": t, "bound": bound, "mem_frac": mem / t, "mat_frac": c["wmma"] * WMMA_CYCLES / t, "dram": dram,
            "issue": issue, "mem": mem, "latency": latency}


def row_tile(pretty):
    """The decode row tile; at 32 rows two waves read each B column."""
    m = re.search(r"DecodeConfig<[\w:]+, (\d+)|Decode\w*Stream<(\d+)>|SplitKConfigFor<.*, \d+, (\d+)>", pretty)
    return int(next(g for g in m.groups() if g)) if m else 0


def kernel_rows(build, only, fmts, ids, fails):
    objs = sorted(os.path.join(r, f) for r, _, fs in os.walk(os.path.join(build, "csrc")) for f in fs
                  if f.endswith(".o") and re.search(only, f))
    def disassemble(obj):
        with tempfile.TemporaryDirectory() as tmp:
            dev = device_object(obj, tmp)
            if not dev:
                return {}, ""
            return ({k["symbol"]: k for k in kernels_of(dev)},
                    subprocess.run([tool("llvm-objdump"), "-d", "--mcpu=gfx1151", dev], capture_output=True,
                                   text=True).stdout)
    rows, seen = [], set()
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count() or 2) as pool:
        for meta, text in pool.map(disassemble, objs):
            fns = {n: v for n, v in parse(text).items() if n in meta and n not in seen}
            seen.update(fns)
            for name, pretty in zip(fns, demangle(list(fns))):
                rows.append(kernel_row(name, pretty, fns[name][1], meta[name], fmts, ids, fails))
    return rows


def kernel_row(name, pretty, body, meta, fmts, ids, fails):
    fam = family_of(pretty)
    row = {"pretty": pretty, "family": fam, "waves": occupancy(meta.get("vgpr_count", 0)), "arms": []}
    loops = main_loops(body, real_loops(body), fam)
    if not loops:
        total_wmma = sum(1 for b in body if b[1].startswith("v_wmma"))
        if fam == "GEMM" and "proj_decode" in pretty and 0 < total_wmma <= 16:
            row["straight"] = True  # a split of two trips or less: the peeled trips leave no loop
            return row
        if LOOP_REQUIRED.search(pretty) or not any(b[1].startswith(("global_load", "buffer_load")) for b in body):
            fails.append("%s: main loop not found: %s" % (fam, pretty))
            return row
        loops = [(0, len(body) - 1)]  # straight by design: one row or block per workgroup
        row["straight"] = True
    for span in loops:
        c, ops = count(body, span)
        kind = "other"
        if fam in ("GEMM", "LM head"):
            kind = "prefill" if c["lds_ops"] and c["barriers"] else "decode"
        arm = {"span": span, "addr": (body[span[0]][0], body[span[1]][0]), "counts": c, "ops": ops, "kind": kind, "fmt": "",
               "rounds": latency_rounds(body, span)}
        if kind == "decode":
            per_unit = (c["vmem_load_lane_bytes"] - 32 * c["wmma"]) / (c["wmma"] / 2)
            named = named_formats(pretty, ids)
            halves = any(b[1] == "v_permlanex16_b32" for b in body[span[0]:span[1] + 1])
            match = [f for f in named if per_unit in fmts[f][1] and fmts[f][2] == halves]
            if len(match) != 1:
                fails.append("decode loop loads %.1f B of B per lane per 32 K, not one named format (%s) matches: %s"
                             % (per_unit, ",".join(named), pretty))
                continue
            arm["fmt"] = match[0]
        elif kind == "prefill":
            named = named_formats(pretty, ids)
            arm["fmt"] = named[0] if named else ""
        arm["tile"] = row_tile(pretty) if kind == "decode" else 0
        if kind == "decode" and not arm["tile"]:
            fails.append("decode row tile not in the name: " + pretty)
            continue
        share = arm["tile"] // 16 if kind == "decode" else 1
        arm["ends"] = [model(c, arm["rounds"], kind, arm["fmt"], share, row["waves"], fmts, e) for e in (0, 1)]
        row["arms"].append(arm)
    return row


# ---- Output --------------------------------------------------------------------------
def group_of(row, arm):
    if row["family"] in ("GEMM", "LM head"):
        fam = ("LM head, " if row["family"] == "LM head" else "") + arm["kind"]
        sub = arm["fmt"] + (", %d rows" % arm["tile"] if arm["kind"] == "decode" else "")
        return ("decode GEMM" if fam == "decode" else "prefill GEMM" if fam == "prefill" else fam), sub
    m = re.search(r"(\w+_kernel)", row["pretty"])
    return row["family"], m.group(1) if m else row["pretty"][:40]


def rng(a, b, fmt="%.0f"):
    return fmt % a if fmt % a == fmt % b else (fmt + "..") % a + fmt % b


def tables(rows):
    groups = {}
    for row in rows:
        for arm in row["arms"]:
            groups.setdefault(group_of(row, arm), []).append(arm)
    out, fam_now = [], None
    for (fam, sub), arms in sorted(groups.items()):
        matrix = fam.endswith("prefill") or fam == "prefill GEMM"
        frac = "mat_frac" if matrix else "mem_frac"
        if fam != fam_now:
            fam_now = fam
            decode = fam.endswith("decode") or fam == "decode GEMM"
            head = ["format" if fam.endswith(("GEMM", "decode", "prefill")) else "kernel", "kernels", "VALU (VOPD)",
                    "SALU", "WMMA", "waits", "load B/lane", "DRAM B", "issue cycles", "memory cycles", "bound",
                    "roof fraction"] + (["dequant keeps up with 256 GB/s", "issue-limited GB/s"] if decode else [])
            out += ["", "%s (model; fraction of the %s roof; counts per trip of one wave, slowest kernel)" % (
                fam, "matrix" if matrix else "memory"), "| " + " | ".join(head) + " |", "|---" * len(head) + "|"]
        worst = min(arms, key=lambda a: a["ends"][1][frac])
        c, (f, s) = worst["counts"], worst["ends"]
        lo = min(a["ends"][0][frac] for a in arms)
        hi = min(a["ends"][1][frac] for a in arms)
        line = "| %s | %d | %d (%d) | %d | %d | %d | %d | %.0f | %s | %.0f | %s | %s |" % (
            sub, len(arms), c["valu"], c["vopd"], c["salu"], c["wmma"], c["waits"],
            c["vmem_load_lane_bytes"], s["dram"], rng(f["issue"], s["issue"]), s["mem"],
            f["bound"] if f["bound"] == s["bound"] else f["bound"] + " / " + s["bound"],
            rng(100 * lo, 100 * hi, "%.0f%%"))
        if fam == "decode GEMM" or fam.endswith("decode"):
            fast = all(a["ends"][0]["issue"] <= a["ends"][0]["mem"] for a in arms)
            slow = all(a["ends"][1]["issue"] <= a["ends"][1]["mem"] for a in arms)
            gbs = [min(DRAM_BYTES_S / 1e9 * a["ends"][e]["mem"] / a["ends"][e]["issue"] for a in arms) for e in (0, 1)]
            line += " %s | %s |" % ("yes" if slow else "at the fast end only" if fast else "**no**",
                                    rng(gbs[0], gbs[1]))
        out.append(line)
    return out


def notes(rows):
    """Per decode group under 85% of the memory roof at the slow end, its slowest
    loop: issue cycles per DRAM byte and the instructions that cost the most."""
    worst = {}
    for row in rows:
        for arm in row["arms"]:
            g = group_of(row, arm)
            if arm["kind"] == "decode" and arm["ends"][1]["mem_frac"] < 0.85:
                if g not in worst or arm["ends"][1]["mem_frac"] < worst[g][1]["ends"][1]["mem_frac"]:
                    worst[g] = (row, arm)
    out = []
    for g, (row, arm) in sorted(worst.items()):
        s = arm["ends"][1]
        top = ", ".join("%s %d" % kv for kv in arm["ops"].most_common(5))
        out.append("%s %s: %.0f%%, %.2f issue cycles per DRAM byte (VALU %d, SALU %d per %.0f B); most: %s" % (
            g[0], g[1], 100 * s["mem_frac"], s["issue"] / s["dram"], arm["counts"]["valu"], arm["counts"]["salu"],
            s["dram"], top))
    return out


def show(rows, pattern):
    for row in rows:
        if not re.search(pattern, row["pretty"]):
            continue
        print("== model of", row["pretty"])
        for arm in row["arms"]:
            c = arm["counts"]
            print("  loop 0x%x..0x%x (%s %s): %s" % (arm["addr"][0], arm["addr"][1], arm["kind"], arm["fmt"],
                                                ", ".join("%s %d" % kv for kv in sorted(c.items()))))
            print("  memory round trips waited out in turn: %d" % arm["rounds"])
            for e, m in zip(("fast", "slow"), arm["ends"]):
                print("  %s end: %s" % (e, ", ".join("%s %s" % (k, ("%.1f" % v) if isinstance(v, float) else v)
                                                    for k, v in m.items())))


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("build_dir")
    ap.add_argument("--tsv", help="write one line per main loop here")
    ap.add_argument("--objects", default="", help="only object files whose name matches this pattern")
    ap.add_argument("--show", help="print the counts and both ends for kernels matching this pattern")
    a = ap.parse_args()
    root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    fmts, ids = formats(root)
    fails = []
    rows = kernel_rows(a.build_dir, a.objects, fmts, ids, fails)
    if a.show:
        show(rows, a.show)
    print("isa_model: a static MODEL from the gfx1151 disassembly, not a measurement.")
    print("chip: %d CUs x %d SIMD32 at %.1f GHz, one VALU per SIMD per cycle, %.1f TFLOP/s bf16 matrix, %.0f GB/s"
          " (%.3f B/cycle/SIMD)" % (CUS, SIMDS_PER_CU, CLOCK_HZ / 1e9, MATRIX_FLOPS / 1e12, DRAM_BYTES_S / 1e9,
                                   DRAM_PER_SIMD))
    print("assumed (fast end .. slow end):\n  " + "\n  ".join(ENDS_TEXT))
    print("\n".join(tables(rows)))
    low = notes(rows)
    print("\ndecode groups under 85%% of the memory roof at the slow end (model), slowest loop of each: %d"
          % len(low))
    print("\n".join(low))
    if a.tsv:
        with open(a.tsv, "w") as f:
            f.write("family\tformat\tkind\tvalu\tvopd\tsalu\twmma\twaits\tload_b_lane\tlds_b_lane\tdram_b\t"
                    "issue_fast\tissue_slow\tmemory\tbound_fast\tbound_slow\troof_fast\troof_slow\tkernel\n")
            for row in rows:
                for arm in row["arms"]:
                    c, (fe, se) = arm["counts"], arm["ends"]
                    k = "mat_frac" if arm["kind"] == "prefill" else "mem_frac"
                    f.write("%s\t%s\t%s\t%d\t%d\t%d\t%d\t%d\t%d\t%d\t%.0f\t%.0f\t%.0f\t%.0f\t%s\t%s\t%.3f\t%.3f\t%s\n" % (
                        *group_of(row, arm), arm["kind"], c["valu"], c["vopd"], c["salu"], c["wmma"], c["waits"],
                        c["vmem_load_lane_bytes"], c["lds_lane_bytes"], se["dram"], fe["issue"], se["issue"],
                        se["mem"], fe["bound"], se["bound"], fe[k], se[k], row["pretty"]))
    fams = Counter(r["family"] for r in rows)
    for fam in ("GEMM", "LM head", "norms", "sampling", "embedding gather"):
        if not fams[fam]:
            fails.append("no kernels of family " + fam)
    modelled = sum(1 for r in rows if r["arms"])
    print("isa_model: %d kernels, %d modelled (%d of them straight code), %d failures" % (
        len(rows), modelled, sum(1 for r in rows if r.get("straight") and r["arms"]), len(fails)))
    for f in fails:
        print("FAIL", f)
    return 1 if fails or not rows else 0


if __name__ == "__main__":
    sys.exit(main())
