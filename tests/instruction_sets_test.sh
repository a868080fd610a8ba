#!/usr/bin/env bash
# Only what is compiled for an instruction set has its instructions, whatever the linker makes of it.
#   instruction_sets_test.sh BUILD_DIR
set -euo pipefail
failures=0

fail() {
  echo "$@"
  failures=1
}

# The functions of an object with such an instruction or operand.
functions_with() { # PATTERN OBJECT
  objdump -d --no-show-raw-insn -C "$2" |
    awk -v pattern="$1" '/^[0-9a-f]+ </ {name = $0} $0 ~ pattern && /^ / && !seen[name]++ {print name}'
}

avx='\tv[a-z]'
avx512='%zmm|%k[0-7]|%[xy]mm(1[6-9]|[23][0-9])'
while read -r set forbidden required; do
  for object in "$1"/platform/host/CMakeFiles/facezoo_"$set".dir/*/*.o; do
    found=$(functions_with "$forbidden" "$object")
    [ -z "$found" ] || fail "$object: expected no instruction like $forbidden, found $found"
    [[ $object != */products.cpp.o ]] || [ -n "$(functions_with "$required" "$object")" ] ||
      fail "$object: expected instructions like $required, found none"
    [[ $set == host ]] || ! shared=$(nm -C --defined-only "$object" |
      grep -v " [bdrt] \| D host_device::${set#kernels_}::[a-z]*$") ||
      fail "$object: expected nothing that another unit may share, found $shared"
  done
done <<END
host $avx mulps
kernels_baseline $avx mulps
kernels_avx2 $avx512 %ymm
kernels_avx512 \ttilezero %zmm
END

# The clones of a kernel's launch say in their names what they are for.
clones=0
for object in "$1"/CMakeFiles/facezoo_objects.dir/src/kernels/*.o; do
  found=$(functions_with "$avx" "$object" | grep -v visitAvx) && fail "$object: AVX in $found"
  found=$(functions_with "$avx512" "$object" | grep -v visitAvx512) && fail "$object: AVX-512 in $found"
  clones=$((clones + $(functions_with %zmm "$object" | grep -c visitAvx512 || true)))
done
[ "$clones" -gt 0 ] || fail "expected clones for AVX-512, found none"
exit "$failures"
