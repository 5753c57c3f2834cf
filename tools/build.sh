#!/usr/bin/env bash
# Configures and builds one flavour: tools/build.sh hip|cpu
set -euo pipefail
flavour="$1"
export CC=clang-19 CXX=clang++-19
cmake -S . -B "build/$flavour" -G Ninja -DQUILLON_FLAVOUR="$flavour" -DPython3_EXECUTABLE="$PWD/build/venv/bin/python" >/dev/null
cmake --build "build/$flavour" -j "$(nproc)"
