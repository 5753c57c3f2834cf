#!/usr/bin/env bash
# Builds both flavours and runs the whole suite: the gfx1151 checks (resources,
# disassembly, exports) and every test on the CPU device under two schedules.
# The test executables are built in both flavours.
set -euo pipefail
cd "$(dirname "$0")/.."
t0=$(date +%s)
bash tools/install_deps.sh
python3 tools/check_toolchain.py "${QUILLON_VENV:-build/venv}/bin/python"
t1=$(date +%s)
bash tools/build.sh hip
t2=$(date +%s)
bash tools/build.sh cpu
t3=$(date +%s)
status=0
# The hip flavour's test executables are built, not run: they need a gfx1151 (`ctest -L gpu`).
ctest --test-dir build/hip -LE gpu --output-on-failure || status=1
QUILLON_CPU_SCHEDULE=reverse ctest --test-dir build/cpu -j "$(nproc)" --output-on-failure || status=1
t4=$(date +%s)
QUILLON_CPU_SCHEDULE=forward ctest --test-dir build/cpu -j "$(nproc)" --output-on-failure || status=1
t5=$(date +%s)
# Where the build time went: job-seconds and kernels per family, slowest units.
python3 tools/build_report.py build || status=1
echo "timing: install $((t1 - t0))s, build hip $((t2 - t1))s, build cpu $((t3 - t2))s," \
     "tests reverse $((t4 - t3))s, tests forward $((t5 - t4))s"
exit $status
