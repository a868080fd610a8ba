#!/usr/bin/env bash
# Installs the Debian packages that building needs and that this machine lacks. With options, also those
# that ./test.sh, bench/run.sh, scripts/python.sh, scripts/valgrind.sh or scripts/aarch64-check.sh need.
#   scripts/setup.sh [--tests] [--bench] [--python] [--valgrind] [--aarch64]
set -euo pipefail

packages=(
  "g++:compiler" "cmake:build system" "ninja-build:build system"
  "libmsgpack-cxx-dev:weight files"
  "libcli11-dev:command line of the tool" "nlohmann-json3-dev:JSON output of the tool"
  "libeigen3-dev:searches descriptors" "libutfcpp-dev:tells what is UTF-8 in names of files"
  "libspng-dev:decodes and encodes PNG" "libjpeg-dev:decodes JPEG" "libexif-dev:tells how pictures are turned"
  "libstb-dev:resizes images" "pv:shows the progress of long runs"
)
for group in "$@"; do
  case $group in
    --tests)
      packages+=("libgtest-dev:tests" "python3:tests of the tool" "git:lists the sources to check"
        "clang-format:style check" "clang-tidy:static analysis"
        "shellcheck:checks scripts" "flake8:checks Python"
        "clang:second compiler, for builds under sanitizers"
        "libclang-rt-dev:the sanitizers, and counting what tests reach"
        "libomp-dev:OpenMP for clang, and what ThreadSanitizer needs to know of it"
        "llvm:names in the reports of sanitizers, coverage"
        "libbenchmark-dev:benchmarks of layers, which must build"
        "doxygen:checks that the public headers are documented" "mandoc:checks the manual page"
        "dpkg-dev:dependencies of the Debian packages" "file:finds their libraries"
        "lintian:checks the packages" "abigail-tools:compares the library's interface with the last"
        "pkgconf:one way to use the library")
      ;;
    --bench)
      packages+=("libbenchmark-dev:benchmarks of layers" "python3-venv:comparison with other engines")
      ;;
    --python)
      packages+=("python3-dev:Python's headers" "python3-venv:builds and tests the package")
      ;;
    --valgrind) packages+=("valgrind:sees reads of memory that nobody wrote") ;;
    --aarch64)
      packages+=("g++-aarch64-linux-gnu:cross compiler" "googletest:tests, to be compiled"
        "qemu-user:runs programs for another processor")
      ;;
    *)
      echo "unknown group: $group" >&2
      exit 2
      ;;
  esac
done

missing=()
for entry in "${packages[@]}"; do
  name=${entry%%:*}
  if ! dpkg-query -W -f='${Status}' "$name" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$name")
    echo "needs $name: ${entry#*:}"
  fi
done
[ ${#missing[@]} -gt 0 ] || exit 0

as_root=()
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || {
    echo "run as root, or install these packages: ${missing[*]}" >&2
    exit 1
  }
  as_root=(sudo)
fi
echo "installing ${#missing[@]} packages from Debian ..."
log=$(mktemp)
trap 'rm -f "$log"' EXIT
if ! { "${as_root[@]}" apt-get update -q &&
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y -q --no-install-recommends "${missing[@]}"; } >"$log" 2>&1; then
  tail -n 20 "$log" >&2
  echo "installing failed: ${missing[*]}" >&2
  exit 1
fi
