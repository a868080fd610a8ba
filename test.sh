#!/usr/bin/env bash
# Checks style and runs all tests of the CPU build, plain and under AddressSanitizer and
# UndefinedBehaviorSanitizer. .ci/run runs everything that must pass before a change lands.
#   ./test.sh [host|host-asan|host-tsan|python|style]...    default: host host-asan style
. "$(dirname "$0")/scripts/prelude.sh"

scripts/setup.sh --tests
[ $# -gt 0 ] || set -- host host-asan style

for part in "$@"; do
  echo "== $part"
  start=$SECONDS
  case $part in
    host | host-asan | host-tsan)
      cmake --preset "$part" >/dev/null
      cmake --build --preset "$part"
      ctest --preset "$part" -j "$(nproc)"
      grep -hE '^(visited|measured) ' "build/$part/Testing/Temporary/LastTest.log"
      ;;
    python) scripts/python.sh ;;
    style) scripts/style.sh ;;
    *)
      echo "unknown part: $part" >&2
      exit 2
      ;;
  esac
  echo "== $part: ok, $((SECONDS - start)) s"
done
