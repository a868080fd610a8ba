#!/usr/bin/env bash
# Only what is compiled for an instruction set has its instructions, whatever the linker makes of it.
#   instruction_sets_test.sh OBJECTS    a file with a line for each object file: TARGET PATH
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
declare -A forbidden=([host]=$avx [kernels_baseline]=$avx [kernels_avx2]=$avx512
  [kernels_avx512]='\ttilezero')
declare -A required=([kernels_baseline]=mulps [kernels_avx2]=%ymm [kernels_avx512]=%zmm)
clones=0
while read -r target object; do
  if [ "$target" != objects ]; then
    found=$(functions_with "${forbidden[$target]}" "$object")
    [ -z "$found" ] || fail "$object: expected no instruction like ${forbidden[$target]}, found $found"
    if [[ $object == */products.cpp.o ]]; then
      [ -n "$(functions_with "${required[$target]}" "$object")" ] ||
        fail "$object: expected instructions like ${required[$target]}, found none"
      unset "required[$target]"
    fi
    [[ $target == host ]] || ! shared=$(nm -C --defined-only "$object" |
      grep -v " [bdrt] \| D host_device::${target#kernels_}::[a-z]*$") ||
      fail "$object: expected nothing that another unit may share, found $shared"
  elif [[ $object == */src/kernels/* ]]; then
    # The clones of a kernel's launch say in their names what they are for.
    found=$(functions_with "$avx" "$object" | grep -v visitAvx) && fail "$object: AVX in $found"
    found=$(functions_with "$avx512" "$object" | grep -v visitAvx512) && fail "$object: AVX-512 in $found"
    clones=$((clones + $(functions_with %zmm "$object" | grep -c visitAvx512 || true)))
  fi
done <"$1"
[ ${#required[@]} -eq 0 ] || fail "expected products.cpp of ${!required[*]}, found none"
[ "$clones" -gt 0 ] || fail "expected clones for AVX-512, found none"
exit "$failures"
