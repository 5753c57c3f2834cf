#!/usr/bin/env python3
"""The public headers' declarations and a built library's exports must agree.

    check_exports.py HEADER... LIB
"""
import re
import subprocess
import sys


def declared(headers):
    text = "".join(open(h).read() for h in headers)
    return set(re.findall(r"QUILLON_API\s+[^;(]*?\b(quillon_\w+)\s*\(", text))


def exported(lib):
    out = subprocess.run(["nm", "-D", "--defined-only", lib], capture_output=True, text=True, check=True).stdout
    return {l.split()[-1] for l in out.splitlines() if l.strip()}


def main():
    headers, lib = sys.argv[1:-1], sys.argv[-1]
    d, e = declared(headers), exported(lib)
    stray = sorted(x for x in e if not x.startswith("quillon_"))
    missing, undeclared = sorted(d - e), sorted(x for x in e - d if x.startswith("quillon_"))
    for name in missing:
        print("declared but not exported:", name)
    for name in undeclared:
        print("exported but not declared:", name)
    for name in stray:
        print("exported outside quillon_*:", name)
    print("check_exports: %d declared, %d exported" % (len(d), len(e)))
    return 1 if missing or undeclared or stray else 0


if __name__ == "__main__":
    sys.exit(main())
