#!/usr/bin/env bash
# Installs what building and testing need on Debian 12, from Debian's packages
# and PyPI only. Safe to run again.
set -euo pipefail
SUDO=""
if [ "$(id -u)" != 0 ]; then SUDO="sudo"; fi
PKGS="clang-19 lld-19 llvm-19 libamdhip64-dev libboost-context-dev cmake ninja-build googletest libgtest-dev
      ccache python3 python3-venv binutils"
missing=""
for p in $PKGS; do dpkg -s "$p" >/dev/null 2>&1 || missing="$missing $p"; done
if [ -n "$missing" ]; then
  $SUDO apt-get update
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y --no-install-recommends $missing
fi
# The conformance oracle for weight formats lives in a project-local venv.
venv="${QUILLON_VENV:-build/venv}"
if [ ! -x "$venv/bin/python" ] || ! "$venv/bin/python" -c "import gguf, numpy" 2>/dev/null; then
  /usr/bin/python3 -m venv "$venv" 2>/dev/null || python3 -m venv "$venv"
  "$venv/bin/python" -m pip install -q --disable-pip-version-check gguf numpy
fi
