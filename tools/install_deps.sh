#!/usr/bin/env bash
# Installs what building and testing need on Debian 12, from Debian's packages
# and PyPI only; the lists are tools/deps/apt.txt and tools/deps/pip.txt, which
# tools/check_toolchain.py holds the build's real needs against. Safe to run again.
set -euo pipefail
cd "$(dirname "$0")/.."
SUDO=""
if [ "$(id -u)" != 0 ]; then SUDO="sudo"; fi
list() { grep -v '^#' "$1" | xargs; }
missing=""
for p in $(list tools/deps/apt.txt); do dpkg -s "$p" >/dev/null 2>&1 || missing="$missing $p"; done
if [ -n "$missing" ]; then
  $SUDO apt-get update
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y --no-install-recommends $missing
fi
# The conformance oracle for weight formats lives in a project-local venv.
venv="${QUILLON_VENV:-build/venv}"
pip_pkgs=$(list tools/deps/pip.txt)
imports=$(echo "$pip_pkgs" | tr ' ' ',')
if [ ! -x "$venv/bin/python" ] || ! "$venv/bin/python" -c "import $imports" 2>/dev/null; then
  /usr/bin/python3 -m venv "$venv" 2>/dev/null || python3 -m venv "$venv"
  "$venv/bin/python" -m pip install -q --disable-pip-version-check $pip_pkgs
fi
