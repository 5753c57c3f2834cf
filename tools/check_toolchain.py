#!/usr/bin/env python3
"""Checks that the install lists cover what a build and the tests really run.

Asks clang++-19 (with -###) which programs a gfx1151 compile and link and a
CPU-flavour compile and link run, and fails naming any program that is missing
or that no package of tools/deps/apt.txt (or what those depend on) provides.
Then checks that every module the tests' Python files import is in the
standard library or tools/deps/pip.txt, and importable from the venv.

    check_toolchain.py [VENV_PYTHON]
"""
import ast
import os
import re
import shlex
import subprocess
import sys
import tempfile

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
CXX = "clang++-19"
HIP = ["-x", "hip", "--offload-arch=gfx1151", "-nogpulib", "-nogpuinc"]


def listed(name):
    with open(os.path.join(ROOT, "tools", "deps", name)) as f:
        return [w for line in f if not line.startswith("#") for w in line.split()]


def driver_programs(tmp):
    """Programs the driver would run, as (program, what for)."""
    src = os.path.join(tmp, "t.cpp")
    obj = os.path.join(tmp, "t.o")
    with open(src, "w") as f:
        f.write("int quillon_probe() { return 0; }\n")
    with open(obj, "wb"):
        pass
    jobs = [
        ("gfx1151 compile", HIP + ["-c", src, "-o", obj]),
        ("gfx1151 library link", ["-fuse-ld=lld", "-shared", obj, "-o", os.path.join(tmp, "t.so")]),
        ("cpu compile", ["-march=x86-64-v3", "-c", src, "-o", obj]),
        ("test executable link", [obj, "-o", os.path.join(tmp, "t")]),
    ]
    progs = []
    for what, args in jobs:
        try:
            r = subprocess.run([CXX, "-###"] + args, capture_output=True, text=True)
        except FileNotFoundError:
            sys.exit(f"toolchain: {CXX} is missing; run tools/install_deps.sh")
        for line in r.stderr.splitlines():
            if line.startswith(' "'):
                progs.append((shlex.split(line)[0], what))
    return progs


def owner(path):
    r = subprocess.run(["dpkg", "-S", path], capture_output=True, text=True)
    if r.returncode != 0:
        return None
    return r.stdout.split(":")[0].split(",")[0].strip()


def closure(roots):
    """Installed packages reachable from `roots` through Depends/Pre-Depends."""
    out = subprocess.run(["dpkg-query", "-W", "-f=${Package} ${Provides}|${Depends}, ${Pre-Depends}\n"],
                         capture_output=True, text=True).stdout
    deps, provides = {}, {}
    for line in out.splitlines():
        head, _, dep = line.partition("|")
        name, *prov = head.split(" ", 1)
        deps[name] = [re.split(r"[ :(]", alt.strip())[0] for alt in re.split(r"[,|]", dep) if alt.strip()]
        for p in (prov[0].split(",") if prov and prov[0] else []):
            provides.setdefault(re.split(r"[ (]", p.strip())[0], []).append(name)
    seen, todo = set(), list(roots)
    while todo:
        p = todo.pop()
        for q in [p] + provides.get(p, []):
            if q in deps and q not in seen:
                seen.add(q)
                todo.extend(deps[q])
    return seen


def python_imports():
    mods = {}
    for base, _, files in os.walk(os.path.join(ROOT, "tests")):
        for f in files:
            if f.endswith(".py"):
                path = os.path.join(base, f)
                for node in ast.walk(ast.parse(open(path).read(), path)):
                    names = [a.name for a in node.names] if isinstance(node, ast.Import) else \
                        [node.module] if isinstance(node, ast.ImportFrom) and node.module and not node.level else []
                    for n in names:
                        mods.setdefault(n.split(".")[0], os.path.relpath(path, ROOT))
    return mods


def main():
    errors = []
    apt = listed("apt.txt")
    covered = closure(apt)
    with tempfile.TemporaryDirectory() as tmp:
        progs = driver_programs(tmp)
    if not progs:
        errors.append(f"{CXX} -### printed no subcommands")
    for prog, what in sorted(set(progs)):
        real = os.path.realpath(prog)
        if not os.access(real, os.X_OK):
            errors.append(f"{prog} (run by a {what}) is missing; add the Debian package that provides it "
                          f"to tools/deps/apt.txt")
            continue
        pkg = owner(real) or owner(prog)
        if pkg is None:
            errors.append(f"{prog} (run by a {what}) belongs to no Debian package")
        elif pkg not in covered:
            errors.append(f"{prog} (run by a {what}) comes from {pkg}, which tools/deps/apt.txt does not list")

    venv_python = sys.argv[1] if len(sys.argv) > 1 else sys.executable
    pip = set(listed("pip.txt"))
    for mod, where in sorted(python_imports().items()):
        if mod in sys.stdlib_module_names:
            continue
        if mod not in pip:
            errors.append(f"python module {mod} (imported by {where}) is not in tools/deps/pip.txt")
        elif subprocess.run([venv_python, "-c", f"import {mod}"], capture_output=True).returncode != 0:
            errors.append(f"python module {mod} (imported by {where}) does not import in {venv_python}")

    for e in errors:
        print("toolchain: " + e, file=sys.stderr)
    if errors:
        return 1
    print(f"toolchain: {len(set(p for p, _ in progs))} programs and the tests' python imports are covered "
          f"by tools/deps")
    return 0


if __name__ == "__main__":
    sys.exit(main())
