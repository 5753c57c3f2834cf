#!/usr/bin/env bash
# Configures and builds one flavour: tools/build.sh hip|cpu
set -euo pipefail
flavour="$1"
export CC=clang-19 CXX=clang++-19
# Paths below the checkout hash as relative ones, so a fresh clone of the same
# sources (CI, a worktree) is served by the cache a previous build filled.
export CCACHE_BASEDIR="${CCACHE_BASEDIR:-$PWD}" CCACHE_NOHASHDIR=1
cmake -S . -B "build/$flavour" -G Ninja -DQUILLON_FLAVOUR="$flavour" -DPython3_EXECUTABLE="$PWD/build/venv/bin/python" >/dev/null
cmake --build "build/$flavour" -j "$(nproc)"
