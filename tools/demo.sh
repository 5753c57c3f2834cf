#!/usr/bin/env bash
# Builds both flavours and runs the demo on the CPU device.
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/install_deps.sh
python3 tools/check_toolchain.py "${QUILLON_VENV:-build/venv}/bin/python"
bash tools/build.sh hip
bash tools/build.sh cpu
echo
build/cpu/examples/quillon_demo
echo
echo "gfx1151 library: $PWD/build/hip/csrc/libquillon.so ($(python3 tools/isa_report.py build/hip --quiet | head -1))"
echo "CPU-device library: $PWD/build/cpu/csrc/libquillon.so"
