#!/usr/bin/env python3
"""Traffic model of one whole decode step (one token, M = 1) of geometries 0 and 1.

A model, not a measurement: no gfx1151 runs here. It counts the bytes a decode
token reads from memory, operator by operator, over a whole model step, and
sets them against 256 GB/s. Weights count once per token (M = 1 reuses no
weight); a linear-attention layer reads and writes its convolution window and
its fp32 recurrent state; a full-attention layer reads K and V of every
history token; the MoE block reads the router and the S experts a token
visits (top-k routed plus the shared one). Activations (a few rows of H per
operator, some tens of KiB per layer) are left out.

The layer counts are the engine's knowledge, not the library's: the ones
assumed here (three linear layers in every four) are options.

Weight forms: "bf16" stores every projection in bf16; "Q4_K" stores every
projection, expert and the LM head as Q4_K (256 weights in 144 bytes); norms,
the convolution taps, the router and the split form's logit rows stay bf16 in
both, as the layer's split forms keep them.

usage: decode_step_traffic.py [--context N ...] [--layers g:linear:full ...]
"""
import argparse
import sys

GB_S = 256e9

# Dimensions of the geometry record (the same values quillon_model_config reports).
GEOM = {
    0: dict(H=2048, NQ=16, NKV=2, HD=256, V=248320, QKV=9216, CONV=8192, VD=4096, HV=32, ROW=12416,
            E=256, TOPK=8, I=512, MLP=0),
    1: dict(H=5120, NQ=24, NKV=4, HD=256, V=248320, QKV=14336, CONV=10240, VD=6144, HV=48, ROW=16512,
            E=0, TOPK=0, I=0, MLP=17408),
}
LAYERS = {0: (30, 10), 1: (48, 16)}


def wbytes(n, form):
    return n * 2 if form == "bf16" else n * 144 / 256


def step(g, form, context, layers):
    d = GEOM[g]
    H = d["H"]
    nlin, nfull = layers
    parts = []
    # full attention: fused QKV, output projection, K/V pages of the history, one new K/V entry.
    full_w = wbytes(H * d["QKV"], form) + wbytes(d["NQ"] * d["HD"] * H, form) + 4 * H
    kv = context * (d["NKV"] * 4 * d["HD"] + 4 * d["NKV"] / 16) + d["NKV"] * 4 * d["HD"]
    parts.append(("full-attention weights", nfull * full_w))
    parts.append(("KV history at context %d" % context, nfull * kv))
    # linear attention: in-projection (one ROW block in bf16; qkvz quantized plus bf16 logit rows in Q4_K),
    # taps, out-projection; conv window and delta state read and written once per token.
    if form == "bf16":
        lin_in = wbytes(H * d["ROW"], form)
    else:
        lin_in = wbytes(H * (d["CONV"] + d["VD"]), form) + 2 * H * 128
    lin_w = lin_in + 2 * 4 * d["CONV"] + wbytes(d["VD"] * H, form) + 2 * d["VD"] + 8 * d["HV"] + 4 * H
    state = 2 * (3 * d["CONV"] * 2 + d["HV"] * 128 * 128 * 4)
    parts.append(("linear-attention weights", nlin * lin_w))
    parts.append(("linear-attention state (read + write)", nlin * state))
    # feed-forward: MoE router and S = top-k + 1 experts of 3*I*H weights, or the dense MLP.
    layers_all = nlin + nfull
    if d["E"]:
        moe = 2 * d["E"] * H + (d["TOPK"] + 1) * wbytes(3 * d["I"] * H, form)
        parts.append(("MoE router + %d experts" % (d["TOPK"] + 1), layers_all * moe))
    else:
        parts.append(("dense MLP", layers_all * wbytes(3 * d["MLP"] * H, form)))
    parts.append(("embedding row + LM head", 2 * H + wbytes(d["V"] * H, form)))
    return parts


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--context", type=int, nargs="*", default=[4096, 32768])
    ap.add_argument("--layers", nargs="*", default=[], help="g:linear:full, e.g. 0:30:10")
    a = ap.parse_args()
    layers = dict(LAYERS)
    for s in a.layers:
        g, lin, full = (int(x) for x in s.split(":"))
        layers[g] = (lin, full)
    print("| geometry | layers (linear + full) | form | context | MB read per token | of it: weights | "
          "tokens/s if every byte moves at 256 GB/s |")
    print("|---|---|---|---|---|---|---|")
    detail = []
    for g in (0, 1):
        for form in ("bf16", "Q4_K"):
            for ctx in a.context:
                parts = step(g, form, ctx, layers[g])
                total = sum(b for _, b in parts)
                weights = sum(b for n, b in parts if "weights" in n or "MoE" in n or "MLP" in n or "head" in n)
                print("| %d | %d + %d | %s | %d | %.0f | %.0f | %.1f |" % (
                    g, layers[g][0], layers[g][1], form, ctx, total / 1e6, weights / 1e6, GB_S / total))
                if ctx == a.context[0]:
                    detail.append((g, form, parts, total))
    for g, form, parts, total in detail:
        print("\ngeometry %d, %s, context %d: bytes per token by part" % (g, form, a.context[0]))
        for n, b in parts:
            print("  %-40s %10.1f MB  %5.1f%%" % (n, b / 1e6, 100 * b / total))
    return 0


if __name__ == "__main__":
    sys.exit(main())
