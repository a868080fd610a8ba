#!/usr/bin/env bash
# Builds what a comparison with other engines needs, and runs the comparison.
#   bench/run.sh [--help | arguments of bench/compare.py]
#   bench/run.sh torch [--help | arguments of bench/compare_torch.py]
#   bench/run.sh python [--help | arguments of bench/python_calls.py]
. "$(dirname "$0")/../scripts/prelude.sh"

comparison=compare
requirements=bench/requirements.txt
environment=build/bench-python
preset=bench
if [ "${1:-}" = python ]; then
  shift
  comparison=python_calls
elif [ "${1:-}" = torch ]; then
  shift
  comparison=compare_torch
  requirements=bench/requirements-torch.txt
  environment=build/bench-torch
  [[ " $* " == *" --device"[\ =]"cpu "* ]] || preset=bench-cuda
fi

scripts/setup.sh --bench --python
log=build/bench.log
mkdir -p build
if ! { cmake --preset $preset && cmake --build --preset $preset; } >"$log" 2>&1; then
  tail -n 30 "$log" >&2
  echo "the build failed; the whole log is $log" >&2
  exit 1
fi
python=$environment/bin/python
if ! cmp -s $requirements $environment/installed.txt; then
  python3 -m venv $environment
  "$python" -m pip install --quiet --disable-pip-version-check -r $requirements
  cp $requirements $environment/installed.txt
fi
package=$environment/package.txt # is as old as the package there, which has the graphs of the networks
if [ ! -e "$package" ] || [ -n "$(find CMakeLists.txt pyproject.toml include platform python src \
  -newer "$package" -print -quit)" ]; then
  touch "$package.new"
  "$python" -m pip install --quiet --disable-pip-version-check .
  mv "$package.new" "$package"
fi
exec "$python" bench/$comparison.py "$@"
