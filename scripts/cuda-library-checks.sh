# shellcheck shell=bash
# Sourced by scripts that check a CUDA build of the library, with whatever toolkit it was built.

exports() { nm -D --defined-only "$1" | awk '{print $3}' | sort; }

check_exports() { # LIBRARY
  diff <(exports build/host/libfacezoo.so) <(exports "$1")
  echo "exported names: the same $(exports "$1" | wc -l) as the host build"
}

check_device_code() { # LIBRARY ARCHITECTURE...: machine code and PTX for each, in each of the three units
  local found library=$1 architecture wanted
  found=$(python3 scripts/device_code.py "$library")
  shift
  for architecture; do
    for wanted in "sm_$architecture.cubin" "sm_$architecture.ptx"; do
      [ "$(grep -cxF "$wanted" <<<"$found")" -eq 3 ] || {
        echo "no device code $wanted in each unit; there is:" >&2
        sort <<<"$found" | uniq -c >&2
        return 1
      }
    done
  done
  echo "device code: machine code and PTX for $*"
}
