#!/usr/bin/env python3
"""Mutation score of the test suite.

Each mutant is one named source edit of the library (csrc/, include/). The
tool mirrors the checkout into a scratch tree, applies one edit at a time,
rebuilds only the test executables of the mutant's labels in one scratch cpu
build (ninja and ccache keep that small), runs those labels under the reverse
and then the forward schedule, and puts the file back. A mutant is killed when
a test fails or times out, survived when all pass, build-failed when it does
not compile. An edit whose old text is not found exactly once is an error: a
mutant that no longer applies is reported, never skipped.

    python3 tools/mutants.py                  # every mutant
    python3 tools/mutants.py norm.pad_row_sign sampling.   # names or prefixes
    python3 tools/mutants.py --list

Mutants marked heavy edit a header that most of the GEMM units include: their
first run rebuilds most of the library. Tests do not feed those objects, so a
later run after a change to tests/ only is served by ccache.
"""
import argparse
import os
import re
import shutil
import signal
import subprocess
import sys
import time
from dataclasses import dataclass
from pathlib import Path

REPO = Path(__file__).resolve().parent.parent

# The test executables of each ctest label.
TARGETS = {
    "frame": ["test_frame"],
    "runtime": ["test_runtime"],
    "formats": ["formats_test", "gguf_oracle_helper"],
    "shuffle": ["shuffle_test"],
    "norm": ["norm_test"],
    "embedding": ["embedding_test"],
    "sampling": ["sampling_test"],
    "lm_head": ["lm_head_test"],
    "gemm": ["gemm_test"],
    "proj": ["proj_test", "layer_proj_test"],
    "rope": ["rope_test"],
    "cache": ["kv_cache_test"],
    "io": ["file_reader_test", "file_reader_helper"],
    "attention": ["paged_attn_test"],
    "linear": ["linear_test"],
    "moe": ["moe_test"],
}


@dataclass
class Mutant:
    name: str
    path: str
    old: str
    new: str
    labels: tuple
    heavy: bool = False


def m(name, path, old, new, *labels, heavy=False):
    return Mutant(name, path, old, new, labels, heavy)


MUTANTS = [
    # ---- frame ----
    m("frame.name_cap_overflow", "csrc/capi/quillon_capi.cpp",
      "const int64_t n = len < cap - 1 ? len : cap - 1;",
      "const int64_t n = len < cap ? len : cap;", "frame"),
    m("frame.draft_q_heads_unchecked", "csrc/device/geometry.cpp",
      "s.num_kv_heads != 8 || s.num_q_heads != 32) return 1;",
      "s.num_kv_heads != 8) return 1;", "frame"),
    m("frame.device_count_ignored", "csrc/device/device_config.cpp",
      "return 2 * prop.multiProcessorCount;", "return 40;", "frame"),
    m("frame.fatal_exits", "csrc/platform/fatal.cpp",
      "std::fflush(stderr);\n  std::abort();", "std::fflush(stderr);\n  std::exit(1);", "frame"),
    # ---- CPU device runtime ----
    m("runtime.lds_limit_off_by_one", "csrc/platform/cpu/engine.cpp",
      "if (lds > 65536) return", "if (lds >= 65536) return", "runtime"),
    m("runtime.reverse_runs_forward", "csrc/platform/cpu/engine.cpp",
      "s.kind == Schedule::kReverse ? n - 1 - i : i", "i", "runtime"),
    m("runtime.divergence_same_file_only", "csrc/platform/cpu/engine.cpp",
      "f.bline != first->bline || std::strcmp", "f.bline != first->bline && std::strcmp", "runtime"),
    # ---- weight formats ----
    m("formats.fp8_scale_not_transposed", "csrc/gemm/kquant_shuffle.cpp",
      "const int64_t k = i / nb, n = i % nb;", "const int64_t k = i % kb, n = i / kb;", "formats"),
    m("formats.shuffle_check_order", "csrc/gemm/kquant_shuffle.cpp",
      "  kq::require_format_id(QUILLON_HERE, format);\n  gemm_core::check_kquant_shape(QUILLON_HERE, format, N, K);",
      "  gemm_core::check_kquant_shape(QUILLON_HERE, format, N, K);\n  kq::require_format_id(QUILLON_HERE, format);",
      "formats", "gemm"),
    m("formats.fp8_exponent_bias", "csrc/platform/numerics.h",
      "((m << 4) + 0x3c00u)", "((m << 4) + 0x3b80u)", "formats", "proj", heavy=True),
    # ---- shuffles ----
    m("shuffle.blk32_odd_block_count", "csrc/gemm_core/gemm_shuffle.cpp",
      "if (!whole || (R / 32) * (C / 32) % 2 != 0)", "if (!whole)", "shuffle"),
    m("shuffle.gate_width_2560_dropped", "csrc/gemm_core/gemm_shuffle.cpp",
      "kH == 2048 || kH == 2560", "kH == 2048", "shuffle"),
    # ---- norms ----
    m("norm.pad_row_sign", "csrc/norm/rmsnorm.cpp",
      "row0 + rb < rows ? pack_bf16x8(v) : zero16()", "pack_bf16x8(v)", "norm"),
    m("norm.block_sum_barrier_dropped", "csrc/norm/rmsnorm_core.h",
      "    if (l == 0) total = t;\n  }\n  __syncthreads();\n", "    if (l == 0) total = t;\n  }\n", "norm"),
    m("norm.fp32_input_round_half_away", "csrc/norm/rmsnorm_core.h",
      "v[i] = num::bf16_to_float(num::bf16_rne(num::bits_to_float(a[i])));",
      "v[i] = num::bf16_to_float(num::bf16_round_dequant(num::bits_to_float(a[i])));", "norm"),
    m("norm.pair_sum_order", "csrc/norm/rmsnorm_core.h",
      "((pair_sum(v, 0) + pair_sum(v, 1)) + pair_sum(v, 2)) + pair_sum(v, 3)",
      "(pair_sum(v, 0) + pair_sum(v, 1)) + (pair_sum(v, 2) + pair_sum(v, 3))", "norm"),
    m("norm.gate_sign_inverted", "csrc/norm/rmsnorm_gated.cpp",
      "dev::exp2(-g * kLog2e)", "dev::exp2(g * kLog2e)", "norm"),
    # ---- embedding gather ----
    m("gather.grid_counts_half_chunks", "csrc/device/gather_embedding.cpp",
      "n * (hidden / 8)", "n * (hidden / 16)", "embedding"),
    # ---- sampling ----
    m("sampling.softmax_barrier_dropped", "csrc/sampling/topk_topp.cpp",
      "  __syncthreads();  // part is reused by the sum\n", "", "sampling"),
    m("sampling.multinomial_scan_in_place", "csrc/sampling/multinomial.cpp",
      "    const float add = t >= step ? scan[t - step] : 0.0f;\n    __syncthreads();\n",
      "    const float add = t >= step ? scan[t - step] : 0.0f;\n", "sampling"),
    m("sampling.argmax_tie_takes_last", "csrc/sampling/multinomial.cpp",
      "(ov == v && oi < i)", "(ov == v && oi > i)", "sampling"),
    m("sampling.topk_check_order", "csrc/sampling/topk_topp.cpp",
      "  if (K < 1 || K > kSamplingMaxK)\n"
      "    QUILLON_FATAL(\"top_k width must be in 1..%d (got %lld)\", kSamplingMaxK, (long long)K);\n"
      "  if (K > V) QUILLON_FATAL(\"top_k (%lld) cannot exceed the vocabulary (%lld)\", (long long)K, (long long)V);\n",
      "  if (K > V) QUILLON_FATAL(\"top_k (%lld) cannot exceed the vocabulary (%lld)\", (long long)K, (long long)V);\n"
      "  if (K < 1 || K > kSamplingMaxK)\n"
      "    QUILLON_FATAL(\"top_k width must be in 1..%d (got %lld)\", kSamplingMaxK, (long long)K);\n",
      "sampling"),
    # ---- LM head ----
    m("lm_head.decode_up_to_16_rows", "csrc/embedding/lm_head_gemm.cpp",
      "constexpr int64_t kDecodeMaxRows = 32;", "constexpr int64_t kDecodeMaxRows = 16;", "lm_head"),
    m("lm_head.kquant_m0_unguarded", "csrc/embedding/lm_head_gemm.cpp",
      "    if (decode) check_decode_rows(M);\n", "", "lm_head"),
    m("lm_head.prefill_scratch_unpadded", "csrc/embedding/lm_head_gemm.cpp",
      "M > 0 ? PrefillTile::padded_rows(M) * H * 2 : 0", "M * H * 2", "lm_head"),
    # ---- GEMM core and general entries ----
    m("gemm.split_count_off_by_one", "csrc/gemm/gemm_bf16.cpp",
      "for (int64_t s = 2; s <= s_max; ++s)", "for (int64_t s = 2; s < s_max; ++s)", "gemm"),
    m("gemm.seg_seam_one_row_tile", "csrc/gemm/gemm_seg.cpp",
      "p1 = params(arms.arm[1], tiles0)", "p1 = params(arms.arm[1], arms.arm[0].N / 128)", "gemm"),
    m("gemm.reduce_grid_rounds_down", "csrc/gemm_core/gemm_kernel.cpp",
      "splitk_reduce_kernel<T>, dim3((unsigned)((count + 255) / 256))",
      "splitk_reduce_kernel<T>, dim3((unsigned)(count / 256))", "gemm", "proj"),
    m("gemm.blk32_last_column_rejected", "csrc/gemm/gemm_kquant.cpp",
      "col + N > W)", "col + N >= W)", "gemm"),
    m("gemm.a_ws_unpadded", "csrc/gemm/gemm_bf16.cpp",
      "return (M + 255) / 256 * K * 512;", "return M * K * 2;", "gemm"),
    m("gemm.prefill_barrier_dropped", "csrc/gemm_core/gemm_kernel.h",
      "      stage_b(lds_b + nxt * kLdsBBytes, bl.chunk(br));\n      __syncthreads();\n",
      "      stage_b(lds_b + nxt * kLdsBBytes, bl.chunk(br));\n", "gemm", heavy=True),
    # ---- projections and their fused launches ----
    m("proj.fused_road_below_32", "csrc/gemm_core/gemm_entry_fused.cpp",
      "c.mode == Decode && c.M <= 32", "c.mode == Decode && c.M < 32", "proj"),
    m("proj.triple_in_turn_seam", "csrc/gemm_core/gemm_entry_fused.cpp",
      "after(cz, linear_in_proj_z_kquant_shape(g).N)", "after(cz, linear_in_proj_qkv_kquant_shape(g).N)", "proj"),
    m("proj.linear_in_scratch_16_rows", "csrc/gemm_core/gemm_entry_proj.cpp",
      "const int64_t c = M < 32 ? M : 32;", "const int64_t c = M < 16 ? M : 16;", "proj"),
    m("proj.reduce2_splits_swapped", "csrc/gemm_core/gemm_kernel.cpp",
      "count1, count2, (int32_t)S1, (int32_t)S2", "count1, count2, (int32_t)S2, (int32_t)S1", "proj"),
    m("proj.pair_seam_off_by_one", "csrc/gemm_core/gemm_proj_fused.h",
      "  if (x < seam) main_arm<Cfg0>", "  if (x <= seam) main_arm<Cfg0>", "proj", heavy=True),
    # ---- attention projections and the dense MLP ----
    m("proj.oproj_gate_reads_query", "csrc/gemm_core/gemm_a_loaders.h",
      "(col / 256) * 512 + 256 + col % 256", "(col / 256) * 512 + col % 256", "proj"),
    m("proj.swiglu_gate_up_swapped", "csrc/gemm_core/gemm_a_loaders.h",
      "pairwise8(*reinterpret_cast<const dev::u32x4*>(gate + o), *reinterpret_cast<const dev::u32x4*>(up + o),",
      "pairwise8(*reinterpret_cast<const dev::u32x4*>(up + o), *reinterpret_cast<const dev::u32x4*>(gate + o),",
      "proj"),
    m("proj.qkv_decode_residual_dropped", "csrc/attention/full/qkv_proj.cpp",
      "rmsnorm(q.x, q.residual, q.norm_w,", "rmsnorm(q.x, nullptr, q.norm_w,", "proj"),
    m("proj.qkv_scratch_in_turn_off_by_one", "csrc/attention/full/qkv_proj.cpp",
      "    if (M > 32) {", "    if (M > 33) {", "proj"),
    m("proj.mlp_pair_up_column", "csrc/mlp/mlp_dense.cpp",
      "swiglu_down(down, {g, g + M * kI, kI}", "swiglu_down(down, {g, g + kI, kI}", "proj"),
    m("proj.mlp_stage_16_rows_past_32", "csrc/mlp/mlp_dense.cpp",
      "const int64_t c = M < 32 ? M : 32;", "const int64_t c = M < 32 ? M : 16;", "proj"),
    m("proj.oproj_decode_partials_unsized", "csrc/attention/full/out_scale_oproj.cpp",
      "dec = M * kn.K * 2 + proj::split_scratch_bytes(M, kn.N, kn.K);", "dec = M * kn.K * 2;", "proj"),
    m("proj.linear_out_width_2048", "csrc/gemm_core/gemm_entry_proj.cpp",
      "std::is_same_v<G, Qwen3627B> ? 5120 : 2560", "std::is_same_v<G, Qwen3627B> ? 5120 : 2048", "proj"),
    # ---- rotary tables and rotation ----
    m("rope.mrope_stream1_section_swapped", "csrc/rope/rope_partial_mrope.cpp",
      "j % 3 == 1 && j < 3 * S1", "j % 3 == 1 && j < 3 * S2", "rope"),
    m("rope.apply_fused_product_swapped", "csrc/rope/rope_core.h",
      "__builtin_fmaf(s, x0, c * x1)", "__builtin_fmaf(c, x1, s * x0)", "rope"),
    # ---- KV cache writers ----
    m("cache.int8_zero_row_scale", "csrc/cache/kv_cache_paged.cpp",
      "amax > 0.0f ? amax / 127.0f : 1.0f", "amax / 127.0f", "cache"),
    m("cache.k_only_checks_v_stride", "csrc/cache/kv_cache_paged.cpp",
      "(!v_cache || v_row_stride % 8 == 0)", "v_row_stride % 8 == 0", "cache"),
    m("cache.resolve_row_stride_ignored", "csrc/cache/resolve_slots.cpp",
      "block_table[(int64_t)row * row_stride + b]", "block_table[(int64_t)row * page + b]", "cache"),
    # ---- paged attention ----
    m("attn.full_tile_ignores_row_mask", "csrc/attention/full/paged_flash_attn_gqa_decode.cpp",
      "tb + TILE <= end && (!kRowMask || tb + TILE <= seq_len - (Q - 1))", "tb + TILE <= end", "attention"),
    m("attn.partition_rescale_inverted", "csrc/attention/full/paged_flash_attn_gqa_decode.cpp",
      "dev::exp2(m_old - m_new);\n      m_run[t][r]", "dev::exp2(m_new - m_old);\n      m_run[t][r]", "attention"),
    m("attn.reduce_drops_last_slot", "csrc/attention/full/paged_flash_attn_gqa_decode.cpp",
      "for (int i = 0; i < n; ++i) {\n    const int64_t at", "for (int i = 0; i + 1 < n; ++i) {\n    const int64_t at",
      "attention"),
    m("attn.int8_k_scale_index", "csrc/attention/full/paged_flash_attn_gqa_decode.cpp",
      "ksc[g / 4] >> (16 * ((g / 2) % 2))", "ksc[g / 4] >> (16 * (g % 2))", "attention"),
    m("attn.plan_end_unclamped", "csrc/attention/full/paged_flash_attn_gqa_decode.cpp",
      "end = start + span < len ? start + span : len;", "end = start + span;", "attention"),
    m("attn.v_tail_not_zeroed", "csrc/attention/full/paged_flash_attn_gqa_decode.cpp",
      "        if (!full) vb[j] = zero_outside(vb[j], lo, hi_e);\n", "", "attention"),
    m("attn.prefill_map_drops_partial_block", "csrc/attention/full/paged_flash_attn_gqa_prefill.cpp",
      "for (int64_t b = 0; b < (q_lens[i] + qb - 1) / qb; ++b)", "for (int64_t b = 0; b < q_lens[i] / qb; ++b)",
      "attention"),
    # ---- linear attention ----
    m("linear.conv_decode_start_row", "csrc/attention/linear/causal_conv1d.cpp",
      "accepted ? accepted[b] - 1 : 0;", "accepted ? accepted[b] : 0;", "linear"),
    m("linear.decay_sign", "csrc/attention/linear/gated_delta_rule_recurrent.cpp",
      "dev::exp2(-gate_g(", "dev::exp2(gate_g(", "linear"),
    m("linear.retain_ba_stride", "csrc/attention/linear/fused_linear_attn.cpp",
      "ba + D::HV, 2 * D::HV, a_log", "ba + D::HV, D::HV, a_log", "linear"),
    m("linear.advance_all_rows", "csrc/attention/linear/causal_conv1d.cpp",
      "const int64_t n = accepted ? accepted[b] : rows;", "const int64_t n = rows;", "linear"),
    # ---- MoE router, sort and scatter-reduce ----
    m("moe.router_tie_higher_index", "csrc/moe/router_topk_softmax.cpp",
      "(v == bv && i < bi); }", "(v == bv && i > bi); }", "moe"),
    m("moe.sort_skips_first_pad_row", "csrc/moe/fused_moe.cpp",
      "p = offset[x] + totals[x] + e; p < offset[x + 1]", "p = offset[x] + totals[x] + e + 1; p < offset[x + 1]",
      "moe"),
    m("moe.scatter_reduce_reversed", "csrc/moe/fused_moe.cpp",
      "for (int s = 0; s < S; ++s) {", "for (int s = S - 1; s >= 0; --s) {", "moe"),
    # ---- MoE low-bit entries ----
    m("moe.lowbit_merged_drops_shared", "csrc/gemm_core/gemm_core_moe_expert.h",
      "} else if (tile_in_pass(p.shared.tiles, tile)) {", "} else if (false) {", "moe"),
    m("moe.lowbit_merged_no_clamp", "csrc/moe/moe_lowbit_stage.h",
      "constexpr int L = ROLE == 0 && G::id == 2 ? 10000 : 0;", "constexpr int L = 0;", "moe"),
    m("moe.lowbit_down_stride_short", "csrc/moe/fused_moe_lowbit.cpp",
      "stride_dn = moe_lowbit_stride(1, E);", "stride_dn = moe_lowbit_stride(1, E - 1);", "moe"),
    m("moe.lowbit_table_ignored", "csrc/moe/fused_moe_lowbit.cpp",
      "table ? &routing : nullptr", "nullptr", "moe"),
    # ---- file reader ----
    m("io.tail_end_rounds_down", "csrc/io/file_read.cpp",
      "aligned_end = (offset + bytes + A - 1) / A * A;", "aligned_end = (offset + bytes) / A * A;", "io"),
    m("io.slot_taken_from_bottom", "csrc/io/file_read.cpp",
      "const int32_t slot = r->free_slots.back();", "const int32_t slot = r->free_slots.front();", "io"),
    m("io.tail_read_full_chunk", "csrc/io/file_read.cpp",
      "std::min(r->chunk_bytes, aligned_end - off)", "r->chunk_bytes", "io"),
]


def log(msg):
    print(msg, flush=True)


def run(cmd, cwd=None, env=None, timeout=None, out=None):
    """Runs cmd at low priority; returns (rc, seconds). rc 124 on timeout."""
    t0 = time.monotonic()
    # Its own process group, so a timeout or an interrupt also ends ninja's jobs.
    proc = subprocess.Popen(["nice", "-n", "15", *cmd], cwd=cwd, env=env, stdout=out, stderr=subprocess.STDOUT,
                            start_new_session=True)
    try:
        rc = proc.wait(timeout=timeout)
    except BaseException as e:
        os.killpg(proc.pid, signal.SIGKILL)
        proc.wait()
        if not isinstance(e, subprocess.TimeoutExpired):
            raise
        rc = 124
    return rc, time.monotonic() - t0


def sync_tree(src):
    """Mirrors the checkout's files (tracked and untracked, not ignored) into
    src, touching only files whose bytes differ so ninja rebuilds no more."""
    listed = subprocess.run(["git", "ls-files", "-co", "--exclude-standard", "-z"], cwd=REPO, check=True,
                            capture_output=True).stdout.decode().split("\0")
    want = {p for p in listed if p and (REPO / p).is_file()}
    for p in sorted(want):
        a, b = REPO / p, src / p
        data = a.read_bytes()
        if not b.is_file() or b.read_bytes() != data:
            b.parent.mkdir(parents=True, exist_ok=True)
            b.write_bytes(data)
            shutil.copymode(a, b)
    for b in src.rglob("*"):
        rel = b.relative_to(src).as_posix()
        if b.is_file() and not rel.startswith("build/") and rel not in want:
            b.unlink()


def build_env(src):
    env = dict(os.environ, CC="clang-19", CXX="clang++-19", CCACHE_BASEDIR=str(src), CCACHE_NOHASHDIR="1")
    venv = REPO / "build" / "venv"
    if (venv / "bin" / "python").exists():
        env["QUILLON_VENV"] = str(venv)
    return env


def configure(src, bdir, env):
    if (bdir / "build.ninja").exists():
        return
    venv_py = REPO / "build" / "venv" / "bin" / "python"
    py = venv_py if venv_py.exists() else Path(sys.executable)
    rc, _ = run(["cmake", "-S", str(src), "-B", str(bdir), "-G", "Ninja", "-DQUILLON_FLAVOUR=cpu",
                 f"-DPython3_EXECUTABLE={py}"], env=env)
    if rc:
        sys.exit("mutants: configuring the scratch build failed")


def targets_of(labels):
    return sorted({t for label in labels for t in TARGETS[label]})


def build(bdir, labels, env, logf, jobs, timeout):
    return run(["cmake", "--build", str(bdir), "-j", str(jobs), "--target", *targets_of(labels)],
               env=env, timeout=timeout, out=logf)


def first_failure(log_path):
    text = Path(log_path).read_text(errors="replace")
    found = re.findall(r"^\s*\d+ - (\S+) \((?:Failed|Timeout|Subprocess aborted|SEGFAULT|Exception)", text, re.M)
    return found[0] if found else "?"


def test(bdir, labels, env, logf, jobs, timeout):
    """Runs the labels under both schedules; rc != 0 means a test failed."""
    label_re = "^(" + "|".join(labels) + ")$"
    total = 0.0
    for sched in ("reverse", "forward"):
        logf.write(f"\n==== QUILLON_CPU_SCHEDULE={sched}\n")
        logf.flush()
        rc, secs = run(["ctest", "--test-dir", str(bdir), "-L", label_re, "-j", str(jobs), "--timeout",
                        str(timeout), "--stop-on-failure", "--no-tests=error", "--output-on-failure"],
                       env=dict(env, QUILLON_CPU_SCHEDULE=sched), out=logf)
        total += secs
        if rc:
            return rc, sched, total
    return 0, "", total


def apply_text(path, old, new):
    text = path.read_text()
    n = text.count(old)
    if n != 1:
        return None, n
    return text, text.replace(old, new)


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("names", nargs="*", help="mutant names or name prefixes (default: all)")
    ap.add_argument("--list", action="store_true", help="list the mutants and exit")
    ap.add_argument("--scratch", default="/tmp/quillon-mut", help="scratch tree and build (default %(default)s)")
    ap.add_argument("-j", "--jobs", type=int, default=2)
    ap.add_argument("--test-timeout", type=int, default=300, help="seconds per test case")
    ap.add_argument("--build-timeout", type=int, default=5400, help="seconds per rebuild")
    ap.add_argument("--skip-heavy", action="store_true", help="leave out the mutants marked heavy")
    ap.add_argument("--no-clean-run", action="store_true", help="skip the run of the unmutated tree")
    args = ap.parse_args()

    chosen = [x for x in MUTANTS if not args.names or any(x.name == n or x.name.startswith(n) for n in args.names)]
    # Heavy ones last: an interrupted run still has the quick results.
    chosen = sorted((x for x in chosen if not (args.skip_heavy and x.heavy)), key=lambda x: x.heavy)
    if args.list:
        for x in MUTANTS:
            n = (REPO / x.path).read_text().count(x.old)
            state = "" if n == 1 else f"  STALE: old text found {n} times"
            log(f"{x.name:38} {x.path:40} {','.join(x.labels)}{'  heavy' if x.heavy else ''}{state}")
        return 0
    if not chosen:
        sys.exit("mutants: no mutant matches " + " ".join(args.names))
    assert len({x.name for x in MUTANTS}) == len(MUTANTS), "mutant names are unique"

    # A terminated run still puts the mutated file back (the finally below).
    signal.signal(signal.SIGTERM, lambda *_: sys.exit("mutants: terminated"))
    scratch = Path(args.scratch)
    src, bdir, logs = scratch / "src", scratch / "src" / "build" / "cpu", scratch / "logs"
    logs.mkdir(parents=True, exist_ok=True)
    t_start = time.monotonic()
    sync_tree(src)
    env = build_env(src)
    configure(src, bdir, env)
    labels = sorted({label for x in chosen for label in x.labels})

    if not args.no_clean_run:
        log(f"clean tree: building and running {', '.join(labels)}")
        with open(logs / "clean.log", "w") as lf:
            rc, secs = build(bdir, labels, env, lf, args.jobs, args.build_timeout)
            if rc:
                sys.exit(f"mutants: the clean tree does not build ({logs / 'clean.log'})")
            rc, sched, tsecs = test(bdir, labels, env, lf, args.jobs, args.test_timeout)
        if rc:
            sys.exit(f"mutants: the clean tree fails under {sched} ({logs / 'clean.log'})")
        log(f"clean tree passes: build {secs:.0f}s, tests {tsecs:.0f}s")

    rows = []
    for x in chosen:
        path = src / x.path
        original, mutated = apply_text(path, x.old, x.new)
        if original is None:
            log(f"{x.name}: STALE, old text found {mutated} times in {x.path}")
            rows.append((x, "STALE", "", 0.0, 0.0))
            continue
        log_path = logs / f"{x.name}.log"
        try:
            path.write_text(mutated)
            with open(log_path, "w") as lf:
                rc, bsecs = build(bdir, x.labels, env, lf, args.jobs, args.build_timeout)
                if rc:
                    result, by, tsecs = "build-failed", "", 0.0
                else:
                    rc, sched, tsecs = test(bdir, x.labels, env, lf, args.jobs, args.test_timeout)
                    result = "killed" if rc else "survived"
                    by = f"{first_failure(log_path)} ({sched})" if rc else ""
        finally:
            # A fresh mtime, so the next build recompiles the original (a ccache hit).
            path.write_text(original)
        log(f"{x.name}: {result} {by} [build {bsecs:.0f}s, tests {tsecs:.0f}s]")
        rows.append((x, result, by, bsecs, tsecs))

    log("")
    log(f"{'mutant':38} {'labels':12} {'result':13} {'build':>6} {'tests':>6}  killed by")
    for x, result, by, bsecs, tsecs in rows:
        log(f"{x.name:38} {','.join(x.labels):12} {result:13} {bsecs:5.0f}s {tsecs:5.0f}s  {by}")
    counted = [r for r in rows if r[1] in ("killed", "survived")]
    killed = sum(r[1] == "killed" for r in rows)
    others = {k: sum(r[1] == k for r in rows) for k in ("build-failed", "STALE")}
    log(f"\nkilled {killed} of {len(counted)}"
        + "".join(f", {n} {k}" for k, n in others.items() if n)
        + f"  ({(time.monotonic() - t_start) / 60:.1f} min; logs in {logs})")
    return 1 if any(others.values()) else 0


if __name__ == "__main__":
    sys.exit(main())
