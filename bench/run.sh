#!/usr/bin/env bash
# Builds what the comparison needs and runs it.
#   bench/run.sh [--help | arguments of bench/compare.py]
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh --bench
log=build/bench.log
mkdir -p build
if ! { cmake --preset bench && cmake --build --preset bench; } >"$log" 2>&1; then
  tail -n 30 "$log" >&2
  echo "the build failed; the whole log is $log" >&2
  exit 1
fi
python=build/bench-python/bin/python
if ! cmp -s bench/requirements.txt build/bench-python/installed.txt; then
  python3 -m venv build/bench-python
  "$python" -m pip install --quiet --disable-pip-version-check -r bench/requirements.txt
  cp bench/requirements.txt build/bench-python/installed.txt
fi
exec "$python" bench/compare.py "$@"
